// The output of a script of the command line: standard output, and the end of the script when
// nobody takes it any more.

#ifndef ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H
#define ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H

#include "base/systems/unix/StandardOutput.h"

class UNIXApplication;

class CommandLineOutput : public StandardOutput {
 public:
  // See StandardOutput. The application is borrowed; it is cancelled by the first write that fails.
  CommandLineOutput(UNIXApplication* application, int buffered, int buffersize);

  int DoWrite(const char* text, int length) override;
  // errno of the first write that failed, 0 while all is well.
  int failure() const { return first_error; }

 private:
  UNIXApplication* application;
  int first_error = 0;
};

#endif
