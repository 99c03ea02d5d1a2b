// The elements of arrays and structures, as a row or as a splay tree. Tested in
// tests/base/values/AggregateTest.cpp.

#include "base/values/Aggregate.h"

#include <cstdio>
#include <memory>

#include "base/values/VariableRef.h"

AggregateIndex::operator String&() {
  if (position != -1 && key.length == 0) {
    char text[16];
    key.assign(text, snprintf(text, sizeof text, "%d", position));
  }
  return key;
}

String& AggregateIndex::serialized() {
  if (serialized_text.length > 0) return serialized_text;
  if (position != -1) {
    char text[16];
    serialized_text.assign(text, snprintf(text, sizeof text, "[%d]", position));
  } else if (key.length > 0) {
    serialized_text.assign(":", 1);
    serialized_text.cat(key.data, key.length);
  }
  return serialized_text;
}

AggregateElement::AggregateElement(const AggregateIndex& index)
    : key(index), variable(new Variable()) {}

AggregateElement::AggregateElement(const AggregateIndex& index, Variable* shared)
    : key(index), variable(shared) {
  if (variable) variable->IncRefCount();
}

AggregateElement::AggregateElement(const AggregateElement& source)
    : key(source.key), variable(source.variable ? new Variable(*source.variable) : nullptr) {}

AggregateElement::~AggregateElement() {
  if (variable) variable->DecRefCount();
}

void AggregateElement::SetVariable(Variable* replacement) {
  if (replacement) replacement->IncRefCount();
  Variable* old = variable;
  variable = replacement;
  if (old) old->DecRefCount();
}

// The cached texts of the old position are dropped.
void AggregateElement::Renumber(int position) {
  key.position = position;
  key.key.destroy();
  key.serialized_text.destroy();
}

namespace {
void Shift(AggregateElement* element, int delta) {
  element->Renumber(WrapAdd(element->index().position, delta));
}
}  // namespace

AggregateElementTree::AggregateElementTree() : SplayTree(1) {}

// If the source is a row, it becomes a tree here; to scripts its elements stay the same.
AggregateElementTree::AggregateElementTree(const AggregateElementTree& source) : SplayTree(1) {
  const_cast<AggregateElementTree&>(source).BecomeTree();
  CopyFromSplayTree(source);
}

AggregateElementTree::~AggregateElementTree() = default;

const AggregateIndex& AggregateElementTree::Key(AggregateElement* element) {
  return element->key;
}

int AggregateElementTree::Compare(const AggregateIndex& key, AggregateElement* element) {
  return element->key.Compare(key);
}

// --- The row -------------------------------------------------------------------------------------

// Makes the nodes and elements of the tree that the row represents.
void AggregateElementTree::RowBecomesTree() {
  const int count = dense.count();
  is_isolated = false;
  const SplayShape& shape = dense.Shape();
  const int first = dense.first();
  // Everything is allocated before the row is changed, so a failure leaves the row intact.
  std::vector<std::unique_ptr<Node>> nodes(static_cast<size_t>(count) + 1);
  std::vector<std::unique_ptr<AggregateElement>> made(static_cast<size_t>(count) + 1);
  for (size_t rank = 1; rank < nodes.size(); rank++) {
    nodes[rank].reset(new Node{nullptr, nullptr, nullptr});
    made[rank].reset(new AggregateElement(first + static_cast<int>(rank) - 1, nullptr));
  }
  for (int rank = 1; rank <= count; rank++) {
    Node* node = nodes[static_cast<size_t>(rank)].get();
    node->left = nodes[static_cast<size_t>(shape.node(rank).left)].get();
    node->right = nodes[static_cast<size_t>(shape.node(rank).right)].get();
  }
  Node* top = nodes[static_cast<size_t>(shape.root())].get();
  const std::unique_ptr<Variable*[]> variables = dense.TakeVariables();
  for (size_t rank = 1; rank < nodes.size(); rank++) {
    made[rank]->variable = variables[rank - 1];
    nodes[rank]->item = made[rank].release();
    (void)nodes[rank].release();
  }
  root = top;
}

