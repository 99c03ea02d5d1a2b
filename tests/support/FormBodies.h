// Bodies of forms, passed to a parser in pieces of every kind: the result must not depend on the
// ends of blocks.

#ifndef ZEPH_TESTS_SUPPORT_FORMBODIES_H
#define ZEPH_TESTS_SUPPORT_FORMBODIES_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/request/HTTPContentParser.h"
#include "base/values/Variable.h"

using Blocks = std::vector<std::string_view>;

// A text with the NUL bytes in it.
inline std::string TextOf(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
}

// All variables of a table in the order in which they were made, "name=value;" each; an array is
// "name=(a,b);", a structure "name={a,b};".
inline std::string Contents(VariableHash& table) {
  std::string text;
  for (int i = 0; i < table.Entries(); i++) {
    Variable* variable = table.Index(i, 0);
    if (!variable) continue;
    const AggregateType kind = variable->aggregatetype();
    const std::string value = TextOf(variable->value());
    text += TextOf(variable->name()) + "=";
    text += kind == AggregateNone    ? value
            : kind == AggregateArray ? "(" + value + ")"
                                     : "{" + value + "}";
    text += ";";
  }
  return text;
}

// Passes the blocks and the end. Returns the error's text after a failure, else the empty text.
inline std::string Feed(HTTPContentParser& parser, const Blocks& blocks) {
  for (std::string_view block : blocks) {
    // A copy in memory of its own, so that a sanitizer sees a read past the block.
    const std::vector<char> bytes(block.begin(), block.end());
    if (!parser.Parse(bytes.data(), static_cast<int>(bytes.size()))) {
      return "failed: " + TextOf(parser.error());
    }
  }
  if (!parser.Finalize()) return "failed: " + TextOf(parser.error());
  return "";
}

inline Blocks SingleBytes(std::string_view body) {
  Blocks blocks;
  for (size_t i = 0; i < body.size(); i++) blocks.push_back(body.substr(i, 1));
  return blocks;
}

// Runs a body whole, byte by byte, in blocks of seven, and cut in two at every position.
// run(blocks) returns a text of all results; it has to be the same text each time.
template <typename Run>
void ExpectInAllCuts(std::string_view body, const std::string& expected, Run run) {
  EXPECT_EQ(run({body}), expected) << "whole";
  EXPECT_EQ(run(SingleBytes(body)), expected) << "byte by byte";
  Blocks sevens;
  for (size_t i = 0; i < body.size(); i += 7) sevens.push_back(body.substr(i, 7));
  EXPECT_EQ(run(sevens), expected) << "in blocks of seven";
  for (size_t cut = 0; cut <= body.size(); cut++) {
    const std::string result = run({body.substr(0, cut), body.substr(cut)});
    ASSERT_EQ(result, expected) << "cut at " << cut;
  }
}

#endif
