// Standard output as the output of a script. The script ends when standard output takes no more.
// Messages of errors that reach the page, also those from a capture or a mail, come here by
// Write_Error.

#ifndef ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H
#define ZEPH_COMMANDLINE_COMMANDLINEOUTPUT_H

#include <string>
#include <utility>
#include <vector>

#include "base/systems/unix/StandardOutput.h"

class UNIXApplication;

class CommandLineOutput : public StandardOutput {
 public:
  // Arguments as in StandardOutput. The application is borrowed; the first write that fails cancels
  // it.
  CommandLineOutput(UNIXApplication* application, int buffered, int buffersize);

  // From here on header fields are kept and written, one a line and with an empty line after them,
  // before the first bytes of the page. Without it they are dropped.
  void ShowHeaders() { state = HeaderState::Open; }

  // From here on messages of errors go to standard error instead of the page.
  void SeparateErrors() { errors_separate = true; }
  bool has_errors() const { return errors_written; }

  // Every message ends a line on standard error. What the script has written before comes first,
  // unless header fields may still come before that.
  int Write_Error(const char* text, int length) override;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  using Output::Header;
  int Flush() override;
  using Output::Flush;
  int DoWrite(const char* text, int length) override;
  // The errno of the first write that failed, 0 if none has failed.
  int failure() const { return first_error; }

 private:
  enum class HeaderState { Dropped, Open, Written };

  bool WriteHeaders();
  int Send(const char* text, int length);

  UNIXApplication* application;
  int first_error = 0;
  bool errors_separate = false;
  bool errors_written = false;
  HeaderState state = HeaderState::Dropped;
  std::vector<std::pair<std::string, std::string>> fields;
};

#endif
