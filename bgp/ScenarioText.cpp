#include "bgp/ScenarioText.h"

namespace SrTeBgp {

using namespace SrTePolicy;

namespace {

std::string idWords(const PolicyId& id) {
   return protocolEnumToString(id.protocol) + " " + id.key.endpoint.stringValue() + " color " +
          std::to_string(id.key.color.value) + " discriminator " +
          std::to_string(id.discriminator.value);
}

} // namespace

std::string inputLine(const PolicyInputEntry& entry) {
   std::string line = "input " + idWords(entry.key());
   line += " originator " + std::to_string(entry.originator().asn) + " " +
           entry.originator().address.stringValue();
   line += " preference " + std::to_string(entry.preference().value);
   if (!entry.bindingSid().isNull()) line += " bsid " + entry.bindingSid().stringValue();
   for (uint32_t i = 0; i < entry.segmentListCount(); ++i) {
      const WeightedSegList& l = entry.segmentList(SegmentListIndex(i));
      line += " segment-list weight " + std::to_string(l.weight.value) + " labels";
      if (l.segList.stackSize() > 0) line += " " + l.segList.stringValue();
   }
   return line;
}

std::string withdrawLine(const PolicyId& id) { return "no input " + idWords(id); }

} // namespace SrTeBgp
