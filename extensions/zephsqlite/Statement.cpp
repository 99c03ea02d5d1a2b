// How statements run, and what becomes of their rows when the connection changes something. Tested
// in tests/e2e/SQLiteTest.cpp.

#include "extensions/zephsqlite/Statement.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "extensions/zephsqlite/Connection.h"

namespace zephsqlite {

namespace {

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

// --- Columns -------------------------------------------------------------------------------------

Column ColumnOf(std::string name, const char* declared) {
  Column column;
  column.name = std::move(name);
  const std::string type = Lowered(declared ? declared : "");
  int first = 0, second = 0;
  if (const size_t open = type.find('('); open != std::string::npos) {
    first = atoi(type.c_str() + open + 1);
    if (const size_t comma = type.find(',', open); comma != std::string::npos) {
      second = atoi(type.c_str() + comma + 1);
    }
  }
  const auto number = [&column](int length, int decimals, int kind) {
    column.letter = 'N';
    column.length = length;
    column.decimals = decimals;
    column.type = kind;
    column.has_text = false;
  };
  if (Contains(type, "bool")) {
    column.letter = 'L';
    column.length = 1;
    column.type = 2;
    column.boolean = true;
    column.has_text = false;
  } else if (Contains(type, "int")) {
    number(19, 0, 2);
  } else if (type.starts_with("date") && !type.starts_with("datetime")) {
    column.letter = 'D';
    column.length = 8;
  } else if (Contains(type, "char") || Contains(type, "clob") || Contains(type, "text")) {
    if (first > 0) {
      column.letter = 'C';
      column.length = first;
    }
  } else if (Contains(type, "real") || Contains(type, "floa") || Contains(type, "doub")) {
    number(19, 0, 3);
  } else if (type.starts_with("num") || type.starts_with("dec")) {
    const bool decimals = second > 0 && second < 30;
    number(first > 0 ? first + decimals : 19, decimals ? second : 0,
           decimals || first == 0 ? 1 : 2);
    column.decimal = decimals;
  }
  return column;
}

// --- Statements ----------------------------------------------------------------------------------

bool Statement::Bind(const Values& values) {
  // A query of a script may have fewer markers in SQLite's eyes, but never more.
  const int count =
      std::min(sqlite3_bind_parameter_count(prepared), static_cast<int>(values.size()));
  bound = &values;
  for (int i = 0; i < count; i++) {
    const Value& value = values[static_cast<size_t>(i)];
    int result = SQLITE_OK;
    switch (value.kind) {
      case Kind::Null: result = sqlite3_bind_null(prepared, i + 1); break;
      case Kind::Integer: result = sqlite3_bind_int64(prepared, i + 1, value.integer); break;
      case Kind::Real: result = sqlite3_bind_double(prepared, i + 1, value.real); break;
      case Kind::Text:
        result = sqlite3_bind_text64(prepared, i + 1, value.text.data(), value.text.size(),
                                     SQLITE_STATIC, SQLITE_UTF8);
        break;
      case Kind::Blob:
        result = sqlite3_bind_blob64(prepared, i + 1, value.text.data(), value.text.size(),
                                     SQLITE_STATIC);
        break;
    }
    if (result != SQLITE_OK) return connection->FailFromDatabase();
  }
  return true;
}

int Statement::Step() {
  const int result = sqlite3_step(prepared);
  if (result == SQLITE_ROW) {
    position++;
    is_at_row = true;
    return 1;
  }
  is_at_row = false;
  if (result == SQLITE_DONE) return 0;
  connection->FailFromDatabase();
  return -1;
}

void Statement::Restart() {
  sqlite3_reset(prepared);
  position = 0;
  is_parked = is_at_row = false;
}

int Statement::Go(int64_t number) {
  if (number < 1) return 0;
  if (is_parked && (stored.is_whole || number >= stored.first)) return Show(number);
  if (is_at_row && !is_parked && number == position) return 1;
  if (is_parked || !is_at_row || number < position) Restart();
  while (position < number) {
    const int found = Step();
    if (found <= 0) return found;
  }
  return 1;
}

int Statement::Last() {
  if (is_parked) {
    if (!stored.failure.empty()) return connection->FailWith(stored.failure), -1;
    return Show(stored.first - 1 + static_cast<int64_t>(stored.starts.size()));
  }
  Restart();
  int found;
  while ((found = Step()) > 0) {
  }
  const int64_t count = position;
  return found < 0 ? -1 : Go(count);
}

void Statement::Park() {
  if (is_parked || !is_at_row) {
    if (!is_parked) sqlite3_reset(prepared);
    return;
  }
  Stored rows;
  rows.first = position;
  int found;
  do {
    StoreRow(&rows);
  } while ((found = Step()) > 0);
  if (found < 0) rows.failure = connection->error();
  sqlite3_reset(prepared);
  stored = std::move(rows);
  is_parked = true;
  Show(stored.first);
}

bool Statement::StoreAll() {
  Stored rows;
  rows.is_whole = true;
  int found;
  while ((found = Step()) > 0) StoreRow(&rows);
  if (found < 0) return false;
  sqlite3_reset(prepared);
  stored = std::move(rows);
  is_parked = true;
  position = 0;
  return true;
}

void Statement::StoreRow(Stored* rows) {
  rows->starts.push_back(rows->bytes.size());
  const auto add = [rows](const auto& value) {
    rows->bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
  };
  const int count = sqlite3_column_count(prepared);
  for (int i = 0; i < count; i++) {
    Cell cell;
    Read(i, &cell);
    add(cell.kind);
    switch (cell.kind) {
      case Kind::Null: break;
      case Kind::Integer: add(cell.integer); break;
      case Kind::Real: add(cell.real); break;
      default:
        add(cell.text.size());
        rows->bytes.append(cell.text);
        break;
    }
  }
}

// Goes to a row of those that are stored. REQUIRES: is_parked, and the number is not before them.
int Statement::Show(int64_t number) {
  const int64_t place = number - stored.first;
  is_at_row = place >= 0 && place < static_cast<int64_t>(stored.starts.size());
  if (!is_at_row) return stored.failure.empty() ? 0 : (connection->FailWith(stored.failure), -1);
  position = number;
  const char* at = stored.bytes.data() + stored.starts[static_cast<size_t>(place)];
  const auto take = [&at](auto* value) {
    memcpy(value, at, sizeof *value);
    at += sizeof *value;
  };
  kept.resize(static_cast<size_t>(sqlite3_column_count(prepared)));
  for (Value& value : kept) {
    take(&value.kind);
    switch (value.kind) {
      case Kind::Null: break;
      case Kind::Integer: take(&value.integer); break;
      case Kind::Real: take(&value.real); break;
      default: {
        size_t size = 0;
        take(&size);
        value.text.assign(at, size);
        at += size;
        break;
      }
    }
  }
  return 1;
}

void Statement::Done() noexcept {
  Reset();
  is_in_use = false;
  if (!is_kept) connection->Keep(this);
}

}  // namespace zephsqlite
