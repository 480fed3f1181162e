// TunnelMapExportSm: publishes, for services that see only tunnels (per-tunnel traffic counters in
// particular), which policy key every segment-list tunnel belongs to. A row of TunnelIdToPolicyKey
// maps a tunnel id (the tunnel of one segment list of a candidate path) to the candidate path's
// policy key.
//
//   selection-input entry added/removed, version bumped -> handlePolicyEntry, at once:
//        new tunnels of the path are committed (an unchanged row is not written again),
//        tunnels the path dropped go through checkAndRemoveTunnel
//   checkAndRemoveTunnel: another path of the same key holds it  -> row kept
//                         the platform still counts the tunnel    -> pendingTunnel
//                         otherwise                               -> row deleted
//   task "TunnelExportSmTask" (every 1.0 s while pendingTunnel is not empty): deletes the row of
//        each pending tunnel whose counter is gone
//          - output congested: stop, go on after 0.1 s from the same tunnel
//          - scheduler says yield: bookmark the next tunnel, go on at once
//
// Per tunnel id:
//
//   unmapped --commit--> mapped --last holder of its key gone--+--no counter--> deleted
//                          ^                                   |
//                          |                                   v
//                          +------mapped again------------ pending --counter gone,
//                                 (row never removed)                next 1.0 s run--> deleted
//
// Guarantees (tests/tunnel/TunnelMapExportSmTest.cpp):
//  - a path letting go of a tunnel deletes its row only when no other candidate path of the same
//    policy key holds the tunnel and the counter table has no counter for it; a pending tunnel
//    goes at the first run (one every 1.0 s) that finds its counter gone, never earlier, and a
//    yield or congestion only delays it;
//  - a pending tunnel that a path maps again, or still maps in a new version, leaves pendingTunnel
//    and keeps its row; a row naming a key that no longer maps the tunnel then names the path's;
//  - TunnelIdToPolicyKey outlives the machine: destroying it (an agent restart) leaves every row
//    as it is. A new machine adopts each row whose tunnel a selection-input entry of the row's key
//    names, without writing it, and deletes (or queues) the others. handleDel is the end for
//    good: it empties the table, and only an explicit call makes it (SR-TE turned off).
//
// Which paths hold a tunnel is the machine's own record (policyTunnelInfo, grouped by policy key),
// not the input stage's PolicyKeyToIdMap: that map is emptied whenever the input stage
// (re)initialises and is refilled one candidate at a time, after the candidate's selection-input
// entry has changed, so during a drain it would miss paths that still name a tunnel and a shared
// row would go while in use. Paths of other policy keys are never consulted: when two keys share a
// segment list the row holds the key committed last.
//
// After a restart the input stage gives every segment list still claimed its exported id back,
// so with unchanged inputs every path names the tunnels it named before and no row is written.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "absl/container/btree_set.h"
#include "input/SrTePolicySelectionInput.h"
#include "platform/FlexCounters.h"
#include "platform/Kiln.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxPool.h"
#include "platform/Trace.h"
#include "platform/Tunnel.h"
#include "platform/Vault.h"
#include "selection/SrTePolicyEcPolicy.h"
#include "tunnel/SrTePolicyTunnelIdToPolicyKey.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// ---------------------------------------------------------------------------------------------
// The machine

// The tunnels one candidate path currently maps (at most one per segment list, so 16).
class PolicyTunnelInfo {
 public:
   using TunnelId = Tunnel::TunnelTable::TunnelId;
   using TunnelIdSet = Mox::SmallSet<TunnelId, 2, 16>;

   const TunnelIdSet& tunnelId() const noexcept { return tunnelId_; }
   bool tunnelIdHas(TunnelId t) const { return tunnelId_.contains(t); }
   // True when the tunnel was not recorded yet.
   bool tunnelIdIs(TunnelId t) { return tunnelId_.insert(t).second; }
   void tunnelIdDel(TunnelId t) { tunnelId_.erase(t); }
   void tunnelIdDelAll() noexcept { tunnelId_.clear(); }

 private:
   TunnelIdSet tunnelId_;
};

class TunnelMapExportSm : public Mox::RefCounted {
 public:
   using TunnelId = Tunnel::TunnelTable::TunnelId;
   static constexpr const char* taskName = "TunnelExportSmTask";
   static constexpr int taskPriority = 2;
   static constexpr double retryDelay = 1.0;
   static constexpr double congestionDelay = 0.1;

   // What the machine reads and writes, by name. `tracer` defaults to the process tracer.
   struct Inputs {
      Mox::Ptr<const PolicySelectionInput> policyId;
      Mox::Ptr<TunnelIdToPolicyKey> tunnelIdToPolicyKey;
      Mox::Ptr<const FlexCounters::CounterTable> tunnelCounter;
      Kiln::TaskScheduler* scheduler = nullptr;
      Mox::Ptr<Kiln::AttrLogSm> attrLogSm;
      // The assembly's own (PolicyCore::tracer()), never the process one.
      Trace::Tracer& tracer;
   };

