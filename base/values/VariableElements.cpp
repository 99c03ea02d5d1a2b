// The operations of a Variable on its elements. Positions and counts come from scripts unchecked,
// so sums wrap, and every walk ends, at the latest when the time limit has passed. Tested in
// tests/base/values/VariableElementsTest.cpp.

#include "base/core/RunLimit.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {
// Elements that are placed or deleted between two checks of the time limit: each may be large.
constexpr int kElements = 256;
}  // namespace

void Variable::Convert_Aggregate(AggregateType kind) {
  if (aggregate == kind || RedirectedStore()) return;
  AggregateElementTree* old = elements;
  elements = kind == AggregateNone ? nullptr : new AggregateElementTree();
  aggregate = kind;
  SetForms(0);
  primary = PrimaryNone;
  if (old) DeleteTree(old);
}

// The caller has no count on the result, and may keep it as long as it is an element.
Variable* Variable::Element(const AggregateIndex& index, int create) {
  if (redirected()) {
    if (reference) return Final()->Element(index, create);
    return create ? this : nullptr;
  }
  Variable* const found = Found(index, create);
  if (found) elements->Expose();
  return found;
}

// REQUIRES: the variable is not redirected.
Variable* Variable::Found(const AggregateIndex& index, int create) {
  const AggregateType kind = index.kind();
  if (aggregate != kind) {
    if (!create) return nullptr;
    Convert_Aggregate(kind);
  }
  if (kind == AggregateStructure) {
    return elements->Member(index.key.data, index.key.length, create, nullptr);
  }
  if (elements->IsRow()) {
    if (Variable* found = elements->SearchRow(index.position)) return found;
  } else if (AggregateElement* element = elements->Find(index)) {
    return element->var();
  }
  return create ? elements->InsertNew(index) : nullptr;
}

Variable* Variable::At(int position, int create) {
  if (IsPlain() && aggregate == AggregateArray && elements->IsRow()) {
    if (Variable* found = elements->SearchRow(position < 0 ? 0 : position)) return found;
    return create ? elements->InsertNew(AggregateIndex(position)) : nullptr;
  }
  const AggregateIndex index(position);
  return IsPlain() ? Found(index, create) : Element(index, create);
}

Variable* Variable::SearchMember(const char* name, int length, int create) {
  if (!IsPlain()) return Element(AggregateIndex(name, length), create);
  if (aggregate != AggregateStructure) {
    if (!create) return nullptr;
    Convert_Aggregate(AggregateStructure);
  }
  return elements->Member(name, length, create, nullptr);
}

Variable* Variable::Element(List<AggregateIndex>* path, int create) {
  Variable* variable = this;
  if (!path) return variable;
  for (AggregateIndex* index = path->First(); index && variable; index = path->Next()) {
    variable = variable->Element(*index, create);
  }
  return variable;
}

// The variable may be one of the elements that Convert_Aggregate drops, so it is held first.
void Variable::SetElement(const AggregateIndex& index, Variable* variable) {
  if (redirected()) {
    if (reference) Final()->SetElement(index, variable);
    return;
  }
  const VariableRef pin = VariableRef::Share(variable);
  NoteEdge(variable);
  const AggregateType kind = index.kind();
  AggregateElement* element = nullptr;
  if (kind == AggregateStructure) {
    // The name may be that of an element which is dropped here.
    const AggregateIndex kept(index);
    Convert_Aggregate(kind);
    elements->Expose();
    elements->SetMember(kept.key.data, kept.key.length, variable);
    return;
  }
  if (aggregate == kind) elements->Expose();
  if (aggregate == kind && elements->IsRow()) {
    if (elements->SearchRow(index.position)) {
      elements->Exchange(index.position, variable);
      return;
    }
  } else if (aggregate == kind) {
    element = elements->Find(index);
  }
  if (element) {
    element->SetVariable(variable);
  } else {
    Convert_Aggregate(kind);
    elements->Expose();
    elements->InsertNew(index, variable);
  }
}

void Variable::InsertElement(int index, Variable* variable) {
  if (redirected()) {
    if (reference) Final()->InsertElement(index, variable);
    return;
  }
  const VariableRef pin = VariableRef::Share(variable);
  NoteEdge(variable);
  int place = index;
  if (aggregate != AggregateArray) {
    Convert_Aggregate(AggregateArray);
    if (place < 1) place = 1;
  } else if (index >= 1) {
    elements->Displace(index, 1);
  } else {
    place = WrapAdd(Max(), 1);
  }
  elements->Expose();
  elements->InsertNew(AggregateIndex(place), variable);
}

