// Mox hashing and the hash tables built on it: how a key hashes, and the hash-ordered and
// key-ordered collections entities keep.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"
#include "platform/MoxBulk.h"
#include "platform/MoxRefCount.h"

namespace Mox {

// ---------------------------------------------------------------------------------------------
// Hashing for keyed collections: a key offers `uint32_t hash() const`, or std::hash applies.
//
// The flat tables below take a slot from the hash's high bits and a 7-bit tag from its low bits,
// and do not mix it again: a key's hash is spread over the whole word here, so that small integers
// and aligned pointers (whose std::hash is the value itself) do not pile up in a few groups.

template <class K>
concept HasHashMember = requires(const K& k) {
   k.hash();
};

inline size_t spreadHash(uint64_t h) noexcept {
   h *= 0x9e3779b97f4a7c15ull;
   return static_cast<size_t>(h ^ (h >> 32));
}

template <class K>
struct Hash {
   size_t operator()(const K& k) const noexcept {
      if constexpr (HasHashMember<K>) {
         return spreadHash(k.hash());
      } else {
         return spreadHash(std::hash<K>{}(k));
      }
   }
};

template <class K>
struct Hash<Ptr<K>> {
   size_t operator()(const Ptr<K>& k) const noexcept {
      return spreadHash(reinterpret_cast<uintptr_t>(k.get()));
   }
};

// Murmur3's finaliser: a good 32-bit mix for combining field hashes.
inline uint32_t mix32(uint32_t h) noexcept {
   h ^= h >> 16;
   h *= 0x85ebca6bu;
   h ^= h >> 13;
   h *= 0xc2b2ae35u;
   h ^= h >> 16;
   return h;
}
inline uint32_t hashCombine(uint32_t seed, uint32_t v) noexcept {
   return mix32(seed ^ (v + 0x9e3779b9u + (seed << 6) + (seed >> 2)));
}

// Hash-ordered (iteration order unspecified) and key-ordered collections.
//
// The hash-ordered ones are Abseil's open-addressing tables: one probe of a contiguous group per
// lookup instead of a chain of separately allocated nodes, no allocation per member, and a
// library that large programs rely on and keep tuned; it is already the core's one dependency,
// packaged by Debian, where Boost's flat tables would bring a second. What they do not give,
// unlike node-based tables:
//  - a member does not stay where it is when the table grows (an insert may move every member,
//    so pointers and references into the table are good only until the next insert); values that
//    must keep their address are held by Ptr (most are: the value is an entity);
//  - erase(iterator) returns nothing (other members stay where they are);
//  - iteration order depends on where the table's slots happen to be allocated, so it differs
//    between two tables of the same members and from run to run. Nothing whose outcome is
//    visible may follow it: the input stage drains its pending ids from a B-tree in hash order,
//    dumps and shows sort their rows.
template <class K, class V>
using HashMap2018 =
    absl::flat_hash_map<K, V, Hash<K>, std::equal_to<K>, BulkAllocator<std::pair<const K, V>>>;
template <class K>
using HashSet = absl::flat_hash_set<K, Hash<K>, std::equal_to<K>, BulkAllocator<K>>;
template <class K, class V>
using RbTreeMap = std::map<K, V>;

} // namespace Mox
