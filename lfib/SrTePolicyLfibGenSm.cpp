#include "lfib/SrTePolicyLfibGenSm.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "platform/Assert.h"

namespace SrTePolicy {

// ---------------------------------------------------------------------------------------------
// Reactors: each forwards to one handler.

class SrTePolicyLfibGenSm::MoxPolicyStatus
    : public Mox::Reactor<PolicyStatus::Notifiee, SrTePolicyLfibGenSm> {
 public:
   using Reactor::Reactor;
   void onStatus(const PolicyKey& key) override {
      SrTePolicyLfibGenSm& sm = owner();
      const Mox::Ptr<PolicyStatusEntry> entry = sm.in_.policyStatus->status(key);
      if (entry) {
         sm.nestedPolicyIs(entry);
      } else {
         sm.nestedPolicyDel(key);
      }
      sm.handlePolicy(key, entry.get());
   }
};

class SrTePolicyLfibGenSm::MoxNestedPolicy
    : public Mox::Reactor<PolicyStatusEntry::Notifiee, SrTePolicyLfibGenSm> {
 public:
   MoxNestedPolicy(SrTePolicyLfibGenSm& sm, PolicyStatusEntry* entry)
       : Reactor(sm, entry), key_(entry->key()) {}
   void onBindingSid() override { owner().handlePolicy(key_); }

 private:
   PolicyKey key_;
};

// ---------------------------------------------------------------------------------------------
// Construction

SrTePolicyLfibGenSm::SrTePolicyLfibGenSm(Inputs in) : in_(std::move(in)), tracer_(&in_.tracer) {
   SRTE_ASSERT(in_.policyStatus && in_.lfibStatus && in_.adjIdxAlloc,
               "SrTePolicyLfibGenSm needs every table of its Inputs");
   lfib_ = in_.lfibStatus->lfib();
   SRTE_ASSERT(lfib_, "SrTePolicyLfibGenSm needs the protocol LFIB of its status");
   moxPolicyStatus_ = std::make_unique<MoxPolicyStatus>(*this, in_.policyStatus.get());
   // Sized once: growing a table of a million reactors rehashes it again and again.
   nestedPolicy_.reserve(in_.policyStatus->status().size());
   in_.policyStatus->status().forEach(
       [this](const PolicyKey&, const Mox::Ptr<PolicyStatusEntry>& entry) {
          nestedPolicyIs(entry);
       });
   handleInitialized();
}

SrTePolicyLfibGenSm::~SrTePolicyLfibGenSm() {
   // The routes keep forwarding while the agent is away; the next start adopts them.
   nestedPolicy_.clear();
   moxPolicyStatus_.reset();
}

Mox::Ptr<SrTePolicyLfibGenSm> srTePolicyLfibGenSmFactory(SrTePolicyLfibGenSm::Inputs in) {
   return Mox::make<SrTePolicyLfibGenSm>(std::move(in));
}

size_t reserveSurvivingAdjacencies(MplsHelper::LfibGenAdjIdxAllocator& alloc,
                                   const Mpls::ProtocolLfib& lfib) {
   size_t reserved = 0;
   for (const auto& [index, adj] : lfib.lfibExtFecAdjacency()) {
      if (alloc.reserveAdjacencyIndex(SrTePolicyLfibGenSm::source, index)) ++reserved;
   }
   // A route whose adjacency is gone still names its index: handing that index to another
   // policy would make the route lead there when the adjacency is written.
   for (const auto& [key, route] : lfib.lfibRoute()) {
      if (route.via.type() != Mpls::AdjacencyType::externalFec) continue;
      if (alloc.reserveAdjacencyIndex(SrTePolicyLfibGenSm::source, route.via.index())) ++reserved;
   }
   return reserved;
}

void SrTePolicyLfibGenSm::nestedPolicyIs(const Mox::Ptr<PolicyStatusEntry>& entry) {
   auto& reactor = nestedPolicy_[entry->key()];
   // An entry replaced under the same key is a new object: watch that one.
   if (reactor && reactor->notifier() == entry.get()) return;
   reactor = nestedPolicyPool_.make(*this, entry.get());
}

void SrTePolicyLfibGenSm::nestedPolicyDel(const PolicyKey& key) { nestedPolicy_.erase(key); }

// ---------------------------------------------------------------------------------------------
// Handlers

void SrTePolicyLfibGenSm::handleInitialized() {
   initialized_ = true;
   smInited_ = false;
   // Sized once for what the walk below records: a route per survivor, a binding SID per entry.
   unusedLfibRoute_.reserve(lfib_->lfibRoute().size());
   policyKeyBindingSidMap_.reserve(in_.policyStatus->status().size());
   for (const auto& [routeKey, route] : lfib_->lfibRoute()) unusedLfibRoute_.insert(routeKey);
   // Each entry claims its route; one still right is adopted without being written again.
   in_.policyStatus->status().forEach(
       [this](const PolicyKey& key, const Mox::Ptr<PolicyStatusEntry>& entry) {
          handlePolicy(key, entry.get());
       });
   cleanupLfibEntries();
   SRTE_TRACE_TO(tracer_, 8, "SrTePolicyLfibGenSm initialized");
   smInited_ = true;
}

void SrTePolicyLfibGenSm::handlePolicy(const PolicyKey& key) {
   if (!initialized_) return;
   handlePolicy(key, in_.policyStatus->status(key).get());
}

void SrTePolicyLfibGenSm::handlePolicy(const PolicyKey& key, const PolicyStatusEntry* entry) {
   if (!initialized_) return;
   SRTE_TRACE_TO(tracer_, 8, "Policy: Endpoint: " << key.endpoint << " Color: " << key.color);
   if (entry && !entry->bindingSid().isNull()) {
      addOrUpdateLfibEntries(key, *entry);
   } else if (policyKeyBindingSidMap_.contains(key)) {
      deleteLfibEntries(key);
   }
}

void SrTePolicyLfibGenSm::handleDel() {
   SRTE_TRACE_TO(tracer_, 5, "SrTePolicyLfibGenSm is to be deleted");
   // The allocator is shared with other generators: give back what this system held.
   for (const auto& [index, adj] : lfib_->lfibExtFecAdjacency()) {
      in_.adjIdxAlloc->releaseAdjacencyIndex(source, index);
   }
   lfib_->lfibRouteDelAll();
   lfib_->lfibExtFecAdjacencyDelAll();
   policyKeyBindingSidMap_.clear();
   unusedLfibRoute_.clear();
   initialized_ = false;
   smInited_ = false;
}

// ---------------------------------------------------------------------------------------------
// Steps

const Mpls::ProtocolLfib::ExtFecAdjacency*
SrTePolicyLfibGenSm::adjacencyOf(const Mpls::LFib::ProtocolRoute& route) const {
   if (route.via.type() != Mpls::AdjacencyType::externalFec) return nullptr;
   return lfib_->getExtFecAdjacency(route.via);
}

void SrTePolicyLfibGenSm::addOrUpdateLfibEntries(const PolicyKey& key) {
   if (const Mox::Ptr<PolicyStatusEntry> entry = in_.policyStatus->status(key)) {
      addOrUpdateLfibEntries(key, *entry);
   }
}

void SrTePolicyLfibGenSm::addOrUpdateLfibEntries(const PolicyKey& key,
                                                 const PolicyStatusEntry& entry) {
   const Ipkit::MplsLabel bindingSid = entry.bindingSid();
   const Vault::Fib::FecId fecId = entry.fecId();
   Mpls::ProtocolLfib& lfib = *lfib_;

   // The old binding SID's route goes with its adjacency; its index is given back only once the
   // new route has its own, so the new route cannot take it over.
   std::optional<Mpls::AdjacencyIndex> oldIndex;
   // A key seen for the first time is recorded at once (one look-up); one recorded with another
   // binding SID is recorded again once the old route is gone.
   auto [recorded, inserted] = policyKeyBindingSidMap_.try_emplace(key, bindingSid);
   const bool recordedSame = inserted || recorded->second == bindingSid;
   if (!recordedSame) {
      const Ipkit::MplsLabel oldSid = recorded->second;
      SRTE_TRACE_TO(tracer_, 5,
                    "Removing LFIB route for old BSID: " << oldSid
                                                         << "for policy Endpoint: " << key.endpoint
                                                         << " Color: " << key.color);
      const Mpls::RouteKeyAndMetric oldKey = routeKeyOf(oldSid);
      if (const Mpls::LFib::ProtocolRoute* old = lfib.lfibRoute(oldKey)) {
         if (const auto* adj = adjacencyOf(*old)) oldIndex = adj->index;
         lfib.lfibRouteDel(oldKey);
         if (oldIndex) lfib.lfibExtFecAdjacencyDel(*oldIndex);
      }
      policyKeyBindingSidMap_.erase(key);
      unusedLfibRoute_.erase(oldKey);
   }

   const Mpls::RouteKeyAndMetric routeKey = routeKeyOf(bindingSid);
   std::optional<Mpls::AdjacencyIndex> index;
   if (const Mpls::LFib::ProtocolRoute* route = lfib.lfibRoute(routeKey)) {
      SRTE_TRACE_TO(tracer_, 8,
                    "Route found for policy Endpoint: " << key.endpoint << " Color: " << key.color);
      if (const auto* adj = adjacencyOf(*route)) {
         if (adj->fecId == fecId) {
            index = adj->index;
         } else {
            SRTE_TRACE_TO(tracer_, 5, "FecId changed, creating new adjacency");
            // Not given back: forwarding may still hold the index until the route is replaced.
            const Mpls::AdjacencyIndex stale = adj->index;
            lfib.lfibExtFecAdjacencyDel(stale);
         }
      }
   }
   if (!index) index = in_.adjIdxAlloc->getAdjacencyIndex(source);
   // Both writes change nothing for an adopted route that is still right.
   lfib.lfibExtFecAdjacencyIs(*index, fecId, adjacencyLabelAction);
   lfib.lfibRouteIs(Mpls::LFib::ProtocolRoute(
       routeKey, source, Mpls::AdjacencyKey(*index, Mpls::AdjacencyType::externalFec)));
   SRTE_TRACE_TO(tracer_, 5,
                 "Added the LFIB entry for policy Endpoint: "
                     << key.endpoint << " Color: " << key.color << " BSID: " << bindingSid
                     << " Adj ID: " << *index);
   if (!recordedSame) policyKeyBindingSidMap_[key] = bindingSid;
   unusedLfibRoute_.erase(routeKey);
   if (oldIndex) in_.adjIdxAlloc->releaseAdjacencyIndex(source, *oldIndex);
}

void SrTePolicyLfibGenSm::deleteLfibEntries(const PolicyKey& key) {
   auto recorded = policyKeyBindingSidMap_.find(key);
   SRTE_ASSERT(recorded != policyKeyBindingSidMap_.end() && !recorded->second.isNull(),
               "No binding-sid recorded for the policy whose LFIB entry is removed");
   const Ipkit::MplsLabel bindingSid = recorded->second;
   const Mpls::RouteKeyAndMetric routeKey = routeKeyOf(bindingSid);
   Mpls::ProtocolLfib& lfib = *lfib_;

   std::optional<Mpls::AdjacencyIndex> index;
   if (const Mpls::LFib::ProtocolRoute* route = lfib.lfibRoute(routeKey)) {
      if (const auto* adj = adjacencyOf(*route)) index = adj->index;
   }
   if (index) {
      SRTE_TRACE_TO(tracer_, 5,
                    "Removing the LFIB entry for policy Endpoint: "
                        << key.endpoint << " Color: " << key.color << " BSID: " << bindingSid
                        << " Adj ID: " << *index);
   } else {
      SRTE_TRACE_TO(tracer_, 5,
                    "Removing the LFIB entry for policy Endpoint: "
                        << key.endpoint << " Color: " << key.color << " BSID: " << bindingSid
                        << " has no adjacency");
   }
   // The route first, so that forwarding never holds a route without its adjacency.
   lfib.lfibRouteDel(routeKey);
   if (index) {
      lfib.lfibExtFecAdjacencyDel(*index);
      in_.adjIdxAlloc->releaseAdjacencyIndex(source, *index);
   }
   policyKeyBindingSidMap_.erase(key);
   unusedLfibRoute_.erase(routeKey);
}

void SrTePolicyLfibGenSm::cleanupLfibEntries() {
   SRTE_TRACE_TO(tracer_, 8, "Cleanup stale LFIB entries");
   Mpls::ProtocolLfib& lfib = *lfib_;
   // Indexes removed here stay taken in the allocator until its next rebuild: forwarding may
   // still hold them.
   for (const Mpls::RouteKeyAndMetric& routeKey : Mox::sortedKeys(unusedLfibRoute_)) {
      const Mpls::LFib::ProtocolRoute* route = lfib.lfibRoute(routeKey);
      if (!route) continue;
      std::optional<Mpls::AdjacencyIndex> index;
      if (const auto* adj = adjacencyOf(*route)) index = adj->index;
      lfib.lfibRouteDel(routeKey);
      if (index) {
         lfib.lfibExtFecAdjacencyDel(*index);
         SRTE_TRACE_TO(tracer_, 5,
                       "Removed LFIB entry for BSID: " << routeKey.routeKey().topLabel()
                                                       << " Adj ID: " << *index);
      } else {
         SRTE_TRACE_TO(tracer_, 5,
                       "Removed LFIB entry for BSID: " << routeKey.routeKey().topLabel()
                                                       << " has no adjacency");
      }
   }
   unusedLfibRoute_.clear();
   // An adjacency that no route names any more (left by an interrupted write) leads nowhere.
   Mox::HashSet<Mpls::AdjacencyIndex> named;
   for (const auto& [routeKey, route] : lfib.lfibRoute()) {
      if (route.via.type() == Mpls::AdjacencyType::externalFec) named.insert(route.via.index());
   }
   std::vector<Mpls::AdjacencyIndex> orphans;
   for (const auto& [index, adj] : lfib.lfibExtFecAdjacency()) {
      if (!named.contains(index)) orphans.push_back(index);
   }
   std::sort(orphans.begin(), orphans.end());
   for (Mpls::AdjacencyIndex index : orphans) {
      lfib.lfibExtFecAdjacencyDel(index);
      SRTE_TRACE_TO(tracer_, 5, "Removed unused adjacency Adj ID: " << index);
   }
}

void SrTePolicyLfibGenSm::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*crouteMetric: %u\n", depth, ' ', routeMetric);
   Mox::appendf(out, "%*cpolicyKeyBindingSidMaps #%u \n", depth, ' ',
                static_cast<unsigned>(policyKeyBindingSidMap_.size()));
   for (const PolicyKey& key : Mox::sortedKeys(policyKeyBindingSidMap_)) {
      Mox::appendf(out, "%*cPolicyKey: %s, bindingSid: %u\n", depth + 2, ' ',
                   key.stringValue().c_str(), policyKeyBindingSidMap_.at(key).value());
   }
}

} // namespace SrTePolicy
