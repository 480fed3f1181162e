// Vault tables in POSIX shared memory: one segment per table, named after its router and table
// (/dev/shm/srte.<router>.<table>), written by one process and read by any number of others.
//
// A segment holds a fixed number of record slots, a hash index over them (two copies, one
// active), a ring of changed keys and a table of reader wake-up slots:
//
//    header (one page) | index 0 | index 1 | change ring | record slots
//
// Guarantees (tests/platform/VaultShmTest.cpp exercises them with real processes):
//  - a reader sees a record whole, old or new, or not at all, also when the writer is killed in
//    the middle of a write: the writer fills a free slot and then publishes it with one atomic
//    store into the index; each slot carries a sequence word, so a reader that raced a reuse of
//    the slot retries;
//  - one writer per table: a second one is refused with WriterBusy naming the holder's pid and
//    command; the claim is an open-file-description lock, which the kernel drops when the holder
//    dies, so a dead writer's table is taken over; the new writer rebuilds its free slots from
//    the index and tells every reader to rescan (it cannot know what the dead one left untold).
//    The descriptor is close-on-exec, but a child forked without exec shares the claim while it
//    lives;
//  - every insert, replace and erase puts its key in the change ring; a reader is told each key
//    (`drain`), or once "everything" when the ring lapped it, when it has just attached and when
//    a new writer took over;
//  - an idle reader sleeps in poll(2) on `fd()`: the writer sends one datagram to a reader that
//    said it was going to sleep, and none to a busy one;
//  - a segment that does not make sense (magic, version, key or record size, geometry, a file
//    shorter than its geometry, an index entry out of range, a record failing its own check) is
//    reported as Vault::Corruption naming the segment, never a crash;
//  - a segment truncated by a third party while a reader has it mapped is Corruption too: a read
//    of a lost page faults once, reads zeros from then on, and the read reports the cut.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/Vault.h"

namespace Vault::Shm {

// A second writer for a table that a live process writes.
class WriterBusy : public std::runtime_error {
 public:
   WriterBusy(const std::string& what, pid_t holder, std::string command)
       : std::runtime_error(what), holder_(holder), command_(std::move(command)) {}
   pid_t holder() const noexcept { return holder_; }
   const std::string& command() const noexcept { return command_; }

 private:
   pid_t holder_;
   std::string command_;
};

// The table does not exist (yet): no writer ever created it.
class NotFound : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// Every slot holds a record.
class TableFull : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// "/dev/shm/srte.<router>.<table>". Names are letters, digits, '_' and '-' (no '.', so that a
// router's tables cannot be confused with another's); anything else throws std::invalid_argument.
std::string segmentPath(std::string_view router, std::string_view table);
// The tables of `router` that exist, by table name.
std::vector<std::string> tablesOf(std::string_view router);
// Removes a table's segment (its writer and readers keep their mapping); true when it existed.
bool removeTable(std::string_view router, std::string_view table);
// A writer makes a new segment under "<path>.new.<pid>" and links it under its name; one killed
// meanwhile leaves that file. Removes those of `table` whose maker no longer runs (a live one may
// be making it right now) and says how many. Every writer does this as it opens its table.
size_t removeLeftovers(std::string_view router, std::string_view table);
// Removes every segment of `router`, its tables and whatever is still being made, for a router
// that is done with (tests, benchmarks); how many.
size_t removeRouter(std::string_view router);

struct Geometry {
   uint64_t capacity = 1 << 16;     // records
   uint64_t ringCapacity = 1 << 16; // changed keys a reader may fall behind before a rescan
};

namespace detail {

inline constexpr uint64_t segmentMagic = 0x31544c5641564554ull; // "TEVAVLT1"
inline constexpr uint32_t segmentVersion = 1;
inline constexpr uint32_t readerSlotCount = 32;
inline constexpr uint64_t indexEmpty = 0;
inline constexpr uint64_t indexErased = ~uint64_t{0};

static_assert(std::atomic<uint32_t>::is_always_lock_free &&
                  std::atomic<uint64_t>::is_always_lock_free,
              "shared-memory words must be lock-free to be address-free");

struct alignas(64) ReaderSlot {
   std::atomic<uint32_t> pid;   // 0: free
   std::atomic<uint32_t> armed; // 1: the reader is about to sleep and wants a datagram
   std::atomic<uint32_t> token; // part of its socket name: a reused pid never gets another's
};

// The first page of a segment. The layout is shared between processes of one build.
struct Header {
   uint64_t magic;
   uint32_t version;
   uint32_t headerSize;
   uint32_t keySize;
   uint32_t recordSize;
   uint64_t capacity;
   uint64_t indexCapacity;
   uint64_t ringCapacity;
   uint64_t totalSize;

