// The assembled core over a router the test writes: its own clock, a bgp input table, an SRLB,
// the MPLS forwarding state the segment lists resolve on, and paths written as records.
#pragma once

#include <memory>
#include <vector>

#include "core/SrTePolicyMachines.h"

namespace SrTePolicy::Testing {

inline PolicyId bgpPathId(const char* endpoint, uint32_t color, uint32_t disc) {
   return PolicyId(PolicyKey(*Ipkit::IpGenAddr::parse(endpoint), Color(color)), Protocol::bgp,
                   Discriminator(disc));
}

// A path's record: its binding SID (none when null) and its segment lists, list i of weight i+1.
inline PolicyInputEntry pathRecord(const PolicyId& id, uint32_t bsid,
                                   const std::vector<std::vector<uint32_t>>& lists) {
   PolicyInputEntry e(id);
   if (bsid != Ipkit::MplsLabel::null) e.bindingSidIs(Ipkit::MplsLabel(bsid));
   for (size_t i = 0; i < lists.size(); ++i) {
      Ipkit::MplsLabelOperation op;
      for (uint32_t l : lists[i]) op.push(Ipkit::MplsLabel(l));
      e.segmentListIs(SegmentListIndex(i), WeightedSegList(Weight(1 + i), op));
   }
   return e;
}

// Built without a core: a test sets up the router first, then `start`s the core over it.
struct CoreTestRouter {
   Kiln::TaskScheduler scheduler;
   StandaloneRouter tables;
   Mox::Ptr<PolicyInput> bgp = policyInputFactory("bgp");
   std::unique_ptr<PolicyCore> core;

   explicit CoreTestRouter(uint32_t srlbSize = 1000) {
      tables.input->policyInputIs(Protocol::bgp, bgp);
      tables.mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, srlbSize));
   }
   void start(PublishedTables published = {}) {
      core = std::make_unique<PolicyCore>(tables.tables(scheduler), std::move(published));
      core->start();
   }

   // Adjacency `index` over Ethernet`interface` to `hop` (an IPv4 address as a number).
   void adjacency(Mpls::AdjacencyIndex index, uint32_t hop, uint32_t interface,
                  Ipkit::MplsLabelAction action, uint32_t label) {
      tables.mplsStatus->adjacencyIs(
          index, {Mpls::Via(Ipkit::IpGenAddr::v4(hop),
                            Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, interface), action,
                            Ipkit::MplsLabel(label))});
   }
   // The two adjacencies most tests resolve over: 1 swaps to 16000 towards 10.0.0.2 on
   // Ethernet1, 2 pushes 24000 towards 10.0.0.6 on Ethernet2.
   void swapAndPushAdjacencies() {
      adjacency(1, 0x0a000002, 1, Ipkit::MplsLabelAction::swap, 16000);
      adjacency(2, 0x0a000006, 2, Ipkit::MplsLabelAction::push, 24000);
   }
   void route(uint32_t label, Mpls::AdjacencyIndex adjacency) {
      tables.mplsStatus->lfibRouteIs(
          Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label)),
                            Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                            Mpls::AdjacencyKey(adjacency, Mpls::AdjacencyType::nexthop)));
   }

   void put(const PolicyInputEntry& e) { bgp->policyInputEntryIs(e); }
   void del(const PolicyId& id) { bgp->policyInputEntryDel(id); }
   size_t run() { return scheduler.runUntilIdle(); }
};

} // namespace SrTePolicy::Testing
