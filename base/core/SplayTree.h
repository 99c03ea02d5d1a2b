// A tree of pointers, ordered by the keys of the elements, the last element touched at its root. It
// locks nothing: the owner guards a tree that threads share, from searches too. Tested in
// tests/base/core/SplayTreeTest.cpp.
//
// The constructor's flag own: non-zero means that Dump and the destructor delete the elements.
// Operations that take one element out hand it to the caller and never delete it.

#ifndef ZEPH_BASE_SPLAYTREE_H
#define ZEPH_BASE_SPLAYTREE_H

#include <memory>
#include <utility>

#include "base/core/FreeList.h"
#include "base/core/List.h"
#include "base/core/Stack.h"

template <class T>
struct SplayTreeNode {
  ZEPH_FREE_LIST_OPERATORS(SplayTreeNode)

  SplayTreeNode* left;
  SplayTreeNode* right;
  T* item;
};

// A top-down splay tree of Sleator and Tarjan, ordered by a key that each element carries. Every
// search moves the node it touched last to the root, so a search changes the tree too. The tree may
// degenerate into a chain of all its elements; operations that visit all of them therefore recurse
// only in trees of up to 99.
//
// An instance overrides Key and Compare. They cannot be called while this base is constructed, so
// an instance's copy constructor passes own to the base and calls CopyFromSplayTree in its body.
// The order of the virtual operations is fixed, because derived classes add theirs after them.
template <class T, class K>
class SplayTree {
 public:
  explicit SplayTree(int owns) : own(owns) {}
  SplayTree(const SplayTree&) = delete;
  SplayTree& operator=(const SplayTree&) = delete;
  virtual ~SplayTree() { Destroy(); }

  // The new element becomes the root. Duplicates are not detected: callers check with Find first.
  virtual void Insert(T* item);
  // Takes the element with that key out and hands it to the caller; null if there is none. In one
  // case (see the body) elements are left where a search may miss them although walks still meet
  // them: a loop of Next and Remove must end when Remove returns null.
  virtual T* Remove(K key);
  virtual T* Find(K key) { return Splay(key) == 0 && root ? root->item : nullptr; }
  // The element with the next greater key, and with the next lesser key, or null. The key itself
  // need not be in the tree.
  virtual T* Next(K key);
  virtual T* Previous(K key);
  // The elements with the least and the greatest key, without a splay; null on an empty tree.
  virtual T* First() { return Leftmost(root); }
  virtual T* Last() { return Rightmost(root); }
  int Entries() const { return entries; }
  // Empties the tree; owned elements go through Purge.
  virtual void Dump() { Destroy(); }
  // Deletes one element, if not null.
  virtual void Purge(T* item) { delete item; }
  virtual K Key(T* item) = 0;
  // The order of a key against an element's: negative, 0 or positive.
  virtual int Compare(K key, T* item) = 0;

  // Adds all elements to the end of the list, in the order of their keys.
  void AppendToList(List<T>& list) const;

 protected:
  // The largest tree that is visited by recursion.
  static constexpr int kRecursionLimit = 99;

  using Node = SplayTreeNode<T>;

  // Brings the node with the key, or the last one on the way to it, to the root, and returns the
  // order of the key against it. On an empty tree the result is 0 and means nothing.
  int Splay(K key) {
    return SplayBy([this, &key](T* item) { return Compare(key, item); });
  }
  // The same with a given comparison of the key against an element, for instances that have a
  // faster one than the virtual Compare.
  template <class Order>
  int SplayBy(Order order_of);
  // Makes the element the root, before or after a root that has just been splayed.
  void InsertAtRoot(T* item, int order);
  // Fills this empty tree with the elements of another: copies made by T's copy constructor if own
  // is set, else the same pointers.
  void CopyFromSplayTree(const SplayTree& other);

  int own;
  int entries = 0;
  Node* root = nullptr;

 private:
  static T* Leftmost(Node* node) {
    while (node && node->left) node = node->left;
    return node ? node->item : nullptr;
  }
  static T* Rightmost(Node* node) {
    while (node && node->right) node = node->right;
    return node ? node->item : nullptr;
  }
  void Destroy();
  void DumpRecurse(Node* node);
  void DumpStack(Node* node);
  void InsertCopy(T* item);
  void CopyFromSplayTreeRecurse(const Node* node);
  void CopyFromSplayTreeStack(Node* node);
  void AppendToListRecurse(List<T>& list, const Node* node) const;
  void AppendToListStack(List<T>& list, Node* node) const;
};

// --- Bodies -------------------------------------------------------------------------------------

template <class T, class K>
template <class Order>
int SplayTree<T, K>::SplayBy(Order order_of) {
  if (!root) return 0;
  // The header holds the tree of the lesser nodes on its right and that of the greater ones on its
  // left.
  Node header = {nullptr, nullptr, nullptr};
  Node* less = &header;
  Node* greater = &header;
  Node* top = root;
  int order = order_of(top->item);
  while (order != 0) {
    Node* child = order < 0 ? top->left : top->right;
    if (!child) break;
    int child_order = order_of(child->item);
    if (order < 0) {
      if (child_order < 0) {
        top->left = child->right;
        child->right = top;
        top = child;
        order = child_order;
        if (!top->left) break;
        child = top->left;
        child_order = order_of(child->item);
      }
      greater->left = top;
      greater = top;
    } else {
      if (child_order > 0) {
        top->right = child->left;
        child->left = top;
        top = child;
        order = child_order;
        if (!top->right) break;
        child = top->right;
        child_order = order_of(child->item);
      }
      less->right = top;
      less = top;
    }
    top = child;
    order = child_order;
  }
  less->right = top->left;
  greater->left = top->right;
  top->left = header.right;
  top->right = header.left;
  root = top;
  return order;
}

