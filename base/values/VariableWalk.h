// A walk through a whole value, elements within elements, without native recursion: scripts and
// forms can nest values deeper than a thread's stack allows, and can make a value contain itself.

#ifndef ZEPH_BASE_VARIABLEWALK_H
#define ZEPH_BASE_VARIABLEWALK_H

#include <vector>

#include "base/values/Aggregate.h"

// Visits a variable and everything below it, depth first. Code that prints, copies or sends a value
// uses it:
//
//   VariableWalk walk(variable);
//   for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) ...
//
// While the walk is inside an aggregate, that variable is marked; meeting it again (through a
// reference to it, or as its own element) gives Repeated, which the caller treats as empty. Nothing
// that is walked may be changed or deleted while the walk exists.
class VariableWalk {
 public:
  enum Step {
    End,
    Scalar,  // a variable without elements
    Enter,   // an aggregate; its elements follow, then its Leave
    Leave,
    Repeated,  // an aggregate that the walk is already inside
  };
  // ForCopy visits the elements of each aggregate in the order in which a copy inserts them.
  enum Order { ByKey, ForCopy };

  // The root is visited first, with no element.
  explicit VariableWalk(Variable* root, Order order = ByKey);
  ~VariableWalk();
  VariableWalk(const VariableWalk&) = delete;
  VariableWalk& operator=(const VariableWalk&) = delete;

  Step Next();
  // About the last step:
  // - at_root(): whether it is at the variable that the walk began with.
  // - index(): the key of the element, valid until the next step; no meaning at the root.
  // - variable(): the variable there.
  // - identity(): the variable at the end of its references, which has the value.
  // - tree(): at Enter, its elements. Unlike its aggregateelements(), for a look only.
  //
  // At Leave they are those of Enter.
  bool at_root() const { return item.is_root; }
  AggregateIndex& index();
  const AggregateElementTree::Row& row() const { return item.row; }
  Variable* variable() const { return item.row.variable; }
  Variable* identity() const { return item.identity; }
  AggregateElementTree* tree() const { return entered; }

 private:
  struct Item {
    AggregateElementTree::Row row;
    Variable* identity;
    bool is_root;
    bool entered;
  };

  void PushElements(AggregateElementTree* tree);

  Order order;
  AggregateElementTree* entered = nullptr;
  Item item = {{nullptr, 0, nullptr}, nullptr, true, false};
  std::vector<Item> pending;                       // the next one last; an entered one is its Leave
  std::vector<AggregateElementTree::Row> listing;  // of one aggregate, kept for its memory
  AggregateIndex own_key;  // the result of index() without an AggregateElement
};

#endif
