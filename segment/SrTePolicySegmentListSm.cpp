#include "segment/SrTePolicySegmentListSm.h"

#include <algorithm>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace SrTePolicy {

using Tunnel::TunnelTable::MplsVia;
using Tunnel::TunnelTable::SrTeSegmentListTunnelEntry;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::ViaIndex;

const Syslog::MessageDef SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD = {
    "SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD", Syslog::Severity::error,
    "Resolved segment list (ID %u) exceeds maximum supported hardware label push stack depth "
    "(%u), was configured with labels %s",
    "Segment list post resolution of the top label exceeds the maximum SID depth of the "
    "platform's hardware.",
    "The configuration needs to be changed such that the segment list after resolution of the "
    "top label does not exceed the platform's MSD"};

std::string segmentListLabelsText(const SegmentList& list) {
   std::string s = "[ ";
   for (uint32_t i = 0; i < list.size(); ++i) s += list.segmentLabel(i).stringValue() + " ";
   return s + "]";
}

namespace {
std::string listText(const SegmentList& list) {
   return "segmentListId: " + list.segmentListId().stringValue() +
          " size: " + std::to_string(list.size());
}
} // namespace

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class SegmentListSm::MoxSegmentList
    : public Mox::Reactor<NotifyingSegmentListCollection::Notifiee, SegmentListSm> {
 public:
   using Reactor::Reactor;
   void onSegmentListNotifier(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) override {
      owner().handleSegmentList(n);
   }
   void onInitialPassDone() override { owner().handleInitialPassDone(); }
};

class SegmentListSm::MoxSegmentStatus
    : public Mox::Reactor<SegmentStatus::Notifiee, SegmentListSm> {
 public:
   using Reactor::Reactor;
   void onStatus(const SegmentId& id) override {
      if (!owner().initialized_) return;
      if (owner().in_.segmentStatus->status(id)) {
         owner().watchStatus(id);
      } else {
         owner().unwatchStatus(id);
      }
      owner().handleSegmentStatus(id);
   }
};

class SegmentListSm::MoxSegmentResolve
    : public Mox::Reactor<SegmentResolve::Notifiee, SegmentListSm> {
 public:
   MoxSegmentResolve(SegmentListSm& sm, SegmentResolve* resolve)
       : Reactor(sm, resolve), id_(resolve->segmentId()), adjKey_(resolve->adjKey()) {}
   void onAdjKey() override {
      const Mpls::AdjacencyKey now = notifier()->adjKey();
      owner().adjKeyChanged(id_, adjKey_, now);
      adjKey_ = now;
      owner().handleSegmentStatus(id_);
   }
   const Mpls::AdjacencyKey& adjKey() const noexcept { return adjKey_; }

 private:
   SegmentId id_;
   Mpls::AdjacencyKey adjKey_;
};

class SegmentListSm::MoxMplsStatus : public Mox::Reactor<Mpls::Status::Notifiee, SegmentListSm> {
 public:
   using Reactor::Reactor;
   void onAdjacency(const Mpls::AdjacencyIndex& index) override {
      owner().handleAdjacency(Mpls::AdjacencyKey(index, Mpls::AdjacencyType::nexthop));
   }
   void onAdjacencyExt(const Mpls::AdjacencyIndex& index) override {
      owner().handleAdjacency(Mpls::AdjacencyKey(index, Mpls::AdjacencyType::externalFec));
   }
};

class SegmentListSm::MoxHardware
    : public Mox::Reactor<Routing::Hardware::Status::Notifiee, SegmentListSm> {
 public:
   using Reactor::Reactor;
   void onNexthopGroupMplsLabelStackSize() override { owner().handlePlatformMaxLabelStackSize(); }
};

class SegmentListSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, SegmentListSm> {
 public:
   using Reactor::Reactor;
   void onTaskRun() override { owner().handleTaskRun(); }
};

// ---------------------------------------------------------------------------------------------
// Construction

