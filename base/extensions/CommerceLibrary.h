// Commerce libraries: named transaction methods, such as payment services, whose results a script
// walks element by element. The configuration names them; a library is opened when a script first
// uses it.

#ifndef ZEPH_BASE_COMMERCELIBRARY_H
#define ZEPH_BASE_COMMERCELIBRARY_H

#include "api/zeph.h"
#include "base/core/StringClass.h"
#include "base/extensions/NamedLibraries.h"

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
  decltype(_ZP_EL_Commerce::init) init = nullptr;
  decltype(_ZP_EL_Commerce::loop) loop = nullptr;
  decltype(_ZP_EL_Commerce::cleanup) cleanup = nullptr;
  decltype(_ZP_EL_Commerce::error) error_text = nullptr;
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
