// Bodies of forms, in blocks of the size that the engine reads: plain forms and forms in parts,
// with one large field, one large file, or two thousand small fields. The bytes a second are those
// of the body.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>

#include "base/request/MultipartFormParser.h"
#include "base/request/URLEncodedParser.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/Machine.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

const size_t kBlock = 8192;
const size_t kLarge = 10 << 20;

bool Feed(HTTPContentParser& parser, const std::string& body) {
  for (size_t at = 0; at < body.size(); at += kBlock) {
    const auto length = static_cast<int>(std::min(kBlock, body.size() - at));
    if (!parser.Parse(body.data() + at, length)) return false;
  }
  return parser.Finalize();
}

void NoteBytes(benchmark::State& state, const std::string& body) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(body.size()));
}

// --- Plain forms ---------------------------------------------------------------------------------

void ParseURLEncoded(benchmark::State& state, const std::string& body) {
  for (auto _ : state) {
    Dictionary dictionary;
    VariableHash table(&dictionary, 12, 512);
    URLEncodedParser parser(&table, 0);
    if (!Feed(parser, body)) state.SkipWithError("failed");
    benchmark::DoNotOptimize(table.Entries());
  }
  NoteBytes(state, body);
}

std::string PlainFields(int count) {
  std::string body;
  for (int i = 0; i < count; i++) {
    body += (i > 0 ? "&field_" : "field_") + std::to_string(i) + "=a+value+of+" +
            std::to_string(i) + "%2C+as+forms+have+it";
  }
  return body;
}

std::string Repeated(const std::string& text, size_t size) {
  std::string body;
  while (body.size() < size) body += text;
  return body;
}

// --- Forms in parts ------------------------------------------------------------------------------

const char kType[] = "multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW";
const char kBoundary[] = "------WebKitFormBoundary7MA4YWxkTrZu0gW";

std::string Part(const std::string& attributes, const std::string& content) {
  return std::string(kBoundary) + "\r\nContent-Disposition: form-data; " + attributes + "\r\n\r\n" +
         content + "\r\n";
}
std::string End() {
  return std::string(kBoundary) + "--\r\n";
}
std::string Binary(size_t size) {
  std::string bytes(size, '\0');
  unsigned state = 1;
  for (char& c : bytes) {
    state = state * 1103515245 + 12345;
    c = static_cast<char>(state >> 16);
  }
  return bytes;
}
std::string Lines(size_t size) {
  return Repeated("a line of some text, as files have it\r\n", size);
}

// The parser alone: the content of a part is discarded.
class Sink : public MultipartFormParser {
 public:
  explicit Sink(VariableHash* table) : MultipartFormParser(nullptr, nullptr, table, kType, 0) {}
  bool Form_Fragment_Start() override { return true; }
  bool Form_Fragment_Write(const char* data, int length) override {
    benchmark::DoNotOptimize(data);
    bytes += length;
    return true;
  }
  bool Form_Fragment_End() override { return true; }
  long bytes = 0;
};

void ParseParts(benchmark::State& state, const std::string& body) {
  for (auto _ : state) {
    Sink parser(nullptr);
    if (!Feed(parser, body)) state.SkipWithError("failed");
    benchmark::DoNotOptimize(parser.bytes);
  }
  NoteBytes(state, body);
}

void StoreFields(benchmark::State& state, const std::string& body) {
  for (auto _ : state) {
    Dictionary dictionary;
    VariableHash table(&dictionary, 12, 512);
    MultipartFormParser parser(nullptr, nullptr, &table, kType, 0);
    if (!Feed(parser, body)) state.SkipWithError("failed");
    benchmark::DoNotOptimize(table.Entries());
  }
  NoteBytes(state, body);
}

// With the calls of the script, and with a temporary file on disk.
void StoreFile(benchmark::State& state, const std::string& body) {
  Machine machine;
  machine.Assemble(
      ".function Zeph_ValidateFileUpload(field, name, type)\npushi 0\nret\n.end\n"
      ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\nretn\n.end\n");
  TemporaryDirectory directory;
  UNIXReentrantFileManager files(&machine.application);
  if (!files.InitializeDataDirectory(directory.path().c_str())) state.SkipWithError("directory");
  for (auto _ : state) {
    MultipartFormParser parser(&machine.vm(), &files, &machine.global, kType, 0);
    if (!Feed(parser, body)) state.SkipWithError("failed");
  }
  NoteBytes(state, body);
  machine.Close();
}

const bool registered = [] {
  const auto add = [](const char* name, auto run, std::string body) {
    benchmark::RegisterBenchmark(name, [run, body](benchmark::State& state) { run(state, body); });
  };
  add("url_encoded/2000_fields", ParseURLEncoded, PlainFields(2000));
  add("url_encoded/10MB_plain", ParseURLEncoded, "a=" + Repeated("plain+words+of+text.", kLarge));
  add("url_encoded/10MB_escaped", ParseURLEncoded, "a=" + Repeated("%E4%BD%A0", kLarge));
  add("multipart/10MB_file_parser_alone", ParseParts,
      Part("name=\"f\"; filename=\"f\"", Binary(kLarge)) + End());
  add("multipart/10MB_lines_parser_alone", ParseParts,
      Part("name=\"f\"; filename=\"f\"", Lines(kLarge)) + End());
  add("multipart/10MB_of_CR_LF_parser_alone", ParseParts,
      Part("name=\"f\"; filename=\"f\"", Repeated("\r\n-", kLarge)) + End());
  add("multipart/10MB_file_stored", StoreFile,
      Part("name=\"f\"; filename=\"f\"", Binary(kLarge)) + End());
  add("multipart/10MB_field", StoreFields, Part("name=\"a\"", Lines(kLarge)) + End());
  std::string fields;
  for (int i = 0; i < 2000; i++) {
    fields += Part("name=\"field_" + std::to_string(i) + "\"", "a value of " + std::to_string(i));
  }
  add("multipart/2000_fields", StoreFields, fields + End());
  return true;
}();

}  // namespace
