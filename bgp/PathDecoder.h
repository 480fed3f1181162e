// Decoding the BGP speaker's SR Policy paths (SAFI 73) into protocol-20 input records.
//
// A path carries its NLRI (endpoint, color, distinguisher) and, in its Tunnel Encapsulation
// attribute, one TLV of type 15 (SR Policy) whose sub-TLVs are the preference (12), the binding SID
// (13) and one segment list (128) per list. The decoder keeps what the core can use and says, in
// plain language, what it left out and why; it never throws on what a peer sent.
//
// What it guarantees, for a path whose NLRI names a policy:
// - the record's key is (endpoint, color, bgp, distinguisher); the originator is the ORIGINATOR_ID
//   when the route was reflected, else the sending peer's identifier, with the sending peer's AS;
// - the preference is sub-TLV 12's, 100 when absent;
// - the binding SID is sub-TLV 13's when it is an MPLS label, none otherwise (an SRv6 binding SID
//   or a SID of another length is reported);
// - each usable sub-TLV 128 becomes one weighted list, in the order received, weight 1 when it has
//   no weight, its labels top first; a list holding a segment other than an MPLS label, a label
//   out of the 20-bit range, a zero weight or more labels than a stack holds is left out and
//   reported; past 16 usable lists the rest are reported and left out;
// - a route with no usable list still gives a record, without lists: the core marks it unusable.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "types/SrTePolicyInput.h"

namespace apipb {
class Path;
}

namespace SrTeBgp {

// The BGP SR Policy tunnel type and the sub-TLV types the decoder reads.
inline constexpr uint32_t tunnelTypeSrPolicy = 15;

struct PathDecoding {
   // Absent when the path does not name a policy (not an SR Policy NLRI, or an endpoint that is
   // neither 4 nor 16 bytes); the reports then say why.
   std::optional<SrTePolicy::PolicyId> id;
   // The record to write, for a path that is not a withdrawal and names a policy.
   std::optional<SrTePolicy::PolicyInputEntry> entry;
   bool withdraw = false;
   // What was left out or refused, and why; empty when the whole path was used.
   std::vector<std::string> reports;
};

// The policy id of an SR Policy NLRI given as the path's `nlri`; nullopt (and a report appended)
// when the path names none.
std::optional<SrTePolicy::PolicyId> decodePolicyId(const apipb::Path& path,
                                                   std::vector<std::string>& reports);

PathDecoding decodePath(const apipb::Path& path);

} // namespace SrTeBgp
