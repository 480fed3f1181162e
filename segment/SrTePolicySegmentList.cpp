#include "segment/SrTePolicySegmentList.h"

#include <algorithm>
#include <cassert>

#include "input/SrTePolicySelectionInput.h"
#include "platform/Assert.h"

namespace SrTePolicy {

void SegmentList::segmentIs(Ipkit::MplsStackEntryIndex index, Mox::Ptr<const SegmentBase> segment) {
   segment_[index.value] = std::move(segment);
   const SegmentBase* s = segment_[index.value].get();
   label_[index.value] = s && s->type() == SegmentType::mplsLabel
                             ? static_cast<const SegmentMplsLabel*>(s)->label().value()
                             : noLabel;
   if (index.value >= size_) size_ = static_cast<uint8_t>(index.value + 1);
   notify(&Notifiee::onSegment, index.value);
}

void SegmentList::segmentDel(Ipkit::MplsStackEntryIndex index) {
   if (index.value >= size_) return;
   segment_[index.value].reset();
   label_[index.value] = noLabel;
   while (size_ > 0 && !segment_[size_ - 1]) --size_;
   notify(&Notifiee::onSegment, index.value);
}

void SegmentList::segmentDelAll() {
   while (size_ > 0) segmentDel(Ipkit::MplsStackEntryIndex(size_ - 1u));
}

Ipkit::MplsLabel SegmentList::segmentLabel(uint32_t index) const {
   Ipkit::MplsStackEntryIndex i(index);
   const SegmentBase* s = segment_[i.value].get();
   if (!s || s->type() != SegmentType::mplsLabel) return Ipkit::MplsLabel();
   return static_cast<const SegmentMplsLabel*>(s)->label();
}

SegmentId SegmentList::getSegmentId(uint32_t index) const {
   Ipkit::MplsStackEntryIndex i(index);
   const SegmentBase* s = segment_[i.value].get();
   return s ? s->segmentId() : SegmentId();
}

Ipkit::MplsLabelOperation SegmentList::labelStack() const {
   Ipkit::MplsLabelOperation op;
   for (uint32_t i = 0; i < size_; ++i) op.labelIs(Ipkit::MplsStackEntryIndex(i), segmentLabel(i));
   return op;
}

std::string NotifyingSegmentListCollection::adoptionKey(const Ipkit::MplsLabelOperation& stack) {
   std::string key;
   key.reserve(stack.stackSize() * sizeof(uint32_t));
   for (uint32_t i = 0; i < stack.stackSize(); ++i) {
      const uint32_t v = stack.label(Ipkit::MplsStackEntryIndex(i)).value();
      key.append(reinterpret_cast<const char*>(&v), sizeof v);
   }
   return key;
}

SegmentListId
NotifyingSegmentListCollection::adoptableIdTake(const Ipkit::MplsLabelOperation& stack) {
   auto it = adoptableId_.find(adoptionKey(stack));
   if (it == adoptableId_.end()) return SegmentListId();
   const SegmentListId id = it->second;
   adoptableId_.erase(it);
   SRTE_TRACE(5, "Adopting exported segmentListId: " << id << " for label stack: " << stack);
   return id;
}

bool SegmentList::segmentListCompare(const SegmentList& other) const noexcept {
   if (size_ != other.size_) return false;
   for (uint32_t i = 0; i < size_; ++i) {
      if (segment_[i].get() != other.segment_[i].get()) return false;
   }
   return true;
}

bool SegmentList::compare(const Kiln::DedupHandle& other) const {
   return segmentListCompare(static_cast<const SegmentList&>(other));
}

uint32_t SegmentList::hash() const {
   // Over the labels: equal lists hold the same segments, hence the same labels, and a lookup by
   // a label stack can compute the same value without making any segment canonical.
   uint32_t h = Mox::mix32(size_);
   for (uint32_t i = 0; i < size_; ++i) h = Mox::hashCombine(h, label_[i]);
   return h;
}

uint32_t SegmentList::contentHash(const Ipkit::MplsLabelOperation& stack, uint32_t n) noexcept {
   uint32_t h = Mox::mix32(n);
   for (uint32_t i = 0; i < n; ++i) {
      h = Mox::hashCombine(h, stack.label(Ipkit::MplsStackEntryIndex(i)).value());
   }
   return h;
}

bool SegmentList::holdsLabels(const Ipkit::MplsLabelOperation& stack, uint32_t n) const noexcept {
   if (size_ != n) return false;
   for (uint32_t i = 0; i < n; ++i) {
      if (label_[i] != stack.label(Ipkit::MplsStackEntryIndex(i)).value()) return false;
   }
   return true;
}

Mox::Ptr<SegmentList> SegmentListDedupTable::lookupByLabels(const Ipkit::MplsLabelOperation& stack,
                                                            uint32_t n) const {
   struct Content {
      const Ipkit::MplsLabelOperation& stack;
      uint32_t n;
   } content{stack, n};
   Kiln::DedupProbe probe{SegmentList::contentHash(stack, n), &content,
                          [](const void* c, const Kiln::DedupHandle& entry) {
                             const auto& want = *static_cast<const Content*>(c);
                             return static_cast<const SegmentList&>(entry).holdsLabels(want.stack,
                                                                                       want.n);
                          }};
   auto found = dedupTable().lookup(probe);
   return Mox::Ptr<SegmentList>(static_cast<SegmentList*>(found.get()));
}

Mox::Ptr<SegmentList> SegmentList::dedup(SegmentListDedupTable& table) {
   auto canonical = table.dedupTable().insert(Mox::Ptr<Kiln::DedupHandle>(this));
   return Mox::Ptr<SegmentList>(static_cast<SegmentList*>(canonical.get()));
}

std::string SegmentList::stringValue() const {
   return Mox::format("segmentListId: %u size: %u \n", segmentListId_.value,
                      static_cast<unsigned>(size_));
}

void SegmentList::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*csegments #%u [", depth, ' ', static_cast<unsigned>(size_));
   for (uint32_t i = 0; i < size_; ++i) Mox::appendf(out, " %u", segmentLabel(i).value());
   Mox::appendf(out, "\n%*c]\n", depth, ' ');
}

