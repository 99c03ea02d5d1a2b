// The engine with real web servers, and curl as the browser. The servers listen on UNIX sockets, so
// that no port is taken.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Paths.h"
#include "tests/support/SignalProcess.h"
#include "tests/support/UploadMachine.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

using Milliseconds = EngineProcess::Milliseconds;
constexpr Milliseconds start_timeout(30000);
constexpr Milliseconds end_timeout(40000);

template <typename Test>
bool Eventually(Milliseconds timeout, Test test) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!test()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(Milliseconds(10));
  }
  return true;
}

// The output of a command; its errors go to the test's own standard error.
std::string OutputOf(const std::string& command) {
  std::string text;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "(popen failed)";
  std::array<char, 4096> buffer;
  while (size_t count = fread(buffer.data(), 1, buffer.size(), pipe))
    text.append(buffer.data(), count);
  pclose(pipe);
  return text;
}

// The process that an engine's wrapper has noted; 0 if there is none.
pid_t NotedProcess(const std::string& path) {
  std::ifstream file(path);
  pid_t pid = 0;
  file >> pid;
  return pid;
}

bool Alive(pid_t pid) {
  return pid > 0 && kill(pid, 0) == 0;
}

// A program in the foreground, with a group of its own and its output in a file.
class Server {
 public:
  ~Server() { Stop(SIGKILL); }

  void Start(const std::string& command, const std::string& log) {
    pid = fork();
    if (pid != 0) return;
    setpgid(0, 0);
    int descriptor = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(descriptor, 1);
    dup2(descriptor, 2);
    execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }

  // Sends a signal and waits for the end. Returns the exit status, 128 and more for a signal.
  int Stop(int number) {
    if (pid <= 0) return -1;
    SignalProcess(pid, number);
    int status = 0;
    waitpid(pid, &status, 0);
    pid = 0;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

  pid_t pid = 0;
};

// The engine's files and configuration, and a site for a web server to serve.
class SlowWebServers : public testing::Test {
 protected:
  SlowWebServers() {
    engine.Write("scripts/style.css", "p { color: green }\n");
    engine.Script("index.zpc", Writes("<p>the start page</p>"));
    engine.Script("shop/index.zpc", Writes("<p>the shop</p>"));
    engine.Script("large.zpc", Floods(500));
    engine.Script("form.zpc", FormScript());
    engine.settings =
        "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/libshelf.so") + "\"\n";
    engine.WriteConfiguration();
    engine.Write("engine.sh", "#!/bin/sh\necho $$ >'" + engine.Path("engine.pid") + "'\ncd '" +
                                  InBuild("lib") + "' && ZEPH_CONFIG='" + engine.Path("zeph.toml") +
                                  "' exec '" + EngineProcess::Program() + "'\n");
    chmod(engine.Path("engine.sh").c_str(), 0755);
  }

  // The web server starts the engine here, but it must end with the test.
  ~SlowWebServers() override {
    pid_t pid = NotedProcess(engine.Path("engine.pid"));
    if (Alive(pid)) SignalProcess(pid, SIGKILL);
  }

  // A request for a path, with curl's options before it.
  std::string Curl(const std::string& path, const std::string& options = "-s") {
    return OutputOf("curl --max-time 60 --unix-socket '" + engine.Path("http.sock") + "' " +
                    options + " 'http://localhost" + path + "'");
  }

  std::string StatusOf(const std::string& path) {
    return Curl(path, "-s -o /dev/null -w '%{http_code} %{content_type}'");
  }

  bool WaitUntilItServes() {
    return Eventually(start_timeout, [&] { return StatusOf("/").substr(0, 3) == "200"; });
  }

