#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "base/core/SplayTree.h"
#include "gtest/gtest.h"
#include "tests/support/Rounds.h"

namespace {

struct Item {
  explicit Item(int number) : key(number) { ++alive; }
  Item(const Item& other) : key(other.key) { ++alive; }
  ~Item() {
    --alive;
    if (log) log->push_back(key);
  }
  int key;
  static int alive;
  static std::vector<int>* log;
};

int Item::alive = 0;
std::vector<int>* Item::log = nullptr;

class Tree : public SplayTree<Item, const int&> {
 public:
  using Node = SplayTreeNode<Item>;

  explicit Tree(int owns) : SplayTree(owns) {}
  Tree(const Tree& other) : SplayTree(other.own) { CopyFromSplayTree(other); }
  const int& Key(Item* item) override { return item->key; }
  int Compare(const int& key, Item* item) override {
    ++compared;
    return key < item->key ? -1 : key > item->key;
  }

  void Fill(const std::vector<int>& keys) {
    for (int key : keys) Insert(new Item(key));
  }
  // "(left key right)", a missing child left out.
  std::string Shape() const { return Shape(root); }
  // Replaces the tree with one of a given shape, to set up a case of Remove.
  Node* Make(Node* left, int key, Node* right) {
    ++entries;
    return new Node{left, right, new Item(key)};
  }
  void SetRoot(Node* node) { root = node; }
  using SplayTree::Splay;

  int compared = 0;

