#include <gtest/gtest.h>

#include "tests/support/TestValues.h"
#include "types/SrTePolicy.h"

namespace {

using namespace SrTePolicy;
using namespace SrTePolicy::Test;

struct ConfigLog : Config::Notifiee {
   std::vector<std::string> seen;
   void onEnabled() override { seen.push_back("enabled"); }
   void onSpecifiedBsidOnly() override { seen.push_back("specifiedBsidOnly"); }
   void onSegmentListSharingEnabled() override { seen.push_back("sharing"); }
   void onUseDiscriminatorInTieBreaking() override { seen.push_back("tieBreak"); }
   void onPolicy(const PolicyKey& k) override { seen.push_back(k.stringValue()); }
};

TEST(Config, FreshConfigDefaultsAndDump) {
   auto config = configFactory("config");
   EXPECT_EQ(config->name(), "config");
   EXPECT_FALSE(config->enabled());
   EXPECT_TRUE(config->specifiedBsidOnly());
   EXPECT_FALSE(config->segmentListSharingEnabled());
   EXPECT_FALSE(Config::segmentListSharingDefault());
   EXPECT_FALSE(config->useDiscriminatorInTieBreaking());
   EXPECT_EQ(config->policyCount(), 0u);
   std::string out;
   config->dump(out, 0);
   EXPECT_EQ(out, " enabled: False\n"
                  " specifiedBsidOnly: True\n"
                  " segmentListSharingEnabled: False\n"
                  " useDiscriminatorInTieBreaking: False\n"
                  " Policies #0 \n");
}

TEST(Config, ChangesNotifyOnceAndUnchangedValuesStaySilent) {
   auto config = configFactory("config");
   ConfigLog log;
   log.notifierIs(config);
   config->enabledIs(false);
   config->specifiedBsidOnlyIs(true);
   EXPECT_TRUE(log.seen.empty());
   config->enabledIs(true);
   config->enabledIs(true);
   config->specifiedBsidOnlyIs(false);
   config->segmentListSharingEnabledIs(true);
   config->useDiscriminatorInTieBreakingIs(true);
   config->useDiscriminatorInTieBreakingIs(true);
   EXPECT_EQ(log.seen,
             (std::vector<std::string>{"enabled", "specifiedBsidOnly", "sharing", "tieBreak"}));

   log.seen.clear();
   auto p1 = config->policyIs(keyOf("10.0.0.1", 100));
   EXPECT_EQ(config->policyIs(keyOf("10.0.0.1", 100)), p1); // existing: returned, silent
   config->policyIs(keyOf("10.0.0.2", 100));
   config->policyIs(keyOf("10.0.0.1", 200));
   EXPECT_EQ(log.seen.size(), 3u);
   EXPECT_EQ(config->policy(keyOf("10.0.0.1", 100)), p1);

   // Deleting all three policies tells each key once, and releases the policies.
   log.seen.clear();
   config->policyDelAll();
   std::sort(log.seen.begin(), log.seen.end());
   EXPECT_EQ(log.seen, (std::vector<std::string>{"10.0.0.1|100", "10.0.0.1|200", "10.0.0.2|100"}));
   EXPECT_EQ(config->policy(keyOf("10.0.0.1", 100)), nullptr);
   EXPECT_EQ(p1->refCount(), 1u); // only ours is left
}

TEST(Status, AgentEnabledNotifiesOnChange) {
   auto status = statusFactory("status");
   struct Log : Status::Notifiee {
      int calls = 0;
      void onAgentEnabled() override { ++calls; }
   } log;
   log.notifierIs(status);
   EXPECT_FALSE(status->agentEnabled());
   status->agentEnabledIs(false);
   status->agentEnabledIs(true);
   EXPECT_EQ(log.calls, 1);
   std::string out;
   status->dump(out, 2);
   EXPECT_EQ(out, "  agentEnabled: True\n");
}

TEST(StaticPolicy, CandidatePathsAscendAndSegmentListsAreKeyedByTheirStack) {
   auto policy = staticPolicyFactory(keyOf("10.0.0.1", 100));
   EXPECT_TRUE(policy->bindingSid().isNull());
   EXPECT_EQ(policy->candidatePathCount(), 0u);
   struct Log : StaticPolicy::Notifiee {
      std::string seen;
      void onBindingSid() override { seen += "b "; }
      void onCandidatePath(const Preference& p) override { seen += std::to_string(p.value) + " "; }
   } log;
   log.notifierIs(policy);
   policy->bindingSidIs(Ipkit::MplsLabel(900001));
   auto high = policy->candidatePathIs(Preference(300));
   policy->candidatePathIs(Preference(100));
   policy->candidatePathIs(Preference(200));
   EXPECT_EQ(policy->candidatePathIs(Preference(300)), high);
   EXPECT_EQ(log.seen, "b 300 100 200 ");
   std::string order;
   for (const auto& [pref, path] : policy->candidatePath()) order += path->stringValue();
   EXPECT_EQ(order, "preference: 100\nsegmentLists #0 \n"
                    "preference: 200\nsegmentLists #0 \n"
                    "preference: 300\nsegmentLists #0 \n");

   // The same label stack twice is one segment list: the second write replaces it.
   high->staticSegmentListIs(stack({16001, 16002}), StaticSegmentList(Weight(2), Index(20)));
   high->staticSegmentListIs(stack({16003}), StaticSegmentList(Weight(1), Index(10)));
   high->staticSegmentListIs(stack({16001, 16002}), StaticSegmentList(Weight(5), Index(30)));
   EXPECT_EQ(high->staticSegmentListCount(), 2u);
   EXPECT_EQ(high->staticSegmentList(stack({16001, 16002}))->weight.value, 5u);
   auto byIndex = high->staticSegmentListByIndex();
   EXPECT_EQ(byIndex.front().first, stack({16003}));

   std::string out;
   policy->candidatePathDel(Preference(200));
   policy->dump(out, 1);
   EXPECT_EQ(out, " policyKey: 10.0.0.1|100, bindingSid: 900001\n"
                  " candidatePaths #2 \n"
                  "   preference: 100\n"
                  "   segmentLists #0 \n"
                  "   preference: 300\n"
                  "   segmentLists #2 \n"
                  "     weight: 1, index: 10, segmentList: [16003]\n"
                  "     weight: 5, index: 30, segmentList: [16001 16002]\n");

   // Deleting an absent stack gives back the default value.
   StaticSegmentList gone = high->staticSegmentListDel(stack({99}));
   EXPECT_EQ(gone.weight.value, 1u);
   EXPECT_EQ(gone.index.value, 0u);
   EXPECT_TRUE(gone.isEmpty());
   EXPECT_EQ(high->staticSegmentListDel(stack({16003})), StaticSegmentList(Weight(1), Index(10)));
}

TEST(StaticSegmentList, TextAndAttributeLogForms) {
   StaticSegmentList v(Weight(4), Index(maxU64()));
   EXPECT_EQ(v.valueToStrep(), "Value('SrTePolicy::StaticSegmentList', ** {'weight': "
                               "Value('SrTePolicy::Weight', ** {'value': 4}), 'index': "
                               "Value('SrTePolicy::Index', ** {'value': 18446744073709551615})})");
   EXPECT_EQ(StaticSegmentList::fromStrep(v.valueToStrep()), v);
   AttrLog::Writer w;
   v.attrLogWrite(w);
   EXPECT_EQ(w.buffer().size(), 12u); // 32-bit weight, 64-bit index
   AttrLog::Reader r(w.buffer());
   EXPECT_EQ(StaticSegmentList::attrLogRead(r), v);
   AttrLog::Writer zero;
   zero.u32(0);
   zero.u64(1);
   AttrLog::Reader zr(zero.buffer());
   try {
      StaticSegmentList::attrLogRead(zr);
      ADD_FAILURE();
   } catch (const Mox::RangeError& e) {
      EXPECT_STREQ(e.what(), "Weight::value < Weight::min or > Weight::max not allowed");
   }
}

TEST(Config, AttributeLogRebuildsTheWholeTree) {
   auto config = configFactory("config");
   config->enabledIs(true);
   config->useDiscriminatorInTieBreakingIs(true);
   auto p = config->policyIs(keyOf("10.0.0.1", 100));
   p->bindingSidIs(Ipkit::MplsLabel(900001));
   auto path = p->candidatePathIs(Preference(200));
   path->staticSegmentListIs(stack({16001, 16002}), StaticSegmentList(Weight(3), Index(1)));
   path->staticSegmentListIs(stack({16009}), StaticSegmentList(Weight(1), Index(2)));
   p->candidatePathIs(Preference(50));
   config->policyIs(keyOf("2001:db8::1", 7));

   AttrLog::Writer w;
   config->attrLogWrite(w);
   AttrLog::Reader r(w.buffer());
   auto copy = Config::attrLogRead(r, "copy");
   EXPECT_EQ(r.remaining(), 0u);
   std::string a, b;
   config->dump(a, 0);
   copy->dump(b, 0);
   EXPECT_EQ(a, b);
   EXPECT_NE(copy->policy(keyOf("10.0.0.1", 100)), p); // rebuilt, not shared

   // A stream cut short is refused as a whole.
   std::vector<uint8_t> cut(w.buffer().begin(), w.buffer().end() - 1);
   AttrLog::Reader cr(cut);
   EXPECT_THROW(Config::attrLogRead(cr, "cut"), AttrLog::Truncated);
}

} // namespace
