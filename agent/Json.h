// A small JSON value for the host's `show ... json` output.
//
// Values are built as a tree and rendered once. Layout is chosen by the builder, not guessed: a
// container made with `row()` (or `inlineArray()`) prints on one line, every other container
// puts each member on its own line. Tables use one inline row per entry, so the output diffs and
// greps line by line while staying valid JSON.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Ipkit.h"

namespace Json {

class Value {
 public:
   enum class Kind : uint8_t { null, boolean, number, string, array, object, rendered };

   Value() = default; // null
   static Value null() { return Value(); }
   static Value boolean(bool b);
   static Value number(uint64_t n);
   static Value number(int64_t n);
   // Plain decimal, never an exponent: the shortest text that reads back as the same double
   // ("0.1", "100000", "0.0000001").
   static Value number(double d);
   // A time or delay of the scheduler's clock, exact: "0.3", "1000.1".
   static Value seconds(std::chrono::nanoseconds d);
   static Value string(std::string_view s);
   static Value array();
   static Value inlineArray();
   static Value object();
   static Value row(); // an object printed on one line
   // A value rendered elsewhere (render() without its final newline), such as one another
   // process sent: placed as it is, its lines indented to where it stands.
   static Value rendered(std::string text);
   // The null label is JSON null; any other label is its number.
   static Value label(Ipkit::MplsLabel l);
   static Value address(const Ipkit::IpGenAddr& a) { return string(a.stringValue()); }

   Kind kind() const noexcept { return kind_; }
   // Object members keep insertion order. Returns *this so that rows read as one expression.
   Value& set(std::string_view key, Value v);
   Value& set(std::string_view key, bool b) { return set(key, boolean(b)); }
   Value& set(std::string_view key, uint32_t n) { return set(key, number(uint64_t{n})); }
   Value& set(std::string_view key, uint64_t n) { return set(key, number(n)); }
   Value& set(std::string_view key, const char* s) { return set(key, string(s)); }
   Value& set(std::string_view key, const std::string& s) { return set(key, string(s)); }
   Value& push(Value v);

   size_t size() const noexcept { return kind_ == Kind::object ? members_.size() : items_.size(); }
   // Object member lookup (null when absent); for tests and `show all`.
   const Value* find(std::string_view key) const;
   const std::vector<Value>& items() const noexcept { return items_; }
   const std::vector<std::pair<std::string, Value>>& members() const noexcept { return members_; }
   const std::string& text() const noexcept { return text_; }

   // Renders with a trailing newline when `depth` is 0.
   std::string render() const;

 private:
   void renderInto(std::string& out, int depth, bool oneLine) const;

   Kind kind_ = Kind::null;
   bool inline_ = false;
   std::string text_; // number (already formatted), string, or "true"/"false"
   std::vector<Value> items_;
   std::vector<std::pair<std::string, Value>> members_;
};

// "color-dscp" -> "colorDscp", "exported-segment-lists" -> "exportedSegmentLists".
std::string lowerCamel(std::string_view dashed);

} // namespace Json