   alignas(64) std::atomic<uint32_t> writerPid; // 0 once a writer closed the table cleanly
   char writerCommand[16];

   // Which index copy is active (its low bit); bumped when the writer compacts its index.
   alignas(64) std::atomic<uint32_t> indexGeneration;
   std::atomic<uint64_t> recordCount;

   alignas(64) std::atomic<uint64_t> ringHead; // changes ever written
   alignas(64) std::atomic<uint32_t> readerHigh;
   ReaderSlot readers[readerSlotCount];
};
static_assert(sizeof(Header) <= 4096);
static_assert(std::is_standard_layout_v<Header>);

// Where everything sits, from the key and record sizes and the capacities.
struct Layout {
   // Records; one slot more, since a replace writes the new record before freeing the old.
   uint64_t capacity = 0, slotCount = 0, indexCapacity = 0, ringCapacity = 0;
   uint64_t indexOffset[2] = {0, 0};
   uint64_t ringOffset = 0, ringEntrySize = 0;
   uint64_t slotOffset = 0, slotSize = 0;
   uint64_t totalSize = 0;
   // Empty when the numbers cannot describe a segment (zero, not a power of two, overflow).
   static std::optional<Layout> of(uint32_t keySize, uint32_t recordSize, uint64_t capacity,
                                   uint64_t ringCapacity);
};

// One mapped segment: the file, its header (read-write) and the rest (read-only for readers).
class Segment {
 public:
   enum class Role { reader, writer };
   // Opens the table for reading; NotFound when absent, Corruption when it makes no sense.
   static Segment openReader(const std::string& path, uint32_t keySize, uint32_t recordSize);
   // Opens or creates the table for writing; WriterBusy when a live process holds it.
   static Segment openWriter(const std::string& path, uint32_t keySize, uint32_t recordSize,
                             const Geometry& geometry);
   Segment(Segment&&) noexcept;
   Segment& operator=(Segment&&) = delete;
   ~Segment();

   const std::string& path() const noexcept { return path_; }
   Header& header() const noexcept { return *header_; }
   const Layout& layout() const noexcept { return layout_; }
   uint8_t* data() const noexcept { return data_; }
   bool created() const noexcept { return created_; }
   // The previous writer died holding the table.
   bool tookOver() const noexcept { return tookOver_; }
   [[noreturn]] void corrupt(const std::string& what) const;
   pid_t livingWriter() const;
   bool replaced() const noexcept;
   // Corruption when the file was cut under the mapping since it was mapped. A read of a page
   // the file no longer has reads zeros instead of raising SIGBUS: the process's bus-error
   // handler puts a zero page there and marks the segment cut.
   void checkNotCut() const {
      if (cut_ && cut_->load(std::memory_order_relaxed)) [[unlikely]] {
         reportCut();
      }
   }

   // ---- reader wake-ups
   // Claims a reader slot and binds its socket; returns the slot index.
   uint32_t claimReaderSlot(int& socketFd);
   void releaseReaderSlot(uint32_t slot, int socketFd) noexcept;
   // Empties the socket of wake-up datagrams.
   static void consumeWakeups(int socketFd) noexcept;
   // The writer: one datagram to every reader that asked for one.
   void wakeReaders() noexcept;
   void releaseWriter() noexcept;

 private:
   Segment() = default;
   static Segment mapExisting(const std::string& path, int fd, Role role, uint32_t keySize,
                              uint32_t recordSize);
   static Segment createNew(const std::string& path, uint32_t keySize, uint32_t recordSize,
                            const Geometry& geometry);
   void claimWriter();
   void adviseHugePages() noexcept;
   void watchMappings();
   [[noreturn]] void reportCut() const;

