// The operators new and delete of the process, and what each run takes from the heap. Tested in
// tests/base/systems/unix/ThreadMemoryTest.cpp.

#include "base/core/ThreadMemory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "base/compiled/TaggedFile.h"
#include "base/core/FreeList.h"
#include "base/core/Sanitizers.h"
#include "base/core/SpareText.h"
#include "base/extensions/ExternalLibrary.h"
#include "base/host/ErrorLog.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/Variable.h"

extern "C" {
// Functions of jemalloc; null in a process that has another heap.
[[gnu::weak]] int mallctl(const char* name, void* old, size_t* old_length, void* value,
                          size_t length);
[[gnu::weak]] int mallctlnametomib(const char* name, size_t* mib, size_t* count);
[[gnu::weak]] int mallctlbymib(const size_t* mib, size_t count, void* old, size_t* old_length,
                               void* value, size_t length);
// jemalloc reads this when the process starts. Unused pages go back to the system within seconds.
// In an idle process the heartbeats trigger that (GiveUnusedMemoryBack).
extern const char* malloc_conf;
const char* malloc_conf = "dirty_decay_ms:3000,muzzy_decay_ms:0";
}

namespace {

// More than any process can have, and far below the limit of an int64_t.
const size_t kAny = SIZE_MAX / 2;
// Kept for a message when no memory is left.
const size_t kReserve = 64 << 10;
// The end of a run may take this much beyond its limit.
const int64_t kGrace = 1 << 20;
// A run that has taken more than this leaves no blocks for the next one.
const uint64_t kLargeRun = 4 << 20;
// More than the heap takes at once for the first block of a thread.
const size_t kFirstPages = 4 << 20;

// jemalloc's counters for this thread, read in place; null until the first run.
constinit thread_local const uint64_t* heap_taken = nullptr;
constinit thread_local const uint64_t* heap_freed = nullptr;

constinit thread_local int64_t base = 0;  // the bytes used when the run began
constinit thread_local uint64_t taken_before = 0;
constinit thread_local int64_t given_before = 0;  // bytes that came from another thread
constinit thread_local int64_t limit = 0;         // 0 is none
constinit thread_local int64_t grace = 0;
constinit thread_local ThreadMemory::Judge judge = nullptr;
constinit thread_local void* reserve = nullptr;
constinit thread_local bool prepared = false;
// The last block that was refused.
constinit thread_local size_t refused = 0;
constinit thread_local bool refused_by_limit = false;
constinit thread_local bool ran_short = false;
// What was short, and whether a line has told it in this run.
constinit thread_local char shortage[64] = {};
constinit thread_local bool has_shortage = false;
constinit thread_local bool has_reported = false;

const uint64_t* HeapCounter(const char* name) {
  uint64_t* counter = nullptr;
  size_t length = sizeof counter;
  if (!mallctl || mallctl(name, &counter, &length, nullptr, 0) != 0) return nullptr;
  return counter;
}

[[noreturn]] void Refuse(size_t size, bool by_limit) {
  refused = size;
  refused_by_limit = by_limit;
  throw std::bad_alloc();
}

}  // namespace

// --- The operators -------------------------------------------------------------------------------

