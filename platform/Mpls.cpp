#include "platform/Mpls.h"

#include <algorithm>

namespace Mpls {

std::string LabelRange::stringValue() const {
   return "base " + std::to_string(base_) + " size " + std::to_string(size_);
}
std::ostream& operator<<(std::ostream& os, const LabelRange& r) { return os << r.stringValue(); }

std::ostream& operator<<(std::ostream& os, const RouteKey& k) { return os << k.topLabel(); }

std::string RouteKeyAndMetric::stringValue() const {
   return routeKey_.stringValue() + "/" + std::to_string(metric_);
}
std::ostream& operator<<(std::ostream& os, const RouteKeyAndMetric& k) {
   return os << k.stringValue();
}

std::string AdjacencyKey::stringValue() const {
   return "(index: " + std::to_string(index_) +
          ", type: " + std::to_string(static_cast<uint32_t>(type_)) + ")";
}
std::ostream& operator<<(std::ostream& os, const AdjacencyKey& k) { return os << k.stringValue(); }

std::string Via::stringValue() const {
   std::string out = nexthop.stringValue() + " " + intfId.stringValue() + " " +
                     Ipkit::mplsLabelActionName(labelAction);
   if (!label.isNull()) out += " " + label.stringValue();
   return out;
}

uint32_t Via::hash() const noexcept {
   uint32_t h = nexthop.hash();
   h = Mox::hashCombine(h, intfId.hash());
   h = Mox::hashCombine(h, static_cast<uint32_t>(labelAction));
   return Mox::hashCombine(h, label.hash());
}

std::ostream& operator<<(std::ostream& os, const Via& v) { return os << v.stringValue(); }

ViaSet::ViaSet(std::initializer_list<Via> vias) {
   for (const Via& v : vias) viaIs(v);
}

bool ViaSet::viaIs(const Via& v) {
   auto it = std::lower_bound(via_.begin(), via_.end(), v);
   if (it != via_.end() && *it == v) return false;
   via_.insert(it, v);
   return true;
}

bool ViaSet::viaDel(const Via& v) {
   auto it = std::lower_bound(via_.begin(), via_.end(), v);
   if (it == via_.end() || !(*it == v)) return false;
   via_.erase(it);
   return true;
}

bool ViaSet::viaHas(const Via& v) const noexcept {
   return std::binary_search(via_.begin(), via_.end(), v);
}

std::string ViaSet::stringValue() const {
   std::string out;
   for (const Via& v : via_) {
      if (!out.empty()) out += ", ";
      out += v.stringValue();
   }
   return out;
}

} // namespace Mpls

namespace MplsHelper {

Mpls::AdjacencyIndex LfibGenAdjIdxAllocator::getAdjacencyIndex(Mpls::LFib::Source source) {
   while (!free_.empty()) {
      Mpls::AdjacencyIndex index = free_.top();
      free_.pop();
      if (owner_.try_emplace(index, source).second) return index;
   }
   while (!owner_.try_emplace(next_, source).second) ++next_;
   return next_++;
}

bool LfibGenAdjIdxAllocator::releaseAdjacencyIndex(Mpls::LFib::Source source,
                                                   Mpls::AdjacencyIndex index) {
   auto it = owner_.find(index);
   if (it == owner_.end() || it->second != source) return false;
   owner_.erase(it);
   if (index < next_) free_.push(index);
   return true;
}

bool LfibGenAdjIdxAllocator::reserveAdjacencyIndex(Mpls::LFib::Source source,
                                                   Mpls::AdjacencyIndex index) {
   return owner_.try_emplace(index, source).second;
}

std::optional<Mpls::LFib::Source> LfibGenAdjIdxAllocator::owner(Mpls::AdjacencyIndex index) const {
   auto it = owner_.find(index);
   if (it == owner_.end()) return std::nullopt;
   return it->second;
}

} // namespace MplsHelper