void AggregateElementTree::MembersBecomeTree() {
  const int count = members.count();
  is_isolated = false;
  SplayShape shape;
  members.MakeShape(&shape);
  // As above; the node and the element of a rank are also at the number of its node in the shape.
  std::vector<std::unique_ptr<Node>> nodes(2 * static_cast<size_t>(count) + 2);
  std::vector<std::unique_ptr<AggregateElement>> made(nodes.size());
  for (size_t rank = 0; rank < static_cast<size_t>(count); rank++) {
    const int slot = members.names()->InOrder(static_cast<int>(rank));
    const SharedName* const name = members.names()->name(slot);
    nodes[2 * rank + 2].reset(new Node{nullptr, nullptr, nullptr});
    made[2 * rank + 2].reset(
        new AggregateElement(AggregateIndex(name->text(), name->length()), nullptr));
    SlotTable::VariableOf(members.Own(slot));
  }
  for (size_t rank = 0; rank < static_cast<size_t>(count); rank++) {
    const size_t place = 2 * rank + 2;
    const SplayShape::Links& links = shape.node(static_cast<int>(place));
    nodes[place]->left = nodes[static_cast<size_t>(links.left)].get();
    nodes[place]->right = nodes[static_cast<size_t>(links.right)].get();
    made[place]->variable = members.at(members.names()->InOrder(static_cast<int>(rank))).variable();
  }
  Node* const top = nodes[static_cast<size_t>(shape.root())].get();
  members.Leave();
  for (size_t place = 2; place < nodes.size(); place += 2) {
    nodes[place]->item = made[place].release();
    (void)nodes[place].release();
  }
  root = top;
}

void AggregateElementTree::AppendDense(int position, Variable* variable) {
  dense.Append(position, variable);
  entries = dense.count();
}

AggregateElementTree::Place AggregateElementTree::PlaceOf(AggregateElement* element) {
  if (!element) return {false, 0, nullptr};
  return {true, element->key.position, element->variable};
}

AggregateElementTree::Place AggregateElementTree::NextPlace(int position) {
  if (position < 0) position = 0;
  if (dense.count() == 0) return PlaceOf(Next(AggregateIndex(position)));
  dense.Search(position);
  if (position >= dense.last()) return {false, 0, nullptr};
  const int next = position < dense.first() ? dense.first() : position + 1;
  is_isolated = false;
  return {true, next, dense.Peek(next)};
}

AggregateElementTree::Place AggregateElementTree::PreviousPlace(int position) {
  if (position < 0) position = 0;
  if (dense.count() == 0) return PlaceOf(Previous(AggregateIndex(position)));
  dense.Search(position);
  if (position <= dense.first()) return {false, 0, nullptr};
  const int previous = position > dense.last() ? dense.last() : position - 1;
  is_isolated = false;
  return {true, previous, dense.Peek(previous)};
}

int AggregateElementTree::NextPosition(int position) {
  if (position < 0) position = 0;
  if (dense.count() == 0) return PlaceOf(Next(AggregateIndex(position))).position;
  dense.Search(position);
  if (position >= dense.last()) return 0;
  return position < dense.first() ? dense.first() : position + 1;
}

int AggregateElementTree::PreviousPosition(int position) {
  if (position < 0) position = 0;
  if (dense.count() == 0) return PlaceOf(Previous(AggregateIndex(position))).position;
  dense.Search(position);
  if (position <= dense.first()) return 0;
  return position > dense.last() ? dense.last() : position - 1;
}

int AggregateElementTree::FirstPosition() {
  if (!members.IsEmpty()) return -1;
  return dense.count() > 0 ? dense.first() : PlaceOf(SplayTree::First()).position;
}

int AggregateElementTree::LastPosition() {
  if (!members.IsEmpty()) return -1;
  return dense.count() > 0 ? dense.last() : PlaceOf(SplayTree::Last()).position;
}

Variable* AggregateElementTree::InsertNew(const AggregateIndex& index) {
  is_isolated = false;
  if (TakesDense(index)) {
    VariableRef variable(SlotTable::NewVariable());
    AppendDense(index.position, variable.get());
    return variable.release();
  }
  auto element = std::make_unique<AggregateElement>(index);
  Insert(element.get());
  return element.release()->variable;
}

void AggregateElementTree::InsertNew(const AggregateIndex& index, Variable* variable) {
  is_isolated = false;
  if (variable && TakesDense(index)) {
    AppendDense(index.position, variable);
    variable->Hold();
    return;
  }
  auto element = std::make_unique<AggregateElement>(index, variable);
  Insert(element.get());
  (void)element.release();
}

void AggregateElementTree::Exchange(int position, Variable* variable) {
  is_isolated = false;
  if (variable) {
    variable->Hold();
    dense.Replace(position, variable)->Release();
  } else {
    Find(AggregateIndex(position))->SetVariable(nullptr);
  }
}

bool AggregateElementTree::RemoveFromRow(int position) {
  is_isolated = false;
  if (position == dense.last()) {
    Variable* removed = dense.RemoveLast();
    entries = dense.count();
    removed->Release();
    return true;
  }
  if (position >= dense.first() && position < dense.last()) return false;
  dense.Search(position);
  return true;
}

