#include "core/SrTePolicyCore.h"

#include "platform/Assert.h"

namespace SrTePolicy {

RouterTables StandaloneRouter::tables(Kiln::TaskScheduler& scheduler) const {
   return RouterTables{
       .config = config,
       .status = status,
       .colorDscpMap = colorDscpMap,
       .input = input,
       .mplsConfig = mplsConfig,
       .mplsStatus = mplsStatus,
       .hardwareStatus = hardwareStatus,
       .counterTable = counterTable,
       .scheduler = &scheduler,
       .attrLog = attrLog,
   };
}

PolicyCore::PolicyCore(RouterTables router, PublishedTables published, Stage lastStage)
    : router_(std::move(router)), published_(std::move(published)), lastStage_(lastStage) {
   SRTE_ASSERT(router_.config && router_.status && router_.colorDscpMap && router_.input &&
                   router_.mplsConfig && router_.mplsStatus && router_.hardwareStatus &&
                   router_.counterTable && router_.scheduler && router_.attrLog,
               "PolicyCore needs every router table");
   // A caller may hand in only some published tables (those found in shared memory).
   PublishedTables made;
   if (!published_.policySelectionInput) {
      published_.policySelectionInput = made.policySelectionInput;
   }
   if (!published_.exportedSegmentListColl) {
      published_.exportedSegmentListColl = made.exportedSegmentListColl;
   }
   if (!published_.segmentListStatus) published_.segmentListStatus = made.segmentListStatus;
   if (!published_.tunnelTable) published_.tunnelTable = made.tunnelTable;
   if (!published_.ecPolicy) published_.ecPolicy = made.ecPolicy;
   if (!published_.policyStatus) published_.policyStatus = made.policyStatus;
   if (!published_.srteFwdStatus) published_.srteFwdStatus = made.srteFwdStatus;
   if (!published_.tunnelIdToPolicyKey) published_.tunnelIdToPolicyKey = made.tunnelIdToPolicyKey;
   if (!published_.lfibStatus) published_.lfibStatus = made.lfibStatus;
   if (!published_.lfibStatus->lfib()) published_.lfibStatus->lfibIs(PublishedTables::lfibName);
   syslog_.sinkIs(&capture_);
}

PolicyCore::~PolicyCore() { stop(); }

void PolicyCore::start() {
   if (machines_) return;
   // An entity exists before any machine that is given it.
   entities_ = std::make_unique<ProcessEntities>();
   reserveSurvivingAdjacencies(*entities_->adjIdxAlloc, *published_.lfibStatus->lfib());
   machines_ = std::make_unique<Machines>();
   buildMachines();
   router_.status->agentEnabledIs(true);
}

// The construction order. Resolution comes before input gathering, so that what the input
// deduplicates is resolved as it appears; selection follows input gathering. Machines still to come
// take their places as the Machines struct lists them: publishing, binding-SID LFIB generation and
// tunnel map export after selection.
void PolicyCore::buildMachines() {
   Machines& m = *machines_;
   const ProcessEntities& e = *entities_;

   m.segmentResolver = segmentResolverFactory(router_.mplsStatus, &tracer_);
   m.segmentSm = segmentSmFactory({
       .notifyingSegment = e.coreDedupTables->notifyingSegmentCollection(),
       .mplsStatus = router_.mplsStatus,
       .segmentStatus = e.segmentStatus,
       .coreDedupTables = e.coreDedupTables,
       .segmentResolver = m.segmentResolver,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::segmentListResolution) return;
   m.segmentListSm = segmentListSmFactory({
       .notifyingSegmentList = e.coreDedupTables->notifyingSegmentListCollection(),
       .segmentStatus = e.segmentStatus,
       .segmentListStatus = published_.segmentListStatus,
       .tunnelTable = published_.tunnelTable,
       .scheduler = router_.scheduler,
       .mplsStatus = router_.mplsStatus,
       .segmentIdToSegmentList = e.segmentMap,
       .coreDedupTables = e.coreDedupTables,
       .routingHwStatus = router_.hardwareStatus,
       .attrLogSm = router_.attrLog,
       .syslog = &syslog_,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::input) return;
   m.policyInputSm = policyInputSmFactory({
       .config = router_.config,
       .input = router_.input,
       .mplsConfig = router_.mplsConfig,
       .mplsStatus = router_.mplsStatus,
       .policySelectionInput = published_.policySelectionInput,
       .coreDedupTables = e.coreDedupTables,
       .segListMap = e.segListMap,
       .segmentMap = e.segmentMap,
       .policyKeyToIdMap = e.policyKeyToIdMap,
       .exportedSegmentListColl = published_.exportedSegmentListColl,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .syslog = &syslog_,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::selection) return;
   m.policySelectionSm = policySelectionSmFactory({
       .config = router_.config,
       .policySelectionInput = published_.policySelectionInput,
       .segmentListStatus = published_.segmentListStatus,
       .segmentListIdToPolicyMap = e.segListMap,
       .ecPolicy = published_.ecPolicy,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::publishing) return;
   m.policyPublishSm = policyPublishSmFactory({
       .ecPolicy = published_.ecPolicy,
       .taskScheduler = router_.scheduler,
       .status = published_.policyStatus,
       .timerWheel = router_.scheduler,
       .srteFwdStatus = published_.srteFwdStatus,
       .attrLogSm = router_.attrLog,
       .syslog = &syslog_,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::lfibGeneration) return;
   m.lfibGenSm = srTePolicyLfibGenSmFactory({
       .policyStatus = published_.policyStatus,
       .lfibStatus = published_.lfibStatus,
       .adjIdxAlloc = e.adjIdxAlloc,
       .tracer = &tracer_,
   });
   if (lastStage_ < Stage::tunnelMap) return;
   // Tunnel map export: last. It adopts the rows whose tunnels the selection input still names.
   m.tunnelMapExportSm = tunnelMapExportSmFactory({
       .policyId = published_.policySelectionInput,
       .tunnelIdToPolicyKey = published_.tunnelIdToPolicyKey,
       .tunnelCounter = router_.counterTable,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .tracer = &tracer_,
   });
}

void PolicyCore::stop(StopMode mode) {
   if (!machines_) return;
   if (mode == StopMode::withdrawOutputs) {
      // Last built first, each torn down and gone before the next: a machine withdrawing its
      // outputs must not wake one already torn down (selection emptying EcPolicy would requeue
      // publishing). Input gathering releases every segment list while segment-list resolution
      // still listens, so their tunnels and statuses are withdrawn with them.
      Machines& m = *machines_;
      auto tearDown = [](auto& machine) {
         if (!machine) return; // not built: the core stops at an earlier stage
         machine->handleDel();
         machine = nullptr;
      };
      tearDown(m.tunnelMapExportSm);
      tearDown(m.lfibGenSm);
      tearDown(m.policyPublishSm);
      tearDown(m.policySelectionSm);
      tearDown(m.policyInputSm);
      if (m.segmentListSm) m.segmentListSm->handleDel();
      // Segment resolution publishes nothing outside the process.
   }
   // Members of Machines die in reverse declaration order, the last built first; then the
   // entities they were given.
   machines_.reset();
   entities_.reset();
   router_.status->agentEnabledIs(false);
}

const ProcessEntities& PolicyCore::entities() const {
   SRTE_ASSERT(entities_, "PolicyCore is not started");
   return *entities_;
}

const Mox::Ptr<SegmentResolver>& PolicyCore::segmentResolver() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->segmentResolver;
}

const Mox::Ptr<SegmentSm>& PolicyCore::segmentSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->segmentSm;
}

const Mox::Ptr<SegmentListSm>& PolicyCore::segmentListSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->segmentListSm;
}

const Mox::Ptr<PolicyInputSm>& PolicyCore::policyInputSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->policyInputSm;
}

const Mox::Ptr<PolicySelectionSm>& PolicyCore::policySelectionSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->policySelectionSm;
}

const Mox::Ptr<PolicyPublishSm>& PolicyCore::policyPublishSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->policyPublishSm;
}

const Mox::Ptr<SrTePolicyLfibGenSm>& PolicyCore::lfibGenSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->lfibGenSm;
}

const Mox::Ptr<TunnelMapExportSm>& PolicyCore::tunnelMapExportSm() const {
   SRTE_ASSERT(machines_, "PolicyCore is not started");
   return machines_->tunnelMapExportSm;
}

} // namespace SrTePolicy
