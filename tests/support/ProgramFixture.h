// Tests of a program that is run to its end in a directory of the test's own.

#ifndef ZEPH_TESTS_SUPPORT_PROGRAMFIXTURE_H
#define ZEPH_TESTS_SUPPORT_PROGRAMFIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

class ProgramFixture : public testing::Test {
 protected:
  // The program's name in the build.
  explicit ProgramFixture(const std::string& name) : program(InBuild("bin/" + name)) {}

  // Runs the program with these arguments. Returns its exit status, and leaves both outputs below.
  int Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program);
    Command command(arguments);
    command.directory = directory.path();
    command.environment = environment;
    command.output_file = output_file;
    const int status = command.Run();
    output = command.output;
    errors = command.errors;
    return status;
  }

  const std::string program;
  TemporaryDirectory directory;
  // The settings of the tester must not change the results.
  std::map<std::string, std::string> environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  std::string output_file;  // instead of a pipe
  std::string output;
  std::string errors;
};

#endif
