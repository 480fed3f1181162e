#include "types/SrTePolicyInput.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace SrTePolicy {

// ---- PolicyInputEntry

void PolicyInputEntry::checkLayout() noexcept {
   // The record is a format shared between processes: pin every field to its offset.
   static_assert(offsetof(PolicyInputEntry, key_) == 0);
   static_assert(offsetof(PolicyInputEntry, originator_) == 32);
   static_assert(offsetof(PolicyInputEntry, preference_) == 56);
   static_assert(offsetof(PolicyInputEntry, bindingSid_) == 60);
   static_assert(offsetof(PolicyInputEntry, segmentListCount_) == fixedLen);
   static_assert(offsetof(PolicyInputEntry, segmentList_) == headerLen);
   static_assert(sizeof(key_) == 32 && sizeof(originator_) == 24 && sizeof(preference_) == 4 &&
                 sizeof(bindingSid_) == 4 && sizeof(segmentListCount_) == 4);
   static_assert(sizeof(WeightedSegList) == slotLen);
   static_assert(headerLen + slotLen * segmentListCapacity == maxLen);
}

void PolicyInputEntry::segmentListIs(SegmentListIndex i, const WeightedSegList& wsl) noexcept {
   segmentList_[i.value] = wsl;
   if (i.value >= segmentListCount_) segmentListCount_ = i.value + 1;
}

void PolicyInputEntry::segmentListDel(SegmentListIndex i) noexcept {
   uint32_t n = std::min(segmentListCount_, segmentListCapacity);
   if (i.value >= n) return;
   for (uint32_t s = i.value; s + 1 < n; ++s) segmentList_[s] = segmentList_[s + 1];
   segmentList_[n - 1] = WeightedSegList();
   segmentListCount_ = n - 1;
}

void PolicyInputEntry::segmentListDelAll() {
   for (uint32_t s = 0; s < segmentListCount_; ++s) {
      segmentList_[SegmentListIndex(s).value] = WeightedSegList();
   }
   segmentListCount_ = 0;
}

size_t PolicyInputEntry::serialize(void* buffer, size_t len) const noexcept {
   if (!isValidRecord() || len < serializeLen()) return 0;
   // In-memory and serialized layouts agree up to the last used slot.
   std::memcpy(buffer, static_cast<const void*>(this), serializeLen());
   return serializeLen();
}

size_t PolicyInputEntry::deserializeLen(const void* buffer, size_t len) noexcept {
   if (len < headerLen) return 0;
   uint32_t count;
   std::memcpy(&count, static_cast<const uint8_t*>(buffer) + fixedLen, sizeof count);
   if (count > segmentListCapacity || len < headerLen + slotLen * count) return 0;
   return maxLen;
}

bool PolicyInputEntry::deserialize(const void* buffer, size_t len) noexcept {
   if (deserializeLen(buffer, len) == 0) return false;
   const auto* in = static_cast<const uint8_t*>(buffer);
   auto* self = reinterpret_cast<uint8_t*>(this);
   std::memcpy(self, in, fixedLen);
   uint32_t count;
   std::memcpy(&count, in + fixedLen, sizeof count);
   segmentListCount_ = count;
   std::memcpy(self + headerLen, in + headerLen, slotLen * count);
   for (uint32_t s = count; s < segmentListCapacity; ++s) segmentList_[s] = WeightedSegList();
   return true;
}

void PolicyInputEntry::copyUsedTo(PolicyInputEntry& to) const noexcept {
   const uint32_t n = std::min(segmentListCount_, segmentListCapacity);
   std::memcpy(static_cast<void*>(&to), this, headerLen + slotLen * n);
}

bool operator==(const PolicyInputEntry& a, const PolicyInputEntry& b) noexcept {
   if (!(a.key_ == b.key_ && a.originator_ == b.originator_ && a.preference_ == b.preference_ &&
         a.bindingSid_ == b.bindingSid_ && a.segmentListCount_ == b.segmentListCount_)) {
      return false;
   }
   uint32_t n = std::min(a.segmentListCount_, PolicyInputEntry::segmentListCapacity);
   return std::equal(a.segmentList_, a.segmentList_ + n, b.segmentList_);
}

