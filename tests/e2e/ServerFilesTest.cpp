// The files for web servers in packaging/web, as they are but for their folders: nginx, lighttpd
// and Apache serve a site on port 80 of a network of the test's own, with an engine that runs by
// itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/PrivateNetwork.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
    count++;
  }
  EXPECT_GT(count, 0u) << "the file has no " << from;
  return text;
}

class SlowServerFiles : public testing::Test {
 protected:
  // A web server that is told to ends its workers; after SIGKILL they would go on.
  ~SlowServerFiles() override {
    if (!server) return;
    server->Signal(SIGTERM);
    server->Finish();
  }

  void SetUp() override {
    if (!network.why_not().empty()) GTEST_SKIP() << network.why_not();
    // The web servers give up the rights of root.
    std::filesystem::permissions(engine.Path(""), std::filesystem::perms(0755));
    engine.Write("scripts/style.css", "p { color: green }\n");
    engine.Write("scripts/plain/index.html", "<p>a page of no script</p>");
    engine.Write("scripts/secret.zeph", "the source");
    engine.Write("scripts/.git/config", "hidden");
    engine.Write("scripts/.well-known/security.txt", "Contact");
    engine.Script("plain/index.zpc", Writes("<p>never the index</p>"));
    engine.Script("index.zpc", Writes("<p>the start page</p>"));
    engine.Script("shop/index.zpc", Writes("<p>the shop</p>"));
    engine.Script("path.zpc", "pushs documenturl\nout\npushs PATH_INFO\nout\n");
    engine.Script("form.zpc", "pushg a\nout\npushc \"|\"\nout\npushg b\nout\n");
    for (const char* status : {"502", "503", "504"}) {
      Folder("errors");
      std::filesystem::copy_file(InSource("packaging/web/unavailable.html"),
                                 engine.Path("errors/") + status + ".html");
    }
    // An engine with options would run its first one for a request without PATH_INFO.
    engine.arguments = {"-t", "4"};
    std::filesystem::copy_file(EngineProcess::ConfigurationLibrary(),
                               engine.Path("work/libzephconfig.so"));
    ASSERT_TRUE(engine.Start());
    ASSERT_EQ(chmod(engine.socket().c_str(), 0666), 0);
  }

  void Folder(const std::string& name) {
    std::filesystem::create_directories(engine.Path(name));
    std::filesystem::permissions(engine.Path(name), std::filesystem::perms(0777));
  }

  // The file with the folders of the test.
  std::string File(const std::string& name) {
    std::ifstream file(InSource("packaging/web/" + name));
    std::stringstream text;
    text << file.rdbuf();
    std::string adapted = Replaced(text.str(), "/run/zeph/zeph.sock", engine.socket());
    adapted = Replaced(adapted, "/var/lib/zeph/site", engine.Path("scripts"));
    return Replaced(adapted, "/usr/share/zeph/errors", engine.Path("errors"));
  }

  void Serve(std::vector<std::string> command) {
    server = std::make_unique<Command>(std::move(command));
    server->output_file = engine.Path("server.log");
    server->Start();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (StatusOf("/style.css") != "200" && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  void ServeWithNginx(const std::string& site) {
    Folder("run");
    engine.Write("nginx.conf",
                 "daemon off;\nuser root;\npid " + engine.Path("run/pid") +
                     ";\nerror_log stderr warn;\nevents {}\nhttp {\naccess_log off;\n"
                     "types { text/css css; text/html html; }\nclient_body_temp_path body;\n"
                     "fastcgi_temp_path fastcgi; proxy_temp_path proxy; uwsgi_temp_path uwsgi;\n"
                     "scgi_temp_path scgi;\n" +
                     site + "}\n");
    Serve({"/usr/sbin/nginx", "-e", engine.Path("run/errors"), "-p", engine.Path("run"), "-c",
           engine.Path("nginx.conf")});
  }

  void ServeWithApache(const std::string& site) {
    Folder("run");
    std::string modules;
    for (const char* name : {"mpm_event", "authz_core", "alias", "dir", "mime", "setenvif", "proxy",
                             "proxy_fcgi", "reqtimeout"}) {
      modules += std::string("LoadModule ") + name + "_module /usr/lib/apache2/modules/mod_" +
                 name + ".so\n";
    }
    const std::string run = engine.Path("run");
    const std::string configuration =
        modules + "Listen 80\nServerName localhost\nUser www-data\nGroup www-data\nServerRoot " +
        run + "\nDefaultRuntimeDir " + run + "\nPidFile " + run + "/pid\nErrorLog " + run +
        "/errors\nTypesConfig " + engine.Write("types", "text/css css\n") +
        "\n<Directory />\nRequire all denied\n</Directory>\n" + site;
    Serve({"/usr/sbin/apache2", "-D", "FOREGROUND", "-f",
           engine.Write("apache.conf", configuration)});
  }

  std::string Curl(const std::string& path, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"/usr/bin/curl", "-s", "--max-time", "60"});
    options.push_back("http://127.0.0.1" + path);
    Command curl(options);
    curl.Run();
    return curl.output;
  }
  std::string StatusOf(const std::string& path, std::vector<std::string> options = {}) {
    options.insert(options.end(), {"-o", "/dev/null", "-w", "%{http_code}"});
    return Curl(path, options);
  }

