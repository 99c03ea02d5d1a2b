// The engine's containers: List, Stack, SearchableList, HashTable and SplayTree. All of them hold
// pointers, have a flag that says whether they own the elements, and are virtual where an instance
// adds its key rules. None of them locks: the owner guards a container that threads share.
//
//   List            doubly linked, one cursor
//   Stack           singly linked, a reading cursor that Pop unwinds to
//   SearchableList  a List that is searched by a key
//   HashTable       names to elements, walked in the order of insertion
//   NamedHashTable  the HashTable that nearly every table of names is an instance of
//   SplayTree       ordered by key, the last element touched at its root
//
// The constructor's flag own: non-zero means that Dump and the destructor delete the elements.
// Operations that take one element out hand it to the caller and never delete it. A List or a Stack
// may hold null elements, so a null result does not prove that an element is absent.

#ifndef ZEPH_BASE_BASETEMPLATES_H
#define ZEPH_BASE_BASETEMPLATES_H

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/core/FreeList.h"
#include "base/core/hash.h"
#include "base/core/memcmpi.h"

enum ListPosition : int { ListHead = 0, ListCurrent = 1, ListTail = 2 };

template <class T>
struct ListNode {
  ListNode* previous;
  ListNode* next;
  T* item;
};

// A list with one cursor, the current node, which may be none. The order of the virtual operations
// is fixed, because derived classes add theirs after them.
template <class T>
class List {
 public:
  explicit List(int owns = 0) : own(owns) {}
  virtual ~List() { DeleteAll(own); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  // Puts the element first, last, or directly in front of the current one, and makes it current.
  // ListCurrent without a current node puts it last.
  virtual void Insert(T* item, ListPosition position);
  // Takes the first, last or current element out and returns it. The cursor moves only if it was on
  // that element: to the successor, or, at the tail, to the predecessor. Without a current node
  // ListCurrent does nothing and returns null. REQUIRES: the list is not empty; otherwise the
  // result is null but the count still drops to -1, so callers check Entries() or First() first.
  virtual T* Remove(ListPosition position);
  virtual int Entries() { return entries; }
  // Moves the cursor to the node of that pointer, or to none, and returns the element or null.
  virtual T* Seek(T* item);
  // These move the cursor and return the element there, or null with the cursor on none. Next and
  // Previous leave a cursor that is on none where it is.
  virtual T* First() { return Move(head); }
  virtual T* Last() { return Move(tail); }
  virtual T* Current() { return current ? current->item : nullptr; }
  virtual T* Next() { return current ? Move(current->next) : nullptr; }
  virtual T* Previous() { return current ? Move(current->previous) : nullptr; }
  // Empties the list; owned elements go through Purge.
  virtual void Dump();
  // Deletes one element, if not null.
  virtual void Purge(T* item) { delete item; }
  // Empties the list and leaves the elements alone, owned or not.
  virtual void RemoveAll() { DeleteAll(0); }

 protected:
  T* Move(ListNode<T>* node) {
    current = node;
    return node ? node->item : nullptr;
  }
  T* Unlink(ListNode<T>* node);

  int own;
  int entries = 0;
  ListNode<T>* head = nullptr;
  ListNode<T>* current = nullptr;
  ListNode<T>* tail = nullptr;

 private:
  // Without a virtual call, for the destructor.
  void DeleteAll(int elements);
};

// A stack with a reading cursor, which Push and Top set to the top and Peek moves down.
template <class T>
class Stack {
 public:
  explicit Stack(int owns = 0) : own(owns) {}
  virtual ~Stack() { DeleteAll(); }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  virtual int Entries() { return entries; }
  virtual void Push(T* item);
  // Unwinds down to the cursor: drops the elements above it (deleting them if owned), then takes
  // the cursor's element out and returns it. After Push and Top it is therefore a plain pop. If the
  // cursor is past the bottom, everything is dropped but the bottom element, which is returned.
  // Null on an empty stack.
  virtual T* Pop();
  virtual T* Top() {
    cursor = top;
    return cursor ? cursor->item : nullptr;
  }
  // The element one below the cursor, or null at the bottom, and with the cursor on none.
  virtual T* Peek() {
    if (cursor) cursor = cursor->next;
    return cursor ? cursor->item : nullptr;
  }
  // Empties the stack, deleting owned elements. Does not reset the count.
  virtual void Dump() { DeleteAll(); }

