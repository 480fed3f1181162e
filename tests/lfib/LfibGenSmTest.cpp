// Binding-SID LFIB generation through the assembled core: the policy status is written directly
// (as publishing would), and the protocol LFIB, its notifications and the adjacency allocator are
// checked. Restarts must not disturb routes that are still right.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "core/SrTePolicyMachines.h"

using namespace SrTePolicy;

namespace {

using Mpls::AdjacencyIndex;

PolicyKey policyKey(const char* endpoint, uint32_t color) {
   return PolicyKey(*Ipkit::IpGenAddr::parse(endpoint), Color(color));
}

Vault::Fib::FecId fec(uint64_t index) { return Vault::Fib::FecId::fecIdForAdjType(15, index); }

Mpls::RouteKeyAndMetric routeKey(uint32_t label) {
   return Mpls::RouteKeyAndMetric(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(label)), 1);
}

// Counts every change the forwarding side would see.
struct LfibWatcher : Mpls::ProtocolLfib::Notifiee {
   int routeChanges = 0;
   int adjacencyChanges = 0;
   void onLfibRoute(const Mpls::RouteKeyAndMetric&) override { ++routeChanges; }
   void onLfibExtFecAdjacency(const AdjacencyIndex&) override { ++adjacencyChanges; }
};

struct Router {
   Kiln::TaskScheduler scheduler;
   StandaloneRouter tables;
   std::unique_ptr<PolicyCore> core;
   std::vector<std::string> traces;

   explicit Router(PublishedTables published = {}) {
      core = std::make_unique<PolicyCore>(tables.tables(scheduler), std::move(published));
      core->tracer().textLevelIs(9);
      core->tracer().captureIs(&traces);
      core->start();
   }
   PolicyStatus& status() { return *core->published().policyStatus; }
   Mpls::ProtocolLfib& lfib() { return *core->published().lfibStatus->lfib(); }
   MplsHelper::LfibGenAdjIdxAllocator& alloc() { return *core->entities().adjIdxAlloc; }
   void publish(const PolicyKey& key, uint32_t bsid, uint64_t fecIndex) {
      status().statusIs(key, CandidateId(Protocol::bgp, Discriminator(1)), Originator(), 0.0,
                        Ipkit::MplsLabel(bsid), fec(fecIndex), fec(fecIndex + 1));
   }
   // The route of a binding SID and its adjacency index; the route must lead to an external-FEC
   // adjacency of the LFIB that carries `fecIndex` with label action 1.
   AdjacencyIndex routeTo(uint32_t bsid, uint64_t fecIndex) {
      const Mpls::LFib::ProtocolRoute* r = lfib().lfibRoute(routeKey(bsid));
      if (!r) {
         ADD_FAILURE() << "no route for " << bsid;
         return 0;
      }
      EXPECT_EQ(r->source, Mpls::LFib::Source::srTePolicy);
      EXPECT_EQ(r->via.type(), Mpls::AdjacencyType::externalFec);
      const auto* adj = lfib().lfibExtFecAdjacency(r->via.index());
      if (!adj) {
         ADD_FAILURE() << "no adjacency for " << bsid;
         return 0;
      }
      EXPECT_EQ(adj->fecId, fec(fecIndex)) << bsid;
      EXPECT_EQ(adj->labelAction, Ipkit::MplsLabelAction::pop);
      EXPECT_EQ(alloc().owner(adj->index), Mpls::LFib::Source::srTePolicy);
      return adj->index;
   }
   bool traced(const std::string& line) const {
      return std::find(traces.begin(), traces.end(), line) != traces.end();
   }
};

const PolicyKey a = policyKey("10.0.0.1", 1);
const PolicyKey b = policyKey("10.0.0.2", 2);
const PolicyKey c = policyKey("2001:db8::3", 3);

