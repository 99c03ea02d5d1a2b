// Values that hold only themselves. Counts free everything but circles: an array that is its own
// element, an element that refers to its array. Scripts can make them, so a request that ends looks
// for them. Memory may be what the request has run out of, so the search allocates nothing: it
// marks and links the variables themselves. Tested in tests/base/values/VariableCyclesTest.cpp.

#include <vector>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

namespace {

// A circle closes when something gets to hold a variable that has elements: from there a way may
// lead back. Such holders are listed here, flagged as suspect, until they are deleted. Copies hold
// nothing but new variables and are never listed, so for most requests the list stays empty.
std::vector<Variable*>& Suspects() {
  thread_local std::vector<Variable*> suspects;
  return suspects;
}

}  // namespace

// Trial deletion: takes all that the suspects reach and subtracts the counts that these variables
// have on one another. Who has counts left is held from outside, with all that it reaches. The
// others are a circle, or hang on one.
//
// Only variables that hold others, with elements or as references, are looked at. Neither kind has
// a number of its own, so the count of those found and the link to the next variable stand there.
// A variable without elements that hangs on a circle goes with what holds it.
class VariableCycles {
 public:
  void Free(const std::vector<Variable*>& suspects) {
    for (Variable* suspect : suspects) Reach(suspect);
    // The list grows while it is walked.
    for (Variable* variable = first; variable; variable = variable->link()) {
      ForEachHeld(variable, [this](Variable* held, int counts) {
        if (!Holds(held)) return;
        Reach(held);
        held->number() += counts;
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
    // A reference has as many counts on its target as there are on itself.
    if (variable->reference) visit(variable->reference, variable->refcount_);
    if (variable->elements) {
      variable->elements->ForEachVariable([&visit](Variable* held) { visit(held, 1); });
    }
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

  // Marks a variable, and what it refers to; elements wait for their turn.
  void Hold(Variable* variable) {
    for (; variable; variable = variable->reference) {
      if ((variable->state & (Variable::Reached | Variable::Held)) != Variable::Reached) return;
      variable->state |= Variable::Held;
      if (!variable->elements) continue;
      variable->elements->next_deleted = to_mark;
      to_mark = variable->elements;
    }
  }

  // Takes what is held off the list, so that the marks are those of the others alone.
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

  // All counts of these are their own. So they need not be given back one by one, but none may
  // reach 0 before its turn. References come first: what is released then is no reference to one
  // of these any more.
  void DeleteOthers() {
    const ReleaseGroup group;
    for (Variable* variable = first; variable; variable = variable->link()) {
      Variable* const target = variable->reference;
      const int counts = variable->refcount_++;
      if (!target) continue;
      variable->reference = nullptr;
      variable->state = (variable->state & ~Variable::Reference) | Variable::Gone;
      if (!(target->state & Variable::Reached)) Variable::TakeCounts(target, counts);
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

// Before the target is held, so that nothing has to be taken back if the list cannot grow.
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
  // Those left are somebody's: a library may keep variables beyond a request.
  for (Variable* survivor : listed) survivor->state &= ~Suspect;
  std::vector<Variable*>().swap(listed);
}
