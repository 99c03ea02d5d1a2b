// Which records of a peer reach libfcgi.
// Tested in tests/fastcgi/FastCGIRecordsTest.cpp and tests/e2e/HostilePeerTest.cpp.

#include "fastcgi/FastCGIRecords.h"

#include <fastcgi.h>

#include <algorithm>
#include <cstring>

// --- FastCGIPairs --------------------------------------------------------------------------------

void FastCGIPairs::Start(int largest, int total, int most_long) {
  lengths[0] = lengths[1] = 0;
  field = 0;
  bytes_left = -1;
  skip = 0;
  largest_pair = static_cast<unsigned>(largest);
  left = static_cast<unsigned>(total);
  long_names_left = most_long;
}

bool FastCGIPairs::Add(const unsigned char* bytes, int length) {
  const unsigned char* end = bytes + length;
  while (bytes < end) {
    if (skip == 0 && field == 0 && bytes_left < 0) {
      const int passed = AddShortPairs(bytes, end);
      if (passed < 0) return false;
      bytes += passed;
      if (bytes == end) break;
    }
    if (skip > 0) {
      const unsigned here = std::min(skip, static_cast<unsigned>(end - bytes));
      bytes += here;
      skip -= here;
    } else if (!AddLength(*bytes++)) {
      return false;
    }
  }
  return true;
}

// Nearly every pair has two lengths of one byte, and comes whole.
int FastCGIPairs::AddShortPairs(const unsigned char* bytes, const unsigned char* end) {
  const unsigned char* next = bytes;
  while (end - next > 1 && ((next[0] | next[1]) & 0x80) == 0) {
    const unsigned size = static_cast<unsigned>(next[0]) + next[1];
    if (size > static_cast<size_t>(end - next) - 2) break;
    if (size > largest_pair || size + FastCGIRecords::kPairCost > left) return -1;
    left -= size + FastCGIRecords::kPairCost;
    if (next[0] >= kLongName && --long_names_left < 0) return -1;
    next += 2 + size;
  }
  return static_cast<int>(next - bytes);
}

// A length is one byte below 128, or four bytes whose first bit is 1.
bool FastCGIPairs::AddLength(unsigned char byte) {
  if (bytes_left < 0) {
    bytes_left = (byte & 0x80) ? 3 : 0;
    lengths[field] = byte & 0x7Fu;
  } else {
    lengths[field] = lengths[field] << 8 | byte;
    bytes_left--;
  }
  if (bytes_left > 0) return true;
  bytes_left = -1;
  field = 1 - field;
  return field == 1 || AddPair();
}

// Each length has 31 bits at most, so their sum fits.
bool FastCGIPairs::AddPair() {
  skip = lengths[0] + lengths[1];
  if (skip > largest_pair || skip + FastCGIRecords::kPairCost > left) return false;
  left -= skip + FastCGIRecords::kPairCost;
  return lengths[0] < kLongName || --long_names_left >= 0;
}

// --- FastCGIRecords ------------------------------------------------------------------------------

void FastCGIRecords::Start() {
  phase = Phase::BetweenRequests;
  request_id = FCGI_NULL_REQUEST_ID;
  header_length = 0;
  header_passes = ends_request = refused = false;
  content_left = padding_left = 0;
  content = Content::Drop;
}

int FastCGIRecords::Pass(const unsigned char** from, const unsigned char* end, unsigned char* to,
                         int room) {
  int passed = 0;
  while (*from < end && !refused) {
    if (header_length < FCGI_HEADER_LEN) {
      if (room - passed < kLeastRoom) break;
      refused = !TakeHeader(from, end, to, &passed);
    } else if (content_left > 0) {
      if (room - passed < 2) break;
      refused = !TakeContent(from, end, to, &passed, room);
    } else {
      const int count = std::min(static_cast<int>(end - *from), padding_left);
      *from += count;
      padding_left -= count;
    }
    if (content_left > 0 || padding_left > 0 || header_length < FCGI_HEADER_LEN) continue;
    header_length = 0;
    if (!ends_request) continue;
    ends_request = false;
    break;
  }
  return refused && passed == 0 ? -1 : passed;
}

