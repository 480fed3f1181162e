// bgp-published-meaning: the meaning of a router's published tables (tests/support/
// PublishedMeaning.h), one "table: row" line each, sorted, so that a shell test can compare what
// an agent process published with what the in-process core publishes for the same inputs. What
// depends on the order in which paths arrived is left out (see TestSupport::sharedTunnelsAsOneOf).
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

void print(TestSupport::Meaning m) {
   TestSupport::sharedTunnelsAsOneOf(m);
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
