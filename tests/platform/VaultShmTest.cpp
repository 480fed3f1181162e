// Shared-memory tables between real processes: a forked writer or reader on the other side of
// every scenario that is about processes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include "platform/VaultShm.h"
#include "tests/support/PatternedRecord.h"
#include "types/SrTePolicyInput.h"

namespace {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;
using InputWriter = Vault::Shm::Writer<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>;
using InputReader = Vault::Shm::Reader<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>;

PolicyId idOf(uint32_t n) {
   SrTePolicy::PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + n / 4),
                             SrTePolicy::Color(n % 4 + 1));
   return PolicyId(key, SrTePolicy::Protocol::bgp, SrTePolicy::Discriminator(n));
}

// A full record whose every label, preference and binding SID follow from `version`: a record
// mixing two writes shows it.
PolicyInputEntry patterned(uint32_t n, uint32_t version) {
   return SrTePolicy::Testing::patternedRecord(idOf(n), version);
}

bool whole(const PolicyInputEntry& e) {
   const uint32_t n = e.key().discriminator.value;
   return n < 256 && e == patterned(n, e.preference().value);
}

// This program started again as a writer process of its own (a fresh image, not a fork): with
// VAULT_SHM_WRITER=<router> it rewrites 48 records of table "input" until it is killed, after
// one byte on the file descriptor VAULT_SHM_READY once it holds the table. It never reaches the
// tests.
const bool writerProgram = [] {
   const char* router = std::getenv("VAULT_SHM_WRITER");
   if (!router) return false;
   prctl(PR_SET_NAME, "shm-feeder");
   try {
      InputWriter table(router, "input", {48, 64});
      const char took = table.tookOver() ? 't' : 'n';
      if (write(std::atoi(std::getenv("VAULT_SHM_READY")), &took, 1) != 1) _exit(2);
      for (uint32_t v = static_cast<uint32_t>(getpid()) * 1000;; ++v) {
         table.insert(patterned(v % 48, v));
      }
   } catch (const std::exception& e) {
      std::fprintf(stderr, "writer program: %s\n", e.what());
   }
   _exit(1);
}();

// Each test its own router, so that runs side by side never meet; every table goes at the end.
class VaultShm : public ::testing::Test {
 protected:
   void SetUp() override {
      router_ = "t" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
      if (router_.size() > 40) router_.resize(40);
   }
   void TearDown() override {
      for (const std::string& r : routers_) Vault::Shm::removeRouter(r);
   }
   std::string router(const std::string& suffix = "") {
      std::string r = router_.substr(0, 38) + suffix;
      routers_.insert(r);
      return r;
   }

   std::string router_;
   std::set<std::string> routers_;
};

// Runs `body` in a child process; its return value is the exit status.
template <class F>
pid_t spawn(F&& body) {
   const pid_t pid = fork();
   if (pid == 0) {
      int status = 0;
      try {
         status = body();
      } catch (const std::exception& e) {
         std::fprintf(stderr, "child: %s\n", e.what());
         status = 99;
      }
      _exit(status);
   }
   return pid;
}

