// The decoder against paths built as the BGP speaker's API hands them over: label stack entries
// (label << 12) in segments, the binding SID's 4 wire bytes, raw endpoint bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "attribute.pb.h"
#include "bgp/PathDecoder.h"
#include "gobgp.pb.h"

namespace {

using namespace SrTePolicy;
using SrTeBgp::decodePath;
using SrTeBgp::PathDecoding;

Ipkit::IpGenAddr addr(const char* text) { return *Ipkit::IpGenAddr::parse(text); }

std::string bytesOf(const char* text) {
   const Ipkit::IpGenAddr a = addr(text);
   const size_t n = a.af() == Ipkit::IpGenAddr::ipv4 ? 4 : 16;
   return std::string(reinterpret_cast<const char*>(a.bytes()), n);
}

std::string wire32(uint32_t v) {
   return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                      static_cast<char>(v >> 8), static_cast<char>(v)};
}

// One sub-TLV 128 as the speaker reports it. A weight of 0 here means "no Weight sub-TLV".
apipb::TunnelEncapSubTLVSRSegmentList segmentList(std::vector<uint32_t> labels,
                                                  uint32_t weight = 0) {
   apipb::TunnelEncapSubTLVSRSegmentList l;
   if (weight) l.mutable_weight()->set_weight(weight);
   for (uint32_t label : labels) {
      apipb::SegmentTypeA a;
      a.mutable_flags()->set_s_flag(true);
      a.set_label(label << 12);
      l.add_segments()->PackFrom(a);
   }
   return l;
}

apipb::TunnelEncapSubTLVSRBindingSID mplsBindingSid(std::string sid) {
   apipb::SRBindingSID b;
   b.set_sid(std::move(sid));
   apipb::TunnelEncapSubTLVSRBindingSID tlv;
   tlv.mutable_bsid()->PackFrom(b);
   return tlv;
}

// A path received from a peer; sub-TLVs are added to its SR Policy TLV with `add`.
class RouteBuilder {
 public:
   RouteBuilder(const char* endpoint, uint32_t color, uint32_t distinguisher) {
      apipb::SRPolicyNLRI nlri;
      nlri.set_endpoint(bytesOf(endpoint));
      nlri.set_length(nlri.endpoint().size() == 4 ? 96 : 192);
      nlri.set_color(color);
      nlri.set_distinguisher(distinguisher);
      path_.mutable_nlri()->PackFrom(nlri);
      path_.set_source_asn(65000);
      path_.set_source_id("192.0.2.1");
      path_.set_neighbor_ip("127.0.0.1");
      tlv_.set_type(SrTeBgp::tunnelTypeSrPolicy);
   }
   template <class SubTlv>
   RouteBuilder& add(const SubTlv& sub) {
      tlv_.add_tlvs()->PackFrom(sub);
      return *this;
   }
   RouteBuilder& preference(uint32_t p) {
      apipb::TunnelEncapSubTLVSRPreference pref;
      pref.set_preference(p);
      return add(pref);
   }
   RouteBuilder& reflectedBy(const char* originatorId) {
      apipb::OriginatorIdAttribute o;
      o.set_id(originatorId);
      path_.add_pattrs()->PackFrom(o);
      return *this;
   }
   apipb::Path path(bool withEncap = true) const {
      apipb::Path p = path_;
      apipb::NextHopAttribute nh;
      nh.set_next_hop("127.0.0.1");
      p.add_pattrs()->PackFrom(nh);
      if (withEncap) {
         apipb::TunnelEncapAttribute encap;
         *encap.add_tlvs() = tlv_;
         p.add_pattrs()->PackFrom(encap);
      }
      return p;
   }

 private:
   apipb::Path path_;
   apipb::TunnelEncapTLV tlv_;
};

WeightedSegList wsl(uint32_t weight, std::vector<uint32_t> labels) {
   WeightedSegList l;
   l.weight = Weight(weight);
   for (uint32_t i = 0; i < labels.size(); ++i)
      l.segList.labelIs(Ipkit::MplsStackEntryIndex(i), Ipkit::MplsLabel(labels[i]));
   return l;
}

PolicyId bgpId(const char* endpoint, uint32_t color, uint32_t distinguisher) {
   return PolicyId(PolicyKey(addr(endpoint), Color(color)), Protocol::bgp,
                   Discriminator(distinguisher));
}

bool reported(const PathDecoding& d, const std::string& part) {
   return std::any_of(d.reports.begin(), d.reports.end(),
                      [&](const std::string& r) { return r.find(part) != std::string::npos; });
}