  void ExpectSite() {
    EXPECT_EQ(Curl("/"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/?x=1"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/index.zpc"), "<p>the start page</p>");
    EXPECT_EQ(Curl("/shop/"), "<p>the shop</p>");
    EXPECT_EQ(Curl("/plain/"), "<p>a page of no script</p>");
    EXPECT_EQ(Curl("/style.css"), "p { color: green }\n");
    EXPECT_EQ(Curl("/path.zpc"), "http://127.0.0.1/path.zpc?/path.zpc");
    EXPECT_EQ(Curl("/nowhere.zpc"), "Unable to execute 'nowhere.zpc': No such file or directory");
    EXPECT_THAT(Curl("/INDEX.ZPC"), Not(HasSubstr("Zeph\x0b")));
    EXPECT_EQ(Curl("/.well-known/security.txt"), "Contact");
    for (const char* hidden : {"/secret.zeph", "/SECRET.ZEPH", "/.git/config"}) {
      EXPECT_THAT(StatusOf(hidden), StartsWith("40")) << hidden;
    }
  }

  void ExpectForms() {
    EXPECT_EQ(Curl("/form.zpc?a=1", {"-d", "b=2"}), "1|2");
    EXPECT_EQ(Curl("/form.zpc", {"-F", "a=1", "-F", "b=two words"}), "1|two words");
    const std::string value(2000000, 'v');
    EXPECT_EQ(Curl("/form.zpc", {"--data-urlencode", "a@" + engine.Write("value", value)}).size(),
              value.size() + 1);
    const std::string large = engine.Write("large", "");
    std::filesystem::resize_file(large, 70000000);
    EXPECT_EQ(StatusOf("/form.zpc", {"-H", "Expect:", "--data-binary", "@" + large}), "413");
  }

  // Last, because the engine does not come back.
  void ExpectPageWithoutEngine(const std::string& status) {
    engine.Signal(SIGKILL);
    engine.Wait();
    EXPECT_THAT(Curl("/index.zpc"), HasSubstr("<h1>Back soon</h1>"));
    EXPECT_EQ(StatusOf("/index.zpc"), status);
    EXPECT_EQ(StatusOf("/style.css"), "200");
  }

  PrivateNetwork network;
  EngineProcess engine;
  std::unique_ptr<Command> server;
};

TEST_F(SlowServerFiles, Nginx) {
  ServeWithNginx(File("nginx.conf"));
  ExpectSite();
  ExpectForms();
  ExpectPageWithoutEngine("502");
}

// What the file says of a second site: a folder of the engine's, with a name of its own.
TEST_F(SlowServerFiles, NginxServesTwoSitesWithOneEngine) {
  const std::string first = File("nginx.conf");
  const std::string second = first.substr(first.find("server {\n  listen"));
  std::string shop = Replaced(second, "PATH_INFO       $uri", "PATH_INFO /shop$uri");
  shop = Replaced(shop, "root " + engine.Path("scripts"), "root " + engine.Path("scripts/shop"));
  shop = Replaced(shop, "server_name _", "server_name shop.example");
  ServeWithNginx(first + shop);
  EXPECT_EQ(Curl("/"), "<p>the start page</p>");
  EXPECT_EQ(Curl("/", {"-H", "Host: shop.example"}), "<p>the shop</p>");
  EXPECT_EQ(
      Curl("/shop/index.zpc", {"-H", "Host: shop.example"}),
      "Unable to execute 'shop/shop/index.zpc': The specified path references a directory that "
      "does not exist");
}

