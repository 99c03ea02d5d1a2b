// Reads and writes integers and doubles low byte first, at any alignment and on any host: in
// compiled files and code, database files, hashes and digests. On a little-endian host each is one
// load or store. Tested in tests/base/core/LittleEndianTest.cpp.

#ifndef ZEPH_BASE_LITTLEENDIAN_H
#define ZEPH_BASE_LITTLEENDIAN_H

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

namespace LittleEndian {

inline uint16_t Reversed(uint16_t value) {
  return __builtin_bswap16(value);
}
inline uint32_t Reversed(uint32_t value) {
  return __builtin_bswap32(value);
}
inline uint64_t Reversed(uint64_t value) {
  return __builtin_bswap64(value);
}

// The unsigned integer of that type.
template <class Integer>
Integer Get(const void* bytes) {
  Integer value;
  memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::big) value = Reversed(value);
  return value;
}
template <class Integer>
void Put(void* bytes, Integer value) {
  if constexpr (std::endian::native == std::endian::big) value = Reversed(value);
  memcpy(bytes, &value, sizeof value);
}

inline uint16_t Get16(const void* bytes) {
  return Get<uint16_t>(bytes);
}
inline uint32_t Get32(const void* bytes) {
  return Get<uint32_t>(bytes);
}
inline int32_t GetInt32(const void* bytes) {
  return static_cast<int32_t>(Get32(bytes));
}
inline uint64_t Get64(const void* bytes) {
  return Get<uint64_t>(bytes);
}
inline double GetDouble(const void* bytes) {
  return std::bit_cast<double>(Get64(bytes));
}

inline void Put16(void* bytes, uint16_t value) {
  Put(bytes, value);
}
inline void Put32(void* bytes, uint32_t value) {
  Put(bytes, value);
}
inline void Put64(void* bytes, uint64_t value) {
  Put(bytes, value);
}
inline void PutDouble(void* bytes, double value) {
  Put64(bytes, std::bit_cast<uint64_t>(value));
}

// Append to a text that is going to be written to a file.
inline void Append16(std::string* text, uint16_t value) {
  unsigned char bytes[2];
  Put16(bytes, value);
  text->append(reinterpret_cast<char*>(bytes), sizeof bytes);
}
inline void Append32(std::string* text, int32_t value) {
  unsigned char bytes[4];
  Put32(bytes, static_cast<uint32_t>(value));
  text->append(reinterpret_cast<char*>(bytes), sizeof bytes);
}

}  // namespace LittleEndian

#endif
