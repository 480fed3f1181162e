// Segment and segment-list resolution in the host: the segment-list tunnel table. The machines
// are built by the core; the resolution columns of `segments` and `segment-lists` are in
// agent/InputCommands.cpp, beside the rest of those tables.
#include <string>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

Show::View tunnelTable(Host& host) {
   const auto& entries = host.core().published().tunnelTable->entry();
   Show::Table t({{"Tunnel", "tunnelId"}, {"Segment list", "segmentListId"}},
                 {Show::Level{{{"Via", "viaIndex"},
                               {"Next hop", "nexthop"},
                               {"Interface", "intfId"},
                               {"Labels", "labels"}}}});
   for (const auto& [id, entry] : entries) {
      auto& row = t.rowIs(
          {Show::cell(id.stringValue(), Json::Value::number(id.value)), Show::number(id.index())});
      for (const auto& [index, via] : entry.via()) {
         row.lineIs(
             {Show::number(index), Show::address(via.nexthop),
              Show::string(via.intfId.stringValue()),
              Show::cell(Show::impositionText(via.labelOp), Show::impositionJson(via.labelOp))});
      }
   }
   return Show::View()
       .lineIs("Segment-list tunnel table: " + Show::count(entries.size(), "tunnel"))
       .tableIs("", std::move(t));
}

} // namespace

void registerResolution(Host& host) {
   host.showIs(
       "tunnel-table", "segment-list tunnel table: tunnel, via index, next hop, interface, labels",
       [&host] { return tunnelTable(host); }, Host::Reads::published);
}

} // namespace Agent
