// PolicyCore: the policy core assembled, the one front door of the library.
//
// A program embedding the core (the agent, `srte`, tests, benchmarks) hands it the router's tables
// and gets every entity and state machine built in construction order, with their inputs bound by
// name. What lives how long:
//  - RouterTables: owned by other processes and the platform; they outlive the core.
//  - PublishedTables: shared-memory tables this core writes and other processes read. They
//    outlive an agent restart, and a new core may be handed those of an earlier one (a process
//    that died and came back finds its shared memory again); made here when not handed in.
//  - ProcessEntities: the in-process entities the machines share (dedup tables, reverse maps).
//  - the state machines.
// `start()` builds the process entities, then the machines; `prepare()` builds the entities
// alone, for a caller that puts something in them before any machine starts (a test's restart
// backlog, a benchmark's cold start over existing lists). `stop()` destroys the machines, last
// built first, then the process entities; `restart()` is both, over what survives. The machines'
// `handleInitialized` reconciles the published tables with the input on the next start.
// `tearDown()` is the stop of SR-TE turned off: every machine withdraws its outputs first. The
// core does not watch Config.enabled itself: the program that embeds it decides when it runs
// (tests and benchmarks run it whatever the flag says).
//
// Each core has its own memory arena (Mox::Arena, platform/MoxSlab.h), owned or handed in: the
// entities and tables its start, stop and tasks make come from it, so two cores in one process
// share no block. A program that changes the core's inputs outside its tasks (a host applying a
// command) makes the arena current around it (`Mox::Arena::Scope`); what is made elsewhere comes
// from the process arena and is freed to it wherever it goes.
//
// Each core has its own system log (`syslog()`, with a capture of every record) and its own trace
// context (`tracer()`): two cores in one process never see each other's messages or traces. Code
// outside the machines (platform helpers such as the dedup facility) still traces through the
// process tracer.
//
// Adding a state machine takes:
//  1. in its own files: `struct Inputs` naming every entity it reads and writes, plus the
//     scheduler, attribute log, `Syslog::Log&` and `Trace::Tracer&` (the core's own, required),
//     and `xxxSmFactory(Inputs)`;
//     its nested reactors (`MoxConfig`, ...) derive from `Mox::Reactor<Entity::Notifiee, Sm>`
//     and forward each handler to one member (platform/Mox.h);
//  2. the tables it publishes in PublishedTables, the in-process entities it shares in
//     ProcessEntities (each in construction order);
//  3. a member of Machines, a value of Stage and its entry in `machineOrder`, each at its place
//     in construction order, and one `PolicyCore::make` overload that builds it (designated
//     initialisers: every input named). `machineOrder` is the one list of machines: start()
//     builds them in its order and stop() withdraws (when asked) and destroys them in reverse,
//     so a machine with a `handleDel()` is torn down by it with nothing more to write;
//  4. one accessor here;
//  5. its host commands and tables (agent/<Subsystem>Commands.cpp, each table one Show::Table of
//     agent/ShowTable.h), which reach it through `host.core()`.
// Nothing else builds or orders machines.
#pragma once

#include <memory>
#include <tuple>

#include "input/SrTePolicyExportTypes.h"
#include "input/SrTePolicySelectionInput.h"
#include "lfib/SrTePolicyLfibStatus.h"
#include "platform/FlexCounters.h"
#include "platform/Kiln.h"
#include "platform/MoxBulk.h"
#include "platform/MoxSlab.h"
#include "platform/Mpls.h"
#include "platform/RoutingHardware.h"
#include "platform/Syslog.h"
#include "platform/Trace.h"
#include "platform/TunnelTable.h"
#include "platform/VaultFib.h"
#include "publish/SrTePolicyStatus.h"
#include "segment/SrTePolicySegmentList.h"
#include "segment/SrTePolicySegmentListStatus.h"
#include "selection/SrTePolicyEcPolicy.h"
#include "tunnel/SrTePolicyTunnelIdToPolicyKey.h"
#include "types/SrTeColorDscpMap.h"
#include "types/SrTePolicy.h"

