// Fuzz target: a short script through the whole pipeline, `run`, `advance`, `restart`, congestion
// and task slices included, read as the shell reads it (continued lines, errors that do not end
// the session). Nothing may crash or trip an assertion, no exception may escape a command (the
// runner would call it an internal error), and once congestion is lifted and the last retries
// are due, no work is left ready.
//
// The host is kept from one input to the next while no input changes it (Fuzz::HostKeeper); an
// input none of whose commands was applied leaves it as new, and settling a new host was checked
// by the first input that did.
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "agent/Args.h"
#include "agent/Script.h"
#include "platform/MoxChanges.h"
#include "tests/fuzz/FuzzHost.h"

namespace {

class Lines : public Agent::LineSource {
 public:
   Lines(const std::vector<std::string_view>& lines, Agent::Host& host, std::ostringstream& err)
       : lines_(lines), host_(host), err_(err) {}
   bool applied() const { return applied_; }
   Read next(std::string& line, bool) override {
      for (;;) {
         if (at_ == lines_.size()) return Read::end;
         line.assign(lines_[at_++]);
         // A line the fuzzer may not apply is dropped whole, as if never typed.
         if (Fuzz::applicable(host_, line)) return Read::line;
      }
   }
   bool interactive() const override { return true; }
   void commandDone(const std::string& command) override {
      if (err_.str().find("internal error") != std::string::npos) {
         Fuzz::fail("internal error: " + err_.str(), command);
      }
      // Refused commands are reported on `err`; blank and comment lines do nothing; what a
      // printing command did beyond printing, the change count says.
      if (err_.str().empty() && !Agent::tokenize(command).empty() &&
          !Fuzz::printsOnly(host_, command)) {
         applied_ = true;
      }
      err_.str("");
   }

 private:
   const std::vector<std::string_view>& lines_;
   Agent::Host& host_;
   std::ostringstream& err_;
   size_t at_ = 0;
   bool applied_ = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   static Fuzz::HostKeeper keeper;
   static bool settledNew = false;
   Agent::Host& host = keeper.host();
   const uint64_t changes = Mox::changeCount();
   const auto lines = Fuzz::linesOf(data, size, 64);
   std::ostringstream err;
   Lines source(lines, host, err);
   Agent::ScriptOptions options;
   options.name = "fuzz";
   Agent::runScript(host, source, err, options);
   if (!source.applied() && Mox::changeCount() == changes && settledNew) {
      keeper.inputDone();
      return 0;
   }
   keeper.changed();
   settledNew = true;

   // Settle: no congestion, the default slice, every retry due.
   host.attrLog().attrLogOutCloggedIs(false);
   host.scheduler().yieldEveryIs(0);
   host.scheduler().advance(std::chrono::seconds(1));
   if (host.scheduler().readyTaskCount() != 0) Fuzz::fail("work left ready after settling", "");
   std::string text;
   for (const auto& show : host.shows()) show.readable(text);
   keeper.inputDone();
   return 0;
}
