// Fuzz target: a PolicyInputEntry read from bytes another process wrote. A buffer is refused
// (nothing changed) or accepted; an accepted record serializes back to the very bytes it was read
// from, and those deserialize to an equal record. Readers print and edit what they accept.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "types/SrTePolicyInput.h"

using SrTePolicy::PolicyInputEntry;

namespace {
[[noreturn]] void fail(const char* what) {
   std::fprintf(stderr, "FUZZ FAILURE: %s\n", what);
   std::abort();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   // Start from a record with content, so that a refusal that half-wrote it shows.
   PolicyInputEntry e(SrTePolicy::PolicyId{});
   e.preferenceIs(SrTePolicy::Preference(7));
   e.segmentListIs(SrTePolicy::SegmentListIndex(2), SrTePolicy::WeightedSegList());
   const PolicyInputEntry untouched = e;

   const size_t inMemory = PolicyInputEntry::deserializeLen(data, size);
   const bool accepted = e.deserialize(data, size);
   if (accepted != (inMemory != 0)) fail("deserialize and deserializeLen disagree");
   if (!accepted) {
      if (std::memcmp(&e, &untouched, sizeof e) != 0) fail("a refused buffer changed the record");
      return 0;
   }
   if (inMemory != PolicyInputEntry::maxLen) fail("deserializeLen is not the record's size");
   if (!e.isValidRecord()) fail("accepted a record whose count passes the capacity");

   const size_t len = e.serializeLen();
   if (len != PolicyInputEntry::headerLen + PolicyInputEntry::slotLen * e.segmentListCount() ||
       len > PolicyInputEntry::maxLen || len > size) {
      fail("serializeLen does not follow the count");
   }
   uint8_t bytes[PolicyInputEntry::maxLen];
   if (e.serialize(bytes, len - 1) != 0) fail("serialized into a buffer too short");
   if (e.serialize(bytes, sizeof bytes) != len) fail("serialize did not write serializeLen()");
   if (std::memcmp(bytes, data, len) != 0) fail("serialized bytes differ from those read");

   PolicyInputEntry again;
   if (again.deserialize(bytes, len - 1)) fail("accepted a buffer shorter than its count");
   if (!again.deserialize(bytes, len)) fail("refused its own serialization");
   if (!(again == e)) fail("round trip changed the record");

   // What readers do with a record: print it, then edit a copy.
   std::string text = e.valueToStrep();
   e.dump(text, 0);
   if (e.segmentListCount() > 0) {
      again.segmentListDel(SrTePolicy::SegmentListIndex(data[0] % e.segmentListCount()));
      if (again.segmentListCount() != e.segmentListCount() - 1) fail("segmentListDel count");
   }
   again.segmentListDelAll();
   if (again.segmentListCount() != 0 || again.serializeLen() != PolicyInputEntry::headerLen) {
      fail("segmentListDelAll left slots");
   }
   return 0;
}
