// A background task: a block of a script that runs on a thread of its own while the request that
// started it goes on, and after it has ended.

#ifndef ZEPH_FASTCGI_FASTCGIASYNCHRONOUSAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIASYNCHRONOUSAPPLICATION_H

#include "fastcgi/FastCGIBaseApplication.h"

class FastCGIThread;

// Made on the request's thread. StartAsynchronousThread hands it to the task's thread, which
// deletes it. It has copies of everything that the request has and shares none of it. There is no
// client: the output of a task is discarded.
class FastCGIAsynchronousApplication : public FastCGIBaseApplication {
 public:
  // REQUIRES: the caller is the source's thread, and its machine does not run meanwhile.
  FastCGIAsynchronousApplication(FastCGIBaseApplication* source, ZephVM* machine);
  ~FastCGIAsynchronousApplication() override;

  // The bytes of heap that the copies use. They count as the task's memory.
  void SetMemory(int64_t bytes) { memory_bytes = bytes; }
  int64_t memory() const { return memory_bytes; }

  // Runs the block. Returns the result of ZephVM::Go.
  int Go(FastCGIThread* thread);

  // Restarts the task's clock with timeout_async.
  void ResetGlobalTimeout() override;
  // A task starts no tasks.
  int BeginAsynchronousTask(ZephVM* machine) override;
  // Sleeps until `wakeat`, in seconds since 1970, or until the file at the path is modified,
  // whichever comes first. The file is checked once a heartbeat; a null or empty path means no
  // file. The sleep may last timeout_async_sleep seconds. It costs one second of the task's own
  // time limit.
  void AsynchronousSleep(long wakeat, Zeph_PathType type, const char* path) override;

 private:
  bool SleepUntil(long wakeat, Zeph_PathType type, const char* path, long before);
  long ModifiedTime(Zeph_PathType type, const char* path);
  void SetDeadline(long seconds) REQUIRES(application_mutex);

  int64_t memory_bytes = 0;
};

// The body of a task's thread. The argument is the FastCGIThread, whose own argument is the
// FastCGIAsynchronousApplication.
void* FastCGIAsynchronousThread(void* thread);

#endif
