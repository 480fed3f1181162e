#include "publish/SrTePolicyPublishSm.h"

#include <algorithm>
#include <vector>

#include "platform/Assert.h"
#include "platform/Vault.h"

namespace SrTePolicy {

const Syslog::MessageDef SRTE_POLICY_CONFLICT_BSID_IN_USE = {
    "SRTE_POLICY_CONFLICT_BSID_IN_USE", Syslog::Severity::error,
    "Endpoint %s, color %u, protocol %s, originator %s(AS%u), discriminator %u is unusable, "
    "BSID(%u) already present, conflicts with Endpoint %s, color %u, protocol %s, originator "
    "%s(AS%u), discriminator %u",
    "Policy received has the same Binding SID as an existing policy",
    "Binding SID needs to unique across all policies"};

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class PolicyPublishSm::MoxEcPolicy : public Mox::Reactor<EcPolicy::Notifiee, PolicyPublishSm> {
 public:
   using Reactor::Reactor;
   void onPolicy(const PolicyKey& key) override {
      if (const Mox::Ptr<Policy> policy = owner().in_.ecPolicy->policy(key)) {
         owner().policyIs(key, policy.get());
      } else {
         owner().policyDel(key);
      }
      owner().handlePolicy(key);
   }
};

// Watches one policy and, through MoxActive, whichever of its candidates is active.
class PolicyPublishSm::MoxPolicy : public Mox::Reactor<Policy::Notifiee, PolicyPublishSm> {
 public:
   class MoxActive : public Mox::Reactor<PolicyEntry::Notifiee, PolicyPublishSm> {
    public:
      MoxActive(PolicyPublishSm& sm, const PolicyKey& key) : Reactor(sm), key_(key) {}
      void onBindingSid() override { owner().handlePolicy(key_); }
      void onWTunnelId(const uint8_t&) override { owner().handlePolicy(key_); }

    private:
      PolicyKey key_;
   };

   MoxPolicy(PolicyPublishSm& sm, Policy* policy)
       : Reactor(sm, policy), key_(policy->key()), active_(sm, policy->key()) {
      active_.notifierIs(policy->active().get());
   }
   void onActive() override {
      active_.notifierIs(notifier() ? notifier()->active().get() : nullptr);
      owner().handlePolicy(key_);
   }

