#include <gtest/gtest.h>

#include "tests/segment/ResolutionEnv.h"

using namespace SrTePolicy;
using namespace SrTePolicy::Testing;
using Action = Ipkit::MplsLabelAction;

namespace {

// Tunnel vias print next hop, interface and the stack bottom first ("[300 200 16001]").
TEST(SegmentListSm, LabelActionsOnOneSegmentAndLongerLists) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.mpls->adjacencyIs(2, {via("10.0.0.6", "Ethernet2", Action::push, 24002)});
   env.mpls->adjacencyIs(3, {via("10.0.0.10", "Ethernet3", Action::pop, 3)});
   env.mpls->adjacencyIs(4, {via("0.0.0.0", "Ethernet4", Action::pop, 3)});
   env.mpls->adjacencyIs(5, {via("10.0.0.14", "Ethernet5", Action::pop)});
   env.mpls->adjacencyIs(6, {via("10.0.0.2", "Ethernet1", Action::swap, 16006),
                             via("10.0.0.6", "Ethernet2", Action::swap, 16006)});
   for (uint32_t label = 16001; label <= 16006; ++label) env.route(label, label - 16000);

   // One segment: swap and push carry the via's label; pop only with a real hop and interface.
   EXPECT_EQ(env.tunnel(env.add({16001})), "10.0.0.2 Ethernet1 [16001]");
   EXPECT_EQ(env.tunnel(env.add({16002})), "10.0.0.6 Ethernet2 [24002]");
   EXPECT_EQ(env.tunnel(env.add({16003})), "10.0.0.10 Ethernet3 [3]");
   const SegmentListId noHop = env.add({16004});
   EXPECT_EQ(env.status(noHop), "zeroLabels");
   EXPECT_EQ(env.tunnel(noHop), "-");
   const SegmentListId noLabel = env.add({16005});
   EXPECT_EQ(env.status(noLabel), "zeroLabels");

   // Longer lists: the remaining labels bottom first, swap and push put theirs on top, pop adds
   // nothing.
   EXPECT_EQ(env.tunnel(env.add({16001, 200, 300})), "10.0.0.2 Ethernet1 [300 200 16001]");
   EXPECT_EQ(env.tunnel(env.add({16003, 200, 300})), "10.0.0.10 Ethernet3 [300 200]");
   EXPECT_EQ(env.tunnel(env.add({16004, 200})), "0.0.0.0 Ethernet4 [200]");
   EXPECT_EQ(env.tunnel(env.add({16006, 200})),
             "10.0.0.2 Ethernet1 [200 16006]; 10.0.0.6 Ethernet2 [200 16006]");

   // The stack bound: eight segments leave with eight labels through a swap, seven through a pop.
   const SegmentListId eight = env.add({16001, 2, 3, 4, 5, 6, 7, 8});
   EXPECT_EQ(env.status(eight), "success");
   EXPECT_EQ(env.tunnel(eight), "10.0.0.2 Ethernet1 [8 7 6 5 4 3 2 16001]");
   EXPECT_EQ(env.tunnel(env.add({16003, 2, 3, 4, 5, 6, 7, 8})),
             "10.0.0.10 Ethernet3 [8 7 6 5 4 3 2]");
   EXPECT_EQ(env.run(), 0u); // new lists are resolved when they appear, nothing was queued
}

TEST(SegmentListSm, PlatformDepthIsCheckedLoggedAndAnyChangeRequeuesEveryList) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.route(16001, 1);
   env.hardware->nexthopGroupMplsLabelStackSizeIs(3);
   const SegmentListId three = env.add({16001, 2, 3});
   const SegmentListId four = env.add({16001, 2, 3, 4});
   EXPECT_EQ(env.status(three), "success");
   EXPECT_EQ(env.status(four), "platformLabelStackDepthExceeded");
   EXPECT_EQ(env.tunnel(four), "-");
   ASSERT_EQ(env.logged.records().size(), 1u);
   EXPECT_EQ(env.logged.records()[0].tag, "SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD");
   EXPECT_EQ(env.logged.records()[0].text,
             "Resolved segment list (ID 2) exceeds maximum supported hardware label push stack "
             "depth (3), was configured with labels [ 16001 2 3 4 ]");

   env.hardware->nexthopGroupMplsLabelStackSizeIs(2);
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 2u);
   EXPECT_EQ(env.status(three), "success"); // nothing before the task runs
   env.run();
   EXPECT_EQ(env.status(three), "platformLabelStackDepthExceeded");
   EXPECT_EQ(env.tunnel(three), "-");

   // A depth of 0 refuses every labelled via; no limit at all lets everything through.
   env.hardware->nexthopGroupMplsLabelStackSizeIs(0);
   env.run();
   EXPECT_EQ(env.status(three), "platformLabelStackDepthExceeded");
   env.hardware->nexthopGroupMplsLabelStackSizeDel();
   env.run();
   EXPECT_EQ(env.status(three), "success");
   EXPECT_EQ(env.tunnel(four), "10.0.0.2 Ethernet1 [4 3 2 16001]");
}

