// The selection input: what the input stage hands to policy selection.
//
// PolicySelectionInput holds one PolicyIdEntry per usable candidate path (keyed by PolicyId),
// written by the input stage only: preference, originator, binding SID, weighted segment-list ids
// and a version that the input stage bumps once per update of the path as a whole. Selection
// (selection/SrTePolicySelectionSm.h) is its reader.
//
// Guarantees (checked by tests/selection/SrTePolicyEntryTest.cpp):
//  - every setter given the value already held notifies nobody; `policyIdEntryIs` returns the
//    existing entry when the id is present, notifying only what changed on it.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/Tunnel.h"
#include "types/SrTePolicyIndexedRows.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// One segment list of a candidate path as selection sees it: the canonical segment list's id,
// its weight, and the tunnel id under which the segment list is exported.
struct WeightedSegmentListId {
   SegmentListId segmentListId;
   Weight weight;
   Tunnel::TunnelTable::TunnelId tunnelId;

   WeightedSegmentListId() = default;
   // The tunnel id is the segment list's own.
   WeightedSegmentListId(Weight w, SegmentListId id)
       : segmentListId(id), weight(w), tunnelId(id.getTunnelId()) {}
   WeightedSegmentListId(Weight w, SegmentListId id, Tunnel::TunnelTable::TunnelId t)
       : segmentListId(id), weight(w), tunnelId(t) {}

   uint32_t hash() const noexcept;
   std::string stringValue() const; // "(wt: 1, segListId: 5)"
   std::string valueToStrep() const;
   void writeTo(AttrLog::Writer& w) const;
   static WeightedSegmentListId readFrom(AttrLog::Reader& r);
   friend bool operator==(const WeightedSegmentListId&, const WeightedSegmentListId&) = default;
};

std::ostream& operator<<(std::ostream& os, const WeightedSegmentListId& v);

// One usable candidate path, as the input stage hands it to selection.
class PolicyIdEntry : public Mox::Entity, public Mox::Slabbed<PolicyIdEntry> {
 public:
   static constexpr const char* typeName = "SrTePolicy::PolicyIdEntry";
   using WSegmentListRows = IndexedRows<WeightedSegmentListId>;

   class Notifiee : public Mox::NotifieeOf<PolicyIdEntry> {
    public:
      virtual void onPreference() {}
      virtual void onOriginator() {}
      virtual void onBindingSid() {}
      virtual void onWSegmentList(const uint8_t&) {}
      virtual void onVersion() {}
   };

   PolicyIdEntry(const PolicyId& id, Preference preference, const Originator& originator)
       : id_(id), preference_(preference), originator_(originator) {}

   const PolicyId& id() const noexcept { return id_; }

   Preference preference() const noexcept { return preference_; }
   void preferenceIs(Preference p) { attrIs(preference_, p, &Notifiee::onPreference); }

   const Originator& originator() const noexcept { return originator_; }
   void originatorIs(const Originator& o) { attrIs(originator_, o, &Notifiee::onOriginator); }

   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }
   void bindingSidIs(Ipkit::MplsLabel l) { attrIs(bindingSid_, l, &Notifiee::onBindingSid); }

   const WSegmentListRows& wSegmentList() const noexcept { return wSegmentList_; }
   std::optional<WeightedSegmentListId> wSegmentList(uint8_t index) const;
   bool wSegmentListHas(uint8_t index) const noexcept { return wSegmentList_.contains(index); }
   void wSegmentListIs(uint8_t index, const WeightedSegmentListId& v) {
      collIs(wSegmentList_, index, v, &Notifiee::onWSegmentList);
   }
   void wSegmentListDel(uint8_t index) {
      if (wSegmentList_.erase(index)) notify(&Notifiee::onWSegmentList, index);
   }
   void wSegmentListDelAll() { collDelAll(wSegmentList_, &Notifiee::onWSegmentList); }

   uint32_t version() const noexcept { return version_; }
   void versionIs(uint32_t v) { attrIs(version_, v, &Notifiee::onVersion); }
   // Wraps around at 2^32 like any 32-bit counter.
   void versionInc(uint32_t by = 1) { versionIs(version_ + by); }

   void dump(std::string& out, int depth) const;

 private:
   PolicyId id_;
   Preference preference_;
   Originator originator_;
   Ipkit::MplsLabel bindingSid_;
   // The version fills the rows' tail: an entry per path is 152 bytes, not 168.
   [[no_unique_address]] WSegmentListRows wSegmentList_;
   uint32_t version_ = 0;
};

class PolicySelectionInput : public Mox::Entity {
 public:
   struct EntryId {
      const PolicyId& operator()(const PolicyIdEntry& e) const noexcept { return e.id(); }
   };
   // A million entries: the table keeps only pointers, the ids live in the entries.
   using PolicyIdEntryMap = Mox::KeyedTable<Mox::Ptr<PolicyIdEntry>, EntryId>;

   class Notifiee : public Mox::NotifieeOf<PolicySelectionInput> {
    public:
      virtual void onPolicyIdEntry(const PolicyId&) {}
   };

   explicit PolicySelectionInput(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   const PolicyIdEntryMap& policyIdEntry() const noexcept { return policyIdEntry_; }
   Mox::Ptr<PolicyIdEntry> policyIdEntry(const PolicyId& id) const;
   // Creates the entry (notifying onPolicyIdEntry) or returns the existing one with its
   // preference and originator updated (notifying the entry's own reactors of what changed).
   Mox::Ptr<PolicyIdEntry> policyIdEntryIs(const PolicyId& id, Preference preference,
                                           const Originator& originator);
   // Room for `n` entries, made before a writer adds many: the table then does not rehash every
   // entry at each doubling, nor does any reader's table that grows like it (reserveLike).
   void policyIdEntryReserve(size_t n) { policyIdEntry_.reserve(n); }
   void policyIdEntryDel(const PolicyId& id) {
      collDel(policyIdEntry_, id, &Notifiee::onPolicyIdEntry);
   }
   void policyIdEntryDelAll() { collDelAll(policyIdEntry_, &Notifiee::onPolicyIdEntry); }

   // Entries in PolicyId order, so that dumps are stable.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   PolicyIdEntryMap policyIdEntry_;
};

inline Mox::Ptr<PolicySelectionInput> policySelectionInputFactory(const Mox::Name& name) {
   return Mox::make<PolicySelectionInput>(name);
}

} // namespace SrTePolicy
