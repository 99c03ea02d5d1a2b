#include "api/zeph.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "tests/api/ProgramFixture.h"

namespace {

// Values that the test frees at its end.
class zpVariable : public testing::Test {
 protected:
  ~zpVariable() override {
    for (ZPVARIABLE variable : made) zpVariable_Free(variable);
  }
  ZPVARIABLE Make(const char* value = "", const char* name = "x") {
    return Keep(zpVariable_Allocate(name, -1, value, -1));
  }
  ZPVARIABLE Keep(ZPVARIABLE variable) {
    made.push_back(variable);
    return variable;
  }
  // An array of the texts.
  ZPVARIABLE Array(const std::vector<const char*>& texts) {
    ZPVARIABLE array = Make();
    int index = 1;
    for (const char* text : texts) {
      zpVariable_SetValue(zpVariable_Array_Element(index++, array, 1), text, -1);
    }
    return array;
  }
  static std::string Value(ZPVARIABLE variable) { return TextOf(zpVariable_Value, variable); }

  std::vector<ZPVARIABLE> made;
};

TEST_F(zpVariable, IsMadeWithNameAndValue) {
  ZPVARIABLE variable = Keep(zpVariable_Allocate("name and more", 4, "12 and more", 2));
  EXPECT_EQ(TextOf(zpVariable_Name, variable), "name");
  EXPECT_EQ(Value(variable), "12");
  EXPECT_EQ(zpVariable_Value_Integer(variable), 12);
  EXPECT_EQ(zpVariable_Value_Double(variable), 12.0);
  EXPECT_STREQ(zpVariable_Value(variable, nullptr), "12");
}

TEST_F(zpVariable, FreeGivesOneCountBack) {
  Variable* variable = zpVariable_Allocate("x", -1, "1", -1);
  variable->IncRefCount();
  zpVariable_Free(variable);
  EXPECT_EQ(variable->refcount(), 1);
  zpVariable_Free(variable);
}

TEST_F(zpVariable, CopyHasItsOwnElements) {
  ZPVARIABLE array = Array({"a", "b"});
  ZPVARIABLE copy = Keep(zpVariable_Allocate_Copy(array));
  zpVariable_SetValue(zpVariable_Array_Element(1, copy, 0), "changed", -1);
  EXPECT_EQ(Value(array), "a,b");
  EXPECT_EQ(Value(copy), "changed,b");
}

TEST_F(zpVariable, StoresEachForm) {
  ZPVARIABLE variable = Make();
  EXPECT_EQ(zpVariable_SetValue_Integer(variable, -7), 1);
  EXPECT_EQ(Value(variable), "-7");
  EXPECT_EQ(zpVariable_SetValue_Double(variable, 1.5), 1);
  EXPECT_EQ(Value(variable), "1.5");
  EXPECT_EQ(zpVariable_SetValue(variable, "text\0more", 9), 1);
  EXPECT_EQ(Value(variable), std::string("text\0more", 9));
  ZPVARIABLE other = Make("other");
  EXPECT_EQ(zpVariable_SetValue_Variable(variable, other), 1);
  EXPECT_EQ(Value(variable), "other");
}

TEST_F(zpVariable, TakesABufferOver) {
  ZPVARIABLE variable = Make();
  auto* buffer = static_cast<char*>(zpProgram_Allocate(nullptr, 8));
  memcpy(buffer, "taken", 6);
  EXPECT_EQ(zpVariable_SetValue_Nocopy(variable, buffer, 5, 8), 1);
  EXPECT_EQ(Value(variable), "taken");
}

TEST_F(zpVariable, ValueWithoutNULBytesIsACopy) {
  ZPVARIABLE variable = Make();
  zpVariable_SetValue(variable, "a\0b\0", 4);
  int length = -1;
  char* text = zpVariable_Value_NS(variable, &length);
  EXPECT_EQ(length, 2);
  EXPECT_STREQ(text, "ab");
  zpProgram_Free(nullptr, text);
  zpProgram_Free(nullptr, zpVariable_Value_NS(variable, nullptr));
  ZPVARIABLE nothing = Keep(new NULLVariable);
  text = zpVariable_Value_NS(nothing, &length);
  EXPECT_EQ(length, 0);
  EXPECT_STREQ(text, "");
  zpProgram_Free(nullptr, text);
}

TEST_F(zpVariable, WithoutAValueIsNULL) {
  for (ZPVARIABLE variable :
       {zpVariable_Allocate("name", -1, nullptr, 5), zpVariable_Allocate("name", -1, nullptr, -1),
        zeph_variable_new("name", nullptr)}) {
    EXPECT_EQ(zpVariable_Type(variable), 0);
    EXPECT_STREQ(zpVariable_Name(variable, nullptr), "name");
    zpVariable_Free(variable);
  }
  ZPVARIABLE empty = zpVariable_Allocate("name", -1, "", 0);
  EXPECT_EQ(zpVariable_Type(empty), 3);
  zpVariable_Free(empty);
}

TEST_F(zpVariable, TypeCodes) {
  ZPVARIABLE variable = Keep(new Variable);
  EXPECT_EQ(zpVariable_Type(variable), 0);
  EXPECT_EQ(zpVariable_Aggregate_Type(variable), 0);
  zpVariable_SetValue_Integer(variable, 1);
  EXPECT_EQ(zpVariable_Type(variable), 1);
  zpVariable_SetValue_Double(variable, 1);
  EXPECT_EQ(zpVariable_Type(variable), 2);
  zpVariable_SetValue(variable, "1", 1);
  EXPECT_EQ(zpVariable_Type(variable), 3);
  zpVariable_Struct_Member("m", -1, variable, 1);
  EXPECT_EQ(zpVariable_Type(variable), 4);
  EXPECT_EQ(zpVariable_Aggregate_Type(variable), 2);
  zpVariable_Array_Element(1, variable, 1);
  EXPECT_EQ(zpVariable_Type(variable), 5);
  EXPECT_EQ(zpVariable_Aggregate_Type(variable), 1);
}

TEST_F(zpVariable, ReferencesLeadToTheirTarget) {
  ZPVARIABLE target = Make("target");
  ZPVARIABLE middle = Make();
  ZPVARIABLE reference = Make();
  zpVariable_Make_Reference(middle, target);
  zpVariable_Make_Reference(reference, middle);
  EXPECT_EQ(zpVariable_RealIdentity(reference), target);
  EXPECT_EQ(zpVariable_RealIdentity(target), target);
  EXPECT_NE(zpVariable_NextIdentity(reference), reference);
  zpVariable_SetValue(reference, "written", -1);
  EXPECT_EQ(Value(target), "written");
}

TEST_F(zpVariable, ElementsAreMadeOnlyWithCreate) {
  ZPVARIABLE variable = Make("scalar");
  EXPECT_EQ(zpVariable_Array_Element(1, variable, 0), nullptr);
  EXPECT_EQ(zpVariable_Struct_Member("m", -1, variable, 0), nullptr);
  EXPECT_EQ(Value(variable), "scalar");
  ZPVARIABLE element = zpVariable_Array_Element(3, variable, 1);
  EXPECT_EQ(zpVariable_Array_Element(3, variable, 0), element);
  ZPVARIABLE member = zpVariable_Struct_Member("Name and more", 4, variable, 1);
  EXPECT_EQ(zpVariable_Struct_Member("nAME", -1, variable, 0), member);
}

TEST_F(zpVariable, ElementFunctionsTakeTheTargetLast) {
  ZPVARIABLE array = Array({"a", "b", "c"});
  ZPVARIABLE value = Make("new");
  zpVariable_Set_Array_Element(2, value, array);
  EXPECT_EQ(Value(array), "a,new,c");
  EXPECT_EQ(zpVariable_Array_Element(2, array, 0), value);
  zpVariable_Insert_Array_Element(1, Make("front"), array);
  zpVariable_Insert_Array_Element(0, Make("end"), array);
  EXPECT_EQ(Value(array), "front,a,new,c,end");
  zpVariable_Delete_Array_Elements(2, 2, 1, array);
  EXPECT_EQ(Value(array), "front,c,end");
  EXPECT_EQ(zpVariable_Array_Max(array), 3);
  zpVariable_Delete_Array_Elements(2, 1, 0, array);
  EXPECT_EQ(zpVariable_Array_Max(array), 3);
  EXPECT_EQ(zpVariable_ElementsUsed(array), 2);
  EXPECT_EQ(zpVariable_Array_Min(array), 1);
  EXPECT_EQ(zpVariable_Array_Next(1, array), 3);
  EXPECT_EQ(zpVariable_Array_Previous(3, array), 1);
  EXPECT_EQ(zpVariable_Array_Collapse(array), 2);
  EXPECT_EQ(zpVariable_Array_Max(array), 2);
}

TEST_F(zpVariable, MembersAreSetAndDeleted) {
  ZPVARIABLE structure = Make();
  zpVariable_Set_Struct_Member("one", -1, Make("1"), structure);
  zpVariable_Set_Struct_Member("two", -1, Make("2"), structure);
  EXPECT_EQ(zpVariable_ElementsUsed(structure), 2);
  zpVariable_Delete_Struct_Member("ONE", -1, structure);
  EXPECT_EQ(Value(structure), "2");
}

TEST_F(zpVariable, RangesAreMergedAndCopied) {
  ZPVARIABLE array = Array({"a", "b"});
  ZPVARIABLE source = Array({"1", "2", "3"});
  zpVariable_Array_Merge(source, 2, 2, 2, 1, array);
  EXPECT_EQ(Value(array), "a,2,3,b");
  zpVariable_Array_Copy(source, 1, 1, 4, 0, array);
  EXPECT_EQ(Value(array), "a,2,3,1");
  EXPECT_EQ(zpVariable_Array_Element(4, array, 0), zpVariable_Array_Element(1, source, 0));
}

TEST_F(zpVariable, ElementsAreListedInOrderUnderTheirKeys) {
  ZPVARIABLE structure = Make();
  zpVariable_SetValue(zpVariable_Struct_Member("zeta", -1, structure, 1), "z", -1);
  zpVariable_SetValue(zpVariable_Struct_Member("alpha", -1, structure, 1), "a", -1);
  ZPVARIABLELIST list = zpVariableList_Allocate();
  zpVariable_Aggregate_List(structure, list);
  zpVariable_Aggregate_List(Array({"first"}), list);
  zpVariable_Aggregate_List(Make("scalar"), list);
  ASSERT_EQ(zpVariableList_Entries(list), 3);
  ZPVARIABLE variable = zpVariableList_First(list);
  EXPECT_EQ(TextOf(zpVariable_Name, variable), "alpha");
  EXPECT_EQ(Value(variable), "a");
  zpVariable_SetValue(variable, "written", -1);
  EXPECT_EQ(Value(zpVariable_Struct_Member("alpha", -1, structure, 0)), "written");
  EXPECT_EQ(TextOf(zpVariable_Name, zpVariableList_Next(list)), "zeta");
  EXPECT_EQ(TextOf(zpVariable_Name, zpVariableList_Next(list)), "1");
  zpVariableList_Free(list);
}

// --- Lists ---------------------------------------------------------------------------------------

class zpVariableList : public zpVariable {
 protected:
  zpVariableList() : list(zpVariableList_Allocate()) {}
  ~zpVariableList() override { zpVariableList_Free(list); }

