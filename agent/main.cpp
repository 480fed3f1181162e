// srte: runs scenario scripts against the policy core on virtual time.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/Script.h"

extern const char srteDemoScript[];
extern const char* const srteVersion;

namespace {

void printHelp() {
   std::cout
       << "srte " << srteVersion
       << ": the host of the SR-TE policy core, driven by a scenario language.\n"
          "\n"
          "Usage:\n"
          "  srte FILE      run the script FILE; stops at the first error with exit status 1\n"
          "  srte           read commands from standard input: an interactive shell with a\n"
          "                 prompt when it is a terminal, otherwise a script\n"
          "  srte --demo    run the built-in demonstration script\n"
          "  srte --help    print this text\n"
          "\n"
          "One command per line; '#' starts a comment. Commands set the configuration, the\n"
          "input tables and the platform's MPLS state, move virtual time (run, advance) and\n"
          "print tables (show <table> [json]). Type 'help' at the prompt for the list of\n"
          "commands and tables; docs/scenario-language.md is the manual.\n";
}

int runStream(std::istream& in, const std::string& name, bool interactive) {
   Agent::Host host(std::cout);
   Agent::registerModules(host);
   Agent::ScriptOptions options;
   options.name = name;
   options.interactive = interactive;
   return Agent::runScript(host, in, std::cerr, options);
}

} // namespace

int main(int argc, char** argv) {
   std::ios::sync_with_stdio(false);
   if (argc > 2) {
      std::cerr << "srte: too many arguments; try 'srte --help'\n";
      return 2;
   }
   if (argc == 1) {
      const bool terminal = ::isatty(STDIN_FILENO) != 0;
      return runStream(std::cin, "<stdin>", terminal);
   }
   const char* arg = argv[1];
   if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
      printHelp();
      return 0;
   }
   if (std::strcmp(arg, "--demo") == 0) {
      std::istringstream demo(srteDemoScript);
      return runStream(demo, "demo.srte", false);
   }
   if (arg[0] == '-' && arg[1] != '\0') {
      std::cerr << "srte: unknown option '" << arg << "'; try 'srte --help'\n";
      return 2;
   }
   std::ifstream file(arg);
   if (!file) {
      std::cerr << "srte: cannot open '" << arg << "': " << std::strerror(errno) << "\n";
      return 2;
   }
   return runStream(file, arg, false);
}
