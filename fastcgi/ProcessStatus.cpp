// The records of a process and its threads. Tested in tests/fastcgi/ProcessStatusTest.cpp.

#include "fastcgi/ProcessStatus.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "base/core/StringClass.h"
#include "base/core/ThreadMemory.h"

namespace {

constexpr int kMostSlots = 4096;
constexpr int kScriptRoom = ThreadStatus::kScriptWords * 8;
constexpr char kCut[] = "...";
constexpr int kTries = 10;

}  // namespace

// Each word is stored with release and read with acquire: a reader that sees a word of the later
// path also sees the later version.
void ThreadStatus::SetScript(const char* path, int length) {
  char bytes[kScriptRoom] = {};
  if (length <= kScriptRoom) {
    memcpy(bytes, path, static_cast<size_t>(std::max(length, 0)));
  } else {
    const int cut = sizeof kCut - 1;
    memcpy(bytes, kCut, cut);
    memcpy(bytes + cut, path + length - (kScriptRoom - cut), kScriptRoom - cut);
  }
  const uint32_t before = version.load(std::memory_order_relaxed);
  version.store(before + 1, std::memory_order_relaxed);
  for (int i = 0; i < kScriptWords; i++) {
    uint64_t word;
    memcpy(&word, bytes + 8 * i, 8);
    script[i].store(word, std::memory_order_release);
  }
  version.store(before + 2, std::memory_order_release);
}

std::string ThreadStatus::Script() const {
  for (int i = 0; i < kTries; i++) {
    const uint32_t before = version.load(std::memory_order_acquire);
    char bytes[kScriptRoom];
    for (int word = 0; word < kScriptWords; word++) {
      const uint64_t value = script[word].load(std::memory_order_acquire);
      memcpy(bytes + 8 * word, &value, 8);
    }
    if (before % 2 == 0 && version.load(std::memory_order_relaxed) == before) {
      return {bytes, strnlen(bytes, kScriptRoom)};
    }
  }
  return "";
}

int64_t ProcessStatus::Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// --- StatusBoard ---------------------------------------------------------------------------------

StatusBoard::StatusBoard(int threads) {
  const auto slots = static_cast<uint32_t>(std::clamp(threads, 0, kMostSlots));
  const size_t wanted = sizeof(ProcessStatus) + slots * sizeof(ThreadStatus);
  void* memory = mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  size = wanted;
  process = new (memory) ProcessStatus;
  for (uint32_t i = 0; i < slots; i++) new (process->thread(i)) ThreadStatus;
  process->slots.store(slots);
  process->started.store(ProcessStatus::Now());
}

StatusBoard::~StatusBoard() {
  if (process) munmap(process, size);
}

StatusBoard::StatusBoard(StatusBoard&& other) noexcept
    : process(std::exchange(other.process, nullptr)), size(other.size) {}

StatusBoard& StatusBoard::operator=(StatusBoard&& other) noexcept {
  std::swap(process, other.process);
  std::swap(size, other.size);
  return *this;
}

ProcessStatus* StatusBoard::release() {
  return std::exchange(process, nullptr);
}

// --- OwnStatus -----------------------------------------------------------------------------------

ProcessStatus* OwnStatus::process = nullptr;
int OwnStatus::notified = -1;

void OwnStatus::Use(ProcessStatus* status, int notify) {
  process = status;
  notified = notify;
  if (process) process->pid.store(getpid());
}

void OwnStatus::SetPhase(ProcessPhase phase) {
  if (!process) return;
  // A process only goes on to later phases: its threads may have served their last request before
  // it is ready.
  uint32_t present = process->phase.load();
  while (present < static_cast<uint32_t>(phase)) {
    if (process->phase.compare_exchange_weak(present, static_cast<uint32_t>(phase))) break;
  }
  const uint64_t one = 1;
  if (notified >= 0 && write(notified, &one, sizeof one) < 0) {
    // Only a full counter refuses it, and its reader is then about to look anyway.
  }
}

OwnStatus::Task::Task() {
  if (!process) return;
  process->tasks.fetch_add(1, std::memory_order_relaxed);
  process->tasks_started.fetch_add(1, std::memory_order_relaxed);
}

OwnStatus::Task::~Task() {
  if (process) process->tasks.fetch_sub(1, std::memory_order_relaxed);
}

OwnStatus::Thread::Thread(unsigned number) {
  if (!process) return;
  const uint32_t slot = process->threads.fetch_add(1, std::memory_order_relaxed);
  if (slot >= process->slots.load(std::memory_order_relaxed)) return;
  current = process->thread(slot);
  current->number.store(number, std::memory_order_relaxed);
  Enter(ThreadPhase::Idle);
}

OwnStatus::Thread::~Thread() {
  Enter(ThreadPhase::None);
  current = nullptr;
}

void OwnStatus::Begin(ThreadPhase phase) {
  current->began.store(ProcessStatus::Now(), std::memory_order_relaxed);
  current->SetScript("", 0);
  Enter(phase);
}

void OwnStatus::AwaitRequest() {
  if (!current) return;
  const auto idle = static_cast<uint32_t>(ThreadPhase::Idle);
  if (current->phase.load(std::memory_order_relaxed) == idle) Begin(ThreadPhase::Receiving);
}

OwnStatus::Request::Request() {
  if (current) Begin(ThreadPhase::Loading);
}

OwnStatus::Request::~Request() {
  const auto relaxed = std::memory_order_relaxed;
  if (!current) {
    // Without any record of a thread no one reads the sum.
    if (process && process->slots.load(relaxed) > 0) process->other_requests.fetch_add(1, relaxed);
    return;
  }
  const int64_t time = ProcessStatus::Now() - current->began.load(relaxed);
  current->busy.store(current->busy.load(relaxed) + time, relaxed);
  if (time > current->longest.load(relaxed)) current->longest.store(time, relaxed);
  current->requests.store(current->requests.load(relaxed) + 1, relaxed);
  Enter(ThreadPhase::Idle);
}

void OwnStatus::NotePeak() {
  const auto relaxed = std::memory_order_relaxed;
  const int64_t peak = ThreadMemory::Peak();
  if (peak > current->memory.load(relaxed)) current->memory.store(peak, relaxed);
}

void OwnStatus::SetScript(const String& path) {
  if (current) current->SetScript(path.data, path.length);
}