namespace SrTePolicy {

// What the router hands in and keeps. Every table must be given.
struct RouterTables {
   Mox::Ptr<const Config> config;
   Mox::Ptr<Status> status;
   Mox::Ptr<const ColorDscpMap> colorDscpMap;
   Mox::Ptr<const PolicyInputSource> input;
   Mox::Ptr<const Mpls::Config> mplsConfig;
   Mox::Ptr<const Mpls::Status> mplsStatus;
   Mox::Ptr<const Routing::Hardware::Status> hardwareStatus;
   Mox::Ptr<const FlexCounters::CounterTable> counterTable;
   Kiln::TaskScheduler* scheduler = nullptr;
   Mox::Ptr<Kiln::AttrLogSm> attrLog;
};

// Empty router tables under their usual names, for a program that plays the router itself
// (`srte`, tests, benchmarks): it writes through these pointers, and `tables()` is the core's
// read-mostly view of them.
struct StandaloneRouter {
   Mox::Ptr<Config> config = configFactory("config");
   Mox::Ptr<Status> status = statusFactory("status");
   Mox::Ptr<ColorDscpMap> colorDscpMap = colorDscpMapFactory("colorDscpMap");
   Mox::Ptr<PolicyInputSource> input = policyInputSourceFactory("policyInputSource");
   Mox::Ptr<Mpls::Config> mplsConfig = Mox::make<Mpls::Config>("mpls");
   Mox::Ptr<Mpls::Status> mplsStatus = Mox::make<Mpls::Status>("mpls");
   Mox::Ptr<Routing::Hardware::Status> hardwareStatus =
       Mox::make<Routing::Hardware::Status>("hardware");
   Mox::Ptr<FlexCounters::CounterTable> counterTable =
       Mox::make<FlexCounters::CounterTable>("tunnelCounters");
   Mox::Ptr<Kiln::AttrLogSm> attrLog = Mox::make<Kiln::AttrLogSm>();

   RouterTables tables(Kiln::TaskScheduler& scheduler) const;
};

// Written by the core, read by other processes; they survive a restart.
struct PublishedTables {
   Mox::Ptr<PolicySelectionInput> policySelectionInput =
       policySelectionInputFactory("policySelectionInput");
   Mox::Ptr<Export::SegmentListCollection> exportedSegmentListColl =
       Export::segmentListCollectionFactory("exportedSegmentLists");
   Mox::Ptr<SegmentListStatus> segmentListStatus =
       Mox::make<SegmentListStatus>("segmentListStatus");
   Mox::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable =
       Mox::make<Tunnel::TunnelTable::SrTeSegmentListTunnelTable>("srTeSegmentListTunnelTable");
   Mox::Ptr<EcPolicy> ecPolicy = ecPolicyFactory("ecPolicy");
   Mox::Ptr<PolicyStatus> policyStatus = policyStatusFactory("policyStatus");
   // The FIB's FEC table, into which the policy FECs are programmed.
   Mox::Ptr<Vault::Fib::ForwardingStatus> srteFwdStatus =
       Mox::make<Vault::Fib::ForwardingStatus>("srteFwdStatus");
   // Tunnel map export: which policy key each segment-list tunnel belongs to.
   Mox::Ptr<TunnelIdToPolicyKey> tunnelIdToPolicyKey =
       tunnelIdToPolicyKeyFactory("tunnelIdToPolicyKey");
   // The protocol LFIB of the binding-SID routes, created with the status.
   static constexpr const char* lfibName = "srTePolicyLfib";
   Mox::Ptr<SrTePolicyLfibStatus> lfibStatus = [] {
      auto status = srTePolicyLfibStatusFactory("srTePolicyLfibStatus");
      status->lfibIs(lfibName);
      return status;
   }();
};

// The machines in construction order. A core built up to one of them leaves the later ones out
// (their accessors give null): a benchmark or test of one stage measures that stage alone, with
// what comes before it in place and nothing reacting after it.
enum class Stage {
   segmentResolution,
   segmentListResolution,
   input,
   selection,
   publishing,
   lfibGeneration,
   tunnelMap,
};

// Defined in core/SrTePolicyMachines.h, for the code that reaches into a running core (the host's
// tables, tests, benchmarks): a program that only drives the core needs neither.
struct ProcessEntities;
struct Machines;
class SegmentResolver;
class SegmentSm;
class SegmentListSm;
class PolicyInputSm;
class PolicySelectionSm;
class PolicyPublishSm;
class SrTePolicyLfibGenSm;
class TunnelMapExportSm;

class PolicyCore {
 public:
   explicit PolicyCore(RouterTables router, PublishedTables published = {},
                       Stage lastStage = Stage::tunnelMap);
   // With an arena of the caller's, which must outlive the core (a host keeps one across the
   // cores it makes).
   PolicyCore(Mox::Arena& arena, RouterTables router, PublishedTables published = {},
              Stage lastStage = Stage::tunnelMap);
   ~PolicyCore();
   PolicyCore(const PolicyCore&) = delete;
   PolicyCore& operator=(const PolicyCore&) = delete;

