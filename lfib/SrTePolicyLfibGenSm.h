// SrTePolicyLfibGenSm: makes the binding SID of every published policy a working incoming label.
// For each PolicyStatus entry with a binding SID it keeps one route in the protocol LFIB of
// SrTePolicyLfibStatus, keyed (bindingSid, metric 1), source 16, whose one via is an external-FEC
// adjacency (label action 1) leading to the entry's policy FEC (`fecId`).
//
//   status entry added/removed  -> (re)bind its MoxNestedPolicy, then handlePolicy(key)
//   entry's bindingSid changed  -> handlePolicy(key)
//        handlePolicy: a binding SID   -> addOrUpdateLfibEntries (old SID's route goes first)
//                      none / no entry -> deleteLfibEntries when a route is installed
//
// The work is small and done in the handler: one route and one adjacency per key.
//
// Start-up (handleInitialized): every route found in the LFIB is first marked unused; each status
// entry then claims its route. A route whose adjacency still leads to the entry's FEC is adopted
// as it is: neither the route nor the adjacency is written again, so forwarding sees no change.
// A route whose adjacency leads elsewhere gets a new adjacency. What nobody claimed is removed by
// cleanupLfibEntries, together with adjacencies that no route names.
//
// Adjacency indexes come from the allocator shared with the process's other LFIB generators. Its
// owner rebuilds it at each start from the adjacencies that survive in the LFIB (see
// reserveSurvivingAdjacencies), so a new route never takes an index an adopted one still uses.
//
// Guarantees:
//  - in steady state every key of policyKeyBindingSidMap has exactly one route (bindingSid, 1)
//    with source 16 and one external-FEC adjacency for the entry's fecId, and the LFIB holds
//    nothing else;
//  - a binding-SID change removes the old route and its adjacency and installs the new route on
//    a newly taken adjacency index (the old index goes back to the allocator only afterwards);
//  - destroying the machine (an agent restart) leaves the LFIB as it is; only handleDel, the end
//    of SR-TE on this router, withdraws every route and adjacency.
#pragma once

#include <memory>
#include <string>

#include "lfib/SrTePolicyLfibStatus.h"
#include "platform/Mox.h"
#include "platform/MoxPool.h"
#include "platform/Mpls.h"
#include "platform/Trace.h"
#include "publish/SrTePolicyStatus.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class SrTePolicyLfibGenSm : public Mox::RefCounted {
 public:
   static constexpr Mpls::LFib::Metric routeMetric = 1;
   static constexpr Mpls::LFib::Source source = Mpls::LFib::Source::srTePolicy;
   static constexpr Ipkit::MplsLabelAction adjacencyLabelAction = Ipkit::MplsLabelAction::pop;

   // What the machine reads and writes, in this order. `lfibStatus` must hold its `lfib`.
   // `tracer` defaults to the process tracer.
   struct Inputs {
      Mox::Ptr<const PolicyStatus> policyStatus;
      Mox::Ptr<SrTePolicyLfibStatus> lfibStatus;
      Mox::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc;
      // The assembly's own (PolicyCore::tracer()), never the process one.
      Trace::Tracer& tracer;
   };

   explicit SrTePolicyLfibGenSm(Inputs in);
   // Leaves the LFIB as it is, for the next start to adopt.
   ~SrTePolicyLfibGenSm() override;

   // State, for the host's tables and for tests.
   bool initialized() const noexcept { return initialized_; }
   bool smInited() const noexcept { return smInited_; }
   const Mox::HashMap2018<PolicyKey, Ipkit::MplsLabel>& policyKeyBindingSidMap() const noexcept {
      return policyKeyBindingSidMap_;
   }
   const Mox::HashSet<Mpls::RouteKeyAndMetric>& unusedLfibRoute() const noexcept {
      return unusedLfibRoute_;
   }
   size_t nestedPolicyCount() const noexcept { return nestedPolicy_.size(); }
   const Mox::Ptr<Mpls::ProtocolLfib>& lfib() const noexcept { return lfib_; }
   void dump(std::string& out, int depth) const;

   // Handlers (reactors call these).
   void handleInitialized();
   void handlePolicy(const PolicyKey& key);
   // The same with the key's status entry already looked up (null when it has none).
   void handlePolicy(const PolicyKey& key, const PolicyStatusEntry* entry);
   // The end of SR-TE here: withdraws every route and adjacency and stops reacting. Not called
   // on destruction.
   void handleDel();

   // The reactor of one status entry.
   void nestedPolicyIs(const Mox::Ptr<PolicyStatusEntry>& entry);
   void nestedPolicyDel(const PolicyKey& key);

   // The steps.
   void addOrUpdateLfibEntries(const PolicyKey& key);
   void addOrUpdateLfibEntries(const PolicyKey& key, const PolicyStatusEntry& entry);
   void deleteLfibEntries(const PolicyKey& key);
   void cleanupLfibEntries();

 private:
   class MoxPolicyStatus;
   class MoxNestedPolicy;

   static Mpls::RouteKeyAndMetric routeKeyOf(Ipkit::MplsLabel bindingSid) {
      return Mpls::RouteKeyAndMetric(Mpls::RouteKey::fromLabel(bindingSid), routeMetric);
   }
   // The external-FEC adjacency a route names, if any.
   const Mpls::ProtocolLfib::ExtFecAdjacency*
   adjacencyOf(const Mpls::LFib::ProtocolRoute& route) const;

   Inputs in_;
   Trace::Tracer* tracer_;
   Mox::Ptr<Mpls::ProtocolLfib> lfib_;
   Mox::HashMap2018<PolicyKey, Ipkit::MplsLabel> policyKeyBindingSidMap_;
   Mox::HashSet<Mpls::RouteKeyAndMetric> unusedLfibRoute_;
   bool initialized_ = false;
   bool smInited_ = false;

   std::unique_ptr<MoxPolicyStatus> moxPolicyStatus_;
   // One reactor per status entry, from a pool: declared first, destroyed last.
   Mox::Pool<MoxNestedPolicy> nestedPolicyPool_;
   Mox::HashMap2018<PolicyKey, Mox::Pool<MoxNestedPolicy>::Ptr> nestedPolicy_;
};

Mox::Ptr<SrTePolicyLfibGenSm> srTePolicyLfibGenSmFactory(SrTePolicyLfibGenSm::Inputs in);

// Rebuilds the allocator's view after a restart: reserves, for this system's source, the index of
// every external-FEC adjacency still in `lfib` and every index a route of it still names. Returns
// how many were reserved.
size_t reserveSurvivingAdjacencies(MplsHelper::LfibGenAdjIdxAllocator& alloc,
                                   const Mpls::ProtocolLfib& lfib);

} // namespace SrTePolicy
