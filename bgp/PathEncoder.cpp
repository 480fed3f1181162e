#include "bgp/PathEncoder.h"

#include <stdexcept>

#include "attribute.pb.h"
#include "bgp/PathDecoder.h"
#include "gobgp.pb.h"

namespace SrTeBgp {

using namespace SrTePolicy;

namespace {

std::string addressBytes(const Ipkit::IpGenAddr& a) {
   return std::string(reinterpret_cast<const char*>(a.bytes()),
                      a.af() == Ipkit::IpGenAddr::ipv4 ? 4 : 16);
}

std::string ipv6Bytes(const std::string& text) {
   std::optional<Ipkit::IpGenAddr> a = Ipkit::IpGenAddr::parse(text);
   if (!a || a->af() != Ipkit::IpGenAddr::ipv6)
      throw std::invalid_argument("'" + text + "' is not an IPv6 address");
   return addressBytes(*a);
}

uint32_t checkedLabel(uint32_t label) {
   if (label > Ipkit::MplsLabel::maxLabel)
      throw std::invalid_argument("label " + std::to_string(label) +
                                  " is beyond 20 bits (0 to 1048575)");
   return label;
}

void setNlriAndFamily(apipb::Path& path, const PolicyId& id) {
   apipb::SRPolicyNLRI nlri;
   nlri.set_endpoint(addressBytes(id.key.endpoint));
   // The NLRI length in bits: distinguisher, color, endpoint.
   nlri.set_length(64 + 8 * static_cast<uint32_t>(nlri.endpoint().size()));
   nlri.set_color(id.key.color.value);
   nlri.set_distinguisher(id.discriminator.value);
   path.mutable_nlri()->PackFrom(nlri);
   path.mutable_family()->set_afi(id.key.endpoint.af() == Ipkit::IpGenAddr::ipv4
                                      ? apipb::Family::AFI_IP
                                      : apipb::Family::AFI_IP6);
   path.mutable_family()->set_safi(apipb::Family::SAFI_SR_POLICY);
}

} // namespace

apipb::Path encodePath(const PolicyAdvert& advert, const std::string& nextHop) {
   apipb::Path path;
   setNlriAndFamily(path, advert.id);

   apipb::OriginAttribute origin;
   origin.set_origin(0);
   path.add_pattrs()->PackFrom(origin);
   apipb::NextHopAttribute nh;
   nh.set_next_hop(nextHop);
   path.add_pattrs()->PackFrom(nh);

   apipb::TunnelEncapTLV tlv;
   tlv.set_type(tunnelTypeSrPolicy);
   if (advert.preference) {
      apipb::TunnelEncapSubTLVSRPreference p;
      p.set_preference(*advert.preference);
      tlv.add_tlvs()->PackFrom(p);
   }
   if (advert.bindingSid || advert.srv6BindingSid) {
      apipb::TunnelEncapSubTLVSRBindingSID b;
      if (advert.srv6BindingSid) {
         apipb::SRv6BindingSID v6;
         v6.set_sid(ipv6Bytes(*advert.srv6BindingSid));
         b.mutable_bsid()->PackFrom(v6);
      } else {
         const uint32_t l = checkedLabel(*advert.bindingSid);
         apipb::SRBindingSID mpls;
         mpls.set_sid(std::string{static_cast<char>(l >> 24), static_cast<char>(l >> 16),
                                  static_cast<char>(l >> 8), static_cast<char>(l)});
         b.mutable_bsid()->PackFrom(mpls);
      }
      tlv.add_tlvs()->PackFrom(b);
   }
   for (const PolicyAdvert::List& list : advert.lists) {
      apipb::TunnelEncapSubTLVSRSegmentList l;
      l.mutable_weight()->set_weight(list.weight);
      for (uint32_t label : list.labels) {
         apipb::SegmentTypeA a;
         a.mutable_flags()->set_s_flag(false);
         a.set_label(checkedLabel(label) << 12);
         l.add_segments()->PackFrom(a);
      }
      for (const std::string& sid : list.srv6) {
         apipb::SegmentTypeB b;
         b.mutable_flags()->set_s_flag(false);
         b.set_sid(ipv6Bytes(sid));
         l.add_segments()->PackFrom(b);
      }
      tlv.add_tlvs()->PackFrom(l);
   }
   apipb::TunnelEncapAttribute encap;
   *encap.add_tlvs() = tlv;
   path.add_pattrs()->PackFrom(encap);
   return path;
}

apipb::Path encodeWithdrawal(const PolicyId& id) {
   apipb::Path path;
   setNlriAndFamily(path, id);
   path.set_is_withdraw(true);
   return path;
}

} // namespace SrTeBgp
