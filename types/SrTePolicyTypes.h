// The small value types every stage passes around: policy keys and ids, the bounded integers of a
// candidate path, originators, segment-list ids and weighted segment lists. Plain values: copied,
// compared field by field, hashed, printed, and written to the attribute log.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/Strep.h"
#include "platform/Tunnel.h"

namespace SrTePolicy {

constexpr uint32_t maxU32() { return 4294967295u; }
constexpr uint64_t maxU64() { return 18446744073709551615ull; }

// A bounded integer of this library: Mox::Bounded plus the structured text form
// "Value('SrTePolicy::Weight', ** {'value': 5})" and the attribute-log form (a 32-bit word, or a
// 64-bit one for 64-bit types). Both readers apply the range check of the type.
template <class Derived, class T, T Min, T Max, T Default>
struct BoundedValue : Mox::Bounded<Derived, T, Min, Max, Default> {
   using Base = Mox::Bounded<Derived, T, Min, Max, Default>;
   using Base::Base;
   static_assert(sizeof(T) == 4 || sizeof(T) == 8);

   std::string valueToStrep() const {
      return Strep::valueText(Derived::strepName, {{"value", std::to_string(this->value)}});
   }
   static Derived fromStrep(const Strep::Node& node) {
      const Strep::Node& v = node.expectValue(Derived::strepName, {"value"}).field("value");
      return Base::fromWide(v.unsignedValue(Derived::rangeMessage));
   }
   static Derived fromStrep(std::string_view text) { return fromStrep(Strep::Node::parse(text)); }
   void attrLogWrite(AttrLog::Writer& w) const {
      if constexpr (sizeof(T) == 8) {
         w.u64(this->value);
      } else {
         w.u32(this->value);
      }
   }
   static Derived attrLogRead(AttrLog::Reader& r) {
      if constexpr (sizeof(T) == 8) {
         return Base::fromWide(r.u64());
      } else {
         return Base::fromWide(r.u32());
      }
   }
};

struct Color : BoundedValue<Color, uint32_t, 0, maxU32(), 0> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "Color::value < Color::min or > Color::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::Color";
};
struct Discriminator : BoundedValue<Discriminator, uint32_t, 0, maxU32(), 0> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "Discriminator::value < Discriminator::min or > Discriminator::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::Discriminator";
};
struct Preference : BoundedValue<Preference, uint32_t, 0, maxU32(), 100> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "Preference::value < Preference::min or > Preference::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::Preference";
};
struct Weight : BoundedValue<Weight, uint32_t, 1, maxU32(), 1> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "Weight::value < Weight::min or > Weight::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::Weight";
};
struct Index : BoundedValue<Index, uint64_t, 0, maxU64(), 0> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "Index::value < Index::min or > Index::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::Index";
};
struct SegmentListIndex : BoundedValue<SegmentListIndex, uint32_t, 0, 15, 0> {
   using BoundedValue::BoundedValue;
   static constexpr const char* rangeMessage =
       "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed";
   static constexpr const char* strepName = "SrTePolicy::SegmentListIndex";
   // Plain addition: the result is not range checked.
   SegmentListIndex& operator+=(const SegmentListIndex& o) {
      value += o.value;
      return *this;
   }
   friend SegmentListIndex operator+(SegmentListIndex a, const SegmentListIndex& b) {
      return a += b;
   }
};

std::ostream& operator<<(std::ostream& os, const Color& v);
std::ostream& operator<<(std::ostream& os, const Discriminator& v);
std::ostream& operator<<(std::ostream& os, const Preference& v);
std::ostream& operator<<(std::ostream& os, const Weight& v);
std::ostream& operator<<(std::ostream& os, const Index& v);
std::ostream& operator<<(std::ostream& os, const SegmentListIndex& v);

// The source of a candidate path. Stored as 32 bits; names convert both ways.
enum class Protocol : uint32_t {
   unknown = 0,
   pcep = 10,
   bgp = 20,
   staticConfig = 30,
};
std::string protocolEnumToString(Protocol p);
// Accepts a name or a decimal number; nullopt when it is neither.
std::optional<Protocol> sequenceToValue(std::string_view text);
std::ostream& operator<<(std::ostream& os, Protocol p);
// Structured text: the quoted name ('bgp'); the reader also takes a number. Attribute log: a
// 32-bit word, any value.
std::string protocolToStrep(Protocol p);
Protocol protocolFromStrep(const Strep::Node& node);
void protocolAttrLogWrite(AttrLog::Writer& w, Protocol p);
Protocol protocolAttrLogRead(AttrLog::Reader& r);

using EndPoint = Ipkit::IpGenAddr;

struct PolicyKey {
   EndPoint endpoint;
   Color color;

   PolicyKey() = default;
   PolicyKey(const EndPoint& e, Color c) : endpoint(e), color(c) {}
   uint32_t hash() const noexcept { return Mox::hashCombine(endpoint.hash(), color.value); }
   std::string stringValue() const; // "10.0.0.1|100"
   static constexpr const char* strepName = "SrTePolicy::PolicyKey";
   std::string valueToStrep() const;
   static PolicyKey fromStrep(const Strep::Node& node);
   static PolicyKey fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static PolicyKey attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const PolicyKey&, const PolicyKey&) = default;
   friend auto operator<=>(const PolicyKey&, const PolicyKey&) = default;
};
static_assert(sizeof(PolicyKey) == 24);

