// Outputs that collect text in one buffer or drop it: the base of mail and network output, the
// output of a capture, and the output of a background task.

#ifndef ZEPH_BASE_BUFFEREDOUTPUT_H
#define ZEPH_BASE_BUFFEREDOUTPUT_H

#include "base/core/Output.h"
#include "base/host/OutputLayer.h"

// An output with one buffer of fixed capacity, which it owns. A full buffer is written with
// DoWrite. This destructor does not flush, because the parts of a subclass are gone by then: a
// subclass flushes in its own destructor.
class BufferedOutput : public Output {
 public:
  // The capacity in bytes; below 1 counts as 8192.
  explicit BufferedOutput(int capacity);
  ~BufferedOutput() override;

  // Takes all of the text and returns its length.
  int Write(const char* text, int length) override;
  // Returns the result of DoWrite, 0 if there was nothing to write. The buffer is empty afterwards.
  int Flush() override;
  using Output::Flush;
  int type() override;

  // Sends bytes to the sink. Returns the count taken, negative on failure.
  virtual int DoWrite(const char* text, int length) = 0;

 protected:
  // Counts what was put in the room. Comes before any use of the fields.
  void TakePut() { used += CloseRoom(); }
  // Holds the rest of the buffer open for Put, until the next Write or Flush. For a class that
  // takes all text as it is.
  void HoldRoom() {
    TakePut();
    if (used < capacity) OpenRoom(buffer + used, capacity - used);
  }

  char* buffer;
  int capacity;
  int used = 0;
};

// Collects text in memory for a variable. Messages and header fields bypass it: they go to the
// output under all captures.
class CaptureOutput : public BufferedOutput, public OutputLayer {
 public:
  // The parent is the output that is current; it is borrowed, or counted if it is a layer.
  explicit CaptureOutput(Output* parent);
  // REQUIRES: no other layer has this one below it. Otherwise use Close.
  ~CaptureOutput() override;

  int Write(const char* text, int length) override;
  // Ends the capture: frees the text and gives back the maker's count. The maker calls it instead
  // of deleting the object.
  void Close();

  int Write_Error(const char* text, int length) override;
  int Header(const char* name, const char* value) override;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  // Makes room after the captured text; nothing leaves the capture.
  int Flush() override;
  using Output::Flush;
  int DoWrite(const char* text, int length) override;

  // Hands the captured text to the caller, who frees it with delete[], and begins an empty one.
  // *length receives the count of bytes; *size the bytes of the buffer that may be used, at least
  // length + 1, so that a terminator fits. None is written.
  char* data(int* length, int* size);

 private:
  char* base;          // start of the captured text; buffer points after what is captured
  int captured = 0;    // bytes in front of buffer
  long allocated = 0;  // bytes at base; may exceed what is reported, so that growth is geometric
};

// Drops text, or passes it to a callback, which returns the count of bytes taken. The callback may
// be null.
class NullOutput : public Output {
 public:
  explicit NullOutput(int (*callback)(const char* text, int length));

  int Write(const char* text, int length) override;
  int Write_Compressed(const char* text, int length) override;
  int Flush() override;
  int Flush(int withlength) override;
  int type() override;
  virtual int DoWrite(const char* text, int length);

 private:
  int (*callback)(const char*, int);
};

#endif
