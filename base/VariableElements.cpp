// Arrays and structures: what a Variable does with its elements. Positions and counts come from
// scripts unchecked, so sums wrap and every walk ends. Tested in
// tests/base/VariableElementsTest.cpp.

#include <vector>

#include "base/Aggregate.h"
#include "base/Variable.h"
#include "base/VariableRef.h"

void Variable::Convert_Aggregate(AggregateType kind) {
  if (aggregate == kind || RedirectedStore()) return;
  AggregateElementTree* old = elements;
  elements = kind == AggregateNone ? nullptr : new AggregateElementTree();
  aggregate = kind;
  valid_forms = 0;
  primary = PrimaryNone;
  if (old) DeleteTree(old);
}

Variable* Variable::Element(const AggregateIndex& index, int create) {
  if (redirected()) {
    if (reference) return Final()->Element(index, create);
    return create ? this : nullptr;
  }
  const AggregateType kind = index.kind();
  if (aggregate != kind) {
    if (!create) return nullptr;
    Convert_Aggregate(kind);
  }
  AggregateElement* element = elements->Find(index);
  if (!element) {
    if (!create) return nullptr;
    element = elements->InsertNew(index);
  }
  return element->var();
}

Variable* Variable::At(int position, int create) {
  return Element(AggregateIndex(position), create);
}

Variable* Variable::Member(const char* name, int length, int create) {
  return Element(AggregateIndex(name, length), create);
}

Variable* Variable::Element(List<AggregateIndex>* path, int create) {
  Variable* variable = this;
  if (!path) return variable;
  for (AggregateIndex* index = path->First(); index && variable; index = path->Next()) {
    variable = variable->Element(*index, create);
  }
  return variable;
}

// The variable may be one of the elements that give way, so it is held first.
void Variable::SetElement(const AggregateIndex& index, Variable* variable) {
  if (redirected()) {
    if (reference) Final()->SetElement(index, variable);
    return;
  }
  const VariableRef pin = VariableRef::Share(variable);
  const AggregateType kind = index.kind();
  AggregateElement* element = aggregate == kind ? elements->Find(index) : nullptr;
  if (element) {
    element->SetVariable(variable);
  } else {
    Convert_Aggregate(kind);
    elements->InsertNew(index, variable);
  }
  NoteEdge(variable);
}

void Variable::InsertElement(int index, Variable* variable) {
  if (redirected()) {
    if (reference) Final()->InsertElement(index, variable);
    return;
  }
  const VariableRef pin = VariableRef::Share(variable);
  int place = index;
  if (aggregate != AggregateArray) {
    Convert_Aggregate(AggregateArray);
    if (place < 1) place = 1;
  } else if (index >= 1) {
    elements->Displace(index, 1);
  } else {
    place = WrapAdd(Max(), 1);
  }
  elements->InsertNew(AggregateIndex(place), variable);
  NoteEdge(variable);
}

void Variable::DeleteElement(const AggregateIndex& index, bool compact) {
  if (redirected()) {
    if (reference) Final()->DeleteElement(index, compact);
    return;
  }
  if (aggregate != index.kind()) return;
  // The index may be the element's own, which is gone after this.
  const int position = index.position;
  delete elements->Remove(index);
  if (aggregate == AggregateArray && compact) elements->Displace(WrapAdd(position, 1), -1);
}

// Remove may lose elements from where a search finds them. What it does not give back ends the
// loop, else the loop would meet the same element for ever.
void Variable::DeleteElements(int start, int count, bool compact) {
  if (redirected()) {
    if (reference) Final()->DeleteElements(start, count, compact);
    return;
  }
  const VariableRef pin = VariableRef::Share(this);
  Convert_Aggregate(AggregateArray);
  if (count == -1) {
    AggregateElement* last = elements->Last();
    while (last && last->index().position >= start) {
      AggregateElement* removed = elements->Remove(last->index());
      if (!removed) return;
      delete removed;
      last = elements->Last();
    }
    return;
  }
  const int end = WrapAdd(start, count);
  AggregateElement* element = elements->Next(AggregateIndex(WrapSubtract(start, 1)));
  while (element && element->index().position < end) {
    AggregateElement* removed = elements->Remove(element->index());
    if (!removed) break;
    element = elements->Next(removed->index());
    delete removed;
  }
  if (compact) elements->Displace(end, WrapSubtract(0, count));
}

// Makes a copy of an element's variable, or that variable itself, the element delta positions on.
void Variable::PlaceElement(AggregateElement* element, int delta, bool copy) {
  const AggregateIndex place(WrapAdd(element->index().position, delta));
  if (!copy) {
    SetElement(place, element->var());
    return;
  }
  const VariableRef variable(new Variable(*element->var()));
  SetElement(place, variable.get());
}

