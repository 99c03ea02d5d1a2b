// The operator's log: lines, targets and the rotation of files. Tested in
// tests/base/systems/unix/ErrorLogTest.cpp and tests/e2e/OperationTest.cpp.

#include "base/host/ErrorLog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "base/host/FileDescriptor.h"
#include "base/systems/unix/SystemCalls.h"

namespace {

// Bytes that a line has before its message, and the newline after it.
const int kFrame = 120;
static_assert(LogLine::kRoom + kFrame <= 4096, "a pipe takes a line in one piece");
// A program is started with the descriptors below this.
const int kFirstDescriptor = 3;
const size_t kMostReported = 100;

const char* LevelName(ErrorLog::Level level) {
  switch (level) {
    case ErrorLog::Level::Error: return "error";
    case ErrorLog::Level::Warning: return "warning";
    default: return "notice";
  }
}

int Severity(ErrorLog::Level level) {
  switch (level) {
    case ErrorLog::Level::Error: return LOG_ERR;
    case ErrorLog::Level::Warning: return LOG_WARNING;
    default: return LOG_NOTICE;
  }
}

// The length of the UTF-8 character at text, or 0 if there is none, or none to show: U+0080 to
// U+009F are control characters, and U+2028 and U+2029 end lines.
int Character(const char* text, const char* end) {
  const auto byte = [text](int i) { return static_cast<unsigned char>(text[i]); };
  const int length = byte(0) < 0xC2 ? 0 : byte(0) < 0xE0 ? 2 : byte(0) < 0xF0 ? 3 : 4;
  if (length == 0 || byte(0) > 0xF4 || end - text < length) return 0;
  for (int i = 1; i < length; i++) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  unsigned code = byte(0) & (0xFFu >> (length + 1));
  for (int i = 1; i < length; i++) code = code << 6 | (byte(i) & 0x3F);
  const unsigned least[] = {0, 0, 0xA0, 0x800, 0x10000};
  const bool shown = code >= least[length] && code <= 0x10FFFF &&
                     (code < 0xD800 || code > 0xDFFF) && code != 0x2028 && code != 0x2029;
  return shown ? length : 0;
}

tm LocalTime(timespec* now) {
  clock_gettime(CLOCK_REALTIME, now);
  tm local{};
  localtime_r(&now->tv_sec, &local);
  return local;
}

// What a line begins with in a file. Returns its length, less than kFrame. A line after one that
// was written in part begins with a newline.
int FileFrame(char* to, ErrorLog::Level level, int thread, bool after_torn) {
  timespec now;
  const tm local = LocalTime(&now);
  const int length =
      snprintf(to, kFrame, "%s%04d-%02d-%02d %02d:%02d:%02d.%03ld %s %d", after_torn ? "\n" : "",
               local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
               local.tm_sec, now.tv_nsec / 1000000, LevelName(level), static_cast<int>(getpid()));
  if (thread == 0) return length + snprintf(to + length, 16, ": ");
  return length + snprintf(to + length, 16, ".%d: ", thread);
}

// The same in the form that the reader of the system's log expects.
int SystemFrame(char* to, ErrorLog::Level level, int thread) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  timespec now;
  const tm local = LocalTime(&now);
  const int length =
      snprintf(to, kFrame, "<%d>%s %2d %02d:%02d:%02d zeph-fcgi[%d]: %s",
               LOG_DAEMON | Severity(level), kMonths[local.tm_mon], local.tm_mday, local.tm_hour,
               local.tm_min, local.tm_sec, static_cast<int>(getpid()), LevelName(level));
  if (thread == 0) return length + snprintf(to + length, 32, ": ");
  return length + snprintf(to + length, 32, " in thread %d: ", thread);
}

