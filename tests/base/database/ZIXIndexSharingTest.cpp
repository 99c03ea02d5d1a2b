// Many threads and processes on one table and its index: no entry is lost, and none is there twice.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "base/database/XBaseTable.h"
#include "base/database/ZIXIndexFile.h"
#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexOperations.h"

namespace {

constexpr int kRecordsOfEach = kAddressSanitizer || kThreadSanitizer ? 60 : 400;
constexpr int kThreads = 8;
constexpr int kProcesses = 4;

// Holds threads and processes until all are ready.
class Gate {
 public:
  Gate() {
    if (pipe(ends) != 0) abort();
  }
  ~Gate() { close(ends[0]); }
  void Open() { close(ends[1]); }
  // read returns at the end of the pipe, which comes when no writer is left.
  void Wait() {
    char byte;
    while (read(ends[0], &byte, 1) > 0) {
    }
  }

 private:
  int ends[2];
};

// One opener of the table and its index, with all the objects that a request has.
class Opener {
 public:
  explicit Opener(const std::string& directory) {
    application.SetFileManager(&files);
    good = files.InitializeDataDirectory(directory.c_str());
  }

  bool Create() {
    List<XBaseField> fields(1);
    fields.Insert(new XBaseField(nullptr, "NAME", XBaseField_Character, 20, 0), ListTail);
    fields.Insert(new XBaseField(nullptr, "CHANGES", XBaseField_Numeric, 10, 0), ListTail);
    return table.Create(ZephPath_Data, "t.dbf", "", 0, fields) &&
           index.Create(ZephPath_Data, "t.zix", KeyBytes("NAME"), ZIXIndex_Text | ZIXIndex_Unique);
  }
  bool Open() {
    return good && table.Open(ZephPath_Data, "t.dbf", -1, 3) &&
           index.Open(ZephPath_Data, "t.zix", 3);
  }

  // Appends records under names of its own. Every second one is then found by its key, changed, and
  // gets another key. Returns an empty text if all went well.
  std::string Work(int opener) {
    if (!Open()) return "open: " + Reasons();
    for (int i = 0; i < kRecordsOfEach; i++) {
      const std::string name = Name(opener, i);
      Set(name, "0");
      if (!table.Append()) return "append: " + Reasons();
      if (!Insert(index, name, static_cast<unsigned>(table.record_number())))
        return "insert: " + Reasons();
      if (i % 2 == 0) continue;
      const std::string changed = Rename(Name(opener, i - 1));
      if (!changed.empty()) return changed;
    }
    return "";
  }

  std::string Rename(const std::string& name) {
    const ZIXIndexFound place = Find(index, name);
    if (!place.good || !place.found) return "find " + name + ": " + Reasons();
    if (!table.Goto(static_cast<int>(place.record))) return "goto: " + Reasons();
    if (Value(0) != name) return "the record of " + name + " has " + Value(0);
    Set(name + "b", "1");
    if (!Delete(index, name, place.record)) return "delete: " + Reasons();
    if (!Insert(index, name + "b", place.record)) return "insert again: " + Reasons();
    if (!index._Seek(KeyBytes(name + "b"), -1, place.record, 1)) return "seek: " + Reasons();
    return table.Update() ? "" : "update: " + Reasons();
  }

  static std::string Name(int opener, int i) {
    return "opener " + std::to_string(10 + opener) + " " + std::to_string(1000 + i);
  }
  std::string Value(int field) {
    XBaseField* at = table.fields().First();
    while (field-- > 0) at = table.fields().Next();
    return at->data();
  }

  TestApplication application;
  UNIXReentrantFileManager files{&application};
  XBaseTable table{&application};
  ZIXIndexFile index{&application};

 private:
  void Set(const std::string& name, const std::string& changes) {
    table.fields().First()->Set(name.c_str(), -1);
    table.fields().Next()->Set(changes.c_str(), -1);
  }
  std::string Reasons() {
    const String& other = table.error();
    return (other.data ? std::string(other.data) : "") + " / " + ErrorText(index);
  }

