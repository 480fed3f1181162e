#include "platform/MoxBulk.h"

#include <sys/mman.h>

#include <cstdint>

#include "platform/MoxSlab.h"

namespace Mox {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMapped = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kMapped = false;
#else
constexpr bool kMapped = true;
#endif
#else
constexpr bool kMapped = true;
#endif

size_t gMappedBytes = 0;
size_t gMappedBlocks = 0;

bool isMapped(size_t bytes) noexcept { return kMapped && bytes >= bulkMinBytes; }

size_t mappedBytes(size_t bytes) noexcept {
   return (bytes + largePageBytes - 1) / largePageBytes * largePageBytes;
}

} // namespace

bool bulkMapped() noexcept { return kMapped; }
size_t bulkMappedBytes() noexcept { return gMappedBytes; }
size_t bulkMappedBlocks() noexcept { return gMappedBlocks; }

BulkKeep::BulkKeep() noexcept : BulkKeep(Arena::current()) {}

BulkKeep::BulkKeep(Arena& arena) noexcept : arena_(arena) { ++arena_.keeps_; }

BulkKeep::~BulkKeep() {
   if (--arena_.keeps_ == 0) arena_.releaseKept();
}

void Arena::releaseKept() noexcept {
   for (const auto& [size, p] : kept_) {
      munmap(p, size);
      gMappedBytes -= size;
      --gMappedBlocks;
   }
   kept_.clear();
   keptBytes_ = 0;
}

void* bulkAllocate(size_t bytes, size_t align) {
   return bulkAllocate(Arena::current(), bytes, align);
}

void bulkFree(void* p, size_t bytes, size_t align) noexcept {
   bulkFree(Arena::current(), p, bytes, align);
}

void* bulkAllocate(Arena& arena, size_t bytes, size_t align) {
   if (!isMapped(bytes)) {
      return align > __STDCPP_DEFAULT_NEW_ALIGNMENT__
                 ? ::operator new(bytes, std::align_val_t(align))
                 : ::operator new(bytes);
   }
   const size_t size = mappedBytes(bytes);
   if (arena.keptBytes_ > 0) {
      // The last kept of this size: the one most likely still in the caches.
      auto [first, last] = arena.kept_.equal_range(size);
      if (first != last) {
         --last;
         void* p = last->second;
         arena.kept_.erase(last);
         arena.keptBytes_ -= size;
         return p;
      }
   }
   // Over-map by one large page and trim, so the block starts on a large-page boundary: only
   // whole aligned 2 MiB ranges can be backed by a large page.
   const size_t span = size + largePageBytes;
   void* raw = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   if (raw == MAP_FAILED) throw std::bad_alloc();
   const auto base = reinterpret_cast<uintptr_t>(raw);
   const uintptr_t start = (base + largePageBytes - 1) & ~(uintptr_t{largePageBytes} - 1);
   if (start > base) munmap(raw, start - base);
   const uintptr_t end = start + size;
   if (base + span > end) munmap(reinterpret_cast<void*>(end), base + span - end);
   void* p = reinterpret_cast<void*>(start);
   // Advice only: where the kernel offers no large pages the block is ordinary memory.
   madvise(p, size, MADV_HUGEPAGE);
   gMappedBytes += size;
   ++gMappedBlocks;
   return p;
}

void bulkFree(Arena& arena, void* p, size_t bytes, size_t align) noexcept {
   if (!p) return;
   if (!isMapped(bytes)) {
      if (align > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
         ::operator delete(p, std::align_val_t(align));
      } else {
         ::operator delete(p);
      }
      return;
   }
   const size_t size = mappedBytes(bytes);
   if (arena.keeps_ > 0) {
      try {
         arena.kept_.emplace(size, p);
         arena.keptBytes_ += size;
         return;
      } catch (const std::bad_alloc&) {
         // No room to remember it: unmapped at once, as without a keep.
      }
   }
   munmap(p, size);
   gMappedBytes -= size;
   --gMappedBlocks;
}

} // namespace Mox
