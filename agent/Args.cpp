#include "agent/Args.h"

#include <algorithm>

namespace Agent {

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
   std::string best;
   size_t bestDistance = ~size_t{0};
   for (const auto& c : candidates) {
      size_t d = editDistance(word, c);
      // A candidate that starts with what was typed is the likely intent ("adj" -> "adjacency").
      if (word.size() >= 3 && c.compare(0, word.size(), word) == 0) d = 1;
      if (d < bestDistance) {
         bestDistance = d;
         best = c;
      }
   }
   const size_t allowed = std::max<size_t>(1, std::min<size_t>(3, word.size() / 3));
   return bestDistance <= allowed ? best : std::string();
}

Args::Args(std::vector<std::string> tokens, size_t first, std::string usage)
    : tokens_(std::move(tokens)), pos_(first), usage_(std::move(usage)) {}

std::string_view Args::peek() const noexcept {
   return done() ? std::string_view() : std::string_view(tokens_[pos_]);
}

bool Args::accept(std::string_view word) {
   if (done() || tokens_[pos_] != word) return false;
   lastKeyword_ = tokens_[pos_++];
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

void Args::expect(std::string_view keyword) {
   if (done()) failUsage("missing '" + std::string(keyword) + "'");
   if (tokens_[pos_] != keyword) {
      failUsage("expected '" + std::string(keyword) + "', got '" + tokens_[pos_] + "'");
   }
   lastKeyword_ = tokens_[pos_++];
}

std::string Args::keyword(std::initializer_list<std::string_view> once,
                          std::initializer_list<std::string_view> repeatable) {
   std::string w = word("keyword");
   const bool isOnce = std::find(once.begin(), once.end(), w) != once.end();
   const bool isRepeatable = std::find(repeatable.begin(), repeatable.end(), w) != repeatable.end();
   if (!isOnce && !isRepeatable) {
      std::vector<std::string> all(once.begin(), once.end());
      all.insert(all.end(), repeatable.begin(), repeatable.end());
      std::string msg = "unexpected '" + w + "'";
      std::string guess = nearest(w, all);
      if (!guess.empty()) msg += " (did you mean '" + guess + "'?)";
      failUsage(msg);
   }
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
      if (next.empty() || (next != "none" && parseDecimal(next, ignored) == Decimal::notANumber)) {
         break;
      }
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
      fail("expected an interface name for " + std::string(what) +
           " (Ethernet1, Vlan10, Loopback0, Port-Channel2, NexthopGroup7, DynamicTunnel3, "
           "Fec4), got '" +
           text + "'");
   }
   return *i;
}

bool Args::onOff(std::string_view what) {
   std::string text = word(what);
   if (text == "on") return true;
   if (text == "off") return false;
   fail("expected on or off for " + std::string(what) + ", got '" + text + "'");
}

namespace {
std::vector<std::string> protocolNames() {
   std::vector<std::string> names;
   for (uint32_t v = 0; v < 256; ++v) {
      std::string n = SrTePolicy::protocolEnumToString(static_cast<SrTePolicy::Protocol>(v));
      if (n != std::to_string(v)) names.push_back(n);
   }
   return names;
}
} // namespace

SrTePolicy::Protocol Args::protocol() {
   std::string text = word("protocol");
   if (auto p = SrTePolicy::sequenceToValue(text)) return *p;
   static const std::vector<std::string> names = protocolNames();
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
   if (!done()) failUsage("unexpected '" + tokens_[pos_] + "'");
}

void Args::fail(const std::string& message) const { throw ScriptError(message); }

void Args::failUsage(const std::string& message) const {
   if (usage_.empty()) fail(message);
   fail(message + "; usage: " + usage_);
}

} // namespace Agent
