// Reads and writes integers and doubles as compiled files and code hold them: low byte first and
// unaligned, on any host. On a little-endian host the shifts compile to one load or store.

#ifndef ZEPH_BASE_LITTLEENDIAN_H
#define ZEPH_BASE_LITTLEENDIAN_H

#include <bit>
#include <cstdint>
#include <string>

namespace LittleEndian {

inline uint16_t Get16(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}
inline uint32_t Get32(const unsigned char* bytes) {
  return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
         static_cast<uint32_t>(bytes[3]) << 24;
}
inline int32_t GetInt32(const unsigned char* bytes) {
  return static_cast<int32_t>(Get32(bytes));
}
inline uint64_t Get64(const unsigned char* bytes) {
  return Get32(bytes) | static_cast<uint64_t>(Get32(bytes + 4)) << 32;
}
inline double GetDouble(const unsigned char* bytes) {
  return std::bit_cast<double>(Get64(bytes));
}

inline void Put16(unsigned char* bytes, uint16_t value) {
  bytes[0] = static_cast<unsigned char>(value);
  bytes[1] = static_cast<unsigned char>(value >> 8);
}
inline void Put32(unsigned char* bytes, uint32_t value) {
  Put16(bytes, static_cast<uint16_t>(value));
  Put16(bytes + 2, static_cast<uint16_t>(value >> 16));
}
inline void Put64(unsigned char* bytes, uint64_t value) {
  Put32(bytes, static_cast<uint32_t>(value));
  Put32(bytes + 4, static_cast<uint32_t>(value >> 32));
}
inline void PutDouble(unsigned char* bytes, double value) {
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
