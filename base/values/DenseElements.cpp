// A row of array elements, and the shape of the splay tree that it represents. Tested in
// tests/base/values/DenseElementsTest.cpp, against a real splay tree.

#include "base/values/DenseElements.h"

#include <cstring>
#include <utility>

#include "base/values/Variable.h"

// --- SplayShape ----------------------------------------------------------------------------------

void SplayShape::MakeChain(int count, bool falling) {
  Clear(count);
  for (int rank = 1; rank <= count; rank++) {
    nodes[static_cast<size_t>(rank)] =
        falling ? Links{rank - 1, 0} : Links{0, rank < count ? rank + 1 : 0};
  }
  root_ = count == 0 ? 0 : falling ? count : 1;
}

void SplayShape::Clear(int count) {
  nodes.assign(static_cast<size_t>(count) + 1, Links{0, 0});
  root_ = 0;
}

// Does the same steps as SplayTree::SplayBy.
void SplayShape::Splay(int key) {
  if (root_ == 0) return;
  Links* node = nodes.data();
  int less = 0;
  int greater = 0;
  int top = root_;
  node[0] = {0, 0};
  while (key != top) {
    int child = key < top ? node[top].left : node[top].right;
    if (child == 0) break;
    if (key < top) {
      if (key < child) {
        node[top].left = node[child].right;
        node[child].right = top;
        top = child;
        child = node[top].left;
        if (child == 0) break;
      }
      node[greater].left = top;
      greater = top;
    } else {
      if (key > child) {
        node[top].right = node[child].left;
        node[child].left = top;
        top = child;
        child = node[top].right;
        if (child == 0) break;
      }
      node[less].right = top;
      less = top;
    }
    top = child;
  }
  node[less].right = node[top].left;
  node[greater].left = node[top].right;
  node[top].left = node[0].right;
  node[top].right = node[0].left;
  root_ = top;
}

void SplayShape::Insert(int rank) {
  if (static_cast<size_t>(rank) >= nodes.size()) {
    nodes.resize(static_cast<size_t>(rank) + 1, Links{0, 0});
  }
  Splay(rank);
  Links* node = nodes.data();
  if (root_ == 0) {
    node[rank] = {0, 0};
  } else if (rank < root_) {
    node[rank] = {std::exchange(node[root_].left, 0), root_};
  } else {
    node[rank] = {root_, std::exchange(node[root_].right, 0)};
  }
  root_ = rank;
}

void SplayShape::RemoveGreatest(int rank) {
  Splay(rank);
  root_ = node(rank).left;
}

void SplayShape::OrderForCopy(std::vector<int>* ranks) const {
  std::vector<int> pending;
  if (root_ != 0) pending.push_back(root_);
  while (!pending.empty()) {
    const int rank = pending.back();
    pending.pop_back();
    if (node(rank).left != 0) pending.push_back(node(rank).left);
    if (node(rank).right != 0) pending.push_back(node(rank).right);
    ranks->push_back(rank);
  }
}

namespace {
// In place of the ranks of a run: the elements were inserted in the order of a copy.
constexpr int kCopied = 0;
}  // namespace

// --- Searches ------------------------------------------------------------------------------------

// If the rank is a neighbour of the root, the run begins at the root, because searching the root
// again changes nothing. So adjacent runs become one.
void DenseElements::TouchElsewhere(int rank) {
  const int difference = rank - top;
  if (difference == 1 || difference == -1) {
    if (step != difference) {
      if (step != 0 && !CloseRun()) return Touch(rank);
      StartRun(top);
      step = difference;
      if (run_first == 1 && step == 1) goal = count_;
      if (run_first == count_ && step == -1) goal = 1;
    }
    top = rank;
    if (rank == goal) {
      BecomeChain(step == 1);
    } else {
      expected = rank + step;
    }
    return;
  }
  if (!CloseRun()) return;
  StartRun(rank);
  top = rank;
  unnoted = true;
}

void DenseElements::StartRun(int rank) {
  run_first = rank;
  step = 0;
  expected = goal = Nowhere;
}

void DenseElements::BecomeChain(bool is_falling) {
  falling = is_falling;
  chain_count = count_;
  ForgetHistory();
  StandAt(falling ? count_ : 1);
}

// Keeps the memory of the notes, because a row that is read at random fills them again and again.
void DenseElements::ForgetHistory() {
  if (!history) return;
  history->runs.clear();
  if (std::exchange(history->shaped, false)) history->shape = SplayShape();
}

bool DenseElements::CloseRun() {
  const bool noted = (run_first == top && !unnoted) || Note(run_first, top);
  unnoted = false;
  return noted;
}

bool DenseElements::Note(int run_from, int run_to) {
  if (!history) {
    history = std::make_unique<History>();
    history->runs.reserve(kFirstNotes);
  }
  if (history->runs.size() >= most_notes) {
    BecomeChain(true);
    forgetful = true;
    return false;
  }
  history->runs.push_back({run_from, run_to});
  return true;
}

// Where the notes are forgotten, the append is to the falling chain, and needs none.
void DenseElements::NoteAppendInHistory() {
  if (count_ == 0) {
    ForgetHistory();
    falling = true;
    return;
  }
  if (!CloseRun()) return;
  // Consecutive appends are one note.
  if (history && !history->runs.empty()) {
    Run& run = history->runs.back();
    if (run.first < 0 && run.last == count_) {
      run.last = count_ + 1;
      return;
    }
  }
  Note(-(count_ + 1), count_ + 1);
}

