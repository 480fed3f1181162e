#include "agent/Grammar.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <tuple>

#include "agent/Args.h"

namespace Agent {

namespace {

struct Node {
   enum class Kind { word, hole, seq, alt, opt, star, plus } kind;
   std::string text;
   std::vector<Node> kids;
};

// ---- reading the usage line

std::vector<std::string> lex(const std::string& usage) {
   std::vector<std::string> out;
   for (size_t i = 0; i < usage.size();) {
      const char c = usage[i];
      if (c == ' ' || c == '\t') {
         ++i;
      } else if (c == '<') {
         const size_t end = usage.find('>', i);
         if (end == std::string::npos) throw std::logic_error("usage: unclosed '<': " + usage);
         out.push_back(usage.substr(i, end + 1 - i));
         i = end + 1;
      } else if (c == '[' || c == ']' || c == '(' || c == ')' || c == '|') {
         out.emplace_back(1, c);
         ++i;
      } else if (usage.compare(i, 3, "...") == 0) {
         out.emplace_back("...");
         i += 3;
      } else {
         size_t j = i;
         while (j < usage.size() &&
                std::string_view(" \t[]()|<").find(usage[j]) == std::string_view::npos &&
                usage.compare(j, 3, "...") != 0) {
            ++j;
         }
         out.push_back(usage.substr(i, j - i));
         i = j;
      }
   }
   return out;
}

class Parser {
 public:
   explicit Parser(std::vector<std::string> symbols) : s_(std::move(symbols)) {}
   Node all() {
      Node n = sequence("");
      if (pos_ != s_.size()) throw std::logic_error("usage: unexpected '" + s_[pos_] + "'");
      return n;
   }

 private:
   bool at(const char* sym) const { return pos_ < s_.size() && s_[pos_] == sym; }

   // Up to `closer`. Inside parentheses `|` separates sequences; elsewhere it joins the words
   // on either side of it.
   Node sequence(const char* closer) {
      const bool branches = std::string_view(closer) == ")";
      std::vector<Node> alternatives;
      Node seq{Node::Kind::seq, {}, {}};
      while (pos_ < s_.size() && !at(closer)) {
         if (at("|")) {
            ++pos_;
            if (branches) {
               alternatives.push_back(std::move(seq));
               seq = Node{Node::Kind::seq, {}, {}};
               continue;
            }
            if (seq.kids.empty()) throw std::logic_error("usage: '|' with nothing before it");
            Node prev = std::move(seq.kids.back());
            seq.kids.pop_back();
            Node alt{Node::Kind::alt, {}, {}};
            if (prev.kind == Node::Kind::alt) {
               alt = std::move(prev);
            } else {
               alt.kids.push_back(std::move(prev));
            }
            alt.kids.push_back(primary());
            seq.kids.push_back(std::move(alt));
            continue;
         }
         Node e = primary();
         if (at("...")) {
            ++pos_;
            if (e.kind == Node::Kind::opt) {
               e.kind = Node::Kind::star;
            } else {
               e = Node{Node::Kind::plus, {}, {std::move(e)}};
            }
         }
         seq.kids.push_back(std::move(e));
      }
      if (!alternatives.empty()) {
         alternatives.push_back(std::move(seq));
         return Node{Node::Kind::alt, {}, std::move(alternatives)};
      }
      return seq;
   }

   Node primary() {
      if (pos_ >= s_.size()) throw std::logic_error("usage: ends too early");
      const std::string sym = s_[pos_++];
      if (sym == "[" || sym == "(") {
         const char* closer = sym == "[" ? "]" : ")";
         Node inner = sequence(closer);
         if (!at(closer)) throw std::logic_error(std::string("usage: missing '") + closer + "'");
         ++pos_;
         if (sym == "(") return inner;
         return Node{Node::Kind::opt, {}, {std::move(inner)}};
      }
      if (sym == "]" || sym == ")" || sym == "..." || sym == "|") {
         throw std::logic_error("usage: unexpected '" + sym + "'");
      }
      return Node{sym[0] == '<' ? Node::Kind::hole : Node::Kind::word, sym, {}};
   }

   std::vector<std::string> s_;
   size_t pos_ = 0;
};

// ---- automata

struct Term {
   bool hole;
   std::string text;
};

struct Nfa {
   struct State {
      std::vector<int> eps;
      int term = -1; // index into terms; the edge goes to `to`
      int to = -1;
   };
   std::vector<State> states;
   std::vector<Term> terms;
   int start = 0, accept = 0;

   int add() {
      states.emplace_back();
      return static_cast<int>(states.size()) - 1;
   }
   void eps(int a, int b) { states[static_cast<size_t>(a)].eps.push_back(b); }

