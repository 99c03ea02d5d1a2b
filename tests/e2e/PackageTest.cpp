// The Debian packages of the build: what is in them, and their life in a system that has nothing
// else.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::Not;

// The packages are made once, from what the build has.
class Packages : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (kAddressSanitizer || kThreadSanitizer) return;
    directory = std::make_unique<TemporaryDirectory>();
    Command pack({"/usr/bin/env", "cpack", "--config", InBuild("CPackConfig.cmake"), "-B",
                  directory->path("work")});
    pack.directory = directory->path();
    pack.environment["TMPDIR"] = directory->path();
    ASSERT_EQ(pack.Run(), 0) << pack.output << pack.errors;
  }
  static void TearDownTestSuite() { directory.reset(); }
  void SetUp() override {
    if (!directory) GTEST_SKIP() << "no packages are made of programs with a sanitizer";
  }
  std::string Path(const std::string& package) {
    Command find({"/usr/bin/find", directory->path("packages"), "-name", package + "_*.deb"});
    find.Run();
    return find.output.substr(0, find.output.find('\n'));
  }
  std::string Shown(const std::string& option, const std::string& package) {
    Command show({"/usr/bin/dpkg-deb", option, Path(package)});
    EXPECT_EQ(show.Run(), 0) << show.errors;
    return show.output;
  }
  static inline std::unique_ptr<TemporaryDirectory> directory;
};

TEST_F(Packages, EachHasItsPart) {
  const std::string engine = Shown("--contents", "zeph-engine");
  for (const char* file :
       {"./usr/bin/zeph-fcgi\n", "./usr/lib/zeph/libzephconfig.so\n", "./usr/lib/zeph/zephstd.so\n",
        "./etc/zeph/zeph.toml\n", "./usr/lib/systemd/system/zeph.service\n",
        "./usr/lib/systemd/system/zeph.socket\n", "./etc/logrotate.d/zeph\n",
        "./usr/share/zeph/web/nginx.conf\n"}) {
    EXPECT_THAT(engine, HasSubstr(file));
  }
  EXPECT_THAT(engine, Not(HasSubstr("./usr/bin/zeph\n")));
  const std::string tools = Shown("--contents", "zeph-tools");
  for (const char* program : {"zeph", "zephc", "zprun", "zpasm", "zpdbf"}) {
    EXPECT_THAT(tools, HasSubstr(std::string("./usr/bin/") + program + "\n"));
    EXPECT_THAT(tools, HasSubstr(std::string("./usr/share/man/man1/") + program + ".1\n"));
  }
  EXPECT_THAT(Shown("--contents", "zeph-dev"), HasSubstr("./usr/include/zeph.h\n"));
  // Without a path of the build.
  for (const char* package : {"zeph-engine", "zeph-tools", "zeph-dev"}) {
    SCOPED_TRACE(package);
    EXPECT_THAT(Shown("--contents", package), Not(HasSubstr(InBuild("").substr(1))));
  }
  EXPECT_THAT(Shown("--field", "zeph-tools"), HasSubstr("Depends: zeph-engine (= "));
}

// A program of systemd reads the units as the service manager would.
TEST_F(Packages, TheUnitsAreValid) {
  Command unpack({"/usr/bin/dpkg-deb", "-x", Path("zeph-engine"), directory->path("root")});
  ASSERT_EQ(unpack.Run(), 0) << unpack.errors;
  // The shell is another package's.
  std::filesystem::create_directory(directory->path("root/bin"));
  std::filesystem::copy_file("/bin/sh", directory->path("root/bin/sh"));
  Command verify({"/usr/bin/env", "systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
                  "--root=" + directory->path("root"), "zeph.service", "zeph.socket"});
  EXPECT_EQ(verify.Run(), 0) << verify.output << verify.errors;
  EXPECT_THAT(verify.errors, Not(HasSubstr("zeph.")));
}

