// Secure connections to servers of another maker: talk, identity, client certificates, and servers
// that are cut, silent or no TLS servers at all.

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/network/NetworkManager.h"
#include "base/network/OpenSSL.h"
#include "base/systems/unix/UNIXOpenSSL.h"
#include "tests/support/Lateness.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/TLSFiles.h"
#include "tests/support/TLSHost.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

const char kRefused[] = "Unable to verify server identity";
const char kNoChain[] = "Error establishing SSL connection: certificate verify failed";

class UNIXTLSTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    signal(SIGPIPE, SIG_IGN);
    FastCGIApplication_OpenSSL_Cleanup();
    FastCGIApplication_OpenSSL_Initialize();
  }

  UNIXTLSTest() { NewHost(); }

  void NewHost() {
    connection.reset();
    host = std::make_unique<TLSHost>(TLSFiles::Get().path());
    host->Set(Config_dir_ca, TLSFiles::Get().path("ca"));
  }
  NetworkManager& manager() { return *host->networkmanager(); }
  NetworkConnection& Connect(int port) {
    connection.reset(manager().Connect("127.0.0.1", port, 5));
    EXPECT_NE(connection, nullptr);
    return *connection;
  }
  // "" for success, else the text.
  std::string Secure(const char* hostname, int timeout = 5, const char* file = nullptr,
                     const char* data = nullptr, const char* type = nullptr,
                     const char* password = nullptr) {
    return manager().SSL_Connect(connection.get(), hostname, file, data, type, password, timeout)
               ? ""
               : Text(manager().error());
  }
  std::string Line(int timeout = 5) {
    String line;
    const int length = connection->ReadLine(line, timeout, 512);
    return length < 0 ? "-1: " + Text(connection->error()) : Text(line);
  }
  std::string Some(int timeout = 5) {
    char buffer[100];
    const int count = connection->Read(buffer, sizeof buffer, timeout);
    return count < 0 ? "-1: " + Text(connection->error())
                     : std::string(buffer, static_cast<size_t>(count));
  }
  bool Send(const std::string& text, int timeout = 5) {
    return connection->Write(text.data(), static_cast<int>(text.size()), timeout) ==
           static_cast<int>(text.size());
  }

  std::unique_ptr<TLSHost> host;
  std::unique_ptr<NetworkConnection> connection;
};

TEST_F(UNIXTLSTest, LinesAndBytesGoBothWays) {
  TLSServer server("names");
  Connect(server.port());
  EXPECT_EQ(connection->Server_Certificate(), nullptr) << "it is plain so far";
  ASSERT_EQ(Secure("localhost"), "");
  ASSERT_TRUE(Send("hello\n"));
  EXPECT_EQ(Line(), "olleh\n");
  ASSERT_TRUE(Send("bytes\n"));
  std::string bytes;
  while (bytes.size() < 6) bytes += Some();
  EXPECT_EQ(bytes, "setyb\n");
  EXPECT_EQ(connection->Write("", 0, 5), 0);
  EXPECT_EQ(connection->Read(nullptr, 0, 5), 0);
  x509_st* const certificate = connection->Server_Certificate();
  EXPECT_NE(certificate, nullptr);
  EXPECT_EQ(connection->Server_Certificate(), certificate) << "it is fetched once";
}

TEST_F(UNIXTLSTest, TheEndOfTheStreamIsAFailure) {
  TLSServer server("names");
  const char closed[] = "-1: SSL Read Error: The remote server closed the connection";
  Connect(server.port());
  ASSERT_EQ(Secure("localhost"), "");
  ASSERT_TRUE(Send("CLOSE\n"));
  EXPECT_EQ(Some(), closed);
  Connect(server.port());
  ASSERT_EQ(Secure("localhost"), "");
  ASSERT_TRUE(Send("CLOSE\n"));
  EXPECT_EQ(Line(), closed);
}

