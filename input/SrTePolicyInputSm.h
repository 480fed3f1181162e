// PolicyInputSm: turns the candidate paths of the policy input tables into the selection input.
//
// For every PolicyId that changes in a source table (protocols 20 and 30) it decides whether the
// candidate path is usable (binding SID present when required, inside the SRLB, not held in the
// LFIB by another application; at least one segment list), records every candidate with its
// reason in PolicyKeyToIdMap, logs unusable ones, and writes usable ones, with deduplicated
// segment lists, into PolicySelectionInput (bumping the entry's version once per update). It owns
// the binding-SID users, follows the SRLB and the LFIB, and keeps the exported segment lists in
// step with the segment lists in use.
//
//   change handler --> pendingPolicyId (a set: a burst on one id is processed once)
//        task "InputSmTask": drain from pendingBookmark in hash order
//          - output congested: stop, retry after 0.1 s (nothing dropped)
//          - scheduler says yield: bookmark the next id, run again at once
//          - drained: the one-time clean-up of stale exported segment lists, if due
//
// Guarantees:
//  - until initialised every handler returns at once; initialisation queues every record of every
//    source and every selection-input entry left from an earlier run;
//  - a requeue that changes nothing in a record (SRLB or LFIB change) keeps the candidate's time
//    of last change;
//  - the segment lists a candidate keeps across an update stay registered throughout, so their
//    ids and exported entries do not churn;
//  - after a restart a segment list whose label stack was exported takes that id back (a restart
//    must not renumber tunnels), every other new list gets an id above every exported one, and
//    the first full drain withdraws exactly the exported lists that no input claims, forgets the
//    ids not taken back and raises the segment-list collection's initialPassDone (the segment-list
//    machine holds its own clean-up until then);
//  - processing a usable record again without a change (a requeue, a restart) rewrites its
//    selection-input entry with the same values, so only its version moves: one bump per update,
//    and selection looks at the path again.
//
// Re-initialisation. A change of the configuration's segmentListSharingEnabled runs
// handleInitialized again, inside the configuration handler. Downstream machines see it as
// ordinary changes, in this order (tests/input: SharingToggleReinitialises...):
//  1. before the configuration setter returns, depth-first (platform/Mox.h): every candidate
//     leaves PolicyKeyToIdMap; every segment-list user and segment registration is dropped, so
//     every canonical segment list leaves its dedup table (its notifier leaves
//     NotifyingSegmentListCollection), each followed by the segments that no remaining list holds
//     (NotifyingSegmentCollection); binding-SID users are dropped. The selection input and the
//     exported lists are left as they are: PolicyIdEntry rows still name the withdrawn ids;
//  2. as the task drains (over several runs when it yields or the output is congested): every
//     candidate is recorded again at the current time; each usable one gets canonical lists that
//     take their exported ids back (as after a restart; a stack not exported gets a fresh id), and
//     its PolicyIdEntry names them, its version bumped once (whether or not anything changed);
//  3. after the first full drain, the exports under the old ids are withdrawn.
// So a machine downstream treats a list id that a PolicyIdEntry names but that is no longer in the
// notifying collection as unresolved until the entry's next version, never as an error; and a
// tunnel id made from an old list id goes away with that list.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "input/SrTePolicyExportTypes.h"
#include "input/SrTePolicyKeyToIdMap.h"
#include "input/SrTePolicySelectionInput.h"
#include "platform/Kiln.h"
#include "platform/KilnDrain.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/MoxView.h"
#include "platform/Mpls.h"
#include "platform/Syslog.h"
#include "platform/Trace.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentList.h"
#include "types/SrTePolicy.h"
#include "types/SrTePolicyInput.h"
#include "types/SrTePolicyPendingKey.h"

