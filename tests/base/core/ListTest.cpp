#include <string>

#include "base/core/List.h"
#include "base/core/SearchableList.h"
#include "gtest/gtest.h"

namespace {

struct Item {
  explicit Item(char letter, int* deletions = nullptr) : name(letter), deleted(deletions) {}
  ~Item() {
    if (deleted) ++*deleted;
  }
  char name;
  int* deleted;
};

// The list from head to tail, with the current element in capitals. Also checks the links backward.
class Letters : public List<Item> {
 public:
  using List<Item>::List;

  std::string Shape() const {
    std::string shape;
    const ListNode<Item>* previous = nullptr;
    for (const ListNode<Item>* node = head; node; node = node->next) {
      EXPECT_EQ(node->previous, previous);
      shape += static_cast<char>(node->item->name - (node == current ? 32 : 0));
      previous = node;
    }
    EXPECT_EQ(tail, previous);
    return shape;
  }
};

// One item for each letter, none owned by a list.
class ListTest : public ::testing::Test {
 protected:
  ListTest() {
    for (char letter = 'a'; letter <= 'z'; ++letter) items.push_back(Item(letter));
  }
  Item* At(char letter) { return &items[letter - 'a']; }
  void Fill(const char* letters) {
    for (; *letters; ++letters) list.Insert(At(*letters), ListTail);
  }
  static char Name(Item* item) { return item ? item->name : '-'; }

