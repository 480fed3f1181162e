// What the scale benchmarks share: clocks and resident memory, the generated workload (policy
// keys, segment lists drawn from a pool over a label pool, a binding SID per key), an LFIB that
// resolves every pool label, the floor measured on the input tables, and a stopwatch per task.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/SrTePolicyMachines.h"

namespace SrTePolicy::Bench {

constexpr uint32_t kSrlbBase = 100000; // above the segment labels, room for 900,000 binding SIDs
constexpr uint32_t kLabelBase = 16000;
constexpr Mpls::AdjacencyIndex kAdjacencies = 16;

using Clock = std::chrono::steady_clock;

// Whether a word is among the program's arguments after the first (the path count).
inline bool hasArgument(int argc, char** argv, std::string_view word) {
   for (int i = 2; i < argc; ++i) {
      if (word == argv[i]) return true;
   }
   return false;
}

inline double seconds(Clock::time_point a, Clock::time_point b) {
   return std::chrono::duration<double>(b - a).count();
}

// CPU seconds of this process: on a machine shared with others, the measure that their load does
// not inflate (the core runs on one thread).
inline double cpuSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

inline long residentBytes() {
   long pages = 0, resident = 0;
   if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
      std::fclose(f);
   }
   return resident * 4096;
}

// Profiles one phase: with SRTE_PERF_CTL naming the control fifo of
// `perf record -D -1 --control=fifo:<fifo>`, `perfControl("enable")` and `perfControl("disable")`
// bracket what is to be sampled. Without it, nothing happens.
inline void perfControl(const char* command) {
   static const char* fifo = std::getenv("SRTE_PERF_CTL");
   if (!fifo) return;
   if (FILE* f = std::fopen(fifo, "w")) {
      std::fprintf(f, "%s\n", command);
      std::fclose(f);
   }
}

// The high-water mark of resident memory (VmHWM), in bytes.
inline long peakResidentBytes() {
   long kib = 0;
   if (FILE* f = std::fopen("/proc/self/status", "r")) {
      char line[256];
      while (std::fgets(line, sizeof line, f)) {
         if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1) break;
      }
      std::fclose(f);
   }
   return kib * 1024;
}

// What this machine's memory costs, to read the figures beside it: the core's time per path at a
// million paths is mostly dependent reads that miss the caches, and its resident memory is first
// touched during the run. Both vary by machine (and by the day, on a shared VM) far more than the
// core's own work does.
struct MachineMemory {
   double cachedReadNs = 0; // a dependent read at a random place of a block the caches hold
   double memoryReadNs = 0; // the same in a block far larger than the caches
   double freshGBps = 0;    // never-touched memory made usable (the kernel provides and zeroes it)
};

// One dependent read after the other, every cache line of the block once in a random order.
inline double dependentReadNs(size_t bytes) {
   const size_t lines = bytes / 64;
   auto* memory = static_cast<uint64_t*>(Mox::bulkAllocate(bytes, 64));
   std::vector<uint32_t> order(lines);
   std::iota(order.begin(), order.end(), 0u);
   std::shuffle(order.begin(), order.end(), std::mt19937_64(1));
   for (size_t i = 0; i < lines; ++i) memory[size_t{order[i]} * 8] = order[(i + 1) % lines] * 8ull;
   constexpr size_t reads = 2'000'000;
   uint64_t at = order[0] * 8ull;
   const auto t0 = Clock::now();
   for (size_t i = 0; i < reads; ++i) at = memory[at];
   const double ns = seconds(t0, Clock::now()) * 1e9 / reads;
   Mox::bulkFree(memory, bytes, 64);
   return at == ~0ull ? -1 : ns; // `at` is used, so the chain is not optimised away
}

// Measured after the core's run: the pages it touches here are free for the kernel to hand out
// again, and a core measured after it would get them cheaply. Fresh memory is cheap too where the
// kernel still has pages that another process just gave back: the figure says what it cost now.
inline MachineMemory machineMemory() {
   MachineMemory m;
   // First, before the reads below free blocks that the kernel could hand back to it at once.
   const size_t bytes = size_t{256} << 20;
   auto* fresh = static_cast<unsigned char*>(Mox::bulkAllocate(bytes, 64));
   const auto t0 = Clock::now();
   for (size_t i = 0; i < bytes; i += 4096) fresh[i] = 1;
   m.freshGBps = static_cast<double>(bytes) / 1e9 / seconds(t0, Clock::now());
   Mox::bulkFree(fresh, bytes, 64);
   m.cachedReadNs = dependentReadNs(size_t{4} << 20);
   m.memoryReadNs = dependentReadNs(size_t{1} << 30);
   return m;
}