   std::string path_;
   int fd_ = -1;
   int wakeFd_ = -1; // the writer's unbound datagram socket
   Header* header_ = nullptr;
   uint8_t* data_ = nullptr;
   size_t dataLen_ = 0;
   Layout layout_;
   bool created_ = false;
   bool tookOver_ = false;
   std::atomic<uint32_t>* cut_ = nullptr; // in the process's table of watched mappings
};

inline uint64_t mixHash(uint32_t h) noexcept {
   uint64_t x = h * 0x9e3779b97f4a7c15ull;
   return x ^ (x >> 29);
}

} // namespace detail

// What a shared table needs of its key: a plain value with a hash that is the same in every
// process (no per-process seed), and equality.
template <class K>
concept SharedKey = std::is_trivially_copyable_v<K> && std::equality_comparable<K> &&
    requires(const K& k) {
   { k.hash() } -> std::convertible_to<uint32_t>;
};

// What the writer and the readers share: the mapping and the reading operations.
template <class K, class R, size_t MaxRecordSize = sizeof(R)>
requires KeyedRecord<R, K> && SharedKey<K>
class SharedTable {
   static_assert(sizeof(R) <= MaxRecordSize, "record larger than the table's record size");
   static_assert(alignof(R) <= 8 && alignof(K) <= 8);

 public:
   static constexpr size_t recordSizeMax = MaxRecordSize;

   const std::string& path() const noexcept { return segment_.path(); }
   size_t size() const {
      uint64_t count = 0;
      guard([&] { count = segment_.header().recordCount.load(std::memory_order_acquire); });
      return static_cast<size_t>(count);
   }
   uint64_t capacity() const noexcept { return segment_.layout().capacity; }
   // The process writing the table, when one is alive; 0 when none is.
   pid_t writer() const { return segment_.livingWriter(); }
   // The table's name now leads to another segment, or to none: it was removed, and perhaps made
   // again by a new writer. A reader of the old one hears of nothing more and should attach anew.
   bool replaced() const noexcept { return segment_.replaced(); }

   // A copy of the record under `key`, whole; absent when there is none.
   std::optional<R> lookup(const K& key) const {
      Scratch s;
      if (!lookup(key, s.record)) return std::nullopt;
      return s.record;
   }
   // The same into `out`, for a reader that keeps one record to fill: false (and `out` holding
   // anything) when there is none.
   bool lookup(const K& key, R& out) const {
      bool found = false;
      guard([&] { found = lookupUnguarded(key, out); });
      return found;
   }

   // Brings the index entry of `key` towards the cache (an address, not a read), for a reader
   // about to look up many keys.
   void prefetch(const K& key) const {
      const uint32_t generation = header().indexGeneration.load(std::memory_order_relaxed);
      __builtin_prefetch(indexOf(generation) +
                         (detail::mixHash(key.hash()) & (layout().indexCapacity - 1)));
   }

   // Calls `visit(record)` with a whole copy of every record. Records changed during the walk
   // are seen old or new; a record present throughout is seen; when the writer compacts its
   // index meanwhile, the walk starts again (a record may then be seen twice). A `visit` that
   // returns bool ends the walk by returning false.
   template <class F>
   void forEach(F&& visit) const {
      constexpr size_t batchSize = 16;
      for (unsigned attempt = 0;; ++attempt) {
         uint32_t generation = 0;
         guard([&] { generation = header().indexGeneration.load(std::memory_order_acquire); });
         const std::atomic<uint64_t>* index = indexOf(generation);
         bool restart = false;
         uint64_t pos = 0;
         while (pos < layout().indexCapacity && !restart) {
            // A few records at a time under the guard; `visit` runs outside it.
            Scratch batch[batchSize];
            size_t n = 0;
            guard([&] {
               for (; pos < layout().indexCapacity && n < batchSize && !restart; ++pos) {
                  for (unsigned tries = 0;; ++tries) {
                     const uint64_t entry = index[pos].load(std::memory_order_acquire);
                     if (entry == detail::indexEmpty || entry == detail::indexErased) break;
                     if (readPublished(index[pos], entry, batch[n].record)) {
                        ++n;
                        break;
                     }
                     if (header().indexGeneration.load(std::memory_order_acquire) != generation) {
                        restart = true;
                        break;
                     }
                     backOff(tries);
                  }
               }
            });
            for (size_t i = 0; i < n; ++i) {
               if constexpr (std::is_same_v<std::invoke_result_t<F&, const R&>, bool>) {
                  if (!visit(static_cast<const R&>(batch[i].record))) return;
               } else {
                  visit(static_cast<const R&>(batch[i].record));
               }
            }
         }
         // A compaction during the walk may have moved records this copy no longer shows.
         guard([&] {
            std::atomic_thread_fence(std::memory_order_acquire);
            if (header().indexGeneration.load(std::memory_order_relaxed) != generation) {
               restart = true;
            }
         });
         if (!restart) return;
         backOff(attempt);
      }
   }