// Without a word about the end, as many servers do.
TEST_F(UNIXTLSTest, AStreamThatIsCutEndsAlike) {
  TLSServer server("names");
  Connect(server.port());
  ASSERT_EQ(Secure("localhost"), "");
  ASSERT_TRUE(Send("hello\n"));
  EXPECT_EQ(Line(), "olleh\n");
  server.Signal(SIGKILL);
  EXPECT_EQ(Line(), "-1: SSL Read Error: The remote server closed the connection");
}

// --- The server's identity -----------------------------------------------------------------------

TEST_F(UNIXTLSTest, OnlyTheRightServerIsAccepted) {
  const struct {
    const char* certificate;
    const char* hostname;
    int flags;
    const char* result;
  } cases[] = {
      {"names", "localhost", 0, ""},
      {"names", "LOCALHOST", 0, ""},
      {"names", "a.example.org", 0, ""},
      {"names", "b.a.example.org", 0, kRefused},
      {"names", "example.org", 0, kRefused},
      {"names", "page.example.com", 0, ""},
      {"names", "xn--p.example.com", 0, kRefused},
      {"names", "unused.example.net", 0, ""},  // the common name counts, too
      {"names", "other.example.net", 0, kRefused},
      {"names", "other.example.net", TLSSecurity_NoHostname, ""},
      {"common", "localhost", 0, ""},
      {"common", "localhos", 0, kRefused},
      {"both", "localhost", 0, ""},
      {"both", "other.example.net", 0, ""},
      {"other", "localhost", 0, kRefused},
      {"expired", "localhost", 0, kNoChain},
      {"expired", "localhost", TLSSecurity_NoHostname, kNoChain},
      {"expired", "localhost", TLSSecurity_NoChain, ""},
      {"foreign", "localhost", 0, kNoChain},
      {"foreign", "localhost", TLSSecurity_NoChain, ""},
      {"foreign", "other.example.net", TLSSecurity_NoChain, kRefused},
      {"selfsigned", "localhost", 0, kNoChain},
      {"selfsigned", "localhost", TLSSecurity_NoChain, ""},
      // A server named by its address is accepted if its chain is good, unless a flag is set.
      {"other", "127.0.0.1", 0, ""},
      {"foreign", "127.0.0.1", 0, kNoChain},
      {"names", "127.0.0.1", TLSSecurity_CompareAddress, ""},
      {"names", "::1", TLSSecurity_CompareAddress, ""},
      {"names", "0:0:0:0:0:0:0:1", TLSSecurity_CompareAddress, ""},
      {"names", "127.0.0.2", TLSSecurity_CompareAddress, kRefused},
      {"names", "::2", TLSSecurity_CompareAddress, kRefused},
      {"other", "127.0.0.1", TLSSecurity_CompareAddress, kRefused},
      {"common", "127.0.0.1", TLSSecurity_CompareAddress, kRefused},
      {"common", "127.0.0.1", TLSSecurity_CompareAddress | TLSSecurity_NoHostname, kRefused},
  };
  std::unique_ptr<TLSServer> server;
  std::string running;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.certificate) + " " + c.hostname + " " + std::to_string(c.flags));
    if (running != c.certificate) {
      running = c.certificate;
      server = std::make_unique<TLSServer>(c.certificate);
    }
    NewHost();
    host->Set(Config_flags_security, c.flags);
    Connect(server->port());
    EXPECT_EQ(Secure(c.hostname), c.result);
  }
}

TEST_F(UNIXTLSTest, WithoutAuthoritiesNoServerIsAccepted) {
  TLSServer server("names");
  host->Set(Config_dir_ca, TLSFiles::Get().path("no such folder"));
  Connect(server.port());
  EXPECT_EQ(Secure("localhost"), kNoChain);
}

TEST_F(UNIXTLSTest, ACertificateIsNeededForAName) {
  ASSERT_EQ(host->SSL_Available(nullptr), 1);
  EXPECT_FALSE(manager().Verify_Certificate_Hostname(nullptr, "localhost"));
  EXPECT_TRUE(manager().Verify_Certificate_IP(nullptr, "127.0.0.1"));
  host->Set(Config_flags_security, TLSSecurity_NoHostname | TLSSecurity_CompareAddress);
  EXPECT_TRUE(manager().Verify_Certificate_Hostname(nullptr, "localhost"));
  EXPECT_FALSE(manager().Verify_Certificate_IP(nullptr, "127.0.0.1"));
}

