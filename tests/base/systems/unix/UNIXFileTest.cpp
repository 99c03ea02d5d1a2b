#include "base/systems/unix/UNIXFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "tests/base/systems/unix/FileFixture.h"

namespace {

class UNIXFileTest : public ContainedFixture<UNIXReentrantFileManager> {
 protected:
  // Opens tree/name by its absolute path, outside of any base.
  std::unique_ptr<File> Open(std::string_view name, int mode) {
    return std::unique_ptr<File>(files.Open(tree.path(name).c_str(), mode));
  }
  std::string path(std::string_view name) { return tree.path(name); }
};

// --- Descriptors kept from scripts ---------------------------------------------------------------

class UNIXFileReserve : public UNIXFileTest {
 protected:
  static constexpr rlim_t kLimit = 200;
  static constexpr int kReserve = 30;

  UNIXFileReserve() {
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit lower{kLimit, saved.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);
    tree.File("file", "text");
    files.KeepDescriptors(kReserve);
    while (std::unique_ptr<File> file = Open("file", FileMode_Read)) {
      opened.push_back(std::move(file));
    }
  }
  ~UNIXFileReserve() override { setrlimit(RLIMIT_NOFILE, &saved); }

  rlimit saved;
  std::vector<std::unique_ptr<File>> opened;
};

TEST_F(UNIXFileReserve, AFileIsNotOpenedThatWouldTakeOfThem) {
  EXPECT_EQ(Text(files.error()), "Too many open files");
  EXPECT_GT(opened.size(), 100u);
  std::vector<FileDescriptor> left;
  for (FileDescriptor next(dup(0)); next.is_open(); next.reset(dup(0))) {
    left.emplace_back(next.release());
  }
  EXPECT_EQ(left.size(), static_cast<size_t>(kReserve));
}

TEST_F(UNIXFileReserve, AFileIsNeitherMadeNorEmptiedInVain) {
  EXPECT_FALSE(Open("file", FileMode_Write | FileMode_Truncate));
  EXPECT_FALSE(Open("other", FileMode_Write | FileMode_Create));
  EXPECT_EQ(std::filesystem::file_size(path("file")), 4u);
  EXPECT_FALSE(std::filesystem::exists(path("other")));
  opened.pop_back();
  EXPECT_TRUE(Open("other", FileMode_Write | FileMode_Create));
}

TEST_F(UNIXFileReserve, AManagerOfATaskLeavesThemToo) {
  UNIXReentrantFileManager task(&application, files);
  EXPECT_EQ(task.Open(path("file").c_str(), FileMode_Read), nullptr);
}

// --- Modes ---------------------------------------------------------------------------------------

TEST(UNIXFileMode, BitsTranslateToOpenFlags) {
  struct Case {
    int mode;
    int flags;
  } cases[] = {
      {0, O_RDONLY},
      {1, O_RDONLY},
      {2, O_WRONLY},
      {3, O_RDWR},
      {4, O_RDONLY | O_CREAT},
      {1 | 8, O_RDONLY | O_TRUNC},
      {2 | 4 | 16, O_WRONLY | O_CREAT | O_APPEND},
      {15, O_RDWR | O_CREAT | O_TRUNC},
      {2 | 4 | 32, O_WRONLY | O_CREAT | O_EXCL},
      {64, O_RDONLY},
      {127, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_EXCL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode);
    EXPECT_EQ(c.flags, UNIXFileManager::OpenMode(c.mode));
  }
}

TEST_F(UNIXFileTest, NewFilesGetAllRightsLessTheMask) {
  mode_t saved = umask(027);
  auto file = Open("new", FileMode_Write | FileMode_Create);
  umask(saved);
  ASSERT_NE(nullptr, file);
  int mode = 0;
  ASSERT_TRUE(files.Mode(path("new").c_str(), &mode));
  EXPECT_EQ(0640, mode & 0777);
}

// --- Bytes and positions -------------------------------------------------------------------------

TEST_F(UNIXFileTest, WritesAndReadsBytes) {
  auto file = Open("f", FileMode_Read | FileMode_Write | FileMode_Create);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(5, file->Write("hello", 5));
  EXPECT_EQ(1, file->Seek(1));
  char buffer[10];
  EXPECT_EQ(4, file->Read(buffer, 10));
  EXPECT_EQ("ello", std::string(buffer, 4));
  EXPECT_EQ(0, file->Read(buffer, 10));
  EXPECT_EQ(5, file->Tell());
  EXPECT_EQ(5, file->Length());
}

TEST_F(UNIXFileTest, FailedReadAndWriteStoreTheSystemsText) {
  tree.File("f", "abc");
  auto reader = Open("f", FileMode_Read);
  EXPECT_EQ(-1, reader->Write("x", 1));
  EXPECT_EQ("Bad file descriptor", Text(reader->error()));
  auto writer = Open("f", FileMode_Write);
  char buffer[1];
  EXPECT_EQ(-1, writer->Read(buffer, 1));
  EXPECT_EQ("Bad file descriptor", Text(writer->error()));
}

TEST_F(UNIXFileTest, NegativeLengthFailsWithoutTouchingTheBuffer) {
  tree.File("f", "abc");
  auto file = Open("f", FileMode_Read | FileMode_Write);
  char buffer[1] = {'x'};
  EXPECT_EQ(-1, file->Read(buffer, -1));
  EXPECT_EQ(-1, file->Write(buffer, -5));
  EXPECT_EQ('x', buffer[0]);
  EXPECT_EQ("Invalid argument", Text(file->error()));
}

TEST_F(UNIXFileTest, AppendingWritesAfterTheEnd) {
  tree.File("f", "abc");
  auto file = Open("f", FileMode_Write | FileMode_Append);
  EXPECT_EQ(0, file->Seek(0));
  EXPECT_EQ(1, file->Write("d", 1));
  EXPECT_EQ("abcd", tree.Content("f"));
}

TEST_F(UNIXFileTest, PlacesFromTwoGigabytesOnAreFailures) {
  auto file = Open("f", FileMode_Read | FileMode_Write | FileMode_Create);
  EXPECT_EQ(INT_MAX, file->Seek(INT_MAX));
  EXPECT_EQ(INT_MAX, file->Tell());
  EXPECT_EQ(-1, file->Seek(INT_MAX + 1L));
  EXPECT_EQ("Value too large for defined data type", Text(file->error()));
  EXPECT_EQ(-1, file->Tell());
  EXPECT_EQ(-1, file->Seek(1L << 32));
  EXPECT_EQ(-1, file->Seek(-1));
  EXPECT_EQ("Invalid argument", Text(file->error()));
}

TEST_F(UNIXFileTest, ASeekInARegularFileCostsNoCall) {
  tree.File("f", "0123456789");
  auto file = Open("f", FileMode_Read | FileMode_Write);
  EXPECT_EQ(4, file->Seek(4));
  RestoredSystemCalls restored;
  static int seeks;
  seeks = 0;
  system_calls.lseek = [](int descriptor, off_t wanted, int from) {
    seeks++;
    return ::lseek(descriptor, wanted, from);
  };
  char byte;
  EXPECT_EQ(8, file->Seek(8));
  EXPECT_EQ(1, file->Read(&byte, 1));
  EXPECT_EQ('8', byte);
  EXPECT_EQ(9, file->Tell());
  EXPECT_EQ(2, file->Seek(2));
  EXPECT_EQ(1, file->Write("x", 1));
  EXPECT_EQ(3, file->Tell());
  EXPECT_EQ(0, seeks);
  EXPECT_EQ("01x3456789", tree.Content("f"));
}

// Random seeks, reads and writes, with the descriptor given up from time to time, compared with a
// text in memory.
TEST_F(UNIXFileTest, AnyOrderOfOperationsLeavesTheFileAsTold) {
  std::mt19937 random(3);
  auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
  auto file = Open("f", FileMode_Read | FileMode_Write | FileMode_Create);
  std::string content;
  size_t place = 0;
  for (int i = 0; i < 3000; i++) {
    SCOPED_TRACE(i);
    char buffer[50] = {};
    const int length = below(sizeof buffer);
    switch (below(8)) {
      case 0: files.DeactivateFile(file.get()); break;
      case 1: EXPECT_EQ(static_cast<int>(place), file->Tell()); break;
      case 2: EXPECT_EQ(static_cast<long>(content.size()), file->Length()); break;
      case 3: EXPECT_EQ(-1, file->Seek(-1 - length)); break;
      case 4: {
        memset(buffer, 'a' + below(26), sizeof buffer);
        EXPECT_EQ(length, file->Write(buffer, length));
        const std::string written(buffer, static_cast<size_t>(length));
        if (written.empty()) break;
        content.resize(std::max(content.size(), place + written.size()), '\0');
        content.replace(place, written.size(), written);
        place += written.size();
        break;
      }
      case 5: {
        const size_t end = std::min(place + static_cast<size_t>(length), content.size());
        const std::string there = place < end ? content.substr(place, end - place) : "";
        EXPECT_EQ(static_cast<int>(there.size()), file->Read(buffer, length));
        EXPECT_EQ(there, std::string(buffer, there.size()));
        place += there.size();
        break;
      }
      default:
        place = static_cast<size_t>(below(300));
        EXPECT_EQ(static_cast<int>(place), file->Seek(static_cast<long>(place)));
    }
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_EQ(content, tree.Content("f"));
}

TEST_F(UNIXFileTest, APositionIsThePipesOwn) {
  ASSERT_EQ(0, mkfifo(path("p").c_str(), 0600));
  auto file = Open("p", FileMode_Read | FileMode_Write);
  EXPECT_EQ(3, file->Write("abc", 3));
  EXPECT_EQ(-1, file->Seek(1));
  EXPECT_EQ("Illegal seek", Text(file->error()));
  char buffer[3];
  EXPECT_EQ(3, file->Read(buffer, 3));
  EXPECT_EQ("abc", std::string(buffer, 3));
}

TEST_F(UNIXFileTest, ReadIsMadeAgainAfterASignal) {
  tree.File("f", "abc");
  auto file = Open("f", FileMode_Read);
  RestoredSystemCalls restored;
  static int interruptions;
  interruptions = 3;
  system_calls.read = [](int descriptor, void* buffer, size_t length) {
    if (interruptions-- > 0) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return ::read(descriptor, buffer, length);
  };
  char buffer[3];
  EXPECT_EQ(3, file->Read(buffer, 3));
  EXPECT_EQ(-1, interruptions);
}

TEST_F(UNIXFileTest, WriteIsMadeAgainAfterASignal) {
  auto file = Open("f", FileMode_Write | FileMode_Create);
  RestoredSystemCalls restored;
  static int interruptions;
  interruptions = 1;
  system_calls.write = [](int descriptor, const void* bytes, size_t length) {
    if (interruptions-- > 0) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return ::write(descriptor, bytes, length);
  };
  EXPECT_EQ(3, file->Write("abc", 3));
  EXPECT_EQ("abc", tree.Content("f"));
}

TEST_F(UNIXFileTest, TellsOwnerGroupAndKind) {
  tree.File("f");
  auto file = Open("f", FileMode_Read);
  int id = -1;
  EXPECT_TRUE(file->OwnerID(&id));
  EXPECT_EQ(static_cast<int>(geteuid()), id);
  EXPECT_TRUE(file->GroupID(&id));
  EXPECT_EQ(static_cast<int>(getegid()), id);
  bool directory = true;
  EXPECT_TRUE(file->IsDirectory(&directory));
  EXPECT_FALSE(directory);
  auto folder = Open("data", FileMode_Read);
  EXPECT_TRUE(folder->IsDirectory(&directory));
  EXPECT_TRUE(directory);
}

TEST_F(UNIXFileTest, LengthOfAFifoIsZero) {
  ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
  auto file = Open("fifo", FileMode_Read | FileMode_Write);
  ASSERT_NE(nullptr, file);
  file->Write("abc", 3);
  EXPECT_EQ(0, file->Length());
  long length = -1;
  EXPECT_TRUE(files.Length(path("fifo").c_str(), &length));
  EXPECT_EQ(0, length);
}

TEST_F(UNIXFileTest, OpeningAFifoByItsNameDoesNotWait) {
  ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
  tree.File("f", "text");
  char byte;
  auto file = Open("fifo", FileMode_Read);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(0, file->Read(&byte, 1));
  files.DeactivateFile(file.get());
  EXPECT_EQ(0, file->Read(&byte, 1)) << "when it is opened again, too";
  file.reset();
  EXPECT_EQ(nullptr, Open("fifo", FileMode_Write));
  EXPECT_EQ("No such device or address", error());
  EXPECT_FALSE(files.Copy(path("f").c_str(), path("fifo").c_str()));
  EXPECT_TRUE(files.Copy(path("fifo").c_str(), path("copy").c_str()));
}

int flags_of_read;

TEST_F(UNIXFileTest, ARegularFileIsReadInTheModeThatWasAskedFor) {
  tree.File("f", "text");
  auto file = Open("f", FileMode_Read);
  RestoredSystemCalls restored;
  system_calls.pread = [](int descriptor, void* buffer, size_t length, off_t place) {
    flags_of_read = fcntl(descriptor, F_GETFL);
    return ::pread(descriptor, buffer, length, place);
  };
  char byte;
  for (bool again : {false, true}) {
    if (again) files.DeactivateFile(file.get());
    EXPECT_EQ(0, file->Seek(0));
    flags_of_read = -1;
    EXPECT_EQ(1, file->Read(&byte, 1));
    EXPECT_EQ(0, flags_of_read & (O_NONBLOCK | O_ACCMODE));
  }
}

// A server that shares files with other machines has leases on the files that its clients keep.
TEST_F(UNIXFileTest, AFileUnderALeaseIsOpenedWhenTheLeaseIsGivenUp) {
  tree.File("f", "text");
  const FileDescriptor holder(open(path("f").c_str(), O_RDONLY | O_CLOEXEC));
  sigset_t told;
  sigemptyset(&told);
  sigaddset(&told, SIGIO);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &told, &before);
  if (fcntl(holder.get(), F_SETLEASE, F_RDLCK) != 0) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    GTEST_SKIP() << "no leases here: " << strerror(errno);
  }
  std::thread giver([&] {
    const timespec most = {60, 0};
    int signal;
    while ((signal = sigtimedwait(&told, nullptr, &most)) < 0 && errno == EINTR) {
    }
    EXPECT_EQ(SIGIO, signal) << "the open has not asked for the lease";
    EXPECT_EQ(0, fcntl(holder.get(), F_SETLEASE, F_UNLCK));
  });
  auto file = Open("f", FileMode_Read | FileMode_Write);
  EXPECT_NE(nullptr, file) << error();
  giver.join();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(UNIXFileTest, KnowsItsPathAndWhetherItIsContained) {
  Configure(0);
  tree.File("data/f");
  std::unique_ptr<File> contained(files.Open(ZephPath_Data, "f", FileMode_Read));
  EXPECT_TRUE(contained->contained());
  EXPECT_EQ(ZephPath_Data, contained->type());
  EXPECT_STREQ("f", contained->path());
  auto plain = Open("data/f", FileMode_Read);
  EXPECT_FALSE(plain->contained());
  EXPECT_EQ(path("data/f"), plain->path());
}

// --- Mapping -------------------------------------------------------------------------------------

TEST_F(UNIXFileTest, MapsTheWholeFile) {
  tree.File("f", "mapped");
  auto file = Open("f", FileMode_Read);
  char* map = file->Map(0, -1);
  ASSERT_NE(nullptr, map);
  EXPECT_EQ("mapped", std::string(map, 6));
  file->Release();
}

TEST_F(UNIXFileTest, MappingNothingIsAnInvalidArgument) {
  tree.File("empty");
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read);
  EXPECT_EQ(nullptr, file->Map(0, 0));
  EXPECT_EQ("Invalid argument", Text(file->error()));
  EXPECT_EQ(nullptr, file->Map(0, -2));
  auto empty = Open("empty", FileMode_Read);
  EXPECT_EQ(nullptr, empty->Map(0, -1));
  EXPECT_EQ("Invalid argument", Text(empty->error()));
}