  bool good;
};

// Checks what all openers together must have left.
void CheckAll(const std::string& directory, const std::string& index_bytes, int openers) {
  Opener reader(directory);
  ASSERT_TRUE(reader.Open());
  const int expected = openers * kRecordsOfEach;
  EXPECT_EQ(expected, reader.table.record_count());
  std::vector<ZIXIndexEntry> in_table;
  std::multiset<std::string> names;
  for (int record = 1; record <= reader.table.record_count(); record++) {
    ASSERT_TRUE(reader.table.Goto(record));
    const std::string name = reader.Value(0);
    EXPECT_EQ(name.back() == 'b' ? "1" : "0", reader.Value(1)) << name;
    in_table.emplace_back(name, static_cast<uint32_t>(record));
    names.insert(name);
  }
  for (int opener = 0; opener < openers; opener++)
    for (int i = 0; i < kRecordsOfEach; i++) {
      const std::string name = Opener::Name(opener, i) + (i % 2 ? "" : "b");
      EXPECT_EQ(1u, names.count(name)) << name;
    }
  ZIXIndexChecker checker(index_bytes);
  EXPECT_EQ("", checker.Check());
  std::sort(in_table.begin(), in_table.end());
  EXPECT_EQ(in_table, checker.entries);
  // One insertion for each record, and two changes for every second one.
  EXPECT_EQ(static_cast<uint32_t>(expected * 2), checker.updatecount());
}

pid_t StartProcess(Gate* gate, const std::string& directory, int opener) {
  const pid_t process = fork();
  if (process != 0) return process;
  gate->Open();
  gate->Wait();
  const std::string failure = Opener(directory).Work(opener);
  if (!failure.empty()) fprintf(stderr, "process %d: %s\n", opener, failure.c_str());
  _exit(failure.empty() ? 0 : 1);
}

void RunOpeners(int process_count, int thread_count) {
  TemporaryDirectory directory;
  ASSERT_TRUE(Opener(directory.path()).Create());
  Gate gate;
  std::vector<pid_t> processes;
  for (int i = 0; i < process_count; i++)
    processes.push_back(StartProcess(&gate, directory.path(), i));
  std::vector<std::future<std::string>> threads;
  for (int i = process_count; i < process_count + thread_count; i++)
    threads.push_back(std::async(std::launch::async, [&, i] {
      gate.Wait();
      return Opener(directory.path()).Work(i);
    }));
  gate.Open();
  for (auto& thread : threads) EXPECT_EQ("", thread.get());
  for (pid_t process : processes) {
    int status = 0;
    ASSERT_EQ(process, waitpid(process, &status, 0));
    EXPECT_EQ(0, status);
  }
  CheckAll(directory.path(), directory.Content("t.zix"), process_count + thread_count);
}

TEST(SlowZIXIndexSharing, EightThreadsAndFourProcessesLoseNothing) {
  RunOpeners(kProcesses, kThreads);
}

TEST(ZIXIndexSharing, ThreadsOfOneProcessExcludeEachOther) {
  RunOpeners(0, 3);
}

// --- Locks of other programs ---------------------------------------------------------------------

// A process that locks the way other programs do, with a lock that belongs to the process. It
// carries out one order at a time and replies to each.
class ForeignProcess {
 public:
  explicit ForeignProcess(const std::string& path) {
    if (pipe(orders) != 0 || pipe(answers) != 0) abort();
    process = fork();
    if (process == 0) Run(path);
  }
  ~ForeignProcess() {
    close(orders[1]);
    waitpid(process, nullptr, 0);
    for (int descriptor : {orders[0], answers[0], answers[1]}) close(descriptor);
  }

  // 'x' locks the header exclusively, 's' shared, 'u' unlocks, 'w' raises the update count by
  // writing a root with the one key "foreign". Returns the reply, '+' or '-'.
  char Do(char order) {
    char answer = 0;
    if (write(orders[1], &order, 1) != 1 || read(answers[0], &answer, 1) != 1) return 0;
    return answer;
  }

