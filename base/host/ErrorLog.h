// The log for the operator of a host: one line for each message, on standard error, in a file or in
// the system's log. The trace log, which scripts are debugged with, is another one (docs/log.md).
//
// The sources are in base/systems/unix, because the system is needed. Nothing here allocates
// memory: a lack of it is one of the things that are reported.

#ifndef ZEPH_BASE_ERRORLOG_H
#define ZEPH_BASE_ERRORLOG_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "base/core/Mutex.h"

// One message, built up from pieces. What could end a line, or do something to a terminal, is
// written as "\x0a": control characters, bytes that are no UTF-8, and the backslash itself. So a
// text that a client has sent cannot look like a line of its own. Pieces beyond the room are cut
// and end in "...".
class LogLine {
 public:
  // With the time and what else a log puts before the message, a line is at most as long as a pipe
  // takes in one piece.
  static constexpr int kRoom = 3900;

  // Appends at most `most` bytes of text. A length of -1 means strlen; a null text is empty.
  LogLine& Text(const char* text, int length = -1, int most = kRoom);
  LogLine& Number(int64_t number);
  // Appends ", name "value"", or "; name "value"" for the first field. A quote in the value is
  // written as "\x22". Nothing is appended for an empty or a null value.
  LogLine& Field(const char* name, const char* value, int length = -1, int most = 1000);
  // The two halves of a field whose value is put together with Quoted.
  LogLine& BeginField(const char* name);
  LogLine& Quoted(const char* text, int length = -1, int most = 1000);
  LogLine& EndField();

  // Not terminated.
  const char* data() const { return bytes; }
  int length() const { return used; }

 private:
  void Put(char c) {
    if (used < kRoom) bytes[used++] = c;
  }
  void Plain(const char* text);
  void Append(const char* text, int length, int most, bool quoted);

  int used = 0;
  bool has_fields = false;
  char bytes[kRoom];
};

// A log. Any thread may call it. Each line is one write, and no write waits: a line that the target
// does not take at once, as on a full disk, is lost, and the next one that it takes is preceded by
// a line with the number of lost ones. A reader of standard error that has ended raises no SIGPIPE.
class ErrorLog {
 public:
  enum class Level : int { Error, Warning, Notice };

  // A log that is not open. One that redirects also makes its file the process's standard error, so
  // that what libraries print is in it as well.
  explicit ErrorLog(bool redirects = false) : redirects(redirects) {}
  ~ErrorLog();
  ErrorLog(const ErrorLog&) = delete;
  ErrorLog& operator=(const ErrorLog&) = delete;

  // The log of this process. Not open in a program that has no operator, such as zprun.
  static ErrorLog& OfProcess();
  // The log of slow requests; not open if they go to the log of the process.
  static ErrorLog& OfSlowRequests();

  // Sends the lines to standard error ("stderr"), to the system's log ("syslog"), or to the file of
  // an absolute path, which is appended to and made if it does not exist. Null means standard error
  // or, if that is /dev/null or closed, the system's log: web servers start their programs so. Does
  // nothing if it is the present target. Lines that come before the first call with a name are
  // repeated there, because a library may fail before the settings are known. Returns false with
  // errno, and leaves the log as it was, if the file cannot be opened.
  bool Open(const char* name);
  void Close();
  bool IsOpen() const { return open.load(std::memory_order_acquire); }

  // Writes one line: the time, the level, the process (and the thread, unless it is 0), then the
  // message. Returns false, and writes nothing, if the log is not open. A file that was renamed or
  // removed since the last line is opened again under its name first, so that log files can be
  // rotated without a signal.
  bool Write(Level level, const LogLine& line, int thread = 0);
  bool Write(Level level, const char* text);
  // Open and Write in one, so that the lines of threads that write to different files do not meet.
  // Returns false if Open does, and writes nothing then.
  bool WriteTo(const char* name, Level level, const LogLine& line, int thread = 0);
  // Opens a renamed or removed file again, for a log that has nothing to write.
  void Look();

  // The socket of the system's log, for tests; the text must stay valid.
  void SetSystemLog(const char* path) { system_log = path; }

 private:
  enum class Target { None, StandardError, SystemLog, File };

  bool OpenTarget(const char* name) REQUIRES(mutex);
  bool OpenFile(const char* name) REQUIRES(mutex);
  bool WasReplaced() REQUIRES(mutex);
  bool Connect() REQUIRES(mutex);
  void Settle(bool repeats) REQUIRES(mutex);
  void KeepEarly(Level level, const LogLine& line) REQUIRES(mutex);
  void WriteLine(Level level, const LogLine& line, int thread) REQUIRES(mutex);
  void Deliver(Level level, const char* message, int length, int thread) REQUIRES(mutex);
  bool Send(const char* bytes, int length) REQUIRES(mutex);
  bool SendToSystemLog(const char* bytes, int length) REQUIRES(mutex);
  void Use(int opened) REQUIRES(mutex);

  const bool redirects;
  std::atomic<bool> open{false};
  const char* system_log = "/dev/log";
  Mutex mutex;
  Target target GUARDED_BY(mutex) = Target::None;
  int descriptor GUARDED_BY(mutex) = -1;      // of the file or of the system's log
  int standard_error GUARDED_BY(mutex) = -1;  // what descriptor 2 was before it was redirected
  dev_t device GUARDED_BY(mutex) = 0;         // of the file
  ino_t inode GUARDED_BY(mutex) = 0;
  long lost GUARDED_BY(mutex) = 0;
  bool torn GUARDED_BY(mutex) = false;  // the last line was written in part
  // The lines that have come before it was known where they belong.
  bool is_settled GUARDED_BY(mutex) = false;
  int early_length GUARDED_BY(mutex) = 0;
  char early[8192] GUARDED_BY(mutex);
  char path[4096] GUARDED_BY(mutex) = {};
};

// Reports a problem that every request meets again: once for each text in the life of the process,
// and at most 100 texts. Goes to the log of the process or, if that is not open, to standard error
// after the program's name. Any thread may call it.
void ReportOnce(const char* program, const char* problem, int length);

// For the configuration library, which links with nothing of the engine and looks this function up.
// Reports a mistake in the configuration. Returns 0 if the process has no log.
extern "C" int ZephReportConfiguration(const char* text, int length);

#endif
