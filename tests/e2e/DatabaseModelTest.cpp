// Scripts work on a table with two indexes, thousands of operations one after the other, and after
// each of them every variable must be what the model says. ZEPH_DATABASE_SEED sets another course.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/DatabaseModel.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/Paths.h"
#include "tests/support/ZIXIndexChecker.h"

namespace {

using testing::HasSubstr;

constexpr bool kSlowBuild = kAddressSanitizer || kThreadSanitizer;
constexpr int kOperations = kSlowBuild ? 2000 : 10000;
constexpr int kOperationsOfAScript = 500;
const char kByCode[] = "code.zix", kByAmount[] = "amount.zix";

using Paths = std::vector<std::string>;
using Lines = std::vector<std::string>;

std::string Joined(const Paths& paths) {
  std::string text;
  for (const std::string& path : paths) text += (text.empty() ? "" : ",") + path;
  return text;
}

Lines Split(const std::string& text, char end) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line, end);) lines.push_back(line);
  return lines;
}

unsigned Seed() {
  const char* given = getenv("ZEPH_DATABASE_SEED");
  return given ? static_cast<unsigned>(atoi(given)) : 4711;
}

// --- The scripts ---------------------------------------------------------------------------------

std::string SilentErrors() {
  std::string code;
  for (int tag = 28; tag <= 47; tag++) code += "tagerror " + std::to_string(tag) + ", 0\n";
  return code;
}

std::string MakingScript() {
  return CreateDatabase("t", "t.dbf", DatabaseModel::kSpecification) +
         Op("dbmakeindex", {"t", kByCode, "d.code", "unique, string, range"}) +
         Op("dbmakeindex", {"t", kByAmount, "d.amount", "descending"}) +
         SetField("t", "code", "k") + SetField("t", "amount", "1") +
         SetField("t", "day", "20260101") + SetField("t", "paid", "1") +
         SetField("t", "note", "the first") + OnView("dbadd", "t");
}

// Reads operations from a file, one a line, and writes a line of all variables after each. The
// first line is that of the table as it is opened.
std::string WorkingScript() {
  const std::string on_view = Push("t") + Push("");
  const struct {
    const char* name;
    std::string code;
  } operations[] = {
      {"set", "pushg b\n" + Push("") + "cat\n" + Push("t") + "pushg a\npopd\n"},
      {"setv", "pushg b\n" + Push("t") + "pushg a\npopd\n"},
      {"add", OnView("dbadd", "t")},
      {"update", OnView("dbupdate", "t")},
      {"delete", OnView("dbdelete", "t")},
      {"undelete", OnView("dbundelete", "t")},
      {"skip", on_view + "pushg a\ndbskip\n"},
      {"go", on_view + "pushg a\ndbgo\n"},
      {"find", on_view + "pushg a\npushg b\ndbfind\n"},
      {"filter", on_view + "pushg a\ndbfilter\n"},
      {"setindex", on_view + "pushg a\ndbsetindex\n"},
      {"primary", on_view + "pushg a\ndbprimary\n"},
      {"pack", Push("t") + "dbpack\n"},
      {"reindex", Push("t") + "dbreindex\n"},
  };
  std::string code = SilentErrors() + Push("t") + Push("t.dbf") + "pushg indexes\n" + Push("") +
                     Push("") + Push("") + "dbopen\ncall show\npop\n" + Push("operations.txt") +
                     Push("\t") + Push("op,a,b") + "import end\nbody:\n";
  for (const auto& operation : operations)
    code += "pushg op\n" + Push(operation.name) + "eq\njmp_ne do_" + operation.name + "\n";
  code += Push("unknown operation") + "out\nexit\n";
  for (const auto& operation : operations)
    code += "do_" + std::string(operation.name) + ":\n" + operation.code + "jmp shown\n";
  code += "shown: call show\npop\nimport_loop body\nend: exit\n.function show()\n";
  for (const char* name :
       {"code", "amount", "day", "paid", "note", "recno", "totrec", "deleted", "eof"})
    code += Show("t", name);
  for (const std::string& tag : DatabaseModel::Tags()) code += ShowGlobal("Zp" + tag + "_Error");
  return code + Push("\n") + "out\nretn\n.end\n" + ".function big()\n" +
         Op("pushd", {"t", "amount"}) + "pushi 30\ngt\nret\n.end\n";
}

// --- Random operations ---------------------------------------------------------------------------

// Chooses operations, lets the model do them, and notes what the script must write.
class RandomOperations {
 public:
  explicit RandomOperations(DatabaseModel* model) : model(*model) {}

  // Plays a script of at least so many operations.
  void Play(int operations) {
    file.clear();
    expected = {model.State()};
    while (static_cast<int>(expected.size()) <= operations) One();
  }

