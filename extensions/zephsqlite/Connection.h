// A connection to a file of SQLite, with the statements that it keeps.
//
// Each thread keeps the connections that its requests have used, with their statements. A database
// that a script opens has one for itself until it is closed. A connection that is kept holds no
// lock: its statements are reset and no transaction is open.
//
// Tested in tests/e2e/SQLiteTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSQLITE_CONNECTION_H
#define ZEPH_EXTENSIONS_ZEPHSQLITE_CONNECTION_H

#include <sqlite3.h>
#include <stdlib.h>
#include <sys/types.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "extensions/sql/Connection.h"
#include "extensions/sql/Waiting.h"
#include "extensions/zephsqlite/Statement.h"

namespace zephsqlite {

constexpr Milliseconds kBusyTimeout(10000);

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

class SQLite final : public Connection {
 public:
  // Returns null for a failure, with the reason in *error.
  static ConnectionPointer Acquire(ZPPROGRAM program, const std::string& path, bool create,
                                   std::string* error);
  ~SQLite() override {
    statements.clear();
    sqlite3_close_v2(database);
  }

  RowsPointer Select(const std::string& text, const Values& values, int) override {
    Statement* const statement = Prepare(text, true);
    if (!statement) return nullptr;
    RowsPointer rows(statement);
    if (!statement->Bind(values)) return nullptr;
    return rows;
  }
  RowsPointer Open(const std::string& text, const Values& values) override {
    Statement* const statement = Prepare(text, false);
    if (!statement) return nullptr;
    RowsPointer rows(statement);
    if (sqlite3_column_count(statement->get()) == 0) {
      Fail("it has no result");
      return nullptr;
    }
    if (!statement->Bind(values)) return nullptr;
    if (!sqlite3_stmt_readonly(statement->get()) && !statement->StoreAll()) return nullptr;
    return rows;
  }
  bool Changes(const std::string& text) override {
    Statement* const statement = Prepare(text, false);
    if (!statement) return false;
    const RowsPointer rows(statement);
    return !sqlite3_stmt_readonly(statement->get());
  }
  bool Run(const std::string& text, const Values& values, bool own, int64_t* changed) override {
    Statement* const statement = Prepare(text, own);
    if (!statement) return false;
    const RowsPointer rows(statement);
    if (!statement->Bind(values)) return false;
    int found;
    while ((found = statement->Step()) > 0) {
    }
    if (changed) *changed = sqlite3_changes64(database);
    return found == 0;
  }
  bool Insert(const Table&, const std::string& text, const Values& values, Value* key) override {
    if (!Run(text, values, true, nullptr)) return false;
    key->SetInteger(sqlite3_last_insert_rowid(database));
    return true;
  }

  int Describe(const std::string& name, bool is_whole, Table* table) override;
  int Describe(const Table& table, const std::string& name, Index* index) override;

  bool Transaction() override {
    if (!sqlite3_get_autocommit(database)) return Fail("a transaction is open already");
    // Takes the lock for writing now, with a wait. A transaction that has begun to read could not
    // wait for it later, because what it has read may have been changed by then.
    return Run("BEGIN IMMEDIATE", none(), true, nullptr);
  }
  bool Commit() override {
    return sqlite3_get_autocommit(database) || Run("COMMIT", none(), true, nullptr);
  }
  bool Rollback() override {
    return sqlite3_get_autocommit(database) || Run("ROLLBACK", none(), true, nullptr);
  }
  bool IsInTransaction() const override { return !sqlite3_get_autocommit(database); }
  int Command(std::string_view command, std::string_view arguments) override {
    if (!SameName(command, "timeout")) return 0;
    busy_timeout = Milliseconds(std::max(atoi(std::string(arguments).c_str()), 0));
    return 1;
  }
  void Leave() override {
    has_left = Rollback();
    program = nullptr;
  }
  void Release() noexcept override;
  char mark() const override { return '?'; }

  bool FailFromDatabase() { return Fail(sqlite3_errmsg(database)); }
  bool FailWith(const std::string& text) { return Fail(text); }
  void Keep(Statement* statement);
  ZPPROGRAM user() const { return program; }

 private:
  SQLite(sqlite3* opened, std::string path) : database(opened), path(std::move(path)) {}

  Statement* Prepare(const std::string& text, bool own);
  bool IsSameFile() const;
  bool Prepare(bool create, std::string* error);

  static int Busy(void* self, int count);
  static int Progress(void* self);
  static int Authorize(void* self, int action, const char* first, const char* second, const char*,
                       const char*);

  sqlite3* const database;
  const std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  ZPPROGRAM program = nullptr;  // of the script that uses the connection
  Milliseconds busy_timeout = kBusyTimeout;
  Clock::time_point busy_since;
  Clock::time_point last_look;
  bool is_own = true;      // the statement that is prepared is the library's
  bool is_marked = false;  // the script has changed something of the connection itself
  bool has_left = false;
  using Statements =
      std::unordered_map<std::string, std::unique_ptr<Statement>, TextHash, std::equal_to<>>;
  Statements statements;
  // What was found last for a text of that length: a text is long, and to find it by its hash takes
  // longer than to compare it. Null where nothing is known.
  static constexpr size_t kRecent = 16;
  Statements::value_type* recent[kRecent] = {};
};

}  // namespace zephsqlite

#endif
