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

// A table wider than the terminal wraps its last column at blanks: every line fits, no word is
// lost, the other cells stay on the entry's first line. When the other columns leave too little
// room, nothing wraps.
TEST(ShowOutput, WideLastColumnsWrapToTheTerminal) {
   std::string message;
   for (int i = 0; i < 40; ++i) message += "word" + std::to_string(i) + " ";
   message.pop_back();
   Show::TextTable t({"Seq", "Message"});
   t.rowIs({"1", message});
   t.rowIs({"2", "short"});
   std::string out;
   t.render(out, 2);
   std::string words;
   size_t lines = 0;
   for (size_t start = 0; start < out.size();) {
      const size_t end = out.find('\n', start);
      const std::string line = out.substr(start, end - start);
      EXPECT_LE(line.size(), Show::terminalColumns) << line;
      EXPECT_NE(line.back(), ' ') << line;
      if (++lines > 2) words += line.substr(7) + " "; // past the Seq column
      start = end + 1;
   }
   EXPECT_EQ(words, message + " short ");
   EXPECT_EQ(out.find("  1    word0 "), out.find('\n', out.find('\n') + 1) + 1);
   EXPECT_GT(lines, 4u);

   Show::TextTable narrow({"Wide", "Message"});
   narrow.rowIs({std::string(110, 'w'), message});
   std::string unwrapped;
   narrow.render(unwrapped);
   EXPECT_NE(unwrapped.find(message), std::string::npos);
}

} // namespace
