// Mox bounded integers: one-field values that reject what lies outside their range, and the
// error they raise.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "platform/MoxHash.h"

namespace Mox {

// Raised by bounded values; the message names the type and its bounds.
class RangeError : public std::out_of_range {
 public:
   using std::out_of_range::out_of_range;
};

// ---------------------------------------------------------------------------------------------
// Bounded integers: a one-field value whose setter rejects values outside [Min, Max] with the
// type's own message (Derived::rangeMessage).
//
//   struct Weight : Mox::Bounded<Weight, uint32_t, 1, 4294967295u, 1> {
//      using Bounded::Bounded;
//      static constexpr const char* rangeMessage = "Weight::value < ...";
//   };
template <class Derived, class T, T Min, T Max, T Default>
struct Bounded {
   using ValueType = T;
   static constexpr T min = Min;
   static constexpr T max = Max;
   T value = Default;

   constexpr Bounded() noexcept = default;
   explicit Bounded(T v) { valueIs(v); }
   void valueIs(T v) {
      if (v < Min || v > Max) throw RangeError(Derived::rangeMessage);
      value = v;
   }
   // Range-checked conversion from a wider number (text and attribute-log readers).
   static Derived fromWide(uint64_t v) {
      if (v > static_cast<uint64_t>(Max) || v < static_cast<uint64_t>(Min))
         throw RangeError(Derived::rangeMessage);
      return Derived(static_cast<T>(v));
   }
   friend bool operator==(const Bounded& a, const Bounded& b) noexcept {
      return a.value == b.value;
   }
   friend auto operator<=>(const Bounded& a, const Bounded& b) noexcept {
      return a.value <=> b.value;
   }
   uint32_t hash() const noexcept {
      if constexpr (sizeof(T) > 4) {
         return mix32(static_cast<uint32_t>(value) ^ mix32(static_cast<uint32_t>(value >> 32)));
      } else {
         return mix32(static_cast<uint32_t>(value));
      }
   }
};

} // namespace Mox
