// PendingKey: an id as the machines' pending sets order it (a candidate path's PolicyId for the
// input stage and selection, a PolicyKey for publishing).
#pragma once

#include <cstdint>

#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// Ordered by the id's hash (then the id), so that the order of a pass is a function of what is
// pending alone. Not a hash table's order: a flat table's order also depends on its insertion
// history and, for Abseil's, on where its slots happen to live in memory, and the processing order
// decides which segment list gets which id and which policy wins a released binding SID; every
// run of the same inputs must give the same outcome. The hash goes first so that sorting a pass
// mostly compares one word.
template <class Id>
struct PendingKey {
   uint32_t hash;
   Id id;
   explicit PendingKey(const Id& i) : hash(i.hash()), id(i) {}
   friend bool operator==(const PendingKey&, const PendingKey&) = default;
   friend auto operator<=>(const PendingKey&, const PendingKey&) = default;
};
using PendingPolicyKey = PendingKey<PolicyId>;

} // namespace SrTePolicy
