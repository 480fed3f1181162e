// SegmentListSm: turns every canonical segment list into forwarding. The list's top label is
// resolved by SegmentSm (SegmentStatus gives its adjacency); the remaining labels, bottom first,
// plus what each adjacency via does with its own label, make one egress via per adjacency via.
// The vias go into the segment-list tunnel table under the list's tunnel id, the outcome into
// SegmentListStatus:
//   top label unresolved, adjacency missing  -> no status, no tunnel entry
//   a via deeper than the platform allows    -> "platformLabelStackDepthExceeded", no tunnel entry,
//                                               SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD
//   a via with no label at all               -> "zeroLabels", no tunnel entry
//   otherwise                                -> "success" and the tunnel entry
//
// Label actions of an adjacency via: swap (2) and push (3) put the via's label on top of the
// remaining labels; pop (1) adds it only to a one-segment list, and only when the via has a real
// next hop and an interface (a null label is never added: it is no label). A type-3 adjacency key
// is an external-FEC adjacency: its vias come from the extension table and the tunnel entry gets
// one via on the FEC's interface, carrying the stack of the first computed via (the FEC resolves
// its own next hops).
//
// Label-stack bound: a list has at most 8 segments. The 7 remaining labels fill the stack up to
// one below its capacity of 8, so that a swap or push always has room for the adjacency's label
// and an 8-segment list leaves with 8 labels. A longer list (which the dedup tables cannot hold
// today) is a range error of the stack entry index; it is caught where the list is processed and
// the list is treated as unresolved (status and tunnel entry removed), never an assertion.
//
// Work queue ("SegmentListSm" task):
//   segment status inserted/deleted, adjKey changed -> queue every list using the segment
//   adjacency (or adjacency extension) vias changed -> queue every list using a segment that
//                                                       resolves through it
//   platform label depth changed, initialisation    -> queue every list
//   segment-list notifier inserted/removed          -> processed at once
//   task run: drain pendingSegmentList from the bookmark; stop on congestion (retry after 0.1 s)
//   or when the scheduler says yield (run again at once); once drained after start-up, the
//   output not congested and the input stage's first pass done (the collection's
//   initialPassDone), remove every status and tunnel entry of unusedSegmentListIds.
//
// Start-up gap: this machine is built before the input stage, so its first drain can come
// before the input stage has re-created the lists; cleaning up then would delete every
// surviving status and tunnel entry only to write them again. The clean-up therefore waits for
// initialPassDone (true when no input stage is there to lower it).
//
// The adjacency rule goes beyond resolving on route changes: without it a list whose route stays
// on the same adjacency would keep a stale next hop after that adjacency lost or replaced a via.
//
// Guarantees:
//  - a status entry exists exactly for the lists whose top label resolves to an existing
//    adjacency, and a tunnel entry exactly for those with "success";
//  - a segment status change requeues exactly the lists that use the segment; an adjacency change
//    exactly the lists whose segments resolve through it (found through an index, never a scan);
//  - congestion and yields lose nothing: every queued list is processed before the task idles;
//  - entries found at start-up that no list claims are removed once the first backlog is drained
//    and the input stage's first pass is done, and only then.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Kiln.h"
#include "platform/KilnDrain.h"
#include "platform/Mox.h"
#include "platform/Mpls.h"
#include "platform/RoutingHardware.h"
#include "platform/Syslog.h"
#include "platform/Trace.h"
#include "platform/TunnelTable.h"
#include "platform/VaultFib.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentList.h"
#include "segment/SrTePolicySegmentListStatus.h"
#include "segment/SrTePolicySegmentResolver.h"

namespace SrTePolicy {

extern const Syslog::MessageDef SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD;

class SegmentListResolveResult : public Mox::RefCounted {
 public:
   SegmentListResolveResult(MplsViaSet viaSet, Vault::Fib::FecId externalFecId,
                            SegmentListResolveError error)
       : viaSet_(std::move(viaSet)), externalFecId_(externalFecId), error_(error) {}
   const MplsViaSet& viaSet() const noexcept { return viaSet_; }
   Vault::Fib::FecId externalFecId() const noexcept { return externalFecId_; }
   SegmentListResolveError error() const noexcept { return error_; }

 private:
   const MplsViaSet viaSet_;
   const Vault::Fib::FecId externalFecId_;
   const SegmentListResolveError error_;
};

class SegmentListSm : public Mox::RefCounted {
 public:
   static constexpr const char* taskName = "SegmentListSm";
   static constexpr int taskPriority = 2;
   static constexpr double congestionDelay = 0.1;
   // Labels below the top one: one less than the stack holds, leaving room for the adjacency's.
   static constexpr uint32_t maxRemainingLabels = Ipkit::MplsLabelOperation::capacity - 1;

   struct Inputs {
      Mox::Ptr<const NotifyingSegmentListCollection> notifyingSegmentList;
      Mox::Ptr<const SegmentStatus> segmentStatus;
      Mox::Ptr<SegmentListStatus> segmentListStatus;
      Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable;
      Kiln::TaskScheduler* scheduler = nullptr;
      Mox::Ptr<const Mpls::Status> mplsStatus;
      Mox::Ptr<const SegmentIdToSegmentList> segmentIdToSegmentList;
      Mox::Ptr<const CoreDedupTables> coreDedupTables;
      // May be null: then no depth limit applies.
      Mox::Ptr<const Routing::Hardware::Status> routingHwStatus;
      Mox::Ptr<Kiln::AttrLogSm> attrLogSm;
      // The assembly's own (PolicyCore::syslog(), tracer()), never the process ones.
      Syslog::Log& syslog;
      Trace::Tracer& tracer;
   };

