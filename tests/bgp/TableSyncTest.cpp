// The adapter's table keeping against a real shared table, watched by a reader as the agent
// watches it: what a reader hears is the churn a reconnection or an adapter restart causes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "bgp/TableSync.h"

namespace {

using namespace SrTePolicy;
using SrTeBgp::PathDecoding;
using SrTeBgp::SettleWatch;
using SrTeBgp::TableSync;
using Writer = Agent::InputMirror::SharedInputWriter;
using Reader = Agent::InputMirror::SharedInput;

PolicyId idOf(uint32_t n) {
   return PolicyId(PolicyKey(Ipkit::IpGenAddr::v4(0x0a000000u + n), Color(1)), Protocol::bgp,
                   Discriminator(n));
}

PathDecoding add(uint32_t n, uint32_t label = 16000) {
   PathDecoding d;
   d.id = idOf(n);
   PolicyInputEntry e(*d.id);
   e.originatorIs(Originator(65000, Ipkit::IpGenAddr::v4(0xc0000201u)));
   e.preferenceIs(Preference(100));
   Ipkit::MplsLabelOperation op;
   op.actionIs(Ipkit::MplsLabelAction::push);
   op.push(Ipkit::MplsLabel(label + n));
   e.segmentListIs(SegmentListIndex(0), WeightedSegList(Weight(1), op));
   d.entry = e;
   return d;
}

PathDecoding withdraw(uint32_t n) {
   PathDecoding d;
   d.id = idOf(n);
   d.withdraw = true;
   return d;
}

struct TableSyncTest : ::testing::Test {
   const std::string router = "tablesync" + std::to_string(::getpid());
   const std::string table = "policyInput-bgp";
   void TearDown() override { Vault::Shm::removeTable(router, table); }

   // The keys a reader was told of since its last drain; "all" for a rescan.
   static std::set<std::string> heard(Reader& r) {
      std::set<std::string> keys;
      r.drain([&](const PolicyId& id) { keys.insert(id.stringValue()); },
              [&] { keys.insert("all"); });
      return keys;
   }
};

TEST_F(TableSyncTest, PartialSnapshotAfterReconnectDeletesOnlyWhenWholeAndRewritesNothingEqual) {
   Writer writer(router, table);
   Agent::BgpStatus status;
   TableSync sync(writer, status);
   Reader reader(router, table);
   EXPECT_EQ(heard(reader), std::set<std::string>{"all"});

   sync.snapshot({add(1), add(2), add(3)});
   EXPECT_EQ(sync.complete(), 0u);
   EXPECT_EQ(writer.size(), 3u);
   EXPECT_EQ(heard(reader).size(), 3u);
   EXPECT_EQ(status.recordsWritten, 3u);

   // The speaker restarted: its first snapshot is empty. Nothing goes yet.
   sync.snapshot({});
   EXPECT_TRUE(sync.resynchronising());
   EXPECT_EQ(sync.stale(), 3u);
   EXPECT_EQ(writer.size(), 3u);
   EXPECT_TRUE(heard(reader).empty());

   // The session comes back: 1 as it was, 2 changed; 3 never comes back.
   sync.changes({add(1), add(2, 17000)});
   EXPECT_EQ(sync.stale(), 1u);
   EXPECT_EQ(status.recordsUnchanged, 1u);
   EXPECT_EQ(status.recordsWritten, 4u);
   EXPECT_EQ(sync.complete(), 1u);
   EXPECT_FALSE(sync.resynchronising());
   EXPECT_EQ(writer.size(), 2u);
   EXPECT_FALSE(writer.lookup(idOf(3)).has_value());
   EXPECT_EQ(writer.lookup(idOf(2))
                 ->segmentList(SegmentListIndex(0))
                 .segList.label(Ipkit::MplsStackEntryIndex(0))
                 .value(),
             17002u);
   // Readers heard of the changed record and the deleted one, not of the equal one.
   EXPECT_EQ(heard(reader), (std::set<std::string>{idOf(2).stringValue(), idOf(3).stringValue()}));
   EXPECT_EQ(status.recordsErased, 1u);
   EXPECT_EQ(status.connects, 2u);
}

TEST_F(TableSyncTest, RestartedAdapterReconcilesTheTableItTakesOver) {
   {
      Writer first(router, table);
      Agent::BgpStatus status;
      TableSync sync(first, status);
      sync.snapshot({add(1), add(2), add(3), add(4)});
      sync.complete();
   }
   Reader reader(router, table);
   heard(reader);
   Writer second(router, table);
   Agent::BgpStatus status;
   TableSync sync(second, status);
   // The speaker lost 4 while no adapter ran, and withdraws 2 during the resynchronisation.
   sync.snapshot({add(1), add(2), add(3)});
   sync.changes({withdraw(2)});
   EXPECT_EQ(sync.stale(), 1u);
   sync.complete();
   EXPECT_EQ(status.recordsWritten, 0u);
   EXPECT_EQ(status.recordsUnchanged, 3u);
   EXPECT_EQ(status.recordsErased, 2u);
   EXPECT_EQ(status.recordsHeld, 2u);
   EXPECT_EQ(heard(reader), (std::set<std::string>{idOf(2).stringValue(), idOf(4).stringValue()}));
}

TEST_F(TableSyncTest, RefusalsAreCountedWithTheirReasonsAndTheRestIsKept) {
   Writer writer(router, table);
   Agent::BgpStatus status;
   TableSync sync(writer, status);
   PathDecoding partial = add(1);
   partial.reports = {"segment list 2: segment of type B (SRv6) left out"};
   PathDecoding unnamed;
   unnamed.reports = {"endpoint of 3 bytes"};
   sync.snapshot({partial, unnamed, add(2)});
   EXPECT_EQ(status.routesReceived, 3u);
   EXPECT_EQ(status.routesRefused, 2u);
   EXPECT_EQ(writer.size(), 2u);
   EXPECT_EQ(std::string(status.reasons[0]),
             idOf(1).stringValue() + ": segment list 2: segment of type B (SRv6) left out");
   EXPECT_EQ(std::string(status.reasons[1]), "endpoint of 3 bytes");
   // The last reasons are kept, the oldest overwritten.
   for (int i = 0; i < 10; ++i) status.reasonIs("r" + std::to_string(i));
   EXPECT_EQ(status.reasonsTold, 12u);
   EXPECT_EQ(std::string(status.reasons[11 % Agent::BgpStatus::reasonSlots]), "r9");
}

TEST(SettleWatchTest, WholeOnceEveryPeerIsUpAndNothingMovedForTheSettleTime) {
   using namespace std::chrono_literals;
   SettleWatch w(1000ms, 30000ms);
   const auto t0 = SettleWatch::Clock::time_point{} + 100s;
   w.restart(t0);
   EXPECT_FALSE(w.whole({false, 0, 0}, t0 + 2s));     // the session is down
   EXPECT_FALSE(w.whole({true, 10, 0}, t0 + 3s));     // up, updates coming
   EXPECT_FALSE(w.whole({true, 10, 5}, t0 + 3500ms)); // paths still arriving
   EXPECT_FALSE(w.whole({true, 10, 5}, t0 + 4s));     // quiet for 0.5 s
   EXPECT_TRUE(w.whole({true, 10, 5}, t0 + 4600ms));  // quiet for 1.1 s
   w.restart(t0 + 10s);
   EXPECT_FALSE(w.whole({false, 10, 5}, t0 + 39s)); // the peer stays down...
   EXPECT_TRUE(w.whole({false, 10, 5}, t0 + 40s));  // ...past the hold
}

} // namespace
