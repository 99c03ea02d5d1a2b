// Runs a program and reads its output and its state in /proc.

#include "tests/support/Command.h"
#include "tests/support/SignalProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

void CloseDescriptor(int* descriptor) {
  if (*descriptor >= 0) close(*descriptor);
  *descriptor = -1;
}

// Reads the bytes that are there. Returns false at the end.
bool ReadSome(int descriptor, std::string* text) {
  char buffer[8192];
  ssize_t count = read(descriptor, buffer, sizeof buffer);
  if (count > 0) text->append(buffer, static_cast<size_t>(count));
  return count > 0;
}

// Whether a thread sleeps. The argument is its folder in /proc.
bool IsAsleep(const std::filesystem::path& thread) {
  std::ifstream file(thread / "stat");
  std::string text;
  std::getline(file, text);
  // The state follows the name, which is in parentheses and may contain any byte.
  const size_t name_end = text.rfind(')');
  return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
}

}  // namespace

Command::Command(std::vector<std::string> program) : arguments(std::move(program)) {}

Command::~Command() {
  CloseDescriptor(&output_pipe);
  CloseDescriptor(&error_pipe);
  if (process <= 0) return;
  SignalProcess(process, SIGKILL);
  waitpid(process, nullptr, 0);
}

void Command::Child(int output_descriptor, int error_descriptor) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The shell lets its background jobs ignore these, and a program that is started keeps to that.
  for (int number : {SIGHUP, SIGINT, SIGQUIT}) signal(number, SIG_DFL);
  for (int number : ignored_signals) signal(number, SIG_IGN);
  if (!directory.empty() && chdir(directory.c_str()) != 0) _exit(127);
  for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  dup2(output_descriptor, STDOUT_FILENO);
  dup2(error_descriptor, STDERR_FILENO);
  std::vector<char*> texts;
  for (std::string& argument : arguments) texts.push_back(argument.data());
  texts.push_back(nullptr);
  execv(texts[0], texts.data());
  _exit(127);
}

void Command::Start() {
  int out[2], err[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
  output_pipe = out[0];
  error_pipe = err[0];
  int target = out[1];
  if (!output_file.empty()) {
    target = open(output_file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(target, 0) << output_file;
    close(out[1]);
  }
  process = fork();
  if (process == 0) Child(target, err[1]);
  close(target);
  close(err[1]);
  ASSERT_GT(process, 0);
}

void Command::WaitForOutput() {
  if (output.empty()) ReadSome(output_pipe, &output);
}

void Command::WaitUntilAsleep() const {
  const std::string threads = "/proc/" + std::to_string(process) + "/task";
  for (bool asleep = false; !asleep;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    asleep = true;
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
      asleep = asleep && IsAsleep(thread.path());
    }
  }
}

void Command::StopReading() {
  CloseDescriptor(&output_pipe);
}

void Command::Signal(int number) {
  SignalProcess(process, number);
}

void Command::WaitForEnd() const {
  siginfo_t end;
  waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT);
}

int Command::Finish() {
  while (output_pipe >= 0 || error_pipe >= 0) {
    pollfd entries[] = {{output_pipe, POLLIN, 0}, {error_pipe, POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) break;
    if (entries[0].revents && !ReadSome(output_pipe, &output)) CloseDescriptor(&output_pipe);
    if (entries[1].revents && !ReadSome(error_pipe, &errors)) CloseDescriptor(&error_pipe);
  }
  int status = 0;
  waitpid(process, &status, 0);
  process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Command::Run() {
  Start();
  return process > 0 ? Finish() : -1;
}
