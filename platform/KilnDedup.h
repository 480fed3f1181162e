// Kiln's dedup facility: a content-keyed table that interns values. Inserting a candidate returns
// the canonical instance of that content (the candidate itself when the content is new); the
// table's lifetime notifiee hears of every entry that enters (handleInsert, before insert returns)
// and leaves (handleRemove). An entry leaves at the moment only the references held by the table's
// own bookkeeping remain, that is, synchronously inside the release of the last other reference.
// The bookkeeping is a fixed number per entry: the table's own reference plus the ones the notifiee
// declares it keeps (referencesKeptPerEntry). Anything else that holds an entry, a user or a
// reactor that kept it from the insert notification and lets go later, keeps it listed; so an
// entry never leaves while a user holds it, whatever order the holders release in. A removed entry
// never re-enters: the same content inserted later gets a fresh canonical instance.
//
// Checked in debug builds: a listed entry's count never falls below its mark, and an entry is never
// destroyed while listed.
#pragma once

#include <cstdint>

#include "absl/container/flat_hash_set.h"
#include "platform/Mox.h"

namespace Kiln {

class DedupHashTable;

// Base of every deduplicated object: its content decides equality and hash.
class DedupHandle : public Mox::Entity {
 public:
   ~DedupHandle() override;
   virtual bool compare(const DedupHandle& other) const = 0;
   virtual uint32_t hash() const = 0;
   bool isInDedupTable() const noexcept { return table_ != nullptr; }
   // The hash as computed when the entry was last inserted or looked up (canonical entries keep
   // theirs), so containers of canonical entries need not hash their content again.
   uint32_t dedupHash() const noexcept { return cachedHash_; }

 protected:
   void onRefCountWatched() override;

 private:
   friend class DedupHashTable;
   DedupHashTable* table_ = nullptr;
   uint32_t cachedHash_ = 0;
};

class DedupHashTableLifeTimeNotifiee {
 public:
   virtual ~DedupHashTableLifeTimeNotifiee() = default;
   // The references handleInsert keeps on each entry until handleRemove, whatever reactors do.
   virtual uint32_t referencesKeptPerEntry() const noexcept = 0;
   virtual void handleInsert(const Mox::Ptr<DedupHandle>& handle) = 0;
   virtual void handleRemove(DedupHandle* rawHandle) = 0;
   virtual void handleNotificationStop(DedupHashTable& table) = 0;
};

// A content to look for without building a candidate: the hash its entry would have, and a test
// of a listed entry against it.
struct DedupProbe {
   uint32_t hash;
   const void* content;
   bool (*matches)(const void* content, const DedupHandle& entry);
};

class DedupHashTable : public Mox::RefCounted {
 public:
   DedupHashTable() = default;
   ~DedupHashTable() override;

   // The canonical entry equal to `candidate`; inserts the candidate when none is.
   Mox::Ptr<DedupHandle> insert(const Mox::Ptr<DedupHandle>& candidate);
   // The canonical entry equal to `probe`, or null; never inserts. The probe may live on the stack.
   Mox::Ptr<DedupHandle> lookup(const DedupHandle& probe) const;
   // The same by a probe; one lookup, nothing built.
   Mox::Ptr<DedupHandle> lookup(const DedupProbe& probe) const;

   void lifeTimeNotifieeIs(DedupHashTableLifeTimeNotifiee* n) noexcept { notifiee_ = n; }
   DedupHashTableLifeTimeNotifiee* lifeTimeNotifiee() const noexcept { return notifiee_; }
   // Tells the notifiee that no more notifications follow (it withdraws what it still tracks),
   // then lets go of every entry: users keep theirs, but nothing is canonical any more.
   void notificationStop();

   size_t size() const noexcept { return entries_.size(); }
   template <class F>
   void forEach(F&& f) const {
      for (DedupHandle* h : entries_) f(*h);
   }

 private:
   friend class DedupHandle;
   void remove(DedupHandle* h);
   void detachAll();

   struct HashOf {
      using is_transparent = void;
      size_t operator()(const DedupHandle* h) const noexcept {
         return Mox::spreadHash(h->cachedHash_);
      }
      size_t operator()(const DedupProbe& p) const noexcept { return Mox::spreadHash(p.hash); }
   };
   struct SameContent {
      using is_transparent = void;
      bool operator()(const DedupHandle* a, const DedupHandle* b) const {
         return a == b || a->compare(*b);
      }
      bool operator()(const DedupProbe& p, const DedupHandle* h) const {
         return p.matches(p.content, *h);
      }
      bool operator()(const DedupHandle* h, const DedupProbe& p) const {
         return p.matches(p.content, *h);
      }
   };
   // The table holds one reference on each entry (taken by hand: the set keys are raw pointers
   // so that a stack probe can be looked up). Entries are pointers, so nothing moves that a user
   // sees when the table grows.
   absl::flat_hash_set<DedupHandle*, HashOf, SameContent, Mox::BulkAllocator<DedupHandle*>>
       entries_;
   DedupHashTableLifeTimeNotifiee* notifiee_ = nullptr;
};

} // namespace Kiln
