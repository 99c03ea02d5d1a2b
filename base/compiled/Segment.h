// Code. A Segment is a growable array of instructions in the machine's encoding, run in place as it
// was read; the SegmentManager owns the numbered segments of a script.

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
// Behind the code there are always Padding zero bytes: the machine fetches operands without a
// bounds check, and an instruction cut off at the segment's end finds zeros.
class Segment {
 public:
  static constexpr int Padding = 16;  // two operands of 8 bytes
  static constexpr int Growth = 8192;
  static constexpr int Repeats = 8;
  static constexpr int LongestHot = 1 << 20;

  // An empty segment with room for Growth bytes.
  explicit Segment(int number);
  // A segment of that many zero bytes, all in use. A negative length is 0.
  Segment(int number, int length);
  // A segment with a copy of that many bytes.
  Segment(int number, const unsigned char* bytes, int length);
  Segment(const Segment& other);
  Segment& operator=(const Segment&) = delete;
  virtual ~Segment();

  // Store a value low byte first, growing the segment as needed; a gap is filled with zeros.
  // Answer the position behind it, or -1 when the position is negative or beyond what a segment
  // can hold, and nothing is written.
  int Write_Byte(int position, unsigned char value);
  int Write_Word(int position, unsigned short value);
  int Write_Dword(int position, unsigned int value);
  int Write_Double(int position, double value);

  // Read a value. Answer the position behind it, or -1 when it doesn't lie wholly within the
  // length, and *value is left alone.
  int Read_Byte(int position, unsigned char* value) const;
  int Read_Word(int position, unsigned short* value) const;
  int Read_Dword(int position, unsigned int* value) const;
  int Read_Double(int position, double* value) const;

  // Makes room for an end position of size: nothing below the capacity, else the next multiple of
  // Growth. The length stays. The memory at least doubles, so that code of any length is written in
  // linear time.
  void Grow(int size);

  // Gives back the room that is not in use, for code that is complete.
  void Trim();

  // Fills the whole length from a section at an offset; appends it to the section being written.
  // False when fewer bytes were moved.
  [[nodiscard]] bool Read(TaggedFile* file, int tag, int offset);
  [[nodiscard]] bool Write(TaggedFile* file) const;

  // Writes a listing to a file, for debugging an expression; the expression heads it. A file that
  // cannot be made is passed over in silence.
  void Dump(const char* path, const char* expression, int length) const;

  // The machine comes back to code that it has run before: from the Repeats-th time on there is the
  // decoded form of a segment that is not too long for it. A write drops it.
  void NoteRepeat(const Dictionary& dictionary, const FunctionManager* functions) {
    if (repeats < Repeats && ++repeats == Repeats) MakeHot(dictionary, functions);
  }
  const HotCode* hot() const { return hot_code.get(); }

  int number() const { return segment_number; }
  const unsigned char* code() const { return data.get(); }
  int capacity() const { return data_capacity; }
  int length() const { return data_length; }

 private:
  // The bytes at a position about to be written, null when there can be none.
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

// The segments of a script. A number stays good for as long as the manager lives. Belongs to one
// machine, a clone's to the clone.
class SegmentManager {
 public:
  // One segment, the start, which Start() makes.
  SegmentManager();
  // For the clone of a machine: copies every segment.
  SegmentManager(const SegmentManager& other);
  SegmentManager& operator=(const SegmentManager&) = delete;
  virtual ~SegmentManager();

  virtual String& error();
  // A null String leaves the older text.
  virtual void Error(const String& text);

  // The segment where execution begins, made empty if its place is. Owned by the manager.
  Segment* Start();
  // A new empty segment with the next number. Owned by the manager.
  Segment* Segment_Add();
  // The segment of a number; null for an invalid one.
  Segment* Lookup(int number) const {
    if (static_cast<unsigned>(number) >= static_cast<unsigned>(segment_count)) return nullptr;
    Segment* const found = segments ? segments[number].get() : nullptr;
    return found || !shared_code ? found : MakeLate(number);
  }

  // The section "segs". A count below 1, a start that is no segment, or code that does not lie in
  // the section fails with the file's text; the segments read so far stay.
  //
  // Rows of the table may share their code. Where they do, in sum, more than a little, the section
  // is kept as it is, and a segment gets its copy when it is first looked up: memory goes by the
  // section's length and by the segments that are in use, and not by what a table states.
  [[nodiscard]] bool Read(TaggedFile* file);
  [[nodiscard]] bool Write(TaggedFile* file);

  int Segments() const { return segment_count; }
  int start() const { return start_number; }
  // Ignores what is no segment.
  void SetStart(int number) {
    if (number >= 0 && number < segment_count) start_number = number;
  }

 private:
  struct SharedCode;

  bool ReadSection(TaggedFile* file);
  bool ReadShared(TaggedFile* file, const std::string& table);
  Segment* MakeLate(int number) const;
  void MakeArray();

  std::unique_ptr<std::unique_ptr<Segment>[]> segments;  // made at first need
  int array_capacity = 64;
  int segment_count = 1;
  int start_number = 0;
  String error_text;
  // Read only, so that a clone may have it too; null unless rows share their code.
  std::shared_ptr<const SharedCode> shared_code;
};

#endif
