#include <algorithm>
#include <gtest/gtest.h>

#include "input/SrTePolicySelectionInput.h"
#include "segment/SrTePolicyCoreDedupTable.h"
#include "segment/SrTePolicySegmentListStatus.h"

using namespace SrTePolicy;

namespace {

Tunnel::TunnelTable::MplsVia via(const char* nexthop, uint32_t intf, uint32_t label) {
   Tunnel::TunnelTable::MplsVia v;
   v.nexthop = *Ipkit::IpGenAddr::parse(nexthop);
   v.intfId = Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, intf);
   v.labelOp.push(Ipkit::MplsLabel(label));
   return v;
}

TEST(SegmentList, RepeatedLabelIsOneSegmentAndEditsKeepTheStackDense) {
   CoreDedupTables tables;
   Ipkit::MplsLabelOperation op;
   op.push(Ipkit::MplsLabel(16001));
   op.push(Ipkit::MplsLabel(16001));
   auto list = tables.dedupSegmentList(op);
   EXPECT_EQ(list->size(), 2u);
   EXPECT_EQ(list->getSegmentId(0), list->getSegmentId(1));
   EXPECT_EQ(tables.notifyingSegmentCollection()->segmentNotifier().size(), 1u);
   EXPECT_EQ(list->stringValue(), "segmentListId: 1 size: 2 \n");

   // A candidate list edited in place: removing the top entry leaves a hole, removing the
   // bottom one shrinks the stack.
   SegmentList draft;
   draft.segmentIs(Ipkit::MplsStackEntryIndex(0), tables.dedupSegment(Ipkit::MplsLabel(1)));
   draft.segmentIs(Ipkit::MplsStackEntryIndex(2), tables.dedupSegment(Ipkit::MplsLabel(3)));
   EXPECT_EQ(draft.size(), 3u);
   EXPECT_EQ(draft.segmentLabel(1), Ipkit::MplsLabel()); // the gap reads as no label
   draft.segmentDel(Ipkit::MplsStackEntryIndex(2));
   EXPECT_EQ(draft.size(), 1u);
   draft.segmentDelAll();
   EXPECT_EQ(draft.size(), 0u);
   EXPECT_EQ(tables.notifyingSegmentCollection()->segmentNotifier().size(), 1u);
}

TEST(SegmentList, ViaSetsCompareAsWholeSetsAndCannotBeParsed) {
   MplsViaSet a, b;
   EXPECT_TRUE(!a);
   a.viaIs(via("10.0.0.1", 1, 16001));
   a.viaIs(via("10.0.0.2", 2, 16001));
   a.viaIs(via("10.0.0.1", 1, 16001)); // equal vias collapse
   b.viaIs(via("10.0.0.2", 2, 16001));
   b.viaIs(via("10.0.0.1", 1, 16001));
   EXPECT_EQ(a.size(), 2u);
   EXPECT_TRUE(a == b);
   b.viaDel(via("10.0.0.1", 1, 16001));
   EXPECT_FALSE(a == b);
   EXPECT_FALSE(b.viaHas(via("10.0.0.1", 1, 16001)));
   EXPECT_DEATH(MplsViaSet::fromString("x"),
                "No String constructor for MplsViaSet - has collection");
}

TEST(SegmentList, StatusNotifiesOncePerChangedList) {
   auto status = Mox::make<SegmentListStatus>("segmentListStatus");
   struct Log : SegmentListStatus::Notifiee {
      std::string seen;
      void onStatus(const SegmentListId& id) override { seen += id.stringValue(); }
   } log;
   log.notifierIs(status);
   status->statusIs(SegmentListId(1), SegmentListResolveError::success);
   status->statusIs(SegmentListId(1), SegmentListResolveError::success); // unchanged
   status->statusIs(SegmentListId(2), SegmentListResolveError::zeroLabels);
   status->statusIs(SegmentListId(1), SegmentListResolveError::platformLabelStackDepthExceeded);
   EXPECT_EQ(log.seen, "121");
   // Removal of every list: one notification per list, in no particular order.
   log.seen.clear();
   status->statusDelAll();
   std::sort(log.seen.begin(), log.seen.end());
   EXPECT_EQ(log.seen, "12");
   EXPECT_EQ(status->status(SegmentListId(1)), nullptr);
}

