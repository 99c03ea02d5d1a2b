// The table of texts and its section. Tested in tests/base/compiled/DictionaryTest.cpp.
#include "base/compiled/Dictionary.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/compiled/TaggedFile.h"
#include "base/core/Limits.h"
#include "base/core/LittleEndian.h"
#include "base/core/MeasuredLength.h"
#include "base/core/string_search.h"

using namespace LittleEndian;

namespace {

// The section, offsets counted from its start:
//
//   0              4          count of entries
//   4              4          bytes in the data area
//   8              4          flag word
//  12              8 * count  entries: offset in the data area (4), length (4)
//  12 + 8 * count             data area
constexpr int DictionaryTag = MakeTag("dict");
constexpr int HeadSize = 12;
constexpr int RecordSize = 8;

constexpr int BlockStep = kDictionaryBlock;
constexpr int EntryGrowth = 128;

// A block always has more room than the bytes it is made for, because run-time texts are added.
int BlockSize(long long length) {
  long long size = length / BlockStep * BlockStep + BlockStep;
  if (size > INT_MAX) throw std::bad_alloc();
  return static_cast<int>(size);
}

}  // namespace

// --- DictionaryDataBlock -------------------------------------------------------------------------

DictionaryDataBlock::DictionaryDataBlock(int size)
    : data(std::make_unique_for_overwrite<char[]>(static_cast<size_t>(size))), size(size) {}

DictionaryDataBlock::DictionaryDataBlock(const DictionaryDataBlock& other)
    : DictionaryDataBlock(other.size) {
  length = other.length;
  memcpy(data.get(), other.data.get(), static_cast<size_t>(length));
}

int DictionaryDataBlock::Add(const char* text, int text_length) {
  const int found = Search(text, text_length);
  return found >= 0 ? found : Append(text, text_length);
}

int DictionaryDataBlock::Append(const char* text, int text_length) {
  if (static_cast<long long>(length) + text_length > size) return -1;
  if (text_length > 0) memcpy(data.get() + length, text, static_cast<size_t>(text_length));
  length += text_length;
  return length - text_length;
}

int DictionaryDataBlock::Search(const char* text, int text_length) const {
  return text_length < 1 ? 0 : bm_search(text, text_length, data.get(), length);
}

// --- Dictionary ----------------------------------------------------------------------------------

Dictionary::Dictionary() : blocks(1) {}

Dictionary::Dictionary(Dictionary& other)
    : entry_count(other.entry_count),
      capacity(other.capacity),
      blocks(1),
      flag_word(other.flag_word) {
  std::vector<std::pair<DictionaryDataBlock*, DictionaryDataBlock*>> copies;
  for (auto* block = other.blocks.First(); block; block = other.blocks.Next()) {
    auto copy = std::make_unique<DictionaryDataBlock>(*block);
    copies.emplace_back(block, copy.get());
    InsertOwned(blocks, std::move(copy), ListTail);
  }
  auto copy_of = [&copies](DictionaryDataBlock* block) -> DictionaryDataBlock* {
    for (const auto& [original, copy] : copies)
      if (original == block) return copy;
    return nullptr;
  };
  current = copy_of(other.current);
  if (!other.entries) return;
  entries = std::make_unique<TextEntry[]>(static_cast<size_t>(capacity));
  for (int i = 0; i < entry_count; i++) {
    entries[i] = other.entries[i];
    // Neighbouring entries nearly always share a block, so copy_of is rarely needed.
    entries[i].block = i > 0 && other.entries[i].block == other.entries[i - 1].block
                           ? entries[i - 1].block
                           : copy_of(other.entries[i].block);
  }
}

Dictionary::~Dictionary() = default;

String& Dictionary::error() {
  return error_text;
}

void Dictionary::Error(const String& text) {
  if (text.data) error_text = text;
}

int Dictionary::Entry_Add(const char* text, int length) {
  return Enter(text, length, &DictionaryDataBlock::Add);
}

int Dictionary::Entry_Append(const char* text, int length) {
  return Enter(text, length, &DictionaryDataBlock::Append);
}

int Dictionary::Enter(const char* text, int length, BlockAdd add) {
  length = MeasuredLength(text, length);
  if (entry_count == capacity) {
    // Doubles, because a form may have a million names.
    const int more = std::max<int>(capacity, EntryGrowth);
    auto larger = std::make_unique<TextEntry[]>(static_cast<size_t>(capacity + more));
    if (entries) std::copy_n(entries.get(), entry_count, larger.get());
    entries = std::move(larger);
    capacity += more;
  }
  int offset = current ? (current->*add)(text, length) : -1;
  if (offset < 0) {
    auto block = std::make_unique<DictionaryDataBlock>(BlockSize(length));
    DictionaryDataBlock* made = block.get();
    InsertOwned(blocks, std::move(block), ListTail);
    current = made;
    offset = current->Append(text, length);
  }
  entries[entry_count] = {current, offset, length};
  return entry_count++;
}

