// The records of the published tables in shared memory, and one codec per table that turns the
// in-process entity into records and records back into the entity.
//
// A record is a fixed-size plain structure: every byte is set (padding included), so that two
// records of the same content compare equal byte for byte, and a writer can tell a record that
// did not change from one that did without knowing the entity's history. Nested collections
// (rows of a path, vias of a FEC) are inline arrays with a count; a count over its array's
// capacity fails the record's own check (`isValidRecord`), which the shared table turns into
// Vault::Corruption naming the segment.
//
// Each codec has:
//  - `table`: the shared table's name, the Mox table's own; `title`: its name for people;
//  - `walk(entity, cursor, changed, f)`: calls `f(record)` for the records of the entity from
//    where `cursor` left off, until `f` returns false (the walk stops after that record) or the
//    entity is done (returns true). `changed` says the entity may have changed since the cursor
//    was left: the walk then finds its place again by key instead of trusting an iterator.
//  - `forEach(entity, f)`: calls `f(record)` for every record the entity holds;
//  - `has(entity, key)`: whether the entity holds the record of `key`;
//  - `sizeHint(entity)`: at most the number of records, read without a walk;
//  - `apply(entity, record)`: makes the entity hold the record (creating or changing what it
//    has, notifying only what changed); throws Vault::Corruption when a value is out of range;
//  - `remove(entity, key)`: the record of `key` goes.
// One table holds one entity; `PolicyStatus`'s FEC map is not a table of its own: it follows
// from the entries (two FEC ids per entry), and `apply`/`remove` keep it.
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "core/SrTePolicyMachines.h"

namespace Agent::Published {

// Zeroes every byte, padding included, before the fields are set.
template <class R>
struct Zeroed {
   Zeroed() noexcept { std::memset(static_cast<void*>(this), 0, sizeof(R)); }
};

// A label stack as forwarding reads it: the used labels, the rest zero.
struct LabelStack {
   uint32_t action;
   uint32_t size;
   uint32_t label[Ipkit::MplsLabelOperation::capacity];
};

// ---- policySelectionInput: one record per usable candidate path. Without its version: the input
// stage bumps it at every write, an unchanged path processed again after a restart included, so
// it tells this process's selection that a path was processed, not what forwarding has.
struct SelectionInputRecord : Zeroed<SelectionInputRecord> {
   static constexpr uint32_t rowCapacity = 16;
   struct Row {
      uint32_t index;
      uint32_t segmentListId;
      uint32_t weight;
      uint32_t pad;
      uint64_t tunnelId;
   };
   SrTePolicy::PolicyId id;
   uint32_t preference;
   uint32_t bindingSid;
   SrTePolicy::Originator originator;
   uint32_t rowCount;
   uint32_t pad;
   Row row[rowCapacity];

   const SrTePolicy::PolicyId& key() const noexcept { return id; }
   bool isValidRecord() const noexcept { return rowCount <= rowCapacity; }
};

// ---- exportedSegmentLists: the labels of every exported segment list.
struct ExportedSegmentListRecord : Zeroed<ExportedSegmentListRecord> {
   static constexpr uint32_t labelCapacity = Ipkit::MplsStackEntryIndex::max + 1;
   SrTePolicy::SegmentListId id;
   uint32_t size; // as the writer states it
   uint32_t labelCount;
   uint32_t label[labelCapacity];

   const SrTePolicy::SegmentListId& key() const noexcept { return id; }
   bool isValidRecord() const noexcept { return labelCount <= labelCapacity; }
};

// ---- segmentListStatus
struct SegmentListStatusRecord : Zeroed<SegmentListStatusRecord> {
   SrTePolicy::SegmentListId id;
   uint32_t error;

