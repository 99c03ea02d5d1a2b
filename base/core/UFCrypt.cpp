// The traditional crypt(3), DES with joined tables. Tested in tests/base/core/UFCryptTest.cpp,
// against the system's crypt(3).

#include "base/core/UFCrypt.h"

#include <cstring>
#include <initializer_list>

namespace {

// The tables of FIPS 46. Bits count from 1, the most significant first, as the standard counts.

// The 56 bits of a key: both halves of the schedule, from the 64 bits with parity.
constexpr uint8_t pc1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,  //
                             10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,  //
                             63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,  //
                             14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

// The bits by which the halves are rotated before each round.
constexpr uint8_t rots[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

// The 48 bits of a round key, from the schedule.
constexpr uint8_t pc2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10,  //
                             23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,   //
                             41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,  //
                             44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

// The expansion of a half block.
constexpr uint8_t esel[48] = {32, 1,  2,  3,  4,  5,  4,  5,  6,  7,  8,  9,   //
                              8,  9,  10, 11, 12, 13, 12, 13, 14, 15, 16, 17,  //
                              16, 17, 18, 19, 20, 21, 20, 21, 22, 23, 24, 25,  //
                              24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1};

// The permutation of the S-boxes' output.
constexpr uint8_t perm32[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                                2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

constexpr uint8_t sbox[8][4][16] = {{{14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7},
                                     {0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8},
                                     {4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0},
                                     {15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13}},
                                    {{15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10},
                                     {3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5},
                                     {0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15},
                                     {13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9}},
                                    {{10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8},
                                     {13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1},
                                     {13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7},
                                     {1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12}},
                                    {{7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15},
                                     {13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9},
                                     {10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4},
                                     {3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14}},
                                    {{2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9},
                                     {14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6},
                                     {4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14},
                                     {11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3}},
                                    {{12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11},
                                     {10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8},
                                     {9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6},
                                     {4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13}},
                                    {{4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1},
                                     {13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6},
                                     {1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2},
                                     {6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12}},
                                    {{13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7},
                                     {1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2},
                                     {7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8},
                                     {2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11}}};

// The final permutation of the 64 bits.
constexpr uint8_t final_perm[64] = {40, 8, 48, 16, 56, 24, 64, 32, 39, 7, 47, 15, 55, 23, 63, 31,
                                    38, 6, 46, 14, 54, 22, 62, 30, 37, 5, 45, 13, 53, 21, 61, 29,
                                    36, 4, 44, 12, 52, 20, 60, 28, 35, 3, 43, 11, 51, 19, 59, 27,
                                    34, 2, 42, 10, 50, 18, 58, 26, 33, 1, 41, 9,  49, 17, 57, 25};

// Bit k of a group of seven, the most significant first.
constexpr unsigned bytemask[7] = {0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};

// The word bit of each bit of a half of the expanded 48.
struct LongMask {
  uint32_t mask[24] = {};
  constexpr LongMask() {
    for (int i = 0; i < 24; i++) mask[i] = 1u << (i < 12 ? 27 - i : 23 - i);
  }
};
constexpr LongMask longmask;

constexpr uint32_t HalfMask = (1u << 28) - 1;

uint32_t Turn(uint32_t half, int by) {
  return (half << by | half >> (28 - by)) & HalfMask;
}

// The output of a box for six bits: the outer two choose the row.
unsigned BoxOutput(int box, unsigned input) {
  return sbox[box][(input >> 4 & 2) | (input & 1)][input >> 1 & 15];
}

int SaltBits(char character) {
  const int c = static_cast<unsigned char>(character);
  const int bits = c >= 'a' ? c - 59 : c >= 'A' ? c - 53 : c - 46;
  return bits < 0 || bits > 63 ? 0 : bits;
}

char ResultCharacter(int bits) {
  return static_cast<char>(bits < 12 ? bits + 46 : bits < 38 ? bits + 53 : bits + 59);
}

}  // namespace

void UFCrypt::SetBit(Expanded* bits, int number) {
  (number < 24 ? bits->high : bits->low) |= longmask.mask[number % 24];
}

int UFCrypt::Bit(const Expanded& bits, int number) {
  return ((number < 24 ? bits.high : bits.low) & longmask.mask[number % 24]) != 0;
}

UFCrypt::UFCrypt() : round_keys(), left(), right(), salt_characters(), salt_mask(0) {
  FillKeyTables();
  FillBoxTables();
}

UFCrypt::~UFCrypt() = default;

void UFCrypt::FillKeyTables() {
  memset(do_pc1, 0, sizeof do_pc1);
  for (int to = 0; to < 56; to++) {
    // Bit 8 of each key byte is parity and is never chosen.
    const int byte = (pc1[to] - 1) / 8;
    const unsigned bit = bytemask[(pc1[to] - 1) % 8];
    for (unsigned value = 0; value < 128; value++) {
      if (value & bit) do_pc1[byte][value] |= uint64_t{1} << (55 - to);
    }
  }
  memset(do_pc2, 0, sizeof do_pc2);
  for (int to = 0; to < 48; to++) {
    const int group = (pc2[to] - 1) / 7;
    const unsigned bit = bytemask[(pc2[to] - 1) % 7];
    for (unsigned value = 0; value < 128; value++) {
      if (value & bit) SetBit(&do_pc2[group][value], to);
    }
  }
}

void UFCrypt::FillBoxTables() {
  // The places of each output bit of the boxes after permutation and expansion.
  Expanded places[32] = {};
  for (int to = 0; to < 48; to++) SetBit(&places[perm32[esel[to] - 1] - 1], to);
  for (int pair = 0; pair < 4; pair++) {
    for (unsigned input = 0; input < 4096; input++) {
      const unsigned output =
          BoxOutput(2 * pair, input >> 6) << 4 | BoxOutput(2 * pair + 1, input & 63);
      Expanded sum = {0, 0};
      for (int bit = 0; bit < 8; bit++) {
        if (!(output & 0x80u >> bit)) continue;
        sum.high |= places[8 * pair + bit].high;
        sum.low |= places[8 * pair + bit].low;
      }
      boxes[pair][input] = sum;
    }
  }
}

// A salt bit exchanges one bit of the expansion with the one 24 places after it. The tables hold
// expanded values, so bits are exchanged in them where the old and the new salt differ.
void UFCrypt::UFC_Salt(char first, char second) {
  if (first == salt_characters[0] && second == salt_characters[1]) return;
  salt_characters[0] = first;
  salt_characters[1] = second;
  const int bits = SaltBits(first) | SaltBits(second) << 6;
  uint32_t mask = 0;
  for (int i = 0; i < 12; i++) {
    if (bits >> i & 1) mask |= longmask.mask[i];
  }
  const uint32_t changed = mask ^ salt_mask;
  salt_mask = mask;
  for (auto& table : boxes) {
    for (Expanded& entry : table) {
      const uint32_t exchanged = (entry.high ^ entry.low) & changed;
      entry.high ^= exchanged;
      entry.low ^= exchanged;
    }
  }
}

void UFCrypt::UFC_MakeKeyTable(const unsigned char* key) {
  uint64_t schedule = 0;
  for (int i = 0; i < 8; i++) schedule |= do_pc1[i][key[i] & 127];
  auto upper = static_cast<uint32_t>(schedule >> 28);
  auto lower = static_cast<uint32_t>(schedule) & HalfMask;
  for (int round = 0; round < 16; round++) {
    upper = Turn(upper, rots[round]);
    lower = Turn(lower, rots[round]);
    Expanded sum = {0, 0};
    for (int group = 0; group < 8; group++) {
      const uint32_t half = group < 4 ? upper : lower;
      const Expanded& part = do_pc2[group][half >> (21 - group % 4 * 7) & 127];
      sum.high |= part.high;
      sum.low |= part.low;
    }
    round_keys[round] = sum;
  }
}

// Both halves stay expanded throughout: the initial and the final permutation of one iteration and
// the next cancel, and an exclusive or of expanded halves is the expansion of theirs.
void UFCrypt::UFC_Encrypt(uint32_t left_high, uint32_t left_low, uint32_t right_high,
                          uint32_t right_low, int iterations) {
  Expanded l = {left_high, left_low};
  Expanded r = {right_high, right_low};
  while (iterations-- > 0) {
    for (const Expanded& key : round_keys) {
      const uint32_t high = r.high ^ key.high;
      const uint32_t low = r.low ^ key.low;
      const Expanded& a = boxes[0][high >> 16];
      const Expanded& b = boxes[1][high & 0xFFF];
      const Expanded& c = boxes[2][low >> 16];
      const Expanded& d = boxes[3][low & 0xFFF];
      const Expanded next = {l.high ^ a.high ^ b.high ^ c.high ^ d.high,
                             l.low ^ a.low ^ b.low ^ c.low ^ d.low};
      l = r;
      r = next;
    }
    // The last round exchanges no halves.
    const Expanded exchanged = l;
    l = r;
    r = exchanged;
  }
  left = l;
  right = r;
}

void UFCrypt::UFC_Output(const char* salt, char* result) {
  uint8_t block[64] = {};
  int bit = 0;
  for (Expanded half : {left, right}) {
    const uint32_t exchanged = (half.high ^ half.low) & salt_mask;
    half.high ^= exchanged;
    half.low ^= exchanged;
    // The inner four of each six expanded bits are the half block in order.
    for (int i = 0; i < 32; i++) {
      block[bit++] = static_cast<uint8_t>(Bit(half, i / 4 * 6 + i % 4 + 1));
    }
  }
  result[0] = salt[0];
  result[1] = salt[1];
  for (int i = 0; i < 11; i++) {
    int bits = 0;
    for (int j = 6 * i; j < 6 * i + 6; j++) {
      bits = bits << 1 | (j < 64 ? block[final_perm[j] - 1] : 0);
    }
    result[2 + i] = ResultCharacter(bits);
  }
  result[13] = 0;
}

void UFCrypt::crypt(const char* password, int length, const char* salt, char* result) {
  const char characters[2] = {salt[0], salt[0] ? salt[1] : '\0'};
  UFC_Salt(characters[0], characters[1]);
  unsigned char key[8] = {};
  const int most = length < 0 || length > 8 ? 8 : length;
  for (int i = 0; i < most && password[i]; i++) key[i] = static_cast<unsigned char>(password[i]);
  UFC_MakeKeyTable(key);
  UFC_Encrypt(0, 0, 0, 0, 25);
  UFC_Output(characters, result);
}
