// CallBuffer, the body of a response for a scanner: buffered bytes, read one at a time or in runs.
// Tested in tests/base/network/CallScannerTest.cpp.

#ifndef ZEPH_BASE_CALLBUFFER_H
#define ZEPH_BASE_CALLBUFFER_H

#include <cstdint>
#include <memory>

#include "base/core/StringClass.h"

class HTTPResponseStream;

// Belongs to one Call and its thread. The order of the fields and of the virtual operations is
// fixed.
//
// Bytes count as signed, and -1 is the end of the data. So the byte 0xFF ends the data as the true
// end does, and what comes after it is never read. Also, the data ends early when the run's time is
// over (base/core/RunLimit.h).
class CallBuffer {
 public:
  // The stream is borrowed; its head has been read. size is that of the buffer in bytes, at least
  // 1.
  CallBuffer(HTTPResponseStream* stream, int size);
  virtual ~CallBuffer();
  CallBuffer(const CallBuffer&) = delete;
  CallBuffer& operator=(const CallBuffer&) = delete;

  // *character receives the next byte, or -1 at the end. Returns false only if the stream could not
  // be read; *character is then -1, and the text is in error().
  [[nodiscard]] virtual bool GetNextChar(int* character);
  // Gives the last character again before the rest. Several in a row come out in reverse order.
  virtual void UnGetChar();
  // Replaces the used bytes by the stream's next ones; none at the end. False if the stream could
  // not be read. REQUIRES: all bytes of the buffer have been used.
  [[nodiscard]] virtual bool FillBuffer();
  // A null String keeps the older text.
  virtual void Error(const String& text);
  virtual const String& error();

  // The bytes that can be had without another read, from *begin up to *end. Reads more if there are
  // none, so an empty run is the end of the data. False if the stream could not be read; then the
  // run is empty. The run is valid until the next call of any operation.
  [[nodiscard]] bool Run(const char** begin, const char** end) {
    if (pushback.length > 0 || position == count) [[unlikely]]
      return FindRun(begin, end);
    *begin = buffer.get() + position;
    *end = buffer.get() + count;
    return true;
  }
  // Uses the first n bytes of the run. REQUIRES: it has that many, and n is 1 or more.
  void Take(int n) {
    if (pushback.length > 0) [[unlikely]] {
      last = Signed(pushback.data[pushback.length - 1]);
      pushback.chop(1);
      return;
    }
    position += n;
    last = Signed(buffer[static_cast<size_t>(position) - 1]);
  }
  // The number of bytes of the body before the next one, without regard to those given back.
  int64_t Place() const { return offset + position; }

 private:
  static int Signed(char byte) { return (static_cast<unsigned char>(byte) ^ 0x80) - 0x80; }
  bool FindRun(const char** begin, const char** end);

  HTTPResponseStream* stream;
  std::unique_ptr<char[]> buffer;
  int size;
  int position = 0;
  int64_t offset = 0;  // bytes of the body before the buffer
  int count = 0;
  int last = -1;    // the character that was given last
  String pushback;  // given back, the next one at the end
  String error_text;
  bool ended = false;  // nothing is read from the stream any more
};

#endif
