// The part that all hosts share: the clock of a script, its language and character set, and the
// filter of the trace log.

#include "base/host/ZephApplication.h"

#include <atomic>
#include <cstring>
#include <memory>

#include "base/core/Output.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/host/Config.h"

namespace {

const char* SkipSpace(const char* p) {
  while (zp_isspace(*p)) p++;
  return p;
}

// Reads a line number and moves past it; no digits read as 0.
int LineNumber(const char** p) {
  const char* start = *p;
  while (zp_isdigit(**p)) (*p)++;
  int length = static_cast<int>(*p - start);
  return length == 0 ? 0 : ZephApplication::stoi(start, length, nullptr);
}

inline void Raise(int& flag, int value) {
  std::atomic_ref<int>(flag).store(value, std::memory_order_relaxed);
}

// The text of a setting that a script may change: its first value is made when it is asked for.
const String& Filled(String& setting, const char* first) {
  if (!setting.data) setting.assign(first);
  return setting;
}

inline int Read(int& flag) {
  return std::atomic_ref<int>(flag).load(std::memory_order_relaxed);
}

}  // namespace

LogParameter LogParameter::OfText(const char* text, int length) {
  LogParameter p;
  p.type = Text;
  p.text = text;
  p.length = length;
  return p;
}

LogParameter LogParameter::OfInteger(int value) {
  LogParameter p;
  p.type = Integer;
  p.integer = value;
  p.length = 0;
  return p;
}

LogParameter LogParameter::OfDouble(double value) {
  LogParameter p;
  p.type = Double;
  p.number = value;
  p.length = 0;
  return p;
}

LogParameter LogParameter::OfVariable(Variable* variable) {
  LogParameter p;
  p.type = Value;
  p.variable = variable;
  p.length = 0;
  return p;
}

LogParameter LogParameter::OfEnd() {
  LogParameter p;
  p.type = End;
  p.integer = 0;
  p.length = 0;
  return p;
}

LogFilterEntry::LogFilterEntry(const char* text, int length, int first, int last)
    : name(new char[static_cast<size_t>(length)]),
      namelength(length),
      firstline(first),
      lastline(last) {
  memcpy(name, text, static_cast<size_t>(length));
}

LogFilterEntry::~LogFilterEntry() {
  delete[] name;
}

ZephApplication::ZephApplication() : log_includes(1), log_excludes(1) {}

ZephApplication::~ZephApplication() = default;

CommerceLibraryManager* ZephApplication::commercemanager() {
  return nullptr;
}
ExternalDatabaseLibraryManager* ZephApplication::databasemanager() {
  return nullptr;
}
SystemLibraryManager* ZephApplication::systemlibrarymanager() {
  return nullptr;
}

void ZephApplication::ResetGlobalTimeout() {
  StartGlobalClock(config()->value_integer(Config_timeout_global));
}

void ZephApplication::ResetPOSTTimeout() {
  StartPOSTClock(config()->value_integer(Config_timeout_post));
}

void ZephApplication::StartGlobalClock(int seconds) {
  global_deadline = seconds == 0 ? 0 : time(nullptr) + seconds;
  Raise(timedout_flag, 0);
}

void ZephApplication::StartPOSTClock(int seconds) {
  post_deadline = seconds == 0 ? 0 : time(nullptr) + seconds;
  Raise(post_timedout_flag, 0);
}

void ZephApplication::ClearPOSTTimeout() {
  post_deadline = 0;
  Raise(post_timedout_flag, 0);
}

int ZephApplication::cancelled() {
  return Read(timedout_flag);
}

bool ZephApplication::posttimedout() const {
  return Read(const_cast<int&>(post_timedout_flag)) != 0;
}

void ZephApplication::Error(const String& text) {
  OutputError(text.data ? text.data : "", text.length);
}

void ZephApplication::Error(const char* text) {
  OutputError(text, static_cast<int>(strlen(text)));
}

void ZephApplication::OutputError(const char* text, int length) {
  output()->Write_Error(text, length);
}

int ZephApplication::BeginAsynchronousTask(ZephVM*) {
  return AsynchronousTask_NotSupported;
}
void ZephApplication::AsynchronousSleep(long, Zeph_PathType, const char*) {}

