// A failed write ends the script.
// Tested in tests/commandline/CommandLineOutputTest.cpp.

#include "commandline/CommandLineOutput.h"

#include <cerrno>

#include "base/systems/unix/UNIXApplication.h"

CommandLineOutput::CommandLineOutput(UNIXApplication* application, int buffered, int buffersize)
    : StandardOutput(buffered, buffersize), application(application) {}

int CommandLineOutput::DoWrite(const char* text, int length) {
  errno = 0;
  const int written = StandardOutput::DoWrite(text, length);
  if (written < length && first_error == 0) {
    first_error = errno ? errno : EIO;
    application->Cancelled();
  }
  return written;
}