// The server has another certificate for those who ask for other.example.net.
TEST_F(UNIXTLSTest, TheHostNameIsSentBySetting) {
  TLSServer server(
      "common", {"-servername", "other.example.net", "-cert2", "other.pem", "-key2", "other.key"});
  const struct {
    int setting;
    const char* result;
  } cases[] = {{-1, ""}, {1, ""}, {0, kRefused}, {7, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setting);
    NewHost();
    host->Set(Config_ssl_sni, c.setting);
    Connect(server.port());
    EXPECT_EQ(Secure("other.example.net"), c.result);
  }
}

// A library that cannot ask for one gets no name unless the setting insists.
TEST_F(UNIXTLSTest, AnOldLibraryIsToldTheHostNameOnlyByOrder) {
  TLSServer server(
      "common", {"-servername", "other.example.net", "-cert2", "other.pem", "-key2", "other.key"});
  const struct {
    int setting;
    unsigned long version;
    const char* result;
  } cases[] = {{-1, 0x0090823fUL, kRefused}, {7, 0x0090823fUL, kRefused},  {1, 0x0090823fUL, ""},
               {0, 0x0090823fUL, kRefused},  {-1, 0x0fffffffUL, kRefused}, {-1, 0x10000000UL, ""}};
  static unsigned long version;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.setting << " " << c.version);
    NewHost();
    host->Set(Config_ssl_sni, c.setting);
    ASSERT_EQ(host->SSL_Available(nullptr), 1);
    version = c.version;
    const_cast<OpenSSLFunctions*>(host->sslfunctions())->SSLeay = [] { return version; };
    Connect(server.port());
    EXPECT_EQ(Secure("other.example.net"), c.result);
  }
}

// --- Client certificates -------------------------------------------------------------------------

