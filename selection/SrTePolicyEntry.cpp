#include "selection/SrTePolicyEntry.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <sstream>

namespace SrTePolicy {

namespace {

std::string tunnelIdStrep(Tunnel::TunnelTable::TunnelId t) {
   return "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " + std::to_string(t.value) + "})";
}

template <class T>
std::string streamed(const T& v) {
   std::ostringstream os;
   os << v;
   return os.str();
}

} // namespace

// ---- WeightedSegmentListId

uint32_t WeightedSegmentListId::hash() const noexcept {
   uint32_t h = Mox::hashCombine(segmentListId.hash(), weight.value);
   return Mox::hashCombine(h, tunnelId.hash());
}

std::string WeightedSegmentListId::stringValue() const {
   return "(wt: " + std::to_string(weight.value) + ", segListId: " + streamed(segmentListId) + ")";
}

std::string WeightedSegmentListId::valueToStrep() const {
   return "Value('SrTePolicy::WeightedSegmentListId', ** {'segmentListId': " +
          segmentListId.valueToStrep() + ", 'weight': " + weight.valueToStrep() +
          ", 'tunnelId': " + tunnelIdStrep(tunnelId) + "})";
}

void WeightedSegmentListId::writeTo(AttrLog::Writer& w) const {
   w.u32(segmentListId.value);
   w.u32(weight.value);
   w.u64(tunnelId.value);
}

WeightedSegmentListId WeightedSegmentListId::readFrom(AttrLog::Reader& r) {
   SegmentListId id(r.u32());
   Weight weight = Weight::fromWide(r.u32());
   Tunnel::TunnelTable::TunnelId tunnelId(r.u64());
   return WeightedSegmentListId(weight, id, tunnelId);
}

// ---- WeightedTunnelId

uint32_t WeightedTunnelId::hash() const noexcept {
   return Mox::hashCombine(tunnelId.hash(), weight.value);
}

std::string WeightedTunnelId::stringValue() const {
   return "(wt: " + std::to_string(weight.value) + ", tunnelId: " + std::to_string(tunnelId.value) +
          ")";
}

std::string WeightedTunnelId::valueToStrep() const {
   return "Value('SrTePolicy::WeightedTunnelId', ** {'tunnelId': " + tunnelIdStrep(tunnelId) +
          ", 'weight': " + weight.valueToStrep() + "})";
}

void WeightedTunnelId::writeTo(AttrLog::Writer& w) const {
   w.u64(tunnelId.value);
   w.u32(weight.value);
}

WeightedTunnelId WeightedTunnelId::readFrom(AttrLog::Reader& r) {
   Tunnel::TunnelTable::TunnelId tunnelId(r.u64());
   return WeightedTunnelId(tunnelId, Weight::fromWide(r.u32()));
}

// ---- Priority

const char* priorityCompareResultName(PriorityCompareResult r) {
   switch (r) {
   case PriorityCompareResult::isLowerDiscriminator:
      return "isLowerDiscriminator";
   case PriorityCompareResult::isHigherOrigin:
      return "isHigherOrigin";
   case PriorityCompareResult::isLowerProtocol:
      return "isLowerProtocol";
   case PriorityCompareResult::isLowerPreference:
      return "isLowerPreference";
   case PriorityCompareResult::isEqual:
      return "isEqual";
   case PriorityCompareResult::isHigherPreference:
      return "isHigherPreference";
   case PriorityCompareResult::isBetterProtocol:
      return "isBetterProtocol";
   case PriorityCompareResult::isLowerOrigin:
      return "isLowerOrigin";
   case PriorityCompareResult::isHigherDiscriminator:
      return "isHigherDiscriminator";
   }
   return "unknown";
}

std::ostream& operator<<(std::ostream& os, PriorityCompareResult r) {
   return os << priorityCompareResultName(r);
}

PriorityCompareResult Priority::compare(const Priority& o) const noexcept {
   using R = PriorityCompareResult;
   if (preference != o.preference) {
      return preference > o.preference ? R::isHigherPreference : R::isLowerPreference;
   }
   // Protocol numbers order as signed values.
   const auto mine = static_cast<int32_t>(protocol);
   const auto theirs = static_cast<int32_t>(o.protocol);
   if (mine != theirs) return mine > theirs ? R::isBetterProtocol : R::isLowerProtocol;
   if (originator != o.originator) {
      return originator < o.originator ? R::isLowerOrigin : R::isHigherOrigin;
   }
   return discriminator > o.discriminator ? R::isHigherDiscriminator : R::isLowerDiscriminator;
}

uint32_t Priority::hash() const noexcept {
   uint32_t h = Mox::hashCombine(Mox::mix32(preference.value), static_cast<uint32_t>(protocol));
   h = Mox::hashCombine(h, originator.hash());
   return Mox::hashCombine(h, discriminator.value);
}

std::string Priority::stringValue() const {
   return std::to_string(preference.value) + "-" + protocolEnumToString(protocol) + "-" +
          originator.stringValue() + " - " + std::to_string(discriminator.value);
}

std::string Priority::valueToStrep() const {
   return "Value('SrTePolicy::Priority', ** {'preference': " + preference.valueToStrep() +
          ", 'protocol': " + protocolToStrep(protocol) +
          ", 'originator': " + originator.valueToStrep() +
          ", 'discriminator': " + discriminator.valueToStrep() + "})";
}

void Priority::writeTo(AttrLog::Writer& w) const {
   w.u32(preference.value);
   w.u32(static_cast<uint32_t>(protocol));
   originator.attrLogWrite(w);
   w.u32(discriminator.value);
}

Priority Priority::readFrom(AttrLog::Reader& r) {
   Priority p;
   p.preference = Preference::fromWide(r.u32());
   p.protocol = static_cast<Protocol>(r.u32());
   p.originator = Originator::attrLogRead(r);
   p.discriminator = Discriminator::fromWide(r.u32());
   return p;
}

std::ostream& operator<<(std::ostream& os, const WeightedSegmentListId& v) {
   return os << v.stringValue();
}
std::ostream& operator<<(std::ostream& os, const WeightedTunnelId& v) {
   return os << v.stringValue();
}
std::ostream& operator<<(std::ostream& os, const Priority& v) { return os << v.stringValue(); }

// ---- PolicyIdEntry

std::optional<WeightedSegmentListId> PolicyIdEntry::wSegmentList(uint8_t index) const {
   auto it = wSegmentList_.find(index);
   if (it == wSegmentList_.end()) return std::nullopt;
   return it->second;
}

void PolicyIdEntry::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cid: %s, pref: %u, Originator: %s, bindingSid: %u, version: %u \n", depth,
                ' ', id_.stringValue().c_str(), preference_.value,
                originator_.stringValue().c_str(), bindingSid_.value(), version_);
   Mox::appendf(out, "%*cwSegmentList #%u \n", depth, ' ',
                static_cast<unsigned>(wSegmentList_.size()));
   for (const auto& [index, row] : wSegmentList_) {
      Mox::appendf(out, "%*c%u: %s\n", depth + 2, ' ', unsigned{index}, row.stringValue().c_str());
   }
}

