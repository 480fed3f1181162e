#include "selection/SrTePolicyEcPolicy.h"

#include <algorithm>
#include <cassert>
#include <sstream>

namespace SrTePolicy {

// ---- WeightedTunnelId

uint32_t WeightedTunnelId::hash() const noexcept {
   return Mox::hashCombine(tunnelId.hash(), weight.value);
}

std::string WeightedTunnelId::stringValue() const {
   return "(wt: " + std::to_string(weight.value) + ", tunnelId: " + std::to_string(tunnelId.value) +
          ")";
}

std::string WeightedTunnelId::valueToStrep() const {
   return "Value('SrTePolicy::WeightedTunnelId', ** {'tunnelId': " + tunnelId.strep() +
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

std::ostream& operator<<(std::ostream& os, const WeightedTunnelId& v) {
   return os << v.stringValue();
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
