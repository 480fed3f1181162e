// A resolution stage on its own: a core built up to segment-list resolution over an MPLS status,
// hardware status and attribute log the test writes. Lists are registered the way the input stage
// registers them.
#pragma once

#include <algorithm>
#include <map>
#include <vector>

#include "core/SrTePolicyMachines.h"
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
   StandaloneRouter router;
   PolicyCore core{router.tables(*scheduler), {}, Stage::segmentListResolution};
   // What the tests write and read, by short names.
   const Mox::Ptr<Mpls::Status>& mpls = router.mplsStatus;
   const Mox::Ptr<Routing::Hardware::Status>& hardware = router.hardwareStatus;
   const Mox::Ptr<Kiln::AttrLogSm>& attrLog = router.attrLog;
   const Mox::Ptr<SegmentListStatus>& listStatus = core.published().segmentListStatus;
   const Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable>& tunnels =
       core.published().tunnelTable;
   // The machines' log.
   const Syslog::Capture& logged = core.syslogCapture();
   // Declared after the core: the lists go before the tables they live in.
   std::map<std::vector<uint32_t>, Mox::Ptr<SegmentList>> lists;

   ResolutionEnv() { start(); }
   ~ResolutionEnv() { stop(); }

   // Lists given here exist before the machines start (a restart's backlog).
   void start(const std::vector<std::vector<uint32_t>>& existing = {}) {
      core.prepare();
      // As the input stage does: new ids start above every id already published.
      SegmentListId highest;
      for (const auto& [id, error] : listStatus->status()) highest = std::max(highest, id);
      if (!listStatus->status().empty()) {
         dedup().notifyingSegmentListCollection()->uniqueIdIs(highest);
      }
      for (const auto& labels : existing) add(labels);
      core.start();
   }
   // What a process restart drops; the published tables stay.
   void stop() {
      lists.clear();
      core.stop();
   }

   CoreDedupTables& dedup() const { return *core.entities().coreDedupTables; }
   const Mox::Ptr<SegmentListSm>& listSm() const { return core.segmentListSm(); }
   const Mox::Ptr<SegmentStatus>& segmentStatus() const { return core.entities().segmentStatus; }

   SegmentListId add(const std::vector<uint32_t>& labels) {
      Ipkit::MplsLabelOperation op;
      for (uint32_t l : labels) op.push(Ipkit::MplsLabel(l));
      Mox::Ptr<SegmentList> list = dedup().dedupSegmentList(op);
      core.entities().segmentMap->segmentListPtrIs(list);
      lists[labels] = list;
      return list->segmentListId();
   }
   void drop(const std::vector<uint32_t>& labels) {
      core.entities().segmentMap->segmentListPtrDel(lists[labels]);
      lists.erase(labels);
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
      auto s = dedup().segDedupTablePtr()->lookupByLabel(Ipkit::MplsLabel(label));
      return s ? s->segmentId() : SegmentId();
   }
   SegmentResolve* resolve(uint32_t label) const {
      return segmentStatus()->status(segmentOf(label));
   }
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
