#include "base/core/hash.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "base/core/ascii.h"
#include "gtest/gtest.h"
#include "tests/support/Rounds.h"

namespace {

// lookup2 as published, with the bytes read one at a time.
uint32_t Published(const std::string& key, uint32_t seed) {
  uint32_t a = 0x9E3779B9, b = 0x9E3779B9, c = seed;
  auto mix = [&] {
    a = (a - b - c) ^ (c >> 13);
    b = (b - c - a) ^ (a << 8);
    c = (c - a - b) ^ (b >> 13);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 16);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 3);
    b = (b - c - a) ^ (a << 10);
    c = (c - a - b) ^ (b >> 15);
  };
  size_t i = 0;
  auto byte = [&](size_t at) { return static_cast<uint32_t>(static_cast<uint8_t>(key[i + at])); };
  auto word = [&](size_t at) {
    return byte(at) | byte(at + 1) << 8 | byte(at + 2) << 16 | byte(at + 3) << 24;
  };
  for (; key.size() - i >= 12; i += 12) {
    a += word(0);
    b += word(4);
    c += word(8);
    mix();
  }
  c += static_cast<uint32_t>(key.size());
  for (size_t at = 0; at < key.size() - i; ++at) {
    if (at < 4) {
      a += byte(at) << (8 * at);
    } else if (at < 8) {
      b += byte(at) << (8 * (at - 4));
    } else {
      c += byte(at) << (8 * (at - 7));
    }
  }
  mix();
  return c;
}

unsigned Hash(const std::string& key, unsigned seed = 0) {
  return hash(key.data(), static_cast<unsigned>(key.size()), seed);
}

unsigned Hashi(const std::string& key, unsigned seed = 0) {
  return hashi(key.data(), static_cast<unsigned>(key.size()), seed);
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

// Computed independently of this code. Tables in compiled files hold these numbers.
TEST(Hash, KnownValues) {
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes += static_cast<char>(i);
  const struct {
    std::string key;
    unsigned seed;
    unsigned expected;
  } cases[] = {
      {"", 0, 0xbd49d10d},
      {"a", 0, 0x29eec818},
      {"name", 0, 0x2e256a1a},
      {"name", 0x12345678, 0xa2afc1f8},
      {"hello, world", 0, 0x37a0e989},
      {"content-type", 0, 0x1eb18721},
      {"content-length", 0, 0x2d4339cc},
      {std::string("\xff\x80\x00\x01\xfe", 5), 0, 0xb4610f40},
      {all_bytes, 7, 0x80a6d6ca},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(Hash(c.key, c.seed), c.expected);
  }
}

TEST(Hash, AgreesWithThePublishedFormAtEveryLength) {
  std::mt19937 random(20261121);
  for (int length = 0; length < 100; ++length) {
    for (int i = 0; i < 50; ++i) {
      std::string key(length, 0);
      for (char& c : key) c = static_cast<char>(random());
      unsigned seed = static_cast<unsigned>(random());
      ASSERT_EQ(Hash(key, seed), Published(key, seed)) << length;
      ASSERT_EQ(Hashi(key, seed), Published(Lower(key), seed)) << length;
    }
  }
}

TEST(Hash, DoesNotDependOnAlignment) {
  std::string key = "a name of some length";
  for (int offset = 0; offset < 8; ++offset) {
    std::vector<char> buffer(offset + key.size());
    memcpy(buffer.data() + offset, key.data(), key.size());
    EXPECT_EQ(hash(buffer.data() + offset, static_cast<unsigned>(key.size()), 0), Hash(key));
  }
}

TEST(Hash, CaseMattersOnlyToTheExactForm) {
  EXPECT_NE(Hash("Content-Type"), Hash("content-type"));
  EXPECT_EQ(Hashi("Content-Type"), Hashi("cONTENT-tYPE"));
  EXPECT_EQ(Hashi("content-type"), Hash("content-type"));
  // Bytes that differ from a letter only in the case bit but are not letters.
  EXPECT_NE(Hashi("@[`{"), Hashi("`{`{"));
  EXPECT_NE(Hashi("\xc4"), Hashi("\xe4"));
}

TEST(Ascii, CaseOfEveryByte) {
  for (int i = 0; i < 256; ++i) {
    SCOPED_TRACE(i);
    auto c = static_cast<unsigned char>(i);
    bool upper = i >= 'A' && i <= 'Z';
    bool lower = i >= 'a' && i <= 'z';
    EXPECT_EQ(zp_tolower(c), upper ? i + 32 : i);
    EXPECT_EQ(zp_toupper(c), lower ? i - 32 : i);
    EXPECT_EQ(zp_isspace(c), i == ' ' || (i >= 9 && i <= 13));
  }
}

TEST(Ascii, WordsHaveTheCaseOfTheirBytes) {
  std::mt19937_64 random(20261121);
  for (int i = 0; i < Rounds(100000); ++i) {
    uint64_t word = random();
    uint64_t expected = 0;
    for (int shift = 0; shift < 64; shift += 8) {
      expected |= uint64_t{zp_tolower(static_cast<unsigned char>(word >> shift))} << shift;
    }
    ASSERT_EQ(zp_tolower_word(word), expected) << std::hex << word;
  }
}

}  // namespace
