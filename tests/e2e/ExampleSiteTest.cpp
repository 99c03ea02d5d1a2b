// The pages of the example site, as zprun writes them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/UploadMachine.h"
#include "tests/support/WebServers.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// configuration is the text of a zeph.toml; empty for none.
std::string Page(const std::string& name, const std::string& configuration = "") {
  TemporaryDirectory directory;
  std::vector<std::string> arguments = {InBuild("bin/zprun")};
  if (!configuration.empty()) {
    arguments.push_back("--config");
    arguments.push_back(directory.File("zeph.toml", configuration));
  }
  arguments.push_back(InBuild("site/") + name);
  Command command(arguments);
  command.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(command.Run(), name == "mistake.zpc" ? 1 : 0) << command.errors;
  return command.output;
}

TEST(ExampleSite, EveryPageIsWrittenToItsEnd) {
  for (const char* name : {"index.zpc", "language.zpc", "languages.zpc", "shared.zpc"}) {
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

const char* const outputs_of_shared_files[] = {
    "10.50 euros",
    "2.80 euros\n5.60 euros\n8.40 euros\n",
    "68",
    "1. Assam\n2. Darjeeling\n2 rows",
    "It says: Unable to find function 'stir'",
};

TEST(ExampleSite, PagesShareFunctions) {
  const std::string page = Page("shared.zpc");
  for (const char* output : outputs_of_shared_files) {
    EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
  }
  EXPECT_EQ(Page("library/tea.zpc"), "");
}

TEST(ExampleSite, APageFindsItsFilesWhenItIsServed) {
  EngineProcess engine;
  engine.configuration =
      "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" + engine.Folder("data") + "\"\n";
  ASSERT_TRUE(engine.Start());
  for (int request = 0; request < 3; request++) {
    const std::string page = engine.Get("/shared.zpc", {}).Body();
    for (const char* output : outputs_of_shared_files) {
      EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
    }
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
      "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" + engine.Folder("data") + "\"\n";
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

TEST(ExampleSite, TheListOfTeasIsWrittenOnceAndReadWithAFilter) {
  EngineProcess engine;
  engine.configuration =
      "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" + engine.Folder("data") + "\"\n";
  ASSERT_TRUE(engine.Start());
  const auto row = [](const char* number, const char* name, const char* price, const char* about) {
    return "<tr><td class=\"number\">" + std::string(number) + "</td><td>" + name +
           "</td><td class=\"number\">" + price + "</td><td>" + about + "</td></tr>\n";
  };
  const std::string all = row("1", "Assam", "3.20", "strong") +
                          row("2", "Darjeeling", "5.90", "first flush") +
                          row("3", "Sencha", "4.50", "green,\nfrom Japan") +
                          row("4", "Rooibos", "2.80", "no tea at all");
  for (int visit = 0; visit < 2; visit++) {
    const std::string page = engine.Get("/teas.zpc").Body();
    EXPECT_THAT(page, HasSubstr("<table>\n" + all + "</table>\n<pre>"));
    EXPECT_THAT(page, HasSubstr("</html>\n"));
  }
  const auto limited = [&](const char* query) {
    return engine.Get("/teas.zpc", {{"QUERY_STRING", query}}).Body();
  };
  EXPECT_THAT(limited("limit=4"),
              HasSubstr("<table>\n" + row("1", "Assam", "3.20", "strong") +
                        row("2", "Rooibos", "2.80", "no tea at all") + "</table>\n<pre>"));
  EXPECT_THAT(limited("limit=1"), HasSubstr("<table>\n</table>\n<pre>"));
}

// The library that the site registers for these pages.
const std::string shelf =
    "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/libshelf.so") + "\"\n";

// A cell of a table, after the name.
std::string Row(const std::string& name, const std::string& value) {
  return "<tr><th scope=\"row\"><code>" + name + "</code></th><td>" + value + "</td></tr>\n";
}

TEST(ExampleSite, TheFormShowsWhatHasComeAndKeepsItInItsFields) {
  const std::string empty = Page("form.zpc", shelf);
  EXPECT_THAT(empty, StartsWith("<!DOCTYPE html>"));
  EXPECT_THAT(empty, HasSubstr("</html>\n"));
  EXPECT_THAT(empty, Not(HasSubstr("Your order has come")));
  EXPECT_THAT(empty, HasSubstr("<input name=\"guest:name\" required value=\"\">"));
  EXPECT_THAT(empty, Not(HasSubstr(" checked")));
  const std::string sent =
      Page("form.zpc", shelf +
                           "[variables.global]\nsent = 1\ntea = \"Sencha\"\n"
                           "extra = \"Sugar,Lemon\"\nnote = \"</textarea><script>\"\n");
  EXPECT_THAT(sent, HasSubstr(Row("tea", "Sencha")));
  EXPECT_THAT(sent, HasSubstr(Row("note", "&lt;/textarea&gt;&lt;script&gt;")));
  EXPECT_THAT(sent, HasSubstr("<option selected>Sencha</option>"));
  EXPECT_THAT(sent, HasSubstr("value=\"Lemon\" checked>"));
  EXPECT_THAT(sent, HasSubstr("value=\"Milk\">"));
  EXPECT_THAT(sent, Not(HasSubstr("<script>")));
}

TEST(ExampleSite, TheEnvironmentIsShownAsItIsAndEncoded) {
  const std::string page =
      Page("environment.zpc", shelf +
                                  "[variables.system]\nsite_name = \"A site\"\n"
                                  "HTTP_USER_AGENT = \"<b>\"\n");
  EXPECT_THAT(page, HasSubstr("</html>\n"));
  EXPECT_THAT(page, HasSubstr(Row("site_name", "A site")));
  EXPECT_THAT(page, HasSubstr(Row("HTTP_USER_AGENT", "&lt;b&gt;")));
  EXPECT_THAT(page, HasSubstr(Row("zephversion", "5.29")));
  EXPECT_THAT(page, testing::ContainsRegex("tm_year</code></th><td>20[0-9][0-9]</td>"));
}

TEST(ExampleSite, TheShelfKeepsFilesUnderHarmlessNamesAndListsThem) {
  EngineProcess engine;
  engine.settings = shelf;
  const auto copy = [&engine](const char* name) {
    std::filesystem::copy_file(InBuild("site/") + name,
                               engine.Path(std::string("scripts/") + name));
  };
  copy("upload.zpc");
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/upload.zpc").Body(), HasSubstr("<p>Nothing yet.</p>"));
  const std::string body = FilePart("file", "../../etc/passwd", "t", "1") +
                           FilePart("file", "C:\\Temp\\a b.txt", "t", "22") +
                           FilePart("file", "a b.txt", "t<", "333") +
                           FilePart("file", ".hidden", "t", "") + FilePart("file", "/", "t", "x") +
                           FilePart("file", std::string(300, 'n'), "t", "x") +
                           FilePart("file", "large.bin", "t", std::string(11000000, 'x')) +
                           Field("about", "<i>") + Field("this:taken", "99") + EndOfBody();
  const std::string page = engine
                               .Get("/upload.zpc",
                                    {{"CONTENT_TYPE", "multipart/form-data; boundary=B"},
                                     {"CONTENT_LENGTH", std::to_string(body.size())}},
                                    body)
                               .Body();
  const auto received = [](const std::string& sent, const std::string& kept,
                           const std::string& type, const std::string& bytes) {
    return "<tr><td>" + sent + "</td><td>" + kept + "</td><td>" + type +
           "</td><td class=\"number\">" + bytes + "</td></tr>\n";
  };
  EXPECT_THAT(page, HasSubstr(received("../../etc/passwd", "passwd", "t", "1")));
  EXPECT_THAT(page, HasSubstr(received("C:\\Temp\\a b.txt", "a_b.txt", "t", "2")));
  EXPECT_THAT(page, HasSubstr(received("a b.txt", "a_b-2.txt", "t&lt;", "3")));
  EXPECT_THAT(page, HasSubstr(received(".hidden", "_hidden", "t", "0")));
  EXPECT_THAT(page, HasSubstr(received("/", "_", "t", "1")));
  EXPECT_THAT(page, HasSubstr(received("large.bin", "&#40;too large&#41;", "t", "11000000")));
  EXPECT_THAT(page, HasSubstr("<p>&lt;i&gt;</p>"));
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(engine.Path("data/shelf"))) {
    names.insert(entry.path().filename());
    EXPECT_THAT(page, HasSubstr("<tr><td>" + entry.path().filename().string() +
                                "</td><td class=\"number\">" + std::to_string(entry.file_size()) +
                                "</td></tr>\n"));
  }
  EXPECT_EQ(names, (std::set<std::string>{"passwd", "a_b.txt", "a_b-2.txt", "_hidden", "_",
                                          std::string(80, 'n')}));
  EXPECT_THAT(engine.Get("/upload.zpc").Body(), HasSubstr("a_b-2.txt"));
  // A field of that name from a visitor does not count as a received file.
  EXPECT_THAT(engine.Get("/upload.zpc", {{"QUERY_STRING", "this:taken=5&taken=5"}}).Body(),
              Not(HasSubstr("Thank you")));
}

// A page of the built site, as a script of an engine.
void ServeExample(const EngineProcess& engine, const std::string& name) {
  std::filesystem::copy_file(InBuild("site/") + name, engine.Path("scripts/" + name));
}

TEST(ExampleSite, TheCounterGivesEveryVisitorANumberOfItsOwn) {
  EngineProcess engine;
  ServeExample(engine, "counter.zpc");
  ASSERT_TRUE(engine.Start());
  const auto number = [&] {
    const std::string page = engine.Get("/counter.zpc").Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
    const size_t begin = page.find("<output>");
    return begin == std::string::npos ? 0 : atoi(page.c_str() + begin + 8);
  };
  EXPECT_EQ(number(), 1);
  EXPECT_EQ(number(), 2);
  const int visitors = 8, visits = 5;
  std::vector<std::vector<int>> numbers(visitors);
  std::vector<std::thread> clients;
  for (std::vector<int>& mine : numbers) {
    clients.emplace_back([&] {
      for (int i = 0; i < visits; i++) mine.push_back(number());
    });
  }
  for (std::thread& client : clients) client.join();
  std::set<int> all;
  for (const std::vector<int>& mine : numbers) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(visitors * visits));
  EXPECT_EQ(*all.begin(), 3);
  EXPECT_EQ(*all.rbegin(), 2 + visitors * visits);
}

TEST(ExampleSite, ATaskLeavesItsSumForLaterVisits) {
  EngineProcess engine;
  engine.settings = "timeout_async = 77\n";
  ServeExample(engine, "task.zpc");
  ASSERT_TRUE(engine.Start());
  // All request threads are there before the task begins, so that one more is the task's.
  ASSERT_EQ(engine.WaitForThreads(10 + EngineProcess::OtherThreads),
            10 + EngineProcess::OtherThreads);
  EXPECT_THAT(engine.Get("/task.zpc").Body(), Not(HasSubstr("Begun")));
  const std::string begun = engine.Get("/task.zpc", {{"QUERY_STRING", "limit=1000"}}).Body();
  EXPECT_THAT(begun, HasSubstr("may take 77 seconds"));
  EXPECT_THAT(begun, HasSubstr("</html>\n"));
  ASSERT_EQ(engine.WaitForThreads(10 + EngineProcess::OtherThreads),
            10 + EngineProcess::OtherThreads);
  EXPECT_THAT(engine.Get("/task.zpc").Body(),
              HasSubstr("<tr><td class=\"number\">1000</td><td class=\"number\">500500</td></tr>\n"
                        "</table>"));
  for (const char* query : {"limit=-1", "limit=2000000", "limit=%3Cb%3E"}) {
    EXPECT_THAT(engine.Get("/task.zpc", {{"QUERY_STRING", query}}).Body(), Not(HasSubstr("Begun")));
  }
}

// --- Calls ---------------------------------------------------------------------------------------

// nginx passes the page to the engine, which calls nginx for another one, which passes that to the
// engine as well.
TEST(ExampleSite, APageListsTheLinksOfAnother) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  REQUIRE_PROGRAM("/usr/bin/curl");
  EngineProcess engine;
  ServeExample(engine, "links.zpc");
  ServeExample(engine, "index.zpc");
  ASSERT_TRUE(engine.Start());
  const int port = FreePort();
  std::string parameters;
  for (const auto& [name, value] : engine.Parameters(nullptr)) {
    parameters += "fastcgi_param " + name + " \"" + value + "\";";
  }
  NginxServer server("server { listen 127.0.0.1:" + std::to_string(port) +
                     "; location / { fastcgi_pass unix:" + engine.socket() +
                     "; fastcgi_param PATH_INFO $uri; fastcgi_param SERVER_ADDR $server_addr; "
                     "fastcgi_param SERVER_PORT $server_port; " +
                     parameters + " } }\n");
  server.WaitFor(port);
  const auto curl = [&](const std::string& path) {
    Command command({"/usr/bin/curl", "-sS", "--noproxy", "*",
                     "http://127.0.0.1:" + std::to_string(port) + path});
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return command.output;
  };
  std::string rows;
  const std::string start = curl("/index.zpc");
  const std::regex link("<a href=\"([^\"]*)\">(.*?)</a>");
  for (std::sregex_iterator i(start.begin(), start.end(), link), end; i != end; ++i) {
    rows += "<tr><td><code>" + i->str(1) + "</code></td><td>" + i->str(2) + "</td></tr>\n";
  }
  EXPECT_THAT(rows, HasSubstr("<code>links.zpc</code>"));
  const std::string page = curl("/links.zpc");
  EXPECT_THAT(page, HasSubstr("<th>Text of the link</th></tr>\n" + rows + "</table>\n</section>"));
  EXPECT_THAT(page, HasSubstr("</html>\n"));
  // Where nothing listens, and without a web server.
  const std::string lost =
      engine.Get("/links.zpc", {{"SERVER_ADDR", "127.0.0.9"}, {"SERVER_PORT", "1"}}).Body();
  EXPECT_THAT(lost, HasSubstr("on port 1: Connection refused"));
  EXPECT_THAT(lost, HasSubstr("</html>\n"));
  EXPECT_THAT(Page("links.zpc"), HasSubstr("There is no web server here"));
}

