// The hash table of names as compiled files store it, for functions, languages, tokens and
// variables. A bucket has the index of its first entry, each entry the index of the next one, and
// chains are sorted by name length, then by memcmpi. Tables from a file are used unchanged and
// never rebuilt.

#ifndef ZEPH_BASE_STOREDNAMETABLE_H
#define ZEPH_BASE_STOREDNAMETABLE_H

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/core/Limits.h"
#include "base/core/memcmpi.h"

// The order of two names in a chain: below 0, 0 or above 0.
inline int CompareNames(const char* a, int a_length, const char* b, int b_length) {
  if (a_length != b_length) return a_length < b_length ? -1 : 1;
  return memcmpi(a, b, static_cast<size_t>(a_length));
}

// Buckets and chains, for an owner that holds the entries and their names. Belongs to one thread.
//
// A file can state any head and any link. A link outside the entries ends a walk, and so does a
// chain longer than the count of entries: whatever a file holds, the worst result of a lookup is
// "not found".
//
// The count of buckets never grows, so a visitor's form or a page that a script reads can make a
// chain as long as it likes. A long chain therefore has a lane as well: its entries in an array in
// the order of the chain, in which a name is found by halving.
//
// A request makes several tables and never uses most of them. Therefore nothing is allocated before
// the first entry, and a table from a file keeps its few buckets as a sorted list. The array of all
// buckets is made at the first insertion.
class StoredNameTable {
 public:
  // Bucket numbers have 16 bits in the file.
  static constexpr int MaxBits = 16;

  // The first 7 bytes of every stored table.
  struct Head {
    static constexpr int Size = 7;

    int occupied;  // buckets in use: 2 bytes
    int bits;      // log2 of the bucket count: 1 byte
    int count;     // entries: 4 bytes

    static Head Decode(const unsigned char* bytes);
    bool valid() const { return bits <= MaxBits && count >= 0; }
  };
  // A bucket in the file: its number (2 bytes) and its first entry (4 bytes).
  static constexpr int BucketSize = 6;

  // bits is 0 to MaxBits; capacity is the count of entries to make room for at first.
  StoredNameTable(int bits, int capacity);
  StoredNameTable(const StoredNameTable& other);
  StoredNameTable& operator=(const StoredNameTable&) = delete;

  int bits() const { return hash_bits; }
  int bucket_count() const { return 1 << hash_bits; }
  int buckets_used() const { return used; }
  int capacity() const { return chain_capacity; }
  int count() const { return entry_count; }
  // The next entry of the same bucket; -1 ends the chain. REQUIRES: 0 <= entry < count().
  int next(int entry) const { return chain[entry]; }

  // The bucket of a name: its hash without regard to case, masked.
  int hash(const char* name, int length) const;
  // The first entry of a bucket, -1 for an empty one. The file states it, so it may be out of
  // range.
  int first(int bucket) const;

  // The first entry of that name, or -1. name_of(entry, &length) gives an entry's name. A name that
  // sorts after the one searched for ends the walk.
  template <class NameOf>
  int Find(const char* name, int length, NameOf name_of) const {
    const int bucket = hash(name, length);
    if (const Lane* lane = LaneOf(bucket)) [[unlikely]] {
      const size_t place = Place(*lane, name, length, false, name_of);
      if (place == lane->size()) return -1;
      int other_length = 0;
      const char* other = name_of((*lane)[place], &other_length);
      return CompareNames(name, length, other, other_length) == 0 ? (*lane)[place] : -1;
    }
    int entry = first(bucket);
    for (int left = entry_count; left > 0 && IsEntry(entry); left--) {
      int other_length = 0;
      const char* other = name_of(entry, &other_length);
      int order = CompareNames(name, length, other, other_length);
      if (order == 0) return entry;
      if (order < 0) return -1;
      entry = chain[entry];
    }
    return -1;
  }

  // Makes room for one more entry. Returns true if capacity() has changed or the first entry is
  // about to come. Where there is no memory, the table stays as it was.
  bool MakeRoom(int growth);
  // The same with an array of the owner, which has capacity() elements once there is an entry: the
  // present ones are moved to a larger array, and the others are zero. The array and the table grow
  // together or, where there is no memory, not at all.
  template <class T>
  void MakeRoom(int growth, std::unique_ptr<T[]>* entries) {
    if (HasRoom()) return;
    auto larger = std::make_unique<T[]>(static_cast<size_t>(GrownCapacity(growth)));
    (void)MakeRoom(growth);
    if (*entries) std::move(entries->get(), entries->get() + entry_count, larger.get());
    *entries = std::move(larger);
  }