void SegmentListDedupTable::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cSegmentListDedupTable: entries #%zu\n", depth, ' ', dedupTable().size());
}

SegmentListsOfSegment* SegmentIdToSegmentList::segmentList(SegmentId id) const {
   auto it = segmentList_.find(id);
   return it == segmentList_.end() ? nullptr : it->second.get();
}

void SegmentIdToSegmentList::segmentListPtrIs(const Mox::Ptr<const SegmentList>& list) {
   for (uint32_t i = 0; i < list->size(); ++i) {
      const SegmentId id = list->getSegmentId(i);
      SegmentListsOfSegment* lists = segmentList(id);
      if (!lists) {
         segmentListIs(id, Mox::make<SegmentListsOfSegment>());
         lists = segmentList(id);
      }
      lists->segmentListPtrIs(list);
   }
}

void SegmentIdToSegmentList::segmentListPtrDel(const Mox::Ptr<const SegmentList>& list) {
   for (uint32_t i = 0; i < list->size(); ++i) {
      const SegmentId id = list->getSegmentId(i);
      if (SegmentListsOfSegment* lists = segmentList(id)) {
         lists->segmentListPtrDel(list);
         if (lists->segmentListPtr().empty()) segmentListDel(id);
      }
   }
}

void SegmentIdToSegmentList::dump(std::string& out, int depth) const {
   for (const auto& [id, lists] : segmentList_) {
      Mox::appendf(out, "%*csegmentId: %u\n", depth, ' ', id.value);
      Mox::appendf(out, "%*csegmentList \n", depth, ' ');
      for (const auto& l : lists->segmentListPtr())
         out += std::string(depth + 2, ' ') + l->stringValue();
   }
}

SegmentListUser::SegmentListUser(SegmentListId id, Mox::Ptr<const SegmentList> segmentList)
    : id_(id), segmentList_(std::move(segmentList)) {}

const PolicyId& SegmentListUser::MemberId::operator()(const Member& m) const noexcept {
   return m->id();
}

void SegmentListUser::policyIdIs(const Member& entry) {
   if (policyId_.insert(entry).second) notify(&Notifiee::onPolicyId, entry->id());
}

