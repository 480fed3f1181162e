#include "platform/KilnDedup.h"

namespace Kiln {

DedupHandle::~DedupHandle() {
   // The table's own reference keeps a listed entry alive.
   debugCheck(table_ == nullptr, "dedup entry destroyed while in its table");
}

void DedupHandle::onRefCountWatched() {
   if (table_) table_->remove(this);
}

DedupHashTable::~DedupHashTable() { detachAll(); }

void DedupHashTable::detachAll() {
   for (DedupHandle* h : entries_) {
      h->table_ = nullptr;
      h->refCountWatchIs(0);
   }
   auto entries = std::move(entries_);
   for (DedupHandle* h : entries) h->unref();
}

Mox::Ptr<DedupHandle> DedupHashTable::insert(const Mox::Ptr<DedupHandle>& candidate) {
   candidate->cachedHash_ = candidate->hash();
   auto it = entries_.find(candidate.get());
   if (it != entries_.end()) return Mox::Ptr<DedupHandle>(*it);
   candidate->ref();
   candidate->table_ = this;
   entries_.insert(candidate.get());
   if (notifiee_) notifiee_->handleInsert(candidate);
   // The mark is what the bookkeeping holds, not the count seen now: a reactor may have kept a
   // reference from the insert notification, and that one must not pass for the table's. The
   // mark is set only now so that a reactor's passing reference inside handleInsert cannot fire
   // it before the notifier exists.
   const uint32_t mark = 1 + (notifiee_ ? notifiee_->referencesKeptPerEntry() : 0);
   debugCheck(candidate->refCount() > mark, "new dedup entry held by no user");
   candidate->refCountWatchIs(mark);
   return candidate;
}

Mox::Ptr<DedupHandle> DedupHashTable::lookup(const DedupHandle& probe) const {
   auto& p = const_cast<DedupHandle&>(probe);
   p.cachedHash_ = p.hash();
   auto it = entries_.find(&p);
   if (it == entries_.end()) return nullptr;
   return Mox::Ptr<DedupHandle>(*it);
}

Mox::Ptr<DedupHandle> DedupHashTable::lookup(const DedupProbe& probe) const {
   auto it = entries_.find(probe);
   if (it == entries_.end()) return nullptr;
   return Mox::Ptr<DedupHandle>(*it);
}

void DedupHashTable::remove(DedupHandle* h) {
   // Keep the entry alive until its removal is complete; it dies here if nothing else holds it.
   Mox::Ptr<DedupHandle> guard(h);
   h->refCountWatchIs(0);
   h->table_ = nullptr;
   entries_.erase(h);
   h->unref(); // the table's own reference
   if (notifiee_) notifiee_->handleRemove(h);
}

void DedupHashTable::notificationStop() {
   // Entries no longer leave on their own: the notifiee withdraws them all now.
   for (DedupHandle* h : entries_) h->refCountWatchIs(0);
   if (notifiee_) notifiee_->handleNotificationStop(*this);
   detachAll();
}

} // namespace Kiln
