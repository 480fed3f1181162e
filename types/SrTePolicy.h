// The two top-level entities of the agent: Config, the SR-TE configuration it is given (with the
// static policies), and Status, its own top-level status. This header also brings in the policy
// input tables and the static configuration, so one include gives the whole policy model.
//
// Guarantees (tests/types/SrTePolicyTest.cpp):
//  - a new Config has specifiedBsidOnly true and every other flag false, and no policy;
//  - every setter notifies only when the value changes; policyIs of an existing key returns the
//    existing StaticPolicy and notifies nobody;
//  - policyDelAll notifies onPolicy(key) once per removed policy.
#pragma once

#include <string>

#include "platform/AttrLog.h"
#include "platform/Mox.h"
#include "types/SrTePolicyInput.h"
#include "types/SrTePolicyStatic.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class Config : public Mox::Entity {
 public:
   using PolicyMap = Mox::HashMap2018<PolicyKey, Mox::Ptr<StaticPolicy>>;

   class Notifiee : public Mox::NotifieeOf<Config> {
    public:
      virtual void onEnabled() {}
      virtual void onSpecifiedBsidOnly() {}
      virtual void onSegmentListSharingEnabled() {}
      virtual void onUseDiscriminatorInTieBreaking() {}
      virtual void onPolicy(const PolicyKey&) {}
      virtual void onPolicy() {}
   };

   explicit Config(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   bool enabled() const noexcept { return enabled_; }
   void enabledIs(bool v) { attrIs(enabled_, v, &Notifiee::onEnabled); }
   bool specifiedBsidOnly() const noexcept { return specifiedBsidOnly_; }
   void specifiedBsidOnlyIs(bool v) {
      attrIs(specifiedBsidOnly_, v, &Notifiee::onSpecifiedBsidOnly);
   }
   bool segmentListSharingEnabled() const noexcept { return segmentListSharingEnabled_; }
   void segmentListSharingEnabledIs(bool v) {
      attrIs(segmentListSharingEnabled_, v, &Notifiee::onSegmentListSharingEnabled);
   }
   // The built-in default of segmentListSharingEnabled; read-only.
   static constexpr bool segmentListSharingDefault() noexcept { return false; }
   bool useDiscriminatorInTieBreaking() const noexcept { return useDiscriminatorInTieBreaking_; }
   void useDiscriminatorInTieBreakingIs(bool v) {
      attrIs(useDiscriminatorInTieBreaking_, v, &Notifiee::onUseDiscriminatorInTieBreaking);
   }

   // Returns the static policy of `key`, creating it (staticPolicyFactory) if absent.
   Mox::Ptr<StaticPolicy> policyIs(const PolicyKey& key);
   void policyDel(const PolicyKey& key) { collDel(policy_, key, &Notifiee::onPolicy); }
   void policyDelAll() { collDelAll(policy_, &Notifiee::onPolicy); }
   Mox::Ptr<StaticPolicy> policy(const PolicyKey& key) const;
   // Hash order.
   const PolicyMap& policy() const noexcept { return policy_; }
   size_t policyCount() const noexcept { return policy_.size(); }

   // The flags, then "Policies #n" and each policy (in PolicyKey order) one level deeper.
   void dump(std::string& out, int depth) const;
   // The flags as bytes, then each static policy.
   void attrLogWrite(AttrLog::Writer& w) const;
   static Mox::Ptr<Config> attrLogRead(AttrLog::Reader& r, const Mox::Name& name);

 private:
   Mox::Name name_;
   bool enabled_ = false;
   bool specifiedBsidOnly_ = true;
   bool segmentListSharingEnabled_ = segmentListSharingDefault();
   bool useDiscriminatorInTieBreaking_ = false;
   PolicyMap policy_;
};

Mox::Ptr<Config> configFactory(const Mox::Name& name);

class Status : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Status> {
    public:
      virtual void onAgentEnabled() {}
   };

   explicit Status(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   bool agentEnabled() const noexcept { return agentEnabled_; }
   void agentEnabledIs(bool v) { attrIs(agentEnabled_, v, &Notifiee::onAgentEnabled); }

   void dump(std::string& out, int depth) const;
   void attrLogWrite(AttrLog::Writer& w) const { w.u8(agentEnabled_); }
   static Mox::Ptr<Status> attrLogRead(AttrLog::Reader& r, const Mox::Name& name);

 private:
   Mox::Name name_;
   bool agentEnabled_ = false;
};

Mox::Ptr<Status> statusFactory(const Mox::Name& name);

} // namespace SrTePolicy
