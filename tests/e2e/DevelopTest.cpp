// zeph dev: lighttpd, the engine and the compiler together, with curl and with a browser.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "tests/support/ListeningPeer.h"
#include "tests/support/NewSite.h"
#include "tests/support/SignalProcess.h"
#include "tests/support/WebServers.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

template <typename Test>
bool Eventually(Test test, milliseconds limit = milliseconds(30000)) {
  const auto deadline = steady_clock::now() + limit;
  while (!test()) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(5));
  }
  return true;
}

// The programs that are children of a process.
std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    std::istringstream rest(text.substr(std::min(text.rfind(')') + 1, text.size())));
    char state = 0;
    pid_t of = 0;
    rest >> state >> of;
    if (of == parent && state != 'Z') children.push_back(std::stoi(name));
  }
  return children;
}

bool Alive(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  return !text.empty() && text.find(") Z") == std::string::npos;
}

class SlowDevelop : public testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM("/usr/sbin/lighttpd");
    directory.File("site/zeph.toml", EncodingSettings());
    directory.Directory("temp");
  }
  ~SlowDevelop() override {
    if (server > 0) {
      SignalProcess(server, SIGKILL);
      waitpid(server, nullptr, 0);
    }
  }

  void Write(const std::string& name, const std::string& text) {
    directory.File("site/" + name, text);
  }

  // Serves the site on a free port.
  void Start() {
    const std::string output = directory.path("output");
    const std::string folder = directory.path("site");
    const std::string temporary = directory.path("temp");
    const std::string program = InBuild("bin/zeph");
    server = fork();
    if (server == 0) {
      setpgid(0, 0);
      if (!freopen(output.c_str(), "w", stdout) || dup2(1, 2) < 0) _exit(1);
      if (without_input) close(STDIN_FILENO);
      setenv("TMPDIR", temporary.c_str(), 1);
      execl(program.c_str(), "zeph", "dev", folder.c_str(), "0", nullptr);
      _exit(127);
    }
    ASSERT_TRUE(Eventually([&] { return Output().find("http://") != std::string::npos; }))
        << Output();
    const std::string text = Output();
    const size_t begin = text.find("http://");
    address = text.substr(begin, text.find('\n', begin) - begin);
  }
  std::string Output() { return directory.Content("output"); }

  // Ends it as Ctrl-C does. Returns the exit status.
  int End(int number = SIGINT) {
    SignalProcess(server, number);
    int status = 0;
    waitpid(server, &status, 0);
    server = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string Curl(const std::string& path, std::vector<std::string> options = {}) {
    std::vector<std::string> words = {"/usr/bin/curl", "-s", "--path-as-is", "--max-time", "30"};
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(address + path);
    Command command(words);
    command.Run();
    return command.output;
  }
  std::string Visit(const std::string& path) { return Curl(path, {"-H", "Accept: text/html"}); }
  std::string Status(const std::string& path) {
    return Curl(path, {"-o", "/dev/null", "-w", "%{http_code} %{content_type}"});
  }

  // The process of the engine; 0 if there is none.
  pid_t Engine() const {
    for (const pid_t child : ChildrenOf(server)) {
      std::error_code ignored;
      const auto program =
          std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/exe", ignored);
      if (program.filename() == "zeph-fcgi") return child;
    }
    return 0;
  }

  TemporaryDirectory directory;
  pid_t server = -1;
  std::string address;
  bool without_input = false;
};

TEST_F(SlowDevelop, ServesPagesAndStaticFiles) {
  Write("index.zeph", "start {{ \"<\" }}");
  Write("deep/index.zeph", "deep {{ x }}{{{ y }}}");
  Write("style.css", "p {}");
  Write("about/index.html", "<p>about");
  Start();
  EXPECT_EQ(Curl("/"), "start &lt;");
  EXPECT_EQ(Curl("/index.zpc"), "start &lt;");
  EXPECT_EQ(Curl("/deep/?x=1%3C"), "deep 1&lt;");
  EXPECT_EQ(Curl("/deep/", {"-d", "y=2"}), "deep 2");
  EXPECT_EQ(Curl("/style.css"), "p {}");
  EXPECT_EQ(Status("/style.css"), "200 text/css; charset=utf-8");
  EXPECT_EQ(Curl("/about/"), "<p>about");
  EXPECT_EQ(Curl("/about/index.html"), "<p>about");
  EXPECT_THAT(Status("/nothing.css"), StartsWith("404"));
  EXPECT_THAT(Status("/nothing.html"), StartsWith("404"));
  EXPECT_EQ(Curl("/nothing.zpc"), "Unable to execute 'nothing.zpc': No such file or directory");
}