// If there is a position 0, all positions move up, so an element's new position may be the old one
// of the next element. The comparison then prefers the element itself. An element that searches
// miss keeps its position, and the loop makes at most one step per element.
int AggregateElementTree::Collapse() {
  if (dense.count() > 0) {
    for (int position = dense.first(); position <= dense.last(); position++) {
      dense.Search(position);
    }
    dense.MoveTo(1);
    return dense.count();
  }
  AggregateElement* element = SplayTree::First();
  const bool shifts_up = element && element->key.position <= 0;
  for (int position = 1; element && position <= Entries(); position++) {
    element->Renumber(position);
    const AggregateIndex key(position);
    const int order = SplayBy([&key, element, shifts_up](AggregateElement* other) {
      const int compared = other->key.Compare(key);
      return compared == 0 && shifts_up && other != element ? -1 : compared;
    });
    element = order < 0 ? root->item : LeastOf(root->right);
  }
  return Entries();
}

void AggregateElementTree::ExpectCopyOf(AggregateElementTree* source, bool apart) {
  if (source->dense.count() > 0) {
    dense.BecomeCopyOf(&source->dense);
    entries = dense.count();
  } else if (!source->members.IsEmpty()) {
    members.BecomeCopyOf(source->members, apart);
    entries = members.count();
  }
}

bool AggregateElementTree::CopyNumbers(AggregateElementTree* source) {
  if (!source->dense.HasOnlyNumbers()) return false;
  dense.ShareWith(&source->dense);
  dense.OwnSlots();
  entries = dense.count();
  return true;
}

Variable* AggregateElementTree::InsertCopy(const Row& source) {
  if (dense.count() > 0) {
    auto* variable = SlotTable::NewVariable();
    dense.Replace(source.position, variable);
    return variable;
  }
  if (!members.IsEmpty()) {
    auto* variable = SlotTable::NewVariable();
    *members.Own(source.position) = DenseSlot(variable);
    return variable;
  }
  auto element = std::make_unique<AggregateElement>(source.element->key);
  Insert(element.get());
  return element.release()->variable;
}

// --- Members -------------------------------------------------------------------------------------

Variable* AggregateElementTree::Member(const char* name, int length, int create, MemberHint* hint) {
  is_isolated = false;
  if (!IsFlat()) {
    if (AggregateElement* element = FindMember(name, length)) return element->variable;
    return create ? InsertNew(AggregateIndex(name, length)) : nullptr;
  }
  const int slot = hint ? members.Locate(name, length, hint) : members.Locate(name, length);
  if (slot >= 0) [[likely]] {
    members.Touch(slot);
    return SlotTable::VariableOf(members.Own(slot));
  }
  if (!create) {
    members.TouchMissing(name, length);
    return nullptr;
  }
  if (members.IsFull()) {
    members.TouchMissing(name, length);
    return InsertNew(AggregateIndex(name, length));
  }
  VariableRef variable(SlotTable::NewVariable());
  members.Add(name, length, DenseSlot(variable.get()));
  entries = members.count();
  return variable.release();
}

void AggregateElementTree::SetMember(const char* name, int length, Variable* variable) {
  is_isolated = false;
  if (!IsFlat()) {
    if (AggregateElement* element = FindMember(name, length)) {
      element->SetVariable(variable);
    } else {
      InsertNew(AggregateIndex(name, length), variable);
    }
    return;
  }
  const int slot = members.Locate(name, length);
  if (!variable || (slot < 0 && members.IsFull())) {
    BecomeTree();
    if (IsFlat()) {
      InsertNew(AggregateIndex(name, length), variable);
    } else {
      SetMember(name, length, variable);
    }
  } else if (slot < 0) {
    members.Add(name, length, DenseSlot(variable));
    entries = members.count();
    variable->Hold();
  } else {
    members.Touch(slot);
    DenseSlot* const place = members.Own(slot);
    const DenseSlot old = *place;
    variable->Hold();
    *place = DenseSlot(variable);
    if (old.IsVariable()) old.variable()->Release();
  }
}

bool AggregateElementTree::AdoptMember(const char* name, int length, Variable* variable) {
  if (!IsFlat() || members.IsFull() || members.Locate(name, length) >= 0) return false;
  is_isolated = false;
  // Its elements are as those of a copy. This may throw, so it comes before the count is adopted.
  if (variable->elements) variable->elements->TakeShapeOfCopy();
  members.Add(name, length, DenseSlot(variable));
  entries = members.count();
  return true;
}