 protected:
   bool lookupUnguarded(const K& key, R& out) const {
      const uint32_t hash = key.hash();
      for (unsigned attempt = 0;; ++attempt) {
         const uint32_t generation = header().indexGeneration.load(std::memory_order_acquire);
         const std::atomic<uint64_t>* index = indexOf(generation);
         const uint64_t mask = layout().indexCapacity - 1;
         uint64_t pos = detail::mixHash(hash) & mask;
         bool found = false, raced = false;
         for (uint64_t probes = 0; probes <= mask; ++probes, pos = (pos + 1) & mask) {
            const uint64_t entry = index[pos].load(std::memory_order_acquire);
            if (entry == detail::indexEmpty) break;
            if (entry == detail::indexErased || tagOf(entry) != hash) continue;
            if (!readPublished(index[pos], entry, out)) {
               raced = true;
               break;
            }
            if (out.key() == key) {
               found = true;
               break;
            }
         }
         std::atomic_thread_fence(std::memory_order_acquire);
         if (!raced && header().indexGeneration.load(std::memory_order_relaxed) == generation) {
            return found;
         }
         backOff(attempt);
      }
   }

   struct RingEntry {
      std::atomic<uint64_t> stamp; // position + 1 once the key is whole
   };

   explicit SharedTable(detail::Segment segment) : segment_(std::move(segment)) {}

   // Runs `f`, which reads the segment, then checks that the file was not cut under it (what
   // it read of lost pages was zeros).
   template <class F>
   void guard(F&& f) const {
      f();
      segment_.checkNotCut();
   }

   // Room for a record filled by a byte copy: records are trivially copyable, so the copy is what
   // makes one; no constructor runs first to zero what the copy overwrites.
   union Scratch {
      Scratch() {}
      R record;
   };

   detail::Header& header() const noexcept { return segment_.header(); }
   const detail::Layout& layout() const noexcept { return segment_.layout(); }
   std::atomic<uint64_t>* indexOf(uint32_t generation) const noexcept {
      return reinterpret_cast<std::atomic<uint64_t>*>(segment_.data() +
                                                      layout().indexOffset[generation & 1]);
   }
   std::atomic<uint32_t>& slotSequence(uint64_t slot) const noexcept {
      return *reinterpret_cast<std::atomic<uint32_t>*>(slotBase(slot));
   }
   uint8_t* slotRecord(uint64_t slot) const noexcept { return slotBase(slot) + 8; }
   RingEntry& ringEntry(uint64_t position) const noexcept {
      const uint64_t i = position & (layout().ringCapacity - 1);
      return *reinterpret_cast<RingEntry*>(segment_.data() + layout().ringOffset +
                                           i * layout().ringEntrySize);
   }
   uint8_t* ringKey(RingEntry& e) const noexcept { return reinterpret_cast<uint8_t*>(&e) + 8; }

   static uint32_t tagOf(uint64_t entry) noexcept { return static_cast<uint32_t>(entry >> 32); }
   static uint64_t slotOf(uint64_t entry) noexcept { return (entry & 0xffffffffu) - 1; }
   static uint64_t entryOf(uint32_t tag, uint64_t slot) noexcept {
      return (uint64_t{tag} << 32) | (slot + 1);
   }

   uint64_t checkedSlot(uint64_t entry) const {
      const uint64_t slot = slotOf(entry);
      if (slot >= layout().slotCount) {
         segment_.corrupt("index entry names slot " + std::to_string(slot) + " of " +
                          std::to_string(layout().slotCount));
      }
      return slot;
   }

