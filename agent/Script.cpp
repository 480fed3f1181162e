#include "agent/Script.h"

#include <istream>
#include <ostream>

#include "agent/Host.h"

namespace Agent {

namespace {
// A line ending in a backslash (before any comment) continues on the next one.
bool continues(std::string& line) {
   size_t end = line.find('#');
   if (end == std::string::npos) end = line.size();
   while (end > 0 && (line[end - 1] == ' ' || line[end - 1] == '\t' || line[end - 1] == '\r')) {
      --end;
   }
   if (end == 0 || line[end - 1] != '\\') return false;
   line.resize(end - 1);
   line += ' ';
   return true;
}
} // namespace

int runScript(Host& host, std::istream& in, std::ostream& err, const ScriptOptions& options) {
   std::string line, command;
   size_t lineNo = 0, firstLine = 0;
   for (;;) {
      if (options.interactive) {
         host.out() << (command.empty() ? options.prompt : options.continuationPrompt)
                    << std::flush;
      }
      if (!std::getline(in, line)) {
         // End the prompt's line so the caller's shell starts on a fresh one.
         if (options.interactive) host.out() << "\n";
         if (command.empty()) break;
         line.clear(); // a continued line at the very end runs as it is
      } else {
         ++lineNo;
      }
      if (command.empty()) firstLine = lineNo;
      const bool more = continues(line) && in.good();
      command += line;
      if (more) continue;
      try {
         host.execute(command);
      } catch (const ScriptError& e) {
         err << options.name << ":" << firstLine << ": error: " << e.what() << std::endl;
         if (!options.interactive) return 1;
      } catch (const std::exception& e) {
         // Parsing validates every value, so this is a fault of the host or the core; say so
         // rather than pretend it was the script's.
         err << options.name << ":" << firstLine << ": internal error: " << e.what() << std::endl;
         if (!options.interactive) return 1;
      }
      command.clear();
      host.out().flush();
      if (host.quitRequested() || !in.good()) break;
   }
   return 0;
}

} // namespace Agent
