// What reads the body of a request: block after block, as it comes from the web server, into
// variables. A block may end anywhere, inside of an escape, a header or a boundary.

#ifndef ZEPH_BASE_HTTPCONTENTPARSER_H
#define ZEPH_BASE_HTTPCONTENTPARSER_H

#include "base/core/StringClass.h"

class VariableHash;

// The abstract base. Made for one body, on the request's thread. The order of fields and virtual
// operations is stated and stays.
class HTTPContentParser {
 public:
  // The table is borrowed and outlives the parser.
  explicit HTTPContentParser(VariableHash* target);
  virtual ~HTTPContentParser();
  HTTPContentParser(const HTTPContentParser&) = delete;
  HTTPContentParser& operator=(const HTTPContentParser&) = delete;

  // Takes the next bytes, which are borrowed for the call. False ends the reading, with the reason
  // in error(); the parser is then good for nothing but to be deleted.
  [[nodiscard]] virtual bool Parse(const char* data, int length) = 0;
  // The body has ended, also where it was cut short. Called once at most.
  [[nodiscard]] virtual bool Finalize() = 0;
  virtual const String& error();
  virtual void Error(const String& text);

 protected:
  String error_text;
  VariableHash* target;
};

// Keeps a body of a type that nobody knows as the system variable "content_data".
class UnknownContentHandler : public HTTPContentParser {
 public:
  // The length is the one that the request states, in bytes. What is allocated follows what comes,
  // not what was announced.
  UnknownContentHandler(VariableHash* system, int length);
  ~UnknownContentHandler() override;

  // False, with "Out of memory", where there is none for so many bytes.
  bool Parse(const char* data, int length) override;
  // Hands the bytes over to the variable, without a copy.
  bool Finalize() override;

 protected:
  // Makes room for so many more bytes and a terminator.
  bool MakeRoom(int length);

  int declared;
  char* buffer;  // owned; null when there was no memory for it
  int used = 0;
  int capacity;
};

#endif