   // Copies the record that index entry `at` (holding `entry`) publishes. False when the writer
   // changed the entry or reused its slot meanwhile: the caller reads the index again.
   bool readPublished(const std::atomic<uint64_t>& at, uint64_t entry, R& out) const {
      const uint64_t slot = checkedSlot(entry);
      std::atomic<uint32_t>& sequence = slotSequence(slot);
      const uint32_t before = sequence.load(std::memory_order_acquire);
      if (before & 1) return false;
      std::memcpy(static_cast<void*>(&out), slotRecord(slot), sizeof(R));
      std::atomic_thread_fence(std::memory_order_acquire);
      // Still the same slot contents, and still what the index publishes: a whole record.
      if (sequence.load(std::memory_order_relaxed) != before) return false;
      if (at.load(std::memory_order_relaxed) != entry) return false;
      if constexpr (SelfChecking<R>) {
         if (!out.isValidRecord()) {
            segment_.corrupt("record in slot " + std::to_string(slot) + " fails its check");
         }
      }
      return true;
   }

   // A published slot never changes, so a reader retries only while the writer works; one that
   // cannot get a stable read for this long faces a segment that no writer keeps.
   void backOff(unsigned attempt) const {
      if (attempt > 1000000) segment_.corrupt("a record stays in the middle of a write");
      if (attempt > 64) ::sched_yield();
   }

   detail::Segment segment_;

 private:
   uint8_t* slotBase(uint64_t slot) const noexcept {
      return segment_.data() + layout().slotOffset + slot * layout().slotSize;
   }
};

// The one process that writes a table.
template <class K, class R, size_t MaxRecordSize = sizeof(R)>
requires KeyedRecord<R, K> && SharedKey<K>
class Writer : public SharedTable<K, R, MaxRecordSize> {
   using Base = SharedTable<K, R, MaxRecordSize>;
   using Base::header;
   using Base::layout;
   using typename Base::RingEntry;

 public:
   // Opens the table of `router` named `table`, creating it with `geometry` when absent (an
   // existing one keeps its own). Throws WriterBusy when a live process writes it, Corruption
   // when the existing segment makes no sense.
   Writer(std::string_view router, std::string_view table, const Geometry& geometry = {})
       : Base(detail::Segment::openWriter(segmentPath(router, table), sizeof(K), MaxRecordSize,
                                          geometry)) {
      recover();
   }
   Writer(Writer&&) noexcept = default;
   ~Writer() {
      if (!moved()) this->segment_.releaseWriter();
   }

   // Index entries in use (records and erased ones) and the index's size: compaction keeps the
   // first at most three quarters of the second, so that a miss stops at an empty entry soon.
   uint64_t indexUsed() const noexcept { return used_; }
   uint64_t indexCapacity() const noexcept { return layout().indexCapacity; }

   // Whether this writer took the table over from one that died holding it.
   bool tookOver() const noexcept { return this->segment_.tookOver(); }

   // While a Batch is open, changes go into the ring but sleeping readers are woken only when
   // the outermost Batch closes: one wake-up for a burst of writes instead of one per record for
   // a reader that keeps up. Readers that are awake see each change as it is written.
   class Batch {
    public:
      explicit Batch(Writer& w) : w_(w) { ++w_.batchDepth_; }
      Batch(const Batch&) = delete;
      Batch& operator=(const Batch&) = delete;
      ~Batch() {
         if (--w_.batchDepth_ == 0 && w_.wakePending_) {
            w_.wakePending_ = false;
            w_.segment_.wakeReaders();
         }
      }

    private:
      Writer& w_;
   };

   // Inserts or replaces the record under record.key(); readers hear of the key. Throws
   // TableFull when no slot is free, Corruption for a record failing its own check or a segment
   // cut under the writer (the write went to a page the file no longer has).
   void insert(const R& record) {
      if constexpr (SelfChecking<R>) {
         if (!record.isValidRecord()) {
            throw Corruption("Vault table " + this->path() + ": insert of a corrupt record");
         }
      }
      const K& key = record.key();
      const uint32_t hash = key.hash();
      const Probe probe = find(key, hash);
      if (!probe.found && count_ >= layout().capacity) {
         throw TableFull("Vault table " + this->path() + " is full (" +
                         std::to_string(layout().capacity) + " records)");
      }
      const uint64_t slot = takeFree();
      writeSlot(slot, record);
      std::atomic<uint64_t>* index = this->indexOf(generation_);
      if (probe.found) {
         const uint64_t old = this->checkedSlot(index[probe.pos].load(std::memory_order_relaxed));
         index[probe.pos].store(Base::entryOf(hash, slot), std::memory_order_release);
         giveFree(old);
      } else {
         if (index[probe.pos].load(std::memory_order_relaxed) == detail::indexEmpty) ++used_;
         index[probe.pos].store(Base::entryOf(hash, slot), std::memory_order_release);
         header().recordCount.store(++count_, std::memory_order_release);
      }
      changed(key);
      if (used_ > layout().indexCapacity / 4 * 3) compact();
      this->segment_.checkNotCut();
   }