TEST_F(SlowDevelop, APageFindsTheRequestThatARealServerBrings) {
  Write("index.zeph",
        "{{{ REMOTE_ADDR }}}|{{{ SERVER_PROTOCOL }}}|{{{ documenturl }}}|{{{ PATH_INFO }}}");
  Start();
  EXPECT_EQ(Curl("/"), "127.0.0.1|HTTP/1.1|" + address + "index.zpc?|/index.zpc");
}

TEST_F(SlowDevelop, SourcesAndSettingsAreNeverSent) {
  Write("index.zeph", "secret");
  Write("_part.zeph", "secret");
  Write("page.html", "secret");
  Write("README.md", "secret");
  Write("lib/own.functions", "; secret");
  Write("deep/zeph.toml", "# secret");
  Write(".git/config", "secret");
  Write("old.zpa", "; secret");
  for (const char* copy : {"index.zeph~", "#index.zeph#", "index.zeph.bak", "index.zeph.ORIG",
                           "zeph.toml.old", "index.zeph.swo"}) {
    Write(copy, "secret");
  }
  Start();
  for (const char* path : {"/index.zeph",
                           "/INDEX.ZEPH",
                           "/index.zeph/",
                           "/index.zeph/x",
                           "/index.zeph?x",
                           "//index.zeph",
                           "/%69ndex.zeph",
                           "/index%2ezeph",
                           "/index.zep%68",
                           "/deep/../index.zeph",
                           "/./index.zeph",
                           "/deep/%2e%2e/index.zeph",
                           "/index.zeph%00.css",
                           "/_part.zeph",
                           "/zeph.toml",
                           "/ZEPH.TOML",
                           "/zeph.toml/x.css",
                           "/deep/zeph.toml",
                           "/README.md",
                           "/.git/config",
                           "/.zeph/pages/index.zpc",
                           "/.zeph/data/",
                           "/lib/own.functions",
                           "/old.zpa",
                           "/x.zpc/../index.zeph",
                           "/page.html/../index.zeph",
                           "/..%2f..%2fsite/index.zeph",
                           "/-zeph/../index.zeph",
                           "/-zeph/reload.js/../../index.zeph",
                           "/index.zeph~",
                           "/%23index.zeph%23",
                           "/index.zeph.bak",
                           "/index.zeph.ORIG",
                           "/zeph.toml.old",
                           "/index.zeph.swo",
                           "/index.zeph~/"}) {
    SCOPED_TRACE(path);
    EXPECT_THAT(Status(path), Not(StartsWith("200 ")));
    EXPECT_THAT(Curl(path), Not(HasSubstr("secret")));
  }
  EXPECT_EQ(Curl("/page.html"), "secret");
}

TEST_F(SlowDevelop, AChangeIsShownInLessThanHalfASecond) {
  Write("index.zeph", "<ZpINCLUDE \"_part.zeph\">");
  Write("_part.zeph", "0");
  Start();
  EXPECT_EQ(Curl("/"), "0");
  milliseconds longest(0);
  const int changes = 20;
  for (int i = 1; i <= changes; i++) {
    const std::string text = std::to_string(i);
    const auto begin = steady_clock::now();
    Write("_part.zeph", text);
    ASSERT_TRUE(Eventually([&] { return Curl("/") == text; }));
    longest =
        std::max(longest, std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin));
  }
  RecordProperty("longest_milliseconds", static_cast<int>(longest.count()));
  // Much time for a machine that does other things as well.
  EXPECT_LT(longest.count(), 5000);
}

