// How a view goes from record to record: the moves that the engine calls, the place, and the steps
// from row to row. A part of View.h, which describes both.

#ifndef ZEPH_EXTENSIONS_SQL_VIEWMOVES_H
#define ZEPH_EXTENSIONS_SQL_VIEWMOVES_H

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

#include "extensions/sql/View.h"

namespace zephsql {

inline int View::Skip(int count) {
  Settle();
  const int direction = count < 0 ? -1 : 1;
  int64_t left = count;
  if (left < 0) left = -left;
  if (left == 0 && !filter) at_end = false;
  while (left > 0) {
    const int found = Step(direction);
    if (found <= 0) return At(found);
    const int passes = Passes();
    if (passes < 0) return 0;
    left -= passes;
    if (left == 0) at_end = false;
  }
  Refresh();
  return 1;
}

inline int View::Go(long position) {
  top_is_due = false;
  if (position == -1 || position == -2) return GoToEnd(position == -1 ? 1 : -1);
  if (position < 1) return At(0);
  if (by_query) return At(Pass(Arrive(rows ? rows->Go(position) : 0)));
  RowsPointer found;
  Drop();
  SetStart(1);
  start.back().SetInteger(position);
  const std::string where = Where(HasIntegerKey() ? table.key + " = " + Mark(0) : "");
  found =
      HasIntegerKey()
          ? connection().Select(select + where, start, 1)
          : connection().Select(
                select + where + OrderByKey(1) + " LIMIT 1 OFFSET " + Mark(0) + " - 1", start, 0);
  if (!found) return FailWith("Cannot read");
  const int next = found->Next();
  if (next <= 0) return next < 0 ? FailWith("Cannot read") : At(0);
  rows = std::move(found);
  direction_of_rows = 0;
  return At(Pass(Arrive(1)));
}

inline int View::Find(std::string_view key, bool exact) {
  if (by_query) return Fail("A view of a query cannot be searched");
  if (indexes.empty()) return Fail("Database has no open indexes");
  top_is_due = false;
  Drop();
  const Index& index = indexes.front();
  SetStart(1);
  start.back().SetBytes(key);
  if (connection().is_strict() && !Fits(table.columns[Place(index.column)], &start.back())) {
    ended = true;
    return At(0);
  }
  const int rising = Rising(1);
  block = 1;
  phase = rising > 0 ? 1 : 0;
  if (find_text.empty()) {
    find_text = select + Where(OrderColumn() + (rising > 0 ? " >= " : " <= ") + Mark(0)) +
                OrderBy(rising, false);
  }
  RowsPointer found = connection().Select(find_text, start, block);
  if (!found) return FailWith("Cannot search");
  const int next = found->Next();
  if (next < 0) return FailWith("Cannot search");
  if (next == 0 || !IsKey(*found, index.column, key, exact)) {
    ended = true;
    return At(0);
  }
  rows = std::move(found);
  direction_of_rows = 1;
  Arrive(1);
  // Among the records with that key, the first that the filter lets pass.
  for (;;) {
    const int passes = Passes();
    if (passes != 0) return passes < 0 ? 0 : At(1);
    const int found_next = Step(1);
    if (found_next <= 0) return At(found_next);
    if (row != Row::Live || !IsKey(*rows, index.column, key, exact)) return At(0);
  }
}

inline int View::SetFilter(ZPPROGRAM program, const char* text, int length) {
  filter = nullptr;
  if (!Trimmed(Bytes(text, length)).empty()) {
    char* problem = nullptr;
    filter = zpProgram_Compile_Dynamic_Expression(program, text, length, &problem, nullptr);
    if (!filter) {
      error = std::string("Syntax error in filter: ") + (problem ? problem : "");
      zpProgram_Free(program, problem);
      return 0;
    }
  }
  return Go(-1);
}

// --- The place -----------------------------------------------------------------------------------

inline void View::Drop() {
  if (row == Row::Live) row = Row::Unloaded;
  rows.reset();
  direction_of_rows = 0;
}

inline int View::Arrive(int found) {
  if (found != 1) return found;
  row = Row::Live;
  deleted = false;
  ended = false;
  has_order = false;
  if (by_query) {
    record_number = rows->number();
  } else if (table.key_column < 0) {
    // The database's own key is a whole number.
    place.SetInteger(rows->Integer(Count()));
  } else {
    rows->Get(table.key_column, &place);
  }
  return 1;
}

inline int View::At(int found, bool refreshes) {
  if (found < 0) return 0;
  if (by_query && found > 0) Arrive(1);
  if (by_query && found == 0) row = Row::None;
  at_end = found == 0;
  if (refreshes) Refresh();
  return 1;
}

inline int View::Pass(int found) {
  return found == 1 ? Passes() : found < 0 ? (FailWith("Cannot read"), -1) : 0;
}

inline int View::Passes() {
  if (!filter) return 1;
  Refresh();
  int passes = 0;
  if (zpProgram_Execute_Dynamic_Expression_Boolean(zpDatabaseView_Program(handle), filter,
                                                   &passes) != 1) {
    error = "The filter could not be evaluated";
    return -1;
  }
  return passes != 0;
}

inline int View::GoToEnd(int direction, bool refreshes) {
  int found;
  if (by_query) {
    found = !rows ? 0 : direction > 0 ? rows->Go(1) : rows->Last();
    if (found < 0) FailWith("Cannot read");
    Arrive(found);
  } else {
    Drop();
    ended = false;
    block = kLargestBlock / 32;
    found = Begin(direction) ? StepOn() : -1;
  }
  while (found == 1) {
    const int passes = Passes();
    if (passes != 0) return passes < 0 ? 0 : At(1, refreshes);
    found = Step(direction);
  }
  return At(found, refreshes);
}

// --- Steps ---------------------------------------------------------------------------------------

inline int View::Step(int direction) {
  if (by_query) return StepOfQuery(direction);
  if (rows && direction_of_rows == direction) return StepOn();
  if (row == Row::None || place.kind == Kind::Null || (ended && !indexes.empty())) return 0;
  if (!indexes.empty() && !FindOrder()) return 0;
  Drop();
  return BeginAfter(direction) ? StepOn() : -1;
}

inline int View::StepOfQuery(int direction) {
  if (!rows || (at_end && direction > 0)) return 0;
  int found;
  if (direction > 0) {
    found = rows->Next();
  } else {
    found = record_number > 1 ? rows->Go(record_number - 1) : 0;
  }
  if (found < 0) FailWith("Cannot read");
  return Arrive(found);
}

inline int View::StepOn() {
  for (;;) {
    const int found = rows->Next();
    if (found == 1) return Arrive(1);
    if (found < 0) {
      FailWith("Cannot read");
      Drop();
      return -1;
    }
    const int direction = direction_of_rows;
    if (found == Rows::kMore) {
      Park();
      block = std::min(block * 4, kLargestBlock);
      if (block < 16) block = 16;
      if (!BeginAfter(direction)) return -1;
    } else if (phase == 0 && !indexes.empty()) {
      phase = 1;
      Drop();
      if (!BeginPhase(direction)) return -1;
    } else {
      Drop();
      ended = true;
      return 0;
    }
  }
}

inline int View::Rising(int direction) const {
  return !indexes.empty() && indexes.front().descending ? -direction : direction;
}

inline std::string View::OrderColumn() const {
  return Quoted(table.columns[Place(indexes.front().column)].name);
}

inline void View::SetStart(size_t more) {
  start.resize(values.size() + more);
  for (size_t i = 0; i < values.size(); i++) start[i] = values[i];
}

inline bool View::Begin(int direction) {
  phase = 0;
  return BeginPhase(direction);
}

inline bool View::BeginPhase(int direction) {
  SetStart(0);
  if (indexes.empty()) return Began(direction, Where(""), false);
  const bool nulls = (Rising(direction) > 0) == (phase == 0);
  return Began(direction, Where(OrderColumn() + (nulls ? " IS NULL" : " IS NOT NULL")), nulls);
}

inline bool View::BeginAfter(int direction) {
  SetStart(0);
  const int rising = Rising(direction);
  const char* const beyond = rising > 0 ? " > " : " < ";
  if (indexes.empty()) {
    start.push_back(place);
    return Began(direction, Where(table.key + beyond + Mark(0)), false);
  }
  const bool nulls = order.kind == Kind::Null;
  phase = (rising > 0) == nulls ? 0 : 1;
  if (nulls) {
    start.push_back(place);
    return Began(direction, Where(OrderColumn() + " IS NULL AND " + table.key + beyond + Mark(0)),
                 true);
  }
  start.push_back(order);
  start.push_back(place);
  return Began(direction,
               Where("(" + OrderColumn() + ", " + table.key + ")" + beyond + "(" + Mark(1) + ", " +
                     Mark(0) + ")"),
               false);
}

inline bool View::Began(int direction, const std::string& where, bool is_of_nulls) {
  const std::string order =
      indexes.empty() ? OrderByKey(direction) : OrderBy(Rising(direction), is_of_nulls);
  rows = connection().Select(select + where + order, start, block);
  direction_of_rows = direction;
  if (!rows) FailWith("Cannot read");
  return rows != nullptr;
}

inline std::string View::OrderByKey(int direction) const {
  if (table.key.empty()) return "";
  return " ORDER BY " + table.key + (direction > 0 ? "" : " DESC");
}

inline std::string View::OrderBy(int rising, bool nulls) const {
  if (nulls) return OrderByKey(rising);
  const char* const falls = rising > 0 ? "" : " DESC";
  return " ORDER BY " + OrderColumn() + falls + ", " + table.key + falls;
}

inline std::string View::Where(const std::string& more) const {
  if (condition.empty()) return more.empty() ? "" : " WHERE " + more;
  return " WHERE (" + condition + "\n)" + (more.empty() ? "" : " AND " + more);
}

inline bool View::IsKey(Rows& rows, int column, std::string_view key, bool exact) {
  Cell cell;
  rows.Read(column, &cell);
  double wanted;
  switch (cell.kind) {
    case Kind::Null: return false;
    case Kind::Integer:
      return ReadNumber(key, &wanted) && wanted == static_cast<double>(cell.integer);
    case Kind::Real: return ReadNumber(key, &wanted) && wanted == cell.real;
    default: break;
  }
  double number;
  if (rows.columns()[static_cast<size_t>(column)].decimal && ReadNumber(cell.text, &number)) {
    return ReadNumber(key, &wanted) && wanted == number;
  }
  return exact ? cell.text == key : cell.text.starts_with(key);
}

inline bool View::Fits(const Column& column, Value* key) {
  if (column.has_text) return true;
  double number = 0;
  const bool is_number = ReadNumber(key->text, &number);
  if (column.boolean) return is_number && (number == 0 || number == 1);
  if (column.letter == 'D') return IsDate(key->text);
  if (column.letter != 'N') return true;
  if (!is_number || column.type != 2 || column.decimal) return is_number;
  const std::string_view text = Trimmed(key->text);
  int64_t whole = 0;
  const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), whole);
  if (wrong != std::errc() || end != text.data() + text.size()) {
    if (!(number > -1e18 && number < 1e18)) return false;
    whole = static_cast<int64_t>(number);
    if (static_cast<double>(whole) != number) return false;
  }
  if (whole < column.least || whole > column.largest) return false;
  key->SetInteger(whole);
  return true;
}

inline bool View::FindOrder() {
  if (has_order) return true;
  if (!Load()) return false;
  order = loaded[Place(indexes.front().column)];
  return has_order = true;
}

inline bool View::Load() {
  if (row == Row::None || row == Row::Loaded) return row == Row::Loaded;
  Values key;
  RowsPointer found;
  Rows* source = row == Row::Live ? rows.get() : nullptr;
  if (row == Row::Unloaded) {
    if (place.kind == Kind::Null) return false;
    key.push_back(place);
    found = connection().Select(select + " WHERE " + table.key + " = " + MarkOf(1), key, 0);
    if (!found || found->Next() != 1) return false;
    source = found.get();
  }
  loaded.resize(table.columns.size());
  for (int i = 0; i < Count(); i++) source->Get(i, &loaded[Place(i)]);
  // A row in `rows` is still the current one there.
  if (row == Row::Unloaded) row = Row::Loaded;
  return true;
}

}  // namespace zephsql

#endif
