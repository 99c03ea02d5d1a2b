// Calls a commerce library for a loop of a script. Tested in
// tests/base/machine/CommerceTest.cpp.

#include "base/machine/Commerce.h"

#include <new>

#include "base/extensions/CommerceLibrary.h"
#include "base/machine/ZephVM.h"

namespace {

// Results of a library's loop function.
constexpr int kReady = 0;
constexpr int kFailed = 1;

class Busy {
 public:
  explicit Busy(bool* flag) : flag(flag) { *flag = true; }
  ~Busy() { *flag = false; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  bool* flag;
};

}  // namespace

Commerce::Commerce(ZephApplication* application, ZephVM* vm, CommerceLibraryManager* libraries,
                   VariableHash* system, const char* action, int actionlength, const char* method,
                   int methodlength, std::unique_ptr<VariableList> fields)
    : Feature(application, vm, Type_Commerce),
      libraries(libraries),
      system(system),
      action(action, actionlength),
      method(method, methodlength),
      fields(std::move(fields)) {}

Commerce::~Commerce() {
  if (!library) return;
  try {
    library->Clean(vm, &state, method.data, action.data, fields.get());
  } catch (const std::bad_alloc&) {
    // The library may run code of the script, which may use up the memory. What it has not given
    // back by then stays with it.
  }
}

bool Commerce::Start() {
  if (!libraries) {
    Error("There are no commerce libraries");
    return false;
  }
  library = libraries->Lookup_Commerce_Library(method.data, method.length);
  if (!library) {
    Error(libraries->Get_Error());
    return false;
  }
  const Busy working(&busy);
  if (library->Init(vm, &state, method.data, action.data, fields.get(), system) == 0) return true;
  TakeLibraryError();
  return false;
}

Commerce::Round Commerce::Next() {
  const Busy working(&busy);
  const int result =
      library->Loop(vm, &state, method.data, action.data, fields.get(), system, index++);
  if (result == kReady) return Ready;
  if (result == kFailed) TakeLibraryError();
  return Over;
}

void Commerce::TakeLibraryError() {
  Error(String(library->Error(vm, &state, method.data, action.data, fields.get()), -1));
}
