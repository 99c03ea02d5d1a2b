// Languages, their indexes and the sections of both. Tested in
// tests/base/compiled/LocalizedLanguagesTest.cpp.
#include "base/compiled/LocalizedLanguages.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/compiled/Dictionary.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"
#include "base/core/MeasuredLength.h"
#include "base/host/ZephApplication.h"

using namespace LittleEndian;

namespace {

// The languages: the name table's head (7 bytes) and buckets (6 each), then for each language its
// name id (4) and link (4).
constexpr int LanguagesTag = MakeTag("locl");
constexpr int LanguageSize = 8;
constexpr int LanguageGrowth = 8;

// An index: the name table's head (7 bytes), 4 reserved bytes, the buckets (6 each), then for each
// token its text id (4), link (4) and first piece (4).
constexpr int ReservedSize = 4;
constexpr int IndexHeadSize = StoredNameTable::Head::Size + ReservedSize;
constexpr int TokenSize = 12;
constexpr int TokenBits = 12;
constexpr int TokenCapacity = 128;
constexpr int TokenGrowth = 128;

// Older files have one index for any language, with tag 0.
constexpr unsigned FirstVersionWithIndexes = 0x10008;
constexpr int SingleIndexTag = 0;

// The tag of an index: the bytes "LX" and the language's number.
int IndexTag(int number) {
  return static_cast<int>(static_cast<unsigned>(number) << 16 | 0x584C);
}

}  // namespace

// --- LocalizedIndex ------------------------------------------------------------------------------

LocalizedIndex::LocalizedIndex(int number, Dictionary* dictionary)
    : language_number(number), table(TokenBits, TokenCapacity), dictionary(dictionary) {}

LocalizedIndex::LocalizedIndex(Dictionary* dictionary, const LocalizedIndex& other)
    : language_number(other.language_number),
      table(other.table),
      dictionary(dictionary),
      error_text(other.error_text) {
  if (!other.entries) return;
  entries = std::make_unique<TokenEntry[]>(static_cast<size_t>(table.capacity()));
  std::copy_n(other.entries.get(), table.count(), entries.get());
}

LocalizedIndex::~LocalizedIndex() = default;

int LocalizedIndex::Entries() {
  return table.count();
}

String& LocalizedIndex::error() {
  return error_text;
}

void LocalizedIndex::Error(const String& text) {
  if (text.data) error_text = text;
}

int LocalizedIndex::hash(const char* name, int length) const {
  return table.hash(name, MeasuredLength(name, length));
}

const char* LocalizedIndex::NameOf(int entry, int* length) const {
  return dictionary->Entry(entries[entry].token, length);
}

int LocalizedIndex::Add_Entry(int token, int first) {
  table.MakeRoom(TokenGrowth, &entries);
  const int count = table.count();
  entries[count] = {token, first};
  int length = 0;
  const char* name = NameOf(count, &length);
  return table.Insert(name, length, [this](int i, int* bytes) { return NameOf(i, bytes); });
}

LocalizedIndex::TokenEntry* LocalizedIndex::Get_Entry(int token) {
  int length = 0;
  const char* name = dictionary->Entry(token, &length);
  if (!name) return nullptr;
  int entry = table.Find(name, length, [this](int i, int* bytes) { return NameOf(i, bytes); });
  return Index(entry);
}

LocalizedIndex::TokenEntry* LocalizedIndex::Index(int number) {
  return number >= 0 && number < table.count() ? &entries[number] : nullptr;
}

bool LocalizedIndex::Read(TaggedFile* file, int tag) {
  bool single = tag != SingleIndexTag && file->version() < FirstVersionWithIndexes;
  bool found = file->Section_Read_Start(tag, nullptr) ||
               (single && file->Section_Read_Start(SingleIndexTag, nullptr));
  if (found && ReadSection(file)) return true;
  Error(file->error());
  return false;
}

bool LocalizedIndex::ReadSection(TaggedFile* file) {
  std::unique_ptr<unsigned char[]> scratch;
  const unsigned char* bytes = file->Section_View(IndexHeadSize, &scratch);
  if (!bytes) return false;
  auto head = StoredNameTable::Head::Decode(bytes);
  if (!head.valid()) return false;
  long long buckets_size = StoredNameTable::BucketSize * static_cast<long long>(head.occupied);
  long long tokens_size = TokenSize * static_cast<long long>(head.count);
  bytes = file->Section_View(buckets_size + tokens_size, &scratch);
  if (!bytes) return false;
  const unsigned char* record = bytes + buckets_size;
  entries = std::make_unique_for_overwrite<TokenEntry[]>(static_cast<size_t>(head.count));
  table.Read(head, bytes, record + 4, TokenSize);
  for (int i = 0; i < head.count; i++, record += TokenSize)
    entries[i] = {GetInt32(record), GetInt32(record + 8)};
  file->Section_Read_End();
  return true;
}

