// CRC-32 by a table of bytes. Tested in tests/base/core/Crc32Test.cpp.

#include "base/core/crc32.h"

#include <array>

namespace {

// The value by which each top byte changes the checksum while it is shifted out.
constexpr std::array<unsigned, 256> MakeTable() {
  std::array<unsigned, 256> table = {};
  for (unsigned byte = 0; byte < 256; ++byte) {
    unsigned crc = byte << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ (crc >> 31 ? 0x04C11DB7u : 0);
    table[byte] = crc;
  }
  return table;
}

constexpr std::array<unsigned, 256> kTable = MakeTable();

}  // namespace

unsigned crc32_init() {
  return 0xFFFFFFFFu;
}

unsigned crc32_data(unsigned crc, const void* bytes, int length) {
  auto next = static_cast<const unsigned char*>(bytes);
  for (; length > 0; --length) crc = crc << 8 ^ kTable[crc >> 24 ^ *next++];
  return crc;
}

unsigned crc32_final(unsigned crc) {
  return ~crc;
}
