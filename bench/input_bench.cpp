// Scale benchmark of the input stage alone (the core built up to it): N candidate paths written
// into the input tables, then the event loop run until idle. N/2 policy keys x protocols 20 and 30,
// each path with 2 segment lists drawn from N/5 distinct lists over N/50 labels, each key with its
// own binding SID inside an SRLB sized to N.
//
// Printed, each measured in this run:
//  - filling the input tables (timed apart: it is the protocols' work, not ours);
//  - convergence: the input stage from the first task run until idle, per path;
//  - the floor: for each record, copy it out of its input table and insert its PolicyId into a
//    std::unordered_map<PolicyId, uint32_t> reserved for N;
//  - allocations and live bytes per path during convergence: the heap's (a replaced global operator
//    new counts them) and the large-page blocks the core maps itself (platform/MoxBulk.h); and
//    resident memory per path beyond the input tables;
//  - a requeue of every record by an SRLB change that leaves every binding SID inside;
//  - last, what this machine's memory costs (BenchEnv.h: machineMemory).
//
//   input_bench [paths] [scattered]     default 100000; `scattered`: keys written in a shuffled
//                                       order, each path's lists drawn at random
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "bench/BenchEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Bench;

// ---------------------------------------------------------------------------------------------
// Allocation counting: every allocation of the process, the core library's included, comes here.

namespace {
size_t gAllocations = 0;
long gLiveBytes = 0;

void* countedAlloc(size_t n, size_t align) {
   void* p = align > alignof(std::max_align_t)
                 ? std::aligned_alloc(align, (n + align - 1) / align * align)
                 : std::malloc(n ? n : 1);
   if (!p) throw std::bad_alloc();
   ++gAllocations;
   gLiveBytes += static_cast<long>(malloc_usable_size(p));
   return p;
}
void countedFree(void* p) noexcept {
   if (!p) return;
   gLiveBytes -= static_cast<long>(malloc_usable_size(p));
   std::free(p);
}
} // namespace

void* operator new(size_t n) { return countedAlloc(n, 0); }
void* operator new[](size_t n) { return countedAlloc(n, 0); }
void* operator new(size_t n, std::align_val_t a) { return countedAlloc(n, static_cast<size_t>(a)); }
void* operator new[](size_t n, std::align_val_t a) {
   return countedAlloc(n, static_cast<size_t>(a));
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
   try {
      return countedAlloc(n, 0);
   } catch (...) {
      return nullptr;
   }
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
   try {
      return countedAlloc(n, 0);
   } catch (...) {
      return nullptr;
   }
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, size_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t) noexcept { countedFree(p); }
void operator delete(void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { countedFree(p); }

int main(int argc, char** argv) {
   const std::optional<ScaleArgs> args = scaleArgs(argc, argv);
   if (!args) return 2;
   const auto& [paths, keys, scattered, pools] = *args;

   BenchRouter bench(keys);
   Kiln::TaskScheduler& scheduler = bench.scheduler;
   StandaloneRouter& router = bench.router;
   const Mox::Ptr<PolicyInput>& bgp = bench.bgp;
   const Mox::Ptr<PolicyInput>& configured = bench.configured;
   // The input stage alone: the machines before it in place, none of those after it reacting.
   PolicyCore core(router.tables(scheduler), {}, Stage::input);
   core.start();
   const auto& selection = core.published().policySelectionInput;

   // Filling the input tables: the protocols' work, timed apart.
   auto w0 = std::chrono::steady_clock::now();
   for (uint32_t k : writeOrder(keys, scattered)) {
      bgp->policyInputEntryIs(makeRecord(pools, k, Protocol::bgp));
      configured->policyInputEntryIs(makeRecord(pools, k, Protocol::staticConfig));
   }
   auto w1 = std::chrono::steady_clock::now();

   // Floor, in the same run: copy each record out of its table, insert its id into a map.
   const double floorSeconds = Bench::floorSeconds({bgp.get(), configured.get()}, paths);
   if (floorSeconds < 0) std::fprintf(stderr, "floor lost records\n");

   malloc_trim(0);
   const long residentBefore = residentBytes();
   // The core maps its largest blocks itself: they count as allocations and live bytes too.
   auto allocationCount = [] { return gAllocations + Mox::bulkMappedBlocks(); };
   auto liveCount = [] { return gLiveBytes + static_cast<long>(Mox::bulkMappedBytes()); };
   const long liveBefore = liveCount();
   const size_t allocationsBefore = allocationCount();
   auto t0 = std::chrono::steady_clock::now();
   size_t runs = scheduler.runUntilIdle();
   auto t1 = std::chrono::steady_clock::now();
   const size_t allocations = allocationCount() - allocationsBefore;
   const long liveBytes = liveCount() - liveBefore;
   malloc_trim(0);
   const long residentAfter = residentBytes();
   const double runSeconds = seconds(t0, t1);

   if (selection->policyIdEntry().size() != paths) {
      std::fprintf(stderr, "expected %u selection entries, got %zu\n", paths,
                   selection->policyIdEntry().size());
      return 1;
   }

   // Requeue: an SRLB change that leaves every binding SID inside requeues every record.
   const size_t requeueAllocationsBefore = allocationCount();
   auto r0 = std::chrono::steady_clock::now();
   router.mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(kSrlbBase, keys + 1));
   scheduler.runUntilIdle();
   auto r1 = std::chrono::steady_clock::now();
   const size_t requeueAllocations = allocationCount() - requeueAllocationsBefore;

   std::printf("candidate paths            %u (%u keys x 2 protocols, %s)\n", paths, keys,
               scattered ? "scattered" : "ordered");
   std::printf("distinct segment lists     %zu\n",
               core.entities().segListMap->segmentListUser().size());
   std::printf("task runs                  %zu\n", runs);
   std::printf("filling the input tables   %.3f s\n", seconds(w0, w1));
   std::printf("input stage                %.3f s, %.2f us/path\n", runSeconds,
               runSeconds * 1e6 / paths);
   std::printf("floor (copy + map insert)  %.3f s, %.2f us/path\n", floorSeconds,
               floorSeconds * 1e6 / paths);
   std::printf("ratio to floor             %.1f\n", runSeconds / floorSeconds);
   std::printf("allocations per path       %.2f\n", static_cast<double>(allocations) / paths);
   std::printf("live bytes per path        %.0f\n", static_cast<double>(liveBytes) / paths);
   std::printf("resident bytes per path    %.0f (input tables excluded)\n",
               static_cast<double>(residentAfter - residentBefore) / paths);
   std::printf("requeue by SRLB change     %.3f s, %.2f us/path, %.2f allocations/path\n",
               seconds(r0, r1), seconds(r0, r1) * 1e6 / paths,
               static_cast<double>(requeueAllocations) / paths);
   printMachineMemory();
   return 0;
}
