#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/TestValues.h"
#include "types/SrTePolicyInput.h"

namespace {

using namespace SrTePolicy;
using namespace SrTePolicy::Test;

PolicyId idOf(uint32_t color, uint32_t discriminator, Protocol p = Protocol::bgp) {
   return PolicyId(PolicyKey(addr("10.0.0.1"), Color(color)), p, Discriminator(discriminator));
}

PolicyInputEntry entryWithLists(const PolicyId& id, uint32_t lists) {
   PolicyInputEntry e(id);
   e.originatorIs(Originator(65000, addr("10.0.0.9")));
   e.bindingSidIs(Ipkit::MplsLabel(900001));
   for (uint32_t i = 0; i < lists; ++i) {
      e.segmentListIs(SegmentListIndex(i), WeightedSegList(Weight(i + 1), stack({16001 + i})));
   }
   return e;
}

TEST(PolicyInputEntry, NewRecordDefaultsAndSlotEditing) {
   PolicyInputEntry e(idOf(100, 1));
   EXPECT_EQ(e.preference().value, 100u);
   EXPECT_TRUE(e.bindingSid().isNull());
   EXPECT_EQ(e.bindingSid().value(), 1048576u);
   EXPECT_EQ(e.originator().asn, 0u);
   EXPECT_TRUE(e.originator().address.isUnspecified());
   EXPECT_EQ(e.segmentListCount(), 0u);
   EXPECT_EQ(e.serializeLen(), 68u);

   // Filling slot 3 of an empty record covers the skipped slots.
   WeightedSegList three(Weight(7), stack({16004}));
   e.segmentListIs(SegmentListIndex(3), three);
   EXPECT_EQ(e.segmentListCount(), 4u);
   EXPECT_EQ(e.serializeLen(), 68u + 4 * 44u);
   EXPECT_EQ(e.segmentList(SegmentListIndex(3)), three);

   // Deleting a middle slot keeps the used slots packed from 0.
   PolicyInputEntry f = entryWithLists(idOf(100, 1), 3);
   f.segmentListDel(SegmentListIndex(1));
   EXPECT_EQ(f.segmentListCount(), 2u);
   EXPECT_EQ(f.segmentList(SegmentListIndex(1)).weight.value, 3u);
   f.segmentListDel(SegmentListIndex(9)); // beyond the count: nothing
   EXPECT_EQ(f.segmentListCount(), 2u);
   f.segmentListDelAll();
   EXPECT_EQ(f.segmentListCount(), 0u);
}

TEST(PolicyInputEntry, EqualityComparesUsedSlotsOnly) {
   PolicyInputEntry a = entryWithLists(idOf(100, 1), 2);
   PolicyInputEntry b = entryWithLists(idOf(100, 1), 3);
   EXPECT_NE(a, b);
   b.segmentListDel(SegmentListIndex(2));
   EXPECT_EQ(a, b);
   b.segmentListIs(SegmentListIndex(1), WeightedSegList(Weight(9), stack({16002})));
   EXPECT_NE(a, b); // only one slot's weight differs
   PolicyInputEntry c = a;
   c.originatorIs(Originator(1, addr("10.0.0.10")));
   EXPECT_NE(a, c);
   EXPECT_EQ(a.key(), c.key()); // ...yet it names the same input
}

TEST(PolicyInputEntry, SerializedFormIsTheRecordUpToItsLastUsedSlot) {
   PolicyInputEntry full = entryWithLists(idOf(100, 1), 16);
   EXPECT_EQ(full.serializeLen(), 772u);
   std::vector<uint8_t> buf(772);
   ASSERT_EQ(full.serialize(buf.data(), buf.size()), 772u);
   EXPECT_EQ(full.serialize(buf.data(), 771), 0u); // no room, nothing written

   PolicyInputEntry three = entryWithLists(idOf(200, 2), 3);
   three.preferenceIs(Preference(0x01020304));
   ASSERT_EQ(three.serialize(buf.data(), buf.size()), 68u + 3 * 44u);
   uint32_t word;
   std::memcpy(&word, buf.data() + 56, 4);
   EXPECT_EQ(word, 0x01020304u);
   std::memcpy(&word, buf.data() + 60, 4);
   EXPECT_EQ(word, 900001u);
   std::memcpy(&word, buf.data() + 64, 4);
   EXPECT_EQ(word, 3u);
   std::memcpy(&word, buf.data() + 68 + 2 * 44, 4);
   EXPECT_EQ(word, 3u); // weight of slot 2

   EXPECT_EQ(PolicyInputEntry::deserializeLen(buf.data(), 200), 772u);
   PolicyInputEntry back;
   ASSERT_TRUE(back.deserialize(buf.data(), 200));
   EXPECT_EQ(back, three);

   // A buffer claiming 17 lists (or too short for its count) is not a record and is never read.
   word = 17;
   std::vector<uint8_t> bogus(772 + 44, 0);
   std::memcpy(bogus.data() + 64, &word, 4);
   EXPECT_EQ(PolicyInputEntry::deserializeLen(bogus.data(), bogus.size()), 0u);
   EXPECT_FALSE(back.deserialize(bogus.data(), bogus.size()));
   EXPECT_EQ(back, three);
   EXPECT_EQ(PolicyInputEntry::deserializeLen(buf.data(), 68 + 2 * 44), 0u);
   EXPECT_EQ(PolicyInputEntry::deserializeLen(buf.data(), 67), 0u);
}

TEST(PolicyInputEntry, TextAndDumpForms) {
   PolicyInputEntry e = entryWithLists(idOf(100, 7), 2);
   std::string strep = e.valueToStrep();
   EXPECT_EQ(strep.rfind("Value('SrTePolicy::PolicyInputEntry', ** {'key': "
                         "Value('SrTePolicy::PolicyId', ",
                         0),
             0u);
   EXPECT_NE(strep.find("'bindingSid': Value('Ipkit::MplsLabel', ** {'value': 900001}), "
                        "'segmentList': [Value('SrTePolicy::WeightedSegList', "),
             std::string::npos);
   try {
      PolicyInputEntry::fromStrep(strep);
      ADD_FAILURE();
   } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "!\"No String constructor for PolicyInputEntry - has collection\"");
   }

   std::string out;
   e.dump(out, 2);
   EXPECT_EQ(out, "  10.0.0.1|100|bgp|7, originator: 10.0.0.9(AS65000), preference: 100\n"
                  "    bindingSid: 900001\n"
                  "    SegmentList #2 \n"
                  "      weight: 1, segments: [16001] \n"
                  "      weight: 2, segments: [16002] \n");
}

