// What the scenario-language fuzz targets share: a host with every subsystem, its whole visible
// state as one string, and the guard that keeps a fuzzer's line from leaving the process (files,
// standard error) or from asking for unbounded work.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"
#include "platform/Kiln.h"

namespace Fuzz {

// Swallows what the host prints without formatting cost beyond the show itself.
class NullBuf : public std::streambuf {
 protected:
   int overflow(int c) override { return c; }
   std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

struct FuzzHost {
   NullBuf sink;
   std::ostream out{&sink};
   Agent::Host host{out};
   FuzzHost() { Agent::registerModules(host); }
};

// Every table as JSON, then the running configuration: what a refused line must leave alone.
inline std::string snapshot(Agent::Host& host) {
   std::string s;
   for (const auto& show : host.shows()) {
      s += show.table;
      s += ' ';
      s += show.json().render();
      s += '\n';
   }
   s += Agent::runningConfig(host);
   return s;
}

// Longest `advance` a fuzzed line may ask for: a congested task retries every 0.1 s, so an
// advance costs ten task runs per second per task.
constexpr Kiln::Duration maxAdvance = std::chrono::seconds(5);

// Whether a line that parsed may be applied here: `write` makes files, `trace` floods standard
// error, and a long `advance` is slow without being wrong.
inline bool applicable(const Agent::Host& host, std::string_view line) {
   const std::vector<std::string> tokens = Agent::tokenize(line);
   if (tokens.empty()) return true;
   const auto m = host.matchVerb(tokens);
   if (!m.verb) return true;
   const std::string& verb = m.verb->name;
   if (verb == "write" || verb == "trace") return false;
   if (verb == "advance" && tokens.size() > m.verbWords) {
      const auto d = Kiln::parseSeconds(tokens[m.verbWords]);
      if (d && *d > maxAdvance) return false;
   }
   return true;
}

[[noreturn]] inline void fail(const std::string& what, std::string_view line) {
   std::fprintf(stderr, "FUZZ FAILURE: %s\nline: %.*s\n", what.c_str(),
                static_cast<int>(line.size()), line.data());
   std::abort();
}

// The lines of a fuzz input: split at newlines, at most `maxLines`.
inline std::vector<std::string_view> linesOf(const uint8_t* data, size_t size, size_t maxLines) {
   std::vector<std::string_view> lines;
   std::string_view text(reinterpret_cast<const char*>(data), size);
   while (!text.empty() && lines.size() < maxLines) {
      const size_t end = text.find('\n');
      lines.push_back(text.substr(0, end));
      if (end == std::string_view::npos) break;
      text.remove_prefix(end + 1);
   }
   return lines;
}

} // namespace Fuzz