TEST_F(SlowServerFiles, Lighttpd) {
  if (access("/usr/sbin/lighttpd", X_OK) != 0) GTEST_SKIP() << "lighttpd is not installed";
  Serve({"/usr/sbin/lighttpd", "-D", "-f", engine.Write("lighttpd.conf", File("lighttpd.conf"))});
  ExpectSite();
  ExpectForms();
  ExpectPageWithoutEngine("503");
}

// With the lines of docs/webservers.md.
TEST_F(SlowServerFiles, LighttpdServesTwoSitesWithOneEngine) {
  if (access("/usr/sbin/lighttpd", X_OK) != 0) GTEST_SKIP() << "lighttpd is not installed";
  engine.Write("scripts/shop/style.css", "p { color: red }\n");
  std::ifstream file(InSource("docs/webservers.md"));
  std::stringstream page;
  page << file.rdbuf();
  const std::string text = page.str();
  const size_t begin = text.find("    $HTTP[\"host\"] == \"shop.example\" {");
  ASSERT_NE(begin, std::string::npos);
  const std::string second = text.substr(begin, text.find("    }\n", begin) + 6 - begin);
  Serve({"/usr/sbin/lighttpd", "-D", "-f",
         engine.Write("lighttpd.conf", File("lighttpd.conf") + second)});
  const std::vector<std::string> shop = {"-H", "Host: shop.example"};
  EXPECT_EQ(Curl("/"), "<p>the start page</p>");
  EXPECT_EQ(Curl("/style.css"), "p { color: green }\n");
  EXPECT_EQ(Curl("/", shop), "<p>the shop</p>");
  EXPECT_EQ(Curl("/index.zpc?x=1", shop), "<p>the shop</p>");
  EXPECT_EQ(Curl("/style.css", shop), "p { color: red }\n");
  EXPECT_EQ(Curl("/path.zpc", shop),
            "Unable to execute 'shop/path.zpc': No such file or directory");
}

TEST_F(SlowServerFiles, Apache) {
  if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "apache2 is not installed";
  ServeWithApache(File("apache.conf"));
  ExpectSite();
  EXPECT_EQ(StatusOf("/form.zpc", {"-H", "Transfer-Encoding: chunked", "-d", "a=1"}), "411");
  ExpectForms();
  ExpectPageWithoutEngine("503");
}

TEST_F(SlowServerFiles, ApacheServesASiteInAFolderOfTheEngine) {
  if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "apache2 is not installed";
  std::string shop = Replaced(File("apache.conf"), "PATH_INFO \"%{REQ", "PATH_INFO \"/shop%{REQ");
  shop = Replaced(shop, engine.Path("scripts"), engine.Path("scripts/shop"));
  engine.Write("scripts/shop/style.css", "");
  ServeWithApache(shop);
  EXPECT_EQ(Curl("/"), "<p>the shop</p>");
  EXPECT_EQ(Curl("/index.zpc?x=1"), "<p>the shop</p>");
}

// Without the lines that set PATH_INFO, for web servers that cannot.
TEST_F(SlowServerFiles, ApacheIsServedByTheScriptsNameIfThatIsSet) {
  if (access("/usr/sbin/apache2", X_OK) != 0) GTEST_SKIP() << "apache2 is not installed";
  engine.settings = "path_from_script_name = true\n";
  engine.WriteConfiguration();
  std::string site = File("apache.conf");
  for (const char* name : {"PATH_INFO \"%{REQUEST_URI}\"", "SCRIPT_NAME \"\""}) {
    site = Replaced(site, std::string("ProxyFCGISetEnvIf \"true\" ") + name, "");
  }
  ServeWithApache(site);
  EXPECT_EQ(Curl("/index.zpc"), "<p>the start page</p>");
  EXPECT_EQ(Curl("/"), "<p>the start page</p>");
  EXPECT_EQ(Curl("/shop/?x=1"), "<p>the shop</p>");
  EXPECT_EQ(Curl("/nowhere.zpc"), "Unable to execute 'nowhere.zpc': No such file or directory");
}

}  // namespace
