// zephsqlite: databases of the type "sqlite". docs/extensions/zephsqlite.md is the page for authors
// of scripts, and extensions/sql/View.h is what views do.
//
// Tested in tests/e2e/SQLiteTest.cpp.
//
// Each thread keeps the connections that its requests have used, with their statements. A database
// that a script opens has one for itself until it is closed. A connection that is kept holds no
// lock: its statements are reset and no transaction is open.
//
// The file is longer than others because statements and connections know one another, and nothing
// else knows them. Its divisions: columns, statements, connections, and the library's table.

#include <limits.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "extensions/sql/Library.h"
#include "extensions/sql/Waiting.h"

namespace {

using namespace zephsql;

constexpr int kMostStatements = 100;      // kept for each connection
constexpr size_t kLongestKept = 4096;     // bytes of the text of a statement that is kept
constexpr size_t kMostConnections = 8;    // kept for each thread
constexpr int kLongestValue = 64 << 20;   // bytes; SQLite's memory is not that of the script
constexpr int kStepsOfPatience = 100000;  // of SQLite's machine, between two looks at the clock
constexpr Milliseconds kBusyTimeout(10000);

class SQLite;

// --- Columns -------------------------------------------------------------------------------------

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// What a declared type means: SQLite's rules of affinity, and the types of dbcreate.
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

// A prepared statement, and the rows that it yields. It belongs to its connection.
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

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

// --- Connections ---------------------------------------------------------------------------------

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
  // The first query that is open takes a lock or a place in the log, which the others share.
  const char* skip() const override { return " LIMIT -1 OFFSET "; }

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

thread_local std::vector<std::unique_ptr<SQLite>> idle_connections;

// --- Statements: how they work ------------------------------------------------------------------

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

// --- Connections: how they work -----------------------------------------------------------------

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

// --- The library ---------------------------------------------------------------------------------

// The real path of the data directory.
bool DataDirectory(ZPPROGRAM program, std::string* directory) {
  ZPVARIABLE settings =
      zpVariableHash_Find(zpProgram_System_VariableHash(program), "zeph_config", -1);
  ZPVARIABLE setting = settings ? zpVariable_Struct_Member("dir_data", -1, settings, 0) : nullptr;
  int length = 0;
  const char* const text = setting ? zpVariable_Value(setting, &length) : nullptr;
  // Without the setting a command line program works in the directory where it was started.
  const std::string path = length > 0 ? std::string(Bytes(text, length)) : ".";
  char resolved[PATH_MAX];
  if (!realpath(path.c_str(), resolved)) return false;
  *directory = resolved;
  return true;
}

// The path of a file below the data directory; empty if it would be elsewhere. Links are refused
// when it is opened.
std::string DataPath(ZPPROGRAM program, std::string_view path) {
  std::string directory;
  if (path.empty() || path.find('\0') != std::string_view::npos ||
      !DataDirectory(program, &directory)) {
    return "";
  }
  int length = 0;
  char* const normalized =
      zpFile_NormalizePath(program, ZPFILE_DATA, std::string(path).c_str(), -1, &length);
  if (!normalized) return "";
  std::string below(Bytes(normalized, length));
  zpProgram_Free(program, normalized);
  if (below.starts_with('/')) {
    const std::string within = directory + "/";
    return below.starts_with(within) ? below : "";
  }
  if (below.empty() || below == "." || below == ".." || below.starts_with("../")) return "";
  return directory + "/" + below;
}

struct Peer {
  static constexpr char kKeyColumn[] = "\"recno\" integer primary key";
  static constexpr char kReindex[] = "REINDEX ";

  static ConnectionPointer Connect(const Opening& opening, std::string* table, bool* required,
                                   std::string* error) {
    const std::string path = DataPath(opening.program, opening.path);
    const std::string what = std::string("Cannot ") + (opening.create ? "create" : "open") + " '" +
                             std::string(opening.path) + "': ";
    if (path.empty()) {
      *error = what + "it is not below the data directory";
      return nullptr;
    }
    *table = BaseName(opening.path);
    *required = false;
    ConnectionPointer connection = SQLite::Acquire(opening.program, path, opening.create, error);
    if (!connection) *error = what + *error;
    return connection;
  }
  static std::string TypeOf(const FieldSpecification& field) {
    switch (field.letter) {
      case 'C': return "char(" + std::to_string(field.length) + ")";
      case 'N':
        return "numeric(" + std::to_string(field.length - (field.decimals > 0)) + "," +
               std::to_string(field.decimals) + ")";
      case 'D': return "date text";
      case 'L': return "boolean";
      default: return "text";
    }
  }
  static std::string NameOf(std::string_view name) { return std::string(name); }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_Database* zeph_database_library() {
  // SQLite would count its memory, with a lock for all threads at each change. It refuses this if
  // another library of the process uses it already, and then it does.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  return Library<Peer>::Table();
}
