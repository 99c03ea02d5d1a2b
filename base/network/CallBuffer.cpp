// Reads the body of a response in blocks. Tested in tests/base/network/CallScannerTest.cpp.

#include "base/network/CallBuffer.h"

#include <cstring>

#include "base/core/RunLimit.h"
#include "base/network/HTTPResponseStream.h"

CallBuffer::CallBuffer(HTTPResponseStream* stream, int size)
    : stream(stream), buffer(new char[static_cast<size_t>(size)]), size(size) {}

CallBuffer::~CallBuffer() = default;

bool CallBuffer::GetNextChar(int* character) {
  *character = last = -1;
  const char *begin, *end;
  if (pushback.length > 0) {
    last = Signed(pushback.data[pushback.length - 1]);
    pushback.chop(1);
  } else if (!Run(&begin, &end)) {
    return false;
  } else if (begin != end) {
    Take(1);
  }
  *character = last;
  return true;
}

void CallBuffer::UnGetChar() {
  pushback.cat(static_cast<char>(last));
}

bool CallBuffer::FillBuffer() {
  offset += count;
  position = count = 0;
  if (ended) return true;
  if (RunLimit::Over()) {
    ended = true;
    return true;
  }
  int length = stream->Read(buffer.get(), size);
  if (length < 0) {
    Error(stream->error);
    return false;
  }
  if (length == 0) ended = true;
  // Found here, once for a block, so that no reader of runs has to look for it.
  if (const void* stop = memchr(buffer.get(), 0xFF, static_cast<size_t>(length))) {
    length = static_cast<int>(static_cast<const char*>(stop) - buffer.get());
    ended = true;
  }
  count = length;
  return true;
}

void CallBuffer::Error(const String& text) {
  if (text.data) error_text.assign(text.data, text.length);
}

const String& CallBuffer::error() {
  return error_text;
}

bool CallBuffer::FindRun(const char** begin, const char** end) {
  if (pushback.length > 0) {
    *begin = pushback.data + pushback.length - 1;
    // An end that was given back is an end again.
    *end = *begin + (Signed(**begin) == -1 ? 0 : 1);
    return true;
  }
  const bool filled = FillBuffer();
  *begin = buffer.get();
  *end = buffer.get() + count;
  return filled;
}