int exitStatus(pid_t pid) {
   int status = 0;
   waitpid(pid, &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// One byte through a pipe: "ready", "took over", ...
struct Pipe {
   int fd[2];
   Pipe() { EXPECT_EQ(pipe(fd), 0); }
   ~Pipe() {
      close(fd[0]);
      close(fd[1]);
   }
   void put(char c) { EXPECT_EQ(write(fd[1], &c, 1), 1); }
   // '\0' when nothing comes within 20 s: the other side died (both ends stay open here).
   char get() {
      char c = 0;
      if (!Vault::Shm::waitReadable(fd[0], 20000)) return '\0';
      return read(fd[0], &c, 1) == 1 ? c : '\0';
   }
};

uint64_t nowNs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

TEST_F(VaultShm, ReaderInAnotherProcessFollowsInsertsReplacesAndErasesKeyByKey) {
   const std::string r = router();
   InputWriter writer(r, "policyInputEntry", {256, 1024});
   for (uint32_t n = 0; n < 40; ++n) writer.insert(patterned(n, 1));

   Pipe ready, go;
   const pid_t reader = spawn([&] {
      InputReader table(r, "policyInputEntry");
      std::map<uint32_t, uint32_t> mirror; // n -> version, from notifications and lookups
      auto follow = [&](const PolicyId& id) {
         const uint32_t n = id.discriminator.value;
         const std::optional<PolicyInputEntry> e = table.lookup(id);
         if (e && !whole(*e)) return false;
         if (e)
            mirror[n] = e->preference().value;
         else
            mirror.erase(n);
         return true;
      };
      bool ok = true, rescanned = false, lapped = false;
      auto rescan = [&] {
         rescanned = true;
         mirror.clear();
         table.forEach([&](const PolicyInputEntry& e) {
            ok = ok && whole(e);
            mirror[e.key().discriminator.value] = e.preference().value;
         });
      };
      table.drain([&](const PolicyId& id) { ok = ok && follow(id); }, rescan);
      if (!rescanned || mirror.size() != 40) return 2;
      ready.put('r');
      size_t keys = 0;
      // The writer's last change is key 255 at version 9.
      while (!(mirror.count(255) && mirror[255] == 9)) {
         if (!table.wait(5000)) return 3;
         keys += table.drain([&](const PolicyId& id) { ok = ok && follow(id); },
                             [&] { lapped = true; });
      }
      if (!ok) return 4;
      // Told key by key, every change: the ring is large enough for all of them.
      if (lapped || keys != 20 + 20 + 216 + 1) return 5;
      for (uint32_t n = 0; n < 20; ++n) {
         if (mirror.count(n)) return 6;
      }
      for (uint32_t n = 20; n < 40; ++n) {
         if (mirror[n] != 2) return 7;
      }
      return mirror.size() == 20 + 216 ? 0 : 8;
   });
   ASSERT_EQ(ready.get(), 'r');
   for (uint32_t n = 20; n < 40; ++n) writer.insert(patterned(n, 2));
   for (uint32_t n = 0; n < 20; ++n) EXPECT_TRUE(writer.erase(idOf(n)));
   EXPECT_FALSE(writer.erase(idOf(0)));
   for (uint32_t n = 40; n < 256; ++n) writer.insert(patterned(n, 3));
   writer.insert(patterned(255, 9));
   EXPECT_EQ(exitStatus(reader), 0);
   EXPECT_EQ(writer.size(), 236u);
   EXPECT_EQ(writer.lookup(idOf(255))->preference().value, 9u);
   EXPECT_FALSE(writer.lookup(idOf(3)));
}

TEST_F(VaultShm, WriterMatchesAModelUnderChurnAndFillsItsCapacity) {
   // Keys come and go over a range four times the capacity: erased index entries pile up (and
   // every miss walks the whole index) unless the writer compacts it; a lost slot shows as a
   // full table too early.
   const std::string r = router();
   InputWriter writer(r, "churn", {64, 16});
   InputReader reader(r, "churn");
   std::map<uint32_t, uint32_t> model;
   std::mt19937 random(7);
   for (uint32_t step = 0; step < 20000; ++step) {
      const uint32_t n = random() % 256;
      if (model.size() < 64 && random() % 2) {
         writer.insert(patterned(n, step));
         model[n] = step;
      } else if (model.count(n)) {
         ASSERT_TRUE(writer.erase(idOf(n)));
         model.erase(n);
      } else {
         ASSERT_FALSE(writer.erase(idOf(n)));
      }
      const uint32_t probe = random() % 256;
      const auto found = reader.lookup(idOf(probe));
      ASSERT_EQ(found.has_value(), model.count(probe) == 1) << "step " << step;
      if (found) {
         ASSERT_EQ(found->preference().value, model[probe]);
      }
   }
   std::map<uint32_t, uint32_t> seen;
   reader.forEach([&](const PolicyInputEntry& e) {
      EXPECT_TRUE(whole(e));
      seen[e.key().discriminator.value] = e.preference().value;
   });
   EXPECT_EQ(seen, model);
   EXPECT_EQ(reader.size(), model.size());
   EXPECT_LE(writer.indexUsed(), writer.indexCapacity() / 4 * 3);

   // Full: a new key is refused, a replace still goes through.
   for (uint32_t n = 0; model.size() < 64; ++n) {
      writer.insert(patterned(n, 1));
      model[n] = 1;
   }
   const uint32_t absent = [&] {
      uint32_t n = 0;
      while (model.count(n)) ++n;
      return n;
   }();
   EXPECT_THROW(writer.insert(patterned(absent, 1)), Vault::Shm::TableFull);
   const uint32_t present = model.begin()->first;
   writer.insert(patterned(present, 77));
   EXPECT_EQ(reader.lookup(idOf(present))->preference().value, 77u);
   EXPECT_EQ(reader.size(), 64u);
}

TEST_F(VaultShm, WriterKilledMidWriteNeverTearsARecordAndTheNextTakesOver) {
   const std::string r = router();
   constexpr uint32_t keys = 48; // capacity: one leaked slot would make the table full
   { InputWriter first(r, "input", {keys, 64}); }
   InputReader reader(r, "input");
   size_t rescans = 0;
   reader.drain([](const PolicyId&) {}, [&] { ++rescans; });
   std::mt19937 random(11);
   uint32_t versionBase = 1;
   for (int round = 0; round < 25; ++round, versionBase += 1000000) {
      Pipe state;
      const pid_t writer = spawn([&] {
         InputWriter table(r, "input", {keys, 64});
         state.put(table.tookOver() ? 't' : 'n');
         // Each round of the keys replaces them in place, the next swaps each for a twin key
         // (erase, then insert), so that slots move and erased index entries pile up until the
         // index compacts, all while the reader reads.
         for (uint32_t v = versionBase;; ++v) {
            const uint32_t n = v % keys, phase = v / keys % 3;
            table.erase(idOf(phase == 2 ? n : n + keys));
            table.insert(patterned(phase == 2 ? n + keys : n, v));
         }
         return 0;
      });
      const char took = state.get();
      EXPECT_EQ(took, round == 0 ? 'n' : 't') << "round " << round;
      const auto until =
          std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 15000);
      size_t reads = 0;
      while (std::chrono::steady_clock::now() < until) {
         const auto e = reader.lookup(idOf(static_cast<uint32_t>(reads++ % keys)));
         if (e) {
            ASSERT_TRUE(whole(*e)) << "round " << round;
         }
         if (reads % 256 == 0) {
            reader.forEach([&](const PolicyInputEntry& w) { ASSERT_TRUE(whole(w)); });
         }
      }
      kill(writer, SIGKILL);
      EXPECT_EQ(exitStatus(writer), -SIGKILL);
      size_t count = 0;
      reader.forEach([&](const PolicyInputEntry& e) {
         ++count;
         ASSERT_TRUE(whole(e)) << "round " << round;
      });
      EXPECT_LE(count, keys);
   }
   // The last writer goes on where the killed one stopped and can fill every slot. Taking over
   // tells the reader to rescan, even one that had read every change the dead writer announced:
   // it may have died between a write and its announcement.
   reader.drain([](const PolicyId&) {}, [] {});
   InputWriter last(r, "input", {keys, 64});
   EXPECT_TRUE(last.tookOver());
   size_t told = 0;
   rescans = 0;
   reader.drain([&](const PolicyId&) { ++told; }, [&] { ++rescans; });
   EXPECT_EQ(rescans, 1u);
   EXPECT_EQ(told, 0u);
   last.clear();
   EXPECT_EQ(reader.size(), 0u);
   for (uint32_t n = 0; n < keys; ++n) last.insert(patterned(n, 5));
   for (uint32_t n = 0; n < keys; ++n) EXPECT_EQ(reader.lookup(idOf(n))->preference().value, 5u);
   EXPECT_EQ(reader.size(), keys);
}

TEST_F(VaultShm, WriterProgramKilledMidWriteIsTakenOverByTheNextAndNamedWhileItLives) {
   const std::string r = router();
   InputReader* reader = nullptr;
   std::optional<InputReader> attached;
   for (int round = 0; round < 5; ++round) {
      Pipe ready;
      const pid_t writer = fork();
      if (writer == 0) {
         setenv("VAULT_SHM_WRITER", r.c_str(), 1);
         setenv("VAULT_SHM_READY", std::to_string(ready.fd[1]).c_str(), 1);
         execl("/proc/self/exe", "vault-shm-writer", static_cast<char*>(nullptr));
         _exit(127);
      }
      ASSERT_EQ(ready.get(), round == 0 ? 'n' : 't') << "round " << round;
      if (!reader) reader = &attached.emplace(r, "input");
      try {
         InputWriter second(r, "input", {48, 64});
         ADD_FAILURE() << "a second writer was accepted";
      } catch (const Vault::Shm::WriterBusy& e) {
         EXPECT_EQ(e.holder(), writer);
         EXPECT_EQ(e.command(), "shm-feeder");
      }
      const auto until =
          std::chrono::steady_clock::now() + std::chrono::milliseconds(5 + round * 3);
      for (uint32_t i = 0; std::chrono::steady_clock::now() < until; ++i) {
         const auto e = reader->lookup(idOf(i % 48));
         if (e) {
            ASSERT_TRUE(whole(*e)) << "round " << round;
         }
      }
      kill(writer, SIGKILL);
      EXPECT_EQ(exitStatus(writer), -SIGKILL);
      reader->forEach([&](const PolicyInputEntry& e) { ASSERT_TRUE(whole(e)); });
      EXPECT_LE(reader->size(), 48u);
   }
}

TEST_F(VaultShm, SecondWriterIsRefusedNamingTheHolderUntilTheHolderDies) {
   const std::string r = router();
   Pipe ready;
   const pid_t holder = spawn([&] {
      prctl(PR_SET_NAME, "bgp-feeder");
      InputWriter table(r, "policyInputEntry");
      table.insert(patterned(1, 1));
      ready.put('r');
      pause();
      return 0;
   });
   ASSERT_EQ(ready.get(), 'r');
   try {
      InputWriter second(r, "policyInputEntry");
      ADD_FAILURE() << "a second writer was accepted";
   } catch (const Vault::Shm::WriterBusy& e) {
      EXPECT_EQ(e.holder(), holder);
      EXPECT_EQ(e.command(), "bgp-feeder");
      EXPECT_EQ(std::string(e.what()),
                "Vault table " + Vault::Shm::segmentPath(r, "policyInputEntry") +
                    " is written by process " + std::to_string(holder) + " (bgp-feeder)");
   }
   InputReader reader(r, "policyInputEntry");
   EXPECT_EQ(reader.writer(), holder);
   kill(holder, SIGKILL);
   exitStatus(holder);
   EXPECT_EQ(reader.writer(), 0); // its pid stays in the table, but it is dead
   {
      InputWriter next(r, "policyInputEntry");
      EXPECT_TRUE(next.tookOver());
      EXPECT_EQ(next.lookup(idOf(1))->preference().value, 1u);
   }
   // A writer that closed the table let it go cleanly: no takeover.
   InputWriter after(r, "policyInputEntry");
   EXPECT_FALSE(after.tookOver());
   EXPECT_EQ(reader.writer(), getpid());

   // Removed and made again: the attached reader learns that its segment is not the table's any
   // more, and a new reader sees the new one.
   EXPECT_FALSE(reader.replaced());
   EXPECT_TRUE(Vault::Shm::removeTable(r, "policyInputEntry"));
   EXPECT_TRUE(reader.replaced());
   InputWriter again(r, "policyInputEntry");
   again.insert(patterned(2, 2));
   EXPECT_TRUE(reader.replaced());
   EXPECT_FALSE(reader.lookup(idOf(2)));
   EXPECT_EQ(InputReader(r, "policyInputEntry").lookup(idOf(2))->preference().value, 2u);
}

TEST_F(VaultShm, AWriterRemovesWhatDeadMakersOfItsTableLeftAndSparesALiveOnes) {
   const std::string r = router();
   const pid_t dead = spawn([] { return 0; });
   exitStatus(dead);
   Pipe ready;
   const pid_t live = spawn([&] {
      ready.put('r');
      pause();
      return 0;
   });
   ASSERT_EQ(ready.get(), 'r');
   // What a writer killed between making a segment and linking it under its name leaves.
   const auto making = [&](const std::string& table, pid_t pid) {
      const std::string path = Vault::Shm::segmentPath(r, table) + ".new." + std::to_string(pid);
      std::ofstream(path) << std::string(4096, '\0');
      return path;
   };
   const auto exists = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
   const std::string deadOne = making("policyInputEntry", dead);
   const std::string liveOne = making("policyInputEntry", live);
   const std::string otherTable = making("policyInputEntry2", dead);
   const std::string notAPid = Vault::Shm::segmentPath(r, "policyInputEntry") + ".new.x1";
   std::ofstream(notAPid) << "x";
   // None of them is a table.
   EXPECT_TRUE(Vault::Shm::tablesOf(r).empty());

   {
      InputWriter writer(r, "policyInputEntry");
      EXPECT_FALSE(exists(deadOne));
      EXPECT_TRUE(exists(liveOne)) << "a live writer may be making it right now";
      EXPECT_TRUE(exists(otherTable)) << "another table's is left to that table's writer";
      EXPECT_TRUE(exists(notAPid));
   }
   EXPECT_EQ(Vault::Shm::tablesOf(r), std::vector<std::string>{"policyInputEntry"});
   // Its maker dead, the next writer of the table (one that finds it made) removes it too.
   kill(live, SIGKILL);
   exitStatus(live);
   {
      InputWriter writer(r, "policyInputEntry");
      EXPECT_FALSE(exists(liveOne));
   }
   EXPECT_EQ(Vault::Shm::removeLeftovers(r, "policyInputEntry2"), 1u);
   EXPECT_FALSE(exists(otherTable));

   // A router done with goes whole: its tables and whatever is still being made.
   const std::string mine = making("policyInputEntry", getpid());
   EXPECT_EQ(Vault::Shm::removeRouter(r), 3u);
   EXPECT_FALSE(exists(mine));
   EXPECT_FALSE(exists(notAPid));
   EXPECT_TRUE(Vault::Shm::tablesOf(r).empty());
}

// Writes `bytes` at `offset` of a segment, as a stray process could.
void scribble(const std::string& path, off_t offset, const void* bytes, size_t len) {
   const int fd = open(path.c_str(), O_RDWR);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(pwrite(fd, bytes, len, offset), static_cast<ssize_t>(len));
   close(fd);
}

TEST_F(VaultShm, CorruptOrTruncatedSegmentIsReportedNamingItNeverACrash) {
   const std::string r = router();
   const auto layout =
       *Vault::Shm::detail::Layout::of(sizeof(PolicyId), PolicyInputEntry::maxLen, 8, 8);
   auto fresh = [&](const std::string& table) {
      InputWriter w(r, table, {8, 8});
      w.insert(patterned(3, 1)); // the first free slot: slot 0
      return Vault::Shm::segmentPath(r, table);
   };
   auto refusal = [&](const std::string& table) -> std::string {
      try {
         InputReader reader(r, table);
         reader.lookup(idOf(3));
         reader.forEach([](const PolicyInputEntry&) {});
      } catch (const Vault::Corruption& e) {
         return e.what();
      }
      return "accepted";
   };
   auto expectRefused = [&](const std::string& table, const std::string& why) {
      const std::string text = refusal(table);
      EXPECT_EQ(text.rfind("Vault table " + Vault::Shm::segmentPath(r, table) + " is corrupt: ", 0),
                0u)
          << text;
      EXPECT_NE(text.find(why), std::string::npos) << text;
   };
   using Vault::Shm::detail::Header;
   {
      const std::string path = fresh("magic");
      const uint64_t magic = 42;
      scribble(path, offsetof(Header, magic), &magic, sizeof magic);
      expectRefused("magic", "wrong magic");
      EXPECT_THROW(InputWriter(r, "magic"), Vault::Corruption); // nor does a writer take it
   }
   {
      const std::string path = fresh("version");
      const uint32_t version = 9;
      scribble(path, offsetof(Header, version), &version, sizeof version);
      expectRefused("version", "version 9");
   }
   {
      fresh("recordSize");
      try {
         Vault::Shm::Reader<PolicyId, PolicyInputEntry, 1024> wrong(r, "recordSize");
         ADD_FAILURE() << "a reader of another record size attached";
      } catch (const Vault::Corruption& e) {
         EXPECT_NE(std::string(e.what()).find("record size 772, expected 1024"), std::string::npos);
      }
   }
   {
      const std::string path = fresh("geometry");
      const uint64_t capacity = uint64_t{1} << 40;
      scribble(path, offsetof(Header, capacity), &capacity, sizeof capacity);
      expectRefused("geometry", "geometry does not add up");
   }
   {
      const std::string path = fresh("truncated");
      ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(layout.totalSize / 2)), 0);
      expectRefused("truncated", "truncated: " + std::to_string(layout.totalSize / 2) +
                                     " bytes of " + std::to_string(layout.totalSize));
      ASSERT_EQ(truncate(path.c_str(), 100), 0);
      expectRefused("truncated", "truncated: 100 bytes, less than its header");
   }
   {
      // A record whose count word says 17 segment lists.
      const std::string path = fresh("count");
      const uint32_t count = 17;
      scribble(path, static_cast<off_t>(4096 + layout.slotOffset + 8 + PolicyInputEntry::fixedLen),
               &count, sizeof count);
      expectRefused("count", "record in slot 0 fails its check");
   }
   {
      // An index entry naming a slot beyond the table: the key's own entry, whichever it is.
      const std::string path = fresh("index");
      const uint64_t entry = (uint64_t{idOf(3).hash()} << 32) | 5000;
      for (uint64_t pos = 0; pos < layout.indexCapacity; ++pos) {
         uint64_t held = 0;
         const int fd = open(path.c_str(), O_RDONLY);
         ASSERT_EQ(pread(fd, &held, 8, static_cast<off_t>(4096 + pos * 8)), 8);
         close(fd);
         if (held) scribble(path, static_cast<off_t>(4096 + pos * 8), &entry, 8);
      }
      expectRefused("index", "index entry names slot 4999 of 9");
   }
}

