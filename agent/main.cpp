// srte: runs scenario scripts against the policy core on virtual time, or attached to the agent
// process of a router (--router NAME).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "agent/Feed.h"
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RouterAgent.h"
#include "agent/Script.h"
#include "agent/Shell.h"
#include "platform/VaultShm.h"
#ifdef SRTE_HAVE_BGP
#include "bgp/Adapter.h"
#endif

extern const char srteDemoScript[];
extern const char* const srteVersion;

namespace {

void printHelp() {
   std::cout
       << "srte " << srteVersion
       << ": the host of the SR-TE policy core, driven by a scenario language.\n"
          "\n"
          "Usage:\n"
          "  srte [-x] [-i] FILE...  run the scripts in order, in one session; the first error\n"
          "                          stops them\n"
          "  srte [-x] -             run the script read from standard input\n"
          "  srte                    the same, or an interactive shell when standard input is a\n"
          "                          terminal\n"
          "  srte [-x] [-i] --demo   run the built-in demonstration script (echoed)\n"
          "  srte --router NAME [-x] [-i] [FILE... | -]\n"
          "                          the same language attached to the agent of router NAME:\n"
          "                          inputs go to its shared tables, run waits for the agent,\n"
          "                          show asks it what only it knows\n"
          "  srte --help, --version  print this text, or the version\n"
          "  srte agent --router NAME [--srlb FIRST-LAST] [--resolve FIRST-LAST]\n"
          "                          the SR-TE agent of router NAME on the real clock: mirrors\n"
          "                          the router's shared input, configuration and MPLS tables\n"
          "                          into the core; SIGTERM or SIGINT stop it. --srlb: the block\n"
          "                          binding SIDs come from while no MPLS configuration table\n"
          "                          exists; --resolve: labels with an LFIB route while no MPLS\n"
          "                          status table exists\n"
          "  srte feed --router NAME [--protocol P] --paths N [--first K] [--erase]\n"
          "           [--seed S] [--print]\n"
          "                          write (or erase) N numbered candidate paths, from K, in\n"
          "                          the shared input table of protocol P (bgp by default);\n"
          "                          --seed: varied records drawn from S (several candidates\n"
          "                          per policy) instead of the plain pattern; --print: also\n"
          "                          print each change as the scenario line that makes it\n"
          "  srte bgp --router NAME [--gobgp HOST:PORT] [--settle S] [--stale-hold S]\n"
          "           [--capacity N]\n"
          "                          the BGP adapter of router NAME: writes the best SR Policy\n"
          "                          paths of the BGP speaker at HOST:PORT (127.0.0.1:50051)\n"
          "                          into the bgp input table; after a reconnection, records the\n"
          "                          speaker lacks go once its peers are up and quiet for S\n"
          "                          seconds (1), or after --stale-hold S (120) whatever happens\n"
          "\n"
          "Options:\n"
          "  -x  print each command (after 'srte> ') before its output, and a line of what run\n"
          "      and advance did\n"
          "  -i  after the scripts, go on interactively in the same session (the shell on a\n"
          "      terminal; otherwise the commands of standard input, errors not stopping them)\n"
          "\n"
          "One command per line; '#' starts a comment. Commands set the configuration, the\n"
          "input tables and the platform's MPLS state, move virtual time (run, advance) and\n"
          "print tables (show <table> [json]). 'load FILE' runs a script inside a session. Type\n"
          "'help' at the prompt for the list of commands and tables; docs/scenario-language.md\n"
          "is the manual.\n"
          "\n"
          "Exit status:\n"
          "  0  every command ran (the shell: the session ended)\n"
          "  1  a script stopped at a command it refused (the error names file and line)\n"
          "  2  srte could not run: bad arguments, or a script cannot be opened or read\n";
}

// One script of the command line: a file, standard input or the demo.
struct Source {
   enum class Kind { file, standardInput, demo } kind;
   std::string path;
};

int runSource(Agent::Host& host, const Source& source, bool echo) {
   Agent::ScriptOptions options;
   options.echo = echo;
   switch (source.kind) {
   case Source::Kind::demo: {
      std::istringstream demo(srteDemoScript);
      Agent::StreamLines lines(demo);
      options.name = "demo.srte";
      return Agent::runScript(host, lines, std::cerr, options);
   }
   case Source::Kind::standardInput: {
      Agent::FileLines lines(STDIN_FILENO, "standard input");
      options.name = "<stdin>";
      return Agent::runScript(host, lines, std::cerr, options);
   }
   case Source::Kind::file:
      break;
   }
   const std::string shown = Agent::printable(source.path);
   const int fd = ::open(source.path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      std::cerr << "srte: cannot open '" << shown << "': " << std::strerror(errno) << "\n";
      return Agent::exitCannotRun;
   }
   Agent::FileLines lines(fd, "'" + shown + "'");
   options.name = source.path;
   const int status = Agent::runScript(host, lines, std::cerr, options);
   ::close(fd);
   return status;
}

// The session after the scripts: the shell on a terminal, else standard input's commands.
int runInteractive(Agent::Host& host, bool echo) {
   if (::isatty(STDIN_FILENO) != 0) return Agent::runShell(host, std::cerr);
   host.verboseIs(true);
   Agent::FileLines lines(STDIN_FILENO, "standard input", &std::cout);
   Agent::ScriptOptions options;
   options.name = "<stdin>";
   options.echo = echo;
   return Agent::runScript(host, lines, std::cerr, options);
}

// A count or number of at most 9 digits, digits only.
bool smallNumber(const std::string& text, uint32_t& out) {
   if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != text.npos) {
      return false;
   }
   out = static_cast<uint32_t>(std::stoul(text));
   return true;
}

