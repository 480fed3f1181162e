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

std::string protocolToStrep(Protocol p) { return Strep::quote(protocolEnumToString(p)); }

Protocol protocolFromStrep(const Strep::Node& node) {
   if (node.kind() == Strep::Node::Kind::number) {
      uint64_t v = node.unsignedValue("Protocol value out of range");
      if (v > maxU32()) throw Mox::RangeError("Protocol value out of range");
      return static_cast<Protocol>(v);
   }
   auto p = sequenceToValue(node.stringValue());
   if (!p) node.fail("unknown protocol '" + node.stringValue() + "'");
   return *p;
}

void protocolAttrLogWrite(AttrLog::Writer& w, Protocol p) { w.u32(static_cast<uint32_t>(p)); }

Protocol protocolAttrLogRead(AttrLog::Reader& r) { return static_cast<Protocol>(r.u32()); }

std::string PolicyKey::stringValue() const {
   return endpoint.stringValue() + "|" + std::to_string(color.value);
}

std::string PolicyKey::valueToStrep() const {
   return Strep::valueText(
       strepName, {{"endpoint", endpoint.valueToStrep()}, {"color", color.valueToStrep()}});
}
PolicyKey PolicyKey::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"endpoint", "color"});
   return PolicyKey(EndPoint::fromStrep(node.field("endpoint")),
                    Color::fromStrep(node.field("color")));
}
PolicyKey PolicyKey::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}
void PolicyKey::attrLogWrite(AttrLog::Writer& w) const {
   endpoint.attrLogWrite(w);
   color.attrLogWrite(w);
}
PolicyKey PolicyKey::attrLogRead(AttrLog::Reader& r) {
   EndPoint e = EndPoint::attrLogRead(r);
   return PolicyKey(e, Color::attrLogRead(r));
}

std::string PolicyId::stringValue() const {
   return key.stringValue() + "|" + protocolEnumToString(protocol) + "|" +
          std::to_string(discriminator.value);
}

std::string PolicyId::valueToStrep() const {
   return Strep::valueText(strepName, {{"key", key.valueToStrep()},
                                       {"protocol", protocolToStrep(protocol)},
                                       {"discriminator", discriminator.valueToStrep()}});
}
PolicyId PolicyId::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"key", "protocol", "discriminator"});
   return PolicyId(PolicyKey::fromStrep(node.field("key")),
                   protocolFromStrep(node.field("protocol")),
                   Discriminator::fromStrep(node.field("discriminator")));
}
PolicyId PolicyId::fromStrep(std::string_view text) { return fromStrep(Strep::Node::parse(text)); }
void PolicyId::attrLogWrite(AttrLog::Writer& w) const {
   key.attrLogWrite(w);
   protocolAttrLogWrite(w, protocol);
   discriminator.attrLogWrite(w);
}
PolicyId PolicyId::attrLogRead(AttrLog::Reader& r) {
   PolicyKey k = PolicyKey::attrLogRead(r);
   Protocol p = protocolAttrLogRead(r);
   return PolicyId(k, p, Discriminator::attrLogRead(r));
}

uint32_t CandidateId::hash() const noexcept {
   return Mox::hashCombine(Mox::mix32(static_cast<uint32_t>(protocol)), discriminator.value);
}
std::string CandidateId::stringValue() const {
   return protocolEnumToString(protocol) + ":" + std::to_string(discriminator.value);
}

std::string CandidateId::valueToStrep() const {
   return Strep::valueText(strepName, {{"protocol", protocolToStrep(protocol)},
                                       {"discriminator", discriminator.valueToStrep()}});
}
CandidateId CandidateId::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"protocol", "discriminator"});
   return CandidateId(protocolFromStrep(node.field("protocol")),
                      Discriminator::fromStrep(node.field("discriminator")));
}
CandidateId CandidateId::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}
void CandidateId::attrLogWrite(AttrLog::Writer& w) const {
   protocolAttrLogWrite(w, protocol);
   discriminator.attrLogWrite(w);
}
CandidateId CandidateId::attrLogRead(AttrLog::Reader& r) {
   Protocol p = protocolAttrLogRead(r);
   return CandidateId(p, Discriminator::attrLogRead(r));
}

uint32_t Originator::hash() const noexcept { return Mox::hashCombine(address.hash(), asn); }
std::string Originator::stringValue() const {
   return address.stringValue() + "(AS" + std::to_string(asn) + ")";
}

std::string Originator::valueToStrep() const {
   return Strep::valueText(strepName,
                           {{"asn", std::to_string(asn)}, {"address", address.valueToStrep()}});
}
Originator Originator::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"asn", "address"});
   uint64_t as = node.field("asn").unsignedValue("Originator::asn out of range");
   if (as > maxU32()) throw Mox::RangeError("Originator::asn out of range");
   return Originator(static_cast<uint32_t>(as), Ipkit::IpGenAddr::fromStrep(node.field("address")));
}
Originator Originator::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}
void Originator::attrLogWrite(AttrLog::Writer& w) const {
   w.u32(asn);
   address.attrLogWrite(w);
}
Originator Originator::attrLogRead(AttrLog::Reader& r) {
   uint32_t as = r.u32();
   return Originator(as, Ipkit::IpGenAddr::attrLogRead(r));
}

std::string SegmentListId::valueToStrep() const {
   return Strep::valueText(strepName, {{"value", std::to_string(value)}});
}
SegmentListId SegmentListId::fromStrep(const Strep::Node& node) {
   uint64_t v = node.expectValue(strepName, {"value"})
                    .field("value")
                    .unsignedValue("SegmentListId::value out of range");
   if (v > maxU32()) throw Mox::RangeError("SegmentListId::value out of range");
   return SegmentListId(static_cast<uint32_t>(v));
}
SegmentListId SegmentListId::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}
void SegmentListId::attrLogWrite(AttrLog::Writer& w) const { w.u32(value); }
SegmentListId SegmentListId::attrLogRead(AttrLog::Reader& r) { return SegmentListId(r.u32()); }

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

void dumpIndent(std::string& out, int depth) {
   if (depth >= 0) Mox::appendf(out, "%*c", depth, ' ');
}

void WeightedSegList::dump(std::string& out, int depth) const {
   dumpIndent(out, depth);
   Mox::appendf(out, "weight: %u, segments: [%s] \n", weight.value, segList.stringValue().c_str());
}
std::string WeightedSegList::valueToStrep() const {
   return Strep::valueText(
       strepName, {{"weight", weight.valueToStrep()}, {"segList", segList.valueToStrep()}});
}
WeightedSegList WeightedSegList::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"weight", "segList"});
   return WeightedSegList(Weight::fromStrep(node.field("weight")),
                          Ipkit::MplsLabelOperation::fromStrep(node.field("segList")));
}
WeightedSegList WeightedSegList::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}
void WeightedSegList::attrLogWrite(AttrLog::Writer& w) const {
   weight.attrLogWrite(w);
   segList.attrLogWrite(w);
}
WeightedSegList WeightedSegList::attrLogRead(AttrLog::Reader& r) {
   Weight wt = Weight::attrLogRead(r);
   return WeightedSegList(wt, Ipkit::MplsLabelOperation::attrLogRead(r));
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
