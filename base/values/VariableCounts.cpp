// Counts of holders, and the deletion of what has none left: alone, in groups, and of whole trees
// of elements. Tested in tests/base/values/VariableTest.cpp.

#include <utility>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

namespace {
// The state of releases in progress on this thread.
struct Releases {
  AggregateElementTree* waiting = nullptr;  // trees, while one is being deleted
  Variable* indebted = nullptr;             // references, while there is a group
  int groups = 0;
  bool deletes_tree = false;
};
constinit thread_local Releases releases;
}  // namespace

// Elements have elements, and deleting a variable within a tree calls this function again. The
// inner tree then waits in a list, so that no nesting is too deep for the native stack.
void Variable::DeleteTree(AggregateElementTree* tree) {
  tree->next_deleted = releases.waiting;
  releases.waiting = tree;
  if (releases.deletes_tree) return;
  const ReleaseGroup group;
  releases.deletes_tree = true;
  while ((tree = releases.waiting)) {
    releases.waiting = tree->next_deleted;
    delete tree;
  }
  releases.deletes_tree = false;
}

int Variable::refcount() {
  return refcount_;
}

void Variable::IncRefCount() {
  AddCounts(this, 1);
}

void Variable::DecRefCount() {
  TakeCounts(this, 1);
}

void Variable::AddCounts(Variable* holder, int counts) {
  for (; holder; holder = holder->reference) holder->refcount_ += counts;
}

void Variable::TakeCounts(Variable* holder, int counts) {
  if (holder->reference && releases.groups > 0) {
    TakeCountsLater(holder, counts);
  } else {
    TakeCountsNow(holder, counts);
  }
}

void Variable::TakeCountsNow(Variable* holder, int counts) {
  while (holder) {
    // The target lives until its turn in this loop: it has the counts of this holder.
    Variable* target = holder->reference;
    // A holder that is in the list of a group is deleted with the list.
    if ((holder->refcount_ -= counts) == 0 && !(holder->state & Indebted)) delete holder;
    holder = target;
  }
}

// --- Groups of releases --------------------------------------------------------------------------

ReleaseGroup::ReleaseGroup() {
  releases.groups++;
}

ReleaseGroup::~ReleaseGroup() {
  if (--releases.groups == 0 && releases.indebted) {
    Variable::SettleDebts(std::exchange(releases.indebted, nullptr));
  }
}

// In a group, a reference's counts on its target are the counts on itself plus those that it owes.
// A reference that is deleted owes all of them. If it is in the list already, it stays there with a
// count of 0, and is deleted with the list.
void Variable::TakeCountsLater(Variable* holder, int counts) {
  for (;;) {
    const bool is_listed = (holder->state & Indebted) != 0;
    const int owed = counts + (is_listed ? holder->number() : 0);
    if ((holder->refcount_ -= counts) > 0) {
      if (!is_listed) {
        holder->state |= Indebted;
        holder->SetLink(releases.indebted);
        releases.indebted = holder;
      }
      holder->number() = owed;
      return;
    }
    Variable* const target = holder->reference;
    if (!is_listed) delete holder;
    if (!target->reference) {
      TakeCountsNow(target, owed);
      return;
    }
    holder = target;
    counts = owed;
  }
}

// Only variables with a count of 0 are deleted here: a reference that owes counts has holders, and
// so do its targets.
//
// The first loop walks all chains, each up to a variable that was met before; every variable on
// them counts the ways that lead to it. The second loop passes the debts on, from each variable
// after the last of these ways has brought its debt. The number of ways is kept in primary, which
// is 0 before and after.
void Variable::SettleDebts(Variable* list) {
  Variable* indebted = nullptr;
  while (Variable* const first = list) {
    list = first->link();
    if (first->refcount_ == 0) {
      delete first;
      continue;
    }
    first->SetLink(indebted);
    indebted = first;
    for (Variable* holder = first; holder->reference; holder = holder->reference) {
      if (holder != first) holder->primary++;
      if (holder->state & Settling) break;
      holder->state |= Settling;
      if (!(holder->state & Indebted)) holder->number() = 0;
    }
  }
  while (Variable* const first = indebted) {
    indebted = first->link();
    const bool begins = (first->state & Settling) && first->primary == 0;
    first->state &= ~Indebted;
    first->SetLink(nullptr);
    if (!begins) continue;
    for (Variable* holder = first;;) {
      const int owed = std::exchange(holder->number(), 0);
      holder->state &= ~Settling;
      holder = holder->reference;
      holder->refcount_ -= owed;
      if (!holder->reference) break;
      holder->number() += owed;
      if (--holder->primary > 0) break;
    }
  }
}
