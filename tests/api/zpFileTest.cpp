#include "api/zeph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/api/ProgramFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::UnorderedElementsAre;

constexpr char outside_script[] =
    "The specified path references a path outside the configured script directory";

// A running script dir/page.zpc, with a script directory and a data directory.
class zpFile : public ProgramFixture {
 protected:
  zpFile() : manager(&application) {
    application.SetFileManager(&manager);
    manager.InitializeScriptDirectory(directory.Directory("scripts").c_str(), nullptr);
    manager.InitializeDataDirectory(directory.Directory("data").c_str());
    directory.File("scripts/dir/beside", "beside the script");
    directory.File("scripts/top", "top");
    directory.File("data/plain", "plain");
  }

  // Runs the body inside the script.
  void Inside(std::function<void(ZPPROGRAM)> body) {
    EXPECT_EQ(Call([&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) { body(program); }), 1);
  }
  static std::string Read(ZPFILE file) {
    if (!file) return "(null)";
    char buffer[256];
    int length = zpFile_Read(file, buffer, sizeof buffer);
    zpFile_Close(file);
    return std::string(buffer, static_cast<size_t>(std::max(length, 0)));
  }
  static std::string Error(ZPPROGRAM program, ZPFILE file = nullptr) {
    int length = -1;
    const char* text = zpFile_Error(program, file, &length);
    EXPECT_STREQ(zpFile_Error(program, file, nullptr), text);
    return text ? std::string(text, static_cast<size_t>(length)) : "";
  }

  TemporaryDirectory directory;
  UNIXReentrantFileManager manager;
};

TEST_F(zpFile, ARelativePathOfTheScriptLocationBeginsBesideTheScript) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_SCRIPT, "beside", -1, ZPFILE_READ)),
              "beside the script");
    EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_SCRIPT, "../top and more", 6, ZPFILE_READ)), "top");
    EXPECT_EQ(zpFile_Open(program, ZPFILE_SCRIPT, "../../data/plain", -1, ZPFILE_READ), nullptr);
    EXPECT_EQ(Error(program), outside_script);
  });
}

TEST_F(zpFile, AnAbsolutePathOfTheScriptLocationGoesThroughTheSandboxAsItIs) {
  Inside([this](ZPPROGRAM program) {
    EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_SCRIPT, "/top", -1, ZPFILE_READ)), "top");
    EXPECT_EQ(zpFile_Open(program, ZPFILE_SCRIPT, "/beside", -1, ZPFILE_READ), nullptr);
    EXPECT_EQ(Error(program), "No such file or directory");
    manager.SecurityOptions(FileSecurity_ScriptAbsolute);
    EXPECT_EQ(zpFile_Open(program, ZPFILE_SCRIPT, "/etc/passwd", -1, ZPFILE_READ), nullptr);
    EXPECT_EQ(Error(program), outside_script);
    EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_SCRIPT, directory.path("scripts/top").c_str(), -1,
                               ZPFILE_READ)),
              "top");
  });
}

TEST_F(zpFile, EveryOtherLocationIsTheDataDirectory) {
  Inside([](ZPPROGRAM program) {
    for (int location : {int(ZPFILE_DATA), 2, 4, -1, int(ZPFILE_COMMERCE)}) {
      SCOPED_TRACE(location);
      EXPECT_EQ(Read(zpFile_Open(program, location, "plain", -1, ZPFILE_READ)), "plain");
    }
  });
}

TEST_F(zpFile, TheCommerceLocationHasADirectoryInFront) {
  directory.File("data/shop/item", "item");
  Inside([this](ZPPROGRAM program) {
    const struct {
      const char* directory;
      const char* path;
      const char* content;
    } cases[] = {
        {"shop", "item", "item"},   {"shop/", "item", "item"}, {"shop", "/item", "item"},
        {"shop/", "/item", "item"}, {"", "plain", "plain"},
    };
    for (const auto& each : cases) {
      SCOPED_TRACE(each.directory);
      application.config()->SetValue(Config_dir_commerce, each.directory,
                                     static_cast<int>(strlen(each.directory)), 0);
      EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_COMMERCE, each.path, -1, ZPFILE_READ)),
                each.content);
      EXPECT_EQ(Read(zpFile_Open(program, ZPFILE_DATA, "plain", -1, ZPFILE_READ)), "plain");
    }
  });
}