TEST_F(VaultShm, SegmentCutUnderAnAttachedReaderIsCorruptionNotABusError) {
   const std::string r = router();
   const auto layout =
       *Vault::Shm::detail::Layout::of(sizeof(PolicyId), PolicyInputEntry::maxLen, 8, 8);
   InputWriter writer(r, "cut", {8, 8});
   writer.insert(patterned(3, 1));
   const std::string path = Vault::Shm::segmentPath(r, "cut");
   Pipe ready, go;
   // In a process of its own: if the guard failed, the bus error would kill it, not the tests.
   const pid_t reader = spawn([&] {
      InputReader table(r, "cut");
      table.drain([](const PolicyId&) {}, [] {});
      auto refused = [&](auto&& read) {
         try {
            read();
         } catch (const Vault::Corruption& e) {
            return std::string(e.what()).find(path + " is corrupt: truncated while in use") !=
                   std::string::npos;
         }
         return false;
      };
      ready.put('r');
      if (go.get() != 'g') return 2; // the records are cut off, the header and index stay
      if (!refused([&] { table.lookup(idOf(3)); })) return 3;
      if (!refused([&] { table.forEach([](const PolicyInputEntry&) {}); })) return 4;
      // Once cut, every read says so, also of the pages that are still there.
      if (!refused([&] { table.size(); })) return 5;
      ready.put('r');
      if (go.get() != 'g') return 6; // nothing left
      if (!refused([&] { table.size(); })) return 7;
      if (!refused([&] { table.drain([](const PolicyId&) {}, [] {}); })) return 8;
      if (!refused([&] { table.writer(); })) return 9;
      return 0; // and letting go of its reader slot does not fault either
   });
   ASSERT_EQ(ready.get(), 'r');
   // To the page that holds the first record: a page cut in the middle still reads (as zeros).
   ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>((4096 + layout.slotOffset) / 4096 * 4096)),
             0);
   go.put('g');
   ASSERT_EQ(ready.get(), 'r') << "the reader ended: " << exitStatus(reader);
   ASSERT_EQ(truncate(path.c_str(), 0), 0);
   go.put('g');
   EXPECT_EQ(exitStatus(reader), 0);
   // The writer, too, learns it at its next write.
   EXPECT_THROW(writer.insert(patterned(4, 1)), Vault::Corruption);
}

