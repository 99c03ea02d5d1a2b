// The reference of the elements of arrays and structures: the splay tree that their compact forms
// represent, with nothing but its own searches. A test derives from it what it compares.

#ifndef ZEPH_TESTS_SUPPORT_PLAINELEMENTS_H
#define ZEPH_TESTS_SUPPORT_PLAINELEMENTS_H

#include "base/values/Aggregate.h"

class PlainElements : public SplayTree<AggregateElement, const AggregateIndex&> {
 public:
  PlainElements() : SplayTree(1) {}
  // A copy has the shape that inserting the elements leaves.
  PlainElements(const PlainElements& other) : SplayTree(1) { CopyFromSplayTree(other); }

  const AggregateIndex& Key(AggregateElement* element) override { return element->index(); }
  int Compare(const AggregateIndex& key, AggregateElement* element) override {
    return element->index().Compare(key);
  }
  // The element with that index, which is made if it is not there and create is not 0; otherwise
  // null. The tree owns it.
  AggregateElement* At(const AggregateIndex& index, int create) {
    AggregateElement* element = Find(index);
    if (element || !create) return element;
    element = new AggregateElement(index);
    Insert(element);
    return element;
  }
};

#endif
