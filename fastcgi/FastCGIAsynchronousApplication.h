// A background task: a block of a script that runs on a thread of its own while the request that
// started it goes on, and after it has ended.

#ifndef ZEPH_FASTCGI_FASTCGIASYNCHRONOUSAPPLICATION_H
#define ZEPH_FASTCGI_FASTCGIASYNCHRONOUSAPPLICATION_H

#include "fastcgi/FastCGIBaseApplication.h"

class FastCGIThread;

// Made on the request's thread; from StartAsynchronousThread on it belongs to the task's thread,
// which deletes it. It has copies of all that the request has and shares none of it. There is no
// client: what the task writes goes nowhere.
class FastCGIAsynchronousApplication : public FastCGIBaseApplication {
 public:
  // The source's thread is the calling one, and its machine stands still.
  FastCGIAsynchronousApplication(FastCGIBaseApplication* source, ZephVM* machine);
  ~FastCGIAsynchronousApplication() override;

  // What the copies take of the heap: it counts as the task's.
  void SetMemory(int64_t bytes) { memory_bytes = bytes; }
  int64_t memory() const { return memory_bytes; }

  // Runs the block: what ZephVM::Go answers.
  int Go(FastCGIThread* thread);

  // Starts the task's clock anew, with timeout_async.
  void ResetGlobalTimeout() override;
  // A task starts no tasks.
  int BeginAsynchronousTask(ZephVM* machine) override;
  // Sleeps until that time, in seconds since 1970, or until the file at the path has been modified,
  // which is looked for once a heartbeat; a null or empty path is no file. The sleep may last
  // timeout_async_sleep seconds, and counts one second against the time of the task.
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
