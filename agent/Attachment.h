// Attachment: what makes a Host the CLI attached to a router's agent (`srte --router NAME`).
//
// The agent process runs the core; this host never starts its own (HostOptions::runCore off). It
// keeps the router's inputs and shares them, and asks the agent what only the agent knows:
//  - input tables: at start, each protocol's shared table that exists is read into the host's
//    in-process table, so that `show input` and the input verbs see it. A verb about to change
//    one claims the shared table first (claimInput, at parse time, so a refused line changes
//    nothing): this process becomes its writer, or the line is refused with the holder's name.
//    Once claimed, the shared contents are loaded again and every local change is written
//    through; a table removed here is removed from shared memory, which the agent sees as gone.
//    Tables this process does not write are read again before each show (refresh);
//  - `run` (sync): asks the agent's control socket to take in every change written so far and
//    answers once it has no task ready; on a terminal a wait longer than a second shows the
//    agent's progress; bounded by syncTimeout;
//  - tables: ask() forwards `show` and `json` requests to the agent.
//  - the router's own tables (configuration, color-to-DSCP map, MPLS configuration and status,
//    hardware, counters): loaded from shared memory at start and before each show, and written
//    through a RouterTablesWriter. A verb names the tables it changes (verbWritesRouterTables):
//    they are claimed at parse time like the input tables, so a table another process writes
//    refuses the line before it changes anything. afterCommand reports what still could not be
//    shared (a label-range name too long for the table).
//  - the published tables: read from shared memory into the host's (never started) core before
//    each show, so they show what forwarding has, also while the agent is down.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "agent/InputMirror.h"
#include "agent/PublishedMirror.h"
#include "agent/RouterTablesShm.h"
#include "types/SrTePolicy.h"

namespace Agent {

class Host;

class Attachment {
 public:
   explicit Attachment(Host& host);
   ~Attachment();
   Attachment(const Attachment&) = delete;
   Attachment& operator=(const Attachment&) = delete;

   static constexpr std::chrono::seconds syncTimeout{60};

   const std::string& router() const noexcept { return router_; }
   // The agent's answer to a control request. Throws ScriptError when no agent runs or it refuses.
   std::string ask(const std::string& request);
   // Waits until the agent has taken in every change written before and has no task ready. What
   // it did goes to the host's output when the host is verbose. Throws ScriptError.
   void sync(const char* verb);
   // The agent's Status.agentEnabled; empty when no agent answers.
   std::optional<bool> agentEnabled();
   // Whether a table of that kind is read here rather than asked of the agent.
   bool readsPublishedLocally() const noexcept { return true; }

   // Makes this process the writer of the protocol's shared input table. Throws
   // Vault::Shm::WriterBusy when another live process writes it.
   void claimInput(SrTePolicy::Protocol protocol);
   // Takes in what other processes changed in the shared tables this one does not write.
   void refresh();
   // The same for the input tables alone.
   void refreshInputs();
   // Makes this process the writer of those router tables, after taking in what they hold when it
   // does not write them yet. Throws Vault::Shm::WriterBusy when another live process writes one.
   void claimRouterTables(const std::vector<std::string>& tables);
   // After each command: throws ScriptError when a change it made could not be shared.
   void afterCommand();

 private:
   class MoxSource;
   class MoxTable;
   struct Table {
      std::unique_ptr<InputMirror> reader; // while this process does not write it
      std::unique_ptr<InputMirror::SharedInputWriter> writer;
      std::unique_ptr<MoxTable> watch; // on the local table
      Table();
      Table(Table&&) noexcept;
      ~Table();
   };

   void loadRouterTables();
   void mountShared(SrTePolicy::Protocol protocol);
   void loadFromWriter(SrTePolicy::Protocol protocol);
   void localTableChanged(SrTePolicy::Protocol protocol);
   void localEntryChanged(SrTePolicy::Protocol protocol, const SrTePolicy::PolicyId& id);
   void localTableRewritten(SrTePolicy::Protocol protocol);
   void writeThrough(SrTePolicy::Protocol protocol, const SrTePolicy::PolicyId& id);

   Host& host_;
   std::string router_;
   std::map<SrTePolicy::Protocol, Table> tables_;
   std::unique_ptr<RouterTablesWriter> routerWriter_;
   std::unique_ptr<PublishedReader> published_;
   std::set<std::string> refusalsTold_;
   std::unique_ptr<MoxSource> moxSource_;
   // Changes made here from the shared tables are not written back.
   bool loading_ = false;
};

} // namespace Agent
