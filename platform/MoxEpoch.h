// Mox::DebugEpoch: catches a table changed while something walks it. The table counts its changes;
// an iterator (or a walk) remembers the count it started from and, when used, asserts that the
// count has not moved. Compiled in where assertions on the hot path are affordable (builds without
// NDEBUG: debug and sanitizer builds); in optimised builds it is an empty member that costs
// neither a byte nor an instruction.
//
//   [[no_unique_address]] Mox::DebugEpoch epoch_;     // in the table; epoch_.bump() on each change
//   Mox::DebugEpoch::Handle at(&epoch_);             // in the iterator
//   at.check();                                      // aborts if the table changed since
#pragma once

#include <cstdint>

#include "platform/Assert.h"

namespace Mox {

template <bool Enabled>
class DebugEpochBase;

template <>
class DebugEpochBase<true> {
 public:
   static constexpr bool enabled = true;
   void bump() noexcept { ++epoch_; }
   uint64_t value() const noexcept { return epoch_; }

   class Handle {
    public:
      Handle() = default;
      explicit Handle(const DebugEpochBase* epoch) noexcept : epoch_(epoch), at_(epoch->epoch_) {}
      bool inSync() const noexcept { return !epoch_ || epoch_->epoch_ == at_; }
      void check() const { SRTE_ASSERT(inSync(), "table changed while it was walked"); }

    private:
      const DebugEpochBase* epoch_ = nullptr;
      uint64_t at_ = 0;
   };

 private:
   uint64_t epoch_ = 0;
};

template <>
class DebugEpochBase<false> {
 public:
   static constexpr bool enabled = false;
   void bump() noexcept {}
   uint64_t value() const noexcept { return 0; }

   class Handle {
    public:
      Handle() = default;
      explicit Handle(const DebugEpochBase*) noexcept {}
      bool inSync() const noexcept { return true; }
      void check() const noexcept {}
   };
};

#ifdef NDEBUG
using DebugEpoch = DebugEpochBase<false>;
#else
using DebugEpoch = DebugEpochBase<true>;
#endif

} // namespace Mox
