// Mox entities: entities (Entity) whose attribute setters and keyed-collection mutators notify
// bound reactors (Notifiee) synchronously, once per changed attribute or key (the order is
// below), and the reactors that forward to a machine (Reactor).
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
//  - a removal may name its key by a reference into the collection itself: reactors get a copy.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "absl/container/inlined_vector.h"
#include "platform/Assert.h"
#include "platform/MoxChanges.h"
#include "platform/MoxRefCount.h"

namespace Mox {

using String = std::string;
using Name = std::string;

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

} // namespace Mox
