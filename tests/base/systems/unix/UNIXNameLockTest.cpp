// Claims about locks that are names, UNIXFileManager::LockAt.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/host/Config.h"
#include "tests/base/systems/unix/FileFixture.h"

namespace {

// md5 of "testhost", the host name of the test application.
constexpr char host_digest[] = "1c0d1908e692f2648a133abf8a4c0329";

class NameLock : public ContainedFixture<UNIXReentrantFileManager> {
 protected:
  NameLock() {
    Configure(0);
    application.SetProcessID(getpid());
    application.config()->SetValue_Integer(Config_delay_file, 1);
  }

  int Lock(const char* name = "lock") { return files.Lock(ZephPath_Data, name); }

  std::string PrivateName(int process, int thread) {
    return "data/lock." + std::string(host_digest) + "." + std::to_string(process) + "." +
           std::to_string(thread);
  }

  // The number of files in the data directory.
  int Entries() {
    int count = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(tree.path("data")))
      count++;
    return count;
  }

  void SetAge(const char* name, long seconds) {
    timespec times[2] = {{time(nullptr) - seconds, 0}, {time(nullptr) - seconds, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, tree.path(name).c_str(), times, 0));
  }

  // Ends the wait after some pauses, at the next check of `cancelled`.
  class CancelAfterAWhile : public TestApplication {
   public:
    int cancelled() override { return ++asked > 5; }
    int asked = 0;
  };

  // The result of a lock that no other holder will release: it is cancelled after a while.
  int LockForAWhile(const std::function<void(TestApplication&)>& prepare = {}) {
    CancelAfterAWhile impatient;
    impatient.SetProcessID(getpid());
    impatient.SetThreadID(3);
    impatient.config()->SetValue_Integer(Config_delay_file, 1);
    if (prepare) prepare(impatient);
    UNIXReentrantFileManager other(&impatient);
    EXPECT_TRUE(other.InitializeDataDirectory(tree.path("data").c_str()));
    int result = other.Lock(ZephPath_Data, "lock");
    if (result == FileLock_TimedOut) {
      EXPECT_EQ("Timed out waiting for lock", Text(other.error()));
    }
    return result;
  }

  // A process number that no process has.
  int DeadProcess() {
    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
  }
};

TEST_F(NameLock, LeavesTheNameWithARecord) {
  ASSERT_EQ(FileLock_Held, Lock()) << error();
  EXPECT_EQ(std::to_string(getpid()) + "!2:testhost", tree.Content("data/lock"));
  EXPECT_EQ(1, Entries());  // the private name is gone
  struct stat status;
  ASSERT_EQ(0, stat(tree.path("data/lock").c_str(), &status));
  EXPECT_EQ(1u, status.st_nlink);
  EXPECT_TRUE(files.Delete(ZephPath_Data, "lock"));
  EXPECT_EQ(FileLock_Held, Lock());
}

TEST_F(NameLock, WorksInADirectoryAndByPath) {
  tree.Directory("data/d");
  EXPECT_EQ(FileLock_Held, Lock("d/x/../lock"));
  EXPECT_TRUE(tree.Exists("data/d/lock"));
  EXPECT_EQ(FileLock_Held, files.Lock(tree.path("outside/lock").c_str()));
  EXPECT_TRUE(tree.Exists("outside/lock"));
  EXPECT_EQ(FileLock_Failed, Lock("missing/lock"));
  EXPECT_EQ("The specified path references a directory that does not exist", error());
  EXPECT_EQ(FileLock_Failed, Lock("../lock"));
  EXPECT_EQ("The specified path references a path outside the configured data directory", error());
  EXPECT_EQ(FileLock_Failed, files.Lock(tree.path("missing/lock").c_str()));
  EXPECT_EQ("No such file or directory", error());
}

TEST_F(NameLock, PrivateFileHasTheStatedNameAndMode) {
  RestoredSystemCalls restored;
  static std::string seen;
  static int seen_mode;
  system_calls.linkat = [](int directory, const char* from, int, const char*, int) {
    struct stat status;
    EXPECT_EQ(0, ::fstatat(directory, from, &status, 0));
    seen = from;
    seen_mode = static_cast<int>(status.st_mode & 0777);
    errno = EIO;
    return -1;
  };
  mode_t saved = umask(0);
  EXPECT_EQ(FileLock_Failed, Lock());
  umask(saved);
  EXPECT_EQ("Input/output error", error());
  EXPECT_EQ(PrivateName(getpid(), 2), "data/" + seen);
  EXPECT_EQ(0664, seen_mode);
  EXPECT_EQ(0, Entries());
}

