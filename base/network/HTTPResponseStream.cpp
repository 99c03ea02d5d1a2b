// The reader of HTTP responses. Tested in tests/base/network/HTTPResponseStreamTest.cpp.

#include "base/network/HTTPResponseStream.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/core/CLocale.h"
#include "base/core/RunLimit.h"
#include "base/core/memcmpi.h"
#include "base/network/NetworkConnection.h"

namespace {

// Bytes that are asked for at once while a line is read. Most lines are shorter.
const int kLineRoom = 512;

bool EqualIgnoringCase(const String& text, const char* other) {
  const size_t length = strlen(other);
  return static_cast<size_t>(text.length) == length && memcmpi(text.data, other, length) == 0;
}

bool IsEmptyLine(const String& line) {
  return (line.length == 1 && line.data[0] == '\n') ||
         (line.length == 2 && line.data[0] == '\r' && line.data[1] == '\n');
}

}  // namespace

HTTPResponseStream_Header::HTTPResponseStream_Header(const String& line)
    : text(line), name(line.before(":")), value(line.after(":")) {
  name.StripWhitespace();
  value.StripWhitespace();
}

HTTPResponseStream::HTTPResponseStream(NetworkConnection* connection, int timeout)
    : headers(1), connection(connection), timeout(timeout) {}

HTTPResponseStream::~HTTPResponseStream() = default;

bool HTTPResponseStream::Read_Headers() {
  headers.Dump();
  status = -1;
  content_length = -1;
  chunked = 0;
  chunk_size = 0;
  chunk_position = 0;
  total = 0;

  String line;
  if (!ReadLine(line)) return false;
  line.StripWhitespace();
  const char* blank = strchr(line.data, ' ');
  const long number = blank ? LeadingNumber(blank + 1) : 0;
  status = number >= INT_MIN && number <= INT_MAX ? static_cast<int>(number) : 0;
  InsertOwned(headers, std::make_unique<HTTPResponseStream_Header>(line), ListTail);

  for (;;) {
    if (!ReadLine(line)) return false;
    if (IsEmptyLine(line)) break;
    line.StripWhitespace();
    auto header = std::make_unique<HTTPResponseStream_Header>(line);
    UseHeader(*header);
    InsertOwned(headers, std::move(header), ListTail);
  }
  return chunked ? Read_ChunkStart() : true;
}

// Chunks win over a length, whichever of the two headers is first.
void HTTPResponseStream::UseHeader(const HTTPResponseStream_Header& header) {
  if (EqualIgnoringCase(header.name, "Transfer-Encoding")) {
    chunked = EqualIgnoringCase(header.value, "chunked");
    content_length = -1;
  } else if (!chunked && EqualIgnoringCase(header.name, "Content-Length")) {
    const long length = LeadingNumber(header.value.data);
    content_length = length >= 0 && length <= INT_MAX ? static_cast<int>(length) : -1;
  }
}

bool HTTPResponseStream::ReadLine(String& line) {
  // A peer that sends a line now and then never lets a wait run out.
  if (RunLimit::Over()) {
    error = String("Read Timeout");
    return false;
  }
  if (connection->ReadLine(line, timeout, kLineRoom) > 0) return true;
  error = connection->error();
  return false;
}

bool HTTPResponseStream::Read_ChunkStart() {
  String line;
  if (!ReadLine(line)) return false;
  const long size = strtol_l(line.data, nullptr, 16, CLocale());
  if (size < 0 || size > INT_MAX) {
    error = String("Invalid chunk size");
    return false;
  }
  chunk_size = static_cast<int>(size);
  chunk_position = 0;
  return true;
}

bool HTTPResponseStream::Read_ChunkEnd() {
  char end[2];
  const int count = connection->Read(end, sizeof end, timeout);
  if (count == sizeof end && end[0] == '\r' && end[1] == '\n') return true;
  error = String("Invalid chunk terminator");
  return false;
}

int HTTPResponseStream::Read(char* buffer, int length) {
  if (length <= 0) return 0;
  if (chunked) {
    if (chunk_size == 0) return 0;
    // A chunk that is used up is the current one only after a failure, whose text stays.
    if (chunk_position == chunk_size) return -1;
    length = std::min(length, chunk_size - chunk_position);
  } else if (content_length >= 0) {
    length = static_cast<int>(std::min<int64_t>(length, content_length - total));
    if (length <= 0) return 0;
  }

  const int count = connection->Read(buffer, length, timeout);
  if (count < 0) {
    error = connection->error();
    return -1;
  }
  total += count;
  if (!chunked) return count;

  chunk_position += count;
  if (chunk_position < chunk_size) return count;
  if (!Read_ChunkEnd() || !Read_ChunkStart()) return -1;
  // The CR LF of an empty trailer. A trailer with lines is not understood.
  if (chunk_size == 0 && !Read_ChunkEnd()) return -1;
  return count;
}

void HTTPResponseStream::Close() {
  delete connection;
  connection = nullptr;
}
