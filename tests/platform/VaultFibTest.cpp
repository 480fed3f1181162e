#include <gtest/gtest.h>

#include <algorithm>

#include "platform/FlexCounters.h"
#include "platform/RoutingHardware.h"
#include "platform/VaultFib.h"

namespace {

using Vault::Fib::AdjType;
using Vault::Fib::Fec;
using Vault::Fib::FecId;
using Vault::Fib::Via;
using Vault::Fib::ViaIndex;

TEST(VaultFib, FecIdGivesBackExactlyTypeAndIndex) {
   for (uint64_t index : {uint64_t{0}, uint64_t{1}, uint64_t{4294967295u}, FecId::maxIndex}) {
      const FecId id = FecId::fecIdForAdjType(15, index);
      EXPECT_EQ(id.adjType(), AdjType::srTePolicy);
      EXPECT_EQ(id.index(), index);
      EXPECT_EQ(FecId::fecIdForAdjType(id.adjType(), id.index()), id);
   }
   // Distinct (type, index) pairs give distinct ids, and no policy FEC is the "no FEC" id.
   EXPECT_NE(FecId::fecIdForAdjType(15, 1), FecId::fecIdForAdjType(14, 1));
   EXPECT_TRUE(FecId::fecIdForAdjType(AdjType::srTePolicy, 0).isValid());
   EXPECT_FALSE(FecId().isValid());
   try {
      FecId::fecIdForAdjType(AdjType::srTePolicy, FecId::maxIndex + 1);
      FAIL() << "oversized index accepted";
   } catch (const Mox::RangeError& e) {
      EXPECT_STREQ(e.what(), "FecId::index > FecId::maxIndex not allowed");
   }

   const Ipkit::IntfId intf = Vault::Fib::fecIdToIntfId(FecId::fecIdForAdjType(15, 77));
   EXPECT_EQ(intf.kind(), Ipkit::IntfId::Kind::fec);
   EXPECT_EQ(intf.number(), 77u);
}

TEST(VaultFib, FecHoldsAtMost512ViasAndRejectsTheRestUnchanged) {
   Fec fec(FecId::fecIdForAdjType(AdjType::srTePolicy, 3));
   Via v;
   v.tunnelIdIs(Tunnel::TunnelTable::TunnelId(21474836481ull));
   v.mplsLabelIs(Ipkit::MplsLabel(2));
   EXPECT_EQ(v.labelAction(), Ipkit::MplsLabelAction::push);
   EXPECT_EQ(v.stringValue(), "label 2 action push tunnel 21474836481");
   fec.viaIs(0, v);
   fec.viaIs(511, v); // grows, the vias between are default
   EXPECT_EQ(fec.viaCount(), 512u);
   EXPECT_EQ(*fec.via(ViaIndex(1)), Via());
   try {
      fec.viaIs(512, v);
      FAIL() << "via 513 accepted";
   } catch (const Mox::RangeError& e) {
      EXPECT_STREQ(e.what(), "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
   }
   EXPECT_EQ(fec.viaCount(), 512u);
   v.mplsLabelIs(Ipkit::MplsLabel()); // the null label removes the label operation
   EXPECT_EQ(v.labelAction(), Ipkit::MplsLabelAction::none);
}

TEST(VaultFib, ForwardingStatusCommitsWholeFecsAndNotifiesOnChange) {
   auto fib = Mox::make<Vault::Fib::ForwardingStatus>();
   struct Log : Vault::Fib::ForwardingStatus::Notifiee {
      std::vector<uint64_t> seen;
      void onFec(const FecId& id) override { seen.push_back(id.index()); }
   } log;
   log.notifierIs(fib);

   Fec a(FecId::fecIdForAdjType(AdjType::srTePolicy, 1));
   Fec b(FecId::fecIdForAdjType(AdjType::srTePolicy, 2));
   Via v;
   v.tunnelIdIs(Tunnel::TunnelTable::TunnelId(5));
   a.viaIs(0, v);
   fib->fecCommit(a);
   fib->fecCommit(b);
   fib->fecCommit(a); // unchanged
   a.viaIs(1, v);
   fib->fecCommit(a); // replaced by the longer version
   EXPECT_EQ(log.seen, (std::vector<uint64_t>{1, 2, 1}));
   EXPECT_EQ(fib->fec(a.fecId())->viaCount(), 2u);

   // A FEC found stays put while the table grows around it and while it is rewritten.
   const Fec* held = fib->fec(a.fecId());
   for (uint32_t i = 100; i < 5100; ++i)
      fib->fecCommit(Fec(FecId::fecIdForAdjType(AdjType::srTePolicy, i)));
   a.viaIs(2, v);
   fib->fecCommit(a);
   EXPECT_EQ(fib->fec(a.fecId()), held);
   EXPECT_EQ(held->viaCount(), 3u);
   for (uint32_t i = 100; i < 5100; ++i)
      fib->fecDel(FecId::fecIdForAdjType(AdjType::srTePolicy, i));

   // An injected corruption throws once and leaves the table as it was.
   fib->corruptionInjectIs(true);
   EXPECT_THROW(fib->fecDel(a.fecId()), Vault::Corruption);
   fib->handleCorruption();
   EXPECT_EQ(fib->corruptionCount(), 1u);
   EXPECT_NE(fib->fec(a.fecId()), nullptr);

   log.seen.clear();
   fib->fecDel(FecId::fecIdForAdjType(AdjType::srTePolicy, 9)); // absent
   fib->fecDelAll();
   std::sort(log.seen.begin(), log.seen.end());
   EXPECT_EQ(log.seen, (std::vector<uint64_t>{1, 2}));
   EXPECT_TRUE(fib->fec().empty());
}

// A FEC handed over to the table (the writer's path) arrives whole, past the vias kept inline as
// well as within them, and a later equal version, copied or handed over, notifies nothing.
TEST(VaultFib, FecHandedOverArrivesWholeWhateverItsViaCount) {
   auto fib = Mox::make<Vault::Fib::ForwardingStatus>();
   struct Log : Vault::Fib::ForwardingStatus::Notifiee {
      int calls = 0;
      void onFec(const FecId&) override { ++calls; }
   } log;
   log.notifierIs(fib);
   for (uint32_t count : {0u, 1u, 2u, 3u, 16u, Fec::maxVias}) {
      const FecId id = FecId::fecIdForAdjType(AdjType::srTePolicy, count);
      auto build = [&] {
         Fec fec(id);
         fec.viaReserve(count);
         for (uint32_t i = 0; i < count; ++i) {
            Via v;
            v.tunnelIdIs(Tunnel::TunnelTable::TunnelId(1000 + i));
            if (i % 2) v.mplsLabelIs(Ipkit::MplsLabel(2));
            fec.viaIs(i, v);
         }
         return fec;
      };
      const Fec expected = build();
      const int before = log.calls;
      fib->fecCommit(build());
      ASSERT_NE(fib->fec(id), nullptr);
      EXPECT_EQ(*fib->fec(id), expected);
      ASSERT_EQ(fib->fec(id)->viaCount(), count);
      if (count > 0) {
         EXPECT_EQ(fib->fec(id)->via(ViaIndex(count - 1))->tunnelId().value, 1000u + count - 1);
      }
      fib->fecCommit(build());
      fib->fecCommit(expected);
      EXPECT_EQ(log.calls, before + 1) << count << " vias";
   }
   // A shorter version replaces a longer one entirely.
   const FecId id = FecId::fecIdForAdjType(AdjType::srTePolicy, 16);
   Fec shorter(id);
   shorter.viaIs(0, *fib->fec(id)->via(ViaIndex(0)));
   fib->fecCommit(std::move(shorter));
   EXPECT_EQ(fib->fec(id)->viaCount(), 1u);
}

TEST(PlatformStatus, LabelStackLimitAbsentUntilSetAndCountersPerTunnel) {
   auto hw = Mox::make<Routing::Hardware::Status>();
   struct HwLog : Routing::Hardware::Status::Notifiee {
      int calls = 0;
      void onNexthopGroupMplsLabelStackSize() override { ++calls; }
   } hwLog;
   hwLog.notifierIs(hw);
   EXPECT_FALSE(hw->nexthopGroupMplsLabelStackSize());
   hw->nexthopGroupMplsLabelStackSizeIs(6);
   hw->nexthopGroupMplsLabelStackSizeIs(6);
   EXPECT_EQ(hw->nexthopGroupMplsLabelStackSize(), 6);
   hw->nexthopGroupMplsLabelStackSizeDel();
   hw->nexthopGroupMplsLabelStackSizeDel();
   EXPECT_FALSE(hw->nexthopGroupMplsLabelStackSize());
   EXPECT_EQ(hwLog.calls, 2);

   auto counters = Mox::make<FlexCounters::CounterTable>();
   struct CounterLog : FlexCounters::CounterTable::Notifiee {
      std::vector<uint64_t> seen;
      void onCounter(const FlexCounters::CounterTable::TunnelId& t) override {
         seen.push_back(t.value);
      }
   } counterLog;
   counterLog.notifierIs(counters);
   const Tunnel::TunnelTable::TunnelId t1(21474836481ull), t2(21474836482ull);
   counters->counterIs(t1);
   counters->counterIs(t1);
   counters->counterIs(t1, {10, 1000});
   counters->counterIs(t2);
   EXPECT_TRUE(counters->counterHas(t1));
   EXPECT_EQ(counters->counter(t1)->bytes, 1000u);
   counters->counterDel(t1);
   counters->counterDel(t1);
   EXPECT_FALSE(counters->counterHas(t1));
   EXPECT_EQ(counterLog.seen, (std::vector<uint64_t>{21474836481ull, 21474836481ull, 21474836482ull,
                                                     21474836481ull}));
}

} // namespace
