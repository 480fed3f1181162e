// Binding-SID LFIB generation in the host: `show lfib`, the routes and external-FEC adjacencies
// this system writes into its own protocol LFIB. The router's LFIB (`show mpls`, the `lfib route`
// input) is another table: nothing here reads or writes it, and `show running-config` writes only
// that one, so this system's routes are never saved as inputs.
#include <string>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

Show::Cell sourceCell(Mpls::LFib::Source s) {
   return Show::enumerated(s, s == Mpls::LFib::Source::srTePolicy
                                  ? std::string("srTePolicy")
                                  : std::to_string(static_cast<uint32_t>(s)));
}

Show::Cell actionCell(Ipkit::MplsLabelAction a) {
   std::string name = Ipkit::mplsLabelActionName(a);
   if (name == "unknown") name = std::to_string(static_cast<uint32_t>(a));
   return Show::enumerated(a, std::move(name));
}

Show::Cell fecCell(Vault::Fib::FecId id) {
   return Show::cell(id.stringValue(), Json::Value::number(id.value()));
}

// An absent value: "-" readable, null in JSON.
Show::Cell absent() { return Show::cell("", Json::Value()); }

Show::View lfibView(Host& host) {
   using Show::ColumnKind;
   const Mox::Ptr<Mpls::ProtocolLfib>& lfib = host.core().published().lfibStatus->lfib();
   Show::View v;
   if (!lfib) return v.lineIs("Protocol LFIB: not created");

   Show::Table routes({{"Binding SID", "bindingSid"},
                       {"Metric", "metric"},
                       {"Source", "source", ColumnKind::enumeration},
                       {"Adjacency", "adjacencyIndex"},
                       {"FEC", "fecId"},
                       {"Action", "labelAction", ColumnKind::enumeration}});
   for (const auto& key : Mox::sortedKeys(lfib->lfibRoute())) {
      const Mpls::LFib::ProtocolRoute& r = *lfib->lfibRoute(key);
      const Mpls::ProtocolLfib::ExtFecAdjacency* adj =
          r.via.type() == Mpls::AdjacencyType::externalFec ? lfib->getExtFecAdjacency(r.via)
                                                           : nullptr;
      routes.rowIs({Show::label(key.routeKey().topLabel()), Show::number(key.metric()),
                    sourceCell(r.source), r.via.isValid() ? Show::number(r.via.index()) : absent(),
                    adj ? fecCell(adj->fecId) : absent(),
                    adj ? actionCell(adj->labelAction) : absent()});
   }
   v.lineIs(Mox::format("LFIB routes (%s): %zu", lfib->name().c_str(), lfib->lfibRoute().size()))
       .tableIs("routes", std::move(routes));

   Show::Table adjacencies({{"Index", "adjacencyIndex"},
                            {"FEC", "fecId"},
                            {"Action", "labelAction", ColumnKind::enumeration}});
   for (const auto& index : Mox::sortedKeys(lfib->lfibExtFecAdjacency())) {
      const auto& adj = *lfib->lfibExtFecAdjacency(index);
      adjacencies.rowIs({Show::number(index), fecCell(adj.fecId), actionCell(adj.labelAction)});
   }
   v.lineIs(Mox::format("External-FEC adjacencies: %zu", lfib->lfibExtFecAdjacency().size()))
       .tableIs("extFecAdjacencies", std::move(adjacencies));
   return v;
}

} // namespace

void registerLfib(Host& host) {
   host.showIs(
       "lfib", "this system's binding-SID LFIB routes and their external-FEC adjacencies",
       [&host] { return lfibView(host); }, Host::Reads::published);
}

} // namespace Agent
