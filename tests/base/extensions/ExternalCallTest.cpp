#include "base/extensions/ExternalCall.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

static_assert(sizeof(_ZP_EL_Parameter) == 16);
static_assert(offsetof(_ZP_EL_Function, namelength) == 8);
static_assert(offsetof(_ZP_EL_Function, parametercount) == 12);
static_assert(offsetof(_ZP_EL_Function, parameters) == 16);
static_assert(offsetof(_ZP_EL_Function, function) == 24);
static_assert(offsetof(_ZP_EL_FunctionTable, functions) == 8);

std::vector<std::string> events;
int state_word = 0;

void Answer42(ZephVM*, VariableHash*, Variable* result, void**) {
  result->SetValue_Integer(42);
}
void Answer43(ZephVM*, VariableHash*, Variable* result, void**) {
  result->SetValue_Integer(43);
}
void Nothing(ZephVM*, VariableHash*, Variable*, void**) {}

void KeepState(ZephVM* vm, VariableHash* parameters, Variable* result, void** state) {
  if (vm == nullptr && parameters == nullptr && result == nullptr) {
    events.push_back(*state == &state_word ? "freed" : "freed something else");
    return;
  }
  events.push_back(*state == nullptr ? "first" : "again");
  *state = &state_word;
}

ZephVM* const some_vm = reinterpret_cast<ZephVM*>(&state_word);

_ZP_EL_Function Row(const char* name, void (*function)(ZephVM*, VariableHash*, Variable*, void**)) {
  return {name, int(strlen(name)), 0, nullptr, function};
}
const _ZP_EL_Function end_of_table = {nullptr, 0, 0, nullptr, nullptr};

class ExternalCallTest : public LibraryFixture {
 protected:
  ExternalCallTest() : manager(&application) { events.clear(); }

  // Registers the fake library with a table of those rows.
  bool Register(std::vector<_ZP_EL_Function> table_rows) {
    rows = std::move(table_rows);
    rows.push_back(end_of_table);
    table = {0, rows.data()};
    Exported<void*>("fake_function_table") = &table;
    return manager.RegisterDSO(fake.c_str());
  }
  int IntegerOf(ExternalCall* call) { return call->result()->value_integer(); }

  std::vector<_ZP_EL_Function> rows;
  _ZP_EL_FunctionTable table = {};
  ExternalCallManager manager;
};

TEST_F(ExternalCallTest, MissingFileGivesTheLibraryManagersText) {
  EXPECT_FALSE(manager.RegisterDSO("/nonexistent/functions.so"));
  EXPECT_TRUE(NamesMissingFile(manager.error(), "/nonexistent/functions.so"));
}

TEST_F(ExternalCallTest, MissingExportGivesTheLibrarysText) {
  EXPECT_FALSE(manager.RegisterDSO(TestLibraryPath("FakeEmpty").c_str()));
  EXPECT_EQ(Text(manager.error()), "Unknown symbol 'zeph_function_table'");
}

TEST_F(ExternalCallTest, NullTableIsAnError) {
  EXPECT_FALSE(manager.RegisterDSO(fake.c_str()));
  EXPECT_EQ(Text(manager.error()), "Unable to retrieve function descriptor table");
}

