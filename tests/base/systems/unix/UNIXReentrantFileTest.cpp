#include "base/systems/unix/UNIXReentrantFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/compiled/TaggedFile.h"
#include "base/core/ThreadMemory.h"
#include "base/systems/unix/UNIXPathWalk.h"
#include "tests/base/systems/unix/FileFixture.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FailingSystemCalls.h"
#include "tests/support/OtherUser.h"
#include "tools/Assembler.h"

namespace {

class Reentrant : public ContainedFixture<UNIXReentrantFileManager> {
 protected:
  // The object that OpenPath reaches from the tree's root, as its path below the tree, or the
  // result code as text.
  std::string Walk(const std::string& path, bool symlinks = false, bool other_owner = false) {
    FileDescriptor base(open(tree.path().c_str(), O_RDONLY | O_CLOEXEC));
    int descriptor = -1;
    int result = files.OpenPath(base.get(), path.c_str(), &descriptor, symlinks, other_owner);
    if (result != PathWalk_Done) {
      EXPECT_EQ(-1, descriptor);
      return std::to_string(result);
    }
    FileDescriptor opened(descriptor);
    std::string name =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string();
    return name.rfind(tree.path() + "/", 0) == 0 ? name.substr(tree.path().size() + 1) : name;
  }

  static int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      count++;
    return count;
  }
};

TEST_F(Reentrant, WalkOpensElementByElement) {
  tree.File("data/a/b/f");
  EXPECT_EQ("data/a/b", Walk("data/a/b"));
  EXPECT_EQ("data/a/b", Walk("data//a/b/"));
  EXPECT_EQ("data/a", Walk("data/a/b/.."));
  EXPECT_EQ("data/a/b", Walk(tree.path("data/a/b")));
  EXPECT_EQ("/", Walk("/"));
  EXPECT_EQ("1", Walk("data/missing/b"));
  EXPECT_EQ("1", Walk(""));
  EXPECT_EQ("data/a/b/f", Walk("data/a/b/f"));  // the target need not be a directory
  EXPECT_EQ("1", Walk("data/a/b/f/g"));
}

TEST_F(Reentrant, WalkMeetsLinksAsItIsTold) {
  tree.File("data/a/b/f");
  tree.Link("data/relative", "a/b");
  tree.Link("data/absolute", tree.path("data/a"));
  tree.Link("data/a/back", "../../data/a/b");
  tree.Link("data/dangling", "missing");
  tree.Link("data/parent", "..");
  EXPECT_EQ("2", Walk("data/relative"));
  EXPECT_EQ("data/a/b", Walk("data/relative", true));
  EXPECT_EQ("data/a/b", Walk("data/absolute/b", true));
  EXPECT_EQ("data/a/b", Walk("data/absolute/back", true));
  EXPECT_EQ("outside", Walk("data/parent/outside", true));
  EXPECT_EQ("1", Walk("data/dangling", true));
  EXPECT_EQ("data/a/b", Walk("data/absolute/back", true, true));
  EXPECT_EQ("1", Walk("data/dangling", true, true));
}

TEST_F(Reentrant, WalkEndsInALoop) {
  tree.Link("data/one", "two/x");
  tree.Link("data/two", "one/y");
  tree.Link("data/here", ".");
  EXPECT_EQ("1", Walk("data/one", true));
  EXPECT_EQ("1", Walk("data/one/z", true));
  // A walk may follow a link to the same directory only once.
  EXPECT_EQ("data", Walk("data/here", true));
  EXPECT_EQ("1", Walk("data/here/here", true));
}

TEST_F(Reentrant, WalkComparesTheOwnersOfLinkAndTarget) {
  ZEPH_NEEDS_ROOT();
  tree.Directory("data/theirs");
  tree.Link("data/link", "theirs");
  ASSERT_EQ(0, lchown(tree.path("data/theirs").c_str(), other_user, other_user));
  EXPECT_EQ("3", Walk("data/link", true));
  EXPECT_EQ("data/theirs", Walk("data/link", true, true));
  ASSERT_EQ(0, lchown(tree.path("data/link").c_str(), other_user, other_user));
  EXPECT_EQ("data/theirs", Walk("data/link", true));
}

