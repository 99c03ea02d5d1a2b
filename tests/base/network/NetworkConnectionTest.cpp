// What all connections, managers and outputs to connections share.

#include "base/network/NetworkConnection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "base/network/NetworkOutput.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// Keeps what is written, up to a number of bytes, and fails then.
class KeepingConnection : public NetworkConnection {
 public:
  explicit KeepingConnection(ZephApplication* application) : NetworkConnection(application) {}

  bool EstablishTLSConnection(const char*, x509_st*, evp_pkey_st*, int) override { return false; }
  x509_st* Server_Certificate() override { return nullptr; }
  int Read(char*, int, int) override { return 0; }
  int ReadLine(String&, int, int) override { return -1; }
  int Write(const char* bytes, int length, int timeout) override {
    last_timeout = timeout;
    if (static_cast<int>(written.size()) + length > room) {
      Error("Write Error: full");
      return -1;
    }
    written.append(bytes, static_cast<size_t>(length));
    return length;
  }
  using NetworkConnection::Write;

  std::string written;
  int room = 1 << 20;
  int last_timeout = 0;
};

TEST(NetworkConnection, ANullTextKeepsTheOlderError) {
  TestApplication application;
  KeepingConnection connection(&application);
  EXPECT_EQ(Text(connection.error()), "(null)");
  connection.Error("first");
  connection.Error(String());
  EXPECT_EQ(Text(connection.error()), "first");
  connection.Error(connection.error());
  EXPECT_EQ(Text(connection.error()), "first");
  connection.Error("");
  EXPECT_EQ(Text(connection.error()), "");
}

TEST(NetworkConnection, WritesStringsWithTheirNULs) {
  TestApplication application;
  KeepingConnection connection(&application);
  EXPECT_EQ(connection.Write(String("a\0b", 3), 7), 3);
  EXPECT_EQ(connection.written, std::string("a\0b", 3));
  EXPECT_EQ(connection.last_timeout, 7);
  EXPECT_EQ(connection.Write(String(), 7), 0);
}

TEST(NetworkConnection, FormattedTextHasAnyLength) {
  TestApplication application;
  for (const int length : {0, 1, 8190, 8191, 8192, 8193, 100000}) {
    SCOPED_TRACE(length);
    KeepingConnection connection(&application);
    const std::string text(static_cast<size_t>(length), 'x');
    EXPECT_TRUE(connection.Write(3, "%s", text.c_str()));
    EXPECT_TRUE(connection.written == text);
    EXPECT_EQ(connection.last_timeout, 3);
  }
  KeepingConnection connection(&application);
  EXPECT_TRUE(connection.Write(3, "%d %s\r\n", 5, "five"));
  EXPECT_EQ(connection.written, "5 five\r\n");
  connection.room = 0;
  EXPECT_FALSE(connection.Write(3, "%s", "more"));
}

TEST(NetworkManager, TheBaseTakesDigitsAndDotsForAnAddress) {
  TestApplication application;
  UNIXNetworkManager manager(&application);
  for (const char* text : {"1.2.3.4", "", "...", "1"}) {
    EXPECT_TRUE(manager.NetworkManager::IsIPAddress(text)) << text;
  }
  for (const char* text : {"::1", "1.2.3.4 ", "a", "localhost"}) {
    EXPECT_FALSE(manager.NetworkManager::IsIPAddress(text)) << text;
  }
  manager.Error("first");
  manager.Error(String());
  EXPECT_EQ(Text(manager.error()), "first");
}

TEST(NetworkOutput, WritesToTheConnectionAndGivesHeadersToThePage) {
  TestApplication application;
  KeepingConnection connection(&application);
  RecordingOutput page;
  {
    NetworkOutput output(&page, &connection, 4, 9);
    EXPECT_EQ(output.type(), Output::Buffered);
    EXPECT_EQ(output.Write("abcdef", -1), 6);
    EXPECT_EQ(connection.written, "abcd");
    EXPECT_EQ(output.Header("Name", "value"), 1);
    EXPECT_EQ(output.Header("Other", 5, 0, "text", 4, 0), 1);
    EXPECT_EQ(connection.last_timeout, 9);
  }
  EXPECT_EQ(connection.written, "abcdef") << "the destructor writes the rest";
  EXPECT_EQ(page.text, "");
  EXPECT_EQ(page.headers, (std::vector<std::string>{"Name: value", "Other: text"}));
}

TEST(NetworkOutput, HasTheErrorOfItsConnection) {
  TestApplication application;
  KeepingConnection connection(&application);
  connection.room = 0;
  RecordingOutput page;
  NetworkOutput output(&page, &connection, 0, 9);
  output.Write("abc", 3);
  EXPECT_EQ(output.Flush(), -1);
  EXPECT_EQ(Text(output.error()), "Write Error: full");
}

}  // namespace
