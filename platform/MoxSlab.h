// Mox::Slabbed<T>: gives a class of entities that exist by the hundred thousand (one per candidate
// path or per policy key) its own allocator. Objects are carved from blocks of many and reused
// through a free list, so making one is not a heap allocation, it pays no allocator header, and
// objects made together sit together.
//
//   class PolicyIdEntry : public Mox::Entity, public Mox::Slabbed<PolicyIdEntry> { ... };
//   Mox::make<PolicyIdEntry>(...);   // unchanged: `new` and `delete` go to the slab
//
// Guarantees (tests/platform/MoxPoolTest.cpp):
//  - an object keeps its address for its whole life;
//  - a freed slot is reused (last freed first) before a new block is taken;
//  - an object of a derived class larger than T gets ordinary heap memory;
//  - blocks are never given back: the process keeps them for the entities a restart makes again;
//  - once a slab holds a few megabytes its blocks are large pages (platform/MoxBulk.h): a slab of
//    a million entities is then read without a TLB miss per entity.
//    One slab per class and process, for one thread (the event loop's).
//  - Under AddressSanitizer every object is an ordinary heap allocation, so that a use after
//    free is still caught.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include "platform/MoxBulk.h"

namespace Mox {

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
      if (!free_) grow();
      void* slot = free_;
      free_ = free_->next;
      ++live_;
      return slot;
   }
   void give(void* p) noexcept {
      auto* slot = static_cast<Free*>(p);
      slot->next = free_;
      free_ = slot;
      --live_;
   }
   size_t live() const noexcept { return live_; }
   size_t capacity() const noexcept { return capacity_; }

 private:
   struct Free {
      Free* next;
   };
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
         auto* slot = reinterpret_cast<Free*>(memory + i * slotSize_);
         slot->next = free_;
         free_ = slot;
      }
   }

   const size_t align_;
   const size_t slotSize_;
   const size_t perBlock_;
   std::vector<Block> blocks_;
   Free* free_ = nullptr;
   size_t live_ = 0;
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

template <class T, size_t PerBlock = 512>
class Slabbed {
 public:
   static void* operator new(size_t n) {
      if (!MOX_SLAB_ENABLED || n != sizeof(T)) return ::operator new(n);
      return slab().take();
   }
   static void operator delete(void* p, size_t n) noexcept {
      if (!p) return;
      if (!MOX_SLAB_ENABLED || n != sizeof(T)) return ::operator delete(p);
      slab().give(p);
   }
   // No state: a value class that compares its members by default compares equal here.
   friend bool operator==(const Slabbed&, const Slabbed&) noexcept { return true; }
   // The class's slab, for tests and memory accounting.
   static auto& slab() {
      // Never destroyed: an object that outlives static destruction can still be freed.
      static Slab* const s = new Slab(sizeof(T), alignof(T), PerBlock);
      return *s;
   }
};

} // namespace Mox