// A list finds its entry in the segment-list-to-policy map without a lookup; the shortcut must
// follow the map exactly: removal, re-registration, and a map that goes while the list lives on
// (a restart destroys the map, the list may still be held).
TEST(SegmentList, AListFindsItsMapEntryExactlyAsTheMapHoldsIt) {
   CoreDedupTables tables;
   Ipkit::MplsLabelOperation labels;
   labels.push(Ipkit::MplsLabel(16001));
   labels.push(Ipkit::MplsLabel(16002));
   Mox::Ptr<SegmentList> list = tables.dedupSegmentList(labels);
   const SegmentListId id = list->segmentListId();
   const PolicyId path(PolicyKey(Ipkit::IpGenAddr::v4(0x0a000001), Color(1)), Protocol::bgp,
                       Discriminator(1));
   {
      auto map = Mox::make<SegmentListIdToPolicyMap>();
      EXPECT_EQ(map->segmentListUser(*list), nullptr);
      SegmentListUser* user = map->segmentListUserIs(id, list);
      user->policyIdIs(Mox::make<PolicyIdEntry>(path, Preference(100), Originator()));
      EXPECT_EQ(map->segmentListUser(*list), user);
      EXPECT_EQ(map->segmentListUserIs(id, list), user) << "registered once";
      map->segmentListUserDel(id);
      EXPECT_EQ(map->segmentListUser(*list), nullptr);
      SegmentListUser* again = map->segmentListUserIs(id, list);
      EXPECT_EQ(map->segmentListUser(*list), again);
      map->segmentListUserDelAll();
      EXPECT_EQ(map->segmentListUser(*list), nullptr);
      map->segmentListUserIs(id, list);
   } // the map goes with the entry in it; the list stays
   auto next = Mox::make<SegmentListIdToPolicyMap>();
   EXPECT_EQ(next->segmentListUser(*list), nullptr);
   EXPECT_EQ(next->segmentListUser(id), nullptr);
   SegmentListUser* user = next->segmentListUserIs(id, list);
   EXPECT_EQ(next->segmentListUser(*list), user);
}

// The users of a list are their paths' ids, held through the paths' selection-input entries: a
// reactor hears the id on every change, a large set (past the linear members) behaves the same,
// and an entry that only the set still held stays readable while the reactors hear it leave.
TEST(SegmentList, UsersAreThePathsIdsWhateverHoldsThem) {
   struct Heard : SegmentListUser::Notifiee {
      std::vector<PolicyId> ids;
      void onPolicyId(const PolicyId& id) override { ids.push_back(id); }
   };
   auto path = [](uint32_t n) {
      return PolicyId(PolicyKey(Ipkit::IpGenAddr::v4(0x0a000000 + n), Color(1)), Protocol::bgp,
                      Discriminator(n));
   };
   auto user = Mox::make<SegmentListUser>(SegmentListId(7), nullptr);
   Heard heard;
   heard.notifierIs(user);

   std::vector<Mox::Ptr<PolicyIdEntry>> entries;
   for (uint32_t n = 1; n <= 20; ++n) {
      entries.push_back(Mox::make<PolicyIdEntry>(path(n), Preference(100), Originator()));
      user->policyIdIsNew(entries.back());
   }
   user->policyIdIs(entries[3]); // already a user: nobody hears it
   EXPECT_EQ(heard.ids.size(), 20u);
   EXPECT_EQ(user->policyId().size(), 20u);
   EXPECT_TRUE(user->policyIdHas(path(20)));
   EXPECT_FALSE(user->policyIdHas(path(21)));
   std::vector<PolicyId> expected;
   for (uint32_t n = 1; n <= 20; ++n) expected.push_back(path(n));
   std::sort(expected.begin(), expected.end());
   EXPECT_EQ(Mox::sortedKeys(user->policyId()), expected);

   heard.ids.clear();
   user->policyIdDel(path(5));     // by id
   user->policyIdDel(*entries[5]); // by entry
   user->policyIdDel(path(5));     // gone already: nobody hears it
   EXPECT_EQ(heard.ids, (std::vector<PolicyId>{path(5), path(6)}));

   // Only the set holds the rest now: every id is still readable as it leaves.
   entries.clear();
   heard.ids.clear();
   user->policyIdDelAll();
   EXPECT_TRUE(user->policyId().empty());
   std::sort(heard.ids.begin(), heard.ids.end());
   expected.erase(expected.begin() + 4, expected.begin() + 6);
   EXPECT_EQ(heard.ids, expected);
}

} // namespace