 protected:
  struct Node {
    Node* next;
    T* item;
  };

  int own;
  int entries = 0;
  Node* top = nullptr;
  Node* cursor = nullptr;

 private:
  void DeleteAll();
};

// A List that is searched from its head, or from the element after the current one.
template <class T, class K>
class SearchableList : public List<T> {
 public:
  using List<T>::List;

  // Both move the cursor to the element found, or to none, and return the element or null.
  virtual T* Find(K key) { return FindFrom(key, this->head); }
  virtual T* FindNext(K key) {
    return this->current ? FindFrom(key, this->current->next) : nullptr;
  }
  // 0 for a match.
  virtual int Compare(K key, T* item) = 0;

 private:
  T* FindFrom(K key, ListNode<T>* node) {
    while (node && Compare(key, node->item) != 0) node = node->next;
    return this->Move(node);
  }
};

// Chained hashing over arrays. The elements are in slots in the order of insertion, and a walk goes
// through the slots; a removed element leaves a gap that is never used again, so a walk may remove
// the elements it meets. The slots grow by 512, the buckets never: a big table has long chains.
// Chains are ordered by key length and then by bytes, so that a search can stop early.
//
// The arrays are made at the first insertion, because most tables of a request stay empty. Most
// others hold a handful: up to `scanned` slots are searched one by one. Buckets and chains (16 KB
// to fill in a table of 12 bits) are made only when one more element is inserted.
//
// An instance says what the key of an element is. Most keys are texts, and then the instance is a
// few lines over NamedHashTable below. Any other instance overrides hash and both forms of Compare.
template <class T>
class HashTable {
 public:
  // ignore_case non-zero: keys are compared without regard to case. The table has 2^hash_bits
  // buckets and at first slot_count slots; nearly all instances of the engine use 12 and 512.
  HashTable(int owns, int ignore_case, int hash_bits, int slot_count)
      : own(owns),
        nocase(ignore_case),
        bits(hash_bits < 0    ? 0
             : hash_bits > 30 ? 30
                              : hash_bits),
        bucket_count(1 << bits),
        capacity(slot_count > 0 ? slot_count : 0) {}
  // Shares the elements; the walk starts at the first slot. REQUIRES: if own is set, only one of
  // the two tables still owns the elements when they are deleted.
  HashTable(const HashTable& other);
  HashTable& operator=(const HashTable&) = delete;
  virtual ~HashTable() { DeleteElements(); }

  // Empties the table, deleting owned elements. Keeps the capacity it has grown to, and the
  // position of a walk.
  virtual void Dump();
  // The bucket of the element's key, 0 to 2^bits - 1.
  virtual int hash(T* item) = 0;
  // The order of two elements' keys, and of an element's key and a given one: negative, 0 or
  // positive. The shorter key is the lesser; equal lengths are compared by bytes. The length is
  // never -1 here.
  virtual int Compare(T* a, T* b) = 0;
  virtual int Compare(T* item, const char* key, int length) = 0;

  // Adds the element after those of an equal key. A null pointer is ignored.
  void Insert(T* item) {
    if (!item || Append(item)) return;
    Link(item, hash(item), [this, item](T* other) { return Compare(item, other); });
  }
  // The earliest inserted element with that key, or null. A length of -1 means strlen.
  T* Find(const char* key, int length) {
    length = KeyLength(key, length);
    const auto order = [=, this](T* item) { return Compare(item, key, length); };
    return buckets ? Search(hash(key, length), order) : Scan(order);
  }
  T* Find(T* item) {
    const auto order = [=, this](T* other) { return Compare(other, item); };
    return buckets ? Search(hash(item), order) : Scan(order);
  }
  // Takes the element that Find returns out of the table and hands it to the caller; null if there
  // is none.
  T* Remove(const char* key, int length) {
    length = KeyLength(key, length);
    const auto order = [=, this](T* item) { return Compare(item, key, length); };
    return buckets ? Unlink(hash(key, length), order) : Drop(order);
  }
  // The bucket of a key.
  int hash(const char* key, int length) const {
    unsigned n = static_cast<unsigned>(KeyLength(key, length));
    unsigned value = nocase ? ::hashi(key, n, 0) : ::hash(key, n, 0);
    return static_cast<int>(value & static_cast<unsigned>(bucket_count - 1));
  }

