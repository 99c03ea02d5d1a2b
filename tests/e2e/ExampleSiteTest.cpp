// The pages of the example site, as zprun writes them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
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

// The library of the site's settings.
const std::string library =
    "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/zephstd.so") + "\"\n";

// variables is text for the zeph.toml, besides the library.
std::string Page(const std::string& name, const std::string& variables = "") {
  TemporaryDirectory directory;
  const std::string settings = directory.File("zeph.toml", library + variables);
  Command command(
      {InBuild("bin/zprun"), "--errors-in-page", "--config", settings, InBuild("site/") + name});
  command.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(command.Run(), name == "mistake.zpc" ? 1 : 0) << command.errors;
  return command.output;
}

TEST(ExampleSite, EveryPageIsWrittenToItsEnd) {
  for (const char* name : {"index.zpc", "language.zpc", "languages.zpc", "shared.zpc", "form.zpc",
                           "json.zpc", "contact.zpc", "mailbox.zpc", "environment.zpc"}) {
    SCOPED_TRACE(name);
    std::string page = Page(name);
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
  }
  EXPECT_EQ(Page("hello.zpc"), "Hello, world\n");
  EXPECT_THAT(Page("mistake.zpc"),
              HasSubstr("mistake.zeph: Line 14: padleft: 'width' is not a number"));
}

TEST(ExampleSite, WhatThePageOfTheLanguageShowsIsWhatComesOut) {
  std::string page = Page("language.zpc");
  for (const char* output :
       {"1 4 9 16 25 36 49 64 81 100 121 144 ", "la la la la la la la la la !",
        "AC AB CB AC BA BC AC ", "right, left", "Darjeeling for 3.50",
        "1. Monday  2. Tuesday  3. Wednesday  ", "&lt;b&gt;5 &gt; 4&lt;/b&gt;", "<b>5 > 4</b>",
        "It says: There is no primary database, and no database was specified"}) {
    EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
  }
}

const char* const outputs_of_shared_files[] = {
    "10.50 euros",
    "It says: Unable to find function &#39;stir&#39;",
};

TEST(ExampleSite, PagesShareFunctions) {
  const std::string page = Page("shared.zpc");
  for (const char* output : outputs_of_shared_files) {
    EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
  }
}

TEST(ExampleSite, APageFindsItsFilesWhenItIsServed) {
  EngineProcess engine;
  engine.configuration = "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" +
                         engine.Folder("data") + "\"\n" + library;
  ASSERT_TRUE(engine.Start());
  for (int request = 0; request < 3; request++) {
    const std::string page = engine.Get("/shared.zpc", {}).Body();
    for (const char* output : outputs_of_shared_files) {
      EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
    }
  }
}

TEST(ExampleSite, OnePageHasThreeLanguages) {
  const std::string english = Page("languages.zpc");
  EXPECT_THAT(english, HasSubstr("<html lang=\"en\">"));
  EXPECT_THAT(english, HasSubstr("<h1>One page, three languages</h1>"));
  const std::string german = Page("languages.zpc", "[variables.global]\nlang = \"de\"\n");
  EXPECT_THAT(german, HasSubstr("<html lang=\"de\">"));
  EXPECT_THAT(german, HasSubstr("<h1>Eine Seite, drei Sprachen</h1>"));
  const struct {
    const char* english;
    const char* german;
  } outputs[] = {
      {"Welcome to the tea shop, Ada!", "Willkommen im Teeladen, Ada!"},
      {"100 grams of Darjeeling for 3.5 euros", "Für 3.5 Euro: Darjeeling, 100 Gramm"},
      {"This notice exists in English only.", "This notice exists in English only."},
  };
  for (const auto& output : outputs) {
    EXPECT_THAT(english, HasSubstr("<output>" + std::string(output.english) + "</output>"));
    EXPECT_THAT(german, HasSubstr("<output>" + std::string(output.german) + "</output>"));
  }
  const std::string french = Page("languages.zpc", "[variables.global]\nlang = \"fr\"\n");
  EXPECT_THAT(french, HasSubstr("<html lang=\"fr\">"));
  EXPECT_THAT(french, HasSubstr("<output>Bienvenue au salon de thé, Ada !</output>"));
}

