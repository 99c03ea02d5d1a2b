// ZephApplication, the one object through which every subsystem reaches its host. A request has one
// (FastCGIApplication), a background task has one, a command-line run has one. It provides files,
// network, output, settings, libraries and the clock of a script; no subsystem takes them from the
// process.

#ifndef ZEPH_BASE_ZEPHAPPLICATION_H
#define ZEPH_BASE_ZEPHAPPLICATION_H

#include <ctime>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class CommerceLibraryManager;
class Config;
class ExternalDatabaseLibraryManager;
class ExternalLibraryManager;
class FileManager;
class NetworkManager;
class Output;
class RunObserver;
class SystemLibraryManager;
class Variable;
class ZephVM;
struct OpenSSLFunctions;
struct ssl_ctx_st;
enum Zeph_PathType : int;

// Bits of the setting log_level; each is one type of log record.
enum LogType : unsigned {
  Log_FunctionCall = 0x10,
  Log_FunctionParameter = 0x20,
  Log_FunctionReturnValue = 0x40,
  Log_FunctionReturn = 0x80,
  Log_ExternalFunctionCall = 0x100,
  Log_ExternalFunctionParameter = 0x200,
  Log_ExternalFunctionReturnValue = 0x400,
  Log_ExternalFunctionReturn = 0x800,
  Log_DoEnter = 0x1000,
  Log_DoExit = 0x2000,
  Log_Call = 0x100000,
  Log_SMTP = 0x200000,
  Log_TimedOut = 0x8000000,
  Log_RuntimeError = 0x10000000,
  Log_FatalError = 0x20000000,
  Log_Trace = 0x40000000,
  // All records of calls of script functions and library functions.
  Log_OfCalls = 0xFF0,
};

// One element of a log record's parameter list; the list ends with an element of type End.
struct LogParameter {
  enum Type : int { Text = 0, Integer = 1, Double = 2, Value = 3, End = 4 };

  Type type;
  union {
    const char* text;
    int integer;
    double number;
    Variable* variable;
  };
  int length;  // bytes of a Text; -1 means strlen

  static LogParameter OfText(const char* text, int length);
  static LogParameter OfInteger(int value);
  static LogParameter OfDouble(double value);
  static LogParameter OfVariable(Variable* variable);
  static LogParameter OfEnd();
};

// One entry of the setting log_filter: a source file, and a range of its lines.
class LogFilterEntry {
 public:
  // text is the name of the file; length bytes of it are copied. Line 0 means no bound on that
  // side.
  LogFilterEntry(const char* text, int length, int first, int last);
  virtual ~LogFilterEntry();
  LogFilterEntry(const LogFilterEntry&) = delete;
  LogFilterEntry& operator=(const LogFilterEntry&) = delete;

  char* name;
  int namelength;
  int firstline;
  int lastline;
};

// Results of BeginAsynchronousTask.
enum AsynchronousTaskResult : int {
  AsynchronousTask_Started = 0,
  AsynchronousTask_Continue = 1,
  AsynchronousTask_Failed = 2,
  AsynchronousTask_NotSupported = 3,
  AsynchronousTask_LimitReached = 4,
  AsynchronousTask_InTask = 5,
};

// Abstract base of every host. The host makes one for each request or task, and that request's
// thread uses it; Heartbeat is also called by the heartbeat thread. The order of the virtual
// operations is part of the interface and fixed.
class ZephApplication {
 public:
  ZephApplication();
  virtual ~ZephApplication();
  ZephApplication(const ZephApplication&) = delete;
  ZephApplication& operator=(const ZephApplication&) = delete;

  // Services of the host, all borrowed. commercemanager, databasemanager and systemlibrarymanager
  // are null in a host without such libraries.
  virtual NetworkManager* networkmanager() = 0;
  virtual FileManager* filemanager() = 0;
  virtual ExternalLibraryManager* librarymanager() = 0;
  virtual CommerceLibraryManager* commercemanager();
  virtual ExternalDatabaseLibraryManager* databasemanager();
  virtual SystemLibraryManager* systemlibrarymanager();
  virtual Config* config() = 0;

