// Claims about contained paths that hold for both managers, and for both ways of walking.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/base/systems/unix/FileFixture.h"

namespace {

constexpr int all_links = FileSecurity_DataSymlinks | FileSecurity_DataOtherOwner;

const char symlink_text[] = "[The specified path references a symbolic link]";
const char missing_directory_text[] =
    "[The specified path references a directory that does not exist]";
const char other_directory_text[] =
    "[The specified path references a symbolic link to a directory owned by a different user]";
const char other_file_text[] =
    "[The specified path references a symbolic link to a directory or file owned by a different "
    "user]";
const char recursive_text[] = "[The specified path references a recursive symbolic link]";
const char missing_text[] = "[No such file or directory]";
const char outside_data_text[] =
    "[The specified path references a path outside the configured data directory]";

template <class Manager>
class ContainedPath : public ContainedFixture<Manager> {};

struct ManagerNames {
  template <class Manager>
  static std::string GetName(int) {
    if (std::is_same_v<Manager, UNIXFileManager>) return "Plain";
    return std::is_same_v<Manager, ElementWalkManager> ? "ElementWalk" : "Reentrant";
  }
};

using Managers = testing::Types<UNIXFileManager, UNIXReentrantFileManager, ElementWalkManager>;
TYPED_TEST_SUITE(ContainedPath, Managers, ManagerNames);

// Changes the owner of a file, or of a link itself.
void GiveAway(const std::string& path) {
  ASSERT_EQ(0, lchown(path.c_str(), other_user, other_user)) << path << strerror(errno);
}

// --- Base directories ----------------------------------------------------------------------------

TYPED_TEST(ContainedPath, BaseDirectoryMustBeAbsolute) {
  for (const char* path : {static_cast<const char*>(nullptr), "", "data", "./data"}) {
    SCOPED_TRACE(path == nullptr ? "null" : path);
    EXPECT_FALSE(this->files.InitializeDataDirectory(path));
    EXPECT_EQ("The configured data directory is not an absolute path", this->error());
    EXPECT_FALSE(this->files.InitializeTempDirectory(path));
    EXPECT_EQ("The configured temporary directory is not an absolute path", this->error());
    EXPECT_FALSE(this->files.InitializeScriptDirectory(path, nullptr));
    EXPECT_EQ("The configured script directory is not an absolute path", this->error());
    EXPECT_FALSE(this->files.InitializeScriptDirectory(path, "jane"));
    EXPECT_EQ("The configured script directory for 'jane' is not an absolute path", this->error());
  }
}

TYPED_TEST(ContainedPath, BaseDirectoryMustExist) {
  std::string path = this->tree.path("missing/data");
  EXPECT_FALSE(this->files.InitializeDataDirectory(path.c_str()));
  EXPECT_EQ("The configured data directory does not exist", this->error());
  EXPECT_FALSE(this->files.InitializeTempDirectory(path.c_str()));
  EXPECT_EQ("The configured temporary directory does not exist", this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), nullptr));
  EXPECT_EQ("The configured script directory does not exist", this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), "jane"));
  EXPECT_EQ("The configured script directory for 'jane' does not exist", this->error());
}

TYPED_TEST(ContainedPath, BaseDirectoryBehindALinkIsRefused) {
  this->tree.Link("link", "data");
  std::string path = this->tree.path("link");
  EXPECT_FALSE(this->files.InitializeDataDirectory(path.c_str()));
  EXPECT_EQ("The configured data directory references a symbolic link", this->error());
  EXPECT_FALSE(this->files.InitializeTempDirectory(path.c_str()));
  EXPECT_EQ("The configured temporary directory references a symbolic link", this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), nullptr));
  EXPECT_EQ("The configured script directory references a symbolic link", this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), "jane"));
  EXPECT_EQ("The configured script directory for 'jane' references a symbolic link", this->error());
}

TYPED_TEST(ContainedPath, BaseDirectoryBehindALinkOfOneOwnerIsAcceptedWhereLinksAre) {
  this->tree.Link("link", "data");
  this->tree.File("data/f", "x");
  this->files.SecurityOptions(FileSecurity_DataSymlinks);
  ASSERT_TRUE(this->files.InitializeDataDirectory(this->tree.path("link").c_str()))
      << this->error();
  EXPECT_EQ("x", this->Read("f"));
}

TYPED_TEST(ContainedPath, BaseDirectoryBehindALinkToAnotherOwnerIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->tree.Link("link", "data");
  GiveAway(this->tree.path("data"));
  std::string path = this->tree.path("link");
  this->files.SecurityOptions(FileSecurity_DataSymlinks | FileSecurity_ScriptSymlinks |
                              FileSecurity_TempSymlinks);
  EXPECT_FALSE(this->files.InitializeDataDirectory(path.c_str()));
  EXPECT_EQ(
      "The configured data directory references a symbolic link to a directory owned by a "
      "different user",
      this->error());
  EXPECT_FALSE(this->files.InitializeTempDirectory(path.c_str()));
  EXPECT_EQ(
      "The configured temporary directory references a symbolic link to a directory owned by a "
      "different user",
      this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), nullptr));
  EXPECT_EQ(
      "The configured script directory references a symbolic link to a directory owned by a "
      "different user",
      this->error());
  EXPECT_FALSE(this->files.InitializeScriptDirectory(path.c_str(), "jane"));
  EXPECT_EQ(
      "The configured script directory for 'jane' references a symbolic link to a directory owned "
      "by a different user",
      this->error());
  this->files.SecurityOptions(all_links);
  EXPECT_TRUE(this->files.InitializeDataDirectory(path.c_str()));
}

TYPED_TEST(ContainedPath, EachLinkBitGovernsItsOwnDirectory) {
  struct Case {
    int flags;
    bool script;
    bool data;
    bool temporary;
  } cases[] = {
      {0, false, false, false},
      {FileSecurity_ScriptSymlinks, true, false, false},
      {FileSecurity_DataSymlinks, false, true, false},
      {FileSecurity_TempSymlinks, false, false, true},
      // The flags for other owners and for absolute paths do not allow links by themselves.
      {FileSecurity_ScriptOtherOwner | FileSecurity_DataOtherOwner | FileSecurity_TempOtherOwner |
           FileSecurity_DataAbsolute | FileSecurity_ScriptAbsolute,
       false, false, false},
  };
  this->tree.Link("link", "data");
  std::string path = this->tree.path("link");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.flags);
    this->files.SecurityOptions(c.flags);
    EXPECT_EQ(c.script, this->files.InitializeScriptDirectory(path.c_str(), nullptr));
    EXPECT_EQ(c.data, this->files.InitializeDataDirectory(path.c_str()));
    EXPECT_EQ(c.temporary, this->files.InitializeTempDirectory(path.c_str()));
  }
}

TYPED_TEST(ContainedPath, FailedInitializationLeavesNoDirectory) {
  this->Configure(0);
  this->tree.File("data/f", "x");
  EXPECT_EQ("x", this->Read("f"));
  EXPECT_FALSE(this->files.InitializeDataDirectory("/missing"));
  EXPECT_EQ("[There is no configured data directory]", this->Read("f"));
}

TYPED_TEST(ContainedPath, DirectoryIsStoredAsGivenWithATrailingSlash) {
  std::string path = this->tree.path("data") + "//";
  ASSERT_TRUE(this->files.InitializeDataDirectory(path.c_str()));
  this->tree.File("data/a/f", "x");
  EXPECT_EQ("x", this->Read("a/f"));
  EXPECT_EQ("x", this->Read("../data/a/f"));
  EXPECT_EQ(outside_data_text, this->Read("../outside/f"));
}

TYPED_TEST(ContainedPath, TypesWithoutADirectoryAreRefused) {
  EXPECT_EQ("[There is no configured script directory]", this->Read("f", ZephPath_Script));
  EXPECT_EQ("[There is no configured data directory]", this->Read("f", ZephPath_Data));
  EXPECT_EQ("[There is no configured data directory]", this->Read("f", ZephPath_Temporary));
}

