// Plain forms: any body gives the same variables, for any cut into blocks.

#include "base/compiled/Dictionary.h"
#include "base/request/URLEncodedParser.h"
#include "fuzz/FormText.h"

namespace {

std::string Parsed(const std::string& body, int limit, size_t most, unsigned seed) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, limit);
  const std::string error = Feed(parser, body, most, seed);
  return Contents(table) + error;
}

}  // namespace

// The first byte is the limit of fields: up to 127, or a negative one.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const auto limit = static_cast<int8_t>(data[0]);
  const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  const unsigned seed = SeedOf(data, size);
  const std::string whole = Parsed(body, limit, body.size() + 1, 1);
  Require(Parsed(body, limit, 1, 1) == whole);
  Require(Parsed(body, limit, 1 + seed % 40, seed) == whole);
  Variable::FreeCycles();
  return 0;
}
