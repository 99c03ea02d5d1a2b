#include "base/host/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace {

int OpenSomething() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}
bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) >= 0;
}

TEST(FileDescriptor, HoldsNothingByDefault) {
  FileDescriptor guard;
  EXPECT_EQ(-1, guard.get());
  EXPECT_FALSE(guard.is_open());
}

TEST(FileDescriptor, ClosesAtTheEndOfItsScope) {
  int descriptor = OpenSomething();
  {
    FileDescriptor guard(descriptor);
    EXPECT_TRUE(guard.is_open());
    EXPECT_TRUE(IsOpen(descriptor));
  }
  EXPECT_FALSE(IsOpen(descriptor));
}

TEST(FileDescriptor, ReleaseHandsTheDescriptorOver) {
  int descriptor = OpenSomething();
  {
    FileDescriptor guard(descriptor);
    EXPECT_EQ(descriptor, guard.release());
    EXPECT_FALSE(guard.is_open());
  }
  EXPECT_TRUE(IsOpen(descriptor));
  close(descriptor);
}

TEST(FileDescriptor, ResetClosesWhatWasHeld) {
  int first = OpenSomething();
  int second = OpenSomething();
  FileDescriptor guard(first);
  guard.reset(second);
  EXPECT_FALSE(IsOpen(first));
  EXPECT_EQ(second, guard.get());
  guard.reset();
  EXPECT_FALSE(IsOpen(second));
}

TEST(FileDescriptor, MovingLeavesTheSourceEmpty) {
  int descriptor = OpenSomething();
  FileDescriptor source(descriptor);
  FileDescriptor target(std::move(source));
  EXPECT_FALSE(
      source
          .is_open());  // NOLINT(bugprone-use-after-move): the test is about the moved-from object
  EXPECT_EQ(descriptor, target.get());
  FileDescriptor third(OpenSomething());
  third = std::move(target);
  EXPECT_EQ(descriptor, third.get());
  EXPECT_FALSE(target.is_open());  // NOLINT(bugprone-use-after-move)
}

TEST(FileDescriptor, MovedToItselfItKeepsItsDescriptor) {
  FileDescriptor guard(OpenSomething());
  FileDescriptor& same = guard;
  guard = std::move(same);
  EXPECT_TRUE(IsOpen(guard.get()));  // NOLINT(bugprone-use-after-move)
}

TEST(FileDescriptor, ClosingKeepsErrno) {
  {
    FileDescriptor invalid(1 << 20);
    errno = ENOENT;
  }
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
