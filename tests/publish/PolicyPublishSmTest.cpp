// PolicyPublishSm on its own: the test writes EcPolicy as selection would and reads the policy
// status table and the FIB. After every step the published state must be consistent: one holder
// per binding SID, only holders (or keys without binding SID) published, two FECs and two map rows
// per entry and nothing else.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "publish/SrTePolicyPublishSm.h"
#include "tests/support/TestValues.h"

namespace SrTePolicy {
namespace {

using SrTePolicy::Test::addr;
PolicyKey key(const char* endpoint, uint32_t color) {
   return PolicyKey(addr(endpoint), Color(color));
}
Tunnel::TunnelTable::TunnelId tunnel(uint32_t n) {
   return Tunnel::TunnelTable::TunnelId::make(Tunnel::TunnelTable::TunnelId::Type::srTeSegmentList,
                                              n);
}
constexpr uint32_t none = Ipkit::MplsLabel::null;

// Counts what the FIB tells its watchers, and how many of those were removals.
class FibWatch : public Vault::Fib::ForwardingStatus::Notifiee {
 public:
   void onFec(const Vault::Fib::FecId& id) override {
      ++changes;
      if (!notifier()->fec(id)) ++removals;
   }
   int changes = 0;
   int removals = 0;
};

struct PublishEnv {
   Mox::Ptr<Kiln::TaskScheduler> scheduler = Mox::make<Kiln::TaskScheduler>();
   Mox::Ptr<EcPolicy> ec = ecPolicyFactory("ecPolicy");
   Mox::Ptr<PolicyStatus> status = policyStatusFactory("policyStatus");
   Mox::Ptr<Vault::Fib::ForwardingStatus> fib =
       Mox::make<Vault::Fib::ForwardingStatus>("srteFwdStatus");
   Mox::Ptr<Kiln::AttrLogSm> attrLog = Mox::make<Kiln::AttrLogSm>();
   Syslog::Log log;
   Syslog::Capture capture;
   Trace::Tracer tracer;
   FibWatch fibWatch;
   Mox::Ptr<PolicyPublishSm> sm;

   PublishEnv() {
      log.sinkIs(&capture);
      fibWatch.notifierIs(fib);
      start();
   }
   void start() {
      sm = policyPublishSmFactory({.ecPolicy = ec,
                                   .taskScheduler = scheduler.get(),
                                   .status = status,
                                   .timerWheel = scheduler.get(),
                                   .srteFwdStatus = fib,
                                   .attrLogSm = attrLog,
                                   .syslog = log,
                                   .tracer = tracer});
   }
   void restart() {
      sm = nullptr;
      start();
   }

   // Makes the bgp candidate `disc` of `k` active with the binding SID and tunnels given, as
   // selection would (the candidate is created when new).
   Mox::Ptr<PolicyEntry> activate(const PolicyKey& k, uint32_t disc, uint32_t bsid,
                                  std::vector<uint32_t> tunnels = {1}) {
      auto policy = ec->policyIs(k);
      auto entry =
          policy->candidateIs(Priority(Preference(100), Protocol::bgp,
                                       Originator(65000, addr("192.0.2.1")), Discriminator(disc)));
      entry->bindingSidIs(Ipkit::MplsLabel(bsid));
      for (uint8_t i = 0; i < tunnels.size(); ++i) {
         entry->wTunnelIdIs(i, WeightedTunnelId(tunnel(tunnels[i]), Weight(1)));
      }
      while (entry->wTunnelId().size() > tunnels.size()) {
         entry->wTunnelIdDel(static_cast<uint8_t>(entry->wTunnelId().size() - 1));
      }
      policy->activeIs(entry);
      return entry;
   }
   void run() { scheduler->runUntilIdle(); }

   Mox::Ptr<PolicyStatusEntry> published(const PolicyKey& k) const { return status->status(k); }
   PolicyKey holder(uint32_t bsid) const {
      const ConflictingPolicies* c = sm->conflictingPolicies(Ipkit::MplsLabel(bsid));
      return c ? c->chosen() : PolicyKey();
   }

