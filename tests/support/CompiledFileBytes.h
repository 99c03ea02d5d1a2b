// Compiled files put together byte by byte, without the engine's own writers, so that readers and
// writers are compared with the format instead of with each other.

#ifndef ZEPH_TESTS_SUPPORT_COMPILEDFILEBYTES_H
#define ZEPH_TESTS_SUPPORT_COMPILEDFILEBYTES_H

#include <strings.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/core/hash.h"

namespace CompiledFileBytes {

// Low byte first.
inline std::string LE(unsigned long long value, int size) {
  std::string bytes;
  for (int i = 0; i < size; i++) bytes.push_back(static_cast<char>(value >> (8 * i)));
  return bytes;
}
inline std::string LE16(int value) {
  return LE(static_cast<unsigned>(value), 2);
}
inline std::string LE32(long value) {
  return LE(static_cast<unsigned long>(value), 4);
}

// Replaces bytes in place.
inline void Patch(std::string* bytes, size_t offset, const std::string& with) {
  bytes->replace(offset, with.size(), with);
}

struct SectionBytes {
  std::string tag;  // four bytes
  std::string content;
};

// The container: sections from offset 32 on, the directory after them.
inline std::string Container(const std::vector<SectionBytes>& sections, unsigned version = 0x1000B,
                             const std::string& stamp = std::string(16, '\0')) {
  std::string body;
  std::string directory;
  for (const SectionBytes& section : sections) {
    directory += section.tag + LE32(static_cast<long>(32 + body.size())) +
                 LE32(static_cast<long>(section.content.size()));
    body += section.content;
  }
  return "Zeph" + LE32(version) + stamp + LE32(static_cast<long>(32 + body.size())) +
         LE32(static_cast<long>(sections.size())) + body + directory;
}

// The offset in the file of a section's content.
inline size_t OffsetOf(const std::vector<SectionBytes>& sections, std::string_view tag) {
  size_t offset = 32;
  for (const SectionBytes& section : sections) {
    if (section.tag == tag) return offset;
    offset += section.content.size();
  }
  return std::string::npos;
}

// The texts of a script, in the order of their ids.
class Texts {
 public:
  int Add(const std::string& text) {
    slices.emplace_back(data.size(), text.size());
    data += text;
    texts.push_back(text);
    return static_cast<int>(slices.size()) - 1;
  }
  const std::string& operator[](int id) const { return texts[static_cast<size_t>(id)]; }

  std::string Section(int flags = 0) const {
    std::string bytes =
        LE32(static_cast<long>(slices.size())) + LE32(static_cast<long>(data.size())) + LE32(flags);
    for (const auto& [offset, length] : slices)
      bytes += LE32(static_cast<long>(offset)) + LE32(static_cast<long>(length));
    return bytes + data;
  }

 private:
  std::vector<std::pair<size_t, size_t>> slices;
  std::vector<std::string> texts;
  std::string data;
};

// The stored hash table of some names: buckets in ascending order, and each name's link.
struct NameTable {
  std::string head;  // 7 bytes
  std::string buckets;
  std::vector<int> links;