TEST_F(VaultShm, IdleReaderSleepsAndIsWokenWithinAMillisecond) {
   const std::string r = router();
   InputWriter writer(r, "input", {64, 64});
   Pipe ready, report;
   const pid_t reader = spawn([&] {
      InputReader table(r, "input");
      table.drain([](const PolicyId&) {}, [] {});
      ready.put('r');
      rusage before{}, after{};
      getrusage(RUSAGE_SELF, &before);
      // Nothing is written for 1.5 s: the reader must be asleep in poll all that time.
      if (table.wait(1500)) return 2;
      getrusage(RUSAGE_SELF, &after);
      const long cpuUs = (after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1000000L +
                         (after.ru_utime.tv_usec - before.ru_utime.tv_usec) +
                         (after.ru_stime.tv_sec - before.ru_stime.tv_sec) * 1000000L +
                         (after.ru_stime.tv_usec - before.ru_stime.tv_usec);
      if (cpuUs > 20000) return 3;
      ready.put('i');
      // Then 21 changes, each stamped with the time it was written (in its binding SID's
      // place: microseconds modulo the label range is enough for a short gap).
      std::vector<uint64_t> latencies;
      while (latencies.size() < 21) {
         if (!table.wait(5000)) return 4;
         table.drain(
             [&](const PolicyId& id) {
                const auto e = table.lookup(id);
                const uint64_t nowUs = nowNs() / 1000 % 1000000;
                latencies.push_back((nowUs + 1000000 - e->bindingSid().value()) % 1000000);
             },
             [] {});
      }
      std::sort(latencies.begin(), latencies.end());
      report.put(static_cast<char>(std::min<uint64_t>(latencies[10] / 10, 127))); // median, 10 µs
      return 0;
   });
   ASSERT_EQ(ready.get(), 'r');
   ASSERT_EQ(ready.get(), 'i');
   for (uint32_t n = 0; n < 21; ++n) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      PolicyInputEntry e = patterned(n, 1);
      e.bindingSidIs(Ipkit::MplsLabel(nowNs() / 1000 % 1000000));
      writer.insert(e);
   }
   EXPECT_EQ(exitStatus(reader), 0);
   const int medianTensOfUs = report.get();
   EXPECT_LT(medianTensOfUs, 100) << "median wake-up to read: " << medianTensOfUs * 10 << " µs";
}

