// Mox: the entity framework every part of the policy core is built on.
//
// It owns three ideas and nothing more:
//  - intrusive reference counting (RefCounted, Ptr) with an observable count, so that a dedup table
//    can tell the moment only its own references remain;
//  - entities (Entity) whose attribute setters and keyed-collection mutators notify bound reactors
//    (Notifiee) synchronously, once per changed attribute or key (the order is below);
//  - small text helpers shared by dumps (indentation, printf-style formatting, True/False).
//
// Notification order. Delivery is synchronous and depth-first; nothing is queued by the framework:
//  - a mutator returns only after every reactor bound and active when the change was made has run
//    its handler for it, and after everything those handlers changed in turn has been delivered;
//  - one change reaches the reactors of its entity in the order they were bound;
//  - per entity and per reactor, changes arrive in the order they were made. This holds because an
//    entity is never changed from inside the delivery of one of its own changes (re-entrance):
//    reactors bound after the one that changed it would see the second change before the first.
//    Debug builds abort on it ("Entity changed during its own notification"); a handler that wants
//    the entity it is told about changed queues that work for its task;
//  - across entities the order is depth-first, not the order of the changes: when a handler for
//    change x of entity E changes entity F (y), every reactor of F sees y before the reactors of E
//    bound after that handler see x, and a reactor watching both E and F can see y before x.
//    The order in which a reactor hears of changes to different entities is therefore not the
//    order they were made in, so a machine never infers the state of one entity from the order of
//    another's notifications: its handlers queue keys, and its task reads the current state of
//    everything when it runs.
// Chains run inside the outermost mutator: a configuration handler that re-initialises a machine,
// or a destructor that releases the last user of a canonical segment list, delivers every removal
// it causes (lists leaving their dedup table, their segments after them) before it returns.
//
// Re-initialisation is not a notification of its own. A machine that re-synchronises (the input
// stage on a change of segment-list sharing, see input/SrTePolicyInputSm.h) shows downstream only
// the ordinary removals and insertions it makes, in the order above; a withdrawn canonical item
// never comes back under its old id, so downstream treats a new id as a new item.
//
// Guarantees, each checked by tests/platform/MoxTest.cpp:
//  - a setter given the value it already holds notifies nobody;
//  - `...DelAll` notifies once per removed key, after that key is gone;
//  - a reactor removed (unbound or destroyed) during a dispatch is not called afterwards in that
//    dispatch; a reactor bound during a dispatch is first called by the next notification;
//  - a reactor whose notifications are inactive is not called;
//  - when an entity dies, the reactors bound to it are unbound (their notifier becomes null);
//  - an entity that loses its last reference inside one of its own dispatches lives until the
//    dispatch ends;
//  - a removal may name its key by a reference into the collection itself: reactors get a copy;
//  - a watched reference count calls onRefCountWatched() when it falls to the mark, and the
//    object is still deleted when the count reaches zero.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"
#include "absl/container/inlined_vector.h"
#include "platform/Assert.h"
#include "platform/MoxBulk.h"
#include "platform/MoxChanges.h"

namespace Mox {

// Raised by bounded values; the message names the type and its bounds.
class RangeError : public std::out_of_range {
 public:
   using std::out_of_range::out_of_range;
};

using String = std::string;
using Name = std::string;

// ---------------------------------------------------------------------------------------------
// Reference counting

class RefCounted {
 public:
   RefCounted(const RefCounted&) = delete;
   RefCounted& operator=(const RefCounted&) = delete;

   uint32_t refCount() const noexcept { return refs_; }
   void ref() const noexcept { ++refs_; }
   void unref() const noexcept {
      // One compare on the common path: both events lie at or below the watch mark. The object
      // dies at zero even while a watch mark is set (a table that dropped its own references).
      if (--refs_ <= watchAt_) [[unlikely]] {
         if (refs_ == 0) {
            delete this;
         } else if (refs_ == watchAt_) {
            const_cast<RefCounted*>(this)->onRefCountWatched();
         } else {
            // Between zero and the mark: someone released a reference the watcher counts as its
            // own, so the watcher will never hear that its entry is free.
            debugCheck(false, "reference count fell below its watch mark");
         }
      }
   }