TEST_F(Reentrant, LinkTextAndRestFitIntoOneBuffer) {
  // The text, a slash and the rest may have 1023 bytes together.
  std::string rest = "r";
  tree.Directory("data/d/r");
  std::string dots;
  while (dots.size() + 2 <= 1020) dots += "./";
  dots += "d";  // 1021
  ASSERT_EQ(1021u, dots.size());
  tree.Link("data/fits", dots);
  EXPECT_EQ("data/d/r", Walk("data/fits/r", true));
  EXPECT_EQ("data/d/r", Walk("data/fits/r///", true));
  tree.Directory("data/d/rr");
  EXPECT_EQ("1", Walk("data/fits/rr", true));
  tree.Link("data/whole", "./" + dots);  // 1023, and nothing after it
  EXPECT_EQ("data/d", Walk("data/whole", true));
  tree.Link("data/cut", "/" + std::string(1022, '/') + "/");
  EXPECT_EQ("1", Walk("data/cut", true));
}

TEST_F(Reentrant, WalkNeedsAHandle) {
  files.MaxFiles(-1);
  EXPECT_EQ("1", Walk("data"));
}

TEST_F(Reentrant, DescriptorZeroCountsAsAFailure) {
  FileDescriptor saved(fcntl(0, F_DUPFD_CLOEXEC, 10));
  close(0);
  int descriptor = -1;
  int result = files.OpenPath(AT_FDCWD, tree.path("data").c_str(), &descriptor, false, false);
  EXPECT_EQ(-1, fcntl(0, F_GETFD));
  if (saved.is_open()) dup2(saved.get(), 0);
  EXPECT_EQ(PathWalk_NotFound, result);
}

