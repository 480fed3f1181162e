// Segment resolution: whether a segment's label may be the top of a segment list, and through
// which adjacency.
//
// SegmentResolver answers for one label from the MPLS status: the adjacency key of the label's
// LFIB route, or nothing. Routes that would make a policy ride another tunnel-like construct are
// refused, in this order: a pseudowire route (route type 6); then, for a next-hop adjacency (key
// type 1) only, an adjacency with any via on a next-hop-group interface or on a dynamic-tunnel
// interface. A route through any other adjacency type is taken as it is.
//
// SegmentStatus publishes the answer per SegmentId as a SegmentResolve entry. The entry of a
// resolved segment is kept for as long as the label resolves: when its route moves to another
// adjacency only `adjKey` changes (reactors see onAdjKey, never a delete and an insert).
#pragma once

#include <string>

#include "platform/Mox.h"
#include "platform/Mpls.h"
#include "platform/Trace.h"
#include "segment/SrTePolicySegment.h"

namespace SrTePolicy {

// The outcome of resolving one label: the adjacency its route leads to. Built by the resolver only.
class SegmentResolveResult : public Mox::RefCounted {
 public:
   explicit SegmentResolveResult(Mpls::AdjacencyKey adjKey) : adjKey_(adjKey) {}
   const Mpls::AdjacencyKey& adjKey() const noexcept { return adjKey_; }

 private:
   const Mpls::AdjacencyKey adjKey_;
};

// One resolved segment.
class SegmentResolve : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<SegmentResolve> {
    public:
      virtual void onAdjKey() {}
   };
   SegmentResolve(SegmentId segmentId, Mpls::AdjacencyKey adjKey)
       : segmentId_(segmentId), adjKey_(adjKey) {}

   SegmentId segmentId() const noexcept { return segmentId_; }
   const Mpls::AdjacencyKey& adjKey() const noexcept { return adjKey_; }
   void adjKeyIs(const Mpls::AdjacencyKey& k) { attrIs(adjKey_, k, &Notifiee::onAdjKey); }
   // "segmentId: 3  adjKey: (index: 1, type: 1)"
   std::string stringValue() const;

 private:
   const SegmentId segmentId_;
   Mpls::AdjacencyKey adjKey_;
};

class SegmentStatus : public Mox::Entity {
 public:
   using Map = Mox::HashMap2018<SegmentId, Mox::Ptr<SegmentResolve>>;
   static constexpr const char* nullStatusMessage =
       "null _status parameter to mutator for SrTePolicy::SegmentStatus::status not allowed";
   class Notifiee : public Mox::NotifieeOf<SegmentStatus> {
    public:
      virtual void onStatus(const SegmentId&) {}
   };

   explicit SegmentStatus(Mox::Name name = "segmentStatus") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   const Map& status() const noexcept { return status_; }
   // Null when the segment does not resolve.
   SegmentResolve* status(SegmentId id) const {
      auto it = status_.find(id);
      return it == status_.end() ? nullptr : it->second.get();
   }
   // Inserts (or replaces) the entry under its own segment id; a null entry is refused
   // (std::invalid_argument) and changes nothing.
   void statusIs(const Mox::Ptr<SegmentResolve>& resolve);
   void statusDel(SegmentId id) { collDel(status_, id, &Notifiee::onStatus); }
   void statusDelAll() { collDelAll(status_, &Notifiee::onStatus); }
   // "%*cstatuses #%u \n", then each entry one level deeper, by segment id.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   Map status_;
};

class SegmentResolver : public Mox::Entity {
 public:
   // `tracer`: the assembly's own (PolicyCore::tracer()).
   SegmentResolver(Mox::Ptr<const Mpls::Status> mplsStatus, Trace::Tracer& tracer)
       : mplsStatus_(std::move(mplsStatus)), tracer_(&tracer) {}
   const Mpls::Status& mplsStatus() const noexcept { return *mplsStatus_; }

   // Looks the label's route up; null when there is none or it is refused.
   Mox::Ptr<const SegmentResolveResult> resolveSegmentMpls(Ipkit::MplsLabel label) const;
   // The same for a route already in hand (not compared with the empty route).
   Mox::Ptr<const SegmentResolveResult>
   resolveSegmentMplsOnLfibRoute(Ipkit::MplsLabel label, const Mpls::LFib::Route& route) const;
   // True when the route must not be used (the refusals above, in their order).
   bool skipMplsRouteForResolution(const Mpls::LFib::Route& route) const;

 private:
   Mox::Ptr<const Mpls::Status> mplsStatus_;
   Trace::Tracer* tracer_;
};

Mox::Ptr<SegmentResolver> segmentResolverFactory(Mox::Ptr<const Mpls::Status> mplsStatus,
                                                 Trace::Tracer& tracer);

} // namespace SrTePolicy
