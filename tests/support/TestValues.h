// Small builders shared by the policy-model tests.
#pragma once

#include <initializer_list>

#include "platform/Ipkit.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy::Test {

inline Ipkit::IpGenAddr addr(const char* text) { return *Ipkit::IpGenAddr::parse(text); }

inline Ipkit::MplsLabelOperation stack(std::initializer_list<uint32_t> labels) {
   Ipkit::MplsLabelOperation op;
   op.actionIs(Ipkit::MplsLabelAction::push);
   for (uint32_t l : labels) op.push(Ipkit::MplsLabel(l));
   return op;
}

inline PolicyKey keyOf(const char* endpoint, uint32_t color) {
   return PolicyKey(addr(endpoint), Color(color));
}

// The message of the range error `f` raises, or "accepted".
template <class F>
std::string rangeError(F&& f) {
   try {
      f();
   } catch (const Mox::RangeError& e) {
      return e.what();
   }
   return "accepted";
}

} // namespace SrTePolicy::Test