// --- The address list ----------------------------------------------------------------------------

class AddressPage : public testing::Test {
 protected:
  void SetUp() override {
    engine.settings = shelf;
    ServeExample(engine, "addresses.zpc");
    ASSERT_TRUE(engine.Start());
  }

  // The page after a form was sent, which has the fields as a browser encodes them.
  std::string Post(const std::string& form) {
    const std::string page = engine
                                 .Get("/addresses.zpc",
                                      {{"REQUEST_METHOD", "POST"},
                                       {"CONTENT_TYPE", "application/x-www-form-urlencoded"},
                                       {"CONTENT_LENGTH", std::to_string(form.size())}},
                                      form)
                                 .Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
    return page;
  }
  std::string Get(const std::string& query = "") {
    const std::string page =
        engine.Get("/addresses.zpc", {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}}).Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
    return page;
  }
  static std::string Add(const std::string& name, const std::string& street = "",
                         const std::string& city = "") {
    return "add=1&name=" + name + "&street=" + street + "&city=" + city;
  }

  // The rows of the list, without tags.
  static std::vector<std::string> List(const std::string& page) {
    std::vector<std::string> rows;
    for (size_t at = page.find("<tr><td>"); at != std::string::npos;
         at = page.find("<tr><td>", at + 1)) {
      const size_t end = page.find("</td><td><button", at);
      std::string row = page.substr(at + 8, end - at - 8);
      for (size_t cell = row.find("</td><td>"); cell != std::string::npos;
           cell = row.find("</td><td>"))
        row.replace(cell, 9, "|");
      rows.push_back(row);
    }
    return rows;
  }

  EngineProcess engine;
};