   std::pair<int, int> build(const Node& n) {
      const int s = add();
      switch (n.kind) {
      case Node::Kind::word:
      case Node::Kind::hole: {
         const int e = add();
         terms.push_back(Term{n.kind == Node::Kind::hole, n.text});
         states[static_cast<size_t>(s)].term = static_cast<int>(terms.size()) - 1;
         states[static_cast<size_t>(s)].to = e;
         return {s, e};
      }
      case Node::Kind::seq: {
         int last = s;
         for (const Node& k : n.kids) {
            const auto [ks, ke] = build(k);
            eps(last, ks);
            last = ke;
         }
         return {s, last};
      }
      case Node::Kind::alt: {
         const int e = add();
         for (const Node& k : n.kids) {
            const auto [ks, ke] = build(k);
            eps(s, ks);
            eps(ke, e);
         }
         return {s, e};
      }
      case Node::Kind::opt:
      case Node::Kind::star:
      case Node::Kind::plus: {
         const auto [ks, ke] = build(n.kids.front());
         const int e = add();
         eps(s, ks);
         eps(ke, e);
         if (n.kind != Node::Kind::plus) eps(s, e);
         if (n.kind != Node::Kind::opt) eps(ke, ks);
         return {s, e};
      }
      }
      return {s, s};
   }

   static Nfa of(const Node& n) {
      Nfa a;
      std::tie(a.start, a.accept) = a.build(n);
      return a;
   }
};

// A clause begins with a keyword: a plain word, or an optional group whose first part is one.
bool beginsWithWord(const Node& n) {
   if (n.kind == Node::Kind::word) return true;
   if (n.kind == Node::Kind::seq) return !n.kids.empty() && beginsWithWord(n.kids.front());
   return false;
}
bool startsClause(const Node& n) {
   if (n.kind == Node::Kind::word) return true;
   return (n.kind == Node::Kind::opt || n.kind == Node::Kind::star) &&
          beginsWithWord(n.kids.front());
}

// Splits elements into keyword clauses: each begins with a keyword (or an optional group that
// begins with one) and holds the values after it. Empty when an element before the first clause
// is a value: then the order is fixed.
std::vector<Node> clausesOf(const std::vector<Node>& elements) {
   std::vector<Node> out;
   for (const Node& e : elements) {
      if (startsClause(e)) {
         out.push_back(Node{Node::Kind::seq, {}, {e}});
      } else if (out.empty()) {
         return {};
      } else {
         out.back().kids.push_back(e);
      }
   }
   return out;
}

// Inside a clause, keyword clauses after its keyword come in any order too
// ("segment-list [weight <w>] labels <l>..." takes "labels 16 weight 2"): the body becomes the
// choice of their orders.
Node anyOrderInside(const Node& body) {
   if (body.kind != Node::Kind::seq || body.kids.size() < 3) return body;
   const std::vector<Node> rest(body.kids.begin() + 1, body.kids.end());
   std::vector<Node> parts = clausesOf(rest);
   if (parts.size() < 2 || parts.size() > 4) return body;
   std::vector<size_t> order(parts.size());
   for (size_t i = 0; i < order.size(); ++i) order[i] = i;
   Node orders{Node::Kind::alt, {}, {}};
   do {
      Node seq{Node::Kind::seq, {}, {}};
      for (size_t i : order) seq.kids.push_back(parts[i]);
      orders.kids.push_back(std::move(seq));
   } while (std::next_permutation(order.begin(), order.end()));
   return Node{Node::Kind::seq, {}, {body.kids.front(), std::move(orders)}};
}

} // namespace

struct Grammar::Impl {
   struct Clause {
      Nfa nfa;
      bool required = false;
      bool repeated = false;
      bool flag = false;
   };
   Nfa positional;
   std::vector<Clause> clauses;

   // part -1: the positional words; else a clause.
   struct State {
      int part;
      int node;
      uint64_t used;
      auto operator<=>(const State&) const = default;
   };

   const Nfa& nfa(int part) const {
      return part < 0 ? positional : clauses[static_cast<size_t>(part)].nfa;
   }
   bool allRequired(uint64_t used) const {
      for (size_t c = 0; c < clauses.size(); ++c) {
         if (clauses[c].required && !(used & (uint64_t{1} << c))) return false;
      }
      return true;
   }
   bool anyFlag(uint64_t used) const {
      for (size_t c = 0; c < clauses.size(); ++c) {
         if (clauses[c].flag && (used & (uint64_t{1} << c))) return true;
      }
      return false;
   }

