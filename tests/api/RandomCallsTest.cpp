// Calls in a random order, with arguments that a careless library passes: texts that belong to the
// object which is changed, wrong lengths, elements of an array as their own array. Nothing here may
// crash or leak, as the sanitizers see. What a model can tell in a few lines is compared with it.

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/values/Variable.h"
#include "tests/support/Rounds.h"

namespace {

// A text argument and what a function sees of it.
struct Text {
  const char* bytes;
  int length;
  std::string seen() const {
    if (!bytes || (length < 0 && length != -1)) return "";
    return length == -1 ? std::string(bytes) : std::string(bytes, static_cast<size_t>(length));
  }
};

class Library {
 public:
  explicit Library(unsigned seed) : random(seed) {
    for (ZPVARIABLE& v : variables) v = zpVariable_Allocate("name", -1, "value", -1);
    for (ZPVARIABLELIST& list : lists) list = zpVariableList_Allocate();
    for (ZPVARIABLEHASH& hash : hashes) hash = zpVariableHash_Allocate();
  }
  ~Library() {
    for (ZPVARIABLE v : variables) zpVariable_Free(v);
    for (ZPVARIABLELIST list : lists) zpVariableList_Free(list);
    for (ZPVARIABLEHASH hash : hashes) zpVariableHash_Free(hash);
    // As the host does at the end of a request: what holds itself goes now.
    Variable::FreeCycles();
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void CallOne() {
    switch (Below(4)) {
      case 0: return CallForValue();
      case 1: return CallForElements();
      case 2: return CallForList();
      default: return CallForTable();
    }
  }

 private:
  int Below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(random); }
  ZPVARIABLE Any() { return variables[Below(std::size(variables))]; }
  int Place() {
    static const int places[] = {1, 2, 3, 2, 1, 0, -1, INT_MIN};
    return places[Below(std::size(places))];
  }
  // A constant, or the name or the value of a variable of which parts may be passed.
  Text AnyText() {
    static const char* const constants[] = {"", "a", "A", "12", "-1.5", "name", "a longer text"};
    if (Below(12) == 0) return {nullptr, Below(2) - 1};
    const char* bytes = constants[Below(std::size(constants))];
    int length = static_cast<int>(std::string(bytes).size());
    if (Below(2) == 0) {
      int own_length = 0;
      const char* const own = Below(2) == 0 ? zpVariable_Value(Any(), &own_length)
                                            : zpVariable_Name(Any(), &own_length);
      if (own && own_length < 2000) {
        const int begin = Below(own_length + 1);
        bytes = own + begin;
        length = own_length - begin;
      }
    }
    switch (Below(4)) {
      case 0: return {bytes, -1};
      case 1: return {bytes, length == 0 ? 0 : Below(length)};
      case 2: return {bytes, length};
      default: return {bytes, Below(2) == 0 ? -2 : INT_MIN};
    }
  }

  void CallForValue() {
    const ZPVARIABLE v = Any();
    switch (Below(11)) {
      case 0: zpVariable_SetValue_Integer(v, Place()); break;
      case 1: zpVariable_SetValue_Double(v, Place() / 3.0); break;
      case 2:
      case 3: {
        const Text text = AnyText();
        const std::string seen = text.seen();
        const bool direct = zpVariable_RealIdentity(v) == v;
        zpVariable_SetValue(v, text.bytes, text.length);
        int length = -1;
        const char* const value = zpVariable_Value(v, &length);
        if (direct) {
          EXPECT_EQ(std::string(value, static_cast<size_t>(length)), seen);
        }
        break;
      }
      case 4: zpVariable_SetValue_Variable(v, Any()); break;
      case 5: {
        char* const owned = static_cast<char*>(zpProgram_Allocate(nullptr, 8));
        for (int i = 0; i < 8; i++) owned[i] = static_cast<char>('a' + i);
        zpVariable_SetValue_Nocopy(v, owned, Below(8), 8);
        break;
      }
      case 6: {
        const ZPVARIABLE copy = zpVariable_Allocate_Copy(v);
        zpVariable_Free(copy);
        break;
      }
      case 7:
        if (Below(4) == 0) zpVariable_Make_Reference(v, Any());
        break;
      case 8: {
        char* const stripped = zpVariable_Value_NS(v, nullptr);
        EXPECT_NE(stripped, nullptr);
        zpProgram_Free(nullptr, stripped);
        break;
      }
      case 9:
        zpProgram_Compare(nullptr, v, Any());
        zpVariable_Value_Integer(v);
        zpVariable_Value_Double(v);
        break;
      default: {
        ZPVARIABLE& changed = variables[Below(std::size(variables))];
        const Text name = AnyText();
        const ZPVARIABLE made = zpVariable_Allocate(name.bytes, name.length, "new", -1);
        zpVariable_Free(changed);
        changed = made;
      }
    }
  }

