// PolicySelectionSm on its own: the test writes the selection input, the segment-list statuses and
// the list-to-policy map as the input and resolution stages would, and reads EcPolicy.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "selection/SrTePolicySelectionSm.h"
#include "tests/support/TestValues.h"

namespace SrTePolicy {
namespace {

using SrTePolicy::Test::addr;

const PolicyKey keyA(addr("10.0.0.1"), Color(10));

PolicyId bgp(uint32_t disc, const PolicyKey& key = keyA) {
   return PolicyId(key, Protocol::bgp, Discriminator(disc));
}

struct SelectionEnv {
   Mox::Ptr<Kiln::TaskScheduler> scheduler = Mox::make<Kiln::TaskScheduler>();
   Mox::Ptr<Config> config = configFactory("config");
   Mox::Ptr<PolicySelectionInput> input = policySelectionInputFactory("policySelectionInput");
   Mox::Ptr<SegmentListStatus> status = Mox::make<SegmentListStatus>("segmentListStatus");
   Mox::Ptr<SegmentListIdToPolicyMap> users = Mox::make<SegmentListIdToPolicyMap>();
   Mox::Ptr<EcPolicy> ec = ecPolicyFactory("ecPolicy");
   Mox::Ptr<Kiln::AttrLogSm> attrLog = Mox::make<Kiln::AttrLogSm>();
   Trace::Tracer tracer;
   Mox::Ptr<PolicySelectionSm> sm;

   SelectionEnv() { start(); }
   void start() {
      sm = policySelectionSmFactory({.config = config,
                                     .policySelectionInput = input,
                                     .segmentListStatus = status,
                                     .segmentListIdToPolicyMap = users,
                                     .ecPolicy = ec,
                                     .scheduler = scheduler.get(),
                                     .attrLogSm = attrLog,
                                     .tracer = tracer});
   }

   // A candidate path with the given lists, written as the input stage writes it.
   void path(const PolicyId& id, uint32_t preference, std::vector<uint32_t> lists,
             Originator originator = Originator(), uint32_t bsid = Ipkit::MplsLabel::null) {
      auto e = input->policyIdEntryIs(id, Preference(preference), originator);
      e->bindingSidIs(Ipkit::MplsLabel(bsid));
      e->wSegmentListDelAll();
      for (uint8_t i = 0; i < lists.size(); ++i) {
         const SegmentListId sl(lists[i]);
         e->wSegmentListIs(i, WeightedSegmentListId(Weight(i + 1), sl));
         users->segmentListUserIs(sl, nullptr)->policyIdIs(e);
      }
      e->versionInc();
   }
   void resolved(uint32_t list, bool ok = true) {
      if (ok) {
         status->statusIs(SegmentListId(list), SegmentListResolveError::success);
      } else {
         status->statusDel(SegmentListId(list));
      }
   }
   void run() { scheduler->runUntilIdle(); }

