// The programs of bench/programs write what their twins in PHP write.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/support/CompiledPages.h"

namespace {

struct Program {
  const char* name;
  const char* size;
  const char* last_lines;  // of what the twin in PHP writes
};

const Program programs[] = {
    {"quicksort", "500", "734 139837 870339\n"},
    {"queens", "6", "4\n"},
    {"sieve", "1000", "168 997\n"},
    {"tak", "17", "16\n"},
    {"trees", "3", "1 0 8\n2 1 16\n3 2 24\n4 3 32\n5 4 40\n6 5 48\n"},
    {"nbody", "100",
     "0.000824 -0.000002 -0.000020\n"
     "4.645954 1.686676 -0.111006\n"
     "7.133229 5.832809 -0.385129\n"
     "13.943151 -14.204630 -0.233524\n"
     "16.347649 -25.305628 0.144377\n"},
    {"words", "500", "vina 11 211\nvilo 5 496\nvivi 6 196\n"},
    {"states", "1000", "155 330 cart\n"},
    {"levenshtein", "20", "11\n9\n14\n11\n"},
    {"matrix", "7", "1764 91 595\n"},
    {"random", "500", "3995 117 7864259\n"},
    {"mandelbrot", "6",
     ".......#....\n"
     ".....+####..\n"
     "#########+..\n"
     ".....+####..\n"
     ".......#....\n"
     "............\n"},
    {"table", "2",
     "<tr><td>Assam</td><td>200</td><td class='amount'>3.14</td><td "
     "class='amount'>628.57</td></tr>\n"
     "\n188656.71\n"},
    {"calculator", "50", "19750\n"},
    {"collatz", "1000",
     "97 118\n171 124\n231 127\n327 143\n327 143\n327 143\n649 144\n703 170\n871 178\n871 178\n"},
    {"heapsort", "101", "item 44, item 43, 267902\n"},
    {"statistics", "20", "22226625.252\n"},
    {"labels", "1000", "182 12 <i>sold out</i> <i>10 cups</i>\n"},
    {"list", "9",
     "<tr class=\"odd\">\n  <td>9</td>\n  <td>Keemun</td>\n  <td>3.29</td>\n  <td>24.43</td>\n"
     "</tr>\n</table>\n"},
    {"shuffle", "300", "5 249 74081\n"},
};

std::string PathOf(const std::string& file) {
  return InSource("bench/programs/" + file);
}

std::string Output(const std::vector<std::string>& arguments) {
  Command command(arguments);
  command.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(command.Run(), 0) << command.errors;
  return command.output;
}

// What a program writes that zephc has compiled with its usual options.
std::string OutputOfPage(const Program& program) {
  TemporaryDirectory directory;
  const std::string compiled = directory.path("program.zpc");
  EXPECT_EQ(Output({InBuild("bin/zephc"), "--werror", PathOf(program.name + std::string(".zeph")),
                    "-o", compiled}),
            "");
  return Output({InBuild("bin/zprun"), compiled, program.size});
}

TEST(Programs, WriteWhatTheirTwinsWrote) {
  for (const Program& program : programs) {
    SCOPED_TRACE(program.name);
    const std::string output = OutputOfPage(program), expected = program.last_lines;
    EXPECT_EQ(output.substr(output.size() - std::min(output.size(), expected.size())), expected);
  }
}

// Each twin where its language is installed, and all lines.
TEST(Programs, WriteWhatTheirTwinsWriteHere) {
  const struct {
    const char* interpreter;
    const char* suffix;
  } languages[] = {{"/usr/bin/php", ".php"}, {"/usr/bin/lua5.4", ".lua"}};
  int installed = 0;
  for (const auto& language : languages) {
    if (!std::filesystem::exists(language.interpreter)) continue;
    installed++;
    for (const Program& program : programs) {
      const std::string twin = program.name + std::string(language.suffix);
      SCOPED_TRACE(twin);
      EXPECT_EQ(OutputOfPage(program), Output({language.interpreter, PathOf(twin), program.size}));
    }
  }
  if (installed == 0) GTEST_SKIP() << "neither PHP nor Lua is installed";
}

TEST(Programs, AreThoseThatAreMeasured) {
  std::set<std::string> tested, measured, written;
  for (const Program& program : programs) tested.insert(program.name);
  std::ifstream sizes(PathOf("sizes"));
  for (std::string line; std::getline(sizes, line);) {
    if (line[0] != '#') measured.insert(line.substr(0, line.find(' ')));
  }
  for (const auto& file : std::filesystem::directory_iterator(PathOf(""))) {
    if (file.path().extension() == ".zeph") written.insert(file.path().stem());
  }
  EXPECT_EQ(measured, tested);
  EXPECT_EQ(written, tested);
}

}  // namespace
