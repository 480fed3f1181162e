#include "agent/PublishedMirror.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "absl/container/flat_hash_map.h"
#include "absl/hash/hash.h"
#include "agent/PublishedRecords.h"
#include "platform/MoxChanges.h"
#include "platform/VaultShm.h"

namespace Agent {

using namespace Published;

namespace {

using Clock = std::chrono::steady_clock;

template <class C>
using SharedWriter = Vault::Shm::Writer<typename C::Key, typename C::Record>;
template <class C>
using SharedReader = Vault::Shm::Reader<typename C::Key, typename C::Record>;

// A record's content in 64 bits: records compare byte for byte, padding included.
template <class R>
uint64_t digestOf(const R& r) {
   return absl::Hash<std::string_view>{}(
       std::string_view(reinterpret_cast<const char*>(&r), sizeof(R)));
}

template <class C>
struct WriterSlot {
   using Codec = C;
   using Key = typename C::Key;
   using Record = typename C::Record;
   std::optional<SharedWriter<C>> table;
   // Where the walk of this table in the current pass stands.
   typename C::Cursor cursor;
   size_t walked = 0;     // records of the entity met so far
   bool wasEmpty = false; // the table held nothing when the walk began: no look-ups
   // Past the entity's records, the walk of the table for keys the entity no longer has: where
   // in the table's index it stands.
   bool erasing = false;
   uint64_t erasePos = 0;
   void restart() {
      cursor = {};
      walked = 0;
      wasEmpty = table && table->size() == 0;
      erasing = false;
      erasePos = 0;
   }

