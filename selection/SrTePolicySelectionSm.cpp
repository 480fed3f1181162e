#include "selection/SrTePolicySelectionSm.h"

#include <stdexcept>
#include <vector>

#include "platform/Assert.h"

namespace SrTePolicy {

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class PolicySelectionSm::MoxConfig : public Mox::Reactor<Config::Notifiee, PolicySelectionSm> {
 public:
   using Reactor::Reactor;
   void onUseDiscriminatorInTieBreaking() override { owner().handleTieBreakingLogicChange(); }
};

class PolicySelectionSm::MoxPolicyId
    : public Mox::Reactor<PolicySelectionInput::Notifiee, PolicySelectionSm> {
 public:
   using Reactor::Reactor;
   void onPolicyIdEntry(const PolicyId& id) override {
      PolicySelectionSm& sm = owner();
      sm.handlePolicyEntry(id);
      if (Mox::Ptr<PolicyIdEntry> entry = sm.in_.policySelectionInput->policyIdEntry(id)) {
         sm.policyIdEntryIs(entry);
      } else {
         sm.policyIdEntryDel(id);
      }
   }
};

class PolicySelectionSm::MoxPolicyIdEntry
    : public Mox::Reactor<PolicyIdEntry::Notifiee, PolicySelectionSm> {
 public:
   // One per selection-input entry. It holds the entry, whose id keys the machine's reactor table
   // and must stay readable for as long as the reactor is in it.
   MoxPolicyIdEntry(PolicySelectionSm& sm, PolicyIdEntry* entry)
       : Reactor(sm, entry), entry_(entry) {}
   const PolicyIdEntry* entry() const noexcept { return entry_.get(); }
   void onVersion() override { owner().handlePolicyEntry(entry_->id()); }
   void onBindingSid() override { owner().handleBindingSid(*entry_); }

 private:
   Mox::Ptr<const PolicyIdEntry> entry_;
};

const PolicyId& PolicySelectionSm::ReactorId::operator()(const MoxPolicyIdEntry& r) const noexcept {
   return r.entry()->id();
}

class PolicySelectionSm::MoxResSegList
    : public Mox::Reactor<SegmentListStatus::Notifiee, PolicySelectionSm> {
 public:
   using Reactor::Reactor;
   void onStatus(const SegmentListId& id) override { owner().handleResolvedSegmentList(id); }
};

class PolicySelectionSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, PolicySelectionSm> {
 public:
   using Reactor::Reactor;
   void onTaskRun() override { owner().handleTaskRun(); }
};

// ---------------------------------------------------------------------------------------------
// Construction

PolicySelectionSm::PolicySelectionSm(Inputs in) : in_(std::move(in)), tracer_(&in_.tracer) {
   SRTE_ASSERT(in_.config && in_.policySelectionInput && in_.segmentListStatus &&
                   in_.segmentListIdToPolicyMap && in_.ecPolicy && in_.scheduler && in_.attrLogSm,
               "PolicySelectionSm needs every table of its Inputs");
   moxConfig_ = std::make_unique<MoxConfig>(*this, in_.config.get());
   moxPolicyId_ = std::make_unique<MoxPolicyId>(*this, in_.policySelectionInput.get());
   // Sized once: growing rehashes every member, and this table reads each key from its entry.
   policyIdEntry_.reserve(in_.policySelectionInput->policyIdEntry().size());
   in_.policySelectionInput->policyIdEntry().forEach(
       [this](const PolicyId&, const Mox::Ptr<PolicyIdEntry>& entry) { policyIdEntryIs(entry); });
   moxResSegList_ = std::make_unique<MoxResSegList>(*this, in_.segmentListStatus.get());
   handleInitialized();
}

PolicySelectionSm::~PolicySelectionSm() {
   // EcPolicy stays as it is for the next start to reconcile.
   if (task_) task_->unscheduleTask();
   moxTask_.reset();
   moxResSegList_.reset();
   policyIdEntry_.clear();
   moxPolicyId_.reset();
   moxConfig_.reset();
}

Mox::Ptr<PolicySelectionSm> policySelectionSmFactory(PolicySelectionSm::Inputs in) {
   return Mox::make<PolicySelectionSm>(std::move(in));
}

void PolicySelectionSm::policyIdEntryIs(const Mox::Ptr<PolicyIdEntry>& entry) {
   if (!entry) throw std::invalid_argument(nullPolicyIdEntryMessage);
   // Grown with the selection input, which its writer sizes before adding many entries.
   policyIdEntry_.reserveLike(in_.policySelectionInput->policyIdEntry());
   auto [it, made] = policyIdEntry_.findOrInsert(
       entry->id(), [&] { return policyIdEntryPool_.make(*this, entry.get()); });
   // An entry removed and made again under the same id is a new object: watch that one.
   if (!made && it->second->entry() != entry.get()) {
      policyIdEntry_.assign(policyIdEntryPool_.make(*this, entry.get()));
   }
}

void PolicySelectionSm::policyIdEntryDel(const PolicyId& id) { policyIdEntry_.erase(id); }

// ---------------------------------------------------------------------------------------------
// Handlers

void PolicySelectionSm::handleInitialized() {
   SRTE_TRACE_TO(tracer_, 9, "handleInitialized");
   if (!task_) {
      task_ = Mox::make<Kiln::Task>(*in_.scheduler, taskPriority, taskName);
      moxTask_ = std::make_unique<MoxTask>(*this, task_);
   }
   initialized_ = true;
   // What an earlier life left in EcPolicy is checked again, whether or not its entry is still
   // there.
   in_.ecPolicy->policy().forEach([this](const PolicyKey& key, const Mox::Ptr<Policy>& policy) {
      for (const auto& [priority, candidate] : policy->candidate()) {
         markPending(PolicyId(key, priority.protocol, priority.discriminator));
      }
   });
   in_.policySelectionInput->policyIdEntry().forEach(
       [this](const PolicyId& id, const auto&) { markPending(id); });
   scheduleTask();
}

void PolicySelectionSm::handlePolicyEntry(const PolicyId& id) {
   SRTE_TRACE_TO(tracer_, 9, "Policy: " << id << " has changed");
   markPending(id);
   if (task_) task_->scheduleTask();
}

void PolicySelectionSm::handleResolvedSegmentList(SegmentListId id) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 6, "Applying status change of SegmentList Id: " << id);
   const SegmentListUser* users = in_.segmentListIdToPolicyMap->segmentListUser(id);
   if (!users) return;
   for (const PolicyId& policyId : users->policyId()) markPending(policyId);
   scheduleTask();
   SRTE_TRACE_TO(tracer_, 9, "Scheduled task for handling status change to segmentList " << id);
}