TEST_F(UNIXTLSTest, AClientShowsItsCertificate) {
  TLSServer server("names", {"-Verify", "1", "-verify_return_error", "-CAfile", "authority.pem"});
  const std::string data = TLSFiles::Get().Content("client_both.pem");
  const std::string locked = TLSFiles::Get().Content("client_locked.pem");
  const struct {
    const char* label;
    const char* file;
    const char* data;
    const char* type;
    const char* password;
    bool accepted;
  } cases[] = {
      {"none", nullptr, nullptr, nullptr, nullptr, false},
      {"file without a type", "client_both.pem", nullptr, nullptr, nullptr, false},
      {"file with an empty type", "client_both.pem", nullptr, "", nullptr, false},
      {"nothing but a type", nullptr, nullptr, "PEM", nullptr, false},
      {"empty texts", "", "", "PEM", nullptr, false},
      {"PEM file", "client_both.pem", nullptr, "PEM", nullptr, true},
      {"key first", "client_keyfirst.pem", nullptr, "p", nullptr, true},
      {"DER file", "client_both.der", nullptr, "ASN1", nullptr, true},
      {"data", nullptr, data.c_str(), "pem", nullptr, true},
      {"file and data", "client_both.der", data.c_str(), "PEM", nullptr, false},
      {"file replaced by data", "client_keyfirst.pem", data.c_str(), "PEM", nullptr, true},
      {"password", nullptr, locked.c_str(), "PEM", "secret", true},
      {"password for a file", "client_locked.pem", "", "PEM", "secret", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    NewHost();
    Connect(server.port());
    const bool secured = Secure("localhost", 5, c.file, c.data, c.type, c.password).empty();
    // Version 1.3 of the protocol tells a client after the handshake that it was refused.
    const bool accepted = secured && Send("hello\n") && Line() == "olleh\n";
    EXPECT_EQ(accepted, c.accepted) << Text(connection->error()) << Text(manager().error());
  }
}

TEST_F(UNIXTLSTest, FaultyClientCertificatesAreRefusedWithTheirReason) {
  const std::string pem = TLSFiles::Get().Content("client_both.pem");
  const std::string locked = TLSFiles::Get().Content("client_locked.pem");
  const struct {
    const char* label;
    const char* file;
    const char* data;
    const char* type;
    const char* password;
    const char* begin;
  } cases[] = {
      {"type", nullptr, pem.c_str(), "x509", nullptr, "Unsupported certificate type 'x509'"},
      {"no certificate", nullptr, "hello", "PEM", nullptr,
       "Error reading client certificate: no start line"},
      {"no certificate in a file", "client.key", nullptr, "PEM", nullptr,
       "Error reading client certificate: no start line"},
      {"no key", "client_nokey.pem", nullptr, "PEM", nullptr, "Error reading client key: "},
      {"no DER", nullptr, pem.c_str(), "ASN1", nullptr, "Error reading client certificate: "},
      {"no DER key", "client_nokey.der", nullptr, "a", nullptr, "Error reading client key: "},
      {"no password", nullptr, locked.c_str(), "PEM", nullptr, "Error reading client key: "},
      {"wrong password", nullptr, locked.c_str(), "PEM", "other", "Error reading client key: "},
      {"no file", "missing.pem", nullptr, "PEM", nullptr,
       "Unable to load client certificate: No such file or directory"},
      {"outside", "../../etc/hostname", nullptr, "PEM", nullptr,
       "Unable to load client certificate: "},
      {"empty file", "empty.pem", nullptr, "PEM", nullptr,
       "Unable to read from client certificate file: Invalid argument"},
      {"folder", "ca", nullptr, "PEM", nullptr, "Unable to read from client certificate file: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    NewHost();
    // The connection is not reached.
    EXPECT_EQ(Secure("localhost", 5, c.file, c.data, c.type, c.password).substr(0, strlen(c.begin)),
              c.begin);
  }
}

TEST_F(UNIXTLSTest, FailedReadsOfACertificateLeaveNothing) {
  ASSERT_EQ(host->SSL_Available(nullptr), 1);
  x509_st* certificate = reinterpret_cast<x509_st*>(1);
  evp_pkey_st* key = reinterpret_cast<evp_pkey_st*>(1);
  const std::string text = TLSFiles::Get().Content("client_nokey.pem");
  EXPECT_FALSE(manager().Populate_Client_Certificate(text.data(), static_cast<int>(text.size()),
                                                     "PEM", nullptr, &certificate, &key));
  EXPECT_EQ(certificate, nullptr);
  EXPECT_EQ(key, nullptr);
}

TEST_F(UNIXTLSTest, AKeyOfAnotherCertificateIsRefused) {
  TLSServer server("names");
  const std::string data =
      TLSFiles::Get().Content("client.pem") + TLSFiles::Get().Content("names.key");
  Connect(server.port());
  EXPECT_EQ(Secure("localhost", 5, nullptr, data.c_str(), "PEM"),
            "Error assigning client key: key values mismatch");
}

// --- Servers that fail ---------------------------------------------------------------------------

TEST_F(UNIXTLSTest, APeerThatIsNoTLSServerIsRefused) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) {
    connection.Send("HTTP/1.0 400 Bad Request\r\n\r\n");
    connection.WaitForEnd();
  });
  Connect(peer.port());
  EXPECT_EQ(Secure("localhost"), "Error establishing SSL connection: wrong version number");
  connection.reset();
}

TEST_F(UNIXTLSTest, APeerThatLeavesDuringTheHandshakeIsAFailure) {
  for (const bool reset : {false, true}) {
    SCOPED_TRACE(reset);
    ListeningPeer peer([&](ListeningPeer::Connection& connection) {
      connection.Receive(10);
      if (reset) connection.Reset();
    });
    Connect(peer.port());
    EXPECT_EQ(Secure("localhost").rfind("Error establishing SSL connection: ", 0), 0u);
  }
}