inline void printMachineMemory() {
   const MachineMemory m = machineMemory();
   std::printf("this machine's memory      random read %.0f ns in cache, %.0f ns beyond; "
               "fresh memory %.2f GB/s\n",
               m.cachedReadNs, m.memoryReadNs, m.freshGBps);
}

// The router the scale benches drive: a real-time scheduler, the bgp and static input tables and an
// SRLB of `srlbSize` labels from kSrlbBase.
struct BenchRouter {
   Kiln::TaskScheduler scheduler{Kiln::TaskScheduler::ClockMode::real};
   StandaloneRouter router;
   Mox::Ptr<PolicyInput> bgp = policyInputFactory("bgp");
   Mox::Ptr<PolicyInput> configured = policyInputFactory("static");

   explicit BenchRouter(uint32_t srlbSize) {
      router.input->policyInputIs(Protocol::bgp, bgp);
      router.input->policyInputIs(Protocol::staticConfig, configured);
      router.mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(kSrlbBase, srlbSize));
   }
};

// The segment lists the records draw from, over a pool of labels. Ordered, key k takes lists
// 2k and 2k+1 of the pool (and its static path two lists further), so neighbouring keys share
// neighbouring lists; scattered, every path draws its lists at random, as paths from many
// head-ends would.
struct Pools {
   uint32_t lists;
   uint32_t labels;
   bool scattered = false;
};

inline uint64_t mix64(uint64_t x) {
   x ^= x >> 33;
   x *= 0xff51afd7ed558ccdull;
   x ^= x >> 33;
   x *= 0xc4ceb9fe1a85ec53ull;
   return x ^ (x >> 33);
}

// The order the protocols write the keys in: ascending, or (scattered) a fixed shuffle, so that
// neither the input tables' memory nor the lists' first uses follow the key order.
inline std::vector<uint32_t> writeOrder(uint32_t keys, bool scattered) {
   std::vector<uint32_t> order(keys);
   for (uint32_t k = 0; k < keys; ++k) order[k] = k;
   if (scattered) {
      for (uint32_t i = keys; i > 1; --i) {
         std::swap(order[i - 1], order[mix64(i) % i]);
      }
   }
   return order;
}

// List j of the pool: three labels of the label pool.
inline Ipkit::MplsLabelOperation listFromPool(const Pools& pools, uint32_t j) {
   const uint64_t l = pools.labels;
   Ipkit::MplsLabelOperation op;
   op.push(Ipkit::MplsLabel(kLabelBase + (uint64_t(j) * 7) % l));
   op.push(Ipkit::MplsLabel(kLabelBase + (uint64_t(j) * 13 + 1) % l));
   op.push(Ipkit::MplsLabel(kLabelBase + (uint64_t(j) / l + uint64_t(j) * 31 + 5) % l));
   return op;
}

// The workload of a scale bench from its arguments: `[paths] [scattered]` (paths default 100000),
// N/2 keys, N/5 lists over N/50 labels. Null (and the reason on stderr) when the paths do not fit
// the SRLB above kSrlbBase.
struct ScaleArgs {
   uint32_t paths = 100000;
   uint32_t keys = 50000;
   bool scattered = false;
   Pools pools{};
};

inline std::optional<ScaleArgs> scaleArgs(int argc, char** argv) {
   ScaleArgs a;
   if (argc > 1) a.paths = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
   a.keys = a.paths / 2;
   a.scattered = hasArgument(argc, argv, "scattered");
   a.pools = Pools{std::max(1u, a.paths / 5), std::max(1u, a.paths / 50), a.scattered};
   if (a.keys == 0 || kSrlbBase + a.keys > Ipkit::MplsLabel::maxLabel) {
      std::fprintf(stderr, "paths must be between 2 and %u\n",
                   2 * (Ipkit::MplsLabel::maxLabel - kSrlbBase));
      return std::nullopt;
   }
   return a;
}

