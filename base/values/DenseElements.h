// The elements of an array whose positions have no gap, as nearly all arrays of scripts are: a row
// of variables, where an element is found by its index and costs one pointer.
//
// To scripts it is still a splay tree. Each search changes the shape of that tree, but the shape is
// invisible as long as elements are only added, found, walked and replaced: then all results follow
// from the set of positions. Two operations depend on the shape. The removal of an element does,
// and its odd fourth case leaves elements where a search misses them (SplayTree::Remove); and a
// copy of more than 99 elements is inserted in an order that follows the shape. So the row notes
// which positions were searched and in what order, starting from a known shape, and builds the tree
// that a real one would be when an operation needs it. For that:
//
// - Runs. A search of the position that was found last changes nothing, because it is the root.
//   Other searches are noted as runs of neighbours: a loop over an array is one note.
// - Chains. An array filled in order is a chain of left children, with the greatest position at the
//   root. Whatever the shape was, searching all positions in rising order leaves this same chain:
//   once the least position is the root, each next one is the least of the root's right subtree, so
//   the splay links the old root, with the chain below it, as its left child. A falling run over
//   all positions leaves the mirror image. At the end of such a run all earlier notes are dropped.
// - After most_notes of them, as random reads soon make, the row forgets them. It notes nothing
//   more until the shape is needed: then it takes the falling chain, as if the script had just
//   searched all positions in rising order. That is one of the shapes that the tree may have, and
//   which of them it has is not promised. The forgotten shape could only have hidden elements from
//   a search after a later removal; the chain hides none.
// - To answer for the shape, the notes are played on a shape made of numbers, which is quicker than
//   a tree of nodes, and that shape is kept.
//
// A variable is large, and an array of numbers is mostly read and written by position alone. So an
// element that was stored as a number has no variable until a caller needs one.
//
// A copy of a row shares its slots (SlotTable.h) until one of the two is written to or hands out a
// variable. The shape is each row's own.

#ifndef ZEPH_BASE_DENSEELEMENTS_H
#define ZEPH_BASE_DENSEELEMENTS_H

#include <cstddef>
#include <memory>
#include <vector>

#include "base/values/SlotTable.h"

class Variable;

// The shape of a splay tree of the ranks 1, 2, 3 ...: a rank of 0 means no node.
class SplayShape {
 public:
  struct Links {
    int left;
    int right;
  };

  int root() const { return root_; }
  const Links& node(int rank) const { return nodes[static_cast<size_t>(rank)]; }

  // Makes a chain of count ranks. With falling the greatest is the root and all others are left
  // children; otherwise the least is the root and all others are right children.
  void MakeChain(int count, bool falling);
  // Makes an empty tree with room for ranks up to count.
  void Clear(int count);
  // As SplayTree::Splay and SplayTree::Insert; the key of a splay may be any number.
  void Splay(int key);
  void Insert(int rank);
  // As SplayTree::Remove for the greatest rank.
  void RemoveGreatest(int rank);
  // Appends all ranks in the order in which a copy of more than 99 elements inserts them: a node,
  // its right subtree, its left subtree.
  void OrderForCopy(std::vector<int>* ranks) const;

 private:
  std::vector<Links> nodes;  // the first is the header node of Splay
  int root_ = 0;
};

// The row. Holds one count on each of its variables, none of which is null. Belongs to the thread
// of its array. Once a variable of an element was handed out, the element keeps it.
class DenseElements {
 public:
  // Notes that a row keeps before it forgets them. Only a test changes it.
  static inline size_t most_notes = 64;

  DenseElements() = default;
  ~DenseElements() { Drop(); }
  DenseElements(const DenseElements&) = delete;
  DenseElements& operator=(const DenseElements&) = delete;

  int count() const { return count_; }
  int first() const { return base; }
  int last() const { return base + count_ - 1; }

