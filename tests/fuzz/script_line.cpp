// Fuzz target: scenario lines, one at a time, against one host. Every line is either refused with
// a message that names what is wrong (and the word it blames exists), leaving every table and the
// running configuration exactly as they were, or applied without an exception escaping it.
//
// "Exactly as they were" is decided cheaply for most lines: every entity change and table write
// moves the change count (platform/MoxChanges.h), so a refused line that left the count where it
// was changed none of them. When the count moved, the input is replayed on a new host up to that
// line and the whole visible state compared before and after it, which tells a real change from
// one nobody can see. A sample of lines (every line with SRTE_FUZZ_SNAPSHOT_EVERY_LINE set) is
// compared in full whatever the count says, for state the count does not see.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Args.h"
#include "platform/MoxChanges.h"
#include "tests/fuzz/FuzzHost.h"

namespace {

// One line in 64 is compared in full. Which ones follows from the input's bytes, so that a
// failure found on a sampled line comes back when its input is run again.
constexpr uint64_t sampleOneIn = 64;

uint64_t hashOf(const uint8_t* data, size_t size) {
   uint64_t h = 14695981039346656037ull; // FNV-1a
   for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ull;
   return h;
}

bool snapshotLine(uint64_t inputHash, size_t line) {
   static const bool everyLine = std::getenv("SRTE_FUZZ_SNAPSHOT_EVERY_LINE") != nullptr;
   if (everyLine) return true;
   const uint64_t h = (inputHash ^ (line * 0x9e3779b97f4a7c15ull)) * 0xbf58476d1ce4e5b9ull;
   return (h >> 32) % sampleOneIn == 0;
}

// What the target does with a line apart from its checks: parse, and apply what parsed and may
// be applied here. Returns whether the line was applied.
bool step(Agent::Host& host, std::string_view line) {
   Agent::Host::Apply apply;
   try {
      apply = host.parse(line);
   } catch (const Agent::ScriptError&) {
      return false;
   }
   if (!apply || !Fuzz::applicable(host, line)) return false;
   apply();
   return true;
}

// The change count moved while `lines[at]` was refused: the same lines again on a new host, the
// whole state compared around that line.
void replayRefusal(const std::vector<std::string_view>& lines, size_t at) {
   Fuzz::FuzzHost fh;
   for (size_t i = 0; i < at; ++i) step(fh.host, lines[i]);
   const std::string before = Fuzz::snapshot(fh.host);
   try {
      fh.host.parse(lines[at]);
   } catch (const Agent::ScriptError&) {
      if (Fuzz::snapshot(fh.host) != before)
         Fuzz::fail("a refused line changed the state", lines[at]);
      return;
   }
   Fuzz::fail("a line refused once was accepted when the input ran again", lines[at]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   static Fuzz::HostKeeper keeper;
   Agent::Host& host = keeper.host();
   const std::vector<std::string_view> lines = Fuzz::linesOf(data, size, 8);
   const uint64_t inputHash = hashOf(data, size);
   for (size_t i = 0; i < lines.size(); ++i) {
      const std::string_view line = lines[i];
      const bool whole = snapshotLine(inputHash, i);
      const std::string before = whole ? Fuzz::snapshot(host) : std::string();
      const uint64_t changes = Mox::changeCount();
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
         if (whole) {
            if (Fuzz::snapshot(host) != before)
               Fuzz::fail("a refused line changed the state", line);
         } else if (Mox::changeCount() != changes) {
            replayRefusal(lines, i);
         }
         continue;
      } catch (const std::exception& e) {
         Fuzz::fail(std::string("parsing threw ") + e.what(), line);
      }
      if (!apply || !Fuzz::applicable(host, line)) continue;
      if (!Fuzz::printsOnly(host, line)) keeper.changed();
      try {
         apply();
      } catch (const std::exception& e) {
         Fuzz::fail(std::string("applying threw ") + e.what(), line);
      }
   }
   keeper.inputDone();
   return 0;
}
