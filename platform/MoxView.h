// A read-only view of a collection that hands out, for each member, what a stateless `Get` makes
// of it: the members' keys, for a set that holds its members through pointers to where their keys
// live (a path through its selection-input entry). Iteration follows the collection's order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Mox {

template <class C, class Get>
class MappedView {
   using Inner = typename C::const_iterator;

 public:
   using reference = decltype(std::declval<Get>()(*std::declval<Inner>()));
   using value_type = std::remove_cvref_t<reference>;

   class const_iterator {
    public:
      using value_type = MappedView::value_type;
      using reference = MappedView::reference;
      using difference_type = std::ptrdiff_t;
      using iterator_category = std::forward_iterator_tag;
      const_iterator() = default;
      explicit const_iterator(Inner it) : it_(it) {}
      reference operator*() const { return Get()(*it_); }
      const_iterator& operator++() {
         ++it_;
         return *this;
      }
      const_iterator operator++(int) {
         auto old = *this;
         ++it_;
         return old;
      }
      friend bool operator==(const const_iterator&, const const_iterator&) = default;

    private:
      Inner it_;
   };

   explicit MappedView(const C& c) noexcept : c_(&c) {}
   const_iterator begin() const { return const_iterator(c_->begin()); }
   const_iterator end() const { return const_iterator(c_->end()); }
   size_t size() const noexcept { return c_->size(); }
   bool empty() const noexcept { return c_->empty(); }
   // A scan of the members.
   size_t count(const value_type& v) const { return std::find(begin(), end(), v) != end() ? 1 : 0; }

 private:
   const C* c_;
};

} // namespace Mox
