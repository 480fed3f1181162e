// Mox small containers: a set and a map for collections that usually hold a member or two, kept
// inline so that the common case allocates nothing.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>

#include "absl/container/flat_hash_set.h"
#include "absl/container/inlined_vector.h"
#include "platform/MoxHash.h"

namespace Mox {

// A set that is usually one or two members (the candidate paths naming one binding SID or one
// segment list): up to `Inline` members live inline and are searched linearly, so the common case
// has no table and no allocation; up to `Linear` members live in one block, still searched
// linearly, which grows to three times the inline members, then doubles (a dozen users cost two
// allocations, and at most half the block stands empty); past that the members move to a flat
// table, so a list that a thousand paths share does not cost a linear search per change. Iteration
// order is unspecified.
template <class K, size_t Inline = 2, size_t Linear = 8>
class SmallSet {
   using Vec = absl::InlinedVector<K, Inline>;
   using Big = absl::flat_hash_set<K, Hash<K>>;

 public:
   using key_type = K;
   using value_type = K;

   class const_iterator {
    public:
      using value_type = K;
      using difference_type = std::ptrdiff_t;
      using reference = const K&;
      using pointer = const K*;
      using iterator_category = std::forward_iterator_tag;
      const_iterator() = default;
      const K& operator*() const noexcept { return small_ ? *small_ : *big_; }
      const K* operator->() const noexcept { return &**this; }
      const_iterator& operator++() noexcept {
         if (small_) {
            ++small_;
         } else {
            ++big_;
         }
         return *this;
      }
      const_iterator operator++(int) noexcept {
         auto old = *this;
         ++*this;
         return old;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
         return a.small_ == b.small_ && (a.small_ || a.big_ == b.big_);
      }

    private:
      friend class SmallSet;
      explicit const_iterator(const K* p) : small_(p) {}
      explicit const_iterator(typename Big::const_iterator it) : big_(it) {}
      const K* small_ = nullptr;
      typename Big::const_iterator big_{};
   };
   using iterator = const_iterator;

   SmallSet() = default;
   SmallSet(const SmallSet& o) : small_(o.small_) {
      if (o.big_) big_ = std::make_unique<Big>(*o.big_);
   }
   SmallSet(SmallSet&&) noexcept = default;
   SmallSet& operator=(SmallSet o) noexcept {
      small_.swap(o.small_);
      big_.swap(o.big_);
      return *this;
   }

   const_iterator begin() const noexcept {
      return big_ ? const_iterator(big_->begin()) : const_iterator(small_.data());
   }
   const_iterator end() const noexcept {
      return big_ ? const_iterator(big_->end()) : const_iterator(small_.data() + small_.size());
   }
   size_t size() const noexcept { return big_ ? big_->size() : small_.size(); }
   bool empty() const noexcept { return size() == 0; }
   const_iterator find(const K& k) const {
      if (big_) return const_iterator(big_->find(k));
      return const_iterator(std::find(small_.begin(), small_.end(), k));
   }
   size_t count(const K& k) const { return find(k) != end() ? 1 : 0; }
   bool contains(const K& k) const { return find(k) != end(); }
   std::pair<const_iterator, bool> insert(const K& k) {
      if (big_) {
         auto [it, inserted] = big_->insert(k);
         return {const_iterator(it), inserted};
      }
      auto it = std::find(small_.begin(), small_.end(), k);
      if (it != small_.end()) return {const_iterator(&*it), false};
      if (small_.size() < Linear) {
         growLinear();
         small_.push_back(k);
         return {const_iterator(&small_.back()), true};
      }
      big_ = std::make_unique<Big>();
      big_->reserve(small_.size() + 1);
      for (auto& m : small_) big_->insert(std::move(m));
      small_.clear();
      small_.shrink_to_fit();
      return insert(k);
   }
   // Adds a member the caller knows is not there yet: no search among the linear members.
   void insertNew(const K& k) {
      assert(!contains(k));
      if (big_ || small_.size() >= Linear) {
         insert(k);
         return;
      }
      growLinear();
      small_.push_back(k);
   }
   void erase(const_iterator it) {
      if (big_) {
         big_->erase(it.big_);
         if (big_->empty()) big_.reset();
         return;
      }
      auto pos = small_.begin() + (it.small_ - small_.data());
      if (pos != small_.end() - 1) *pos = std::move(small_.back());
      small_.pop_back();
   }
   size_t erase(const K& k) {
      auto it = find(k);
      if (it == end()) return 0;
      erase(it);
      return 1;
   }
   void clear() noexcept {
      small_.clear();
      big_.reset();
   }

 private:
   void growLinear() {
      const size_t n = small_.size();
      if (n < small_.capacity()) return;
      small_.reserve(std::min(Linear, n == Inline ? 3 * Inline : 2 * n));
   }

   Vec small_;
   std::unique_ptr<Big> big_;
};

// A key-ordered map that is usually a member or two (the candidates of one policy key): kept
// sorted in one inline block, so the common case allocates nothing. Insert and erase move the
// members behind: meant for a handful, not for thousands. Keys are ordered by `Less`, and two keys
// neither of which is less than the other are the same key, as in std::map.
template <class K, class V, size_t Inline = 2, class Less = std::less<K>>
class SmallMap {
 public:
   using key_type = K;
   using mapped_type = V;
   using value_type = std::pair<K, V>;
   using Vec = absl::InlinedVector<value_type, Inline>;
   using iterator = typename Vec::iterator;
   using const_iterator = typename Vec::const_iterator;

   iterator begin() noexcept { return items_.begin(); }
   iterator end() noexcept { return items_.end(); }
   const_iterator begin() const noexcept { return items_.begin(); }
   const_iterator end() const noexcept { return items_.end(); }
   size_t size() const noexcept { return items_.size(); }
   bool empty() const noexcept { return items_.empty(); }
   iterator find(const K& k) {
      auto it = lowerBound(k);
      return it != items_.end() && !Less()(k, it->first) ? it : items_.end();
   }
   const_iterator find(const K& k) const { return const_cast<SmallMap*>(this)->find(k); }
   size_t count(const K& k) const { return find(k) != end() ? 1 : 0; }
   bool contains(const K& k) const { return find(k) != end(); }
   // The value is made in place from `args` only when the key is new.
   template <class... A>
   std::pair<iterator, bool> try_emplace(const K& k, A&&... args) {
      auto it = lowerBound(k);
      if (it != items_.end() && !Less()(k, it->first)) return {it, false};
      return {items_.emplace(it, std::piecewise_construct, std::forward_as_tuple(k),
                             std::forward_as_tuple(std::forward<A>(args)...)),
              true};
   }
   iterator erase(const_iterator it) { return items_.erase(it); }
   size_t erase(const K& k) {
      auto it = find(k);
      if (it == items_.end()) return 0;
      items_.erase(it);
      return 1;
   }
   void clear() noexcept { items_.clear(); }

 private:
   iterator lowerBound(const K& k) {
      return std::lower_bound(items_.begin(), items_.end(), k,
                              [](const value_type& a, const K& b) { return Less()(a.first, b); });
   }
   Vec items_;
};

} // namespace Mox
