// The policy input tables: candidate paths as their sources write them. One PolicyInput table per
// source protocol holds PolicyInputEntry records keyed by PolicyId; PolicyInputSource is the
// directory of those tables.
//
// PolicyInputEntry is a byte-exact record shared between processes (host byte order, no gaps):
//
//    offset  size     field
//         0    32     key (PolicyId)
//        32    24     originator
//        56     4     preference
//        60     4     bindingSid (1048576: none)
//        64     4     number of segment lists, 0..16
//        68  44 × 16  segmentList slots; only the first n are meaningful
//
// Serialized, it is the first 68 bytes followed by the n used slots (68 + 44 × n bytes).
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/Vault.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class PolicyInputEntry {
 public:
   static constexpr uint32_t segmentListCapacity = 16;
   static constexpr size_t fixedLen = 64;  // key, originator, preference, bindingSid
   static constexpr size_t headerLen = 68; // ... and the count
   static constexpr size_t slotLen = 44;
   static constexpr size_t maxLen = 772; // a full record, serialized or in memory
   // The text of the parser's refusal: a record has a collection and cannot be read from text.
   static constexpr const char* noStringConstructorText =
       "!\"No String constructor for PolicyInputEntry - has collection\"";

   PolicyInputEntry() = default;
   // A record for `id`: AS 0 at the unspecified address, preference 100, no binding SID, no
   // segment list.
   explicit PolicyInputEntry(const PolicyId& id) : key_(id) {}

   const PolicyId& key() const noexcept { return key_; }
   const Originator& originator() const noexcept { return originator_; }
   void originatorIs(const Originator& o) noexcept { originator_ = o; }
   Preference preference() const noexcept { return preference_; }
   void preferenceIs(Preference p) noexcept { preference_ = p; }
   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }
   void bindingSidIs(Ipkit::MplsLabel l) noexcept { bindingSid_ = l; }

   uint32_t segmentListCount() const noexcept { return segmentListCount_; }
   const WeightedSegList& segmentList(SegmentListIndex i) const noexcept {
      return segmentList_[i.value];
   }
   // Stores slot `i`; at or beyond the count, the count becomes i + 1 (skipped slots keep what
   // they held).
   void segmentListIs(SegmentListIndex i, const WeightedSegList& wsl) noexcept;
   // Removes slot `i`; the later slots move down so that slots 0..n-1 stay the used ones.
   void segmentListDel(SegmentListIndex i) noexcept;
   // Clears the slots one at a time from the first; a count beyond the capacity (a corrupt
   // record) raises the SegmentListIndex range error when the slot index passes 15.
   void segmentListDelAll();

   // A record whose count fits its capacity.
   bool isValidRecord() const noexcept { return segmentListCount_ <= segmentListCapacity; }
   // Copies the header and the used slots into `to` (at most the capacity; its other slots keep
   // what they held): a reader's copy reads the bytes that mean something and no more.
   void copyUsedTo(PolicyInputEntry& to) const noexcept;

   size_t serializeLen() const noexcept { return headerLen + slotLen * segmentListCount_; }
   // Writes serializeLen() bytes; returns that length, or 0 when `len` is too small or the record
   // is not valid.
   size_t serialize(void* buffer, size_t len) const noexcept;
   // The in-memory size to fill from `buffer` (maxLen), or 0 when the buffer is not a valid
   // record: too short for its count, or a count of 17 or more.
   static size_t deserializeLen(const void* buffer, size_t len) noexcept;
   // Fills this record from `buffer`; false (and nothing changed) when deserializeLen() is 0.
   bool deserialize(const void* buffer, size_t len) noexcept;

   friend bool operator==(const PolicyInputEntry& a, const PolicyInputEntry& b) noexcept;

   // Value('SrTePolicy::PolicyInputEntry', ** {'key': ..., 'originator': ..., 'preference': ...,
   // 'bindingSid': ..., 'segmentList': [...]}); also the text form.
   static constexpr const char* strepName = "SrTePolicy::PolicyInputEntry";
   std::string valueToStrep() const;
   std::string stringValue() const { return valueToStrep(); }
   // Always throws std::logic_error(noStringConstructorText).
   [[noreturn]] static PolicyInputEntry fromStrep(std::string_view text);
   void dump(std::string& out, int depth) const;

 private:
   static void checkLayout() noexcept;

   PolicyId key_;
   Originator originator_;
   Preference preference_;
   Ipkit::MplsLabel bindingSid_;
   uint32_t segmentListCount_ = 0;
   WeightedSegList segmentList_[segmentListCapacity];
};
static_assert(sizeof(PolicyInputEntry) == PolicyInputEntry::maxLen);
static_assert(std::is_trivially_copyable_v<PolicyInputEntry>);
static_assert(std::is_standard_layout_v<PolicyInputEntry>);
std::ostream& operator<<(std::ostream& os, const PolicyInputEntry& e);

