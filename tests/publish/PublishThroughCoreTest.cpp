// Publishing in the assembled core: candidate paths written into an input table come out as
// status entries and FECs, and a restart of the core keeps forwarding as it is.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "core/SrTePolicyMachines.h"
#include "tests/support/CoreTestRouter.h"

namespace SrTePolicy {
namespace {

constexpr auto pathId = Testing::bgpPathId;

PolicyInputEntry path(const PolicyId& id, uint32_t bsid, const std::vector<uint32_t>& labels) {
   return Testing::pathRecord(id, bsid, {labels});
}

struct Router : Testing::CoreTestRouter {
   Router() {
      adjacency(1, 0x0a000002, 1, Ipkit::MplsLabelAction::swap, 16000);
      for (uint32_t l : {16001, 16002, 16003}) route(l, 1);
      start();
   }
   PolicyStatus& status() const { return *core->published().policyStatus; }
   const Vault::Fib::ForwardingStatus& fib() const { return *core->published().srteFwdStatus; }
};

// Counts FECs the FIB loses.
class FibRemovals : public Vault::Fib::ForwardingStatus::Notifiee {
 public:
   void onFec(const Vault::Fib::FecId& id) override {
      if (!notifier()->fec(id)) ++removals;
   }
   int removals = 0;
};

TEST(PublishThroughCore, RestartKeepsFecIdsAndHoldersWithoutWithdrawingAnything) {
   Router r;
   const PolicyId a = pathId("10.0.0.1", 1, 1), b = pathId("10.0.0.2", 1, 1),
                  c = pathId("10.0.0.3", 1, 1);
   r.bgp->policyInputEntryIs(path(a, 900001, {16001}));
   r.scheduler.runUntilIdle();
   r.bgp->policyInputEntryIs(path(b, 900001, {16002}));
   r.bgp->policyInputEntryIs(path(c, 900003, {16003, 16001}));
   r.scheduler.runUntilIdle();

   ASSERT_EQ(r.status().status().size(), 2u);
   ASSERT_FALSE(r.status().status(b.key));
   const auto& records = r.core->syslogCapture().records();
   ASSERT_EQ(records.size(), 1u);
   EXPECT_EQ(records[0].tag, "SRTE_POLICY_CONFLICT_BSID_IN_USE");
   std::map<PolicyKey, std::pair<Vault::Fib::FecId, Vault::Fib::FecId>> fecs;
   for (const auto& [key, entry] : r.status().status()) {
      fecs[key] = {entry->fecId(), entry->nullLabelFecId()};
      // The FEC's via is the tunnel of the segment list the core resolved.
      const Vault::Fib::Fec* fec = r.fib().fec(entry->fecId());
      ASSERT_TRUE(fec);
      ASSERT_EQ(fec->viaCount(), 1u);
      EXPECT_TRUE(r.core->published().tunnelTable->entry(fec->via()[0].tunnelId()));
   }

   FibRemovals watch;
   watch.notifierIs(r.core->published().srteFwdStatus);
   r.core->restart();
   r.scheduler.runUntilIdle();

   EXPECT_EQ(watch.removals, 0);
   EXPECT_EQ(r.status().status().size(), 2u);
   for (const auto& [key, ids] : fecs) {
      auto entry = r.status().status(key);
      ASSERT_TRUE(entry) << key.stringValue();
      EXPECT_EQ(entry->fecId(), ids.first);
      EXPECT_EQ(entry->nullLabelFecId(), ids.second);
      // Renumbered segment lists: the FEC follows the new tunnel, under the same id.
      const Vault::Fib::Fec* fec = r.fib().fec(entry->fecId());
      ASSERT_TRUE(fec);
      EXPECT_TRUE(r.core->published().tunnelTable->entry(fec->via()[0].tunnelId()));
   }
   const ConflictingPolicies* held =
       r.core->policyPublishSm()->conflictingPolicies(Ipkit::MplsLabel(900001));
   ASSERT_TRUE(held);
   EXPECT_EQ(held->chosen(), a.key);
   EXPECT_TRUE(held->competitorHas(b.key));
   EXPECT_EQ(r.fib().fec().size(), 4u);
   EXPECT_EQ(r.status().fecIdToPolicyKey().size(), 4u);

   // The holder's path is withdrawn: the competitor is published with FECs of its own.
   r.bgp->policyInputEntryDel(a);
   r.scheduler.runUntilIdle();
   ASSERT_TRUE(r.status().status(b.key));
   EXPECT_FALSE(r.status().status(a.key));
   EXPECT_EQ(held->chosen(), b.key);
   EXPECT_EQ(r.fib().fec().size(), 4u);
   EXPECT_FALSE(r.status().fecIdToPolicyKey(fecs[a.key].first));
}

// A restart that finds the policy status but not its FECs (the FEC table lost while the agent
// was down): the surviving entries keep their FEC ids and program them again, and a policy new
// to this life is given ids none of them holds.
TEST(PublishThroughCore, AfterTheFecsWereLostNoNewPolicyTakesTheIdsTheStatusStillHolds) {
   Router r;
   std::vector<PolicyId> ids;
   for (uint32_t i = 0; i < 6; ++i) {
      ids.push_back(pathId(("10.0.1." + std::to_string(i + 1)).c_str(), 1, 1));
      r.bgp->policyInputEntryIs(path(ids.back(), 900010 + i, {16001 + i % 3}));
   }
   r.scheduler.runUntilIdle();
   ASSERT_EQ(r.status().status().size(), 6u);

   r.core->stop();
   r.core->published().srteFwdStatus->fecDelAll();
   // Two paths withdrawn and two new ones while it is down.
   r.bgp->policyInputEntryDel(ids[0]);
   r.bgp->policyInputEntryDel(ids[1]);
   for (uint32_t i = 0; i < 2; ++i) {
      r.bgp->policyInputEntryIs(
          path(pathId(("10.0.2." + std::to_string(i + 1)).c_str(), 1, 1), 900020 + i, {16002}));
   }
   r.core->start();
   r.scheduler.runUntilIdle();

   ASSERT_EQ(r.status().status().size(), 6u);
   std::map<Vault::Fib::FecId, PolicyKey> holder;
   for (const auto& [key, entry] : r.status().status()) {
      for (const Vault::Fib::FecId& id : {entry->fecId(), entry->nullLabelFecId()}) {
         const auto [at, fresh] = holder.emplace(id, key);
         EXPECT_TRUE(fresh) << key.stringValue() << " shares a FEC id with "
                            << at->second.stringValue();
         EXPECT_TRUE(r.fib().fec(id)) << key.stringValue();
         const auto mapped = r.status().fecIdToPolicyKey(id);
         ASSERT_TRUE(mapped);
         EXPECT_EQ(*mapped, key);
      }
   }
   EXPECT_EQ(r.fib().fec().size(), 12u);
}

} // namespace
} // namespace SrTePolicy