TEST_F(NameLock, SecondLockOfTheSameThreadIsADeadlock) {
  ASSERT_EQ(FileLock_Held, Lock());
  EXPECT_EQ(FileLock_Failed, Lock());
  EXPECT_EQ("Possible deadlock detected", error());
  EXPECT_EQ(1, Entries());
}

TEST_F(NameLock, RecordWithoutAThreadOfThisProcessIsADeadlock) {
  tree.File("data/lock", std::to_string(getpid()) + ":testhost");
  EXPECT_EQ(FileLock_Failed, Lock());
  EXPECT_EQ("Possible deadlock detected", error());
}

TEST_F(NameLock, AnotherThreadWaits) {
  ASSERT_EQ(FileLock_Held, Lock());
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  EXPECT_EQ(1, Entries());
}

TEST_F(NameLock, AnotherThreadGetsItAfterDelete) {
  ASSERT_EQ(FileLock_Held, Lock());
  std::atomic<bool> deleted{false};
  std::thread waiter([&] {
    TestApplication own;
    own.SetProcessID(getpid());
    own.SetThreadID(3);
    own.config()->SetValue_Integer(Config_delay_file, 1);
    UNIXReentrantFileManager manager(&own);
    ASSERT_TRUE(manager.InitializeDataDirectory(tree.path("data").c_str()));
    EXPECT_EQ(FileLock_Held, manager.Lock(ZephPath_Data, "lock"));
    EXPECT_TRUE(deleted);
  });
  while (Entries() < 2) std::this_thread::yield();  // the waiter's private file
  deleted = true;
  EXPECT_TRUE(files.Delete(ZephPath_Data, "lock"));
  waiter.join();
}

TEST_F(NameLock, CancelledApplicationDoesNotTry) {
  application.SetCancelled(1);
  EXPECT_EQ(FileLock_TimedOut, Lock());
  EXPECT_EQ("Timed out waiting for lock", error());
  EXPECT_EQ(0, Entries());
}

// The pauses of one wait, in milliseconds.
std::vector<int> pauses;

TEST_F(NameLock, PausesAsLongAsTheSettingSays) {
  struct Case {
    int setting;
    std::vector<int> pauses;
  } cases[] = {
      {100, {100, 100}},
      {1200, {500, 500, 200}},
      {0, {1, 1}},  // never a busy loop
      {-5, {1, 1}},
      // A script that is cancelled does not wait to the end of a long pause.
      {1000000, {500, 500, 500, 500}},
  };
  tree.File("data/lock", "1!1:elsewhere");
  RestoredSystemCalls restored;
  system_calls.poll = [](pollfd*, nfds_t, int milliseconds) {
    pauses.push_back(milliseconds);
    return 0;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.setting);
    pauses.clear();
    EXPECT_EQ(FileLock_TimedOut, LockForAWhile([&](TestApplication& impatient) {
                impatient.config()->SetValue_Integer(Config_delay_file, c.setting);
              }));
    EXPECT_EQ(c.pauses, pauses);
  }
}

TEST_F(NameLock, DeadProcessOfThisHostIsBrokenAtOnce) {
  tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  EXPECT_EQ(FileLock_Held, Lock());
  EXPECT_EQ(1, Entries());
}

TEST_F(NameLock, LiveProcessOfThisHostIsNeverBroken) {
  tree.File("data/lock", std::to_string(getppid()) + "!9:testhost");
  SetAge("data/lock", 100000);
  EXPECT_EQ(FileLock_TimedOut,
            LockForAWhile([](TestApplication& impatient) { impatient.SetLockExpiration(1); }));
}

