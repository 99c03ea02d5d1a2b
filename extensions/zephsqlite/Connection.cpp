// How connections are made, kept and guarded, and how they describe tables. Tested in
// tests/e2e/SQLiteTest.cpp.

#include "extensions/zephsqlite/Connection.h"

#include <limits.h>
#include <sys/stat.h>

#include <chrono>
#include <new>
#include <vector>

namespace zephsqlite {

namespace {

constexpr int kMostStatements = 100;     // kept for each connection
constexpr size_t kLongestKept = 4096;    // bytes of the text of a statement that is kept
constexpr size_t kMostConnections = 8;   // kept for each thread
constexpr int kLongestValue = 64 << 20;  // bytes; SQLite's memory is not that of the script
// SQLite's cache of pages. A page that is not there is copied from the file, which costs as much as
// a scanned record. A connection that is kept for later scripts has less.
constexpr char kCache[] = "PRAGMA cache_size=-8192";  // KB
constexpr int kMostIdleCache = 2 << 20;               // bytes
constexpr int kStepsOfPatience = 100000;  // of SQLite's machine, between two looks at the clock

thread_local std::vector<std::unique_ptr<SQLite>> idle_connections;

}  // namespace

// Sleeps until another connection may have given its lock back. Called by SQLite, which no
// exception may pass through.
int SQLite::Busy(void* self, int count) {
  auto* const connection = static_cast<SQLite*>(self);
  if (count == 0) connection->busy_since = Clock::now();
  if (!connection->program || Clock::now() - connection->busy_since >= connection->busy_timeout) {
    return 0;
  }
  try {
    const Milliseconds pause(count < 5 ? 1 : count < 20 ? 5 : 20);
    return Pause(connection->program, pause) || !IsCancelled(connection->program);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

// Ends a statement that has worked for long, if the script has to end.
int SQLite::Progress(void* self) {
  auto* const connection = static_cast<SQLite*>(self);
  const Clock::time_point now = Clock::now();
  if (!connection->program || now - connection->last_look < kSlice) return 0;
  connection->last_look = now;
  try {
    return IsCancelled(connection->program);
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

// Keeps scripts inside of their files, and notes what would outlive a script in its connection.
int SQLite::Authorize(void* self, int action, const char* first, const char* second, const char*,
                      const char*) {
  auto* const connection = static_cast<SQLite*>(self);
  switch (action) {
    case SQLITE_ATTACH:
      // VACUUM attaches a file without a name, when it runs. A script's own would stay with the
      // connection.
      return first && *first == '\0' && connection->is_own ? SQLITE_OK : SQLITE_DENY;
    case SQLITE_FUNCTION:
      return second && SameName(second, "load_extension") ? SQLITE_DENY : SQLITE_OK;
    case SQLITE_PRAGMA:
      if (first &&
          (SameName(first, "temp_store_directory") || SameName(first, "data_store_directory"))) {
        return SQLITE_DENY;
      }
      if (second && !connection->is_own) connection->is_marked = true;
      return SQLITE_OK;
    case SQLITE_DETACH:
    case SQLITE_CREATE_TEMP_INDEX:
    case SQLITE_CREATE_TEMP_TABLE:
    case SQLITE_CREATE_TEMP_TRIGGER:
    case SQLITE_CREATE_TEMP_VIEW:
    case SQLITE_CREATE_VTABLE:
      if (!connection->is_own) connection->is_marked = true;
      return SQLITE_OK;
    default: return SQLITE_OK;
  }
}

Statement* SQLite::Prepare(const std::string& text, bool own) {
  Statements::value_type*& last = recent[text.size() % kRecent];
  if (!last || last->first != text) {
    const auto found = statements.find(std::string_view(text));
    last = found != statements.end() ? &*found : nullptr;
  }
  const bool is_there = last != nullptr;
  if (is_there && !last->second->is_in_use) {
    last->second->is_in_use = true;
    return last->second.get();
  }
  if (text.find('\0') != std::string::npos) {
    Fail("it has a NUL byte");
    return nullptr;
  }
  is_own = own;
  sqlite3_stmt* prepared = nullptr;
  const char* rest = nullptr;
  const int result = sqlite3_prepare_v3(database, text.c_str(),
                                        static_cast<int>(std::min<size_t>(text.size(), INT_MAX)),
                                        SQLITE_PREPARE_PERSISTENT, &prepared, &rest);
  is_own = true;
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> held(prepared, sqlite3_finalize);
  std::unique_ptr<Statement> statement(prepared ? new Statement(this, prepared) : nullptr);
  (void)held.release();
  if (result != SQLITE_OK) {
    FailFromDatabase();
    return nullptr;
  }
  if (!statement) {
    Fail("it is empty");
    return nullptr;
  }
  const std::string_view more = Trimmed(rest ? rest : "");
  if (!more.empty() && more.find_first_not_of("; \t\r\n") != std::string_view::npos &&
      !more.starts_with("--") && !more.starts_with("/*")) {
    Fail("only one statement is run at a time");
    return nullptr;
  }
  statement->is_in_use = true;
  if (!is_there && text.size() <= kLongestKept) {
    if (statements.size() >= kMostStatements) {
      std::fill(std::begin(recent), std::end(recent), nullptr);
      std::erase_if(statements, [](const auto& each) { return !each.second->is_in_use; });
    }
    statement->is_kept = true;
    return statements.emplace(text, std::move(statement)).first->second.get();
  }
  return statement.release();
}

// A statement that is not in the store was the second one of its text, or is too long for it.
void SQLite::Keep(Statement* statement) {
  delete statement;
}

bool SQLite::IsSameFile() const {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

bool SQLite::Prepare(bool create, std::string* error) {
  sqlite3_extended_result_codes(database, 1);
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kLongestValue);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // A name in quotes that is not there is an error, and not a text.
  sqlite3_db_config(database, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
  sqlite3_busy_handler(database, Busy, this);
  sqlite3_progress_handler(database, kStepsOfPatience, Progress, this);
  sqlite3_set_authorizer(database, Authorize, this);
  if (!Run(kCache, none(), true, nullptr)) {
    *error = Connection::error();
    return false;
  }
  // With a write-ahead log readers and the writer do not wait for one another. The file remembers
  // it.
  if (create && !Run("PRAGMA journal_mode=WAL", none(), true, nullptr)) {
    *error = Connection::error();
    return false;
  }
  // What was committed may be lost when the machine, not the process, ends at once; the file stays
  // whole. Without a write-ahead log it would not, so there SQLite's own default counts.
  Statement* const statement = Prepare("PRAGMA journal_mode", true);
  if (!statement) {
    *error = Connection::error();
    return false;
  }
  bool has_log = false;
  {
    const RowsPointer rows(statement);
    const int found = statement->Step();
    if (found < 0) {
      *error = Connection::error();
      return false;
    }
    has_log = found == 1 && statement->Text(0) == "wal";
  }
  if (has_log) (void)Run("PRAGMA synchronous=NORMAL", none(), true, nullptr);
  struct stat status;
  if (stat(path.c_str(), &status) == 0) {
    device = status.st_dev;
    inode = status.st_ino;
  }
  return true;
}

ConnectionPointer SQLite::Acquire(ZPPROGRAM program, const std::string& path, bool create,
                                  std::string* error) {
  // Release has no memory to ask for.
  idle_connections.reserve(kMostConnections);
  for (size_t i = idle_connections.size(); i-- > 0;) {
    if (idle_connections[i]->path != path) continue;
    ConnectionPointer kept(idle_connections[i].release());
    idle_connections.erase(idle_connections.begin() + static_cast<std::ptrdiff_t>(i));
    auto* const connection = static_cast<SQLite*>(kept.get());
    // Until the script has left it, the connection is not kept again.
    connection->has_left = false;
    if (!connection->IsSameFile()) continue;
    connection->program = program;
    return kept;
  }
  sqlite3* opened = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW |
                    (create ? SQLITE_OPEN_CREATE : 0);
  const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
  if (!opened) throw std::bad_alloc();
  std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> held(opened, sqlite3_close_v2);
  if (result != SQLITE_OK) {
    *error = sqlite3_errmsg(opened);
    return nullptr;
  }
  ConnectionPointer made(new SQLite(opened, path));
  (void)held.release();
  auto* const connection = static_cast<SQLite*>(made.get());
  connection->program = program;
  if (!connection->Prepare(create, error)) return nullptr;
  return made;
}

void SQLite::Release() noexcept {
  std::unique_ptr<SQLite> owned(this);
  program = nullptr;
  busy_timeout = kBusyTimeout;
  // The store of another thread may have no room.
  if (!has_left || is_marked || idle_connections.capacity() < kMostConnections) return;
  if (idle_connections.size() >= kMostConnections) {
    idle_connections.erase(idle_connections.begin());
  }
  int cache = 0, most = 0;
  if (sqlite3_db_status(database, SQLITE_DBSTATUS_CACHE_USED, &cache, &most, 0) == SQLITE_OK &&
      cache > kMostIdleCache) {
    sqlite3_db_release_memory(database);
  }
  idle_connections.push_back(std::move(owned));
}

int SQLite::Describe(const std::string& name, bool is_whole, Table* table) {
  if (!is_whole && name.size() > 5 && SameName(std::string_view(name).substr(0, 5), "main.")) {
    const int found = Describe(name, true, table);
    return found != 0 ? found : Describe(name.substr(5), true, table);
  }
  Values values(1);
  values[0].SetText(name);
  bool is_table = false;
  {
    const RowsPointer found =
        Select("SELECT name, type, wr FROM pragma_table_list(?1) WHERE schema = 'main'", values, 0);
    if (!found) return -1;
    const int next = found->Next();
    if (next <= 0) return next;
    table->name = found->Text(0);
    is_table = found->Text(1) == "table" && found->Integer(2) == 0;
  }
  table->sql_name = Quoted(table->name);
  const RowsPointer found = Select(
      "SELECT name, type, pk, hidden FROM pragma_table_xinfo(?1) WHERE hidden <> 1", values, 0);
  if (!found) return -1;
  int keys = 0;
  bool has_rowid_column = false;
  std::string key;
  int next;
  while ((next = found->Next()) > 0) {
    const std::string column(found->Text(0));
    const std::string type(found->Text(1));
    if (SameName(column, "rowid")) has_rowid_column = true;
    if (found->Integer(2) > 0 && ++keys == 1 && SameName(type, "integer")) {
      key = column;
      // The variable of that name tells it already.
      if (SameName(column, "recno")) continue;
      table->key_column = static_cast<int>(table->columns.size());
    }
    table->columns.push_back(ColumnOf(column, type.c_str()));
    table->columns.back().generated = found->Integer(3) > 1;
  }
  if (next < 0) return -1;
  if (keys != 1 || key.empty()) table->key_column = -1;
  if (is_table)
    table->key = keys == 1 && !key.empty() ? Quoted(key) : has_rowid_column ? "_rowid_" : "rowid";
  return 1;
}

int SQLite::Describe(const Table& table, const std::string& name, Index* index) {
  Values values(2);
  values[0].SetText(name);
  values[1].SetText(table.name);
  const RowsPointer found = Select(
      "SELECT x.name, x.desc, l.name FROM pragma_index_list(?2) AS l, pragma_index_xinfo(l.name) "
      "AS x "
      "WHERE l.name = ?1 COLLATE NOCASE AND x.seqno = 0",
      values, 0);
  if (!found) return -1;
  const int next = found->Next();
  if (next <= 0) return next;
  const std::string column(found->Text(0));
  for (size_t i = 0; i < table.columns.size(); i++) {
    if (!SameName(table.columns[i].name, column)) continue;
    index->column = static_cast<int>(i);
    index->descending = found->Integer(1) != 0;
    index->sql_name = Quoted(found->Text(2));
    return 1;
  }
  return 0;
}

}  // namespace zephsqlite
