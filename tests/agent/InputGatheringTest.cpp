// Input gathering as srte runs it: the stage is built over the host's tables, its tables are
// shown, and `restart` rebuilds it over what survived.
#include <gtest/gtest.h>

#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"

namespace {

struct Agent_ {
   std::ostringstream out;
   Agent::Host host{out};
   Agent_() { Agent::registerModules(host); }
   std::string show(const std::string& table) {
      out.str("");
      host.execute("show " + table);
      return out.str();
   }
   void run(std::initializer_list<const char*> lines) {
      for (const char* l : lines) host.execute(l);
   }
};

TEST(InputGathering, RestartRebuildsInProcessStateAndKeepsThePublishedTables) {
   Agent_ a;
   a.run({"label-range srlb base 900000 size 100", "input-table bgp",
          "input bgp 10.0.0.1 color 1 discriminator 1 bsid 900001 segment-list labels 16001",
          "input bgp 10.0.0.1 color 1 discriminator 2 bsid 900001 segment-list labels 16001",
          "input bgp 10.0.0.2 color 1 discriminator 1 bsid 1 segment-list labels 16001"});
   // Nothing runs until `run`: the candidate map is still empty.
   EXPECT_NE(a.show("candidates").find("of 0 policy keys"), std::string::npos);
   a.run({"run"});
   const std::string candidates = a.show("candidates json");
   EXPECT_NE(candidates.find("\"reasonName\": \"bsidOutOfRange\""), std::string::npos);
   const std::string published = a.show("exported-segment-lists json");
   EXPECT_NE(published.find("{\"segmentListId\": 1, \"size\": 1, \"segment\": [16001]}"),
             std::string::npos);

   a.run({"restart"});
   // In-process tables start empty; published ones are still there before the first run.
   EXPECT_NE(a.show("segment-lists").find("0 segment lists"), std::string::npos);
   EXPECT_EQ(a.show("exported-segment-lists json"), published);
   EXPECT_NE(a.show("selection-input").find("2 candidate paths"), std::string::npos);
   a.run({"run"});
   EXPECT_EQ(a.show("candidates json"), candidates);
   // One list, under the id it was exported with: a restart renumbers nothing.
   EXPECT_EQ(a.show("exported-segment-lists json"), published);
}

TEST(InputGathering, EveryTableOfTheStageIsInShowAll) {
   Agent_ a;
   a.out.str("");
   a.host.execute("show all json");
   const std::string all = a.out.str();
   for (const char* key : {"\"candidates\"", "\"selectionInput\"", "\"bsidUsers\"", "\"segments\"",
                           "\"segmentLists\"", "\"exportedSegmentLists\""}) {
      EXPECT_NE(all.find(key), std::string::npos) << key;
   }
}

} // namespace

namespace {

// Every field of a candidate-path record can be written from a script line, at its limits.
TEST(InputGathering, AnInputLineCanExpressEveryFieldOfTheRecord) {
   Agent_ a;
   std::string line = "input 20 2001:db8::7 color 4294967295 discriminator 4294967295 "
                      "originator 4294967295 2001:db8::99 preference 4294967295 bsid 1048575";
   for (int s = 0; s < 16; ++s) {
      line += " segment-list weight " + std::to_string(4294967295u - s) + " labels";
      for (int l = 0; l < 8; ++l) line += " " + std::to_string(16 * s + l);
   }
   a.run({"input-table 20"});
   a.host.execute(line);
   using namespace SrTePolicy;
   auto table = a.host.policyInputSource()->policyInput(Protocol::bgp);
   ASSERT_EQ(table->policyInputEntryCount(), 1u);
   const PolicyInputEntry& e = *table->policyInputEntry().begin();
   EXPECT_EQ(e.key().key.endpoint, *Ipkit::IpGenAddr::parse("2001:db8::7"));
   EXPECT_EQ(e.key().key.color.value, 4294967295u);
   EXPECT_EQ(e.key().discriminator.value, 4294967295u);
   EXPECT_EQ(e.originator(), Originator(4294967295u, *Ipkit::IpGenAddr::parse("2001:db8::99")));
   EXPECT_EQ(e.preference().value, 4294967295u);
   EXPECT_EQ(e.bindingSid(), Ipkit::MplsLabel(1048575));
   ASSERT_EQ(e.segmentListCount(), 16u);
   for (uint32_t s = 0; s < 16; ++s) {
      const WeightedSegList& w = e.segmentList(SegmentListIndex(s));
      EXPECT_EQ(w.weight.value, 4294967295u - s);
      ASSERT_EQ(w.segList.stackSize(), 8u);
      // Written top first: entry 0 is the first label of the line.
      EXPECT_EQ(w.segList.label(Ipkit::MplsStackEntryIndex(0)), Ipkit::MplsLabel(16 * s));
      EXPECT_EQ(w.segList.label(Ipkit::MplsStackEntryIndex(7)), Ipkit::MplsLabel(16 * s + 7));
   }
   // The same line again replaces the record whole; a shorter one leaves no stale slots.
   a.host.execute("input bgp 2001:db8::7 color 4294967295 discriminator 4294967295 "
                  "segment-list labels 16");
   const PolicyInputEntry& f = *table->policyInputEntry().begin();
   EXPECT_EQ(f.segmentListCount(), 1u);
   EXPECT_TRUE(f.bindingSid().isNull());
   EXPECT_EQ(f.preference().value, 100u);
   EXPECT_EQ(f.segmentList(SegmentListIndex(0)).segList.label(Ipkit::MplsStackEntryIndex(0)),
             Ipkit::MplsLabel(16));
}

} // namespace