// Each operation on names, with all other arguments in order. Returns whether it did anything.
struct NamedOperation {
  const char* label;
  bool (*run)(UNIXFileManager& files, const char* path);
};
const NamedOperation named_operations[] = {
    {"Delete", [](UNIXFileManager& f, const char* p) { return f.Delete(ZephPath_Data, p); }},
    {"Copy from", [](UNIXFileManager& f,
                     const char* p) { return f.Copy(ZephPath_Data, p, ZephPath_Script, "n"); }},
    {"Copy to", [](UNIXFileManager& f,
                   const char* p) { return f.Copy(ZephPath_Script, "f", ZephPath_Data, p); }},
    {"Rename from", [](UNIXFileManager& f,
                       const char* p) { return f.Rename(ZephPath_Data, p, ZephPath_Script, "n"); }},
    {"Rename to", [](UNIXFileManager& f,
                     const char* p) { return f.Rename(ZephPath_Script, "f", ZephPath_Data, p); }},
    {"TouchFile", [](UNIXFileManager& f, const char* p) { return f.TouchFile(ZephPath_Data, p); }},
    {"Exists",
     [](UNIXFileManager& f, const char* p) {
       bool exists;
       return f.Exists(ZephPath_Data, p, &exists);
     }},
    {"Length",
     [](UNIXFileManager& f, const char* p) {
       long length;
       return f.Length(ZephPath_Data, p, &length);
     }},
    {"IsDirectory",
     [](UNIXFileManager& f, const char* p) {
       bool directory;
       return f.IsDirectory(ZephPath_Data, p, &directory);
     }},
    {"ModifiedTime",
     [](UNIXFileManager& f, const char* p) {
       long time;
       return f.ModifiedTime(ZephPath_Data, p, &time);
     }},
    {"MakeDirectory",
     [](UNIXFileManager& f, const char* p) { return f.MakeDirectory(ZephPath_Data, p); }},
    {"RemoveDirectory",
     [](UNIXFileManager& f, const char* p) { return f.RemoveDirectory(ZephPath_Data, p); }},
    {"MakeSymbolicLink",
     [](UNIXFileManager& f, const char* p) {
       return f.MakeSymbolicLink(ZephPath_Script, "f", ZephPath_Data, p);
     }},
    {"Mode",
     [](UNIXFileManager& f, const char* p) {
       int mode;
       return f.Mode(ZephPath_Data, p, &mode);
     }},
    {"ChangeMode",
     [](UNIXFileManager& f, const char* p) { return f.ChangeMode(ZephPath_Data, p, 0600); }},
    {"MakeTemporary",
     [](UNIXFileManager& f, const char* p) {
       char* name;
       const std::string directory(p, strrchr(p, '/') ? strrchr(p, '/') - p : 0);
       const std::unique_ptr<File> made(
           f.MakeTemporary(ZephPath_Data, directory.c_str(), "t", &name, FileMode_Write));
       if (made) delete[] name;
       return made != nullptr;
     }},
    {"MakeTemporaryLike",
     [](UNIXFileManager& f, const char* p) {
       char* name;
       const std::unique_ptr<File> made(
           f.MakeTemporaryLike(ZephPath_Data, p, &name, FileMode_Write));
       if (made) delete[] name;
       return made != nullptr;
     }},
    {"Lock",
     [](UNIXFileManager& f, const char* p) { return f.Lock(ZephPath_Data, p) == FileLock_Held; }},
    {"DirectoryListing",
     [](UNIXFileManager& f, const char* p) {
       List<String> names(1);
       return f.DirectoryListing(ZephPath_Data, p, &names);
     }},
};

TYPED_TEST(ContainedPath, NoOperationWorksWithoutADirectory) {
  ASSERT_TRUE(this->files.InitializeScriptDirectory(this->tree.path("script").c_str(), nullptr));
  this->tree.File("script/f", "x");
  for (const NamedOperation& operation : named_operations) {
    SCOPED_TRACE(operation.label);
    this->files.Error("older");
    EXPECT_FALSE(operation.run(this->files, "n"));
    EXPECT_EQ("There is no configured data directory", this->error());
  }
  EXPECT_FALSE(this->tree.Exists("script/n"));
  EXPECT_EQ("x", this->tree.Content("script/f"));
}

// With a base, each refuses a path past it, a path through a link, and one whose directory is not
// there.
TYPED_TEST(ContainedPath, NoOperationLeavesTheDirectory) {
  this->Configure(0);
  this->tree.File("script/f", "x");
  this->tree.Directory("outside/n");
  this->tree.Link("data/link", this->tree.path("outside"));
  const struct {
    const char* path;
    const char* error;
  } cases[] = {
      {"../outside/n", outside_data_text},
      {"link/n", symlink_text},
      {"missing/n", missing_directory_text},
  };
  for (const NamedOperation& operation : named_operations) {
    SCOPED_TRACE(operation.label);
    for (const auto& c : cases) {
      SCOPED_TRACE(c.path);
      this->files.Error("older");
      EXPECT_FALSE(operation.run(this->files, c.path));
      EXPECT_EQ(c.error, "[" + this->error() + "]");
    }
  }
  EXPECT_TRUE(std::filesystem::is_empty(this->tree.path("outside/n")));
  EXPECT_FALSE(this->tree.Exists("script/n"));
  EXPECT_EQ("x", this->tree.Content("script/f"));
}

TYPED_TEST(ContainedPath, UnknownTypesReachNothing) {
  this->Configure(FileSecurity_DataAbsolute | FileSecurity_ScriptAbsolute | all_links);
  this->tree.File("data/f", "x");
  auto unknown = static_cast<Zeph_PathType>(3);
  for (const char* path : {"f", "/etc/passwd", "../f", ".", "", "a/b"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ("[Bad file descriptor]", this->Read(path, unknown));
  }
  bool flag = false;
  EXPECT_FALSE(this->files.Exists(unknown, "f", &flag));
  EXPECT_FALSE(this->files.Delete(unknown, "f"));
  EXPECT_EQ(FileLock_Failed, this->files.Lock(unknown, "f"));
  EXPECT_FALSE(this->files.MakeDirectory(unknown, "d"));
  EXPECT_EQ("[Bad file descriptor]", this->Listing(".", unknown)[0]);
}

TYPED_TEST(ContainedPath, SettingsOfAnUnknownTypeStayAsTheyWere) {
  this->Configure(0);
  _UNIXContainedPathSettings settings;
  settings.directory = 77;
  EXPECT_TRUE(this->files.ContainedPathSettings(static_cast<Zeph_PathType>(9), &settings));
  EXPECT_EQ(77, settings.directory);
}

TYPED_TEST(ContainedPath, SettingsFollowTheFlags) {
  this->Configure(FileSecurity_ScriptSymlinks | FileSecurity_DataOtherOwner |
                      FileSecurity_ScriptAbsolute | FileSecurity_TempOtherOwner,
                  true);
  _UNIXContainedPathSettings settings;
  ASSERT_TRUE(this->files.ContainedPathSettings(ZephPath_Script, &settings));
  EXPECT_TRUE(settings.allow_symlinks && !settings.allow_other_owner && settings.allow_absolute);
  ASSERT_TRUE(this->files.ContainedPathSettings(ZephPath_Data, &settings));
  EXPECT_TRUE(!settings.allow_symlinks && settings.allow_other_owner && !settings.allow_absolute);
  ASSERT_TRUE(this->files.ContainedPathSettings(ZephPath_Temporary, &settings));
  EXPECT_TRUE(!settings.allow_symlinks && settings.allow_other_owner && !settings.allow_absolute);
  EXPECT_EQ(this->tree.path("temp"), settings.path->value());
}

// --- Confinement by text -------------------------------------------------------------------------

TYPED_TEST(ContainedPath, PathsStayInsideByTheirText) {
  this->Configure(0);
  this->tree.File("data/x", "in data");
  this->tree.File("data/a/y", "in a");
  this->tree.File("outside/x", "outside");
  struct Case {
    const char* path;
    const char* expected;
  } cases[] = {
      {"x", "in data"},
      {"./x", "in data"},
      {"a/y", "in a"},
      {"a//y", "in a"},
      {"a/../x", "in data"},
      {"missing/../x", "in data"},  // collapsed before anything is opened
      {"a/missing/../y", "in a"},
      {"/x", "in data"},
      {"///a/y", "in a"},
      {"/../x", "in data"},
      {"../x", outside_data_text},
      {"a/../../x", outside_data_text},
      {"../outside/x", outside_data_text},
      {"../data/x", "in data"},
      {"../DATA/x", outside_data_text},
      {"../datax/x", outside_data_text},
      {"..", outside_data_text},
      {"../..", outside_data_text},
      {"missing", missing_text},
      {"", missing_text},
      {"missing/x", missing_directory_text},
      {"x/y", "[Not a directory]"},
      {"x/y/z", missing_directory_text},
      {".", "[Is a directory]"},
      {"/", "[Is a directory]"},
      {"a", "[Is a directory]"},
      {"X", missing_text},
  };
  bool plain = std::is_same_v<TypeParam, UNIXFileManager>;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    // chdir fails if a file is in the place of a directory; openat does not.
    std::string expected =
        plain && strcmp(c.path, "x/y") == 0 ? missing_directory_text : c.expected;
    EXPECT_EQ(expected, this->Read(c.path));
  }
}

