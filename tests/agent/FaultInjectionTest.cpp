// Every golden scenario under faults that must not change where it ends: the attribute-log
// output congested for random stretches of task runs, every task yielding after each unit of work,
// and an agent restart at each point where a task would run. The final state (every table as
// JSON, so new tables are covered as they are registered) must equal the undisturbed run's, less
// what depends on history by design:
//  - ids the core issues (segment, segment-list and tunnel ids, FEC ids): a restart issues new
//    ones above the exported, and the order of work decides which list gets which; rows are
//    therefore compared as a set, since tables list them in id order;
//  - times (virtual time, last changes, timer delays): a congested stretch ends with the retry
//    0.1 s later, and a record's version counts the writes it took to get there;
//  - the restart count; and, under restarts only, the system log is compared as a set of
//    messages: a restarted agent logs again what it finds still wrong.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/Script.h"

namespace {

namespace fs = std::filesystem;

enum class Fault { none, congestion, slices, restart };

const char* faultName(Fault f) {
   switch (f) {
   case Fault::none:
      return "none";
   case Fault::congestion:
      return "congestion";
   case Fault::slices:
      return "slices of one";
   case Fault::restart:
      return "restart";
   }
   return "?";
}

// Order-dependent by design: a binding SID goes to the first policy that asks, so the winner of a
// contested one (publish-bsid-conflict, restart-changes-nothing) may differ under slices or
// congestion, and the published tables downstream follow. Only the tables up to the selection
// input are compared there.
bool knownDivergence(const std::string& scenario, const std::string& fault,
                     const std::string& row) {
   if (scenario != "publish-bsid-conflict.srte" && scenario != "restart-changes-nothing.srte") {
      return false;
   }
   if (fault.rfind("slices", 0) != 0 && fault.rfind("congestion", 0) != 0) return false;
   // Only the tables up to the selection input are compared.
   static const char* upstream[] = {
       "config",         "colorDscp", "mpls",     "input",        "candidates",
       "selectionInput", "bsidUsers", "segments", "segmentLists", "exportedSegmentLists",
       "tunnelTable",    "scheduler"};
   for (const char* table : upstream) {
      const std::string t = table;
      if (row.rfind(t + ".", 0) == 0 || row.rfind(t + "[", 0) == 0 || row.rfind(t + ":", 0) == 0) {
         return false;
      }
   }
   return true;
}

bool maskedKey(const std::string& key) {
   static const std::set<std::string> masked{
       "segmentId", "segmentIds", "segmentListId", "tunnelId", "wTunnelId", "fecId",
       "nullLabelFecId", "version", "lastModified", "now", "nextTimerDelay", "restarts",
       // Adjacency indexes of this system's LFIB routes go to the routes in the order they are
       // made.
       "adjacencyIndex",
       // `show restart` counts since the last restart, which an injected one moves.
       "restart"};
   return masked.count(key) != 0;
}

// Messages name segment lists by id: "(ID 7)" reads "(ID *)".
std::string maskIdsInText(const std::string& text) {
   static const std::regex id("\\(ID [0-9]+\\)");
   return std::regex_replace(text, id, "(ID *)");
}

// One line, keys in their order, masked values as "*", rows (arrays of objects) sorted.
std::string canon(const Json::Value& v) {
   using Kind = Json::Value::Kind;
   switch (v.kind()) {
   case Kind::null:
      return "null";
   case Kind::boolean:
   case Kind::number:
   case Kind::rendered: // not made by the in-process host
      return v.text();
   case Kind::string:
      return "\"" + maskIdsInText(v.text()) + "\"";
   case Kind::object: {
      std::string s = "{";
      for (const auto& [key, member] : v.members()) {
         if (s.size() > 1) s += ", ";
         s += key + ": " + (maskedKey(key) ? "*" : canon(member));
      }
      return s + "}";
   }
   case Kind::array: {
      std::vector<std::string> items;
      bool rows = false;
      for (const auto& item : v.items()) {
         rows = rows || item.kind() == Kind::object;
         items.push_back(canon(item));
      }
      if (rows) std::sort(items.begin(), items.end());
      std::string s = "[";
      for (const auto& i : items) s += (s.size() > 1 ? ", " : "") + i;
      return s + "]";
   }
   }
   return "?";
}

// The final state as lines "table.member: value", a table's rows one per line.
std::vector<std::string> finalState(Agent::Host& host, bool syslogAsSet) {
   std::vector<std::string> lines;
   auto rowsOf = [&](const std::string& prefix, const Json::Value& v) {
      if (v.kind() == Json::Value::Kind::array) {
         std::vector<std::string> rows;
         for (const auto& item : v.items()) rows.push_back(prefix + "[]: " + canon(item));
         std::sort(rows.begin(), rows.end());
         if (syslogAsSet && prefix.rfind("syslog", 0) == 0) {
            // Without the sequence number, each message once.
            for (auto& r : rows) r = prefix + "[]: {" + r.substr(r.find("severity"));
            std::sort(rows.begin(), rows.end());
            rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
         }
         if (rows.empty()) rows.push_back(prefix + ": []");
         lines.insert(lines.end(), rows.begin(), rows.end());
      } else {
         lines.push_back(prefix + ": " + canon(v));
      }
   };
   for (const auto& show : host.shows()) {
      // What the last restart changed: an injected restart is a later one.
      if (show.table == "restart") continue;
      const Json::Value v = show.json();
      const std::string table = Json::lowerCamel(show.table);
      if (v.kind() == Json::Value::Kind::object) {
         for (const auto& [key, member] : v.members()) {
            if (maskedKey(key)) continue;
            rowsOf(table + "." + key, member);
         }
      } else {
         rowsOf(table, v);
      }
   }
   return lines;
}

struct Outcome {
   int status = 0;
   std::string err;
   std::vector<std::string> state;
   std::vector<std::string> stateLogAsSet; // the same with the system log as a set
   uint64_t taskRuns = 0;
   bool faultFired = false;
};

// The script's lines; after each command, a congested stretch the fault injected ends (the
// tasks waiting on it retry 0.1 s later), so that no command sees congestion it did not ask for.
class ScenarioLines : public Agent::LineSource {
 public:
   ScenarioLines(const std::string& text, std::function<void()> afterCommand)
       : in_(text), afterCommand_(std::move(afterCommand)) {}
   Read next(std::string& line, bool) override {
      return std::getline(in_, line) ? Read::line : Read::end;
   }
   void commandDone(const std::string&) override { afterCommand_(); }

