// Calls of scripts in the engine: servers of other makers, with curl as the second opinion; secure
// connections; hosts with several addresses; and servers that stall while the process ends.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cctype>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "base/core/Limits.h"
#include "base/host/ZephApplication.h"
#include "tests/e2e/Pages.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/Paths.h"
#include "tests/support/TLSFiles.h"
#include "tests/support/WebServers.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Milliseconds = EngineProcess::Milliseconds;
using Clock = std::chrono::steady_clock;

// Calls what the fields of the query say. Writes the status line and a line feed, the elements as
// they come, and "|" with the error.
constexpr char kCall[] = R"(
        tagerror 14, 0
        pushg url
        pushg method
        pushg fields
        pushg files
        pushg type
        pushg certificate
        pushg kind
        pushg headers
        pushg seconds
        pushg password
        pushg data
        op_httpn done, 11
        pushg callreturnheader1
        out
        pushc "\n"
        out
each:   pushg callvalue
        out
        op_http_loop each
done:   pushc "|"
        out
        pushg ZpCALL_Error
        out
)";

const char kRefused[] = "Unable to verify server identity";
const char kNoChain[] = "Error establishing SSL connection: certificate verify failed";

std::string Url(const std::string& host, int port, const std::string& path) {
  return "http://" + host + ":" + std::to_string(port) + path;
}

class Calls : public testing::Test {
 protected:
  using Fields = std::vector<std::pair<std::string, std::string>>;

  Calls() {
    engine.settings = "timeout_call = 0\nmemory_limit = 536870912\ndir_ca = \"" +
                      TLSFiles::Get().path("ca") + "\"\n";
    engine.Script("call.zpc", kCall);
  }
  // Makes the engine know those hosts; see FakeResolver.cpp.
  void Hosts(const std::string& hosts) {
    engine.environment["LD_PRELOAD"] = InBuild("lib/test/FakeResolver.so");
    engine.environment["ZEPH_TEST_HOSTS"] = hosts;
    const char* const options = getenv("ASAN_OPTIONS");
    engine.environment["ASAN_OPTIONS"] =
        (options ? std::string(options) + ":" : "") + "verify_asan_link_order=0";
  }
  FastCGIParameters Request(const Fields& fields) {
    std::string query;
    for (const auto& [name, value] : fields) {
      int length, size;
      const std::unique_ptr<char[]> encoded(ZephApplication::EncodeAttribute(
          value.data(), static_cast<int>(value.size()), &length, &size));
      query += name + "=" + std::string(encoded.get(), static_cast<size_t>(length)) + "&";
    }
    return engine.Parameters("/call.zpc", {{"QUERY_STRING", query}});
  }
  std::string Call(const Fields& fields) {
    if (engine.pid() < 0) {
      EXPECT_TRUE(engine.Start());
    }
    FastCGIClient client;
    EXPECT_TRUE(client.Connect(engine.socket()));
    const FastCGIResponse response =
        client.Request(Request(fields), "", false, Milliseconds(20000));
    EXPECT_TRUE(response.ended) << response.problem << engine.Log();
    return response.Body();
  }
  std::string Get(const std::string& url) { return Call({{"url", url}, {"method", "GET"}}); }
  // The body that curl gets.
  static std::string Curl(const std::string& url) {
    Command curl({"/usr/bin/curl", "-sS", "--noproxy", "*", url});
    EXPECT_EQ(curl.Run(), 0) << curl.errors;
    return curl.output;
  }

  EngineProcess engine;
};

// --- Servers of other makers ---------------------------------------------------------------------

std::string PageOf(size_t bytes) {
  std::string page;
  for (size_t i = 0; page.size() < bytes; i++) {
    page += "<p class=\"c" + std::to_string(i) + "\">Text &amp; <br />more \xC3\xA4</p>\n";
  }
  // Whole tags only.
  page.resize(bytes, ' ');
  const size_t open = page.rfind('<');
  if (open != std::string::npos && page.find('>', open) == std::string::npos) {
    page.replace(open, std::string::npos, page.size() - open, '.');
  }
  return page;
}