SegmentListSm::SegmentListSm(const Inputs& inputs)
    : in_(inputs), syslog_(&inputs.syslog), tracer_(&inputs.tracer) {
   moxSegmentList_ = std::make_unique<MoxSegmentList>(*this, in_.notifyingSegmentList.get());
   moxSegmentStatus_ = std::make_unique<MoxSegmentStatus>(*this, in_.segmentStatus.get());
   moxMplsStatus_ = std::make_unique<MoxMplsStatus>(*this, in_.mplsStatus.get());
   if (in_.routingHwStatus) {
      moxHardware_ = std::make_unique<MoxHardware>(*this, in_.routingHwStatus.get());
   }
   handleInitialized();
}

SegmentListSm::~SegmentListSm() {
   // What was published stays for the next start to reconcile.
   if (task_) task_->unscheduleTask();
   moxTask_.reset();
   moxHardware_.reset();
   moxMplsStatus_.reset();
   moxSegmentStatus_.reset();
   moxSegmentList_.reset();
   status_.clear();
}

Mox::Ptr<SegmentListSm> segmentListSmFactory(const SegmentListSm::Inputs& inputs) {
   return Mox::make<SegmentListSm>(inputs);
}

// ---------------------------------------------------------------------------------------------
// Resolution

Mox::Ptr<const SegmentListResolveResult>
SegmentListSm::resolveSegmentList(const SegmentList& list) const {
   const uint32_t n = list.size();
   if (n == 0) return nullptr;
   Ipkit::MplsLabelOperation operation;
   for (uint32_t i = 0; i + 1 < n; ++i) {
      if (i >= maxRemainingLabels) throw Mox::RangeError(Ipkit::MplsStackEntryIndex::rangeMessage);
      operation.labelIs(Ipkit::MplsStackEntryIndex(i), list.segmentLabel(n - 1 - i));
   }
   const SegmentResolve* resolve = in_.segmentStatus->status(list.getSegmentId(0));
   if (!resolve) return nullptr;
   operation.stackSizeIs(n - 1);
   return resolveSegmentListWithTopLabel(*resolve, operation, list.segmentLabel(0));
}

Mox::Ptr<const SegmentListResolveResult>
SegmentListSm::resolveSegmentListWithTopLabel(const SegmentResolve& resolve,
                                              const Ipkit::MplsLabelOperation& operation,
                                              Ipkit::MplsLabel topLabel) const {
   MplsViaSet viaSet;
   SegmentListResolveError error = SegmentListResolveError::success;
   Vault::Fib::FecId fecId;
   const Mpls::AdjacencyKey& key = resolve.adjKey();
   const Mpls::ViaSet* vias = nullptr;
   if (key.type() == Mpls::AdjacencyType::externalFec) {
      const Mpls::Status::AdjacencyExt* ext = in_.mplsStatus->adjacencyExt(key.index());
      if (!ext) {
         SRTE_TRACE_TO(tracer_, 5, "adjExt not found, returning NULL");
         return nullptr;
      }
      fecId = ext->fecId;
      vias = &ext->via;
   } else {
      vias = in_.mplsStatus->adjacency(key.index());
      if (!vias) {
         SRTE_TRACE_TO(tracer_, 5,
                       "Adjacency " << key << " of top label " << topLabel
                                    << " not found, returning NULL");
         return nullptr;
      }
   }
   SRTE_TRACE_TO(tracer_, 8, "No of Adjacency " << vias->size());
   for (const Mpls::Via& via : *vias) {
      MplsVia egress = computeEgressMplsVia(operation, via.labelAction, via.label, via.nexthop,
                                            via.intfId, in_.routingHwStatus.get(), error, false);
      if (error == SegmentListResolveError::success) viaSet.viaIs(egress);
   }
   return Mox::make<SegmentListResolveResult>(std::move(viaSet), fecId, error);
}

