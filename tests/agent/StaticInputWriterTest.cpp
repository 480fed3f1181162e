// The configuration process's conversion of static policies into protocol-30 input records,
// walked through the changes an operator makes.
#include <gtest/gtest.h>

#include "agent/StaticInputWriter.h"

namespace {

using namespace SrTePolicy;

Ipkit::MplsLabelOperation stack(std::initializer_list<uint32_t> labels) {
   Ipkit::MplsLabelOperation op;
   uint32_t i = 0;
   for (uint32_t l : labels) op.labelIs(Ipkit::MplsStackEntryIndex(i++), Ipkit::MplsLabel(l));
   return op;
}

struct Counter : PolicyInput::Notifiee {
   std::string seen;
   void onPolicyInputEntry(const PolicyId& id) override {
      seen += std::to_string(id.discriminator.value) + " ";
   }
};

struct Fixture {
   Mox::Ptr<Config> config = configFactory("config");
   Mox::Ptr<PolicyInputSource> source = policyInputSourceFactory("source");
   Agent::StaticInputWriter writer{config, source};
   PolicyKey key{*Ipkit::IpGenAddr::parse("10.0.0.2"), Color(100)};

   Mox::Ptr<PolicyInput> mountTable() {
      auto t = policyInputFactory("static");
      source->policyInputIs(Protocol::staticConfig, t);
      return t;
   }
   std::optional<PolicyInputEntry> record(const Mox::Ptr<PolicyInput>& t, uint32_t pref) {
      return t->policyInputEntry(PolicyId(key, Protocol::staticConfig, Discriminator(pref)));
   }
};

TEST(StaticInputWriter, RecordFollowsTheConfiguredPathInIndexOrder) {
   Fixture f;
   auto table = f.mountTable();
   Counter counter;
   counter.notifierIs(table);
   auto policy = f.config->policyIs(f.key);
   policy->bindingSidIs(Ipkit::MplsLabel(900100));
   auto path = policy->candidatePathIs(Preference(200));
   path->staticSegmentListIs(stack({16002, 16005}), StaticSegmentList(Weight(3), Index(20)));
   path->staticSegmentListIs(stack({16003}), StaticSegmentList(Weight(1), Index(10)));

   auto r = f.record(table, 200);
   ASSERT_TRUE(r);
   EXPECT_EQ(r->preference().value, 200u);
   EXPECT_EQ(r->bindingSid().value(), 900100u);
   EXPECT_EQ(r->originator(), Originator());
   ASSERT_EQ(r->segmentListCount(), 2u);
   EXPECT_EQ(r->segmentList(SegmentListIndex(0)), WeightedSegList(Weight(1), stack({16003})));
   EXPECT_EQ(r->segmentList(SegmentListIndex(1)),
             WeightedSegList(Weight(3), stack({16002, 16005})));

   // A change that leaves the record as it is does not touch the table.
   counter.seen.clear();
   policy->candidatePathIs(Preference(200));
   path->staticSegmentListIs(stack({16003}), StaticSegmentList(Weight(1), Index(10)));
   EXPECT_EQ(counter.seen, "");

   // Re-indexing swaps the slots; a binding SID change rewrites every path's record.
   path->staticSegmentListIs(stack({16003}), StaticSegmentList(Weight(1), Index(30)));
   EXPECT_EQ(f.record(table, 200)->segmentList(SegmentListIndex(0)).segList, stack({16002, 16005}));
   policy->candidatePathIs(Preference(50));
   counter.seen.clear();
   policy->bindingSidIs(Ipkit::MplsLabel());
   EXPECT_EQ(counter.seen.size(), 7u); // "50 200 " in either order
   EXPECT_TRUE(f.record(table, 50)->bindingSid().isNull());
   EXPECT_EQ(f.record(table, 50)->segmentListCount(), 0u);
}

TEST(StaticInputWriter, RemovalsDeleteExactlyTheirRecords) {
   Fixture f;
   auto table = f.mountTable();
   auto policy = f.config->policyIs(f.key);
   policy->candidatePathIs(Preference(10))->staticSegmentListIs(stack({1}), StaticSegmentList());
   policy->candidatePathIs(Preference(20))->staticSegmentListIs(stack({2}), StaticSegmentList());
   // A record another writer put under the same key is not the configuration's to remove.
   PolicyInputEntry foreign(PolicyId(f.key, Protocol::staticConfig, Discriminator(99)));
   table->policyInputEntryIs(foreign);

   policy->candidatePath(Preference(10))->staticSegmentListDel(stack({1}));
   EXPECT_EQ(f.record(table, 10)->segmentListCount(), 0u);
   policy->candidatePathDel(Preference(10));
   EXPECT_FALSE(f.record(table, 10));
   EXPECT_TRUE(f.record(table, 20));
   f.config->policyDel(f.key);
   EXPECT_FALSE(f.record(table, 20));
   EXPECT_TRUE(f.record(table, 99));
   EXPECT_EQ(table->policyInputEntryCount(), 1u);
}

TEST(StaticInputWriter, TableThatAppearsLaterOrAgainIsFilledFromTheWholeConfiguration) {
   Fixture f;
   auto policy = f.config->policyIs(f.key);
   policy->candidatePathIs(Preference(10))->staticSegmentListIs(stack({1}), StaticSegmentList());
   auto first = f.mountTable();
   EXPECT_TRUE(f.record(first, 10));

   f.source->policyInputDel(Protocol::staticConfig);
   policy->candidatePathIs(Preference(20)); // while no table: nothing to write into
   auto second = f.mountTable();
   EXPECT_EQ(second->policyInputEntryCount(), 2u);
   EXPECT_EQ(first->policyInputEntryCount(), 1u); // the old table is no longer written
}

} // namespace
