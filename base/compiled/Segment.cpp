// Code segments and their section. Tested in tests/base/compiled/SegmentTest.cpp.
#include "base/compiled/Segment.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/compiled/HotCode.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/LittleEndian.h"

using namespace LittleEndian;

namespace {

// The section, offsets counted from its start:
//
//  0              4          count of segments
//  4              4          number of the start segment
//  8              8 * count  table: offset after the table's end (4), length (4)
//  8 + 8 * count             code
constexpr int SegmentsTag = MakeTag("segs");
constexpr int HeadSize = 8;
constexpr int RecordSize = 8;

constexpr int ArrayGrowth = 64;

}  // namespace

// --- Segment -------------------------------------------------------------------------------------

Segment::Segment(int number) : Segment(number, Growth) {
  data_length = 0;
}

Segment::Segment(int number, int length)
    : segment_number(number),
      data_capacity(std::max(length, 0)),
      data_length(data_capacity),
      data_room(data_capacity) {
  data = std::make_unique<unsigned char[]>(static_cast<size_t>(data_capacity) + Padding);
}

Segment::Segment(int number, const unsigned char* bytes, int length)
    : segment_number(number),
      data(std::make_unique_for_overwrite<unsigned char[]>(
          static_cast<size_t>(std::max(length, 0)) + Padding)),
      data_capacity(std::max(length, 0)),
      data_length(data_capacity),
      data_room(data_capacity) {
  memcpy(data.get(), bytes, static_cast<size_t>(data_length));
  memset(data.get() + data_length, 0, Padding);
}

Segment::Segment(const Segment& other)
    : segment_number(other.segment_number),
      data(std::make_unique_for_overwrite<unsigned char[]>(
          static_cast<size_t>(other.data_capacity) + Padding)),
      data_capacity(other.data_capacity),
      data_length(other.data_length),
      data_room(other.data_capacity) {
  memcpy(data.get(), other.data.get(), static_cast<size_t>(data_capacity) + Padding);
}

Segment::~Segment() = default;

void Segment::MakeHot(const Dictionary& dictionary, const FunctionManager* functions) {
  if (data_length > LongestHot) return;
  hot_code = std::make_unique<HotCode>(data.get(), data_length, dictionary, functions);
}

void Segment::Cool() {
  hot_code.reset();
  repeats = 0;
}

void Segment::Grow(int size) {
  if (size < data_capacity) return;
  long long wanted = (static_cast<long long>(size) + Growth - 1) / Growth * Growth;
  if (wanted > INT_MAX) throw std::bad_alloc();
  if (wanted > data_room) {
    const long long room = std::max(wanted, std::min(2LL * data_room, INT_MAX - 1LL * Growth));
    auto larger = std::make_unique<unsigned char[]>(static_cast<size_t>(room) + Padding);
    memcpy(larger.get(), data.get(), static_cast<size_t>(data_length));
    data = std::move(larger);
    data_room = static_cast<int>(room);
  }
  data_capacity = static_cast<int>(wanted);
}

void Segment::Trim() {
  if (data_length == data_capacity) return;
  const size_t kept = static_cast<size_t>(data_length) + Padding;
  auto smaller = std::make_unique_for_overwrite<unsigned char[]>(kept);
  memcpy(smaller.get(), data.get(), kept);
  data = std::move(smaller);
  data_capacity = data_room = data_length;
}

unsigned char* Segment::Place(int position, int size) {
  if (position < 0 || position > INT_MAX - Growth - size) return nullptr;
  int end = position + size;
  Cool();
  Grow(end);
  data_length = std::max(data_length, end);
  return data.get() + position;
}

int Segment::Write_Byte(int position, unsigned char value) {
  unsigned char* place = Place(position, 1);
  if (!place) return -1;
  *place = value;
  return position + 1;
}

int Segment::Write_Word(int position, unsigned short value) {
  unsigned char* place = Place(position, 2);
  if (!place) return -1;
  Put16(place, value);
  return position + 2;
}

int Segment::Write_Dword(int position, unsigned int value) {
  unsigned char* place = Place(position, 4);
  if (!place) return -1;
  Put32(place, value);
  return position + 4;
}

int Segment::Write_Double(int position, double value) {
  unsigned char* place = Place(position, 8);
  if (!place) return -1;
  PutDouble(place, value);
  return position + 8;
}

