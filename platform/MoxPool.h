// Mox::Pool: objects of one type that come and go by the hundred thousand (a machine's reactor per
// candidate path), carved from blocks of many and reused through a free list, so making one is not
// a heap allocation and the live ones sit close together.
//
// Guarantees (tests/platform/MoxPoolTest.cpp):
//  - an object keeps its address for its whole life (reactors are bound by address);
//  - a freed slot is reused before a new block is taken; blocks are released with the pool;
//  - a constructor that throws leaves its slot free and the pool as it was;
//  - every object must be gone before its pool (declare the pool before what holds its objects).
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace Mox {

template <class T, size_t PerBlock = 256>
class Pool {
 public:
   class Deleter {
    public:
      Deleter() = default;
      explicit Deleter(Pool* pool) : pool_(pool) {}
      void operator()(T* p) const noexcept { pool_->destroy(p); }

    private:
      Pool* pool_ = nullptr;
   };
   using Ptr = std::unique_ptr<T, Deleter>;

   Pool() = default;
   Pool(const Pool&) = delete;
   Pool& operator=(const Pool&) = delete;
   ~Pool() { SRTE_ASSERT(live_ == 0, "Mox::Pool destroyed before its objects"); }

   template <class... A>
   Ptr make(A&&... args) {
      Slot* slot = take();
      try {
         T* object = ::new (static_cast<void*>(slot->storage)) T(std::forward<A>(args)...);
         ++live_;
         return Ptr(object, Deleter(this));
      } catch (...) {
         give(slot);
         throw;
      }
   }

   size_t live() const noexcept { return live_; }
   size_t capacity() const noexcept { return blocks_.size() * PerBlock; }

 private:
   union Slot {
      Slot* next;
      alignas(T) unsigned char storage[sizeof(T)];
   };

   Slot* take() {
      if (!free_) grow();
      Slot* slot = free_;
      free_ = slot->next;
      return slot;
   }
   void give(Slot* slot) noexcept {
      slot->next = free_;
      free_ = slot;
   }
   void destroy(T* object) noexcept {
      object->~T();
      --live_;
      // The object was built at the start of its slot.
      give(reinterpret_cast<Slot*>(object));
   }
   void grow() {
      blocks_.push_back(std::make_unique<Slot[]>(PerBlock));
      Slot* block = blocks_.back().get();
      // Chained so that the block's slots are taken in address order.
      for (size_t i = PerBlock; i-- > 0;) give(&block[i]);
   }

   std::vector<std::unique_ptr<Slot[]>> blocks_;
   Slot* free_ = nullptr;
   size_t live_ = 0;
};

} // namespace Mox
