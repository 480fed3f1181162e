#include "core/SrTePolicyMachines.h"

#include <tuple>
#include <utility>

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
    : PolicyCore(std::make_unique<Mox::Arena>(), nullptr, std::move(router), std::move(published),
                 lastStage) {}

PolicyCore::PolicyCore(Mox::Arena& arena, RouterTables router, PublishedTables published,
                       Stage lastStage)
    : PolicyCore(nullptr, &arena, std::move(router), std::move(published), lastStage) {}

PolicyCore::PolicyCore(std::unique_ptr<Mox::Arena> own, Mox::Arena* handed, RouterTables router,
                       PublishedTables published, Stage lastStage)
    : ownArena_(std::move(own)), arena_(handed ? *handed : *ownArena_), router_(std::move(router)),
      published_(std::move(published)), lastStage_(lastStage) {
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

void PolicyCore::prepare() {
   if (entities_) return;
   Mox::Arena::Scope in(arena_);
   entities_ = std::make_unique<ProcessEntities>();
   reserveSurvivingAdjacencies(*entities_->adjIdxAlloc, *published_.lfibStatus->lfib());
}

void PolicyCore::start() {
   if (machines_) return;
   Mox::Arena::Scope in(arena_);
   // An entity exists before any machine that is given it.
   prepare();
   machines_ = std::make_unique<Machines>();
   buildMachines();
   router_.status->agentEnabledIs(true);
}

// Every machine of machineOrder up to the last stage, first to last. Resolution comes before
// input gathering, so that what the input deduplicates is resolved as it appears; selection
// follows input gathering.
void PolicyCore::buildMachines() {
   std::apply(
       [this](const auto&... entry) {
          // Stops at the first machine past the last stage: the list is in stage order.
          (void)((entry.stage <= lastStage_ && (make((*machines_).*entry.member), true)) && ...);
       },
       machineOrder);
}

void PolicyCore::make(Mox::Ptr<SegmentResolver>& sm) {
   sm = segmentResolverFactory(router_.mplsStatus, tracer_);
}

void PolicyCore::make(Mox::Ptr<SegmentSm>& sm) {
   sm = segmentSmFactory({
       .notifyingSegment = entities_->coreDedupTables->notifyingSegmentCollection(),
       .mplsStatus = router_.mplsStatus,
       .segmentStatus = entities_->segmentStatus,
       .coreDedupTables = entities_->coreDedupTables,
       .segmentResolver = machines_->segmentResolver,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<SegmentListSm>& sm) {
   sm = segmentListSmFactory({
       .notifyingSegmentList = entities_->coreDedupTables->notifyingSegmentListCollection(),
       .segmentStatus = entities_->segmentStatus,
       .segmentListStatus = published_.segmentListStatus,
       .tunnelTable = published_.tunnelTable,
       .scheduler = router_.scheduler,
       .mplsStatus = router_.mplsStatus,
       .segmentIdToSegmentList = entities_->segmentMap,
       .coreDedupTables = entities_->coreDedupTables,
       .routingHwStatus = router_.hardwareStatus,
       .attrLogSm = router_.attrLog,
       .syslog = syslog_,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<PolicyInputSm>& sm) {
   sm = policyInputSmFactory({
       .config = router_.config,
       .input = router_.input,
       .mplsConfig = router_.mplsConfig,
       .mplsStatus = router_.mplsStatus,
       .policySelectionInput = published_.policySelectionInput,
       .coreDedupTables = entities_->coreDedupTables,
       .segListMap = entities_->segListMap,
       .segmentMap = entities_->segmentMap,
       .policyKeyToIdMap = entities_->policyKeyToIdMap,
       .exportedSegmentListColl = published_.exportedSegmentListColl,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .syslog = syslog_,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<PolicySelectionSm>& sm) {
   sm = policySelectionSmFactory({
       .config = router_.config,
       .policySelectionInput = published_.policySelectionInput,
       .segmentListStatus = published_.segmentListStatus,
       .segmentListIdToPolicyMap = entities_->segListMap,
       .ecPolicy = published_.ecPolicy,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<PolicyPublishSm>& sm) {
   sm = policyPublishSmFactory({
       .ecPolicy = published_.ecPolicy,
       .taskScheduler = router_.scheduler,
       .status = published_.policyStatus,
       .timerWheel = router_.scheduler,
       .srteFwdStatus = published_.srteFwdStatus,
       .attrLogSm = router_.attrLog,
       .syslog = syslog_,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<SrTePolicyLfibGenSm>& sm) {
   sm = srTePolicyLfibGenSmFactory({
       .policyStatus = published_.policyStatus,
       .lfibStatus = published_.lfibStatus,
       .adjIdxAlloc = entities_->adjIdxAlloc,
       .tracer = tracer_,
   });
}

void PolicyCore::make(Mox::Ptr<TunnelMapExportSm>& sm) {
   // It adopts the rows whose tunnels the selection input still names.
   sm = tunnelMapExportSmFactory({
       .policyId = published_.policySelectionInput,
       .tunnelIdToPolicyKey = published_.tunnelIdToPolicyKey,
       .tunnelCounter = router_.counterTable,
       .scheduler = router_.scheduler,
       .attrLogSm = router_.attrLog,
       .tracer = tracer_,
   });
}

void PolicyCore::stop(StopMode mode) {
   Mox::Arena::Scope in(arena_);
   if (!machines_) {
      entities_.reset(); // prepared, never started
      return;
   }
   // Last built first, each torn down and gone before the next: a machine withdrawing its outputs
   // must not wake one already torn down (selection emptying EcPolicy would requeue publishing).
   // Input gathering releases every segment list while segment-list resolution still listens, so
   // their tunnels and statuses are withdrawn with them. Segment resolution publishes nothing
   // outside the process and has nothing to withdraw.
   auto tearDown = [this, mode](const auto& entry) {
      auto& machine = (*machines_).*entry.member;
      if (!machine) return; // not built: the core stops at an earlier stage
      if constexpr (requires { machine->handleDel(); }) {
         if (mode == StopMode::withdrawOutputs) machine->handleDel();
      }
      machine = nullptr;
   };
   constexpr size_t count = std::tuple_size_v<decltype(machineOrder)>;
   [&]<size_t... I>(std::index_sequence<I...>) {
      (tearDown(std::get<count - 1 - I>(machineOrder)), ...);
   }
   (std::make_index_sequence<count>{});
   machines_.reset();
   // Then the entities they were given.
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