int Segment::Read_Byte(int position, unsigned char* value) const {
  if (!Holds(position, 1)) return -1;
  *value = data[position];
  return position + 1;
}

int Segment::Read_Word(int position, unsigned short* value) const {
  if (!Holds(position, 2)) return -1;
  *value = Get16(data.get() + position);
  return position + 2;
}

int Segment::Read_Dword(int position, unsigned int* value) const {
  if (!Holds(position, 4)) return -1;
  *value = Get32(data.get() + position);
  return position + 4;
}

int Segment::Read_Double(int position, double* value) const {
  if (!Holds(position, 8)) return -1;
  *value = GetDouble(data.get() + position);
  return position + 8;
}

bool Segment::Read(TaggedFile* file, int tag, int offset) {
  Cool();
  return file->Section_Read(tag, offset, reinterpret_cast<char*>(data.get()), data_length) ==
         data_length;
}

bool Segment::Write(TaggedFile* file) const {
  return file->Section_Write(reinterpret_cast<const char*>(data.get()), data_length) == data_length;
}

namespace {

void DumpOperand(FILE* file, const char* before, const unsigned char* bytes, int size) {
  if (size == 4)
    fprintf(file, "%sdword:%d", before, GetInt32(bytes));
  else if (size == 8)
    fprintf(file, "%sdouble:%f", before, GetDouble(bytes));
}

}  // namespace

void Segment::Dump(const char* path, const char* expression, int length) const {
  FILE* file = fopen(path, "w");
  if (!file) return;
  fprintf(file, "\n\nExpression: %.*s\n", length, expression);
  int position = 0;
  while (position + 1 < data_length) {
    const unsigned char* bytes = data.get() + position;
    unsigned short word = Get16(bytes);
    const Instruction::Row* row = Instruction::Find(word);
    int first = Instruction::FirstOperandSize(word);
    int second = Instruction::SecondOperandSize(word);
    fprintf(file, "%d\t", position);
    if (row && row->listed) {
      // Operands that are cut off at the end are read from the padding.
      fprintf(file, "%s\t", row->name);
      DumpOperand(file, "", bytes + 2, first);
      DumpOperand(file, ", ", bytes + 2 + first, second);
      fputc('\n', file);
    } else {
      fputs("Illegal Instruction\n", file);
    }
    position += 2 + first + second;
  }
  fclose(file);
}

// --- SegmentManager ------------------------------------------------------------------------------

// The bytes of a section whose rows share their code.
struct SegmentManager::SharedCode {
  struct Row {
    int offset;
    int length;
  };

  std::vector<Row> rows;  // offsets count from the first byte that is kept
  std::unique_ptr<unsigned char[]> bytes;
};

SegmentManager::SegmentManager() = default;

SegmentManager::SegmentManager(const SegmentManager& other)
    : array_capacity(other.array_capacity),
      segment_count(other.segment_count),
      start_number(other.start_number),
      error_text(other.error_text),
      shared_code(other.shared_code) {
  if (!other.segments) return;
  MakeArray();
  for (int i = 0; i < segment_count; i++)
    if (other.segments[i]) segments[i] = std::make_unique<Segment>(*other.segments[i]);
}

SegmentManager::~SegmentManager() = default;

String& SegmentManager::error() {
  return error_text;
}

void SegmentManager::Error(const String& text) {
  if (text.data) error_text = text;
}

void SegmentManager::MakeArray() {
  if (!segments)
    segments = std::make_unique<std::unique_ptr<Segment>[]>(static_cast<size_t>(array_capacity));
}

Segment* SegmentManager::Start() {
  if (Segment* const start = Lookup(start_number)) return start;
  MakeArray();
  segments[start_number] = std::make_unique<Segment>(start_number);
  return segments[start_number].get();
}

Segment* SegmentManager::Segment_Add() {
  MakeArray();
  if (segment_count == array_capacity) {
    auto larger = std::make_unique<std::unique_ptr<Segment>[]>(
        static_cast<size_t>(array_capacity + ArrayGrowth));
    std::move(segments.get(), segments.get() + segment_count, larger.get());
    segments = std::move(larger);
    array_capacity += ArrayGrowth;
  }
  auto& slot = segments[segment_count];
  slot = std::make_unique<Segment>(segment_count);
  segment_count++;
  return slot.get();
}

