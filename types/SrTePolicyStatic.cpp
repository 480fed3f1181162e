#include "types/SrTePolicyStatic.h"

#include <algorithm>
#include <cinttypes>

namespace SrTePolicy {

// ---- StaticSegmentList

std::string StaticSegmentList::valueToStrep() const {
   return Strep::valueText(strepName,
                           {{"weight", weight.valueToStrep()}, {"index", index.valueToStrep()}});
}

StaticSegmentList StaticSegmentList::fromStrep(const Strep::Node& node) {
   node.expectValue(strepName, {"weight", "index"});
   return StaticSegmentList(Weight::fromStrep(node.field("weight")),
                            Index::fromStrep(node.field("index")));
}

StaticSegmentList StaticSegmentList::fromStrep(std::string_view text) {
   return fromStrep(Strep::Node::parse(text));
}

void StaticSegmentList::attrLogWrite(AttrLog::Writer& w) const {
   weight.attrLogWrite(w);
   index.attrLogWrite(w);
}

StaticSegmentList StaticSegmentList::attrLogRead(AttrLog::Reader& r) {
   Weight wt = Weight::attrLogRead(r);
   return StaticSegmentList(wt, Index::attrLogRead(r));
}

std::ostream& operator<<(std::ostream& os, const StaticSegmentList& v) {
   return os << v.valueToStrep();
}

// ---- CandidatePath

void CandidatePath::staticSegmentListIs(const Ipkit::MplsLabelOperation& segList,
                                        const StaticSegmentList& v) {
   collIs(staticSegmentList_, segList, v, &Notifiee::onStaticSegmentList);
}

StaticSegmentList CandidatePath::staticSegmentListDel(const Ipkit::MplsLabelOperation& segList) {
   auto it = staticSegmentList_.find(segList);
   if (it == staticSegmentList_.end()) return StaticSegmentList();
   StaticSegmentList removed = it->second;
   collDel(staticSegmentList_, segList, &Notifiee::onStaticSegmentList);
   return removed;
}

void CandidatePath::staticSegmentListDelAll() {
   collDelAll(staticSegmentList_, &Notifiee::onStaticSegmentList);
}

std::optional<StaticSegmentList>
CandidatePath::staticSegmentList(const Ipkit::MplsLabelOperation& segList) const {
   auto it = staticSegmentList_.find(segList);
   if (it == staticSegmentList_.end()) return std::nullopt;
   return it->second;
}

std::vector<std::pair<Ipkit::MplsLabelOperation, StaticSegmentList>>
CandidatePath::staticSegmentListByIndex() const {
   std::vector<std::pair<Ipkit::MplsLabelOperation, StaticSegmentList>> lists(
       staticSegmentList_.begin(), staticSegmentList_.end());
   std::sort(lists.begin(), lists.end(), [](const auto& a, const auto& b) {
      if (a.second.index != b.second.index) return a.second.index < b.second.index;
      return a.first < b.first;
   });
   return lists;
}

void CandidatePath::dump(std::string& out, int depth) const {
   dumpIndent(out, depth);
   Mox::appendf(out, "preference: %u\n", preference_.value);
   dumpIndent(out, depth);
   Mox::appendf(out, "segmentLists #%u \n", static_cast<unsigned>(staticSegmentList_.size()));
   for (const auto& [segList, v] : staticSegmentListByIndex()) {
      dumpIndent(out, dumpDeeper(depth));
      Mox::appendf(out, "weight: %u, index: %" PRIu64 ", segmentList: [%s]\n", v.weight.value,
                   v.index.value, segList.stringValue().c_str());
   }
}

std::string CandidatePath::stringValue() const {
   std::string out;
   dump(out, -1);
   return out;
}

void CandidatePath::attrLogWrite(AttrLog::Writer& w) const {
   preference_.attrLogWrite(w);
   w.u32(static_cast<uint32_t>(staticSegmentList_.size()));
   for (const auto& [segList, v] : staticSegmentList_) {
      segList.attrLogWrite(w);
      v.attrLogWrite(w);
   }
}

Mox::Ptr<CandidatePath> CandidatePath::attrLogRead(AttrLog::Reader& r) {
   auto path = candidatePathFactory(Preference::attrLogRead(r));
   for (uint32_t n = r.u32(); n > 0; --n) {
      auto segList = Ipkit::MplsLabelOperation::attrLogRead(r);
      path->staticSegmentListIs(segList, StaticSegmentList::attrLogRead(r));
   }
   return path;
}

// ---- StaticPolicy

Mox::Ptr<CandidatePath> StaticPolicy::candidatePathIs(Preference preference) {
   auto it = candidatePath_.find(preference);
   if (it != candidatePath_.end()) return it->second;
   auto path = candidatePathFactory(preference);
   candidatePath_.emplace(preference, path);
   void (Notifiee::*changed)(const Preference&) = &Notifiee::onCandidatePath;
   notify(changed, preference);
   return path;
}

void StaticPolicy::candidatePathDel(Preference preference) {
   collDel(candidatePath_, preference, &Notifiee::onCandidatePath);
}

void StaticPolicy::candidatePathDelAll() { collDelAll(candidatePath_, &Notifiee::onCandidatePath); }

Mox::Ptr<CandidatePath> StaticPolicy::candidatePath(Preference preference) const {
   auto it = candidatePath_.find(preference);
   return it == candidatePath_.end() ? nullptr : it->second;
}

void StaticPolicy::dump(std::string& out, int depth) const {
   dumpIndent(out, depth);
   Mox::appendf(out, "policyKey: %s, bindingSid: %u\n", key_.stringValue().c_str(),
                bindingSid_.value());
   dumpIndent(out, depth);
   Mox::appendf(out, "candidatePaths #%u \n", static_cast<unsigned>(candidatePath_.size()));
   for (const auto& [preference, path] : candidatePath_) path->dump(out, dumpDeeper(depth));
}

std::string StaticPolicy::stringValue() const {
   std::string out;
   dump(out, -1);
   return out;
}

void StaticPolicy::attrLogWrite(AttrLog::Writer& w) const {
   key_.attrLogWrite(w);
   bindingSid_.attrLogWrite(w);
   w.u32(static_cast<uint32_t>(candidatePath_.size()));
   for (const auto& [preference, path] : candidatePath_) path->attrLogWrite(w);
}

Mox::Ptr<StaticPolicy> StaticPolicy::attrLogRead(AttrLog::Reader& r) {
   auto policy = staticPolicyFactory(PolicyKey::attrLogRead(r));
   policy->bindingSidIs(Ipkit::MplsLabel::attrLogRead(r));
   for (uint32_t n = r.u32(); n > 0; --n) {
      auto path = CandidatePath::attrLogRead(r);
      policy->candidatePath_[path->preference()] = path;
   }
   return policy;
}

Mox::Ptr<StaticPolicy> staticPolicyFactory(const PolicyKey& key) {
   return Mox::make<StaticPolicy>(key);
}

Mox::Ptr<CandidatePath> candidatePathFactory(Preference preference) {
   return Mox::make<CandidatePath>(preference);
}

} // namespace SrTePolicy
