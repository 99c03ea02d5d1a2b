// Writes header fields and body bytes to libfcgi.

#include "fastcgi/FastCGIOutput.h"

#include <fcgiapp.h>

#include "fastcgi/FastCGIApplication.h"

namespace {

const int kBlockSize = 8192;
const int kFlushThreshold = 1048576;

}  // namespace

FastCGIOutput::FastCGIOutput(FastCGIApplication* application, FCGX_Request* request)
    : HTTPOutput(kBlockSize, kFlushThreshold), application(application), request(request) {}

void FastCGIOutput::OutputHeaders() {
  HTTPOutput_Chain text(1, block_size);
  for (HTTPOutput_Header* field = headers.First(); field; field = headers.Next()) {
    text.Write(field->name, field->namelength);
    text.Write(": ", 2);
    text.Write(field->value, field->valuelength);
    text.Write("\r\n", 2);
  }
  text.Write("\r\n", 2);
  DoWrite(text.data, text.used);
}

int FastCGIOutput::DoWrite(const char* text, int length) {
  int written = FCGX_PutStr(text, length, request->out);
  // After an earlier failure, FCGX_PutStr may succeed; only the stream's error shows it.
  if (written >= 0 && FCGX_GetError(request->out) != 0) written = -1;
  if (written < 0) application->Cancelled();
  return written;
}
