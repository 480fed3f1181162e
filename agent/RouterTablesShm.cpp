#include "agent/RouterTablesShm.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <tuple>
#include <unordered_set>
#include <utility>

namespace Agent {

using namespace RouterShm;
using SrTePolicy::PolicyKey;

// ---- record checks

namespace RouterShm {

namespace {

bool validLabel(uint32_t value) noexcept { return value <= Ipkit::MplsLabel::luWithdraw; }
bool validAddr(const Ipkit::IpGenAddr& a) noexcept { return a.af() <= Ipkit::IpGenAddr::ipv6; }
bool validAction(uint32_t a) noexcept {
   return a <= static_cast<uint32_t>(Ipkit::MplsLabelAction::forward);
}

bool validLabels(const Ipkit::MplsLabelOperation& op) noexcept {
   if (!validAction(static_cast<uint32_t>(op.action()))) return false;
   if (op.stackSize() > Ipkit::MplsLabelOperation::capacity) return false;
   for (uint32_t i = 0; i < op.stackSize(); ++i) {
      if (!validLabel(op.label(Ipkit::MplsStackEntryIndex(i)).value())) return false;
   }
   return true;
}

bool validVias(const ViaSlot* via, uint32_t count) noexcept {
   if (count > listCapacity) return false;
   for (uint32_t i = 0; i < count; ++i) {
      const ViaSlot& v = via[i];
      if (!validAddr(v.nexthop) || !validAction(v.labelAction) || !validLabel(v.label)) {
         return false;
      }
      if ((v.intfId >> 24) > static_cast<uint32_t>(Ipkit::IntfId::Kind::fec)) return false;
   }
   return true;
}

} // namespace

std::optional<NameKey> NameKey::of(std::string_view name) {
   if (name.empty() || name.size() >= capacity) return std::nullopt;
   NameKey k;
   std::memcpy(k.text, name.data(), name.size());
   return k;
}

uint32_t NameKey::hash() const noexcept {
   uint32_t h = 2166136261u;
   for (char c : text) h = (h ^ static_cast<uint8_t>(c)) * 16777619u;
   return h;
}

bool ConfigRecord::isValidRecord() const noexcept {
   return k.zero == 0 && enabled <= 1 && specifiedBsidOnly <= 1 && segmentListSharingEnabled <= 1 &&
          useDiscriminatorInTieBreaking <= 1;
}

bool StaticPolicyRecord::isValidRecord() const noexcept {
   return validAddr(k.endpoint) && validLabel(bindingSid);
}

bool CandidatePathRecord::isValidRecord() const noexcept {
   if (!validAddr(k.policy.endpoint) || count > listCapacity) return false;
   for (uint32_t i = 0; i < count; ++i) {
      if (list[i].weight == 0 || !validLabels(list[i].labels)) return false;
   }
   return true;
}

bool ColorDscpRecord::isValidRecord() const noexcept { return (symbolicOn & ~symbolicKnown) == 0; }

bool LfibRouteRecord::isValidRecord() const noexcept {
   return validLabel(k.topLabel().value()) && !k.topLabel().isNull();
}

bool AdjacencyRecord::isValidRecord() const noexcept { return validVias(via, count); }

bool AdjacencyExtRecord::isValidRecord() const noexcept { return validVias(via, count); }

} // namespace RouterShm

namespace {

// Every byte of a record is written, padding included, so that equal values compare equal.
template <class R>
void zero(R& r) {
   std::memset(static_cast<void*>(&r), 0, sizeof r);
}

template <class R>
bool sameBytes(const R& a, const R& b) {
   return std::memcmp(static_cast<const void*>(&a), static_cast<const void*>(&b), sizeof a) == 0;
}

// Only the labels in use: a stack keeps stale entries beyond its size.
Ipkit::MplsLabelOperation cleanLabels(const Ipkit::MplsLabelOperation& op) {
   Ipkit::MplsLabelOperation out;
   out.actionIs(op.action());
   for (uint32_t i = 0; i < op.stackSize(); ++i) {
      out.labelIs(Ipkit::MplsStackEntryIndex(i), op.label(Ipkit::MplsStackEntryIndex(i)));
   }
   return out;
}

uint32_t encodeVias(const Mpls::ViaSet& vias, ViaSlot* out, const std::string& what) {
   if (vias.size() > listCapacity) {
      throw std::length_error(what + " has " + std::to_string(vias.size()) +
                              " vias; a shared record holds " + std::to_string(listCapacity));
   }
   uint32_t n = 0;
   for (const Mpls::Via& v : vias) {
      out[n].nexthop = v.nexthop;
      out[n].intfId = v.intfId.value();
      out[n].labelAction = static_cast<uint32_t>(v.labelAction);
      out[n].label = v.label.value();
      ++n;
   }
   return n;
}

Mpls::ViaSet decodeVias(const ViaSlot* via, uint32_t count) {
   Mpls::ViaSet out;
   for (uint32_t i = 0; i < count; ++i) {
      const ViaSlot& v = via[i];
      out.viaIs(Mpls::Via(v.nexthop,
                          Ipkit::IntfId(static_cast<Ipkit::IntfId::Kind>(v.intfId >> 24),
                                        v.intfId & Ipkit::IntfId::maxNumber),
                          static_cast<Ipkit::MplsLabelAction>(v.labelAction),
                          Ipkit::MplsLabel(v.label)));
   }
   return out;
}

// ---- the codecs
//
// Each one: the table's name and size, `encode` (the local value of a key as a record; false
// when the key is absent locally), `forEachKey` (every local key), `apply` (a checked record into
// the entity) and `erase`. The mirror, the writer and the loader are written once over them.

struct ConfigCodec {
   using Key = ScalarKey;
   using Record = ConfigRecord;
   static constexpr const char* table = "config";
   static constexpr bool scalar = true;
   static Vault::Shm::Geometry geometry() { return {1, 64}; }

