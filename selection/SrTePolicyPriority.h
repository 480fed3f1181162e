// Priority: the value whose comparison decides which candidate path of a policy is active.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "platform/AttrLog.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// Result of Priority::compare, "this against other"; positive when this is the better one.
enum class PriorityCompareResult : int32_t {
   isLowerDiscriminator = -4,
   isHigherOrigin = -3,
   isLowerProtocol = -2,
   isLowerPreference = -1,
   isEqual = 0,
   isHigherPreference = 1,
   isBetterProtocol = 2,
   isLowerOrigin = 3,
   isHigherDiscriminator = 4,
};
const char* priorityCompareResultName(PriorityCompareResult r);
std::ostream& operator<<(std::ostream& os, PriorityCompareResult r);
inline bool isBetter(PriorityCompareResult r) noexcept { return static_cast<int32_t>(r) > 0; }

struct Priority {
   static constexpr const char* typeName = "SrTePolicy::Priority";

   Preference preference;
   Protocol protocol = Protocol::unknown;
   Originator originator;
   Discriminator discriminator;

   Priority() = default;
   Priority(Preference pref, Protocol proto, const Originator& orig, Discriminator disc)
       : preference(pref), protocol(proto), originator(orig), discriminator(disc) {}

   // The first differing criterion decides: higher preference, then higher protocol (signed),
   // then lower originator, then higher discriminator. Never isEqual: equal priorities give
   // isLowerDiscriminator both ways, as this is meant for ordering distinct keys.
   PriorityCompareResult compare(const Priority& other) const noexcept;
   bool sameExceptDiscriminator(const Priority& other) const noexcept {
      return preference == other.preference && protocol == other.protocol &&
             originator == other.originator;
   }
   // True for the default priority.
   bool operator!() const noexcept { return *this == Priority(); }

   uint32_t hash() const noexcept;
   std::string stringValue() const; // "100-bgp-10.0.0.9(AS65000) - 7"
   std::string valueToStrep() const;
   void writeTo(AttrLog::Writer& w) const;
   static Priority readFrom(AttrLog::Reader& r);
   friend bool operator==(const Priority&, const Priority&) = default;

   // Orders a collection best first.
   struct BetterFirst {
      bool operator()(const Priority& a, const Priority& b) const noexcept {
         return isBetter(a.compare(b));
      }
   };
};

std::ostream& operator<<(std::ostream& os, const Priority& v);

} // namespace SrTePolicy