namespace SrTePolicy {

// The candidate paths naming one binding SID, and whether the LFIB leaves that label to us. A path
// is held as its key's candidate record and its candidate id, 16 bytes where its PolicyId is 32: a
// path registered here keeps its candidate in PolicyKeyToIdMap for as long as it is registered
// (this stage records and drops the two together). Readers see the set of PolicyId.
class BindingSidUser : public Mox::Entity, public Mox::Slabbed<BindingSidUser> {
 public:
   struct Member {
      Mox::Ptr<const PolicyInfo> info;
      CandidateId candidate;
      PolicyId policyId() const {
         return PolicyId(info->key(), candidate.protocol, candidate.discriminator);
      }
      bool names(const PolicyId& id) const {
         return candidate == CandidateId(id) && info->key() == id.key;
      }
      uint32_t hash() const noexcept {
         return Mox::hashCombine(
             static_cast<uint32_t>(Mox::Hash<Mox::Ptr<const PolicyInfo>>()(info)),
             candidate.hash());
      }
      friend bool operator==(const Member&, const Member&) = default;
   };
   struct MemberId {
      PolicyId operator()(const Member& m) const { return m.policyId(); }
   };
   using Members = Mox::SmallSet<Member, 2, 16>;
   // The members' PolicyIds, in no particular order.
   using PolicyIds = Mox::MappedView<Members, MemberId>;

   class Notifiee : public Mox::NotifieeOf<BindingSidUser> {
    public:
      virtual void onAvailable() {}
      virtual void onPolicyId(const PolicyId&) {}
   };
   explicit BindingSidUser(Ipkit::MplsLabel label) : label_(label) {}

   const Ipkit::MplsLabel& label() const noexcept { return label_; }
   bool available() const noexcept { return available_; }
   void availableIs(bool a) { attrIs(available_, a, &Notifiee::onAvailable); }
   PolicyIds policyId() const noexcept { return PolicyIds(policyId_); }
   bool policyIdHas(const PolicyId& id) const { return policyId().count(id) != 0; }
   // The path `candidate` of the key whose candidate record is `info`.
   void policyIdIs(const PolicyInfo& info, const CandidateId& candidate) {
      const Member m{Mox::Ptr<const PolicyInfo>(&info), candidate};
      if (policyId_.insert(m).second) notify(&Notifiee::onPolicyId, m.policyId());
   }
   // By id: a scan of the members (a label has one or two).
   void policyIdDel(const PolicyId& id) {
      auto it = std::find_if(policyId_.begin(), policyId_.end(),
                             [&id](const Member& m) { return m.names(id); });
      if (it != policyId_.end()) policyIdDel(it);
   }
   void policyIdDelAll() {
      // Taken first: erasing at begin() of a large set one at a time costs the square of its size.
      while (!policyId_.empty()) {
         const std::vector<Member> members(policyId_.begin(), policyId_.end());
         for (const Member& m : members) {
            auto it = policyId_.find(m);
            if (it != policyId_.end()) policyIdDel(it);
         }
      }
   }

 private:
   void policyIdDel(Members::const_iterator it) {
      const Member keep = *it; // the key's record stays readable while the reactors hear it go
      policyId_.erase(it);
      notify(&Notifiee::onPolicyId, keep.policyId());
   }

   Ipkit::MplsLabel label_;
   bool available_ = false;
   Members policyId_;
};

// The pending candidate paths, drained in hash order (types/SrTePolicyPendingKey.h); the value
// says whether the record itself changed.
using PendingPolicyIdDrain =
    Kiln::Drain<PendingPolicyKey, bool, std::less<PendingPolicyKey>, Kiln::MergeOr>;
using PendingPolicyIdMap = PendingPolicyIdDrain::Pending;

// The system-log messages of unusable candidate paths.
extern const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE;
extern const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_MISSING;
extern const Syslog::MessageDef SRTE_POLICY_INVALID_BSID_IN_USE_OTHER_APPLICATION;
extern const Syslog::MessageDef SRTE_POLICY_INVALID_NO_SEGMENT_LISTS;

class PolicyInputSm : public Mox::RefCounted {
 public:
   static constexpr const char* taskName = "InputSmTask";
   static constexpr int taskPriority = 2;
   static constexpr double congestionDelay = 0.1;
   static constexpr size_t prefetchDistance = 8; // paths the drain fetches its table slots ahead
   static constexpr std::array<Protocol, 2> handledProtocols = {Protocol::bgp,
                                                                Protocol::staticConfig};