TEST(PathDecoder, Ipv4RouteWithEveryFieldBecomesTheSameRecordAsTyped) {
   const apipb::Path path = RouteBuilder("10.0.0.3", 7, 12)
                                .preference(300)
                                .add(mplsBindingSid(wire32(900200u << 12)))
                                .add(segmentList({16003}, 2))
                                .add(segmentList({16004, 24001, 3}))
                                .path();
   const PathDecoding d = decodePath(path);
   ASSERT_TRUE(d.entry);
   EXPECT_TRUE(d.reports.empty()) << d.reports.front();
   EXPECT_FALSE(d.withdraw);

   PolicyInputEntry expected(bgpId("10.0.0.3", 7, 12));
   expected.originatorIs(Originator(65000, addr("192.0.2.1")));
   expected.preferenceIs(Preference(300));
   expected.bindingSidIs(Ipkit::MplsLabel(900200));
   expected.segmentListIs(SegmentListIndex(0), wsl(2, {16003}));
   expected.segmentListIs(SegmentListIndex(1), wsl(1, {16004, 24001, 3}));
   EXPECT_EQ(*d.entry, expected) << d.entry->valueToStrep();

   // The speaker reports the whole label stack entry: TC, S and TTL bits are not the label, and
   // the largest label survives the shift.
   apipb::TunnelEncapSubTLVSRSegmentList withBits;
   apipb::SegmentTypeA a;
   a.set_label(1048575u << 12 | 0x1ff);
   withBits.add_segments()->PackFrom(a);
   const PathDecoding e = decodePath(RouteBuilder("10.0.0.3", 7, 13)
                                         .add(mplsBindingSid(wire32(16u << 12 | 0x100)))
                                         .add(withBits)
                                         .path());
   ASSERT_TRUE(e.entry);
   EXPECT_EQ(e.entry->bindingSid(), Ipkit::MplsLabel(16));
   ASSERT_EQ(e.entry->segmentListCount(), 1u);
   EXPECT_EQ(e.entry->segmentList(SegmentListIndex(0)), wsl(1, {1048575}));
}

TEST(PathDecoder, Ipv6ReflectedRouteWithDefaultsAndSixteenLists) {
   RouteBuilder b("2001:db8::1", 4294967295u, 4294967295u);
   b.reflectedBy("192.0.2.77");
   for (uint32_t i = 0; i < 16; ++i) b.add(segmentList({16001 + i, 17001 + i}, i + 1));
   const PathDecoding d = decodePath(b.path());
   ASSERT_TRUE(d.entry);
   EXPECT_TRUE(d.reports.empty()) << d.reports.front();
   EXPECT_EQ(d.entry->key(), bgpId("2001:db8::1", 4294967295u, 4294967295u));
   // Reflected: the originating node is the ORIGINATOR_ID, not the reflector that sent it.
   EXPECT_EQ(d.entry->originator(), Originator(65000, addr("192.0.2.77")));
   EXPECT_EQ(d.entry->preference(), Preference(100));
   EXPECT_TRUE(d.entry->bindingSid().isNull());
   ASSERT_EQ(d.entry->segmentListCount(), 16u);
   for (uint32_t i = 0; i < 16; ++i)
      EXPECT_EQ(d.entry->segmentList(SegmentListIndex(i)), wsl(i + 1, {16001 + i, 17001 + i}));

   // The record survives the byte form the shared tables carry.
   char buffer[PolicyInputEntry::maxLen];
   const size_t n = d.entry->serialize(buffer, sizeof buffer);
   ASSERT_EQ(n, d.entry->serializeLen());
   PolicyInputEntry back;
   ASSERT_TRUE(back.deserialize(buffer, n));
   EXPECT_EQ(back, *d.entry);
}

