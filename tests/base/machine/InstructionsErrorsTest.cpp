// How a script controls its errors: lines, files, settings of tags, and the log.

#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "tests/support/Machine.h"

namespace {

using Records = std::vector<std::string>;

// The log of a script at a level, whether or not the script fails.
Records LogOf(const std::string& code, unsigned level, bool timedout = false) {
  Machine machine;
  machine.application.config()->SetValue_Integer(Config_log_level, static_cast<int>(level));
  machine.Assemble(code);
  machine.vm();
  if (timedout) *machine.application.timedoutflag() = 1;
  machine.Go();
  return machine.application.log;
}

TEST(InstructionsErrors, LinesAreTracedOnceEach) {
  EXPECT_EQ(LogOf("lineno 1\nlineno 1\nlineno 2\nlineno 1", Log_Trace),
            (Records{"Trace|dir/page.zpc||1", "Trace|dir/page.zpc||2", "Trace|dir/page.zpc||1"}));
  EXPECT_EQ(LogOf("sourcefile \"a.zpa\"\nlineno 3\nsourcefile \"a.zpa\"\nlineno 3\n"
                  "sourcefile \"b.zpa\"\nlineno 3",
                  Log_Trace),
            (Records{"Trace|dir/page.zpc|a.zpa|3", "Trace|dir/page.zpc|b.zpa|3"}));
  EXPECT_EQ(LogOf("lineno 0\nsourcefile \"a.zpa\"\nlineno 0", Log_Trace), Records{});
  EXPECT_EQ(LogOf("lineno 1\nlineno 2", Log_FatalError), Records{});
}

TEST(InstructionsErrors, FatalErrorsAreLoggedWithTheirText) {
  EXPECT_EQ(LogOf("sourcefile \"a.zpa\"\nlineno 7\npop", Log_FatalError | Log_RuntimeError),
            Records{"Fatal Error|dir/page.zpc|a.zpa|7|Fatal error in dir/page.zpc @ "
                    "[00000000:0000000c]: a.zpa: Line 7: Stack underflow\n"});
  EXPECT_EQ(LogOf("pop", Log_RuntimeError), Records{});
}

TEST(InstructionsErrors, RuntimeErrorsAreLoggedWithTheirTag) {
  const std::string code = "lineno 7\npushg x\npushi 0\nelem";
  const Records expected = {
      "Runtime Error|dir/page.zpc||7|(in expression)|Array index must be positive integer"};
  EXPECT_EQ(LogOf(code, Log_RuntimeError), expected);
  // Errors that are not shown are logged too.
  EXPECT_EQ(LogOf("tagerror 62, 0\n" + code, Log_RuntimeError), expected);
  EXPECT_EQ(LogOf(code, Log_FatalError), Records{});
}

TEST(InstructionsErrors, TimeOutsAreLogged) {
  EXPECT_EQ(LogOf("lineno 7", Log_TimedOut, true),
            Records{"Application Timed Out|dir/page.zpc||0"});
}

// Both the frame's flags and the tag's settings can hide an error; only the settings decide whether
// it ends the script.
TEST(InstructionsErrors, ShownAndEnding) {
  for (int settings = 0; settings < 4; settings++) {
    for (int flags = 0; flags < 8; flags++) {
      SCOPED_TRACE(testing::Message() << settings << " " << flags);
      Machine machine;
      machine.Assemble("tagerror 62, " + std::to_string(settings) + "\nerroutput " +
                       std::to_string(flags) + "\npushg x\npushi 0\nelem\npushi 1");
      EXPECT_EQ(machine.Go(), settings & 2 ? 0 : 1);
      EXPECT_EQ(machine.Output().empty(), !((settings & 1) && (flags & 4)));
      EXPECT_EQ(machine.Value("ZpEXPRESSION_Error"), "Array index must be positive integer");
      EXPECT_EQ(machine.stack().Entries(), settings & 2 ? 1 : 2);
    }
  }
}

// A fatal error is shown even if the frame's flags hide errors.
TEST(InstructionsErrors, FatalErrorsAreAlwaysShown) {
  Machine machine;
  machine.Assemble("erroutput 0\npop");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Output(), "");
}

TEST(InstructionsErrors, TheVariableOfAnErrorIsThereForTheScript) {
  ExpectStacks({
      {"tagerror 62, 0\npushg x\npushi 0\nelem\npop\npushnc \"ZpEXPRESSION_Error\"",
       "(Array index must be positive integer)"},
      {"tagerror 62, 0\npushg x\npushi 0\nelem\npop\npushg ZpExpression_ERROR",
       "(Array index must be positive integer)"},
      {"pushg ZpEXPRESSION_Error\nisnull", "1"},
  });
}

TEST(InstructionsErrors, SourceFilesThatTheDictionaryLacks) {
  for (const char* file : {"-1", "77", "-2147483648"}) {
    SCOPED_TRACE(file);
    Machine machine;
    machine.Assemble(std::string("sourcefile ") + file + "\nlineno 2\npop");
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Failure(), "Line 2: Stack underflow");
  }
}

TEST(InstructionsErrors, NumbersOutsideOfTheTableOfTagsAreNoTags) {
  for (const char* tag : {"77", "-1", "2147483647", "-2147483648"}) {
    ExpectStack({(std::string("tagerror ") + tag + ", 3\npushi 1").c_str(), "1"});
  }
}

}  // namespace