TYPED_TEST(ContainedPath, OutsideTextNamesTheTypeOfThePath) {
  this->Configure(0);
  EXPECT_EQ("[The specified path references a path outside the configured script directory]",
            this->Read("../x", ZephPath_Script));
  // Without a temporary directory, temporary paths use the data directory.
  this->tree.File("data/f", "in data");
  EXPECT_EQ("in data", this->Read("f", ZephPath_Temporary));
  EXPECT_EQ("[The specified path references a path outside the configured temporary directory]",
            this->Read("../x", ZephPath_Temporary));
}

TYPED_TEST(ContainedPath, TemporaryPathsWithoutADirectoryFollowTheDataFlags) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/f", "x");
  this->tree.Link("data/link", "f");
  EXPECT_EQ("x", this->Read("link", ZephPath_Temporary));
  ASSERT_TRUE(this->files.InitializeTempDirectory(this->tree.path("temp").c_str()));
  this->tree.File("temp/f", "y");
  this->tree.Link("temp/link", "f");
  EXPECT_EQ("y", this->Read("f", ZephPath_Temporary));
  EXPECT_EQ(symlink_text, this->Read("link", ZephPath_Temporary));
}

TYPED_TEST(ContainedPath, AbsolutePathsNeedTheirBit) {
  std::string inside = this->tree.File("data/a/f", "inside");
  std::string outside = this->tree.File("outside/f", "outside");
  this->Configure(0);
  EXPECT_EQ(missing_directory_text, this->Read(inside.c_str()));
  this->tree.File("data" + outside, "below data");
  EXPECT_EQ("below data", this->Read(outside.c_str()));
  this->Configure(FileSecurity_DataAbsolute);
  EXPECT_EQ("inside", this->Read(inside.c_str()));
  EXPECT_EQ(outside_data_text, this->Read(outside.c_str()));
  EXPECT_EQ("inside", this->Read("a/f"));  // relative paths stay as they are
  EXPECT_EQ("[Is a directory]", this->Read(this->tree.path("data/a").c_str()));
}

TYPED_TEST(ContainedPath, TemporaryDirectoryNeverAcceptsAbsolutePaths) {
  this->Configure(FileSecurity_DataAbsolute | FileSecurity_ScriptAbsolute, true);
  std::string path = this->tree.File("temp/f", "x");
  EXPECT_EQ(missing_directory_text, this->Read(path.c_str(), ZephPath_Temporary));
}

TYPED_TEST(ContainedPath, GrowingPathEndsInTheSystemsWords) {
  this->Configure(0);
  std::string path;
  while (path.size() < PATH_MAX) path += "a/";
  EXPECT_EQ("[File name too long]", this->Read(path.c_str()));
  bool exists = false;
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, path.c_str(), &exists));
  EXPECT_EQ("File name too long", this->error());
  std::string name(NAME_MAX + 1, 'n');
  EXPECT_EQ("[File name too long]", this->Read(name.c_str()));
}

TYPED_TEST(ContainedPath, NormalizesByTextAlone) {
  struct Case {
    int flags;
    const char* path;
    const char* expected;  // "@" means the base
  } cases[] = {
      {0, "a//b/../c", "a/c"},
      {0, "/a/b", "a/b"},
      {0, "///", ""},
      {0, "", ""},
      {0, "a/..", "."},
      {0, "../a", "../a"},
      {0, "/..", ".."},
      {FileSecurity_DataAbsolute, "a/./b", "@/a/b"},
      {FileSecurity_DataAbsolute, "/a//b", "/a/b"},
      {FileSecurity_DataAbsolute, "/", "/"},
      {FileSecurity_DataAbsolute, "", "@"},
  };
  std::string base = this->tree.path("data");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    this->Configure(c.flags);
    std::string expected = c.expected;
    if (!expected.empty() && expected[0] == '@') expected.replace(0, 1, base);
    int length = -1;
    int allocated = -1;
    std::unique_ptr<char[]> text(
        this->files.NormalizeContainedPath(ZephPath_Data, c.path, &length, &allocated));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(expected, text.get());
    EXPECT_EQ(static_cast<int>(expected.size()), length);
    EXPECT_GT(allocated, length);
  }
}

TYPED_TEST(ContainedPath, NormalizingWithoutADirectoryGivesNull) {
  int length;
  int allocated;
  EXPECT_EQ(nullptr, this->files.NormalizeContainedPath(ZephPath_Script, "a", &length, &allocated));
  EXPECT_EQ("There is no configured script directory", this->error());
}

// --- Links ---------------------------------------------------------------------------------------

TYPED_TEST(ContainedPath, LinksAreRefusedByDefault) {
  this->Configure(0);
  this->tree.File("data/d/f", "x");
  this->tree.Link("data/file", "d/f");
  this->tree.Link("data/directory", "d");
  this->tree.Link("data/dangling", "missing");
  EXPECT_EQ(symlink_text, this->Read("file"));
  EXPECT_EQ(symlink_text, this->Read("directory/f"));
  EXPECT_EQ(symlink_text, this->Read("directory"));
  EXPECT_EQ(symlink_text, this->Read("dangling"));
  EXPECT_EQ(symlink_text, this->Listing("directory")[0]);
}

TYPED_TEST(ContainedPath, AllowedLinksAreFollowedToOneOwner) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/d/f", "x");
  this->tree.File("data/d/e/g", "y");
  this->tree.File("outside/f", "outside");
  this->tree.Link("data/file", "d/f");
  this->tree.Link("data/chain", "file");
  this->tree.Link("data/directory", "d");
  this->tree.Link("data/d/up", "../d/e");
  this->tree.Link("data/d/neighbour", "f");
  this->tree.Link("data/absolute", this->tree.path("outside/f"));
  this->tree.Link("data/absolute_directory", this->tree.path("outside"));
  this->tree.Link("data/slash", "d/");
  this->tree.Link("data/dot", "d/.");
  EXPECT_EQ("x", this->Read("file"));
  EXPECT_EQ("x", this->Read("chain"));
  EXPECT_EQ("x", this->Read("directory/f"));
  EXPECT_EQ("y", this->Read("directory/up/g"));
  EXPECT_EQ("y", this->Read("directory/e/g"));
  EXPECT_EQ("x", this->Read("directory/neighbour"));
  EXPECT_EQ("outside", this->Read("absolute"));
  EXPECT_EQ("outside", this->Read("absolute_directory/f"));
  EXPECT_EQ("x", this->Read("slash/f"));
  EXPECT_EQ("x", this->Read("dot/f"));
}

