// Host: the agent process around the policy core, driven by scenario scripts.
//
// What it owns, by lifetime:
//  - for the whole run: the one task scheduler (virtual time, starting at 0), the attribute-log
//    writer whose congestion the state machines test, the system-log capture, and every table
//    that belongs to other processes or to the platform (configuration, input tables, MPLS state,
//    counters) or that is published through shared memory. `restart` keeps all of these.
//  - per process incarnation: the state machines and their private entities. `restart` drops
//    them and builds them again, stage by stage, in construction order.
//
// Extending it. A subsystem adds itself without touching a central switch:
//  1. agent/<Subsystem>Commands.cpp defines `void registerSubsystem(Host& host)` and adds one
//     line to the list in agent/Modules.cpp (the only shared place);
//  2. its verbs: `host.verbIs("lfib route", usage, summary, parse)`; the parser reads the words
//     through Args and returns the change as a closure, which the host runs only if the whole
//     line parsed (a line with an error changes nothing). Multi-word verbs ("no input") are
//     matched on their longest registered prefix, word by word, in any case and abbreviated
//     when unambiguous (see matchWord); the shell completes them from the same registrations;
//  3. its tables: `host.showIs("segments", summary, readable, json)`; `show segments [json]` and
//     `show all [json]` then include them (in registration order);
//  4. its long-lived state (shared or published tables): a struct of its own, reached through
//     `host.shared<SegmentTables>()`, made on first use and kept across restarts;
//  5. its state machines: `host.stageIs(order, "segments", build, drop)`; `build` makes them,
//     usually inside `host.process<SegmentProcess>()` (made on first use, destroyed by restart in
//     reverse order of creation); `drop` (optional) runs first, in reverse stage order, for
//     anything that must happen while everything still exists.
// The router's own state that every subsystem reads (config(), policyInputSource(), mplsConfig(),
// mplsStatus(), hardwareStatus(), counterTable(), scheduler(), attrLog()) has accessors here.
//
//    struct SegmentTables { Mox::Ptr<SegmentStatus> status = ...; };       // survives restart
//    struct SegmentProcess { Mox::Ptr<SegmentSm> sm; };                    // rebuilt by restart
//    void registerSegments(Host& host) {
//       host.stageIs(30, "segments", [&host] {
//          host.process<SegmentProcess>().sm =
//              segmentSmFactory(host.mplsStatus(), host.shared<SegmentTables>().status, ...);
//       });
//       host.showIs("segments", "canonical segments", readableFn, jsonFn);
//       host.verbIs("segment poke", "segment poke <id>", "...", [&host](Args& a) -> Host::Apply {
//          const uint64_t id = a.number("segment id");       // throws ScriptError on bad input
//          return [&host, id] { /* the change */ };
//       });
//    }
//
// Guarantees:
//  - nothing runs tasks except `run` and `advance` (verbs change inputs; reactors only queue);
//  - a line that fails to parse changes nothing;
//  - `restart` drops every stage's state (drop functions in reverse order, then process objects
//    in reverse creation order), then builds the stages again in ascending order.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeindex>
#include <vector>

#include "agent/Args.h"
#include "agent/Json.h"
#include "platform/FlexCounters.h"
#include "platform/Kiln.h"
#include "platform/Mpls.h"
#include "platform/RoutingHardware.h"
#include "platform/Syslog.h"
#include "types/SrTeColorDscpMap.h"
#include "types/SrTePolicy.h"

namespace Agent {

class Host {
 public:
   using Apply = std::function<void()>;
   using Parse = std::function<Apply(Args&)>;
   using ShowText = std::function<void(std::string& out)>;
   using ShowJson = std::function<Json::Value()>;
   using StageFn = std::function<void()>;

   struct Verb {
      std::string name; // one or more words: "run", "lfib route", "no input"
      std::string usage;
      std::string summary;
      Parse parse;
   };
   struct Show {
      std::string table;
      std::string summary;
      ShowText readable;
      ShowJson json;
   };

   explicit Host(std::ostream& out);
   ~Host();
   Host(const Host&) = delete;
   Host& operator=(const Host&) = delete;

   // ---- extension API (see the header comment)
   void verbIs(std::string name, std::string usage, std::string summary, Parse parse);
   void showIs(std::string table, std::string summary, ShowText readable, ShowJson json);
   void stageIs(int order, std::string name, StageFn build, StageFn drop = {});

