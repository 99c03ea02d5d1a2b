// Shared by the form fuzzers: bodies cut into blocks by the input itself, and tables as text.

#ifndef ZEPH_FUZZ_FORMTEXT_H
#define ZEPH_FUZZ_FORMTEXT_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>

#include "base/compiled/VariableHash.h"
#include "base/request/HTTPContentParser.h"
#include "base/values/Variable.h"

inline void Require(bool condition) {
  if (!condition) abort();
}

// The variables as text, in the order in which they were made.
inline std::string Contents(VariableHash& table) {
  std::string text;
  for (int i = 0; i < table.Entries(); i++) {
    Variable* variable = table.Index(i, 0);
    if (!variable) continue;
    String& name = variable->name();
    text.append(name.data ? name.data : "", static_cast<size_t>(name.length)) += '=';
    String& value = variable->value();
    text.append(value.data ? value.data : "", static_cast<size_t>(value.length));
    text += "/" + std::to_string(variable->aggregatetype()) + ";";
  }
  return text;
}

// A seed that depends on every byte of the input.
inline unsigned SeedOf(const uint8_t* data, size_t size) {
  unsigned seed = static_cast<unsigned>(size);
  for (size_t i = 0; i < size; i++) seed = seed * 31 + data[i];
  return seed;
}

// Passes a body to the parser in blocks of at most `most` bytes, each of random length and in
// memory of its own, so that a read past its end is found. Returns "!" and the error's text if a
// block fails, else the empty text.
inline std::string Feed(HTTPContentParser& parser, const std::string& body, size_t most,
                        unsigned seed) {
  std::minstd_rand random(seed);
  for (size_t at = 0; at < body.size();) {
    const size_t length = std::min(body.size() - at, most > 1 ? 1 + random() % most : 1);
    const std::unique_ptr<char[]> block(new char[length]);
    body.copy(block.get(), length, at);
    if (!parser.Parse(block.get(), static_cast<int>(length))) {
      return "!" + std::string(parser.error().data ? parser.error().data : "",
                               static_cast<size_t>(parser.error().length));
    }
    at += length;
  }
  Require(parser.Finalize() || parser.error().length > 0);
  return "";
}

#endif