 private:
  [[noreturn]] void Run(const std::string& path) {
    close(orders[1]);
    const int file = open(path.c_str(), O_RDWR);
    char order = 0;
    while (read(orders[0], &order, 1) == 1) {
      bool done = false;
      if (order == 'w') {
        const std::string root = ZIXIndexPageBytes(ZIXIndexShape(), {{"foreign", 77}});
        done =
            pwrite(file, root.data(), root.size(), 1024) == 1024 && pwrite(file, "\x55", 1, 5) == 1;
      } else {
        struct flock range = {};
        range.l_type = order == 'x' ? F_WRLCK : order == 's' ? F_RDLCK : F_UNLCK;
        range.l_len = 427;
        done = fcntl(file, F_SETLK, &range) == 0;
      }
      const char answer = done ? '+' : '-';
      if (write(answers[1], &answer, 1) != 1) break;
    }
    _exit(0);
  }

  int orders[2];
  int answers[2];
  pid_t process;
};

class ZIXIndexForeignLock : public testing::Test {
 protected:
  ZIXIndexForeignLock() {
    application.SetFileManager(&files);
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
    EXPECT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0));
    EXPECT_TRUE(Insert(index, "own", 1));
  }

  TemporaryDirectory directory;
  TestApplication application;
  UNIXReentrantFileManager files{&application};
  ZIXIndexFile index{&application};
};

TEST_F(ZIXIndexForeignLock, IsRespected) {
  ForeignProcess foreign(directory.path("i.zix"));
  // A cancelled script gives up instead of waiting, which shows if it would have to wait.
  application.SetCancelled(1);
  ASSERT_EQ('+', foreign.Do('x'));
  EXPECT_FALSE(Find(index, "own").good);
  EXPECT_EQ("Error locking 'i.zix' for read", ErrorText(index));
  EXPECT_FALSE(Insert(index, "more", 2));
  EXPECT_EQ("Error locking 'i.zix' for write", ErrorText(index));
  ASSERT_EQ('+', foreign.Do('s'));
  EXPECT_TRUE(Find(index, "own").good);
  EXPECT_FALSE(Delete(index, "own", 1));
  ASSERT_EQ('+', foreign.Do('u'));
  EXPECT_TRUE(Insert(index, "more", 2));
}

TEST_F(ZIXIndexForeignLock, IsWaitedFor) {
  ForeignProcess foreign(directory.path("i.zix"));
  ASSERT_EQ('+', foreign.Do('x'));
  std::promise<void> begun;
  std::future<ZIXIndexFound> found = std::async(std::launch::async, [&] {
    begun.set_value();
    return Find(index, "foreign");
  });
  begun.get_future().wait();
  // This is written late: a search that had not waited would not find it.
  ASSERT_EQ('+', foreign.Do('w'));
  ASSERT_EQ('+', foreign.Do('u'));
  EXPECT_EQ((ZIXIndexFound{true, 1, 77}), found.get());
}

TEST_F(ZIXIndexForeignLock, HasToWaitForOurs) {
  ForeignProcess foreign(directory.path("i.zix"));
  std::unique_ptr<File> file(files.Open(ZephPath_Data, "i.zix", 3));
  ASSERT_TRUE(file->Lock(FileLock_Shared, 0, 427));
  EXPECT_EQ('-', foreign.Do('x'));
  EXPECT_EQ('+', foreign.Do('s'));
  EXPECT_EQ('+', foreign.Do('u'));
  ASSERT_TRUE(file->Release(0, 427));
  ASSERT_TRUE(file->Lock(FileLock_Exclusive, 0, 427));
  EXPECT_EQ('-', foreign.Do('s'));
  ASSERT_TRUE(file->Release(0, 427));
  EXPECT_EQ('+', foreign.Do('x'));
}

// --- Steps without a lock ------------------------------------------------------------------------

