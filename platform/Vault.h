// Vault: keyed tables of fixed-maximum-size records shared between a writer process and reader
// processes. In this process a Table keeps the records; the writer side inserts, replaces, fills in
// place and commits, and deletes; the reader side looks up, copies and iterates; one observer (the
// entity that exposes the table) hears of every change per key, of whole-table changes (mount,
// remount) and of mount-status changes.
//
// Guarantees (tests/types/SrTePolicyInputTest.cpp exercises them through PolicyInput):
//  - every insert, replace, commit and delete notifies the observer once for its key, after the
//    change; `clear` removes and notifies one key at a time;
//  - a record fetched for in-place writing (`writable`) is told to the observer only when it is
//    committed; a commit of something that is not the table's record under its own key, or of a
//    record that fails its own validity check, is corruption: Vault::Corruption is thrown, which
//    the writer process treats as fatal;
//  - records are plain, trivially copyable values no larger than MaxRecordSize, so a reader's copy
//    is a word copy and no record owns heap memory. An insert costs one hash-map insert;
//  - a record stays where it is while it is in the table (the index holds it by pointer), and a
//    reader can `prefetch` a key's index slot before it looks it up.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Mox.h"
#include "platform/MoxChanges.h"
#include "platform/MoxSlab.h"

namespace Vault {

enum class MountStatus : uint8_t { unmounted = 0, mounted = 1 };
inline const char* mountStatusName(MountStatus s) {
   return s == MountStatus::mounted ? "mounted" : "unmounted";
}

// Raised by a shared table whose memory no longer makes sense; the writer logs it and calls the
// table's corruption handler.
class Corruption : public std::logic_error {
 public:
   using std::logic_error::logic_error;
};

// What the entity exposing a table implements to hear of its changes.
template <class K>
class TableObserver {
 public:
   virtual void onRecord(const K& key) = 0;
   virtual void onRecords() = 0;
   virtual void onMountStatus() = 0;

 protected:
   ~TableObserver() = default;
};

template <class R, class K>
concept KeyedRecord = std::is_trivially_copyable_v<R> && requires(const R& r) {
   { r.key() } -> std::convertible_to<const K&>;
};

// A record may say whether it is sane (a count within its capacity, ...); commits check it.
template <class R>
concept SelfChecking = requires(const R& r) {
   { r.isValidRecord() } -> std::convertible_to<bool>;
};

template <class K, class R, size_t MaxRecordSize = sizeof(R)>
requires KeyedRecord<R, K>
class Table {
   static_assert(sizeof(R) <= MaxRecordSize, "record larger than the table's record size");
   // The key sits in the flat index and the record apart: a lookup reads one slot of the index
   // and never the record, so a reader walking a million keys can fetch ahead what it will need.
   // Both sit in bulk memory (records in a slab of the table's own), as they would in the
   // shared-memory segment of a table written by another process.
   using Map = Mox::HashMap2018<K, R*>;

 public:
   static constexpr size_t recordSizeMax = MaxRecordSize;

   // The names under which the writer's operations are registered with the table service.
   struct WriterOps {
      const char* is;
      const char* del;
      const char* notify;
   };

   class const_iterator {
    public:
      using value_type = R;
      using difference_type = std::ptrdiff_t;
      const_iterator() = default;
      explicit const_iterator(typename Map::const_iterator it) : it_(it) {}
      const R& operator*() const { return *it_->second; }
      const R* operator->() const { return it_->second; }
      const_iterator& operator++() {
         ++it_;
         return *this;
      }
      const_iterator operator++(int) { return const_iterator(it_++); }
      friend bool operator==(const const_iterator&, const const_iterator&) = default;

    private:
      typename Map::const_iterator it_;
   };

   Table(std::string name, WriterOps ops) : name_(std::move(name)), ops_(ops) {}
   Table(const Table&) = delete;
   Table& operator=(const Table&) = delete;
   ~Table() {
      for (const auto& [key, record] : map_) freeRecord(record);
   }

   const std::string& name() const noexcept { return name_; }
   const WriterOps& writerOps() const noexcept { return ops_; }
   void observerIs(TableObserver<K>* o) noexcept { observer_ = o; }