TEST_F(SlowDevelop, ABrokenPageShowsItsErrorsUntilItIsRepaired) {
  Write("index.zeph", "good");
  Write("other.zeph", "other");
  Start();
  Write("index.zeph", "one\n<ZpASIGN x = \"<b>\">\n");
  ASSERT_TRUE(Eventually([&] { return Status("/") == "500 text/html; charset=utf-8"; }));
  const std::string page = Curl("/");
  EXPECT_THAT(page, HasSubstr("there is no tag 'ZpASIGN'; did you mean 'ZpASSIGN'?"));
  EXPECT_THAT(page, HasSubstr("index.zeph:2:1"));
  EXPECT_THAT(page, HasSubstr("<mark>&lt;ZpASIGN</mark> x = &quot;&lt;b&gt;&quot;&gt;"));
  EXPECT_THAT(page, HasSubstr("in <code>&lt;ZpASIGN&gt;</code>"));
  EXPECT_THAT(Output(), HasSubstr("index.zeph:2:1: error: there is no tag 'ZpASIGN'"));
  EXPECT_EQ(Curl("/other.zpc"), "other");
  Write("index.zeph", "repaired");
  EXPECT_TRUE(Eventually([&] { return Curl("/") == "repaired"; }));
}

TEST_F(SlowDevelop, NewPagesAppearAndDeletedOnesGo) {
  Write("index.zeph", "x");
  Start();
  Write("new/er/page.zeph", "new");
  EXPECT_TRUE(Eventually([&] { return Curl("/new/er/page.zpc") == "new"; }));
  std::filesystem::remove_all(directory.path("site/new"));
  EXPECT_TRUE(
      Eventually([&] { return Curl("/new/er/page.zpc").rfind("Unable to execute", 0) == 0; }));
  EXPECT_FALSE(directory.Exists("site/.zeph/pages/new/er/page.zpc"));
}

TEST_F(SlowDevelop, SettingsHoldAtOnceAndMistakesAreShown) {
  Write("index.zeph", "{{ greeting }}");
  Start();
  Write("zeph.toml", EncodingSettings() + "[variables.system]\ngreeting = \"hello\"\n");
  EXPECT_TRUE(Eventually([&] { return Curl("/") == "hello"; }));
  Write("zeph.toml", EncodingSettings() + "[variables.sistem]\n");
  EXPECT_TRUE(Eventually([&] { return Curl("/").find("zeph.toml:4:1") != std::string::npos; }))
      << Curl("/");
  // A setting may be a password: its line is on the terminal only.
  EXPECT_THAT(Curl("/"), Not(HasSubstr("[variables.sistem]")));
  EXPECT_THAT(Output(), HasSubstr("\n[variables.sistem]\n"));
  Write("zeph.toml", EncodingSettings() + "[variables.system]\ngreeting = \"again\"\n");
  EXPECT_TRUE(Eventually([&] { return Curl("/") == "again"; }));
}

TEST_F(SlowDevelop, OnlyVisitsOfPagesGetTheScript) {
  const std::string script = "<script src=\"/-zeph/reload.js?";
  Write("index.zeph", "<h1>x</h1>");
  Write("page.html", "<h1>y</h1>");
  Write("data.json", "{}");
  Start();
  EXPECT_THAT(Visit("/"), StartsWith("<h1>x</h1>" + script));
  EXPECT_THAT(Visit("/page.html"), StartsWith("<h1>y</h1>" + script));
  EXPECT_EQ(Curl("/"), "<h1>x</h1>");
  EXPECT_EQ(Curl("/", {"-H", "Accept: text/html", "-H", "Sec-Fetch-Dest: empty"}), "<h1>x</h1>");
  EXPECT_THAT(Curl("/", {"-H", "Sec-Fetch-Dest: document"}), HasSubstr(script));
  EXPECT_EQ(Visit("/data.json"), "{}");
  EXPECT_THAT(Curl("/", {"-I", "-H", "Accept: text/html"}), HasSubstr("Content-Length: 10\r\n"));
  // The web server counts the bytes of a changed page again.
  const std::string whole = Curl("/", {"-i", "-H", "Accept: text/html"});
  const std::string body = whole.substr(whole.find("\r\n\r\n") + 4);
  EXPECT_THAT(whole, HasSubstr("Content-Length: " + std::to_string(body.size()) + "\r\n"));
}