bool AggregateElementTree::FindNumberMember(const char* name, int length, MemberHint* hint,
                                            DenseSlot* found) {
  const int slot = members.Locate(name, length, hint);
  if (slot < 0) return false;
  const DenseSlot& value = members.at(slot);
  if (value.IsVariable()) {
    if (!value.variable()->BareNumber(found)) return false;
  } else {
    *found = value;
  }
  members.Touch(slot);
  return true;
}

bool AggregateElementTree::WriteSlot(const char* name, int length, MemberHint* hint,
                                     DenseSlot value) {
  if (!IsFlat()) return false;
  const int slot = members.Locate(name, length, hint);
  if (slot < 0) {
    if (members.IsFull()) return false;
    members.Add(name, length, value);
    entries = members.count();
    return true;
  }
  if (members.at(slot).IsVariable() && !members.at(slot).variable()->IsPlain()) return false;
  members.Touch(slot);
  DenseSlot* const place = members.Own(slot);
  if (!place->IsVariable()) {
    *place = value;
  } else if (value.IsInteger()) {
    place->variable()->Write_Integer(value.integer());
  } else {
    place->variable()->Write_Double(value.number());
  }
  return true;
}

// --- Isolation -----------------------------------------------------------------------------------

bool AggregateElementTree::IsIsolated(int nested) {
  if (is_isolated) return true;
  if (is_exposed || root) return false;
  if (dense.count() > 0) {
    if (!dense.IsShared() && !AreIsolated(dense.SlotAt(dense.first()), dense.count(), nested)) {
      return false;
    }
  } else if (!members.IsEmpty()) {
    if (!members.IsShared() && !AreIsolated(&members.at(0), members.count(), nested)) return false;
  }
  is_isolated = true;
  return true;
}

bool AggregateElementTree::AreIsolated(const DenseSlot* slots, int count, int nested) {
  for (int i = 0; i < count; i++) {
    if (slots[i].IsVariable() && !slots[i].variable()->IsIsolated(nested)) return false;
  }
  return true;
}

AggregateElementTree* AggregateElementTree::ShareCopy() {
  auto copy = std::make_unique<AggregateElementTree>();
  copy->dense.ShareWith(&dense);
  copy->members.ShareWith(&members);
  copy->entries = entries;
  copy->is_isolated = true;
  return copy.release();
}

bool AggregateElementTree::BecomeShareOf(AggregateElementTree* source) {
  if (is_exposed || members.IsEmpty() || source->members.IsEmpty()) return false;
  entries = source->entries;
  is_isolated = true;
  members.BecomeShareOf(&source->members);
  return true;
}

void AggregateElementTree::TakeShapeOfCopy() {
  if (dense.count() > 0) {
    dense.TakeShapeOfCopy(&dense);
  } else {
    members.TakeShapeOfCopy();
  }
}

void AggregateElementTree::TakeChain() {
  if (dense.count() > 0) {
    dense.TakeChain();
  } else {
    members.TakeShapeOfCopy();
  }
}

// --- The tree ------------------------------------------------------------------------------------

int AggregateElementTree::SplayKey(const AggregateIndex& key) {
  if (key.position < 0) {
    return SplayBy([&key](AggregateElement* element) { return element->key.Compare(key); });
  }
  const int position = key.position;
  return SplayBy([&key, position](AggregateElement* element) {
    const int other = element->key.position;
    // Sums that wrap can give an element the position -1, which marks a name.
    if (other == -1) [[unlikely]]
      return element->key.Compare(key);
    return (position > other) - (position < other);
  });
}

AggregateElement* AggregateElementTree::FindMember(const char* name, int length) {
  BecomeTree();
  const int order = SplayBy([name, length](AggregateElement* element) {
    return element->key.CompareWithName(name, length);
  });
  return root && order == 0 ? root->item : nullptr;
}

AggregateElement* AggregateElementTree::Find(const AggregateIndex& key) {
  BecomeTree();
  return root && SplayKey(key) == 0 ? root->item : nullptr;
}

AggregateElement* AggregateElementTree::Next(const AggregateIndex& key) {
  BecomeTree();
  if (!root) return nullptr;
  return SplayKey(key) < 0 ? root->item : LeastOf(root->right);
}

AggregateElement* AggregateElementTree::LeastOf(Node* node) {
  while (node && node->left) node = node->left;
  return node ? node->item : nullptr;
}

AggregateElement* AggregateElementTree::Previous(const AggregateIndex& key) {
  BecomeTree();
  if (!root) return nullptr;
  if (SplayKey(key) > 0) return root->item;
  Node* node = root->left;
  while (node && node->right) node = node->right;
  return node ? node->item : nullptr;
}

