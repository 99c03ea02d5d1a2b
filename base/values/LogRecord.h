// The text of one record of the trace log: a line of fields with tabs between them. Its parameters
// come from the machine, values of scripts and clients among them, so whatever would break the line
// is written as \xHH.

#ifndef ZEPH_BASE_LOGRECORD_H
#define ZEPH_BASE_LOGRECORD_H

#include <string>

#include "base/core/zptime.h"
#include "base/host/ZephApplication.h"

// Made for one record and used on the application's thread.
class LogRecord {
 public:
  // A record is cut here. A script can make a value of any size, and one whose elements share their
  // values is far larger in writing than in memory.
  static constexpr size_t MostBytes = size_t{64} << 20;

  // Begins the line: the time, "process.thread" and the description of the record's type.
  LogRecord(const ZPTIME& time, int process, int thread, const char* description);

  // Appends a field for each parameter up to the end of the list. The application is asked from
  // time to time whether the script has to end, which ends a large value.
  void Append(ZephApplication* application, const LogParameter* parameters);
  // Ends the line. Nothing is appended after this.
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
