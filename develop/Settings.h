// A site's zeph.toml, made ready for an engine that runs the site here.

#ifndef ZEPH_DEVELOP_SETTINGS_H
#define ZEPH_DEVELOP_SETTINGS_H

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "compiler/Compiler.h"
#include "develop/Places.h"
#include "develop/Problem.h"

extern const char settings_name[];

struct SiteSettings {
  // The file with the three directories as given, with libraries by their full paths, and otherwise
  // as it is. Directories that the file names belong to the server that the site will be on.
  std::string text;
  // What the libraries declare: "name.functions" beside "name.so", or where zeph has its other
  // files. Files of the site are named from
  // its folder, others by their paths.
  std::vector<FunctionsFile> functions;
  // The files that the above is made from, and those that would be if they were there.
  std::vector<std::filesystem::path> files;
  std::vector<Problem> problems;

  // Whether one of the problems is an error: the text is then not for an engine.
  bool failed() const {
    return std::any_of(problems.begin(), problems.end(),
                       [](const Problem& problem) { return problem.is_error; });
  }
};

struct SiteFolders {
  std::filesystem::path pages;
  std::filesystem::path data;
  std::filesystem::path temporary;
};

// Reads DIR/zeph.toml. Without the file the site has the standard library, if there is one, and the
// built-in settings. A library is looked for at its path, which may begin at the site, and then
// where the places say: the path may be the one on a server. Problems are left in the result, with
// all that could be read.
SiteSettings ReadSettings(const std::filesystem::path& root, const SiteFolders& folders,
                          const Places& places);

#endif