MplsVia SegmentListSm::computeEgressMplsVia(const Ipkit::MplsLabelOperation& operation,
                                            Ipkit::MplsLabelAction action, Ipkit::MplsLabel label,
                                            const Ipkit::IpGenAddr& nexthop, Ipkit::IntfId intfId,
                                            const Routing::Hardware::Status* routingHwStatus,
                                            SegmentListResolveError& error, bool forceLabel) const {
   Ipkit::MplsLabelOperation stack = operation;
   switch (action) {
   case Ipkit::MplsLabelAction::swap:
   case Ipkit::MplsLabelAction::push: {
      SRTE_TRACE_TO(tracer_, 8, "Appending topLabel " << label);
      const auto res = stack.push(label);
      SRTE_ASSERT(res == Ipkit::BoundedMplsLabelStackResult::SUCCESS_,
                  "res == Ipkit::BoundedMplsLabelStackResult::SUCCESS_");
      break;
   }
   case Ipkit::MplsLabelAction::pop:
      // Only a one-segment list needs the via's own label; a null label is no label to add.
      if (stack.stackSize() == 0 && !label.isNull() &&
          (forceLabel || (!nexthop.isUnspecified() && intfId.isSet()))) {
         stack.push(label);
      }
      break;
   default:
      break;
   }
   const std::optional<uint8_t> depth =
       routingHwStatus ? routingHwStatus->nexthopGroupMplsLabelStackSize() : std::nullopt;
   if (error == SegmentListResolveError::success && depth && *depth < stack.stackSize()) {
      error = SegmentListResolveError::platformLabelStackDepthExceeded;
   } else if (error == SegmentListResolveError::success && stack.stackSize() == 0) {
      error = SegmentListResolveError::zeroLabels;
   }
   SRTE_TRACE_TO(tracer_, 8, "Adjacency MplsVia hop " << nexthop << " intfId " << intfId);
   return MplsVia{nexthop, intfId, stack};
}

// ---------------------------------------------------------------------------------------------
// Output

void SegmentListSm::processSegmentList(const SegmentList& list) {
   const SegmentListId id = list.segmentListId();
   Mox::Ptr<const SegmentListResolveResult> res;
   try {
      res = resolveSegmentList(list);
   } catch (const Mox::RangeError& e) {
      // Too many labels for one stack: the list cannot be forwarded, like an unresolved one.
      SRTE_TRACE_TO(tracer_, 3,
                    "Segment list " << id << " " << segmentListLabelsText(list)
                                    << " cannot be resolved: " << e.what());
   }
   if (!res) {
      SRTE_TRACE_TO(tracer_, 5, "Remove the Segment List Status for SlId:" << id);
      removeSegmentListStatusById(id);
      return;
   }
   SRTE_TRACE_TO(tracer_, 5, "Update the Segment List Status for SlId:" << id);
   traceAndSyslogSegmentListResolveError(list, res->error());
   try {
      updateSegmentListStatus(list, *res);
   } catch (const Mox::RangeError& e) {
      // More vias than a tunnel entry holds.
      SRTE_TRACE_TO(tracer_, 3, "Segment list " << id << " cannot be written: " << e.what());
      removeSegmentListStatusById(id);
   }
}

void SegmentListSm::updateSegmentListStatus(const SegmentList& list,
                                            const SegmentListResolveResult& res) {
   const SegmentListId id = list.segmentListId();
   const SegmentListResolveError* current = in_.segmentListStatus->status(id);
   if (res.error() == SegmentListResolveError::success && current &&
       *current == SegmentListResolveError::success) {
      SRTE_TRACE2_TO(tracer_, 7, "Update existing status for SegmentList [" << id << "]",
                     "Update existing status for SegmentList: " << id);
      updateTunnelTable(id.getTunnelId(), res.viaSet(), res.externalFecId());
      // Processed again: not stale, whatever the path taken.
      unusedSegmentListIds_.erase(id);
      return;
   }
   SRTE_TRACE2_TO(tracer_, 7, "Add new status for SegmentList [" << id << "]",
                  "Add new status for SegmentList: " << id);
   if (res.error() == SegmentListResolveError::success) {
      updateTunnelTable(id.getTunnelId(), res.viaSet(), res.externalFecId());
   } else {
      in_.tunnelTable->entryDel(id.getTunnelId());
   }
   in_.segmentListStatus->statusIs(id, res.error());
   unusedSegmentListIds_.erase(id);
}

