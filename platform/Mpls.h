// Mpls: the router's MPLS state as the policy core sees it.
//  - Config: named label ranges ("srlb" is the block binding SIDs come from);
//  - Status: the LFIB routes by incoming label, the adjacencies (ordered via sets) the routes lead
//    to, and the extension table of external-FEC adjacencies (type 3): FEC id plus via set;
//  - ProtocolLfib: the routes one protocol contributes (keyed by label and metric), each naming an
//    external-FEC adjacency of the same table;
//  - MplsHelper::LfibGenAdjIdxAllocator: adjacency indexes shared by every LFIB generator.
//
// Guarantees (tests/platform/MplsTest.cpp):
//  - every table notifies its reactors once per changed key, after the change, and not at all
//    when a value is written unchanged; `...DelAll` notifies once per removed key;
//  - a default-constructed (empty) LFIB route compares unequal to every route with a label;
//  - the adjacency index allocator never hands out an index that is taken, and an index goes back
//    only through the source that took it.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <queue>
#include <string>
#include <vector>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/VaultFib.h"

namespace Mpls {

// ---------------------------------------------------------------------------------------------
// Label ranges

// A block of labels [base, base + size - 1]. Fields are raw numbers: a range read from
// configuration is not checked against the label space until a label is formed from it.
class LabelRange {
 public:
   constexpr LabelRange() noexcept = default;
   constexpr LabelRange(uint32_t base, uint32_t size) noexcept : base_(base), size_(size) {}
   uint32_t base() const noexcept { return base_; }
   uint32_t size() const noexcept { return size_; }
   bool contains(Ipkit::MplsLabel l) const noexcept {
      return l.value() >= base_ && l.value() - base_ < size_;
   }
   std::string stringValue() const; // "base 900000 size 65536"
   friend bool operator==(const LabelRange&, const LabelRange&) = default;

 private:
   uint32_t base_ = 0;
   uint32_t size_ = 0;
};
std::ostream& operator<<(std::ostream& os, const LabelRange& r);

inline constexpr const char* srlbRangeName = "srlb";

class Config : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Config> {
    public:
      virtual void onLabelRange(const Mox::Name&) {}
   };

   explicit Config(Mox::Name name = "mpls") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Null when no range has that name.
   const LabelRange* labelRange(const Mox::Name& name) const noexcept {
      auto it = labelRange_.find(name);
      return it == labelRange_.end() ? nullptr : &it->second;
   }
   const Mox::RbTreeMap<Mox::Name, LabelRange>& labelRange() const noexcept { return labelRange_; }
   void labelRangeIs(const Mox::Name& name, LabelRange r) {
      collIs(labelRange_, name, r, &Notifiee::onLabelRange);
   }
   void labelRangeDel(const Mox::Name& name) {
      collDel(labelRange_, name, &Notifiee::onLabelRange);
   }
   void labelRangeDelAll() { collDelAll(labelRange_, &Notifiee::onLabelRange); }

 private:
   Mox::Name name_;
   Mox::RbTreeMap<Mox::Name, LabelRange> labelRange_;
};

// ---------------------------------------------------------------------------------------------
// Keys

// The key of an LFIB route: its incoming (top) label. The default key has the null label.
class RouteKey {
 public:
   constexpr RouteKey() noexcept = default;
   static RouteKey fromLabel(Ipkit::MplsLabel label) noexcept {
      RouteKey k;
      k.topLabel_ = label;
      return k;
   }
   Ipkit::MplsLabel topLabel() const noexcept { return topLabel_; }
   std::string stringValue() const { return topLabel_.stringValue(); }
   uint32_t hash() const noexcept { return topLabel_.hash(); }
   friend bool operator==(const RouteKey&, const RouteKey&) = default;
   friend auto operator<=>(const RouteKey&, const RouteKey&) = default;

 private:
   Ipkit::MplsLabel topLabel_;
};
std::ostream& operator<<(std::ostream& os, const RouteKey& k);

namespace LFib {
using Metric = uint32_t;
} // namespace LFib

// The key of a protocol route: one protocol may offer the same label at several metrics.
class RouteKeyAndMetric {
 public:
   constexpr RouteKeyAndMetric() noexcept = default;
   RouteKeyAndMetric(RouteKey key, LFib::Metric metric) noexcept
       : routeKey_(key), metric_(metric) {}
   const RouteKey& routeKey() const noexcept { return routeKey_; }
   LFib::Metric metric() const noexcept { return metric_; }
   std::string stringValue() const; // "900001/1"
   uint32_t hash() const noexcept { return Mox::hashCombine(routeKey_.hash(), metric_); }
   friend bool operator==(const RouteKeyAndMetric&, const RouteKeyAndMetric&) = default;
   friend auto operator<=>(const RouteKeyAndMetric&, const RouteKeyAndMetric&) = default;

