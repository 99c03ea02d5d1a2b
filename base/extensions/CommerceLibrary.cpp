// Finds and calls commerce libraries. Tested in tests/base/extensions/CommerceLibraryTest.cpp.

#include "base/extensions/CommerceLibrary.h"

#include <memory>

#include "base/extensions/ExternalLibrary.h"
#include "base/host/ZephApplication.h"

namespace {

// A result of loop that ends it.
constexpr int loop_ended = 2;

// Copies the source's libraries for another owner, in their order.
void CopyLibraries(CommerceLibraryTable& source, CommerceLibraryTable* target) {
  for (int i = 0; i < source.Entries(); i++) {
    if (CommerceLibrary* library = source.Index(i)) {
      InsertOwned(*target, std::make_unique<CommerceLibrary>(*library));
    }
  }
}

template <typename Function>
bool Find(ExternalLibrary* library, const char* name, Function* function) {
  *function = reinterpret_cast<Function>(library->Get_Function(name));
  return *function != nullptr;
}

}  // namespace

CommerceLibrary::CommerceLibrary(const char* name, const char* path)
    : method_name(zeph_strdup(name)), library_path(zeph_strdup(path)) {}

CommerceLibrary::CommerceLibrary(const CommerceLibrary& other)
    : method_name(zeph_strdup(other.method_name)),
      library_path(zeph_strdup(other.library_path)),
      is_loaded(other.is_loaded),
      init(other.init),
      loop(other.loop),
      cleanup(other.cleanup),
      error_text(other.error_text) {}

CommerceLibrary::~CommerceLibrary() {
  delete[] method_name;
  delete[] library_path;
}

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
  return last_error;
}

void CommerceLibrary::Set_Error(const String& text) {
  if (text.data != nullptr) last_error = text;
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

CommerceLibraryManager::CommerceLibraryManager(ZephApplication* owner)
    : application(owner), library_table(1, 1, 12, 512) {}

CommerceLibraryManager::CommerceLibraryManager(ZephApplication* owner,
                                               CommerceLibraryManager& source)
    : CommerceLibraryManager(owner) {
  CopyLibraries(source.library_table, &library_table);
}

CommerceLibraryManager::~CommerceLibraryManager() = default;

bool CommerceLibraryManager::RegisterDSO(const char* name, const char* path) {
  InsertOwned(library_table, std::make_unique<CommerceLibrary>(name, path));
  return true;
}

CommerceLibrary* CommerceLibraryManager::Lookup_Commerce_Library(const char* name, int length) {
  CommerceLibrary* method = library_table.Find(name, length);
  if (method == nullptr) {
    String text("Commerce method '");
    text.cat(name, length);
    text.cat("' is unsupported or not configured");
    Set_Error(text);
    return nullptr;
  }
  if (method->loaded()) return method;
  ExternalLibraryManager* manager = application->librarymanager();
  ExternalLibrary* library = manager->Lookup(method->path());
  if (library == nullptr) {
    Set_Error(manager->error());
    return nullptr;
  }
  if (method->Load(library)) return method;
  Set_Error(method->Get_Error());
  return nullptr;
}

void CommerceLibraryManager::Set_Error(const String& text) {
  if (text.data != nullptr) last_error = text;
}

const String& CommerceLibraryManager::Get_Error() {
  return last_error;
}
