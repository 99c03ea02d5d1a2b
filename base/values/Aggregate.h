// Arrays and structures: the keys of elements, the elements, and the tree that holds the elements
// of one variable. To scripts both kinds are one splay tree: an array is sparse, and the results of
// searches and removals are those of that tree.

#ifndef ZEPH_BASE_AGGREGATE_H
#define ZEPH_BASE_AGGREGATE_H

#include <cstring>
#include <type_traits>
#include <vector>

#include "base/core/BaseTemplates.h"
#include "base/core/FreeList.h"
#include "base/core/SameBytes.h"
#include "base/core/StringClass.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/values/DenseElements.h"
#include "base/values/Variable.h"

// Key of an element: the position in an array, or the name of a structure's member. Names that
// differ only in case are one key. The order of the fields must not change.
class AggregateIndex {
 public:
  String key;              // name of a member; for a position, empty until its decimal text is read
  int position;            // -1 for the name of a member
  String serialized_text;  // cache of serialized()

  AggregateIndex() : position(-1) {}
  AggregateIndex(const String& name) : key(name), position(-1) {}
  AggregateIndex(const char* name, int length) : key(name, length), position(-1) {}
  // A negative position becomes 0. Callers enforce that positions in scripts start at 1.
  AggregateIndex(int number) : position(number < 0 ? 0 : number) {}
  AggregateIndex(const AggregateIndex& other) : position(other.position) {
    if (other.key.data) key = other.key;
  }
  AggregateIndex(AggregateIndex&&) noexcept = default;
  AggregateIndex& operator=(const AggregateIndex&) = delete;

  // The kind of aggregate that has such keys.
  AggregateType kind() const { return position >= 0 ? AggregateArray : AggregateStructure; }

  // Positive if other sorts after this key, negative if before it, 0 for the same key.
  int Compare(const AggregateIndex& other) const {
    if (position != -1) {
      return position == other.position ? 0 : position > other.position ? -1 : 1;
    }
    return CompareWithName(other.key.data, other.key.length);
  }

  // The same for the name of a member.
  int CompareWithName(const char* name, int length) const {
    if (position != -1) return position > -1 ? -1 : 1;
    const int common = key.length < length ? key.length : length;
    if (common > 0) {
      // Names mostly differ in their first letter.
      const int first = zp_tolower(static_cast<unsigned char>(name[0])) -
                        zp_tolower(static_cast<unsigned char>(key.data[0]));
      if (first != 0) return first;
      const int order = memcmpi(name, key.data, static_cast<size_t>(common));
      if (order != 0) return order;
    }
    return length - key.length;
  }

  // Whether this is the name of a member in exactly that spelling.
  bool IsSpelled(const char* name, int length) const {
    return key.length == length && position == -1 &&
           (length <= 0 || SameBytes(key.data, name, static_cast<size_t>(length)));
  }

  // The name, or the decimal text of the position. The String belongs to the key.
  operator String&();
  // ":name" or "[position]", as paths are written; empty for an empty name.
  String& serialized();
};

// One element: its key and its variable, on which it holds a count.
class AggregateElement {
 public:
  ZEPH_FREE_LIST_OPERATORS(AggregateElement)

  // Makes a new NULL variable without a name.
  explicit AggregateElement(const AggregateIndex& index);
  // Takes a count on the shared variable, which may be null.
  AggregateElement(const AggregateIndex& index, Variable* shared);
  // Makes a new variable with a deep copy of the value.
  AggregateElement(const AggregateElement& source);
  AggregateElement& operator=(const AggregateElement&) = delete;
  virtual ~AggregateElement();

  // The key. Only code that keeps the order of the tree may change it.
  virtual AggregateIndex& index() { return key; }
  virtual Variable* var() { return variable; }
  // Takes a count on the new variable, then releases the old one.
  virtual void SetVariable(Variable* replacement);
  // Gives the element another position. REQUIRES: the order in the tree stays the same.
  void Renumber(int position);

 private:
  friend class AggregateElementTree;

  // Adopts a count on the variable.
  AggregateElement(int position, Variable* adopted) : key(position), variable(adopted) {}

  AggregateIndex key;
  Variable* variable;
};

// The elements of one variable, which owns them. All keys are of one kind.
//
// An array whose positions have no gap is a row of variables (DenseElements).
// An operation that the row does not support turns it into the tree for good: a key that leaves a
// gap, removing an element that is not the last, inserting before others, and any access to an
// AggregateElement.
class AggregateElementTree : public SplayTree<AggregateElement, const AggregateIndex&> {
 public:
  ZEPH_FREE_LIST_OPERATORS(AggregateElementTree)