TEST_F(UNIXFileTest, FailedMapDropsTheEarlierOne) {
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read);
  ASSERT_NE(nullptr, file->Map(0, -1));
  EXPECT_EQ(nullptr, file->Map(1, 1));  // not a multiple of the page size
  EXPECT_EQ("Invalid argument", Text(file->error()));
  file->Release();  // nothing is left to unmap
}

TEST_F(UNIXFileTest, MappingSurvivesDeactivation) {
  tree.File("f", "mapped");
  auto file = Open("f", FileMode_Read);
  char* map = file->Map(0, -1);
  files.DeactivateFile(file.get());
  EXPECT_EQ("mapped", std::string(map, 6));
}

// --- Byte-range locks ----------------------------------------------------------------------------

// True if another open file of that name could lock the bytes at present.
bool Lockable(const std::string& path, short type, long start, long length) {
  FileDescriptor other(open(path.c_str(), O_RDWR | O_CLOEXEC));
  struct flock range = {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = length;
  return fcntl(other.get(), F_OFD_SETLK, &range) == 0;
}

TEST_F(UNIXFileTest, ExclusiveLockKeepsOthersOut) {
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read | FileMode_Write);
  ASSERT_TRUE(file->Lock(FileLock_Exclusive, 10, 5));
  EXPECT_FALSE(Lockable(path("f"), F_RDLCK, 10, 1));
  EXPECT_TRUE(Lockable(path("f"), F_WRLCK, 0, 10));
  EXPECT_TRUE(Lockable(path("f"), F_WRLCK, 15, 1));
  ASSERT_TRUE(file->Release(10, 5));
  EXPECT_TRUE(Lockable(path("f"), F_WRLCK, 10, 5));
}

