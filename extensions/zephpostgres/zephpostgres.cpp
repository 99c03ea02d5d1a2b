// zephpostgres: databases of the type "postgres". docs/extensions/zephpostgres.md is the page for
// authors of scripts, and extensions/sql/View.h is what views do.
//
// Tested in tests/e2e/PostgreSQLTest.cpp.
//
// Each thread keeps the connections that its requests have used, with their prepared statements.
// All waits for the server are in slices, so that they end when the script has to.
//
// A connection that is found dead is made again, but not in a transaction: there everything fails
// until the transaction ends. A statement that was on its way when the connection died is sent
// again only if it reads.
//
// The file is longer than others because each part of it knows the connection, and nothing else
// does: columns and values, the connection with its link to the server, statements, how connections
// are kept, and the library's table.

#include <errno.h>
#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <charconv>
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

constexpr size_t kMostStatements = 100;  // prepared for each connection
constexpr size_t kMostConnections = 4;   // kept for each thread
constexpr int kMostCursors = 16;         // that are left for the end of the request to close
constexpr int kRowsOfCursor = 256;       // in one block
constexpr Milliseconds kConnectTimeout(10000);
constexpr Milliseconds kLeaveTimeout(5000);
constexpr Milliseconds kNoLimit(0);
constexpr char kNulInText[] = "a text with a NUL byte can only be stored in a bytea";
constexpr char kLostTransaction[] = "the connection was lost in the transaction";

// How values are written, whatever the server's configuration says.
constexpr char kSettings[] =
    "SET datestyle = ISO; SET bytea_output = hex; SET extra_float_digits = 1; "
    "SET standard_conforming_strings = on";
// What DISCARD ALL does, without the statements that are prepared.
constexpr char kReset[] =
    "CLOSE ALL; SET SESSION AUTHORIZATION DEFAULT; RESET ALL; UNLISTEN *; "
    "SELECT pg_advisory_unlock_all(); DISCARD TEMP; DISCARD SEQUENCES; ";

// Types by their numbers, which never change.
enum : Oid {
  kBool = 16,
  kBytea = 17,
  kName = 19,
  kInt8 = 20,
  kInt2 = 21,
  kInt4 = 23,
  kText = 25,
  kOid = 26,
  kFloat4 = 700,
  kFloat8 = 701,
  kUnknown = 705,
  kBpchar = 1042,
  kVarchar = 1043,
  kDate = 1082,
  kNumeric = 1700
};

struct EndResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, EndResult>;

// --- Columns and values --------------------------------------------------------------------------

Column ColumnOf(std::string name, Oid type, int modifier) {
  Column column;
  column.name = std::move(name);
  column.has_text = false;
  const auto number = [&column](int length, int decimals, int kind) {
    column.letter = 'N';
    column.length = length;
    column.decimals = decimals;
    column.type = kind;
  };
  switch (type) {
    case kBool:
      column.letter = 'L';
      column.length = 1;
      column.type = 2;
      column.boolean = true;
      break;
    case kInt2:
      number(6, 0, 2);
      column.least = INT16_MIN;
      column.largest = INT16_MAX;
      break;
    case kInt4:
      number(11, 0, 2);
      column.least = INT32_MIN;
      column.largest = INT32_MAX;
      break;
    case kOid:
      number(19, 0, 2);
      column.least = 0;
      column.largest = UINT32_MAX;
      break;
    case kInt8: number(19, 0, 2); break;
    case kFloat4:
    case kFloat8: number(19, 0, 3); break;
    case kNumeric:
      if (modifier < 4) {
        number(19, 0, 1);
        column.decimal = true;
      } else {
        // A number of 11 bits with a sign. numeric(5,-2) has two zeros after its digits.
        const int scale = (((modifier - 4) & 0x7FF) ^ 0x400) - 0x400;
        const int decimals = std::max(scale, 0);
        number(((modifier - 4) >> 16 & 0xFFFF) + (decimals > 0) + std::max(-scale, 0), decimals,
               decimals > 0 ? 1 : 2);
        column.decimal = true;
      }
      break;
    case kDate:
      column.letter = 'D';
      column.length = 8;
      break;
    case kVarchar:
    case kBpchar:
      column.has_text = true;
      if (modifier > 4) {
        column.letter = 'C';
        column.length = modifier - 4;
      }
      break;
    case kName:
    case kText:
    case kBytea:
    case kUnknown: column.has_text = true; break;
    default: break;
  }
  return column;
}