void SegmentListUser::policyIdIsNew(const Member& entry) {
   policyId_.insertNew(entry);
   notify(&Notifiee::onPolicyId, entry->id());
}

void SegmentListUser::policyIdDel(Members::const_iterator it) {
   // The entry may be held by nothing else now: keep it until the reactors have seen it go.
   const Member keep = *it;
   policyId_.erase(it);
   notify(&Notifiee::onPolicyId, keep->id());
}

void SegmentListUser::policyIdDel(const PolicyIdEntry& entry) {
   auto it = policyId_.find(Member(&entry));
   if (it != policyId_.end()) policyIdDel(it);
}

void SegmentListUser::policyIdDel(const PolicyId& p) {
   auto it = std::find_if(policyId_.begin(), policyId_.end(),
                          [&p](const Member& m) { return m->id() == p; });
   if (it != policyId_.end()) policyIdDel(it);
}

void SegmentListUser::policyIdDelAll() {
   // Taken first: erasing at begin() of a large set one at a time would cost the square of its
   // size. Reactors may add members meanwhile: go round until none is left.
   while (!policyId_.empty()) {
      const std::vector<Member> members(policyId_.begin(), policyId_.end());
      for (const Member& m : members) policyIdDel(*m);
   }
}

void SegmentListUser::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cPolicyIds #%zu \n", depth, ' ', policyId_.size());
   for (const PolicyId& p : Mox::sortedKeys(policyId()))
      Mox::appendf(out, "%*c%s\n", depth + 2, ' ', p.stringValue().c_str());
}

SegmentListUser* SegmentListIdToPolicyMap::segmentListUser(SegmentListId id) const {
   auto it = segmentListUser_.find(id);
   return it == segmentListUser_.end() ? nullptr : it->second.get();
}

SegmentListUser::~SegmentListUser() {
   if (segmentList_ && segmentList_->mapUser_ == this) segmentList_->mapUser_ = nullptr;
}

void SegmentListIdToPolicyMap::forgetUser(const SegmentListUser& user) noexcept {
   const SegmentList* list = user.segmentList();
   if (list && list->mapUser_ == &user) list->mapUser_ = nullptr;
}

SegmentListUser* SegmentListIdToPolicyMap::segmentListUser(const SegmentList& list) const {
   assert(list.mapUser_ == segmentListUser(list.segmentListId()));
   return list.mapUser_;
}

SegmentListUser*
SegmentListIdToPolicyMap::segmentListUserIs(SegmentListId id,
                                            Mox::Ptr<const SegmentList> segmentList) {
   if (auto* existing = segmentListUser(id)) return existing;
   auto user = Mox::make<SegmentListUser>(id, std::move(segmentList));
   if (const SegmentList* list = user->segmentList()) list->mapUser_ = user.get();
   collIs(segmentListUser_, id, user, &Notifiee::onSegmentListUser);
   return user.get();
}

void SegmentListIdToPolicyMap::segmentListUserDel(SegmentListId id) {
   auto it = segmentListUser_.find(id);
   if (it == segmentListUser_.end()) return;
   forgetUser(*it->second);
   collDel(segmentListUser_, id, &Notifiee::onSegmentListUser);
}

void SegmentListIdToPolicyMap::segmentListUserDelAll() {
   for (const auto& [id, user] : segmentListUser_) forgetUser(*user);
   collDelAll(segmentListUser_, &Notifiee::onSegmentListUser);
}

SegmentListIdToPolicyMap::~SegmentListIdToPolicyMap() {
   for (const auto& [id, user] : segmentListUser_) forgetUser(*user);
}

void SegmentListIdToPolicyMap::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*csegmentListUsers #%zu \n", depth, ' ', segmentListUser_.size());
   for (const auto& [id, user] : segmentListUser_) {
      Mox::appendf(out, "%*csegmentListId: %u\n", depth + 2, ' ', id.value);
      user->dump(out, depth + 4);
   }
}

MplsViaSet MplsViaSet::fromString(const std::string&) {
   SRTE_ASSERT(false, noStringConstructor);
   return {};
}

} // namespace SrTePolicy