  // The element in a slot, counted from 0; null in a gap and out of range.
  T* Index(int i) const { return i >= 0 && i < high_water ? slots[i] : nullptr; }
  // The walk in the order of insertion, and backwards; null at the end.
  T* First() { return WalkUp(0); }
  T* Next() { return WalkUp(iterator < high_water ? iterator + 1 : high_water); }
  T* Last() { return WalkDown(high_water - 1); }
  T* Previous() { return WalkDown((iterator < high_water ? iterator : high_water) - 1); }
  T* Current() const { return Index(iterator); }
  // The count of slots in use: gaps of removed elements count too.
  int Entries() const { return high_water; }

 protected:
  static int KeyLength(const char* key, int length) {
    if (length > 0) return key ? length : 0;
    return length == -1 && key ? static_cast<int>(strlen(key)) : 0;
  }

  static constexpr int scanned = 24;

  // Here and in the three below, Order returns the order of an element against the key searched
  // for. Search and Unlink use the buckets; Scan and Drop walk the slots of a table that has none.
  template <class Order>
  T* Search(int bucket, Order order) const {
    for (int slot = buckets[bucket]; slot >= 0; slot = chain[slot]) {
      int difference = order(slots[slot]);
      if (difference >= 0) return difference == 0 ? slots[slot] : nullptr;
    }
    return nullptr;
  }
  template <class Order>
  T* Unlink(int bucket, Order order);
  template <class Order>
  T* Scan(Order order) const {
    for (int slot = 0; slot < high_water; ++slot) {
      if (slots[slot] && order(slots[slot]) == 0) return slots[slot];
    }
    return nullptr;
  }
  template <class Order>
  T* Drop(Order order) {
    for (int slot = 0; slot < high_water; ++slot) {
      if (!slots[slot] || order(slots[slot]) != 0) continue;
      --buckets_used;
      return std::exchange(slots[slot], nullptr);
    }
    return nullptr;
  }
  // Puts the element into the next slot of a table without buckets. False if the table has or needs
  // them; they exist afterwards.
  bool Append(T* item);
  // Order returns the order of the new element against another.
  template <class Order>
  void Link(T* item, int bucket, Order order);

  int own;
  int nocase;
  std::unique_ptr<int[]> buckets;  // first slot of each chain or -1; null while slots are scanned
  int bits;
  int bucket_count;
  int buckets_used = 0;          // raised by a chain's first element, lowered by every removal
  std::unique_ptr<int[]> chain;  // by slot: the next slot of its chain, or -1
  std::unique_ptr<T*[]> slots;   // the elements; null in a gap
  int capacity;                  // of chain and slots
  int high_water = 0;            // the next unused slot; only Dump lowers it
  int iterator = 0;              // the slot of the walk; -1 before the first

