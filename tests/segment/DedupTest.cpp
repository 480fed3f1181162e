#include <gtest/gtest.h>

#include "segment/SrTePolicyCoreDedupTable.h"

using namespace SrTePolicy;

namespace {

Ipkit::MplsLabelOperation stack(std::initializer_list<uint32_t> labels) {
   Ipkit::MplsLabelOperation op;
   for (uint32_t l : labels) op.push(Ipkit::MplsLabel(l));
   return op;
}

// Records what reactors of the two notifying collections see.
struct Watch : NotifyingSegmentCollection::Notifiee, NotifyingSegmentListCollection::Notifiee {
   std::string log;
   Watch() = default;
   explicit Watch(const CoreDedupTables& tables) {
      NotifyingSegmentCollection::Notifiee::notifierIs(tables.notifyingSegmentCollection());
      NotifyingSegmentListCollection::Notifiee::notifierIs(tables.notifyingSegmentListCollection());
   }
   void onSegmentNotifier(const Mox::Ptr<SegmentLifeTimeNotifier>& n) override {
      bool in = NotifyingSegmentCollection::Notifiee::notifier()->segmentNotifierHas(n);
      log += (in ? "+s" : "-s") + n->segmentRawPtr()->segmentId().stringValue() + " ";
   }
   void onSegmentListNotifier(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) override {
      bool in = NotifyingSegmentListCollection::Notifiee::notifier()->segmentListNotifierHas(n);
      log += (in ? "+l" : "-l") + n->segmentListRawPtr()->segmentListId().stringValue() + " ";
   }
};

TEST(Dedup, EqualContentSharesOneCanonicalInstanceAndIdsStartAtOne) {
   CoreDedupTables tables;
   Watch watch(tables);

   auto a = tables.dedupSegmentList(stack({16001, 16002}));
   auto b = tables.dedupSegmentList(stack({16003, 16001}));
   auto a2 = tables.dedupSegmentList(stack({16001, 16002}));
   auto reversed = tables.dedupSegmentList(stack({16002, 16001}));

   EXPECT_EQ(a.get(), a2.get());
   EXPECT_NE(a.get(), reversed.get()); // order matters
   EXPECT_EQ(a->segmentListId(), SegmentListId(1));
   EXPECT_EQ(b->segmentListId(), SegmentListId(2));
   // 16001 is one canonical segment, first seen in list 1, so it has id 1.
   EXPECT_EQ(a->segment(Ipkit::MplsStackEntryIndex(0)), b->segment(Ipkit::MplsStackEntryIndex(1)));
   EXPECT_EQ(a->getSegmentId(0), SegmentId(1));
   EXPECT_EQ(tables.notifyingSegmentCollection()->segmentNotifier().size(), 3u);
   EXPECT_EQ(tables.notifyingSegmentListCollection()->segmentListNotifier().size(), 3u);
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +l2 +l3 ");
   EXPECT_EQ(a->segmentLabel(1), Ipkit::MplsLabel(16002));
   EXPECT_EQ(a->labelStack(), stack({16001, 16002}));
   try {
      a->segmentLabel(8);
      FAIL() << "index 8 accepted";
   } catch (const Mox::RangeError& e) {
      EXPECT_STREQ(e.what(), "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                             "MplsStackEntryIndex::max not allowed");
   }
}

TEST(Dedup, LastUserReleaseWithdrawsAtOnceAndReAddGetsFreshId) {
   CoreDedupTables tables;
   Watch watch(tables);

   auto shared = tables.dedupSegmentList(stack({16001}));
   auto other = tables.dedupSegmentList(stack({16001, 900}));
   Mox::Ptr<const SegmentBase> seg(shared->segment(Ipkit::MplsStackEntryIndex(0)));
   watch.log.clear();

   shared.reset(); // the list goes; its segment is still used by `other`
   EXPECT_EQ(watch.log, "-l1 ");
   EXPECT_NE(tables.segDedupTablePtr()->lookupByLabel(Ipkit::MplsLabel(16001)), nullptr);
   other.reset();
   EXPECT_EQ(watch.log, "-l1 -l2 -s2 ");
   // 16001 still has one holder here (`seg`), not a user of the table: it stays until released.
   EXPECT_EQ(tables.segDedupTablePtr()->dedupTable().size(), 1u);
   seg.reset();
   EXPECT_EQ(watch.log, "-l1 -l2 -s2 -s1 ");
   EXPECT_EQ(tables.segDedupTablePtr()->lookupByLabel(Ipkit::MplsLabel(16001)), nullptr);
   EXPECT_TRUE(tables.notifyingSegmentCollection()->segmentNotifier().empty());

   auto again = tables.dedupSegmentList(stack({16001}));
   EXPECT_EQ(again->segmentListId(), SegmentListId(3));
   EXPECT_EQ(again->getSegmentId(0), SegmentId(3)); // one above the highest ever issued
}

TEST(Dedup, WithdrawnSegmentLivesOnWhileAReactorHoldsIt) {
   CoreDedupTables tables;
   // A reactor that, like a status table, keeps the segment it is told about.
   struct Keeper : NotifyingSegmentCollection::Notifiee {
      Mox::Ptr<SegmentBase> kept;
      void onSegmentNotifier(const Mox::Ptr<SegmentLifeTimeNotifier>& n) override {
         if (!notifier()->segmentNotifierHas(n)) kept = n->segmentRawPtr();
      }
   } keeper;
   keeper.notifierIs(tables.notifyingSegmentCollection());

   auto seg = tables.dedupSegment(Ipkit::MplsLabel(17000));
   Mox::Ptr<SegmentMplsLabel> second = seg;
   EXPECT_EQ(seg->refCount(), 4u); // two users, the table, the lifetime notifier
   second.reset();
   EXPECT_NE(seg->segmentLifeTimeNotifier(), nullptr);
   seg.reset(); // last user: withdrawn at once, but the keeper's reference keeps the object
   ASSERT_NE(keeper.kept, nullptr);
   EXPECT_EQ(keeper.kept->segmentLifeTimeNotifier(), nullptr);
   EXPECT_EQ(keeper.kept->segmentId(), SegmentId(1));
   EXPECT_EQ(tables.segDedupTablePtr()->dedupTable().size(), 0u);
   keeper.kept.reset();
   EXPECT_EQ(tables.dedupSegment(Ipkit::MplsLabel(17000))->segmentId(), SegmentId(2));
}

// A reactor like the resolution stages' pending sets: it queues every new canonical segment and
// list it hears of, holding a reference, and drops the queue whenever it has worked through it.
struct PendingSets : NotifyingSegmentCollection::Notifiee,
                     NotifyingSegmentListCollection::Notifiee {
   std::vector<Mox::Ptr<SegmentBase>> segments;
   std::vector<Mox::Ptr<SegmentList>> lists;
   explicit PendingSets(const CoreDedupTables& tables) {
      NotifyingSegmentCollection::Notifiee::notifierIs(tables.notifyingSegmentCollection());
      NotifyingSegmentListCollection::Notifiee::notifierIs(tables.notifyingSegmentListCollection());
   }
   void onSegmentNotifier(const Mox::Ptr<SegmentLifeTimeNotifier>& n) override {
      if (NotifyingSegmentCollection::Notifiee::notifier()->segmentNotifierHas(n))
         segments.emplace_back(n->segmentRawPtr());
   }
   void onSegmentListNotifier(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) override {
      if (NotifyingSegmentListCollection::Notifiee::notifier()->segmentListNotifierHas(n))
         lists.emplace_back(n->segmentListRawPtr());
   }
};

TEST(Dedup, AReactorThatKeepsNewItemsForAWhileNeverWithdrawsWhatAUserHolds) {
   CoreDedupTables tables;
   Watch watch(tables);
   PendingSets pending(tables);

   // The reactor lets go first: the user still holds the list and its segments.
   auto list = tables.dedupSegmentList(stack({16001, 16002}));
   auto seg = tables.dedupSegment(Ipkit::MplsLabel(16003));
   pending.lists.clear();
   pending.segments.clear();
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 ");
   EXPECT_EQ(tables.notifyingSegmentListCollection()->segmentListNotifier().size(), 1u);
   EXPECT_EQ(tables.notifyingSegmentCollection()->segmentNotifier().size(), 3u);
   auto again = tables.dedupSegmentList(stack({16001, 16002}));
   EXPECT_EQ(again.get(), list.get()); // one object, one id
   EXPECT_EQ(tables.dedupSegment(Ipkit::MplsLabel(16003)).get(), seg.get());
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 ");

   // The users let go first: the entries stay until the reactor is done with them too, then leave
   // with the usual notifications, a list before the segments it holds.
   auto late = tables.dedupSegmentList(stack({16004}));
   late.reset();
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +s4 +l2 ");
   seg.reset(); // no longer queued: its last user's release withdraws it at once
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +s4 +l2 -s3 ");
   pending.lists.clear();
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +s4 +l2 -s3 -l2 ");
   pending.segments.clear();
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +s4 +l2 -s3 -l2 -s4 ");

   list.reset();
   again.reset();
   EXPECT_EQ(watch.log, "+s1 +s2 +l1 +s3 +s4 +l2 -s3 -l2 -s4 -l1 -s2 -s1 ");
   EXPECT_TRUE(tables.notifyingSegmentCollection()->segmentNotifier().empty());
   EXPECT_EQ(tables.segListDedupTablePtr()->dedupTable().size(), 0u);
}

TEST(Dedup, AListIsFoundByItsLabelsWithoutMakingAnythingCanonical) {
   CoreDedupTables tables;
   auto list = tables.dedupSegmentList(stack({16001, 16002, 16003}));
   Watch watch(tables);
   auto* lists = tables.segListDedupTablePtr();

   EXPECT_EQ(lists->lookupByLabels(stack({16001, 16002, 16003}), 3).get(), list.get());
   // A prefix, a reordering and an unknown label are other lists; none of them is created.
   EXPECT_EQ(lists->lookupByLabels(stack({16001, 16002, 16003}), 2), nullptr);
   EXPECT_EQ(lists->lookupByLabels(stack({16002, 16001, 16003}), 3), nullptr);
   EXPECT_EQ(lists->lookupByLabels(stack({16001, 16002, 16004}), 3), nullptr);
   EXPECT_EQ(watch.log, "");
   // The hash a stack gives is the one the canonical list was filed under.
   EXPECT_EQ(SegmentList::contentHash(stack({16001, 16002, 16003}), 3), list->dedupHash());

   // Deduplicating a known stack makes nothing new; a new stack makes only its new segment.
   EXPECT_EQ(tables.dedupSegmentList(stack({16001, 16002, 16003})).get(), list.get());
   auto other = tables.dedupSegmentList(stack({16003, 16004}));
   EXPECT_EQ(watch.log, "+s4 +l2 ");
   EXPECT_EQ(other->segment(Ipkit::MplsStackEntryIndex(0)),
             list->segment(Ipkit::MplsStackEntryIndex(2)));
}

TEST(Dedup, StoppingTablesWithEntriesEmptiesCollectionsWithNotifications) {
   auto tables = std::make_unique<CoreDedupTables>();
   Mox::Ptr<NotifyingSegmentCollection> segs(tables->notifyingSegmentCollection());
   Mox::Ptr<NotifyingSegmentListCollection> lists(tables->notifyingSegmentListCollection());
   Watch watch;
   watch.NotifyingSegmentCollection::Notifiee::notifierIs(segs);
   watch.NotifyingSegmentListCollection::Notifiee::notifierIs(lists);
   auto l = tables->dedupSegmentList(stack({1, 2}));
   watch.log.clear();
   tables.reset();
   EXPECT_TRUE(segs->segmentNotifier().empty());
   EXPECT_TRUE(lists->segmentListNotifier().empty());
   EXPECT_EQ(l->segmentListLifeTimeNotifier(), nullptr);
   EXPECT_EQ(watch.log.substr(0, 4), "-l1 ");
   // The user still holds a working (no longer canonical) list; releasing it is harmless.
   EXPECT_EQ(l->segmentLabel(1), Ipkit::MplsLabel(2));
   l.reset();
}

TEST(Dedup, OneAtATimeHashOfLabelSegment) {
   // Reference value computed by hand over bytes 01 00 00 00 then the label's bytes.
   SegmentMplsLabel s(Ipkit::MplsLabel(0));
   SegmentMplsLabel t(Ipkit::MplsLabel(0));
   SegmentMplsLabel u(Ipkit::MplsLabel(1));
   EXPECT_EQ(s.hash(), t.hash());
   EXPECT_NE(s.hash(), u.hash());
   uint32_t h = 0;
   for (uint8_t b : {1, 0, 0, 0, 0, 0, 0, 0}) {
      h += b;
      h += h << 10;
      h ^= h >> 6;
   }
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   EXPECT_EQ(s.hash(), h);
   EXPECT_TRUE(s.segmentCompare(t));
   EXPECT_FALSE(s.segmentCompare(u));
}

} // namespace
