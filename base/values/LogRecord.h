// The text of one record of the trace log: a line of fields separated by tabs. Parameters come from
// the machine and include values of scripts and clients, so bytes that would break the line are
// written as \xHH.

#ifndef ZEPH_BASE_LOGRECORD_H
#define ZEPH_BASE_LOGRECORD_H

#include <string>

#include "base/core/zptime.h"
#include "base/host/ZephApplication.h"

// Made for one record and used on the application's thread.
class LogRecord {
 public:
  // The most bytes of a record; the rest is cut. A script can make a value of any size, and one
  // whose elements share their values is far larger as text than in memory.
  static constexpr size_t MostBytes = size_t{64} << 20;

  // Begins the line: the time, "process.thread" and the description of the record's type.
  LogRecord(const ZPTIME& time, int process, int thread, const char* description);

  // Appends a field for each parameter up to the end of the list. Checks application->cancelled()
  // from time to time; once the script has to end, the rest of a large value is left out.
  void Append(ZephApplication* application, const LogParameter* parameters);
  // Ends the line and returns it, borrowed. This is the last call on a record.
  const std::string& Finish();

 private:
  void AppendText(const char* text, int length);
  void AppendInteger(int value);
  void AppendDouble(double value);
  void AppendVariable(ZephApplication* application, Variable* variable);
  void AppendScalar(Variable* variable);

  std::string line;
};

#endif
