// The parts of an output that do not depend on its sink. Tested in tests/base/core/OutputTest.cpp.

#include "base/core/Output.h"

#include "base/core/MeasuredLength.h"
#include "base/core/RunLimit.h"

// A compressed write returns the length that it was given, a negative one too, so only -1 is
// measured here.

Output::~Output() = default;

int Output::Write_Error(const char* text, int length) {
  int written = Write(text, length);
  Flush();
  return written;
}

int Output::Header(const char* name, const char* value) {
  return Header(name, -1, 0, value, -1, 0);
}

int Output::Header(const char* name, int, int nameowned, const char* value, int, int valueowned) {
  if (nameowned) delete[] name;
  if (valueowned) delete[] value;
  return 0;
}

int Output::Write_Compressed(const char* text, int length) {
  if (output_flags & CompressFast) return Write_Compressed_Fast(text, length);
  if (output_flags & CompressFull) return Write_Compressed_Full(text, length);
  return Write(text, length);
}

int Output::Flush(int) {
  return 0;
}

int Output::flags() {
  return output_flags;
}

void Output::SetFlags(int flags) {
  output_flags = flags;
}

int Output::Write_Compressed_Fast(const char* text, int length) {
  if (length == -1) length = MeasuredLength(text, -1);
  int skip = length > 0 && IsBehindSpace() && zp_isspace(text[0]) ? 1 : 0;
  if (length > skip) Write(text + skip, length - skip);
  return length;
}

int Output::Write_Compressed_Full(const char* text, int length) {
  if (length == -1) length = MeasuredLength(text, -1);
  const char* p = text;
  const char* end = text + length;
  if (IsBehindSpace()) {
    while (p < end && zp_isspace(*p)) p++;
  }
  // Each piece is a run of text with the one white-space byte that ends it.
  RunWatch watch(1 << 16);
  while (p < end && !watch.Over()) {
    const char* start = p;
    while (p < end && !zp_isspace(*p)) p++;
    if (p < end) p++;
    Write(start, static_cast<int>(p - start));
    while (p < end && zp_isspace(*p)) p++;
  }
  return length;
}
