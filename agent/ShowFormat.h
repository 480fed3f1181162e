// Text and JSON forms shared by the host's tables, so that a label, a label stack or an
// originator reads the same in every table.
#pragma once

#include <string>

#include "agent/Json.h"
#include "platform/Ipkit.h"
#include "platform/Tunnel.h"
#include "types/SrTePolicyTypes.h"

namespace Show {

// A label's number, or "none" for the null label.
inline std::string labelText(Ipkit::MplsLabel l) { return l.isNull() ? "none" : l.stringValue(); }
inline const char* onOff(bool b) { return b ? "on" : "off"; }
// A tunnel id as the segment list it stands for ("sl 3"), or its number for other tunnels. The
// JSON forms keep the number.
inline std::string tunnelText(Tunnel::TunnelTable::TunnelId id) {
   using Id = Tunnel::TunnelTable::TunnelId;
   return id.type() == Id::Type::srTeSegmentList ? "sl " + std::to_string(id.index())
                                                 : id.stringValue();
}
// "1 record", "2 records".
inline std::string count(size_t n, const char* noun) {
   return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

// The used labels, top of stack first.
inline Json::Value labelStackJson(const Ipkit::MplsLabelOperation& op) {
   Json::Value a = Json::Value::inlineArray();
   for (uint32_t i = 0; i < op.stackSize(); ++i) {
      a.push(Json::Value::label(op.label(Ipkit::MplsStackEntryIndex(i))));
   }
   return a;
}
inline std::string labelStackText(const Ipkit::MplsLabelOperation& op) {
   if (op.stackSize() == 0) return "(no labels)";
   std::string out;
   for (uint32_t i = 0; i < op.stackSize(); ++i) {
      if (i) out += ' ';
      out += labelText(op.label(Ipkit::MplsStackEntryIndex(i)));
   }
   return out;
}

// An imposition built by pushing (the last entry is the top), top of stack first.
inline Json::Value impositionJson(const Ipkit::MplsLabelOperation& op) {
   Json::Value a = Json::Value::inlineArray();
   for (uint32_t i = op.stackSize(); i-- > 0;) {
      a.push(Json::Value::label(op.label(Ipkit::MplsStackEntryIndex(i))));
   }
   return a;
}
inline std::string impositionText(const Ipkit::MplsLabelOperation& op) {
   if (op.stackSize() == 0) return "(no labels)";
   std::string out;
   for (uint32_t i = op.stackSize(); i-- > 0;) {
      out += labelText(op.label(Ipkit::MplsStackEntryIndex(i)));
      if (i) out += ' ';
   }
   return out;
}

inline Json::Value originatorJson(const SrTePolicy::Originator& o) {
   return Json::Value::row().set("asn", o.asn).set("address", Json::Value::address(o.address));
}

// An enumeration: its number under `key` and, when the value has a name (not just its number),
// the name under `key` + "Name".
template <class E>
void enumIs(Json::Value& row, const std::string& key, E value, const std::string& name) {
   const auto number = static_cast<uint32_t>(value);
   row.set(key, number);
   if (!name.empty() && name != std::to_string(number)) row.set(key + "Name", name);
}

} // namespace Show