  ZPVARIABLELIST list;
};

TEST_F(zpVariableList, AppendsAndWalks) {
  EXPECT_EQ(zpVariableList_Entries(list), 0);
  EXPECT_EQ(zpVariableList_First(list), nullptr);
  ZPVARIABLE one = Make("1");
  ZPVARIABLE two = Make("2");
  zpVariableList_Insert(list, one);
  zpVariableList_Insert(list, two);
  EXPECT_EQ(one->refcount(), 2);
  EXPECT_EQ(zpVariableList_First(list), one);
  EXPECT_EQ(zpVariableList_Current(list), one);
  EXPECT_EQ(zpVariableList_Next(list), two);
  EXPECT_EQ(zpVariableList_Next(list), nullptr);
  zpVariableList_Dump(list);
  EXPECT_EQ(zpVariableList_Entries(list), 0);
  EXPECT_EQ(one->refcount(), 1);
}

TEST_F(zpVariableList, FindsNamesInAnyCase) {
  ZPVARIABLE name = Make("1", "Name");
  ZPVARIABLE names = Make("2", "names");
  zpVariableList_Insert(list, names);
  zpVariableList_Insert(list, name);
  zpVariableList_Insert(list, Make("3", "NAME"));
  EXPECT_EQ(zpVariableList_Find(list, "nAmE", -1), name);
  EXPECT_EQ(zpVariableList_Find(list, "names and more", 5), names);
  EXPECT_EQ(zpVariableList_Find(list, "nam", -1), nullptr);
  EXPECT_EQ(zpVariableList_Find(list, "", -1), nullptr);
}

TEST_F(zpVariableList, StoresInTheVariableOfThatNameOrAppendsOne) {
  zpVariableList_SetVariable(list, "name", -1, "1", -1);
  zpVariableList_SetVariable(list, "other and more", 5, "2 and more", 1);
  zpVariableList_SetVariable(list, "NAME", -1, "3", -1);
  ASSERT_EQ(zpVariableList_Entries(list), 2);
  ZPVARIABLE first = zpVariableList_First(list);
  EXPECT_EQ(TextOf(zpVariable_Name, first), "name");
  EXPECT_EQ(Value(first), "3");
  EXPECT_EQ(first->refcount(), 1);
  EXPECT_EQ(Value(zpVariableList_Next(list)), "2");
}

// --- Tables --------------------------------------------------------------------------------------

class zpVariableHash : public zpVariable {
 protected:
  zpVariableHash() : hash(zpVariableHash_Allocate()) {}
  ~zpVariableHash() override { zpVariableHash_Free(hash); }