   explicit SegmentListSm(const Inputs& inputs);
   ~SegmentListSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   bool cleanupPending() const noexcept { return cleanupPending_; }
   // Lists queued (one withdrawn since stays queued, and is skipped when reached).
   size_t pendingSegmentListCount() const { return pendingSegmentList_.pending().size(); }
   bool pendingSegmentListHas(SegmentListId id) const {
      return pendingSegmentList_.pending().contains(id);
   }
   const Mox::HashSet<SegmentListId>& unusedSegmentListIds() const noexcept {
      return unusedSegmentListIds_;
   }
   size_t watchedStatusCount() const noexcept { return status_.size(); }
   Kiln::Task* task() const noexcept { return task_.get(); }

   // Resolution (no side effects besides traces).
   Mox::Ptr<const SegmentListResolveResult> resolveSegmentList(const SegmentList& list) const;
   Mox::Ptr<const SegmentListResolveResult>
   resolveSegmentListWithTopLabel(const SegmentResolve& resolve,
                                  const Ipkit::MplsLabelOperation& operation,
                                  Ipkit::MplsLabel topLabel) const;
   Tunnel::TunnelTable::MplsVia
   computeEgressMplsVia(const Ipkit::MplsLabelOperation& operation, Ipkit::MplsLabelAction action,
                        Ipkit::MplsLabel label, const Ipkit::IpGenAddr& nexthop,
                        Ipkit::IntfId intfId, const Routing::Hardware::Status* routingHwStatus,
                        SegmentListResolveError& error, bool forceLabel) const;

   // Handlers (reactors call these).
   void handleInitialized();
   void handleSegmentList(const Mox::Ptr<SegmentListLifeTimeNotifier>& notifier);
   void handleInitialPassDone();
   void handleSegmentStatus(SegmentId id);
   void handleAdjacency(const Mpls::AdjacencyKey& key);
   void handlePlatformMaxLabelStackSize();
   void handleTaskRun();
   // SR-TE turned off: stops the task and removes the status and tunnel table entry of every
   // list that no longer exists (after input gathering's tear-down, all of them).
   void handleDel();

   // Output steps.
   void processSegmentList(const SegmentList& list);
   void updateSegmentListStatus(const SegmentList& list, const SegmentListResolveResult& res);
   void updateTunnelTable(Tunnel::TunnelTable::TunnelId tunnelId, const MplsViaSet& viaSet,
                          Vault::Fib::FecId fecId);
   void removeSegmentListStatusById(SegmentListId id);

 private:
   class MoxSegmentList;
   class MoxSegmentStatus;
   class MoxSegmentResolve;
   class MoxMplsStatus;
   class MoxHardware;
   class MoxTask;

   void traceAndSyslogSegmentListResolveError(const SegmentList& list,
                                              SegmentListResolveError error) const;
   void addAllSlsToBacklog();
   void scheduleIfPending();
   void cleanupJob();
   // Watching one SegmentResolve entry, and the adjacency index that goes with it.
   void watchStatus(SegmentId id);
   void unwatchStatus(SegmentId id);
   void adjKeyChanged(SegmentId id, const std::optional<Mpls::AdjacencyKey>& from,
                      const std::optional<Mpls::AdjacencyKey>& to);

   Inputs in_;
   Syslog::Log* syslog_;
   Trace::Tracer* tracer_;
   // In list id order; the value is the list's notifier as last queued.
   Kiln::Drain<SegmentListId, Mox::Ptr<SegmentListLifeTimeNotifier>, std::less<SegmentListId>,
               Kiln::MergeLatest>
       pendingSegmentList_{{.what = "segment lists",
                            .traceLevel = 5,
                            .congestionDelay = Kiln::durationOf(congestionDelay)}};
   void markPending(SegmentListLifeTimeNotifier* notifier);
   Mox::HashSet<SegmentListId> unusedSegmentListIds_;
   bool cleanupPending_ = false;
   bool initialized_ = false;
   Mox::HashMap2018<SegmentId, std::unique_ptr<MoxSegmentResolve>> status_;
   Mox::HashMap2018<Mpls::AdjacencyKey, Mox::HashSet<SegmentId>> segmentsByAdjKey_;
   Mox::Ptr<Kiln::Task> task_;

   std::unique_ptr<MoxSegmentList> moxSegmentList_;
   std::unique_ptr<MoxSegmentStatus> moxSegmentStatus_;
   std::unique_ptr<MoxMplsStatus> moxMplsStatus_;
   std::unique_ptr<MoxHardware> moxHardware_;
   std::unique_ptr<MoxTask> moxTask_;
};

Mox::Ptr<SegmentListSm> segmentListSmFactory(const SegmentListSm::Inputs& inputs);

// "[ 16001 16002 ]": a list's labels, top first, as traces and the system log show them.
std::string segmentListLabelsText(const SegmentList& list);

} // namespace SrTePolicy
