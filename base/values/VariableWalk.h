// A walk through a whole value, elements within elements, without native recursion: scripts and
// forms can nest values deeper than a thread's stack is long, and can make a value contain itself.

#ifndef ZEPH_BASE_VARIABLEWALK_H
#define ZEPH_BASE_VARIABLEWALK_H

#include <vector>

#include "base/values/Aggregate.h"

// Visits a variable and all below it, depth first. Whoever prints, copies or sends a value walks:
//
//   VariableWalk walk(variable);
//   for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) ...
//
// While the walk is inside of an aggregate, that variable is marked, and meeting it again (through
// a reference to it, or as its own element) gives Repeated, to be treated as empty. Nothing that is
// walked may be changed or deleted before the walk is.
class VariableWalk {
 public:
  enum Step {
    End,
    Scalar,  // a variable without elements
    Enter,   // an aggregate; its elements follow, then its Leave
    Leave,
    Repeated,  // an aggregate that the walk is inside of
  };
  // ForCopy visits the elements of each aggregate in the order in which a copy inserts them.
  enum Order { ByKey, ForCopy };

  // The variable itself is visited first, with no element.
  explicit VariableWalk(Variable* root, Order order = ByKey);
  ~VariableWalk();
  VariableWalk(const VariableWalk&) = delete;
  VariableWalk& operator=(const VariableWalk&) = delete;

  Step Next();
  // Of the last step: whether it is at the variable that the walk began with; the key of the
  // element, good until the next step and without meaning at the root; the variable that stands
  // there; and the variable at the end of its references, which has the value. At Leave they are
  // those of Enter.
  bool at_root() const { return item.is_root; }
  AggregateIndex& index();
  const AggregateElementTree::Row& row() const { return item.row; }
  Variable* variable() const { return item.row.variable; }
  Variable* identity() const { return item.identity; }

 private:
  struct Item {
    AggregateElementTree::Row row;
    Variable* identity;
    bool is_root;
    bool entered;
  };

  void PushElements(AggregateElementTree* tree);

  Order order;
  Item item = {{nullptr, 0, nullptr}, nullptr, true, false};
  std::vector<Item> pending;  // the next one last; entered ones stand for their Leave
  std::vector<AggregateElementTree::Row> listing;  // of one aggregate, kept for its memory
  AggregateIndex position_key;                     // what index() answers in an array
};

#endif
