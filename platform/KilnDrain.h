// Kiln::Drain: the deferred work of a machine whose handlers only queue and whose task works the
// queue off, and the one loop that does it. Every machine's task runs the same loop:
//
//   handler --> mark(key) (+ schedule the task)
//   task run --> run(process): from the bookmark (the pass under way), member by member
//      - output congested (attribute log clogged): stop before the member, which stays first;
//        the task fires again after `congestionDelay` unless it is already due earlier
//      - the scheduler says yield: stop after the member, the task is scheduled again at once
//      - drained (or, with `passPerRun`, the pass ended): the machine decides what follows
//   then the task's work count grows by the members processed and one trace line tells the run.
//
// Guarantees (tests/platform/KilnDrainTest.cpp):
//  - the order is the pending set's (platform/KilnPending.h): a function of what is pending, never
//    of the order of the marks or of where a run stopped;
//  - congestion and yields lose nothing and process nothing twice: a run that stops resumes at the
//    member it stopped before;
//  - `process` gets a copy of the member, already popped: it may mark keys (one ahead in the pass
//    is merged into that member, any other waits for the next pass) and may clear the set;
//  - with `passPerRun` a run never begins a second pass: what is marked during a pass waits for a
//    later run, which the machine schedules (a check that repeats on a timer);
//  - `prefetch(key)` is called for the member `prefetchDistance` places ahead, so that a drain over
//    tables larger than the caches fetches its slots early.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/Kiln.h"
#include "platform/KilnPending.h"
#include "platform/Trace.h"

namespace Kiln {

// How one run of a drain ended.
enum class DrainEnd { drained, passDone, yielded, congested };
const char* drainEndName(DrainEnd end) noexcept;

// Merge for values where the latest mark wins (a handle that a later mark replaces).
struct MergeLatest {
   template <class V>
   void operator()(V& into, const V& v) const {
      into = v;
   }
};

template <class K, class V = NoValue, class Less = std::less<K>, class Merge = MergeNothing>
class Drain {
 public:
   using Pending = PendingSet<K, V, Less, Merge>;
   using Member = typename Pending::Member;

   struct Options {
      const char* what = "entries"; // what a member is, for the trace line
      int traceLevel = 5;
      Duration congestionDelay = durationOf(0.1);
      size_t prefetchDistance = 0; // 0: no prefetch
      bool passPerRun = false;
   };

   explicit Drain(Options options = {}) : options_(options) {}

   const Pending& pending() const noexcept { return pending_; }
   bool empty() const noexcept { return pending_.empty(); }
   void mark(const K& key, const V& value = V()) { pending_.mark(key, value); }
   void clear() noexcept { pending_.clear(); }
   void forget(const K& key) { pending_.forget(key); }
   // Where the pass under way resumes; null when none is under way.
   const K* bookmark() const noexcept { return pending_.bookmark(); }
   const Options& options() const noexcept { return options_; }

   // One run of `task`: see the guarantees. `process(key, value)` handles one member.
   template <class Process>
   DrainEnd run(Task& task, const AttrLogSm& attrLog, Trace::Tracer& tracer, Process&& process) {
      return run(task, attrLog, tracer, std::forward<Process>(process), [](const K&) {});
   }
   template <class Process, class Prefetch>
   DrainEnd run(Task& task, const AttrLogSm& attrLog, Trace::Tracer& tracer, Process&& process,
                Prefetch&& prefetch) {
      uint64_t count = 0;
      DrainEnd end = DrainEnd::drained;
      while (Member* member = pending_.front()) {
         if (attrLog.isAttrLogOutClogged()) {
            end = DrainEnd::congested;
            break;
         }
         if (options_.prefetchDistance != 0) {
            if (const Member* soon = pending_.ahead(options_.prefetchDistance)) prefetch(soon->key);
         }
         // Copied: processing may mark keys, and the member goes once popped.
         const K key = member->key;
         V value = std::move(member->value);
         pending_.pop();
         process(key, value);
         ++count;
         if (pending_.empty()) break;
         if (options_.passPerRun && !pending_.passUnderWay()) {
            end = DrainEnd::passDone;
            break;
         }
         if (task.taskShouldYield()) {
            end = DrainEnd::yielded;
            break;
         }
      }
      task.taskWorkCountInc(count);
      SRTE_TRACE_TO(&tracer, options_.traceLevel,
                    task.name() << ": processed " << count << " " << options_.what << ", "
                                << drainEndName(end) << ", " << pending_.sizeAtMost()
                                << " pending");
      if (end == DrainEnd::congested) {
         task.scheduleTaskLowestDelay(options_.congestionDelay);
      } else if (end == DrainEnd::yielded) {
         task.scheduleTask();
      }
      return end;
   }

 private:
   Options options_;
   Pending pending_;
};

inline const char* drainEndName(DrainEnd end) noexcept {
   switch (end) {
   case DrainEnd::drained:
      return "drained";
   case DrainEnd::passDone:
      return "pass done";
   case DrainEnd::yielded:
      return "yielded";
   case DrainEnd::congested:
      return "congested, backing off";
   }
   return "?";
}

} // namespace Kiln
