// Writes header fields and body bytes to libfcgi.

#include "fastcgi/FastCGIOutput.h"

#include <fcgiapp.h>

#include <string_view>

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

void FastCGIOutput::SetStatus(const char* status) {
  if (headers_sent) return;
  static const char kCookie[] = "Set-Cookie";
  const HTTPOutput_Header* set = headers.Find(kCookie, sizeof kCookie - 1);
  // A script may have put a cookie of its own there.
  if (set && KeyText(set->value, set->valuelength).starts_with("zixcallerid=")) {
    delete headers.Remove(kCookie, sizeof kCookie - 1);
  }
  Header("Status", status);
}

bool FastCGIOutput::BeginErrorPage() {
  if (!DropBody()) return false;
  const auto is_kept = [](const HTTPOutput_Header* field) {
    const std::string_view name = KeyText(field->name, field->namelength);
    return name == "Status" || name == "Set-Cookie";
  };
  HTTPOutput_Header* field = headers.First();
  while (field) {
    if (is_kept(field)) {
      field = headers.Next();
    } else {
      delete headers.Remove(field->name, field->namelength);
      field = headers.First();
    }
  }
  Header("Content-Type", "text/html");
  return true;
}

int FastCGIOutput::DoWrite(const char* text, int length) {
  int written = FCGX_PutStr(text, length, request->out);
  // After an earlier failure, FCGX_PutStr may succeed; only the stream's error shows it.
  if (written >= 0 && FCGX_GetError(request->out) != 0) written = -1;
  if (written < 0) application->Cancelled();
  return written;
}