 private:
  T* WalkUp(int slot) {
    while (slot < high_water && !slots[slot]) ++slot;
    iterator = slot;
    return slot < high_water ? slots[slot] : nullptr;
  }
  T* WalkDown(int slot) {
    while (slot >= 0 && !slots[slot]) --slot;
    iterator = slot < 0 ? -1 : slot;
    return slot >= 0 ? slots[slot] : nullptr;
  }
  void MakeRoom();
  void MakeBuckets();
  template <class Order>
  void LinkSlot(int slot, int bucket, Order order);
  void DeleteElements();
};

// A stored key whose length may be -1 for strlen, and whose text may be null.
inline std::string_view KeyText(const char* text, int length = -1) {
  if (!text) return {};
  return length >= 0 ? std::string_view(text, static_cast<size_t>(length)) : std::string_view(text);
}

// A HashTable whose keys are texts. KeyOf gives the key of an element:
//
//   struct LibraryName {
//     static std::string_view Key(Library* library) { return KeyText(library->name); }
//   };
//   using LibraryTable = NamedHashTable<Library, LibraryName>;
//
// Searches through this class compare without a virtual call; searches through the base class give
// the same results.
template <class T, class KeyOf>
class NamedHashTable : public HashTable<T> {
 public:
  using HashTable<T>::HashTable;
  using HashTable<T>::hash;

  int hash(T* item) final {
    std::string_view key = KeyOf::Key(item);
    return hash(key.data(), static_cast<int>(key.size()));
  }
  int Compare(T* a, T* b) final { return Order(a, KeyOf::Key(b)); }
  int Compare(T* item, const char* key, int length) final {
    return Order(item, std::string_view(key, static_cast<size_t>(length)));
  }

  void Insert(T* item) {
    if (!item || this->Append(item)) return;
    std::string_view key = KeyOf::Key(item);
    this->Link(item, hash(item), [=, this](T* other) { return -Order(other, key); });
  }
  T* Find(const char* key, int length) const { return FindText(Sized(key, length)); }
  T* Find(T* item) const { return FindText(KeyOf::Key(item)); }
  T* Remove(const char* key, int length) {
    std::string_view text = Sized(key, length);
    const auto order = [=, this](T* item) { return Order(item, text); };
    return this->buckets ? this->Unlink(Bucket(text), order) : this->Drop(order);
  }

 private:
  T* FindText(std::string_view text) const {
    const auto order = [=, this](T* item) { return Order(item, text); };
    return this->buckets ? this->Search(Bucket(text), order) : this->Scan(order);
  }
  static std::string_view Sized(const char* key, int length) {
    return std::string_view(key, static_cast<size_t>(HashTable<T>::KeyLength(key, length)));
  }
  int Bucket(std::string_view key) const { return hash(key.data(), static_cast<int>(key.size())); }
  int Order(T* item, std::string_view key) const {
    std::string_view own_key = KeyOf::Key(item);
    if (own_key.size() != key.size()) return own_key.size() < key.size() ? -1 : 1;
    if (key.empty()) return 0;
    return this->nocase ? memcmpi(own_key.data(), key.data(), key.size())
                        : memcmp(own_key.data(), key.data(), key.size());
  }
};

template <class T>
struct SplayTreeNode {
  ZEPH_FREE_LIST_OPERATORS(SplayTreeNode)

  SplayTreeNode* left;
  SplayTreeNode* right;
  T* item;
};

// A top-down splay tree of Sleator and Tarjan, ordered by a key that each element carries. Every
// search moves the node it touched last to the root, so a search changes the tree too. The tree may
// degenerate into a chain of all its elements; operations that visit all of them therefore recurse
// only in trees of up to 99.
//
// An instance overrides Key and Compare. They cannot be called while this base is constructed, so
// an instance's copy constructor passes own to the base and calls CopyFromSplayTree in its body.
// The order of the virtual operations is fixed, because derived classes add theirs after them.
template <class T, class K>
class SplayTree {
 public:
  explicit SplayTree(int owns) : own(owns) {}
  SplayTree(const SplayTree&) = delete;
  SplayTree& operator=(const SplayTree&) = delete;
  virtual ~SplayTree() { Destroy(); }