 private:
   PolicyKey key_;
   MoxActive active_;
};

class PolicyPublishSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, PolicyPublishSm> {
 public:
   using Reactor::Reactor;
   void onTaskRun() override { owner().handleTaskRun(); }
};

// ---------------------------------------------------------------------------------------------
// Construction

PolicyPublishSm::PolicyPublishSm(Inputs in)
    : in_(std::move(in)), syslog_(&in_.syslog), tracer_(&in_.tracer),
      clock_(in_.timerWheel ? in_.timerWheel : in_.taskScheduler) {
   SRTE_ASSERT(in_.ecPolicy && in_.taskScheduler && in_.status && in_.srteFwdStatus &&
                   in_.attrLogSm,
               "PolicyPublishSm needs every table of its Inputs");
   moxEcPolicy_ = std::make_unique<MoxEcPolicy>(*this, in_.ecPolicy.get());
   // Sized once: growing a table of a million reactors rehashes it again and again.
   policy_.reserve(in_.ecPolicy->policy().size());
   in_.ecPolicy->policy().forEach([this](const PolicyKey& key, const Mox::Ptr<Policy>& policy) {
      policyIs(key, policy.get());
   });
   handleInitialized();
}

PolicyPublishSm::~PolicyPublishSm() {
   // Not handleDel: the status entries, FECs and binding SIDs stay for the next machine.
   if (task_) task_->unscheduleTask();
   moxTask_.reset();
   moxEcPolicy_.reset();
   policy_.clear();
}

Mox::Ptr<PolicyPublishSm> policyPublishSmFactory(PolicyPublishSm::Inputs in) {
   return Mox::make<PolicyPublishSm>(std::move(in));
}

void PolicyPublishSm::policyIs(const PolicyKey& key) {
   if (const Mox::Ptr<Policy> policy = in_.ecPolicy->policy(key)) policyIs(key, policy.get());
}

void PolicyPublishSm::policyIs(const PolicyKey& key, Policy* policy) {
   auto& reactor = policy_[key];
   // A policy removed and made again under the same key is a new object: watch that one.
   if (reactor && reactor->notifier() == policy) return;
   reactor = policyPool_.make(*this, policy);
}

void PolicyPublishSm::policyDel(const PolicyKey& key) { policy_.erase(key); }

const ConflictingPolicies* PolicyPublishSm::conflictingPolicies(Ipkit::MplsLabel bsid) const {
   auto it = bindingSidPolicyMap_.find(bsid);
   return it == bindingSidPolicyMap_.end() ? nullptr : it->second.get();
}

// ---------------------------------------------------------------------------------------------
// Handlers

void PolicyPublishSm::handleInitialized() {
   SRTE_TRACE_TO(tracer_, 9, "handleInitialized");
   if (!task_) {
      task_ = Mox::make<Kiln::TimerTask>(*in_.taskScheduler, taskPriority, taskName);
      moxTask_ = std::make_unique<MoxTask>(*this, task_);
   }
   initialized_ = true;
   initializeNumAllocator();
   rebuildBindingSidAndPolicyMap();
   markEveryPolicyPending();
   scheduleTask();
}

void PolicyPublishSm::markEveryPolicyPending() {
   auto take = [this](const PolicyKey& key, const auto&) { markPending(key); };
   in_.ecPolicy->policy().forEach(take);
   in_.status->status().forEach(take);
}

void PolicyPublishSm::handlePolicy(const PolicyKey& key) {
   markPending(key);
   if (task_) task_->scheduleTask();
}

void PolicyPublishSm::handleTaskRun() {
   if (!initialized_) return;
   // Processing a key may queue the competitors of a binding SID it released: those still ahead
   // in the pass are processed in it, the others in the next.
   pendingPolicy_.run(
       *task_, *in_.attrLogSm, *tracer_,
       [this](const PendingKey<PolicyKey>& key, Kiln::NoValue) { processPolicy(key.id); });
}

void PolicyPublishSm::handleDel() {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 6, "PolicyPublishSm is to be deleted");
   if (task_) task_->unscheduleTask();
   pendingPolicy_.clear();
   initialized_ = false;
   fwdStatusWrite([](Vault::Fib::ForwardingStatus& fwd) { fwd.fecDelAll(); });
   in_.status->statusDelAll();
   // The reverse map holds the ids of the entries just removed and nothing else.
   in_.status->fecIdToPolicyKeyDelAll();
   bindingSidPolicyMap_.clear();
   policyBindingSidMap_.clear();
}

void PolicyPublishSm::scheduleTask() {
   if (!pendingPolicy_.empty() && task_) task_->scheduleTask();
}

// ---------------------------------------------------------------------------------------------
// Start-up

void PolicyPublishSm::initializeNumAllocator() {
   numAllocatorConfig_ =
       Mox::make<Kiln::NumAllocatorConfig>(Kiln::NumRange(fecIndexMin, fecIndexMax));
   numAllocatorConfig_->expiryTimeIs(fecIndexExpiry);
   numAllocatorStatus_ = Mox::make<Kiln::NumAllocatorStatus>();
   numAllocator_ = Mox::make<Kiln::NumAllocator>(numAllocatorConfig_, numAllocatorStatus_, *clock_);
   // FECs left by an earlier life keep their ids: new ones must not collide with them. Nor with
   // the ids a surviving status entry holds, whose FECs may be gone (a FEC table lost while the
   // status survived): that entry's policy programs its FECs under them again, and another
   // policy given one of them meanwhile would share it.
   for (const auto& [fecId, fec] : in_.srteFwdStatus->fec()) {
      numAllocator_->reserveNumber(static_cast<Kiln::Number>(fecId.index()));
   }
   in_.status->status().forEach([this](const PolicyKey&, const Mox::Ptr<PolicyStatusEntry>& e) {
      numAllocator_->reserveNumber(static_cast<Kiln::Number>(e->fecId().index()));
      numAllocator_->reserveNumber(static_cast<Kiln::Number>(e->nullLabelFecId().index()));
   });
}

void PolicyPublishSm::rebuildBindingSidAndPolicyMap() {
   // Sized once for the survivors (each published policy holds one binding SID as a rule).
   policyBindingSidMap_.reserve(in_.status->status().size());
   bindingSidPolicyMap_.reserve(in_.status->status().size());
   in_.status->status().forEach(
       [this](const PolicyKey& key, const Mox::Ptr<PolicyStatusEntry>& entry) {
          const Ipkit::MplsLabel bsid = entry->bindingSid();
          // A policy published without binding SID holds none; recording "none" would later be
          // released as if it were a binding SID.
          if (bsid.isNull()) return;
          policyBindingSidMap_[key] = bsid;
          Mox::Ptr<ConflictingPolicies>& c = bindingSidPolicyMap_[bsid];
          if (!c) {
             c = Mox::make<ConflictingPolicies>(bsid);
             c->chosenIs(key);
          } else if (!(c->chosen() == key)) {
             // Two survivors claim one binding SID (impossible unless the table was tampered with):
             // the one found first keeps it, the other is withdrawn when processed.
             c->competitorIs(key);
          }
       });
}

