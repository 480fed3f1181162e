// The resolution outcome of every segment list, published to other processes: an entry exists
// for every list that resolved, with "success" or the error found; a list that does not resolve
// at all has none.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Mox.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

enum class SegmentListResolveError : uint32_t {
   success = 1,
   zeroLabels = 2,
   platformLabelStackDepthExceeded = 3,
};
const char* segmentListResolveErrorName(SegmentListResolveError e);

class SegmentListStatus : public Mox::Entity {
 public:
   // Looked up for every list of every candidate path that selection processes: a flat table, not
   // a chain of nodes. Iteration order is unspecified.
   using Map = Mox::HashMap2018<SegmentListId, SegmentListResolveError>;
   class Notifiee : public Mox::NotifieeOf<SegmentListStatus> {
    public:
      virtual void onStatus(const SegmentListId&) {}
   };

   explicit SegmentListStatus(Mox::Name name) : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   const Map& status() const noexcept { return status_; }
   const SegmentListResolveError* status(SegmentListId id) const {
      auto it = status_.find(id);
      return it == status_.end() ? nullptr : &it->second;
   }
   void statusIs(SegmentListId id, SegmentListResolveError e) {
      collIs(status_, id, e, &Notifiee::onStatus);
   }
   void statusDel(SegmentListId id) { collDel(status_, id, &Notifiee::onStatus); }
   void statusDelAll() { collDelAll(status_, &Notifiee::onStatus); }

 private:
   Mox::Name name_;
   Map status_;
};

} // namespace SrTePolicy