TEST(ExampleSite, TheLanguageOfTheBrowserIsTheFirstChoiceAndUnknownOnesAreEnglish) {
  const auto title = [](const std::string& variables) {
    const std::string page = Page("languages.zpc", variables);
    const size_t begin = page.find("<title>") + 7;
    return page.substr(begin, page.find("</title>") - begin);
  };
  const std::string english = "One page, three languages", german = "Eine Seite, drei Sprachen";
  const std::string browser = "[variables.system]\nHTTP_ACCEPT_LANGUAGE = ";
  EXPECT_EQ(title(browser + "\"de-CH,de;q=0.9,en;q=0.8\"\n"), german);
  EXPECT_EQ(title(browser + "\"en-GB,de;q=0.9\"\n"), english);
  EXPECT_EQ(title(browser + "\"de\"\n[variables.global]\nlang = \"en-US\"\n"), english);
  EXPECT_EQ(title("[variables.global]\nlang = \"tlh\"\n"), english);
}

TEST(ExampleSite, ALinkChoosesTheLanguageOfAServedPage) {
  EngineProcess engine;
  engine.configuration = "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" +
                         engine.Folder("data") + "\"\n" + library;
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
  // A language that is none leaves that of the browser.
  EXPECT_THAT(page("lang=%22%3E%3Cscript%3E", "de"), HasSubstr("<html lang=\"de\">"));
}

TEST(ExampleSite, TheListOfTeasIsWrittenOnceAndReadWithAFilter) {
  EngineProcess engine;
  engine.configuration = "dir_zeph = \"" + InBuild("site") + "\"\ndir_data = \"" +
                         engine.Folder("data") + "\"\n" + library;
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
    EXPECT_THAT(page,
                HasSubstr("About</th></tr>\n" + all + "</table>\n<p>4 teas, 4.10 on average.</p>"));
    EXPECT_THAT(page, HasSubstr("</html>\n"));
  }
  const auto limited = [&](const char* query) {
    return engine.Get("/teas.zpc", {{"QUERY_STRING", query}}).Body();
  };
  EXPECT_THAT(
      limited("limit=4"),
      HasSubstr("About</th></tr>\n" + row("1", "Assam", "3.20", "strong") +
                row("2", "Rooibos", "2.80", "no tea at all") + "</table>\n<p>2 teas, 3.00"));
  EXPECT_THAT(limited("limit=1"), HasSubstr("About</th></tr>\n</table>\n<p><a"));
  const FastCGIResponse file = engine.Get("/teas.zpc", {{"QUERY_STRING", "format=csv"}});
  EXPECT_EQ(file.Header("Content-Type"), "text/csv; charset=utf-8");
  EXPECT_EQ(file.Body(),
            "name,price,about\nAssam,3.20,strong\nDarjeeling,5.90,first flush\n"
            "Sencha,4.50,\"green,\nfrom Japan\"\nRooibos,2.80,no tea at all\n");
}

// A cell of a table, after the name.
std::string Row(const std::string& name, const std::string& value) {
  return "<tr><th scope=\"row\"><code>" + name + "</code></th><td>" + value + "</td></tr>\n";
}

