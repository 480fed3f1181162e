#include "input/SrTePolicyInputSm.h"

#include <algorithm>
#include <array>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace SrTePolicy {

const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE = {
    "SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE", Syslog::Severity::error,
    "Endpoint %s, color %u, protocol %s, originator %s(AS%u), discriminator %u is unusable: "
    "BSID(%u) is outside SRLB [%u, %u]",
    "BSID in policy is not within the configured SRLB range",
    "The configuration needs be changed so that the BSID within the allowed SRLB range"};
const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_MISSING = {
    "SRTE_POLICY_INVALID_BSID_MISSING", Syslog::Severity::error,
    "Endpoint %s, color %u, protocol %s, originator %s(AS%u), discriminator %u is unusable",
    "Policy is unusable as it does not have a binding SID",
    "The configuration needs to be changed so that policy has a Binding SID"};
const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_IN_USE_OTHER_APPLICATION = {
    "SRTE_POLICY_INVALID_BSID_IN_USE_OTHER_APPLICATION", Syslog::Severity::error,
    "Endpoint %s, color %u, protocol %s, originator %s(AS%u), discriminator %u is unusable: "
    "BSID(%u) already in use by another application",
    "Policy is unusable as binding SID is used by another application",
    "The configuration needs to be changed so that Binding SID is unique acrossall users of SRLB "
    "range"};
const Syslog::MessageDef SRTE_POLICY_INVALID_NO_SEGMENT_LISTS = {
    "SRTE_POLICY_INVALID_NO_SEGMENT_LISTS", Syslog::Severity::error,
    "Endpoint %s, color %u, protocol %s, originator %s(AS%u), discriminator %u is unusable",
    "Policy is unusable as it does not have a segment-list",
    "The configuration needs to be changed so that policy has at least one segment list"};

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class PolicyInputSm::MoxConfig : public Mox::Reactor<Config::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onSpecifiedBsidOnly() override { owner().handleSpecifiedBsidOnly(); }
   void onSegmentListSharingEnabled() override { owner().handleInitialized(); }
};

class PolicyInputSm::MoxInput : public Mox::Reactor<PolicyInputSource::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onPolicyInput(const Protocol& protocol) override {
      if (!owner().isHandled(protocol)) return;
      owner().moxPolicyIs(protocol);
      owner().handleProtocolSource(protocol);
   }
};

class PolicyInputSm::MoxPolicy : public Mox::Reactor<PolicyInput::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onPolicyInputEntry(const PolicyId& id) override { owner().handlePolicyEntry(id); }
   // The whole table changed (mounted again): everything it holds is to be looked at.
   void onPolicyInputEntry() override {
      if (notifier()) owner().handleProtocolSource(protocol_);
   }
   Protocol protocol_ = Protocol::unknown;
};

class PolicyInputSm::MoxMplsConfig : public Mox::Reactor<Mpls::Config::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onLabelRange(const Mox::Name& name) override { owner().handleLabelRange(name); }
};

class PolicyInputSm::MoxMplsStatus : public Mox::Reactor<Mpls::Status::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onLfibRoute(const Mpls::RouteKey& key) override { owner().handleLFibRoute(key); }
};

class PolicyInputSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, PolicyInputSm> {
 public:
   using Reactor::Reactor;
   void onTaskRun() override { owner().handleTaskRun(); }
};

// ---------------------------------------------------------------------------------------------
// Construction

PolicyInputSm::PolicyInputSm(Inputs in)
    : in_(std::move(in)), syslog_(&in_.syslog), tracer_(&in_.tracer) {
   SRTE_ASSERT(in_.config && in_.input && in_.mplsConfig && in_.mplsStatus &&
                   in_.policySelectionInput && in_.coreDedupTables && in_.segListMap &&
                   in_.segmentMap && in_.policyKeyToIdMap && in_.exportedSegmentListColl &&
                   in_.scheduler && in_.attrLogSm,
               "PolicyInputSm needs every table of its Inputs");
   moxInput_ = std::make_unique<MoxInput>(*this, in_.input.get());
   for (const auto& [protocol, table] : in_.input->policyInput()) {
      if (isHandled(protocol)) moxPolicyIs(protocol);
   }
   moxMplsConfig_ = std::make_unique<MoxMplsConfig>(*this, in_.mplsConfig.get());
   moxMplsStatus_ = std::make_unique<MoxMplsStatus>(*this, in_.mplsStatus.get());
   // Binding to the configuration is what starts the machine. It would go on with
   // handleSpecifiedBsidOnly, which queues every record of each handled table and every
   // selection-input entry of its protocol, record changed: handleInitialized has just queued all
   // of them that way, so that would only merge into marks already there (at a million paths, two
   // million of them on every start).
   moxConfig_ = std::make_unique<MoxConfig>(*this, in_.config.get());
   handleInitialized();
}

