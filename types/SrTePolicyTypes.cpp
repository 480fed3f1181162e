#include "types/SrTePolicyTypes.h"

#include <charconv>

namespace SrTePolicy {

std::ostream& operator<<(std::ostream& os, const Color& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const Discriminator& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const Preference& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const Weight& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const Index& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const SegmentListIndex& v) { return os << v.value; }

namespace {
struct ProtocolName {
   Protocol value;
   const char* name;
};
constexpr ProtocolName kProtocolNames[] = {
    {Protocol::unknown, "unknown"},
    {Protocol::pcep, "pcep"},
    {Protocol::bgp, "bgp"},
    {Protocol::staticConfig, "static"},
};
} // namespace

std::string protocolEnumToString(Protocol p) {
   for (const auto& n : kProtocolNames) {
      if (n.value == p) return n.name;
   }
   return std::to_string(static_cast<uint32_t>(p));
}

std::optional<Protocol> sequenceToValue(std::string_view text) {
   for (const auto& n : kProtocolNames) {
      if (text == n.name) return n.value;
   }
   uint32_t v = 0;
   auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (ec != std::errc() || ptr != text.data() + text.size() || text.empty()) return std::nullopt;
   return static_cast<Protocol>(v);
}

std::ostream& operator<<(std::ostream& os, Protocol p) { return os << protocolEnumToString(p); }

uint32_t PolicyKey::hash() const noexcept { return Mox::hashCombine(endpoint.hash(), color.value); }
std::string PolicyKey::stringValue() const {
   return endpoint.stringValue() + "|" + std::to_string(color.value);
}

uint32_t PolicyId::hash() const noexcept {
   uint32_t h = Mox::hashCombine(key.hash(), static_cast<uint32_t>(protocol));
   return Mox::hashCombine(h, discriminator.value);
}
std::string PolicyId::stringValue() const {
   return key.stringValue() + "|" + protocolEnumToString(protocol) + "|" +
          std::to_string(discriminator.value);
}

uint32_t CandidateId::hash() const noexcept {
   return Mox::hashCombine(Mox::mix32(static_cast<uint32_t>(protocol)), discriminator.value);
}
std::string CandidateId::stringValue() const {
   return protocolEnumToString(protocol) + ":" + std::to_string(discriminator.value);
}

uint32_t Originator::hash() const noexcept { return Mox::hashCombine(address.hash(), asn); }
std::string Originator::stringValue() const {
   return address.stringValue() + "(AS" + std::to_string(asn) + ")";
}

Tunnel::TunnelTable::TunnelId SegmentListId::getTunnelId() const {
   return Tunnel::TunnelTable::TunnelId::make(Tunnel::TunnelTable::TunnelId::Type::srTeSegmentList,
                                              value);
}

uint32_t WeightedSegList::hash() const noexcept {
   return Mox::hashCombine(Mox::mix32(weight.value), segList.hash());
}
std::string WeightedSegList::stringValue() const {
   return "weight: " + std::to_string(weight.value) + ", segments: [" + segList.stringValue() + "]";
}

const char* policyInvalidReasonName(PolicyInvalidReason r) {
   switch (r) {
   case PolicyInvalidReason::usable:
      return "usable";
   case PolicyInvalidReason::bsidOutOfRange:
      return "bsidOutOfRange";
   case PolicyInvalidReason::bsidMissing:
      return "bsidMissing";
   case PolicyInvalidReason::bsidInUseOtherApplication:
      return "bsidInUseOtherApplication";
   case PolicyInvalidReason::noSegmentLists:
      return "noSegmentLists";
   }
   return "unknown";
}

std::ostream& operator<<(std::ostream& os, const PolicyKey& v) { return os << v.stringValue(); }
std::ostream& operator<<(std::ostream& os, const PolicyId& v) { return os << v.stringValue(); }
std::ostream& operator<<(std::ostream& os, const CandidateId& v) { return os << v.stringValue(); }
std::ostream& operator<<(std::ostream& os, const Originator& v) { return os << v.stringValue(); }
std::ostream& operator<<(std::ostream& os, const SegmentListId& v) { return os << v.value; }
std::ostream& operator<<(std::ostream& os, const WeightedSegList& v) {
   return os << v.stringValue();
}

} // namespace SrTePolicy
