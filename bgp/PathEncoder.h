// Encoding an SR policy as the BGP speaker's AddPath wants it: the controller side of labs and
// tests. The inverse of the decoder for what a record can hold, plus the content a record cannot
// hold (SRv6 binding SID, SRv6 segments) so that tests can send it and watch it be refused.
//
// The speaker's API is asymmetric: on AddPath the binding SID is the plain label in 4 big-endian
// bytes and a type-A segment's `label` is the label stack entry (label << 12) with its flags set;
// every list carries a Weight sub-TLV (the speaker cannot list a received list without one).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "types/SrTePolicyInput.h"

namespace apipb {
class Path;
}

namespace SrTeBgp {

struct PolicyAdvert {
   SrTePolicy::PolicyId id;
   std::optional<uint32_t> preference;
   std::optional<uint32_t> bindingSid;        // a plain label
   std::optional<std::string> srv6BindingSid; // an IPv6 address, in text
   struct List {
      uint32_t weight = 1;
      std::vector<uint32_t> labels;  // top first
      std::vector<std::string> srv6; // SRv6 SIDs (IPv6 text) after the labels
   };
   std::vector<List> lists;
};

// The path to add; `nextHop` is required by the speaker even for this family. Throws
// std::invalid_argument when a label is beyond 20 bits (it would not survive the shift).
apipb::Path encodePath(const PolicyAdvert& advert, const std::string& nextHop);

// The path that withdraws `id` (NLRI and family only).
apipb::Path encodeWithdrawal(const SrTePolicy::PolicyId& id);

} // namespace SrTeBgp
