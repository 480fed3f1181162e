// Ipkit: the network value types the policy core passes around: addresses, MPLS labels and label
// stacks, interface ids and DSCP values. All are plain, fixed-size values (they live inside
// shared-memory records), hashable, ordered and printable.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/Mox.h"

namespace AttrLog {
class Writer;
class Reader;
} // namespace AttrLog
namespace Strep {
class Node;
}

// Every value type below also has a structured text form (valueToStrep / fromStrep, see
// platform/Strep.h) and an attribute-log form (attrLogWrite / attrLogRead, network byte order);
// reading either back applies the type's range checks.
namespace Ipkit {

// ---------------------------------------------------------------------------------------------
// IpGenAddr: an IPv4 or IPv6 address in 20 bytes: the family code (4 bytes) then 16 address bytes
// (IPv4 in the first 4). The default is the unspecified IPv4 address 0.0.0.0.
class IpGenAddr {
 public:
   enum Family : uint32_t { ipv4 = 0, ipv6 = 1 };

   IpGenAddr() noexcept : af_(ipv4), bytes_{} {}
   static IpGenAddr v4(uint32_t hostOrder) noexcept;
   static IpGenAddr v6(const std::array<uint8_t, 16>& bytes) noexcept;
   // Parses dotted-quad IPv4 or IPv6 text; nullopt when the text is neither.
   static std::optional<IpGenAddr> parse(std::string_view text);

   Family af() const noexcept { return static_cast<Family>(af_); }
   const uint8_t* bytes() const noexcept { return bytes_; }
   bool isUnspecified() const noexcept;
   std::string stringValue() const;
   uint32_t hash() const noexcept {
      // Two multiplicative mixes over the 16 address bytes.
      uint64_t a, b;
      std::memcpy(&a, bytes_, 8);
      std::memcpy(&b, bytes_ + 8, 8);
      uint64_t h = (a ^ af_) * 0x9e3779b97f4a7c15ull;
      h = (h ^ (h >> 29) ^ b) * 0xbf58476d1ce4e5b9ull;
      return static_cast<uint32_t>(h ^ (h >> 32));
   }

   // Value('Ipkit::IpGenAddr', ** {'address': '10.0.0.1'})
   static constexpr const char* strepName = "Ipkit::IpGenAddr";
   std::string valueToStrep() const;
   static IpGenAddr fromStrep(const Strep::Node& node);
   static IpGenAddr fromStrep(std::string_view text);
   // The family as a 32-bit word, then the 16 address bytes.
   void attrLogWrite(AttrLog::Writer& w) const;
   static IpGenAddr attrLogRead(AttrLog::Reader& r);
   static constexpr const char* familyRangeMessage =
       "IpGenAddr::af < IpGenAddr::ipv4 or > IpGenAddr::ipv6 not allowed";

   // Inline: every keyed table of the core compares and hashes addresses on its hot paths.
   friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) noexcept {
      return a.af_ == b.af_ && std::memcmp(a.bytes_, b.bytes_, 16) == 0;
   }
   friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) noexcept {
      if (a.af_ != b.af_) return a.af_ <=> b.af_;
      return std::memcmp(a.bytes_, b.bytes_, 16) <=> 0;
   }

 private:
   uint32_t af_;
   uint8_t bytes_[16];
};
static_assert(sizeof(IpGenAddr) == 20);
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);

// ---------------------------------------------------------------------------------------------
// MplsLabel: a 20-bit label value held in 32 bits. The default, 1048576 (one above the label
// range), means "no label". Values up to luWithdraw (8388608) can be formed; above is an error.
class MplsLabel {
 public:
   static constexpr uint32_t min = 0;
   static constexpr uint32_t maxLabel = 1048575;
   static constexpr uint32_t null = 1048576;
   static constexpr uint32_t luWithdraw = 8388608;
   static constexpr const char* rangeMessage =
       "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

   constexpr MplsLabel() noexcept = default;
   explicit MplsLabel(uint64_t v) { valueIs(v); }
   void valueIs(uint64_t v) {
      if (v > luWithdraw) throw Mox::RangeError(rangeMessage);
      value_ = static_cast<uint32_t>(v);
   }
   uint32_t value() const noexcept { return value_; }
   bool isNull() const noexcept { return value_ == null; }
   std::string stringValue() const { return std::to_string(value_); }
   uint32_t hash() const noexcept { return Mox::mix32(value_); }

   // Value('Ipkit::MplsLabel', ** {'value': 16001})
   static constexpr const char* strepName = "Ipkit::MplsLabel";
   std::string valueToStrep() const;
   static MplsLabel fromStrep(const Strep::Node& node);
   static MplsLabel fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static MplsLabel attrLogRead(AttrLog::Reader& r);

   friend bool operator==(MplsLabel a, MplsLabel b) noexcept { return a.value_ == b.value_; }
   friend auto operator<=>(MplsLabel a, MplsLabel b) noexcept { return a.value_ <=> b.value_; }

 private:
   uint32_t value_ = null;
};
std::ostream& operator<<(std::ostream& os, MplsLabel l);

// Index of one entry of a label stack.
struct MplsStackEntryIndex : Mox::Bounded<MplsStackEntryIndex, uint32_t, 0, 7, 0> {
   using Bounded::Bounded;
   static constexpr const char* rangeMessage =
       "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not "
       "allowed";
};

