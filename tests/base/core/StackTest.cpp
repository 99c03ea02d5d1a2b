#include <string>

#include "base/core/Stack.h"
#include "gtest/gtest.h"

namespace {

// Writes its name into a log when it is deleted.
struct Item {
  Item(char letter, std::string* deletions) : name(letter), deleted(deletions) {}
  ~Item() { *deleted += name; }
  char name;
  std::string* deleted;
};

class StackTest : public ::testing::Test {
 protected:
  void Fill(const char* letters) {
    for (; *letters; ++letters) stack.Push(new Item(*letters, &deleted));
  }
  // The name of a popped element, which is deleted without an entry in the log; '-' for null.
  static char Take(Item* item) {
    if (!item) return '-';
    char name = item->name;
    std::string ignored;
    item->deleted = &ignored;
    delete item;
    return name;
  }
  static char Name(Item* item) { return item ? item->name : '-'; }

  std::string deleted;
  Stack<Item> stack{1};
};

TEST_F(StackTest, PushAndPop) {
  Fill("abc");
  EXPECT_EQ(stack.Entries(), 3);
  EXPECT_EQ(Take(stack.Pop()), 'c');
  EXPECT_EQ(Take(stack.Pop()), 'b');
  EXPECT_EQ(stack.Entries(), 1);
  EXPECT_EQ(Take(stack.Pop()), 'a');
  EXPECT_EQ(stack.Pop(), nullptr);
  EXPECT_EQ(stack.Entries(), 0);
  EXPECT_EQ(deleted, "");
}

TEST_F(StackTest, TopLeavesTheElement) {
  EXPECT_EQ(stack.Top(), nullptr);
  Fill("ab");
  EXPECT_EQ(Name(stack.Top()), 'b');
  EXPECT_EQ(stack.Entries(), 2);
}

TEST_F(StackTest, PeekWalksDownToNone) {
  Fill("abc");
  EXPECT_EQ(Name(stack.Peek()), 'b');
  EXPECT_EQ(Name(stack.Peek()), 'a');
  EXPECT_EQ(stack.Peek(), nullptr);
  EXPECT_EQ(stack.Peek(), nullptr);
  EXPECT_EQ(Name(stack.Top()), 'c');
  EXPECT_EQ(Name(stack.Peek()), 'b');
}

TEST_F(StackTest, PeekOfAnEmptyStackIsNone) {
  EXPECT_EQ(stack.Peek(), nullptr);
}

TEST_F(StackTest, PopUnwindsToTheCursor) {
  Fill("abcd");
  stack.Top();
  stack.Peek();
  stack.Peek();
  EXPECT_EQ(Take(stack.Pop()), 'b');
  EXPECT_EQ(deleted, "dc");
  EXPECT_EQ(stack.Entries(), 1);
  EXPECT_EQ(Name(stack.Top()), 'a');
}

TEST_F(StackTest, PopAfterUnwindingIsAnOrdinaryPop) {
  Fill("abcd");
  stack.Peek();
  EXPECT_EQ(Take(stack.Pop()), 'c');
  EXPECT_EQ(Take(stack.Pop()), 'b');
  EXPECT_EQ(deleted, "d");
}

TEST_F(StackTest, TopBeforePopForgetsThePeeks) {
  Fill("abc");
  stack.Peek();
  stack.Peek();
  stack.Top();
  EXPECT_EQ(Take(stack.Pop()), 'c');
  EXPECT_EQ(deleted, "");
}

TEST_F(StackTest, PopWithTheCursorBeyondTheBottomAnswersTheBottom) {
  Fill("abc");
  while (stack.Peek()) {
  }
  EXPECT_EQ(Take(stack.Pop()), 'a');
  EXPECT_EQ(deleted, "cb");
  EXPECT_EQ(stack.Entries(), 0);
  EXPECT_EQ(stack.Pop(), nullptr);
}

TEST_F(StackTest, DumpDeletesAndKeepsTheCount) {
  Fill("abc");
  stack.Dump();
  EXPECT_EQ(deleted, "cba");
  EXPECT_EQ(stack.Entries(), 3);
  EXPECT_EQ(stack.Top(), nullptr);
  EXPECT_EQ(stack.Pop(), nullptr);
}

TEST_F(StackTest, DestructorDeletesOwnedElements) {
  {
    Stack<Item> owning(1);
    owning.Push(new Item('x', &deleted));
    owning.Push(nullptr);
  }
  EXPECT_EQ(deleted, "x");
}

TEST_F(StackTest, OtherStackLeavesThemAlone) {
  Item kept('k', &deleted);
  {
    Stack<Item> other(0);
    other.Push(&kept);
    other.Push(&kept);
    other.Push(&kept);
    other.Top();
    other.Peek();
    EXPECT_EQ(other.Pop(), &kept);
    other.Dump();
    other.Push(&kept);
  }
  EXPECT_EQ(deleted, "");
}

}  // namespace
