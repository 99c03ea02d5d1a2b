// Reads and writes the records of delimited text files. Tested in
// tests/base/machine/ImportTest.cpp.

#include "base/machine/Import.h"

#include <algorithm>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "base/core/Numbers.h"
#include "base/core/RunLimit.h"
#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"

namespace {

inline bool IsSpecial(char c) {
  return c == '\n' || c == '\r' || c == '\\';
}

// The first byte that ends a record, begins an escape or has to be written as one; end if there is
// none. Skips 16 bytes at a time where the processor can.
const char* FindSpecial(const char* p, const char* end) {
#ifdef __SSE2__
  const __m128i newline = _mm_set1_epi8('\n');
  const __m128i carriage_return = _mm_set1_epi8('\r');
  const __m128i backslash = _mm_set1_epi8('\\');
  for (; end - p >= 16; p += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i found = _mm_or_si128(
        _mm_or_si128(_mm_cmpeq_epi8(bytes, newline), _mm_cmpeq_epi8(bytes, carriage_return)),
        _mm_cmpeq_epi8(bytes, backslash));
    if (const int mask = _mm_movemask_epi8(found)) {
      return p + __builtin_ctz(static_cast<unsigned>(mask));
    }
  }
#endif
  while (p != end && !IsSpecial(*p)) p++;
  return p;
}

}  // namespace

// --- The import ----------------------------------------------------------------------------------

Import::Import(ZephApplication* application, ZephVM* vm) : Feature(application, vm, Type_Import) {
  input_size = application->config()->buffer_size(Config_bufsz_import);
}

Import::~Import() = default;

void Import::SetDelimiter(const char* text, int length, int* deletable) {
  delimiter_length = length;
  if (*deletable) {
    delimiter.reset(const_cast<char*>(text));
    *deletable = 0;
    return;
  }
  delimiter.reset(new char[static_cast<size_t>(length) + 1]);
  if (length > 0) memcpy(delimiter.get(), text, static_cast<size_t>(length));
}

void Import::SetFields(const char* names, int length) {
  recno = VariableRef::Share(vm->Lookup_Global("recno", -1));
  vm->Lookup_VariableList(&fields, names, length);
}

bool Import::Start(const char* name, int length, int size, int* deletable) {
  file.reset();
  input_length = input_position = 0;
  if (*deletable) {
    file_name.assign_nocopy(const_cast<char*>(name), length, size);
    *deletable = 0;
  } else {
    file_name.assign(name, length);
  }
  FileManager* files = application->filemanager();
  file.reset(files->Open(ZephPath_Data, file_name.data, FileMode_Read));
  if (!file) {
    String text("Error opening '", -1);
    text.cat(file_name.data, file_name.length);
    text.cat("': ", 3);
    text.cat(files->error().data, files->error().length);
    Error(text);
    return false;
  }
  if (!input) input.reset(new char[static_cast<size_t>(input_size)]);
  const int count = file->Read(input.get(), input_size);
  if (count < 0) {
    NoteReadError();
    return false;
  }
  input_length = count;
  return true;
}

void Import::NoteReadError() {
  String text("Error reading from '", -1);
  text.cat(file_name.data, file_name.length);
  text.cat("': ", 3);
  text.cat(file->error().data, file->error().length);
  Error(text);
}

int Import::Next() {
  if (!ReadRecord() && record_length == 0) return 1;
  if (!filter_segment) CountRecord();
  DealOut();
  return 0;
}

void Import::CountRecord() {
  record_number = WrapAdd(record_number, 1);
  if (recno) recno->Write_Integer(record_number);
}

// Most records are complete in the block and have no escapes, so they are used in place.
int Import::ReadRecord() {
  const char* start = input.get() + input_position;
  const char* const end = input.get() + input_length;
  const char* stop = FindSpecial(start, end);
  // The byte after a CR may be in the next block.
  if (stop == end || *stop == '\\' || (*stop == '\r' && stop + 1 == end)) return DecodeRecord();
  record = start;
  record_length = static_cast<int>(stop - start);
  if (*stop == '\r' && stop[1] == '\n') stop++;
  input_position = static_cast<int>(stop + 1 - input.get());
  return 1;
}

