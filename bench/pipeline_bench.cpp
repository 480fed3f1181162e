// End-to-end scale benchmark of the whole core: N candidate paths written into the input tables,
// then the event loop run until every machine is idle, from input records to a converged policy
// status, binding-SID LFIB and tunnel map. N/2 policy keys x protocols 20 and 30, each path with
// 2 segment lists drawn from N/5 distinct lists over N/50 labels, every label with an LFIB route
// over an adjacency, every key its own binding SID inside an SRLB of one label per key.
//
// Printed, each measured in this run:
//  - filling the input tables (timed apart: it is the protocols' work, not ours);
//  - convergence: from the first task run until idle, paths per second, and the share of each
//    task's runs (a machine that reacts synchronously counts in the task that changed its input:
//    segment resolution in the input stage's, binding-SID LFIB generation in publishing's);
//  - the floor: for each record, copy it out of its input table and insert its PolicyId into a
//    std::unordered_map<PolicyId, uint32_t> reserved for N; and the ratio to it;
//  - resident memory per path beyond the input tables, now and at its peak;
//  - a restart of the core over its published tables, run until idle: its time and its churn, the
//    changes every output table notified, counted by reactors watching them (and the entries
//    inside them) from the converged state on;
//  - last, what this machine's memory costs (BenchEnv.h: machineMemory).
//
//   pipeline_bench [paths] [cold] [scattered] [profile-restart]
//      default 100000; `cold` stops at convergence (for profiles); `scattered` writes the keys in
//      a shuffled order and draws each path's lists at random; with SRTE_PERF_CTL set (see
//      perfControl) perf samples the cold convergence, or with `profile-restart` the restart only
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/BenchEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Bench;

namespace {

// Changes seen per output table.
struct Churn {
   std::map<std::string, size_t> changes;
   size_t total() const {
      size_t n = 0;
      for (const auto& [table, c] : changes) n += c;
      return n;
   }
};

// One reactor per watched entity; each handler counts one change against its table.
template <class N>
struct Counter : N {
   size_t* count = nullptr;
   void hit() const { ++*count; }
};

struct PolicyStatusCounter : Counter<PolicyStatus::Notifiee> {
   void onStatus(const PolicyKey&) override { hit(); }
   void onFecIdToPolicyKey(const Vault::Fib::FecId&) override { hit(); }
};
struct PolicyStatusEntryCounter : Counter<PolicyStatusEntry::Notifiee> {
   void onCandidateId() override { hit(); }
   void onOriginator() override { hit(); }
   void onLastModified() override { hit(); }
   void onBindingSid() override { hit(); }
};
struct FecCounter : Counter<Vault::Fib::ForwardingStatus::Notifiee> {
   void onFec(const Vault::Fib::FecId&) override { hit(); }
};
struct LfibStatusCounter : Counter<SrTePolicyLfibStatus::Notifiee> {
   void onLfib() override { hit(); }
};
struct LfibRouteCounter : Counter<Mpls::ProtocolLfib::Notifiee> {
   void onLfibRoute(const Mpls::RouteKeyAndMetric&) override { hit(); }
};
struct LfibAdjacencyCounter : Counter<Mpls::ProtocolLfib::Notifiee> {
   void onLfibExtFecAdjacency(const Mpls::AdjacencyIndex&) override { hit(); }
};
struct TunnelMapCounter : Counter<TunnelIdToPolicyKey::Notifiee> {
   void onTunnelEntry(const Tunnel::TunnelTable::TunnelId&) override { hit(); }
};
struct TunnelTableCounter : Counter<Tunnel::TunnelTable::SrTeSegmentListTunnelTable::Notifiee> {
   void onEntry(const Tunnel::TunnelTable::TunnelId&) override { hit(); }
};
struct ListStatusCounter : Counter<SegmentListStatus::Notifiee> {
   void onStatus(const SegmentListId&) override { hit(); }
};
struct ExportedListsCounter : Counter<Export::SegmentListCollection::Notifiee> {
   void onSegmentList(const SegmentListId&) override { hit(); }
};
struct ExportedListCounter : Counter<Export::SegmentList::Notifiee> {
   void onSize() override { hit(); }
   void onSegment(const Ipkit::MplsStackEntryIndex&) override { hit(); }
};
struct EcPolicyCounter : Counter<EcPolicy::Notifiee> {
   void onPolicy(const PolicyKey&) override { hit(); }
};
struct PolicyCounter : Counter<Policy::Notifiee> {
   void onCandidate(const Priority&) override { hit(); }
   void onActive() override { hit(); }
};
struct PolicyEntryCounter : Counter<PolicyEntry::Notifiee> {
   void onBindingSid() override { hit(); }
   void onWTunnelId(const uint8_t&) override { hit(); }
};

// Watches every output table and every entity inside one, as they are when it is made. An entry
// that a change replaces is counted by its table; its replacement is not watched in turn (a churn
// already above zero, not a missed one).
class ChurnWatch {
 public:
   ChurnWatch(const PublishedTables& t, Churn& churn) : churn_(churn) {
      watch<PolicyStatusCounter>(t.policyStatus.get(), "PolicyStatus");
      for (const auto& [key, entry] : t.policyStatus->status()) {
         watch<PolicyStatusEntryCounter>(entry.get(), "PolicyStatus");
      }
      watch<FecCounter>(t.srteFwdStatus.get(), "FECs");
      watch<LfibStatusCounter>(t.lfibStatus.get(), "LFIB routes");
      watch<LfibRouteCounter>(t.lfibStatus->lfib().get(), "LFIB routes");
      watch<LfibAdjacencyCounter>(t.lfibStatus->lfib().get(), "LFIB adjacencies");
      watch<TunnelMapCounter>(t.tunnelIdToPolicyKey.get(), "tunnel map");
      watch<TunnelTableCounter>(t.tunnelTable.get(), "tunnel table");
      watch<ListStatusCounter>(t.segmentListStatus.get(), "segment-list status");
      watch<ExportedListsCounter>(t.exportedSegmentListColl.get(), "exported lists");
      for (const auto& [id, list] : t.exportedSegmentListColl->segmentList()) {
         watch<ExportedListCounter>(list.get(), "exported lists");
      }
      watch<EcPolicyCounter>(t.ecPolicy.get(), "EcPolicy");
      for (const auto& [key, policy] : t.ecPolicy->policy()) {
         watch<PolicyCounter>(policy.get(), "EcPolicy");
         for (const auto& [priority, entry] : policy->candidate()) {
            watch<PolicyEntryCounter>(entry.get(), "EcPolicy");
         }
      }
   }