// Places the elements from start up to, not including, end, walking upward. In a walk through the
// own elements those just placed may lie ahead; no honest walk visits more than were there.
void Variable::PlaceRange(Variable* source, int start, int end, int delta, bool copy) {
  int left = source->ElementsUsed();
  AggregateElementTree* tree = source->aggregateelements();
  AggregateElement* element = tree->Next(AggregateIndex(WrapSubtract(start, 1)));
  while (element && element->index().position < end && left-- > 0) {
    const AggregateIndex position(element->index().position);
    PlaceElement(element, delta, copy);
    tree = source->aggregateelements();
    element = tree ? tree->Next(position) : nullptr;
    if (element && element->index().position <= position.position) return;
  }
}

void Variable::CopyElements(Variable* source, int start, int count, int dest, bool copy) {
  if (redirected()) {
    if (reference) Final()->CopyElements(source, start, count, dest, copy);
    return;
  }
  const VariableRef pin = VariableRef::Share(source);
  Convert_Aggregate(AggregateArray);
  if (!source) return;
  Variable* from = source->RealIdentity();
  if (from->aggregatetype() != AggregateArray) return;
  if (start < 1) start = from->Min();
  if (start < 1) return;
  if (count < 0) {
    const int last = from->Max();
    if (last < 1) return;
    count = WrapAdd(WrapSubtract(last, start), 1);
  }
  if (dest < 1) dest = WrapAdd(Max(), 1);
  if (dest == start && from == this && !copy) return;
  const int delta = WrapSubtract(dest, start);
  const int end = WrapAdd(start, count);
  if (dest < start) {
    PlaceRange(from, start, end, delta, copy);
    return;
  }
  // Downward, so that an overlapping range is read before it is overwritten.
  AggregateElementTree* tree = from->aggregateelements();
  AggregateElement* element = tree->Previous(AggregateIndex(end));
  while (element && element->index().position >= start) {
    const AggregateIndex position(element->index().position);
    PlaceElement(element, delta, copy);
    tree = from->aggregateelements();
    element = tree ? tree->Previous(position) : nullptr;
    if (element && element->index().position >= position.position) return;
  }
}

void Variable::MergeElements(Variable* source, int start, int count, int dest, bool copy) {
  if (redirected()) {
    if (reference) Final()->MergeElements(source, start, count, dest, copy);
    return;
  }
  const VariableRef pin = VariableRef::Share(source);
  Convert_Aggregate(AggregateArray);
  if (!source) return;
  Variable* from = source->RealIdentity();
  if (start < 1) start = from->Min();
  if (start < 1) start = 1;
  if (count < 0) {
    const int last = from->Max();
    count = last > 0 ? WrapAdd(WrapSubtract(last, start), 1) : last;
  }
  if (dest < 1) dest = WrapAdd(Max(), 1);
  elements->Displace(dest, count);
  if (from->aggregatetype() != AggregateArray) return;
  const int end = WrapAdd(start, count);
  const int delta = WrapSubtract(dest, start);
  if (from != this || end <= dest) {
    PlaceRange(from, start, end, delta, copy);
  } else if (dest <= start) {
    // The whole range has moved up with the gap.
    PlaceRange(this, end, WrapAdd(end, count), WrapSubtract(dest, end), copy);
  } else {
    // The gap has split the range. The bound of its upper part is wider than the part, and what
    // lies between is merged as well: scripts know it so.
    PlaceRange(this, start, dest, delta, copy);
    const int bound = WrapAdd(WrapAdd(WrapAdd(dest, count), count), count);
    PlaceRange(this, WrapAdd(dest, count), bound, WrapSubtract(delta, count), copy);
  }
}

int Variable::CollapseElements() {
  if (reference) return Final()->CollapseElements();
  if (aggregate != AggregateArray) return 0;
  std::vector<AggregateElement*> listing;
  elements->Listing(&listing);
  int position = 0;
  for (AggregateElement* element : listing) element->Renumber(++position);
  return position;
}

int Variable::Max() {
  if (reference) return Final()->Max();
  AggregateElement* last = elements ? elements->Last() : nullptr;
  return last ? last->index().position : 0;
}

int Variable::Min() {
  if (reference) return Final()->Min();
  AggregateElement* first = elements ? elements->First() : nullptr;
  return first ? first->index().position : 0;
}

int Variable::Next(int position) {
  if (reference) return Final()->Next(position);
  if (!elements) return 0;
  if (aggregate != AggregateArray) return -1;
  AggregateElement* element = elements->Next(AggregateIndex(position));
  return element ? element->index().position : 0;
}

int Variable::Previous(int position) {
  if (reference) return Final()->Previous(position);
  if (!elements) return 0;
  if (aggregate != AggregateArray) return -1;
  AggregateElement* element = elements->Previous(AggregateIndex(position));
  return element ? element->index().position : 0;
}

int Variable::ElementsUsed() {
  if (reference) return Final()->ElementsUsed();
  return elements ? elements->Entries() : 0;
}
