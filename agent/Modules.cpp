#include "agent/Modules.h"

#include "agent/Host.h"

namespace Agent {

void registerSubsystems(Host& host) {
   registerCore(host);
   registerConfig(host);
   registerMpls(host);
   registerInputTables(host);
   // Subsystems go here. This order is that of `help` and `show all`; the state machines are
   // built in the core's own order.
   registerInput(host);
   registerResolution(host);
   registerSelection(host);
   registerPublish(host);
   registerLfib(host);
   registerTunnelMap(host);
   registerRestart(host);
   registerBgp(host);
   registerCoreTables(host);
   registerRunningConfig(host);
}

void registerModules(Host& host) {
   registerSubsystems(host);
   host.start();
}

} // namespace Agent
