#include "platform/KilnDedup.h"

namespace Kiln {

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
   const uint32_t userRefs = candidate->refCount();
   candidate->ref();
   candidate->table_ = this;
   entries_.insert(candidate.get());
   if (notifiee_) notifiee_->handleInsert(candidate);
   // From now on the entry leaves when only the table's and the notifiee's references remain.
   candidate->refCountWatchIs(candidate->refCount() - userRefs);
   return candidate;
}

Mox::Ptr<DedupHandle> DedupHashTable::lookup(const DedupHandle& probe) const {
   auto& p = const_cast<DedupHandle&>(probe);
   p.cachedHash_ = p.hash();
   auto it = entries_.find(&p);
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
