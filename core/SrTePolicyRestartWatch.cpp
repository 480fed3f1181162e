#include "core/SrTePolicyRestartWatch.h"

#include <functional>
#include <utility>

namespace SrTePolicy {

class RestartWatch::Table {
 public:
   explicit Table(const char* name) : name_(name) {}
   virtual ~Table() = default;
   virtual Counts counts() const = 0;

 protected:
   const char* name_;
};

namespace {

// One table's rows by key: the snapshot, the keys notified since, and how to read the rows now.
template <class Key>
class Rows : public RestartWatch::Table {
 public:
   using Visit = std::function<void(const Key&, std::string)>;
   using Each = std::function<void(const Visit&)>;

   Rows(const char* name, Each each) : Table(name), each_(std::move(each)) {
      each_([this](const Key& k, std::string content) { before_.emplace(k, std::move(content)); });
   }

   void touch(const Key& k) { touched_.insert(k); }

   RestartWatch::Counts counts() const override {
      RestartWatch::Counts c;
      c.table = name_;
      Mox::HashSet<Key> seen;
      each_([&](const Key& k, std::string now) {
         seen.insert(k);
         auto it = before_.find(k);
         if (it == before_.end()) {
            ++c.added;
         } else if (it->second != now) {
            ++c.changed;
         } else if (touched_.count(k)) {
            ++c.rewritten;
         } else {
            ++c.adopted;
         }
      });
      for (const auto& [k, content] : before_) c.removed += seen.count(k) == 0;
      return c;
   }

 private:
   Each each_;
   Mox::HashMap2018<Key, std::string> before_;
   Mox::HashSet<Key> touched_;
};

// The rows plus the reactor that marks every key its table notifies.
template <class Key, class Reactor>
class WatchedRows : public Rows<Key> {
 public:
   template <class E>
   WatchedRows(const char* name, typename Rows<Key>::Each each, E* entity)
       : Rows<Key>(name, std::move(each)), reactor_(*this, entity) {}