// The rows of one result.
class ResultRows : public Rows {
 public:
  Kind kind(int column) override {
    if (PQgetisnull(result.get(), row, column)) return Kind::Null;
    return KindOf(PQftype(result.get(), column), Raw(column));
  }
  int64_t Integer(int column) override {
    return IntegerIn(Raw(column), PQftype(result.get(), column));
  }
  double Real(int column) override { return RealIn(Raw(column)); }
  std::string_view Text(int column) override {
    return TextIn(Raw(column), PQftype(result.get(), column));
  }
  bool Store(int column, const Column& of, ZPVARIABLE variable) override {
    return StoreValue(*this, column, of, variable);
  }
  void Read(int column, Cell* cell) override {
    const std::string_view text = Raw(column);
    const Oid type = PQftype(result.get(), column);
    cell->kind =
        text.empty() && PQgetisnull(result.get(), row, column) ? Kind::Null : KindOf(type, text);
    switch (cell->kind) {
      case Kind::Null: break;
      case Kind::Integer: cell->integer = IntegerIn(text, type); break;
      case Kind::Real: cell->real = RealIn(text); break;
      default: cell->text = TextIn(text, type); break;
    }
  }
  const Columns& columns() override {
    if (described.empty()) {
      for (int i = 0; i < PQnfields(result.get()); i++) {
        described.push_back(
            ColumnOf(PQfname(result.get(), i), PQftype(result.get(), i), PQfmod(result.get(), i)));
      }
    }
    return described;
  }
  void Park() override {}
  void Done() noexcept override { delete this; }

 protected:
  std::string_view Raw(int column) const {
    return {PQgetvalue(result.get(), row, column),
            static_cast<size_t>(PQgetlength(result.get(), row, column))};
  }

  Result result;
  int row = -1;

 private:
  static Kind KindOf(Oid type, std::string_view text) {
    switch (type) {
      case kBool:
      case kInt2:
      case kInt4:
      case kInt8:
      case kOid: return Kind::Integer;
      case kFloat4:
      case kFloat8: return Kind::Real;
      case kBytea: return Kind::Blob;
      case kNumeric: return IsWhole(text) ? Kind::Integer : Kind::Text;
      default: return Kind::Text;
    }
  }
  static int64_t IntegerIn(std::string_view text, Oid type) {
    if (type == kBool) return text == "t";
    int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  }
  static double RealIn(std::string_view text) {
    double value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  }
  std::string_view TextIn(std::string_view text, Oid type) {
    if (type == kBytea) return Bytea(text);
    // Eight digits, as fields of the type date have them.
    if (type != kDate || text.size() != 10 || text[4] != '-' || text[7] != '-') return text;
    text.copy(day, 4);
    text.copy(day + 4, 2, 5);
    text.copy(day + 6, 2, 8);
    return {day, sizeof day};
  }
  static bool IsWhole(std::string_view text) {
    return text.size() <= 18 && std::all_of(text.begin(), text.end(), [](char c) {
             return (c >= '0' && c <= '9') || c == '-';
           });
  }
  static int Digit(char c) { return c >= 'a' ? c - 'a' + 10 : c - '0'; }
  // "\x", and two digits for each byte.
  std::string_view Bytea(std::string_view text) {
    scratch.clear();
    for (size_t i = 2; i + 1 < text.size(); i += 2) {
      scratch += static_cast<char>(Digit(text[i]) << 4 | Digit(text[i + 1]));
    }
    return scratch;
  }

  std::string scratch;
  char day[8];
  Columns described;
};

// A result that is here as a whole: a block of a table, or what a statement has returned.
class Block final : public ResultRows {
 public:
  // With a block of that many rows others may follow; 0 means that they are all.
  Block(Result of, int block) : count(PQntuples(of.get())), is_full(block > 0 && count == block) {
    result = std::move(of);
  }
  int Next() override {
    if (row + 1 >= count) return is_full ? kMore : 0;
    row++;
    return 1;
  }
  int Go(int64_t number) override {
    if (number < 1 || number > count) return 0;
    row = static_cast<int>(number - 1);
    return 1;
  }
  int Last() override { return Go(count); }
  int64_t number() const override { return row + 1; }
  int64_t Count() override { return is_full ? -1 : count; }

 private:
  const int count;
  const bool is_full;
};

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

// The values of a statement's parameters, as libpq takes them.
class Parameters {
 public:
  // Whether the values can only be sent when the types are known: a text with a NUL byte, which is
  // for bytea alone, and a backslash, which is an escape there.
  static bool NeedTypes(const Values& values) {
    for (const Value& value : values) {
      if (value.kind == Kind::Blob ||
          (value.kind == Kind::Text && value.text.find('\\') != std::string::npos)) {
        return true;
      }
    }
    return false;
  }
  // types may be empty if NeedTypes returns false.
  Parameters(const Values& values, const std::vector<Oid>& types) {
    texts.reserve(values.size());
    for (size_t i = 0; i < values.size(); i++) {
      const Value& value = values[i];
      const bool is_text = value.kind == Kind::Text || value.kind == Kind::Blob;
      char number[40];
      switch (value.kind) {
        case Kind::Integer: texts.emplace_back(std::to_string(value.integer)); break;
        case Kind::Real: {
          // Columns of whole numbers refuse exponents.
          const bool whole = value.real > -1e18 && value.real < 1e18 &&
                             value.real == static_cast<double>(static_cast<int64_t>(value.real));
          const auto [end, error] = whole
                                        ? std::to_chars(number, number + sizeof number, value.real,
                                                        std::chars_format::fixed)
                                        : std::to_chars(number, number + sizeof number, value.real);
          texts.emplace_back(number, end);
          break;
        }
        default: texts.emplace_back(is_text ? value.text : ""); break;
      }
      pointers.push_back(value.kind == Kind::Null ? nullptr : texts.back().c_str());
      lengths.push_back(static_cast<int>(texts.back().size()));
      // A text for bytea would be read as one with escapes. In other types the bytes of a binary
      // value are no text.
      const bool is_bytea = i < types.size() && types[i] == kBytea;
      formats.push_back(is_text && is_bytea);
      if (value.kind == Kind::Blob && !is_bytea) are_valid = false;
    }
  }
  int count() const { return static_cast<int>(pointers.size()); }