// Records every notification of an input table, in order.
struct InputLog : PolicyInput::Notifiee {
   std::vector<std::string> seen;
   void onPolicyInputEntry(const PolicyId& id) override { seen.push_back(id.stringValue()); }
   void onPolicyInputEntry() override { seen.push_back("all"); }
   void onMountStatus() override { seen.push_back("mount"); }
};

TEST(PolicyInput, WritesDeletesAndMountsNotifyReadersPerKey) {
   auto input = policyInputFactory("bgp");
   InputLog log;
   log.notifierIs(input);
   PolicyInputEntry e = entryWithLists(idOf(100, 1), 1);
   input->policyInputEntryIs(e);
   // Same id, other originator: the same input, replaced whole.
   e.originatorIs(Originator(7, addr("10.9.9.9")));
   input->policyInputEntryIs(e);
   input->policyInputEntryIs(entryWithLists(idOf(100, 2), 2));
   input->policyInputEntryIs(entryWithLists(idOf(200, 1), 0));
   EXPECT_EQ(input->policyInputEntryCount(), 3u);
   EXPECT_EQ(log.seen, (std::vector<std::string>{"10.0.0.1|100|bgp|1", "10.0.0.1|100|bgp|1",
                                                 "10.0.0.1|100|bgp|2", "10.0.0.1|200|bgp|1"}));
   // A lookup is a copy: changing it does not touch the table.
   auto copy = input->policyInputEntry(idOf(100, 1));
   ASSERT_TRUE(copy);
   EXPECT_EQ(copy->originator().asn, 7u);
   copy->preferenceIs(Preference(5));
   EXPECT_EQ(input->policyInputEntryFind(idOf(100, 1))->preference().value, 100u);
   EXPECT_FALSE(input->policyInputEntry(idOf(100, 3)));
   size_t lists = 0;
   for (const PolicyInputEntry& r : input->policyInputEntry()) lists += r.segmentListCount();
   EXPECT_EQ(lists, 3u);

   log.seen.clear();
   EXPECT_FALSE(input->policyInputEntryDel(idOf(999, 1)));
   EXPECT_TRUE(input->policyInputEntryDel(idOf(200, 1)));
   input->policyInputEntryDelAll();
   EXPECT_EQ(log.seen.size(), 3u);
   EXPECT_EQ(log.seen[0], "10.0.0.1|200|bgp|1");
   EXPECT_EQ(input->policyInputEntryCount(), 0u);

   log.seen.clear();
   input->mountStatusIs(Vault::MountStatus::unmounted);
   input->mountStatusIs(Vault::MountStatus::mounted);
   input->mountStatusIs(Vault::MountStatus::mounted);
   EXPECT_EQ(log.seen, (std::vector<std::string>{"mount", "mount", "all"}));
}