TEST(ExampleSite, TheFormShowsWhatHasComeAndKeepsItInItsFields) {
  const std::string empty = Page("form.zpc");
  EXPECT_THAT(empty, StartsWith("<!DOCTYPE html>"));
  EXPECT_THAT(empty, HasSubstr("</html>\n"));
  EXPECT_THAT(empty, Not(HasSubstr("Your order has come")));
  EXPECT_THAT(empty, HasSubstr("<input name=\"guest:name\" required value=\"\">"));
  EXPECT_THAT(empty, Not(HasSubstr(" checked")));
  const std::string sent = Page("form.zpc",
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
  const std::string page = Page("environment.zpc",
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
  engine.settings = library;
  const auto copy = [&engine](const char* name) {
    std::filesystem::copy_file(InBuild("site/") + name,
                               engine.Path(std::string("scripts/") + name));
  };
  copy("upload.zpc");
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/upload.zpc").Body(), HasSubstr("<p>Nothing yet.</p>"));
  const std::string body =
      FilePart("file", "../../etc/passwd", "t", "1") +
      FilePart("file", "C:\\Temp\\a b.txt", "t", "22") + FilePart("file", "a b.txt", "t<", "333") +
      FilePart("file", ".hidden", "t", "") + FilePart("file", "/", "t", "x") +
      FilePart("file", std::string(300, 'n'), "t", "x") +
      FilePart("file", "large.bin", "t", std::string(11000000, 'x')) + Field("about", "<i>") +
      Field("received[99]:sent", "no file") + EndOfBody();
  const std::string page = engine
                               .Get("/upload.zpc",
                                    {{"REQUEST_METHOD", "POST"},
                                     {"CONTENT_TYPE", "multipart/form-data; boundary=B"},
                                     {"CONTENT_LENGTH", std::to_string(body.size())}},
                                    body)
                               .Body();
  const auto received = [](const std::string& sent, const std::string& kept,
                           const std::string& type, const std::string& bytes) {
    return "<tr><td>" + sent + "</td><td>" + kept + "</td><td>" + type +
           "</td><td class=\"number\">" + bytes + "</td></tr>\n";
  };
  EXPECT_THAT(page, HasSubstr(received("../../etc/passwd", "passwd", "t", "1")));
  EXPECT_THAT(page, HasSubstr(received("C:\\Temp\\a b.txt", "a-b.txt", "t", "2")));
  EXPECT_THAT(page, HasSubstr(received("a b.txt", "a-b-2.txt", "t&lt;", "3")));
  EXPECT_THAT(page, HasSubstr(received(".hidden", "file.hidden", "t", "0")));
  EXPECT_THAT(page, HasSubstr(received("/", "file", "t", "1")));
  EXPECT_THAT(page, HasSubstr(received("large.bin", "(too large)", "t", "11000000")));
  EXPECT_THAT(page, HasSubstr("<p>&lt;i&gt;</p>"));
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(engine.Path("data/shelf"))) {
    names.insert(entry.path().filename());
    EXPECT_THAT(page, HasSubstr("<tr><td>" + entry.path().filename().string() +
                                "</td><td class=\"number\">" + std::to_string(entry.file_size()) +
                                "</td></tr>\n"));
  }
  EXPECT_EQ(names, (std::set<std::string>{"passwd", "a-b.txt", "a-b-2.txt", "file.hidden", "file",
                                          std::string(60, 'n')}));
  EXPECT_THAT(engine.Get("/upload.zpc").Body(), HasSubstr("a-b-2.txt"));
  // A field of that name from a visitor does not count as a received file.
  EXPECT_THAT(engine.Get("/upload.zpc", {{"QUERY_STRING", "files=1&received[1]:sent=x"}}).Body(),
              Not(HasSubstr("Thank you")));
}

// A page of the built site, as a script of an engine.
void ServeExample(const EngineProcess& engine, const std::string& name) {
  std::filesystem::copy_file(InBuild("site/") + name, engine.Path("scripts/" + name));
}

// A form that was sent, with its fields as a browser encodes them.
FastCGIResponse Send(EngineProcess& engine, const char* path, const std::string& form,
                     FastCGIParameters more = {}) {
  more.emplace_back("REQUEST_METHOD", "POST");
  more.emplace_back("CONTENT_TYPE", "application/x-www-form-urlencoded");
  more.emplace_back("CONTENT_LENGTH", std::to_string(form.size()));
  return engine.Get(path, more, form);
}

TEST(ExampleSite, TheCounterCountsEveryFormThatWasSent) {
  EngineProcess engine;
  engine.settings = library;
  ServeExample(engine, "counter.zpc");
  ASSERT_TRUE(engine.Start());
  const auto number = [&](bool sent) {
    const std::string page =
        (sent ? Send(engine, "/counter.zpc", "") : engine.Get("/counter.zpc")).Body();
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
    const size_t begin = page.find("<output class=\"big\">");
    return begin == std::string::npos ? -1 : atoi(page.c_str() + begin + 20);
  };
  EXPECT_EQ(number(false), 0);
  EXPECT_EQ(number(true), 1);
  EXPECT_EQ(number(false), 1);
  EXPECT_EQ(number(true), 2);
  const int visitors = 8, visits = 5;
  std::vector<std::vector<int>> numbers(visitors);
  std::vector<std::thread> clients;
  for (std::vector<int>& mine : numbers) {
    clients.emplace_back([&] {
      for (int i = 0; i < visits; i++) mine.push_back(number(true));
    });
  }
  for (std::thread& client : clients) client.join();
  std::set<int> all;
  for (const std::vector<int>& mine : numbers) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(visitors * visits));
  EXPECT_EQ(*all.begin(), 3);
  EXPECT_EQ(*all.rbegin(), 2 + visitors * visits);
}