  // The variable at a position of 0 or more, or null; a search. Borrowed.
  Variable* Find(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    if (slot < static_cast<unsigned>(count_)) {
      Touch(static_cast<int>(slot) + 1);
      OwnSlots();
      return SlotTable::VariableOf(&slots[slot]);
    }
    Search(position);
    return nullptr;
  }
  // The same if the element has a variable already and the slots are this row's own; otherwise null
  // and no search.
  Variable* FindMade(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    if (slot >= static_cast<unsigned>(count_) || is_shared || !slots[slot].IsVariable()) {
      return nullptr;
    }
    Touch(static_cast<int>(slot) + 1);
    return slots[slot].variable();
  }
  // The variable at a position, without a search. REQUIRES: the row has the position.
  Variable* Peek(int position) {
    OwnSlots();
    return SlotTable::VariableOf(&slots[position - base]);
  }
  // The same, but null if the element is only a number. REQUIRES: also that IsShared() is false, or
  // that the variable is only looked at.
  Variable* Made(int position) const {
    const DenseSlot& slot = slots[position - base];
    return slot.IsVariable() ? slot.variable() : nullptr;
  }
  // Changes the shape as a search does, without a result. A search for a position beyond an end
  // takes the same path as a search for that end, and leaves the same shape whether its last step
  // links the end or rotates it up.
  void Search(int position) {
    if (count_ == 0) return;
    Touch(position < base ? 1 : position > last() ? count_ : position - base + 1);
  }
  // The slot at a position of 0 or more, or null; no search. It may be shared: OwnSlots() comes
  // before it is written to.
  DenseSlot* SlotAt(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    return slot < static_cast<unsigned>(count_) ? &slots[slot] : nullptr;
  }

  // Makes the slots this row's own. Slots and variables that were found before may have moved.
  void OwnSlots() {
    if (is_shared) [[unlikely]]
      Part();
  }
  // Whether another row has the same slots.
  bool IsShared() const { return is_shared && SlotTable::IsShared(slots); }

  // The same with a search.
  const DenseSlot* SearchSlot(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    if (slot >= static_cast<unsigned>(count_)) return nullptr;
    Touch(static_cast<int>(slot) + 1);
    return There(&slots[slot]);
  }
  // The same to write to; null and no search also if another row may have the slots.
  DenseSlot* SearchOwnSlot(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    if (slot >= static_cast<unsigned>(count_) || is_shared) return nullptr;
    Touch(static_cast<int>(slot) + 1);
    return There(&slots[slot]);
  }

  // Whether an element with that position can be added: the next one, or a first one.
  bool Takes(int position) const { return count_ > 0 ? position == base + count_ : position >= 0; }
  // Adds an element, adopting a count on the variable. The search for the position, which precedes
  // an insertion, is included.
  // REQUIRES: Takes(position).
  void Append(int position, Variable* variable) { Append(position, DenseSlot(variable)); }
  void Append(int position, DenseSlot element) {
    OwnSlots();
    if (count_ == capacity) Grow();
    if (count_ == 0) base = position;
    slots[count_] = element;
    NoteAppend();
    ++count_;
    if (!HasHistory()) chain_count = count_;
    StandAt(count_);
  }
  // Puts another variable at a position, adopting its count. Returns the old one with its count.
  // REQUIRES: the row has the position.
  Variable* Replace(int position, Variable* variable) {
    Variable* old = Peek(position);
    slots[position - base] = DenseSlot(variable);
    return old;
  }
  // Removes the last element and returns its variable with its count. The search for it is
  // included. The new root comes from the left of the last element, so the fourth case of
  // SplayTree::Remove cannot occur.
  [[nodiscard]] Variable* RemoveLast();
  // Renumbers the elements so that the first has that position.
  void MoveTo(int position) { base = position; }