   // Walks the records from index position `pos` on, erasing each one `gone(record)` says went,
   // and asks `stop()` after each record: when it says so, the walk ends there and `pos` is where
   // the next call goes on. True once the walk reached the end. Only inserts move records in the
   // index, so a walk made of several calls with erases alone in between meets every record once.
   template <class Gone, class Stop>
   bool eraseWalk(uint64_t& pos, Gone&& gone, Stop&& stop) {
      std::atomic<uint64_t>* index = this->indexOf(generation_);
      typename Base::Scratch held;
      while (pos < layout().indexCapacity) {
         const uint64_t at = pos++;
         const uint64_t entry = index[at].load(std::memory_order_relaxed);
         if (entry == detail::indexEmpty || entry == detail::indexErased) continue;
         const uint64_t slot = this->checkedSlot(entry);
         std::memcpy(static_cast<void*>(&held.record), this->slotRecord(slot), sizeof(R));
         if (gone(static_cast<const R&>(held.record))) {
            index[at].store(detail::indexErased, std::memory_order_release);
            header().recordCount.store(--count_, std::memory_order_release);
            giveFree(slot);
            changed(held.record.key());
         }
         if (stop()) break;
      }
      this->segment_.checkNotCut();
      return pos >= layout().indexCapacity;
   }

   // Removes the record under `key`; readers hear of the key. False when there was none.
   bool erase(const K& key) {
      const Probe probe = find(key, key.hash());
      if (!probe.found) return false;
      std::atomic<uint64_t>* index = this->indexOf(generation_);
      const uint64_t slot = this->checkedSlot(index[probe.pos].load(std::memory_order_relaxed));
      index[probe.pos].store(detail::indexErased, std::memory_order_release);
      header().recordCount.store(--count_, std::memory_order_release);
      giveFree(slot);
      changed(key);
      this->segment_.checkNotCut();
      return true;
   }

   // Removes every record, one key at a time.
   void clear() {
      std::vector<K> keys;
      keys.reserve(count_);
      this->forEach([&](const R& r) { keys.push_back(r.key()); });
      for (const K& k : keys) erase(k);
   }

 private:
   struct Probe {
      uint64_t pos;
      bool found;
   };

   bool moved() const noexcept { return this->segment_.data() == nullptr; }

   // Where `key` is, or where it would go (the first erased entry on its way, else the empty
   // one that ends it). Only this process changes the index, so no read here can race.
   Probe find(const K& key, uint32_t hash) const {
      const std::atomic<uint64_t>* index = this->indexOf(generation_);
      const uint64_t mask = layout().indexCapacity - 1;
      uint64_t pos = detail::mixHash(hash) & mask;
      std::optional<uint64_t> erased;
      for (uint64_t probes = 0; probes <= mask; ++probes, pos = (pos + 1) & mask) {
         const uint64_t entry = index[pos].load(std::memory_order_relaxed);
         if (entry == detail::indexEmpty) return {erased.value_or(pos), false};
         if (entry == detail::indexErased) {
            if (!erased) erased = pos;
            continue;
         }
         if (Base::tagOf(entry) != hash) continue;
         typename Base::Scratch held;
         std::memcpy(static_cast<void*>(&held.record), this->slotRecord(this->checkedSlot(entry)),
                     sizeof(R));
         if (held.record.key() == key) return {pos, true};
      }
      if (erased) return {*erased, false};
      this->segment_.corrupt("index has no free entry");
   }