// A write to a pipe that nothing reads raises SIGPIPE in the calling thread, and that signal ends
// an engine. While an object of this class lives it is blocked; TakeBack removes the one that a
// failed write has raised. A signal that another process has sent is left alone.
class WithoutSIGPIPE {
 public:
  WithoutSIGPIPE() {
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    // A signal that is pending is blocked already.
    was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &set, &before);
  }
  ~WithoutSIGPIPE() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  WithoutSIGPIPE(const WithoutSIGPIPE&) = delete;
  WithoutSIGPIPE& operator=(const WithoutSIGPIPE&) = delete;

  void TakeBack() {
    const timespec at_once{};
    while (!was_pending && sigtimedwait(&set, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t set;
  sigset_t before;
  bool was_pending;
};

// Whether write would neither wait nor fail. Another process may be quicker to fill a pipe.
bool TakesBytes(int descriptor) {
  pollfd waiting{descriptor, POLLOUT, 0};
  return poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0 &&
         (waiting.revents & POLLOUT) != 0;
}

// Writes to a pipe without a wait, although its other writers need not expect that it is
// non-blocking: that belongs to the open pipe, which they share. So it is opened once more for each
// line. A user who may not do that, because the pipe was made by another one, writes in a way that
// kernels before 6.4 do not have for pipes; only there two writers of the same moment may have to
// wait for the reader.
ssize_t WriteToPipe(int descriptor, const char* bytes, size_t length) {
  char path[32];
  snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
  const FileDescriptor own(open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (own.is_open()) return system_calls.write(own.get(), bytes, length);
  const iovec piece{const_cast<char*>(bytes), length};
  const ssize_t count = pwritev2(descriptor, &piece, 1, -1, RWF_NOWAIT);
  if (count >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) return count;
  return TakesBytes(descriptor) ? system_calls.write(descriptor, bytes, length) : -1;
}

// Returns the number of bytes that were taken, or -1. Neither waits nor leaves a signal.
ssize_t WriteAtOnce(int descriptor, const char* bytes, size_t length) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return -1;
  if (S_ISSOCK(status.st_mode)) return send(descriptor, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  WithoutSIGPIPE guard;
  ssize_t count = -1;
  if (S_ISFIFO(status.st_mode)) {
    count = WriteToPipe(descriptor, bytes, length);
  } else if (TakesBytes(descriptor)) {
    count = system_calls.write(descriptor, bytes, length);
  }
  if (count < 0 && errno == EPIPE) guard.TakeBack();
  return count;
}

bool LeadsNowhere(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return true;
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

}  // namespace

// --- Lines ---------------------------------------------------------------------------------------

void LogLine::Plain(const char* text) {
  while (*text) Put(*text++);
}

void LogLine::Append(const char* text, int length, int most, bool quoted) {
  if (!text) return;
  const char* const end = text + (length < 0 ? strlen(text) : static_cast<size_t>(length));
  // The room of a piece includes its "...".
  const int limit = std::min(used + std::min(most, kRoom), kRoom) - 3;
  while (text < end) {
    const auto byte = static_cast<unsigned char>(*text);
    int shown = 1;
    if (byte >= 0x80) {
      shown = Character(text, end);
    } else if (byte < 0x20 || byte == 0x7F || byte == '\\' || (quoted && byte == '"')) {
      shown = 0;
    }
    if (used + (shown > 0 ? shown : 4) > limit) {
      Plain("...");
      return;
    }
    if (shown == 0) {
      static const char kDigits[] = "0123456789abcdef";
      Plain("\\x");
      Put(kDigits[byte >> 4]);
      Put(kDigits[byte & 15]);
      text++;
    }
    for (; shown > 0; shown--) Put(*text++);
  }
}

LogLine& LogLine::Text(const char* text, int length, int most) {
  Append(text, length, most, false);
  return *this;
}

LogLine& LogLine::Number(int64_t number) {
  char digits[24];
  *std::to_chars(digits, digits + sizeof digits - 1, number).ptr = '\0';
  Plain(digits);
  return *this;
}

LogLine& LogLine::BeginField(const char* name) {
  Plain(has_fields ? ", " : "; ");
  has_fields = true;
  Plain(name);
  Plain(" \"");
  return *this;
}

LogLine& LogLine::Quoted(const char* text, int length, int most) {
  Append(text, length, most, true);
  return *this;
}

LogLine& LogLine::EndField() {
  Put('"');
  return *this;
}

LogLine& LogLine::Field(const char* name, const char* value, int length, int most) {
  if (!value || length == 0 || *value == '\0') return *this;
  return BeginField(name).Quoted(value, length, most).EndField();
}

// --- Targets -------------------------------------------------------------------------------------

ErrorLog::~ErrorLog() {
  Close();
}

ErrorLog& ErrorLog::OfProcess() {
  static ErrorLog log(true);
  return log;
}

ErrorLog& ErrorLog::OfSlowRequests() {
  static ErrorLog log;
  return log;
}

bool ErrorLog::Open(const char* name) {
  MutexGuard guard(mutex);
  return OpenTarget(name);
}

bool ErrorLog::OpenTarget(const char* name) {
  Target wanted;
  if (!name) {
    const int own = standard_error >= 0 ? standard_error : STDERR_FILENO;
    wanted = LeadsNowhere(own) ? Target::SystemLog : Target::StandardError;
  } else if (*name == '/') {
    wanted = Target::File;
  } else if (strcmp(name, "syslog") == 0) {
    wanted = Target::SystemLog;
  } else if (strcmp(name, "stderr") == 0) {
    wanted = Target::StandardError;
  } else {
    errno = EINVAL;
    return false;
  }
  const bool first = target == Target::None;
  const bool changes = wanted != target || (wanted == Target::File && strcmp(name, path) != 0);
  if (changes) {
    if (wanted != Target::File) {
      Use(-1);
    } else if (!OpenFile(name)) {
      return false;
    }
    target = wanted;
    open.store(true, std::memory_order_release);
  }
  if (name || !first) Settle(changes);
  return true;
}

// The place of the log is known. Its early lines are repeated, unless they are there already.
void ErrorLog::Settle(bool repeats) {
  if (is_settled) return;
  is_settled = true;
  for (int at = 0; repeats && at < early_length;) {
    const char* const text = early + at + 1;
    const auto length = static_cast<int>(strlen(text));
    Deliver(static_cast<Level>(early[at]), text, length, 0);
    at += 1 + length + 1;
  }
}

// Each early line is a byte for the level, the message and a NUL.
void ErrorLog::KeepEarly(Level level, const LogLine& line) {
  if (line.length() + 2 > static_cast<int>(sizeof early) - early_length) return;
  char* const to = early + early_length;
  to[0] = static_cast<char>(level);
  memcpy(to + 1, line.data(), static_cast<size_t>(line.length()));
  to[1 + line.length()] = '\0';
  early_length += line.length() + 2;
}

void ErrorLog::Close() {
  MutexGuard guard(mutex);
  open.store(false, std::memory_order_release);
  Use(-1);
  target = Target::None;
}

// Makes a descriptor the one that lines are written to; -1 is none.
void ErrorLog::Use(int opened) {
  if (redirects && opened >= 0) {
    if (standard_error < 0)
      standard_error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kFirstDescriptor);
    dup2(opened, STDERR_FILENO);
  } else if (standard_error >= 0) {
    dup2(standard_error, STDERR_FILENO);
    close(standard_error);
    standard_error = -1;
  }
  if (descriptor >= 0) close(descriptor);
  descriptor = opened;
  lost = 0;
  torn = false;
}

// A name that leads to a FIFO or a device does not hold the process up.
bool ErrorLog::OpenFile(const char* name) {
  if (strlen(name) >= sizeof path) {
    errno = ENAMETOOLONG;
    return false;
  }
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  int opened = ::open(name, flags, 0640);
  if (opened < 0) return false;
  struct stat status;
  if (fstat(opened, &status) != 0) {
    const int error = errno;
    close(opened);
    errno = error;
    return false;
  }
  // A descriptor below 3 would be taken for one of the standard ones.
  if (opened < kFirstDescriptor) {
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, kFirstDescriptor);
    close(opened);
    if (moved < 0) return false;
    opened = moved;
  }
  if (name != path) memcpy(path, name, strlen(name) + 1);
  device = status.st_dev;
  inode = status.st_ino;
  const long before = lost;
  Use(opened);
  lost = before;
  return true;
}

bool ErrorLog::WasReplaced() {
  struct stat status;
  return stat(path, &status) != 0 || status.st_dev != device || status.st_ino != inode;
}

void ErrorLog::Look() {
  MutexGuard guard(mutex);
  // If the name cannot be opened, the renamed file gets the lines: none is lost.
  if (target == Target::File && WasReplaced()) static_cast<void>(OpenFile(path));
}

bool ErrorLog::Connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strlen(system_log) >= sizeof address.sun_path) return false;
  memcpy(address.sun_path, system_log, strlen(system_log) + 1);
  FileDescriptor made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made.is_open() ||
      connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  if (descriptor >= 0) close(descriptor);
  descriptor = made.release();
  return true;
}

