// Starts, observes and ends the built engine.

#include "tests/support/EngineProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/Paths.h"
#include "tests/support/SignalProcess.h"
#include "tools/Assembler.h"

namespace {

constexpr int exit_no_program = 127;
constexpr unsigned highest_descriptor_limit = 1000;

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Polls until test returns true. Returns whether it did.
template <typename Test>
bool Eventually(EngineProcess::Milliseconds timeout, Test test) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!test()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(EngineProcess::Milliseconds(5));
  }
  return true;
}

// A listening socket on a free port of the loopback; -1 on an error.
int ListenOnPort(int* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (made >= 0 && bind(made, any, length) == 0 && listen(made, 128) == 0 &&
      getsockname(made, any, &length) == 0) {
    *port = ntohs(address.sin_port);
    return made;
  }
  if (made >= 0) close(made);
  return -1;
}

void Limit(decltype(RLIMIT_STACK) resource, unsigned long bytes) {
  if (bytes == 0) return;
  rlimit limit{bytes, bytes};
  setrlimit(resource, &limit);
}

}  // namespace

EngineProcess::EngineProcess() {
  socket_path = Path("fcgi.sock");
  for (const char* folder : {"scripts", "data", "temp", "work"}) Folder(folder);
}

EngineProcess::~EngineProcess() {
#ifdef ZEPH_COVERAGE
  // A process writes its counts when it ends by itself.
  Signal(SIGTERM);
  Wait();
#endif
  if (Running()) {
    SignalProcess(process, SIGKILL);
    Wait();
  }
  std::string log = Log();
  if (log.find("Sanitizer") != std::string::npos) ADD_FAILURE() << log;
  if (listening >= 0) close(listening);
}

std::string EngineProcess::Program() {
  return InBuild("bin/zeph-fcgi");
}

std::string EngineProcess::ConfigurationLibrary() {
  return InBuild("lib/libzephconfig.so");
}

std::string EngineProcess::Path(std::string_view relative) const {
  return directory.path() + "/" + std::string(relative);
}

std::string EngineProcess::Folder(std::string_view relative) {
  std::string path = Path(relative);
  std::error_code problem;
  std::filesystem::create_directories(path, problem);
  if (problem) ADD_FAILURE() << path << ": " << problem.message();
  return path;
}

std::string EngineProcess::Write(std::string_view relative, std::string_view bytes) {
  std::string path = Path(relative);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
  file.close();
  if (!file) ADD_FAILURE() << "cannot write " << path;
  return path;
}

std::string EngineProcess::Script(std::string_view name, std::string_view source) {
  std::string image, errors;
  if (!AssembleScript(source, name, &image, &errors)) ADD_FAILURE() << errors;
  return Write("scripts/" + std::string(name), image);
}

void EngineProcess::WriteConfiguration() {
  if (!configuration.empty()) {
    Write("zeph.toml", configuration);
    return;
  }
  Write("zeph.toml", "dir_zeph = \"" + Path("scripts") + "\"\ndir_data = \"" + Path("data") +
                         "\"\ndir_temp = \"" + Path("temp") + "\"\n" + settings);
}

int EngineProcess::OpenDescriptor0() {
  if (descriptor0 == PlainFile) return open(Write("plain", "").c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor0 == Closed) return -1;
  if (descriptor0 == TCPSocket) return ListenOnPort(&listening_port);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof address.sun_path) return -1;
  memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
  int flags = SOCK_STREAM | SOCK_CLOEXEC | (descriptor0 == NonBlockingSocket ? SOCK_NONBLOCK : 0);
  int made = ::socket(AF_UNIX, flags, 0);
  if (bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      listen(made, 128) == 0) {
    return made;
  }
  close(made);
  return -1;
}

