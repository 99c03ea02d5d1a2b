// Several machines, as docs/scaling.md describes them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/PostgreSQLCluster.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// Of three engines one goes away under load, with its machine, while it holds the lock of a
// counter. The others serve all that was not on it, and no count is lost.
TEST(SlowHosts, OneOfThreeGoesUnderLoad) {
  if (geteuid() != 0) GTEST_SKIP() << "only root makes networks";
  const char* const probe =
      "ip netns add zeph-probe-$$ 2>/dev/null && ip link add zp$$ type bridge 2>/dev/null; "
      "made=$?; ip link del zp$$ 2>/dev/null; ip netns del zeph-probe-$$ 2>/dev/null; exit $made";
  if (std::system(probe) != 0) GTEST_SKIP() << "no networks can be made here";
  if (!PostgreSQLCluster::IsInstalled() || access("/usr/bin/psql", X_OK) != 0 ||
      access("/usr/sbin/nginx", X_OK) != 0 || access("/usr/bin/spawn-fcgi", X_OK) != 0 ||
      access(InBuild("lib/zephpostgres.so").c_str(), R_OK) != 0) {
    GTEST_SKIP() << "script/setup installs nginx, spawn-fcgi, libpq-dev and postgresql-15";
  }
  TemporaryDirectory directory;
  // The database runs as a user without rights.
  std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  Command hosts({"/usr/bin/env", "python3", InSource("tests/support/hosts.py"), InBuild(""),
                 InSource(""), directory.path("hosts")});
  EXPECT_EQ(hosts.Run(), 0) << hosts.output << hosts.errors;
}

}  // namespace