 protected:
   RefCounted() = default;
   virtual ~RefCounted() {
      // A holder still points here: the object was destroyed by hand, not by its last release.
      debugCheck(refs_ == 0, "object destroyed while referenced");
   }
   // Checks that cost nothing in release builds.
   static void debugCheck([[maybe_unused]] bool ok, [[maybe_unused]] const char* text) noexcept {
#ifndef NDEBUG
      if (!ok) refCountCheckFailed(text);
#endif
   }
   [[noreturn]] static void refCountCheckFailed(const char* text) noexcept;
   // When the count falls to `count` (non-zero), onRefCountWatched() runs. A dedup table sets it to
   // the number of references its own bookkeeping holds.
   void refCountWatchIs(uint32_t count) noexcept {
      debugCheck(count <= UINT8_MAX, "watch mark out of range");
      watchAt_ = static_cast<uint8_t>(count);
   }
   virtual void onRefCountWatched() {}

 private:
   mutable uint32_t refs_ = 0;
   // A handful of references at most. One byte leaves the rest of the word to a derived class
   // (an entity keeps its dispatch state there), which saves 8 bytes on every entity.
   uint8_t watchAt_ = 0;
};

template <class T>
class Ptr {
 public:
   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) {
      if (p_) p_->ref();
   }
   Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(const Ptr<U>& o) noexcept : Ptr(o.get()) {}
   ~Ptr() {
      if (p_) p_->unref();
   }
   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }
   T* get() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }
   bool operator!() const noexcept { return p_ == nullptr; }
   friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
   friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
   void reset() noexcept { Ptr().swap(*this); }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

 private:
   T* p_ = nullptr;
};

