#include "segment/SrTePolicySegmentListStatus.h"

namespace SrTePolicy {

const char* segmentListResolveErrorName(SegmentListResolveError e) {
   switch (e) {
   case SegmentListResolveError::success:
      return "success";
   case SegmentListResolveError::zeroLabels:
      return "zeroLabels";
   case SegmentListResolveError::platformLabelStackDepthExceeded:
      return "platformLabelStackDepthExceeded";
   }
   return "unknown";
}

} // namespace SrTePolicy
