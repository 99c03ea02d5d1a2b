// A call of one of the library's functions. Before a function runs, its arguments are read as the
// kinds that its row of Functions.def says; if one is of another kind, the script has its error and
// the function does not run. So a function finds what it wants, and the rules for arguments are in
// one place. Tested in tests/extensions/zephstd/ArgumentsTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_CALL_H
#define ZEPH_EXTENSIONS_ZEPHSTD_CALL_H

#include <cstddef>
#include <string>
#include <string_view>

#include "api/zeph.h"

namespace zephstd {

inline constexpr int kMostBytes = 64 << 20;      // of a text that a function makes
inline constexpr int kMostElements = 1'000'000;  // of an array that a function makes
inline constexpr int kMostParameters = 8;
inline constexpr long long kMostInteger = 1LL << 53;

enum class Kind : unsigned char { Text, Integer, Number, List, Any };

struct Parameter {
  std::string_view name;
  Kind kind = Kind::Text;
  bool optional = false;
  bool reference = false;
};

// A row of Functions.def.
struct Row {
  std::string_view name;
  const Parameter* parameters;
  int count;
};

class Call {
 public:
  // All but the row is borrowed for the call.
  Call(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, const Row& row);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  ZPPROGRAM program() const { return running; }
  // Where the function stores its result; NULL at first.
  ZPVARIABLE result() const { return returned; }
  // True after an error: the function must then return.
  bool failed() const { return has_failed; }

  // The arguments, from 0 on. REQUIRES: the parameter is of that kind.
  std::string_view text(int i) const { return arguments[i].text; }
  long long integer(int i) const { return arguments[i].integer; }
  double number(int i) const { return arguments[i].number; }
  // Of any kind; borrowed. By value it is the function's own copy.
  ZPVARIABLE variable(int i) const { return arguments[i].variable; }
  // False for an empty argument; only for an optional parameter.
  bool given(int i) const { return arguments[i].given; }
  // What the page declares as the parameter's name, for messages about an argument.
  std::string_view name(int i) const { return row.parameters[i].name; }

  // End the script with the name of the function in front of the message; the second one also names
  // the argument. Return false.
  bool Fail(std::string_view message);
  bool Fail(int i, std::string_view message);
  // The same with a part of an argument in quotes, encoded for HTML because errors are on pages.
  // Nothing else of an argument may be in a message.
  bool Fail(int i, std::string_view message, std::string_view quoted);
  // The error of a result that is too large.
  bool FailTooLarge();

  // Store the result.
  void Return(std::string_view text) const;
  void Return(const std::string& text) const { Return(std::string_view(text)); }
  void Return(const char*) const = delete;
  void ReturnInteger(long long value) const;
  // As an integer if it is one of 32 bits.
  void ReturnNumber(double value) const;

 private:
  struct Argument {
    ZPVARIABLE variable = nullptr;
    std::string_view text;
    long long integer = 0;
    double number = 0;
    bool given = true;
  };
  // Those of the row are made by the constructor, because most functions have one or two.
  union Arguments {
    Arguments() {}
    Argument of[kMostParameters];
  };

  bool Read(int i);
  bool ReadNumber(int i);

  ZPPROGRAM running;
  ZPVARIABLE returned;
  const Row& row;
  bool has_failed = false;
  Arguments made;
  Argument* const arguments = made.of;
};

// Stores a number: an integer if it is one of 32 bits.
void StoreNumber(ZPVARIABLE variable, double value);
// The whole part, at most 2^53 on both sides of 0; 0 for what is no number.
long long WholePart(double value);
// Reads a number as the language has them: digits with a sign, a point and an exponent, or
// hexadecimal ones after 0x. False for any other text, an empty one and infinity included.
bool ReadNumber(std::string_view text, double* value);
// The text of a variable, which is valid until its next change or read; of an array or a structure
// all elements with commas between.
std::string_view TextOf(ZPVARIABLE variable);
inline bool IsAggregate(ZPVARIABLE variable) {
  return zpVariable_Aggregate_Type(variable) > 0;
}

// The text of a result while it grows. It is in the object at first, and in memory that the engine
// can adopt when it is longer, so that a short one takes no memory and a long one is not copied.
class Builder {
 public:
  explicit Builder(Call& call) : call(call), program(call.program()) {}
  ~Builder();
  Builder(const Builder&) = delete;
  Builder& operator=(const Builder&) = delete;

