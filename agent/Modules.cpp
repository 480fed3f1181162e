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
   registerResolution(host);
   registerCoreTables(host);
   host.start();
}

} // namespace Agent
