// bgp-table: reads a router's shared bgp input table and the BGP adapter's status, as any reader
// process does, for tests and labs.
//
//    bgp-table --router NAME [--records] [--status] [--changes SECONDS]
//
// --records prints every record as a scenario line (`input bgp ...`), sorted; --status prints the
// adapter's status record, one "name value" line per field; --changes follows the table for that
// long (or until SIGTERM or SIGINT), holding a copy of it, and prints "changed N" with the number
// of records that really changed (a key told whose record is the same as the copy's, or a rescan
// that finds the table as it was, counts nothing): the churn a reader such as the agent would see.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "agent/BgpStatus.h"
#include "agent/Feed.h"
#include "agent/InputMirror.h"
#include "agent/RunningConfig.h"

namespace {

using Reader = Agent::InputMirror::SharedInput;

volatile sig_atomic_t stopRequested = 0;
void requestStop(int) { stopRequested = 1; }

int usage() {
   std::cerr << "usage: bgp-table --router NAME [--records] [--status] [--changes SECONDS]\n";
   return 64;
}

void printStatus(const std::string& router) {
   Agent::BgpStatusReader reader(router, Agent::bgpStatusTable);
   const auto s = reader.lookup(Agent::BgpStatusKey{});
   if (!s) {
      std::cout << "status none\n";
      return;
   }
   std::cout << "pid " << s->pid << "\nrunning " << (reader.writer() != 0 ? "yes" : "no")
             << "\nconnection " << Agent::bgpConnectionName(s->connection) << "\nconnects "
             << s->connects << "\nroutesReceived " << s->routesReceived << "\nrecordsWritten "
             << s->recordsWritten << "\nrecordsErased " << s->recordsErased << "\nrecordsUnchanged "
             << s->recordsUnchanged << "\nrecordsHeld " << s->recordsHeld << "\nstaleRecords "
             << s->staleRecords << "\nroutesRefused " << s->routesRefused << "\n";
   const uint64_t kept = std::min<uint64_t>(s->reasonsTold, Agent::BgpStatus::reasonSlots);
   for (uint64_t i = s->reasonsTold - kept; i < s->reasonsTold; ++i) {
      std::cout << "reason " << s->reasons[i % Agent::BgpStatus::reasonSlots] << "\n";
   }
}

int followChanges(const std::string& router, double seconds) {
   Reader reader(router, Agent::inputTableName(SrTePolicy::Protocol::bgp));
   std::map<std::string, std::string> copy;
   uint64_t changed = 0;
   bool first = true;
   SrTePolicy::PolicyInputEntry scratch;
   auto take = [&](const SrTePolicy::PolicyId& id, bool present) {
      auto it = copy.find(id.stringValue());
      if (!present) {
         if (it != copy.end()) {
            copy.erase(it);
            ++changed;
         }
         return;
      }
      const std::string line = Agent::inputLine(scratch);
      if (it == copy.end()) {
         copy.emplace(id.stringValue(), line);
         if (!first) ++changed;
      } else if (it->second != line) {
         it->second = line;
         ++changed;
      }
   };
   auto rescan = [&] {
      std::map<std::string, bool> seen;
      reader.forEach([&](const SrTePolicy::PolicyInputEntry& e) {
         scratch = e;
         seen[e.key().stringValue()] = true;
         take(e.key(), true);
      });
      for (auto it = copy.begin(); it != copy.end();) {
         if (seen.count(it->first)) {
            ++it;
         } else {
            it = copy.erase(it);
            ++changed;
         }
      }
      first = false;
   };
   const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
   signal(SIGTERM, requestStop);
   signal(SIGINT, requestStop);
   while (std::chrono::steady_clock::now() < end && !stopRequested) {
      reader.drain([&](const SrTePolicy::PolicyId& id) { take(id, reader.lookup(id, scratch)); },
                   rescan);
      reader.wait(50);
   }
   reader.drain([&](const SrTePolicy::PolicyId& id) { take(id, reader.lookup(id, scratch)); },
                rescan);
   std::cout << "changed " << changed << "\nrecords " << copy.size() << "\n";
   return 0;
}

} // namespace

int main(int argc, char** argv) {
   std::string router;
   bool records = false, status = false;
   double changes = 0;
   for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (a == "--records") {
         records = true;
      } else if (a == "--status") {
         status = true;
      } else if (a == "--router" && i + 1 < argc) {
         router = argv[++i];
      } else if (a == "--changes" && i + 1 < argc) {
         changes = std::strtod(argv[++i], nullptr);
      } else {
         return usage();
      }
   }
   if (router.empty()) return usage();
   try {
      if (changes > 0) return followChanges(router, changes);
      if (records) {
         Reader reader(router, Agent::inputTableName(SrTePolicy::Protocol::bgp));
         std::vector<std::string> lines;
         reader.forEach(
             [&](const SrTePolicy::PolicyInputEntry& e) { lines.push_back(Agent::inputLine(e)); });
         std::sort(lines.begin(), lines.end());
         for (const std::string& l : lines) std::cout << l << "\n";
      }
      if (status) printStatus(router);
   } catch (const Vault::Shm::NotFound& e) {
      std::cerr << "bgp-table: " << e.what() << "\n";
      return 1;
   } catch (const Vault::Corruption& e) {
      std::cerr << "bgp-table: " << e.what() << "\n";
      return 1;
   }
   return 0;
}
