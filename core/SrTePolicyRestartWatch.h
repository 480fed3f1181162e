// RestartWatch: what a restart did to the tables this core publishes.
//
// A restart must not disturb what other processes read: with unchanged inputs, the new
// incarnation's start-up reconciliation is to find every row already right and leave it alone.
// This watch checks that from the outside, trusting no machine's own counters: made while the
// core is stopped, it takes a snapshot of every published table (each row's content as text) and
// binds one reactor per table that records every key notified from then on. Asked later, it
// compares the tables with the snapshot, per key:
//   adopted    present before and now, same content, never notified
//   rewritten  present before and now, same content, but notified in between (deleted and
//              written again, or changed and changed back): churn other processes saw
//   changed    present before and now, different content
//   added      present now only
//   removed    present before only
// Rows that are entities of their own (candidate paths of the selection input, policies of
// EcPolicy, policy-status entries, exported lists) are watched through their table: a change in
// place shows as changed, a delete and re-create as rewritten; a change in place undone before
// the count is not seen.
//
// Everything after the snapshot counts, until the watch is dropped: reconciliation and any input
// change after it alike.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/SrTePolicyCore.h"

namespace SrTePolicy {

class RestartWatch {
 public:
   struct Counts {
      const char* table = "";
      uint64_t adopted = 0;
      uint64_t rewritten = 0;
      uint64_t changed = 0;
      uint64_t added = 0;
      uint64_t removed = 0;
      uint64_t changes() const noexcept { return rewritten + changed + added + removed; }
   };

   // Snapshots the tables and starts watching them. They must outlive the watch.
   explicit RestartWatch(const PublishedTables& published);
   ~RestartWatch();
   RestartWatch(const RestartWatch&) = delete;
   RestartWatch& operator=(const RestartWatch&) = delete;

   // One entry per table, in a fixed order (that of the data path: selection input first).
   std::vector<Counts> counts() const;
   // Rewritten, changed, added and removed rows over every table.
   uint64_t changes() const;

   class Table;

 private:
   std::vector<std::unique_ptr<Table>> tables_;
};

} // namespace SrTePolicy
