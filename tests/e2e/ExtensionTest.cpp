// Builtin libraries, seen from outside: registered by the configuration, called by scripts, in the
// engine and in zprun. The tested library is examples/extensions/textstat.c.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tools/Assembler.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string library = InBuild("lib/libtextstat.so");

std::string Registers(const std::string& path) {
  return "[[library]]\nkind = \"builtin\"\npath = \"" + path + "\"\n";
}

constexpr char declarations[] =
    ".function measure(text, report var) external\n"
    ".function slug(title) external\n"
    ".function totals(report var) external\n"
    ".end\n";

std::string Measures(const std::string& text) {
  return "pushc \"" + text + "\"\npushg report\ncall measure\nout\n";
}
std::string Slug(const std::string& title) {
  return "pushc \"" + title + "\"\ncall slug\nout\npushc \" \"\nout\n";
}
std::string Member(const std::string& name) {
  return "pushg report\npushc \"" + name + "\"\nmemb\nout\npushc \" \"\nout\n";
}

// The output of a script in each of the two hosts.
class Extension : public testing::Test {
 protected:
  Extension() { engine.settings = Registers(library); }

  void Script(const std::string& source) { script = declarations + source; }

  std::string FromEngine() {
    engine.Script("page.zpc", script);
    EXPECT_TRUE(engine.Running() || engine.Start());
    return engine.Get("/page.zpc").Body();
  }
  // Leaves the exit status in status.
  std::string FromZprun() {
    engine.Script("page.zpc", script);
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--errors-in-page", "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/page.zpc")});
    status = command.Run();
    errors = command.errors;
    EXPECT_EQ(errors.empty(), !unloadable);
    return command.output;
  }
  std::string Traced() {
    std::ifstream file(engine.Path("data/trace.log"));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
  void ExpectPage(const std::string& page) {
    EXPECT_EQ(FromEngine(), page);
    EXPECT_EQ(FromZprun(), page);
    EXPECT_EQ(status, 0);
  }
  void ExpectMessage(const std::string& message) {
    EXPECT_THAT(FromEngine(), HasSubstr(message));
    EXPECT_THAT(FromZprun(), HasSubstr(message));
    EXPECT_EQ(status, 1);
  }

  EngineProcess engine;
  std::string script;
  int status = -1;
  bool unloadable = false;  // zprun has to say which library it could not load
  std::string errors;
};

TEST_F(Extension, ResultAndParametersByValueAndByReference) {
  Script(Measures("one two  three\\nfour\\xC3\\xA4\\n") + "pushc \": \"\nout\n" +
         Member("characters") + Member("words") + Member("lines") + Member("longest"));
  ExpectPage("4: 21 4 2 three ");
}

TEST_F(Extension, AVariablePassedByValueStaysAsItIs) {
  Script(
      "pushc \"a b\"\npopg text\npushg text\npushg report\ncall measure\nout\npushg text\nout\n"
      "pushg text\npushg text\ncall measure\nout\npushg text\npushc \"words\"\nmemb\nout\n");
  ExpectPage("2a b22");
}

TEST_F(Extension, AValueThatIsNotThereIsAnEmptyText) {
  Script(
      "pushg nothing\ncall slug\nout\npushc \"|\"\nout\npushg nothing\npushg report\ncall measure\n"
      "out\npushg report\nout\n");
  ExpectPage("|00,0,,0");
}

TEST_F(Extension, StateIsKeptFromCallToCall) {
  Script(Slug("Ten Years After!") + Slug("ten - years\\tafter") + Slug("Ten Years, After 2") +
         Slug("Ten years after") + Slug("") + Slug("\\xC3\\x84 b"));
  ExpectPage(
      "ten-years-after ten-years-after-2 ten-years-after-2-2 ten-years-after-3  "
      "\xC3\x84-b ");
}

TEST_F(Extension, PersistentDataIsSharedByFunctions) {
  Script(Measures("one two") + Measures("") + Measures("eleven\\n") +
         "pushg report\ncall totals\nout\npushc \": \"\nout\n" + Member("characters") +
         Member("words") + Member("lines") + Member("longest"));
  ExpectPage("2013: 14 3 2 eleven ");
}

TEST_F(Extension, NothingIsKeptBeyondTheRequest) {
  Script(Slug("title") + "pushg report\ncall totals\nout\n");
  for (int i = 0; i < 3; i++) EXPECT_EQ(FromEngine(), "title 0");
}

TEST_F(Extension, RequestsCallItAtTheSameTime) {
  std::string source = declarations;
  for (int i = 0; i < 200; i++) source += Slug("title") + Measures("a b c");
  engine.Script("page.zpc", source);
  ASSERT_TRUE(engine.Start());
  const std::string page = engine.Get("/page.zpc").Body();
  EXPECT_THAT(page, StartsWith("title 3title-2 3title-3 3"));
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; i++) {
    clients.emplace_back([&] {
      for (int n = 0; n < 10; n++) EXPECT_EQ(engine.Get("/page.zpc").Body(), page);
    });
  }
  for (std::thread& client : clients) client.join();
}

