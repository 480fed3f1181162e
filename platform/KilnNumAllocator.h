// Kiln::NumAllocator: hands out numbers of a configured range (FEC indexes and the like) and takes
// them back, on the scheduler's clock.
//
// Guarantees (tests/platform/KilnNumAllocatorTest.cpp):
//  - a number is handed out at most once until it is released;
//  - a released number is not handed out again before it has aged the configured expiry time on the
//    clock; aged numbers are reused oldest release first, before numbers never handed out;
//  - `reserveNumber` takes a chosen number (one that survived a restart) out of circulation, also
//    when it is still ageing; it fails for a number in use or outside the range;
//  - when neither an aged number nor a never-used one is left, `getNumber` answers
//    `invalidNumber()`; releasing or reserving a number outside the range changes nothing.
//
// Cost: numbers live in 64K-number bitmap pages created where numbers are used, so a million
// numbers take a few pages; get, release and reserve are O(1) amortised and allocate only when a
// page is created or the release queue grows.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <utility>

#include "platform/Kiln.h"
#include "platform/Mox.h"

namespace Kiln {

using Number = int64_t;

// An inclusive range of numbers; min <= max, both non-negative.
struct NumRange {
   Number min = 0;
   Number max = 0;

   NumRange() = default;
   // Throws Mox::RangeError when min > max or min < 0.
   NumRange(Number lo, Number hi);
   static constexpr const char* rangeMessage =
       "NumRange::min < 0 or NumRange::min > NumRange::max not allowed";
   uint64_t size() const noexcept { return static_cast<uint64_t>(max - min) + 1; }
   bool contains(Number n) const noexcept { return n >= min && n <= max; }
   friend bool operator==(const NumRange&, const NumRange&) = default;
};

class NumAllocatorConfig : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<NumAllocatorConfig> {
    public:
      virtual void onExpiryTime() {}
   };

   explicit NumAllocatorConfig(NumRange range) : range_(range) {}

   const NumRange& range() const noexcept { return range_; }
   // Seconds a released number ages before it is handed out again; negative means 0.
   double expiryTime() const noexcept { return expiryTime_; }
   void expiryTimeIs(double seconds) {
      attrIs(expiryTime_, seconds > 0 ? seconds : 0.0, &Notifiee::onExpiryTime);
   }

 private:
   NumRange range_;
   double expiryTime_ = 0;
};

// Written by the allocator; for dumps and watchers.
class NumAllocatorStatus : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<NumAllocatorStatus> {
    public:
      virtual void onInUseCount() {}
      virtual void onAgeingCount() {}
   };

   // Numbers handed out or reserved and not released.
   uint64_t inUseCount() const noexcept { return inUseCount_; }
   void inUseCountIs(uint64_t n) { attrIs(inUseCount_, n, &Notifiee::onInUseCount); }
   // Released numbers that have not yet been handed out again.
   uint64_t ageingCount() const noexcept { return ageingCount_; }
   void ageingCountIs(uint64_t n) { attrIs(ageingCount_, n, &Notifiee::onAgeingCount); }

 private:
   uint64_t inUseCount_ = 0;
   uint64_t ageingCount_ = 0;
};

class NumAllocator : public Mox::RefCounted {
 public:
   // `clock` must outlive the allocator.
   NumAllocator(Mox::Ptr<NumAllocatorConfig> config, Mox::Ptr<NumAllocatorStatus> status,
                const TaskScheduler& clock);
   ~NumAllocator() override;

   static constexpr Number invalidNumber() noexcept { return -1; }

   Number getNumber();
   // False (and nothing changes) when `n` is not in use.
   bool releaseNumber(Number n);
   // False (and nothing changes) when `n` is outside the range or already in use.
   bool reserveNumber(Number n);

   bool isInUse(Number n) const noexcept;
   // Released and not yet handed out again.
   bool isAgeing(Number n) const noexcept;
   const Mox::Ptr<NumAllocatorConfig>& config() const noexcept { return config_; }
   const Mox::Ptr<NumAllocatorStatus>& status() const noexcept { return status_; }

 private:
   static constexpr unsigned pageShift = 16;
   static constexpr uint64_t pageNumbers = uint64_t{1} << pageShift;
   static constexpr size_t pageWords = pageNumbers / 64;
   struct Page {
      uint64_t inUse[pageWords] = {};
      uint64_t ageing[pageWords] = {};
   };
   struct Released {
      uint64_t offset;
      Duration at; // exact, so that a number ages exactly the expiry time
   };

   Page* page(uint64_t offset) const noexcept;
   Page& pageOrMake(uint64_t offset);
   bool bit(const uint64_t* words, uint64_t offset) const noexcept {
      return (words[(offset >> 6) & (pageWords - 1)] >> (offset & 63)) & 1;
   }
   static void bitIs(uint64_t* words, uint64_t offset, bool v) noexcept {
      uint64_t& w = words[(offset >> 6) & (pageWords - 1)];
      const uint64_t m = uint64_t{1} << (offset & 63);
      w = v ? (w | m) : (w & ~m);
   }
   // The first offset at or after `from` that is neither in use nor ageing, or past the range.
   uint64_t firstFree(uint64_t from) const noexcept;
   // The oldest released number that has aged enough (dropping stale entries on the way), or
   // invalidNumber().
   Number takeAgedNumber();
   void statusUpdate();

   Mox::Ptr<NumAllocatorConfig> config_;
   Mox::Ptr<NumAllocatorStatus> status_;
   const TaskScheduler* clock_;
   uint64_t last_;      // range size - 1, as an offset
   uint64_t fresh_ = 0; // below it every offset has been handed out or reserved at least once
   uint64_t inUse_ = 0;
   uint64_t ageing_ = 0;
   std::deque<Released> released_; // in release order, hence in age order
   // Queue entries made stale by a reservation while ageing, per offset (rare: restarts).
   std::unordered_map<uint64_t, uint32_t> stale_;
   std::unordered_map<uint64_t, std::unique_ptr<Page>> pages_;
   mutable uint64_t cachedIndex_ = ~uint64_t{0};
   mutable Page* cachedPage_ = nullptr;
};

} // namespace Kiln