TEST_F(zpFile, FilesAreWrittenAndRead) {
  Inside([this](ZPPROGRAM program) {
    ZPFILE file = zpFile_Open(program, ZPFILE_DATA, "new", -1, ZPFILE_WRITE | ZPFILE_CREATE);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zpFile_Write(file, "0123456789", 10), 10);
    EXPECT_EQ(zpFile_Tell(file), 10);
    EXPECT_EQ(zpFile_Length(file), 10);
    EXPECT_EQ(zpFile_Seek(file, 4), 4);
    EXPECT_EQ(zpFile_Write(file, "x", 1), 1);
    EXPECT_EQ(zpFile_OwnerID(file), static_cast<int>(geteuid()));
    EXPECT_EQ(zpFile_GroupID(file), static_cast<int>(getegid()));
    zpFile_Close(file);
    EXPECT_EQ(directory.Content("data/new"), "0123x56789");
    file = zpFile_Open(program, ZPFILE_DATA, "new", -1, ZPFILE_READ);
    EXPECT_EQ(zpFile_Write(file, "x", 1), -1);
    EXPECT_EQ(Error(program, file), "Bad file descriptor");
    zpFile_Close(file);
  });
}

TEST_F(zpFile, AWholeFileIsLocked) {
  Inside([](ZPPROGRAM program) {
    ZPFILE file = zpFile_Open(program, ZPFILE_DATA, "plain", -1, ZPFILE_READ | ZPFILE_WRITE);
    ASSERT_NE(file, nullptr);
    for (int type : {2, 1, 0, 3}) {
      SCOPED_TRACE(type);
      EXPECT_EQ(zpFile_Lock(file, type), 0);
      EXPECT_TRUE(file->locked());
      EXPECT_EQ(zpFile_Release(file), 0);
      EXPECT_FALSE(file->locked());
    }
    zpFile_Close(file);
    // Type 2 is exclusive, so it needs a writable file.
    file = zpFile_Open(program, ZPFILE_DATA, "plain", -1, ZPFILE_READ);
    EXPECT_EQ(zpFile_Lock(file, 1), 0);
    EXPECT_EQ(zpFile_Lock(file, 2), -1);
    zpFile_Close(file);
  });
}

