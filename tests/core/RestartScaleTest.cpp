// A restart with unchanged inputs changes nothing anyone else can see: 10,000 policies from two
// protocols over shared segment lists, with binding SIDs (some in conflict), converge; the core
// restarts and converges again; reactors watching every published table (RestartWatch) find no
// row added, removed, changed or rewritten, and every binding SID keeps its holder. The same with
// the scheduler forcing a yield after every unit of work and with the attribute-log output
// congested through the first part of the reconciliation.
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "core/SrTePolicyMachines.h"
#include "core/SrTePolicyRestartWatch.h"
#include "tests/support/CoreTestRouter.h"
#include "tests/support/Sanitizers.h"

using namespace SrTePolicy;

namespace {

// The same shape, smaller under the sanitizers.
constexpr uint32_t policyCount = TestSupport::sizeFor(10000, 2000);

// 30 distinct label stacks shared by every path: tops 16000..16009 resolve through a swap
// adjacency, 17000..17004 through a push one; the rest of a stack varies.
Ipkit::MplsLabelOperation stack(uint32_t n) {
   Ipkit::MplsLabelOperation op;
   op.push(Ipkit::MplsLabel(n % 3 == 0 ? 17000 + n % 5 : 16000 + n % 10));
   op.push(Ipkit::MplsLabel(20000 + n % 30));
   if (n % 2) op.push(Ipkit::MplsLabel(21000 + n % 10));
   return op;
}

struct Router : Testing::CoreTestRouter {
   Mox::Ptr<PolicyInput> staticInput = policyInputFactory("static");

   Router() : CoreTestRouter(65536) {
      tables.input->policyInputIs(Protocol::staticConfig, staticInput);
      swapAndPushAdjacencies();
      for (uint32_t l = 16000; l < 16010; ++l) route(l, 1);
      for (uint32_t l = 17000; l < 17005; ++l) route(l, 2);
      start();
   }

   // Every policy has a bgp path; every fourth also a static one of higher preference. Binding
   // SIDs are one per policy, except every 50th policy, which names the SID of the one before
   // (a conflict one of them loses).
   void load() {
      for (uint32_t i = 0; i < policyCount; ++i) {
         const PolicyKey key(Ipkit::IpGenAddr::v4(0x0b000000 + i / 100), Color(i % 100 + 1));
         const uint32_t bsid = 900000 + (i % 50 == 49 ? i - 1 : i);
         PolicyInputEntry b(PolicyId(key, Protocol::bgp, Discriminator(1)));
         b.bindingSidIs(Ipkit::MplsLabel(bsid));
         b.preferenceIs(Preference(100));
         b.segmentListIs(SegmentListIndex(0), WeightedSegList(Weight(1), stack(i % 300)));
         b.segmentListIs(SegmentListIndex(1), WeightedSegList(Weight(2), stack((i + 7) % 300)));
         bgp->policyInputEntryIs(b);
         if (i % 4 == 0) {
            PolicyInputEntry s(PolicyId(key, Protocol::staticConfig, Discriminator(0)));
            s.bindingSidIs(Ipkit::MplsLabel(bsid));
            s.preferenceIs(Preference(200));
            s.segmentListIs(SegmentListIndex(0), WeightedSegList(Weight(1), stack((i + 1) % 300)));
            staticInput->policyInputEntryIs(s);
         }
      }
   }

   // Binding SID -> the policy key whose route holds it.
   std::map<uint32_t, std::string> bsidHolders() const {
      std::map<uint32_t, std::string> out;
      for (const auto& [key, status] : core->published().policyStatus->status()) {
         if (!status->bindingSid().isNull()) {
            out[status->bindingSid().value()] = key.stringValue();
         }
      }
      return out;
   }
};

struct Variant {
   const char* name;
   uint32_t yieldEvery;
   bool congested;
};

TEST(RestartScale, TenThousandPoliciesRestartWithoutChangingAPublishedRow) {
   for (const Variant& v : {Variant{"plain", 0, false}, Variant{"yield every unit", 1, false},
                            Variant{"congested during reconciliation", 0, true}}) {
      SCOPED_TRACE(v.name);
      Router r;
      const auto t0 = std::chrono::steady_clock::now();
      r.load();
      r.scheduler.runUntilIdle();
      const auto t1 = std::chrono::steady_clock::now();
      const PublishedTables& p = r.core->published();
      // A policy refused its binding SID (taken by the one before) is not published.
      ASSERT_EQ(p.policyStatus->status().size(), policyCount - policyCount / 50);
      ASSERT_EQ(p.segmentListStatus->status().size(), 30u); // stacks repeat every 30
      ASSERT_EQ(p.tunnelTable->entry().size(), 30u);
      ASSERT_FALSE(p.lfibStatus->lfib()->lfibRoute().empty());
      ASSERT_FALSE(p.srteFwdStatus->fec().empty());
      ASSERT_FALSE(p.tunnelIdToPolicyKey->tunnelEntry().empty());
      const auto holders = r.bsidHolders();
      // 1 in 50 binding SIDs is named twice: one holder each.
      ASSERT_EQ(holders.size(), policyCount - policyCount / 50);

      r.scheduler.yieldEveryIs(v.yieldEvery);
      r.core->stop();
      RestartWatch watch(p);
      r.core->start();
      if (v.congested) {
         // Congested from the start: nothing may be cleaned up or rewritten while the tasks wait.
         r.tables.attrLog->attrLogOutCloggedIs(true);
         r.scheduler.advance(Kiln::Duration(1'000'000'000));
         EXPECT_EQ(watch.changes(), 0u);
         r.tables.attrLog->attrLogOutCloggedIs(false);
      }
      r.scheduler.runUntilIdle();
      r.scheduler.advance(Kiln::Duration(5'000'000'000)); // timers too (tunnel map checks)
      r.scheduler.runUntilIdle();
      const auto t2 = std::chrono::steady_clock::now();

      uint64_t rows = 0;
      for (const auto& c : watch.counts()) {
         SCOPED_TRACE(c.table);
         EXPECT_EQ(c.added, 0u);
         EXPECT_EQ(c.removed, 0u);
         EXPECT_EQ(c.changed, 0u);
         // Every record is written again after a restart, and each write bumps its selection-input
         // version (nothing else of the row moves); no other table is even rewritten.
         if (c.table != std::string("selection input")) {
            EXPECT_EQ(c.rewritten, 0u);
         }
         EXPECT_GT(c.adopted + c.rewritten, 0u);
         rows += c.adopted + c.rewritten;
      }
      EXPECT_EQ(r.bsidHolders(), holders);
      // The watch sees what it should: one changed input shows up.
      PolicyInputEntry changed = *r.bgp->policyInputEntryFind(PolicyId(
          PolicyKey(Ipkit::IpGenAddr::v4(0x0b000000), Color(2)), Protocol::bgp, Discriminator(1)));
      changed.segmentListIs(SegmentListIndex(0), WeightedSegList(Weight(9), stack(5)));
      r.bgp->policyInputEntryIs(changed);
      r.scheduler.runUntilIdle();
      EXPECT_GT(watch.changes(), 0u);
      r.scheduler.yieldEveryIs(0);

      const auto ms = [](auto d) {
         return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
      };
      std::printf("[ %s ] %u policies, %llu published rows: converge %lld ms, restart and "
                  "reconcile %lld ms\n",
                  v.name, policyCount, static_cast<unsigned long long>(rows),
                  static_cast<long long>(ms(t1 - t0)), static_cast<long long>(ms(t2 - t1)));
   }
}

} // namespace