  void CallForElements() {
    const ZPVARIABLE v = Any();
    switch (Below(12)) {
      case 0: zpVariable_Array_Element(Place(), v, Below(2)); break;
      case 1: {
        const Text name = AnyText();
        zpVariable_Struct_Member(name.bytes, name.length, v, Below(2));
        break;
      }
      case 2: zpVariable_Set_Array_Element(Place(), Any(), v); break;
      case 3: {
        const Text name = AnyText();
        zpVariable_Set_Struct_Member(name.bytes, name.length, Any(), v);
        break;
      }
      case 4: zpVariable_Insert_Array_Element(Place(), Any(), v); break;
      case 5: zpVariable_Delete_Array_Elements(Place(), Place(), Below(2), v); break;
      case 6: {
        const Text name = AnyText();
        zpVariable_Delete_Struct_Member(name.bytes, name.length, v);
        break;
      }
      case 7: zpVariable_Array_Merge(Any(), Place(), Place(), Place(), Below(2), v); break;
      case 8: zpVariable_Array_Copy(Any(), Place(), Place(), Place(), Below(2), v); break;
      case 9: {
        zpVariable_Array_Collapse(v);
        const ZPVARIABLE element = zpVariable_Array_Element(1, v, 0);
        // The value of an element becomes that of its array, and the other way round.
        if (element) zpVariable_SetValue_Variable(Below(2) ? v : element, Below(2) ? element : v);
        break;
      }
      case 10: {
        const ZPVARIABLELIST list = zpVariableList_Allocate();
        zpVariable_Aggregate_List(v, list);
        if (zpVariable_Aggregate_Type(v) > 0) {
          EXPECT_EQ(zpVariableList_Entries(list), zpVariable_ElementsUsed(v));
        }
        zpVariableList_Free(list);
        break;
      }
      default: EXPECT_LE(zpVariable_Array_Min(v), zpVariable_Array_Max(v));
    }
  }

  void CallForList() {
    const ZPVARIABLELIST list = lists[Below(std::size(lists))];
    switch (Below(6)) {
      case 0:
        if (zpVariableList_Entries(list) < 20) zpVariableList_Insert(list, Any());
        break;
      case 1:
      case 2: {
        const Text name = AnyText();
        const Text value = AnyText();
        zpVariableList_SetVariable(list, name.bytes, name.length, value.bytes, value.length);
        break;
      }
      case 3: {
        // Name and value belong to a variable of the list.
        ZPVARIABLE found = zpVariableList_First(list);
        for (int i = Below(4); found && i > 0; i--) found = zpVariableList_Next(list);
        if (!found) break;
        int name_length, value_length;
        const char* const name = zpVariable_Name(found, &name_length);
        const char* const value = zpVariable_Value(found, &value_length);
        zpVariableList_SetVariable(list, name, name_length, value, value_length);
        break;
      }
      case 4: {
        const Text name = AnyText();
        if (zpVariableList_Find(list, name.bytes, name.length)) {
          EXPECT_NE(zpVariableList_Current(list), nullptr);
        }
        break;
      }
      default:
        if (Below(5) == 0) {
          zpVariableList_Dump(list);
          EXPECT_EQ(zpVariableList_Entries(list), 0);
        }
    }
  }