  std::vector<const char*> pointers;
  std::vector<int> lengths, formats;
  bool are_valid = true;

 private:
  std::vector<std::string> texts;
};

// --- Connections ---------------------------------------------------------------------------------

// How to connect.
struct Target {
  std::string text, user, password;
  bool operator==(const Target&) const = default;
};

class Postgres final : public Connection {
 public:
  static ConnectionPointer Acquire(ZPPROGRAM program, const Target& target, std::string* error);
  // Says goodbye without waiting for anything.
  ~Postgres() override { PQfinish(link); }

  RowsPointer Select(const std::string& text, const Values& values, int block) override {
    Result result =
        RunPrepared(block > 0 ? text + " LIMIT " + std::to_string(block) : text, values, true);
    if (!result) return nullptr;
    return RowsPointer(new Block(std::move(result), block));
  }
  RowsPointer Open(const std::string& text, const Values& values) override;
  bool Changes(const std::string& text) override { return !IsForCursor(text); }
  bool Run(const std::string& text, const Values& values, bool own, int64_t* changed) override {
    const Result result = own ? RunPrepared(text, values, false) : RunText(text, values);
    if (!result) return false;
    if (changed) *changed = strtoll(PQcmdTuples(result.get()), nullptr, 10);
    return true;
  }
  bool Insert(const Table& table, const std::string& text, const Values& values,
              Value* key) override {
    Result result = RunPrepared(text + " RETURNING " + table.key, values, false);
    if (!result) return false;
    Block rows(std::move(result), 0);
    if (rows.Next() == 1) rows.Get(0, key);
    return true;
  }

  void NoteScript(const std::string& text) override;
  int Describe(const std::string& name, bool is_whole, Table* table) override;
  int Describe(const Table& table, const std::string& name, Index* index) override;

  bool IsInTransaction() const override { return in_transaction || lost_transaction; }
  bool Transaction() override {
    if (IsInTransaction()) return Fail("a transaction is open already");
    return RunPrepared("BEGIN", none(), true) != nullptr;
  }
  bool Commit() override {
    if (std::exchange(lost_transaction, false)) return Fail(kLostTransaction);
    if (!in_transaction) return true;
    // A transaction in which something has failed cannot be committed; the server ends it.
    const bool failed = PQtransactionStatus(link) == PQTRANS_INERROR;
    const bool done = RunPrepared("COMMIT", none(), false) != nullptr;
    lost_transaction = false;
    if (done && failed) return Fail("the transaction was undone, because a statement had failed");
    return done;
  }
  // Without a connection there is nothing left to undo.
  bool Rollback() override {
    if (std::exchange(lost_transaction, false) || !in_transaction) return true;
    const bool done = RunPrepared("ROLLBACK", none(), false) != nullptr;
    return std::exchange(lost_transaction, false) || done;
  }

  void Leave() override;
  void Release() noexcept override;
  char mark() const override { return '$'; }
  bool is_strict() const override { return true; }

  // --- For cursors ------------------------------------------------------------------------------
  // A cursor is one of a link, and goes with the transaction that has made it if that is rolled
  // back. checked is the number of the last rollback after which it was still there.
  struct Cursor {
    std::string name;
    unsigned link;
    unsigned checked;
  };
  Cursor NewCursor(const std::string& name) const { return {name, generation, rollbacks}; }
  Result Fetch(const std::string& text, Cursor* cursor) {
    if (cursor->link != generation || !link) {
      Fail("its rows were lost with the connection");
      return nullptr;
    }
    const int found = Look(cursor);
    if (found == 0) Fail("its rows were lost when the transaction was rolled back");
    if (found <= 0) return nullptr;
    return RunOnce(text, none(), cursor->link);
  }
  void CloseCursor(Cursor* cursor) {
    if (open_cursors <= kMostCursors || cursor->link != generation || !link || !program ||
        PQtransactionStatus(link) == PQTRANS_INERROR) {
      return;
    }
    const int found = Look(cursor);
    if (found < 0) return;
    open_cursors--;
    if (found > 0) (void)RunOnce("CLOSE " + cursor->name, none(), cursor->link);
  }
  // A statement of the script.
  Result RunText(const std::string& text, const Values& values);

 private:
  struct Prepared {
    std::string name;
    std::vector<Oid> types;
  };

  explicit Postgres(Target target) : target(std::move(target)) {}

