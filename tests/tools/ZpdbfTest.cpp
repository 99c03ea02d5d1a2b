// The command line of zpdbf: its arguments, its output on each stream, and its exit status.

#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TableOnDisk.h"

namespace {

using Lines = std::vector<std::string>;

class Zpdbf : public ::testing::Test {
 protected:
  void SetUp() override {
    TableOnDisk maker(directory);
    auto columns = ColumnList({{"NAME", XBaseField_Character, 6, 0}});
    ASSERT_TRUE(maker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
    ASSERT_TRUE(AppendRow(maker.table, {"Ann"}));
  }

  int Run(Lines arguments) {
    arguments.insert(arguments.begin(), InBuild("bin/zpdbf"));
    Command command(arguments);
    command.directory = directory.path();
    const int status = command.Run();
    output = command.output;
    errors = command.errors;
    return status;
  }

  TemporaryDirectory directory;
  std::string output, errors;
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
  EXPECT_EQ(output, "problem: the file ends behind 0 of 1 records\n1 problem\n");
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

TEST_F(Zpdbf, HelpIsNoFailure) {
  for (const char* option : {"--help", "-h"}) {
    EXPECT_EQ(Run({option}), 0);
    EXPECT_EQ(output.rfind("usage: zpdbf ", 0), 0u);
  }
}

TEST_F(Zpdbf, AWrongCommandLineIsToldWithTheUsage) {
  for (const Lines& arguments :
       {Lines{}, Lines{"--csv"}, Lines{"--no", "t.dbf"}, Lines{"t.dbf", "t.dbf"}, Lines{""},
        Lines{"--csv", "--json", "t.dbf"}, Lines{"--check", "--csv", "t.dbf"},
        Lines{"--check", "--header", "t.dbf"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    EXPECT_EQ(Run(arguments), 2);
    EXPECT_EQ(output, "");
    EXPECT_NE(errors.find("usage: zpdbf "), std::string::npos);
  }
}

TEST_F(Zpdbf, OutputThatCannotBeWrittenIsAFailure) {
  Command command({InBuild("bin/zpdbf"), directory.path("t.dbf")});
  command.output_file = "/dev/full";
  EXPECT_EQ(command.Run(), 1);
}

}  // namespace