void PolicySelectionSm::handleBindingSid(const PolicyId& id) {
   if (Mox::Ptr<PolicyIdEntry> entry = in_.policySelectionInput->policyIdEntry(id)) {
      handleBindingSid(*entry);
   }
}

void PolicySelectionSm::handleBindingSid(const PolicyIdEntry& entry) {
   const PolicyId& id = entry.id();
   SRTE_TRACE_TO(tracer_, 9, "Updating Binding SID for policy Id: " << id);
   // An entry whose version was never bumped has not been selected from yet: no candidate is
   // its own (one under its id belongs to an entry since removed, and is rewritten when this one's
   // version arrives), so the policy is not looked up for every new path.
   if (entry.version() == 0) return;
   Mox::Ptr<Policy> policy = in_.ecPolicy->policy(id.key);
   if (!policy) return;
   const CandidateId candidateId(id);
   for (const auto& [priority, candidate] : policy->candidate()) {
      if (candidate->candidateId() == candidateId) {
         candidate->bindingSidIs(entry.bindingSid());
         return;
      }
   }
}

void PolicySelectionSm::handleTieBreakingLogicChange() {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 9, "Handling tie-breaking logic change");
   for (const auto& [key, policy] : in_.ecPolicy->policy()) {
      for (const auto& [priority, candidate] : policy->candidate()) {
         markPending(PolicyId(key, priority.protocol, priority.discriminator));
      }
   }
   scheduleTask();
}

void PolicySelectionSm::handleTaskRun() {
   if (!initialized_) return;
   // Resume the pass under way at its bookmark, or begin one over everything pending.
   pendingPolicyId_.run(
       *task_, *in_.attrLogSm, *tracer_,
       [this](const PendingPolicyKey& key, Kiln::NoValue) { processPolicyEntry(key.id); },
       // The tables this drain will probe a few paths on: in hash order, every probe misses.
       [this](const PendingPolicyKey& soon) {
          in_.policySelectionInput->policyIdEntry().prefetch(soon.id);
          in_.ecPolicy->policy().prefetch(soon.id.key);
       });
}

void PolicySelectionSm::handleDel() {
   if (!initialized_) return;
   if (task_) task_->unscheduleTask();
   pendingPolicyId_.clear();
   in_.ecPolicy->policyDelAll();
}

void PolicySelectionSm::scheduleTask() {
   if (!pendingPolicyId_.empty() && task_) task_->scheduleTask();
}

// ---------------------------------------------------------------------------------------------
// One candidate path

bool PolicySelectionSm::isResolved(SegmentListId id) const {
   const SegmentListResolveError* status = in_.segmentListStatus->status(id);
   return status && *status == SegmentListResolveError::success;
}

bool PolicySelectionSm::policyHasResolvedSegmentList(const PolicyIdEntry& entry) const {
   for (const auto& [index, w] : entry.wSegmentList()) {
      if (isResolved(w.segmentListId)) return true;
   }
   return false;
}

