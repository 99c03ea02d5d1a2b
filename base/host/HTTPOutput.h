// The response of a request: header fields in a table, body bytes in a chain of blocks. Both wait
// in memory until the flush threshold or the end of the script, so that a script can still set
// header fields and a short response gets its "Content-Length".

#ifndef ZEPH_BASE_HTTPOUTPUT_H
#define ZEPH_BASE_HTTPOUTPUT_H

#include "base/core/BaseTemplates.h"
#include "base/core/Output.h"

class Config;

// One header field. Frees the texts that it owns with delete[].
class HTTPOutput_Header {
 public:
  // A length of -1 means strlen.
  HTTPOutput_Header(const char* name, int namelength, int nameowned, const char* value,
                    int valuelength, int valueowned);
  ~HTTPOutput_Header();
  HTTPOutput_Header(const HTTPOutput_Header&) = delete;
  HTTPOutput_Header& operator=(const HTTPOutput_Header&) = delete;

  const char* name;
  int namelength;
  int nameowned;
  const char* value;
  int valuelength;
  int valueowned;
};

// A block of the chain. A growable block gets larger; a fixed one takes the bytes that fit, and the
// rest goes into the next block. Owns its storage, but not the next block: the owner of the head
// deletes the blocks one by one.
class HTTPOutput_Chain {
 public:
  HTTPOutput_Chain(int growable, int blocksize);
  ~HTTPOutput_Chain();
  HTTPOutput_Chain(const HTTPOutput_Chain&) = delete;
  HTTPOutput_Chain& operator=(const HTTPOutput_Chain&) = delete;

  // Returns the count of bytes taken: all in a growable block, those that fit in a fixed one.
  int Write(const char* text, int length);

  int growable;
  char* data;
  int blocksize;
  int capacity;
  int used = 0;
  HTTPOutput_Chain* next = nullptr;
};

struct HTTPOutput_HeaderName {
  static std::string_view Key(HTTPOutput_Header* header) {
    return KeyText(header->name, header->namelength);
  }
};
// One field for a name, whatever its case.
using HTTPOutput_HeaderTable = NamedHashTable<HTTPOutput_Header, HTTPOutput_HeaderName>;

// Two states: header fields open, and header fields sent. The first flush of any kind moves to the
// second state, in which Header returns 0.
class HTTPOutput : public Output {
 public:
  // Block size and flush threshold in bytes; a block size below 1 counts as 8192.
  HTTPOutput(int blocksize, int threshold);
  ~HTTPOutput() override;

  int Header(const char* name, int namelength, int nameowned, const char* value, int valuelength,
             int valueowned) override;
  using Output::Header;
  int Write(const char* text, int length) override;
  int Flush() override;
  // Sends the header fields, if they are not sent yet, and all collected bytes. Returns the count
  // of body bytes that the client took.
  int Flush(int withlength) override;
  int type() override;

  // Adds "Content-Length" with the count of bytes written so far, unless the script has set its
  // own.
  virtual void Header_ContentLength();
  // Sends the header fields and the empty line after them.
  virtual void OutputHeaders() = 0;
  // Hands bytes to the client. Returns the count taken, negative if the client is gone.
  virtual int DoWrite(const char* text, int length) = 0;
  // The settings, borrowed. Only delay_file is read.
  virtual void SetConfig(Config* config);

  // Drops all that was written, as if the script had written nothing. Returns false, and drops
  // nothing, if the header fields were sent already.
  bool DropBody();

  // The size of new blocks and the flush threshold from here on, in bytes.
  void SetBlockSize(int bytes);
  void SetFlushThreshold(int bytes) {
    CountPut();
    flush_threshold = bytes;
  }

 protected:
  int block_size;
  int flush_threshold;
  int headers_sent = 0;
  HTTPOutput_HeaderTable headers;
  HTTPOutput_Chain* head = nullptr;  // made at the first write
  HTTPOutput_Chain* tail = nullptr;
  long long total = 0;        // body bytes written by the script
  long long since_flush = 0;  // those of them since the last automatic flush
  Config* configuration = nullptr;
  long pause = -1;  // microseconds between partial writes; -1 until read from delay_file

 private:
  void Append(const char* text, int length);
  // Counts the bytes put since the last write. Every operation that uses blocks or counts calls it
  // first.
  void CountPut();
  // Empties the first block and deletes the others. REQUIRES: there is a block.
  void FreeRest();
  // Opens the rest of the last block for Put, up to the byte at which a flush is due.
  void HoldRoom();
  // Writes one block, with pauses while the client takes only part of it. Returns the count of
  // bytes taken; sets *failed if the client takes no more.
  long long WriteBlock(const char* text, int length, bool* failed);
  void Pause();

  char length_text[24];  // the digits of the field that Header_ContentLength adds
};

#endif
