// Commerce libraries: named transaction methods, such as payment services, whose results a script
// walks element by element. Configuration names them; a library is opened when a script first uses
// it.

#ifndef ZEPH_BASE_COMMERCELIBRARY_H
#define ZEPH_BASE_COMMERCELIBRARY_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class ExternalLibrary;
class VariableHash;
class VariableList;
class ZephApplication;
class ZephVM;

// The functions of a commerce library. state is a word of the library's own for one loop of a
// script. init answers 0 for success; loop gets the round from 0 and answers 0 for a round, 1 for
// a failure and anything else for the end; error says why init or loop failed.
typedef int (*_ZP_EL_CommerceInit)(ZephVM* vm, void** state, const char* method, const char* action,
                                   VariableList* fields, VariableHash* system);
typedef int (*_ZP_EL_CommerceLoop)(ZephVM* vm, void** state, const char* method, const char* action,
                                   VariableList* fields, VariableHash* system, int index);
typedef void (*_ZP_EL_CommerceCleanup)(ZephVM* vm, void** state, const char* method,
                                       const char* action, VariableList* fields);
typedef const char* (*_ZP_EL_CommerceError)(ZephVM* vm, void** state, const char* method,
                                            const char* action, VariableList* fields);

// What a library's export zeph_commerce_library answers; the first word is the library's own. A
// library without that export has the four functions as exports of their own: zeph_commerce_init,
// zeph_commerce_loop, zeph_commerce_cleanup and zeph_commerce_error.
struct _ZP_EL_Commerce {
  int version;
  _ZP_EL_CommerceInit init;
  _ZP_EL_CommerceLoop loop;
  _ZP_EL_CommerceCleanup cleanup;
  _ZP_EL_CommerceError error;
};

// One method of a request or task. The order of the virtual operations stays.
class CommerceLibrary {
 public:
  // Copies both texts.
  CommerceLibrary(const char* name, const char* path);
  // For a task: name, path and the functions, when they are loaded.
  CommerceLibrary(const CommerceLibrary& other);
  virtual ~CommerceLibrary();
  CommerceLibrary& operator=(const CommerceLibrary&) = delete;

  // Forward to the library, which must be loaded. A function that its table leaves out counts as:
  // Init successful, Loop at its end, Clean nothing to do, Error null.
  virtual int Init(ZephVM* vm, void** state, const char* method, const char* action,
                   VariableList* fields, VariableHash* system);
  virtual int Loop(ZephVM* vm, void** state, const char* method, const char* action,
                   VariableList* fields, VariableHash* system, int index);
  virtual void Clean(ZephVM* vm, void** state, const char* method, const char* action,
                     VariableList* fields);
  virtual const char* Error(ZephVM* vm, void** state, const char* method, const char* action,
                            VariableList* fields);
  virtual const String& Get_Error();
  // Keeps the older text when the given one is null.
  virtual void Set_Error(const String& text);
  // Takes the functions from the opened file. False leaves the reason in Get_Error().
  [[nodiscard]] virtual bool Load(ExternalLibrary* library);

  const char* name() const { return method_name; }
  const char* path() const { return library_path; }
  bool loaded() const { return is_loaded != 0; }

 private:
  char* method_name;
  char* library_path;
  String last_error;
  int is_loaded = 0;
  _ZP_EL_CommerceInit init = nullptr;
  _ZP_EL_CommerceLoop loop = nullptr;
  _ZP_EL_CommerceCleanup cleanup = nullptr;
  _ZP_EL_CommerceError error_text = nullptr;
};

struct CommerceLibraryName {
  static std::string_view Key(const CommerceLibrary* item) { return KeyText(item->name()); }
};
using CommerceLibraryTable = NamedHashTable<CommerceLibrary, CommerceLibraryName>;

// The methods that configuration has named for a request or task, on its thread.
class CommerceLibraryManager {
 public:
  explicit CommerceLibraryManager(ZephApplication* application);
  // For a task: copies of the source's libraries, to be opened through the given application.
  CommerceLibraryManager(ZephApplication* application, CommerceLibraryManager& source);
  virtual ~CommerceLibraryManager();
  CommerceLibraryManager(const CommerceLibraryManager&) = delete;
  CommerceLibraryManager& operator=(const CommerceLibraryManager&) = delete;

  // Names a method; the file is not looked at. Answers true.
  virtual bool RegisterDSO(const char* name, const char* path);
  // The method of that name, in any case, loaded and owned by the manager. Null leaves the reason
  // in Get_Error(). A length of -1 means strlen.
  [[nodiscard]] virtual CommerceLibrary* Lookup_Commerce_Library(const char* name, int length);
  // Keeps the older text when the given one is null.
  virtual void Set_Error(const String& text);
  virtual const String& Get_Error();

  // In the order of registration.
  CommerceLibraryTable& libraries() { return library_table; }

 private:
  ZephApplication* application;
  CommerceLibraryTable library_table;
  String last_error;
};

#endif