   Mox::Ptr<Policy> policy(const PolicyKey& key = keyA) const { return ec->policy(key); }
   // The active candidate's discriminator, 0 when there is no policy.
   uint32_t activeDisc(const PolicyKey& key = keyA) const {
      auto p = policy(key);
      return p && p->active() ? p->active()->priority().discriminator.value : 0;
   }
};

// Each criterion decides in turn, and the loser is still a candidate behind the winner.
TEST(PolicySelection, EachCriterionOfThePriorityOrderDecides) {
   SelectionEnv env;
   // Both paths of a key arrive in one batch, taken in hash order: without the discriminator in
   // the tie-break the first one taken would be kept.
   env.config->useDiscriminatorInTieBreakingIs(true);
   env.resolved(1);
   env.resolved(2);
   const Originator low(65000, addr("192.0.2.1")), high(65000, addr("192.0.2.9"));
   struct Case {
      const char* name;
      PolicyId a, b;
      uint32_t prefA, prefB;
      Originator origA, origB;
      PolicyId winner;
   };
   const PolicyKey k1(addr("10.0.0.1"), Color(1)), k2(addr("10.0.0.2"), Color(1)),
       k3(addr("10.0.0.3"), Color(1)), k4(addr("10.0.0.4"), Color(1));
   const PolicyId staticPath(k2, Protocol::staticConfig, Discriminator(100));
   const std::vector<Case> cases = {
       {"preference", bgp(9, k1), bgp(1, k1), 100, 200, {}, {}, bgp(1, k1)},
       {"protocol", bgp(100, k2), staticPath, 100, 100, {}, {}, staticPath},
       {"originator", bgp(1, k3), bgp(2, k3), 100, 100, high, low, bgp(2, k3)},
       {"discriminator", bgp(1, k4), bgp(9, k4), 100, 100, {}, {}, bgp(9, k4)},
   };
   for (const Case& c : cases) {
      env.path(c.a, c.prefA, {1}, c.origA);
      env.path(c.b, c.prefB, {2}, c.origB);
   }
   env.run();
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      auto p = env.policy(c.a.key);
      ASSERT_TRUE(p);
      ASSERT_EQ(p->candidate().size(), 2u);
      EXPECT_EQ(p->active()->candidateId(), CandidateId(c.winner));
      EXPECT_EQ(p->candidate().begin()->second, p->active()) << "best first";
   }
}

// Lists 0 and 2 resolved, 1 not: tunnels 0 and 1, no hole; a list resolving later fills in and
// one going away shrinks the tail.
TEST(PolicySelection, TunnelIdsAreDenseOverResolvedListsOnly) {
   SelectionEnv env;
   env.resolved(1);
   env.resolved(3);
   env.path(bgp(1), 100, {1, 2, 3});
   env.run();
   auto tunnels = [&] {
      std::vector<std::pair<uint8_t, uint32_t>> out;
      for (const auto& [i, w] : env.policy()->active()->wTunnelId()) {
         out.emplace_back(i, w.weight.value);
         EXPECT_EQ(w.tunnelId.index(), 0u + (w.weight.value)) << "weight i+1 marks list i+1";
      }
      return out;
   };
   using V = std::vector<std::pair<uint8_t, uint32_t>>;
   EXPECT_EQ(tunnels(), (V{{0, 1}, {1, 3}}));
   env.resolved(2);
   env.run();
   EXPECT_EQ(tunnels(), (V{{0, 1}, {1, 2}, {2, 3}}));
   env.resolved(1, false);
   env.resolved(3, false);
   env.run();
   EXPECT_EQ(tunnels(), (V{{0, 2}}));
}

// Failover when the active path's only list stops resolving, recovery when it comes back; the
// policy goes with its last resolvable candidate and comes back with it.
TEST(PolicySelection, FailoverRecoveryAndTheLastCandidate) {
   SelectionEnv env;
   env.resolved(1);
   env.resolved(2);
   env.path(bgp(1), 200, {1});
   env.path(bgp(2), 100, {2});
   env.run();
   EXPECT_EQ(env.activeDisc(), 1u);
   env.resolved(1, false);
   env.run();
   EXPECT_EQ(env.activeDisc(), 2u);
   EXPECT_EQ(env.policy()->candidate().size(), 1u);
   env.resolved(1);
   env.run();
   EXPECT_EQ(env.activeDisc(), 1u);
   env.resolved(1, false);
   env.resolved(2, false);
   env.run();
   EXPECT_FALSE(env.policy());
   env.resolved(2);
   env.run();
   EXPECT_EQ(env.activeDisc(), 2u);
}

// Removals in every order, by entry deletion or by losing resolution, never reach the assertion
// of a policy without candidates, and leave no policy behind.
TEST(PolicySelection, RemovalsInEveryOrderNeverLeaveAnEmptyPolicy) {
   std::vector<int> order(3);
   std::iota(order.begin(), order.end(), 0);
   do {
      for (bool byStatus : {false, true}) {
         for (bool oneBatch : {false, true}) {
            SelectionEnv env;
            for (uint32_t i = 0; i < 3; ++i) {
               env.resolved(i + 1);
               env.path(bgp(i + 1), 100 + i, {i + 1});
            }
            env.run();
            ASSERT_EQ(env.policy()->candidate().size(), 3u);
            for (int i : order) {
               if (byStatus) {
                  env.resolved(i + 1, false);
               } else {
                  env.input->policyIdEntryDel(bgp(i + 1));
               }
               if (!oneBatch) env.run();
               if (auto p = env.policy()) {
                  EXPECT_TRUE(!p->candidate().empty());
               }
            }
            env.run();
            EXPECT_TRUE(env.ec->policy().empty());
            EXPECT_EQ(env.sm->policyIdEntryReactorCount(), byStatus ? 3u : 0u);
         }
      }
   } while (std::next_permutation(order.begin(), order.end()));
}

// Flag off: an active path is not replaced by one differing only in discriminator; toggling the
// flag requeues every candidate and the best one takes over; off again keeps it. A priority
// change of the active path re-creates it and selection runs as if it had gone.
TEST(PolicySelection, StickyTieBreakAndItsFlag) {
   SelectionEnv env;
   env.resolved(1);
   env.resolved(2);
   env.path(bgp(1), 100, {1});
   env.run();
   env.path(bgp(9), 100, {2});
   env.run();
   EXPECT_EQ(env.activeDisc(), 1u) << "sticky";

   env.config->useDiscriminatorInTieBreakingIs(true);
   EXPECT_EQ(env.sm->pendingPolicyId().size(), 2u) << "every candidate requeued";
   env.run();
   EXPECT_EQ(env.activeDisc(), 9u);
   env.config->useDiscriminatorInTieBreakingIs(false);
   env.run();
   EXPECT_EQ(env.activeDisc(), 9u);

   // A new version with the same priority keeps the very same entry.
   auto active = env.policy()->active();
   env.path(bgp(9), 100, {2});
   env.run();
   EXPECT_EQ(env.policy()->active(), active);
   // 1 goes up and becomes active; back down to 100 it is re-created, so the choice is made as
   // if the active had gone: 9, equal to it but for the discriminator, takes over.
   env.path(bgp(1), 200, {1});
   env.run();
   EXPECT_EQ(env.activeDisc(), 1u);
   env.path(bgp(1), 100, {1});
   env.run();
   EXPECT_EQ(env.activeDisc(), 9u) << "the re-created active is not held by stickiness";
}

// A binding-SID change reaches the candidate at once, queues nothing and changes no choice.
TEST(PolicySelection, BindingSidFollowsTheEntryWithoutReselecting) {
   SelectionEnv env;
   env.resolved(1);
   env.path(bgp(1), 100, {1}, {}, 900001);
   env.run();
   EXPECT_EQ(env.policy()->active()->bindingSid(), Ipkit::MplsLabel(900001));
   env.input->policyIdEntry(bgp(1))->bindingSidIs(Ipkit::MplsLabel(900002));
   EXPECT_EQ(env.policy()->active()->bindingSid(), Ipkit::MplsLabel(900002));
   EXPECT_TRUE(env.sm->pendingPolicyId().empty());

   // Removed and written again under the same id before the selection runs: the new entry's
   // binding SID reaches the candidate with its version.
   env.input->policyIdEntryDel(bgp(1));
   env.path(bgp(1), 100, {1}, {}, 900003);
   env.run();
   EXPECT_EQ(env.policy()->active()->bindingSid(), Ipkit::MplsLabel(900003));
}

// A burst on one path is processed once; congestion and yields in the middle lose nothing.
TEST(PolicySelection, BurstsCongestionAndYieldsLoseNothing) {
   SelectionEnv env;
   for (uint32_t i = 1; i <= 50; ++i) env.resolved(i);
   for (int round = 0; round < 5; ++round) {
      for (uint32_t i = 1; i <= 50; ++i) {
         env.path(bgp(i, PolicyKey(addr("10.0.0.1"), Color(i))), 100, {i});
      }
   }
   EXPECT_EQ(env.sm->pendingPolicyId().size(), 50u);
   env.scheduler->yieldEveryIs(7);
   env.attrLog->attrLogOutCloggedIs(true);
   env.run();
   EXPECT_EQ(env.ec->policy().size(), 0u);
   ASSERT_TRUE(env.scheduler->nextTimerDelay());
   EXPECT_DOUBLE_EQ(*env.scheduler->nextTimerDelay(), 0.1);
   env.attrLog->attrLogOutCloggedIs(false);
   env.scheduler->advance(0.1);
   env.run();
   EXPECT_EQ(env.ec->policy().size(), 50u);
   EXPECT_EQ(env.sm->task()->workCount(), 50u) << "each path once";
   EXPECT_GT(env.sm->task()->runCount(), 7u) << "in several runs";
}

// A new machine over the same EcPolicy keeps every choice, sticky ones included, and drops what
// lost its input meanwhile.
TEST(PolicySelection, RestartKeepsEveryChoice) {
   SelectionEnv env;
   env.resolved(1);
   env.resolved(2);
   env.resolved(3);
   env.path(bgp(1), 100, {1});
   env.path(bgp(1, PolicyKey(addr("10.0.0.2"), Color(1))), 100, {3});
   env.run();
   env.path(bgp(9), 100, {2});
   env.run();
   ASSERT_EQ(env.activeDisc(), 1u);
   const auto before = env.policy()->active();

   env.sm.reset();
   EXPECT_EQ(env.ec->policy().size(), 2u) << "EcPolicy outlives the machine";
   env.input->policyIdEntryDel(bgp(1, PolicyKey(addr("10.0.0.2"), Color(1))));
   env.start();
   env.run();
   EXPECT_EQ(env.policy()->active(), before);
   EXPECT_EQ(env.policy()->candidate().size(), 2u);
   EXPECT_FALSE(env.ec->policy(PolicyKey(addr("10.0.0.2"), Color(1))));

   env.sm->handleDel();
   EXPECT_TRUE(env.ec->policy().empty());
}

TEST(PolicySelection, NullEntryIsRefused) {
   SelectionEnv env;
   try {
      env.sm->policyIdEntryIs(nullptr);
      FAIL();
   } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), PolicySelectionSm::nullPolicyIdEntryMessage);
   }
}

} // namespace
} // namespace SrTePolicy