void SegmentListSm::updateTunnelTable(TunnelId tunnelId, const MplsViaSet& viaSet,
                                      Vault::Fib::FecId fecId) {
   SrTeSegmentListTunnelEntry entry(tunnelId);
   const SrTeSegmentListTunnelEntry* old = in_.tunnelTable->entry(tunnelId);
   if (fecId.isValid()) {
      MplsVia via;
      via.intfId = Vault::Fib::fecIdToIntfId(fecId);
      if (!!viaSet) via.labelOp = viaSet.via().begin()->labelOp;
      entry.viaIs(ViaIndex(0), via);
      SRTE_TRACE_TO(tracer_, 7,
                    "Update Tunnel Table TID with fecId (Optimized), old "
                        << (old ? old->stringValue() : std::string("none")) << " new "
                        << entry.stringValue());
   } else {
      uint32_t index = 0;
      for (const MplsVia& v : viaSet.via()) entry.viaIs(ViaIndex(index++), v);
      SRTE_TRACE_TO(tracer_, 7,
                    "Update Tunnel Table TID " << tunnelId << " With " << index << " vias"
                                               << " fecId " << fecId);
   }
   in_.tunnelTable->entryIs(entry);
}

void SegmentListSm::removeSegmentListStatusById(SegmentListId id) {
   SRTE_TRACE_TO(tracer_, 7, "removeSegmentListStatusById for id:" << id);
   in_.tunnelTable->entryDel(id.getTunnelId());
   in_.segmentListStatus->statusDel(id);
}

void SegmentListSm::traceAndSyslogSegmentListResolveError(const SegmentList& list,
                                                          SegmentListResolveError error) const {
   const SegmentListId id = list.segmentListId();
   switch (error) {
   case SegmentListResolveError::success:
      return;
   case SegmentListResolveError::platformLabelStackDepthExceeded: {
      const unsigned limit = in_.routingHwStatus
                                 ? in_.routingHwStatus->nexthopGroupMplsLabelStackSize().value_or(0)
                                 : 0;
      const std::string labels = segmentListLabelsText(list);
      SRTE_TRACE_TO(tracer_, 3,
                    "Max platform label stack depth (" << limit << ") exceeded for SL:" << labels
                                                       << " Id:" << id);
      syslog_->log(SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD, unsigned{id.value}, limit,
                   labels.c_str());
      return;
   }
   case SegmentListResolveError::zeroLabels:
      SRTE_TRACE2_TO(tracer_, 3,
                     "0 resolved labels in via for SL:" << segmentListLabelsText(list)
                                                        << " Id:" << id,
                     "0 resolved labels for SL:" << segmentListLabelsText(list) << " Id:" << id);
      return;
   }
}

// ---------------------------------------------------------------------------------------------
// Handlers

void SegmentListSm::handleInitialized() {
   initialized_ = true;
   cleanupPending_ = true;
   SRTE_TRACE_TO(tracer_, 3, "SegmentListSm handleInitialized");
   for (const auto& [id, error] : in_.segmentListStatus->status()) {
      unusedSegmentListIds_.insert(id);
   }
   if (!task_) {
      task_ = Mox::make<Kiln::Task>(*in_.scheduler, taskPriority, taskName);
      moxTask_ = std::make_unique<MoxTask>(*this, task_);
   }
   status_.clear();
   segmentsByAdjKey_.clear();
   for (const auto& [id, resolve] : in_.segmentStatus->status()) watchStatus(id);
   addAllSlsToBacklog();
   if (pendingSegmentList_.empty() && unusedSegmentListIds_.empty()) {
      cleanupPending_ = false; // nothing to reconcile
      return;
   }
   // An empty backlog with stale entries still needs a run for the clean-up.
   task_->scheduleTask();
}