TYPED_TEST(ContainedPath, LinkToAnotherOwnersFileIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  GiveAway(this->tree.File("data/theirs", "theirs"));
  this->tree.Link("data/link", "theirs");
  this->tree.Directory("data/d");
  this->tree.Link("data/d/link", "../theirs");
  EXPECT_EQ("theirs", this->Read("theirs"));  // only the owners of links are checked
  EXPECT_EQ(other_file_text, this->Read("link"));
  EXPECT_EQ(other_file_text, this->Read("d/link"));
  bool exists = false;
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "link", &exists));
  EXPECT_EQ(other_file_text, "[" + this->error() + "]");
  this->Configure(all_links);
  EXPECT_EQ("theirs", this->Read("link"));
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, "link", &exists));
  EXPECT_TRUE(exists);
}

TYPED_TEST(ContainedPath, LinkOfAnotherOwnerToOurFileIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/ours", "ours");
  GiveAway(this->tree.Link("data/link", "ours"));
  EXPECT_EQ(other_file_text, this->Read("link"));
}

TYPED_TEST(ContainedPath, LinkAndFileOfOneOtherOwnerAreAccepted) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  GiveAway(this->tree.File("data/theirs", "theirs"));
  GiveAway(this->tree.Link("data/link", "theirs"));
  EXPECT_EQ("theirs", this->Read("link"));
}

TYPED_TEST(ContainedPath, LinkToAnotherOwnersDirectoryIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/theirs/f", "x");
  GiveAway(this->tree.path("data/theirs"));
  this->tree.Link("data/link", "theirs");
  EXPECT_EQ("x", this->Read("theirs/f"));
  EXPECT_EQ(other_directory_text, this->Read("link/f"));
  EXPECT_EQ(other_directory_text, this->Listing("link")[0]);
  this->Configure(all_links);
  EXPECT_EQ("x", this->Read("link/f"));
}

TYPED_TEST(ContainedPath, ChainIsComparedLinkByLink) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/f", "x");
  this->tree.Link("data/last", "f");
  GiveAway(this->tree.Link("data/middle", "last"));
  this->tree.Link("data/first", "middle");
  bool exists = false;
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "first", &exists));
  EXPECT_EQ(other_file_text, "[" + this->error() + "]");
  EXPECT_EQ(other_file_text, this->Read("first"));
}

TYPED_TEST(ContainedPath, MissingFileIsMissingWhateverLinksMayDo) {
  for (int flags : {0, FileSecurity_DataSymlinks + 0, all_links}) {
    SCOPED_TRACE(flags);
    this->Configure(flags);
    EXPECT_EQ(missing_text, this->Read("missing"));
    EXPECT_FALSE(this->tree.Exists("data/missing"));
  }
}

// The last link is ours and so is the file, but a link on the way to it leads into a directory that
// is not.
TYPED_TEST(ContainedPath, LinkPastAnotherOwnersDirectoryIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/theirs/f", "x");
  GiveAway(this->tree.path("data/theirs"));
  this->tree.Link("data/way", "theirs");
  this->tree.Link("data/link", "way/f");
  EXPECT_EQ("x", this->Read("theirs/f"));
  EXPECT_EQ(other_directory_text, this->Read("link"));
  bool exists = true;
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "link", &exists));
  EXPECT_EQ(other_directory_text, "[" + this->error() + "]");
  this->Configure(all_links);
  EXPECT_EQ("x", this->Read("link"));
}

// More links than the kernel follows, and more than the set of seen ones finds without a hash.
TYPED_TEST(ContainedPath, ChainOfAnyLengthLeadsToItsEnd) {
  const int count = 120;
  const auto name = [](int i) { return "l" + std::to_string(i); };
  for (int flags : {FileSecurity_DataSymlinks + 0, all_links}) {
    SCOPED_TRACE(flags);
    this->Configure(flags);
    if (!this->tree.Exists("data/f")) {
      this->tree.File("data/f", "x");
      this->tree.Link("data/l0", "f");
      for (int i = 1; i < count; i++) {
        this->tree.Link("data/" + name(i), name(i - 1));
      }
      for (int i = 0; i < count; i++) {
        this->tree.Link("data/circle" + name(i), "circle" + name((i + 1) % count));
      }
    }
    EXPECT_EQ("x", this->Read(name(count - 1).c_str()));
    bool exists = false;
    EXPECT_TRUE(this->files.Exists(ZephPath_Data, name(count - 1).c_str(), &exists));
    EXPECT_TRUE(exists);
    EXPECT_EQ(recursive_text, this->Read("circlel0"));
  }
}

TYPED_TEST(ContainedPath, LoopIsRecursiveAtTheEndAndMissingInTheMiddle) {
  for (int flags : {FileSecurity_DataSymlinks + 0, all_links}) {
    SCOPED_TRACE(flags);
    this->Configure(flags);
    if (!this->tree.Exists("data/a")) {
      this->tree.Link("data/a", "b");
      this->tree.Link("data/b", "a");
      this->tree.Link("data/self", "./self");
    }
    EXPECT_EQ(recursive_text, this->Read("a"));
    EXPECT_EQ(recursive_text, this->Read("self"));
    bool exists = true;
    EXPECT_FALSE(this->files.Exists(ZephPath_Data, "b", &exists));
    EXPECT_EQ(recursive_text, "[" + this->error() + "]");
    EXPECT_EQ(missing_directory_text, this->Read("a/f"));
  }
}

TYPED_TEST(ContainedPath, CreatingThroughADanglingLinkFails) {
  for (int flags : {0, FileSecurity_DataSymlinks + 0, all_links}) {
    SCOPED_TRACE(flags);
    this->Configure(flags);
    if (!this->tree.Exists("data/link")) this->tree.Link("data/link", "missing");
    EXPECT_EQ(nullptr, this->files.Open(ZephPath_Data, "link", FileMode_Write | FileMode_Create));
    EXPECT_EQ(flags == 0 ? symlink_text : missing_text, "[" + this->error() + "]");
    EXPECT_FALSE(this->tree.Exists("data/missing"));
  }
}

TYPED_TEST(ContainedPath, CreatesWhereNothingIs) {
  for (int flags : {0, FileSecurity_DataSymlinks + 0, all_links}) {
    SCOPED_TRACE(flags);
    this->Configure(flags);
    std::string name = "new" + std::to_string(flags);
    int mode = FileMode_Write | FileMode_Create;
    std::unique_ptr<File> file(this->files.Open(ZephPath_Data, name.c_str(), mode));
    ASSERT_NE(nullptr, file) << this->error();
    EXPECT_EQ(1, file->Write("x", 1));
    file.reset(this->files.Open(ZephPath_Data, name.c_str(), mode));
    EXPECT_NE(nullptr, file) << this->error();
    file.reset(this->files.Open(ZephPath_Data, name.c_str(), mode | FileMode_Exclusive));
    EXPECT_EQ(nullptr, file);
    EXPECT_EQ("File exists", this->error());
    EXPECT_EQ("x", this->tree.Content("data/" + name));
  }
}

TYPED_TEST(ContainedPath, CreatesThroughALinkedDirectory) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.Directory("data/d");
  this->tree.Link("data/link", "d");
  std::unique_ptr<File> file(
      this->files.Open(ZephPath_Data, "link/new", FileMode_Write | FileMode_Create));
  EXPECT_NE(nullptr, file);
  EXPECT_TRUE(this->tree.Exists("data/d/new"));
}

TYPED_TEST(ContainedPath, WritesThroughALink) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/f", "old");
  this->tree.Link("data/link", "f");
  std::unique_ptr<File> file(this->files.Open(
      ZephPath_Data, "link", FileMode_Write | FileMode_Create | FileMode_Truncate));
  ASSERT_NE(nullptr, file) << this->error();
  EXPECT_EQ(3, file->Write("new", 3));
  EXPECT_EQ("new", this->tree.Content("data/f"));
}

// --- Races at the last element, made by a replaced system call -----------------------------------

// The file of this name changes between the check of the name and its opening.
std::string* race_path;

