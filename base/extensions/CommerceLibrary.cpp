// Finds and calls commerce libraries. Tested in tests/base/extensions/CommerceLibraryTest.cpp.

#include "base/extensions/CommerceLibrary.h"

namespace {

// A result of loop that ends it.
constexpr int loop_ended = 2;

template <typename Function>
bool Find(ExternalLibrary* library, const char* name, Function* function) {
  *function = reinterpret_cast<Function>(library->Get_Function(name));
  return *function != nullptr;
}

}  // namespace

CommerceLibrary::CommerceLibrary(const CommerceLibrary& other)
    : NamedLibrary(other),
      is_loaded(other.is_loaded),
      init(other.init),
      loop(other.loop),
      cleanup(other.cleanup),
      error_text(other.error_text) {}

CommerceLibrary::~CommerceLibrary() = default;

int CommerceLibrary::Init(ZephVM* vm, void** state, const char* method, const char* action,
                          VariableList* fields, VariableHash* system) {
  return init != nullptr ? init(vm, state, method, action, fields, system) : 0;
}

int CommerceLibrary::Loop(ZephVM* vm, void** state, const char* method, const char* action,
                          VariableList* fields, VariableHash* system, int index) {
  if (loop == nullptr) return loop_ended;
  return loop(vm, state, method, action, fields, system, index);
}

void CommerceLibrary::Clean(ZephVM* vm, void** state, const char* method, const char* action,
                            VariableList* fields) {
  if (cleanup != nullptr) cleanup(vm, state, method, action, fields);
}

const char* CommerceLibrary::Error(ZephVM* vm, void** state, const char* method, const char* action,
                                   VariableList* fields) {
  return error_text != nullptr ? error_text(vm, state, method, action, fields) : nullptr;
}

const String& CommerceLibrary::Get_Error() {
  return last_error.text();
}

void CommerceLibrary::Set_Error(const String& text) {
  last_error.Set(text);
}

bool CommerceLibrary::Load(ExternalLibrary* library) {
  using TableFunction = _ZP_EL_Commerce* (*)();
  TableFunction table_function = nullptr;
  bool found = false;
  if (Find(library, "zeph_commerce_library", &table_function)) {
    const _ZP_EL_Commerce* table = table_function();
    found = table != nullptr;
    if (found) {
      init = table->init;
      loop = table->loop;
      cleanup = table->cleanup;
      error_text = table->error;
    }
  } else {
    found = Find(library, "zeph_commerce_init", &init) &&
            Find(library, "zeph_commerce_loop", &loop) &&
            Find(library, "zeph_commerce_cleanup", &cleanup) &&
            Find(library, "zeph_commerce_error", &error_text);
  }
  if (found) {
    is_loaded = 1;
  } else {
    Set_Error("Unable to load commerce library descriptor table/functions");
  }
  return found;
}

CommerceLibraryManager::CommerceLibraryManager(ZephApplication* application) : named(application) {}

CommerceLibraryManager::CommerceLibraryManager(ZephApplication* application,
                                               CommerceLibraryManager& source)
    : named(application) {
  named.Copy(source.named);
}

CommerceLibraryManager::~CommerceLibraryManager() = default;

bool CommerceLibraryManager::RegisterDSO(const char* name, const char* path) {
  named.Register(name, path);
  return true;
}

CommerceLibrary* CommerceLibraryManager::Lookup_Commerce_Library(const char* name, int length) {
  return named.LookUp(
      name, length, "Commerce method '", "' is unsupported or not configured",
      [](const CommerceLibrary* method) { return method->loaded(); },
      [this](CommerceLibrary* method, ExternalLibrary* file) {
        if (method->Load(file)) return true;
        Set_Error(method->Get_Error());
        return false;
      });
}

void CommerceLibraryManager::Set_Error(const String& text) {
  named.error().Set(text);
}

const String& CommerceLibraryManager::Get_Error() {
  return named.error().text();
}
