#include "base/host/File.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Text(const String& text) {
  return text.data == nullptr ? "" : std::string(text.data, static_cast<size_t>(text.length));
}

// A file without a system, which records the calls of the pool.
class PoolFile : public File {
 public:
  explicit PoolFile(FileManager* manager) : File(manager, "pool") {}

  bool OwnerID(int*) override { return false; }
  bool GroupID(int*) override { return false; }
  int Read(char* buffer, int length) override {
    for (int i = 0; i < length; i++) buffer[i] = 'r';
    return length;
  }
  int Write(const char* bytes, int length) override {
    written.append(bytes, static_cast<size_t>(length));
    return length;
  }
  int Seek(long) override { return 0; }
  int Tell() override { return 0; }
  long Length() override { return 0; }
  bool IsDirectory(bool*) override { return false; }
  bool Lock(FileLockType, long, long) override {
    holds_lock = true;
    return true;
  }
  bool Release(long, long) override {
    holds_lock = false;
    return true;
  }
  char* Map(long, long) override { return nullptr; }
  void Release() override {}
  bool Activate(String& error) override {
    if (failure != nullptr) {
      error = failure;
      return false;
    }
    active = true;
    return true;
  }
  void Deactivate() override { active = false; }

  bool active = true;
  const char* failure = nullptr;
  std::string written;
};

class FilePool : public testing::Test {
 protected:
  FilePool() : files(&application) {}

  PoolFile* OpenFile() {
    EXPECT_TRUE(files.FreeFileSpace(1));
    opened.push_back(std::make_unique<PoolFile>(&files));
    EXPECT_EQ(opened.back().get(), files.FileOpened(opened.back().get()));
    return opened.back().get();
  }

  TestApplication application;
  UNIXReentrantFileManager files;
  std::vector<std::unique_ptr<PoolFile>> opened;
};

TEST_F(FilePool, NoLimitNeverDeactivates) {
  for (int i = 0; i < 100; i++) OpenFile();
  for (const auto& file : opened) EXPECT_TRUE(file->active);
}

TEST_F(FilePool, ThirdFileOfTwoDeactivatesTheFirst) {
  files.MaxFiles(2);
  PoolFile* a = OpenFile();
  PoolFile* b = OpenFile();
  PoolFile* c = OpenFile();
  EXPECT_FALSE(a->active);
  EXPECT_TRUE(b->active);
  EXPECT_TRUE(c->active);
}

TEST_F(FilePool, ActivationDeactivatesTheOneThatWaitedLongest) {
  files.MaxFiles(2);
  PoolFile* a = OpenFile();
  PoolFile* b = OpenFile();
  PoolFile* c = OpenFile();
  EXPECT_TRUE(files.ActivateFile(a));
  EXPECT_TRUE(a->active);
  EXPECT_FALSE(b->active);
  EXPECT_TRUE(c->active);
}

TEST_F(FilePool, ActivatingAnOpenFileMovesItAwayFromTheTail) {
  files.MaxFiles(2);
  PoolFile* a = OpenFile();
  PoolFile* b = OpenFile();
  EXPECT_TRUE(files.ActivateFile(a));
  OpenFile();
  EXPECT_TRUE(a->active);
  EXPECT_FALSE(b->active);
}

TEST_F(FilePool, RequestAboveTheLimitFailsAndNamesTheLimit) {
  files.MaxFiles(1);
  PoolFile* a = OpenFile();
  EXPECT_FALSE(files.FreeFileSpace(2));
  EXPECT_EQ(
      "Simultaneous request for 1 file handles exceeds the maximum number of simultaneous file "
      "handles.",
      Text(files.error()));
  EXPECT_TRUE(a->active);
}

TEST_F(FilePool, LockedFileStaysOpenAndTheNextOneGoes) {
  files.MaxFiles(2);
  PoolFile* a = OpenFile();
  a->Lock(FileLock_Exclusive, 0, 0);
  PoolFile* b = OpenFile();
  OpenFile();
  EXPECT_TRUE(a->active);
  EXPECT_FALSE(b->active);
}

TEST_F(FilePool, OnlyLockedFilesExceedTheLimit) {
  files.MaxFiles(1);
  PoolFile* a = OpenFile();
  a->Lock(FileLock_Exclusive, 0, 0);
  PoolFile* b = OpenFile();
  EXPECT_TRUE(a->active);
  EXPECT_TRUE(b->active);
  a->Release(0, 0);
  PoolFile* c = OpenFile();
  EXPECT_FALSE(a->active);
  EXPECT_FALSE(b->active);
  EXPECT_TRUE(c->active);
}

TEST_F(FilePool, ExplicitDeactivationWorksWithoutALimit) {
  PoolFile* a = OpenFile();
  files.DeactivateFile(a);
  EXPECT_FALSE(a->active);
  EXPECT_TRUE(files.ActivateFile(a));
  EXPECT_TRUE(a->active);
}

TEST_F(FilePool, DeactivatingAFileThatIsNotPooledDoesNothing) {
  PoolFile file(&files);
  files.DeactivateFile(&file);
  EXPECT_TRUE(file.active);
}

TEST_F(FilePool, ActivatingAFileThatIsNotPooledFails) {
  PoolFile file(&files);
  EXPECT_FALSE(files.ActivateFile(&file));
  EXPECT_EQ("Activation request for invalid or non-active file", Text(files.error()));
}

TEST_F(FilePool, FailedActivationPassesTheTextOnAndLeavesTheFileInactive) {
  PoolFile* a = OpenFile();
  files.DeactivateFile(a);
  a->failure = "gone";
  EXPECT_FALSE(files.ActivateFile(a));
  EXPECT_EQ("gone", Text(files.error()));
  a->failure = nullptr;
  EXPECT_TRUE(files.ActivateFile(a));
}

TEST_F(FilePool, DeletedFilesAreForgotten) {
  files.MaxFiles(2);
  OpenFile();
  PoolFile* b = OpenFile();
  OpenFile();  // the first is inactive from here on
  opened.erase(opened.begin());
  opened.pop_back();
  PoolFile* d = OpenFile();
  EXPECT_TRUE(b->active);
  EXPECT_TRUE(d->active);
}

TEST_F(FilePool, NullErrorTextKeepsTheOlderOne) {
  files.Error("older");
  files.Error(String());
  EXPECT_EQ("older", Text(files.error()));
  files.Error("");
  EXPECT_EQ("", Text(files.error()));
  PoolFile file(&files);
  file.Error("older");
  file.Error(String());
  EXPECT_EQ("older", Text(file.error()));
}

TEST_F(FilePool, UnsignedAndStringFormsForwardToTheBytes) {
  PoolFile file(&files);
  unsigned char buffer[3] = {};
  File& base = file;
  EXPECT_EQ(3, base.Read(buffer, 3));
  EXPECT_EQ('r', buffer[2]);
  const unsigned char bytes[] = {'a', 0, 'b'};
  EXPECT_EQ(3, base.Write(bytes, 3));
  EXPECT_EQ(2, base.Write(String("cd", 2)));
  EXPECT_EQ(std::string("a\0bcd", 5), file.written);
}

}  // namespace
