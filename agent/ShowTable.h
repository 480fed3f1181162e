// One row model per `show` table: the readable text and the JSON are both rendered from it, so
// the two forms cannot drift apart and a new table is written once.
//
//   Show::Table t({{"Endpoint", "endpoint"}, {"Preference", "preference"}},
//                 {Show::Level{{{"Weight", "weight"}, {"Labels", "labels"}}, "segmentLists"}});
//   auto& row = t.rowIs({Show::address(endpoint), Show::number(preference)});
//   for (const auto& l : lists) row.lineIs({Show::number(l.weight), Show::labelStack(l.labels)});
//   return Show::View().lineIs("Paths: " + Show::count(n, "path")).tableIs("", std::move(t));
//
// Columns. A column has a readable header and a JSON key; a column without a header is JSON only,
// one without a key is readable only. A cell holds both forms of one value (Cell below); the
// column's kind says how the JSON form joins its row: as the member `key` (value), as `key` plus
// `key`"Name" with the readable name unless the name is just the number (enumeration), as the
// members of the cell's JSON object spliced into the row (members), or, for a cell that holds a
// list (Show::list), as an inline array of its items under `key`, readable one item per line
// (list; only in the last level).
//
// Levels. An entry (a row of level 0) may hold lines of the next level (its segment lists, ...),
// and those lines lines of the level after. Readable, the entry's first line carries its cells
// and the cells of its first line at each level; every further line is a continuation: the cells
// of the levels above stay blank. A row without lines still prints one readable line, with the
// next level's `none` texts (default "-") in its columns. In JSON a level with a key is nested:
// the row gets `key` with an inline array of its lines' rows; a level without a key is flat: each
// of its lines is a JSON row of its own that begins with the members of the rows above it, so a
// row without lines has no JSON row.
//
// Guarantees, each checked by tests/agent/ShowOutputTest.cpp:
//  - the readable layout is TextTable's: an empty cell prints "-" on an entry's first line and
//    stays blank on continuation lines, and no line ends in a blank;
//  - a JSON row lists its members in column order, a nested array after the row's own members;
//  - a table's JSON is an array with one inline row per entry (per line, for a flat level).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/Json.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"

namespace Show {

// A value in both forms: readable text ("" prints "-") and its JSON.
struct Cell {
   std::string text;
   Json::Value json;
   std::vector<Cell> items; // a list column's items, one per readable line
};

// A list column's cell.
inline Cell list(std::vector<Cell> items) { return Cell{{}, {}, std::move(items)}; }

inline Cell cell(std::string text, Json::Value json) {
   return Cell{std::move(text), std::move(json), {}};
}
// Readable only (a column without a JSON key).
inline Cell text(std::string s) { return Cell{std::move(s), Json::Value(), {}}; }
// The same words in both forms.
inline Cell string(std::string s) {
   Json::Value j = Json::Value::string(s);
   return Cell{std::move(s), std::move(j), {}};
}
inline Cell number(uint64_t n) { return Cell{std::to_string(n), Json::Value::number(n), {}}; }
// "none" and JSON null for the null label.
inline Cell label(Ipkit::MplsLabel l) { return Cell{labelText(l), Json::Value::label(l), {}}; }
inline Cell address(const Ipkit::IpGenAddr& a) { return string(a.stringValue()); }
inline Cell labelStack(const Ipkit::MplsLabelOperation& op) {
   return Cell{labelStackText(op), labelStackJson(op), {}};
}
inline Cell seconds(double s) {
   Json::Value j = Json::Value::number(s);
   std::string t = j.text();
   return Cell{std::move(t), std::move(j), {}};
}
// A yes/no word that is a JSON boolean.
inline Cell flag(bool b, const char* yes, const char* no) {
   return Cell{b ? yes : no, Json::Value::boolean(b), {}};
}
// An enumeration for a column of kind enumeration: its name readable, its number in JSON.
template <class E>
Cell enumerated(E value, std::string name) {
   return Cell{std::move(name), Json::Value::number(uint64_t{static_cast<uint32_t>(value)}), {}};
}

enum class ColumnKind : uint8_t { value, enumeration, members, list };

struct Column {
   std::string header; // readable; empty: JSON only
   std::string key;    // JSON; empty: readable only
   ColumnKind kind = ColumnKind::value;
};

// The columns of one level below the entries.
struct Level {
   std::vector<Column> columns;
   std::string key = {};               // nested under this key; empty: flat
   std::vector<std::string> none = {}; // readable cells of an entry without lines (default "-")
};

class Table {
 public:
   struct Row {
      std::vector<Cell> cells;
      std::vector<Row> lines;
      // A line of the next level; the reference lasts until the next line of this row.
      Row& lineIs(std::vector<Cell> cells) {
         lines.push_back(Row{std::move(cells), {}});
         return lines.back();
      }
   };

   explicit Table(std::vector<Column> columns, std::vector<Level> below = {});

   // A new entry; the reference lasts until the next entry.
   Row& rowIs(std::vector<Cell> cells) {
      rows_.push_back(Row{std::move(cells), {}});
      return rows_.back();
   }
   size_t rows() const noexcept { return rows_.size(); }

   // The header, the rule and the rows, each line indented by `indent` blanks.
   void render(std::string& out, int indent = 2) const;
   Json::Value json() const;

 private:
   void lines(TextTable& t, std::vector<std::string>& prefix, const Row& row, size_t level,
              bool& first) const;
   void jsonRows(Json::Value& rows, const Json::Value& above, const Row& row, size_t level) const;
   void members(Json::Value& row, const Row& r, size_t level) const;

   std::vector<Level> levels_; // levels_[0]: the entries
   std::vector<Row> rows_;
};

// What one `show` prints: readable lines, values and tables in order. Its JSON is an object of
// the keyed items; a view whose only keyed item is one table (or one list of views) is that
// table's array.
class View {
 public:
   // A readable line ("Segments: 3 segments (next id 4)").
   View& lineIs(std::string text);
   // A value: readable as "<label>: <text>" (no line when the label is empty), JSON under `key`
   // (none when empty), joined as its kind says.
   View& fieldIs(std::string label, std::string key, Cell value,
                 ColumnKind kind = ColumnKind::value);
   // Values as a readable two-column table ("Setting  Value"), each JSON under its key.
   struct Setting {
      std::string name;
      std::string key;
      Cell value;
   };
   View& settingsIs(std::vector<std::string> headers, std::vector<Setting> settings);
   View& tableIs(std::string key, Table table);
   // Views of their own (one per input table, ...): readable one after another with a blank
   // line between them, JSON an array of theirs.
   View& viewsIs(std::string key, std::vector<View> views);
   // The JSON object prints on one line.
   View& inlineJson() {
      inline_ = true;
      return *this;
   }

   void render(std::string& out) const;
   Json::Value json() const;

 private:
   struct Item {
      enum class Kind : uint8_t { line, field, settings, table, views };
      Kind kind = Kind::line;
      std::string label;
      std::string key;
      ColumnKind columnKind = ColumnKind::value;
      Cell value;
      std::vector<std::string> headers;
      std::vector<Setting> settings;
      std::vector<Table> table; // zero or one
      std::vector<View> views;
   };
   std::vector<Item> items_;
   bool inline_ = false;
};

// Adds one cell's JSON to a row as a column of `kind` under `key` would.
void memberIs(Json::Value& row, const std::string& key, ColumnKind kind, const Cell& c);

} // namespace Show