TEST_F(VaultShm, BatchWakesASleepingReaderOnceWhenItCloses) {
   const std::string r = router();
   InputWriter writer(r, "input", {64, 64});
   Pipe ready, report;
   const pid_t reader = spawn([&] {
      InputReader table(r, "input");
      table.drain([](const PolicyId&) {}, [] {});
      ready.put('r');
      const uint64_t t0 = nowNs();
      if (!table.wait(5000)) return 2;
      const uint64_t sleptMs = (nowNs() - t0) / 1000000;
      std::vector<uint32_t> keys;
      table.drain([&](const PolicyId& id) { keys.push_back(id.discriminator.value); }, [] {});
      if (keys != std::vector<uint32_t>{1, 2, 3}) return 3;
      report.put(static_cast<char>(std::min<uint64_t>(sleptMs / 10, 127))); // tens of ms
      return 0;
   });
   ASSERT_EQ(ready.get(), 'r');
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   {
      InputWriter::Batch outer(writer);
      writer.insert(patterned(1, 1));
      {
         InputWriter::Batch inner(writer);
         writer.insert(patterned(2, 1));
      }
      writer.insert(patterned(3, 1));
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
   }
   EXPECT_EQ(exitStatus(reader), 0);
   // Woken by the outer batch closing, not by the first write nor by the inner batch.
   EXPECT_GE(report.get(), 15);
}

