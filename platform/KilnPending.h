// Kiln::PendingSet: the pending work of a machine whose handlers only queue and whose task drains,
// kept in two flat vectors instead of a node per member.
//
// Guarantees (tests/platform/KilnPendingTest.cpp):
//  - marking is an append when no pass is under way: no lookup, no node, no allocation beyond the
//    vector's growth, so a burst of a million changes costs a million appends;
//  - a drain works in passes. A pass takes every member marked so far, sorted by `Less` with
//    marks of one key merged into one member (`Merge` folds their values), so the order of a pass
//    is a function of what is pending alone, never of the order of the marks;
//  - the pass's cursor is its bookmark: a drain that yields or backs off resumes exactly there;
//  - a key marked during a pass that is still ahead in it is merged into that member (processed
//    once, in this pass); any other key waits for the next pass, so a member processed in a pass is
//    never processed again in it;
//  - `front()` stays valid across marks (they never move the pass), until `pop()` or `clear()`.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/MoxBulk.h"

namespace Kiln {

template <class K, class V, class Less, class Merge>
class PendingSet {
 public:
   struct Member {
      K key;
      V value;
   };

   void mark(const K& key, const V& value) {
      if (cursor_ < pass_.size()) {
         auto it =
             std::lower_bound(pass_.begin() + static_cast<std::ptrdiff_t>(cursor_), pass_.end(),
                              key, [](const Member& m, const K& k) { return Less()(m.key, k); });
         if (it != pass_.end() && !Less()(key, it->key)) {
            Merge()(it->value, value);
            return;
         }
      }
      next_.push_back(Member{key, value});
      // Marks of a few keys repeated while the drain waits (a flapping route during congestion)
      // must not grow without bound: merge them once the waiting marks have doubled.
      if (next_.size() >= 2 * std::max(compactedSize_, kKeptCapacity)) compact();
   }

   bool empty() const noexcept { return cursor_ == pass_.size() && next_.empty(); }
   // Distinct keys pending (the waiting marks are merged first: for dumps and tests).
   size_t size() const {
      compact();
      return pass_.size() - cursor_ + next_.size();
   }
   // At least size(), without merging: a key marked again while waiting counts each time.
   size_t sizeAtMost() const noexcept { return pass_.size() - cursor_ + next_.size(); }
   // Whether `key` is pending, in the rest of the pass or waiting for the next (linear).
   bool contains(const K& key) const {
      auto same = [&key](const Member& m) { return !Less()(m.key, key) && !Less()(key, m.key); };
      return std::any_of(pass_.begin() + static_cast<std::ptrdiff_t>(cursor_), pass_.end(), same) ||
             std::any_of(next_.begin(), next_.end(), same);
   }
   // Resets the value of `key`'s member, if it is pending, to V(): the member stays and is reached
   // as usual, but lets go of what its value held (a handle to an object that is gone).
   void forget(const K& key) {
      auto less = [](const Member& m, const K& k) { return Less()(m.key, k); };
      auto rest = pass_.begin() + static_cast<std::ptrdiff_t>(cursor_);
      auto it = std::lower_bound(rest, pass_.end(), key, less);
      if (it != pass_.end() && !Less()(key, it->key)) it->value = V();
      compact();
      auto w = std::lower_bound(next_.begin(), next_.end(), key, less);
      if (w != next_.end() && !Less()(key, w->key)) w->value = V();
   }
   // Every key pending, in order and each once: for dumps and tables.
   std::vector<K> keys() const {
      compact();
      std::vector<K> out;
      out.reserve(pass_.size() - cursor_ + next_.size());
      auto p = pass_.begin() + static_cast<std::ptrdiff_t>(cursor_);
      auto n = next_.begin();
      const Less less;
      while (p != pass_.end() || n != next_.end()) {
         if (n == next_.end() || (p != pass_.end() && less(p->key, n->key))) {
            out.push_back((p++)->key);
         } else if (p == pass_.end() || less(n->key, p->key)) {
            out.push_back((n++)->key);
         } else {
            out.push_back((p++)->key);
            ++n;
         }
      }
      return out;
   }
   // Whether a pass is under way (begun and not finished).
   bool passUnderWay() const noexcept { return cursor_ < pass_.size(); }
   // The member the drain is at: the pass's next one, a new pass begun when none is under way;
   // null when nothing is pending.
   Member* front() {
      if (cursor_ == pass_.size()) {
         if (next_.empty()) return nullptr;
         beginPass();
      }
      return &pass_[cursor_];
   }
   // The member `n` places past front() in the pass under way, null past its end: what the drain
   // will reach soon, for fetching its data ahead.
   const Member* ahead(size_t n) const noexcept {
      return cursor_ + n < pass_.size() ? &pass_[cursor_ + n] : nullptr;
   }
   // Where the pass under way resumes; null when no pass is under way.
   const K* bookmark() const noexcept { return passUnderWay() ? &pass_[cursor_].key : nullptr; }
   // The front member is done.
   void pop() {
      ++cursor_;
      if (cursor_ == pass_.size()) endPass();
   }
   void clear() noexcept {
      next_.clear();
      compactedSize_ = 0;
      endPass();
   }

 private:
   // Sorts the waiting marks and merges those of one key. The prefix compacted last time is
   // already sorted and merged, so only the marks since are sorted, then merged into it: a burst of
   // N marks compacted at each doubling costs about one sort of N, not log N of them.
   void compact() const {
      if (next_.size() < 2) return;
      auto less = [](const Member& a, const Member& b) { return Less()(a.key, b.key); };
      auto mid = next_.begin() + static_cast<std::ptrdiff_t>(compactedSize_);
      std::sort(mid, next_.end(), less);
      if (compactedSize_ > 0) std::inplace_merge(next_.begin(), mid, next_.end(), less);
      size_t out = 0;
      for (size_t i = 1; i < next_.size(); ++i) {
         if (Less()(next_[out].key, next_[i].key)) {
            if (++out != i) next_[out] = std::move(next_[i]);
         } else {
            Merge()(next_[out].value, next_[i].value);
         }
      }
      next_.erase(next_.begin() + static_cast<std::ptrdiff_t>(out + 1), next_.end());
      compactedSize_ = next_.size();
   }
   void beginPass() {
      compact();
      pass_.swap(next_);
      next_.clear();
      compactedSize_ = 0;
      cursor_ = 0;
   }
   void endPass() noexcept {
      cursor_ = 0;
      // A big pass gives its memory back; a small one keeps it for the next.
      if (pass_.capacity() > kKeptCapacity) {
         Members().swap(pass_);
      } else {
         pass_.clear();
      }
   }

   static constexpr size_t kKeptCapacity = 1024;
   // A burst of a million marks is tens of megabytes: bulk memory, on large pages.
   using Members = std::vector<Member, Mox::BulkAllocator<Member>>;
   mutable Members next_; // marks waiting for the next pass, unsorted until compacted
   Members pass_;         // the pass under way, sorted, drained from cursor_
   size_t cursor_ = 0;
   mutable size_t compactedSize_ = 0; // next_'s size after its last compaction
};

// Merges for the usual values: a flag raised by any mark, or no value at all.
struct MergeOr {
   void operator()(bool& into, bool v) const noexcept { into = into || v; }
};
struct NoValue {
   friend bool operator==(NoValue, NoValue) = default;
};
struct MergeNothing {
   void operator()(NoValue&, NoValue) const noexcept {}
};

} // namespace Kiln
