// A hash table of pointers to elements that carry their keys, walked in the order of insertion. It
// locks nothing: the owner guards a table that threads share. Tested in
// tests/base/core/HashTableTest.cpp.
//
//   HashTable       any key: an instance overrides the key rules
//   NamedHashTable  the HashTable that nearly every table of names is an instance of
//
// The constructor's flag own: non-zero means that Dump and the destructor delete the elements.
// Operations that take one element out hand it to the caller and never delete it.

#ifndef ZEPH_BASE_HASHTABLE_H
#define ZEPH_BASE_HASHTABLE_H

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/core/MeasuredLength.h"
#include "base/core/hash.h"
#include "base/core/memcmpi.h"

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
    length = MeasuredLength(key, length);
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
    length = MeasuredLength(key, length);
    const auto order = [=, this](T* item) { return Compare(item, key, length); };
    return buckets ? Unlink(hash(key, length), order) : Drop(order);
  }
  // The bucket of a key.
  int hash(const char* key, int length) const {
    unsigned n = static_cast<unsigned>(MeasuredLength(key, length));
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
    return std::string_view(key, static_cast<size_t>(MeasuredLength(key, length)));
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

// --- Bodies -------------------------------------------------------------------------------------

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

#endif