TEST(SegmentListSm, ExternalFecAdjacencyGivesOneViaOnTheFecInterface) {
   ResolutionEnv env;
   const auto fec = Vault::Fib::FecId::fecIdForAdjType(Vault::Fib::AdjType::srTePolicy, 9);
   env.mpls->adjacencyExtIs(7, {fec,
                                {via("10.1.0.6", "Ethernet3", Action::push, 3),
                                 via("10.1.0.7", "Ethernet4", Action::push, 3)}});
   env.route(16003, 7, Mpls::AdjacencyType::externalFec);
   env.route(16004, 8, Mpls::AdjacencyType::externalFec); // extension never defined
   const SegmentListId viaFec = env.add({16003, 500});
   EXPECT_EQ(env.status(viaFec), "success");
   EXPECT_EQ(env.tunnel(viaFec),
             "0.0.0.0 " + Vault::Fib::fecIdToIntfId(fec).stringValue() + " [500 3]");
   const SegmentListId missing = env.add({16004, 500});
   EXPECT_NE(env.resolve(16004), nullptr);
   EXPECT_EQ(env.status(missing), "-");

   // The extension appearing later is picked up by the adjacency rule.
   env.mpls->adjacencyExtIs(8, {fec, {via("10.1.0.8", "Ethernet5", Action::push, 3)}});
   env.run();
   EXPECT_EQ(env.status(missing), "success");
}

TEST(SegmentListSm, SegmentChangesRequeueExactlyTheListsUsingTheSegment) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.mpls->adjacencyIs(2, {via("10.0.0.6", "Ethernet2", Action::swap, 16002)});
   const SegmentListId a = env.add({16001, 100});
   const SegmentListId b = env.add({16002, 16001});
   const SegmentListId c = env.add({16002, 200});
   EXPECT_EQ(env.status(a), "-"); // top label unresolved: no status
   env.route(16002, 2);
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 2u); // b and c, not a
   env.run();
   EXPECT_EQ(env.tunnel(b), "10.0.0.6 Ethernet2 [16001 16002]");
   env.route(16001, 1);
   EXPECT_TRUE(env.listSm()->pendingSegmentListHas(a));
   EXPECT_TRUE(env.listSm()->pendingSegmentListHas(b)); // it uses 16001 lower down
   EXPECT_FALSE(env.listSm()->pendingSegmentListHas(c));
   env.run();
   EXPECT_EQ(env.tunnel(a), "10.0.0.2 Ethernet1 [100 16001]");

   // The route moving to another adjacency re-resolves through the changed adjKey.
   env.route(16001, 2);
   env.run();
   EXPECT_EQ(env.tunnel(a), "10.0.0.6 Ethernet2 [100 16002]");
   // A route to an adjacency that was never defined, then the route gone: no status.
   env.route(16001, 42);
   env.run();
   EXPECT_EQ(env.status(a), "-");
   env.noRoute(16002);
   env.run();
   EXPECT_EQ(env.status(b), "-");
   EXPECT_EQ(env.tunnel(c), "-");
   // A withdrawn list loses its entries at once.
   env.route(16002, 2);
   env.run();
   EXPECT_EQ(env.status(c), "success");
   env.drop({16002, 200});
   EXPECT_EQ(env.status(c), "-");
   EXPECT_EQ(env.tunnel(c), "-");
}

