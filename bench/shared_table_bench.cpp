// Shared-memory input tables: our fixed-slot segment (Vault::Shm) against LMDB on tmpfs, each with
// a writer and a reader in two processes. Measures, for N policy input records (default 1,000,000):
//  - records per second written, and seen (looked up) by the reader in the other process;
//  - the reader's CPU time (ours sleeps between changes, LMDB has no change notification, so its
//    reader polls);
//  - lookup time at N records, in the reader process, random keys (and, for scale, in this
//    process's own Vault::Table and a dependent read of this machine's memory);
//  - how long a change takes to reach a sleeping reader (ours; LMDB has nothing to wake it);
//  - the writer killed with SIGKILL in the middle of writing, 20 times: torn records a reader saw
//    during and after, and whether the next writer got the table and how long that took.
//
//    shared_table_bench [N] [ours|lmdb]
#include <fcntl.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/BenchEnv.h"
#include "platform/Vault.h"
#include "platform/VaultShm.h"
#include "tests/support/PatternedRecord.h"
#include "types/SrTePolicyInput.h"

namespace {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;
using ShmWriter = Vault::Shm::Writer<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>;
using ShmReader = Vault::Shm::Reader<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>;
using Clock = std::chrono::steady_clock;

const std::string router = "bench" + std::to_string(getpid());
const std::string lmdbDir = "/dev/shm/srte-bench-lmdb-" + std::to_string(getpid());

double since(Clock::time_point t0) {
   return std::chrono::duration<double>(Clock::now() - t0).count();
}

uint64_t nowNs() {
   return static_cast<uint64_t>(
       std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
           .count());
}

PolicyId idOf(uint32_t n) {
   SrTePolicy::PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + n / 8),
                             SrTePolicy::Color(n % 8 + 1));
   return PolicyId(key, SrTePolicy::Protocol::bgp, SrTePolicy::Discriminator(n));
}

// A typical candidate path: two segment lists of three labels.
PolicyInputEntry typical(uint32_t n) {
   PolicyInputEntry e(idOf(n));
   e.bindingSidIs(Ipkit::MplsLabel(100000 + n % 800000));
   for (uint32_t i = 0; i < 2; ++i) {
      Ipkit::MplsLabelOperation op;
      op.actionIs(Ipkit::MplsLabelAction::push);
      for (uint32_t l = 0; l < 3; ++l) op.push(Ipkit::MplsLabel(16000 + (n + i * 3 + l) % 4000));
      e.segmentListIs(SrTePolicy::SegmentListIndex(i),
                      SrTePolicy::WeightedSegList(SrTePolicy::Weight(1), op));
   }
   return e;
}

// A full record whose every field follows from `version`: a mix of two writes shows.
PolicyInputEntry patterned(uint32_t n, uint32_t version) {
   return SrTePolicy::Testing::patternedRecord(idOf(n), version);
}
bool whole(const PolicyInputEntry& e) {
   return e == patterned(e.key().discriminator.value, e.preference().value);
}

double cpuOf(const rusage& r) {
   return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
          static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
}

struct Pipe {
   int fd[2];
   Pipe() {
      if (pipe(fd) != 0) std::abort();
   }
   ~Pipe() {
      close(fd[0]);
      close(fd[1]);
   }
   template <class T>
   void put(const T& v) {
      if (write(fd[1], &v, sizeof v) != sizeof v) std::abort();
   }
   template <class T>
   T get() {
      T v{};
      if (read(fd[0], &v, sizeof v) != sizeof v) std::abort();
      return v;
   }
};

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

// Random lookups of every key once, in the calling process; ns per lookup.
template <class Lookup>
double lookupNs(uint32_t n, Lookup&& lookup) {
   std::vector<uint32_t> order(n);
   std::iota(order.begin(), order.end(), 0u);
   std::shuffle(order.begin(), order.end(), std::mt19937(3));
   std::vector<PolicyId> ids(n);
   for (uint32_t i = 0; i < n; ++i) ids[i] = idOf(order[i]);
   uint64_t found = 0;
   const auto t0 = Clock::now();
   for (const PolicyId& id : ids) found += lookup(id);
   const double ns = since(t0) * 1e9 / n;
   if (found != n) std::fprintf(stderr, "lookup: %lu of %u found\n", found, n);
   return ns;
}

// ---- LMDB

void check(int rc, const char* what) {
   if (rc != 0) {
      std::fprintf(stderr, "lmdb %s: %s\n", what, mdb_strerror(rc));
      std::exit(1);
   }
}