// Runs between fork and exec, in a process with this one thread. Allocation is safe here because
// tests that start engines have no other thread that could hold the heap's lock.
void EngineProcess::RunChild(int descriptor) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no process
  if (descriptor >= 0) {
    dup2(descriptor, 0);
  } else {
    close(0);
  }
  int log = open(Path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(log, 1);
  dup2(standard_error >= 0 ? standard_error : log, 2);
  // Descriptors that the test has inherited are not passed to the engine.
  close_range(3, ~0u, 0);
  if (descriptor_limit > 0) {
    rlimit limit{descriptor_limit, highest_descriptor_limit};
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  Limit(RLIMIT_STACK, stack_limit);
  Limit(RLIMIT_AS, address_space_limit);
  if (chdir(Path("work").c_str()) != 0) _exit(exit_no_program);
  setenv("ZEPH_CONFIG", Path("zeph.toml").c_str(), 1);
  for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  std::string program = Program();
  std::vector<char*> argv = {program.data()};
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(exit_no_program);
}

bool EngineProcess::Start() {
  WriteConfiguration();
  listening = OpenDescriptor0();
  if (listening < 0 && descriptor0 != Closed) {
    ADD_FAILURE() << "no descriptor 0 for the engine: " << strerror(errno);
    return false;
  }
  process = fork();
  if (process == 0) RunChild(listening);
  // From here on only the engine listens: connecting fails after its end.
  if (listening >= 0) close(listening);
  listening = -1;
  return process > 0;
}

int EngineProcess::Wait(Milliseconds timeout) {
  Eventually(timeout, [&] { return !Running(); });
  return status;
}

bool EngineProcess::Running() {
  if (process <= 0 || status >= 0) return false;
  int raw = 0;
  if (waitpid(process, &raw, WNOHANG) != process) return true;
  status = WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw);
  return false;
}

void EngineProcess::Signal(int number) {
  if (Running()) SignalProcess(process, number);
}

std::string EngineProcess::Log() const {
  return ReadWhole(Path("log"));
}

std::string EngineProcess::ProcessArguments() const {
  return ReadWhole("/proc/" + std::to_string(process) + "/cmdline");
}

bool EngineProcess::WaitUntilReady() {
  // The signals that a process handles are a mask in hexadecimal; SIGHUP is its lowest bit.
  const std::string field = "SigCgt:\t";
  return Eventually(Milliseconds(20000), [&] {
    std::string text = ReadWhole("/proc/" + std::to_string(process) + "/status");
    size_t start = text.find(field);
    return start != std::string::npos &&
           (std::stoull(text.substr(start + field.size()), nullptr, 16) & 1) != 0;
  });
}

int EngineProcess::Threads() const {
  return CountOfEntries("task");
}

long EngineProcess::ResidentBytes() const {
  std::istringstream pages(ReadWhole("/proc/" + std::to_string(process) + "/statm"));
  long all = 0, resident = 0;
  pages >> all >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

int EngineProcess::WaitForThreads(int wanted, Milliseconds timeout) const {
  Eventually(timeout, [&] { return Threads() == wanted; });
  return Threads();
}

int EngineProcess::Descriptors() const {
  return CountOfEntries("fd");
}

int EngineProcess::WaitForDescriptors(int wanted, Milliseconds timeout) const {
  Eventually(timeout, [&] { return Descriptors() == wanted; });
  return Descriptors();
}

void EngineProcess::LimitDescriptors(unsigned limit) const {
  rlimit wanted{limit, highest_descriptor_limit};
  if (prlimit(process, RLIMIT_NOFILE, &wanted, nullptr) != 0)
    ADD_FAILURE() << "prlimit: " << strerror(errno);
}

void EngineProcess::LimitMemory(size_t more) const {
  // The first number in that file is the size of the address space, in pages.
  const auto pages = std::stoul(ReadWhole("/proc/" + std::to_string(process) + "/statm"));
  const rlim_t limit = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + more;
  rlimit wanted{limit, limit};
  if (prlimit(process, RLIMIT_AS, &wanted, nullptr) != 0)
    ADD_FAILURE() << "prlimit: " << strerror(errno);
}

int EngineProcess::CountOfEntries(const char* folder) const {
  std::error_code problem;
  int count = 0;
  std::filesystem::directory_iterator entries("/proc/" + std::to_string(process) + "/" + folder,
                                              problem);
  for (; !problem && entries != std::filesystem::directory_iterator(); entries.increment(problem))
    count++;
  return count;
}

FastCGIParameters EngineProcess::Parameters(const char* path, const FastCGIParameters& more) const {
  FastCGIParameters parameters;
  if (name_library) parameters.emplace_back("ZpCONFIG_LIBRARY", ConfigurationLibrary());
  if (path) parameters.emplace_back("PATH_INFO", path);
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

FastCGIResponse EngineProcess::Get(const char* path, const FastCGIParameters& more,
                                   std::string_view input) {
  FastCGIClient client;
  if (!client.Connect(socket_path)) {
    FastCGIResponse failed;
    failed.problem = "cannot connect";
    return failed;
  }
  return client.Request(Parameters(path, more), input);
}