// The open run is not played: the caller has closed it, or it is noted later.
void DenseElements::PlayNotes() {
  SplayShape& shape = history->shape;
  if (!history->shaped) shape.MakeChain(chain_count, falling);
  for (const Run& run : history->runs) {
    if (run.first == kCopied) {
      std::vector<int> ranks;
      shape.OrderForCopy(&ranks);
      shape.Clear(static_cast<int>(ranks.size()));
      for (const int rank : ranks) shape.Insert(rank);
    } else if (run.first < 0) {
      for (int rank = -run.first; rank <= run.last; rank++) shape.Insert(rank);
    } else if (run.first <= run.last) {
      for (int rank = run.first; rank < run.last; rank++) shape.Splay(rank);
      shape.Splay(run.last);
    } else {
      for (int rank = run.first; rank >= run.last; rank--) shape.Splay(rank);
    }
  }
  history->runs.clear();
  history->shaped = true;
}

// A falling chain without its greatest rank is a falling chain, so an array that a script uses as a
// stack needs no notes.
Variable* DenseElements::RemoveLast() {
  Touch(count_);
  forgetful = false;
  OwnSlots();
  Variable* removed = SlotTable::VariableOf(&slots[count_ - 1]);
  int root = count_ - 1;
  if (!IsChain() || !falling) {
    SplayShape& shape = UpToDate()->shape;
    shape.RemoveGreatest(count_);
    root = shape.root();
  }
  --count_;
  if (count_ == 0) {
    ForgetHistory();
    falling = true;
  }
  if (!HasHistory()) chain_count = count_;
  StandAt(root);
  return removed;
}

// --- The shape -----------------------------------------------------------------------------------

DenseElements::History* DenseElements::UpToDate() {
  forgetful = false;
  CloseRun();
  if (!history) history = std::make_unique<History>();
  PlayNotes();
  StandAt(history->shape.root());
  return history.get();
}

void DenseElements::OrderForCopy(std::vector<int>* ranks) {
  ranks->reserve(ranks->size() + static_cast<size_t>(count_));
  forgetful = false;
  if (!IsChain()) {
    Shape().OrderForCopy(ranks);
  } else if (falling) {
    for (int rank = count_; rank >= 1; rank--) ranks->push_back(rank);
  } else {
    for (int rank = 1; rank <= count_; rank++) ranks->push_back(rank);
  }
}

void DenseElements::BecomeCopyOf(DenseElements* source) {
  slots = SlotTable::Make(source->count_);
  capacity = SlotTable::Capacity(slots);
  count_ = source->count_;
  base = source->base;
  for (int i = 0; i < count_; i++) slots[i] = DenseSlot();
  TakeShapeOfCopy(source);
}

void DenseElements::ShareWith(DenseElements* source) {
  if (source->count_ == 0) return;
  slots = SlotTable::Share(source->slots);
  capacity = source->capacity;
  count_ = source->count_;
  base = source->base;
  is_shared = source->is_shared = true;
  TakeShapeOfCopy(source);
}

// Inserting ranks in falling order makes the rising chain, and the other way round. Other shapes
// are left to PlayNotes: a copy that nothing is removed from never needs its own.
void DenseElements::TakeShapeOfCopy(DenseElements* source) {
  forgetful = source->forgetful = false;
  if (count_ <= 99) {
    BecomeChain(true);
    return;
  }
  if (!source->IsChain() && source->CloseRun()) {
    source->StandAt(source->top);
    if (source->history->runs.size() >= most_notes) {
      BecomeChain(true);
      return;
    }
    if (source != this) history = std::make_unique<History>(*source->history);
    history->runs.push_back({kCopied, kCopied});
    falling = source->falling;
    chain_count = source->chain_count;
    // The root is that of a shape which is not made yet.
    StandAt(Nowhere);
    return;
  }
  BecomeChain(!source->falling);
}

// --- Memory --------------------------------------------------------------------------------------

void DenseElements::Grow() {
  const int larger = capacity == 0          ? 7
                     : capacity < (1 << 16) ? capacity * 2 + 1
                                            : capacity + capacity / 2;
  DenseSlot* const moved = SlotTable::Make(larger);
  if (count_ > 0) memcpy(moved, slots, sizeof(DenseSlot) * static_cast<size_t>(count_));
  if (slots) SlotTable::Free(slots);
  slots = moved;
  capacity = SlotTable::Capacity(slots);
}

bool DenseElements::HasOnlyNumbers() const {
  for (int i = 0; i < count_; i++) {
    if (slots[i].IsVariable()) return false;
  }
  return count_ > 0;
}

void DenseElements::Part() {
  if (SlotTable::IsShared(slots)) slots = SlotTable::Part(slots, count_);
  is_shared = false;
}

std::unique_ptr<Variable* []> DenseElements::TakeVariables() {
  OwnSlots();
  std::unique_ptr<Variable*[]> taken(new Variable*[static_cast<size_t>(count_)]);
  for (int i = 0; i < count_; i++) taken[static_cast<size_t>(i)] = SlotTable::VariableOf(&slots[i]);
  count_ = 0;
  Drop();
  return taken;
}

// Releasing a variable may run code that uses the array, so the row is made empty first.
void DenseElements::Drop() {
  const int releases = count_;
  DenseSlot* const dropped = std::exchange(slots, nullptr);
  count_ = capacity = chain_count = 0;
  history.reset();
  falling = true;
  is_shared = false;
  StandAt(0);
  if (dropped) SlotTable::Release(dropped, releases);
}