TEST_F(ExternalCallTest, UnknownFunctionIsNull) {
  EXPECT_EQ(manager.Lookup_External("anything", -1), nullptr);
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  for (const char* name : {"", "answe", "answers", "question"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(manager.Lookup_External(name, -1), nullptr);
  }
}

TEST_F(ExternalCallTest, TableWithoutRowsHasNoFunctions) {
  table.functions = nullptr;
  Exported<void*>("fake_function_table") = &table;
  EXPECT_TRUE(manager.RegisterDSO(fake.c_str()));
  EXPECT_EQ(manager.Lookup_External("answer", -1), nullptr);
}

TEST_F(ExternalCallTest, CaseDoesNotCountAndTheCallIsKept) {
  ASSERT_TRUE(Register({Row("other", Nothing), Row("Answer", Answer42)}));
  ExternalCall* call = manager.Lookup_External("aNSWERs", 6);
  ASSERT_NE(call, nullptr);
  EXPECT_STREQ(call->descriptor()->name, "Answer");
  EXPECT_EQ(manager.Lookup_External("ANSWER", -1), call);
}

TEST_F(ExternalCallTest, CallGivesTheResult) {
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  ExternalCall* call = manager.Lookup_External("answer", -1);
  EXPECT_EQ(call->Call(some_vm, nullptr), 1);
  EXPECT_EQ(IntegerOf(call), 42);
}

TEST_F(ExternalCallTest, FirstOfTwoRowsWithOneNameWins) {
  ASSERT_TRUE(Register({Row("answer", Answer42), Row("ANSWER", Answer43)}));
  ExternalCall* call = manager.Lookup_External("answer", -1);
  call->Call(some_vm, nullptr);
  EXPECT_EQ(IntegerOf(call), 42);
}

TEST_F(ExternalCallTest, FirstRegisteredOfTwoLibrariesWins) {
  TemporaryDirectory directory;
  std::string second = directory.path("second.so");
  std::filesystem::copy_file(fake, second);
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  // The copy has its own variables.
  _ZP_EL_Function other_rows[] = {Row("answer", Answer43), Row("more", Answer43), end_of_table};
  _ZP_EL_FunctionTable other_table = {0, other_rows};
  ExternalLibrary* library = libraries.Lookup(second.c_str());
  ASSERT_NE(library, nullptr);
  *static_cast<void**>(library->Get_Function("fake_function_table")) = &other_table;
  ASSERT_TRUE(manager.RegisterDSO(second.c_str()));
  ExternalCall* call = manager.Lookup_External("answer", -1);
  call->Call(some_vm, nullptr);
  EXPECT_EQ(IntegerOf(call), 42);
  call = manager.Lookup_External("more", -1);
  ASSERT_NE(call, nullptr);
  call->Call(some_vm, nullptr);
  EXPECT_EQ(IntegerOf(call), 43);
}

TEST_F(ExternalCallTest, MoreLibrariesThanTheFirstRoom) {
  ASSERT_TRUE(Register({Row("first", Answer42)}));
  for (int i = 0; i < 40; i++) ASSERT_TRUE(manager.RegisterDSO(fake.c_str()));
  EXPECT_NE(manager.Lookup_External("first", -1), nullptr);
}

TEST_F(ExternalCallTest, FunctionThatLeavesTheResultAloneGivesNull) {
  ASSERT_TRUE(Register({Row("nothing", Nothing)}));
  ExternalCall* call = manager.Lookup_External("nothing", -1);
  call->result()->SetValue_Integer(5);
  call->Call(some_vm, nullptr);
  EXPECT_TRUE(call->result()->IsNULL());
}

TEST_F(ExternalCallTest, ResultThatNoOtherHolderHasIsUsedAgain) {
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  ExternalCall* call = manager.Lookup_External("answer", -1);
  Variable* before = call->result();
  call->Call(some_vm, nullptr);
  EXPECT_EQ(call->result(), before);
}

TEST_F(ExternalCallTest, ResultThatAScriptHoldsKeepsItsValue) {
  ASSERT_TRUE(Register({Row("nothing", Nothing)}));
  ExternalCall* call = manager.Lookup_External("nothing", -1);
  call->result()->SetValue_Integer(5);
  VariableRef held = VariableRef::Share(call->result());
  call->Call(some_vm, nullptr);
  EXPECT_NE(call->result(), held.get());
  EXPECT_EQ(held->value_integer(), 5);
  EXPECT_EQ(held->refcount(), 1);
}

int result_length = 0;

void LongResult(ZephVM*, VariableHash*, Variable* result, void**) {
  result->SetValue(std::string(size_t(result_length), 'x').c_str(), result_length);
}

TEST_F(ExternalCallTest, MemoryOfALongResultIsNotKeptForTheNext) {
  ASSERT_TRUE(Register({Row("long", LongResult)}));
  ExternalCall* call = manager.Lookup_External("long", -1);
  for (const int length : {100'000'000, 1000, 10}) {
    result_length = length;
    call->Call(some_vm, nullptr);
    EXPECT_EQ(call->result()->value().length, length);
    EXPECT_LE(call->result()->value().allocated, std::max(length + 24, ExternalCall::kMostKept));
  }
}

// The running call, which calls itself once more.
ExternalCall* recursive_call = nullptr;
int recursion_depth = 0;

void CountDown(ZephVM* vm, VariableHash* parameters, Variable* result, void**) {
  const int depth = recursion_depth--;
  result->SetValue_Integer(depth);
  if (depth == 0) return;
  recursive_call->Call(vm, parameters);
  events.push_back(std::to_string(recursive_call->result()->value_integer()));
  // This call's own result is still there and unchanged.
  events.push_back(std::to_string(result->value_integer()));
}

TEST_F(ExternalCallTest, FunctionThatIsCalledWhileItRunsHasAResultForEachCall) {
  ASSERT_TRUE(Register({Row("down", CountDown)}));
  recursive_call = manager.Lookup_External("down", -1);
  recursion_depth = 2;
  recursive_call->Call(some_vm, nullptr);
  EXPECT_EQ(events, (std::vector<std::string>{"0", "1", "1", "2"}));
  EXPECT_EQ(IntegerOf(recursive_call), 2);
  EXPECT_EQ(recursive_call->result()->refcount(), 1);
}

Variable* referred_to = nullptr;

void ReferTo(ZephVM*, VariableHash*, Variable* result, void**) {
  result->Make_Reference(referred_to);
}

TEST_F(ExternalCallTest, ResultThatRefersToAVariableIsNotClearedThroughIt) {
  ASSERT_TRUE(Register({Row("refer", ReferTo)}));
  Variable* target = new Variable("x", 1, 7);
  referred_to = target;
  ExternalCall* call = manager.Lookup_External("refer", -1);
  call->Call(some_vm, nullptr);
  EXPECT_EQ(IntegerOf(call), 7);
  call->Call(some_vm, nullptr);
  EXPECT_EQ(target->value_integer(), 7);
  EXPECT_EQ(IntegerOf(call), 7);
  target->DecRefCount();
}

TEST_F(ExternalCallTest, StateIsKeptFromCallToCallAndFreedAtTheEnd) {
  {
    ExternalCallManager request(&application);
    ASSERT_TRUE(Register({Row("keep", KeepState)}));
    ASSERT_TRUE(request.RegisterDSO(fake.c_str()));
    ExternalCall* call = request.Lookup_External("keep", -1);
    call->Call(some_vm, nullptr);
    call->Call(some_vm, nullptr);
    EXPECT_EQ(events, (std::vector<std::string>{"first", "again"}));
  }
  EXPECT_EQ(events, (std::vector<std::string>{"first", "again", "freed"}));
}

void KeepStateWithoutMemory(ZephVM* vm, VariableHash* parameters, Variable* result, void** state) {
  KeepState(vm, parameters, result, state);
  if (vm == nullptr) throw std::bad_alloc();
}

TEST_F(ExternalCallTest, StateIsFreedAlthoughThatOfAnotherFunctionRunsOutOfMemory) {
  {
    ExternalCallManager request(&application);
    ASSERT_TRUE(Register({Row("a", KeepStateWithoutMemory), Row("b", KeepStateWithoutMemory)}));
    ASSERT_TRUE(request.RegisterDSO(fake.c_str()));
    for (const char* name : {"a", "b"}) request.Lookup_External(name, -1)->Call(some_vm, nullptr);
    events.clear();
  }
  EXPECT_EQ(events, (std::vector<std::string>{"freed", "freed"}));
}

TEST_F(ExternalCallTest, FunctionWithoutStateIsNotCalledAtTheEnd) {
  {
    ExternalCallManager request(&application);
    ASSERT_TRUE(Register({Row("keep", KeepState)}));
    ASSERT_TRUE(request.RegisterDSO(fake.c_str()));
    EXPECT_NE(request.Lookup_External("keep", -1), nullptr);
  }
  EXPECT_TRUE(events.empty());
}

void NoteDestroyed(void* vm, void* data) {
  events.push_back(std::string("destroyed ") + static_cast<const char*>(data) +
                   (vm == some_vm ? "" : " by another machine"));
}

char* Data(const char* text) {
  return const_cast<char*>(text);
}

TEST_F(ExternalCallTest, PersistentDataIsFoundInAnyCase) {
  EXPECT_EQ(manager.Lookup_Persistent("pool", -1), nullptr);
  manager.Register_Persistent(some_vm, "poolX", 4, Data("a"), NoteDestroyed);
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("POOL", -1)), "a");
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool of something", 4)), "a");
  EXPECT_EQ(manager.Lookup_Persistent("pools", -1), nullptr);
}

