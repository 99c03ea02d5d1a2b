// A database of a library in both hosts: the same script runs on it and on the built-in engine. The
// library is tests/support/libraries/MemoryDatabase.cpp, with three versions of the table.

#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/Paths.h"

namespace {

std::string Library(const std::string& name, const std::string& file) {
  return "[[library]]\nkind = \"database\"\nname = \"" + name + "\"\npath = \"" +
         InBuild("lib/test/" + file + ".so") + "\"\n";
}

class DatabaseLibrary : public testing::Test {
 protected:
  DatabaseLibrary() {
    engine.settings = Library("memory", "MemoryDatabase") + Library("memory3", "MemoryDatabase3") +
                      Library("memory1", "MemoryDatabase1");
  }

  // Three records are added, found, changed and shown.
  static std::string Script(const std::string& type, const std::string& fields) {
    std::string code = CreateDatabase("m", "numbers.dbf", fields, type);
    for (const char* word : {"one", "two", "three"}) {
      code += Push(word) + "popnc \"d.t\"\n" + OnView("dbadd", "m");
    }
    code += Go("m", 2) + "pushnc \"d.t\"\nout\n" + Push("2") + "popnc \"d.t\"\n" +
            OnView("dbupdate", "m");
    for (int i = 1; i <= 3; i++) {
      code += Go("m", i) + Push("|") + "out\npushnc \"d.t\"\nout\n";
    }
    return code + Op("dbclose", {"m"});
  }
  std::string FromZprun(const std::string& script) {
    engine.Script("page.zpc", script);
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/page.zpc")});
    EXPECT_EQ(command.Run(), 0) << command.output;
    EXPECT_EQ(command.errors, "");
    return command.output;
  }

  EngineProcess engine;
};

TEST_F(DatabaseLibrary, OneScriptRunsOnEachTypeOfDatabase) {
  const std::string page = "two|one|2|three";
  EXPECT_EQ(FromZprun(Script("", "t char(10)")), page);
  for (const char* type : {"memory", "Memory3", "MEMORY1"}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(FromZprun(Script(type, "t text")), page);
    EXPECT_TRUE(engine.Running() || engine.Start());
    for (int i = 0; i < 3; i++) EXPECT_EQ(engine.Get("/page.zpc").Body(), page);
  }
}

}  // namespace