TEST_F(UNIXFileTest, AnyOtherTypeIsASharedLock) {
  tree.File("f", "x");
  for (int type : {0, 2, -1}) {
    SCOPED_TRACE(type);
    auto file = Open("f", FileMode_Read | FileMode_Write);
    ASSERT_TRUE(file->Lock(static_cast<FileLockType>(type), 0, 0));
    EXPECT_TRUE(Lockable(path("f"), F_RDLCK, 0, 0));
    EXPECT_FALSE(Lockable(path("f"), F_WRLCK, 0, 0));
  }
}

TEST_F(UNIXFileTest, LockSeparatesTwoFilesOfOneProcess) {
  tree.File("f", "x");
  auto first = Open("f", FileMode_Read | FileMode_Write);
  auto second = Open("f", FileMode_Read | FileMode_Write);
  ASSERT_TRUE(first->Lock(FileLock_Exclusive, 0, 1));
  application.SetCancelled(1);
  EXPECT_FALSE(second->Lock(FileLock_Exclusive, 0, 1));
  EXPECT_EQ("Timed out waiting for lock", Text(second->error()));
  // Closing another open file of the process does not release the lock either.
  second.reset();
  EXPECT_FALSE(Lockable(path("f"), F_WRLCK, 0, 1));
}

TEST_F(UNIXFileTest, KnowsWhetherALockWouldHaveToWait) {
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read | FileMode_Write);
  auto other = Open("f", FileMode_Read | FileMode_Write);
  EXPECT_TRUE(file->IsLockable(FileLock_Shared, 0, 10));
  ASSERT_TRUE(other->Lock(FileLock_Shared, 5, 10));
  EXPECT_TRUE(file->IsLockable(FileLock_Shared, 0, 10));
  EXPECT_FALSE(file->IsLockable(FileLock_Exclusive, 0, 10));
  EXPECT_TRUE(file->IsLockable(FileLock_Exclusive, 0, 5));
  ASSERT_TRUE(other->Lock(FileLock_Exclusive, 5, 10));
  EXPECT_FALSE(file->IsLockable(FileLock_Shared, 0, 10));
  EXPECT_TRUE(file->IsLockable(FileLock_Shared, 0, 5));
  // Its own locks do not count, and none is taken.
  EXPECT_TRUE(other->IsLockable(FileLock_Exclusive, 0, 20));
  EXPECT_FALSE(file->locked());
  ASSERT_TRUE(other->Release(5, 10));
  EXPECT_TRUE(file->IsLockable(FileLock_Exclusive, 0, 10));
  EXPECT_TRUE(Lockable(path("f"), F_WRLCK, 0, 0));
  files.DeactivateFile(file.get());
  EXPECT_FALSE(file->IsLockable(FileLock_Shared, 0, 10));
}