  static bool IsForCursor(std::string_view text);
  bool Connect();
  bool Ready(bool reads);
  // Returns 1 if the cursor is there, 0 if not, -1 for a failure. To use one that is not there
  // would be an error, which ends a transaction.
  int Look(Cursor* cursor);
  void DropLink();
  bool Lost(const std::string& text);
  bool WaitFor(short events, Milliseconds limit);
  Result Receive(Milliseconds limit);
  const Prepared* Prepare(const std::string& text);
  // Prepares a statement, and finds the types of its parameters.
  bool PrepareAs(const std::string& name, const std::string& text, std::vector<Oid>* types);
  Result RunPrepared(const std::string& text, const Values& values, bool reads);
  // of_link: only on that link; 0 means on any.
  Result RunOnce(const std::string& text, const Values& values, unsigned of_link);
  Result Refuse(Result result);
  std::string LinkError() const { return std::string(Trimmed(link ? PQerrorMessage(link) : "")); }

  const Target target;
  PGconn* link = nullptr;
  unsigned generation = 1;  // counts the links
  ZPPROGRAM program = nullptr;
  bool in_transaction = false;    // after the last statement
  bool lost_transaction = false;  // the link went in a transaction that the script has not ended
  bool was_lost = false;          // the last statement has lost the link
  bool is_stale = false;          // a prepared statement does not fit any more
  bool is_marked = false;         // the script has run statements of its own
  bool has_prepared = false;      // and they may have changed what is prepared
  bool has_left = false;
  unsigned names = 0;
  int open_cursors = 0;
  unsigned rollbacks = 0;  // counts them, those to a savepoint, too
  std::unordered_map<std::string, Prepared, TextHash, std::equal_to<>> prepared;
};

thread_local std::vector<std::unique_ptr<Postgres>> idle_connections;

// A query of a script: a cursor on the server, which is read in blocks. It stays when the
// transaction ends, because the server then keeps its rows.
class CursorRows final : public ResultRows {
 public:
  CursorRows(Postgres* connection, const std::string& name)
      : connection(connection), cursor(connection->NewCursor(name)) {}

  bool Start() { return ReadFrom(0); }
  int Next() override { return Go(before + row + 2); }
  int Go(int64_t number) override {
    if (number < 1) return 0;
    if (number > before + count() && is_after && count() < kRowsOfCursor) return 0;
    if (number <= before || number > before + count() + kRowsOfCursor ||
        (number > before + count() && !is_after)) {
      // The block before that row, if the walk goes backwards.
      const int64_t from =
          number <= before ? std::max<int64_t>(number - kRowsOfCursor, 0) : number - 1;
      if (!Move("ABSOLUTE " + std::to_string(from)) || !ReadFrom(from)) return -1;
    } else if (number > before + count() && !ReadFrom(before + count())) {
      return -1;
    }
    if (number > before + count()) return 0;
    row = static_cast<int>(number - before - 1);
    return 1;
  }
  int Last() override {
    if (Count() < 0) return -1;
    return Go(total);
  }
  // The rows of a cursor do not change, so they are counted once.
  int64_t Count() override {
    if (total < 0 && read > 0 && read < kRowsOfCursor) total = before + read;
    if (total < 0) {
      if (!Move("ABSOLUTE 0")) return -1;
      const Result moved = Move("FORWARD ALL");
      if (!moved) return -1;
      total = strtoll(PQcmdTuples(moved.get()), nullptr, 10);
    }
    return total;
  }
  int64_t number() const override { return before + row + 1; }
  void Done() noexcept override {
    // Without memory for the statement the cursor stays until the request ends.
    try {
      connection->CloseCursor(&cursor);
    } catch (const std::bad_alloc&) {
    }
    delete this;
  }

 private:
  int64_t count() const { return read; }
  Result Move(const std::string& to) {
    is_after = false;
    return connection->Fetch("MOVE " + to + " IN " + cursor.name, &cursor);
  }
  // REQUIRES: the cursor is after that row.
  bool ReadFrom(int64_t start) {
    Result next = connection->Fetch(
        "FETCH FORWARD " + std::to_string(kRowsOfCursor) + " FROM " + cursor.name, &cursor);
    if (!next) return false;
    result = std::move(next);
    read = PQntuples(result.get());
    before = start;
    row = -1;
    is_after = true;
    return true;
  }

  Postgres* const connection;
  Postgres::Cursor cursor;
  bool is_after = true;  // the cursor is after the block
  int64_t total = -1;    // rows, once they are counted
  int64_t before = 0;    // rows before the block
  int64_t read = 0;      // rows in the block
};

// --- The link ------------------------------------------------------------------------------------

// What was prepared on it is gone, and a transaction cannot go on.
void Postgres::DropLink() {
  if (std::exchange(in_transaction, false)) lost_transaction = true;
  PQfinish(std::exchange(link, nullptr));
  prepared.clear();
  open_cursors = 0;
  generation++;
}

bool Postgres::Lost(const std::string& text) {
  was_lost = true;
  DropLink();
  return Fail(text.empty() ? "the connection was lost" : text);
}