bool FastCGIRecords::TakeHeader(const unsigned char** from, const unsigned char* end,
                                unsigned char* to, int* passed) {
  const int count = std::min(static_cast<int>(end - *from), FCGI_HEADER_LEN - header_length);
  memcpy(header + header_length, *from, static_cast<size_t>(count));
  *from += count;
  header_length += count;
  if (header_length < FCGI_HEADER_LEN) return true;
  if (!BeginRecord()) return false;
  if (!header_passes) return true;
  memcpy(to + *passed, header, FCGI_HEADER_LEN);
  *passed += FCGI_HEADER_LEN;
  if (content == Content::Question && content_left == 0) to[(*passed)++] = 0;
  return true;
}

// One byte of the room stays free for the padding of a query.
bool FastCGIRecords::TakeContent(const unsigned char** from, const unsigned char* end,
                                 unsigned char* to, int* passed, int room) {
  int count = std::min(static_cast<int>(end - *from), content_left);
  if (content != Content::Drop) {
    count = std::min(count, room - *passed - 1);
    if (content == Content::Parameters && !parameters.Add(*from, count)) return false;
    if (content == Content::Question && !question.Add(*from, count)) return false;
    memcpy(to + *passed, *from, static_cast<size_t>(count));
    *passed += count;
  }
  *from += count;
  content_left -= count;
  if (content == Content::Question && content_left == 0) to[(*passed)++] = 0;
  return true;
}

// Decides about a record once its header is complete. The header is changed so that it announces
// only the bytes that pass.
bool FastCGIRecords::BeginRecord() {
  if (header[0] != FCGI_VERSION_1) return false;
  const int type = header[1];
  const int id = header[2] << 8 | header[3];
  content_left = header[4] << 8 | header[5];
  padding_left = header[6];
  header[6] = 0;
  header_passes = true;
  content = Content::Pass;
  if (type == FCGI_BEGIN_REQUEST) return BeginRequest(id);
  if (id == FCGI_NULL_REQUEST_ID) return BeginManagementRecord();
  if (phase != Phase::BetweenRequests && id == request_id) return BeginStreamRecord(type);
  // The record belongs to a request that has ended or was never accepted.
  header_passes = false;
  content = Content::Drop;
  return true;
}

bool FastCGIRecords::BeginManagementRecord() {
  if (header[1] == FCGI_GET_VALUES) {
    // Three of the longest replies fit into libfcgi's buffer.
    question.Start(FCGI_MAX_LENGTH, 2 * FCGI_MAX_LENGTH, 3);
    content = Content::Question;
    header[6] = 1;
  } else {
    header[4] = header[5] = 0;
    content = Content::Drop;
  }
  return true;
}

// While a connection has a request, libfcgi refuses another one; the first goes on.
bool FastCGIRecords::BeginRequest(int id) {
  if (id == FCGI_NULL_REQUEST_ID || content_left != sizeof(FCGI_BeginRequestBody)) return false;
  if (phase != Phase::BetweenRequests) return true;
  phase = Phase::Parameters;
  request_id = id;
  parameters.Start(kMostParameterBytes, kMostParameterBytes, kMostParameterBytes);
  return true;
}

// Returns false for a record that is out of place. An abort is one of them, because libfcgi gives
// up the request at either.
bool FastCGIRecords::BeginStreamRecord(int type) {
  if (type != (phase == Phase::Parameters ? FCGI_PARAMS : FCGI_STDIN)) return false;
  if (phase == Phase::Parameters) content = Content::Parameters;
  if (content_left > 0) return true;
  ends_request = phase == Phase::Input;
  phase = ends_request ? Phase::BetweenRequests : Phase::Input;
  return true;
}
