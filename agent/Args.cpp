#include "agent/Args.h"

#include <algorithm>
#include <cstdio>

namespace Agent {

namespace {
// Length of the UTF-8 sequence starting text[i], or 0 when it is not a valid one (overlong forms,
// surrogates and code points above U+10FFFF included).
size_t utf8Length(std::string_view text, size_t i) noexcept {
   const auto b = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
   const unsigned char c = b(i);
   if (c < 0x80) return 1;
   size_t n = 0;
   uint32_t cp = 0;
   if ((c & 0xe0) == 0xc0) {
      n = 2, cp = c & 0x1f;
   } else if ((c & 0xf0) == 0xe0) {
      n = 3, cp = c & 0x0f;
   } else if ((c & 0xf8) == 0xf0) {
      n = 4, cp = c & 0x07;
   } else {
      return 0;
   }
   if (i + n > text.size()) return 0;
   for (size_t k = 1; k < n; ++k) {
      if ((b(i + k) & 0xc0) != 0x80) return 0;
      cp = (cp << 6) | (b(i + k) & 0x3f);
   }
   static constexpr uint32_t minOf[] = {0, 0, 0x80, 0x800, 0x10000};
   if (cp < minOf[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
   return n;
}

bool isControl(unsigned char c) noexcept { return c < 0x20 || c == 0x7f; }

// Words in messages longer than this are cut: a line of garbage must not flood the screen.
constexpr size_t kLongWord = 48;
constexpr size_t kShortenedTo = 32;
} // namespace

bool isCleanUtf8(std::string_view text) noexcept {
   for (size_t i = 0; i < text.size();) {
      const size_t n = utf8Length(text, i);
      if (n == 0 || (n == 1 && isControl(static_cast<unsigned char>(text[i])))) return false;
      i += n;
   }
   return true;
}

std::string printable(std::string_view text) {
   std::string out;
   size_t wordLength = 0; // characters since the last blank or quote
   for (size_t i = 0; i < text.size();) {
      size_t n = utf8Length(text, i);
      const auto c = static_cast<unsigned char>(text[i]);
      if (c == ' ' || c == '\'') {
         wordLength = 0;
      } else if (++wordLength > kShortenedTo) {
         // Skip the rest of the word when it is long; keep it whole when it is only a little over.
         size_t end = i;
         while (end < text.size() && text[end] != ' ' && text[end] != '\'') ++end;
         if (end - i + kShortenedTo > kLongWord) {
            out += "...";
            i = end;
            wordLength = 0;
            continue;
         }
      }
      if (n == 0 || (n == 1 && isControl(c))) {
         char buf[5];
         std::snprintf(buf, sizeof buf, "\\x%02x", c);
         out += buf;
         n = 1;
      } else {
         out.append(text.substr(i, n));
      }
      i += n;
   }
   return out;
}

ScriptError::ScriptError(std::string_view message, size_t token)
    : std::runtime_error(printable(message)), token_(token) {}

std::vector<std::string> tokenize(std::string_view line) {
   std::vector<std::string> out;
   size_t i = 0;
   while (i < line.size()) {
      const char c = line[i];
      if (c == '#') break;
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
         ++i;
         continue;
      }
      size_t j = i;
      while (j < line.size() && line[j] != ' ' && line[j] != '\t' && line[j] != '\r' &&
             line[j] != '\n' && line[j] != '#') {
         ++j;
      }
      out.emplace_back(line.substr(i, j - i));
      i = j;
   }
   return out;
}

namespace {
// Edit distance where swapping two neighbouring letters counts as one typo.
size_t editDistance(std::string_view a, std::string_view b) {
   const size_t w = b.size() + 1;
   std::vector<size_t> d((a.size() + 1) * w);
   for (size_t i = 0; i <= a.size(); ++i) d[i * w] = i;
   for (size_t j = 0; j <= b.size(); ++j) d[j] = j;
   for (size_t i = 1; i <= a.size(); ++i) {
      for (size_t j = 1; j <= b.size(); ++j) {
         const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
         size_t v = std::min(
             {d[(i - 1) * w + j] + 1, d[i * w + j - 1] + 1, d[(i - 1) * w + j - 1] + cost});
         if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
            v = std::min(v, d[(i - 2) * w + j - 2] + 1);
         }
         d[i * w + j] = v;
      }
   }
   return d[a.size() * w + b.size()];
}
} // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& candidates) {
   size_t longest = 0;
   for (const auto& c : candidates) longest = std::max(longest, c.size());
   // Beyond this no candidate is within the allowed distance: skip the quadratic work.
   if (word.size() > longest + 3) return std::string();
   const size_t allowed = std::max<size_t>(1, std::min<size_t>(3, word.size() / 3));
   std::string best;
   size_t bestDistance = ~size_t{0};
   for (const auto& c : candidates) {
      size_t d;
      // A candidate that starts with what was typed is the likely intent ("adj" -> "adjacency").
      if (word.size() >= 3 && c.compare(0, word.size(), word) == 0) {
         d = 1;
      } else if ((word.size() > c.size() ? word.size() - c.size() : c.size() - word.size()) >
                 allowed) {
         continue; // at least that many edits apart: it could not be chosen
      } else {
         d = editDistance(word, c);
      }
      if (d < bestDistance) {
         bestDistance = d;
         best = c;
      }
   }
   return bestDistance <= allowed ? best : std::string();
}