struct PolicyId {
   PolicyKey key;
   Protocol protocol = Protocol::unknown;
   Discriminator discriminator;

   PolicyId() = default;
   PolicyId(const PolicyKey& k, Protocol p, Discriminator d)
       : key(k), protocol(p), discriminator(d) {}
   uint32_t hash() const noexcept {
      const uint32_t h = Mox::hashCombine(key.hash(), static_cast<uint32_t>(protocol));
      return Mox::hashCombine(h, discriminator.value);
   }
   std::string stringValue() const; // "10.0.0.1|100|bgp|7"
   static constexpr const char* strepName = "SrTePolicy::PolicyId";
   std::string valueToStrep() const;
   static PolicyId fromStrep(const Strep::Node& node);
   static PolicyId fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static PolicyId attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const PolicyId&, const PolicyId&) = default;
   friend auto operator<=>(const PolicyId&, const PolicyId&) = default;
};
static_assert(sizeof(PolicyId) == 32);

// Identity of a candidate path within its policy key.
struct CandidateId {
   Protocol protocol = Protocol::unknown;
   Discriminator discriminator;

   CandidateId() = default;
   CandidateId(Protocol p, Discriminator d) : protocol(p), discriminator(d) {}
   explicit CandidateId(const PolicyId& id)
       : protocol(id.protocol), discriminator(id.discriminator) {}
   uint32_t hash() const noexcept;
   std::string stringValue() const; // "bgp:7"
   static constexpr const char* strepName = "SrTePolicy::CandidateId";
   std::string valueToStrep() const;
   static CandidateId fromStrep(const Strep::Node& node);
   static CandidateId fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static CandidateId attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const CandidateId&, const CandidateId&) = default;
   friend auto operator<=>(const CandidateId&, const CandidateId&) = default;
};

struct Originator {
   uint32_t asn = 0;
   Ipkit::IpGenAddr address;

   Originator() = default;
   Originator(uint32_t as, const Ipkit::IpGenAddr& a) : asn(as), address(a) {}
   uint32_t hash() const noexcept;
   std::string stringValue() const; // "10.0.0.9(AS65000)"
   static constexpr const char* strepName = "SrTePolicy::Originator";
   std::string valueToStrep() const;
   static Originator fromStrep(const Strep::Node& node);
   static Originator fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static Originator attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const Originator&, const Originator&) = default;
   friend auto operator<=>(const Originator&, const Originator&) = default;
};
static_assert(sizeof(Originator) == 24);

// Identifier of one deduplicated segment list; also names its tunnel.
struct SegmentListId {
   uint32_t value = 0;

   SegmentListId() = default;
   explicit SegmentListId(uint32_t v) : value(v) {}
   Tunnel::TunnelTable::TunnelId getTunnelId() const;
   uint32_t hash() const noexcept { return Mox::mix32(value); }
   std::string stringValue() const { return std::to_string(value); }
   static constexpr const char* strepName = "SrTePolicy::SegmentListId";
   std::string valueToStrep() const;
   static SegmentListId fromStrep(const Strep::Node& node);
   static SegmentListId fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static SegmentListId attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const SegmentListId&, const SegmentListId&) = default;
   friend auto operator<=>(const SegmentListId&, const SegmentListId&) = default;
};

struct WeightedSegList {
   Weight weight;
   Ipkit::MplsLabelOperation segList;

   WeightedSegList() = default;
   WeightedSegList(Weight w, const Ipkit::MplsLabelOperation& s) : weight(w), segList(s) {}
   uint32_t hash() const noexcept;
   // "weight: %u, segments: [%s]"
   std::string stringValue() const;
   // "%*cweight: %u, segments: [%s] \n"
   void dump(std::string& out, int depth) const;
   static constexpr const char* strepName = "SrTePolicy::WeightedSegList";
   std::string valueToStrep() const;
   static WeightedSegList fromStrep(const Strep::Node& node);
   static WeightedSegList fromStrep(std::string_view text);
   void attrLogWrite(AttrLog::Writer& w) const;
   static WeightedSegList attrLogRead(AttrLog::Reader& r);
   friend bool operator==(const WeightedSegList&, const WeightedSegList&) = default;
   friend bool operator<(const WeightedSegList& a, const WeightedSegList& b) {
      if (a.weight != b.weight) return a.weight < b.weight;
      return a.segList < b.segList;
   }
};
static_assert(sizeof(WeightedSegList) == 44);

// Why a candidate path cannot be used.
enum class PolicyInvalidReason : uint32_t {
   usable = 0,
   bsidOutOfRange = 1,
   bsidMissing = 2,
   bsidInUseOtherApplication = 3,
   noSegmentLists = 4,
};
const char* policyInvalidReasonName(PolicyInvalidReason r);

// Dumps indent each line with "%*c" (depth, ' '); one level deeper is two more columns. A negative
// depth writes the same lines without any indentation (the plain display form), also when nested.
void dumpIndent(std::string& out, int depth);
inline int dumpDeeper(int depth) { return depth < 0 ? depth : depth + 2; }

std::ostream& operator<<(std::ostream& os, const PolicyKey& v);
std::ostream& operator<<(std::ostream& os, const PolicyId& v);
std::ostream& operator<<(std::ostream& os, const CandidateId& v);
std::ostream& operator<<(std::ostream& os, const Originator& v);
std::ostream& operator<<(std::ostream& os, const SegmentListId& v);
std::ostream& operator<<(std::ostream& os, const WeightedSegList& v);

} // namespace SrTePolicy
