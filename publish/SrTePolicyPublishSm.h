// PolicyPublishSm: publishes every policy that selection made active. For each policy key with an
// active candidate path it claims the path's binding SID, programs two FECs in the FIB (one whose
// vias carry no label, one whose vias push the explicit-null label of the endpoint's family) and
// writes the key's PolicyStatus entry with both FEC ids mapped back to the key. A key that loses
// its active path, or whose binding SID another policy holds, is withdrawn: entry, FECs, map rows.
//
//   policy added/removed, active changed, active's binding SID or tunnels changed -> queue key
//        task "PublishSmTask": drain pendingPolicy from pendingBookmark in hash order
//          - output congested: stop, retry after 0.1 s (nothing dropped)
//          - scheduler says yield: bookmark the next key, run again at once
//
// Binding SIDs are first come, first served: the first key processed with a binding SID holds
// it (ConflictingPolicies::chosen); a later one is refused, recorded as a competitor and logged
// ("SRTE_POLICY_CONFLICT_BSID_IN_USE"). When the holder lets go (withdrawn, or its binding SID
// changed), every competitor is queued again and the first of them processed takes it.
//
// FEC indexes come from a number allocator over 0..4294967295 whose released numbers age 300 s
// on the scheduler's clock before reuse, so a FEC id is not handed to a new policy while the
// platform may still hold routes towards the old one.
//
// Guarantees (tests/publish/PolicyPublishSmTest.cpp):
//  - a binding SID has at most one holder, and only the holder (or a key without binding SID) has
//    a status entry; a refused key is published as soon as it is processed after the release;
//  - a status entry's FEC ids never change while it exists; `fecIdToPolicyKey` holds exactly the
//    two ids of every entry this machine wrote;
//  - `lastModified` is the time of the entry's creation or of its last change of candidate;
//  - the machine's destruction (restart) withdraws nothing: the next machine adopts the entries,
//    their FEC indexes and their binding SIDs; only `handleDel` (SR-TE going away for good)
//    empties the status table and the FIB table;
//  - the processing order of pending keys is a function of what is pending alone (hash, then
//    key), so which competitor wins a released binding SID is reproducible.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/Kiln.h"
#include "platform/KilnDrain.h"
#include "platform/KilnNumAllocator.h"
#include "platform/Mox.h"
#include "platform/MoxPool.h"
#include "platform/Syslog.h"
#include "platform/Trace.h"
#include "platform/VaultFib.h"
#include "publish/SrTePolicyConflictingPolicies.h"
#include "publish/SrTePolicyStatus.h"
#include "selection/SrTePolicyEcPolicy.h"
#include "types/SrTePolicyPendingKey.h"

namespace SrTePolicy {

extern const Syslog::MessageDef SRTE_POLICY_CONFLICT_BSID_IN_USE;

// The pending policy keys, drained in hash order (types/SrTePolicyPendingKey.h): the order decides
// who wins a released binding SID.
using PendingPolicyDrain = Kiln::Drain<PendingKey<PolicyKey>>;
using PendingPolicySet = PendingPolicyDrain::Pending;

class PolicyPublishSm : public Mox::RefCounted {
 public:
   static constexpr const char* taskName = "PublishSmTask";
   static constexpr int taskPriority = 2;
   static constexpr double congestionDelay = 0.1;
   static constexpr Kiln::Number fecIndexMin = 0;
   static constexpr Kiln::Number fecIndexMax = 4294967295;
   static constexpr double fecIndexExpiry = 300.0;
   // The FIB's adjacency type of SR-TE policy FECs.
   static constexpr uint8_t fecAdjType = 15;
   static constexpr uint32_t ipv6ExplicitNull = 2;
   static constexpr uint32_t ipv4ExplicitNull = 0;

   // What the machine reads and writes, in this order. `timerWheel` is the clock of `lastModified`
   // and of FEC index ageing (the scheduler when not given); `syslog` and `tracer` default to the
   // process ones.
   struct Inputs {
      Mox::Ptr<const EcPolicy> ecPolicy;
      Kiln::TaskScheduler* taskScheduler = nullptr;
      Mox::Ptr<PolicyStatus> status;
      Kiln::TimerWheel* timerWheel = nullptr;
      Mox::Ptr<Vault::Fib::ForwardingStatus> srteFwdStatus;
      Mox::Ptr<Kiln::AttrLogSm> attrLogSm;
      // The assembly's own (PolicyCore::syslog(), tracer()), never the process ones.
      Syslog::Log& syslog;
      Trace::Tracer& tracer;
   };
   using BindingSidPolicyMap = Mox::HashMap2018<Ipkit::MplsLabel, Mox::Ptr<ConflictingPolicies>>;
   using PolicyBindingSidMap = Mox::HashMap2018<PolicyKey, Ipkit::MplsLabel>;