bool SegmentManager::Read(TaggedFile* file) {
  if (ReadSection(file)) return true;
  Error(file->error());
  return false;
}

bool SegmentManager::ReadSection(TaggedFile* file) {
  unsigned char head[HeadSize];
  if (file->Section_Read(SegmentsTag, 0, reinterpret_cast<char*>(head), HeadSize) != HeadSize)
    return false;
  int count = GetInt32(head);
  int start = GetInt32(head + 4);
  if (count < 1 || start < 0 || start >= count) return false;

  std::unique_ptr<unsigned char[]> scratch;
  long long table_size = RecordSize * static_cast<long long>(count);
  const unsigned char* bytes = file->Section_View(HeadSize, table_size, &scratch);
  if (!bytes) return false;
  // Copied, because reading the code may move the window away from the table.
  std::string table(reinterpret_cast<const char*>(bytes), static_cast<size_t>(table_size));

  segments = std::make_unique<std::unique_ptr<Segment>[]>(static_cast<size_t>(count));
  array_capacity = count;
  segment_count = count;
  start_number = start;
  shared_code.reset();
  const auto* const records = reinterpret_cast<const unsigned char*>(table.data());
  const long long code_start = table_size + HeadSize;
  long long total = 0;
  for (int i = 0; i < count; i++) {
    const unsigned char* const record = records + static_cast<size_t>(i) * RecordSize;
    const long long offset = GetInt32(record) + code_start;
    const int length = GetInt32(record + 4);
    if (!file->Section_Holds(offset, length)) return false;
    total += length;
    // The sum can exceed the section only if rows share bytes.
    if (!file->Section_Holds(0, total)) return ReadShared(file, table);
    bytes = file->Section_View(offset, length, &scratch);
    if (!bytes) return false;
    segments[i] = std::make_unique<Segment>(i, bytes, length);
  }
  return true;
}

// Keeps the whole section. MakeLate makes the segments that ReadSection has not made yet.
bool SegmentManager::ReadShared(TaggedFile* file, const std::string& table) {
  const long long code_start = HeadSize + static_cast<long long>(table.size());
  auto shared = std::make_shared<SharedCode>();
  shared->rows.reserve(static_cast<size_t>(segment_count));
  const auto* record = reinterpret_cast<const unsigned char*>(table.data());
  long long end = 0;
  for (int i = 0; i < segment_count; i++, record += RecordSize) {
    const long long offset = GetInt32(record) + code_start;
    const int length = GetInt32(record + 4);
    if (!file->Section_Holds(offset, length)) return false;
    shared->rows.push_back({static_cast<int>(offset), length});
    end = std::max(end, offset + length);
  }
  shared->bytes = std::make_unique_for_overwrite<unsigned char[]>(static_cast<size_t>(end));
  if (file->Section_Read(SegmentsTag, 0, reinterpret_cast<char*>(shared->bytes.get()),
                         static_cast<int>(end)) != end)
    return false;
  shared_code = std::move(shared);
  return true;
}

Segment* SegmentManager::MakeLate(int number) const {
  if (static_cast<size_t>(number) >= shared_code->rows.size()) return nullptr;
  const SharedCode::Row& row = shared_code->rows[static_cast<size_t>(number)];
  segments[number] =
      std::make_unique<Segment>(number, shared_code->bytes.get() + row.offset, row.length);
  return segments[number].get();
}

bool SegmentManager::Write(TaggedFile* file) {
  std::string table;
  Append32(&table, segment_count);
  Append32(&table, start_number);
  int offset = 0;
  for (int i = 0; i < segment_count; i++) {
    const Segment* segment = Lookup(i);
    int length = segment ? segment->length() : 0;
    Append32(&table, offset);
    Append32(&table, length);
    offset += length;
  }
  file->Section_Start(SegmentsTag);
  bool good = file->Section_Write(table);
  for (int i = 0; good && i < segment_count; i++) {
    const Segment* segment = Lookup(i);
    if (segment) good = segment->Write(file);
  }
  if (!good) {
    Error(file->error());
    return false;
  }
  file->Section_End();
  return true;
}
