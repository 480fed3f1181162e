// Mox::KeyedTable: a hash table of objects that each hold their own key.
//
// A flat map from key to pointer stores the key twice (in the slot and in the object) and leaves
// its slots a third to a half empty, so a million members keyed by a 32-byte id cost some 80
// bytes each in the table alone. Here a slot holds only the pointer and the key is read from the
// object through `KeyOf`, so the same table costs under 20 bytes a member.
//
//   struct EntryId { const PolicyId& operator()(const PolicyIdEntry& e) const { return e.id(); } };
//   Mox::KeyedTable<Mox::Ptr<PolicyIdEntry>, EntryId> table;
//   for (const auto& [id, entry] : table) ...      // iterates as (key, pointer) pairs
//
// Guarantees:
//  - a member's key must not change while it is in the table, and the object must outlive its
//    slot: the pointer type owns it (Ptr, unique_ptr) or the caller guarantees it;
//  - lookups compare keys through the objects, so a probe that meets another member reads that
//    member's key: every member must be alive whenever the table is used;
//  - iterators and references are invalidated by any insert or erase (as in a flat map); the
//    objects never move. Where assertions are compiled in (platform/MoxEpoch.h), using an iterator
//    after the table changed, or changing the table inside forEach, aborts.
#pragma once

#include <algorithm>
#include <type_traits>
#include <utility>

#include "absl/container/flat_hash_set.h"
#include "platform/Mox.h"
#include "platform/MoxEpoch.h"

namespace Mox {

template <class P, class KeyOf, class Epoch = DebugEpoch>
class KeyedTable {
   using Object = std::remove_reference_t<decltype(*std::declval<const P&>())>;

 public:
   using key_type = std::remove_cvref_t<std::invoke_result_t<KeyOf, const Object&>>;
   using mapped_type = P;
   // What iteration yields: the key, read from the member, and the member's pointer.
   using value_type = std::pair<const key_type&, const P&>;

 private:
   static const key_type& keyOfMember(const P& p) noexcept { return KeyOf{}(*p); }
   struct SlotHash {
      using is_transparent = void;
      size_t operator()(const key_type& k) const noexcept { return Hash<key_type>{}(k); }
      size_t operator()(const P& p) const noexcept { return Hash<key_type>{}(keyOfMember(p)); }
   };
   struct SlotEq {
      using is_transparent = void;
      static const key_type& key(const key_type& k) noexcept { return k; }
      static const key_type& key(const P& p) noexcept { return keyOfMember(p); }
      template <class A, class B>
      bool operator()(const A& a, const B& b) const noexcept {
         return key(a) == key(b);
      }
   };
   using Set = absl::flat_hash_set<P, SlotHash, SlotEq, BulkAllocator<P>>;

 public:
   class const_iterator {
    public:
      using value_type = KeyedTable::value_type;
      using difference_type = std::ptrdiff_t;
      using reference = value_type;
      using iterator_category = std::forward_iterator_tag;
      struct Arrow {
         value_type member;
         const value_type* operator->() const noexcept { return &member; }
      };

      const_iterator() = default;
      value_type operator*() const {
         at_.check();
         return {keyOfMember(*it_), *it_};
      }
      Arrow operator->() const { return Arrow{**this}; }
      const_iterator& operator++() {
         at_.check();
         ++it_;
         return *this;
      }
      const_iterator operator++(int) {
         auto old = *this;
         ++*this;
         return old;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
         return a.it_ == b.it_;
      }

    private:
      friend class KeyedTable;
      const_iterator(typename Set::const_iterator it, const Epoch* epoch) : it_(it), at_(epoch) {}
      typename Set::const_iterator it_;
      [[no_unique_address]] typename Epoch::Handle at_;
   };
   using iterator = const_iterator;

