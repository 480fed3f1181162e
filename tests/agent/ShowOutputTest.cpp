// The two output forms every table shares: aligned text and line-per-row JSON. Automation parses
// the JSON and people diff the text, so both layouts are pinned here.
#include <gtest/gtest.h>

#include "agent/Json.h"
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

} // namespace