PolicyInputSm::~PolicyInputSm() {
   // handleDel: stop the task and let go of every reactor. What was published stays for the
   // next start to reconcile.
   if (task_) task_->unscheduleTask();
   moxTask_.reset();
   moxConfig_.reset();
   moxInput_.reset();
   policy_.clear();
   moxMplsConfig_.reset();
   moxMplsStatus_.reset();
}

Mox::Ptr<PolicyInputSm> policyInputSmFactory(PolicyInputSm::Inputs in) {
   return Mox::make<PolicyInputSm>(std::move(in));
}

bool PolicyInputSm::isHandled(Protocol protocol) const noexcept {
   return std::find(handledProtocols.begin(), handledProtocols.end(), protocol) !=
          handledProtocols.end();
}

void PolicyInputSm::moxPolicyIs(Protocol protocol) {
   Mox::Ptr<PolicyInput> table = in_.input->policyInput(protocol);
   if (!table) {
      policy_.erase(protocol);
      return;
   }
   auto& reactor = policy_[protocol];
   if (!reactor) {
      reactor = std::make_unique<MoxPolicy>(*this);
      reactor->protocol_ = protocol;
   }
   reactor->notifierIs(table.get());
}

BindingSidUser* PolicyInputSm::bsidUser(Ipkit::MplsLabel label) const {
   auto it = bsidUser_.find(label);
   return it == bsidUser_.end() ? nullptr : it->second.get();
}

// ---------------------------------------------------------------------------------------------
// Handlers

void PolicyInputSm::handleInitialized() {
   initialized_ = true;
   SRTE_TRACE_TO(tracer_, 3,
                 "handleInitialized called with segmentListSharingEnabled="
                     << (in_.config->segmentListSharingEnabled() ? "True" : "False"));
   if (!task_) {
      task_ = Mox::make<Kiln::Task>(*in_.scheduler, taskPriority, taskName);
      moxTask_ = std::make_unique<MoxTask>(*this, task_);
   }
   readSrlbRange();
   cleanupPending_ = true;
   in_.policySelectionInput->policyIdEntry().forEach(
       [this](const PolicyId& id, const auto&) { markPending(id, true); });

   auto* lists = in_.coreDedupTables->notifyingSegmentListCollection();
   // Until the first full pass is done, a published list missing from the table may only be late.
   lists->initialPassDoneIs(false);
   SegmentListId maxExported;
   for (const auto& [id, list] : in_.exportedSegmentListColl->segmentList()) {
      maxExported = std::max(maxExported, id);
      // A list that comes back with the same labels keeps its id, and so its tunnel.
      Ipkit::MplsLabelOperation stack;
      for (uint32_t i = 0; i < list->segment().size(); ++i) {
         stack.labelIs(Ipkit::MplsStackEntryIndex(i), list->segment()[i].mplsLabel);
      }
      lists->adoptableIdIs(NotifyingSegmentListCollection::adoptionKey(stack), id);
   }
   SRTE_TRACE_TO(tracer_, 3, "Setting starting slId to max of previous entries " << maxExported);
   // Never move the counter back: ids issued in this process are not reused either.
   lists->uniqueIdIs(std::max(lists->uniqueId(), maxExported));

   in_.policyKeyToIdMap->policyDelAll();
   in_.segListMap->segmentListUserDelAll();
   in_.segmentMap->segmentListDelAll();
   // Registrations are rebuilt from the records, which are all queued below.
   bsidUser_.clear();
   // Every record of every source; every selection-input entry was queued above.
   for (Protocol p : handledProtocols) markTablePending(p, true);
   if (!pendingPolicyId_.empty()) {
      task_->scheduleTask();
      return;
   }
   // Nothing to process: the first pass is already complete.
   cleanupPending_ = false;
   runCleanupJob();
}

