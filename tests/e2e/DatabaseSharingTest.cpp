// Two engines with eight request threads each work on one table and its two indexes: nothing that a
// client was told gets lost, also not if an engine is killed. ZEPH_DATABASE_SECONDS sets how long
// they work, 4 by default and 2 with a sanitizer.

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/Paths.h"
#include "tests/support/ZIXIndexChecker.h"

namespace {

constexpr int kThreads = 8;
constexpr int kEngines = 2;
constexpr int kKills = 10;
constexpr int kMany = 12;  // records that one request adds
const char kByCode[] = "code.zix", kByAmount[] = "amount.zix";

std::chrono::milliseconds TimeToWork() {
  const char* given = getenv("ZEPH_DATABASE_SECONDS");
  return std::chrono::seconds(given ? atoi(given) : kAddressSanitizer || kThreadSanitizer ? 2 : 4);
}

// --- The scripts ---------------------------------------------------------------------------------

std::string Opening() {
  std::string code;
  for (int tag = 28; tag <= 47; tag++) code += "tagerror " + std::to_string(tag) + ", 0\n";
  return code + OpenDatabase("t", "t.dbf", std::string(kByCode) + "," + kByAmount);
}

std::string MakingScript() {
  return CreateDatabase("t", "t.dbf", "code char(20), amount number(6)") +
         Op("dbmakeindex", {"t", kByCode, "d.code", "unique, string"}) +
         Op("dbmakeindex", {"t", kByAmount, "d.amount", "descending"});
}

std::string Errors() {
  std::string code;
  for (const char* tag :
       {"OPEN", "FIND", "GO", "SKIP", "ADD", "UPDATE", "DELETE", "UNDELETE", "REINDEX"})
    code += "pushg Zp" + std::string(tag) + "_Error\nout\n";
  return code;
}

// One operation on the record of a code. Writes recno, code, amount, deleted, eof and the errors;
// "many", which adds records, writes their numbers and the errors.
std::string WorkingScript() {
  const auto is = [](const std::string& op) {
    return "pushg op\n" + Push(op) + "eq\njmp_ne " + op + "\n";
  };
  const std::string fields =
      "pushg new\n" + Op("popd", {"t", "code"}) + "pushg amount\n" + Op("popd", {"t", "amount"});
  return Opening() + is("add") + is("many") + is("walk") + Push("t") + Push("") + "pushg code\n" +
         Push(1) + "dbfind\n" + Op("pushd", {"t", "eof"}) + "jmp_ne show\n" + is("rekey") +
         is("delete") + is("undelete") + "jmp show\nadd: " + fields + OnView("dbadd", "t") +
         "jmp show\nrekey: " + fields + OnView("dbupdate", "t") +
         "jmp show\ndelete: " + OnView("dbdelete", "t") + "jmp show\nmany: pushg new\n" +
         Push("-") + "cat\npushg n\ncat\n" + Op("popd", {"t", "code"}) + "pushg amount\n" +
         Op("popd", {"t", "amount"}) + OnView("dbadd", "t") + Op("pushd", {"t", "recno"}) +
         "out\n" + Push(",") + "out\nincg n, 1\npushg n\n" + Push(kMany) + "lt\njmp_ne many\n" +
         Errors() + Push("|") + "out\nexit\nundelete: " + OnView("dbundelete", "t") +
         "jmp show\nwalk: " + Push("t") + Push("") + "pushg code\n" + Push(0) +
         "dbfind\nstep: " + Op("pushd", {"t", "eof"}) + "jmp_ne show\n" + Skip("t", 1) +
         "incg n, 1\npushg n\n" + Push(20) + "lt\njmp_ne step\nshow: " + Show("t", "recno") +
         Show("t", "code") + Show("t", "amount") + Show("t", "deleted") + Show("t", "eof") +
         Errors() + Push("|") + "out\n";
}

// --- What clients know ---------------------------------------------------------------------------

struct Record {
  std::string code;
  std::string amount;
  bool deleted = false;
  bool indexed = true;  // false for one whose code another client had already
  bool operator==(const Record&) const = default;
};

// A change without an orderly end: it was made in full, in part or not at all.
struct Doubtful {
  int record;  // 0 for a new one
  Record wanted;
};

// A client with records of its own, which no other client changes.
class Client {
 public:
  Client(int id, unsigned seed) : id(id), random(seed) {}

  // Works until *stop. After *killed an engine may be gone, and an error is a doubtful end.
  void Work(const EngineProcess& engine, const std::atomic<bool>& stop,
            const std::atomic<bool>& killed, std::atomic<int>* races) {
    while (!stop && fault.empty() && doubtful.empty()) Step(engine, killed, races);
  }

