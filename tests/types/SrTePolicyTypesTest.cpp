#include <gtest/gtest.h>

#include <set>

#include "tests/support/TestValues.h"
#include "types/SrTePolicyTypes.h"

namespace {

using namespace SrTePolicy;
using namespace SrTePolicy::Test;

TEST(SrTePolicyTypes, BoundsRefuseWithTheTypesOwnMessage) {
   EXPECT_EQ(Preference().value, 100u);
   EXPECT_EQ(Preference(maxU32()).value, 4294967295u);
   EXPECT_EQ(rangeError([] { Weight(0); }),
             "Weight::value < Weight::min or > Weight::max not allowed");
   EXPECT_EQ(Weight(1).value, 1u);
   EXPECT_EQ(Weight(maxU32()).value, maxU32());
   EXPECT_EQ(rangeError([] { SegmentListIndex(16); }),
             "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not "
             "allowed");
   EXPECT_EQ(SegmentListIndex(15).value, 15u);
   EXPECT_EQ(Index(maxU64()).value, maxU64());
   // Index arithmetic is deliberately unchecked: it walks one past the last slot.
   EXPECT_EQ((SegmentListIndex(15) + SegmentListIndex(1)).value, 16u);
}

TEST(SrTePolicyTypes, OrderingAndHashingFollowEveryField) {
   PolicyKey key(addr("10.0.0.1"), Color(100));
   PolicyId a(key, Protocol::bgp, Discriminator(1));
   PolicyId b(key, Protocol::bgp, Discriminator(2));
   PolicyId a2(PolicyKey(addr("10.0.0.1"), Color(100)), Protocol::bgp, Discriminator(1));
   EXPECT_NE(a, b);
   EXPECT_LT(a, b);
   EXPECT_NE(a.hash(), b.hash());
   EXPECT_EQ(a, a2);
   EXPECT_EQ(a.hash(), a2.hash());

   // Keys order by endpoint first, then color.
   std::set<PolicyKey> keys{PolicyKey(addr("10.0.0.2"), Color(1)),
                            PolicyKey(addr("10.0.0.1"), Color(200)),
                            PolicyKey(addr("10.0.0.1"), Color(100))};
   std::string order;
   for (const auto& k : keys) order += k.stringValue() + " ";
   EXPECT_EQ(order, "10.0.0.1|100 10.0.0.1|200 10.0.0.2|1 ");

   // Weighted lists order by weight before labels.
   EXPECT_LT(WeightedSegList(Weight(1), stack({900})), WeightedSegList(Weight(2), stack({100})));
   EXPECT_NE(WeightedSegList(Weight(1), stack({16001, 16002})).hash(),
             WeightedSegList(Weight(1), stack({16002, 16001})).hash());
}

TEST(SrTePolicyTypes, StructuredTextRoundTripsAndRangeChecks) {
   EXPECT_EQ(Weight(5).valueToStrep(), "Value('SrTePolicy::Weight', ** {'value': 5})");
   WeightedSegList wsl(Weight(3), stack({16001, 16002}));
   EXPECT_EQ(wsl.valueToStrep(),
             "Value('SrTePolicy::WeightedSegList', ** {'weight': Value('SrTePolicy::Weight', ** "
             "{'value': 3}), 'segList': Value('Ipkit::MplsLabelOperation', ** {'action': 3, "
             "'stack': [16001, 16002]})})");
   EXPECT_EQ(WeightedSegList::fromStrep(wsl.valueToStrep()), wsl);

   PolicyId id(PolicyKey(addr("2001:db8::1"), Color(maxU32())), Protocol::staticConfig,
               Discriminator(9));
   EXPECT_EQ(PolicyId::fromStrep(id.valueToStrep()), id);
   Originator o(65001, addr("192.0.2.1"));
   EXPECT_EQ(Originator::fromStrep(o.valueToStrep()), o);
   EXPECT_EQ(CandidateId::fromStrep(CandidateId(id).valueToStrep()), CandidateId(id));
   EXPECT_EQ(Index::fromStrep(Index(maxU64()).valueToStrep()), Index(maxU64()));

   // Fields are read by name: order does not matter; protocols by name or number.
   EXPECT_EQ(CandidateId::fromStrep("Value('SrTePolicy::CandidateId', ** {'discriminator': "
                                    "Value('SrTePolicy::Discriminator', ** {'value': 9}), "
                                    "'protocol': 30})"),
             CandidateId(id));
   EXPECT_THROW(CandidateId::fromStrep("Value('SrTePolicy::CandidateId', ** {'discriminator': "
                                       "Value('SrTePolicy::Discriminator', ** {'value': 9}), "
                                       "'protocol': 'carrier-pigeon'})"),
                Strep::ParseError);

   EXPECT_EQ(rangeError([] { Weight::fromStrep("Value('SrTePolicy::Weight', ** {'value': 0})"); }),
             Weight::rangeMessage);
   EXPECT_EQ(rangeError([] { Index::fromStrep("Value('SrTePolicy::Index', ** {'value': -1})"); }),
             Index::rangeMessage);
   EXPECT_EQ(rangeError([] {
                SegmentListIndex::fromStrep(
                    "Value('SrTePolicy::SegmentListIndex', ** {'value': 16})");
             }),
             SegmentListIndex::rangeMessage);
   // A Weight where a Color belongs is a type error, not a silent conversion.
   EXPECT_THROW(Color::fromStrep(Weight(5).valueToStrep()), Strep::ParseError);
}

TEST(SrTePolicyTypes, AttributeLogRoundTripsAndRefusesOutOfRangeValues) {
   PolicyId id(PolicyKey(addr("10.1.2.3"), Color(7)), Protocol::bgp, Discriminator(11));
   Originator o(65000, addr("2001:db8::9"));
   WeightedSegList wsl(Weight(maxU32()), stack({16001, 16002, 16003}));
   AttrLog::Writer w;
   id.attrLogWrite(w);
   EXPECT_EQ(w.buffer().size(), 32u); // endpoint 20, color, protocol, discriminator: 4 each
   Index(0x0102030405060708ull).attrLogWrite(w);
   EXPECT_EQ(std::vector<uint8_t>(w.buffer().end() - 8, w.buffer().end()),
             (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
   o.attrLogWrite(w);
   wsl.attrLogWrite(w);
   CandidateId(id).attrLogWrite(w);
   SegmentListId(5).attrLogWrite(w);

   AttrLog::Reader r(w.buffer());
   EXPECT_EQ(PolicyId::attrLogRead(r), id);
   EXPECT_EQ(Index::attrLogRead(r).value, 0x0102030405060708ull);
   EXPECT_EQ(Originator::attrLogRead(r), o);
   EXPECT_EQ(WeightedSegList::attrLogRead(r), wsl);
   EXPECT_EQ(CandidateId::attrLogRead(r), CandidateId(id));
   EXPECT_EQ(SegmentListId::attrLogRead(r), SegmentListId(5));
   EXPECT_EQ(r.remaining(), 0u);

   // A weight of 0 in a stream is refused, alone or inside a weighted segment list.
   AttrLog::Writer bad;
   bad.u32(0);
   stack({16001}).attrLogWrite(bad);
   EXPECT_EQ(rangeError([&] {
                AttrLog::Reader br(bad.buffer());
                WeightedSegList::attrLogRead(br);
             }),
             Weight::rangeMessage);
   AttrLog::Writer index16;
   index16.u32(16);
   EXPECT_EQ(rangeError([&] {
                AttrLog::Reader br(index16.buffer());
                SegmentListIndex::attrLogRead(br);
             }),
             SegmentListIndex::rangeMessage);
}

} // namespace
