// ReactorSlab: where a machine keeps its per-key reactors (publishing and LFIB generation have one
// per policy). Slots are allocated in blocks of `blockSize` and a slot given back by a removed key
// is reused, so making the reactor of a new key costs no allocation of its own. Blocks are kept
// until the slab goes (a reactor is a hundred bytes; the keys usually come back).
//
// Guarantees (tests/publish/ReactorSlabTest.cpp):
//  - a reactor lives at one address from `make` until its pointer lets go of it;
//  - a slot is reused only after its reactor was destroyed; giving a slot back never allocates;
//  - a constructor that throws leaves the slab as it was.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace SrTePolicy {

template <class T, size_t blockSize = 64>
class ReactorSlab {
 public:
   struct Deleter {
      ReactorSlab* slab = nullptr;
      void operator()(T* p) const noexcept { slab->destroy(p); }
   };
   // Owns one reactor; destroying it gives the slot back. Every one must be gone before the slab.
   using Ptr = std::unique_ptr<T, Deleter>;

   ReactorSlab() = default;
   ReactorSlab(const ReactorSlab&) = delete;
   ReactorSlab& operator=(const ReactorSlab&) = delete;

   template <class... A>
   Ptr make(A&&... args) {
      if (free_.empty()) grow();
      T* p = new (free_.back()) T(std::forward<A>(args)...);
      free_.pop_back();
      return Ptr(p, Deleter{this});
   }
   // Reactors alive, and slots allocated.
   size_t live() const noexcept { return capacity() - free_.size(); }
   size_t capacity() const noexcept { return blocks_.size() * blockSize; }

 private:
   struct alignas(T) Slot {
      std::byte bytes[sizeof(T)];
   };

   void grow() {
      blocks_.push_back(std::unique_ptr<Slot[]>(new Slot[blockSize]));
      // Room for every slot there is: destroy() then never needs to allocate.
      if (free_.capacity() < capacity()) free_.reserve(std::max(capacity(), 2 * free_.capacity()));
      Slot* block = blocks_.back().get();
      for (size_t i = blockSize; i-- > 0;) free_.push_back(&block[i]);
   }
   void destroy(T* p) noexcept {
      p->~T();
      free_.push_back(p);
   }

   std::vector<std::unique_ptr<Slot[]>> blocks_;
   std::vector<void*> free_;
};

} // namespace SrTePolicy