struct Lmdb {
   MDB_env* env = nullptr;
   MDB_dbi dbi = 0;
   explicit Lmdb(bool create) {
      if (create) mkdir(lmdbDir.c_str(), 0700);
      check(mdb_env_create(&env), "env_create");
      check(mdb_env_set_mapsize(env, size_t{8} << 30), "set_mapsize");
      check(mdb_env_set_maxreaders(env, 64), "set_maxreaders");
      // tmpfs: nothing to sync to.
      check(mdb_env_open(env, lmdbDir.c_str(), MDB_NOSYNC | MDB_NOMETASYNC | MDB_NOTLS, 0600),
            "env_open");
      MDB_txn* txn = nullptr;
      check(mdb_txn_begin(env, nullptr, 0, &txn), "txn_begin");
      check(mdb_dbi_open(txn, nullptr, 0, &dbi), "dbi_open");
      check(mdb_txn_commit(txn), "commit");
   }
   ~Lmdb() { mdb_env_close(env); }
   void put(MDB_txn* txn, const PolicyInputEntry& e) {
      unsigned char buffer[PolicyInputEntry::maxLen];
      const size_t len = e.serialize(buffer, sizeof buffer);
      PolicyId key = e.key();
      MDB_val k{sizeof key, &key}, v{len, buffer};
      check(mdb_put(txn, dbi, &k, &v, 0), "put");
   }
   // One record per transaction: each write visible on its own, as the shared table's are.
   void putOne(const PolicyInputEntry& e) {
      MDB_txn* txn = nullptr;
      check(mdb_txn_begin(env, nullptr, 0, &txn), "txn_begin");
      put(txn, e);
      check(mdb_txn_commit(txn), "commit");
   }
   static bool get(MDB_txn* txn, MDB_dbi dbi, const PolicyId& id, PolicyInputEntry& out) {
      PolicyId key = id;
      MDB_val k{sizeof key, &key}, v{};
      if (mdb_get(txn, dbi, &k, &v) != 0) return false;
      return out.deserialize(v.mv_data, v.mv_size);
   }
};

void removeLmdb() {
   unlink((lmdbDir + "/data.mdb").c_str());
   unlink((lmdbDir + "/lock.mdb").c_str());
   rmdir(lmdbDir.c_str());
}

// ---- write, see, look up

struct Figures {
   double writePerS = 0, seenPerS = 0, readerCpuS = 0, lookupNs = 0;
   uint64_t rescans = 0;
   double bytes = 0;
};

Figures throughputOurs(uint32_t n, uint32_t batch) {
   Figures f;
   ShmWriter writer(router, "input", {n, 1 << 16});
   Pipe ready, report;
   const pid_t reader = spawn([&] {
      ShmReader table(router, "input");
      std::vector<bool> seen(n, false);
      uint32_t count = 0;
      uint64_t rescans = 0;
      auto mark = [&](const PolicyInputEntry& e) {
         const uint32_t i = e.key().discriminator.value;
         if (i < n && !seen[i]) {
            seen[i] = true;
            ++count;
         }
      };
      table.drain([](const PolicyId&) {}, [] {});
      ready.put('r');
      while (count < n) {
         table.wait(1000);
         table.drain(
             [&](const PolicyId& id) {
                if (auto e = table.lookup(id)) mark(*e);
             },
             [&] {
                ++rescans;
                table.forEach(mark);
             });
      }
      report.put(nowNs());
      report.put(rescans);
      report.put(lookupNs(n, [&](const PolicyId& id) { return table.lookup(id).has_value(); }));
      return 0;
   });
   ready.get<char>();
   const uint64_t t0 = nowNs();
   for (uint32_t i = 0; i < n; i += batch) {
      ShmWriter::Batch wakeOnce(writer);
      for (uint32_t j = i; j < std::min(n, i + batch); ++j) writer.insert(typical(j));
   }
   const uint64_t t1 = nowNs();
   const uint64_t seenAt = report.get<uint64_t>();
   f.rescans = report.get<uint64_t>();
   f.lookupNs = report.get<double>();
   rusage usage{};
   int status = 0;
   wait4(reader, &status, 0, &usage);
   f.writePerS = n / ((t1 - t0) * 1e-9);
   f.seenPerS = n / ((seenAt - t0) * 1e-9);
   f.readerCpuS = cpuOf(usage);
   struct stat st {};
   stat(Vault::Shm::segmentPath(router, "input").c_str(), &st);
   f.bytes = static_cast<double>(st.st_blocks) * 512;
   Vault::Shm::removeTable(router, "input");
   return f;
}

