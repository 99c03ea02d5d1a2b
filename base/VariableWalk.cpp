// Tested in tests/base/VariableWalkTest.cpp.

#include "base/VariableWalk.h"

#include "base/Aggregate.h"
#include "base/Variable.h"

VariableWalk::VariableWalk(Variable* root, Order walk_order) : order(walk_order) {
  if (root) pending.push_back({nullptr, root, nullptr, false});
}

VariableWalk::~VariableWalk() {
  for (const Item& left : pending) {
    if (left.entered) left.identity->walked = 0;
  }
}

VariableWalk::Step VariableWalk::Next() {
  if (pending.empty()) return End;
  item = pending.back();
  if (item.entered) {
    pending.pop_back();
    item.identity->walked = 0;
    return Leave;
  }
  item.identity = item.variable->RealIdentity();
  if (item.identity->walked) {
    pending.pop_back();
    return Repeated;
  }
  AggregateElementTree* tree = item.identity->aggregateelements();
  if (!tree) {
    pending.pop_back();
    return Scalar;
  }
  pending.back().identity = item.identity;
  pending.back().entered = true;
  item.identity->walked = 1;
  PushElements(tree);
  return Enter;
}

void VariableWalk::PushElements(AggregateElementTree* tree) {
  listing.clear();
  if (order == ByKey) {
    tree->Listing(&listing);
  } else {
    tree->ListingForCopy(&listing);
  }
  for (auto element = listing.rbegin(); element != listing.rend(); ++element) {
    if (Variable* variable = (*element)->var()) {
      pending.push_back({*element, variable, nullptr, false});
    }
  }
}
