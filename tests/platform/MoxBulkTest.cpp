// Bulk memory: large blocks are mapped on their own, 2 MiB-aligned, and accounted for; small ones
// stay heap memory; tables and slabs built on it keep working as they grow past the threshold and
// give every mapped byte back when they go.
#include "platform/MoxBulk.h"

#include <absl/container/flat_hash_map.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <set>

#include "platform/MoxSlab.h"

namespace {

bool aligned(const void* p, size_t align) { return reinterpret_cast<uintptr_t>(p) % align == 0; }

TEST(MoxBulk, LargeBlocksAreMappedOnLargePageBoundariesAndSmallOnesAreHeapMemory) {
   const size_t bytes0 = Mox::bulkMappedBytes();
   const size_t blocks0 = Mox::bulkMappedBlocks();

   void* small = Mox::bulkAllocate(4096, 64);
   EXPECT_TRUE(aligned(small, 64));
   EXPECT_EQ(Mox::bulkMappedBlocks(), blocks0) << "a small block must not cost a large page";
   std::memset(small, 0xab, 4096);

   // Just over the threshold and over one large page: rounded up to whole large pages.
   const size_t odd = Mox::largePageBytes + 12345;
   void* large = Mox::bulkAllocate(odd, 128);
   EXPECT_TRUE(aligned(large, 128));
   if (Mox::bulkMapped()) {
      EXPECT_TRUE(aligned(large, Mox::largePageBytes));
      EXPECT_EQ(Mox::bulkMappedBlocks(), blocks0 + 1);
      EXPECT_EQ(Mox::bulkMappedBytes(), bytes0 + 2 * Mox::largePageBytes);
   } else {
      EXPECT_EQ(Mox::bulkMappedBlocks(), blocks0) << "heap memory only under AddressSanitizer";
   }
   // Every byte asked for is usable, the last one too.
   std::memset(large, 0x5a, odd);
   EXPECT_EQ(static_cast<unsigned char*>(large)[odd - 1], 0x5a);

   Mox::bulkFree(large, odd, 128);
   Mox::bulkFree(small, 4096, 64);
   Mox::bulkFree(nullptr, odd, 128);
   EXPECT_EQ(Mox::bulkMappedBytes(), bytes0);
   EXPECT_EQ(Mox::bulkMappedBlocks(), blocks0);
}

TEST(MoxBulk, ATableGrowsFromHeapToMappedMemoryAndGivesItAllBack) {
   const size_t bytes0 = Mox::bulkMappedBytes();
   {
      using Alloc = Mox::BulkAllocator<std::pair<const uint64_t, uint64_t>>;
      absl::flat_hash_map<uint64_t, uint64_t, absl::Hash<uint64_t>, std::equal_to<uint64_t>, Alloc>
          table;
      // 200,000 16-byte slots: several rehashes, the last ones past the mapping threshold.
      for (uint64_t i = 0; i < 200000; ++i) table.emplace(i * 7919, i);
      if (Mox::bulkMapped()) {
         EXPECT_GT(Mox::bulkMappedBytes(), bytes0);
      }
      for (uint64_t i = 0; i < 200000; ++i) {
         auto it = table.find(i * 7919);
         ASSERT_NE(it, table.end());
         ASSERT_EQ(it->second, i);
      }
      // Moves and swaps need no allocator of their own.
      decltype(table) moved = std::move(table);
      decltype(table) other;
      other.swap(moved);
      EXPECT_EQ(other.size(), 200000u);
      EXPECT_EQ(other.at(7919 * 5), 5u);
   }
   EXPECT_EQ(Mox::bulkMappedBytes(), bytes0);
}

TEST(MoxBulk, ASlabTakesLargePageBlocksOnceItHasGrownAndItsSlotsStayDistinct) {
   const size_t bytes0 = Mox::bulkMappedBytes();
   constexpr size_t slot = 64;
   {
      Mox::Slab slab(slot, 64, 1024);
      std::set<void*> taken;
      // Small blocks first: 64 KiB each, none mapped.
      for (int i = 0; i < 1024; ++i) taken.insert(slab.take());
      EXPECT_EQ(slab.capacity(), 1024u);
      EXPECT_EQ(Mox::bulkMappedBytes(), bytes0);

      // Past 4 MiB of slots, each new block is one large page of slots.
      const size_t smallBlocks = 2 * Mox::largePageBytes / (1024 * slot);
      while (slab.capacity() < smallBlocks * 1024) taken.insert(slab.take());
      const size_t before = slab.capacity();
      while (slab.capacity() == before) taken.insert(slab.take());
      EXPECT_EQ(slab.capacity(), before + Mox::largePageBytes / slot);
      if (Mox::bulkMapped()) {
         EXPECT_EQ(Mox::bulkMappedBytes(), bytes0 + Mox::largePageBytes);
      }
      EXPECT_EQ(taken.size(), slab.live()) << "a slot was handed out twice";

      // Slots in a large block are usable end to end and come back first when freed.
      for (void* p : taken) std::memset(p, 0x77, slot);
      void* last = *taken.rbegin();
      slab.give(last);
      EXPECT_EQ(slab.take(), last);
      for (void* p : taken) slab.give(p);
      EXPECT_EQ(slab.live(), 0u);
   }
   EXPECT_EQ(Mox::bulkMappedBytes(), bytes0) << "a slab's blocks go with it";
}

// A restart frees its tables and makes them again at the same sizes: under a keep the new ones
// get the old blocks back, a size nobody freed is mapped afresh, and what nobody took is unmapped
// when the outermost keep ends.
TEST(MoxBulk, AKeepHandsFreedBlocksToTheNextTablesOfTheSameSizeAndUnmapsTheRest) {
   if (!Mox::bulkMapped()) GTEST_SKIP() << "heap memory only under AddressSanitizer";
   const size_t bytes0 = Mox::bulkMappedBytes();
   const size_t big = 3 * Mox::largePageBytes, other = 2 * Mox::largePageBytes;
   void* a = Mox::bulkAllocate(big, 64);
   void* b = Mox::bulkAllocate(big - 4096, 64); // the same number of large pages
   void* c = Mox::bulkAllocate(other, 64);
   std::memset(a, 0x11, big);
   {
      Mox::BulkKeep keep;
      Mox::bulkFree(a, big, 64);
      {
         Mox::BulkKeep inner;
         Mox::bulkFree(b, big - 4096, 64);
      }
      EXPECT_EQ(Mox::Arena::current().keptBytes(), 6 * Mox::largePageBytes)
          << "an inner keep ended early";
      EXPECT_EQ(Mox::bulkMappedBytes(), bytes0 + 8 * Mox::largePageBytes);

      // Last kept first; then the other one; then a fresh mapping.
      EXPECT_EQ(Mox::bulkAllocate(big, 64), b);
      void* again = Mox::bulkAllocate(big - 100, 64);
      EXPECT_EQ(again, a);
      EXPECT_EQ(static_cast<unsigned char*>(again)[big - 1], 0x11) << "not the same block";
      void* fresh = Mox::bulkAllocate(other, 64);
      EXPECT_NE(fresh, c);
      EXPECT_EQ(Mox::Arena::current().keptBytes(), 0u);
      EXPECT_EQ(Mox::bulkMappedBytes(), bytes0 + 10 * Mox::largePageBytes);

      Mox::bulkFree(fresh, other, 64);
      Mox::bulkFree(again, big, 64);
      Mox::bulkFree(b, big, 64);
   }
   EXPECT_EQ(Mox::Arena::current().keptBytes(), 0u);
   EXPECT_EQ(Mox::bulkMappedBytes(), bytes0 + other) << "kept blocks outlived the keep";
   Mox::bulkFree(c, other, 64);
   EXPECT_EQ(Mox::bulkMappedBytes(), bytes0);
}

} // namespace