TEST_F(Calls, BodiesOfAPythonServerAreThoseThatCurlReads) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  REQUIRE_PROGRAM("/usr/bin/curl");
  for (const char* version : {"HTTP/1.0", "HTTP/1.1"}) {
    PythonServer server("", "127.0.0.1", version);
    for (const size_t size : {size_t{1}, size_t{511}, size_t{8192}, size_t{8193}, size_t{300000}}) {
      SCOPED_TRACE(size);
      const std::string page = PageOf(size);
      server.SetBody(page);
      for (const char* path : {"/length", "/close", "/chunked/1000", "/chunked/8192"}) {
        const bool chunked = std::string(path).find("chunked") == 1;
        // Version 1.0 of the protocol has no chunks.
        if (chunked && std::string(version) == "HTTP/1.0") continue;
        SCOPED_TRACE(path);
        const std::string url = Url("127.0.0.1", server.port(), path);
        const std::string curls = Curl(url);
        EXPECT_EQ(curls.size(), page.size());
        EXPECT_TRUE(Get(url) == std::string(version) + " 200 OK\n" + curls + "|");
      }
    }
  }
}

TEST_F(Calls, APageOfTenMegabytesIsWhole) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  // Where each buffer is tiny, this much takes as long.
  const std::string page = PageOf(kOutputBuffer < 8192 ? 1 << 20 : 10 << 20);
  PythonServer server(page);
  for (const char* path : {"/length", "/close", "/chunked/65536"}) {
    SCOPED_TRACE(path);
    const std::string body = Get(Url("127.0.0.1", server.port(), path));
    EXPECT_TRUE(body == "HTTP/1.1 200 OK\n" + page + "|") << body.size();
  }
}

TEST_F(Calls, TheServerOfPythonsLibraryServesItsFolder) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  TemporaryDirectory folder;
  folder.File("a.html", "<h1>Hello</h1>");
  const int port = FreePort();
  Command server(
      {"/usr/bin/python3", "-u", "-m", "http.server", std::to_string(port), "--bind", "127.0.0.1"});
  server.directory = folder.path();
  server.Start();
  server.WaitForOutput();
  EXPECT_EQ(Get(Url("127.0.0.1", port, "/a.html")), "HTTP/1.0 200 OK\n<h1>Hello</h1>|");
  EXPECT_THAT(Get(Url("127.0.0.1", port, "/b.html")), StartsWith("HTTP/1.0 404 File not found\n"));
}

TEST_F(Calls, EveryStatusIsTheScripts) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  PythonServer server("");
  for (const char* status : {"200", "301", "404", "500", "410"}) {
    SCOPED_TRACE(status);
    const std::string page = Get(Url("127.0.0.1", server.port(), std::string("/status/") + status));
    EXPECT_THAT(page, StartsWith(std::string("HTTP/1.1 ") + status + " "));
    EXPECT_THAT(page, HasSubstr(std::string("\n") + status + "|"));
  }
}

// The server's own reader of forms tells what has arrived.
TEST_F(Calls, EveryMethodArrivesAsItShould) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  PythonServer server("");
  const std::string host = "127.0.0.1:" + std::to_string(server.port());
  const std::string pairs = "a=1+2&b=x%26y";
  const auto expected = [&](const std::string& line, const std::string& length,
                            const std::string& type, const std::string& body) {
    return "HTTP/1.1 200 OK\n" + line + " HTTP/1.1\nHost: " + host + "\nConnection: close\n" +
           length + "X-More: yes\n" + type + body + "|";
  };
  const struct {
    const char* method;
    const char* verb;
    char kind;  // q the query, f a form, r the values
    const char* type;
  } rows[] = {
      {"GET", "GET", 'q', ""},
      {"get", "GET", 'q', ""},
      {"FOO", "GET", 'q', ""},
      {"POST", "POST", 'f', "application/x-www-form-urlencoded"},
      {"XML", "POST", 'r', "text/xml"},
      {"RAW", "POST", 'r', "text/plain"},
      {"OPTIONS", "OPTIONS", 'r', "text/plain"},
      {"PUT", "PUT", 'r', "text/plain"},
      {"DELETE", "DELETE", 'r', "text/plain"},
      {"TRACE", "TRACE", 'r', "text/plain"},
      {"CONNECT", "CONNECT", 'r', "text/plain"},
      {"PATCH", "PATCH", 'r', "text/plain"},
      {"LINK", "LINK", 'r', "text/plain"},
      {"UNLINK", "UNLINK", 'r', "text/plain"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method);
    const std::string body = row.kind == 'f' ? pairs : row.kind == 'r' ? "1 2x&y" : "";
    const std::string target = row.kind == 'q' ? "/echo?" + pairs : "/echo";
    EXPECT_EQ(Call({{"url", "http://" + host + "/echo"},
                    {"method", row.method},
                    {"fields", "a,b"},
                    {"headers", "X-More: yes\r\n"},
                    {"a", "1 2"},
                    {"b", "x&y"}}),
              expected(std::string(row.verb) + " " + target,
                       body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\n",
                       *row.type ? std::string("Content-Type: ") + row.type + "\n" : "", body));
  }
  // The head alone: the body runs once, and callvalue is not set.
  EXPECT_EQ(Call({{"url", "http://" + host + "/echo"}, {"method", "HEAD"}}), "HTTP/1.1 200 OK\n|");
}