using Rows = std::vector<std::string>;

TEST_F(AddressPage, EntriesAreAddedListedByNameAndFoundByTheBeginning) {
  EXPECT_EQ(List(Get()), Rows{});
  EXPECT_EQ(List(Post(Add("Carla", "Long+Street+3", "Rome"))), Rows{"Carla|Long Street 3|Rome"});
  Post(Add("Anna"));
  Post(Add("Carl", "", "Bonn"));
  EXPECT_EQ(List(Post(Add("Bert"))),
            (Rows{"Anna||", "Bert||", "Carl||Bonn", "Carla|Long Street 3|Rome"}));
  EXPECT_EQ(List(Get("search=Carl")), (Rows{"Carl||Bonn", "Carla|Long Street 3|Rome"}));
  EXPECT_EQ(List(Get("search=Carla")), Rows{"Carla|Long Street 3|Rome"});
  EXPECT_EQ(List(Get("search=D")), Rows{});
  EXPECT_EQ(List(Get("search=arl")), Rows{});
}

TEST_F(AddressPage, ADeletedEntryIsGoneForAllAndCanBeAddedAgain) {
  for (const char* name : {"Anna", "Bert", "Carl"}) Post(Add(name));
  EXPECT_EQ(List(Post("remove=2")), (Rows{"Anna||", "Carl||"}));
  EXPECT_EQ(List(Get("search=B")), Rows{});
  // No record, one that is deleted already, and none of that kind.
  for (const char* form : {"remove=99", "remove=2", "remove=0", "remove=-7", "remove=x", "remove="})
    EXPECT_EQ(List(Post(form)), (Rows{"Anna||", "Carl||"})) << form;
  EXPECT_EQ(List(Post(Add("Bert", "", "Oslo")))[1], "Bert||Oslo");
}