TEST(PathDecoder, UnsupportedContentIsLeftOutReportedAndLosesNothingElse) {
   // An SRv6 binding SID, a list with a type-B segment between two good lists, 17 usable lists.
   apipb::SRv6BindingSID v6;
   v6.set_sid(bytesOf("2001:db8::99"));
   apipb::TunnelEncapSubTLVSRBindingSID bsid;
   bsid.mutable_bsid()->PackFrom(v6);
   apipb::TunnelEncapSubTLVSRSegmentList srv6List = segmentList({16001}, 5);
   apipb::SegmentTypeB typeB;
   typeB.set_sid(bytesOf("2001:db8::42"));
   srv6List.add_segments()->PackFrom(typeB);

   RouteBuilder b("10.0.0.4", 9, 1);
   b.preference(200).add(bsid).add(segmentList({20000}, 3)).add(srv6List);
   for (uint32_t i = 1; i < 17; ++i) b.add(segmentList({20000 + i}));
   const PathDecoding d = decodePath(b.path());
   ASSERT_TRUE(d.entry);
   EXPECT_TRUE(d.entry->bindingSid().isNull());
   EXPECT_EQ(d.entry->preference(), Preference(200));
   ASSERT_EQ(d.entry->segmentListCount(), 16u);
   // The type-B list is skipped without shifting the others; the 17th usable list is cut.
   EXPECT_EQ(d.entry->segmentList(SegmentListIndex(0)), wsl(3, {20000}));
   for (uint32_t i = 1; i < 16; ++i)
      EXPECT_EQ(d.entry->segmentList(SegmentListIndex(i)), wsl(1, {20000 + i}));
   EXPECT_EQ(d.reports.size(), 3u);
   EXPECT_TRUE(reported(d, "SRv6 binding SID"));
   EXPECT_TRUE(reported(d, "segment list 2, segment 2: type B"));
   EXPECT_TRUE(reported(d, "segment list 18: a policy holds at most 16"));

   // A received SRv6 binding SID comes as the MPLS message with 16 bytes: reported as SRv6 too.
   const PathDecoding received = decodePath(RouteBuilder("10.0.0.4", 9, 4)
                                                .add(mplsBindingSid(bytesOf("2001:db8::99")))
                                                .add(segmentList({16001}))
                                                .path());
   ASSERT_TRUE(received.entry);
   EXPECT_TRUE(received.entry->bindingSid().isNull());
   EXPECT_EQ(received.entry->segmentListCount(), 1u);
   ASSERT_EQ(received.reports.size(), 1u);
   EXPECT_TRUE(reported(received, "SRv6 binding SID"));

   // Only unusable lists: the record is still written, without lists, for the core to refuse.
   apipb::TunnelEncapSubTLVSRSegmentList onlyB;
   onlyB.add_segments()->PackFrom(typeB);
   const PathDecoding none = decodePath(RouteBuilder("10.0.0.4", 9, 2).add(onlyB).path());
   ASSERT_TRUE(none.entry);
   EXPECT_EQ(none.entry->segmentListCount(), 0u);
   EXPECT_TRUE(reported(none, "no usable segment list"));

   // The speaker keeps a route whose attribute it dropped: a record without lists, reported.
   const PathDecoding bare = decodePath(RouteBuilder("10.0.0.4", 9, 3).path(false));
   ASSERT_TRUE(bare.entry);
   EXPECT_EQ(bare.entry->segmentListCount(), 0u);
   EXPECT_TRUE(reported(bare, "no Tunnel Encapsulation attribute"));
}

TEST(PathDecoder, MalformedListsAndSidsAreRefusedOneByOne) {
   // Each bad list is left out on its own; the good one after them keeps its place as the first.
   apipb::TunnelEncapSubTLVSRSegmentList unreadable;
   google::protobuf::Any garbage;
   garbage.set_type_url("type.googleapis.com/apipb.SegmentTypeA");
   garbage.set_value("\xff\xff\xff");
   *unreadable.add_segments() = garbage;
   const PathDecoding d =
       decodePath(RouteBuilder("10.0.0.5", 1, 1)
                      .add(mplsBindingSid(std::string("\x01\x02", 2))) // neither empty nor 4 bytes
                      .add(unreadable)
                      .add(segmentList({16001}, 0))                  // no weight: 1
                      .add(segmentList({1, 2, 3, 4, 5, 6, 7, 8, 9})) // deeper than a stack holds
                      .add([] {
                         auto l = segmentList({16002});
                         l.mutable_weight()->set_weight(0); // a Weight sub-TLV saying 0
                         return l;
                      }())
                      .add(segmentList({16003, 16004, 16005, 16006, 16007, 16008, 16009, 16010}, 4))
                      .path());
   ASSERT_TRUE(d.entry);
   EXPECT_TRUE(d.entry->bindingSid().isNull());
   ASSERT_EQ(d.entry->segmentListCount(), 2u);
   EXPECT_EQ(d.entry->segmentList(SegmentListIndex(0)), wsl(1, {16001}));
   EXPECT_EQ(d.entry->segmentList(SegmentListIndex(1)),
             wsl(4, {16003, 16004, 16005, 16006, 16007, 16008, 16009, 16010}));
   EXPECT_EQ(d.reports.size(), 4u);
   EXPECT_TRUE(reported(d, "binding SID of 2 bytes"));
   EXPECT_TRUE(reported(d, "segment list 1, segment 1: an MPLS label segment that cannot be read"));
   EXPECT_TRUE(reported(d, "segment list 3: 9 segments"));
   EXPECT_TRUE(reported(d, "segment list 4: weight 0"));

   // A binding SID sub-TLV without a SID asks for none and is not a fault.
   const PathDecoding empty = decodePath(
       RouteBuilder("10.0.0.5", 1, 2).add(mplsBindingSid("")).add(segmentList({16001})).path());
   ASSERT_TRUE(empty.entry);
   EXPECT_TRUE(empty.entry->bindingSid().isNull());
   EXPECT_TRUE(empty.reports.empty());
}

