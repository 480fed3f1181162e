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
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/SrTePolicyCore.h"

using namespace SrTePolicy;

namespace {

constexpr uint32_t kDistinctLists = 20000;
constexpr uint32_t kLabels = 2000;
constexpr uint32_t kSrlbBase = 100000; // room for a binding SID per key up to 1,000,000 paths

long residentBytes() {
   long pages = 0, resident = 0;
   if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
      std::fclose(f);
   }
   return resident * 4096;
}

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
   return std::chrono::duration<double>(b - a).count();
}

Ipkit::MplsLabelOperation listFromPool(uint32_t j) {
   Ipkit::MplsLabelOperation op;
   op.push(Ipkit::MplsLabel(16000 + (j * 7) % kLabels));
   op.push(Ipkit::MplsLabel(16000 + (j * 13 + 1) % kLabels));
   op.push(Ipkit::MplsLabel(16000 + (j / kLabels + j * 31 + 5) % kLabels));
   return op;
}

PolicyInputEntry makeRecord(uint32_t keyIndex, Protocol protocol) {
   PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + keyIndex / 16), Color(keyIndex % 16 + 1));
   PolicyInputEntry e(PolicyId(key, protocol, Discriminator(1)));
   e.bindingSidIs(Ipkit::MplsLabel(kSrlbBase + keyIndex));
   const uint32_t salt = protocol == Protocol::bgp ? 0 : 7;
   for (uint32_t s = 0; s < 2; ++s) {
      uint32_t j = (keyIndex * 2 + s + salt) % kDistinctLists;
      e.segmentListIs(SegmentListIndex(s), WeightedSegList(Weight(s + 1), listFromPool(j)));
   }
   return e;
}

// Attributes the time between two task runs' ends to the task that just ran: the scheduler runs
// one task after the other, so that is the task's run (and the scheduler's small share).
struct Stopwatch {
   using Clock = std::chrono::steady_clock;
   Clock::time_point last = Clock::now();
   std::map<std::string, double> spent;
   struct Reactor : Kiln::Task::Notifiee {
      Stopwatch* watch = nullptr;
      void onTaskRun() override {
         const auto now = Clock::now();
         watch->spent[notifier()->name()] +=
             std::chrono::duration<double>(now - watch->last).count();
         watch->last = now;
      }
   };
   std::vector<std::unique_ptr<Reactor>> reactors;
   void watch(Kiln::Task* task) {
      auto r = std::make_unique<Reactor>();
      r->watch = this;
      r->notifierIs(task);
      reactors.push_back(std::move(r));
   }
};

} // namespace

int main(int argc, char** argv) {
   const uint32_t paths =
       argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 100000;
   const uint32_t keys = paths / 2;

   std::vector<PolicyInputEntry> records;
   records.reserve(paths);
   for (uint32_t k = 0; k < keys; ++k) {
      records.push_back(makeRecord(k, Protocol::bgp));
      records.push_back(makeRecord(k, Protocol::staticConfig));
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

   Kiln::TaskScheduler scheduler(Kiln::TaskScheduler::ClockMode::real);
   StandaloneRouter router;
   auto bgp = policyInputFactory("bgp");
   auto configured = policyInputFactory("static");
   router.input->policyInputIs(Protocol::bgp, bgp);
   router.input->policyInputIs(Protocol::staticConfig, configured);
   router.mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(kSrlbBase, std::max(65536u, keys)));
   // Every pool label resolves, over 16 two-way ECMP adjacencies.
   for (Mpls::AdjacencyIndex a = 1; a <= 16; ++a) {
      auto via = [a](uint32_t v) {
         return Mpls::Via(Ipkit::IpGenAddr::v4(0x0b000000u + 2 * a + v),
                          Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, 2 * a + v),
                          Ipkit::MplsLabelAction::swap, Ipkit::MplsLabel(17000 + a));
      };
      router.mplsStatus->adjacencyIs(a, {via(0), via(1)});
   }
   for (uint32_t l = 0; l < kLabels; ++l) {
      router.mplsStatus->lfibRouteIs(
          Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(16000 + l)),
                            Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                            Mpls::AdjacencyKey(1 + l % 16, Mpls::AdjacencyType::nexthop)));
   }
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
   for (const auto& [task, spent] : stopwatch.spent) {
      std::printf("  %-24s %.3f s (%.0f%%)\n", task.c_str(), spent, 100 * spent / runSeconds);
   }
   std::printf("floor (copy + map insert)  %.3f s, %.0f paths/s\n", floorSeconds,
               paths / floorSeconds);
   std::printf("ratio to floor             %.1f\n", runSeconds / floorSeconds);
   std::printf("resident memory per path   %.0f bytes (input tables excluded)\n",
               static_cast<double>(after - before) / paths);
   return 0;
}