 private:
   template <class C, class E>
   void watch(E* entity, const char* table) {
      auto c = std::make_unique<C>();
      c->count = &churn_.changes[table];
      c->notifierIs(entity);
      reactors_.push_back(std::move(c));
   }

   Churn& churn_;
   std::vector<std::unique_ptr<Mox::NotifieeBase>> reactors_;
};

// The outputs of a converged core, or what is missing; empty when converged.
std::string convergenceGap(const PublishedTables& t, uint32_t paths, size_t lists) {
   const uint32_t keys = paths / 2;
   size_t candidates = 0, active = 0;
   for (const auto& [key, policy] : t.ecPolicy->policy()) {
      candidates += policy->candidate().size();
      active += policy->active() && policy->active()->wTunnelId().size() == 2;
   }
   char gap[256] = "";
   if (t.ecPolicy->policy().size() != keys || candidates != paths || active != keys) {
      std::snprintf(gap, sizeof gap, "EcPolicy: %zu policies, %zu candidates, %zu active",
                    t.ecPolicy->policy().size(), candidates, active);
   } else if (t.policyStatus->status().size() != keys) {
      std::snprintf(gap, sizeof gap, "PolicyStatus: %zu policies", t.policyStatus->status().size());
   } else if (t.lfibStatus->lfib()->lfibRoute().size() != keys) {
      std::snprintf(gap, sizeof gap, "LFIB: %zu binding-SID routes",
                    t.lfibStatus->lfib()->lfibRoute().size());
   } else if (t.tunnelTable->entry().size() != lists) {
      std::snprintf(gap, sizeof gap, "tunnel table: %zu entries", t.tunnelTable->entry().size());
   } else if (t.tunnelIdToPolicyKey->tunnelEntry().size() != lists) {
      std::snprintf(gap, sizeof gap, "tunnel map: %zu entries",
                    t.tunnelIdToPolicyKey->tunnelEntry().size());
   }
   return gap;
}

} // namespace

