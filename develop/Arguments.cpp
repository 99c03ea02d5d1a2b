// The command line of zeph, and its help. Tested in tests/develop/ArgumentsTest.cpp.

#include "develop/Arguments.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/core/ascii.h"
#include "config/Suggestion.h"

namespace {

constexpr char kOverview[] =
    "usage: zeph new DIR              a small site to begin with\n"
    "       zeph dev [DIR] [PORT]     serves a site while you edit it\n"
    "       zeph build [DIR] [OUT]    compiles a site, for a server\n"
    "       zeph check [DIR]          errors and warnings, for editors\n"
    "       zeph run PAGE             one request, without a server\n"
    "       zeph COMMAND --help       more about a command\n"
    "       zeph --version\n";

constexpr char kNew[] =
    "usage: zeph new DIR\n"
    "\n"
    "Makes a small site in a new or empty folder: a page with a form, what all pages begin and "
    "end\n"
    "with, a style sheet and zeph.toml.\n";

constexpr char kDev[] =
    "usage: zeph dev [option ...] [DIR] [PORT]\n"
    "\n"
    "Serves the site in DIR, the working directory by default, at http://127.0.0.1:PORT/, by "
    "default\n"
    "8080; 0 takes any port that is free. Pages are compiled when they change, and the browser "
    "shows\n"
    "them again. Ctrl-C ends it.\n"
    "\n"
    "  -D NAME     defines a name for ZpIFDEF\n";

constexpr char kBuild[] =
    "usage: zeph build [option ...] [DIR] [OUT]\n"
    "\n"
    "Compiles the pages of DIR to OUT and copies all other files there; OUT is DIR/.zeph/build by\n"
    "default. Files that have not changed are left alone, and those of pages that are gone are\n"
    "removed. After an error nothing is written. The exit status is 0, or 1 after an error.\n"
    "\n"
    "  -D NAME     defines a name for ZpIFDEF\n"
    "  --werror    a warning is an error\n";

constexpr char kCheck[] =
    "usage: zeph check [option ...] [DIR | PAGE]\n"
    "\n"
    "Writes errors and warnings to standard output, each on a line: file:line:column: error: "
    "text.\n"
    "The exit status is 0, or 1 after an error.\n"
    "\n"
    "  -D NAME     defines a name for ZpIFDEF\n"
    "  --werror    a warning is an error\n";

constexpr char kRun[] =
    "usage: zeph run [option ...] PAGE\n"
    "\n"
    "Compiles a page and writes what it sends for one request. The exit status is 0 if it ran to "
    "its\n"
    "end, 3 if it did and has messages of errors, 1 after an error that ended it.\n"
    "\n"
    "  --get NAME=VALUE     a field of the query\n"
    "  --post NAME=VALUE    a field of a form\n"
    "  --cookie NAME=VALUE  a cookie\n"
    "  --headers            writes the header fields before the page\n"
    "  -D NAME              defines a name for ZpIFDEF\n";

struct CommandRow {
  std::string_view name;
  ZephCommand command;
  const char* help;
  size_t most_words;
};

constexpr std::array<CommandRow, 5> kCommands = {{
    {"new", ZephCommand::New, kNew, 1},
    {"dev", ZephCommand::Dev, kDev, 2},
    {"build", ZephCommand::Build, kBuild, 2},
    {"check", ZephCommand::Check, kCheck, 1},
    {"run", ZephCommand::Run, kRun, 1},
}};

const CommandRow* FindCommand(std::string_view name) {
  auto row = std::find_if(kCommands.begin(), kCommands.end(),
                          [&](const CommandRow& other) { return other.name == name; });
  return row == kCommands.end() ? nullptr : row;
}

std::string Unknown(const std::string& word) {
  std::vector<std::string_view> names;
  names.reserve(kCommands.size());
  for (const CommandRow& row : kCommands) names.push_back(row.name);
  const size_t longest = 64;
  const std::string near = word.size() > longest ? "" : std::string(NearestWord(word, names));
  const int allowed = 2;
  std::string text = "there is no command '" + word + "'";
  if (!near.empty() && EditDistance(word, near) <= allowed)
    text += "; did you mean '" + near + "'?";
  return text;
}

bool IsNumber(const std::string& word) {
  return !word.empty() &&
         std::all_of(word.begin(), word.end(), [](char c) { return zp_isdigit(c); });
}

bool ParsePort(const std::string& word, int* port, std::string* problem) {
  const size_t digits = 5;
  const int highest = 65535;
  if (!IsNumber(word) || word.size() > digits || std::stoi(word) > highest) {
    *problem = "'" + word + "' is no port: a number from 0 to 65535";
    return false;
  }
  *port = std::stoi(word);
  return true;
}

// The options of a command. *i is the index of the option, and then of its last word.
bool ParseOption(const CommandRow& row, const std::vector<std::string>& words, size_t* i,
                 ZephArguments* arguments, std::string* problem) {
  const std::string& option = words[*i];
  const bool compiles = row.command != ZephCommand::New;
  const bool has_value = *i + 1 < words.size();
  const bool runs = row.command == ZephCommand::Run;
  if (option == "-D" && compiles) {
    if (!has_value || words[*i + 1].empty()) {
      *problem = "-D needs a name";
      return false;
    }
    arguments->defines.push_back(words[++*i]);
  } else if (option == "--werror" &&
             (row.command == ZephCommand::Build || row.command == ZephCommand::Check)) {
    arguments->warnings_fail = true;
  } else if (option == "--headers" && runs) {
    arguments->request.push_back(option);
  } else if ((option == "--get" || option == "--post" || option == "--cookie") && runs) {
    const std::string value = has_value ? words[*i + 1] : "";
    if (value.find('=') == std::string::npos || value[0] == '=') {
      *problem = option + " needs NAME=VALUE" + (has_value ? ", found '" + value + "'" : "");
      return false;
    }
    arguments->request.push_back(option + "=" + value);
    ++*i;
  } else {
    *problem = "zeph " + std::string(row.name) + " has no option '" + option + "'";
    return false;
  }
  return true;
}

bool TakeWords(const CommandRow& row, const std::vector<std::string>& words,
               ZephArguments* arguments, std::string* problem) {
  if (words.size() > row.most_words) {
    *problem = "unexpected '" + words[row.most_words] + "'";
    return false;
  }
  const bool needs_place = row.command == ZephCommand::New || row.command == ZephCommand::Run;
  if (words.empty()) {
    if (needs_place) *problem = row.command == ZephCommand::New ? "no folder" : "no page";
    return !needs_place;
  }
  // One word of digits is the port.
  if (row.command == ZephCommand::Dev && words.size() == 1 && IsNumber(words[0])) {
    return ParsePort(words[0], &arguments->port, problem);
  }
  arguments->place = words[0];
  if (words.size() < 2) return true;
  if (row.command == ZephCommand::Dev) return ParsePort(words[1], &arguments->port, problem);
  arguments->output = words[1];
  return true;
}

}  // namespace