// Returns false, without a link, if the script has to end or the limit is over.
bool Postgres::WaitFor(short events, Milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    pollfd entry = {PQsocket(link), events, 0};
    Milliseconds slice = kSlice;
    if (limit > kNoLimit) {
      slice = std::min(slice, std::chrono::ceil<Milliseconds>(end - Clock::now()));
      if (slice.count() <= 0) {
        DropLink();
        return Fail("the server has not replied in time");
      }
    }
    const int count = poll(&entry, 1, static_cast<int>(slice.count()));
    if (count > 0) return true;
    if (count < 0 && errno != EINTR) return Lost("");
    if (count == 0 && program && IsCancelled(program)) {
      // The server may still be at work for this link.
      DropLink();
      return Fail("the script was ended while it waited for the server");
    }
  }
}

bool Postgres::Connect() {
  const char* const names_of_values[] = {
      "dbname", "user", "password", "client_encoding", "fallback_application_name", nullptr};
  // An empty value does not count.
  const char* const values[] = {
      target.text.c_str(), target.user.c_str(), target.password.c_str(), "UTF8", "zeph", nullptr};
  link = PQconnectStartParams(names_of_values, values, 1);
  if (!link) throw std::bad_alloc();
  PQsetNoticeProcessor(
      link, [](void*, const char*) {}, nullptr);
  const Clock::time_point end = Clock::now() + kConnectTimeout;
  for (PostgresPollingStatusType next = PGRES_POLLING_WRITING; next != PGRES_POLLING_OK;
       next = PQconnectPoll(link)) {
    if (next == PGRES_POLLING_FAILED || PQstatus(link) == CONNECTION_BAD) {
      const std::string text = LinkError();
      DropLink();
      return Fail(text);
    }
    const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
    if (!WaitFor(next == PGRES_POLLING_READING ? POLLIN : POLLOUT,
                 std::max(left, Milliseconds(1)))) {
      return false;
    }
  }
  PQsetnonblocking(link, 1);
  if (!PQsendQuery(link, kSettings)) return Lost(LinkError());
  return Refuse(Receive(kConnectTimeout)) != nullptr;
}

// Makes the connection, or makes it again if the server has closed it since the last statement.
// What reads is sent again in that case, so that one does not need the look.
bool Postgres::Ready(bool reads) {
  was_lost = is_stale = false;
  if (lost_transaction) return Fail(kLostTransaction);
  // A message of the server may come before the end of the link.
  for (int i = 0; i < 4 && link && !reads && !in_transaction; i++) {
    pollfd entry = {PQsocket(link), POLLIN, 0};
    if (poll(&entry, 1, 0) <= 0) break;
    if (!PQconsumeInput(link) || PQstatus(link) == CONNECTION_BAD) DropLink();
  }
  return link || Connect();
}

// --- Statements ----------------------------------------------------------------------------------

// The result of what was sent; of several, the first failure or the last one. Null if the link is
// lost.
Result Postgres::Receive(Milliseconds limit) {
  for (;;) {
    const int left = PQflush(link);
    if (left == 0) break;
    if (left < 0) {
      Lost(LinkError());
      return nullptr;
    }
    if (!WaitFor(POLLIN | POLLOUT, limit)) return nullptr;
    if (!PQconsumeInput(link)) {
      Lost(LinkError());
      return nullptr;
    }
  }
  Result kept;
  for (;;) {
    while (PQisBusy(link)) {
      if (!WaitFor(POLLIN, limit)) return nullptr;
      if (!PQconsumeInput(link)) {
        Lost(LinkError());
        return nullptr;
      }
    }
    Result next(PQgetResult(link));
    if (!next) break;
    const ExecStatusType status = PQresultStatus(next.get());
    if (status == PGRES_COMMAND_OK && std::string_view(PQcmdStatus(next.get())) == "ROLLBACK") {
      rollbacks++;
    }
    if (!kept || PQresultStatus(kept.get()) != PGRES_FATAL_ERROR) kept = std::move(next);
    if (status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH) {
      return kept;
    }
  }
  const PGTransactionStatusType status = PQtransactionStatus(link);
  if (PQstatus(link) != CONNECTION_BAD) {
    in_transaction = status == PQTRANS_INTRANS || status == PQTRANS_INERROR;
  }
  return kept;
}

// Lets only a success pass.
Result Postgres::Refuse(Result result) {
  if (!result) return result;
  switch (PQresultStatus(result.get())) {
    case PGRES_TUPLES_OK:
    case PGRES_COMMAND_OK: return result;
    case PGRES_EMPTY_QUERY: Fail("it is empty"); return nullptr;
    case PGRES_COPY_IN:
    case PGRES_COPY_OUT:
    case PGRES_COPY_BOTH:
      DropLink();
      Fail("COPY from and to a script is not possible");
      return nullptr;
    default: break;
  }
  const auto field = [&result](int which) {
    const char* const text = PQresultErrorField(result.get(), which);
    return std::string(text ? text : "");
  };
  const std::string state = field(PG_DIAG_SQLSTATE);
  std::string text = field(PG_DIAG_MESSAGE_PRIMARY);
  if (text.empty()) text = Trimmed(PQresultErrorMessage(result.get()));
  // "cached plan must not change result type", and a statement that is not there.
  is_stale = state == "0A000" || state == "26000";
  if (const std::string detail = field(PG_DIAG_MESSAGE_DETAIL); !detail.empty()) {
    text += ": " + detail;
  }
  if (PQstatus(link) == CONNECTION_BAD) {
    Lost(text);
  } else {
    Fail(text);
  }
  return nullptr;
}

