// PendingPolicyKey: a candidate path's id as the machines' pending sets order it.
#pragma once

#include <cstdint>

#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// Ordered by the id's hash (then the id), so that the order of a pass is a function of what is
// pending alone. Not a hash table's order: a flat table's order also depends on its insertion
// history and, for Abseil's, on where its slots happen to live in memory, and the processing order
// decides which segment list gets which id; every run of the same inputs must give the same ids.
// The hash goes first so that sorting a pass mostly compares one word.
struct PendingPolicyKey {
   uint32_t hash;
   PolicyId id;
   explicit PendingPolicyKey(const PolicyId& p) : hash(p.hash()), id(p) {}
   friend bool operator==(const PendingPolicyKey&, const PendingPolicyKey&) = default;
   friend auto operator<=>(const PendingPolicyKey&, const PendingPolicyKey&) = default;
};

} // namespace SrTePolicy
