// Mox::Slabbed<T>: gives a class of entities that exist by the hundred thousand (one per candidate
// path or per policy key) its own allocator. Objects are carved from blocks of many and reused
// through a free list, so making one is not a heap allocation, it pays no allocator header, and
// objects made together sit together.
//
//   class PolicyIdEntry : public Mox::Entity, public Mox::Slabbed<PolicyIdEntry> { ... };
//   Mox::make<PolicyIdEntry>(...);   // unchanged: `new` and `delete` go to the slab
//
// Mox::Arena owns the slabs (one per Slabbed class) and the bulk blocks kept across a restart
// (platform/MoxBulk.h). A core owns an arena; two cores in one process never share a block.
//  - `new` takes from the slab of the current arena: the one a Mox::Arena::Scope made current on
//    this thread (a core's start and stop, each of its tasks, the host applying a command), else
//    the process arena. The current arena is one thread-local pointer, set and restored by the
//    scope; taking a slot reads it and indexes the arena's slabs by the class's number.
//  - `delete` needs no current arena and no lookup table: every block of a class is one chunk of
//    a power-of-two size aligned to that size, whose first bytes name the slab that owns it.
//    Masking the object's address finds the chunk and so the slab, whichever arena is current.
//    A large page is cut into such chunks, each with its header (at most one slot per chunk).
//    Measured against one static slab per class (pipeline_bench at 200,000 and 1,000,000
//    paths, old and new interleaved; docs/performance.md): the same CPU time within the noise,
//    cold and restarted; about 5 more resident bytes per path (headers, power-of-two small
//    blocks).
//  - An arena destroyed while objects of one of its slabs live leaves that slab and its blocks
//    behind (never freed): the late objects stay usable and their delete still finds the slab.
//    `Arena::orphanedSlabs()` counts them; a core frees everything it made before its arena goes.
//
// Guarantees (tests/platform/MoxPoolTest.cpp, MoxArenaTest.cpp):
//  - an object keeps its address for its whole life;
//  - a freed slot is reused (last freed first) before a new block is taken;
//  - an object of a derived class larger than T gets ordinary heap memory;
//  - blocks are given back only with their arena: a restart makes its entities again in the
//    blocks the last incarnation used;
//  - once a slab holds a few megabytes its blocks are large pages (platform/MoxBulk.h): a slab of
//    a million entities is then read without a TLB miss per entity.
//  - An arena is for one thread (the event loop's).
//  - Under AddressSanitizer every object is an ordinary heap allocation, so that a use after
//    free is still caught.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <vector>

#include "platform/MoxBulk.h"

namespace Mox {

// The free slots of a slab, chained through the slots themselves, last freed first, and how many
// slots are taken.
class FreeSlots {
 public:
   bool empty() const noexcept { return head_ == nullptr; }
   // Only when not empty.
   void* take() noexcept {
      Free* slot = head_;
      head_ = slot->next;
      ++live_;
      return slot;
   }
   void give(void* p) noexcept {
      add(p);
      --live_;
   }
   // A slot of a new block.
   void add(void* p) noexcept {
      auto* slot = static_cast<Free*>(p);
      slot->next = head_;
      head_ = slot;
   }
   size_t live() const noexcept { return live_; }

 private:
   struct Free {
      Free* next;
   };
   Free* head_ = nullptr;
   size_t live_ = 0;
};

// Slots of one size, carved from blocks and reused through a free list (for Slabbed and Pool).
class Slab {
 public:
   Slab(size_t size, size_t align, size_t perBlock) noexcept
       : align_(std::max(align, alignof(void*))),
         slotSize_((std::max(size, sizeof(void*)) + align_ - 1) / align_ * align_),
         perBlock_(perBlock) {}
   Slab(const Slab&) = delete;
   Slab& operator=(const Slab&) = delete;
   ~Slab() {
      for (const Block& block : blocks_) bulkFree(block.memory, block.bytes, align_);
   }

