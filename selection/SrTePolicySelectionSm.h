// PolicySelectionSm: turns the candidate paths of the selection input into policies. For every
// policy key it keeps one Policy in EcPolicy whose candidates are the candidate paths with at least
// one resolved segment list, ordered by Priority, and chooses the active one.
//
//   selection-input entry added/removed, version bumped  -> queue its PolicyId
//   segment-list status changed                          -> queue every PolicyId using the list
//   useDiscriminatorInTieBreaking changed                -> queue every candidate of every policy
//   binding SID changed                                  -> written to the candidate at once
//        task "SelectionSmTask": drain pendingPolicyId from pendingBookmark in hash order
//          - output congested: stop, retry after 0.1 s (nothing dropped)
//          - scheduler says yield: bookmark the next id, run again at once
//
// One candidate path, when processed, is removed from its policy when its entry is gone or none
// of its lists resolves (the policy goes with its last candidate); otherwise it is added, or
// updated (a priority change deletes the candidate and creates it again under the new priority,
// so the choice is made as if the old one had gone), its resolved lists are mirrored densely from
// index 0 into wTunnelId, and the policy's active candidate is chosen again.
//
// Choosing: the best by Priority wins, except that while useDiscriminatorInTieBreaking is false
// an active candidate that differs from the best only by discriminator is kept: an established
// path is not replaced by an equal one.
//
// Guarantees:
//  - handlers only queue (binding SIDs aside) and a burst on one id is processed once;
//  - a Policy exists exactly while it has a candidate, and its active entry is one of them;
//  - EcPolicy outlives the machine: a new machine queues every candidate it finds there before
//    the selection-input entries, so a restart with unchanged inputs keeps every active choice.
//    handleDel is the end for good: it empties EcPolicy.
#pragma once

#include <memory>
#include <string>

#include "input/SrTePolicySelectionInput.h"
#include "platform/Kiln.h"
#include "platform/KilnDrain.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxPool.h"
#include "platform/Trace.h"
#include "segment/SrTePolicySegmentList.h"
#include "segment/SrTePolicySegmentListStatus.h"
#include "selection/SrTePolicyEcPolicy.h"
#include "types/SrTePolicy.h"
#include "types/SrTePolicyPendingKey.h"

namespace SrTePolicy {

class PolicySelectionSm : public Mox::RefCounted {
 public:
   static constexpr const char* taskName = "SelectionSmTask";
   static constexpr int taskPriority = 2;
   static constexpr double congestionDelay = 0.1;
   static constexpr size_t prefetchDistance = 8; // paths the drain fetches its table slots ahead
   static constexpr const char* nullPolicyIdEntryMessage =
       "null _policyIdEntry parameter to mutator for SrTePolicy::PolicySelectionSm::policyIdEntry "
       "not allowed";

   // What the machine reads and writes, in this order. `tracer` defaults to the process tracer.
   struct Inputs {
      Mox::Ptr<const Config> config;
      Mox::Ptr<const PolicySelectionInput> policySelectionInput;
      Mox::Ptr<const SegmentListStatus> segmentListStatus;
      Mox::Ptr<const SegmentListIdToPolicyMap> segmentListIdToPolicyMap;
      Mox::Ptr<EcPolicy> ecPolicy;
      Kiln::TaskScheduler* scheduler = nullptr;
      Mox::Ptr<Kiln::AttrLogSm> attrLogSm;
      // The assembly's own (PolicyCore::tracer()), never the process one.
      Trace::Tracer& tracer;
   };

   explicit PolicySelectionSm(Inputs in);
   ~PolicySelectionSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   // Drained in passes in hash order: a pass's order depends on what is pending alone.
   using PendingPolicyIdDrain = Kiln::Drain<PendingPolicyKey>;
   using PendingPolicyIdSet = PendingPolicyIdDrain::Pending;
   const PendingPolicyIdSet& pendingPolicyId() const noexcept { return pendingPolicyId_.pending(); }
   // Where the pass under way resumes; the default id when none is under way.
   PolicyId pendingBookmark() const noexcept {
      const PendingPolicyKey* at = pendingPolicyId_.bookmark();
      return at ? at->id : PolicyId();
   }
   Kiln::Task* task() const noexcept { return task_.get(); }
   size_t policyIdEntryReactorCount() const noexcept { return policyIdEntry_.size(); }
   const Mox::Ptr<EcPolicy>& ecPolicy() const noexcept { return in_.ecPolicy; }
   void dump(std::string& out, int depth) const;

   // Handlers (reactors call these).
   void handleInitialized();
   void handlePolicyEntry(const PolicyId& id);
   void handleResolvedSegmentList(SegmentListId id);
   void handleBindingSid(const PolicyId& id);
   // The same, given the entry (its reactor has it at hand).
   void handleBindingSid(const PolicyIdEntry& entry);
   void handleTieBreakingLogicChange();
   void handleTaskRun();
   // Stops the machine for good: nothing queued, every policy deleted.
   void handleDel();

   // The reactor of one selection-input entry; a null entry is refused.
   void policyIdEntryIs(const Mox::Ptr<PolicyIdEntry>& entry);
   void policyIdEntryDel(const PolicyId& id);

   // The steps of one candidate path.
   bool policyHasResolvedSegmentList(const PolicyIdEntry& entry) const;
   static bool policyPriorityChanged(const PolicyIdEntry& entry, const PolicyEntry& policyEntry);
   static Priority priorityOf(const PolicyIdEntry& entry);
   void processPolicyEntry(const PolicyId& id);
   // `policy` is the key's entry when the caller holds it already (saves looking it up again).
   void selectNewActive(const PolicyKey& key, const Mox::Ptr<Policy>& policy = nullptr);

 private:
   class MoxConfig;
   class MoxPolicyId;
   class MoxPolicyIdEntry;
   class MoxResSegList;
   class MoxTask;

   bool isResolved(SegmentListId id) const;
   void markPending(const PolicyId& id) { pendingPolicyId_.mark(PendingPolicyKey(id)); }
   void scheduleTask();

   Inputs in_;
   Trace::Tracer* tracer_;
   PendingPolicyIdDrain pendingPolicyId_{{.what = "selection entries",
                                          .traceLevel = 9,
                                          .congestionDelay = Kiln::durationOf(congestionDelay),
                                          .prefetchDistance = prefetchDistance}};
   bool initialized_ = false;
   Mox::Ptr<Kiln::Task> task_;

   std::unique_ptr<MoxConfig> moxConfig_;
   std::unique_ptr<MoxPolicyId> moxPolicyId_;
   // One reactor per selection-input entry, from a pool: declared first, destroyed last.
   Mox::Pool<MoxPolicyIdEntry> policyIdEntryPool_;
   // Keyed by the id of the entry each reactor holds: the id is not stored a second time.
   struct ReactorId {
      const PolicyId& operator()(const MoxPolicyIdEntry& r) const noexcept;
   };
   Mox::KeyedTable<Mox::Pool<MoxPolicyIdEntry>::Ptr, ReactorId> policyIdEntry_;
   std::unique_ptr<MoxResSegList> moxResSegList_;
   std::unique_ptr<MoxTask> moxTask_;
};

Mox::Ptr<PolicySelectionSm> policySelectionSmFactory(PolicySelectionSm::Inputs in);

} // namespace SrTePolicy