   static bool encode(const RouterEntities& e, const Key&, Record& r) {
      zero(r);
      const SrTePolicy::Config& c = *e.config;
      r.enabled = c.enabled();
      r.specifiedBsidOnly = c.specifiedBsidOnly();
      r.segmentListSharingEnabled = c.segmentListSharingEnabled();
      r.useDiscriminatorInTieBreaking = c.useDiscriminatorInTieBreaking();
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities&, F&& f) {
      f(Key{});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      SrTePolicy::Config& c = *e.config;
      c.specifiedBsidOnlyIs(r.specifiedBsidOnly);
      c.segmentListSharingEnabledIs(r.segmentListSharingEnabled);
      c.useDiscriminatorInTieBreakingIs(r.useDiscriminatorInTieBreaking);
      // Last: turning SR-TE on starts the core over the other flags as they now are.
      c.enabledIs(r.enabled);
   }
   static void erase(const RouterEntities&, const Key&) {}
};

struct StaticPolicyCodec {
   using Key = PolicyKey;
   using Record = StaticPolicyRecord;
   static constexpr const char* table = "config-policy";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 14, 1 << 14}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      Mox::Ptr<SrTePolicy::StaticPolicy> p = e.config->policy(k);
      if (!p) return false;
      zero(r);
      r.k = k;
      r.bindingSid = p->bindingSid().value();
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [key, policy] : e.config->policy()) f(key);
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.config->policyIs(r.k)->bindingSidIs(Ipkit::MplsLabel(r.bindingSid));
   }
   static void erase(const RouterEntities& e, const Key& k) { e.config->policyDel(k); }
};

struct CandidatePathCodec {
   using Key = CandidatePathKey;
   using Record = CandidatePathRecord;
   static constexpr const char* table = "config-candidatePath";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 14, 1 << 14}; }

   static Mox::Ptr<SrTePolicy::CandidatePath> find(const RouterEntities& e, const Key& k) {
      Mox::Ptr<SrTePolicy::StaticPolicy> p = e.config->policy(k.policy);
      return p ? p->candidatePath(SrTePolicy::Preference(k.preference)) : nullptr;
   }
   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      Mox::Ptr<SrTePolicy::CandidatePath> path = find(e, k);
      if (!path) return false;
      zero(r);
      r.k = k;
      const auto lists = path->staticSegmentListByIndex();
      if (lists.size() > listCapacity) {
         throw std::length_error(
             "candidate path " + k.policy.stringValue() + " preference " +
             std::to_string(k.preference) + " has " + std::to_string(lists.size()) +
             " segment lists; a shared record holds " + std::to_string(listCapacity));
      }
      for (const auto& [labels, list] : lists) {
         StaticSegmentListSlot& slot = r.list[r.count++];
         slot.labels = cleanLabels(labels);
         slot.weight = list.weight.value;
         slot.index = list.index.value;
      }
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [key, policy] : e.config->policy()) {
         for (const auto& [preference, path] : policy->candidatePath()) {
            f(Key{key, preference.value});
         }
      }
   }
   static void apply(const RouterEntities& e, const Record& r) {
      // A path's policy is in the shared table before it; it may come later to this reader.
      Mox::Ptr<SrTePolicy::CandidatePath> path =
          e.config->policyIs(r.k.policy)->candidatePathIs(SrTePolicy::Preference(r.k.preference));
      std::vector<Ipkit::MplsLabelOperation> keep;
      for (uint32_t i = 0; i < r.count; ++i) {
         const StaticSegmentListSlot& slot = r.list[i];
         path->staticSegmentListIs(slot.labels,
                                   SrTePolicy::StaticSegmentList(SrTePolicy::Weight(slot.weight),
                                                                 SrTePolicy::Index(slot.index)));
         keep.push_back(slot.labels);
      }
      std::vector<Ipkit::MplsLabelOperation> gone;
      for (const auto& [labels, list] : path->staticSegmentList()) {
         if (std::find(keep.begin(), keep.end(), labels) == keep.end()) gone.push_back(labels);
      }
      for (const auto& labels : gone) path->staticSegmentListDel(labels);
   }
   static void erase(const RouterEntities& e, const Key& k) {
      if (Mox::Ptr<SrTePolicy::StaticPolicy> p = e.config->policy(k.policy)) {
         p->candidatePathDel(SrTePolicy::Preference(k.preference));
      }
   }
};

