#include "bgp/InjectCommand.h"

#include <charconv>
#include <stdexcept>
#include <string>
#include <vector>

namespace SrTeBgp {

using namespace SrTePolicy;

namespace {

class Words {
 public:
   explicit Words(std::string_view line) {
      size_t i = 0;
      while (i < line.size()) {
         while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
         size_t j = i;
         while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
         if (j > i) words_.emplace_back(line.substr(i, j - i));
         i = j;
      }
   }
   bool empty() const { return next_ >= words_.size(); }
   std::string_view peek() const { return empty() ? std::string_view() : words_[next_]; }
   std::string take(const char* what) {
      if (empty()) throw std::invalid_argument(std::string("missing ") + what);
      return words_[next_++];
   }
   bool accept(std::string_view w) {
      if (peek() != w) return false;
      ++next_;
      return true;
   }
   void expect(const char* w) {
      if (!accept(w)) throw std::invalid_argument(std::string("expected '") + w + "'");
   }
   uint32_t number(const char* what, uint64_t max = 0xffffffffu) {
      const std::string w = take(what);
      uint64_t v = 0;
      auto [end, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
      if (ec != std::errc() || end != w.data() + w.size() || v > max)
         throw std::invalid_argument(std::string(what) + " '" + w + "' is not a number from 0 to " +
                                     std::to_string(max));
      return static_cast<uint32_t>(v);
   }
   bool peekNumber() const {
      const std::string_view w = peek();
      return !w.empty() && w.find_first_not_of("0123456789") == std::string_view::npos;
   }
   bool peekValue() const {
      const std::string_view w = peek();
      return !w.empty() && w != "segment-list" && w != "labels" && w != "srv6" && w != "weight";
   }

 private:
   std::vector<std::string> words_;
   size_t next_ = 0;
};

PolicyId readId(Words& w) {
   const std::string ep = w.take("endpoint");
   std::optional<Ipkit::IpGenAddr> endpoint = Ipkit::IpGenAddr::parse(ep);
   if (!endpoint) throw std::invalid_argument("endpoint '" + ep + "' is not an address");
   w.expect("color");
   const uint32_t color = w.number("color");
   w.expect("distinguisher");
   const uint32_t distinguisher = w.number("distinguisher");
   return PolicyId(PolicyKey(*endpoint, Color(color)), Protocol::bgp, Discriminator(distinguisher));
}

} // namespace

std::optional<InjectCommand> parseInjectLine(std::string_view line) {
   Words w(line);
   if (w.empty() || w.peek().front() == '#') return std::nullopt;
   InjectCommand c;
   const std::string verb = w.take("command");
   if (verb == "withdraw") {
      c.kind = InjectCommand::Kind::withdraw;
      c.advert.id = readId(w);
   } else if (verb == "add") {
      c.advert.id = readId(w);
      while (!w.empty()) {
         if (w.accept("preference")) {
            c.advert.preference = w.number("preference");
         } else if (w.accept("bsid")) {
            c.advert.bindingSid = w.number("bsid", Ipkit::MplsLabel::maxLabel);
         } else if (w.accept("srv6-bsid")) {
            c.advert.srv6BindingSid = w.take("srv6-bsid");
         } else if (w.accept("segment-list")) {
            PolicyAdvert::List l;
            if (w.accept("weight")) l.weight = w.number("weight");
            if (l.weight == 0) throw std::invalid_argument("weight 0: a weight is 1 or more");
            if (w.accept("labels")) {
               while (w.peekNumber())
                  l.labels.push_back(w.number("label", Ipkit::MplsLabel::maxLabel));
            }
            if (w.accept("srv6")) {
               while (w.peekValue()) l.srv6.push_back(w.take("srv6 SID"));
            }
            c.advert.lists.push_back(std::move(l));
         } else {
            throw std::invalid_argument("unexpected '" + std::string(w.peek()) + "'");
         }
      }
      if (c.advert.bindingSid && c.advert.srv6BindingSid)
         throw std::invalid_argument("bsid and srv6-bsid: a policy has one binding SID");
   } else {
      throw std::invalid_argument("unknown command '" + verb + "' (add, withdraw)");
   }
   if (!w.empty()) throw std::invalid_argument("unexpected '" + std::string(w.peek()) + "'");
   return c;
}

} // namespace SrTeBgp
