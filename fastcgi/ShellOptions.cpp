// The options for a person. Tested in tests/e2e/ShellOptionsTest.cpp.

#include "fastcgi/ShellOptions.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>

#include "fastcgi/Check.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

constexpr char kUsage[] =
    "usage: zeph-fcgi [-t COUNT] [-p TITLE] [--workers COUNT]\n"
    "       zeph-fcgi --check [FILE]\n"
    "       zeph-fcgi --help | --version\n"
    "\n"
    "The engine. It serves FastCGI requests on the listening socket that is its standard input, "
    "as\n"
    "web servers, spawn-fcgi and systemd pass it.\n"
    "\n"
    "  -t COUNT        the number of request threads, 10 by default\n"
    "  -p TITLE        the name in listings of processes\n"
    "  --workers COUNT the number of processes that serve, each with its own threads; one more\n"
    "                  process replaces those that end, and all of them on SIGHUP\n"
    "  --check [FILE]  looks for mistakes in the settings, directories, libraries and log, for "
    "the\n"
    "                  user who asks. FILE is a zeph.toml; without it the one that the engine "
    "would\n"
    "                  use. The exit status is 0, 1 for mistakes, and 2 for a wrong command line.\n"
    "\n"
    "docs/zeph-fcgi.md tells more.\n";

int Finish(int status) {
  return std::cout.flush().good() ? status : kFailed;
}

}  // namespace

bool IsListening(int descriptor) {
  int listening = 0;
  socklen_t length = sizeof listening;
  errno = 0;
  return getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 &&
         listening != 0;
}

bool RunShellOption(int argc, char** argv, int* status) {
  if (argc < 2 || IsListening(STDIN_FILENO)) return false;
  const std::string option = argv[1];
  if (option == "--help" || option == "-h") {
    std::cout << kUsage;
    *status = Finish(kDone);
  } else if (option == "--version") {
    std::cout << "zeph-fcgi " ZEPH_VERSION "\n";
    *status = Finish(kDone);
  } else if (option == "--check") {
    if (argc > 3 || (argc == 3 && argv[2][0] == '\0')) {
      std::cerr << "zeph-fcgi: --check takes one file\n" << kUsage;
      *status = kWrongUsage;
      return true;
    }
    const bool good = CheckInstallation(argc == 3 ? argv[2] : "", std::cout);
    *status = Finish(good ? kDone : kFailed);
  } else {
    return false;
  }
  return true;
}
