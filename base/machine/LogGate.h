// The gate of the trace log: which records a machine writes, by their type and by the place that
// the script has reached.

#ifndef ZEPH_BASE_LOGGATE_H
#define ZEPH_BASE_LOGGATE_H

#include <initializer_list>

#include "base/core/StringClass.h"

class ZephApplication;
struct LogParameter;

// A place in a script, as records and the filters of the log name it. Borrows its texts.
struct LogPlace {
  const String& script;  // the script's path
  const char* file;      // the source file's name, never null
  int file_length;       // in bytes, 0 without a source file
  int line;              // 0 before the first line
};

// Belongs to one machine and its thread. Borrows the application, whose filters it applies and
// whose log it writes to.
class LogGate {
 public:
  // The level is a mask of LogType bits; at 0, nothing is written.
  LogGate(ZephApplication* application, unsigned level) : application(application), mask(level) {}

  unsigned level() const { return mask; }
  void SetLevel(unsigned level) { mask = level; }

  // Whether records of any of these LogTypes are written at all. This is the same for a machine's
  // whole run, and costs one test.
  bool Wants(unsigned types) const { return (mask & types) != 0; }
  // Whether the application's filters admit records of this place: the log is not suppressed, no
  // exclude names the place and, if there are includes, one of them does.
  bool Admits(const LogPlace& place) const;
  // Writes a record: the script's path, the source file and the line, then the given parameters.
  void Write(unsigned type, const LogPlace& place, std::initializer_list<LogParameter> more) const;

 private:
  ZephApplication* application;
  unsigned mask;
};

#endif
