// The pool of per-path reactors and the slab of per-path entities: addresses stay put, freed slots
// come back first, a throwing constructor loses nothing.
#include "platform/MoxPool.h"
#include "platform/MoxSlab.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <vector>

#include "platform/Mox.h"

namespace {

struct Probe {
   static int alive;
   int value;
   explicit Probe(int v) : value(v) {
      if (v < 0) throw std::invalid_argument("negative");
      ++alive;
   }
   ~Probe() { --alive; }
};
int Probe::alive = 0;

TEST(MoxPool, ObjectsKeepTheirAddressesAndFreedSlotsAreReusedBeforeANewBlock) {
   Mox::Pool<Probe, 4> pool;
   std::vector<Mox::Pool<Probe, 4>::Ptr> held;
   std::vector<const Probe*> addresses;
   for (int i = 0; i < 10; ++i) {
      held.push_back(pool.make(i));
      addresses.push_back(held.back().get());
   }
   EXPECT_EQ(pool.live(), 10u);
   EXPECT_EQ(pool.capacity(), 12u);
   EXPECT_EQ(std::set<const Probe*>(addresses.begin(), addresses.end()).size(), 10u);
   for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(held[i].get(), addresses[i]) << "moved by later makes";
      EXPECT_EQ(held[i]->value, i);
   }

   // Free three, make three: the same slots, no new block.
   const std::set<const Probe*> freed{held[1].get(), held[5].get(), held[9].get()};
   held[1].reset();
   held[5].reset();
   held[9].reset();
   EXPECT_EQ(Probe::alive, 7);
   std::set<const Probe*> reused;
   for (int i = 0; i < 3; ++i) {
      held.push_back(pool.make(100 + i));
      reused.insert(held.back().get());
   }
   EXPECT_EQ(reused, freed);
   EXPECT_EQ(pool.capacity(), 12u);

   // A constructor that throws leaves its slot free and nothing alive.
   EXPECT_THROW(pool.make(-1), std::invalid_argument);
   EXPECT_EQ(pool.live(), 10u);
   EXPECT_EQ(Probe::alive, 10);
   held.push_back(pool.make(7));
   EXPECT_EQ(pool.capacity(), 12u) << "the slot of the failed make is taken again";
   held.clear();
   EXPECT_EQ(Probe::alive, 0);
   EXPECT_EQ(pool.live(), 0u);
}

// An entity held by reference count, as the per-path entities are.
class Pathlet : public Mox::Entity, public Mox::Slabbed<Pathlet, 4> {
 public:
   explicit Pathlet(int v) : value(v) {
      if (v < 0) throw std::invalid_argument("negative");
   }
   int value;
};
// A larger derived class cannot live in the base's slots.
class WidePathlet : public Pathlet {
 public:
   WidePathlet() : Pathlet(1) {}
   char wide[64] = {};
};

TEST(MoxSlab, EntitiesLiveInTheirClassSlabAndTheirSlotsComeBack) {
   if (!MOX_SLAB_ENABLED) GTEST_SKIP() << "ordinary heap objects under AddressSanitizer";
   auto& slab = Pathlet::slab();
   const size_t live = slab.live();
   std::vector<Mox::Ptr<Pathlet>> held;
   for (int i = 0; i < 6; ++i) held.push_back(Mox::make<Pathlet>(i));
   EXPECT_EQ(slab.live(), live + 6);
   const size_t capacity = slab.capacity();

   // The last freed is the first reused; held entities did not move.
   const Pathlet* freed = held[2].get();
   held[2] = nullptr;
   EXPECT_EQ(slab.live(), live + 5);
   held[2] = Mox::make<Pathlet>(20);
   EXPECT_EQ(held[2].get(), freed);
   EXPECT_EQ(slab.capacity(), capacity);
   for (int i = 0; i < 6; ++i) EXPECT_EQ(held[i]->value, i == 2 ? 20 : i);

   // A throwing constructor gives its slot back; a wider derived object is not put in a slot.
   EXPECT_THROW(Mox::make<Pathlet>(-1), std::invalid_argument);
   EXPECT_EQ(slab.live(), live + 6);
   Mox::Ptr<Pathlet> wide = Mox::make<WidePathlet>();
   EXPECT_EQ(slab.live(), live + 6);
   EXPECT_EQ(wide->value, 1);
   wide = nullptr;
   held.clear();
   EXPECT_EQ(slab.live(), live);
}

} // namespace
