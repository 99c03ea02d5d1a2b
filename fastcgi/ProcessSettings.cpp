// The settings of the process. Tested in tests/e2e/SupervisorTest.cpp.

#include "fastcgi/ProcessSettings.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "base/host/Config.h"
#include "base/host/ErrorLog.h"
#include "config/SnapshotStore.h"
#include "fastcgi/OperatorSettings.h"

namespace {

constexpr int kMostWorkers = 1000;

// Empty if there is none.
std::string FileOfSettings() {
  const char* named = getenv(config_file_variable);
  if (named && *named) return named;
  for (const char* path : {config_file_local, config_file_system}) {
    struct stat status;
    if (stat(path, &status) == 0 || (errno != ENOENT && errno != ENOTDIR)) return path;
  }
  return "";
}

}  // namespace

ProcessSettings ReadProcessSettings() {
  const std::string path = FileOfSettings();
  struct stat status;
  // A FIFO would hang the start.
  if (path.empty() || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  const Snapshot snapshot = Snapshot::Parse(path, text.str());
  ProcessSettings settings;
  if (snapshot.error.empty()) static_cast<ProcessSection&>(settings) = snapshot.process;
  if (const Setting* log = snapshot.Find(Config_error_log)) settings.error_log = log->text;
  return settings;
}

int WorkersOf(int argc, char* const* argv) {
  int workers = 0;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "-t") == 0 || strcmp(argv[i], "-p") == 0) {
      i++;
    } else if (strcmp(argv[i], "--workers") == 0) {
      const char* text = i + 1 < argc ? argv[++i] : "";
      const char* end = text + strlen(text);
      int count = 0;
      const auto [rest, problem] = std::from_chars(text, end, count);
      if (problem == std::errc() && rest == end && count >= 1 && count <= kMostWorkers) {
        workers = count;
      } else {
        LogLine line;
        line.Text("zeph-fcgi: --workers needs a number from 1 to ").Number(kMostWorkers);
        line.Text(", found '").Text(text).Text("'; one process serves");
        OperatorSettings::Report(line);
        workers = 0;
      }
    }
  }
  return workers;
}