  // An element by its position and variable.
  struct Place {
    bool there;
    int position;
    Variable* variable;
  };
  // An element of an array or a structure; element is null if it is in a row.
  struct Row {
    AggregateElement* element;
    int position;
    Variable* variable;
  };

  AggregateElementTree();
  // Copies the elements, each with a deep copy of its value.
  AggregateElementTree(const AggregateElementTree& source);
  ~AggregateElementTree() override;

  // --- By variable -----------------------------------------------------------------------------
  // Whether this is a row. Then every element has a position, and a variable that is made when it
  // is read.
  bool IsRow() const { return dense.count() > 0; }
  // The variable at that position, or null; a search. REQUIRES: IsRow(), and position is 0 or more.
  Variable* SearchRow(int position) { return dense.Find(position); }
  // Reads a number of a row by a search: the number in the element's slot, or that of its variable
  // if it is plain and has no text to convert. Returns false and makes no search in all other
  // cases; *number is then undefined.
  bool ReadNumber(int position, double* number) {
    const DenseSlot* slot = dense.SlotAt(position);
    if (!slot || !NumberIn(*slot, number)) return false;
    dense.Search(position);
    return true;
  }
  // Finds an element of a row that is only a number, by a search. Returns false and makes no search
  // for others.
  bool FindBare(int position, DenseSlot* found) {
    const DenseSlot* slot = dense.SlotAt(position);
    if (!slot || slot->IsVariable()) return false;
    *found = *slot;
    dense.Search(position);
    return true;
  }
  // Stores a number in an element of a row, or in a new one after the last. Returns false and does
  // nothing where that takes more work.
  template <typename Number>
  bool WriteNumber(int position, Number number) {
    if (!DenseSlot::Takes(number)) return false;
    DenseSlot* slot = dense.SlotAt(position);
    if (!slot) {
      if (position != dense.last() + 1) return false;
      dense.Search(position);
      dense.Append(position, DenseSlot(number));
      entries = dense.count();
      return true;
    }
    if (slot->IsVariable() && !slot->variable()->IsPlain()) return false;
    dense.Search(position);
    if (!slot->IsVariable()) {
      *slot = DenseSlot(number);
    } else if constexpr (std::is_same_v<Number, int>) {
      slot->variable()->Write_Integer(number);
    } else {
      slot->variable()->Write_Double(number);
    }
    return true;
  }
  // The variable of the root if a search for that name would end there without changing the tree;
  // else null. Scripts mostly use the same member as the last time, and that is the root.
  Variable* MemberAtRoot(const char* name, int length) {
    return root && root->item->key.IsSpelled(name, length) ? root->item->variable : nullptr;
  }
  // The element with that name, or null; a search. The name is borrowed for the call.
  AggregateElement* FindMember(const char* name, int length);
  // The elements with the next greater and the next lesser position. Like Next and Previous, they
  // search for the position itself.
  Place NextPlace(int position);
  Place PreviousPlace(int position);
  // The elements with the least and the greatest position, without a search.
  Place FirstPlace();
  Place LastPlace();
  // Insert a key: the first with a new variable, which it returns, borrowed; the second with a
  // given variable, which may be null, and takes a count on it.
  // REQUIRES: the key is not in the tree.
  Variable* InsertNew(const AggregateIndex& index);
  void InsertNew(const AggregateIndex& index, Variable* variable);
  // Puts another variable, with a count on it, at a position of a row.
  // REQUIRES: the row has the position.
  void Exchange(int position, Variable* variable);
  // Removes an element of a row if it is the last, and releases its variable. If there is none at
  // the position, only does what a search for it does. Returns false and does nothing if other
  // elements follow it.
  bool RemoveFromRow(int position);
  // Renumbers the elements from 1 on and returns their number. Each is found by a search for the
  // position that the element before it was given.
  int Collapse();

