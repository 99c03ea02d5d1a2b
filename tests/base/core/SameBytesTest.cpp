#include "base/core/SameBytes.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SameBytes, EachByteOfAnyLengthCounts) {
  for (size_t length = 0; length <= 40; length++) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    std::string other = text;
    EXPECT_TRUE(SameBytes(text.data(), other.data(), length));
    for (size_t i = 0; i < length; i++) {
      other[i] = 'y';
      EXPECT_FALSE(SameBytes(text.data(), other.data(), length)) << i;
      other[i] = 'x';
    }
  }
}

TEST(SameBytes, WhatFollowsTheLengthDoesNotCount) {
  const std::string text = "a name that ends before this";
  for (size_t length = 0; length < text.size(); length++) {
    std::string other = text;
    other[length] = '!';
    EXPECT_TRUE(SameBytes(text.data(), other.data(), length)) << length;
  }
}

TEST(CopyBytes, CopiesJustTheBytesOfAnyLength) {
  const std::string text = "a text of more than sixteen bytes, each of which is copied";
  for (size_t length = 0; length <= text.size(); length++) {
    SCOPED_TRACE(length);
    std::string copy(text.size(), '.');
    CopyBytes(copy.data(), text.data(), length);
    EXPECT_EQ(copy, text.substr(0, length) + std::string(text.size() - length, '.'));
  }
}

TEST(CopyBytes, BothRangesMayOverlap) {
  const std::string text = "a text of more than sixteen bytes, which moves over itself";
  for (size_t length = 0; length + 3 <= text.size(); length++) {
    SCOPED_TRACE(length);
    std::string up = text, down = text;
    CopyBytes(&up[3], &up[0], length);
    EXPECT_EQ(up, text.substr(0, 3) + text.substr(0, length) + text.substr(3 + length));
    CopyBytes(&down[0], &down[3], length);
    EXPECT_EQ(down, text.substr(3, length) + text.substr(length));
  }
}

}  // namespace