// The candidate path of key `keyIndex` for `protocol`: its own binding SID, two weighted lists.
inline PolicyInputEntry makeRecord(const Pools& pools, uint32_t keyIndex, Protocol protocol) {
   PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + keyIndex / 16), Color(keyIndex % 16 + 1));
   PolicyInputEntry e(PolicyId(key, protocol, Discriminator(1)));
   e.bindingSidIs(Ipkit::MplsLabel(kSrlbBase + keyIndex));
   const uint32_t salt = protocol == Protocol::bgp ? 0 : 7;
   for (uint32_t s = 0; s < 2; ++s) {
      const uint64_t draw = uint64_t(keyIndex) * 2 + s + salt;
      const uint32_t j =
          static_cast<uint32_t>((pools.scattered ? mix64(draw) : draw) % pools.lists);
      e.segmentListIs(SegmentListIndex(s), WeightedSegList(Weight(s + 1), listFromPool(pools, j)));
   }
   return e;
}

inline Mpls::LFib::Route lfibRoute(uint32_t label, Mpls::AdjacencyIndex index) {
   return Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label)),
                            Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                            Mpls::AdjacencyKey(index, Mpls::AdjacencyType::nexthop));
}

// Every pool label resolves: one LFIB route per label over 16 two-way ECMP adjacencies.
inline void resolveEveryLabel(Mpls::Status& mpls, uint32_t labels) {
   for (Mpls::AdjacencyIndex a = 1; a <= kAdjacencies; ++a) {
      auto via = [a](uint32_t v) {
         return Mpls::Via(Ipkit::IpGenAddr::v4(0x0b000000u + 2 * a + v),
                          Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, 2 * a + v),
                          Ipkit::MplsLabelAction::swap, Ipkit::MplsLabel(17000 + a));
      };
      mpls.adjacencyIs(a, {via(0), via(1)});
   }
   for (uint32_t l = 0; l < labels; ++l) {
      mpls.lfibRouteIs(lfibRoute(kLabelBase + l, 1 + l % kAdjacencies));
   }
}

// The floor, on the records where the input stage finds them: for each record, copy it out of
// its input table and insert its PolicyId into a std::unordered_map reserved for `paths`.
// Returns its time in seconds (its CPU time in `cpu` when given), or a negative time when the map
// did not get every record.
inline double floorSeconds(std::initializer_list<const PolicyInput*> tables, size_t paths,
                           double* cpu = nullptr) {
   const double c0 = cpuSeconds();
   const auto f0 = Clock::now();
   size_t inserted = 0;
   {
      std::unordered_map<PolicyId, uint32_t, Mox::Hash<PolicyId>> floor;
      floor.reserve(paths);
      uint32_t n = 0;
      for (const auto* table : tables) {
         for (const PolicyInputEntry& r : table->policyInputEntry()) {
            const PolicyInputEntry copy = r;
            floor.emplace(copy.key(), n++);
         }
      }
      inserted = floor.size();
   } // the map's release counts, as it would for any table
   const auto f1 = Clock::now();
   if (cpu) *cpu = cpuSeconds() - c0;
   return inserted == paths ? seconds(f0, f1) : -1;
}

// Attributes the time between two task runs' ends to the task that just ran: the scheduler runs
// one task after the other, so that is the task's run (and the scheduler's small share). Set
// `last` when the measured loop starts.
struct Stopwatch {
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
      if (!task) return;
      auto r = std::make_unique<Reactor>();
      r->watch = this;
      r->notifierIs(task);
      reactors.push_back(std::move(r));
   }
   // Every machine of the core that runs a task.
   void watch(const PolicyCore& core) {
      auto watchMachine = [this](const auto& machine) {
         if (machine) watch(machine->task()); // left out of a core built up to an earlier stage
      };
      watchMachine(core.policyInputSm());
      watchMachine(core.segmentListSm());
      watchMachine(core.policySelectionSm());
      watchMachine(core.policyPublishSm());
      watchMachine(core.tunnelMapExportSm());
   }
   void clear() {
      reactors.clear();
      spent.clear();
   }
   void print(double total) const {
      for (const auto& [task, s] : spent) {
         std::printf("  %-26s %.3f s (%.0f%%)\n", task.c_str(), s, 100 * s / total);
      }
   }
};

} // namespace SrTePolicy::Bench