   const SrTePolicy::SegmentListId& key() const noexcept { return id; }
};

// ---- srTeSegmentListTunnelTable: a tunnel and its vias by via index.
struct TunnelRecord : Zeroed<TunnelRecord> {
   static constexpr uint32_t viaCapacity = 16;
   struct Via {
      uint32_t index;
      uint32_t intfId;
      Ipkit::IpGenAddr nexthop;
      LabelStack labelOp;
   };
   Tunnel::TunnelTable::TunnelId id;
   uint32_t viaCount;
   uint32_t pad;
   Via via[viaCapacity];

   const Tunnel::TunnelTable::TunnelId& key() const noexcept { return id; }
   bool isValidRecord() const noexcept { return viaCount <= viaCapacity; }
};

// ---- ecPolicy: one record per candidate of a policy, keyed by the policy key and the
// candidate's identity within it; a policy without candidates is one record of the unknown
// protocol and discriminator 0, marked `empty`.
struct EcPolicyRecord : Zeroed<EcPolicyRecord> {
   static constexpr uint32_t rowCapacity = 16;
   static constexpr uint32_t flagActive = 1, flagEmpty = 2;
   struct Row {
      uint32_t index;
      uint32_t weight;
      uint64_t tunnelId;
   };
   SrTePolicy::PolicyId id;
   uint32_t flags;
   uint32_t preference;
   SrTePolicy::Originator originator;
   uint32_t bindingSid;
   uint32_t rowCount;
   Row row[rowCapacity];

   const SrTePolicy::PolicyId& key() const noexcept { return id; }
   bool isValidRecord() const noexcept {
      return rowCount <= rowCapacity && flags <= (flagActive | flagEmpty);
   }
};

// ---- policyStatus: one record per published policy.
struct PolicyStatusRecord : Zeroed<PolicyStatusRecord> {
   SrTePolicy::PolicyKey key_;
   SrTePolicy::CandidateId candidateId;
   SrTePolicy::Originator originator;
   double lastModified;
   uint32_t bindingSid;
   uint32_t pad;
   uint64_t fecId;
   uint64_t nullLabelFecId;

   const SrTePolicy::PolicyKey& key() const noexcept { return key_; }
};

// ---- srteFwdStatus: a FEC and its vias.
struct FecRecord : Zeroed<FecRecord> {
   static constexpr uint32_t viaCapacity = 16;
   struct Via {
      uint32_t intfId;
      uint32_t label;
      uint32_t labelAction;
      uint32_t pad;
      uint64_t tunnelId;
   };
   Vault::Fib::FecId id;
   uint32_t viaCount;
   uint32_t pad;
   Via via[viaCapacity];

   const Vault::Fib::FecId& key() const noexcept { return id; }
   bool isValidRecord() const noexcept { return viaCount <= viaCapacity; }
};

// ---- tunnelIdToPolicyKey
struct TunnelMapRecord : Zeroed<TunnelMapRecord> {
   Tunnel::TunnelTable::TunnelId id;
   SrTePolicy::PolicyKey policyKey;

   const Tunnel::TunnelTable::TunnelId& key() const noexcept { return id; }
};

// ---- srTePolicyLfibStatus: the protocol LFIB's routes and its external-FEC adjacencies, in one
// table told apart by the key's kind.
struct LfibKey : Zeroed<LfibKey> {
   static constexpr uint32_t route = 1, extFecAdjacency = 2;
   uint32_t kind;
   uint32_t metric; // routes
   uint64_t value;  // a route's top label, an adjacency's index

   uint32_t hash() const noexcept {
      return Mox::hashCombine(
          Mox::hashCombine(kind, metric),
          Mox::hashCombine(static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32)));
   }
   friend bool operator==(const LfibKey& a, const LfibKey& b) noexcept {
      return a.kind == b.kind && a.metric == b.metric && a.value == b.value;
   }
};
struct LfibRecord : Zeroed<LfibRecord> {
   LfibKey id;
   uint32_t source;      // routes
   uint32_t adjType;     // routes: the via's type
   uint64_t adjIndex;    // routes: the via's index
   uint64_t fecId;       // adjacencies
   uint32_t labelAction; // adjacencies
   uint32_t pad;

