// The gateway between a web server and an engine that the test is both of.

#include "develop/Gateway.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <system_error>
#include <thread>

#include "develop/Records.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Parameters = std::map<std::string, std::string>;

constexpr int kRecordInput = 5;
constexpr std::chrono::seconds kPatience(20);

std::string Length(size_t length) {
  if (length < 128) return std::string(1, static_cast<char>(length));
  std::string bytes;
  for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(length >> shift & 0xFF);
  bytes[0] = static_cast<char>(bytes[0] | 0x80);
  return bytes;
}

FileDescriptor Connected(const std::string& path, int flags = 0) {
  FileDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) made.reset();
  return made;
}

std::string BeginOf(const Parameters& parameters) {
  std::string text;
  for (const auto& [name, value] : parameters) {
    text += Length(name.size()) + Length(value.size()) + name + value;
  }
  return MakeRecords(kRecordBegin, 1, std::string("\0\1\0\0\0\0\0\0", 8)) +
         MakeRecords(kRecordParameters, 1, text) + EndOfStream(kRecordParameters, 1);
}

// All output up to the end of the request or of the connection.
std::string OutputOf(int socket) {
  std::string output;
  for (Record record; ReadRecord(socket, &record) && record.type != kRecordEnd;) {
    if (record.type == kRecordOutput) output += record.content;
  }
  return output;
}

// Another user who may have no thread more, for the calls of the whole process.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    getrlimit(RLIMIT_NPROC, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NPROC, &none);
    // Limits are not those of root.
    const uid_t other = 65534;
    is_root = getuid() == 0;
    if (is_root) is_ready = setresuid(other, other, 0) == 0;
  }
  ~NoMoreThreads() {
    if (is_root && setresuid(0, 0, 0) != 0) abort();
    setrlimit(RLIMIT_NPROC, &before);
  }
  bool is_ready = true;

 private:
  rlimit before = {};
  bool is_root = false;
};

class GatewayTest : public testing::Test {
 protected:
  GatewayTest()
      : engine(directory.path("engine")),
        live(directory.Directory("site"), {directory.path("pages"), "/d", "/t"}, places, {}) {}

  void Start(int most_requests = Gateway::kMostRequests) {
    live.Refresh({});
    const std::string shared = directory.Directory("shared");
    gateway =
        std::make_unique<Gateway>(&live, directory.path("site"), engine, shared, most_requests);
    ASSERT_TRUE(gateway->Start(directory.path("gateway")));
  }
  void TearDown() override {
    live.Stop();
    if (gateway) gateway->Stop();
  }
  FileDescriptor Begin(Parameters parameters) {
    FileDescriptor made = Connected(directory.path("gateway"));
    parameters.emplace("REQUEST_METHOD", "GET");
    EXPECT_TRUE(WriteBytes(made.get(), BeginOf(parameters)));
    return made;
  }
  std::string Ask(const Parameters& parameters) {
    const FileDescriptor made = Begin(parameters);
    EXPECT_TRUE(WriteBytes(made.get(), EndOfStream(kRecordInput, 1)));
    return OutputOf(made.get());
  }

  TemporaryDirectory directory;
  Places places;
  std::string engine;
  LiveSite live;
  std::unique_ptr<Gateway> gateway;
};

TEST_F(GatewayTest, AHeadOfAnErrorPageHasNoBody) {
  directory.File("site/a.zeph", "<ZpX>");
  Start();
  const std::string whole = Ask({{"PATH_INFO", "/a.zpc"}});
  EXPECT_THAT(whole, StartsWith("Status: 500 "));
  EXPECT_THAT(whole, HasSubstr("there is no tag 'ZpX'"));
  const std::string head = Ask({{"PATH_INFO", "/a.zpc"}, {"REQUEST_METHOD", "HEAD"}});
  EXPECT_EQ(head, whole.substr(0, whole.find("\r\n\r\n") + 4));
}

TEST_F(GatewayTest, ManyRequestsAtATimeAreServed) {
  directory.File("site/a.zeph", "<ZpX>");
  Start();
  std::vector<FileDescriptor> visitors;
  for (int i = 0; i < 200; i++) visitors.push_back(Begin({{"PATH_INFO", "/a.zpc"}}));
  for (const FileDescriptor& visitor : visitors) {
    EXPECT_THAT(OutputOf(visitor.get()), StartsWith("Status: 500 "));
  }
}

TEST_F(GatewayTest, OneRequestTooManyIsRefusedAndLaterOnesAreServed) {
  directory.File("site/page.html", "x");
  Start(1);
  FileDescriptor listener =
      Begin({{"PATH_INFO", "/-zeph/events"}, {"QUERY_STRING", std::to_string(live.version())}});
  Record first;
  ASSERT_TRUE(ReadRecord(listener.get(), &first));
  EXPECT_THAT(Ask({{"PATH_INFO", "/page.html"}}), StartsWith("Status: 502 "));
  // Its thread notices that there is something to tell, and then that it is gone.
  listener.reset();
  directory.File("site/other.html", "x");
  live.Refresh({});
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string output;
  do {
    output = Ask({{"PATH_INFO", "/page.html"}});
  } while (output.find("502") != std::string::npos && std::chrono::steady_clock::now() < deadline);
  EXPECT_THAT(output, StartsWith("Content-Type: text/html"));
}

