// Pages of the tag language: compiled in memory, and run by zprun with the function that {{ }}
// calls.

#ifndef ZEPH_TESTS_SUPPORT_COMPILEDPAGES_H
#define ZEPH_TESTS_SUPPORT_COMPILEDPAGES_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "compiler/Compiler.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/Lister.h"

// A page that includes others, which are in files by name.
inline CompileResult CompileText(const std::string& source,
                                 const std::map<std::string, std::string>& files = {},
                                 CompileOptions options = {}) {
  options.reader = [&files](const std::string& name, const std::string&, std::string* found,
                            std::string* text) {
    auto file = files.find(name);
    if (file == files.end()) return false;
    *found = name;
    *text = file->second;
    return true;
  };
  return CompilePage(source, "page.zeph", options);
}

// The instructions of a page as zpasm lists them, without blanks at the beginning of lines, without
// the table of the dictionary, with "; " between them, and with the labels L1, L2 and so on.
inline std::string CodeOf(const std::string& source) {
  const CompileResult result = CompileText(source);
  EXPECT_TRUE(result.succeeded) << result.formatted;
  std::string text, error;
  if (!result.succeeded || !ListScript(result.image, &text, &error)) return "failed " + error;
  std::string code;
  std::map<std::string, std::string> labels;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    std::string line = text.substr(at, end - at);
    at = end + 1;
    line.erase(0, line.find_first_not_of(' '));
    const bool is_table = line.rfind(".entry", 0) == 0 || line.rfind(".global", 0) == 0 ||
                          line.rfind(".system", 0) == 0 || line.rfind("sourcefile", 0) == 0;
    if (line.empty() || line[0] == ';' || is_table) continue;
    code += (code.empty() ? "" : "; ") + line;
  }
  for (size_t at = 0; (at = code.find('L', at)) != std::string::npos; at++) {
    size_t end = at + 1;
    while (end < code.size() && code[end] >= '0' && code[end] <= '9') end++;
    if (end == at + 1) continue;
    const std::string number = std::to_string(labels.size() + 1);
    const std::string name = labels.emplace(code.substr(at, end - at), "L" + number).first->second;
    code.replace(at, end - at, name);
  }
  return code;
}

// A folder with compiled pages, and zprun.
class PageFolder {
 public:
  PageFolder() {
    const std::string library = InBuild("lib/test/HtmlEncode.so");
    directory.Directory("data");
    directory.File("zeph.toml", "dir_zeph = \"" + directory.path() + "\"\ndir_data = \"" +
                                    directory.Directory("data") +
                                    "\"\n[[library]]\nkind = \"builtin\"\npath = \"" + library +
                                    "\"\n");
  }

  void Add(const std::string& name, const std::string& image) { directory.File(name, image); }

  // Runs a compiled page and returns its output.
  std::string Run(const std::string& page) {
    Command command({InBuild("bin/zprun"), "--errors-in-page", "--config",
                     directory.path("zeph.toml"), directory.path(page)});
    command.directory = directory.path();
    command.environment = {{"ZpCONFIG_LIBRARY", ""}};
    status = command.Run();
    EXPECT_EQ(command.errors, "");
    return command.output;
  }

  TemporaryDirectory directory;
  int status = -1;
};

#endif
