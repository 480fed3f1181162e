#include "agent/Json.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "platform/Kiln.h"

namespace Json {

Value Value::boolean(bool b) {
   Value v;
   v.kind_ = Kind::boolean;
   v.text_ = b ? "true" : "false";
   return v;
}

Value Value::number(uint64_t n) {
   Value v;
   v.kind_ = Kind::number;
   v.text_ = std::to_string(n);
   return v;
}

Value Value::number(int64_t n) {
   Value v;
   v.kind_ = Kind::number;
   v.text_ = std::to_string(n);
   return v;
}

Value Value::number(double d) {
   if (!std::isfinite(d)) return null();
   Value v;
   v.kind_ = Kind::number;
   // Fixed notation with the shortest digits that read back as the same double; the largest
   // double has 309 digits before the point.
   char buf[400];
   auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed);
   v.text_.assign(buf, ec == std::errc() ? end : buf);
   return v;
}

Value Value::seconds(std::chrono::nanoseconds d) {
   Value v;
   v.kind_ = Kind::number;
   v.text_ = Kiln::secondsText(d);
   return v;
}

Value Value::string(std::string_view s) {
   Value v;
   v.kind_ = Kind::string;
   v.text_ = s;
   return v;
}

Value Value::array() {
   Value v;
   v.kind_ = Kind::array;
   return v;
}

Value Value::inlineArray() {
   Value v = array();
   v.inline_ = true;
   return v;
}

Value Value::object() {
   Value v;
   v.kind_ = Kind::object;
   return v;
}

Value Value::rendered(std::string text) {
   Value v;
   v.kind_ = Kind::rendered;
   v.text_ = std::move(text);
   return v;
}

Value Value::row() {
   Value v = object();
   v.inline_ = true;
   return v;
}

Value Value::label(Ipkit::MplsLabel l) {
   if (l.isNull()) return null();
   return number(uint64_t{l.value()});
}

Value& Value::set(std::string_view key, Value v) {
   for (auto& [k, old] : members_) {
      if (k == key) {
         old = std::move(v);
         return *this;
      }
   }
   members_.emplace_back(std::string(key), std::move(v));
   return *this;
}

Value& Value::push(Value v) {
   items_.push_back(std::move(v));
   return *this;
}

const Value* Value::find(std::string_view key) const {
   for (const auto& [k, v] : members_) {
      if (k == key) return &v;
   }
   return nullptr;
}

namespace {
void quote(std::string& out, const std::string& s) {
   out += '"';
   for (unsigned char c : s) {
      switch (c) {
      case '"':
         out += "\\\"";
         break;
      case '\\':
         out += "\\\\";
         break;
      case '\n':
         out += "\\n";
         break;
      case '\t':
         out += "\\t";
         break;
      default:
         if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
         } else {
            out += static_cast<char>(c);
         }
      }
   }
   out += '"';
}
} // namespace

void Value::renderInto(std::string& out, int depth, bool oneLine) const {
   switch (kind_) {
   case Kind::null:
      out += "null";
      return;
   case Kind::boolean:
   case Kind::number:
      out += text_;
      return;
   case Kind::string:
      quote(out, text_);
      return;
   case Kind::rendered:
      for (char c : text_) {
         out += c;
         if (c == '\n') out.append(static_cast<size_t>(depth) * 2, ' ');
      }
      return;
   case Kind::array:
   case Kind::object:
      break;
   }
   const bool isObject = kind_ == Kind::object;
   const size_t n = size();
   out += isObject ? '{' : '[';
   if (n == 0) {
      out += isObject ? '}' : ']';
      return;
   }
   const bool flat = oneLine || inline_;
   for (size_t i = 0; i < n; ++i) {
      if (flat) {
         if (i) out += ", ";
      } else {
         out += i ? ",\n" : "\n";
         out.append(static_cast<size_t>(depth + 1) * 2, ' ');
      }
      if (isObject) {
         quote(out, members_[i].first);
         out += ": ";
         members_[i].second.renderInto(out, depth + 1, flat);
      } else {
         items_[i].renderInto(out, depth + 1, flat);
      }
   }
   if (!flat) {
      out += '\n';
      out.append(static_cast<size_t>(depth) * 2, ' ');
   }
   out += isObject ? '}' : ']';
}

std::string Value::render() const {
   std::string out;
   renderInto(out, 0, false);
   out += '\n';
   return out;
}

std::string lowerCamel(std::string_view dashed) {
   std::string out;
   bool upper = false;
   for (char c : dashed) {
      if (c == '-' || c == '_' || c == ' ') {
         upper = !out.empty();
         continue;
      }
      if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
      upper = false;
      out += c;
   }
   return out;
}

} // namespace Json
