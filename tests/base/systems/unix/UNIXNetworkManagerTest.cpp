// Look-ups and the walk through the addresses of a host.

#include "base/systems/unix/UNIXNetworkManager.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/systems/unix/UNIXNetworkConnection.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// What a look-up finds while a test says so.
class FoundAddresses {
 public:
  static FoundAddresses& Get() {
    static FoundAddresses found;
    return found;
  }
  void Add(int family) {
    auto entry = std::make_unique<Entry>();
    memset(entry.get(), 0, sizeof(Entry));
    entry->info.ai_family = family;
    entry->info.ai_addr = reinterpret_cast<sockaddr*>(&entry->address);
    entry->info.ai_addrlen = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    entry->address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in*>(&entry->address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else if (family == AF_INET6) {
      reinterpret_cast<sockaddr_in6*>(&entry->address)->sin6_addr = in6addr_loopback;
    }
    if (!entries.empty()) entries.back()->info.ai_next = &entry->info;
    entries.push_back(std::move(entry));
    network_calls.getaddrinfo = [](const char*, const char*, const addrinfo*, addrinfo** result) {
      *result = &Get().entries.front()->info;
      return 0;
    };
    network_calls.freeaddrinfo = [](addrinfo*) {};
  }
  void Clear() {
    entries.clear();
    network_calls = NetworkCalls();
  }

 private:
  struct Entry {
    addrinfo info;
    sockaddr_storage address;
  };
  std::vector<std::unique_ptr<Entry>> entries;
};

class UNIXNetworkManagerTest : public testing::Test {
 protected:
  UNIXNetworkManagerTest() : manager(&application) {}
  ~UNIXNetworkManagerTest() override { FoundAddresses::Get().Clear(); }

  std::string Greeting(const char* host, int port) {
    const std::unique_ptr<NetworkConnection> connection(manager.Connect(host, port, 5));
    if (!connection) return Text(manager.error());
    String line;
    return connection->ReadLine(line, 5, 512) < 0 ? Text(connection->error()) : Text(line);
  }

  TestApplication application;
  UNIXNetworkManager manager;
};

TEST_F(UNIXNetworkManagerTest, TellsAddressesFromNames) {
  // The system takes an IPv4 address that is written as an IPv6 address for both.
  const struct {
    const char* text;
    bool v4, v6;
  } cases[] = {
      {"127.0.0.1", true, false},  {"255.255.255.255", true, false}, {"::1", false, true},
      {"fe80::1:2", false, true},  {"::ffff:1.2.3.4", true, true},   {"localhost", false, false},
      {"[::1]", false, false},     {"1.2.3.4.5", false, false},      {"", false, false},
      {"1.2.3.400", false, false}, {"example.org", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(manager.IsIPv4Address(c.text), c.v4);
    EXPECT_EQ(manager.IsIPv6Address(c.text), c.v6);
    EXPECT_EQ(manager.IsIPAddress(c.text), c.v4 || c.v6);
  }
}

TEST_F(UNIXNetworkManagerTest, ComparesIPv6AddressesByTheirBytes) {
  const struct {
    const char* a;
    const char* b;
    bool equal;
  } cases[] = {
      {"::1", "0:0:0:0:0:0:0:1", true},
      {"FE80::A", "fe80::a", true},
      {"::1", "::2", false},
      {"::1", "127.0.0.1", false},
      {"::1", "", false},
      {"x", "x", false},
      {"::ffff:1.2.3.4", "::ffff:102:304", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " " + c.b);
    EXPECT_EQ(manager.CompareIPv6Addresses(c.a, c.b), c.equal);
    EXPECT_EQ(manager.CompareIPv6Addresses(c.b, c.a), c.equal);
  }
}

TEST_F(UNIXNetworkManagerTest, WritesAddressesAsText) {
  unsigned char v4[] = {127, 0, 0, 1};
  unsigned char v6[16] = {};
  v6[15] = 1;
  char text[64];
  EXPECT_TRUE(manager.ConvertIPv4ToString(v4, text, sizeof text));
  EXPECT_STREQ(text, "127.0.0.1");
  EXPECT_TRUE(manager.ConvertIPv4ToString(v4, text, 10));
  EXPECT_TRUE(manager.ConvertIPv6ToString(v6, text, sizeof text));
  EXPECT_STREQ(text, "::1");
  for (const int length : {9, 0, -1}) {
    SCOPED_TRACE(length);
    manager.Error("other");
    EXPECT_FALSE(manager.ConvertIPv4ToString(v4, text, length));
    EXPECT_EQ(Text(manager.error()), "No space left on device");
  }
  EXPECT_FALSE(manager.ConvertIPv6ToString(v6, text, 3));
}

TEST_F(UNIXNetworkManagerTest, FindsTheFirstAddressOfAHost) {
  String address;
  EXPECT_EQ(manager.GetHostAddress("127.0.0.1", address), 1);
  EXPECT_EQ(Text(address), "127.0.0.1");
  EXPECT_EQ(manager.GetHostAddress("::1", address), 1);
  EXPECT_EQ(Text(address), "::1");
  FoundAddresses::Get().Add(AF_UNIX);
  FoundAddresses::Get().Add(AF_INET6);
  FoundAddresses::Get().Add(AF_INET);
  EXPECT_EQ(manager.GetHostAddress("both.example", address), 1);
  EXPECT_EQ(Text(address), "::1");
}

TEST_F(UNIXNetworkManagerTest, AHostWithoutAnAddressIsAFailure) {
  String address("old", -1);
  EXPECT_EQ(manager.GetHostAddress("no such host.invalid", address), -1);
  EXPECT_EQ(Text(manager.error()), "Error looking up 'no such host.invalid'");
  FoundAddresses::Get().Add(AF_UNIX);
  EXPECT_EQ(manager.GetHostAddress("odd.example", address), -1);
  EXPECT_EQ(Text(manager.error()),
            "Error looking up 'odd.example': No supported address families found");
  EXPECT_EQ(Text(address), "old");
}

TEST_F(UNIXNetworkManagerTest, ConnectsByNameAndByAddress) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.Send("hello\n"); });
    EXPECT_EQ(Greeting(host, peer.port()), "hello\n");
  }
}

TEST_F(UNIXNetworkManagerTest, TheSecondAddressIsTriedAfterTheFirstRefused) {
  ListeningPeer peer([](ListeningPeer::Connection& connection) { connection.Send("hello\n"); });
  FoundAddresses::Get().Add(AF_INET6);
  FoundAddresses::Get().Add(AF_INET);
  EXPECT_EQ(Greeting("both.example", peer.port()), "hello\n");
}

TEST_F(UNIXNetworkManagerTest, TheLastFailureIsReported) {
  int port;
  {
    ListeningPeer gone([](ListeningPeer::Connection&) {});
    port = gone.port();
  }
  EXPECT_EQ(Greeting("127.0.0.1", port), "Error connecting to 127.0.0.1 on port " +
                                             std::to_string(port) + ": Connection refused");
  EXPECT_EQ(Greeting("no such host.invalid", 80), "Error looking up 'no such host.invalid'");
  EXPECT_EQ(Greeting("", 80), "Error looking up ''");
  // A URL without a port may leave its query in the host.
  EXPECT_EQ(Greeting("localhost?a=1", 80), "Error looking up 'localhost?a=1'");
}

}  // namespace
