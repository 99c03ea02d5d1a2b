// The loop of zeph dev. Tested in tests/e2e/DevelopTest.cpp.

#include "develop/Develop.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>

#include "compiler/PageFiles.h"
#include "develop/Child.h"
#include "develop/Gateway.h"
#include "develop/LiveSite.h"
#include "develop/Watch.h"
#include "develop/WorkFolder.h"

namespace fs = std::filesystem;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kAddress[] = "127.0.0.1";

// An editor may write several files, or one in several steps: what comes in this time is one
// change.
constexpr int kSettleMilliseconds = 10;
constexpr int kMostSettling = 10;

// How long the engine may take to end: a script that runs is ended in order.
constexpr milliseconds kEnginePatience(8000);
constexpr milliseconds kWebPatience(2000);

// Threads of an engine without background tasks: ten for requests, the heartbeat, and the main one.
constexpr size_t kIdleThreads = 12;

// An engine that has run for this time is started again at once when it ends. After a shorter life
// there is a pause, which grows each time.
constexpr milliseconds kLongLife(10000);
constexpr milliseconds kShortestPause(100);
constexpr milliseconds kLongestPause(10000);

// A folder of this run, removed at its end.
class RunFolder {
 public:
  bool Make() {
    std::error_code failure;
    fs::path place = fs::temp_directory_path(failure);
    if (failure) place = "/tmp";
    name = (place / "zeph-XXXXXX").string();
    if (!mkdtemp(name.data())) {
      name.clear();
      return false;
    }
    return true;
  }
  ~RunFolder() {
    std::error_code ignored;
    if (!name.empty()) fs::remove_all(name, ignored);
  }
  RunFolder() = default;
  RunFolder(const RunFolder&) = delete;
  RunFolder& operator=(const RunFolder&) = delete;
  std::string File(const char* file) const { return name + "/" + file; }
  const std::string& path() const { return name; }

 private:
  std::string name;
};

// A socket that listens on a port of this machine. *port receives the number for 0.
int ListenOnPort(int* port) {
  FileDescriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made.is_open()) return -1;
  const int on = 1;
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(*port));
  inet_pton(AF_INET, kAddress, &address.sin_addr);
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const int waiting = 128;
  if (bind(made.get(), any, length) != 0 || listen(made.get(), waiting) != 0 ||
      getsockname(made.get(), any, &length) != 0) {
    return -1;
  }
  *port = ntohs(address.sin_port);
  return made.release();
}

// The path of the web server: it is in a folder that the PATH of users often leaves out.
std::string FindWebServer() {
  const char* path = getenv("PATH");
  std::string folders = (path ? path : "") + std::string(":/usr/sbin:/usr/local/sbin:/sbin");
  for (size_t at = 0; at <= folders.size();) {
    const size_t end = std::min(folders.find(':', at), folders.size());
    std::string program = folders.substr(at, end - at) + "/lighttpd";
    if (end > at && access(program.c_str(), X_OK) == 0) return program;
    at = end + 1;
  }
  return "";
}

size_t ThreadsOf(pid_t process) {
  size_t count = 0;
  std::error_code failure;
  for (auto entry = fs::directory_iterator("/proc/" + std::to_string(process) + "/task", failure);
       !failure && entry != fs::directory_iterator(); entry.increment(failure)) {
    count++;
  }
  return count;
}

class Development {
 public:
  Development(const ZephArguments& arguments, const Places& places)
      : arguments(arguments), places(places), port(arguments.port) {}