// One source protocol's input table. The writer process fills it; every reader's reactors hear of
// each changed key.
class PolicyInput : public Mox::Entity, private Vault::TableObserver<PolicyId> {
 public:
   using EntryTable = Vault::Table<PolicyId, PolicyInputEntry, PolicyInputEntry::maxLen>;

   class Notifiee : public Mox::NotifieeOf<PolicyInput> {
    public:
      virtual void onPolicyInputEntry(const PolicyId&) {}
      // The whole table changed (mounted or remounted): re-read everything.
      virtual void onPolicyInputEntry() {}
      virtual void onMountStatus() {}
   };

   explicit PolicyInput(const Mox::Name& name);
   const Mox::Name& name() const noexcept { return name_; }

   // ---- writer side
   // Inserts or replaces the record under entry.key(); notifies even when nothing changed, as a
   // commit of the writer.
   void policyInputEntryIs(const PolicyInputEntry& entry) { table_.insert(entry); }
   // The table's own record under `id` (created with defaults if absent), for filling in place;
   // readers hear of it at policyInputEntryCommit.
   PolicyInputEntry& policyInputEntryWritable(const PolicyId& id) { return table_.writable(id); }
   // Throws Vault::Corruption when `entry` is not the table's record under its key or is corrupt.
   void policyInputEntryCommit(const PolicyInputEntry& entry) { table_.commit(entry); }
   bool policyInputEntryDel(const PolicyId& id) { return table_.erase(id); }
   void policyInputEntryDelAll() { table_.clear(); }

   // ---- reader side
   std::optional<PolicyInputEntry> policyInputEntry(const PolicyId& id) const {
      return table_.lookup(id);
   }
   // No copy: valid until the next change of the table.
   const PolicyInputEntry* policyInputEntryFind(const PolicyId& id) const {
      return table_.find(id);
   }
   // Brings the index slot of `id` towards the cache, for a reader about to look it up.
   void policyInputEntryPrefetch(const PolicyId& id) const { table_.prefetch(id); }
   // Iteration (hash order): for (const PolicyInputEntry& e : input->policyInputEntry()).
   const EntryTable& policyInputEntry() const noexcept { return table_; }
   // Every record's id, without reading the records.
   template <class F>
   void policyInputEntryForEachId(F&& visit) const {
      table_.forEachKey(visit);
   }
   size_t policyInputEntryCount() const noexcept { return table_.size(); }

   Vault::MountStatus mountStatus() const noexcept { return table_.mountStatus(); }
   void mountStatusIs(Vault::MountStatus s) { table_.mountStatusIs(s); }

   // "policyInputEntries #n", each record in PolicyId order, then an empty line.
   void dump(std::string& out, int depth) const;

 private:
   void onRecord(const PolicyId& id) override;
   void onRecords() override;
   void onMountStatus() override;

   Mox::Name name_;
   EntryTable table_;
};

Mox::Ptr<PolicyInput> policyInputFactory(const Mox::Name& name);

// The input table of each source protocol.
class PolicyInputSource : public Mox::Entity {
 public:
   using PolicyInputMap = Mox::HashMap2018<Protocol, Mox::Ptr<PolicyInput>>;

   class Notifiee : public Mox::NotifieeOf<PolicyInputSource> {
    public:
      virtual void onPolicyInput(const Protocol&) {}
      virtual void onPolicyInput() {}
   };

   explicit PolicyInputSource(const Mox::Name& name) : name_(name) {}
   const Mox::Name& name() const noexcept { return name_; }

   void policyInputIs(Protocol protocol, const Mox::Ptr<PolicyInput>& table) {
      collIs(policyInput_, protocol, table, &Notifiee::onPolicyInput);
   }
   void policyInputDel(Protocol protocol) {
      collDel(policyInput_, protocol, &Notifiee::onPolicyInput);
   }
   void policyInputDelAll() { collDelAll(policyInput_, &Notifiee::onPolicyInput); }
   Mox::Ptr<PolicyInput> policyInput(Protocol protocol) const;
   const PolicyInputMap& policyInput() const noexcept { return policyInput_; }
   size_t policyInputCount() const noexcept { return policyInput_.size(); }

   // "policyInput #n", then per protocol (ascending) its name and its table one level deeper.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   PolicyInputMap policyInput_;
};

Mox::Ptr<PolicyInputSource> policyInputSourceFactory(const Mox::Name& name);

} // namespace SrTePolicy