TEST_F(UNIXFileTest, LockWaitsUntilTheOtherThreadReleases) {
  tree.File("f", "x");
  auto first = Open("f", FileMode_Read | FileMode_Write);
  ASSERT_TRUE(first->Lock(FileLock_Exclusive, 0, 1));
  std::atomic<bool> started{false};
  std::atomic<bool> released{false};
  TestApplication other_application;
  std::thread waiter([&] {
    UNIXReentrantFileManager other(&other_application);
    std::unique_ptr<File> second(other.Open(path("f").c_str(), FileMode_Read | FileMode_Write));
    started = true;
    EXPECT_TRUE(second->Lock(FileLock_Exclusive, 0, 1));
    EXPECT_TRUE(released);
  });
  while (!started) std::this_thread::yield();
  released = true;
  EXPECT_TRUE(first->Release(0, 1));
  waiter.join();
}

TEST_F(UNIXFileTest, LockingAFileThatIsNotWritableFails) {
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read);
  EXPECT_FALSE(file->Lock(FileLock_Exclusive, 0, 1));
  EXPECT_EQ("Bad file descriptor", Text(file->error()));
  EXPECT_FALSE(file->locked());
}

TEST_F(UNIXFileTest, KnowsWhetherAnyByteIsStillLocked) {
  struct Step {
    bool lock;
    long start;
    long length;
    bool locked;
  };
  struct Case {
    const char* label;
    std::vector<Step> steps;
  } cases[] = {
      {"pair", {{true, 0, 1, true}, {false, 0, 1, false}}},
      {"twice", {{true, 0, 1, true}, {true, 0, 1, true}, {false, 0, 1, false}}},
      {"split",
       {{true, 0, 10, true}, {false, 4, 2, true}, {false, 0, 4, true}, {false, 6, 4, false}}},
      {"merged", {{true, 0, 5, true}, {true, 5, 5, true}, {false, 0, 10, false}}},
      {"bridged",
       {{true, 0, 2, true}, {true, 4, 2, true}, {true, 1, 4, true}, {false, 0, 6, false}}},
      {"to the end", {{true, 100, 0, true}, {false, 0, 100, true}, {false, 50, 0, false}}},
      {"backwards", {{true, 10, -5, true}, {false, 5, 5, false}}},
      {"apart",
       {{true, 0, 1, true}, {true, 9, 1, true}, {false, 0, 1, true}, {false, 9, 1, false}}},
      {"missed",
       {{true, 5, 1, true}, {false, 0, 5, true}, {false, 6, 0, true}, {false, 0, 0, false}}},
      {"front", {{true, 0, 10, true}, {false, 0, 4, true}, {false, 4, 6, false}}},
      {"more than it", {{true, 2, 3, true}, {false, 2, 4, false}}},
      {"last byte", {{true, LONG_MAX, 1, true}, {false, LONG_MAX, 1, false}}},
      {"last byte and another",
       {{true, 0, 1, true}, {true, LONG_MAX, 1, true}, {false, 0, 1, true}, {false, 9, 0, false}}},
  };
  tree.File("f", "x");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    auto file = Open("f", FileMode_Read | FileMode_Write);
    for (const Step& step : c.steps) {
      ASSERT_TRUE(step.lock ? file->Lock(FileLock_Exclusive, step.start, step.length)
                            : file->Release(step.start, step.length));
      EXPECT_EQ(step.locked, file->locked());
      EXPECT_EQ(step.locked, !Lockable(path("f"), F_WRLCK, 0, 0));
    }
  }
}

