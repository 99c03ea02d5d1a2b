// The state that the threads of zeph dev share. Tested in tests/develop/LiveSiteTest.cpp.

#include "develop/LiveSite.h"

#include <algorithm>

#include "base/core/ascii.h"
#include "compiler/PageFiles.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMostRunErrors = 10;

// Bytes of a message with the names of its files. A page may have a million texts that begin like
// one.
constexpr size_t kLongestMessage = 4096;

// The source of a compiled file; empty if the name is not one.
std::string SourceOf(const std::string& compiled) {
  fs::path path = compiled;
  if (path.extension() != compiled_extension) return "";
  return path.replace_extension(source_extension).string();
}

// A text of the engine's, in which it has encoded what comes from visitors.
std::string Decoded(std::string_view text) {
  static const struct {
    std::string_view entity;
    char byte;
  } entities[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&#39;", '\''}, {"&amp;", '&'}};
  std::string plain;
  while (!text.empty()) {
    const auto* found = std::find_if(
        std::begin(entities), std::end(entities),
        [&](const auto& row) { return text.substr(0, row.entity.size()) == row.entity; });
    const bool is_entity = found != std::end(entities);
    plain += is_entity ? found->byte : text.front();
    text.remove_prefix(is_entity ? found->entity.size() : 1);
  }
  return plain;
}

// Takes "file: Line number: text" from the begin of a message, up to the end of its line.
bool ParsePlace(std::string_view message, Problem* problem) {
  const std::string_view word = ": Line ";
  message = message.substr(0, message.find('\n'));
  const size_t at = message.find(word);
  if (at == std::string_view::npos) return false;
  problem->file = message.substr(0, at);
  message.remove_prefix(at + word.size());
  const size_t most_digits = 9;
  size_t digits = 0;
  while (digits < std::min(message.size(), most_digits) && zp_isdigit(message[digits])) {
    problem->line = problem->line * 10 + (message[digits++] - '0');
  }
  if (digits == 0 || message.substr(digits, 2) != ": ") return false;
  problem->text = Decoded(message.substr(digits + 2));
  return true;
}

}  // namespace

LiveSite::LiveSite(const fs::path& root, const SiteFolders& folders, const Places& places,
                   const std::vector<std::string>& defines)
    : root(root), site(root, folders, places, defines) {
  using std::chrono::system_clock;
  const auto since =
      std::chrono::duration_cast<std::chrono::milliseconds>(system_clock::now().time_since_epoch());
  current = static_cast<uint64_t>(since.count());
}

LiveSite::Report LiveSite::Refresh(const std::set<std::string>& touched) {
  const std::lock_guard<std::mutex> guard(mutex);
  Report report;
  report.changes = site.Refresh(touched);
  for (const UnreadFolder& folder : report.changes.unread) {
    report.messages += TextOf(folder, root) + "\n";
  }
  for (const std::string& name : report.changes.compiled) {
    report.messages += site.pages().at(name).formatted;
  }
  if (report.changes.settings) {
    for (const Problem& problem : site.settings().problems) {
      report.messages += problem.Text("") + "\n";
      for (const Problem::Line& line : problem.lines) {
        if (line.number == problem.line) report.messages += line.text + "\n";
      }
    }
  }
  report.settings_ok = !site.settings().failed();
  report.settings_text = site.settings().text;
  report.outside_folders = site.OutsideFolders();
  if (report.changes.files) {
    current++;
    changed.notify_all();
  }
  return report;
}

uint64_t LiveSite::version() {
  const std::lock_guard<std::mutex> guard(mutex);
  return current;
}

bool LiveSite::WaitForChange(uint64_t known, std::chrono::milliseconds patience) {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_for(lock, patience, [&] { return stopped || current != known; });
  return !stopped;
}

void LiveSite::Stop() {
  const std::lock_guard<std::mutex> guard(mutex);
  stopped = true;
  changed.notify_all();
}

bool LiveSite::HasPage(const std::string& compiled) {
  const std::lock_guard<std::mutex> guard(mutex);
  return site.pages().count(SourceOf(compiled)) > 0;
}

std::vector<Problem> LiveSite::Errors(const std::string& compiled) {
  const std::lock_guard<std::mutex> guard(mutex);
  return site.Errors(SourceOf(compiled));
}

std::vector<Problem> LiveSite::RunErrors(std::string_view page) {
  const std::string_view mark = " error in ";
  const std::string_view place = " @ [";
  const std::string_view after = "]: ";
  std::vector<Problem> problems;
  for (size_t at = 0; problems.size() < kMostRunErrors;) {
    at = page.find(mark, at);
    if (at == std::string_view::npos) break;
    at += mark.size();
    const std::string_view message = page.substr(at, kLongestMessage);
    const size_t offset = message.find(place);
    const size_t begin = message.find(after, offset);
    if (offset == std::string_view::npos || begin == std::string_view::npos) continue;
    Problem problem;
    if (!ParsePlace(message.substr(begin + after.size()), &problem)) continue;
    // The page is what visitors make of it: only a file of the site is shown.
    {
      const std::lock_guard<std::mutex> guard(mutex);
      if (!site.HasFile(problem.file)) continue;
    }
    std::string source;
    const fs::path path = problem.file;
    if (path.extension() != source_extension || !ReadWholeFile(root / path, &source)) continue;
    problem.Quote(source);
    problems.push_back(std::move(problem));
  }
  return problems;
}
