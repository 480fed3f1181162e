#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <vector>

#include "publish/SrTePolicyReactorSlab.h"

namespace {

using SrTePolicy::ReactorSlab;

// Counts the live objects; a value of -1 makes the constructor throw.
struct Tracked {
   static inline int live = 0;
   int value;
   explicit Tracked(int v) : value(v) {
      if (v < 0) throw std::runtime_error("refused");
      ++live;
   }
   ~Tracked() { --live; }
};

TEST(ReactorSlab, ReusesFreedSlotsAndKeepsLiveOnesInPlace) {
   ReactorSlab<Tracked, 8> slab;
   std::vector<ReactorSlab<Tracked, 8>::Ptr> held;
   std::set<const Tracked*> addresses;
   for (int i = 0; i < 20; ++i) {
      held.push_back(slab.make(i));
      addresses.insert(held.back().get());
   }
   EXPECT_EQ(addresses.size(), 20u);
   EXPECT_EQ(Tracked::live, 20);
   EXPECT_EQ(slab.live(), 20u);
   EXPECT_EQ(slab.capacity(), 24u);

   // Half go away: their destructors run and their slots serve the next keys, no new block.
   for (size_t i = 0; i < held.size(); i += 2) held[i].reset();
   EXPECT_EQ(Tracked::live, 10);
   for (int i = 0; i < 14; ++i) held.push_back(slab.make(100 + i));
   EXPECT_EQ(slab.capacity(), 24u);
   EXPECT_EQ(slab.live(), 24u);
   // The survivors were not moved or overwritten.
   for (size_t i = 1; i < 20; i += 2) EXPECT_EQ(held[i]->value, static_cast<int>(i));

   // A constructor that throws takes no slot.
   EXPECT_THROW(slab.make(-1), std::runtime_error);
   EXPECT_EQ(slab.live(), 24u);
   held.push_back(slab.make(7));
   EXPECT_EQ(slab.capacity(), 32u);
   held.clear();
   EXPECT_EQ(Tracked::live, 0);
   EXPECT_EQ(slab.live(), 0u);
}

} // namespace