void PolicyInputSm::handleDel() {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 3, "PolicyInputSm is to be deleted");
   initialized_ = false;
   if (task_) task_->unscheduleTask();
   pendingPolicyId_.clear();
   cleanupPending_ = false;
   std::vector<PolicyId> ids;
   ids.reserve(in_.policySelectionInput->policyIdEntry().size());
   for (const auto& [id, entry] : in_.policySelectionInput->policyIdEntry()) ids.push_back(id);
   for (const PolicyId& id : ids) deletePolicyIdEntry(id);
   in_.policyKeyToIdMap->policyDelAll();
   bsidUser_.clear();
   // Lists still registered without a selection-input entry (none in steady state) go too.
   in_.segListMap->segmentListUserDelAll();
   in_.segmentMap->segmentListDelAll();
   in_.exportedSegmentListColl->segmentListDelAll();
}

void PolicyInputSm::handleSpecifiedBsidOnly() {
   if (!initialized_) return;
   for (Protocol p : handledProtocols) handleProtocolSource(p);
}

void PolicyInputSm::handleProtocolSource(Protocol protocol) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 5, "Source change: add new policies");
   markTablePending(protocol, true);
   SRTE_TRACE_TO(tracer_, 5, "Source change: cleanup of stale policies");
   for (const auto& [id, entry] : in_.policySelectionInput->policyIdEntry()) {
      if (id.protocol == protocol) markPending(id, true);
   }
   scheduleIfPending();
}

void PolicyInputSm::handlePolicyEntry(const PolicyId& id) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 8, "Policy Entry: " << id << " has changed");
   markPending(id, true);
   task_->scheduleTask();
}

void PolicyInputSm::handleLabelRange(const Mox::Name& name) {
   if (!initialized_ || name != Mpls::srlbRangeName) return;
   SRTE_TRACE_TO(tracer_, 3, "SRLB Range has changed");
   readSrlbRange();
   for (const auto& [protocol, reactor] : policy_) markTablePending(protocol, false);
   scheduleIfPending();
}

void PolicyInputSm::handleLFibRoute(const Mpls::RouteKey& routeKey) {
   if (!initialized_) return;
   if (BindingSidUser* user = bsidUser(routeKey.topLabel())) {
      const bool available = isLabelAvailableInLfib(user->label());
      if (available != user->available()) {
         user->availableIs(available);
         for (const PolicyId& id : user->policyId()) {
            markPending(id, false); // merged into a pending mark of the id, if any
         }
      }
   }
   scheduleIfPending();
}

void PolicyInputSm::handleTaskRun() {
   if (!initialized_) return;
   // Resume the pass under way at its bookmark, or begin one over everything pending; what is
   // queued meanwhile and not ahead in this pass waits for the next.
   reserveEntries();
   const Kiln::DrainEnd end = pendingPolicyId_.run(
       *task_, *in_.attrLogSm, *tracer_,
       [this](const PendingPolicyKey& key, bool policyChanged) {
          processPolicyEntry(key.id, policyChanged);
       },
       // The tables this drain will probe a few paths on: in hash order, every probe misses.
       [this](const PendingPolicyKey& soon) {
          in_.policySelectionInput->policyIdEntry().prefetch(soon.id);
          in_.policyKeyToIdMap->policy().prefetch(soon.id.key);
          if (auto table = in_.input->policyInput(soon.id.protocol)) {
             table->policyInputEntryPrefetch(soon.id);
          }
       });
   if (end == Kiln::DrainEnd::drained && cleanupPending_) {
      cleanupPending_ = false;
      runCleanupJob();
   }
}

// Each pending path makes at most one selection-input entry, and no more entries exist than
// records: the table is sized for that at once rather than doubling its way there.
void PolicyInputSm::reserveEntries() {
   size_t records = 0;
   for (const auto& [protocol, table] : in_.input->policyInput()) {
      records += table->policyInputEntryCount();
   }
   const size_t entries = in_.policySelectionInput->policyIdEntry().size();
   in_.policySelectionInput->policyIdEntryReserve(
       std::min(entries + pendingPolicyId_.pending().sizeAtMost(), std::max(entries, records)));
}