 private:
   RouteKey routeKey_;
   LFib::Metric metric_ = 0;
};
std::ostream& operator<<(std::ostream& os, const RouteKeyAndMetric& k);

using AdjacencyIndex = uint64_t;

// What an adjacency index refers to: an adjacency of next-hop vias (1) or an external-FEC
// adjacency of the extension table (3). Other values pass through unchanged.
enum class AdjacencyType : uint32_t { invalid = 0, nexthop = 1, externalFec = 3 };

class AdjacencyKey {
 public:
   constexpr AdjacencyKey() noexcept = default;
   constexpr AdjacencyKey(AdjacencyIndex index, AdjacencyType type) noexcept
       : index_(index), type_(type) {}
   AdjacencyIndex index() const noexcept { return index_; }
   AdjacencyType type() const noexcept { return type_; }
   // False for the default key, which names no adjacency.
   bool isValid() const noexcept { return type_ != AdjacencyType::invalid; }
   std::string stringValue() const; // "(index: 5, type: 1)"
   uint32_t hash() const noexcept {
      return Mox::hashCombine(
          Mox::hashCombine(static_cast<uint32_t>(index_), static_cast<uint32_t>(index_ >> 32)),
          static_cast<uint32_t>(type_));
   }
   friend bool operator==(const AdjacencyKey&, const AdjacencyKey&) = default;
   friend auto operator<=>(const AdjacencyKey&, const AdjacencyKey&) = default;

 private:
   AdjacencyIndex index_ = 0;
   AdjacencyType type_ = AdjacencyType::invalid;
};
std::ostream& operator<<(std::ostream& os, const AdjacencyKey& k);

// ---------------------------------------------------------------------------------------------
// Vias

// One way out of an adjacency: next hop, interface, and what to do with the label.
struct Via {
   Ipkit::IpGenAddr nexthop;
   Ipkit::IntfId intfId;
   Ipkit::MplsLabelAction labelAction = Ipkit::MplsLabelAction::none;
   Ipkit::MplsLabel label;

   Via() = default;
   Via(const Ipkit::IpGenAddr& hop, Ipkit::IntfId intf, Ipkit::MplsLabelAction action,
       Ipkit::MplsLabel l = Ipkit::MplsLabel())
       : nexthop(hop), intfId(intf), labelAction(action), label(l) {}
   // "10.0.0.2 Ethernet1 swap 16001"; the label is left out when null.
   std::string stringValue() const;
   uint32_t hash() const noexcept;
   friend bool operator==(const Via&, const Via&) = default;
   friend auto operator<=>(const Via&, const Via&) = default;
};
std::ostream& operator<<(std::ostream& os, const Via& v);

// The vias of an adjacency, each once, iterated in ascending via order (so two sets holding the
// same vias iterate alike whatever order they were written in).
class ViaSet {
 public:
   ViaSet() = default;
   ViaSet(std::initializer_list<Via> vias);

   // False when the via is already there.
   bool viaIs(const Via& v);
   bool viaDel(const Via& v);
   void viaDelAll() noexcept { via_.clear(); }
   bool viaHas(const Via& v) const noexcept;
   size_t size() const noexcept { return via_.size(); }
   bool empty() const noexcept { return via_.empty(); }
   std::vector<Via>::const_iterator begin() const noexcept { return via_.begin(); }
   std::vector<Via>::const_iterator end() const noexcept { return via_.end(); }
   const Via& operator[](size_t i) const noexcept { return via_[i]; }
   std::string stringValue() const; // vias separated by ", "
   friend bool operator==(const ViaSet&, const ViaSet&) = default;

 private:
   std::vector<Via> via_;
};

// ---------------------------------------------------------------------------------------------
// LFIB routes

namespace LFib {

// The LFIB's route types; 6 carries a pseudowire. Other values pass through unchanged.
enum class RouteType : uint32_t { unknown = 0, pseudowire = 6 };
// Who installed a route; 16 is this system (binding-SID routes). Other values pass through.
enum class Source : uint32_t { unknown = 0, srTePolicy = 16 };

// A route of the router's LFIB. The default route is empty: it has the null label, which no real
// route has, so it compares unequal to every real route.
struct Route {
   RouteKey key;
   RouteType type = RouteType::unknown;
   Source source = Source::unknown;
   AdjacencyKey adjKey;

