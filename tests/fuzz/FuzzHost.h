// What the scenario-language fuzz targets share: a host with every subsystem, kept from one input
// to the next while no input changes it; its whole visible state as one string; and the guard
// that keeps a fuzzer's line from leaving the process (files, standard error) or from asking for
// unbounded work.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"
#include "platform/Kiln.h"
#include "platform/MoxChanges.h"

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

// Hands each input a host in the state a new one has. Building a host costs more than most inputs
// (every module registers, the core starts), so a host no input changed is handed out again, and
// one that an input changed (it applied a line other than one that only prints, or the change
// count moved) is reset (Host::reset: the registrations kept, everything else made anew) before
// the input ends. Resetting it within the input that changed it keeps the input's allocations and
// frees in balance, as the fuzzer's leak check expects of an input. tests/agent/HostTest.cpp
// checks that a reset host is a new one.
class HostKeeper {
 public:
   Agent::Host& host() {
      if (!held_) held_ = std::make_unique<FuzzHost>();
      changesAtStart_ = Mox::changeCount();
      changed_ = false;
      return held_->host;
   }
   // A line was applied that may have changed what the change count does not see.
   void changed() { changed_ = true; }
   void inputDone() {
      if (!changed_ && Mox::changeCount() == changesAtStart_) return;
      held_->host.reset();
   }

 private:
   std::unique_ptr<FuzzHost> held_;
   uint64_t changesAtStart_ = 0;
   bool changed_ = false;
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
// error, `load` reads whatever file it names (a device or a pipe would block the run), and a long
// `advance` is slow without being wrong.
inline bool applicable(const Agent::Host& host, std::string_view line) {
   const std::vector<std::string> tokens = Agent::tokenize(line);
   if (tokens.empty()) return true;
   const auto m = host.matchVerb(tokens);
   if (!m.verb) return true;
   const std::string& verb = m.verb->name;
   if (verb == "write" || verb == "trace" || verb == "load") return false;
   if (verb == "advance" && tokens.size() > m.verbWords) {
      const auto d = Kiln::parseSeconds(tokens[m.verbWords]);
      if (d && *d > maxAdvance) return false;
   }
   return true;
}

// Whether a line only prints (`show`, `help`): applied without moving the change count, it
// leaves the host as it found it.
inline bool printsOnly(const Agent::Host& host, std::string_view line) {
   const auto m = host.matchVerb(Agent::tokenize(line));
   return m.verb && (m.verb->name == "show" || m.verb->name == "help");
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