const Postgres::Prepared* Postgres::Prepare(const std::string& text) {
  const auto found = prepared.find(std::string_view(text));
  if (found != prepared.end()) return &found->second;
  if (prepared.size() >= kMostStatements && !in_transaction) {
    if (!PQsendQuery(link, "DEALLOCATE ALL")) return Lost(LinkError()), nullptr;
    if (!Refuse(Receive(kNoLimit))) return nullptr;
    prepared.clear();
  }
  Prepared made;
  made.name = "zeph_" + std::to_string(++names);
  if (!PrepareAs(made.name, text, &made.types)) return nullptr;
  return &prepared.emplace(text, std::move(made)).first->second;
}

bool Postgres::PrepareAs(const std::string& name, const std::string& text,
                         std::vector<Oid>* types) {
  if (text.find('\0') != std::string::npos) return Fail("it has a NUL byte");
  if (!PQsendPrepare(link, name.c_str(), text.c_str(), 0, nullptr)) return Lost(LinkError());
  if (!Refuse(Receive(kNoLimit))) return false;
  if (!PQsendDescribePrepared(link, name.c_str())) return Lost(LinkError());
  const Result described = Refuse(Receive(kNoLimit));
  if (!described) return false;
  for (int i = 0; i < PQnparams(described.get()); i++) {
    types->push_back(PQparamtype(described.get(), i));
  }
  return true;
}

Result Postgres::RunPrepared(const std::string& text, const Values& values, bool reads) {
  for (int attempt = 0; attempt < 3; attempt++) {
    if (!Ready(reads)) return nullptr;
    const bool may_repeat = !in_transaction;
    bool was_sent = false;
    if (const Prepared* statement = Prepare(text)) {
      const Parameters parameters(values, statement->types);
      if (!parameters.are_valid) {
        Fail(kNulInText);
        return nullptr;
      }
      was_sent = true;
      if (!PQsendQueryPrepared(link, statement->name.c_str(), parameters.count(),
                               parameters.pointers.data(), parameters.lengths.data(),
                               parameters.formats.data(), 0)) {
        Lost(LinkError());
      } else if (Result result = Refuse(Receive(kNoLimit))) {
        return result;
      }
    }
    // A transaction cannot go on after that, but the next one can.
    if (is_stale) prepared.erase(text);
    if (!may_repeat || (!is_stale && (!was_lost || (was_sent && !reads)))) break;
  }
  return nullptr;
}

Result Postgres::RunOnce(const std::string& text, const Values& values, unsigned of_link) {
  if (!Ready(false)) return nullptr;
  if (of_link != 0 && of_link != generation) {
    Fail("its rows were lost with the connection");
    return nullptr;
  }
  if (text.find('\0') != std::string::npos) {
    Fail("it has a NUL byte");
    return nullptr;
  }
  std::vector<Oid> types;
  if (Parameters::NeedTypes(values) && !PrepareAs("", text, &types)) return nullptr;
  const Parameters parameters(values, types);
  if (!parameters.are_valid) {
    Fail(kNulInText);
    return nullptr;
  }
  if (!PQsendQueryParams(link, text.c_str(), parameters.count(), nullptr,
                         parameters.pointers.data(), parameters.lengths.data(),
                         parameters.formats.data(), 0)) {
    Lost(LinkError());
    return nullptr;
  }
  return Refuse(Receive(kNoLimit));
}

void Postgres::NoteScript(const std::string& text) {
  is_marked = true;
  const std::string lowered = Lowered(text);
  for (const char* word : {"prepare", "deallocate", "discard"}) {
    if (lowered.find(word) != std::string::npos) has_prepared = true;
  }
}

Result Postgres::RunText(const std::string& text, const Values& values) {
  NoteScript(text);
  return RunOnce(text, values, 0);
}

int Postgres::Look(Cursor* cursor) {
  if (cursor->checked == rollbacks) return 1;
  const Result found =
      RunOnce("SELECT 1 FROM pg_catalog.pg_cursors WHERE name = '" + cursor->name + "'", none(),
              cursor->link);
  if (!found) return -1;
  if (PQntuples(found.get()) == 0) return 0;
  cursor->checked = rollbacks;
  return 1;
}

// Whether a statement is a query that a cursor can be for, and not one that locks its rows: a
// cursor that stays when the transaction ends cannot do that.
bool Postgres::IsForCursor(std::string_view text) {
  bool is_first = true, follows_for = false;
  for (size_t at = 0; at < text.size();) {
    if (text.substr(at, 2) == "--") {
      at = std::min(text.find('\n', at), text.size());
    } else if (text.substr(at, 2) == "/*") {
      int depth = 0;
      do {
        const std::string_view sign = text.substr(at, 2);
        if (sign == "/*") depth++;
        if (sign == "*/") depth--;
        at += sign == "/*" || sign == "*/" ? 2 : 1;
      } while (depth > 0 && at < text.size());
    } else if (IsWordByte(text[at])) {
      const size_t start = at;
      while (at < text.size() && IsWordByte(text[at])) at++;
      const std::string word = Lowered(text.substr(start, at - start));
      if (std::exchange(is_first, false) && word != "select" && word != "with" &&
          word != "values" && word != "table") {
        return false;
      }
      if (follows_for && (word == "update" || word == "share" || word == "no" || word == "key")) {
        return false;
      }
      follows_for = word == "for";
    } else {
      if (is_first && text[at] != '(' && !IsSpace(text[at])) return false;
      at++;
    }
  }
  return !is_first;
}