// --- The pool ------------------------------------------------------------------------------------

TEST_F(UNIXFileTest, PositionsSurviveDeactivation) {
  for (const char* name : {"a", "b", "c"}) tree.File(name, std::string(name) + "123456789");
  files.MaxFiles(2);
  auto a = Open("a", FileMode_Read);
  EXPECT_EQ(2, a->Seek(2));
  auto b = Open("b", FileMode_Read);
  EXPECT_EQ(3, b->Seek(3));
  auto c = Open("c", FileMode_Read);
  char byte;
  EXPECT_EQ(1, a->Read(&byte, 1));  // deactivates b
  EXPECT_EQ('2', byte);
  EXPECT_EQ(1, b->Read(&byte, 1));  // deactivates c
  EXPECT_EQ('3', byte);
  EXPECT_EQ(3, a->Tell());
  EXPECT_EQ(0, c->Tell());
}

TEST_F(UNIXFileTest, ReopeningNeitherCreatesNorEmpties) {
  auto file = Open("f", FileMode_Read | FileMode_Write | FileMode_Create | FileMode_Truncate |
                            FileMode_Exclusive);
  ASSERT_NE(nullptr, file);
  file->Write("abc", 3);
  files.DeactivateFile(file.get());
  EXPECT_EQ(3, file->Write("def", 3));
  EXPECT_EQ("abcdef", tree.Content("f"));
  files.DeactivateFile(file.get());
  unlink(path("f").c_str());
  EXPECT_EQ(-1, file->Write("ghi", 3));
  EXPECT_FALSE(tree.Exists("f"));
}