template <class T, class... A>
Ptr<T> make(A&&... args) {
   return Ptr<T>(new T(std::forward<A>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
   return Ptr<T>(static_cast<T*>(p.get()));
}

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

// ---------------------------------------------------------------------------------------------
// Entities and reactors

class Entity;

// The key of a set member or of a map member.
template <class T>
const T& keyOf(const T& k) {
   return k;
}
template <class K, class V>
const K& keyOf(const std::pair<const K, V>& kv) {
   return kv.first;
}
template <class K, class V>
const K& keyOf(const std::pair<K, V>& kv) {
   return kv.first;
}

// Removes the member at `it` and hands it over: a map's pair, a set's key, or what a table that
// keeps keys inside its members hands over (its `take`, with the key read from the member).
template <class M, class It>
auto takeMember(M& map, It it) {
   if constexpr (requires { map.take(it); }) {
      return map.take(it);
   } else {
      auto keep = std::move(*it);
      map.erase(it);
      return keep;
   }
}

// Base of every reactor. Handlers are virtual members of the entity's own Notifiee class.
class NotifieeBase {
 public:
   NotifieeBase(const NotifieeBase&) = delete;
   NotifieeBase& operator=(const NotifieeBase&) = delete;
   virtual ~NotifieeBase();

   bool isNotificationActive() const noexcept { return active_; }
   void isNotificationActiveIs(bool active) noexcept { active_ = active; }

 protected:
   NotifieeBase() = default;
   void bind(Entity* entity);
   Entity* notifierBase() const noexcept { return notifier_; }
   // Called when the entity this reactor is bound to is destroyed (after unbinding).
   virtual void onNotifierDeleted() {}

 private:
   friend class Entity;
   Entity* notifier_ = nullptr;
   bool active_ = true;
};

template <class E>
class NotifieeOf : public NotifieeBase {
 public:
   E* notifier() const noexcept { return static_cast<E*>(notifierBase()); }
   void notifierIs(E* entity) { bind(entity); }
   // Watching does not change what an entity holds: read-only inputs are watched too.
   void notifierIs(const E* entity) { bind(const_cast<E*>(entity)); }
   void notifierIs(const Ptr<E>& entity) { bind(entity.get()); }
   void notifierIs(std::nullptr_t) { bind(nullptr); }
};

class Entity : public RefCounted {
 public:
   // Number of reactors currently bound (for tests and dumps).
   size_t notifieeCount() const noexcept;

 protected:
   Entity() = default;
   ~Entity() override;

   // Calls `handler(args...)` on every bound, active reactor of type N, in binding order.
   template <class N, class... P, class... A>
   void notify(void (N::*handler)(P...), const A&... args) {
      changeCountInc();
      if (reactors_.empty()) return;
#ifndef NDEBUG
      // Re-entrance would hand the reactors not yet called this change before the earlier one.
      SRTE_ASSERT(dispatchDepth_ == 0, "Entity changed during its own notification");
#endif
      DispatchScope scope(*this);
      auto& items = reactors_;
      for (size_t i = 0, n = items.size(); i < n; ++i) {
         NotifieeBase* r = items[i];
         if (r && r->active_) (static_cast<N*>(r)->*handler)(args...);
      }
   }

   // Attribute setter body: stores and notifies only on change.
   template <class T, class V, class N>
   void attrIs(T& field, V&& value, void (N::*handler)()) {
      if (field == value) return;
      field = std::forward<V>(value);
      notify(handler);
   }

   // Keyed collection bodies. `collIs` inserts or replaces (notifies when the value changed),
   // `collDel` removes one key, `collDelAll` removes every key one at a time.
   template <class M, class K, class V, class N>
   bool collIs(M& map, const K& key, V&& value, void (N::*handler)(const K&)) {
      auto [it, inserted] = map.try_emplace(key, std::forward<V>(value));
      if (!inserted) {
         if (it->second == value) return false;
         it->second = std::forward<V>(value);
      }
      notify(handler, key);
      return true;
   }
   // Create-or-return: the value of `key`, made by `make()` and notified only when it is new. The
   // reference lasts until the collection next changes (values held by pointer outlive that).
   template <class M, class K, class F, class N>
   const typename M::mapped_type& collIsNew(M& map, const K& key, F&& make,
                                            void (N::*handler)(const K&)) {
      auto it = map.find(key);
      if (it != map.end()) return it->second;
      map.try_emplace(key, make());
      // Reactors run before the caller sees the value; none may change this entity meanwhile.
      notify(handler, key);
      return map.find(key)->second;
   }
   template <class S, class K, class N>
   bool setIs(S& set, const K& key, void (N::*handler)(const K&)) {
      if (!set.insert(key).second) return false;
      notify(handler, key);
      return true;
   }
   // The same for a member the caller knows is new (the set's `insertNew`).
   template <class S, class K, class N>
   void setIsNew(S& set, const K& key, void (N::*handler)(const K&)) {
      set.insertNew(key);
      notify(handler, key);
   }
   template <class M, class K, class N>
   bool collDel(M& map, const K& key, void (N::*handler)(const K&)) {
      auto it = map.find(key);
      if (it == map.end()) return false;
      // The member may own the last reference to something the reactors look at: keep it alive
      // until they have seen the removal.
      // The caller's key may live inside the member being erased: notify with the kept copy.
      auto keep = takeMember(map, it);
      notify(handler, keyOf(keep));
      return true;
   }
   template <class M, class K, class N>
   void collDelAll(M& map, void (N::*handler)(const K&)) {
      // The keys are taken first: a flat table's begin() scans from its first slot, so erasing
      // at begin() one member at a time would cost the square of the size. Reactors may add
      // members meanwhile: go round until none is left.
      std::vector<typename M::key_type> keys;
      while (!map.empty()) {
         keys.clear();
         keys.reserve(map.size());
         for (const auto& kv : map) keys.push_back(keyOf(kv));
         for (const auto& k : keys) {
            auto it = map.find(k);
            if (it == map.end()) continue;
            auto keep = takeMember(map, it);
            notify(handler, keyOf(keep));
         }
      }
   }

 private:
   friend class NotifieeBase;
   // Inline: every notification pays for it.
   struct DispatchScope {
      explicit DispatchScope(Entity& e) noexcept : entity(e), guarded(e.refCount() > 0) {
         if (guarded) entity.ref();
         ++entity.dispatchDepth_;
      }
      ~DispatchScope() {
         if (--entity.dispatchDepth_ == 0 && entity.reactorHoles_) [[unlikely]] {
            entity.compactReactors();
         }
         if (guarded) entity.unref();
      }
      Entity& entity;
      bool guarded;
   };
   void attach(NotifieeBase* n);
   void detach(NotifieeBase* n);
   void compactReactors();

   // These two sit in the reference count's word (see RefCounted): an entity is 40 bytes.
   bool reactorHoles_ = false;  // a reactor left during a dispatch: compact when it ends
   uint16_t dispatchDepth_ = 0; // nested deliveries under way
   // Held in the entity itself: most entities have no reactor or one or two (an entity per
   // candidate path watched by a machine or two), which then cost neither an allocation nor a
   // pointer to follow on every notification.
   absl::InlinedVector<NotifieeBase*, 2> reactors_;
};
static_assert(sizeof(void*) != 8 || sizeof(Entity) == 40,
              "an entity's dispatch state shares the reference count's word");

// A reactor that forwards to its owner. A machine's nested reactor classes derive from it and
// override just the handlers they use, each calling one member function of the machine:
//
//   class PolicyInputSm::MoxTask : public Mox::Reactor<Kiln::Task::Notifiee, PolicyInputSm> {
//      using Reactor::Reactor;
//      void onTaskRun() override { owner().handleTaskRun(); }
//   };
//   moxTask_ = std::make_unique<MoxTask>(*this, task_);   // bound at once
//
// It adds one reference and no virtual call of its own: a handler is the Notifiee's virtual.
template <class N, class Owner>
class Reactor : public N {
 public:
   explicit Reactor(Owner& owner) noexcept : owner_(owner) {}
   template <class E>
   Reactor(Owner& owner, E&& notifier) : owner_(owner) {
      this->notifierIs(std::forward<E>(notifier));
   }

 protected:
   Owner& owner() const noexcept { return owner_; }

 private:
   Owner& owner_;
};

// Iterates a collection's keys while the body may insert or remove members: the keys are taken
// first, and a key removed before its turn is skipped.
template <class M, class F>
void forEachKeySafe(M& map, F&& body) {
   std::vector<typename M::key_type> keys;
   keys.reserve(map.size());
   for (const auto& kv : map) keys.push_back(keyOf(kv));
   for (const auto& k : keys) {
      if (map.find(k) != map.end()) body(k);
   }
}

// A collection's keys in key order (hash collections iterate in no useful order): for dumps and
// tables. Keys are copied, so the collection may change while they are walked.
template <class M>
auto sortedKeys(const M& coll) {
   std::vector<std::decay_t<decltype(keyOf(*coll.begin()))>> keys;
   keys.reserve(coll.size());
   for (const auto& member : coll) keys.push_back(keyOf(member));
   std::sort(keys.begin(), keys.end());
   return keys;
}

// A collection's members (key-value pairs, or keys of a set) in key order, by address: valid until
// the collection changes.
template <class M>
auto sortedMembers(const M& coll) {
   static_assert(std::is_lvalue_reference_v<decltype(*coll.begin())>,
                 "members handed out by value: sort their keys instead");
   std::vector<const std::decay_t<decltype(*coll.begin())>*> out;
   out.reserve(coll.size());
   for (const auto& member : coll) out.push_back(&member);
   std::sort(out.begin(), out.end(), [](auto* a, auto* b) { return keyOf(*a) < keyOf(*b); });
   return out;
}

// ---------------------------------------------------------------------------------------------
// Bounded integers: a one-field value whose setter rejects values outside [Min, Max] with the
// type's own message (Derived::rangeMessage).
//
//   struct Weight : Mox::Bounded<Weight, uint32_t, 1, 4294967295u, 1> {
//      using Bounded::Bounded;
//      static constexpr const char* rangeMessage = "Weight::value < ...";
//   };
template <class Derived, class T, T Min, T Max, T Default>
struct Bounded {
   using ValueType = T;
   static constexpr T min = Min;
   static constexpr T max = Max;
   T value = Default;

   constexpr Bounded() noexcept = default;
   explicit Bounded(T v) { valueIs(v); }
   void valueIs(T v) {
      if (v < Min || v > Max) throw RangeError(Derived::rangeMessage);
      value = v;
   }
   // Range-checked conversion from a wider number (text and attribute-log readers).
   static Derived fromWide(uint64_t v) {
      if (v > static_cast<uint64_t>(Max) || v < static_cast<uint64_t>(Min))
         throw RangeError(Derived::rangeMessage);
      return Derived(static_cast<T>(v));
   }
   friend bool operator==(const Bounded& a, const Bounded& b) noexcept {
      return a.value == b.value;
   }
   friend auto operator<=>(const Bounded& a, const Bounded& b) noexcept {
      return a.value <=> b.value;
   }
   uint32_t hash() const noexcept {
      if constexpr (sizeof(T) > 4) {
         return mix32(static_cast<uint32_t>(value) ^ mix32(static_cast<uint32_t>(value >> 32)));
      } else {
         return mix32(static_cast<uint32_t>(value));
      }
   }
};

// ---------------------------------------------------------------------------------------------
// Text helpers

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* fmt, va_list args);
// Appends printf-style text; dumps pass the indentation as the "%*c" prefix: (depth, ' ').
void appendf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
inline const char* trueFalse(bool b) { return b ? "True" : "False"; }

} // namespace Mox