  // The program's name without its folder; the machine's host name.
  virtual const char* basename() = 0;
  virtual const char* hostname() = 0;
  // Local time in the form of mail headers, "Sat, 21 Nov 2026 10:00:00 +0100". The zone has whole
  // hours only.
  virtual String currentdate() = 0;
  // The system's text for errno, "Unknown error" if it has none. Call it before any clean-up that
  // may change errno.
  virtual String lasterror() = 0;

  // The current output, borrowed. SetOutput copies the flags of the old output to the new one,
  // installs the new one and returns the old one. Ownership of neither changes.
  virtual Output* output() = 0;
  virtual Output* SetOutput(Output* output) = 0;

  // crypt(3) of at most 8 bytes of the key under a salt of two characters. The result is
  // NUL-terminated, made with new[] and owned by the caller; *length receives 13, *size 14.
  virtual char* Crypt(const char* key, int keylength, const char* salt, int* length, int* size) = 0;
  // 32 hexadecimal digits that cannot be guessed; NUL-terminated, made with new[] and owned by the
  // caller.
  virtual char* MakeSessionID(int* length) = 0;

  // Time limits, in whole seconds and as exact as the heartbeat's period of five.
  // ResetGlobalTimeout restarts the script's clock with timeout_global, ResetPOSTTimeout the
  // upload's with timeout_post; a setting of 0 means no limit.
  virtual void ResetGlobalTimeout();
  virtual void ResetPOSTTimeout();
  virtual void ClearPOSTTimeout();
  // Whether the script has to end because its time is over or it was cancelled: the time-out flag.
  // Any thread may call it. This asks; the order of a host is Cancelled.
  virtual int cancelled();

  virtual int processid() = 0;
  virtual int threadid() = 0;
  // This host's name in lock records; and the age in seconds after which another host's lock counts
  // as abandoned, 0 for never.
  virtual const char* lockhostname() = 0;
  virtual int lockexpiration() = 0;

  // Sends text to the client unchanged, after the header fields if they have not been sent.
  virtual void Error(const String& text);
  virtual void Error(const char* text);
  virtual void OutputError(const char* text, int length);

  // Pauses the script for that many milliseconds. A cancelled script wakes within a heartbeat.
  virtual void Sleep(int milliseconds) = 0;
  // The effective user id in decimal.
  virtual const char* GetUserID() = 0;

  virtual int BeginAsynchronousTask(ZephVM* vm);
  virtual void AsynchronousSleep(long wakeat, Zeph_PathType type, const char* path);

  // One beat: counts it and sets the time-out flags whose deadlines are before now (seconds since
  // the epoch).
  virtual void Heartbeat(long now);
  // Seconds until the global deadline, -1 without one.
  virtual long TimeRemaining();

  // Values that a script may set. Each has a counter that changes with it, so that the holder of a
  // copy can tell by one comparison that the copy is stale.
  virtual const String& language();
  virtual int languagecount();
  virtual const String& defaultlanguage();
  virtual int defaultlanguagecount();
  virtual const String& defaultdatabase();
  virtual int defaultdatabasecount();
  virtual void SetLanguage(const String& language);
  virtual void SetDefaultLanguage(const String& language);
  virtual void SetDefaultDatabase(const String& database);
  virtual const String& charset();
  virtual int charsetcount();
  virtual void SetCharacterSet(const String& charset);
  virtual const String& GetCharacterSet();
  virtual int CharacterSetIsUTF8();

  // Whether connections can be encrypted, 1 or 0. The first call in an application prepares it and
  // may load the libraries; *error, which may be null, receives the text of a failure, if there is
  // a new one. After 1, sslcontext and sslfunctions are not null.
  virtual int SSL_Available(String* error);
  virtual int SSL_Initialize(String* error) = 0;
  // A function of the TLS libraries, for an extension library; null without one of that name.
  virtual void* SSL_GetFunction(const char* name) = 0;

