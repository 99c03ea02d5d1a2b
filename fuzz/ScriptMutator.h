// Mutations of scripts that are to be run. A compiled file is taken apart into its instructions and
// put together again with some of them changed, so that the result can nearly always be run: jumps
// keep their targets, and operands name existing texts, variables and functions.

#ifndef ZEPH_FUZZ_SCRIPTMUTATOR_H
#define ZEPH_FUZZ_SCRIPTMUTATOR_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "base/compiled/Instructions.h"
#include "base/core/LittleEndian.h"
#include "fuzz/CompiledFileMutator.h"

class ScriptMutator {
 public:
  // The compiled files to start from and to take pieces of code from.
  explicit ScriptMutator(std::vector<std::string> seeds) : good(std::move(seeds)) {}

  // Arguments and result as for libFuzzer's custom mutator.
  size_t Mutate(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    random.seed(seed);
    std::string file(reinterpret_cast<char*>(data), size);
    Sections sections;
    if (!CompiledFileMutator::Parse(file, &sections) || !Find(&sections, "segs")) {
      if (OneIn(4)) return LLVMFuzzerMutate(data, size, max_size);
      file = good[Below(good.size())];
    } else if (OneIn(16)) {
      return CompiledFileMutator::Mutate(data, size, max_size, seed);
    } else {
      ChangeCode(&sections);
      if (OneIn(8)) ChangeTables(&sections);
      std::string stamp(16, '\0');
      stamp[0] = static_cast<char>(OneIn(4));  // whether the run is logged
      stamp[1] = static_cast<char>(Below(4));  // how many scripts are kept
      file = CompiledFileBytes::Container(sections, 0x1000B, stamp);
    }
    if (file.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    memcpy(data, file.data(), file.size());
    return file.size();
  }

 private:
  using Sections = std::vector<CompiledFileBytes::SectionBytes>;

  // One instruction. An incomplete one at the end of a segment is stored as bytes.
  struct Item {
    std::string bytes;
    const Instruction::Row* row = nullptr;
    size_t target = 0;  // of a jump: an index of items; their count means the end
    bool jumps = false;
  };
  using Code = std::vector<Item>;

  bool OneIn(unsigned n) { return random() % n == 0; }
  size_t Below(size_t n) { return n ? random() % n : 0; }

  static std::string* Find(Sections* sections, const char* tag) {
    for (auto& section : *sections) {
      if (section.tag == tag) return &section.content;
    }
    return nullptr;
  }
  static uint32_t Number(const std::string& bytes, size_t at) {
    if (bytes.size() < at + 4) return 0;
    return LittleEndian::Get32(reinterpret_cast<const unsigned char*>(bytes.data()) + at);
  }

  // --- Code --------------------------------------------------------------------------------------
  static Code Decode(const std::string& bytes) {
    Code code;
    std::vector<size_t> starts;
    for (size_t at = 0; at < bytes.size();) {
      Item item;
      size_t length = bytes.size() - at;
      if (length >= 2) {
        auto word = static_cast<unsigned short>(static_cast<unsigned char>(bytes[at]) |
                                                static_cast<unsigned char>(bytes[at + 1]) << 8);
        size_t whole = 2 + static_cast<size_t>(Instruction::FirstOperandSize(word) +
                                               Instruction::SecondOperandSize(word));
        if (whole <= length) {
          length = whole;
          item.row = Instruction::Find(word);
        }
      }
      item.bytes = bytes.substr(at, length);
      starts.push_back(at);
      code.push_back(item);
      at += length;
    }
    for (size_t i = 0; i < code.size(); i++) {
      if (!code[i].row || code[i].row->first != Instruction::Operand::Distance) continue;
      size_t to = starts[i] + code[i].bytes.size() + Number(code[i].bytes, 2);
      to &= 0xFFFFFFFF;
      auto found = std::find(starts.begin(), starts.end(), to);
      code[i].jumps = found != starts.end() || to == bytes.size();
      code[i].target = static_cast<size_t>(found - starts.begin());
    }
    return code;
  }

  static std::string Encode(const Code& code) {
    std::vector<size_t> starts;
    size_t at = 0;
    for (const Item& item : code) {
      starts.push_back(at);
      at += item.bytes.size();
    }
    starts.push_back(at);
    std::string bytes;
    for (size_t i = 0; i < code.size(); i++) {
      std::string item = code[i].bytes;
      if (code[i].jumps && item.size() >= 6) {
        size_t to = starts[std::min(code[i].target, code.size())];
        CompiledFileBytes::Patch(&item, 2, CompiledFileBytes::LE(to - starts[i] - item.size(), 4));
      }
      bytes += item;
    }
    return bytes;
  }

  // The numbers of texts, variables and so on that operands may name.
  struct Counts {
    uint32_t texts, system, globals, functions;
  };

  std::string Operand(Instruction::Operand kind, const Counts& counts) {
    static const uint32_t numbers[] = {0,  1,  2,          3,          7,         31,
                                       33, 62, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    static const double doubles[] = {0.0,   -0.0,   0.5,      1,         -1.5, 3e9,
                                     1e300, 5e-324, HUGE_VAL, -HUGE_VAL, NAN};
    uint32_t number = numbers[Below(std::size(numbers))];
    using Kind = Instruction::Operand;
    if (kind == Kind::None) return "";
    if (kind == Kind::Double) {
      double value = doubles[Below(std::size(doubles))];
      return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    }
    uint32_t count = kind == Kind::Text       ? counts.texts
                     : kind == Kind::System   ? counts.system
                     : kind == Kind::Global   ? counts.globals
                     : kind == Kind::Local    ? 4
                     : kind == Kind::Function ? counts.functions
                                              : 12;
    if (count && !OneIn(32)) number = static_cast<uint32_t>(Below(count));
    return CompiledFileBytes::LE(number, 4);
  }

  Item MakeItem(const Counts& counts, size_t items) {
    Item item;
    // Instructions for databases, networks and the like have the words 0x100 to 0x2FF; they are
    // chosen seldom.
    do {
      item.row = &Instruction::Rows[Below(static_cast<size_t>(Instruction::RowCount))];
    } while ((item.row->word & 0x0FFF) >= 0x100 && (item.row->word & 0x0FFF) < 0x300 && !OneIn(16));
    item.bytes = CompiledFileBytes::LE16(item.row->word) + Operand(item.row->first, counts) +
                 Operand(item.row->second, counts);
    item.jumps = item.row->first == Instruction::Operand::Distance;
    item.target = Below(items + 1);
    return item;
  }

  static void Insert(Code* code, size_t at, const Code& items) {
    size_t moved = items.size();
    for (Item& item : *code) {
      if (item.jumps && item.target >= at) item.target += moved;
    }
    code->insert(code->begin() + static_cast<long>(at), items.begin(), items.end());
  }
  static void Erase(Code* code, size_t at) {
    code->erase(code->begin() + static_cast<long>(at));
    for (Item& item : *code) {
      if (item.jumps && item.target > at) item.target--;
    }
  }
  Code Piece(const Code& code) {
    if (code.empty()) return {};
    size_t from = Below(code.size());
    size_t count = std::min(code.size() - from, 1 + Below(10));
    return Code(code.begin() + static_cast<long>(from),
                code.begin() + static_cast<long>(from + count));
  }

  void Change(Code* code, const Counts& counts) {
    size_t at = Below(code->size() + 1);
    bool inside = at < code->size();
    switch (random() % 8) {
      case 0:
        if (inside) Erase(code, at);
        break;
      case 1:
        if (inside) (*code)[at] = MakeItem(counts, code->size());
        break;
      case 2:
        if (inside && (*code)[at].row) {
          Item& item = (*code)[at];
          item.bytes = CompiledFileBytes::LE16(item.row->word) + Operand(item.row->first, counts) +
                       Operand(item.row->second, counts);
          item.target = Below(code->size() + 1);
        }
        break;
      case 3:
        if (inside) std::swap((*code)[at], (*code)[Below(code->size())]);
        break;
      case 4: Insert(code, at, Piece(*code)); break;
      case 5: Insert(code, at, Piece(SeedCode())); break;
      default: Insert(code, at, {MakeItem(counts, code->size())}); break;
    }
  }

  // The code of a random segment of a random seed.
  Code SeedCode() {
    Sections sections;
    CompiledFileMutator::Parse(good[Below(good.size())], &sections);
    std::vector<std::string> segments;
    const std::string* section = Find(&sections, "segs");
    if (!section || !Split(*section, &segments) || segments.empty()) return {};
    return Decode(segments[Below(segments.size())]);
  }

  // The segments of the section. The section may be damaged.
  static bool Split(const std::string& section, std::vector<std::string>* segments) {
    size_t count = Number(section, 0);
    size_t base = 8 + 8 * count;
    if (count == 0 || count > 64 || section.size() < base) return false;
    for (size_t i = 0; i < count; i++) {
      size_t offset = base + Number(section, 8 + 8 * i);
      size_t length = Number(section, 12 + 8 * i);
      if (offset > section.size()) return false;
      segments->push_back(section.substr(offset, length));
    }
    return true;
  }

  void ChangeCode(Sections* sections) {
    std::string* section = Find(sections, "segs");
    std::vector<std::string> segments;
    if (!Split(*section, &segments)) {
      *sections = {};
      CompiledFileMutator::Parse(good[Below(good.size())], sections);
      return;
    }
    auto count = [&](const char* tag, size_t at) {
      const std::string* content = Find(sections, tag);
      return content ? Number(*content, at) : 0;
    };
    Counts counts = {count("dict", 0), count("syst", 3), count("glbl", 3), count("func", 3)};
    for (size_t changes = 1 + Below(4); changes > 0; changes--) {
      std::string& bytes = segments[Below(segments.size())];
      Code code = Decode(bytes);
      Change(&code, counts);
      bytes = Encode(code);
    }
    std::string table =
        CompiledFileBytes::LE32(static_cast<long>(segments.size())) + section->substr(4, 4);
    std::string all;
    for (const std::string& bytes : segments) {
      table += CompiledFileBytes::LE32(static_cast<long>(all.size())) +
               CompiledFileBytes::LE32(static_cast<long>(bytes.size()));
      all += bytes;
    }
    *section = table + all;
  }

  // Changes one byte in another section: flags and parameters of functions, texts, names.
  void ChangeTables(Sections* sections) {
    const char* const tags[] = {"func", "func", "dict", "glbl", "syst"};
    std::string* content = Find(sections, tags[Below(std::size(tags))]);
    if (!content || content->size() < 8) return;
    size_t at = 7 + Below(content->size() - 7);
    (*content)[at] = static_cast<char>(OneIn(2) ? Below(32) : random());
  }

  std::vector<std::string> good;
  std::minstd_rand random;
};

#endif
