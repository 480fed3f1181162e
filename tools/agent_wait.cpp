// agent-wait: waits until a router's agent has converged on a number of paths, asking its control
// socket's `status` on one connection at a fixed interval, for benchmarks and labs.
//
//    agent-wait --router NAME --paths N [--every MILLISECONDS] [--timeout SECONDS]
//
// Converged: N paths held, the core idle and what it published written to shared memory
// (Agent::AgentProgress). It then prints the wall-clock time of the reply that said so, in
// seconds since the epoch (as `date +%s.%N`), and that reply, and exits 0. Every 50 ms by
// default: one short request, which the agent answers from counters it keeps. An agent not
// listening yet, or gone for a while, is waited for; after the timeout (600 s by default) the
// last status is printed on the error stream and the exit status is 1. Bad arguments: 64.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/ControlSocket.h"

namespace {

int usage() {
   std::cerr << "usage: agent-wait --router NAME --paths N [--every MILLISECONDS] "
                "[--timeout SECONDS]\n";
   return 64;
}

bool number(const char* text, uint64_t& out) {
   try {
      size_t used = 0;
      const std::string s = text;
      if (s.empty() || s[0] == '-') return false;
      out = std::stoull(s, &used);
      return used == s.size();
   } catch (const std::exception&) {
      return false;
   }
}

} // namespace

int main(int argc, char** argv) {
   std::string router;
   std::optional<uint64_t> paths;
   uint64_t everyMs = 50, timeoutS = 600;
   for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (i + 1 >= argc) return usage();
      const char* v = argv[++i];
      uint64_t n = 0;
      if (a == "--router") {
         router = v;
      } else if (a == "--paths" && number(v, n)) {
         paths = n;
      } else if (a == "--every" && number(v, n) && n > 0) {
         everyMs = n;
      } else if (a == "--timeout" && number(v, n)) {
         timeoutS = n;
      } else {
         return usage();
      }
   }
   if (router.empty() || !paths) return usage();

   using Clock = std::chrono::steady_clock;
   const auto end = Clock::now() + std::chrono::seconds(timeoutS);
   const auto every = std::chrono::milliseconds(everyMs);
   std::unique_ptr<Agent::ControlClient> client;
   std::string last = "no answer\n";
   for (auto next = Clock::now(); Clock::now() < end; next += every) {
      std::this_thread::sleep_until(next);
      try {
         if (!client) client = std::make_unique<Agent::ControlClient>(router);
         last = client->ask("status");
         const auto wall = std::chrono::system_clock::now().time_since_epoch();
         const std::optional<Agent::AgentProgress> p = Agent::AgentProgress::parse(last);
         if (!p) {
            std::cerr << "agent-wait: not a status the agent of " << router
                      << " could give: " << last;
            return 1;
         }
         if (p->paths == *paths && p->converged()) {
            const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wall).count();
            std::printf("%lld.%09lld\n%s", static_cast<long long>(ns / 1000000000),
                        static_cast<long long>(ns % 1000000000), last.c_str());
            return 0;
         }
      } catch (const std::runtime_error& e) {
         // Not there yet, or gone: asked again on a new connection.
         client.reset();
         last = std::string(e.what()) + "\n";
      }
      // A late turn (the machine was busy) is not made up for with a burst of requests.
      if (Clock::now() > next + every) next = Clock::now();
   }
   std::cerr << "agent-wait: " << router << " not converged on " << *paths << " paths after "
             << timeoutS << " s; last: " << last;
   return 1;
}
