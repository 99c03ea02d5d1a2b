// What a host learns of a script that runs for it, in addition to what the script writes.

#ifndef ZEPH_BASE_RUNOBSERVER_H
#define ZEPH_BASE_RUNOBSERVER_H

#include "base/core/StringClass.h"

class ZephVM;

// An error of a script, with the place that it has reached. Borrows its texts.
struct RunFailure {
  enum Kind : int { Fatal, Runtime, TimedOut };

  Kind kind;
  bool ends_run;     // the script stops here
  bool is_shown;     // ZephApplication::Error is called next, with the same text
  const char* text;  // that of ZephVM::error(), or "Application timed out"
  int text_length;
  const String& script;
  const char* file;  // the source file's name, never null
  int file_length;   // in bytes, 0 without a source file
  int line;          // 0 before the first line
};

// Belongs to the application that the script runs for; called on the script's thread.
class RunObserver {
 public:
  RunObserver() = default;
  virtual ~RunObserver() = default;
  RunObserver(const RunObserver&) = delete;
  RunObserver& operator=(const RunObserver&) = delete;

  // A machine reports an error.
  virtual void Fails(const RunFailure& failure) = 0;
  // A machine has seen a heartbeat, between two instructions.
  virtual void Beats(ZephVM* machine) = 0;
};

#endif