std::string ZephHelp(const std::string& topic) {
  if (topic.empty()) return kOverview;
  const CommandRow* row = FindCommand(topic);
  return row ? row->help : "";
}

bool ParseZephArguments(const std::vector<std::string>& words, ZephArguments* arguments,
                        std::string* problem) {
  if (words.empty()) {
    *problem = "no command";
    return false;
  }
  const std::string& name = words[0];
  if (name == "--help" || name == "-h" || name == "help") {
    if (words.size() > 1) arguments->topic = words[1];
    if (!ZephHelp(arguments->topic).empty()) return true;
    *problem = Unknown(arguments->topic);
    return false;
  }
  if (name == "--version") {
    arguments->command = ZephCommand::Version;
    return true;
  }
  const CommandRow* row = FindCommand(name);
  if (!row) {
    *problem = Unknown(name);
    return false;
  }
  arguments->command = row->command;
  std::vector<std::string> plain;
  bool options = true;
  for (size_t i = 1; i < words.size(); i++) {
    const std::string& word = words[i];
    if (options && (word == "--help" || word == "-h")) {
      arguments->command = ZephCommand::Help;
      arguments->topic = name;
      return true;
    }
    // A variable of a script that has no value; a path of that kind would be the working directory.
    if (word.empty()) {
      *problem = "an empty word is neither a folder nor a page";
      return false;
    }
    if (options && word == "--") {
      options = false;
    } else if (options && word.size() > 1 && word[0] == '-') {
      if (!ParseOption(*row, words, &i, arguments, problem)) return false;
    } else {
      plain.push_back(word);
    }
  }
  return TakeWords(*row, plain, arguments, problem);
}
