// Mutations of compiled files that keep most of a file valid. Plain mutations nearly always break
// the header or the directory, so that the readers after them are never reached.

#ifndef ZEPH_FUZZ_COMPILEDFILEMUTATOR_H
#define ZEPH_FUZZ_COMPILEDFILEMUTATOR_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "base/core/LittleEndian.h"
#include "tests/support/CompiledFileBytes.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

class CompiledFileMutator {
 public:
  // Changes the file in place and returns its new size, as libFuzzer's custom mutator does.
  static size_t Mutate(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    std::minstd_rand random(seed);
    std::string file(reinterpret_cast<char*>(data), size);
    std::vector<CompiledFileBytes::SectionBytes> sections;
    if (!Parse(file, &sections)) {
      // Not a compiled file: mostly replaced by a valid one, sometimes left as it is.
      if (random() % 4 != 0) file = CompiledFileBytes::Container(CompiledFileBytes::SmallScript());
    } else if (random() % 8 == 0) {
      return LLVMFuzzerMutate(data, size, max_size);
    } else if (random() % 4 == 0) {
      ChangeNumber(&file, random);
    } else {
      ChangeSections(&sections, max_size, random);
      unsigned version = random() % 8 ? 0x1000B : 0x10001 + random() % 11;
      file = CompiledFileBytes::Container(sections, version);
    }
    if (file.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    memcpy(data, file.data(), file.size());
    return file.size();
  }

  // The sections of a file with a valid directory; returns false for any other file.
  static bool Parse(const std::string& file,
                    std::vector<CompiledFileBytes::SectionBytes>* sections) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
    if (file.size() < 32 || file.compare(0, 4, "Zeph") != 0) return false;
    size_t directory = LittleEndian::Get32(bytes + 24);
    size_t count = LittleEndian::Get32(bytes + 28);
    if (count > 64 || directory + 12 * count > file.size()) return false;
    for (size_t i = 0; i < count; i++) {
      const unsigned char* entry = bytes + directory + 12 * i;
      size_t offset = std::min<size_t>(LittleEndian::Get32(entry + 4), file.size());
      size_t length = std::min<size_t>(LittleEndian::Get32(entry + 8), file.size() - offset);
      sections->push_back(
          {std::string(reinterpret_cast<const char*>(entry), 4), file.substr(offset, length)});
    }
    return true;
  }

 private:
  // Writes a number that readers may handle wrongly, in 1, 2 or 4 bytes.
  static void ChangeNumber(std::string* bytes, std::minstd_rand& random) {
    static const uint32_t numbers[] = {
        0,          1,          2,          7,          12,         16,         17,
        31,         32,         0xFF,       0x100,      0xFFFF,     0x10000,    0x7FFFFFFF,
        0x80000000, 0xFFFFFFFF, 0xFFFFFFFE, 0x20000000, 0x40000001, 0x15555556,
    };
    size_t width = size_t{1} << (random() % 3);
    if (bytes->size() < width) return;
    uint32_t number = numbers[random() % std::size(numbers)];
    if (random() % 4 == 0) number = static_cast<uint32_t>(random() % (bytes->size() + 2));
    CompiledFileBytes::Patch(bytes, random() % (bytes->size() - width + 1),
                             CompiledFileBytes::LE(number, static_cast<int>(width)));
  }

  static void ChangeSections(std::vector<CompiledFileBytes::SectionBytes>* sections,
                             size_t max_size, std::minstd_rand& random) {
    if (sections->empty()) {
      *sections = CompiledFileBytes::SmallScript();
      return;
    }
    size_t chosen = random() % sections->size();
    std::string& content = (*sections)[chosen].content;
    switch (random() % 8) {
      case 0: sections->erase(sections->begin() + static_cast<long>(chosen)); break;
      case 1: std::swap((*sections)[chosen], (*sections)[random() % sections->size()]); break;
      case 2: content.resize(random() % (content.size() + 1)); break;
      case 3:
      case 4: {
        size_t size = content.size();
        content.resize(std::min(max_size, size + 64));
        size = LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(content.data()),
                                std::min(size, content.size()), content.size());
        content.resize(size);
        break;
      }
      default: ChangeNumber(&content, random); break;
    }
  }
};

#endif