  int Run() {
    if (const int status = Prepare()) return status;
    const SiteFolders folders = {work / "pages", work / "data", run.path() + "/temp"};
    if (!MakeWork(root, {"pages", "data"}) || !RemoveForeignPages(root, folders.pages)) return 1;
    if (mkdir(folders.temporary.c_str(), 0700) != 0) {
      return FailedSystem(folders.temporary.string());
    }
    LiveSite live(root, folders, places, arguments.defines);
    site = &live;
    if (!Refresh({})) return 1;
    Gateway gateway(&live, root, run.File("engine.sock"), places.shared);
    engine_socket.reset(ListenOnSocket(run.File("engine.sock")));
    if (!engine_socket.is_open()) return FailedSystem(run.File("engine.sock"));
    if (!StartEngine() || !StartWebServer()) return 1;
    if (!gateway.Start(run.File("gateway.sock"))) return FailedSystem(run.File("gateway.sock"));
    std::cout << "http://" << kAddress << ":" << port << "/" << std::endl;
    const int status = Loop();
    // A script that runs is ended in order, which the engine takes its time for. Asked once more,
    // zeph waits no longer.
    const bool is_idle = gateway.is_idle() && ThreadsOf(engine.process()) <= kIdleThreads;
    web_server.Stop(kWebPatience);
    live.Stop();
    gateway.Stop();
    engine.Stop(is_idle ? milliseconds(0) : kEnginePatience, [this] { return IsAskedToEnd(); });
    return status;
  }