   // The paths of one policy key that map a tunnel, by candidate: one or two as a rule. Each
   // path's PolicyTunnelInfo is held by the reactor of its selection-input entry, so that a
   // version change reaches it without a lookup; this index finds the other paths of a key (the
   // in-use test). It is built the first time it is needed: a start or a cold load where no path
   // lets go of a tunnel never needs it. Held apart from the table's slots, which a flat table
   // leaves a third to a half empty.
   using PathsOfKey = Mox::SmallMap<CandidateId, const PolicyTunnelInfo*>;
   using PathsOfKeyMap = Mox::HashMap2018<PolicyKey, std::unique_ptr<PathsOfKey>>;
   using PendingTunnelSet = absl::btree_set<TunnelId>;

   explicit TunnelMapExportSm(Inputs in);
   // Stops the task and lets go of the reactors; the table stays for the next start.
   ~TunnelMapExportSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   const PathsOfKeyMap& policyTunnelInfo() const { return keyIndex(); }
   // Null when the path maps nothing.
   const PolicyTunnelInfo* policyTunnelInfo(const PolicyId& id) const;
   // In tunnel id order.
   const PendingTunnelSet& pendingTunnel() const noexcept { return pendingTunnel_; }
   Kiln::Task* task() const noexcept { return task_.get(); }
   size_t policyIdEntryReactorCount() const noexcept { return policyIdEntry_.size(); }
   const Mox::Ptr<TunnelIdToPolicyKey>& tunnelIdToPolicyKey() const noexcept {
      return in_.tunnelIdToPolicyKey;
   }
   void dump(std::string& out, int depth) const;

   // Handlers (reactors call these).
   void handleInitialized();
   void handlePolicyEntry(const PolicyId& policyId);
   void handlePendingTunnelEntry(TunnelId tunnelId);
   void handleTaskRun();
   // The end for good (SR-TE turned off): nothing pending, every row deleted. Never called on
   // destruction, so that a restart keeps the map.
   void handleDel();

   // The steps of one tunnel.
   void checkAndRemoveTunnel(TunnelId tunnelId, const PolicyId& policyId);
   bool isTunnelIdInUse(TunnelId tunnelId, const PolicyId& policyId) const;

 private:
   class MoxPolicyId;
   class MoxPolicyIdEntry;
   class MoxTask;

   // The path's entry (null when it is gone) and its info (null when it has no reactor), as a
   // reactor has them at hand.
   void handlePolicyEntry(const PolicyId& policyId, const PolicyIdEntry* entry,
                          PolicyTunnelInfo* info);
   // The index of the paths of each key that map a tunnel: built from the reactors on first use,
   // kept up to date from then on.
   const PathsOfKeyMap& keyIndex() const;
   void keyPathIs(const PolicyId& id, const PolicyTunnelInfo* info) const;
   void keyPathDel(const PolicyId& id);
   // The entry's reactor, made when missing or when the entry is a new object under the same id
   // (which takes over what the path mapped).
   MoxPolicyIdEntry& policyIdEntryIs(const Mox::Ptr<PolicyIdEntry>& entry);
   // Whether a path of `key` other than `except` (none when null) maps the tunnel.
   bool keyHoldsTunnel(const PolicyKey& key, TunnelId tunnelId, const CandidateId* except) const;
   // Whether a path of `key` that maps the tunnel is to write its row (missing, or left by a key
   // that let go of the tunnel while the platform counts it).
   bool rowToTakeOver(TunnelId tunnelId, const PolicyKey& key) const;
   void pendingTunnelIs(TunnelId tunnelId);
   void pendingTunnelDel(TunnelId tunnelId);
   // Table writes. A corrupt table changes nothing: the failure is logged and handed to the
   // table, and the write is left for the task to retry.
   void commit(TunnelId tunnelId, const PolicyId& policyId);
   bool erase(TunnelId tunnelId);
   void corruption(const Vault::Corruption& e);
   bool workLeft() const noexcept { return !pendingTunnel_.empty() || !retryPolicyId_.empty(); }

   Inputs in_;
   Trace::Tracer* tracer_;
   mutable PathsOfKeyMap policyTunnelInfo_;
   mutable bool keyIndexBuilt_ = false;
   PendingTunnelSet pendingTunnel_;
   // Where a run that yielded or backed off goes on; unset: from the first tunnel.
   std::optional<TunnelId> pendingBookmark_;
   // Paths whose rows a corrupt table refused to write: handled again by the task.
   Mox::HashSet<PolicyId> retryPolicyId_;
   Mox::Ptr<Kiln::Task> task_;
   bool initialized_ = false;

   std::unique_ptr<MoxPolicyId> moxPolicyId_;
   // One reactor per selection-input entry, from a pool: declared first, destroyed last.
   Mox::Pool<MoxPolicyIdEntry> policyIdEntryPool_;
   // Keyed by the id of the entry each reactor holds: the id is not stored a second time.
   struct ReactorId {
      const PolicyId& operator()(const MoxPolicyIdEntry& r) const noexcept;
   };
   Mox::KeyedTable<Mox::Pool<MoxPolicyIdEntry>::Ptr, ReactorId> policyIdEntry_;
   std::unique_ptr<MoxTask> moxTask_;
};

Mox::Ptr<TunnelMapExportSm> tunnelMapExportSmFactory(TunnelMapExportSm::Inputs in);

} // namespace SrTePolicy