struct ColorDscpCodec {
   using Key = ColorKey;
   using Record = ColorDscpRecord;
   static constexpr const char* table = "colorDscpMap";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 12, 1 << 12}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      Mox::Ptr<SrTePolicy::DscpList> list = e.colorDscpMap->colorToDscp(SrTePolicy::Color(k.value));
      if (!list) return false;
      zero(r);
      r.k = k;
      for (const Ipkit::DscpValue& v : list->dscp()) r.dscp |= uint64_t{1} << v.value;
      for (const auto& [v, on] : list->cliSaveUseSymbolic_()) {
         r.symbolicKnown |= uint64_t{1} << v.value;
         if (on) r.symbolicOn |= uint64_t{1} << v.value;
      }
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [color, list] : e.colorDscpMap->colorToDscp()) f(Key{color.value});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      Mox::Ptr<SrTePolicy::DscpList> list =
          e.colorDscpMap->colorToDscpIs(SrTePolicy::Color(r.k.value));
      for (uint8_t v = 0; v < 64; ++v) {
         const Ipkit::DscpValue dscp(v);
         const uint64_t bit = uint64_t{1} << v;
         if (r.dscp & bit) {
            list->dscpIs(dscp);
         } else {
            list->dscpDel(dscp);
         }
         if (r.symbolicKnown & bit) {
            list->cliSaveUseSymbolic_Is(dscp, (r.symbolicOn & bit) != 0);
         } else {
            list->cliSaveUseSymbolic_Del(dscp);
         }
      }
   }
   static void erase(const RouterEntities& e, const Key& k) {
      e.colorDscpMap->colorToDscpDel(SrTePolicy::Color(k.value));
   }
};

struct LabelRangeCodec {
   using Key = NameKey;
   using Record = LabelRangeRecord;
   static constexpr const char* table = "mpls-labelRange";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {64, 256}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      const Mpls::LabelRange* range = e.mplsConfig->labelRange(Mox::Name(k.view()));
      if (!range) return false;
      zero(r);
      r.k = k;
      r.base = range->base();
      r.size = range->size();
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [name, range] : e.mplsConfig->labelRange()) {
         std::optional<Key> k = NameKey::of(std::string_view(name));
         if (!k) {
            throw std::length_error("label range name '" + std::string(name) + "' is longer than " +
                                    std::to_string(NameKey::capacity - 1));
         }
         f(*k);
      }
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.mplsConfig->labelRangeIs(Mox::Name(r.k.view()), Mpls::LabelRange(r.base, r.size));
   }
   static void erase(const RouterEntities& e, const Key& k) {
      e.mplsConfig->labelRangeDel(Mox::Name(k.view()));
   }
};

struct LfibRouteCodec {
   using Key = Mpls::RouteKey;
   using Record = LfibRouteRecord;
   static constexpr const char* table = "mpls-lfibRoute";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 18, 1 << 16}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      const Mpls::LFib::Route* route = e.mplsStatus->lfibRoute(k);
      if (!route) return false;
      zero(r);
      r.k = k;
      r.type = static_cast<uint32_t>(route->type);
      r.source = static_cast<uint32_t>(route->source);
      r.adjType = static_cast<uint32_t>(route->adjKey.type());
      r.adjIndex = route->adjKey.index();
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [key, route] : e.mplsStatus->lfibRoute()) f(key);
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.mplsStatus->lfibRouteIs(Mpls::LFib::Route(
          r.k, static_cast<Mpls::LFib::RouteType>(r.type),
          static_cast<Mpls::LFib::Source>(r.source),
          Mpls::AdjacencyKey(r.adjIndex, static_cast<Mpls::AdjacencyType>(r.adjType))));
   }
   static void erase(const RouterEntities& e, const Key& k) { e.mplsStatus->lfibRouteDel(k); }
};

struct AdjacencyCodec {
   using Key = IndexKey;
   using Record = AdjacencyRecord;
   static constexpr const char* table = "mpls-adjacency";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 16, 1 << 16}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      const Mpls::ViaSet* vias = e.mplsStatus->adjacency(k.value);
      if (!vias) return false;
      zero(r);
      r.k = k;
      r.count = encodeVias(*vias, r.via, "adjacency " + std::to_string(k.value));
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [index, vias] : e.mplsStatus->adjacency()) f(Key{index});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.mplsStatus->adjacencyIs(r.k.value, decodeVias(r.via, r.count));
   }
   static void erase(const RouterEntities& e, const Key& k) { e.mplsStatus->adjacencyDel(k.value); }
};

struct AdjacencyExtCodec {
   using Key = IndexKey;
   using Record = AdjacencyExtRecord;
   static constexpr const char* table = "mpls-adjacencyExt";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 16, 1 << 16}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      const Mpls::Status::AdjacencyExt* ext = e.mplsStatus->adjacencyExt(k.value);
      if (!ext) return false;
      zero(r);
      r.k = k;
      r.fecId = ext->fecId.value();
      r.count = encodeVias(ext->via, r.via, "adjacency extension " + std::to_string(k.value));
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [index, ext] : e.mplsStatus->adjacencyExt()) f(Key{index});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.mplsStatus->adjacencyExtIs(
          r.k.value,
          Mpls::Status::AdjacencyExt{Vault::Fib::FecId(r.fecId), decodeVias(r.via, r.count)});
   }
   static void erase(const RouterEntities& e, const Key& k) {
      e.mplsStatus->adjacencyExtDel(k.value);
   }
};