TEST(PolicyInput, InPlaceWritesReachReadersAtCommitAndCorruptionIsFatal) {
   auto input = policyInputFactory("static");
   InputLog log;
   log.notifierIs(input);
   PolicyInputEntry& slot = input->policyInputEntryWritable(idOf(100, 1));
   slot.preferenceIs(Preference(250));
   slot.segmentListIs(SegmentListIndex(0), WeightedSegList(Weight(1), stack({16001})));
   EXPECT_TRUE(log.seen.empty());
   input->policyInputEntryCommit(slot);
   EXPECT_EQ(log.seen, std::vector<std::string>{"10.0.0.1|100|bgp|1"});
   EXPECT_EQ(input->policyInputEntry(idOf(100, 1))->preference().value, 250u);

   // Committing a copy, or a record whose count a faulty writer overran, is corruption.
   PolicyInputEntry copy = slot;
   EXPECT_THROW(input->policyInputEntryCommit(copy), Vault::Corruption);
   uint32_t overrun = 17;
   std::memcpy(reinterpret_cast<uint8_t*>(&slot) + PolicyInputEntry::fixedLen, &overrun, 4);
   EXPECT_THROW(input->policyInputEntryCommit(slot), Vault::Corruption);
   EXPECT_EQ(log.seen.size(), 1u);
   // Clearing such a record stops at the slot bound rather than running past the array.
   EXPECT_THROW(slot.segmentListDelAll(), Mox::RangeError);
}

// Writers fill records in place and readers keep a found record while they work: a record must
// not move when the table grows around it or when other records leave and their memory is reused.
TEST(PolicyInput, RecordsStayPutWhileTheTableGrowsAndOthersLeave) {
   auto input = policyInputFactory("bgp");
   PolicyInputEntry& held = input->policyInputEntryWritable(idOf(1, 1));
   held.preferenceIs(Preference(7));
   input->policyInputEntryCommit(held);
   const PolicyInputEntry* found = input->policyInputEntryFind(idOf(1, 1));
   ASSERT_EQ(found, &held);
   for (uint32_t round = 0; round < 3; ++round) {
      for (uint32_t d = 2; d < 5000; ++d) input->policyInputEntryIs(entryWithLists(idOf(1, d), 2));
      for (uint32_t d = 2; d < 5000; d += 2) input->policyInputEntryDel(idOf(1, d));
   }
   EXPECT_EQ(input->policyInputEntryFind(idOf(1, 1)), &held);
   EXPECT_EQ(held.preference().value, 7u);
   EXPECT_EQ(input->policyInputEntryCount(), 1u + 2499u);
   // Records that came back after a removal hold what was last written, not a reused slot's past.
   ASSERT_EQ(input->policyInputEntryFind(idOf(1, 4998)), nullptr);
   input->policyInputEntryIs(entryWithLists(idOf(1, 4998), 1));
   const PolicyInputEntry* back = input->policyInputEntryFind(idOf(1, 4998));
   ASSERT_NE(back, nullptr);
   EXPECT_EQ(*back, entryWithLists(idOf(1, 4998), 1));
   EXPECT_EQ(back->segmentListCount(), 1u);
   EXPECT_EQ(input->policyInputEntryFind(idOf(1, 4999))->segmentListCount(), 2u);
}

TEST(PolicyInputSource, HoldsOneTablePerProtocolAndDumpsThem) {
   auto source = policyInputSourceFactory("source");
   struct Log : PolicyInputSource::Notifiee {
      std::string seen;
      void onPolicyInput(const Protocol& p) override { seen += protocolEnumToString(p) + " "; }
   } log;
   log.notifierIs(source);
   auto bgp = policyInputFactory("bgp");
   auto stat = policyInputFactory("static");
   source->policyInputIs(Protocol::staticConfig, stat);
   source->policyInputIs(Protocol::bgp, bgp);
   source->policyInputIs(Protocol::bgp, bgp); // already there
   EXPECT_EQ(log.seen, "static bgp ");
   EXPECT_EQ(source->policyInput(Protocol::bgp), bgp);
   EXPECT_EQ(source->policyInput(Protocol::pcep), nullptr);

   bgp->policyInputEntryIs(entryWithLists(idOf(100, 1), 1));
   std::string out;
   source->dump(out, 1);
   EXPECT_EQ(out, " policyInput #2 \n"
                  " Protocol: bgp \n"
                  "   policyInputEntries #1 \n"
                  "   10.0.0.1|100|bgp|1, originator: 10.0.0.9(AS65000), preference: 100\n"
                  "     bindingSid: 900001\n"
                  "     SegmentList #1 \n"
                  "       weight: 1, segments: [16001] \n"
                  "   \n"
                  " Protocol: static \n"
                  "   policyInputEntries #0 \n"
                  "   \n");
   log.seen.clear();
   source->policyInputDelAll();
   EXPECT_EQ(source->policyInputCount(), 0u);
   EXPECT_TRUE(log.seen == "static bgp " || log.seen == "bgp static ") << log.seen;
}

} // namespace