TEST_F(Calls, UploadsArriveByteForByte) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  PythonServer server("");
  const std::string host = "127.0.0.1:" + std::to_string(server.port());
  engine.Write("data/one.bin", std::string("a\0\r\n\xFF--", 7));
  engine.Write("data/two.txt", "");
  EXPECT_EQ(Call({{"url", "http://" + host + "/echo"},
                  {"method", "POST"},
                  {"fields", "a"},
                  {"files", "f,g"},
                  {"a", "1 2"},
                  {"f", "one.bin"},
                  {"g", "two.txt"}}),
            "HTTP/1.1 200 OK\nPOST /echo HTTP/1.1\nHost: " + host +
                "\nConnection: close\na None None b'1 2'\n"
                "f one.bin unknown b'a\\x00\\r\\n\\xff--'\n"
                "g two.txt unknown b''|");
}

TEST_F(Calls, NginxServesChunksAndLengths) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  TemporaryDirectory folder;
  std::string page = PageOf(200000);
  folder.File("page", page);
  const int port = FreePort();
  NginxServer server("server { listen 127.0.0.1:" + std::to_string(port) + "; root " +
                     folder.path() + "; location /included { alias " + folder.path("page") +
                     "; ssi on; ssi_types *; } location /sent { return 200 \"$request_method "
                     "$http_host $request_uri\"; } }\n");
  server.WaitFor(port);
  EXPECT_TRUE(Get(Url("127.0.0.1", port, "/page")) == "HTTP/1.1 200 OK\n" + page + "|");
  EXPECT_TRUE(Get(Url("127.0.0.1", port, "/included")) == "HTTP/1.1 200 OK\n" + page + "|");
  EXPECT_EQ(Get(Url("127.0.0.1", port, "/sent?a=b")),
            "HTTP/1.1 200 OK\nGET 127.0.0.1:" + std::to_string(port) + " /sent?a=b|");
  EXPECT_THAT(Get(Url("127.0.0.1", port, "/none")), StartsWith("HTTP/1.1 404 Not Found\n"));
}

// --- Addresses -----------------------------------------------------------------------------------

TEST_F(Calls, AnIPv6AddressHasBrackets) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  PythonServer server("", "::1");
  const std::string host = "[::1]:" + std::to_string(server.port());
  EXPECT_EQ(Get("http://" + host + "/echo?x"),
            "HTTP/1.1 200 OK\nGET /echo?x HTTP/1.1\nHost: " + host + "\nConnection: close\n|");
}

TEST_F(Calls, TheSecondAddressIsTriedWhenTheFirstRefuses) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  Hosts("two.test=127.0.0.9,127.0.0.1 six.test=::1,127.0.0.1 none.test=127.0.0.9,127.0.0.8");
  PythonServer server("body");
  for (const char* name : {"two.test", "six.test"}) {
    EXPECT_EQ(Get(Url(name, server.port(), "/length")), "HTTP/1.1 200 OK\nbody|");
  }
  const std::string url = Url("none.test", server.port(), "/");
  EXPECT_EQ(Get(url), "|Unable to open URL '" + url + "': Error connecting to none.test on port " +
                          std::to_string(server.port()) + ": Connection refused");
}