AggregateElement* AggregateElementTree::First() {
  BecomeTree();
  return SplayTree::First();
}

AggregateElement* AggregateElementTree::Last() {
  BecomeTree();
  return SplayTree::Last();
}

void AggregateElementTree::Insert(AggregateElement* element) {
  BecomeTree();
  InsertAtRoot(element, root ? SplayKey(element->key) : 0);
}

AggregateElement* AggregateElementTree::Remove(const AggregateIndex& key) {
  BecomeTree();
  return SplayTree::Remove(key);
}

void AggregateElementTree::Dump() {
  if (!root) entries = 0;
  dense.Drop();
  members.Drop();
  is_isolated = false;
  SplayTree::Dump();
}

void AggregateElementTree::AppendToList(List<AggregateElement>& list) {
  BecomeTree();
  SplayTree::AppendToList(list);
}

// After the last element nothing moves; only the search remains.
void AggregateElementTree::Displace(int from, int delta) {
  if (delta == 0 || IsEmpty()) return;
  const AggregateIndex first(from);
  if (dense.count() > 0 && first.position > dense.last()) {
    dense.Search(first.position);
    return;
  }
  BecomeTree();
  Splay(first);
  if (root->item->key.position >= first.position) Shift(root->item, delta);
  if (!root->right) return;
  if (Entries() > kRecursionLimit) {
    DisplaceStack(delta, root->right);
  } else {
    DisplaceRecurse(delta, root->right);
  }
}

void AggregateElementTree::DisplaceRecurse(int delta, SplayTreeNode<AggregateElement>* node) {
  if (node->left) DisplaceRecurse(delta, node->left);
  Shift(node->item, delta);
  if (node->right) DisplaceRecurse(delta, node->right);
}

void AggregateElementTree::DisplaceStack(int delta, SplayTreeNode<AggregateElement>* node) {
  std::vector<SplayTreeNode<AggregateElement>*> above;
  while (node || !above.empty()) {
    for (; node; node = node->left) above.push_back(node);
    node = above.back();
    above.pop_back();
    Shift(node->item, delta);
    node = node->right;
  }
}

// --- Listings ------------------------------------------------------------------------------------

namespace {
AggregateElementTree::Row RowOf(AggregateElement* element) {
  return {element, element->index().position, element->var()};
}
}  // namespace

void AggregateElementTree::Listing(std::vector<Row>* rows) {
  is_isolated = false;
  if (rows->empty()) rows->reserve(static_cast<size_t>(Entries()));
  for (int i = 0; i < dense.count(); i++) {
    const int position = dense.first() + i;
    rows->push_back({nullptr, position, dense.Peek(position)});
  }
  for (int rank = 0; rank < members.count(); rank++) {
    const int slot = members.names()->InOrder(rank);
    rows->push_back(
        {nullptr, slot, SlotTable::VariableOf(members.Own(slot)), members.names()->name(slot)});
  }
  // A path from the root has at most as many nodes as the tree has elements.
  Node* near[kRecursionLimit];
  std::unique_ptr<Node*[]> far;
  Node** above = near;
  if (root && Entries() > kRecursionLimit) {
    far.reset(new Node*[static_cast<size_t>(Entries())]);
    above = far.get();
  }
  int depth = 0;
  Node* node = root;
  while (node || depth > 0) {
    for (; node; node = node->left) above[depth++] = node;
    node = above[--depth];
    rows->push_back(RowOf(node->item));
    node = node->right;
  }
}

void AggregateElementTree::Listing(std::vector<AggregateElement*>* elements) {
  BecomeTree();
  std::vector<Row> rows;
  Listing(&rows);
  for (const Row& row : rows) elements->push_back(row.element);
}

void AggregateElementTree::ListingForCopy(std::vector<Row>* rows) {
  if (Entries() <= kRecursionLimit) {
    Listing(rows);
    return;
  }
  if (dense.count() > 0) {
    std::vector<int> ranks;
    dense.OrderForCopy(&ranks);
    for (const int rank : ranks) {
      const int position = dense.first() + rank - 1;
      rows->push_back({nullptr, position, dense.Peek(position)});
    }
    return;
  }
  std::vector<Node*> pending(1, root);
  while (!pending.empty()) {
    Node* node = pending.back();
    pending.pop_back();
    if (node->left) pending.push_back(node->left);
    if (node->right) pending.push_back(node->right);
    rows->push_back(RowOf(node->item));
  }
}
