#include "agent/ShowTable.h"

#include <algorithm>

#include "platform/Assert.h"

namespace Show {

void memberIs(Json::Value& row, const std::string& key, ColumnKind kind, const Cell& c) {
   switch (kind) {
   case ColumnKind::value:
      row.set(key, c.json);
      return;
   case ColumnKind::enumeration:
      row.set(key, c.json);
      // A value without a name of its own reads as its number, and an absent one has no name.
      if (c.json.kind() == Json::Value::Kind::number && !c.text.empty() && c.text != c.json.text())
         row.set(key + "Name", c.text);
      return;
   case ColumnKind::members:
      for (const auto& [k, v] : c.json.members()) row.set(k, v);
      return;
   case ColumnKind::list: {
      Json::Value items = Json::Value::inlineArray();
      for (const Cell& i : c.items) items.push(i.json);
      row.set(key, std::move(items));
      return;
   }
   }
}

namespace {
bool readable(const Column& c) { return !c.header.empty(); }
bool inJson(const Column& c) { return !c.key.empty() || c.kind == ColumnKind::members; }

} // namespace

Table::Table(std::vector<Column> columns, std::vector<Level> below) {
   levels_.push_back(Level{std::move(columns), {}, {}});
   for (auto& l : below) levels_.push_back(std::move(l));
}

void Table::lines(TextTable& t, std::vector<std::string>& prefix, const Row& row, size_t level,
                  bool& first) const {
   auto emit = [&](std::vector<std::string> line) {
      first ? t.rowIs(std::move(line)) : t.continuationIs(std::move(line));
      first = false;
   };
   const auto& columns = levels_[level].columns;
   // A row spans as many lines as its longest list.
   size_t span = 1;
   for (size_t i = 0; i < columns.size() && i < row.cells.size(); ++i) {
      if (columns[i].kind == ColumnKind::list) span = std::max(span, row.cells[i].items.size());
   }
   std::vector<std::string> cells;
   for (size_t line = 0; line < span; ++line) {
      cells = line ? std::vector<std::string>(prefix.size()) : prefix;
      for (size_t i = 0; i < columns.size(); ++i) {
         if (!readable(columns[i])) continue;
         const Cell* c = i < row.cells.size() ? &row.cells[i] : nullptr;
         if (c && columns[i].kind == ColumnKind::list) {
            cells.push_back(line < c->items.size() ? c->items[line].text : "");
         } else {
            cells.push_back(c && line == 0 ? c->text : "");
         }
      }
      if (level + 1 < levels_.size()) break;
      emit(cells);
   }
   if (level + 1 == levels_.size()) return;
   SRTE_ASSERT(span == 1, "A list column belongs to the last level of a table");
   const Level& next = levels_[level + 1];
   if (row.lines.empty()) {
      size_t j = 0;
      for (const auto& c : next.columns) {
         if (!readable(c)) continue;
         cells.push_back(j < next.none.size() ? next.none[j] : std::string());
         ++j;
      }
      emit(std::move(cells)); // deeper levels' columns: TextTable fills them
      return;
   }
   for (const Row& child : row.lines) {
      lines(t, cells, child, level + 1, first);
      // Only the first line carries the cells of the levels above.
      for (auto& c : cells) c.clear();
   }
}

void Table::render(std::string& out, int indent) const {
   std::vector<std::string> headers;
   for (const auto& l : levels_) {
      for (const auto& c : l.columns) {
         if (readable(c)) headers.push_back(c.header);
      }
   }
   TextTable t(std::move(headers));
   for (const Row& r : rows_) {
      std::vector<std::string> prefix;
      bool first = true;
      lines(t, prefix, r, 0, first);
   }
   t.render(out, indent);
}

void Table::members(Json::Value& row, const Row& r, size_t level) const {
   const auto& columns = levels_[level].columns;
   for (size_t i = 0; i < columns.size() && i < r.cells.size(); ++i) {
      if (inJson(columns[i])) memberIs(row, columns[i].key, columns[i].kind, r.cells[i]);
   }
}

void Table::jsonRows(Json::Value& rows, const Json::Value& above, const Row& row,
                     size_t level) const {
   Json::Value me = above;
   members(me, row, level);
   if (level + 1 == levels_.size()) {
      rows.push(std::move(me));
      return;
   }
   const Level& next = levels_[level + 1];
   if (next.key.empty()) {
      for (const Row& child : row.lines) jsonRows(rows, me, child, level + 1);
      return;
   }
   Json::Value nested = Json::Value::inlineArray();
   for (const Row& child : row.lines) jsonRows(nested, Json::Value::row(), child, level + 1);
   me.set(next.key, std::move(nested));
   rows.push(std::move(me));
}

Json::Value Table::json() const {
   Json::Value rows = Json::Value::array();
   for (const Row& r : rows_) jsonRows(rows, Json::Value::row(), r, 0);
   return rows;
}

// ---- View

View& View::lineIs(std::string text) {
   Item i;
   i.kind = Item::Kind::line;
   i.label = std::move(text);
   items_.push_back(std::move(i));
   return *this;
}

View& View::fieldIs(std::string label, std::string key, Cell value, ColumnKind kind) {
   Item i;
   i.kind = Item::Kind::field;
   i.label = std::move(label);
   i.key = std::move(key);
   i.columnKind = kind;
   i.value = std::move(value);
   items_.push_back(std::move(i));
   return *this;
}

View& View::settingsIs(std::vector<std::string> headers, std::vector<Setting> settings) {
   Item i;
   i.kind = Item::Kind::settings;
   i.headers = std::move(headers);
   i.settings = std::move(settings);
   items_.push_back(std::move(i));
   return *this;
}

View& View::tableIs(std::string key, Table table) {
   Item i;
   i.kind = Item::Kind::table;
   i.key = std::move(key);
   i.table.push_back(std::move(table));
   items_.push_back(std::move(i));
   return *this;
}

View& View::viewsIs(std::string key, std::vector<View> views) {
   Item i;
   i.kind = Item::Kind::views;
   i.key = std::move(key);
   i.views = std::move(views);
   items_.push_back(std::move(i));
   return *this;
}

void View::render(std::string& out) const {
   for (const Item& i : items_) {
      switch (i.kind) {
      case Item::Kind::line:
         out += i.label + "\n";
         break;
      case Item::Kind::field:
         if (!i.label.empty()) out += i.label + ": " + i.value.text + "\n";
         break;
      case Item::Kind::settings: {
         TextTable t(i.headers);
         for (const Setting& s : i.settings) t.rowIs({s.name, s.value.text});
         t.render(out, 2);
         break;
      }
      case Item::Kind::table:
         i.table.front().render(out, 2);
         break;
      case Item::Kind::views:
         for (size_t v = 0; v < i.views.size(); ++v) {
            if (v) out += "\n";
            i.views[v].render(out);
         }
         break;
      }
   }
}

Json::Value View::json() const {
   // A table or list of views without a key is the whole JSON.
   for (const Item& i : items_) {
      if (!i.key.empty()) continue;
      if (i.kind == Item::Kind::table) return i.table.front().json();
      if (i.kind == Item::Kind::views) {
         Json::Value a = Json::Value::array();
         for (const View& v : i.views) a.push(v.json());
         return a;
      }
   }
   Json::Value top = inline_ ? Json::Value::row() : Json::Value::object();
   for (const Item& i : items_) {
      switch (i.kind) {
      case Item::Kind::line:
         break;
      case Item::Kind::field:
         if (!i.key.empty() || i.columnKind == ColumnKind::members)
            memberIs(top, i.key, i.columnKind, i.value);
         break;
      case Item::Kind::settings:
         for (const Setting& s : i.settings) top.set(s.key, s.value.json);
         break;
      case Item::Kind::table:
         top.set(i.key, i.table.front().json());
         break;
      case Item::Kind::views: {
         Json::Value a = Json::Value::array();
         for (const View& v : i.views) a.push(v.json());
         top.set(i.key, std::move(a));
         break;
      }
      }
   }
   return top;
}

} // namespace Show