Figures throughputLmdb(uint32_t n, uint32_t batch) {
   Figures f;
   removeLmdb();
   { Lmdb create(true); }
   Pipe ready, report;
   const pid_t reader = spawn([&] {
      Lmdb db(false);
      MDB_txn* txn = nullptr;
      check(mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn), "txn_begin");
      mdb_txn_reset(txn);
      ready.put('r');
      // No notification: look for the next key written, in a fresh snapshot each round.
      uint32_t next = 0;
      PolicyInputEntry e;
      while (next < n) {
         check(mdb_txn_renew(txn), "renew");
         while (next < n && Lmdb::get(txn, db.dbi, idOf(next), e)) ++next;
         mdb_txn_reset(txn);
      }
      report.put(nowNs());
      report.put(uint64_t{0});
      check(mdb_txn_renew(txn), "renew");
      report.put(lookupNs(n, [&](const PolicyId& id) { return Lmdb::get(txn, db.dbi, id, e); }));
      mdb_txn_abort(txn);
      return 0;
   });
   ready.get<char>();
   Lmdb db(false);
   const uint64_t t0 = nowNs();
   for (uint32_t i = 0; i < n; i += batch) {
      MDB_txn* txn = nullptr;
      check(mdb_txn_begin(db.env, nullptr, 0, &txn), "txn_begin");
      for (uint32_t j = i; j < std::min(n, i + batch); ++j) db.put(txn, typical(j));
      check(mdb_txn_commit(txn), "commit");
   }
   const uint64_t t1 = nowNs();
   const uint64_t seenAt = report.get<uint64_t>();
   f.rescans = report.get<uint64_t>();
   f.lookupNs = report.get<double>();
   rusage usage{};
   int status = 0;
   wait4(reader, &status, 0, &usage);
   f.writePerS = n / ((t1 - t0) * 1e-9);
   f.seenPerS = n / ((seenAt - t0) * 1e-9);
   f.readerCpuS = cpuOf(usage);
   struct stat st {};
   stat((lmdbDir + "/data.mdb").c_str(), &st);
   f.bytes = static_cast<double>(st.st_blocks) * 512;
   removeLmdb();
   return f;
}

// ---- the writer killed mid-write

struct KillFigures {
   int rounds = 0, takenOver = 0;
   uint64_t reads = 0, tornDuring = 0, tornAfter = 0, missing = 0;
   double takeoverMsMax = 0;
};

constexpr uint32_t killKeys = 10000;

// `writerBody(versionBase, ready)` runs in the child: opens, reports (took over, ms), writes
// forever. `lookup(id, out)` and `forEach(visit)` read in this process.
template <class WriterBody, class Lookup>
KillFigures killRounds(WriterBody&& writerBody, Lookup&& lookup) {
   KillFigures k;
   std::mt19937 random(5);
   for (int round = 0; round < 20; ++round) {
      Pipe ready;
      const uint32_t base = 1 + static_cast<uint32_t>(round) * 100000000u / 20;
      const pid_t writer = spawn([&] { return writerBody(base, ready); });
      const char took = ready.get<char>();
      const double ms = ready.get<double>();
      ++k.rounds;
      if (took == 't') ++k.takenOver;
      k.takeoverMsMax = std::max(k.takeoverMsMax, ms);
      const auto until = Clock::now() + std::chrono::microseconds(1000 + random() % 20000);
      PolicyInputEntry e;
      for (uint32_t i = 0; Clock::now() < until; ++i) {
         ++k.reads;
         if (lookup(idOf(i % killKeys), e) && !whole(e)) ++k.tornDuring;
      }
      kill(writer, SIGKILL);
      waitpid(writer, nullptr, 0);
      for (uint32_t i = 0; i < killKeys; ++i) {
         if (!lookup(idOf(i), e))
            ++k.missing;
         else if (!whole(e))
            ++k.tornAfter;
      }
   }
   return k;
}

KillFigures killOurs() {
   {
      ShmWriter w(router, "kill", {killKeys, 1 << 12});
      for (uint32_t i = 0; i < killKeys; ++i) w.insert(patterned(i, 0));
   }
   ShmReader reader(router, "kill");
   KillFigures k = killRounds(
       [](uint32_t base, Pipe& ready) {
          const auto t0 = Clock::now();
          ShmWriter w(router, "kill", {killKeys, 1 << 12});
          w.insert(patterned(0, base));
          ready.put('t'); // it has the table (the first round's predecessor closed it cleanly)
          ready.put(since(t0) * 1e3);
          for (uint32_t v = base;; ++v) w.insert(patterned(v % killKeys, v));
          return 0;
       },
       [&](const PolicyId& id, PolicyInputEntry& out) {
          auto e = reader.lookup(id);
          if (e) out = *e;
          return e.has_value();
       });
   Vault::Shm::removeTable(router, "kill");
   return k;
}