   const LfibKey& key() const noexcept { return id; }
   bool isValidRecord() const noexcept {
      return id.kind == LfibKey::route || id.kind == LfibKey::extFecAdjacency;
   }
};

// ---------------------------------------------------------------------------------------------
// Walks that stop and go on

// Where a walk over one map left off: the next member (good while the map has not changed) and
// the key of the last member visited (to find the place again when it has; a rehash may then
// skip or repeat members, which the next whole walk sets right).
template <class Map>
struct MapCursor {
   using Iterator = decltype(std::declval<const Map&>().begin());
   using KeyType = std::remove_cvref_t<decltype((*std::declval<Iterator>()).first)>;
   std::optional<Iterator> next;
   std::optional<KeyType> last;

   Iterator resume(const Map& m, bool changed) const {
      if (!next) return m.begin();
      if (!changed) return *next;
      if (!last) return m.begin();
      const auto it = m.find(*last);
      return it == m.end() ? m.begin() : std::next(it);
   }
};

// Calls `visit(member)` from where `at` left off; false when a visit said stop.
template <class Map, class Visit>
bool walkMap(const Map& m, MapCursor<Map>& at, bool changed, Visit&& visit) {
   for (auto it = at.resume(m, changed); it != m.end();) {
      const auto& member = *it; // a reference, or a pair of references held here
      at.last = member.first;
      at.next = ++it;
      if (!visit(member)) return false;
   }
   at.next = m.end();
   return true;
}

// A codec's forEach, from its walk.
template <class C, class F>
void forEachOf(const typename C::Entity& t, F&& f) {
   typename C::Cursor cursor;
   C::walk(t, cursor, false, [&](const typename C::Record& r) {
      f(r);
      return true;
   });
}

// ---------------------------------------------------------------------------------------------
// Codecs

struct SelectionInputCodec {
   using Entity = SrTePolicy::PolicySelectionInput;
   using Key = SrTePolicy::PolicyId;
   using Record = SelectionInputRecord;
   static constexpr const char* table = "policySelectionInput";
   static constexpr const char* title = "selection input";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) {
      return p.policySelectionInput;
   }
   static Record encode(const SrTePolicy::PolicyIdEntry& e);
   using Cursor =
       MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().policyIdEntry())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.policyIdEntry(), c, changed,
                     [&](const auto& m) { return f(encode(*m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<SelectionInputCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.policyIdEntry().size(); }
   static bool has(const Entity& t, const Key& k) { return t.policyIdEntry().contains(k); }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.policyIdEntryDel(k); }
};

struct ExportedSegmentListCodec {
   using Entity = SrTePolicy::Export::SegmentListCollection;
   using Key = SrTePolicy::SegmentListId;
   using Record = ExportedSegmentListRecord;
   static constexpr const char* table = "exportedSegmentLists";
   static constexpr const char* title = "exported segment lists";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) {
      return p.exportedSegmentListColl;
   }
   static Record encode(const SrTePolicy::Export::SegmentList& l);
   using Cursor =
       MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().segmentList())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.segmentList(), c, changed,
                     [&](const auto& m) { return f(encode(*m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<ExportedSegmentListCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.segmentList().size(); }
   static bool has(const Entity& t, const Key& k) { return t.segmentList().contains(k); }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.segmentListDel(k); }
};

struct SegmentListStatusCodec {
   using Entity = SrTePolicy::SegmentListStatus;
   using Key = SrTePolicy::SegmentListId;
   using Record = SegmentListStatusRecord;
   static constexpr const char* table = "segmentListStatus";
   static constexpr const char* title = "segment-list status";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.segmentListStatus; }
   using Cursor = MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().status())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.status(), c, changed, [&](const auto& m) {
         Record r;
         r.id = m.first;
         r.error = static_cast<uint32_t>(m.second);
         return f(r);
      });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<SegmentListStatusCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.status().size(); }
   static bool has(const Entity& t, const Key& k) { return t.status(k) != nullptr; }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.statusDel(k); }
};