TEST_F(SlowDevelop, ALargePageAndALargeFormPass) {
  Write("index.zeph", "<ZpFOR i = 1 to 60000>0123456789012345678901234567890123456789\n</ZpFOR>");
  Write("form.zeph", "{{{ text }}}");
  Start();
  EXPECT_EQ(Curl("/").size(), 60000u * 41);
  EXPECT_THAT(Visit("/"), HasSubstr("9\n<script"));
  const std::string sent(3000000, 'x');
  const std::string file = directory.File("form", "text=" + sent);
  EXPECT_EQ(Curl("/form.zpc", {"--data-binary", "@" + file}), sent);
}

TEST_F(SlowDevelop, ARunTimeErrorIsShownInItsSource) {
  Write("index.zeph", "one\ntwo\n<ZpDO file=\"nowhere.zpc\">\n");
  Start();
  const std::string page = Visit("/");
  EXPECT_THAT(page, HasSubstr("index.zeph: Line 3: ZpDO: "));
  EXPECT_THAT(page, HasSubstr("<code>index.zeph:3</code>"));
  EXPECT_THAT(page, HasSubstr("&lt;ZpDO file=&quot;nowhere.zpc&quot;&gt;"));
  EXPECT_THAT(Output(), HasSubstr("index.zeph:3: error: ZpDO: "));
  EXPECT_THAT(Curl("/"), Not(HasSubstr("<code>")));
}

TEST_F(SlowDevelop, ABusyPortIsAnErrorOfItsOwn) {
  const ListeningPeer other([](ListeningPeer::Connection&) {});
  const std::string port = std::to_string(other.port());
  Command command({InBuild("bin/zeph"), "dev", directory.path("site"), port});
  EXPECT_EQ(command.Run(), 1);
  EXPECT_EQ(command.errors,
            "zeph: port " + port +
                " is in use; zeph dev DIR PORT takes another one, 0 any that is free\n");
  EXPECT_EQ(command.output, "");
  Command nowhere({InBuild("bin/zeph"), "dev", directory.path("nowhere")});
  EXPECT_EQ(nowhere.Run(), 1);
  EXPECT_EQ(nowhere.errors, "zeph: there is no folder " + directory.path("nowhere") + "\n");
}

TEST_F(SlowDevelop, TheEndLeavesNothingRunning) {
  Write("index.zeph", "x");
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(number);
    Start();
    EXPECT_EQ(Curl("/"), "x");
    const std::vector<pid_t> children = ChildrenOf(server);
    EXPECT_EQ(children.size(), 2u);
    EXPECT_EQ(End(number), 0) << Output();
    for (const pid_t child : children) EXPECT_FALSE(Alive(child));
    EXPECT_TRUE(std::filesystem::is_empty(directory.path("temp")));
    std::filesystem::remove(directory.path("output"));
  }
}

// The events of a page that someone looks at do not hold it up.
TEST_F(SlowDevelop, TheEndWaitsForNoBrowser) {
  Write("index.zeph", "x");
  Start();
  const std::string page = Visit("/");
  const size_t at = page.find('?') + 1;
  const std::string version = page.substr(at, page.find('"', at) - at);
  Command listener({"/usr/bin/curl", "-sN", address + "-zeph/events?" + version});
  listener.Start();
  listener.WaitForOutput();
  const auto begin = steady_clock::now();
  EXPECT_EQ(End(), 0);
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(20));
  listener.Finish();
}

// A task of a page writes its file to the end, unless someone is in a hurry.
TEST_F(SlowDevelop, TheEndWaitsForATask) {
  Write("index.zeph",
        "<ZpASYNC><ZpFOR i = 1 to 40000><ZpASSIGN g.n = i><ZpEXPORT file=\"done.txt\" fields=\"n\">"
        "</ZpFOR></ZpASYNC>x");
  Start();
  EXPECT_EQ(Curl("/"), "x");
  ASSERT_TRUE(Eventually([&] { return directory.Exists("site/.zeph/data/done.txt"); }));
  EXPECT_EQ(End(), 0);
  // Each record is whole.
  const std::string text = directory.Content("site/.zeph/data/done.txt");
  EXPECT_EQ(text.back(), '\n');
}

TEST_F(SlowDevelop, BothServersEndWhenItIsKilled) {
  Write("index.zeph", "x");
  Start();
  EXPECT_EQ(Curl("/"), "x");
  const std::vector<pid_t> children = ChildrenOf(server);
  EXPECT_EQ(children.size(), 2u);
  End(SIGKILL);
  for (const pid_t child : children) {
    EXPECT_TRUE(Eventually([&] { return !Alive(child); }));
  }
}

