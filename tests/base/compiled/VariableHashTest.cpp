#include "base/compiled/VariableHash.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"
#include "base/core/ThreadMemory.h"
#include "base/core/hash.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

namespace {

using CompiledFileBytes::LE;
using CompiledFileBytes::LE16;
using CompiledFileBytes::LE32;
using std::string;

string Text(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

Variable* Named(const string& name, const string& value) {
  return new Variable(name.data(), static_cast<int>(name.size()), value.data(),
                      static_cast<int>(value.size()));
}

// Gives the tests access to protected fields.
class Table : public VariableHash {
 public:
  using VariableHash::bits;
  using VariableHash::bucket_count;
  using VariableHash::capacity;
  using VariableHash::entries;
  using VariableHash::VariableHash;
};

struct VariableHashTest : testing::Test {
  Dictionary dictionary;
  Table table{&dictionary, 12, 512};

  Variable* Find(VariableHash& hash, const string& name, int create = 0) {
    Variable* variable = nullptr;
    hash.Find(&variable, name.data(), static_cast<int>(name.size()), create);
    return variable;
  }
  string Value(VariableHash& hash, const string& name) {
    Variable* variable = Find(hash, name);
    return variable ? Text(variable->value()) : "(none)";
  }
  int Seek(VariableHash& hash, const string& name) {
    return hash.Seek(-1, name.data(), static_cast<int>(name.size()), nullptr);
  }
  void Set(VariableHash& hash, const string& name, const string& value) {
    hash.SetVariable(name.data(), static_cast<int>(name.size()), value.data(),
                     static_cast<int>(value.size()));
  }
  // Returns the path's variable; *result receives the result of the lookup.
  Variable* Lookup(const string& path, int create, int* result = nullptr) {
    Variable* variable = reinterpret_cast<Variable*>(1);
    const int answer =
        table.LookupVariable_Fancy(&variable, path.data(), static_cast<int>(path.size()), create);
    if (result) *result = answer;
    return variable;
  }
};

// --- Names and positions -------------------------------------------------------------------------

TEST_F(VariableHashTest, RowsAfterTheLastNameCanBeReadAndHaveNoVariable) {
  unsigned count = 0;
  for (int names = 0; names < 700; names++) {
    // Some of the memory comes from growing for names, some from the rows that are asked for.
    const int least = names % 3 == 0 ? 20 : names * 5 / 4 + 3;
    const _VH_Entry* const rows = table.Rows(least, &count);
    ASSERT_EQ(count, static_cast<unsigned>(names));
    for (int i = 0; i < least; i++) ASSERT_EQ(rows[i].variable != nullptr, i < names) << names;
    table.Insert(Named("n" + std::to_string(names), "value"));
  }
  // As many may be read after names were added.
  const _VH_Entry* const rows = table.Rows(&count);
  EXPECT_EQ(count, 700u);
  for (int i = 700; i < 699 * 5 / 4; i++) EXPECT_EQ(rows[i].variable, nullptr);
}

// The row after the last one never has a variable that the table does not have.
TEST_F(VariableHashTest, AnInsertionWithoutMemoryLeavesNoVariableAfterTheLast) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  unsigned count = 0;
  (void)table.Rows(64, &count);
  VariableRef kept(Named("kept", "value"));
  for (long block = 1; block <= 6; block++) {
    kept->Hold();
    try {
      const FailingAllocator allocator(block, FailingAllocator::Once);
      table.Insert(kept.get());
    } catch (const std::bad_alloc&) {
    }
    const _VH_Entry* const rows = table.Rows(&count);
    for (unsigned i = count; i < 64; i++) ASSERT_EQ(rows[i].variable, nullptr) << block;
  }
}

TEST_F(VariableHashTest, AnEmptyTableReportsItsNumbers) {
  EXPECT_EQ(table.bits, 12);
  EXPECT_EQ(table.bucket_count, 4096);
  EXPECT_EQ(table.capacity, 512);
  EXPECT_EQ(table.Entries(), 0);
  EXPECT_EQ(table.Version(), 0);
  EXPECT_EQ(table.Pop(), 0);
  EXPECT_EQ(table.RealIdentity(), &table);
  EXPECT_EQ(Seek(table, "x"), -1);
  EXPECT_EQ(table.Index(0, 1), nullptr);
  EXPECT_EQ(table.Index(-1, 1), nullptr);
  EXPECT_EQ(table.Index(INT_MAX, 1), nullptr);
  table.Dump();
}

TEST_F(VariableHashTest, NamesIgnoreCase) {
  Set(table, "Foo", "1");
  EXPECT_EQ(Value(table, "FOO"), "1");
  EXPECT_EQ(Seek(table, "foo"), 0);
  Set(table, "fOO", "2");
  EXPECT_EQ(table.Entries(), 1);
  EXPECT_EQ(Text(Find(table, "foo")->name()), "Foo");
}

TEST_F(VariableHashTest, TheBucketOfANameIsItsHash) {
  for (const char* name : {"", "a", "Abc", "some longer name"}) {
    const auto length = static_cast<unsigned>(strlen(name));
    EXPECT_EQ(table.hash(name, -1), hashi(name, length, 0) & 4095);
    EXPECT_EQ(table.hash(name, static_cast<int>(length)), hashi(name, length, 0) & 4095);
  }
}

TEST_F(VariableHashTest, InsertAnswersPositionsInOrder) {
  EXPECT_EQ(table.Insert(Named("a", "1")), 0);
  EXPECT_EQ(table.Insert("b", 1), 1);
  const int id = dictionary.Entry_Add("c", 1);
  EXPECT_EQ(table.Insert(id), 2);
  EXPECT_EQ(table.Insert(-1, "d", -1, Named("d", "4")), 3);
  EXPECT_EQ(table.Insert(id, "c2", 2, nullptr), 4);
  EXPECT_EQ(table.Entries(), 5);
  EXPECT_EQ(table.entries[2].name_index, id);
  EXPECT_EQ(table.entries[4].name_index, id);
  EXPECT_EQ(Text(table.Index(0, 0)->value()), "1");
  EXPECT_EQ(table.Index(1, 0), nullptr);
  EXPECT_EQ(Text(table.Index(1, 1)->name()), "b");
  EXPECT_EQ(table.Index(1, 0)->IsNULL(), 1);
}

TEST_F(VariableHashTest, InsertAdoptsTheCount) {
  const VariableRef variable(Named("a", "1"));
  table.Insert(VariableRef::Share(variable.get()).release());
  EXPECT_EQ(variable->refcount(), 2);
  table.Dump();
  EXPECT_EQ(variable->refcount(), 1);
  EXPECT_EQ(table.Entries(), 1);
  EXPECT_EQ(Seek(table, "a"), 0);
}

TEST_F(VariableHashTest, ADuplicateNameGetsAPositionThatNoSearchReaches) {
  table.Insert(Named("name", "first"));
  EXPECT_EQ(table.Insert(Named("NAME", "second")), 1);
  EXPECT_EQ(Value(table, "name"), "first");
  EXPECT_EQ(Text(table.Index(1, 0)->value()), "second");
}

TEST_F(VariableHashTest, FindNeverAddsAName) {
  Variable* out = reinterpret_cast<Variable*>(1);
  EXPECT_FALSE(table.Find(&out, "unknown", -1, 1));
  EXPECT_EQ(out, reinterpret_cast<Variable*>(1));
  EXPECT_EQ(table.Entries(), 0);
}

TEST_F(VariableHashTest, FindOfAKnownNameMakesItsVariableOnRequest) {
  table.Insert("Known", 5);
  Variable* out = reinterpret_cast<Variable*>(1);
  EXPECT_TRUE(table.Find(&out, "known", -1, 0));
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(table.Find(&out, "known", -1, 1));
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(Text(out->name()), "Known");
  EXPECT_EQ(table.Index(0, 0), out);
}

TEST_F(VariableHashTest, SeekTakesTheNameFromTheDictionary) {
  const int id = dictionary.Entry_Add("name", 4);
  table.Insert(id);
  _VH_Entry* entry = nullptr;
  EXPECT_EQ(table.Seek(id, nullptr, 0, &entry), 0);
  EXPECT_EQ(entry, &table.entries[0]);
  EXPECT_EQ(table.Seek(id + 1, nullptr, 0, nullptr), -1);
  EXPECT_EQ(table.Seek(-1, nullptr, 0, nullptr), -1);
}

TEST_F(VariableHashTest, GrowsBy512AndKeepsPositions) {
  for (int i = 0; i < 512; i++) ASSERT_EQ(table.Insert(("v" + std::to_string(i)).c_str(), -1), i);
  EXPECT_EQ(table.capacity, 512);
  EXPECT_EQ(table.Insert("v512", -1), 512);
  EXPECT_EQ(table.capacity, 1024);
  for (int i = 513; i < 3000; i++) table.Insert(("v" + std::to_string(i)).c_str(), -1);
  EXPECT_EQ(table.capacity, 3072);
  for (int i = 0; i < 3000; i++) ASSERT_EQ(Seek(table, "V" + std::to_string(i)), i);
}

TEST_F(VariableHashTest, AnInsertionWithoutMemoryLeavesTheTableAsItWas) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const auto name = [](int number) { return "name" + std::to_string(number); };
  int refused = 0;
  for (int count = 0; count < 1100; count++) {
    const string inserted = name(count);
    const int capacity = table.capacity;
    for (long number = 1;; number++) {
      bool failed = false;
      {
        const FailingAllocator allocator(number, FailingAllocator::Once);
        try {
          table.Insert(inserted.data(), static_cast<int>(inserted.size()));
        } catch (const std::bad_alloc&) {
          failed = true;
        }
      }
      if (!failed) break;
      refused++;
      ASSERT_EQ(table.Entries(), count);
      EXPECT_LE(table.capacity, capacity + 512);
      EXPECT_EQ(table.Seek(-1, inserted.data(), -1, nullptr), -1);
      for (int i = 0; i < count; i++) ASSERT_EQ(table.Seek(-1, name(i).data(), -1, nullptr), i);
    }
    ASSERT_EQ(table.Entries(), count + 1);
  }
  EXPECT_GT(refused, 5);
  for (int i = 0; i < 1100; i++) {
    ASSERT_EQ(table.Seek(-1, name(i).data(), -1, nullptr), i);
    EXPECT_NE(table.Index(i, 1), nullptr);
  }
}

