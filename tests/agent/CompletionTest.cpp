// What the shell offers for Tab and `?`, computed from the registered verbs, usages and tables.
#include <gtest/gtest.h>

#include <sstream>

#include "agent/Completion.h"
#include "agent/Host.h"
#include "agent/Modules.h"

namespace {

std::string words(const Agent::Host& host, std::string_view line) {
   std::string out;
   for (const auto& c : Agent::choicesAt(host, line)) out += (out.empty() ? "" : " ") + c.word;
   return out;
}

TEST(Completion, OffersWhatTheParserWouldTakeNext) {
   std::ostringstream out;
   Agent::Host host(out);
   Agent::registerModules(host);
   // Verb words, at each level, and only those the typed prefix begins (in any case).
   EXPECT_EQ(words(host, "no st"), "static");
   EXPECT_EQ(words(host, "NO STATIC p"), "policy path");
   EXPECT_EQ(words(host, "adj"), "adjacency adjacency-ext");
   // Positional words first, then the keywords of the usage line, then the end of the command.
   EXPECT_EQ(words(host, "static policy "), "<endpoint>");
   EXPECT_EQ(words(host, "static policy 10.0.0.1 "), "color bsid <cr>");
   EXPECT_EQ(words(host, "static policy 10.0.0.1 color "), "<c>");
   EXPECT_EQ(words(host, "input "), "unknown pcep bgp static <protocol>");
   EXPECT_EQ(words(host, "input b"), "bgp");
   EXPECT_EQ(words(host, "input bgp "), "<endpoint>");
   EXPECT_EQ(words(host, "config enabled "), "on off <cr>");
   EXPECT_EQ(words(host, "sh sel"), "selection-input");
   EXPECT_EQ(words(host, "show config "), "json <cr>");
   // `show` takes tables; the running configuration and one policy are verbs of their own, offered
   // before the tables.
   const std::string tables = words(host, "show ");
   EXPECT_EQ(tables.rfind("policy running-config config color-dscp mpls input", 0), 0u)
       << "[" << tables << "]";
   EXPECT_NE(tables.find(" syslog all"), std::string::npos) << tables;
   EXPECT_EQ(words(host, "cofnig "), "");
}

} // namespace
