// Tested in tests/base/AggregateTest.cpp.

#include "base/Aggregate.h"

#include <cstdio>
#include <memory>

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

// The texts that stand for the old position go with it.
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

AggregateElementTree::AggregateElementTree(const AggregateElementTree& source) : SplayTree(1) {
  CopyFromSplayTree(source);
}

const AggregateIndex& AggregateElementTree::Key(AggregateElement* element) {
  return element->key;
}

int AggregateElementTree::Compare(const AggregateIndex& key, AggregateElement* element) {
  return element->key.Compare(key);
}

int AggregateElementTree::SplayKey(const AggregateIndex& key) {
  if (key.position < 0) {
    return SplayBy([&key](AggregateElement* element) { return element->key.Compare(key); });
  }
  const int position = key.position;
  return SplayBy([&key, position](AggregateElement* element) {
    const int other = element->key.position;
    // Sums that wrap can give an element the position of a name.
    if (other == -1) [[unlikely]]
      return element->key.Compare(key);
    return (position > other) - (position < other);
  });
}

AggregateElement* AggregateElementTree::Find(const AggregateIndex& key) {
  return root && SplayKey(key) == 0 ? root->item : nullptr;
}

AggregateElement* AggregateElementTree::Next(const AggregateIndex& key) {
  if (!root) return nullptr;
  if (SplayKey(key) < 0) return root->item;
  Node* node = root->right;
  while (node && node->left) node = node->left;
  return node ? node->item : nullptr;
}

AggregateElement* AggregateElementTree::Previous(const AggregateIndex& key) {
  if (!root) return nullptr;
  if (SplayKey(key) > 0) return root->item;
  Node* node = root->left;
  while (node && node->right) node = node->right;
  return node ? node->item : nullptr;
}

void AggregateElementTree::Insert(AggregateElement* element) {
  InsertAtRoot(element, root ? SplayKey(element->key) : 0);
}

AggregateElement* AggregateElementTree::InsertNew(const AggregateIndex& index) {
  auto element = std::make_unique<AggregateElement>(index);
  Insert(element.get());
  return element.release();
}

AggregateElement* AggregateElementTree::InsertNew(const AggregateIndex& index, Variable* variable) {
  auto element = std::make_unique<AggregateElement>(index, variable);
  Insert(element.get());
  return element.release();
}

void AggregateElementTree::Displace(int from, int delta) {
  if (delta == 0 || !root) return;
  const AggregateIndex first(from);
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

void AggregateElementTree::Listing(std::vector<AggregateElement*>* elements) const {
  // A path from the root is no longer than the tree has elements.
  Node* near[kRecursionLimit];
  std::unique_ptr<Node*[]> far;
  Node** above = near;
  if (Entries() > kRecursionLimit) {
    far.reset(new Node*[static_cast<size_t>(Entries())]);
    above = far.get();
  }
  if (elements->empty()) elements->reserve(static_cast<size_t>(Entries()));
  int depth = 0;
  Node* node = root;
  while (node || depth > 0) {
    for (; node; node = node->left) above[depth++] = node;
    node = above[--depth];
    elements->push_back(node->item);
    node = node->right;
  }
}

void AggregateElementTree::ListingForCopy(std::vector<AggregateElement*>* elements) const {
  if (Entries() <= kRecursionLimit) {
    Listing(elements);
    return;
  }
  std::vector<Node*> pending(1, root);
  while (!pending.empty()) {
    Node* node = pending.back();
    pending.pop_back();
    if (node->left) pending.push_back(node->left);
    if (node->right) pending.push_back(node->right);
    elements->push_back(node->item);
  }
}
