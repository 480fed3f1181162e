#include <gtest/gtest.h>

#include "platform/KilnNumAllocator.h"

namespace {

using Kiln::NumAllocator;
using Kiln::NumAllocatorConfig;
using Kiln::NumAllocatorStatus;
using Kiln::NumRange;

struct Fixture {
   Kiln::TaskScheduler clock;
   Mox::Ptr<NumAllocatorConfig> config;
   Mox::Ptr<NumAllocatorStatus> status = Mox::make<NumAllocatorStatus>();
   Mox::Ptr<NumAllocator> alloc;
   Fixture(NumRange range, double expiry) : config(Mox::make<NumAllocatorConfig>(range)) {
      config->expiryTimeIs(expiry);
      alloc = Mox::make<NumAllocator>(config, status, clock);
   }
};

TEST(NumAllocator, ReleasedNumberWaitsForExpiryThenComesBackOldestFirst) {
   Fixture f(NumRange(10, 14), 300.0);
   for (Kiln::Number n = 10; n <= 14; ++n) EXPECT_EQ(f.alloc->getNumber(), n);
   EXPECT_EQ(f.alloc->getNumber(), NumAllocator::invalidNumber());

   EXPECT_TRUE(f.alloc->releaseNumber(12));
   f.clock.advance(1);
   EXPECT_TRUE(f.alloc->releaseNumber(10));
   EXPECT_FALSE(f.alloc->releaseNumber(10)); // twice
   EXPECT_FALSE(f.alloc->releaseNumber(99)); // outside the range
   EXPECT_EQ(f.status->inUseCount(), 3u);
   EXPECT_EQ(f.status->ageingCount(), 2u);
   EXPECT_TRUE(f.alloc->isAgeing(12));

   f.clock.advance(298.5); // t = 299.5: 12 has not aged enough
   EXPECT_EQ(f.alloc->getNumber(), NumAllocator::invalidNumber());
   f.clock.advance(0.5);
   EXPECT_EQ(f.alloc->getNumber(), 12);
   EXPECT_EQ(f.alloc->getNumber(), NumAllocator::invalidNumber()); // 10 still ageing
   f.clock.advance(1);
   EXPECT_EQ(f.alloc->getNumber(), 10);
   EXPECT_EQ(f.status->inUseCount(), 5u);
   EXPECT_EQ(f.status->ageingCount(), 0u);

   // A shorter expiry applies to numbers already ageing.
   EXPECT_TRUE(f.alloc->releaseNumber(14));
   f.config->expiryTimeIs(0);
   EXPECT_EQ(f.alloc->getNumber(), 14);
}

TEST(NumAllocator, ReservedNumbersSurviveRestartAndNeverCollide) {
   Fixture f(NumRange(0, 4294967295), 300.0);
   // Numbers of FECs left by an earlier run, one at the very top of the range.
   for (Kiln::Number n : std::initializer_list<Kiln::Number>{0, 2, 3, 64, 4294967295})
      EXPECT_TRUE(f.alloc->reserveNumber(n));
   EXPECT_FALSE(f.alloc->reserveNumber(3));          // in use
   EXPECT_FALSE(f.alloc->reserveNumber(-1));         // outside
   EXPECT_FALSE(f.alloc->reserveNumber(4294967296)); // outside
   EXPECT_EQ(f.alloc->getNumber(), 1);
   for (Kiln::Number n = 4; n < 64; ++n) ASSERT_EQ(f.alloc->getNumber(), n);
   EXPECT_EQ(f.alloc->getNumber(), 65);

   // A number reserved while it ages, then released again, ages from its latest release: the
   // older release must not hand it out early.
   f.config->expiryTimeIs(10);
   EXPECT_TRUE(f.alloc->releaseNumber(2)); // t = 0
   f.clock.advance(1);
   EXPECT_TRUE(f.alloc->reserveNumber(2)); // restart adopts it again
   EXPECT_FALSE(f.alloc->isAgeing(2));
   f.clock.advance(4);
   EXPECT_TRUE(f.alloc->releaseNumber(2)); // t = 5: free again at 15
   f.clock.advance(6);                     // t = 11
   EXPECT_EQ(f.alloc->getNumber(), 66);
   f.clock.advance(4); // t = 15
   EXPECT_EQ(f.alloc->getNumber(), 2);
   EXPECT_EQ(f.status->ageingCount(), 0u);
}

TEST(NumAllocator, MillionNumbersAreDistinctAndReusable) {
   constexpr Kiln::Number million = 1000000;
   Fixture f(NumRange(0, 4294967295), 300.0);
   for (Kiln::Number n = 0; n < million; ++n) ASSERT_EQ(f.alloc->getNumber(), n);
   EXPECT_EQ(f.status->inUseCount(), uint64_t(million));
   for (Kiln::Number n = 0; n < million; n += 2) ASSERT_TRUE(f.alloc->releaseNumber(n));
   // Before expiry only fresh numbers come out; afterwards the released ones, oldest first.
   EXPECT_EQ(f.alloc->getNumber(), million);
   f.clock.advance(300);
   for (Kiln::Number n = 0; n < million; n += 2) ASSERT_EQ(f.alloc->getNumber(), n);
   EXPECT_EQ(f.alloc->getNumber(), million + 1);
   EXPECT_EQ(f.status->inUseCount(), uint64_t(million + 2));
}

// The expiry is measured on the exact clock: a number released at 0.3 s, reached in steps of
// 0.1 s, is back exactly 300 s later, however many steps that takes.
TEST(NumAllocator, ExpiryIsExactAfterManySmallSteps) {
   Fixture f(NumRange(1, 1), 300.0);
   EXPECT_EQ(f.alloc->getNumber(), 1);
   for (int i = 0; i < 3; ++i) f.clock.advance(0.1);
   EXPECT_TRUE(f.alloc->releaseNumber(1));
   for (int i = 0; i < 2999; ++i) f.clock.advance(0.1); // t = 300.2
   EXPECT_EQ(f.alloc->getNumber(), NumAllocator::invalidNumber());
   f.clock.advance(0.1); // t = 300.3: aged exactly 300 s
   EXPECT_EQ(f.alloc->getNumber(), 1);
}

} // namespace