  // Removes the records whose keys would not be unique, and makes the others fit for programs that
  // check what they read.
  void PackAll() {
    file.clear();
    expected = {model.State()};
    SetIndexes({kByCode, kByAmount});
    for (int record = 1; record <= Records(); record++) MendRecord(record);
    MarkDuplicates();
    Pack();
    Reindex();
    Go(DatabaseModel::kTop);
    while (!model.eof()) Skip(1);
  }

  std::string file;  // of the operations
  Lines expected;    // one line each, and one before them

 private:
  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  template <class T>
  const T& OneOf(const std::vector<T>& choices) {
    return choices[random() % choices.size()];
  }
  int Records() const { return static_cast<int>(model.rows.size()); }

  void Note(const std::string& op, const std::string& a = "", const std::string& b = "") {
    file += op + "\t" + a + "\t" + b + "\n";
    expected.push_back(model.State());
  }

  std::string RandomCode() {
    if (Below(6) == 0) return OneOf(model.rows).values[DatabaseModel::Code];
    static const std::vector<std::string> beginnings = {"k", "K",    "",  "0",       "long",
                                                        " ", "a b ", "-", "\xc3\xa4"};
    return OneOf(beginnings) + std::to_string(Below(4000)) + (Below(9) ? "" : " ");
  }
  std::string RandomAmount() {
    static const std::vector<std::string> odd = {
        "", "abc", "1.2.3", "-", ".5", "-0.25", "3.", "123456.78", "99999.999", "-1234.5"};
    if (Below(8) == 0) return OneOf(odd);
    std::string text = std::to_string(Below(120) - 10);
    if (Below(2)) text += "." + std::to_string(Below(1000));
    return text;
  }
  std::string RandomDay() {
    static const std::vector<std::string> odd = {"",         "20261301", "20260132", "2026",
                                                 "2026 1 1", "00000000", "20260101x"};
    if (Below(3) == 0) return OneOf(odd);
    return std::to_string(20260000 + 100 * (1 + Below(12)) + 1 + Below(28));
  }
  std::string RandomNote() {
    static const std::vector<int> lengths = {0, 1, 20, 80, 509, 510, 511, 512, 700};
    const int length = OneOf(lengths);
    return std::string(static_cast<size_t>(length), static_cast<char>('a' + Below(26)));
  }

  void SetOne() {
    const int field = Below(DatabaseModel::kFields);
    static const std::vector<std::string> truths = {"", "0", "0.0", "1", "x", "00", "."};
    const std::string value = field == DatabaseModel::Code     ? RandomCode()
                              : field == DatabaseModel::Amount ? RandomAmount()
                              : field == DatabaseModel::Day    ? RandomDay()
                              : field == DatabaseModel::Paid   ? OneOf(truths)
                                                               : RandomNote();
    // A variable with such a text has another number on each machine.
    if (field != DatabaseModel::Amount || value != "1.2.3") {
      if (Below(4) == 0) {
        model.SetFromVariable(field, value);
        Note("setv", DatabaseModel::Name(field), value);
        return;
      }
    }
    model.Set(field, value);
    Note("set", DatabaseModel::Name(field), value);
  }
  void SetCode() {
    const std::string value = RandomCode();
    model.Set(DatabaseModel::Code, value);
    Note("set", "code", value);
  }

  void Go(int position) {
    model.Go(position);
    Note("go", position == DatabaseModel::kTop      ? "top"
               : position == DatabaseModel::kBottom ? "Bottom"
                                                    : std::to_string(position));
  }
  void Skip(int count) {
    model.Skip(count);
    Note("skip", std::to_string(count));
  }
  void Mark(bool deleted) {
    model.Delete(deleted);
    Note(deleted ? "delete" : "undelete");
  }
  void SetIndexes(const Paths& paths) {
    model.SetIndexes(paths);
    Note("setindex", Joined(paths));
  }
  void Reindex() {
    model.Reindex();
    Note("reindex");
  }

  // Without an entry in an index that is not open, because a pack would give its numbers to other
  // records.
  void Pack() {
    if (model.open_indexes().size() < 2) SetIndexes({kByAmount, kByCode});
    if (std::all_of(model.rows.begin(), model.rows.end(),
                    [](const auto& row) { return row.deleted; }))
      Mark(false);
    model.Pack();
    Note("pack");
  }
  void MarkDuplicates() {
    std::set<std::string> codes;
    for (int record = 1; record <= Records(); record++) {
      const DatabaseModel::Row row = model.rows[static_cast<size_t>(record) - 1];
      if (row.deleted || codes.insert(row.values[DatabaseModel::Code]).second) continue;
      Go(record);
      Mark(true);
    }
  }