// Label actions of an adjacency via or a label operation. The numbers are the platform's.
enum class MplsLabelAction : uint32_t { none = 0, pop = 1, swap = 2, push = 3, forward = 4 };
const char* mplsLabelActionName(MplsLabelAction a);
std::optional<MplsLabelAction> mplsLabelActionFromName(std::string_view name);

enum class BoundedMplsLabelStackResult { SUCCESS_, STACK_FULL_ };

// MplsLabelOperation: an action and a label stack of up to 8 entries (40 bytes, no pointers).
// In a candidate path's segment list entry 0 is the top of the stack (the first segment); an
// imposition built by `push` grows at the end (the last entry pushed is the top).
class MplsLabelOperation {
 public:
   static constexpr uint32_t capacity = 8;

   MplsLabelOperation() noexcept : action_(0), size_(0), stack_{} {}

   MplsLabelAction action() const noexcept { return static_cast<MplsLabelAction>(action_); }
   void actionIs(MplsLabelAction a) noexcept { action_ = static_cast<uint32_t>(a); }
   uint32_t stackSize() const noexcept { return size_; }
   // Sets the number of entries in use; entries beyond keep their values until overwritten.
   void stackSizeIs(MplsStackEntryIndex n);
   void stackSizeIs(uint32_t n);
   MplsLabel label(MplsStackEntryIndex i) const noexcept;
   // Stores a label at an index; the size grows to cover it.
   void labelIs(MplsStackEntryIndex i, MplsLabel l) noexcept;
   BoundedMplsLabelStackResult push(MplsLabel l) noexcept;
   void clear() noexcept { *this = MplsLabelOperation(); }

   // "16001 16002 16003": the used entries from index 0.
   std::string stringValue() const;
   uint32_t hash() const noexcept;

   // Value('Ipkit::MplsLabelOperation', ** {'action': 3, 'stack': [16001, 16002]}); the action
   // may also be given by name when parsing.
   static constexpr const char* strepName = "Ipkit::MplsLabelOperation";
   std::string valueToStrep() const;
   static MplsLabelOperation fromStrep(const Strep::Node& node);
   static MplsLabelOperation fromStrep(std::string_view text);
   // Action and size as 32-bit words, then the used labels; labels and size are range checked on
   // read-back.
   void attrLogWrite(AttrLog::Writer& w) const;
   static MplsLabelOperation attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const MplsLabelOperation& a, const MplsLabelOperation& b) noexcept;
   friend std::strong_ordering operator<=>(const MplsLabelOperation& a,
                                           const MplsLabelOperation& b) noexcept;

 private:
   uint32_t action_;
   uint32_t size_;
   uint32_t stack_[capacity];
};
static_assert(sizeof(MplsLabelOperation) == 40);
std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& op);

// ---------------------------------------------------------------------------------------------
// DscpValue: 0..63, with the usual symbolic names (ef, af11..af43, cs0..cs7).
struct DscpValue : Mox::Bounded<DscpValue, uint8_t, 0, 63, 0> {
   using Bounded::Bounded;
   static constexpr const char* rangeMessage =
       "DscpValue::value < DscpValue::min or > DscpValue::max not allowed";
   // The symbolic name, or empty when the value has none.
   std::string symbolicName() const;
   static std::optional<DscpValue> fromName(std::string_view name);
   std::string stringValue() const { return std::to_string(value); }

   // Value('Ipkit::DscpValue', ** {'value': 46}); one byte in the attribute log.
   static constexpr const char* strepName = "Ipkit::DscpValue";
   std::string valueToStrep() const;
   static DscpValue fromStrep(const Strep::Node& node);
   static DscpValue fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static DscpValue attrLogRead(AttrLog::Reader& r);
};

// ---------------------------------------------------------------------------------------------
// IntfId: an interface identifier. The top 8 bits are the kind, the low 24 the number. Names are
// the kind's prefix followed by the number ("Ethernet1", "NexthopGroup7", "DynamicTunnel3").
class IntfId {
 public:
   enum class Kind : uint8_t {
      none = 0,
      ethernet = 1,
      vlan = 2,
      loopback = 3,
      portChannel = 4,
      nexthopGroup = 5,
      dynamicTunnel = 6,
      fec = 7,
   };
   static constexpr uint32_t maxNumber = 0xffffff;

   constexpr IntfId() noexcept = default;
   IntfId(Kind kind, uint32_t number);
   static std::optional<IntfId> parse(std::string_view name);

   uint32_t value() const noexcept { return value_; }
   Kind kind() const noexcept { return static_cast<Kind>(value_ >> 24); }
   uint32_t number() const noexcept { return value_ & maxNumber; }
   bool isSet() const noexcept { return value_ != 0; }
   std::string stringValue() const;
   uint32_t hash() const noexcept { return Mox::mix32(value_); }
   friend bool operator==(IntfId a, IntfId b) noexcept { return a.value_ == b.value_; }
   friend auto operator<=>(IntfId a, IntfId b) noexcept { return a.value_ <=> b.value_; }

 private:
   uint32_t value_ = 0;
};
std::ostream& operator<<(std::ostream& os, IntfId i);

// The two classifiers that resolution uses to refuse tunnel-like egress interfaces.
struct FecIdIntfId {
   static bool isNexthopGroupIdIntfId(IntfId i) noexcept {
      return i.kind() == IntfId::Kind::nexthopGroup;
   }
};
struct DynamicTunnelIntfId {
   static bool isDynamicTunnelIntfId(IntfId i) noexcept {
      return i.kind() == IntfId::Kind::dynamicTunnel;
   }
};

} // namespace Ipkit
