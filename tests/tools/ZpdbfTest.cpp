// The command line of zpdbf: its arguments, its output on each stream, and its exit status.

#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/ProgramFixture.h"
#include "tests/support/TableOnDisk.h"

namespace {

using Lines = std::vector<std::string>;

class Zpdbf : public ProgramFixture {
 protected:
  Zpdbf() : ProgramFixture("zpdbf") {}
  void SetUp() override {
    TableOnDisk maker(directory);
    auto columns = ColumnList({{"NAME", XBaseField_Character, 6, 0}});
    ASSERT_TRUE(maker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
    ASSERT_TRUE(AppendRow(maker.table, {"Ann"}));
  }
};

TEST_F(Zpdbf, ShowsATableInTheFormThatIsAskedFor) {
  EXPECT_EQ(Run({"t.dbf"}), 0);
  EXPECT_EQ(output.rfind("table          t.dbf\n", 0), 0u);
  EXPECT_TRUE(output.ends_with("record 1\n  NAME  Ann\n"));
  EXPECT_EQ(Run({"--csv", "t.dbf"}), 0);
  EXPECT_EQ(output, "record,deleted,NAME\n1,0,Ann\n");
  EXPECT_EQ(Run({"t.dbf", "--header", "--csv"}), 0);
  EXPECT_EQ(output, "field,type,length,decimals\nNAME,C,6,0\n");
  EXPECT_EQ(Run({"--json", "t.dbf"}), 0);
  EXPECT_EQ(output.rfind("{\"table\": \"t.dbf\", ", 0), 0u);
  EXPECT_EQ(errors, "");
}

TEST_F(Zpdbf, ChecksATable) {
  EXPECT_EQ(Run({"--check", "t.dbf"}), 0);
  EXPECT_EQ(output, "ok: 1 records, 0 deleted, 0 memos\n");
  directory.File("t.dbf", directory.Content("t.dbf").substr(0, 70));
  EXPECT_EQ(Run({"--check", "t.dbf"}), 1);
  EXPECT_EQ(output, "problem: the file ends after 0 of 1 records\n1 problem\n");
}

TEST_F(Zpdbf, AFifoIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(directory.path("fifo").c_str(), 0600), 0);
  for (const Lines& arguments : {Lines{"fifo"}, Lines{"--check", "fifo"}}) {
    EXPECT_EQ(Run(arguments), 1);
    EXPECT_NE(output + errors, "");
  }
}

TEST_F(Zpdbf, AFileThatIsNotThereIsAFailure) {
  EXPECT_EQ(Run({"gone.dbf"}), 1);
  EXPECT_EQ(output, "");
  EXPECT_EQ(errors, "zpdbf: Error opening 'gone.dbf': No such file or directory\n");
  EXPECT_EQ(Run({"--check", "gone.dbf"}), 1);
  EXPECT_EQ(output, "problem: Error opening 'gone.dbf': No such file or directory\n");
}

TEST_F(Zpdbf, AFileThatIsTooShortHasThatAsItsReason) {
  const std::string whole = directory.Content("t.dbf");
  for (size_t length : {size_t{0}, size_t{20}}) {
    directory.File("short.dbf", whole.substr(0, length));
    EXPECT_EQ(Run({"short.dbf"}), 1);
    EXPECT_EQ(errors, "zpdbf: Error reading from 'short.dbf': the file is too short\n");
    EXPECT_EQ(Run({"--check", "short.dbf"}), 1);
    EXPECT_EQ(output, "problem: Error reading from 'short.dbf': the file is too short\n");
  }
  directory.File("short.dbf", whole.substr(0, whole.size() - 4));
  EXPECT_EQ(Run({"--csv", "short.dbf"}), 1);
  EXPECT_EQ(errors, "zpdbf: Error reading from 'short.dbf': the file is too short\n");
}

TEST_F(Zpdbf, AYearOfTwoDigitsIsOfThisCentury) {
  const struct {
    char year;
    const char* date;
  } rows[] = {{26, "2026-03-09"}, {79, "2079-03-09"}, {80, "1980-03-09"}, {126, "2026-03-09"}};
  std::string bytes = directory.Content("t.dbf");
  for (const auto& row : rows) {
    bytes[1] = row.year;
    bytes[2] = 3;
    bytes[3] = 9;
    directory.File("t.dbf", bytes);
    EXPECT_EQ(Run({"--header", "t.dbf"}), 0);
    EXPECT_NE(output.find("last update    " + std::string(row.date) + "\n"), std::string::npos)
        << output;
  }
}

TEST_F(Zpdbf, ShowsTheRecordsAndColumnsThatAreAskedFor) {
  TableOnDisk maker(directory);
  auto columns = ColumnList({{"NAME", XBaseField_Character, 6, 0},
                             {"AGE", XBaseField_Numeric, 3, 0},
                             {"CITY", XBaseField_Character, 6, 0}});
  ASSERT_TRUE(maker.table.Create(ZephPath_Data, "p.dbf", "", 0, *columns));
  ASSERT_TRUE(AppendRow(maker.table, {"Ann", "31", "Bonn"}));
  ASSERT_TRUE(AppendRow(maker.table, {"Bob", "32", "Kiel"}));
  ASSERT_TRUE(AppendRow(maker.table, {"Cid", "33", "Ulm"}));
  const struct {
    const char* range;
    const char* rows;
  } rows[] = {{"2", "2,0,Bob\n"},   {"2-", "2,0,Bob\n3,0,Cid\n"},  {"-2", "1,0,Ann\n2,0,Bob\n"},
              {"2-2", "2,0,Bob\n"}, {"3-2147483647", "3,0,Cid\n"}, {"4-9", ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.range);
    EXPECT_EQ(Run({"--csv", "--columns", "name", "--records", row.range, "p.dbf"}), 0);
    EXPECT_EQ(output, "record,deleted,NAME\n" + std::string(row.rows));
  }
  EXPECT_EQ(Run({"--columns", "CITY,AGE", "--csv", "p.dbf", "--records", "1"}), 0);
  EXPECT_EQ(output, "record,deleted,CITY,AGE\n1,0,Bonn,31\n");
  EXPECT_EQ(Run({"--columns", "AGE", "--records", "3", "p.dbf"}), 0);
  EXPECT_TRUE(output.ends_with("\nrecord 3\n  AGE  33\n")) << output;
  EXPECT_EQ(Run({"--json", "--columns", "AGE", "--records", "3", "p.dbf"}), 0);
  EXPECT_NE(output.find("{\"record\": 3, \"deleted\": false, \"values\": {\"AGE\": 33}}"),
            std::string::npos)
      << output;
  EXPECT_EQ(Run({"--columns", "AGE,PLACE", "p.dbf"}), 1);
  EXPECT_EQ(output, "");
  EXPECT_EQ(errors, "zpdbf: p.dbf has no field 'PLACE'\n");
}

TEST_F(Zpdbf, HelpAndVersionAreNoFailures) {
  for (const char* option : {"--help", "-h"}) {
    EXPECT_EQ(Run({option}), 0);
    EXPECT_EQ(output.rfind("usage: zpdbf ", 0), 0u);
  }
  EXPECT_EQ(Run({"t.dbf", "--version"}), 0);
  EXPECT_EQ(output.rfind("zpdbf ", 0), 0u);
}

TEST_F(Zpdbf, AWrongCommandLineIsToldWithItsReasonAndTheUsage) {
  const struct {
    Lines arguments;
    const char* reason;
  } rows[] = {
      {{}, "no file"},
      {{"--csv"}, "no file"},
      {{"--no", "t.dbf"}, "unknown option '--no'"},
      {{"t.dbf", "u.dbf"}, "one file at a time, found 'u.dbf' after 't.dbf'"},
      {{""}, "an empty name of a file"},
      {{"--csv", "--json", "t.dbf"}, "--csv and --json exclude each other"},
      {{"--check", "--csv", "t.dbf"}, "--check looks at the whole file and has one form"},
      {{"--check", "--header", "t.dbf"}, "--check looks at the whole file and has one form"},
      {{"--check", "--records", "1", "t.dbf"}, "--check looks at the whole file and has one form"},
      {{"--header", "--columns", "NAME", "t.dbf"}, "--header shows no records to choose from"},
      {{"t.dbf", "--records"}, "--records needs numbers of records as FROM-TO"},
      {{"--records", "0", "t.dbf"}, "--records needs numbers of records as FROM-TO, found '0'"},
      {{"--records", "3-2", "t.dbf"}, "--records needs numbers of records as FROM-TO, found '3-2'"},
      {{"--records", "-", "t.dbf"}, "--records needs numbers of records as FROM-TO, found '-'"},
      {{"--records", "1-2-3", "t.dbf"},
       "--records needs numbers of records as FROM-TO, found '1-2-3'"},
      {{"--records", "99999999999", "t.dbf"},
       "--records needs numbers of records as FROM-TO, found '99999999999'"},
      {{"--columns", "A,,B", "t.dbf"},
       "--columns needs names of fields with commas between them, found 'A,,B'"},
      {{"t.dbf", "--columns"}, "--columns needs names of fields with commas between them"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    EXPECT_EQ(Run(row.arguments), 2);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errors.rfind("zpdbf: " + std::string(row.reason) + "\nusage: zpdbf ", 0), 0u)
        << errors;
  }
}

TEST_F(Zpdbf, OutputThatCannotBeWrittenIsAFailure) {
  Command command({InBuild("bin/zpdbf"), directory.path("t.dbf")});
  command.output_file = "/dev/full";
  EXPECT_EQ(command.Run(), 1);
}

}  // namespace
