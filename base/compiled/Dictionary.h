// Dictionary, the names and text constants of a compiled script, addressed by number. Code and
// tables never hold a text: they hold its id in the Dictionary.

#ifndef ZEPH_BASE_DICTIONARY_H
#define ZEPH_BASE_DICTIONARY_H

#include <memory>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class TaggedFile;

// One block of text bytes, without terminators. An entry is a slice of a block, and slices may
// overlap. A block's bytes never move.
class DictionaryDataBlock {
 public:
  explicit DictionaryDataBlock(int size);
  DictionaryDataBlock(const DictionaryDataBlock& other);
  DictionaryDataBlock& operator=(const DictionaryDataBlock&) = delete;

  // The offset of the text in the block. Bytes that are already there are shared, others are
  // appended; -1 if there is no room. The empty text is at 0.
  int Add(const char* text, int text_length);
  // Appends without a search; -1 if there is no room.
  int Append(const char* text, int text_length);

  std::unique_ptr<char[]> data;
  int size;
  int length = 0;
  int base = 0;  // offset in the file's data area, while writing

 private:
  int Search(const char* text, int text_length) const;
};

// The table of texts. The application makes one for each request and reads it before all other
// sections; an expression compiled at run time adds to it. Ids are positions and never change.
// Belongs to one thread.
class Dictionary {
 public:
  Dictionary();
  // For the clone of a machine: the same ids on copies of the blocks.
  Dictionary(Dictionary& other);
  Dictionary& operator=(const Dictionary&) = delete;
  virtual ~Dictionary();

  virtual String& error();
  // A null String keeps the older text.
  virtual void Error(const String& text);

  // Adds a text and returns its id, which is always a new one, though the bytes may be shared. A
  // length of -1 means strlen.
  int Entry_Add(const char* text, int length);
  // The same without a search for the bytes. For names that come with a request: they can be many,
  // and the dictionary large.
  int Entry_Append(const char* text, int length);
  // The text of an id, not terminated, valid for the life of the dictionary; *length, if not null,
  // receives its count of bytes. Null for an invalid id; *length is then unchanged.
  const char* Entry(int id, int* length) const {
    if (static_cast<unsigned>(id) >= static_cast<unsigned>(entry_count)) return nullptr;
    const TextEntry& entry = entries[id];
    if (length) *length = entry.length;
    return entry.block->data.get() + entry.offset;
  }
  int Entries() const { return entry_count; }

  // Read and write the section "dict". Read replaces everything and leaves the section selected in
  // the file; after a failure the dictionary is empty. A failure stores the file's text.
  [[nodiscard]] bool Read(TaggedFile* file);
  [[nodiscard]] bool Write(TaggedFile* file);
  // Packs all texts into one block in which repeated bytes are shared. Texts returned before are
  // invalid afterwards.
  void Compress();

  // Bit 0 keeps the machine from logging. Other bits have no meaning and are kept by Read and
  // Write.
  int flags() const { return flag_word; }
  void SetFlags(int flags) { flag_word = flags; }

 private:
  using BlockAdd = int (DictionaryDataBlock::*)(const char* text, int length);
  int Enter(const char* text, int length, BlockAdd add);

  struct TextEntry {
    DictionaryDataBlock* block;
    int offset;
    int length;
  };

  bool ReadSection(TaggedFile* file);
  bool CompressInto(long long size);
  void Clear();

  String error_text;
  std::unique_ptr<TextEntry[]> entries;
  int entry_count = 0;
  int capacity = 0;
  List<DictionaryDataBlock> blocks;  // owns them, oldest first
  DictionaryDataBlock* current = nullptr;
  int flag_word = 0;
};

#endif
