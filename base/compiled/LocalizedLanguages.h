// The places where the localized texts of each language begin. A script names a text by a token.
// The token is looked up in the language that the script has set, then in the default language, and
// gives the first piece in the LocalizedDictionary.

#ifndef ZEPH_BASE_LOCALIZEDLANGUAGES_H
#define ZEPH_BASE_LOCALIZEDLANGUAGES_H

#include <memory>
#include <string>

#include "base/compiled/StoredNameTable.h"
#include "base/core/StringClass.h"

class Dictionary;
class TaggedFile;
class ZephApplication;

// The tokens of one language, found by their texts without regard to case.
class LocalizedIndex {
 public:
  struct TokenEntry {
    int token;  // dictionary id
    int first;  // first piece in the LocalizedDictionary
  };

  // number is the language's position. The dictionary is borrowed.
  LocalizedIndex(int number, Dictionary* dictionary);
  LocalizedIndex(Dictionary* dictionary, const LocalizedIndex& other);
  LocalizedIndex(const LocalizedIndex&) = delete;
  LocalizedIndex& operator=(const LocalizedIndex&) = delete;
  virtual ~LocalizedIndex();

  virtual int Entries();
  virtual String& error();
  // A null String leaves the older text.
  virtual void Error(const String& text);

  // Adds a token and returns the entry's number.
  int Add_Entry(int token, int first);
  // The entry with the same text as the token, or null. Valid until the next Add_Entry.
  TokenEntry* Get_Entry(int token);
  // The entry at a position; null for an invalid one.
  TokenEntry* Index(int number);
  int hash(const char* name, int length) const;

  // Read and write the section of that tag. In files older than version 0x10008 the only index has
  // tag 0 and is read instead of a missing one. A failure stores the file's text; a failed Read
  // leaves the index unchanged.
  [[nodiscard]] bool Read(TaggedFile* file, int tag);
  [[nodiscard]] bool Write(TaggedFile* file, int tag);

 private:
  bool ReadSection(TaggedFile* file);
  const char* NameOf(int entry, int* length) const;

  int language_number;
  StoredNameTable table;
  std::unique_ptr<TokenEntry[]> entries;
  Dictionary* dictionary;
  String error_text;
};

// The languages of a script and their indexes. The languages are read with the script, an index
// when it is first needed. Belongs to one machine.
class LocalizedLanguages {
 public:
  struct LanguageEntry {
    int language;           // dictionary id of the name
    LocalizedIndex* index;  // owned by the table; null until read
  };

  // Borrows all three objects. file may be null; no index is read then. bits is log2 of the bucket
  // count.
  LocalizedLanguages(ZephApplication* application, Dictionary* dictionary, TaggedFile* file,
                     int bits, int capacity);
  // For the clone of a machine: copies the languages and the indexes read so far, on another
  // dictionary with the same ids. The copy has no file.
  LocalizedLanguages(ZephApplication* application, Dictionary* dictionary,
                     const LocalizedLanguages& other);
  LocalizedLanguages(const LocalizedLanguages&) = delete;
  LocalizedLanguages& operator=(const LocalizedLanguages&) = delete;
  virtual ~LocalizedLanguages();

  virtual int Entries();
  virtual String& error();
  // A null String leaves the older text.
  virtual void Error(const String& text);

  // Read reads the section "locl" from the file of the constructor. Write appends it and the
  // indexes to a file: all of them, or only the first for a version older than 0x10008. A failure
  // stores the file's text.
  [[nodiscard]] bool Read();
  [[nodiscard]] bool Write(TaggedFile* file);

  // A language by name or by dictionary id, or null. Reads its index; one that cannot be read is
  // empty. Valid until a language is added.
  LanguageEntry* Get_Language_Entry(const char* name, int length);
  LanguageEntry* Get_Language_Entry(int id);
  // The language at a position, with its index read or not; null for an invalid position.
  LanguageEntry* Index(int number);

  // The token in the application's current language, or else in its default language, or else null.
  LocalizedIndex::TokenEntry* Get_Entry(int token);
  // The token in one language; both are dictionary ids. Makes a missing language and a missing
  // entry, the latter with first piece -1.
  LocalizedIndex::TokenEntry* Get_Entry(int language, int token);

  // For the writer of a file. The first form adds a language and returns its number; the others add
  // a token and return its number in the language. The last form adds both texts to the dictionary;
  // a length of -1 means strlen.
  int Add_Entry(int language);
  int Add_Entry(int language, int token, int first);
  int Add_Entry(const char* language, int language_length, const char* token, int token_length,
                int first);
  int hash(const char* name, int length) const;

 private:
  bool ReadSection();
  int Find(const char* name, int length) const;
  const char* NameOf(int entry, int* length) const;
  int NumberOf(int language);
  void NeedIndex(int number);
  LocalizedIndex* OwnIndex(int number);
  LocalizedIndex::TokenEntry* TokenIn(int number, int token);
  int Resolve(const String& language);
  void DropIndexes();

  StoredNameTable table;
  std::unique_ptr<LanguageEntry[]> entries;
  ZephApplication* application;
  Dictionary* dictionary;
  TaggedFile* file;
  // The positions of the current and the default language as last resolved (-1: not there), and the
  // application's counters at that time.
  int current_language = -1;
  int current_count = 0;
  int default_language = -1;
  int default_count = 0;
  String error_text;
};

#endif
