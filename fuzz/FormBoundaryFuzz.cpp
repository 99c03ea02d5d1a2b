// The boundary in the content type of a body, compared with a second reader of the same rules.

#include <cstring>
#include <string_view>

#include "base/compiled/Dictionary.h"
#include "base/request/MultipartFormParser.h"
#include "fuzz/FormText.h"

namespace {

// The value of the boundary, and whether there is one.
class Model {
 public:
  explicit Model(std::string_view text) : rest(text) { Read(); }

  bool found = false;
  std::string value;

 private:
  bool SkipTo(char c) {
    const size_t at = rest.find(c);
    rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + 1);
    return at != std::string_view::npos;
  }
  std::string Quoted() {
    std::string text;
    rest.remove_prefix(1);
    while (!rest.empty() && rest[0] != '"') {
      if (rest[0] == '\\' && rest.size() > 1) rest.remove_prefix(1);
      text += rest[0];
      rest.remove_prefix(1);
    }
    if (!rest.empty()) rest.remove_prefix(1);
    return text;
  }
  void Read() {
    SkipTo(';');
    for (;;) {
      while (!rest.empty() && strchr(" \t\n\v\f\r", rest[0])) rest.remove_prefix(1);
      const size_t equals = rest.find('=');
      if (equals == std::string_view::npos) return;
      std::string name(rest.substr(0, equals));
      for (char& c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
      rest.remove_prefix(equals + 1);
      const bool quoted = !rest.empty() && rest[0] == '"';
      std::string text = quoted ? Quoted() : "";
      if (name == "boundary") {
        found = true;
        value = quoted ? text : std::string(rest.substr(0, rest.find(';')));
        if (!quoted) return;
      }
      if (!SkipTo(';')) return;
    }
  }

  std::string_view rest;
};

class Parser : public MultipartFormParser {
 public:
  Parser(VariableHash* table, const char* content_type)
      : MultipartFormParser(nullptr, nullptr, table, content_type, 0) {}
  std::string Boundary() const {
    return std::string(boundary.data(), static_cast<size_t>(boundary.used()));
  }
  bool Learns() const { return state == LearningBoundary; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A header field ends at its first NUL.
  const std::string text(reinterpret_cast<const char*>(data),
                         strnlen(reinterpret_cast<const char*>(data), size));
  const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
  memcpy(exact.get(), text.c_str(), text.size() + 1);
  const Model model(text);
  Dictionary dictionary;
  VariableHash table(&dictionary, 8, 64);
  Parser parser(&table, exact.get());
  Require(parser.Learns() == !model.found);
  Require(parser.Boundary() == (model.found ? "\r\n--" + model.value : "\r\n"));
  // A field between two such boundaries is read, unless the boundary contains a byte that ends
  // lines or "-".
  if (model.value.find_first_of("\r\n-") != std::string::npos) return 0;
  const std::string body = "--" + model.value +
                           "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" +
                           model.value + "--\r\n";
  const std::string error = Feed(parser, body, 7, SeedOf(data, size));
  Require(error.empty() && Contents(table) == "a=1/2;");
  return 0;
}
