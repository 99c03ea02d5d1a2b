#include "compiler/PageFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/support/OtherUser.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(PageFiles, AFileIsReadToItsEnd) {
  TemporaryDirectory directory;
  const std::string bytes = std::string(100000, 'x') + std::string("\0\r\n", 3);
  std::string text = "before";
  EXPECT_TRUE(ReadWholeFile(directory.File("a", bytes), &text));
  EXPECT_EQ(text, bytes);
  EXPECT_TRUE(ReadWholeFile(directory.File("b", ""), &text));
  EXPECT_EQ(text, "");
  // The system says that these files have no bytes.
  EXPECT_TRUE(ReadWholeFile("/proc/self/status", &text));
  EXPECT_GT(text.size(), 100u);
}

TEST(PageFiles, WhatIsNoFileIsAnErrorAndNeverWaits) {
  TemporaryDirectory directory;
  std::string text;
  EXPECT_FALSE(ReadWholeFile(directory.path("none"), &text));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ReadWholeFile(directory.path(), &text));
  EXPECT_EQ(errno, EISDIR);
  ASSERT_EQ(mkfifo(directory.path("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(ReadWholeFile(directory.path("pipe"), &text));
  EXPECT_EQ(errno, EINVAL);
}

TEST(PageFiles, AFileThatIsTooLargeIsNotRead) {
  TemporaryDirectory directory;
  std::string text;
  const std::string path = directory.File("a", "x");
  std::filesystem::resize_file(path, size_t{1} << 40);
  EXPECT_FALSE(ReadWholeFile(path, &text));
  EXPECT_EQ(errno, EFBIG);
  std::filesystem::resize_file(path, kLargestFile + 1);
  EXPECT_FALSE(ReadWholeFile(path, &text));
  EXPECT_EQ(errno, EFBIG);
}

TEST(PageFiles, AWriteMakesFoldersAndReplacesInOneStep) {
  TemporaryDirectory directory;
  EXPECT_TRUE(WriteWholeFile(directory.path("a/b/c"), "one"));
  const std::string link = directory.path("before");
  ASSERT_EQ(::link(directory.path("a/b/c").c_str(), link.c_str()), 0);
  EXPECT_TRUE(WriteWholeFile(directory.path("a/b/c"), "two"));
  EXPECT_EQ(directory.Content("a/b/c"), "two");
  EXPECT_EQ(directory.Content("before"), "one");
}

TEST(PageFiles, AWriteThatFailsLeavesNothing) {
  TemporaryDirectory directory;
  directory.File("a/b/inner", "x");
  EXPECT_FALSE(WriteWholeFile(directory.path("a/b"), "x"));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(WriteWholeFile(directory.path("a/b/inner/c"), "x"));
  EXPECT_EQ(errno, ENOTDIR);
  size_t entries = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path())) {
    static_cast<void>(entry);
    entries++;
  }
  EXPECT_EQ(entries, 3u);
}

TEST(PageFiles, FilesAreVisitedInOrderWithoutHiddenOnes) {
  TemporaryDirectory directory;
  for (const char* name : {"b/a.zeph", "b.zeph", "a/z", "a/.x", ".git/config", "_p.zeph"}) {
    directory.File(name, "x");
  }
  directory.Link("loop", ".");
  std::vector<std::string> names;
  const auto note = [&](const std::string& name) { names.push_back(name); };
  EXPECT_THAT(VisitFiles(directory.path(), note), IsEmpty());
  EXPECT_THAT(names, ElementsAre("_p.zeph", "a/z", "b.zeph", "b/a.zeph"));
  names.clear();
  EXPECT_THAT(VisitFiles(directory.path("nowhere"), note), ElementsAre(UnreadFolder{"", ENOENT}));
  EXPECT_THAT(names, IsEmpty());
}

TEST(PageFiles, AFolderThatCannotBeReadIsTold) {
  TemporaryDirectory directory;
  directory.File("a.zeph");
  directory.File("b/c/d.zeph");
  std::filesystem::permissions(directory.path(), std::filesystem::perms::all);
  std::filesystem::permissions(directory.path("b/c"), std::filesystem::perms::none);
  std::vector<std::string> names;
  std::vector<UnreadFolder> unread;
  {
    const OtherUser user;
    unread = VisitFiles(directory.path(), [&](const std::string& name) { names.push_back(name); });
  }
  EXPECT_THAT(names, ElementsAre("a.zeph"));
  ASSERT_THAT(unread, ElementsAre(UnreadFolder{"b/c", EACCES}));
  EXPECT_EQ(TextOf(unread[0], "/x"), "cannot read /x/b/c: Permission denied");
}

TEST(PageFiles, PagesAndTheirCompiledFilesHaveNames) {
  EXPECT_TRUE(IsPage("a/b.zeph"));
  EXPECT_TRUE(IsPage("_a/b.c.zeph"));
  EXPECT_FALSE(IsPage("a/_b.zeph"));
  EXPECT_FALSE(IsPage("zeph"));
  EXPECT_FALSE(IsPage("a.zeph.txt"));
  EXPECT_EQ(CompiledName("a/b.c.zeph"), "a/b.c.zpc");
}

}  // namespace
