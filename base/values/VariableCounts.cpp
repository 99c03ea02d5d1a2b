// Counts of holders, and the deletion of what has none left: alone, chains of references, and whole
// trees of elements. Tested in tests/base/values/VariableTest.cpp.

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

namespace {
// Trees that are being deleted on this thread.
struct Deletions {
  AggregateElementTree* waiting = nullptr;
  bool underway = false;
};
constinit thread_local Deletions deletions;
}  // namespace

// Elements have elements, and deleting a variable within a tree calls this function again. The
// inner tree then waits in a list, so that no nesting is too deep for the native stack.
void Variable::DeleteTree(AggregateElementTree* tree) {
  tree->next_deleted = deletions.waiting;
  deletions.waiting = tree;
  if (deletions.underway) return;
  deletions.underway = true;
  while ((tree = deletions.waiting)) {
    deletions.waiting = tree->next_deleted;
    delete tree;
  }
  deletions.underway = false;
}

int Variable::refcount() {
  return refcount_;
}

void Variable::IncRefCount() {
  Hold();
}

void Variable::DecRefCount() {
  Release();
}

// A reference that is deleted gives back its count on its target, which may be the last one too. A
// chain may be long, so this is a loop.
void Variable::DeleteUnheld() {
  Variable* variable = this;
  do {
    Variable* const target = variable->reference;
    delete variable;
    variable = target;
  } while (variable && --variable->refcount_ == 0);
}
