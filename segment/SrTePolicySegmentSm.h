// SegmentSm: keeps SegmentStatus equal to the resolution of every canonical segment.
//
//   initialisation ------------------> one full pass over every canonical segment
//   segment notifier inserted -------> resolve that segment
//   segment notifier removed --------> delete its status entry
//   LFIB route of label L changed ---> one dedup lookup of L; if a segment uses L, re-resolve it
//                                      on the new route (deleted route: delete the entry)
//   adjacency A's vias changed ------> re-check the refusals of the segments whose route leads to
//                                      A (a via moved onto a next-hop-group or dynamic-tunnel
//                                      interface refuses the route; moved off, accepts it again)
//
// Guarantees:
//  - an entry exists exactly for the canonical segments whose label currently resolves, and its
//    adjKey is the adjacency of the label's current route;
//  - a route moving to another adjacency changes the entry's adjKey in place (same object);
//  - an LFIB change of a label no segment uses costs one dedup lookup and changes nothing;
//  - the adjacency rule costs a look-up per segment whose route leads to that adjacency; the
//    segments are found through an index kept as routes are resolved, never by a scan;
//  - before initialisation every handler returns at once. Resolution is synchronous: a handler's
//    work is one label, so nothing is queued.
#pragma once

#include <memory>

#include "platform/Mox.h"
#include "platform/Mpls.h"
#include "platform/Trace.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentResolver.h"

namespace SrTePolicy {

class SegmentSm : public Mox::RefCounted {
 public:
   struct Inputs {
      Mox::Ptr<const NotifyingSegmentCollection> notifyingSegment;
      Mox::Ptr<const Mpls::Status> mplsStatus;
      Mox::Ptr<SegmentStatus> segmentStatus;
      Mox::Ptr<const CoreDedupTables> coreDedupTables;
      Mox::Ptr<const SegmentResolver> segmentResolver;
      // The assembly's own (PolicyCore::tracer()), never the process one.
      Trace::Tracer& tracer;
   };

   explicit SegmentSm(const Inputs& inputs);
   ~SegmentSm() override;

   bool initialized() const noexcept { return initialized_; }
   // Segments whose LFIB route leads to a next-hop adjacency, by adjacency index.
   size_t adjacencyUserCount(Mpls::AdjacencyIndex index) const;

   void handleInitialized();
   void handleSegment(const Mox::Ptr<SegmentLifeTimeNotifier>& notifier);
   void handleLFibRoute();
   void handleLFibRoute(const Mpls::RouteKey& routeKey);
   void handleAdjacency(Mpls::AdjacencyIndex index);
   void resolveAndUpdateSegmentStatus(const SegmentBase& segment);
   void updateSegmentStatus(const SegmentBase& segment,
                            const Mox::Ptr<const SegmentResolveResult>& result);

 private:
   class MoxSegment;
   class MoxMplsStatus;

   // The adjacency index of the label's current route, for the adjacency rule.
   void trackRoute(const SegmentMplsLabel& segment, const Mpls::LFib::Route* route);
   void untrackRoute(SegmentId id);

   Inputs in_;
   Trace::Tracer* tracer_;
   bool initialized_ = false;
   // segment -> (adjacency index, label) and adjacency index -> segment -> label.
   struct Tracked {
      Mpls::AdjacencyIndex index;
      Ipkit::MplsLabel label;
   };
   Mox::HashMap2018<SegmentId, Tracked> routeAdjacency_;
   Mox::HashMap2018<Mpls::AdjacencyIndex, Mox::HashMap2018<SegmentId, Ipkit::MplsLabel>>
       adjacencyUsers_;
   std::unique_ptr<MoxSegment> moxSegment_;
   std::unique_ptr<MoxMplsStatus> moxMplsStatus_;
};

Mox::Ptr<SegmentSm> segmentSmFactory(const SegmentSm::Inputs& inputs);

} // namespace SrTePolicy
