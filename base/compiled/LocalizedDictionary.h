// The pieces of localized texts. A text is a chain of pieces: literal text, and the names of
// parameters that the script sets just before.

#ifndef ZEPH_BASE_LOCALIZEDDICTIONARY_H
#define ZEPH_BASE_LOCALIZEDDICTIONARY_H

#include <memory>

#include "base/core/StringClass.h"

class TaggedFile;

// All pieces of a script, by index. Read with the script; belongs to one machine.
class LocalizedDictionary {
 public:
  struct Piece {
    int literal;  // not 0: the text is written as it is; 0: it is a parameter's name
    int text;     // dictionary id
    int next;     // index of the next piece, -1 at the end
  };

  LocalizedDictionary();
  // For the clone of a machine.
  LocalizedDictionary(const LocalizedDictionary& other);
  LocalizedDictionary& operator=(const LocalizedDictionary&) = delete;
  virtual ~LocalizedDictionary();

  virtual String& error();
  // A null String leaves the older text.
  virtual void Error(const String& text);

  // Adds a piece and answers its index.
  int Entry_Add(int literal, int text, int next);
  // The piece, good until the next Entry_Add; null for an index that is none. A file can chain
  // pieces into a circle: whoever follows next has to count, there are Entries() pieces at most.
  Piece* Entry(int index) {
    if (static_cast<unsigned>(index) >= static_cast<unsigned>(count)) return nullptr;
    return &pieces[index];
  }
  int Entries() const { return count; }

  // The section "locd". Both report the file's text.
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
