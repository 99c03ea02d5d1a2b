// A List that is searched by a key. Tested in tests/base/core/ListTest.cpp.

#ifndef ZEPH_BASE_SEARCHABLELIST_H
#define ZEPH_BASE_SEARCHABLELIST_H

#include "base/core/List.h"

// A List that is searched from its head, or from the element after the current one.
template <class T, class K>
class SearchableList : public List<T> {
 public:
  using List<T>::List;

  // Both move the cursor to the element found, or to none, and return the element or null.
  virtual T* Find(K key) { return FindFrom(key, this->head); }
  virtual T* FindNext(K key) {
    return this->current ? FindFrom(key, this->current->next) : nullptr;
  }
  // 0 for a match.
  virtual int Compare(K key, T* item) = 0;

 private:
  T* FindFrom(K key, ListNode<T>* node) {
    while (node && Compare(key, node->item) != 0) node = node->next;
    return this->Move(node);
  }
};

#endif
