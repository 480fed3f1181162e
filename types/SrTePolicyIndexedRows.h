// IndexedRows: the per-path rows of the selection input (weighted segment lists) and of the
// policies selection writes (weighted tunnel ids).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

#include "absl/container/inlined_vector.h"
#include "platform/Assert.h"

namespace SrTePolicy {

// Rows keyed by a small index (segment-list slots of one candidate path, 0..15), kept in index
// order in one contiguous block, with a bit per present index beside it: a path has at most 16
// rows, so one block beats a node per row, and the keys cost 4 bytes in all rather than 8 per
// row. The interface is the subset of a map that the entity collection helpers and readers use;
// a member reads as a pair (index, value) made on the fly, so bind it by value or const reference
// (`for (const auto& [index, row] : rows)`). Rows are plain values, so removing one needs no
// keep-alive: `erase(key)` serves the `...Del` setters.
template <class V>
class IndexedRows {
 public:
   using key_type = uint8_t;
   using mapped_type = V;
   using value_type = std::pair<uint8_t, V>;
   static constexpr uint32_t indexLimit = 32; // indexes are below this
   static constexpr const char* indexOutOfRange = "row index below 32";

   template <bool Const>
   class Iter {
      using Owner = std::conditional_t<Const, const IndexedRows, IndexedRows>;

    public:
      using reference = std::pair<uint8_t, std::conditional_t<Const, const V&, V&>>;
      using value_type = std::pair<uint8_t, V>;
      using difference_type = std::ptrdiff_t;
      using iterator_category = std::forward_iterator_tag;
      struct Arrow {
         reference ref;
         const reference* operator->() const noexcept { return &ref; }
      };
      using pointer = Arrow;

      Iter() = default;
      Iter(Owner* rows, uint32_t pos, uint32_t rest) : rows_(rows), pos_(pos), rest_(rest) {}
      // A const iterator from a mutable one.
      template <bool C = Const, class = std::enable_if_t<C>>
      Iter(const Iter<false>& o) : rows_(o.rows_), pos_(o.pos_), rest_(o.rest_) {}

      reference operator*() const noexcept {
         return {static_cast<uint8_t>(std::countr_zero(rest_)), rows_->values_[pos_]};
      }
      Arrow operator->() const noexcept { return Arrow{**this}; }
      Iter& operator++() noexcept {
         rest_ &= rest_ - 1;
         ++pos_;
         return *this;
      }
      Iter operator++(int) noexcept {
         Iter old = *this;
         ++*this;
         return old;
      }
      friend bool operator==(const Iter& a, const Iter& b) noexcept { return a.rest_ == b.rest_; }

    private:
      friend class IndexedRows;
      template <bool>
      friend class Iter;
      Owner* rows_ = nullptr;
      uint32_t pos_ = 0;  // the row's place in the block
      uint32_t rest_ = 0; // the indexes from this row on; the lowest is this row's
   };
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   iterator begin() noexcept { return iterator(this, 0, present_); }
   iterator end() noexcept { return iterator(this, size(), 0); }
   const_iterator begin() const noexcept { return const_iterator(this, 0, present_); }
   const_iterator end() const noexcept { return const_iterator(this, size(), 0); }
   size_t size() const noexcept { return values_.size(); }
   bool empty() const noexcept { return values_.empty(); }

   iterator find(uint8_t k) noexcept {
      if (!has(k)) return end();
      return iterator(this, placeOf(k), present_ & ~below(k));
   }
   const_iterator find(uint8_t k) const noexcept { return const_cast<IndexedRows*>(this)->find(k); }
   bool contains(uint8_t k) const noexcept { return has(k); }

   template <class A>
   std::pair<iterator, bool> try_emplace(uint8_t k, A&& v) {
      SRTE_ASSERT(k < indexLimit, indexOutOfRange);
      if (has(k)) return {find(k), false};
      values_.emplace(values_.begin() + placeOf(k), std::forward<A>(v));
      present_ |= bit(k);
      return {find(k), true};
   }
   iterator erase(const_iterator it) {
      const uint32_t k = std::countr_zero(it.rest_);
      values_.erase(values_.begin() + it.pos_);
      present_ &= ~bit(k);
      return iterator(this, it.pos_, present_ & ~below(k));
   }
   bool erase(uint8_t k) {
      if (!has(k)) return false;
      erase(find(k));
      return true;
   }
   // Removes the row at `it` and hands it over.
   value_type take(const_iterator it) {
      value_type row(static_cast<uint8_t>(std::countr_zero(it.rest_)), values_[it.pos_]);
      erase(it);
      return row;
   }

 private:
   static uint32_t bit(uint32_t k) noexcept { return k < indexLimit ? 1u << k : 0; }
   static uint32_t below(uint32_t k) noexcept { return bit(k) - 1; }
   bool has(uint32_t k) const noexcept { return (present_ & bit(k)) != 0; }
   uint32_t placeOf(uint32_t k) const noexcept { return std::popcount(present_ & below(k)); }

   // Most paths have one or two segment lists: those need no allocation.
   absl::InlinedVector<V, 2> values_;
   uint32_t present_ = 0; // bit k: a row at index k
};

} // namespace SrTePolicy