  // Appends all elements in the order of their keys. Walks of a whole tree use this and never Next:
  // it does not change the tree's shape, and it reaches every element.
  void Listing(std::vector<Row>* rows);
  // Visits the variables of all elements, except those that a row has not made. Allocates nothing.
  // The visit may look at variables only: while it runs, the tree's links are altered.
  template <class Visit>
  void ForEachVariable(Visit visit);
  // Appends all elements in the order in which a copy inserts them. That order decides the shape of
  // the copy's tree.
  void ListingForCopy(std::vector<Row>* rows);
  // Prepares this empty tree for copies of all elements of the source. The caller then calls
  // InsertCopy for each row in the order of ListingForCopy; it makes a new variable and returns it,
  // borrowed.
  void ExpectCopyOf(AggregateElementTree* source);
  Variable* InsertCopy(const Row& source);
  // Makes this empty tree the copy of a row that has only numbers. Returns false and does nothing
  // for others.
  bool CopyNumbers(AggregateElementTree* source);

  // --- By element ------------------------------------------------------------------------------
  // The operations of the base class, on the tree; where scripts use them, the comparison is
  // inline.
  AggregateElement* Find(const AggregateIndex& key) override;
  AggregateElement* Next(const AggregateIndex& key) override;
  AggregateElement* Previous(const AggregateIndex& key) override;
  AggregateElement* First() override;
  AggregateElement* Last() override;
  void Insert(AggregateElement* element) override;
  AggregateElement* Remove(const AggregateIndex& key) override;
  void Dump() override;
  void AppendToList(List<AggregateElement>& list);
  void Listing(std::vector<AggregateElement*>* elements);

  // Adds delta to all positions from the given one on. The order stays, so nothing is rebalanced; a
  // negative delta larger than the gap can give two elements the same key.
  virtual void Displace(int from, int delta);
  virtual void DisplaceRecurse(int delta, SplayTreeNode<AggregateElement>* node);
  virtual void DisplaceStack(int delta, SplayTreeNode<AggregateElement>* node);

 protected:
  const AggregateIndex& Key(AggregateElement* element) override;
  int Compare(const AggregateIndex& key, AggregateElement* element) override;

 private:
  friend class Variable;
  friend class VariableCycles;

  static bool NumberIn(const DenseSlot& slot, double* number) {
    if (slot.IsVariable()) {
      const unsigned forms = slot.variable()->plain_forms();
      if (forms & Variable::DoubleForm) {
        *number = slot.variable()->plain_double();
        return true;
      }
      *number = slot.variable()->plain_integer();
      return forms == Variable::IntegerForm;
    }
    *number = slot.IsInteger() ? slot.integer() : slot.number();
    return true;
  }
  bool IsEmpty() const { return Entries() == 0; }
  bool TakesDense(const AggregateIndex& index) const {
    return !root && index.position >= 0 && dense.Takes(index.position);
  }
  void AppendDense(int position, Variable* variable);
  void BecomeTree();
  int SplayKey(const AggregateIndex& key);
  static Place PlaceOf(AggregateElement* element);
  static AggregateElement* LeastOf(Node* node);

  DenseElements dense;                           // if it has elements, root is null
  AggregateElementTree* next_deleted = nullptr;  // next in the list of trees that wait for deletion
};

// Walks a tree without a stack, because it may be as deep as it has elements. On the way down to
// the left of a node, the greatest node there temporarily gets that node as its right child, which
// is the way back up.
template <class Visit>
void AggregateElementTree::ForEachVariable(Visit visit) {
  for (int i = 0; i < dense.count(); i++) {
    if (Variable* const variable = dense.Made(dense.first() + i)) visit(variable);
  }
  for (Node* node = root; node;) {
    if (node->left) {
      Node* greatest = node->left;
      while (greatest->right && greatest->right != node) greatest = greatest->right;
      if (!greatest->right) {
        greatest->right = node;
        node = node->left;
        continue;
      }
      greatest->right = nullptr;
    }
    if (node->item->variable) visit(node->item->variable);
    node = node->right;
  }
}

inline Variable* Variable::Member(const char* name, int length, int create) {
  if (IsPlain() && aggregate == AggregateStructure) [[likely]] {
    Variable* const found = elements->MemberAtRoot(name, length);
    if (found) [[likely]]
      return found;
  }
  return SearchMember(name, length, create);
}

inline bool Variable::ReadElement(int position, double* number) {
  return IsPlain() && aggregate == AggregateArray && elements->IsRow() &&
         elements->ReadNumber(position, number);
}

inline bool Variable::FindBare(int position, DenseSlot* slot) {
  return IsPlain() && aggregate == AggregateArray && elements->IsRow() &&
         elements->FindBare(position, slot);
}

template <typename Number>
inline bool Variable::WriteElement(int position, Number number) {
  return IsPlain() && aggregate == AggregateArray && elements->IsRow() &&
         elements->WriteNumber(position, number);
}

#endif