// --- Writing -------------------------------------------------------------------------------------

bool ErrorLog::Write(Level level, const char* text) {
  if (!IsOpen()) return false;
  LogLine line;
  line.Text(text);
  return Write(level, line);
}

bool ErrorLog::Write(Level level, const LogLine& line, int thread) {
  if (!IsOpen()) return false;
  MutexGuard guard(mutex);
  if (target == Target::None) return false;
  WriteLine(level, line, thread);
  return true;
}

bool ErrorLog::WriteTo(const char* name, Level level, const LogLine& line, int thread) {
  MutexGuard guard(mutex);
  if (!OpenTarget(name)) return false;
  WriteLine(level, line, thread);
  return true;
}

void ErrorLog::WriteLine(Level level, const LogLine& line, int thread) {
  if (target == Target::File && WasReplaced()) static_cast<void>(OpenFile(path));
  Deliver(level, line.data(), line.length(), thread);
  if (!is_settled) KeepEarly(level, line);
}

void ErrorLog::Deliver(Level level, const char* message, int length, int thread) {
  char text[LogLine::kRoom + kFrame];
  if (lost > 0) {
    int used = target == Target::SystemLog ? SystemFrame(text, Level::Warning, 0)
                                           : FileFrame(text, Level::Warning, 0, torn);
    used += snprintf(text + used, 64, "%ld lines could not be written\n", lost);
    if (Send(text, used)) lost = 0;
  }
  int used = target == Target::SystemLog ? SystemFrame(text, level, thread)
                                         : FileFrame(text, level, thread, torn);
  memcpy(text + used, message, static_cast<size_t>(length));
  used += length;
  text[used++] = '\n';
  if (lost > 0 || !Send(text, used)) lost++;
}

