// One buffer in front of a sink, the capture of text in memory, and the output to nowhere. Tested
// in tests/base/host/BufferedOutputTest.cpp.

#include "base/host/BufferedOutput.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "base/core/Limits.h"
#include "base/core/MeasuredLength.h"

BufferedOutput::BufferedOutput(int capacity)
    : buffer(nullptr), capacity(capacity < 1 ? kOutputBuffer : capacity) {
  buffer = new char[static_cast<size_t>(this->capacity)];
}

BufferedOutput::~BufferedOutput() {
  delete[] buffer;
}

int BufferedOutput::Write(const char* text, int length) {
  length = MeasuredLength(text, length);
  if (length == 0) return 0;
  TakePut();
  if (length > capacity) {
    const char* p = text;
    int left = length;
    while (left > 0) {
      if (used == capacity) Flush();
      int part = std::min(left, capacity - used);
      memcpy(buffer + used, p, static_cast<size_t>(part));
      used += part;
      p += part;
      left -= part;
    }
  } else {
    if (length > capacity - used) Flush();
    memcpy(buffer + used, text, static_cast<size_t>(length));
    used += length;
  }
  NoteLastByte(text, length);
  return length;
}

int BufferedOutput::Flush() {
  TakePut();
  if (used == 0) return 0;
  int written = DoWrite(buffer, used);
  used = 0;
  return written;
}

int BufferedOutput::type() {
  return Buffered;
}

CaptureOutput::CaptureOutput(Output* parent)
    : BufferedOutput(kOutputBuffer), OutputLayer(parent, true), base(buffer) {
  allocated = capacity;
  capacity--;  // room for the terminator that the receiver writes
}

CaptureOutput::~CaptureOutput() {
  delete[] base;
  buffer = nullptr;  // it points into base
}

// The text is freed at once, because captures that have found this one may keep the object for
// long.
void CaptureOutput::Close() {
  TakePut();
  delete[] base;
  base = buffer = nullptr;
  captured = used = capacity = 0;
  EndLayer();
}

int CaptureOutput::Write(const char* text, int length) {
  const int written = BufferedOutput::Write(text, length);
  HoldRoom();
  return written;
}

int CaptureOutput::Write_Error(const char* text, int length) {
  return BelowAllPassedBy()->Write_Error(text, length);
}

int CaptureOutput::Header(const char* name, const char* value) {
  return BelowAllPassedBy()->Header(name, value);
}

int CaptureOutput::Header(const char* name, int namelength, int nameowned, const char* value,
                          int valuelength, int valueowned) {
  return BelowAllPassedBy()->Header(name, namelength, nameowned, value, valuelength, valueowned);
}

int CaptureOutput::Flush() {
  TakePut();
  long total = static_cast<long>(captured) + used;
  long needed = total + capacity + 1;
  if (needed > INT_MAX) throw std::bad_alloc();
  if (needed > allocated) {
    long size = std::max(needed, std::min(2 * allocated, static_cast<long>(INT_MAX)));
    char* grown = new char[static_cast<size_t>(size)];
    memcpy(grown, base, static_cast<size_t>(total));
    delete[] base;
    base = grown;
    allocated = size;
  }
  captured = static_cast<int>(total);
  buffer = base + captured;
  used = 0;
  return 0;
}

int CaptureOutput::DoWrite(const char*, int length) {
  return length;
}

char* CaptureOutput::data(int* length, int* size) {
  TakePut();
  char* next = new char[static_cast<size_t>(capacity) + 1];
  char* text = base;
  *length = captured + used;
  *size = captured + capacity + 1;
  base = buffer = next;
  allocated = capacity + 1;
  captured = used = 0;
  return text;
}

NullOutput::NullOutput(int (*receiver)(const char*, int)) : callback(receiver) {}

int NullOutput::Write(const char* text, int length) {
  // The receiver gets other negative lengths as they are.
  if (length == -1) length = MeasuredLength(text, -1);
  return DoWrite(text, length);
}

int NullOutput::Write_Compressed(const char* text, int length) {
  return Write(text, length);
}
int NullOutput::Flush() {
  return 1;
}
int NullOutput::Flush(int) {
  return 0;
}
int NullOutput::type() {
  return Null;
}

int NullOutput::DoWrite(const char* text, int length) {
  return callback ? callback(text, length) : length;
}
