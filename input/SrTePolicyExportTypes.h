// The exported segment lists: the label stack of every deduplicated segment list, by its
// SegmentListId, published for other agents of the router to read. The input stage is the only
// writer: it creates an entry when a segment list id is first registered, fills its labels and
// deletes it when the id goes away.
//
// Guarantees (checked by tests/input/SrTePolicyExportTypesTest.cpp):
//  - a segment array of up to 7 labels lives inside its SegmentList (no allocation); an eighth
//    label moves it to the heap, and it moves back when it shrinks to 7;
//  - an index outside MplsStackEntryIndex is rejected with that type's range error and changes
//    nothing;
//  - deleting an inner segment leaves a null-label slot so that later labels keep their index;
//    deleting the last slot shortens the array (and any null slots before it).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxSlab.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy::Export {

// One label of an exported stack.
struct Segment {
   Ipkit::MplsLabel mplsLabel;

   Segment() = default;
   explicit Segment(Ipkit::MplsLabel l) : mplsLabel(l) {}
   // Reads the field "mplsLabel" from text such as "{'mplsLabel': 16001}" or "mplsLabel=16001".
   // A missing field leaves the null label; a value that is not a label raises the label's range
   // error.
   template <class It>
   Segment(It first, It last) : Segment(parse(std::string(first, last))) {}
   static Segment parse(std::string_view text);

   uint32_t hash() const noexcept { return mplsLabel.hash(); }
   std::string valueToStrep() const;
   void writeTo(AttrLog::Writer& w) const { w.u32(mplsLabel.value()); }
   static Segment readFrom(AttrLog::Reader& r) { return Segment(Ipkit::MplsLabel(r.u32())); }
   friend bool operator==(const Segment&, const Segment&) = default;
};
std::ostream& operator<<(std::ostream& os, const Segment& s); // the label value

// The labels of one stack, index 0 first. Up to `inlineCapacity` live in place.
class SegmentArray {
 public:
   static constexpr uint32_t inlineCapacity = 7;

   uint32_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }
   bool isInline() const noexcept { return size_ <= inlineCapacity; }
   const Segment* begin() const noexcept { return data(); }
   const Segment* end() const noexcept { return data() + size_; }
   const Segment& operator[](uint32_t i) const noexcept { return data()[i]; }

   // New slots hold the default segment (null label).
   void resize(uint32_t n);
   void set(uint32_t i, const Segment& s) noexcept { data()[i] = s; }

 private:
   const Segment* data() const noexcept { return isInline() ? inline_.data() : heap_.get(); }
   Segment* data() noexcept { return isInline() ? inline_.data() : heap_.get(); }

   // The count first, so that it packs with the inline labels: one per exported list, 40 bytes.
   uint32_t size_ = 0;
   std::array<Segment, inlineCapacity> inline_{};
   std::unique_ptr<Segment[]> heap_; // exactly size_ labels, past the inline capacity
};

class SegmentList : public Mox::Entity, public Mox::Slabbed<SegmentList> {
 public:
   static constexpr const char* typeName = "SrTePolicy::Export::SegmentList";

   class Notifiee : public Mox::NotifieeOf<SegmentList> {
    public:
      virtual void onSize() {}
      virtual void onSegment(const Ipkit::MplsStackEntryIndex&) {}
   };

   explicit SegmentList(SegmentListId id) : name_(id) {}

   SegmentListId name() const noexcept { return name_; }

   // The number of labels, as the writer states it.
   uint8_t size() const noexcept { return size_; }
   void sizeIs(uint8_t n) { attrIs(size_, n, &Notifiee::onSize); }

   const SegmentArray& segment() const noexcept { return segment_; }
   // The default segment (null label) when the index is beyond the array.
   Segment segment(Ipkit::MplsStackEntryIndex index) const noexcept;
   Segment segment(uint32_t index) const { return segment(Ipkit::MplsStackEntryIndex(index)); }
   void segmentIs(Ipkit::MplsStackEntryIndex index, const Segment& s);
   void segmentIs(uint32_t index, const Segment& s) {
      segmentIs(Ipkit::MplsStackEntryIndex(index), s);
   }
   void segmentDel(Ipkit::MplsStackEntryIndex index);
   void segmentDel(uint32_t index) { segmentDel(Ipkit::MplsStackEntryIndex(index)); }
   // Empties the array, then notifies each former index in ascending order.
   void segmentDelAll();

   void dump(std::string& out, int depth) const;

 private:
   SegmentListId name_;
   uint8_t size_ = 0;
   SegmentArray segment_;
};

class SegmentListCollection : public Mox::Entity {
 public:
   static constexpr const char* typeName = "SrTePolicy::Export::SegmentListCollection";
   using SegmentListMap = Mox::HashMap2018<SegmentListId, Mox::Ptr<SegmentList>>;

   class Notifiee : public Mox::NotifieeOf<SegmentListCollection> {
    public:
      virtual void onSegmentList(const SegmentListId&) {}
   };

   explicit SegmentListCollection(const Mox::Name& name) : name_(name) {}
   // A fresh, empty collection under the name a backup was taken with.
   static Mox::Ptr<SegmentListCollection> nameIsFromBackup(const Mox::Name& backupName) {
      return Mox::make<SegmentListCollection>(backupName);
   }

   const Mox::Name& name() const noexcept { return name_; }

   const SegmentListMap& segmentList() const noexcept { return segmentList_; }
   Mox::Ptr<SegmentList> segmentList(SegmentListId id) const;
   // Creates the entry (notifying onSegmentList) or returns the existing one.
   Mox::Ptr<SegmentList> segmentListIs(SegmentListId id);
   void segmentListDel(SegmentListId id) { collDel(segmentList_, id, &Notifiee::onSegmentList); }
   void segmentListDelAll() { collDelAll(segmentList_, &Notifiee::onSegmentList); }

   // Lists in id order, so that dumps are stable.
   void dump(std::string& out, int depth) const;

 private:
   Mox::Name name_;
   SegmentListMap segmentList_;
};

inline Mox::Ptr<SegmentListCollection> segmentListCollectionFactory(const Mox::Name& name) {
   return Mox::make<SegmentListCollection>(name);
}

} // namespace SrTePolicy::Export
