#include <gtest/gtest.h>

#include "input/SrTePolicyExportTypes.h"

namespace {

using namespace SrTePolicy;
using Export::Segment;

Segment seg(uint32_t label) { return Segment(Ipkit::MplsLabel(label)); }

std::vector<uint32_t> labels(const Export::SegmentList& list) {
   std::vector<uint32_t> out;
   for (const Segment& s : list.segment()) out.push_back(s.mplsLabel.value());
   return out;
}

struct ListLog : Export::SegmentList::Notifiee {
   std::string seen;
   void onSize() override { seen += "n"; }
   void onSegment(const Ipkit::MplsStackEntryIndex& i) override { seen += std::to_string(i.value); }
};

TEST(ExportSegmentList, ArrayGrowsPastInlineAndKeepsIndices) {
   auto list = Mox::make<Export::SegmentList>(SegmentListId(1));
   ListLog log;
   log.notifierIs(list);

   list->sizeIs(8);
   for (uint32_t i = 0; i < 7; ++i) list->segmentIs(i, seg(16000 + i));
   EXPECT_TRUE(list->segment().isInline());
   list->segmentIs(Ipkit::MplsStackEntryIndex(7), seg(16007));
   EXPECT_FALSE(list->segment().isInline());
   EXPECT_EQ(labels(*list).back(), 16007u);
   list->segmentIs(3, seg(16003)); // unchanged: silent
   EXPECT_EQ(log.seen, "n01234567");

   // Deleting an inner label keeps the later ones at their index; deleting the last shrinks,
   // taking the hole with it, and the array moves back in place.
   log.seen.clear();
   list->segmentDel(6u);
   EXPECT_EQ(list->segment(7u), seg(16007));
   list->segmentDel(7u);
   EXPECT_EQ(labels(*list), (std::vector<uint32_t>{16000, 16001, 16002, 16003, 16004, 16005}));
   EXPECT_TRUE(list->segment().isInline());
   list->segmentDel(7u); // absent: silent
   EXPECT_EQ(log.seen, "67");

   // Writing past the end leaves null-label slots in between.
   list->segmentIs(7u, seg(17000));
   EXPECT_EQ(list->segment(6u).mplsLabel.value(), 1048576u);
   log.seen.clear();
   list->segmentDelAll();
   EXPECT_EQ(log.seen, "01234567");
   // Grown again from empty: no stale label from before.
   list->segmentIs(2u, seg(5));
   EXPECT_EQ(labels(*list), (std::vector<uint32_t>{1048576, 1048576, 5}));
}

TEST(ExportSegmentList, OutOfRangeIndexRejectedWithoutChange) {
   auto list = Mox::make<Export::SegmentList>(SegmentListId(1));
   list->segmentIs(0u, seg(16000));
   ListLog log;
   log.notifierIs(list);
   try {
      list->segmentIs(8u, seg(1));
      FAIL() << "index 8 accepted";
   } catch (const Mox::RangeError& e) {
      EXPECT_STREQ(e.what(), "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                             "MplsStackEntryIndex::max not allowed");
   }
   EXPECT_THROW(list->segmentDel(8u), Mox::RangeError);
   EXPECT_EQ(labels(*list), (std::vector<uint32_t>{16000}));
   EXPECT_EQ(log.seen, "");
}

TEST(ExportSegment, StreamsAndParsesItsLabel) {
   EXPECT_EQ(::testing::PrintToString(seg(16001)), "16001");
   EXPECT_EQ(seg(16001).valueToStrep(),
             "Value('SrTePolicy::Export::Segment', ** {'mplsLabel': 16001})");

   const std::string text = "{'mplsLabel': 16001}";
   EXPECT_EQ(Segment(text.begin(), text.end()), seg(16001));
   EXPECT_EQ(Segment::parse("{}"), Segment());
   EXPECT_THROW(Segment::parse("mplsLabel: 8388609"), Mox::RangeError);
   EXPECT_THROW(Segment::parse("mplsLabel: 99999999999999999999999"), Mox::RangeError);

   AttrLog::Writer w;
   seg(24).writeTo(w);
   AttrLog::Reader r(w.buffer());
   EXPECT_EQ(Segment::readFrom(r), seg(24));
}

TEST(ExportSegmentListCollection, ListsCreatedOnceEmptyListsAllowed) {
   auto coll = Export::segmentListCollectionFactory("exportedSegmentLists");
   struct Log : Export::SegmentListCollection::Notifiee {
      std::vector<uint32_t> seen;
      void onSegmentList(const SegmentListId& id) override { seen.push_back(id.value); }
   } log;
   log.notifierIs(coll);

   auto a = coll->segmentListIs(SegmentListId(2));
   EXPECT_EQ(coll->segmentListIs(SegmentListId(2)), a);
   a->sizeIs(1);
   a->segmentIs(0u, seg(16002));
   auto empty = coll->segmentListIs(SegmentListId(1));
   empty->sizeIs(0);
   EXPECT_TRUE(empty->segment().empty());
   EXPECT_EQ(log.seen, (std::vector<uint32_t>{2, 1}));

   std::string out;
   coll->dump(out, 0);
   EXPECT_EQ(out, " segmentList #2 \n"
                  "  name: 1\n  size: 0\n  segments: []\n"
                  "  name: 2\n  size: 1\n  segments: [16002 ]\n");

   coll->segmentListDel(SegmentListId(9));
   coll->segmentListDelAll();
   EXPECT_EQ(log.seen.size(), 4u);
   EXPECT_TRUE(coll->segmentList().empty());
}

} // namespace
