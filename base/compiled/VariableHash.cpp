// Tables of variables, in this order: construction, names and entries, variables, paths, files,
// scopes; then ReferenceVariableHash, the forwarding that it shares with ClonedVariableHash,
// SystemVariableHash, ClonedVariableHash and UserVariableHash. Tested in
// tests/base/compiled/VariableHashTest.cpp and VariableTablesTest.cpp.

#include "base/compiled/VariableHash.h"

#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "base/compiled/Dictionary.h"
#include "base/compiled/StoredNameTable.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"
#include "base/core/RunLimit.h"
#include "base/core/ascii.h"
#include "base/values/Aggregate.h"
#include "base/values/SharedName.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

namespace {

// The body of a stored table:
//
//   0             7             head of the name table: occupied buckets (2), bits (1), entries (4)
//   7             6 * occupied  buckets: number (2), first entry (4)
//   then          8 * entries   per entry: name id (4), link (4)
constexpr int EntrySize = 8;
constexpr int Growth = 512;

constexpr char IndexError[] = "Array index must be positive integer";

int NameLength(const char* name, int length) {
  if (!name) return 0;
  if (length != -1) return length < 0 ? 0 : length;
  const size_t measured = strlen(name);
  return measured > INT_MAX ? INT_MAX : static_cast<int>(measured);
}

}  // namespace

struct VariableHash::SharedIndex {
  SharedIndex(int bits, int capacity) : names(bits, capacity) {}
  explicit SharedIndex(const StoredNameTable& source) : names(source) {}

  ~SharedIndex() {
    for (int i = 0; i < names_shared; i++) {
      if (shared_names[i]) shared_names[i]->Release();
    }
  }
  SharedIndex(const SharedIndex&) = delete;
  SharedIndex& operator=(const SharedIndex&) = delete;

  int holders = 1;
  StoredNameTable names;
  // One for each entry, made when first needed, for the variables of twins.
  std::unique_ptr<SharedName*[]> shared_names;
  int names_shared = 0;
};

// --- Construction --------------------------------------------------------------------------------

VariableHash::VariableHash(Dictionary* names, int hash_bits, int entry_capacity)
    : bits(hash_bits < 0                          ? 0
           : hash_bits > StoredNameTable::MaxBits ? StoredNameTable::MaxBits
                                                  : hash_bits),
      bucket_count(1 << bits),
      capacity(entry_capacity < 1 ? 1 : entry_capacity),
      dictionary(names) {}

// A call makes its locals this way: no name is hashed, and usually nothing is allocated.
VariableHash::VariableHash(VariableHash& source)
    : bits(source.bits),
      bucket_count(source.bucket_count),
      capacity(source.capacity),
      dictionary(source.dictionary) {
  if (source.entry_count == 0) return;
  CopyNames(source);
  index = source.index;
  ++index->holders;
}

// Another dictionary means another task, which may be on another thread, so nothing is shared.
VariableHash::VariableHash(Dictionary* names, VariableHash& source)
    : bits(source.bits),
      bucket_count(source.bucket_count),
      capacity(source.capacity),
      dictionary(names) {
  if (source.entry_count == 0) return;
  CopyNames(source);
  index = new SharedIndex(source.index->names);
}

void VariableHash::CopyNames(const VariableHash& source) {
  TakeEntries(source.entry_count);
  entry_count = source.entry_count;
  for (int i = 0; i < entry_count; i++) {
    entries[i] = {source.entries[i].name_index, 0, nullptr};
  }
}

VariableHash::VariableHash(ZephApplication* application, Dictionary* names, VariableHash& source)
    : VariableHash(names, source) {
  CloneVariables(application, source);
}

// After the time limit the other variables are left out; the task is not started then.
void VariableHash::CloneVariables(ZephApplication* application, VariableHash& source) {
  RunWatch watch(256);
  for (int i = 0; i < entry_count && !watch.Over(); i++) {
    if (Variable* variable = Present(source.entries[i])) {
      entries[i].variable = variable->Clone(application);
    }
  }
}

Dictionary* VariableHash::DictionaryCopy(const VariableHash& other) {
  return new Dictionary(*other.dictionary);
}

VariableHash::~VariableHash() {
  ReleaseEntries();
  ReleaseIndex();
}

// Drops variables that cannot be renewed; they are made again when they are accessed.
void VariableHash::RenewVariables() {
  for (int i = 0; i < entry_count; i++) {
    Variable* variable = entries[i].variable;
    if (!variable || variable->Renew()) continue;
    entries[i].variable = nullptr;
    entries[i].version = 0;
    variable->Release();
  }
}