TEST(ExampleSite, ATaskTellsHowFarItIs) {
  EngineProcess engine;
  engine.settings = library;
  ServeExample(engine, "task.zpc");
  ASSERT_TRUE(engine.Start());
  // All request threads are there before the task begins, so that one more is the task's.
  ASSERT_EQ(engine.WaitForThreads(10 + EngineProcess::OtherThreads),
            10 + EngineProcess::OtherThreads);
  EXPECT_THAT(engine.Get("/task.zpc").Body(), Not(HasSubstr("id=\"progress\"")));
  const std::string place = Send(engine, "/task.zpc", "limit=1000").Header("Location");
  ASSERT_THAT(place, StartsWith("task.zpc?number="));
  const std::string query = place.substr(place.find('?') + 1);
  ASSERT_EQ(engine.WaitForThreads(10 + EngineProcess::OtherThreads),
            10 + EngineProcess::OtherThreads);
  const FastCGIResponse done = engine.Get("/task.zpc", {{"QUERY_STRING", query}});
  EXPECT_THAT(done.Body(), HasSubstr("<strong>168</strong> prime numbers up to 1000."));
  EXPECT_FALSE(done.HasHeader("Refresh"));
  // One that has only begun.
  engine.Write("data/task-1.json", "{\"limit\":100,\"done\":50,\"primes\":15}");
  const FastCGIResponse half = engine.Get("/task.zpc", {{"QUERY_STRING", "number=1"}});
  EXPECT_THAT(half.Body(), HasSubstr("<progress max=\"100\" value=\"50\">"));
  EXPECT_EQ(half.Header("Refresh"), "1");
  // What is no number begins nothing, and a visitor's number reaches no other file.
  for (const char* form : {"limit=-1", "limit=%3Cb%3E", "limit="})
    EXPECT_EQ(Send(engine, "/task.zpc", form).Header("Location"), "task.zpc") << form;
  engine.Write("data/other.json", "{\"limit\":100,\"done\":50}");
  EXPECT_THAT(engine.Get("/task.zpc", {{"QUERY_STRING", "number=1/../../other"}}).Body(),
              Not(HasSubstr("id=\"progress\"")));
}

// --- Sign-in and guest book ----------------------------------------------------------------------