TEST_F(Reentrant, WalkClosesWhatItPassed) {
  Configure(0);
  tree.File("data/a/b/c/f", "x");
  tree.Link("data/a/link", "b");
  int before = OpenDescriptors();
  Read("a/b/c/f");
  Read("a/b/missing/f");
  Read("a/link/c/f");
  Read("a/b/c");
  Listing("a/b");
  Listing(".");
  bool exists;
  files.Exists(ZephPath_Data, "a/b/c/f", &exists);
  files.Rename(ZephPath_Data, "a/b/c/f", ZephPath_Data, "a/b/g");
  EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(Reentrant, ContainedDirectoryIsOpened) {
  Configure(0);
  tree.Directory("data/a");
  for (const char* path : {"a", "/a", "./a/", "../data/a"}) {
    SCOPED_TRACE(path);
    int descriptor = -1;
    ASSERT_TRUE(files.OpenContainedPath(ZephPath_Data, path, &descriptor)) << error();
    FileDescriptor opened(descriptor);
    struct stat here;
    struct stat expected;
    ASSERT_EQ(0, fstat(descriptor, &here));
    ASSERT_EQ(0, stat(tree.path("data/a").c_str(), &expected));
    EXPECT_EQ(expected.st_ino, here.st_ino);
  }
}

TEST_F(Reentrant, BaseDirectoryItselfIsDuplicated) {
  Configure(0);
  _UNIXContainedPathSettings settings;
  ASSERT_TRUE(files.ContainedPathSettings(ZephPath_Data, &settings));
  for (const char* path : {static_cast<const char*>(nullptr), "", ".", "/", "///"}) {
    SCOPED_TRACE(path == nullptr ? "null" : path);
    int descriptor = -1;
    ASSERT_TRUE(files.OpenContainedPath(ZephPath_Data, path, &descriptor)) << error();
    EXPECT_NE(settings.directory, descriptor);
    close(descriptor);
    EXPECT_GE(fcntl(settings.directory, F_GETFD), 0);
  }
}

TEST_F(Reentrant, ContainedDirectoryFailsInItsOwnWords) {
  Configure(0);
  tree.Link("data/link", "missing");
  struct Case {
    const char* path;
    const char* text;
  } cases[] = {
      {"missing", "The specified path references a directory that does not exist"},
      {"link", "The specified path references a symbolic link"},
      {"..", "The specified path references a path outside the configured data directory"},
      {"a/../..", "The specified path references a path outside the configured data directory"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    int descriptor = -1;
    EXPECT_FALSE(files.OpenContainedPath(ZephPath_Data, c.path, &descriptor));
    EXPECT_EQ(c.text, error());
    EXPECT_EQ(-1, descriptor);
  }
}

TEST_F(Reentrant, DirectoriesOnTheWayMustBeReadable) {
  if (geteuid() != 0) GTEST_SKIP() << "needs another user to be";
  tree.File("data/d/e/f", "x");
  for (const char* name : {"", "data", "data/d", "data/d/e", "script"})
    ASSERT_EQ(0, chmod(tree.path(name).c_str(), 0755));
  ASSERT_EQ(0, chmod(tree.path("data/d").c_str(), 0711));
  Configure(0);
  ASSERT_EQ(0, seteuid(other_user));
  std::string text = Read("d/e/f");
  bool initialized = files.InitializeDataDirectory(tree.path("data/d/e").c_str());
  bool readable = files.InitializeDataDirectory(tree.path("data/d").c_str());
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ("[The specified path references a directory that does not exist]", text);
  ASSERT_EQ(0, chmod(tree.path("data/d").c_str(), 0755));
  ASSERT_EQ(0, seteuid(other_user));
  Configure(0);
  text = Read("d/e/f");
  ASSERT_EQ(0, seteuid(0));
  EXPECT_EQ("x", text);
  EXPECT_FALSE(initialized);
  EXPECT_FALSE(readable);
}

// --- Directories that move -----------------------------------------------------------------------

// Sets how long a thread knows a way, in seconds, and restores that at the end.
class KnownFor {
 public:
  explicit KnownFor(int seconds) : before(std::exchange(known_way_seconds, seconds)) {}
  ~KnownFor() { known_way_seconds = before; }
  KnownFor(const KnownFor&) = delete;
  KnownFor& operator=(const KnownFor&) = delete;

 private:
  int before;
};

class ReentrantScript : public Reentrant {
 protected:
  ReentrantScript() : root(tree.path("script")) {
    tree.File("script/page.zpc", "page");
    tree.File("script/a/b/page.zpc", "deep");
    tree.File("outside.zpc", "outside");
    tree.Link("script/link.zpc", "page.zpc");
    tree.Link("script/c", "a");
    // From here on this thread knows the way to the directory.
    EXPECT_TRUE(files.InitializeScriptDirectory(root.c_str(), nullptr));
  }
  // The content of the script that is opened in one walk; "-" if there is none.
  static std::string Content(UNIXReentrantFileManager* manager, const std::string& root,
                             const std::string& path) {
    String directory(root.c_str());
    TaggedFile tagged(manager);
    const std::unique_ptr<File> file(manager->OpenScript(&directory, path.c_str(), &tagged));
    if (!file) {
      EXPECT_STREQ(directory.data, root.c_str());
      return "-";
    }
    EXPECT_EQ(directory.data, nullptr);
    EXPECT_EQ(file->path(), path);
    char text[100];
    const int count = file->Read(text, sizeof text);
    return count < 0 ? "failed" : std::string(text, static_cast<size_t>(count));
  }
  std::string Content(const std::string& path) { return Content(&files, root, path); }

  std::string root;
};

TEST_F(ReentrantScript, IsOpenedInOneWalk) {
  EXPECT_EQ(Content("page.zpc"), "page");
  EXPECT_EQ(Content("a/b/page.zpc"), "deep");
  EXPECT_EQ(Content("a//b/./page.zpc"), "deep");
  EXPECT_EQ(Content(&files, root, "page.zpc"), "page");
}

TEST_F(ReentrantScript, WhatNeedsALookIsLeftToTheOtherRoad) {
  for (const char* path :
       {"", ".", "a", "a/b/", "/page.zpc", "a/../page.zpc", "../outside.zpc", "none.zpc",
        "a/none/page.zpc", "page.zpc/x", "link.zpc", "c/b/page.zpc"}) {
    EXPECT_EQ(Content(path), "-") << path;
  }
  EXPECT_EQ(Content(std::string(5000, 'x')), "-");
  EXPECT_EQ(Content(&files, tree.path("none"), "page.zpc"), "-");
}

TEST_F(ReentrantScript, SettingsOfLinksAndFilesAreForTheOtherRoad) {
  for (int flags : {1, 2, 32}) {
    files.SecurityOptions(flags);
    EXPECT_EQ(Content("page.zpc"), "-") << flags;
  }
  files.SecurityOptions(FileSecurity_DataSymlinks);
  EXPECT_EQ(Content("page.zpc"), "page");
  files.MaxFiles(1);
  EXPECT_EQ(Content("page.zpc"), "-");
}

int script_checks;

TEST_F(ReentrantScript, AThreadThatDoesNotKnowTheWayLooksAtItFirst) {
  const KnownFor long_time(1000);
  RestoredSystemCalls restored;
  system_calls.check_readable = [](int directory, const char* path) {
    script_checks++;
    return CheckReadable(directory, path);
  };
  std::thread([this] {
    UNIXReentrantFileManager manager(&application);
    const auto above = static_cast<int>(std::count(root.begin(), root.end(), '/'));
    for (int expected : {above, 0, 0}) {
      script_checks = 0;
      EXPECT_EQ(Content(&manager, root, "page.zpc"), "page");
      EXPECT_EQ(script_checks, expected);
    }
    script_checks = 0;
    EXPECT_EQ(Content(&manager, root, "a/b/page.zpc"), "deep");
    EXPECT_EQ(script_checks, 2);
  }).join();
}

// A relative path would begin in the working directory.
TEST_F(ReentrantScript, DirectoryThatIsNotAbsoluteIsLeftToTheOtherRoad) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(tree.path());
  EXPECT_EQ(Content("page.zpc"), "page");
  EXPECT_EQ(Content(&files, "script/a", "b/page.zpc"), "-");
  EXPECT_EQ(Content(&files, "", "script/page.zpc"), "-");
  std::filesystem::current_path(before);
  String none;
  TaggedFile tagged(&files);
  EXPECT_EQ(files.OpenScript(&none, "page.zpc", &tagged), nullptr);
}

TEST_F(ReentrantScript, DirectoriesOnItsWayMustBeReadable) {
  if (geteuid() != 0) GTEST_SKIP() << "needs another user to be";
  for (const char* name : {"", "script", "script/a", "script/a/b"})
    ASSERT_EQ(0, chmod(tree.path(name).c_str(), 0755));
  for (const char* closed : {"script", "script/a", "script/a/b"}) {
    SCOPED_TRACE(closed);
    chmod(tree.path(closed).c_str(), 0711);
    {
      const OtherUser other;
      EXPECT_EQ(Content("a/b/page.zpc"), "-");
      EXPECT_EQ(Content("page.zpc"), std::string(closed) == "script" ? "-" : "page");
    }
    chmod(tree.path(closed).c_str(), 0755);
    const OtherUser other;
    EXPECT_EQ(Content("a/b/page.zpc"), "deep");
  }
}

TEST_F(ReentrantScript, ItsDirectoryIsOpenedWithIt) {
  UNIXReentrantFileManager manager(&application);
  EXPECT_EQ(nullptr, manager.Open(ZephPath_Script, "page.zpc", FileMode_Read));
  EXPECT_EQ(Content(&manager, root, "page.zpc"), "page");
  std::unique_ptr<File> file(manager.Open(ZephPath_Script, "a/b/page.zpc", FileMode_Read));
  EXPECT_NE(file, nullptr);
  UNIXReentrantFileManager of_task(&application, manager);
  file.reset(of_task.Open(ZephPath_Script, "page.zpc", FileMode_Read));
  EXPECT_NE(file, nullptr);
  // A second script takes the place of the first.
  tree.File("other/page.zpc", "other");
  EXPECT_EQ(Content(&manager, tree.path("other"), "page.zpc"), "other");
  EXPECT_EQ(nullptr, manager.Open(ZephPath_Script, "a/b/page.zpc", FileMode_Read));
  // A file ends before its manager.
  file.reset();
}

// A site is replaced while a request runs. All that this request opens is of one version.
TEST_F(ReentrantScript, ItsDirectoryStaysTheOneThatItCameFrom) {
  const auto read = [](UNIXReentrantFileManager* manager, const char* path) {
    const std::unique_ptr<File> file(manager->Open(ZephPath_Script, path, FileMode_Read));
    if (!file) return "[" + Text(manager->error()) + "]";
    char text[100];
    const int count = file->Read(text, sizeof text);
    return count < 0 ? "failed" : std::string(text, static_cast<size_t>(count));
  };
  UNIXReentrantFileManager request(&application);
  String directory(root.c_str());
  TaggedFile tagged(&request);
  const std::unique_ptr<File> script(request.OpenScript(&directory, "page.zpc", &tagged));
  ASSERT_NE(script, nullptr);
  std::filesystem::rename(root, tree.path("script.old"));
  tree.File("script/page.zpc", "new page");
  tree.File("script/a/b/page.zpc", "new deep");
  EXPECT_EQ(read(&request, "a/b/page.zpc"), "deep");
  EXPECT_EQ(read(&request, "page.zpc"), "page");
  UNIXReentrantFileManager task(&application, request);
  EXPECT_EQ(read(&task, "a/b/page.zpc"), "deep");
  request.DeactivateFile(script.get());
  char text[4];
  ASSERT_EQ(script->Read(text, 4), 4);
  EXPECT_EQ(std::string(text, 4), "page");
  UNIXReentrantFileManager next(&application);
  EXPECT_EQ(Content(&next, root, "page.zpc"), "new page");
  EXPECT_EQ(read(&next, "a/b/page.zpc"), "new deep");
}

// The next file of a script, or a task of it, meets the end of the descriptors.
TEST_F(ReentrantScript, ItsDirectoryOutlivesALackOfDescriptors) {
  UNIXReentrantFileManager manager(&application);
  EXPECT_EQ(Content(&manager, root, "page.zpc"), "page");
  std::unique_ptr<File> file;
  for (int error : {EMFILE, ENFILE}) {
    {
      const FailingSystemCalls failing(1, error, FailingSystemCalls::FromThereOn);
      for (int i = 0; i < 2; i++) {
        file.reset(manager.Open(ZephPath_Script, "page.zpc", FileMode_Read));
        EXPECT_EQ(file, nullptr);
        EXPECT_EQ(Text(manager.error()), strerror(error));
      }
      UNIXReentrantFileManager task(&application, manager);
      file.reset(task.Open(ZephPath_Script, "page.zpc", FileMode_Read));
      EXPECT_EQ(file, nullptr);
    }
    file.reset(manager.Open(ZephPath_Script, "page.zpc", FileMode_Read));
    EXPECT_NE(file, nullptr);
    UNIXReentrantFileManager task(&application, manager);
    file.reset(task.Open(ZephPath_Script, "page.zpc", FileMode_Read));
    EXPECT_NE(file, nullptr);
    file.reset();
  }
}

TEST_F(ReentrantScript, EachOfItsSystemCallsMayFail) {
  std::unique_ptr<UNIXReentrantFileManager> manager;
  std::unique_ptr<File> file;
  String directory;
  TaggedFile tagged(&files);
  SystemCallSweep sweep;
  sweep.prepare = [&] {
    manager = std::make_unique<UNIXReentrantFileManager>(&application);
    directory.assign(root.c_str());
  };
  sweep.run = [&] { file.reset(manager->OpenScript(&directory, "a/b/page.zpc", &tagged)); };
  sweep.check = [&](const SystemCallFault& fault) {
    EXPECT_TRUE(file || !fault.call.empty());
    // With the script there is its directory, and without it nothing has changed.
    EXPECT_STREQ(directory.data, file ? nullptr : root.c_str());
    file.reset(manager->Open(ZephPath_Script, "page.zpc", FileMode_Read));
    EXPECT_EQ(file != nullptr, directory.data == nullptr);
    file.reset();
    manager.reset();
  };
  ExpectEachSystemCallMayFail(sweep);
}

TEST_F(ReentrantScript, EachOfItsBlocksMayBeRefused) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const long blocks = ExpectNothingIsLost([this] {
    UNIXReentrantFileManager manager(&application);
    String directory(root.c_str());
    TaggedFile tagged(&manager);
    const std::unique_ptr<File> file(manager.OpenScript(&directory, "a/b/page.zpc", &tagged));
    EXPECT_NE(file, nullptr);
  });
  EXPECT_GE(blocks, 3);
}