// ---------------------------------------------------------------------------------------------
// One candidate path

void PolicyInputSm::processPolicyEntry(const PolicyId& id, bool policyChanged) {
   SRTE_TRACE_TO(tracer_, 8, "Processing policy entry: " << id);
   const CandidateId candidateId(id);
   Mox::Ptr<PolicyInput> table = in_.input->policyInput(id.protocol);
   const PolicyInputEntry* found = table ? table->policyInputEntryFind(id) : nullptr;
   if (found) {
      // Copied (its used part): processing must not see the table move under it.
      PolicyInputEntry record;
      found->copyUsedTo(record);
      // The key's entry in the candidate map is looked up once: it tells the label the candidate
      // is registered under, and receives the candidate at the end (only this stage writes it).
      PolicyInfo* info = in_.policyKeyToIdMap->policy(id.key);
      const PolicyCandidateInfo* earlier = info ? info->candidate(candidateId) : nullptr;
      const Ipkit::MplsLabel registered = earlier ? earlier->bindingSid : Ipkit::MplsLabel();
      // Made first: the binding-SID user holds the path through it.
      if (!info) info = in_.policyKeyToIdMap->policyIs(id.key);
      const BindingSidUser* user =
          registerForBindingSid(record.bindingSid(), id, *info, registered);
      const PolicyInvalidReason reason = isPolicyEntryValid(record, user);
      if (reason == PolicyInvalidReason::usable) {
         addOrUpdatePolicyIdEntry(record, earlier != nullptr);
      } else {
         deletePolicyIdEntry(id);
      }
      addInPolicyKeyToIdMap(*info, candidateId, policyChanged, reason, record.bindingSid());
      return;
   }
   const Ipkit::MplsLabel bsid = getBindingSidOfPolicy(id);
   deregisterForBindingSid(bsid, id);
   deleteFromPolicyKeyToIdMap(id.key, candidateId);
   deletePolicyIdEntry(id);
}

PolicyInvalidReason PolicyInputSm::isPolicyEntryValid(const PolicyInputEntry& entry,
                                                      const BindingSidUser* user) {
   PolicyInvalidReason reason = PolicyInvalidReason::usable;
   const Ipkit::MplsLabel bsid = entry.bindingSid();
   if (bsid.isNull()) {
      if (in_.config->specifiedBsidOnly()) reason = PolicyInvalidReason::bsidMissing;
   } else {
      const bool inside = srlbFormable_ && bsid.value() >= srlbConfigRangeBase() &&
                          bsid.value() <= srlbConfigRangeBase() + srlbConfigRangeSize() - 1;
      if (!inside) {
         reason = PolicyInvalidReason::bsidOutOfRange;
      } else {
         if (!user) {
            SRTE_TRACE_TO(tracer_, 0,
                          "BindingSid: " << bsid
                                         << "is not available in reverse mapping collection");
         }
         SRTE_ASSERT(user, "bsidUserInfo");
         reason = user->available() ? PolicyInvalidReason::usable
                                    : PolicyInvalidReason::bsidInUseOtherApplication;
      }
   }
   if (entry.segmentListCount() == 0) reason = PolicyInvalidReason::noSegmentLists;
   if (reason != PolicyInvalidReason::usable) emitInvalidPolicySyslog(entry, reason);
   return reason;
}