  // The present shape of the tree.
  const SplayShape& Shape() { return UpToDate()->shape; }
  // Appends the ranks in the order in which a copy inserts the elements.
  void OrderForCopy(std::vector<int>* ranks);
  // Gives this empty row as many null variables as the source has elements, and the shape of a copy
  // whose elements are inserted in the source's OrderForCopy. The caller puts the variables in with
  // Replace.
  void BecomeCopyOf(DenseElements* source);
  // Makes this empty row a copy of the source, with its slots. REQUIRES: the source's values are
  // isolated (AggregateElementTree::IsIsolated).
  void ShareWith(DenseElements* source);
  // Gives this row the shape of a copy of the source, which is this row or one with as many
  // elements.
  void TakeShapeOfCopy(DenseElements* source);
  // Forgets all notes: see above.
  void TakeChain() { BecomeChain(true); }

  // Whether there are elements and none has a variable.
  bool HasOnlyNumbers() const;
  // Returns the variables in order, with their counts, and empties the row.
  std::unique_ptr<Variable*[]> TakeVariables();
  // Releases all variables.
  void Drop();

 private:
  friend struct NativeLayout;

  // Searches of the ranks from first to last, upward or downward. A negative first means that
  // elements of the ranks -first to last were added.
  struct Run {
    int first;
    int last;
  };
  static constexpr int Nowhere = -2;
  static constexpr size_t kFirstNotes = 16;  // that there is room for

  struct History {
    std::vector<Run> runs;  // since the shape or the chain was made
    SplayShape shape;
    bool shaped = false;  // the runs follow the shape, else the chain
  };

  // Tells the compiler that a slot is there, so that a caller's test for null costs nothing.
  static DenseSlot* There(DenseSlot* slot) {
    if (!slot) __builtin_unreachable();
    return slot;
  }
  // Notes a search of that rank. REQUIRES: the rank is in the row.
  void Touch(int rank) {
    if (rank == top || forgetful) return;
    if (rank == expected && rank != goal) {
      top = rank;
      expected = rank + step;
      return;
    }
    TouchElsewhere(rank);
  }
  // Sets the root to that rank with no run open, because the change is noted already or needs no
  // note.
  void StandAt(int rank) {
    top = run_first = rank;
    expected = goal = Nowhere;
    step = 0;
    unnoted = false;
  }
  // An append to a falling chain leaves a falling chain, so it needs no note: this is the case of
  // an array that is filled in order.
  void NoteAppend() {
    if (!IsChain() || top != count_ || !falling) NoteAppendInHistory();
  }
  bool HasHistory() const { return history && (!history->runs.empty() || history->shaped); }
  // The tree is exactly the chain: no later search is noted or waits to be noted.
  bool IsChain() const { return !HasHistory() && run_first == top && !unnoted; }
  void ForgetHistory();
  void TouchElsewhere(int rank);
  void StartRun(int rank);
  void BecomeChain(bool is_falling);
  void NoteAppendInHistory();
  // These two return false if they have forgotten all notes instead; the greatest rank is the root
  // then.
  bool CloseRun();
  bool Note(int run_from, int run_to);
  void PlayNotes();
  History* UpToDate();
  void Grow();
  void Part();

  DenseSlot* slots = nullptr;
  int count_ = 0;
  int base = 1;            // position of the first element
  int top = 0;             // rank at the root
  int expected = Nowhere;  // the rank that continues the run
  int goal = Nowhere;      // the rank at which the run has covered the row
  int step = 0;            // of the run: 1, -1, or 0 while it has one rank
  int run_first = 0;       // first rank of the run; the last is top
  int capacity = 0;
  int chain_count = 0;  // number of elements in the chain, or in the shape
  bool falling = true;  // which chain it is
  // No search is noted: the shape will be the falling chain. Set after most_notes until the shape
  // has been needed.
  bool forgetful = false;
  bool unnoted = false;    // the run is one rank, and its search changed the shape
  bool is_shared = false;  // another row may have the slots
  std::unique_ptr<History> history;
};

#endif