// ---- PolicySelectionInput

Mox::Ptr<PolicyIdEntry> PolicySelectionInput::policyIdEntry(const PolicyId& id) const {
   auto it = policyIdEntry_.find(id);
   return it == policyIdEntry_.end() ? nullptr : it->second;
}

Mox::Ptr<PolicyIdEntry> PolicySelectionInput::policyIdEntryIs(const PolicyId& id,
                                                              Preference preference,
                                                              const Originator& originator) {
   auto [it, made] = policyIdEntry_.findOrInsert( // one lookup either way
       id, [&] { return Mox::make<PolicyIdEntry>(id, preference, originator); });
   Mox::Ptr<PolicyIdEntry> entry = it->second;
   if (made) {
      notify(&Notifiee::onPolicyIdEntry, id);
   } else {
      entry->preferenceIs(preference);
      entry->originatorIs(originator);
   }
   return entry;
}

void PolicySelectionInput::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cpolicyIdEntry #%u \n", depth, ' ',
                static_cast<unsigned>(policyIdEntry_.size()));
   std::vector<const PolicyIdEntry*> sorted;
   sorted.reserve(policyIdEntry_.size());
   for (const auto& kv : policyIdEntry_) sorted.push_back(kv.second.get());
   std::sort(sorted.begin(), sorted.end(),
             [](const PolicyIdEntry* a, const PolicyIdEntry* b) { return a->id() < b->id(); });
   for (const PolicyIdEntry* e : sorted) e->dump(out, depth + 2);
}