bool LocalizedIndex::Write(TaggedFile* file, int tag) {
  std::string bytes;
  table.Write(&bytes, ReservedSize);
  for (int i = 0; i < table.count(); i++) {
    Append32(&bytes, entries[i].token);
    Append32(&bytes, table.next(i));
    Append32(&bytes, entries[i].first);
  }
  file->Section_Start(tag);
  if (!file->Section_Write(bytes)) {
    Error(file->error());
    return false;
  }
  file->Section_End();
  return true;
}

// --- LocalizedLanguages --------------------------------------------------------------------------

LocalizedLanguages::LocalizedLanguages(ZephApplication* application, Dictionary* dictionary,
                                       TaggedFile* file, int bits, int capacity)
    : table(bits, capacity), application(application), dictionary(dictionary), file(file) {}

LocalizedLanguages::LocalizedLanguages(ZephApplication* application, Dictionary* dictionary,
                                       const LocalizedLanguages& other)
    : table(other.table),
      application(application),
      dictionary(dictionary),
      file(nullptr),
      error_text(other.error_text) {
  if (!other.entries) return;
  entries = std::make_unique<LanguageEntry[]>(static_cast<size_t>(table.capacity()));
  for (int i = 0; i < table.count(); i++) {
    const LanguageEntry& entry = other.entries[i];
    entries[i].language = entry.language;
    if (entry.index) entries[i].index = new LocalizedIndex(dictionary, *entry.index);
  }
}

LocalizedLanguages::~LocalizedLanguages() {
  DropIndexes();
}

void LocalizedLanguages::DropIndexes() {
  for (int i = 0; i < table.count(); i++) delete std::exchange(entries[i].index, nullptr);
}

int LocalizedLanguages::Entries() {
  return table.count();
}

String& LocalizedLanguages::error() {
  return error_text;
}

void LocalizedLanguages::Error(const String& text) {
  if (text.data) error_text = text;
}

int LocalizedLanguages::hash(const char* name, int length) const {
  return table.hash(name, MeasuredLength(name, length));
}

const char* LocalizedLanguages::NameOf(int entry, int* length) const {
  return dictionary->Entry(entries[entry].language, length);
}

LocalizedLanguages::LanguageEntry* LocalizedLanguages::Index(int number) {
  return number >= 0 && number < table.count() ? &entries[number] : nullptr;
}

int LocalizedLanguages::Find(const char* name, int length) const {
  return table.Find(name, length, [this](int i, int* bytes) { return NameOf(i, bytes); });
}

// Reads the index of a language, unless it has one already or there is no file.
void LocalizedLanguages::NeedIndex(int number) {
  LanguageEntry& entry = entries[number];
  if (entry.index || !file) return;
  entry.index = new LocalizedIndex(number, dictionary);
  // A language whose index is missing or broken has no texts, so the default language is used.
  static_cast<void>(entry.index->Read(file, IndexTag(number)));
  file->Deactivate();
}

LocalizedLanguages::LanguageEntry* LocalizedLanguages::Get_Language_Entry(const char* name,
                                                                          int length) {
  int number = Find(name, MeasuredLength(name, length));
  if (number < 0) return nullptr;
  NeedIndex(number);
  return &entries[number];
}

LocalizedLanguages::LanguageEntry* LocalizedLanguages::Get_Language_Entry(int id) {
  int length = 0;
  const char* name = dictionary->Entry(id, &length);
  return name ? Get_Language_Entry(name, length) : nullptr;
}

int LocalizedLanguages::Resolve(const String& language) {
  LanguageEntry* entry = Get_Language_Entry(language.data, language.length);
  return entry ? static_cast<int>(entry - entries.get()) : -1;
}

LocalizedIndex::TokenEntry* LocalizedLanguages::TokenIn(int number, int token) {
  LanguageEntry* entry = Index(number);
  return entry && entry->index ? entry->index->Get_Entry(token) : nullptr;
}

