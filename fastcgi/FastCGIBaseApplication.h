// What the two applications of this host share: the one of a request and the one of a background
// task.

#ifndef ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H

#include "base/systems/unix/UNIXApplication.h"
#include "fastcgi/RequestWatch.h"

class FastCGIThreadManager;

// Used by one thread of the manager. The heartbeat thread calls Heartbeat and Cancelled.
class FastCGIBaseApplication : public UNIXApplication {
 public:
  // Arguments as in _FastCGIMainArgs. They and both managers are borrowed.
  FastCGIBaseApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                         FastCGIThreadManager* thread_manager,
                         ExternalLibraryManager* library_manager);

  // For a background task that the other application starts; see UNIXApplication.
  explicit FastCGIBaseApplication(FastCGIBaseApplication& other);

  void ResetGlobalTimeout() override;

  // Why the script was cancelled. Called on its thread, when it has been.
  enum class Cancel { TimeOut, Hangup, Shutdown };
  Cancel WhyCancelled();

 protected:
  FastCGIThreadManager* thread_manager;
  int header_stage_done = 0;
  RequestWatch watch;
};

#endif
