#include "api/zeph.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"

namespace {

TEST(OlderMemory, IsTakenGrownAndFreed) {
  char* memory = static_cast<char*>(zeph_alloc(4));
  memcpy(memory, "abc", 4);
  memory = static_cast<char*>(zeph_realloc(memory, 4000));
  EXPECT_STREQ(memory, "abc");
  zeph_free(memory);
  zeph_free(nullptr);
}

TEST(OlderVariable, NameAndValueAreNeverNull) {
  Variable* nothing = new NULLVariable;
  EXPECT_STREQ(zeph_variable_name(nothing), "");
  EXPECT_STREQ(zeph_variable_value(nothing), "");
  zeph_variable_delete(nothing);
  ZPVARIABLE variable = zeph_variable_new("name", "value");
  EXPECT_STREQ(zeph_variable_name(variable), "name");
  EXPECT_STREQ(zeph_variable_value(variable), "value");
  zeph_variable_setvalue(variable, "other");
  EXPECT_STREQ(zeph_variable_value(variable), "other");
  zeph_variable_delete(variable);
}

TEST(OlderVariable, ElementsAreMadeByStoringOnly) {
  ZPVARIABLE variable = zeph_variable_new("x", "scalar");
  EXPECT_EQ(zeph_variable_aggregate_type(variable), 0);
  EXPECT_EQ(zeph_variable_array_element(variable, 1), nullptr);
  EXPECT_EQ(zeph_variable_structure_member(variable, "m"), nullptr);
  zeph_variable_set_array_element_value(variable, 2, "two");
  zeph_variable_set_array_element_value(variable, 5, "five");
  EXPECT_EQ(zeph_variable_aggregate_type(variable), 1);
  EXPECT_STREQ(zeph_variable_value(zeph_variable_array_element(variable, 5)), "five");
  EXPECT_EQ(zeph_variable_array_elements(variable), 2);
  EXPECT_EQ(zeph_variable_array_min(variable), 2);
  EXPECT_EQ(zeph_variable_array_max(variable), 5);
  zeph_variable_set_structure_member_value(variable, "m", "member");
  EXPECT_EQ(zeph_variable_aggregate_type(variable), 2);
  EXPECT_STREQ(zeph_variable_value(zeph_variable_structure_member(variable, "M")), "member");
  ZPVARIABLELIST list = zeph_variablelist_new();
  zeph_variable_aggregate_list(variable, list);
  EXPECT_STREQ(zeph_variable_name(zeph_variablelist_first(list)), "m");
  zeph_variablelist_delete(list);
  zeph_variable_delete(variable);
}

class OlderList : public testing::Test {
 protected:
  OlderList() : list(zeph_variablelist_new()) {}
  ~OlderList() override { zeph_variablelist_delete(list); }

  std::string Url(const char* base) {
    char* url = zeph_variablelist_to_url(base, list);
    std::string text = url;
    zeph_free(url);
    return text;
  }

  ZPVARIABLELIST list;
};

TEST_F(OlderList, FindsAndStoresByNameInAnyCase) {
  zeph_variablelist_setvariable(list, "one", "1");
  zeph_variablelist_setvariable(list, "two", "2");
  zeph_variablelist_setvariable(list, "ONE", "3");
  ZPVARIABLE one = zeph_variablelist_first(list);
  EXPECT_EQ(zeph_variablelist_find(list, "One"), one);
  EXPECT_EQ(zeph_variablelist_current(list), one);
  EXPECT_STREQ(zeph_variable_value(one), "3");
  EXPECT_STREQ(zeph_variable_value(zeph_variablelist_next(list)), "2");
  EXPECT_EQ(zeph_variablelist_next(list), nullptr);
  EXPECT_EQ(zeph_variablelist_find(list, "on"), nullptr);
  zeph_variablelist_dump(list);
  EXPECT_EQ(zeph_variablelist_first(list), nullptr);
}

TEST_F(OlderList, BecomesAUrl) {
  zeph_variablelist_setvariable(list, "a", "1");
  zeph_variablelist_setvariable(list, "b", "2");
  EXPECT_EQ(Url("/x"), "/x?a=1&b=2");
  EXPECT_EQ(Url("/x?"), "/x?a=1&b=2");
  EXPECT_EQ(Url("/x?c=3"), "/x?c=3+a=1&b=2");
  EXPECT_EQ(Url("/x?page.zpc+"), "/x?page.zpc+a=1&b=2");
  EXPECT_EQ(Url("/x+"), "/x+?a=1&b=2");
  EXPECT_EQ(Url(""), "?a=1&b=2");
}

TEST_F(OlderList, UrlFieldsAreEncoded) {
  zeph_variablelist_setvariable(list, "a b", "&=?");
  zeph_variablelist_setvariable(list, "empty", "");
  EXPECT_EQ(Url("/x"), "/x?a+b=%26%3D%3F&empty=");
  zeph_variablelist_dump(list);
  EXPECT_EQ(Url("/x"), "/x?");
}

TEST(OlderTree, FindsStoresAndAdopts) {
  ZPVARIABLEHASH tree = zeph_variabletree_new();
  EXPECT_EQ(zeph_variabletree_find(tree, "x"), nullptr);
  zeph_variabletree_setvariable(tree, "x", "1");
  zeph_variabletree_setvariable(tree, "X", "2");
  EXPECT_STREQ(zeph_variable_value(zeph_variabletree_find(tree, "x")), "2");
  ZPVARIABLE other = zeph_variable_new("other", "3");
  zeph_variabletree_insert(tree, other);
  EXPECT_EQ(zeph_variabletree_find(tree, "OTHER"), other);
  EXPECT_EQ(other->refcount(), 1);
  zeph_variabletree_dump(tree);
  EXPECT_EQ(zeph_variabletree_find(tree, "x"), nullptr);
  zeph_variabletree_delete(tree);
}

}  // namespace
