// The records of a connection's traffic in the trace log.

#include "base/network/LoggingNetworkConnection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Machine.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// Gives the result that a test sets, and notes how it was called.
class SetConnection : public NetworkConnection {
 public:
  SetConnection(ZephApplication* application, bool* deleted)
      : NetworkConnection(application), deleted(deleted) {}
  ~SetConnection() override { *deleted = true; }

  bool EstablishTLSConnection(const char* hostname, x509_st*, evp_pkey_st*, int timeout) override {
    called = std::string("tls ") + hostname + " " + std::to_string(timeout);
    return true;
  }
  x509_st* Server_Certificate() override { return reinterpret_cast<x509_st*>(&deleted); }
  int Read(char* buffer, int length, int timeout) override {
    called = "read " + std::to_string(length) + " " + std::to_string(timeout);
    if (result > 0) memcpy(buffer, "abcdef", static_cast<size_t>(result));
    return result;
  }
  int ReadLine(String& line, int timeout, int buffer_size) override {
    called = "line " + std::to_string(timeout) + " " + std::to_string(buffer_size);
    line.assign("abcdef", result > 0 ? result : 0);
    return result;
  }
  int Write(const char*, int length, int timeout) override {
    called = "write " + std::to_string(length) + " " + std::to_string(timeout);
    return result;
  }

  std::string called;
  int result = 0;
  bool* deleted;
};

class LoggingNetworkConnectionTest : public testing::Test {
 protected:
  // The decorator of the place that the machine has reached.
  std::unique_ptr<NetworkConnection> Decorate(unsigned type) {
    inside = new SetConnection(&machine.application, &deleted);
    ZephVMLoggingNetworkConnectionData data = {&machine.vm(), type};
    return std::make_unique<ZephVMLoggingNetworkConnection>("example.org", 8080, inside, &data);
  }
  std::vector<std::string> Records() { return std::exchange(machine.application.log, {}); }

  Machine machine;
  bool deleted = false;
  SetConnection* inside = nullptr;
};

using Strings = std::vector<std::string>;

TEST_F(LoggingNetworkConnectionTest, TrafficIsRecordedInBase64) {
  const auto connection = Decorate(Log_Call);
  char buffer[10];
  inside->result = 4;
  EXPECT_EQ(connection->Read(buffer, 10, 3), 4);
  EXPECT_EQ(inside->called, "read 10 3");
  EXPECT_EQ(Records(), Strings{"ZpCALL|||0|example.org|8080|Received|YWJjZA=="});
  String line;
  EXPECT_EQ(connection->ReadLine(line, 3, 512), 4);
  EXPECT_EQ(inside->called, "line 3 512");
  EXPECT_EQ(Records(), Strings{"ZpCALL|||0|example.org|8080|Received|YWJjZA=="});
  EXPECT_EQ(connection->Write("xyz?", 4, 3), 4);
  EXPECT_EQ(inside->called, "write 4 3");
  EXPECT_EQ(Records(), Strings{"ZpCALL|||0|example.org|8080|Sent|eHl6Pw=="});
}

TEST_F(LoggingNetworkConnectionTest, FailuresAreRecordedWithTheirText) {
  const auto connection = Decorate(Log_SMTP);
  inside->result = -1;
  inside->Error("Read Timeout");
  char buffer[10];
  String line;
  EXPECT_EQ(connection->Read(buffer, 10, 3), -1);
  EXPECT_EQ(connection->ReadLine(line, 3, 512), -1);
  EXPECT_EQ(connection->Write("xyz?", 4, 3), -1);
  EXPECT_EQ(Records(), (Strings{"ZpSMTP|||0|example.org|8080|Read Error|Read Timeout",
                                "ZpSMTP|||0|example.org|8080|Read Error|Read Timeout",
                                "ZpSMTP|||0|example.org|8080|Write Error|Read Timeout"}));
}

TEST_F(LoggingNetworkConnectionTest, NothingIsNotRecorded) {
  const auto connection = Decorate(Log_Call);
  char buffer[10];
  String line;
  EXPECT_EQ(connection->Read(buffer, 10, 3), 0);
  EXPECT_EQ(connection->ReadLine(line, 3, 512), 0);
  EXPECT_EQ(connection->Write("", 0, 3), 0);
  EXPECT_EQ(Records(), Strings{});
}

TEST_F(LoggingNetworkConnectionTest, EverythingElseIsPassedOn) {
  auto connection = Decorate(Log_Call);
  EXPECT_TRUE(connection->EstablishTLSConnection("name", nullptr, nullptr, 7));
  EXPECT_EQ(inside->called, "tls name 7");
  EXPECT_EQ(connection->Server_Certificate(), inside->Server_Certificate());
  connection->Error("text");
  EXPECT_EQ(Text(inside->error()), "text");
  EXPECT_EQ(&connection->error(), &inside->error());
  connection.reset();
  EXPECT_TRUE(deleted);
  EXPECT_EQ(Records(), Strings{});
}

// A connection may outlive the function in which it was made.
TEST_F(LoggingNetworkConnectionTest, ThePlaceIsTheOneWhereItWasMade) {
  std::unique_ptr<NetworkConnection> connection;
  machine.application.begin_task = [&](ZephVM*) -> int {
    connection = Decorate(Log_Call);
    return AsynchronousTask_Started;
  };
  machine.Assemble(
      "sourcefile \"page.zp\"\nlineno 3\ncall fetch\npop\nlineno 4\nexit\n"
      ".function fetch()\nlineno 12\nasync on\non: pushi 1\nret\n");
  machine.Go();
  ASSERT_NE(connection, nullptr) << machine.Error();
  inside->result = 1;
  EXPECT_EQ(connection->Write("x", 1, 3), 1);
  EXPECT_EQ(Records(), Strings{"ZpCALL|page.zp|fetch|12|example.org|8080|Sent|eA=="});
}

}  // namespace
