// Kiln: the cooperative task scheduler of the agent's one event loop, its clock, and the
// attribute-log congestion flag the state machines back off on.
//
// Guarantees (tests/platform/KilnTest.cpp):
//  - `scheduleTask` is idempotent: a task scheduled twice before it runs runs once;
//  - ready tasks run in priority order (lower value first), first-scheduled first within one
//    priority; a task that schedules itself while running runs again after what was ready;
//  - `scheduleTaskLowestDelay(d)` never postpones an earlier request: the task fires at the
//    earliest time any pending request asked for; an immediate `scheduleTask` cancels the timer;
//  - on a virtual clock nothing sleeps: `advance` moves time to each due timer in order, runs what
//    became ready there, and ends at the requested time; `runUntilIdle` never moves time;
//  - `taskShouldYield` answers from the running task's slice: a work-unit budget on a virtual
//    clock (deterministic), a time slice on the real one; `yieldEveryIs(n)` forces a budget;
//  - a task may outlive its scheduler: it is then detached and its scheduling calls do nothing;
//  - time is exact: the clock and every timer are whole nanoseconds (`Duration`), so delays add up
//    without drift and `advance(t)` fires every timer due at or before now + t, however that time
//    was reached (three `advance(0.1)` reach exactly the timer that one `advance(0.3)` reaches).
//    Seconds as a double exist only at the edges (`now()`, the `double` overloads), converted to
//    the nearest nanosecond on the way in; `secondsText` and `parseSeconds` are the exact text
//    forms.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Mox.h"
#include "platform/MoxSlab.h"

namespace Kiln {

class Task;

// A time or a delay on the scheduler's clock: integer nanoseconds.
using Duration = std::chrono::nanoseconds;

// Seconds as a double, rounded to the nearest nanosecond; negative or NaN is 0, beyond the range
// of Duration is Duration::max().
Duration durationOf(double seconds) noexcept;
// The double nearest to the exact number of seconds (below 2^53 ns, about 104 days).
double secondsOf(Duration d) noexcept;
// Plain decimal seconds, exact and without trailing zeros: "0", "0.3", "100000", "0.0000001".
std::string secondsText(Duration d);
// Reads plain decimal seconds ("2", "0.5", ".25", "1.000000001") exactly, without going through a
// double. Fails (nullopt, with the reason in `error` when given) on a sign, an exponent, any
// other character, more than nine significant fraction digits or a value beyond Duration::max().
enum class SecondsTextError { notADecimal, finerThanNanoseconds, outOfRange };
std::optional<Duration> parseSeconds(std::string_view text, SecondsTextError* error = nullptr);

class TaskScheduler : public Mox::Entity {
 public:
   enum class ClockMode { real, virtualTime };

   explicit TaskScheduler(ClockMode mode = ClockMode::virtualTime);
   ~TaskScheduler() override;

   ClockMode clockMode() const noexcept { return mode_; }
   // Time since the scheduler was made (virtual time starts at 0).
   Duration nowNs() const noexcept;
   // The same in seconds, for the edges (records that hold a double, traces).
   double now() const noexcept { return secondsOf(nowNs()); }

   // Runs ready tasks until none is ready, or `maxRuns` task runs are done (what is left stays
   // ready); timers fire only if due (real clock). Returns the number of task runs.
   size_t runUntilIdle(size_t maxRuns = SIZE_MAX);
   // Virtual clock only: moves time forward by `delay` (saturating at Duration::max()), firing in
   // time order every timer due at or before the new time, with the ready work after each.
   void advance(Duration delay);
   void advance(double seconds) { advance(durationOf(seconds)); }

   size_t readyTaskCount() const noexcept;
   size_t timerCount() const noexcept;
   // Delay from now to the earliest pending timer, if any.
   std::optional<Duration> nextTimerDelayNs() const noexcept;
   std::optional<double> nextTimerDelay() const noexcept;

   // An interrupt (an operator's Ctrl-C): once `*flag` is set, runUntilIdle and advance return
   // between two task runs. What did not run stays ready and time stays at the last timer fired,
   // so the state is consistent and a later run or advance goes on from there.
   void interruptFlagIs(const std::atomic<bool>* flag) noexcept { interrupt_ = flag; }
   bool interrupted() const noexcept {
      return interrupt_ && interrupt_->load(std::memory_order_relaxed);
   }

   // Slice control. 0 restores the default (budget on a virtual clock, time slice on the real one).
   void yieldEveryIs(uint32_t calls) noexcept { yieldEvery_ = calls; }
   uint32_t yieldEvery() const noexcept { return yieldEvery_; }
   static constexpr uint32_t defaultVirtualBudget = 1000;
   static constexpr double realSliceSeconds = 0.01;

