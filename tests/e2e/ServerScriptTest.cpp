// What script/server refuses, before it builds or serves anything.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "base/host/FileDescriptor.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class ServerScript : public testing::Test {
 protected:
  int Run(const std::vector<std::string>& arguments,
          const std::map<std::string, std::string>& environment) {
    std::vector<std::string> words = {InSource("script/server")};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Command command(words);
    command.environment = {{"ZEPH_BUILD", InBuild("")}, {"ZEPH_SITE", directory.path()}};
    for (const auto& [name, value] : environment) command.environment[name] = value;
    const int status = command.Run();
    EXPECT_EQ(command.output, "");
    errors = command.errors;
    return status;
  }

  TemporaryDirectory directory;
  std::string errors;
};

// The script once printed the address of the program that had the port.
TEST_F(ServerScript, APortInUseIsAnError) {
  const FileDescriptor listening(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listening.get(), any, length), 0);
  ASSERT_EQ(listen(listening.get(), 8), 0);
  ASSERT_EQ(getsockname(listening.get(), any, &length), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(Run({port}, {}), 1);
  EXPECT_EQ(errors, "script/server: port " + port +
                        " is in use by another program; without a port a free one is taken\n");
  EXPECT_FALSE(directory.Exists(".zeph"));
}

TEST_F(ServerScript, ABuildOrASiteThatIsNotThereIsTold) {
  EXPECT_EQ(Run({}, {{"ZEPH_BUILD", "/nowhere"}}), 1);
  EXPECT_EQ(errors, "script/server: ZEPH_BUILD: there is no program /nowhere/bin/zeph\n");
  EXPECT_EQ(Run({}, {{"ZEPH_SITE", "/nowhere"}}), 1);
  EXPECT_EQ(errors, "script/server: ZEPH_SITE: there is no folder /nowhere\n");
  EXPECT_FALSE(directory.Exists(".zeph"));
}

TEST_F(ServerScript, WhatIsNoPortIsRefused) {
  for (const char* port : {"http", "-1", "65536", "123456", "8080x"}) {
    EXPECT_EQ(Run({port}, {}), 2);
    EXPECT_EQ(errors, "script/server: '" + std::string(port) +
                          "' is no port; usage: script/server [port]\n");
  }
}

}  // namespace
