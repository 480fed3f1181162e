#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/Mox.h"

namespace {

// An entity with the two small containers as notifying collections.
struct Users : Mox::Entity {
   struct Notifiee : Mox::NotifieeOf<Users> {
      virtual void onUser(const int&) {}
      virtual void onSlot(const int&) {}
   };
   Mox::SmallSet<int, 2, 4> user;
   Mox::SmallMap<int, std::string> slot;
   void userIs(int u) { setIs(user, u, &Notifiee::onUser); }
   void userDel(int u) { collDel(user, u, &Notifiee::onUser); }
   void userDelAll() { collDelAll(user, &Notifiee::onUser); }
   void slotIs(int k, std::string v) { collIs(slot, k, std::move(v), &Notifiee::onSlot); }
   void slotDel(int k) { collDel(slot, k, &Notifiee::onSlot); }
};

std::vector<int> sorted(const Mox::SmallSet<int, 2, 4>& s) {
   std::vector<int> v(s.begin(), s.end());
   std::sort(v.begin(), v.end());
   return v;
}

TEST(MoxSmallContainers, ASetKeepsEveryMemberAcrossItsMoveToATableAndBack) {
   auto users = Mox::make<Users>();
   struct Log : Users::Notifiee {
      std::string seen;
      void onUser(const int& u) override {
         seen += (notifier()->user.contains(u) ? "+" : "-") + std::to_string(u) + " ";
      }
   } log;
   log.notifierIs(users);

   for (int u : {5, 3, 5, 9, 1}) users->userIs(u); // a repeat is no change
   EXPECT_EQ(log.seen, "+5 +3 +9 +1 ");
   EXPECT_EQ(sorted(users->user), (std::vector<int>{1, 3, 5, 9}));
   users->userDel(3); // the last member fills the gap
   users->userDel(42);
   EXPECT_EQ(sorted(users->user), (std::vector<int>{1, 5, 9}));

   // Past four members the set is a table: same answers, and a copy is independent.
   for (int u = 10; u < 30; ++u) users->userIs(u);
   EXPECT_EQ(users->user.size(), 23u);
   EXPECT_TRUE(users->user.contains(9));
   EXPECT_FALSE(users->user.contains(3));
   const Mox::SmallSet<int, 2, 4> copy = users->user;
   users->userDel(10);
   EXPECT_EQ(copy.size(), 23u);
   EXPECT_EQ(users->user.size(), 22u);
   EXPECT_EQ(std::distance(users->user.begin(), users->user.end()), 22);

   // Removing all notifies once per member, each after it is gone, and leaves it usable again.
   log.seen.clear();
   users->userDelAll();
   EXPECT_TRUE(users->user.empty());
   EXPECT_EQ(std::count(log.seen.begin(), log.seen.end(), '-'), 22);
   EXPECT_EQ(log.seen.find('+'), std::string::npos);
   users->userIs(7);
   EXPECT_EQ(sorted(users->user), (std::vector<int>{7}));

   // Members known to be new go in without a search, inline, linear and past into the table,
   // and are found like any other.
   Mox::SmallSet<int, 2, 4> known;
   for (int u = 0; u < 9; ++u) known.insertNew(u * 10);
   EXPECT_EQ(known.size(), 9u);
   EXPECT_TRUE(known.contains(80));
   EXPECT_FALSE(known.insert(40).second);
   EXPECT_EQ(sorted(known), (std::vector<int>{0, 10, 20, 30, 40, 50, 60, 70, 80}));
}

TEST(MoxSmallContainers, AMapStaysInKeyOrderAndNotifiesOnlyChanges) {
   auto users = Mox::make<Users>();
   struct Log : Users::Notifiee {
      std::string seen;
      void onSlot(const int& k) override { seen += std::to_string(k) + " "; }
   } log;
   log.notifierIs(users);
   users->slotIs(4, "d");
   users->slotIs(1, "a");
   users->slotIs(3, "c");
   users->slotIs(1, "a"); // unchanged
   users->slotIs(3, "C");
   EXPECT_EQ(log.seen, "4 1 3 3 ");
   std::string order;
   for (const auto& [k, v] : users->slot) order += std::to_string(k) + v;
   EXPECT_EQ(order, "1a3C4d");
   users->slotDel(1);
   ASSERT_NE(users->slot.find(4), users->slot.end());
   EXPECT_EQ(users->slot.find(4)->second, "d");
   EXPECT_EQ(users->slot.find(1), users->slot.end());
   EXPECT_EQ(users->slot.size(), 2u);
}

TEST(MoxSmallContainers, HashesOfSmallKeysAndPointersSpreadOverTheWord) {
   // The flat tables take the tag from the low 7 bits and the slot from the rest: consecutive
   // integers and aligned pointers must differ in both.
   Mox::Hash<int> h;
   std::vector<size_t> tags, slots;
   for (int i = 0; i < 64; ++i) {
      tags.push_back(h(i) & 0x7f);
      slots.push_back(h(i) >> 7);
   }
   std::sort(tags.begin(), tags.end());
   std::sort(slots.begin(), slots.end());
   EXPECT_GT(std::unique(tags.begin(), tags.end()) - tags.begin(), 32);
   EXPECT_EQ(std::unique(slots.begin(), slots.end()) - slots.begin(), 64);
}

} // namespace