std::string lowercase(std::string_view text) {
   std::string out(text);
   for (char& c : out) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
   }
   return out;
}

std::string matchWord(std::string_view typed, const std::vector<std::string>& choices,
                      std::vector<std::string>* ambiguous) {
   if (typed.empty()) return std::string();
   const std::string t = lowercase(typed);
   std::vector<std::string> begun;
   for (const auto& c : choices) {
      const std::string lc = lowercase(c);
      if (lc == t) return c;
      if (lc.compare(0, t.size(), t) == 0) begun.push_back(c);
   }
   if (begun.size() == 1) return begun.front();
   std::sort(begun.begin(), begun.end());
   if (ambiguous) *ambiguous = std::move(begun);
   return std::string();
}

Args::Args(std::vector<std::string> tokens, size_t first, std::string usage)
    : tokens_(std::move(tokens)), pos_(first), first_(first), usage_(std::move(usage)) {}

std::string_view Args::peek() const noexcept {
   return done() ? std::string_view() : std::string_view(tokens_[pos_]);
}

bool Args::accept(std::string_view word) {
   if (done() || matchWord(tokens_[pos_], {std::string(word)}).empty()) return false;
   lastKeyword_ = word;
   ++pos_;
   return true;
}

std::string Args::word(std::string_view what) {
   if (done()) {
      if (!lastKeyword_.empty()) failUsage("missing value after '" + lastKeyword_ + "'");
      failUsage("missing " + std::string(what));
   }
   lastKeyword_.clear();
   return tokens_[pos_++];
}

std::string Args::name(std::string_view what) {
   std::string text = word(what);
   if (!isCleanUtf8(text)) {
      fail("a " + std::string(what) + " is text (UTF-8, no control characters), got '" + text +
           "'");
   }
   return text;
}

void Args::expect(std::string_view keyword) {
   if (done()) failUsage("missing '" + std::string(keyword) + "'");
   if (matchWord(tokens_[pos_], {std::string(keyword)}).empty()) {
      ++pos_; // the fault is this word
      failUsage("expected '" + std::string(keyword) + "', got '" + tokens_[pos_ - 1] + "'");
   }
   lastKeyword_ = keyword;
   ++pos_;
}

std::string Args::keyword(std::initializer_list<std::string_view> once,
                          std::initializer_list<std::string_view> repeatable) {
   const std::string typed = word("keyword");
   std::vector<std::string> all(once.begin(), once.end());
   all.insert(all.end(), repeatable.begin(), repeatable.end());
   std::vector<std::string> ambiguous;
   const std::string w = matchWord(typed, all, &ambiguous);
   if (w.empty()) {
      std::string msg;
      if (ambiguous.size() > 1) {
         msg = "ambiguous '" + typed + "': it begins";
         for (const auto& c : ambiguous) msg += " " + c;
      } else {
         msg = "unexpected '" + typed + "'";
         std::string guess = nearest(typed, all);
         if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
      }
      failUsage(msg);
   }
   const bool isOnce = std::find(once.begin(), once.end(), w) != once.end();
   if (isOnce && !seenKeywords_.insert(w).second) fail("'" + w + "' given twice");
   lastKeyword_ = w;
   return w;
}

Args::Decimal Args::parseDecimal(std::string_view text, uint64_t& out) noexcept {
   if (text.empty()) return Decimal::notANumber;
   uint64_t v = 0;
   bool tooLarge = false;
   for (char c : text) {
      if (c < '0' || c > '9') return Decimal::notANumber;
      const uint64_t d = static_cast<uint64_t>(c - '0');
      if (v > (~uint64_t{0} - d) / 10) tooLarge = true;
      v = v * 10 + d;
   }
   out = v;
   return tooLarge ? Decimal::tooLarge : Decimal::ok;
}

void Args::failNotANumber(std::string_view what, const std::string& text) const {
   fail("expected a number for " + std::string(what) + ", got '" + text + "'");
}