TEST(ExampleSite, ASessionLastsFromTheSignInToTheSignOut) {
  EngineProcess engine;
  engine.settings = library;
  ServeExample(engine, "signin.zpc");
  ASSERT_TRUE(engine.Start());
  const auto send = [&](const std::string& form, const std::string& cookie = "") {
    return Send(engine, "/signin.zpc", form, {{"HTTP_COOKIE", cookie}});
  };
  // The cookie as a browser sends it.
  const auto session = [](const FastCGIResponse& response) {
    const std::string cookie = response.Header("Set-Cookie");
    return cookie.substr(0, cookie.find(';'));
  };
  const auto member = [&](const std::string& cookie) {
    return engine.Get("/signin.zpc", {{"HTTP_COOKIE", cookie}})
               .Body()
               .find("<h2>Hello, ada</h2>") != std::string::npos;
  };
  const std::string first = session(send("act=new&user=Ada&password=long+enough"));
  ASSERT_THAT(first, StartsWith("session="));
  EXPECT_TRUE(member(first));
  EXPECT_FALSE(member(""));
  EXPECT_FALSE(member("session=x"));
  EXPECT_THAT(send("act=new&user=ADA&password=long+enough").Body(),
              HasSubstr("That name is taken."));
  for (const char* form :
       {"act=in&user=ada&password=long+enougH", "act=in&user=bob&password=long+enough"})
    EXPECT_THAT(send(form).Body(), HasSubstr("Name and password do not fit.")) << form;
  EXPECT_THAT(send("act=new&user=bob&password=short").Body(), HasSubstr("at least 8"));
  const std::string second = session(send("act=in&user=ada&password=long+enough"));
  EXPECT_NE(second, first);
  EXPECT_TRUE(member(second));
  send("act=out", first);
  EXPECT_FALSE(member(first));
  EXPECT_TRUE(member(second));
  // Neither the password nor what is in the cookie is in a file.
  for (const char* file : {"data/users.dbf", "data/sessions.dbf", "data/sessions.zix"}) {
    std::ifstream stored(engine.Path(file), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stored)),
                            std::istreambuf_iterator<char>());
    EXPECT_NE(bytes, "") << file;
    EXPECT_THAT(bytes, Not(HasSubstr("long enough"))) << file;
    EXPECT_THAT(bytes, Not(HasSubstr(second.substr(8)))) << file;
  }
}

TEST(ExampleSite, AFormOfTheGuestBookCountsOnce) {
  EngineProcess engine;
  engine.settings = library;
  ServeExample(engine, "guestbook.zpc");
  ASSERT_TRUE(engine.Start());
  const auto page = [&] { return engine.Get("/guestbook.zpc").Body(); };
  const std::string form = page();
  const size_t at = form.find("name=\"token\" value=\"");
  ASSERT_NE(at, std::string::npos);
  const std::string token = form.substr(at + 20, 22);
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; i++) {
    clients.emplace_back(
        [&] { Send(engine, "/guestbook.zpc", "name=Ada&said=one%0Atwo&token=" + token); });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_THAT(page(), HasSubstr("Written so far: 1"));
  EXPECT_THAT(page(), HasSubstr("<p>one<br>\ntwo</p>"));
  EXPECT_EQ(Send(engine, "/guestbook.zpc", "name=Bob&said=x&token=" + std::string(22, 'b'))
                .Header("Location"),
            "guestbook.zpc");
  EXPECT_THAT(page(), HasSubstr("Written so far: 2"));
  // Without a token, a name or a text.
  for (const char* empty :
       {"name=Bob&said=x", "name=Bob&said=x&token=short", "said=x&token=cccccccccccccccccccccc",
        "name=+&said=+&token=cccccccccccccccccccccc"})
    Send(engine, "/guestbook.zpc", empty);
  EXPECT_THAT(page(), HasSubstr("Written so far: 2"));
}

// --- Texts of visitors ---------------------------------------------------------------------------