struct ThreadMemoryOperators {
  static void* New(size_t size) {
    ThreadMemory::Charge(size);
    void* const memory = malloc(size);
    if (!memory || ThreadMemory::counts) [[unlikely]]
      return Counted(memory, size);
    return memory;
  }
  static void* NewAligned(size_t size, std::align_val_t alignment) {
    ThreadMemory::Charge(size);
    void* memory = nullptr;
    const size_t least = static_cast<size_t>(alignment) < sizeof(void*)
                             ? sizeof(void*)
                             : static_cast<size_t>(alignment);
    if (posix_memalign(&memory, least, size) != 0) memory = nullptr;
    return Counted(memory, size);
  }
  // Out of line, so that a block of a heap that counts by itself costs little more than its malloc.
  [[gnu::noinline]] static void* Counted(void* memory, size_t size) {
    if (!memory) [[unlikely]]
      Refuse(size, false);
    if (ThreadMemory::counts) {
      ThreadMemory::taken += malloc_usable_size(memory);
      const auto now = static_cast<int64_t>(ThreadMemory::taken - ThreadMemory::freed);
      if (now > ThreadMemory::most_counted) ThreadMemory::most_counted = now;
    }
    return memory;
  }
  static void NoteFree(void* memory) {
    if (ThreadMemory::counts && memory) ThreadMemory::freed += malloc_usable_size(memory);
  }
  static void Delete(void* memory) {
    NoteFree(memory);
    free(memory);
  }
  template <typename Make>
  static void* OrNull(Make make) noexcept {
    try {
      return make();
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
};

using Operators = ThreadMemoryOperators;

// Under the thread sanitizer there are none of these: its operators cannot be replaced, so nothing
// is counted or refused there. The address sanitizer requires that a block is freed by the
// counterpart of the operator that made it.
#if ZEPH_THREAD_SANITIZER
#elif ZEPH_ADDRESS_SANITIZER

// The sanitizer's own operators with an alignment remember which operator made a block.
const std::align_val_t kUsual{__STDCPP_DEFAULT_NEW_ALIGNMENT__};

void* operator new(size_t size) {
  ThreadMemory::Charge(size);
  return Operators::Counted(::operator new(size, kUsual, std::nothrow), size);
}
void* operator new[](size_t size) {
  ThreadMemory::Charge(size);
  return Operators::Counted(::operator new[](size, kUsual, std::nothrow), size);
}
void operator delete(void* memory) noexcept {
  Operators::NoteFree(memory);
  ::operator delete(memory, kUsual);
}
void operator delete[](void* memory) noexcept {
  Operators::NoteFree(memory);
  ::operator delete[](memory, kUsual);
}
void operator delete(void* memory, size_t) noexcept {
  ::operator delete(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  ::operator delete[](memory);
}

#else

void* operator new(size_t size) {
  return Operators::New(size);
}
void* operator new[](size_t size) {
  return Operators::New(size);
}
void* operator new(size_t size, std::align_val_t alignment) {
  return Operators::NewAligned(size, alignment);
}
void* operator new[](size_t size, std::align_val_t alignment) {
  return Operators::NewAligned(size, alignment);
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return Operators::OrNull([=] { return Operators::NewAligned(size, alignment); });
}
void* operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return Operators::OrNull([=] { return Operators::NewAligned(size, alignment); });
}
void operator delete(void* memory) noexcept {
  Operators::Delete(memory);
}
void operator delete[](void* memory) noexcept {
  Operators::Delete(memory);
}
void operator delete(void* memory, size_t) noexcept {
  Operators::Delete(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  Operators::Delete(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  Operators::Delete(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  Operators::Delete(memory);
}
void operator delete(void* memory, size_t, std::align_val_t) noexcept {
  Operators::Delete(memory);
}
void operator delete[](void* memory, size_t, std::align_val_t) noexcept {
  Operators::Delete(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  Operators::Delete(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  Operators::Delete(memory);
}

#endif

#if !ZEPH_THREAD_SANITIZER
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Operators::OrNull([=] { return ::operator new(size); });
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return Operators::OrNull([=] { return ::operator new[](size); });
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  ::operator delete(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  ::operator delete[](memory);
}
#endif

// --- The memory that a run has taken -------------------------------------------------------------

namespace {

// Makes the operators count if the heap does not.
struct Counting {
  explicit Counting(bool* counts) { *counts = HeapCounter("thread.allocatedp") == nullptr; }
};

// jemalloc's record of the most that a thread has had, by a number, because a look-up by name takes
// longer.
struct HeapPeak {
  HeapPeak() {
    size_t length = 3;
    if (mallctlnametomib && mallctlbymib &&
        mallctlnametomib("thread.peak.reset", reset, &length) == 0 && length == 3) {
      length = 3;
      works = mallctlnametomib("thread.peak.read", read, &length) == 0 && length == 3;
    }
  }
  void Reset() const {
    if (works) mallctlbymib(reset, 3, nullptr, nullptr, nullptr, 0);
  }
  int64_t Read() const {
    uint64_t most = 0;
    size_t length = sizeof most;
    if (!works || mallctlbymib(read, 3, &most, &length, nullptr, 0) != 0) return 0;
    return static_cast<int64_t>(most);
  }

  size_t reset[3];
  size_t read[3];
  bool works = false;
};

const HeapPeak& PeakOfHeap() {
  static const HeapPeak peak;
  return peak;
}

std::atomic<int64_t> largest_peak{0};

}  // namespace

bool ThreadMemory::NewIsHere() {
  // A library that was loaded before the program may bring its own operators. Only the operators of
  // this file call the judge.
  static const bool same = [] {
    static constinit thread_local bool asked = false;
    void* (*volatile make)(size_t) = &::operator new[];
    const Judge before = judge;
    SetJudge([](size_t) { return !(asked = true); });
    void* memory = make(1);
    SetJudge(before);
    ::operator delete[](memory);
    return asked;
  }();
  return same;
}

bool ThreadMemory::NewIsMalloc() {
  return !kAddressSanitizer && NewIsHere();
}

bool ThreadMemory::NewIsMeasurable() {
  return kThreadSanitizer || NewIsHere();
}

void ThreadMemory::Refuse(size_t size) {
  ::Refuse(size, false);
}

int64_t ThreadMemory::Used() {
  if (counts) return static_cast<int64_t>(taken - freed) - base;
  if (!heap_taken) return 0;
  return static_cast<int64_t>(*heap_taken - *heap_freed) - base;
}

void ThreadMemory::Begin() {
  Begin(0);
}

void ThreadMemory::Begin(int64_t given) {
  static const Counting counting(&counts);
  (void)counting;
  if (!counts && !heap_taken) {
    heap_freed = HeapCounter("thread.deallocatedp");
    heap_taken = HeapCounter("thread.allocatedp");
  }
  assert(counts || heap_taken);
  limit = grace = 0;
  refused = 0;
  ran_short = has_shortage = has_reported = false;
  base = 0;
  base = Used() - given;
  taken_before = counts ? taken : *heap_taken;
  given_before = given;
  if (counts) {
    most_counted = static_cast<int64_t>(taken - freed);
  } else {
    PeakOfHeap().Reset();
  }
  allowance = judge ? 0 : kAny;
  if (prepared && !reserve) reserve = malloc(kReserve);
}

void ThreadMemory::SetLimit(int64_t bytes) {
  limit = bytes > 0 ? bytes : 0;
  allowance = 0;
}

int64_t ThreadMemory::Peak() {
  if (counts) return most_counted - base;
  return PeakOfHeap().works ? PeakOfHeap().Read() + given_before : 0;
}

int64_t ThreadMemory::LargestPeak() {
  return largest_peak.load(std::memory_order_relaxed);
}

void ThreadMemory::HandOver(int64_t bytes) {
  base += bytes;
}

void ThreadMemory::End() {
  limit = grace = 0;
  allowance = judge ? 0 : kAny;
  if ((counts ? taken : *heap_taken) - taken_before < kLargeRun) return;
  const int64_t peak = Peak();
  int64_t largest = largest_peak.load(std::memory_order_relaxed);
  while (peak > largest && !largest_peak.compare_exchange_weak(largest, peak)) {
  }
  FreeLists::Trim();
  if (mallctl) mallctl("thread.tcache.flush", nullptr, nullptr, nullptr, 0);
}

void ThreadMemory::Refill(size_t size) {
  if (judge && judge(size)) ::Refuse(size, false);
  size_t left = kAny;
  if (limit != 0) {
    const int64_t free = limit + grace - Used();
    left = free > 0 ? static_cast<size_t>(free) : 0;
  }
  if (size > left) ::Refuse(size, limit != 0);
  allowance = judge ? 0 : left - size;
}

void ThreadMemory::SetJudge(Judge asked) {
  judge = asked;
  allowance = 0;
}

// --- Out of memory -------------------------------------------------------------------------------

bool ThreadMemory::RanShort() {
  return ran_short;
}

// Nothing below allocates memory.

void ThreadMemory::Exhausted() {
  if (grace == 0) grace = kGrace;
  ran_short = ran_short || !refused_by_limit;
  allowance = 0;
  free(reserve);
  reserve = nullptr;
  if (refused == 0) {
    snprintf(shortage, sizeof shortage, "a text has no more than 2147483647 bytes");
  } else if (refused_by_limit) {
    snprintf(shortage, sizeof shortage, "memory_limit is %lld bytes",
             static_cast<long long>(limit));
  } else {
    snprintf(shortage, sizeof shortage, "the process has no %zu bytes left", refused);
  }
  refused = 0;
  has_shortage = true;
}

const char* ThreadMemory::TakeShortage() {
  if (!has_shortage) return nullptr;
  has_shortage = false;
  has_reported = true;
  return shortage;
}

void ThreadMemory::Exhausted(const char* path, int length) {
  Exhausted();
  const bool reports = !has_reported;
  const char* const what = TakeShortage();
  if (!reports) return;
  if (ErrorLog& log = ErrorLog::OfProcess(); log.IsOpen()) {
    LogLine message;
    message.Text(path, length).Text(": Out of memory: ").Text(what);
    log.Write(ErrorLog::Level::Error, message);
    return;
  }
  char line[1024];
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  const int used =
      snprintf(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d %.*s: Out of memory: %s\n",
               local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
               local.tm_sec, length < 800 ? length : 800, path, what);
  if (used > 0 && write(STDERR_FILENO, line, static_cast<size_t>(used)) < 0) return;
}

// --- Threads -------------------------------------------------------------------------------------

namespace {

// The main thread lives until the process ends, so it may keep freed blocks.
[[maybe_unused]] const bool main_keeps_blocks = (FreeLists::Open(), true);

// Runs last when a thread ends.
struct ThreadEnd {
  ~ThreadEnd() {
    FreeLists::Close();
    free(reserve);
    reserve = nullptr;
    prepared = false;
  }
};

// jemalloc makes a store for a thread with its first block, and does not check that it got the
// memory for that. So check beforehand.
bool HasFirstPages() {
  void* pages =
      mmap(nullptr, kFirstPages, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return false;
  munmap(pages, kFirstPages);
  return true;
}

}  // namespace

bool ThreadMemory::Prepare() {
  if (prepared) return true;
  if (!HasFirstPages()) return false;
  static thread_local ThreadEnd end;
  (void)end;
  // These register destructors. FreeCycles makes the list of suspects.
  ExternalLibrary::PrepareThread();
  TaggedFile::PrepareThread();
  UNIXReentrantFileManager::PrepareThread();
  Variable::FreeCycles();
  FreeLists::Open();
  prepared = true;
  Begin();
  return true;
}

void FreeLists::Trim() {
  SpareText::Drop();
  while (List* list = used) {
    used = list->next_used;
    list->next_used = nullptr;
    list->room = 0;
    while (Block* block = list->head) {
      list->head = block->next;
      ::operator delete(block);
    }
  }
}

void GiveUnusedMemoryBack() {
  // 4096 means all arenas.
  if (mallctl) mallctl("arena.4096.decay", nullptr, nullptr, nullptr, 0);
}
