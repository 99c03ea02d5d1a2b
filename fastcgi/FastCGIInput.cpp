// The body of a request, read into the variables of the script.

#include <fcgiapp.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/compiled/VariableHash.h"
#include "base/core/CLocale.h"
#include "base/core/RunLimit.h"
#include "base/core/memcmpi.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/request/MultipartFormParser.h"
#include "base/request/URLEncodedParser.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/FastCGIThreads.h"

namespace {

bool BeginsWith(const char* text, const char* prefix) {
  const size_t length = strlen(prefix);
  return strnlen(text, length) == length && memcmpi(text, prefix, length) == 0;
}

}  // namespace

// The parser for a body of that type. Returns null if the body is refused; the message is then
// sent.
std::unique_ptr<HTTPContentParser> FastCGIApplication::ContentHandler(const char* type,
                                                                      int length) {
  const int most_fields = configuration->value_integer(Config_max_post_vars);
  if (BeginsWith(type, "application/x-www-form-urlencoded")) {
    return std::make_unique<URLEncodedParser>(tables.global_variables, most_fields);
  }
  if (BeginsWith(type, "multipart/form-data")) {
    return std::make_unique<MultipartFormParser>(vm, file_manager, tables.global_variables, type,
                                                 most_fields);
  }
  const int most = configuration->value_integer(Config_max_unknown_content_length);
  if (most < 0) {
    Error("Unknown POST content type");
    return nullptr;
  }
  if (most > 0 && length > most) {
    Error("POST content length exceeds configured maximum for unknown content types");
    return nullptr;
  }
  return std::make_unique<UnknownContentHandler>(tables.system_variables, length);
}

// Passes the body to the handler, up to the announced length. A shorter body is no failure.
bool FastCGIApplication::ReadInput(HTTPContentParser* handler, int length) {
  char block[kInputBlock];
  const RunLimit limit(posttimedoutflag());
  while (length > 0 && !EndsForShutdown()) {
    const int count = FCGX_GetStr(block, std::min(length, kInputBlock), request->in);
    if (count <= 0) break;
    length -= count;
    // The time limit is checked only after a block has come: the read before it waits for the
    // client as long as it takes, or until the process shuts down.
    if (posttimedout()) {
      Error("Timeout processing POST data");
      return false;
    }
    if (!handler->Parse(block, count)) return ContentError(handler);
  }
  // The read may have ended because the process does.
  if (length > 0) (void)EndsForShutdown();
  return handler->Finalize() || ContentError(handler);
}

// Sends the handler's message. Unless it is told otherwise, the watch takes a refused body for the
// client's fault.
bool FastCGIApplication::ContentError(HTTPContentParser* handler) {
  if (handler->is_own_failure()) {
    watch.StageFails(RequestWatch::Cause::Upload, vm->ScriptPath(), handler->error());
  }
  Error(handler->error());
  return false;
}

// Whether the process is about to end. The script is cancelled then: it is not to begin with a part
// of its fields.
bool FastCGIApplication::EndsForShutdown() {
  if (!thread_manager || !thread_manager->ShuttingDown()) return false;
  Cancelled();
  return true;
}

bool FastCGIApplication::ProcessPOSTedData() {
  const char* type = parameters.content_type;
  const char* announced = parameters.content_length;
  if (!type || !announced) return true;
  const int length = static_cast<int>(LeadingNumber(announced));
  if (length <= 0) return true;
  const std::unique_ptr<HTTPContentParser> handler = ContentHandler(type, length);
  if (!handler) return false;
  ResetPOSTTimeout();
  if (!ReadInput(handler.get(), length)) return false;
  ClearPOSTTimeout();
  return true;
}