TEST_F(UNIXTLSTest, EveryCutOfAHandshakeFailsWithoutHarm) {
  TLSServer server("names");
  // Passes on only so many bytes of what the server sends.
  for (const size_t bytes : {1, 4, 5, 6, 50, 100, 130, 200, 500, 800}) {
    SCOPED_TRACE(bytes);
    ListeningPeer between([&](ListeningPeer::Connection& client) {
      FileDescriptor upstream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in address = {};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(static_cast<in_port_t>(server.port()));
      ASSERT_EQ(connect(upstream.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      char buffer[4096];
      const ssize_t hello = recv(client.get(), buffer, sizeof buffer, 0);
      ASSERT_EQ(send(upstream.get(), buffer, static_cast<size_t>(hello), 0), hello);
      const ssize_t count = recv(upstream.get(), buffer, bytes, MSG_WAITALL);
      client.Send(std::string(buffer, static_cast<size_t>(count)));
    });
    Connect(between.port());
    EXPECT_NE(Secure("localhost"), "");
    connection.reset();
  }
}

// The command to begin TLS may come later, and again after a failed attempt of another kind.
TEST_F(UNIXTLSTest, AFailedAttemptLeavesAConnectionThatCanBeDeleted) {
  TLSServer server("names");
  Connect(server.port());
  EXPECT_EQ(Secure("other.example.net"), kRefused);
  EXPECT_EQ(Secure("localhost", 1).rfind("Error establishing SSL connection: ", 0), 0u);
}

// --- Waits ---------------------------------------------------------------------------------------

class SlowTLS : public UNIXTLSTest {
 protected:
  static double Seconds(const std::function<void()>& function) {
    const auto start = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  // Makes a secure connection and stops the server, so that all that follows has to wait.
  void ToSleeper() {
    NewHost();
    server = std::make_unique<TLSServer>("names");
    Connect(server->port());
    ASSERT_EQ(Secure("localhost"), "");
    ASSERT_TRUE(Send("hello\n"));
    ASSERT_EQ(Line(), "olleh\n");
    server->Signal(SIGSTOP);
  }
  std::string Flood(int timeout) {
    return Send(std::string(32 << 20, 'w'), timeout) ? "sent" : Text(connection->error());
  }

  std::unique_ptr<TLSServer> server;
};

TEST_F(SlowTLS, EachWaitEndsAtItsTime) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.WaitForEnd(); });
  Connect(peer.port());
  EXPECT_THAT(Seconds([&] {
                EXPECT_EQ(Secure("localhost", 1),
                          "Error establishing SSL connection: Connection timed out");
              }),
              EndsAtItsTime(1.0));
  connection.reset();
  ToSleeper();
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Some(1), "-1: SSL Read Timeout"); }), EndsAtItsTime(1.0));
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Line(1), "-1: SSL Read Timeout"); }), EndsAtItsTime(1.0));
  EXPECT_EQ(Flood(1), "Write Timeout");
}

TEST_F(SlowTLS, CancellationEndsEveryWait) {
  const auto cancelled_soon = [&](const std::function<void()>& function) {
    std::thread canceller([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      host->Cancelled();
    });
    EXPECT_LT(Seconds(function), 1.9 + kLateness);
    canceller.join();
  };
  {
    ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.WaitForEnd(); });
    Connect(peer.port());
    cancelled_soon([&] {
      EXPECT_EQ(Secure("localhost", -1), "Error establishing SSL connection: Connection timed out");
    });
    connection.reset();
  }
  ToSleeper();
  cancelled_soon([&] { EXPECT_EQ(Some(-1), "-1: SSL Read Timeout"); });
  ToSleeper();
  cancelled_soon([&] { EXPECT_EQ(Line(-1), "-1: SSL Read Timeout"); });
  ToSleeper();
  cancelled_soon([&] { EXPECT_EQ(Flood(-1), "Write Timeout"); });
}

// --- A web server --------------------------------------------------------------------------------

