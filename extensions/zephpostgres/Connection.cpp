// How connections are kept and left, and how they describe tables. Tested in
// tests/e2e/PostgreSQLTest.cpp.

#include "extensions/zephpostgres/Connection.h"

#include <chrono>
#include <memory>
#include <vector>

namespace zephpostgres {

namespace {

constexpr size_t kMostConnections = 4;  // kept for each thread
constexpr Milliseconds kLeaveTimeout(5000);

// What DISCARD ALL does, without the statements that are prepared.
constexpr char kReset[] =
    "CLOSE ALL; SET SESSION AUTHORIZATION DEFAULT; RESET ALL; UNLISTEN *; "
    "SELECT pg_advisory_unlock_all(); DISCARD TEMP; DISCARD SEQUENCES; ";

thread_local std::vector<std::unique_ptr<Postgres>> idle_connections;

}  // namespace

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

}  // namespace zephpostgres
