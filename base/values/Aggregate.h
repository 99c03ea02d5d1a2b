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
#include "base/values/FlatMembers.h"
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
// An array whose positions have no gap is a row of variables (DenseElements), and a structure of up
// to 99 members is a layout of names with a table of variables (FlatMembers).
// An operation that these do not support turns them into the tree for good: a key that leaves a
// gap, removing an element that is not the last, inserting before others, removing a member, and
// any access to an AggregateElement.
class AggregateElementTree : public SplayTree<AggregateElement, const AggregateIndex&> {
 public:
  ZEPH_FREE_LIST_OPERATORS(AggregateElementTree)

  // An element by its position and variable.
  struct Place {
    bool there;
    int position;
    Variable* variable;
  };
  // An element of an array or a structure. In a row element is null; in flat members too, and then
  // name is that of the member and position its slot.
  struct Row {
    AggregateElement* element;
    int position;
    Variable* variable;
    SharedName* name = nullptr;
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
  Variable* SearchRow(int position) {
    is_isolated = false;
    return dense.Find(position);
  }
  // The value of an element of a row, by a search; null and no search for others.
  const DenseSlot* SearchSlot(int position) { return dense.SearchSlot(position); }
  // The variable of an element of a row, by a search, if it has one already and the caller may
  // write to it; otherwise null and no search.
  Variable* SearchMade(int position) {
    is_isolated = false;
    return dense.FindMade(position);
  }
  // The value of an element of a row, by a search, to write to it; null and no search for others,
  // and where a copy has the same slots.
  DenseSlot* SearchOwnSlot(int position) { return dense.SearchOwnSlot(position); }
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
      return AppendNumber(position - dense.first(), DenseSlot(number));
    }
    if (slot->IsVariable() && !slot->variable()->IsPlain()) return false;
    dense.Search(position);
    dense.OwnSlots();
    slot = dense.SlotAt(position);
    if (!slot->IsVariable()) {
      *slot = DenseSlot(number);
    } else if constexpr (std::is_same_v<Number, int>) {
      slot->variable()->Write_Integer(number);
    } else {
      slot->variable()->Write_Double(number);
    }
    return true;
  }
  // Adds a number to a row, at a place that is counted from the first element. Returns false and
  // does nothing if the row does not end there, or has no elements.
  bool AppendNumber(int place, DenseSlot number) {
    if (place != dense.count() || place == 0) return false;
    const int position = dense.first() + place;
    dense.Search(position);
    dense.Append(position, number);
    entries = dense.count();
    return true;
  }
  // Whether this is a row whose first element is only an integer.
  bool BeginsWithInteger() {
    const DenseSlot* const slot = IsRow() ? dense.SlotAt(dense.first()) : nullptr;
    return slot && slot->IsInteger();
  }
  // The variable of the member with that name, by a search. If there is none: null, or with create
  // a new NULL variable, which is inserted. The name is borrowed for the call; the hint may be
  // null. Whoever keeps the variable takes a count. REQUIRES: the tree has no positions.
  Variable* Member(const char* name, int length, int create, MemberHint* hint);
  // Makes a given variable, which may be null, the member of that name, with a count on it.
  // REQUIRES: as above.
  void SetMember(const char* name, int length, Variable* variable);
  // Makes a given variable a new member of that name and adopts the caller's count on it. Returns
  // false and does nothing if there is such a member, or the members are not flat. If it throws,
  // the count is still the caller's. REQUIRES: as above.
  bool AdoptMember(const char* name, int length, Variable* variable);
  // Finds a member that is only a number, by a search: one without a variable, or with a plain one
  // that has the number it was stored as and no other form. Returns false and makes no search for
  // others.
  bool FindNumberMember(const char* name, int length, MemberHint* hint, DenseSlot* found);
  // The member that a hint has, by a search, to read; null and no search if the hint is out of
  // date.
  const DenseSlot* SearchMember(const MemberHint& hint) { return members.Search(hint); }
  // The same to write to it; null and no search also if a copy has the same slots.
  DenseSlot* SearchOwnMember(const MemberHint& hint) { return members.SearchOwn(hint); }
  // Stores a number in a member, which is inserted if it is missing; a search. Returns false and
  // does nothing where that takes more work. REQUIRES: as above.
  template <typename Number>
  bool WriteMember(const char* name, int length, MemberHint* hint, Number number) {
    if (!DenseSlot::Takes(number)) return false;
    if (DenseSlot* const slot = members.SearchOwn(*hint)) [[likely]] {
      if (slot->Overwrite(number)) [[likely]]
        return true;
    }
    return WriteSlot(name, length, hint, DenseSlot(number));
  }
  // The elements with the next greater and the next lesser position. Like Next and Previous, they
  // search for the position itself.
  Place NextPlace(int position);
  Place PreviousPlace(int position);
  // The same, but only the position, 0 if there is none.
  int NextPosition(int position);
  int PreviousPosition(int position);
  // The least and the greatest position, without a search; 0 if the tree is empty, -1 if it has
  // members.
  int FirstPosition();
  int LastPosition();
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
  // Visits the variables of all elements, except those that are not made yet, and those that a copy
  // shares, which hold nothing that others hold. Allocates nothing.
  // The visit may look at variables only: while it runs, the tree's links are altered.
  template <class Visit>
  void ForEachVariable(Visit visit);
  // Appends all elements in the order in which a copy inserts them. That order decides the shape of
  // the copy's tree.
  void ListingForCopy(std::vector<Row>* rows);
  // Prepares this empty tree for copies of all elements of the source. The caller then calls
  // InsertCopy for each row in the order of ListingForCopy; it makes a new variable and returns it,
  // borrowed. With apart, the copy shares no memory with the source, and may go to another thread.
  void ExpectCopyOf(AggregateElementTree* source, bool apart);
  Variable* InsertCopy(const Row& source);
  // Makes this empty tree the copy of a row that has only numbers, and shares nothing with it.
  // Returns false and does nothing for others.
  bool CopyNumbers(AggregateElementTree* source);

  // --- Isolation -------------------------------------------------------------------------------
  // Whether nothing but this tree, and the trees within it, can see the variables of its elements:
  // each is plain, has no other holder and is lent to no one. Then nothing can tell whether a copy
  // of the value has the same variables or new ones. To the values it does what making a copy does:
  // a NULL element becomes an empty text. The shape of the trees within becomes that of a copy.
  // Returns false for elements that are a real tree, and for very deep ones.
  //
  // A result of true is remembered until a variable is handed out. So a value that grows by being
  // returned and made part of a larger one is not looked at again and again.
  bool IsIsolated() { return IsIsolated(kMostNested); }
  // Notes that a variable was lent without a count, to a library for example, which may use it as
  // long as it is an element. The tree is not isolated any more.
  void Expose() {
    is_exposed = true;
    is_isolated = false;
  }
  // Returns a new tree, the caller's, that is a copy of this one and shares its slots.
  // REQUIRES: IsIsolated().
  [[nodiscard]] AggregateElementTree* ShareCopy();
  // Makes this a copy of the members of another tree, which replace its own, and shares their
  // slots. Returns false and does nothing if either is no flat members, or a caller may have this
  // tree. REQUIRES: source->IsIsolated().
  bool BecomeShareOf(AggregateElementTree* source);
  // Gives a row or flat members the shape that a copy of them would have.
  void TakeShapeOfCopy();

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
  friend struct NativeLayout;
  friend class Variable;
  friend class VariableCycles;

  // Values that are nested deeper than this are copied, not shared.
  static constexpr int kMostNested = 64;

  AggregateElement* FindMember(const char* name, int length);
  bool IsIsolated(int nested);
  bool AreIsolated(const DenseSlot* slots, int count, int nested);
  void TakeChain();
  bool WriteSlot(const char* name, int length, MemberHint* hint, DenseSlot value);
  void RowBecomesTree();
  void MembersBecomeTree();
  // Whether members are flat, or would be if there were any. REQUIRES: the tree has no positions.
  bool IsFlat() const { return !root; }

  bool IsEmpty() const { return Entries() == 0; }
  bool TakesDense(const AggregateIndex& index) const {
    return !root && index.position >= 0 && dense.Takes(index.position);
  }
  void AppendDense(int position, Variable* variable);
  void BecomeTree() {
    if (dense.count() > 0) {
      RowBecomesTree();
    } else if (!members.IsEmpty()) {
      MembersBecomeTree();
    }
  }
  int SplayKey(const AggregateIndex& key);
  static Place PlaceOf(AggregateElement* element);
  static AggregateElement* LeastOf(Node* node);

  DenseElements dense;                           // if it has elements, root is null
  FlatMembers members;                           // if there are any, root is null and dense empty
  bool is_isolated = false;                      // IsIsolated() has found so
  bool is_exposed = false;                       // see Expose()
  AggregateElementTree* next_deleted = nullptr;  // next in the list of trees that wait for deletion
};

