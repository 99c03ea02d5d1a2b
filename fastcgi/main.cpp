// Entry of the process: arguments, threads, and the wait for their end.

#include <fcgiapp.h>
#include <fcntl.h>

#include <ctime>

#include "fastcgi/Arguments.h"
#include "fastcgi/FastCGIExternalLibrary.h"
#include "fastcgi/FastCGIThreads.h"

namespace {

const int kListeningSocket = 0;

// Request threads wait in accept; on a socket that does not block they would all leave at once.
void MakeBlocking(int descriptor) {
  int flags = fcntl(descriptor, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK)) fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK);
}

}  // namespace

int main(int argc, char** argv) {
  FastCGIThreadManager threads;
  _FastCGIMainArgs arguments{};
  arguments.argument_count = arguments.copied_argument_count = argc;
  arguments.arguments = argv;
  arguments.copied_arguments = CopyArgs(argc, argv);
  FastCGIExternalLibraryManager libraries;
  arguments.library_manager = &libraries;
  arguments.thread_count = 10;
  Process_CommandLine_Args(&arguments);
  tzset();
  FCGX_Init();
  MakeBlocking(kListeningSocket);
  FastCGIThreadManager::BlockSignals();
  for (int i = 0; i < arguments.thread_count; i++) threads.StartRequestThread(&arguments);
  threads.Run();
  FreeArgs(argc, arguments.copied_arguments);
  return 0;
}
