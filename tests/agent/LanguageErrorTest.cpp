// What a new user typing at the shell meets: every malformed line is refused with a message that
// says what is wrong, and changes nothing (the whole state, as `show all json` prints it, is the
// same before and after).
#include <gtest/gtest.h>

#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"

namespace {

struct Shell {
   std::ostringstream out;
   Agent::Host host{out};
   Shell() { Agent::registerModules(host); }
   std::string state() {
      out.str("");
      host.execute("show all json");
      return out.str();
   }
   // Runs a line that must fail; returns its message.
   std::string refuse(const std::string& line) {
      const std::string before = state();
      std::string message = "(accepted)";
      try {
         host.execute(line);
      } catch (const Agent::ScriptError& e) {
         message = e.what();
      }
      EXPECT_EQ(state(), before) << "changed by: " << line;
      return message;
   }
};

struct Case {
   const char* line;
   const char* message;
};

// A message ending in "..." is compared up to there (lists of commands and tables grow as
// subsystems are added).
void expectRefused(Shell& s, std::initializer_list<Case> cases) {
   for (const auto& c : cases) {
      std::string expected = c.message;
      std::string got = s.refuse(c.line);
      if (expected.size() > 3 && expected.compare(expected.size() - 3, 3, "...") == 0) {
         expected.resize(expected.size() - 3);
         got.resize(std::min(got.size(), expected.size()));
      }
      EXPECT_EQ(got, expected) << c.line;
   }
}

// A state with something of every kind, so that "nothing changed" means something.
void populate(Shell& s) {
   for (const char* line : {
            "config enabled on",
            "input-table bgp",
            "input-table static",
            "static policy 10.0.0.2 color 100 bsid 900100",
            "static segment-list 10.0.0.2 color 100 preference 200 labels 16002 16005 weight 2",
            "input bgp 10.0.0.3 color 7 discriminator 1 segment-list labels 16003",
            "color-dscp 100 dscp ef",
            "label-range srlb base 900000 size 65536",
            "lfib route 16002 adjacency 1",
            "adjacency 1 via 10.1.0.2 Ethernet1 action swap label 16002",
            "counter tunnel segment-list 3",
        }) {
      s.host.execute(line);
   }
}

TEST(LanguageError, TyposAndMisplacedWordsSuggestTheIntendedOne) {
   Shell s;
   populate(s);
   expectRefused(
       s, {
              {"cofnig enabled on",
               "unknown command 'cofnig' (did you mean 'config'?); 'help' lists the commands"},
              {"config enbled on", "unknown command 'config enbled' (did you mean 'config "
                                   "enabled'?); 'config' takes one of: discriminator-tie-break "
                                   "enabled segment-list-sharing specified-bsid-only"},
              {"config enabled yes", "expected on or off for config enabled, got 'yes'"},
              {"static policy 10.0.0.2 colour 100",
               "unexpected 'colour' (did you mean 'color'?); usage: static policy <endpoint> "
               "color <c> [bsid <label>]"},
              {"no sttaic policy 10.0.0.2 color 100",
               "unknown command 'no sttaic' (did you mean 'no static'?); 'no' takes one of: ..."},
              {"show confg", "unknown table 'confg' (did you mean 'config'?); tables: all config "
                             "color-dscp mpls input ..."},
              {"adjacency 1 via 10.1.0.2 Ethernet1 action swp",
               "unknown label action 'swp' (did you mean 'swap'?); a number or one of: none pop "
               "swap push forward"},
              {"lfib route 16002 adjacency 1 source bogus",
               "unknown source 'bogus'; a number or one of: unknown srTePolicy"},
              {"adjacency 1 via 10.1.0.2 Ethernet1/1 action swap",
               "expected an interface name for via interface: one of Ethernet, Vlan, Loopback, "
               "Port-Channel, NexthopGroup, DynamicTunnel, Fec followed by a number 0 to 16777215 "
               "(Ethernet1, Port-Channel2), got 'Ethernet1/1'"},
              {"input bgpp 10.0.0.3 color 7 discriminator 1",
               "unknown protocol 'bgpp' (did you mean 'bgp'?); a protocol is a number or one of: "
               "unknown pcep bgp static"},
              {"static policy 10.0.0.300 color 1",
               "expected an IPv4 or IPv6 address for endpoint, got '10.0.0.300'"},
          });
}

TEST(LanguageError, MissingAndRepeatedValues) {
   Shell s;
   populate(s);
   expectRefused(
       s, {
              {"static policy 10.0.0.2",
               "missing 'color'; usage: static policy <endpoint> color <c> [bsid <label>]"},
              {"static policy 10.0.0.2 color",
               "missing value after 'color'; usage: static policy <endpoint> color <c> [bsid "
               "<label>]"},
              {"static policy 10.0.0.2 color 100 color 5", "'color' given twice"},
              {"static policy 10.0.0.2 color blue", "expected a number for color, got 'blue'"},
              {"static path 10.0.0.2 color 100 preference 1 extra",
               "unexpected 'extra'; usage: static path <endpoint> color <c> preference <p>"},
              {"input bgp 10.0.0.3 color 7 discriminator 1 segment-list weight 1",
               "segment-list 1 has no 'labels'; usage: input <protocol> <endpoint> color <c> "
               "discriminator <d> [originator <asn> <address>] [preference <p>] [bsid <label>] "
               "[segment-list [weight <w>] labels [<l>]...]..."},
              {"color-dscp 5 dscp", "missing DSCP value; usage: color-dscp <color> dscp "
                                    "<value>... [symbolic]"},
              {"adjacency 1 via 10.1.0.2 Ethernet1", "missing 'action'; usage: adjacency <index> "
                                                     "[via <nexthop> <interface> action <a> [label "
                                                     "<l>]]..."},
              {"adjacency 1 via 10.1.0.2 Ethernet1 action pop via 10.1.0.2 Ethernet1 action pop",
               "via 10.1.0.2 Ethernet1 pop given twice"},
              {"lfib route 16002", "missing 'adjacency'; usage: lfib route <label> adjacency "
                                   "<index> [adjacency-type <t>] [route-type <t>] [source <s>]"},
              {"label-range srlb base 900000", "missing 'size'; usage: label-range <name> base "
                                               "<b> size <s>"},
          });
}

TEST(LanguageError, OutOfRangeValuesCarryTheTypesOwnMessage) {
   Shell s;
   populate(s);
   std::string seventeen = "input bgp 10.0.0.3 color 7 discriminator 1";
   for (int i = 1; i <= 17; ++i) seventeen += " segment-list labels " + std::to_string(16000 + i);
   std::string sixteen = "static segment-list 10.0.0.2 color 100 preference 200 labels ";
   for (int i = 1; i < 16; ++i) {
      s.host.execute(sixteen + std::to_string(17000 + i)); // 15 more: 16 in all
   }
   expectRefused(
       s,
       {
           {"static policy 10.0.0.2 color 100 bsid 1048577",
            "bsid 1048577 is out of range: a label is 0 to 1048575, or none for no label"},
           {"static segment-list 10.0.0.2 color 100 preference 200 labels 1 weight 0",
            "weight 0: Weight::value < Weight::min or > Weight::max not allowed (weight is 1 to "
            "4294967295)"},
           {"static path 10.0.0.2 color 100 preference 4294967296",
            "preference 4294967296: Preference::value < Preference::min or > "
            "Preference::max not allowed (preference is 0 to 4294967295)"},
           {"static policy 10.0.0.2 color 99999999999999999999",
            "color 99999999999999999999: Color::value < Color::min or > Color::max not "
            "allowed (color is 0 to 4294967295)"},
           {"static segment-list 10.0.0.2 color 100 preference 2 labels 1 2 3 4 5 6 7 8 9",
            "label 9 of the stack: MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
            "MplsStackEntryIndex::max not allowed (a stack holds at most 8 labels)"},
           {seventeen.c_str(),
            "segment-list 17: SegmentListIndex::value < SegmentListIndex::min or > "
            "SegmentListIndex::max not allowed (a record holds at most 16)"},
           {(sixteen + "18000").c_str(),
            "segment list 17 of a candidate path: SegmentListIndex::value < "
            "SegmentListIndex::min or > SegmentListIndex::max not allowed (a candidate path holds "
            "at most 16)"},
           {"color-dscp 5 dscp 64",
            "dscp 64: DscpValue::value < DscpValue::min or > DscpValue::max not allowed (dscp is "
            "0 to 63)"},
           {"trace 10", "trace level 10 is out of range (0 to 9)"},
           {"lfib route 1048576 adjacency 1",
            "route label 1048576 is out of range: a label is 0 to 1048575, or none for no "
            "label"},
           {"lfib route none adjacency 1", "an LFIB route needs a label, not none"},
           {"platform max-label-depth 256", "max-label-depth 256 is out of range (0 to 255)"},
       });
}

TEST(LanguageError, RemovingOrCreatingWhatIsNotThereOrAlreadyIs) {
   Shell s;
   populate(s);
   expectRefused(
       s, {
              {"no static policy 10.0.0.9 color 100", "no static policy 10.0.0.9|100"},
              {"no static path 10.0.0.2 color 100 preference 7",
               "static policy 10.0.0.2|100 has no path of preference 7"},
              {"no static segment-list 10.0.0.2 color 100 preference 200 labels 16002",
               "static policy 10.0.0.2|100 preference 200 has no segment list [16002]"},
              {"no input bgp 10.0.0.3 color 7 discriminator 2", "no input record 10.0.0.3|7|bgp|2"},
              {"input 40 10.0.0.3 color 7 discriminator 1",
               "no input table for protocol 40; 'input-table 40' creates it"},
              {"input-table bgp", "the input table for protocol bgp (20) exists"},
              {"no input-table pcep",
               "no input table for protocol pcep (10); 'input-table pcep' creates it"},
              {"no color-dscp 5", "color 5 has no DSCP map"},
              {"no color-dscp 100 dscp af41", "color 100 has no DSCP 34"},
              {"no lfib route 16009", "no LFIB route for label 16009"},
              {"no adjacency 9", "no adjacency 9"},
              {"no label-range srgb", "no label range srgb"},
              {"no platform max-label-depth", "the platform reports no max-label-depth"},
              {"no counter tunnel segment-list 4", "no counter for tunnel 21474836484"},
          });
}

TEST(LanguageError, LabelRangesStackAndNamesStayInTheLabelSpaceAndInText) {
   Shell s;
   populate(s);
   expectRefused(
       s, {
              {"label-range srlb base 1048576 size 1",
               "base 1048576 is out of range: a label is 0 to 1048575"},
              {"label-range srgb base 4294967295 size 4294967295",
               "base 4294967295 is out of range: a label is 0 to 1048575"},
              {"label-range srgb base 16000 size 4294967295",
               "size 4294967295 is out of range (0 to 1048576)"},
              {"label-range x base 15000 size 0", "size 0: a label range holds at least one label"},
              {"label-range x base 1048000 size 577",
               "last label (base + size - 1) 1048576 is out of range: a label is 0 to 1048575"},
              {"input bgp 10.0.0.3 color 7 discriminator 1 segment-list labels 16004 none",
               "'none' in a label stack: a stack holds labels (0 to 1048575) only"},
              {"static segment-list 10.0.0.2 color 100 preference 1 labels none",
               "'none' in a label stack: a stack holds labels (0 to 1048575) only"},
              // A name every table and its JSON can show: no broken UTF-8, no control bytes.
              {"label-range \xff\xfe base 1 size 2",
               "a range name is text (UTF-8, no control characters), got '\\xff\\xfe'"},
              {"label-range a\x01"
               "b base 1 size 2",
               "a range name is text (UTF-8, no control characters), got 'a\\x01b'"},
          });
   // The label space past the reserved labels is one valid range; a UTF-8 name is a name like
   // any other.
   s.host.execute("label-range all base 16 size 1048560");
   s.host.execute("label-range \xc3\xa9t\xc3\xa9 base 1048575 size 1");
   EXPECT_NE(s.state().find("{\"name\": \"\xc3\xa9t\xc3\xa9\", \"base\": 1048575, \"size\": 1}"),
             std::string::npos);
}

// MPLS state no router has: a label range handing out reserved labels (0 to 15), a swap or push
// that writes no label. Both would reach forwarding (binding SIDs 0 to 15, a null label in a
// resolved stack), so they are refused where they are typed.
TEST(LanguageError, MplsStateNoRouterHasIsRefused) {
   Shell s;
   populate(s);
   expectRefused(s,
                 {
                     {"label-range srlb base 0 size 1048576",
                      "base 0: labels 0 to 15 are reserved; a label range starts at 16 or above"},
                     {"label-range srlb base 15 size 100",
                      "base 15: labels 0 to 15 are reserved; a label range starts at 16 or above"},
                     {"adjacency 5 via 10.1.0.2 Ethernet1 action swap",
                      "action swap writes a label: give it one (label <l>)"},
                     {"adjacency 5 via 10.1.0.2 Ethernet1 action push label none",
                      "action push writes a label: give it one (label <l>)"},
                     // The second via is the faulty one: the first does not slip through.
                     {"adjacency 5 via 10.1.0.2 Ethernet1 action swap label 16004 via 10.1.0.3 "
                      "Ethernet2 action 3",
                      "action push writes a label: give it one (label <l>)"},
                     {"adjacency-ext 5 fec 7 via 10.1.0.2 Ethernet1 action swap",
                      "action swap writes a label: give it one (label <l>)"},
                 });
   // The lowest unreserved label starts a range; pop and forward need no label.
   s.host.execute("label-range srlb base 16 size 10");
   s.host.execute("adjacency 5 via 10.1.0.2 Ethernet1 action pop via 10.1.0.3 Ethernet2 action "
                  "forward");
   const std::string state = s.state();
   EXPECT_NE(state.find("{\"name\": \"srlb\", \"base\": 16, \"size\": 10}"), std::string::npos);
   EXPECT_NE(state.find("\"labelActionName\": \"forward\""), std::string::npos);
}

TEST(LanguageError, GarbageIsRefusedQuicklyWithAShortPrintableMessage) {
   Shell s;
   // A 4 MB word: no suggestion is searched for, and the message names it in a few bytes.
   std::string garbage(4 << 20, 'q');
   garbage[3] = '\0';
   garbage[5] = '\x1b';
   for (const std::string& line : {garbage, "show " + garbage, "config " + garbage}) {
      const std::string message = s.refuse(line);
      EXPECT_LT(message.size(), 300u) << message.substr(0, 300);
      EXPECT_EQ(message.find('\x1b'), std::string::npos);
      EXPECT_NE(message.find("qqq\\x00q\\x1bqq"), std::string::npos) << message;
   }
   EXPECT_EQ(Agent::printable("caf\xc3\xa9 \xc3(\x7f"), "caf\xc3\xa9 \\xc3(\\x7f");
}

TEST(LanguageError, KeywordsInAnyCaseAndUnambiguousAbbreviations) {
   Shell s;
   populate(s);
   // Abbreviated or capitalised, a line does what the full line does.
   Shell full;
   populate(full);
   for (const auto& [shortLine, fullLine] :
        std::initializer_list<std::pair<const char*, const char*>>{
            {"CONFIG SPECIFIED OFF", "config specified-bsid-only off"},
            {"stat seg 10.0.0.9 col 5 pref 1 lab 16 w 3", "static segment-list 10.0.0.9 color 5 "
                                                          "preference 1 labels 16 weight 3"},
            {"input BGP 10.0.0.4 c 1 d 2 s w 2 l 17", "input bgp 10.0.0.4 color 1 discriminator 2 "
                                                      "segment-list weight 2 labels 17"},
            {"no lab srlb", "no label-range srlb"},
            {"adjacency 2 via 10.1.0.3 Ethernet2 act SWAP lab 16",
             "adjacency 2 via 10.1.0.3 "
             "Ethernet2 action swap label 16"},
        }) {
      s.host.execute(shortLine);
      full.host.execute(fullLine);
      EXPECT_EQ(s.state(), full.state()) << shortLine;
   }
   s.out.str("");
   s.host.execute("sh conf");
   EXPECT_EQ(s.out.str().rfind("SR-TE configuration\n", 0), 0u);
   expectRefused(s,
                 {
                     {"s", "ambiguous command 's': it begins scheduler show static; 'help' lists "
                           "the commands"},
                     {"adj", "ambiguous command 'adj': it begins adjacency adjacency-ext; "
                             "'help' lists the commands"},
                     {"no in bgp 10.0.0.3 color 7 discriminator 1",
                      "ambiguous command 'no in'; 'no' takes one of: ..."},
                     {"static policy 10.0.0.2 c 100 b 5 bsid 6", "'bsid' given twice"},
                 });
}

} // namespace
