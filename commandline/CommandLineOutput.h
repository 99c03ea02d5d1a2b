// Standard output as the output of a script. The script ends when standard output takes no more.

#ifndef ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H
#define ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H

#include "base/systems/unix/StandardOutput.h"

class UNIXApplication;

class CommandLineOutput : public StandardOutput {
 public:
  // Arguments as in StandardOutput. The application is borrowed; the first write that fails cancels
  // it.
  CommandLineOutput(UNIXApplication* application, int buffered, int buffersize);

  int DoWrite(const char* text, int length) override;
  // The errno of the first write that failed, 0 if none has failed.
  int failure() const { return first_error; }

 private:
  UNIXApplication* application;
  int first_error = 0;
};

#endif