  std::map<int, Record> records;
  std::vector<Doubtful> doubtful;  // of one request, because the client stops there
  // Of races that another client has won: each is in the table, and in no index.
  std::vector<Record> losers;
  std::string fault;
  long operations = 0;
  int races_won = 0;

 private:
  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  // The first letter is random, so that the codes of all clients are mixed.
  std::string NewCode() {
    return std::string(1, static_cast<char>('a' + Below(26))) + std::to_string(Below(10)) + "-" +
           std::to_string(id) + "-" + std::to_string(++codes);
  }

  void Step(const EngineProcess& engine, const std::atomic<bool>& killed, std::atomic<int>* races) {
    operations++;
    const int kind = Below(100);
    if (records.empty() || kind < 22) {
      const bool race = races && kind < 3;
      if (!races && kind < 15) {
        AddMany(engine, killed);
        return;
      }
      Record wanted = {NewCode(), std::to_string(Below(1000))};
      if (race) wanted.code = "race-" + std::to_string(++*races / kEngines / kThreads);
      Add(engine, killed, wanted, race);
      return;
    }
    auto at = records.begin();
    std::advance(at, Below(static_cast<int>(records.size())));
    Record wanted = at->second;
    std::string op = "find";
    if (!wanted.indexed) return;
    if (kind < 50) {
      op = "rekey";
      wanted.code = NewCode();
      if (Below(2)) wanted.amount = std::to_string(Below(1000));
    } else if (kind < 70) {
      op = wanted.deleted ? "undelete" : "delete";
      wanted.deleted = !wanted.deleted;
    } else if (kind < 78) {
      op = "walk";
    }
    const std::string code = op == "walk" ? at->second.code.substr(0, 1) : at->second.code;
    const std::optional<std::string> reply = Ask(engine, op, code, wanted);
    if (op == "walk") {
      if (reply && reply->ends_with("||")) return;
    } else if (reply && *reply == Expected(at->first, wanted)) {
      at->second = wanted;
      return;
    }
    if (killed) {
      doubtful.push_back({at->first, wanted});
    } else {
      fault = op + " " + code + ": " + reply.value_or("no reply");
    }
  }

  void Add(const EngineProcess& engine, const std::atomic<bool>& killed, Record wanted, bool race) {
    const std::optional<std::string> reply = Ask(engine, "add", "", wanted);
    const int record = reply ? atoi(reply->c_str()) : 0;
    if (reply && *reply == Expected(record, wanted)) {
      races_won += race;
      Take(record, wanted);
    } else if (race && reply && reply->find("already exists in the index") != std::string::npos) {
      wanted.indexed = false;
      losers.push_back(wanted);
    } else if (killed) {
      doubtful.push_back({0, wanted});
    } else {
      fault = "add " + wanted.code + ": " + reply.value_or("no reply");
    }
  }

  // Its engine writes index pages most of the time, so a kill is likely to come between two.
  void AddMany(const EngineProcess& engine, const std::atomic<bool>& killed) {
    Record wanted = {NewCode(), std::to_string(Below(1000))};
    const std::optional<std::string> reply = Ask(engine, "many", "", wanted);
    const bool added =
        reply && std::count(reply->begin(), reply->end(), ',') == kMany && reply->ends_with(",|");
    const std::string code = wanted.code;
    size_t at = 0;
    for (int i = 0; i < kMany; i++) {
      wanted.code = code + "-" + std::to_string(i);
      if (added) {
        Take(atoi(reply->c_str() + at), wanted);
        at = reply->find(',', at) + 1;
      } else if (killed) {
        doubtful.push_back({0, wanted});
      } else {
        fault = "many " + code + ": " + reply.value_or("no reply");
      }
    }
  }

  void Take(int record, const Record& wanted) {
    if (!records.emplace(record, wanted).second)
      fault = "record " + std::to_string(record) + " was given twice";
  }

  static std::string Expected(int record, const Record& wanted) {
    return std::to_string(record) + "|" + wanted.code + "|" + wanted.amount + "|" +
           (wanted.deleted ? "1" : "0") + "|0||";
  }

  static std::optional<std::string> Ask(const EngineProcess& engine, const std::string& op,
                                        const std::string& code, const Record& wanted) {
    FastCGIClient client;
    if (!client.Connect(engine.socket())) return std::nullopt;
    const FastCGIResponse response = client.Request(engine.Parameters(
        "/work.zpc", {{"QUERY_STRING", "op=" + op + "&code=" + code + "&new=" + wanted.code +
                                           "&n=0&amount=" + wanted.amount}}));
    if (!response.ended) return std::nullopt;
    return response.Body();
  }