int questions;
int reads;

// Its first bytes are there when it is opened. For code that uses the file meanwhile, such as a
// configuration library, it is one of which nothing was read.
TEST_F(ReentrantScript, IsReadWhenItIsOpened) {
  std::string compiled, errors;
  ASSERT_TRUE(AssembleScript("pushc \"text\"\nout\nexit\n", "compiled", &compiled, &errors));
  tree.File("script/compiled.zpc", compiled);
  RestoredSystemCalls restored;
  questions = reads = 0;
  system_calls.fstat = [](int descriptor, struct stat* status) {
    questions++;
    return fstat(descriptor, status);
  };
  system_calls.pread = [](int descriptor, void* buffer, size_t size, off_t place) {
    reads++;
    return pread(descriptor, buffer, size, place);
  };
  String directory(root.c_str());
  TaggedFile tagged(&files);
  std::unique_ptr<File> file(files.OpenScript(&directory, "compiled.zpc", &tagged));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(questions, 0);
  EXPECT_EQ(reads, 1);
  char first[4];
  EXPECT_EQ(file->Tell(), 0);
  ASSERT_EQ(file->Read(first, sizeof first), 4);
  EXPECT_EQ(std::string(first, 4), compiled.substr(0, 4));
  int owner;
  EXPECT_TRUE(file->OwnerID(&owner));
  EXPECT_EQ(owner, static_cast<int>(geteuid()));
  EXPECT_EQ(file->Length(), static_cast<long>(compiled.size()));
  reads = 0;
  ASSERT_TRUE(tagged.Open("compiled.zpc", file.get()));
  EXPECT_EQ(reads, 0);
  EXPECT_GT(tagged.Sections(), 0);
  (void)file.release();
  // If another file is opened instead, that one is read.
  directory.assign(root.c_str());
  file.reset(files.OpenScript(&directory, "page.zpc", &tagged));
  ASSERT_NE(file, nullptr);
  reads = 0;
  EXPECT_TRUE(tagged.Open(tree.path("script/compiled.zpc").c_str(), FileMode_Read));
  EXPECT_EQ(reads, 1);
}

