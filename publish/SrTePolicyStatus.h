// PolicyStatus: what the router consumes of every published policy. One entry per policy key
// whose active candidate path holds its binding SID (or has none), with the two FECs programmed
// for it; `fecIdToPolicyKey` maps each of those FEC ids back to its key.
//
// Guarantees (tests/publish):
//  - an entry's FEC ids are fixed at its creation: they never change while it exists;
//  - setters notify only on a change, `statusIs` on the key only when the entry is new or replaced;
//  - `fecIdToPolicyKey` holds the two FEC ids of every entry and nothing else, as long as its one
//    writer keeps them in step (the table does not enforce it).
#pragma once

#include <string>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/VaultFib.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class PolicyStatusEntry : public Mox::Entity, public Mox::Slabbed<PolicyStatusEntry> {
 public:
   static constexpr const char* typeName = "SrTePolicy::PolicyStatusEntry";

   class Notifiee : public Mox::NotifieeOf<PolicyStatusEntry> {
    public:
      virtual void onCandidateId() {}
      virtual void onOriginator() {}
      virtual void onLastModified() {}
      virtual void onBindingSid() {}
   };

   PolicyStatusEntry(const PolicyKey& key, CandidateId candidateId, const Originator& originator,
                     double lastModified, Ipkit::MplsLabel bindingSid, Vault::Fib::FecId fecId,
                     Vault::Fib::FecId nullLabelFecId)
       : key_(key), candidateId_(candidateId), originator_(originator), lastModified_(lastModified),
         bindingSid_(bindingSid), fecId_(fecId), nullLabelFecId_(nullLabelFecId) {}

   const PolicyKey& key() const noexcept { return key_; }
   CandidateId candidateId() const noexcept { return candidateId_; }
   void candidateIdIs(CandidateId c) { attrIs(candidateId_, c, &Notifiee::onCandidateId); }
   const Originator& originator() const noexcept { return originator_; }
   void originatorIs(const Originator& o) { attrIs(originator_, o, &Notifiee::onOriginator); }
   // Seconds of the system clock.
   double lastModified() const noexcept { return lastModified_; }
   void lastModifiedIs(double t) { attrIs(lastModified_, t, &Notifiee::onLastModified); }
   // The null label when the policy has no binding SID.
   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }
   void bindingSidIs(Ipkit::MplsLabel l) { attrIs(bindingSid_, l, &Notifiee::onBindingSid); }
   // The policy FEC: vias without label.
   Vault::Fib::FecId fecId() const noexcept { return fecId_; }
   // The null-label FEC: vias that push an explicit-null label.
   Vault::Fib::FecId nullLabelFecId() const noexcept { return nullLabelFecId_; }

   bool sameContent(const PolicyStatusEntry& o) const noexcept {
      return key_ == o.key_ && candidateId_ == o.candidateId_ && originator_ == o.originator_ &&
             lastModified_ == o.lastModified_ && bindingSid_ == o.bindingSid_ &&
             fecId_ == o.fecId_ && nullLabelFecId_ == o.nullLabelFecId_;
   }
   void dump(std::string& out, int depth) const;

 private:
   PolicyKey key_;
   CandidateId candidateId_;
   Originator originator_;
   double lastModified_;
   Ipkit::MplsLabel bindingSid_;
   Vault::Fib::FecId fecId_;
   Vault::Fib::FecId nullLabelFecId_;
};

class PolicyStatus : public Mox::Entity {
 public:
   static constexpr const char* typeName = "SrTePolicy::PolicyStatus";
   struct EntryKey {
      const PolicyKey& operator()(const PolicyStatusEntry& e) const noexcept { return e.key(); }
   };
   using StatusMap = Mox::KeyedTable<Mox::Ptr<PolicyStatusEntry>, EntryKey>;
   using FecIdMap = Mox::HashMap2018<Vault::Fib::FecId, PolicyKey>;

   class Notifiee : public Mox::NotifieeOf<PolicyStatus> {
    public:
      virtual void onStatus(const PolicyKey&) {}
      virtual void onFecIdToPolicyKey(const Vault::Fib::FecId&) {}
   };

   explicit PolicyStatus(Mox::Name name) : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   const StatusMap& status() const noexcept { return status_; }
   // Null when the key is not published.
   Mox::Ptr<PolicyStatusEntry> status(const PolicyKey& key) const { return status_.get(key); }
   // Creates (or replaces) the entry of `key` and notifies `onStatus(key)`.
   Mox::Ptr<PolicyStatusEntry> statusIs(const PolicyKey& key, CandidateId candidateId,
                                        const Originator& originator, double lastModified,
                                        Ipkit::MplsLabel bindingSid, Vault::Fib::FecId fecId,
                                        Vault::Fib::FecId nullLabelFecId);
   void statusDel(const PolicyKey& key) { collDel(status_, key, &Notifiee::onStatus); }
   void statusDelAll() { collDelAll(status_, &Notifiee::onStatus); }

   const FecIdMap& fecIdToPolicyKey() const noexcept { return fecIdToPolicyKey_; }
   // Null when the FEC id is not mapped.
   const PolicyKey* fecIdToPolicyKey(Vault::Fib::FecId id) const noexcept {
      auto it = fecIdToPolicyKey_.find(id);
      return it == fecIdToPolicyKey_.end() ? nullptr : &it->second;
   }
   void fecIdToPolicyKeyIs(Vault::Fib::FecId id, const PolicyKey& key) {
      collIs(fecIdToPolicyKey_, id, key, &Notifiee::onFecIdToPolicyKey);
   }
   void fecIdToPolicyKeyDel(Vault::Fib::FecId id) {
      collDel(fecIdToPolicyKey_, id, &Notifiee::onFecIdToPolicyKey);
   }
   void fecIdToPolicyKeyDelAll() { collDelAll(fecIdToPolicyKey_, &Notifiee::onFecIdToPolicyKey); }

   // Entries in key order, then the FEC map in FEC id order, so that dumps are stable.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   StatusMap status_;
   FecIdMap fecIdToPolicyKey_;
};

inline Mox::Ptr<PolicyStatus> policyStatusFactory(const Mox::Name& name) {
   return Mox::make<PolicyStatus>(name);
}

} // namespace SrTePolicy