// packaging/try installs, serves, upgrades, removes and purges in a copy of a bare system, which
// "debootstrap --variant=minbase bookworm FOLDER" makes.
TEST_F(Packages, AreInstalledServeAndGoWithoutATrace) {
  const char* root = getenv("ZEPH_BARE_ROOT");
  if (!root) GTEST_SKIP() << "ZEPH_BARE_ROOT names no folder that debootstrap has made";
  Command attempt({InSource("packaging/try"), directory->path("packages"), root});
  attempt.environment["TMPDIR"] = directory->path();
  EXPECT_EQ(attempt.Run(), 0) << attempt.errors;
  EXPECT_EQ(attempt.output, "fine\n");
}

// packaging/boot starts systemd with the packages in a copy of the same system.
TEST_F(Packages, AreAServiceOfABootedSystem) {
  const char* root = getenv("ZEPH_BARE_ROOT");
  if (!root) GTEST_SKIP() << "ZEPH_BARE_ROOT names no folder that debootstrap has made";
  Command attempt({InSource("packaging/boot"), directory->path("packages"), root});
  attempt.environment["TMPDIR"] = directory->path();
  const int status = attempt.Run();
  if (status == 77) GTEST_SKIP() << attempt.errors;
  EXPECT_EQ(status, 0) << attempt.errors;
  EXPECT_EQ(attempt.output, "fine\n");
}

// packaging/image builds the image of the container with buildah, and serves a page from it.
TEST_F(Packages, AreServedFromAContainer) {
  const char* root = getenv("ZEPH_BARE_ROOT");
  if (!root) GTEST_SKIP() << "ZEPH_BARE_ROOT names no folder that debootstrap has made";
  Command attempt({InSource("packaging/image"), root, directory->path("packages")});
  attempt.environment["TMPDIR"] = directory->path();
  attempt.environment["ZEPH_BUILD"] = InBuild("");
  EXPECT_EQ(attempt.Run(), 0) << attempt.errors;
  EXPECT_EQ(attempt.output, "fine\n");
}

// A copy of the script with a command that fails without a word, at work in a system of two files.
TEST(PackagingScripts, SayWhereACommandHasFailed) {
  if (geteuid() != 0) GTEST_SKIP() << "only root makes name spaces";
  if (std::system("unshare --mount-proc --pid --fork true 2>/dev/null") != 0) {
    GTEST_SKIP() << "no name spaces can be made here";
  }
  const TemporaryDirectory directory;
  for (const char* folder : {"system/proc", "system/etc", "system/usr/sbin", "system/usr/bin"}) {
    std::filesystem::create_directories(directory.path(folder));
  }
  directory.File("system/usr/bin/apt-get", "");
  std::filesystem::permissions(directory.path("system/usr/bin/apt-get"),
                               std::filesystem::perms(0755));
  std::filesystem::copy_file(InSource("packaging/copy"), directory.path("copy"));
  const std::string sourced = ". \"$(dirname \"$0\")/copy\"\n";
  for (const std::string name : {"try", "image"}) {
    SCOPED_TRACE(name);
    std::ifstream file(InSource("packaging/" + name));
    std::stringstream content;
    content << file.rdbuf();
    std::string text = content.str();
    const size_t at = text.find(sourced);
    ASSERT_NE(at, std::string::npos);
    const auto line = std::count(text.begin(), text.begin() + static_cast<long>(at), '\n') + 2;
    directory.File(name, text.insert(at + sourced.size(), "found=$(false)\n"));
    std::filesystem::permissions(directory.path(name), std::filesystem::perms(0755));
    std::vector<std::string> words = {directory.path(name), directory.path("system")};
    if (name == "try") words.insert(words.begin() + 1, directory.path());
    Command script(words);
    script.environment["TMPDIR"] = directory.Directory("scratch");
    EXPECT_EQ(script.Run(), 1);
    EXPECT_EQ(script.errors, "packaging/" + name + ": status 1 at " + name + ":" +
                                 std::to_string(line) + ": found=$(false)\n");
    // Nothing is left, not even a mount.
    EXPECT_TRUE(std::filesystem::is_empty(directory.path("scratch")));
  }
}

}  // namespace
