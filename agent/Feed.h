// The feeder: writes candidate paths into a router's shared input table as its writer process,
// for tests, benchmarks and demonstrations of the agent (`srte feed`).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "types/SrTePolicyInput.h"

namespace Agent {

// The shared input table of `protocol`: "policyInput-bgp", "policyInput-static".
std::string inputTableName(SrTePolicy::Protocol protocol);

// Candidate path number `n` of `protocol`: eight colors per endpoint, two segment lists of three
// labels, a binding SID. Distinct numbers give distinct keys.
SrTePolicy::PolicyInputEntry feedRecord(SrTePolicy::Protocol protocol, uint32_t n);

struct FeedOptions {
   std::string router;
   SrTePolicy::Protocol protocol = SrTePolicy::Protocol::bgp;
   uint32_t paths = 0;
   uint32_t first = 0; // number of the first path written
   bool erase = false; // erase those paths instead of writing them
};

// Writes (or erases) the paths in bursts; the table is made, large enough, when absent. Returns
// the exit status; errors (another writer, a full or corrupt table) are told on `err`.
int feed(const FeedOptions& options, std::ostream& err);

} // namespace Agent
