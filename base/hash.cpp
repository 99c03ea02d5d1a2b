// Tested in tests/base/HashTest.cpp.

#include "base/hash.h"

#include "base/ascii.h"

namespace {

struct State {
  uint32_t a;
  uint32_t b;
  uint32_t c;

  void Mix() {
    a -= b, a -= c, a ^= c >> 13;
    b -= c, b -= a, b ^= a << 8;
    c -= a, c -= b, c ^= b >> 13;
    a -= b, a -= c, a ^= c >> 12;
    b -= c, b -= a, b ^= a << 16;
    c -= a, c -= b, c ^= b >> 5;
    a -= b, a -= c, a ^= c >> 3;
    b -= c, b -= a, b ^= a << 10;
    c -= a, c -= b, c ^= b >> 15;
  }
};

struct Exact {
  static uint64_t Word(uint64_t word) { return word; }
};

struct LowerCase {
  static uint64_t Word(uint64_t word) { return zp_tolower_word(word); }
};

// The last 0 to 11 bytes as three words, padded with zeros, the third one shifted up by a byte
// since its lowest byte belongs to the length.
template <class Case>
void AddTail(State& state, const unsigned char* bytes, unsigned length) {
  unsigned char tail[16] = {};
  // A short key is the common one: a copy of constant size is one instruction, a variable one is
  // a call.
  if (length >= 8) {
    memcpy(tail, bytes, 8);
    for (unsigned i = 8; i < length; ++i) tail[i + 1] = bytes[i];
  } else {
    for (unsigned i = 0; i < length; ++i) tail[i] = bytes[i];
  }
  uint64_t low = Case::Word(zp_load64(tail));
  uint64_t high = Case::Word(zp_load64(tail + 8));
  state.a += static_cast<uint32_t>(low);
  state.b += static_cast<uint32_t>(low >> 32);
  state.c += static_cast<uint32_t>(high);
}

template <class Case>
inline unsigned Lookup2(const void* key, unsigned length, unsigned seed) {
  auto bytes = static_cast<const unsigned char*>(key);
  State state = {0x9E3779B9u, 0x9E3779B9u, seed};
  unsigned left = length;
  for (; left >= 12; left -= 12, bytes += 12) {
    uint64_t low = Case::Word(zp_load64(bytes));
    state.a += static_cast<uint32_t>(low);
    state.b += static_cast<uint32_t>(low >> 32);
    state.c += static_cast<uint32_t>(Case::Word(zp_load32(bytes + 8)));
    state.Mix();
  }
  state.c += length;
  AddTail<Case>(state, bytes, left);
  state.Mix();
  return state.c;
}

}  // namespace

unsigned hash(const void* key, unsigned length, unsigned seed) {
  return Lookup2<Exact>(key, length, seed);
}

unsigned hashi(const void* key, unsigned length, unsigned seed) {
  return Lookup2<LowerCase>(key, length, seed);
}