TEST_F(SlowDevelop, AnEngineThatHasEndedIsStartedAgain) {
  Write("index.zeph", "x");
  Start();
  std::this_thread::sleep_for(milliseconds(1100));
  const pid_t engine = Engine();
  ASSERT_GT(engine, 0);
  SignalProcess(engine, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return Curl("/") == "x"; }));
  EXPECT_THAT(Output(), HasSubstr("zeph: the engine has ended: Killed"));
}

TEST_F(SlowDevelop, AnEngineThatEndsAgainAndAgainIsStartedAgain) {
  Write("index.zeph", "x");
  Start();
  for (int i = 0; i < 4; i++) {
    pid_t engine = 0;
    ASSERT_TRUE(Eventually([&] { return (engine = Engine()) > 0; })) << Output();
    SignalProcess(engine, SIGKILL);
    ASSERT_TRUE(Eventually([&] { return Engine() == 0; }));
  }
  // A visitor who comes meanwhile waits.
  EXPECT_EQ(Curl("/"), "x") << Output();
  EXPECT_THAT(Output(), HasSubstr("Killed; it is started again in 100 ms\n"));
  EXPECT_THAT(Output(), HasSubstr("Killed; it is started again in 800 ms\n"));
  EXPECT_EQ(End(), 0);
}

TEST_F(SlowDevelop, ItNeedsNoStandardInput) {
  without_input = true;
  Write("index.zeph", "x");
  Write("style.css", "y");
  Start();
  EXPECT_EQ(Curl("/"), "x");
  EXPECT_EQ(Curl("/style.css"), "y");
  EXPECT_EQ(End(), 0);
}

// The name of another host may be made to mean this machine.
TEST_F(SlowDevelop, OnlyNamesOfThisMachineAreServed) {
  Write("index.zeph", "x");
  Write("style.css", "x");
  Write("page.html", "x");
  Start();
  for (const char* path : {"/", "/style.css", "/page.html", "/-zeph/reload.js"}) {
    SCOPED_TRACE(path);
    for (const char* host : {"example.com", "127.0.0.1.example.com", "localhost.example.com:80",
                             "example.com:127.0.0.1"}) {
      EXPECT_THAT(Curl(path, {"-i", "-H", "Host: " + std::string(host)}),
                  testing::ContainsRegex("^HTTP/1.1 40[03] "))
          << host;
    }
    for (const char* host :
         {"localhost", "LOCALHOST:8080", "127.0.0.1", "127.0.0.1:1", "[::1]:80"}) {
      EXPECT_THAT(Curl(path, {"-i", "-H", "Host: " + std::string(host)}),
                  StartsWith("HTTP/1.1 200 "))
          << host;
    }
  }
}

TEST_F(SlowDevelop, LinksAreNotFollowed) {
  directory.File("outside/secret.css", "secret");
  directory.File("outside/secret.html", "secret");
  Write("style.css", "x");
  directory.Link("site/link.css", "../outside/secret.css");
  directory.Link("site/link.html", "../outside/secret.html");
  directory.Link("site/folder", "../outside");
  Start();
  EXPECT_EQ(Curl("/style.css"), "x");
  for (const char* path :
       {"/link.css", "/link.html", "/folder/secret.css", "/folder/secret.html"}) {
    EXPECT_THAT(Status(path), StartsWith("40")) << path;
    EXPECT_THAT(Curl(path), Not(HasSubstr("secret"))) << path;
  }
}

TEST_F(SlowDevelop, AFolderMayHaveTheNameOfAPage) {
  Write("v1.html/style.css", "x");
  Write("A.HTML", "page");
  Start();
  EXPECT_EQ(Status("/v1.html/style.css"), "200 text/css; charset=utf-8");
  EXPECT_THAT(Visit("/A.HTML"), StartsWith("page<script "));
  EXPECT_THAT(Status("/A.HTML/x"), StartsWith("40"));
}

