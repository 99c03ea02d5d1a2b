#include "base/request/URLEncodedParser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "base/compiled/Dictionary.h"
#include "tests/support/FormBodies.h"
#include "tests/support/Rounds.h"

namespace {

const char kTooMany[] = "failed: Maximum number of POST variables exceeded";

// The result of a body: an error first, if any, then the table.
std::string Parsed(const Blocks& blocks, int limit = 0) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, limit);
  const std::string error = Feed(parser, blocks);
  return error + (error.empty() ? "" : "|") + Contents(table);
}

std::string Parsed(std::string_view body, int limit = 0) {
  return Parsed(Blocks{body}, limit);
}

struct Case {
  const char* body;
  const char* expected;
};

template <size_t N>
void ExpectAll(const Case (&cases)[N]) {
  for (const Case& each : cases) {
    SCOPED_TRACE(each.body);
    ExpectInAllCuts(each.body, each.expected, [](const Blocks& blocks) { return Parsed(blocks); });
  }
}

TEST(URLEncodedParser, FieldsWhereverABlockEnds) {
  ExpectAll({
      {"", ""},
      {"a=1", "a=1;"},
      {"a=1&b=2", "a=1;b=2;"},
      {"a=", "a=;"},
      {"a=&b=", "a=;b=;"},
      {"name=a+b%20c%2Bd&other=%41%42", "name=a b c+d;other=AB;"},
      {"first+name=x", "first name=x;"},
      {"a%3Db=c", "a=b=c;"},
      {"a%26b=c%26d", "a&b=c&d;"},
      {"a=b=c", "a=b=c;"},
      {"q=sixteen+bytes+at+once+and+then+some+more+of+them%21&rest=of+the+body",
       "q=sixteen bytes at once and then some more of them!;rest=of the body;"},
      {"%E4%BD%A0%E5%A5%BD=%F0%9F%98%80", "\xE4\xBD\xA0\xE5\xA5\xBD=\xF0\x9F\x98\x80;"},
  });
}

TEST(URLEncodedParser, ANameThatComesAgainMakesAnArray) {
  ExpectAll({
      {"a=1&a=2", "a=(1,2);"},
      {"a=1&a=2&a=3", "a=(1,2,3);"},
      {"A=1&a=2", "A=(1,2);"},
  });
}

TEST(URLEncodedParser, ANameMayBeAPath) {
  ExpectAll({
      {"tea:name=Assam&tea:price=3", "tea={Assam,3};"},
      {"list[2]=b&list[1]=a", "list=(a,b);"},
      {"list%5B2%5D=b", "list=(b);"},
      {"x:a:b:c=1", "x={1};"},
      // A bad index stores nothing, but its variable is made.
      {"list[x]=1&b=2", "list=;b=2;"},
      {"list[1=1&b=2", "list=;b=2;"},
  });
}

TEST(URLEncodedParser, WhatHasNoEqualsSignIsAFieldWithoutAValue) {
  ExpectAll({
      {"abc&a=1", "abc=;a=1;"},
      {"a=1&abc&b=2", "a=1;abc=;b=2;"},
      {"&&a=1", "=;a=1;"},
  });
}

TEST(URLEncodedParser, AtTheEndItCountsOnlyAfterAnotherName) {
  ExpectAll({
      {"abc", ""},
      {"a=1&abc", "a=1;abc=;"},
      {"abc&def", "abc=;def=;"},
      {"=1&abc", "=1;"},
      {"&abc", "=;"},
      {"a=1&", "a=1;=;"},
  });
}

TEST(URLEncodedParser, AnEscapeThatTheEndCutsOffIsDropped) {
  ExpectAll({
      {"a=%4", "a=;"},
      {"a=%", "a=;"},
      {"a=xy%4", "a=xy;"},
  });
}

