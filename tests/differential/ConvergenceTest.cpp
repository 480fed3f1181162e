// Convergence: random event sequences (order, batching, one-unit slices, congestion, partial
// runs, restarts) leave every output table as a fresh agent computes it from the final inputs.
#include <gtest/gtest.h>

#include "tools/Converge.h"

namespace {

TEST(Convergence, RandomSequencesEndWhereAFreshAgentStarts) {
   for (uint64_t seed = 1; seed <= 300; ++seed) {
      const auto o = Converge::check(Converge::generate(seed));
      if (!o.divergence) continue;
      const auto small = Converge::shrink(o.accepted, o.divergence->table);
      ADD_FAILURE() << "seed " << seed << " diverges in " << o.divergence->table << ": "
                    << o.divergence->row << "\n"
                    << Converge::script(small, "shrunk from seed " + std::to_string(seed));
      return;
   }
}

} // namespace
