// The functions of zephstd for files, on real ones in a directory.

#include <sys/stat.h>

#include "tests/extensions/LibraryWithFiles.h"

namespace {

class StdFiles : public LibraryWithFiles {};

TEST_F(StdFiles, FilesAreWrittenReadAndRemoved) {
  const ValueCase cases[] = {
      {"writefile('a.txt', 'one')", "1"},
      {"readfile('a.txt')", "one"},
      {"filesize('a.txt')", "3"},
      {"fileexists('a.txt')", "1"},
      {"isfolder('a.txt')", "0"},
      {"now() - filetime('a.txt') LT 60", "1"},
      {"writefile('a.txt', 'second')", "1"},
      {"readfile('a.txt')", "second"},
      {"appendfile('a.txt', '+')", "1"},
      {"appendfile('new.txt', '+')", "1"},
      {"readfile('a.txt') $ readfile('new.txt')", "second++"},
      {"copyfile('a.txt', 'b.txt')", "1"},
      {"renamefile('b.txt', 'new.txt')", "1"},
      {"readfile('new.txt')", "second+"},
      {"makefolder('sub')", "1"},
      {"makefolder('sub')", "1"},
      {"fileerror()", ""},
      {"isfolder('sub')", "1"},
      {"writefile('sub/x', '')", "1"},
      {"'[' $ readfile('sub/x') $ ']' $ fileerror()", "[]"},
      {"jsonencode(listfiles('.'))", R"(["a.txt","new.txt","sub"])"},
      {"jsonencode(listfiles('sub'))", R"(["x"])"},
      {"deletefolder('sub')", "0"},
      {"ISNULL fileerror()", "0"},
      {"deletefile('sub/x')", "1"},
      {"deletefolder('sub')", "1"},
      {"deletefile('a.txt')", "1"},
      {"fileexists('a.txt')", "0"},
      {"fileerror()", ""},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdFiles, FailuresAreResultsWithAReason) {
  directory.File("outside", "secret");
  directory.File("data/file", "x");
  const struct {
    const char* expression;
    const char* value;
    const char* reason;
  } cases[] = {
      {"readfile('none')", "", "No such file or directory"},
      {"filesize('none')", "-1", "No such file or directory"},
      {"filetime('none')", "-1", "No such file or directory"},
      {"fileexists('none')", "0", ""},
      {"deletefile('none')", "0", "No such file or directory"},
      {"readfile('../outside')", "", "outside the configured data directory"},
      {"writefile('../outside', 'x')", "0", "outside the configured data directory"},
      {"writefile('sub/../../outside', 'x')", "0", "outside the configured data directory"},
      {"appendfile('../outside', 'x')", "0", "outside the configured data directory"},
      {"deletefile('../outside')", "0", "outside the configured data directory"},
      {"renamefile('file', '../outside')", "0", "outside the configured data directory"},
      {"renamefile('../outside', 'file2')", "0", "outside the configured data directory"},
      {"copyfile('../outside', 'file2')", "0", "outside the configured data directory"},
      {"jsonencode(listfiles('..'))", "[]", ""},
      {"jsonencode(listfiles('none'))", "[]", ""},
      {"fileexists('../outside')", "0", "outside the configured data directory"},
      {"readfile('')", "", "the path is empty"},
      {"writefile('', 'x')", "0", "the path is empty"},
      {"readfile(urldecode('file%00.txt'))", "", "the path has a NUL"},
      {"writefile(urldecode('file%00'), 'x')", "0", "the path has a NUL"},
      {"renamefile('file', urldecode('f%00'))", "0", "the path has a NUL"},
      {"readfile('.')", "", "Is a directory"},
      {"writefile('nofolder/x', 'x')", "0", "a directory that does not exist"},
      {"writefile('.', 'x')", "0", ""},
      {"makefolder('file')", "0", "File exists"},
      {"makefolder('no/no')", "0", "a directory that does not exist"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(Value(each.expression), each.value) << each.expression;
    EXPECT_THAT(Value("fileerror()"), testing::HasSubstr(each.reason)) << each.expression;
  }
  EXPECT_EQ(directory.Content("outside"), "secret");
  EXPECT_EQ(File("file"), "x");
  // Nothing is left of what failed.
  EXPECT_EQ(Value("jsonencode(listfiles('.'))"), R"(["file"])");
}

TEST_F(StdFiles, AReplacedFileKeepsItsRights) {
  directory.File("data/a", "x");
  ASSERT_EQ(chmod(directory.path("data/a").c_str(), 0640), 0);
  EXPECT_EQ(Value("writefile('a', 'y')"), "1");
  struct stat status;
  ASSERT_EQ(stat(directory.path("data/a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
}

// Sees what a file has when its rights are changed, and can refuse the change.
class WatchedFileManager : public UNIXReentrantFileManager {
 public:
  using UNIXReentrantFileManager::ChangeMode;
  using UNIXReentrantFileManager::UNIXReentrantFileManager;
  bool ChangeMode(Zeph_PathType type, const char* path, int mode) override {
    if (!Length(type, path, &length)) return false;
    return !refuses && UNIXReentrantFileManager::ChangeMode(type, path, mode);
  }
  long length = -1;
  bool refuses = false;
};

TEST_F(StdFiles, AReplacedFileHasItsRightsBeforeItsText) {
  auto watched = std::make_unique<WatchedFileManager>(&machine->application);
  WatchedFileManager& files = *watched;
  manager = std::move(watched);
  machine->application.SetFileManager(manager.get());
  ASSERT_TRUE(manager->InitializeDataDirectory(directory.path("data").c_str()));
  directory.File("data/a", "x");
  ASSERT_EQ(chmod(directory.path("data/a").c_str(), 0600), 0);
  EXPECT_EQ(Value("writefile('a', 'secret')"), "1");
  EXPECT_EQ(files.length, 0);
  EXPECT_EQ(File("a"), "secret");
  files.refuses = true;
  EXPECT_EQ(Value("writefile('a', 'other')"), "0");
  EXPECT_EQ(File("a"), "secret");
  EXPECT_EQ(Value("jsonencode(listfiles('.'))"), R"(["a"])");
}

TEST_F(StdFiles, BytesStayAsTheyAre) {
  std::string bytes;
  for (int i = 0; i < 100000; i++) bytes += static_cast<char>(i * 7 / 3);
  Set("g.b", bytes);
  EXPECT_EQ(Value("writefile('b', g.b)"), "1");
  EXPECT_EQ(File("b"), bytes);
  EXPECT_EQ(Value("readfile('b')"), bytes);
}

TEST_F(StdFiles, AFileHasALimit) {
  directory.File("data/big", "");
  std::filesystem::resize_file(directory.path("data/big"), (64 << 20));
  EXPECT_EQ(Value("bytes(readfile('big'))"), std::to_string(64 << 20));
  std::filesystem::resize_file(directory.path("data/big"), (64 << 20) + 1);
  EXPECT_EQ(Value("bytes(readfile('big')) $ fileerror()"), "0the file is larger than 64 MB");
}

}  // namespace