  NameTable(const std::vector<std::string>& names, int bits) : links(names.size(), -1) {
    std::map<unsigned, std::vector<int>> chains;
    for (size_t i = 0; i < names.size(); i++) {
      unsigned bucket =
          hashi(names[i].data(), static_cast<unsigned>(names[i].size()), 0) & ((1U << bits) - 1);
      chains[bucket].push_back(static_cast<int>(i));
    }
    for (auto& [bucket, chain] : chains) {
      std::stable_sort(chain.begin(), chain.end(), [&names](int a, int b) {
        const std::string& left = names[static_cast<size_t>(a)];
        const std::string& right = names[static_cast<size_t>(b)];
        if (left.size() != right.size()) return left.size() < right.size();
        return strncasecmp(left.data(), right.data(), left.size()) < 0;
      });
      buckets += LE16(static_cast<int>(bucket)) + LE32(chain[0]);
      for (size_t i = 1; i < chain.size(); i++) links[static_cast<size_t>(chain[i - 1])] = chain[i];
    }
    head = LE16(static_cast<int>(chains.size())) + LE(static_cast<unsigned>(bits), 1) +
           LE32(static_cast<long>(names.size()));
  }
};

// A table of variables: the sections "syst" and "glbl", and the locals of a function.
inline std::string VariableTable(const Texts& texts, const std::vector<int>& ids, int bits) {
  std::vector<std::string> names;
  names.reserve(ids.size());
  for (int id : ids) names.push_back(texts[id]);
  NameTable table(names, bits);
  std::string bytes = table.head + table.buckets;
  for (size_t i = 0; i < ids.size(); i++) bytes += LE32(ids[i]) + LE32(table.links[i]);
  return bytes;
}

// A small complete script: it writes a greeting, a variable and a localized text, and has a
// function with two parameters, the second by reference, and one external function.
inline std::vector<SectionBytes> SmallScript() {
  Texts texts;
  int greeting = texts.Add("Hello, world\n");
  int count = texts.Add("count");
  int user = texts.Add("user");
  int time = texts.Add("tm_year");
  int area = texts.Add("area");
  int width = texts.Add("width");
  int height = texts.Add("height");
  int crypt = texts.Add("ext_hash");
  int german = texts.Add("de");
  int english = texts.Add("en");
  int welcome = texts.Add("welcome");
  int hallo = texts.Add("Hallo ");
  int hello = texts.Add("Hello ");
  int page = texts.Add("page.zps");

  NameTable languages({"de", "en"}, 12);
  std::string locl = languages.head + languages.buckets;
  locl += LE32(german) + LE32(languages.links[0]) + LE32(english) + LE32(languages.links[1]);

  NameTable tokens({"welcome"}, 12);
  auto index = [&tokens, welcome](int first) {
    return tokens.head + LE32(0) + tokens.buckets + LE32(welcome) + LE32(-1) + LE32(first);
  };

  std::string pieces = LE32(4);
  pieces += LE32(1) + LE32(hallo) + LE32(1);
  pieces += LE32(0) + LE32(user) + LE32(-1);
  pieces += LE32(1) + LE32(hello) + LE32(3);
  pieces += LE32(0) + LE32(user) + LE32(-1);

  std::string main = LE16(0x404A) + LE32(page) + LE16(0x4044) + LE32(1) + LE16(0x4001) +
                     LE32(greeting) + LE16(21) + LE16(0x4002) + LE32(7) + LE16(0x400D) + LE32(0) +
                     LE16(0x404E) + LE32(welcome) + LE16(67);
  std::string body = LE16(0x4006) + LE32(0) + LE16(0x4006) + LE32(1) + LE16(32) + LE16(59);
  std::string segs = LE32(2) + LE32(0) + LE32(0) + LE32(static_cast<long>(main.size())) +
                     LE32(static_cast<long>(main.size())) + LE32(static_cast<long>(body.size())) +
                     main + body;

  NameTable functions({"area", "ext_hash"}, 8);
  std::string func = functions.head + functions.buckets;
  func += LE32(functions.links[0]) + LE32(functions.links[1]);
  func += LE32(area) + LE32(2) + LE32(0) + LE32(1) + LE32(0);
  func += LE32(width) + LE32(0) + LE32(0) + LE32(height) + LE32(1) + LE32(1);
  func += VariableTable(texts, {width, height}, 8);
  func += LE32(crypt) + LE32(0) + LE32(1) + LE32(-1) + LE32(-1);
  func += VariableTable(texts, {}, 8);

  return {{"dict", texts.Section()},
          {"syst", VariableTable(texts, {time}, 12)},
          {"glbl", VariableTable(texts, {count, user}, 12)},
          {"locl", locl},
          {std::string("LX\0\0", 4), index(0)},
          {std::string("LX\1\0", 4), index(2)},
          {"locd", pieces},
          {"segs", segs},
          {"func", func}};
}

// The sections except the one with that tag.
inline std::vector<SectionBytes> Without(std::vector<SectionBytes> sections, std::string_view tag) {
  std::erase_if(sections, [tag](const SectionBytes& section) { return section.tag == tag; });
  return sections;
}

}  // namespace CompiledFileBytes

#endif
