// The pending set of a machine: the order of a pass depends on what is pending, never on the order
// or number of the marks; a pass resumes at its bookmark; a key is processed at most once a pass.
#include "platform/KilnPending.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Pending = Kiln::PendingSet<int, bool, std::less<int>, Kiln::MergeOr>;

// Drains up to `budget` members (all when 0), as a task run that yields would.
std::string drain(Pending& p, size_t budget = 0) {
   std::string out;
   size_t n = 0;
   while (auto* m = p.front()) {
      out += std::to_string(m->key) + (m->value ? "!" : "") + " ";
      p.pop();
      if (budget && ++n == budget) break;
   }
   return out;
}

TEST(KilnPending, APassIsInKeyOrderWithMarksOfOneKeyMergedWhateverTheirOrder) {
   Pending a, b;
   for (int k : {5, 3, 9, 3, 1, 5}) a.mark(k, k == 9);
   b.mark(9, false);
   b.mark(1, false);
   b.mark(9, true); // a later mark raises the flag of the earlier one
   b.mark(3, false);
   b.mark(5, false);
   EXPECT_EQ(a.size(), 4u);
   EXPECT_TRUE(a.contains(3));
   EXPECT_FALSE(a.contains(4));
   EXPECT_EQ(drain(a), "1 3 5 9! ");
   EXPECT_EQ(drain(b), "1 3 5 9! ");
   EXPECT_TRUE(a.empty());
   EXPECT_EQ(a.front(), nullptr);
}

TEST(KilnPending, AYieldedPassResumesAtItsBookmarkAndLateMarksWaitOrJoinIt) {
   Pending p;
   for (int k : {10, 20, 30, 40}) p.mark(k, false);
   EXPECT_EQ(p.bookmark(), nullptr) << "no pass before the first drain";
   EXPECT_EQ(drain(p, 2), "10 20 ");
   ASSERT_NE(p.bookmark(), nullptr);
   EXPECT_EQ(*p.bookmark(), 30);
   // What the drain reaches next, within the pass under way only.
   ASSERT_NE(p.ahead(1), nullptr);
   EXPECT_EQ(p.ahead(1)->key, 40);
   EXPECT_EQ(p.ahead(2), nullptr);
   // Ahead in the pass: merged there, processed once. Behind it or new: the next pass.
   p.mark(40, true);
   p.mark(10, true);
   p.mark(25, false);
   p.mark(35, false);
   EXPECT_EQ(p.size(), 5u);
   EXPECT_EQ(drain(p, 2), "30 40! ");
   EXPECT_EQ(p.bookmark(), nullptr) << "the pass is over";
   EXPECT_EQ(drain(p), "10! 25 35 ");
   EXPECT_TRUE(p.empty());

   // The front member stays put while marks arrive (they never move the pass).
   for (int k = 0; k < 3000; ++k) p.mark(k, false);
   auto* front = p.front();
   ASSERT_NE(front, nullptr);
   for (int k = 5000; k < 9000; ++k) p.mark(k, false);
   EXPECT_EQ(front, p.front());
   EXPECT_EQ(front->key, 0);
   p.clear();
   EXPECT_TRUE(p.empty());
   EXPECT_EQ(p.bookmark(), nullptr);
}

TEST(KilnPending, AMillionMarksOfFewKeysMergeIntoOneMemberEach) {
   Pending p;
   for (int i = 0; i < 1000000; ++i) p.mark(i % 7, i == 999999);
   EXPECT_EQ(p.size(), 7u);
   EXPECT_EQ(drain(p), "0! 1 2 3 4 5 6 ");
}

TEST(KilnPending, MarksSpreadOverManyCompactionsMergeAcrossThem) {
   // Keys come back long after their first mark, so a key sits in the compacted prefix and again
   // in the marks since: each must still come out once, in order, with every flag folded in.
   Pending p;
   constexpr int kKeys = 5000;
   std::vector<bool> flagged(kKeys, false);
   for (int round = 0; round < 3; ++round) {
      for (int i = 0; i < kKeys; ++i) {
         int k = (i * 2647 + round * 911) % kKeys; // 2647 is prime to 5000: every key once a round
         bool flag = (k + round) % 11 == 0;
         flagged[static_cast<size_t>(k)] = flagged[static_cast<size_t>(k)] || flag;
         p.mark(k, flag);
      }
   }
   EXPECT_EQ(p.size(), static_cast<size_t>(kKeys));
   int expected = 0;
   bool allRight = true;
   while (auto* m = p.front()) {
      allRight =
          allRight && m->key == expected && m->value == flagged[static_cast<size_t>(expected)];
      ++expected;
      p.pop();
   }
   EXPECT_TRUE(allRight);
   EXPECT_EQ(expected, kKeys);
}

} // namespace