   // Fault injection for tests: `hook` is called before each task run, between two runs, with
   // the number of runs so far. It may change inputs, set the attribute-log congestion flag or
   // restart the state machines (destroying and making tasks); the scheduler then picks among
   // what is ready afterwards. An empty function removes it.
   using TaskRunHook = std::function<void(uint64_t runsSoFar)>;
   void taskRunHookIs(TaskRunHook hook) { taskRunHook_ = std::move(hook); }
   uint64_t taskRunCount() const noexcept { return taskRuns_; }

 private:
   friend class Task;
   void ready(Task* t);
   void unready(Task* t);
   void timerIs(Task* t, Duration at);
   void timerDel(Task* t);
   bool shouldYield() noexcept;
   void fireDueTimers(Duration upTo);
   void forget(Task* t);
   void taskIs(Task* t);

   ClockMode mode_;
   std::chrono::steady_clock::time_point start_;
   Duration virtualNow_{0};
   uint64_t seq_ = 0;
   std::vector<Task*> ready_;  // small: a handful of tasks per agent
   std::vector<Task*> timers_; // tasks with a pending timer
   std::vector<Task*> tasks_;  // every task made on this scheduler
   Task* running_ = nullptr;
   uint32_t sliceCalls_ = 0;
   std::chrono::steady_clock::time_point sliceStart_;
   uint32_t yieldEvery_ = 0;
   const std::atomic<bool>* interrupt_ = nullptr;
   uint64_t taskRuns_ = 0;
   TaskRunHook taskRunHook_;
};

// A cooperative task: reactors bound to it get onTaskRun() when the scheduler runs it. The same
// task can be scheduled at once or after a delay (timer task).
class Task : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Task> {
    public:
      virtual void onTaskRun() {}
   };

   Task(TaskScheduler& scheduler, int priority, std::string name);
   ~Task() override;

   const std::string& name() const noexcept { return name_; }
   int priority() const noexcept { return priority_; }
   // Null once the scheduler is gone.
   TaskScheduler* scheduler() const noexcept { return scheduler_; }

   void scheduleTask();
   void unscheduleTask();
   // Fires the task after `delay` unless it is already due earlier (see the guarantees).
   void scheduleTaskLowestDelay(Duration delay);
   void scheduleTaskLowestDelay(double seconds) { scheduleTaskLowestDelay(durationOf(seconds)); }
   bool isScheduled() const noexcept { return isReady_ || hasTimer_; }
   bool isReady() const noexcept { return isReady_; }
   // The pending timer's time on the scheduler's clock, if any.
   std::optional<Duration> expirationTimeNs() const noexcept;
   std::optional<double> expirationTime() const noexcept;

   bool taskShouldYield() noexcept { return scheduler_ && scheduler_->shouldYield(); }
   void taskWorkCountInc(uint64_t n) noexcept { workCount_ += n; }
   uint64_t workCount() const noexcept { return workCount_; }
   uint64_t runCount() const noexcept { return runCount_; }

   // "taskName: ..., taskPriority: ..., currentExpirationTime: ..." line of state dumps; the
   // expiration time is the pending timer's (0.000000 without one).
   std::string stringValue() const;

 private:
   friend class TaskScheduler;
   void run();

   TaskScheduler* scheduler_;
   // The arena current where the task was made (its core's): what it makes when it runs comes
   // from there.
   Mox::Arena* arena_;
   int priority_;
   std::string name_;
   bool isReady_ = false;
   bool hasTimer_ = false;
   uint64_t readySeq_ = 0;
   uint64_t timerSeq_ = 0;
   Duration timerAt_{0};
   uint64_t workCount_ = 0;
   uint64_t runCount_ = 0;
};
using TimerTask = Task;
// Timers are the scheduler's own (`scheduleTaskLowestDelay`); what is handed around as the timer
// wheel is the scheduler.
using TimerWheel = TaskScheduler;

// The attribute-log writer towards other processes. The state machines only ask whether its
// output is congested; the host sets the flag.
class AttrLogSm : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<AttrLogSm> {
    public:
      virtual void onAttrLogOutClogged() {}
   };
   bool isAttrLogOutClogged() const noexcept { return clogged_; }
   void attrLogOutCloggedIs(bool clogged) {
      attrIs(clogged_, clogged, &Notifiee::onAttrLogOutClogged);
   }

 private:
   bool clogged_ = false;
};

} // namespace Kiln
