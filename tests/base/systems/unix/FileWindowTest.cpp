#include "base/systems/unix/FileWindow.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <string>

#include "base/core/Limits.h"
#include "base/host/FileDescriptor.h"
#include "tests/base/systems/unix/FileFixture.h"

namespace {

// More reads than a window leaves to the system before it maps.
constexpr int many = 64;

// Uses a file in memory, which can be mapped on every machine.
class FileWindowTest : public testing::Test {
 protected:
  void Write(long position, const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()),
              pwrite(file.get(), text.data(), text.size(), position));
  }
  void Cut(long length) { ASSERT_EQ(0, ftruncate(file.get(), length)); }
  bool Read(long position, size_t length) {
    bytes.assign(length, '?');
    return window.Read(file.get(), position, bytes.data(), length);
  }
  void Warm() {
    for (int i = 0; i < many; i++) (void)Read(0, 8);
  }

  FileDescriptor file{memfd_create("file", MFD_CLOEXEC)};
  FileWindow window;
  std::string bytes;
};

TEST_F(FileWindowTest, AFewReadsAreTheSystems) {
  Write(0, "0123456789");
  for (int i = 0; i < kReadsBeforeMapping / 4; i++) EXPECT_FALSE(Read(2, 4));
}

TEST_F(FileWindowTest, ManyReadsAreCopies) {
  Write(0, "0123456789");
  Warm();
  ASSERT_TRUE(Read(2, 4));
  EXPECT_EQ("2345", bytes);
  ASSERT_TRUE(Read(0, 10));
  EXPECT_EQ("0123456789", bytes);
}

TEST_F(FileWindowTest, ShowsWhatWasWrittenMeanwhile) {
  Write(0, "0123456789");
  Warm();
  for (int i = 0; i < 10; i++) {
    Write(i, "x");
    ASSERT_TRUE(Read(0, 10));
    EXPECT_EQ(std::string(static_cast<size_t>(i) + 1, 'x'),
              bytes.substr(0, static_cast<size_t>(i) + 1));
  }
}

TEST_F(FileWindowTest, TheEndOfTheFileIsTheSystemsMatter) {
  Write(0, "0123456789");
  Warm();
  EXPECT_FALSE(Read(8, 4));
  EXPECT_FALSE(Read(10, 1));
  EXPECT_FALSE(Read(100000, 1));
  EXPECT_FALSE(Read(0, 0));
}

TEST_F(FileWindowTest, AFileThatWasCutHasNothingBehindItsEnd) {
  Write(0, std::string(3 * 4096, 'x'));
  Warm();
  Cut(4096 + 100);
  EXPECT_TRUE(Read(4096, 100));
  EXPECT_FALSE(Read(4096 + 50, 51)) << "within its last page";
  EXPECT_FALSE(Read(2 * 4096, 10)) << "after its last page";
  Cut(0);
  EXPECT_FALSE(Read(0, 1));
  Write(0, "back");
  ASSERT_TRUE(Read(0, 4));
  EXPECT_EQ("back", bytes);
}

TEST_F(FileWindowTest, AFileThatGrowsIsMappedAgain) {
  Write(0, std::string(5000, 'x'));
  Warm();
  Write(5000, std::string(100000, 'y'));
  EXPECT_FALSE(Read(90000, 10));
  int reads = 1;
  while (!Read(90000, 10)) ASSERT_LT(reads++, many);
  EXPECT_EQ("yyyyyyyyyy", bytes);
}

// A piece may end in zeros because they are in the file, or because the file ends before them.
TEST_F(FileWindowTest, ZerosCountWhenAByteAfterThemShowsThatTheyAreThere) {
  Write(0, "head" + std::string(96, '\0') + "tail");
  Warm();
  ASSERT_TRUE(Read(0, 50));
  EXPECT_EQ("head" + std::string(46, '\0'), bytes);
  EXPECT_TRUE(Read(0, 100));
  Write(100, std::string(4, '\0'));
  EXPECT_FALSE(Read(0, 50)) << "nothing shows it any more";
  Write(103, "t");
  EXPECT_TRUE(Read(0, 50)) << "another byte does";
  Cut(60);
  EXPECT_FALSE(Read(0, 50));
  EXPECT_TRUE(Read(0, 4));
}

TEST_F(FileWindowTest, LargePiecesAreTheSystems) {
  Write(0, std::string(100000, 'x'));
  Warm();
  EXPECT_TRUE(Read(0, 4096));
  EXPECT_FALSE(Read(0, 4097));
}

TEST_F(FileWindowTest, ClosedItForgetsItsFile) {
  Write(0, "old");
  Warm();
  ASSERT_TRUE(Read(0, 3));
  window.Close();
  file.reset(memfd_create("other", MFD_CLOEXEC));
  Write(0, "new");
  EXPECT_FALSE(Read(0, 3));
  Warm();
  ASSERT_TRUE(Read(0, 3));
  EXPECT_EQ("new", bytes);
}

