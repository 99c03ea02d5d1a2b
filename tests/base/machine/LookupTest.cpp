// Variables by name, lists of them, and hidden form fields.

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "tests/support/Machine.h"

namespace {

class Lookup : public testing::Test {
 protected:
  Lookup() {
    machine.system.SetVariable(new Variable("path", 4, "of the system", 13));
    machine.global.SetVariable(new Variable("path", 4, "of the globals", 14));
    machine.global.SetVariable(new Variable("count", 5, 7));
    machine.Global("reserved");
    machine.system.Insert("reserved", 8);
  }

  Variable* Find(const char* name) { return machine.vm().Lookup_Variable(name, -1); }
  std::string Value(const char* name) {
    Variable* variable = Find(name);
    return variable ? Machine::Text(*variable) : "(nothing)";
  }

  Machine machine;
};

TEST_F(Lookup, GoesByScope) {
  const struct {
    const char* name;
    const char* value;
  } cases[] = {
      {"path", "of the system"},
      {"PATH", "of the system"},
      {"s.path", "of the system"},
      {"system.path", "of the system"},
      {"S.path", "of the system"},
      {"g.path", "of the globals"},
      {"global.path", "of the globals"},
      {"l.path", "of the globals"},
      {"local.path", "of the globals"},
      {"count", "7"},
      {"Count", "7"},
      {"s.count", "(nothing)"},
      {"d.count", "(nothing)"},
      {"database.count", "(nothing)"},
      {"db.d.count", "(nothing)"},
      {"db.database.count", "(nothing)"},
      {"d.d.count", "(nothing)"},
      {"s.reserved", "(nothing)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Value(c.name), c.value);
  }
  EXPECT_FALSE(machine.vm().stopped());
}

TEST_F(Lookup, NamesThatNothingHasBecomeGlobals) {
  for (const char* name : {"fresh", "g.newer", "l.newest", "reserved", "x.y"}) {
    SCOPED_TRACE(name);
    Variable* made = Find(name);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->IsNULL());
    EXPECT_EQ(Find(name), made);
  }
  EXPECT_NE(machine.GlobalVariable("fresh"), nullptr);
  EXPECT_NE(machine.GlobalVariable("newer"), nullptr);
  EXPECT_NE(machine.GlobalVariable("newest"), nullptr);
  EXPECT_NE(machine.GlobalVariable("x.y"), nullptr);
}

TEST_F(Lookup, OfAListOfNamesLengthsCount) {
  EXPECT_EQ(machine.vm().Lookup_Variable("countless", 5), machine.GlobalVariable("count"));
}

TEST_F(Lookup, FollowsPaths) {
  Variable* element = Find("list[2]:name");
  ASSERT_NE(element, nullptr);
  element->SetValue("x", 1);
  EXPECT_EQ(Value("g.list[ 2 ]:NAME"), "x");
  EXPECT_EQ(machine.GlobalVariable("list")->Max(), 2);
  // Nothing is created in a system variable.
  EXPECT_EQ(Find("s.path:member"), nullptr);
  EXPECT_EQ(Value("s.path"), "of the system");
}

TEST_F(Lookup, ABadPathIsFatal) {
  EXPECT_EQ(Find("count[x]"), nullptr);
  EXPECT_TRUE(machine.vm().stopped());
  EXPECT_EQ(machine.Failure(), "Array index must be positive integer");
}

TEST_F(Lookup, ABadPathMayBeToldToTheCaller) {
  for (const char* name : {"count[x]", "l.count[x]", "g.count[1", "l.count[]y", "path[-1]"}) {
    SCOPED_TRACE(name);
    Variable* found = nullptr;
    String error;
    EXPECT_EQ(machine.vm().Lookup_Variable(&found, name, -1, &error), 0);
    EXPECT_EQ(found, nullptr);
    EXPECT_STREQ(error.data, "Array index must be positive integer");
    EXPECT_FALSE(machine.vm().stopped());
  }
}

TEST_F(Lookup, NothingFoundIsNoFailure) {
  for (const char* name : {"s.nothing", "d.nothing", "db.d.nothing"}) {
    SCOPED_TRACE(name);
    Variable* found = machine.GlobalVariable("count");
    String error;
    EXPECT_EQ(machine.vm().Lookup_Variable(&found, name, -1, &error), 1);
    EXPECT_EQ(found, nullptr);
  }
}

TEST_F(Lookup, GlobalsByTheirBareName) {
  EXPECT_EQ(machine.vm().Lookup_Global("path", -1), machine.GlobalVariable("path"));
  EXPECT_EQ(machine.vm().Lookup_Global("COUNT", 5), machine.GlobalVariable("count"));
  // A known name gets its variable.
  EXPECT_NE(machine.vm().Lookup_Global("reserved", -1), nullptr);
  EXPECT_NE(machine.GlobalVariable("reserved"), nullptr);
}

// --- Lists ---------------------------------------------------------------------------------------

TEST_F(Lookup, ListsAreSplitAtCommas) {
  const struct {
    const char* names;
    const char* entries;
  } cases[] = {
      {"", ""},
      {" , ,", ""},
      {"count", "count=7;"},
      {" count ,path", "count=7;path=of the system;"},
      {"\tg.path\n,\r\nl.count", "path=of the globals;count=7;"},
      {"s.nothing,count", "s.nothing=;count=7;"},
      {"count,count", "count=7;count=7;"},
      {"a b", "a b=;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.names);
    VariableList list;
    list.Insert(new Variable("left over", -1), ListTail, 0);
    int count = machine.vm().Lookup_VariableList(&list, c.names, static_cast<int>(strlen(c.names)));
    EXPECT_EQ(count, list.Entries());
    std::string entries;
    for (Variable* v = list.First(); v; v = list.Next()) {
      entries += std::string(v->name().data, static_cast<size_t>(v->name().length)) + "=" +
                 Machine::Text(*v) + ";";
    }
    EXPECT_EQ(entries, c.entries);
  }
}

TEST_F(Lookup, EntriesOfAListReferToTheVariables) {
  VariableList list;
  EXPECT_EQ(machine.vm().Lookup_VariableList(&list, "count,s.nothing", 15), 2);
  Variable* count = list.First();
  EXPECT_EQ(count->type(), VariableReference);
  EXPECT_EQ(count->RealIdentity(), machine.GlobalVariable("count"));
  count->SetValue_Integer(8);
  EXPECT_EQ(Value("count"), "8");
  Variable* nothing = list.Next();
  EXPECT_EQ(nothing->TypeReferredTo(), VariableNULL);
  list.Dump();
  EXPECT_EQ(machine.GlobalVariable("count")->refcount(), 1);
}

// --- Hidden fields -------------------------------------------------------------------------------

std::string Field(const std::string& name, const std::string& value) {
  return "<input type=\"hidden\" name=\"" + name + "\" value=\"" + value + "\">";
}

TEST_F(Lookup, HiddenFieldsAreEncoded) {
  Variable value("v", 1, "a\"<b>&(c)'\n", 11);
  machine.vm().HideVar("n<1>", &value);
  EXPECT_EQ(machine.Output(), Field("n&lt;1&gt;", "a&quot;&lt;b&gt;&amp;&#40;c&#41;'\n"));
}

TEST_F(Lookup, HiddenAggregatesAreOneFieldAnElement) {
  Variable value;
  value.Element(AggregateIndex("b", 1), 1)->Element(AggregateIndex(3), 1)->SetValue_Integer(3);
  value.Element(AggregateIndex("b", 1), 1)->Element(AggregateIndex(1), 1)->SetValue_Double(0.5);
  value.Element(AggregateIndex("aa", 2), 1)->SetValue("x", 1);
  value.Element(AggregateIndex("a", 1), 1);
  machine.vm().HideVar("s", &value);
  EXPECT_EQ(machine.Output(),
            Field("s:a", "") + Field("s:aa", "x") + Field("s:b[1]", "0.5") + Field("s:b[3]", "3"));
}

TEST_F(Lookup, HiddenEmptyAggregateIsNothing) {
  Variable value;
  value.Convert_Aggregate(AggregateArray);
  machine.vm().HideVar("a", &value);
  EXPECT_EQ(machine.Output(), "");
}

TEST_F(Lookup, HiddenArraysAreInOrderWhateverTheirSize) {
  for (int size : {99, 100, 3000}) {
    SCOPED_TRACE(size);
    Machine other;
    Variable value;
    std::string expected;
    for (int i = size; i > 0; i--) value.Element(AggregateIndex(i), 1)->SetValue_Integer(i * 2);
    for (int i = 1; i <= size; i++) {
      expected += Field("a[" + std::to_string(i) + "]", std::to_string(i * 2));
    }
    other.vm().HideVar("a", &value);
    EXPECT_EQ(other.Output(), expected);
  }
}

TEST_F(Lookup, HiddenCirclesAndDepthsEnd) {
  // An element that refers to its array counts as empty.
  auto* circle = new Variable("c", 1);
  circle->Element(AggregateIndex(1), 1)->SetValue_Integer(1);
  circle->Element(AggregateIndex(2), 1)->Make_Reference(circle);
  machine.vm().HideVar("c", circle);
  EXPECT_EQ(machine.Output().substr(0, Field("c[1]", "1").size()), Field("c[1]", "1"));
  circle->SetNULL();
  circle->DecRefCount();
  // A chain far deeper than the native stack allows.
  Machine other;
  Variable deep;
  Variable* end = &deep;
  for (int i = 0; i < 3000; i++) end = end->Element(AggregateIndex(1), 1);
  end->SetValue_Integer(5);
  other.vm().HideVar("d", &deep);
  EXPECT_NE(other.Output().find("value=\"5\""), std::string::npos);
}

}  // namespace
