// Writes header fields and body bytes to libfcgi.

#include "fastcgi/FastCGIOutput.h"

#include <fcgiapp.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string_view>

#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/FastCGIConnection.h"

namespace {

const int kBlockSize = 8192;
const int kFlushThreshold = 1048576;
const std::string_view kColon = ": ";
const std::string_view kLineEnd = "\r\n";

std::string_view Name(const HTTPOutput_Header* field) {
  return KeyText(field->name, field->namelength);
}
std::string_view Value(const HTTPOutput_Header* field) {
  return KeyText(field->value, field->valuelength);
}

}  // namespace

FastCGIOutput::FastCGIOutput(FastCGIApplication* application, FCGX_Request* request)
    : HTTPOutput(kBlockSize, kFlushThreshold), application(application), request(request) {}

void FastCGIOutput::OutputHeaders() {
  size_t length = kLineEnd.size();
  for (HTTPOutput_Header* field = headers.First(); field; field = headers.Next()) {
    length += Name(field).size() + kColon.size() + Value(field).size() + kLineEnd.size();
  }
  if (length > INT_MAX) throw std::bad_alloc();
  // The fields of nearly every page fit here.
  char room[1024];
  std::unique_ptr<char[]> larger(length > sizeof room ? new char[length] : nullptr);
  char* const text = larger ? larger.get() : room;
  char* end = text;
  const auto add = [&end](std::string_view piece) {
    end = std::copy(piece.begin(), piece.end(), end);
  };
  for (HTTPOutput_Header* field = headers.First(); field; field = headers.Next()) {
    add(Name(field));
    add(kColon);
    add(Value(field));
    add(kLineEnd);
  }
  add(kLineEnd);
  DoWrite(text, static_cast<int>(length));
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

int FastCGIOutput::Flush(int withlength) {
  FastCGIConnection* const connection = FastCGIConnection::Current();
  if (withlength && connection) connection->HoldWrites();
  return HTTPOutput::Flush(withlength);
}

int FastCGIOutput::DoWrite(const char* text, int length) {
  int written = FCGX_PutStr(text, length, request->out);
  // After an earlier failure, FCGX_PutStr may succeed; only the stream's error shows it.
  if (written >= 0 && FCGX_GetError(request->out) != 0) written = -1;
  if (written < 0) application->Cancelled();
  return written;
}