void PolicyInputSm::emitInvalidPolicySyslog(const PolicyInputEntry& entry,
                                            PolicyInvalidReason reason) const {
   const PolicyId& id = entry.key();
   const std::string endpoint = id.key.endpoint.stringValue();
   const std::string protocol = protocolEnumToString(id.protocol);
   const std::string origin = entry.originator().address.stringValue();
   const unsigned color = id.key.color.value;
   const unsigned asn = entry.originator().asn;
   const unsigned discriminator = id.discriminator.value;
   const unsigned bsid = entry.bindingSid().value();
   const unsigned base = srlbConfigRangeBase();
   const unsigned last = base + srlbConfigRangeSize() - 1;
   switch (reason) {
   case PolicyInvalidReason::usable:
      return;
   case PolicyInvalidReason::bsidOutOfRange:
      syslog_->log(SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE, endpoint.c_str(), color, protocol.c_str(),
                   origin.c_str(), asn, discriminator, bsid, base, last);
      return;
   case PolicyInvalidReason::bsidMissing:
      syslog_->log(SRTE_POLICY_INVALID_BSID_MISSING, endpoint.c_str(), color, protocol.c_str(),
                   origin.c_str(), asn, discriminator);
      return;
   case PolicyInvalidReason::bsidInUseOtherApplication:
      syslog_->log(SRTE_POLICY_INVALID_BSID_IN_USE_OTHER_APPLICATION, endpoint.c_str(), color,
                   protocol.c_str(), origin.c_str(), asn, discriminator, bsid);
      return;
   case PolicyInvalidReason::noSegmentLists:
      // Configured paths without segment lists are a normal step of configuring one.
      if (id.protocol == Protocol::staticConfig) return;
      syslog_->log(SRTE_POLICY_INVALID_NO_SEGMENT_LISTS, endpoint.c_str(), color, protocol.c_str(),
                   origin.c_str(), asn, discriminator);
      return;
   }
}

void PolicyInputSm::addInPolicyKeyToIdMap(PolicyInfo& info, const CandidateId& candidateId,
                                          bool policyChanged, PolicyInvalidReason reason,
                                          Ipkit::MplsLabel bindingSid) {
   PolicyCandidateInfo candidate{in_.scheduler->now(), reason, bindingSid};
   if (!policyChanged) {
      if (const PolicyCandidateInfo* earlier = info.candidate(candidateId)) {
         candidate.lastModified = earlier->lastModified;
      }
   }
   info.candidateIs(candidateId, candidate);
}

void PolicyInputSm::deleteFromPolicyKeyToIdMap(const PolicyKey& key,
                                               const CandidateId& candidateId) {
   PolicyInfo* info = in_.policyKeyToIdMap->policy(key);
   if (!info) return;
   info->candidateDel(candidateId);
   if (info->candidate().empty()) in_.policyKeyToIdMap->policyDel(key);
}

void PolicyInputSm::addOrUpdatePolicyIdEntry(const PolicyInputEntry& record, bool recorded) {
   const PolicyId& id = record.key();
   SRTE_TRACE_TO(tracer_, 8, "Policy Id: " << id << " added/updated");
   Mox::Ptr<PolicyIdEntry> entry =
       in_.policySelectionInput->policyIdEntryIs(id, record.preference(), record.originator());
   entry->bindingSidIs(record.bindingSid());

   // Register the new lists before letting go of the old ones, so that a list the update keeps
   // never leaves the dedup table in between. A path has at most 16 lists: fixed arrays, no
   // allocation per path.
   SegmentListIds previous;
   for (const auto& [index, wsl] : entry->wSegmentList()) previous.push_back(wsl.segmentListId);
   SegmentListIds current;
   const uint32_t count =
       std::min(record.segmentListCount(), PolicyInputEntry::segmentListCapacity);
   for (uint32_t i = 0; i < count; ++i) {
      const WeightedSegList& slot = record.segmentList(SegmentListIndex(i));
      Mox::Ptr<SegmentList> list = createDedupSegmentList(slot.segList, id);
      const SegmentListId slId = list->segmentListId();
      // A list the path did not name before (in its last record or an earlier slot of this one)
      // cannot have it among its users yet; nor can any list, for a path not recorded yet.
      const bool newUser =
          (!recorded || std::find(previous.begin(), previous.end(), slId) == previous.end()) &&
          std::find(current.begin(), current.end(), slId) == current.end();
      registerSegmentListForPolicy(list, entry, newUser);
      current.push_back(slId);
      entry->wSegmentListIs(static_cast<uint8_t>(i),
                            WeightedSegmentListId(slot.weight, slId, slId.getTunnelId()));
   }
   // Slots past the new count go, lowest index first (rows are index-ordered).
   for (;;) {
      const auto& rows = entry->wSegmentList();
      auto surplus = std::find_if(rows.begin(), rows.end(),
                                  [count](const auto& row) { return row.first >= count; });
      if (surplus == rows.end()) break;
      entry->wSegmentListDel(surplus->first);
   }
   for (SegmentListId old : previous) {
      if (std::find(current.begin(), current.end(), old) == current.end()) {
         deregisterSegmentListForPolicy(old, *entry);
      }
   }
   // Every write bumps the version, a record processed again unchanged included: selection
   // re-evaluates the path on it (its lists may have been withdrawn and made again meanwhile).
   entry->versionInc();
}

