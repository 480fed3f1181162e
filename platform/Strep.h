// Strep: the structured text form of values, shared by every value type's `valueToStrep()` and
// `fromStrep()`. A value is written as
//
//    Value('SrTePolicy::WeightedSegList', ** {'weight': <node>, 'segList': <node>})
//
// where a node is a nested Value, an integer, a quoted string ('text', with \' and \\ escapes) or
// a list ([<node>, <node>]). This header offers the writer helpers and a small parser into a tree
// of Nodes; each type then reads its own fields by name.
//
// Guarantees (tests/platform/StrepTest.cpp):
//  - `Node::parse` accepts exactly one node with optional blanks around it; anything else throws
//    Strep::ParseError (a std::invalid_argument) whose message says what was expected and where;
//  - `expectValue` checks the type name and that the fields are exactly the listed ones (any
//    order, no duplicates), and names the offending type and field when they are not;
//  - `unsignedValue(rangeMessage)` raises Mox::RangeError with the caller's message for a negative
//    number or one beyond 64 bits, so a range error reads the same whatever its source.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Strep {

class ParseError : public std::invalid_argument {
 public:
   using std::invalid_argument::invalid_argument;
};

class Node {
 public:
   enum class Kind : uint8_t { number, string, value, list };

   // Parses one whole node; `text` may be any character range (string_view(first, last)).
   static Node parse(std::string_view text);

   Kind kind() const noexcept { return kind_; }
   // Where the node sits in the tree, for messages: "SrTePolicy::PolicyKey.color".
   const std::string& path() const noexcept { return path_; }

   // Numbers. `unsignedValue` throws ParseError when the node is not a number, and
   // Mox::RangeError(rangeMessage) when it is negative or does not fit 64 bits.
   uint64_t unsignedValue(const char* rangeMessage) const;
   bool isNegative() const noexcept { return negative_; }

   // Strings: the unescaped text. Throws ParseError when the node is not a string.
   const std::string& stringValue() const;

   // Values. `expectValue` returns *this after checking the type name and the field names.
   const std::string& typeName() const;
   const Node& expectValue(std::string_view type,
                           std::initializer_list<std::string_view> fields) const;
   const Node& field(std::string_view name) const;
   size_t fieldCount() const noexcept { return kind_ == Kind::value ? children_.size() : 0; }
   const std::string& fieldName(size_t i) const { return names_.at(i); }
   const Node& fieldNode(size_t i) const { return children_.at(i); }

   // Lists. Throws ParseError when the node is not a list.
   const std::vector<Node>& items() const;

   // Throws ParseError "strep: <path>: <what>"; for a type's own checks of a field's content.
   [[noreturn]] void fail(const std::string& what) const;

 private:
   friend class Parser;
   Node() = default;
   static const char* kindName(Kind k) noexcept;

   Kind kind_ = Kind::number;
   bool negative_ = false;
   bool overflow_ = false;
   uint64_t magnitude_ = 0;
   std::string text_; // a string's text, or a value's type name
   std::string path_;
   std::vector<std::string> names_; // field names of a value, parallel to children_
   std::vector<Node> children_;     // field nodes of a value, or items of a list
};

// Writers.
std::string quote(std::string_view text);
// "Value('type', ** {'a': x, 'b': y})": each field's text is inserted as given.
std::string valueText(std::string_view type,
                      std::initializer_list<std::pair<std::string_view, std::string>> fields);
// "[a, b, c]"
std::string listText(const std::vector<std::string>& items);

} // namespace Strep