// nginx with two hosts, both of which want a client's certificate.
class NginxTLS : public UNIXTLSTest {
 protected:
  NginxTLS() {
    {
      ListeningPeer free([](ListeningPeer::Connection&) {});
      port = free.port();
    }
    const std::string at = std::to_string(port);
    const std::string files = TLSFiles::Get().path();
    const auto place = [&](const std::string& name, const std::string& certificate) {
      return "server { listen 127.0.0.1:" + at + " ssl; server_name " + name +
             "; ssl_certificate " + files + "/" + certificate + ".pem; ssl_certificate_key " +
             files + "/" + certificate + ".key; ssl_client_certificate " + files +
             "/authority.pem; ssl_verify_client on; location / { return 200 "
             "\"$ssl_client_s_dn $ssl_server_name\\n\"; } location /big { alias " +
             folder.path("big") + "; } }\n";
    };
    for (size_t i = 0; big.size() < 3000000; i++) big += std::to_string(i * i) + "\n";
    folder.File("big", big);
    folder.File("conf", "daemon off;\nmaster_process off;\npid " + folder.path("pid") +
                            ";\nevents {}\nhttp {\naccess_log off;\nclient_body_temp_path " +
                            folder.path("t1") + ";\nproxy_temp_path " + folder.path("t2") +
                            ";\nfastcgi_temp_path " + folder.path("t3") + ";\nuwsgi_temp_path " +
                            folder.path("t4") + ";\nscgi_temp_path " + folder.path("t5") + ";\n" +
                            place("localhost", "common") + place("other.example.net", "other") +
                            "}\n");
    command = std::make_unique<Command>(
        std::vector<std::string>{"/usr/sbin/nginx", "-e", folder.path("errors"), "-c",
                                 folder.path("conf"), "-p", folder.path()});
    command->output_file = folder.path("output");
    command->Start();
    for (int i = 0; i < 250; i++) {
      connection.reset(manager().Connect("127.0.0.1", port, 5));
      if (connection) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_NE(connection, nullptr) << folder.Content("errors");
  }

  // The body of the response on a secured connection.
  std::string Get(const std::string& path, const char* name = "localhost") {
    EXPECT_TRUE(connection->Write(5, "GET %s HTTP/1.0\r\nHost: %s\r\n\r\n", path.c_str(), name));
    for (std::string line = Line(); line != "\r\n"; line = Line()) {
      if (line.compare(0, 2, "-1") == 0) return line;
    }
    std::string body;
    char buffer[5000];
    for (;;) {
      const int count = connection->Read(buffer, sizeof buffer, 5);
      if (count < 0) break;
      body.append(buffer, static_cast<size_t>(count));
    }
    EXPECT_EQ(Text(connection->error()), "SSL Read Error: The remote server closed the connection");
    return body;
  }

  TemporaryDirectory folder;
  std::string big;
  int port = 0;
  std::unique_ptr<Command> command;
};

TEST_F(NginxTLS, SeesTheClientAndTheHostThatItAsksFor) {
  for (const char* name : {"localhost", "other.example.net"}) {
    for (const char* file : {"client_both.pem", "client_keyfirst.pem", "client_both.der"}) {
      SCOPED_TRACE(std::string(name) + " " + file);
      Connect(port);
      const char* type = strstr(file, ".der") ? "ASN1" : "PEM";
      ASSERT_EQ(Secure(name, 5, file, nullptr, type), "");
      EXPECT_EQ(Get("/", name), std::string("CN=client ") + name + "\n");
    }
  }
}

TEST_F(NginxTLS, SendsALargeFileWhole) {
  ASSERT_EQ(Secure("localhost", 5, "client_both.pem", nullptr, "PEM"), "");
  EXPECT_TRUE(Get("/big") == big);
}

TEST_F(NginxTLS, RefusesAClientWithoutACertificate) {
  ASSERT_EQ(Secure("localhost"), "");
  EXPECT_NE(Get("/").find("No required SSL certificate was sent"), std::string::npos);
}

}  // namespace
