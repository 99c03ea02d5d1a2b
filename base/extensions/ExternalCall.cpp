// Finds and calls functions of builtin libraries. Tested in
// tests/base/extensions/ExternalCallTest.cpp.

#include "base/extensions/ExternalCall.h"

#include "base/core/MeasuredLength.h"
#include "base/extensions/OpenedLibrary.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr int registrations_step = 16;

}  // namespace

ExternalCall::ExternalCall(_ZP_EL_Function* descriptor)
    : function(descriptor), result_variable(new Variable()) {}

ExternalCall::~ExternalCall() {
  try {
    if (state != nullptr) function->function(nullptr, nullptr, nullptr, &state);
  } catch (const std::bad_alloc&) {
    // What the library has not given back by then stays with it.
  }
  result_variable->DecRefCount();
}

void ExternalCall::SetResult(Variable* adopted) {
  Variable* old = result_variable;
  result_variable = adopted;
  old->DecRefCount();
}

int ExternalCall::Call(ZephVM* vm, VariableHash* parameters) {
  Run(vm, parameters);
  return 1;
}

ExternalCallPersistentData::ExternalCallPersistentData(ZephVM* machine, const char* name,
                                                       int length, void* data,
                                                       void (*destroy_data)(void*, void*))
    : vm(machine), held(data), destroy(destroy_data) {
  std::string_view text = KeyText(name, MeasuredLength(name, length));
  key = new char[text.size()];
  key_length = int(text.size());
  if (!text.empty()) memcpy(key, text.data(), text.size());
}

ExternalCallPersistentData::~ExternalCallPersistentData() {
  if (destroy != nullptr) {
    try {
      destroy(vm, held);
    } catch (const std::bad_alloc&) {
      // The callback may run functions of the script, which may use up the memory. What it has not
      // given back by then stays with the library.
    }
  } else {
    delete[] static_cast<char*>(held);
  }
  delete[] key;
}

ExternalCallManager::ExternalCallManager(ZephApplication* application)
    : application(application), calls(1, 1, 12, 512), persistent(1, 1, 12, 512) {}

ExternalCallManager::ExternalCallManager(ZephApplication* application, ExternalCallManager& source)
    : ExternalCallManager(application) {
  for (int i = 0; i < source.count; i++) {
    ExternalCallManager::RegisterDSO(source.registrations[size_t(i)].library->path().data);
  }
  unregistered = source.unregistered;
}

// Takes the entries out one by one, because a callback that gets hold of this manager may look for
// others, or register more.
ExternalCallManager::~ExternalCallManager() {
  const Destruction all(this);
  for (int i = 0; i < persistent.Entries(); i++) {
    ExternalCallPersistentData* entry = persistent.Index(i);
    if (entry != nullptr) delete persistent.Remove(entry->name(), entry->namelength());
  }
}

bool ExternalCallManager::RegisterDSO(const char* path) {
  ExternalLibrary* library = OpenLibrary(application, path, &last_error);
  const _ZP_EL_FunctionTable* functions =
      library == nullptr ? nullptr
                         : ExportedTable<_ZP_EL_FunctionTable>(
                               library, "zeph_function_table",
                               "Unable to retrieve function descriptor table", &last_error);
  if (functions == nullptr) {
    NoteFailure(LibraryFailure(path, last_error.text()));
    return false;
  }
  Append(library, functions->functions);
  return true;
}

// The file may have been opened and still be no library of functions.
void ExternalCallManager::NoteFailure(const String& failure) {
  ReportLibraryFailure(application->basename(), failure);
  if (unregistered.length > 0) unregistered.cat("; ");
  unregistered.cat(failure.data, failure.length);
}

void ExternalCallManager::Append(ExternalLibrary* library, _ZP_EL_Function* functions) {
  if (count == capacity) {
    auto larger = std::make_unique<Registration[]>(size_t(capacity) + registrations_step);
    for (int i = 0; i < count; i++) larger[size_t(i)] = registrations[size_t(i)];
    registrations = std::move(larger);
    capacity += registrations_step;
  }
  registrations[size_t(count++)] = {library, functions};
}

// Returns the row of that name in the table, or null.
static _ZP_EL_Function* FindRow(_ZP_EL_Function* row, std::string_view name) {
  if (row == nullptr) return nullptr;
  for (; row->name != nullptr; row++) {
    if (row->namelength == int(name.size()) && memcmpi(row->name, name.data(), name.size()) == 0) {
      return row;
    }
  }
  return nullptr;
}

ExternalCall* ExternalCallManager::Lookup_External(const char* name, int length) {
  std::string_view wanted = KeyText(name, MeasuredLength(name, length));
  ExternalCall* call = calls.Find(wanted.data(), int(wanted.size()));
  if (call != nullptr) return call;
  for (int i = 0; i < count; i++) {
    _ZP_EL_Function* row = FindRow(registrations[size_t(i)].functions, wanted);
    if (row == nullptr) continue;
    auto made = std::make_unique<ExternalCall>(row);
    calls.Insert(made.get());
    return made.release();
  }
  return nullptr;
}

void* ExternalCallManager::Lookup_Persistent(const char* name, int length) {
  ExternalCallPersistentData* entry = persistent.Find(name, length);
  return entry != nullptr ? entry->data() : nullptr;
}

void ExternalCallManager::Register_Persistent(ZephVM* vm, const char* name, int length, void* data,
                                              void (*destroy)(void* vm, void* data)) {
  if (!MayRegister(destroy != nullptr)) return;
  // The entry comes first, because the name may go with the older data.
  auto entry = std::make_unique<ExternalCallPersistentData>(vm, name, length, data, destroy);
  {
    const Destruction older(this);
    // The callback may register data under the same name again.
    while (ExternalCallPersistentData* old = persistent.Remove(entry->name(), entry->namelength()))
      delete old;
  }
  try {
    persistent.Insert(entry.get());
  } catch (const std::bad_alloc&) {
    entry->Forget();
    throw;
  }
  (void)entry.release();
}

// Callbacks that register data whose callbacks register data would go on for ever. What has no
// callback comes to an end, so it is always accepted.
bool ExternalCallManager::MayRegister(bool has_callback) {
  if (!has_callback || destructions == 0) return true;
  return ++late_registrations <= kMostLate;
}

void ExternalCallManager::MachineEnds(ZephVM* vm, ZephVM* parent) {
  // A callback may look up and register data, so the number of entries can change during the loop.
  const Destruction all(this);
  for (int i = 0; i < persistent.Entries(); i++) {
    ExternalCallPersistentData* entry = persistent.Index(i);
    if (entry == nullptr || entry->machine() != vm) continue;
    if (parent != nullptr) {
      entry->SetMachine(parent);
    } else {
      delete persistent.Remove(entry->name(), entry->namelength());
    }
  }
}
