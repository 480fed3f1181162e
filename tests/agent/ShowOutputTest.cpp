// The two output forms every table shares: aligned text and line-per-row JSON. Automation parses
// the JSON and people diff the text, so both layouts are pinned here.
#include <gtest/gtest.h>

#include "agent/Json.h"
#include "agent/ShowTable.h"
#include "agent/TextTable.h"

namespace {

TEST(ShowOutput, JsonRowsOnOneLineWithNullLabelsEscapesAndExactNumbers) {
   Json::Value rows = Json::Value::array();
   rows.push(Json::Value::row()
                 .set("bindingSid", Json::Value::label(Ipkit::MplsLabel()))
                 .set("label", Json::Value::label(Ipkit::MplsLabel(16001)))
                 .set("address", Json::Value::address(*Ipkit::IpGenAddr::parse("2001:db8::1")))
                 .set("text", "say \"hi\"\n\\")
                 .set("big", uint64_t{18446744073709551615ull})
                 .set("lastModified", Json::Value::number(0.1))
                 .set("labels", Json::Value::inlineArray().push(Json::Value::number(uint64_t{3}))));
   rows.push(Json::Value::row());
   Json::Value top = Json::Value::object();
   top.set(Json::lowerCamel("exported-segment-lists"), std::move(rows));
   top.set("empty", Json::Value::array());
   EXPECT_EQ(top.render(),
             "{\n"
             "  \"exportedSegmentLists\": [\n"
             "    {\"bindingSid\": null, \"label\": 16001, \"address\": \"2001:db8::1\", "
             "\"text\": \"say \\\"hi\\\"\\n\\\\\", \"big\": 18446744073709551615, "
             "\"lastModified\": 0.1, \"labels\": [3]},\n"
             "    {}\n"
             "  ],\n"
             "  \"empty\": []\n"
             "}\n");
   EXPECT_EQ(Json::Value::number(1.0 / 3).text(), "0.3333333333333333");
   EXPECT_EQ(Json::Value::number(2.5).text(), "2.5");
   // Plain decimals, never an exponent.
   EXPECT_EQ(Json::Value::number(10.0).text(), "10");
   EXPECT_EQ(Json::Value::number(100000.0).text(), "100000");
   EXPECT_EQ(Json::Value::number(1e-7).text(), "0.0000001");
   EXPECT_EQ(Json::Value::number(1e20).text(), "100000000000000000000");
   // Times of the scheduler's clock are exact.
   EXPECT_EQ(Json::Value::seconds(std::chrono::nanoseconds(1000100000000)).text(), "1000.1");
}

TEST(ShowOutput, TextColumnsAlignAndContinuationLinesStayBlankWithoutTrailingSpaces) {
   Show::TextTable t({"Label", "Adjacency", "Next hop"});
   t.rowIs({"16002", "1", "10.1.12.2"});
   t.continuationIs({"", "", "10.1.13.3"});
   t.rowIs({"900001", "", "fe80::1"});
   t.continuationIs({"", "2"});
   std::string out;
   t.render(out, 2);
   EXPECT_EQ(out, "  Label   Adjacency  Next hop\n"
                  "  ------  ---------  ---------\n"
                  "  16002   1          10.1.12.2\n"
                  "                     10.1.13.3\n"
                  "  900001  -          fe80::1\n"
                  "          2\n");
}

// One row model, two renderings: nested lines, placeholders for an entry without lines,
// enumerations, spliced members and list columns must agree in both forms.
TEST(ShowOutput, NestedLevelsRenderAsContinuationLinesAndAsNestedJsonArrays) {
   using Show::ColumnKind;
   Show::Table t({{"Key", "key"},
                  {"State", "state", ColumnKind::enumeration},
                  {"", "", ColumnKind::members},
                  {"Note", ""}},
                 {Show::Level{{{"Pref", "preference"}}, "paths"},
                  Show::Level{{{"", "index"}, {"Labels", "labels"}}, "lists", {"(no lists)"}}});
   auto& a = t.rowIs({Show::number(1), Show::enumerated(2, "up"),
                      Show::cell("", Json::Value::row().set("x", uint32_t{7}).set("y", "z")),
                      Show::text("")});
   auto& p100 = a.lineIs({Show::number(100)});
   p100.lineIs({Show::number(0), Show::string("16001 16002")});
   p100.lineIs({Show::number(1), Show::string("16003")});
   a.lineIs({Show::number(50)}); // a path without lists: its placeholder, blank-padded
   // An enumeration named by its number has no name member; an absent one none at all.
   t.rowIs({Show::number(2), Show::enumerated(9, "9"), Show::cell("", Json::Value::row()),
            Show::text("note")});
   t.rowIs({Show::number(3), Show::cell("unknown", Json::Value::null()),
            Show::cell("", Json::Value::row()), Show::text("")});
   std::string out;
   t.render(out);
   EXPECT_EQ(out, "  Key  State    Note  Pref  Labels\n"
                  "  ---  -------  ----  ----  -----------\n"
                  "  1    up       -     100   16001 16002\n"
                  "                            16003\n"
                  "                      50    (no lists)\n"
                  "  2    9        note  -     -\n"
                  "  3    unknown  -     -     -\n");
   EXPECT_EQ(t.json().render(),
             "[\n"
             "  {\"key\": 1, \"state\": 2, \"stateName\": \"up\", \"x\": 7, \"y\": \"z\", "
             "\"paths\": [{\"preference\": 100, \"lists\": [{\"index\": 0, \"labels\": "
             "\"16001 16002\"}, {\"index\": 1, \"labels\": \"16003\"}]}, {\"preference\": 50, "
             "\"lists\": []}]},\n"
             "  {\"key\": 2, \"state\": 9, \"paths\": []},\n"
             "  {\"key\": 3, \"state\": null, \"paths\": []}\n"
             "]\n");
}

TEST(ShowOutput, FlatLevelsRepeatTheEntryInJsonAndListColumnsSpanLines) {
   Show::Table flat({{"Tunnel", "tunnelId"}}, {Show::Level{{{"Via", "via"}, {"Hop", "hop"}}}});
   auto& e = flat.rowIs({Show::number(7)});
   e.lineIs({Show::number(0), Show::string("10.0.0.1")});
   e.lineIs({Show::number(1), Show::string("10.0.0.2")});
   flat.rowIs({Show::number(8)}); // no lines: a readable line, no JSON row
   std::string out;
   flat.render(out, 0);
   EXPECT_EQ(out, "Tunnel  Via  Hop\n"
                  "------  ---  --------\n"
                  "7       0    10.0.0.1\n"
                  "        1    10.0.0.2\n"
                  "8       -    -\n");
   EXPECT_EQ(flat.json().render(), "[\n"
                                   "  {\"tunnelId\": 7, \"via\": 0, \"hop\": \"10.0.0.1\"},\n"
                                   "  {\"tunnelId\": 7, \"via\": 1, \"hop\": \"10.0.0.2\"}\n"
                                   "]\n");

   Show::Table lists({{"Id", "id"},
                      {"Users", "users", Show::ColumnKind::list},
                      {"Status", "status"},
                      {"Vias", "vias", Show::ColumnKind::list}});
   lists.rowIs({Show::number(1), Show::list({Show::number(10), Show::number(11), Show::number(12)}),
                Show::string("ok"), Show::list({Show::string("a")})});
   lists.rowIs({Show::number(2), Show::list({}), Show::string("down"), Show::list({})});
   out.clear();
   lists.render(out, 0);
   EXPECT_EQ(out, "Id  Users  Status  Vias\n"
                  "--  -----  ------  ----\n"
                  "1   10     ok      a\n"
                  "    11\n"
                  "    12\n"
                  "2   -      down    -\n");
   EXPECT_EQ(lists.json().render(),
             "[\n"
             "  {\"id\": 1, \"users\": [10, 11, 12], \"status\": \"ok\", \"vias\": [\"a\"]},\n"
             "  {\"id\": 2, \"users\": [], \"status\": \"down\", \"vias\": []}\n"
             "]\n");
}

TEST(ShowOutput, ViewsKeyTheirItemsOrAreTheirOnlyTable) {
   Show::Table t(std::vector<Show::Column>{{"Id", "id"}});
   t.rowIs({Show::number(1)});
   Show::View alone;
   alone.lineIs("Things: 1 thing").tableIs("", t);
   std::string out;
   alone.render(out);
   EXPECT_EQ(out, "Things: 1 thing\n  Id\n  --\n  1\n");
   EXPECT_EQ(alone.json().render(), "[\n  {\"id\": 1}\n]\n");

   Show::View keyed;
   keyed.settingsIs({"Setting", "Value"}, {{"enabled", "enabled", Show::flag(true, "on", "off")}})
       .fieldIs("Depth", "depth", Show::cell("not reported", Json::Value::null()))
       .fieldIs("", "hidden", Show::number(3))
       .tableIs("things", t);
   out.clear();
   keyed.render(out);
   EXPECT_EQ(out, "  Setting  Value\n  -------  -----\n  enabled  on\n"
                  "Depth: not reported\n  Id\n  --\n  1\n");
   EXPECT_EQ(keyed.json().render(),
             "{\n  \"enabled\": true,\n  \"depth\": null,\n  \"hidden\": 3,\n"
             "  \"things\": [\n    {\"id\": 1}\n  ]\n}\n");
   EXPECT_EQ(Show::View().fieldIs("N", "n", Show::number(1)).inlineJson().json().render(),
             "{\"n\": 1}\n");

   Show::View many;
   many.viewsIs("", {Show::View().lineIs("first").fieldIs("", "k", Show::number(1)),
                     Show::View().lineIs("second").fieldIs("", "k", Show::number(2))});
   out.clear();
   many.render(out);
   EXPECT_EQ(out, "first\n\nsecond\n");
   EXPECT_EQ(many.json().render(), "[\n  {\n    \"k\": 1\n  },\n  {\n    \"k\": 2\n  }\n]\n");
}

} // namespace