// ---- PolicyEntry

std::optional<WeightedTunnelId> PolicyEntry::wTunnelId(uint8_t index) const {
   auto it = wTunnelId_.find(index);
   if (it == wTunnelId_.end()) return std::nullopt;
   return it->second;
}

void PolicyEntry::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cPriority: %s\n", depth, ' ', priority_.stringValue().c_str());
   Mox::appendf(out, "%*cbindingSid: %u\n", depth, ' ', bindingSid_.value());
   Mox::appendf(out, "%*cwTunnelId #%u \n", depth, ' ', static_cast<unsigned>(wTunnelId_.size()));
   for (const auto& [index, row] : wTunnelId_) {
      Mox::appendf(out, "%*c%u: %s\n", depth + 2, ' ', unsigned{index}, row.stringValue().c_str());
   }
}

// ---- Policy

Mox::Ptr<PolicyEntry> Policy::candidate(const Priority& priority) const {
   auto it = candidate_.find(priority);
   return it == candidate_.end() ? nullptr : it->second;
}

Mox::Ptr<PolicyEntry> Policy::bestCandidate() const {
   return candidate_.empty() ? nullptr : candidate_.begin()->second;
}

Mox::Ptr<PolicyEntry> Policy::candidateIs(const Priority& priority) {
   if (auto it = candidate_.find(priority); it != candidate_.end()) return it->second;
   auto entry = Mox::make<PolicyEntry>(priority);
   candidate_.try_emplace(priority, entry);
   notify(&Notifiee::onCandidate, priority);
   return entry;
}

void Policy::candidateDel(const Priority& priority) {
   auto it = candidate_.find(priority);
   if (it == candidate_.end()) return;
   if (active_ == it->second) activeIs(nullptr);
   collDel(candidate_, priority, &Notifiee::onCandidate);
}

void Policy::candidateDelAll() {
   activeIs(nullptr);
   collDelAll(candidate_, &Notifiee::onCandidate);
}

void Policy::activeIs(const Mox::Ptr<PolicyEntry>& entry) {
   assert(!entry || candidate(entry->priority()) == entry);
   attrIs(active_, entry, &Notifiee::onActive);
}

void Policy::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*ckey: %s\n", depth, ' ', key_.stringValue().c_str());
   Mox::appendf(out, "%*cCandidates #%u \n", depth, ' ', static_cast<unsigned>(candidate_.size()));
   for (const auto& kv : candidate_) kv.second->dump(out, depth + 2);
   Mox::appendf(out, "%*cactive policy: \n", depth, ' ');
   if (active_) active_->dump(out, depth + 2);
}

// ---- EcPolicy

Mox::Ptr<Policy> EcPolicy::policy(const PolicyKey& key) const {
   auto it = policy_.find(key);
   return it == policy_.end() ? nullptr : it->second;
}

Mox::Ptr<Policy> EcPolicy::policyIs(const PolicyKey& key) {
   auto [it, made] = policy_.findOrInsert(key, [&] { return Mox::make<Policy>(key); });
   Mox::Ptr<Policy> policy = it->second;
   if (made) notify(&Notifiee::onPolicy, key);
   return policy;
}

void EcPolicy::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cpolicies #%u \n", depth, ' ', static_cast<unsigned>(policy_.size()));
   std::vector<const Policy*> sorted;
   sorted.reserve(policy_.size());
   for (const auto& kv : policy_) sorted.push_back(kv.second.get());
   std::sort(sorted.begin(), sorted.end(),
             [](const Policy* a, const Policy* b) { return a->key() < b->key(); });
   for (const Policy* p : sorted) p->dump(out, depth + 2);
}

} // namespace SrTePolicy