   Route() = default;
   Route(RouteKey k, RouteType t, Source s, AdjacencyKey a)
       : key(k), type(t), source(s), adjKey(a) {}
   bool isEmpty() const noexcept { return key.topLabel().isNull(); }
   friend bool operator==(const Route&, const Route&) = default;
};

// A route offered by one protocol: its key and metric, its source and the one via it has, an
// adjacency key (usually of an external-FEC adjacency). A route may name no adjacency.
struct ProtocolRoute {
   RouteKeyAndMetric key;
   Source source = Source::unknown;
   AdjacencyKey via;

   ProtocolRoute() = default;
   ProtocolRoute(RouteKeyAndMetric k, Source s, AdjacencyKey v) : key(k), source(s), via(v) {}
   friend bool operator==(const ProtocolRoute&, const ProtocolRoute&) = default;
};

} // namespace LFib

// ---------------------------------------------------------------------------------------------
// MPLS status: LFIB routes, adjacencies, external-FEC adjacency extensions

class Status : public Mox::Entity {
 public:
   // An external-FEC adjacency as the forwarding status sees it: the FEC it leads to and the
   // vias that FEC resolves to.
   struct AdjacencyExt {
      Vault::Fib::FecId fecId;
      ViaSet via;
      friend bool operator==(const AdjacencyExt&, const AdjacencyExt&) = default;
   };

   class Notifiee : public Mox::NotifieeOf<Status> {
    public:
      virtual void onLfibRoute(const RouteKey&) {}
      virtual void onAdjacency(const AdjacencyIndex&) {}
      virtual void onAdjacencyExt(const AdjacencyIndex&) {}
   };

   explicit Status(Mox::Name name = "mpls") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Null when absent.
   const LFib::Route* lfibRoute(const RouteKey& key) const noexcept {
      return find(lfibRoute_, key);
   }
   const Mox::HashMap2018<RouteKey, LFib::Route>& lfibRoute() const noexcept { return lfibRoute_; }
   void lfibRouteIs(const LFib::Route& r) { collIs(lfibRoute_, r.key, r, &Notifiee::onLfibRoute); }
   void lfibRouteDel(const RouteKey& key) { collDel(lfibRoute_, key, &Notifiee::onLfibRoute); }
   void lfibRouteDelAll() { collDelAll(lfibRoute_, &Notifiee::onLfibRoute); }

   const ViaSet* adjacency(AdjacencyIndex index) const noexcept { return find(adjacency_, index); }
   const Mox::HashMap2018<AdjacencyIndex, ViaSet>& adjacency() const noexcept { return adjacency_; }
   void adjacencyIs(AdjacencyIndex index, const ViaSet& vias) {
      collIs(adjacency_, index, vias, &Notifiee::onAdjacency);
   }
   void adjacencyDel(AdjacencyIndex index) { collDel(adjacency_, index, &Notifiee::onAdjacency); }
   void adjacencyDelAll() { collDelAll(adjacency_, &Notifiee::onAdjacency); }

   const AdjacencyExt* adjacencyExt(AdjacencyIndex index) const noexcept {
      return find(adjacencyExt_, index);
   }
   const Mox::HashMap2018<AdjacencyIndex, AdjacencyExt>& adjacencyExt() const noexcept {
      return adjacencyExt_;
   }
   void adjacencyExtIs(AdjacencyIndex index, const AdjacencyExt& ext) {
      collIs(adjacencyExt_, index, ext, &Notifiee::onAdjacencyExt);
   }
   void adjacencyExtDel(AdjacencyIndex index) {
      collDel(adjacencyExt_, index, &Notifiee::onAdjacencyExt);
   }
   void adjacencyExtDelAll() { collDelAll(adjacencyExt_, &Notifiee::onAdjacencyExt); }

 private:
   template <class M, class K>
   static const typename M::mapped_type* find(const M& map, const K& key) noexcept {
      auto it = map.find(key);
      return it == map.end() ? nullptr : &it->second;
   }

   Mox::Name name_;
   Mox::HashMap2018<RouteKey, LFib::Route> lfibRoute_;
   Mox::HashMap2018<AdjacencyIndex, ViaSet> adjacency_;
   Mox::HashMap2018<AdjacencyIndex, AdjacencyExt> adjacencyExt_;
};

// ---------------------------------------------------------------------------------------------
// A protocol's LFIB: its routes and the external-FEC adjacencies they lead to.