RowsPointer Postgres::Open(const std::string& text, const Values& values) {
  if (!IsForCursor(text)) {
    // What a cursor cannot be for returns few rows: EXPLAIN, SHOW, INSERT with RETURNING.
    Result result = RunText(text, values);
    if (!result) return nullptr;
    if (PQnfields(result.get()) == 0) {
      Fail("it has no result");
      return nullptr;
    }
    return RowsPointer(new Block(std::move(result), 0));
  }
  const std::string name = "zeph_cursor_" + std::to_string(++names);
  if (!RunText("DECLARE " + name + " SCROLL CURSOR WITH HOLD FOR " + text, values)) return nullptr;
  open_cursors++;
  auto rows = std::make_unique<CursorRows>(this, name);
  if (!rows->Start()) return nullptr;
  return RowsPointer(rows.release());
}

// --- Connections: how they are kept --------------------------------------------------------------

ConnectionPointer Postgres::Acquire(ZPPROGRAM program, const Target& target, std::string* error) {
  ConnectionPointer acquired;
  // Release has no memory to ask for.
  idle_connections.reserve(kMostConnections);
  for (size_t i = idle_connections.size(); i-- > 0 && !acquired;) {
    if (idle_connections[i]->target != target) continue;
    acquired.reset(idle_connections[i].release());
    idle_connections.erase(idle_connections.begin() + static_cast<std::ptrdiff_t>(i));
  }
  if (!acquired) acquired.reset(new Postgres(target));
  auto* const connection = static_cast<Postgres*>(acquired.get());
  connection->program = program;
  connection->has_left = false;
  if (connection->Ready(false)) return acquired;
  *error = connection->error();
  return nullptr;
}

void Postgres::Leave() {
  std::string text;
  // The link itself knows, also if memory ran out while a reply was on its way.
  switch (link ? PQtransactionStatus(link) : PQTRANS_IDLE) {
    case PQTRANS_IDLE: break;
    case PQTRANS_INTRANS:
    case PQTRANS_INERROR: text = "ROLLBACK; "; break;
    default: DropLink(); break;
  }
  if (is_marked) {
    text += kReset;
    if (has_prepared) {
      text += "DEALLOCATE ALL; ";
      prepared.clear();
    }
    text += kSettings;
  } else if (open_cursors > 0) {
    text += "CLOSE ALL";
  }
  if (link && !text.empty()) {
    if (!PQsendQuery(link, text.c_str())) {
      DropLink();
    } else if (!Refuse(Receive(kLeaveTimeout)) && link) {
      DropLink();
    }
  }
  in_transaction = lost_transaction = is_marked = has_prepared = false;
  open_cursors = 0;
  has_left = true;
  program = nullptr;
}

void Postgres::Release() noexcept {
  std::unique_ptr<Postgres> owned(this);
  program = nullptr;
  // The store of another thread may have no room.
  if (!has_left || !link || idle_connections.capacity() < kMostConnections) return;
  if (idle_connections.size() >= kMostConnections) {
    idle_connections.erase(idle_connections.begin());
  }
  idle_connections.push_back(std::move(owned));
}

int Postgres::Describe(const std::string& name, bool is_whole, Table* table) {
  // As it is written and, if there is none, in small letters: those are the names that SQL makes of
  // names without quotes. Then the same with the name of a schema.
  Values values(4);
  const size_t point = is_whole ? std::string::npos : name.find('.');
  for (size_t i = 0; i < 4; i += 2) {
    const bool has_schema = i > 0 && point != std::string::npos;
    const std::string quoted =
        has_schema ? Quoted(name.substr(0, point)) + "." + Quoted(name.substr(point + 1))
                   : Quoted(name);
    values[i].SetBytes(quoted);
    values[i + 1].SetBytes(Lowered(quoted));
  }
  Result result = RunPrepared(
      "SELECT a.attname, a.atttypid, a.atttypmod, a.attrelid::regclass::text, c.relname, "
      "coalesce(i.indnkeyatts = 1 AND i.indkey[0] = a.attnum, false), "
      "a.attgenerated <> '' OR a.attidentity = 'a' "
      "FROM pg_attribute a JOIN pg_class c ON c.oid = a.attrelid "
      "LEFT JOIN pg_index i ON i.indrelid = a.attrelid AND i.indisprimary "
      "WHERE a.attrelid = coalesce(to_regclass($1), to_regclass($2), to_regclass($3), "
      "to_regclass($4)) AND a.attnum > 0 "
      "AND NOT a.attisdropped ORDER BY a.attnum",
      values, true);
  if (!result) return -1;
  const int count = PQntuples(result.get());
  if (count == 0) return 0;
  const auto text = [&result](int row, int column) {
    return std::string(PQgetvalue(result.get(), row, column));
  };
  table->sql_name = text(0, 3);
  table->name = text(0, 4);
  for (int i = 0; i < count; i++) {
    const std::string column = text(i, 0);
    const Oid type = static_cast<Oid>(strtoul(PQgetvalue(result.get(), i, 1), nullptr, 10));
    const bool is_key = text(i, 5) == "t";
    if (is_key) table->key = Quoted(column);
    // The variable of that name tells it already.
    if (is_key && column == "recno" && (type == kInt4 || type == kInt8)) continue;
    if (is_key) table->key_column = static_cast<int>(table->columns.size());
    table->columns.push_back(ColumnOf(column, type, atoi(PQgetvalue(result.get(), i, 2))));
    table->columns.back().generated = text(i, 6) == "t";
  }
  return 1;
}