TEST_F(Extension, CaseDoesNotCount) {
  script = ".function SLUG(Title) external\n.end\n" + Slug("Title");
  ExpectPage("title ");
}

TEST_F(Extension, AFunctionThatNoLibraryHasFailsWhereItIsCalled) {
  script = ".function nobody() external\n.end\npushc \"page\"\nout\n";
  ExpectPage("page");
  script += "call nobody\nout\n";
  ExpectMessage("Unresolved call to external function 'nobody'");
}

TEST_F(Extension, ALibraryThatIsNotThereIsMissedByItsCallersOnly) {
  engine.settings = Registers(engine.Path("nowhere.so"));
  unloadable = true;
  script = Writes("page");
  ExpectPage("page");
  Script(Slug("title"));
  ExpectMessage("Unresolved call to external function 'slug'");
}

// The visitor does not see why; those who run the engine do.
TEST_F(Extension, TheLoadersReasonIsOnStandardErrorAndInTheLog) {
  engine.settings = "log_file = \"trace.log\"\nlog_level = 536870912\n" +
                    Registers(engine.Path("nowhere.so")) + Registers(InBuild("lib/zephtariff.so"));
  unloadable = true;
  Script(Slug("title"));
  EXPECT_THAT(FromZprun(), testing::Not(HasSubstr("nowhere.so")));
  const std::string missing = engine.Path("nowhere.so") + ": ";
  const std::string other = InBuild("lib/zephtariff.so") + ": Unknown symbol 'zeph_function_table'";
  EXPECT_THAT(errors, HasSubstr("zprun: " + missing));
  EXPECT_THAT(errors, HasSubstr("zprun: " + other));
  const std::string log = Traced();
  EXPECT_THAT(log, HasSubstr("Unresolved call to external function 'slug'"));
  EXPECT_THAT(log, HasSubstr(missing));
  EXPECT_THAT(log, HasSubstr(other));
  // An engine says it once for all of its requests.
  FromEngine();
  FromEngine();
  const std::string lines = engine.Log();
  const size_t line = lines.find(": " + missing);
  EXPECT_NE(line, std::string::npos) << lines;
  EXPECT_EQ(lines.find(missing, line + 3), std::string::npos) << lines;
}

TEST_F(Extension, DeclarationsThatDifferAreTold) {
  script = ".function slug(title, more) external\n.end\npushc \"a\"\npushc \"b\"\ncall slug\nout\n";
  ExpectMessage("Number of parameters mismatch in call to external function");
  script = ".function slug(title var) external\n.end\npushg a\ncall slug\nout\n";
  ExpectMessage("Parameter type mismatch in call to external function");
  // The library finds its parameters by their names.
  script = ".function slug(name) external\n.end\npushc \"a\"\ncall slug\nout\n";
  ExpectMessage("textstat: there is no parameter 'title'");
}

}  // namespace