void SegmentListSm::handleSegmentList(const Mox::Ptr<SegmentListLifeTimeNotifier>& notifier) {
   if (!initialized_) return;
   const SegmentList& list = *notifier->segmentListRawPtr();
   SRTE_TRACE_TO(tracer_, 7, "handleSegmentList for segmentList: " << listText(list));
   if (in_.notifyingSegmentList->segmentListNotifierHas(notifier)) {
      processSegmentList(list);
      return;
   }
   // Left queued if it is, without its notifier (which would keep the list alive): the drain
   // skips it.
   if (!pendingSegmentList_.empty()) pendingSegmentList_.forget(list.segmentListId());
   removeSegmentListStatusById(list.segmentListId());
}

void SegmentListSm::handleInitialPassDone() {
   if (!initialized_ || !cleanupPending_ || !in_.notifyingSegmentList->initialPassDone()) return;
   SRTE_TRACE_TO(tracer_, 5, "SegmentListSm: input initial pass done");
   task_->scheduleTask();
}

void SegmentListSm::handleSegmentStatus(SegmentId id) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 7, " SegmentId : " << id);
   const SegmentListsOfSegment* users = in_.segmentIdToSegmentList->segmentList(id);
   if (!users) return;
   for (const auto& list : users->segmentListPtr()) {
      // A list withdrawn but still registered has no notifier; its removal was handled.
      if (SegmentListLifeTimeNotifier* n = list->segmentListLifeTimeNotifier()) {
         markPending(n);
      }
   }
   scheduleIfPending();
}

void SegmentListSm::handleAdjacency(const Mpls::AdjacencyKey& key) {
   if (!initialized_) return;
   auto it = segmentsByAdjKey_.find(key);
   if (it == segmentsByAdjKey_.end()) return;
   SRTE_TRACE_TO(tracer_, 7, "handleAdjacency " << key << " segments: " << it->second.size());
   std::vector<SegmentId> ids(it->second.begin(), it->second.end());
   for (SegmentId id : ids) handleSegmentStatus(id);
}

void SegmentListSm::handlePlatformMaxLabelStackSize() {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 5, "handlePlatformMaxLabelStackSize");
   addAllSlsToBacklog();
   scheduleIfPending();
}

void SegmentListSm::handleTaskRun() {
   if (!initialized_) return;
   const Kiln::DrainEnd end = pendingSegmentList_.run(
       *task_, *in_.attrLogSm, *tracer_,
       [this](SegmentListId, const Mox::Ptr<SegmentListLifeTimeNotifier>& notifier) {
          if (notifier && in_.notifyingSegmentList->segmentListNotifierHas(notifier)) {
             processSegmentList(*notifier->segmentListRawPtr());
          }
       });
   if (end != Kiln::DrainEnd::drained) return;
   if (cleanupPending_) {
      // Lists still claimed may not be back yet: the input stage says when its first pass is
      // done, and only then are the entries nobody re-created stale.
      if (!in_.notifyingSegmentList->initialPassDone()) return;
      // The clean-up writes published tables too: it waits out congestion like the lists do.
      if (in_.attrLogSm->isAttrLogOutClogged()) {
         task_->scheduleTaskLowestDelay(congestionDelay);
         return;
      }
      cleanupPending_ = false;
      cleanupJob();
   }
}