TEST_F(ExternalCallTest, SecondRegistrationDestroysTheFirstData) {
  manager.Register_Persistent(some_vm, "pool", -1, Data("a"), NoteDestroyed);
  manager.Register_Persistent(some_vm, "Pool", -1, Data("b"), NoteDestroyed);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a"}));
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool", -1)), "b");
}

TEST_F(ExternalCallTest, PersistentNameIsCopied) {
  char name[] = "pool";
  manager.Register_Persistent(some_vm, name, -1, Data("a"), NoteDestroyed);
  name[0] = 'x';
  EXPECT_NE(manager.Lookup_Persistent("pool", -1), nullptr);
}

TEST_F(ExternalCallTest, PersistentDataEndsWithTheManager) {
  {
    ExternalCallManager request(&application);
    request.Register_Persistent(some_vm, "a", -1, Data("a"), NoteDestroyed);
    request.Register_Persistent(some_vm, "b", -1, Data("b"), NoteDestroyed);
    EXPECT_TRUE(events.empty());
  }
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a", "destroyed b"}));
}

TEST_F(ExternalCallTest, PersistentDataEndsBeforeItsMachine) {
  ZephVM* other = reinterpret_cast<ZephVM*>(&events);
  manager.Register_Persistent(some_vm, "a", -1, Data("a"), NoteDestroyed);
  manager.Register_Persistent(other, "b", -1, Data("b"), NoteDestroyed);
  manager.Register_Persistent(some_vm, "c", -1, Data("c"), NoteDestroyed);
  manager.MachineEnds(some_vm, nullptr);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a", "destroyed c"}));
  EXPECT_EQ(manager.Lookup_Persistent("a", -1), nullptr);
  EXPECT_NE(manager.Lookup_Persistent("b", -1), nullptr);
  manager.MachineEnds(other, nullptr);
}

