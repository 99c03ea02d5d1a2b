// Output, the sink for a script's text. The application has one current Output; a capture or a mail
// replaces it with another for a while. "Compressed" writes drop white space; nothing here
// compresses data.

#ifndef ZEPH_BASE_OUTPUT_H
#define ZEPH_BASE_OUTPUT_H

#include <cstddef>

#include "base/core/CopyText.h"
#include "base/core/ascii.h"

// A sink of text. Belongs to one request and its thread. The order of the virtual operations is
// fixed, because extension libraries call them. Lengths are bytes; a length of -1 means strlen in
// every operation.
class Output {
 public:
  // Copies a text in line if the output holds room open for it; no other code runs then. Otherwise
  // returns false and does nothing.
  bool PutInRoom(const char* text, int length) {
    if (static_cast<unsigned>(length - 1) >= static_cast<unsigned>(room_end - room)) return false;
    CopyText(room, text, static_cast<size_t>(length));
    room += length;
    return true;
  }
  // Write, for the many short texts of a page: PutInRoom or, if that returns false, Write.
  bool Put(const char* text, int length) {
    if (PutInRoom(text, length)) return true;
    Write(text, length);
    return false;
  }

  // Room that is held open for at least that many bytes, for text that is made in place; null if
  // there is less. The caller writes to it and passes the end of what it wrote to Took, before any
  // other operation. REQUIRES: a count above 0.
  char* Room(int count) const { return room_end - room >= count ? room : nullptr; }
  void Took(char* end) { room = end; }

  enum Flags : int { CompressFast = 1, CompressFull = 2 };
  enum Type : int { Buffered = 0, HTTP = 1, Null = 2 };

  Output() = default;
  virtual ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Write, then Flush(): for messages that must reach the client now. The result is Write's.
  virtual int Write_Error(const char* text, int length);
  // Sets a header field, replacing one of that name. An owned flag that is set passes the text's
  // ownership to the output, which frees it with delete[], also on failure. Returns 1, or 0 if the
  // output has no header fields or has already sent them.
  virtual int Header(const char* name, const char* value);
  virtual int Header(const char* name, int namelength, int nameowned, const char* value,
                     int valuelength, int valueowned);
  // Returns the count of bytes taken, negative if the sink has failed.
  virtual int Write(const char* text, int length) = 0;
  // Writes with less white space, as the flags say. Returns the input length, whatever was dropped.
  virtual int Write_Compressed(const char* text, int length);
  virtual int Flush() = 0;
  // With withlength set, the last flush of a response: a "Content-Length" may still be added.
  virtual int Flush(int withlength);
  virtual int type() = 0;
  virtual int flags();
  virtual void SetFlags(int flags);
  // Drops the first byte if it is white space and follows white space.
  virtual int Write_Compressed_Fast(const char* text, int length);
  // Reduces every run of white space, across writes too, to its first byte.
  virtual int Write_Compressed_Full(const char* text, int length);

 protected:
  // Notes for the next compressed write whether the text ends in white space.
  void NoteLastByte(const char* text, int length) {
    if (length > 0) previous_was_space = zp_isspace(text[length - 1]);
  }

  // Holds room open for Put until CloseRoom, which returns the count of bytes put there.
  void OpenRoom(char* begin, int size) {
    room_begin = room = begin;
    room_end = begin + size;
  }
  int CloseRoom() {
    const auto put = static_cast<int>(room - room_begin);
    if (put > 0) NoteLastByte(room_begin, put);
    room_begin = room = room_end = nullptr;
    return put;
  }
  // Whether the last byte written was white space.
  bool IsBehindSpace() const {
    return room > room_begin ? zp_isspace(room[-1]) : previous_was_space != 0;
  }

  int output_flags = 0;
  // Starts set, so that white space at the very start of a response counts as a repetition.
  int previous_was_space = 1;

 private:
  friend struct NativeLayout;

  char* room_begin = nullptr;  // start of the bytes put since the room was opened
  char* room = nullptr;
  char* room_end = nullptr;
};

#endif
