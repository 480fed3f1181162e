#include "agent/Modules.h"

#include "agent/Host.h"

namespace Agent {

void registerModules(Host& host) {
   registerCore(host);
   registerConfig(host);
   registerMpls(host);
   registerInputTables(host);
   // Subsystems go here, in construction order.
   registerInput(host);
   registerCoreTables(host);
   registerRunningConfig(host);
   host.start();
}

} // namespace Agent
