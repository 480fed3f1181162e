// The host's own verbs: time and lifecycle (run, advance, restart), tracing, the attribute-log
// congestion flag, the tasks' slice, `show`, `help` and `quit`; and the tables `scheduler` and
// `syslog`. Attached to a router's agent (agent/Attachment.h), run and advance wait for the agent,
// the verbs that act on the core's scheduler are refused, and show asks the agent for its tables.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <thread>

#include "agent/Attachment.h"
#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/Script.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"
#include "platform/Trace.h"

namespace Agent {

namespace {

// Seconds to advance, read exactly: "0.3" is 300000000 ns, never a double near it.
Kiln::Duration parseAdvance(Args& a, const Kiln::TaskScheduler& scheduler) {
   const std::string text = a.word("seconds");
   Kiln::SecondsTextError why{};
   const auto d = Kiln::parseSeconds(text, &why);
   const Kiln::Duration room = Kiln::Duration::max() - scheduler.nowNs();
   if (!d && why == Kiln::SecondsTextError::notADecimal)
      a.fail("expected seconds (a decimal number such as 2 or 0.5), got '" + text + "'");
   if (!d && why == Kiln::SecondsTextError::finerThanNanoseconds)
      a.fail("seconds " + text + " is more precise than the clock (at most 9 decimals)");
   if (!d || *d > room) {
      a.fail("seconds " + text + " is out of range (at most " + Kiln::secondsText(room) +
             " at virtual time " + Kiln::secondsText(scheduler.nowNs()) + ")");
   }
   return *d;
}

// What run and advance did, in the shell or when commands are echoed.
void summarise(Host& host, const char* verb, uint64_t taskRuns) {
   auto& s = host.scheduler();
   host.out() << verb << ": " << Show::count(taskRuns, "task run") << ", virtual time "
              << Kiln::secondsText(s.nowNs()) << " s";
   if (const size_t ready = s.readyTaskCount()) {
      host.out() << ", " << Show::count(ready, "task") << " still ready";
   }
   host.out() << "\n";
}

void showOne(Host& host, const Host::Show& s, bool json) {
   if (Attachment* a = host.attachment()) {
      if (!host.readsHere(s)) {
         host.out() << a->ask("show " + s.table + (json ? " json" : ""));
         return;
      }
      a->refresh();
   }
   if (json) {
      Json::Value top = Json::Value::object();
      top.set(Json::lowerCamel(s.table), s.json());
      host.out() << top.render();
   } else {
      std::string text;
      s.readable(text);
      host.out() << text << "\n";
   }
}

void showAll(Host& host, bool json) {
   Attachment* attached = host.attachment();
   // Attached, the tables only the agent knows come from it, in their place among the others.
   std::string unreachable;
   std::vector<std::string> missed;
   auto ask = [&](const std::string& request, const std::string& table) -> std::string {
      if (unreachable.empty()) {
         try {
            return attached->ask(request);
         } catch (const ScriptError& e) {
            unreachable = e.what();
         }
      }
      if (json) throw ScriptError("show all json: " + unreachable);
      missed.push_back(table);
      return {};
   };
   if (attached) attached->refresh();
   if (json) {
      Json::Value top = Json::Value::object();
      for (const auto& s : host.shows()) {
         if (host.readsHere(s)) {
            top.set(Json::lowerCamel(s.table), s.json());
            continue;
         }
         std::string value = ask("json " + s.table, s.table);
         while (!value.empty() && value.back() == '\n') value.pop_back();
         top.set(Json::lowerCamel(s.table), Json::Value::rendered(std::move(value)));
      }
      host.out() << top.render();
      return;
   }
   for (const auto& s : host.shows()) {
      if (!host.readsHere(s)) {
         host.out() << ask("show " + s.table, s.table);
         continue;
      }
      std::string text;
      s.readable(text);
      host.out() << text << "\n";
   }
   if (!missed.empty()) {
      host.out() << "Not shown, only the agent has them:";
      for (const auto& t : missed) host.out() << " " << t;
      host.out() << "\n(" << unreachable << ")\n";
   }
}

// Attached to a router's agent, time is the agent's real time and the core runs there: run and
// advance wait for it; what acts on the core or its scheduler is refused with the way to do it.
void registerAttachedTime(Host& host) {
   Attachment& attached = *host.attachment();
   host.verbIs("run", "run",
               "wait until the agent has taken in every change written so far, has no task ready "
               "and has published the result; work put off to a timer is not waited for",
               [&attached](Args& a) -> Host::Apply {
                  if (!a.done()) {
                     a.fail("attached to router " + attached.router() +
                            ", run waits for the agent and takes no count of task runs");
                  }
                  return [&attached] { attached.sync("run"); };
               });
   host.verbIs("advance", "advance <seconds>",
               "wait that many seconds of real time (the agent's timers due meanwhile fire "
               "there), then as run",
               [&attached](Args& a) -> Host::Apply {
                  const std::string text = a.word("seconds");
                  const auto d = Kiln::parseSeconds(text);
                  if (!d)
                     a.fail("expected seconds (a decimal number such as 2 or 0.5), got '" + text +
                            "'");
                  if (*d > std::chrono::hours(24)) a.fail("advance waits at most a day");
                  return [&attached, d = *d] {
                     std::this_thread::sleep_for(d);
                     attached.sync("advance");
                  };
               });
   const std::string agentCommand = "srte agent --router " + attached.router();
   host.verbIs("restart", "restart", "(attached) refused: restart the agent process instead",
               [agentCommand](Args& a) -> Host::Apply {
                  a.fail("the agent runs the core: restart it as a process (stop it with SIGTERM, "
                         "then start '" +
                         agentCommand + "' again); its start-up adopts the published tables");
               });
   auto agentOnly = [&host, agentCommand](const std::string& verb, const std::string& usage) {
      host.verbIs(verb, usage, "(attached) refused: it acts on the agent's own scheduler",
                  [verb, agentCommand](Args& a) -> Host::Apply {
                     a.fail("'" + verb +
                            "' acts on the scheduler of the process that runs the "
                            "core; attached, that is the agent ('" +
                            agentCommand + "')");
                  });
   };
   agentOnly("trace", "trace <level>|off");
   agentOnly("attrlog congested", "attrlog congested on|off");
   agentOnly("scheduler slice", "scheduler slice <n>");
}

void registerInProcessTime(Host& host) {
   host.verbIs(
       "run", "run [<task runs>]",
       "process all ready work (or at most that many task runs); virtual time does not move",
       [&host](Args& a) -> Host::Apply {
          size_t runs = SIZE_MAX;
          if (!a.done()) runs = a.number("task runs");
          return [&host, runs] {
             const size_t done = host.scheduler().runUntilIdle(runs);
             if (host.verbose()) summarise(host, "run", done);
          };
       });

   // Slices of one work unit make every task yield after each key: the bookmarks and requeues
   // are then exercised at every step.
   host.verbIs("advance", "advance <seconds>",
               "move virtual time forward, firing in order every timer due by the new time",
               [&host](Args& a) -> Host::Apply {
                  const Kiln::Duration d = parseAdvance(a, host.scheduler());
                  return [&host, d] {
                     const uint64_t before = host.scheduler().taskRunCount();
                     host.scheduler().advance(d);
                     if (host.verbose()) {
                        summarise(host, "advance", host.scheduler().taskRunCount() - before);
                     }
                  };
               });

   host.verbIs("restart", "restart",
               "drop every state machine and all in-process state, keep shared tables, start again",
               [&host](Args&) -> Host::Apply { return [&host] { host.restart(); }; });

   host.verbIs("trace", "trace <level>|off",
               "write the text trace up to that level (0 to 9) to standard error",
               [&host](Args& a) -> Host::Apply {
                  int level = -1;
                  if (!a.accept("off")) level = static_cast<int>(a.number("trace level", 9));
                  // The core's machines and the platform helpers they use.
                  return [&host, level] {
                     host.core().tracer().textLevelIs(level);
                     Trace::textLevelIs(level);
                  };
               });

   host.verbIs("attrlog congested", "attrlog congested on|off",
               "mark the attribute-log output to other processes congested (tasks back off)",
               [&host](Args& a) -> Host::Apply {
                  const bool on = a.onOff("attrlog congested");
                  return [&host, on] { host.attrLog().attrLogOutCloggedIs(on); };
               });

   host.verbIs("scheduler slice", "scheduler slice <n>",
               "ask every task to yield after n units of work (0: the default slice)",
               [&host](Args& a) -> Host::Apply {
                  const auto n = static_cast<uint32_t>(a.number("work units per slice", 1000000));
                  return [&host, n] { host.scheduler().yieldEveryIs(n); };
               });
}

void registerCommon(Host& host) {
   host.verbIs("show", "show <table>|all [json]", "print a table, readable or as JSON",
               [&host](Args& a) -> Host::Apply {
                  std::string table = a.word("table name; 'help show' lists the tables");
                  const bool json = a.accept("json");
                  std::vector<std::string> names{"all"};
                  for (const auto& t : host.shows()) names.push_back(t.table);
                  std::vector<std::string> ambiguous;
                  const std::string named = matchWord(table, names, &ambiguous);
                  if (named == "all") return [&host, json] { showAll(host, json); };
                  const Host::Show* s = host.show(named);
                  if (!s && ambiguous.size() > 1) {
                     std::string msg = "ambiguous table '" + table + "': it begins";
                     for (const auto& n : ambiguous) msg += " " + n;
                     a.fail(msg);
                  }
                  if (!s) {
                     std::string msg = "unknown table '" + table + "'";
                     std::string guess = nearest(table, names);
                     if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
                     msg += "; tables:";
                     for (const auto& n : names) msg += " " + n;
                     a.fail(msg);
                  }
                  return [&host, s, json] { showOne(host, *s, json); };
               });

   host.verbIs(
       "help", "help [<word>]", "list the commands (those starting with <word>) and tables",
       [&host](Args& a) -> Host::Apply {
          std::string word;
          if (!a.done()) word = a.word("word");
          return [&host, word] {
             // Usage lines are long: each command gets its usage line, then its summary.
             std::string text;
             for (const auto& v : host.verbs()) {
                if (word.empty() || v.name.compare(0, word.size(), word) == 0 ||
                    (v.name.rfind("no ", 0) == 0 && v.name.compare(3, word.size(), word) == 0)) {
                   text += v.usage + "\n    " + v.summary + "\n";
                }
             }
             if (word.empty() || word == "show") {
                if (!text.empty()) text += "\n";
                Show::TextTable tables({"Table", "Holds"});
                for (const auto& s : host.shows()) tables.rowIs({s.table, s.summary});
                tables.rowIs({"all", "every table above"});
                tables.render(text);
             }
             if (text.empty()) text = "no command starts with '" + printable(word) + "'\n";
             host.out() << text;
          };
       });

   host.verbIs("load", "load <file>",
               "run the commands of a script file here; its first refused line stops it",
               [&host](Args& a) -> Host::Apply {
                  const std::string path = a.word("file name");
                  return [&host, path] { loadFile(host, path); };
               });

   host.verbIs("quit", "quit", "stop reading commands",
               [&host](Args&) -> Host::Apply { return [&host] { host.quitIs(); }; });
   host.verbIs("exit", "exit", "stop reading commands (as quit)",
               [&host](Args&) -> Host::Apply { return [&host] { host.quitIs(); }; });
}

} // namespace

void registerCore(Host& host) {
   if (host.attachment()) {
      registerAttachedTime(host);
   } else {
      registerInProcessTime(host);
   }
   registerCommon(host);
}

void registerCoreTables(Host& host) {
   host.showIs("scheduler", "virtual time, ready tasks, timers, attribute-log congestion", [&host] {
      auto& s = host.scheduler();
      const auto next = s.nextTimerDelayNs();
      const Json::Value now = Json::Value::seconds(s.nowNs());
      std::string timers = std::to_string(s.timerCount());
      if (next) timers += " (next in " + Kiln::secondsText(*next) + " s)";
      const bool clogged = host.attrLog().isAttrLogOutClogged();
      // While SR-TE is disabled the core has no tasks: run and advance move only time.
      const bool running = host.agentRunning();
      return Show::View()
          .fieldIs("Agent", "agentRunning",
                   Show::flag(running, "running", "stopped (SR-TE disabled)"))
          .fieldIs("Virtual time", "now", Show::cell(now.text() + " s", now))
          .fieldIs("Ready tasks", "readyTasks", Show::number(s.readyTaskCount()))
          .fieldIs("Timers", "timers",
                   Show::cell(std::move(timers), Json::Value::number(uint64_t{s.timerCount()})))
          .fieldIs("", "nextTimerDelay",
                   Show::cell("", next ? Json::Value::seconds(*next) : Json::Value::null()))
          .fieldIs("Attribute log congested", "attrLogOutClogged",
                   Show::flag(clogged, Show::onOff(true), Show::onOff(false)))
          .fieldIs("Restarts", "restarts", Show::number(host.restartCount()))
          .inlineJson();
   });

   host.showIs("syslog", "every system-log message so far: tag and formatted text", [&host] {
      const auto& records = host.syslog().records();
      Show::Table t({{"Seq", "seq"},
                     {"Severity", "severity", Show::ColumnKind::enumeration},
                     {"Tag", "tag"},
                     {"Message", "text"}});
      uint64_t seq = 0;
      for (const auto& r : records) {
         t.rowIs({Show::number(++seq),
                  Show::enumerated(r.severity, Syslog::severityName(r.severity)),
                  Show::string(r.tag), Show::string(r.text)});
      }
      return Show::View()
          .lineIs("System log: " + Show::count(records.size(), "message"))
          .tableIs("", std::move(t));
   });
}

} // namespace Agent
