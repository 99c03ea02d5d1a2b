// Functions of builtin libraries, which scripts call like their own. A library provides a table of
// its functions. At the first call of a function, the manager of a request finds it in the tables
// by name; its state and result are kept until the request ends.

#ifndef ZEPH_BASE_EXTERNALCALL_H
#define ZEPH_BASE_EXTERNALCALL_H

#include "api/zeph.h"
#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/extensions/LastError.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

#include <memory>

class ExternalLibrary;
class ZephApplication;

// A function that a request has called, with its state and result.
class ExternalCall {
 public:
  // The row is borrowed from the library.
  explicit ExternalCall(_ZP_EL_Function* descriptor);
  // Lets the function free its state.
  virtual ~ExternalCall();
  ExternalCall(const ExternalCall&) = delete;
  ExternalCall& operator=(const ExternalCall&) = delete;

  // Calls the function; returns 1. Afterwards result() is the function's result, NULL if it set
  // none. If another holder keeps the result of an earlier call, that variable is unchanged; so is
  // the result of a call that is still running.
  virtual int Call(ZephVM* vm, VariableHash* parameters);
  // The same in line.
  [[gnu::always_inline]] void Run(ZephVM* vm, VariableHash* parameters) {
    if (ResultIsFree()) [[likely]] {
      result_variable->Clear();
    } else {
      SetResult(new Variable());
    }
    // The function may run scripts that call it again: each of those calls finds that the result is
    // held, and makes its own.
    VariableRef result = VariableRef::Share(result_variable);
    function->function(vm, parameters, result.get(), &state);
    if (result_variable != result.get()) [[unlikely]]
      SetResult(result.release());
  }
  // In bytes: memory of a result's text that is kept for the next result.
  static constexpr int kMostKept = 1 << 16;

  const _ZP_EL_Function* descriptor() const { return function; }
  // Borrowed; a caller that keeps it takes a count.
  Variable* result() { return result_variable; }

 private:
  // Whether the result of the last call can be reused, because no other code can see it: only this
  // object holds it, and it is no reference to another variable. Its text keeps its memory then, so
  // it must not be a large one.
  bool ResultIsFree() const {
    return result_variable->IsPlain() && result_variable->plain_count() < 2 &&
           result_variable->plain_text().allocated <= kMostKept;
  }
  void SetResult(Variable* adopted);

  _ZP_EL_Function* function;
  void* state = nullptr;
  Variable* result_variable;  // one count held
};

struct ExternalCallName {
  static std::string_view Key(const ExternalCall* item) {
    return KeyText(item->descriptor()->name, item->descriptor()->namelength);
  }
};
using ExternalCallTable = NamedHashTable<ExternalCall, ExternalCallName>;

// Data that an extension keeps under a name, for its later calls in the same request.
class ExternalCallPersistentData {
 public:
  // Copies the name; the copy has no NUL. A length of -1 means strlen, any other negative length an
  // empty name. If destroy is null, the data must come from new char[].
  ExternalCallPersistentData(ZephVM* vm, const char* name, int length, void* data,
                             void (*destroy)(void* vm, void* data));
  // Destroys the data.
  virtual ~ExternalCallPersistentData();
  ExternalCallPersistentData(const ExternalCallPersistentData&) = delete;
  ExternalCallPersistentData& operator=(const ExternalCallPersistentData&) = delete;

  const char* name() const { return key; }
  int namelength() const { return key_length; }
  void* data() const { return held; }
  // The machine that is passed to the callback.
  ZephVM* machine() const { return vm; }
  void SetMachine(ZephVM* machine) { vm = machine; }
  // Leaves the data to the caller: the destructor does not destroy it.
  void Forget() {
    held = nullptr;
    destroy = nullptr;
  }

 private:
  ZephVM* vm;
  char* key;
  int key_length;
  void* held;
  void (*destroy)(void* vm, void* data);
};

struct ExternalCallPersistentDataName {
  static std::string_view Key(const ExternalCallPersistentData* item) {
    return KeyText(item->name(), item->namelength());
  }
};
using ExternalCallPersistentDataTable =
    NamedHashTable<ExternalCallPersistentData, ExternalCallPersistentDataName>;

// The builtin libraries of one request or task. Used on its thread. The order of the first fields
// and of the virtual operations must not change.
class ExternalCallManager {
 public:
  explicit ExternalCallManager(ZephApplication* application);
  // Registers the source's libraries again, in their order, through the given application. Calls
  // and persistent data stay with the source.
  ExternalCallManager(ZephApplication* application, ExternalCallManager& source);
  virtual ~ExternalCallManager();
  ExternalCallManager(const ExternalCallManager&) = delete;
  ExternalCallManager& operator=(const ExternalCallManager&) = delete;

  // Opens a library and appends its table. False leaves the reason in error().
  virtual bool RegisterDSO(const char* path);
  // Returns the function of that name, in any case, from the library that was registered first, or
  // null if no library has it. Owned by the manager. A length of -1 means strlen.
  virtual ExternalCall* Lookup_External(const char* name, int length);
  // Returns the data under that name, in any case, or null. A length of -1 means strlen.
  virtual void* Lookup_Persistent(const char* name, int length);
  static constexpr int kMostLate = 100;
  // Keeps data under a name until the machine ends, or for a nested machine until the top machine
  // ends. Older data of that name is destroyed first. The name is copied, and may be a part of the
  // older data; a length of -1 means strlen. If there is no memory, the data stays the caller's.
  //
  // A destroy callback may register data too, which may destroy other data, and so on. So that this
  // ends, at most kMostLate such registrations with a callback are kept; for more, nothing is done,
  // and the data stays the caller's.
  virtual void Register_Persistent(ZephVM* vm, const char* name, int length, void* data,
                                   void (*destroy)(void* vm, void* data));

  // Called before a machine is deleted, while it still works, because the destroy callbacks get the
  // machine and may use it. Data that was registered with vm is destroyed or, with a parent (the
  // machine that ran the nested one), passes to the parent. Data of other machines stays.
  void MachineEnds(ZephVM* vm, ZephVM* parent);

  const String& error() const { return last_error.text(); }
  // Why libraries could not be registered, one after the other; empty or null if all could. A call
  // of their functions fails later, and its message cannot say why.
  const String& failures() const { return unregistered; }
  // Keeps the older text if the given one is null.
  void Error(const String& text) { last_error.Set(text); }

 private:
  struct Registration {
    ExternalLibrary* library;  // borrowed from the process
    _ZP_EL_Function* functions;
  };

  // Made while callbacks destroy data. The outermost one covers all that they destroy in turn.
  class Destruction {
   public:
    explicit Destruction(ExternalCallManager* manager) : of(manager) { of->destructions++; }
    ~Destruction() {
      if (--of->destructions == 0) of->late_registrations = 0;
    }
    Destruction(const Destruction&) = delete;
    Destruction& operator=(const Destruction&) = delete;

   private:
    ExternalCallManager* of;
  };

  void NoteFailure(const String& failure);
  void Append(ExternalLibrary* library, _ZP_EL_Function* functions);
  bool MayRegister(bool has_callback);

  ZephApplication* application;
  ExternalCallTable calls;
  LastError last_error;
  std::unique_ptr<Registration[]> registrations;  // made at the first registration
  int capacity = 0;
  int count = 0;
  ExternalCallPersistentDataTable persistent;
  String unregistered;
  int destructions = 0;        // nested in one another
  int late_registrations = 0;  // made by callbacks in these
};

#endif
