// `show restart`: what the last restart's start-up reconciliation did to each published table,
// counted by watching the tables themselves (core/SrTePolicyRestartWatch.h), not by asking the
// machines what they think they did.
#include <memory>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"
#include "core/SrTePolicyRestartWatch.h"

namespace Agent {

namespace {
struct RestartWatchSlot {
   std::unique_ptr<SrTePolicy::RestartWatch> watch;
};
} // namespace

void registerRestart(Host& host) {
   // Built between the core's stop and its start: the snapshot is what the last incarnation
   // left, and the reactors see everything the new one writes. Dropped first at the next restart
   // (and before the core goes, when the host ends).
   host.stageIs(
       0, "restart watch",
       [&host] {
          if (host.restartCount() == 0) return;
          host.shared<RestartWatchSlot>().watch =
              std::make_unique<SrTePolicy::RestartWatch>(host.core().published());
       },
       [&host] { host.shared<RestartWatchSlot>().watch.reset(); });

   host.showIs("restart", "what the last restart's reconciliation adopted, added, changed, removed",
               [&host] {
                  const auto* watch = host.shared<RestartWatchSlot>().watch.get();
                  if (!watch) return Show::View().lineIs("no restart yet");
                  Show::Table t({{"Table", "table"},
                                 {"Adopted", "adopted"},
                                 {"Added", "added"},
                                 {"Changed", "changed"},
                                 {"Rewritten", "rewritten"},
                                 {"Removed", "removed"}});
                  uint64_t changes = 0;
                  for (const auto& c : watch->counts()) {
                     changes += c.changes();
                     t.rowIs({Show::string(c.table), Show::number(c.adopted), Show::number(c.added),
                              Show::number(c.changed), Show::number(c.rewritten),
                              Show::number(c.removed)});
                  }
                  return Show::View()
                      .lineIs("Since restart " + std::to_string(host.restartCount()) + ": " +
                              Show::count(changes, "row change"))
                      .tableIs("", std::move(t));
               });
}

} // namespace Agent
