#include "input/SrTePolicySelectionInput.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace SrTePolicy {

namespace {

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
          ", 'tunnelId': " + tunnelId.strep() + "})";
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

std::ostream& operator<<(std::ostream& os, const WeightedSegmentListId& v) {
   return os << v.stringValue();
}

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

} // namespace SrTePolicy
