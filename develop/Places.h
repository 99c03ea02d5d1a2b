// Where zeph's own files are: the other programs, the libraries, and the files that it copies or
// reads. All are found from the program's own place, so that a build and an installation work
// alike.

#ifndef ZEPH_DEVELOP_PLACES_H
#define ZEPH_DEVELOP_PLACES_H

#include <filesystem>
#include <string>
#include <vector>

struct Places {
  std::filesystem::path programs;  // zprun and zeph-fcgi
  // Where libraries are looked for, in this order.
  std::vector<std::filesystem::path> libraries;
  std::filesystem::path shared;  // develop/share of the sources

  // From the program that runs.
  static Places Find();
  // The path of a library, or of a file beside it; empty if it is in none of the folders.
  std::filesystem::path Library(const std::string& name) const;
  // Whether a library is in one of those folders itself.
  bool IsShipped(const std::filesystem::path& library) const;
};

// Reports "zeph: text" on standard error. Returns the exit status of a failure.
int Failed(const std::string& text);
// The same after a system call, with its reason.
int FailedSystem(const std::string& what);
// "1 page", "2 pages".
std::string Count(size_t number, const std::string& what);

#endif
