#include "fastcgi/StatusServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "base/core/ThreadMemory.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

using testing::StartsWith;

StatusReport Serving() {
  StatusReport report;
  report.processes.emplace_back();
  report.processes[0].phase = ProcessPhase::Serving;
  return report;
}

std::string ResponseTo(const std::string& request) {
  return StatusServer(Serving).Respond(request);
}

TEST(StatusServer, EachPageHasItsType) {
  const struct {
    const char* path;
    const char* type;
    const char* start;
  } cases[] = {{"/ping", "text/plain", "ok\n"},
               {"/status", "text/plain; charset=utf-8", "up "},
               {"/status?x=1", "text/plain; charset=utf-8", "up "},
               {"/status.json", "application/json", "{\"serving\":true,"},
               {"/metrics", "text/plain; version=0.0.4; charset=utf-8", "# HELP zeph_serving "}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string response = ResponseTo(std::string("GET ") + c.path + " HTTP/1.1\r\n\r\n");
    EXPECT_THAT(response, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(response, HasSubstr(std::string("\r\nContent-Type: ") + c.type + "\r\n"));
    const size_t body = response.find("\r\n\r\n") + 4;
    EXPECT_THAT(response.substr(body), StartsWith(c.start));
    EXPECT_THAT(
        response,
        HasSubstr("\r\nContent-Length: " + std::to_string(response.size() - body) + "\r\n"));
  }
}

TEST(StatusServer, OtherRequestsAreRefused) {
  EXPECT_THAT(ResponseTo("GET / HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 404 "));
  EXPECT_THAT(ResponseTo("POST /status HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 405 "));
  EXPECT_THAT(ResponseTo("GET /status\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(ResponseTo("\n\n"), StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(ResponseTo(" HTTP/1.1\n\n"), StartsWith("HTTP/1.1 400 "));
}

TEST(StatusServer, HeadHasTheLengthWithoutTheBody) {
  const std::string response = ResponseTo("HEAD /ping HTTP/1.0\r\n\r\n");
  EXPECT_THAT(response, HasSubstr("\r\nContent-Length: 3\r\n"));
  EXPECT_THAT(response, EndsWith("\r\n\r\n"));
}

TEST(StatusServer, PingFailsWhileNothingIsServed) {
  const StatusServer server([] { return StatusReport(); });
  EXPECT_THAT(server.Respond("GET /ping HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 503 "));
}

TEST(StatusAddress, IsAnAddressWithAPortOrThePathOfASocket) {
  for (const char* good : {"127.0.0.1:8081", "[::1]:65535", "0.0.0.0:0", "/run/zeph/status.sock"}) {
    StatusAddress address;
    std::string problem;
    EXPECT_TRUE(StatusAddress::Parse(good, &address, &problem)) << good << problem;
  }
  const std::string long_path(200, '/');
  for (const std::string& bad :
       {std::string(""), std::string("8081"), std::string(":8081"), std::string("localhost:8081"),
        std::string("127.0.0.1:"), std::string("127.0.0.1:65536"), std::string("127.0.0.1:80x"),
        std::string("::1:8081"), std::string("status.sock"), long_path}) {
    StatusAddress address;
    std::string problem;
    EXPECT_FALSE(StatusAddress::Parse(bad, &address, &problem)) << bad;
    EXPECT_THAT(problem, HasSubstr("\"" + bad + "\""));
  }
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// Connects and sends; the connection is open until the object ends.
class Visitor {
 public:
  Visitor(const std::string& path, const std::string& bytes) {
    descriptor.reset(socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address = AddressOf(path);
    EXPECT_EQ(
        connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(send(descriptor.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  std::string Read() {
    char buffer[4096];
    const ssize_t count = recv(descriptor.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return {buffer, static_cast<size_t>(count > 0 ? count : 0)};
  }

 private:
  FileDescriptor descriptor;
};

// A server on a socket of the test.
class ListeningStatusServer : public testing::Test {
 protected:
  ListeningStatusServer() : path(directory.path("s")), server(Serving) {}
  void SetUp() override {
    std::string problem;
    ASSERT_TRUE(server.Listen(path, &problem)) << problem;
  }
  // Lets the server work until the visitor has the response to "/ping".
  void ExpectPing(Visitor& visitor) {
    std::vector<pollfd> others;
    std::string got;
    for (int i = 0; i < 50 && got.empty(); i++) {
      server.Turn(&others, 100);
      got = visitor.Read();
    }
    EXPECT_THAT(got, EndsWith("\r\n\r\nok\n"));
  }

  const TemporaryDirectory directory;
  const std::string path;
  StatusServer server;
};

TEST_F(ListeningStatusServer, AClientThatSendsHalfARequestDelaysNoOther) {
  Visitor slow(path, "GET /ping HT");
  std::vector<pollfd> others;
  server.Turn(&others, 1000);
  server.Turn(&others, 1000);
  Visitor quick(path, "GET /ping HTTP/1.1\r\n\r\n");
  ExpectPing(quick);
  EXPECT_EQ(slow.Read(), "");
}

// How often Turn returns in that time, with a client that cannot be accepted.
int Turns(StatusServer& server, std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  std::vector<pollfd> others;
  int turns = 0;
  for (; std::chrono::steady_clock::now() < end; turns++) server.Turn(&others, 1000);
  return turns;
}

TEST_F(ListeningStatusServer, AClientThatCannotBeAcceptedKeepsNoProcessorBusy) {
  Visitor visitor(path, "GET /ping HTTP/1.1\r\n\r\n");
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const int next = dup(0);
  close(next);
  const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int turns = Turns(server, std::chrono::milliseconds(300));
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_LE(turns, 10);
  ExpectPing(visitor);
}

TEST_F(ListeningStatusServer, WithoutMemoryItWaitsAndTheOthersAreHeard) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  Visitor visitor(path, "GET /ping HTTP/1.1\r\n\r\n");
  const FileDescriptor quiet(eventfd(0, EFD_CLOEXEC));
  const FileDescriptor ready(eventfd(1, EFD_CLOEXEC));
  std::vector<pollfd> others{{quiet.get(), POLLIN, 0}};
  const auto start = std::chrono::steady_clock::now();
  {
    const FailingAllocator allocator(1, FailingAllocator::FromThereOn);
    server.Turn(&others, 60000);
  }
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, std::chrono::milliseconds(50));
  EXPECT_LT(time, std::chrono::seconds(30));
  EXPECT_EQ(others[0].revents, 0);
  others.push_back({ready.get(), POLLIN, 0});
  {
    const FailingAllocator allocator(1, FailingAllocator::FromThereOn);
    server.Turn(&others, -1);
  }
  EXPECT_EQ(others[0].revents, 0);
  EXPECT_EQ(others[1].revents, POLLIN);
  ExpectPing(visitor);
}

// As that of a process that was stopped.
TEST(StatusServer, ASocketWhoseQueueIsFullIsNoLeftOverAndDelaysNoStart) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("s");
  FileDescriptor stopped(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = AddressOf(path);
  const auto* any = reinterpret_cast<const sockaddr*>(&address);
  ASSERT_EQ(bind(stopped.get(), any, sizeof address), 0);
  ASSERT_EQ(listen(stopped.get(), 0), 0);
  std::vector<FileDescriptor> clients;
  do {
    clients.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  } while (connect(clients.back().get(), any, sizeof address) == 0);
  auto start = std::async(std::launch::async, [&path] {
    StatusServer server(Serving);
    std::string problem;
    return server.Listen(path, &problem) ? "it listens" : problem;
  });
  const bool ended = start.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  EXPECT_TRUE(ended);
  if (!ended) stopped.reset();
  EXPECT_THAT(start.get(), HasSubstr("Address already in use"));
}

TEST(StatusServer, TakesTheSocketOfAnEndedOneAndNoOther) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("s");
  std::string problem;
  {
    StatusServer ended(Serving);
    ASSERT_TRUE(ended.Listen(path, &problem)) << problem;
    ended.Close(false);
  }
  StatusServer first(Serving);
  ASSERT_TRUE(first.Listen(path, &problem)) << problem;
  StatusServer second(Serving);
  EXPECT_FALSE(second.Listen(path, &problem));
  EXPECT_THAT(problem, HasSubstr("Address already in use"));
  first.Close(true);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace
