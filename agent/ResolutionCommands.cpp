// Segment and segment-list resolution in the host: builds the resolver, SegmentSm and
// SegmentListSm before the input stage (so that what it deduplicates is resolved as it appears),
// and shows the segment-list tunnel table. The resolution columns of `segments` and
// `segment-lists` are in agent/InputCommands.cpp, beside the rest of those tables.
#include <string>
#include <vector>

#include "agent/CoreTables.h"
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"
#include "segment/SrTePolicySegmentListSm.h"
#include "segment/SrTePolicySegmentSm.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

struct ResolutionProcess {
   Mox::Ptr<SegmentResolver> segmentResolver;
   Mox::Ptr<SegmentSm> segmentSm;
   Mox::Ptr<SegmentListSm> segmentListSm;
};

void tunnelTableText(Host& host, std::string& out) {
   const auto& entries = host.shared<PublishedTables>().tunnelTable->entry();
   Mox::appendf(out, "Segment-list tunnel table: %s\n",
                Show::count(entries.size(), "tunnel").c_str());
   Show::TextTable t({"Tunnel", "Segment list", "Via", "Next hop", "Interface", "Labels"});
   for (const auto& [id, entry] : entries) {
      if (entry.via().empty()) {
         t.rowIs({id.stringValue(), std::to_string(id.index()), "", "", "", ""});
      }
      bool first = true;
      for (const auto& [index, via] : entry.via()) {
         std::vector<std::string> cells{
             first ? id.stringValue() : "", first ? std::to_string(id.index()) : "",
             std::to_string(index),         via.nexthop.stringValue(),
             via.intfId.stringValue(),      Show::impositionText(via.labelOp)};
         first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
         first = false;
      }
   }
   t.render(out, 2);
}

Json::Value tunnelTableJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (const auto& [id, entry] : host.shared<PublishedTables>().tunnelTable->entry()) {
      for (const auto& [index, via] : entry.via()) {
         rows.push(Json::Value::row()
                       .set("tunnelId", id.value)
                       .set("segmentListId", id.index())
                       .set("viaIndex", index)
                       .set("nexthop", Json::Value::address(via.nexthop))
                       .set("intfId", via.intfId.stringValue())
                       .set("labels", Show::impositionJson(via.labelOp)));
      }
   }
   return rows;
}

} // namespace

void registerResolution(Host& host) {
   host.stageIs(StageOrder::segmentResolution, "segment resolution", [&host] {
      CoreProcess& core = host.process<CoreProcess>();
      ResolutionProcess& p = host.process<ResolutionProcess>();
      p.segmentResolver = segmentResolverFactory(host.mplsStatus());
      p.segmentSm =
          segmentSmFactory({.notifyingSegment = core.coreDedupTables->notifyingSegmentCollection(),
                            .mplsStatus = host.mplsStatus(),
                            .segmentStatus = core.segmentStatus,
                            .coreDedupTables = core.coreDedupTables,
                            .segmentResolver = p.segmentResolver});
   });
   host.stageIs(StageOrder::segmentListResolution, "segment-list resolution", [&host] {
      CoreProcess& core = host.process<CoreProcess>();
      PublishedTables& published = host.shared<PublishedTables>();
      host.process<ResolutionProcess>().segmentListSm = segmentListSmFactory(
          {.notifyingSegmentList = core.coreDedupTables->notifyingSegmentListCollection(),
           .segmentStatus = core.segmentStatus,
           .segmentListStatus = published.segmentListStatus,
           .tunnelTable = published.tunnelTable,
           .scheduler = Mox::Ptr<Kiln::TaskScheduler>(&host.scheduler()),
           .mplsStatus = host.mplsStatus(),
           .segmentIdToSegmentList = core.segmentMap,
           .coreDedupTables = core.coreDedupTables,
           .routingHwStatus = host.hardwareStatus(),
           .attrLogSm = Mox::Ptr<Kiln::AttrLogSm>(&host.attrLog())});
   });

   host.showIs(
       "tunnel-table", "segment-list tunnel table: tunnel, via index, next hop, interface, labels",
       [&host](std::string& out) { tunnelTableText(host, out); },
       [&host] { return tunnelTableJson(host); });
}

} // namespace Agent
