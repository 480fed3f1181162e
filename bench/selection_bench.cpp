// Scale benchmark of the core from input records to a converged EcPolicy: N candidate paths (two
// per policy key, two segment lists each, every label with an LFIB route) written into the input
// tables, then the event loop run until idle: input gathering, segment and segment-list
// resolution, selection. Prints candidate paths per second, resident memory per candidate path
// (the input tables excluded), the share of each task's runs, and, measured in the same run, a
// floor: copying every input record and inserting its PolicyId into a std::unordered_map.
// Resolution of a new list happens as the input stage creates it, so it counts in InputSmTask; a
// task that never runs is not listed.
//
//   selection_bench [paths]    default 100000 (50000 policy keys x protocols 20 and 30)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <vector>

#include "bench/BenchEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Bench;

namespace {
// A fixed pool, whatever the number of paths.
constexpr Bench::Pools kPools{20000, 2000};
} // namespace

int main(int argc, char** argv) {
   const uint32_t paths =
       argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 100000;
   const uint32_t keys = paths / 2;

   std::vector<PolicyInputEntry> records;
   records.reserve(paths);
   for (uint32_t k = 0; k < keys; ++k) {
      records.push_back(makeRecord(kPools, k, Protocol::bgp));
      records.push_back(makeRecord(kPools, k, Protocol::staticConfig));
   }

   // Floor: copy each record and insert its id into a plain hash map.
   auto f0 = std::chrono::steady_clock::now();
   {
      std::unordered_map<PolicyId, PolicyInputEntry, Mox::Hash<PolicyId>> floor;
      floor.reserve(paths);
      for (const auto& r : records) floor.emplace(r.key(), r);
      if (floor.size() != paths) std::fprintf(stderr, "floor lost records\n");
   }
   auto f1 = std::chrono::steady_clock::now();
   const double floorSeconds = seconds(f0, f1);

   BenchRouter bench(std::max(65536u, keys));
   Kiln::TaskScheduler& scheduler = bench.scheduler;
   StandaloneRouter& router = bench.router;
   const Mox::Ptr<PolicyInput>& bgp = bench.bgp;
   const Mox::Ptr<PolicyInput>& configured = bench.configured;
   resolveEveryLabel(*router.mplsStatus, kPools.labels);
   PolicyCore core(router.tables(scheduler));
   core.start();
   const auto& selection = core.published().policySelectionInput;
   const auto& ecPolicy = core.published().ecPolicy;
   Stopwatch stopwatch;
   stopwatch.watch(core.policyInputSm()->task());
   stopwatch.watch(core.segmentListSm()->task());
   stopwatch.watch(core.policySelectionSm()->task());

   for (const auto& r : records) {
      (r.key().protocol == Protocol::bgp ? bgp : configured)->policyInputEntryIs(r);
   }
   records.clear();
   records.shrink_to_fit();
   const long before = residentBytes();

   auto t0 = std::chrono::steady_clock::now();
   stopwatch.last = t0;
   size_t runs = scheduler.runUntilIdle();
   auto t1 = std::chrono::steady_clock::now();
   const long after = residentBytes();
   const double runSeconds = seconds(t0, t1);

   if (selection->policyIdEntry().size() != paths) {
      std::fprintf(stderr, "expected %u selection entries, got %zu\n", paths,
                   selection->policyIdEntry().size());
      return 1;
   }
   size_t candidates = 0, active = 0;
   for (const auto& [key, policy] : ecPolicy->policy()) {
      candidates += policy->candidate().size();
      active += policy->active() && policy->active()->wTunnelId().size() == 2;
   }
   if (ecPolicy->policy().size() != keys || candidates != paths || active != keys) {
      std::fprintf(stderr, "EcPolicy not converged: %zu policies, %zu candidates, %zu active\n",
                   ecPolicy->policy().size(), candidates, active);
      return 1;
   }
   std::printf("candidate paths            %u (%u keys x 2 protocols)\n", paths, keys);
   std::printf("distinct segment lists     %zu\n",
               core.entities().segListMap->segmentListUser().size());
   std::printf("task runs                  %zu\n", runs);
   std::printf("input to converged EcPolicy %.3f s, %.0f paths/s\n", runSeconds,
               paths / runSeconds);
   stopwatch.print(runSeconds);
   std::printf("floor (copy + map insert)  %.3f s, %.0f paths/s\n", floorSeconds,
               paths / floorSeconds);
   std::printf("ratio to floor             %.1f\n", runSeconds / floorSeconds);
   std::printf("resident memory per path   %.0f bytes (input tables excluded)\n",
               static_cast<double>(after - before) / paths);
   return 0;
}
