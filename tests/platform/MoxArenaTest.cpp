// Arenas: each core's entities and kept bulk blocks are its own. Objects go back to the arena that
// made them whichever is current when they die, tasks allocate in the arena they were made in, a
// restart's freed blocks go to the next tables of the same arena only, and objects that outlive
// their arena stay usable.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <vector>

#include "platform/Kiln.h"
#include "platform/Mox.h"
#include "platform/MoxBulk.h"
#include "platform/MoxSlab.h"

namespace {

using Mox::Arena;

class Leaf : public Mox::Entity, public Mox::Slabbed<Leaf, 16> {
 public:
   explicit Leaf(uint64_t v) : value(v) {}
   uint64_t value;
};

// Wide enough that a few tens of thousands fill more than the small blocks of a slab.
class Trunk : public Mox::Entity, public Mox::Slabbed<Trunk> {
 public:
   explicit Trunk(uint64_t v) : value(v) { std::memset(pad, static_cast<int>(v), sizeof pad); }
   uint64_t value;
   unsigned char pad[200];
};

template <class T>
std::vector<Mox::Ptr<T>> makeIn(Arena& arena, size_t n) {
   Arena::Scope in(arena);
   std::vector<Mox::Ptr<T>> made;
   for (size_t i = 0; i < n; ++i) made.push_back(Mox::make<T>(i));
   return made;
}

template <class T>
std::set<uintptr_t> chunksOf(const std::vector<Mox::Ptr<T>>& objects, size_t chunkBytes) {
   std::set<uintptr_t> chunks;
   for (const auto& o : objects) {
      chunks.insert(reinterpret_cast<uintptr_t>(o.get()) & ~(uintptr_t{chunkBytes} - 1));
   }
   return chunks;
}

TEST(MoxArena, TwoArenasShareNoBlockAndEachObjectGoesBackToItsOwn) {
   if (!MOX_SLAB_ENABLED) GTEST_SKIP() << "ordinary heap objects under AddressSanitizer";
   Arena a, b;
   auto inA = makeIn<Leaf>(a, 100);
   auto inB = makeIn<Leaf>(b, 100);
   EXPECT_EQ(Leaf::slab(a).live(), 100u);
   EXPECT_EQ(Leaf::slab(b).live(), 100u);
   EXPECT_EQ(a.liveObjects(), 100u);
   EXPECT_EQ(&Arena::current(), &Arena::process()) << "a scope outlived its block";
   // No block in common.
   const size_t chunk = Leaf::slab(a).chunkBytes();
   const std::set<uintptr_t> chunksB = chunksOf(inB, chunk);
   for (uintptr_t c : chunksOf(inA, chunk)) EXPECT_EQ(chunksB.count(c), 0u);

   // Freed while the other arena (then none) is current: back to its own slab, and the next
   // object made in that arena takes its slot (last freed first).
   const Leaf* freedA = inA[7].get();
   {
      Arena::Scope in(b);
      inA[7] = nullptr;
      EXPECT_EQ(Leaf::slab(a).live(), 99u);
      EXPECT_EQ(Leaf::slab(b).live(), 100u);
      EXPECT_NE(Mox::make<Leaf>(1).get(), freedA) << "b took a's slot";
   }
   const Leaf* freedB = inB[3].get();
   inB[3] = nullptr;
   EXPECT_EQ(Leaf::slab(b).live(), 99u);
   EXPECT_EQ(makeIn<Leaf>(a, 1)[0].get(), freedA);
   {
      Arena::Scope in(b);
      inB[3] = Mox::make<Leaf>(33);
   }
   EXPECT_EQ(inB[3].get(), freedB);
   for (size_t i = 0; i < inA.size(); ++i) {
      if (i != 7) {
         EXPECT_EQ(inA[i]->value, i);
      }
   }
   EXPECT_EQ(inB[3]->value, 33u);

   // Scopes nest and restore what was current.
   {
      Arena::Scope outer(a);
      {
         Arena::Scope inner(b);
         EXPECT_EQ(&Arena::current(), &b);
      }
      EXPECT_EQ(&Arena::current(), &a);
   }
   inA.clear();
   inB.clear();
   EXPECT_EQ(a.liveObjects() + b.liveObjects(), 0u);
}

// Past a few megabytes a slab takes large pages cut into chunks: every object there still finds
// its slab from its address, and the two arenas' slots stay apart.
TEST(MoxArena, ObjectsOnLargePagesFindTheirArena) {
   if (!MOX_SLAB_ENABLED) GTEST_SKIP() << "ordinary heap objects under AddressSanitizer";
   constexpr size_t count = 40'000; // about 9 MiB of slots
   Arena a, b;
   auto inA = makeIn<Trunk>(a, count);
   auto inB = makeIn<Trunk>(b, count / 4);
   const size_t mappedA = Trunk::slab(a).capacity();
   EXPECT_GE(mappedA, count);
   std::set<const Trunk*> seen;
   for (const auto& t : inA) seen.insert(t.get());
   for (const auto& t : inB) EXPECT_EQ(seen.count(t.get()), 0u);
   EXPECT_EQ(seen.size(), count) << "a slot was handed out twice";
   for (size_t i = 0; i < count; i += 997) EXPECT_EQ(inA[i]->value, i) << "overwritten";

   // Freed under b, every one of them goes back to a; made again in a, no block is added.
   {
      Arena::Scope in(b);
      inA.clear();
      EXPECT_EQ(Trunk::slab(a).live(), 0u);
      EXPECT_EQ(Trunk::slab(b).live(), count / 4);
   }
   inA = makeIn<Trunk>(a, count);
   EXPECT_EQ(Trunk::slab(a).capacity(), mappedA) << "the freed slots were not reused";
   std::set<const Trunk*> again;
   for (const auto& t : inA) again.insert(t.get());
   EXPECT_EQ(again, seen);
}

// Each task allocates in the arena that was current where it was made (its core's), whichever is
// current when the scheduler runs it.
TEST(MoxArena, ATaskRunsInTheArenaItWasMadeIn) {
   if (!MOX_SLAB_ENABLED) GTEST_SKIP() << "ordinary heap objects under AddressSanitizer";
   struct OnRun : Kiln::Task::Notifiee {
      std::function<void()> then;
      OnRun(Kiln::Task& t, std::function<void()> f) : then(std::move(f)) { notifierIs(&t); }
      void onTaskRun() override { then(); }
   };
   Arena a, b;
   Kiln::TaskScheduler scheduler;
   std::vector<Mox::Ptr<Leaf>> made;
   Mox::Ptr<Kiln::Task> taskA, taskB;
   {
      Arena::Scope in(a);
      taskA = Mox::make<Kiln::Task>(scheduler, 1, "a");
   }
   {
      Arena::Scope in(b);
      taskB = Mox::make<Kiln::Task>(scheduler, 1, "b");
   }
   OnRun runA(*taskA, [&] { made.push_back(Mox::make<Leaf>(1)); });
   OnRun runB(*taskB, [&] {
      made.push_back(Mox::make<Leaf>(2));
      made.push_back(Mox::make<Leaf>(3));
   });
   taskA->scheduleTask();
   taskB->scheduleTask();
   {
      Arena::Scope other(b); // the loop's own scope does not leak into the tasks
      scheduler.runUntilIdle();
      EXPECT_EQ(&Arena::current(), &b);
   }
   EXPECT_EQ(Leaf::slab(a).live(), 1u);
   EXPECT_EQ(Leaf::slab(b).live(), 2u);
   made.clear();
}

// A restart frees the core's tables and makes them again: under a keep of its arena the new ones
// get its old blocks, another arena allocating the same size in between does not, and the other
// arena's keep holds only what was freed in it.
TEST(MoxArena, ARestartReusesTheBlocksOfItsOwnArenaOnly) {
   if (!Mox::bulkMapped()) GTEST_SKIP() << "heap memory only under AddressSanitizer";
   const size_t size = 2 * Mox::largePageBytes;
   Arena a, b;
   void* tableA = Mox::bulkAllocate(a, size, 64);
   void* tableB = Mox::bulkAllocate(b, size, 64);
   std::memset(tableA, 0x5a, size);
   {
      Mox::BulkKeep keepA(a);
      Mox::BulkKeep keepB(b);
      Mox::bulkFree(a, tableA, size, 64);
      EXPECT_EQ(a.keptBytes(), size);
      EXPECT_EQ(b.keptBytes(), 0u);
      // Freed and made again with a's arena current, as a core's stop and start do.
      void* otherB = Mox::bulkAllocate(b, size, 64);
      EXPECT_NE(otherB, tableA) << "b got a block a kept";
      void* againA = nullptr;
      {
         Arena::Scope in(a);
         againA = Mox::bulkAllocate(size, 64);
      }
      EXPECT_EQ(againA, tableA);
      EXPECT_EQ(static_cast<unsigned char*>(againA)[size - 1], 0x5a);
      EXPECT_EQ(a.keptBytes(), 0u);
      Mox::bulkFree(b, otherB, size, 64);
      EXPECT_EQ(b.keptBytes(), size);
      Mox::bulkFree(a, againA, size, 64);
   }
   EXPECT_EQ(a.keptBytes() + b.keptBytes(), 0u) << "kept blocks outlived the keeps";
   Mox::bulkFree(b, tableB, size, 64);
}

// An arena that goes while some of its objects live leaves their slab behind: they stay readable
// and their delete still lands in it. The arena's other slabs and blocks go with it.
TEST(MoxArena, ObjectsOutlivingTheirArenaStayUsable) {
   if (!MOX_SLAB_ENABLED) GTEST_SKIP() << "ordinary heap objects under AddressSanitizer";
   const size_t orphans = Arena::orphanedSlabs();
   std::vector<Mox::Ptr<Leaf>> survivors;
   {
      Arena a;
      survivors = makeIn<Leaf>(a, 40);
      makeIn<Trunk>(a, 10); // freed at once: its slab goes with the arena
   }
   EXPECT_EQ(Arena::orphanedSlabs(), orphans + 1);
   for (size_t i = 0; i < survivors.size(); ++i) EXPECT_EQ(survivors[i]->value, i);
   // A new arena may reuse the old one's memory; the survivors must not be handed out again.
   Arena b;
   auto fresh = makeIn<Leaf>(b, 40);
   std::set<const Leaf*> live;
   for (const auto& l : survivors) live.insert(l.get());
   for (const auto& l : fresh) EXPECT_EQ(live.count(l.get()), 0u);
   survivors.clear();
   EXPECT_EQ(Leaf::slab(b).live(), 40u);
   for (size_t i = 0; i < fresh.size(); ++i) EXPECT_EQ(fresh[i]->value, i);
}

} // namespace