Priority PolicySelectionSm::priorityOf(const PolicyIdEntry& entry) {
   return Priority(entry.preference(), entry.id().protocol, entry.originator(),
                   entry.id().discriminator);
}

bool PolicySelectionSm::policyPriorityChanged(const PolicyIdEntry& entry,
                                              const PolicyEntry& policyEntry) {
   return !(priorityOf(entry) == policyEntry.priority());
}

void PolicySelectionSm::processPolicyEntry(const PolicyId& id) {
   SRTE_TRACE_TO(tracer_, 9, "Process policy: " << id);
   const Mox::Ptr<PolicyIdEntry> entry = in_.policySelectionInput->policyIdEntry(id);
   Mox::Ptr<Policy> policy = in_.ecPolicy->policy(id.key);
   Mox::Ptr<PolicyEntry> policyEntry;
   if (policy) {
      const CandidateId candidateId(id);
      for (const auto& [priority, candidate] : policy->candidate()) {
         if (candidate->candidateId() == candidateId) {
            policyEntry = candidate;
            break;
         }
      }
   }
   if (!entry && !policy) return;

   if (!entry || !policyHasResolvedSegmentList(*entry)) {
      if (!policyEntry) return;
      SRTE_TRACE_TO(tracer_, 9, "Policy Id: " << id << " will be removed");
      policy->candidateDel(policyEntry->priority());
      if (!policy->candidate().empty()) {
         selectNewActive(id.key, policy);
      } else {
         in_.ecPolicy->policyDel(id.key);
      }
      return;
   }

   if (policyEntry) {
      SRTE_TRACE_TO(tracer_, 9, "Policy Id: " << id << " is updated");
      if (policyPriorityChanged(*entry, *policyEntry)) {
         policy->candidateDel(policyEntry->priority());
         policyEntry = policy->candidateIs(priorityOf(*entry));
      }
   } else {
      SRTE_TRACE_TO(tracer_, 9, "Policy Id: " << id << " is added");
      policy = in_.ecPolicy->policyIs(id.key);
      policyEntry = policy->candidateIs(priorityOf(*entry));
   }
   policyEntry->bindingSidIs(entry->bindingSid());

   // Resolved lists only, densely from 0: an unresolved list leaves no hole.
   uint8_t next = 0;
   for (const auto& [index, w] : entry->wSegmentList()) {
      if (!isResolved(w.segmentListId)) continue;
      policyEntry->wTunnelIdIs(next, WeightedTunnelId(w.segmentListId.getTunnelId(), w.weight));
      ++next;
   }
   std::vector<uint8_t> stale;
   for (const auto& [index, w] : policyEntry->wTunnelId()) {
      if (index >= next) stale.push_back(index);
   }
   for (uint8_t index : stale) policyEntry->wTunnelIdDel(index);

   selectNewActive(id.key, policy);
}

void PolicySelectionSm::selectNewActive(const PolicyKey& key, const Mox::Ptr<Policy>& known) {
   const Mox::Ptr<Policy> policy = known ? known : in_.ecPolicy->policy(key);
   if (!policy || policy->candidate().empty()) {
      SRTE_TRACE_TO(tracer_, 9,
                    "Policy Endpoint: " << key.endpoint << ", Color: " << key.color
                                        << " has no candidates and should not exist");
      SRTE_ASSERT(false, "policy->candidates()");
      return;
   }
   const Mox::Ptr<PolicyEntry> best = policy->bestCandidate();
   const Mox::Ptr<PolicyEntry>& active = policy->active();
   if (best == active) {
      SRTE_TRACE_TO(tracer_, 9,
                    "Policy: " << key << ", Pri: [" << best->priority() << "] retained as active");
      return;
   }
   if (active && policy->candidate(active->priority()) == active &&
       !in_.config->useDiscriminatorInTieBreaking() &&
       best->priority().sameExceptDiscriminator(active->priority())) {
      return;
   }
   policy->activeIs(best);
   SRTE_TRACE2_TO(tracer_, 6,
                  "Policy: " << key << ", Pri: [" << best->priority() << "] is the new active",
                  "Policy: " << key << ", Pri : [" << best->priority() << "] is the new active");
}

void PolicySelectionSm::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cpendingPolicyIds #%u \n", depth, ' ',
                static_cast<unsigned>(pendingPolicyId_.pending().size()));
   Mox::appendf(out, "%*cpendingBookmark: %s\n", depth, ' ',
                pendingBookmark().stringValue().c_str());
   Mox::appendf(out, "%*cTask Dump\n", depth, ' ');
   if (task_) {
      Mox::appendf(out, "%*ctaskName: %s, taskPriority: %d, taskStatsName: %s\n", depth + 2, ' ',
                   task_->name().c_str(), task_->priority(), task_->name().c_str());
   }
}

} // namespace SrTePolicy
