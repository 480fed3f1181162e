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
   // A table wider than the terminal wraps its last column (a message, a status), when that
   // leaves it room enough to read.
   size_t before = static_cast<size_t>(indent);
   for (size_t i = 0; i + 1 < n; ++i) before += width[i] + 2;
   if (n > 0 && before + width[n - 1] > terminalColumns &&
       before + kNarrowestWrap <= terminalColumns) {
      width[n - 1] = std::max(headers_[n - 1].size(), terminalColumns - before);
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
   for (const auto& r : rows_) {
      const auto pieces = n > 0 ? wrapped(r[n - 1], width[n - 1]) : std::vector<std::string>{};
      for (size_t k = 0; k < std::max<size_t>(1, pieces.size()); ++k) {
         line([&](size_t i) {
            if (i + 1 == n) return pieces[k];
            return k == 0 ? r[i] : std::string();
         });
      }
   }
}

} // namespace Show