 private:
   Reactor reactor_;
};

template <class Key, class Reactor, class E>
std::unique_ptr<RestartWatch::Table> watch(const char* name, typename Rows<Key>::Each each,
                                           E* entity) {
   return std::make_unique<WatchedRows<Key, Reactor>>(name, std::move(each), entity);
}

struct SelectionInputReactor : Mox::Reactor<PolicySelectionInput::Notifiee, Rows<PolicyId>> {
   using Reactor::Reactor;
   void onPolicyIdEntry(const PolicyId& k) override { owner().touch(k); }
};
struct ExportedListReactor
    : Mox::Reactor<Export::SegmentListCollection::Notifiee, Rows<SegmentListId>> {
   using Reactor::Reactor;
   void onSegmentList(const SegmentListId& k) override { owner().touch(k); }
};
struct SegmentListStatusReactor : Mox::Reactor<SegmentListStatus::Notifiee, Rows<SegmentListId>> {
   using Reactor::Reactor;
   void onStatus(const SegmentListId& k) override { owner().touch(k); }
};
using TunnelId = Tunnel::TunnelTable::TunnelId;
struct TunnelTableReactor
    : Mox::Reactor<Tunnel::TunnelTable::SrTeSegmentListTunnelTable::Notifiee, Rows<TunnelId>> {
   using Reactor::Reactor;
   void onEntry(const TunnelId& k) override { owner().touch(k); }
};
struct EcPolicyReactor : Mox::Reactor<EcPolicy::Notifiee, Rows<PolicyKey>> {
   using Reactor::Reactor;
   void onPolicy(const PolicyKey& k) override { owner().touch(k); }
};
struct PolicyStatusReactor : Mox::Reactor<PolicyStatus::Notifiee, Rows<PolicyKey>> {
   using Reactor::Reactor;
   void onStatus(const PolicyKey& k) override { owner().touch(k); }
};
struct FecMapReactor : Mox::Reactor<PolicyStatus::Notifiee, Rows<Vault::Fib::FecId>> {
   using Reactor::Reactor;
   void onFecIdToPolicyKey(const Vault::Fib::FecId& k) override { owner().touch(k); }
};
struct FecReactor : Mox::Reactor<Vault::Fib::ForwardingStatus::Notifiee, Rows<Vault::Fib::FecId>> {
   using Reactor::Reactor;
   void onFec(const Vault::Fib::FecId& k) override { owner().touch(k); }
};
struct LfibRouteReactor
    : Mox::Reactor<Mpls::ProtocolLfib::Notifiee, Rows<Mpls::RouteKeyAndMetric>> {
   using Reactor::Reactor;
   void onLfibRoute(const Mpls::RouteKeyAndMetric& k) override { owner().touch(k); }
};
struct LfibAdjacencyReactor
    : Mox::Reactor<Mpls::ProtocolLfib::Notifiee, Rows<Mpls::AdjacencyIndex>> {
   using Reactor::Reactor;
   void onLfibExtFecAdjacency(const Mpls::AdjacencyIndex& k) override { owner().touch(k); }
};
struct TunnelMapReactor : Mox::Reactor<TunnelIdToPolicyKey::Notifiee, Rows<TunnelId>> {
   using Reactor::Reactor;
   void onTunnelEntry(const TunnelId& k) override { owner().touch(k); }
};

template <class T>
std::string dumped(const T& entity) {
   std::string out;
   entity.dump(out, 0);
   return out;
}

// A selection-input entry's dump without the digits of its version.
std::string withoutVersion(std::string dump) {
   const size_t at = dump.find("version: ");
   if (at == std::string::npos) return dump;
   const size_t digits = at + 9;
   size_t end = digits;
   while (end < dump.size() && dump[end] >= '0' && dump[end] <= '9') ++end;
   dump.erase(digits, end - digits);
   return dump;
}

} // namespace

RestartWatch::RestartWatch(const PublishedTables& p) {
   auto* selection = p.policySelectionInput.get();
   tables_.push_back(watch<PolicyId, SelectionInputReactor>(
       "selection input",
       [selection](const auto& visit) {
          // Without the version: every write bumps it, an unchanged record processed again
          // after the restart included, and it is a write counter, not what the path says.
          for (const auto& [k, e] : selection->policyIdEntry())
             visit(k, withoutVersion(dumped(*e)));
       },
       selection));
   auto* exported = p.exportedSegmentListColl.get();
   tables_.push_back(watch<SegmentListId, ExportedListReactor>(
       "exported segment lists",
       [exported](const auto& visit) {
          for (const auto& [k, l] : exported->segmentList()) visit(k, dumped(*l));
       },
       exported));
   auto* slStatus = p.segmentListStatus.get();
   tables_.push_back(watch<SegmentListId, SegmentListStatusReactor>(
       "segment-list status",
       [slStatus](const auto& visit) {
          for (const auto& [k, e] : slStatus->status()) visit(k, segmentListResolveErrorName(e));
       },
       slStatus));
   auto* tunnels = p.tunnelTable.get();
   tables_.push_back(watch<TunnelId, TunnelTableReactor>(
       "tunnel table",
       [tunnels](const auto& visit) {
          for (const auto& [k, e] : tunnels->entry()) visit(k, e.stringValue());
       },
       tunnels));
   auto* ec = p.ecPolicy.get();
   tables_.push_back(watch<PolicyKey, EcPolicyReactor>(
       "EcPolicy",
       [ec](const auto& visit) {
          for (const auto& [k, policy] : ec->policy()) visit(k, dumped(*policy));
       },
       ec));
   auto* status = p.policyStatus.get();
   tables_.push_back(watch<PolicyKey, PolicyStatusReactor>(
       "policy status",
       [status](const auto& visit) {
          for (const auto& [k, e] : status->status()) visit(k, dumped(*e));
       },
       status));
   tables_.push_back(watch<Vault::Fib::FecId, FecMapReactor>(
       "policy status FEC ids",
       [status](const auto& visit) {
          for (const auto& [k, key] : status->fecIdToPolicyKey()) visit(k, key.stringValue());
       },
       status));
   auto* fib = p.srteFwdStatus.get();
   tables_.push_back(watch<Vault::Fib::FecId, FecReactor>(
       "FECs",
       [fib](const auto& visit) {
          for (const auto& [k, fec] : fib->fec()) {
             std::string text;
             for (const auto& via : fec->via()) text += via.stringValue() + "; ";
             visit(k, std::move(text));
          }
       },
       fib));
   auto* lfib = p.lfibStatus->lfib().get();
   tables_.push_back(watch<Mpls::RouteKeyAndMetric, LfibRouteReactor>(
       "LFIB routes",
       [lfib](const auto& visit) {
          for (const auto& [k, r] : lfib->lfibRoute()) {
             visit(k, std::to_string(static_cast<uint32_t>(r.source)) + " " + r.via.stringValue());
          }
       },
       lfib));
   tables_.push_back(watch<Mpls::AdjacencyIndex, LfibAdjacencyReactor>(
       "LFIB adjacencies",
       [lfib](const auto& visit) {
          for (const auto& [k, a] : lfib->lfibExtFecAdjacency()) {
             visit(k, a.fecId.stringValue() + " " +
                          std::to_string(static_cast<uint32_t>(a.labelAction)));
          }
       },
       lfib));
   auto* tunnelMap = p.tunnelIdToPolicyKey.get();
   tables_.push_back(watch<TunnelId, TunnelMapReactor>(
       "tunnel map",
       [tunnelMap](const auto& visit) {
          for (const auto& [k, e] : tunnelMap->tunnelEntry()) visit(k, e.stringValue());
       },
       tunnelMap));
}

RestartWatch::~RestartWatch() = default;

std::vector<RestartWatch::Counts> RestartWatch::counts() const {
   std::vector<Counts> out;
   out.reserve(tables_.size());
   for (const auto& t : tables_) out.push_back(t->counts());
   return out;
}

uint64_t RestartWatch::changes() const {
   uint64_t n = 0;
   for (const auto& t : tables_) n += t->counts().changes();
   return n;
}

} // namespace SrTePolicy
