// Bob Jenkins' lookup2. Tested in tests/base/core/HashTest.cpp.

#include "base/core/hash.h"

#include "base/core/LittleEndian.h"
#include "base/core/ascii.h"

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

// The next 0 to 3 bytes, and the next 0 to 7, as a number padded with zeros. The loads overlap
// instead of collecting bytes in a buffer: a word load after byte stores would stall, and most
// names are short enough to feel it.
inline uint32_t Upto3(const unsigned char* bytes, unsigned length) {
  if (length == 0) return 0;
  unsigned middle = length / 2;
  unsigned last = length - 1;
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[middle]) << (8 * middle) |
         static_cast<uint32_t>(bytes[last]) << (8 * last);
}

inline uint64_t Upto7(const unsigned char* bytes, unsigned length) {
  if (length < 4) return Upto3(bytes, length);
  uint64_t high =
      static_cast<uint64_t>(LittleEndian::Get32(bytes + length - 4)) >> (8 * (8 - length));
  return LittleEndian::Get32(bytes) | high << 32;
}

// The last 0 to 11 bytes. The lowest byte of the third word belongs to the length.
template <class Case>
inline void AddTail(State& state, const unsigned char* bytes, unsigned length) {
  uint64_t low = Case::Word(length >= 8 ? LittleEndian::Get64(bytes) : Upto7(bytes, length));
  state.a += static_cast<uint32_t>(low);
  state.b += static_cast<uint32_t>(low >> 32);
  if (length > 8) {
    state.c += static_cast<uint32_t>(Case::Word(Upto3(bytes + 8, length - 8))) << 8;
  }
}

template <class Case>
inline unsigned Lookup2(const void* key, unsigned length, unsigned seed) {
  auto bytes = static_cast<const unsigned char*>(key);
  State state = {0x9E3779B9u, 0x9E3779B9u, seed};
  unsigned left = length;
  for (; left >= 12; left -= 12, bytes += 12) {
    uint64_t low = Case::Word(LittleEndian::Get64(bytes));
    state.a += static_cast<uint32_t>(low);
    state.b += static_cast<uint32_t>(low >> 32);
    state.c += static_cast<uint32_t>(Case::Word(LittleEndian::Get32(bytes + 8)));
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
