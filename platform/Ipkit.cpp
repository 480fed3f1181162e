#include "platform/Ipkit.h"

#include <arpa/inet.h>

#include <cstring>

#include "platform/AttrLog.h"
#include "platform/Strep.h"

namespace Ipkit {

// ---- IpGenAddr

IpGenAddr IpGenAddr::v4(uint32_t hostOrder) noexcept {
   IpGenAddr a;
   a.bytes_[0] = static_cast<uint8_t>(hostOrder >> 24);
   a.bytes_[1] = static_cast<uint8_t>(hostOrder >> 16);
   a.bytes_[2] = static_cast<uint8_t>(hostOrder >> 8);
   a.bytes_[3] = static_cast<uint8_t>(hostOrder);
   return a;
}

IpGenAddr IpGenAddr::v6(const std::array<uint8_t, 16>& bytes) noexcept {
   IpGenAddr a;
   a.af_ = ipv6;
   std::memcpy(a.bytes_, bytes.data(), 16);
   return a;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   if (text.empty() || text.size() > 45) return std::nullopt;
   char buf[64];
   std::memcpy(buf, text.data(), text.size());
   buf[text.size()] = '\0';
   IpGenAddr a;
   if (text.find(':') == std::string_view::npos) {
      in_addr v4;
      if (inet_pton(AF_INET, buf, &v4) != 1) return std::nullopt;
      std::memcpy(a.bytes_, &v4, 4);
      return a;
   }
   in6_addr v6;
   if (inet_pton(AF_INET6, buf, &v6) != 1) return std::nullopt;
   a.af_ = ipv6;
   std::memcpy(a.bytes_, &v6, 16);
   return a;
}

bool IpGenAddr::isUnspecified() const noexcept {
   size_t n = af_ == ipv6 ? 16 : 4;
   for (size_t i = 0; i < n; ++i) {
      if (bytes_[i]) return false;
   }
   return true;
}

std::string IpGenAddr::stringValue() const {
   char buf[INET6_ADDRSTRLEN];
   if (af_ == ipv6) {
      inet_ntop(AF_INET6, bytes_, buf, sizeof buf);
   } else {
      inet_ntop(AF_INET, bytes_, buf, sizeof buf);
   }
   return buf;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.stringValue(); }

std::string IpGenAddr::valueToStrep() const {
   return Strep::valueText(strepName, {{"address", Strep::quote(stringValue())}});
}

IpGenAddr IpGenAddr::fromStrep(const Strep::Node& node) {
   const Strep::Node& text = node.expectValue(strepName, {"address"}).field("address");
   auto a = parse(text.stringValue());
   if (!a) text.fail("'" + text.stringValue() + "' is not an IP address");
   return *a;
}

IpGenAddr IpGenAddr::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}

void IpGenAddr::attrLogWrite(AttrLog::Writer& w) const {
   w.u32(af_);
   w.bytes(bytes_, sizeof bytes_);
}

IpGenAddr IpGenAddr::attrLogRead(AttrLog::Reader& r) {
   uint32_t af = r.u32();
   if (af > ipv6) throw Mox::RangeError(familyRangeMessage);
   IpGenAddr a;
   a.af_ = af;
   r.bytes(a.bytes_, sizeof a.bytes_);
   // An IPv4 address uses the first four bytes only; keep the rest canonical for equality.
   if (af == ipv4) std::memset(a.bytes_ + 4, 0, sizeof a.bytes_ - 4);
   return a;
}

// ---- MplsLabel

std::ostream& operator<<(std::ostream& os, MplsLabel l) { return os << l.value(); }

std::string MplsLabel::valueToStrep() const {
   return Strep::valueText(strepName, {{"value", std::to_string(value_)}});
}

MplsLabel MplsLabel::fromStrep(const Strep::Node& node) {
   return MplsLabel(
       node.expectValue(strepName, {"value"}).field("value").unsignedValue(rangeMessage));
}

MplsLabel MplsLabel::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}

void MplsLabel::attrLogWrite(AttrLog::Writer& w) const { w.u32(value_); }

MplsLabel MplsLabel::attrLogRead(AttrLog::Reader& r) { return MplsLabel(r.u32()); }

// ---- MplsLabelAction

namespace {
constexpr const char* kActionNames[] = {"none", "pop", "swap", "push", "forward"};
}