int Postgres::Describe(const Table& table, const std::string& name, Index* index) {
  Values values(2);
  values[0].SetText(table.sql_name);
  values[1].SetBytes(Lowered(name));
  Result result = RunPrepared(
      "SELECT a.attname, i.indoption[0] & 1, i.indexrelid::regclass::text FROM pg_index i JOIN "
      "pg_class c ON c.oid = "
      "i.indexrelid "
      "JOIN pg_attribute a ON a.attrelid = i.indrelid AND a.attnum = i.indkey[0] "
      "WHERE i.indrelid = $1::text::regclass AND lower(c.relname) = $2",
      values, true);
  if (!result) return -1;
  if (PQntuples(result.get()) == 0) return 0;
  const std::string_view column = PQgetvalue(result.get(), 0, 0);
  for (size_t i = 0; i < table.columns.size(); i++) {
    if (table.columns[i].name != column) continue;
    index->column = static_cast<int>(i);
    index->descending = *PQgetvalue(result.get(), 0, 1) == '1';
    index->sql_name = PQgetvalue(result.get(), 0, 2);
    return 1;
  }
  return 0;
}

// --- The library ---------------------------------------------------------------------------------

struct Peer {
  static constexpr char kKeyColumn[] =
      "\"recno\" bigint GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY";
  static constexpr char kReindex[] = "REINDEX TABLE ";

  // The path is a text for the connection, which may have a password and is never shown, or names a
  // table.
  static ConnectionPointer Connect(const Opening& opening, std::string* table, bool* required,
                                   std::string* error) {
    const bool is_text = opening.path.find('=') != std::string_view::npos ||
                         opening.path.find("://") != std::string_view::npos;
    Target target;
    target.text =
        is_text ? std::string(opening.path) : Setting(opening.program, "zephpostgres_connection");
    target.user = opening.user;
    target.password = opening.password;
    *table = is_text ? std::string(opening.options) : BaseName(opening.path);
    *required = true;
    const std::string what = "Cannot connect to the database server: ";
    char* wrong = nullptr;
    PQconninfoOption* const parsed =
        target.text.empty() ? nullptr : PQconninfoParse(target.text.c_str(), &wrong);
    const bool is_right = parsed && IsPlausible(parsed, target.text);
    PQconninfoFree(parsed);
    PQfreemem(wrong);
    if (!target.text.empty() && !is_right) {
      // The reason would have parts of the text.
      *error = what + "the text of the connection is wrong";
      return nullptr;
    }
    ConnectionPointer connection = Postgres::Acquire(opening.program, target, error);
    if (!connection) *error = what + *error;
    return connection;
  }
  // A password with a slash or a sign @ in it, which has to be written as %2F or %40, makes other
  // parts of an address. Errors would show them.
  static bool IsPlausible(const PQconninfoOption* parsed, std::string_view text) {
    const bool is_address = text.starts_with("postgres");
    for (; parsed->keyword; parsed++) {
      const std::string_view keyword = parsed->keyword, value = parsed->val ? parsed->val : "";
      if (keyword == "port" && !value.empty()) {
        for (const std::string_view port : SplitList(value)) {
          int number = 1;
          const auto [end, wrong] = std::from_chars(port.data(), port.data() + port.size(), number);
          if (!port.empty() && (wrong != std::errc() || end != port.data() + port.size() ||
                                number < 1 || number > 65535)) {
            return false;
          }
        }
      }
      if (is_address && (keyword == "host" || keyword == "dbname") &&
          value.find('@') != std::string_view::npos) {
        return false;
      }
    }
    return true;
  }
  static std::string TypeOf(const FieldSpecification& field) {
    switch (field.letter) {
      case 'C': return "varchar(" + std::to_string(field.length) + ") COLLATE \"C\"";
      case 'N':
        return "numeric(" + std::to_string(field.length - (field.decimals > 0)) + "," +
               std::to_string(field.decimals) + ")";
      case 'D': return "date";
      case 'L': return "boolean";
      default: return "text COLLATE \"C\"";
    }
  }
  static std::string NameOf(std::string_view name) { return Lowered(name); }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_Database* zeph_database_library() {
  return Library<Peer>::Table();
}