TEST(SegmentListSm, AdjacencyViaChangesRequeueTheListsResolvingThroughIt) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001),
                             via("10.0.0.6", "Ethernet2", Action::swap, 16001)});
   env.mpls->adjacencyIs(2, {via("10.0.0.10", "Ethernet3", Action::swap, 16002)});
   env.route(16001, 1);
   env.route(16002, 2);
   const SegmentListId a = env.add({16001, 100});
   const SegmentListId b = env.add({16001, 200});
   const SegmentListId c = env.add({16002, 300});
   env.run();

   // An ECMP member lost: the route stays, the tunnel follows.
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 2u);
   EXPECT_FALSE(env.listSm()->pendingSegmentListHas(c));
   env.run();
   EXPECT_EQ(env.tunnel(a), "10.0.0.2 Ethernet1 [100 16001]");
   EXPECT_EQ(env.tunnel(b), "10.0.0.2 Ethernet1 [200 16001]");

   // A via moved onto a next-hop group refuses the route; moved back, it resolves again.
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "NexthopGroup1", Action::swap, 16001)});
   EXPECT_EQ(env.resolve(16001), nullptr);
   env.run();
   EXPECT_EQ(env.status(a), "-");
   env.mpls->adjacencyIs(1, {via("10.0.0.9", "Ethernet9", Action::swap, 16001)});
   env.run();
   EXPECT_EQ(env.tunnel(a), "10.0.0.9 Ethernet9 [100 16001]");
   EXPECT_EQ(env.tunnel(c), "10.0.0.10 Ethernet3 [300 16002]");

   // The adjacency removed while its route stays: no status until it is back.
   env.mpls->adjacencyDel(1);
   env.run();
   EXPECT_EQ(env.status(b), "-");
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.run();
   EXPECT_EQ(env.status(b), "success");
}

// Clogs the attribute log once the tunnel table holds `at` entries: congestion mid-backlog.
struct ClogAt : Tunnel::TunnelTable::SrTeSegmentListTunnelTable::Notifiee {
   Kiln::AttrLogSm* log = nullptr;
   size_t at = 0;
   void onEntry(const Tunnel::TunnelTable::TunnelId&) override {
      if (notifier()->entry().size() >= at) log->attrLogOutCloggedIs(true);
   }
};

TEST(SegmentListSm, StartUpRemovesStaleEntriesOnlyOnceACongestedYieldingBacklogDrains) {
   ResolutionEnv env;
   env.mpls->adjacencyIs(1, {via("10.0.0.2", "Ethernet1", Action::swap, 16001)});
   env.route(16001, 1);
   const SegmentListId gone = env.add({16001, 9});
   env.run();
   ASSERT_EQ(env.status(gone), "success");

   // The process restarts with fifty lists; the old one is no longer among them. The output
   // clogs when 20 new lists are in the tunnel table (21 entries with the old one).
   env.stop();
   std::vector<std::vector<uint32_t>> lists;
   for (uint32_t i = 0; i < 50; ++i) lists.push_back({16001, 1000 + i});
   env.scheduler->yieldEveryIs(7);
   ClogAt clog;
   clog.log = env.attrLog.get();
   clog.at = 21;
   clog.notifierIs(env.tunnels);
   env.start(lists);
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 50u);
   EXPECT_TRUE(env.listSm()->unusedSegmentListIds().count(gone));
   env.run();
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 30u);
   EXPECT_EQ(env.scheduler->nextTimerDelay().value_or(-1), SegmentListSm::congestionDelay);
   EXPECT_EQ(env.status(gone), "success"); // kept while the backlog is not drained
   env.advance(0.5);
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 30u); // still congested: nothing moves

   clog.notifierIs(nullptr);
   env.attrLog->attrLogOutCloggedIs(false);
   env.advance(0.1);
   EXPECT_EQ(env.listSm()->pendingSegmentListCount(), 0u);
   EXPECT_GE(env.listSm()->task()->runCount(), 8u); // 50 lists, at most 7 per run
   EXPECT_EQ(env.status(gone), "-");
   EXPECT_EQ(env.tunnel(gone), "-");
   EXPECT_EQ(env.listStatus->status().size(), 50u);
   EXPECT_EQ(env.tunnels->entry().size(), 50u);
   EXPECT_FALSE(env.listSm()->cleanupPending());
}

} // namespace
