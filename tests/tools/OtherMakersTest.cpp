// Tables shared with other programs: they read ours, we read and change theirs, and they read their
// own again. Each program runs once in each test, because calc takes seconds to start.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TableOnDisk.h"

namespace {

using Lines = std::vector<std::string>;

struct Row {
  Lines values;
  bool deleted;
};

const std::vector<Row>& OurRows() {
  static const std::vector<Row> rows = {
      {{"Ann", "12.50", "20240131", "T", "first memo\nline two"}, false},
      {{"Bob", "-3.00", "20231231", "F", std::string(600, 'x')}, true},
      {{"Cid", "", "", "", ""}, false},
      {{"Dan", "1", "", "", std::string(510, 'y')}, false},
      {{"Eve", "1", "", "", std::string(511, 'z')}, false},
      {{"Fay", "1", "", "", std::string(512, 'w')}, false},
  };
  return rows;
}

Lines Split(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

class OtherMakers : public ::testing::Test {
 protected:
  // Runs a script of tests/support/xbase with the system's interpreter, because its modules come
  // from packages.
  std::string Script(const std::string& name, const std::string& table) {
    const bool perl = name.ends_with(".pl");
    return Run({perl ? "/usr/bin/perl" : "/usr/bin/python3",
                InSource("tests/support/xbase/") + name, directory.path(table)});
  }

  std::string Run(const Lines& arguments) {
    Command command(arguments);
    command.directory = directory.path();
    command.environment["PYTHONDONTWRITEBYTECODE"] = "1";
    command.environment["LC_ALL"] = "C.UTF-8";
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return command.output;
  }

  void MakeOurs(const std::string& name) {
    TableOnDisk ours(directory);
    auto columns = ColumnList(AllTypes());
    ASSERT_TRUE(ours.table.Create(ZephPath_Data, name.c_str(), "", 0, *columns));
    for (const Row& row : OurRows()) {
      ASSERT_TRUE(AppendRow(ours.table, row.values));
      if (row.deleted) {
        ASSERT_TRUE(ours.table.UpdateDeleted(1));
      }
    }
  }

  // One line for each record, in the format of the scripts.
  Lines Read(const std::string& name) {
    TableOnDisk reader(directory);
    EXPECT_TRUE(reader.table.Open(ZephPath_Data, name.c_str(), -1, FileMode_Read))
        << ErrorOf(reader.table);
    Lines lines;
    for (int record = 1; record <= reader.table.record_count(); record++) {
      EXPECT_TRUE(reader.table.Goto(record)) << ErrorOf(reader.table);
      lines.push_back(Line(reader.table));
    }
    return lines;
  }

  // Adds a memo for Ann, one for Cid who had none, and a record.
  void Change(const std::string& name) {
    TableOnDisk changer(directory);
    XBaseTable& table = changer.table;
    ASSERT_TRUE(table.Open(ZephPath_Data, name.c_str(), -1, kOpenTable)) << ErrorOf(table);
    ASSERT_TRUE(table.Goto(1));
    SetField(table, 1, "99.99");
    SetField(table, 4, "changed by us");
    ASSERT_TRUE(table.Update()) << ErrorOf(table);
    ASSERT_TRUE(table.Goto(3));
    SetField(table, 4, std::string(1000, 'c'));
    ASSERT_TRUE(table.Update()) << ErrorOf(table);
    ASSERT_TRUE(AppendRow(table, {"Gil", "7.25", "20250228", "T", std::string(700, 'g')}))
        << ErrorOf(table);
  }
  static Lines Changed(Lines lines) {
    const size_t paid = lines[0].rfind("|T|");
    lines[0] = "|Ann|99.99|20240131" + lines[0].substr(paid, 3) + "13|changed by u";
    lines[2] = lines[2].substr(0, lines[2].size() - 2) + "1000|cccccccccccc";
    lines.push_back("|Gil|7.25|20250228|T|700|gggggggggggg");
    return lines;
  }

  // dbfread has the deleted records in a list of their own.
  static Lines DeletedLast(Lines lines) {
    std::stable_partition(lines.begin(), lines.end(),
                          [](const std::string& line) { return line[0] != '*'; });
    return lines;
  }

  TemporaryDirectory directory;

 private:
  static std::string Line(XBaseTable& table) {
    const auto trimmed = [](std::string text) {
      text.erase(text.find_last_not_of(' ') + 1);
      return text;
    };
    std::string amount = ValueOf(table, 1);
    if (!trimmed(amount).empty()) {
      char text[32];
      snprintf(text, sizeof(text), "%.2f", std::stod(amount));
      amount = text;
    }
    // For an unknown day some programs have blanks or a question mark, others a number.
    std::string day = ValueOf(table, 2);
    if (day.find(' ') != std::string::npos) day = "";
    std::string paid = trimmed(ValueOf(table, 3));
    if (paid == "?") paid = "";
    if (paid == "Y") paid = "T";
    if (paid == "N") paid = "F";
    std::string memo = ValueOf(table, 4);
    std::replace(memo.begin(), memo.end(), '\n', '/');
    return std::string(table.deleted() ? "*" : "") + "|" + ValueOf(table, 0) + "|" +
           trimmed(amount) + "|" + day + "|" + paid + "|" + std::to_string(memo.size()) + "|" +
           memo.substr(0, 12);
  }
};

const Lines kOurs = {"|Ann|12.50|20240131|T|19|first memo/l",
                     "*|Bob|-3.00|20231231|F|600|xxxxxxxxxxxx",
                     "|Cid||||0|",
                     "|Dan|1.00|||510|yyyyyyyyyyyy",
                     "|Eve|1.00|||511|zzzzzzzzzzzz",
                     "|Fay|1.00|||512|wwwwwwwwwwww"};

TEST_F(OtherMakers, DbfreadReadsOurs) {
  MakeOurs("t.dbf");
  EXPECT_EQ(Read("t.dbf"), kOurs);
  EXPECT_EQ(Split(Script("dbfread_read.py", "t.dbf")), DeletedLast(kOurs));
}

TEST_F(OtherMakers, PythonDbfReadsOurs) {
  MakeOurs("t.dbf");
  EXPECT_EQ(Split(Script("dbf_read.py", "t.dbf")), kOurs);
}

// DBD::XBase does not see the end of a memo if the first end mark is the last byte of a block and
// the second is the first byte of the next: a memo of 511 bytes comes out longer.
TEST_F(OtherMakers, DBDXBaseReadsOursButForMemosOf511Modulo512) {
  MakeOurs("t.dbf");
  Lines lines = Split(Script("xbase_read.pl", "t.dbf"));
  ASSERT_EQ(lines.size(), kOurs.size());
  EXPECT_NE(lines[4], kOurs[4]);
  EXPECT_EQ(lines[4].rfind("|Eve|1.00|||", 0), 0u);
  lines[4] = kOurs[4];
  EXPECT_EQ(lines, kOurs);
}

// pgdbf leaves deleted records out and reads an unknown logical as false.
TEST_F(OtherMakers, PgdbfReadsOurs) {
  MakeOurs("t.dbf");
  const Lines all = Split(Run({"/usr/bin/pgdbf", "-m", directory.path("t.dbt"), "t.dbf"}));
  const auto first = std::find(all.begin(), all.end(), "\\COPY t FROM STDIN");
  ASSERT_NE(first, all.end());
  const Lines rows(first + 1, std::find(first, all.end(), "\\."));
  EXPECT_EQ(rows, (Lines{"Ann\t12.50\t2024-01-31\tt\tfirst memo\\nline two", "Cid\t\\N\t\\N\tf\t",
                         "Dan\t1\t\\N\tf\t" + std::string(510, 'y'),
                         "Eve\t1\t\\N\tf\t" + std::string(511, 'z'),
                         "Fay\t1\t\\N\tf\t" + std::string(512, 'w')}));
}

TEST_F(OtherMakers, AnEmptyTableIsReadByAll) {
  TableOnDisk ours(directory);
  auto columns = ColumnList(AllTypes());
  ASSERT_TRUE(ours.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  for (const char* script : {"dbfread_read.py", "dbf_read.py", "xbase_read.pl"})
    EXPECT_EQ(Script(script, "t.dbf"), "") << script;
}

TEST_F(OtherMakers, PythonDbfsTablesAreReadAndChanged) {
  Script("dbf_make.py", "t.dbf");
  const Lines made = {kOurs[0], kOurs[1], kOurs[2], "|Eve|1.00||T|511|zzzzzzzzzzzz"};
  EXPECT_EQ(Read("t.dbf"), made);
  Change("t.dbf");
  const Lines changed = Changed(made);
  EXPECT_EQ(Read("t.dbf"), changed);
  EXPECT_EQ(Split(Script("dbf_read.py", "t.dbf")), changed);
  EXPECT_EQ(Split(Script("dbfread_read.py", "t.dbf")), DeletedLast(changed));
}

TEST_F(OtherMakers, DBDXBasesTablesAreReadAndChanged) {
  Script("xbase_make.pl", "t.dbf");
  const Lines made = {kOurs[0], kOurs[1], kOurs[2], "|Eve|1.00||T|512|zzzzzzzzzzzz"};
  EXPECT_EQ(Read("t.dbf"), made);
  Change("t.dbf");
  const Lines changed = Changed(made);
  EXPECT_EQ(Read("t.dbf"), changed);
  EXPECT_EQ(Split(Script("xbase_read.pl", "t.dbf")), changed);
  EXPECT_EQ(Split(Script("dbfread_read.py", "t.dbf")), DeletedLast(changed));
}

class SlowOtherMakers : public OtherMakers {
 protected:
  void Convert(const std::string& format, const Lines& names) {
    Lines arguments = {"/usr/bin/soffice",
                       "-env:UserInstallation=file://" + directory.path("profile"),
                       "--headless",
                       "--convert-to",
                       format,
                       "--outdir",
                       directory.path("converted")};
    for (const std::string& name : names) arguments.push_back(directory.path(name));
    Run(arguments);
  }
};

TEST_F(SlowOtherMakers, CalcReadsOursAndItsOwnThatWeChanged) {
  MakeOurs("ours.dbf");
  directory.File("theirs.csv",
                 "\"NAME,C,10\",\"AMOUNT,N,8,2\",\"DAY,D\",\"PAID,L\",\"NOTE,M\"\n"
                 "Ann,12.5,2024-01-31,1,first memo\n"
                 "Bob,-3,2023-12-31,0," +
                     std::string(600, 'x') + "\nCid,,,,\nEve,1,,1," + std::string(511, 'z') + "\n");
  Convert("dbf", {"theirs.csv"});
  // A cell without a value becomes 0 or false.
  const Lines made = {"|Ann|12.50|20240131|T|10|first memo",
                      "|Bob|-3.00|20231231|F|600|xxxxxxxxxxxx", "|Cid|0.00||F|0|",
                      "|Eve|1.00||T|511|zzzzzzzzzzzz"};
  EXPECT_EQ(Read("converted/theirs.dbf"), made);
  Change("converted/theirs.dbf");
  EXPECT_EQ(Read("converted/theirs.dbf"), Changed(made));

  directory.File("theirs.dbf", directory.Content("converted/theirs.dbf"));
  directory.File("theirs.dbt", directory.Content("converted/theirs.dbt"));
  Convert("csv", {"ours.dbf", "theirs.dbf"});
  const std::string head = "\"NAME,C,10\",\"AMOUNT,N,8,2\",\"DAY,D\",\"PAID,L\",\"NOTE,M\"\n";
  // Deleted records are left out.
  EXPECT_EQ(directory.Content("converted/ours.csv"),
            head + "Ann,12.5,01/31/2024,TRUE,\"first memo\nline two\"\nCid,,,,\nDan,1,,," +
                std::string(510, 'y') + "\nEve,1,,," + std::string(511, 'z') + "\nFay,1,,," +
                std::string(512, 'w') + "\n");
  EXPECT_EQ(directory.Content("converted/theirs.csv"),
            head + "Ann,99.99,01/31/2024,TRUE,changed by us\nBob,-3,12/31/2023,FALSE," +
                std::string(600, 'x') + "\nCid,0,,FALSE," + std::string(1000, 'c') +
                "\nEve,1,,TRUE," + std::string(511, 'z') + "\nGil,7.25,02/28/2025,TRUE," +
                std::string(700, 'g') + "\n");
}

}  // namespace