// Deliberate: the name gets the length of the last one, and keeps that one's bytes where it did not
// overwrite them.
TEST(URLEncodedParser, AnEscapeThatTheEndCutsOffInANameLeavesTheLengthOfTheLastName) {
  ExpectAll({
      {"ab%4", "=;"},
      {"a=1&bcd%4", "a=1;b=;"},
      {"abc=1&d%4", "abc=1;dbc=;"},
      {"abc=1&%", "abc=(1,);"},
      // Copying several bytes at once overwrites no byte after the name.
      {"abcdefghijklmnop=1&x%41%42%", "abcdefghijklmnop=1;xABdefghijklmnop=;"},
      {"abcdefghijklmnop=1&x&y%zzzzzzzzzzzzzzzzzzzz%", "abcdefghijklmnop=1;x=;y=;"},
  });
}

TEST(URLEncodedParser, AnyTwoBytesAfterAPercentSignMakeAByte) {
  ExpectAll({
      {"a=%4a%4A%7e", "a=JJ~;"},
      // "&" counts as -10, "x" as 33: 0x60 | 0x21.
      {"a=%&x&b=1", "a=a;b=1;"},
      {"a=%zz", "a=3;"},
      {"a=%==&b=1", "a=\xDD;b=1;"},
      {"a=%%41", "a=T1;"},
  });
}

TEST(URLEncodedParser, EveryPairOfBytesAfterAPercentSignFollowsTheTwoRules) {
  for (int i = 0; i < 65536; i += kStride) {
    const auto high = static_cast<unsigned char>(i >> 8);
    const auto low = static_cast<unsigned char>(i & 255);
    const auto digit = [](unsigned char c) {
      const int upper = c >= 'a' && c <= 'z' ? c - 32 : c;
      return upper < 'A' ? upper - '0' : (upper & 0xDF) - 55;
    };
    const char expected = static_cast<char>((digit(high) * 16) | digit(low));
    std::string body = "a=%";
    body += static_cast<char>(high);
    body += static_cast<char>(low);
    const std::string wanted = std::string("a=") + expected + ";";
    ASSERT_EQ(Parsed(body), wanted) << i;
    ASSERT_EQ(Parsed(SingleBytes(body)), wanted) << i;
  }
}

TEST(URLEncodedParser, BytesThatMeanNothingStayAsTheyAre) {
  std::string body = "a=", expected = "a=";
  for (int i = 0; i < 256; i++) {
    const char c = static_cast<char>(i);
    if (c == '%' || c == '&') continue;
    body += c;
    expected += c == '+' ? ' ' : c;
  }
  ExpectInAllCuts(body, expected + ";", [](const Blocks& blocks) { return Parsed(blocks); });
}

// A simple implementation of the same rules, a byte at a time, to compare with on random bodies.
std::string PlainReading(std::string_view body) {
  std::string text, name, value, bytes;
  std::vector<std::pair<std::string, std::string>> fields;
  size_t last_length = 0;
  bool in_value = false;
  const auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : (c & 0xDF) - 55; };
  for (size_t i = 0; i < body.size(); i++) {
    char c = body[i];
    std::string& part = in_value ? value : name;
    if (c == '%') {
      part += static_cast<char>(digit(body[i + 1]) * 16 | digit(body[i + 2]));
      i += 2;
    } else if (c == '=' && !in_value) {
      in_value = true;
      last_length = name.size();
    } else if (c == '&') {
      if (!in_value) last_length = name.size();
      fields.emplace_back(name, value);
      name.clear();
      value.clear();
      in_value = false;
    } else {
      part += c == '+' ? ' ' : c;
    }
  }
  if (in_value || last_length > 0) fields.emplace_back(name, value);
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  for (auto& [field, content] : fields) {
    table.SetVariable_Fancy(field.data(), static_cast<int>(field.size()), content.data(),
                            static_cast<int>(content.size()), 1);
  }
  return Contents(table);
}

