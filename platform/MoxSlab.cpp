#include "platform/MoxSlab.h"

#include "platform/Assert.h"

namespace Mox {

namespace {
size_t gClassNumbers = 0;
size_t gOrphanedSlabs = 0;
} // namespace

constinit thread_local Arena* Arena::current_ = nullptr;

ChunkSlab::~ChunkSlab() {
   for (const Block& block : blocks_) bulkFree(arena_, block.memory, block.bytes, chunkBytes_);
}

void ChunkSlab::grow() {
   // Small blocks (one chunk) while the slab is small; large pages, cut into chunks, once it has
   // grown past a few of them.
   const bool large = capacity_ * slotSize_ >= 2 * largePageBytes;
   const size_t bytes = large ? largePageBytes : chunkBytes_;
   void* block = bulkAllocate(arena_, bytes, chunkBytes_);
   blocks_.push_back(Block{block, bytes});
   auto* memory = static_cast<unsigned char*>(block);
   const size_t perChunk = (chunkBytes_ - firstSlot_) / slotSize_;
   // Chained so that the slots are taken in address order.
   for (size_t c = bytes / chunkBytes_; c-- > 0;) {
      unsigned char* chunk = memory + c * chunkBytes_;
      reinterpret_cast<Header*>(chunk)->slab = this;
      for (size_t i = perChunk; i-- > 0;) {
         free_.add(chunk + firstSlot_ + i * slotSize_);
      }
      capacity_ += perChunk;
   }
}

Arena& Arena::process() noexcept {
   static Arena* const arena = new Arena;
   return *arena;
}

Arena::~Arena() {
   SRTE_ASSERT(keeps_ == 0, "Mox::Arena destroyed inside one of its keeps");
   for (auto& slab : slabs_) {
      // Objects still alive keep their slab: their delete reaches it through their chunk.
      if (slab && slab->live() > 0) {
         static_cast<void>(slab.release());
         ++gOrphanedSlabs;
      }
   }
   slabs_.clear();
   releaseKept();
}

size_t Arena::nextClassNumber() noexcept { return gClassNumbers++; }

size_t Arena::orphanedSlabs() noexcept { return gOrphanedSlabs; }

ChunkSlab& Arena::makeSlab(size_t id, size_t size, size_t align, size_t chunkBytes) {
   if (id >= slabs_.size()) slabs_.resize(id + 1);
   slabs_[id] = std::make_unique<ChunkSlab>(*this, size, align, chunkBytes);
   return *slabs_[id];
}

size_t Arena::liveObjects() const noexcept {
   size_t n = 0;
   for (const auto& slab : slabs_) n += slab ? slab->live() : 0;
   return n;
}

size_t Arena::slabCapacity() const noexcept {
   size_t n = 0;
   for (const auto& slab : slabs_) n += slab ? slab->capacity() : 0;
   return n;
}

} // namespace Mox