// "own" has the record 1; here are three more entries of the same page.
class ZIXIndexStep : public ZIXIndexForeignLock {
 protected:
  ZIXIndexStep() {
    EXPECT_TRUE(Insert(index, "own 2", 2));
    EXPECT_TRUE(Insert(index, "own 3", 3));
    EXPECT_TRUE(Insert(index, "own 4", 4));
    EXPECT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "own 2"));
  }
  ~ZIXIndexStep() override { system_calls = SystemCalls(); }
  // Counts the locks that are taken from here on.
  void CountLocks() {
    locks = 0;
    system_calls.set_lock = [](int descriptor, struct flock* range) {
      locks += range->l_type != F_UNLCK;
      return SetLock(descriptor, range);
    };
  }
  static inline int locks = 0;
};

TEST_F(ZIXIndexStep, RespectsAForeignLock) {
  ForeignProcess foreign(directory.path("i.zix"));
  application.SetCancelled(1);
  ASSERT_EQ('+', foreign.Do('x'));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ("Error locking 'i.zix' for read", ErrorText(index));
  EXPECT_EQ(0u, Prev(index));
  ASSERT_EQ('+', foreign.Do('s'));
  EXPECT_EQ(3u, Next(index));
  EXPECT_EQ(2u, Prev(index));
  ASSERT_EQ('+', foreign.Do('u'));
  EXPECT_EQ(1u, Prev(index));
}

TEST_F(ZIXIndexStep, WaitsForAForeignLock) {
  for (const bool forward : {true, false}) {
    ASSERT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "own 2"));
    ForeignProcess foreign(directory.path("i.zix"));
    ASSERT_EQ('+', foreign.Do('x'));
    std::promise<void> begun;
    std::future<unsigned> reached = std::async(std::launch::async, [&] {
      begun.set_value();
      return forward ? Next(index) : Prev(index);
    });
    begun.get_future().wait();
    // The present entry is gone then: a step that had not waited would reach another one.
    ASSERT_EQ('+', foreign.Do('w'));
    ASSERT_EQ('+', foreign.Do('u'));
    EXPECT_EQ(0u, reached.get());
    ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0));
    for (unsigned record = 1; record <= 4; record++)
      ASSERT_TRUE(Insert(index, "own " + std::to_string(record), record));
  }
}

TEST_F(ZIXIndexStep, SeesWhatOthersHaveDoneBetweenTwoSteps) {
  ZIXIndexFile other(&application);
  ASSERT_TRUE(other.Open(ZephPath_Data, "i.zix", 3));
  ASSERT_TRUE(Insert(other, "own 2a", 5));
  EXPECT_EQ(5u, Next(index));
  ASSERT_TRUE(Delete(other, "own 3", 3));
  EXPECT_EQ(4u, Next(index));
  ASSERT_TRUE(Insert(other, "own 3a", 6));
  EXPECT_EQ(6u, Prev(index));
  ASSERT_TRUE(Delete(other, "own 3a", 6));
  EXPECT_EQ(0u, Prev(index));
  // The object's own changes count like those of others.
  ASSERT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "own 2"));
  ASSERT_TRUE(Insert(index, "own 2b", 7));
  EXPECT_EQ(5u, Next(index));
  EXPECT_EQ(7u, Next(index));
}

TEST_F(ZIXIndexStep, ReportsAHeaderThatIsDamagedMeanwhile) {
  const int file = open(directory.path("i.zix").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(1, pwrite(file, "X", 1, 0));
  close(file);
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ("'i.zix' is either corrupt or is not a valid index file", ErrorText(index));
}

TEST_F(ZIXIndexStep, TakesALockOnlyForAnotherPage) {
  for (unsigned record = 5; record <= 300; record++)
    ASSERT_TRUE(Insert(index, "own " + std::to_string(1000 + record), record));
  const size_t pages = [&] {
    const std::string content = directory.Content("i.zix");
    ZIXIndexChecker checker(content);
    EXPECT_EQ("", checker.Check());
    return checker.pages.size();
  }();
  CountLocks();
  EXPECT_EQ(300u, Forward(index).size());
  EXPECT_LE(locks, static_cast<int>(pages));
  CountLocks();
  EXPECT_EQ(300u, Backward(index).size());
  EXPECT_LE(locks, static_cast<int>(pages));
}

// The low byte of such a count could come from the middle of a write that carries.
TEST_F(ZIXIndexStep, TakesALockAtACountThatAMixOfTwoCouldBe) {
  for (unsigned record = 5; record <= 257; record++)
    ASSERT_TRUE(Insert(index, "own " + std::to_string(1000 + record), record));
  // Each change raises the count, which was 4; a change at the end leaves the entries here alone.
  for (unsigned count = 257; count < 520; count++) {
    ASSERT_EQ(index.updatecount(), count);
    ASSERT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "own 2"));
    CountLocks();
    EXPECT_EQ(3u, Next(index));
    EXPECT_EQ(locks, count % 256 == 0 || count % 256 == 255 ? 1 : 0) << count;
    ASSERT_TRUE(count % 2 ? Insert(index, "~", 9999) : Delete(index, "~", 9999));
  }
}

