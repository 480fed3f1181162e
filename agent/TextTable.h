// Readable `show` output: aligned columns under a header and a rule, one row per entry.
//
// The caller adds rows in key order (it knows the key's own order, which text sorting would get
// wrong for numbers and addresses). Columns are as wide as their widest cell; the last column is
// not padded, so lines carry no trailing blanks. An empty cell prints as "-", except in the
// continuation lines of an entry that spans several lines. A table that would be wider than
// terminalColumns narrows its widest columns (none below its header or its longest word, then,
// when that is not enough, none below its header or kNarrowestCell) and wraps
// their cells at blanks onto further lines of the entry; JSON forms keep every text whole.
#pragma once

#include <string>
#include <vector>

namespace Show {

constexpr size_t terminalColumns = 120;
constexpr size_t kNarrowestCell = 10;

class TextTable {
 public:
   explicit TextTable(std::vector<std::string> headers);

   void rowIs(std::vector<std::string> cells);
   // A further line of the previous entry (its second segment list, ...): empty cells stay blank.
   void continuationIs(std::vector<std::string> cells);
   size_t rows() const noexcept { return rows_.size(); }
   // Appends the header, the rule and the rows to `out`, each line indented by `indent` blanks.
   void render(std::string& out, int indent = 0) const;

 private:
   std::vector<std::string> headers_;
   std::vector<std::vector<std::string>> rows_;
};

// Joins numbers or words with single blanks ("16001 16002").
template <class C, class F>
std::string joined(const C& items, F&& text) {
   std::string out;
   for (const auto& i : items) {
      if (!out.empty()) out += ' ';
      out += text(i);
   }
   return out;
}

} // namespace Show
