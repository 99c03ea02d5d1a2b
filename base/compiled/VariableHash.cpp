// The table of variables itself, in this order: construction, names and entries, variables, files,
// and the table of extension libraries. Paths and scopes are in VariablePaths.cpp, the tables that
// forward to another one in ForwardingVariableHash.cpp, the system variables in
// SystemVariableHash.cpp. Tested in tests/base/compiled/VariableHashTest.cpp.

#include "base/compiled/VariableHash.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "base/compiled/Dictionary.h"
#include "base/compiled/StoredNameTable.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"
#include "base/core/MeasuredLength.h"
#include "base/core/RunLimit.h"
#include "base/core/hash.h"
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

VariableHash::VariableHash(Dictionary* dictionary, int bits, int capacity)
    : bits(bits < 0                          ? 0
           : bits > StoredNameTable::MaxBits ? StoredNameTable::MaxBits
                                             : bits),
      bucket_count(1 << this->bits),
      capacity(capacity < 1 ? 1 : capacity),
      dictionary(dictionary) {}

// A call makes its locals this way: no name is hashed, and only the rows are allocated.
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
VariableHash::VariableHash(Dictionary* dictionary, VariableHash& source)
    : bits(source.bits),
      bucket_count(source.bucket_count),
      capacity(source.capacity),
      dictionary(dictionary) {
  if (source.entry_count == 0) return;
  auto copy = std::make_unique<SharedIndex>(source.index->names);
  CopyNames(source);
  index = copy.release();
}

void VariableHash::CopyNames(const VariableHash& source) {
  entries = new _VH_Entry[static_cast<size_t>(source.entry_count)];
  allocated_entries = entry_count = source.entry_count;
  for (int i = 0; i < entry_count; i++) {
    entries[i] = {source.entries[i].name_index, 0, nullptr};
  }
}

VariableHash::VariableHash(ZephApplication* application, Dictionary* dictionary,
                           VariableHash& source)
    : VariableHash(dictionary, source) {
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

// Drops a variable that cannot be renewed; it is made again when it is accessed.
void VariableHash::DropVariable(_VH_Entry* row) {
  Variable* const variable = row->variable;
  row->variable = nullptr;
  row->version = 0;
  variable->Release();
}

void VariableHash::ReleaseEntries() {
  for (int i = 0; i < entry_count; i++) {
    if (entries[i].variable) entries[i].variable->Release();
  }
  delete[] std::exchange(entries, nullptr);
  allocated_entries = readable_entries = entry_count = 0;
}

void VariableHash::ReleaseIndex() {
  if (index && --index->holders == 0) delete index;
  index = nullptr;
}

void VariableHash::Dump() {
  // Dump is not virtual, so late system variables are dropped here, with the others.
  if (auto* system = dynamic_cast<SystemVariableHash*>(this)) system->ForgetLateVariables();
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
  return hashi(name, static_cast<unsigned>(MeasuredLength(name, length)), 0) &
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
  const int found = Locate(name, MeasuredLength(name, length));
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
    Grow(larger);
  }
  // Where there is no memory, the table stays as it was.
  capacity = grown;
}

void VariableHash::Grow(int larger) {
  auto* rows = new _VH_Entry[static_cast<size_t>(larger)];
  if (entry_count > 0) memcpy(rows, entries, sizeof(_VH_Entry) * static_cast<size_t>(entry_count));
  for (int i = entry_count; i < readable_entries; i++) rows[i] = {-1, 0, nullptr};
  delete[] std::exchange(entries, rows);
  allocated_entries = larger;
}

void VariableHash::MakeReadable(int least) {
  if (least > allocated_entries) Grow(least);
  for (int i = std::max(entry_count, readable_entries); i < least; i++) {
    entries[i] = {-1, 0, nullptr};
  }
  readable_entries = least;
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
    length = MeasuredLength(name, length);
    if (name_index == -1) name_index = dictionary->Entry_Append(name, length);
  }
  MakeRoom();
  OwnIndex();
  index->names.MakeRoom(Growth);
  // Without its variable first, because the row after the last one may be read.
  entries[entry_count] = {name_index, Version(), nullptr};
  const int made = index->names.Insert(
      name, length, [this](int entry, int* size) { return EntryName(entry, size); });
  entries[entry_count++].variable = variable;
  (void)adopted.release();
  return made;
}

int VariableHash::Insert(Variable* variable) {
  const String& name = variable->name();
  return Insert(-1, name.data ? name.data : "", name.length, variable);
}

int VariableHash::Insert(const char* name, int length) {
  return Insert(-1, name ? name : "", MeasuredLength(name, length), nullptr);
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
  const int found = Locate(name, MeasuredLength(name, length));
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
  length = MeasuredLength(name, length);
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
  if (old && old->IsAsleep()) {
    old->Begin(variable);
    return;
  }
  if (SharedName* shared = NameForTwins(position)) {
    // A variable that begins as a reference, instead of a ReferenceVariable: it can be renewed.
    entries[position].variable = new Variable(shared);
    entries[position].variable->Begin(variable);
  } else {
    int length;
    const char* name = EntryName(position, &length);
    entries[position].variable = new ReferenceVariable(name, length, variable);
  }
  entries[position].version = Version();
  if (old) old->DecRefCount();
}

int VariableHash::ClearVariable(const char* name, int length) {
  const int found = Locate(name, MeasuredLength(name, length));
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
  entries = new _VH_Entry[static_cast<size_t>(head.count)];
  allocated_entries = entry_count = head.count;
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

// --- UserVariableHash ----------------------------------------------------------------------------

UserVariableHash::UserVariableHash() : VariableHash(new Dictionary(), 12, 512) {}

UserVariableHash::~UserVariableHash() {
  delete dictionary;
  dictionary = nullptr;
}
