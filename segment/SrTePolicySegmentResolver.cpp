#include "segment/SrTePolicySegmentResolver.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "platform/Trace.h"

namespace SrTePolicy {

std::string SegmentResolve::stringValue() const {
   return "segmentId: " + segmentId_.stringValue() + "  adjKey: " + adjKey_.stringValue();
}

void SegmentStatus::statusIs(const Mox::Ptr<SegmentResolve>& resolve) {
   if (!resolve) throw std::invalid_argument(nullStatusMessage);
   collIs(status_, resolve->segmentId(), resolve, &Notifiee::onStatus);
}

void SegmentStatus::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cstatuses #%u \n", depth, ' ', static_cast<unsigned>(status_.size()));
   std::vector<const SegmentResolve*> entries;
   for (const auto& [id, r] : status_) entries.push_back(r.get());
   std::sort(entries.begin(), entries.end(),
             [](auto* a, auto* b) { return a->segmentId() < b->segmentId(); });
   for (const SegmentResolve* r : entries) {
      Mox::appendf(out, "%*c%s\n", depth + 2, ' ', r->stringValue().c_str());
   }
}

Mox::Ptr<SegmentResolver> segmentResolverFactory(Mox::Ptr<const Mpls::Status> mplsStatus,
                                                 Trace::Tracer& tracer) {
   return Mox::make<SegmentResolver>(std::move(mplsStatus), tracer);
}

Mox::Ptr<const SegmentResolveResult>
SegmentResolver::resolveSegmentMpls(Ipkit::MplsLabel label) const {
   SRTE_TRACE_TO(tracer_, 7, "resolveSegmentMpls label: " << label);
   const Mpls::LFib::Route* found = mplsStatus_->lfibRoute(Mpls::RouteKey::fromLabel(label));
   const Mpls::LFib::Route route = found ? *found : Mpls::LFib::Route();
   if (route == Mpls::LFib::Route() || skipMplsRouteForResolution(route)) return nullptr;
   return Mox::make<SegmentResolveResult>(route.adjKey);
}

Mox::Ptr<const SegmentResolveResult>
SegmentResolver::resolveSegmentMplsOnLfibRoute(Ipkit::MplsLabel label,
                                               const Mpls::LFib::Route& route) const {
   SRTE_TRACE_TO(tracer_, 7, "resolveSegmentMplsOnLfibRoute label: " << label);
   if (skipMplsRouteForResolution(route)) return nullptr;
   return Mox::make<SegmentResolveResult>(route.adjKey);
}

bool SegmentResolver::skipMplsRouteForResolution(const Mpls::LFib::Route& route) const {
   SRTE_TRACE_TO(tracer_, 8, "skipMplsRouteForResolution " << route.key.topLabel());
   if (route.type == Mpls::LFib::RouteType::pseudowire) {
      SRTE_TRACE_TO(tracer_, 7, "Skipping resolution via pseudowire");
      return true;
   }
   if (route.adjKey.type() != Mpls::AdjacencyType::nexthop) return false;
   // A copy: the checks below must not see the table change under them.
   const Mpls::ViaSet* found = mplsStatus_->adjacency(route.adjKey.index());
   const Mpls::ViaSet vias = found ? *found : Mpls::ViaSet();
   for (const Mpls::Via& via : vias) {
      if (Ipkit::FecIdIntfId::isNexthopGroupIdIntfId(via.intfId)) {
         SRTE_TRACE2_TO(tracer_, 7, "Skipping resolution via NHG", "Skipping resolution via nhg");
         return true;
      }
      if (Ipkit::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intfId)) {
         SRTE_TRACE_TO(tracer_, 7, "Skipping resolution via dynamic tunnel");
         return true;
      }
   }
   return false;
}

Mox::Ptr<const SegmentResolveResult>
SegmentMplsLabel::resolveSegment(const SegmentResolver& resolver) const {
   return resolver.resolveSegmentMpls(label());
}

Mox::Ptr<const SegmentResolveResult>
SegmentMplsLabel::resolveSegmentOnLFib(const SegmentResolver& resolver,
                                       const Mpls::LFib::Route& route) const {
   return resolver.resolveSegmentMplsOnLfibRoute(label(), route);
}

} // namespace SrTePolicy
