// Which records of the trace log are written.

#include "base/machine/LogGate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/Machine.h"

namespace {

bool Admits(const char* filter, const char* file, int line) {
  MachineApplication application;
  application.ParseLogFilter(filter);
  const LogGate gate(&application, 0);
  const String script("dir/page.zpc", -1);
  return gate.Admits({script, file, static_cast<int>(strlen(file)), line});
}

TEST(LogGate, AnyTypeOfTheMaskIsWanted) {
  MachineApplication application;
  LogGate gate(&application, 0);
  EXPECT_FALSE(gate.Wants(Log_Trace | Log_FatalError));
  gate.SetLevel(Log_Trace);
  EXPECT_TRUE(gate.Wants(Log_Trace | Log_FatalError));
  EXPECT_FALSE(gate.Wants(Log_FatalError));
  EXPECT_EQ(gate.level(), static_cast<unsigned>(Log_Trace));
}

TEST(LogGate, WithoutAFilterEveryPlaceIsAdmitted) {
  EXPECT_TRUE(Admits("", "a.zpa", 7));
  EXPECT_TRUE(Admits("", "", 0));
}

TEST(LogGate, FiltersNameFilesAndLines) {
  const struct {
    const char* filter;
    const char* file;
    int line;
    bool admitted;
  } cases[] = {
      {"a.zpa", "a.zpa", 7, true},
      {"a.zpa", "b.zpa", 7, false},
      {"a.zpa", "a.zp", 7, false},
      {"a.zpa", "", 0, false},
      {"a.zpa:7", "a.zpa", 7, true},
      {"a.zpa:7", "a.zpa", 8, false},
      {"a.zpa:7-9", "a.zpa", 6, false},
      {"a.zpa:7-9", "a.zpa", 9, true},
      {"a.zpa:7-9", "a.zpa", 10, false},
      {"a.zpa:1, b.zpa", "b.zpa", 7, true},
      {"!a.zpa", "a.zpa", 7, false},
      {"!a.zpa", "b.zpa", 7, true},
      {"!a.zpa:7", "a.zpa", 8, true},
      // An exclude takes precedence over an include.
      {"a.zpa, !a.zpa:7", "a.zpa", 7, false},
      {"a.zpa, !a.zpa:7", "a.zpa", 8, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.filter) + " " + c.file + " " + std::to_string(c.line));
    EXPECT_EQ(Admits(c.filter, c.file, c.line), c.admitted);
  }
}

TEST(LogGate, ARecordBeginsWithItsPlace) {
  MachineApplication application;
  const LogGate gate(&application, Log_Trace);
  const String script("dir/page.zpc", -1);
  gate.Write(Log_Trace, {script, "a.zpa", 5, 7}, {LogParameter::OfInteger(3)});
  ASSERT_EQ(application.log.size(), 1u);
  EXPECT_EQ(application.log[0], "Trace|dir/page.zpc|a.zpa|7|3");
}

}  // namespace
