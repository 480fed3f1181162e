// The multi-process pipeline against the in-process one, on the same inputs, in one run:
//  - in process: N paths (`srte feed`'s records) in an input table, a core started over them and
//    run until idle (virtual clock); then a restart of the core over its published tables, with
//    the changes it made to them (core/SrTePolicyRestartWatch.h);
//  - through shared memory: `srte feed` writes the N records into the router's shared input
//    table (timed apart: the protocols' work), then `srte agent` starts, mounts, converges and
//    writes the published shared tables: the time it reports on its "converged" line. Then
//    SIGKILL and a start again over what it left: time to converged, records it wrote, and keys
//    a reader in this process was told changed in any published table;
//  - the agent's resident memory at convergence, its own (anonymous) and its shared tables'
//    (the segments it maps), against the in-process core's growth.
//
//   agent_bench [paths]      default 100000
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/Feed.h"
#include "agent/PublishedRecords.h"
#include "core/SrTePolicyMachines.h"
#include "core/SrTePolicyRestartWatch.h"
#include "platform/VaultShm.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PublishedWatch.h"

using namespace SrTePolicy;
using Clock = std::chrono::steady_clock;

namespace {

double since(Clock::time_point t) {
   return std::chrono::duration<double>(Clock::now() - t).count();
}

// "VmRSS", "RssAnon", "RssShmem" of a process, in bytes.
size_t statusBytes(pid_t pid, const std::string& field) {
   std::ifstream in("/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/status");
   std::string line;
   while (std::getline(in, line)) {
      if (line.rfind(field + ":", 0) == 0) {
         std::istringstream s(line.substr(field.size() + 1));
         size_t kb = 0;
         s >> kb;
         return kb * 1024;
      }
   }
   return 0;
}

using Srte = TestSupport::ChildProcess;

double numberBefore(const std::string& line, const std::string& what) {
   const size_t at = line.find(what);
   if (at == std::string::npos) return -1;
   size_t from = line.rfind(' ', at - 1);
   from = line.rfind(' ', from - 1);
   if (line[from + 1] == '(') ++from;
   return std::atof(line.c_str() + from + 1);
}

// The agent's LFIB routes (RouterAgent's --resolve), for the in-process core.
void resolveLabels(Mpls::Status& mpls, uint32_t first, uint32_t last) {
   constexpr Mpls::AdjacencyIndex adjacencies = 16;
   for (Mpls::AdjacencyIndex a = 1; a <= adjacencies; ++a) {
      auto via = [a](uint32_t v) {
         const uint32_t n = static_cast<uint32_t>(2 * a + v);
         return Mpls::Via(
             Ipkit::IpGenAddr::v4(0x0b000000u + n), Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, n),
             Ipkit::MplsLabelAction::swap, Ipkit::MplsLabel(17000 + static_cast<uint32_t>(a)));
      };
      mpls.adjacencyIs(a, {via(0), via(1)});
   }
   for (uint32_t l = first; l <= last; ++l) {
      mpls.lfibRouteIs(
          Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(l)),
                            Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                            Mpls::AdjacencyKey(1 + l % adjacencies, Mpls::AdjacencyType::nexthop)));
   }
}

struct InProcess {
   double converge = 0, restart = 0;
   uint64_t restartChanges = 0;
   size_t bytes = 0; // resident growth from before the input to convergence
};