   void writeSlot(uint64_t slot, const R& record) {
      std::atomic<uint32_t>& sequence = this->slotSequence(slot);
      // A writer killed mid-write left the word odd; it stays odd until this write is whole.
      const uint32_t odd = sequence.load(std::memory_order_relaxed) | 1;
      sequence.store(odd, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      std::memcpy(this->slotRecord(slot), static_cast<const void*>(&record), sizeof(R));
      sequence.store(odd + 1, std::memory_order_release);
   }

   void changed(const K& key) {
      RingEntry& e = this->ringEntry(head_);
      e.stamp.store(0, std::memory_order_relaxed);
      std::atomic_thread_fence(std::memory_order_release);
      std::memcpy(this->ringKey(e), static_cast<const void*>(&key), sizeof(K));
      e.stamp.store(head_ + 1, std::memory_order_release);
      // Sequentially consistent against a reader's "armed, then head": one of the two sees the
      // other, so a reader never sleeps on a change.
      header().ringHead.store(++head_, std::memory_order_seq_cst);
      if (batchDepth_ != 0) {
         wakePending_ = true;
      } else {
         this->segment_.wakeReaders();
      }
   }

   // Slots are reused oldest-freed first, which gives a slow reader the longest time before the
   // slot it reads is written again.
   uint64_t takeFree() {
      const uint64_t slot = free_[freeFirst_];
      freeFirst_ = (freeFirst_ + 1) % free_.size();
      --freeCount_;
      return slot;
   }
   void giveFree(uint64_t slot) {
      free_[(freeFirst_ + freeCount_) % free_.size()] = static_cast<uint32_t>(slot);
      ++freeCount_;
   }

   // Learns the table as the index has it: which slots are taken, how many records, how full
   // the index is. A table taken over from a dead writer is compacted and every reader rescans.
   void recover() {
      generation_ = header().indexGeneration.load(std::memory_order_acquire);
      head_ = header().ringHead.load(std::memory_order_acquire);
      const uint64_t slots = layout().slotCount;
      std::vector<bool> taken(slots, false);
      const std::atomic<uint64_t>* index = this->indexOf(generation_);
      count_ = 0;
      used_ = 0;
      for (uint64_t pos = 0; pos < layout().indexCapacity; ++pos) {
         const uint64_t entry = index[pos].load(std::memory_order_relaxed);
         if (entry == detail::indexEmpty) continue;
         ++used_;
         if (entry == detail::indexErased) continue;
         const uint64_t slot = this->checkedSlot(entry);
         if (taken[slot]) this->segment_.corrupt("slot " + std::to_string(slot) + " indexed twice");
         taken[slot] = true;
         ++count_;
      }
      free_.assign(slots, 0);
      freeFirst_ = 0;
      freeCount_ = 0;
      for (uint64_t slot = 0; slot < slots; ++slot) {
         if (!taken[slot]) giveFree(slot);
      }
      header().recordCount.store(count_, std::memory_order_release);
      if (tookOver()) {
         compact();
         // Past the ring's capacity: every reader takes it as "rescan everything".
         head_ += layout().ringCapacity + 1;
         header().ringHead.store(head_, std::memory_order_seq_cst);
         this->segment_.wakeReaders();
      }
   }

   // Rebuilds the index without erased entries in the inactive copy, then makes it the active
   // one. Readers probing the old copy see the generation move and look again.
   void compact() {
      const std::atomic<uint64_t>* from = this->indexOf(generation_);
      std::atomic<uint64_t>* to = this->indexOf(generation_ + 1);
      const uint64_t n = layout().indexCapacity, mask = n - 1;
      // The copy about to be overwritten may still be probed by a reader that began before the
      // last compaction: it re-checks the generation, which has moved since.
      for (uint64_t pos = 0; pos < n; ++pos) to[pos].store(0, std::memory_order_relaxed);
      used_ = 0;
      for (uint64_t pos = 0; pos < n; ++pos) {
         const uint64_t entry = from[pos].load(std::memory_order_relaxed);
         if (entry == detail::indexEmpty || entry == detail::indexErased) continue;
         uint64_t at = detail::mixHash(Base::tagOf(entry)) & mask;
         while (to[at].load(std::memory_order_relaxed) != detail::indexEmpty) at = (at + 1) & mask;
         to[at].store(entry, std::memory_order_relaxed);
         ++used_;
      }
      header().indexGeneration.store(++generation_, std::memory_order_release);
   }

   uint32_t generation_ = 0;
   unsigned batchDepth_ = 0;
   bool wakePending_ = false;
   uint64_t head_ = 0;
   uint64_t count_ = 0;
   uint64_t used_ = 0; // index entries not empty (records and erased)
   std::vector<uint32_t> free_;
   uint64_t freeFirst_ = 0, freeCount_ = 0;
};

// A process that reads a table and hears of its changes.
template <class K, class R, size_t MaxRecordSize = sizeof(R)>
requires KeyedRecord<R, K> && SharedKey<K>
class Reader : public SharedTable<K, R, MaxRecordSize> {
   using Base = SharedTable<K, R, MaxRecordSize>;
   using Base::header;
   using Base::layout;
   using typename Base::RingEntry;

