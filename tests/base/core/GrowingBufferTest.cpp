#include "base/core/GrowingBuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <new>
#include <random>
#include <string>

namespace {

std::string Text(const GrowingBuffer& buffer) {
  return std::string(buffer.data(), static_cast<size_t>(buffer.used()));
}

TEST(GrowingBuffer, HasATextBeforeTheFirstByte) {
  const GrowingBuffer buffer(4);
  ASSERT_NE(buffer.data(), nullptr);
  EXPECT_EQ(buffer.used(), 0);
  EXPECT_EQ(buffer.capacity(), 0) << "nothing is allocated";
}

TEST(GrowingBuffer, KeepsWhatEveryWayAppends) {
  std::mt19937 random(20261122);
  for (int first : {1, 2, 7, 64}) {
    SCOPED_TRACE(first);
    GrowingBuffer buffer(first);
    std::string model;
    for (int step = 0; step < 500; step++) {
      const std::string text(random() % 9, static_cast<char>('a' + step % 26));
      const int length = static_cast<int>(text.size());
      switch (random() % 4) {
        case 0:
          buffer.Append('!');
          model += '!';
          break;
        case 1:
          memcpy(buffer.Room(length + 1), text.data(), text.size());
          buffer.Advance(length);
          model += text;
          break;
        default:
          buffer.Append(text.data(), length);
          model += text;
          break;
      }
      ASSERT_EQ(Text(buffer), model);
    }
  }
}

TEST(GrowingBuffer, LengthsBelowOneAppendNothing) {
  GrowingBuffer buffer(4);
  buffer.Append("ab", 2);
  buffer.Append("xy", 0);
  buffer.Append("xy", -1);
  EXPECT_EQ(Text(buffer), "ab");
}

TEST(GrowingBuffer, DoublesSoThatBytesAreMovedSeldom) {
  GrowingBuffer buffer(8);
  int moves = 0;
  const char* place = buffer.data();
  for (int i = 0; i < 8 << 10; i++) {
    buffer.Append('x');
    if (buffer.data() != place) moves++;
    place = buffer.data();
  }
  EXPECT_LE(moves, 11);
  EXPECT_EQ(buffer.capacity(), 8 << 10);
}

TEST(GrowingBuffer, KeepsItsRoomWhenItIsEmptied) {
  GrowingBuffer buffer(4);
  buffer.Append("0123456789", 10);
  const int room = buffer.capacity();
  buffer.Clear();
  EXPECT_EQ(buffer.used(), 0);
  EXPECT_EQ(buffer.capacity(), room);
  buffer.Append("ab", 2);
  EXPECT_EQ(Text(buffer), "ab");
}

// The sum of the lengths must not wrap around: the room is refused before a byte is read.
TEST(GrowingBuffer, ATextOfMoreThanTheLargestIntIsRefused) {
  GrowingBuffer buffer(4);
  buffer.Append('a');
  EXPECT_THROW(buffer.Append("b", INT_MAX), std::bad_alloc);
  EXPECT_THROW(buffer.Room(INT_MAX), std::bad_alloc);
  EXPECT_EQ(Text(buffer), "a");
}

}  // namespace
