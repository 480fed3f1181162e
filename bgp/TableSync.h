// TableSync: keeps the router's `bgp` input table equal to the BGP speaker's best SR Policy paths,
// as the adapter process is told them (a snapshot per connection, then changes), without writing
// anything that did not change.
//
//  - a path whose record equals the one held writes nothing: readers (the agent) hear only of
//    real changes, so a reconnection or an adapter restart causes no churn downstream;
//  - a withdrawal deletes the record;
//  - a snapshot may be partial: a speaker that just restarted gives its table as it is while its
//    sessions come up (empty, at first). So the records a snapshot lacks are only marked stale;
//    a later path for the key clears the mark, and what is still stale is deleted by complete(),
//    which the owner calls once it judges the speaker's table whole (see SettleWatch);
//  - the table this process took over from a dead adapter is reconciled the same way: its records
//    are what the next snapshot is compared with.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/BgpStatus.h"
#include "agent/InputMirror.h"
#include "bgp/PathDecoder.h"

namespace SrTeBgp {

class TableSync {
 public:
   using Writer = Agent::InputMirror::SharedInputWriter;

   // Counters go into `status` (routes received, records written and erased, refusals).
   TableSync(Writer& writer, Agent::BgpStatus& status) : writer_(writer), status_(status) {}

   // The whole table of a new connection: records are written where they differ; the ones it
   // lacks become stale.
   void snapshot(const std::vector<PathDecoding>& paths);
   // Changes after the snapshot (one message of the speaker's: readers are woken once).
   void changes(const std::vector<PathDecoding>& paths);
   // The speaker's table is whole: stale records are deleted. Returns how many.
   size_t complete();

   bool resynchronising() const noexcept { return resynchronising_; }
   size_t stale() const noexcept { return stale_.size(); }

 private:
   struct IdHash {
      size_t operator()(const SrTePolicy::PolicyId& id) const noexcept { return id.hash(); }
   };
   void apply(const PathDecoding& path);
   void report(const PathDecoding& path);
   void write(const SrTePolicy::PolicyInputEntry& entry);
   void erase(const SrTePolicy::PolicyId& id);
   void counted();

   Writer& writer_;
   Agent::BgpStatus& status_;
   std::unordered_set<SrTePolicy::PolicyId, IdHash> stale_;
   bool resynchronising_ = false;
   SrTePolicy::PolicyInputEntry held_; // scratch for the record held under a key
};

// When a speaker's table may be taken as whole after a (re)connection. BGP tells a peer that a
// table is complete with End-of-RIB, but the speaker's API passes it on only for peers with
// graceful restart, so the adapter watches what it can see instead:
//  - every peer of the speaker is established (no peers at all: nothing more can come), and
//  - for `settle`, neither the updates the speaker received from its peers nor the paths this
//    adapter was told moved: the initial exchange after a session comes up is a burst of updates;
//    once the counters stand still for a second, the speaker has what its peers had to send.
// A peer that does not come back must not keep dead routes forever: after `staleHold` from the
// snapshot the table is taken as whole anyway, as BGP's graceful restart drops stale routes after
// its restart time.
class SettleWatch {
 public:
   using Clock = std::chrono::steady_clock;
   struct Sample {
      bool established = false; // every peer
      uint64_t updatesIn = 0;   // updates received from all peers, ever
      uint64_t pathsSeen = 0;   // paths the adapter was told, ever
   };
   SettleWatch(std::chrono::milliseconds settle, std::chrono::milliseconds staleHold)
       : settle_(settle), staleHold_(staleHold) {}

   // A new snapshot: the wait starts again.
   void restart(Clock::time_point now);
   // True when the table is whole, from what was sampled now.
   bool whole(const Sample& sample, Clock::time_point now);

 private:
   std::chrono::milliseconds settle_, staleHold_;
   Clock::time_point snapshotAt_{}, movedAt_{};
   Sample last_;
};

} // namespace SrTeBgp
