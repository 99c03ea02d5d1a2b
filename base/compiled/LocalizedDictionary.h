// The pieces of localized texts. A text is a chain of pieces: literal text, and the names of
// parameters that the script sets just before it uses the text.

#ifndef ZEPH_BASE_LOCALIZEDDICTIONARY_H
#define ZEPH_BASE_LOCALIZEDDICTIONARY_H

#include <memory>

#include "base/core/StringClass.h"

class TaggedFile;

// All pieces of a script, by index. Read with the script; belongs to one machine.
class LocalizedDictionary {
 public:
  struct Piece {
    int literal;  // not 0: the text is written unchanged; 0: it is a parameter's name
    int text;     // dictionary id
    int next;     // index of the next piece, -1 at the end
  };

  LocalizedDictionary();
  // For the clone of a machine.
  LocalizedDictionary(const LocalizedDictionary& other);
  LocalizedDictionary& operator=(const LocalizedDictionary&) = delete;
  virtual ~LocalizedDictionary();

  virtual String& error();
  // A null String keeps the older text.
  virtual void Error(const String& text);

  // Adds a piece and returns its index.
  int Entry_Add(int literal, int text, int next);
  // The piece, valid until the next Entry_Add; null for an invalid index. A damaged file can chain
  // pieces into a circle, so a caller that follows next stops after Entries() pieces.
  Piece* Entry(int index) {
    if (static_cast<unsigned>(index) >= static_cast<unsigned>(count)) return nullptr;
    return &pieces[index];
  }
  int Entries() const { return count; }

  // Read and write the section "locd". A failure stores the file's text.
  [[nodiscard]] bool Read(TaggedFile* file);
  [[nodiscard]] bool Write(TaggedFile* file);

 private:
  bool ReadSection(TaggedFile* file);

  String error_text;
  std::unique_ptr<Piece[]> pieces;
  int count = 0;
  int capacity = 0;
};

#endif
