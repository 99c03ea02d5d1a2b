// Writes to descriptor 1.

#include "base/systems/unix/StandardOutput.h"

#include <unistd.h>

#include <cerrno>

StandardOutput::StandardOutput(int buffered, int buffersize)
    : BufferedOutput(buffersize), buffered(buffered) {}

StandardOutput::~StandardOutput() {
  Flush();
}

int StandardOutput::Write(const char* text, int length) {
  int written = BufferedOutput::Write(text, length);
  if (buffered) {
    HoldRoom();
  } else {
    Flush();
  }
  return written;
}

int StandardOutput::DoWrite(const char* text, int length) {
  int written = 0;
  while (written < length) {
    ssize_t n = write(STDOUT_FILENO, text + written, static_cast<size_t>(length - written));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return written > 0 ? written : -1;
    written += static_cast<int>(n);
  }
  return written;
}