 public:
   // Attaches to the table; NotFound when it does not exist, Corruption when it makes no sense.
   Reader(std::string_view router, std::string_view table)
       : Base(detail::Segment::openReader(segmentPath(router, table), sizeof(K), MaxRecordSize)) {
      slot_ = this->segment_.claimReaderSlot(socket_);
      cursor_ = header().ringHead.load(std::memory_order_acquire);
   }
   Reader(Reader&& other) noexcept
       : Base(std::move(other)), socket_(std::exchange(other.socket_, -1)), slot_(other.slot_),
         cursor_(other.cursor_), attached_(other.attached_) {}
   ~Reader() {
      if (socket_ >= 0) this->segment_.releaseReaderSlot(slot_, socket_);
   }

   // Readable (poll(2), POLLIN) when changes may be waiting: call `drain` then.
   int fd() const noexcept { return socket_; }

   // Tells every change since the last drain: `onKey(key)` per changed key (a key may come more
   // than once), or `onAll()` once when the reader must rescan the whole table (just attached,
   // fell more than the ring's capacity behind, or a new writer took over). Returns the number of
   // notifications given. Before returning it asks the writer for a wake-up on the next change.
   template <class OnKey, class OnAll>
   size_t drain(OnKey&& onKey, OnAll&& onAll) {
      detail::Segment::consumeWakeups(socket_);
      size_t told = 0;
      for (;;) {
         uint64_t head = 0;
         this->guard([&] {
            header().readers[slot_].armed.store(0, std::memory_order_relaxed);
            head = header().ringHead.load(std::memory_order_acquire);
         });
         if (!attached_ || head - cursor_ > layout().ringCapacity) {
            attached_ = true;
            cursor_ = head;
            onAll();
            ++told;
         }
         for (; cursor_ != head; ++cursor_) {
            K key;
            bool whole = false;
            this->guard([&] { whole = readChange(cursor_, key); });
            if (!whole) {
               // Overwritten while we read it: the writer lapped us.
               cursor_ = head;
               onAll();
               ++told;
               break;
            }
            onKey(static_cast<const K&>(key));
            ++told;
         }
         bool caughtUp = false;
         this->guard([&] {
            header().readers[slot_].armed.store(1, std::memory_order_seq_cst);
            caughtUp = header().ringHead.load(std::memory_order_seq_cst) == cursor_;
         });
         if (caughtUp) return told;
      }
   }

   // Waits up to `timeoutMs` (-1: forever) for the fd to become readable; true when it did.
   bool wait(int timeoutMs) const;

 private:
   bool readChange(uint64_t position, K& key) const {
      RingEntry& e = this->ringEntry(position);
      if (e.stamp.load(std::memory_order_acquire) != position + 1) return false;
      std::memcpy(static_cast<void*>(&key), this->ringKey(e), sizeof(K));
      std::atomic_thread_fence(std::memory_order_acquire);
      return e.stamp.load(std::memory_order_relaxed) == position + 1;
   }

   int socket_ = -1;
   uint32_t slot_ = 0;
   uint64_t cursor_ = 0;
   bool attached_ = false;
};

// Poll on one fd, without <poll.h> in every includer.
bool waitReadable(int fd, int timeoutMs);

template <class K, class R, size_t M>
requires KeyedRecord<R, K> && SharedKey<K>
bool Reader<K, R, M>::wait(int timeoutMs) const { return waitReadable(socket_, timeoutMs); }

} // namespace Vault::Shm
