// Arrays and structures: the keys of elements, the elements, and the tree that holds those of one
// variable. To scripts both kinds are one splay tree: an array is sparse, and what searches and
// removals do is what that tree does.

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

  // The name, or the decimal text of the position.
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

  // Adopts a count on the variable.
  AggregateElement(int position, Variable* adopted) : key(position), variable(adopted) {}

  AggregateIndex key;
  Variable* variable;
};

// The elements of one variable, which it owns. All keys are of one kind.
//
// An array whose positions have no gap, from 1 or 0 on, is a row of variables (DenseElements). What
// the row has no answer for makes it the tree for good: a key that leaves a gap, a removal, an
// insertion before others, and whoever asks for an AggregateElement.
class AggregateElementTree : public SplayTree<AggregateElement, const AggregateIndex&> {
 public:
  ZEPH_FREE_LIST_OPERATORS(AggregateElementTree)

  // An element where it stands, by its position and variable.
  struct Place {
    bool there;
    int position;
    Variable* variable;
  };
  // The same of any kind, with the element if it is in a tree.
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
  // Whether this is a row: then all elements have a variable and a position.
  bool IsRow() const { return dense.count() > 0; }
  // Of a row, the variable at a position of 0 or more, or null; a search.
  Variable* SearchRow(int position) { return dense.Find(position); }
  // Of a row, the number that the element is stored as, or its plain variable's; false, and no
  // search, for all else.
  bool ReadNumber(int position, double* number) {
    const DenseSlot* slot = dense.SlotAt(position);
    if (!slot || !NumberIn(*slot, number)) return false;
    dense.Search(position);
    return true;
  }
  // Of a row, stores a number in the element, or in a new one behind the last. False, and nothing
  // done, where that takes more.
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
  // The variable of the member that a search for the name finds at the root, where it changes
  // nothing; else null. Scripts mostly ask for the member that they asked for last, which is there.
  Variable* MemberAtRoot(const char* name, int length) {
    return root && root->item->key.IsSpelled(name, length) ? root->item->variable : nullptr;
  }
  // The element of that name, which is only looked at; a search.
  AggregateElement* FindMember(const char* name, int length);
  // The next greater and the next lesser position. As Next and Previous a search for the position
  // itself.
  Place NextPlace(int position);
  Place PreviousPlace(int position);
  // The least and the greatest position, which are no searches.
  Place FirstPlace();
  Place LastPlace();
  // Inserts a key that is not there, with a new variable, which is answered, or with a count on a
  // given one, which may be null.
  Variable* InsertNew(const AggregateIndex& index);
  void InsertNew(const AggregateIndex& index, Variable* variable);
  // Of a row, puts another variable, with a count on it, at a position that is there.
  void Exchange(int position, Variable* variable);
  // Of a row, removes an element that is the last, or is not there: what a search for it does, and
  // that its variable is released. False, and nothing done, for one before others.
  bool RemoveFromRow(int position);
  // Gives the elements the positions from 1 on and answers their count. Each is found by a search
  // for the position that the one before it has got.
  int Collapse();

  // Appends all elements in the order of their keys. Walks of a whole tree go through this, never
  // through Next: they change nothing, and meet every element.
  void Listing(std::vector<Row>* rows);
  // Visits the variables of all elements, but for those that a row has not made. Allocates nothing.
  // The visit may look at variables alone: while it runs, the tree is not whole.
  template <class Visit>
  void ForEachVariable(Visit visit);
  // Appends them in the order in which a copy inserts them, which decides the shape of its tree.
  void ListingForCopy(std::vector<Row>* rows);
  // Makes this empty tree ready for copies of all elements of the source. They come by InsertCopy
  // in that order, each with a new variable, which is answered.
  void ExpectCopyOf(AggregateElementTree* source);
  Variable* InsertCopy(const Row& source);

  // --- By element ------------------------------------------------------------------------------
  // Those of the base, on the tree; with the comparison in line where scripts use them.
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
  // negative delta larger than the gap lets keys meet.
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

  DenseElements dense;                           // with elements in it, root is null
  AggregateElementTree* next_deleted = nullptr;  // the chain of trees that wait for their deletion
};

// A tree is walked without a stack: it may be as deep as it is large. On the way down to the left
// of a node, the greatest node there gets a right child for a time, which is the way back up.
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

template <typename Number>
inline bool Variable::WriteElement(int position, Number number) {
  return IsPlain() && aggregate == AggregateArray && elements->IsRow() &&
         elements->WriteNumber(position, number);
}

#endif
