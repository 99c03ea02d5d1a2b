// Finds and reads the file of settings. Tested in tests/config/SnapshotStoreTest.cpp and
// tests/e2e/ShellOptionsTest.cpp.

#include "config/SettingsFile.h"

#include "base/host/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// Far larger than any configuration. A device or a log that is named by mistake is not read to its
// end.
constexpr off_t largest_file = 16 << 20;

std::string ErrorText(int number) {
  char buffer[256];
  return strerror_r(number, buffer, sizeof buffer);
}

FoundSettings LookAt(const char* path) {
  FoundSettings found;
  found.path = path;
  found.error = stat(path, &found.status) == 0 ? 0 : errno;
  return found;
}

}  // namespace

FoundSettings FindSettings() {
  const char* named = getenv(config_file_variable);
  if (named != nullptr && *named != 0) return LookAt(named);
  for (const char* path : {config_file_local, config_file_system}) {
    const FoundSettings found = LookAt(path);
    if (found.error != ENOENT && found.error != ENOTDIR) return found;
  }
  FoundSettings none;
  none.path = "";
  none.error = ENOENT;
  return none;
}

std::string WhyNoSettings(const FoundSettings& found) {
  if (*found.path != 0) return std::string(found.path) + ": " + ErrorText(found.error);
  return std::string("no configuration file: ") + config_file_variable +
         " is not set, and neither " + config_file_local + " in the working directory nor " +
         config_file_system + " exists";
}

std::string ReadSettings(const char* path, struct stat* status, std::string* text, bool* may_pass) {
  const auto call_failed = [may_pass] {
    if (may_pass != nullptr) *may_pass = true;
    return ErrorText(errno);
  };
  if (may_pass != nullptr) *may_pass = false;
  // A FIFO named by mistake must not hang the request.
  FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat opened;
  if (!file.is_open() || fstat(file.get(), &opened) != 0) return call_failed();
  *status = opened;
  if (!S_ISREG(opened.st_mode)) return "Not a regular file";
  for (char buffer[16384]; off_t(text->size()) <= largest_file;) {
    ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return call_failed();
    if (count == 0) return "";
    text->append(buffer, size_t(count));
  }
  return "Too large for a configuration file";
}