void Dictionary::Clear() {
  entries.reset();
  entry_count = 0;
  capacity = 0;
  blocks.Dump();
  current = nullptr;
}

bool Dictionary::Read(TaggedFile* file) {
  Clear();
  if (ReadSection(file)) return true;
  Clear();
  Error(file->error());
  return false;
}

bool Dictionary::ReadSection(TaggedFile* file) {
  std::unique_ptr<unsigned char[]> scratch;
  if (!file->Section_Read_Start(DictionaryTag, nullptr)) return false;
  const unsigned char* head = file->Section_View(HeadSize, &scratch);
  if (!head) return false;
  int count = GetInt32(head);
  int data_length = GetInt32(head + 4);
  flag_word = GetInt32(head + 8);

  const unsigned char* records =
      file->Section_View(RecordSize * static_cast<long long>(count), &scratch);
  if (!records || !file->Section_Holds(data_length)) return false;
  auto block = std::make_unique<DictionaryDataBlock>(BlockSize(data_length));
  DictionaryDataBlock* made = block.get();
  made->length = data_length;
  InsertOwned(blocks, std::move(block), ListTail);
  current = made;
  entries = std::make_unique_for_overwrite<TextEntry[]>(static_cast<size_t>(count));
  TextEntry* entry = entries.get();
  entry_count = count;
  capacity = count;
  // Clamps wrong entries to the data area: they give a wrong text, never a crash.
  const int last = std::max(data_length - 1, 0);
  for (const TextEntry* const end = entry + count; entry < end; entry++, records += RecordSize) {
    int offset = GetInt32(records);
    int length = GetInt32(records + 4);
    if (offset < 0 || offset > last || length < 0 || length > data_length - offset) [[unlikely]] {
      offset = std::clamp(offset, 0, last);
      length = std::clamp(length, 0, data_length - offset);
    }
    *entry = {made, offset, length};
  }
  return file->Section_Read(current->data.get(), data_length) == data_length;
}

bool Dictionary::Write(TaggedFile* file) {
  int total = 0;
  for (auto* block = blocks.First(); block; block = blocks.Next()) {
    block->base = total;
    total += block->length;
  }
  std::string bytes;
  bytes.reserve(HeadSize + RecordSize * static_cast<size_t>(entry_count));
  Append32(&bytes, entry_count);
  Append32(&bytes, total);
  Append32(&bytes, flag_word);
  for (int i = 0; i < entry_count; i++) {
    Append32(&bytes, entries[i].block->base + entries[i].offset);
    Append32(&bytes, entries[i].length);
  }
  file->Section_Start(DictionaryTag);
  bool good = file->Section_Write(bytes);
  for (auto* block = blocks.First(); good && block; block = blocks.Next())
    good = file->Section_Write(block->data.get(), block->length) == block->length;
  if (!good) {
    Error(file->error());
    return false;
  }
  file->Section_End();
  return true;
}

void Dictionary::Compress() {
  long long in_use = 0;
  for (auto* block = blocks.First(); block; block = blocks.Next()) in_use += block->length;
  if (CompressInto(in_use)) return;
  // Texts that overlapped ("ab" and "bc" in "abc") may need more room one after the other.
  long long texts = 0;
  for (int i = 0; i < entry_count; i++) texts += entries[i].length;
  CompressInto(texts);
}

// Returns false and changes nothing if the texts do not fit into a block of that size.
bool Dictionary::CompressInto(long long size) {
  if (size > INT_MAX) throw std::bad_alloc();
  auto packed = std::make_unique<DictionaryDataBlock>(static_cast<int>(size));
  std::vector<int> offsets(static_cast<size_t>(entry_count));
  for (int i = 0; i < entry_count; i++) {
    const TextEntry& entry = entries[i];
    offsets[i] = packed->Add(entry.block->data.get() + entry.offset, entry.length);
    if (offsets[i] < 0) return false;
  }
  for (int i = 0; i < entry_count; i++) {
    entries[i].block = packed.get();
    entries[i].offset = offsets[i];
  }
  blocks.Dump();
  current = packed.get();
  InsertOwned(blocks, std::move(packed), ListTail);
  return true;
}