TEST_F(GatewayTest, ARequestWithoutAThreadIsRefused) {
  Start();
  for (const char* name : {"", "gateway"}) {
    std::filesystem::permissions(directory.path(name), std::filesystem::perms::all);
  }
  {
    const NoMoreThreads limit;
    if (!limit.is_ready) GTEST_SKIP() << "needs another user to be";
    bool has_thread = true;
    try {
      std::thread([] {}).join();
    } catch (const std::system_error&) {
      has_thread = false;
    }
    if (has_thread) GTEST_SKIP() << "the system has no such limit";
    EXPECT_THAT(Ask({{"PATH_INFO", "/a.html"}}), StartsWith("Status: 502 "));
  }
  EXPECT_THAT(Ask({{"PATH_INFO", "/a.html"}}), StartsWith("Status: 404 "));
}

TEST_F(GatewayTest, WithoutAnEngineAPageIsRefused) {
  Start();
  EXPECT_THAT(Ask({{"PATH_INFO", "/a.zpc"}}), HasSubstr("The engine does not run."));
}

TEST_F(GatewayTest, TheEndDoesNotWaitForAnEngineThatTakesNoConnection) {
  FileDescriptor listening(ListenOnSocket(engine));
  ASSERT_TRUE(listening.is_open());
  std::vector<FileDescriptor> waiting;
  do {
    waiting.push_back(Connected(engine, SOCK_NONBLOCK));
  } while (waiting.back().is_open() && waiting.size() < 10000);
  ASSERT_FALSE(waiting.back().is_open());
  Start();
  const FileDescriptor visitor = Begin({{"PATH_INFO", "/a.zpc"}});
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::future<void> end = std::async(std::launch::async, [&] { gateway->Stop(); });
  EXPECT_EQ(end.wait_for(kPatience), std::future_status::ready);
  // Whatever has happened, the connection fails now.
  listening.reset();
}

TEST_F(GatewayTest, AnEngineHearsThatAVisitorHasLeftDuringAPost) {
  const FileDescriptor listening(ListenOnSocket(engine));
  Start();
  FileDescriptor visitor = Begin({{"PATH_INFO", "/a.zpc"}, {"REQUEST_METHOD", "POST"}});
  EXPECT_TRUE(WriteBytes(visitor.get(), MakeRecords(kRecordInput, 1, "half")));
  const FileDescriptor connection(accept(listening.get(), nullptr, nullptr));
  std::string input;
  for (Record record; input.size() < 4 && ReadRecord(connection.get(), &record);) {
    if (record.type == kRecordInput) input += record.content;
  }
  EXPECT_EQ(input, "half");
  EXPECT_FALSE(gateway->is_idle());
  visitor.reset();
  Record none;
  EXPECT_FALSE(ReadRecord(connection.get(), &none)) << "the end of the connection";
  EXPECT_THAT(Ask({{"PATH_INFO", "/none.html"}}), StartsWith("Status: 404 "));
}

TEST_F(GatewayTest, StaticPagesAreFilesOfTheSiteInAnyCase) {
  directory.File("site/A.HTML", "x");
  directory.File("secret.html", "secret");
  directory.Link("site/link.html", "../secret.html");
  directory.Directory("outside");
  directory.File("outside/page.html", "secret");
  directory.Link("site/folder", "../outside");
  directory.Link("site/inside.html", "A.HTML");
  Start();
  EXPECT_EQ(Ask({{"PATH_INFO", "/A.HTML"}}),
            "Content-Type: text/html\r\nCache-Control: no-cache\r\n\r\nx");
  for (const char* path :
       {"/link.html", "/folder/page.html", "/inside.html", "/folder/../../secret.html"}) {
    EXPECT_THAT(Ask({{"PATH_INFO", path}}), StartsWith("Status: 404 ")) << path;
  }
}

TEST_F(GatewayTest, AnErrorInATextFieldIsShownAfterIt) {
  directory.File("site/a.zeph", "x");
  const FileDescriptor listening(ListenOnSocket(engine));
  Start();
  std::future<void> serving = std::async(std::launch::async, [&] {
    const FileDescriptor connection(accept(listening.get(), nullptr, nullptr));
    for (Record record; ReadRecord(connection.get(), &record) && record.type != kRecordInput;) {
    }
    static_cast<void>(WriteBytes(
        connection.get(),
        MakeRecords(
            kRecordOutput, 1,
            "Content-Type: text/html\r\n\r\n<textarea>Fatal error in a.zpc @ [1:2]: a.zeph: "
            "Line 1: no\n") +
            EndOfStream(kRecordOutput, 1) + EndOfRequest(1)));
  });
  const std::string page = Ask({{"PATH_INFO", "/a.zpc"}, {"HTTP_ACCEPT", "text/html"}});
  serving.get();
  const size_t shown = page.find("<code>a.zeph:1</code>");
  ASSERT_NE(shown, std::string::npos) << page;
  EXPECT_LT(page.find("</textarea>"), shown);
}

}  // namespace
