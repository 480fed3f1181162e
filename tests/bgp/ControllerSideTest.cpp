// The controller's side (command lines to AddPath requests) and the replay side (records to
// scenario lines that srte takes back whole).
#include <gtest/gtest.h>

#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"
#include "attribute.pb.h"
#include "bgp/InjectCommand.h"
#include "bgp/PathDecoder.h"
#include "gobgp.pb.h"

namespace {

using namespace SrTePolicy;
using SrTeBgp::InjectCommand;
using SrTeBgp::parseInjectLine;

InjectCommand parse(const char* line) {
   std::optional<InjectCommand> c = parseInjectLine(line);
   if (!c) throw std::logic_error("no command");
   return *c;
}

std::string refusal(const char* line) {
   try {
      parseInjectLine(line);
   } catch (const std::invalid_argument& e) {
      return e.what();
   }
   return "";
}

// What the speaker is handed differs from what it reports: the binding SID goes in as the plain
// label, segments as label stack entries with their flags present, and every list has a weight.
TEST(ControllerSide, AddPathCarriesWhatTheSpeakerWants) {
   const InjectCommand c =
       parse("add 2001:db8::5 color 40 distinguisher 3 preference 250 bsid 900123 "
             "segment-list labels 16001 16002 segment-list weight 7 labels 24001");
   EXPECT_EQ(c.kind, InjectCommand::Kind::add);
   const apipb::Path path = SrTeBgp::encodePath(c.advert, "127.0.0.1");
   EXPECT_EQ(path.family().afi(), apipb::Family::AFI_IP6);
   EXPECT_EQ(path.family().safi(), apipb::Family::SAFI_SR_POLICY);
   apipb::SRPolicyNLRI nlri;
   ASSERT_TRUE(path.nlri().UnpackTo(&nlri));
   EXPECT_EQ(nlri.length(), 192u);
   EXPECT_EQ(nlri.color(), 40u);
   EXPECT_EQ(nlri.distinguisher(), 3u);

   bool nextHop = false;
   apipb::TunnelEncapAttribute encap;
   for (const auto& a : path.pattrs()) {
      nextHop |= a.Is<apipb::NextHopAttribute>();
      if (a.Is<apipb::TunnelEncapAttribute>()) {
         ASSERT_TRUE(a.UnpackTo(&encap));
      }
   }
   EXPECT_TRUE(nextHop);
   ASSERT_EQ(encap.tlvs_size(), 1);
   EXPECT_EQ(encap.tlvs(0).type(), SrTeBgp::tunnelTypeSrPolicy);
   std::vector<apipb::TunnelEncapSubTLVSRSegmentList> lists;
   for (const auto& sub : encap.tlvs(0).tlvs()) {
      if (sub.Is<apipb::TunnelEncapSubTLVSRBindingSID>()) {
         apipb::TunnelEncapSubTLVSRBindingSID b;
         apipb::SRBindingSID sid;
         ASSERT_TRUE(sub.UnpackTo(&b) && b.bsid().UnpackTo(&sid));
         EXPECT_EQ(sid.sid(), std::string("\x00\x0d\xbc\x1b", 4)); // 900123
      } else if (sub.Is<apipb::TunnelEncapSubTLVSRSegmentList>()) {
         ASSERT_TRUE(sub.UnpackTo(&lists.emplace_back()));
      }
   }
   ASSERT_EQ(lists.size(), 2u);
   EXPECT_TRUE(lists[0].has_weight());
   EXPECT_EQ(lists[0].weight().weight(), 1u);
   EXPECT_EQ(lists[1].weight().weight(), 7u);
   ASSERT_EQ(lists[0].segments_size(), 2);
   apipb::SegmentTypeA top;
   ASSERT_TRUE(lists[0].segments(0).UnpackTo(&top));
   EXPECT_TRUE(top.has_flags());
   EXPECT_EQ(top.label(), 16001u << 12);

   // A withdrawal names the same NLRI.
   const InjectCommand w = parse("  withdraw 10.0.0.1 color 1 distinguisher 2");
   EXPECT_EQ(w.kind, InjectCommand::Kind::withdraw);
   const apipb::Path gone = SrTeBgp::encodeWithdrawal(w.advert.id);
   EXPECT_TRUE(gone.is_withdraw());
   std::vector<std::string> reports;
   EXPECT_EQ(SrTeBgp::decodePolicyId(gone, reports), w.advert.id);
}

TEST(ControllerSide, CommandsTheSpeakerCannotTakeAreRefusedBeforeSending) {
   EXPECT_FALSE(parseInjectLine(""));
   EXPECT_FALSE(parseInjectLine("   # a comment"));
   EXPECT_NE(refusal("add 10.0.0.1 color 1 distinguisher 1 segment-list labels 1048576")
                 .find("label '1048576'"),
             std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.1 color 1 distinguisher 1 bsid 2000000").find("bsid"),
             std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.1 color 1 distinguisher 1 segment-list weight 0 labels 16001")
                 .find("weight 0"),
             std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.1 color 1 distinguisher 1 bsid 16 srv6-bsid 2001:db8::1")
                 .find("one binding SID"),
             std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.256 color 1 distinguisher 1").find("not an address"),
             std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.1 color 1").find("distinguisher"), std::string::npos);
   EXPECT_NE(refusal("add 10.0.0.1 color 1 distinguisher 4294967296").find("distinguisher"),
             std::string::npos);
   EXPECT_NE(refusal("announce 10.0.0.1 color 1 distinguisher 1").find("unknown command"),
             std::string::npos);
   // An SRv6 list or binding SID that is not an IPv6 address is refused when encoded.
   const InjectCommand c =
       parse("add 10.0.0.1 color 1 distinguisher 1 segment-list labels 16001 srv6 10.0.0.9");
   EXPECT_THROW(SrTeBgp::encodePath(c.advert, "127.0.0.1"), std::invalid_argument);
}

// What the speaker delivers, replayed into srte as scenario lines, is the record decoded: every
// field, the defaults written out, a later line replacing the whole record, a withdrawal deleting
// it.
TEST(ControllerSide, ScenarioLinesReplayTheDecodedRecordWhole) {
   std::ostringstream out;
   Agent::Host host{out};
   Agent::registerModules(host);
   host.execute("input-table bgp");
   auto table = [&] { return host.policyInputSource()->policyInput(Protocol::bgp); };

   const char* commands[] = {
       "add 10.0.0.3 color 7 distinguisher 12 preference 300 bsid 900200 "
       "segment-list weight 2 labels 16003 segment-list labels 16004 24001 3 0",
       "add 2001:db8::1 color 4294967295 distinguisher 4294967295",
       "add 10.0.0.3 color 7 distinguisher 12 segment-list labels 1048575 1 2 3 4 5 6 7",
   };
   for (const char* line : commands) {
      apipb::Path path = SrTeBgp::encodePath(parse(line).advert, "127.0.0.1");
      path.set_source_asn(65000);
      path.set_source_id("192.0.2.1");
      // The speaker reports a binding SID it received as its wire value (label << 12).
      for (auto& a : *path.mutable_pattrs()) {
         apipb::TunnelEncapAttribute encap;
         if (!a.UnpackTo(&encap)) continue;
         for (auto& sub : *encap.mutable_tlvs(0)->mutable_tlvs()) {
            apipb::TunnelEncapSubTLVSRBindingSID b;
            apipb::SRBindingSID sid;
            if (!sub.UnpackTo(&b) || !b.bsid().UnpackTo(&sid)) continue;
            const std::string& s = sid.sid();
            uint32_t v = uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 |
                         uint32_t(uint8_t(s[2])) << 8 | uint8_t(s[3]);
            v <<= 12;
            sid.set_sid(std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)});
            b.mutable_bsid()->PackFrom(sid);
            sub.PackFrom(b);
         }
         a.PackFrom(encap);
      }
      const SrTeBgp::PathDecoding d = SrTeBgp::decodePath(path);
      ASSERT_TRUE(d.entry);
      host.execute(Agent::inputLine(*d.entry));
      const std::optional<PolicyInputEntry> stored = table()->policyInputEntry(d.entry->key());
      ASSERT_TRUE(stored) << Agent::inputLine(*d.entry);
      EXPECT_EQ(*stored, *d.entry) << Agent::inputLine(*d.entry);
   }
   EXPECT_EQ(table()->policyInputEntryCount(), 2u);
   const PolicyId first = parse(commands[0]).advert.id;
   EXPECT_EQ(table()->policyInputEntry(first)->bindingSid(), Ipkit::MplsLabel());
   host.execute(Agent::noInputLine(first));
   EXPECT_FALSE(table()->policyInputEntry(first));
   EXPECT_EQ(table()->policyInputEntryCount(), 1u);
}

} // namespace