// ---------------------------------------------------------------------------------------------
// One key

void PolicyPublishSm::processPolicy(const PolicyKey& key) {
   const Mox::Ptr<Policy> policy = in_.ecPolicy->policy(key);
   const Mox::Ptr<PolicyEntry> active = policy ? policy->active() : nullptr;
   if (!active) {
      if (auto asked = policyBindingSidMap_.find(key); asked != policyBindingSidMap_.end())
         releaseBindingSid(Ipkit::MplsLabel(asked->second), key);
      withdraw(key);
      return;
   }
   // Whether policyBindingSidMap_ records the active binding SID for the key. A key asking for
   // one for the first time is recorded at once, as the request would record it: one look-up.
   const Ipkit::MplsLabel bsid = active->bindingSid();
   bool recorded = false;
   if (bsid.isNull()) {
      if (auto asked = policyBindingSidMap_.find(key); asked != policyBindingSidMap_.end())
         releaseBindingSid(Ipkit::MplsLabel(asked->second), key);
   } else {
      auto [asked, inserted] = policyBindingSidMap_.try_emplace(key, bsid);
      recorded = inserted || asked->second == bsid;
      if (!recorded) releaseBindingSid(Ipkit::MplsLabel(asked->second), key);
   }
   if (!requestBindingSid(*active, key, recorded)) {
      // Still a competitor: the binding SID it asked for stays recorded.
      emitBsidConflictSyslog(*policy, key);
      withdraw(key);
      return;
   }

   const CandidateId candidateId = active->candidateId();
   const Originator& originator = active->priority().originator;
   SRTE_TRACE_TO(tracer_, 6,
                 "Policy Endpoint: " << key.endpoint << " Color: " << key.color
                                     << " Candidate: " << candidateId << " is now active");
   Vault::Fib::FecId fecId, nullLabelFecId;
   if (const Mox::Ptr<PolicyStatusEntry> entry = in_.status->status(key)) {
      fecId = entry->fecId();
      nullLabelFecId = entry->nullLabelFecId();
      addOrUpdateSrTePolicyFecs(*active, key, fecId, nullLabelFecId);
      if (!(entry->candidateId() == candidateId)) entry->lastModifiedIs(clock_->now());
      entry->bindingSidIs(active->bindingSid());
      entry->candidateIdIs(candidateId);
      entry->originatorIs(originator);
   } else {
      fecId = getFecId();
      nullLabelFecId = getFecId();
      addOrUpdateSrTePolicyFecs(*active, key, fecId, nullLabelFecId);
      in_.status->statusIs(key, candidateId, originator, clock_->now(), active->bindingSid(), fecId,
                           nullLabelFecId);
   }
   in_.status->fecIdToPolicyKeyIs(fecId, key);
   in_.status->fecIdToPolicyKeyIs(nullLabelFecId, key);
}

void PolicyPublishSm::withdraw(const PolicyKey& key) {
   SRTE_TRACE_TO(tracer_, 6,
                 "Policy Endpoint: " << key.endpoint << " Color: " << key.color
                                     << " has no active policy");
   if (const Mox::Ptr<PolicyStatusEntry> entry = in_.status->status(key)) {
      deleteSrTePolicyFecs(*entry);
      in_.status->fecIdToPolicyKeyDel(entry->fecId());
      in_.status->fecIdToPolicyKeyDel(entry->nullLabelFecId());
   }
   in_.status->statusDel(key);
}

bool PolicyPublishSm::requestBindingSid(const PolicyEntry& active, const PolicyKey& key,
                                        bool recorded) {
   const Ipkit::MplsLabel bsid = active.bindingSid();
   if (bsid.isNull()) return true;
   if (!recorded) policyBindingSidMap_[key] = bsid;
   Mox::Ptr<ConflictingPolicies>& c = bindingSidPolicyMap_[bsid];
   if (!c) {
      c = Mox::make<ConflictingPolicies>(bsid);
      c->chosenIs(key);
      return true;
   }
   if (c->chosen() == key) return true;
   if (!c->hasHolder()) {
      c->chosenIs(key);
      c->competitorDel(key);
      return true;
   }
   c->competitorIs(key);
   SRTE_TRACE_TO(tracer_, 3,
                 "Policy Endpoint: " << key.endpoint << " Color: " << key.color << " binding-sid "
                                     << bsid << " is unavailable");
   return false;
}

