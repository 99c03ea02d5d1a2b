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

}  // namespace
