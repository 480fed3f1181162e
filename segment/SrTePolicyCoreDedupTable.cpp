#include "segment/SrTePolicyCoreDedupTable.h"

namespace SrTePolicy {

CoreDedupTables::CoreDedupTables() {
   notifyingSegmentCollectionIs();
   segLifeTimeNotifieeIs();
   segDedupTablePtrIs();
   notifyingSegmentListCollectionIs();
   segListLifeTimeNotifieeIs();
   segListDedupTablePtrIs();
}

CoreDedupTables::~CoreDedupTables() {
   // Lists hold segments: withdraw the lists first, then the segments.
   segListDedupTablePtrDel();
   segDedupTablePtrDel();
}

void CoreDedupTables::notifyingSegmentCollectionIs() {
   notifyingSegmentCollection_ = Mox::make<NotifyingSegmentCollection>();
}

void CoreDedupTables::segLifeTimeNotifieeIs() {
   segLifeTimeNotifiee_ = std::make_unique<SegmentLifeTimeNotifiee>(notifyingSegmentCollection_);
}

void CoreDedupTables::segDedupTablePtrIs() {
   segDedupTablePtr_ =
       Mox::make<SegmentDedupTable>(segLifeTimeNotifiee_.get(), createDedupHashTable());
}

void CoreDedupTables::notifyingSegmentListCollectionIs() {
   notifyingSegmentListCollection_ = Mox::make<NotifyingSegmentListCollection>();
}

void CoreDedupTables::segListLifeTimeNotifieeIs() {
   segListLifeTimeNotifiee_ =
       std::make_unique<SegmentListLifeTimeNotifiee>(notifyingSegmentListCollection_);
}

void CoreDedupTables::segListDedupTablePtrIs() {
   segListDedupTablePtr_ =
       Mox::make<SegmentListDedupTable>(segListLifeTimeNotifiee_.get(), createDedupHashTable());
}

Mox::Ptr<Kiln::DedupHashTable> CoreDedupTables::createDedupHashTable() const {
   return Mox::make<Kiln::DedupHashTable>();
}

Mox::Ptr<SegmentMplsLabel> CoreDedupTables::dedupSegment(Ipkit::MplsLabel label) {
   if (auto found = segDedupTablePtr_->lookupByLabel(label)) return found;
   auto candidate = Mox::make<SegmentMplsLabel>(SegmentType::mplsLabel, label);
   return candidate->dedup(*segDedupTablePtr_);
}

Mox::Ptr<SegmentList> CoreDedupTables::dedupSegmentList(const Ipkit::MplsLabelOperation& stack) {
   // Most lists of a large input already exist: find them by their labels in one lookup, and
   // make segments canonical only for a list that is new.
   const uint32_t n = std::min(stack.stackSize(), SegmentList::maxSegments);
   if (auto found = segListDedupTablePtr_->lookupByLabels(stack, n)) return found;
   auto candidate = Mox::make<SegmentList>();
   for (uint32_t i = 0; i < n; ++i) {
      Ipkit::MplsStackEntryIndex index(i);
      candidate->segmentIs(index, dedupSegment(stack.label(index)));
   }
   return candidate->dedup(*segListDedupTablePtr_);
}

} // namespace SrTePolicy