TEST_F(AddressPage, TextOfAVisitorIsShownAsText) {
  const std::string page =
      Post(Add("%3Cscript%3Ealert(1)%3C%2Fscript%3E", "%22%26+%3Cb%3E", "K%C3%B6ln+%7C+%5C%27"));
  EXPECT_THAT(page, Not(HasSubstr("<script>")));
  EXPECT_THAT(page, Not(HasSubstr("<b>")));
  ASSERT_EQ(List(page).size(), 1u);
  EXPECT_THAT(List(page)[0], StartsWith("&lt;script&gt;alert"));
  EXPECT_THAT(List(page)[0], HasSubstr("&amp; &lt;b&gt;"));
  EXPECT_THAT(List(page)[0], HasSubstr("K\xc3\xb6ln"));
  // The search keeps its text in the field.
  const std::string found = Get("search=%3Cscript%3E%22");
  EXPECT_THAT(found, Not(HasSubstr("<script>")));
  EXPECT_THAT(found, Not(HasSubstr("value=\"<")));
  EXPECT_EQ(List(Get("search=%3Cscr")).size(), 1u);
  EXPECT_EQ(List(Get("search=%3Cscr%22")).size(), 0u);
}

TEST_F(AddressPage, ALinkChangesNothing) {
  Post(Add("Anna"));
  EXPECT_EQ(List(Get(Add("Bert"))), Rows{"Anna||"});
  EXPECT_EQ(List(Get("remove=1")), Rows{"Anna||"});
  EXPECT_EQ(List(Get()), Rows{"Anna||"});
  // An empty form changes nothing either.
  EXPECT_EQ(List(Post("add=1&name=")), Rows{"Anna||"});
  EXPECT_EQ(List(Post("name=Bert")), Rows{"Anna||"});
}

TEST_F(AddressPage, FirstVisitorsAtOnceMakeOneTable) {
  const int visitors = 8;
  std::vector<std::thread> clients;
  for (int i = 0; i < visitors; i++) {
    clients.emplace_back([&, i] { Post(Add("Visitor" + std::to_string(i))); });
  }
  for (std::thread& client : clients) client.join();
  Rows all;
  for (int i = 0; i < visitors; i++) all.push_back("Visitor" + std::to_string(i) + "||");
  EXPECT_EQ(List(Get()), all);
}

}  // namespace