TEST_F(ExternalCallTest, PersistentDataOfANestedMachineGoesOverToItsParent) {
  ZephVM* nested = reinterpret_cast<ZephVM*>(&events);
  manager.Register_Persistent(nested, "a", -1, Data("a"), NoteDestroyed);
  manager.MachineEnds(nested, some_vm);
  EXPECT_TRUE(events.empty());
  EXPECT_NE(manager.Lookup_Persistent("a", -1), nullptr);
  manager.MachineEnds(some_vm, nullptr);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a"}));
}

// The manager that a callback uses.
ExternalCallManager* callback_manager = nullptr;

void LeaveAnother(void* vm, void* data) {
  NoteDestroyed(vm, data);
  callback_manager->Register_Persistent(some_vm, "pool", -1, Data("left behind"), NoteDestroyed);
}

TEST_F(ExternalCallTest, WhatACallbackLeavesIsDestroyedToo) {
  callback_manager = &manager;
  manager.Register_Persistent(some_vm, "pool", -1, Data("a"), LeaveAnother);
  manager.Register_Persistent(some_vm, "pool", -1, Data("b"), LeaveAnother);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a", "destroyed left behind"}));
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool", -1)), "b");
  manager.MachineEnds(some_vm, nullptr);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a", "destroyed left behind", "destroyed b",
                                              "destroyed left behind"}));
  EXPECT_EQ(manager.Lookup_Persistent("pool", -1), nullptr);
}

// A callback may call functions of the script, which may use up the memory.
void DestroyWithoutMemory(void* vm, void* data) {
  NoteDestroyed(vm, data);
  throw std::bad_alloc();
}

TEST_F(ExternalCallTest, PersistentDataEndsAlthoughACallbackRunsOutOfMemory) {
  {
    ExternalCallManager request(&application);
    request.Register_Persistent(some_vm, "a", -1, Data("a"), DestroyWithoutMemory);
    request.Register_Persistent(some_vm, "b", -1, Data("b"), NoteDestroyed);
    request.Register_Persistent(some_vm, "c", -1, Data("c"), DestroyWithoutMemory);
    request.Register_Persistent(some_vm, "A", -1, Data("d"), DestroyWithoutMemory);
    EXPECT_EQ(events, (std::vector<std::string>{"destroyed a"}));
    EXPECT_STREQ(static_cast<char*>(request.Lookup_Persistent("a", -1)), "d");
    events.clear();
    request.MachineEnds(some_vm, nullptr);
    EXPECT_EQ(events.size(), 3u);
    for (const char* name : {"a", "b", "c"}) {
      EXPECT_EQ(request.Lookup_Persistent(name, -1), nullptr) << name;
    }
    events.clear();
    request.Register_Persistent(some_vm, "e", -1, Data("e"), DestroyWithoutMemory);
    request.Register_Persistent(some_vm, "f", -1, Data("f"), DestroyWithoutMemory);
  }
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed e", "destroyed f"}));
}

// Under the address sanitizer data that is not freed fails the test.
TEST_F(ExternalCallTest, PersistentDataWithoutCallbackIsDeleted) {
  manager.Register_Persistent(some_vm, "a", -1, new char[16], nullptr);
}

