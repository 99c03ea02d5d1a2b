// The output of a command-line run: descriptor 1.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_STANDARDOUTPUT_H
#define ZEPH_BASE_SYSTEMS_UNIX_STANDARDOUTPUT_H

#include "base/host/BufferedOutput.h"

class StandardOutput : public BufferedOutput {
 public:
  // With buffered 0 every write is flushed at once. buffersize is in bytes.
  StandardOutput(int buffered, int buffersize);
  // Flushes what is left.
  ~StandardOutput() override;

  int Write(const char* text, int length) override;
  // Returns the bytes written, or -1 when nothing could be written.
  int DoWrite(const char* text, int length) override;

 private:
  int buffered;
};

#endif
