// tablestore DIR N: records with an id, a name, an amount and a date, and an index on the name.
// Appends N of them one by one to a new table in DIR, looks N names up in random order, and walks
// over all records, first in the order of the names, then in the order of the table. Each operation
// takes the locks that it takes in an engine. Prints one line of JSON: microseconds for each
// operation, as wall time and processor time, and the sums that show whether the right records were
// read.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "base/database/XBaseTable.h"
#include "base/database/ZIXIndexFile.h"
#include "tools/Dump.h"

namespace {

enum FieldPlace { kId, kName, kAmount, kDay, kFields };

// A permutation of the numbers gives names that are unique and in no order.
std::string NameOf(long i) {
  char text[32];
  snprintf(text, sizeof(text), "customer %06ld", (i * 7919 + 12345) % 100003);
  return text;
}

[[noreturn]] void Fail(const char* what, const String& reason) {
  fprintf(stderr, "tablestore: %s: %s\n", what, reason.data ? reason.data : "");
  exit(1);
}

double Now(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Microseconds for each operation, since the timer was made.
class Timer {
 public:
  Timer() : wall(Now(CLOCK_MONOTONIC)), processor(Now(CLOCK_PROCESS_CPUTIME_ID)) {}
  std::string Each(int operations) const {
    char text[64];
    snprintf(text, sizeof(text), "[%f, %f]", (Now(CLOCK_MONOTONIC) - wall) / operations * 1e6,
             (Now(CLOCK_PROCESS_CPUTIME_ID) - processor) / operations * 1e6);
    return text;
  }

 private:
  double wall, processor;
};

class TableStore {
 public:
  TableStore(const std::string& directory, int records)
      : table_path(directory + "/t.dbf"), index_path(directory + "/t.zix"), count(records) {}

  void Run() {
    Create();
    Timer insert;
    for (int i = 0; i < count; i++) Insert(i);
    const std::string inserted = insert.Each(count);
    Timer lookup;
    const long found = LookUp();
    const std::string looked_up = lookup.Each(count);
    Timer scan;
    Walk(true);
    const std::string scanned = scan.Each(count);
    const long hash = walk_hash, met = walk_count;
    Timer table_scan;
    Walk(false);
    const std::string table_scanned = table_scan.Each(count);
    const auto bytes =
        std::filesystem::file_size(table_path) + std::filesystem::file_size(index_path);
    printf(
        "{\"n\": %d, \"us\": {\"insert\": %s, \"lookup\": %s, \"scan\": %s, "
        "\"table_scan\": %s}, \"sum\": [%ld, %ld, %ld], \"table_sum\": [%ld, %ld], "
        "\"bytes\": %ld}\n",
        count, inserted.c_str(), looked_up.c_str(), scanned.c_str(), table_scanned.c_str(), found,
        hash, met, walk_hash, walk_count, static_cast<long>(bytes));
  }

 private:
  void Create() {
    List<XBaseField> columns(1);
    columns.Insert(new XBaseField(nullptr, "ID", XBaseField_Numeric, 11, 0), ListTail);
    columns.Insert(new XBaseField(nullptr, "NAME", XBaseField_Character, 30, 0), ListTail);
    columns.Insert(new XBaseField(nullptr, "AMOUNT", XBaseField_Numeric, 10, 2), ListTail);
    columns.Insert(new XBaseField(nullptr, "D", XBaseField_Date, 8, 0), ListTail);
    if (!table.Create(ZephPath_Data, table_path.c_str(), "", 0, columns))
      Fail("create", table.error());
    const auto* expression = reinterpret_cast<const unsigned char*>("NAME");
    if (!index.Create(ZephPath_Data, index_path.c_str(), expression, kTextKeys))
      Fail("create", index.error());
    for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
      fields.push_back(field);
  }

  static const unsigned char* Key(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
  }

  void Insert(long i) {
    char text[32];
    fields[kId]->Set(text, snprintf(text, sizeof(text), "%ld", i));
    const std::string name = NameOf(i);
    fields[kName]->Set(name.data(), static_cast<int>(name.size()));
    fields[kAmount]->Set(
        text, snprintf(text, sizeof(text), "%.2f", static_cast<double>(i * 37 % 1000000) / 100));
    fields[kDay]->Set(text, snprintf(text, sizeof(text), "%04ld%02ld%02ld", 2020 + i % 5,
                                     1 + i % 12, 1 + i % 28));
    if (!table.Append()) Fail("append", table.error());
    if (!index.Insert(static_cast<unsigned>(table.record_number()), Key(fields[kName]->data()), -1))
      Fail("insert", index.error());
  }

  long LookUp() {
    long sum = 0;
    unsigned random = 12345;
    for (int i = 0; i < count; i++) {
      random = (random * 1103515245u + 12345u) & 0x7fffffff;
      const std::string name =
          NameOf(static_cast<long>((random >> 8) % static_cast<unsigned>(count)));
      unsigned record = 0;
      int found = 0;
      if (!index._Find(Key(name.c_str()), static_cast<int>(name.size()), 1, &record, &found, 1) ||
          !found)
        Fail("find", index.error());
      if (!table.Goto(static_cast<int>(record))) Fail("go", table.error());
      sum += atol(fields[kId]->data());
    }
    return sum;
  }

  void Walk(bool by_index) {
    walk_hash = walk_count = 0;
    unsigned record = 1;
    if (by_index && !index._First(&record, 1)) Fail("first", index.error());
    while (record != 0 && record <= static_cast<unsigned>(table.record_count())) {
      if (!table.Goto(static_cast<int>(record))) Fail("go", table.error());
      for (XBaseField* field : fields) read_bytes += strlen(field->data());
      walk_hash = (walk_hash * 31 + atol(fields[kId]->data())) % 1000003;
      walk_count++;
      if (!by_index)
        record++;
      else if (!index._Next(&record, nullptr, 1))
        Fail("next", index.error());
    }
  }

  static constexpr unsigned kTextKeys = 4;

  std::string table_path, index_path;
  int count;
  DumpApplication application;
  XBaseTable table{&application};
  ZIXIndexFile index{&application};
  std::vector<XBaseField*> fields;
  long walk_hash = 0, walk_count = 0;
  size_t read_bytes = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int records = argc == 3 ? atoi(argv[2]) : 0;
  if (records < 1 || records > 100000) {
    fprintf(stderr, "usage: tablestore DIR N    N is 1 to 100000\n");
    return 2;
  }
  TableStore(argv[1], records).Run();
  return 0;
}