  void MendRecord(int record) {
    const DatabaseModel::Values values = model.rows[static_cast<size_t>(record) - 1].values;
    const std::string& code = values[DatabaseModel::Code];
    Go(record);
    if (std::any_of(code.begin(), code.end(), [](unsigned char c) { return c > 127; })) Mark(true);
    const std::string& day = values[DatabaseModel::Day];
    if (day.find_first_not_of("0123456789") == std::string::npos && day < "20261229" &&
        day > "20260000" && day.substr(6) <= "28" && day.substr(6) > "00")
      return;
    model.Set(DatabaseModel::Day, "20260228");
    Note("set", "day", "20260228");
    model.Update();
    Note("update");
  }

  void Find() {
    const bool by_code = !model.open_indexes().empty() && model.open_indexes()[0] == kByCode;
    std::string key = by_code ? RandomCode() : RandomAmount();
    if (Below(2)) {
      const auto& values = OneOf(model.rows).values;
      key = values[by_code ? DatabaseModel::Code : DatabaseModel::Amount];
    }
    // Among numbers the beginnings of texts are in no order.
    const bool exact = !by_code || Below(2);
    if (!exact) key = key.substr(0, static_cast<size_t>(1 + Below(3)));
    model.Find(key, exact);
    Note("find", key, exact ? "1" : "0");
  }

  void Filter() {
    static const std::vector<std::pair<const char*, DatabaseModel::Filter>> filters = {
        {"not d.deleted", [](DatabaseModel& m) { return m.deleted() == 0; }},
        {"d.amount gt 50", [](DatabaseModel& m) { return m.Number() > 50; }},
        {"big()", [](DatabaseModel& m) { return m.Number() > 30; }},
        {"d.paid", [](DatabaseModel& m) { return m.Value(DatabaseModel::Paid) == "1"; }},
        {"d.recno lt 0", [](DatabaseModel& m) { return m.recno() < 0; }},
        {" ", nullptr},
        {"", nullptr},
        {"", nullptr},
    };
    if (Below(10) == 0) {
      model.RefuseFilter("Syntax error in filter: ");
      Note("filter", "d.amount gt gt");
      return;
    }
    const auto& [text, filter] = OneOf(filters);
    model.SetFilter(filter);
    Note("filter", text);
  }

  void One() {
    const int kind = Below(1000);
    if (kind < 120) {
      if (Below(10) > 0) SetCode();
      for (int i = Below(3); i > 0; i--) SetOne();
      model.Add();
      Note("add");
    } else if (kind < 260) {
      if (Below(3) == 0) SetCode();
      for (int i = Below(3); i > 0; i--) SetOne();
      model.Update();
      Note("update");
    } else if (kind < 340) {
      Mark(Below(3) > 0);
    } else if (kind < 560) {
      if (!model.IsCursorKnown()) Go(Below(2) ? DatabaseModel::kTop : DatabaseModel::kBottom);
      // The move may have ended in a search of its own.
      if (model.IsCursorKnown()) Skip(Below(5) ? Below(3) - 1 : Below(41) - 20);
    } else if (kind < 680) {
      Go(Below(3) ? Below(Records() + 3) : Below(2) ? DatabaseModel::kTop : DatabaseModel::kBottom);
    } else if (kind < 850) {
      Find();
    } else if (kind < 900) {
      Filter();
    } else if (kind < 920) {
      static const std::vector<Paths> lists = {
          {kByCode, kByAmount}, {kByAmount, kByCode}, {kByCode}, {kByAmount}, {}};
      SetIndexes(OneOf(lists));
    } else if (kind < 950) {
      const std::string path = Below(8) ? (Below(2) ? kByCode : kByAmount) : "none.zix";
      model.SetPrimaryIndex(path);
      Note("primary", path);
    } else if (kind < 960) {
      if (Below(3)) MarkDuplicates();
      Pack();
    } else if (kind < 966) {
      Reindex();
    } else {
      SetOne();
    }
  }

  DatabaseModel& model;
  std::mt19937 random{Seed()};
};

// --- The comparison ------------------------------------------------------------------------------

class DatabaseModelTest : public testing::Test {
 protected:
  void SetUp() override {
    engine.settings = "timeout_global = 0\n";
    engine.Script("make.zpc", MakingScript());
    engine.Script("work.zpc", WorkingScript());
    ASSERT_TRUE(engine.Start());
    EXPECT_EQ(engine.Get("/make.zpc").Body(), "");
    model.rows.push_back({{"k", "1.00", "20260101", "T", "the first"}, false});
    model.files[kByCode] = {DatabaseModel::Code, true, false, true, true, {{"k", 1}}};
    model.files[kByAmount] = {DatabaseModel::Amount, false, true, false, false, {{"1.00", 1}}};
  }

