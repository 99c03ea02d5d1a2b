// Functions for the head of the answer. Tested in tests/extensions/zephstd/AnswerTest.cpp.

#include <charconv>
#include <cstring>
#include <memory>
#include <string>

#include "extensions/quote.h"
#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Encoding.h"
#include "extensions/zephstd/Request.h"
#include "extensions/zephstd/UTF8.h"
#include "extensions/zephstd/Words.h"

namespace zephstd {

namespace {

constexpr size_t kMostHeader = 8192;  // bytes of a value; servers refuse more
constexpr size_t kMostCookie = 4096;

// A character of a name, by RFC 9110.
bool IsTokenCharacter(char c) {
  return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') ||
         (c != '\0' && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

bool IsToken(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (!IsTokenCharacter(c)) return false;
  }
  return true;
}

bool BreaksHeader(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// A copy that the engine adopts.
char* Adoptable(ZPPROGRAM program, std::string_view text) {
  char* const copy =
      static_cast<char*>(zpProgram_Allocate(program, static_cast<int>(text.size()) + 1));
  text.copy(copy, text.size());
  copy[text.size()] = '\0';
  return copy;
}

// Sets a header, and the function's result. i is the argument that is to blame for a value that
// cannot be one.
void SetHeader(Call& call, std::string_view name, std::string_view value, int i) {
  if (BreaksHeader(value)) {
    call.Fail(i, "has CR, LF or NUL");
    return;
  }
  if (value.size() > kMostHeader) {
    call.Fail(i, "has more than 8192 bytes");
    return;
  }
  ZPPROGRAM const program = call.program();
  // Without a web server there is no head.
  if (!HasWebServer(program)) return call.ReturnInteger(0);
  char* const own_name = Adoptable(program, name);
  char* own_value = nullptr;
  try {
    own_value = Adoptable(program, value);
  } catch (...) {
    zpProgram_Free(program, own_name);
    throw;
  }
  if (zpProgram_Output_Header(program, own_name, static_cast<int>(name.size()), 1, own_value,
                              static_cast<int>(value.size()), 1) == 0) {
    call.Fail("the head of the answer is sent already");
    return;
  }
  call.ReturnInteger(1);
}

struct Status {
  int code;
  std::string_view reason;
};
constexpr Status kStatuses[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {418, "I'm a teapot"},
    {422, "Unprocessable Content"},
    {423, "Locked"},
    {424, "Failed Dependency"},
    {425, "Too Early"},
    {426, "Upgrade Required"},
    {428, "Precondition Required"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {451, "Unavailable For Legal Reasons"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {507, "Insufficient Storage"},
    {511, "Network Authentication Required"},
};

std::string StatusLine(long long code, std::string_view reason) {
  for (const Status& status : kStatuses) {
    if (reason.empty() && status.code == code) reason = status.reason;
  }
  std::string line = std::to_string(code);
  if (!reason.empty()) line.append(" ").append(reason);
  return line;
}

// --- Cookies -------------------------------------------------------------------------------------

struct CookieOptions {
  std::string_view max_age, path = "/", domain, same_site = "Lax";
  bool secure = false, script = false;
};

bool IsNumber(std::string_view text) {
  long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(text.data(), end, number);
  return problem == std::errc() && stop == end;
}

// What an attribute of a cookie can have.
bool IsAttributeValue(std::string_view text) {
  for (const char c : text) {
    if (c < ' ' || c > '~' || c == ';' || c == ',') return false;
  }
  return true;
}

bool IsDomain(std::string_view text) {
  for (const char c : text) {
    const bool is_letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
    if (!is_letter && !(c >= '0' && c <= '9') && c != '-' && c != '.') return false;
  }
  return !text.empty();
}

bool ReadOption(std::string_view name, std::string_view value, CookieOptions* options) {
  if (SameText(name, "max-age")) {
    options->max_age = value;
    return IsNumber(value);
  }
  if (SameText(name, "path")) {
    options->path = value;
    return value.starts_with('/') && IsAttributeValue(value);
  }
  if (SameText(name, "domain")) {
    options->domain = value;
    return IsDomain(value);
  }
  if (SameText(name, "samesite")) {
    for (const std::string_view known : {"Lax", "Strict", "None"}) {
      if (SameText(value, known)) {
        options->same_site = known;
        return true;
      }
    }
    return false;
  }
  if (SameText(name, "secure") && value.empty()) return options->secure = true;
  if (SameText(name, "script") && value.empty()) return options->script = true;
  // The default, in words.
  return SameText(name, "httponly") && value.empty();
}

bool ReadOptions(Call& call, CookieOptions* options) {
  std::string_view text = call.text(2);
  while (!text.empty()) {
    const size_t end = text.find(';');
    const std::string_view option = Trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (option.empty()) continue;
    const size_t equals = option.find('=');
    const std::string_view name = Trimmed(option.substr(0, equals));
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : Trimmed(option.substr(equals + 1));
    if (!ReadOption(name, value, options)) {
      return call.Fail(2, "has a wrong part", option);
    }
  }
  if (options->same_site == "None" && !options->secure) {
    return call.Fail(2, "has SameSite=None without Secure");
  }
  return true;
}

// The name of the cookie of this answer, because a second one would take its place.
constexpr char kCookieName[] = "zephstd cookie";

bool TakeCookieName(Call& call, std::string_view name) {
  ZPPROGRAM const program = call.program();
  const auto* const taken =
      static_cast<const char*>(zpProgram_Lookup_Persistent(program, kCookieName, -1));
  if (taken == nullptr) {
    zpProgram_Register_Persistent(program, kCookieName, -1, Adoptable(program, name), nullptr);
    return true;
  }
  if (name == taken) return true;
  return call.Fail(0, "is a second cookie: the answer has '" + EncodedQuote(taken) + "' already");
}

}  // namespace

namespace functions {

void setheader(Call& call) {
  if (!IsToken(call.text(0))) {
    call.Fail(0, "is no name of a header");
    return;
  }
  SetHeader(call, call.text(0), call.text(1), 1);
}

void setstatus(Call& call) {
  const long long code = call.integer(0);
  if (code < 200 || code > 599) {
    call.Fail(0, "is not 200 to 599");
    return;
  }
  SetHeader(call, "Status", StatusLine(code, call.text(1)), 1);
}

void redirect(Call& call) {
  const long long code = call.given(1) ? call.integer(1) : 303;
  if (code != 301 && code != 302 && code != 303 && code != 307 && code != 308) {
    call.Fail(1, "is not 301, 302, 303, 307 or 308");
    return;
  }
  if (!call.given(0)) {
    call.Fail(0, "is empty");
    return;
  }
  if (BreaksHeader(call.text(0))) {
    call.Fail(0, "has CR, LF or NUL");
    return;
  }
  Builder url(call);
  EncodeWholeURL(call.text(0), &url);
  if (!call.failed()) SetHeader(call, "Location", url.text(), 0);
  if (!call.failed()) SetHeader(call, "Status", StatusLine(code, {}), 1);
}

void setcookie(Call& call) {
  CookieOptions options;
  if (!IsToken(call.text(0))) {
    call.Fail(0, "is no name of a cookie");
    return;
  }
  if (!ReadOptions(call, &options)) return;
  Builder to(call);
  to.Add(call.text(0));
  to.Add('=');
  EncodeURL(call.text(1), &to);
  for (const auto& [name, value] :
       {std::pair<std::string_view, std::string_view>{"; Max-Age=", options.max_age},
        {"; Path=", options.path},
        {"; Domain=", options.domain},
        {"; SameSite=", options.same_site}}) {
    if (value.empty()) continue;
    to.Add(name);
    to.Add(value);
  }
  if (options.secure || IsSecure(call.program())) to.Add("; Secure");
  if (!options.script) to.Add("; HttpOnly");
  if (to.size() > kMostCookie) {
    call.Fail(1, "makes the cookie larger than 4096 bytes");
    return;
  }
  if (!TakeCookieName(call, call.text(0))) return;
  SetHeader(call, "Set-Cookie", to.text(), 1);
}

void contenttype(Call& call) {
  const std::string_view type = call.text(0);
  const size_t slash = type.find('/');
  const size_t end = type.find_first_of("; ");
  if (slash == std::string_view::npos || slash > end || !IsToken(type.substr(0, slash)) ||
      !IsToken(type.substr(slash + 1, end - slash - 1))) {
    call.Fail(0, "is no content type");
    return;
  }
  std::string value(type), lower;
  for (const char c : type) lower += Lower(c);
  const bool is_text = lower.starts_with("text/") || lower == "application/javascript";
  if (is_text && lower.find("charset") == std::string::npos) value += "; charset=utf-8";
  SetHeader(call, "Content-Type", value, 0);
}

void nocache(Call& call) {
  SetHeader(call, "Cache-Control", "no-store", 0);
}

void download(Call& call) {
  const std::string_view name = call.text(0);
  if (name.empty() || name.find_first_of("/\\") != std::string_view::npos) {
    call.Fail(0, "is no name of a file");
    return;
  }
  if (BreaksHeader(name)) {
    call.Fail(0, "has CR, LF or NUL");
    return;
  }
  // By RFC 6266: one form for old browsers, and one with all characters.
  Builder to(call);
  to.Add("attachment; filename=\"");
  for (size_t at = 0; at < name.size();) {
    const Character character = FirstCharacter(name.substr(at));
    const bool plain = character.code >= ' ' && character.code <= '~' && character.code != '"' &&
                       character.code != '%';
    to.Add(plain ? static_cast<char>(character.code) : '_');
    at += static_cast<size_t>(character.length);
  }
  to.Add("\"; filename*=UTF-8''");
  EncodeURL(name, &to);
  if (!call.failed()) SetHeader(call, "Content-Disposition", to.text(), 0);
}

}  // namespace functions

}  // namespace zephstd
