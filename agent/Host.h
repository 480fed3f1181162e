// Host: the agent process around the policy core, driven by scenario scripts.
//
// What it owns, by lifetime:
//  - for the whole run: the one task scheduler (virtual time, starting at 0), the attribute-log
//    writer whose congestion the state machines test, and every table that belongs to other
//    processes or to the platform (configuration, input tables, MPLS state, counters);
//  - the policy core (SrTePolicy::PolicyCore, core/SrTePolicyCore.h), built over those tables. It
//    holds the published tables, the system log and the trace context, and builds and orders every
//    state machine; `restart` restarts it;
//  - for the whole run, the static input writer (configured static policies into the input
//    tables); per incarnation, the restart watch (`show restart`), made between the core's stop
//    and its next start.
//
// Extending it. A subsystem adds itself without touching a central switch:
//  1. agent/<Subsystem>Commands.cpp defines `void registerSubsystem(Host& host)` and adds one
//     line to the list in agent/Modules.cpp (the only shared place);
//  2. its verbs: `host.verbIs("lfib route", usage, summary, parse)`; the parser reads the words
//     through Args and returns the change as a closure, which the host runs only if the whole
//     line parsed (a line with an error changes nothing). Multi-word verbs ("no input") are
//     matched on their longest registered prefix, word by word, in any case and abbreviated
//     when unambiguous (see matchWord); the shell completes them from the same registrations;
//  3. its tables: `host.showIs("segments", summary, view)`, where `view` builds a Show::View (rows
//     of typed cells, agent/ShowTable.h) from which both forms are rendered; `show segments
//     [json]` and `show all [json]` then include them (in registration order);
//     a table over the router's tables or the published ones says so (Reads): attached to an
//     agent, the others are asked of the agent;
//  4. its state machines and the tables they share or publish live in the core, not here: add
//     them there (see core/SrTePolicyCore.h) and reach them through `host.core()`;
//  5. host-private state is a plain member of Host, made and dropped in buildStages() and
//     dropStages() when it lives one incarnation.
// The router's own state that every subsystem reads (config(), policyInputSource(), mplsConfig(),
// mplsStatus(), hardwareStatus(), counterTable(), scheduler(), attrLog()) has accessors here.
//
//    void registerSegments(Host& host) {
//       host.showIs("segments", "canonical segments", viewFn);  // reads host.core()
//       host.verbIs("segment poke", "segment poke <id>", "...", [&host](Args& a) -> Host::Apply {
//          const uint64_t id = a.number("segment id");       // throws ScriptError on bad input
//          return [&host, id] { /* the change */ };
//       });
//    }
//
// Guarantees:
//  - nothing runs tasks except `run` and `advance` (verbs change inputs; reactors only queue);
//  - a line that fails to parse changes nothing;
//  - start starts the core; `restart` drops the restart watch, stops the core, makes a new
//    restart watch over what the stopped core left, then starts the core again;
//  - the core runs exactly while Config.enabled is on. The host starts as a router on which
//    SR-TE is configured (enabled on). Turning it off tears the core down at once, withdrawing
//    every output (PolicyCore::tearDown); turning it on starts it as after a restart, and the
//    next `run` brings everything back. The host, not the core, watches the flag: it owns the
//    process and decides when the core lives, as it does for `restart`, and tests and
//    benchmarks embed a core that runs whatever the flag says. A `restart` while disabled
//    leaves the core stopped.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/Args.h"
#include "agent/Json.h"
#include "agent/ShowTable.h"
#include "agent/StaticInputWriter.h"
#include "core/SrTePolicyMachines.h"
#include "core/SrTePolicyRestartWatch.h"
#include "platform/FlexCounters.h"
#include "platform/Kiln.h"
#include "platform/MoxSlab.h"
#include "platform/Mpls.h"
#include "platform/RoutingHardware.h"
#include "platform/Syslog.h"

namespace Agent {

// How a host is made. The defaults are the in-process router of `srte`: virtual time, and the host
// plays the configuration handler too (it writes the configured static policies into the static
// input table).
struct HostOptions {
   // The router whose shared tables this host works with; empty for the in-process router.
   std::string router;
   Kiln::TaskScheduler::ClockMode clock = Kiln::TaskScheduler::ClockMode::virtualTime;
   // Off in the agent process: there the static input table comes from the process that handles
   // the configuration, as every input table comes from its writer.
   bool writeStaticInput = true;
   // Off in the CLI attached to a router (`srte --router NAME`): the router's agent process runs
   // the core; this host shares its inputs and asks the agent (agent/Attachment.h).
   bool runCore = true;
   // When set, what restarts did to the published tables is counted by it instead of by watching
   // the in-process entities: the agent counts what it wrote to the shared tables, the only
   // thing another process sees of its start, and keeps no copy of every row to compare with.
   std::function<std::vector<SrTePolicy::RestartWatch::Counts>()> restartCounts;
};

class Attachment;

class Host {
 public:
   using Apply = std::function<void()>;
   using Parse = std::function<Apply(Args&)>;
   using ShowText = std::function<void(std::string& out)>;
   using ShowJson = std::function<Json::Value()>;
   using ShowView = std::function<::Show::View()>;

