// bgp-published-meaning: the meaning of a router's published tables (tests/support/
// PublishedMeaning.h), one "table: row" line each, sorted, so that a shell test can compare what
// an agent process published with what the in-process core publishes for the same inputs. What
// depends on the order in which paths arrived is left out (see sharedTunnels).
//
//    bgp-published-meaning --router NAME    the tables the agent of router NAME published
//    bgp-published-meaning --script FILE    the in-process core's, after the scenario FILE
#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/PublishedMirror.h"
#include "agent/Script.h"
#include "tests/support/PublishedMeaning.h"

namespace {

// A tunnel that several policies share is mapped to one of them, the first to claim it: which one
// depends on the order the paths came in. Such a row is printed as "one of the N policies" when
// its policy is among those that forward over the tunnel (srteFwdStatus), as it was otherwise.
void sharedTunnels(TestSupport::Meaning& m) {
   std::map<std::string, std::set<std::string>> users; // "tunnel[...]" -> policy keys
   for (const std::string& row : m["srteFwdStatus"]) {
      const std::string key = row.substr(0, row.find('/'));
      for (size_t at = row.find("tunnel["); at != std::string::npos;
           at = row.find("tunnel[", at + 1)) {
         users[row.substr(at, row.find(']', at) + 1 - at)].insert(key);
      }
   }
   std::multiset<std::string> rows;
   for (const std::string& row : m["tunnelIdToPolicyKey"]) {
      const size_t space = row.rfind(' ');
      const std::string tunnel = row.substr(0, space), key = row.substr(space + 1);
      auto it = users.find(tunnel);
      if (it != users.end() && it->second.size() > 1 && it->second.contains(key)) {
         rows.insert(tunnel + " one of the " + std::to_string(it->second.size()) + " policies");
      } else {
         rows.insert(row);
      }
   }
   m["tunnelIdToPolicyKey"] = std::move(rows);
}

void print(TestSupport::Meaning m) {
   sharedTunnels(m);
   for (const auto& [table, rows] : m) {
      for (const std::string& row : rows) std::cout << table << ": " << row << "\n";
   }
}

} // namespace

int main(int argc, char** argv) {
   if (argc != 3) {
      std::cerr << "usage: bgp-published-meaning --router NAME | --script FILE\n";
      return 64;
   }
   const std::string mode = argv[1], arg = argv[2];
   if (mode == "--router") {
      SrTePolicy::PublishedTables tables;
      Agent::PublishedReader reader(arg, tables);
      reader.drain();
      for (const std::string& r : reader.refused()) std::cerr << "refused: " << r << "\n";
      print(TestSupport::meaningOf(tables));
      return reader.refused().empty() ? 0 : 1;
   }
   if (mode == "--script") {
      std::ostringstream shown;
      Agent::Host host(shown);
      Agent::registerModules(host);
      const int fd = ::open(arg.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
         std::cerr << "bgp-published-meaning: cannot open " << arg << "\n";
         return 1;
      }
      Agent::FileLines lines(fd, arg);
      Agent::ScriptOptions options;
      options.name = arg;
      const int status = Agent::runScript(host, lines, std::cerr, options);
      ::close(fd);
      if (status != Agent::exitOk) return status;
      print(TestSupport::meaningOf(host.core().published()));
      return 0;
   }
   std::cerr << "usage: bgp-published-meaning --router NAME | --script FILE\n";
   return 64;
}
