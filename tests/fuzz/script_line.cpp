// Fuzz target: scenario lines, one at a time, against one host. Every line is either refused with
// a message that names what is wrong (and the word it blames exists), leaving every table and the
// running configuration exactly as they were, or applied without an exception escaping it.
#include <cstdint>
#include <exception>
#include <string>

#include "agent/Args.h"
#include "tests/fuzz/FuzzHost.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   Fuzz::FuzzHost fh;
   Agent::Host& host = fh.host;
   for (std::string_view line : Fuzz::linesOf(data, size, 8)) {
      const std::string before = Fuzz::snapshot(host);
      Agent::Host::Apply apply;
      try {
         apply = host.parse(line);
      } catch (const Agent::ScriptError& e) {
         if (std::string_view(e.what()).empty()) Fuzz::fail("refused without a message", line);
         if (e.token() != Agent::ScriptError::noToken &&
             e.token() >= Agent::tokenize(line).size()) {
            Fuzz::fail("refusal blames word " + std::to_string(e.token()) + ", past the line",
                       line);
         }
         if (Fuzz::snapshot(host) != before) Fuzz::fail("a refused line changed the state", line);
         continue;
      } catch (const std::exception& e) {
         Fuzz::fail(std::string("parsing threw ") + e.what(), line);
      }
      if (!apply || !Fuzz::applicable(host, line)) continue;
      try {
         apply();
      } catch (const std::exception& e) {
         Fuzz::fail(std::string("applying threw ") + e.what(), line);
      }
   }
   return 0;
}