   // What a table shows, and so where a host attached to an agent reads it.
   enum class Reads {
      router,    // the router's tables (configuration, inputs, MPLS state): read here
      published, // the core's published tables: what forwarding has
      agent,     // the core's machines and in-process entities: only the agent knows them
   };
   struct Verb {
      std::string name; // one or more words: "run", "lfib route", "no input"
      std::string usage;
      std::string summary;
      Parse parse;
      // A show of its own (`show policy`) over what only the agent knows.
      bool asksAgent = false;
      // The router's shared tables (agent/RouterTablesShm.h) the verb may change.
      std::vector<std::string> routerTables;
   };
   struct Show {
      std::string table;
      std::string summary;
      ShowText readable;
      ShowJson json;
      Reads reads;
   };

   explicit Host(std::ostream& out, HostOptions options = {});
   ~Host();
   Host(const Host&) = delete;
   Host& operator=(const Host&) = delete;

   // ---- extension API (see the header comment)
   void verbIs(std::string name, std::string usage, std::string summary, Parse parse);
   // The verb shows what only the agent knows: attached, the line is asked of the agent.
   void verbAsksAgent(std::string_view name);
   // The verb changes these router tables: attached, this process claims them (becomes their
   // writer) before the line is applied, and the line is refused, changing nothing, when another
   // live process writes one of them.
   void verbWritesRouterTables(std::string_view name, std::vector<std::string> tables);
   // A table reads the core's machines or in-process entities unless it says otherwise.
   void showIs(std::string table, std::string summary, ShowText readable, ShowJson json,
               Reads reads = Reads::agent);
   // The usual form: one view (agent/ShowTable.h) makes both the readable text and the JSON.
   void showIs(std::string table, std::string summary, ShowView view, Reads reads = Reads::agent);

   // ---- running
   // Starts the core when SR-TE is enabled (once, after the modules registered).
   void start();
   // Drops the in-process state and builds it again.
   void restart();
   // Starts as start() does, over published tables an earlier incarnation left (the agent
   // process found them in shared memory): `show restart` then counts what this start did to
   // them, as after `restart`.
   void startAsRestart();
   // The host as a new one is after its modules registered and it started: a new scheduler at
   // time 0, the router's tables, the core and everything per session made again; the
   // registrations (verbs, tables) and the output stream are kept. For a caller that runs many
   // sessions one after another (the fuzz targets).
   void reset();
   // Parses one line; the returned change is empty for a blank or comment line. Throws
   // ScriptError.
   Apply parse(std::string_view line) const;
   // The verb that the first words of a line name (see matchWord), for the parser and for
   // completion. `words` are the verb words matched so far (full words), `choices` the words
   // that could come next among verbs, `ambiguous` what the first unmatched word begins.
   struct VerbMatch {
      const Verb* verb = nullptr;
      size_t verbWords = 0;
      std::vector<std::string> words;
      std::vector<std::string> choices;
      std::vector<std::string> ambiguous;
      // The ambiguity is between longer verbs and the first argument of `verb`.
      bool ambiguousArgument = false;
   };
   // The keywords the usage of `verb` allows as its first argument (tables for show).
   std::vector<std::string> firstArgumentWords(const Verb& verb, size_t verbWords) const;
   VerbMatch matchVerb(const std::vector<std::string>& tokens) const;
   void execute(std::string_view line) {
      if (auto a = parse(line)) a();
   }

