// Starts and ends programs. Tested in tests/e2e/DevelopTest.cpp.

#include "develop/Child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

constexpr int kNoProgram = 127;
constexpr int kFirstActivated = 3;
constexpr char kListenProcess[] = "LISTEN_PID=";

// Between fork and exec only calls are allowed that need no lock, because another thread may hold
// one. So the texts are made before, and the process number is written into its place.
struct Prepared {
  explicit Prepared(const Child::Program& program) {
    texts = program.words;
    const size_t words = texts.size();
    for (char** entry = environ; *entry; entry++) {
      const std::string text = *entry;
      if (!program.environment.count(text.substr(0, text.find('=')))) texts.push_back(text);
    }
    for (const auto& [name, value] : program.environment) {
      texts.push_back(name);
      texts.back().append("=").append(value);
    }
    if (program.activation >= 0) {
      texts.push_back("LISTEN_FDS=1");
      texts.push_back(kListenProcess + std::string(20, '\0'));
    }
    for (size_t i = 0; i < texts.size(); i++) {
      if (i == words) arguments.push_back(nullptr);
      (i < words ? arguments : environment).push_back(texts[i].data());
    }
    if (arguments.size() == words) arguments.push_back(nullptr);
    if (program.activation >= 0) digits = environment.back() + strlen(kListenProcess);
    environment.push_back(nullptr);
  }

  void WriteProcess(pid_t process) {
    if (!digits) return;
    std::array<char, 20> reversed;
    size_t count = 0;
    for (pid_t rest = process; rest > 0; rest /= 10) {
      reversed[count++] = static_cast<char>('0' + rest % 10);
    }
    char* at = digits;
    while (count > 0) *at++ = reversed[--count];
    *at = '\0';
  }

  std::vector<std::string> texts;
  std::vector<char*> arguments;
  std::vector<char*> environment;
  char* digits = nullptr;
};

[[noreturn]] void Execute(const Child::Program& program, Prepared* prepared, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have gone before.
  if (getppid() != parent) _exit(kNoProgram);
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  const int input = program.input >= 0 ? program.input : open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(input, STDIN_FILENO);
  if (program.activation == kFirstActivated) {
    fcntl(kFirstActivated, F_SETFD, 0);
  } else if (program.activation >= 0) {
    dup2(program.activation, kFirstActivated);
  }
  prepared->WriteProcess(getpid());
  if (program.directory.empty() || chdir(program.directory.c_str()) == 0) {
    execvpe(prepared->arguments[0], prepared->arguments.data(), prepared->environment.data());
  }
  _exit(kNoProgram);
}

}  // namespace

Child::~Child() {
  Stop(std::chrono::milliseconds(0));
}

bool Child::Start(const Program& program) {
  Prepared prepared(program);
  const pid_t parent = getpid();
  const pid_t started = fork();
  if (started < 0) return false;
  if (started == 0) Execute(program, &prepared, parent);
  pid = started;
  return true;
}

void Child::Stop(std::chrono::milliseconds patience, const std::function<bool()>& hurry) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (waitpid(pid, nullptr, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline || (hurry && hurry())) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid = -1;
}
