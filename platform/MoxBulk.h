// Mox bulk memory: where the tables and slabs that grow to a million members get their memory.
//
// At a million candidate paths the core holds a couple of gigabytes in a few large arrays (the flat
// tables) and in slabs of small objects, touched in no memory order. On 4 KiB pages every first
// touch is a page fault and nearly every lookup a TLB miss; on 2 MiB pages both nearly vanish. So
// a block of at least `bulkMinBytes` is mapped on its own, aligned to 2 MiB and advised for large
// pages (the kernel's transparent huge pages, where it offers them). Smaller blocks, which small
// tables and small cores (tests, the demo) make, stay ordinary heap memory, so a small process
// does not pay a 2 MiB page for a table of ten members.
//
// Guarantees (tests/platform/MoxBulkTest.cpp):
//  - `bulkAllocate` returns memory aligned to at least `align` (and to 2 MiB when mapped), or
//    throws std::bad_alloc; `bulkFree` takes the same size and alignment back;
//  - BulkAllocator<T> is a standard allocator, stateless (all instances are equal), so tables
//    that use it swap and move as with std::allocator;
//  - while a BulkKeep of an arena lives, a mapped block freed in that arena is kept mapped and is
//    what the next allocation of the same mapped size in that arena gets (last kept first); when
//    the arena's last keep ends, the blocks nobody took are unmapped. A restart destroys the
//    core's tables and pools and makes them again at the same sizes: reusing their blocks spares
//    the kernel zeroing every page again. A kept block's content is whatever its last owner left.
//    Each core has its own arena (platform/MoxSlab.h), so one core never gets another's blocks.
//    Without an arena named, the current one is meant (Mox::Arena::current());
//  - under AddressSanitizer every block is ordinary heap memory, so that overflows are caught.
#pragma once

#include <cstddef>
#include <new>

namespace Mox {

class Arena;

// Blocks from this size on are mapped on their own on large pages.
inline constexpr size_t bulkMinBytes = size_t{1} << 20;
inline constexpr size_t largePageBytes = size_t{2} << 20;

void* bulkAllocate(Arena& arena, size_t bytes, size_t align);
void bulkFree(Arena& arena, void* p, size_t bytes, size_t align) noexcept;
// In the current arena.
void* bulkAllocate(size_t bytes, size_t align);
void bulkFree(void* p, size_t bytes, size_t align) noexcept;
// Whether this process maps bulk blocks itself (false under AddressSanitizer).
bool bulkMapped() noexcept;
// What is mapped now, in bytes and blocks (for memory accounting: this memory does not come from
// the heap, so a count of heap allocations does not see it).
size_t bulkMappedBytes() noexcept;
size_t bulkMappedBlocks() noexcept;

// Keeps the mapped blocks freed in `arena` for its reuse while it lives; keeps nest. The arena
// says how much it keeps (Arena::keptBytes()).
class BulkKeep {
 public:
   BulkKeep() noexcept;
   explicit BulkKeep(Arena& arena) noexcept;
   ~BulkKeep();
   BulkKeep(const BulkKeep&) = delete;
   BulkKeep& operator=(const BulkKeep&) = delete;

 private:
   Arena& arena_;
};

template <class T>
struct BulkAllocator {
   using value_type = T;
   BulkAllocator() noexcept = default;
   template <class U>
   BulkAllocator(const BulkAllocator<U>&) noexcept {}
   T* allocate(size_t n) { return static_cast<T*>(bulkAllocate(n * sizeof(T), alignof(T))); }
   void deallocate(T* p, size_t n) noexcept { bulkFree(p, n * sizeof(T), alignof(T)); }
   friend bool operator==(const BulkAllocator&, const BulkAllocator&) noexcept { return true; }
};

} // namespace Mox