   // What the machine reads and writes, by name. The tables must exist; `syslog` and `tracer`
   // default to the process-wide ones when not given (an assembly always gives its own).
   struct Inputs {
      Mox::Ptr<const Config> config;
      Mox::Ptr<const PolicyInputSource> input;
      Mox::Ptr<const Mpls::Config> mplsConfig;
      Mox::Ptr<const Mpls::Status> mplsStatus;
      Mox::Ptr<PolicySelectionInput> policySelectionInput;
      Mox::Ptr<CoreDedupTables> coreDedupTables;
      Mox::Ptr<SegmentListIdToPolicyMap> segListMap;
      Mox::Ptr<SegmentIdToSegmentList> segmentMap;
      Mox::Ptr<PolicyKeyToIdMap> policyKeyToIdMap;
      Mox::Ptr<Export::SegmentListCollection> exportedSegmentListColl;
      Kiln::TaskScheduler* scheduler = nullptr;
      Mox::Ptr<Kiln::AttrLogSm> attrLogSm;
      // The assembly's own (PolicyCore::syslog(), tracer()), never the process ones.
      Syslog::Log& syslog;
      Trace::Tracer& tracer;
   };

   explicit PolicyInputSm(Inputs in);
   ~PolicyInputSm() override;

   // State, for the host's tables and for tests.
   const Mpls::LabelRange& srlbConfigRange() const noexcept { return srlbConfigRange_; }
   uint32_t srlbConfigRangeBase() const noexcept { return srlbConfigRange_.base(); }
   uint32_t srlbConfigRangeSize() const noexcept { return srlbConfigRange_.size(); }
   struct BsidUserLabel {
      const Ipkit::MplsLabel& operator()(const BindingSidUser& u) const noexcept {
         return u.label();
      }
   };
   using BsidUserMap = Mox::KeyedTable<Mox::Ptr<BindingSidUser>, BsidUserLabel>;
   const BsidUserMap& bsidUser() const noexcept { return bsidUser_; }
   BindingSidUser* bsidUser(Ipkit::MplsLabel label) const;
   const PendingPolicyIdMap& pendingPolicyId() const noexcept { return pendingPolicyId_.pending(); }
   // Where the pass under way resumes; the default id when none is under way.
   PolicyId pendingBookmark() const noexcept {
      const PendingPolicyKey* at = pendingPolicyId_.bookmark();
      return at ? at->id : PolicyId();
   }
   bool cleanupPending() const noexcept { return cleanupPending_; }
   bool initialized() const noexcept { return initialized_; }
   Kiln::Task* task() const noexcept { return task_.get(); }
   void dump(std::string& out, int depth) const;

   // Handlers (reactors call these; they only queue work).
   void handleInitialized();
   void handleSpecifiedBsidOnly();
   void handleProtocolSource(Protocol protocol);
   void handlePolicyEntry(const PolicyId& id);
   void handleLabelRange(const Mox::Name& name);
   void handleLFibRoute(const Mpls::RouteKey& routeKey);
   void handleTaskRun();
   // SR-TE turned off: stops the task, withdraws the selection input (releasing every segment
   // list, so resolution withdraws their tunnels) and the exported segment lists, and forgets
   // the candidates and binding-SID users. The inputs themselves are left alone.
   void handleDel();

 private:
   class MoxConfig;
   class MoxInput;
   class MoxPolicy;
   class MoxMplsConfig;
   class MoxMplsStatus;
   class MoxTask;