struct HardwareCodec {
   using Key = ScalarKey;
   using Record = HardwareRecord;
   static constexpr const char* table = "hardware";
   static constexpr bool scalar = true;
   static Vault::Shm::Geometry geometry() { return {1, 64}; }

   static bool encode(const RouterEntities& e, const Key&, Record& r) {
      zero(r);
      if (auto size = e.hardwareStatus->nexthopGroupMplsLabelStackSize()) {
         r.present = 1;
         r.labelStackSize = *size;
      }
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities&, F&& f) {
      f(Key{});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      if (r.present) {
         e.hardwareStatus->nexthopGroupMplsLabelStackSizeIs(static_cast<uint8_t>(r.labelStackSize));
      } else {
         e.hardwareStatus->nexthopGroupMplsLabelStackSizeDel();
      }
   }
   static void erase(const RouterEntities&, const Key&) {}
};

struct CounterCodec {
   using Key = IndexKey;
   using Record = CounterRecord;
   static constexpr const char* table = "tunnelCounters";
   static constexpr bool scalar = false;
   static Vault::Shm::Geometry geometry() { return {1 << 18, 1 << 16}; }

   static bool encode(const RouterEntities& e, const Key& k, Record& r) {
      const FlexCounters::Counter* c =
          e.counterTable->counter(FlexCounters::CounterTable::TunnelId(k.value));
      if (!c) return false;
      zero(r);
      r.k = k;
      r.packets = c->packets;
      r.bytes = c->bytes;
      return true;
   }
   template <class F>
   static void forEachKey(const RouterEntities& e, F&& f) {
      for (const auto& [id, counter] : e.counterTable->counter()) f(Key{id.value});
   }
   static void apply(const RouterEntities& e, const Record& r) {
      e.counterTable->counterIs(FlexCounters::CounterTable::TunnelId(r.k.value),
                                FlexCounters::Counter{r.packets, r.bytes});
   }
   static void erase(const RouterEntities& e, const Key& k) {
      e.counterTable->counterDel(FlexCounters::CounterTable::TunnelId(k.value));
   }
};

// Parents before children: a candidate path's policy is written and mounted before it.
using Codecs =
    std::tuple<ConfigCodec, StaticPolicyCodec, CandidatePathCodec, ColorDscpCodec, LabelRangeCodec,
               LfibRouteCodec, AdjacencyCodec, AdjacencyExtCodec, HardwareCodec, CounterCodec>;

template <class F>
void forEachCodec(F&& f) {
   std::apply([&](auto... codec) { (f(codec), ...); }, Codecs{});
}

template <class C>
using ReaderOf = Vault::Shm::Reader<typename C::Key, typename C::Record>;
template <class C>
using WriterOf = Vault::Shm::Writer<typename C::Key, typename C::Record>;

template <class K>
struct KeyHash {
   size_t operator()(const K& k) const noexcept { return k.hash(); }
};
template <class C>
using KeySet = std::unordered_set<typename C::Key, KeyHash<typename C::Key>>;

// ---- one table mirrored into the entities

class TableMirrorBase {
 public:
   virtual ~TableMirrorBase() = default;
   virtual int fd() const noexcept = 0;
   virtual bool replaced() const noexcept = 0;
   virtual MirrorCounts drain() = 0;
   virtual size_t size() const = 0;
};

// What the entities held of one table before it was mounted.
template <class C>
struct Snapshot {
   std::vector<typename C::Record> records;
   static Snapshot take(const RouterEntities& e) {
      Snapshot s;
      C::forEachKey(e, [&](const typename C::Key& k) {
         typename C::Record r;
         if (C::encode(e, k, r)) s.records.push_back(r);
      });
      return s;
   }
   const typename C::Record* find(const typename C::Key& k) const {
      for (const auto& r : records) {
         if (r.key() == k) return &r;
      }
      return nullptr;
   }
};

template <class C>
class TableMirror final : public TableMirrorBase {
 public:
   using Key = typename C::Key;
   using Record = typename C::Record;

   TableMirror(ReaderOf<C> reader, const RouterEntities& e, const Snapshot<C>& before)
       : reader_(std::move(reader)), e_(e), before_(before) {}

   int fd() const noexcept override { return reader_.fd(); }
   bool replaced() const noexcept override { return reader_.replaced(); }
   size_t size() const override { return reader_.size(); }

   MirrorCounts drain() override {
      counts_ = {};
      reader_.drain([this](const Key& k) { copyKey(k); }, [this] { rescan(); });
      return counts_;
   }

   // The entities as they were before the table was mounted.
   static MirrorCounts restore(const RouterEntities& e, const Snapshot<C>& before) {
      MirrorCounts counts;
      std::vector<Key> gone;
      C::forEachKey(e, [&](const Key& k) {
         if (!before.find(k)) gone.push_back(k);
      });
      for (const Key& k : gone) {
         C::erase(e, k);
         ++counts.erased;
      }
      for (const Record& r : before.records) {
         if (copy(e, r)) ++counts.written;
      }
      return counts;
   }