  // The new element becomes the root. Duplicates are not detected: callers check with Find first.
  virtual void Insert(T* item);
  // Takes the element with that key out and hands it to the caller; null if there is none. In one
  // case (see the body) elements are left where a search may miss them although walks still meet
  // them: a loop of Next and Remove must end when Remove returns null.
  virtual T* Remove(K key);
  virtual T* Find(K key) { return Splay(key) == 0 && root ? root->item : nullptr; }
  // The element with the next greater key, and with the next lesser key, or null. The key itself
  // need not be in the tree.
  virtual T* Next(K key);
  virtual T* Previous(K key);
  // The elements with the least and the greatest key, without a splay; null on an empty tree.
  virtual T* First() { return Leftmost(root); }
  virtual T* Last() { return Rightmost(root); }
  int Entries() const { return entries; }
  // Empties the tree; owned elements go through Purge.
  virtual void Dump() { Destroy(); }
  // Deletes one element, if not null.
  virtual void Purge(T* item) { delete item; }
  virtual K Key(T* item) = 0;
  // The order of a key against an element's: negative, 0 or positive.
  virtual int Compare(K key, T* item) = 0;

  // Adds all elements to the end of the list, in the order of their keys.
  void AppendToList(List<T>& list) const;

 protected:
  // The largest tree that is visited by recursion.
  static constexpr int kRecursionLimit = 99;

  using Node = SplayTreeNode<T>;

  // Brings the node with the key, or the last one on the way to it, to the root, and returns the
  // order of the key against it. On an empty tree the result is 0 and means nothing.
  int Splay(K key) {
    return SplayBy([this, &key](T* item) { return Compare(key, item); });
  }
  // The same with a given comparison of the key against an element, for instances that have a
  // faster one than the virtual Compare.
  template <class Order>
  int SplayBy(Order order_of);
  // Makes the element the root, before or after a root that has just been splayed.
  void InsertAtRoot(T* item, int order);
  // Fills this empty tree with the elements of another: copies made by T's copy constructor if own
  // is set, else the same pointers.
  void CopyFromSplayTree(const SplayTree& other);

  int own;
  int entries = 0;
  Node* root = nullptr;