// Returns whether all bytes were taken.
bool ErrorLog::Send(const char* bytes, int length) {
  if (target == Target::SystemLog) return SendToSystemLog(bytes, length - 1);
  const int to = target == Target::File ? descriptor : STDERR_FILENO;
  const ssize_t written = WriteAtOnce(to, bytes, static_cast<size_t>(length));
  if (written > 0) torn = written < length;
  return written == length;
}

// The system's log may have been started again since the last line.
bool ErrorLog::SendToSystemLog(const char* bytes, int length) {
  for (int tries = 0; tries < 2; tries++) {
    if (descriptor < 0 && !Connect()) return false;
    const auto size = static_cast<size_t>(length);
    if (send(descriptor, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT) == length) return true;
    if (errno == EAGAIN) return false;
    close(descriptor);
    descriptor = -1;
  }
  return false;
}

// --- Problems of the whole process ---------------------------------------------------------------

void ReportOnce(const char* program, const char* problem, int length) {
  static std::mutex guarded;
  static std::set<std::string, std::less<>> reported;
  const std::string_view text(problem, static_cast<size_t>(length));
  {
    const std::lock_guard<std::mutex> lock(guarded);
    if (reported.size() == kMostReported || reported.contains(text)) return;
    reported.emplace(text);
  }
  LogLine line;
  line.Text(problem, length);
  if (ErrorLog::OfProcess().Write(ErrorLog::Level::Error, line)) return;
  fprintf(stderr, "%s: %.*s\n", program, length, problem);
}

int ZephReportConfiguration(const char* text, int length) {
  LogLine line;
  line.Text(text, length);
  return ErrorLog::OfProcess().Write(ErrorLog::Level::Error, line) ? 1 : 0;
}
