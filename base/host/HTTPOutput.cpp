// The response of a request: header table, chain of blocks, and the flush that sends both. Tested
// in tests/base/host/HTTPOutputTest.cpp.

#include "base/host/HTTPOutput.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "base/core/MeasuredLength.h"
#include "base/host/Config.h"

namespace {

const int kDefaultBlockSize = 8192;

}  // namespace

HTTPOutput_Header::HTTPOutput_Header(const char* name, int namelength, int nameowned,
                                     const char* value, int valuelength, int valueowned)
    : name(name),
      namelength(MeasuredLength(name, namelength)),
      nameowned(nameowned),
      value(value),
      valuelength(MeasuredLength(value, valuelength)),
      valueowned(valueowned) {}

HTTPOutput_Header::~HTTPOutput_Header() {
  if (nameowned) delete[] name;
  if (valueowned) delete[] value;
}

HTTPOutput_Chain::HTTPOutput_Chain(int growable, int blocksize)
    : growable(growable),
      data(new char[static_cast<size_t>(blocksize)]),
      blocksize(blocksize),
      capacity(blocksize) {}

HTTPOutput_Chain::~HTTPOutput_Chain() {
  delete[] data;
}

int HTTPOutput_Chain::Write(const char* text, int length) {
  if (length > capacity - used) {
    if (!growable) {
      length = capacity - used;
    } else {
      long long wanted = capacity + (static_cast<long long>(length) / blocksize + 1) * blocksize;
      if (wanted > INT_MAX) throw std::bad_alloc();
      char* grown = new char[static_cast<size_t>(wanted)];
      memcpy(grown, data, static_cast<size_t>(used));
      delete[] data;
      data = grown;
      capacity = static_cast<int>(wanted);
    }
  }
  memcpy(data + used, text, static_cast<size_t>(length));
  used += length;
  return length;
}

HTTPOutput::HTTPOutput(int blocksize, int threshold)
    : block_size(blocksize < 1 ? kDefaultBlockSize : blocksize),
      flush_threshold(threshold),
      headers(1, 1, 12, 512) {}

HTTPOutput::~HTTPOutput() {
  while (head) {
    HTTPOutput_Chain* next = head->next;
    delete head;
    head = next;
  }
}

void HTTPOutput::SetBlockSize(int bytes) {
  block_size = bytes < 1 ? kDefaultBlockSize : bytes;
}

void HTTPOutput::SetConfig(Config* config) {
  configuration = config;
}

int HTTPOutput::type() {
  return HTTP;
}

int HTTPOutput::Header(const char* name, int namelength, int nameowned, const char* value,
                       int valuelength, int valueowned) {
  // Owned texts are freed also if there is no memory for the field.
  std::unique_ptr<const char[]> owned_name(nameowned ? name : nullptr);
  std::unique_ptr<const char[]> owned_value(valueowned ? value : nullptr);
  auto field = std::make_unique<HTTPOutput_Header>(name, namelength, nameowned, value, valuelength,
                                                   valueowned);
  (void)owned_name.release();
  (void)owned_value.release();
  if (headers_sent) return 0;
  delete headers.Remove(field->name, field->namelength);
  InsertOwned(headers, std::move(field));
  return 1;
}

void HTTPOutput::CountPut() {
  const int put = CloseRoom();
  if (put == 0) return;
  tail->used += put;
  total += put;
  since_flush += put;
}

void HTTPOutput::HoldRoom() {
  const long long before_flush = flush_threshold - since_flush - 1;
  const long long size = std::min<long long>(tail->capacity - tail->used, before_flush);
  if (size > 0) OpenRoom(tail->data + tail->used, static_cast<int>(size));
}

int HTTPOutput::Write(const char* text, int length) {
  length = MeasuredLength(text, length);
  if (length == 0) return 0;
  CountPut();
  total += length;
  since_flush += length;
  if (tail && length <= tail->capacity - tail->used) {
    memcpy(tail->data + tail->used, text, static_cast<size_t>(length));
    tail->used += length;
  } else {
    Append(text, length);
  }
  NoteLastByte(text, length);
  if (since_flush >= flush_threshold) {
    Flush(0);
    since_flush = 0;
  }
  HoldRoom();
  return length;
}

void HTTPOutput::Append(const char* text, int length) {
  if (!tail) head = tail = new HTTPOutput_Chain(0, block_size);
  for (;;) {
    int taken = tail->Write(text, length);
    text += taken;
    length -= taken;
    if (length == 0) return;
    tail->next = new HTTPOutput_Chain(0, block_size);
    tail = tail->next;
  }
}

bool HTTPOutput::DropBody() {
  if (headers_sent) return false;
  CountPut();
  total = since_flush = 0;
  if (head) FreeRest();
  return true;
}

int HTTPOutput::Flush() {
  return Flush(0);
}

int HTTPOutput::Flush(int withlength) {
  CountPut();
  if (!headers_sent) {
    // The length is a header field like others, so it must be added before headers_sent is set.
    if (withlength) Header_ContentLength();
    headers_sent = 1;
    OutputHeaders();
  }
  long long written = 0;
  bool failed = false;
  for (HTTPOutput_Chain* block = head; block && !failed; block = block->next) {
    if (block->used > 0) written += WriteBlock(block->data, block->used, &failed);
  }
  if (head) FreeRest();
  return static_cast<int>(std::min(written, static_cast<long long>(INT_MAX)));
}

void HTTPOutput::FreeRest() {
  HTTPOutput_Chain* block = head->next;
  while (block) {
    HTTPOutput_Chain* next = block->next;
    delete block;
    block = next;
  }
  head->next = nullptr;
  head->used = 0;
  tail = head;
}

long long HTTPOutput::WriteBlock(const char* text, int length, bool* failed) {
  int written = DoWrite(text, length);
  if (written < 0) {
    *failed = true;
    return 0;
  }
  while (written < length) {
    Pause();
    int more = DoWrite(text + written, length - written);
    if (more <= 0) {
      *failed = more < 0;
      break;
    }
    written += more;
  }
  return written;
}

void HTTPOutput::Pause() {
  if (pause < 0) {
    pause = configuration ? configuration->value_integer(Config_delay_file) : 0;
    if (pause < 0) pause = 0;
  }
  std::this_thread::sleep_for(std::chrono::microseconds(pause));
}

void HTTPOutput::Header_ContentLength() {
  CountPut();
  static const char kName[] = "Content-Length";
  if (headers.Find(kName, sizeof kName - 1)) return;
  char* const text = length_text;
  const char* const end = std::to_chars(text, text + sizeof length_text, total).ptr;
  Header(kName, sizeof kName - 1, 0, text, static_cast<int>(end - text), 0);
}
