// Parsers of a request's body: they read it block by block, as it comes from the web server, into
// variables. A block may end anywhere, even inside an escape, a header or a boundary.

#ifndef ZEPH_BASE_HTTPCONTENTPARSER_H
#define ZEPH_BASE_HTTPCONTENTPARSER_H

#include "base/core/StringClass.h"

class VariableHash;

// The abstract base. One parser reads one body, on the request's thread. The order of fields and
// virtual operations must not change.
class HTTPContentParser {
 public:
  // The table is borrowed. REQUIRES: it outlives the parser.
  explicit HTTPContentParser(VariableHash* target);
  virtual ~HTTPContentParser();
  HTTPContentParser(const HTTPContentParser&) = delete;
  HTTPContentParser& operator=(const HTTPContentParser&) = delete;

  // Parses the next length bytes, borrowed for the call. False ends the reading, with the reason in
  // error(); the caller may then only delete the parser.
  [[nodiscard]] virtual bool Parse(const char* data, int length) = 0;
  // The caller reports the end of the body, complete or cut short. False leaves the reason in
  // error().
  // REQUIRES: called at most once.
  [[nodiscard]] virtual bool Finalize() = 0;
  virtual const String& error();
  virtual void Error(const String& text);
  // Whether the error is this host's or the script's, such as a full disk, and not the client's.
  bool is_own_failure() const { return own_failure; }

 protected:
  void OwnError(const String& text) {
    own_failure = true;
    Error(text);
  }

  String error_text;
  VariableHash* target;
  bool own_failure = false;
};

// Keeps a body of a type that has no parser as the system variable "content_data".
class UnknownContentHandler : public HTTPContentParser {
 public:
  // length is the one that the request states, in bytes. Memory grows with the bytes that arrive;
  // the stated length alone allocates at most the first 64 KB.
  UnknownContentHandler(VariableHash* system, int length);
  ~UnknownContentHandler() override;

  // Returns false, with the error "Out of memory", if the buffer cannot grow.
  bool Parse(const char* data, int length) override;
  // Passes the buffer to the variable, without a copy. Returns true.
  bool Finalize() override;

 protected:
  // Makes room for length more bytes and a terminator. False without memory.
  bool MakeRoom(int length);

  int declared;
  char* buffer;  // owned; null if its allocation failed
  int used = 0;
  int capacity;
};

#endif
