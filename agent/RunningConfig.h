// `show running-config` and `write FILE`: the current inputs as a script.
//
// The script holds everything other processes and the platform gave the core: configuration
// flags, static policies, the color-to-DSCP map, label ranges, LFIB routes, adjacencies and their
// extensions, the platform's label depth, tunnel counters, attribute-log congestion, and the input
// tables with every record. Run in a fresh srte, it rebuilds the same inputs (what the core
// computed from them follows at the next `run`). Virtual time and tracing are not inputs.
#pragma once

#include <string>

#include "types/SrTePolicyInput.h"

namespace Agent {

class Host;

std::string runningConfig(Host& host);

// One input record as the command that writes it, every field, so that the line replaces a record
// whole; and the command that deletes it (no newline). What a feeder or a BGP speaker delivers is
// replayed through them into an in-process srte.
std::string inputLine(const SrTePolicy::PolicyInputEntry& e);
std::string noInputLine(const SrTePolicy::PolicyId& id);

} // namespace Agent
