#include "tunnel/SrTePolicyTunnelMapExportSm.h"

#include <algorithm>
#include <cinttypes>
#include <vector>

#include "absl/container/inlined_vector.h"
#include "platform/Assert.h"

namespace SrTePolicy {

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class TunnelMapExportSm::MoxPolicyId
    : public Mox::Reactor<PolicySelectionInput::Notifiee, TunnelMapExportSm> {
 public:
   using Reactor::Reactor;
   void onPolicyIdEntry(const PolicyId& id) override;
};

class TunnelMapExportSm::MoxPolicyIdEntry
    : public Mox::Reactor<PolicyIdEntry::Notifiee, TunnelMapExportSm> {
 public:
   // Holds the entry, whose id keys the machine's reactor table and must stay readable for as
   // long as the reactor is in it.
   MoxPolicyIdEntry(TunnelMapExportSm& sm, PolicyIdEntry* entry)
       : Reactor(sm, entry), entry_(entry) {}
   const PolicyIdEntry* entry() const noexcept { return entry_.get(); }
   // The tunnels the path maps.
   PolicyTunnelInfo& info() noexcept { return info_; }
   const PolicyTunnelInfo& info() const noexcept { return info_; }
   void onVersion() override { owner().handlePolicyEntry(entry_->id(), notifier(), &info_); }

 private:
   Mox::Ptr<const PolicyIdEntry> entry_;
   PolicyTunnelInfo info_;
};

const PolicyId& TunnelMapExportSm::ReactorId::operator()(const MoxPolicyIdEntry& r) const noexcept {
   return r.entry()->id();
}

void TunnelMapExportSm::MoxPolicyId::onPolicyIdEntry(const PolicyId& id) {
   TunnelMapExportSm& sm = owner();
   if (Mox::Ptr<PolicyIdEntry> entry = sm.in_.policyId->policyIdEntry(id)) {
      sm.handlePolicyEntry(id, entry.get(), &sm.policyIdEntryIs(entry).info());
      return;
   }
   // Gone: what the path mapped is let go of before its reactor goes.
   MoxPolicyIdEntry* reactor = sm.policyIdEntry_.get(id);
   sm.handlePolicyEntry(id, nullptr, reactor ? &reactor->info() : nullptr);
   sm.policyIdEntry_.erase(id);
}

class TunnelMapExportSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, TunnelMapExportSm> {
 public:
   using Reactor::Reactor;
   void onTaskRun() override { owner().handleTaskRun(); }
};

// ---------------------------------------------------------------------------------------------
// Construction

TunnelMapExportSm::TunnelMapExportSm(Inputs in) : in_(std::move(in)), tracer_(&in_.tracer) {
   SRTE_ASSERT(in_.policyId && in_.tunnelIdToPolicyKey && in_.tunnelCounter && in_.scheduler &&
                   in_.attrLogSm,
               "TunnelMapExportSm needs every table of its Inputs");
   moxPolicyId_ = std::make_unique<MoxPolicyId>(*this, in_.policyId.get());
   // Each entry's reactor is made by handleInitialized, in its walk over the entries.
   handleInitialized();
}

TunnelMapExportSm::~TunnelMapExportSm() {
   // The map stays as it is for the next start to reconcile.
   if (task_) task_->unscheduleTask();
   moxTask_.reset();
   policyIdEntry_.clear();
   moxPolicyId_.reset();
}

Mox::Ptr<TunnelMapExportSm> tunnelMapExportSmFactory(TunnelMapExportSm::Inputs in) {
   return Mox::make<TunnelMapExportSm>(std::move(in));
}

TunnelMapExportSm::MoxPolicyIdEntry&
TunnelMapExportSm::policyIdEntryIs(const Mox::Ptr<PolicyIdEntry>& entry) {
   const PolicyId& id = entry->id();
   // Grown with the selection input, which its writer sizes before adding many entries.
   policyIdEntry_.reserveLike(in_.policyId->policyIdEntry());
   auto [it, made] =
       policyIdEntry_.findOrInsert(id, [&] { return policyIdEntryPool_.make(*this, entry.get()); });
   MoxPolicyIdEntry& reactor = *it->second;
   if (made || reactor.entry() == entry.get()) return reactor;
   // An entry removed and made again under the same id is a new object: watch that one, with
   // what the path mapped through the old one.
   auto fresh = policyIdEntryPool_.make(*this, entry.get());
   MoxPolicyIdEntry& replacement = *fresh;
   // The index names the path by its id, which stays.
   replacement.info() = std::move(reactor.info());
   policyIdEntry_.assign(std::move(fresh));
   return replacement;
}

const PolicyTunnelInfo* TunnelMapExportSm::policyTunnelInfo(const PolicyId& id) const {
   const MoxPolicyIdEntry* reactor = policyIdEntry_.get(id);
   return reactor && !reactor->info().tunnelId().empty() ? &reactor->info() : nullptr;
}

const TunnelMapExportSm::TunnelPathsMap& TunnelMapExportSm::tunnelIndex() const {
   if (!tunnelIndexBuilt_) {
      tunnelIndexBuilt_ = true;
      policyIdEntry_.forEach([this](const PolicyId& id, const auto& reactor) {
         for (TunnelId t : reactor->info().tunnelId()) {
            auto& paths = tunnelPaths_[t];
            if (!paths) paths = std::make_unique<TunnelPaths>();
            paths->insert(id);
         }
      });
   }
   return tunnelPaths_;
}

const TunnelMapExportSm::TunnelPaths* TunnelMapExportSm::tunnelPaths(TunnelId tunnelId) const {
   const TunnelPathsMap& index = tunnelIndex();
   auto it = index.find(tunnelId);
   return it == index.end() ? nullptr : it->second.get();
}

bool TunnelMapExportSm::tunnelMap(PolicyTunnelInfo& info, const PolicyId& id, TunnelId tunnelId) {
   if (!info.tunnelIdIs(tunnelId)) return false;
   if (tunnelIndexBuilt_) {
      auto& paths = tunnelPaths_[tunnelId];
      if (!paths) paths = std::make_unique<TunnelPaths>();
      paths->insert(id);
   }
   return true;
}

void TunnelMapExportSm::tunnelUnmap(PolicyTunnelInfo& info, const PolicyId& id, TunnelId tunnelId) {
   info.tunnelIdDel(tunnelId);
   if (!tunnelIndexBuilt_) return;
   auto it = tunnelPaths_.find(tunnelId);
   if (it == tunnelPaths_.end()) return;
   it->second->erase(id);
   if (it->second->empty()) tunnelPaths_.erase(it);
}

// ---------------------------------------------------------------------------------------------
// Handlers

namespace {
using TunnelIds = absl::InlinedVector<Tunnel::TunnelTable::TunnelId, 16>;

bool contains(const TunnelIds& ids, Tunnel::TunnelTable::TunnelId t) {
   return std::find(ids.begin(), ids.end(), t) != ids.end();
}
} // namespace

void TunnelMapExportSm::handleInitialized() {
   SRTE_TRACE_TO(tracer_, 8, "handleInitialized");
   if (!task_) {
      task_ = Mox::make<Kiln::Task>(*in_.scheduler, taskPriority, taskName);
      moxTask_ = std::make_unique<MoxTask>(*this, task_);
   }
   initialized_ = true;

   // What every path maps now, as the selection input names it. Per tunnel: the first path met
   // that maps it, and whether its row is right (its key is the key of a path that maps it). The
   // row is read once per tunnel, and the table does not change during the walk. The row key's
   // hash is kept beside the pointer: a tunnel is met once per path that maps it, and most of
   // those paths are of other keys, which the hash tells apart without reading the row again.
   struct Held {
      const PolicyId* path = nullptr;
      const PolicyKey* rowKey = nullptr;
      uint32_t rowKeyHash = 0; // 32 bits keep a member at 24 bytes
      bool right = false;
   };
   const Mox::Hash<PolicyKey> hashKey;
   Mox::HashMap2018<TunnelId, Held> held;
   held.reserve(in_.tunnelIdToPolicyKey->tunnelEntry().size());
   // Sized once: growing rehashes every member, and this table reads each key from its entry.
   policyIdEntry_.reserve(in_.policyId->policyIdEntry().size());
   in_.policyId->policyIdEntry().forEach(
       [&](const PolicyId& id, const Mox::Ptr<PolicyIdEntry>& entry) {
          PolicyTunnelInfo& info = policyIdEntryIs(entry).info();
          const auto keyHash = static_cast<uint32_t>(hashKey(id.key));
          for (const auto& [index, w] : entry->wSegmentList()) {
             const TunnelId t = w.segmentListId.getTunnelId();
             auto [it, first] = held.try_emplace(t);
             Held& h = it->second;
             if (first) {
                h.path = &entry->id();
                const TunnelIdToPolicyKeyEntry* row = in_.tunnelIdToPolicyKey->tunnelEntry(t);
                h.rowKey = row ? &row->policyKey : nullptr;
                h.rowKeyHash = row ? static_cast<uint32_t>(hashKey(row->policyKey)) : 0;
             }
             if (!h.right && h.rowKey && h.rowKeyHash == keyHash && *h.rowKey == id.key) {
                h.right = true;
             }
             if (tunnelMap(info, id, t)) {
                SRTE_TRACE_TO(tracer_, 7, "Mapping tunnel " << t << " to policy " << id);
             }
          }
       });
   // A row an earlier life left for a tunnel that its key still maps is adopted as it is; only
   // missing rows and rows of a key that no longer maps the tunnel are written, in tunnel order.
   std::vector<std::pair<TunnelId, const PolicyId*>> wrong;
   for (const auto& [t, h] : held) {
      if (!h.right) wrong.emplace_back(t, h.path);
   }
   std::sort(wrong.begin(), wrong.end());
   for (const auto& [t, path] : wrong) commit(t, *path);
   // Rows no path maps any more: deleted, or queued while the platform counts the tunnel.
   std::vector<TunnelId> stale;
   for (const auto& [t, row] : *in_.tunnelIdToPolicyKey) {
      if (!held.contains(t)) stale.push_back(t);
   }
   std::sort(stale.begin(), stale.end());
   for (TunnelId t : stale) checkAndRemoveTunnel(t);
}

void TunnelMapExportSm::handlePolicyEntry(const PolicyId& policyId) {
   MoxPolicyIdEntry* reactor = policyIdEntry_.get(policyId);
   handlePolicyEntry(policyId, in_.policyId->policyIdEntry(policyId).get(),
                     reactor ? &reactor->info() : nullptr);
}

void TunnelMapExportSm::handlePolicyEntry(const PolicyId& policyId, const PolicyIdEntry* entry,
                                          PolicyTunnelInfo* info) {
   if (!initialized_) return;
   // A path whose rows a corrupt table refused writes every row it maps again.
   const bool retried = !retryPolicyId_.empty() && retryPolicyId_.erase(policyId) != 0;
   TunnelIds current;
   if (entry) {
      SRTE_TRACE_TO(tracer_, 8, "Policy Id: " << policyId << " has been updated");
      for (const auto& [index, w] : entry->wSegmentList()) {
         const TunnelId t = w.segmentListId.getTunnelId();
         if (!contains(current, t)) current.push_back(t);
      }
   } else {
      SRTE_TRACE_TO(tracer_, 8, "Policy Id: " << policyId << " has been removed");
   }

   // Tunnels the path no longer maps, in tunnel order so that what follows is reproducible.
   TunnelIds dropped;
   if (info) {
      for (TunnelId t : info->tunnelId()) {
         if (!contains(current, t)) dropped.push_back(t);
      }
   }
   std::sort(dropped.begin(), dropped.end());
   for (TunnelId t : dropped) {
      tunnelUnmap(*info, policyId, t);
      checkAndRemoveTunnel(t);
   }
   if (current.empty()) return;

   // An entry has its reactor once the machine is initialised; made here if it somehow has not.
   if (!info) info = &policyIdEntryIs(in_.policyId->policyIdEntry(policyId)).info();
   for (TunnelId t : current) {
      const bool mapped = tunnelMap(*info, policyId, t);
      if (mapped) {
         SRTE_TRACE_TO(tracer_, 7, "Mapping tunnel " << t << " to policy " << policyId);
      }
      // A tunnel the path already maps keeps its row: every row names a key that maps its
      // tunnel, and when keys share one, re-committing would hand the row from key to key on
      // every rewrite (a restart writes every path again). A missing row (a write refused) is
      // written.
      if (mapped || retried || !in_.tunnelIdToPolicyKey->tunnelEntry(t)) commit(t, policyId);
      pendingTunnelDel(t);
   }
}

void TunnelMapExportSm::handlePendingTunnelEntry(TunnelId) {
   if (!initialized_) return;
   if (!pendingTunnel_.empty()) {
      task_->scheduleTaskLowestDelay(retryDelay);
   } else if (!workLeft()) {
      task_->unscheduleTask();
   }
}

void TunnelMapExportSm::handleTaskRun() {
   if (!initialized_) return;
   // Paths whose rows a corrupt table refused: written again first, they are overdue.
   if (!retryPolicyId_.empty()) {
      // Each leaves the set as it is handled (and comes back if refused again).
      std::vector<PolicyId> ids(retryPolicyId_.begin(), retryPolicyId_.end());
      std::sort(ids.begin(), ids.end());
      for (const PolicyId& id : ids) handlePolicyEntry(id);
   }

   uint64_t removed = 0;
   const Kiln::DrainEnd end =
       pendingCheck_.run(*task_, *in_.attrLogSm, *tracer_, [&](TunnelId t, Kiln::NoValue) {
          if (!pendingTunnel_.contains(t)) return; // mapped again meanwhile
          if (in_.tunnelCounter->counterHas(t) || !erase(t)) {
             // Still counted, or the table refused: checked again at the next pass.
             pendingCheck_.mark(t);
             return;
          }
          ++removed;
          pendingTunnelDel(t);
       });
   SRTE_TRACE_TO(tracer_, 8, "Removed " << removed << " pending tunnel entries");
   if (!workLeft()) return;
   // A run that yielded or backed off has its task scheduled; the next pass is due a second after
   // this one ended.
   if (end == Kiln::DrainEnd::drained || end == Kiln::DrainEnd::passDone) {
      task_->scheduleTaskLowestDelay(retryDelay);
   }
}

void TunnelMapExportSm::handleDel() {
   if (!initialized_) return;
   if (task_) task_->unscheduleTask();
   pendingTunnel_.clear();
   pendingCheck_.clear();
   retryPolicyId_.clear();
   try {
      in_.tunnelIdToPolicyKey->tunnelEntryDelAll();
   } catch (const Vault::Corruption& e) {
      corruption(e);
   }
}

// ---------------------------------------------------------------------------------------------
// One tunnel

void TunnelMapExportSm::checkAndRemoveTunnel(TunnelId tunnelId) {
   if (const TunnelPaths* paths = tunnelPaths(tunnelId)) {
      // Still in use. The row stays if a path of its key maps the tunnel; otherwise the key it
      // names let go of it, and it passes to the smallest of the paths that map it.
      const TunnelIdToPolicyKeyEntry* row = in_.tunnelIdToPolicyKey->tunnelEntry(tunnelId);
      const PolicyId* heir = nullptr;
      for (const PolicyId& id : *paths) {
         if (row && id.key == row->policyKey) return;
         if (!heir || id < *heir) heir = &id;
      }
      const PolicyId next = *heir; // the commit may move the index's members
      SRTE_TRACE_TO(tracer_, 7, "Tunnel " << tunnelId << " passes to policy " << next);
      commit(tunnelId, next);
      return;
   }
   if (in_.tunnelCounter->counterHas(tunnelId)) {
      SRTE_TRACE_TO(tracer_, 7,
                    "Queueing tunnel " << tunnelId << " for deletion as it is still in use");
      pendingTunnelIs(tunnelId);
      return;
   }
   SRTE_TRACE_TO(tracer_, 7, "Tunnel: " << tunnelId << " is no longer in use");
   if (erase(tunnelId)) {
      pendingTunnelDel(tunnelId);
   } else {
      pendingTunnelIs(tunnelId); // the task deletes it once the table takes writes again
   }
}

bool TunnelMapExportSm::isTunnelIdInUse(TunnelId tunnelId) const {
   return tunnelPaths(tunnelId) != nullptr;
}

void TunnelMapExportSm::pendingTunnelIs(TunnelId tunnelId) {
   if (!pendingTunnel_.insert(tunnelId).second) return;
   pendingCheck_.mark(tunnelId);
   handlePendingTunnelEntry(tunnelId);
}

void TunnelMapExportSm::pendingTunnelDel(TunnelId tunnelId) {
   if (pendingTunnel_.erase(tunnelId)) handlePendingTunnelEntry(tunnelId);
}

void TunnelMapExportSm::commit(TunnelId tunnelId, const PolicyId& policyId) {
   try {
      in_.tunnelIdToPolicyKey->tunnelEntryCommit(TunnelIdToPolicyKeyEntry(tunnelId, policyId.key));
   } catch (const Vault::Corruption& e) {
      corruption(e);
      retryPolicyId_.insert(policyId);
      task_->scheduleTaskLowestDelay(retryDelay);
   }
}

bool TunnelMapExportSm::erase(TunnelId tunnelId) {
   try {
      in_.tunnelIdToPolicyKey->tunnelEntryDel(tunnelId);
      return true;
   } catch (const Vault::Corruption& e) {
      corruption(e);
      return false;
   }
}

void TunnelMapExportSm::corruption(const Vault::Corruption& e) {
   SRTE_TRACE_TO(tracer_, 0, "TunnelIdToPolicyKey write failed: " << e.what());
   in_.tunnelIdToPolicyKey->handleCorruption();
}

void TunnelMapExportSm::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cpendingTunnels #%u \n", depth, ' ',
                static_cast<unsigned>(pendingTunnel_.size()));
   for (TunnelId t : pendingTunnel_) Mox::appendf(out, "%*c%" PRIu64 "\n", depth + 2, ' ', t.value);
   Mox::appendf(out, "%*cTask Dump\n", depth, ' ');
   if (task_) Mox::appendf(out, "%*c%s\n", depth + 2, ' ', task_->stringValue().c_str());
}

} // namespace SrTePolicy