   template <class T>
   T& shared() {
      return slot<T>(shared_);
   }
   template <class T>
   T& process() {
      return slot<T>(process_);
   }
   // The process object if a stage made it, else null (for shows that run before start).
   template <class T>
   T* processIf() {
      for (auto& s : process_) {
         if (s.type == typeid(T)) return static_cast<T*>(s.object.get());
      }
      return nullptr;
   }

   // ---- running
   // Builds every stage (once, after the modules registered).
   void start();
   // Drops the in-process state and builds it again.
   void restart();
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
   };
   VerbMatch matchVerb(const std::vector<std::string>& tokens) const;
   void execute(std::string_view line) {
      if (auto a = parse(line)) a();
   }

   // ---- what verbs and shows use
   std::ostream& out() { return *out_; }
   Kiln::TaskScheduler& scheduler() { return *scheduler_; }
   Kiln::AttrLogSm& attrLog() { return *attrLog_; }
   const Syslog::Capture& syslog() const { return syslog_; }
   // The router's state that the policy core is given (other processes own it; restarts keep it).
   const Mox::Ptr<SrTePolicy::Config>& config() const { return config_; }
   const Mox::Ptr<SrTePolicy::Status>& status() const { return status_; }
   const Mox::Ptr<SrTePolicy::ColorDscpMap>& colorDscpMap() const { return colorDscpMap_; }
   const Mox::Ptr<SrTePolicy::PolicyInputSource>& policyInputSource() const {
      return policyInputSource_;
   }
   // The platform: MPLS configuration (label ranges) and forwarding status (LFIB routes,
   // adjacencies), hardware limits, tunnel counters.
   const Mox::Ptr<Mpls::Config>& mplsConfig() const { return mplsConfig_; }
   const Mox::Ptr<Mpls::Status>& mplsStatus() const { return mplsStatus_; }
   const Mox::Ptr<Routing::Hardware::Status>& hardwareStatus() const { return hardwareStatus_; }
   const Mox::Ptr<FlexCounters::CounterTable>& counterTable() const { return counterTable_; }
   double now() const { return scheduler_->now(); }
   const std::vector<Verb>& verbs() const { return verbs_; }
   const std::vector<Show>& shows() const { return shows_; }
   const Show* show(std::string_view table) const;
   bool quitRequested() const { return quit_; }
   void quitIs() { quit_ = true; }
   uint32_t restartCount() const { return restarts_; }

 private:
   struct Slot {
      std::type_index type;
      std::shared_ptr<void> object;
   };
   struct Stage {
      int order;
      std::string name;
      StageFn build;
      StageFn drop;
   };

   template <class T>
   T& slot(std::vector<Slot>& slots) {
      for (auto& s : slots) {
         if (s.type == typeid(T)) return *static_cast<T*>(s.object.get());
      }
      std::shared_ptr<T> made;
      if constexpr (std::is_constructible_v<T, Host&>) {
         made = std::make_shared<T>(*this);
      } else {
         made = std::make_shared<T>();
      }
      slots.push_back(Slot{typeid(T), made});
      return *made;
   }
   static void clearSlots(std::vector<Slot>& slots);
   void dropStages();
   void buildStages();

   std::ostream* out_;
   Mox::Ptr<Kiln::TaskScheduler> scheduler_;
   Mox::Ptr<Kiln::AttrLogSm> attrLog_;
   Syslog::Capture syslog_;
   Mox::Ptr<SrTePolicy::Config> config_;
   Mox::Ptr<SrTePolicy::Status> status_;
   Mox::Ptr<SrTePolicy::ColorDscpMap> colorDscpMap_;
   Mox::Ptr<SrTePolicy::PolicyInputSource> policyInputSource_;
   Mox::Ptr<Mpls::Config> mplsConfig_;
   Mox::Ptr<Mpls::Status> mplsStatus_;
   Mox::Ptr<Routing::Hardware::Status> hardwareStatus_;
   Mox::Ptr<FlexCounters::CounterTable> counterTable_;
   std::vector<Verb> verbs_;
   std::vector<Show> shows_;
   std::vector<Stage> stages_;
   std::vector<Slot> shared_;
   std::vector<Slot> process_;
   bool started_ = false;
   bool quit_ = false;
   uint32_t restarts_ = 0;
};

} // namespace Agent