// FIRST-LAST: a span of labels from 16 (below are reserved) to the largest label.
std::optional<std::pair<uint32_t, uint32_t>> labelSpan(const std::string& text) {
   const size_t dash = text.find('-');
   uint32_t first = 0, last = 0;
   if (dash == text.npos || !smallNumber(text.substr(0, dash), first) ||
       !smallNumber(text.substr(dash + 1), last) || first < 16 || last < first ||
       last > Ipkit::MplsLabel::maxLabel) {
      return std::nullopt;
   }
   return std::make_pair(first, last);
}

#ifdef SRTE_HAVE_BGP
int runBgp(int argc, char** argv) {
   SrTeBgp::AdapterOptions options;
   auto usage = [](const std::string& why) {
      std::cerr << "srte bgp: " << why << "; try 'srte --help'\n";
      return Agent::exitCannotRun;
   };
   auto seconds = [](const std::string& text, std::chrono::milliseconds& out) {
      char* end = nullptr;
      const double s = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != 0 || !(s >= 0 && s <= 86400)) return false;
      out = std::chrono::milliseconds(static_cast<int64_t>(s * 1000));
      return true;
   };
   for (int i = 2; i < argc; ++i) {
      const std::string arg = argv[i];
      if (i + 1 >= argc) return usage("'" + Agent::printable(arg) + "' needs a value");
      const std::string value = argv[++i];
      if (arg == "--router") {
         options.router = value;
      } else if (arg == "--gobgp") {
         if (value.find(':') == value.npos) return usage("--gobgp takes HOST:PORT");
         options.speaker = value;
      } else if (arg == "--settle") {
         if (!seconds(value, options.settle)) return usage("--settle takes seconds");
      } else if (arg == "--stale-hold") {
         if (!seconds(value, options.staleHold)) return usage("--stale-hold takes seconds");
      } else if (arg == "--capacity") {
         uint32_t capacity = 0;
         if (!smallNumber(value, capacity) || capacity == 0) {
            return usage("--capacity takes a count of records below 10^9");
         }
         options.capacity = capacity;
      } else {
         return usage("unknown option '" + Agent::printable(arg) + "'");
      }
   }
   if (options.router.empty()) return usage("--router NAME is required");
   return SrTeBgp::runAdapter(options, std::cerr);
}
#endif

// `srte agent ...` and `srte feed ...`: their options, one value each.
int runCommand(const std::string& command, int argc, char** argv) {
   Agent::AgentOptions agent;
   Agent::FeedOptions feed;
   bool havePaths = false;
   auto usage = [&](const std::string& why) {
      std::cerr << "srte " << command << ": " << why << "; try 'srte --help'\n";
      return Agent::exitCannotRun;
   };
   for (int i = 2; i < argc; ++i) {
      const std::string arg = argv[i];
      if (command == "feed" && arg == "--erase") {
         feed.erase = true;
         continue;
      }
      if (command == "feed" && arg == "--print") {
         feed.print = true;
         continue;
      }
      if (i + 1 >= argc) return usage("'" + Agent::printable(arg) + "' needs a value");
      const std::string value = argv[++i];
      if (arg == "--router") {
         agent.router = feed.router = value;
      } else if (command == "agent" && (arg == "--srlb" || arg == "--resolve")) {
         const auto span = labelSpan(value);
         if (!span) return usage(arg + " takes FIRST-LAST, labels from 16 to 1048575");
         (arg == "--srlb" ? agent.srlb : agent.resolvedLabels) = span;
      } else if (command == "feed" && arg == "--protocol") {
         auto p = SrTePolicy::sequenceToValue(value);
         if (!p || (*p != SrTePolicy::Protocol::bgp && *p != SrTePolicy::Protocol::staticConfig)) {
            return usage("unknown protocol '" + Agent::printable(value) + "' (bgp or static)");
         }
         feed.protocol = *p;
      } else if (command == "feed" && arg == "--paths") {
         if (!smallNumber(value, feed.paths)) return usage("--paths takes a count below 10^9");
         havePaths = true;
      } else if (command == "feed" && arg == "--first") {
         if (!smallNumber(value, feed.first)) return usage("--first takes a number below 10^9");
      } else if (command == "feed" && arg == "--seed") {
         uint32_t seed = 0;
         if (!smallNumber(value, seed)) return usage("--seed takes a number below 10^9");
         feed.seed = seed;
      } else {
         return usage("unknown option '" + Agent::printable(arg) + "'");
      }
   }
   if (agent.router.empty()) return usage("--router NAME is required");
   if (command == "agent") {
      agent.exitOnStop = true;
      return Agent::runAgent(agent, std::cerr);
   }
   if (!havePaths) return usage("--paths N is required");
   return Agent::feed(feed, std::cout, std::cerr);
}

} // namespace

