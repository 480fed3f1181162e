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

// Candidate path number `n` of `protocol`. Seed 0: eight colors per endpoint, two segment lists
// of three labels, a binding SID; distinct numbers give distinct keys. Another seed: a record
// drawn from the seed and `n` alone (so any range of numbers can be written or erased later),
// three candidates per policy key (numbers 3k to 3k+2) with random preference and originator,
// zero to three segment lists of one to four labels from 16000 to 16399 with random weights, and
// the key's binding SID 100000 + k, or 99 in one record of sixteen. Distinct numbers give
// distinct ids (the discriminator is the number).
SrTePolicy::PolicyInputEntry feedRecord(SrTePolicy::Protocol protocol, uint32_t n,
                                        uint64_t seed = 0);

struct FeedOptions {
   std::string router;
   SrTePolicy::Protocol protocol = SrTePolicy::Protocol::bgp;
   uint32_t paths = 0;
   uint32_t first = 0; // number of the first path written
   bool erase = false; // erase those paths instead of writing them
   uint64_t seed = 0;  // the kind of records: see feedRecord
   bool print = false; // also print each change as the scenario line that makes it
};

// Writes (or erases) the paths in bursts; the table is made, large enough, when absent. With
// `print`, each change also goes to `out` as a line of the scenario language (`input ...`,
// `no input ...`), so that an in-process srte can be given the same inputs. Returns the exit
// status; errors (another writer, a full or corrupt table) are told on `err`.
int feed(const FeedOptions& options, std::ostream& out, std::ostream& err);

} // namespace Agent
