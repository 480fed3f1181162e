// The published tables' records and codecs, through the shared tables the agent writes: what a
// converged core publishes comes back whole in another set of entities (a restarted agent's, a
// reader's), a change reaches a reader, nothing unchanged is written again, and a segment that
// makes no sense is refused with its name while the others mount.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "agent/PublishedMirror.h"
#include "agent/PublishedRecords.h"
#include "platform/VaultShm.h"
#include "tests/support/CoreTestRouter.h"

namespace {

using namespace SrTePolicy;
using namespace Agent;
using SrTePolicy::Testing::bgpPathId;
using SrTePolicy::Testing::CoreTestRouter;
using SrTePolicy::Testing::pathRecord;

// Every record of every table, as bytes by key bytes: what a reader can compare.
using Contents = std::map<std::string, std::map<std::string, std::string>>;

Contents contentsOf(const PublishedTables& tables) {
   Contents all;
   Published::forEachCodec([&]<class C>(C) {
      auto& table = all[C::table];
      C::forEach(*C::of(tables), [&](const typename C::Record& r) {
         const std::string key(reinterpret_cast<const char*>(&r.key()), sizeof(r.key()));
         table[key] = std::string(reinterpret_cast<const char*>(&r), sizeof r);
      });
   });
   return all;
}

size_t recordCount(const Contents& c) {
   size_t n = 0;
   for (const auto& [table, records] : c) n += records.size();
   return n;
}

class PublishedRecordsTest : public ::testing::Test {
 protected:
   void SetUp() override {
      r.swapAndPushAdjacencies();
      for (uint32_t l = 16001; l <= 16010; ++l) r.route(l, 1 + l % 2);
      // Twelve keys; key 0 has a second candidate that loses (lower preference), key 1 has a
      // list that does not resolve beside one that does.
      for (uint32_t k = 0; k < 12; ++k) {
         r.put(pathRecord(bgpPathId("10.1.0.1", k + 1, 1), 900000 + k,
                          {{16001 + k % 10, 16002}, {16003, 16004 + k % 5}}));
      }
      PolicyInputEntry loser = pathRecord(bgpPathId("10.1.0.1", 1, 2), 900100, {{16005}});
      loser.preferenceIs(Preference(50));
      r.put(loser);
      r.put(pathRecord(bgpPathId("10.1.0.1", 2, 1), 900001, {{16001}, {17999}}));
      r.start();
      r.run();
   }
   void TearDown() override { Vault::Shm::removeRouter(router); }
   std::string segment(const char* table) const { return Vault::Shm::segmentPath(router, table); }