TEST_F(UNIXFileTest, ActivationOfADeletedFileFailsInTheSystemsWords) {
  tree.File("f", "abc");
  auto file = Open("f", FileMode_Read);
  files.DeactivateFile(file.get());
  unlink(path("f").c_str());
  char byte;
  EXPECT_EQ(-1, file->Read(&byte, 1));
  EXPECT_EQ("No such file or directory", Text(file->error()));
  int id;
  bool directory;
  EXPECT_FALSE(file->OwnerID(&id));
  EXPECT_FALSE(file->GroupID(&id));
  EXPECT_EQ(-1, file->Write("x", 1));
  EXPECT_EQ(-1, file->Seek(0));
  EXPECT_EQ(-1, file->Tell());
  EXPECT_EQ(-1, file->Length());
  EXPECT_FALSE(file->IsDirectory(&directory));
  EXPECT_FALSE(file->Lock(FileLock_Shared, 0, 1));
  EXPECT_FALSE(file->Release(0, 1));
  EXPECT_EQ(nullptr, file->Map(0, -1));
}

TEST_F(UNIXFileTest, StatusIsAskedForAgainAfterAnActivation) {
  tree.File("f", "abc");
  auto file = Open("f", FileMode_Read);
  bool directory = true;
  EXPECT_TRUE(file->IsDirectory(&directory));
  EXPECT_FALSE(directory);
  files.DeactivateFile(file.get());
  ASSERT_EQ(0, unlink(path("f").c_str()));
  ASSERT_EQ(0, mkdir(path("f").c_str(), 0755));
  EXPECT_GE(file->Tell(), 0);  // activates it
  EXPECT_TRUE(file->IsDirectory(&directory));
  EXPECT_TRUE(directory);
}

TEST_F(UNIXFileTest, ContainedFileGoesThroughTheSandboxAtEachActivation) {
  Configure(0);
  tree.File("data/f", "abc");
  tree.File("outside/f", "secret");
  std::unique_ptr<File> file(files.Open(ZephPath_Data, "f", FileMode_Read));
  files.DeactivateFile(file.get());
  unlink(path("data/f").c_str());
  tree.Link("data/f", path("outside/f"));
  char byte;
  EXPECT_EQ(-1, file->Read(&byte, 1));
  EXPECT_EQ("The specified path references a symbolic link", Text(file->error()));
}

TEST_F(UNIXFileTest, PositionAfterATruncatedEndIsKept) {
  tree.File("f", "0123456789");
  auto file = Open("f", FileMode_Read);
  file->Seek(8);
  files.DeactivateFile(file.get());
  std::filesystem::resize_file(path("f"), 2);
  char byte;
  EXPECT_EQ(0, file->Read(&byte, 1));
  EXPECT_EQ(8, file->Tell());
}

TEST_F(UNIXFileTest, ActivationFailsWhenThePositionCannotBeRestored) {
  tree.File("f", "0123456789");
  auto file = Open("f", FileMode_Read);
  file->Seek(8);
  files.DeactivateFile(file.get());
  {
    RestoredSystemCalls restored;
    system_calls.lseek = [](int, off_t, int) { return off_t{0}; };
    EXPECT_EQ(-1, file->Tell());
    EXPECT_EQ("Unable to restore file position during activation", Text(file->error()));
  }
  EXPECT_EQ(8, file->Tell());
}

TEST_F(UNIXFileTest, FailedActivationForWantOfHandlesNamesTheLimit) {
  tree.File("f", "x");
  auto file = Open("f", FileMode_Read);
  files.DeactivateFile(file.get());
  files.MaxFiles(-1);
  char byte;
  EXPECT_EQ(-1, file->Read(&byte, 1));
  EXPECT_EQ(
      "Simultaneous request for -1 file handles exceeds the maximum number of simultaneous file "
      "handles.",
      Text(file->error()));
}

TEST_F(UNIXFileTest, UnpooledFileIsNeverDeactivated) {
  tree.File("a", "a");
  tree.File("b", "b");
  files.MaxFiles(1);
  auto a = Open("a", FileMode_Read | FileMode_Unpooled);
  unlink(path("a").c_str());
  auto b = Open("b", FileMode_Read);
  files.DeactivateFile(a.get());
  char byte;
  EXPECT_EQ(1, a->Read(&byte, 1));
  EXPECT_EQ(1, b->Read(&byte, 1));
}

