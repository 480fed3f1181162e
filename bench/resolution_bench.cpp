// Incremental benchmark of segment and segment-list resolution.
//
// N canonical segment lists of 3 labels; first labels come from a pool of 1,000 LFIB routes, one
// of which (the flapped label) is the first label of exactly K = 100 lists. Measures:
//  - cold resolution: the lists exist, the two machines start and the loop runs until idle;
//  - resident bytes per list (the lists and reverse map included, then resolution state alone);
//  - a flap of the flapped label's route: remove, run until idle, add, run until idle;
//  - a via change of the adjacency behind it (one ECMP member lost, then back).
// The flap and the via change must cost O(K), not O(N): compare their times at two values of N.
//
//   resolution_bench [N] [repeats]     default 10000 lists, 50 repeats
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/BenchEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Bench;

namespace {

constexpr uint32_t kPool = 1000;
constexpr uint32_t kUsersOfFlapped = 100;
constexpr uint32_t kFirstLabel = 16000; // pool: 16000..16999; 16000 is the flapped one
constexpr Mpls::AdjacencyIndex kFlappedAdjacency = 5000;

Mpls::Via via(uint32_t hop, uint32_t intf, uint32_t label) {
   return Mpls::Via(Ipkit::IpGenAddr::v4(0x0a000000u + hop),
                    Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, intf),
                    Ipkit::MplsLabelAction::swap, Ipkit::MplsLabel(label));
}

// List j: the flapped label first for j < K, another pool label otherwise; the two other labels
// make every list distinct.
Ipkit::MplsLabelOperation listLabels(uint32_t j) {
   const uint32_t first = j < kUsersOfFlapped ? kFirstLabel : kFirstLabel + 1 + (j % (kPool - 1));
   Ipkit::MplsLabelOperation op;
   op.push(Ipkit::MplsLabel(first));
   op.push(Ipkit::MplsLabel(200000 + j / 1000));
   op.push(Ipkit::MplsLabel(300000 + j % 1000));
   return op;
}

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
   const uint32_t n = argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 10000;
   const uint32_t repeats =
       argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 50;
   if (n < kUsersOfFlapped * 2) {
      std::fprintf(stderr, "N must be at least %u\n", kUsersOfFlapped * 2);
      return 1;
   }

   auto scheduler = Mox::make<Kiln::TaskScheduler>(Kiln::TaskScheduler::ClockMode::real);
   StandaloneRouter router;
   const Mox::Ptr<Mpls::Status>& mpls = router.mplsStatus;
   // Resolution alone: the two machines and nothing reacting after them.
   PolicyCore core(router.tables(*scheduler), {}, Stage::segmentListResolution);
   const Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable>& tunnels =
       core.published().tunnelTable;
   // The entities the lists live in, without the machines yet.
   core.prepare();
   CoreDedupTables& dedup = *core.entities().coreDedupTables;
   SegmentIdToSegmentList& segmentMap = *core.entities().segmentMap;

   // 16 shared ECMP adjacencies for the pool, one of its own for the flapped label.
   for (Mpls::AdjacencyIndex a = 1; a <= 16; ++a) {
      mpls->adjacencyIs(a, {via(2 * a, a, 17000 + a), via(2 * a + 1, a + 100, 17000 + a)});
   }
   const Mpls::ViaSet flappedVias{via(900, 900, 16000), via(901, 901, 16000)};
   mpls->adjacencyIs(kFlappedAdjacency, flappedVias);
   mpls->lfibRouteIs(lfibRoute(kFirstLabel, kFlappedAdjacency));
   for (uint32_t l = 1; l < kPool; ++l) mpls->lfibRouteIs(lfibRoute(kFirstLabel + l, 1 + l % 16));

   const long r0 = residentBytes();
   std::vector<Mox::Ptr<SegmentList>> lists;
   lists.reserve(n);
   for (uint32_t j = 0; j < n; ++j) {
      Mox::Ptr<SegmentList> list = dedup.dedupSegmentList(listLabels(j));
      segmentMap.segmentListPtrIs(list);
      lists.push_back(std::move(list));
   }
   const long r1 = residentBytes();

   // Cold: both machines start over N existing lists.
   auto c0 = Clock::now();
   core.start();
   const size_t coldRuns = scheduler->runUntilIdle();
   auto c1 = Clock::now();
   const long r2 = residentBytes();
   if (tunnels->entry().size() != n) {
      std::fprintf(stderr, "expected %u tunnel entries, got %zu\n", n, tunnels->entry().size());
      return 1;
   }

   // Flap: remove the route, run until idle, add it back, run until idle.
   std::vector<double> flaps, viaChanges;
   const Mpls::ViaSet oneVia{via(900, 900, 16000)};
   for (uint32_t r = 0; r < repeats; ++r) {
      auto f0 = Clock::now();
      mpls->lfibRouteDel(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(kFirstLabel)));
      scheduler->runUntilIdle();
      const size_t during = tunnels->entry().size();
      mpls->lfibRouteIs(lfibRoute(kFirstLabel, kFlappedAdjacency));
      scheduler->runUntilIdle();
      auto f1 = Clock::now();
      if (during != n - kUsersOfFlapped || tunnels->entry().size() != n) {
         std::fprintf(stderr, "flap did not withdraw and restore %u lists\n", kUsersOfFlapped);
         return 1;
      }
      flaps.push_back(seconds(f0, f1));

      auto v0 = Clock::now();
      mpls->adjacencyIs(kFlappedAdjacency, oneVia);
      scheduler->runUntilIdle();
      const size_t viasDuring = tunnels->entry(lists[0]->segmentListId().getTunnelId())->viaCount();
      mpls->adjacencyIs(kFlappedAdjacency, flappedVias);
      scheduler->runUntilIdle();
      auto v1 = Clock::now();
      if (viasDuring != 1) {
         std::fprintf(stderr, "via change did not reach the tunnel table\n");
         return 1;
      }
      viaChanges.push_back(seconds(v0, v1) / 2);
   }

   const double cold = seconds(c0, c1);
   std::printf("segment lists N            %u (3 labels; %u first labels; %zu segments)\n", n,
               kPool, dedup.notifyingSegmentCollection()->segmentNotifier().size());
   std::printf("cold resolution            %.3f s, %.0f lists/s (%zu task runs)\n", cold, n / cold,
               coldRuns);
   std::printf("resident bytes per list    %.0f (lists, dedup, reverse map, resolution)\n",
               static_cast<double>(r2 - r0) / n);
   std::printf("  of which resolution      %.0f (statuses, tunnel entries, machine state)\n",
               static_cast<double>(r2 - r1) / n);
   std::printf("flap of a label, K=%u     median %.1f us (remove+run, add+run; %u repeats)\n",
               kUsersOfFlapped, median(flaps) * 1e6, repeats);
   std::printf("adjacency via change, K=%u median %.1f us per change\n", kUsersOfFlapped,
               median(viaChanges) * 1e6);
   // The lists go before the entities they live in.
   lists.clear();
   core.stop();
   return 0;
}
