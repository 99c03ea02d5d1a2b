// Standard output as the output of a script. The script ends when standard output takes no more.

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
  HeaderState state = HeaderState::Dropped;
  std::vector<std::pair<std::string, std::string>> fields;
};

#endif
