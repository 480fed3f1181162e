// The words of one scenario line and the checks that turn them into values.
//
// A verb's parser reads its words through an Args cursor. Every read either yields a valid value
// or throws ScriptError with a message fit for the user ("missing value for 'color'", "weight 0:
// Weight::value < Weight::min or > Weight::max not allowed (weight is 1 to 4294967295)"); range
// errors carry the value type's own message, then the range in plain words. Parsers never change
// anything: they return the change as a closure, which runs only when the whole line has been read
// without error.
#pragma once

#include <initializer_list>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "types/SrTePolicyTypes.h"

namespace Agent {

// A refused line. The message is made fit for a terminal: control and non-UTF-8 bytes are shown
// as \xNN and overlong words are shortened, so that garbage input cannot garble or flood the
// screen. `token` is the index of the word the fault was found at, when known (a command
// continued over several lines reports the line holding that word).
class ScriptError : public std::runtime_error {
 public:
   static constexpr size_t noToken = ~size_t{0};
   explicit ScriptError(std::string_view message, size_t token = noToken);
   size_t token() const noexcept { return token_; }

 private:
   size_t token_;
};

// `text` fit for a message: see ScriptError.
std::string printable(std::string_view text);
// Whether `text` is valid UTF-8 without control characters.
bool isCleanUtf8(std::string_view text) noexcept;

// Splits a line at blanks; `#` starts a comment that runs to the end of the line.
std::vector<std::string> tokenize(std::string_view line);

// The candidate closest to `word` by edit distance, or empty when none is close enough to be a
// plausible typo. A word much longer than every candidate gets no suggestion (and costs nothing).
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

// How a typed word names one of `choices`. Keywords are case-insensitive, and a word that begins
// exactly one choice stands for it ("sh" for "show"); an exact match wins over longer choices
// ("adjacency" rather than "adjacency-ext"). Returns the choice, or empty: then `ambiguous` (when
// given) holds the choices the word begins, if several.
std::string matchWord(std::string_view typed, const std::vector<std::string>& choices,
                      std::vector<std::string>* ambiguous = nullptr);
std::string lowercase(std::string_view text);

class Args {
 public:
   Args(std::vector<std::string> tokens, size_t first, std::string usage);

   bool done() const noexcept { return pos_ >= tokens_.size(); }
   // The next word, or empty at the end of the line.
   std::string_view peek() const noexcept;
   // Consumes the next word when it names `word` (in any case, or abbreviated).
   bool accept(std::string_view word);
   std::string word(std::string_view what);
   // A name the user chooses (a label range's): valid UTF-8 text, so that every table and its
   // JSON can show it.
   std::string name(std::string_view what);
   void expect(std::string_view keyword);
   // Reads one keyword of a keyword-value list. A keyword outside `once` and `repeatable` is an
   // error that names the allowed ones; a keyword of `once` given twice is an error.
   std::string keyword(std::initializer_list<std::string_view> once,
                       std::initializer_list<std::string_view> repeatable = {});
   // Decimal number up to `max`.
   uint64_t number(std::string_view what, uint64_t max = ~uint64_t{0});
   // A bounded value type (Weight, Preference, ...): the type's range error becomes the message.
   template <class B>
   B bounded(std::string_view what) {
      std::string text = word(what);
      uint64_t v = 0;
      const Decimal d = parseDecimal(text, v);
      if (d == Decimal::notANumber) failNotANumber(what, text);
      try {
         if (d == Decimal::tooLarge) throw Mox::RangeError(B::rangeMessage);
         return B::fromWide(v);
      } catch (const Mox::RangeError& e) {
         // The type's own message, then the range in plain words.
         fail(std::string(what) + " " + text + ": " + e.what() + " (" + std::string(what) + " is " +
              std::to_string(uint64_t{B::min}) + " to " + std::to_string(uint64_t{B::max}) + ")");
      }
   }
   // 0..1048575, or `none` for the null label.
   Ipkit::MplsLabel label(std::string_view what);
   // The run of labels after `labels`, top of stack first; ends at the first word that is not a
   // label. An empty run is allowed (a segment list without labels is an input like any other);
   // `none` is refused: a stack holds labels only.
   Ipkit::MplsLabelOperation labelStack();
   Ipkit::IpGenAddr address(std::string_view what);
   Ipkit::IntfId interface(std::string_view what);
   bool onOff(std::string_view what);
   SrTePolicy::Protocol protocol();
   SrTePolicy::Originator originator();
   // Fails unless every word has been read.
   void end() const;

   // Refuses the line; the fault is placed at the word read last.
   [[noreturn]] void fail(const std::string& message) const;
   // Like fail, with the verb's usage appended: for missing or misplaced words.
   [[noreturn]] void failUsage(const std::string& message) const;
   const std::string& usage() const noexcept { return usage_; }

   enum class Decimal { ok, notANumber, tooLarge };
   static Decimal parseDecimal(std::string_view text, uint64_t& out) noexcept;

 private:
   [[noreturn]] void failNotANumber(std::string_view what, const std::string& text) const;

   std::vector<std::string> tokens_;
   size_t pos_;
   size_t first_;
   std::string usage_;
   std::set<std::string> seenKeywords_;
   std::string lastKeyword_; // the keyword whose value comes next, for "missing value" messages
};

// Required keyword values: `need(color, "color")` fails when the keyword was not given.
template <class T>
const T& need(const Args& a, const std::optional<T>& v, std::string_view keyword) {
   if (!v) a.failUsage("missing '" + std::string(keyword) + "'");
   return *v;
}

// The protocols that have a name, for parsing and completion.
std::vector<std::string> protocolNames();

} // namespace Agent
