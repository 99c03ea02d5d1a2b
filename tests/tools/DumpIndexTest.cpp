// Claims about tools/DumpIndex.h: an index file as text, CSV and JSON, and what its check finds.

#include "tools/DumpIndex.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ZIXIndexOperations.h"

namespace {

class DumpIndexTest : public testing::Test {
 protected:
  // Two leaves under a root, the keys "a" to "i" with records 1 to 9.
  void SetUp() override {
    DumpApplication application;
    ZIXIndexFile index(&application);
    ASSERT_TRUE(index.Create(ZephPath_Data, path().c_str(), KeyBytes("name"),
                             ZIXIndex_Text | ZIXIndex_Unique));
    for (unsigned i = 0; i < 9; i++)
      ASSERT_TRUE(Insert(index, std::string(1, static_cast<char>('a' + i)), i + 1));
  }

  std::string path() { return directory.path("i.zix"); }
  int Show(DumpForm form, bool header_only = false) {
    return Call(ShowIndex, {path(), form, header_only});
  }
  int Check() { return Call(CheckIndex, {path(), DumpForm::Text, false}); }
  int Call(int (*half)(const DumpRequest&, std::ostream&, std::ostream&),
           const DumpRequest& request) {
    std::ostringstream out, failures;
    const int status = half(request, out, failures);
    output = out.str();
    errors = failures.str();
    return status;
  }
  // Checks the file with some bytes replaced, and restores it.
  std::string CheckWith(size_t at, const std::string& patch) {
    const std::string whole = directory.Content("i.zix");
    std::string damaged = whole;
    damaged.replace(at, patch.size(), patch);
    directory.File("i.zix", damaged);
    EXPECT_EQ(dump_failed, Check());
    directory.File("i.zix", whole);
    return output + errors;
  }

