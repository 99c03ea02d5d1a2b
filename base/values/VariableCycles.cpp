// Finds and deletes values that hold only themselves. Counts free everything except circles: an
// array that is its own element, an element that refers to its array. Scripts can make them, so the
// host searches for them at the end of a request. The request may have run out of memory, so the
// search allocates nothing: it marks and links the variables themselves. Tested in
// tests/base/values/VariableCyclesTest.cpp.

#include <vector>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

namespace {

// A circle closes when a variable begins to hold another one that has elements: from there a way
// may lead back. Such holders are listed here and flagged Suspect until they are deleted. A copy
// holds only new variables and is never listed, so for most requests the list stays empty.
std::vector<Variable*>& Suspects() {
  thread_local std::vector<Variable*> suspects;
  return suspects;
}

}  // namespace

// Trial deletion: collects all variables that the suspects reach, and subtracts the counts that
// these variables have on one another. A variable with counts left has a holder outside, and all
// that it reaches is held too. The others are in a circle, or are only reachable from one.
//
// Only variables that hold others, by elements or as references, are collected. Neither kind has a
// number of its own, so these fields keep the number of counts found and the link to the next
// variable. A variable without elements is deleted when its last holder is.
class VariableCycles {
 public:
  void Free(const std::vector<Variable*>& suspects) {
    for (Variable* suspect : suspects) Reach(suspect);
    // The list grows while it is walked.
    for (Variable* variable = first; variable; variable = variable->link()) {
      ForEachHeld(variable, [this](Variable* held) {
        if (!Holds(held)) return;
        Reach(held);
        held->number()++;
      });
    }
    MarkHeld();
    LeaveHeld();
    DeleteOthers();
  }

 private:
  static bool Holds(const Variable* variable) {
    return variable->reference != nullptr || variable->elements != nullptr;
  }

  template <class Visit>
  static void ForEachHeld(Variable* variable, Visit visit) {
    if (variable->reference) visit(variable->reference);
    if (variable->elements) variable->elements->ForEachVariable(visit);
  }

  void Reach(Variable* variable) {
    if ((variable->state & Variable::Reached) || !Holds(variable)) return;
    variable->state |= Variable::Reached;
    variable->number() = 0;
    variable->SetLink(nullptr);
    if (last) {
      last->SetLink(variable);
    } else {
      first = variable;
    }
    last = variable;
  }

  void MarkHeld() {
    for (Variable* variable = first; variable; variable = variable->link()) {
      if (variable->refcount_ > variable->number()) Hold(variable);
      while (AggregateElementTree* const tree = to_mark) {
        to_mark = tree->next_deleted;
        tree->ForEachVariable([this](Variable* held) { Hold(held); });
      }
    }
  }

  // Marks a variable and what it refers to. Its elements are marked later, from the list to_mark,
  // so that deep nesting needs no native stack.
  void Hold(Variable* variable) {
    for (; variable; variable = variable->reference) {
      if ((variable->state & (Variable::Reached | Variable::Held)) != Variable::Reached) return;
      variable->state |= Variable::Held;
      if (!variable->elements) continue;
      variable->elements->next_deleted = to_mark;
      to_mark = variable->elements;
    }
  }

  // Takes held variables off the list, so that only the others stay marked.
  void LeaveHeld() {
    Variable* next = first;
    first = nullptr;
    while (Variable* const variable = next) {
      next = variable->link();
      if (variable->state & Variable::Held) {
        variable->state &= ~(Variable::Reached | Variable::Held);
        variable->ClearScratch();
      } else {
        variable->SetLink(first);
        first = variable;
      }
    }
  }

  // The remaining variables have counts only from one another. So these need not be given back one
  // by one, but no count may reach 0 before its turn. References are dropped first, so that no
  // variable released later is a reference to one of these.
  void DeleteOthers() {
    for (Variable* variable = first; variable; variable = variable->link()) {
      Variable* const target = variable->reference;
      variable->refcount_++;
      if (!target) continue;
      variable->reference = nullptr;
      variable->state = (variable->state & ~Variable::Reference) | Variable::Gone;
      if (!(target->state & Variable::Reached)) target->Release();
    }
    for (Variable* variable = first; variable; variable = variable->link()) {
      variable->DropElements();
    }
    while (Variable* const variable = first) {
      first = variable->link();
      variable->ClearScratch();
      variable->state &= ~Variable::Reached;
      variable->refcount_ = 1;
      variable->DecRefCount();
    }
  }

  Variable* first = nullptr;
  Variable* last = nullptr;
  AggregateElementTree* to_mark = nullptr;
};

// Called before the target is held, so that nothing has to be undone if the list cannot grow.
void Variable::NoteEdge(Variable* target) {
  if ((state & Suspect) || !target) return;
  const AggregateElementTree* tree = target->Final()->elements;
  if (!tree || tree->Entries() == 0) {
    if (target->Final() != this) return;
  }
  std::vector<Variable*>& listed = Suspects();
  listed.push_back(this);
  suspect_place = static_cast<int>(listed.size()) - 1;
  state |= Suspect;
}

void Variable::ForgetSuspect() {
  std::vector<Variable*>& listed = Suspects();
  Variable* const moved = listed.back();
  moved->suspect_place = suspect_place;
  listed[static_cast<size_t>(suspect_place)] = moved;
  listed.pop_back();
}

void Variable::FreeCycles() {
  std::vector<Variable*>& listed = Suspects();
  if (!listed.empty()) VariableCycles().Free(listed);
  MemberLayout::ForgetCommon();
  // The survivors have other holders: a library may keep variables beyond a request.
  for (Variable* survivor : listed) survivor->state &= ~Suspect;
  std::vector<Variable*>().swap(listed);
}
