// Arrays and structures: the keys of elements, the elements, and the tree that holds those of one
// variable. Both kinds are one splay tree, so an array is sparse and the element touched last is
// found at once.

#ifndef ZEPH_BASE_AGGREGATE_H
#define ZEPH_BASE_AGGREGATE_H

#include <cstring>
#include <vector>

#include "base/BaseTemplates.h"
#include "base/FreeList.h"
#include "base/StringClass.h"
#include "base/Variable.h"
#include "base/memcmpi.h"

// Key of an element: the position in an array, or the name of a structure's member. Names that
// differ only in case are one key. The order of the fields is stated and stays.
class AggregateIndex {
 public:
  String key;    // name of a member; for a position empty until its decimal text is asked for
  int position;  // -1 for the name of a member
  String serialized_text;  // what serialized() has made

  AggregateIndex() : position(-1) {}
  AggregateIndex(const String& name) : key(name), position(-1) {}
  AggregateIndex(const char* name, int length) : key(name, length), position(-1) {}
  // A negative position becomes 0. That positions of scripts start at 1 is their callers' rule.
  AggregateIndex(int number) : position(number < 0 ? 0 : number) {}
  AggregateIndex(const AggregateIndex& other) : position(other.position) {
    if (other.key.data) key = other.key;
  }
  AggregateIndex(AggregateIndex&&) noexcept = default;
  AggregateIndex& operator=(const AggregateIndex&) = delete;

  // The kind of aggregate that the key asks for.
  AggregateType kind() const { return position >= 0 ? AggregateArray : AggregateStructure; }

  // Positive when other sorts behind this key, negative when before, 0 for the same key.
  int Compare(const AggregateIndex& other) const {
    if (position != -1) {
      return position == other.position ? 0 : position > other.position ? -1 : 1;
    }
    return CompareNames(other);
  }

  // The name, or the decimal text of the position.
  operator String&();
  // ":name" or "[position]", as paths are written; empty for an empty name.
  String& serialized();

 private:
  int CompareNames(const AggregateIndex& other) const {
    const int common = key.length < other.key.length ? key.length : other.key.length;
    const int order = common > 0 ? memcmpi(other.key.data, key.data, common) : 0;
    return order != 0 ? order : other.key.length - key.length;
  }
};

// One element: its key and its variable, on which it holds a count.
class AggregateElement {
 public:
  ZEPH_FREE_LIST_OPERATORS(AggregateElement)

  // Makes a new NULL variable without a name.
  explicit AggregateElement(const AggregateIndex& index);
  // Takes a count on the variable, which may be null.
  AggregateElement(const AggregateIndex& index, Variable* variable);
  // Gets a new variable with a deep copy of the value.
  AggregateElement(const AggregateElement& source);
  AggregateElement& operator=(const AggregateElement&) = delete;
  virtual ~AggregateElement();

  // The key, to be changed only by what keeps the order of the tree.
  virtual AggregateIndex& index() { return key; }
  virtual Variable* var() { return variable; }
  // Takes a count on the new variable, then releases the old one.
  virtual void SetVariable(Variable* replacement);
  // Gives the element another position. The caller keeps the order of the tree.
  void Renumber(int position);

 private:
  friend class AggregateElementTree;

  AggregateIndex key;
  Variable* variable;
};

// The elements of one variable, which it owns. All keys are of one kind.
class AggregateElementTree : public SplayTree<AggregateElement, const AggregateIndex&> {
 public:
  AggregateElementTree();
  // Copies the elements, each with a deep copy of its value.
  AggregateElementTree(const AggregateElementTree& source);

  // Those of the base with the comparison in line: they are what scripts do with arrays.
  AggregateElement* Find(const AggregateIndex& key) override;
  AggregateElement* Next(const AggregateIndex& key) override;
  AggregateElement* Previous(const AggregateIndex& key) override;
  void Insert(AggregateElement* element) override;

  // Inserts a new element for a key that is not there, with a new variable or sharing a given one,
  // and answers it.
  AggregateElement* InsertNew(const AggregateIndex& index);
  AggregateElement* InsertNew(const AggregateIndex& index, Variable* variable);

  // Adds delta to all positions from the given one on. The order stays, so nothing is rebalanced; a
  // negative delta larger than the gap lets keys meet.
  virtual void Displace(int from, int delta);
  virtual void DisplaceRecurse(int delta, SplayTreeNode<AggregateElement>* node);
  virtual void DisplaceStack(int delta, SplayTreeNode<AggregateElement>* node);

  // Appends all elements in the order of their keys. Walks of a whole tree go through this, never
  // through Next: they change nothing, and meet every element.
  void Listing(std::vector<AggregateElement*>* elements) const;
  // Appends them in the order in which a copy inserts them, which decides the shape of its tree.
  void ListingForCopy(std::vector<AggregateElement*>* elements) const;

 protected:
  const AggregateIndex& Key(AggregateElement* element) override;
  int Compare(const AggregateIndex& key, AggregateElement* element) override;

 private:
  friend class Variable;

  int SplayKey(const AggregateIndex& key);

  AggregateElementTree* next_deleted = nullptr;  // the chain of trees that wait for their deletion
};

#endif