const char* mplsLabelActionName(MplsLabelAction a) {
   auto i = static_cast<uint32_t>(a);
   return i < std::size(kActionNames) ? kActionNames[i] : "unknown";
}

std::optional<MplsLabelAction> mplsLabelActionFromName(std::string_view name) {
   for (uint32_t i = 0; i < std::size(kActionNames); ++i) {
      if (name == kActionNames[i]) return static_cast<MplsLabelAction>(i);
   }
   return std::nullopt;
}

// ---- MplsLabelOperation

void MplsLabelOperation::stackSizeIs(MplsStackEntryIndex n) { size_ = n.value; }

void MplsLabelOperation::stackSizeIs(uint32_t n) {
   if (n > capacity) throw Mox::RangeError(MplsStackEntryIndex::rangeMessage);
   size_ = n;
}

MplsLabel MplsLabelOperation::label(MplsStackEntryIndex i) const noexcept {
   MplsLabel l;
   l.valueIs(stack_[i.value] > MplsLabel::luWithdraw ? MplsLabel::null : stack_[i.value]);
   return l;
}

void MplsLabelOperation::labelIs(MplsStackEntryIndex i, MplsLabel l) noexcept {
   stack_[i.value] = l.value();
   if (i.value >= size_) size_ = i.value + 1;
}

BoundedMplsLabelStackResult MplsLabelOperation::push(MplsLabel l) noexcept {
   if (size_ >= capacity) return BoundedMplsLabelStackResult::STACK_FULL_;
   stack_[size_++] = l.value();
   return BoundedMplsLabelStackResult::SUCCESS_;
}

std::string MplsLabelOperation::stringValue() const {
   std::string s;
   for (uint32_t i = 0; i < size_ && i < capacity; ++i) {
      if (i) s += ' ';
      s += std::to_string(stack_[i]);
   }
   return s;
}

uint32_t MplsLabelOperation::hash() const noexcept {
   uint32_t h = Mox::hashCombine(Mox::mix32(action_), size_);
   for (uint32_t i = 0; i < size_ && i < capacity; ++i) h = Mox::hashCombine(h, stack_[i]);
   return h;
}

bool operator==(const MplsLabelOperation& a, const MplsLabelOperation& b) noexcept {
   if (a.action_ != b.action_ || a.size_ != b.size_) return false;
   for (uint32_t i = 0; i < a.size_ && i < MplsLabelOperation::capacity; ++i) {
      if (a.stack_[i] != b.stack_[i]) return false;
   }
   return true;
}

std::strong_ordering operator<=>(const MplsLabelOperation& a,
                                 const MplsLabelOperation& b) noexcept {
   if (a.action_ != b.action_) return a.action_ <=> b.action_;
   if (a.size_ != b.size_) return a.size_ <=> b.size_;
   for (uint32_t i = 0; i < a.size_ && i < MplsLabelOperation::capacity; ++i) {
      if (a.stack_[i] != b.stack_[i]) return a.stack_[i] <=> b.stack_[i];
   }
   return std::strong_ordering::equal;
}

std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& op) {
   return os << op.stringValue();
}

std::string MplsLabelOperation::valueToStrep() const {
   std::vector<std::string> labels;
   for (uint32_t i = 0; i < size_ && i < capacity; ++i) labels.push_back(std::to_string(stack_[i]));
   return Strep::valueText(
       strepName, {{"action", std::to_string(action_)}, {"stack", Strep::listText(labels)}});
}

MplsLabelOperation MplsLabelOperation::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"action", "stack"});
   MplsLabelOperation op;
   const Strep::Node& action = node.field("action");
   if (action.kind() == Strep::Node::Kind::string) {
      auto a = mplsLabelActionFromName(action.stringValue());
      if (!a) action.fail("unknown label action '" + action.stringValue() + "'");
      op.actionIs(*a);
   } else {
      uint64_t a = action.unsignedValue("MplsLabelAction out of range");
      if (a > UINT32_MAX) throw Mox::RangeError("MplsLabelAction out of range");
      op.action_ = static_cast<uint32_t>(a);
   }
   const auto& labels = node.field("stack").items();
   if (labels.size() > capacity) throw Mox::RangeError(MplsStackEntryIndex::rangeMessage);
   for (const Strep::Node& l : labels) {
      op.stack_[op.size_++] = MplsLabel(l.unsignedValue(MplsLabel::rangeMessage)).value();
   }
   return op;
}

