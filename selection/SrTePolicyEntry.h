// The entities that policy selection reads and writes.
//
//  - PolicySelectionInput holds one PolicyIdEntry per usable candidate path (keyed by PolicyId),
//    written by the input stage: preference, originator, binding SID, weighted segment-list ids
//    and a version that the input stage bumps once per update of the path as a whole.
//  - EcPolicy holds one Policy per PolicyKey, written by selection: its candidates (PolicyEntry,
//    keyed and ordered by Priority, best first) and the active one.
//  - Priority is the value whose comparison decides which candidate path is active.
//
// Guarantees (checked by tests/selection/SrTePolicyEntryTest.cpp):
//  - Policy::candidate() iterates best first, whatever the order the candidates were added in;
//  - a Policy's active entry is null or one of its candidates: removing the active candidate
//    first clears `active` (onActive), then removes the candidate (onCandidate);
//  - every setter given the value already held notifies nobody; `...Is` on a collection that
//    creates an entity returns the existing one when the key is present, notifying nobody.
#pragma once

#include <bit>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/Tunnel.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// ---------------------------------------------------------------------------------------------
// Rows keyed by a small index (segment-list slots of one candidate path, 0..15), kept in index
// order in one contiguous block, with a bit per present index beside it: a path has at most 16
// rows, so one block beats a node per row, and the keys cost 4 bytes in all rather than 8 per
// row. The interface is the subset of a map that the entity collection helpers and readers use;
// a member reads as a pair (index, value) made on the fly, so bind it by value or const reference
// (`for (const auto& [index, row] : rows)`). Rows are plain values, so removing one needs no
// keep-alive: `erase(key)` serves the `...Del` setters.
template <class V>
class IndexedRows {
 public:
   using key_type = uint8_t;
   using mapped_type = V;
   using value_type = std::pair<uint8_t, V>;
   static constexpr uint32_t indexLimit = 32; // indexes are below this
   static constexpr const char* indexOutOfRange = "row index below 32";

   template <bool Const>
   class Iter {
      using Owner = std::conditional_t<Const, const IndexedRows, IndexedRows>;

    public:
      using reference = std::pair<uint8_t, std::conditional_t<Const, const V&, V&>>;
      using value_type = std::pair<uint8_t, V>;
      using difference_type = std::ptrdiff_t;
      using iterator_category = std::forward_iterator_tag;
      struct Arrow {
         reference ref;
         const reference* operator->() const noexcept { return &ref; }
      };
      using pointer = Arrow;

      Iter() = default;
      Iter(Owner* rows, uint32_t pos, uint32_t rest) : rows_(rows), pos_(pos), rest_(rest) {}
      // A const iterator from a mutable one.
      template <bool C = Const, class = std::enable_if_t<C>>
      Iter(const Iter<false>& o) : rows_(o.rows_), pos_(o.pos_), rest_(o.rest_) {}

      reference operator*() const noexcept {
         return {static_cast<uint8_t>(std::countr_zero(rest_)), rows_->values_[pos_]};
      }
      Arrow operator->() const noexcept { return Arrow{**this}; }
      Iter& operator++() noexcept {
         rest_ &= rest_ - 1;
         ++pos_;
         return *this;
      }
      Iter operator++(int) noexcept {
         Iter old = *this;
         ++*this;
         return old;
      }
      friend bool operator==(const Iter& a, const Iter& b) noexcept { return a.rest_ == b.rest_; }

    private:
      friend class IndexedRows;
      template <bool>
      friend class Iter;
      Owner* rows_ = nullptr;
      uint32_t pos_ = 0;  // the row's place in the block
      uint32_t rest_ = 0; // the indexes from this row on; the lowest is this row's
   };
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   iterator begin() noexcept { return iterator(this, 0, present_); }
   iterator end() noexcept { return iterator(this, size(), 0); }
   const_iterator begin() const noexcept { return const_iterator(this, 0, present_); }
   const_iterator end() const noexcept { return const_iterator(this, size(), 0); }
   size_t size() const noexcept { return values_.size(); }
   bool empty() const noexcept { return values_.empty(); }

   iterator find(uint8_t k) noexcept {
      if (!has(k)) return end();
      return iterator(this, placeOf(k), present_ & ~below(k));
   }
   const_iterator find(uint8_t k) const noexcept { return const_cast<IndexedRows*>(this)->find(k); }
   bool contains(uint8_t k) const noexcept { return has(k); }