TEST_F(zpFile, NamesAreWorkedOn) {
  Inside([this](ZPPROGRAM program) {
    const int data = ZPFILE_DATA;
    EXPECT_EQ(zpFile_Exists(program, data, "plain", -1), 1);
    EXPECT_EQ(zpFile_Exists(program, data, "nowhere", -1), 0);
    EXPECT_EQ(zpFile_Exists(program, data, "../x", -1), -1);
    EXPECT_EQ(zpFile_Size(program, data, "plain", -1), 5);
    EXPECT_EQ(zpFile_Size(program, data, "nowhere", -1), -1);
    EXPECT_EQ(zpFile_IsDirectory(program, data, "plain", -1), 0);
    EXPECT_EQ(zpFile_IsDirectory(program, data, "nowhere", -1), -1);
    EXPECT_GT(zpFile_Time(program, data, "plain", -1), 1500000000);
    EXPECT_EQ(zpFile_Time(program, data, "nowhere", -1), -1);
    EXPECT_EQ(zpFile_Change_Mode(program, data, "plain", -1, 0640), 0);
    EXPECT_EQ(zpFile_Mode(program, data, "plain", -1), S_IFREG | 0640);
    EXPECT_EQ(zpFile_Mode(program, data, "nowhere", -1), -1);
    EXPECT_EQ(zpFile_Change_Mode(program, data, "nowhere", -1, 0640), -1);

    EXPECT_EQ(zpFile_MakeDirectory(program, data, "folder", -1), 0);
    EXPECT_EQ(zpFile_MakeDirectory(program, data, "folder", -1), -1);
    EXPECT_EQ(zpFile_IsDirectory(program, data, "folder", -1), 1);
    EXPECT_EQ(zpFile_Copy(program, ZPFILE_SCRIPT, "beside", -1, data, "folder/copy", -1), 0);
    EXPECT_EQ(directory.Content("data/folder/copy"), "beside the script");
    EXPECT_EQ(zpFile_Rename(program, data, "folder/copy", -1, data, "renamed", -1), 0);
    EXPECT_EQ(zpFile_Rename(program, data, "folder/copy", -1, data, "renamed", -1), -1);
    EXPECT_EQ(zpFile_RemoveDirectory(program, data, "folder", -1), 0);
    EXPECT_EQ(zpFile_Delete(program, data, "renamed and more", 7), 0);
    EXPECT_EQ(zpFile_Delete(program, data, "renamed", -1), -1);
    EXPECT_EQ(Error(program), "No such file or directory");
    EXPECT_EQ(zpFile_TouchFile(program, data, "touched", -1), 0);
    EXPECT_TRUE(directory.Exists("data/touched"));
    EXPECT_EQ(zpFile_MakeSymbolicLink(program, data, "plain", -1, data, "link", -1), 0);
    EXPECT_TRUE(directory.Exists("data/link"));
    EXPECT_EQ(zpFile_LockFile(program, data, "lock", -1), 0);
    EXPECT_TRUE(directory.Exists("data/lock"));
    EXPECT_EQ(zpFile_Delete(program, data, "lock", -1), 0);
    EXPECT_EQ(zpFile_Path_Separator(program), '/');
  });
}

TEST_F(zpFile, TemporaryFilesGetANameOfTheirOwn) {
  Inside([](ZPPROGRAM program) {
    char* name = nullptr;
    ZPFILE file = zpFile_MakeTemporary(program, ZPFILE_DATA, "", -1, "prefix and more", 6, &name,
                                       ZPFILE_WRITE);
    ASSERT_NE(file, nullptr);
    zpFile_Close(file);
    EXPECT_THAT(name, testing::HasSubstr("prefix"));
    EXPECT_THAT(name, testing::Not(testing::HasSubstr("more")));
    EXPECT_EQ(zpFile_Exists(program, ZPFILE_DATA, name, -1), 1);
    zpProgram_Free(program, name);
    // A caller may do without the name.
    zpFile_Close(
        zpFile_MakeTemporary(program, ZPFILE_DATA, "", -1, "p", -1, nullptr, ZPFILE_WRITE));
    EXPECT_EQ(
        zpFile_MakeTemporary(program, ZPFILE_DATA, "nowhere", -1, "p", -1, &name, ZPFILE_WRITE),
        nullptr);
  });
}

TEST_F(zpFile, DirectoriesAreListed) {
  directory.File("data/folder/one");
  directory.File("data/folder/two");
  Inside([](ZPPROGRAM program) {
    ZPVARIABLELIST list = zpVariableList_Allocate();
    EXPECT_EQ(zpDirectory_Listing(program, ZPFILE_DATA, "folder", -1, list), 0);
    std::vector<std::string> names;
    for (ZPVARIABLE v = zpVariableList_First(list); v; v = zpVariableList_Next(list)) {
      names.push_back(TextOf(zpVariable_Value, v));
    }
    EXPECT_THAT(names, UnorderedElementsAre(".", "..", "one", "two"));
    EXPECT_EQ(zpDirectory_Listing(program, ZPFILE_DATA, "nowhere", -1, list), -1);
    EXPECT_EQ(zpVariableList_Entries(list), 4);
    zpVariableList_Free(list);
  });
}