std::string PolicyInputEntry::valueToStrep() const {
   std::vector<std::string> lists;
   for (uint32_t s = 0; s < segmentListCount_ && s < segmentListCapacity; ++s) {
      lists.push_back(segmentList_[s].valueToStrep());
   }
   return Strep::valueText(strepName, {{"key", key_.valueToStrep()},
                                       {"originator", originator_.valueToStrep()},
                                       {"preference", preference_.valueToStrep()},
                                       {"bindingSid", bindingSid_.valueToStrep()},
                                       {"segmentList", Strep::listText(lists)}});
}

PolicyInputEntry PolicyInputEntry::fromStrep(std::string_view) {
   throw std::logic_error(noStringConstructorText);
}

void PolicyInputEntry::dump(std::string& out, int depth) const {
   std::string head = key_.stringValue() + ", originator: " + originator_.stringValue() +
                      ", preference: " + std::to_string(preference_.value);
   dumpIndent(out, depth);
   Mox::appendf(out, "%s\n", head.c_str());
   int inner = dumpDeeper(depth);
   dumpIndent(out, inner);
   Mox::appendf(out, "bindingSid: %u\n", bindingSid_.value());
   dumpIndent(out, inner);
   Mox::appendf(out, "SegmentList #%u \n", segmentListCount_);
   for (uint32_t s = 0; s < segmentListCount_ && s < segmentListCapacity; ++s) {
      segmentList_[s].dump(out, dumpDeeper(inner));
   }
}

std::ostream& operator<<(std::ostream& os, const PolicyInputEntry& e) {
   return os << e.valueToStrep();
}

// ---- PolicyInput

PolicyInput::PolicyInput(const Mox::Name& name)
    : name_(name), table_("policyInputEntry",
                          {"policyInputEntryIs", "policyInputEntryDel", "policyInputEntryNotify"}) {
   table_.observerIs(this);
}

void PolicyInput::onRecord(const PolicyId& id) {
   void (Notifiee::*changed)(const PolicyId&) = &Notifiee::onPolicyInputEntry;
   notify(changed, id);
}

void PolicyInput::onRecords() {
   void (Notifiee::*all)() = &Notifiee::onPolicyInputEntry;
   notify(all);
}

void PolicyInput::onMountStatus() { notify(&Notifiee::onMountStatus); }

void PolicyInput::dump(std::string& out, int depth) const {
   std::vector<const PolicyInputEntry*> entries;
   entries.reserve(table_.size());
   for (const PolicyInputEntry& e : table_) entries.push_back(&e);
   std::sort(entries.begin(), entries.end(),
             [](const auto* a, const auto* b) { return a->key() < b->key(); });
   dumpIndent(out, depth);
   Mox::appendf(out, "policyInputEntries #%u \n", static_cast<unsigned>(entries.size()));
   for (const PolicyInputEntry* e : entries) e->dump(out, depth);
   dumpIndent(out, depth);
   out += '\n';
}

Mox::Ptr<PolicyInput> policyInputFactory(const Mox::Name& name) {
   return Mox::make<PolicyInput>(name);
}

// ---- PolicyInputSource

Mox::Ptr<PolicyInput> PolicyInputSource::policyInput(Protocol protocol) const {
   auto it = policyInput_.find(protocol);
   return it == policyInput_.end() ? nullptr : it->second;
}

void PolicyInputSource::dump(std::string& out, int depth) const {
   std::vector<Protocol> protocols;
   for (const auto& [protocol, table] : policyInput_) protocols.push_back(protocol);
   std::sort(protocols.begin(), protocols.end());
   dumpIndent(out, depth);
   Mox::appendf(out, "policyInput #%u \n", static_cast<unsigned>(protocols.size()));
   for (Protocol p : protocols) {
      dumpIndent(out, depth);
      Mox::appendf(out, "Protocol: %s \n", protocolEnumToString(p).c_str());
      policyInput_.at(p)->dump(out, dumpDeeper(depth));
   }
}

Mox::Ptr<PolicyInputSource> policyInputSourceFactory(const Mox::Name& name) {
   return Mox::make<PolicyInputSource>(name);
}

} // namespace SrTePolicy
