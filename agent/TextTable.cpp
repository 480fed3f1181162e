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

void TextTable::render(std::string& out, int indent) const {
   const size_t n = headers_.size();
   std::vector<size_t> width(n);
   for (size_t i = 0; i < n; ++i) width[i] = headers_[i].size();
   for (const auto& r : rows_) {
      for (size_t i = 0; i < n; ++i) width[i] = std::max(width[i], r[i].size());
   }
   auto line = [&](auto cell) {
      out.append(static_cast<size_t>(indent), ' ');
      for (size_t i = 0; i < n; ++i) {
         std::string c = cell(i);
         out += c;
         if (i + 1 < n) out.append(width[i] - c.size() + 2, ' ');
      }
      out += '\n';
   };
   line([&](size_t i) { return headers_[i]; });
   line([&](size_t i) { return std::string(width[i], '-'); });
   for (const auto& r : rows_) {
      // No trailing blanks when the last cells of a continuation line are empty.
      const size_t before = out.size();
      line([&](size_t i) { return r[i]; });
      size_t end = out.size() - 1;
      while (end > before && out[end - 1] == ' ') --end;
      out.erase(end, out.size() - 1 - end);
   }
}

} // namespace Show