TEST(URLEncodedParser, RandomBodiesAreReadAsAPlainReaderReadsThem) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<std::string> parts = {"a",  "b",   "name", "=",   "&",
                                          "+",  "%41", "%2b",  "%26", "a rather long plain part",
                                          "=&", "%e4"};
  for (int round = 0; round < 2000; round++) {
    std::string body;
    for (unsigned left = random() % 30; left > 0; left--) body += parts[random() % parts.size()];
    const std::string expected = PlainReading(body);
    ASSERT_EQ(Parsed(body), expected) << body;
    Blocks blocks;
    for (size_t at = 0; at < body.size();) {
      const size_t length = 1 + random() % 40;
      blocks.push_back(std::string_view(body).substr(at, length));
      at += length;
    }
    ASSERT_EQ(Parsed(blocks), expected) << body;
  }
}

TEST(URLEncodedParser, TheVariableBeyondTheLimitIsAFailureAndIsNotStored) {
  EXPECT_EQ(Parsed("a=1&b=2", 2), "a=1;b=2;");
  EXPECT_EQ(Parsed("a=1&b=2&c=3", 2), std::string(kTooMany) + "|a=1;b=2;");
  EXPECT_EQ(Parsed("a=1&b=2&c=3&d=4", 2), std::string(kTooMany) + "|a=1;b=2;");
  // The array's second value is a field too, and so is an empty one.
  EXPECT_EQ(Parsed("a=1&a=2", 1), std::string(kTooMany) + "|a=1;");
  EXPECT_EQ(Parsed("&&", 1), std::string(kTooMany) + "|=;");
}

TEST(URLEncodedParser, ANegativeLimitRefusesTheFirstVariable) {
  EXPECT_EQ(Parsed("a=1", -1), std::string(kTooMany) + "|");
  EXPECT_EQ(Parsed("", -1), "");
}

TEST(URLEncodedParser, ALimitOfZeroIsNone) {
  std::string body;
  for (int i = 0; i < 5000; i++) body += "v" + std::to_string(i) + "=x&";
  body.pop_back();
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, 0);
  EXPECT_EQ(Feed(parser, {body}), "");
  EXPECT_EQ(table.Entries(), 5000);
}

TEST(URLEncodedParser, NamesAndValuesOfAnyLength) {
  for (size_t size : {511u, 512u, 513u, 1024u, 100000u, 3000000u}) {
    SCOPED_TRACE(size);
    const std::string name(size, 'n'), value(size, 'v');
    const std::string body = name + "=" + value;
    Blocks blocks;
    for (size_t i = 0; i < body.size(); i += 8192) {
      blocks.push_back(std::string_view(body).substr(i, 8192));
    }
    EXPECT_EQ(Parsed(blocks) == name + "=" + value + ";", true);
  }
}

// The last name's length exceeds the rest of the cut one; the bytes there still belong to the body.
TEST(URLEncodedParser, ACutNameAcrossAGrowingBufferHasNoForeignBytes) {
  const std::string first(510, 'a'), second(505, 'b');
  const std::string body = first + "=1&" + second + "%4";
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, 0);
  EXPECT_EQ(Feed(parser, {body}), "");
  EXPECT_EQ(TextOf(table.Index(1, 0)->name()), second + std::string(5, 'a'));
}

TEST(URLEncodedParser, ANameThatNestsAHundredThousandTimesIsStoredAndFreed) {
  std::string body = "x";
  for (int i = 0; i < Rounds(100000); i++) body += ":a";
  body += "=deep";
  EXPECT_EQ(Parsed(body), "x={deep};");
}

TEST(URLEncodedParser, AMillionFieldsAreStored) {
  std::string same, different;
  constexpr int many = Rounds(1000000);
  for (int i = 0; i < many; i++) same += "x=" + std::to_string(i % 10) + "&";
  for (int i = 0; i < many / 10; i++) different += "v" + std::to_string(i) + "=&";
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  URLEncodedParser parser(&table, 0);
  EXPECT_TRUE(parser.Parse(same.data(), static_cast<int>(same.size())));
  EXPECT_EQ(table.Index(0, 0)->ElementsUsed(), many);
  EXPECT_TRUE(parser.Parse(different.data(), static_cast<int>(different.size())));
  EXPECT_EQ(table.Entries(), many / 10 + 1);
}

}  // namespace