 private:
   // False when the entity already holds the record's value.
   static bool copy(const RouterEntities& e, const Record& r) {
      Record held;
      if (C::encode(e, r.key(), held) && sameBytes(held, r)) return false;
      C::apply(e, r);
      return true;
   }

   void copyKey(const Key& k) {
      Record r;
      if (reader_.lookup(k, r)) {
         if (copy(e_, r)) ++counts_.written;
      } else {
         eraseKey(k);
      }
   }

   void eraseKey(const Key& k) {
      Record held;
      if (!C::encode(e_, k, held)) return;
      if constexpr (C::scalar) {
         // A single-record table without its record: the value it had before the table came.
         if (const Record* r = before_.find(k)) {
            if (copy(e_, *r)) ++counts_.erased;
         }
      } else {
         C::erase(e_, k);
         ++counts_.erased;
      }
   }

   void rescan() {
      ++counts_.rescans;
      KeySet<C> present;
      reader_.forEach([&](const Record& r) {
         present.insert(r.key());
         if (copy(e_, r)) ++counts_.written;
      });
      std::vector<Key> gone;
      C::forEachKey(e_, [&](const Key& k) {
         if (!present.contains(k)) gone.push_back(k);
      });
      for (const Key& k : gone) eraseKey(k);
   }

   ReaderOf<C> reader_;
   RouterEntities e_;
   const Snapshot<C>& before_;
   MirrorCounts counts_;
};

// ---- one table written from the entities

template <class C>
class TablePublisher {
 public:
   using Key = typename C::Key;
   using Record = typename C::Record;

   TablePublisher(const std::string& router, const RouterEntities& e) : router_(router), e_(e) {}

   bool claimed() const noexcept { return writer_.has_value(); }

   // Makes the shared value of `k` the local one, claiming the table at its first write.
   void publish(const Key& k) {
      if (!writer_) {
         claim();
         return;
      }
      put(k);
   }

   // Becomes the table's writer and makes it equal to the local collection.
   void claim() {
      if (!writer_) writer_.emplace(router_, C::table, C::geometry());
      typename WriterOf<C>::Batch batch(*writer_);
      KeySet<C> local;
      C::forEachKey(e_, [&](const Key& k) {
         local.insert(k);
         put(k);
      });
      std::vector<Key> gone;
      writer_->forEach([&](const Record& r) {
         if (!local.contains(r.key())) gone.push_back(r.key());
      });
      for (const Key& k : gone) writer_->erase(k);
   }

 private:
   void put(const Key& k) {
      Record now;
      if (!C::encode(e_, k, now)) {
         writer_->erase(k);
         return;
      }
      Record held;
      if (writer_->lookup(k, held) && sameBytes(held, now)) return;
      writer_->insert(now);
   }

   std::string router_;
   RouterEntities e_;
   std::optional<WriterOf<C>> writer_;
};

template <class T>
struct PublishersOf;
template <class... C>
struct PublishersOf<std::tuple<C...>> {
   using type = std::tuple<TablePublisher<C>...>;
   static type make(const std::string& router, const RouterEntities& e) {
      return type(TablePublisher<C>(router, e)...);
   }
};

template <class C>
std::string describe(const std::exception& e) {
   if (dynamic_cast<const Vault::Shm::WriterBusy*>(&e) ||
       dynamic_cast<const Vault::Corruption*>(&e)) {
      return e.what(); // names the segment
   }
   return std::string("table ") + C::table + ": " + e.what();
}

} // namespace

namespace RouterShm {

const std::vector<std::string>& tableNames() {
   static const std::vector<std::string> names = [] {
      std::vector<std::string> n;
      forEachCodec([&](auto codec) { n.emplace_back(decltype(codec)::table); });
      return n;
   }();
   return names;
}

} // namespace RouterShm

// ---- the writer