TEST_F(VaultShm, TwoRoutersWithTheSameTableNameNeverMeet) {
   const std::string a = router("a"), b = router("b");
   InputWriter writerA(a, "policyInputEntry", {16, 16});
   Pipe ready;
   // Router b's writer is another process; a's writer is this one.
   const pid_t other = spawn([&] {
      InputWriter writerB(b, "policyInputEntry", {16, 16});
      writerB.insert(patterned(2, 2));
      ready.put('r');
      pause();
      return 0;
   });
   ASSERT_EQ(ready.get(), 'r');
   InputReader readerA(a, "policyInputEntry"), readerB(b, "policyInputEntry");
   readerA.drain([](const PolicyId&) {}, [] {});
   readerB.drain([](const PolicyId&) {}, [] {});
   writerA.insert(patterned(1, 1));
   size_t toldB = readerB.drain([](const PolicyId&) {}, [] {});
   EXPECT_EQ(toldB, 0u);
   EXPECT_FALSE(readerB.wait(50));
   EXPECT_TRUE(readerA.wait(1000));
   EXPECT_EQ(readerA.drain([](const PolicyId& id) { EXPECT_EQ(id, idOf(1)); }, [] {}), 1u);
   EXPECT_FALSE(readerA.lookup(idOf(2)));
   EXPECT_FALSE(readerB.lookup(idOf(1)));
   EXPECT_EQ(readerB.lookup(idOf(2))->preference().value, 2u);
   EXPECT_EQ(Vault::Shm::tablesOf(a), std::vector<std::string>{"policyInputEntry"});

   // The longest names still give each reader a wake-up address of its own.
   const std::string longest(40, 'x');
   InputWriter longWriter(a, longest, {4, 4});
   InputReader first(a, longest), second(a, longest);
   first.drain([](const PolicyId&) {}, [] {});
   second.drain([](const PolicyId&) {}, [] {});
   longWriter.insert(patterned(5, 5));
   EXPECT_TRUE(first.wait(1000));
   EXPECT_TRUE(second.wait(1000));
   EXPECT_EQ(first.drain([](const PolicyId&) {}, [] {}), 1u);
   EXPECT_EQ(second.drain([](const PolicyId&) {}, [] {}), 1u);
   kill(other, SIGKILL);
   exitStatus(other);
   EXPECT_THROW(InputReader(a, "absent"), Vault::Shm::NotFound);
   EXPECT_THROW(Vault::Shm::segmentPath("a.b", "c"), std::invalid_argument);
}

