// The bytes of a fuzzer, taken as numbers, texts and choices.

#ifndef ZEPH_FUZZ_INPUT_H
#define ZEPH_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

// Takes bytes from the front of the input, which is borrowed. After its end all numbers are 0 and
// all texts are empty.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : next(data), left(size) {}

  // Bytes that are left.
  size_t size() const { return left; }
  unsigned Byte() {
    if (left == 0) return 0;
    left--;
    return *next++;
  }
  unsigned Word() {
    const unsigned low = Byte();
    return low | Byte() << 8;
  }
  // At most that many bytes.
  std::string Bytes(size_t count) {
    count = std::min(count, left);
    std::string bytes(reinterpret_cast<const char*>(next), count);
    next += count;
    left -= count;
    return bytes;
  }
  template <size_t count>
  const char* Pick(const char* const (&pool)[count]) {
    return pool[Byte() % count];
  }

 private:
  const uint8_t* next;
  size_t left;
};

#endif
