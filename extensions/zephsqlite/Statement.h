// A prepared statement of SQLite, and the rows that it yields.
//
// Tested in tests/e2e/SQLiteTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSQLITE_STATEMENT_H
#define ZEPH_EXTENSIONS_ZEPHSQLITE_STATEMENT_H

#include <sqlite3.h>

#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "extensions/sql/Connection.h"

namespace zephsqlite {

using namespace zephsql;

class SQLite;

// What a declared type means: SQLite's rules of affinity, and the types of dbcreate. declared may
// be null.
Column ColumnOf(std::string name, const char* declared);

// It belongs to its connection, which outlives it.
//
// SQLite does not define what a query yields after a change by the same connection, and it could
// not wait for another writer while a query is open. So the rows that follow are read before the
// change, and stored. The rows of a statement that changes something are stored from the first one
// on, because it must not run again.
class Statement final : public Rows {
 public:
  Statement(SQLite* connection, sqlite3_stmt* prepared)
      : connection(connection), prepared(prepared) {}
  ~Statement() override { sqlite3_finalize(prepared); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // The values stay in use until Reset.
  bool Bind(const Values& values);
  int Step();
  void Reset() {
    Restart();
    bound = nullptr;
    if (kept.empty() && stored.starts.empty() && !stored.is_whole) return;
    kept = Values();
    stored = Stored();
  }
  // Runs a statement that changes something to its end.
  bool StoreAll();
  sqlite3_stmt* get() const { return prepared; }

  int Next() override {
    if (!is_parked) return Step();
    return Go(position + 1);
  }
  int Go(int64_t number) override;
  int Last() override;
  int64_t number() const override { return position; }
  int64_t Count() override {
    return is_parked && stored.is_whole ? static_cast<int64_t>(stored.starts.size()) : -1;
  }
  const Columns& columns() override {
    if (described.empty()) {
      for (int i = 0; i < sqlite3_column_count(prepared); i++) {
        const char* const name = sqlite3_column_name(prepared, i);
        described.push_back(ColumnOf(name ? name : "", sqlite3_column_decltype(prepared, i)));
      }
    }
    return described;
  }
  Kind kind(int column) override {
    return is_parked ? kept[static_cast<size_t>(column)].kind : KindOf(Current(column));
  }
  int64_t Integer(int column) override {
    return is_parked ? kept[static_cast<size_t>(column)].integer
                     : sqlite3_value_int64(Current(column));
  }
  double Real(int column) override {
    return is_parked ? kept[static_cast<size_t>(column)].real
                     : sqlite3_value_double(Current(column));
  }
  std::string_view Text(int column) override {
    return is_parked ? kept[static_cast<size_t>(column)].text : TextOf(Current(column));
  }
  [[gnu::always_inline]] inline void Read(int column, Cell* cell) override {
    if (is_parked) [[unlikely]]
      return Rows::Read(column, cell);
    sqlite3_value* const value = Current(column);
    cell->kind = KindOf(value);
    switch (cell->kind) {
      case Kind::Null: break;
      case Kind::Integer: cell->integer = sqlite3_value_int64(value); break;
      case Kind::Real: cell->real = sqlite3_value_double(value); break;
      default: cell->text = TextOf(value); break;
    }
  }
  bool Store(int column, const Column& of, ZPVARIABLE variable) override {
    return StoreValue(*this, column, of, variable);
  }
  void Park() override;
  void Done() noexcept override;

  bool is_in_use = false;
  bool is_kept = false;  // in the connection's store

 private:
  // Each value is its kind, the size of a text, and its bytes.
  struct Stored {
    std::string bytes;
    std::vector<size_t> starts;  // of the rows
    int64_t first = 1;           // the number of the first of them
    bool is_whole = false;       // all rows are there
    std::string failure;         // why the rows that follow could not be read, if it is not empty
  };

  void Restart();
  void StoreRow(Stored* rows);
  int Show(int64_t number);
  // The value itself is read with fewer checks than the column. It is not protected from other
  // threads, but a connection has only one.
  sqlite3_value* Current(int column) { return sqlite3_column_value(prepared, column); }
  static Kind KindOf(sqlite3_value* value) {
    switch (sqlite3_value_type(value)) {
      case SQLITE_INTEGER: return Kind::Integer;
      case SQLITE_FLOAT: return Kind::Real;
      case SQLITE_TEXT: return Kind::Text;
      case SQLITE_BLOB: return Kind::Blob;
      default: return Kind::Null;
    }
  }
  static std::string_view TextOf(sqlite3_value* value) {
    const void* const bytes = sqlite3_value_blob(value);
    const int length = sqlite3_value_bytes(value);
    // Without memory for a text there is none.
    if (!bytes && length > 0) throw std::bad_alloc();
    return {static_cast<const char*>(bytes), static_cast<size_t>(bytes ? length : 0)};
  }

  SQLite* const connection;
  sqlite3_stmt* const prepared;
  const Values* bound = nullptr;
  int64_t position = 0;
  bool is_at_row = false;
  bool is_parked = false;  // the statement is reset, the rows are in `stored` and one in `kept`
  Values kept;
  Stored stored;
  Columns described;
};

}  // namespace zephsqlite

#endif