   template <class A>
   std::pair<iterator, bool> try_emplace(uint8_t k, A&& v) {
      SRTE_ASSERT(k < indexLimit, indexOutOfRange);
      if (has(k)) return {find(k), false};
      values_.emplace(values_.begin() + placeOf(k), std::forward<A>(v));
      present_ |= bit(k);
      return {find(k), true};
   }
   iterator erase(const_iterator it) {
      const uint32_t k = std::countr_zero(it.rest_);
      values_.erase(values_.begin() + it.pos_);
      present_ &= ~bit(k);
      return iterator(this, it.pos_, present_ & ~below(k));
   }
   bool erase(uint8_t k) {
      if (!has(k)) return false;
      erase(find(k));
      return true;
   }
   // Removes the row at `it` and hands it over.
   value_type take(const_iterator it) {
      value_type row(static_cast<uint8_t>(std::countr_zero(it.rest_)), values_[it.pos_]);
      erase(it);
      return row;
   }

 private:
   static uint32_t bit(uint32_t k) noexcept { return k < indexLimit ? 1u << k : 0; }
   static uint32_t below(uint32_t k) noexcept { return bit(k) - 1; }
   bool has(uint32_t k) const noexcept { return (present_ & bit(k)) != 0; }
   uint32_t placeOf(uint32_t k) const noexcept { return std::popcount(present_ & below(k)); }

   // Most paths have one or two segment lists: those need no allocation.
   absl::InlinedVector<V, 2> values_;
   uint32_t present_ = 0; // bit k: a row at index k
};

// ---------------------------------------------------------------------------------------------
// Value types

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

// Result of Priority::compare, "this against other"; positive when this is the better one.
enum class PriorityCompareResult : int32_t {
   isLowerDiscriminator = -4,
   isHigherOrigin = -3,
   isLowerProtocol = -2,
   isLowerPreference = -1,
   isEqual = 0,
   isHigherPreference = 1,
   isBetterProtocol = 2,
   isLowerOrigin = 3,
   isHigherDiscriminator = 4,
};
const char* priorityCompareResultName(PriorityCompareResult r);
std::ostream& operator<<(std::ostream& os, PriorityCompareResult r);
inline bool isBetter(PriorityCompareResult r) noexcept { return static_cast<int32_t>(r) > 0; }

struct Priority {
   static constexpr const char* typeName = "SrTePolicy::Priority";

   Preference preference;
   Protocol protocol = Protocol::unknown;
   Originator originator;
   Discriminator discriminator;

   Priority() = default;
   Priority(Preference pref, Protocol proto, const Originator& orig, Discriminator disc)
       : preference(pref), protocol(proto), originator(orig), discriminator(disc) {}

   // The first differing criterion decides: higher preference, then higher protocol (signed),
   // then lower originator, then higher discriminator. Never isEqual: equal priorities give
   // isLowerDiscriminator both ways, as this is meant for ordering distinct keys.
   PriorityCompareResult compare(const Priority& other) const noexcept;
   bool sameExceptDiscriminator(const Priority& other) const noexcept {
      return preference == other.preference && protocol == other.protocol &&
             originator == other.originator;
   }
   // True for the default priority.
   bool operator!() const noexcept { return *this == Priority(); }

   uint32_t hash() const noexcept;
   std::string stringValue() const; // "100-bgp-10.0.0.9(AS65000) - 7"
   std::string valueToStrep() const;
   void writeTo(AttrLog::Writer& w) const;
   static Priority readFrom(AttrLog::Reader& r);
   friend bool operator==(const Priority&, const Priority&) = default;

   // Orders a collection best first.
   struct BetterFirst {
      bool operator()(const Priority& a, const Priority& b) const noexcept {
         return isBetter(a.compare(b));
      }
   };
};

std::ostream& operator<<(std::ostream& os, const WeightedSegmentListId& v);
std::ostream& operator<<(std::ostream& os, const WeightedTunnelId& v);
std::ostream& operator<<(std::ostream& os, const Priority& v);

// ---------------------------------------------------------------------------------------------
// Selection input

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

// ---------------------------------------------------------------------------------------------
// Selection output

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

inline Mox::Ptr<PolicySelectionInput> policySelectionInputFactory(const Mox::Name& name) {
   return Mox::make<PolicySelectionInput>(name);
}
inline Mox::Ptr<EcPolicy> ecPolicyFactory(const Mox::Name& name) {
   return Mox::make<EcPolicy>(name);
}

} // namespace SrTePolicy
