// Several processes on one socket, the page of status, and the engine as a service: what happens
// when a worker dies, when all are replaced under load, and when all threads are busy.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "base/host/FileDescriptor.h"
#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/SignalProcess.h"
#include "tests/support/WebServers.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Milliseconds = std::chrono::milliseconds;

template <typename Condition>
bool Eventually(Condition condition, Milliseconds timeout = Milliseconds(60000)) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(Milliseconds(20));
  }
  return true;
}

// An ended process that its parent has not waited for is gone too.
bool IsGone(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string number, name, state;
  return !(file >> number >> name >> state) || state == "Z";
}

// Sends bytes to a UNIX socket, or to a port of this machine, and returns all that comes back.
std::string Exchange(const std::string& socket_path, int port, const std::string& bytes) {
  const FileDescriptor descriptor(socket(port ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage room{};
  if (port) {
    auto* address = reinterpret_cast<sockaddr_in*>(&room);
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<in_port_t>(port));
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else {
    auto* address = reinterpret_cast<sockaddr_un*>(&room);
    address->sun_family = AF_UNIX;
    socket_path.copy(address->sun_path, sizeof address->sun_path - 1);
  }
  if (connect(descriptor.get(), reinterpret_cast<sockaddr*>(&room),
              port ? sizeof(sockaddr_in) : sizeof(sockaddr_un)) != 0) {
    return "";
  }
  send(descriptor.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  const timeval patience{20, 0};
  setsockopt(descriptor.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::string all;
  char buffer[4096];
  for (;;) {
    const ssize_t count = recv(descriptor.get(), buffer, sizeof buffer, 0);
    if (count <= 0) return all;
    all.append(buffer, static_cast<size_t>(count));
  }
}

// An engine with a page, and clients that make its threads wait.
class Service : public testing::Test {
 protected:
  Service() {
    engine.Script("page.zpc", Writes("page"));
    engine.Script("flood.zpc", Floods(2000));
    status_socket = engine.Path("status.sock");
  }

  void ServeStatus() {
    engine.settings += "[process]\nstatus_listen = \"" + status_socket + "\"\n";
  }
  std::string Status(const std::string& page) {
    const std::string response =
        Exchange(status_socket, 0, "GET " + page + " HTTP/1.1\r\nHost: x\r\n\r\n");
    const size_t body = response.find("\r\n\r\n");
    return body == std::string::npos ? response : response.substr(body + 4);
  }
  // A request whose response is larger than any buffer and is not read.
  FastCGIClient* BusyRequest() {
    clients.push_back(std::make_unique<FastCGIClient>());
    FastCGIClient& client = *clients.back();
    EXPECT_TRUE(client.Connect(engine.socket()));
    client.Begin();
    client.Parameters(engine.Parameters("/flood.zpc"));
    client.EndParameters();
    client.EndInput();
    EXPECT_GE(client.ReadOutput(1).size(), 1u);
    return &client;
  }
  std::set<pid_t> Workers() const {
    const std::string pid = std::to_string(engine.pid());
    std::ifstream file("/proc/" + pid + "/task/" + pid + "/children");
    std::set<pid_t> found;
    for (pid_t child; file >> child;) found.insert(child);
    return found;
  }
  // The workers as soon as there are so many: the first one serves before the others are there.
  // Each condition is asked of one look, because a worker may end between two.
  std::set<pid_t> Workers(size_t number) const {
    std::set<pid_t> found;
    EXPECT_TRUE(Eventually([&] { return (found = Workers()).size() == number; }));
    return found;
  }
  // The same, after a worker has ended.
  std::set<pid_t> WorkersWithout(pid_t ended, size_t number) const {
    std::set<pid_t> found;
    EXPECT_TRUE(Eventually([&] {
      found = Workers();
      return found.size() == number && !found.count(ended);
    }));
    return found;
  }
  // One of so many workers, after another has ended; 0 if there are none.
  pid_t Worker(size_t number, pid_t ended = 0) const {
    const std::set<pid_t> found = WorkersWithout(ended, number);
    return found.empty() ? 0 : *found.begin();
  }

  // Starts an engine with so many workers of two threads, of which one has served a page. Returns
  // them; fewer than asked for if the test has failed.
  std::set<pid_t> StartWithWorkers(size_t number) {
    engine.arguments = {"--workers", std::to_string(number), "-t", "2"};
    if (!engine.Start()) return {};
    ExpectPage(engine.Get("/page.zpc"), "page");
    return Workers(number);
  }

  EngineProcess engine;
  std::string status_socket;
  std::vector<std::unique_ptr<FastCGIClient>> clients;
};

// The claims that wait for a heartbeat.
class SlowService : public Service {};

// Clients that send one request after the other until they are stopped.
class Load {
 public:
  Load(EngineProcess& engine, int clients) {
    for (int i = 0; i < clients; i++) {
      threads.emplace_back([&engine, this] {
        while (!ended) {
          const FastCGIResponse response = engine.Get("/page.zpc");
          (response.ended && response.Body() == "page" ? good : bad)++;
        }
      });
    }
  }
  ~Load() { Stop(); }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;
  void Stop() {
    ended = true;
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }
  // Waits for that many more pages.
  void WaitForPages(int count) const {
    const int wanted = good + count;
    EXPECT_TRUE(Eventually([&] { return good >= wanted; }));
  }

  std::atomic<int> good{0};
  std::atomic<int> bad{0};

 private:
  std::atomic<bool> ended{false};
  std::vector<std::thread> threads;
};

TEST_F(Service, StatusIsServedWhileAllThreadsAreBusy) {
  ServeStatus();
  engine.arguments = {"-t", "2"};
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(Eventually([&] { return Status("/ping") == "ok\n"; }));
  ExpectPage(engine.Get("/page.zpc"), "page");
  BusyRequest();
  BusyRequest();
  EXPECT_EQ(Status("/ping"), "ok\n");
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_threads{state=\"running\"} 2\n"));
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_requests_total 1\n"));
  EXPECT_THAT(Status("/status"), HasSubstr("  flood.zpc\n"));
  Command python({"/usr/bin/env", "python3", "-c",
                  "import json,sys\n"
                  "p,=json.loads(sys.argv[1])['processes']\n"
                  "print(p['pid'],p['state'],[t['state'] for t in p['threads']],\n"
                  "      p['resident_bytes']>1000000)",
                  Status("/status.json")});
  EXPECT_EQ(python.Run(), 0) << python.errors;
  EXPECT_EQ(python.output, std::to_string(engine.pid()) + " serving ['running', 'running'] True\n");
}

TEST_F(Service, TheStatusHasTheMostMemoryThatARequestHasHad) {
  if (kThreadSanitizer) GTEST_SKIP() << "the sanitizer counts no memory";
  engine.settings = "memory_limit = 33554432\n";
  ServeStatus();
  engine.arguments = {"-t", "1"};
  // An array that grows without end.
  engine.Script("large.zpc",
                "again: pushg i\npushg a\npushg i\npushi 1\nadd\nelem\nstore\nincg i, 1\n"
                "jmp again\n");
  ASSERT_TRUE(engine.Start());
  const auto most = [this] {
    const std::string text = Status("/metrics");
    const std::string name = "\nzeph_request_memory_max_bytes ";
    const size_t at = text.find(name);
    return at == std::string::npos ? -1 : atol(text.c_str() + at + name.size());
  };
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(Eventually([&] { return most() > 0; }));
  EXPECT_LT(most(), 16000000);
  EXPECT_TRUE(engine.Get("/large.zpc").ended);
  EXPECT_TRUE(Eventually([&] { return most() > 20000000; }));
}

TEST_F(Service, AThreadThatWaitsForTheRestOfARequestIsNotIdle) {
  ServeStatus();
  engine.arguments = {"-t", "2"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient half;
  ASSERT_TRUE(half.Connect(engine.socket()));
  ASSERT_TRUE(half.Begin());
  const auto shows = [&](const std::string& threads) {
    return Eventually([&] { return Status("/status").find(threads) != std::string::npos; },
                      Milliseconds(20000));
  };
  EXPECT_TRUE(shows(" 1 idle, 0 loading, 1 receiving, 0 running")) << Status("/status");
  half.Close();
  EXPECT_TRUE(shows(" 2 idle, 0 loading, 0 receiving, 0 running")) << Status("/status");
}

TEST_F(Service, ThereIsNoStatusByDefault) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(engine.WaitForThreads(10 + EngineProcess::OtherThreads),
            10 + EngineProcess::OtherThreads);
}

TEST_F(Service, AWrongAddressOfTheStatusIsReportedAndPagesAreServed) {
  engine.settings = "[process]\nstatus_listen = \"localhost:80\"\n";
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(engine.Log(), HasSubstr("zeph-fcgi: status_listen: expected an address and a port, "
                                      "or the absolute path of a socket, found \"localhost:80\""));
}

TEST_F(Service, TheStatusMayBeAtAPort) {
  const int port = FreePort();
  for (const char* workers : {"", "2"}) {
    SCOPED_TRACE(workers);
    EngineProcess other;
    other.settings = "[process]\nstatus_listen = \"127.0.0.1:" + std::to_string(port) + "\"\n";
    if (*workers) other.arguments = {"--workers", workers};
    ASSERT_TRUE(other.Start());
    EXPECT_TRUE(Eventually([&] {
      return Exchange("", port, "GET /ping HTTP/1.0\r\n\r\n").ends_with("\r\n\r\nok\n");
    }));
  }
}

TEST_F(Service, AWrongNumberOfWorkersIsReportedAndOneProcessServes) {
  engine.arguments = {"--workers", "0"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(engine.Log(), HasSubstr("--workers needs a number from 1 to 1000, found '0'"));
  EXPECT_TRUE(Workers().empty());
}

TEST_F(Service, AWorkerThatIsKilledUnderLoadTakesOnlyItsOwnRequestsWithIt) {
  ServeStatus();
  const std::set<pid_t> before = StartWithWorkers(2);
  ASSERT_EQ(before.size(), 2u);
  Load load(engine, 4);
  load.WaitForPages(50);
  const pid_t killed = *before.begin();
  SignalProcess(killed, SIGKILL);
  load.WaitForPages(50);
  const std::set<pid_t> after = WorkersWithout(killed, 2);
  load.WaitForPages(50);
  load.Stop();
  EXPECT_LE(load.bad, 2);
  EXPECT_EQ(after.count(*before.rbegin()), 1u);
  EXPECT_THAT(engine.Log(), HasSubstr("zeph-fcgi: worker " + std::to_string(killed) +
                                      " was ended by signal 9\n"));
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_workers_failed_total 1\n"));
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_workers_started_total 3\n"));
}

TEST_F(Service, TheSupervisorWritesToTheLogOfTheEngine) {
  const auto content = [](const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  engine.settings = "error_log = \"" + engine.Path("error.log") + "\"\n";
  engine.arguments = {"--workers", "1", "-t", "many"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  const pid_t first = Worker(1);
  SignalProcess(first, SIGKILL);
  const std::string ended = "error " + std::to_string(engine.pid()) + ": zeph-fcgi: worker ";
  EXPECT_TRUE(Eventually([&] {
    return content(engine.Path("error.log"))
               .find(ended + std::to_string(first) + " was ended by signal 9\n") !=
           std::string::npos;
  }));
  // What was reported before the settings were read is there once, whatever is started later.
  ExpectPage(engine.Get("/page.zpc"), "page");
  const std::string log = content(engine.Path("error.log"));
  const std::string early = "zeph-fcgi: -t needs a number of threads, found 'many'; 10 are started";
  EXPECT_THAT(log, HasSubstr(early));
  EXPECT_EQ(log.find(early), log.rfind(early)) << log;

  // A reload reads the name of the log again.
  engine.settings = "error_log = \"" + engine.Path("other.log") + "\"\n";
  engine.WriteConfiguration();
  const pid_t second = Worker(1);
  engine.Signal(SIGHUP);
  const pid_t third = Worker(1, second);
  SignalProcess(third, SIGKILL);
  EXPECT_TRUE(Eventually([&] {
    return content(engine.Path("other.log")).find(ended + std::to_string(third)) !=
           std::string::npos;
  }));
}

// Else the renamed file could not be given up, nor be compressed.
TEST_F(SlowService, ASupervisorThatHasNothingToSayFollowsARotatedLog) {
  const std::string log = engine.Path("error.log");
  engine.settings = "error_log = \"" + log + "\"\n";
  ASSERT_EQ(StartWithWorkers(1).size(), 1u);
  // The log is the process's standard error, too.
  const std::string error = "/proc/" + std::to_string(engine.pid()) + "/fd/2";
  EXPECT_EQ(std::filesystem::read_symlink(error), log);
  std::filesystem::rename(log, log + ".1");
  EXPECT_EQ(std::filesystem::read_symlink(error), log + ".1");
  EXPECT_TRUE(
      Eventually([&] { return std::filesystem::read_symlink(error) == log; }, Milliseconds(20000)));
}

// The engine's standard error as a pipe, whose reader may end or stop reading.
class Messages {
 public:
  Messages() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    reader.reset(ends[0]);
    writer.reset(ends[1]);
  }
  void FillUp() {
    const int flags = fcntl(writer.get(), F_GETFL);
    fcntl(writer.get(), F_SETFL, flags | O_NONBLOCK);
    const std::string bytes(4096, 'x');
    while (write(writer.get(), bytes.data(), bytes.size()) > 0) {
    }
    fcntl(writer.get(), F_SETFL, flags);
  }

  FileDescriptor reader;
  FileDescriptor writer;
};

TEST_F(Service, ASupervisorWhoseMessagesHaveNoReaderReplacesItsWorkers) {
  Messages messages;
  engine.standard_error = messages.writer.get();
  engine.arguments = {"--workers", "2", "-t", "2"};
  ASSERT_TRUE(engine.Start());
  messages.writer.reset();
  ExpectPage(engine.Get("/page.zpc"), "page");
  messages.reader.reset();
  for (int i = 0; i < 2; i++) {
    const pid_t killed = Worker(2);
    SignalProcess(killed, SIGKILL);
    ASSERT_EQ(WorkersWithout(killed, 2).size(), 2u);
  }
  EXPECT_TRUE(engine.Running());
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(Service, AProcessWhoseMessagesHaveNoReaderServes) {
  Messages messages;
  engine.standard_error = messages.writer.get();
  engine.arguments = {"-t", "none"};
  engine.settings = "[process]\nstatus_listen = \"localhost:80\"\n";
  messages.reader.reset();
  ASSERT_TRUE(engine.Start());
  messages.writer.reset();
  ExpectPage(engine.Get("/page.zpc"), "page");
  ExpectFailure(engine.Get("/nowhere.zpc"),
                "Unable to execute 'nowhere.zpc': No such file or directory");
  EXPECT_TRUE(engine.Running());
}

// The signal of another process still ends it.
TEST_F(SlowService, SIGPIPEOfAnotherProcessEndsASupervisor) {
  engine.arguments = {"--workers", "1"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  engine.Signal(SIGPIPE);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
}

TEST_F(SlowService, ASupervisorWhoseMessagesAreNotReadReplacesItsWorkersAndEnds) {
  Messages messages;
  messages.FillUp();
  engine.standard_error = messages.writer.get();
  engine.arguments = {"--workers", "2", "-t", "2"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  const pid_t killed = Worker(2);
  SignalProcess(killed, SIGKILL);
  ASSERT_EQ(WorkersWithout(killed, 2).size(), 2u);
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
}

// It is read once, so a mistake elsewhere must not cost it.
TEST_F(Service, AMistakeInTheFileIsToldAtTheStartAndKeepsThePageOfStatus) {
  for (const char* workers : {"", "2"}) {
    SCOPED_TRACE(workers);
    EngineProcess other;
    other.settings =
        "cookeys = 0\nshow_erors = 1\n[process]\nmax_requests = -1\n"
        "status_listen = \"" +
        status_socket + "\"\n";
    if (*workers) other.arguments = {"--workers", workers};
    ASSERT_TRUE(other.Start());
    EXPECT_TRUE(Eventually([&] { return Status("/ping") == "ok\n"; }));
    const std::string log = other.Log();
    EXPECT_THAT(log, HasSubstr(": zeph-fcgi: " + other.Path("zeph.toml") +
                               ":4: cookeys: unknown key, the nearest known one is \"cookies\"; 2 "
                               "more, see zeph-fcgi --check\n"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  }
}

TEST_F(Service, AFileThatCannotBeReadIsToldAtTheStart) {
  engine.environment["ZEPH_CONFIG"] = engine.Path("work");
  ASSERT_TRUE(engine.Start());
  EXPECT_TRUE(Eventually([&] {
    return engine.Log().find(": zeph-fcgi: " + engine.Path("work") + ": Not a regular file\n") !=
           std::string::npos;
  }));
}

TEST_F(Service, WorkersThatKeepEndingAreStartedEverMoreSlowly) {
  engine.arguments = {"--workers", "1", "-t", "1"};
  ASSERT_TRUE(engine.Start());
  const auto start = std::chrono::steady_clock::now();
  pid_t last = 0;
  for (int i = 0; i < 5; i++) {
    last = Worker(1, last);
    ASSERT_GT(last, 0);
    if (i < 4) SignalProcess(last, SIGKILL);
  }
  // 100, 200, 400 and 800 milliseconds.
  EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(1500));
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(SlowService, AReloadUnderLoadLosesNoRequest) {
  const std::set<pid_t> before = StartWithWorkers(2);
  ASSERT_EQ(before.size(), 2u);
  FastCGIClient* busy = BusyRequest();
  Load load(engine, 4);
  load.WaitForPages(20);
  engine.Signal(SIGHUP);
  // Three of them: the one with the busy request stays until that has ended.
  ASSERT_TRUE(Eventually([&] {
    const std::set<pid_t> now = Workers();
    return now.size() == 3 && std::count_if(before.begin(), before.end(),
                                            [&](pid_t pid) { return now.count(pid) != 0; }) == 1;
  }));
  load.WaitForPages(20);
  const FastCGIResponse response = busy->Read();
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_EQ(response.Body().size(), 2000 * flood_part);
  ASSERT_EQ(Workers(2).size(), 2u);
  for (const pid_t pid : before) EXPECT_EQ(Workers().count(pid), 0u);
  load.WaitForPages(20);
  load.Stop();
  EXPECT_EQ(load.bad, 0);
  EXPECT_EQ(engine.Log(), "");
}

TEST_F(SlowService, AReloadEndsKeptConnectionsWithoutARequest) {
  const std::set<pid_t> before = StartWithWorkers(1);
  ASSERT_EQ(before.size(), 1u);
  FastCGIClient kept;
  ASSERT_TRUE(kept.Connect(engine.socket()));
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(kept.Request(engine.Parameters("/page.zpc"), "", true).Body(), "page");
  }
  engine.Signal(SIGHUP);
  EXPECT_TRUE(kept.WaitForClose());
  for (const pid_t pid : before) EXPECT_TRUE(Eventually([&] { return IsGone(pid); }));
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(Service, AWorkerIsReplacedAfterMaxRequests) {
  engine.settings = "[process]\nmax_requests = 10\n";
  const std::set<pid_t> before = StartWithWorkers(2);
  ASSERT_EQ(before.size(), 2u);
  Load load(engine, 3);
  load.WaitForPages(100);
  load.Stop();
  EXPECT_EQ(load.bad, 0);
  for (const pid_t pid : before) EXPECT_TRUE(Eventually([&] { return IsGone(pid); }));
  EXPECT_EQ(engine.Log(), "");
}

TEST_F(SlowService, AProcessWithoutWorkersLeavesAfterMaxRequests) {
  engine.settings = "[process]\nmax_requests = 3\n";
  ASSERT_TRUE(engine.Start());
  FastCGIClient* busy = BusyRequest();
  for (int i = 0; i < 3; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(engine.Wait(Milliseconds(2000)), -1);
  const FastCGIResponse response = busy->Read();
  EXPECT_EQ(response.Body().size(), 2000 * flood_part);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
}

// Nothing else would serve while it waits for the task.
TEST_F(SlowService, AProcessWithoutWorkersThatRunsATaskServesUntilTheTaskHasEnded) {
  engine.settings = "timeout_async = 2\n[process]\nmax_requests = 2\n";
  // The task has the settings that its request has read.
  engine.Script("task.zpc",
                "pushs zeph_config\npushc \"timeout_async\"\nmemb\npopg pinned\n"
                "async after\nagain: jmp again\nafter: " +
                    Writes("started"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc"), "started");
  for (int i = 0; i < 5; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(engine.Wait(Milliseconds(30000)), 0);
}

TEST_F(SlowService, AWorkerLeavesAfterMaxRequestsWhateverItsTasksDo) {
  engine.settings = "[process]\nmax_requests = 2\n";
  engine.arguments = {"--workers", "1"};
  engine.Script("task.zpc", "async after\nagain: jmp again\nafter: " + Writes("started"));
  ASSERT_TRUE(engine.Start());
  const pid_t first = Worker(1);
  ExpectPage(engine.Get("/task.zpc"), "started");
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(Eventually([&] { return Workers().size() == 2; }));
  EXPECT_EQ(Workers().count(first), 1u);
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(SlowService, SIGTERMEndsAllWorkersInTime) {
  ServeStatus();
  const std::set<pid_t> workers = StartWithWorkers(3);
  ASSERT_EQ(workers.size(), 3u);
  BusyRequest();
  engine.Signal(SIGTERM);
  EXPECT_TRUE(Eventually([&] { return Status("/ping") == "not serving\n"; }, Milliseconds(2000)));
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
  for (const pid_t pid : workers) EXPECT_TRUE(IsGone(pid));
  EXPECT_NE(access(status_socket.c_str(), F_OK), 0);
}

TEST_F(SlowService, AWorkerThatHangsIsKilledInTime) {
  const std::set<pid_t> workers = StartWithWorkers(1);
  ASSERT_EQ(workers.size(), 1u);
  const pid_t worker = *workers.begin();
  SignalProcess(worker, SIGSTOP);
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
  EXPECT_TRUE(IsGone(worker));
}

TEST_F(SlowService, WorkersLeaveWhenTheirSupervisorIsKilled) {
  const std::set<pid_t> workers = StartWithWorkers(2);
  ASSERT_EQ(workers.size(), 2u);
  engine.Signal(SIGKILL);
  for (const pid_t pid : workers) EXPECT_TRUE(Eventually([&] { return IsGone(pid); }));
}

// The engine as a service manager starts it: sockets from descriptor 3 on, and a socket for its
// messages.
class SlowManagedService : public Service {
 protected:
  ~SlowManagedService() override {
    if (process > 0) {
      SignalProcess(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
  }

  static int Bound(const std::string& path, int type) {
    const int made = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    if (type == SOCK_STREAM) listen(made, 64);
    return made;
  }

  void StartManaged() {
    engine.WriteConfiguration();
    const FileDescriptor requests(Bound(engine.socket(), SOCK_STREAM));
    const FileDescriptor pages(Bound(status_socket, SOCK_STREAM));
    messages.reset(Bound(engine.Path("notify"), SOCK_DGRAM));
    const timeval patience{60, 0};
    setsockopt(messages.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    process = fork();
    if (process != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // First to numbers that none of them has.
    dup2(requests.get(), 100);
    dup2(pages.get(), 101);
    dup2(100, 3);
    dup2(101, 4);
    close_range(5, ~0u, 0);
    close(0);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "2", 1);
    setenv("LISTEN_FDNAMES", "requests:status", 1);
    setenv("NOTIFY_SOCKET", engine.Path("notify").c_str(), 1);
    setenv("ZEPH_CONFIG", engine.Path("zeph.toml").c_str(), 1);
    const std::string program = EngineProcess::Program();
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (std::string& argument : engine.arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  std::string Message() {
    char buffer[256];
    const ssize_t count = recv(messages.get(), buffer, sizeof buffer, 0);
    return count < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(count));
  }
  int End() {
    SignalProcess(process, SIGTERM);
    EXPECT_EQ(Message(), "STOPPING=1");
    int status = -1;
    waitpid(process, &status, 0);
    process = -1;
    return status;
  }

  FileDescriptor messages;
  pid_t process = -1;
};

TEST_F(SlowManagedService, OneProcessTellsItsStateAndServesOnItsSockets) {
  StartManaged();
  EXPECT_EQ(Message(), "READY=1");
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(Status("/ping"), "ok\n");
  EXPECT_EQ(End(), 0);
}

TEST_F(SlowManagedService, WorkersAreReloadedAndOnlyTheSupervisorTells) {
  engine.arguments = {"--workers", "2", "-t", "2"};
  StartManaged();
  EXPECT_EQ(Message(), "READY=1");
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_processes 2\n"));
  SignalProcess(process, SIGHUP);
  EXPECT_THAT(Message(), StartsWith("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_EQ(Message(), "READY=1");
  EXPECT_THAT(Status("/metrics"), HasSubstr("\nzeph_reloads_total 1\n"));
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(End(), 0);
}

}  // namespace
