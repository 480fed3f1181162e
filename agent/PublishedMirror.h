// The published tables in shared memory: what the agent writes so that forwarding and an attached
// CLI read it, and what a restarted agent finds again.
//
//  - PublishedMirror (the agent): `mount()` fills the core's published entities from the shared
//    tables before the core starts, so that the machines' start-up adopts what is still valid;
//    from then on `sync()` makes every shared table equal to its entity. The agent is the one
//    writer of these tables: it creates them when absent and takes over a dead agent's.
//  - PublishedReader (any other process): attaches to the tables, fills a PublishedTables of its
//    own, and `drain()`s changes into it when one of its `fds()` is readable.
//
// How the writer learns what changed: it does not follow the entities. When the loop is idle and
// the change count moved, a pass walks each entity, encodes every record and writes the ones
// that differ from what the shared table holds, then erases the keys the entity no longer has.
// A record that did not change is never written (0 churn). A pass at a million paths takes
// seconds, so the agent runs it in slices (`syncSlice`, about a millisecond each) between which
// its loop serves input, the control socket and signals; each slice goes on where the last one
// stopped, by iterator while no entity changed, else by finding the last key written again; the
// walk of a table's own records for keys its entity no longer has is sliced the same way. A
// pass during which something changed may have missed a record; the next pass sees the change
// count moved and walks again, so a pass over entities that stayed still leaves the tables
// equal to them. Passes start no more often than their cost allows (`syncDue`).
// docs/shared-tables.md has the figures.
//
// A table that makes no sense (wrong geometry, a count over its capacity, a value out of range)
// is refused at mount with a message naming it; its entity starts empty and the table is made
// anew. A table that fills up is made anew, twice as large; readers see their old segment
// `replaced()` and attach again.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/SrTePolicyMachines.h"
#include "core/SrTePolicyRestartWatch.h"

namespace Agent {

struct PublishedCounts {
   size_t written = 0; // records inserted or replaced
   size_t erased = 0;
   size_t applied = 0; // records put into entities (mount, drain)
   size_t removed = 0; // keys taken out of entities (drain)
   size_t rescans = 0; // whole tables read again (drain)
};

// What mount() found of one table.
struct PublishedMountReport {
   std::string table;
   bool found = false;  // the segment existed
   size_t records = 0;  // records taken in
   std::string refused; // why it was refused, when it was
};

class PublishedMirror {
 public:
   // Nothing is opened yet.
   PublishedMirror(std::string router, const SrTePolicy::PublishedTables& tables);
   ~PublishedMirror();
   PublishedMirror(const PublishedMirror&) = delete;
   PublishedMirror& operator=(const PublishedMirror&) = delete;

   // Becomes the writer of every table (creating those absent) and fills each entity from its
   // table. Call before the core starts, on empty entities. `stop`, when given, is asked every
   // 1,024 records: when it says so the mount ends there, with the entities part filled and
   // nothing written, for a process about to end (the reports then say which tables it read).
   std::vector<PublishedMountReport> mount(const std::function<bool()>& stop = {});
   // Goes on with the current pass (or starts one) to its end: what it wrote. `stop`, when
   // given, is asked every 64 records: when it says so the sync ends there (what it wrote
   // stays written), the pass is still wanted and the next sync goes on from there.
   PublishedCounts sync(const std::function<bool()>& stop = {});
   // The same for about `budget` of time: one slice of a pass.
   PublishedCounts syncSlice(std::chrono::steady_clock::duration budget);
   // Whether a pass is under way or the entities may have changed since the last one ended (the
   // change count moved), and when the next sync may run: at once within a pass; a new pass no
   // sooner than `costFactor` times the last pass's duration after it ended, so that passes take
   // at most 1/(1 + costFactor) of the time however the input arrives.
   bool syncWanted() const;
   std::chrono::steady_clock::time_point syncDue() const noexcept {
      return inPass_ ? std::chrono::steady_clock::time_point{} : nextSync_;
   }
   static constexpr int costFactor = 3;
   // A run of the caller's own task moved the change count by one (to `count`), before it did
   // anything: not a reason to sync, nor to distrust the iterators of a pass.
   void ownRunChangedNothing(uint64_t count) noexcept {
      if (syncedAt_ + 1 == count) syncedAt_ = count;
      if (passFrom_ + 1 == count) passFrom_ = count;
      if (leftAt_ + 1 == count) leftAt_ = count;
   }

   const PublishedCounts& totals() const noexcept { return totals_; }
   // What the syncs since mount did to the shared tables, when mount found an earlier agent's:
   // per table, the records it found that no sync touched (adopted), and per key touched since,
   // its record now against the one found (changed, or rewritten when the content is the same
   // again), gone (removed) or new (added). This is what other processes could see of a start;
   // a change the core made and undid between two syncs never reached the tables and is not
   // counted. Empty when mount found none of the tables.
   std::vector<SrTePolicy::RestartWatch::Counts> sinceMount() const;
   // What went wrong in syncs since the last call (a table another process writes, a segment
   // spoiled under the writer and made anew), one message each.
   std::vector<std::string> takeProblems() { return std::exchange(problems_, {}); }
   // The last whole pass's duration, and all syncs added up.
   std::chrono::steady_clock::duration lastSyncTime() const noexcept { return lastSyncTime_; }
   std::chrono::steady_clock::duration syncTime() const noexcept { return syncTime_; }
   // Records held by every shared table, and their segments' size in bytes.
   size_t sharedRecords() const;
   size_t sharedBytes() const;

 private:
   struct Tables;
   struct StopCheck;
   PublishedCounts run(StopCheck& check);
   std::string router_;
   SrTePolicy::PublishedTables tables_;
   std::unique_ptr<Tables> shared_;
   uint64_t syncedAt_ = ~uint64_t{0};
   // The pass under way: the change count at its start and when its last slice ended, the
   // table it is at, the time it took so far.
   bool inPass_ = false;
   uint64_t passFrom_ = 0;
   uint64_t leftAt_ = 0;
   size_t table_ = 0;
   std::chrono::steady_clock::duration passTime_{};
   PublishedCounts totals_;
   std::vector<std::string> problems_;
   std::chrono::steady_clock::time_point nextSync_{};
   std::chrono::steady_clock::duration lastSyncTime_{};
   std::chrono::steady_clock::duration syncTime_{};
};

// A process other than the agent reading what is published.
class PublishedReader {
 public:
   // Attaches to the tables that exist now (others are looked for again at each drain()). Every
   // entity of `tables` is filled at the first drain().
   PublishedReader(std::string router, const SrTePolicy::PublishedTables& tables);
   ~PublishedReader();
   PublishedReader(const PublishedReader&) = delete;
   PublishedReader& operator=(const PublishedReader&) = delete;

   // Poll these (POLLIN), then drain().
   std::vector<int> fds() const;
   // Applies every change since the last drain to the entities. A table that makes no sense is
   // dropped (its entity emptied) and its message kept in `refused()`; it is tried again at the
   // next drain.
   PublishedCounts drain();
   const std::vector<std::string>& refused() const noexcept { return refused_; }
   const SrTePolicy::PublishedTables& tables() const noexcept { return tables_; }

 private:
   struct Tables;
   std::string router_;
   SrTePolicy::PublishedTables tables_;
   std::unique_ptr<Tables> shared_;
   std::vector<std::string> refused_;
};

} // namespace Agent