   void* take() {
      if (free_.empty()) grow();
      return free_.take();
   }
   void give(void* p) noexcept { free_.give(p); }
   size_t live() const noexcept { return free_.live(); }
   size_t capacity() const noexcept { return capacity_; }

 private:
   struct Block {
      void* memory;
      size_t bytes;
   };

   void grow() {
      // Small blocks while the slab is small; large pages once it has grown past a few of them.
      const bool large = capacity_ * slotSize_ >= 2 * largePageBytes && slotSize_ <= largePageBytes;
      const size_t slots = large ? largePageBytes / slotSize_ : perBlock_;
      const size_t bytes = large ? largePageBytes : perBlock_ * slotSize_;
      void* block = bulkAllocate(bytes, align_);
      blocks_.push_back(Block{block, bytes});
      capacity_ += slots;
      // Chained so that the block's slots are taken in address order.
      auto* memory = static_cast<unsigned char*>(block);
      for (size_t i = slots; i-- > 0;) {
         free_.add(memory + i * slotSize_);
      }
   }

   const size_t align_;
   const size_t slotSize_;
   const size_t perBlock_;
   std::vector<Block> blocks_;
   FreeSlots free_;
   size_t capacity_ = 0;
};

#if defined(__SANITIZE_ADDRESS__)
#define MOX_SLAB_ENABLED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MOX_SLAB_ENABLED 0
#endif
#endif
#ifndef MOX_SLAB_ENABLED
#define MOX_SLAB_ENABLED 1
#endif

class Arena;

// The slots of one Slabbed class in one arena, in chunks of `chunkBytes` aligned to that size,
// each headed by a pointer to the slab (see the header comment).
class ChunkSlab {
 public:
   ChunkSlab(Arena& arena, size_t size, size_t align, size_t chunkBytes) noexcept
       : arena_(arena), align_(std::max(align, alignof(void*))),
         slotSize_((std::max(size, sizeof(void*)) + align_ - 1) / align_ * align_),
         chunkBytes_(chunkBytes), firstSlot_((sizeof(Header) + align_ - 1) / align_ * align_) {}
   ChunkSlab(const ChunkSlab&) = delete;
   ChunkSlab& operator=(const ChunkSlab&) = delete;
   ~ChunkSlab();

   // The smallest chunk (a power of two, at most a large page) with room for `perBlock` slots.
   static constexpr size_t chunkBytesFor(size_t size, size_t align, size_t perBlock) noexcept {
      const size_t a = std::max(align, alignof(void*));
      const size_t slot = (std::max(size, sizeof(void*)) + a - 1) / a * a;
      const size_t first = (sizeof(Header) + a - 1) / a * a;
      return std::min(std::bit_ceil(first + perBlock * slot), largePageBytes);
   }
   // The slab that owns the slot at `p`, from the header of its chunk.
   static ChunkSlab& owner(void* p, size_t chunkBytes) noexcept {
      const auto chunk = reinterpret_cast<uintptr_t>(p) & ~(uintptr_t{chunkBytes} - 1);
      return *reinterpret_cast<const Header*>(chunk)->slab;
   }

   void* take() {
      if (free_.empty()) [[unlikely]]
         grow();
      return free_.take();
   }
   void give(void* p) noexcept { free_.give(p); }
   size_t live() const noexcept { return free_.live(); }
   size_t capacity() const noexcept { return capacity_; }
   size_t chunkBytes() const noexcept { return chunkBytes_; }
   Arena& arena() const noexcept { return arena_; }

 private:
   struct Header {
      ChunkSlab* slab;
   };
   struct Block {
      void* memory;
      size_t bytes;
   };

   void grow();

