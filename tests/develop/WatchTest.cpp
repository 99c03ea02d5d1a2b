#include "develop/Watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

class WatchTest : public testing::Test {
 protected:
  void SetUp() override {
    directory.Directory("site/deep");
    directory.Directory("site/.zeph");
    ASSERT_TRUE(watch.Open());
    ASSERT_TRUE(watch.AddTree(directory.path("site")));
  }
  // What has changed; inotify knows it when the change returns.
  std::set<std::string> Read() {
    std::set<std::string> touched;
    watch.Read(&touched);
    return touched;
  }

  TemporaryDirectory directory;
  Watch watch;
};

TEST_F(WatchTest, TellsOfFilesInAllFolders) {
  EXPECT_THAT(Read(), IsEmpty());
  const std::string one = directory.File("site/one.zeph", "1");
  const std::string two = directory.File("site/deep/two.zeph", "2");
  std::set<std::string> touched = Read();
  EXPECT_THAT(touched, Contains(one));
  EXPECT_THAT(touched, Contains(two));
  std::filesystem::rename(one, two);
  touched = Read();
  EXPECT_THAT(touched, Contains(one));
  EXPECT_THAT(touched, Contains(two));
  std::filesystem::remove(two);
  EXPECT_THAT(Read(), Contains(two));
}

TEST_F(WatchTest, TellsOfFilesInFoldersThatAreMadeLater) {
  directory.Directory("site/new/er");
  Read();
  const std::string file = directory.File("site/new/er/page.zeph", "x");
  EXPECT_THAT(Read(), Contains(file));
}

TEST_F(WatchTest, IsSilentAboutHiddenFiles) {
  directory.File("site/.zeph/pages/a.zpc", "x");
  directory.File("site/.page.zeph.swp", "x");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(WatchTest, AFolderThatIsGoneAndComesAgainIsWatchedAgain) {
  std::filesystem::remove_all(directory.path("site/deep"));
  EXPECT_THAT(Read(), Not(IsEmpty()));
  directory.Directory("site/deep");
  Read();
  const std::string file = directory.File("site/deep/page.zeph", "x");
  EXPECT_THAT(Read(), Contains(file));
}

// The system keeps some thousand changes, by default 16384.
TEST_F(WatchTest, AFolderThatWasMadeAfterTooManyChangesIsWatched) {
  const std::string one = directory.path("site/one");
  const std::string two = directory.path("site/two");
  directory.File("site/one");
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int most = 0;
  limit >> most;
  if (most > 1000000) GTEST_SKIP();
  for (int i = 0; i <= most; i++) std::filesystem::rename(i % 2 ? two : one, i % 2 ? one : two);
  directory.Directory("site/later/deep");
  EXPECT_THAT(Read(), Not(Contains(directory.path("site/later"))));
  EXPECT_EQ(watch.TakeFailure(), 0);
  const std::string file = directory.File("site/later/deep/page.zeph", "x");
  EXPECT_THAT(Read(), Contains(file));
}

TEST_F(WatchTest, AFolderThatCannotBeWatchedIsSkipped) {
  // A link to itself as the root of a tree is none.
  directory.Link("loop", "loop");
  EXPECT_FALSE(watch.AddTree(directory.path("loop")));
  EXPECT_EQ(errno, ELOOP);
  const std::string file = directory.File("site/deep/page.zeph", "x");
  EXPECT_THAT(Read(), Contains(file));
}

TEST_F(WatchTest, ItsDescriptorCanBePolled) {
  pollfd polled = {watch.descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&polled, 1, 0), 0);
  directory.File("site/x", "x");
  EXPECT_EQ(poll(&polled, 1, 10000), 1);
}

}  // namespace
