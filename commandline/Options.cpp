// The command line of zprun.
// Tested in tests/commandline/OptionsTest.cpp.

#include "commandline/Options.h"

#include <cstring>
#include <string_view>

const char zprun_usage[] =
    "usage: zprun [option ...] page.zpc [argument ...]\n"
    "       zprun [option ...] -e TEXT [argument ...]\n"
    "       zprun --check [option ...] [page.zpc]\n"
    "       zprun --help | --version\n"
    "\n"
    "Runs a compiled script and writes its output to standard output; - is a script on standard\n"
    "input. The script finds the arguments as arg1, arg2 and so on, and their count as nargs. The\n"
    "exit status is 0 when it ran to its end, 3 when it did and wrote error messages, 1 when an\n"
    "error ended it or it could not be run, 2 for a wrong command line.\n"
    "\n"
    "  -e TEXT           compiles TEXT, a page in the language of zephc, and runs it\n"
    "  --config FILE     settings, as libzephconfig.so reads them; without it those of the "
    "engine,\n"
    "                    and where there are none the built-in defaults\n"
    "  --check           loads the settings and the script, opens the directories, and runs "
    "nothing\n"
    "  --errors-in-page  messages of errors are part of the output, as a visitor gets them; "
    "without\n"
    "                    it they go to standard error\n"
    "\n"
    "The script finds a request with any of these:\n"
    "\n"
    "  --request            a request without fields\n"
    "  --get NAME=VALUE     a field of the query\n"
    "  --post NAME=VALUE    a field of a form\n"
    "  --cookie NAME=VALUE  a cookie\n"
    "  --headers            writes the header fields before the page\n";

namespace {

// Takes the value of an option, in the same word after "=" or in the next one. *i is the option's
// index. Returns null if the option is another one; *problem is set if it has no value.
const char* TakeValue(const char* option, const char* what, int argc, char** argv, int* i,
                      std::string* problem) {
  const size_t length = strlen(option);
  const char* word = argv[*i];
  if (strncmp(word, option, length) != 0 || (word[length] != '\0' && word[length] != '=')) {
    return nullptr;
  }
  const char* value = word[length] == '=' ? word + length + 1 : "";
  if (word[length] == '\0' && *i + 1 < argc) value = argv[++*i];
  if (*value == '\0') *problem = std::string(option) + " needs " + what;
  return value;
}

// A field of a request, into the list of its option. Returns false if the word is none.
bool TakeField(int argc, char** argv, int* i, Options* options, std::string* problem) {
  const struct {
    const char* option;
    std::vector<const char*>* fields;
  } kinds[] = {
      {"--get", &options->query}, {"--post", &options->form}, {"--cookie", &options->cookies}};
  for (const auto& kind : kinds) {
    const char* value = TakeValue(kind.option, "NAME=VALUE", argc, argv, i, problem);
    if (!value) continue;
    if (problem->empty() && (*value == '=' || !strchr(value, '='))) {
      *problem = std::string(kind.option) + " needs NAME=VALUE, found '" + value + "'";
    }
    kind.fields->push_back(value);
    options->is_request = true;
    return true;
  }
  return false;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, std::string* problem) {
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
    const std::string_view option = argv[i];
    if (option == "--help" || option == "-h" || option == "--version") {
      options->version = option == "--version";
      options->help = !options->version;
      return true;
    }
    if (option == "--") {
      i++;
      break;
    }
    if (option == "-e") {
      if (i + 1 == argc) {
        *problem = "-e needs a text";
      } else if (options->text) {
        *problem = "-e is there twice";
      } else {
        options->text = argv[++i];
      }
    } else if (option == "--check") {
      options->check = true;
    } else if (option == "--errors-in-page") {
      options->errors_in_page = true;
    } else if (option == "--request" || option == "--headers") {
      options->is_request = true;
      options->headers = options->headers || option == "--headers";
    } else if (const char* value = TakeValue("--config", "a file", argc, argv, &i, problem)) {
      options->config = value;
    } else if (!TakeField(argc, argv, &i, options, problem)) {
      *problem = "unknown option '" + std::string(option) + "'";
    }
    if (!problem->empty()) return false;
  }
  if (!options->text) {
    if (i >= argc) {
      if (options->check) return true;
      *problem = "no script";
      return false;
    }
    options->script = argv[i++];
  }
  options->argument_count = argc - i;
  options->arguments = argv + i;
  return true;
}
