// `show bgp`: the BGP protocol adapter's own account (agent/BgpStatus.h), read from the router's
// shared table, so that it shows in any process attached to the router, the adapter's last word
// included when it no longer runs.
#include <chrono>

#include "agent/BgpStatus.h"
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowTable.h"

namespace Agent {

std::string bgpConnectionName(BgpConnection c) {
   switch (c) {
   case BgpConnection::connecting:
      return "connecting";
   case BgpConnection::resynchronising:
      return "resynchronising";
   case BgpConnection::synchronised:
      return "synchronised";
   case BgpConnection::disconnected:
      return "disconnected";
   case BgpConnection::stopped:
      return "stopped";
   }
   return "unknown (" + std::to_string(static_cast<uint32_t>(c)) + ")";
}

namespace {

Show::View statusView(const BgpStatus& s, bool running) {
   const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
   const double since = s.changedAtMs > 0 ? static_cast<double>(now - s.changedAtMs) / 1000 : 0;
   std::string connection = bgpConnectionName(s.connection);
   if (!running && s.connection != BgpConnection::stopped) connection += " (adapter not running)";
   Show::View v;
   v.fieldIs("Adapter", "pid", Show::number(s.pid))
       .fieldIs("Speaker", "speaker", Show::string(s.speaker))
       .fieldIs("Connection", "connection", Show::enumerated(s.connection, connection),
                Show::ColumnKind::enumeration)
       .fieldIs("", "running", Show::flag(running, "yes", "no"))
       .fieldIs("Seconds in this state", "connectionSeconds", Show::seconds(since))
       .settingsIs({"Counter", "Value"},
                   {{"connects", "connects", Show::number(s.connects)},
                    {"routes received", "routesReceived", Show::number(s.routesReceived)},
                    {"records written", "recordsWritten", Show::number(s.recordsWritten)},
                    {"records erased", "recordsErased", Show::number(s.recordsErased)},
                    {"records unchanged", "recordsUnchanged", Show::number(s.recordsUnchanged)},
                    {"records held", "recordsHeld", Show::number(s.recordsHeld)},
                    {"stale records", "staleRecords", Show::number(s.staleRecords)},
                    {"routes refused", "routesRefused", Show::number(s.routesRefused)}});
   if (s.lastError[0] != 0) v.fieldIs("Last error", "lastError", Show::string(s.lastError));
   Show::Table reasons(std::vector<Show::Column>{Show::Column{"Reason", "reason"}});
   const uint64_t kept = std::min<uint64_t>(s.reasonsTold, BgpStatus::reasonSlots);
   for (uint64_t i = s.reasonsTold - kept; i < s.reasonsTold; ++i) {
      reasons.rowIs({Show::string(s.reasons[i % BgpStatus::reasonSlots])});
   }
   if (kept > 0) v.lineIs("Last refusals:");
   v.tableIs("refusals", std::move(reasons));
   return v;
}

} // namespace

void registerBgp(Host& host) {
   host.showIs(
       "bgp", "the BGP adapter: connection, routes received, records written, refusals",
       [&host] {
          const std::string& router = host.routerName();
          if (router.empty()) {
             return Show::View()
                 .lineIs("No BGP adapter: this router is in process; bgp records come from "
                         "'input bgp'")
                 .fieldIs("", "adapter", Show::string("none"));
          }
          try {
             BgpStatusReader reader(router, bgpStatusTable);
             const auto s = reader.lookup(BgpStatusKey{});
             if (!s) {
                return Show::View()
                    .lineIs("No BGP adapter status yet")
                    .fieldIs("", "adapter", Show::string("none"));
             }
             return statusView(*s, reader.writer() != 0);
          } catch (const Vault::Shm::NotFound&) {
             return Show::View()
                 .lineIs("No BGP adapter has run for router " + router)
                 .fieldIs("", "adapter", Show::string("none"));
          } catch (const Vault::Corruption& e) {
             return Show::View().lineIs(std::string("BGP adapter status unreadable: ") + e.what());
          }
       },
       // The adapter's own shared table: read where it is shown, the agent need not run.
       Host::Reads::router);
}

} // namespace Agent