  int id;
  int codes = 0;
  std::mt19937 random;
};

// --- The site ------------------------------------------------------------------------------------

class DatabaseSharing : public testing::Test {
 protected:
  void SetUp() override {
    first.settings = "timeout_global = 60\n";
    first.arguments = {"-t", std::to_string(kThreads)};
    first.Script("make.zpc", MakingScript());
    first.Script("work.zpc", WorkingScript());
    first.Script("reindex.zpc", Opening() + Op("dbreindex", {"t"}) + Errors());
    ASSERT_TRUE(first.Start());
    ASSERT_EQ(first.Get("/make.zpc").Body(), "");
    for (int id = 0; id < kEngines * kThreads; id++)
      clients.push_back(std::make_unique<Client>(id, 100u + static_cast<unsigned>(id)));
    StartSecond();
  }

  // REQUIRES: no client works.
  void StartSecond() {
    second = std::make_unique<EngineProcess>();
    second->arguments = first.arguments;
    second->configuration = "dir_zeph = \"" + first.Path("scripts") + "\"\ndir_data = \"" +
                            first.Path("data") + "\"\ntimeout_global = 60\n";
    ASSERT_TRUE(second->Start());
    ASSERT_TRUE(second->WaitUntilReady());
  }

  // Lets all clients work for that time, and then kills the second engine if so wanted.
  void Work(std::chrono::milliseconds time, bool kill_second, bool with_races) {
    std::atomic<bool> stop{false}, killed{false};
    std::atomic<int> races{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < clients.size(); i++) {
      threads.emplace_back([&, i] {
        clients[i]->Work(i % 2 ? *second : first, stop, killed, with_races ? &races : nullptr);
      });
    }
    std::this_thread::sleep_for(time);
    if (kill_second) {
      killed = true;
      second->Signal(SIGKILL);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    for (const auto& client : clients) ASSERT_EQ(client->fault, "");
  }

  std::string Content(const std::string& name) const {
    std::ifstream in(first.Path("data/" + name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // The records of the table, from its bytes: 27 of them each, a mark, 20 of the code, 6 of the
  // amount.
  std::vector<Record> Table() const {
    const std::string bytes = Content("t.dbf");
    const auto number = [&](size_t at, int width) {
      size_t value = 0;
      for (int i = width; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<size_t>(i)]);
      return value;
    };
    const size_t count = number(4, 4), begin = number(8, 2);
    EXPECT_EQ(number(10, 2), 27u);
    EXPECT_GE(bytes.size(), begin + count * 27);
    std::vector<Record> records;
    for (size_t i = 0; i < count; i++) {
      const std::string record = bytes.substr(begin + i * 27, 27);
      Record read = {record.substr(1, 20), record.substr(21), record[0] == '*'};
      read.code.erase(read.code.find_last_not_of(' ') + 1);
      read.amount.erase(0, read.amount.find_first_not_of(' '));
      records.push_back(read);
    }
    return records;
  }

  // Whether the program finds no damage.
  bool IsWhole(const std::string& name, std::string* report = nullptr) {
    Command command({InBuild("bin/zpdbf"), "--check", first.Path("data/" + name)});
    const int status = command.Run();
    EXPECT_TRUE(status == 0 || status == 1) << command.errors;
    if (report) *report = command.output;
    return status == 0;
  }

  // The entries that the index of a table must have.
  static std::vector<ZIXIndexEntry> Entries(const std::string& index,
                                            const std::map<int, Record>& records) {
    std::vector<ZIXIndexEntry> entries;
    for (const auto& [number, record] : records)
      if (record.indexed)
        entries.emplace_back(index == kByCode ? record.code : record.amount,
                             static_cast<uint32_t>(number));
    std::sort(entries.begin(), entries.end());
    return entries;
  }

  long Operations() const {
    long all = 0;
    for (const auto& client : clients) all += client->operations;
    return all;
  }

  EngineProcess first;
  std::unique_ptr<EngineProcess> second;
  std::vector<std::unique_ptr<Client>> clients;
  std::set<int> unknown;  // records of clients that did not learn their numbers
};

TEST_F(DatabaseSharing, NoRecordIsLostAndNoNumberIsGivenTwice) {
  ASSERT_NO_FATAL_FAILURE(Work(TimeToWork(), false, true));
  const std::vector<Record> table = Table();
  std::map<int, Record> known;
  std::multiset<std::string> losers, found_losers;
  std::set<std::string> races;
  int races_won = 0;
  for (const auto& client : clients) {
    for (const auto& [number, record] : client->records) {
      EXPECT_TRUE(known.emplace(number, record).second) << "record " << number << " is there twice";
      ASSERT_LE(static_cast<size_t>(number), table.size());
      EXPECT_EQ(table[static_cast<size_t>(number) - 1].code, record.code);
      EXPECT_EQ(table[static_cast<size_t>(number) - 1].amount, record.amount);
      EXPECT_EQ(table[static_cast<size_t>(number) - 1].deleted, record.deleted);
    }
    for (const Record& loser : client->losers) {
      losers.insert(loser.code + " " + loser.amount);
      races.insert(loser.code);
    }
    races_won += client->races_won;
  }
  // All other records are of clients that came too late in a race.
  for (size_t i = 0; i < table.size(); i++)
    if (!known.contains(static_cast<int>(i) + 1))
      found_losers.insert(table[i].code + " " + table[i].amount);
  EXPECT_EQ(found_losers, losers);
  EXPECT_GE(races_won, static_cast<int>(races.size()));
  for (const char* name : {kByCode, kByAmount}) {
    SCOPED_TRACE(name);
    const std::string bytes = Content(name);
    ZIXIndexChecker checker(bytes);
    EXPECT_EQ(checker.Check(), "");
    std::sort(checker.entries.begin(), checker.entries.end());
    EXPECT_EQ(checker.entries, Entries(name, known));
    EXPECT_TRUE(IsWhole(name));
  }
  EXPECT_TRUE(IsWhole("t.dbf"));
  printf("%ld operations, %zu records, %zu late ones in %zu races\n", Operations(), table.size(),
         losers.size(), races.size());
}

// The check may miss nothing that is broken. What it calls whole has every entry of the records
// whose last change had an orderly end.
TEST_F(DatabaseSharing, WhatAClientWasToldOutlivesAKilledEngine) {
  std::mt19937 random{11};
  int broken = 0, incomplete = 0;
  for (int round = 1; round <= kKills; round++) {
    SCOPED_TRACE("kill " + std::to_string(round));
    const std::chrono::milliseconds time(30 + random() % 100);
    ASSERT_NO_FATAL_FAILURE(Work(time, true, false));
    second->Wait();
    EXPECT_TRUE(IsWhole("t.dbf"));
    std::map<int, Record> sure, all;
    std::set<std::string> doubtful_codes;
    const std::vector<Record> table = Table();
    for (size_t i = 0; i < table.size(); i++) all[static_cast<int>(i) + 1] = table[i];
    std::set<int> explained;
    for (const auto& client : clients) {
      for (const Doubtful& change : client->doubtful) {
        if (change.record == 0) {
          doubtful_codes.insert(change.wanted.code);
          continue;
        }
        Record& record = client->records.at(change.record);
        ASSERT_TRUE(all.contains(change.record));
        const Record& now = all.at(change.record);
        EXPECT_TRUE(now == record || now == change.wanted)
            << now.code << " " << record.code << " " << change.wanted.code;
        record = now;
        explained.insert(change.record);
      }
      for (const auto& [number, record] : client->records) {
        ASSERT_TRUE(all.contains(number)) << "record " << number << " is lost";
        EXPECT_EQ(all.at(number), record) << all.at(number).code << " " << record.code;
        if (explained.insert(number).second) sure[number] = record;
      }
    }
    for (const auto& [number, record] : all) {
      if (explained.contains(number) || unknown.contains(number)) continue;
      EXPECT_TRUE(doubtful_codes.contains(record.code)) << number << " " << record.code;
      unknown.insert(number);
    }

    bool rebuild = false;
    for (const char* name : {kByCode, kByAmount}) {
      SCOPED_TRACE(name);
      const std::string bytes = Content(name);
      ZIXIndexChecker checker(bytes);
      const std::string fault = checker.Check();
      std::string report;
      const bool whole = IsWhole(name, &report);
      broken += !whole;
      std::sort(checker.entries.begin(), checker.entries.end());
      if (whole) {
        EXPECT_EQ(fault, "") << report;
        const std::vector<ZIXIndexEntry> wanted = Entries(name, sure);
        EXPECT_TRUE(std::includes(checker.entries.begin(), checker.entries.end(), wanted.begin(),
                                  wanted.end()));
      }
      if (!whole || checker.entries != Entries(name, all)) rebuild = true;
    }
    incomplete += rebuild;
    if (rebuild) {
      ASSERT_EQ(first.Get("/reindex.zpc").Body(), "");
    }
    for (const char* name : {kByCode, kByAmount}) {
      const std::string bytes = Content(name);
      ZIXIndexChecker checker(bytes);
      EXPECT_EQ(checker.Check(), "");
      EXPECT_TRUE(IsWhole(name));
      std::sort(checker.entries.begin(), checker.entries.end());
      EXPECT_EQ(checker.entries, Entries(name, all));
    }
    for (const auto& client : clients) client->doubtful.clear();
    if (HasFailure()) return;
    StartSecond();
  }
  printf("%d kills, %ld operations, %zu records, %d broken indexes, %d rebuilds\n", kKills,
         Operations(), Table().size(), broken, incomplete);
}

}  // namespace