void SegmentListSm::handleDel() {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 3, "SegmentListSm is to be deleted");
   if (task_) task_->unscheduleTask();
   pendingSegmentList_.clear();
   unusedSegmentListIds_.clear();
   cleanupPending_ = false;
   Mox::HashSet<SegmentListId> live;
   for (const auto& n : in_.notifyingSegmentList->segmentListNotifier()) {
      live.insert(n->segmentListRawPtr()->segmentListId());
   }
   std::vector<SegmentListId> gone;
   for (const auto& [id, error] : in_.segmentListStatus->status()) {
      if (!live.count(id)) gone.push_back(id);
   }
   std::sort(gone.begin(), gone.end());
   for (SegmentListId id : gone) removeSegmentListStatusById(id);
   // A tunnel entry without a status (left by an earlier run) goes the same way.
   Mox::HashSet<Tunnel::TunnelTable::TunnelId> liveTunnels;
   for (SegmentListId id : live) liveTunnels.insert(id.getTunnelId());
   std::vector<Tunnel::TunnelTable::TunnelId> stale;
   for (const auto& [tunnelId, entry] : in_.tunnelTable->entry()) {
      if (!liveTunnels.count(tunnelId)) stale.push_back(tunnelId);
   }
   for (const auto& t : stale) in_.tunnelTable->entryDel(t);
   initialized_ = false;
}

void SegmentListSm::addAllSlsToBacklog() {
   for (const auto& n : in_.notifyingSegmentList->segmentListNotifier()) {
      markPending(n.get());
   }
}

void SegmentListSm::markPending(SegmentListLifeTimeNotifier* notifier) {
   pendingSegmentList_.mark(notifier->segmentListRawPtr()->segmentListId(),
                            Mox::Ptr<SegmentListLifeTimeNotifier>(notifier));
}

void SegmentListSm::scheduleIfPending() {
   if (!pendingSegmentList_.empty() && task_) task_->scheduleTask();
}

void SegmentListSm::cleanupJob() {
   std::vector<SegmentListId> stale(unusedSegmentListIds_.begin(), unusedSegmentListIds_.end());
   std::sort(stale.begin(), stale.end());
   unusedSegmentListIds_.clear();
   for (SegmentListId id : stale) {
      SRTE_TRACE_TO(tracer_, 5, "Deleting segmentListId from segmentListStatus:" << id);
      removeSegmentListStatusById(id);
      in_.tunnelTable->entryDel(id.getTunnelId());
   }
}

// ---------------------------------------------------------------------------------------------
// Watched segment statuses and the adjacency index

void SegmentListSm::watchStatus(SegmentId id) {
   SegmentResolve* resolve = in_.segmentStatus->status(id);
   if (!resolve) return;
   auto& watcher = status_[id];
   if (watcher && watcher->notifier() == resolve) return;
   // A new entry object under the same id: watch it instead of the one that went.
   if (watcher) adjKeyChanged(id, watcher->adjKey(), std::nullopt);
   watcher = std::make_unique<MoxSegmentResolve>(*this, resolve);
   adjKeyChanged(id, std::nullopt, resolve->adjKey());
}

void SegmentListSm::unwatchStatus(SegmentId id) {
   auto it = status_.find(id);
   if (it == status_.end()) return;
   adjKeyChanged(id, it->second->adjKey(), std::nullopt);
   status_.erase(it);
}

void SegmentListSm::adjKeyChanged(SegmentId id, const std::optional<Mpls::AdjacencyKey>& from,
                                  const std::optional<Mpls::AdjacencyKey>& to) {
   // Filed under the table resolution reads the vias from: the extension table for an
   // external-FEC key, the adjacency table by index for a key of any other type (a route may
   // carry the invalid type, and its lists still resolve through the adjacency).
   auto table = [](const Mpls::AdjacencyKey& k) {
      return k.type() == Mpls::AdjacencyType::externalFec
                 ? k
                 : Mpls::AdjacencyKey(k.index(), Mpls::AdjacencyType::nexthop);
   };
   if (from) {
      auto it = segmentsByAdjKey_.find(table(*from));
      if (it != segmentsByAdjKey_.end()) {
         it->second.erase(id);
         if (it->second.empty()) segmentsByAdjKey_.erase(it);
      }
   }
   if (to) segmentsByAdjKey_[table(*to)].insert(id);
}

} // namespace SrTePolicy