 private:
  // What has to be there before anything is started.
  int Prepare() {
    std::error_code failure;
    root = fs::canonical(arguments.place, failure);
    if (failure || !fs::is_directory(root, failure)) {
      return Failed("there is no folder " + arguments.place);
    }
    work = root / work_name;
    web_program = FindWebServer();
    if (web_program.empty()) return Failed("lighttpd is not installed");
    library = places.Library("libzephconfig.so");
    if (library.empty()) return Failed("libzephconfig.so is not installed with zeph");
    web_socket.reset(ListenOnPort(&port));
    if (!web_socket.is_open()) {
      if (errno == EADDRINUSE) {
        return Failed("port " + std::to_string(port) +
                      " is in use; zeph dev DIR PORT takes another one, 0 any that is free");
      }
      return FailedSystem("port " + std::to_string(port));
    }
    if (!run.Make()) return FailedSystem("temporary folder");
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signals.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.is_open()) return FailedSystem("signals");
    // Before the first look at the files, so that no change is missed.
    if (!watch.Open() || !watch.AddFolder(root)) {
      return FailedSystem("cannot watch " + root.string());
    }
    if (!watch.AddTree(root)) ReportWatch(errno);
    return 0;
  }

  // Once: there would be a message for each folder.
  void ReportWatch(int reason) {
    if (reason == 0 || watch_failed) return;
    watch_failed = true;
    errno = reason;
    FailedSystem("changes in some folders are not noticed");
  }

  bool Refresh(const std::set<std::string>& touched) {
    const auto start = steady_clock::now();
    const LiveSite::Report report = site->Refresh(touched);
    const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
    std::cerr << report.messages;
    const Site::Changes& changes = report.changes;
    if (!changes.compiled.empty() || !changes.removed.empty()) {
      std::string what;
      if (!changes.compiled.empty()) what = Count(changes.compiled.size(), "page") + " compiled";
      if (!changes.removed.empty()) {
        what += (what.empty() ? "" : ", ") + Count(changes.removed.size(), "page") + " removed";
      }
      std::cout << what << " in " << took << " ms" << std::endl;
    }
    bool has_new = false;
    for (const std::string& folder : report.outside_folders) {
      has_new = outside_folders.insert(folder).second || has_new;
      if (!watch.AddFolder(folder)) ReportWatch(errno);
    }
    // The engine keeps the last settings that were in order; pages show what is wrong.
    if (changes.settings && report.settings_ok) {
      if (!WriteWholeFile(run.File("zeph.toml"), report.settings_text)) {
        FailedSystem(run.File("zeph.toml"));
        return false;
      }
      // An engine that could not begin with the old ones may do so now.
      engine_due = steady_clock::now();
    }
    // What has changed there before it was watched.
    return !has_new || Refresh({});
  }

  bool StartEngine() {
    Child::Program program;
    program.words = {(places.programs / "zeph-fcgi").string()};
    program.environment = {{"ZEPH_CONFIG", run.File("zeph.toml")}, {"ZpCONFIG_LIBRARY", ""}};
    // The engine looks for its configuration library in its working directory.
    program.directory = library.parent_path().string();
    program.input = engine_socket.get();
    engine_start = steady_clock::now();
    if (engine.Start(program)) return true;
    FailedSystem("the engine");
    return false;
  }

  bool StartWebServer() {
    Child::Program program;
    program.words = {web_program, "-D", "-f", (places.shared / "lighttpd.conf").string()};
    program.environment = {{"ZEPH_ADDRESS", kAddress},
                           {"ZEPH_PORT", std::to_string(port)},
                           {"ZEPH_SITE", root.string()},
                           {"ZEPH_RUN", run.path()}};
    program.activation = web_socket.get();
    if (web_server.Start(program)) return true;
    FailedSystem("lighttpd");
    return false;
  }

  // Returns the exit status.
  int Loop() {
    pollfd polled[] = {{watch.descriptor(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    for (;;) {
      if (poll(polled, 2, StartDueEngine()) < 0 && errno != EINTR) return FailedSystem("poll");
      if (polled[1].revents) {
        bool ends = false;
        if (const int status = TakeSignals(&ends)) return status;
        if (ends) return 0;
      }
      std::set<std::string> touched;
      if (!polled[0].revents || !watch.Read(&touched)) continue;
      for (int i = 0; i < kMostSettling && poll(polled, 1, kSettleMilliseconds) > 0; i++) {
        watch.Read(&touched);
      }
      ReportWatch(watch.TakeFailure());
      if (!Refresh(touched)) return 1;
    }
  }

  // Starts an engine that has ended when its pause is over. Returns for how many milliseconds there
  // is nothing more to do about it; -1 while it runs.
  int StartDueEngine() {
    if (engine.process() > 0) return -1;
    const auto now = steady_clock::now();
    if (now < engine_due) {
      return static_cast<int>(std::chrono::ceil<milliseconds>(engine_due - now).count());
    }
    if (StartEngine()) return -1;
    return static_cast<int>(PauseEngine().count());
  }

  // The time until the next start. One that soon ends again will not do better at once.
  milliseconds PauseEngine() {
    const auto now = steady_clock::now();
    if (now - engine_start >= kLongLife) {
      engine_pause = milliseconds(0);
    } else {
      engine_pause = std::clamp(engine_pause * 2, kShortestPause, kLongestPause);
    }
    engine_due = now + engine_pause;
    return engine_pause;
  }

  bool IsAskedToEnd() {
    bool asked = false;
    signalfd_siginfo information;
    while (read(signals.get(), &information, sizeof information) == sizeof information) {
      if (information.ssi_signo != SIGCHLD) asked = true;
    }
    return asked;
  }

  int TakeSignals(bool* ends) {
    *ends = IsAskedToEnd();
    int status = 0;
    for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
      if (ended == web_server.process()) {
        web_server.Forget();
        std::string log;
        if (ReadWholeFile(run.File("web.log"), &log)) std::cerr << log;
        return Failed("lighttpd has ended");
      }
      if (ended != engine.process()) continue;
      engine.Forget();
      if (*ends) continue;
      const std::string how = WIFSIGNALED(status) ? std::string(strsignal(WTERMSIG(status)))
                                                  : "status " + std::to_string(WEXITSTATUS(status));
      const milliseconds pause = PauseEngine();
      Failed("the engine has ended: " + how + "; it is started again" +
             (pause.count() > 0 ? " in " + std::to_string(pause.count()) + " ms" : ""));
    }
    return 0;
  }

  const ZephArguments& arguments;
  const Places& places;
  int port;
  fs::path root;
  fs::path work;
  fs::path library;
  std::string web_program;
  // The children are ended before their folder goes.
  RunFolder run;
  FileDescriptor web_socket;
  FileDescriptor engine_socket;
  FileDescriptor signals;
  Watch watch;
  LiveSite* site = nullptr;
  Child engine;
  Child web_server;
  steady_clock::time_point engine_start;
  steady_clock::time_point engine_due;
  milliseconds engine_pause{0};
  bool watch_failed = false;
  std::set<std::string> outside_folders;
};

}  // namespace

int ServeSite(const ZephArguments& arguments, const Places& places) {
  return Development(arguments, places).Run();
}
