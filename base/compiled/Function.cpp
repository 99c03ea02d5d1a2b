// Functions and their section. Tested in tests/base/compiled/FunctionTest.cpp.
#include "base/compiled/Function.h"

#include <climits>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/compiled/Dictionary.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"
#include "base/core/MeasuredLength.h"
#include "base/core/ascii.h"

using namespace LittleEndian;

namespace {

// The section, offsets counted from its start:
//
//  0            7             head of the name table
//  7            6 * occupied  buckets
//  then         4 * count     links
//  then, for each function:
//               20            name id (4), parameter count (4), flags (4), segment (4), offset (4)
//               12 * P        parameters: name id (4), flags (4), index of the variable (4)
//               rest          the local table, as VariableHash writes it: head (7), buckets
//                             (6 each), variables (8 each)
constexpr int FunctionsTag = MakeTag("func");
constexpr int LinkSize = 4;
constexpr int FunctionSize = 20;
constexpr int ParameterSize = 12;
constexpr int VariableSize = 8;

constexpr int FunctionGrowth = 64;
constexpr int LocalBits = 8;
constexpr int LocalCapacity = 64;

std::string_view Stripped(std::string_view text) {
  while (!text.empty() && zp_isspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && zp_isspace(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace

// --- FunctionParameter ---------------------------------------------------------------------------

FunctionParameter::FunctionParameter(int name_id, const char* name, int length, int flags,
                                     int index)
    : name_id(name_id), parameter_name(name, length), flags(flags), variable_index(index) {}

FunctionParameter::~FunctionParameter() = default;

// --- Function ------------------------------------------------------------------------------------

Function::Function(int index, int flags, int name_id, const char* name, int length, int segment,
                   int offset, Dictionary* dictionary)
    : function_index(index),
      flag_word(flags),
      name_id(name_id),
      function_name(name, length),
      parameter_list(1),
      segment_number(segment),
      entry_offset(offset),
      name_dictionary(dictionary),
      local_variables(dictionary, LocalBits, LocalCapacity) {}

Function::Function(ZephApplication* application, Dictionary* dictionary, Function& other)
    : function_index(other.function_index),
      flag_word(other.flag_word),
      name_id(other.name_id),
      function_name(other.function_name),
      parameter_list(1),
      segment_number(other.segment_number),
      entry_offset(other.entry_offset),
      name_dictionary(dictionary),
      local_variables(application, dictionary, other.local_variables) {
  auto& list = other.parameter_list;
  for (auto* parameter = list.First(); parameter; parameter = list.Next())
    InsertOwned(parameter_list, std::make_unique<FunctionParameter>(*parameter), ListTail);
}

Function::~Function() = default;

void Function::FillSlots() {
  has_slots = true;
  parameter_slots.clear();
  for (FunctionParameter* p = parameter_list.First(); p; p = parameter_list.Next()) {
    parameter_slots.push_back(p);
  }
}

int Function::AddParameter(int byreference, const char* name, int length) {
  length = MeasuredLength(name, length);
  int id = name_dictionary->Entry_Add(name, length);
  int index = local_variables.Insert(id, nullptr, -1, nullptr);
  InsertOwned(parameter_list,
              std::make_unique<FunctionParameter>(id, name, length, byreference, index), ListTail);
  has_slots = false;
  return index;
}

void Function::SetParameters(const char* text, int length) {
  std::string_view rest(text ? text : "", static_cast<size_t>(MeasuredLength(text, length)));
  if (rest.empty()) return;
  for (;;) {
    size_t comma = rest.find(',');
    std::string_view piece = Stripped(rest.substr(0, comma));
    size_t name_end = 0;
    while (name_end < piece.size() && !zp_isspace(piece[name_end])) name_end++;
    std::string_view mode = Stripped(piece.substr(name_end));
    bool byreference = CompareNames(mode.data(), static_cast<int>(mode.size()), "var", 3) == 0;
    AddParameter(byreference, piece.data(), static_cast<int>(name_end));
    if (comma == std::string_view::npos) return;
    rest.remove_prefix(comma + 1);
  }
}

// --- FunctionManager -----------------------------------------------------------------------------

FunctionManager::FunctionManager(Dictionary* dictionary, int bits, int capacity)
    : table(bits, capacity), dictionary(dictionary) {}

FunctionManager::FunctionManager(ZephApplication* application, Dictionary* dictionary,
                                 FunctionManager& other)
    : error_text(other.error_text),
      table(other.table),
      stored(other.stored),
      dictionary(dictionary) {
  if (!other.functions) return;
  functions = std::make_unique<std::unique_ptr<Function>[]>(static_cast<size_t>(table.capacity()));
  for (int i = 0; i < table.count(); i++) {
    if (!other.functions[i]) continue;
    functions[i] = std::make_unique<Function>(application, dictionary, *other.functions[i]);
  }
}

FunctionManager::~FunctionManager() = default;

String& FunctionManager::error() {
  return error_text;
}

void FunctionManager::Error(const String& text) {
  if (text.data) error_text = text;
}

int FunctionManager::hash(const char* name, int length) const {
  return table.hash(name, MeasuredLength(name, length));
}

const char* FunctionManager::Stored::Name(const Dictionary& names, int id, int* name_length) const {
  return id < dictionary_entries ? names.Entry(id, name_length) : nullptr;
}

const char* FunctionManager::NameOf(int index, int* length) const {
  if (const Function* function = functions[index].get()) {
    *length = function->name().length;
    return function->name().data;
  }
  // A function that is neither made nor stored is one after the place where a section broke off.
  if (!stored || index >= stored->count) return nullptr;
  const unsigned char* bytes = stored->bytes.get() + stored->offsets[index];
  return stored->Name(*dictionary, GetInt32(bytes), length);
}

Function* FunctionManager::Function_Get(const char* name, int length) {
  return Lookup(table.Find(name, MeasuredLength(name, length),
                           [this](int i, int* bytes) { return NameOf(i, bytes); }));
}

Function* FunctionManager::Function_Add(int segment, int offset, const char* name, int name_length,
                                        const char* parameters, int parameters_length, int flags) {
  name_length = MeasuredLength(name, name_length);
  int id = dictionary->Entry_Add(name, name_length);
  auto function = std::make_unique<Function>(Functions(), flags, id, name, name_length, segment,
                                             offset, dictionary);
  function->SetParameters(parameters, parameters_length);
  return Enter(std::move(function), name, name_length);
}

Function* FunctionManager::Function_Add(const char* name, int length, int flags) {
  length = MeasuredLength(name, length);
  int id = dictionary->Entry_Add(name, length);
  return Enter(std::make_unique<Function>(Functions(), flags | Function_External, id, name, length,
                                          -1, -1, dictionary),
               name, length);
}

Function* FunctionManager::Function_Add(Function* other) {
  const String& name = other->name();
  dictionary->Entry_Add(name.data, name.length);
  // Keeps the source's name id, which has no meaning in this dictionary. That is harmless, because
  // expressions call by index.
  auto function = std::make_unique<Function>(Functions(), other->flags(), other->nameid(),
                                             name.data, name.length, -1, -1, dictionary);
  auto& list = other->parameters();
  for (auto* parameter = list.First(); parameter; parameter = list.Next()) {
    function->AddParameter(parameter->flagword(), parameter->name().data, parameter->name().length);
  }
  return Enter(std::move(function), name.data, name.length);
}

Function* FunctionManager::Function_Add(Function* function, const char* name, int length) {
  return Enter(std::unique_ptr<Function>(function), name, MeasuredLength(name, length));
}

Function* FunctionManager::Enter(std::unique_ptr<Function> function, const char* name, int length) {
  table.MakeRoom(FunctionGrowth, &functions);
  const int count = table.count();
  Function* entered = function.get();
  functions[count] = std::move(function);
  table.Insert(name, length, [this](int i, int* bytes) { return NameOf(i, bytes); });
  return entered;
}

bool FunctionManager::Read(TaggedFile* file) {
  if (!ReadSection(file)) {
    Error(file->error());
    return false;
  }
  file->Section_Read_End();
  return true;
}

bool FunctionManager::ReadSection(TaggedFile* file) {
  std::unique_ptr<unsigned char[]> scratch;
  if (!file->Section_Read_Start(FunctionsTag, nullptr)) return false;
  const unsigned char* bytes = file->Section_View(StoredNameTable::Head::Size, &scratch);
  if (!bytes) return false;
  auto head = StoredNameTable::Head::Decode(bytes);
  if (!head.valid()) return false;
  long long buckets_size = StoredNameTable::BucketSize * static_cast<long long>(head.occupied);
  long long links_size = LinkSize * static_cast<long long>(head.count);
  bytes = file->Section_View(buckets_size + links_size, &scratch);
  if (!bytes) return false;
  functions.reset();
  if (head.count > 0) {
    functions = std::make_unique<std::unique_ptr<Function>[]>(static_cast<size_t>(head.count));
  }
  table.Read(head, bytes, bytes + buckets_size, LinkSize);
  stored.reset();
  return head.count == 0 ||
         ReadFunctions(file, StoredNameTable::Head::Size + buckets_size + links_size, head.count);
}

// Walks over the functions, which begin at offset start in the section, and keeps the complete
// ones. Their bytes are read at once, because a large script has thousands of functions.
bool FunctionManager::ReadFunctions(TaggedFile* file, long long start, int count) {
  auto read = std::make_shared<Stored>();
  read->offsets = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(count));
  read->dictionary_entries = dictionary->Entries();
  const long long room = file->Section_Left(start);
  read->bytes = std::make_unique_for_overwrite<unsigned char[]>(static_cast<size_t>(room));
  const unsigned char* const bytes = read->bytes.get();
  const long long length =
      file->Section_Read(FunctionsTag, static_cast<int>(start),
                         reinterpret_cast<char*>(read->bytes.get()), static_cast<int>(room));
  int* const offsets = read->offsets.get();
  int complete = 0;
  long long end = 0;
  while (complete < count && FunctionSize <= length - end) {
    const long long parameters = ParameterSize * static_cast<long long>(GetInt32(bytes + end + 4));
    long long next = end + FunctionSize + parameters;
    if (parameters < 0 || StoredNameTable::Head::Size > length - next) break;
    const auto head = StoredNameTable::Head::Decode(bytes + next);
    next += StoredNameTable::Head::Size;
    const long long size = StoredNameTable::BucketSize * static_cast<long long>(head.occupied) +
                           VariableSize * static_cast<long long>(head.count);
    if (!head.valid() || size > length - next) break;
    offsets[complete++] = static_cast<int>(end);
    end = next + size;
  }
  read->count = complete;
  read->length = static_cast<int>(end);
  const bool whole = read->count == count;
  stored = std::move(read);
  return whole;
}

// Makes the function of an index from the bytes of its section, which ReadFunctions has checked.
Function* FunctionManager::MakeStored(int index) const {
  if (!stored || index >= stored->count) return nullptr;
  const unsigned char* bytes = stored->bytes.get() + stored->offsets[index];
  int id = GetInt32(bytes);
  int parameters = GetInt32(bytes + 4);
  int length = 0;
  const char* name = stored->Name(*dictionary, id, &length);
  auto function =
      std::make_unique<Function>(index, GetInt32(bytes + 8), id, name, length, GetInt32(bytes + 12),
                                 GetInt32(bytes + 16), dictionary);
  bytes += FunctionSize;
  for (int i = 0; i < parameters; i++, bytes += ParameterSize) {
    id = GetInt32(bytes);
    length = 0;
    name = stored->Name(*dictionary, id, &length);
    InsertOwned(function->parameters(),
                std::make_unique<FunctionParameter>(id, name, length, GetInt32(bytes + 4),
                                                    GetInt32(bytes + 8)),
                ListTail);
  }
  TaggedFile rest(bytes, static_cast<int>(stored->bytes.get() + stored->length - bytes));
  if (!function->variables().Read(&rest)) return nullptr;
  functions[index] = std::move(function);
  return functions[index].get();
}

bool FunctionManager::Write(TaggedFile* file) {
  std::string bytes;
  table.Write(&bytes, 0);
  for (int i = 0; i < table.count(); i++) Append32(&bytes, table.next(i));
  file->Section_Start(FunctionsTag);
  if (!file->Section_Write(bytes)) {
    Error(file->error());
    return false;
  }
  for (int i = 0; i < table.count(); i++) {
    Function* function = Lookup(i);
    if (!function || !Write(file, function)) return false;
  }
  return true;
}

bool FunctionManager::Write(TaggedFile* file, Function* function) {
  auto& parameters = function->parameters();
  std::string bytes;
  Append32(&bytes, function->nameid());
  Append32(&bytes, parameters.Entries());
  Append32(&bytes, function->flags());
  Append32(&bytes, function->segment());
  Append32(&bytes, function->offset());
  for (auto* parameter = parameters.First(); parameter; parameter = parameters.Next()) {
    Append32(&bytes, parameter->nameid());
    Append32(&bytes, parameter->flagword());
    Append32(&bytes, parameter->index());
  }
  if (!file->Section_Write(bytes)) {
    Error(file->error());
    return false;
  }
  if (!function->variables().Write(file)) {
    Error(function->variables().error());
    return false;
  }
  return true;
}