void VariableHash::ReleaseEntries() {
  const ReleaseGroup group;
  for (int i = 0; i < entry_count; i++) {
    if (entries[i].variable) entries[i].variable->Release();
  }
  FreeEntries(entries, allocated_entries);
  entries = nullptr;
  allocated_entries = entry_count = 0;
}

namespace {
// Row arrays of up to this size come from a free list of the thread, because many calls need one.
constexpr int SomeRows = 32;
using SomeRowsList = FreeList<SomeRows * sizeof(_VH_Entry)>;
}  // namespace

void VariableHash::TakeMoreEntries(int count) {
  if (count <= SomeRows) {
    entries = static_cast<_VH_Entry*>(SomeRowsList::Allocate());
    allocated_entries = SomeRows;
  } else {
    entries =
        static_cast<_VH_Entry*>(::operator new(sizeof(_VH_Entry) * static_cast<size_t>(count)));
    allocated_entries = count;
  }
}

void VariableHash::FreeEntries(_VH_Entry* rows, int allocated) {
  if (!rows || rows == few_rows) return;
  if (allocated == SomeRows) {
    SomeRowsList::Free(rows);
  } else {
    ::operator delete(rows);
  }
}

void VariableHash::ReleaseIndex() {
  if (index && --index->holders == 0) delete index;
  index = nullptr;
}

void VariableHash::Dump() {
  // Dump is not virtual, so late system variables are dropped here, with the others.
  if (auto* system = dynamic_cast<SystemVariableHash*>(this)) system->ForgetLateVariables();
  const ReleaseGroup group;
  for (int i = 0; i < entry_count; i++) {
    Variable* variable = entries[i].variable;
    entries[i].variable = nullptr;
    if (variable) variable->DecRefCount();
  }
}

// --- Names and entries ---------------------------------------------------------------------------

const char* VariableHash::EntryName(int entry, int* length) {
  *length = 0;
  const char* name = dictionary->Entry(entries[entry].name_index, length);
  return name ? name : "";
}

unsigned VariableHash::hash(const char* name, int length) const {
  return hashi(name, static_cast<unsigned>(NameLength(name, length)), 0) &
         static_cast<unsigned>(bucket_count - 1);
}

int VariableHash::Locate(const char* name, int length) {
  if (!index) return -1;
  return index->names.Find(name, length,
                           [this](int entry, int* size) { return EntryName(entry, size); });
}

int VariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (!name) {
    length = 0;
    name = dictionary->Entry(name_index, &length);
    if (!name) return -1;
  }
  const int found = Locate(name, NameLength(name, length));
  if (found < 0 || !entry) return found;
  *entry = &entries[found];
  // The caller sees the row itself, so a variable that is asleep must not be in it.
  if ((*entry)->variable && (*entry)->variable->IsAsleep()) {
    (*entry)->variable->Release();
    (*entry)->variable = nullptr;
  }
  return found;
}

// The memory first grows to the capacity, which is not allocated at the start because most tables
// use a fraction of it. Beyond that it doubles, because a form may have a million names.
void VariableHash::MakeRoom() {
  const int grown = entry_count == capacity ? capacity + Growth : capacity;
  if (entry_count == allocated_entries) {
    int larger = allocated_entries < 32 ? 64 : allocated_entries * 2;
    if (larger > grown && allocated_entries < grown - Growth) larger = grown;
    _VH_Entry* old = entries;
    const int old_allocated = allocated_entries;
    TakeEntries(larger);
    if (entry_count > 0) memcpy(entries, old, sizeof(_VH_Entry) * static_cast<size_t>(entry_count));
    FreeEntries(old, old_allocated);
  }
  // Where there is no memory, the table stays as it was.
  capacity = grown;
}

void VariableHash::OwnIndex() {
  if (!index) {
    index = new SharedIndex(bits, capacity);
  } else if (index->holders > 1) {
    auto* own = new SharedIndex(index->names);
    --index->holders;
    index = own;
  }
}

int VariableHash::Insert(int name_index, const char* name, int length, Variable* variable) {
  VariableRef adopted(variable);
  if (!name) {
    length = 0;
    name = dictionary->Entry(name_index, &length);
    if (!name) name = "";
  } else {
    length = NameLength(name, length);
    if (name_index == -1) name_index = dictionary->Entry_Append(name, length);
  }
  MakeRoom();
  OwnIndex();
  index->names.MakeRoom(Growth);
  entries[entry_count] = {name_index, Version(), variable};
  const int made = index->names.Insert(
      name, length, [this](int entry, int* size) { return EntryName(entry, size); });
  entry_count++;
  (void)adopted.release();
  return made;
}

int VariableHash::Insert(Variable* variable) {
  const String& name = variable->name();
  return Insert(-1, name.data ? name.data : "", name.length, variable);
}

