#include "base/core/LittleEndian.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(LittleEndian, LowByteComesFirstAtAnyAlignment) {
  for (size_t at = 0; at < 8; at++) {
    SCOPED_TRACE(at);
    unsigned char bytes[16];
    memset(bytes, 0xEE, sizeof bytes);
    for (unsigned char i = 0; i < 8; i++) bytes[at + i] = static_cast<unsigned char>(0x81 + i);
    EXPECT_EQ(LittleEndian::Get16(bytes + at), 0x8281);
    EXPECT_EQ(LittleEndian::Get32(bytes + at), 0x84838281u);
    EXPECT_EQ(LittleEndian::GetInt32(bytes + at), -0x7B7C7D7F);
    EXPECT_EQ(LittleEndian::Get64(bytes + at), 0x8887868584838281u);
  }
}

TEST(LittleEndian, WritesSoManyBytesAndNoOther) {
  unsigned char bytes[10];
  const auto written = [&](size_t count) {
    for (size_t i = 0; i < sizeof bytes; i++) {
      EXPECT_EQ(bytes[i], i >= 1 && i <= count ? i : 0xEE) << i << " of " << count;
    }
    memset(bytes, 0xEE, sizeof bytes);
  };
  memset(bytes, 0xEE, sizeof bytes);
  LittleEndian::Put16(bytes + 1, 0x0201);
  written(2);
  LittleEndian::Put32(bytes + 1, 0x04030201);
  written(4);
  LittleEndian::Put64(bytes + 1, 0x0807060504030201u);
  written(8);
}

// IEEE 754: 1.5 is 0x3FF8000000000000.
TEST(LittleEndian, DoubleIsItsBits) {
  unsigned char bytes[8];
  LittleEndian::PutDouble(bytes, 1.5);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 8), std::string("\0\0\0\0\0\0\xF8\x3F", 8));
  EXPECT_EQ(LittleEndian::GetDouble(bytes), 1.5);
}

TEST(LittleEndian, AppendedNumbersFollowTheText) {
  std::string text = "x";
  LittleEndian::Append16(&text, 0x0201);
  LittleEndian::Append32(&text, -2);
  EXPECT_EQ(text, std::string("x\x01\x02\xFE\xFF\xFF\xFF", 7));
}

}  // namespace