TEST_F(VariableHashTest, LongChainsAreSearchedInOrder) {
  Table small(&dictionary, 0, 1);
  EXPECT_EQ(small.bucket_count, 1);
  std::mt19937 random(3);
  std::vector<string> names;
  for (int i = 0; i < 700; i++) {
    string name;
    const size_t length = random() % 6;
    while (name.size() < length) name += static_cast<char>('a' + random() % 26);
    name += std::to_string(i);
    names.push_back(name);
    ASSERT_EQ(small.Insert(name.c_str(), -1), i);
  }
  for (int i = 0; i < 700; i++) {
    ASSERT_EQ(Seek(small, names[static_cast<size_t>(i)]), i);
    ASSERT_EQ(Seek(small, names[static_cast<size_t>(i)] + "x"), -1);
  }
}

// --- Variables -----------------------------------------------------------------------------------

TEST_F(VariableHashTest, SetVariableWithAVariableReplacesIt) {
  Variable* old = Named("name", "old");
  const VariableRef kept = VariableRef::Share(old);
  table.SetVariable(old);
  table.SetVariable(Named("NAME", "new"));
  EXPECT_EQ(kept->refcount(), 1);
  EXPECT_EQ(table.Entries(), 1);
  EXPECT_EQ(Value(table, "name"), "new");
  table.SetVariable(Named("other", "x"));
  EXPECT_EQ(table.Entries(), 2);
}