KillFigures killLmdb() {
   removeLmdb();
   {
      Lmdb db(true);
      MDB_txn* txn = nullptr;
      check(mdb_txn_begin(db.env, nullptr, 0, &txn), "txn_begin");
      for (uint32_t i = 0; i < killKeys; ++i) db.put(txn, patterned(i, 0));
      check(mdb_txn_commit(txn), "commit");
   }
   Lmdb db(false);
   MDB_txn* txn = nullptr;
   check(mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn), "txn_begin");
   mdb_txn_reset(txn);
   KillFigures k = killRounds(
       [](uint32_t base, Pipe& ready) {
          const auto t0 = Clock::now();
          Lmdb w(false);
          MDB_txn* first = nullptr;
          const int rc = mdb_txn_begin(w.env, nullptr, 0, &first);
          if (rc == 0) {
             w.put(first, patterned(0, base));
             mdb_txn_commit(first);
          } else {
             std::fprintf(stderr, "lmdb writer: %s\n", mdb_strerror(rc));
          }
          ready.put(rc == 0 ? 't' : 'f');
          ready.put(since(t0) * 1e3);
          if (rc != 0) return 1;
          for (uint32_t v = base;; ++v) w.putOne(patterned(v % killKeys, v));
          return 0;
       },
       [&](const PolicyId& id, PolicyInputEntry& out) {
          check(mdb_txn_renew(txn), "renew");
          const bool found = Lmdb::get(txn, db.dbi, id, out);
          mdb_txn_reset(txn);
          return found;
       });
   mdb_txn_abort(txn);
   removeLmdb();
   return k;
}

// A reader asleep in poll(2) is woken by each of 1000 changes, 1 ms apart: microseconds from
// the write to the reader holding the record, median, 99th percentile and largest.
void wakeLatencyOurs() {
   ShmWriter writer(router, "wake", {64, 64});
   Pipe ready, report;
   const pid_t reader = spawn([&] {
      ShmReader table(router, "wake");
      table.drain([](const PolicyId&) {}, [] {});
      ready.put('r');
      std::vector<double> us;
      while (us.size() < 1000) {
         table.wait(5000);
         table.drain(
             [&](const PolicyId& id) {
                if (auto e = table.lookup(id)) {
                   const uint64_t sent =
                       uint64_t{e->preference().value} << 20 | e->bindingSid().value();
                   const uint64_t gone = (nowNs() - sent) & 0xfffffffffull;
                   us.push_back(static_cast<double>(gone) * 1e-3);
                }
             },
             [] {});
      }
      std::sort(us.begin(), us.end());
      report.put(us[500]);
      report.put(us[990]);
      report.put(us.back());
      return 0;
   });
   ready.get<char>();
   for (uint32_t i = 0; i < 1000; ++i) {
      usleep(1000);
      PolicyInputEntry e(idOf(i % 64));
      // The time of writing, 36 bits of ns: the top 16 in the preference, the rest in the
      // binding SID (20 bits).
      const uint64_t t = nowNs() & 0xfffffffffull;
      e.preferenceIs(SrTePolicy::Preference(static_cast<uint32_t>(t >> 20)));
      e.bindingSidIs(Ipkit::MplsLabel(static_cast<uint32_t>(t & 0xfffff)));
      writer.insert(e);
   }
   const double median = report.get<double>(), p99 = report.get<double>(),
                worst = report.get<double>();
   waitpid(reader, nullptr, 0);
   std::printf("%-22s change to sleeping reader: median %.0f us, 99th percentile %.0f us, "
               "largest %.0f us (1000 changes)\n",
               "shared segment", median, p99, worst);
   Vault::Shm::removeTable(router, "wake");
}

void inProcessLookup(uint32_t n) {
   auto table =
       std::make_unique<Vault::Table<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>>(
           "policyInputEntry", Vault::Table<PolicyId, PolicyInputEntry>::WriterOps{"", "", ""});
   for (uint32_t i = 0; i < n; ++i) table->insert(typical(i));
   const double ns = lookupNs(n, [&](const PolicyId& id) { return table->lookup(id).has_value(); });
   std::printf("%-22s lookup %6.0f ns at %u (a copy of the record, as above)\n",
               "in-process Vault::Table", ns, n);
   std::printf("%-22s dependent random read %.0f ns beyond the caches\n", "this machine",
               SrTePolicy::Bench::dependentReadNs(size_t{1} << 30));
}