TEST_F(Calls, APortBeyondSixteenBitsReachesNoServer) {
  REQUIRE_PROGRAM("/usr/bin/python3");
  PythonServer server("body");
  const int port = server.port() + 65536;
  EXPECT_THAT(Get(Url("127.0.0.1", port, "/length")),
              HasSubstr("on port " + std::to_string(port) + ": Invalid port"));
}

// --- Secure connections --------------------------------------------------------------------------

TEST_F(Calls, AClientShowsItsCertificateToTheHostThatItAsksFor) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  REQUIRE_PROGRAM("/usr/bin/openssl");
  const TLSFiles& files = TLSFiles::Get();
  Hosts("localhost=127.0.0.1 other.example.net=127.0.0.1");
  const int port = FreePort();
  const auto host = [&](const std::string& name, const std::string& certificate) {
    return "server { listen 127.0.0.1:" + std::to_string(port) + " ssl; server_name " + name +
           "; ssl_certificate " + files.path(certificate) + ".pem; ssl_certificate_key " +
           files.path(certificate) + ".key; ssl_client_certificate " + files.path("authority.pem") +
           "; ssl_verify_client on; location / { return 200 \"$ssl_client_s_dn "
           "$ssl_server_name\"; } }\n";
  };
  NginxServer server(host("localhost", "common") + host("other.example.net", "other"));
  server.WaitFor(port);
  for (const char* file :
       {"client_both.pem", "client_keyfirst.pem", "client_both.der", "client_locked.pem"}) {
    engine.Write(std::string("data/") + file, files.Content(file));
  }
  const std::string own = ":" + std::to_string(port) + "/";
  for (const std::string name : {"localhost", "other.example.net"}) {
    SCOPED_TRACE(name);
    const std::string page = "HTTP/1.1 200 OK\nCN=client " + name + "|";
    const Fields call = {{"url", "https://" + name + own}, {"method", "GET"}};
    const auto with = [&](const Fields& more) {
      Fields all = call;
      all.insert(all.end(), more.begin(), more.end());
      return Call(all);
    };
    EXPECT_EQ(with({{"certificate", "client_both.pem"}, {"kind", "PEM"}}), page);
    EXPECT_EQ(with({{"certificate", "client_keyfirst.pem"}, {"kind", "PEM"}}), page);
    EXPECT_EQ(with({{"certificate", "client_both.der"}, {"kind", "ASN1"}}), page);
    EXPECT_EQ(with({{"certificate", "client_locked.pem"}, {"kind", "PEM"}, {"password", "secret"}}),
              page);
    EXPECT_EQ(with({{"data", files.Content("client_both.pem")}, {"kind", "PEM"}}), page);
    EXPECT_THAT(
        with({{"certificate", "client_locked.pem"}, {"kind", "PEM"}, {"password", "other"}}),
        HasSubstr("': Error reading client key: "));
    EXPECT_THAT(with({{"certificate", "../client_both.pem"}, {"kind", "PEM"}}),
                HasSubstr("': Unable to load client certificate: "));
    EXPECT_THAT(with({}), StartsWith("HTTP/1.1 400 Bad Request\n"));
  }
}

// The end of a secure connection is an error of the read, so what has no length ends with one.
TEST_F(Calls, ASecureResponseWithoutALengthEndsWithAnError) {
  REQUIRE_PROGRAM("/usr/bin/openssl");
  TLSServer server("names", {}, "-WWW");
  EXPECT_EQ(Get("https://127.0.0.1:" + std::to_string(server.port()) + "/page.txt"),
            "HTTP/1.0 200 ok\n<a>b<c>|SSL Read Error: The remote server closed the connection");
}

