// Code. A Segment is a growable array of instructions in the machine's encoding, which the machine
// runs in place; the SegmentManager owns the numbered segments of a script.

#ifndef ZEPH_BASE_SEGMENT_H
#define ZEPH_BASE_SEGMENT_H

#include <memory>
#include <string>

#include "base/core/StringClass.h"

class Dictionary;
class FunctionManager;
class HotCode;
class TaggedFile;

// One run of code. Positions and lengths are bytes.
//
// The code is always followed by Padding zero bytes. The machine fetches operands without a bounds
// check, and an instruction that is cut off at the segment's end reads zeros.
class Segment {
 public:
  static constexpr int Padding = 16;  // two operands of 8 bytes
  static constexpr int Growth = 8192;
  static constexpr int Repeats = 8;
  // Decoding that many bytes takes about as long as a few passes of a loop.
  static constexpr int BytesARepeat = 512;
  static constexpr int LongestHot = 1 << 20;

  // An empty segment with room for Growth bytes.
  explicit Segment(int number);
  // A segment of that many zero bytes, all in use. A negative length counts as 0.
  Segment(int number, int length);
  // A segment with a copy of that many bytes.
  Segment(int number, const unsigned char* bytes, int length);
  Segment(const Segment& other);
  Segment& operator=(const Segment&) = delete;
  virtual ~Segment();

  // Write a value low byte first and grow the segment as needed; a gap is filled with zeros. Return
  // the position after the value. Return -1 and write nothing if the position is negative or more
  // than a segment can hold.
  int Write_Byte(int position, unsigned char value);
  int Write_Word(int position, unsigned short value);
  int Write_Dword(int position, unsigned int value);
  int Write_Double(int position, double value);

  // Read a value. Return the position after it. Return -1 and leave *value unchanged if the value
  // is not wholly within the length.
  int Read_Byte(int position, unsigned char* value) const;
  int Read_Word(int position, unsigned short* value) const;
  int Read_Dword(int position, unsigned int* value) const;
  int Read_Double(int position, double* value) const;

  // Makes room for an end position of size. Does nothing if size is below the capacity; otherwise
  // the capacity becomes the next multiple of Growth. The length stays. The memory at least
  // doubles, so that code of any length is written in linear time.
  void Grow(int size);

  // Frees the unused room, for code that is complete.
  void Trim();

  // Read fills the whole length from an offset in a section; Write appends the code to the section
  // being written. False if fewer bytes were read or written.
  [[nodiscard]] bool Read(TaggedFile* file, int tag, int offset);
  [[nodiscard]] bool Write(TaggedFile* file) const;

  // Writes a listing to a file, headed by the expression, for debugging an expression. Does nothing
  // if the file cannot be made.
  void Dump(const char* path, const char* expression, int length) const;

  // The machine calls this when it comes back to code that it has run before. After Repeats calls,
  // and after more of them in a long segment, this makes the decoded form: a large page with a
  // short loop would be decoded for nothing. A segment longer than LongestHot is never decoded. A
  // write to the segment drops the decoded form.
  void NoteRepeat(const Dictionary& dictionary, const FunctionManager* functions) {
    if (hot_code || ++repeats < Repeats + data_length / BytesARepeat) return;
    repeats = 0;
    MakeHot(dictionary, functions);
  }
  const HotCode* hot() const { return hot_code.get(); }

  int number() const { return segment_number; }
  const unsigned char* code() const { return data.get(); }
  int capacity() const { return data_capacity; }
  int length() const { return data_length; }

 private:
  friend struct NativeLayout;

  // The bytes at a position that is about to be written, null if the segment cannot hold it.
  unsigned char* Place(int position, int size);
  bool Holds(int position, int size) const {
    return position >= 0 && size <= data_length && position <= data_length - size;
  }

  void MakeHot(const Dictionary& dictionary, const FunctionManager* functions);
  void Cool();

  int segment_number;
  std::unique_ptr<unsigned char[]> data;  // room + Padding bytes
  int data_capacity;
  int data_length;
  int data_room;  // bytes that there is memory for; at least the capacity
  std::unique_ptr<HotCode> hot_code;
  int repeats = 0;
};

// The segments of a script. A number is valid for the life of the manager. Belongs to one machine;
// a clone has its own.
class SegmentManager {
 public:
  // Has one segment, the start, which Start() makes when it is needed.
  SegmentManager();
  // For the clone of a machine: copies every segment.
  SegmentManager(const SegmentManager& other);
  SegmentManager& operator=(const SegmentManager&) = delete;
  virtual ~SegmentManager();

  virtual String& error();
  // A null String keeps the older text.
  virtual void Error(const String& text);

  // The segment where execution begins; an empty one is made if there is none. Owned by the
  // manager.
  Segment* Start();
  // A new empty segment with the next number. Owned by the manager.
  Segment* Segment_Add();
  // The segment of a number; null for an invalid one.
  Segment* Lookup(int number) const {
    if (static_cast<unsigned>(number) >= static_cast<unsigned>(segment_count)) return nullptr;
    Segment* const found = segments ? segments[number].get() : nullptr;
    return found || !shared_code ? found : MakeLate(number);
  }

  // Read and write the section "segs". Read fails with the file's text if the count is below 1, if
  // the start is not a segment, or if code is outside the section; the segments read so far stay.
  //
  // Rows of the table may share their code. If their lengths add up to more than the section has,
  // the section's bytes are kept and a segment is copied when it is first looked up. The memory
  // used then depends on the section's length and the segments in use, not on lengths that a file
  // states.
  [[nodiscard]] bool Read(TaggedFile* file);
  [[nodiscard]] bool Write(TaggedFile* file);

  int Segments() const { return segment_count; }
  int start() const { return start_number; }
  // Ignores an invalid number.
  void SetStart(int number) {
    if (number >= 0 && number < segment_count) start_number = number;
  }

 private:
  struct SharedCode;

  bool ReadSection(TaggedFile* file);
  bool ReadShared(TaggedFile* file, const std::string& table);
  Segment* MakeLate(int number) const;
  void MakeArray();

  std::unique_ptr<std::unique_ptr<Segment>[]> segments;  // made when first needed
  int array_capacity = 64;
  int segment_count = 1;
  int start_number = 0;
  String error_text;
  // Never changed, so that clones share it; null unless rows share their code.
  std::shared_ptr<const SharedCode> shared_code;
};

#endif