TEST_F(UNIXFileTest, LockedFileIsNotDeactivatedByThePool) {
  tree.File("a", "a");
  tree.File("b", "b");
  files.MaxFiles(1);
  auto a = Open("a", FileMode_Read | FileMode_Write);
  ASSERT_TRUE(a->Lock(FileLock_Exclusive, 0, 1));
  auto b = Open("b", FileMode_Read);
  ASSERT_NE(nullptr, b);
  EXPECT_FALSE(Lockable(path("a"), F_WRLCK, 0, 1));
  files.DeactivateFile(a.get());
  EXPECT_TRUE(Lockable(path("a"), F_WRLCK, 0, 1));
  EXPECT_FALSE(a->locked());
}

TEST_F(UNIXFileTest, DescriptorsAreClosedWithTheirFiles) {
  auto count = [] {
    int n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      n++;
    return n;
  };
  int before = count();
  {
    auto file = Open("f", FileMode_Write | FileMode_Create);
    EXPECT_EQ(before + 1, count());
    files.DeactivateFile(file.get());
    EXPECT_EQ(before, count());
  }
  EXPECT_EQ(before, count());
}

TEST_F(UNIXFileTest, DescriptorsDoNotReachOtherPrograms) {
  auto file = Open("f", FileMode_Write | FileMode_Create);
  Configure(0);
  int open_count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
    if (target.rfind(tree.path(), 0) != 0) continue;
    open_count++;
    int descriptor = std::stoi(entry.path().filename().string());
    EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << target;
  }
  EXPECT_EQ(3, open_count);
}

// --- Names as given ------------------------------------------------------------------------------

TEST_F(UNIXFileTest, OpenOfAMissingFileFails) {
  EXPECT_EQ(nullptr, Open("missing", FileMode_Read));
  EXPECT_EQ("No such file or directory", error());
}