// LMDB keeps every page a reader's snapshot may still read: a reader that stops (a stuck agent)
// makes the file grow with every write until it is gone. Megabytes of the file after 100
// rewrites of 10,000 records, without and with a reader that holds its snapshot.
void stalledReaderLmdb() {
   double mb[2] = {0, 0};
   for (int stalled = 0; stalled < 2; ++stalled) {
      removeLmdb();
      {
         Lmdb db(true);
         MDB_txn* txn = nullptr;
         check(mdb_txn_begin(db.env, nullptr, 0, &txn), "txn_begin");
         for (uint32_t i = 0; i < killKeys; ++i) db.put(txn, typical(i));
         check(mdb_txn_commit(txn), "commit");
      }
      Pipe ready;
      pid_t reader = 0;
      if (stalled) {
         reader = spawn([&] {
            Lmdb db(false);
            MDB_txn* txn = nullptr;
            check(mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn), "txn_begin");
            ready.put('r');
            pause();
            return 0;
         });
         ready.get<char>();
      }
      {
         Lmdb db(false);
         for (uint32_t round = 0; round < 100; ++round) {
            MDB_txn* txn = nullptr;
            check(mdb_txn_begin(db.env, nullptr, 0, &txn), "txn_begin");
            for (uint32_t i = 0; i < killKeys; ++i) {
               PolicyInputEntry e = typical(i);
               e.preferenceIs(SrTePolicy::Preference(round));
               db.put(txn, e);
            }
            check(mdb_txn_commit(txn), "commit");
         }
      }
      struct stat st {};
      stat((lmdbDir + "/data.mdb").c_str(), &st);
      mb[stalled] = static_cast<double>(st.st_blocks) * 512 / 1e6;
      if (reader) {
         kill(reader, SIGKILL);
         waitpid(reader, nullptr, 0);
      }
   }
   removeLmdb();
   std::printf("%-22s 100 rewrites of %u records: file %.0f MB; with a reader holding its "
               "snapshot %.0f MB (ours: fixed, %u slots)\n",
               "lmdb", killKeys, mb[0], mb[1], killKeys);
}

void print(const char* name, const Figures& f, uint32_t n) {
   std::printf("%-22s write %9.0f rec/s   seen by reader %9.0f rec/s   reader CPU %6.2f s   "
               "lookup %6.0f ns at %u   size %6.0f MB   rescans %lu\n",
               name, f.writePerS, f.seenPerS, f.readerCpuS, f.lookupNs, n, f.bytes / 1e6,
               f.rescans);
}

void print(const char* name, const KillFigures& k) {
   std::printf("%-22s %d kills: next writer got the table %d times (slowest %.2f ms); %lu reads "
               "during, %lu torn; after each kill %lu torn, %lu missing\n",
               name, k.rounds, k.takenOver, k.takeoverMsMax, k.reads, k.tornDuring, k.tornAfter,
               k.missing);
}

} // namespace

int main(int argc, char** argv) {
   const char* usage = "usage: shared_table_bench [RECORDS [ours|lmdb|table]]\n"
                       "  RECORDS: how many records each run writes (default 1000000)\n";
   char* end = nullptr;
   const unsigned long records = argc > 1 ? std::strtoul(argv[1], &end, 10) : 1000000;
   const std::string only = argc > 2 ? argv[2] : "";
   if ((argc > 1 && (*end != '\0' || records == 0 || records > 100000000)) || argc > 3 ||
       (!only.empty() && only != "ours" && only != "lmdb" && only != "table")) {
      const bool help =
          argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h");
      std::fputs(usage, help ? stdout : stderr);
      return help ? 0 : 2;
   }
   const auto n = static_cast<uint32_t>(records);
   std::printf("%u records of %zu bytes (typical: 2 segment lists of 3 labels)\n", n,
               PolicyInputEntry::maxLen);
   if (only.empty() || only == "ours") {
      print("shared segment", throughputOurs(n, 1), n);
      print("shared, 1000 per batch", throughputOurs(n, 1000), n);
   }
   if (only.empty() || only == "lmdb") {
      print("lmdb, 1 per txn", throughputLmdb(n, 1), n);
      print("lmdb, 1000 per txn", throughputLmdb(n, 1000), n);
   }
   if (only.empty() || only == "ours") wakeLatencyOurs();
   if (only.empty() || only == "table") inProcessLookup(n);
   if (only.empty() || only == "ours") print("shared segment", killOurs());
   if (only.empty() || only == "lmdb") print("lmdb", killLmdb());
   if (only.empty() || only == "lmdb") stalledReaderLmdb();
   return 0;
}