class ProtocolLfib : public Mox::Entity {
 public:
   struct ExtFecAdjacency {
      AdjacencyIndex index = 0;
      Vault::Fib::FecId fecId;
      Ipkit::MplsLabelAction labelAction = Ipkit::MplsLabelAction::none;
      friend bool operator==(const ExtFecAdjacency&, const ExtFecAdjacency&) = default;
   };

   class Notifiee : public Mox::NotifieeOf<ProtocolLfib> {
    public:
      virtual void onLfibRoute(const RouteKeyAndMetric&) {}
      virtual void onLfibExtFecAdjacency(const AdjacencyIndex&) {}
   };

   explicit ProtocolLfib(Mox::Name name) : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Null when absent.
   const LFib::ProtocolRoute* lfibRoute(const RouteKeyAndMetric& key) const noexcept {
      auto it = lfibRoute_.find(key);
      return it == lfibRoute_.end() ? nullptr : &it->second;
   }
   const Mox::HashMap2018<RouteKeyAndMetric, LFib::ProtocolRoute>& lfibRoute() const noexcept {
      return lfibRoute_;
   }
   // Inserts the route or replaces the one under the same key and metric.
   void lfibRouteIs(const LFib::ProtocolRoute& r) {
      collIs(lfibRoute_, r.key, r, &Notifiee::onLfibRoute);
   }
   void lfibRouteDel(const RouteKeyAndMetric& key) {
      collDel(lfibRoute_, key, &Notifiee::onLfibRoute);
   }
   void lfibRouteDelAll() { collDelAll(lfibRoute_, &Notifiee::onLfibRoute); }

   // The external-FEC adjacency with the key's index; null when absent.
   const ExtFecAdjacency* getExtFecAdjacency(const AdjacencyKey& key) const noexcept {
      return lfibExtFecAdjacency(key.index());
   }
   const ExtFecAdjacency* lfibExtFecAdjacency(AdjacencyIndex index) const noexcept {
      auto it = extFecAdjacency_.find(index);
      return it == extFecAdjacency_.end() ? nullptr : &it->second;
   }
   const Mox::HashMap2018<AdjacencyIndex, ExtFecAdjacency>& lfibExtFecAdjacency() const noexcept {
      return extFecAdjacency_;
   }
   void lfibExtFecAdjacencyIs(AdjacencyIndex index, Vault::Fib::FecId fecId,
                              Ipkit::MplsLabelAction labelAction) {
      collIs(extFecAdjacency_, index, ExtFecAdjacency{index, fecId, labelAction},
             &Notifiee::onLfibExtFecAdjacency);
   }
   void lfibExtFecAdjacencyDel(AdjacencyIndex index) {
      collDel(extFecAdjacency_, index, &Notifiee::onLfibExtFecAdjacency);
   }
   void lfibExtFecAdjacencyDelAll() {
      collDelAll(extFecAdjacency_, &Notifiee::onLfibExtFecAdjacency);
   }

 private:
   Mox::Name name_;
   Mox::HashMap2018<RouteKeyAndMetric, LFib::ProtocolRoute> lfibRoute_;
   Mox::HashMap2018<AdjacencyIndex, ExtFecAdjacency> extFecAdjacency_;
};

} // namespace Mpls

namespace MplsHelper {

// Adjacency indexes for LFIB generators, lowest free index first. Each index remembers the source
// that took it; a generator that rebuilds after a restart reserves the indexes it still uses.
class LfibGenAdjIdxAllocator : public Mox::RefCounted {
 public:
   explicit LfibGenAdjIdxAllocator(Mpls::AdjacencyIndex first = 1) : next_(first) {}

   Mpls::AdjacencyIndex getAdjacencyIndex(Mpls::LFib::Source source);
   // False (and nothing changes) unless `source` holds `index`.
   bool releaseAdjacencyIndex(Mpls::LFib::Source source, Mpls::AdjacencyIndex index);
   // False when the index is already taken.
   bool reserveAdjacencyIndex(Mpls::LFib::Source source, Mpls::AdjacencyIndex index);
   // The source holding the index, if any.
   std::optional<Mpls::LFib::Source> owner(Mpls::AdjacencyIndex index) const;
   size_t allocatedCount() const noexcept { return owner_.size(); }

 private:
   Mpls::AdjacencyIndex next_;
   Mox::HashMap2018<Mpls::AdjacencyIndex, Mpls::LFib::Source> owner_;
   // Released indexes below next_, lowest first; an entry taken again by a reservation is
   // skipped when it comes up.
   std::priority_queue<Mpls::AdjacencyIndex, std::vector<Mpls::AdjacencyIndex>, std::greater<>>
       free_;
};

} // namespace MplsHelper
