#include "base/systems/unix/UNIXExternalLibrary.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/LibraryFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

TEST(UNIXExternalLibrary, GivesTheFunctionsOfTheFile) {
  UNIXExternalLibrary library;
  std::string path = TestLibraryPath("FakeLibrary");
  ASSERT_TRUE(library.Load(path.c_str()));
  EXPECT_EQ(Text(library.path()), path);
  auto answer = reinterpret_cast<int (*)()>(library.Get_Function("fake_answer"));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  EXPECT_EQ(library.error().data, nullptr);
}

TEST(UNIXExternalLibrary, UnknownSymbol) {
  UNIXExternalLibrary library;
  ASSERT_TRUE(library.Load(TestLibraryPath("FakeLibrary").c_str()));
  EXPECT_EQ(library.Get_Function("no_such_thing"), nullptr);
  EXPECT_EQ(Text(library.error()), "Unknown symbol 'no_such_thing'");
}

TEST(UNIXExternalLibrary, MissingFileGivesTheSystemsText) {
  UNIXExternalLibrary library;
  EXPECT_FALSE(library.Load("/nonexistent/library.so"));
  EXPECT_TRUE(NamesMissingFile(library.error(), "/nonexistent/library.so"));
  EXPECT_EQ(library.Get_Function("fake_answer"), nullptr);
}

TEST(UNIXExternalLibrary, FileThatIsNoLibraryIsAnError) {
  TemporaryDirectory directory;
  UNIXExternalLibrary library;
  EXPECT_FALSE(library.Load(directory.File("text.so", "not a library").c_str()));
  EXPECT_NE(Text(library.error()).find("text.so"), std::string::npos);
}

TEST(UNIXExternalLibrary, AFifoIsNotWaitedFor) {
  TemporaryDirectory directory;
  const std::string path = directory.path("fifo.so");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  UNIXExternalLibrary library;
  EXPECT_FALSE(library.Load(path.c_str()));
  EXPECT_EQ(Text(library.error()), path + ": not a regular file");
}

TEST(UNIXExternalLibrary, ADirectoryIsRefusedByTheLoader) {
  TemporaryDirectory directory;
  UNIXExternalLibrary library;
  EXPECT_FALSE(library.Load(directory.path().c_str()));
  EXPECT_NE(Text(library.error()).find(directory.path()), std::string::npos);
}

TEST(UNIXExternalLibrary, ANameWithoutASlashIsLookedForInTheSystemsDirectories) {
  UNIXExternalLibrary library;
  ASSERT_TRUE(library.Load("libc.so.6"));
  EXPECT_NE(library.Get_Function("strlen"), nullptr);
  UNIXExternalLibrary unknown;
  EXPECT_FALSE(unknown.Load("libnosuchthing.so.1"));
  EXPECT_TRUE(NamesMissingFile(unknown.error(), "libnosuchthing.so.1"));
}

// A library that was registered with a null path was the engine itself.
TEST(UNIXExternalLibrary, NoNameIsNoLibrary) {
  UNIXExternalLibrary library;
  EXPECT_FALSE(library.Load(nullptr));
  EXPECT_EQ(Text(library.error()), "The library has no path");
  EXPECT_EQ(library.Get_Function("main"), nullptr);
}

TEST(UNIXExternalLibraryManager, LoadsAFileOnce) {
  UNIXExternalLibraryManager manager;
  ExternalLibrary* first = manager.Lookup(TestLibraryPath("FakeLibrary").c_str());
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(manager.Lookup(TestLibraryPath("FakeLibrary").c_str()), first);
  EXPECT_NE(manager.Lookup(TestLibraryPath("FakeEmpty").c_str()), first);
}

TEST(UNIXExternalLibraryManager, CopiesTheLibrarysError) {
  UNIXExternalLibraryManager manager;
  EXPECT_EQ(manager.error().data, nullptr);
  EXPECT_EQ(manager.Lookup("/nonexistent/library.so"), nullptr);
  EXPECT_TRUE(NamesMissingFile(manager.error(), "/nonexistent/library.so"));
}

TEST(UNIXExternalLibraryManager, TriesAgainAfterAFailure) {
  TemporaryDirectory directory;
  std::string path = directory.path("later.so");
  UNIXExternalLibraryManager manager;
  EXPECT_EQ(manager.Lookup(path.c_str()), nullptr);
  std::filesystem::copy_file(TestLibraryPath("FakeEmpty"), path);
  EXPECT_NE(manager.Lookup(path.c_str()), nullptr);
}

TEST(UNIXExternalLibraryManager, NullTextKeepsTheOlderError) {
  UNIXExternalLibraryManager manager;
  manager.Error("first");
  manager.Error(String());
  EXPECT_EQ(Text(manager.error()), "first");
}

TEST(UNIXExternalLibraryManager, ErrorsOfThreadsAndManagersAreApart) {
  UNIXExternalLibraryManager manager;
  UNIXExternalLibraryManager other;
  manager.Error("mine");
  std::thread([&manager] {
    EXPECT_EQ(manager.error().data, nullptr);
    manager.Error("theirs");
  }).join();
  EXPECT_EQ(Text(manager.error()), "mine");
  EXPECT_EQ(other.error().data, nullptr);
}

// Errors are stored by the object's address, which a later object may get.
TEST(UNIXExternalLibraryManager, ErrorEndsWithItsManager) {
  alignas(UNIXExternalLibraryManager) char place[sizeof(UNIXExternalLibraryManager)];
  auto* first = new (place) UNIXExternalLibraryManager();
  first->Error("old");
  first->~UNIXExternalLibraryManager();
  auto* second = new (place) UNIXExternalLibraryManager();
  EXPECT_EQ(second->error().data, nullptr);
  second->~UNIXExternalLibraryManager();
}

}  // namespace
