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

#include "platform/Assert.h"
#include "platform/MoxSlab.h"

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

   Pool() : slab_(sizeof(T), alignof(T), PerBlock) {}
   Pool(const Pool&) = delete;
   Pool& operator=(const Pool&) = delete;
   ~Pool() { SRTE_ASSERT(slab_.live() == 0, "Mox::Pool destroyed before its objects"); }

   template <class... A>
   Ptr make(A&&... args) {
      void* slot = slab_.take();
      try {
         return Ptr(::new (slot) T(std::forward<A>(args)...), Deleter(this));
      } catch (...) {
         slab_.give(slot);
         throw;
      }
   }

   size_t live() const noexcept { return slab_.live(); }
   size_t capacity() const noexcept { return slab_.capacity(); }

 private:
   void destroy(T* object) noexcept {
      object->~T();
      // The object was built at the start of its slot.
      slab_.give(object);
   }

   Slab slab_;
};

} // namespace Mox