namespace {

// A table wider than the terminal narrows its widest columns and wraps their cells at blanks:
// every line fits, no character is lost, and words stay whole while that is enough. A table whose
// words alone are too wide cuts them rather than overflow.
TEST(ShowOutput, WideTablesWrapToTheTerminal) {
   std::string message;
   for (int i = 0; i < 40; ++i) message += "word" + std::to_string(i) + " ";
   message.pop_back();
   // The text of each column, read back from its lines (cells start where the header's do).
   auto columns = [](const std::string& out, const std::vector<std::string>& headers) {
      const std::string header = out.substr(0, out.find('\n'));
      std::vector<size_t> at;
      for (const auto& h : headers) at.push_back(header.find(h));
      std::vector<std::string> text(headers.size());
      size_t lines = 0;
      for (size_t start = 0; start < out.size(); ++lines) {
         const size_t end = out.find('\n', start);
         const std::string line = out.substr(start, end - start);
         EXPECT_LE(line.size(), Show::terminalColumns) << line;
         EXPECT_NE(line.back(), ' ') << line;
         start = end + 1;
         if (lines < 2) continue; // header and rule
         for (size_t i = 0; i < at.size(); ++i) {
            const size_t to = i + 1 < at.size() ? at[i + 1] : line.size();
            if (at[i] >= line.size()) continue;
            std::string cell = line.substr(at[i], to - at[i]);
            while (!cell.empty() && cell.back() == ' ') cell.pop_back();
            if (!cell.empty()) text[i] += (text[i].empty() ? "" : " ") + cell;
         }
      }
      return std::make_pair(text, lines);
   };

   Show::TextTable t({"Seq", "Message"});
   t.rowIs({"1", message});
   t.rowIs({"2", "short"});
   std::string out;
   t.render(out, 2);
   auto [text, lines] = columns(out, {"Seq", "Message"});
   EXPECT_EQ(text[1], message + " short");
   EXPECT_EQ(text[0], "1 2");
   EXPECT_GT(lines, 4u);

   // Two wide columns: the wider narrows first; a column of one long word keeps it whole.
   Show::TextTable two({"Id", "Labels", "Status", "Vias"});
   const std::string labels = "16002 16003 16004 16005 16006 16007 16008 16009";
   const std::string vias = "10.1.12.2 Ethernet1 16002 16003 16004 16005 16006 16007 16008";
   two.rowIs({"1", labels, "platformLabelStackDepthExceeded", vias});
   std::string twoOut;
   two.render(twoOut);
   auto [twoText, twoLines] = columns(twoOut, {"Id", "Labels", "Status", "Vias"});
   EXPECT_EQ(twoText[1], labels);
   EXPECT_EQ(twoText[2], "platformLabelStackDepthExceeded");
   EXPECT_EQ(twoText[3], vias);
   EXPECT_GT(twoLines, 3u);

   // Words that cannot fit whole are cut, and every character is still there.
   Show::TextTable cut({"Wide", "Other", "Message"});
   cut.rowIs({std::string(70, 'w'), std::string(60, 'o'), "end"});
   std::string cutOut;
   cut.render(cutOut);
   std::string all;
   for (char c : cutOut) {
      if (c == 'w' || c == 'o') all += c;
   }
   EXPECT_EQ(std::count(all.begin(), all.end(), 'w'), 70);
   EXPECT_EQ(std::count(all.begin(), all.end(), 'o'), 60);
   for (size_t start = 0; start < cutOut.size();) {
      const size_t end = cutOut.find('\n', start);
      EXPECT_LE(end - start, Show::terminalColumns);
      start = end + 1;
   }
}

} // namespace
