// Where the files of the installation are, and failures.

#include "develop/Places.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace fs = std::filesystem;

Places Places::Find() {
  std::error_code failure;
  const fs::path folder = fs::canonical("/proc/self/exe", failure).parent_path();
  const fs::path top = folder.parent_path();
  return {folder, {top / "lib", top / "lib/zeph", folder}, top / "share/zeph"};
}

fs::path Places::Library(const std::string& name) const {
  for (const fs::path& folder : libraries) {
    std::error_code failure;
    if (fs::is_regular_file(folder / name, failure)) return folder / name;
  }
  return {};
}

bool Places::IsShipped(const fs::path& library) const {
  return std::find(libraries.begin(), libraries.end(), library.parent_path()) != libraries.end();
}

int Failed(const std::string& text) {
  std::cerr << "zeph: " << text << "\n";
  return 1;
}

int FailedSystem(const std::string& what) {
  const int reason = errno;
  return Failed(what + ": " + strerror(reason));
}

std::string Count(size_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}