int VariableHash::Insert(const char* name, int length) {
  return Insert(-1, name ? name : "", NameLength(name, length), nullptr);
}

int VariableHash::Insert(int name_index) {
  return Insert(name_index, nullptr, -1, nullptr);
}

int VariableHash::Version() {
  return 0;
}
int VariableHash::Entries() {
  return entry_count;
}
VariableHash* VariableHash::RealIdentity() {
  return this;
}
void VariableHash::Push() {}
int VariableHash::Pop() {
  return 0;
}
String& VariableHash::error() {
  return error_;
}
void VariableHash::Error(const String& text) {
  if (text.data) error_ = text;
}

// --- Variables -----------------------------------------------------------------------------------

SharedName* VariableHash::NameForTwins(int position) {
  if (index->holders < 2) return nullptr;
  if (position >= index->names_shared) {
    const int count = index->names.count();
    auto names = std::make_unique<SharedName*[]>(static_cast<size_t>(count));
    for (int i = 0; i < index->names_shared; i++) names[i] = index->shared_names[i];
    index->shared_names = std::move(names);
    index->names_shared = count;
  }
  SharedName*& name = index->shared_names[position];
  if (!name) {
    int length = 0;
    const char* text = EntryName(position, &length);
    name = SharedName::Make(text, length);
  }
  return name;
}

Variable* VariableHash::MakeVariable(_VH_Entry* entry) {
  if (entry->variable) {
    entry->variable->Wake();
    return entry->variable;
  }
  const auto position = static_cast<int>(entry - entries);
  SharedName* shared = position < index->names_shared ? index->shared_names[position] : nullptr;
  if (shared || (shared = NameForTwins(position))) {
    entry->variable = new Variable(shared);
  } else {
    int length = 0;
    const char* name = dictionary->Entry(entry->name_index, &length);
    entry->variable = new Variable(name, length);
  }
  entry->version = Version();
  return entry->variable;
}

bool VariableHash::Find(Variable** out, const char* name, int length, int create) {
  const int found = Locate(name, NameLength(name, length));
  if (found < 0) return false;
  *out = VariableHash::Index(found, create);
  return true;
}

Variable* VariableHash::Index(int position, int create) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return nullptr;
  Variable* const variable = Present(entries[position]);
  return variable || !create ? variable : MakeVariable(&entries[position]);
}

void VariableHash::SetVariable(const char* name, int length, const char* value, int valuelength) {
  length = NameLength(name, length);
  Variable* variable = nullptr;
  if (!Find(&variable, name, length, 1) || !variable) {
    variable = new Variable(name, length);
    Insert(variable);
  }
  variable->SetValue(value, valuelength);
}

void VariableHash::SetVariable(Variable* variable) {
  const String& name = variable->name();
  const int found = Locate(name.data, name.length);
  if (found < 0) {
    Insert(-1, name.data ? name.data : "", name.length, variable);
    return;
  }
  Variable* old = entries[found].variable;
  entries[found].variable = variable;
  entries[found].version = Version();
  if (old) old->DecRefCount();
}

void VariableHash::SetVariable_Reference(int position, Variable* variable) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return;
  Variable* old = entries[position].variable;
  if (!variable || old == variable) return;
  if (SharedName* shared = NameForTwins(position)) {
    entries[position].variable = new ReferenceVariable(shared, variable);
  } else {
    int length;
    const char* name = EntryName(position, &length);
    entries[position].variable = new ReferenceVariable(name, length, variable);
  }
  entries[position].version = Version();
  if (old) old->DecRefCount();
}

int VariableHash::ClearVariable(const char* name, int length) {
  const int found = Locate(name, NameLength(name, length));
  Variable* variable = found < 0 ? nullptr : Present(entries[found]);
  if (!variable) return 0;
  variable->SetNULL();
  return 1;
}

void VariableHash::AllocatedVars(VariableList* list) {
  for (int i = 0; i < entry_count; i++) {
    if (Variable* variable = Present(entries[i])) list->Insert(variable, ListTail);
  }
}

// --- Paths ---------------------------------------------------------------------------------------

namespace {

int NameEnd(const char* path, int start, int length) {
  int end = start;
  while (end < length && path[end] != ':' && path[end] != '[') end++;
  return end;
}

// The number of an index, as strtol reads it: leading white space, then digits up to the first
// other byte; the largest long if it is out of range. Truncated to 32 bits.
int IndexNumber(const char* text, int length) {
  int i = 0;
  while (i < length && zp_isspace(static_cast<unsigned char>(text[i]))) i++;
  long number = 0;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; i++) {
    if (__builtin_mul_overflow(number, 10L, &number) ||
        __builtin_add_overflow(number, static_cast<long>(text[i] - '0'), &number)) {
      return static_cast<int>(LONG_MAX);
    }
  }
  return static_cast<int>(number);
}

