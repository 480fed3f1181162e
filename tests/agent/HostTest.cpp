// The host's extension mechanism, its lifecycle and its script runner, driven through a small
// subsystem registered the way real ones are.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"
#include "agent/Script.h"

namespace {

using Agent::Args;
using Agent::Host;

// A stand-in subsystem: a counter that the host's verbs and tables reach, owned by the test.
struct CounterTable {
   uint64_t value = 0;
};

void registerToy(Host& host, CounterTable& counter) {
   host.verbIs("counter add", "counter add <n>", "adds to the counter", [&counter](Args& a) {
      const uint64_t n = a.number("amount", 1000);
      return Host::Apply([&counter, n] { counter.value += n; });
   });
   host.showIs(
       "toy-counter", "the counter",
       [&counter](std::string& out) { out += std::to_string(counter.value) + "\n"; },
       [&counter] { return Json::Value::row().set("value", counter.value); });
}

struct ToyHost {
   std::ostringstream out;
   CounterTable counter;
   Host host{out};
   ToyHost() {
      Agent::registerCore(host);
      registerToy(host, counter);
      Agent::registerCoreTables(host);
      host.start();
   }
   int run(const std::string& script, std::ostringstream& err, bool interactive = false) {
      std::istringstream in(script);
      Agent::ScriptOptions o;
      o.name = "toy.srte";
      return Agent::runScript(host, in, err, o, interactive);
   }
};

TEST(Host, RestartRebuildsTheCoreAndWatchesWhatTheNextStartDoes) {
   ToyHost t;
   EXPECT_TRUE(t.host.agentRunning());
   EXPECT_FALSE(t.host.restartCounts().has_value());
   t.host.execute("restart");
   EXPECT_EQ(t.host.restartCount(), 1u);
   EXPECT_TRUE(t.host.agentRunning());
   EXPECT_NE(t.host.core().policyInputSm().get(), nullptr);
   // A watch made over what the old incarnation left.
   ASSERT_TRUE(t.host.restartCounts().has_value());
   t.host.execute("restart");
   EXPECT_TRUE(t.host.restartCounts().has_value());
   EXPECT_EQ(t.host.restartCount(), 2u);
   // Disabled: a restart leaves the core stopped, and the watch still answers.
   t.host.config()->enabledIs(false);
   t.host.execute("restart");
   EXPECT_FALSE(t.host.agentRunning());
   EXPECT_TRUE(t.host.restartCounts().has_value());
}

TEST(Host, ShowPrintsReadableAndJsonAndAllHoldsEveryTable) {
   ToyHost t;
   t.host.execute("counter add 7");
   t.host.execute("show toy-counter");
   t.host.execute("show toy-counter json");
   EXPECT_EQ(t.out.str(), "7\n\n{\n  \"toyCounter\": {\"value\": 7}\n}\n");
   t.out.str("");
   t.host.execute("show all json");
   const std::string all = t.out.str();
   for (const char* key : {"\"toyCounter\"", "\"scheduler\"", "\"syslog\""}) {
      EXPECT_NE(all.find(key), std::string::npos) << key;
   }
}

TEST(Host, LineWithAnErrorChangesNothingAndNamesTheProblem) {
   ToyHost t;
   struct Case {
      const char* line;
      const char* message;
   } cases[] = {
       {"counter add 5 6", "unexpected '6'; usage: counter add <n>"},
       {"counter add", "missing amount; usage: counter add <n>"},
       {"counter add five", "expected a number for amount, got 'five'"},
       {"counter add 1001", "amount 1001 is out of range (0 to 1000)"},
       {"counter dd 5", "unknown command 'counter dd' (did you mean 'counter add'?); 'counter' "
                        "takes one of: add"},
       {"counetr add 5", "unknown command 'counetr' (did you mean 'counter'?); 'help' lists the "
                         "commands"},
       {"show toy-countr", "unknown table 'toy-countr' (did you mean 'toy-counter'?); tables: all "
                           "toy-counter scheduler syslog"},
       {"advance -1", "expected seconds (a decimal number such as 2 or 0.5), got '-1'"},
       {"advance 1e3", "expected seconds (a decimal number such as 2 or 0.5), got '1e3'"},
       {"advance 0.0000000001",
        "seconds 0.0000000001 is more precise than the clock (at most 9 decimals)"},
       {"advance 9223372036.854775808", "seconds 9223372036.854775808 is out of range (at most "
                                        "9223372036.854775807 at virtual time 0)"},
   };
   for (const auto& c : cases) {
      try {
         t.host.execute(c.line);
         ADD_FAILURE() << "no error for: " << c.line;
      } catch (const Agent::ScriptError& e) {
         EXPECT_EQ(std::string(e.what()), c.message);
      }
      EXPECT_EQ(t.counter.value, 0u) << c.line;
   }
   EXPECT_EQ(t.out.str(), "");
}

TEST(Host, ScriptStopsAtFirstErrorWhileTheShellGoesOn) {
   const std::string script = "counter add 1\n"
                              "# a comment, then a blank line\n"
                              "\n"
                              "counter add x   # wrong\n"
                              "counter add 2\n";
   {
      ToyHost t;
      std::ostringstream err;
      EXPECT_EQ(t.run(script, err), 1);
      EXPECT_EQ(err.str(), "toy.srte:4: error: expected a number for amount, got 'x'\n");
      EXPECT_EQ(t.counter.value, 1u);
   }
   {
      ToyHost t;
      std::ostringstream err;
      EXPECT_EQ(t.run(script + "quit\ncounter add 4\n", err, true), 0);
      EXPECT_EQ(err.str(), "toy.srte:4: error: expected a number for amount, got 'x'\n");
      EXPECT_EQ(t.counter.value, 3u);
      EXPECT_EQ(t.out.str().rfind("srte> ", 0), 0u);
   }
   {
      // A continued command counts as one; its error names the line holding the faulty word.
      ToyHost t;
      std::ostringstream err;
      EXPECT_EQ(t.run("counter \\\n  add 2  # continued\ncounter add \\\n 2 \\\n 3\n", err), 1);
      EXPECT_EQ(err.str(), "toy.srte:5: error: unexpected '3'; usage: counter add <n>\n");
      EXPECT_EQ(t.counter.value, 2u);
   }
   {
      // Input that ends after a backslash is an error, not silence; in the shell too.
      for (bool interactive : {false, true}) {
         ToyHost t;
         std::ostringstream err;
         EXPECT_EQ(t.run("counter add 2\ncounter \\\n add 3 \\\n", err, interactive),
                   interactive ? 0 : 1);
         EXPECT_EQ(err.str(), "toy.srte:3: error: the command continued with '\\' but the input "
                              "ends here\n");
         EXPECT_EQ(t.counter.value, 2u);
      }
   }
}

TEST(Host, AdvanceMovesVirtualTimeAndFiresTimersOnlyThen) {
   ToyHost t;
   auto task = Mox::make<Kiln::Task>(t.host.scheduler(), 0, "toy");
   struct Runs : Kiln::Task::Notifiee {
      std::string marks;
      Kiln::TaskScheduler* s = nullptr;
      void onTaskRun() override { marks += std::to_string(static_cast<int>(s->now() * 10)) + " "; }
   } runs;
   runs.s = &t.host.scheduler();
   runs.notifierIs(task);
   task->scheduleTaskLowestDelay(0.5);
   t.host.execute("run");
   EXPECT_EQ(runs.marks, "");
   t.host.execute("advance 0.4");
   EXPECT_EQ(runs.marks, "");
   t.host.execute("advance 0.2");
   EXPECT_EQ(runs.marks, "5 ");
   EXPECT_DOUBLE_EQ(t.host.now(), 0.6);
}

// Every table as JSON and the running configuration.
std::string wholeState(Host& host) {
   std::string s;
   for (const auto& show : host.shows()) s += show.table + " " + show.json().render() + "\n";
   return s + Agent::runningConfig(host);
}

// A reset host is a new one: what it shows equals a new host's, and every golden scenario run on
// it after another prints and ends exactly as on a host of its own.
TEST(Host, ResetHostIsANewHost) {
   namespace fs = std::filesystem;
   std::ostringstream freshOut;
   Host fresh(freshOut);
   Agent::registerModules(fresh);
   const std::string newState = wholeState(fresh);

   std::vector<fs::path> scripts;
   for (const auto& e : fs::directory_iterator(fs::path(SRTE_SOURCE_DIR) / "tests/scenarios")) {
      if (e.path().extension() == ".srte") scripts.push_back(e.path());
   }
   std::sort(scripts.begin(), scripts.end());
   ASSERT_GT(scripts.size(), 10u);

   std::ostringstream out;
   Host reused(out);
   Agent::registerModules(reused);
   auto run = [&](Host& host, std::ostringstream& printed, const fs::path& script) {
      std::ifstream in(script);
      std::ostringstream err;
      printed.str("");
      const int status = Agent::runScript(host, in, err, Agent::ScriptOptions{"scenario"});
      return std::to_string(status) + "\n" + printed.str() + err.str() + wholeState(host);
   };
   for (const auto& script : scripts) {
      std::ostringstream ownOut;
      Host own(ownOut);
      Agent::registerModules(own);
      const std::string expected = run(own, ownOut, script);
      EXPECT_EQ(run(reused, out, script), expected) << script.filename();
      reused.reset();
      EXPECT_EQ(wholeState(reused), newState) << "after " << script.filename();
   }
}

} // namespace