TYPED_TEST(ContainedPath, FileCreatedMeanwhileIsOpened) {
  this->Configure(FileSecurity_DataSymlinks);
  RestoredSystemCalls restored;
  std::string path = this->tree.path("data/new");
  race_path = &path;
  system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
    if (strcmp(name, "new") == 0 && !race_path->empty()) {
      close(::open(race_path->c_str(), O_CREAT | O_WRONLY, 0600));
      race_path->clear();
    }
    return ::openat(directory, name, flags, mode);
  };
  std::unique_ptr<File> file(
      this->files.Open(ZephPath_Data, "new", FileMode_Write | FileMode_Create));
  EXPECT_NE(nullptr, file) << this->error();
}

TYPED_TEST(ContainedPath, FileCreatedMeanwhileIsNotOpenedExclusively) {
  this->Configure(FileSecurity_DataSymlinks);
  RestoredSystemCalls restored;
  std::string path = this->tree.path("data/new");
  race_path = &path;
  system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
    if (strcmp(name, "new") == 0 && !race_path->empty()) {
      close(::open(race_path->c_str(), O_CREAT | O_WRONLY, 0600));
      race_path->clear();
    }
    return ::openat(directory, name, flags, mode);
  };
  std::unique_ptr<File> file(this->files.Open(
      ZephPath_Data, "new", FileMode_Write | FileMode_Create | FileMode_Exclusive));
  EXPECT_EQ(nullptr, file);
  EXPECT_EQ("File exists", this->error());
}

TYPED_TEST(ContainedPath, LinkPlantedMeanwhileIsJudgedAsALink) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  GiveAway(this->tree.File("outside/theirs", "theirs"));
  RestoredSystemCalls restored;
  std::string path = this->tree.path("data/new");
  race_path = &path;
  system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
    if (strcmp(name, "new") == 0 && !race_path->empty()) {
      EXPECT_EQ(0, symlink("../outside/theirs", race_path->c_str()));
      race_path->clear();
    }
    return ::openat(directory, name, flags, mode);
  };
  std::unique_ptr<File> file(
      this->files.Open(ZephPath_Data, "new", FileMode_Write | FileMode_Create));
  EXPECT_EQ(nullptr, file);
  EXPECT_EQ(other_file_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, FileOfAnotherOwnerPutInPlaceMeanwhileIsRefused) {
  ZEPH_NEEDS_ROOT();
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/f", "ours");
  RestoredSystemCalls restored;
  std::string path = this->tree.path("data/f");
  race_path = &path;
  system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
    if (strcmp(name, "f") == 0) {
      EXPECT_EQ(0, lchown(race_path->c_str(), other_user, other_user));
    }
    return ::openat(directory, name, flags, mode);
  };
  EXPECT_EQ(other_file_text, this->Read("f"));
}

// --- Operations ----------------------------------------------------------------------------------

TYPED_TEST(ContainedPath, ExistsTakesAMissingNameForAnAnswer) {
  this->Configure(0);
  this->tree.File("data/d/f");
  bool exists = false;
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, "d/f", &exists));
  EXPECT_TRUE(exists);
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, "d/missing", &exists));
  EXPECT_FALSE(exists);
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, ".", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "missing/f", &exists));
  EXPECT_EQ(missing_directory_text, "[" + this->error() + "]");
  this->tree.Link("data/link", "d");
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "link", &exists));
  EXPECT_EQ(symlink_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, ExistsOfANameThatNoFileCanHaveFails) {
  this->Configure(0);
  const std::string name(256, 'n');
  bool exists = true;
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, name.c_str(), &exists));
  EXPECT_EQ("File name too long", this->error());
  EXPECT_TRUE(exists);  // untouched
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, name.c_str() + 1, &exists));
  EXPECT_FALSE(exists);
}