// Every field of every page, by GET and by POST, and what a browser says of itself.
TEST(ExampleSite, NothingOfAVisitorBecomesMarkup) {
  EngineProcess engine;
  engine.settings = library +
                    "[variables.system]\nmail_host = \"127.0.0.1\"\nmail_port = 1\n"
                    "mail_flags = \"\"\nmail_user = \"\"\nmail_password = \"\"\n"
                    "mail_reader = \"r@example.org\"\nsite_name = \"Site\"\n";
  const char* const pages[] = {"index",  "hello",       "form",    "counter",   "guestbook",
                               "teas",   "addresses",   "json",    "languages", "language",
                               "upload", "task",        "contact", "mailbox",   "links",
                               "signin", "environment", "shared",  "mistake"};
  for (const char* page : pages) ServeExample(engine, std::string(page) + ".zpc");
  ASSERT_TRUE(engine.Start());
  const std::string attack = "%3Cscript%3Ealert(1)%3C/script%3E%22%27%3E%3Cimg%20src=x%3E";
  const std::string raw = "<script>alert(1)</script>\"'><img src=x>";
  std::string form;
  for (const char* field : {"name",
                            "said",
                            "street",
                            "city",
                            "search",
                            "show",
                            "limit",
                            "tea",
                            "extra",
                            "note",
                            "guest:name",
                            "guest:table",
                            "who",
                            "lang",
                            "about",
                            "address",
                            "message",
                            "user",
                            "password",
                            "act",
                            "number",
                            "page",
                            "title",
                            "lead",
                            "source",
                            "tongue",
                            "files",
                            "link",
                            "text",
                            "problem",
                            "member",
                            "x",
                            "received[1]:sent",
                            "state:limit",
                            "answer:tea",
                            "ZpSMTP_Error",
                            "ZpPOP_Error",
                            "ZpCALL_Error",
                            "ZpOPEN_Error",
                            "callerid",
                            "site_name"})
    form += std::string(field) + "=" + attack + "&";
  // These have to be right for the text to be kept.
  form += "sent=1&add=1&token=aaaaaaaaaaaaaaaaaaaaaa";
  const FastCGIParameters browser = {{"HTTP_USER_AGENT", raw},
                                     {"HTTP_ACCEPT_LANGUAGE", raw},
                                     {"HTTP_HOST", raw},
                                     {"SERVER_NAME", raw},
                                     {"HTTP_COOKIE", "zixcallerid=" + raw + "; session=" + raw}};
  std::set<std::string> seen;
  const auto look = [&](const char* page, const FastCGIResponse& response) {
    const std::string body = response.Body();
    EXPECT_THAT(body, Not(HasSubstr("<script"))) << page;
    EXPECT_THAT(body, Not(HasSubstr("<img"))) << page;
    if (body.find("&lt;script&gt;") != std::string::npos) seen.insert(page);
  };
  for (int round = 0; round < 2; round++) {
    for (const char* page : pages) {
      const std::string path = "/" + std::string(page) + ".zpc";
      FastCGIParameters query = browser;
      query.emplace_back("QUERY_STRING", form);
      look(page, engine.Get(path.c_str(), query));
      look(page, Send(engine, path.c_str(), form, browser));
      look(page, engine.Get(path.c_str(), browser));
    }
  }
  // The texts came back where the page shows them, so there was something to encode.
  for (const char* page : {"hello", "form", "guestbook", "addresses", "teas", "json", "languages",
                           "contact", "mailbox", "signin", "environment", "upload"})
    EXPECT_EQ(seen.count(page), 1u) << page;
}

// --- Sources -------------------------------------------------------------------------------------

TEST(ExampleSite, APageShowsItsSourceIfTheDataDirectoryHasIt) {
  EngineProcess engine;
  engine.settings = library;
  ServeExample(engine, "counter.zpc");
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/counter.zpc").Body(), Not(HasSubstr("<aside")));
  engine.Write("data/sources/counter.zeph", "<p>{{ one }}\n</p>\n");
  EXPECT_THAT(engine.Get("/counter.zpc", {{"QUERY_STRING", "page=other"}}).Body(),
              HasSubstr("<pre tabindex=\"0\">&lt;p&gt;{{ one }}\n&lt;/p&gt;</pre>"));
}

// --- Calls ---------------------------------------------------------------------------------------