void PolicyPublishSm::releaseBindingSid(Ipkit::MplsLabel bsid, const PolicyKey& key) {
   if (bsid == Ipkit::MplsLabel()) {
      SRTE_TRACE_TO(tracer_, 0, "Cannot release invalid binding-sid");
      SRTE_ASSERT(bsid != Ipkit::MplsLabel(), "Cannot release invalid binding-sid");
   }
   policyBindingSidMap_.erase(key);
   auto it = bindingSidPolicyMap_.find(bsid);
   if (it == bindingSidPolicyMap_.end()) return;
   const Mox::Ptr<ConflictingPolicies> c = it->second;
   if (c->chosen() == key) c->chosenIs(PolicyKey());
   c->competitorDel(key);
   if (!c->competitor().empty()) {
      // The first of them the task processes takes it.
      for (const PolicyKey& competitor : c->competitor()) markPending(competitor);
      scheduleTask();
      return;
   }
   if (!c->hasHolder()) bindingSidPolicyMap_.erase(bsid);
}

void PolicyPublishSm::emitBsidConflictSyslog(const Policy& policy, const PolicyKey& key) {
   const PolicyEntry& active = *policy.active();
   const ConflictingPolicies* c = conflictingPolicies(active.bindingSid());
   SRTE_ASSERT(c, "Chosen policy does not exist in status");
   const PolicyKey& chosen = c->chosen();
   const Mox::Ptr<PolicyStatusEntry> chosenStatusEntry = in_.status->status(chosen);
   SRTE_ASSERT(chosenStatusEntry, "Chosen policy does not exist in status");
   const std::string endpoint = key.endpoint.stringValue();
   const std::string protocol = protocolEnumToString(active.priority().protocol);
   const std::string origin = active.priority().originator.address.stringValue();
   const std::string chosenEndpoint = chosen.endpoint.stringValue();
   const std::string chosenProtocol =
       protocolEnumToString(chosenStatusEntry->candidateId().protocol);
   const std::string chosenOrigin = chosenStatusEntry->originator().address.stringValue();
   syslog_->log(SRTE_POLICY_CONFLICT_BSID_IN_USE, endpoint.c_str(), unsigned{key.color.value},
                protocol.c_str(), origin.c_str(), unsigned{active.priority().originator.asn},
                unsigned{active.priority().discriminator.value},
                unsigned{active.bindingSid().value()}, chosenEndpoint.c_str(),
                unsigned{chosen.color.value}, chosenProtocol.c_str(), chosenOrigin.c_str(),
                unsigned{chosenStatusEntry->originator().asn},
                unsigned{chosenStatusEntry->candidateId().discriminator.value});
}

// ---------------------------------------------------------------------------------------------
// FECs

Ipkit::MplsLabel PolicyPublishSm::explicitNullLabel(const Ipkit::IpGenAddr& endpoint) {
   return Ipkit::MplsLabel(endpoint.af() == 1 ? ipv6ExplicitNull : ipv4ExplicitNull);
}

Vault::Fib::FecId PolicyPublishSm::getFecId() {
   const Kiln::Number index = numAllocator_->getNumber();
   SRTE_ASSERT(index != numAllocator_->invalidNumber(), "FecId range exhausted, Not possible");
   SRTE_ASSERT(index >= 0, "index >= 0");
   const Vault::Fib::FecId fecId =
       Vault::Fib::FecId::fecIdForAdjType(fecAdjType, static_cast<uint64_t>(index));
   SRTE_TRACE_TO(tracer_, 9, "Allocated new fecId: " << fecId);
   return fecId;
}

void PolicyPublishSm::addOrUpdateSrTePolicyFecs(const PolicyEntry& policyEntry,
                                                const PolicyKey& key, Vault::Fib::FecId fecId,
                                                Vault::Fib::FecId nullLabelFecId) {
   SRTE_TRACE_TO(tracer_, 8, "Updating policy fecId: " << fecId);
   createSrTePolicyFecEntry(fecId, policyEntry, Ipkit::MplsLabel());
   SRTE_TRACE_TO(tracer_, 8, "Updating SrTePolicyNullLabelFecId fecId: " << nullLabelFecId);
   createSrTePolicyFecEntry(nullLabelFecId, policyEntry, explicitNullLabel(key.endpoint));
}