TEST(LfibGen, RouteFollowsTheBindingSidOfEachStatusEntryAndGoesWithIt) {
   Router r;
   // A status entry without binding SID gets no route.
   r.status().statusIs(b, CandidateId(Protocol::bgp, Discriminator(1)), Originator(), 0.0,
                       Ipkit::MplsLabel(), fec(20), fec(21));
   EXPECT_TRUE(r.lfib().lfibRoute().empty());
   EXPECT_TRUE(r.lfib().lfibExtFecAdjacency().empty());

   r.publish(a, 900001, 10);
   const AdjacencyIndex aFirst = r.routeTo(900001, 10);
   EXPECT_TRUE(r.traced("Added the LFIB entry for policy Endpoint: 10.0.0.1 Color: 1 BSID: 900001 "
                        "Adj ID: " +
                        std::to_string(aFirst)));

   // Binding SID set later, then removed.
   r.status().status(b)->bindingSidIs(Ipkit::MplsLabel(900002));
   const AdjacencyIndex bIndex = r.routeTo(900002, 20);
   EXPECT_NE(bIndex, aFirst);
   r.status().status(b)->bindingSidIs(Ipkit::MplsLabel());
   EXPECT_EQ(r.lfib().lfibRoute(routeKey(900002)), nullptr);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency(bIndex), nullptr);
   EXPECT_FALSE(r.alloc().owner(bIndex).has_value()) << "index returned";
   EXPECT_FALSE(r.core->lfibGenSm()->policyKeyBindingSidMap().contains(b));

   // Binding-SID change: the old route and its adjacency go, the new route takes a new index
   // even though the allocator hands out the lowest free one first.
   r.status().status(a)->bindingSidIs(Ipkit::MplsLabel(900003));
   EXPECT_EQ(r.lfib().lfibRoute(routeKey(900001)), nullptr);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency(aFirst), nullptr);
   const AdjacencyIndex aSecond = r.routeTo(900003, 10);
   EXPECT_NE(aSecond, aFirst);
   EXPECT_EQ(r.lfib().lfibRoute().size(), 1u);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency().size(), 1u);
   EXPECT_FALSE(r.alloc().owner(aFirst).has_value()) << "old index returned after the new one";
   EXPECT_TRUE(r.traced("Removing LFIB route for old BSID: 900001for policy Endpoint: 10.0.0.1 "
                        "Color: 1"));

   std::string dump;
   r.core->lfibGenSm()->dump(dump, 0);
   EXPECT_NE(dump.find("routeMetric: 1\n"), std::string::npos) << dump;
   EXPECT_NE(dump.find("policyKeyBindingSidMaps #1 \n"), std::string::npos) << dump;
   EXPECT_NE(dump.find("PolicyKey: 10.0.0.1|1, bindingSid: 900003\n"), std::string::npos) << dump;

   // The status entry goes: route, adjacency and index go with it.
   r.status().statusDel(a);
   r.status().statusDel(b);
   EXPECT_TRUE(r.lfib().lfibRoute().empty());
   EXPECT_TRUE(r.lfib().lfibExtFecAdjacency().empty());
   EXPECT_EQ(r.alloc().allocatedCount(), 0u);
   EXPECT_TRUE(r.core->lfibGenSm()->policyKeyBindingSidMap().empty());
   EXPECT_EQ(r.core->lfibGenSm()->nestedPolicyCount(), 0u);
   EXPECT_TRUE(r.traced("Removing the LFIB entry for policy Endpoint: 10.0.0.1 Color: 1 BSID: "
                        "900003 Adj ID: " +
                        std::to_string(aSecond)));

   // An entry replaced under its key is watched again: its binding SID still drives the route.
   r.publish(c, 900004, 30);
   r.publish(c, 900004, 30);
   r.status().status(c)->bindingSidIs(Ipkit::MplsLabel(900005));
   r.routeTo(900005, 30);
   EXPECT_EQ(r.lfib().lfibRoute().size(), 1u);
}