int main(int argc, char** argv) {
   std::ios::sync_with_stdio(false);
   if (argc >= 2 && std::string(argv[1]) == "bgp") {
#ifdef SRTE_HAVE_BGP
      return runBgp(argc, argv);
#else
      std::cerr << "srte bgp: this srte was built without the BGP adapter (SRTE_BGP off)\n";
      return Agent::exitCannotRun;
#endif
   }
   if (argc >= 2 && (std::string(argv[1]) == "agent" || std::string(argv[1]) == "feed")) {
      return runCommand(argv[1], argc, argv);
   }
   bool echo = false, interactive = false;
   std::string router;
   std::vector<Source> sources;
   for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "--router") {
         if (i + 1 >= argc) {
            std::cerr << "srte: --router needs a router name; try 'srte --help'\n";
            return Agent::exitCannotRun;
         }
         router = argv[++i];
         try {
            Vault::Shm::segmentPath(router, "x");
         } catch (const std::invalid_argument& e) {
            std::cerr << "srte: " << e.what() << "\n";
            return Agent::exitCannotRun;
         }
         continue;
      }
      if (arg == "--help" || arg == "-h") {
         printHelp();
         return Agent::exitOk;
      }
      if (arg == "--version" || arg == "-V") {
         std::cout << "srte " << srteVersion << "\n";
         return Agent::exitOk;
      }
      if (arg == "-x") {
         echo = true;
      } else if (arg == "-i") {
         interactive = true;
      } else if (arg == "-xi" || arg == "-ix") {
         echo = interactive = true;
      } else if (arg == "--demo") {
         sources.push_back({Source::Kind::demo, {}});
      } else if (arg == "-") {
         sources.push_back({Source::Kind::standardInput, {}});
      } else if (arg.size() > 1 && arg[0] == '-') {
         std::cerr << "srte: unknown option '" << Agent::printable(arg) << "'; try 'srte --help'\n";
         return Agent::exitCannotRun;
      } else {
         sources.push_back({Source::Kind::file, arg});
      }
   }
   bool reads = false;
   for (const Source& s : sources) {
      if (s.kind != Source::Kind::standardInput) continue;
      if (reads || interactive) {
         std::cerr << "srte: standard input can be read once, and not with -i; try 'srte --help'\n";
         return Agent::exitCannotRun;
      }
      reads = true;
   }
   // Attached, the agent of the router runs the core; this process shares inputs and asks.
   Agent::HostOptions options;
   options.router = router;
   options.runCore = router.empty();
   Agent::Host host(std::cout, std::move(options));
   Agent::registerModules(host);
   // The demo is read rather than run: its commands are shown beside their output.
   for (const Source& s : sources) echo = echo || s.kind == Source::Kind::demo;
   host.verboseIs(echo);
   if (sources.empty() && !interactive) {
      if (::isatty(STDIN_FILENO) != 0) return Agent::runShell(host, std::cerr);
      sources.push_back({Source::Kind::standardInput, {}});
   }
   for (const Source& s : sources) {
      const int status = runSource(host, s, echo);
      if (status == Agent::exitOk && !host.quitRequested()) continue;
      if (!interactive || status == Agent::exitCannotRun) return status;
      if (host.quitRequested()) return Agent::exitOk;
      std::cerr << "srte: the session goes on interactively with what ran\n";
      break;
   }
   if (interactive) return runInteractive(host, echo);
   return Agent::exitOk;
}