// One ":member" or "[number]" of a path. Reads it at *position, moves *position past it, and sets
// *variable to the element; false if it is not an index.
bool WalkStep(const char* path, int length, int create, int* position, Variable** variable) {
  const int start = *position + 1;
  if (path[*position] == ':') {
    const int end = NameEnd(path, start, length);
    *position = end;
    *variable = (*variable)->Element(AggregateIndex(path + start, end - start), create);
    return true;
  }
  if (path[*position] != '[') return false;
  int end = start;
  while (end < length && path[end] != ']') {
    const auto c = static_cast<unsigned char>(path[end]);
    if (!zp_isspace(c) && (c < '0' || c > '9')) return false;
    end++;
  }
  if (end == length) return false;
  *position = end + 1;
  *variable = (*variable)->Element(AggregateIndex(IndexNumber(path + start, end - start)), create);
  return true;
}

}  // namespace

int VariableHash::LookupVariable_Fancy(Variable** out, const char* path, int length, int create) {
  *out = nullptr;
  length = NameLength(path, length);
  if (!path) path = "";
  int position = NameEnd(path, 0, length);
  Variable* variable = nullptr;
  const bool known = Find(&variable, path, position, create);
  if (!variable && create) {
    if (known) return 1;
    variable = new Variable(path, position);
    Insert(variable);
  }
  while (variable && position < length) {
    if (!WalkStep(path, length, create, &position, &variable)) {
      Error(IndexError);
      return 0;
    }
  }
  *out = variable;
  return 1;
}

int VariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                    int valuelength, int accumulate) {
  Variable* variable = nullptr;
  if (!LookupVariable_Fancy(&variable, path, length, 1) || !variable) return 0;
  const bool array = variable->aggregatetype() == AggregateArray;
  if (!accumulate || (variable->IsNULL() && !array)) {
    variable->SetValue(value, valuelength);
  } else if (variable->aggregatetype() != AggregateNone) {
    const AggregateIndex next(WrapAdd(variable->ElementsUsed(), 1));
    if (Variable* element = variable->Element(next, 1)) element->SetValue(value, valuelength);
  } else {
    const VariableRef first(new Variable(*variable));
    Variable* element = variable->Element(AggregateIndex(1), 1);
    if (element) element->SetValue(*first);
    element = variable->Element(AggregateIndex(2), 1);
    if (element) element->SetValue(value, valuelength);
  }
  return 0;
}

// --- Files ---------------------------------------------------------------------------------------

bool VariableHash::Fail(TaggedFile* file) {
  Error(file->error());
  return false;
}

bool VariableHash::Read(TaggedFile* file, int tag) {
  if (!file->Section_Read_Start(tag, nullptr)) return Fail(file);
  if (!Read(file)) return false;
  file->Section_Read_End();
  return true;
}

bool VariableHash::Write(TaggedFile* file, int tag) {
  file->Section_Start(tag);
  if (!Write(file)) return false;
  file->Section_End();
  return true;
}

bool VariableHash::Read(TaggedFile* file) {
  ReleaseEntries();
  ReleaseIndex();
  std::unique_ptr<unsigned char[]> scratch;
  const unsigned char* bytes = file->Section_View(StoredNameTable::Head::Size, &scratch);
  if (!bytes) return Fail(file);
  const auto head = StoredNameTable::Head::Decode(bytes);
  if (!head.valid()) return Fail(file);
  const long long links = 1LL * head.occupied * StoredNameTable::BucketSize;
  bytes = file->Section_View(links + 1LL * head.count * EntrySize, &scratch);
  if (!bytes) return Fail(file);

  bits = head.bits;
  bucket_count = 1 << bits;
  capacity = head.count;
  if (head.count == 0) return true;
  auto made = std::make_unique<SharedIndex>(bits, capacity);
  made->names.Read(head, bytes, bytes + links + 4, EntrySize);
  TakeEntries(head.count);
  entry_count = head.count;
  bytes += links;
  for (int i = 0; i < entry_count; i++, bytes += EntrySize) {
    entries[i] = {LittleEndian::GetInt32(bytes), 0, nullptr};
  }
  index = made.release();
  return true;
}

bool VariableHash::Write(TaggedFile* file) {
  std::string body;
  if (index) {
    index->names.Write(&body, 0);
  } else {
    SharedIndex(bits, capacity).names.Write(&body, 0);
  }
  for (int i = 0; i < entry_count; i++) {
    unsigned char record[EntrySize];
    LittleEndian::Put32(record, static_cast<uint32_t>(entries[i].name_index));
    LittleEndian::Put32(record + 4, static_cast<uint32_t>(index->names.next(i)));
    body.append(reinterpret_cast<const char*>(record), EntrySize);
  }
  const int length = static_cast<int>(body.size());
  if (file->Section_Write(body.data(), length) != length) return Fail(file);
  return true;
}

