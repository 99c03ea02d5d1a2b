// The elements of an array whose positions have no gap, as nearly all arrays of scripts are: a row
// of variables, where an element is found at once and costs one pointer.
//
// What scripts see is a splay tree all the same. Of the shape of that tree, which each search
// changes, nothing shows as long as elements are only added, found, walked and replaced: then all
// answers follow from the set of positions. But the removal of an element goes by the shape, and
// its odd fourth case leaves elements where a search misses them (SplayTree::Remove); and a copy of
// more than 99 elements is inserted in an order that is the shape's. So the row notes which
// positions were searched and in what order, from a shape that is known, and makes the tree that
// would stand here when one is asked for. For that:
//
//   - Runs. A search of the position that was found last changes nothing, since it is the root.
//     Other searches are noted as runs of neighbours: a loop over an array is one note.
//   - Chains. An array filled in order is a chain of left children, the greatest position at the
//     root. Whatever the shape was, searching all positions in rising order leaves this same chain:
//     once the least position is the root, each next one is the least of the root's right subtree,
//     so the splay links the old root, with the chain below it, as its left child. A falling run
//     over all positions leaves the mirror image. At the end of such a run all notes before it are
//     void.
//   - When there are too many notes, they are played through on a shape made of numbers, which is
//     quicker than a tree of nodes, and kept as such.
//
// A variable is large, and an array of numbers mostly is read and written by position alone. So an
// element that was stored as a number has no variable until somebody asks for it.

#ifndef ZEPH_BASE_DENSEELEMENTS_H
#define ZEPH_BASE_DENSEELEMENTS_H

#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

class Variable;

// What a row has for an element: a variable, or the number alone that would be its value. A word of
// 64 bits tells them apart: addresses are small numbers, the bits of a double that is no NaN get an
// offset beyond all of these, and an integer stands in the lower half, below the largest tag.
class DenseSlot {
 public:
  DenseSlot() = default;
  explicit DenseSlot(Variable* variable) : word(reinterpret_cast<uintptr_t>(variable)) {}
  explicit DenseSlot(int number) : word(IntegerTag | static_cast<uint32_t>(number)) {}
  explicit DenseSlot(double number) : word(std::bit_cast<uint64_t>(number) + DoubleOffset) {}
  // Whether a slot can have that number.
  static bool Takes(int) { return true; }
  static bool Takes(double number) { return !std::isnan(number); }

  bool IsVariable() const { return word < DoubleOffset; }
  bool IsInteger() const { return word >= IntegerTag; }
  Variable* variable() const { return reinterpret_cast<Variable*>(word); }
  int integer() const { return static_cast<int>(static_cast<uint32_t>(word)); }
  double number() const { return std::bit_cast<double>(word - DoubleOffset); }

 private:
  static constexpr uint64_t DoubleOffset = uint64_t{1} << 49;
  static constexpr uint64_t IntegerTag = uint64_t{0xFFFE} << 48;
  uint64_t word = 0;
};

// The shape of a splay tree of the ranks 1, 2, 3 ...: a rank of 0 stands for no node.
class SplayShape {
 public:
  struct Links {
    int left;
    int right;
  };

  int root() const { return root_; }
  const Links& node(int rank) const { return nodes[static_cast<size_t>(rank)]; }

  // A chain of so many ranks: with falling, the greatest is the root and all others are left
  // children, else the least and right children.
  void MakeChain(int count, bool falling);
  // An empty tree with room for ranks up to count.
  void Clear(int count);
  // As SplayTree::Splay and SplayTree::Insert; the key of a splay may be any number.
  void Splay(int key);
  void Insert(int rank);
  // As SplayTree::Remove for the greatest rank.
  void RemoveGreatest(int rank);
  // All ranks in the order in which a copy of more than 99 elements inserts them: a node, what is
  // right of it, what is left of it.
  void OrderForCopy(std::vector<int>* ranks) const;

 private:
  std::vector<Links> nodes;  // the first one is the splay's header
  int root_ = 0;
};

// The row. Holds one count on each of its variables, none of which is null. Belongs to the thread
// of its array. Whoever is given a variable finds the same one there from then on.
class DenseElements {
 public:
  DenseElements() = default;
  ~DenseElements() { Drop(); }
  DenseElements(const DenseElements&) = delete;
  DenseElements& operator=(const DenseElements&) = delete;

  int count() const { return count_; }
  int first() const { return base; }
  int last() const { return base + count_ - 1; }

