// Where the texts of each language begin. A localized text is asked for by a token, found in the
// language that the script has set or else in the default language, and then followed through the
// LocalizedDictionary.

#ifndef ZEPH_BASE_LOCALIZEDLANGUAGES_H
#define ZEPH_BASE_LOCALIZEDLANGUAGES_H

#include <memory>
#include <string>

#include "base/compiled/StoredNameTable.h"
#include "base/core/StringClass.h"

class Dictionary;
class TaggedFile;
class ZephApplication;

// The tokens of one language. Names are the tokens' texts, without regard to case.
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

  // Adds a token and answers the entry's number.
  int Add_Entry(int token, int first);
  // The entry with the same text as the token, null for none. Good until the next Add_Entry.
  TokenEntry* Get_Entry(int token);
  // By position; null for what is no entry.
  TokenEntry* Index(int number);
  int hash(const char* name, int length) const;

  // The section of that tag. In files older than version 0x10008 the only index has tag 0, and is
  // read in place of one that is not there. Both report the file's text; a failed Read leaves the
  // index as it was.
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

// The languages of a script, and their indexes, each read from the file when it is first needed.
// Read with the script; belongs to one machine.
class LocalizedLanguages {
 public:
  struct LanguageEntry {
    int language;           // dictionary id of the name
    LocalizedIndex* index;  // owned by the table; null until read
  };

  // All borrowed; file may be null, then no index is read. bits is log2 of the bucket count.
  LocalizedLanguages(ZephApplication* application, Dictionary* dictionary, TaggedFile* file,
                     int bits, int capacity);
  // For the clone of a machine: the languages with the indexes that have been read, on another
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

  // The section "locl", from the file of the constructor. Write appends it, and then the indexes:
  // all, or in a file older than version 0x10008 the first alone. Both report the file's text.
  [[nodiscard]] bool Read();
  [[nodiscard]] bool Write(TaggedFile* file);

  // A language by name or by dictionary id, with its index read; null for one that is not there.
  // An index that cannot be read is an empty one. Good until a language is added.
  LanguageEntry* Get_Language_Entry(const char* name, int length);
  LanguageEntry* Get_Language_Entry(int id);
  // By position, whether or not its index has been read; null for what is no language.
  LanguageEntry* Index(int number);

  // The token in the application's current language, else in its default language, else null.
  LocalizedIndex::TokenEntry* Get_Entry(int token);
  // The token in one language, both dictionary ids. What does not exist is made, the entry with
  // first piece -1.
  LocalizedIndex::TokenEntry* Get_Entry(int language, int token);

  // For the writer. A language answers its number, a token its entry's number in its language. The
  // last form adds both texts to the dictionary; a length of -1 means strlen.
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
  // The languages last asked for, by position (-1: not there), and the application's counts then.
  int current_language = -1;
  int current_count = 0;
  int default_language = -1;
  int default_count = 0;
  String error_text;
};

#endif