// nginx passes the page to the engine, which calls nginx for another one, which passes that to the
// engine as well.
TEST(ExampleSite, APageListsTheLinksOfAnother) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  REQUIRE_PROGRAM("/usr/bin/curl");
  EngineProcess engine;
  engine.settings = library;
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
  const std::regex link("<a (?:class=\"skip\" )?href=\"([^\"]*)\">(.*?)</a>");
  for (std::sregex_iterator i(start.begin(), start.end(), link), end; i != end; ++i) {
    rows += "<tr><td><code>" + i->str(1) + "</code></td><td>" + i->str(2) + "</td></tr>\n";
  }
  EXPECT_THAT(rows, HasSubstr("<code>links.zpc</code>"));
  const std::string page = curl("/links.zpc");
  EXPECT_THAT(page, HasSubstr("<th scope=\"col\">Text of the link</th></tr>\n" + rows +
                              "</table>\n</section>"));
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
    engine.settings = library;
    ServeExample(engine, "addresses.zpc");
    ASSERT_TRUE(engine.Start());
  }

  // Sends a form, and returns the page that the browser is sent to.
  std::string Post(const std::string& form) {
    EXPECT_EQ(Send(engine, "/addresses.zpc", form).Header("Location"), "addresses.zpc");
    return Get();
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

TEST_F(AddressPage, TenEntriesMakeAPage) {
  for (int i = 10; i < 31; i++) Post(Add("N" + std::to_string(i)));
  const std::string next = ">Next</a>", previous = ">Previous</a>";
  EXPECT_EQ(List(Get()).size(), 10u);
  EXPECT_THAT(Get(), HasSubstr("<a href=\"?search=&amp;show=2\">Next</a>"));
  EXPECT_THAT(Get(), Not(HasSubstr(previous)));
  EXPECT_EQ(List(Get("show=2"))[0], "N20||");
  EXPECT_EQ(List(Get("show=3")), Rows{"N30||"});
  EXPECT_THAT(Get("show=3"), Not(HasSubstr(next)));
  EXPECT_THAT(Get("show=3"), HasSubstr(previous));
  EXPECT_EQ(List(Get("show=4")), Rows{});
  EXPECT_EQ(List(Get("search=N1")).size(), 10u);
  EXPECT_THAT(Get("search=N1"), Not(HasSubstr(next)));
  for (const char* query : {"show=0", "show=-3", "show=x", "show=1.5"})
    EXPECT_EQ(List(Get(query))[0], "N10||") << query;
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

// --- The pages beside those in PHP ---------------------------------------------------------------

TEST(ComparedPages, TheyCompileAndHaveTheLinesThatTheirTableSays) {
  const std::string folder = InSource("examples/compare");
  Command check({InBuild("bin/zeph"), "check", "--werror", folder});
  EXPECT_EQ(check.Run(), 0) << check.output;
  std::ifstream table(folder + "/README.md");
  const std::regex row("\\| `([a-z]+)` \\| ([0-9]+) \\| ([0-9]+) \\|");
  const std::regex sums("\\| all of them \\| \\| ([0-9]+) \\| ([0-9]+) \\|");
  const auto lines = [&](const std::string& name) {
    std::ifstream file(folder + "/" + name);
    int count = 0;
    for (std::string line; std::getline(file, line);) count += !line.empty();
    return count;
  };
  int tasks = 0, ours = 0, theirs = 0;
  for (std::string line; std::getline(table, line);) {
    std::smatch match;
    if (std::regex_search(line, match, row)) {
      EXPECT_EQ(std::stoi(match.str(2)), lines(match.str(1) + ".zeph")) << line;
      EXPECT_EQ(std::stoi(match.str(3)), lines(match.str(1) + ".php")) << line;
      tasks++;
      ours += std::stoi(match.str(2));
      theirs += std::stoi(match.str(3));
    } else if (std::regex_search(line, match, sums)) {
      EXPECT_EQ(std::stoi(match.str(1)), ours);
      EXPECT_EQ(std::stoi(match.str(2)), theirs);
    }
  }
  EXPECT_EQ(tasks, 9);
}

}  // namespace