 private:
  static std::string Shape(const Node* node) {
    if (!node) return "";
    return '(' + Shape(node->left) + std::to_string(node->item->key) + Shape(node->right) + ')';
  }
};

std::vector<int> Keys(const Tree& tree) {
  List<Item> list(0);
  tree.AppendToList(list);
  std::vector<int> keys;
  for (Item* item = list.First(); item; item = list.Next()) keys.push_back(item->key);
  return keys;
}

std::vector<int> UpTo(int count) {
  std::vector<int> keys;
  for (int i = 1; i <= count; ++i) keys.push_back(i);
  return keys;
}

TEST(SplayTree, EmptyTreeAnswersNull) {
  Tree tree(1);
  EXPECT_EQ(tree.Find(1), nullptr);
  EXPECT_EQ(tree.Next(1), nullptr);
  EXPECT_EQ(tree.Previous(1), nullptr);
  EXPECT_EQ(tree.First(), nullptr);
  EXPECT_EQ(tree.Last(), nullptr);
  EXPECT_EQ(tree.Remove(1), nullptr);
  EXPECT_EQ(tree.Entries(), 0);
  EXPECT_TRUE(Keys(tree).empty());
  tree.Dump();
}

TEST(SplayTree, InsertPutsTheNewElementAtTheRoot) {
  Tree tree(1);
  tree.Fill({5});
  EXPECT_EQ(tree.Shape(), "(5)");
  tree.Fill({3});
  EXPECT_EQ(tree.Shape(), "(3(5))");
  tree.Fill({9});
  EXPECT_EQ(tree.Shape(), "(((3)5)9)");
  tree.Fill({4});
  EXPECT_EQ(tree.Shape(), "((3)4(5(9)))");
  EXPECT_EQ(tree.Entries(), 4);
}

TEST(SplayTree, InsertOfAnEqualKeyPutsTheOldOneOnItsLeft) {
  Tree tree(1);
  tree.Fill({5, 5});
  EXPECT_EQ(tree.Shape(), "((5)5)");
  EXPECT_EQ(tree.Entries(), 2);
}

TEST(SplayTree, FindBringsTheElementToTheRoot) {
  Tree tree(1);
  tree.Fill({1, 2, 3, 4, 5});
  ASSERT_NE(tree.Find(2), nullptr);
  EXPECT_EQ(tree.Find(2)->key, 2);
  EXPECT_EQ(tree.Shape().front(), '(');
  int before = tree.compared;
  tree.Find(2);
  EXPECT_EQ(tree.compared, before + 1);
}

TEST(SplayTree, FindOfAnAbsentKeyIsNull) {
  Tree tree(1);
  tree.Fill({1, 3, 5});
  for (int key : {0, 2, 4, 6}) EXPECT_EQ(tree.Find(key), nullptr) << key;
  EXPECT_EQ(Keys(tree), (std::vector<int>{1, 3, 5}));
}

// The rotations of Sleator and Tarjan, worked out by hand.
TEST(SplayTree, SplayOfAChainHalvesIt) {
  Tree tree(1);
  tree.Fill({1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(tree.Shape(), "(((((((1)2)3)4)5)6)7)");
  tree.Splay(1);
  EXPECT_EQ(tree.Shape(), "(1(((2(3))4(5))6(7)))");
}

TEST(SplayTree, NextAndPreviousNeedNoPresentKey) {
  Tree tree(1);
  tree.Fill({10, 20, 30});
  const struct {
    int key;
    int next;
    int previous;
  } cases[] = {{5, 10, 0},   {10, 20, 0}, {15, 20, 10}, {20, 30, 10},
               {25, 30, 20}, {30, 0, 20}, {35, 0, 30}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    Item* next = tree.Next(c.key);
    Item* previous = tree.Previous(c.key);
    EXPECT_EQ(next ? next->key : 0, c.next);
    EXPECT_EQ(previous ? previous->key : 0, c.previous);
  }
}

TEST(SplayTree, FirstAndLastDoNotSplay) {
  Tree tree(1);
  tree.Fill({2, 3, 1, 5, 4});
  std::string shape = tree.Shape();
  EXPECT_EQ(tree.First()->key, 1);
  EXPECT_EQ(tree.Last()->key, 5);
  EXPECT_EQ(tree.Shape(), shape);
}

TEST(SplayTree, RemoveOfAnAbsentKeyChangesNoElement) {
  Tree tree(1);
  tree.Fill({1, 3});
  EXPECT_EQ(tree.Remove(2), nullptr);
  EXPECT_EQ(tree.Entries(), 2);
  EXPECT_EQ(Keys(tree), (std::vector<int>{1, 3}));
}

// Each case of Remove, with the element to remove already at the root.
class SplayTreeRemove : public ::testing::Test {
 protected:
  void RemoveRoot(Tree::Node* root, const char* expected) {
    int key = root->item->key;
    int count = tree.Entries();
    tree.SetRoot(root);
    Item* item = tree.Remove(key);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->key, key);
    EXPECT_EQ(tree.Shape(), expected);
    EXPECT_EQ(tree.Entries(), count - 1);
    delete item;
  }
  Tree tree{1};
};

TEST_F(SplayTreeRemove, OfTheOnlyElement) {
  RemoveRoot(tree.Make(nullptr, 5, nullptr), "");
}

TEST_F(SplayTreeRemove, WithoutALeftSubtreeTheRightOneMovesUp) {
  RemoveRoot(tree.Make(nullptr, 5, tree.Make(nullptr, 7, nullptr)), "(7)");
}

TEST_F(SplayTreeRemove, WithoutARightSubtreeTheLeftOneMovesUp) {
  RemoveRoot(tree.Make(tree.Make(nullptr, 3, nullptr), 5, nullptr), "(3)");
}

TEST_F(SplayTreeRemove, RightChildWithoutALeftSubtreeTakesThePlace) {
  auto child = tree.Make(nullptr, 7, tree.Make(nullptr, 9, nullptr));
  RemoveRoot(tree.Make(tree.Make(nullptr, 3, nullptr), 5, child), "((3)7(9))");
}

TEST_F(SplayTreeRemove, RightChildWithOnlyALeftSubtreeKeepsItOnItsRight) {
  auto child = tree.Make(tree.Make(nullptr, 6, nullptr), 8, nullptr);
  RemoveRoot(tree.Make(tree.Make(nullptr, 3, nullptr), 5, child), "((3)8(6))");
  // The tree is out of order: a search for 6 goes left at 8, and a walk meets 6 after it.
  EXPECT_EQ(tree.Find(6), nullptr);
  EXPECT_EQ(tree.Find(8)->key, 8);
  EXPECT_EQ(Keys(tree), (std::vector<int>{3, 8, 6}));
  EXPECT_EQ(tree.First()->key, 3);
  EXPECT_EQ(tree.Last()->key, 6);
}

TEST_F(SplayTreeRemove, OtherwiseTheLeastOfTheRightSubtreeTakesThePlace) {
  auto deep = tree.Make(tree.Make(nullptr, 6, tree.Make(nullptr, 7, nullptr)), 8, nullptr);
  auto child = tree.Make(deep, 9, tree.Make(nullptr, 10, nullptr));
  RemoveRoot(tree.Make(tree.Make(nullptr, 3, nullptr), 5, child), "((3)6(((7)8)9(10)))");
}

TEST_F(SplayTreeRemove, TheLeastMayBeTheChildsOwnChild) {
  auto child = tree.Make(tree.Make(nullptr, 6, tree.Make(nullptr, 7, nullptr)), 9,
                         tree.Make(nullptr, 10, nullptr));
  RemoveRoot(tree.Make(tree.Make(nullptr, 3, nullptr), 5, child), "((3)6((7)9(10)))");
}

TEST(SplayTree, CopyOfAnOwningTreeClones) {
  for (int count : {0, 1, 99, 100, 500}) {
    SCOPED_TRACE(count);
    Tree tree(1);
    tree.Fill(UpTo(count));
    Tree copy(tree);
    EXPECT_EQ(Item::alive, 2 * count);
    EXPECT_EQ(copy.Entries(), count);
    EXPECT_EQ(Keys(copy), UpTo(count));
    if (count > 0) {
      EXPECT_NE(copy.Find(1), tree.Find(1));
    }
  }
  EXPECT_EQ(Item::alive, 0);
}

TEST(SplayTree, CopyOfAnotherTreeShares) {
  Item one(1), two(2);
  Tree tree(0);
  tree.Insert(&one);
  tree.Insert(&two);
  Tree copy(tree);
  EXPECT_EQ(copy.Find(1), &one);
  EXPECT_EQ(copy.Find(2), &two);
}

TEST(SplayTree, AppendToListGoesAfterWhatIsThere) {
  for (int count : {3, 150}) {
    SCOPED_TRACE(count);
    Tree tree(1);
    tree.Fill(UpTo(count));
    Item before(-1);
    List<Item> list(0);
    list.Insert(&before, ListTail);
    tree.AppendToList(list);
    EXPECT_EQ(list.Entries(), count + 1);
    EXPECT_EQ(list.First(), &before);
    EXPECT_EQ(list.Next()->key, 1);
    EXPECT_EQ(list.Last()->key, count);
  }
}

// The keys in the order in which a dump of a tree deletes them.
std::vector<int> DumpOrder(int count) {
  std::vector<int> order;
  Tree tree(1);
  for (int key = count; key >= 1; --key) tree.Insert(new Item(key));
  Item::log = &order;
  tree.Dump();
  Item::log = nullptr;
  EXPECT_EQ(tree.Entries(), 0);
  EXPECT_EQ(tree.First(), nullptr);
  return order;
}

// The tree is a chain to the right. Recursion deletes it in order; the walk with a stack goes down
// first, and deletes it from the last key to the first.
TEST(SplayTree, RecursionEndsAt99Elements) {
  std::vector<int> ascending = UpTo(99);
  EXPECT_EQ(DumpOrder(99), ascending);
  ascending = UpTo(100);
  EXPECT_EQ(DumpOrder(100), std::vector<int>(ascending.rbegin(), ascending.rend()));
}

TEST(SplayTree, DestructorPrefersTheStackFrom100Too) {
  for (int count : {99, 100}) {
    SCOPED_TRACE(count);
    std::vector<int> order;
    {
      Tree tree(1);
      for (int key = count; key >= 1; --key) tree.Insert(new Item(key));
      Item::log = &order;
    }
    Item::log = nullptr;
    ASSERT_EQ(order.size(), static_cast<size_t>(count));
    EXPECT_EQ(order.front(), count == 99 ? 1 : 100);
  }
}

// Post-order: left subtree, right subtree, node.
TEST(SplayTree, StackWalkIsPostOrder) {
  std::vector<int> order;
  Tree tree(1);
  std::vector<Tree::Node*> row;
  for (int i = 0; i < 128; ++i) row.push_back(tree.Make(nullptr, i, nullptr));
  // A full tree over 128 leaves; its nodes count down from 1000.
  int inner = 1000;
  while (row.size() > 1) {
    std::vector<Tree::Node*> above;
    for (size_t i = 0; i < row.size(); i += 2) {
      above.push_back(tree.Make(row[i], inner--, row[i + 1]));
    }
    row = above;
  }
  tree.SetRoot(row[0]);
  Item::log = &order;
  tree.Dump();
  Item::log = nullptr;
  ASSERT_EQ(order.size(), 255u);
  EXPECT_EQ(std::vector<int>(order.begin(), order.begin() + 7),
            (std::vector<int>{0, 1, 1000, 2, 3, 999, 936}));
  EXPECT_EQ(order.back(), inner + 1);
}

TEST(SplayTree, AMillionElementsInAChainNeedNoRecursion) {
  {
    constexpr int many = Rounds(1000000);
    Tree tree(1);
    for (int key = 1; key <= many; ++key) tree.Insert(new Item(key));
    Tree copy(tree);
    List<Item> list(0);
    tree.AppendToList(list);
    EXPECT_EQ(list.Entries(), many);
    EXPECT_EQ(copy.Entries(), many);
  }
  EXPECT_EQ(Item::alive, 0);
}

TEST(SplayTree, DumpOfANotOwningTreeLeavesTheElements) {
  std::vector<Item> items;
  items.reserve(150);
  for (int i = 0; i < 150; ++i) items.emplace_back(i);
  for (int count : {50, 150}) {
    Tree tree(0);
    for (int i = 0; i < count; ++i) tree.Insert(&items[i]);
    tree.Dump();
    EXPECT_EQ(tree.Entries(), 0);
  }
  EXPECT_EQ(Item::alive, 150);
}

// Compares with a model. The case of Remove that breaks the order does not lose elements either;
// after it the comparison continues with a tree in order.
TEST(SplayTree, AgreesWithAModelUnderRandomOperations) {
  std::mt19937 random(20261121);
  int out_of_order = 0;
  for (int round = 0; round < 20; ++round) {
    Tree tree(1);
    std::map<int, Item*> model;
    for (int step = 0; step < 3000; ++step) {
      int key = static_cast<int>(random() % 200);
      auto at = model.find(key);
      auto after = model.upper_bound(key);
      auto from = model.lower_bound(key);
      Item* expected = at == model.end() ? nullptr : at->second;
      switch (random() % 5) {
        case 0:
          if (tree.Find(key)) break;
          tree.Insert(model[key] = new Item(key));
          break;
        case 1: {
          if (!expected) {
            ASSERT_EQ(tree.Remove(key), nullptr);
            break;
          }
          ASSERT_EQ(tree.Remove(key), expected);
          delete expected;
          model.erase(at);
          std::vector<int> keys;
          for (const auto& entry : model) keys.push_back(entry.first);
          std::vector<int> left = Keys(tree);
          if (left != keys) {
            ++out_of_order;
            std::sort(left.begin(), left.end());
            ASSERT_EQ(left, keys);
            tree.Dump();
            for (auto& entry : model) tree.Insert(entry.second = new Item(entry.first));
          }
          break;
        }
        case 2: ASSERT_EQ(tree.Find(key), expected); break;
        case 3: ASSERT_EQ(tree.Next(key), after == model.end() ? nullptr : after->second); break;
        default:
          ASSERT_EQ(tree.Previous(key), from == model.begin() ? nullptr : std::prev(from)->second);
      }
      ASSERT_EQ(tree.Entries(), static_cast<int>(model.size()));
    }
  }
  EXPECT_GT(out_of_order, 0);
  EXPECT_EQ(Item::alive, 0);
}

}  // namespace
