// A full input record (16 lists of 8 labels) whose every label, weight, preference and binding SID
// follow from `version`: a reader that sees a record mixing two writes can tell. Shared by the
// shared-table tests and their benchmark, which kill writers mid-write and check every read.
#pragma once

#include <cstdint>

#include "types/SrTePolicyInput.h"

namespace SrTePolicy::Testing {

inline PolicyInputEntry patternedRecord(const PolicyId& id, uint32_t version) {
   PolicyInputEntry e(id);
   e.preferenceIs(Preference(version));
   e.bindingSidIs(Ipkit::MplsLabel(100000 + version % 800000));
   for (uint32_t i = 0; i < 16; ++i) {
      Ipkit::MplsLabelOperation op;
      op.actionIs(Ipkit::MplsLabelAction::push);
      for (uint32_t l = 0; l < 8; ++l)
         op.push(Ipkit::MplsLabel((version * 31 + i * 8 + l) % 1000000));
      e.segmentListIs(SegmentListIndex(i), WeightedSegList(Weight(version % 1000 + 1), op));
   }
   return e;
}

} // namespace SrTePolicy::Testing
