// Both hosts export the functions that api/zeph.h declares, and no other one looks like one.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

// The functions that a header declares: the names of the interface before an opening parenthesis,
// outside of comments.
std::set<std::string> Declared(const std::string& header) {
  std::ifstream file(InSource(header));
  std::stringstream content;
  content << file.rdbuf();
  std::string text =
      std::regex_replace(content.str(), std::regex("/\\*[^*]*(\\*[^*/][^*]*)*\\*/"), "");
  const std::regex name("\\b((zp[A-Z]|zeph_)\\w*)\\s*\\(");
  std::set<std::string> declared;
  for (std::sregex_iterator each(text.begin(), text.end(), name), end; each != end; ++each) {
    declared.insert((*each)[1]);
  }
  return declared;
}

// The names of the interface that a program exports.
std::set<std::string> Exported(const std::string& program) {
  Command command({"/usr/bin/nm", "-D", "--defined-only", InBuild("bin/") + program});
  EXPECT_EQ(command.Run(), 0) << command.errors;
  std::istringstream lines(command.output);
  std::set<std::string> exported;
  std::string address, kind, name;
  while (lines >> address >> kind >> name) {
    if (name.rfind("zeph_", 0) == 0 || (name.rfind("zp", 0) == 0 && isupper(name[2]))) {
      exported.insert(name);
    }
  }
  return exported;
}

TEST(Exports, AreTheFunctionsOfTheHeaderInBothHosts) {
  const std::set<std::string> declared = Declared("api/zeph.h");
  EXPECT_EQ(declared.size(), 239u);
  for (const char* program : {"zeph-fcgi", "zprun"}) {
    SCOPED_TRACE(program);
    EXPECT_EQ(Exported(program), declared);
  }
}

// The other list of the functions, with which the compiler compares the header.
TEST(Exports, AreAllInTheListOfSignatures) {
  EXPECT_EQ(Declared("tests/api/Signatures.h"), Declared("api/zeph.h"));
}

}  // namespace