   const_iterator begin() const noexcept { return iter(set_.begin()); }
   const_iterator end() const noexcept { return iter(set_.end()); }
   size_t size() const noexcept { return set_.size(); }
   bool empty() const noexcept { return set_.empty(); }
   void reserve(size_t n) {
      epoch_.bump();
      set_.reserve(n);
   }
   // How many members the table takes before it grows (and rehashes every member).
   size_t room() const noexcept {
      const size_t c = set_.capacity();
      return std::max(set_.size(), c - c / 8); // the flat table's maximum load, 7/8
   }
   // Sized to take as many members as `other` has room for: a table shadowing another one member
   // for member (a reactor per entry) then grows with it instead of rehashing at every doubling.
   template <class T>
   void reserveLike(const T& other) {
      if (other.room() > room()) reserve(other.room());
   }
   void clear() noexcept {
      epoch_.bump();
      set_.clear();
   }

   // Calls `visit(key, pointer)` for every member, fetching members a batch ahead: a walk over a
   // large table meets its members in no memory order, and would otherwise wait on each one.
   // `visit` must not change the table.
   template <class F>
   void forEach(F&& visit) const {
      constexpr size_t batch = 16;
      const P* ahead[batch];
      size_t n = 0;
      const typename Epoch::Handle at(&epoch_);
      auto flush = [&] {
         for (size_t i = 0; i < n; ++i) {
            visit(keyOfMember(*ahead[i]), *ahead[i]);
            at.check();
         }
         n = 0;
      };
      for (const P& p : set_) {
         __builtin_prefetch(&keyOfMember(p)); // an address, not a read
         ahead[n++] = &p;
         if (n == batch) flush();
      }
      flush();
   }

   // Fetches the slots a lookup of `k` will read, without waiting for them.
   void prefetch(const key_type& k) const { set_.prefetch(k); }
   const_iterator find(const key_type& k) const { return iter(set_.find(k)); }
   bool contains(const key_type& k) const { return set_.contains(k); }
   size_t count(const key_type& k) const { return set_.count(k); }
   // The member of `k`, null when absent.
   Object* get(const key_type& k) const {
      auto it = set_.find(k);
      return it == set_.end() ? nullptr : &**it;
   }

   // The member of `k`, made by `make()` (which must return a P holding key `k`) when absent: one
   // probe either way. Returns the member and whether it was made.
   template <class F>
   std::pair<const_iterator, bool> findOrInsert(const key_type& k, F&& make) {
      bool made = false;
      auto it = set_.lazy_emplace(k, [&](const auto& construct) {
         made = true;
         construct(make());
      });
      assert(keyOfMember(*it) == k);
      if (made) epoch_.bump();
      return {iter(it), made};
   }
   // Inserts `p`, or puts it in the place of the member with its key (which is let go): one probe.
   const_iterator assign(P p) {
      epoch_.bump();
      auto [it, inserted] = set_.insert(std::move(p));
      // Only reached when `p` was not moved from. The slot keeps its place: the key is the same.
      if (!inserted) const_cast<P&>(*it) = std::move(p);
      return iter(it);
   }
   // Inserts `p` unless a member with its key is there.
   std::pair<const_iterator, bool> insert(P p) {
      auto [it, inserted] = set_.insert(std::move(p));
      if (inserted) epoch_.bump();
      return {iter(it), inserted};
   }

   void erase(const_iterator it) {
      it.at_.check();
      epoch_.bump();
      set_.erase(it.it_);
   }
   size_t erase(const key_type& k) {
      epoch_.bump();
      return set_.erase(k);
   }
   // Removes a member and hands it over, with its key (which lives in the member).
   std::pair<const key_type&, P> take(const_iterator it) {
      it.at_.check();
      epoch_.bump();
      auto node = set_.extract(it.it_);
      P p = std::move(node.value());
      const key_type& k = keyOfMember(p);
      return {k, std::move(p)};
   }

 private:
   const_iterator iter(typename Set::const_iterator it) const noexcept {
      return const_iterator(it, &epoch_);
   }

   Set set_;
   [[no_unique_address]] Epoch epoch_;
};

} // namespace Mox
