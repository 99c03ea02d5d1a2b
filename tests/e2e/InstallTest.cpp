// What the author of an extension library gets: an installed header that pkg-config finds, with
// which a library of ten lines is built and called.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

std::vector<std::string> Words(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
}

// The first block of C of a page.
std::string CodeOf(const std::string& page) {
  std::ifstream file(InSource(page));
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  const size_t begin = all.find("```c\n") + 5;
  return all.substr(begin, all.find("```", begin) - begin);
}

TEST(Install, ALibraryIsBuiltWithTheInstalledHeader) {
  TemporaryDirectory directory;
  Command install({"/usr/bin/env", "cmake", "--install", InBuild(""), "--component", "development",
                   "--prefix", directory.path()});
  ASSERT_EQ(install.Run(), 0) << install.errors;

  Command flags({"/usr/bin/env", "pkg-config", "--cflags", "--libs", "zeph"});
  flags.environment["PKG_CONFIG_PATH"] = directory.path("share/pkgconfig");
  ASSERT_EQ(flags.Run(), 0) << flags.errors;

  for (const char* compiler : {"cc", "c++"}) {
    SCOPED_TRACE(compiler);
    const bool c = std::string(compiler) == "cc";
    const std::string source = directory.File(
        c ? "hello.c" : "hello.cpp",
        (c ? "" : "extern \"C\" {\n") + CodeOf("docs/extensions.md") + (c ? "" : "}\n"));
    std::vector<std::string> arguments = {"/usr/bin/env", compiler,  "-Wall", "-Wextra",
                                          "-Werror",      "-shared", "-fPIC"};
    for (const std::string& flag : Words(flags.output)) arguments.push_back(flag);
    for (const std::string& word : {std::string("-o"), directory.path("hello.so"), source}) {
      arguments.push_back(word);
    }
    Command compile(arguments);
    ASSERT_EQ(compile.Run(), 0) << compile.errors;

    EngineProcess engine;
    engine.settings =
        "[[library]]\nkind = \"builtin\"\npath = \"" + directory.path("hello.so") + "\"\n";
    engine.Script("page.zpc",
                  ".function hello(name) external\n.end\npushc \"world\"\ncall hello\nout\n");
    engine.WriteConfiguration();
    Command page({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
                  engine.Path("scripts/page.zpc")});
    EXPECT_EQ(page.Run(), 0) << page.output;
    EXPECT_EQ(page.output, "Hello, world");
  }
}

// zeph finds its programs, libraries and files from its own place, wherever it was installed.
TEST(Install, ZephRunsFromWhereItIsInstalled) {
  TemporaryDirectory directory;
  for (const char* component : {"engine", "zeph"}) {
    Command install({"/usr/bin/env", "cmake", "--install", InBuild(""), "--component", component,
                     "--prefix", directory.path("usr")});
    ASSERT_EQ(install.Run(), 0) << install.errors;
  }
  const std::string zeph = directory.path("usr/bin/zeph");
  for (const char* page : {"man1/zeph.1", "man1/zephc.1", "man1/zprun.1", "man1/zpasm.1",
                           "man1/zpdbf.1", "man8/zeph-fcgi.8"}) {
    EXPECT_TRUE(directory.Exists("usr/share/man/" + std::string(page))) << page;
  }
  Command made({zeph, "new", directory.path("site")});
  ASSERT_EQ(made.Run(), 0) << made.errors;
  // A library beside the installed ones.
  std::filesystem::copy(InBuild("lib/test/HtmlEncode.so"), directory.path("usr/lib/zeph"));
  directory.File("site/zeph.toml",
                 "[[library]]\nkind = \"builtin\"\npath = \"HtmlEncode.so\"\n"
                 "[variables.system]\nsite_name = \"Tea\"\n");
  Command run(
      {zeph, "run", directory.path("site/index.zeph"), "--get", "name=Ann", "--get", "cups=1"});
  run.environment = {{"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(run.Run(), 0) << run.errors;
  EXPECT_THAT(run.output, testing::HasSubstr("<title>Welcome \xE2\x80\x93 Tea</title>"));
  EXPECT_THAT(run.output, testing::HasSubstr("<h2>Hello, Ann!</h2>"));
}

TEST(Install, ZephKnowsTheFunctionsOfTheStandardLibrary) {
  TemporaryDirectory directory;
  for (const char* component : {"engine", "extensions", "zeph"}) {
    Command install({"/usr/bin/env", "cmake", "--install", InBuild(""), "--component", component,
                     "--prefix", directory.path("usr")});
    ASSERT_EQ(install.Run(), 0) << install.errors;
  }
  const std::string zeph = directory.path("usr/bin/zeph");
  Command made({zeph, "new", directory.path("site")});
  ASSERT_EQ(made.Run(), 0) << made.errors;
  directory.File("site/page.zeph", "{{ upper(\"tea\") }}");
  Command run({zeph, "run", directory.path("site/page.zeph")});
  run.environment = {{"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(run.Run(), 0) << run.errors;
  EXPECT_EQ(run.output, "TEA");
}

TEST(Install, PagesFindTheStandardLibrary) {
  TemporaryDirectory directory;
  for (const char* component : {"development", "extensions"}) {
    Command install({"/usr/bin/env", "cmake", "--install", InBuild(""), "--component", component,
                     "--prefix", directory.path()});
    ASSERT_EQ(install.Run(), 0) << install.errors;
  }
  const auto variable = [&](const std::string& name) {
    Command command({"/usr/bin/env", "pkg-config", "--variable=" + name, "zeph"});
    command.environment["PKG_CONFIG_PATH"] = directory.path("share/pkgconfig");
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return command.output.substr(0, command.output.find('\n'));
  };
  const std::string page = directory.File("page.zeph", "{{ upper(\"<tea>\") }}");
  Command compile({InBuild("bin/zephc"), "--functions",
                   variable("functiondir") + "/zephstd.functions", page, "-o",
                   directory.path("page.zpc")});
  ASSERT_EQ(compile.Run(), 0) << compile.errors;
  directory.File("zeph.toml", "[[library]]\nkind = \"builtin\"\npath = \"" +
                                  variable("extensiondir") + "/zephstd.so\"\n");
  Command run(
      {InBuild("bin/zprun"), "--config", directory.path("zeph.toml"), directory.path("page.zpc")});
  EXPECT_EQ(run.Run(), 0) << run.errors;
  EXPECT_EQ(run.output, "&lt;TEA&gt;");
}

}  // namespace
