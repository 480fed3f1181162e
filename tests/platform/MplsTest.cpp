#include <gtest/gtest.h>

#include <algorithm>

#include "lfib/SrTePolicyLfibStatus.h"
#include "platform/Mpls.h"

namespace {

using Ipkit::IntfId;
using Ipkit::IpGenAddr;
using Ipkit::MplsLabel;
using Ipkit::MplsLabelAction;
using Mpls::AdjacencyKey;
using Mpls::AdjacencyType;
using Mpls::RouteKey;
using Mpls::RouteKeyAndMetric;
using Mpls::Via;
using Mpls::ViaSet;
namespace LFib = Mpls::LFib;

Via via(uint32_t hop, uint32_t eth, MplsLabelAction a, uint32_t label = MplsLabel::null) {
   return Via(IpGenAddr::v4(hop), IntfId(IntfId::Kind::ethernet, eth), a, MplsLabel(label));
}
LFib::Route route(uint32_t label, uint64_t adj, AdjacencyType t = AdjacencyType::nexthop,
                  LFib::Source s = LFib::Source::unknown) {
   return LFib::Route(RouteKey::fromLabel(MplsLabel(label)), LFib::RouteType::unknown, s,
                      AdjacencyKey(adj, t));
}

// Records every notification as "<table>:<key>" in order.
struct StatusLog : Mpls::Status::Notifiee, Mpls::Config::Notifiee {
   std::vector<std::string> seen;
   void onLfibRoute(const RouteKey& k) override { seen.push_back("route:" + k.stringValue()); }
   void onAdjacency(const Mpls::AdjacencyIndex& i) override {
      seen.push_back("adj:" + std::to_string(i));
   }
   void onAdjacencyExt(const Mpls::AdjacencyIndex& i) override {
      seen.push_back("ext:" + std::to_string(i));
   }
   void onLabelRange(const Mox::Name& n) override { seen.push_back("range:" + n); }
   std::vector<std::string> take() { return std::exchange(seen, {}); }
};
using Seen = std::vector<std::string>;

TEST(Mpls, ConfigAndStatusNotifyOncePerChangedKey) {
   auto config = Mox::make<Mpls::Config>();
   auto status = Mox::make<Mpls::Status>();
   StatusLog log;
   static_cast<Mpls::Config::Notifiee&>(log).notifierIs(config);
   static_cast<Mpls::Status::Notifiee&>(log).notifierIs(status);

   config->labelRangeIs("srlb", Mpls::LabelRange(900000, 65536));
   config->labelRangeIs("srlb", Mpls::LabelRange(900000, 65536)); // unchanged
   config->labelRangeIs("srgb", Mpls::LabelRange(16000, 8000));
   config->labelRangeIs("srlb", Mpls::LabelRange(900000, 1000));
   EXPECT_EQ(log.take(), (Seen{"range:srlb", "range:srgb", "range:srlb"}));
   ASSERT_NE(config->labelRange(Mpls::srlbRangeName), nullptr);
   EXPECT_TRUE(config->labelRange("srlb")->contains(MplsLabel(900999)));
   EXPECT_FALSE(config->labelRange("srlb")->contains(MplsLabel(901000)));
   config->labelRangeDel("nothing");
   config->labelRangeDelAll();
   EXPECT_EQ(log.take(), (Seen{"range:srgb", "range:srlb"})); // by name, one each
   EXPECT_EQ(config->labelRange("srlb"), nullptr);

   status->lfibRouteIs(route(16001, 7));
   status->lfibRouteIs(route(16002, 7));
   status->lfibRouteIs(route(16001, 7));                        // unchanged
   status->lfibRouteIs(route(16001, 8));                        // new adjacency
   status->lfibRouteDel(RouteKey::fromLabel(MplsLabel(17000))); // absent
   // A via set written in another order is the same set.
   status->adjacencyIs(
       7, ViaSet{via(2, 1, MplsLabelAction::swap, 16001), via(1, 2, MplsLabelAction::pop)});
   status->adjacencyIs(
       7, ViaSet{via(1, 2, MplsLabelAction::pop), via(2, 1, MplsLabelAction::swap, 16001)});
   status->adjacencyExtIs(9, {Vault::Fib::FecId(42), ViaSet{via(3, 3, MplsLabelAction::push, 5)}});
   EXPECT_EQ(log.take(), (Seen{"route:16001", "route:16002", "route:16001", "adj:7", "ext:9"}));

   // Lookups the resolvers rely on.
   ASSERT_NE(status->lfibRoute(RouteKey::fromLabel(MplsLabel(16001))), nullptr);
   EXPECT_EQ(status->lfibRoute(RouteKey::fromLabel(MplsLabel(16001)))->adjKey.index(), 8u);
   EXPECT_EQ(status->lfibRoute(RouteKey::fromLabel(MplsLabel(16003))), nullptr);
   EXPECT_EQ(status->adjacency(7)->size(), 2u);
   EXPECT_EQ(status->adjacencyExt(9)->fecId, Vault::Fib::FecId(42));

   // Reactors see the table after the change, and DelAll reports every key once.
   struct Checker : Mpls::Status::Notifiee {
      std::vector<bool> presentWhenTold;
      void onLfibRoute(const RouteKey& k) override {
         presentWhenTold.push_back(notifier()->lfibRoute(k) != nullptr);
      }
   } checker;
   checker.notifierIs(status);
   status->lfibRouteDelAll();
   status->adjacencyDelAll();
   status->adjacencyExtDelAll();
   Seen seen = log.take();
   std::sort(seen.begin(), seen.end());
   EXPECT_EQ(seen, (Seen{"adj:7", "ext:9", "route:16001", "route:16002"}));
   EXPECT_EQ(checker.presentWhenTold, (std::vector<bool>{false, false}));
}

TEST(Mpls, EmptyRouteDiffersFromEveryRealRouteAndKeysOrder) {
   const LFib::Route empty;
   EXPECT_TRUE(empty.isEmpty());
   // Even a route with label 0 and every other field at its default is a real route.
   LFib::Route zero;
   zero.key = RouteKey::fromLabel(MplsLabel(0));
   EXPECT_NE(zero, empty);
   EXPECT_NE(route(16001, 0, AdjacencyType::invalid), empty);
   EXPECT_EQ(LFib::Route(), empty);

   EXPECT_EQ(RouteKey::fromLabel(MplsLabel(900001)).topLabel(), MplsLabel(900001));
   EXPECT_EQ(RouteKey().topLabel(), MplsLabel());
   // Protocol route keys order by label, then metric; equal keys hash alike.
   RouteKeyAndMetric a(RouteKey::fromLabel(MplsLabel(5)), 2),
       b(RouteKey::fromLabel(MplsLabel(6)), 1);
   EXPECT_LT(a, b);
   EXPECT_LT(RouteKeyAndMetric(RouteKey::fromLabel(MplsLabel(5)), 1), a);
   EXPECT_EQ(a.hash(), RouteKeyAndMetric(RouteKey::fromLabel(MplsLabel(5)), 2).hash());
   EXPECT_EQ(a.stringValue(), "5/2");
   EXPECT_EQ(AdjacencyKey(5, AdjacencyType::externalFec).stringValue(), "(index: 5, type: 3)");
   EXPECT_FALSE(AdjacencyKey().isValid());
}

TEST(Mpls, ViaSetKeepsEachViaOnceInViaOrder) {
   ViaSet set;
   EXPECT_TRUE(set.viaIs(via(3, 1, MplsLabelAction::swap, 100)));
   EXPECT_TRUE(set.viaIs(via(1, 1, MplsLabelAction::swap, 100)));
   EXPECT_FALSE(set.viaIs(via(3, 1, MplsLabelAction::swap, 100)));
   EXPECT_TRUE(set.viaIs(via(1, 1, MplsLabelAction::pop)));
   ASSERT_EQ(set.size(), 3u);
   EXPECT_EQ(set.stringValue(), "0.0.0.1 Ethernet1 pop, 0.0.0.1 Ethernet1 swap 100, "
                                "0.0.0.3 Ethernet1 swap 100");
   EXPECT_TRUE(set.viaDel(via(1, 1, MplsLabelAction::pop)));
   EXPECT_FALSE(set.viaDel(via(1, 1, MplsLabelAction::pop)));
   EXPECT_FALSE(set.viaHas(via(1, 1, MplsLabelAction::pop)));
   EXPECT_EQ(set[0], via(1, 1, MplsLabelAction::swap, 100));
}

TEST(Mpls, ProtocolLfibInsideLfibStatusAndAdjacencyIndexes) {
   auto lfibStatus = SrTePolicy::srTePolicyLfibStatusFactory("srte");
   struct Watch : SrTePolicy::SrTePolicyLfibStatus::Notifiee, Mpls::ProtocolLfib::Notifiee {
      Seen seen;
      void onLfib() override { seen.push_back("lfib"); }
      void onLfibRoute(const RouteKeyAndMetric& k) override {
         seen.push_back("route:" + k.stringValue());
      }
      void onLfibExtFecAdjacency(const Mpls::AdjacencyIndex& i) override {
         seen.push_back("adj:" + std::to_string(i));
      }
   } watch;
   static_cast<SrTePolicy::SrTePolicyLfibStatus::Notifiee&>(watch).notifierIs(lfibStatus);
   EXPECT_EQ(lfibStatus->lfib(), nullptr);
   auto lfib = lfibStatus->lfibIs("srTePolicy");
   EXPECT_EQ(lfibStatus->lfibIs("srTePolicy"), lfib); // same name: the same LFIB
   static_cast<Mpls::ProtocolLfib::Notifiee&>(watch).notifierIs(lfib);

   MplsHelper::LfibGenAdjIdxAllocator alloc;
   const auto srte = LFib::Source::srTePolicy;
   const auto other = static_cast<LFib::Source>(7);
   const Mpls::AdjacencyIndex i1 = alloc.getAdjacencyIndex(srte);
   const Mpls::AdjacencyIndex i2 = alloc.getAdjacencyIndex(other);
   EXPECT_EQ(i1, 1u);
   EXPECT_EQ(i2, 2u);

   const auto fec = Vault::Fib::FecId::fecIdForAdjType(Vault::Fib::AdjType::srTePolicy, 4);
   const RouteKeyAndMetric key(RouteKey::fromLabel(MplsLabel(900001)), 1);
   lfib->lfibExtFecAdjacencyIs(i1, fec, MplsLabelAction::pop);
   lfib->lfibRouteIs(LFib::ProtocolRoute(key, srte, AdjacencyKey(i1, AdjacencyType::externalFec)));
   lfib->lfibRouteIs(LFib::ProtocolRoute(key, srte, AdjacencyKey(i1, AdjacencyType::externalFec)));
   const auto* adj = lfib->getExtFecAdjacency(lfib->lfibRoute(key)->via);
   ASSERT_NE(adj, nullptr);
   EXPECT_EQ(adj->fecId, fec);
   EXPECT_EQ(adj->labelAction, MplsLabelAction::pop);
   lfib->lfibExtFecAdjacencyIs(i1, fec, MplsLabelAction::pop); // unchanged
   lfib->lfibRouteDelAll();
   lfib->lfibExtFecAdjacencyDelAll();
   EXPECT_EQ(watch.seen, (Seen{"lfib", "adj:1", "route:900001/1", "route:900001/1", "adj:1"}));
   EXPECT_TRUE(lfib->lfibRoute().empty());

   // Indexes go back only through their own source, lowest free first.
   EXPECT_FALSE(alloc.releaseAdjacencyIndex(other, i1));
   EXPECT_TRUE(alloc.releaseAdjacencyIndex(srte, i1));
   EXPECT_FALSE(alloc.releaseAdjacencyIndex(srte, i1));
   EXPECT_TRUE(alloc.reserveAdjacencyIndex(srte, 3)); // a generator rebuilding after a restart
   EXPECT_FALSE(alloc.reserveAdjacencyIndex(srte, 2));
   EXPECT_EQ(alloc.getAdjacencyIndex(srte), 1u);
   EXPECT_EQ(alloc.getAdjacencyIndex(srte), 4u);
   EXPECT_EQ(alloc.owner(2), other);
   EXPECT_EQ(alloc.allocatedCount(), 4u);

   // Another name replaces the LFIB; deleting it leaves none.
   watch.seen.clear();
   EXPECT_NE(lfibStatus->lfibIs("other"), lfib);
   lfibStatus->lfibDel();
   lfibStatus->lfibDel();
   EXPECT_EQ(lfibStatus->lfib(), nullptr);
   EXPECT_EQ(watch.seen, (Seen{"lfib", "lfib"}));
}

} // namespace