  TemporaryDirectory directory;
  std::string output, errors;
};

TEST_F(DumpIndexTest, TextHasTheHeaderAndTheKeysInOrder) {
  EXPECT_EQ(dump_done, Show(DumpForm::Text));
  EXPECT_EQ("index        " + path() +
                "\n"
                "expression   name\n"
                "flags        unique, text\n"
                "version      3\n"
                "changes      9\n"
                "pages        4 of 1024 bytes\n"
                "root         3\n"
                "order        8\n"
                "key size     100\n"
                "\n"
                "1\ta\n2\tb\n3\tc\n4\td\n5\te\n6\tf\n7\tg\n8\th\n9\ti\n",
            output);
  EXPECT_EQ("", errors);
}

TEST_F(DumpIndexTest, ARangeShowsTheKeysOfItsRecords) {
  DumpRequest request{path(), DumpForm::Csv};
  request.first_record = 3;
  request.last_record = 4;
  EXPECT_EQ(dump_done, Call(ShowIndex, request));
  EXPECT_EQ("record,key\n3,c\n4,d\n", output);
  request.form = DumpForm::Json;
  EXPECT_EQ(dump_done, Call(ShowIndex, request));
  EXPECT_TRUE(
      output.ends_with("\"keys\": [\n    {\"record\": 3, \"key\": \"c\"},\n"
                       "    {\"record\": 4, \"key\": \"d\"}\n  ]\n}\n"))
      << output;
  request.columns = {"NAME"};
  EXPECT_EQ(dump_failed, Call(ShowIndex, request));
  EXPECT_EQ("zpdbf: " + path() + " is an index, which has no fields\n", errors);
}

TEST_F(DumpIndexTest, ATerminalGetsNoCommandsFromAKey) {
  DumpApplication application;
  ZIXIndexFile index(&application);
  ASSERT_TRUE(index.Open(ZephPath_Data, path().c_str(), 3));
  ASSERT_TRUE(Insert(index, "\x1B[2J", 77));
  index.Close();
  EXPECT_EQ(dump_done, Show(DumpForm::Text));
  EXPECT_NE(std::string::npos, output.find("77\t?[2J\n"));
}

TEST_F(DumpIndexTest, CsvHasOneOfBoth) {
  EXPECT_EQ(dump_done, Show(DumpForm::Csv));
  EXPECT_EQ("record,key\n1,a\n2,b\n3,c\n4,d\n5,e\n6,f\n7,g\n8,h\n9,i\n", output);
  EXPECT_EQ(dump_done, Show(DumpForm::Csv, true));
  EXPECT_EQ(
      "expression,flags,version,updatecount,numpages,startingpage,order,pagesize,keyrecordsize\n"
      "name,5,3,9,4,3,8,1024,108\n",
      output);
}

TEST_F(DumpIndexTest, JsonIsOneObject) {
  EXPECT_EQ(dump_done, Show(DumpForm::Json, true));
  const std::string header = output;
  EXPECT_EQ(
      "{\n  \"expression\": \"name\",\n  \"flags\": 5,\n  \"version\": 3,\n  \"updatecount\": 9,\n"
      "  \"numpages\": 4,\n  \"startingpage\": 3,\n  \"order\": 8,\n  \"pagesize\": 1024,\n"
      "  \"keyrecordsize\": 108\n}\n",
      header);
  EXPECT_EQ(dump_done, Show(DumpForm::Json));
  EXPECT_EQ(header.substr(0, header.size() - 3), output.substr(0, header.size() - 3));
  EXPECT_NE(std::string::npos,
            output.find(",\n  \"keys\": [\n    {\"record\": 1, \"key\": \"a\"},\n"));
  EXPECT_TRUE(output.ends_with("{\"record\": 9, \"key\": \"i\"}\n  ]\n}\n"));
}

TEST_F(DumpIndexTest, AnUnreadablePageIsAFailureAfterWhatCouldBeRead) {
  std::string content = directory.Content("i.zix");
  content[2 * 1024] = 99;
  directory.File("i.zix", content);
  EXPECT_EQ(dump_failed, Show(DumpForm::Csv));
  EXPECT_TRUE(output.ends_with("5,e\n"));
  EXPECT_EQ("zpdbf: Error reading from '" + path() +
                "': File is corrupt (the number of entries is larger than the maximum entries "
                "possible).\n",
            errors);
}

TEST_F(DumpIndexTest, AMissingOrForeignFileIsAFailure) {
  directory.File("i.zix", std::string(2048, 'x'));
  EXPECT_EQ(dump_failed, Show(DumpForm::Text));
  EXPECT_EQ("zpdbf: '" + path() + "' is either corrupt or is not a valid index file\n", errors);
  EXPECT_EQ(dump_failed, Check());
  EXPECT_EQ("problem: '" + path() + "' is either corrupt or is not a valid index file\n", output);
  std::filesystem::remove(path());
  EXPECT_EQ(dump_failed, Show(DumpForm::Text));
  EXPECT_EQ("zpdbf: Error opening '" + path() + "': No such file or directory\n", errors);
  EXPECT_EQ(dump_failed, Check());
  EXPECT_EQ("problem: Error opening '" + path() + "': No such file or directory\n", output);
}

TEST_F(DumpIndexTest, AWholeIndexPassesItsCheck) {
  EXPECT_EQ(dump_done, Check());
  EXPECT_EQ("ok: 9 entries in 3 pages, depth 2, 0 pages unused\n", output);
  DumpApplication application;
  ZIXIndexFile index(&application);
  ASSERT_TRUE(index.Open(ZephPath_Data, path().c_str(), 3));
  for (unsigned i = 0; i < 3; i++)
    ASSERT_TRUE(Delete(index, std::string(1, static_cast<char>('a' + i)), i + 1));
  EXPECT_EQ(dump_done, Check());
  EXPECT_EQ("ok: 6 entries in 1 pages, depth 1, 2 pages unused\n", output);
}

TEST_F(DumpIndexTest, PagesAfterTheCountAreNoted) {
  directory.File("i.zix", directory.Content("i.zix") + std::string(1024, '\0'));
  EXPECT_EQ(dump_done, Check());
  EXPECT_EQ(
      "note: the file has 5 pages, the header counts 4\n"
      "ok: 9 entries in 3 pages, depth 2, 0 pages unused\n",
      output);
}

// A writer that ends in a split leaves a tree that is sound by itself, and the rest beside it.
TEST_F(DumpIndexTest, EntriesBesideTheTreeAreNamed) {
  EXPECT_EQ(
      "problem: page 2: is not in the tree, and has 4 entries that the tree has not\n"
      "problem: page 3: is not in the tree, and has 1 entry that the tree has not\n"
      "2 problems\n",
      CheckWith(13, std::string("\1\0\0\0", 4)));
}

TEST_F(DumpIndexTest, EachDamageIsNamed) {
  const size_t left = 1024, right = 2 * 1024, root = 3 * 1024;
  const auto number = [](char value) { return std::string(1, value) + std::string(3, '\0'); };
  const struct {
    const char* label;
    size_t at;
    std::string patch;
    std::string expected;
  } cases[] = {
      {"few entries", left, number(2), "problem: page 1: 2 entries, fewer than 3\n1 problem\n"},
      {"many entries", left, number(9), "problem: page 1: 9 entries, more than 8\n"},
      {"count", left, number(10),
       "problem: page 1: File is corrupt (the number of entries is larger than the maximum entries "
       "possible).\n1 problem\n"},
      {"order", left + 12, "x",
       "problem: page 1: entry 1, key 'b': out of order after 'x'\n1 problem\n"},
      {"twice", left + 12 + 108, "a",
       "problem: page 1: entry 1, key 'a': occurs twice\n1 problem\n"},
      {"record", right + 8, number(0), "problem: page 2: entry 0, key 'f': record number 0\n"},
      {"child again", root + 4 + 108, number(1), "problem: page 1: is reached twice\n1 problem\n"},
      {"child above", root + 4 + 108, number(3), "problem: page 3: is reached twice\n1 problem\n"},
      {"child outside", root + 4, number(77),
       "problem: page 77: is named and is not in the file\n1 problem\n"},
      {"child missing", root + 4, number(0),
       "problem: page 0: is named and is not in the file\n1 problem\n"},
      {"leaf's child", left + 4, number(2), "problem: page 0: is named and is not in the file\n"},
      {"root without entries", root, number(0),
       "problem: page 3: no entries, but a page below\n1 problem\n"},
      {"root outside", 13, number(9),
       "problem: page 9: is named and is not in the file\n1 problem\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    const std::string said = CheckWith(row.at, row.patch);
    EXPECT_NE(std::string::npos, said.find(row.expected)) << said;
  }
}

TEST_F(DumpIndexTest, LeavesAtDifferentDepthsAreNamed) {
  const ZIXIndexShape shape;
  std::string content = ZIXIndexHeaderBytes(shape, 0, 6, 1, "key");
  content.resize(1024);
  content += ZIXIndexPageBytes(shape, {{"m", 1}}, {2, 3});
  content += ZIXIndexPageBytes(shape, {{"a", 1}, {"b", 1}, {"c", 1}});
  content += ZIXIndexPageBytes(shape, {{"q", 1}, {"r", 1}, {"s", 1}}, {4, 5, 5, 5});
  content += ZIXIndexPageBytes(shape, {{"n", 1}, {"o", 1}, {"p", 1}});
  content += ZIXIndexPageBytes(shape, {{"qa", 1}, {"qb", 1}, {"qc", 1}});
  directory.File("i.zix", content);
  EXPECT_EQ(dump_failed, Check());
  EXPECT_NE(std::string::npos,
            output.find("problem: page 4: a leaf on level 3, others are on level 2\n"));
}

TEST_F(DumpIndexTest, AFileThatIsCutIsNamed) {
  directory.File("i.zix", directory.Content("i.zix").substr(0, 2 * 1024));
  EXPECT_EQ(dump_failed, Check());
  EXPECT_EQ("problem: page 3: is named and is not in the file\n1 problem\n", output);
  directory.File("i.zix", directory.Content("i.zix").substr(0, 100));
  EXPECT_EQ(dump_failed, Check());
  EXPECT_EQ("problem: Error reading from '" + path() + "': the file is too short\n", output);
}

TEST_F(DumpIndexTest, ManyProblemsAreCounted) {
  const ZIXIndexShape shape{ZIXIndex_Text, 40, 1024, 24};
  std::string content = ZIXIndexHeaderBytes(shape, 0, 5, 1, "key");
  content.resize(1024);
  std::vector<ZIXIndexEntry> entries(40, {"same", 0});
  content += ZIXIndexPageBytes(shape, {{"same", 0}, {"same", 0}}, {2, 3, 4});
  for (int page = 2; page < 5; page++) content += ZIXIndexPageBytes(shape, entries);
  directory.File("i.zix", content);
  EXPECT_EQ(dump_failed, Check());
  EXPECT_TRUE(output.ends_with("and 22 more\n122 problems\n"));
}

TEST_F(DumpIndexTest, TheProgramKnowsAnIndexByItsFirstBytes) {
  Command show({InBuild("bin/zpdbf"), "--csv", path()});
  EXPECT_EQ(0, show.Run());
  EXPECT_EQ(0u, show.output.rfind("record,key\n1,a\n", 0));
  Command check({InBuild("bin/zpdbf"), "--check", path()});
  EXPECT_EQ(0, check.Run());
  EXPECT_EQ("ok: 9 entries in 3 pages, depth 2, 0 pages unused\n", check.output);
}

}  // namespace
