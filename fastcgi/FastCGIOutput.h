// The output of a request: libfcgi's stream.

#ifndef ZEPH_FASTCGI_FASTCGIOUTPUT_H
#define ZEPH_FASTCGI_FASTCGIOUTPUT_H

#include "base/host/HTTPOutput.h"

class FastCGIApplication;
struct FCGX_Request;

// Passes bytes to libfcgi, which sends them when its own buffer is full or the request is finished.
class FastCGIOutput : public HTTPOutput {
 public:
  // Both are borrowed.
  FastCGIOutput(FastCGIApplication* application, FCGX_Request* request);

  void OutputHeaders() override;
  // Sets the header field "Status" of an error, and takes back the visitor's cookie: an error is no
  // visit. Does nothing once the header fields are sent.
  void SetStatus(const char* status);
  // Drops all output and all header fields but the status and the cookie, for a page of the type
  // "text/html". Returns false, and drops nothing, once the header fields are sent.
  bool BeginErrorPage();

  // The last flush of a response lets the connection hold its end back, because libfcgi sends more
  // when it finishes the request.
  int Flush(int withlength) override;
  using HTTPOutput::Flush;
  // A failed write, as after a client has left, cancels the script.
  int DoWrite(const char* text, int length) override;

 private:
  FastCGIApplication* application;
  FCGX_Request* request;
};

#endif
