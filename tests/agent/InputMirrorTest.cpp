#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>

#include "agent/Feed.h"
#include "agent/InputMirror.h"
#include "agent/Script.h"

namespace {

using Agent::InputMirror;
using SrTePolicy::PolicyInput;
using SrTePolicy::PolicyInputEntry;
using SrTePolicy::Protocol;

// Counts what the core's reactors would hear from the in-process table.
struct Heard : PolicyInput::Notifiee {
   size_t keys = 0, all = 0;
   explicit Heard(PolicyInput& t) { notifierIs(&t); }
   void onPolicyInputEntry(const SrTePolicy::PolicyId&) override { ++keys; }
   void onPolicyInputEntry() override { ++all; }
};

class InputMirrorTest : public ::testing::Test {
 protected:
   void TearDown() override { Vault::Shm::removeRouter(router_); }
   // The in-process table holds exactly what the shared one does.
   static void expectSame(const InputMirror& m) {
      size_t shared = 0;
      m.shared().forEach([&](const PolicyInputEntry& r) {
         ++shared;
         const PolicyInputEntry* held = m.table()->policyInputEntryFind(r.key());
         ASSERT_NE(held, nullptr) << r.key().discriminator.value;
         EXPECT_TRUE(*held == r);
      });
      EXPECT_EQ(m.table()->policyInputEntryCount(), shared);
   }
   const std::string router_ = "mirror" + std::to_string(::getpid());
   const std::string table_ = Agent::inputTableName(Protocol::bgp);
};

TEST_F(InputMirrorTest, CopiesEachChangedKeyAndOnlyRealChanges) {
   InputMirror::SharedInputWriter writer(router_, table_, {256, 1024});
   for (uint32_t n = 0; n < 50; ++n) writer.insert(Agent::feedRecord(Protocol::bgp, n));
   InputMirror mirror(InputMirror::SharedInput(router_, table_),
                      SrTePolicy::policyInputFactory(table_));
   Heard heard(*mirror.table());

   // Just attached: one rescan brings all 50.
   InputMirror::Counts c = mirror.drain();
   EXPECT_EQ(c.rescans, 1u);
   EXPECT_EQ(c.written, 50u);
   expectSame(mirror);

   // A replaced record, an erased one, one written again unchanged, a new one.
   PolicyInputEntry changed = Agent::feedRecord(Protocol::bgp, 7);
   changed.preferenceIs(SrTePolicy::Preference(5));
   writer.insert(changed);
   writer.erase(Agent::feedRecord(Protocol::bgp, 8).key());
   writer.insert(Agent::feedRecord(Protocol::bgp, 9));
   writer.insert(Agent::feedRecord(Protocol::bgp, 60));
   heard.keys = 0;
   c = mirror.drain();
   EXPECT_EQ(c.rescans, 0u);
   EXPECT_EQ(c.written, 2u);
   EXPECT_EQ(c.erased, 1u);
   EXPECT_EQ(heard.keys, 3u); // record 9 did not change: the core is not told of it
   expectSame(mirror);
   EXPECT_EQ(mirror.table()->policyInputEntry(changed.key())->preference().value, 5u);

   // Nothing new: nothing applied.
   c = mirror.drain();
   EXPECT_EQ(c.written + c.erased + c.rescans, 0u);
}

TEST_F(InputMirrorTest, ALappedReaderRescansAndDropsWhatWentAway) {
   // A ring of 16 changes: the burst below laps the reader.
   InputMirror::SharedInputWriter writer(router_, table_, {512, 16});
   for (uint32_t n = 0; n < 100; ++n) writer.insert(Agent::feedRecord(Protocol::bgp, n));
   InputMirror mirror(InputMirror::SharedInput(router_, table_),
                      SrTePolicy::policyInputFactory(table_));
   mirror.drain();
   ASSERT_EQ(mirror.table()->policyInputEntryCount(), 100u);

   for (uint32_t n = 0; n < 30; ++n) writer.erase(Agent::feedRecord(Protocol::bgp, n).key());
   for (uint32_t n = 100; n < 140; ++n) writer.insert(Agent::feedRecord(Protocol::bgp, n));
   const InputMirror::Counts c = mirror.drain();
   EXPECT_EQ(c.rescans, 1u);
   EXPECT_EQ(c.erased, 30u);
   EXPECT_EQ(c.written, 40u);
   expectSame(mirror);
}

TEST_F(InputMirrorTest, ADrainCutShortByAStopTakesInNoMoreAndErasesNothing) {
   InputMirror::SharedInputWriter writer(router_, table_, {8192, 1024});
   for (uint32_t n = 0; n < 5000; ++n) writer.insert(Agent::feedRecord(Protocol::bgp, n));
   InputMirror mirror(InputMirror::SharedInput(router_, table_),
                      SrTePolicy::policyInputFactory(table_));
   // Held here, not in the shared table: a whole rescan would erase it.
   const PolicyInputEntry stray = Agent::feedRecord(Protocol::bgp, 9999);
   mirror.table()->policyInputEntryIs(stray);
   int asked = 0;
   mirror.stopWhen([&] { return ++asked == 2; });

   const InputMirror::Counts c = mirror.drain();
   EXPECT_TRUE(mirror.interrupted());
   EXPECT_EQ(asked, 2);
   // Asked after 1024 records and again after 2048: the second said stop.
   EXPECT_EQ(c.written, 2047u);
   EXPECT_EQ(c.erased, 0u);
   EXPECT_TRUE(mirror.table()->policyInputEntryFind(stray.key()));
   // Nothing more comes in, and nothing is asked any more.
   writer.insert(Agent::feedRecord(Protocol::bgp, 6000));
   writer.erase(Agent::feedRecord(Protocol::bgp, 0).key());
   EXPECT_EQ(mirror.drain().written, 0u);
   EXPECT_FALSE(mirror.table()->policyInputEntryFind(Agent::feedRecord(Protocol::bgp, 6000).key()));
   EXPECT_EQ(asked, 2);
}

TEST_F(InputMirrorTest, TheFeederIsRefusedWhileAnotherWritesThenGoesOn) {
   auto first = std::make_unique<InputMirror::SharedInputWriter>(router_, table_,
                                                                 Vault::Shm::Geometry{256, 1024});
   for (uint32_t n = 0; n < 10; ++n) first->insert(Agent::feedRecord(Protocol::bgp, n));
   InputMirror mirror(InputMirror::SharedInput(router_, table_),
                      SrTePolicy::policyInputFactory(table_));
   mirror.drain();

   std::ostringstream out, err;
   EXPECT_EQ(Agent::feed({router_, Protocol::bgp, 10, 10, false}, out, err), Agent::exitCannotRun);
   EXPECT_NE(err.str().find(std::to_string(::getpid())), std::string::npos) << err.str();

   // Once the first writer is gone, the feeder adds ten and erases five.
   first.reset();
   EXPECT_EQ(Agent::feed({router_, Protocol::bgp, 10, 10, false}, out, err), Agent::exitOk);
   // Printed, each change is the line that makes it in a scenario.
   EXPECT_EQ(Agent::feed({router_, Protocol::bgp, 5, 3, true, 0, true}, out, err), Agent::exitOk);
   EXPECT_EQ(out.str(), "no input bgp 10.0.0.0 color 4 discriminator 3\n"
                        "no input bgp 10.0.0.0 color 5 discriminator 4\n"
                        "no input bgp 10.0.0.0 color 6 discriminator 5\n"
                        "no input bgp 10.0.0.0 color 7 discriminator 6\n"
                        "no input bgp 10.0.0.0 color 8 discriminator 7\n");
   mirror.drain();
   expectSame(mirror);
   EXPECT_EQ(mirror.table()->policyInputEntryCount(), 15u);
   EXPECT_FALSE(mirror.table()->policyInputEntry(Agent::feedRecord(Protocol::bgp, 3).key()));
   EXPECT_TRUE(mirror.table()->policyInputEntry(Agent::feedRecord(Protocol::bgp, 19).key()));
}

} // namespace