int main(int argc, char** argv) {
   const std::optional<ScaleArgs> args = scaleArgs(argc, argv);
   if (!args) return 2;
   const auto& [paths, keys, scattered, pools] = *args;
   BenchRouter bench(keys);
   Kiln::TaskScheduler& scheduler = bench.scheduler;
   StandaloneRouter& router = bench.router;
   const Mox::Ptr<PolicyInput>& bgp = bench.bgp;
   const Mox::Ptr<PolicyInput>& configured = bench.configured;
   resolveEveryLabel(*router.mplsStatus, pools.labels);
   PolicyCore core(router.tables(scheduler));
   core.start();
   Stopwatch stopwatch;
   stopwatch.watch(core);

   // Filling the input tables: the protocols' work, timed apart.
   const auto w0 = Clock::now();
   for (uint32_t k : writeOrder(keys, scattered)) {
      bgp->policyInputEntryIs(makeRecord(pools, k, Protocol::bgp));
      configured->policyInputEntryIs(makeRecord(pools, k, Protocol::staticConfig));
   }
   const auto w1 = Clock::now();

   // The floor, in the same run.
   double floorCpu = 0;
   const double floor = floorSeconds({bgp.get(), configured.get()}, paths, &floorCpu);
   if (floor < 0) {
      std::fprintf(stderr, "floor lost records\n");
      return 1;
   }

   malloc_trim(0);
   const long residentBefore = residentBytes();
   const double c0 = cpuSeconds();
   const auto t0 = Clock::now();
   stopwatch.last = t0;
   perfControl(hasArgument(argc, argv, "profile-restart") ? "disable" : "enable");
   const size_t runs = scheduler.runUntilIdle();
   perfControl("disable");
   const auto t1 = Clock::now();
   const double runCpu = cpuSeconds() - c0;
   const double runSeconds = seconds(t0, t1);
   const long peak = peakResidentBytes();
   malloc_trim(0);
   const long residentAfter = residentBytes();

   const PublishedTables& out = core.published();
   const size_t distinctLists = core.entities().segListMap->segmentListUser().size();
   if (std::string gap = convergenceGap(out, paths, distinctLists); !gap.empty()) {
      std::fprintf(stderr, "not converged: %s\n", gap.c_str());
      return 1;
   }
   auto coldShares = stopwatch.spent;
   const bool coldOnly = hasArgument(argc, argv, "cold");

   // Restart over the published tables, with every output watched.
   Churn churn;
   size_t restartRuns = 0;
   double restartSeconds = 0, stopSeconds = 0, rebuildSeconds = 0, restartCpu = 0;
   if (!coldOnly) {
      ChurnWatch watch(out, churn);
      stopwatch.clear();
      const double rc0 = cpuSeconds();
      const auto r0 = Clock::now();
      if (hasArgument(argc, argv, "profile-restart")) perfControl("enable");
      {
         Mox::BulkKeep keep(core.arena()); // core.restart(), in two steps timed apart
         core.stop();
         stopSeconds = seconds(r0, Clock::now());
         core.start();
      }
      stopwatch.watch(core);
      stopwatch.last = Clock::now();
      rebuildSeconds = seconds(r0, stopwatch.last);
      restartRuns = scheduler.runUntilIdle();
      perfControl("disable");
      const auto r1 = Clock::now();
      restartCpu = cpuSeconds() - rc0;
      restartSeconds = seconds(r0, r1);
   }
   const Stopwatch& restartShares = stopwatch;
   if (std::string gap = convergenceGap(out, paths, distinctLists); !gap.empty()) {
      std::fprintf(stderr, "not converged after the restart: %s\n", gap.c_str());
      return 1;
   }

   std::printf("candidate paths            %u (%u keys x 2 protocols, %s)\n", paths, keys,
               scattered ? "scattered" : "ordered");
   std::printf("distinct segment lists     %zu over %u labels\n", distinctLists, pools.labels);
   std::printf("task runs                  %zu\n", runs);
   std::printf("filling the input tables   %.3f s\n", seconds(w0, w1));
   std::printf("input to converged outputs %.3f s (%.3f s CPU), %.0f paths/s, %.2f us/path\n",
               runSeconds, runCpu, paths / runSeconds, runSeconds * 1e6 / paths);
   for (const auto& [task, s] : coldShares) {
      std::printf("  %-26s %.3f s (%.0f%%)\n", task.c_str(), s, 100 * s / runSeconds);
   }
   std::printf("floor (copy + map insert)  %.3f s (%.3f s CPU), %.0f paths/s\n", floor, floorCpu,
               paths / floor);
   std::printf("ratio to floor             %.1f (CPU time: %.1f)\n", runSeconds / floor,
               runCpu / floorCpu);
   std::printf("resident bytes per path    %.0f after, %.0f at peak (input tables excluded)\n",
               static_cast<double>(residentAfter - residentBefore) / paths,
               static_cast<double>(peak - residentBefore) / paths);
   if (coldOnly) {
      printMachineMemory();
      return 0;
   }
   std::printf("restart to convergence     %.3f s (%.3f s CPU), %.2f of the cold start, %zu runs\n",
               restartSeconds, restartCpu, restartSeconds / runSeconds, restartRuns);
   std::printf("  %-26s %.3f s (%.0f%%)\n", "stop", stopSeconds,
               100 * stopSeconds / restartSeconds);
   std::printf("  %-26s %.3f s (%.0f%%)\n", "start", rebuildSeconds - stopSeconds,
               100 * (rebuildSeconds - stopSeconds) / restartSeconds);
   restartShares.print(restartSeconds);
   std::printf("restart churn              %zu changes\n", churn.total());
   for (const auto& [table, n] : churn.changes) std::printf("  %-26s %zu\n", table.c_str(), n);
   printMachineMemory();
   return 0;
}