void Variable::DeleteElement(const AggregateIndex& index, bool compact) {
  if (redirected()) {
    if (reference) Final()->DeleteElement(index, compact);
    return;
  }
  if (aggregate != index.kind()) return;
  // The index may be the key of the removed element, which is deleted with it.
  const int position = index.position;
  if (!elements->IsRow() || !elements->RemoveFromRow(position)) delete elements->Remove(index);
  if (aggregate == AggregateArray && compact) elements->Displace(WrapAdd(position, 1), -1);
}

// Remove can leave elements where a search does not find them. If it returns none, the loop ends,
// because it would otherwise meet the same element forever.
void Variable::DeleteElements(int start, int count, bool compact) {
  if (redirected()) {
    if (reference) Final()->DeleteElements(start, count, compact);
    return;
  }
  const VariableRef pin = VariableRef::Share(this);
  Convert_Aggregate(AggregateArray);
  RunWatch watch(kElements);
  if (count == -1) {
    while (elements->IsRow() && elements->LastPosition() >= start && !watch.Over()) {
      elements->RemoveFromRow(elements->LastPosition());
    }
    if (elements->IsRow()) return;
    AggregateElement* last = elements->Last();
    while (last && last->index().position >= start && !watch.Over()) {
      AggregateElement* removed = elements->Remove(last->index());
      if (!removed) return;
      delete removed;
      last = elements->Last();
    }
    return;
  }
  const int end = WrapAdd(start, count);
  AggregateElement* element = elements->Next(AggregateIndex(WrapSubtract(start, 1)));
  while (element && element->index().position < end && !watch.Over()) {
    AggregateElement* removed = elements->Remove(element->index());
    if (!removed) break;
    element = elements->Next(removed->index());
    delete removed;
  }
  if (compact) elements->Displace(end, WrapSubtract(0, count));
}

// Stores an element's variable, or a copy of it, at the position. Libraries copy elements to keep
// them, so the copy shares nothing with the original.
void Variable::PlaceElement(Variable* element, int position, bool copy) {
  const AggregateIndex place(position);
  if (!copy || !element) {
    SetElement(place, element);
    return;
  }
  const VariableRef variable(new Variable());
  variable->SetName(element->name_);
  variable->Assign(*element, true);
  SetElement(place, variable.get());
}

// Places the elements from start up to, not including, end, walking upward. In a walk through this
// array's own elements, those just placed may be ahead; so the number of steps is limited to the
// number of elements at the start.
void Variable::PlaceRange(Variable* source, int start, int end, int delta, bool copy) {
  int left = source->ElementsUsed();
  auto place = source->aggregateelements()->NextPlace(WrapSubtract(start, 1));
  RunWatch watch(kElements);
  while (place.there && place.position < end && left-- > 0 && !watch.Over()) {
    const int position = place.position;
    PlaceElement(place.variable, WrapAdd(position, delta), copy);
    AggregateElementTree* tree = source->aggregateelements();
    if (!tree) return;
    place = tree->NextPlace(position);
    if (place.position <= position) return;
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
  auto place = from->aggregateelements()->PreviousPlace(end);
  RunWatch watch(kElements);
  while (place.there && place.position >= start && !watch.Over()) {
    const int position = place.position;
    PlaceElement(place.variable, WrapAdd(position, delta), copy);
    AggregateElementTree* tree = from->aggregateelements();
    if (!tree) return;
    place = tree->PreviousPlace(position);
    if (place.position >= position) return;
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
    // The gap has split the range. The bound of its upper part is larger than needed, so the
    // elements between are merged as well: scripts rely on that.
    PlaceRange(this, start, dest, delta, copy);
    const int bound = WrapAdd(WrapAdd(WrapAdd(dest, count), count), count);
    PlaceRange(this, WrapAdd(dest, count), bound, WrapSubtract(delta, count), copy);
  }
}

int Variable::CollapseElements() {
  if (reference) return Final()->CollapseElements();
  if (aggregate != AggregateArray) return 0;
  return elements->Collapse();
}

int Variable::Max() {
  if (reference) return Final()->Max();
  return elements ? elements->LastPosition() : 0;
}

int Variable::Min() {
  if (reference) return Final()->Min();
  return elements ? elements->FirstPosition() : 0;
}

int Variable::Next(int position) {
  if (reference) return Final()->Next(position);
  if (!elements) return 0;
  if (aggregate != AggregateArray) return -1;
  return elements->NextPosition(position);
}

int Variable::Previous(int position) {
  if (reference) return Final()->Previous(position);
  if (!elements) return 0;
  if (aggregate != AggregateArray) return -1;
  return elements->PreviousPosition(position);
}

int Variable::ElementsUsed() {
  if (reference) return Final()->ElementsUsed();
  return elements ? elements->Entries() : 0;
}
