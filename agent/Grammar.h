// A command's grammar, read from its usage line, for the shell's `?` and Tab.
//
// Usage notation: `<value>` a value, `word` a keyword, `[...]` optional, `x...` one or more x,
// `[...]...` zero or more, `a|b` either word (binding to the neighbouring words only), and
// `(a b|c d)` a choice between sequences. After the leading positional values, keyword clauses
// (a keyword and the values up to the next keyword: `color <c>`, `[bsid <label>]`,
// `[segment-list [weight <w>] labels [<l>]...]...`) may come in any order, as the parsers take
// them: required ones once, optional ones at most once, repeated ones (`]...`) any number of times.
// A clause that is one optional keyword alone (`[json]`, `[force]`) ends the command, after every
// required clause.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Agent {

class Grammar {
 public:
   // `usage` without the verb's words.
   explicit Grammar(const std::string& usage);
   ~Grammar();
   Grammar(Grammar&&) noexcept;
   Grammar& operator=(Grammar&&) noexcept;

   struct Next {
      std::vector<std::string> words; // keywords and <placeholders>, in usage order
      bool complete = false;          // the words so far make a whole command
      bool valid = true;              // false: the words so far fit no way of the grammar
   };
   // What may follow `args` (the words after the verb). A word names a keyword the way the
   // parser matches it (any case, a prefix of one choice); any other word fills a placeholder.
   Next next(const std::vector<std::string>& args) const;

 private:
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

} // namespace Agent
