// A session as an engineer drives it: scripts loaded into it, what commands say they did, output
// filters, warnings with their place, abbreviations that fit several commands.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/Script.h"

namespace {

struct Session {
   std::ostringstream out;
   Agent::Host host{out};
   Session() { Agent::registerModules(host); }
   // Runs `text` as an interactive session (errors do not stop it); returns its error stream.
   std::string interactive(const std::string& text) {
      std::istringstream in(text);
      std::ostringstream err;
      Agent::ScriptOptions options;
      options.name = "<stdin>";
      std::ostringstream prompts;
      Agent::StreamLines lines(in, prompts);
      Agent::runScript(host, lines, err, options);
      return err.str();
   }
   std::string script(const std::string& text, const std::string& name, int* status = nullptr) {
      std::istringstream in(text);
      std::ostringstream err;
      Agent::ScriptOptions options;
      options.name = name;
      const int s = Agent::runScript(host, in, err, options);
      if (status) *status = s;
      return err.str();
   }
   std::string show(const std::string& line) {
      out.str("");
      host.execute(line);
      return out.str();
   }
};

std::string tempFile(const std::string& name, const std::string& text) {
   const std::string path = ::testing::TempDir() + name;
   std::ofstream(path) << text;
   return path;
}

TEST(Session, LoadRunsAFileHereAndStopsAtItsFirstRefusedLine) {
   Session s;
   const std::string good =
       tempFile("session-good.srte", "\xef\xbb\xbflabel-range srlb base 15000 size 100\n"
                                     "input-table bgp\n");
   const std::string bad = tempFile("session-bad.srte", "label-range srgb base 16000 size 8000\n"
                                                        "input-table bgp\n"
                                                        "label-range other base 20000 size 10\n");
   const std::string err =
       s.interactive("load " + good + "\nload " + bad + "\nload /nonexistent.srte\n");
   // The good file ran whole (its byte-order mark skipped); the bad one up to its refused line,
   // which its error names; the session went on; a missing file is refused.
   const std::string mpls = s.show("show mpls json");
   EXPECT_NE(mpls.find("\"name\": \"srlb\""), std::string::npos) << mpls;
   EXPECT_NE(mpls.find("\"name\": \"srgb\""), std::string::npos) << mpls;
   EXPECT_EQ(mpls.find("\"name\": \"other\""), std::string::npos) << mpls;
   EXPECT_EQ(err, "error: " + bad +
                      ":2: the input table for protocol bgp (20) exists (the load stopped there; "
                      "the lines before it have run)\n"
                      "error: cannot open '/nonexistent.srte': No such file or directory\n");
   // In a script the refused load stops the script, and the error has the script's line too.
   int status = 0;
   const std::string scriptErr = s.script("load " + bad + "\nshow mpls\n", "outer.srte", &status);
   EXPECT_EQ(status, Agent::exitRefused);
   EXPECT_EQ(scriptErr.rfind("outer.srte:1: error: " + bad + ":2: ", 0), 0u) << scriptErr;
   // A file that loads itself stops at the nesting bound instead of recursing without end.
   const std::string self = ::testing::TempDir() + "session-self.srte";
   std::ofstream(self) << "load " << self << "\n";
   const std::string selfErr = s.interactive("load " + self + "\n");
   EXPECT_NE(selfErr.find("nested more than 16 deep"), std::string::npos) << selfErr;
   for (const auto& p : {good, bad, self}) std::remove(p.c_str());
}

TEST(Session, AFileLargerThanOneReadLosesNoLineAtTheBoundaries) {
   // Files are read 64 KiB at a time; a line that straddles a read must come whole, and the
   // lines after it too. Lines of every length mod 7 put line ends at every offset near the cut.
   Session s;
   std::string text = "input-table bgp\n";
   const int records = 3000;
   for (int i = 0; i < records; ++i) {
      text += "input bgp 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
              " color 1 discriminator 1" + std::string(static_cast<size_t>(i % 7), ' ') +
              " segment-list labels 100\n";
   }
   ASSERT_GT(text.size(), size_t{3} * 65536);
   const std::string path = tempFile("session-large.srte", text);
   EXPECT_EQ(s.interactive("load " + path + "\n"), "");
   EXPECT_EQ(s.show("show input | include Input table"),
             "Input table bgp (20): " + std::to_string(records) + " records, mounted\n");
   std::remove(path.c_str());
}

TEST(Session, WarningsCarryTheirPlaceAndRunAndAdvanceSayWhatTheyDid) {
   Session s;
   int status = 0;
   const std::string err = s.script("static policy 10.0.0.1 color 5 bsid 15001\n"
                                    "static path 10.0.0.1 color 5 preference 10\n"
                                    "input-table static\n"
                                    "static path 10.0.0.1 color 5 preference 20\n"
                                    "no input-table static\n"
                                    "static path 10.0.0.1 color 5 preference 30\n",
                                    "w.srte", &status);
   EXPECT_EQ(status, Agent::exitOk);
   // Once until a static command runs with the table there, and again once it is gone.
   EXPECT_EQ(err, "w.srte:1: warning: no 'input-table static': static policies are not candidate "
                  "paths until it exists\n"
                  "w.srte:6: warning: no 'input-table static': static policies are not candidate "
                  "paths until it exists\n");
   EXPECT_NE(s.show("show config").find("(no 'input-table static': they are not candidate paths)"),
             std::string::npos);
   // A script prints only what it shows; a session that reports says what run did.
   EXPECT_EQ(s.show("run"), "");
   s.host.verboseIs(true);
   s.host.execute("label-range srlb base 15000 size 10");
   s.host.execute("input-table bgp");
   s.host.execute(
       "input bgp 10.0.0.1 color 5 discriminator 1 bsid 15001 segment-list labels 16 17");
   EXPECT_EQ(s.show("run 1"), "run: 1 task run, virtual time 0 s, 1 task still ready\n");
   EXPECT_EQ(s.show("run").rfind("run: ", 0), 0u);
   EXPECT_EQ(s.show("advance 2.5").rfind("advance: ", 0), 0u);
   EXPECT_NE(s.show("advance 0").find("virtual time 2.5 s"), std::string::npos);
}

TEST(Session, OutputFiltersAndTheirRefusals) {
   Session s;
   s.host.execute("label-range srgb base 16000 size 8000");
   s.host.execute("label-range srlb base 15000 size 1000");
   EXPECT_EQ(s.show("show mpls | include srlb"), "  srlb  15000  1000  15999\n");
   EXPECT_EQ(s.show("show mpls | include 1 | exclude srgb | count"), "1\n");
   EXPECT_EQ(s.show("show mpls | exclude zzz | count"), s.show("show mpls | count"));
   EXPECT_EQ(s.show("sh run json | inc label-range"),
             "    \"label-range srgb base 16000 size 8000\",\n"
             "    \"label-range srlb base 15000 size 1000\"\n");
   for (const auto& [line, message] : std::initializer_list<std::pair<const char*, const char*>>{
            {"show mpls |", "'|' needs a filter: include <text>, exclude <text> or count"},
            {"show mpls | grep x",
             "unknown filter 'grep': include <text>, exclude <text> or count"},
            {"show mpls | count 3", "'count' takes no words, got '3'"},
            {"show mpls | include", "'include' needs the text to look for"},
            {"run | count", "'|' filters what show and help print"},
            {"show nothing | count", "unknown table 'nothing'..."},
        }) {
      std::string got = "(accepted)";
      try {
         s.host.parse(line);
      } catch (const Agent::ScriptError& e) {
         got = e.what();
      }
      std::string expected = message;
      if (expected.ends_with("...")) {
         expected.resize(expected.size() - 3);
         got.resize(std::min(got.size(), expected.size()));
      }
      EXPECT_EQ(got, expected) << line;
   }
   // A '|' inside a word is part of the word, before and after the filter.
   s.host.execute("label-range a|b base 100 size 10");
   const std::string named = s.show("show mpls | include a|b");
   EXPECT_EQ(named.rfind("  a|b ", 0), 0u) << named;
   EXPECT_EQ(named.find('\n'), named.size() - 1) << named;
   // count counts every line the command printed, its blank last line too.
   const std::string config = s.show("show config");
   EXPECT_EQ(s.show("show config | count"),
             std::to_string(std::count(config.begin(), config.end(), '\n')) + "\n");
}

TEST(Session, AnAbbreviationThatFitsACommandAndATableIsAmbiguous) {
   Session s;
   for (const auto& [line, message] : std::initializer_list<std::pair<const char*, const char*>>{
            {"sh pol", "ambiguous command 'sh pol': it begins policies policy policy-status"},
            {"show polic 10.0.0.1 color 5",
             "ambiguous command 'show polic': it begins policies policy policy-status"},
        }) {
      std::string got = "(accepted)";
      try {
         s.host.parse(line);
      } catch (const Agent::ScriptError& e) {
         got = e.what();
      }
      EXPECT_EQ(got, message) << line;
   }
   // An exact word or a prefix of one choice still works.
   EXPECT_NO_THROW(s.host.parse("sh policy 10.0.0.1 color 5"));
   EXPECT_NO_THROW(s.host.parse("sh policies"));
   EXPECT_NO_THROW(s.host.parse("sh policy-s"));
   EXPECT_NO_THROW(s.host.parse("sh run"));
   EXPECT_EQ(s.show("show policy 9.9.9.9 color 9"),
             "No policy 9.9.9.9 color 9: no candidate path has this endpoint and color\n");
}

} // namespace
