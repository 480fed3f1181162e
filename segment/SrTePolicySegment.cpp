#include "segment/SrTePolicySegment.h"

#include "platform/Assert.h"
#include "segment/SrTePolicySegmentResolver.h"

namespace SrTePolicy {

const char* segmentTypeName(SegmentType t) {
   switch (t) {
   case SegmentType::invalid:
      return "invalid";
   case SegmentType::mplsLabel:
      return "mplsLabel";
   }
   return "unknown";
}

std::ostream& operator<<(std::ostream& os, const SegmentId& id) { return os << id.value; }

bool SegmentBase::compare(const Kiln::DedupHandle& other) const {
   return segmentCompare(*fromDedupHandle(&other));
}

bool SegmentBase::segmentCompare(const SegmentBase&) const {
   SRTE_ASSERT(0, "0");
   return false;
}

Mox::Ptr<const SegmentResolveResult> SegmentBase::resolveSegment(const SegmentResolver&) const {
   SRTE_ASSERT(0, "0");
   return nullptr;
}

std::string SegmentBase::stringValue() const {
   return std::string(segmentTypeName(type_)) + " segmentId: " + segmentId_.stringValue();
}

bool SegmentMplsLabel::segmentCompare(const SegmentBase& other) const {
   if (other.type() != type()) return false;
   return static_cast<const SegmentMplsLabel&>(other).label_ == label_;
}

uint32_t SegmentMplsLabel::hash() const { return contentHash(type(), label_); }

uint32_t SegmentMplsLabel::contentHash(SegmentType type, Ipkit::MplsLabel label) noexcept {
   uint32_t h = 0;
   auto mixIn = [&h](uint32_t word) {
      for (int i = 0; i < 4; ++i) {
         h += (word >> (8 * i)) & 0xff;
         h += h << 10;
         h ^= h >> 6;
      }
   };
   mixIn(static_cast<uint32_t>(type));
   mixIn(label.value());
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   return h;
}

std::string SegmentMplsLabel::stringValue() const {
   return "label " + label_.stringValue() + " segmentId: " + segmentId().stringValue();
}

Mox::Ptr<SegmentMplsLabel> SegmentMplsLabel::dedup(SegmentDedupTable& table) {
   auto canonical = table.dedupTable().insert(Mox::Ptr<Kiln::DedupHandle>(this));
   return Mox::Ptr<SegmentMplsLabel>(static_cast<SegmentMplsLabel*>(canonical.get()));
}

void NotifyingSegmentCollection::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cNotifyingSegmentCollection: uniqueIds:%d\n", depth, ' ',
                static_cast<int>(uniqueId_.value));
}

Mox::Ptr<SegmentMplsLabel> SegmentDedupTable::lookupByLabel(Ipkit::MplsLabel label) const {
   Kiln::DedupProbe probe{SegmentMplsLabel::contentHash(SegmentType::mplsLabel, label), &label,
                          [](const void* content, const Kiln::DedupHandle& entry) {
                             const auto& s = *SegmentBase::fromDedupHandle(&entry);
                             return s.type() == SegmentType::mplsLabel &&
                                    static_cast<const SegmentMplsLabel&>(s).label() ==
                                        *static_cast<const Ipkit::MplsLabel*>(content);
                          }};
   auto found = dedupTable().lookup(probe);
   return Mox::Ptr<SegmentMplsLabel>(static_cast<SegmentMplsLabel*>(found.get()));
}

void SegmentDedupTable::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cSegmentDedupTable: entries #%zu\n", depth, ' ', dedupTable().size());
}

} // namespace SrTePolicy
