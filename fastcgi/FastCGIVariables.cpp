// The variables that a script gets from its request: the web server's parameters, the arguments,
// the fields of the query string, and the page's address.

#include <fcgiapp.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CLocale.h"
#include "base/core/RunLimit.h"
#include "base/network/NetworkManager.h"
#include "base/request/SpecialVariable.h"
#include "base/request/URLEncodedParser.h"
#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/RequestVariables.h"

namespace {

// Appends a number to the text.
void AppendNumber(String* text, int number) {
  char digits[12];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  text->cat(digits, static_cast<int>(end - digits));
}

// The name of the numbered argument: arg1, arg2 and so on.
class ArgumentName {
 public:
  explicit ArgumentName(int number)
      : end(std::to_chars(text + 3, text + sizeof text, number).ptr) {}
  operator std::string_view() const { return {text, end}; }

 private:
  char text[RequestVariables::kLongestName] = {'a', 'r', 'g'};
  const char* end;
};

}  // namespace

bool FastCGIApplication::AddVariables() {
  AddEnvironmentVariables();
  AddQueryArguments();
  if (!AddQueryVariables()) return false;
  AddAPIVariables();
  return true;
}

void FastCGIApplication::AddEnvironmentVariables() {
  std::unique_ptr<LateVariables> system(NewSystemVariables(this));
  request_variables = std::make_unique<RequestVariables>(request->envp, std::move(system));
}

void FastCGIApplication::AddQueryArguments() {
  int count = 0;
  if (parameters.path_info) {
    request_variables->AddBorrowed(ArgumentName(++count), parameters.path_info, -1);
  }
  // A piece that decodes to an empty text gets no number.
  const auto add_decoded = [&](const char* text, int length) {
    int decoded_length, size;
    char* decoded = DecodeAttribute(text, length, &decoded_length, &size);
    String argument(decoded, decoded_length, size);
    if (argument.length == 0) return;
    if (count == 0) first_argument = argument;
    request_variables->AddText(ArgumentName(++count), std::move(argument));
  };
  if (copied_argument_count >= 2) {
    for (int i = 1; i < copied_argument_count; i++) add_decoded(copied_arguments[i], -1);
  } else if (parameters.query_string) {
    for (const char* piece = parameters.query_string;;) {
      const auto length = strcspn(piece, "+");
      if (length > 0) add_decoded(piece, static_cast<int>(length));
      if (piece[length] == '\0') break;
      piece += length + 1;
    }
  }
  request_variables->AddNumber("nargs", count);
}

// With a path the whole query string consists of fields; without one the fields follow the script's
// name and a "+".
bool FastCGIApplication::AddQueryVariables() {
  if (!parameters.query_string) return true;
  const char* fields = parameters.query_string;
  if (!parameters.path_info) {
    fields = strchr(parameters.query_string, '+');
    if (!fields) return true;
    fields++;
  }
  // These fields have the same time limit as those of a body. The limit starts again for the body.
  ResetPOSTTimeout();
  const RunLimit limit(posttimedoutflag());
  URLEncodedParser parser(tables.global_variables, 0);
  size_t left = strlen(fields);
  while (left > 0 && !EndsForShutdown()) {
    const size_t piece = std::min<size_t>(left, kInputBlock);
    if (!parser.Parse(fields, static_cast<int>(piece))) break;
    fields += piece;
    left -= piece;
  }
  if (parser.error().length > 0 || !parser.Finalize()) {
    Error(parser.error());
    return false;
  }
  ClearPOSTTimeout();
  return true;
}

void FastCGIApplication::AddAPIVariables() {
  request_variables->AddNumber("process_id", processid());
  request_variables->AddNumber("thread_id", threadid());
  request_variables->AddBorrowed("apitype", parameters.path_info ? "Redirect" : "CGI", -1);
  if (parameters.server_name) {
    const auto make = [](const void* self) {
      return static_cast<const FastCGIApplication*>(self)->DocumentURL();
    };
    request_variables->AddMade("documenturl", make, this);
  }
}

// The address of this page, up to the place where a script may append fields, so it ends with "?"
// or "+". Any HTTPS parameter means https, because servers either set it to "on" or leave it out.
String FastCGIApplication::DocumentURL() const {
  const bool secure = parameters.https != nullptr;
  const int default_port = secure ? 443 : 80;
  const int port = parameters.server_port ? static_cast<int>(LeadingNumber(parameters.server_port))
                                          : default_port;
  const char* host = parameters.server_name;
  // A name has no colon; most hosts are names.
  const bool bracketed = strchr(host, ':') && network_manager->IsIPv6Address(host);
  String url(secure ? "https://" : "http://", -1);
  if (bracketed) url.cat('[');
  url.cat(host, -1);
  if (bracketed) url.cat(']');
  if (port != default_port) {
    url.cat(':');
    AppendNumber(&url, port);
  }
  if (parameters.path_info) {
    url.cat(parameters.path_info, -1);
    url.cat('?');
  } else {
    if (parameters.script_name) url.cat(parameters.script_name, -1);
    url.cat('?');
    if (first_argument.length > 0) url.cat(first_argument.data, first_argument.length);
    url.cat('+');
  }
  return url;
}