  std::vector<Item> items;
  Letters list{0};
};

TEST_F(ListTest, InsertIntoAnEmptyListAtAnyPosition) {
  for (ListPosition position : {ListHead, ListCurrent, ListTail}) {
    Letters empty(0);
    empty.Insert(At('a'), position);
    EXPECT_EQ(empty.Shape(), "A");
    EXPECT_EQ(empty.Entries(), 1);
  }
}

TEST_F(ListTest, InsertMakesTheNewElementCurrent) {
  Fill("bc");
  EXPECT_EQ(list.Shape(), "bC");
  list.Insert(At('a'), ListHead);
  EXPECT_EQ(list.Shape(), "Abc");
  list.Insert(At('d'), ListTail);
  EXPECT_EQ(list.Shape(), "abcD");
  EXPECT_EQ(list.Entries(), 4);
}

TEST_F(ListTest, InsertAtCurrentIsBeforeTheOldCurrent) {
  Fill("abc");
  list.Seek(At('b'));
  list.Insert(At('x'), ListCurrent);
  EXPECT_EQ(list.Shape(), "aXbc");
  list.First();
  list.Insert(At('y'), ListCurrent);
  EXPECT_EQ(list.Shape(), "Yaxbc");
}

TEST_F(ListTest, InsertAtCurrentWithoutACurrentElementGoesLast) {
  Fill("ab");
  list.Seek(nullptr);
  list.Insert(At('c'), ListCurrent);
  EXPECT_EQ(list.Shape(), "abC");
}

TEST_F(ListTest, RemoveOnAnEmptyListStillCountsDown) {
  EXPECT_EQ(list.Remove(ListHead), nullptr);
  EXPECT_EQ(list.Entries(), -1);
  EXPECT_EQ(list.Remove(ListTail), nullptr);
  EXPECT_EQ(list.Entries(), -2);
}

TEST_F(ListTest, RemoveHeadMovesTheCursorOnlyFromThere) {
  Fill("abc");
  EXPECT_EQ(list.Remove(ListHead), At('a'));
  EXPECT_EQ(list.Shape(), "bC");
  list.First();
  EXPECT_EQ(list.Remove(ListHead), At('b'));
  EXPECT_EQ(list.Shape(), "C");
}

TEST_F(ListTest, RemoveTailMovesTheCursorOnlyFromThere) {
  Fill("abc");
  EXPECT_EQ(list.Remove(ListTail), At('c'));
  EXPECT_EQ(list.Shape(), "aB");
  list.First();
  EXPECT_EQ(list.Remove(ListTail), At('b'));
  EXPECT_EQ(list.Shape(), "A");
}

TEST_F(ListTest, RemoveCurrentGoesOnToTheSuccessor) {
  Fill("abc");
  list.Seek(At('b'));
  EXPECT_EQ(list.Remove(ListCurrent), At('b'));
  EXPECT_EQ(list.Shape(), "aC");
  EXPECT_EQ(list.Remove(ListCurrent), At('c'));
  EXPECT_EQ(list.Shape(), "a");
  EXPECT_EQ(list.Current(), nullptr);
}

TEST_F(ListTest, RemoveCurrentWithoutOneDoesNothing) {
  Fill("ab");
  list.Seek(nullptr);
  EXPECT_EQ(list.Remove(ListCurrent), nullptr);
  EXPECT_EQ(list.Shape(), "ab");
  EXPECT_EQ(list.Entries(), 2);
}

TEST_F(ListTest, RemovingTheLastElementEmptiesTheList) {
  for (ListPosition position : {ListHead, ListCurrent, ListTail}) {
    Fill("a");
    EXPECT_EQ(list.Remove(position), At('a'));
    EXPECT_EQ(list.Shape(), "");
    EXPECT_EQ(list.Current(), nullptr);
    EXPECT_EQ(list.First(), nullptr);
    EXPECT_EQ(list.Last(), nullptr);
    EXPECT_EQ(list.Entries(), 0);
  }
}

TEST_F(ListTest, SeekSetsTheCursorOrClearsIt) {
  Fill("abc");
  EXPECT_EQ(list.Seek(At('b')), At('b'));
  EXPECT_EQ(list.Current(), At('b'));
  EXPECT_EQ(list.Seek(At('z')), nullptr);
  EXPECT_EQ(list.Current(), nullptr);
}

TEST_F(ListTest, WalksEndOnNone) {
  Fill("abc");
  EXPECT_EQ(Name(list.First()), 'a');
  EXPECT_EQ(Name(list.Next()), 'b');
  EXPECT_EQ(Name(list.Next()), 'c');
  EXPECT_EQ(Name(list.Previous()), 'b');
  EXPECT_EQ(Name(list.Last()), 'c');
  EXPECT_EQ(list.Next(), nullptr);
  EXPECT_EQ(list.Next(), nullptr);
  EXPECT_EQ(list.Previous(), nullptr);
  list.First();
  EXPECT_EQ(list.Previous(), nullptr);
  EXPECT_EQ(list.Current(), nullptr);
}

TEST_F(ListTest, NullElementsAreValues) {
  list.Insert(nullptr, ListTail);
  EXPECT_EQ(list.Entries(), 1);
  EXPECT_EQ(list.Remove(ListHead), nullptr);
  EXPECT_EQ(list.Entries(), 0);
  Letters owning(1);
  owning.Insert(nullptr, ListTail);
}

TEST(List, OwningListDeletesItsElements) {
  int deleted = 0;
  {
    List<Item> list(1);
    for (int i = 0; i < 3; ++i) list.Insert(new Item('a', &deleted), ListTail);
    delete list.Remove(ListHead);
    EXPECT_EQ(deleted, 1);
    list.Dump();
    EXPECT_EQ(deleted, 3);
    EXPECT_EQ(list.Entries(), 0);
    EXPECT_EQ(list.First(), nullptr);
    list.Insert(new Item('a', &deleted), ListTail);
  }
  EXPECT_EQ(deleted, 4);
}

TEST(List, OtherListLeavesThemAlone) {
  int deleted = 0;
  Item item('a', &deleted);
  {
    List<Item> list(0);
    list.Insert(&item, ListTail);
    list.Dump();
    list.Insert(&item, ListTail);
  }
  EXPECT_EQ(deleted, 0);
}

TEST(List, RemoveAllNeverDeletes) {
  int deleted = 0;
  Item item('a', &deleted);
  List<Item> list(1);
  list.Insert(&item, ListTail);
  list.RemoveAll();
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(list.Entries(), 0);
  EXPECT_EQ(list.First(), nullptr);
}

TEST(List, DumpGoesThroughPurge) {
  struct Counting : List<Item> {
    using List<Item>::List;
    void Purge(Item* item) override {
      ++purged;
      List<Item>::Purge(item);
    }
    int purged = 0;
  };
  Counting list(1);
  list.Insert(new Item('a'), ListTail);
  list.Insert(nullptr, ListTail);
  list.Dump();
  EXPECT_EQ(list.purged, 2);
}

class Index : public SearchableList<Item, char> {
 public:
  using SearchableList::SearchableList;
  int Compare(char key, Item* item) override { return key - item->name; }
};

TEST(SearchableList, FindWalksFromTheHead) {
  Index list(1);
  for (char letter : {'a', 'b', 'a', 'c'}) list.Insert(new Item(letter), ListTail);
  Item* first = list.First();
  list.Last();
  EXPECT_EQ(list.Find('a'), first);
  EXPECT_EQ(list.Current(), first);
}

TEST(SearchableList, FindNextGoesOnAfterTheCurrent) {
  Index list(1);
  for (char letter : {'a', 'b', 'a', 'c'}) list.Insert(new Item(letter), ListTail);
  Item* first = list.Find('a');
  Item* second = list.FindNext('a');
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(list.Current(), second);
  EXPECT_EQ(list.FindNext('a'), nullptr);
  EXPECT_EQ(list.Current(), nullptr);
  EXPECT_EQ(list.FindNext('a'), nullptr);
}

TEST(SearchableList, FindOfAnAbsentKeyClearsTheCursor) {
  Index list(1);
  list.Insert(new Item('a'), ListTail);
  EXPECT_EQ(list.Find('x'), nullptr);
  EXPECT_EQ(list.Current(), nullptr);
}

}  // namespace