TEST_F(NameLock, LocksOfOtherHostsExpire) {
  struct Case {
    const char* label;
    const char* record;
    int expiration;
    long age;
    int expected;
  } cases[] = {
      {"other host, old", "77!1:elsewhere", 60, 61, FileLock_Held},
      {"other host, just expired", "77!1:elsewhere", 60, 60, FileLock_Held},
      {"other host, fresh", "77!1:elsewhere", 60, 0, FileLock_TimedOut},
      {"other host, never", "77!1:elsewhere", 0, 1000000, FileLock_TimedOut},
      {"host name in other case", "1!1:TestHost", 60, 61, FileLock_Held},
      {"unreadable, old", "rubbish", 60, 61, FileLock_Held},
      {"unreadable, fresh", "rubbish", 60, 0, FileLock_TimedOut},
      {"empty, old", "", 60, 61, FileLock_Held},
      {"no host, old", "77!1", 60, 61, FileLock_Held},
      {"no process, old", "0!1:testhost", 60, 61, FileLock_Held},
      {"no process, fresh", ":testhost", 60, 0, FileLock_TimedOut},
      {"number too large", "99999999999999999999!1:elsewhere", 60, 61, FileLock_Held},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    tree.File("data/lock", c.record);
    SetAge("data/lock", c.age);
    EXPECT_EQ(c.expected, LockForAWhile([&](TestApplication& impatient) {
                impatient.SetLockExpiration(c.expiration);
              }));
    EXPECT_EQ(1, Entries());
  }
}

TEST_F(NameLock, TouchKeepsALockFromExpiring) {
  tree.File("data/lock", "77!1:elsewhere");
  SetAge("data/lock", 1000);
  EXPECT_TRUE(files.TouchFile(ZephPath_Data, "lock"));
  EXPECT_EQ(FileLock_TimedOut,
            LockForAWhile([](TestApplication& impatient) { impatient.SetLockExpiration(60); }));
}

TEST_F(NameLock, LongRecordIsReadAsFarAsItMatters) {
  // The colon of this record is after the bytes that are read, so it has no host.
  tree.File("data/lock", std::to_string(getpid()) + "!2" + std::string(600, ' ') + ":testhost");
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
}

TEST_F(NameLock, PrivateFileOfACrashStopsTheNextLock) {
  tree.File(PrivateName(getpid(), 2), "left behind");
  EXPECT_EQ(FileLock_Failed, Lock());
  EXPECT_EQ("File exists", error());
  EXPECT_EQ("left behind", tree.Content(PrivateName(getpid(), 2)));
}

TEST_F(NameLock, RecordThatCannotBeWrittenLeavesNothing) {
  RestoredSystemCalls restored;
  system_calls.write = [](int, const void*, size_t) {
    errno = ENOSPC;
    return ssize_t{-1};
  };
  EXPECT_EQ(FileLock_Failed, Lock());
  EXPECT_EQ("No space left on device", error());
  EXPECT_EQ(0, Entries());
}

TEST_F(NameLock, LinkThatIsNotOursDoesNotCount) {
  // A network file system reported success, but another holder's file has the name.
  RestoredSystemCalls restored;
  system_calls.linkat = [](int, const char*, int, const char*, int) { return 0; };
  tree.File("data/lock", "77!1:elsewhere");
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  EXPECT_EQ(1, Entries());
}

TEST_F(NameLock, NamesThatAreNoFilesAreWaitedFor) {
  struct Case {
    const char* label;
    std::function<void(const std::string&)> make;
  } cases[] = {
      {"directory", [](const std::string& p) { ASSERT_EQ(0, mkdir(p.c_str(), 0700)); }},
      {"fifo", [](const std::string& p) { ASSERT_EQ(0, mkfifo(p.c_str(), 0600)); }},
      {"dangling link", [](const std::string& p) { ASSERT_EQ(0, symlink("missing", p.c_str())); }},
      {"link to a file outside",
       [](const std::string& p) { ASSERT_EQ(0, symlink("../outside/f", p.c_str())); }},
  };
  tree.File("outside/f", std::to_string(getpid()) + "!3:testhost");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    c.make(tree.path("data/lock"));
    EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
    EXPECT_EQ(1, Entries());
    std::filesystem::remove(tree.path("data/lock"));
  }
}

TEST_F(NameLock, OwnerThatCannotBeSignalledIsAlive) {
  tree.File("data/lock", "77!1:testhost");
  RestoredSystemCalls restored;
  system_calls.kill = [](pid_t, int) {
    errno = EPERM;
    return -1;
  };
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
}

TEST_F(NameLock, AbandonedLockThatCannotBeRemovedIsWaitedFor) {
  tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  RestoredSystemCalls restored;
  system_calls.unlinkat = [](int directory, const char* name, int flags) {
    if (std::string(name) == "lock") {
      errno = EPERM;
      return -1;
    }
    return ::unlinkat(directory, name, flags);
  };
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
}

