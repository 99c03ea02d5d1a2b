// What the applications of this host have in common, whether they answer a request or run a
// background task.

#ifndef ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIBASEAPPLICATION_H

#include "base/systems/unix/UNIXApplication.h"

class FastCGIThreadManager;

// Belongs to one thread of the manager's. Heartbeat and Cancelled come from the heartbeat thread.
class FastCGIBaseApplication : public UNIXApplication {
 public:
  // Arguments as in _FastCGIMainArgs, borrowed like both managers.
  FastCGIBaseApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                         FastCGIThreadManager* thread_manager,
                         ExternalLibraryManager* library_manager);

  // For a background task that the other one starts (UNIXApplication).
  explicit FastCGIBaseApplication(FastCGIBaseApplication& other);

  void ResetGlobalTimeout() override;

 protected:
  FastCGIThreadManager* thread_manager;
  int header_stage_done = 0;
};

#endif