 private:
   std::istringstream in_;
   std::function<void()> afterCommand_;
};

Outcome runScenario(const std::string& script, Fault fault, uint64_t at = 0, uint32_t seed = 0) {
   std::ostringstream out;
   Agent::Host host(out);
   Agent::registerModules(host);
   auto& scheduler = host.scheduler();
   Outcome o;
   std::mt19937 rng(seed);
   bool injected = false, stretched = false, settling = false;

   if (fault == Fault::slices) scheduler.yieldEveryIs(1);
   if (fault == Fault::restart) {
      scheduler.taskRunHookIs([&](uint64_t runs) {
         if (runs != at || o.faultFired) return;
         o.faultFired = true;
         host.restart();
      });
   }
   if (fault == Fault::congestion) {
      scheduler.taskRunHookIs([&](uint64_t) {
         if (settling) return;
         auto& log = host.attrLog();
         if (!injected && !log.isAttrLogOutClogged() && rng() % 3 == 0) {
            log.attrLogOutCloggedIs(true);
            injected = stretched = o.faultFired = true;
         } else if (injected && rng() % 2 == 0) {
            log.attrLogOutCloggedIs(false);
            injected = false;
         }
      });
   }
   ScenarioLines lines(script, [&] {
      // A stretch that began in this command ends with it, and what backed off retries (even
      // when the stretch ended earlier: a retry may be due after the command's end).
      if (!stretched) return;
      if (injected) host.attrLog().attrLogOutCloggedIs(false);
      injected = stretched = false;
      settling = true;
      scheduler.advance(std::chrono::milliseconds(100));
      settling = false;
   });
   std::ostringstream err;
   Agent::ScriptOptions options;
   options.name = "scenario";
   o.status = Agent::runScript(host, lines, err, options);
   o.err = err.str();
   o.taskRuns = scheduler.taskRunCount();
   o.state = finalState(host, false);
   if (fault == Fault::none || fault == Fault::restart) o.stateLogAsSet = finalState(host, true);
   scheduler.taskRunHookIs({});
   return o;
}

std::string readFile(const fs::path& p) {
   std::ifstream in(p);
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

// The first line where two final states differ, for the report.
std::string firstDifference(const std::vector<std::string>& want,
                            const std::vector<std::string>& got) {
   for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
      const std::string w = i < want.size() ? want[i] : "(none)";
      const std::string g = i < got.size() ? got[i] : "(none)";
      if (w != g) return "\n  undisturbed: " + w + "\n  faulted:     " + g;
   }
   return "";
}

std::vector<fs::path> scenarios() {
   std::vector<fs::path> all;
   for (const auto& e : fs::directory_iterator(fs::path(SRTE_SOURCE_DIR) / "tests/scenarios")) {
      if (e.path().extension() == ".srte") all.push_back(e.path());
   }
   std::sort(all.begin(), all.end());
   return all;
}

void expectSame(const fs::path& scenario, const Outcome& base, const Outcome& faulted,
                const std::string& fault, bool logAsSet = false) {
   const std::string where = scenario.filename().string() + " under " + fault;
   EXPECT_EQ(faulted.status, base.status) << where << "\n" << faulted.err;
   EXPECT_EQ(faulted.err, base.err) << where;
   auto without = [&](std::vector<std::string> rows) {
      const std::string name = scenario.filename().string();
      std::erase_if(rows, [&](const std::string& r) { return knownDivergence(name, fault, r); });
      return rows;
   };
   const auto want = without(logAsSet ? base.stateLogAsSet : base.state);
   const auto got = without(logAsSet ? faulted.stateLogAsSet : faulted.state);
   EXPECT_TRUE(got == want) << where << ": first differing row" << firstDifference(want, got);
}

class FaultInjection : public testing::TestWithParam<fs::path> {};

TEST_P(FaultInjection, EndsAlikeUnderCongestionSlicesAndRestarts) {
   const fs::path& path = GetParam();
   const std::string script = readFile(path);
   const Outcome base = runScenario(script, Fault::none);
   // Deterministic: the same run twice ends alike (else nothing below means anything).
   expectSame(path, base, runScenario(script, Fault::none), faultName(Fault::none));

   expectSame(path, base, runScenario(script, Fault::slices), faultName(Fault::slices));

   for (uint32_t seed = 1; seed <= 4; ++seed) {
      const Outcome o = runScenario(script, Fault::congestion, 0, seed);
      expectSame(path, base, o,
                 std::string(faultName(Fault::congestion)) + " (seed " + std::to_string(seed) +
                     ")");
   }

   // A restart before every task run; a scenario that retries thousands of times under its own
   // congestion (exact-time) gets 200 points spread evenly over its runs instead.
   const uint64_t points = std::min<uint64_t>(base.taskRuns, 200);
   uint64_t restarted = 0;
   for (uint64_t p = 0; p < points; ++p) {
      const uint64_t at = points == base.taskRuns ? p : p * base.taskRuns / points;
      const Outcome o = runScenario(script, Fault::restart, at);
      // The number of task runs may vary from one run to the next (work ordered by hash of
      // addresses): a point past the end of this run is no fault.
      if (!o.faultFired) continue;
      ++restarted;
      expectSame(path, base, o,
                 std::string(faultName(Fault::restart)) + " before task run " + std::to_string(at),
                 true);
   }
   EXPECT_GE(restarted + 2, points) << path.filename();
}

INSTANTIATE_TEST_SUITE_P(GoldenScenarios, FaultInjection, testing::ValuesIn(scenarios()),
                         [](const testing::TestParamInfo<fs::path>& info) {
                            std::string name = info.param.stem().string();
                            std::replace(name.begin(), name.end(), '-', '_');
                            return name;
                         });

// Congestion does fire in the scenarios that run tasks (else the test above would prove little).
TEST(FaultInjectionHarness, CongestionFires) {
   const std::string script =
       readFile(fs::path(SRTE_SOURCE_DIR) / "tests/scenarios/selection-failover.srte");
   size_t fired = 0;
   for (uint32_t seed = 1; seed <= 4; ++seed) {
      fired += runScenario(script, Fault::congestion, 0, seed).faultFired;
   }
   EXPECT_GE(fired, 3u);
}

// The harness sees what it must: a fault that loses work shows as a difference. A restart that
// drops the input tables' records (unlike a real restart) must be caught.
TEST(FaultInjectionHarness, CatchesALostRecord) {
   const std::string script = "config enabled on\n"
                              "label-range srlb base 900000 size 100\n"
                              "input-table bgp\n"
                              "input bgp 10.0.0.1 color 1 discriminator 1 bsid 900001 "
                              "segment-list labels 16001\n"
                              "run\n";
   const Outcome base = runScenario(script, Fault::none);
   ASSERT_GT(base.taskRuns, 0u);
   std::ostringstream out;
   Agent::Host host(out);
   Agent::registerModules(host);
   host.scheduler().taskRunHookIs([&](uint64_t runs) {
      if (runs == 0) host.execute("no input bgp 10.0.0.1 color 1 discriminator 1");
   });
   ScenarioLines lines(script, [] {});
   std::ostringstream err;
   ASSERT_EQ(Agent::runScript(host, lines, err, Agent::ScriptOptions{"lost"}), 0);
   EXPECT_FALSE(finalState(host, true) == base.state);
   host.scheduler().taskRunHookIs({});
}

TEST(FaultInjectionHarness, SchedulerSliceCommand) {
   std::ostringstream out;
   Agent::Host host(out);
   Agent::registerModules(host);
   host.execute("scheduler slice 1");
   EXPECT_EQ(host.scheduler().yieldEvery(), 1u);
   host.execute("restart"); // the scheduler outlives the state machines, with its slice
   EXPECT_EQ(host.scheduler().yieldEvery(), 1u);
   host.execute("scheduler slice 0");
   EXPECT_EQ(host.scheduler().yieldEvery(), 0u);
   EXPECT_THROW(host.execute("scheduler slice many"), Agent::ScriptError);
}

} // namespace
