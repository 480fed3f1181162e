// Tunnel map export in the host: `show tunnel-map`, the published map from tunnel id to policy key
// as the counter and tunnel services read it, with the state of each row: how many candidate paths
// of its key map the tunnel, whether the platform counts it, and whether its deletion is waiting
// for that counter to go.
#include <set>
#include <string>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

using Tunnel::TunnelTable::TunnelId;

// The candidate paths of `key` that map the tunnel, as the machine holds them.
uint64_t pathsMapping(const TunnelMapExportSm& sm, const PolicyKey& key, TunnelId t) {
   const TunnelMapExportSm::TunnelPaths* paths = sm.tunnelPaths(t);
   if (!paths) return 0;
   uint64_t n = 0;
   for (const PolicyId& id : *paths) n += id.key == key ? 1 : 0;
   return n;
}

Show::View tunnelMap(Host& host) {
   const auto& core = host.core();
   const TunnelIdToPolicyKey& map = *core.published().tunnelIdToPolicyKey;
   // While the agent is stopped (SR-TE disabled) no machine holds paths or pending deletions.
   const TunnelMapExportSm* sm = host.agentRunning() ? core.tunnelMapExportSm().get() : nullptr;
   const FlexCounters::CounterTable& counters = *host.counterTable();
   const size_t pendingCount = sm ? sm->pendingTunnel().size() : 0;

   // A pending tunnel has its row as a rule; one that lost it still shows.
   std::set<TunnelId> ids;
   if (sm) ids.insert(sm->pendingTunnel().begin(), sm->pendingTunnel().end());
   for (const auto& [t, row] : map) ids.insert(t);

   Show::Table t({{"Tunnel", "tunnelId"},
                  {"Segment list", "segmentListId"},
                  {"Endpoint", "endpoint"},
                  {"Color", "color"},
                  {"Paths", "paths"},
                  {"Counter", "counter"},
                  {"Pending deletion", "pendingDeletion"}});
   for (TunnelId id : ids) {
      const TunnelIdToPolicyKeyEntry* row = map.tunnelEntry(id);
      const bool pending = sm && sm->pendingTunnel().contains(id);
      t.rowIs({Show::cell(id.stringValue(), Json::Value::number(id.value)),
               id.type() == TunnelId::Type::srTeSegmentList ? Show::number(id.index())
                                                            : Show::cell("", Json::Value::null()),
               row ? Show::address(row->policyKey.endpoint) : Show::cell("", Json::Value::null()),
               row ? Show::number(row->policyKey.color.value) : Show::cell("", Json::Value::null()),
               Show::number(row && sm ? pathsMapping(*sm, row->policyKey, id) : 0),
               Show::flag(counters.counterHas(id), "yes", "no"),
               Show::cell(pending ? "yes" : "", Json::Value::boolean(pending))});
   }
   Show::View v;
   v.lineIs("Tunnel map: " + Show::count(map.size(), "tunnel") + ", " +
            Show::count(pendingCount, "pending deletion"));
   const Kiln::Task* task = sm ? sm->task() : nullptr;
   if (pendingCount != 0 && task && task->expirationTimeNs()) {
      v.fieldIs("Next deletion check", "",
                Show::text("at " + Kiln::secondsText(*task->expirationTimeNs()) + " s"));
   }
   return v.tableIs("", std::move(t));
}

} // namespace

void registerTunnelMap(Host& host) {
   host.showIs("tunnel-map",
               "tunnel id to policy key, the paths mapping each tunnel, deletions waiting for a "
               "tunnel's counter",
               [&host] { return tunnelMap(host); });
}

} // namespace Agent