TEST(PathDecoder, RoutesThatNameNoPolicyAndWithdrawals) {
   apipb::Path other = RouteBuilder("10.0.0.6", 1, 1).path();
   apipb::IPAddressPrefix prefix;
   prefix.set_prefix("10.1.0.0");
   prefix.set_prefix_len(16);
   other.mutable_nlri()->PackFrom(prefix);
   const PathDecoding notOurs = decodePath(other);
   EXPECT_FALSE(notOurs.id);
   EXPECT_FALSE(notOurs.entry);
   EXPECT_TRUE(reported(notOurs, "not an SR Policy route"));

   apipb::Path oddEndpoint = RouteBuilder("10.0.0.6", 1, 1).path();
   apipb::SRPolicyNLRI nlri;
   nlri.set_endpoint("\x0a\x00\x00\x06\x00", 5);
   oddEndpoint.mutable_nlri()->PackFrom(nlri);
   const PathDecoding odd = decodePath(oddEndpoint);
   EXPECT_FALSE(odd.id);
   EXPECT_TRUE(reported(odd, "endpoint of 5 bytes"));

   // A withdrawal names the record to delete and writes none.
   apipb::Path gone = RouteBuilder("2001:db8::6", 3, 8).path(false);
   gone.set_is_withdraw(true);
   const PathDecoding w = decodePath(gone);
   EXPECT_TRUE(w.withdraw);
   ASSERT_TRUE(w.id);
   EXPECT_EQ(*w.id, bgpId("2001:db8::6", 3, 8));
   EXPECT_FALSE(w.entry);

   // A locally originated route has no peer identifier: the originator says so.
   apipb::Path local = RouteBuilder("10.0.0.6", 1, 2).add(segmentList({16001})).path();
   local.set_source_id("");
   const PathDecoding l = decodePath(local);
   ASSERT_TRUE(l.entry);
   EXPECT_TRUE(l.entry->originator().address.isUnspecified());
   EXPECT_TRUE(reported(l, "originator"));
}

} // namespace

namespace {

// Whatever a peer or a speaker of another version sends, decoding neither throws nor makes a
// record the shared table would refuse: random byte flips of a full route, parsed back.
TEST(PathDecoder, CorruptedRoutesNeverThrowNorMakeAnInvalidRecord) {
   apipb::TunnelEncapSubTLVSRSegmentList withB = segmentList({16001, 16002}, 3);
   apipb::SegmentTypeB typeB;
   typeB.set_sid(bytesOf("2001:db8::42"));
   withB.add_segments()->PackFrom(typeB);
   RouteBuilder b("2001:db8::1", 7, 12);
   b.reflectedBy("192.0.2.7").preference(300).add(mplsBindingSid(wire32(900200u << 12))).add(withB);
   for (uint32_t i = 0; i < 17; ++i) b.add(segmentList({16001 + i, 16100 + i}, i + 1));
   const std::string wire = b.path().SerializeAsString();

   std::mt19937 rng(20);
   int decoded = 0;
   for (int round = 0; round < 3000; ++round) {
      std::string bytes = wire;
      const int flips = 1 + static_cast<int>(rng() % 4);
      for (int f = 0; f < flips; ++f)
         bytes[rng() % bytes.size()] ^= static_cast<char>(1 + rng() % 255);
      apipb::Path path;
      if (!path.ParseFromString(bytes)) continue;
      PathDecoding d;
      ASSERT_NO_THROW(d = decodePath(path)) << "round " << round;
      if (!d.entry) continue;
      ++decoded;
      ASSERT_TRUE(d.entry->isValidRecord());
      char buffer[PolicyInputEntry::maxLen];
      ASSERT_EQ(d.entry->serialize(buffer, sizeof buffer), d.entry->serializeLen());
      for (uint32_t i = 0; i < d.entry->segmentListCount(); ++i) {
         const WeightedSegList& l = d.entry->segmentList(SegmentListIndex(i));
         ASSERT_GE(l.weight.value, 1u);
         for (uint32_t j = 0; j < l.segList.stackSize(); ++j)
            ASSERT_LE(l.segList.label(Ipkit::MplsStackEntryIndex(j)).value(),
                      Ipkit::MplsLabel::maxLabel);
      }
   }
   // The flips must have left enough routes readable for the check to mean something.
   EXPECT_GT(decoded, 300);
}

} // namespace
