// Compiled scripts in memory, for a machine whose script uses other files.

#ifndef ZEPH_TESTS_SUPPORT_SCRIPTFILES_H
#define ZEPH_TESTS_SUPPORT_SCRIPTFILES_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/FaultyFile.h"
#include "tools/Assembler.h"

// Paths have no leading slash; they begin in the directory of scripts.
class ScriptFiles : public FaultyFileManager {
 public:
  // Assembles program text as the file of that path.
  void Script(const std::string& path, std::string_view source) {
    std::string errors;
    EXPECT_TRUE(AssembleScript(source, path.c_str(), &files[path], &errors)) << errors;
  }

  char* NormalizeContainedPath(Zeph_PathType, const char* path, int* length,
                               int* allocated) override {
    std::vector<std::string> elements;
    const std::string text = path;
    for (size_t at = 0; at < text.size();) {
      size_t end = text.find('/', at);
      if (end == std::string::npos) end = text.size();
      const std::string element = text.substr(at, end - at);
      at = end + 1;
      if (element == ".." && !elements.empty()) elements.pop_back();
      if (!element.empty() && element != "." && element != "..") elements.push_back(element);
    }
    std::string joined;
    for (const std::string& element : elements) joined += (joined.empty() ? "" : "/") + element;
    char* result = new char[joined.size() + 1];
    memcpy(result, joined.c_str(), joined.size() + 1);
    *length = static_cast<int>(joined.size());
    *allocated = *length + 1;
    return result;
  }
};

#endif