MplsLabelOperation MplsLabelOperation::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}

void MplsLabelOperation::attrLogWrite(AttrLog::Writer& w) const {
   w.u32(action_);
   w.u32(size_);
   for (uint32_t i = 0; i < size_ && i < capacity; ++i) w.u32(stack_[i]);
}

MplsLabelOperation MplsLabelOperation::attrLogRead(AttrLog::Reader& r) {
   MplsLabelOperation op;
   op.action_ = r.u32();
   uint32_t size = r.u32();
   if (size > capacity) throw Mox::RangeError(MplsStackEntryIndex::rangeMessage);
   for (uint32_t i = 0; i < size; ++i) op.stack_[i] = MplsLabel(r.u32()).value();
   op.size_ = size;
   return op;
}

// ---- DscpValue

namespace {
struct DscpName {
   const char* name;
   uint8_t value;
};
constexpr DscpName kDscpNames[] = {
    {"default", 0}, {"cs1", 8},   {"af11", 10}, {"af12", 12}, {"af13", 14}, {"cs2", 16},
    {"af21", 18},   {"af22", 20}, {"af23", 22}, {"cs3", 24},  {"af31", 26}, {"af32", 28},
    {"af33", 30},   {"cs4", 32},  {"af41", 34}, {"af42", 36}, {"af43", 38}, {"cs5", 40},
    {"ef", 46},     {"cs6", 48},  {"cs7", 56},  {"cs0", 0},
};
} // namespace

std::string DscpValue::symbolicName() const {
   for (const auto& d : kDscpNames) {
      if (d.value == value) return d.name;
   }
   return {};
}

std::optional<DscpValue> DscpValue::fromName(std::string_view name) {
   for (const auto& d : kDscpNames) {
      if (name == d.name) return DscpValue(d.value);
   }
   return std::nullopt;
}

std::string DscpValue::valueToStrep() const {
   return Strep::valueText(strepName, {{"value", std::to_string(value)}});
}

DscpValue DscpValue::fromStrep(const Strep::Node& node) {
   return fromWide(
       node.expectValue(strepName, {"value"}).field("value").unsignedValue(rangeMessage));
}

DscpValue DscpValue::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}

void DscpValue::attrLogWrite(AttrLog::Writer& w) const { w.u8(value); }

DscpValue DscpValue::attrLogRead(AttrLog::Reader& r) { return fromWide(r.u8()); }

// ---- IntfId

namespace {
struct KindName {
   IntfId::Kind kind;
   const char* prefix;
};
constexpr KindName kKindNames[] = {
    {IntfId::Kind::ethernet, "Ethernet"},
    {IntfId::Kind::vlan, "Vlan"},
    {IntfId::Kind::loopback, "Loopback"},
    {IntfId::Kind::portChannel, "Port-Channel"},
    {IntfId::Kind::nexthopGroup, "NexthopGroup"},
    {IntfId::Kind::dynamicTunnel, "DynamicTunnel"},
    {IntfId::Kind::fec, "Fec"},
};
constexpr const char* kIntfRangeMessage = "IntfId number out of range (0 to 16777215)";
} // namespace

IntfId::IntfId(Kind kind, uint32_t number) {
   if (number > maxNumber) throw Mox::RangeError(kIntfRangeMessage);
   value_ = (static_cast<uint32_t>(kind) << 24) | number;
}

std::optional<IntfId> IntfId::parse(std::string_view name) {
   for (const auto& k : kKindNames) {
      std::string_view p(k.prefix);
      if (name.size() <= p.size() || name.substr(0, p.size()) != p) continue;
      std::string_view digits = name.substr(p.size());
      uint64_t n = 0;
      for (char c : digits) {
         if (c < '0' || c > '9') return std::nullopt;
         n = n * 10 + static_cast<uint64_t>(c - '0');
         if (n > maxNumber) return std::nullopt;
      }
      return IntfId(k.kind, static_cast<uint32_t>(n));
   }
   return std::nullopt;
}

std::string IntfId::stringValue() const {
   if (value_ == 0) return "none";
   for (const auto& k : kKindNames) {
      if (k.kind == kind()) return k.prefix + std::to_string(number());
   }
   return "Intf" + std::to_string(value_);
}

std::ostream& operator<<(std::ostream& os, IntfId i) { return os << i.stringValue(); }

} // namespace Ipkit
