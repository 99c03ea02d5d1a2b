// An output that keeps everything that is written to it, for tests.

#ifndef ZEPH_TESTS_SUPPORT_RECORDINGOUTPUT_H
#define ZEPH_TESTS_SUPPORT_RECORDINGOUTPUT_H

#include <cstring>
#include <string>
#include <vector>

#include "base/core/Output.h"

class RecordingOutput : public Output {
 public:
  int Write(const char* bytes, int length) override {
    if (length == -1) length = static_cast<int>(strlen(bytes));
    text.append(bytes, static_cast<size_t>(length));
    pieces.emplace_back(bytes, static_cast<size_t>(length));
    NoteLastByte(bytes, length);
    return length;
  }
  using Output::Header;
  int Header(const char* name, int, int nameowned, const char* value, int,
             int valueowned) override {
    headers.push_back(std::string(name) + ": " + value);
    if (nameowned) delete[] name;
    if (valueowned) delete[] value;
    return 1;
  }
  int Flush() override {
    flushes++;
    return 0;
  }
  using Output::Flush;
  int type() override { return Null; }

  std::string text;
  std::vector<std::string> pieces;   // one for each write
  std::vector<std::string> headers;  // "name: value"
  int flushes = 0;
};

#endif
