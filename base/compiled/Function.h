// The functions of a script: those compiled into it, and those that it only names, which are found
// in an external library at run time.

#ifndef ZEPH_BASE_FUNCTION_H
#define ZEPH_BASE_FUNCTION_H

#include <memory>
#include <string>
#include <vector>

#include "base/compiled/StoredNameTable.h"
#include "base/compiled/VariableHash.h"
#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class Dictionary;
class TaggedFile;
class ZephApplication;

// Bits of a function's flags.
enum FunctionFlags : int {
  Function_External = 1,
  Function_OutputMode1 = 2,
  Function_ErrorOutputOn = 4,
  Function_ErrorOutputOff = 8,  // applied after the bit above
  Function_InheritOutputMode = 16,
};

// One declared parameter. Copies the name.
class FunctionParameter {
 public:
  FunctionParameter(int name_id, const char* name, int length, int flags, int index);
  virtual ~FunctionParameter();

  int nameid() const { return name_id; }
  const String& name() const { return parameter_name; }
  bool byreference() const { return (flags & 1) != 0; }
  // The flags as the file holds them. The engine uses only bit 0.
  int flagword() const { return flags; }
  // The position of its variable in the function's local table.
  int index() const { return variable_index; }

 private:
  int name_id;
  String parameter_name;
  int flags;
  int variable_index;
};

// One function. Owned by its FunctionManager.
class Function {
 public:
  // Copies the name; a null one is empty. The dictionary is borrowed.
  Function(int index, int flags, int name_id, const char* name, int length, int segment, int offset,
           Dictionary* dictionary);
  // For the clone of a machine: a copy on another dictionary with the same ids.
  Function(ZephApplication* application, Dictionary* dictionary, Function& other);
  Function(const Function&) = delete;
  Function& operator=(const Function&) = delete;
  virtual ~Function();

  // Declares a parameter: adds its name to the dictionary and a variable of that name to the local
  // table. Returns the variable's position.
  int AddParameter(int byreference, const char* name, int length);
  // Declares the parameters of a comma-separated list. Each is a name, followed by "var" if it is
  // passed by reference. An empty piece is a parameter without a name.
  void SetParameters(const char* text, int length);

  // The position in the manager, the operand of a call.
  int index() const { return function_index; }
  int flags() const { return flag_word; }
  int nameid() const { return name_id; }
  const String& name() const { return function_name; }
  // In the order of declaration.
  List<FunctionParameter>& parameters() { return parameter_list; }
  // The same in an array, for calls. Valid until a parameter is added.
  const std::vector<FunctionParameter*>& slots() {
    if (!has_slots) FillSlots();
    return parameter_slots;
  }
  // The place where the code begins; both are -1 for an external function.
  int segment() const { return segment_number; }
  int offset() const { return entry_offset; }
  Dictionary* dictionary() const { return name_dictionary; }
  // Names and positions of the local variables. A template: each call has its own copy.
  VariableHash& variables() { return local_variables; }

  // For external calls, which keep their data here. Null at first, not owned.
  void* calldata = nullptr;

 private:
  void FillSlots();

  int function_index;
  int flag_word;
  int name_id;
  String function_name;
  List<FunctionParameter> parameter_list;
  std::vector<FunctionParameter*> parameter_slots;
  bool has_slots = false;
  int segment_number;
  int entry_offset;
  Dictionary* name_dictionary;
  VariableHash local_variables;
};

// The table of functions, by index and by name without regard to case. Belongs to one machine; a
// clone has its own.
//
// A script may contain a whole library of functions and call two of them. Read therefore only
// checks the section and keeps its bytes; a Function is made from them when it is first looked up.
// A script cannot observe this, because a dictionary only grows, and the name ids refer to the
// entries that it had at the time of Read.
class FunctionManager {
 public:
  // The dictionary is borrowed. bits is log2 of the bucket count, at most 16.
  explicit FunctionManager(Dictionary* dictionary, int bits = 8, int capacity = 64);
  // For the clone of a machine: copies all functions, on another dictionary with the same ids.
  FunctionManager(ZephApplication* application, Dictionary* dictionary, FunctionManager& other);
  FunctionManager(const FunctionManager&) = delete;
  FunctionManager& operator=(const FunctionManager&) = delete;
  virtual ~FunctionManager();

  // The function of a name, or null; the first if several have it. A length of -1 means strlen.
  virtual Function* Function_Get(const char* name, int length);
  virtual String& error();
  // A null String leaves the older text.
  virtual void Error(const String& text);

  // All forms of Function_Add return the new function, which the manager owns.
  //
  // A function of the script. Adds its name to the dictionary.
  Function* Function_Add(int segment, int offset, const char* name, int name_length,
                         const char* parameters, int parameters_length, int flags);
  // An external function. Adds its name to the dictionary.
  Function* Function_Add(const char* name, int length, int flags);
  // A stand-in without code for a function of another manager, with the same name id and
  // parameters.
  Function* Function_Add(Function* other);
  // Adopts a function. REQUIRES: it was made with the index Functions().
  Function* Function_Add(Function* function, const char* name, int length);

  // The function of an index; null for an invalid one.
  Function* Lookup(int index) const {
    if (static_cast<unsigned>(index) >= static_cast<unsigned>(table.count())) return nullptr;
    Function* function = functions[index].get();
    return function ? function : MakeStored(index);
  }
  int Functions() const { return table.count(); }
  // The bucket of a name.
  int hash(const char* name, int length) const;

  // Read and write the section "func". Read replaces all functions; after a failure those before
  // the broken one are there. A failure stores the file's text. Write leaves its section open: the
  // caller ends it.
  [[nodiscard]] bool Read(TaggedFile* file);
  [[nodiscard]] bool Write(TaggedFile* file);

 private:
  // The functions of a section as bytes, shared with clones.
  struct Stored {
    std::unique_ptr<unsigned char[]> bytes;
    int length = 0;
    int count = 0;                   // of complete functions
    std::unique_ptr<int[]> offsets;  // of each function in the bytes
    int dictionary_entries = 0;      // when they were read

    // The text of a name id, null if there is none.
    const char* Name(const Dictionary& names, int id, int* name_length) const;
  };

  bool ReadSection(TaggedFile* file);
  bool ReadFunctions(TaggedFile* file, long long start, int count);
  bool Write(TaggedFile* file, Function* function);
  Function* MakeStored(int index) const;
  const char* NameOf(int index, int* length) const;
  Function* Enter(std::unique_ptr<Function> function, const char* name, int length);

  String error_text;
  StoredNameTable table;
  std::unique_ptr<std::unique_ptr<Function>[]>
      functions;  // array and elements are made when first needed
  std::shared_ptr<const Stored> stored;
  Dictionary* dictionary;
};

#endif
