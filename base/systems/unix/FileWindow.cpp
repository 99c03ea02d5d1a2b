// Maps a file that is read in small pieces and copies from the mapping. Tested in
// tests/base/systems/unix/FileWindowTest.cpp.

#include "base/systems/unix/FileWindow.h"

#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "base/core/Limits.h"
#include "base/systems/unix/GuardedCopy.h"
#include "base/systems/unix/SystemCalls.h"

namespace {

// A mapping and its page faults cost about as much as this many reads. Copying a larger piece costs
// more than a read.
constexpr int misses_before_mapping = kReadsBeforeMapping;
constexpr size_t longest_piece = 4096;

// After a piece of zeros, a byte that is not zero is searched for within this distance.
constexpr size_t witness_distance = 1024;

// True for local file systems whose reads come from the same pages that a mapping shows, and take
// no lock that a write holds: while a write is going on, both reads and mappings may see a part of
// it.
bool SharesPages(int descriptor) {
  struct statfs status;
  if (fstatfs(descriptor, &status) != 0) return false;
  const auto type = static_cast<unsigned long>(status.f_type);
  return type == EXT4_SUPER_MAGIC || type == BTRFS_SUPER_MAGIC || type == TMPFS_MAGIC;
}

size_t LeadingZeros(const char* bytes, size_t length) {
  size_t count = 0;
  uint64_t word = 0;
  for (; count + sizeof(word) <= length; count += sizeof(word)) {
    memcpy(&word, bytes + count, sizeof(word));
    if (word != 0) break;
  }
  while (count < length && bytes[count] == 0) count++;
  return count;
}

}  // namespace

bool FileWindow::Read(int descriptor, long position, char* bytes, size_t length) {
  if (length == 0 || length > longest_piece) return false;
  if (Copy(position, bytes, length)) return true;
  CountMiss(descriptor);
  return false;
}

bool FileWindow::Copy(long position, char* bytes, size_t length) {
  const long after = position + static_cast<long>(length);
  if (after > end || !GuardedCopy(bytes, start + position, length)) return false;
  return bytes[length - 1] != 0 || ShowsByteFrom(after);
}

// Checks after the copy: if the file was truncated before it, the mapping shows zeros by now.
bool FileWindow::ShowsByteFrom(long position) {
  char bytes[witness_distance];
  const auto distance = static_cast<size_t>(witness - position);
  if (witness >= position && distance < witness_distance &&
      GuardedCopy(bytes, start + witness, 1) && bytes[0] != 0)
    return true;
  const size_t length = std::min(static_cast<size_t>(end - position), witness_distance);
  if (!GuardedCopy(bytes, start + position, length)) return false;
  const size_t zeros = LeadingZeros(bytes, length);
  if (zeros == length) return false;
  witness = position + static_cast<long>(zeros);
  return true;
}

void FileWindow::CountMiss(int descriptor) {
  if (++misses < misses_before_mapping) return;
  Close();
  Open(descriptor);
}

void FileWindow::Open(int descriptor) {
  struct stat status;
  if (!SharesPages(descriptor) || !CanGuardCopies() ||
      system_calls.fstat(descriptor, &status) != 0 || status.st_size < 1)
    return;
  const long length = std::min<long>(status.st_size, INT_MAX);
  void* address =
      system_calls.mmap(nullptr, static_cast<size_t>(length), PROT_READ, MAP_SHARED, descriptor, 0);
  if (address == MAP_FAILED) return;
  start = static_cast<const char*>(address);
  end = length;
}

void FileWindow::Close() {
  if (start) munmap(const_cast<char*>(start), static_cast<size_t>(end));
  start = nullptr;
  end = 0;
  misses = 0;
  witness = -1;
}
