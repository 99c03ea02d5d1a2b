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

#include "tests/support/FastCGIClient.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TemporaryDirectory.h"

class EngineProcess {
 public:
  // Its threads beside those that serve requests: the main one, the heartbeat, and one of the
  // thread sanitizer's own.
  static constexpr int OtherThreads = 2 + (ThreadSanitizer ? 1 : 0);
  using Milliseconds = std::chrono::milliseconds;
  // How long an orderly shutdown may take at most: a heartbeat, and the time of a slow machine.
  static constexpr Milliseconds ShutdownTimeout{40000};

  EngineProcess();
  // Kills the engine if it still runs. Fails the test when a sanitizer has complained in it.
  ~EngineProcess();
  EngineProcess(const EngineProcess&) = delete;
  EngineProcess& operator=(const EngineProcess&) = delete;

  // --- Before the start ------------------------------------------------------------------------
  // Command line behind the program's name.
  std::vector<std::string> arguments;
  // Added to, or replacing, what the test's own environment has.
  std::map<std::string, std::string> environment;
  // Text behind the directories in zeph.toml.
  std::string settings;
  // The whole of zeph.toml; when set, the directories and settings above are not written.
  std::string configuration;
  // What descriptor 0 is; a listening UNIX socket by default.
  enum Descriptor0 { ListeningSocket, NonBlockingSocket, TCPSocket, PlainFile, Closed };
  Descriptor0 descriptor0 = ListeningSocket;

  // How many descriptors it may have at first; 0 leaves the limit alone.
  unsigned descriptor_limit = 0;
  // Bytes of address space that it may have, and the size of stacks that the system starts it with;
  // 0 leaves them alone. The sanitizers need more address space than any machine has.
  unsigned long address_space_limit = 0;
  unsigned long stack_limit = 0;

  // Whether standard parameters name the configuration library; a test may put it elsewhere.
  bool name_library = true;

  // --- Files ------------------------------------------------------------------------------------
  // All paths are relative to the temporary directory; folders are made as needed. They answer the
  // absolute path, and fail the test when they cannot do what they are asked to.
  std::string Path(std::string_view relative) const;
  std::string Write(std::string_view relative, std::string_view bytes);
  // Assembles a script into scripts/.
  std::string Script(std::string_view name, std::string_view source);
  std::string Folder(std::string_view relative);

  // Writes zeph.toml anew, from the members above. Start does this too.
  void WriteConfiguration();

  // --- The process ------------------------------------------------------------------------------
  // Writes zeph.toml and starts the engine. Fails the test, and answers false, when it cannot.
  bool Start();
  pid_t pid() const { return process; }
  const std::string& socket() const { return socket_path; }
  // Of a TCPSocket.
  int port() const { return listening_port; }
  // Waits for the end; answers the exit status, 128 and more for a signal, or -1 when it still
  // runs.
  int Wait(Milliseconds timeout = ShutdownTimeout);
  void Signal(int number);
  bool Running();
  // What it has printed so far.
  std::string Log() const;
  // Its arguments as process listings show them, NUL bytes included.
  std::string ProcessArguments() const;
  // Waits until it has made all its request threads and handles signals.
  bool WaitUntilReady();
  // The count of its threads; the second waits until it is the wanted one, and answers the last
  // count seen.
  int Threads() const;
  // Bytes of memory that it has in use, as the system counts them.
  long ResidentBytes() const;
  int WaitForThreads(int wanted, Milliseconds timeout = Milliseconds(20000)) const;

  // The same for its open descriptors, and another limit for them.
  int Descriptors() const;
  int WaitForDescriptors(int wanted, Milliseconds timeout = Milliseconds(20000)) const;
  void LimitDescriptors(unsigned limit) const;
  // Leaves it that many bytes of address space beyond what it has.
  void LimitMemory(size_t more) const;

  // --- Requests ---------------------------------------------------------------------------------
  // Parameters that every request needs: ZpCONFIG_LIBRARY, and PATH_INFO when path is not null.
  FastCGIParameters Parameters(const char* path, const FastCGIParameters& more = {}) const;
  // One request on a connection of its own.
  FastCGIResponse Get(const char* path, const FastCGIParameters& more = {},
                      std::string_view input = "");

  // Where the build has put things.
  static std::string Program();
  static std::string ConfigurationLibrary();

 private:
  int OpenDescriptor0();
  // Of a folder of the process in /proc.
  int CountOfEntries(const char* folder) const;
  [[noreturn]] void RunChild(int descriptor);

  TemporaryDirectory directory;
  std::string socket_path;
  int listening = -1;
  int listening_port = 0;
  pid_t process = -1;
  int status = -1;  // of the process once it has ended
};

#endif
