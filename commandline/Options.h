// The command line of zprun.

#ifndef ZEPH_COMMANDLINE_OPTIONS_H
#define ZEPH_COMMANDLINE_OPTIONS_H

#include <string>
#include <vector>

extern const char zprun_usage[];

// The parsed command line. The texts are those of argv, borrowed.
struct Options {
  bool help = false;
  bool version = false;
  const char* config = nullptr;  // the path of a configuration file, or null
  bool check = false;  // loads settings and script, and runs nothing; there may be no script then
  // One of the two is set, unless help, version or check is true.
  const char* script = nullptr;  // the path of the script; "-" is standard input
  const char* text = nullptr;    // the source of a page
  bool errors_in_page = false;   // messages of the running script are part of its output
  // Whether the script finds the variables of a request; set with any of the next four.
  bool is_request = false;
  bool headers = false;            // the header fields are written before the page
  std::vector<const char*> query;  // fields "name=value", as a visitor has typed them
  std::vector<const char*> form;
  std::vector<const char*> cookies;
  int argument_count = 0;  // arguments after the script
  char** arguments = nullptr;
};

// Parses the command line. Options come before the script; all arguments after it belong to the
// script, whether they look like options or not. "--" ends the options, for a script whose name
// begins with "-". With the text of a page there is no path, and the arguments follow the options.
// Returns false on an error, with the message in *problem.
[[nodiscard]] bool ParseOptions(int argc, char** argv, Options* options, std::string* problem);

#endif
