// Values that hold only themselves. Counts free everything but circles: an array that is its own
// element, an element that refers to its array. Scripts can make them, so a request that ends looks
// for them. Tested in tests/base/VariableCyclesTest.cpp.

#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/Aggregate.h"
#include "base/Variable.h"

namespace {

// A circle closes when something gets to hold a variable that has elements: from there a way may
// lead back. Such holders are listed here, flagged as suspect, until they are deleted. Copies hold
// nothing but new variables and are never listed, so for most requests the list stays empty.
std::unordered_set<Variable*>& Suspects() {
  thread_local std::unordered_set<Variable*> suspects;
  return suspects;
}

}  // namespace

// Trial deletion: takes all that the suspects reach and subtracts the counts that these variables
// have on one another. Who has counts left is held from outside, with all that it reaches. The
// others are a circle, or hang on one.
class VariableCycles {
 public:
  void Free(const std::unordered_set<Variable*>& suspects) {
    for (Variable* suspect : suspects) Reach(suspect);
    while (!pending.empty()) {
      Variable* variable = Take();
      ForEachHeld(variable, [this](Variable* held, int counts) {
        Reach(held);
        nodes[held].from_within += counts;
      });
    }
    MarkHeld();
    std::vector<Variable*> circle;
    for (auto& [variable, node] : nodes) {
      if (!node.held) circle.push_back(variable);
    }
    Delete(circle);
  }

 private:
  struct Node {
    int from_within = 0;
    bool held = false;
  };

  template <class Visit>
  static void ForEachHeld(Variable* variable, Visit visit) {
    // A reference has as many counts on its target as there are on itself.
    if (variable->reference) visit(variable->reference, variable->refcount_);
    if (!variable->elements) return;
    std::vector<AggregateElementTree::Row> rows;
    variable->elements->Listing(&rows);
    for (const auto& row : rows) {
      if (row.variable) visit(row.variable, 1);
    }
  }

  Variable* Take() {
    Variable* variable = pending.back();
    pending.pop_back();
    return variable;
  }

  void Reach(Variable* variable) {
    if (nodes.emplace(variable, Node()).second) pending.push_back(variable);
  }

  void MarkHeld() {
    for (auto& [variable, node] : nodes) {
      if (variable->refcount_ > node.from_within) Hold(variable);
    }
    while (!pending.empty()) {
      ForEachHeld(Take(), [this](Variable* held, int) { Hold(held); });
    }
  }

  void Hold(Variable* variable) {
    Node& node = nodes[variable];
    if (node.held) return;
    node.held = true;
    pending.push_back(variable);
  }

  // Takes the circle apart and leaves the deletion to the counts.
  static void Delete(const std::vector<Variable*>& circle) {
    for (Variable* variable : circle) variable->IncRefCount();
    for (Variable* variable : circle) variable->Make_NULL();
    for (Variable* variable : circle) variable->DecRefCount();
  }

  std::unordered_map<Variable*, Node> nodes;
  std::vector<Variable*> pending;
};

void Variable::NoteEdge(Variable* target) {
  if ((state & Suspect) || !target) return;
  const AggregateElementTree* tree = target->Final()->elements;
  if (!tree || tree->Entries() == 0) {
    if (target->Final() != this) return;
  }
  Suspects().insert(this);
  state |= Suspect;
}

void Variable::ForgetSuspect() {
  Suspects().erase(this);
}

void Variable::FreeCycles() {
  std::unordered_set<Variable*>& listed = Suspects();
  if (listed.empty()) return;
  VariableCycles().Free(listed);
  // Those left are somebody's: a library may keep variables beyond a request.
  for (Variable* survivor : listed) survivor->state &= ~Suspect;
  listed.clear();
}
