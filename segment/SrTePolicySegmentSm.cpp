#include "segment/SrTePolicySegmentSm.h"

#include <vector>

#include "platform/Trace.h"

namespace SrTePolicy {

class SegmentSm::MoxSegment : public Mox::Reactor<NotifyingSegmentCollection::Notifiee, SegmentSm> {
 public:
   using Reactor::Reactor;
   void onSegmentNotifier(const Mox::Ptr<SegmentLifeTimeNotifier>& n) override {
      owner().handleSegment(n);
   }
};

class SegmentSm::MoxMplsStatus : public Mox::Reactor<Mpls::Status::Notifiee, SegmentSm> {
 public:
   using Reactor::Reactor;
   void onLfibRoute(const Mpls::RouteKey& key) override { owner().handleLFibRoute(key); }
   void onAdjacency(const Mpls::AdjacencyIndex& index) override { owner().handleAdjacency(index); }
};

SegmentSm::SegmentSm(const Inputs& inputs) : in_(inputs), tracer_(&inputs.tracer) {
   moxSegment_ = std::make_unique<MoxSegment>(*this, in_.notifyingSegment.get());
   moxMplsStatus_ = std::make_unique<MoxMplsStatus>(*this, in_.mplsStatus.get());
   handleInitialized();
}

SegmentSm::~SegmentSm() {
   // Statuses stay: they describe segments that still exist until the dedup tables go.
   moxSegment_.reset();
   moxMplsStatus_.reset();
}

Mox::Ptr<SegmentSm> segmentSmFactory(const SegmentSm::Inputs& inputs) {
   return Mox::make<SegmentSm>(inputs);
}

size_t SegmentSm::adjacencyUserCount(Mpls::AdjacencyIndex index) const {
   auto it = adjacencyUsers_.find(index);
   return it == adjacencyUsers_.end() ? 0 : it->second.size();
}

void SegmentSm::handleInitialized() {
   initialized_ = true;
   SRTE_TRACE_TO(tracer_, 3, "SegmentSm handleInitialized");
   handleLFibRoute();
}

void SegmentSm::handleLFibRoute() {
   if (!initialized_) return;
   // Resolution may withdraw nothing, but a reactor further down may: walk a copy.
   std::vector<Mox::Ptr<SegmentLifeTimeNotifier>> notifiers(
       in_.notifyingSegment->segmentNotifier().begin(),
       in_.notifyingSegment->segmentNotifier().end());
   for (const auto& n : notifiers) {
      if (!in_.notifyingSegment->segmentNotifierHas(n)) continue;
      resolveAndUpdateSegmentStatus(*n->segmentRawPtr());
   }
}

void SegmentSm::handleLFibRoute(const Mpls::RouteKey& routeKey) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 7, "handleLFibRoute label: " << routeKey.topLabel());
   Mox::Ptr<SegmentMplsLabel> segment =
       in_.coreDedupTables->segDedupTablePtr()->lookupByLabel(routeKey.topLabel());
   if (!segment) return;
   const Mpls::LFib::Route* found = in_.mplsStatus->lfibRoute(routeKey);
   const Mpls::LFib::Route route = found ? *found : Mpls::LFib::Route();
   trackRoute(*segment, found);
   if (route == Mpls::LFib::Route()) {
      in_.segmentStatus->statusDel(segment->segmentId());
      return;
   }
   updateSegmentStatus(*segment, segment->resolveSegmentOnLFib(*in_.segmentResolver, route));
}

void SegmentSm::handleSegment(const Mox::Ptr<SegmentLifeTimeNotifier>& notifier) {
   if (!initialized_) return;
   const SegmentBase& segment = *notifier->segmentRawPtr();
   SRTE_TRACE_TO(tracer_, 7, "handleSegment segment: " << segment.stringValue());
   if (in_.notifyingSegment->segmentNotifierHas(notifier)) {
      resolveAndUpdateSegmentStatus(segment);
      return;
   }
   SRTE_TRACE2_TO(tracer_, 7, "Deleting Segment", "Deleting segment");
   untrackRoute(segment.segmentId());
   in_.segmentStatus->statusDel(segment.segmentId());
}

void SegmentSm::handleAdjacency(Mpls::AdjacencyIndex index) {
   if (!initialized_) return;
   auto it = adjacencyUsers_.find(index);
   if (it == adjacencyUsers_.end()) return;
   SRTE_TRACE_TO(tracer_, 7,
                 "handleAdjacency index: " << index << " segments: " << it->second.size());
   // Re-resolution keeps each segment under the same index, but take a copy all the same.
   std::vector<std::pair<SegmentId, Ipkit::MplsLabel>> users(it->second.begin(), it->second.end());
   for (const auto& [id, label] : users) {
      Mox::Ptr<SegmentMplsLabel> segment =
          in_.coreDedupTables->segDedupTablePtr()->lookupByLabel(label);
      if (segment && segment->segmentId() == id) resolveAndUpdateSegmentStatus(*segment);
   }
}

void SegmentSm::resolveAndUpdateSegmentStatus(const SegmentBase& segment) {
   if (segment.type() == SegmentType::mplsLabel) {
      const auto& mpls = static_cast<const SegmentMplsLabel&>(segment);
      trackRoute(mpls, in_.mplsStatus->lfibRoute(Mpls::RouteKey::fromLabel(mpls.label())));
   }
   updateSegmentStatus(segment, segment.resolveSegment(*in_.segmentResolver));
}

void SegmentSm::updateSegmentStatus(const SegmentBase& segment,
                                    const Mox::Ptr<const SegmentResolveResult>& result) {
   const SegmentId id = segment.segmentId();
   if (!result) {
      in_.segmentStatus->statusDel(id);
      return;
   }
   if (SegmentResolve* existing = in_.segmentStatus->status(id)) {
      existing->adjKeyIs(result->adjKey());
      return;
   }
   in_.segmentStatus->statusIs(Mox::make<SegmentResolve>(id, result->adjKey()));
}

void SegmentSm::trackRoute(const SegmentMplsLabel& segment, const Mpls::LFib::Route* route) {
   const SegmentId id = segment.segmentId();
   const bool viaAdjacency = route && route->adjKey.type() == Mpls::AdjacencyType::nexthop;
   auto it = routeAdjacency_.find(id);
   if (it != routeAdjacency_.end()) {
      if (viaAdjacency && it->second.index == route->adjKey.index()) return;
      untrackRoute(id);
   }
   if (!viaAdjacency) return;
   const Mpls::AdjacencyIndex index = route->adjKey.index();
   routeAdjacency_.emplace(id, Tracked{index, segment.label()});
   adjacencyUsers_[index].emplace(id, segment.label());
}

void SegmentSm::untrackRoute(SegmentId id) {
   auto it = routeAdjacency_.find(id);
   if (it == routeAdjacency_.end()) return;
   auto users = adjacencyUsers_.find(it->second.index);
   if (users != adjacencyUsers_.end()) {
      users->second.erase(id);
      if (users->second.empty()) adjacencyUsers_.erase(users);
   }
   routeAdjacency_.erase(it);
}

} // namespace SrTePolicy
