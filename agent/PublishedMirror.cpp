#include "agent/PublishedMirror.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <optional>
#include <tuple>
#include <utility>

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

template <class C>
struct WriterSlot {
   using Codec = C;
   std::optional<SharedWriter<C>> table;
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

std::vector<PublishedMountReport> PublishedMirror::mount() {
   std::vector<PublishedMountReport> reports;
   eachSlot(shared_->slots, [&]<class C>(WriterSlot<C>& slot) {
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
      reports.push_back(std::move(report));
   });
   syncedAt_ = Mox::changeCount();
   return reports;
}

namespace {

// A sync told to stop.
struct SyncStopped {};

// Asks `stop` at the first call and every 4096 after.
struct StopCheck {
   const std::function<bool()>& stop;
   unsigned calls = 0;
   void operator()() {
      if (stop && (calls++ & 4095) == 0 && stop()) throw SyncStopped{};
   }
};

// Makes one shared table equal to its entity; false when it is full.
template <class C>
bool syncTable(SharedWriter<C>& shared, const typename C::Entity& entity, PublishedCounts& counts,
               StopCheck& check) {
   using Record = typename C::Record;
   typename SharedWriter<C>::Batch batch(shared);
   Record held;
   size_t records = 0;
   // An empty table (a first start, one made anew) has nothing to compare with.
   const bool empty = shared.size() == 0;
   try {
      C::forEach(entity, [&](const Record& r) {
         check();
         ++records;
         if (!empty && shared.lookup(r.key(), held) && sameRecord(held, r)) return;
         shared.insert(r);
         ++counts.written;
      });
   } catch (const Vault::Shm::TableFull&) {
      return false;
   }
   // The table holds every key of the entity; more records than that means some went.
   if (shared.size() == records) return true;
   std::vector<typename C::Key> gone;
   shared.forEach([&](const Record& r) {
      check();
      if (!C::has(entity, r.key())) gone.push_back(r.key());
   });
   for (const auto& k : gone) counts.erased += shared.erase(k) ? 1 : 0;
   return true;
}

} // namespace

PublishedCounts PublishedMirror::sync(const std::function<bool()>& stop) {
   const auto start = Clock::now();
   PublishedCounts counts;
   StopCheck check{stop};
   bool stopped = false;
   eachSlot(shared_->slots, [&]<class C>(WriterSlot<C>& slot) {
      if (stopped) return;
      const typename C::Entity& entity = *C::of(tables_);
      // A new segment takes the name; readers of the old one see it replaced and attach again.
      auto remake = [&](Vault::Shm::Geometry g) {
         slot.table.reset();
         Vault::Shm::removeTable(router_, C::table);
         slot.table.emplace(router_, C::table, g);
      };
      try {
         if (!slot.table) slot.table.emplace(router_, C::table, geometryFor<C>(entity));
         // Too small for what the entity holds: made larger before writing into it.
         const bool small = C::sizeHint(entity) > slot.table->capacity();
         if (!small && syncTable<C>(*slot.table, entity, counts, check)) return;
         // Full: twice as large, or more, to hold what the entity has.
         Vault::Shm::Geometry g = geometryFor<C>(entity);
         g.capacity = std::max<uint64_t>(g.capacity, 2 * slot.table->capacity());
         remake(g);
         syncTable<C>(*slot.table, entity, counts, check);
      } catch (const SyncStopped&) {
         stopped = true;
      } catch (const Vault::Shm::WriterBusy& e) {
         // Another live process writes it: nothing is written; tried again at the next sync.
         slot.table.reset();
         problems_.push_back(e.what());
      } catch (const Vault::Corruption& e) {
         // Spoiled or cut under the writer by another process: made anew and written whole.
         problems_.push_back(e.what());
         try {
            remake(geometryFor<C>(entity));
            syncTable<C>(*slot.table, entity, counts, check);
         } catch (const SyncStopped&) {
            stopped = true;
         } catch (const std::exception& again) {
            slot.table.reset();
            problems_.push_back(again.what());
         }
      }
   });
   if (!stopped) syncedAt_ = Mox::changeCount();
   unfinished_ = stopped;
   const auto end = Clock::now();
   lastSyncTime_ = end - start;
   syncTime_ += lastSyncTime_;
   nextSync_ = end + costFactor * lastSyncTime_;
   totals_.written += counts.written;
   totals_.erased += counts.erased;
   return counts;
}

bool PublishedMirror::syncWanted() const { return unfinished_ || Mox::changeCount() != syncedAt_; }

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
