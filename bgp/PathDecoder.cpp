#include "bgp/PathDecoder.h"

#include <array>
#include <cstring>

#include "attribute.pb.h"
#include "gobgp.pb.h"

namespace SrTeBgp {

using namespace SrTePolicy;

namespace {

uint32_t bigEndian32(const std::string& bytes) {
   const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
   return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

// A label stack entry holds the label in its top 20 bits; the rest is TC, S and TTL.
std::optional<Ipkit::MplsLabel> labelOfStackEntry(uint64_t entry) {
   const uint64_t label = entry >> 12;
   if (label > Ipkit::MplsLabel::maxLabel) return std::nullopt;
   return Ipkit::MplsLabel(label);
}

std::string listName(int n) { return "segment list " + std::to_string(n); }

// The sub-TLV's type name as an operator would read it, for reports about what we skip.
std::string anyTypeName(const google::protobuf::Any& any) {
   const std::string& url = any.type_url();
   const size_t slash = url.rfind('/');
   return slash == std::string::npos ? url : url.substr(slash + 1);
}

void decodeOriginator(const apipb::Path& path, PolicyInputEntry& entry,
                      std::vector<std::string>& reports) {
   std::string identifier = path.source_id();
   for (const google::protobuf::Any& a : path.pattrs()) {
      apipb::OriginatorIdAttribute originatorId;
      if (a.Is<apipb::OriginatorIdAttribute>() && a.UnpackTo(&originatorId)) {
         identifier = originatorId.id();
         break;
      }
   }
   std::optional<Ipkit::IpGenAddr> address = Ipkit::IpGenAddr::parse(identifier);
   if (!address) {
      reports.push_back("originator: identifier '" + identifier +
                        "' is not an address; 0.0.0.0 used");
      address = Ipkit::IpGenAddr();
   }
   entry.originatorIs(Originator(path.source_asn(), *address));
}

void decodeBindingSid(const apipb::TunnelEncapSubTLVSRBindingSID& tlv, PolicyInputEntry& entry,
                      std::vector<std::string>& reports) {
   apipb::SRBindingSID mpls;
   if (tlv.bsid().Is<apipb::SRBindingSID>() && tlv.bsid().UnpackTo(&mpls)) {
      if (mpls.sid().empty()) return; // a binding SID sub-TLV without a SID: none asked for
      // The speaker reports a received SRv6 binding SID in this same message, by its length.
      if (mpls.sid().size() == 16) {
         reports.push_back("SRv6 binding SID is not supported; no binding SID");
         return;
      }
      if (mpls.sid().size() != 4) {
         reports.push_back("binding SID of " + std::to_string(mpls.sid().size()) +
                           " bytes is not an MPLS label; no binding SID");
         return;
      }
      if (std::optional<Ipkit::MplsLabel> l = labelOfStackEntry(bigEndian32(mpls.sid())))
         entry.bindingSidIs(*l);
      return;
   }
   if (tlv.bsid().Is<apipb::SRv6BindingSID>()) {
      reports.push_back("SRv6 binding SID is not supported; no binding SID");
      return;
   }
   reports.push_back("binding SID of unreadable type '" + anyTypeName(tlv.bsid()) +
                     "'; no binding SID");
}

// One sub-TLV 128; nullopt (with a report) when the list cannot be used.
std::optional<WeightedSegList> decodeSegmentList(const apipb::TunnelEncapSubTLVSRSegmentList& tlv,
                                                 int n, std::vector<std::string>& reports) {
   WeightedSegList list;
   if (tlv.has_weight()) {
      if (tlv.weight().weight() == 0) {
         reports.push_back(listName(n) + ": weight 0 is not allowed; list left out");
         return std::nullopt;
      }
      list.weight = Weight(tlv.weight().weight());
   }
   if (static_cast<uint32_t>(tlv.segments_size()) > Ipkit::MplsLabelOperation::capacity) {
      reports.push_back(listName(n) + ": " + std::to_string(tlv.segments_size()) +
                        " segments, more than a label stack holds (" +
                        std::to_string(Ipkit::MplsLabelOperation::capacity) + "); list left out");
      return std::nullopt;
   }
   uint32_t i = 0;
   for (const google::protobuf::Any& s : tlv.segments()) {
      const std::string which = listName(n) + ", segment " + std::to_string(i + 1) + ": ";
      apipb::SegmentTypeA a;
      if (s.Is<apipb::SegmentTypeA>()) {
         if (!s.UnpackTo(&a)) {
            reports.push_back(which + "an MPLS label segment that cannot be read; list left out");
            return std::nullopt;
         }
         std::optional<Ipkit::MplsLabel> label = labelOfStackEntry(a.label());
         if (!label) {
            reports.push_back(which + "label out of the 20-bit range; list left out");
            return std::nullopt;
         }
         list.segList.labelIs(Ipkit::MplsStackEntryIndex(i), *label);
      } else if (s.Is<apipb::SegmentTypeB>()) {
         reports.push_back(which + "type B (SRv6 SID) is not supported; list left out");
         return std::nullopt;
      } else {
         reports.push_back(which + "segment type '" + anyTypeName(s) +
                           "' is not supported; list left out");
         return std::nullopt;
      }
      ++i;
   }
   return list;
}

void decodeSrPolicyTlv(const apipb::TunnelEncapTLV& tlv, PolicyInputEntry& entry,
                       std::vector<std::string>& reports) {
   bool preferenceSeen = false, bindingSidSeen = false;
   int n = 0;
   uint32_t kept = 0;
   for (const google::protobuf::Any& sub : tlv.tlvs()) {
      if (sub.Is<apipb::TunnelEncapSubTLVSRPreference>()) {
         apipb::TunnelEncapSubTLVSRPreference p;
         if (preferenceSeen || !sub.UnpackTo(&p)) continue;
         preferenceSeen = true;
         entry.preferenceIs(Preference(p.preference()));
      } else if (sub.Is<apipb::TunnelEncapSubTLVSRBindingSID>()) {
         apipb::TunnelEncapSubTLVSRBindingSID b;
         if (bindingSidSeen) continue;
         bindingSidSeen = true;
         if (sub.UnpackTo(&b)) {
            decodeBindingSid(b, entry, reports);
         } else {
            reports.push_back("binding SID sub-TLV cannot be read; no binding SID");
         }
      } else if (sub.Is<apipb::TunnelEncapSubTLVSRSegmentList>()) {
         ++n;
         apipb::TunnelEncapSubTLVSRSegmentList l;
         if (!sub.UnpackTo(&l)) {
            reports.push_back(listName(n) + ": cannot be read; list left out");
            continue;
         }
         std::optional<WeightedSegList> list = decodeSegmentList(l, n, reports);
         if (!list) continue;
         if (kept == PolicyInputEntry::segmentListCapacity) {
            reports.push_back(listName(n) + ": a policy holds at most " +
                              std::to_string(PolicyInputEntry::segmentListCapacity) +
                              " segment lists; list left out");
            continue;
         }
         entry.segmentListIs(SegmentListIndex(kept++), *list);
      }
      // Other sub-TLVs (name, priority, ENLP, ...) do not feed the record.
   }
}

} // namespace

std::optional<PolicyId> decodePolicyId(const apipb::Path& path, std::vector<std::string>& reports) {
   apipb::SRPolicyNLRI nlri;
   if (!path.nlri().Is<apipb::SRPolicyNLRI>() || !path.nlri().UnpackTo(&nlri)) {
      reports.push_back("not an SR Policy route (NLRI '" + anyTypeName(path.nlri()) + "')");
      return std::nullopt;
   }
   const std::string& ep = nlri.endpoint();
   EndPoint endpoint;
   if (ep.size() == 4) {
      endpoint = Ipkit::IpGenAddr::v4(bigEndian32(ep));
   } else if (ep.size() == 16) {
      std::array<uint8_t, 16> bytes;
      std::memcpy(bytes.data(), ep.data(), 16);
      endpoint = Ipkit::IpGenAddr::v6(bytes);
   } else {
      reports.push_back("endpoint of " + std::to_string(ep.size()) +
                        " bytes is neither IPv4 nor IPv6; route ignored");
      return std::nullopt;
   }
   return PolicyId(PolicyKey(endpoint, Color(nlri.color())), Protocol::bgp,
                   Discriminator(nlri.distinguisher()));
}

PathDecoding decodePath(const apipb::Path& path) {
   PathDecoding out;
   out.withdraw = path.is_withdraw();
   out.id = decodePolicyId(path, out.reports);
   if (!out.id || out.withdraw) return out;

   PolicyInputEntry entry(*out.id);
   decodeOriginator(path, entry, out.reports);
   bool srPolicySeen = false, encapSeen = false;
   for (const google::protobuf::Any& a : path.pattrs()) {
      if (!a.Is<apipb::TunnelEncapAttribute>()) continue;
      apipb::TunnelEncapAttribute encap;
      if (!a.UnpackTo(&encap)) {
         out.reports.push_back("Tunnel Encapsulation attribute cannot be read");
         continue;
      }
      encapSeen = true;
      for (const apipb::TunnelEncapTLV& tlv : encap.tlvs()) {
         if (tlv.type() != tunnelTypeSrPolicy) continue;
         if (srPolicySeen) {
            out.reports.push_back("more than one SR Policy tunnel TLV; only the first used");
            continue;
         }
         srPolicySeen = true;
         decodeSrPolicyTlv(tlv, entry, out.reports);
      }
   }
   if (!encapSeen) {
      out.reports.push_back("no Tunnel Encapsulation attribute; no segment list");
   } else if (!srPolicySeen) {
      out.reports.push_back("no SR Policy tunnel TLV; no segment list");
   }
   if (entry.segmentListCount() == 0 && srPolicySeen)
      out.reports.push_back("no usable segment list");
   out.entry = entry;
   return out;
}

} // namespace SrTeBgp