// --- Scope ---------------------------------------------------------------------------------------

namespace {

// Whether the name has the word (given in upper case) at that position.
bool HasWord(const char* name, int length, int position, const char* word) {
  for (; *word; word++, position++) {
    if (position >= length) return false;
    if (zp_toupper(static_cast<unsigned char>(name[position])) !=
        static_cast<unsigned char>(*word)) {
      return false;
    }
  }
  return true;
}

struct ScopedName {
  int scope = ScopeNone;
  int prefix = 0;    // bytes of the prefix
  int database = 0;  // bytes at the start that name a database
};

ScopedName ShortScope(const char* name, int length) {
  const unsigned char letter = zp_toupper(static_cast<unsigned char>(name[0]));
  if (letter == 'L') return {ScopeLocal, 2, 0};
  if (letter == 'G') return {ScopeGlobal, 2, 0};
  if (letter == 'S') return {ScopeSystem, 2, 0};
  if (letter >= 'A' && letter <= 'Z') {
    if (length >= 5 && HasWord(name, length, 1, ".D.")) return {ScopeDatabase, 4, 1};
    if (length >= 12 && HasWord(name, length, 1, ".DATABASE.")) return {ScopeDatabase, 11, 1};
  }
  if (letter == 'D') return {ScopeDatabase, 2, 0};
  return {};
}

ScopedName LongScope(const char* name, int length) {
  const auto* found = static_cast<const char*>(memchr(name, '.', static_cast<size_t>(length)));
  if (!found) return {};
  if (HasWord(name, length, 0, "LOCAL.")) return {ScopeLocal, 6, 0};
  if (HasWord(name, length, 0, "GLOBAL.")) return {ScopeGlobal, 7, 0};
  if (HasWord(name, length, 0, "SYSTEM.")) return {ScopeSystem, 7, 0};
  const int dot = static_cast<int>(found - name);
  if (HasWord(name, length, dot, ".D.")) return {ScopeDatabase, dot + 3, dot};
  if (HasWord(name, length, dot, ".DATABASE.")) return {ScopeDatabase, dot + 10, dot};
  if (HasWord(name, length, 0, "DATABASE.")) return {ScopeDatabase, 9, 0};
  return {};
}

}  // namespace

int VariableHash::Scope(const char* name, int length, const char** rest, int* restlength,
                        const char** database, int* databaselength) {
  length = NameLength(name, length);
  if (!name) name = "";
  ScopedName scoped;
  if (length >= 2 && name[1] == '.') {
    scoped = ShortScope(name, length);
  } else if (length > 0) {
    scoped = LongScope(name, length);
  }
  *rest = name + scoped.prefix;
  *restlength = length - scoped.prefix;
  *database = name;
  *databaselength = scoped.database;
  return scoped.scope;
}

// --- ReferenceVariableHash -----------------------------------------------------------------------

ReferenceVariableHash::ReferenceVariableHash(Dictionary* names, int hash_bits, int entry_capacity,
                                             VariableHash* running)
    : VariableHash(names, hash_bits, entry_capacity), target(running->RealIdentity()) {}

void ReferenceVariableHash::SetVariable(const char* name, int length, const char* value,
                                        int valuelength) {
  target->SetVariable(name, length, value, valuelength);
}

void ReferenceVariableHash::SetVariable(Variable* variable) {
  target->SetVariable(variable);
}

int ReferenceVariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                             int valuelength, int accumulate) {
  return target->SetVariable_Fancy(path, length, value, valuelength, accumulate);
}

// The two dictionaries have different ids, so the name is passed as text.
int ReferenceVariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (!name && !(name = dictionary->Entry(name_index, &length))) return -1;
  return target->Seek(-1, name, length, entry);
}

int ReferenceVariableHash::Insert(int name_index, const char* name, int length,
                                  Variable* variable) {
  if (!name) {
    length = 0;
    name = dictionary->Entry(name_index, &length);
  }
  return target->Insert(-1, name ? name : "", length, variable);
}

int ReferenceVariableHash::Version() {
  return target->Version();
}
int ReferenceVariableHash::Entries() {
  return target->Entries();
}
void ReferenceVariableHash::AllocatedVars(VariableList* list) {
  target->AllocatedVars(list);
}
void ReferenceVariableHash::Push() {
  target->Push();
}
int ReferenceVariableHash::Pop() {
  return target->Pop();
}
VariableHash* ReferenceVariableHash::RealIdentity() {
  return target;
}

