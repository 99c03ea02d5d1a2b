// The base of the body parsers, and the handler of bodies of other types. Tested in
// tests/base/request/UnknownContentHandlerTest.cpp.

#include "base/request/HTTPContentParser.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/compiled/VariableHash.h"
#include "base/core/Limits.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"

namespace {

// First size of the buffer, in bytes; a smaller body with its terminator gets exactly its size.
const int kFirstRoom = kFirstBodyRoom;

}  // namespace

HTTPContentParser::HTTPContentParser(VariableHash* target) : target(target) {}
HTTPContentParser::~HTTPContentParser() = default;

const String& HTTPContentParser::error() {
  return error_text;
}

void HTTPContentParser::Error(const String& text) {
  error_text = text;
}

UnknownContentHandler::UnknownContentHandler(VariableHash* system, int length)
    : HTTPContentParser(system),
      declared(std::max(length, 0)),
      buffer(nullptr),
      capacity(std::min(declared, kFirstRoom - 1) + 1) {
  buffer = new (std::nothrow) char[static_cast<size_t>(capacity)];
}

UnknownContentHandler::~UnknownContentHandler() {
  delete[] buffer;
}

bool UnknownContentHandler::MakeRoom(int length) {
  if (!buffer) return false;
  const long needed = static_cast<long>(used) + length + 1;
  if (needed <= capacity) return true;
  if (needed > INT_MAX) return false;
  // Growth stops at the declared length, so that the last buffer is not larger than the body.
  long larger = std::max(2L * capacity, needed);
  if (needed <= declared + 1L) larger = std::min(larger, declared + 1L);
  larger = std::min<long>(larger, INT_MAX);
  std::unique_ptr<char[]> grown(new (std::nothrow) char[static_cast<size_t>(larger)]);
  if (!grown) return false;
  memcpy(grown.get(), buffer, static_cast<size_t>(used));
  delete[] buffer;
  buffer = grown.release();
  capacity = static_cast<int>(larger);
  return true;
}

bool UnknownContentHandler::Parse(const char* data, int length) {
  if (!MakeRoom(length)) {
    OwnError("Out of memory");
    return false;
  }
  if (length > 0) memcpy(buffer + used, data, static_cast<size_t>(length));
  used += length;
  return true;
}

bool UnknownContentHandler::Finalize() {
  if (buffer) buffer[used] = '\0';
  target->SetVariable(
      new ImmutableVariable("content_data", -1, std::exchange(buffer, nullptr), used, capacity));
  return true;
}