   Arena& arena_;
   const size_t align_;
   const size_t slotSize_;
   const size_t chunkBytes_;
   const size_t firstSlot_;
   std::vector<Block> blocks_;
   FreeSlots free_;
   size_t capacity_ = 0;
};

// What one core allocates from: the slabs of every Slabbed class and the bulk blocks a restart
// keeps (BulkKeep). Not movable: slabs point back to it.
class Arena {
 public:
   Arena() = default;
   ~Arena();
   Arena(const Arena&) = delete;
   Arena& operator=(const Arena&) = delete;

   // Makes `arena` current on this thread while it lives; scopes nest.
   class Scope {
    public:
      explicit Scope(Arena& arena) noexcept : previous_(current_) { current_ = &arena; }
      ~Scope() { current_ = previous_; }
      Scope(const Scope&) = delete;
      Scope& operator=(const Scope&) = delete;

    private:
      Arena* previous_;
   };

   // The arena of the innermost scope on this thread, else the process arena.
   static Arena& current() noexcept { return current_ ? *current_ : process(); }
   // For what no core makes (router tables, tests that make entities outside a core). Never
   // destroyed: an object that outlives static destruction can still be freed.
   static Arena& process() noexcept;

   // The slab of class T here, made on first use.
   template <class T, size_t PerBlock>
   ChunkSlab& slabOf() {
      const size_t id = classNumber<T>();
      if (id < slabs_.size() && slabs_[id]) [[likely]]
         return *slabs_[id];
      return makeSlab(id, sizeof(T), alignof(T),
                      ChunkSlab::chunkBytesFor(sizeof(T), alignof(T), PerBlock));
   }
   // Objects alive in this arena's slabs, and the slabs' capacity.
   size_t liveObjects() const noexcept;
   size_t slabCapacity() const noexcept;
   // Freed bulk blocks kept for reuse by this arena's keep (platform/MoxBulk.h).
   size_t keptBytes() const noexcept { return keptBytes_; }
   // Slabs left behind by arenas destroyed with live objects, in this process.
   static size_t orphanedSlabs() noexcept;

 private:
   friend class BulkKeep;
   friend void* bulkAllocate(Arena&, size_t, size_t);
   friend void bulkFree(Arena&, void*, size_t, size_t) noexcept;

   template <class T>
   static size_t classNumber() {
      static const size_t number = nextClassNumber();
      return number;
   }
   static size_t nextClassNumber() noexcept;
   ChunkSlab& makeSlab(size_t id, size_t size, size_t align, size_t chunkBytes);
   void releaseKept() noexcept;

   // Constant-initialised, so reading it is one thread-local load (no initialisation check).
   static constinit thread_local Arena* current_;

   std::vector<std::unique_ptr<ChunkSlab>> slabs_;
   // Bulk blocks (BulkKeep): how many keeps are open, and the blocks kept, by mapped size.
   int keeps_ = 0;
   size_t keptBytes_ = 0;
   std::multimap<size_t, void*> kept_;
};

template <class T, size_t PerBlock = 512>
class Slabbed {
 public:
   static void* operator new(size_t n) {
      if (!MOX_SLAB_ENABLED || n != sizeof(T)) return ::operator new(n);
      return Arena::current().slabOf<T, PerBlock>().take();
   }
   static void operator delete(void* p, size_t n) noexcept {
      if (!p) return;
      if (!MOX_SLAB_ENABLED || n != sizeof(T)) return ::operator delete(p);
      ChunkSlab::owner(p, chunkBytes()).give(p);
   }
   // No state: a value class that compares its members by default compares equal here.
   friend bool operator==(const Slabbed&, const Slabbed&) noexcept { return true; }
   // The class's slab in `arena`, for tests and memory accounting.
   static ChunkSlab& slab(Arena& arena = Arena::current()) { return arena.slabOf<T, PerBlock>(); }

 private:
   // A function, not a constant: T is not complete where Slabbed<T> is its base.
   static constexpr size_t chunkBytes() noexcept {
      return ChunkSlab::chunkBytesFor(sizeof(T), alignof(T), PerBlock);
   }
};

} // namespace Mox
