// A program that a test runs to its end: its arguments, its environment, its output and its exit
// status.

#ifndef ZEPH_TESTS_SUPPORT_COMMAND_H
#define ZEPH_TESTS_SUPPORT_COMMAND_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

class Command {
 public:
  // The program's path, then its arguments.
  explicit Command(std::vector<std::string> arguments);
  // Kills the program if it still runs.
  ~Command();
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // --- Before the start ------------------------------------------------------------------------
  std::vector<std::string> arguments;
  std::string directory;                           // its working directory; empty is the test's
  std::map<std::string, std::string> environment;  // added to the test's
  std::string output_file;                         // instead of the pipe that Finish reads
  std::vector<int> ignored_signals;                // none is inherited from the test's own start

  // Fails the test if the program cannot be started.
  void Start();
  // Waits until the program has written something to its standard output.
  void WaitForOutput();
  // Waits until all threads of the program sleep, for example because no one reads the output.
  void WaitUntilAsleep() const;
  // Waits for the program's end without reading its output, so a program that waits for a reader
  // gets none.
  void WaitForEnd() const;
  // Closes the pipe from its standard output.
  void StopReading();
  void Signal(int number);
  // Reads the program's output until it ends. Returns the exit status, or 128 and more for a
  // signal.
  int Finish();
  // Start and Finish.
  int Run();

  std::string output;
  std::string errors;

 private:
  [[noreturn]] void Child(int output_descriptor, int error_descriptor);

  pid_t process = -1;
  int output_pipe = -1;
  int error_pipe = -1;
};

#endif