void ZephApplication::Heartbeat(long now) {
  Raise(heartbeat_counter, Read(heartbeat_counter) + 1);
  if (global_deadline > 0 && global_deadline < now) Raise(timedout_flag, 1);
  if (post_deadline > 0 && post_deadline < now) Raise(post_timedout_flag, 1);
}

long ZephApplication::TimeRemaining() {
  return global_deadline == 0 ? -1 : global_deadline - time(nullptr);
}

const String& ZephApplication::language() {
  return Filled(current_language, "en-US");
}
int ZephApplication::languagecount() {
  return language_count;
}
const String& ZephApplication::defaultlanguage() {
  return Filled(default_language, "en-US");
}
int ZephApplication::defaultlanguagecount() {
  return default_language_count;
}
const String& ZephApplication::defaultdatabase() {
  return Filled(default_database, "xbase3");
}
int ZephApplication::defaultdatabasecount() {
  return default_database_count;
}

void ZephApplication::SetLanguage(const String& language) {
  current_language.assign(language.data, language.length);
  language_count++;
}

void ZephApplication::SetDefaultLanguage(const String& language) {
  default_language.assign(language.data, language.length);
  default_language_count++;
}

void ZephApplication::SetDefaultDatabase(const String& database) {
  default_database.assign(database.data, database.length);
  default_database_count++;
}

const String& ZephApplication::charset() {
  return Filled(character_set, "utf-8");
}
int ZephApplication::charsetcount() {
  return character_set_count;
}

void ZephApplication::SetCharacterSet(const String& charset) {
  character_set.assign(charset.data, charset.length);
  character_set_count++;
  character_set_is_utf8 = character_set.length == 5 && memcmpi(character_set.data, "utf-8", 5) == 0;
}

const String& ZephApplication::GetCharacterSet() {
  return Filled(character_set, "utf-8");
}
int ZephApplication::CharacterSetIsUTF8() {
  return character_set_is_utf8;
}

int ZephApplication::SSL_Available(String* error) {
  return ssl_context ? 1 : SSL_Initialize(error);
}

void ZephApplication::ParseLogFilter(const char* text) {
  log_includes.Dump();
  log_excludes.Dump();
  const char* p = text;
  while (*p) {
    p = SkipSpace(p);
    bool exclude = *p == '!';
    if (exclude) p = SkipSpace(p + 1);
    const char* name = p;
    while (*p && !zp_isspace(*p) && *p != ',' && *p != ':') p++;
    int length = static_cast<int>(p - name);
    int first = 0, last = 0;
    p = SkipSpace(p);
    if (*p == ':') {
      p = SkipSpace(p + 1);
      if (!*p) return;  // a last entry that ends in ":" is dropped
      first = last = LineNumber(&p);
      p = SkipSpace(p);
      if (*p == '-') {
        p = SkipSpace(p + 1);
        last = LineNumber(&p);
      }
    }
    if (length > 0) {
      InsertOwned(exclude ? log_excludes : log_includes,
                  std::make_unique<LogFilterEntry>(name, length, first, last), ListTail);
    }
    while (*p && *p != ',') p++;
    if (*p) p++;
  }
}

void ZephApplication::Log(unsigned, LogParameter*) {}

const char* ZephApplication::Log_Description(unsigned type) {
  switch (type) {
    case Log_FunctionCall: return "Function Call";
    case Log_FunctionParameter: return "Function Parameter";
    case Log_FunctionReturnValue: return "Function Return Value";
    case Log_FunctionReturn: return "Function Return";
    case Log_ExternalFunctionCall: return "External Function Call";
    case Log_ExternalFunctionParameter: return "External Function Parameter";
    case Log_ExternalFunctionReturnValue: return "External Function Return Value";
    case Log_ExternalFunctionReturn: return "External Function Return";
    case Log_DoEnter: return "ZpDO Enter";
    case Log_DoExit: return "ZpDO Exit";
    case Log_Call: return "ZpCALL";
    case Log_SMTP: return "ZpSMTP";
    case Log_TimedOut: return "Application Timed Out";
    case Log_RuntimeError: return "Runtime Error";
    case Log_FatalError: return "Fatal Error";
    case Log_Trace: return "Trace";
    default: return "Unknown";
  }
}

const char* ZephApplication::process_name() {
  return "";
}
void ZephApplication::SetProcessName(const char*) {}