int Import::DecodeRecord() {
  enum { Plain, AfterBackslash, AfterReturn } state = Plain;
  record_length = 0;
  for (;;) {
    if (input_position == input_length && !Refill()) break;
    const char* const from = input.get() + input_position;
    const char* const end = input.get() + input_length;
    if (state == AfterReturn) {
      if (*from == '\n') input_position++;
      record = decoded.get();
      return 1;
    }
    if (state == AfterBackslash) {
      const char c = *from == 'r' ? '\r' : *from == 'n' ? '\n' : *from;
      input_position++;
      if (!Append(&c, 1)) break;
      state = Plain;
      continue;
    }
    const char* const stop = FindSpecial(from, end);
    input_position = static_cast<int>(stop - input.get());
    if (!Append(from, static_cast<int>(stop - from))) break;
    if (stop == end) continue;
    input_position++;
    if (*stop == '\n') {
      record = decoded.get();
      return 1;
    }
    state = *stop == '\\' ? AfterBackslash : AfterReturn;
  }
  record = decoded.get();
  return 0;
}

bool Import::Refill() {
  input_length = input_position = 0;
  // A record may be as long as the file, and the file may be a source without end.
  if (record_length > RunLimit::Bytes && RunLimit::Over()) return false;
  const int count = file->Read(input.get(), input_size);
  if (count < 0) NoteReadError();
  if (count <= 0) return false;
  input_length = count;
  return true;
}

bool Import::Append(const char* bytes, int count) {
  if (count > LongestRecord - record_length) {
    Error("Record too long");
    record_length = 0;
    return false;
  }
  if (count > decoded_capacity - record_length) {
    // At least doubled, so that a record of any length is copied few times.
    const int capacity = std::max(
        {input_size, record_length + count, std::min(decoded_capacity, LongestRecord / 2) * 2});
    std::unique_ptr<char[]> larger(new char[static_cast<size_t>(capacity)]);
    if (record_length > 0) memcpy(larger.get(), decoded.get(), static_cast<size_t>(record_length));
    decoded = std::move(larger);
    decoded_capacity = capacity;
  }
  if (count > 0) memcpy(decoded.get() + record_length, bytes, static_cast<size_t>(count));
  record_length += count;
  return true;
}

void Import::DealOut() {
  const char* position = record;
  const char* const end = record + record_length;
  RunWatch watch(1024);
  for (Variable* field = fields.First(); field && !watch.Over(); field = fields.Next()) {
    const char* const stop = FindDelimiter(position, end);
    field->SetValue(position == end ? "" : position, static_cast<int>(stop - position));
    position = stop == end ? end : stop + delimiter_length;
  }
}

// The first delimiter, or the end. memmem stays linear, so a hostile script cannot make the search
// slow with a long delimiter.
const char* Import::FindDelimiter(const char* from, const char* end) const {
  if (delimiter_length == 0 || end - from < delimiter_length) return end;
  const auto room = static_cast<size_t>(end - from);
  const void* found = delimiter_length == 1 ? memchr(from, delimiter[0], room)
                                            : memmem(from, room, delimiter.get(),
                                                     static_cast<size_t>(delimiter_length));
  return found ? static_cast<const char*>(found) : end;
}

// --- The writer ----------------------------------------------------------------------------------

bool ExportRecord::Reserve(int more) {
  if (more <= room - count) return true;
  if (overflown || more > Longest - count) {
    overflown = true;
    return false;
  }
  const int size = std::max(2 * std::min(room, Longest / 2), count + more);
  std::unique_ptr<char[]> grown(new char[static_cast<size_t>(size)]);
  memcpy(grown.get(), bytes, static_cast<size_t>(count));
  larger = std::move(grown);
  bytes = larger.get();
  room = size;
  return true;
}

void ExportRecord::AppendPlain(const char* text, int length) {
  if (length <= 0 || !Reserve(length)) return;
  memcpy(bytes + count, text, static_cast<size_t>(length));
  count += length;
}

void ExportRecord::AppendField(const char* text, int length) {
  const char* const end = text + length;
  while (text != end) {
    const char* const stop = FindSpecial(text, end);
    AppendPlain(text, static_cast<int>(stop - text));
    if (stop == end) return;
    AppendPlain(*stop == '\n' ? "\\n" : *stop == '\r' ? "\\r" : "\\\\", 2);
    text = stop + 1;
  }
}