int ReferenceVariableHash::ClearVariable(const char* name, int length) {
  return target->ClearVariable(name, length);
}

bool ReferenceVariableHash::Read(TaggedFile* file) {
  if (!VariableHash::Read(file)) return false;
  ForgetTarget();
  return true;
}

bool ReferenceVariableHash::Find(Variable** out, const char* name, int length, int create) {
  return FindThrough(target, out, name, length, create);
}

Variable* ReferenceVariableHash::Index(int position, int create) {
  return IndexThrough(target, position, create);
}

void ReferenceVariableHash::SetVariable_Reference(int position, Variable* variable) {
  ReferThrough(target, position, variable);
}

int ReferenceVariableHash::LookupVariable_Fancy(Variable** out, const char* path, int length,
                                                int create) {
  return LookupThrough(target, out, path, length, create);
}

// --- Forwarding, for tables whose variables are in another one -----------------------------------

void VariableHash::ForgetTarget() {
  for (int i = 0; i < entry_count; i++) entries[i].version = -1;
}

// The position of an entry in the other table. Kept once it is known; until then each call looks it
// up.
int VariableHash::Resolve(VariableHash* other, int position) {
  _VH_Entry* entry = &entries[position];
  if (entry->version == -1) {
    int length;
    const char* name = EntryName(position, &length);
    entry->version = other->Seek(-1, name, length, nullptr);
  }
  return entry->version;
}

// A new variable in the other table, under the entry's name.
Variable* VariableHash::InsertThrough(VariableHash* other, int position, Variable* refers_to) {
  int length;
  const char* name = EntryName(position, &length);
  Variable* variable =
      refers_to ? new ReferenceVariable(name, length, refers_to) : new Variable(name, length);
  entries[position].version = other->Insert(-1, name, length, variable);
  return variable;
}

bool VariableHash::FindThrough(VariableHash* other, Variable** out, const char* name, int length,
                               int create) {
  length = NameLength(name, length);
  const int found = Locate(name, length);
  if (found < 0) return other->Find(out, name, length, create);
  const int position = Resolve(other, found);
  if (position >= 0) {
    *out = other->Index(position, create);
  } else if (create) {
    *out = InsertThrough(other, found, nullptr);
  }
  return true;
}

Variable* VariableHash::IndexThrough(VariableHash* other, int position, int create) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return nullptr;
  const int there = Resolve(other, position);
  if (there >= 0) return other->Index(there, create);
  return create ? InsertThrough(other, position, nullptr) : nullptr;
}

void VariableHash::ReferThrough(VariableHash* other, int position, Variable* variable) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count) || !variable) return;
  const int there = Resolve(other, position);
  if (there >= 0) {
    other->SetVariable_Reference(there, variable);
  } else {
    InsertThrough(other, position, variable);
  }
}

int VariableHash::LookupThrough(VariableHash* other, Variable** out, const char* path, int length,
                                int create) {
  const int result = other->LookupVariable_Fancy(out, path, length, create);
  if (!result) Error(other->error());
  return result;
}

// --- SystemVariableHash --------------------------------------------------------------------------

SystemVariableHash::SystemVariableHash(Dictionary* names, int hash_bits, int entry_capacity)
    : VariableHash(names, hash_bits, entry_capacity), frames(1) {}

SystemVariableHash::SystemVariableHash(ZephApplication* application, Dictionary* names,
                                       VariableHash& source)
    : VariableHash(application, names, source), frames(1) {
  const auto* system = dynamic_cast<SystemVariableHash*>(&source);
  if (system && system->late) late = system->late->Clone(application);
}

SystemVariableHash::~SystemVariableHash() {
  delete late;
  while (List<_SVH_Entry>* list = frames.Top()) {
    for (_SVH_Entry* saved = list->First(); saved; saved = list->Next()) {
      if (saved->variable) saved->variable->DecRefCount();
    }
    delete frames.Pop();
  }
}

int SystemVariableHash::Version() {
  return depth;
}

void SystemVariableHash::SetLateVariables(LateVariables* variables) {
  delete late;
  late = variables;
  late_names_reserved = false;
  for (int i = 0; i < entry_count; i++) {
    if (!entries[i].variable) continue;
    int length;
    const char* name = EntryName(i, &length);
    if (late->Number(name, length) < 0) continue;
    entries[i].variable->DecRefCount();
    entries[i].variable = nullptr;
  }
}

void SystemVariableHash::ForgetLateVariables() {
  ReserveLateNames();
  delete late;
  late = nullptr;
}