struct TunnelCodec {
   using Entity = Tunnel::TunnelTable::SrTeSegmentListTunnelTable;
   using Key = Tunnel::TunnelTable::TunnelId;
   using Record = TunnelRecord;
   static constexpr const char* table = "srTeSegmentListTunnelTable";
   static constexpr const char* title = "tunnel table";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.tunnelTable; }
   static Record encode(const Tunnel::TunnelTable::SrTeSegmentListTunnelEntry& e);
   using Cursor = MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().entry())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.entry(), c, changed, [&](const auto& m) { return f(encode(m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<TunnelCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.entry().size(); }
   static bool has(const Entity& t, const Key& k) { return t.entry(k) != nullptr; }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.entryDel(k); }
};

struct EcPolicyCodec {
   using Entity = SrTePolicy::EcPolicy;
   using Key = SrTePolicy::PolicyId;
   using Record = EcPolicyRecord;
   static constexpr const char* table = "ecPolicy";
   static constexpr const char* title = "EcPolicy";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.ecPolicy; }
   static Record encode(const SrTePolicy::Policy& p, const SrTePolicy::PolicyEntry& e);
   static Record encodeEmpty(const SrTePolicy::PolicyKey& key);
   using PolicyMap = std::remove_cvref_t<decltype(std::declval<const Entity&>().policy())>;
   using CandidateMap =
       std::remove_cvref_t<decltype(std::declval<const SrTePolicy::Policy&>().candidate())>;
   // Records are one per candidate (one for a policy without any): a walk may stop within a
   // policy, which it then finds again by key.
   struct Cursor {
      MapCursor<PolicyMap> policies;
      MapCursor<CandidateMap> candidates;
      bool within = false; // in the candidates of the policy `policies.last`
   };
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      if (c.within) {
         const auto it = t.policy().find(*c.policies.last);
         if (it != t.policy().end()) {
            const auto& policy = (*it).second;
            if (!walkMap(policy->candidate(), c.candidates, changed,
                         [&](const auto& m) { return f(encode(*policy, *m.second)); })) {
               return false;
            }
         }
         c.within = false;
      }
      return walkMap(t.policy(), c.policies, changed, [&](const auto& m) {
         const auto& policy = m.second;
         if (policy->candidate().empty()) return f(encodeEmpty(m.first));
         c.candidates = {};
         c.within = true;
         if (!walkMap(policy->candidate(), c.candidates, false,
                      [&](const auto& e) { return f(encode(*policy, *e.second)); })) {
            return false;
         }
         c.within = false;
         return true;
      });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<EcPolicyCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.policy().size(); }
   static bool has(const Entity& t, const Key& k);
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k);
};

struct PolicyStatusCodec {
   using Entity = SrTePolicy::PolicyStatus;
   using Key = SrTePolicy::PolicyKey;
   using Record = PolicyStatusRecord;
   static constexpr const char* table = "policyStatus";
   static constexpr const char* title = "policy status";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.policyStatus; }
   static Record encode(const SrTePolicy::PolicyStatusEntry& e);
   using Cursor = MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().status())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.status(), c, changed, [&](const auto& m) { return f(encode(*m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<PolicyStatusCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.status().size(); }
   static bool has(const Entity& t, const Key& k) { return t.status().contains(k); }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k);
};

struct FecCodec {
   using Entity = Vault::Fib::ForwardingStatus;
   using Key = Vault::Fib::FecId;
   using Record = FecRecord;
   static constexpr const char* table = "srteFwdStatus";
   static constexpr const char* title = "FECs";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.srteFwdStatus; }
   static Record encode(const Vault::Fib::Fec& fec);
   using Cursor = MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().fec())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.fec(), c, changed, [&](const auto& m) { return f(encode(*m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<FecCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.fec().size(); }
   static bool has(const Entity& t, const Key& k) { return t.fec(k) != nullptr; }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.fecDel(k); }
};