  // Replaces both filter lists with the entries of a log_filter text.
  virtual void ParseLogFilter(const char* text);
  // Writes one record of a LogType. The base class has no log and does nothing.
  virtual void Log(unsigned type, LogParameter* parameters);
  virtual const char* Log_Description(unsigned type);

  virtual const char* process_name();
  virtual void SetProcessName(const char* name);

  // --- Text and numbers (base/host/Conversions.cpp) ----------------------------------------------
  // All results are NUL-terminated buffers made with new[] and owned by the caller. *length
  // receives the bytes of text, *size the bytes allocated. An input length of -1 means strlen.
  static char* itos(int value, int* length, int* size);
  static char* dtos(double value, int* length, int* size, int precision);
  static int stoi(const char* text, int length, int* error);
  static double stod(const char* text, int length, int size, int* error);
  // Whether stod may find a number in the text, to judge by its first two bytes. If not, stod
  // returns 0.0 with an error.
  static bool MayBeNumber(const char* text, int length);
  static char* EncodeAttribute(const char* text, int textlength, int* length, int* size);
  static char* DecodeAttribute(const char* text, int textlength, int* length, int* size);
  static char* EncodeEntities(const char* text, int textlength, int* length, int* size);
  static char* DecodeEntities(const char* text, int textlength, int* length, int* size);
  static char* StripNULLs(const char* text, int textlength, int* length, int* size);
  // Not static, because it needs the character set.
  char* EncodeJavaScriptString(const char* text, int textlength, int* length, int* size);

  // Flags that the machine reads at every instruction without a lock, through std::atomic_ref in
  // relaxed order: the count of heartbeats; the time-out flag, set when
  // the time is over or the script was cancelled; and whether the script requested to end.
  int* heartbeatcounter() { return &heartbeat_counter; }
  int* timedoutflag() { return &timedout_flag; }
  int* exitflag() { return &exit_flag; }
  // The same for the reader of a form: whether its time is over.
  int* posttimedoutflag() { return &post_timedout_flag; }
  bool posttimedout() const;

  // For the network units: the context that secure connections are made from, and the functions of
  // the TLS library. Borrowed; null before SSL_Available has returned 1.
  ssl_ctx_st* sslcontext() { return ssl_context; }
  const OpenSSLFunctions* sslfunctions() { return ssl_functions; }

  // output(), without the virtual call in most hosts, for the machine.
  Output* CurrentOutput() { return current_output ? current_output : output(); }

  // What is told of errors and beats, borrowed; null in a host that does not need it.
  RunObserver* observer() { return run_observer; }

  // Log settings of this request. The machine checks them before it makes a record.
  bool logsuppressed() const { return log_suppressed != 0; }
  List<LogFilterEntry>* logincludes() { return &log_includes; }
  List<LogFilterEntry>* logexcludes() { return &log_excludes; }

 protected:
  friend struct NativeLayout;

  // What output() returns; null in a host that keeps it in another place.
  Output* current_output = nullptr;

  // Start a clock with a limit in whole seconds, 0 for none, and clear its flag. For a host that
  // guards the clocks with a mutex: reading the setting calls the configuration library, which must
  // not happen under that mutex.
  void StartGlobalClock(int seconds);
  void StartPOSTClock(int seconds);

  ssl_ctx_st* ssl_context = nullptr;
  OpenSSLFunctions* ssl_functions = nullptr;
  int heartbeat_counter = 0;
  int timedout_flag = 0;
  int post_timedout_flag = 0;
  int exit_flag = 0;
  time_t global_deadline = 0;  // 0 is none
  time_t post_deadline = 0;
  int log_suppressed = 0;
  List<LogFilterEntry> log_includes;
  List<LogFilterEntry> log_excludes;
  // Null until they are asked for or set: most scripts do neither.
  String current_language;
  int language_count = 1;
  String default_language;
  int default_language_count = 1;
  String default_database;
  int default_database_count = 1;
  String character_set;
  int character_set_count = 1;
  int character_set_is_utf8 = 1;
  RunObserver* run_observer = nullptr;
};

#endif
