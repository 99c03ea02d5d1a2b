// HTTPResponseStream, the reader of HTTP responses: the lines of the head, then the body without
// its framing. NetworkManager::OpenURL has sent the request before.
//
// Redirects, cookies and compressed bodies are the caller's business: a response of any status is
// read in the same way.

#ifndef ZEPH_BASE_HTTPRESPONSESTREAM_H
#define ZEPH_BASE_HTTPRESPONSESTREAM_H

#include <cstdint>

#include "base/core/List.h"
#include "base/core/StringClass.h"

class NetworkConnection;

// One line of a response's head.
class HTTPResponseStream_Header {
 public:
  // Copies the line, which ends at its first NUL. A line without a ':' is all name.
  explicit HTTPResponseStream_Header(const String& line);

  // The line as it was given; what is before its first ':'; and what is after that. Name and value
  // have no white space at their ends.
  String text;
  String name;
  String value;
};

// Reads responses from one connection, on the thread of its application. The caller reads the head
// first, then the body to its end. The fields are there to be read; their order is fixed.
//
// Nothing that a peer sends makes the stream wait longer than the connection does, or read on after
// the run's time is over (base/core/RunLimit.h). A head of any size is taken: its memory counts for
// the run, so that the run's limit ends it with std::bad_alloc.
class HTTPResponseStream {
 public:
  // Borrows the connection until Close. The timeout is for each wait; see NetworkConnection.
  HTTPResponseStream(NetworkConnection* connection, int timeout);
  // Leaves the connection open: its owner deletes it, unless Close has.
  virtual ~HTTPResponseStream();
  HTTPResponseStream(const HTTPResponseStream&) = delete;
  HTTPResponseStream& operator=(const HTTPResponseStream&) = delete;

  // Reads a head, up to and including its empty line, and the size of the first chunk if the body
  // has chunks. All that is known of an earlier response is dropped first. So it can be called
  // again for the next response on the connection, as after a status of 100, once the caller has
  // read the body before it.
  //
  // On failure the text is in `error`, and the fields hold what had been read.
  // REQUIRES: Close has not been called.
  [[nodiscard]] bool Read_Headers();

  // Reads up to length bytes of the body with one read of the connection. Returns their count; 0 at
  // the end of the body, and for a length of 0 or less; -1 on failure, with the text in `error`.
  // Bytes that were read before the failure was found are lost.
  //
  // The end is the last chunk, the declared length, or the end of the stream. A peer that closes
  // its side early also gives 0, in each of the three cases; a caller who has to know compares
  // `total` with `content_length`. After a failure between two chunks all further reads fail;
  // after one that follows the last chunk they return 0.
  // REQUIRES: Read_Headers has returned true, and Close has not been called.
  [[nodiscard]] int Read(char* buffer, int length);

  // Deletes the connection. Does nothing the second time.
  void Close();

  // These read what is between two chunks. Read and Read_Headers call them.
  //
  // Reads a line with the size of the next chunk. What follows the hexadecimal digits, such as an
  // extension, is skipped; a line without digits has the size 0. False on failure, for a negative
  // size, and for one that is more than an int holds; the chunk is then still the one before.
  [[nodiscard]] bool Read_ChunkStart();
  // Reads the CR LF after a chunk, with a single read of the connection: a CR LF that arrives in
  // two pieces counts as a bad terminator. False if it is something else.
  [[nodiscard]] bool Read_ChunkEnd();

  // The lines of the head in order, the status line being the first. Lines that begin with white
  // space are headers of their own.
  List<HTTPResponseStream_Header> headers;
  // The number after the first blank of the status line; 0 if there is none; -1 before the first
  // Read_Headers has got a status line.
  int status = -1;
  // The length of the body in bytes; -1 if it is not known.
  int content_length = -1;
  NetworkConnection* connection;
  int timeout;
  // 1 if the body has chunks, else 0.
  int chunked = 0;
  // The current chunk and how much of it was read, in bytes. The last chunk has the size 0.
  int chunk_size = 0;
  int chunk_position = 0;
  // Bytes of the body that were read. It does not wrap: a body without a known length can be of any
  // size.
  int64_t total = 0;
  // Text of the last failure.
  String error;

 private:
  // One line; false with the connection's text on failure.
  bool ReadLine(String& line);
  void UseHeader(const HTTPResponseStream_Header& header);
};

#endif
