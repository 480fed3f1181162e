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
//  - blocks are never given back: the process keeps them for the entities a restart makes again.
//    One slab per class and process, for one thread (the event loop's).
//  - Under AddressSanitizer every object is an ordinary heap allocation, so that a use after
//    free is still caught.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace Mox {

template <size_t Size, size_t Align, size_t PerBlock>
class Slab {
 public:
   void* take() {
      if (!free_) grow();
      Slot* slot = free_;
      free_ = slot->next;
      ++live_;
      return slot;
   }
   void give(void* p) noexcept {
      Slot* slot = static_cast<Slot*>(p);
      slot->next = free_;
      free_ = slot;
      --live_;
   }
   size_t live() const noexcept { return live_; }
   size_t capacity() const noexcept { return blocks_.size() * PerBlock; }

 private:
   union Slot {
      Slot* next;
      alignas(Align) unsigned char storage[Size];
   };

   void grow() {
      blocks_.push_back(std::make_unique_for_overwrite<Slot[]>(PerBlock));
      Slot* block = blocks_.back().get();
      // Chained so that the block's slots are taken in address order.
      for (size_t i = PerBlock; i-- > 0;) {
         block[i].next = free_;
         free_ = &block[i];
      }
   }

   std::vector<std::unique_ptr<Slot[]>> blocks_;
   Slot* free_ = nullptr;
   size_t live_ = 0;
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
   // The class's slab, for tests and memory accounting.
   static auto& slab() {
      // Never destroyed: an object that outlives static destruction can still be freed.
      static auto* const s = new Slab<sizeof(T), alignof(T), PerBlock>;
      return *s;
   }
};

} // namespace Mox
