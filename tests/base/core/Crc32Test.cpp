#include "base/core/crc32.h"

#include <climits>
#include <random>
#include <string>

#include "gtest/gtest.h"

namespace {

unsigned Checksum(const std::string& text) {
  return crc32_final(crc32_data(crc32_init(), text.data(), static_cast<int>(text.size())));
}

TEST(Crc32, CheckValue) {
  EXPECT_EQ(Checksum("123456789"), 0xFC891918u);
}

TEST(Crc32, BeginsAndEndsWithTheComplement) {
  EXPECT_EQ(crc32_init(), 0xFFFFFFFFu);
  EXPECT_EQ(crc32_final(0x12345678u), 0xEDCBA987u);
  EXPECT_EQ(Checksum(""), 0u);
}

TEST(Crc32, NoBytesChangeNothing) {
  EXPECT_EQ(crc32_data(0x12345678u, "abc", 0), 0x12345678u);
  EXPECT_EQ(crc32_data(0x12345678u, "abc", -1), 0x12345678u);
  EXPECT_EQ(crc32_data(0x12345678u, nullptr, INT_MIN), 0x12345678u);
}

TEST(Crc32, PiecesGiveTheSameAsTheWhole) {
  unsigned crc = crc32_data(crc32_init(), "12345", 5);
  EXPECT_EQ(crc32_final(crc32_data(crc, "6789", 4)), 0xFC891918u);
}

TEST(Crc32, AgreesWithADivisionBitByBit) {
  std::mt19937 random(20261121);
  for (int i = 0; i < 2000; ++i) {
    std::string text(random() % 50, 0);
    unsigned crc = 0xFFFFFFFFu;
    for (char& c : text) {
      c = static_cast<char>(random());
      for (int bit = 7; bit >= 0; --bit) {
        bool differs = ((static_cast<unsigned char>(c) >> bit) & 1) != crc >> 31;
        crc = crc << 1 ^ (differs ? 0x04C11DB7u : 0);
      }
    }
    ASSERT_EQ(Checksum(text), ~crc);
  }
}

}  // namespace
