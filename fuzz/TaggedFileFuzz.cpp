// The container compared with a simple model: the same reads, of any kind and in any order, give
// the same bytes, for any position of the window.

#include <climits>
#include <cstdlib>
#include <memory>

#include "base/compiled/TaggedFile.h"
#include "fuzz/CompiledFileMutator.h"
#include "fuzz/Require.h"
#include "tests/support/FaultyFile.h"

namespace {

// The directory as the bytes define it, and reads as the format defines them.
class Model {
 public:
  explicit Model(const std::string& content) : file(content) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
    if (file.size() < 32 || file.compare(0, 4, "Zeph") != 0) return;
    uint32_t version = LittleEndian::Get32(bytes + 4);
    long long offset = LittleEndian::Get32(bytes + 24);
    long long count = LittleEndian::GetInt32(bytes + 28);
    long long size = static_cast<long long>(file.size());
    if (version < 0x10001 || version > 0x1000B || count < 0 || offset > INT_MAX) return;
    if (count > 0 && offset + 12 * count > size) return;
    opens = true;
    for (long long i = 0; i < count; i++) {
      const unsigned char* entry = bytes + offset + 12 * i;
      directory.push_back({LittleEndian::GetInt32(entry), LittleEndian::GetInt32(entry + 4),
                           LittleEndian::GetInt32(entry + 8)});
    }
  }

  bool Select(int tag) {
    if (current >= 0 && directory[static_cast<size_t>(current)].tag == tag) return true;
    for (size_t i = 0; i < directory.size(); i++) {
      if (directory[i].tag != tag) continue;
      current = static_cast<int>(i);
      break;
    }
    return current >= 0;
  }
  // "-" for a failure, else "+" and the bytes.
  std::string Read(long long offset, long long length) const {
    if (current < 0) return "-";
    const Entry& entry = directory[static_cast<size_t>(current)];
    if (offset + length > entry.length) {
      if (entry.length < offset) return "-";
      length = entry.length - offset;
    }
    long long at = entry.offset + offset;
    if (at < 0 || at > INT_MAX) return "-";
    if (at >= static_cast<long long>(file.size())) return "+";
    return "+" + file.substr(static_cast<size_t>(at), static_cast<size_t>(length));
  }
  int offset() const { return directory[static_cast<size_t>(current)].offset; }

  struct Entry {
    int tag, offset, length;
  };
  const std::string& file;
  bool opens = false;
  std::vector<Entry> directory;
  int current = -1;
};

std::string Result(int count, const std::string& buffer) {
  return count < 0 ? "-" : "+" + buffer.substr(0, static_cast<size_t>(count));
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  return CompiledFileMutator::Mutate(data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FaultyFileManager manager;
  std::string& content = manager.files["s"];
  content.assign(reinterpret_cast<const char*>(data), size);
  Model model(content);
  TaggedFile file(&manager);
  Require(file.Open("s", FileMode_Read) == model.opens);
  if (!model.opens) return 0;

  unsigned state = static_cast<unsigned>(size);
  for (size_t i = 0; i < size; i++) state = state * 31 + data[i];
  std::minstd_rand random(state);
  std::unique_ptr<unsigned char[]> scratch;
  for (int round = 0; round < 30; round++) {
    int tag = model.directory.empty() || random() % 8 == 0
                  ? MakeTag("none")
                  : model.directory[random() % model.directory.size()].tag;
    long long offset = static_cast<long long>(random() % (size + 8));
    if (random() % 16 == 0) offset = INT_MAX - static_cast<int>(random() % 8);
    int length = static_cast<int>(random() % (size + 8));
    std::string buffer(static_cast<size_t>(length), '?');
    switch (random() % 6) {
      case 0: {
        bool selected = model.Select(tag);
        int count = file.Section_Read(tag, static_cast<int>(offset), buffer.data(), length);
        Require(Result(count, buffer) == (selected ? model.Read(offset, length) : "-"));
        break;
      }
      case 1: {
        bool started = model.Select(tag) && model.offset() >= 0;
        Require(file.Section_Read_Start(tag, nullptr) == started);
        for (long long at = 0; started && at <= length; at += 5) {
          std::string piece(5, '?');
          std::string expected = model.Read(at, 5);
          Require(Result(file.Section_Read(piece.data(), 5), piece) == expected);
          if (expected.size() < 6) break;
        }
        break;
      }
      case 2: {
        std::string expected = model.Read(offset, length);
        const unsigned char* bytes = file.Section_View(offset, length, &scratch);
        if (static_cast<long long>(expected.size()) == length + 1LL && length > 0)
          Require(bytes && memcmp(bytes, expected.data() + 1, static_cast<size_t>(length)) == 0);
        else
          Require(length == 0 || !bytes);
        break;
      }
      case 3:
        file.Section_Read_End();
        model.current = -1;
        break;
      case 4: file.Deactivate(); break;
      default: {
        int length_read = 0;
        bool started = model.Select(tag) && model.offset() >= 0;
        Require(file.Section_Read_Start(tag, &length_read) == started);
        if (!started) break;
        const unsigned char* bytes = file.Section_View(length, &scratch);
        std::string expected = model.Read(0, length);
        if (static_cast<long long>(expected.size()) == length + 1LL && length > 0)
          Require(bytes && memcmp(bytes, expected.data() + 1, static_cast<size_t>(length)) == 0);
        break;
      }
    }
  }
  return 0;
}
