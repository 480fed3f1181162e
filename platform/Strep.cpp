#include "platform/Strep.h"

#include <algorithm>

#include "platform/Mox.h"

namespace Strep {

// A recursive-descent reader over the text. Nesting is bounded so hostile text cannot exhaust the
// stack.
class Parser {
 public:
   explicit Parser(std::string_view text) : text_(text) {}

   Node parseAll() {
      Node n = parseNode("", 0);
      skipBlanks();
      if (pos_ != text_.size()) fail("unexpected text after the value");
      return n;
   }

 private:
   static constexpr int maxDepth = 64;

   [[noreturn]] void fail(const std::string& what) const {
      std::string near(text_.substr(pos_, 20));
      throw ParseError("strep: " + what + " at offset " + std::to_string(pos_) +
                       (near.empty() ? std::string(" (end of text)") : " near \"" + near + "\""));
   }
   void skipBlanks() {
      while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                     text_[pos_] == '\n' || text_[pos_] == '\r')) {
         ++pos_;
      }
   }
   bool peek(char c) {
      skipBlanks();
      return pos_ < text_.size() && text_[pos_] == c;
   }
   void expect(std::string_view token) {
      skipBlanks();
      if (text_.substr(pos_, token.size()) != token) fail("expected '" + std::string(token) + "'");
      pos_ += token.size();
   }

   Node parseNode(const std::string& path, int depth) {
      if (depth > maxDepth) fail("nesting too deep");
      skipBlanks();
      if (pos_ >= text_.size()) fail("expected a value");
      char c = text_[pos_];
      Node n;
      n.path_ = path;
      if (c == '\'') {
         n.kind_ = Node::Kind::string;
         n.text_ = parseString();
      } else if (c == '-' || (c >= '0' && c <= '9')) {
         parseNumber(n);
      } else if (c == '[') {
         n.kind_ = Node::Kind::list;
         ++pos_;
         if (!peek(']')) {
            do {
               n.children_.push_back(
                   parseNode(path + "[" + std::to_string(n.children_.size()) + "]", depth + 1));
            } while (consumeComma());
         }
         expect("]");
      } else if (text_.substr(pos_, 5) == "Value") {
         parseValue(n, depth);
      } else {
         fail("expected a Value, a number, a quoted string or a list");
      }
      return n;
   }

   bool consumeComma() {
      if (!peek(',')) return false;
      ++pos_;
      return true;
   }

   void parseValue(Node& n, int depth) {
      n.kind_ = Node::Kind::value;
      pos_ += 5;
      expect("(");
      skipBlanks();
      if (!peek('\'')) fail("expected the quoted type name of the Value");
      n.text_ = parseString();
      if (n.text_.empty()) fail("empty type name");
      if (n.path_.empty()) n.path_ = n.text_;
      expect(",");
      expect("**");
      expect("{");
      if (!peek('}')) {
         do {
            if (!peek('\'')) fail("expected a quoted field name");
            std::string name = parseString();
            if (std::find(n.names_.begin(), n.names_.end(), name) != n.names_.end()) {
               fail("duplicate field '" + name + "' in " + n.text_);
            }
            expect(":");
            n.children_.push_back(parseNode(n.path_ + "." + name, depth + 1));
            n.names_.push_back(std::move(name));
         } while (consumeComma());
      }
      expect("}");
      expect(")");
   }

   std::string parseString() {
      ++pos_; // opening quote
      std::string out;
      while (pos_ < text_.size()) {
         char c = text_[pos_++];
         if (c == '\'') return out;
         if (c == '\\') {
            if (pos_ >= text_.size()) break;
            c = text_[pos_++];
         }
         out += c;
      }
      fail("unterminated string");
   }

   void parseNumber(Node& n) {
      n.kind_ = Node::Kind::number;
      if (text_[pos_] == '-') {
         n.negative_ = true;
         ++pos_;
      }
      size_t start = pos_;
      while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
         uint64_t digit = static_cast<uint64_t>(text_[pos_] - '0');
         if (n.magnitude_ > (UINT64_MAX - digit) / 10) n.overflow_ = true;
         n.magnitude_ = n.magnitude_ * 10 + digit;
         ++pos_;
      }
      if (pos_ == start) fail("expected digits");
      // A negative zero is still zero: no range error for "-0".
      if (n.magnitude_ == 0 && !n.overflow_) n.negative_ = false;
   }

   std::string_view text_;
   size_t pos_ = 0;
};

Node Node::parse(std::string_view text) { return Parser(text).parseAll(); }

const char* Node::kindName(Kind k) noexcept {
   switch (k) {
   case Kind::number:
      return "a number";
   case Kind::string:
      return "a string";
   case Kind::value:
      return "a Value";
   case Kind::list:
      return "a list";
   }
   return "?";
}

void Node::fail(const std::string& what) const {
   throw ParseError("strep: " + (path_.empty() ? std::string() : path_ + ": ") + what);
}

uint64_t Node::unsignedValue(const char* rangeMessage) const {
   if (kind_ != Kind::number) fail(std::string("expected a number, got ") + kindName(kind_));
   if (negative_ || overflow_) throw Mox::RangeError(rangeMessage);
   return magnitude_;
}

const std::string& Node::stringValue() const {
   if (kind_ != Kind::string) fail(std::string("expected a string, got ") + kindName(kind_));
   return text_;
}

const std::string& Node::typeName() const {
   if (kind_ != Kind::value) fail(std::string("expected a Value, got ") + kindName(kind_));
   return text_;
}

const Node& Node::expectValue(std::string_view type,
                              std::initializer_list<std::string_view> fields) const {
   if (kind_ != Kind::value) {
      fail("expected Value('" + std::string(type) + "'), got " + kindName(kind_));
   }
   if (text_ != type)
      fail("expected Value('" + std::string(type) + "'), got Value('" + text_ + "')");
   for (const std::string& name : names_) {
      if (std::find(fields.begin(), fields.end(), name) == fields.end()) {
         fail("unknown field '" + name + "'");
      }
   }
   for (std::string_view f : fields) {
      if (std::find(names_.begin(), names_.end(), f) == names_.end()) {
         fail("missing field '" + std::string(f) + "'");
      }
   }
   return *this;
}

const Node& Node::field(std::string_view name) const {
   typeName();
   for (size_t i = 0; i < names_.size(); ++i) {
      if (names_[i] == name) return children_[i];
   }
   fail("missing field '" + std::string(name) + "'");
}

const std::vector<Node>& Node::items() const {
   if (kind_ != Kind::list) fail(std::string("expected a list, got ") + kindName(kind_));
   return children_;
}

std::string quote(std::string_view text) {
   std::string out;
   out.reserve(text.size() + 2);
   out += '\'';
   for (char c : text) {
      if (c == '\'' || c == '\\') out += '\\';
      out += c;
   }
   out += '\'';
   return out;
}

std::string valueText(std::string_view type,
                      std::initializer_list<std::pair<std::string_view, std::string>> fields) {
   std::string out = "Value(";
   out += quote(type);
   out += ", ** {";
   bool first = true;
   for (const auto& [name, text] : fields) {
      if (!first) out += ", ";
      first = false;
      out += quote(name);
      out += ": ";
      out += text;
   }
   out += "})";
   return out;
}

std::string listText(const std::vector<std::string>& items) {
   std::string out = "[";
   for (size_t i = 0; i < items.size(); ++i) {
      if (i) out += ", ";
      out += items[i];
   }
   out += "]";
   return out;
}

} // namespace Strep