InProcess inProcess(uint32_t paths) {
   InProcess out;
   malloc_trim(0);
   const size_t before = statusBytes(0, "VmRSS");
   Kiln::TaskScheduler scheduler;
   StandaloneRouter router;
   router.config->enabledIs(true);
   router.mplsConfig->labelRangeIs(Mpls::srlbRangeName, Mpls::LabelRange(100000, 800000));
   resolveLabels(*router.mplsStatus, 16000, 19999);
   Mox::Ptr<PolicyInput> input = policyInputFactory("policyInput-bgp");
   for (uint32_t n = 0; n < paths; ++n) {
      input->policyInputEntryIs(Agent::feedRecord(Protocol::bgp, n));
   }
   input->mountStatusIs(Vault::MountStatus::mounted);
   router.input->policyInputIs(Protocol::bgp, input);
   PolicyCore core(router.tables(scheduler));
   const auto t0 = Clock::now();
   core.start();
   scheduler.runUntilIdle();
   out.converge = since(t0);
   out.bytes = statusBytes(0, "VmRSS") - before;
   {
      Mox::BulkKeep keep;
      const auto t1 = Clock::now();
      core.stop();
      RestartWatch watch(core.published());
      core.start();
      scheduler.runUntilIdle();
      out.restart = since(t1);
      out.restartChanges = watch.changes();
   }
   return out;
}

using TestSupport::PublishedWatch;

} // namespace

int main(int argc, char** argv) {
   const uint32_t paths = argc > 1 ? static_cast<uint32_t>(std::atol(argv[1])) : 100000;
   const std::string router = "bench" + std::to_string(getpid());
   const std::string n = std::to_string(paths);
   std::printf(
       "agent_bench: %u paths (srte feed's records: 2 lists of 3 labels over 4000 labels)\n",
       paths);

   const InProcess in = inProcess(paths);
   std::printf("in process: converged      %.3f s, %.0f paths/s\n", in.converge,
               paths / in.converge);
   std::printf("in process: restart        %.3f s, %lu changes to published tables\n", in.restart,
               static_cast<unsigned long>(in.restartChanges));
   std::printf("in process: memory         %.0f bytes per path (core and its input table)\n",
               static_cast<double>(in.bytes) / paths);

   const auto f0 = Clock::now();
   {
      Srte feed({"feed", "--router", router, "--paths", n});
      if (feed.exitStatus(std::chrono::hours(1)) != 0) {
         std::fprintf(stderr, "the feeder failed: %s\n", feed.err().c_str());
         return 1;
      }
   }
   std::printf("shared: feed written       %.3f s\n", since(f0));
   const std::vector<std::string> agentArgs{"agent",         "--router",  router,       "--srlb",
                                            "100000-899999", "--resolve", "16000-19999"};
   double cold = 0;
   {
      Srte agent(agentArgs);
      const std::string line =
          agent.lineWith("converged: " + n + " paths", std::chrono::minutes(10));
      if (line.empty()) {
         std::fprintf(stderr, "the agent did not converge: %s\n", agent.err().c_str());
         return 1;
      }
      cold = numberBefore(line, "s after start");
      const size_t anon = statusBytes(agent.pid(), "RssAnon");
      const size_t shmem = statusBytes(agent.pid(), "RssShmem");
      std::printf("shared: converged          %.3f s, %.0f paths/s, %.0f%% of in process\n", cold,
                  paths / cold, 100 * in.converge / cold);
      std::printf("shared: %s\n", line.c_str() + line.find("converged: "));
      std::printf("shared: agent memory       %.0f bytes per path own, %.0f in shared tables "
                  "it maps\n",
                  static_cast<double>(anon) / paths, static_cast<double>(shmem) / paths);
      kill(agent.pid(), SIGKILL);
      agent.exitStatus(std::chrono::seconds(30));
   }
   {
      PublishedWatch watch(router);
      Srte agent(agentArgs);
      const std::string line =
          agent.lineWith("converged: " + n + " paths", std::chrono::minutes(10));
      const double restart = numberBefore(line, "s after start");
      std::printf("shared: restart (SIGKILL)  %.3f s, %.2f of the cold start; %.0f records "
                  "written, %zu keys told changed\n",
                  restart, restart / cold, numberBefore(line, "written,"), watch.changedKeys());
      kill(agent.pid(), SIGTERM);
      agent.exitStatus(std::chrono::seconds(30));
   }
   Vault::Shm::removeRouter(router);
   return 0;
}