   MountStatus mountStatus() const noexcept { return mountStatus_; }
   // A (re)mount changes what readers see as a whole: they hear of the status, then of the table.
   void mountStatusIs(MountStatus s) {
      if (s == mountStatus_) return;
      mountStatus_ = s;
      Mox::changeCountInc();
      if (observer_) observer_->onMountStatus();
      if (observer_ && s == MountStatus::mounted) observer_->onRecords();
   }

   // ---- reader side
   size_t size() const noexcept { return map_.size(); }
   bool empty() const noexcept { return map_.empty(); }
   // The record in the table; valid while it stays there (other keys coming and going do not
   // move it), not across its own erase.
   const R* find(const K& key) const {
      auto it = map_.find(key);
      return it == map_.end() ? nullptr : it->second;
   }
   std::optional<R> lookup(const K& key) const {
      auto it = map_.find(key);
      if (it == map_.end()) return std::nullopt;
      return *it->second;
   }
   // Brings the index slot of `key` towards the cache (an address, not a read).
   void prefetch(const K& key) const { map_.prefetch(key); }
   // Calls `visit(key)` for every record, reading the index only (not the records).
   template <class F>
   void forEachKey(F&& visit) const {
      for (const auto& [key, record] : map_) visit(key);
   }
   const_iterator begin() const { return const_iterator(map_.begin()); }
   const_iterator end() const { return const_iterator(map_.end()); }

   // ---- writer side
   void insert(const R& record) {
      const K& key = record.key();
      auto [held, made] = findOrMake(key, [&] { return record; });
      if (!made) *held = record;
      Mox::changeCountInc();
      if (observer_) observer_->onRecord(key);
   }
   // The record under `key` for filling in place, made from `key` if absent; readers hear of it
   // at `commit`.
   R& writable(const K& key) {
      Mox::changeCountInc(); // the caller writes through the reference
      return *findOrMake(key, [&] { return R(key); }).first;
   }
   void commit(const R& record) {
      auto it = map_.find(record.key());
      if (it == map_.end() || it->second != &record) {
         throw Corruption("Vault table " + name_ + ": commit of a record not held under its key");
      }
      if constexpr (SelfChecking<R>) {
         if (!record.isValidRecord()) {
            throw Corruption("Vault table " + name_ + ": commit of a corrupt record");
         }
      }
      Mox::changeCountInc();
      if (observer_) observer_->onRecord(it->first);
   }
   bool erase(const K& key) {
      auto it = map_.find(key);
      if (it == map_.end()) return false;
      K removed = it->first;
      freeRecord(it->second);
      map_.erase(it);
      Mox::changeCountInc();
      if (observer_) observer_->onRecord(removed);
      return true;
   }
   void clear() {
      // The keys first: an observer may read the table between two removals.
      std::vector<K> keys;
      keys.reserve(map_.size());
      for (const auto& [key, record] : map_) keys.push_back(key);
      for (const K& key : keys) erase(key);
   }

 private:
   // The record under `key`, and whether `make()` just made it: one probe of the index.
   template <class Make>
   std::pair<R*, bool> findOrMake(const K& key, Make&& make) {
      auto [it, inserted] = map_.try_emplace(key, nullptr);
      if (inserted) {
         try {
            it->second = newRecord(make());
         } catch (...) {
            map_.erase(it);
            throw;
         }
      }
      return {it->second, inserted};
   }

#if MOX_SLAB_ENABLED
   R* newRecord(const R& r) { return new (records_.take()) R(r); }
   void freeRecord(R* r) noexcept { records_.give(r); } // records are trivially destructible
#else
   // Under the address sanitizer each record is its own heap block, so overflows are caught.
   R* newRecord(const R& r) { return new R(r); }
   void freeRecord(R* r) noexcept { delete r; }
#endif

   std::string name_;
   WriterOps ops_;
   TableObserver<K>* observer_ = nullptr;
   MountStatus mountStatus_ = MountStatus::mounted;
#if MOX_SLAB_ENABLED
   Mox::Slab records_{sizeof(R), alignof(R), 64};
#endif
   Map map_;
};

} // namespace Vault
