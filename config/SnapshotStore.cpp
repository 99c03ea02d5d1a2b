// Finds, reads and watches the configuration file. Tested in tests/config/SnapshotStoreTest.cpp.

#include "config/SnapshotStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

// A function of the engine (base/host/ErrorLog.h). Null in a program that does not have it, because
// the library links with nothing of the engine.
extern "C" [[gnu::weak]] int ZephReportConfiguration(const char* text, int length);

namespace {

// The kernel stamps files with a clock of its own, which advances in ticks of up to 10 ms.
constexpr int64_t tick_nanoseconds = 20'000'000;

// Returns the absolute path of the file, so that an administrator knows which file is meant.
std::string FullPath(const char* path) {
  // The copy may need memory that is not there.
  const std::unique_ptr<char, void (*)(void*)> full(realpath(path, nullptr), free);
  return full != nullptr ? full.get() : path;
}

bool WithinTick(const timespec& modified) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t seconds = int64_t(now.tv_sec) - int64_t(modified.tv_sec);
  if (seconds < -1 || seconds > 1) return false;
  int64_t age = seconds * 1'000'000'000 + now.tv_nsec - modified.tv_nsec;
  return age < tick_nanoseconds && age > -tick_nanoseconds;
}

// One line in the engine's log. A program without a log gets it on standard error, in one write, so
// that lines of several processes do not mix.
void Report(const std::string& text) {
  std::string line = "libzephconfig: " + text;
  if (ZephReportConfiguration && ZephReportConfiguration(line.data(), int(line.size())) != 0)
    return;
  line += '\n';
  ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  (void)written;  // there is no other place to report a failure of this write
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool SnapshotStore::Identity::operator==(const Identity& other) const {
  return inode == other.inode && SameTime(modified, other.modified) && size == other.size &&
         device == other.device && error == other.error && path == other.path;
}

SnapshotStore::Identity SnapshotStore::IdentityOf(const FoundSettings& found) {
  Identity identity;
  identity.path = found.path;
  identity.error = found.error;
  if (found.error != 0) return identity;
  identity.device = found.status.st_dev;
  identity.inode = found.status.st_ino;
  identity.size = found.status.st_size;
  identity.modified = found.status.st_mtim;
  return identity;
}

bool SnapshotStore::IsStill(const Identity& identity, const FoundSettings& found) {
  const struct stat& status = found.status;
  return identity.error == found.error && identity.path == found.path &&
         (found.error != 0 ||
          (identity.inode == status.st_ino && identity.size == status.st_size &&
           identity.device == status.st_dev && SameTime(identity.modified, status.st_mtim)));
}

// Puts a snapshot into force, unless it has an error and the present one is good. Its warnings are
// reported then, once.
void SnapshotStore::Install(Snapshot snapshot) {
  if (!snapshot.error.empty() && current != nullptr && current->error.empty()) {
    Report(snapshot.error + "; the last good configuration stays in force");
    return;
  }
  if (snapshot.error.empty()) {
    for (const std::string& warning : snapshot.warnings) {
      Report("warning: " + warning);
    }
  }
  snapshot.generation = generations.load(std::memory_order_relaxed) + 1;
  current = std::make_shared<const Snapshot>(std::move(snapshot));
  generations.store(current->generation, std::memory_order_release);
}

// Looks again, because another thread may have reloaded between the caller's look and the lock.
void SnapshotStore::Reload() {
  FoundSettings found = FindSettings();
  std::string file = FullPath(found.path);
  std::string text;
  std::string error;
  bool may_pass = false;
  if (found.error != 0) {
    error = WhyNoSettings(found);
  } else if (std::string problem = ReadSettings(found.path, &found.status, &text, &may_pass);
             !problem.empty()) {
    error = file + ": " + problem;
  }
  // That of the bytes that were read, because the file may have been replaced since it was found.
  Identity identity = IdentityOf(found);
  // For a file that could not be read the error counts as its content, so that a second look at the
  // same state reports nothing again.
  std::string& content = error.empty() ? text : error;
  const bool same = current != nullptr && identity == seen && content == seen_text;
  const bool is_settled = !may_pass && (!error.empty() || !WithinTick(identity.modified));
  if (!same) {
    Install(error.empty() ? Snapshot::Parse(file, text) : Snapshot::Failed(error));
    // Not before, because Install throws if there is no memory. The next call then has to read this
    // state again.
    seen = std::move(identity);
    seen_text = std::move(content);
  }
  settled = is_settled;
}

void SnapshotStore::Update(View* view) {
  const FoundSettings found = FindSettings();
  // Another thread may have read a later state of the file meanwhile, even if the file is back in
  // the state that this thread has seen.
  if (view->snapshot != nullptr && view->settled && IsStill(view->seen, found) &&
      generations.load(std::memory_order_acquire) == view->snapshot->generation) {
    return;
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (current == nullptr || !settled || !IsStill(seen, found)) Reload();
  view->seen = seen;
  view->settled = settled;
  view->snapshot = current;
}

std::shared_ptr<const Snapshot> SnapshotStore::Current() {
  View view;
  Update(&view);
  return view.snapshot;
}
