// `show restart`: what the last restart's start-up reconciliation did to each published table,
// counted by watching the tables themselves (core/SrTePolicyRestartWatch.h; in the agent, what it
// wrote to the shared tables, agent/PublishedMirror.h), not by asking the machines what they
// think they did.
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

void registerRestart(Host& host) {
   host.showIs("restart", "what the last restart's reconciliation adopted, added, changed, removed",
               [&host] {
                  const auto counts = host.restartCounts();
                  if (!counts) return Show::View().lineIs("no restart yet");
                  Show::Table t({{"Table", "table"},
                                 {"Adopted", "adopted"},
                                 {"Added", "added"},
                                 {"Changed", "changed"},
                                 {"Rewritten", "rewritten"},
                                 {"Removed", "removed"}});
                  uint64_t changes = 0;
                  for (const auto& c : *counts) {
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
