// CoreDedupTables: creates and owns the segment and segment-list dedup tables with their lifetime
// notifiees and notifying collections, and is shared by every state machine that deduplicates.
// Tables go before the collections they report into, so dropping it withdraws every canonical
// item with the usual notifications.
#pragma once

#include "platform/KilnDedup.h"
#include "platform/Mox.h"
#include "segment/SrTePolicySegment.h"
#include "segment/SrTePolicySegmentList.h"

namespace SrTePolicy {

class CoreDedupTables : public Mox::Entity {
 public:
   // Creates the six members in order: segment collection, notifiee, table; then the list side.
   CoreDedupTables();
   ~CoreDedupTables() override;

   NotifyingSegmentCollection* notifyingSegmentCollection() const noexcept {
      return notifyingSegmentCollection_.get();
   }
   SegmentLifeTimeNotifiee* segLifeTimeNotifiee() const noexcept {
      return segLifeTimeNotifiee_.get();
   }
   SegmentDedupTable* segDedupTablePtr() const noexcept { return segDedupTablePtr_.get(); }
   NotifyingSegmentListCollection* notifyingSegmentListCollection() const noexcept {
      return notifyingSegmentListCollection_.get();
   }
   SegmentListLifeTimeNotifiee* segListLifeTimeNotifiee() const noexcept {
      return segListLifeTimeNotifiee_.get();
   }
   SegmentListDedupTable* segListDedupTablePtr() const noexcept {
      return segListDedupTablePtr_.get();
   }

   void notifyingSegmentCollectionIs();
   void notifyingSegmentCollectionDel() { notifyingSegmentCollection_.reset(); }
   void segLifeTimeNotifieeIs();
   void segLifeTimeNotifieeDel() { segLifeTimeNotifiee_.reset(); }
   void segDedupTablePtrIs();
   void segDedupTablePtrDel() { segDedupTablePtr_.reset(); }
   void notifyingSegmentListCollectionIs();
   void notifyingSegmentListCollectionDel() { notifyingSegmentListCollection_.reset(); }
   void segListLifeTimeNotifieeIs();
   void segListLifeTimeNotifieeDel() { segListLifeTimeNotifiee_.reset(); }
   void segListDedupTablePtrIs();
   void segListDedupTablePtrDel() { segListDedupTablePtr_.reset(); }

   Mox::Ptr<Kiln::DedupHashTable> createDedupHashTable() const;

   // The canonical segment of a label (created when new).
   Mox::Ptr<SegmentMplsLabel> dedupSegment(Ipkit::MplsLabel label);
   // The canonical segment list of a label stack (entry 0 the top), its segments canonical too.
   Mox::Ptr<SegmentList> dedupSegmentList(const Ipkit::MplsLabelOperation& labelStack);

 private:
   Mox::Ptr<NotifyingSegmentCollection> notifyingSegmentCollection_;
   std::unique_ptr<SegmentLifeTimeNotifiee> segLifeTimeNotifiee_;
   Mox::Ptr<SegmentDedupTable> segDedupTablePtr_;
   Mox::Ptr<NotifyingSegmentListCollection> notifyingSegmentListCollection_;
   std::unique_ptr<SegmentListLifeTimeNotifiee> segListLifeTimeNotifiee_;
   Mox::Ptr<SegmentListDedupTable> segListDedupTablePtr_;
};

} // namespace SrTePolicy