TEST_F(ReentrantScript, WhatIsNotOneLeavesNoDescriptorOpen) {
  const int before = OpenDescriptors();
  for (const char* path : {"a", "none.zpc", "a/none/page.zpc", "link.zpc", "page.zpc/x"}) {
    EXPECT_EQ(Content(path), "-") << path;
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

// The permissions of the directories above change while a thread knows the way.
TEST_F(ReentrantScript, AWayThatIsClosedIsNoticedAfterAWhile) {
  if (geteuid() != 0) GTEST_SKIP() << "needs another user to be";
  for (const char* name : {"", "script", "script/a", "script/a/b"})
    ASSERT_EQ(0, chmod(tree.path(name).c_str(), 0755));
  const auto opens = [this] {
    const OtherUser other;
    const bool script = Content("page.zpc") == "page";
    EXPECT_EQ(files.InitializeScriptDirectory(root.c_str(), nullptr), script);
    return script;
  };
  const KnownFor expires(0);
  EXPECT_TRUE(opens());
  ASSERT_EQ(0, chmod(tree.path("").c_str(), 0711));
  {
    const KnownFor long_time(1000);
    EXPECT_TRUE(opens());
  }
  EXPECT_FALSE(opens());
  ASSERT_EQ(0, chmod(tree.path("").c_str(), 0755));
  EXPECT_TRUE(opens());
}

int flags_set;

// O_NONBLOCK makes no difference to the reads of a script, so no request pays for taking it away.
TEST_F(ReentrantScript, KeepsTheFlagsItWasOpenedWith) {
  RestoredSystemCalls restored;
  flags_set = 0;
  system_calls.set_flags = [](int, int) { return ++flags_set; };
  EXPECT_EQ(Content("page.zpc"), "page");
  EXPECT_EQ(flags_set, 0);
  Configure(0);
  tree.File("data/f", "ours");
  EXPECT_EQ("ours", Read("f"));
  EXPECT_EQ(flags_set, 1);
}

TEST_F(ReentrantScript, IsReadAgainAfterItWasDeactivated) {
  UNIXReentrantFileManager manager(&application);
  String directory(root.c_str());
  TaggedFile tagged(&manager);
  const std::unique_ptr<File> file(manager.OpenScript(&directory, "a/b/page.zpc", &tagged));
  ASSERT_NE(file, nullptr);
  manager.DeactivateFile(file.get());
  char text[4];
  EXPECT_EQ(file->Read(text, 4), 4);
  EXPECT_EQ(std::string(text, 4), "deep");
}

TEST_F(Reentrant, MovedBaseStaysTheBase) {
  Configure(0);
  tree.File("data/f", "ours");
  std::filesystem::rename(tree.path("data"), tree.path("outside/data"));
  EXPECT_EQ("ours", Read("f"));
  tree.File("data/f", "new");
  EXPECT_EQ("ours", Read("f"));
}

TEST_F(Reentrant, PathOutAndInAgainHasToMeetTheBase) {
  Configure(0);
  tree.File("data/f", "ours");
  EXPECT_EQ("ours", Read("../data/f"));
  std::string from_the_root = "../../../../../../../../../../.." + tree.path("data/f");
  EXPECT_EQ("ours", Read(from_the_root.c_str()));
  // By its text the path is inside; the parent of the moved base has another "data".
  tree.Directory("elsewhere");
  std::filesystem::rename(tree.path("data"), tree.path("elsewhere/moved"));
  tree.File("elsewhere/data/f", "theirs");
  EXPECT_EQ("[The specified path references a path outside the configured data directory]",
            Read("../data/f"));
  EXPECT_EQ("[The specified path references a path outside the configured data directory]",
            Listing("../data")[0]);
}

std::string* race_from;
std::string* race_to;

TEST_F(Reentrant, ParentOfADirectoryThatMovedAwayIsNotEntered) {
  Configure(0);
  tree.Directory("data/a/b");
  tree.File("data/target/inside");
  tree.File("outside/target/secret");
  std::string from = tree.path("data/a/b");
  std::string to = tree.path("outside/b");
  race_from = &from;
  race_to = &to;
  RestoredSystemCalls restored;
  system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
    if (std::string(name) == "..") rename(race_from->c_str(), race_to->c_str());
    return ::openat(directory, name, flags, mode);
  };
  EXPECT_EQ("[The specified path references a path outside the configured data directory]",
            Listing("a/b/../target")[0]);
}

TEST_F(Reentrant, NothingOutsideIsOpenedWhileDirectoriesMove) {
  Configure(0);
  for (const char* name : {"data/a/b/c/f", "data/other/b/c/f"}) tree.File(name, "inside");
  tree.File("outside/b/c/f", "outside");
  tree.File("outside/c/f", "outside");
  tree.File("outside/f", "outside");
  tree.Link("data/link", tree.path("outside"));
  std::atomic<bool> stop{false};
  // One name is by turns a directory, another one, and a link to the outside.
  std::thread mover([&] {
    std::string a = tree.path("data/a");
    std::string other = tree.path("data/other");
    std::string link = tree.path("data/link");
    std::string inner = tree.path("data/other/b");
    std::string inner_outside = tree.path("outside/moved");
    while (!stop) {
      renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
      renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
      rename(inner.c_str(), inner_outside.c_str());
      renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
      rename(inner_outside.c_str(), inner.c_str());
    }
  });
  RestoredSystemCalls restored;
  int inside = 0;
  for (int i = 0; i < 5000; i++) {
    // Every second walk is the kernel's own.
    system_calls.open_without_links =
        i % 2 == 0 ? OpenWithoutLinks : [](int, const char*, int) { return -1; };
    for (const char* path : {"a/b/c/f", "a/b/c/../c/f", "../data/a/b/c/f", "a/f", "a/c/f"}) {
      std::string text = Read(path);
      EXPECT_NE("outside", text) << path;
      if (text == "inside") inside++;
    }
    for (const char* path : {"a/b/../b/c", "a/b/c/../..", "a/b/.."}) {
      for (const std::string& name : Listing(path)) EXPECT_NE("moved", name) << path;
    }
    if (HasFailure()) break;
  }
  stop = true;
  mover.join();
  EXPECT_GT(inside, 0);
}

// --- Threads -------------------------------------------------------------------------------------

TEST_F(Reentrant, ManagersOfTwoThreadsDoNotDisturbEachOther) {
  tree.File("data/d/f", "data");
  tree.File("script/d/f", "script");
  std::filesystem::path before = std::filesystem::current_path();
  auto work = [&](const char* directory) {
    TestApplication own;
    UNIXReentrantFileManager manager(&own);
    for (int i = 0; i < 500; i++) {
      ASSERT_TRUE(manager.InitializeDataDirectory(tree.path(directory).c_str()));
      std::unique_ptr<File> file(manager.Open(ZephPath_Data, "d/f", FileMode_Read));
      ASSERT_NE(nullptr, file);
      char buffer[10];
      int count = file->Read(buffer, sizeof(buffer));
      ASSERT_EQ(directory, std::string(buffer, static_cast<size_t>(count)));
      List<String> names(1);
      ASSERT_TRUE(manager.DirectoryListing(ZephPath_Data, ".", &names));
      ASSERT_EQ(3, names.Entries());
    }
  };
  std::thread one(work, "data");
  std::thread two(work, "script");
  one.join();
  two.join();
  EXPECT_EQ(before, std::filesystem::current_path());
}

TEST_F(Reentrant, ListingsOfARequestAndItsTaskDoNotShareAPlace) {
  Configure(0);
  for (int i = 0; i < 100; i++) tree.File("data/f" + std::to_string(i));
  TestApplication task_application;
  UNIXReentrantFileManager task(&task_application, files);
  auto work = [](UNIXReentrantFileManager* manager) {
    for (int i = 0; i < 200; i++) {
      List<String> names(1);
      ASSERT_TRUE(manager->DirectoryListing(ZephPath_Data, ".", &names));
      ASSERT_EQ(102, names.Entries());
    }
  };
  std::thread one(work, &files);
  std::thread two(work, &task);
  one.join();
  two.join();
}

// --- System calls --------------------------------------------------------------------------------

int open_calls;
int check_calls;
int stat_calls;

TEST_F(Reentrant, OpeningCostsNoMoreCallsThanItNeeds) {
  tree.File("data/f", "x");
  tree.File("data/a/b/f", "x");
  struct Case {
    int flags;
    const char* path;
    int opens;
    int checks;
    int stats;
  } cases[] = {
      {0, "f", 1, 0, 0},
      {0, "/f", 1, 0, 0},
      {0, "./a/../f", 1, 0, 0},
      {0, "a/f", 2, 0, 0},
      {0, "a/b/f", 2, 1, 0},
      {FileSecurity_DataSymlinks, "f", 1, 0, 1},
      {FileSecurity_DataSymlinks, "a/b/f", 2, 1, 1},
      {FileSecurity_DataSymlinks | FileSecurity_DataOtherOwner, "a/b/f", 2, 0, 0},
  };
  tree.File("data/a/f", "x");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    Configure(c.flags);
    RestoredSystemCalls restored;
    open_calls = check_calls = stat_calls = 0;
    system_calls.openat = [](int directory, const char* name, int flags, mode_t mode) {
      open_calls++;
      return ::openat(directory, name, flags, mode);
    };
    system_calls.open_without_links = [](int directory, const char* path, int flags) {
      open_calls++;
      return OpenWithoutLinks(directory, path, flags);
    };
    system_calls.check_readable = [](int directory, const char* path) {
      check_calls++;
      return CheckReadable(directory, path);
    };
    system_calls.fstatat = [](int directory, const char* name, struct stat* status, int flags) {
      stat_calls++;
      return ::fstatat(directory, name, status, flags);
    };
    FileDescriptor opened(files.OpenContained(ZephPath_Data, c.path, O_RDONLY));
    EXPECT_TRUE(opened.is_open());
    EXPECT_EQ(c.opens, open_calls);
    EXPECT_EQ(c.checks, check_calls);
    EXPECT_EQ(c.stats, stat_calls);
  }
}

