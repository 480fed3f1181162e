// `show running-config` is a script that rebuilds the inputs: run in a fresh srte, every input
// table reads the same (as JSON) as where it was printed. Checked on the demo and on random
// sessions that create, change and remove inputs of every kind.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RunningConfig.h"
#include "agent/Script.h"

namespace {

struct Session {
   std::ostringstream out;
   Agent::Host host{out};
   Session() { Agent::registerModules(host); }
   // Every input table, as JSON.
   std::string inputs() {
      out.str("");
      for (const char* table : {"config", "color-dscp", "mpls", "input"}) {
         host.execute(std::string("show ") + table + " json");
      }
      out << "attrlog congested " << host.attrLog().isAttrLogOutClogged() << "\n";
      return out.str();
   }
};

// Runs the running configuration of `from` in a fresh session and compares the inputs.
void expectReplayed(Session& from, const std::string& what) {
   const std::string script = Agent::runningConfig(from.host);
   Session to;
   std::istringstream in(script);
   std::ostringstream err;
   Agent::ScriptOptions options;
   options.name = "running-config";
   ASSERT_EQ(Agent::runScript(to.host, in, err, options), 0) << what << "\n" << err.str() << script;
   EXPECT_EQ(to.inputs(), from.inputs()) << what << "\n" << script;
   // Printing it again gives the same script: nothing was lost or added on the way.
   EXPECT_EQ(Agent::runningConfig(to.host), script) << what;
}

TEST(RunningConfig, TheDemoReplays) {
   Session demo;
   std::ifstream file(SRTE_SOURCE_DIR "/examples/demo.srte");
   ASSERT_TRUE(file);
   Agent::ScriptOptions options;
   options.name = "demo.srte";
   std::ostringstream err;
   ASSERT_EQ(Agent::runScript(demo.host, file, err, options), 0) << err.str();
   expectReplayed(demo, "demo");
   // `write` saves the same script; it replaces a file only when asked, and says what it wrote
   // in a session that reports.
   const std::string path = ::testing::TempDir() + "running-config.srte";
   std::remove(path.c_str());
   demo.host.execute("write " + path);
   const auto savedText = [&] {
      std::ifstream saved(path);
      std::stringstream text;
      text << saved.rdbuf();
      return text.str();
   };
   EXPECT_EQ(savedText(), Agent::runningConfig(demo.host));
   { std::ofstream(path) << "# mine\n"; }
   EXPECT_THROW(demo.host.execute("write " + path), Agent::ScriptError);
   EXPECT_EQ(savedText(), "# mine\n");
   demo.host.verboseIs(true);
   demo.out.str("");
   demo.host.execute("write " + path + " force");
   EXPECT_EQ(savedText(), Agent::runningConfig(demo.host));
   EXPECT_NE(demo.out.str().find("wrote "), std::string::npos);
   EXPECT_NE(demo.out.str().find(" lines to '" + path + "'"), std::string::npos);
   EXPECT_THROW(demo.host.execute("write /nonexistent-dir/x.srte"), Agent::ScriptError);
   std::remove(path.c_str());
}

// A random command over small value sets, so that commands meet the same keys again.
std::string randomCommand(std::mt19937& rng) {
   auto pick = [&](std::initializer_list<const char*> from) {
      return std::string(from.begin()[rng() % from.size()]);
   };
   auto maybe = [&](const std::string& s) { return rng() % 2 ? " " + s : std::string(); };
   auto num = [&](uint32_t below) { return std::to_string(rng() % below); };
   const std::string endpoint = pick({"10.0.0.1", "10.0.0.2", "2001:db8::1"});
   const std::string color = pick({"1", "100", "4294967295"});
   auto stack = [&] {
      std::string s = "labels";
      for (uint32_t i = rng() % 4; i > 0; --i) s += " " + pick({"0", "3", "16001", "1048575"});
      return s;
   };
   auto via = [&] {
      return " via " + pick({"10.1.0.2", "::", "2001:db8::2"}) + " " +
             pick({"Ethernet1", "Vlan10", "NexthopGroup7", "Port-Channel2"}) + " action " +
             pick({"pop", "swap", "push", "7"}) + maybe("label " + pick({"16001", "none", "3"}));
   };
   const std::string protocol = pick({"bgp", "static", "40", "pcep"});
   switch (rng() % 24) {
   case 0:
      return "config " +
             pick({"enabled", "specified-bsid-only", "segment-list-sharing",
                   "discriminator-tie-break"}) +
             " " + pick({"on", "off"});
   case 1:
      return "static policy " + endpoint + " color " + color + maybe("bsid " + num(20));
   case 2:
      return "static path " + endpoint + " color " + color + " preference " + num(3);
   case 3:
      return "static segment-list " + endpoint + " color " + color + " preference " + num(3) + " " +
             stack() + maybe("weight " + pick({"1", "4294967295"})) + maybe("index " + num(3));
   case 4:
      return "no static policy " + endpoint + " color " + color;
   case 5:
      return "no static path " + endpoint + " color " + color + " preference " + num(3);
   case 6:
      return "color-dscp " + pick({"1", "100"}) + " dscp " + pick({"ef", "10", "af41", "63"}) +
             maybe(pick({"cs3", "0"})) + maybe("symbolic");
   case 7:
      return "no color-dscp " + pick({"1", "100"}) + maybe("dscp " + pick({"ef", "10"}));
   case 8:
      return "label-range " + pick({"srlb", "srgb", "x", "\xc3\xa9t\xc3\xa9"}) + " base " +
             pick({"0", "15000", "1048575"}) + " size " + pick({"1", "100"});
   case 9:
      return "no label-range " + pick({"srlb", "srgb", "x"});
   case 10:
      return "lfib route " + pick({"0", "15007", "16001"}) + " adjacency " + num(4) +
             maybe("adjacency-type " + pick({"externalFec", "9"})) +
             maybe("route-type " + pick({"pseudowire", "3"})) +
             maybe("source " + pick({"srTePolicy", "5", "0"}));
   case 11:
      return "no lfib route " + pick({"0", "15007", "16001"});
   case 12: {
      std::string line = "adjacency " + num(4);
      for (uint32_t i = rng() % 3; i > 0; --i) line += via();
      return line;
   }
   case 13:
      return "adjacency-ext " + num(4) + " fec " + pick({"0", "1080863910568919041"}) + via();
   case 14:
      return pick({"no adjacency ", "no adjacency-ext "}) + num(4);
   case 15:
      return rng() % 2 ? "platform max-label-depth " + num(256) : "no platform max-label-depth";
   case 16:
      return "counter tunnel " + pick({"segment-list 3", "7", "18446744073709551615"}) +
             maybe("packets " + num(1000)) + maybe("bytes 18446744073709551615");
   case 17:
      return "no counter tunnel " + pick({"segment-list 3", "7"});
   case 18:
      return "attrlog congested " + pick({"on", "off"});
   case 19:
      return pick({"input-table ", "no input-table "}) + protocol;
   case 20: {
      std::string line = "input " + protocol + " " + endpoint + " color " + color +
                         " discriminator " + num(3) +
                         maybe("originator " + pick({"0", "65000"}) + " " +
                               pick({"192.0.2.1", "0.0.0.0", "2001:db8::9"})) +
                         maybe("preference " + num(500)) + maybe("bsid " + num(20));
      for (uint32_t i = rng() % 4; i > 0; --i) {
         line += " segment-list" + maybe("weight " + pick({"2", "4294967295"})) + " " + stack();
      }
      return line;
   }
   case 21:
      return "no input " + protocol + " " + endpoint + " color " + color + " discriminator " +
             num(3);
   case 22:
      return pick({"run", "restart", "advance 0.5", "input-table bgp remount"});
   default:
      return "no static segment-list " + endpoint + " color " + color + " preference " + num(3) +
             " " + stack();
   }
}

TEST(RunningConfig, RandomSessionsReplay) {
   size_t accepted = 0;
   for (uint32_t seed = 1; seed <= 80; ++seed) {
      std::mt19937 rng(seed);
      Session s;
      for (int i = 0; i < 80; ++i) {
         const std::string line = randomCommand(rng);
         try {
            s.host.execute(line);
            ++accepted;
         } catch (const Agent::ScriptError&) {
            // Refused lines (removing what is not there, ...) change nothing.
         }
      }
      expectReplayed(s, "seed " + std::to_string(seed));
      if (HasFailure()) return;
   }
   // Most commands must have been taken, or the sessions prove little.
   EXPECT_GT(accepted, 80u * 80u / 2);
}

} // namespace