TEST_F(VariableHashTest, SetVariableFillsAReservedName) {
  table.Insert("name", 4);
  table.SetVariable(Named("name", "value"));
  EXPECT_EQ(table.Entries(), 1);
  EXPECT_EQ(Text(table.Index(0, 0)->value()), "value");
}

TEST_F(VariableHashTest, SetVariableReferenceMakesTheEntryAReference) {
  table.Insert("name", 4);
  const VariableRef target(Named("target", "t"));
  table.SetVariable_Reference(0, target.get());
  EXPECT_EQ(target->refcount(), 2);
  EXPECT_EQ(table.Index(0, 0)->type(), VariableReference);
  EXPECT_EQ(Text(table.Index(0, 0)->name()), "name");
  EXPECT_EQ(Value(table, "name"), "t");
  Variable* present = table.Index(0, 0);
  table.SetVariable_Reference(0, present);
  EXPECT_EQ(table.Index(0, 0), present);
  table.SetVariable_Reference(1, target.get());
  table.SetVariable_Reference(-1, target.get());
  table.SetVariable_Reference(0, nullptr);
  EXPECT_EQ(table.Index(0, 0), present);
  const VariableRef second(Named("second", "s"));
  table.SetVariable_Reference(0, second.get());
  EXPECT_EQ(target->refcount(), 1);
  EXPECT_EQ(Value(table, "name"), "s");
}

TEST_F(VariableHashTest, ClearVariableEmptiesAndKeeps) {
  Set(table, "name", "x");
  table.Insert("reserved", -1);
  EXPECT_EQ(table.ClearVariable("NAME", -1), 1);
  EXPECT_EQ(Find(table, "name")->IsNULL(), 1);
  EXPECT_EQ(table.ClearVariable("reserved", -1), 0);
  EXPECT_EQ(table.ClearVariable("unknown", -1), 0);
}

TEST_F(VariableHashTest, AllocatedVarsListsWhatExistsInOrder) {
  Set(table, "a", "1");
  table.Insert("b", 1);
  Set(table, "c", "3");
  VariableList list;
  table.AllocatedVars(&list);
  ASSERT_EQ(list.Entries(), 2);
  EXPECT_EQ(Text(list.First()->value()), "1");
  EXPECT_EQ(Text(list.Next()->value()), "3");
  EXPECT_EQ(list.Current()->refcount(), 2);
}

TEST_F(VariableHashTest, ErrorIgnoresANullString) {
  table.Error("text");
  table.Error(String());
  EXPECT_EQ(Text(table.error()), "text");
}

// --- Twins and clones ----------------------------------------------------------------------------

TEST_F(VariableHashTest, AnEmptyTwinHasTheNamesAndNoVariable) {
  Set(table, "a", "1");
  table.Insert("b", 1);
  VariableHash twin(table);
  EXPECT_EQ(twin.Entries(), 2);
  EXPECT_EQ(twin.Index(0, 0), nullptr);
  EXPECT_EQ(Seek(twin, "B"), 1);
  Set(twin, "a", "local");
  EXPECT_EQ(Value(twin, "a"), "local");
  EXPECT_EQ(Value(table, "a"), "1");
  VariableHash none(&dictionary, 8, 64);
  VariableHash empty(none);
  EXPECT_EQ(empty.Entries(), 0);
  Set(empty, "x", "y");
  EXPECT_EQ(Value(empty, "x"), "y");
}

// A frame's locals are reused for a second call, which must not see any of the first call's.
struct RenewedTwin : VariableHashTest {
  RenewedTwin() {
    table.Insert("a", 1);
    table.Insert("b", 1);
    twin = std::make_unique<VariableHash>(table);
    number = twin->Index(0, 1);
    number->SetValue_Integer(7);
    twin->Index(1, 1)->SetValue("text", 4);
    EXPECT_TRUE(twin->Renew(table));
  }

  std::unique_ptr<VariableHash> twin;
  Variable* number;
};

TEST_F(RenewedTwin, HasNoVariableForAnyLookUpThatMakesNone) {
  EXPECT_EQ(twin->Entries(), 2);
  for (const char* name : {"a", "b"}) {
    Variable* found = nullptr;
    EXPECT_TRUE(twin->Find(&found, name, 1, 0));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(twin->LookupVariable_Fancy(&found, name, 1, 0), 1);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(twin->ClearVariable(name, 1), 0);
  }
  EXPECT_EQ(twin->Index(0, 0), nullptr);
  EXPECT_EQ(twin->At(1, 0), nullptr);
  VariableList list;
  twin->AllocatedVars(&list);
  EXPECT_EQ(list.Entries(), 0);
  TestApplication task;
  VariableHash copy(&task, &dictionary, *twin);
  EXPECT_EQ(copy.Index(0, 0), nullptr);
  _VH_Entry* row = nullptr;
  EXPECT_EQ(twin->Seek(-1, "a", 1, &row), 0);
  EXPECT_EQ(row->variable, nullptr);
}