TEST_F(VaultShm, ReaderLappedByTheChangeRingIsToldToRescanOnce) {
   const std::string r = router();
   InputWriter writer(r, "input", {64, 8});
   Pipe ready, go;
   const pid_t reader = spawn([&] {
      InputReader table(r, "input");
      std::vector<uint32_t> keys;
      size_t all = 0;
      auto onKey = [&](const PolicyId& id) { keys.push_back(id.discriminator.value); };
      auto onAll = [&] { ++all; };
      table.drain(onKey, onAll); // attaching is a rescan
      if (all != 1 || !keys.empty()) return 2;
      ready.put('r');
      if (go.get() != 'g') return 3; // 5 changes written
      table.drain(onKey, onAll);
      if (all != 1 || keys != std::vector<uint32_t>{0, 1, 2, 3, 4}) return 4;
      ready.put('r');
      if (go.get() != 'g') return 5; // 20 more: the ring holds 8
      keys.clear();
      table.drain(onKey, onAll);
      if (all != 2 || !keys.empty()) return 6;
      return table.size() == 25 ? 0 : 7;
   });
   ASSERT_EQ(ready.get(), 'r');
   for (uint32_t n = 0; n < 5; ++n) writer.insert(patterned(n, 1));
   go.put('g');
   ASSERT_EQ(ready.get(), 'r');
   for (uint32_t n = 5; n < 25; ++n) writer.insert(patterned(n, 1));
   go.put('g');
   EXPECT_EQ(exitStatus(reader), 0);
}

} // namespace
