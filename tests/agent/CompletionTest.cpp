// What the shell offers for Tab and `?`, computed from the registered verbs, usages and tables,
// checked against what the parser takes.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "agent/Completion.h"
#include "agent/Grammar.h"
#include "agent/Host.h"
#include "agent/Modules.h"

namespace {

std::string words(const Agent::Host& host, std::string_view line) {
   std::string out;
   for (const auto& c : Agent::choicesAt(host, line)) out += (out.empty() ? "" : " ") + c.word;
   return out;
}

std::string helpOf(const Agent::Host& host, std::string_view line, const std::string& word) {
   for (const auto& c : Agent::choicesAt(host, line)) {
      if (c.word == word) return c.help;
   }
   return "(not offered)";
}

struct Fixture {
   std::ostringstream out;
   Agent::Host host{out};
   Fixture() { Agent::registerModules(host); }
};

TEST(Completion, OffersWhatTheParserWouldTakeNext) {
   Fixture f;
   const Agent::Host& host = f.host;
   // Verb words, at each level, and only those the typed prefix begins (in any case).
   EXPECT_EQ(words(host, "no st"), "static");
   EXPECT_EQ(words(host, "NO STATIC p"), "policy path");
   EXPECT_EQ(words(host, "adj"), "adjacency adjacency-ext");
   // Positional words first, then the keywords the usage line allows there; <cr> only where the
   // command may end.
   EXPECT_EQ(words(host, "static policy "), "<endpoint>");
   EXPECT_EQ(words(host, "static policy 10.0.0.1 "), "color bsid");
   EXPECT_EQ(words(host, "static policy 10.0.0.1 color "), "<c>");
   EXPECT_EQ(words(host, "static policy 10.0.0.1 color 5 "), "bsid <cr>");
   // Keyword clauses come in any order, each once.
   EXPECT_EQ(words(host, "static policy 10.0.0.1 bsid 15000 "), "color");
   EXPECT_EQ(words(host, "input "), "unknown pcep bgp static <protocol>");
   EXPECT_EQ(words(host, "input b"), "bgp");
   EXPECT_EQ(words(host, "input bgp "), "<endpoint>");
   EXPECT_EQ(words(host, "config enabled "), "on off");
   EXPECT_EQ(words(host, "config enabled on "), "<cr>");
   EXPECT_EQ(words(host, "lfib route "), "<label>");
   EXPECT_EQ(words(host, "lfib route 16002 "), "adjacency adjacency-type route-type source");
   // A via is a next hop, an interface, then its action: the label is due only after the action.
   EXPECT_EQ(words(host, "adjacency 1 via 10.0.0.1 "), "<interface>");
   EXPECT_EQ(words(host, "adjacency 1 via 10.0.0.1 Ethernet1 "), "action");
   EXPECT_EQ(words(host, "adjacency 1 via 10.0.0.1 Ethernet1 action "),
             "none pop swap push forward <a>");
   EXPECT_EQ(words(host, "adjacency 1 via 10.0.0.1 Ethernet1 action pop "), "label via <cr>");
   // A keyword given once is not offered again; a repeated group is.
   EXPECT_EQ(words(host, "input bgp 10.0.0.1 color 5 "),
             "discriminator originator preference bsid segment-list");
   EXPECT_EQ(words(host, "input bgp 10.0.0.1 color 5 discriminator 1 segment-list labels 16 "),
             "<l> originator preference bsid segment-list weight <cr>");
   // Inside a segment list, its weight and labels come in either order, each once.
   EXPECT_EQ(words(host, "input bgp 10.0.0.1 color 5 discriminator 1 segment-list "),
             "labels weight");
   EXPECT_EQ(words(host, "input bgp 10.0.0.1 c 5 d 1 segment-list labels 16 weight 2 "),
             "originator preference bsid segment-list <cr>");
   // A tunnel is a number, or `segment-list <id>`; then its counters.
   EXPECT_EQ(words(host, "counter tunnel "), "<tunnelId> segment-list");
   EXPECT_EQ(words(host, "counter tunnel segment-list "), "<id>");
   EXPECT_EQ(words(host, "counter tunnel 7 "), "packets bytes <cr>");
   EXPECT_EQ(words(host, "sh sel"), "selection-input");
   EXPECT_EQ(words(host, "show config "), "json <cr>");
   EXPECT_EQ(words(host, "show config json "), "<cr>");
   EXPECT_EQ(words(host, "write x.srte "), "force <cr>");
   // `show` takes tables; the running configuration and one policy are verbs of their own, offered
   // before the tables.
   const std::string tables = words(host, "show ");
   EXPECT_EQ(tables.rfind("policy running-config config color-dscp mpls input", 0), 0u)
       << "[" << tables << "]";
   EXPECT_NE(tables.find(" syslog all"), std::string::npos) << tables;
   EXPECT_EQ(tables.find("<cr>"), std::string::npos) << tables;
   EXPECT_EQ(words(host, "cofnig "), "");
   // Words fitting no way of the grammar offer nothing.
   EXPECT_EQ(words(host, "config enabled on on "), "");
}

TEST(Completion, EveryWordHasAFewWordsOfHelp) {
   Fixture f;
   const Agent::Host& host = f.host;
   // Group words say what they lead to; the last word of a verb gives its summary.
   for (const char* group :
        {"config", "static", "no", "lfib", "platform", "counter", "attrlog", "scheduler"}) {
      EXPECT_NE(helpOf(host, "", group), "") << group;
   }
   EXPECT_EQ(helpOf(host, "", "lfib"), "then route");
   EXPECT_EQ(helpOf(host, "input bgp ", "<endpoint>"),
             "the policy's endpoint: an IPv4 or IPv6 address");
   EXPECT_EQ(helpOf(host, "static policy 10.0.0.1 ", "color"), "followed by <c>");
   EXPECT_EQ(helpOf(host, "config enabled ", "on"), "turn it on");
   // Every word offered after any verb has some help.
   for (const auto& v : host.verbs()) {
      const std::string line = v.name + " ";
      for (const auto& c : Agent::choicesAt(host, line)) {
         EXPECT_NE(c.help, "") << "'" << c.word << "' after '" << v.name << "'";
      }
   }
}

// For every command: walk its grammar from the verb to a complete line, taking at each step a word
// the shell offers (a sample value for a placeholder). Until the grammar says the line is
// complete, the parser must refuse it as unfinished; once it does, the parser must take its words
// (it may still refuse a value for what the router holds: "no adjacency 1" when there is none).
TEST(Completion, EveryCommandsOffersLeadToALineTheParserTakes) {
   Fixture f;
   const std::map<std::string, std::string> samples{
       {"<endpoint>", "10.0.0.1"},
       {"<nexthop>", "10.1.0.2"},
       {"<address>", "192.0.2.1"},
       {"<interface>", "Ethernet1"},
       {"<c>", "5"},
       {"<color>", "5"},
       {"<p>", "100"},
       {"<d>", "1"},
       {"<w>", "2"},
       {"<i>", "0"},
       {"<l>", "16002"},
       {"<label>", "15001"},
       {"<b>", "15000"},
       {"<s>", "100"},
       {"<asn>", "65000"},
       {"<a>", "pop"},
       {"<t>", "1"},
       {"<value>", "ef"},
       {"<seconds>", "0.5"},
       {"<level>", "3"},
       {"<file>", "saved.srte"},
       {"<name>", "srgb"},
       {"<index>", "1"},
       {"<n>", "3"},
       {"<tunnelId>", "7"},
       {"<id>", "2"},
       {"<fecId>", "9"},
       {"<task runs>", "5"},
       {"<protocol>", "bgp"},
       {"<word>", "show"},
   };
   for (const auto& verb : f.host.verbs()) {
      std::string line = verb.name;
      std::vector<std::string> taken;
      for (int step = 0; step < 40; ++step) {
         const auto choices = Agent::choicesAt(f.host, line + " ");
         bool complete = false;
         std::string pick;
         for (const auto& c : choices) {
            if (c.word == "<cr>") {
               complete = true;
               continue;
            }
            // A keyword once, and not the same value twice in a row: the walk moves on.
            const bool used = std::find(taken.begin(), taken.end(), c.word) != taken.end();
            if (pick.empty() && !(used && (!c.isPlaceholder() || taken.back() == c.word))) {
               pick = c.word;
            }
         }
         if (complete) break;
         ASSERT_FALSE(pick.empty()) << "'" << line << "' is incomplete and offers nothing new";
         // Incomplete: the parser refuses it.
         EXPECT_THROW(f.host.parse(line), Agent::ScriptError) << "'" << line << "'";
         taken.push_back(pick);
         if (pick[0] == '<') {
            const auto s = samples.find(pick);
            ASSERT_NE(s, samples.end()) << "no sample for " << pick << " in '" << line << "'";
            line += " " + s->second;
         } else {
            line += " " + pick;
         }
      }
      try {
         f.host.parse(line);
      } catch (const Agent::ScriptError& e) {
         const std::string why = e.what();
         EXPECT_EQ(why.find("usage:"), std::string::npos) << line << ": " << why;
         EXPECT_NE(why.rfind("unexpected", 0), 0u) << line << ": " << why;
         EXPECT_NE(why.rfind("missing", 0), 0u) << line << ": " << why;
      }
   }
}

TEST(Completion, GrammarReadsTheUsageNotation) {
   const Agent::Grammar g("<a> (y|z <c>) [x <b>]... [json]");
   EXPECT_EQ(g.next({}).words, (std::vector<std::string>{"<a>"}));
   const auto afterA = g.next({"1"});
   EXPECT_EQ(afterA.words, (std::vector<std::string>{"y", "z"}));
   EXPECT_FALSE(afterA.complete);
   EXPECT_EQ(g.next({"1", "z"}).words, (std::vector<std::string>{"<c>"}));
   const auto done = g.next({"1", "z", "3"});
   EXPECT_TRUE(done.complete);
   EXPECT_EQ(done.words, (std::vector<std::string>{"x", "json"}));
   // A repeated group comes again; the flag ends the command.
   EXPECT_TRUE(g.next({"1", "y", "x", "2", "X", "4"}).complete);
   EXPECT_FALSE(g.next({"1", "y", "x"}).complete);
   EXPECT_EQ(g.next({"1", "y", "json"}).words, (std::vector<std::string>{}));
   EXPECT_TRUE(g.next({"1", "y", "json"}).complete);
   EXPECT_FALSE(g.next({"1", "y", "json", "x"}).valid);
   EXPECT_THROW(Agent::Grammar("[a"), std::logic_error);
}

} // namespace
