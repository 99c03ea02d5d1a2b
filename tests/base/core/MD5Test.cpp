#include "base/core/MD5.h"

#include <cstring>
#include <string>

#include "gtest/gtest.h"

namespace {

const uchar* Bytes(const std::string& text) {
  return reinterpret_cast<const uchar*>(text.data());
}

unsigned Length(const std::string& text) {
  return static_cast<unsigned>(text.size());
}

std::string Printable(const uchar* digest) {
  MD5Encoder encoder;
  std::string text(33, '#');
  encoder.Make_Printable(digest, text.data());
  EXPECT_EQ(text.back(), '#');
  text.pop_back();
  return text;
}

std::string Digest(const std::string& text) {
  MD5Encoder encoder;
  uchar digest[16];
  encoder.Encode(Bytes(text), Length(text), digest);
  return Printable(digest);
}

std::string HMAC(const std::string& key, const std::string& text) {
  MD5Encoder encoder;
  uchar digest[16];
  encoder.HMAC(Bytes(text), Length(text), Bytes(key), Length(key), digest);
  return Printable(digest);
}

TEST(MD5, VectorsOfRFC1321) {
  const struct {
    const char* text;
    const char* digest;
  } cases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Digest(c.text), c.digest);
  }
}

// Lengths around the end of a block, where the padding needs another block. Computed with md5sum.
TEST(MD5, LengthsAroundABlock) {
  const struct {
    size_t length;
    const char* digest;
  } cases[] = {
      {55, "ef1772b6dff9a122358552954ad0df65"},  {56, "3b0c8ac703f828b04c6c197006d17218"},
      {57, "652b906d60af96844ebd21b674f35e93"},  {63, "b06521f39153d618550606be297466d5"},
      {64, "014842d480b571495a4a0363793f7367"},  {65, "c743a45e0d2e6a95cb859adae0248435"},
      {119, "8a7bd0732ed6a28ce75f6dabc90e1613"}, {120, "5f61c0ccad4cac44c75ff505e1f1e537"},
      {128, "e510683b3f5ffe4093d021808bc6ff70"}, {1000000, "7707d6ae4e027c70eea2a935c2296f21"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    EXPECT_EQ(Digest(std::string(c.length, 'a')), c.digest);
  }
}

TEST(MD5, PiecesGiveTheSameAsTheWhole) {
  std::string text;
  for (int i = 0; i < 300; ++i) text += static_cast<char>(i);
  MD5Encoder encoder;
  uchar digest[16];
  encoder.Encode_Block(Bytes(text), 64);
  encoder.Encode_Block(Bytes(text) + 64, 128);
  encoder.Encode_Final(Bytes(text) + 192, 108, digest);
  EXPECT_EQ(Printable(digest), Digest(text));
}

// The state is that after the whole block of 64 bytes, and the padding has the count of 70 bytes.
TEST(MD5, BytesAfterTheLastWholeBlockOfAPieceAreDroppedButCounted) {
  std::string text(70, 'x');
  MD5Encoder encoder;
  uchar dropped[16];
  encoder.Encode_Block(Bytes(text), 70);
  encoder.Encode_Final(nullptr, 0, dropped);
  MD5Encoder by_hand;
  unsigned block[16];
  by_hand.Decode_Block(Bytes(text), block);
  by_hand.MD5_Hash(block);
  unsigned padding[16] = {0x80};
  padding[14] = 70 * 8;
  by_hand.MD5_Hash(padding);
  unsigned state[4];
  memcpy(state, &by_hand, sizeof state);
  uchar expected[16];
  for (int i = 0; i < 16; ++i) expected[i] = static_cast<uchar>(state[i / 4] >> (8 * (i % 4)));
  EXPECT_EQ(Printable(dropped), Printable(expected));
  EXPECT_NE(Printable(dropped), Digest(std::string(64, 'x')));
}

TEST(MD5, FinalDoesNotResetTheObject) {
  MD5Encoder encoder;
  uchar first[16];
  uchar second[16];
  encoder.Encode_Final(Bytes("abc"), 3, first);
  encoder.Encode_Final(Bytes("abc"), 3, second);
  EXPECT_NE(Printable(first), Printable(second));
  encoder.Reset();
  encoder.Encode_Final(Bytes("abc"), 3, second);
  EXPECT_EQ(Printable(first), Printable(second));
}

TEST(MD5, DecodeBlockReadsLittleEndianWords) {
  uchar bytes[64] = {};
  for (int i = 0; i < 64; ++i) bytes[i] = static_cast<uchar>(i);
  unsigned block[16];
  MD5Encoder encoder;
  encoder.Decode_Block(bytes, block);
  EXPECT_EQ(block[0], 0x03020100u);
  EXPECT_EQ(block[15], 0x3f3e3d3cu);
}

TEST(HMAC, VectorsOfRFC2202) {
  std::string counting;
  for (int i = 1; i <= 25; ++i) counting += static_cast<char>(i);
  const struct {
    const char* label;
    std::string key;
    std::string text;
    const char* digest;
  } cases[] = {
      {"1", std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"2", "Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {"3", std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
      {"4", counting, std::string(50, '\xcd'), "697eaf0aca3a3aea3a75164746ffaa79"},
      {"5", std::string(16, '\x0c'), "Test With Truncation", "56461ef2342edc00f9bab995690efd4c"},
      {"6", std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {"7", std::string(80, '\xaa'),
       "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
       "6f630fad67cda0ee1fb1f562db3aa53e"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(HMAC(c.key, c.text), c.digest);
  }
}

TEST(HMAC, KeyAboveABlockCountsAsItsDigest) {
  for (size_t length : {64u, 65u}) {
    SCOPED_TRACE(length);
    std::string key(length, 'k');
    MD5Encoder encoder;
    uchar digest[16];
    encoder.Encode(Bytes(key), Length(key), digest);
    std::string short_key(reinterpret_cast<char*>(digest), 16);
    if (length == 65) {
      EXPECT_EQ(HMAC(key, "text"), HMAC(short_key, "text"));
    } else {
      EXPECT_NE(HMAC(key, "text"), HMAC(short_key, "text"));
    }
  }
}

TEST(HMAC, EmptyKeyAndText) {
  EXPECT_EQ(HMAC("", ""), "74e6f7298a9c2d168935f58c001bad88");
}

}  // namespace
