// The command line of zprun.

#ifndef ZEPH_COMMANDLINE_OPTIONS_H
#define ZEPH_COMMANDLINE_OPTIONS_H

#include <string>

extern const char zprun_usage[];

// What a command line asks for. The texts are those of the command line.
struct Options {
  bool help = false;
  const char* config = nullptr;  // a configuration file, null when none was named
  const char* script = nullptr;  // set unless help is
  int argument_count = 0;        // of what stands behind the script
  char** arguments = nullptr;
};

// Options stand in front of the script; whatever stands behind it is the script's, options or not.
// "--" ends the options too, for a script whose name begins with "-". False leaves what is wrong in
// *problem.
[[nodiscard]] bool ParseOptions(int argc, char** argv, Options* options, std::string* problem);

#endif
