// The stored hash table of names. Tested in tests/base/compiled/StoredNameTableTest.cpp.
#include "base/compiled/StoredNameTable.h"

#include "base/core/LittleEndian.h"
#include "base/core/hash.h"

using namespace LittleEndian;

StoredNameTable::Head StoredNameTable::Head::Decode(const unsigned char* bytes) {
  return {Get16(bytes), bytes[2], GetInt32(bytes + 3)};
}

StoredNameTable::StoredNameTable(int bits, int capacity)
    : hash_bits(std::clamp(bits, 0, MaxBits)), chain_capacity(std::max(capacity, 1)) {}

StoredNameTable::StoredNameTable(const StoredNameTable& other)
    : hash_bits(other.hash_bits),
      used(other.used),
      stored_count(other.stored_count),
      chain_capacity(other.chain_capacity),
      chain_room(other.chain ? other.chain_capacity : 0),
      entry_count(other.entry_count) {
  if (other.stored) {
    stored = std::make_unique_for_overwrite<Bucket[]>(static_cast<size_t>(stored_count));
    std::copy_n(other.stored.get(), stored_count, stored.get());
  }
  if (other.heads) {
    heads = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(bucket_count()));
    std::copy_n(other.heads.get(), bucket_count(), heads.get());
  }
  if (other.chain) {
    chain = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(chain_capacity));
    std::copy_n(other.chain.get(), chain_capacity, chain.get());
  }
}

int StoredNameTable::hash(const char* name, int length) const {
  return static_cast<int>(hashi(name, static_cast<unsigned>(length), 0) &
                          static_cast<unsigned>(bucket_count() - 1));
}

int StoredNameTable::first(int bucket) const {
  if (heads) return heads[bucket];
  const Bucket* end = stored.get() + stored_count;
  const Bucket* found =
      std::lower_bound(static_cast<const Bucket*>(stored.get()), end, bucket,
                       [](const Bucket& item, int number) { return item.number < number; });
  return found != end && found->number == bucket ? found->first : -1;
}

void StoredNameTable::MakeHeads() {
  if (heads) return;
  heads = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(bucket_count()));
  std::fill_n(heads.get(), bucket_count(), -1);
  for (int i = 0; i < stored_count; i++) heads[stored[i].number] = stored[i].first;
  stored.reset();
  stored_count = 0;
}

bool StoredNameTable::MakeRoom(int growth) {
  if (HasRoom()) return false;
  const int grown = GrownCapacity(growth);
  if (grown > chain_room || !chain) {
    const int room = std::max(grown, 2 * chain_room);
    auto larger = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(room));
    std::fill_n(larger.get(), room, -1);
    if (chain) std::copy_n(chain.get(), entry_count, larger.get());
    chain = std::move(larger);
    chain_room = room;
  }
  chain_capacity = grown;
  return true;
}

void StoredNameTable::Read(const Head& head, const unsigned char* buckets,
                           const unsigned char* links, int stride) {
  hash_bits = head.bits;
  used = head.occupied;
  chain_capacity = head.count;
  entry_count = head.count;
  heads.reset();
  lanes.reset();
  stored.reset();
  stored_count = 0;
  chain.reset();
  // Most tables of a script are empty.
  if (head.count > 0) {
    chain = std::make_unique_for_overwrite<int[]>(static_cast<size_t>(head.count));
  }
  chain_room = head.count;
  int* const chained = chain.get();
  for (int i = 0; i < head.count; i++, links += stride) chained[i] = GetInt32(links);

  int left = head.occupied;
  if (left == 0) return;
  stored = std::make_unique_for_overwrite<Bucket[]>(static_cast<size_t>(left));
  Bucket* const list = stored.get();
  const int end = bucket_count();
  int listed = 0;
  for (int before = -1; left > 0; left--, buckets += BucketSize) {
    const Bucket bucket = {Get16(buckets), GetInt32(buckets + 2)};
    if (bucket.number >= end) continue;
    if (bucket.number <= before) break;
    list[listed++] = bucket;
    before = bucket.number;
  }
  stored_count = listed;
  if (left == 0) return;
  // Known writers store ascending buckets. Any other order needs the array, in which the last
  // record of a bucket wins.
  MakeHeads();
  for (; left > 0; left--, buckets += BucketSize) {
    const int number = Get16(buckets);
    if (number < end) heads[number] = GetInt32(buckets + 2);
  }
}

void StoredNameTable::Write(std::string* bytes, int reserved) const {
  int occupied = 0;
  std::string records;
  for (int bucket = 0; bucket < bucket_count(); bucket++) {
    int entry = first(bucket);
    if (entry == -1) continue;
    Append16(&records, static_cast<uint16_t>(bucket));
    Append32(&records, entry);
    occupied++;
  }
  Append16(bytes, static_cast<uint16_t>(occupied));
  bytes->push_back(static_cast<char>(hash_bits));
  Append32(bytes, entry_count);
  bytes->append(static_cast<size_t>(reserved), '\0');
  bytes->append(records);
}
