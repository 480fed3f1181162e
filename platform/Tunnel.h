// Tunnel ids of the platform's tunnel table. A segment-list tunnel's id carries the tunnel type in
// its high 32 bits and the segment-list id in the low 32 bits.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "platform/Ipkit.h"
#include "platform/Mox.h"

namespace Tunnel::TunnelTable {

struct TunnelId : Mox::Bounded<TunnelId, uint64_t, 0, 0xffffffffffffffffull, 0> {
   using Bounded::Bounded;
   static constexpr const char* rangeMessage =
       "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";
   enum class Type : uint32_t { invalid = 0, srTeSegmentList = 5 };
   static TunnelId make(Type type, uint32_t index) {
      return TunnelId((static_cast<uint64_t>(type) << 32) | index);
   }
   Type type() const noexcept { return static_cast<Type>(value >> 32); }
   uint32_t index() const noexcept { return static_cast<uint32_t>(value); }
   std::string stringValue() const { return std::to_string(value); }
   // The structured text form, as the entries holding a tunnel id print it.
   std::string strep() const {
      return "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " + std::to_string(value) + "})";
   }
};
inline std::ostream& operator<<(std::ostream& os, TunnelId t) { return os << t.value; }

// One egress of a tunnel: next hop, interface and the label operation applied towards it.
struct MplsVia {
   Ipkit::IpGenAddr nexthop;
   Ipkit::IntfId intfId;
   Ipkit::MplsLabelOperation labelOp;

   uint32_t hash() const noexcept {
      return Mox::hashCombine(Mox::hashCombine(nexthop.hash(), intfId.value()), labelOp.hash());
   }
   std::string stringValue() const {
      return nexthop.stringValue() + " " + intfId.stringValue() + " [" + labelOp.stringValue() +
             "]";
   }
   friend bool operator==(const MplsVia&, const MplsVia&) = default;
   friend auto operator<=>(const MplsVia&, const MplsVia&) = default;
};

} // namespace Tunnel::TunnelTable