   // The invariants every quiet state keeps.
   void checkConsistent() const {
      SCOPED_TRACE("consistency");
      std::set<uint32_t> bsids;
      for (const auto& [k, entry] : status->status()) {
         SCOPED_TRACE(k.stringValue());
         if (!entry->bindingSid().isNull()) {
            EXPECT_TRUE(bsids.insert(entry->bindingSid().value()).second) << "shared binding SID";
            EXPECT_EQ(holder(entry->bindingSid().value()), k);
         }
         for (auto id : {entry->fecId(), entry->nullLabelFecId()}) {
            EXPECT_TRUE(fib->fec(id));
            ASSERT_TRUE(status->fecIdToPolicyKey(id));
            EXPECT_EQ(*status->fecIdToPolicyKey(id), k);
            EXPECT_TRUE(sm->numAllocator()->isInUse(static_cast<Kiln::Number>(id.index())));
         }
      }
      EXPECT_EQ(fib->fec().size(), 2 * status->status().size());
      EXPECT_EQ(status->fecIdToPolicyKey().size(), 2 * status->status().size());
      for (const auto& [bsid, c] : sm->bindingSidPolicyMap()) {
         EXPECT_FALSE(c->competitorHas(c->chosen())) << bsid.value();
         if (!c->hasHolder()) {
            EXPECT_FALSE(c->competitor().empty()) << bsid.value();
         }
         for (const PolicyKey& k : c->competitor()) EXPECT_FALSE(published(k)) << k.stringValue();
      }
   }
   size_t conflicts() const {
      size_t n = 0;
      for (const auto& r : capture.records()) n += r.tag == "SRTE_POLICY_CONFLICT_BSID_IN_USE";
      return n;
   }
};

const PolicyKey kA = key("10.0.0.1", 1), kB = key("10.0.0.2", 1), kC = key("10.0.0.3", 1);

// The holder goes, or moves to another binding SID, or a competitor moves away: the binding SID
// always has exactly one holder, the refused policy is published the moment it is free, and
// whatever a withdrawn policy had is gone.
TEST(PolicyPublish, BindingSidHandOverInEveryOrder) {
   {
      SCOPED_TRACE("holder removed");
      PublishEnv env;
      env.activate(kA, 1, 900001);
      env.run();
      env.activate(kB, 1, 900001, {2});
      env.run();
      EXPECT_EQ(env.holder(900001), kA);
      EXPECT_FALSE(env.published(kB));
      ASSERT_EQ(env.conflicts(), 1u);
      EXPECT_EQ(env.capture.records()[0].text,
                "Endpoint 10.0.0.2, color 1, protocol bgp, originator 192.0.2.1(AS65000), "
                "discriminator 1 is unusable, BSID(900001) already present, conflicts with "
                "Endpoint 10.0.0.1, color 1, protocol bgp, originator 192.0.2.1(AS65000), "
                "discriminator 1");
      env.checkConsistent();
      const auto fecsOfA = env.published(kA)->fecId();
      env.ec->policyDel(kA);
      env.run();
      EXPECT_FALSE(env.published(kA));
      EXPECT_FALSE(env.status->fecIdToPolicyKey(fecsOfA));
      EXPECT_FALSE(env.fib->fec(fecsOfA));
      ASSERT_TRUE(env.published(kB));
      EXPECT_EQ(env.holder(900001), kB);
      EXPECT_TRUE(env.sm->conflictingPolicies(Ipkit::MplsLabel(900001))->competitor().empty());
      env.checkConsistent();
   }
   {
      SCOPED_TRACE("holder changes its binding SID");
      PublishEnv env;
      auto a = env.activate(kA, 1, 900001);
      env.run();
      env.activate(kB, 1, 900001);
      env.run();
      a->bindingSidIs(Ipkit::MplsLabel(900002));
      env.run();
      EXPECT_EQ(env.holder(900001), kB);
      EXPECT_EQ(env.holder(900002), kA);
      EXPECT_EQ(env.published(kA)->bindingSid(), Ipkit::MplsLabel(900002));
      EXPECT_EQ(env.published(kB)->bindingSid(), Ipkit::MplsLabel(900001));
      env.checkConsistent();
   }
   {
      SCOPED_TRACE("competitor changes its own");
      PublishEnv env;
      env.activate(kA, 1, 900001);
      env.run();
      auto b = env.activate(kB, 1, 900001);
      env.run();
      b->bindingSidIs(Ipkit::MplsLabel(900003));
      env.run();
      EXPECT_EQ(env.holder(900001), kA);
      EXPECT_EQ(env.holder(900003), kB);
      EXPECT_TRUE(env.published(kB));
      EXPECT_TRUE(env.sm->conflictingPolicies(Ipkit::MplsLabel(900001))->competitor().empty());
      EXPECT_EQ(env.sm->policyBindingSidMap().at(kB), Ipkit::MplsLabel(900003));
      env.checkConsistent();
   }
   {
      SCOPED_TRACE("three-way contention");
      PublishEnv env;
      env.activate(kA, 1, 900001);
      env.run();
      env.activate(kB, 1, 900001);
      env.activate(kC, 1, 900001);
      env.run();
      EXPECT_EQ(env.holder(900001), kA);
      EXPECT_EQ(env.sm->conflictingPolicies(Ipkit::MplsLabel(900001))->competitor().size(), 2u);
      env.checkConsistent();
      env.ec->policyDel(kA);
      env.run();
      const PolicyKey second = env.holder(900001);
      ASSERT_TRUE(second == kB || second == kC);
      const PolicyKey third = second == kB ? kC : kB;
      EXPECT_TRUE(env.published(second));
      EXPECT_FALSE(env.published(third));
      EXPECT_TRUE(env.sm->conflictingPolicies(Ipkit::MplsLabel(900001))->competitorHas(third));
      env.checkConsistent();
      // The new holder loses its active path: the last one takes it.
      env.ec->policy(second)->activeIs(nullptr);
      env.run();
      EXPECT_FALSE(env.published(second));
      EXPECT_EQ(env.holder(900001), third);
      env.checkConsistent();
      env.ec->policyDelAll();
      env.run();
      EXPECT_TRUE(env.status->status().empty());
      EXPECT_TRUE(env.status->fecIdToPolicyKey().empty());
      EXPECT_TRUE(env.fib->fec().empty());
      EXPECT_TRUE(env.sm->bindingSidPolicyMap().empty());
      EXPECT_TRUE(env.sm->policyBindingSidMap().empty());
   }
   {
      SCOPED_TRACE("claimants arriving in one batch");
      PublishEnv env;
      env.activate(kA, 1, 900001);
      env.activate(kB, 1, 900001);
      env.activate(kC, 1, 900001);
      env.run();
      EXPECT_EQ(env.status->status().size(), 1u);
      EXPECT_EQ(env.conflicts(), 2u);
      env.checkConsistent();
   }
}

// lastModified is the time of the last change of candidate, not of any update; the FEC ids stay.
TEST(PolicyPublish, LastModifiedMovesOnlyWithTheCandidate) {
   PublishEnv env;
   env.scheduler->advance(2.0);
   env.activate(kA, 1, 900001, {1, 2});
   env.run();
   auto entry = env.published(kA);
   ASSERT_TRUE(entry);
   EXPECT_EQ(entry->lastModified(), 2.0);
   const auto fecId = entry->fecId(), nullLabelFecId = entry->nullLabelFecId();

   env.scheduler->advance(5.0);
   env.activate(kA, 1, 900001, {3});
   env.run();
   EXPECT_EQ(entry->lastModified(), 2.0);
   EXPECT_EQ(env.fib->fec(fecId)->viaCount(), 1u);
   EXPECT_EQ(env.fib->fec(fecId)->via()[0].tunnelId(), tunnel(3));

   env.scheduler->advance(5.0);
   env.activate(kA, 7, 900001, {3});
   env.run();
   EXPECT_EQ(env.published(kA), entry);
   EXPECT_EQ(entry->lastModified(), 12.0);
   EXPECT_EQ(entry->candidateId(), CandidateId(Protocol::bgp, Discriminator(7)));
   EXPECT_EQ(entry->fecId(), fecId);
   EXPECT_EQ(entry->nullLabelFecId(), nullLabelFecId);
   env.checkConsistent();
}

// What the two FECs hold: the tunnels in row order, no label on the policy FEC, the explicit null
// of the endpoint's family on the other; no tunnels gives two empty FECs; no binding SID is
// published as none and claims nothing.
TEST(PolicyPublish, FecContentsByFamilyAndPoliciesWithoutBindingSidOrTunnels) {
   PublishEnv env;
   const PolicyKey v4 = key("10.0.0.1", 5), v6 = key("2001:db8::1", 5), empty = key("10.0.0.9", 5);
   env.activate(v4, 1, none, {4, 5});
   env.activate(v6, 1, 900006, {6});
   env.activate(empty, 1, 900009, {});
   env.run();
   ASSERT_EQ(env.status->status().size(), 3u);

   auto s4 = env.published(v4);
   EXPECT_TRUE(s4->bindingSid().isNull());
   EXPECT_FALSE(env.sm->policyBindingSidMap().contains(v4));
   const Vault::Fib::Fec* plain = env.fib->fec(s4->fecId());
   const Vault::Fib::Fec* nulled = env.fib->fec(s4->nullLabelFecId());
   ASSERT_TRUE(plain && nulled);
   EXPECT_EQ(s4->fecId().adjType(), Vault::Fib::AdjType::srTePolicy);
   ASSERT_EQ(plain->viaCount(), 2u);
   ASSERT_EQ(nulled->viaCount(), 2u);
   for (size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(plain->via()[i].tunnelId(), tunnel(4 + i));
      EXPECT_TRUE(plain->via()[i].mplsLabel().isNull());
      EXPECT_EQ(plain->via()[i].labelAction(), Ipkit::MplsLabelAction::none);
      EXPECT_EQ(nulled->via()[i].tunnelId(), tunnel(4 + i));
      EXPECT_EQ(nulled->via()[i].mplsLabel(), Ipkit::MplsLabel(0));
      EXPECT_EQ(nulled->via()[i].labelAction(), Ipkit::MplsLabelAction::push);
   }
   EXPECT_EQ(env.fib->fec(env.published(v6)->nullLabelFecId())->via()[0].mplsLabel(),
             Ipkit::MplsLabel(2));
   EXPECT_EQ(env.fib->fec(env.published(empty)->fecId())->viaCount(), 0u);
   EXPECT_EQ(env.fib->fec(env.published(empty)->nullLabelFecId())->viaCount(), 0u);
   env.checkConsistent();
}

// A run that yields after every couple of keys and is stopped by congestion half-way ends where
// an undisturbed run ends: every key published, with the same FEC ids.
TEST(PolicyPublish, CongestionAndYieldsInTheMiddleOfABatchLoseNothing) {
   auto load = [](PublishEnv& env) {
      for (uint32_t i = 0; i < 40; ++i) env.activate(key("10.0.1.1", i), 1, 900000 + i % 30, {i});
   };
   PublishEnv quiet;
   load(quiet);
   quiet.run();

   PublishEnv env;
   // Congestion sets in at the tenth entry published.
   struct Clogger : PolicyStatus::Notifiee {
      Kiln::AttrLogSm* attrLog;
      int seen = 0;
      void onStatus(const PolicyKey&) override {
         if (++seen == 10) attrLog->attrLogOutCloggedIs(true);
      }
   } clogger;
   clogger.attrLog = env.attrLog.get();
   clogger.notifierIs(env.status);
   env.scheduler->yieldEveryIs(3);
   load(env);
   env.run();
   EXPECT_EQ(env.status->status().size(), 10u);
   EXPECT_FALSE(env.sm->pendingPolicy().empty());
   EXPECT_TRUE(env.sm->pendingPolicyHas(env.sm->pendingBookmark()));
   ASSERT_TRUE(env.scheduler->nextTimerDelay());
   EXPECT_DOUBLE_EQ(*env.scheduler->nextTimerDelay(), 0.1);
   env.scheduler->advance(0.5); // still congested: it keeps retrying, nothing is dropped
   EXPECT_EQ(env.status->status().size(), 10u);
   env.attrLog->attrLogOutCloggedIs(false);
   env.scheduler->advance(0.1);
   env.run();
   EXPECT_TRUE(env.sm->pendingPolicy().empty());
   EXPECT_GT(env.sm->task()->runCount(), 5u);
   EXPECT_EQ(env.sm->task()->workCount(), quiet.sm->task()->workCount());
   ASSERT_EQ(env.status->status().size(), quiet.status->status().size());
   EXPECT_EQ(env.status->status().size(), 30u);
   for (const auto& [k, entry] : quiet.status->status()) {
      auto other = env.published(k);
      ASSERT_TRUE(other) << k.stringValue();
      // Taken in the same order, so the same FEC indexes; only the times differ.
      EXPECT_EQ(entry->fecId(), other->fecId()) << k.stringValue();
      EXPECT_EQ(entry->nullLabelFecId(), other->nullLabelFecId()) << k.stringValue();
      EXPECT_EQ(entry->bindingSid(), other->bindingSid()) << k.stringValue();
   }
   EXPECT_EQ(env.conflicts(), quiet.conflicts());
   env.checkConsistent();
}

// A new machine over what the last one published takes it over without touching the FIB, and
// gives every holder its binding SID back; what changed while it was away is put right.
TEST(PolicyPublish, RestartAdoptsFecsAndHoldersAndRewritesNothing) {
   PublishEnv env;
   const PolicyKey noBsid = key("10.0.0.7", 1), gainsBsid = key("10.0.0.8", 1);
   env.activate(kA, 1, 900001);
   env.activate(kB, 1, 900002);
   env.activate(noBsid, 1, none);
   env.activate(gainsBsid, 1, none);
   env.run();
   env.activate(kC, 1, 900001); // refused
   env.run();
   ASSERT_EQ(env.status->status().size(), 4u);
   std::map<PolicyKey, std::pair<Vault::Fib::FecId, Vault::Fib::FecId>> fecs;
   for (const auto& [k, entry] : env.status->status()) {
      fecs[k] = {entry->fecId(), entry->nullLabelFecId()};
   }

   env.restart();
   const int changes = env.fibWatch.changes;
   env.run();
   EXPECT_EQ(env.fibWatch.changes, changes) << "an unchanged policy's FECs are not rewritten";
   EXPECT_EQ(env.holder(900001), kA);
   EXPECT_EQ(env.holder(900002), kB);
   EXPECT_FALSE(env.published(kC));
   EXPECT_TRUE(env.sm->conflictingPolicies(Ipkit::MplsLabel(900001))->competitorHas(kC));
   for (const auto& [k, ids] : fecs) {
      ASSERT_TRUE(env.published(k));
      EXPECT_EQ(env.published(k)->fecId(), ids.first);
      EXPECT_EQ(env.published(k)->nullLabelFecId(), ids.second);
   }
   env.checkConsistent();

   // While the machine is away: a policy without binding SID goes, another one gains one, and
   // the holder of 900001 goes. Survivors without binding SID must not be taken as holders of
   // "none" (releasing it is a programming error).
   env.sm = nullptr;
   env.ec->policyDel(noBsid);
   env.activate(gainsBsid, 1, 900008);
   env.ec->policyDel(kA);
   env.start();
   env.run();
   EXPECT_FALSE(env.published(noBsid));
   EXPECT_FALSE(env.status->fecIdToPolicyKey(fecs[noBsid].first));
   EXPECT_EQ(env.holder(900008), gainsBsid);
   EXPECT_EQ(env.holder(900001), kC);
   // New FECs take neither the surviving indexes nor those released a moment ago.
   for (const auto& [k, ids] : fecs) {
      for (auto id : {env.published(kC)->fecId(), env.published(kC)->nullLabelFecId()}) {
         EXPECT_NE(id, ids.first);
         EXPECT_NE(id, ids.second);
      }
   }
   env.checkConsistent();
   EXPECT_EQ(env.fibWatch.removals, 4);
}

TEST(PolicyPublishDeathTest, ReleasingNoBindingSidIsAProgrammingError) {
   PublishEnv env;
   EXPECT_DEATH(env.sm->releaseBindingSid(Ipkit::MplsLabel(), kA),
                "Cannot release invalid binding-sid");
}

// A released FEC index ages 300 s of virtual time before anyone gets it again.
TEST(PolicyPublish, ReleasedFecIndexIsNotReusedWithin300Seconds) {
   PublishEnv env;
   env.activate(kA, 1, none);
   env.run();
   const std::set<uint64_t> first = {env.published(kA)->fecId().index(),
                                     env.published(kA)->nullLabelFecId().index()};
   env.ec->policyDel(kA);
   env.run();
   auto indexes = [&](const PolicyKey& k) {
      return std::set<uint64_t>{env.published(k)->fecId().index(),
                                env.published(k)->nullLabelFecId().index()};
   };
   env.activate(kB, 1, none);
   env.run();
   env.scheduler->advance(299.0);
   env.activate(kC, 1, none);
   env.run();
   for (uint64_t i : first) {
      EXPECT_FALSE(indexes(kB).count(i));
      EXPECT_FALSE(indexes(kC).count(i));
   }
   env.scheduler->advance(1.0);
   const PolicyKey kD = key("10.0.0.4", 1);
   env.activate(kD, 1, none);
   env.run();
   EXPECT_EQ(indexes(kD), first);
   env.checkConsistent();
}

// Destruction leaves everything published; handleDel withdraws it all.
TEST(PolicyPublish, OnlyHandleDelWithdrawsTheOutputs) {
   PublishEnv env;
   env.activate(kA, 1, 900001);
   env.activate(kB, 1, none);
   env.run();
   env.sm = nullptr;
   EXPECT_EQ(env.status->status().size(), 2u);
   EXPECT_EQ(env.fib->fec().size(), 4u);
   env.start();
   env.sm->handleDel();
   EXPECT_TRUE(env.status->status().empty());
   EXPECT_TRUE(env.status->fecIdToPolicyKey().empty());
   EXPECT_TRUE(env.fib->fec().empty());
   env.activate(kC, 1, 900003);
   env.run();
   EXPECT_TRUE(env.status->status().empty()) << "a torn-down machine publishes nothing";
}

} // namespace
} // namespace SrTePolicy
