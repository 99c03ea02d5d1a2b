// The command line of zprun.
// Tested in tests/commandline/OptionsTest.cpp.

#include "commandline/Options.h"

#include <cstring>
#include <string_view>

const char zprun_usage[] =
    "usage: zprun [--config FILE] page.zpc [argument ...]\n"
    "       zprun --help\n"
    "\n"
    "Runs a compiled script and writes its output to standard output. The script finds the\n"
    "arguments as arg1, arg2 and so on, and their count as nargs. The exit status is 0 when it "
    "ran\n"
    "to its end, 1 after an error, 2 for a wrong command line.\n"
    "\n"
    "  --config FILE  settings, as libzephconfig.so reads them; without it those of the engine,\n"
    "                 and where there are none the built-in defaults\n";

bool ParseOptions(int argc, char** argv, Options* options, std::string* problem) {
  constexpr std::string_view with_value = "--config=";
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
    const std::string_view option = argv[i];
    if (option == "--help") {
      options->help = true;
      return true;
    }
    if (option == "--") {
      i++;
      break;
    }
    const char* value;
    if (option == "--config" && i + 1 < argc) {
      value = argv[++i];
    } else if (option.substr(0, with_value.size()) == with_value) {
      value = argv[i] + with_value.size();
    } else {
      *problem = option == "--config" ? "--config needs a file"
                                      : "unknown option '" + std::string(option) + "'";
      return false;
    }
    if (*value == '\0') {
      *problem = "--config needs a file";
      return false;
    }
    options->config = value;
  }
  if (i >= argc) {
    *problem = "no script";
    return false;
  }
  options->script = argv[i];
  options->argument_count = argc - i - 1;
  options->arguments = argv + i + 1;
  return true;
}