void PolicyInputSm::deletePolicyIdEntry(const PolicyId& id) {
   Mox::Ptr<PolicyIdEntry> entry = in_.policySelectionInput->policyIdEntry(id);
   if (!entry) return;
   SegmentListIds lists;
   for (const auto& [index, wsl] : entry->wSegmentList()) lists.push_back(wsl.segmentListId);
   for (SegmentListId slId : lists) deregisterSegmentListForPolicy(slId, *entry);
   in_.policySelectionInput->policyIdEntryDel(id);
}

// ---------------------------------------------------------------------------------------------
// Binding-SID users

Ipkit::MplsLabel PolicyInputSm::getBindingSidOfPolicy(const PolicyId& id) const {
   // The candidate map records the label every registered candidate names.
   if (PolicyInfo* info = in_.policyKeyToIdMap->policy(id.key)) {
      if (const PolicyCandidateInfo* c = info->candidate(CandidateId(id))) return c->bindingSid;
   }
   return Ipkit::MplsLabel();
}

BindingSidUser* PolicyInputSm::registerForBindingSid(Ipkit::MplsLabel bsid, const PolicyId& id,
                                                     const PolicyInfo& info,
                                                     Ipkit::MplsLabel registered) {
   if (registered != bsid) deregisterForBindingSid(registered, id);
   if (bsid.isNull()) return nullptr;
   auto [it, made] = bsidUser_.findOrInsert(bsid, [&] { return Mox::make<BindingSidUser>(bsid); });
   // The slot may move when the table next grows; the user does not.
   BindingSidUser* user = it->second.get();
   if (user->policyId().empty()) user->availableIs(isLabelAvailableInLfib(bsid));
   user->policyIdIs(info, CandidateId(id));
   return user;
}

void PolicyInputSm::deregisterForBindingSid(Ipkit::MplsLabel bsid, const PolicyId& id) {
   if (bsid.isNull()) return;
   auto it = bsidUser_.find(bsid);
   if (it == bsidUser_.end()) return;
   it->second->policyIdDel(id);
   if (it->second->policyId().empty()) bsidUser_.erase(it);
}

bool PolicyInputSm::isLabelAvailableInLfib(Ipkit::MplsLabel label) const {
   const Mpls::LFib::Route* route = in_.mplsStatus->lfibRoute(Mpls::RouteKey::fromLabel(label));
   if (!route) return true;
   return route->source == Mpls::LFib::Source::srTePolicy;
}

// ---------------------------------------------------------------------------------------------
// Segment lists

Mox::Ptr<SegmentList>
PolicyInputSm::createDedupSegmentList(const Ipkit::MplsLabelOperation& labelStack,
                                      const PolicyId&) {
   SRTE_TRACE_TO(tracer_, 9, "Creating dedup segmentList for label stack: " << labelStack);
   return in_.coreDedupTables->dedupSegmentList(labelStack);
}

void PolicyInputSm::registerSegmentListForPolicy(const Mox::Ptr<SegmentList>& list,
                                                 const Mox::Ptr<PolicyIdEntry>& entry,
                                                 bool newUser) {
   const PolicyId& id = entry->id();
   const SegmentListId slId = list->segmentListId();
   SRTE_TRACE_TO(tracer_, 9,
                 "Registration of SegmentList Id: " << slId << " for Policy Id: " << id);
   SegmentListUser* user = in_.segListMap->segmentListUser(*list);
   if (!user) {
      user = in_.segListMap->segmentListUserIs(slId, list);
      Mox::Ptr<Export::SegmentList> exported = in_.exportedSegmentListColl->segmentListIs(slId);
      exported->sizeIs(list->size());
      in_.segmentMap->segmentListPtrIs(list);
      for (uint32_t i = 0; i < list->size(); ++i) {
         exported->segmentIs(i, Export::Segment(list->segmentLabel(i)));
      }
   }
   if (newUser) {
      user->policyIdIsNew(entry);
   } else {
      user->policyIdIs(entry);
   }
}