   // Every state reachable without a word, in the order found (breadth first from `seeds`, so
   // the current clause's own words come before new clauses); `complete` when one ends a whole
   // command.
   std::vector<State> closure(const std::vector<State>& seeds, bool& complete) const {
      std::set<State> seen;
      std::vector<State> order;
      complete = false;
      auto reach = [&](State s) {
         if (seen.insert(s).second) order.push_back(s);
      };
      for (const State& s : seeds) reach(s);
      for (size_t i = 0; i < order.size(); ++i) {
         const State s = order[i];
         const Nfa& a = nfa(s.part);
         for (int e : a.states[static_cast<size_t>(s.node)].eps) reach({s.part, e, s.used});
         if (s.node != a.accept) continue;
         // Between clauses: any clause not given yet (or a repeated one) may begin; a flag only
         // once every required clause is there, and after a flag only flags.
         const bool done = allRequired(s.used);
         if (done) complete = true;
         const bool flagged = anyFlag(s.used);
         for (size_t c = 0; c < clauses.size(); ++c) {
            const Clause& cl = clauses[c];
            const uint64_t bit = uint64_t{1} << c;
            if ((s.used & bit) && !cl.repeated) continue;
            if (cl.flag ? !done : flagged) continue;
            reach({static_cast<int>(c), cl.nfa.start, s.used | bit});
         }
      }
      return order;
   }
};

Grammar::Grammar(const std::string& usage) : impl_(std::make_unique<Impl>()) {
   const Node top = Parser(lex(usage)).all();
   Node positional{Node::Kind::seq, {}, {}};
   std::vector<Node> clauseNodes;
   std::vector<std::pair<bool, bool>> kinds; // required, repeated
   for (const Node& e : top.kids) {
      if (startsClause(e)) {
         if (e.kind == Node::Kind::word) {
            clauseNodes.push_back(Node{Node::Kind::seq, {}, {e}});
            kinds.emplace_back(true, false);
         } else {
            clauseNodes.push_back(e.kids.front());
            kinds.emplace_back(false, e.kind == Node::Kind::star);
         }
      } else if (clauseNodes.empty()) {
         positional.kids.push_back(e);
      } else {
         // A value of the clause before ("labels [<l>]...").
         Node& body = clauseNodes.back();
         if (body.kind != Node::Kind::seq) body = Node{Node::Kind::seq, {}, {std::move(body)}};
         body.kids.push_back(e);
      }
   }
   if (clauseNodes.size() > 64) throw std::logic_error("usage: too many clauses");
   impl_->positional = Nfa::of(positional);
   for (size_t i = 0; i < clauseNodes.size(); ++i) {
      Impl::Clause c;
      c.nfa = Nfa::of(anyOrderInside(clauseNodes[i]));
      c.required = kinds[i].first;
      c.repeated = kinds[i].second;
      const Node& body = clauseNodes[i];
      c.flag = !c.required && !c.repeated &&
               ((body.kind == Node::Kind::word) ||
                (body.kind == Node::Kind::seq && body.kids.size() == 1 &&
                 body.kids.front().kind == Node::Kind::word));
      impl_->clauses.push_back(std::move(c));
   }
}

Grammar::~Grammar() = default;
Grammar::Grammar(Grammar&&) noexcept = default;
Grammar& Grammar::operator=(Grammar&&) noexcept = default;

Grammar::Next Grammar::next(const std::vector<std::string>& args) const {
   const Impl& g = *impl_;
   Next out;
   std::vector<Impl::State> states =
       g.closure({Impl::State{-1, g.positional.start, 0}}, out.complete);
   for (const std::string& word : args) {
      // A word that names a keyword possible here is that keyword; any other fills a value.
      std::vector<std::string> keywords;
      for (const auto& s : states) {
         const auto& st = g.nfa(s.part).states[static_cast<size_t>(s.node)];
         if (st.term < 0) continue;
         const Term& t = g.nfa(s.part).terms[static_cast<size_t>(st.term)];
         if (!t.hole) keywords.push_back(t.text);
      }
      const std::string keyword = matchWord(word, keywords);
      std::vector<Impl::State> after;
      for (const auto& s : states) {
         const auto& st = g.nfa(s.part).states[static_cast<size_t>(s.node)];
         if (st.term < 0) continue;
         const Term& t = g.nfa(s.part).terms[static_cast<size_t>(st.term)];
         if (keyword.empty() ? t.hole : (!t.hole && t.text == keyword)) {
            after.push_back({s.part, st.to, s.used});
         }
      }
      if (after.empty()) {
         out.valid = false;
         out.complete = false;
         return out;
      }
      states = g.closure(after, out.complete);
   }
   // Nearest first: what continues the words typed, then the clauses in usage order.
   for (const auto& s : states) {
      const auto& st = g.nfa(s.part).states[static_cast<size_t>(s.node)];
      if (st.term < 0) continue;
      const std::string& w = g.nfa(s.part).terms[static_cast<size_t>(st.term)].text;
      if (std::find(out.words.begin(), out.words.end(), w) == out.words.end()) {
         out.words.push_back(w);
      }
   }
   return out;
}

} // namespace Agent