   // How the machines go.
   enum class StopMode {
      // An agent restart: the published tables stay as they are, for the next start to adopt.
      keepOutputs,
      // SR-TE turned off: each machine's tear-down (`handleDel`) withdraws what it published,
      // last built first, before it is destroyed. The input tables are left alone.
      withdrawOutputs,
   };

   // Builds the process entities (prepare()), then the machines; sets Status.agentEnabled. Does
   // nothing when started.
   void start();
   // Builds the process entities without the machines: what is put in them (through
   // `entities()`) is there when start() builds the machines, as a restart's backlog is. Does
   // nothing when they exist.
   void prepare();
   // Destroys the machines (last built first), then the process entities, and clears
   // Status.agentEnabled. The router tables stay as they are, and so do the published tables
   // unless `mode` withdraws them. Prepared and not started: only the entities go. Does nothing
   // when stopped.
   void stop(StopMode mode = StopMode::keepOutputs);
   // SR-TE turned off: stop(StopMode::withdrawOutputs).
   void tearDown() { stop(StopMode::withdrawOutputs); }
   // The machines' tables and pools are made again at their old sizes: their memory is kept
   // across (Mox::BulkKeep, in the core's arena) rather than given back and zeroed again.
   void restart() {
      Mox::BulkKeep keep(arena_);
      stop();
      start();
   }
   bool started() const noexcept { return machines_ != nullptr; }
   Stage lastStage() const noexcept { return lastStage_; }

   const RouterTables& router() const noexcept { return router_; }
   const PublishedTables& published() const noexcept { return published_; }
   // Only while prepared or started.
   const ProcessEntities& entities() const;
   // Only while started.
   const Mox::Ptr<SegmentResolver>& segmentResolver() const;
   const Mox::Ptr<SegmentSm>& segmentSm() const;
   const Mox::Ptr<SegmentListSm>& segmentListSm() const;
   const Mox::Ptr<PolicyInputSm>& policyInputSm() const;
   const Mox::Ptr<PolicySelectionSm>& policySelectionSm() const;
   const Mox::Ptr<PolicyPublishSm>& policyPublishSm() const;
   // Its handleDel() withdraws every binding-SID route (tearDown()); a plain stop() does not.
   const Mox::Ptr<SrTePolicyLfibGenSm>& lfibGenSm() const;
   const Mox::Ptr<TunnelMapExportSm>& tunnelMapExportSm() const;

   Syslog::Log& syslog() noexcept { return syslog_; }
   // Every record of this core's log since it was made.
   const Syslog::Capture& syslogCapture() const noexcept { return capture_; }
   Trace::Tracer& tracer() noexcept { return tracer_; }
   Mox::Arena& arena() noexcept { return arena_; }

 private:
   PolicyCore(std::unique_ptr<Mox::Arena> own, Mox::Arena* handed, RouterTables router,
              PublishedTables published, Stage lastStage);
   void buildMachines();
   // One per machine of machineOrder, each building it from the tables it is given.
   void make(Mox::Ptr<SegmentResolver>& sm);
   void make(Mox::Ptr<SegmentSm>& sm);
   void make(Mox::Ptr<SegmentListSm>& sm);
   void make(Mox::Ptr<PolicyInputSm>& sm);
   void make(Mox::Ptr<PolicySelectionSm>& sm);
   void make(Mox::Ptr<PolicyPublishSm>& sm);
   void make(Mox::Ptr<SrTePolicyLfibGenSm>& sm);
   void make(Mox::Ptr<TunnelMapExportSm>& sm);

   // First: everything below may hold memory from it.
   std::unique_ptr<Mox::Arena> ownArena_;
   Mox::Arena& arena_;
   RouterTables router_;
   PublishedTables published_;
   Stage lastStage_;
   // Declared before what logs and traces through them, so they outlive it.
   Syslog::Log syslog_;
   Syslog::Capture capture_;
   Trace::Tracer tracer_;
   std::unique_ptr<ProcessEntities> entities_;
   std::unique_ptr<Machines> machines_;
};

} // namespace SrTePolicy
