// The list of subsystems the host is made of. Each one registers its verbs and tables (see
// agent/Host.h); agent/Modules.cpp calls them in order, and that order is the order of
// `help` and `show all`.
#pragma once

namespace Agent {

class Host;

void registerCore(Host& host);
void registerCoreTables(Host& host);
void registerRunningConfig(Host& host);
void registerConfig(Host& host);
void registerInput(Host& host);
void registerInputTables(Host& host);
void registerMpls(Host& host);
void registerPublish(Host& host);
void registerResolution(Host& host);
void registerSelection(Host& host);
void registerLfib(Host& host);
void registerTunnelMap(Host& host);
void registerRestart(Host& host);
void registerBgp(Host& host);

// Registers every subsystem, in the order of `help` and `show all`.
void registerSubsystems(Host& host);
// Registers every subsystem, then starts the host (its stages, then the core).
void registerModules(Host& host);

} // namespace Agent