struct RouterTablesWriter::Impl {
   // The writer's reactors: each change becomes the publication of one key.
   class MoxConfig : public Mox::Reactor<SrTePolicy::Config::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onEnabled() override { owner().change<ConfigCodec>(ScalarKey{}); }
      void onSpecifiedBsidOnly() override { owner().change<ConfigCodec>(ScalarKey{}); }
      void onSegmentListSharingEnabled() override { owner().change<ConfigCodec>(ScalarKey{}); }
      void onUseDiscriminatorInTieBreaking() override { owner().change<ConfigCodec>(ScalarKey{}); }
      void onPolicy(const PolicyKey& k) override { owner().policyChanged(k); }
      void onPolicy() override { owner().allPoliciesChanged(); }
   };
   class MoxStaticPolicy : public Mox::Reactor<SrTePolicy::StaticPolicy::Notifiee, Impl> {
    public:
      MoxStaticPolicy(Impl& w, const PolicyKey& k) : Reactor(w), key_(k) {}
      void onBindingSid() override { owner().change<StaticPolicyCodec>(key_); }
      void onCandidatePath(const SrTePolicy::Preference&) override { owner().policyChanged(key_); }
      void onCandidatePath() override { owner().policyChanged(key_); }

    private:
      PolicyKey key_;
   };
   class MoxCandidatePath : public Mox::Reactor<SrTePolicy::CandidatePath::Notifiee, Impl> {
    public:
      MoxCandidatePath(Impl& w, const CandidatePathKey& k) : Reactor(w), key_(k) {}
      void onStaticSegmentList(const Ipkit::MplsLabelOperation&) override {
         owner().change<CandidatePathCodec>(key_);
      }
      void onStaticSegmentList() override { owner().change<CandidatePathCodec>(key_); }

    private:
      CandidatePathKey key_;
   };
   class MoxColorDscpMap : public Mox::Reactor<SrTePolicy::ColorDscpMap::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onColorToDscp(const SrTePolicy::Color& c) override { owner().colorChanged(c); }
      void onColorToDscp() override { owner().allColorsChanged(); }
   };
   class MoxDscpList : public Mox::Reactor<SrTePolicy::DscpList::Notifiee, Impl> {
    public:
      MoxDscpList(Impl& w, uint32_t color) : Reactor(w), key_{color} {}
      void onDscp(const Ipkit::DscpValue&) override { owner().change<ColorDscpCodec>(key_); }
      void onDscp() override { owner().change<ColorDscpCodec>(key_); }
      void onCliSaveUseSymbolic_(const Ipkit::DscpValue&) override {
         owner().change<ColorDscpCodec>(key_);
      }
      void onCliSaveUseSymbolic_() override { owner().change<ColorDscpCodec>(key_); }

    private:
      ColorKey key_;
   };
   class MoxMplsConfig : public Mox::Reactor<Mpls::Config::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onLabelRange(const Mox::Name& name) override {
         std::optional<NameKey> k = NameKey::of(std::string_view(name));
         if (!k) {
            owner().report("label range name '" + std::string(name) + "' is longer than " +
                           std::to_string(NameKey::capacity - 1) + " characters: not shared");
            return;
         }
         owner().change<LabelRangeCodec>(*k);
      }
   };
   class MoxMplsStatus : public Mox::Reactor<Mpls::Status::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onLfibRoute(const Mpls::RouteKey& k) override { owner().change<LfibRouteCodec>(k); }
      void onAdjacency(const Mpls::AdjacencyIndex& i) override {
         owner().change<AdjacencyCodec>(IndexKey{i});
      }
      void onAdjacencyExt(const Mpls::AdjacencyIndex& i) override {
         owner().change<AdjacencyExtCodec>(IndexKey{i});
      }
   };
   class MoxHardware : public Mox::Reactor<Routing::Hardware::Status::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onNexthopGroupMplsLabelStackSize() override { owner().change<HardwareCodec>({}); }
   };
   class MoxCounters : public Mox::Reactor<FlexCounters::CounterTable::Notifiee, Impl> {
    public:
      using Reactor::Reactor;
      void onCounter(const FlexCounters::CounterTable::TunnelId& id) override {
         owner().change<CounterCodec>(IndexKey{id.value});
      }
   };

   struct PolicyWatch {
      std::unique_ptr<MoxStaticPolicy> policy;
      std::map<SrTePolicy::Preference, std::unique_ptr<MoxCandidatePath>> paths;
   };

   Impl(RouterTablesWriter& owner, std::string router, RouterEntities entities)
       : owner_(owner), router_(std::move(router)), e_(std::move(entities)),
         publishers_(PublishersOf<Codecs>::make(router_, e_)), moxConfig_(*this, e_.config),
         moxColorDscpMap_(*this, e_.colorDscpMap), moxMplsConfig_(*this, e_.mplsConfig),
         moxMplsStatus_(*this, e_.mplsStatus), moxHardware_(*this, e_.hardwareStatus),
         moxCounters_(*this, e_.counterTable) {
      // Watch what is there already; nothing is written until it changes.
      const bool was = loading_;
      loading_ = true;
      allPoliciesChanged();
      allColorsChanged();
      loading_ = was;
   }

   template <class C>
   TablePublisher<C>& publisher() {
      return std::get<TablePublisher<C>>(publishers_);
   }

   void report(const std::string& what) { owner_.report(what); }

   // A bad write is reported and leaves the entities as they are: the change is local only
   // until the table can be written again (its next claim writes the whole table).
   template <class C>
   void change(const typename C::Key& k) {
      if (loading_) return;
      try {
         publisher<C>().publish(k);
      } catch (const std::exception& e) {
         report(describe<C>(e));
      }
   }

   void policyChanged(const PolicyKey& key) {
      Mox::Ptr<SrTePolicy::StaticPolicy> policy = e_.config->policy(key);
      auto it = watches_.find(key);
      if (!policy) {
         // The paths go before their policy.
         if (it != watches_.end()) {
            for (const auto& [preference, reactor] : it->second.paths) {
               change<CandidatePathCodec>(CandidatePathKey{key, preference.value});
            }
            watches_.erase(it);
         }
         change<StaticPolicyCodec>(key);
         return;
      }
      change<StaticPolicyCodec>(key);
      PolicyWatch& watch = watches_[key];
      if (!watch.policy) watch.policy = std::make_unique<MoxStaticPolicy>(*this, key);
      watch.policy->notifierIs(policy);
      for (auto p = watch.paths.begin(); p != watch.paths.end();) {
         if (policy->candidatePath(p->first)) {
            ++p;
            continue;
         }
         change<CandidatePathCodec>(CandidatePathKey{key, p->first.value});
         p = watch.paths.erase(p);
      }
      for (const auto& [preference, path] : policy->candidatePath()) {
         auto& reactor = watch.paths[preference];
         if (!reactor) {
            reactor =
                std::make_unique<MoxCandidatePath>(*this, CandidatePathKey{key, preference.value});
         }
         reactor->notifierIs(path);
         change<CandidatePathCodec>(CandidatePathKey{key, preference.value});
      }
   }

   void allPoliciesChanged() {
      std::set<PolicyKey> keys;
      for (const auto& [key, policy] : e_.config->policy()) keys.insert(key);
      for (const auto& [key, watch] : watches_) keys.insert(key);
      for (const PolicyKey& key : keys) policyChanged(key);
   }

   void colorChanged(const SrTePolicy::Color& color) {
      Mox::Ptr<SrTePolicy::DscpList> list = e_.colorDscpMap->colorToDscp(color);
      if (!list) {
         colorWatches_.erase(color.value);
      } else {
         auto& reactor = colorWatches_[color.value];
         if (!reactor) reactor = std::make_unique<MoxDscpList>(*this, color.value);
         reactor->notifierIs(list);
      }
      change<ColorDscpCodec>(ColorKey{color.value});
   }

   void allColorsChanged() {
      std::set<uint32_t> colors;
      for (const auto& [color, list] : e_.colorDscpMap->colorToDscp()) colors.insert(color.value);
      for (const auto& [color, watch] : colorWatches_) colors.insert(color);
      for (uint32_t c : colors) colorChanged(SrTePolicy::Color(c));
   }

   RouterTablesWriter& owner_;
   std::string router_;
   RouterEntities e_;
   bool loading_ = false;
   PublishersOf<Codecs>::type publishers_;
   std::map<PolicyKey, PolicyWatch> watches_;
   std::map<uint32_t, std::unique_ptr<MoxDscpList>> colorWatches_;
   MoxConfig moxConfig_;
   MoxColorDscpMap moxColorDscpMap_;
   MoxMplsConfig moxMplsConfig_;
   MoxMplsStatus moxMplsStatus_;
   MoxHardware moxHardware_;
   MoxCounters moxCounters_;
};