void SystemVariableHash::ReserveLateNames() {
  if (!late || late_names_reserved) return;
  late_names_reserved = true;
  for (int i = 0; i < late->Count(); i++) {
    int length;
    const char* name = late->Name(i, &length);
    if (Locate(name, length) < 0) VariableHash::Insert(-1, name, length, nullptr);
  }
}

// The variable belongs to no level, so no Pop removes it.
int SystemVariableHash::MakeLate(const char* name, int length) {
  int found = Locate(name, length);
  if (!late || (found >= 0 && entries[found].variable)) return found;
  const int number = late->Number(name, length);
  if (number < 0) return found;
  if (found < 0) {
    ReserveLateNames();
    found = Locate(name, length);
    // The name is still not found if a damaged file has cut off its chain.
    if (found < 0 || entries[found].variable) return found;
  }
  entries[found].variable = late->Make(number);
  return found;
}

void SystemVariableHash::MakeAllLate() {
  ReserveLateNames();
  for (int i = 0; late && i < late->Count(); i++) {
    int length;
    const char* name = late->Name(i, &length);
    MakeLate(name, length);
  }
}

int SystemVariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (late) {
    int bytes = NameLength(name, length);
    const char* text = name ? name : dictionary->Entry(name_index, &bytes);
    if (text) MakeLate(text, bytes);
  }
  return VariableHash::Seek(name_index, name, length, entry);
}

int SystemVariableHash::ClearVariable(const char* name, int length) {
  MakeLate(name, NameLength(name, length));
  return VariableHash::ClearVariable(name, length);
}

int SystemVariableHash::Entries() {
  ReserveLateNames();
  return VariableHash::Entries();
}

void SystemVariableHash::AllocatedVars(VariableList* list) {
  MakeAllLate();
  VariableHash::AllocatedVars(list);
}

// The record adopts the entry's count on the variable.
void SystemVariableHash::Save(int position, int version, Variable* variable) {
  InsertOwned(*current, std::unique_ptr<_SVH_Entry>(new _SVH_Entry{position, version, variable}),
              ListTail);
}

void SystemVariableHash::Replace(int position, Variable* variable) {
  VariableRef adopted(variable);
  _VH_Entry* entry = &entries[position];
  Variable* old = entry->variable;
  if (depth > 0) {
    Save(position, entry->version, old);
    old = nullptr;
  }
  entry->variable = adopted.release();
  entry->version = depth;
  if (old) old->DecRefCount();
}

void SystemVariableHash::SetVariable(Variable* variable) {
  VariableRef adopted(variable);
  const String& name = variable->name();
  const int found = MakeLate(name.data, name.length);
  if (found >= 0) {
    Replace(found, adopted.release());
  } else {
    Insert(-1, name.data ? name.data : "", name.length, adopted.release());
  }
}

void SystemVariableHash::SetVariable_Reference(int position, Variable* variable) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count) || !variable) return;
  int length;
  const char* name = EntryName(position, &length);
  Replace(position, new ReferenceVariable(name, length, variable));
}

int SystemVariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                          int valuelength, int) {
  return VariableHash::SetVariable_Fancy(path, length, value, valuelength, 0);
}

int SystemVariableHash::Insert(int name_index, const char* name, int length, Variable* variable) {
  VariableRef adopted(variable);
  ReserveLateNames();
  if (depth == 0) return VariableHash::Insert(name_index, name, length, adopted.release());
  const int known = Seek(name_index, name, length, nullptr);
  if (known >= 0) {
    Replace(known, adopted.release());
    return known;
  }
  const int made = VariableHash::Insert(name_index, name, length, adopted.release());
  Save(made, 0, nullptr);
  return made;
}

bool SystemVariableHash::Find(Variable** out, const char* name, int length, int create) {
  const int found = MakeLate(name, NameLength(name, length));
  if (found < 0) return false;
  *out = Index(found, create);
  return true;
}

// A variable that is made while a level is open is removed by its Pop.
Variable* SystemVariableHash::Index(int position, int create) {
  if (position >= entry_count) ReserveLateNames();
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return nullptr;
  if (entries[position].variable) return entries[position].variable;
  if (late) {
    int length;
    const char* name = EntryName(position, &length);
    // If the name has two rows, only the first one gets the late variable.
    if (MakeLate(name, length) == position && entries[position].variable) {
      return entries[position].variable;
    }
  }
  if (!create) return nullptr;
  if (depth > 0) Save(position, 0, nullptr);
  return MakeVariable(&entries[position]);
}

void SystemVariableHash::Push() {
  auto records = std::make_unique<List<_SVH_Entry>>(1);
  frames.Push(records.get());
  current = records.release();
  depth++;
}