   // ---- what verbs and shows use
   std::ostream& out() { return *out_; }
   // Where the commands print from now on (the agent answers each control request into its own).
   void outIs(std::ostream& out) { out_ = &out; }
   // The router whose shared tables this host works with; empty for the in-process router.
   const std::string& routerName() const { return options_.router; }
   const HostOptions& options() const { return options_; }
   // The CLI attached to a router's agent; null for the in-process router and the agent itself.
   Attachment* attachment() { return attachment_.get(); }
   // Whether this host shows the table itself (else the agent is asked).
   bool readsHere(const Show& s) const;
   // A verb is about to change the protocol's input table: attached, this process must become
   // the table's writer, else the line fails (naming the holder) before anything changes.
   void claimInput(SrTePolicy::Protocol protocol, const Args& a);
   // The same for a configuration change that the static input writer turns into records: only
   // while the static input table exists.
   void claimStaticInput(const Args& a);
   Kiln::TaskScheduler& scheduler() { return *scheduler_; }
   const Kiln::TaskScheduler& scheduler() const { return *scheduler_; }
   Kiln::AttrLogSm& attrLog() { return *router_.attrLog; }
   SrTePolicy::PolicyCore& core() { return *core_; }
   const SrTePolicy::PolicyCore& core() const { return *core_; }
   // The core's system log.
   const Syslog::Capture& syslog() const { return core_->syslogCapture(); }
   // The router's state that the policy core is given (other processes own it; restarts keep it).
   const Mox::Ptr<SrTePolicy::Config>& config() const { return router_.config; }
   const Mox::Ptr<SrTePolicy::Status>& status() const { return router_.status; }
   const Mox::Ptr<SrTePolicy::ColorDscpMap>& colorDscpMap() const { return router_.colorDscpMap; }
   const Mox::Ptr<SrTePolicy::PolicyInputSource>& policyInputSource() const {
      return router_.input;
   }
   // The platform: MPLS configuration (label ranges) and forwarding status (LFIB routes,
   // adjacencies), hardware limits, tunnel counters.
   const Mox::Ptr<Mpls::Config>& mplsConfig() const { return router_.mplsConfig; }
   const Mox::Ptr<Mpls::Status>& mplsStatus() const { return router_.mplsStatus; }
   const Mox::Ptr<Routing::Hardware::Status>& hardwareStatus() const {
      return router_.hardwareStatus;
   }
   const Mox::Ptr<FlexCounters::CounterTable>& counterTable() const { return router_.counterTable; }
   // All of the above at once, as the core is handed them.
   const SrTePolicy::StandaloneRouter& router() const { return router_; }
   double now() const { return scheduler_->now(); }
   const std::vector<Verb>& verbs() const { return verbs_; }
   const std::vector<Show>& shows() const { return shows_; }
   const Show* show(std::string_view table) const;
   bool quitRequested() const { return quit_; }
   void quitIs() { quit_ = true; }

   // ---- the session around the commands
   // Commands that print nothing of their own (run, advance, write) say in one line what they did:
   // in the interactive shell and when commands are echoed. Scripts print only what they show.
   bool verbose() const { return verbose_; }
   void verboseIs(bool v) { verbose_ = v; }
   // Each command is printed before its output (srte -x); `load` echoes the file's as well.
   bool echo() const { return echo_; }
   void echoIs(bool e) { echo_ = e; }
   // A warning about the command being applied: whoever runs the command reports it with the
   // command's place (a script's line).
   void warn(std::string text) { warnings_.push_back(std::move(text)); }
   std::vector<std::string> takeWarnings() { return std::exchange(warnings_, {}); }
   // How many `load` commands are running inside each other.
   int& loadDepth() { return loadDepth_; }
   uint32_t restartCount() const { return restarts_; }
   // The core is running (SR-TE enabled); while it is not, its machines and in-process entities
   // do not exist and the published tables are empty.
   bool agentRunning() const { return core_->started(); }
   // The core's in-process entities; empty ones while the agent is stopped, for the tables.
   const SrTePolicy::ProcessEntities& coreEntities();
   // What the last restart's start-up (and everything after it) did to the published tables,
   // per table; nothing before the first restart.
   std::optional<std::vector<SrTePolicy::RestartWatch::Counts>> restartCounts() const;
   // Whether the session was told that static policies wait for their input table (said once
   // until the table appears).
   bool& staticTableWarned() { return staticTableWarned_; }

 private:
   class AgentEnable;

   void dropStages();
   void buildStages();
   // What the constructor makes and the destructor drops, each in its order.
   void makeAll();
   void dropAll();
   void handleEnabled();

   HostOptions options_;
   std::ostream* out_;
   // The core's memory, kept across reset() and outliving everything made in it. Each command
   // runs with it current, so what a command makes for the core comes from it.
   const std::unique_ptr<Mox::Arena> arena_ = std::make_unique<Mox::Arena>();
   Mox::Ptr<Kiln::TaskScheduler> scheduler_;
   SrTePolicy::StandaloneRouter router_;
   std::unique_ptr<SrTePolicy::PolicyCore> core_;
   std::unique_ptr<AgentEnable> agentEnable_;
   std::vector<Verb> verbs_;
   // Each verb's name split into words, once: matching a line reads them for every verb.
   std::vector<std::vector<std::string>> verbWords_;
   std::vector<Show> shows_;
   std::unique_ptr<StaticInputWriter> staticInputWriter_;
   std::unique_ptr<Attachment> attachment_;
   std::unique_ptr<SrTePolicy::RestartWatch> restartWatch_;
   // coreEntities() while the core is stopped.
   std::unique_ptr<SrTePolicy::ProcessEntities> noEntities_;
   bool started_ = false;
   bool quit_ = false;
   bool verbose_ = false;
   bool echo_ = false;
   int loadDepth_ = 0;
   bool staticTableWarned_ = false;
   std::vector<std::string> warnings_;
   uint32_t restarts_ = 0;
};

} // namespace Agent
