// The policies that selection writes.
//
//  - EcPolicy holds one Policy per PolicyKey, written by selection only: its candidates
//    (PolicyEntry, keyed and ordered by Priority, best first) and the active one. Publishing, the
//    binding-SID LFIB generator and the tunnel map read it.
//  - Its input is the selection input (input/SrTePolicySelectionInput.h); the order of candidates
//    is Priority's (selection/SrTePolicyPriority.h).
//
// Guarantees (checked by tests/selection/SrTePolicyEntryTest.cpp):
//  - Policy::candidate() iterates best first, whatever the order the candidates were added in;
//  - a Policy's active entry is null or one of its candidates: removing the active candidate
//    first clears `active` (onActive), then removes the candidate (onCandidate);
//  - every setter given the value already held notifies nobody; `...Is` on a collection that
//    creates an entity returns the existing one when the key is present, notifying nobody.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/Tunnel.h"
#include "selection/SrTePolicyPriority.h"
#include "types/SrTePolicyIndexedRows.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// One resolved segment list of a candidate, by tunnel id.
struct WeightedTunnelId {
   Tunnel::TunnelTable::TunnelId tunnelId;
   Weight weight;

   WeightedTunnelId() = default;
   WeightedTunnelId(Tunnel::TunnelTable::TunnelId t, Weight w) : tunnelId(t), weight(w) {}

   uint32_t hash() const noexcept;
   std::string stringValue() const; // "(wt: 1, tunnelId: 21474836485)"
   std::string valueToStrep() const;
   void writeTo(AttrLog::Writer& w) const;
   static WeightedTunnelId readFrom(AttrLog::Reader& r);
   friend bool operator==(const WeightedTunnelId&, const WeightedTunnelId&) = default;
};
std::ostream& operator<<(std::ostream& os, const WeightedTunnelId& v);

// One usable candidate path of a policy.
class PolicyEntry : public Mox::Entity, public Mox::Slabbed<PolicyEntry> {
 public:
   static constexpr const char* typeName = "SrTePolicy::PolicyEntry";
   using WTunnelIdRows = IndexedRows<WeightedTunnelId>;

   class Notifiee : public Mox::NotifieeOf<PolicyEntry> {
    public:
      virtual void onBindingSid() {}
      virtual void onWTunnelId(const uint8_t&) {}
   };

   explicit PolicyEntry(const Priority& priority) : priority_(priority) {}

   const Priority& priority() const noexcept { return priority_; }
   // The candidate path's identity within its policy key.
   CandidateId candidateId() const noexcept {
      return CandidateId(priority_.protocol, priority_.discriminator);
   }

   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }
   void bindingSidIs(Ipkit::MplsLabel l) { attrIs(bindingSid_, l, &Notifiee::onBindingSid); }

   const WTunnelIdRows& wTunnelId() const noexcept { return wTunnelId_; }
   std::optional<WeightedTunnelId> wTunnelId(uint8_t index) const;
   bool wTunnelIdHas(uint8_t index) const noexcept { return wTunnelId_.contains(index); }
   void wTunnelIdIs(uint8_t index, const WeightedTunnelId& v) {
      collIs(wTunnelId_, index, v, &Notifiee::onWTunnelId);
   }
   void wTunnelIdDel(uint8_t index) {
      if (wTunnelId_.erase(index)) notify(&Notifiee::onWTunnelId, index);
   }
   void wTunnelIdDelAll() { collDelAll(wTunnelId_, &Notifiee::onWTunnelId); }

   void dump(std::string& out, int depth) const;

 private:
   Priority priority_;
   Ipkit::MplsLabel bindingSid_;
   WTunnelIdRows wTunnelId_;
};

// One SR-TE policy: its candidates best first, and the active one.
class Policy : public Mox::Entity, public Mox::Slabbed<Policy> {
 public:
   static constexpr const char* typeName = "SrTePolicy::Policy";
   // A policy key has a candidate or two (one per protocol, as a rule): kept inline, best first.
   using CandidateMap = Mox::SmallMap<Priority, Mox::Ptr<PolicyEntry>, 2, Priority::BetterFirst>;

   class Notifiee : public Mox::NotifieeOf<Policy> {
    public:
      virtual void onCandidate(const Priority&) {}
      virtual void onActive() {}
   };

   explicit Policy(const PolicyKey& key) : key_(key) {}

   const PolicyKey& key() const noexcept { return key_; }

   // Best first.
   const CandidateMap& candidate() const noexcept { return candidate_; }
   Mox::Ptr<PolicyEntry> candidate(const Priority& priority) const;
   // The candidate that no other beats; null when there is none.
   Mox::Ptr<PolicyEntry> bestCandidate() const;
   // Creates the candidate (notifying onCandidate) or returns the existing one.
   Mox::Ptr<PolicyEntry> candidateIs(const Priority& priority);
   void candidateDel(const Priority& priority);
   void candidateDelAll();

   const Mox::Ptr<PolicyEntry>& active() const noexcept { return active_; }
   // `entry` must be null or one of the candidates.
   void activeIs(const Mox::Ptr<PolicyEntry>& entry);

   void dump(std::string& out, int depth) const;

 private:
   PolicyKey key_;
   CandidateMap candidate_;
   Mox::Ptr<PolicyEntry> active_;
};

class EcPolicy : public Mox::Entity {
 public:
   static constexpr const char* typeName = "SrTePolicy::EcPolicy";
   struct PolicyOfKey {
      const PolicyKey& operator()(const Policy& p) const noexcept { return p.key(); }
   };
   using PolicyMap = Mox::KeyedTable<Mox::Ptr<Policy>, PolicyOfKey>;

   class Notifiee : public Mox::NotifieeOf<EcPolicy> {
    public:
      virtual void onPolicy(const PolicyKey&) {}
   };

   explicit EcPolicy(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   const PolicyMap& policy() const noexcept { return policy_; }
   Mox::Ptr<Policy> policy(const PolicyKey& key) const;
   // Creates the policy (notifying onPolicy) or returns the existing one.
   Mox::Ptr<Policy> policyIs(const PolicyKey& key);
   void policyDel(const PolicyKey& key) { collDel(policy_, key, &Notifiee::onPolicy); }
   void policyDelAll() { collDelAll(policy_, &Notifiee::onPolicy); }

   // Policies in key order, so that dumps are stable.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   PolicyMap policy_;
};
inline Mox::Ptr<EcPolicy> ecPolicyFactory(const Mox::Name& name) {
   return Mox::make<EcPolicy>(name);
}

} // namespace SrTePolicy
