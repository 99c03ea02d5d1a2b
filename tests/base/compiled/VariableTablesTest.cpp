// The tables other than the plain one: those that forward to another, shadow values, or belong to a
// background task.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/ForwardingVariableHash.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

namespace {

using std::string;

string Text(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

Variable* Named(const string& name, const string& value) {
  return new Variable(name.data(), static_cast<int>(name.size()), value.data(),
                      static_cast<int>(value.size()));
}

Variable* Find(VariableHash& table, const char* name, int create = 0) {
  Variable* variable = nullptr;
  table.Find(&variable, name, -1, create);
  return variable;
}

string Value(VariableHash& table, const char* name) {
  Variable* variable = Find(table, name);
  return variable ? Text(variable->value()) : "(none)";
}

void Set(VariableHash& table, const char* name, const char* value) {
  table.SetVariable(name, -1, value, -1);
}

// --- ReferenceVariableHash -----------------------------------------------------------------------

// The names of a file that a script runs with ZpDO; its dictionary has other ids than the running
// script's.
struct ReferenceTable : testing::Test {
  FaultyFileManager files;
  Dictionary running_names;
  Dictionary file_names;
  VariableHash running{&running_names, 12, 512};
  std::unique_ptr<ReferenceVariableHash> table;

  void SetUp() override {
    Set(running, "first", "1");
    Set(running, "second", "2");
    Dictionary unused;
    VariableHash written(&file_names, 12, 512);
    for (const char* name : {"missing", "SECOND", "first"}) written.Insert(name, -1);
    TaggedFile file(&files);
    ASSERT_TRUE(file.Create("f", nullptr, 0));
    ASSERT_TRUE(written.Write(&file, MakeTag("glbl")));
    ASSERT_TRUE(file.Section_Flush());
    ASSERT_TRUE(file.Open("f", 1));
    table = std::make_unique<ReferenceVariableHash>(&file_names, 12, 512, &running);
    ASSERT_TRUE(table->Read(&file, MakeTag("glbl")));
  }
};

TEST_F(ReferenceTable, PositionsAreTheFilesAndVariablesTheRunningTables) {
  EXPECT_EQ(table->Index(1, 0), running.Index(1, 0));
  EXPECT_EQ(table->Index(2, 0), running.Index(0, 0));
  EXPECT_EQ(table->Index(1, 0), running.Index(1, 0));
  EXPECT_EQ(table->Index(3, 1), nullptr);
  EXPECT_EQ(table->Index(-1, 1), nullptr);
  EXPECT_EQ(table->RealIdentity(), &running);
  EXPECT_EQ(table->Entries(), 2);
}

TEST_F(ReferenceTable, ANameThatTheTargetLacksIsMadeThereOnRequest) {
  EXPECT_EQ(table->Index(0, 0), nullptr);
  EXPECT_EQ(running.Entries(), 2);
  Variable* made = table->Index(0, 1);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(running.Entries(), 3);
  EXPECT_EQ(Find(running, "missing"), made);
  EXPECT_EQ(table->Index(0, 0), made);
  EXPECT_EQ(made->refcount(), 1);
}

TEST_F(ReferenceTable, AMissIsNotRemembered) {
  EXPECT_EQ(table->Index(0, 0), nullptr);
  Variable* out = reinterpret_cast<Variable*>(1);
  EXPECT_TRUE(table->Find(&out, "missing", -1, 0));
  EXPECT_EQ(out, reinterpret_cast<Variable*>(1));
  Set(running, "missing", "late");
  EXPECT_EQ(table->Index(0, 0), Find(running, "missing"));
  EXPECT_EQ(Value(*table, "Missing"), "late");
}

TEST_F(ReferenceTable, FindUsesTheOwnNamesAndThenTheTargets) {
  EXPECT_EQ(Value(*table, "first"), "1");
  EXPECT_EQ(Value(*table, "second"), "2");
  Set(running, "only", "there");
  EXPECT_EQ(Value(*table, "ONLY"), "there");
  Variable* out = nullptr;
  EXPECT_FALSE(table->Find(&out, "nowhere", -1, 1));
  EXPECT_TRUE(table->Find(&out, "missing", -1, 1));
  EXPECT_EQ(out, Find(running, "missing"));
}

TEST_F(ReferenceTable, WritesGoToTheTarget) {
  Set(*table, "first", "changed");
  EXPECT_EQ(Value(running, "first"), "changed");
  Set(*table, "new", "n");
  EXPECT_EQ(Value(running, "new"), "n");
  table->SetVariable(Named("second", "replaced"));
  EXPECT_EQ(Value(running, "second"), "replaced");
  EXPECT_EQ(running.Entries(), 3);
  table->Insert(Named("inserted", "i"));
  EXPECT_EQ(Value(running, "inserted"), "i");
  EXPECT_EQ(table->Insert(0), 4);  // the file's own id, entered by its text
  EXPECT_EQ(running.Seek(-1, "missing", -1, nullptr), 4);
  EXPECT_EQ(table->Seek(0, nullptr, 0, nullptr), 4);
  EXPECT_EQ(table->ClearVariable("first", -1), 1);
  EXPECT_EQ(Find(running, "first")->IsNULL(), 1);
  table->SetVariable_Fancy("form", -1, "a", -1, 1);
  table->SetVariable_Fancy("form", -1, "b", -1, 1);
  EXPECT_EQ(Value(running, "form"), "a,b");
  VariableList list;
  table->AllocatedVars(&list);
  EXPECT_EQ(list.Entries(), 5);
}

TEST_F(ReferenceTable, AReferenceIsMadeInTheTarget) {
  const VariableRef variable(Named("v", "value"));
  table->SetVariable_Reference(1, variable.get());
  EXPECT_EQ(Find(running, "second")->type(), VariableReference);
  EXPECT_EQ(Value(running, "second"), "value");
  table->SetVariable_Reference(0, variable.get());
  EXPECT_EQ(Value(running, "missing"), "value");
  EXPECT_EQ(Text(Find(running, "missing")->name()), "missing");
  table->SetVariable_Reference(7, variable.get());
  EXPECT_EQ(variable->refcount(), 3);
}

TEST_F(ReferenceTable, PathErrorsAreCopied) {
  Variable* out = nullptr;
  EXPECT_EQ(table->LookupVariable_Fancy(&out, "x[a]", -1, 1), 0);
  EXPECT_EQ(Text(table->error()), "Array index must be positive integer");
  EXPECT_EQ(table->LookupVariable_Fancy(&out, "x[1]", -1, 1), 1);
  EXPECT_EQ(Find(running, "x")->Element(AggregateIndex(1), 0), out);
}

TEST_F(ReferenceTable, ForwardsToTheEndOfAChain) {
  ReferenceVariableHash second(&file_names, 12, 512, table.get());
  EXPECT_EQ(second.RealIdentity(), &running);
  EXPECT_EQ(Value(second, "first"), "1");
}

TEST_F(ReferenceTable, LevelsAreTheTargets) {
  SystemVariableHash system(&running_names, 12, 512);
  ReferenceVariableHash over(&file_names, 12, 512, &system);
  EXPECT_EQ(over.Pop(), 0);
  over.Push();
  EXPECT_EQ(over.Version(), 1);
  EXPECT_EQ(over.Pop(), 1);
  EXPECT_EQ(system.Version(), 0);
}

// --- SystemVariableHash --------------------------------------------------------------------------

struct SystemTable : testing::Test {
  Dictionary names;
  SystemVariableHash table{&names, 12, 512};
};

TEST_F(SystemTable, PopWithoutPushAnswersZero) {
  Set(table, "a", "1");
  EXPECT_EQ(table.Pop(), 0);
  EXPECT_EQ(table.Version(), 0);
  EXPECT_EQ(Value(table, "a"), "1");
}

TEST_F(SystemTable, PopBringsReplacedVariablesBack) {
  table.SetVariable(Named("a", "old"));
  Variable* old = Find(table, "a");
  table.Push();
  EXPECT_EQ(table.Version(), 1);
  table.SetVariable(Named("A", "new"));
  EXPECT_EQ(Value(table, "a"), "new");
  EXPECT_EQ(table.Pop(), 1);
  EXPECT_EQ(Find(table, "a"), old);
  EXPECT_EQ(old->refcount(), 1);
  EXPECT_EQ(Value(table, "a"), "old");
}

TEST_F(SystemTable, PopTakesVariablesThatWereMadeAndKeepsTheirNames) {
  table.Insert("reserved", -1);
  table.Push();
  EXPECT_EQ(table.Insert(Named("new", "n")), 1);
  EXPECT_NE(Find(table, "reserved", 1), nullptr);
  Set(table, "third", "t");
  EXPECT_EQ(table.Entries(), 3);
  table.Pop();
  EXPECT_EQ(table.Entries(), 3);
  for (const char* name : {"new", "reserved", "third"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Find(table, name), nullptr);
    EXPECT_GE(table.Seek(-1, name, -1, nullptr), 0);
  }
}

TEST_F(SystemTable, AVariableMadeByPositionGoesWithItsLevelToo) {
  table.Insert("reserved", -1);
  table.Push();
  EXPECT_NE(table.Index(0, 1), nullptr);
  table.Pop();
  EXPECT_EQ(table.Index(0, 0), nullptr);
  EXPECT_NE(table.Index(0, 1), nullptr);
  EXPECT_EQ(table.Index(1, 1), nullptr);
}

TEST_F(SystemTable, InsertOfAKnownNameReplacesWhileALevelIsOpen) {
  table.Insert(Named("a", "old"));
  table.Push();
  EXPECT_EQ(table.Insert(Named("A", "new")), 0);
  EXPECT_EQ(table.Entries(), 1);
  EXPECT_EQ(Value(table, "a"), "new");
  table.Pop();
  EXPECT_EQ(Value(table, "a"), "old");
  EXPECT_EQ(table.Insert(Named("a", "duplicate")), 1);
  EXPECT_EQ(Value(table, "a"), "old");
}

TEST_F(SystemTable, PopBringsWhatAReferenceReplacedBack) {
  Set(table, "a", "old");
  const VariableRef target(Named("t", "target"));
  table.Push();
  table.SetVariable_Reference(0, target.get());
  EXPECT_EQ(Value(table, "a"), "target");
  // Each call replaces the variable, without a check for the one that is already there.
  table.SetVariable_Reference(0, Find(table, "a"));
  table.SetVariable_Reference(9, target.get());
  table.Pop();
  EXPECT_EQ(table.Version(), 0);
  table.SetVariable_Reference(0, target.get());
  EXPECT_EQ(Value(table, "a"), "target");
}

TEST_F(SystemTable, OfTwoReplacementsInALevelTheSecondRecordWins) {
  Set(table, "a", "first");
  table.Push();
  table.SetVariable(Named("a", "second"));
  table.SetVariable(Named("a", "third"));
  table.Pop();
  EXPECT_EQ(Value(table, "a"), "second");
}

TEST_F(SystemTable, LevelsNest) {
  Set(table, "a", "0");
  table.Push();
  table.SetVariable(Named("a", "1"));
  table.Push();
  EXPECT_EQ(table.Version(), 2);
  table.SetVariable(Named("a", "2"));
  EXPECT_EQ(table.Pop(), 1);
  EXPECT_EQ(Value(table, "a"), "1");
  EXPECT_EQ(table.Pop(), 1);
  EXPECT_EQ(Value(table, "a"), "0");
  EXPECT_EQ(table.Pop(), 0);
}

TEST_F(SystemTable, DestructionReleasesShadowedVariables) {
  const VariableRef variable(Named("a", "x"));
  {
    SystemVariableHash system(&names, 12, 512);
    system.SetVariable(VariableRef::Share(variable.get()).release());
    system.Push();
    system.SetVariable(Named("a", "y"));
    system.Push();
    system.SetVariable(Named("a", "z"));
    EXPECT_EQ(variable->refcount(), 2);
  }
  EXPECT_EQ(variable->refcount(), 1);
}

TEST_F(SystemTable, FormValuesDoNotCollect) {
  table.SetVariable_Fancy("a", -1, "1", -1, 1);
  table.SetVariable_Fancy("a", -1, "2", -1, 1);
  EXPECT_EQ(Value(table, "a"), "2");
}

TEST_F(SystemTable, SetVariableWithTextWritesIntoTheVariable) {
  table.SetVariable(new ImmutableVariable("fixed", 5, "kept", 4));
  Set(table, "fixed", "changed");
  EXPECT_EQ(Value(table, "fixed"), "kept");
}

// --- ClonedVariableHash --------------------------------------------------------------------------

struct ClonedTable : testing::Test {
  TestApplication application;
  Dictionary names;
  VariableHash globals{&names, 12, 512};

  void SetUp() override {
    Set(globals, "a", "1");
    globals.Insert("reserved", -1);
    Variable* out = nullptr;
    globals.LookupVariable_Fancy(&out, "array[2]", -1, 1);
    out->SetValue("element", -1);
  }
};

TEST_F(ClonedTable, OfAPlainTableIsTheTableItself) {
  Dictionary copy(names);
  ClonedVariableHash clone(&application, &copy, globals);
  EXPECT_EQ(clone.RealIdentity(), &clone);
  EXPECT_EQ(clone.Entries(), 3);
  EXPECT_EQ(Value(clone, "a"), "1");
  EXPECT_EQ(clone.Index(1, 0), nullptr);
  EXPECT_EQ(Value(clone, "array"), "element");
  EXPECT_NE(clone.Index(0, 0), globals.Index(0, 0));
  Set(clone, "a", "task");
  Set(clone, "new", "n");
  clone.SetVariable(Named("other", "o"));
  clone.SetVariable_Fancy("form", -1, "x", -1, 1);
  EXPECT_EQ(Value(globals, "a"), "1");
  EXPECT_EQ(Find(globals, "new"), nullptr);
  const VariableRef target(Named("t", "target"));
  clone.SetVariable_Reference(0, target.get());
  EXPECT_EQ(Value(clone, "a"), "target");
  EXPECT_EQ(clone.ClearVariable("new", -1), 1);
  EXPECT_EQ(clone.Pop(), 0);
  EXPECT_EQ(clone.Version(), 0);
  Variable* out = nullptr;
  EXPECT_EQ(clone.LookupVariable_Fancy(&out, "x[a]", -1, 1), 0);
  EXPECT_EQ(clone.Seek(-1, "other", -1, nullptr), 4);
}

TEST_F(ClonedTable, OfASystemTableForwardsToASystemTable) {
  SystemVariableHash system(&names, 12, 512);
  Set(system, "s", "1");
  system.Push();
  Dictionary copy(names);
  ClonedVariableHash clone(&application, &copy, system);
  ASSERT_NE(clone.RealIdentity(), &clone);
  EXPECT_NE(dynamic_cast<SystemVariableHash*>(clone.RealIdentity()), nullptr);
  EXPECT_EQ(clone.Version(), 0);
  EXPECT_EQ(Value(clone, "s"), "1");
  EXPECT_EQ(clone.Index(0, 0), Find(clone, "s"));
  clone.Push();
  clone.SetVariable(Named("s", "task"));
  EXPECT_EQ(Value(system, "s"), "1");
  EXPECT_EQ(Value(clone, "s"), "task");
  EXPECT_EQ(clone.Pop(), 1);
  EXPECT_EQ(Value(clone, "s"), "1");
}

TEST_F(ClonedTable, OfAReferenceTableForwardsToACopyOfItsTarget) {
  Dictionary file_names;
  for (const char* name : {"x", "y", "z", "a"}) file_names.Entry_Add(name, -1);
  ReferenceVariableHash reference(&file_names, 12, 512, &globals);
  Dictionary copy(file_names);
  ClonedVariableHash clone(&application, &copy, reference);
  VariableHash* real = clone.RealIdentity();
  ASSERT_NE(real, &clone);
  ASSERT_NE(real, &globals);
  EXPECT_EQ(Value(clone, "a"), "1");
  Set(clone, "a", "task");
  clone.Insert(Named("inserted", "i"));
  EXPECT_EQ(clone.Insert(0), 4);
  EXPECT_EQ(Value(globals, "a"), "1");
  EXPECT_EQ(Value(*real, "a"), "task");
  EXPECT_EQ(Value(*real, "inserted"), "i");
  EXPECT_EQ(real->Seek(-1, "x", -1, nullptr), 4);
  EXPECT_EQ(clone.Seek(0, nullptr, 0, nullptr), 4);
  EXPECT_EQ(clone.Entries(), 5);
  EXPECT_EQ(clone.ClearVariable("a", -1), 1);
  clone.SetVariable_Fancy("form", -1, "1", -1, 1);
  clone.SetVariable_Fancy("form", -1, "2", -1, 1);
  EXPECT_EQ(Value(*real, "form"), "1,2");
  Variable* out = nullptr;
  EXPECT_EQ(clone.LookupVariable_Fancy(&out, "x[a]", -1, 1), 0);
  EXPECT_EQ(Text(clone.error()), "Array index must be positive integer");
  VariableList list;
  clone.AllocatedVars(&list);
  EXPECT_EQ(list.Entries(), 5);
  EXPECT_EQ(clone.Pop(), 0);
}

TEST_F(ClonedTable, OfAReferenceTableOverTheSystemTableForwardsToASystemTable) {
  SystemVariableHash system(&names, 12, 512);
  Set(system, "s", "1");
  Dictionary file_names;
  ReferenceVariableHash reference(&file_names, 12, 512, &system);
  Dictionary copy(file_names);
  ClonedVariableHash clone(&application, &copy, reference);
  EXPECT_NE(dynamic_cast<SystemVariableHash*>(clone.RealIdentity()), nullptr);
  EXPECT_EQ(Value(clone, "s"), "1");
  Set(clone, "s", "task");
  EXPECT_EQ(Value(system, "s"), "1");
  const VariableRef target(Named("t", "target"));
  clone.SetVariable_Reference(0, target.get());
  EXPECT_EQ(clone.Index(0, 1), nullptr);
}

// The positions that the copy has for its first names are not those of the names that it reads.
TEST_F(ClonedTable, NamesThatAreReadAreLookedUpInTheTarget) {
  FaultyFileManager files;
  Dictionary file_names;
  ReferenceVariableHash reference(&file_names, 12, 512, &globals);
  Dictionary copy(file_names);
  VariableHash written(&copy, 12, 512);
  for (const char* name : {"reserved", "array", "a"}) written.Insert(name, -1);
  ClonedVariableHash clone(&application, &copy, reference);
  TaggedFile file(&files);
  ASSERT_TRUE(file.Create("f", nullptr, 0));
  ASSERT_TRUE(written.Write(&file, MakeTag("glbl")));
  ASSERT_TRUE(file.Section_Flush());
  ASSERT_TRUE(file.Open("f", 1));
  ASSERT_TRUE(clone.Read(&file, MakeTag("glbl")));
  ASSERT_NE(clone.Index(2, 0), nullptr);
  EXPECT_EQ(Text(clone.Index(2, 0)->value()), "1");
  EXPECT_EQ(clone.Index(1, 0), Find(*clone.RealIdentity(), "array"));
}

}  // namespace