 private:
  static T* Leftmost(Node* node) {
    while (node && node->left) node = node->left;
    return node ? node->item : nullptr;
  }
  static T* Rightmost(Node* node) {
    while (node && node->right) node = node->right;
    return node ? node->item : nullptr;
  }
  void Destroy();
  void DumpRecurse(Node* node);
  void DumpStack(Node* node);
  void InsertCopy(T* item);
  void CopyFromSplayTreeRecurse(const Node* node);
  void CopyFromSplayTreeStack(Node* node);
  void AppendToListRecurse(List<T>& list, const Node* node) const;
  void AppendToListStack(List<T>& list, Node* node) const;
};

// Inserts an element that the container then owns. If there is no memory for the insertion, the
// element is deleted.
template <class Container, class T, class... Position>
void InsertOwned(Container& container, std::unique_ptr<T> element, Position... position) {
  container.Insert(element.get(), position...);
  (void)element.release();
}

// --- List ----------------------------------------------------------------------------------------

template <class T>
void List<T>::Insert(T* item, ListPosition position) {
  auto node = new ListNode<T>{nullptr, nullptr, item};
  ++entries;
  if (position == ListCurrent && !current) position = ListTail;
  ListNode<T>* behind = position == ListHead ? head : position == ListCurrent ? current : nullptr;
  ListNode<T>* before = behind ? behind->previous : tail;
  node->previous = before;
  node->next = behind;
  (before ? before->next : head) = node;
  (behind ? behind->previous : tail) = node;
  current = node;
}

template <class T>
T* List<T>::Unlink(ListNode<T>* node) {
  (node->previous ? node->previous->next : head) = node->next;
  (node->next ? node->next->previous : tail) = node->previous;
  T* item = node->item;
  delete node;
  return item;
}

template <class T>
T* List<T>::Remove(ListPosition position) {
  if (head && position == ListCurrent && !current) return nullptr;
  --entries;
  if (!head) return nullptr;
  ListNode<T>* node = position == ListHead ? head : position == ListTail ? tail : current;
  if (node == current) current = position == ListTail ? node->previous : node->next;
  return Unlink(node);
}

template <class T>
T* List<T>::Seek(T* item) {
  ListNode<T>* node = head;
  while (node && node->item != item) node = node->next;
  return Move(node);
}

template <class T>
void List<T>::Dump() {
  entries = 0;
  ListNode<T>* node = head;
  head = current = tail = nullptr;
  while (node) {
    ListNode<T>* next = node->next;
    if (own) Purge(node->item);
    delete node;
    node = next;
  }
}

template <class T>
void List<T>::DeleteAll(int elements) {
  entries = 0;
  ListNode<T>* node = head;
  head = current = tail = nullptr;
  while (node) {
    ListNode<T>* next = node->next;
    if (elements) delete node->item;
    delete node;
    node = next;
  }
}

// --- Stack ---------------------------------------------------------------------------------------

template <class T>
void Stack<T>::Push(T* item) {
  top = cursor = new Node{top, item};
  ++entries;
}

template <class T>
T* Stack<T>::Pop() {
  if (!top) return nullptr;
  for (;;) {
    Node* node = top;
    T* item = node->item;
    bool last = node == cursor || !node->next;
    top = node->next;
    --entries;
    delete node;
    if (last) {
      cursor = top;
      return item;
    }
    if (own) delete item;
  }
}

template <class T>
void Stack<T>::DeleteAll() {
  Node* node = top;
  top = cursor = nullptr;
  while (node) {
    Node* next = node->next;
    if (own) delete node->item;
    delete node;
    node = next;
  }
}

// --- HashTable -----------------------------------------------------------------------------------

template <class T>
HashTable<T>::HashTable(const HashTable& other)
    : own(other.own),
      nocase(other.nocase),
      bits(other.bits),
      bucket_count(other.bucket_count),
      buckets_used(other.buckets_used),
      capacity(other.capacity),
      high_water(other.high_water) {
  if (!other.slots) return;
  slots.reset(new T*[other.buckets ? capacity : scanned]);
  memcpy(slots.get(), other.slots.get(), sizeof(T*) * high_water);
  if (!other.buckets) return;
  buckets.reset(new int[bucket_count]);
  memcpy(buckets.get(), other.buckets.get(), sizeof(int) * bucket_count);
  chain.reset(new int[capacity]);
  memcpy(chain.get(), other.chain.get(), sizeof(int) * high_water);
}

template <class T>
void HashTable<T>::DeleteElements() {
  if (!own) return;
  for (int i = 0; i < high_water; ++i) delete slots[i];
}

template <class T>
void HashTable<T>::Dump() {
  DeleteElements();
  if (buckets) memset(buckets.get(), 0xFF, sizeof(int) * bucket_count);
  buckets_used = 0;
  high_water = 0;
}

template <class T>
bool HashTable<T>::Append(T* item) {
  if (buckets) return false;
  // A table of few buckets has long chains from the start and gains nothing.
  if (high_water == scanned || bucket_count <= scanned) {
    MakeBuckets();
    return false;
  }
  if (!slots) slots.reset(new T*[scanned]);
  if (high_water == capacity) capacity += 512;
  slots[high_water++] = item;
  return true;
}

// Goes from scanned slots to buckets and chains.
template <class T>
void HashTable<T>::MakeBuckets() {
  std::unique_ptr<int[]> made(new int[bucket_count]);
  memset(made.get(), 0xFF, sizeof(int) * bucket_count);
  std::unique_ptr<int[]> links(new int[capacity]);
  std::unique_ptr<T*[]> all(new T*[capacity]);
  if (high_water > 0) memcpy(all.get(), slots.get(), sizeof(T*) * high_water);
  buckets = std::move(made);
  chain = std::move(links);
  slots = std::move(all);
  for (int slot = 0; slot < high_water; ++slot) {
    T* item = slots[slot];
    if (item) LinkSlot(slot, hash(item), [=, this](T* other) { return Compare(item, other); });
  }
}

// Adds 512 slots. Slots from high_water on are never read, so they are not filled.
template <class T>
void HashTable<T>::MakeRoom() {
  const int grown = capacity + 512;
  std::unique_ptr<int[]> larger_chain(new int[grown]);
  std::unique_ptr<T*[]> larger_slots(new T*[grown]);
  if (high_water > 0) {
    memcpy(larger_chain.get(), chain.get(), sizeof(int) * high_water);
    memcpy(larger_slots.get(), slots.get(), sizeof(T*) * high_water);
  }
  chain = std::move(larger_chain);
  slots = std::move(larger_slots);
  capacity = grown;
}

template <class T>
template <class Order>
void HashTable<T>::Link(T* item, int bucket, Order order) {
  if (high_water == capacity) MakeRoom();
  slots[high_water] = item;
  LinkSlot(high_water, bucket, order);
  ++high_water;
}

template <class T>
template <class Order>
void HashTable<T>::LinkSlot(int slot, int bucket, Order order) {
  int previous = -1;
  int next = buckets[bucket];
  if (next < 0) ++buckets_used;
  while (next >= 0 && order(slots[next]) >= 0) {
    previous = next;
    next = chain[next];
  }
  chain[slot] = next;
  (previous < 0 ? buckets[bucket] : chain[previous]) = slot;
}

template <class T>
template <class Order>
T* HashTable<T>::Unlink(int bucket, Order order) {
  int previous = -1;
  for (int slot = buckets[bucket]; slot >= 0; previous = slot, slot = chain[slot]) {
    int difference = order(slots[slot]);
    if (difference > 0) return nullptr;
    if (difference == 0) {
      (previous < 0 ? buckets[bucket] : chain[previous]) = chain[slot];
      --buckets_used;
      return std::exchange(slots[slot], nullptr);
    }
  }
  return nullptr;
}

// --- SplayTree -----------------------------------------------------------------------------------

template <class T, class K>
template <class Order>
int SplayTree<T, K>::SplayBy(Order order_of) {
  if (!root) return 0;
  // The header holds the tree of the lesser nodes on its right and that of the greater ones on its
  // left.
  Node header = {nullptr, nullptr, nullptr};
  Node* less = &header;
  Node* greater = &header;
  Node* top = root;
  int order = order_of(top->item);
  while (order != 0) {
    Node* child = order < 0 ? top->left : top->right;
    if (!child) break;
    int child_order = order_of(child->item);
    if (order < 0) {
      if (child_order < 0) {
        top->left = child->right;
        child->right = top;
        top = child;
        order = child_order;
        if (!top->left) break;
        child = top->left;
        child_order = order_of(child->item);
      }
      greater->left = top;
      greater = top;
    } else {
      if (child_order > 0) {
        top->right = child->left;
        child->left = top;
        top = child;
        order = child_order;
        if (!top->right) break;
        child = top->right;
        child_order = order_of(child->item);
      }
      less->right = top;
      less = top;
    }
    top = child;
    order = child_order;
  }
  less->right = top->left;
  greater->left = top->right;
  top->left = header.right;
  top->right = header.left;
  root = top;
  return order;
}

template <class T, class K>
void SplayTree<T, K>::Insert(T* item) {
  InsertAtRoot(item, root ? Splay(Key(item)) : 0);
}

template <class T, class K>
void SplayTree<T, K>::InsertAtRoot(T* item, int order) {
  Node* node = new Node{nullptr, nullptr, item};
  if (root && order < 0) {
    node->left = std::exchange(root->left, nullptr);
    node->right = root;
  } else if (root) {
    node->right = std::exchange(root->right, nullptr);
    node->left = root;
  }
  ++entries;
  root = node;
}

template <class T, class K>
T* SplayTree<T, K>::Remove(K key) {
  if (!root || Splay(key) != 0) return nullptr;
  --entries;
  Node* removed = root;
  Node* child = removed->right;
  T* item = removed->item;
  if (!removed->left) {
    root = child;
  } else if (!child) {
    root = removed->left;
  } else if (!child->left) {
    child->left = removed->left;
    root = child;
  } else if (!child->right) {
    // The child's element becomes the root, and the lesser elements on its left move to its right.
    // A search then misses them, while walks meet every element. Scripts can observe which ones are
    // missed, so this must not change.
    root = child;
    child->right = child->left;
    child->left = removed->left;
  } else {
    Node* parent = child;
    while (parent->left->left) parent = parent->left;
    Node* least = parent->left;
    parent->left = least->right;
    least->left = removed->left;
    least->right = child;
    root = least;
  }
  delete removed;
  return item;
}

template <class T, class K>
T* SplayTree<T, K>::Next(K key) {
  if (!root) return nullptr;
  return Splay(key) >= 0 ? Leftmost(root->right) : root->item;
}

template <class T, class K>
T* SplayTree<T, K>::Previous(K key) {
  if (!root) return nullptr;
  return Splay(key) <= 0 ? Rightmost(root->left) : root->item;
}

template <class T, class K>
void SplayTree<T, K>::Destroy() {
  Node* node = std::exchange(root, nullptr);
  int count = std::exchange(entries, 0);
  if (!node) return;
  if (count > kRecursionLimit) {
    DumpStack(node);
  } else {
    DumpRecurse(node);
  }
}

template <class T, class K>
void SplayTree<T, K>::DumpRecurse(Node* node) {
  if (node->left) DumpRecurse(node->left);
  if (own) Purge(node->item);
  Node* right = node->right;
  delete node;
  if (right) DumpRecurse(right);
}

// Post-order. A destructor must not allocate, so the stack of the nodes above is threaded through
// the pointers that the walk has followed: a node's way back up is in its left pointer while the
// walk is in its left subtree, otherwise in its right one.
template <class T, class K>
void SplayTree<T, K>::DumpStack(Node* node) {
  Node bottom = {nullptr, nullptr, nullptr};
  Node* above = &bottom;
  for (;;) {
    if (node->left) {
      Node* child = std::exchange(node->left, above);
      above = std::exchange(node, child);
    } else if (node->right) {
      Node* child = std::exchange(node->right, above);
      above = std::exchange(node, child);
    } else {
      if (own) Purge(node->item);
      delete node;
      if (above == &bottom) return;
      node = above;
      above = std::exchange(node->left ? node->left : node->right, nullptr);
    }
  }
}

template <class T, class K>
void SplayTree<T, K>::InsertCopy(T* item) {
  if (!own) {
    Insert(item);
    return;
  }
  auto copy = std::make_unique<T>(*item);
  Insert(copy.get());
  (void)copy.release();
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTree(const SplayTree& other) {
  if (!other.root) return;
  if (other.entries > kRecursionLimit) {
    CopyFromSplayTreeStack(other.root);
  } else {
    CopyFromSplayTreeRecurse(other.root);
  }
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTreeRecurse(const Node* node) {
  if (node->left) CopyFromSplayTreeRecurse(node->left);
  InsertCopy(node->item);
  if (node->right) CopyFromSplayTreeRecurse(node->right);
}

template <class T, class K>
void SplayTree<T, K>::CopyFromSplayTreeStack(Node* node) {
  Stack<Node> pending;
  pending.Push(node);
  while ((node = pending.Pop())) {
    if (node->left) pending.Push(node->left);
    if (node->right) pending.Push(node->right);
    InsertCopy(node->item);
  }
}

template <class T, class K>
void SplayTree<T, K>::AppendToList(List<T>& list) const {
  if (!root) return;
  if (entries > kRecursionLimit) {
    AppendToListStack(list, root);
  } else {
    AppendToListRecurse(list, root);
  }
}

template <class T, class K>
void SplayTree<T, K>::AppendToListRecurse(List<T>& list, const Node* node) const {
  if (node->left) AppendToListRecurse(list, node->left);
  list.Insert(node->item, ListTail);
  if (node->right) AppendToListRecurse(list, node->right);
}

template <class T, class K>
void SplayTree<T, K>::AppendToListStack(List<T>& list, Node* node) const {
  Stack<Node> pending;
  while (node || pending.Top()) {
    for (; node; node = node->left) pending.Push(node);
    node = pending.Pop();
    list.Insert(node->item, ListTail);
    node = node->right;
  }
}

#endif
