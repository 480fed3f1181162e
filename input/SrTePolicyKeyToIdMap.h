// Per policy key, every candidate path the input stage has seen, usable or not: why it cannot be
// used, when it last changed and which binding SID it names. Written by the input stage only.
#pragma once

#include <string>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

struct PolicyCandidateInfo {
   double lastModified = 0; // seconds of the scheduler clock
   PolicyInvalidReason reason = PolicyInvalidReason::usable;
   Ipkit::MplsLabel bindingSid;

   friend bool operator==(const PolicyCandidateInfo&, const PolicyCandidateInfo&) = default;
};

class PolicyInfo : public Mox::Entity, public Mox::Slabbed<PolicyInfo> {
 public:
   // One or two candidates per key as a rule: inline, in key order.
   using Map = Mox::SmallMap<CandidateId, PolicyCandidateInfo>;
   class Notifiee : public Mox::NotifieeOf<PolicyInfo> {
    public:
      virtual void onCandidate(const CandidateId&) {}
   };

   explicit PolicyInfo(const PolicyKey& key) : key_(key) {}
   const PolicyKey& key() const noexcept { return key_; }
   const Map& candidate() const noexcept { return candidate_; }
   const PolicyCandidateInfo* candidate(const CandidateId& id) const {
      auto it = candidate_.find(id);
      return it == candidate_.end() ? nullptr : &it->second;
   }
   void candidateIs(const CandidateId& id, const PolicyCandidateInfo& info) {
      collIs(candidate_, id, info, &Notifiee::onCandidate);
   }
   void candidateDel(const CandidateId& id) { collDel(candidate_, id, &Notifiee::onCandidate); }
   void candidateDelAll() { collDelAll(candidate_, &Notifiee::onCandidate); }

 private:
   PolicyKey key_;
   Map candidate_;
};

class PolicyKeyToIdMap : public Mox::Entity {
 public:
   struct InfoKey {
      const PolicyKey& operator()(const PolicyInfo& i) const noexcept { return i.key(); }
   };
   using Map = Mox::KeyedTable<Mox::Ptr<PolicyInfo>, InfoKey>;
   class Notifiee : public Mox::NotifieeOf<PolicyKeyToIdMap> {
    public:
      virtual void onPolicy(const PolicyKey&) {}
   };

   const Map& policy() const noexcept { return policy_; }
   PolicyInfo* policy(const PolicyKey& key) const {
      auto it = policy_.find(key);
      return it == policy_.end() ? nullptr : it->second.get();
   }
   // The entry of a key, created when absent.
   PolicyInfo* policyIs(const PolicyKey& key) {
      auto [it, made] = policy_.findOrInsert(key, [&] { return Mox::make<PolicyInfo>(key); });
      PolicyInfo* info = it->second.get(); // before notifying: reactors may grow the map
      if (!made) return info;
      notify(&Notifiee::onPolicy, key);
      return info;
   }
   void policyDel(const PolicyKey& key) { collDel(policy_, key, &Notifiee::onPolicy); }
   void policyDelAll() { collDelAll(policy_, &Notifiee::onPolicy); }

 private:
   Map policy_;
};

} // namespace SrTePolicy