// Walks a tree without a stack, because it may be as deep as it has elements. On the way down to
// the left of a node, the greatest node there temporarily gets that node as its right child, which
// is the way back up.
template <class Visit>
void AggregateElementTree::ForEachVariable(Visit visit) {
  for (int i = dense.IsShared() ? dense.count() : 0; i < dense.count(); i++) {
    if (Variable* const variable = dense.Made(dense.first() + i)) visit(variable);
  }
  for (int i = members.IsShared() ? members.count() : 0; i < members.count(); i++) {
    if (members.at(i).IsVariable()) visit(members.at(i).variable());
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

inline bool DenseSlot::Overwrite(int number) {
  if (IsVariable()) {
    if (!variable()->HoldsInteger()) return false;
    variable()->Rewrite(number);
  } else {
    *this = DenseSlot(number);
  }
  return true;
}

inline bool DenseSlot::Overwrite(double number) {
  if (IsVariable()) {
    if (!variable()->HoldsDouble()) return false;
    variable()->Rewrite(number);
    return true;
  }
  if (!Takes(number)) [[unlikely]]
    return false;
  *this = DenseSlot(number);
  return true;
}

inline Variable* Variable::Member(const char* name, int length, int create, MemberHint* hint) {
  if (IsPlain() && aggregate == AggregateStructure) [[likely]] {
    return elements->Member(name, length, create, hint);
  }
  return SearchMember(name, length, create);
}

inline bool Variable::FindNumberMember(const char* name, int length, MemberHint* hint,
                                       DenseSlot* slot) {
  return IsPlain() && aggregate == AggregateStructure &&
         elements->FindNumberMember(name, length, hint, slot);
}

template <typename Number>
inline bool Variable::WriteMember(const char* name, int length, MemberHint* hint, Number number) {
  if (!IsPlain()) return false;
  if (aggregate == AggregateNone) Convert_Aggregate(AggregateStructure);
  return aggregate == AggregateStructure && elements->WriteMember(name, length, hint, number);
}

inline const DenseSlot* Variable::SearchSlot(int position) {
  if (!IsPlain() || aggregate != AggregateArray) return nullptr;
  return elements->SearchSlot(position);
}

inline Variable* Variable::SearchMade(int position) {
  if (!IsPlain() || aggregate != AggregateArray) return nullptr;
  return elements->SearchMade(position);
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
