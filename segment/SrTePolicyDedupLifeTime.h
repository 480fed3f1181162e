// The lifetime bookkeeping shared by the segment and the segment-list dedup tables: when a
// canonical item enters its table it gets the next identifier of its notifying collection and a
// lifetime notifier, which is inserted into the collection (reactors see a new item); when it
// leaves, the notifier is removed again (reactors see it go) and the item forgets it.
//
// Traits supplies the two sides' own names:
//   Item, Notifier, Collection, Id;
//   static Item* item(Kiln::DedupHandle*);
//   static Notifier* notifierOf(const Item&);  static void notifierIs(Item&, Mox::Ptr<Notifier>);
//   static void idIs(Item&, Id);
//   static Id nextId(Collection&, const Item&);   (the id a new canonical item gets)
//   static const char* insertAssert, *removeAssert;
#pragma once

#include <string>
#include <vector>

#include "platform/Assert.h"
#include "platform/KilnDedup.h"
#include "platform/Trace.h"

namespace SrTePolicy {

// The notifying collection of one kind of canonical item: the lifetime notifiers of the items in
// the table, and the counter their identifiers come from. Each kind names its own handler
// (onSegmentNotifier, onSegmentListNotifier) in its Notifiee and hands it over as
// `Derived::onNotifier`; its accessors under its own names forward to the members here.
template <class Derived, class NotifierT, class IdT>
class NotifyingCollectionOf : public Mox::Entity {
 public:
   using NotifierSet = Mox::HashSet<Mox::Ptr<NotifierT>>;

   const NotifierSet& members() const noexcept { return member_; }
   bool memberHas(const Mox::Ptr<NotifierT>& n) const { return member_.count(n) != 0; }
   void memberIs(const Mox::Ptr<NotifierT>& n) { setIs(member_, n, Derived::onNotifier); }
   void memberDel(const Mox::Ptr<NotifierT>& n) { collDel(member_, n, Derived::onNotifier); }
   void memberDelAll() { collDelAll(member_, Derived::onNotifier); }

   IdT uniqueId() const noexcept { return uniqueId_; }
   IdT uniqueIdInc(uint32_t by) {
      attrIs(uniqueId_, IdT(uniqueId_.value + by), &Derived::Notifiee::onUniqueId);
      return uniqueId_;
   }
   void uniqueIdIs(IdT id) { attrIs(uniqueId_, id, &Derived::Notifiee::onUniqueId); }

   // "<name>: uniqueIds:%d\n"
   void dump(std::string& out, int depth) const {
      Mox::appendf(out, "%*c%s: uniqueIds:%d\n", depth, ' ', Derived::dumpName,
                   static_cast<int>(uniqueId_.value));
   }

 private:
   NotifierSet member_;
   IdT uniqueId_;
};

template <class Traits>
class DedupLifeTimeNotifiee : public Kiln::DedupHashTableLifeTimeNotifiee {
 public:
   using Item = typename Traits::Item;
   using Notifier = typename Traits::Notifier;
   using Collection = typename Traits::Collection;

   explicit DedupLifeTimeNotifiee(Mox::Ptr<Collection> collection)
       : collection_(std::move(collection)) {}

   Collection* collection() const noexcept { return collection_.get(); }

   // The lifetime notifier's handle.
   uint32_t referencesKeptPerEntry() const noexcept override { return 1; }

   void handleInsert(const Mox::Ptr<Kiln::DedupHandle>& handle) override {
      SRTE_TRACE(8, "handleInsert");
      Item* item = Traits::item(handle.get());
      SRTE_ASSERT(nullptr == Traits::notifierOf(*item), Traits::insertAssert);
      Traits::idIs(*item, Traits::nextId(*collection_, *item));
      auto notifier = Mox::make<Notifier>(handle);
      Traits::notifierIs(*item, notifier);
      collection_->memberIs(notifier);
   }

   void handleRemove(Kiln::DedupHandle* rawHandle) override {
      SRTE_TRACE(8, "handleRemove");
      Item* item = Traits::item(rawHandle);
      Mox::Ptr<Notifier> notifier(Traits::notifierOf(*item));
      SRTE_ASSERT(nullptr != notifier, Traits::removeAssert);
      collection_->memberDel(notifier);
      Traits::notifierIs(*item, nullptr);
   }

   void handleNotificationStop(Kiln::DedupHashTable&) override {
      std::vector<Mox::Ptr<Notifier>> left;
      for (const auto& n : collection_->members()) left.push_back(n);
      for (const auto& n : left) {
         if (collection_->members().count(n)) handleRemove(n->handle().get());
      }
   }

 private:
   Mox::Ptr<Collection> collection_;
};

// A dedup table of one kind of item: the framework's hash table with the kind's lifetime
// notifiee registered on it. Dropping it stops notifications, which withdraws every item still in
// the table with the usual notifications.
template <class Notifiee, class Item>
class DedupTableOf : public Mox::RefCounted {
 public:
   DedupTableOf(Notifiee* lifeTimeNotifiee, Mox::Ptr<Kiln::DedupHashTable> dedupTable)
       : lifeTimeNotifiee_(lifeTimeNotifiee), dedupTable_(std::move(dedupTable)) {
      dedupTable_->lifeTimeNotifieeIs(lifeTimeNotifiee_);
   }
   ~DedupTableOf() override {
      dedupTable_->notificationStop();
      dedupTable_->lifeTimeNotifieeIs(nullptr);
   }

   Notifiee* lifeTimeNotifiee() const noexcept { return lifeTimeNotifiee_; }
   Kiln::DedupHashTable& dedupTable() const noexcept { return *dedupTable_; }
   // The canonical item equal to `probe`, or null; never inserts.
   Mox::Ptr<Item> lookup(const Item& probe) const {
      auto found = dedupTable_->lookup(probe);
      return Mox::Ptr<Item>(static_cast<Item*>(found.get()));
   }

 private:
   Notifiee* lifeTimeNotifiee_;
   Mox::Ptr<Kiln::DedupHashTable> dedupTable_;
};

// A lifetime notifier: the reference that ties a canonical item to its notifying collection.
template <class Item>
class DedupLifeTimeNotifier : public Mox::RefCounted {
 public:
   explicit DedupLifeTimeNotifier(Mox::Ptr<Kiln::DedupHandle> handle)
       : handle_(std::move(handle)) {}
   const Mox::Ptr<Kiln::DedupHandle>& handle() const noexcept { return handle_; }

 protected:
   Item* rawPtr() const noexcept { return static_cast<Item*>(handle_.get()); }

 private:
   const Mox::Ptr<Kiln::DedupHandle> handle_;
};

} // namespace SrTePolicy
