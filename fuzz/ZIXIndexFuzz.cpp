// Index files of any bytes: every operation ends, and fails only with one of its defined texts. A
// sound tree gives the entries that the independent checker finds, and is sound after all changes.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexOperations.h"

namespace {

void Require(bool condition, const std::string& what) {
  if (condition) return;
  fprintf(stderr, "%s\n", what.c_str());
  abort();
}

// Takes bytes from the input, and zeros after its end.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : next(data), end(data + size) {}
  bool empty() const { return next == end; }
  uint8_t Byte() { return next == end ? uint8_t{0} : *next++; }

 private:
  const uint8_t* next;
  const uint8_t* end;
};

// A file whose pages are made from few bytes each: a fuzzer that had to write whole pages would
// seldom reach a second one. Page numbers are small, so that many of them exist.
std::string Compose(Bytes input) {
  ZIXIndexShape shape;
  shape.flags = input.Byte() & 15;
  shape.order = 4 + input.Byte() % 6;
  shape.keyrecordsize = 12 + input.Byte() % 16;
  shape.pagesize = 432;
  const uint8_t root = input.Byte();
  const uint8_t more_pages = input.Byte();
  std::string pages;
  uint32_t count = 1;
  for (; !input.empty() && count < 60; count++) {
    std::vector<ZIXIndexEntry> entries;
    std::vector<uint32_t> children;
    const uint8_t form = input.Byte();
    const int n = form % 11;
    for (int i = 0; i <= n; i++) {
      // Half of the pages are leaves.
      children.push_back(form & 0x80 ? input.Byte() : 0);
      if (i == n) break;
      const uint8_t letter = input.Byte();
      std::string key(1, static_cast<char>(letter));
      if (letter < 32) key = std::to_string(letter);
      if (letter > 200) key.assign(static_cast<size_t>(shape.keyrecordsize) - 8, 'x');
      entries.emplace_back(key, input.Byte());
    }
    pages += ZIXIndexPageBytes(shape, entries, children);
  }
  std::string file = ZIXIndexHeaderBytes(shape, 0, count + more_pages % 3, root % 64, "key");
  file.resize(432);
  return file + pages;
}

}  // namespace

// The first byte says whether the rest is a whole file or the input of Compose.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  std::string file = data[0] & 1 ? std::string(reinterpret_cast<const char*>(data) + 1, size - 1)
                                 : Compose(Bytes(data + 1, size - 1));
  // Raw bytes seldom begin with a valid header, so half of them get one.
  if ((data[0] & 3) == 3 && file.size() > 27) {
    const ZIXIndexShape shape{file[25] & 15u, 4 + file[17] % 6, 432, 12 + file[21] % 16};
    file.replace(0, 27,
                 ZIXIndexHeaderBytes(shape, 0, LittleEndian::Get32(KeyBytes(file) + 9), 1, "")
                     .substr(0, 27));
  }
  TestApplication application;
  FaultyFileManager files(&application);
  application.SetFileManager(&files);
  files.files["i.zix"] = file;
  ZIXIndexFile index(&application);
  if (!index.Open(ZephPath_Data, "i.zix", 3)) return 0;
  ZIXIndexChecker checker(file);
  const bool sound = checker.Check().empty();
  if (sound) {
    std::vector<unsigned> expected;
    for (const ZIXIndexEntry& entry : checker.entries) expected.push_back(entry.second);
    Require(Forward(index) == expected, "a walk misses entries");
    Require(Backward(index) == std::vector<unsigned>(expected.rbegin(), expected.rend()),
            "a walk backward misses entries");
  }
  const std::string fault = ExerciseZIXIndex(index, "i.zix", file.size());
  Require(fault.empty(), fault);
  Require(files.held.empty(), "a lock is still held");
  if (sound) {
    // An index of numbers that also holds other texts has no order that a change could keep.
    const std::string after =
        !(checker.flags() & ZIXIndex_Text) ? "" : ZIXIndexChecker(files.files["i.zix"]).Check();
    Require(after.empty(), "a sound tree became unsound: " + after);
  }
  return 0;
}
