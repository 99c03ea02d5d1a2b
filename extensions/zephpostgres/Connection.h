// A connection to a server, with the statements that are prepared on it.
//
// Each thread keeps the connections that its requests have used, with their prepared statements.
// All waits for the server are in slices, so that they end when the script has to.
//
// A connection that is found dead is made again, but not in a transaction: there everything fails
// until the transaction ends. A statement that was on its way when the connection died is sent
// again only if it reads.
//
// Tested in tests/e2e/PostgreSQLTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHPOSTGRES_CONNECTION_H
#define ZEPH_EXTENSIONS_ZEPHPOSTGRES_CONNECTION_H

#include <libpq-fe.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "extensions/sql/Connection.h"
#include "extensions/sql/Waiting.h"
#include "extensions/zephpostgres/Rows.h"

namespace zephpostgres {

constexpr int kMostCursors = 16;  // that are left for the end of the request to close
constexpr Milliseconds kNoLimit(0);
constexpr char kLostTransaction[] = "the connection was lost in the transaction";

// How values are written, whatever the server's configuration says.
constexpr char kSettings[] =
    "SET datestyle = ISO; SET bytea_output = hex; SET extra_float_digits = 1; "
    "SET standard_conforming_strings = on";

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

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

}  // namespace zephpostgres

#endif