   explicit PolicyPublishSm(Inputs in);
   // Lets go of the reactors and the task; everything published stays for the next machine.
   ~PolicyPublishSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   const PendingPolicySet& pendingPolicy() const noexcept { return pendingPolicy_.pending(); }
   bool pendingPolicyHas(const PolicyKey& key) const {
      return pendingPolicy_.pending().contains(PendingKey<PolicyKey>(key));
   }
   // Where the pass under way resumes; the default key when none is under way.
   PolicyKey pendingBookmark() const noexcept {
      const PendingKey<PolicyKey>* at = pendingPolicy_.bookmark();
      return at ? at->id : PolicyKey();
   }
   Kiln::Task* task() const noexcept { return task_.get(); }
   double delayTime() const noexcept { return delayTime_; }
   const BindingSidPolicyMap& bindingSidPolicyMap() const noexcept { return bindingSidPolicyMap_; }
   // Null when nobody asks for `bsid`.
   const ConflictingPolicies* conflictingPolicies(Ipkit::MplsLabel bsid) const;
   const PolicyBindingSidMap& policyBindingSidMap() const noexcept { return policyBindingSidMap_; }
   const Kiln::NumAllocator* numAllocator() const noexcept { return numAllocator_.get(); }
   size_t policyReactorCount() const noexcept { return policy_.size(); }
   const Inputs& inputs() const noexcept { return in_; }
   void dump(std::string& out, int depth) const;

   // Handlers (reactors call these).
   void handleInitialized();
   void handlePolicy(const PolicyKey& key);
   void handleTaskRun();
   // SR-TE goes away for good: nothing queued any more, every FEC and status entry withdrawn.
   // Not called on destruction: a restart must leave forwarding as it is.
   void handleDel();

   // The reactors of one policy (and of its active entry).
   void policyIs(const PolicyKey& key);
   void policyIs(const PolicyKey& key, Policy* policy);
   void policyDel(const PolicyKey& key);

   // The steps of one key.
   void processPolicy(const PolicyKey& key);
   // Claims the binding SID of the key's active entry; `recorded`: policyBindingSidMap already
   // holds the entry's binding SID for the key (saves a second look-up).
   bool requestBindingSid(const PolicyEntry& active, const PolicyKey& key, bool recorded);
   void releaseBindingSid(Ipkit::MplsLabel bsid, const PolicyKey& key);
   // Every write to the FIB's FEC table goes through here: a table found corrupt is counted, and
   // is fatal, since what the FIB holds can no longer be told.
   void fwdStatusWrite(absl::FunctionRef<void(Vault::Fib::ForwardingStatus&)> write);
   Vault::Fib::FecId getFecId();
   void createSrTePolicyFecEntry(Vault::Fib::FecId fecId, const PolicyEntry& policyEntry,
                                 Ipkit::MplsLabel viaMplsLabel);
   void addOrUpdateSrTePolicyFecs(const PolicyEntry& policyEntry, const PolicyKey& key,
                                  Vault::Fib::FecId fecId, Vault::Fib::FecId nullLabelFecId);
   void deleteSrTePolicyFec(Vault::Fib::FecId fecId);
   void deleteSrTePolicyFecs(const PolicyStatusEntry& statusEntry);
   void emitBsidConflictSyslog(const Policy& policy, const PolicyKey& key);
   void initializeNumAllocator();
   void rebuildBindingSidAndPolicyMap();

   // The explicit-null label the null-label FEC pushes for an endpoint of this family.
   static Ipkit::MplsLabel explicitNullLabel(const Ipkit::IpGenAddr& endpoint);

 private:
   class MoxEcPolicy;
   class MoxPolicy;
   class MoxTask;

   void markPending(const PolicyKey& key) { pendingPolicy_.mark(PendingKey<PolicyKey>(key)); }
   // Every policy of EcPolicy and every published one.
   void markEveryPolicyPending();
   void scheduleTask();
   void withdraw(const PolicyKey& key);

   Inputs in_;
   Syslog::Log* syslog_;
   Trace::Tracer* tracer_;
   Kiln::TimerWheel* clock_;

   PendingPolicyDrain pendingPolicy_{
       {.what = "policies", .traceLevel = 9, .congestionDelay = Kiln::durationOf(congestionDelay)}};
   BindingSidPolicyMap bindingSidPolicyMap_;
   PolicyBindingSidMap policyBindingSidMap_;
   Mox::Ptr<Kiln::NumAllocatorConfig> numAllocatorConfig_;
   Mox::Ptr<Kiln::NumAllocatorStatus> numAllocatorStatus_;
   Mox::Ptr<Kiln::NumAllocator> numAllocator_;
   Mox::Ptr<Kiln::TimerTask> task_;
   double delayTime_ = congestionDelay;
   bool initialized_ = false;

   // One reactor per policy, from a pool: declared first, destroyed last.
   Mox::Pool<MoxPolicy> policyPool_;
   Mox::HashMap2018<PolicyKey, Mox::Pool<MoxPolicy>::Ptr> policy_;
   std::unique_ptr<MoxEcPolicy> moxEcPolicy_;
   std::unique_ptr<MoxTask> moxTask_;
};

Mox::Ptr<PolicyPublishSm> policyPublishSmFactory(PolicyPublishSm::Inputs in);

} // namespace SrTePolicy