LocalizedIndex::TokenEntry* LocalizedLanguages::Get_Entry(int token) {
  if (current_count != application->languagecount()) {
    current_language = Resolve(application->language());
    current_count = application->languagecount();
  }
  LocalizedIndex::TokenEntry* found = TokenIn(current_language, token);
  if (found) return found;
  if (default_count != application->defaultlanguagecount()) {
    default_language = Resolve(application->defaultlanguage());
    default_count = application->defaultlanguagecount();
  }
  return TokenIn(default_language, token);
}

// The index of a language, made if there is none, to add to it or to write it.
LocalizedIndex* LocalizedLanguages::OwnIndex(int number) {
  NeedIndex(number);
  LanguageEntry& entry = entries[number];
  if (!entry.index) entry.index = new LocalizedIndex(number, dictionary);
  return entry.index;
}

LocalizedIndex::TokenEntry* LocalizedLanguages::Get_Entry(int language, int token) {
  LocalizedIndex* index = OwnIndex(NumberOf(language));
  LocalizedIndex::TokenEntry* found = index->Get_Entry(token);
  return found ? found : index->Index(index->Add_Entry(token, -1));
}

int LocalizedLanguages::NumberOf(int language) {
  int length = 0;
  const char* name = dictionary->Entry(language, &length);
  int number = Find(name, length);
  return number < 0 ? Add_Entry(language) : number;
}

int LocalizedLanguages::Add_Entry(int language) {
  table.MakeRoom(LanguageGrowth, &entries);
  const int count = table.count();
  entries[count] = {language, nullptr};
  int length = 0;
  const char* name = NameOf(count, &length);
  return table.Insert(name, length, [this](int i, int* bytes) { return NameOf(i, bytes); });
}

int LocalizedLanguages::Add_Entry(int language, int token, int first) {
  return OwnIndex(NumberOf(language))->Add_Entry(token, first);
}

int LocalizedLanguages::Add_Entry(const char* language, int language_length, const char* token,
                                  int token_length, int first) {
  int number = Find(language, MeasuredLength(language, language_length));
  if (number < 0) number = Add_Entry(dictionary->Entry_Add(language, language_length));
  return OwnIndex(number)->Add_Entry(dictionary->Entry_Add(token, token_length), first);
}

bool LocalizedLanguages::Read() {
  if (file && ReadSection()) return true;
  if (file) Error(file->error());
  return false;
}

bool LocalizedLanguages::ReadSection() {
  std::unique_ptr<unsigned char[]> scratch;
  if (!file->Section_Read_Start(LanguagesTag, nullptr)) return false;
  const unsigned char* bytes = file->Section_View(StoredNameTable::Head::Size, &scratch);
  if (!bytes) return false;
  auto head = StoredNameTable::Head::Decode(bytes);
  if (!head.valid()) return false;
  long long buckets_size = StoredNameTable::BucketSize * static_cast<long long>(head.occupied);
  long long languages_size = LanguageSize * static_cast<long long>(head.count);
  bytes = file->Section_View(buckets_size + languages_size, &scratch);
  if (!bytes) return false;
  DropIndexes();
  const unsigned char* record = bytes + buckets_size;
  entries.reset();
  if (head.count > 0) {
    entries = std::make_unique<LanguageEntry[]>(static_cast<size_t>(head.count));
  }
  table.Read(head, bytes, record + 4, LanguageSize);
  for (int i = 0; i < head.count; i++, record += LanguageSize)
    entries[i] = {GetInt32(record), nullptr};
  current_language = default_language = -1;
  current_count = default_count = 0;
  file->Section_Read_End();
  return true;
}

bool LocalizedLanguages::Write(TaggedFile* file) {
  std::string bytes;
  table.Write(&bytes, 0);
  for (int i = 0; i < table.count(); i++) {
    Append32(&bytes, entries[i].language);
    Append32(&bytes, table.next(i));
  }
  file->Section_Start(LanguagesTag);
  if (!file->Section_Write(bytes)) {
    Error(file->error());
    return false;
  }
  file->Section_End();
  bool single = file->version() < FirstVersionWithIndexes;
  int count = single ? std::min(table.count(), 1) : table.count();
  for (int i = 0; i < count; i++) {
    LocalizedIndex* index = OwnIndex(i);
    if (!index->Write(file, single ? SingleIndexTag : IndexTag(i))) {
      Error(index->error());
      return false;
    }
  }
  return true;
}