   const std::string router = "prt" + std::to_string(getpid());
   CoreTestRouter r;
};

TEST_F(PublishedRecordsTest, EveryTableComesBackWholeAndNothingUnchangedIsWrittenAgain) {
   const Contents published = contentsOf(r.core->published());
   for (const auto& [table, records] : published) EXPECT_FALSE(records.empty()) << table;
   size_t total = 0;
   {
      PublishedMirror writer(router, r.core->published());
      for (const PublishedMountReport& m : writer.mount()) {
         EXPECT_FALSE(m.found) << m.table;
         EXPECT_TRUE(m.refused.empty()) << m.refused;
      }
      // Told to stop at once, a sync leaves off and is still wanted.
      const PublishedCounts cut = writer.sync([] { return true; });
      EXPECT_LT(cut.written, 4096u);
      EXPECT_TRUE(writer.syncWanted());
      const PublishedCounts first = writer.sync();
      total = recordCount(published);
      EXPECT_EQ(cut.written + first.written, total);
      EXPECT_EQ(writer.sharedRecords(), total);
      EXPECT_EQ(writer.sync().written, 0u);

      // Another process's reader, and a change it hears of.
      PublishedTables seen;
      PublishedReader reader(router, seen);
      EXPECT_EQ(reader.drain().applied, total);
      EXPECT_EQ(contentsOf(seen), published);
      EXPECT_EQ(reader.drain().applied, 0u);

      r.del(bgpPathId("10.1.0.1", 5, 1));
      r.put(pathRecord(bgpPathId("10.1.0.1", 6, 1), 900005, {{16007}}));
      r.run();
      const PublishedCounts change = writer.sync();
      EXPECT_GT(change.written, 0u);
      EXPECT_GT(change.erased, 0u);
      const PublishedCounts again = writer.sync();
      EXPECT_EQ(again.written + again.erased, 0u);
      const PublishedCounts heard = reader.drain();
      EXPECT_GT(heard.applied, 0u);
      EXPECT_GT(heard.removed, 0u);
      EXPECT_EQ(heard.rescans, 0u);
      EXPECT_EQ(contentsOf(seen), contentsOf(r.core->published()));
   }
   // A restarted agent: fresh entities filled from the tables the first one left.
   const Contents left = contentsOf(r.core->published());
   PublishedTables mounted;
   PublishedMirror again(router, mounted);
   size_t records = 0;
   for (const PublishedMountReport& m : again.mount()) {
      EXPECT_TRUE(m.found) << m.table;
      EXPECT_TRUE(m.refused.empty()) << m.refused;
      records += m.records;
   }
   EXPECT_EQ(records, recordCount(left));
   EXPECT_EQ(contentsOf(mounted), left);
   // What it mounted is what the tables hold: nothing to write.
   const PublishedCounts none = again.sync();
   EXPECT_EQ(none.written + none.erased, 0u);
   // The FEC map follows from the status entries.
   EXPECT_EQ(mounted.policyStatus->fecIdToPolicyKey(),
             r.core->published().policyStatus->fecIdToPolicyKey());
}

// Overwrites, in the segment file, the first copy of `from` by `to` (a record as it sits in its
// slot). False when the bytes are not found.
bool patchSegment(const std::string& path, const std::string& from, const std::string& to) {
   const int fd = ::open(path.c_str(), O_RDWR);
   if (fd < 0) return false;
   struct stat st {};
   ::fstat(fd, &st);
   const size_t len = static_cast<size_t>(st.st_size);
   void* map = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ::close(fd);
   if (map == MAP_FAILED) return false;
   void* at = ::memmem(map, len, from.data(), from.size());
   if (at) std::memcpy(at, to.data(), to.size());
   ::munmap(map, len);
   return at != nullptr;
}

template <class R>
std::string bytes(const R& r) {
   return std::string(reinterpret_cast<const char*>(&r), sizeof r);
}

TEST_F(PublishedRecordsTest, APassInSlicesWhileTheCoreChangesEndsEqualToTheEntities) {
   PublishedMirror writer(router, r.core->published());
   writer.mount();
   PublishedTables seen;
   PublishedReader reader(router, seen);
   // One record per slice: slices stop inside tables and inside a policy's candidates. Every
   // few slices the core changes what it publishes: keys go, come and move to other lists, so
   // that walks find their place again by key (or start the table over when the key went).
   size_t slices = 0, erased = 0;
   uint32_t change = 0;
   while (writer.syncWanted() && slices < 20000) {
      const PublishedCounts c = writer.sync([] { return true; });
      // The walk for keys that went is sliced as the one for records to write.
      EXPECT_LE(c.written + c.erased, 1u);
      erased += c.erased;
      ++slices;
      if (slices % 7 == 0 && change < 24) {
         const uint32_t k = change % 12;
         if (change % 3 == 0) {
            r.del(bgpPathId("10.1.0.1", k + 1, 1));
         } else {
            r.put(pathRecord(bgpPathId("10.1.0.1", k + 1, 1), 900000 + k,
                             {{16001 + (k + change) % 10}, {16002, 16003 + change % 7}}));
         }
         r.put(pathRecord(bgpPathId("10.1.0.1", 100 + change, 1), 901000 + change, {{16006}}));
         r.run();
         ++change;
      }
   }
   EXPECT_EQ(change, 24u);
   EXPECT_GT(erased, 8u);
   EXPECT_FALSE(writer.syncWanted());
   // More than one pass: those during which the core changed did not count as whole.
   EXPECT_GT(slices, recordCount(contentsOf(r.core->published())));
   reader.drain();
   EXPECT_EQ(contentsOf(seen), contentsOf(r.core->published()));
   EXPECT_EQ(writer.sync().written, 0u);
}

TEST_F(PublishedRecordsTest, ASegmentThatMakesNoSenseIsRefusedByNameAndTheOthersMount) {
   {
      PublishedMirror writer(router, r.core->published());
      writer.mount();
      writer.sync();
   }
   // A count over its capacity in one selection-input record.
   const PolicyIdEntry& entry =
       *r.core->published().policySelectionInput->policyIdEntry().begin()->second;
   Published::SelectionInputRecord good = Published::SelectionInputCodec::encode(entry);
   Published::SelectionInputRecord bad = good;
   bad.rowCount = 17;
   ASSERT_TRUE(patchSegment(segment("policySelectionInput"), bytes(good), bytes(bad)));
   // A status no list can have.
   Published::SegmentListStatusRecord status;
   const auto& [listId, error] = *r.core->published().segmentListStatus->status().begin();
   status.id = listId;
   status.error = static_cast<uint32_t>(error);
   Published::SegmentListStatusRecord wrong = status;
   wrong.error = 9;
   ASSERT_TRUE(patchSegment(segment("segmentListStatus"), bytes(status), bytes(wrong)));
   // A segment cut short.
   ASSERT_EQ(::truncate(segment("srteFwdStatus").c_str(), 4096 * 3), 0);

   PublishedTables mounted;
   PublishedTables seen;
   PublishedReader reader(router, seen);
   reader.drain();
   EXPECT_EQ(reader.refused().size(), 3u);
   for (const std::string& what : reader.refused()) EXPECT_NE(what.find(router), std::string::npos);

   PublishedMirror again(router, mounted);
   std::map<std::string, PublishedMountReport> reports;
   for (PublishedMountReport& m : again.mount()) reports[m.table] = m;
   EXPECT_NE(reports["policySelectionInput"].refused.find("fails its check"), std::string::npos)
       << reports["policySelectionInput"].refused;
   EXPECT_NE(reports["policySelectionInput"].refused.find(segment("policySelectionInput")),
             std::string::npos);
   EXPECT_NE(reports["segmentListStatus"].refused.find("status 9"), std::string::npos)
       << reports["segmentListStatus"].refused;
   EXPECT_NE(reports["srteFwdStatus"].refused.find(segment("srteFwdStatus")), std::string::npos)
       << reports["srteFwdStatus"].refused;
   // A refused table leaves its entity empty, not half filled; the others are whole.
   EXPECT_TRUE(mounted.policySelectionInput->policyIdEntry().empty());
   EXPECT_TRUE(mounted.segmentListStatus->status().empty());
   EXPECT_TRUE(mounted.srteFwdStatus->fec().empty());
   const Contents full = contentsOf(r.core->published());
   const Contents got = contentsOf(mounted);
   for (const char* t : {"exportedSegmentLists", "ecPolicy", "policyStatus", "tunnelIdToPolicyKey",
                         "srTePolicyLfibStatus", "srTeSegmentListTunnelTable"}) {
      EXPECT_EQ(got.at(t), full.at(t)) << t;
   }
   // The refused tables were made anew: empty, written again from what the entities hold.
   EXPECT_EQ(again.sharedRecords(), recordCount(got));
}

TEST_F(PublishedRecordsTest, ATableCutUnderTheWriterOrHeldByAnotherIsReportedNotFatal) {
   PublishedMirror writer(router, r.core->published());
   writer.mount();
   writer.sync();
   // Cut short by a stray process while the writer has it mapped: the next sync finds it out,
   // makes it anew and writes it whole.
   ASSERT_EQ(::truncate(segment("policyStatus").c_str(), 4096 * 2), 0);
   r.del(bgpPathId("10.1.0.1", 3, 1));
   r.run();
   writer.sync();
   const std::vector<std::string> problems = writer.takeProblems();
   ASSERT_FALSE(problems.empty());
   EXPECT_NE(problems.front().find(segment("policyStatus")), std::string::npos) << problems.front();
   PublishedTables seen;
   PublishedReader reader(router, seen);
   reader.drain();
   EXPECT_TRUE(reader.refused().empty());
   EXPECT_EQ(contentsOf(seen), contentsOf(r.core->published()));

   // A table another writer holds is not taken: the mount says so, a sync skips it.
   Vault::Shm::Writer<Published::FecCodec::Key, Published::FecCodec::Record> other(router + "x",
                                                                                   "srteFwdStatus");
   PublishedTables empty;
   PublishedMirror second(router + "x", empty);
   for (const PublishedMountReport& m : second.mount()) {
      if (std::string(m.table) == "srteFwdStatus") {
         EXPECT_NE(m.refused.find(std::to_string(getpid())), std::string::npos) << m.refused;
      } else {
         EXPECT_TRUE(m.refused.empty()) << m.refused;
      }
   }
   second.sync();
   EXPECT_EQ(second.takeProblems().size(), 1u);
   Vault::Shm::removeRouter(router + "x");
}

} // namespace
