#include "agent/Script.h"

#include <istream>
#include <ostream>

#include "agent/Host.h"

namespace Agent {

int runScript(Host& host, std::istream& in, std::ostream& err, const ScriptOptions& options) {
   std::string line;
   size_t lineNo = 0;
   for (;;) {
      if (options.interactive) {
         host.out() << options.prompt << std::flush;
      }
      if (!std::getline(in, line)) {
         // End the prompt's line so the caller's shell starts on a fresh one.
         if (options.interactive) host.out() << "\n";
         break;
      }
      ++lineNo;
      try {
         host.execute(line);
      } catch (const ScriptError& e) {
         err << options.name << ":" << lineNo << ": error: " << e.what() << std::endl;
         if (!options.interactive) return 1;
      } catch (const std::exception& e) {
         // Parsing validates every value, so this is a fault of the host or the core; say so
         // rather than pretend it was the script's.
         err << options.name << ":" << lineNo << ": internal error: " << e.what() << std::endl;
         if (!options.interactive) return 1;
      }
      host.out().flush();
      if (host.quitRequested()) break;
   }
   return 0;
}

} // namespace Agent