  // The name of a temporary file and the words of the compiler are not the model's.
  static std::string WithoutForeignText(const std::string& line) {
    Lines parts = Split(line, '|');
    for (std::string& part : parts) {
      const size_t end = part.find("' was created");
      if (part.rfind("Index '", 0) == 0 && end != std::string::npos) {
        const std::string path = part.substr(7, end - 7);
        if (path != kByCode && path != kByAmount) part.erase(7, end - 7);
      }
      if (part.rfind("Syntax error in filter: ", 0) == 0) part.resize(24);
    }
    std::string joined;
    for (const std::string& part : parts) joined += part + "|";
    return joined;
  }

  void Compare(const Paths& indexes, const RandomOperations& operations) {
    engine.Write("data/operations.txt", operations.file);
    const Lines seen = Split(
        engine.Get("/work.zpc", {{"QUERY_STRING", "indexes=" + Joined(indexes)}}).Body(), '\n');
    const Lines done = Split(operations.file, '\n');
    for (size_t i = 0; i < operations.expected.size(); i++) {
      ASSERT_LT(i, seen.size()) << seen.back();
      ASSERT_EQ(WithoutForeignText(operations.expected[i]), WithoutForeignText(seen[i]))
          << "operation " << i << " of " << Joined(indexes) << ": " << (i ? done[i - 1] : "open")
          << "\nafter " << (i > 1 ? done[i - 2] : "") << "\nfrom " << (i ? seen[i - 1] : "");
    }
    EXPECT_EQ(seen.size(), operations.expected.size());
    for (const auto& [path, index] : model.files) ProveIndex(path, index);
  }

  void ProveIndex(const std::string& path, const DatabaseModel::Index& index) {
    SCOPED_TRACE(path);
    const std::string bytes = Content(path);
    ZIXIndexChecker checker(bytes);
    ASSERT_EQ(checker.Check(), "");
    std::vector<ZIXIndexEntry> entries;
    for (const auto& entry : index.entries)
      entries.emplace_back(entry.key, static_cast<uint32_t>(entry.record));
    ASSERT_EQ(checker.entries, entries);
  }

  std::string Content(const std::string& name) const {
    std::ifstream in(engine.Path("data/" + name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // What a program of another maker reads, in the lines of tests/support/xbase.
  Lines ReadBy(const std::string& script) {
    Command command(
        {"/usr/bin/python3", InSource("tests/support/xbase/") + script, engine.Path("data/t.dbf")});
    command.environment["PYTHONDONTWRITEBYTECODE"] = "1";
    command.environment["LC_ALL"] = "C.UTF-8";
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return Split(command.output, '\n');
  }

  static std::string AsOthersRead(const DatabaseModel::Values& values) {
    char amount[32];
    snprintf(amount, sizeof amount, "%.2f", atof(values[DatabaseModel::Amount].c_str()));
    const std::string& note = values[DatabaseModel::Note];
    return "|" + values[DatabaseModel::Code] + "|" + amount + "|" + values[DatabaseModel::Day] +
           "|" + values[DatabaseModel::Paid] + "|" + std::to_string(note.size()) + "|" +
           note.substr(0, 12);
  }

  std::string Checked(const std::string& name) {
    Command command({InBuild("bin/zpdbf"), "--check", engine.Path("data/" + name)});
    EXPECT_EQ(command.Run(), 0) << command.output;
    return command.output;
  }

  EngineProcess engine;
  DatabaseModel model;
};

TEST_F(DatabaseModelTest, EveryVariableIsWhatTheModelSaysAfterEveryOperation) {
  RandomOperations operations(&model);
  const Paths both[] = {{kByCode, kByAmount}, {kByAmount, kByCode}};
  int done = 0;
  for (int script = 0; done < kOperations; script++) {
    const Paths& indexes = both[script % 2];
    model.Open(indexes);
    operations.Play(kOperationsOfAScript);
    ASSERT_NO_FATAL_FAILURE(Compare(indexes, operations));
    done += static_cast<int>(operations.expected.size()) - 1;
  }
  EXPECT_GT(model.rows.size(), 20u);

  model.Open(both[0]);
  operations.PackAll();
  ASSERT_NO_FATAL_FAILURE(Compare(both[0], operations));
  EXPECT_EQ(model.errors["PACK"] + model.errors["REINDEX"], "");
  for (const char* name : {kByCode, kByAmount, "t.dbf"})
    EXPECT_THAT(Checked(name), HasSubstr("ok: "));
  RecordProperty("operations", done);
}

}  // namespace