// Restores from the first record to the last. If an entry was replaced twice, the second record
// wins and releases the variable that the first has restored.
int SystemVariableHash::Pop() {
  if (depth == 0) return 0;
  for (_SVH_Entry* saved = current->First(); saved; saved = current->Next()) {
    _VH_Entry* entry = &entries[saved->index];
    Variable* present = entry->variable;
    entry->version = saved->version;
    entry->variable = saved->variable;
    if (present) present->DecRefCount();
  }
  frames.Top();
  delete frames.Pop();
  depth--;
  current = frames.Top();
  return 1;
}

// --- ClonedVariableHash --------------------------------------------------------------------------

ClonedVariableHash::ClonedVariableHash(ZephApplication* application, Dictionary* names,
                                       VariableHash& source)
    : VariableHash(names, source), target(this), owned_dictionary(names) {
  VariableHash* real = source.RealIdentity();
  const bool system = dynamic_cast<SystemVariableHash*>(real) != nullptr;
  if (real == &source && !system) {
    CloneVariables(application, source);
    return;
  }
  std::unique_ptr<Dictionary> copied;
  if (real != &source) copied.reset(DictionaryCopy(*real));
  Dictionary* theirs = copied ? copied.get() : names;
  if (system) {
    target = new SystemVariableHash(application, theirs, *real);
  } else {
    target = new VariableHash(application, theirs, *real);
  }
  if (copied) owned_dictionary = copied.release();
  ForgetTarget();
}

ClonedVariableHash::~ClonedVariableHash() {
  if (!own()) delete target;
  if (owned_dictionary != dictionary) delete owned_dictionary;
}

void ClonedVariableHash::SetVariable(const char* name, int length, const char* value,
                                     int valuelength) {
  if (own()) {
    VariableHash::SetVariable(name, length, value, valuelength);
  } else {
    target->SetVariable(name, length, value, valuelength);
  }
}

void ClonedVariableHash::SetVariable(Variable* variable) {
  if (own()) {
    VariableHash::SetVariable(variable);
  } else {
    target->SetVariable(variable);
  }
}

int ClonedVariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                          int valuelength, int accumulate) {
  if (own()) return VariableHash::SetVariable_Fancy(path, length, value, valuelength, accumulate);
  return target->SetVariable_Fancy(path, length, value, valuelength, accumulate);
}

int ClonedVariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (own()) return VariableHash::Seek(name_index, name, length, entry);
  if (!name && !(name = dictionary->Entry(name_index, &length))) return -1;
  return target->Seek(-1, name, length, entry);
}

int ClonedVariableHash::Insert(int name_index, const char* name, int length, Variable* variable) {
  if (own()) return VariableHash::Insert(name_index, name, length, variable);
  if (!name) {
    length = 0;
    name = dictionary->Entry(name_index, &length);
  }
  return target->Insert(-1, name ? name : "", length, variable);
}

int ClonedVariableHash::Version() {
  return own() ? VariableHash::Version() : target->Version();
}

int ClonedVariableHash::Entries() {
  return own() ? VariableHash::Entries() : target->Entries();
}

int ClonedVariableHash::ClearVariable(const char* name, int length) {
  if (own()) return VariableHash::ClearVariable(name, length);
  return target->ClearVariable(name, length);
}

bool ClonedVariableHash::Find(Variable** out, const char* name, int length, int create) {
  if (own()) return VariableHash::Find(out, name, length, create);
  return FindThrough(target, out, name, length, create);
}

Variable* ClonedVariableHash::Index(int position, int create) {
  if (own()) return VariableHash::Index(position, create);
  return IndexThrough(target, position, create);
}

void ClonedVariableHash::SetVariable_Reference(int position, Variable* variable) {
  if (own()) {
    VariableHash::SetVariable_Reference(position, variable);
  } else {
    ReferThrough(target, position, variable);
  }
}

int ClonedVariableHash::LookupVariable_Fancy(Variable** out, const char* path, int length,
                                             int create) {
  if (own()) return VariableHash::LookupVariable_Fancy(out, path, length, create);
  return LookupThrough(target, out, path, length, create);
}

void ClonedVariableHash::AllocatedVars(VariableList* list) {
  if (own()) {
    VariableHash::AllocatedVars(list);
  } else {
    target->AllocatedVars(list);
  }
}

void ClonedVariableHash::Push() {
  if (!own()) target->Push();
}

int ClonedVariableHash::Pop() {
  return own() ? 0 : target->Pop();
}

VariableHash* ClonedVariableHash::RealIdentity() {
  return target;
}

// --- UserVariableHash ----------------------------------------------------------------------------

UserVariableHash::UserVariableHash() : VariableHash(new Dictionary(), 12, 512) {}

UserVariableHash::~UserVariableHash() {
  delete dictionary;
  dictionary = nullptr;
}
