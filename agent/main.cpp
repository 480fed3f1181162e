// srte: runs scenario scripts against the policy core on virtual time.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

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
          "  srte [-x] [-i] FILE...  run the scripts in order, in one session; the first error\n"
          "                          stops them\n"
          "  srte [-x] -             run the script read from standard input\n"
          "  srte                    the same, or an interactive shell when standard input is a\n"
          "                          terminal\n"
          "  srte [-x] [-i] --demo   run the built-in demonstration script (echoed)\n"
          "  srte --help, --version  print this text, or the version\n"
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

} // namespace

int main(int argc, char** argv) {
   std::ios::sync_with_stdio(false);
   bool echo = false, interactive = false;
   std::vector<Source> sources;
   for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
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
   Agent::Host host(std::cout);
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
