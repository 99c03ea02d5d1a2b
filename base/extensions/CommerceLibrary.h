// Commerce libraries: named transaction methods, such as payment services, whose results a script
// walks element by element. The configuration names them; a library is opened when a script first
// uses it.

#ifndef ZEPH_BASE_COMMERCELIBRARY_H
#define ZEPH_BASE_COMMERCELIBRARY_H

#include "base/core/StringClass.h"
#include "base/extensions/NamedLibraries.h"

class VariableHash;
class VariableList;
class ZephVM;

// The functions of a commerce library. state is a word for the library's own use during one loop of
// a script. init returns 0 for success. loop gets the number of the round, from 0, and returns 0
// for a round, 1 for a failure and anything else for the end. error returns why init or loop
// failed.
typedef int (*_ZP_EL_CommerceInit)(ZephVM* vm, void** state, const char* method, const char* action,
                                   VariableList* fields, VariableHash* system);
typedef int (*_ZP_EL_CommerceLoop)(ZephVM* vm, void** state, const char* method, const char* action,
                                   VariableList* fields, VariableHash* system, int index);
typedef void (*_ZP_EL_CommerceCleanup)(ZephVM* vm, void** state, const char* method,
                                       const char* action, VariableList* fields);
typedef const char* (*_ZP_EL_CommerceError)(ZephVM* vm, void** state, const char* method,
                                            const char* action, VariableList* fields);

// The table that a library's export zeph_commerce_library returns; the engine does not read the
// first word. A library without that export exports the four functions themselves:
// zeph_commerce_init, zeph_commerce_loop, zeph_commerce_cleanup and zeph_commerce_error.
struct _ZP_EL_Commerce {
  int version;
  _ZP_EL_CommerceInit init;
  _ZP_EL_CommerceLoop loop;
  _ZP_EL_CommerceCleanup cleanup;
  _ZP_EL_CommerceError error;
};

// One method of a request or task. The order of the virtual operations must not change.
class CommerceLibrary : public NamedLibrary {
 public:
  using NamedLibrary::NamedLibrary;
  // For a task: copies name, path and, if they are loaded, the functions, but no error.
  CommerceLibrary(const CommerceLibrary& other);
  virtual ~CommerceLibrary();
  CommerceLibrary& operator=(const CommerceLibrary&) = delete;

  // Call the library's functions. If a function is null: Init returns success, Loop the end, Clean
  // does nothing, Error returns null.
  // REQUIRES: loaded().
  virtual int Init(ZephVM* vm, void** state, const char* method, const char* action,
                   VariableList* fields, VariableHash* system);
  virtual int Loop(ZephVM* vm, void** state, const char* method, const char* action,
                   VariableList* fields, VariableHash* system, int index);
  virtual void Clean(ZephVM* vm, void** state, const char* method, const char* action,
                     VariableList* fields);
  virtual const char* Error(ZephVM* vm, void** state, const char* method, const char* action,
                            VariableList* fields);
  virtual const String& Get_Error();
  // Keeps the older text if the given one is null.
  virtual void Set_Error(const String& text);
  // Takes the functions from the opened file. False leaves the reason in Get_Error().
  [[nodiscard]] virtual bool Load(ExternalLibrary* library);

  bool loaded() const { return is_loaded != 0; }

 private:
  LastError last_error;
  int is_loaded = 0;
  _ZP_EL_CommerceInit init = nullptr;
  _ZP_EL_CommerceLoop loop = nullptr;
  _ZP_EL_CommerceCleanup cleanup = nullptr;
  _ZP_EL_CommerceError error_text = nullptr;
};

// The methods that the configuration names for a request or task. Used on its thread.
class CommerceLibraryManager {
 public:
  explicit CommerceLibraryManager(ZephApplication* application);
  // For a task: copies the source's libraries, to be opened through the given application.
  CommerceLibraryManager(ZephApplication* application, CommerceLibraryManager& source);
  virtual ~CommerceLibraryManager();
  CommerceLibraryManager(const CommerceLibraryManager&) = delete;
  CommerceLibraryManager& operator=(const CommerceLibraryManager&) = delete;

  // Registers a method; the file is not opened yet. Returns true.
  virtual bool RegisterDSO(const char* name, const char* path);
  // Returns the method of that name, in any case, loaded and owned by the manager. Null leaves the
  // reason in Get_Error(). A length of -1 means strlen.
  [[nodiscard]] virtual CommerceLibrary* Lookup_Commerce_Library(const char* name, int length);
  // Keeps the older text if the given one is null.
  virtual void Set_Error(const String& text);
  virtual const String& Get_Error();

  // In the order of registration.
  NamedLibraries<CommerceLibrary>::Table& libraries() { return named.libraries(); }

 private:
  NamedLibraries<CommerceLibrary> named;
};

#endif
