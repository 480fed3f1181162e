// Segment and segment-list resolution in the host: the segment-list tunnel table. The machines
// are built by the core; the resolution columns of `segments` and `segment-lists` are in
// agent/InputCommands.cpp, beside the rest of those tables.
#include <string>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

void tunnelTableText(Host& host, std::string& out) {
   const auto& entries = host.core().published().tunnelTable->entry();
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
   for (const auto& [id, entry] : host.core().published().tunnelTable->entry()) {
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
   host.showIs(
       "tunnel-table", "segment-list tunnel table: tunnel, via index, next hop, interface, labels",
       [&host](std::string& out) { tunnelTableText(host, out); },
       [&host] { return tunnelTableJson(host); });
}

} // namespace Agent