// Passes bytes between a client and a server, and leaves when the client has sent that many: first
// it says that it sends no more, then it is gone.
void PassOn(ListeningPeer::Connection& client, int server_port, ssize_t most) {
  const FileDescriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<in_port_t>(server_port));
  ASSERT_EQ(connect(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ssize_t sent = 0;
  while (sent < most) {
    pollfd both[] = {{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}};
    ASSERT_GT(poll(both, 2, 20000), 0);
    for (const int i : {0, 1}) {
      if (!both[i].revents) continue;
      char buffer[1000];
      const ssize_t count = recv(both[i].fd, buffer, sizeof buffer, 0);
      ASSERT_GT(count, 0);
      ASSERT_EQ(send(both[1 - i].fd, buffer, static_cast<size_t>(count), MSG_NOSIGNAL), count);
      if (i == 0) sent += count;
    }
  }
  shutdown(client.get(), SHUT_WR);
  client.Pause(200);
}

// Such a write raises a signal by which the process would end.
TEST_F(Calls, ASecurePeerThatLeavesDuringAWriteEndsTheCallOnly) {
  REQUIRE_PROGRAM("/usr/bin/openssl");
  TLSServer server("names");
  ListeningPeer between(
      [&](ListeningPeer::Connection& client) { PassOn(client, server.port(), 5000); });
  const std::string url = "https://127.0.0.1:" + std::to_string(between.port()) + "/";
  const std::string page = Call({{"url", url},
                                 {"method", "RAW"},
                                 {"fields", "a"},
                                 {"a", std::string(8 << 20, 'x')},
                                 {"seconds", "10"}});
  EXPECT_THAT(page, StartsWith("|Unable to open URL '" + url + "': SSL Read Error: "));
  EXPECT_TRUE(engine.Running());
}

// A server for each certificate, on a port of its own.
class Certificates {
 public:
  Certificates() : server(Configuration()) {
    for (const auto& [name, port] : ports) server.WaitFor(port);
  }
  int port(const std::string& name) const { return ports.at(name); }

 private:
  std::string Configuration() {
    std::string text;
    for (const char* name : {"names", "other", "expired", "foreign", "selfsigned"}) {
      ports[name] = FreePort();
      const std::string file = TLSFiles::Get().path(name);
      text += "server { listen 127.0.0.1:" + std::to_string(ports[name]) +
              " ssl; ssl_certificate " + file + ".pem; ssl_certificate_key " + file +
              ".key; location / { return 200 secured; } }\n";
    }
    return text;
  }

  std::map<std::string, int> ports;
  NginxServer server;
};

// Certificates of other hosts, of other authorities, and of the past.
TEST_F(Calls, OnlyTheRightServerIsAccepted) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  REQUIRE_PROGRAM("/usr/bin/openssl");
  Hosts(
      "localhost=127.0.0.1 a.example.org=127.0.0.1 b.a.example.org=127.0.0.1 "
      "page.example.com=127.0.0.1 xn--p.example.com=127.0.0.1 other.example.net=127.0.0.1");
  const struct {
    const char* certificate;
    const char* host;
    const char* error;  // null for a server that is accepted
  } rows[] = {
      {"names", "localhost", nullptr},          {"names", "a.example.org", nullptr},
      {"names", "page.example.com", nullptr},   {"names", "127.0.0.1", nullptr},
      {"names", "b.a.example.org", kRefused},   {"names", "xn--p.example.com", kRefused},
      {"names", "other.example.net", kRefused}, {"other", "localhost", kRefused},
      {"other", "127.0.0.1", nullptr},          {"expired", "localhost", kNoChain},
      {"foreign", "localhost", kNoChain},       {"foreign", "127.0.0.1", kNoChain},
      {"selfsigned", "localhost", kNoChain},
  };
  const Certificates servers;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.certificate) + " " + row.host);
    const std::string url = "https://" + std::string(row.host) + ":" +
                            std::to_string(servers.port(row.certificate)) + "/";
    EXPECT_EQ(Get(url), row.error ? "|Unable to open URL '" + url + "': " + row.error
                                  : "HTTP/1.1 200 OK\nsecured|");
  }
}

TEST_F(Calls, AnAddressIsComparedIfASettingSaysSo) {
  REQUIRE_PROGRAM("/usr/sbin/nginx");
  REQUIRE_PROGRAM("/usr/bin/openssl");
  engine.settings += "flags_security = 16384\n";
  const Certificates servers;
  const std::string url = "https://127.0.0.1:";
  EXPECT_EQ(Get(url + std::to_string(servers.port("names")) + "/"), "HTTP/1.1 200 OK\nsecured|");
  EXPECT_THAT(Get(url + std::to_string(servers.port("other")) + "/"), HasSubstr(kRefused));
}

// --- Servers that stall --------------------------------------------------------------------------