RouterTablesWriter::RouterTablesWriter(std::string router, RouterEntities entities) {
   Vault::Shm::segmentPath(router, "config"); // an invalid router name throws here
   impl_ = std::make_unique<Impl>(*this, std::move(router), std::move(entities));
}

RouterTablesWriter::~RouterTablesWriter() = default;

void RouterTablesWriter::report(const std::string& what) {
   if (onError_) {
      onError_(what);
   } else {
      errors_.push_back(what);
   }
}

MirrorCounts RouterTablesWriter::load() {
   MirrorCounts total;
   Impl& impl = *impl_;
   const bool was = impl.loading_;
   impl.loading_ = true;
   try {
      forEachCodec([&](auto codec) {
         using C = decltype(codec);
         try {
            const Snapshot<C> before = Snapshot<C>::take(impl.e_);
            TableMirror<C> mirror(ReaderOf<C>(impl.router_, C::table), impl.e_, before);
            total += mirror.drain();
         } catch (const Vault::Shm::NotFound&) {
         }
      });
      // The reactors skipped what the load changed: watch the policies and colors it brought.
      impl.allPoliciesChanged();
      impl.allColorsChanged();
   } catch (...) {
      impl.loading_ = was;
      throw;
   }
   impl.loading_ = was;
   return total;
}

void RouterTablesWriter::publishAll() {
   forEachCodec([&](auto codec) {
      using C = decltype(codec);
      try {
         impl_->publisher<C>().claim();
      } catch (const std::exception& e) {
         report(describe<C>(e));
      }
   });
}

void RouterTablesWriter::claim(std::string_view table) {
   bool known = false;
   forEachCodec([&](auto codec) {
      using C = decltype(codec);
      if (table != C::table) return;
      known = true;
      impl_->publisher<C>().claim();
   });
   if (!known) throw std::invalid_argument("no router table " + std::string(table));
}

std::vector<std::string> RouterTablesWriter::claimed() const {
   std::vector<std::string> out;
   forEachCodec([&](auto codec) {
      using C = decltype(codec);
      if (impl_->publisher<C>().claimed()) out.emplace_back(C::table);
   });
   return out;
}

// ---- the mirror

struct RouterTablesMirror::Impl {
   struct Table {
      std::string name;
      // Opens the reader and makes the mirror (NotFound, Corruption).
      std::function<std::unique_ptr<TableMirrorBase>()> open;
      // Gives the entities back what they held before the table was mounted.
      std::function<MirrorCounts()> restore;
      std::unique_ptr<TableMirrorBase> mirror;
      ino_t brokenInode = 0;
      std::optional<std::chrono::steady_clock::time_point> retryAt;
   };

