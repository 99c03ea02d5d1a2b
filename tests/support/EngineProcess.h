// The built engine as a process of its own, with everything it needs in a temporary directory:
//
//   scripts/       the script root (dir_zeph)
//   data/, temp/   dir_data, dir_temp
//   work/          its working directory
//   zeph.toml      its configuration
//   fcgi.sock      the listening socket, its descriptor 0
//   log            its standard output and error

#ifndef ZEPH_TESTS_SUPPORT_ENGINEPROCESS_H
#define ZEPH_TESTS_SUPPORT_ENGINEPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/support/FastCGIClient.h"
#include "tests/support/TemporaryDirectory.h"

class EngineProcess {
 public:
  // The threads that serve no requests: the main thread, the heartbeat, and one of the thread
  // sanitizer.
  static constexpr int OtherThreads = 2 + (kThreadSanitizer ? 1 : 0);
  using Milliseconds = std::chrono::milliseconds;
  // The longest time of an orderly shutdown: a heartbeat, and the delay of a slow machine.
  static constexpr Milliseconds ShutdownTimeout{40000};

  EngineProcess();
  // Kills the engine if it still runs. Fails the test if a sanitizer has reported an error in it.
  ~EngineProcess();
  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  // The command line after the program's name.
  std::vector<std::string> arguments;
  // Added to the test's own environment, or replacing variables of it.
  std::map<std::string, std::string> environment;
  // Text after the directories in zeph.toml.
  std::string settings;
  // The whole of zeph.toml; if set, the directories and settings above are not written.
  std::string configuration;
  // The kind of descriptor 0; a listening UNIX socket by default.
  enum Descriptor0 { ListeningSocket, NonBlockingSocket, TCPSocket, PlainFile, Closed };
  Descriptor0 descriptor0 = ListeningSocket;

  // The engine's standard error, borrowed; -1 is the log.
  int standard_error = -1;

  // The engine's first limit of descriptors; 0 keeps the test's limit.
  unsigned descriptor_limit = 0;
  // Limits of the engine's address space and of the stacks that the system starts it with, in
  // bytes; 0 keeps the test's limits. The sanitizers need more address space than any machine has
  // memory.
  unsigned long address_space_limit = 0;
  unsigned long stack_limit = 0;

  // Whether standard parameters name the configuration library; a test may put it elsewhere.
  bool name_library = true;

  // All paths are relative to the temporary directory; folders are made when needed. The functions
  // return the absolute path, and fail the test on an error.
  std::string Path(std::string_view relative) const;
  std::string Write(std::string_view relative, std::string_view bytes);
  // Assembles a script into scripts/.
  std::string Script(std::string_view name, std::string_view source);
  std::string Folder(std::string_view relative);

  // Writes zeph.toml again, from the members above. Start does this too.
  void WriteConfiguration();

  // Writes zeph.toml and starts the engine. On an error it fails the test and returns false.
  bool Start();
  pid_t pid() const { return process; }
  const std::string& socket() const { return socket_path; }
  // The port of a TCPSocket.
  int port() const { return listening_port; }
  // Waits for the end. Returns the exit status, 128 and more for a signal, or -1 if the engine
  // still runs.
  int Wait(Milliseconds timeout = ShutdownTimeout);
  void Signal(int number);
  bool Running();
  // The engine's output so far.
  std::string Log() const;
  // The engine's arguments as process listings show them, NUL bytes included.
  std::string ProcessArguments() const;
  // Waits until the engine has made all its request threads and handles signals.
  bool WaitUntilReady();
  // The number of the engine's threads. The second function waits until it is the expected one, and
  // returns the last number that it has read.
  int Threads() const;
  // Bytes of memory that the engine uses, as the system counts them.
  long ResidentBytes() const;
  int WaitForThreads(int wanted, Milliseconds timeout = Milliseconds(20000)) const;

  // The number of open descriptors, and another limit for them.
  int Descriptors() const;
  int WaitForDescriptors(int wanted, Milliseconds timeout = Milliseconds(20000)) const;
  void LimitDescriptors(unsigned limit) const;
  // Limits the engine's address space to that many bytes more than it uses.
  void LimitMemory(size_t more) const;

  // The parameters that every request needs: ZpCONFIG_LIBRARY, and PATH_INFO if path is not null.
  FastCGIParameters Parameters(const char* path, const FastCGIParameters& more = {}) const;
  // Sends one request on a connection of its own.
  FastCGIResponse Get(const char* path, const FastCGIParameters& more = {},
                      std::string_view input = "");

  // The folders of the build.
  static std::string Program();
  static std::string ConfigurationLibrary();

 private:
  int OpenDescriptor0();
  // The number of entries in a folder of the process in /proc.
  int CountOfEntries(const char* folder) const;
  [[noreturn]] void RunChild(int descriptor);

  TemporaryDirectory directory;
  std::string socket_path;
  int listening = -1;
  int listening_port = 0;
  pid_t process = -1;
  int status = -1;  // of the process after its end
};

#endif
