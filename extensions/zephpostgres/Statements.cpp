// How statements are sent over the link to the server, and how their results come back. Tested in
// tests/e2e/PostgreSQLTest.cpp.

#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <new>

#include "extensions/zephpostgres/Connection.h"

namespace zephpostgres {

namespace {

constexpr size_t kMostStatements = 100;  // prepared for each connection
constexpr int kRowsOfCursor = 256;       // in one block
constexpr Milliseconds kConnectTimeout(10000);
constexpr char kNulInText[] = "a text with a NUL byte can only be stored in a bytea";

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

}  // namespace

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

}  // namespace zephpostgres
