// srte: runs scenario scripts against the policy core on virtual time.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <cstring>
#include <iostream>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/Script.h"
#include "agent/Shell.h"

extern const char srteDemoScript[];
extern const char* const srteVersion;

namespace {

void printHelp() {
   std::cout
       << "srte " << srteVersion
       << ": the host of the SR-TE policy core, driven by a scenario language.\n"
          "\n"
          "Usage:\n"
          "  srte FILE      run the script FILE; it stops at the first error\n"
          "  srte -         run the script read from standard input\n"
          "  srte           the same, or an interactive shell when standard input is a terminal\n"
          "  srte --demo    run the built-in demonstration script\n"
          "  srte --help    print this text\n"
          "\n"
          "One command per line; '#' starts a comment. Commands set the configuration, the\n"
          "input tables and the platform's MPLS state, move virtual time (run, advance) and\n"
          "print tables (show <table> [json]). Type 'help' at the prompt for the list of\n"
          "commands and tables; docs/scenario-language.md is the manual.\n"
          "\n"
          "Exit status:\n"
          "  0  every command ran (the shell: the session ended)\n"
          "  1  the script stopped at a command it refused (the error names file and line)\n"
          "  2  srte could not run: bad arguments, or the script cannot be opened or read\n";
}

int run(Agent::LineSource& lines, const std::string& name) {
   Agent::Host host(std::cout);
   Agent::registerModules(host);
   Agent::ScriptOptions options;
   options.name = name;
   return Agent::runScript(host, lines, std::cerr, options);
}

int runStandardInput() {
   if (::isatty(STDIN_FILENO) != 0) return Agent::runShell(std::cout, std::cerr);
   Agent::FileLines lines(STDIN_FILENO, "standard input");
   return run(lines, "<stdin>");
}

} // namespace

int main(int argc, char** argv) {
   std::ios::sync_with_stdio(false);
   if (argc > 2) {
      std::cerr << "srte: too many arguments; try 'srte --help'\n";
      return Agent::exitCannotRun;
   }
   if (argc == 1) return runStandardInput();
   const char* arg = argv[1];
   if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
      printHelp();
      return Agent::exitOk;
   }
   if (std::strcmp(arg, "-") == 0) return runStandardInput();
   if (std::strcmp(arg, "--demo") == 0) {
      std::istringstream demo(srteDemoScript);
      Agent::StreamLines lines(demo);
      return run(lines, "demo.srte");
   }
   const std::string shown = Agent::printable(arg);
   if (arg[0] == '-') {
      std::cerr << "srte: unknown option '" << shown << "'; try 'srte --help'\n";
      return Agent::exitCannotRun;
   }
   const int fd = ::open(arg, O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      std::cerr << "srte: cannot open '" << shown << "': " << std::strerror(errno) << "\n";
      return Agent::exitCannotRun;
   }
   Agent::FileLines lines(fd, "'" + shown + "'");
   const int status = run(lines, arg);
   ::close(fd);
   return status;
}