TEST_F(RenewedTwin, HasTheVariableAgainOnceItIsMade) {
  const struct {
    const char* label;
    Variable* (*make)(VariableHash*);
  } ways[] = {
      {"Index", [](VariableHash* t) { return t->Index(0, 1); }},
      {"At", [](VariableHash* t) { return t->At(0, 1); }},
      {"Find",
       [](VariableHash* t) {
         Variable* found = nullptr;
         t->Find(&found, "a", 1, 1);
         return found;
       }},
      {"LookupVariable_Fancy",
       [](VariableHash* t) {
         Variable* found = nullptr;
         t->LookupVariable_Fancy(&found, "a", 1, 1);
         return found;
       }},
  };
  for (const auto& way : ways) {
    SCOPED_TRACE(way.label);
    Variable* made = way.make(twin.get());
    EXPECT_EQ(made, number) << "nothing is allocated for it";
    EXPECT_EQ(made->IsNULL(), 1);
    EXPECT_EQ(twin->Index(0, 0), made);
    EXPECT_EQ(twin->Index(1, 0), nullptr);
    EXPECT_TRUE(twin->Renew(table));
    EXPECT_EQ(twin->Index(0, 0), nullptr);
  }
  Set(*twin, "a", "text");
  EXPECT_EQ(Value(*twin, "a"), "text");
  EXPECT_EQ(twin->Index(1, 0), nullptr);
}

TEST_F(VariableHashTest, NamesAddedToATwinStayThere) {
  Set(table, "a", "1");
  auto twin = std::make_unique<VariableHash>(table);
  auto second = std::make_unique<VariableHash>(*twin);
  Set(*twin, "t", "twin");
  Set(table, "s", "source");
  EXPECT_EQ(Seek(table, "t"), -1);
  EXPECT_EQ(Seek(*twin, "s"), -1);
  EXPECT_EQ(Seek(*second, "t"), -1);
  EXPECT_EQ(second->Entries(), 1);
  EXPECT_EQ(twin->Entries(), 2);
  twin.reset();
  EXPECT_EQ(Seek(*second, "a"), 0);
}

TEST_F(VariableHashTest, AVariableOfATwinKeepsItsNameBeyondTablesAndDictionary) {
  auto names = std::make_unique<Dictionary>();
  auto original = std::make_unique<VariableHash>(names.get(), 8, 64);
  original->Insert("Count", 5);
  original->Insert("", 0);
  auto twin = std::make_unique<VariableHash>(*original);
  auto second = std::make_unique<VariableHash>(*original);
  const VariableRef target(Named("t", "x"));
  const VariableRef count = VariableRef::Share(twin->Index(0, 1));
  const VariableRef unnamed = VariableRef::Share(twin->Index(1, 1));
  second->SetVariable_Reference(0, target.get());
  const VariableRef reference = VariableRef::Share(second->Index(0, 0));
  const VariableRef copy(new Variable(*count));
  twin.reset();
  second.reset();
  original.reset();
  names.reset();
  EXPECT_EQ(Text(copy->name()), "Count");
  EXPECT_EQ(Text(count->name()), "Count");
  EXPECT_STREQ(count->name().data, "Count");
  EXPECT_EQ(count->name().allocated, 24);
  EXPECT_EQ(Text(reference->name()), "Count");
  EXPECT_EQ(reference->type(), VariableReference);
  EXPECT_NE(unnamed->name().data, nullptr);
  EXPECT_EQ(unnamed->name().length, 0);
}

TEST_F(VariableHashTest, TheNameOfOneTwinsVariableChangesAlone) {
  table.Insert("a", 1);
  VariableHash first(table);
  VariableHash second(table);
  Variable* a = first.Index(0, 1);
  Variable* other = second.Index(0, 1);
  a->SetName(String("renamed"));
  EXPECT_EQ(Text(a->name()), "renamed");
  EXPECT_EQ(Text(other->name()), "a");
  other->name().assign("z", 1);
  EXPECT_EQ(Text(VariableHash(table).Index(0, 1)->name()), "a");
  a->Make_NULL();
  EXPECT_EQ(a->name().data, nullptr);
  Variable* again = VariableHash(table).Index(0, 0);
  EXPECT_EQ(again, nullptr);
}

TEST_F(VariableHashTest, TwinsOfAnySizeAreAloneWithTheirVariables) {
  for (const int names : {1, 7, 8, 9, 31, 32, 33, 64, 65, 200}) {
    SCOPED_TRACE(names);
    VariableHash original(&dictionary, 8, 64);
    for (int i = 0; i < names; i++) original.Insert(("n" + std::to_string(i)).c_str(), -1);
    VariableHash twin(original);
    for (int i = 0; i < names; i++) twin.At(i, 1)->SetValue_Integer(i);
    for (int i = names; i < names + 40; i++) {
      const string name = "n" + std::to_string(i);
      Set(twin, name, std::to_string(i));
    }
    EXPECT_EQ(original.Entries(), names);
    EXPECT_EQ(twin.Entries(), names + 40);
    for (int i = 0; i < names + 40; i++) {
      const string number = std::to_string(i);
      ASSERT_EQ(Text(twin.At(i, 0)->value()), number);
      ASSERT_EQ(Text(twin.At(i, 0)->name()), "n" + number);
    }
    EXPECT_EQ(original.At(0, 0), nullptr);
    EXPECT_EQ(twin.At(names + 40, 1), nullptr);
    EXPECT_EQ(twin.At(-1, 1), nullptr);
  }
}