void PolicyInputSm::deregisterSegmentListForPolicy(SegmentListId slId, const PolicyIdEntry& entry) {
   const PolicyId& id = entry.id();
   SRTE_TRACE_TO(tracer_, 9,
                 "Removing registration of SegmentList Id: " << slId << " for Policy Id: " << id);
   SegmentListUser* user = in_.segListMap->segmentListUser(slId);
   if (!user) return;
   user->policyIdDel(entry);
   if (!user->policyId().empty()) return;
   // Last user gone: drop every reference this stage holds, so the list leaves its table (held
   // here until its exported copy has gone).
   const Mox::Ptr<const SegmentList> list(user->segmentList());
   in_.segmentMap->segmentListPtrDel(list);
   in_.segListMap->segmentListUserDel(slId);
   in_.exportedSegmentListColl->segmentListDel(slId);
}

void PolicyInputSm::runCleanupJob() {
   SRTE_TRACE_TO(tracer_, 3, "Running cleanup");
   std::vector<SegmentListId> stale;
   for (const auto& [slId, list] : in_.exportedSegmentListColl->segmentList()) {
      if (!in_.segListMap->segmentListUser(slId)) stale.push_back(slId);
   }
   std::sort(stale.begin(), stale.end());
   for (SegmentListId slId : stale) {
      SRTE_TRACE_TO(tracer_, 5, "Deleting old segmentListId: " << slId);
      in_.exportedSegmentListColl->segmentListDel(slId);
   }
   // Every list still claimed is back: the ids not taken belong to lists nobody wants.
   auto* lists = in_.coreDedupTables->notifyingSegmentListCollection();
   lists->adoptableIdDelAll();
   lists->initialPassDoneIs(true);
}

// ---------------------------------------------------------------------------------------------
// Queueing

void PolicyInputSm::markPending(const PolicyId& id, bool policyChanged) {
   pendingPolicyId_.mark(PendingPolicyKey(id), policyChanged);
}

void PolicyInputSm::markTablePending(Protocol protocol, bool policyChanged) {
   Mox::Ptr<PolicyInput> table = in_.input->policyInput(protocol);
   if (!table) return;
   table->policyInputEntryForEachId([&](const PolicyId& id) { markPending(id, policyChanged); });
}

void PolicyInputSm::scheduleIfPending() {
   if (!pendingPolicyId_.empty() && task_) task_->scheduleTask();
}

void PolicyInputSm::readSrlbRange() {
   const Mpls::LabelRange* range = in_.mplsConfig->labelRange(Mpls::srlbRangeName);
   srlbConfigRange_ = range ? *range : Mpls::LabelRange(0, 0);
   // Both bounds must be labels; an SRLB that reaches past the label space (or none at all, whose
   // last label wraps) holds no usable label. Decided once here, not per candidate path.
   const uint32_t base = srlbConfigRangeBase();
   const uint32_t last = base + srlbConfigRangeSize() - 1; // wraps for an empty range
   srlbFormable_ = base <= Ipkit::MplsLabel::luWithdraw && last <= Ipkit::MplsLabel::luWithdraw;
   if (!srlbFormable_) {
      SRTE_TRACE_TO(tracer_, 3,
                    "SRLB [" << base << ", " << last
                             << "] cannot be formed: " << Ipkit::MplsLabel::rangeMessage);
   }
}

void PolicyInputSm::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*csrlbConfigRange: %s\n", depth, ' ',
                srlbConfigRange_.stringValue().c_str());
   Mox::appendf(out, "%*cpendingPolicyIds #%zu \n", depth, ' ', pendingPolicyId_.pending().size());
   Mox::appendf(out, "%*cpendingBookmark: %s\n", depth, ' ',
                pendingBookmark().stringValue().c_str());
   Mox::appendf(out, "%*cbsidUsers #%zu \n", depth, ' ', bsidUser_.size());
   Mox::appendf(out, "%*ccleanupPending: %s\n", depth, ' ', Mox::trueFalse(cleanupPending_));
}

} // namespace SrTePolicy
