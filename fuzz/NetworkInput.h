// Shared by the fuzzers of the network: numbers and texts taken from the front of an input, and
// texts in memory of their own.

#ifndef ZEPH_FUZZ_NETWORKINPUT_H
#define ZEPH_FUZZ_NETWORKINPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

inline void Require(bool condition) {
  if (!condition) abort();
}

// What is left of an input. Taking more than there is gives zeros and empty texts.
class NetworkInput {
 public:
  NetworkInput(const uint8_t* data, size_t size)
      : bytes(reinterpret_cast<const char*>(data), size) {}

  bool AtEnd() const { return at == bytes.size(); }
  // A number from 0 to 255.
  unsigned Byte() {
    if (AtEnd()) return 0;
    return static_cast<unsigned char>(bytes[at++]);
  }
  // The bytes before the next line feed, which is skipped, or the rest.
  std::string Line() {
    const size_t feed = std::min(bytes.find('\n', at), bytes.size());
    std::string line = bytes.substr(at, feed - at);
    at = std::min(feed + 1, bytes.size());
    return line;
  }
  std::string Rest() {
    std::string rest = bytes.substr(at);
    at = bytes.size();
    return rest;
  }

 private:
  std::string bytes;
  size_t at = 0;
};

// The positions at which bytes that come in pieces of that length are cut; 0 is one piece.
inline std::set<size_t> EvenCuts(size_t length, size_t piece) {
  std::set<size_t> cuts;
  for (size_t at = piece; piece > 0 && at < length; at += piece) cuts.insert(at);
  return cuts;
}

// A copy of the text without a NUL at its end, so that a read past it is found.
inline std::unique_ptr<char[]> WithoutEnd(const std::string& text) {
  std::unique_ptr<char[]> block(new char[text.size()]);
  text.copy(block.get(), text.size());
  return block;
}

#endif