   void reserveEntries();
   // The steps of one candidate path.
   void processPolicyEntry(const PolicyId& id, bool policyChanged);
   // `user` is the binding-SID user the record's label was just registered with (null for none).
   PolicyInvalidReason isPolicyEntryValid(const PolicyInputEntry& entry,
                                          const BindingSidUser* user);
   void emitInvalidPolicySyslog(const PolicyInputEntry& entry, PolicyInvalidReason reason) const;
   void addInPolicyKeyToIdMap(PolicyInfo& info, const CandidateId& candidateId, bool policyChanged,
                              PolicyInvalidReason reason, Ipkit::MplsLabel bindingSid);
   void deleteFromPolicyKeyToIdMap(const PolicyKey& key, const CandidateId& candidateId);
   // `recorded`: the candidate map already holds the path. One it does not hold is no list's
   // user (a path's registrations go with its candidate: when its record goes, and all at once
   // when the stage starts), so every list the record names is new to it, whatever its
   // selection-input entry named before a restart.
   void addOrUpdatePolicyIdEntry(const PolicyInputEntry& entry, bool recorded);
   void deletePolicyIdEntry(const PolicyId& id);

   // Binding-SID users.
   Ipkit::MplsLabel getBindingSidOfPolicy(const PolicyId& id) const;
   // Registers `id` under `bsid`, leaving `registered` (the label it was registered under) when
   // that differs; returns the user of `bsid`, null for the null label.
   // `info` is the candidate record of the path's key, which the path is recorded in next.
   BindingSidUser* registerForBindingSid(Ipkit::MplsLabel bsid, const PolicyId& id,
                                         const PolicyInfo& info, Ipkit::MplsLabel registered);
   void deregisterForBindingSid(Ipkit::MplsLabel bsid, const PolicyId& id);
   bool isLabelAvailableInLfib(Ipkit::MplsLabel label) const;

   // Segment lists.
   using SegmentListIds = absl::InlinedVector<SegmentListId, PolicyInputEntry::segmentListCapacity>;
   Mox::Ptr<SegmentList> createDedupSegmentList(const Ipkit::MplsLabelOperation& labelStack,
                                                const PolicyId& id);
   // `newUser`: the caller knows the path is not among the list's users yet (it did not name the
   // list before this record), so registering it needs no search.
   void registerSegmentListForPolicy(const Mox::Ptr<SegmentList>& segmentList,
                                     const Mox::Ptr<PolicyIdEntry>& entry, bool newUser = false);
   void deregisterSegmentListForPolicy(SegmentListId segmentListId, const PolicyIdEntry& entry);
   void runCleanupJob();

   // Queueing.
   void markPending(const PolicyId& id, bool policyChanged);
   void markTablePending(Protocol protocol, bool policyChanged);
   void scheduleIfPending();
   void readSrlbRange();
   bool isHandled(Protocol protocol) const noexcept;
   void moxPolicyIs(Protocol protocol);

   Inputs in_;
   Syslog::Log* syslog_;
   Trace::Tracer* tracer_;

   Mpls::LabelRange srlbConfigRange_;
   bool srlbFormable_ = false; // both SRLB bounds are labels
   BsidUserMap bsidUser_;
   Mox::RbTreeMap<Protocol, std::unique_ptr<MoxPolicy>> policy_;
   PendingPolicyIdDrain pendingPolicyId_{{.what = "input policy entries",
                                          .traceLevel = 5,
                                          .congestionDelay = Kiln::durationOf(congestionDelay),
                                          .prefetchDistance = prefetchDistance}};
   bool cleanupPending_ = false;
   bool initialized_ = false;
   Mox::Ptr<Kiln::Task> task_;

   std::unique_ptr<MoxConfig> moxConfig_;
   std::unique_ptr<MoxInput> moxInput_;
   std::unique_ptr<MoxMplsConfig> moxMplsConfig_;
   std::unique_ptr<MoxMplsStatus> moxMplsStatus_;
   std::unique_ptr<MoxTask> moxTask_;
};

Mox::Ptr<PolicyInputSm> policyInputSmFactory(PolicyInputSm::Inputs in);

} // namespace SrTePolicy