TYPED_TEST(ContainedPath, ExistsFollowsAllowedLinks) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("data/d/f");
  this->tree.Link("data/one", "two");
  this->tree.Link("data/two", "d/f");
  this->tree.Link("data/dangling", "missing");
  bool exists = false;
  EXPECT_TRUE(this->files.Exists(ZephPath_Data, "one", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(this->files.Exists(ZephPath_Data, "dangling", &exists));
  EXPECT_EQ(missing_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, QueriesReadTheStatus) {
  this->Configure(0);
  std::string path = this->tree.File("data/f", "12345");
  timespec times[2] = {{1000, 0}, {123456, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  ASSERT_EQ(0, chmod(path.c_str(), 0640));
  long number = 0;
  bool directory = true;
  int mode = 0;
  EXPECT_TRUE(this->files.Length(ZephPath_Data, "f", &number));
  EXPECT_EQ(5, number);
  EXPECT_TRUE(this->files.ModifiedTime(ZephPath_Data, "f", &number));
  EXPECT_EQ(123456, number);
  EXPECT_TRUE(this->files.IsDirectory(ZephPath_Data, "f", &directory));
  EXPECT_FALSE(directory);
  EXPECT_TRUE(this->files.IsDirectory(ZephPath_Data, ".", &directory));
  EXPECT_TRUE(directory);
  EXPECT_TRUE(this->files.Mode(ZephPath_Data, "f", &mode));
  EXPECT_EQ(S_IFREG | 0640, mode);
  EXPECT_TRUE(this->files.ChangeMode(ZephPath_Data, "f", 0600));
  EXPECT_TRUE(this->files.Mode(ZephPath_Data, "f", &mode));
  EXPECT_EQ(S_IFREG | 0600, mode);
  struct stat status;
  EXPECT_TRUE(this->files.Stat(ZephPath_Data, "f", &status));
  EXPECT_EQ(5, status.st_size);
  EXPECT_FALSE(this->files.Length(ZephPath_Data, "missing", &number));
  EXPECT_EQ(missing_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, FifoHoldsNothingUp) {
  this->Configure(0);
  ASSERT_EQ(0, mkfifo(this->tree.path("data/fifo").c_str(), 0600));
  long length = -1;
  EXPECT_TRUE(this->files.Length(ZephPath_Data, "fifo", &length));
  EXPECT_EQ(0, length);
  EXPECT_TRUE(this->files.ChangeMode(ZephPath_Data, "fifo", 0640));
  EXPECT_FALSE(this->files.TouchFile(ZephPath_Data, "fifo"));
  EXPECT_EQ("No such device or address", this->error());
  EXPECT_NE("x", this->Read("fifo/x"));
  EXPECT_NE("x", this->Read("fifo/x/y"));
  EXPECT_FALSE(this->files.Delete(ZephPath_Data, "fifo/x"));
}

TYPED_TEST(ContainedPath, OpeningAFifoDoesNotWait) {
  this->Configure(all_links);
  ASSERT_EQ(0, mkfifo(this->tree.path("data/fifo").c_str(), 0600));
  this->tree.Link("data/link", "fifo");
  this->tree.File("data/f", "text");
  for (const char* name : {"fifo", "link"}) {
    EXPECT_EQ("", this->Read(name)) << "nothing comes while no one writes";
    for (int mode : {FileMode_Write + 0, FileMode_Write | FileMode_Create | FileMode_Append,
                     FileMode_Write | FileMode_Create | FileMode_Truncate}) {
      const std::unique_ptr<File> file(this->files.Open(ZephPath_Data, name, mode));
      EXPECT_EQ(nullptr, file);
      EXPECT_EQ("No such device or address", this->error());
    }
    EXPECT_FALSE(this->files.Copy(ZephPath_Data, "f", ZephPath_Data, name));
    EXPECT_TRUE(this->files.Copy(ZephPath_Data, name, ZephPath_Data, "copy"));
    EXPECT_EQ("", this->tree.Content("data/copy"));
  }
  const FileDescriptor other_end(
      open(this->tree.path("data/fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  EXPECT_EQ("[Resource temporarily unavailable]", this->Read("fifo"));
  const std::unique_ptr<File> file(
      this->files.Open(ZephPath_Data, "fifo", FileMode_Write | FileMode_Append));
  ASSERT_NE(nullptr, file) << this->error();
  EXPECT_EQ(3, file->Write("abc", 3));
  EXPECT_EQ("abc", this->Read("fifo"));
  const std::string much(1 << 20, 'x');
  EXPECT_LT(file->Write(much.data(), 1 << 20), 1 << 20) << "no more than the pipe holds";
  EXPECT_EQ(-1, file->Write("x", 1));
}

TYPED_TEST(ContainedPath, ADeviceIsOpenedAsItIs) {
  this->Configure(all_links);
  this->tree.Link("data/null", "/dev/null");
  EXPECT_EQ("", this->Read("null"));
  const std::unique_ptr<File> file(this->files.Open(ZephPath_Data, "null", FileMode_Write));
  ASSERT_NE(nullptr, file) << this->error();
  EXPECT_EQ(3, file->Write("abc", 3));
}

TYPED_TEST(ContainedPath, DeleteMakeAndRemove) {
  this->Configure(0);
  EXPECT_TRUE(this->files.MakeDirectory(ZephPath_Data, "d"));
  EXPECT_TRUE(this->files.MakeDirectory(ZephPath_Data, "d/e"));
  EXPECT_FALSE(this->files.MakeDirectory(ZephPath_Data, "d"));
  EXPECT_EQ("File exists", this->error());
  EXPECT_FALSE(this->files.RemoveDirectory(ZephPath_Data, "d"));
  EXPECT_EQ("Directory not empty", this->error());
  EXPECT_TRUE(this->files.RemoveDirectory(ZephPath_Data, "d/e"));
  this->tree.File("data/d/f");
  EXPECT_TRUE(this->files.Delete(ZephPath_Data, "d/f"));
  EXPECT_FALSE(this->files.Delete(ZephPath_Data, "d/f"));
  EXPECT_EQ(missing_text, "[" + this->error() + "]");
  EXPECT_FALSE(this->files.Delete(ZephPath_Data, "missing/f"));
  EXPECT_EQ(missing_directory_text, "[" + this->error() + "]");
  EXPECT_FALSE(this->files.Delete(ZephPath_Data, "../outside"));
  EXPECT_FALSE(this->files.MakeDirectory(ZephPath_Data, "../new"));
  EXPECT_FALSE(this->tree.Exists("new"));
}

TYPED_TEST(ContainedPath, DeleteRemovesALinkAndNotItsTarget) {
  this->Configure(0);
  this->tree.File("data/f", "x");
  this->tree.Link("data/link", "f");
  EXPECT_TRUE(this->files.Delete(ZephPath_Data, "link"));
  EXPECT_FALSE(this->tree.Exists("data/link"));
  EXPECT_TRUE(this->tree.Exists("data/f"));
}

TYPED_TEST(ContainedPath, CopiesBetweenTypes) {
  this->Configure(0);
  this->tree.File("script/f", "content");
  EXPECT_TRUE(this->files.Copy(ZephPath_Script, "f", ZephPath_Data, "copy"));
  EXPECT_EQ("content", this->tree.Content("data/copy"));
  EXPECT_FALSE(this->files.Copy(ZephPath_Script, ".", ZephPath_Data, "copy"));
  EXPECT_EQ("The source file is a directory", this->error());
  EXPECT_EQ("content", this->tree.Content("data/copy"));
  EXPECT_FALSE(this->files.Copy(ZephPath_Script, "missing", ZephPath_Data, "copy"));
  EXPECT_EQ("content", this->tree.Content("data/copy"));
}

TYPED_TEST(ContainedPath, RenamesBetweenTypes) {
  this->Configure(0);
  this->tree.File("script/f", "content");
  EXPECT_TRUE(this->files.Rename(ZephPath_Script, "f", ZephPath_Data, "moved"));
  EXPECT_EQ("content", this->tree.Content("data/moved"));
  EXPECT_FALSE(this->tree.Exists("script/f"));
}

TYPED_TEST(ContainedPath, FailedRenameKeepsTheOlderText) {
  this->Configure(0);
  this->files.Error("older");
  EXPECT_FALSE(this->files.Rename(ZephPath_Data, "missing", ZephPath_Data, "to"));
  EXPECT_EQ("older", this->error());
  EXPECT_FALSE(this->files.Rename(ZephPath_Data, "missing/f", ZephPath_Data, "to"));
  EXPECT_EQ(missing_directory_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, RenameAcrossFileSystemsCopiesAndDeletes) {
  this->Configure(0);
  this->tree.File("script/f", "content");
  RestoredSystemCalls restored;
  system_calls.renameat = [](int, const char*, int, const char*) {
    errno = EXDEV;
    return -1;
  };
  EXPECT_TRUE(this->files.Rename(ZephPath_Script, "f", ZephPath_Data, "moved"));
  EXPECT_EQ("content", this->tree.Content("data/moved"));
  EXPECT_FALSE(this->tree.Exists("script/f"));
}

TYPED_TEST(ContainedPath, RenameAcrossFileSystemsKeepsTheSourceOfAFailedCopy) {
  this->Configure(0);
  this->tree.File("script/f", "content");
  RestoredSystemCalls restored;
  system_calls.renameat = [](int, const char*, int, const char*) {
    errno = EXDEV;
    return -1;
  };
  system_calls.write = [](int, const void*, size_t) {
    errno = ENOSPC;
    return ssize_t{-1};
  };
  EXPECT_FALSE(this->files.Rename(ZephPath_Script, "f", ZephPath_Data, "moved"));
  EXPECT_EQ("No space left on device", this->error());
  EXPECT_TRUE(this->tree.Exists("script/f"));
}

TYPED_TEST(ContainedPath, TouchCreatesAndRefreshes) {
  this->Configure(0);
  mode_t saved = umask(0);
  EXPECT_TRUE(this->files.TouchFile(ZephPath_Data, "new"));
  umask(saved);
  int mode = 0;
  EXPECT_TRUE(this->files.Mode(ZephPath_Data, "new", &mode));
  EXPECT_EQ(0666, mode & 0777);
  std::string path = this->tree.File("data/f", "x");
  timespec times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  EXPECT_TRUE(this->files.TouchFile(ZephPath_Data, "f"));
  long modified = 0;
  EXPECT_TRUE(this->files.ModifiedTime(ZephPath_Data, "f", &modified));
  EXPECT_GT(modified, 1000);
  EXPECT_EQ("x", this->tree.Content("data/f"));
}

TYPED_TEST(ContainedPath, MakesLinksWithTheTextOfTheBase) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.File("script/d/f", "x");
  EXPECT_TRUE(this->files.MakeSymbolicLink(ZephPath_Script, "d/./f", ZephPath_Data, "link"));
  EXPECT_EQ(this->tree.path("script/d/f"),
            std::filesystem::read_symlink(this->tree.path("data/link")).string());
  EXPECT_EQ("x", this->Read("link"));
  // The target of the link is not checked; following the link is.
  EXPECT_TRUE(this->files.MakeSymbolicLink(ZephPath_Script, "../outside", ZephPath_Data, "out"));
  EXPECT_EQ(this->tree.path("outside"),
            std::filesystem::read_symlink(this->tree.path("data/out")).string());
  this->files.Error("older");
  EXPECT_FALSE(this->files.MakeSymbolicLink(ZephPath_Script, "d", ZephPath_Data, "link"));
  EXPECT_EQ("older", this->error());
  EXPECT_FALSE(this->files.MakeSymbolicLink(ZephPath_Script, "d", ZephPath_Data, "../link"));
  EXPECT_EQ(outside_data_text, "[" + this->error() + "]");
}

TYPED_TEST(ContainedPath, ListingHasEveryEntryInTheSystemsOrder) {
  this->Configure(0);
  for (int i = 0; i < 200; i++) this->tree.File("data/d/f" + std::to_string(i));
  std::vector<std::string> expected;
  DIR* stream = opendir(this->tree.path("data/d").c_str());
  while (dirent* entry = readdir(stream)) expected.push_back(entry->d_name);
  closedir(stream);
  ASSERT_EQ(202u, expected.size());
  EXPECT_EQ(expected, this->Listing("d"));
  EXPECT_EQ(expected, this->Listing("/d/"));
  bool plain = std::is_same_v<TypeParam, UNIXFileManager>;
  EXPECT_EQ(plain ? missing_directory_text : "[Not a directory]", this->Listing("d/f0")[0]);
}

TYPED_TEST(ContainedPath, BaseDirectoryIsListedAgainAndAgain) {
  this->Configure(0);
  this->tree.File("data/f");
  for (const char* path : {".", "", "/", "."}) {
    SCOPED_TRACE(path);
    std::vector<std::string> names = this->Listing(path);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{".", "..", "f"}), names);
  }
}

TYPED_TEST(ContainedPath, TemporaryFilesTakeTheFirstFreeNumber) {
  this->Configure(0);
  this->tree.Directory("data/dir");
  struct Case {
    const char* directory;
    const char* name;
  } cases[] = {
      {"dir", "dir/base.0"}, {"dir", "dir/base.1"}, {"dir/", "dir/base.2"}, {".", "base.0"},
      {"", "base.1"},        {nullptr, "base.2"},   {"/", "/base.3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    char* name = nullptr;
    std::unique_ptr<File> file(
        this->files.MakeTemporary(ZephPath_Data, c.directory, "base", &name, FileMode_Write));
    ASSERT_NE(nullptr, file) << this->error();
    std::unique_ptr<char[]> guard(name);
    EXPECT_STREQ(c.name, name);
    EXPECT_STREQ(c.name, file->path());
    EXPECT_TRUE(file->contained());
    EXPECT_TRUE(this->tree.Exists(std::string("data/") + c.name));
  }
}

// The meaning of a directory's path, found in another way than the managers do: its text is inside
// if the standard library says so, and the directory on the disk is inside if realpath says so.
struct DirectoryModel {
  std::filesystem::path base;

  std::filesystem::path Joined(const std::string& path) const {
    return base / path.substr(std::min(path.find_first_not_of('/'), path.size()));
  }
  static bool Within(const std::filesystem::path& base, const std::filesystem::path& path) {
    return std::mismatch(base.begin(), base.end(), path.begin(), path.end()).first == base.end();
  }
  bool InsideByText(const std::string& path) const {
    return Within(base, (Joined(path) / "x").lexically_normal().parent_path());
  }
  // Checks each prefix of the path, before the next element is entered. The plain manager instead
  // compares the directory that it reaches with the text, so it does not see a link that made no
  // difference.
  bool MeetsLink(const std::string& path, bool plain) const {
    if (plain) return (Joined(path) / "x").lexically_normal().parent_path() != Real(path);
    std::filesystem::path prefix;
    for (const auto& element : Joined(path)) {
      prefix /= element;
      if (std::filesystem::is_symlink(prefix)) return true;
    }
    return false;
  }
  // The real path of the directory; empty if there is none.
  std::string Real(const std::string& path) const {
    std::unique_ptr<char, void (*)(void*)> real(realpath(Joined(path).c_str(), nullptr), free);
    return real && std::filesystem::is_directory(real.get()) ? real.get() : "";
  }
};

TYPED_TEST(ContainedPath, DirectoriesOfAnyPathAreThoseOfTheText) {
  this->Configure(0);
  this->tree.File("data/a/b/f", "x");
  this->tree.File("data/c/f", "x");
  this->tree.File("other/data/a/f", "x");
  this->tree.Directory("data/data/other");
  this->tree.Link("data/in", "a");
  this->tree.Link("data/out", "../outside");
  this->tree.Link("data/a/up", "..");
  this->tree.Link("link", "data");
  const std::string root = std::filesystem::canonical(this->tree.path());
  ASSERT_EQ(this->tree.path(), root) << "the model wants a base without links";
  const DirectoryModel model{root + "/data"};
  const std::string tree_name = std::filesystem::path(root).filename();
  std::vector<std::string> paths = {
      "../other/../data",
      "../other/../data/a",
      "../other/data/../../data/a/../c",
      "../outside/../data/../data/a/b/..",
      "../../" + tree_name + "/data",
      "../../" + tree_name + "/other/../data/a",
      "../../" + tree_name + "/../" + tree_name + "/data/c",
      "../other/data",
      "../data/../other",
      "a/../../data/../other/data/a",
      "../data/out",
      "../data/in/../../other",
      "../link",
      "../link/../data",
      "out/..",
      "out/../data/a",
      "a/up/../other",
      "a/up/..",
      "in/..",
      "../missing/../data",
      "/../other/../data",
      "..",
      "../..",
      "../other/..",
  };
  // Add random paths of a few elements.
  const char* const elements[] = {"..", "..", "data", "other", "a", "b", "in", "out", "up", "."};
  std::mt19937 random(20261122);
  for (int i = 0; i < 3000; i++) {
    std::string path;
    for (size_t n = 1 + random() % 7; n > 0; n--) {
      path += elements[random() % std::size(elements)];
      if (n > 1) path += '/';
    }
    paths.push_back(path);
  }
  const bool plain = std::is_same_v<TypeParam, UNIXFileManager>;
  int inside = 0;
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const std::string real = model.Real(path);
    const bool may = model.InsideByText(path) && !model.MeetsLink(path, plain) && real != "";
    std::vector<std::string> expected;
    if (may) {
      for (const auto& entry : std::filesystem::directory_iterator(real))
        expected.push_back(entry.path().filename());
      expected.insert(expected.end(), {".", ".."});
      ASSERT_TRUE(DirectoryModel::Within(model.base, real));
      inside++;
    }
    std::vector<std::string> listed = this->Listing(path.c_str());
    if (!may) {
      ASSERT_TRUE(listed.size() == 1 && listed[0][0] == '[') << listed[0];
      if (!model.InsideByText(path)) {
        EXPECT_EQ(outside_data_text, listed[0]);
      }
    } else {
      std::sort(expected.begin(), expected.end());
      std::sort(listed.begin(), listed.end());
      EXPECT_EQ(expected, listed);
    }
    char* name = nullptr;
    std::unique_ptr<File> file(
        this->files.MakeTemporary(ZephPath_Data, path.c_str(), "t", &name, FileMode_Write));
    const std::unique_ptr<char[]> guard(name);
    EXPECT_EQ(may, file != nullptr) << this->error();
    if (file) {
      EXPECT_EQ(0, unlink((real + "/t.0").c_str()));
    }
    if constexpr (!std::is_same_v<TypeParam, UNIXFileManager>) {
      int descriptor = -1;
      EXPECT_EQ(may, this->files.OpenContainedPath(ZephPath_Data, path.c_str(), &descriptor));
      const FileDescriptor opened(descriptor);
      if (may) {
        EXPECT_EQ(real,
                  std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
      }
    }
    ASSERT_FALSE(this->HasFailure());
  }
  EXPECT_GT(inside, 200);
}

TYPED_TEST(ContainedPath, TemporaryNumbersAreHexadecimal) {
  this->Configure(0);
  for (const char* digit : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"})
    this->tree.File(std::string("data/t.") + digit);
  char* name = nullptr;
  std::unique_ptr<File> file(
      this->files.MakeTemporary(ZephPath_Data, "", "t", &name, FileMode_Write));
  std::unique_ptr<char[]> guard(name);
  EXPECT_STREQ("t.a", name);
}

TYPED_TEST(ContainedPath, TemporaryLikeAFileIsBesideIt) {
  this->Configure(0);
  this->tree.Directory("data/dir");
  for (const char* expected : {"dir/base.0", "dir/base.1"}) {
    char* name = nullptr;
    std::unique_ptr<File> file(this->files.MakeTemporaryLike(ZephPath_Data, "dir/x/../base", &name,
                                                             FileMode_Read | FileMode_Write));
    ASSERT_NE(nullptr, file) << this->error();
    std::unique_ptr<char[]> guard(name);
    EXPECT_STREQ(expected, name);
    EXPECT_EQ(1, file->Write("x", 1));
    this->files.DeactivateFile(file.get());
    EXPECT_EQ(1, file->Tell());
  }
  char* name = nullptr;
  std::unique_ptr<File> file(
      this->files.MakeTemporaryLike(ZephPath_Data, "base", &name, FileMode_Write));
  std::unique_ptr<char[]> guard(name);
  EXPECT_STREQ("base.0", name);
}

TYPED_TEST(ContainedPath, TemporaryNameSkipsDanglingLinks) {
  this->Configure(FileSecurity_DataSymlinks);
  this->tree.Link("data/t.0", "missing");
  char* name = nullptr;
  std::unique_ptr<File> file(
      this->files.MakeTemporary(ZephPath_Data, "", "t", &name, FileMode_Write));
  std::unique_ptr<char[]> guard(name);
  EXPECT_STREQ("t.1", name);
  EXPECT_FALSE(this->tree.Exists("data/missing"));
}

TYPED_TEST(ContainedPath, TemporaryRefusesBadPrefixesAndDirectories) {
  this->Configure(0);
  char* name = nullptr;
  EXPECT_EQ(nullptr, this->files.MakeTemporary(ZephPath_Data, "", "a/b", &name, FileMode_Write));
  EXPECT_EQ("Invalid temporary filename prefix", this->error());
  EXPECT_EQ(nullptr, this->files.MakeTemporary(ZephPath_Data, "no", "a", &name, FileMode_Write));
  EXPECT_EQ(missing_directory_text, "[" + this->error() + "]");
  EXPECT_EQ(nullptr, this->files.MakeTemporary(ZephPath_Data, "..", "a", &name, FileMode_Write));
  EXPECT_EQ(outside_data_text, "[" + this->error() + "]");
  EXPECT_EQ(nullptr, name);
}

TYPED_TEST(ContainedPath, TemporaryStopsAtAnErrorOfTheSystem) {
  this->Configure(0);
  RestoredSystemCalls restored;
  system_calls.openat = [](int, const char*, int, mode_t) {
    errno = EACCES;
    return -1;
  };
  char* name = nullptr;
  EXPECT_EQ(nullptr, this->files.MakeTemporary(ZephPath_Data, "", "t", &name, FileMode_Write));
  EXPECT_EQ("Permission denied", this->error());
}

// Tries at most three names.
class FewTemporaries : public UNIXReentrantFileManager {
 public:
  explicit FewTemporaries(ZephApplication* application) : UNIXReentrantFileManager(application) {
    temporary_limit = 3;
  }
  ~FewTemporaries() override { temporary_limit = 0x7FFFFFFE; }
};

using FewTemporaryNames = ContainedFixture<FewTemporaries>;

TEST_F(FewTemporaryNames, ComeToAnEnd) {
  Configure(0);
  char* name = nullptr;
  for (const char* expected : {"t.0", "t.1", "t.2"}) {
    delete files.MakeTemporary(ZephPath_Data, "", "t", &name, FileMode_Write);
    std::unique_ptr<char[]> guard(name);
    EXPECT_STREQ(expected, name);
  }
  EXPECT_EQ(nullptr, files.MakeTemporary(ZephPath_Data, "", "t", &name, FileMode_Write));
  EXPECT_EQ("Unable to generate unique temporary filename", error());
}

// --- The pool and copies -------------------------------------------------------------------------

TYPED_TEST(ContainedPath, OpeningAndActivatingKeepToTheLimit) {
  this->Configure(0);
  this->files.MaxFiles(1);
  this->tree.File("data/d/a", "a");
  this->tree.File("data/d/b", "b");
  std::unique_ptr<File> a(this->files.Open(ZephPath_Data, "d/a", FileMode_Read));
  std::unique_ptr<File> b(this->files.Open(ZephPath_Data, "d/b", FileMode_Read));
  char byte;
  EXPECT_EQ(1, a->Read(&byte, 1));
  EXPECT_EQ('a', byte);
  EXPECT_EQ(1, b->Read(&byte, 1));
  EXPECT_EQ('b', byte);
  EXPECT_EQ(1, a->Tell());
}

TYPED_TEST(ContainedPath, CopyForATaskHasItsOwnDescriptors) {
  this->Configure(FileSecurity_DataSymlinks, true);
  this->tree.File("data/d/f", "x");
  this->tree.Link("data/link", "d/f");
  this->files.MaxFiles(7);
  TestApplication other_application;
  auto copy = std::make_unique<TypeParam>(&other_application, this->files);
  // Each closes its own descriptors: a later change to the source does not affect the copy.
  EXPECT_FALSE(this->files.InitializeDataDirectory(nullptr));
  bool exists = false;
  EXPECT_TRUE(copy->Exists(ZephPath_Data, "link", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(copy->FreeFileSpace(8));
  EXPECT_EQ(&other_application, copy->application());
  _UNIXContainedPathSettings settings;
  EXPECT_TRUE(copy->ContainedPathSettings(ZephPath_Script, &settings));
  EXPECT_EQ(this->tree.path("script"), settings.path->value());
  copy.reset();
  this->tree.File("script/s", "script");
  EXPECT_EQ("script", this->Read("s", ZephPath_Script));
}

// --- The working directory -----------------------------------------------------------------------

TYPED_TEST(ContainedPath, WorkingDirectoryIsSavedAndRestored) {
  std::filesystem::path before = std::filesystem::current_path();
  int saved = this->files.SaveCurrentDirectory();
  ASSERT_GE(saved, 0);
  std::filesystem::current_path(this->tree.path());
  EXPECT_EQ(0, this->files.RestoreCurrentDirectory(saved));
  EXPECT_EQ(before, std::filesystem::current_path());
  EXPECT_EQ(-1, fcntl(saved, F_GETFD));
  EXPECT_EQ(-1, this->files.RestoreCurrentDirectory(-1));
}

TYPED_TEST(ContainedPath, RealPathIsWhatTheSystemCallsIt) {
  this->tree.Directory("data/d");
  this->tree.Link("data/link", "d");
  std::filesystem::path before = std::filesystem::current_path();
  UNIXFilePath* real = nullptr;
  EXPECT_EQ(PathWalk_Done,
            this->files.RealizePath(this->tree.path("data/d/../d").c_str(), &real, false, false));
  ASSERT_NE(nullptr, real);
  EXPECT_EQ(this->tree.path("data/d"), real->value());
  delete real;
  real = nullptr;
  std::string link = this->tree.path("data/link");
  EXPECT_EQ(PathWalk_Symlink, this->files.RealizePath(link.c_str(), &real, false, false));
  EXPECT_EQ(PathWalk_Done, this->files.RealizePath(link.c_str(), &real, true, false));
  EXPECT_EQ(this->tree.path("data/d"), real->value());
  delete real;
  real = nullptr;
  EXPECT_EQ(PathWalk_NotFound, this->files.RealizePath("/missing/d", &real, true, true));
  EXPECT_EQ(nullptr, real);
  EXPECT_EQ(before, std::filesystem::current_path());
}

TYPED_TEST(ContainedPath, RealContainedPathKeepsToTheRules) {
  this->Configure(0);
  this->tree.Directory("data/d");
  this->tree.Link("data/link", "d");
  UNIXFilePath* real = nullptr;
  ASSERT_TRUE(this->files.RealizeContainedPath(ZephPath_Data, "/d", &real));
  EXPECT_EQ(this->tree.path("data/d"), real->value());
  delete real;
  ASSERT_TRUE(this->files.RealizeContainedPath(ZephPath_Data, nullptr, &real));
  EXPECT_EQ(this->tree.path("data"), real->value());
  delete real;
  EXPECT_FALSE(this->files.RealizeContainedPath(ZephPath_Data, "link", &real));
  EXPECT_EQ(symlink_text, "[" + this->error() + "]");
  EXPECT_FALSE(this->files.RealizeContainedPath(ZephPath_Data, "..", &real));
  EXPECT_EQ(outside_data_text, "[" + this->error() + "]");
}

}  // namespace
