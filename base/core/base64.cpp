// Base64. Tested in tests/base/core/Base64Test.cpp.

#include "base/core/base64.h"

#include <array>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Every byte outside the alphabet has the value 0.
constexpr std::array<uchar, 256> MakeValues() {
  std::array<uchar, 256> values = {};
  for (int i = 0; i < 64; ++i) values[static_cast<uchar>(kAlphabet[i])] = static_cast<uchar>(i);
  return values;
}

constexpr std::array<uchar, 256> kValues = MakeValues();

}  // namespace

int zp_base64_encode(const uchar* source, uchar* destination, int length) {
  uchar* out = destination;
  for (; length >= 3; length -= 3, source += 3) {
    unsigned group = static_cast<unsigned>(source[0]) << 16 | source[1] << 8 | source[2];
    *out++ = kAlphabet[group >> 18];
    *out++ = kAlphabet[group >> 12 & 63];
    *out++ = kAlphabet[group >> 6 & 63];
    *out++ = kAlphabet[group & 63];
  }
  if (length > 0) {
    unsigned group = static_cast<unsigned>(source[0]) << 16 | (length == 2 ? source[1] << 8 : 0);
    *out++ = kAlphabet[group >> 18];
    *out++ = kAlphabet[group >> 12 & 63];
    *out++ = length == 2 ? static_cast<uchar>(kAlphabet[group >> 6 & 63]) : '=';
    *out++ = '=';
  }
  return static_cast<int>(out - destination);
}

int zp_base64_decode(const uchar* source, uchar* destination, int length) {
  uchar* out = destination;
  for (; length >= 4; length -= 4, source += 4) {
    // Read before the first write: the destination may be the source.
    bool second = source[2] != '=';
    bool third = source[3] != '=';
    unsigned group = static_cast<unsigned>(kValues[source[0]]) << 18 | kValues[source[1]] << 12 |
                     kValues[source[2]] << 6 | kValues[source[3]];
    *out++ = static_cast<uchar>(group >> 16);
    if (second) *out++ = static_cast<uchar>(group >> 8);
    if (third) *out++ = static_cast<uchar>(group);
  }
  return static_cast<int>(out - destination);
}