TEST_F(zpFile, PathsAreNormalized) {
  Inside([](ZPPROGRAM program) {
    int length;
    char* path = zpFile_NormalizePath(program, ZPFILE_DATA, "/a/./b/../c", -1, &length);
    EXPECT_EQ(std::string(path, static_cast<size_t>(length)), "a/c");
    zpProgram_Free(program, path);
    path = zpFile_NormalizePath(program, ZPFILE_SCRIPT, "x//y", -1, nullptr);
    EXPECT_STREQ(path, "dir/x/y");
    zpProgram_Free(program, path);
  });
}

TEST_F(zpFile, ResolveIsNoLongerThere) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(zpFile_Resolve(program, ZPFILE_DATA, "plain", -1), nullptr);
    EXPECT_EQ(Error(program), "zpFile_Resolve is no longer supported");
    EXPECT_EQ(zeph_file_resolve(program, 0, "plain"), nullptr);
    EXPECT_EQ(Error(program), "zeph_file_resolve is no longer supported");
  });
}

// --- The older functions -------------------------------------------------------------------------

TEST_F(zpFile, OlderFunctionsLeaveThePathAsItIs) {
  Inside([](ZPPROGRAM program) {
    EXPECT_EQ(Read(zeph_file_open(program, 1, "top", ZPFILE_READ)), "top");
    EXPECT_EQ(zeph_file_open(program, 1, "beside", ZPFILE_READ), nullptr);
    EXPECT_STREQ(zeph_file_error(program, nullptr), "No such file or directory");
    EXPECT_EQ(Read(zeph_file_open(program, 0, "plain", ZPFILE_READ)), "plain");
    EXPECT_EQ(Read(zeph_file_open(program, 3, "plain", ZPFILE_READ)), "plain");
  });
}

TEST_F(zpFile, OlderFunctionsWorkOnNamesAndFiles) {
  Inside([this](ZPPROGRAM program) {
    EXPECT_EQ(zeph_file_exists(program, 0, "plain"), 1);
    EXPECT_EQ(zeph_file_exists(program, 0, "nowhere"), 0);
    EXPECT_EQ(zeph_file_size(program, 0, "plain"), 5);
    EXPECT_EQ(zeph_file_isdirectory(program, 0, "plain"), 0);
    EXPECT_EQ(zeph_file_changemode(program, 0, "plain", 0600), 0);
    EXPECT_EQ(zeph_file_mode(program, 0, "plain"), S_IFREG | 0600);
    EXPECT_EQ(zeph_file_makedirectory(program, 0, "folder"), 0);
    EXPECT_EQ(zeph_file_isdirectory(program, 0, "folder"), 1);
    EXPECT_EQ(zeph_file_removedirectory(program, 0, "folder"), 0);
    EXPECT_EQ(zeph_file_removedirectory(program, 0, "folder"), -1);
    EXPECT_EQ(zeph_file_pathseparator(program), '/');
    ZPFILE file = zeph_file_open(program, 0, "new", ZPFILE_WRITE | ZPFILE_CREATE);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zeph_file_write(file, "text", 4), 4);
    EXPECT_EQ(zeph_file_seek(file, 1), 1);
    EXPECT_EQ(zeph_file_tell(file), 1);
    EXPECT_EQ(zeph_file_length(file), 4);
    EXPECT_EQ(zeph_file_lock(file, 2), 0);
    EXPECT_EQ(zeph_file_release(file), 0);
    EXPECT_STREQ(zeph_file_error(program, file), "");
    zeph_file_close(file);
    EXPECT_EQ(zeph_file_rename(program, 0, "new", 0, "renamed"), 0);
    EXPECT_EQ(directory.Content("data/renamed"), "text");
    EXPECT_EQ(zeph_file_delete(program, 0, "renamed"), 0);
    EXPECT_EQ(zeph_file_delete(program, 0, "renamed"), -1);
    char buffer[8];
    file = zeph_file_open(program, 0, "plain", ZPFILE_READ);
    EXPECT_EQ(zeph_file_read(file, buffer, 8), 5);
    zeph_file_close(file);
  });
}

}  // namespace
