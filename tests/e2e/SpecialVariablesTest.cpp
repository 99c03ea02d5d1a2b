// System variables that are computed when they are read, in scripts of both hosts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::MatchesRegex;

class SpecialVariableHosts : public testing::Test {
 protected:
  std::string FromZprun() {
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/page.zpc")});
    command.Run();
    EXPECT_EQ(command.errors, errors);
    return command.output;
  }
  void Expect(const std::string& source, const std::string& pattern) {
    engine.Script("page.zpc", source);
    ASSERT_TRUE(engine.Running() || engine.Start());
    EXPECT_THAT(engine.Get("/page.zpc").Body(), MatchesRegex(pattern)) << source;
    EXPECT_THAT(FromZprun(), MatchesRegex(pattern)) << source;
  }
  static std::string Named(const std::string& name) {
    return "pushnc \"" + name + "\"\nout\npushc \" \"\nout\n";
  }

  EngineProcess engine;
  std::string errors;  // that zprun reports
};

TEST_F(SpecialVariableHosts, TheClockAndTheTimeThatIsLeft) {
  engine.settings = "timeout_global = 600\n";
  Expect(Named("dyn_time_t") + Named("dyn_stm_mon") + Named("dyn_tm_year") +
             Named("dyn_time_remaining"),
         "[0-9]+ [A-Z][a-z]+ 20[0-9]+ (600|59[0-9]) ");
}

// Clients and servers send other names, but if both have a name, the engine's variable counts.
TEST_F(SpecialVariableHosts, ParametersOfARequestDoNotHideThem) {
  engine.Script("page.zpc", Named("zeph_language") + Named("zeph_config:timeout_global"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/page.zpc", {{"zeph_language", "xx"}, {"ZEPH_CONFIG", "yy"}}).Body(),
            "en-US 90 ");
}

// The time of the request stays the same; the clock goes on.
TEST_F(SpecialVariableHosts, OneClockIsThatOfTheRequest) {
  const std::string wait =
      "pushs time_t\npopg first\npushs dyn_tm_usec\npopg u\n"
      "again: pushs dyn_tm_usec\npushg u\ncmp\njmp_eq again\n"
      "pushs time_t\npushg first\neq\nout\n"
      "pushs dyn_time_t\npushs time_t\nge\nout\n";
  Expect(wait, "11");
}

TEST_F(SpecialVariableHosts, SettingsAndLibraries) {
  engine.settings =
      "timeout_global = 123\n"
      "[[library]]\nkind = \"commerce\"\nname = \"pay\"\npath = \"/nowhere/pay.so\"\n"
      "[[library]]\nkind = \"system\"\nname = \"stat\"\npath = \"" +
      InBuild("lib/libtextstat.so") + "\"\n";
  errors = "zprun: /nowhere/pay.so: cannot open shared object file: No such file or directory\n";
  Expect(Named("zeph_config:timeout_global") + Named("zeph_config:dir_user") +
             Named("zeph_config:dir_ca") + Named("zeph_config:commerce_list[1]") +
             Named("zeph_config:commerce_lookup:pay") + Named("zeph_config:systemlib_lookup:stat") +
             Named("zeph_config:database_list"),
         "123 public_zix  pay 0 1  ");
}

TEST_F(SpecialVariableHosts, LanguageIsSetAndNothingIsLeftOfItForTheNext) {
  const std::string page = Named("zeph_language") + "pushc \"de\"\npops zeph_language\n" +
                           Named("zeph_language") + Named("zeph_defaultlanguage") +
                           Named("zeph_defaultdatabase") + Named("zeph_charset") +
                           Named("zeph_sslavailable");
  for (int i = 0; i < 3; i++) Expect(page, "en-US de en-US xbase3 utf-8 1 ");
}

TEST_F(SpecialVariableHosts, WithoutTheTLSLibraryNothingIsEncrypted) {
  engine.settings = "ssl_openssl = \"libnone.so\"\nssl_crypto = \"libnone.so\"\n";
  for (int i = 0; i < 2; i++) Expect(Named("zeph_sslavailable"), "0 ");
}

TEST_F(SpecialVariableHosts, AProcessThatHasLoadedTheTLSLibraryEndsInOrder) {
  engine.Script("page.zpc", Named("zeph_sslavailable"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/page.zpc").Body(), "1 ");
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0) << engine.Log();
}

TEST_F(SpecialVariableHosts, TheProcessIsNamedAsItIsListed) {
  engine.arguments = {"-p", "zeph for tests"};
  engine.Script("page.zpc", Named("process_name"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/page.zpc").Body(), "zeph for tests ");
  EXPECT_EQ(FromZprun(), InBuild("bin/zprun") + " ");
}

}  // namespace
