#include "selection/SrTePolicyPriority.h"

#include "platform/Mox.h"

namespace SrTePolicy {

const char* priorityCompareResultName(PriorityCompareResult r) {
   switch (r) {
   case PriorityCompareResult::isLowerDiscriminator:
      return "isLowerDiscriminator";
   case PriorityCompareResult::isHigherOrigin:
      return "isHigherOrigin";
   case PriorityCompareResult::isLowerProtocol:
      return "isLowerProtocol";
   case PriorityCompareResult::isLowerPreference:
      return "isLowerPreference";
   case PriorityCompareResult::isEqual:
      return "isEqual";
   case PriorityCompareResult::isHigherPreference:
      return "isHigherPreference";
   case PriorityCompareResult::isBetterProtocol:
      return "isBetterProtocol";
   case PriorityCompareResult::isLowerOrigin:
      return "isLowerOrigin";
   case PriorityCompareResult::isHigherDiscriminator:
      return "isHigherDiscriminator";
   }
   return "unknown";
}

std::ostream& operator<<(std::ostream& os, PriorityCompareResult r) {
   return os << priorityCompareResultName(r);
}

PriorityCompareResult Priority::compare(const Priority& o) const noexcept {
   using R = PriorityCompareResult;
   if (preference != o.preference) {
      return preference > o.preference ? R::isHigherPreference : R::isLowerPreference;
   }
   // Protocol numbers order as signed values.
   const auto mine = static_cast<int32_t>(protocol);
   const auto theirs = static_cast<int32_t>(o.protocol);
   if (mine != theirs) return mine > theirs ? R::isBetterProtocol : R::isLowerProtocol;
   if (originator != o.originator) {
      return originator < o.originator ? R::isLowerOrigin : R::isHigherOrigin;
   }
   return discriminator > o.discriminator ? R::isHigherDiscriminator : R::isLowerDiscriminator;
}

uint32_t Priority::hash() const noexcept {
   uint32_t h = Mox::hashCombine(Mox::mix32(preference.value), static_cast<uint32_t>(protocol));
   h = Mox::hashCombine(h, originator.hash());
   return Mox::hashCombine(h, discriminator.value);
}

std::string Priority::stringValue() const {
   return std::to_string(preference.value) + "-" + protocolEnumToString(protocol) + "-" +
          originator.stringValue() + " - " + std::to_string(discriminator.value);
}

std::string Priority::valueToStrep() const {
   return "Value('SrTePolicy::Priority', ** {'preference': " + preference.valueToStrep() +
          ", 'protocol': " + protocolToStrep(protocol) +
          ", 'originator': " + originator.valueToStrep() +
          ", 'discriminator': " + discriminator.valueToStrep() + "})";
}

void Priority::writeTo(AttrLog::Writer& w) const {
   w.u32(preference.value);
   w.u32(static_cast<uint32_t>(protocol));
   originator.attrLogWrite(w);
   w.u32(discriminator.value);
}

Priority Priority::readFrom(AttrLog::Reader& r) {
   Priority p;
   p.preference = Preference::fromWide(r.u32());
   p.protocol = static_cast<Protocol>(r.u32());
   p.originator = Originator::attrLogRead(r);
   p.discriminator = Discriminator::fromWide(r.u32());
   return p;
}

std::ostream& operator<<(std::ostream& os, const Priority& v) { return os << v.stringValue(); }

} // namespace SrTePolicy