TEST_F(VariableHashTest, ATwinOutlivesItsSource) {
  auto source = std::make_unique<VariableHash>(&dictionary, 8, 64);
  Set(*source, "a", "1");
  VariableHash twin(*source);
  source.reset();
  EXPECT_EQ(Seek(twin, "a"), 0);
  Set(twin, "b", "2");
  EXPECT_EQ(Value(twin, "b"), "2");
}

TEST_F(VariableHashTest, ACloneHasCopiesOfTheVariables) {
  TestApplication application;
  Set(table, "a", "1");
  table.Insert("b", 1);
  Dictionary copy(dictionary);
  VariableHash clone(&application, &copy, table);
  Set(table, "a", "changed");
  EXPECT_EQ(Value(clone, "a"), "1");
  EXPECT_EQ(clone.Index(1, 0), nullptr);
}

TEST_F(VariableHashTest, AUserTableHasADictionaryOfItsOwn) {
  UserVariableHash user;
  Set(user, "a", "1");
  EXPECT_EQ(Value(user, "A"), "1");
  EXPECT_EQ(dictionary.Entries(), 0);
}

// --- Paths ---------------------------------------------------------------------------------------

TEST_F(VariableHashTest, APathOfANameAddsItWithCreateOnly) {
  int result = -1;
  EXPECT_EQ(Lookup("x", 0, &result), nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(table.Entries(), 0);
  EXPECT_NE(Lookup("x", 1, &result), nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(table.Entries(), 1);
  table.Insert("reserved", -1);
  EXPECT_EQ(Lookup("reserved", 0, &result), nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Lookup("reserved:a", 0, &result), nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_NE(Lookup("", 1), nullptr);
  Variable* variable = nullptr;
  EXPECT_EQ(table.LookupVariable_Fancy(&variable, "x", -1, 0), 1);
  EXPECT_NE(variable, nullptr);
}

TEST_F(VariableHashTest, APathWalksMembersAndPositions) {
  Variable* made = Lookup("x:a[1]:b", 1);
  ASSERT_NE(made, nullptr);
  Variable* x = Find(table, "x");
  EXPECT_EQ(x->aggregatetype(), AggregateStructure);
  Variable* a = x->Element(AggregateIndex("A", 1), 0);
  EXPECT_EQ(a->aggregatetype(), AggregateArray);
  EXPECT_EQ(a->Element(AggregateIndex(1), 0)->Element(AggregateIndex("b", 1), 0), made);
  EXPECT_EQ(Lookup("X:A[1]:B", 0), made);
  int result = -1;
  EXPECT_EQ(Lookup("x:missing[1]:b", 0, &result), nullptr);
  EXPECT_EQ(result, 1);
  EXPECT_NE(Lookup("y[1][2][3]", 1), nullptr);
  EXPECT_NE(Lookup("z[1]:m", 1), nullptr);
}

TEST_F(VariableHashTest, IndicesOfAPathAreReadAsTheyStand) {
  struct Case {
    const char* path;
    int position;
  };
  const Case cases[] = {
      {"x[2]", 2},
      {"x[ 2 ]", 2},
      {"x[\t2\n]", 2},
      {"x[0]", 0},
      {"x[]", 0},
      {"x[ ]", 0},
      {"x[007]", 7},
      {"x[1 2]", 1},
      {"x[2147483647]", INT_MAX},
      {"x[2147483648]", 0},  // negative in 32 bits, hence 0
      {"x[4294967297]", 1},
      {"x[99999999999999999999]", 0},  // the largest long is -1 in 32 bits
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    table.SetVariable(Named("x", ""));
    int result = -1;
    Variable* element = Lookup(c.path, 1, &result);
    EXPECT_EQ(result, 1);
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(Find(table, "x")->Element(AggregateIndex(c.position), 0), element);
  }
}

TEST_F(VariableHashTest, BadIndicesAreErrors) {
  for (const char* path : {"x[2a]", "x[-1]", "x[2", "x[", "x[a]", "x[1]y", "x[1] ", "x[1]]",
                           "x[+1]", "x:a[1.5]", "x[1[2]]"}) {
    SCOPED_TRACE(path);
    table.Error("none");
    int result = -1;
    EXPECT_EQ(Lookup(path, 1, &result), nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Text(table.error()), "Array index must be positive integer");
  }
}

TEST_F(VariableHashTest, AMissBeforeABadIndexIsNoError) {
  int result = -1;
  EXPECT_EQ(Lookup("unknown[a]", 0, &result), nullptr);
  EXPECT_EQ(result, 1);
}

TEST_F(VariableHashTest, EmptyMemberNamesAreNames) {
  Variable* empty = Lookup("x:", 1);
  EXPECT_EQ(Find(table, "x")->Element(AggregateIndex("", 0), 0), empty);
  EXPECT_NE(Lookup("x::a", 1), nullptr);
  EXPECT_NE(Lookup(":a", 1), nullptr);
  EXPECT_NE(Lookup("[1]", 1), nullptr);
}

// --- Form fields ---------------------------------------------------------------------------------

struct FancyTest : VariableHashTest {
  void Add(const string& path, const string& value, int accumulate = 1) {
    EXPECT_EQ(table.SetVariable_Fancy(path.data(), static_cast<int>(path.size()), value.data(),
                                      static_cast<int>(value.size()), accumulate),
              0);
  }
};

TEST_F(FancyTest, RepeatedValuesCollectIntoAnArray) {
  Add("x", "a");
  EXPECT_EQ(Find(table, "x")->aggregatetype(), AggregateNone);
  Add("x", "b");
  Add("x", "c");
  Variable* x = Find(table, "x");
  EXPECT_EQ(x->aggregatetype(), AggregateArray);
  EXPECT_EQ(x->ElementsUsed(), 3);
  EXPECT_EQ(Value(table, "x"), "a,b,c");
  EXPECT_EQ(x->Max(), 3);
}

TEST_F(FancyTest, AnEmptyFirstValueIsReplaced) {
  Add("x", "");
  EXPECT_EQ(Find(table, "x")->IsNULL(), 1);
  Add("x", "b");
  EXPECT_EQ(Value(table, "x"), "b");
  EXPECT_EQ(Find(table, "x")->aggregatetype(), AggregateNone);
}

TEST_F(FancyTest, WithoutAccumulationTheLastValueRemains) {
  Add("x", "a", 0);
  Add("x", "b", 0);
  EXPECT_EQ(Value(table, "x"), "b");
}

TEST_F(FancyTest, AnArrayStaysOneWithoutElements) {
  Lookup("x", 1)->Convert_Aggregate(AggregateArray);
  Add("x", "a");
  EXPECT_EQ(Find(table, "x")->aggregatetype(), AggregateArray);
  EXPECT_EQ(Value(table, "x"), "a");
}

TEST_F(FancyTest, AStructureGivesWay) {
  Add("x:m", "member");
  Add("x", "value");
  EXPECT_EQ(Find(table, "x")->aggregatetype(), AggregateArray);
  EXPECT_EQ(Value(table, "x"), "value");
  EXPECT_EQ(Find(table, "x")->Max(), 2);
}

TEST_F(FancyTest, PathsStoreIntoElements) {
  Add("x[3]", "c");
  Add("x[3]", "d");
  Add("y:m", "1");
  EXPECT_EQ(Text(Lookup("x[3][1]", 0)->value()), "c");
  EXPECT_EQ(Text(Lookup("x[3][2]", 0)->value()), "d");
  EXPECT_EQ(Value(table, "y"), "1");
  Add("x[a]", "lost");
  EXPECT_EQ(Value(table, "x"), "c,d");
}

TEST_F(FancyTest, DeeplyNestedNamesAreStoredAndFreed) {
  string path = "x";
  for (int i = 0; i < 100000; i++) path += ":a";
  Add(path, "deep");
  EXPECT_EQ(Value(table, "x"), "deep");
}

// --- Scope ---------------------------------------------------------------------------------------

TEST(VariableScope, TableOfNames) {
  struct Case {
    const char* name;
    int scope;
    const char* rest;
    const char* database;
  };
  const Case cases[] = {
      {"", ScopeNone, "", ""},
      {"x", ScopeNone, "x", ""},
      {"name", ScopeNone, "name", ""},
      {".", ScopeNone, ".", ""},
      {"l.x", ScopeLocal, "x", ""},
      {"L.x", ScopeLocal, "x", ""},
      {"g.x", ScopeGlobal, "x", ""},
      {"s.x", ScopeSystem, "x", ""},
      {"d.name", ScopeDatabase, "name", ""},
      {"D.name", ScopeDatabase, "name", ""},
      {"d.", ScopeDatabase, "", ""},
      {"l.", ScopeLocal, "", ""},
      {"l.d.x", ScopeLocal, "d.x", ""},
      {"s.database.x", ScopeSystem, "database.x", ""},
      {"X.d.name", ScopeDatabase, "name", "X"},
      {"x.D.n", ScopeDatabase, "n", "x"},
      {"x.d.", ScopeNone, "x.d.", ""},
      {"d.d.x", ScopeDatabase, "x", "d"},
      {"d.d.", ScopeDatabase, "d.", ""},
      {"x.database.n", ScopeDatabase, "n", "x"},
      {"x.database.", ScopeNone, "x.database.", ""},
      {"d.database.n", ScopeDatabase, "n", "d"},
      {"x.foo", ScopeNone, "x.foo", ""},
      {"local.x", ScopeLocal, "x", ""},
      {"LOCAL.x", ScopeLocal, "x", ""},
      {"global.a:b", ScopeGlobal, "a:b", ""},
      {"system.x", ScopeSystem, "x", ""},
      {"database.x", ScopeDatabase, "x", ""},
      {"database.d.x", ScopeDatabase, "x", "database"},
      {"global.d.x", ScopeGlobal, "d.x", ""},
      {"foo.bar", ScopeNone, "foo.bar", ""},
      {"foo.d.x", ScopeDatabase, "x", "foo"},
      {"foo.d.", ScopeDatabase, "", "foo"},
      {"foo.database.x", ScopeDatabase, "x", "foo"},
      {"foo.DataBase.x", ScopeDatabase, "x", "foo"},
      {"foo.bar.d.x", ScopeNone, "foo.bar.d.x", ""},
      {"foo.d", ScopeNone, "foo.d", ""},
      {"locals.x", ScopeNone, "locals.x", ""},
      {".d.x", ScopeDatabase, "x", ""},
      {"local", ScopeNone, "local", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const char* rest = nullptr;
    const char* database = nullptr;
    int restlength = -1;
    int databaselength = -1;
    for (int length : {-1, static_cast<int>(strlen(c.name))}) {
      EXPECT_EQ(VariableHash::Scope(c.name, length, &rest, &restlength, &database, &databaselength),
                c.scope);
      EXPECT_EQ(string(rest, static_cast<size_t>(restlength)), c.rest);
      EXPECT_EQ(string(database, static_cast<size_t>(databaselength)), c.database);
    }
  }
}

// --- Files ---------------------------------------------------------------------------------------

struct StoredTable {
  string names[3] = {"alpha", "Beta", "c"};
  Dictionary dictionary;
  FaultyFileManager files;
  TaggedFile file{&files};

  StoredTable() {
    for (const string& name : names)
      dictionary.Entry_Add(name.data(), static_cast<int>(name.size()));
  }
  // Reads a section with the given body, which need not come from the engine's own writer.
  bool Read(VariableHash* table, const string& body) {
    files.files["f"] = CompiledFileBytes::Container({{"glbl", body}});
    return file.Open("f", 1) && table->Read(&file, MakeTag("glbl"));
  }
};

int Bucket(const string& name, int bits) {
  return static_cast<int>(hashi(name.data(), static_cast<unsigned>(name.size()), 0) &
                          ((1u << bits) - 1));
}

// The body of a table with three names, each in a chain of its own.
string Body(const StoredTable& stored, int bits) {
  std::map<int, int> buckets;
  for (int i = 0; i < 3; i++) buckets[Bucket(stored.names[i], bits)] = i;
  string body =
      LE16(static_cast<int>(buckets.size())) + string(1, static_cast<char>(bits)) + LE32(3);
  for (auto& [number, first] : buckets) body += LE16(number) + LE32(first);
  for (int i = 0; i < 3; i++) body += LE32(i) + LE32(-1);
  return body;
}

TEST(StoredVariableTable, IsReadAsItIs) {
  StoredTable stored;
  Table table(&stored.dictionary, 12, 512);
  ASSERT_TRUE(stored.Read(&table, Body(stored, 8)));
  EXPECT_EQ(table.Entries(), 3);
  EXPECT_EQ(table.bits, 8);
  EXPECT_EQ(table.bucket_count, 256);
  EXPECT_EQ(table.capacity, 3);
  EXPECT_EQ(table.Seek(-1, "BETA", -1, nullptr), 1);
  EXPECT_EQ(table.Seek(-1, "alpha", -1, nullptr), 0);
  EXPECT_EQ(table.Seek(-1, "none", -1, nullptr), -1);
  EXPECT_EQ(table.Index(2, 0), nullptr);
  EXPECT_EQ(Text(table.Index(2, 1)->name()), "c");
  EXPECT_EQ(table.Insert("later", -1), 3);
  EXPECT_EQ(table.capacity, 515);
  EXPECT_EQ(table.Seek(-1, "later", -1, nullptr), 3);
  EXPECT_EQ(table.Seek(-1, "c", -1, nullptr), 2);
}

TEST(StoredVariableTable, PreloadedNamesGetTheVariablesOfTheirName) {
  StoredTable stored;
  Table table(&stored.dictionary, 12, 512);
  ASSERT_TRUE(stored.Read(&table, Body(stored, 12)));
  table.SetVariable(Named("BETA", "value"));
  EXPECT_EQ(table.Entries(), 3);
  EXPECT_EQ(Text(table.Index(1, 0)->value()), "value");
}

TEST(StoredVariableTable, ReadReplacesWhatWasThere) {
  StoredTable stored;
  Table table(&stored.dictionary, 12, 512);
  table.SetVariable("old", -1, "x", 1);
  ASSERT_TRUE(stored.Read(&table, Body(stored, 12)));
  EXPECT_EQ(table.Entries(), 3);
  EXPECT_EQ(table.Seek(-1, "old", -1, nullptr), -1);
  ASSERT_TRUE(stored.Read(&table, LE16(0) + string(1, '\x08') + LE32(0)));
  EXPECT_EQ(table.Entries(), 0);
  EXPECT_EQ(table.Insert("first", -1), 0);
  EXPECT_EQ(table.Seek(-1, "first", -1, nullptr), 0);
}

TEST(StoredVariableTable, WriteGivesTheBytesThatWereRead) {
  for (int bits : {0, 8, 12, 16}) {
    SCOPED_TRACE(bits);
    StoredTable stored;
    if (bits == 0) continue;
    const string body = Body(stored, bits);
    Table table(&stored.dictionary, 12, 512);
    ASSERT_TRUE(stored.Read(&table, body));
    TaggedFile out(&stored.files);
    ASSERT_TRUE(out.Create("out", nullptr, 0));
    ASSERT_TRUE(table.Write(&out, MakeTag("glbl")));
    ASSERT_TRUE(out.Section_Flush());
    EXPECT_EQ(stored.files.files["out"].substr(32, body.size()), body);
  }
}

TEST(StoredVariableTable, ATableWrittenIsReadWithItsPositions) {
  Dictionary dictionary;
  FaultyFileManager files;
  Table table(&dictionary, 4, 8);
  for (int i = 0; i < 300; i++) table.Insert(("name" + std::to_string(i)).c_str(), -1);
  TaggedFile file(&files);
  ASSERT_TRUE(file.Create("f", nullptr, 0));
  ASSERT_TRUE(table.Write(&file, MakeTag("glbl")));
  ASSERT_TRUE(Table(&dictionary, 12, 512).Write(&file, MakeTag("syst")));
  ASSERT_TRUE(file.Section_Flush());
  ASSERT_TRUE(file.Open("f", 1));
  Table read(&dictionary, 12, 512);
  ASSERT_TRUE(read.Read(&file, MakeTag("glbl")));
  ASSERT_EQ(read.Entries(), 300);
  for (int i = 0; i < 300; i++) {
    ASSERT_EQ(read.Seek(-1, ("NAME" + std::to_string(i)).c_str(), -1, nullptr), i);
  }
  Table empty(&dictionary, 12, 512);
  ASSERT_TRUE(empty.Read(&file, MakeTag("syst")));
  EXPECT_EQ(empty.Entries(), 0);
}

TEST(StoredVariableTable, AWriteThatFailsReportsTheFile) {
  StoredTable stored;
  Table table(&stored.dictionary, 12, 512);
  table.Insert("a", 1);
  TaggedFile out(&stored.files);
  ASSERT_TRUE(out.Create("out", nullptr, 0));
  stored.files.fail_write = 1;
  EXPECT_FALSE(table.Write(&out, MakeTag("glbl")));
  EXPECT_EQ(Text(table.error()), "Injected failure");
}

TEST(StoredVariableTable, CutAtEveryLengthItFailsAndStaysUsable) {
  StoredTable stored;
  const string body = Body(stored, 12);
  for (size_t length = 0; length < body.size(); length++) {
    SCOPED_TRACE(length);
    Table table(&stored.dictionary, 12, 512);
    EXPECT_FALSE(stored.Read(&table, body.substr(0, length)));
    EXPECT_EQ(table.Entries(), 0);
    EXPECT_EQ(table.Insert("a", 1), 0);
    EXPECT_EQ(table.Seek(-1, "a", 1, nullptr), 0);
  }
}

TEST(StoredVariableTable, CountsBeyondTheSectionFail) {
  StoredTable stored;
  const string entries = LE32(0) + LE32(-1);
  const string bodies[] = {
      LE16(0) + string(1, '\x0C') + LE32(0x7FFFFFFF) + entries,
      LE16(0) + string(1, '\x0C') + LE32(-1) + entries,
      LE16(0) + string(1, '\x0C') + LE32(2) + entries,
      LE16(65535) + string(1, '\x0C') + LE32(1) + entries,
      LE16(0) + string(1, '\x11') + LE32(1) + entries,  // 17 bits
      LE16(0) + string(1, '\xFF') + LE32(1) + entries,
  };
  for (const string& body : bodies) {
    Table table(&stored.dictionary, 12, 512);
    EXPECT_FALSE(stored.Read(&table, body));
    table.Insert("a", 1);
    EXPECT_EQ(table.Seek(-1, "a", 1, nullptr), 0);
  }
}

TEST(StoredVariableTable, BadHeadsAndLinksOnlyEndALookup) {
  StoredTable stored;
  const int alpha = Bucket("alpha", 12);
  struct Case {
    const char* label;
    int bucket;
    int first;
    int link;
  };
  const Case cases[] = {
      {"first beyond the entries", alpha, 3, -1},  {"negative first", alpha, -7, -1},
      {"largest first", alpha, INT_MAX, -1},       {"link beyond the entries", alpha, 2, 99},
      {"negative link", alpha, 2, INT_MIN},        {"a chain into itself", alpha, 2, 2},
      {"a bucket beyond the table", 65535, 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    string body = LE16(1) + string(1, '\x0C') + LE32(3) + LE16(c.bucket) + LE32(c.first);
    for (int i = 0; i < 3; i++) body += LE32(i) + LE32(c.link);
    Table table(&stored.dictionary, 12, 512);
    ASSERT_TRUE(stored.Read(&table, body));
    EXPECT_EQ(table.Seek(-1, "alpha", -1, nullptr), -1);
    EXPECT_NE(table.Index(0, 1), nullptr);
    EXPECT_EQ(table.Insert("alpha", -1), 3);
    EXPECT_EQ(table.Entries(), 4);
  }
}

TEST(StoredVariableTable, NameNumbersWithoutATextAreEmptyNames) {
  StoredTable stored;
  string body = LE16(1) + string(1, '\x0C') + LE32(1) + LE16(Bucket("", 12)) + LE32(0);
  body += LE32(99999) + LE32(-1);
  Table table(&stored.dictionary, 12, 512);
  ASSERT_TRUE(stored.Read(&table, body));
  ASSERT_NE(table.Index(0, 1), nullptr);
  EXPECT_EQ(table.Index(0, 1)->name().length, 0);
  const VariableRef target(Named("t", "x"));
  table.SetVariable_Reference(0, target.get());
}

TEST(StoredVariableTable, SurvivesAnyBytes) {
  std::mt19937 random(17);
  StoredTable stored;
  const string good = Body(stored, 8);
  for (int round = 0; round < 20000; round++) {
    string body = good;
    const int changes = static_cast<int>(random() % 4) + 1;
    for (int i = 0; i < changes; i++) body[random() % body.size()] = static_cast<char>(random());
    Table table(&stored.dictionary, 12, 512);
    stored.Read(&table, body);
    for (const string& name : stored.names) table.Seek(-1, name.data(), -1, nullptr);
    table.SetVariable("alpha", -1, "x", 1);
    table.SetVariable("new", -1, "y", 1);
    Variable* variable = nullptr;
    table.LookupVariable_Fancy(&variable, "c[1]", -1, 1);
    VariableHash twin(table);
    twin.SetVariable("twin", -1, "z", 1);
  }
}

TEST(StoredVariableTable, TakesTwoReadsAtMostFromTheFile) {
  StoredTable stored;
  Table table(&stored.dictionary, 12, 512);
  stored.files.files["f"] = CompiledFileBytes::Container({{"glbl", Body(stored, 12)}});
  ASSERT_TRUE(stored.file.Open("f", 1));
  stored.files.ResetCounts();
  ASSERT_TRUE(table.Read(&stored.file, MakeTag("glbl")));
  EXPECT_LE(stored.files.reads, 2);
}

}  // namespace