TEST_F(Reentrant, EveryDirectoryPassedIsAskedFor) {
  static std::vector<std::string> asked;
  RestoredSystemCalls restored;
  system_calls.open_without_links = [](int, const char*, int) {
    return open("/dev/null", O_RDONLY);
  };
  system_calls.check_readable = [](int, const char* path) {
    asked.push_back(path);
    return 0;
  };
  struct Case {
    const char* path;
    std::vector<std::string> directories;
  } cases[] = {
      {"/a/b/c", {"/", "/a", "/a/b"}},
      {"//a//b///", {"/", "//a"}},
      {"/a", {"/"}},
      {"/", {}},
      {"a/b", {"a"}},
      {"./a/b/c/", {".", "./a", "./a/b"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    asked.clear();
    int descriptor = -1;
    EXPECT_EQ(PathWalk_Done, files.OpenPath(AT_FDCWD, c.path, &descriptor, false, false));
    close(descriptor);
    EXPECT_EQ(c.directories, asked);
  }
}

TEST_F(Reentrant, ConfiguredDirectoriesAreAskedForNowAndThenInEachThread) {
  EXPECT_EQ(known_way_seconds, 5);
  const KnownFor long_time(1000);
  static int asked;
  RestoredSystemCalls restored;
  system_calls.open_without_links = [](int, const char*, int) {
    return open("/dev/null", O_RDONLY);
  };
  system_calls.check_readable = [](int, const char*) {
    asked++;
    return 0;
  };
  const auto questions = [this](const char* path) {
    asked = 0;
    int descriptor = -1;
    EXPECT_EQ(PathWalk_Done, files.OpenPath(AT_FDCWD, path, &descriptor, false, false));
    close(descriptor);
    return asked;
  };
  EXPECT_EQ(questions("/once/a/b"), 3);
  EXPECT_EQ(questions("/once/a/b"), 0);
  EXPECT_EQ(questions("/once/a/c"), 3);
  // A path inside a base directory may name anything, so it is checked each time.
  EXPECT_EQ(questions("once/a/b"), 2);
  EXPECT_EQ(questions("once/a/b"), 2);
  int elsewhere = 0;
  std::thread other([&] { elsewhere = questions("/once/a/b"); });
  other.join();
  EXPECT_EQ(elsewhere, 3);
  {
    const KnownFor expires(0);
    EXPECT_EQ(questions("/once/a/b"), 3);
    EXPECT_EQ(questions("/once/a/b"), 3);
  }
  EXPECT_EQ(questions("/once/a/b"), 0);
  // A thread knows four ways. The fifth takes the place of the first, and so on.
  std::thread([&] {
    const std::string roots[] = {"/1/a", "/2/a", "/3/a", "/4/a", "/5/a"};
    for (int round = 0; round < 3; round++) {
      for (const std::string& root : roots) EXPECT_EQ(questions(root.c_str()), 2) << root;
    }
    EXPECT_EQ(questions("/2/a"), 0);
    // A way that is looked at again keeps its place, and no other one loses its own.
    {
      const KnownFor expires(0);
      EXPECT_EQ(questions("/5/a"), 2);
    }
    for (const std::string& root : {roots[1], roots[2], roots[3], roots[4]})
      EXPECT_EQ(questions(root.c_str()), 0) << root;
  }).join();
}

TEST_F(Reentrant, RefusalOfTheOneCallIsDecidedByTheWalk) {
  tree.Directory("data/a/b");
  RestoredSystemCalls restored;
  system_calls.check_readable = [](int, const char*) {
    errno = EACCES;
    return -1;
  };
  int before = OpenDescriptors();
  EXPECT_EQ("data/a/b", Walk("data/a/b"));
  EXPECT_EQ(before, OpenDescriptors());
}

}  // namespace
