// Functions for facts of the request. The web server's variables are among the engine's system
// variables. Tested in tests/extensions/zephstd/RequestTest.cpp.

#include "extensions/zephstd/Request.h"

#include <charconv>
#include <string>

#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Encoding.h"
#include "extensions/zephstd/Words.h"

namespace zephstd {

namespace {

// A variable of the web server; false if it has not sent it.
bool ReadServer(ZPPROGRAM program, std::string_view name, std::string_view* value) {
  ZPVARIABLE const variable = zpVariableHash_Find(zpProgram_System_VariableHash(program),
                                                  name.data(), static_cast<int>(name.size()));
  if (variable == nullptr) return false;
  *value = TextOf(variable);
  return true;
}

std::string_view Server(ZPPROGRAM program, std::string_view name) {
  std::string_view value;
  ReadServer(program, name, &value);
  return value;
}

char Upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c;
}

// Takes the part up to the next mark.
std::string_view TakePart(std::string_view* text, char mark) {
  const size_t end = text->find(mark);
  const std::string_view part = text->substr(0, end);
  text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
  return Trimmed(part);
}

// A weight from 0 to 1000.
int ReadWeight(std::string_view parameters) {
  while (!parameters.empty()) {
    const std::string_view part = TakePart(&parameters, ';');
    if (!part.starts_with("q=") && !part.starts_with("Q=")) continue;
    double weight = 0;
    const char* const end = part.data() + part.size();
    const auto [stop, problem] = std::from_chars(part.data() + 2, end, weight);
    if (problem != std::errc() || stop != end || !(weight >= 0 && weight <= 1)) return 0;
    return static_cast<int>(weight * 1000);
  }
  return 1000;
}

// How well a language suits one that is wanted: 3 for the same, 2 if it is a form of the wanted
// one, 1 if only the language itself is the same, 0 if not.
int Suits(std::string_view language, std::string_view wanted) {
  if (wanted == "*") return 1;
  if (SameText(language, wanted)) return 3;
  const std::string_view start = language.substr(0, wanted.size());
  if (language.size() > wanted.size() && language[wanted.size()] == '-' &&
      SameText(start, wanted)) {
    return 2;
  }
  return SameText(language.substr(0, language.find('-')), wanted.substr(0, wanted.find('-')));
}

// What the header of the wanted languages says of one: the weight of the part that suits it best.
int WeightOf(std::string_view language, std::string_view wanted) {
  int weight = 0, best = 0;
  while (!wanted.empty()) {
    std::string_view part = TakePart(&wanted, ',');
    const std::string_view name = TakePart(&part, ';');
    const int suits = name.empty() ? 0 : Suits(language, name) * (name == "*" ? 1 : 2);
    if (suits > best) {
      best = suits;
      // What is wanted exactly is preferred to a relative of the same weight.
      weight = ReadWeight(part) * 10;
      if (weight > 0) weight += suits;
    }
  }
  return weight;
}

}  // namespace

bool HasWebServer(ZPPROGRAM program) {
  std::string_view value;
  return ReadServer(program, "apitype", &value);
}

bool IsSecure(ZPPROGRAM program) {
  std::string_view value;
  return ReadServer(program, "HTTPS", &value) && !value.empty() && !SameText(value, "off");
}

namespace functions {

void requestmethod(Call& call) {
  const std::string_view method = Server(call.program(), "REQUEST_METHOD");
  Builder to(call);
  for (const char c : method) to.Add(Upper(c));
  to.Return();
}

void isposted(Call& call) {
  call.ReturnInteger(SameText(Server(call.program(), "REQUEST_METHOD"), "POST"));
}

void requestheader(Call& call) {
  std::string name;
  for (const char c : call.text(0)) name += c == '-' ? '_' : Upper(c);
  // These two have no prefix.
  if (name != "CONTENT_TYPE" && name != "CONTENT_LENGTH") name.insert(0, "HTTP_");
  std::string_view value;
  if (ReadServer(call.program(), name, &value)) call.Return(value);
}

void cookie(Call& call) {
  std::string_view sent = Server(call.program(), "HTTP_COOKIE");
  while (!sent.empty()) {
    std::string_view value = TakePart(&sent, ';');
    const size_t equals = value.find('=');
    if (equals == std::string_view::npos || Trimmed(value.substr(0, equals)) != call.text(0)) {
      continue;
    }
    value = Trimmed(value.substr(equals + 1));
    if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"')) {
      value = value.substr(1, value.size() - 2);
    }
    Builder to(call);
    DecodeURL(value, false, &to);
    return to.Return();
  }
}

void clientaddress(Call& call) {
  call.Return(Server(call.program(), "REMOTE_ADDR"));
}

void requesthost(Call& call) {
  std::string_view host = Server(call.program(), "HTTP_HOST");
  if (host.empty()) host = Server(call.program(), "SERVER_NAME");
  // An IPv6 address has colons of its own, in brackets.
  const size_t bracket = host.starts_with('[') ? host.find(']') : 0;
  if (bracket != std::string_view::npos) host = host.substr(0, host.find(':', bracket));
  Builder to(call);
  for (const char c : host) to.Add(Lower(c));
  to.Return();
}

void requestpath(Call& call) {
  std::string_view path = Server(call.program(), "REQUEST_URI");
  if (!path.empty()) return call.Return(path.substr(0, path.find('?')));
  path = Server(call.program(), "PATH_INFO");
  call.Return(path.empty() ? Server(call.program(), "SCRIPT_NAME") : path);
}

void requestquery(Call& call) {
  call.Return(Server(call.program(), "QUERY_STRING"));
}

void issecure(Call& call) {
  call.ReturnInteger(IsSecure(call.program()));
}

void useragent(Call& call) {
  call.Return(Server(call.program(), "HTTP_USER_AGENT"));
}

void preferredlanguage(Call& call) {
  const std::string_view wanted = Server(call.program(), "HTTP_ACCEPT_LANGUAGE");
  std::string_view languages = call.text(0), chosen;
  int best = 0;
  while (!languages.empty()) {
    const std::string_view language = TakePart(&languages, ',');
    if (language.empty()) continue;
    const int weight = WeightOf(language, wanted);
    if (chosen.empty() || weight > best) {
      chosen = language;
      best = weight;
    }
  }
  call.Return(chosen);
}

}  // namespace functions

}  // namespace zephstd