   Impl(std::string router, RouterEntities entities, Hooks hooks)
       : router_(std::move(router)), e_(std::move(entities)), hooks_(std::move(hooks)) {
      Vault::Shm::segmentPath(router_, "config"); // an invalid router name throws here
      forEachCodec([&](auto codec) {
         using C = decltype(codec);
         auto before = std::make_shared<Snapshot<C>>(Snapshot<C>::take(e_));
         Table t;
         t.name = C::table;
         t.open = [this, before]() -> std::unique_ptr<TableMirrorBase> {
            return std::make_unique<TableMirror<C>>(ReaderOf<C>(router_, C::table), e_, *before);
         };
         t.restore = [this, before] { return TableMirror<C>::restore(e_, *before); };
         tables_.push_back(std::move(t));
      });
   }

   ~Impl() {
      for (Table& t : tables_) {
         if (t.mirror && hooks_.fdDel) hooks_.fdDel(t.mirror->fd());
      }
   }

   void say(const std::string& line) {
      if (hooks_.report) hooks_.report(line);
   }

   ino_t inodeOf(const Table& t) const {
      struct stat st {};
      const std::string path = Vault::Shm::segmentPath(router_, t.name);
      return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
   }

   void unmount(Table& t) {
      if (hooks_.fdDel) hooks_.fdDel(t.mirror->fd());
      t.mirror.reset();
   }

   void refuse(Table& t, const std::string& what) {
      t.brokenInode = inodeOf(t);
      t.retryAt = std::chrono::steady_clock::now() + brokenRetry;
      if (reported_.insert(what).second) say("refused " + t.name + ": " + what);
   }

   // A refused table is tried again when its segment was made anew, else after brokenRetry: a
   // rescan of a large table is not free.
   bool retryDue(Table& t) {
      if (!t.retryAt) return true;
      if (inodeOf(t) != t.brokenInode || std::chrono::steady_clock::now() >= *t.retryAt) {
         t.retryAt.reset();
         return true;
      }
      return false;
   }

   // False when the table does not exist or was refused.
   bool attach(Table& t, MirrorCounts& counts) {
      try {
         std::unique_ptr<TableMirrorBase> m = t.open();
         counts += m->drain(); // the first drain is a rescan: the records come in whole
         t.mirror = std::move(m);
         if (hooks_.fdIs) hooks_.fdIs(t.mirror->fd(), t.name);
         const size_t n = t.mirror->size();
         say("mounted " + t.name + ", " + std::to_string(n) + (n == 1 ? " record" : " records"));
         return true;
      } catch (const Vault::Shm::NotFound&) {
         return false;
      } catch (const Vault::Corruption& e) {
         refuse(t, e.what());
         return false;
      }
   }

   MirrorCounts mount() {
      MirrorCounts counts;
      for (Table& t : tables_) {
         if (t.mirror) {
            if (!t.mirror->replaced()) continue;
            // The segment went; a new one may stand under the name. The entity keeps its
            // values until the new one's records come in whole.
            unmount(t);
            if (!attach(t, counts) && !t.retryAt) {
               counts += t.restore();
               say(t.name + " went away");
            }
            continue;
         }
         if (retryDue(t)) attach(t, counts);
      }
      return counts;
   }

   Table* find(const std::string& name) {
      for (Table& t : tables_) {
         if (t.name == name) return &t;
      }
      return nullptr;
   }

   MirrorCounts drain(Table& t) {
      if (!t.mirror) return {};
      try {
         return t.mirror->drain();
      } catch (const Vault::Corruption& e) {
         // What the entity holds stays: a bad segment does not take the router's state with it.
         unmount(t);
         refuse(t, e.what());
         return {};
      }
   }

   static constexpr auto brokenRetry = std::chrono::seconds(5);
   std::string router_;
   RouterEntities e_;
   Hooks hooks_;
   std::vector<Table> tables_;
   std::set<std::string> reported_;
};

RouterTablesMirror::RouterTablesMirror(std::string router, RouterEntities entities, Hooks hooks)
    : impl_(std::make_unique<Impl>(std::move(router), std::move(entities), std::move(hooks))) {}

RouterTablesMirror::~RouterTablesMirror() = default;

MirrorCounts RouterTablesMirror::mount() { return impl_->mount(); }

MirrorCounts RouterTablesMirror::drain(const std::string& table) {
   Impl::Table* t = impl_->find(table);
   return t ? impl_->drain(*t) : MirrorCounts{};
}

MirrorCounts RouterTablesMirror::sync() {
   MirrorCounts counts = impl_->mount();
   for (Impl::Table& t : impl_->tables_) counts += impl_->drain(t);
   return counts;
}

bool RouterTablesMirror::mounted(const std::string& table) const {
   const Impl::Table* t = impl_->find(table);
   return t && t->mirror;
}

std::vector<std::string> RouterTablesMirror::mountedTables() const {
   std::vector<std::string> out;
   for (const Impl::Table& t : impl_->tables_) {
      if (t.mirror) out.push_back(t.name);
   }
   return out;
}

} // namespace Agent
