#include "base/core/base64.h"

#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

const uchar* Bytes(const std::string& text) {
  return reinterpret_cast<const uchar*>(text.data());
}

std::string Encode(const std::string& text) {
  std::vector<uchar> buffer(4 * (text.size() / 3) + 5, '#');
  int length = zp_base64_encode(Bytes(text), buffer.data(), static_cast<int>(text.size()));
  EXPECT_LT(static_cast<size_t>(length), buffer.size());
  EXPECT_EQ(buffer[length], '#');
  return std::string(buffer.begin(), buffer.begin() + length);
}

std::string Decode(const std::string& text) {
  std::vector<uchar> buffer(text.size() + 1, '#');
  int length = zp_base64_decode(Bytes(text), buffer.data(), static_cast<int>(text.size()));
  EXPECT_EQ(buffer[length], '#');
  return std::string(buffer.begin(), buffer.begin() + length);
}

TEST(Base64, VectorsOfRFC4648) {
  const struct {
    const char* plain;
    const char* encoded;
  } cases[] = {{"", ""},
               {"f", "Zg=="},
               {"fo", "Zm8="},
               {"foo", "Zm9v"},
               {"foob", "Zm9vYg=="},
               {"fooba", "Zm9vYmE="},
               {"foobar", "Zm9vYmFy"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plain);
    EXPECT_EQ(Encode(c.plain), c.encoded);
    EXPECT_EQ(Decode(c.encoded), c.plain);
  }
}

TEST(Base64, AlphabetInOrder) {
  std::string sixes;
  for (int i = 0; i < 64; i += 4) {
    int group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
    for (int shift : {16, 8, 0}) sixes += static_cast<char>(group >> shift);
  }
  EXPECT_EQ(Encode(sixes), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(Base64, PaddingDecidesTheBytesOfAGroup) {
  EXPECT_EQ(Decode("QQ=="), "A");
  EXPECT_EQ(Decode("QUI="), "AB");
  EXPECT_EQ(Decode("QUJD"), "ABC");
}

TEST(Base64, IncompleteGroupIsIgnored) {
  EXPECT_EQ(Decode("QUJDQ"), "ABC");
  EXPECT_EQ(Decode("QUJDQUI"), "ABC");
  EXPECT_EQ(Decode("QUJ"), "");
  EXPECT_EQ(Decode(""), "");
}

TEST(Base64, LengthsBelowOneWriteNothing) {
  uchar buffer[4] = {};
  EXPECT_EQ(zp_base64_encode(buffer, buffer, -1), 0);
  EXPECT_EQ(zp_base64_decode(buffer, buffer, -1), 0);
}

TEST(Base64, ForeignBytesCountAsZeroAndShiftTheRest) {
  EXPECT_EQ(Decode("QU\nD"), Decode("QUAD"));
  EXPECT_EQ(Decode("\xff\x80-_"), std::string("\0\0\0", 3));
  EXPECT_EQ(Decode("Q\r\nUJD"), Decode("QAAU"));
}

TEST(Base64, PaddingInOddPlacesDropsItsOwnByteOnly) {
  EXPECT_EQ(Decode("QQ=B").size(), 2u);
  EXPECT_EQ(Decode("QQ=B"), std::string("A\1", 2));
  EXPECT_EQ(Decode("=QJD"), std::string("\x01\x02\x43", 3));
  EXPECT_EQ(Decode("QQ==QUJD"), "AABC");
}

TEST(Base64, DecodesInPlace) {
  std::string text = "Zm9vYmFyZm9vYmFy";
  auto bytes = reinterpret_cast<uchar*>(text.data());
  EXPECT_EQ(zp_base64_decode(bytes, bytes, static_cast<int>(text.size())), 12);
  EXPECT_EQ(text.substr(0, 12), "foobarfoobar");
}

TEST(Base64, RoundTripOfRandomBytes) {
  std::mt19937 random(20261121);
  for (int i = 0; i < 5000; ++i) {
    std::string text(random() % 70, 0);
    for (char& c : text) c = static_cast<char>(random());
    ASSERT_EQ(Decode(Encode(text)), text);
  }
}

}  // namespace