  ZPVARIABLEHASH hash;
};

TEST_F(zpVariableHash, HasNamesOfItsOwn) {
  EXPECT_EQ(zpVariableHash_Entries(hash), 0);
  EXPECT_EQ(zpVariableHash_Find(hash, "x", -1), nullptr);
  zpVariableHash_SetVariable(hash, "Name and more", 4, "1", -1);
  ZPVARIABLE variable = zpVariableHash_Find(hash, "nAME", -1);
  ASSERT_NE(variable, nullptr);
  EXPECT_EQ(Value(variable), "1");
  EXPECT_EQ(zpVariableHash_Index(hash, 0, 0), variable);
  EXPECT_EQ(zpVariableHash_Index(hash, 1, 1), nullptr);
  EXPECT_EQ(zpVariableHash_Entries(hash), 1);
}

TEST_F(zpVariableHash, AdoptsWhatIsInsertedAndReplaced) {
  ZPVARIABLE first = zpVariable_Allocate("x", -1, "first", -1);
  EXPECT_EQ(zpVariableHash_Insert(hash, first), 0);
  EXPECT_EQ(first->refcount(), 1);
  ZPVARIABLE second = zpVariable_Allocate("X", -1, "second", -1);
  zpVariableHash_ReplaceVariable(hash, second);
  EXPECT_EQ(zpVariableHash_Find(hash, "x", -1), second);
  EXPECT_EQ(zpVariableHash_Entries(hash), 1);
  EXPECT_EQ(second->refcount(), 1);
}

TEST_F(zpVariableHash, DumpReleasesTheVariablesAndKeepsTheNames) {
  zpVariableHash_SetVariable(hash, "x", -1, "1", -1);
  ZPVARIABLE held = zpVariableHash_Find(hash, "x", -1);
  held->IncRefCount();
  zpVariableHash_Dump(hash);
  EXPECT_EQ(held->refcount(), 1);
  zpVariable_Free(held);
  EXPECT_EQ(zpVariableHash_Entries(hash), 1);
  EXPECT_EQ(zpVariableHash_Find(hash, "x", -1), nullptr);
}

}  // namespace
