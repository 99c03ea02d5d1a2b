// Guard of a file descriptor inside a function: closes it on every way out.

#ifndef ZEPH_BASE_FILEDESCRIPTOR_H
#define ZEPH_BASE_FILEDESCRIPTOR_H

#include <unistd.h>

#include <cerrno>

// Owns one descriptor, or none (-1). Closing never changes errno, so a failure may be reported
// after the guards have closed their descriptors.
class FileDescriptor {
 public:
  explicit FileDescriptor(int opened = -1) : descriptor(opened) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  // Borrowed; -1 when the guard holds nothing.
  int get() const { return descriptor; }
  bool is_open() const { return descriptor >= 0; }

  // Hands the descriptor to the caller, who closes it; the guard then holds nothing.
  [[nodiscard]] int release() {
    int result = descriptor;
    descriptor = -1;
    return result;
  }

  // Closes the descriptor, if there is one, and adopts another. close is not repeated after EINTR,
  // because the descriptor is gone by then and another thread may already use its number.
  void reset(int other = -1) {
    if (descriptor >= 0) {
      int saved = errno;
      close(descriptor);
      errno = saved;
    }
    descriptor = other;
  }

 private:
  int descriptor;
};

#endif
