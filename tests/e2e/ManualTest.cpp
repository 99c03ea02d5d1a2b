// The manual pages: valid, with the version of the build, and with the options that the programs
// have.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Manual {
  const char* program;
  const char* section;
  std::vector<std::string> commands;  // that have a help of their own
};

const Manual manuals[] = {
    {"zeph", "1", {"new", "dev", "build", "check", "run"}},
    {"zephc", "1", {}},
    {"zprun", "1", {}},
    {"zpasm", "1", {}},
    {"zpdbf", "1", {}},
    {"zeph-fcgi", "8", {}},
};

std::string PathOf(const Manual& manual) {
  return InSource(std::string("man/") + manual.program + "." + manual.section);
}

std::string Content(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string Output(std::vector<std::string> words) {
  words[0] = InBuild("bin/" + words[0]);
  Command command(words);
  EXPECT_EQ(command.Run(), 0) << words[0] << command.errors;
  return command.output;
}

std::set<std::string> OptionsIn(const std::string& text) {
  const std::regex option("(^|[\\s\\[(,|])(--?[A-Za-z][a-z-]*)");
  std::set<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at) {
    found.insert((*at)[2]);
  }
  return found;
}

// The options that the page describes: those of the lines after ".TP".
std::set<std::string> Described(const std::string& page) {
  std::set<std::string> found;
  std::istringstream lines(page);
  for (std::string line, before; std::getline(lines, line); before = line) {
    if (before != ".TP") continue;
    std::string plain;
    for (const char c : line) {
      if (c != '\\') plain += c == '"' ? ' ' : c;
    }
    found.merge(OptionsIn(plain));
  }
  return found;
}

TEST(Manual, DescribesTheOptionsThatTheHelpHas) {
  for (const Manual& manual : manuals) {
    SCOPED_TRACE(manual.program);
    std::string help = Output({manual.program, "--help"});
    for (const std::string& command : manual.commands) {
      help += Output({manual.program, command, "--help"});
    }
    // All programs have it, and it is in no summary.
    std::set<std::string> options = OptionsIn(help);
    options.insert("-h");
    EXPECT_EQ(Described(Content(PathOf(manual))), options);
  }
}

TEST(Manual, HasTheNameAndTheVersionOfItsProgram) {
  for (const Manual& manual : manuals) {
    SCOPED_TRACE(manual.program);
    const std::string version = Output({manual.program, "--version"});
    ASSERT_THAT(version, StartsWith(std::string(manual.program) + " "));
    const std::string number =
        version.substr(version.find(' ') + 1, version.size() - 2 - version.find(' '));
    EXPECT_THAT(Content(PathOf(manual)), HasSubstr("\"Zeph " + number + "\""));
  }
}

// That of zeph is a command, because its other tasks are.
TEST(Manual, EveryProgramHasACheck) {
  for (const Manual& manual : manuals) {
    SCOPED_TRACE(manual.program);
    const std::string check = manual.commands.empty() ? "--check" : "zeph check";
    EXPECT_THAT(Output({manual.program, "--help"}), HasSubstr(check));
  }
}

TEST(Manual, IsFormattedWithoutAWarning) {
  if (access("/usr/bin/man", X_OK) != 0) GTEST_SKIP() << "/usr/bin/man is not installed";
  for (const Manual& manual : manuals) {
    SCOPED_TRACE(manual.program);
    Command command({"/usr/bin/man", "--warnings", "-E", "UTF-8", "-Tutf8", "-l", PathOf(manual)});
    EXPECT_EQ(command.Run(), 0);
    EXPECT_EQ(command.errors, "");
    EXPECT_NE(command.output, "");
  }
}

}  // namespace
