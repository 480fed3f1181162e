#include <gtest/gtest.h>

#include "platform/Mox.h"
#include "platform/Strep.h"

namespace {

using Strep::Node;

TEST(Strep, ParsesNestedValuesListsAndStrings) {
   std::string text =
       Strep::valueText("Outer", {{"inner", Strep::valueText("Inner", {{"n", "-0"}})},
                                  {"name", Strep::quote("it's a \\ test")},
                                  {"items", Strep::listText({"1", "18446744073709551615", "[]"})}});
   EXPECT_EQ(text, "Value('Outer', ** {'inner': Value('Inner', ** {'n': -0}), 'name': 'it\\'s a "
                   "\\\\ test', 'items': [1, 18446744073709551615, []]})");
   // Blanks anywhere between tokens are fine.
   Node n = Node::parse("  " + text + " \n");
   n.expectValue("Outer", {"items", "name", "inner"});
   EXPECT_EQ(n.field("name").stringValue(), "it's a \\ test");
   EXPECT_EQ(n.field("inner").expectValue("Inner", {"n"}).field("n").unsignedValue("x"), 0u);
   const auto& items = n.field("items").items();
   ASSERT_EQ(items.size(), 3u);
   EXPECT_EQ(items[1].unsignedValue("x"), 18446744073709551615ull);
   EXPECT_TRUE(items[2].items().empty());
   EXPECT_EQ(items[2].path(), "Outer.items[2]");
   EXPECT_EQ(Node::parse("Value('Empty', ** {})").fieldCount(), 0u);
}

TEST(Strep, MalformedTextIsRefusedSayingWhatAndWhere) {
   struct Case {
      const char* text;
      const char* says;
   } cases[] = {
       {"", "expected a value"},
       {"Value('T' ** {})", "expected ','"},
       {"Value('T', {})", "expected '**'"},
       {"Value('T', ** {'a': 1}) extra", "unexpected text after the value"},
       {"Value('T', ** {'a': 1, 'a': 2})", "duplicate field 'a'"},
       {"'never closed", "unterminated string"},
       {"True", "expected a Value, a number, a quoted string or a list"},
   };
   for (const Case& c : cases) {
      try {
         Node::parse(c.text);
         ADD_FAILURE() << "accepted: " << c.text;
      } catch (const Strep::ParseError& e) {
         EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos)
             << c.text << " -> " << e.what();
         EXPECT_NE(std::string(e.what()).find("at offset"), std::string::npos);
      }
   }
   // Hostile nesting is refused, not a stack overflow.
   EXPECT_THROW(Node::parse(std::string(10000, '[') + std::string(10000, ']')), Strep::ParseError);
}

TEST(Strep, FieldChecksNameTheTypeFieldAndPath) {
   Node n = Node::parse("Value('Outer', ** {'in': Value('Inner', ** {'v': 'x', 'w': -3})})");
   auto message = [](auto&& f) {
      try {
         f();
      } catch (const std::exception& e) {
         return std::string(e.what());
      }
      return std::string("no exception");
   };
   EXPECT_EQ(message([&] { n.expectValue("Other", {"in"}); }),
             "strep: Outer: expected Value('Other'), got Value('Outer')");
   EXPECT_EQ(message([&] {
                n.expectValue("Outer", {"in", "more"});
             }),
             "strep: Outer: missing field 'more'");
   EXPECT_EQ(message([&] { n.expectValue("Outer", {}); }), "strep: Outer: unknown field 'in'");
   const Node& inner = n.field("in");
   EXPECT_EQ(message([&] { inner.field("v").unsignedValue("range"); }),
             "strep: Outer.in.v: expected a number, got a string");
   EXPECT_EQ(message([&] { inner.field("v").items(); }),
             "strep: Outer.in.v: expected a list, got a string");
   // Sign and overflow are range errors carrying the caller's own message.
   EXPECT_THROW(
       {
          try {
             inner.field("w").unsignedValue("W out of range");
          } catch (const Mox::RangeError& e) {
             EXPECT_STREQ(e.what(), "W out of range");
             throw;
          }
       },
       Mox::RangeError);
   EXPECT_THROW(Node::parse("18446744073709551616").unsignedValue("big"), Mox::RangeError);
}

} // namespace