TEST_F(ZIXIndexStep, TakesALockWhereTheSystemCannotTell) {
  system_calls.get_lock = [](int, struct flock*) {
    errno = EINVAL;
    return -1;
  };
  CountLocks();
  EXPECT_EQ(3u, Next(index));
  EXPECT_EQ(2u, Prev(index));
  EXPECT_EQ(2, locks);
}

// A process changes the tree all the time, so that pages are split and merged below a cursor of
// this one. The entries that stay are met once each, in their order, by every walk.
TEST(ZIXIndexSharing, WalksBesideAWriterMeetEveryEntryOnce) {
  constexpr unsigned kStaying = 100;
  constexpr int kWalks = kAddressSanitizer || kThreadSanitizer ? 20 : 200;
  TemporaryDirectory directory;
  Opener reader(directory.path());
  ASSERT_TRUE(reader.index.Create(ZephPath_Data, "t.zix", KeyBytes("key"), ZIXIndex_Text));
  const auto key = [](unsigned record) { return std::to_string(1000 + record); };
  for (unsigned record = 1; record <= kStaying; record++)
    ASSERT_TRUE(Insert(reader.index, key(record), record));
  int stop[2];
  ASSERT_EQ(0, pipe(stop));
  const pid_t writer = fork();
  if (writer == 0) {
    close(stop[1]);
    fcntl(stop[0], F_SETFL, O_NONBLOCK);
    Opener opener(directory.path());
    bool good = opener.index.Open(ZephPath_Data, "t.zix", 3);
    char byte;
    for (unsigned round = 0; good && read(stop[0], &byte, 1) != 0; round++) {
      const unsigned from = round * 37 % (kStaying - 9);
      for (unsigned i = 0; good && i < 30; i++)
        good = Insert(opener.index, key(from + i % 10) + "+" + std::to_string(i), 1000 + i);
      for (unsigned i = 0; good && i < 30; i++)
        good = Delete(opener.index, key(from + i % 10) + "+" + std::to_string(i), 1000 + i);
    }
    _exit(good ? 0 : 1);
  }
  close(stop[0]);
  for (int walk = 0; walk < kWalks; walk++) {
    const bool forward = walk % 2 == 0;
    // A cursor whose entry is deleted is at the end, so the walk goes on from the last one that
    // stays.
    unsigned expected = forward ? 1 : kStaying, met = 0;
    unsigned record = forward ? First(reader.index) : Last(reader.index);
    while (met < kStaying) {
      if (record == 0) {
        ASSERT_TRUE(met > 0);
        const unsigned last = forward ? expected - 1 : expected + 1;
        ASSERT_EQ((ZIXIndexFound{true, 1, last}), Find(reader.index, key(last)));
      } else if (record <= kStaying) {
        ASSERT_EQ(expected, record) << "walk " << walk;
        forward ? expected++ : expected--;
        if (++met == kStaying) break;
      }
      record = forward ? Next(reader.index) : Prev(reader.index);
    }
  }
  close(stop[1]);
  int status = 0;
  ASSERT_EQ(writer, waitpid(writer, &status, 0));
  EXPECT_EQ(0, status);
  const std::string content = directory.Content("t.zix");
  EXPECT_EQ("", ZIXIndexChecker(content).Check());
}

}  // namespace