  // The variable at a position of 0 or more, or null; a search.
  Variable* Find(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    if (slot < static_cast<unsigned>(count_)) {
      Touch(static_cast<int>(slot) + 1);
      return VariableOf(&slots[slot]);
    }
    Search(position);
    return nullptr;
  }
  // The variable at one of the positions, without a search.
  Variable* Peek(int position) { return VariableOf(&slots[position - base]); }
  // The same, but null where there is only a number.
  Variable* Made(int position) const {
    const DenseSlot& slot = slots[position - base];
    return slot.IsVariable() ? slot.variable() : nullptr;
  }
  // What a search does to the shape, without its answer. The way to a position beyond an end is the
  // way to that end, and the last step comes to the same whether it links the end or turns it up.
  void Search(int position) {
    if (count_ == 0) return;
    Touch(position < base ? 1 : position > last() ? count_ : position - base + 1);
  }
  // What stands at a position of 0 or more, or null; no search.
  DenseSlot* SlotAt(int position) {
    const unsigned slot = static_cast<unsigned>(position) - static_cast<unsigned>(base);
    return slot < static_cast<unsigned>(count_) ? &slots[slot] : nullptr;
  }

  // Whether an element of that position can be added: the next one, or a first one at 0 or 1.
  bool Takes(int position) const {
    return count_ > 0 ? position == base + count_ : position == 0 || position == 1;
  }
  // Adds an element that Takes() the position, and adopts a count on the variable. The search for
  // the position before it is part of it.
  void Append(int position, Variable* variable) { Append(position, DenseSlot(variable)); }
  void Append(int position, DenseSlot element) {
    if (count_ == capacity) Grow();
    if (count_ == 0) base = position;
    slots[count_] = element;
    NoteAppend();
    ++count_;
    if (!history) chain_count = count_;
    StandAt(count_);
  }
  // Puts another variable, whose count it adopts, at one of the positions, and hands the old one
  // over with its count.
  Variable* Replace(int position, Variable* variable) {
    Variable* old = Peek(position);
    slots[position - base] = DenseSlot(variable);
    return old;
  }
  // Removes the last element and hands its variable over with its count. The search is part of it.
  // What then stands at the root is left of the last element, so that no fourth case comes up.
  [[nodiscard]] Variable* RemoveLast();
  // Gives the elements the positions from that one on.
  void MoveTo(int position) { base = position; }

  // The shape of the tree, brought up to date.
  const SplayShape& Shape() { return UpToDate()->shape; }
  // The order in which a copy inserts the elements, as ranks.
  void OrderForCopy(std::vector<int>* ranks);
  // Makes this empty row one of so many null variables, as a copy of the source that is inserted in
  // the source's order; Replace puts the variables in.
  void BecomeCopyOf(DenseElements* source);

  // Hands the variables over with their counts, in order; the row is empty then.
  std::unique_ptr<Variable*[]> TakeVariables();
  // Releases all variables.
  void Drop();

 private:
  // Searches at the ranks from first to last, upward or downward. With a negative first, elements
  // of the ranks -first to last were added.
  struct Run {
    int first;
    int last;
  };
  static constexpr int Nowhere = -2;

  struct History {
    std::vector<Run> runs;  // since the shape, or the chain
    SplayShape shape;
    bool shaped = false;  // the shape counts, else the chain
  };

  static Variable* VariableOf(DenseSlot* slot) {
    return slot->IsVariable() ? slot->variable() : MakeVariable(slot);
  }
  static Variable* MakeVariable(DenseSlot* slot);

  // The rank is in the row.
  void Touch(int rank) {
    if (rank == top) return;
    if (rank == expected && rank != goal) {
      top = rank;
      expected = rank + step;
      return;
    }
    TouchElsewhere(rank);
  }
  // The rank is the root, and nothing has to be noted of how it came there.
  void StandAt(int rank) {
    top = run_first = rank;
    expected = goal = Nowhere;
    step = 0;
    unnoted = false;
  }
  // Nothing is noted behind the falling chain that the row is then: so for an array that is filled.
  void NoteAppend() {
    if (!IsChain() || top != count_ || !falling) NoteAppendInHistory();
  }
  // The tree is the chain, with nothing noted or to be noted behind it.
  bool IsChain() const { return !history && run_first == top && !unnoted; }
  void TouchElsewhere(int rank);
  void StartRun(int rank);
  void BecomeChain(bool is_falling);
  void NoteAppendInHistory();
  void CloseRun();
  void Note(int run_from, int run_to);
  void PlayNotes();
  History* UpToDate();
  void Grow();

  DenseSlot* slots = nullptr;
  int count_ = 0;
  int base = 1;            // position of the first element
  int top = 0;             // rank at the root
  int expected = Nowhere;  // the rank that goes on with the run
  int goal = Nowhere;      // the rank at which the run has been everywhere
  int step = 0;            // of the run: 1, -1, or 0 while it has one rank
  int run_first = 0;       // where the run began; it ends at top
  int capacity = 0;
  int chain_count = 0;   // elements of the chain, or of the shape
  bool falling = true;   // which chain it is
  bool unnoted = false;  // a run of one rank that changed the shape
  std::unique_ptr<History> history;
};

#endif
