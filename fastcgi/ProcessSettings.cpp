// The settings of the process. Tested in tests/e2e/SupervisorTest.cpp.

#include "fastcgi/ProcessSettings.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

#include "base/host/Config.h"
#include "base/host/ErrorLog.h"
#include "config/SettingsFile.h"
#include "fastcgi/OperatorSettings.h"

namespace {

constexpr int kMostWorkers = 1000;

// Workers, and a supervisor that reloads, meet the same mistake again.
void Tell(const std::string& problem) {
  const std::string text = "zeph-fcgi: " + problem;
  ReportOnce("zeph-fcgi", text.data(), static_cast<int>(std::min<size_t>(text.size(), 3000)));
}

// Returns false, with the reason told, if there is a file and it cannot be read.
bool ReadText(const FoundSettings& found, std::string* text) {
  if (*found.path == '\0') return true;
  struct stat status;
  const std::string reason =
      found.error != 0 ? WhyNoSettings(found) : ReadSettings(found.path, &status, text);
  if (reason.empty()) return true;
  Tell(found.error != 0 ? reason : std::string(found.path) + ": " + reason);
  return false;
}

}  // namespace

ProcessSettings ReadProcessSettings() {
  ProcessSettings settings;
  const FoundSettings found = FindSettings();
  std::string text;
  if (!ReadText(found, &text)) return settings;
  const Snapshot snapshot = Snapshot::Parse(found.path, text);
  if (!snapshot.errors.empty()) {
    const size_t more = snapshot.errors.size() - 1;
    Tell(snapshot.error +
         (more > 0 ? "; " + std::to_string(more) + " more, see zeph-fcgi --check" : ""));
  }
  static_cast<ProcessSection&>(settings) = snapshot.process;
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