void PolicyPublishSm::createSrTePolicyFecEntry(Vault::Fib::FecId fecId,
                                               const PolicyEntry& policyEntry,
                                               Ipkit::MplsLabel viaMplsLabel) {
   SRTE_TRACE_TO(tracer_, 8, "Creating policy fecId: " << fecId);
   Vault::Fib::Fec fec(fecId);
   fec.viaReserve(policyEntry.wTunnelId().size());
   uint32_t viaIndex = 0;
   // Rows in index order; their weights are the tunnels' business, not the FEC's.
   for (const auto& [index, row] : policyEntry.wTunnelId()) {
      Vault::Fib::Via via;
      via.labelActionIs(Ipkit::MplsLabelAction::none);
      if (!viaMplsLabel.isNull()) via.mplsLabelIs(viaMplsLabel);
      via.tunnelIdIs(row.tunnelId);
      SRTE_TRACE_TO(tracer_, 9, "Adding tunnelId: " << row.tunnelId);
      fec.viaIs(viaIndex++, via);
   }
   fwdStatusWrite([&fec](Vault::Fib::ForwardingStatus& fwd) { fwd.fecCommit(std::move(fec)); });
}

void PolicyPublishSm::deleteSrTePolicyFec(Vault::Fib::FecId fecId) {
   SRTE_TRACE_TO(tracer_, 8, "Delete policy fecId: " << fecId);
   fwdStatusWrite([fecId](Vault::Fib::ForwardingStatus& fwd) { fwd.fecDel(fecId); });
   numAllocator_->releaseNumber(static_cast<Kiln::Number>(fecId.index()));
}

void PolicyPublishSm::fwdStatusWrite(absl::FunctionRef<void(Vault::Fib::ForwardingStatus&)> write) {
   try {
      write(*in_.srteFwdStatus);
   } catch (const Vault::Corruption& e) {
      SRTE_TRACE_TO(tracer_, 0, e.what());
      in_.srteFwdStatus->handleCorruption();
      SRTE_ASSERT(false, "srteFwdStatus corrupted");
   }
}

void PolicyPublishSm::deleteSrTePolicyFecs(const PolicyStatusEntry& statusEntry) {
   deleteSrTePolicyFec(statusEntry.fecId());
   deleteSrTePolicyFec(statusEntry.nullLabelFecId());
}

// ---------------------------------------------------------------------------------------------
// Dump

void PolicyPublishSm::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cpendingPolicies #%u \n", depth, ' ',
                static_cast<unsigned>(pendingPolicy_.pending().size()));
   std::vector<PolicyKey> pending;
   for (const PendingKey<PolicyKey>& p : pendingPolicy_.pending().keys()) pending.push_back(p.id);
   std::sort(pending.begin(), pending.end());
   for (const PolicyKey& key : pending) {
      Mox::appendf(out, "%*c%s\n", depth + 2, ' ', key.stringValue().c_str());
   }
   Mox::appendf(out, "%*cpendingBookmark: %s \n", depth, ' ',
                pendingBookmark().stringValue().c_str());
   Mox::appendf(out, "%*cTask Dump: \n", depth, ' ');
   if (task_) Mox::appendf(out, "%*c%s\n", depth + 2, ' ', task_->stringValue().c_str());
   Mox::appendf(out, "%*cdelayTime#: %f\n", depth, ' ', delayTime_);
   Mox::appendf(out, "%*cbindingSidPolicyMap #%u \n", depth, ' ',
                static_cast<unsigned>(bindingSidPolicyMap_.size()));
   for (const auto* member : Mox::sortedMembers(bindingSidPolicyMap_)) {
      Mox::appendf(out, "%*c(%s, %u)\n", depth + 2, ' ',
                   member->second->chosen().stringValue().c_str(), member->first.value());
   }
   Mox::appendf(out, "%*cpolicyBindingSidMap #%u \n", depth, ' ',
                static_cast<unsigned>(policyBindingSidMap_.size()));
   for (const auto* member : Mox::sortedMembers(policyBindingSidMap_)) {
      Mox::appendf(out, "%*c(%s, %u)\n", depth + 2, ' ', member->first.stringValue().c_str(),
                   member->second.value());
   }
}

} // namespace SrTePolicy
