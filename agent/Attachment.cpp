#include "agent/Attachment.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/Args.h"
#include "agent/ControlSocket.h"
#include "agent/Feed.h"
#include "agent/Host.h"
#include "input/SrTePolicyInputSm.h"

namespace Agent {

using namespace SrTePolicy;

class Attachment::MoxSource : public Mox::Reactor<PolicyInputSource::Notifiee, Attachment> {
 public:
   using Reactor::Reactor;
   void onPolicyInput(const Protocol& p) override { owner().localTableChanged(p); }
   void onPolicyInput() override {
      for (Protocol p : PolicyInputSm::handledProtocols) owner().localTableChanged(p);
   }
};

class Attachment::MoxTable : public Mox::Reactor<PolicyInput::Notifiee, Attachment> {
 public:
   MoxTable(Attachment& a, Protocol p, const Mox::Ptr<PolicyInput>& table)
       : Reactor(a, table), protocol_(p) {}
   void onPolicyInputEntry(const PolicyId& id) override {
      owner().localEntryChanged(protocol_, id);
   }
   void onPolicyInputEntry() override { owner().localTableRewritten(protocol_); }

 private:
   Protocol protocol_;
};

Attachment::Table::Table() = default;
Attachment::Table::Table(Table&&) noexcept = default;
Attachment::Table::~Table() = default;

namespace {

struct IdHash {
   size_t operator()(const PolicyId& id) const noexcept { return id.hash(); }
};

// Sets a flag for a scope.
struct Raised {
   bool& flag;
   bool was;
   explicit Raised(bool& f) : flag(f), was(f) { flag = true; }
   ~Raised() { flag = was; }
};

} // namespace

Attachment::Attachment(Host& host) : host_(host), router_(host.routerName()) {
   routerWriter_ =
       std::make_unique<RouterTablesWriter>(router_, RouterEntities::of(host_.router()));
   loadRouterTables();
   moxSource_ = std::make_unique<MoxSource>(*this, host_.policyInputSource());
   for (Protocol p : PolicyInputSm::handledProtocols) mountShared(p);
   // The core here never runs: its published tables are what the agent's hold.
   published_ = std::make_unique<PublishedReader>(router_, host_.core().published());
}

Attachment::~Attachment() {
   moxSource_.reset();
   tables_.clear();
   published_.reset();
   routerWriter_.reset();
}

// ---- the router's own tables

void Attachment::loadRouterTables() {
   // Records the static input writer makes of a loaded configuration are already in the shared
   // static table (whoever wrote the configuration wrote them): not written again.
   Raised loading(loading_);
   try {
      routerWriter_->load();
   } catch (const Vault::Corruption& e) {
      host_.warn(std::string("router tables not all read: ") + e.what());
   }
}

void Attachment::claimRouterTables(const std::vector<std::string>& tables) {
   const std::vector<std::string> held = routerWriter_->claimed();
   const bool allHeld = std::all_of(tables.begin(), tables.end(), [&](const std::string& t) {
      return std::find(held.begin(), held.end(), t) != held.end();
   });
   if (allHeld) return;
   // What another process wrote since this one last looked is kept: the claim writes the local
   // collection whole.
   loadRouterTables();
   for (const std::string& t : tables) routerWriter_->claim(t);
}

void Attachment::afterCommand() {
   const std::vector<std::string> refused = routerWriter_->takeErrors();
   if (refused.empty()) return;
   std::string text;
   for (const std::string& r : refused) text += (text.empty() ? "" : "; ") + r;
   throw ScriptError(text + " (the change stays in this session only)");
}

// ---- input tables

void Attachment::mountShared(Protocol p) {
   if (host_.policyInputSource()->policyInput(p)) return;
   const std::string name = inputTableName(p);
   try {
      auto reader = std::make_unique<InputMirror>(InputMirror::SharedInput(router_, name),
                                                  policyInputFactory(name));
      Raised loading(loading_);
      reader->drain(); // the first drain reads the table whole
      reader->table()->mountStatusIs(Vault::MountStatus::mounted);
      Mox::Ptr<PolicyInput> table = reader->table();
      tables_[p].reader = std::move(reader);
      host_.policyInputSource()->policyInputIs(p, table);
   } catch (const Vault::Shm::NotFound&) {
   } catch (const Vault::Corruption& e) {
      host_.warn("input table " + name + " not read: " + e.what());
   }
}

void Attachment::refresh() {
   loadRouterTables();
   published_->drain();
   for (const std::string& r : published_->refused()) {
      if (refusalsTold_.insert(r).second) host_.warn("published table refused: " + r);
   }
   refreshInputs();
}

void Attachment::refreshInputs() {
   for (Protocol p : PolicyInputSm::handledProtocols) {
      auto it = tables_.find(p);
      if (it != tables_.end() && it->second.writer) continue;
      if (it != tables_.end() && it->second.reader) {
         InputMirror& reader = *it->second.reader;
         bool gone = reader.shared().replaced();
         if (!gone) {
            try {
               Raised loading(loading_);
               reader.drain();
            } catch (const Vault::Corruption& e) {
               host_.warn("input table " + inputTableName(p) + " dropped: " + e.what());
               gone = true;
            }
         }
         if (!gone) continue;
         // Made anew or removed by its writer: read again from the start.
         {
            Raised loading(loading_);
            it->second.reader.reset();
            host_.policyInputSource()->policyInputDel(p);
         }
      }
      mountShared(p);
   }
}

void Attachment::claimInput(Protocol p) {
   // Once this process writes the table, a claim costs nothing: every input verb asks.
   if (tables_[p].writer) return;
   refreshInputs();
   Table& t = tables_[p];
   // A new table has room for as many records as the feeder's default.
   t.writer = std::make_unique<InputMirror::SharedInputWriter>(router_, inputTableName(p));
   t.reader.reset();
   loadFromWriter(p);
}

void Attachment::loadFromWriter(Protocol p) {
   // What the table holds is what counts from now on: the local copy is made equal to it.
   Mox::Ptr<PolicyInput> table = host_.policyInputSource()->policyInput(p);
   Table& t = tables_[p];
   if (!table || !t.writer) return;
   Raised loading(loading_);
   std::unordered_set<PolicyId, IdHash> present;
   t.writer->forEach([&](const PolicyInputEntry& record) {
      present.insert(record.key());
      const PolicyInputEntry* held = table->policyInputEntryFind(record.key());
      if (!held || !(*held == record)) table->policyInputEntryIs(record);
   });
   std::vector<PolicyId> gone;
   table->policyInputEntryForEachId([&](const PolicyId& id) {
      if (!present.contains(id)) gone.push_back(id);
   });
   for (const PolicyId& id : gone) table->policyInputEntryDel(id);
}

void Attachment::localTableChanged(Protocol p) {
   Mox::Ptr<PolicyInput> table = host_.policyInputSource()->policyInput(p);
   Table& t = tables_[p];
   if (!table) {
      t.watch.reset();
      if (t.writer && !loading_) {
         // Gone here, gone for everyone: the agent drops the table with its records.
         t.writer.reset();
         Vault::Shm::removeTable(router_, inputTableName(p));
      }
      return;
   }
   t.watch = std::make_unique<MoxTable>(*this, p, table);
   if (!loading_ && t.writer) localTableRewritten(p);
}

void Attachment::localEntryChanged(Protocol p, const PolicyId& id) {
   if (loading_) return;
   writeThrough(p, id);
}

void Attachment::localTableRewritten(Protocol p) {
   if (loading_) return;
   Table& t = tables_[p];
   Mox::Ptr<PolicyInput> table = host_.policyInputSource()->policyInput(p);
   if (!t.writer || !table) return;
   std::vector<PolicyId> ids;
   t.writer->forEach([&](const PolicyInputEntry& r) { ids.push_back(r.key()); });
   table->policyInputEntryForEachId([&](const PolicyId& id) { ids.push_back(id); });
   InputMirror::SharedInputWriter::Batch batch(*t.writer);
   for (const PolicyId& id : ids) writeThrough(p, id);
}

void Attachment::writeThrough(Protocol p, const PolicyId& id) {
   Table& t = tables_[p];
   if (!t.writer) {
      // Every verb claims the table before it changes it; a change that did not stays here.
      host_.warn("input table " + inputTableName(p) +
                 " changed here without being claimed: " + id.stringValue() + " not shared");
      return;
   }
   Mox::Ptr<PolicyInput> table = host_.policyInputSource()->policyInput(p);
   const PolicyInputEntry* e = table ? table->policyInputEntryFind(id) : nullptr;
   try {
      if (e) {
         t.writer->insert(*e);
      } else {
         t.writer->erase(id);
      }
   } catch (const Vault::Shm::TableFull& x) {
      host_.warn(std::string(x.what()) + ": " + id.stringValue() + " not shared");
   }
}

// ---- the agent

std::string Attachment::ask(const std::string& request) {
   try {
      // A large table takes the agent a while to render: as long as a run may wait.
      ControlClient client(router_,
                           std::chrono::duration_cast<ControlClient::Duration>(syncTimeout));
      return client.ask(request);
   } catch (const AgentUnreachable& e) {
      throw ScriptError(e.what());
   } catch (const AgentRefused& e) {
      throw ScriptError(std::string("the agent: ") + e.what());
   }
}

std::optional<bool> Attachment::agentEnabled() {
   try {
      ControlClient client(router_);
      return client.ask("enabled") == "on\n";
   } catch (const std::runtime_error&) {
      return std::nullopt;
   }
}

void Attachment::sync(const char* verb) {
   using namespace std::chrono;
   const auto start = steady_clock::now();
   const bool terminal = ::isatty(STDERR_FILENO) != 0;
   bool shown = false;
   try {
      ControlClient client(router_);
      client.send("sync");
      std::unique_ptr<ControlClient> status;
      for (;;) {
         std::string body;
         if (client.await(milliseconds(250), body)) {
            if (shown) std::cerr << "\r\033[K" << std::flush;
            while (!body.empty() && body.back() == '\n') body.pop_back();
            if (host_.verbose()) host_.out() << verb << ": agent " << body << "\n";
            return;
         }
         const auto waited = steady_clock::now() - start;
         if (waited > syncTimeout) {
            if (shown) std::cerr << "\n";
            throw AgentUnreachable("the agent of router " + router_ + " still works after " +
                                   std::to_string(syncTimeout.count()) + " s");
         }
         if (terminal && waited > seconds(1)) {
            if (!status) status = std::make_unique<ControlClient>(router_);
            std::string now = status->ask("status");
            while (!now.empty() && now.back() == '\n') now.pop_back();
            // One line that a terminal does not wrap, so that the next one replaces it.
            if (const std::optional<AgentProgress> p = AgentProgress::parse(now)) {
               now = p->summary();
            }
            std::cerr << "\r\033[Kwaiting for the agent: " << now << std::flush;
            shown = true;
         }
      }
   } catch (const AgentUnreachable& e) {
      if (shown) std::cerr << "\n";
      throw ScriptError(std::string(verb) + ": " + e.what());
   } catch (const AgentRefused& e) {
      if (shown) std::cerr << "\n";
      throw ScriptError(std::string(verb) + ": the agent: " + e.what());
   }
}

} // namespace Agent