TEST_F(NameLock, AbandonedLockIsRemovedByOneWaiterAtATime) {
  std::string path = tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  {
    FileDescriptor other(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, flock(other.get(), LOCK_EX));
    EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  }
  {
    FileDescriptor other(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(0, fcntl(other.get(), F_OFD_SETLK, &whole));
    EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  }
  EXPECT_EQ(FileLock_Held, LockForAWhile());
}

std::string* fresh_lock;

TEST_F(NameLock, LockTakenMeanwhileIsNotRemovedForTheAbandonedOne) {
  tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  std::string path = tree.path("data/lock");
  fresh_lock = &path;
  RestoredSystemCalls restored;
  // Another waiter is faster: it has removed the abandoned lock and made its own, just when this
  // one has found that the owner is dead.
  system_calls.kill = [](pid_t process, int signal) {
    if (!fresh_lock->empty()) {
      std::filesystem::remove(*fresh_lock);
      FileDescriptor created(open(fresh_lock->c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      EXPECT_EQ(14, ::write(created.get(), "77!1:elsewhere", 14));
      fresh_lock->clear();
    }
    return ::kill(process, signal);
  };
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  EXPECT_EQ("77!1:elsewhere", tree.Content("data/lock"));
}

std::string long_held;  // the path of a lock

// Other hosts judge a lock by its age. A waiter's file, which becomes the lock, is as old as its
// wait.
TEST_F(NameLock, LockTakenAfterALongWaitIsYoung) {
  tree.File("data/lock", "77!1:elsewhere");
  long_held = tree.path("data/lock");
  RestoredSystemCalls restored;
  // During the pause an hour goes by, and the holder gives the lock up.
  system_calls.poll = [](pollfd*, nfds_t, int) {
    std::filesystem::remove(long_held);
    const timespec times[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(long_held).parent_path())) {
      EXPECT_EQ(0, ::utimensat(AT_FDCWD, file.path().c_str(), times, 0));
    }
    return 0;
  };
  ASSERT_EQ(FileLock_Held, LockForAWhile());
  struct stat status;
  ASSERT_EQ(0, stat(long_held.c_str(), &status));
  EXPECT_LT(time(nullptr) - status.st_mtime, 1800);
}

std::string given_up;  // the path of a lock whose holder gives it up during a call
int pauses_made = 0;

// Whatever a waiter has just asked of a lock that is given up, it takes the name without a pause.
TEST_F(NameLock, LockGivenUpMeanwhileIsTakenAtOnce) {
  const struct {
    const char* label;
    std::string record;
    void (*prepare)();
  } cases[] = {
      {"before its status is read", "1!1:elsewhere",
       [] {
         system_calls.fstatat = [](int directory, const char* name, struct stat* s, int flags) {
           if (strcmp(name, "lock") == 0) unlink(std::exchange(given_up, "").c_str());
           return ::fstatat(directory, name, s, flags);
         };
       }},
      {"before it is opened", "1!1:elsewhere",
       [] {
         system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
           if (strcmp(name, "lock") == 0) unlink(std::exchange(given_up, "").c_str());
           return OpenAt(directory, name, flags, mode);
         };
       }},
      {"before it is removed as abandoned", std::to_string(DeadProcess()) + "!9:testhost",
       [] {
         system_calls.kill = [](pid_t process, int signal) {
           unlink(std::exchange(given_up, "").c_str());
           return ::kill(process, signal);
         };
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    given_up = tree.File("data/lock", c.record);
    pauses_made = 0;
    RestoredSystemCalls restored;
    system_calls.poll = [](pollfd*, nfds_t, int) { return ++pauses_made; };
    c.prepare();
    EXPECT_EQ(FileLock_Held, Lock());
    EXPECT_EQ("", given_up);
    EXPECT_EQ(0, pauses_made);
    EXPECT_TRUE(files.Delete(ZephPath_Data, "lock"));
  }
}

// The last look before an abandoned lock is removed: by then a faster waiter has replaced it.
TEST_F(NameLock, LockReplacedAtTheLastLookIsNotRemoved) {
  given_up = tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  RestoredSystemCalls restored;
  static int looks;
  looks = 0;
  system_calls.fstatat = [](int directory, const char* name, struct stat* s, int flags) {
    if (strcmp(name, "lock") == 0 && ++looks == 2) {
      const std::string fresh = given_up + ".fresh";
      FileDescriptor created(open(fresh.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      EXPECT_EQ(15, write(created.get(), "1!1:elsewhere.n", 15));
      EXPECT_EQ(0, rename(fresh.c_str(), given_up.c_str()));
    }
    return ::fstatat(directory, name, s, flags);
  };
  EXPECT_EQ(FileLock_TimedOut, LockForAWhile());
  EXPECT_GT(looks, 2);
  EXPECT_EQ("1!1:elsewhere.n", tree.Content("data/lock"));
}

TEST_F(NameLock, AnotherUsersAbandonedLockIsRemoved) {
  ZEPH_NEEDS_ROOT();
  std::string path = tree.File("data/lock", std::to_string(DeadProcess()) + "!9:testhost");
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  ASSERT_EQ(0, chmod(tree.path().c_str(), 0755));
  ASSERT_EQ(0, chmod(tree.path("data").c_str(), 0777));
  ASSERT_EQ(0, seteuid(other_user));
  int result = Lock();
  std::string text = error();
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ(FileLock_Held, result) << text;
}

TEST_F(NameLock, ExcludesThreads) {
  std::atomic<int> inside{0};
  std::atomic<int> rounds{0};
  auto work = [&](int thread) {
    TestApplication own;
    own.SetProcessID(getpid());
    own.SetThreadID(thread);
    own.config()->SetValue_Integer(Config_delay_file, 1);
    UNIXReentrantFileManager manager(&own);
    ASSERT_TRUE(manager.InitializeDataDirectory(tree.path("data").c_str()));
    for (int i = 0; i < 25; i++) {
      ASSERT_EQ(FileLock_Held, manager.Lock(ZephPath_Data, "lock")) << Text(manager.error());
      EXPECT_EQ(1, ++inside);
      rounds++;
      --inside;
      ASSERT_TRUE(manager.Delete(ZephPath_Data, "lock")) << Text(manager.error());
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) threads.emplace_back(work, 10 + i);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(100, rounds);
  EXPECT_EQ(0, Entries());
}

// Raises a number in a file; without the lock some increments would be lost. Some children die
// while they hold the lock.
void CountInChild(const std::string& root, int rounds, bool dies) {
  TestApplication own;
  own.SetProcessID(getpid());
  own.SetThreadID(1);
  own.config()->SetValue_Integer(Config_delay_file, 1);
  UNIXReentrantFileManager manager(&own);
  if (!manager.InitializeDataDirectory((root + "/data").c_str())) _exit(2);
  std::string counter = root + "/counter";
  for (int i = 0; i < rounds; i++) {
    if (manager.Lock(ZephPath_Data, "lock") != FileLock_Held) _exit(3);
    int value = 0;
    FileDescriptor file(open(counter.c_str(), O_RDWR | O_CLOEXEC));
    if (pread(file.get(), &value, sizeof(value), 0) != sizeof(value)) _exit(4);
    sched_yield();
    value++;
    if (pwrite(file.get(), &value, sizeof(value), 0) != sizeof(value)) _exit(5);
    if (dies && i == rounds - 1) _exit(0);
    if (!manager.Delete(ZephPath_Data, "lock")) _exit(6);
  }
  _exit(0);
}

TEST_F(NameLock, ExcludesProcessesAndSurvivesTheirDeath) {
  constexpr int children = 6;
  constexpr int rounds = 20;
  int zero = 0;
  tree.File("counter", std::string(reinterpret_cast<char*>(&zero), sizeof(zero)));
  std::vector<pid_t> processes;
  for (int i = 0; i < children; i++) {
    pid_t child = fork();
    if (child == 0) CountInChild(tree.path(), rounds, i % 2 == 0);
    processes.push_back(child);
  }
  // Waits in the order of their ends: a dead child that was not waited for still counts as alive.
  for (size_t i = 0; i < processes.size(); i++) {
    int status = 0;
    ASSERT_GT(wait(&status), 0);
    EXPECT_EQ(0, status);
  }
  int value = 0;
  std::string content = tree.Content("counter");
  ASSERT_EQ(sizeof(value), content.size());
  memcpy(&value, content.data(), sizeof(value));
  EXPECT_EQ(children * rounds, value);
}

TEST_F(NameLock, NeedsAHandle) {
  files.MaxFiles(-1);
  EXPECT_EQ(FileLock_Failed, Lock());
}

}  // namespace
