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
   replacement.info() = std::move(reactor.info());
   if (!replacement.info().tunnelId().empty()) keyPathIs(id, &replacement.info());
   policyIdEntry_.assign(std::move(fresh));
   return replacement;
}

const PolicyTunnelInfo* TunnelMapExportSm::policyTunnelInfo(const PolicyId& id) const {
   const MoxPolicyIdEntry* reactor = policyIdEntry_.get(id);
   return reactor && !reactor->info().tunnelId().empty() ? &reactor->info() : nullptr;
}

const TunnelMapExportSm::PathsOfKeyMap& TunnelMapExportSm::keyIndex() const {
   if (!keyIndexBuilt_) {
      keyIndexBuilt_ = true;
      policyIdEntry_.forEach([this](const PolicyId& id, const auto& reactor) {
         if (!reactor->info().tunnelId().empty()) keyPathIs(id, &reactor->info());
      });
   }
   return policyTunnelInfo_;
}

void TunnelMapExportSm::keyPathIs(const PolicyId& id, const PolicyTunnelInfo* info) const {
   if (!keyIndexBuilt_) return;
   auto& paths = policyTunnelInfo_[id.key];
   if (!paths) paths = std::make_unique<PathsOfKey>();
   paths->try_emplace(CandidateId(id)).first->second = info;
}

void TunnelMapExportSm::keyPathDel(const PolicyId& id) {
   if (!keyIndexBuilt_) return;
   auto paths = policyTunnelInfo_.find(id.key);
   if (paths == policyTunnelInfo_.end()) return;
   paths->second->erase(CandidateId(id));
   if (paths->second->empty()) policyTunnelInfo_.erase(paths);
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
             if (info.tunnelIdIs(t)) {
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
   for (TunnelId t : stale) checkAndRemoveTunnel(t, PolicyId());
}

void TunnelMapExportSm::handlePolicyEntry(const PolicyId& policyId) {
   MoxPolicyIdEntry* reactor = policyIdEntry_.get(policyId);
   handlePolicyEntry(policyId, in_.policyId->policyIdEntry(policyId).get(),
                     reactor ? &reactor->info() : nullptr);
}

void TunnelMapExportSm::handlePolicyEntry(const PolicyId& policyId, const PolicyIdEntry* entry,
                                          PolicyTunnelInfo* info) {
   if (!initialized_) return;
   if (!retryPolicyId_.empty()) retryPolicyId_.erase(policyId);
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
      checkAndRemoveTunnel(t, policyId);
      info->tunnelIdDel(t);
   }
   if (current.empty()) {
      if (info && !dropped.empty()) keyPathDel(policyId);
      return;
   }

   // An entry has its reactor once the machine is initialised; made here if it somehow has not.
   if (!info) info = &policyIdEntryIs(in_.policyId->policyIdEntry(policyId)).info();
   if (info->tunnelId().empty()) keyPathIs(policyId, info);
   for (TunnelId t : current) {
      const bool mapped = info->tunnelIdIs(t);
      if (mapped) {
         SRTE_TRACE_TO(tracer_, 7, "Mapping tunnel " << t << " to policy " << policyId);
      }
      if (mapped || rowToTakeOver(t, policyId.key)) commit(t, policyId);
      pendingTunnelDel(t);
   }
}

// A path written again with a tunnel it already maps leaves the row as it is when the row is
// right: when keys share a tunnel, re-committing would hand the row from key to key on every
// rewrite (a restart writes every path again). It writes a missing row, and a row that waits for
// its deletion because the key it names let go of the tunnel: the path still maps the tunnel, and
// cancelling the deletion would otherwise leave the row naming a key that does not.
bool TunnelMapExportSm::rowToTakeOver(TunnelId t, const PolicyKey& key) const {
   const TunnelIdToPolicyKeyEntry* row = in_.tunnelIdToPolicyKey->tunnelEntry(t);
   if (!row) return true;
   if (pendingTunnel_.empty() || !pendingTunnel_.count(t)) return false;
   return row->policyKey != key && !keyHoldsTunnel(row->policyKey, t, nullptr);
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
      std::vector<PolicyId> ids(retryPolicyId_.begin(), retryPolicyId_.end());
      retryPolicyId_.clear();
      std::sort(ids.begin(), ids.end());
      for (const PolicyId& id : ids) handlePolicyEntry(id);
   }

   auto it =
       pendingBookmark_ ? pendingTunnel_.lower_bound(*pendingBookmark_) : pendingTunnel_.begin();
   pendingBookmark_.reset();
   uint64_t processed = 0;
   uint64_t removed = 0;
   bool congested = false;
   bool yielded = false;
   while (it != pendingTunnel_.end()) {
      if (in_.attrLogSm->isAttrLogOutClogged()) {
         congested = true;
         pendingBookmark_ = *it;
         break;
      }
      const TunnelId t = *it;
      if (!in_.tunnelCounter->counterHas(t)) {
         if (!erase(t)) {
            // The table refused: the tunnel stays queued, the next run starts with it.
            pendingBookmark_ = t;
            break;
         }
         ++removed;
         pendingTunnelDel(t);
      }
      ++processed;
      // Found again rather than kept: the table's reactors ran in between.
      it = pendingTunnel_.upper_bound(t);
      if (task_->taskShouldYield()) {
         if (it != pendingTunnel_.end()) {
            yielded = true;
            pendingBookmark_ = *it;
         }
         break;
      }
   }
   task_->taskWorkCountInc(processed);
   SRTE_TRACE_TO(tracer_, 8,
                 "Processed " << processed << " pending tunnel entries and removed " << removed
                              << " entries");
   if (!workLeft()) return;
   if (congested) {
      task_->scheduleTaskLowestDelay(congestionDelay);
   } else if (yielded) {
      // The rest of this pass is due now; the next pass a second after it ends.
      task_->scheduleTask();
   } else {
      task_->scheduleTaskLowestDelay(retryDelay);
   }
}

void TunnelMapExportSm::handleDel() {
   if (!initialized_) return;
   if (task_) task_->unscheduleTask();
   pendingTunnel_.clear();
   pendingBookmark_.reset();
   retryPolicyId_.clear();
   try {
      in_.tunnelIdToPolicyKey->tunnelEntryDelAll();
   } catch (const Vault::Corruption& e) {
      corruption(e);
   }
}

// ---------------------------------------------------------------------------------------------
// One tunnel

void TunnelMapExportSm::checkAndRemoveTunnel(TunnelId tunnelId, const PolicyId& policyId) {
   if (isTunnelIdInUse(tunnelId, policyId)) return;
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

bool TunnelMapExportSm::isTunnelIdInUse(TunnelId tunnelId, const PolicyId& policyId) const {
   const CandidateId self(policyId);
   return keyHoldsTunnel(policyId.key, tunnelId, &self);
}

bool TunnelMapExportSm::keyHoldsTunnel(const PolicyKey& key, TunnelId tunnelId,
                                       const CandidateId* except) const {
   const PathsOfKeyMap& index = keyIndex();
   auto paths = index.find(key);
   if (paths == index.end()) return false;
   for (const auto& [candidate, info] : *paths->second) {
      if (except && candidate == *except) continue;
      if (info->tunnelIdHas(tunnelId)) return true;
   }
   return false;
}

void TunnelMapExportSm::pendingTunnelIs(TunnelId tunnelId) {
   if (pendingTunnel_.insert(tunnelId).second) handlePendingTunnelEntry(tunnelId);
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
