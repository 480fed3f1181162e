// A resolution stage on its own: dedup tables, reverse map, SegmentSm and SegmentListSm over an
// MPLS status, hardware status and tunnel table the test writes. Lists are registered the way the
// input stage registers them.
#pragma once

#include <algorithm>
#include <map>
#include <vector>

#include "segment/SrTePolicySegmentListSm.h"
#include "segment/SrTePolicySegmentSm.h"
#include "tests/support/TestValues.h"

namespace SrTePolicy::Testing {

using SrTePolicy::Test::addr;
inline Ipkit::IntfId intf(const char* name) { return *Ipkit::IntfId::parse(name); }
inline Mpls::Via via(const char* hop, const char* interface, Ipkit::MplsLabelAction action,
                     uint32_t label = Ipkit::MplsLabel::null) {
   return Mpls::Via(addr(hop), intf(interface), action, Ipkit::MplsLabel(label));
}

struct ResolutionEnv {
   Mox::Ptr<Kiln::TaskScheduler> scheduler = Mox::make<Kiln::TaskScheduler>();
   Mox::Ptr<Mpls::Status> mpls = Mox::make<Mpls::Status>();
   Mox::Ptr<Routing::Hardware::Status> hardware = Mox::make<Routing::Hardware::Status>();
   Mox::Ptr<SegmentStatus> segmentStatus = Mox::make<SegmentStatus>();
   Mox::Ptr<SegmentListStatus> listStatus = Mox::make<SegmentListStatus>("segmentListStatus");
   Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnels =
       Mox::make<Tunnel::TunnelTable::SrTeSegmentListTunnelTable>();
   Mox::Ptr<Kiln::AttrLogSm> attrLog = Mox::make<Kiln::AttrLogSm>();
   // The machines' own log and tracer, as a core hands them its own.
   Syslog::Capture logged;
   Syslog::Log log;
   Trace::Tracer tracer;

   Mox::Ptr<CoreDedupTables> dedup;
   Mox::Ptr<SegmentIdToSegmentList> segmentMap;
   Mox::Ptr<SegmentResolver> resolver;
   Mox::Ptr<SegmentSm> segmentSm;
   Mox::Ptr<SegmentListSm> listSm;
   std::map<std::vector<uint32_t>, Mox::Ptr<SegmentList>> lists;

   ResolutionEnv() {
      log.sinkIs(&logged);
      start();
   }
   ~ResolutionEnv() { stop(); }

   // Lists given here exist before the machines start (a restart's backlog).
   void start(const std::vector<std::vector<uint32_t>>& existing = {}) {
      dedup = Mox::make<CoreDedupTables>();
      segmentMap = Mox::make<SegmentIdToSegmentList>();
      // As the input stage does: new ids start above every id already published.
      SegmentListId highest;
      for (const auto& [id, error] : listStatus->status()) highest = std::max(highest, id);
      if (!listStatus->status().empty()) {
         dedup->notifyingSegmentListCollection()->uniqueIdIs(highest);
      }
      for (const auto& labels : existing) add(labels);
      resolver = segmentResolverFactory(mpls, tracer);
      segmentSm = segmentSmFactory({.notifyingSegment = dedup->notifyingSegmentCollection(),
                                    .mplsStatus = mpls,
                                    .segmentStatus = segmentStatus,
                                    .coreDedupTables = dedup,
                                    .segmentResolver = resolver,
                                    .tracer = tracer});
      listSm =
          segmentListSmFactory({.notifyingSegmentList = dedup->notifyingSegmentListCollection(),
                                .segmentStatus = segmentStatus,
                                .segmentListStatus = listStatus,
                                .tunnelTable = tunnels,
                                .scheduler = scheduler.get(),
                                .mplsStatus = mpls,
                                .segmentIdToSegmentList = segmentMap,
                                .coreDedupTables = dedup,
                                .routingHwStatus = hardware,
                                .attrLogSm = attrLog,
                                .syslog = log,
                                .tracer = tracer});
   }
   // What a process restart drops; the published tables stay.
   void stop() {
      listSm.reset();
      segmentSm.reset();
      lists.clear();
      segmentMap.reset();
      resolver.reset();
      dedup.reset();
   }

   SegmentListId add(const std::vector<uint32_t>& labels) {
      Ipkit::MplsLabelOperation op;
      for (uint32_t l : labels) op.push(Ipkit::MplsLabel(l));
      Mox::Ptr<SegmentList> list = dedup->dedupSegmentList(op);
      for (uint32_t i = 0; i < list->size(); ++i) {
         const SegmentId id = list->getSegmentId(i);
         if (!segmentMap->segmentList(id)) {
            segmentMap->segmentListIs(id, Mox::make<SegmentListsOfSegment>());
         }
         segmentMap->segmentList(id)->segmentListPtrIs(list);
      }
      lists[labels] = list;
      return list->segmentListId();
   }
   void drop(const std::vector<uint32_t>& labels) {
      Mox::Ptr<SegmentList> list = lists[labels];
      lists.erase(labels);
      for (uint32_t i = 0; i < list->size(); ++i) {
         SegmentListsOfSegment* users = segmentMap->segmentList(list->getSegmentId(i));
         users->segmentListPtrDel(list);
         if (users->segmentListPtr().empty()) segmentMap->segmentListDel(list->getSegmentId(i));
      }
   }

   void route(uint32_t label, Mpls::AdjacencyIndex index,
              Mpls::AdjacencyType type = Mpls::AdjacencyType::nexthop,
              Mpls::LFib::RouteType routeType = Mpls::LFib::RouteType::unknown) {
      const auto key = Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label));
      mpls->lfibRouteIs(Mpls::LFib::Route(key, routeType, Mpls::LFib::Source::unknown,
                                          Mpls::AdjacencyKey(index, type)));
   }
   void noRoute(uint32_t label) {
      mpls->lfibRouteDel(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label)));
   }
   size_t run() { return scheduler->runUntilIdle(); }
   void advance(double seconds) { scheduler->advance(seconds); }

   SegmentId segmentOf(uint32_t label) const {
      auto s = dedup->segDedupTablePtr()->lookupByLabel(Ipkit::MplsLabel(label));
      return s ? s->segmentId() : SegmentId();
   }
   SegmentResolve* resolve(uint32_t label) const { return segmentStatus->status(segmentOf(label)); }
   // The status name, or "-" when the list has none.
   std::string status(SegmentListId id) const {
      const SegmentListResolveError* e = listStatus->status(id);
      return e ? segmentListResolveErrorName(*e) : "-";
   }
   // The tunnel entry's vias as "hop intf [stack]; ...", "-" when there is no entry.
   std::string tunnel(SegmentListId id) const {
      const auto* entry = tunnels->entry(id.getTunnelId());
      if (!entry) return "-";
      std::string s;
      for (const auto& [index, v] : entry->via()) {
         if (!s.empty()) s += "; ";
         s += v.stringValue();
      }
      return s;
   }
};

} // namespace SrTePolicy::Testing