  // Enters a name and returns its entry, whose index is the old count(). A name that equals an
  // older one comes after it in the chain and is never found. REQUIRES: MakeRoom was called before.
  template <class NameOf>
  int Insert(const char* name, int length, NameOf name_of) {
    MakeHeads();
    int entry = entry_count;
    int bucket = hash(name, length);
    if (LaneOf(bucket)) [[unlikely]]
      return InsertByLane(bucket, name, length, name_of);
    int previous = -1;
    int following = heads[bucket];
    if (following == -1) used++;
    int steps = 0;
    for (; steps < entry && IsEntry(following); steps++) {
      int other_length = 0;
      const char* other = name_of(following, &other_length);
      if (CompareNames(name, length, other, other_length) < 0) break;
      previous = following;
      following = chain[following];
    }
    if (steps >= LongChain && MakeLane(bucket, name_of)) [[unlikely]] {
      return InsertByLane(bucket, name, length, name_of);
    }
    Link(bucket, previous, entry);
    return entry;
  }

  // Replaces this table with a stored one. buckets has head.occupied records. links points to the
  // first entry's link; each further one is stride bytes later. REQUIRES: head.valid().
  void Read(const Head& head, const unsigned char* buckets, const unsigned char* links, int stride);

  // Appends the head, that many reserved zero bytes, and the buckets in ascending order.
  void Write(std::string* bytes, int reserved) const;

 private:
  struct Bucket {
    int number;
    int first;
  };
  // The entries of one bucket in the order of its chain; empty for a chain without a lane.
  using Lane = std::vector<int>;

  // An insertion that passes so many entries makes a lane. Each of them is likely to be a miss of
  // the cache.
  static constexpr int LongChain = ZEPH_LIMIT(16, 2);

  bool IsEntry(int entry) const { return entry >= 0 && entry < entry_count; }
  bool HasRoom() const { return chain && entry_count < chain_capacity; }
  int GrownCapacity(int growth) const {
    return entry_count >= chain_capacity ? chain_capacity + growth : chain_capacity;
  }
  void MakeHeads();

  // Null if the chain has none.
  Lane* LaneOf(int bucket) const {
    return lanes && !lanes[bucket].empty() ? &lanes[bucket] : nullptr;
  }
  // The first place in a lane whose name does not sort before the given one; with past_equal, the
  // first whose name sorts after it.
  template <class NameOf>
  static size_t Place(const Lane& lane, const char* name, int length, bool past_equal,
                      NameOf name_of) {
    const auto found = std::partition_point(lane.begin(), lane.end(), [&](int entry) {
      int other_length = 0;
      const char* other = name_of(entry, &other_length);
      return CompareNames(name, length, other, other_length) >= (past_equal ? 0 : 1);
    });
    return static_cast<size_t>(found - lane.begin());
  }
  // The lane gets the entry first, because that may fail for want of memory.
  template <class NameOf>
  int InsertByLane(int bucket, const char* name, int length, NameOf name_of) {
    Lane* const lane = LaneOf(bucket);
    const size_t place = Place(*lane, name, length, true, name_of);
    const int entry = entry_count;
    lane->insert(lane->begin() + static_cast<ptrdiff_t>(place), entry);
    Link(bucket, place == 0 ? -1 : (*lane)[place - 1], entry);
    return entry;
  }
  // Puts the newest entry after another one of the bucket; previous is -1 for the front.
  void Link(int bucket, int previous, int entry) {
    int& link = previous == -1 ? heads[bucket] : chain[previous];
    chain[entry] = IsEntry(link) ? link : -1;
    link = entry;
    entry_count++;
  }
  // A chain that is damaged gets no lane, because its walk does not see all of its entries; false
  // then.
  template <class NameOf>
  bool MakeLane(int bucket, NameOf name_of) {
    Lane lane;
    for (int entry = heads[bucket]; IsEntry(entry); entry = chain[entry]) {
      if (lane.size() == static_cast<size_t>(entry_count)) return false;
      int length = 0, before_length = 0;
      const char* name = name_of(entry, &length);
      if (!lane.empty()) {
        const char* before = name_of(lane.back(), &before_length);
        if (CompareNames(before, before_length, name, length) > 0) return false;
      }
      lane.push_back(entry);
    }
    if (!lanes) lanes = std::make_unique<Lane[]>(static_cast<size_t>(bucket_count()));
    lanes[bucket] = std::move(lane);
    return true;
  }

  int hash_bits;
  int used = 0;
  int stored_count = 0;
  std::unique_ptr<Bucket[]> stored;  // ascending; empty once heads exists
  std::unique_ptr<int[]> heads;      // one a bucket
  std::unique_ptr<int[]> chain;
  std::unique_ptr<Lane[]> lanes;  // one a bucket, made with the first lane
  int chain_capacity;
  int chain_room = 0;  // links that there is memory for; doubles, while the capacity grows by steps
  int entry_count = 0;
};

#endif
