// The site that zeph dev serves, shared by the thread that compiles it and those that serve it.

#ifndef ZEPH_DEVELOP_LIVESITE_H
#define ZEPH_DEVELOP_LIVESITE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "develop/Site.h"

// Any thread may call it. While pages are compiled, all others wait: a visitor who comes after a
// change sees its result.
class LiveSite {
 public:
  LiveSite(const std::filesystem::path& root, const SiteFolders& folders, const Places& places,
           const std::vector<std::string>& defines);

  struct Report {
    Site::Changes changes;
    std::string messages;  // of the pages that were compiled, for a terminal
    bool settings_ok = true;
    std::string settings_text;
    std::set<std::string> outside_folders;
  };
  // Site::Refresh. If anything has changed, there is a new version.
  Report Refresh(const std::set<std::string>& touched);

  // Grows with each change; differs from those of earlier runs.
  uint64_t version();
  // Waits until there is another version than this, or the time is over, or Stop was called.
  // Returns false only after Stop.
  bool WaitForChange(uint64_t known, std::chrono::milliseconds patience);
  void Stop();

  // Whether there is a page for a compiled file; its errors.
  bool HasPage(const std::string& compiled);
  std::vector<Problem> Errors(const std::string& compiled);
  // What the messages of run-time errors in a page's text are about, as far as they name a source
  // file of the site.
  std::vector<Problem> RunErrors(std::string_view page);

 private:
  std::filesystem::path root;
  std::mutex mutex;
  std::condition_variable changed;
  Site site;
  uint64_t current;
  bool stopped = false;
};

#endif