   // Since a mount that found an earlier agent's tables: the records found, and each key
   // written or erased since with what the table held for it before its first change.
   struct Before {
      bool existed = false;
      uint64_t digest = 0;
   };
   bool tracking = false;
   size_t mounted = 0;
   absl::flat_hash_map<Key, Before, Mox::Hash<Key>> touched;
   // About to change `key`, whose record is `before` (null: absent).
   void touch(const Key& key, const Record* before) {
      if (!tracking) return;
      touched.try_emplace(key, Before{before != nullptr, before ? digestOf(*before) : 0});
   }
   // The table is about to be made anew: every record it holds changes as far as readers know.
   // (A table spoiled under the writer has no records to tell: they go uncounted.)
   void touchAll() {
      if (!tracking || !table) return;
      try {
         table->forEach([&](const Record& r) { touch(r.key(), &r); });
      } catch (const Vault::Corruption&) {
      }
   }
};

template <class C>
struct ReaderSlot {
   using Codec = C;
   std::optional<SharedReader<C>> table;
};

template <template <class> class Slot>
using SlotsOf =
    std::tuple<Slot<SelectionInputCodec>, Slot<ExportedSegmentListCodec>,
               Slot<SegmentListStatusCodec>, Slot<TunnelCodec>, Slot<EcPolicyCodec>,
               Slot<PolicyStatusCodec>, Slot<FecCodec>, Slot<TunnelMapCodec>, Slot<LfibCodec>>;

template <class Tuple, class F>
void eachSlot(Tuple& slots, F&& f) {
   std::apply([&](auto&... slot) { (f(slot), ...); }, slots);
}

template <class C>
size_t recordsOf(const typename C::Entity& entity) {
   size_t n = 0;
   C::forEach(entity, [&](const typename C::Record&) { ++n; });
   return n;
}

// Room for twice what the entity holds, at least the default.
template <class C>
Vault::Shm::Geometry geometryFor(const typename C::Entity& entity) {
   Vault::Shm::Geometry g;
   g.capacity = std::max<uint64_t>(g.capacity, std::bit_ceil(2 * recordsOf<C>(entity)));
   return g;
}

// Every key the entity holds, taken out of it.
template <class C>
size_t emptyEntity(typename C::Entity& entity) {
   std::vector<typename C::Key> keys;
   C::forEach(entity, [&](const typename C::Record& r) { keys.push_back(r.key()); });
   for (const auto& k : keys) C::remove(entity, k);
   return keys.size();
}

// The message of a table refused, naming its segment.
std::string named(const std::string& path, const char* what) {
   const std::string w = what;
   return w.find(path) == std::string::npos ? path + ": " + w : w;
}

uint64_t fileBytes(const std::string& path) {
   struct stat st {};
   return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
}

} // namespace

// ---- the writer

struct PublishedMirror::Tables {
   SlotsOf<WriterSlot> slots;
};

PublishedMirror::PublishedMirror(std::string router, const SrTePolicy::PublishedTables& tables)
    : router_(std::move(router)), tables_(tables), shared_(std::make_unique<Tables>()) {}

PublishedMirror::~PublishedMirror() = default;

std::vector<PublishedMountReport> PublishedMirror::mount(const std::function<bool()>& stop) {
   std::vector<PublishedMountReport> reports;
   bool stopped = false;
   eachSlot(shared_->slots, [&]<class C>(WriterSlot<C>& slot) {
      if (stopped) return;
      PublishedMountReport report;
      report.table = C::table;
      typename C::Entity& entity = *C::of(tables_);
      const std::string path = Vault::Shm::segmentPath(router_, C::table);
      struct stat st {};
      report.found = ::stat(path.c_str(), &st) == 0;
      try {
         slot.table.emplace(router_, C::table, geometryFor<C>(entity));
         slot.table->forEach([&](const typename C::Record& r) {
            C::apply(entity, r);
            ++report.records;
            stopped = stop && report.records % 1024 == 0 && stop();
            return !stopped;
         });
      } catch (const Vault::Shm::WriterBusy& e) {
         // Not ours to take while its writer lives: the core starts without it, and each sync
         // tries to claim it again.
         report.refused = e.what();
         slot.table.reset();
      } catch (const Vault::Corruption& e) {
         // Nothing of a table that makes no sense is kept: the core starts as on an empty one,
         // and the table is made anew for what the core publishes from now on.
         report.refused = named(path, e.what());
         report.records = 0;
         emptyEntity<C>(entity);
         slot.table.reset();
         Vault::Shm::removeTable(router_, C::table);
         slot.table.emplace(router_, C::table, geometryFor<C>(entity));
      }
      totals_.applied += report.records;
      slot.mounted = report.records;
      reports.push_back(std::move(report));
   });
   // A start over an earlier agent's tables: what the syncs do to them from now on is counted.
   const bool found =
       std::any_of(reports.begin(), reports.end(), [](const auto& r) { return r.found; });
   eachSlot(shared_->slots, [&](auto& slot) { slot.tracking = found; });
   syncedAt_ = Mox::changeCount();
   return reports;
}

std::vector<SrTePolicy::RestartWatch::Counts> PublishedMirror::sinceMount() const {
   std::vector<SrTePolicy::RestartWatch::Counts> all;
   eachSlot(shared_->slots, [&]<class C>(const WriterSlot<C>& slot) {
      if (!slot.tracking) return;
      SrTePolicy::RestartWatch::Counts c;
      c.table = C::title;
      size_t existed = 0;
      typename C::Record now;
      for (const auto& [key, before] : slot.touched) {
         const bool present = slot.table && slot.table->lookup(key, now);
         if (before.existed) {
            ++existed;
            if (!present) {
               ++c.removed;
            } else if (digestOf(now) == before.digest) {
               ++c.rewritten;
            } else {
               ++c.changed;
            }
         } else if (present) {
            ++c.added;
         }
      }
      c.adopted = slot.mounted - std::min(slot.mounted, existed);
      all.push_back(c);
   });
   return all;
}

namespace {

enum class Step { done, stopped, full };

// Goes on making one shared table equal to its entity from where its walk stands. `changed`:
// the entity may have changed since the walk stopped.
template <class C, class Check>
Step syncTable(WriterSlot<C>& slot, const typename C::Entity& entity, bool changed,
               PublishedCounts& counts, Check& check) {
   using Record = typename C::Record;
   SharedWriter<C>& shared = *slot.table;
   typename SharedWriter<C>::Batch batch(shared);
   Record held;
   try {
      auto write = [&](const Record& r) {
         ++slot.walked;
         const bool found = !slot.wasEmpty && shared.lookup(r.key(), held);
         if (!found || !sameRecord(held, r)) {
            slot.touch(r.key(), found ? &held : nullptr);
            shared.insert(r);
            ++counts.written;
         }
         return !check();
      };
      if (!slot.erasing && !C::walk(entity, slot.cursor, changed, write)) return Step::stopped;
   } catch (const Vault::Shm::TableFull&) {
      return Step::full;
   }
   if (!slot.erasing) {
      // The table holds every key of the entity; more records than that means some went. (A
      // walk that was interrupted by changes may have counted wrong: the pass after it counts
      // again.)
      if (shared.size() == slot.walked) return Step::done;
      slot.erasing = true;
      slot.erasePos = 0;
   }
   // The table's own records, in slices as the entity's: a million of them take a while.
   const bool whole = shared.eraseWalk(
       slot.erasePos,
       [&](const Record& r) {
          if (C::has(entity, r.key())) return false;
          slot.touch(r.key(), &r);
          ++counts.erased;
          return true;
       },
       [&] { return check(); });
   return whole ? Step::done : Step::stopped;
}

} // namespace

// Asks `stop` at the first record and every 64 after: true when the slice ends there.
struct PublishedMirror::StopCheck {
   const std::function<bool()>& stop;
   unsigned calls = 0;
   bool operator()() { return stop && (calls++ & 63) == 0 && stop(); }
};

PublishedCounts PublishedMirror::sync(const std::function<bool()>& stop) {
   StopCheck check{stop};
   return run(check);
}

PublishedCounts PublishedMirror::syncSlice(Clock::duration budget) {
   const auto until = Clock::now() + budget;
   const std::function<bool()> stop = [until] { return Clock::now() >= until; };
   StopCheck check{stop};
   return run(check);
}

PublishedCounts PublishedMirror::run(StopCheck& check) {
   const auto start = Clock::now();
   if (!inPass_) {
      inPass_ = true;
      passFrom_ = Mox::changeCount();
      passTime_ = {};
      table_ = 0;
      eachSlot(shared_->slots, [](auto& slot) { slot.restart(); });
   }
   // Iterators the walks kept are good only while no entity changed.
   const bool changed = Mox::changeCount() != leftAt_;
   PublishedCounts counts;
   bool stopped = false;
   size_t index = 0;
   eachSlot(shared_->slots, [&]<class C>(WriterSlot<C>& slot) {
      if (stopped || index++ < table_) return;
      const typename C::Entity& entity = *C::of(tables_);
      // A new segment takes the name; readers of the old one see it replaced and attach again.
      auto remake = [&](Vault::Shm::Geometry g) {
         slot.touchAll();
         slot.table.reset();
         Vault::Shm::removeTable(router_, C::table);
         slot.table.emplace(router_, C::table, g);
         slot.restart();
      };
      try {
         if (!slot.table) {
            slot.table.emplace(router_, C::table, geometryFor<C>(entity));
            slot.restart();
         }
         // Too small for what the entity holds: made larger before writing into it.
         if (C::sizeHint(entity) > slot.table->capacity()) {
            remake(geometryFor<C>(entity));
         }
         Step step = syncTable<C>(slot, entity, changed, counts, check);
         if (step == Step::full) {
            // Full: twice as large, or more, to hold what the entity has, and written again.
            Vault::Shm::Geometry g = geometryFor<C>(entity);
            g.capacity = std::max<uint64_t>(g.capacity, 2 * slot.table->capacity());
            remake(g);
            step = syncTable<C>(slot, entity, false, counts, check);
         }
         if (step == Step::stopped) stopped = true;
      } catch (const Vault::Shm::WriterBusy& e) {
         // Another live process writes it: nothing is written; tried again at the next pass.
         slot.table.reset();
         problems_.push_back(e.what());
      } catch (const Vault::Corruption& e) {
         // Spoiled or cut under the writer by another process: made anew and written whole.
         problems_.push_back(e.what());
         try {
            remake(geometryFor<C>(entity));
            if (syncTable<C>(slot, entity, false, counts, check) == Step::stopped) stopped = true;
         } catch (const std::exception& again) {
            slot.table.reset();
            problems_.push_back(again.what());
         }
      }
      if (!stopped) ++table_;
   });
   const auto end = Clock::now();
   passTime_ += end - start;
   syncTime_ += end - start;
   leftAt_ = Mox::changeCount();
   if (!stopped) {
      // A whole pass: the tables equal the entities as they were at its start, or something
      // changed since and another pass is wanted.
      inPass_ = false;
      syncedAt_ = passFrom_;
      lastSyncTime_ = passTime_;
      nextSync_ = end + costFactor * passTime_;
   }
   totals_.written += counts.written;
   totals_.erased += counts.erased;
   return counts;
}

bool PublishedMirror::syncWanted() const { return inPass_ || Mox::changeCount() != syncedAt_; }

size_t PublishedMirror::sharedRecords() const {
   size_t n = 0;
   eachSlot(shared_->slots, [&](const auto& slot) { n += slot.table ? slot.table->size() : 0; });
   return n;
}

size_t PublishedMirror::sharedBytes() const {
   size_t n = 0;
   eachSlot(shared_->slots, [&](const auto& slot) {
      if (slot.table) n += fileBytes(slot.table->path());
   });
   return n;
}

// ---- a reader

struct PublishedReader::Tables {
   SlotsOf<ReaderSlot> slots;
};

PublishedReader::PublishedReader(std::string router, const SrTePolicy::PublishedTables& tables)
    : router_(std::move(router)), tables_(tables), shared_(std::make_unique<Tables>()) {
   eachSlot(shared_->slots, [&]<class C>(ReaderSlot<C>& slot) {
      try {
         slot.table.emplace(router_, C::table);
      } catch (const Vault::Shm::NotFound&) {
      } catch (const Vault::Corruption& e) {
         refused_.push_back(named(Vault::Shm::segmentPath(router_, C::table), e.what()));
      }
   });
}

PublishedReader::~PublishedReader() = default;

std::vector<int> PublishedReader::fds() const {
   std::vector<int> fds;
   eachSlot(shared_->slots, [&](const auto& slot) {
      if (slot.table) fds.push_back(slot.table->fd());
   });
   return fds;
}

namespace {

// Reads the whole table again: records that differ are applied, keys it no longer has go.
template <class C>
void rescan(const SharedReader<C>& shared, typename C::Entity& entity, PublishedCounts& counts) {
   ++counts.rescans;
   shared.forEach([&](const typename C::Record& r) {
      C::apply(entity, r);
      ++counts.applied;
   });
   std::vector<typename C::Key> gone;
   C::forEach(entity, [&](const typename C::Record& r) {
      if (!shared.lookup(r.key())) gone.push_back(r.key());
   });
   for (const auto& k : gone) C::remove(entity, k);
   counts.removed += gone.size();
}

} // namespace

PublishedCounts PublishedReader::drain() {
   PublishedCounts counts;
   refused_.clear();
   eachSlot(shared_->slots, [&]<class C>(ReaderSlot<C>& slot) {
      typename C::Entity& entity = *C::of(tables_);
      try {
         if (slot.table && slot.table->replaced()) slot.table.reset();
         if (!slot.table) {
            try {
               slot.table.emplace(router_, C::table);
            } catch (const Vault::Shm::NotFound&) {
               counts.removed += emptyEntity<C>(entity);
               return;
            }
         }
         SharedReader<C>& shared = *slot.table;
         typename C::Record record;
         shared.drain(
             [&](const typename C::Key& key) {
                if (shared.lookup(key, record)) {
                   C::apply(entity, record);
                   ++counts.applied;
                } else {
                   C::remove(entity, key);
                   ++counts.removed;
                }
             },
             [&] { rescan<C>(shared, entity, counts); });
      } catch (const Vault::Corruption& e) {
         refused_.push_back(named(Vault::Shm::segmentPath(router_, C::table), e.what()));
         slot.table.reset();
         counts.removed += emptyEntity<C>(entity);
      }
   });
   return counts;
}

} // namespace Agent