// Servers at each of which a call waits at another place.
class SlowCalls : public Calls {
 protected:
  SlowCalls() {
    Hosts("silent.test=");
    engine.settings = "timeout_call = 0\ntimeout_global = 0\n";
    engine.arguments = {"-t", "8"};
    // A queue without room: the system drops what comes then.
    full.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(full.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(full.get(), 0), 0);
    EXPECT_EQ(getsockname(full.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    for (FileDescriptor& client : in_queue) {
      client.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      connect(client.get(), reinterpret_cast<sockaddr*>(&address), size);
    }
    const auto says = [](const std::string& text) {
      return [text](ListeningPeer::Connection& connection) {
        connection.Send(text);
        connection.WaitForEnd();
      };
    };
    for (const char* text : {"", "", "HTTP/1.1 200 OK\r\nA: b\r\n", "HTTP/1.1 200 OK\r\n\r\nx",
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n"}) {
      peers.push_back(std::make_unique<ListeningPeer>(says(text)));
    }
    stalls = {
        {"look-up", "http://silent.test/"},
        {"connection", Url("127.0.0.1", ntohs(address.sin_port), "/")},
        {"handshake", "https://127.0.0.1:" + std::to_string(peers[0]->port()) + "/"},
        {"status line", Url("127.0.0.1", peers[1]->port(), "/")},
        {"header", Url("127.0.0.1", peers[2]->port(), "/")},
        {"body", Url("127.0.0.1", peers[3]->port(), "/")},
        {"chunk", Url("127.0.0.1", peers[4]->port(), "/")},
    };
  }
  struct Stall {
    std::string label;
    std::string url;
  };
  // Starts all calls, each on a connection of its own.
  void BeginAll(const std::string& seconds) {
    ASSERT_TRUE(engine.Start());
    ASSERT_TRUE(engine.WaitUntilReady());
    for (const Stall& stall : stalls) {
      clients.push_back(std::make_unique<FastCGIClient>());
      FastCGIClient& client = *clients.back();
      ASSERT_TRUE(client.Connect(engine.socket()));
      client.Begin();
      client.Parameters(Request({{"url", stall.url}, {"method", "GET"}, {"seconds", seconds}}));
      client.EndParameters();
      client.EndInput();
    }
  }

  FileDescriptor full;
  FileDescriptor in_queue[3];
  std::vector<std::unique_ptr<ListeningPeer>> peers;
  std::vector<Stall> stalls;
  std::vector<std::unique_ptr<FastCGIClient>> clients;
};

TEST_F(SlowCalls, TheProcessEndsInTime) {
  BeginAll("-1");
  // Long enough for all of them to wait.
  std::this_thread::sleep_for(Milliseconds(1000));
  const auto start = Clock::now();
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
}

TEST_F(SlowCalls, TheTimeOfTheScriptEndsTheWait) {
  engine.settings = "timeout_call = 0\ntimeout_global = 2\n";
  BeginAll("-1");
  const auto start = Clock::now();
  for (size_t i = 0; i < stalls.size(); i++) {
    SCOPED_TRACE(stalls[i].label);
    const FastCGIResponse response = clients[i]->Read(Milliseconds(30000));
    EXPECT_TRUE(response.ended) << response.problem;
    EXPECT_EQ(response.Body(), "Application timed out");
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
  EXPECT_TRUE(engine.Running());
}

TEST_F(SlowCalls, TheTimeOutOfTheCallIsAnErrorOfTheTag) {
  BeginAll("1");
  const auto start = Clock::now();
  const std::string unable = "|Unable to open URL '";
  const std::string closed[] = {
      unable + stalls[0].url + "': Error looking up 'silent.test'",
      unable + stalls[1].url + "': Error connecting to 127.0.0.1 on port ",
      unable + stalls[2].url + "': Error establishing SSL connection: Connection timed out",
      "|Read Timeout",
      "|Read Timeout",
      "|Read Timeout",
      "|Read Timeout",
  };
  for (size_t i = 0; i < stalls.size(); i++) {
    SCOPED_TRACE(stalls[i].label);
    const FastCGIResponse response = clients[i]->Read(Milliseconds(30000));
    EXPECT_TRUE(response.ended) << response.problem;
    EXPECT_THAT(response.Body(), HasSubstr(closed[i]));
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
