// The end of a run without memory: what a script leaves is deleted without allocating, because a
// destructor that fails to allocate would end the process.

#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/core/ThreadMemory.h"
#include "base/host/Config.h"
#include "base/machine/Lockfile.h"
#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "base/values/VariableRef.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Machine.h"

namespace {

// As long as one exists, nothing can be allocated on this thread. Tests have no expectations
// meanwhile, because these allocate.
class NoMemory : public FailingAllocator {
 public:
  NoMemory() : FailingAllocator(1, FromThereOn) {}
};

// Runs the code, then ends the request without memory.
void EndWithoutMemory(const std::string& code) {
  Machine machine;
  machine.Assemble(code);
  machine.Go();
  Output* left;
  long asked;
  {
    const NoMemory none;
    machine.Close();
    machine.global.Dump();
    Variable::FreeCycles();
    left = machine.application.output();
    asked = FailingAllocator::Asked();
  }
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(left, &machine.output);
}

TEST(Cleanup, TheAllocatorOfThisTestRefuses) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  bool threw = false;
  long asked;
  {
    const NoMemory none;
    try {
      delete new Machine;
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    asked = FailingAllocator::Asked();
  }
  EXPECT_TRUE(threw);
  EXPECT_EQ(asked, 1);
}

TEST(Cleanup, OfCapturesOnTheStack) {
  EndWithoutMemory(
      "again: pushg x\ncapture\npushi 1\nout\nincg i, 1\ncmpgi i, 200\njmp_lt again\n"
      "pushi 2\nout");
}

TEST(Cleanup, OfCapturesThatFunctionsHaveLeftOpen) {
  EndWithoutMemory(
      "again: call f\npop\nincg i, 1\ncmpgi i, 200\njmp_lt again\npushi 2\nout\n.segment 1\n"
      ".function f()\npushg x\ncapture\npushi 1\nout\npushg x\ncapture\npushg x\ncapture\n"
      "retn");
}

TEST(Cleanup, OfFramesWithVariablesAndTexts) {
  const std::string text(300, 'x');
  EndWithoutMemory(
      "pushi 200\npushg v\ncall f\n.segment 1\n.function f(n, v var)\n.local s, a\npushl n\n"
      "jmp_ne more\njmp 1000\nmore: pushc \"" +
      text +
      "\"\npopl s\npushl n\npushl a\npushl n\nelem\nstore\npushl s\npushc \"y\"\ncat\n"
      "pushi 5\ncat\npushl n\npushi 1\nsub\npushl v\ncall f\nret");
}

TEST(Cleanup, OfCirclesAndChains) {
  EndWithoutMemory(
      "again: incg i, 1\npushg i\npushg x\npushg i\nelem\nstore\n"
      "pushg x\npushg x\npushg i\nelem\nrefer\n"
      "pushg y\npushg i\nelem\npushg y\npushg i\npushi 1\nadd\nelem\nrefer\n"
      "cmpgi i, 300\njmp_lt again");
}

// Structures and arrays of all shapes, with references that make circles.
TEST(Cleanup, OfCirclesOfTreesInAnyShape) {
  std::vector<VariableRef> arrays;
  for (int i = 0; i < 50; i++) {
    arrays.emplace_back(new Variable());
    for (int k = 0; k < 60; k++) {
      arrays.back()->Element(AggregateIndex(1 + k * (i % 3 + 1)), 1)->SetValue_Integer(k);
    }
    for (int k = 0; k < 60; k += 7) arrays.back()->Element(AggregateIndex(1 + k), 0);
    arrays.back()->SetElement(AggregateIndex(1000), arrays[static_cast<size_t>(i) / 2].get());
    arrays.back()->Element(AggregateIndex(1001), 1)->Make_Reference(arrays[0].get());
    arrays[0]->SetElement(AggregateIndex(2000 + i * 2), arrays.back().get());
  }
  const VariableRef kept = VariableRef::Share(arrays[7].get());
  long asked;
  {
    const NoMemory none;
    for (VariableRef& array : arrays) array.reset();
    Variable::FreeCycles();
    asked = FailingAllocator::Asked();
  }
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(kept->Element(AggregateIndex(1), 0)->value_integer(), 0);
  EXPECT_EQ(kept->Element(AggregateIndex(1001), 0)->NextIdentity()->ElementsUsed(), 112);
  const VariableRef first = VariableRef::Share(kept->Element(AggregateIndex(1001), 0));
  for (int i = 49; i >= 0; i--) {
    const VariableRef other = VariableRef::Share(first->Element(AggregateIndex(2000 + i * 2), 0));
    other->SetNULL();
  }
}

// The text's bytes are copied when its variable is deleted, and there may be no memory for that.
TEST(Cleanup, ATextWhoseVariableIsGoneIsLostWithoutMemory) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  auto* variable = new Variable("s", 1, std::string(500, 'x').c_str(), 500);
  const std::unique_ptr<DeferredText> text(DeferredText::Begin(variable));
  ASSERT_NE(text, nullptr);
  text->Append("y", 1);
  long asked;
  {
    const NoMemory none;
    variable->DecRefCount();
    asked = FailingAllocator::Asked();
  }
  EXPECT_EQ(asked, 1);
  int length;
  EXPECT_THROW(text->Append("z", 1), std::bad_alloc);
  EXPECT_THROW((void)text->Release(&length), std::bad_alloc);
}

// The first two deletions have no memory for the file's path.
class ScarceFileManager : public MemoryFileManager {
 public:
  int Lock(Zeph_PathType, const char*) override { return FileLock_Held; }
  bool Delete(Zeph_PathType, const char*) override {
    if (deletions++ < 2) throw std::bad_alloc();
    return true;
  }
  int deletions = 0;
};

TEST(Cleanup, ALockIsGivenBackWhenMemoryIsToBeHadAgain) {
  ScarceFileManager scarce;
  Machine machine;
  machine.application.SetFileManager(&scarce);
  machine.application.config()->SetValue_Integer(Config_delay_file, 1);
  machine.Assemble("pushc \"orders\"\nlockfile\n");
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  machine.Close();
  EXPECT_EQ(scarce.deletions, 3);
}

}  // namespace
