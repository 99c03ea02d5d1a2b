#include "base/host/ErrorLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "base/host/FileDescriptor.h"
#include "base/systems/unix/SystemCalls.h"
#include "tests/support/OtherUser.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using Level = ErrorLog::Level;

std::string Bytes(const LogLine& line) {
  return std::string(line.data(), static_cast<size_t>(line.length()));
}
std::string Shown(const std::string& text) {
  LogLine line;
  return Bytes(line.Text(text.data(), static_cast<int>(text.size())));
}

// --- Lines ---------------------------------------------------------------------------------------

TEST(LogLine, HasNothingThatEndsALineOrReachesATerminal) {
  const struct {
    const char* label;
    std::string text;
    const char* shown;
  } cases[] = {
      {"plain", "page.zpc: it's \"so\"", "page.zpc: it's \"so\""},
      {"newlines", "a\r\nb", "a\\x0d\\x0ab"},
      {"escape sequence", "\x1b[2J", "\\x1b[2J"},
      {"NUL and DEL", std::string("\0\x7f", 2), "\\x00\\x7f"},
      {"a text that looks like an escape", "\\x0a", "\\x5cx0a"},
      {"letters of two, three and four bytes", "ä€\xF0\x9F\x8D\xB5", "ä€\xF0\x9F\x8D\xB5"},
      {"a control character of two bytes", "\xC2\x9B", "\\xc2\\x9b"},
      {"the first letter after those", "\xC2\xA0", "\xC2\xA0"},
      {"separators of lines", "\xE2\x80\xA8", "\\xe2\\x80\\xa8"},
      {"a letter that is cut off", "\xE2\x82", "\\xe2\\x82"},
      {"a letter in more bytes than it needs", "\xC0\x8A\xE0\x80\x8A", "\\xc0\\x8a\\xe0\\x80\\x8a"},
      {"half a pair", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
      {"beyond the last letter", "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"another character set", "M\xFCller", "M\\xfcller"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.label);
    EXPECT_EQ(Shown(each.text), each.shown);
  }
}

TEST(LogLine, FieldsAreQuotedAndCannotBeForged) {
  LogLine line;
  line.Text("Failed").Field("script", "a.zpc").Field("none", nullptr).Field("empty", "");
  line.BeginField("request").Quoted("GET").Quoted(" /\", client \"1.2.3.4\\").EndField();
  EXPECT_EQ(Bytes(line),
            "Failed; script \"a.zpc\", request \"GET /\\x22, client \\x221.2.3.4\\x5c\"");
}

TEST(LogLine, PiecesAreCutAtTheirLimit) {
  LogLine line;
  line.Text("abcdefgh", -1, 8).Text("|").Text("abcde", -1, 8).Text("|");
  EXPECT_EQ(Bytes(line), "abcde...|abcde|");
  // An escape is whole or not there.
  LogLine escapes;
  escapes.Text("\n\n\n", 3, 8);
  EXPECT_EQ(Bytes(escapes), "\\x0a...");
}

TEST(LogLine, EndsWhenItIsFull) {
  LogLine line;
  const std::string text(10000, 'x');
  line.Text(text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(line.length(), LogLine::kRoom);
  for (int i = 0; i < 100; i++) line.Field("name", "value").Number(-5).Text("\n");
  EXPECT_EQ(line.length(), LogLine::kRoom);
  EXPECT_EQ(Bytes(line).substr(LogLine::kRoom - 5), "xx...");
}

// --- Targets -------------------------------------------------------------------------------------

class ErrorLogTest : public testing::Test {
 protected:
  // What a line has after the time and the level.
  static std::vector<std::string> Messages(const std::string& content) {
    std::vector<std::string> messages;
    const std::regex form(
        "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
        "((error|warning|notice) [0-9.]+: .*)$");
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
      std::smatch match;
      if (!std::regex_match(line, match, form)) {
        ADD_FAILURE() << line;
        continue;
      }
      messages.push_back(match[1]);
    }
    return messages;
  }
  std::string Line(const char* level, const std::string& text) const {
    return std::string(level) + " " + std::to_string(getpid()) + ": " + text;
  }

  TemporaryDirectory directory;
  const std::string path = directory.path("error.log");
  ErrorLog log;
};

TEST_F(ErrorLogTest, WritesLinesToAFile) {
  EXPECT_FALSE(log.Write(Level::Error, "nowhere"));
  ASSERT_TRUE(log.Open(path.c_str()));
  EXPECT_TRUE(log.Write(Level::Error, "first"));
  EXPECT_TRUE(log.Write(Level::Warning, "second"));
  LogLine line;
  EXPECT_TRUE(log.Write(Level::Notice, line.Text("third"), 7));
  EXPECT_EQ(Messages(directory.Content("error.log")),
            (std::vector<std::string>{Line("error", "first"), Line("warning", "second"),
                                      "notice " + std::to_string(getpid()) + ".7: third"}));
  log.Close();
  EXPECT_FALSE(log.Write(Level::Error, "closed"));
}

TEST_F(ErrorLogTest, AppendsAndIsNotForEveryone) {
  directory.File("error.log", "before\n");
  ASSERT_TRUE(log.Open(path.c_str()));
  log.Write(Level::Error, "after");
  EXPECT_EQ(directory.Content("error.log").substr(0, 7), "before\n");
  const std::string made = directory.path("made.log");
  ASSERT_TRUE(log.Open(made.c_str()));
  struct stat status;
  ASSERT_EQ(stat(made.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07, 0u);
}

TEST_F(ErrorLogTest, ARenamedFileIsReplacedByANewOne) {
  ASSERT_TRUE(log.Open(path.c_str()));
  log.Write(Level::Error, "first");
  std::filesystem::rename(path, directory.path("error.log.1"));
  log.Write(Level::Error, "second");
  EXPECT_THAT(directory.Content("error.log.1"), HasSubstr("first\n"));
  EXPECT_EQ(Messages(directory.Content("error.log")),
            std::vector<std::string>{Line("error", "second")});
  // Also without a line.
  std::filesystem::remove(path);
  log.Look();
  EXPECT_TRUE(directory.Exists("error.log"));
}

TEST_F(ErrorLogTest, LinesGoToTheRenamedFileIfThereCanBeNoNewOne) {
  const std::string folder = directory.Directory("logs");
  ASSERT_TRUE(log.Open((folder + "/error.log").c_str()));
  std::filesystem::rename(folder, directory.path("moved"));
  EXPECT_TRUE(log.Write(Level::Error, "still there"));
  EXPECT_THAT(directory.Content("moved/error.log"), HasSubstr("still there\n"));
}

TEST_F(ErrorLogTest, AFileThatCannotBeOpenedLeavesTheLogAsItWas) {
  ASSERT_TRUE(log.Open(path.c_str()));
  EXPECT_FALSE(log.Open(directory.path("no/such/folder").c_str()));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(log.Open(directory.path().c_str()));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(log.Open("relative.log"));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(log.Open(("/" + std::string(5000, 'x')).c_str()));
  EXPECT_EQ(errno, ENAMETOOLONG);
  ASSERT_EQ(mkfifo(directory.path("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(log.Open(directory.path("pipe").c_str())) << "nothing reads it";
  log.Write(Level::Error, "here");
  EXPECT_THAT(directory.Content("error.log"), HasSubstr("here\n"));
}

TEST_F(ErrorLogTest, LinesThatAFullDiskDoesNotTakeAreCounted) {
  std::filesystem::create_symlink("/dev/full", path);
  ASSERT_TRUE(log.Open(path.c_str()));
  EXPECT_TRUE(log.Write(Level::Error, "lost"));
  EXPECT_TRUE(log.Write(Level::Error, "lost too"));
  std::filesystem::remove(path);
  EXPECT_TRUE(log.Write(Level::Error, "found"));
  EXPECT_EQ(Messages(directory.Content("error.log")),
            (std::vector<std::string>{Line("warning", "2 lines could not be written"),
                                      Line("error", "found")}));
}

TEST_F(ErrorLogTest, AReaderThatStopsReadingHoldsNothingUp) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const FileDescriptor reader(ends[0]), writer(ends[1]);
  const FileDescriptor before(dup(STDERR_FILENO));
  dup2(writer.get(), STDERR_FILENO);
  ErrorLog standard;
  ASSERT_TRUE(standard.Open("stderr"));
  const std::string text(3000, 'x');
  for (int i = 0; i < 100; i++) standard.Write(Level::Error, text.c_str());
  std::string read(1 << 20, '\0');
  EXPECT_GT(::read(reader.get(), read.data(), read.size()), 0);
  standard.Write(Level::Error, "last");
  const ssize_t second = ::read(reader.get(), read.data(), read.size());
  dup2(before.get(), STDERR_FILENO);
  ASSERT_GT(second, 0);
  const auto messages = Messages(read.substr(0, static_cast<size_t>(second)));
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_THAT(messages[0], HasSubstr(" lines could not be written"));
  EXPECT_EQ(messages[1], Line("error", "last"));
}

// Makes a pipe the process's standard error while it exists.
class StandardErrorPipe {
 public:
  StandardErrorPipe() : before(dup(STDERR_FILENO)) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    reader.reset(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
  }
  ~StandardErrorPipe() { dup2(before.get(), STDERR_FILENO); }
  StandardErrorPipe(const StandardErrorPipe&) = delete;
  StandardErrorPipe& operator=(const StandardErrorPipe&) = delete;

  FileDescriptor reader;

 private:
  const FileDescriptor before;
};

sigset_t BrokenPipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

// The supervisor and the engine end by this signal.
TEST_F(ErrorLogTest, AReaderThatHasEndedRaisesNoSignal) {
  const auto handler = signal(SIGPIPE, SIG_DFL);
  const sigset_t set = BrokenPipe();
  sigset_t pending;
  {
    StandardErrorPipe standard_error;
    ErrorLog standard;
    ASSERT_TRUE(standard.Open("stderr"));
    standard_error.reader.reset();
    EXPECT_TRUE(standard.Write(Level::Error, "this would end the process"));
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    EXPECT_TRUE(standard.Write(Level::Error, "this would end it later"));
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    // A signal that another process sends is not lost.
    kill(getpid(), SIGPIPE);
    EXPECT_TRUE(standard.Write(Level::Error, "lost"));
  }
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
  signal(SIGPIPE, SIG_IGN);  // drops the pending one
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  signal(SIGPIPE, handler);
}

TEST_F(ErrorLogTest, ASocketWhosePeerHasEndedRaisesNoSignal) {
  const auto handler = signal(SIGPIPE, SIG_DFL);
  const FileDescriptor before(dup(STDERR_FILENO));
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  dup2(ends[0], STDERR_FILENO);
  close(ends[0]);
  ErrorLog standard;
  const bool opened = standard.Open("stderr");
  const bool written = standard.Write(Level::Error, "one");
  char read[200];
  const ssize_t count = recv(ends[1], read, sizeof read, MSG_DONTWAIT);
  // Nothing is read any more, but the peer is there.
  const std::string text(3000, 'x');
  for (int i = 0; i < 1000; i++) standard.Write(Level::Error, text.c_str());
  close(ends[1]);
  standard.Write(Level::Error, "two");
  dup2(before.get(), STDERR_FILENO);
  signal(SIGPIPE, handler);
  EXPECT_TRUE(opened && written);
  ASSERT_GT(count, 0);
  EXPECT_EQ(Messages(std::string(read, static_cast<size_t>(count))),
            std::vector<std::string>{Line("error", "one")});
}

// A full pipe in the moment between a look at it and the write, as another worker with the same
// standard error can leave it. Exists once.
class FullBeforeEachWrite {
 public:
  explicit FullBeforeEachWrite(int pipe) {
    const std::string path = "/proc/self/fd/" + std::to_string(pipe);
    other.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    system_calls.write = [](int descriptor, const void* bytes, size_t length) {
      const std::string page(4096, 'x');
      while (::write(other.get(), page.data(), page.size()) > 0) {
      }
      return ::write(descriptor, bytes, length);
    };
  }
  ~FullBeforeEachWrite() {
    system_calls = SystemCalls();
    other.reset();
  }
  FullBeforeEachWrite(const FullBeforeEachWrite&) = delete;
  FullBeforeEachWrite& operator=(const FullBeforeEachWrite&) = delete;

 private:
  static inline FileDescriptor other = FileDescriptor();
};

// A look at the pipe before the write does not help: two writers see the last free place, and the
// slower one would wait for the reader.
TEST_F(ErrorLogTest, WritersOfOnePipeDoNotWaitForEachOther) {
  std::string read(1 << 20, '\0');
  StandardErrorPipe standard_error;
  ErrorLog standard;
  ASSERT_TRUE(standard.Open("stderr"));
  {
    const FullBeforeEachWrite others(STDERR_FILENO);
    auto writer = std::async(std::launch::async,
                             [&standard] { return standard.Write(Level::Error, "lost"); });
    const bool waits = writer.wait_for(std::chrono::seconds(20)) != std::future_status::ready;
    EXPECT_FALSE(waits);
    // Whatever it is, it ends now.
    EXPECT_GT(::read(standard_error.reader.get(), read.data(), read.size()), 0);
    EXPECT_TRUE(writer.get());
  }
  standard.Write(Level::Error, "last");
  const ssize_t count = ::read(standard_error.reader.get(), read.data(), read.size());
  ASSERT_GT(count, 0);
  EXPECT_EQ(Messages(read.substr(0, static_cast<size_t>(count))),
            (std::vector<std::string>{Line("warning", "1 lines could not be written"),
                                      Line("error", "last")}));
}

// This one may not open it again.
TEST_F(ErrorLogTest, APipeOfAnotherUserTakesLines) {
  StandardErrorPipe standard_error;
  ErrorLog standard;
  {
    const OtherUser other;
    EXPECT_TRUE(standard.Open("stderr"));
    standard.Write(Level::Error, "first");
    const std::string text(3000, 'x');
    for (int i = 0; i < 100; i++) standard.Write(Level::Error, text.c_str());
  }
  std::string read(1 << 20, '\0');
  const ssize_t count = ::read(standard_error.reader.get(), read.data(), read.size());
  ASSERT_GT(count, 4096);
  EXPECT_EQ(Messages(read.substr(0, static_cast<size_t>(count)))[0], Line("error", "first"));
}

TEST_F(ErrorLogTest, RedirectsStandardErrorToTheFileAndBack) {
  const FileDescriptor before(dup(STDERR_FILENO));
  const FileDescriptor own(
      open(directory.path("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
  dup2(own.get(), STDERR_FILENO);
  {
    ErrorLog process(true);
    ASSERT_TRUE(process.Open(nullptr));
    process.Write(Level::Error, "one");
    ASSERT_TRUE(process.Open(path.c_str()));
    EXPECT_EQ(write(STDERR_FILENO, "library\n", 8), 8);
    std::filesystem::rename(path, directory.path("error.log.1"));
    process.Look();
    EXPECT_EQ(write(STDERR_FILENO, "library again\n", 14), 14);
    ASSERT_TRUE(process.Open("stderr"));
    process.Write(Level::Error, "two");
  }
  dup2(before.get(), STDERR_FILENO);
  EXPECT_THAT(directory.Content("error.log.1"), testing::EndsWith(": one\nlibrary\n"));
  EXPECT_EQ(directory.Content("error.log"), "library again\n");
  EXPECT_EQ(Messages(directory.Content("stderr")),
            (std::vector<std::string>{Line("error", "one"), Line("error", "two")}));
}

TEST_F(ErrorLogTest, LinesThatCameBeforeItsPlaceWasKnownAreRepeatedThereOnce) {
  const FileDescriptor before(dup(STDERR_FILENO));
  const FileDescriptor own(
      open(directory.path("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
  dup2(own.get(), STDERR_FILENO);
  {
    ErrorLog process(true);
    process.Open(nullptr);
    process.Write(Level::Warning, "early");
    for (int i = 0; i < 10; i++) process.Write(Level::Notice, std::string(1000, 'x').c_str());
    process.Open(path.c_str());
    process.Write(Level::Error, "later");
    process.Open(nullptr);
    process.Open(path.c_str());
  }
  {
    // The default may be the place that is wanted.
    ErrorLog process(true);
    process.Open(nullptr);
    process.Write(Level::Warning, "stays");
    process.Open(nullptr);
    process.Open(directory.path("other.log").c_str());
  }
  dup2(before.get(), STDERR_FILENO);
  const auto messages = Messages(directory.Content("error.log"));
  ASSERT_EQ(messages.size(), 10u) << "the last early lines have no room";
  EXPECT_EQ(messages[0], Line("warning", "early"));
  EXPECT_EQ(messages[1], Line("notice", std::string(1000, 'x')));
  EXPECT_EQ(messages[9], Line("error", "later"));
  EXPECT_EQ(Messages(directory.Content("stderr")).size(), 12u);
  EXPECT_EQ(directory.Content("other.log"), "");
}

// The socket of a system's log.
class SystemLog {
 public:
  explicit SystemLog(const std::string& path)
      : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(bind(descriptor.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  std::string Next() {
    char text[5000];
    const ssize_t length = recv(descriptor.get(), text, sizeof text, 0);
    return length < 0 ? "(nothing)" : std::string(text, static_cast<size_t>(length));
  }

 private:
  FileDescriptor descriptor;
};

TEST_F(ErrorLogTest, SendsToTheSystemsLog) {
  const std::string path_of_log = directory.path("log");
  log.SetSystemLog(path_of_log.c_str());
  ASSERT_TRUE(log.Open("syslog"));
  EXPECT_TRUE(log.Write(Level::Error, "nothing listens"));
  {
    SystemLog system(path_of_log);
    log.Write(Level::Error, "first");
    log.Write(Level::Notice, "second");
    const std::string start = "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} zeph-fcgi\\[" +
                              std::to_string(getpid()) + "\\]: ";
    // 27 is a daemon's error, 28 its warning, 29 its notice.
    EXPECT_THAT(system.Next(),
                testing::MatchesRegex("<28>.*: warning: 1 lines could not be written"));
    const std::string line = system.Next();
    EXPECT_TRUE(std::regex_match(line, std::regex("<27>" + start + "error: first"))) << line;
    EXPECT_THAT(system.Next(), testing::MatchesRegex("<29>.*: notice: second"));
  }
  // Started again.
  SystemLog system(path_of_log);
  log.Write(Level::Error, "third");
  EXPECT_THAT(system.Next(), HasSubstr("third"));
}

TEST_F(ErrorLogTest, WithoutATargetANullDeviceMeansTheSystemsLog) {
  const std::string path_of_log = directory.path("log");
  SystemLog system(path_of_log);
  const FileDescriptor before(dup(STDERR_FILENO));
  const FileDescriptor null(open("/dev/null", O_WRONLY));
  dup2(null.get(), STDERR_FILENO);
  {
    ErrorLog process(true);
    process.SetSystemLog(path_of_log.c_str());
    process.Open(nullptr);
    process.Write(Level::Error, "one");
    process.Open(path.c_str());
    process.Write(Level::Error, "two");
    process.Open(nullptr);
    process.Write(Level::Error, "three");
  }
  dup2(before.get(), STDERR_FILENO);
  EXPECT_THAT(system.Next(), HasSubstr(": one"));
  EXPECT_THAT(system.Next(), HasSubstr(": three"));
  EXPECT_THAT(directory.Content("error.log"), HasSubstr("two\n"));
}

TEST_F(ErrorLogTest, LinesForDifferentFilesDoNotMeet) {
  const int kThreads = 4, kLines = 300;
  std::vector<std::thread> writers;
  writers.reserve(kThreads);
  for (int i = 0; i < kThreads; i++) {
    writers.emplace_back([this, i] {
      const std::string own = directory.path("log" + std::to_string(i));
      LogLine line;
      line.Text("line ").Number(i);
      for (int n = 0; n < kLines; n++) {
        EXPECT_TRUE(log.WriteTo(own.c_str(), Level::Notice, line, i));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < kThreads; i++) {
    const auto messages = Messages(directory.Content("log" + std::to_string(i)));
    EXPECT_EQ(messages.size(), static_cast<size_t>(kLines));
    for (const std::string& message : messages) {
      EXPECT_THAT(message, testing::EndsWith(": line " + std::to_string(i)));
    }
  }
  LogLine line;
  EXPECT_FALSE(log.WriteTo(directory.path("no/such/folder").c_str(), Level::Notice, line));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ErrorLogTest, ThreadsLeaveWholeLinesWhileTheFileIsRotated) {
  ASSERT_TRUE(log.Open(path.c_str()));
  const int kThreads = 4, kLines = 500;
  std::vector<std::thread> writers;
  writers.reserve(kThreads);
  for (int i = 0; i < kThreads; i++) {
    writers.emplace_back([this, i] {
      const std::string text(1000, static_cast<char>('a' + i));
      for (int n = 0; n < kLines; n++) log.Write(Level::Error, text.c_str());
    });
  }
  for (int i = 0; i < 20; i++) {
    std::error_code ignored;
    std::filesystem::rename(path, path + "." + std::to_string(i), ignored);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (std::thread& writer : writers) writer.join();
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    for (const std::string& message :
         Messages(directory.Content(entry.path().filename().string()))) {
      const std::string text = message.substr(message.find(": ") + 2);
      EXPECT_EQ(text, std::string(1000, text[0]));
      count++;
    }
  }
  EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