TEST_F(UNIXFileTest, DeletesAndRenames) {
  tree.File("a", "x");
  EXPECT_TRUE(files.Rename(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ("x", tree.Content("b"));
  EXPECT_FALSE(files.Rename(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ("No such file or directory", error());
  EXPECT_TRUE(files.Delete(path("b").c_str()));
  EXPECT_FALSE(files.Delete(path("b").c_str()));
}

TEST_F(UNIXFileTest, CopyReplacesTheTarget) {
  std::string content(20000, 'c');
  tree.File("a", content);
  tree.File("b", std::string(30000, 'o'));
  EXPECT_TRUE(files.Copy(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ(content, tree.Content("b"));
}

TEST_F(UNIXFileTest, CopyOfADirectoryIsRefused) {
  EXPECT_FALSE(files.Copy(path("data").c_str(), path("b").c_str()));
  EXPECT_EQ("The source file is a directory", error());
  EXPECT_FALSE(tree.Exists("b"));
}

TEST_F(UNIXFileTest, CopyNeedsTwoHandles) {
  tree.File("a", "x");
  files.MaxFiles(1);
  EXPECT_FALSE(files.Copy(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ(
      "Simultaneous request for 1 file handles exceeds the maximum number of simultaneous file "
      "handles.",
      error());
}

TEST_F(UNIXFileTest, CopyOntoAFullDeviceFails) {
  tree.File("a", std::string(100000, 'x'));
  EXPECT_FALSE(files.Copy(path("a").c_str(), "/dev/full"));
  EXPECT_EQ("No space left on device", error());
}

TEST_F(UNIXFileTest, CopyThatEndsEarlyLeavesThePartAndTellsTheReason) {
  tree.File("a", std::string(20000, 'x'));
  RestoredSystemCalls restored;
  static int room;
  room = 10000;
  system_calls.write = [](int descriptor, const void* bytes, size_t length) {
    if (room == 0) {
      errno = ENOSPC;
      return ssize_t{-1};
    }
    ssize_t count = ::write(descriptor, bytes, std::min(length, static_cast<size_t>(room)));
    room -= static_cast<int>(count);
    return count;
  };
  EXPECT_FALSE(files.Copy(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ("No space left on device", error());
  EXPECT_EQ(std::string(10000, 'x'), tree.Content("b"));
}

TEST_F(UNIXFileTest, CopyOfAMissingFileMakesNone) {
  EXPECT_FALSE(files.Copy(path("missing").c_str(), path("b").c_str()));
  EXPECT_EQ("No such file or directory", error());
  EXPECT_FALSE(tree.Exists("b"));
}

// A device has no end; the copy ends with the script.
TEST_F(UNIXFileTest, CopyEndsWhenTheScriptIsCancelled) {
  RestoredSystemCalls restored;
  static TestApplication* running;
  static int reads;
  running = &application;
  reads = 0;
  system_calls.read = [](int descriptor, void* bytes, size_t length) {
    if (++reads == 3) running->SetCancelled(1);
    return ::read(descriptor, bytes, length);
  };
  EXPECT_FALSE(files.Copy("/dev/zero", path("b").c_str()));
  EXPECT_EQ("The copy was cancelled", error());
  EXPECT_EQ(3, reads);
}

TEST_F(UNIXFileTest, CopyStopsAtAFailedRead) {
  tree.File("a", "x");
  RestoredSystemCalls restored;
  system_calls.read = [](int, void*, size_t) {
    errno = EIO;
    return ssize_t{-1};
  };
  EXPECT_FALSE(files.Copy(path("a").c_str(), path("b").c_str()));
  EXPECT_EQ("Input/output error", error());
}

TEST_F(UNIXFileTest, TouchCreatesWithFixedRights) {
  mode_t saved = umask(0);
  EXPECT_TRUE(files.TouchFile(path("new").c_str()));
  umask(saved);
  int mode = 0;
  EXPECT_TRUE(files.Mode(path("new").c_str(), &mode));
  EXPECT_EQ(0644, mode & 0777);
}

TEST_F(UNIXFileTest, TouchSetsTheTimeToNow) {
  tree.File("f", "x");
  timespec old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path("f").c_str(), old, 0));
  long before = time(nullptr);
  EXPECT_TRUE(files.TouchFile(path("f").c_str()));
  long modified = 0;
  EXPECT_TRUE(files.ModifiedTime(path("f").c_str(), &modified));
  EXPECT_GE(modified, before - 1);
  EXPECT_EQ("x", tree.Content("f"));
}

TEST_F(UNIXFileTest, TouchMakesNoDirectories) {
  EXPECT_FALSE(files.TouchFile(path("missing/new").c_str()));
  EXPECT_EQ("No such file or directory", error());
  tree.File("f", "x");
  EXPECT_FALSE(files.TouchFile(path("f/new").c_str()));
  EXPECT_EQ("Not a directory", error());
  EXPECT_FALSE(tree.Exists("missing"));
}

TEST_F(UNIXFileTest, ExistsWithoutATypeFailsForAMissingFile) {
  bool exists = true;
  EXPECT_FALSE(files.Exists(path("missing").c_str(), &exists));
  EXPECT_EQ("No such file or directory", error());
  EXPECT_TRUE(exists);  // untouched
  tree.File("f");
  exists = false;
  EXPECT_TRUE(files.Exists(path("f").c_str(), &exists));
  EXPECT_TRUE(exists);
}

TEST_F(UNIXFileTest, DirectoriesAndLinksByPath) {
  EXPECT_TRUE(files.MakeDirectory(path("d").c_str()));
  bool directory = false;
  EXPECT_TRUE(files.IsDirectory(path("d").c_str(), &directory));
  EXPECT_TRUE(directory);
  EXPECT_FALSE(files.MakeDirectory(path("d").c_str()));
  EXPECT_EQ("File exists", error());
  EXPECT_TRUE(files.MakeSymbolicLink("anywhere", path("link").c_str()));
  EXPECT_EQ("anywhere", std::filesystem::read_symlink(path("link")).string());
  EXPECT_FALSE(files.MakeSymbolicLink("elsewhere", path("link").c_str()));
  EXPECT_EQ("File exists", error());
  EXPECT_TRUE(files.RemoveDirectory(path("d").c_str()));
  EXPECT_FALSE(files.RemoveDirectory(path("d").c_str()));
}

TEST_F(UNIXFileTest, ChangesTheMode) {
  tree.File("f");
  EXPECT_TRUE(files.ChangeMode(path("f").c_str(), 0600));
  int mode = 0;
  EXPECT_TRUE(files.Mode(path("f").c_str(), &mode));
  EXPECT_EQ(S_IFREG | 0600, mode);
}

TEST_F(UNIXFileTest, QueriesOfAMissingFileFail) {
  std::string missing = path("missing");
  long number = 0;
  bool flag = false;
  int mode = 0;
  EXPECT_FALSE(files.Length(missing.c_str(), &number));
  EXPECT_FALSE(files.ModifiedTime(missing.c_str(), &number));
  EXPECT_FALSE(files.IsDirectory(missing.c_str(), &flag));
  EXPECT_FALSE(files.Mode(missing.c_str(), &mode));
  EXPECT_FALSE(files.ChangeMode(missing.c_str(), 0600));
  EXPECT_EQ("No such file or directory", error());
}

TEST_F(UNIXFileTest, TemporaryFileWithoutATypeIsInTheWorkingDirectory) {
  std::filesystem::path saved = std::filesystem::current_path();
  std::filesystem::current_path(tree.path());
  tree.File("t.0");
  char* name = nullptr;
  std::unique_ptr<File> file(files.MakeTemporary("t", &name, FileMode_Write));
  std::filesystem::current_path(saved);
  ASSERT_NE(nullptr, file);
  std::unique_ptr<char[]> guard(name);
  EXPECT_STREQ("t.1", name);
  EXPECT_FALSE(file->contained());
  EXPECT_TRUE(tree.Exists("t.1"));
  EXPECT_EQ(nullptr, files.MakeTemporary("a/b", &name, FileMode_Write));
  EXPECT_EQ("Invalid temporary filename prefix", error());
}

TEST_F(UNIXFileTest, PathSeparatorIsTheSlash) {
  EXPECT_EQ('/', files.pathseparator());
}

}  // namespace