uint64_t Args::number(std::string_view what, uint64_t max) {
   std::string text = word(what);
   uint64_t v = 0;
   const Decimal d = parseDecimal(text, v);
   if (d == Decimal::notANumber) failNotANumber(what, text);
   if (d == Decimal::tooLarge || v > max) {
      fail(std::string(what) + " " + text + " is out of range (0 to " + std::to_string(max) + ")");
   }
   return v;
}

Ipkit::MplsLabel Args::label(std::string_view what) {
   std::string text = word(what);
   if (text == "none") return Ipkit::MplsLabel();
   uint64_t v = 0;
   const Decimal d = parseDecimal(text, v);
   if (d == Decimal::notANumber) {
      fail("expected a label for " + std::string(what) + " (0 to 1048575, or none), got '" + text +
           "'");
   }
   if (d == Decimal::tooLarge || v > Ipkit::MplsLabel::maxLabel) {
      fail(std::string(what) + " " + text +
           " is out of range: a label is 0 to 1048575, or none for no label");
   }
   return Ipkit::MplsLabel(v);
}

Ipkit::MplsLabelOperation Args::labelStack() {
   Ipkit::MplsLabelOperation op;
   uint32_t n = 0;
   for (;;) {
      std::string_view next = peek();
      uint64_t ignored = 0;
      if (next == "none") {
         word("label");
         fail("'none' in a label stack: a stack holds labels (0 to 1048575) only");
      }
      if (next.empty() || parseDecimal(next, ignored) == Decimal::notANumber) break;
      Ipkit::MplsLabel l = label("label");
      try {
         op.labelIs(Ipkit::MplsStackEntryIndex(n), l);
      } catch (const Mox::RangeError& e) {
         fail("label " + std::to_string(n + 1) + " of the stack: " + e.what() +
              " (a stack holds at most " + std::to_string(Ipkit::MplsLabelOperation::capacity) +
              " labels)");
      }
      ++n;
   }
   return op;
}

Ipkit::IpGenAddr Args::address(std::string_view what) {
   std::string text = word(what);
   auto a = Ipkit::IpGenAddr::parse(text);
   if (!a)
      fail("expected an IPv4 or IPv6 address for " + std::string(what) + ", got '" + text + "'");
   return *a;
}

Ipkit::IntfId Args::interface(std::string_view what) {
   std::string text = word(what);
   auto i = Ipkit::IntfId::parse(text);
   if (!i) {
      // The platform numbers interfaces as a kind and one number: slot/port and sub-interface
      // forms have no encoding, so say the rule rather than only show examples.
      fail("expected an interface name for " + std::string(what) +
           ": one of Ethernet, Vlan, Loopback, Port-Channel, NexthopGroup, DynamicTunnel, Fec "
           "followed by a number 0 to 16777215 (Ethernet1, Port-Channel2), got '" +
           text + "'");
   }
   return *i;
}

bool Args::onOff(std::string_view what) {
   std::string text = word(what);
   if (lowercase(text) == "on") return true;
   if (lowercase(text) == "off") return false;
   fail("expected on or off for " + std::string(what) + ", got '" + text + "'");
}

std::vector<std::string> protocolNames() {
   std::vector<std::string> names;
   for (uint32_t v = 0; v < 256; ++v) {
      std::string n = SrTePolicy::protocolEnumToString(static_cast<SrTePolicy::Protocol>(v));
      if (n != std::to_string(v)) names.push_back(n);
   }
   return names;
}

SrTePolicy::Protocol Args::protocol() {
   std::string text = word("protocol");
   static const std::vector<std::string> names = protocolNames();
   const std::string named = matchWord(text, names);
   if (auto p = SrTePolicy::sequenceToValue(named.empty() ? text : named)) return *p;
   std::string msg = "unknown protocol '" + text + "'";
   std::string guess = nearest(text, names);
   if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
   msg += "; a protocol is a number or one of:";
   for (const auto& n : names) msg += " " + n;
   fail(msg);
}

SrTePolicy::Originator Args::originator() {
   const uint64_t asn = number("originator AS number", SrTePolicy::maxU32());
   return SrTePolicy::Originator(static_cast<uint32_t>(asn), address("originator address"));
}

void Args::end() const {
   if (done()) return;
   std::string message = "unexpected '" + tokens_[pos_] + "'";
   if (!usage_.empty()) message += "; usage: " + usage_;
   throw ScriptError(message, pos_);
}

void Args::fail(const std::string& message) const {
   // Before any argument was read, the word read last is the verb's last.
   throw ScriptError(message, pos_ > first_ ? pos_ - 1 : (first_ > 0 ? first_ - 1 : 0));
}

void Args::failUsage(const std::string& message) const {
   if (usage_.empty()) fail(message);
   fail(message + "; usage: " + usage_);
}

} // namespace Agent
