// The pieces of localized texts and their section. Tested in
// tests/base/compiled/LocalizedDictionaryTest.cpp.
#include "base/compiled/LocalizedDictionary.h"

#include <algorithm>
#include <string>
#include <utility>

#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"

using namespace LittleEndian;

namespace {

// The section: count (4), then for each piece literal (4), text id (4), next (4).
constexpr int PiecesTag = MakeTag("locd");
constexpr int HeadSize = 4;
constexpr int PieceSize = 12;

constexpr int PieceGrowth = 128;

}  // namespace

LocalizedDictionary::LocalizedDictionary() = default;

LocalizedDictionary::LocalizedDictionary(const LocalizedDictionary& other)
    : error_text(other.error_text), count(other.count), capacity(other.capacity) {
  if (!other.pieces) return;
  pieces = std::make_unique<Piece[]>(static_cast<size_t>(capacity));
  std::copy_n(other.pieces.get(), count, pieces.get());
}

LocalizedDictionary::~LocalizedDictionary() = default;

String& LocalizedDictionary::error() {
  return error_text;
}

void LocalizedDictionary::Error(const String& text) {
  if (text.data) error_text = text;
}

int LocalizedDictionary::Entry_Add(int literal, int text, int next) {
  if (count == capacity) {
    auto larger = std::make_unique<Piece[]>(static_cast<size_t>(capacity + PieceGrowth));
    if (pieces) std::copy_n(pieces.get(), count, larger.get());
    pieces = std::move(larger);
    capacity += PieceGrowth;
  }
  pieces[count] = {literal, text, next};
  return count++;
}

bool LocalizedDictionary::Read(TaggedFile* file) {
  if (ReadSection(file)) return true;
  Error(file->error());
  return false;
}

bool LocalizedDictionary::ReadSection(TaggedFile* file) {
  std::unique_ptr<unsigned char[]> scratch;
  if (!file->Section_Read_Start(PiecesTag, nullptr)) return false;
  const unsigned char* bytes = file->Section_View(HeadSize, &scratch);
  if (!bytes) return false;
  int stated = GetInt32(bytes);
  bytes = file->Section_View(PieceSize * static_cast<long long>(stated), &scratch);
  if (!bytes) return false;
  pieces.reset();
  if (stated > 0) pieces = std::make_unique_for_overwrite<Piece[]>(static_cast<size_t>(stated));
  count = stated;
  capacity = stated;
  for (int i = 0; i < stated; i++, bytes += PieceSize)
    pieces[i] = {GetInt32(bytes), GetInt32(bytes + 4), GetInt32(bytes + 8)};
  file->Section_Read_End();
  return true;
}

bool LocalizedDictionary::Write(TaggedFile* file) {
  std::string bytes;
  Append32(&bytes, count);
  for (int i = 0; i < count; i++) {
    Append32(&bytes, pieces[i].literal);
    Append32(&bytes, pieces[i].text);
    Append32(&bytes, pieces[i].next);
  }
  file->Section_Start(PiecesTag);
  if (!file->Section_Write(bytes)) {
    Error(file->error());
    return false;
  }
  file->Section_End();
  return true;
}