TEST_F(SlowDevelop, ALinkInThePlaceOfItsFolderIsRefused) {
  directory.File("home/precious.zpc", "x");
  directory.Directory("site/.zeph");
  directory.Link("site/.zeph/pages", "../../home");
  Command command(
      {"/usr/bin/timeout", "20", InBuild("bin/zeph"), "dev", directory.path("site"), "0"});
  EXPECT_EQ(command.Run(), 1);
  EXPECT_THAT(command.errors, HasSubstr("/.zeph/pages is a link"));
  EXPECT_TRUE(directory.Exists("home/precious.zpc"));
}

TEST_F(SlowDevelop, AnIncludedFileOutsideOfTheSiteMayComeLater) {
  Write("index.zeph", "<ZpINCLUDE \"../shared/deep/_x.zeph\">");
  Start();
  EXPECT_THAT(Status("/"), StartsWith("500"));
  directory.File("shared/deep/_x.zeph", "there");
  EXPECT_TRUE(Eventually([&] { return Curl("/") == "there"; })) << Output();
}

TEST_F(SlowDevelop, ManyVisitorsAtATimeAreServed) {
  Write("index.zeph", "x");
  Start();
  std::vector<std::unique_ptr<Command>> visitors;
  for (int i = 0; i < 50; i++) {
    visitors.push_back(std::make_unique<Command>(
        std::vector<std::string>{"/usr/bin/curl", "-s", "--max-time", "30", address}));
    visitors.back()->Start();
  }
  for (const auto& visitor : visitors) {
    EXPECT_EQ(visitor->Finish(), 0);
    EXPECT_EQ(visitor->output, "x");
  }
}

TEST_F(SlowDevelop, EventsTellOfAChange) {
  Write("index.zeph", "x");
  Write("style.css", "a");
  Start();
  const std::string page = Visit("/");
  const size_t at = page.find('?') + 1;
  const std::string version = page.substr(at, page.find('"', at) - at);
  Command listener({"/usr/bin/curl", "-sN", address + "-zeph/events?" + version});
  listener.Start();
  listener.WaitForOutput();
  Write("style.css", "b");
  EXPECT_EQ(listener.Finish(), 0);
  EXPECT_THAT(listener.output, HasSubstr("data: changed\n\n"));
  // A page of an earlier version is told at once.
  EXPECT_THAT(Curl("/-zeph/events?" + version), HasSubstr("data: changed\n\n"));
  EXPECT_THAT(Curl("/-zeph/events?x"), HasSubstr("data: changed\n\n"));
}

TEST_F(SlowDevelop, TheNewSiteIsServed) {
  Command made({InBuild("bin/zeph"), "new", directory.path("made")});
  ASSERT_EQ(made.Run(), 0) << made.errors;
  ProvideLibrary(directory.path("made"));
  std::filesystem::remove_all(directory.path("site"));
  std::filesystem::rename(directory.path("made"), directory.path("site"));
  Start();
  EXPECT_THAT(Curl("/", {"-d", "name=Ann", "-d", "cups=1"}), HasSubstr("<h2>Hello, Ann!</h2>"));
  EXPECT_THAT(Status("/style.css"), StartsWith("200 text/css"));
}

TEST_F(SlowDevelop, ABrowserShowsAPageAgainWhenItChanges) {
  REQUIRE_PROGRAM("/usr/bin/chromedriver");
  REQUIRE_PROGRAM("/usr/bin/chromium");
  Write("index.zeph", "x");
  Write("part.html", "exactly this");
  Start();
  Command browser({"/usr/bin/python3", "-B", InSource("tests/support/reload.py"), address,
                   directory.path("site/index.zeph")});
  ASSERT_EQ(browser.Run(), 0) << browser.output << browser.errors << Output();
  EXPECT_THAT(browser.output, HasSubstr("opened|"));
  EXPECT_THAT(browser.output, HasSubstr("|third\n"));
  EXPECT_THAT(browser.output, HasSubstr("place|0|index.zeph:1:16<ZpASIGN>"));
  EXPECT_THAT(browser.output, HasSubstr("|repaired\n"));
  EXPECT_THAT(browser.output, HasSubstr("|teaempty\n"));
  EXPECT_THAT(browser.output, HasSubstr("|again\n"));
  EXPECT_THAT(browser.output, HasSubstr("|got exactly this\n"));
  std::cout << browser.output;
}

}  // namespace