struct TunnelMapCodec {
   using Entity = SrTePolicy::TunnelIdToPolicyKey;
   using Key = Tunnel::TunnelTable::TunnelId;
   using Record = TunnelMapRecord;
   static constexpr const char* table = "tunnelIdToPolicyKey";
   static constexpr const char* title = "tunnel map";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) {
      return p.tunnelIdToPolicyKey;
   }
   using Cursor =
       MapCursor<std::remove_cvref_t<decltype(std::declval<const Entity&>().tunnelEntry())>>;
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      return walkMap(t.tunnelEntry(), c, changed, [&](const auto& m) {
         Record r;
         r.id = m.second.tunnelId;
         r.policyKey = m.second.policyKey;
         return f(r);
      });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<TunnelMapCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) { return t.tunnelEntry().size(); }
   static bool has(const Entity& t, const Key& k) { return t.tunnelEntry(k) != nullptr; }
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k) { t.tunnelEntryDel(k); }
};

struct LfibCodec {
   using Entity = SrTePolicy::SrTePolicyLfibStatus;
   using Key = LfibKey;
   using Record = LfibRecord;
   static constexpr const char* table = "srTePolicyLfibStatus";
   static constexpr const char* title = "LFIB";
   static Mox::Ptr<Entity> of(const SrTePolicy::PublishedTables& p) { return p.lfibStatus; }
   static Record encode(const Mpls::LFib::ProtocolRoute& r);
   static Record encode(const Mpls::ProtocolLfib::ExtFecAdjacency& a);
   using Lfib = std::remove_cvref_t<decltype(*std::declval<const Entity&>().lfib())>;
   struct Cursor {
      MapCursor<std::remove_cvref_t<decltype(std::declval<const Lfib&>().lfibRoute())>> routes;
      MapCursor<std::remove_cvref_t<decltype(std::declval<const Lfib&>().lfibExtFecAdjacency())>>
          adjacencies;
      bool routesDone = false;
   };
   template <class F>
   static bool walk(const Entity& t, Cursor& c, bool changed, F&& f) {
      if (!t.lfib()) return true;
      if (!c.routesDone) {
         if (!walkMap(t.lfib()->lfibRoute(), c.routes, changed,
                      [&](const auto& m) { return f(encode(m.second)); })) {
            return false;
         }
         c.routesDone = true;
      }
      return walkMap(t.lfib()->lfibExtFecAdjacency(), c.adjacencies, changed,
                     [&](const auto& m) { return f(encode(m.second)); });
   }
   template <class F>
   static void forEach(const Entity& t, F&& f) {
      forEachOf<LfibCodec>(t, f);
   }
   static size_t sizeHint(const Entity& t) {
      return t.lfib() ? t.lfib()->lfibRoute().size() + t.lfib()->lfibExtFecAdjacency().size() : 0;
   }
   static bool has(const Entity& t, const Key& k);
   static void apply(Entity& t, const Record& r);
   static void remove(Entity& t, const Key& k);
};

// Every codec, in the order the core builds what writes the tables.
template <class F>
void forEachCodec(F&& f) {
   f(SelectionInputCodec{});
   f(ExportedSegmentListCodec{});
   f(SegmentListStatusCodec{});
   f(TunnelCodec{});
   f(EcPolicyCodec{});
   f(PolicyStatusCodec{});
   f(FecCodec{});
   f(TunnelMapCodec{});
   f(LfibCodec{});
}

template <class R>
bool sameRecord(const R& a, const R& b) noexcept {
   static_assert(std::is_trivially_copyable_v<R>);
   return std::memcmp(&a, &b, sizeof(R)) == 0;
}

} // namespace Agent::Published
