#include "base/core/CopyText.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <new>
#include <string>

namespace {

TEST(CopyText, CopiesSoManyBytesAndNoOther) {
  const std::string source = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (size_t length = 0; length <= source.size(); length++) {
    SCOPED_TRACE(length);
    const std::string exact(source, 0, length);
    std::string target(length + 8, '-');
    CopyText(target.data() + 4, exact.data(), length);
    EXPECT_EQ(target, "----" + exact + "----");
  }
}

TEST(NewTextCopy, HasTheBytesAndANULAfterThem) {
  const std::string source("a\0b and more", 12);
  for (int length = 0; length <= 12; length++) {
    SCOPED_TRACE(length);
    const std::unique_ptr<char[]> copy(NewTextCopy(source.data(), length));
    EXPECT_EQ(std::string(copy.get(), static_cast<size_t>(length)),
              source.substr(0, static_cast<size_t>(length)));
    EXPECT_EQ(copy[static_cast<size_t>(length)], 0);
  }
}

TEST(NewTextCopy, NullTextOfNoLengthIsEmpty) {
  const std::unique_ptr<char[]> copy(NewTextCopy(nullptr, 0));
  EXPECT_STREQ(copy.get(), "");
}

TEST(NewTextCopy, TextWithoutRoomForTheNULFailsAsAnAllocation) {
  EXPECT_THROW((void)NewTextCopy("", INT_MAX), std::bad_alloc);
}

}  // namespace