TEST_F(FileWindowTest, FilesThatCannotBeMappedAreLeftToTheSystem) {
  struct Case {
    const char* path;
    int flags;
  };
  for (const Case& c : {Case{"/proc/self/status", O_RDONLY}, Case{"/dev/zero", O_RDONLY}}) {
    SCOPED_TRACE(c.path);
    FileWindow other;
    FileDescriptor opened(open(c.path, c.flags | O_CLOEXEC));
    ASSERT_TRUE(opened.is_open());
    char piece[8];
    for (int i = 0; i < 2 * many; i++)
      EXPECT_FALSE(other.Read(opened.get(), 0, piece, sizeof(piece)));
  }
  Write(0, "0123456789");
  const std::string path = "/proc/self/fd/" + std::to_string(file.get());
  FileDescriptor write_only(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(write_only.is_open());
  char piece[8];
  for (int i = 0; i < 2 * many; i++)
    EXPECT_FALSE(window.Read(write_only.get(), 0, piece, sizeof(piece)));
}

// No matter what is written and cut off between two reads, a read gives what the system's would.
TEST_F(FileWindowTest, AnswersAreWhatTheSystemReads) {
  std::mt19937 random(4);
  const auto upto = [&](long most) {
    return static_cast<long>(random() % static_cast<unsigned long>(most));
  };
  Write(0, std::string(20000, 'a'));
  int answered = 0;
  for (int i = 0; i < 50000; i++) {
    if (i % 4 == 0) {
      // Write letters or zeros, so that ends of pieces look like the end of the file.
      const char letter = upto(3) == 0 ? '\0' : static_cast<char>('a' + upto(26));
      Write(upto(20000), std::string(static_cast<size_t>(1 + upto(300)), letter));
    }
    if (i % 64 == 0) Cut(upto(25000));
    const long position = upto(22000);
    const auto length = static_cast<size_t>(1 + upto(200));
    if (!Read(position, length)) continue;
    answered++;
    std::string expected(length, '!');
    ASSERT_EQ(static_cast<ssize_t>(length), pread(file.get(), expected.data(), length, position));
    ASSERT_EQ(expected, bytes) << i;
  }
  EXPECT_GT(answered, 10000);
}

// --- In a file of the manager --------------------------------------------------------------------

class MappedFileTest : public ContainedFixture<UNIXReentrantFileManager> {
 protected:
  std::unique_ptr<File> OpenMemory(int mode) {
    const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
    return std::unique_ptr<File>(files.Open(path.c_str(), mode));
  }
  std::string ReadAt(File& file, long position, int length) {
    std::string bytes(static_cast<size_t>(length), '?');
    EXPECT_EQ(position, file.Seek(position));
    const int count = file.Read(bytes.data(), length);
    return count < 0 ? "[" + Text(file.error()) + "]" : bytes.substr(0, static_cast<size_t>(count));
  }

  FileDescriptor memory{memfd_create("file", MFD_CLOEXEC)};
  RestoredSystemCalls restored;
  static inline int calls = 0;
};

TEST_F(MappedFileTest, SmallReadsCostNoCallInTheEnd) {
  auto file = OpenMemory(FileMode_Read | FileMode_Write);
  ASSERT_NE(nullptr, file);
  ASSERT_EQ(0, file->Seek(0));
  ASSERT_EQ(10, file->Write("0123456789", 10));
  system_calls.pread = [](int descriptor, void* bytes, size_t length, off_t position) {
    calls++;
    return ::pread(descriptor, bytes, length, position);
  };
  calls = 0;
  for (int i = 0; i < 1000; i++) ASSERT_EQ("345", ReadAt(*file, 3, 3));
  EXPECT_GT(calls, 0);
  EXPECT_LT(calls, many);
  EXPECT_EQ(6, file->Tell());
  EXPECT_EQ("67", ReadAt(*file, 6, 2));
  EXPECT_EQ(1, file->Seek(1));
  EXPECT_EQ(1, file->Write("x", 1));
  EXPECT_EQ("0x23", ReadAt(*file, 0, 4));
  EXPECT_EQ("89", ReadAt(*file, 8, 4)) << "cut by the end";
  ASSERT_EQ(0, ftruncate(memory.get(), 5));
  EXPECT_EQ("4", ReadAt(*file, 4, 4));
  EXPECT_EQ("", ReadAt(*file, 7, 4));
}

TEST_F(MappedFileTest, AFileThatIsOpenedAgainIsTheOneThatHasTheName) {
  tree.File("f", std::string(200, 'o'));
  std::unique_ptr<File> file(files.Open(tree.path("f").c_str(), FileMode_Read));
  ASSERT_NE(nullptr, file);
  for (int i = 0; i < many; i++) ASSERT_EQ("ooo", ReadAt(*file, 3, 3));
  tree.File("g", std::string(200, 'n'));
  ASSERT_TRUE(files.Rename(tree.path("g").c_str(), tree.path("f").c_str()));
  EXPECT_EQ("ooo", ReadAt(*file, 3, 3));
  files.DeactivateFile(file.get());
  EXPECT_EQ("nnn", ReadAt(*file, 3, 3));
}

}  // namespace