TEST_F(ExternalCallTest, CopyRegistersTheLibrariesAgainAndNothingElse) {
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  manager.Register_Persistent(some_vm, "pool", -1, Data("a"), NoteDestroyed);
  ExternalCall* call = manager.Lookup_External("answer", -1);
  int before = Exported<int>("fake_calls");
  ExternalCallManager copy(&application, manager);
  EXPECT_EQ(Exported<int>("fake_calls"), before + 1);
  EXPECT_NE(copy.Lookup_External("answer", -1), nullptr);
  EXPECT_NE(copy.Lookup_External("answer", -1), call);
  EXPECT_EQ(copy.Lookup_Persistent("pool", -1), nullptr);
}

// The name is often a part of the data, so that one allocation has both.
struct NamedData {
  char name[8];
};

void DeleteNamedData(void*, void* data) {
  memset(static_cast<NamedData*>(data)->name, 'x', sizeof(NamedData::name));
  delete static_cast<NamedData*>(data);
}

TEST_F(ExternalCallTest, PersistentNameMayBeAPartOfTheDataThatItReplaces) {
  auto* const old = new NamedData{"pool"};
  manager.Register_Persistent(some_vm, old->name, -1, old, DeleteNamedData);
  manager.Register_Persistent(some_vm, old->name, -1, Data("b"), NoteDestroyed);
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool", -1)), "b");
  manager.MachineEnds(some_vm, nullptr);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed b"}));
}

TEST_F(ExternalCallTest, NegativeLengthIsAnEmptyNameWhereverItIsGiven) {
  manager.Register_Persistent(some_vm, "pool", -2, Data("a"), NoteDestroyed);
  EXPECT_EQ(manager.Lookup_Persistent("pool", -1), nullptr);
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool", -2)), "a");
  EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("", 0)), "a");
  manager.Register_Persistent(some_vm, "other", -5, Data("b"), NoteDestroyed);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed a"}));
  ASSERT_TRUE(Register({Row("answer", Answer42)}));
  EXPECT_EQ(manager.Lookup_External("answer", -2), nullptr);
}

// Registers its own name again, whenever its data is destroyed.
int comebacks = 0;

void ComeBack(void*, void* data) {
  comebacks++;
  callback_manager->Register_Persistent(some_vm, "pool", -1, data, ComeBack);
}

// The same twice: the second registration destroys the data of the first, in the callback.
void ComeBackTwice(void*, void* data) {
  comebacks++;
  for (int i = 0; i < 2; i++) {
    callback_manager->Register_Persistent(some_vm, "pool", -1, data, ComeBackTwice);
  }
}

TEST_F(ExternalCallTest, CallbackThatRegistersItsNameAgainIsCalledAHundredTimesMore) {
  callback_manager = &manager;
  for (const auto callback : {ComeBack, ComeBackTwice}) {
    manager.Register_Persistent(some_vm, "pool", -1, Data("a"), callback);
    comebacks = 0;
    manager.Register_Persistent(some_vm, "pool", -1, Data("b"), callback);
    EXPECT_EQ(comebacks, 101);
    EXPECT_STREQ(static_cast<char*>(manager.Lookup_Persistent("pool", -1)), "b");
    comebacks = 0;
    manager.MachineEnds(some_vm, nullptr);
    EXPECT_EQ(comebacks, 101);
    EXPECT_EQ(manager.Lookup_Persistent("pool", -1), nullptr);
  }
}

TEST_F(ExternalCallTest, CallbackThatRegistersItsNameAgainEndsWithTheManagerToo) {
  {
    ExternalCallManager request(&application);
    callback_manager = &request;
    request.Register_Persistent(some_vm, "pool", -1, Data("a"), ComeBack);
    request.Register_Persistent(some_vm, "other", -1, Data("b"), NoteDestroyed);
    comebacks = 0;
  }
  EXPECT_EQ(comebacks, 101);
  EXPECT_EQ(events, (std::vector<std::string>{"destroyed b"}));
}

// What has no callback cannot come back, so it is always accepted. The address sanitizer sees that
// it is freed.
void LeaveMemory(void*, void*) {
  for (int i = 0; i < 300; i++) {
    callback_manager->Register_Persistent(some_vm, "memory", -1, new char[8], nullptr);
  }
}

TEST_F(ExternalCallTest, MemoryThatACallbackLeavesIsFreed) {
  callback_manager = &manager;
  manager.Register_Persistent(some_vm, "pool", -1, Data("a"), LeaveMemory);
  manager.MachineEnds(some_vm, nullptr);
  EXPECT_EQ(manager.Lookup_Persistent("memory", -1), nullptr);
}

}  // namespace