  void CallForTable() {
    const ZPVARIABLEHASH hash = hashes[Below(std::size(hashes))];
    switch (Below(6)) {
      case 0: {
        const Text name = AnyText();
        zpVariableHash_Insert(hash, zpVariable_Allocate(name.bytes, name.length, "x", -1));
        break;
      }
      case 1: {
        const Text name = AnyText();
        zpVariableHash_ReplaceVariable(hash, zpVariable_Allocate(name.bytes, name.length, "y", -1));
        break;
      }
      case 2: {
        const Text name = AnyText();
        const Text value = AnyText();
        const std::string seen = value.seen();
        const std::string key = name.seen();
        zpVariableHash_SetVariable(hash, name.bytes, name.length, value.bytes, value.length);
        const ZPVARIABLE found =
            zpVariableHash_Find(hash, key.data(), static_cast<int>(key.size()));
        if (found) {
          EXPECT_EQ(std::string(zpVariable_Value(found, nullptr)), seen.c_str());
        }
        break;
      }
      case 3: {
        const ZPVARIABLE found = zpVariableHash_Index(hash, Below(8), 0);
        if (!found) break;
        int name_length, value_length;
        const char* const name = zpVariable_Name(found, &name_length);
        const char* const value = zpVariable_Value(found, &value_length);
        zpVariableHash_SetVariable(hash, name, name_length, value, value_length);
        break;
      }
      case 4: zpVariableHash_Index(hash, Place(), Below(2)); break;
      default:
        if (Below(5) == 0) zpVariableHash_Dump(hash);
    }
  }

  std::mt19937 random;
  ZPVARIABLE variables[5];
  ZPVARIABLELIST lists[2];
  ZPVARIABLEHASH hashes[2];
};

TEST(RandomCalls, OfVariablesListsAndTablesAreSafe) {
  for (unsigned seed = 0; seed < Rounds(3000u); seed++) {
    SCOPED_TRACE(seed);
    Library library(seed);
    for (int i = 0; i < 60; i++) library.CallOne();
    if (testing::Test::HasFailure()) break;
  }
}

TEST(RandomCalls, OfABufferHaveTheTextOfTheirPieces) {
  for (unsigned seed = 0; seed < Rounds(3000u); seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](int end) {
      return std::uniform_int_distribution<int>(0, end - 1)(random);
    };
    const ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(below(20) - 3, below(20) - 3);
    std::string model;
    for (int i = 0; i < 40; i++) {
      switch (below(8)) {
        case 0: {
          static const int wrong[] = {-1, -2, INT_MIN, 0};
          zpLinkBuffer_Concat_String(buffer, "text", wrong[below(4)]);
          break;
        }
        case 1: {
          const int length = below(5);
          zpLinkBuffer_Concat_String(buffer, "text", length);
          model.append("text", static_cast<size_t>(length));
          break;
        }
        case 2: {
          const int size = below(30), used = below(size + 1);
          char* const owned = static_cast<char*>(zpProgram_Allocate(nullptr, size));
          for (int b = 0; b < used; b++) owned[b] = 'o';
          zpLinkBuffer_Concat_String_Nocopy(buffer, owned, used, size);
          model.append(static_cast<size_t>(used), 'o');
          break;
        }
        case 3:
          zpLinkBuffer_Concat_String_Nocopy(buffer, nullptr, below(3) - 1, below(3) - 1);
          break;
        case 4:
          zpLinkBuffer_Concat_HexChar(buffer, 0xA5);
          model += "A5";
          break;
        case 5: {
          // A part of the buffer's own text.
          int length = -1;
          const char* const own = zpLinkBuffer_Data(buffer, &length, nullptr);
          ASSERT_EQ(std::string(own, static_cast<size_t>(length)), model);
          if (length > 1000) break;
          const int begin = below(length + 1);
          const std::string part(own + begin, static_cast<size_t>(length - begin));
          zpLinkBuffer_Concat_String(buffer, own + begin, length - begin);
          model += part;
          break;
        }
        case 6:
          zpLinkBuffer_Concat_Int(buffer, -12);
          model += "-12";
          break;
        default: {
          if (below(4) != 0) break;
          const int extra = below(5) - 2;
          int length = -1, allocated = -1;
          char* const released = zpLinkBuffer_Release(buffer, &length, &allocated, extra);
          ASSERT_NE(released, nullptr);
          ASSERT_EQ(std::string(released, static_cast<size_t>(length)), model);
          EXPECT_GE(allocated, length + (extra > 0 ? extra : 0));
          if (extra > 0) {
            EXPECT_EQ(released[length], '\0');
          }
          zpProgram_Free(nullptr, released);
          model.clear();
        }
      }
    }
    zpLinkBuffer_Free(buffer);
  }
}

}  // namespace