  void Add(std::string_view text) {
    if (char* to = Room(text.size())) text.copy(to, text.size());
  }
  void Add(char c) {
    if (char* to = Room(1)) *to = c;
  }
  void Add(size_t count, char c);
  // Returns room for so many bytes, which belong to the text and which the caller writes. Null, and
  // the script has its error, if the text is too large.
  char* Room(size_t count) {
    if (count > capacity - used && !Grow(count)) return nullptr;
    char* const to = data + used;
    used += count;
    return to;
  }
  // Takes back bytes of the last room.
  void Drop(size_t count) { used -= count; }

  size_t size() const { return used; }
  std::string_view text() const { return {data, used}; }
  bool failed() const { return call.failed(); }
  // Makes the text the function's result, unless there was an error. Called last.
  void Return();

 private:
  static constexpr size_t kInside = 512;
  bool Grow(size_t count);

  Call& call;
  ZPPROGRAM program;
  char inside[kInside];
  char* data = inside;
  size_t capacity = kInside;
  size_t used = 0;
};

// An array that a function makes: its result, or an element of it.
class ArrayBuilder {
 public:
  // Makes the variable an empty array. It is borrowed.
  ArrayBuilder(Call& call, ZPVARIABLE array);

  // Append; no effect after an error. The second makes the variable itself the element.
  void Add(std::string_view text);
  void Share(ZPVARIABLE element);
  void AddNumber(double value);
  // Appends an empty element and returns it, borrowed; null after an error, such as that the array
  // has too many elements.
  ZPVARIABLE Next();
  int size() const { return used; }

 private:
  bool HasRoom();

  Call& call;
  ZPVARIABLE array;
  int used = 0;
};

// Makes a variable an array, or a structure, without elements.
void MakeArray(ZPVARIABLE variable);
void MakeStructure(ZPVARIABLE variable);

// A list of variables, and its end.
class VariableList {
 public:
  VariableList() : list(zpVariableList_Allocate()) {}
  ~VariableList() { zpVariableList_Free(list); }
  VariableList(const VariableList&) = delete;
  VariableList& operator=(const VariableList&) = delete;
  ZPVARIABLELIST get() const { return list; }

 private:
  ZPVARIABLELIST list;
};

// Calls each(element, position, name) for all elements in their order: the position in an array,
// whose elements have no name, or the name in a structure, with the position 0. Stops at the first
// that returns false. Nothing for a value that is neither.
template <class Each>
void EachElement(ZPVARIABLE list, Each each) {
  const int type = zpVariable_Aggregate_Type(list);
  if (type == 1) {
    for (int position = zpVariable_Array_Next(0, list); position > 0;
         position = zpVariable_Array_Next(position, list)) {
      if (!each(zpVariable_Array_Element(position, list, 0), position, std::string_view())) return;
    }
  } else if (type == 2) {
    const VariableList members;
    zpVariable_Aggregate_List(list, members.get());
    for (ZPVARIABLE member = zpVariableList_First(members.get()); member != nullptr;
         member = zpVariableList_Next(members.get())) {
      int length = 0;
      const char* const name = zpVariable_Name(member, &length);
      ZPVARIABLE const real = zpVariable_RealIdentity(member);
      if (!each(real, 0, std::string_view(name, static_cast<size_t>(length)))) return;
    }
  }
}

// Returns a text from its last character to its first.
void ReverseText(Call& call, std::string_view text);

// The functions, each with the name of its row.
namespace functions {
#define FUNCTION(name, parameters, result, help) void name(Call& call);
#include "extensions/zephstd/Functions.def"
}  // namespace functions

}  // namespace zephstd

#endif
