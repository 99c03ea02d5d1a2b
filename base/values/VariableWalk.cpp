// The walk through nested values. Tested in tests/base/values/VariableWalkTest.cpp.

#include "base/values/VariableWalk.h"

#include "base/values/Variable.h"

VariableWalk::VariableWalk(Variable* root, Order order) : order(order) {
  if (root) pending.push_back({{nullptr, 0, root}, nullptr, true, false});
}

VariableWalk::~VariableWalk() {
  for (const Item& left : pending) {
    if (left.entered) left.identity->state &= ~Variable::Walked;
  }
}

VariableWalk::Step VariableWalk::Next() {
  if (pending.empty()) return End;
  item = pending.back();
  if (item.entered) {
    pending.pop_back();
    item.identity->state &= ~Variable::Walked;
    return Leave;
  }
  item.identity = item.row.variable->RealIdentity();
  if (item.identity->state & Variable::Walked) {
    pending.pop_back();
    return Repeated;
  }
  AggregateElementTree* const tree =
      item.identity->IsPlain() ? item.identity->elements : item.identity->aggregateelements();
  if (!tree) {
    pending.pop_back();
    return Scalar;
  }
  pending.back().identity = item.identity;
  pending.back().entered = true;
  entered = tree;
  item.identity->state |= Variable::Walked;
  PushElements(tree);
  return Enter;
}

AggregateIndex& VariableWalk::index() {
  if (item.row.element) return item.row.element->index();
  own_key.serialized_text.destroy();
  if (SharedName* const name = item.row.name) {
    own_key.position = -1;
    own_key.key.assign(name->text(), name->length());
  } else {
    own_key.position = item.row.position;
    own_key.key.destroy();
  }
  return own_key;
}

void VariableWalk::PushElements(AggregateElementTree* tree) {
  listing.clear();
  if (order == ByKey) {
    tree->Listing(&listing);
  } else {
    tree->ListingForCopy(&listing);
  }
  for (auto row = listing.rbegin(); row != listing.rend(); ++row) {
    if (row->variable) pending.push_back({*row, nullptr, false, false});
  }
}
