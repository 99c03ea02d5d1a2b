// MD5 and HMAC-MD5. Tested in tests/base/core/MD5Test.cpp.

#include "base/core/MD5.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "base/core/LittleEndian.h"

namespace {

// The integer parts of 2^32 * |sin(i)|, i from 1, in radians.
constexpr uint32_t kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// One of the four rounds: 16 steps of the mixing function f. Step i reads word start + i * stride,
// modulo 16.
template <int round, class Function>
inline void Round(uint32_t (&s)[4], const unsigned* block, int start, int stride, Function f) {
#pragma GCC unroll 16
  for (int i = 0; i < 16; ++i) {
    uint32_t sum =
        s[0] + f(s[1], s[2], s[3]) + block[(start + i * stride) & 15] + kSines[16 * round + i];
    s[0] = s[3];
    s[3] = s[2];
    s[2] = s[1];
    s[1] += std::rotl(sum, kShifts[round][i & 3]);
  }
}

}  // namespace

void MD5Encoder::Reset() {
  a = 0x67452301;
  b = 0xefcdab89;
  c = 0x98badcfe;
  d = 0x10325476;
  count = 0;
}

void MD5Encoder::MD5_Hash(const unsigned* block) {
  uint32_t s[4] = {a, b, c, d};
  using W = uint32_t;
  Round<0>(s, block, 0, 1, [](W x, W y, W z) { return (x & y) | (~x & z); });
  Round<1>(s, block, 1, 5, [](W x, W y, W z) { return (x & z) | (y & ~z); });
  Round<2>(s, block, 5, 3, [](W x, W y, W z) { return x ^ y ^ z; });
  Round<3>(s, block, 0, 7, [](W x, W y, W z) { return y ^ (x | ~z); });
  a += s[0];
  b += s[1];
  c += s[2];
  d += s[3];
}

void MD5Encoder::Decode_Block(const uchar* bytes, unsigned* block) {
  for (int i = 0; i < 16; ++i) block[i] = LittleEndian::Get32(bytes + static_cast<size_t>(4 * i));
}

void MD5Encoder::Hash_Blocks(const uchar* bytes, unsigned length) {
  unsigned block[16];
  for (; length >= 64; bytes += 64, length -= 64) {
    Decode_Block(bytes, block);
    MD5_Hash(block);
  }
}

void MD5Encoder::Encode_Block(const uchar* bytes, unsigned length) {
  count += length;
  Hash_Blocks(bytes, length);
}

void MD5Encoder::Encode_Final(const uchar* bytes, unsigned length, uchar* digest) {
  Encode_Block(bytes, length);
  unsigned rest = length % 64;
  uchar padded[128] = {};
  if (rest > 0) memcpy(padded, bytes + (length - rest), rest);
  padded[rest] = 0x80;
  unsigned padded_length = rest < 56 ? 64 : 128;
  LittleEndian::Put32(padded + padded_length - 8, count << 3);
  LittleEndian::Put32(padded + padded_length - 4, count >> 29);
  Hash_Blocks(padded, padded_length);
  LittleEndian::Put32(digest, a);
  LittleEndian::Put32(digest + 4, b);
  LittleEndian::Put32(digest + 8, c);
  LittleEndian::Put32(digest + 12, d);
}

void MD5Encoder::Encode(const uchar* bytes, unsigned length, uchar* digest) {
  Reset();
  Encode_Final(bytes, length, digest);
}

void MD5Encoder::Make_Printable(const uchar* digest, char* text) {
  for (int i = 0; i < 16; ++i) {
    *text++ = "0123456789abcdef"[digest[i] >> 4];
    *text++ = "0123456789abcdef"[digest[i] & 15];
  }
}

void MD5Encoder::HMAC_Pass(const uchar* pad, const uchar* bytes, unsigned length, uchar* digest) {
  Reset();
  Encode_Block(pad, 64);
  Encode_Final(bytes, length, digest);
}

void MD5Encoder::HMAC(const uchar* text, unsigned text_length, const uchar* key,
                      unsigned key_length, uchar* digest) {
  uchar key_digest[16];
  if (key_length > 64) {
    Encode(key, key_length, key_digest);
    key = key_digest;
    key_length = 16;
  }
  uchar inner_pad[64];
  uchar outer_pad[64];
  for (unsigned i = 0; i < 64; ++i) {
    uchar byte = i < key_length ? key[i] : 0;
    inner_pad[i] = byte ^ 0x36;
    outer_pad[i] = byte ^ 0x5C;
  }
  uchar inner[16];
  HMAC_Pass(inner_pad, text, text_length, inner);
  HMAC_Pass(outer_pad, inner, 16, digest);
}