template <class T, class K>
void SplayTree<T, K>::Insert(T* item) {
  InsertAtRoot(item, root ? Splay(Key(item)) : 0);
}

template <class T, class K>
void SplayTree<T, K>::InsertAtRoot(T* item, int order) {
  Node* node = new Node{nullptr, nullptr, item};
  if (root && order < 0) {
    node->left = std::exchange(root->left, nullptr);
    node->right = root;
  } else if (root) {
    node->right = std::exchange(root->right, nullptr);
    node->left = root;
  }
  ++entries;
  root = node;
}

template <class T, class K>
T* SplayTree<T, K>::Remove(K key) {
  if (!root || Splay(key) != 0) return nullptr;
  --entries;
  Node* removed = root;
  Node* child = removed->right;
  T* item = removed->item;
  if (!removed->left) {
    root = child;
  } else if (!child) {
    root = removed->left;
  } else if (!child->left) {
    child->left = removed->left;
    root = child;
  } else if (!child->right) {
    // The child's element becomes the root, and the lesser elements on its left move to its right.
    // A search then misses them, while walks meet every element. Scripts can observe which ones are
    // missed, so this must not change.
    root = child;
    child->right = child->left;
    child->left = removed->left;
  } else {
    Node* parent = child;
    while (parent->left->left) parent = parent->left;
    Node* least = parent->left;
    parent->left = least->right;
    least->left = removed->left;
    least->right = child;
    root = least;
  }
  delete removed;
  return item;
}

template <class T, class K>
T* SplayTree<T, K>::Next(K key) {
  if (!root) return nullptr;
  return Splay(key) >= 0 ? Leftmost(root->right) : root->item;
}

template <class T, class K>
T* SplayTree<T, K>::Previous(K key) {
  if (!root) return nullptr;
  return Splay(key) <= 0 ? Rightmost(root->left) : root->item;
}

template <class T, class K>
void SplayTree<T, K>::Destroy() {
  Node* node = std::exchange(root, nullptr);
  int count = std::exchange(entries, 0);
  if (!node) return;
  if (count > kRecursionLimit) {
    DumpStack(node);
  } else {
    DumpRecurse(node);
  }
}

template <class T, class K>
void SplayTree<T, K>::DumpRecurse(Node* node) {
  if (node->left) DumpRecurse(node->left);
  if (own) Purge(node->item);
  Node* right = node->right;
  delete node;
  if (right) DumpRecurse(right);
}

// Post-order. A destructor must not allocate, so the stack of the nodes above is threaded through
// the pointers that the walk has followed: a node's way back up is in its left pointer while the
// walk is in its left subtree, otherwise in its right one.
template <class T, class K>
void SplayTree<T, K>::DumpStack(Node* node) {
  Node bottom = {nullptr, nullptr, nullptr};
  Node* above = &bottom;
  for (;;) {
    if (node->left) {
      Node* child = std::exchange(node->left, above);
      above = std::exchange(node, child);
    } else if (node->right) {
      Node* child = std::exchange(node->right, above);
      above = std::exchange(node, child);
    } else {
      if (own) Purge(node->item);
      delete node;
      if (above == &bottom) return;
      node = above;
      above = std::exchange(node->left ? node->left : node->right, nullptr);
    }
  }
}

template <class T, class K>
void SplayTree<T, K>::InsertCopy(T* item) {
  if (!own) {
    Insert(item);
    return;
  }
  auto copy = std::make_unique<T>(*item);
  Insert(copy.get());
  (void)copy.release();
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTree(const SplayTree& other) {
  if (!other.root) return;
  if (other.entries > kRecursionLimit) {
    CopyFromSplayTreeStack(other.root);
  } else {
    CopyFromSplayTreeRecurse(other.root);
  }
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTreeRecurse(const Node* node) {
  if (node->left) CopyFromSplayTreeRecurse(node->left);
  InsertCopy(node->item);
  if (node->right) CopyFromSplayTreeRecurse(node->right);
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTreeStack(Node* node) {
  Stack<Node> pending;
  pending.Push(node);
  while ((node = pending.Pop())) {
    if (node->left) pending.Push(node->left);
    if (node->right) pending.Push(node->right);
    InsertCopy(node->item);
  }
}

template <class T, class K>
void SplayTree<T, K>::AppendToList(List<T>& list) const {
  if (!root) return;
  if (entries > kRecursionLimit) {
    AppendToListStack(list, root);
  } else {
    AppendToListRecurse(list, root);
  }
}

template <class T, class K>
void SplayTree<T, K>::AppendToListRecurse(List<T>& list, const Node* node) const {
  if (node->left) AppendToListRecurse(list, node->left);
  list.Insert(node->item, ListTail);
  if (node->right) AppendToListRecurse(list, node->right);
}

template <class T, class K>
void SplayTree<T, K>::AppendToListStack(List<T>& list, Node* node) const {
  Stack<Node> pending;
  while (node || pending.Top()) {
    for (; node; node = node->left) pending.Push(node);
    node = pending.Pop();
    list.Insert(node->item, ListTail);
    node = node->right;
  }
}

#endif
