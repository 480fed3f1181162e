#include "agent/TextTable.h"

#include <algorithm>

namespace Show {

TextTable::TextTable(std::vector<std::string> headers) : headers_(std::move(headers)) {}

void TextTable::rowIs(std::vector<std::string> cells) {
   cells.resize(headers_.size());
   for (auto& c : cells) {
      if (c.empty()) c.push_back('-');
   }
   rows_.push_back(std::move(cells));
}

void TextTable::continuationIs(std::vector<std::string> cells) {
   cells.resize(headers_.size());
   rows_.push_back(std::move(cells));
}

namespace {
// The pieces of `text` at most `width` long, broken at blanks where there is one (a word longer
// than the width is cut).
std::vector<std::string> wrapped(const std::string& text, size_t width) {
   std::vector<std::string> out;
   size_t start = 0;
   while (text.size() - start > width) {
      size_t cut = text.rfind(' ', start + width);
      if (cut == std::string::npos || cut <= start) cut = start + width;
      out.push_back(text.substr(start, cut - start));
      start = cut;
      while (start < text.size() && text[start] == ' ') ++start;
   }
   out.push_back(text.substr(start));
   return out;
}
} // namespace

void TextTable::render(std::string& out, int indent) const {
   const size_t n = headers_.size();
   std::vector<size_t> width(n);
   for (size_t i = 0; i < n; ++i) width[i] = headers_[i].size();
   for (const auto& r : rows_) {
      for (size_t i = 0; i < n; ++i) width[i] = std::max(width[i], r[i].size());
   }
   // A table wider than the terminal narrows its widest columns, one at a time, and wraps their
   // cells at blanks.
   auto total = [&] {
      size_t t = static_cast<size_t>(indent);
      for (size_t i = 0; i < n; ++i) t += width[i] + (i + 1 < n ? 2 : 0);
      return t;
   };
   // First no column narrower than its header or its longest word, so that words stay whole;
   // when that is not enough, none narrower than its header or kNarrowestCell.
   std::vector<size_t> longestWord(n);
   for (const auto& r : rows_) {
      for (size_t i = 0; i < n; ++i) {
         size_t start = 0;
         while (start <= r[i].size()) {
            const size_t end = std::min(r[i].find(' ', start), r[i].size());
            longestWord[i] = std::max(longestWord[i], end - start);
            start = end + 1;
         }
      }
   }
   for (bool wholeWords : {true, false}) {
      auto floorOf = [&](size_t i) {
         return std::max(headers_[i].size(), wholeWords ? longestWord[i] : kNarrowestCell);
      };
      for (size_t t = total(); t > terminalColumns; t = total()) {
         size_t widest = n;
         for (size_t i = 0; i < n; ++i) {
            if (width[i] > floorOf(i) && (widest == n || width[i] > width[widest])) widest = i;
         }
         if (widest == n) break; // nothing left to narrow at this floor
         const size_t excess = t - terminalColumns;
         width[widest] =
             width[widest] - floorOf(widest) > excess ? width[widest] - excess : floorOf(widest);
      }
   }
   auto line = [&](auto cell) {
      const size_t start = out.size();
      out.append(static_cast<size_t>(indent), ' ');
      for (size_t i = 0; i < n; ++i) {
         std::string c = cell(i);
         out += c;
         if (i + 1 < n) out.append(width[i] - c.size() + 2, ' ');
      }
      // No trailing blanks when the last cells of a continuation line are empty.
      size_t end = out.size();
      while (end > start && out[end - 1] == ' ') --end;
      out.resize(end);
      out += '\n';
   };
   line([&](size_t i) { return headers_[i]; });
   line([&](size_t i) { return std::string(width[i], '-'); });
   std::vector<std::vector<std::string>> pieces(n);
   for (const auto& r : rows_) {
      size_t height = 1;
      for (size_t i = 0; i < n; ++i) {
         pieces[i] = wrapped(r[i], width[i]);
         height = std::max(height, pieces[i].size());
      }
      for (size_t k = 0; k < height; ++k) {
         line([&](size_t i) { return k < pieces[i].size() ? pieces[i][k] : std::string(); });
      }
   }
}

} // namespace Show
