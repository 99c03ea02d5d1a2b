// The pages of the example site, as zprun writes them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Command.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// configuration is the text of a zeph.toml, none if empty.
std::string Page(const std::string& name, const std::string& configuration = "") {
  TemporaryDirectory directory;
  std::vector<std::string> arguments = {ZEPH_BINARY_DIR "/bin/zprun"};
  if (!configuration.empty()) {
    arguments.push_back("--config");
    arguments.push_back(directory.File("zeph.toml", configuration));
  }
  arguments.push_back(ZEPH_BINARY_DIR "/site/" + name);
  Command command(arguments);
  command.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(command.Run(), name == "mistake.zpc" ? 1 : 0) << command.errors;
  return command.output;
}

TEST(ExampleSite, EveryPageIsWrittenToItsEnd) {
  for (const char* name : {"index.zpc", "language.zpc", "languages.zpc"}) {
    SCOPED_TRACE(name);
    std::string page = Page(name);
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
  }
  EXPECT_EQ(Page("hello.zpc"), "Hello, world\n");
  EXPECT_THAT(Page("mistake.zpc"), HasSubstr("mistake.zpa: Line 11: Stack underflow"));
}

TEST(ExampleSite, WhatThePageOfTheLanguageShowsIsWhatComesOut) {
  std::string page = Page("language.zpc");
  for (const char* output :
       {"1 4 9 16 25 36 49 64 81 100 121 144 ", "la la la la la la la la la!",
        "AC AB CB AC BA BC AC ", "right, left", "first,seventh", "Darjeeling for 3.50", "42",
        "It says: Array index must be positive integer"}) {
    EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
  }
}

TEST(ExampleSite, OnePageHasTwoLanguages) {
  const std::string english = Page("languages.zpc");
  EXPECT_THAT(english, HasSubstr("<html lang=\"en\">"));
  EXPECT_THAT(english, HasSubstr("<h1>One page, two languages</h1>"));
  const std::string german = Page("languages.zpc", "[variables.global]\nlang = \"de\"\n");
  EXPECT_THAT(german, HasSubstr("<html lang=\"de\">"));
  EXPECT_THAT(german, HasSubstr("<h1>Eine Seite, zwei Sprachen</h1>"));
  const struct {
    const char* english;
    const char* german;
  } outputs[] = {
      {"Welcome to the tea shop, Ada!", "Willkommen im Teeladen, Ada!"},
      {"100 grams of Darjeeling for 3.5 euros", "Für 3.5 Euro: Darjeeling, 100 Gramm"},
      {"[ Add to basket ]", "[ In den Korb ]"},
      {"This notice exists in English only.", "This notice exists in English only."},
  };
  for (const auto& output : outputs) {
    EXPECT_THAT(english, HasSubstr("<output>" + std::string(output.english) + "</output>"));
    EXPECT_THAT(german, HasSubstr("<output>" + std::string(output.german) + "</output>"));
  }
  EXPECT_THAT(german, Not(HasSubstr("<output></output>")));
}

TEST(ExampleSite, TheLanguageOfTheBrowserIsTheFirstChoiceAndUnknownOnesAreEnglish) {
  const auto title = [](const std::string& variables) {
    const std::string page = Page("languages.zpc", variables);
    const size_t begin = page.find("<title>") + 7;
    return page.substr(begin, page.find("</title>") - begin);
  };
  const std::string english = "One page, two languages", german = "Eine Seite, zwei Sprachen";
  const std::string browser = "[variables.system]\nHTTP_ACCEPT_LANGUAGE = ";
  EXPECT_EQ(title(browser + "\"de-CH,de;q=0.9,en;q=0.8\"\n"), german);
  EXPECT_EQ(title(browser + "\"en-GB,de;q=0.9\"\n"), english);
  EXPECT_EQ(title(browser + "\"de\"\n[variables.global]\nlang = \"en-US\"\n"), english);
  EXPECT_EQ(title("[variables.global]\nlang = \"tlh\"\n"), english);
}

TEST(ExampleSite, ALinkChoosesTheLanguageOfAServedPage) {
  EngineProcess engine;
  engine.configuration =
      "dir_zeph = \"" ZEPH_BINARY_DIR "/site\"\ndir_data = \"" + engine.Folder("data") + "\"\n";
  ASSERT_TRUE(engine.Start());
  const auto page = [&](const char* query, const char* browser) {
    return engine
        .Get("/languages.zpc", {{"QUERY_STRING", query}, {"HTTP_ACCEPT_LANGUAGE", browser}})
        .Body();
  };
  EXPECT_THAT(page("lang=de", "en"), HasSubstr("<html lang=\"de\">"));
  EXPECT_THAT(page("lang=en-US", "de"), HasSubstr("<html lang=\"en\">"));
  EXPECT_THAT(page("", "de"), HasSubstr("<html lang=\"de\">"));
  EXPECT_THAT(page("", ""), HasSubstr("<html lang=\"en\">"));
  EXPECT_THAT(page("lang=%22%3E%3Cscript%3E", "de"), HasSubstr("<html lang=\"en\">"));
}

}  // namespace