  void ExpectSite() {
    EXPECT_EQ(Curl("/index.zpc"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/shop/"), "<p>the shop</p>");
    EXPECT_EQ(Curl("/index.zpc?x=1&y=2"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/style.css"), "p { color: green }\n");
    EXPECT_THAT(StatusOf("/style.css"), StartsWith("200 text/css"));
    EXPECT_THAT(StatusOf("/index.zpc"), StartsWith("200 text/html"));
    // The engine's failures are pages like any other.
    EXPECT_EQ(Curl("/nowhere.zpc"), "Unable to execute 'nowhere.zpc': No such file or directory");
    EXPECT_THAT(StatusOf("/nowhere.zpc"), StartsWith("200 text/html"));
    EXPECT_THAT(StatusOf("/nowhere.css"), StartsWith("404"));
    EXPECT_EQ(Curl("/large.zpc").size(), 500 * flood_part);
    EXPECT_THAT(Curl("/index.zpc", "-s -D - -o /dev/null"),
                HasSubstr("\r\nSet-Cookie: zixcallerid="));
    EXPECT_THAT(Curl("/index.zpc", "-s -D - -o /dev/null -H 'Cookie: zixcallerid=abc'"),
                HasSubstr("\r\nSet-Cookie: zixcallerid=abc; expires="));
    EXPECT_THAT(Curl("/index.zpc", "-s -D - -o /dev/null"),
                HasSubstr("\r\nContent-Length: 21\r\n"));
    // The server never sends the compiled script itself.
    EXPECT_THAT(Curl("/INDEX.ZPC"), Not(HasSubstr("Zeph\x0b")));
  }

  // Shows fields, the type of a body that is no form, and each file, and keeps the files.
  static std::string FormScript() {
    return "pushg a\nout\npushc \"|\"\nout\npushnc \"b:c\"\nout\npushc \"|\"\nout\n"
           "pushs content_data\nout\nexit\n"
           ".function keep(path, name) external\n.end\n" +
           ValidatesWith("0") +
           ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\n"
           "pushc \"[\"\nout\npushl size\nout\npushc \" \"\nout\npushl path\npushl name\n"
           "call keep\nout\npushc \"]\"\nout\nretn\n.end\n";
  }

  void ExpectForms() {
    EXPECT_EQ(Curl("/form.zpc?a=%31&b:c=2"), "1|2|");
    EXPECT_EQ(Curl("/form.zpc", "-s -d a=1 -d b:c=2"), "1|2|");
    EXPECT_EQ(Curl("/form.zpc", "-s -d a=1 -d a=2 --data-urlencode 'b:c=50% & <more>=+'"),
              "1,2|50% & <more>=+|");
    EXPECT_EQ(Curl("/form.zpc", "-s -F a=1 -F 'b:c=two words'"), "1|two words|");
    EXPECT_EQ(Curl("/form.zpc", "-s -H 'Content-Type: application/json' -d '{\"a\": 1}'"),
              "||{\"a\": 1}");
    // Larger than any buffer on the way.
    const std::string value(200000, 'v');
    const std::string file = engine.Write("value", value);
    EXPECT_EQ(Curl("/form.zpc", "-s --data-urlencode a@" + file).size(), value.size() + 2);
    std::string content;
    for (int i = 0; i < 1000000; i++) content += static_cast<char>(i * 31 + i / 256 + i / 65536);
    const std::string sent = engine.Write("sent.bin", content);
    const std::string empty = engine.Write("empty.txt", "");
    EXPECT_EQ(Curl("/form.zpc", "-s -F a=1 -F 'f=@" + sent + ";type=application/x-test' -F g=@" +
                                    empty + " -F b:c=2"),
              "ask(f|sent.bin|application/x-test)[1000000 sent.bin]"
              "ask(g|empty.txt|text/plain)[0 empty.txt]1|2|");
    EXPECT_EQ(
        OutputOf("cmp '" + sent + "' '" + engine.Path("data/shelf/sent.bin") + "' && echo same"),
        "same\n");
    // An invalid form gets a message, and the connection serves the next request.
    EXPECT_EQ(Curl("/form.zpc",
                   "-s -H 'Content-Type: multipart/form-data; boundary=B' -d 'nothing of it'"),
              "||");
    EXPECT_EQ(Curl("/form.zpc",
                   "-s -H 'Content-Type: multipart/form-data; boundary=B' "
                   "--data-binary @" +
                       engine.Write("preamble", "preamble\r\n")),
              "Failed to find boundary separator");
    EXPECT_EQ(Curl("/form.zpc", "-s -d a=1"), "1||");
  }

  // A body that no one reads does not cut off the page: the engine ends its connection only when
  // the server has had the time to send it. The length is one that refuses the body at once.
  void ExpectPagesBeforeTheirInput() {
    const std::string body = engine.Write("body.bin", std::string(10000000, 'b'));
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(Curl("/form.zpc", "-s -H 'Content-Type: text/x-unknown' --data-binary @" + body),
                "POST content length exceeds configured maximum for unknown content types");
    }
    EXPECT_EQ(Curl("/index.zpc"), "<p>the start page</p>");
  }

  EngineProcess engine;  // never started: the web servers start the program themselves
  Server server;
};

TEST_F(SlowWebServers, LighttpdServesTheSiteAndSpawnsTheEngine) {
  server.Start("env BIND='" + engine.Path("http.sock") + "' PORT=0 RUN='" + engine.Path("work") +
                   "' DOCROOT='" + engine.Path("scripts") + "' ENGINE='" +
                   engine.Path("engine.sh") + "' lighttpd -D -f '" +
                   InSource("script/server.conf") + "'",
               engine.Path("log"));
  ASSERT_TRUE(WaitUntilItServes()) << engine.Log();
  ExpectSite();
  ExpectForms();
  pid_t process = NotedProcess(engine.Path("engine.pid"));
  EXPECT_TRUE(Alive(process));
  server.Stop(SIGTERM);
  // The engine follows within a heartbeat.
  EXPECT_TRUE(Eventually(end_timeout, [&] { return !Alive(process); }));
}

constexpr char nginx_configuration[] = R"(daemon off;
user root;
worker_processes 1;
pid nginx.pid;
error_log stderr warn;
events { worker_connections 256; }
http {
  access_log off; client_max_body_size 20m;
  client_body_temp_path body; fastcgi_temp_path fastcgi; proxy_temp_path proxy;
  uwsgi_temp_path uwsgi; scgi_temp_path scgi;
  types { text/css css; text/html html; }
  upstream zeph { server unix:ROOT/fcgi.sock; }
  server {
    listen unix:ROOT/http.sock;
    root ROOT/scripts;
    location ~ /$ { rewrite ^(.*/)$ $1index.zpc last; }
    location ~* \.zpc($|/) {
      fastcgi_pass zeph;
      fastcgi_param PATH_INFO $uri;
      fastcgi_param SCRIPT_NAME "";
      fastcgi_param QUERY_STRING $query_string;
      fastcgi_param REQUEST_METHOD $request_method;
      fastcgi_param CONTENT_TYPE $content_type;
      fastcgi_param CONTENT_LENGTH $content_length;
      fastcgi_param HTTP_COOKIE $http_cookie if_not_empty;
    }
  }
}
)";

TEST_F(SlowWebServers, NginxServesTheSiteWithAnEngineFromSpawnFcgi) {
  std::string configuration = nginx_configuration;
  for (size_t at; (at = configuration.find("ROOT")) != std::string::npos;)
    configuration.replace(at, 4, engine.Path(""));
  engine.Write("work/nginx.conf", configuration);
  std::string spawned = OutputOf("spawn-fcgi -s '" + engine.Path("fcgi.sock") + "' -- '" +
                                 engine.Path("engine.sh") + "' 2>&1");
  EXPECT_THAT(spawned, HasSubstr("child spawned successfully"));
  server.Start("nginx -p '" + engine.Path("work") + "/' -c nginx.conf", engine.Path("log"));
  ASSERT_TRUE(WaitUntilItServes()) << engine.Log();
  ExpectSite();
  ExpectForms();
  ExpectPagesBeforeTheirInput();
  server.Stop(SIGTERM);
  pid_t process = NotedProcess(engine.Path("engine.pid"));
  ASSERT_TRUE(Alive(process));
  SignalProcess(process, SIGTERM);
  EXPECT_TRUE(Eventually(end_timeout, [&] { return !Alive(process); }));
}

// script/server as users call it: the example site on a free port. The build of these tests exists
// already, so the script builds nothing; files that pages keep go to the test's own folder.
class SlowExampleSite : public SlowWebServers {
 protected:
  // The address; empty if the server does not come up.
  std::string Serve() {
    engine.Folder("run");
    const std::filesystem::path site = engine.Path("site");
    std::filesystem::create_directory(site);
    for (const auto& entry : std::filesystem::directory_iterator(InSource("examples/site"))) {
      if (entry.path().filename() == ".zeph") continue;
      std::filesystem::copy(entry.path(), site / entry.path().filename(),
                            std::filesystem::copy_options::recursive);
    }
    server.Start("env ZEPH_BUILD='" + InBuild("") + "' ZEPH_SITE='" + site.string() + "' TMPDIR='" +
                     engine.Path("run") + "' '" + InSource("script/server") + "'",
                 engine.Path("log"));
    std::string address;
    Eventually(start_timeout, [&] {
      std::string log = engine.Log();
      size_t start = log.find("http://127.0.0.1:");
      if (start == std::string::npos || log.find('\n', start) == std::string::npos) return false;
      address = log.substr(start, log.find('\n', start) - start);
      return true;
    });
    return address;
  }

  // The engine's number, as a page of the site shows it.
  pid_t EngineOfTheSite(const std::string& address) {
    const std::string page = OutputOf("curl -s --max-time 60 " + address + "environment.zpc");
    const std::string before = "<code>process_id</code></th><td>";
    const size_t at = page.find(before);
    return at == std::string::npos ? 0 : atoi(page.c_str() + at + before.size());
  }

  // Signals as a terminal does for Ctrl-C.
  void Interrupt() {
    SignalGroup(server.pid, SIGINT);
    server.Stop(0);
  }

  ~SlowExampleSite() override {
    if (server.pid > 0) Interrupt();
  }
};

TEST_F(SlowExampleSite, TheServerScriptServesItAndLeavesNothingBehind) {
  const std::string address = Serve();
  ASSERT_NE(address, "") << engine.Log();
  std::string page = OutputOf("curl -s --max-time 60 " + address);
  EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
  EXPECT_THAT(page, Not(HasSubstr("error in ")));
  EXPECT_THAT(OutputOf("curl -s --max-time 60 -o /dev/null -w '%{http_code} %{content_type}' " +
                       address + "style.css"),
              StartsWith("200 text/css"));
  EXPECT_THAT(page, HasSubstr("<pre tabindex=\"0\">&lt;ZpASSIGN page = &quot;index&quot;"));
  pid_t process = EngineOfTheSite(address);
  ASSERT_GT(process, 0);
  EXPECT_TRUE(Alive(process));
  Interrupt();
  EXPECT_FALSE(Alive(process));
  EXPECT_EQ(OutputOf("ls '" + engine.Path("run") + "'"), "");
}

bool Installed(const std::string& program) {
  return OutputOf("command -v " + program) != "";
}

// A person's browser: types, ticks, chooses files and sends. tests/support/browser.py has the
// steps.
TEST_F(SlowExampleSite, ABrowserSendsFormsAndFiles) {
  if (!Installed("chromium") || !Installed("chromedriver")) {
    GTEST_SKIP() << "chromium or chromedriver is not installed; script/setup installs both";
  }
  const std::string address = Serve();
  ASSERT_NE(address, "") << engine.Log();
  std::string content;
  for (int i = 0; i < 300000; i++) content += static_cast<char>(i * 31 + i / 256);
  const std::string first = engine.Write("sent/My picture (1).bin", content);
  const std::string second = engine.Write("sent/notes.txt", "one\r\ntwo\r\n--three");
  const std::string shown =
      OutputOf("HOME='" + engine.Folder("home") + "' TMPDIR='" + engine.Folder("browser") +
               "' timeout 100 python3 '" + InSource("tests/support/browser.py") + "' " + address +
               " '" + first + "' '" + second + "' 2>&1");
  for (const char* line :
       {"form|received|Ada <Lovelace> & \xC3\x9Cn\xC3\xAF+1%", "form|received|7",
        "form|received|Oolong", "form|received|Milk,Lemon", "form|received|first line second line",
        "form|kept|Ada <Lovelace> & \xC3\x9Cn\xC3\xAF+1%", "form|ticked|2",
        "upload|before|Nothing yet.", "upload|about|from a <browser>",
        "upload|received|My picture (1).bin my-picture-1.bin application/octet-stream 300000",
        "upload|received|notes.txt notes.txt text/plain 17", "upload|shelf|my-picture-1.bin 300000",
        "upload|shelf|notes.txt 17"}) {
    EXPECT_THAT(shown, HasSubstr(std::string(line) + "\n"));
  }
  EXPECT_THAT(shown, HasSubstr("environment|documenturl|" + address + "environment.zpc?\n"));
  EXPECT_THAT(shown, HasSubstr("Chrome/"));
  // The cookie that the first page has set is the visitor's id on the last one.
  const size_t at = shown.find("callerid|");
  ASSERT_NE(at, std::string::npos) << shown;
  const std::string id = shown.substr(at + 9, 32);
  EXPECT_THAT(shown, HasSubstr("environment|HTTP_COOKIE|zixcallerid=" + id + "\n"));
  EXPECT_EQ(OutputOf("cd '" + engine.Path("site/.zeph/data/shelf") + "' && cmp my-picture-1.bin '" +
                     first + "' && cmp notes.txt '" + second + "' && echo same"),
            "same\n");
}

}  // namespace