TEST(LfibGen, RestartWithUnchangedStatusKeepsRoutesUntouchedAndNeverReusesAnAdoptedIndex) {
   // Two ways back: a restart of the same core, and a new core handed the published tables of
   // a dead one.
   for (bool newCore : {false, true}) {
      SCOPED_TRACE(newCore ? "new core" : "restart");
      auto r = std::make_unique<Router>();
      r->publish(a, 900001, 10);
      r->publish(b, 900002, 20);
      r->publish(c, 900003, 30);
      const AdjacencyIndex ia = r->routeTo(900001, 10);
      const AdjacencyIndex ic = r->routeTo(900003, 30);
      // A gap below the highest index: the lowest free index is then one nobody adopts.
      const AdjacencyIndex ib = r->routeTo(900002, 20);
      r->status().status(b)->bindingSidIs(Ipkit::MplsLabel());

      LfibWatcher watcher;
      watcher.notifierIs(&r->lfib());
      if (newCore) {
         PublishedTables published = r->core->published();
         auto& tables = r->tables;
         r->core.reset(); // the dead agent: its machines go, its tables stay
         EXPECT_EQ(watcher.routeChanges, 0);
         r->core = std::make_unique<PolicyCore>(tables.tables(r->scheduler), published);
         r->core->tracer().textLevelIs(9);
         r->core->tracer().captureIs(&r->traces);
         r->core->start();
      } else {
         r->core->restart();
      }
      EXPECT_EQ(watcher.routeChanges, 0);
      EXPECT_EQ(watcher.adjacencyChanges, 0);
      const auto& sm = *r->core->lfibGenSm();
      EXPECT_TRUE(sm.smInited());
      EXPECT_TRUE(sm.unusedLfibRoute().empty());
      EXPECT_EQ(sm.policyKeyBindingSidMap().size(), 2u);
      EXPECT_EQ(r->routeTo(900001, 10), ia);
      EXPECT_EQ(r->routeTo(900003, 30), ic);

      // New routes get indexes no adopted route holds.
      r->status().status(b)->bindingSidIs(Ipkit::MplsLabel(900002));
      r->publish(policyKey("10.0.0.4", 4), 900004, 40);
      const AdjacencyIndex nb = r->routeTo(900002, 20);
      const AdjacencyIndex nd = r->routeTo(900004, 40);
      EXPECT_EQ(nb, ib) << "the free index in the gap is taken first";
      const std::set<AdjacencyIndex> all = {ia, ic, nb, nd};
      EXPECT_EQ(all.size(), 4u);
      EXPECT_EQ(r->lfib().lfibExtFecAdjacency().size(), 4u);
   }
}

TEST(LfibGen, RestartRemovesWhatVanishedAndRenewsAdjacenciesThatLeadElsewhere) {
   Router r;
   r.publish(a, 900001, 10);
   r.publish(b, 900002, 20);
   r.publish(c, 900003, 30);
   const AdjacencyIndex ia = r.routeTo(900001, 10);
   const AdjacencyIndex ib = r.routeTo(900002, 20);
   const AdjacencyIndex ic = r.routeTo(900003, 30);

   // While the agent is away: b's policy vanishes, a's entry comes back with another FEC, c's
   // adjacency is lost, and an adjacency without route is left over.
   r.core->stop();
   r.status().statusDel(b);
   r.publish(a, 900001, 50);
   r.lfib().lfibExtFecAdjacencyDel(ic);
   r.lfib().lfibExtFecAdjacencyIs(77, fec(70), Ipkit::MplsLabelAction::pop);
   r.traces.clear();
   r.core->start();

   const auto& sm = *r.core->lfibGenSm();
   EXPECT_TRUE(sm.unusedLfibRoute().empty());
   EXPECT_EQ(r.lfib().lfibRoute(routeKey(900002)), nullptr);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency(ib), nullptr);
   EXPECT_TRUE(r.traced("Removed LFIB entry for BSID: 900002 Adj ID: " + std::to_string(ib)));
   EXPECT_TRUE(r.traced("Cleanup stale LFIB entries"));
   EXPECT_TRUE(r.traced("SrTePolicyLfibGenSm initialized"));

   const AdjacencyIndex na = r.routeTo(900001, 50);
   EXPECT_TRUE(r.traced("FecId changed, creating new adjacency"));
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency(ia), nullptr);
   const AdjacencyIndex nc = r.routeTo(900003, 30);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency(77), nullptr);
   // Neither renewed adjacency takes an index that forwarding may still hold (c's route named
   // its lost adjacency's index until it was renewed).
   const std::set<AdjacencyIndex> before = {ia, ib, ic, 77};
   EXPECT_FALSE(before.contains(na));
   EXPECT_FALSE(before.contains(nc));
   EXPECT_NE(na, nc);
   EXPECT_EQ(r.lfib().lfibRoute().size(), 2u);
   EXPECT_EQ(r.lfib().lfibExtFecAdjacency().size(), 2u);
}

TEST(LfibGen, OnlyHandleDelWithdrawsTheRoutes) {
   Router r;
   r.publish(a, 900001, 10);
   r.core->stop();
   EXPECT_EQ(r.lfib().lfibRoute().size(), 1u) << "destruction leaves forwarding alone";
   r.core->start();
   r.core->lfibGenSm()->handleDel();
   EXPECT_TRUE(r.traced("SrTePolicyLfibGenSm is to be deleted"));
   EXPECT_TRUE(r.lfib().lfibRoute().empty());
   EXPECT_TRUE(r.lfib().lfibExtFecAdjacency().empty());
   EXPECT_EQ(r.alloc().allocatedCount(), 0u);
   // Ended for good: later changes install nothing.
   r.publish(b, 900002, 20);
   EXPECT_TRUE(r.lfib().lfibRoute().empty());
}

} // namespace
