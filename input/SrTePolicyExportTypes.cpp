#include "input/SrTePolicyExportTypes.h"

#include <algorithm>
#include <charconv>

namespace SrTePolicy::Export {

// ---- Segment

Segment Segment::parse(std::string_view text) {
   constexpr std::string_view field = "mplsLabel";
   size_t at = text.find(field);
   if (at == std::string_view::npos) return Segment();
   size_t pos = at + field.size();
   while (pos < text.size() &&
          std::string_view(" \t'\":=").find(text[pos]) != std::string_view::npos)
      ++pos;
   uint64_t value = 0;
   const char* first = text.data() + pos;
   const char* last = text.data() + text.size();
   auto [end, ec] = std::from_chars(first, last, value);
   if (ec != std::errc() || end == first) throw Mox::RangeError(Ipkit::MplsLabel::rangeMessage);
   return Segment(Ipkit::MplsLabel(value));
}

std::string Segment::valueToStrep() const {
   return "Value('SrTePolicy::Export::Segment', ** {'mplsLabel': " + mplsLabel.stringValue() + "})";
}

std::ostream& operator<<(std::ostream& os, const Segment& s) { return os << s.mplsLabel.value(); }

// ---- SegmentArray

void SegmentArray::resize(uint32_t n) {
   if (n <= inlineCapacity) {
      if (!isInline()) {
         std::copy_n(heap_.get(), n, inline_.begin());
         heap_.reset();
      } else {
         std::fill(inline_.begin() + size_, inline_.begin() + std::max(size_, n), Segment());
      }
      size_ = n;
      return;
   }
   auto grown = std::make_unique<Segment[]>(n); // new slots hold the default segment
   std::copy_n(data(), std::min(size_, n), grown.get());
   heap_ = std::move(grown);
   size_ = n;
}

// ---- SegmentList

Segment SegmentList::segment(Ipkit::MplsStackEntryIndex index) const noexcept {
   return index.value < segment_.size() ? segment_[index.value] : Segment();
}

void SegmentList::segmentIs(Ipkit::MplsStackEntryIndex index, const Segment& s) {
   const uint32_t i = index.value;
   if (i < segment_.size()) {
      if (segment_[i] == s) return;
   } else {
      segment_.resize(i + 1);
   }
   segment_.set(i, s);
   notify(&Notifiee::onSegment, index);
}

void SegmentList::segmentDel(Ipkit::MplsStackEntryIndex index) {
   const uint32_t i = index.value;
   if (i >= segment_.size()) return;
   if (i + 1 == segment_.size()) {
      // Holes left by earlier inner deletions go with the last slot.
      uint32_t n = i;
      while (n > 0 && segment_[n - 1] == Segment()) --n;
      segment_.resize(n);
   } else {
      if (segment_[i] == Segment()) return;
      segment_.set(i, Segment());
   }
   notify(&Notifiee::onSegment, index);
}

void SegmentList::segmentDelAll() {
   const uint32_t n = segment_.size();
   segment_.resize(0);
   for (uint32_t i = 0; i < n; ++i) notify(&Notifiee::onSegment, Ipkit::MplsStackEntryIndex(i));
}

void SegmentList::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cname: %u\n", depth, ' ', name_.value);
   Mox::appendf(out, "%*csize: %u\n", depth, ' ', unsigned{size_});
   Mox::appendf(out, "%*csegments: [", depth, ' ');
   for (const Segment& s : segment_) Mox::appendf(out, "%u ", s.mplsLabel.value());
   out += "]\n";
}

// ---- SegmentListCollection

Mox::Ptr<SegmentList> SegmentListCollection::segmentList(SegmentListId id) const {
   auto it = segmentList_.find(id);
   return it == segmentList_.end() ? nullptr : it->second;
}

Mox::Ptr<SegmentList> SegmentListCollection::segmentListIs(SegmentListId id) {
   return collIsNew(
       segmentList_, id, [id] { return Mox::make<SegmentList>(id); }, &Notifiee::onSegmentList);
}

void SegmentListCollection::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*csegmentList #%u \n", depth, ' ',
                static_cast<unsigned>(segmentList_.size()));
   std::vector<const SegmentList*> sorted;
   sorted.reserve(segmentList_.size());
   for (const auto& kv : segmentList_) sorted.push_back(kv.second.get());
   std::sort(sorted.begin(), sorted.end(),
             [](const SegmentList* a, const SegmentList* b) { return a->name() < b->name(); });
   for (const SegmentList* l : sorted) l->dump(out, depth + 2);
}

} // namespace SrTePolicy::Export
