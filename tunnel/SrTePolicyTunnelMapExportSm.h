// TunnelMapExportSm: publishes, for services that see only tunnels (per-tunnel traffic counters in
// particular), which policy key every segment-list tunnel belongs to. A row of TunnelIdToPolicyKey
// maps a tunnel id (the tunnel of one segment list of a candidate path) to the policy key of a
// candidate path that maps it.
//
//   selection-input entry added/removed, version bumped -> handlePolicyEntry, at once:
//        new tunnels of the path are committed (an unchanged row is not written again),
//        tunnels the path dropped go through checkAndRemoveTunnel
//   checkAndRemoveTunnel: another path of the row's key maps it    -> row kept
//                         only paths of other keys map it          -> row passes to one of them
//                         no path maps it, the platform counts it  -> pendingTunnel
//                         no path maps it, no counter              -> row deleted
//   task "TunnelExportSmTask" (every 1.0 s while pendingTunnel is not empty): deletes the row of
//        each pending tunnel whose counter is gone
//          - output congested: stop, go on after 0.1 s from the same tunnel
//          - scheduler says yield: bookmark the next tunnel, go on at once
//
// Per tunnel id:
//
//   unmapped --commit--> mapped --last path mapping it gone--+--no counter--> deleted
//                          ^   \                             |
//                          |    `-- row's key lets go, other  v
//                          |        keys map it: row passes  pending --counter gone,
//                          +------mapped again--------------'          next 1.0 s run--> deleted
//                                 (row never removed)
//
// A tunnel two policy keys share (they share a segment list) has one row, naming the key that
// committed it last. When every path of that key lets go of the tunnel while a path of another
// key still maps it, the row passes to that other key (the smallest of the paths left decides, so
// the outcome depends on what is mapped, not on the order of the work): the other key still
// forwards over the tunnel, and its counters must not be attributed to no policy until its path
// is written again. Only a tunnel that no path of any key maps is removed or waits for its
// counter.
//
// Guarantees (tests/tunnel/TunnelMapExportSmTest.cpp):
//  - every tunnel that a path maps has a row, and the row names the key of a path that maps it;
//  - a row goes only when no path maps its tunnel and the counter table has no counter for it; a
//    pending tunnel goes at the first run (one every 1.0 s) that finds its counter gone, never
//    earlier, and a yield or congestion only delays it;
//  - a pending tunnel that a path maps again leaves pendingTunnel and keeps its row, which then
//    names that path's key (a list id comes back when the first pass after a restart hands a
//    list its exported id, after the path that last named it was withdrawn in that same pass);
//  - TunnelIdToPolicyKey outlives the machine: destroying it (an agent restart) leaves every row
//    as it is. A new machine adopts each row whose tunnel a selection-input entry of the row's key
//    names, without writing it, and deletes (or queues) the others. handleDel is the end for
//    good: it empties the table, and only an explicit call makes it (SR-TE turned off).
//
// Which paths map a tunnel is the machine's own record (each path's PolicyTunnelInfo, indexed by
// tunnel), not the input stage's PolicyKeyToIdMap or segment-list users: those are emptied
// whenever the input stage (re)initialises and are refilled one candidate at a time, after the
// candidate's selection-input entry has changed, so during a drain they would miss paths that
// still name a tunnel and a shared row would go while in use.
//
// After a restart the input stage gives every segment list still claimed its exported id back,
// so with unchanged inputs every path names the tunnels it named before and no row is written.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "absl/container/btree_set.h"
#include "input/SrTePolicySelectionInput.h"
#include "platform/FlexCounters.h"
#include "platform/Kiln.h"
#include "platform/KilnDrain.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxPool.h"
#include "platform/Trace.h"
#include "platform/Tunnel.h"
#include "platform/Vault.h"
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

   // The paths that map one tunnel: one or a few as a rule, thousands for a list many policies
   // share. Each path's PolicyTunnelInfo is held by the reactor of its selection-input entry, so
   // that a version change reaches it without a lookup; this index finds the other paths that
   // map a tunnel a path lets go of. It is built the first time it is needed: a start or a cold
   // load where no path lets go of a tunnel never needs it. Held apart from the table's slots,
   // which a flat table leaves a third to a half empty.
   using TunnelPaths = Mox::SmallSet<PolicyId, 1, 16>;
   using TunnelPathsMap = Mox::HashMap2018<TunnelId, std::unique_ptr<TunnelPaths>>;
   using PendingTunnelSet = absl::btree_set<TunnelId>;

   explicit TunnelMapExportSm(Inputs in);
   // Stops the task and lets go of the reactors; the table stays for the next start.
   ~TunnelMapExportSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   // Per tunnel that a path maps, the paths that map it.
   const TunnelPathsMap& tunnelPaths() const { return tunnelIndex(); }
   // Null when no path maps the tunnel.
   const TunnelPaths* tunnelPaths(TunnelId tunnelId) const;
   // Null when the path maps nothing.
   const PolicyTunnelInfo* policyTunnelInfo(const PolicyId& id) const;
   // The tunnels whose rows wait for their counters to go, in tunnel id order.
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

   // The steps of one tunnel. After a path let go of it (or found at start-up with no path):
   // the row stays, passes to a path that maps the tunnel, waits for its counter or goes.
   void checkAndRemoveTunnel(TunnelId tunnelId);
   // Whether a path maps the tunnel.
   bool isTunnelIdInUse(TunnelId tunnelId) const;

 private:
   class MoxPolicyId;
   class MoxPolicyIdEntry;
   class MoxTask;

   // The path's entry (null when it is gone) and its info (null when it has no reactor), as a
   // reactor has them at hand.
   void handlePolicyEntry(const PolicyId& policyId, const PolicyIdEntry* entry,
                          PolicyTunnelInfo* info);
   // The index of the paths that map each tunnel: built from the reactors on first use, kept up
   // to date from then on.
   const TunnelPathsMap& tunnelIndex() const;
   // A path maps a tunnel, or no longer does: its info and the index. `tunnelMap` is true when
   // the path did not map the tunnel yet.
   bool tunnelMap(PolicyTunnelInfo& info, const PolicyId& id, TunnelId tunnelId);
   void tunnelUnmap(PolicyTunnelInfo& info, const PolicyId& id, TunnelId tunnelId);
   // The entry's reactor, made when missing or when the entry is a new object under the same id
   // (which takes over what the path mapped).
   MoxPolicyIdEntry& policyIdEntryIs(const Mox::Ptr<PolicyIdEntry>& entry);
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
   mutable TunnelPathsMap tunnelPaths_;
   mutable bool tunnelIndexBuilt_ = false;
   PendingTunnelSet pendingTunnel_;
   // The checks of the pending tunnels: one pass per run, in tunnel id order. A tunnel whose
   // counter lasts is queued again for the next pass; one that left pendingTunnel is skipped.
   Kiln::Drain<TunnelId> pendingCheck_{{.what = "pending tunnel entries",
                                        .traceLevel = 8,
                                        .congestionDelay = Kiln::durationOf(congestionDelay),
                                        .passPerRun = true}};
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
