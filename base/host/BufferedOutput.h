// Outputs that collect text in one buffer, or nowhere: the base of mail and network output, the
// output that a capture puts in front, and the output of a background task.

#ifndef ZEPH_BASE_BUFFEREDOUTPUT_H
#define ZEPH_BASE_BUFFEREDOUTPUT_H

#include "base/core/Output.h"

// An output with one buffer of fixed capacity, which it owns. A full buffer goes out through
// DoWrite. A subclass whose DoWrite needs its own parts flushes in its own destructor: at the time
// of this one's those parts are gone.
class BufferedOutput : public Output {
 public:
  // The capacity in bytes; below 1 counts as 8192.
  explicit BufferedOutput(int capacity);
  ~BufferedOutput() override;

  // Takes all of the text; answers its length.
  int Write(const char* text, int length) override;
  // Answers what DoWrite answered, 0 with nothing to write. The buffer is empty afterwards.
  int Flush() override;
  using Output::Flush;
  int type() override;

  // Sends bytes on; answers the count taken, negative on failure.
  virtual int DoWrite(const char* text, int length) = 0;

 protected:
  char* buffer;
  int capacity;
  int used = 0;
};

// Collects text in memory for a variable. Messages and header fields pass it by: they go to the
// output that is behind all captures.
//
// The parent is the output that the capture found. It may be another capture's, which may end
// first: so an output of a capture is counted, by its capture and by the outputs in front of it,
// and one that is over stays as a way to its own parent.
class CaptureOutput : public BufferedOutput {
 public:
  // The parent is borrowed, or counted if it is a capture's.
  explicit CaptureOutput(Output* parent);
  // Only for one that no other capture has found.
  ~CaptureOutput() override;

  // The capture is over: gives back the count of its maker, in place of deleting it.
  void Close();

  int Write_Error(const char* text, int length) override;
  int Header(const char* name, const char* value) override;
  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  // Makes room behind the captured text; nothing leaves the capture.
  int Flush() override;
  using Output::Flush;
  int DoWrite(const char* text, int length) override;

  // Hands the captured text to the caller, who frees it with delete[], and begins anew. *length
  // receives its bytes; *size the bytes of the buffer that may be used, at least length + 1, so
  // that a terminator fits. None is written.
  char* data(int* length, int* size);

  // What the capture gives way to: its parent, or where that is over, what it gave way to.
  Output* parent();
  // Whether the parent is a capture that is over.
  bool parent_over() const { return outer && outer->over; }

 private:
  void Release();
  void StepOver();
  Output* Outermost() const;

  char* base;        // start of the captured text; buffer points behind what is captured
  int captured = 0;  // bytes in front of buffer
  Output* parent_output;
  long allocated = 0;    // bytes at base; may exceed what is reported, so that growth is geometric
  CaptureOutput* outer;  // the parent, if it is a capture's; with a count
  int holders = 1;
  bool over = false;
};

// Swallows text, or hands it to a callback, which answers the bytes taken.
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
