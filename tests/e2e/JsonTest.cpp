// The builtin library of extensions/zephjson.c, as a script sees it. The second opinion on texts is
// the json module of Python, where that is installed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

const char kDeclared[] =
    ".function json_decode(text, value var) external\n"
    ".function json_encode(value var) external\n.end\n";

class Json : public testing::Test {
 protected:
  Json() {
    engine.settings =
        "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/zephjson.so") + "\"\n";
  }

  std::string Page(const std::string& code) {
    engine.Script("page.zpc", kDeclared + code);
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/page.zpc")});
    EXPECT_EQ(command.Run(), 0) << command.output;
    EXPECT_EQ(command.errors, "");
    return command.output;
  }
  // A text as an operand of pushc.
  static std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
      char escape[8];
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x20 || byte > 0x7E || c == '"' || c == '\\') {
        snprintf(escape, sizeof escape, "\\x%02x", byte);
        quoted += escape;
      } else {
        quoted += c;
      }
    }
    return quoted + "\"";
  }
  // The result of json_decode and, with a bar between, the value as json_encode writes it.
  std::string Again(const std::string& json) {
    return Page("pushc " + Quoted(json) +
                "\npushg v\ncall json_decode\nout\npushc \"|\"\nout\n"
                "pushg v\ncall json_encode\nout\n");
  }

  EngineProcess engine;
};

TEST_F(Json, ValuesComeBack) {
  const struct {
    const char* text;
    const char* again;
  } cases[] = {
      {"1", "1"},
      {" [ 1 , -2 , 3.5 , 1e3 , 0 ] ", "[1,-2,3.5,1000,0]"},
      {"\"text\"", "\"text\""},
      {"{\"a\": 1, \"b\": [true, false, null], \"c\": {\"d\": \"e\"}}",
       "{\"a\":1,\"b\":[1,0,null],\"c\":{\"d\":\"e\"}}"},
      {"[]", "[]"},
      {"{}", "{}"},
      {"[[],{}]", "[[],{}]"},
      {"null", "null"},
      {"{\"a\":null}", "{\"a\":null}"},
      {"\"\"", "\"\""},
      {"2147483647", "2147483647"},
      {"-2147483648", "-2147483648"},
      {"2147483648", "2147483648"},
      {"12345678901234567890", "\"12345678901234567890\""},
      {"{\"a\":1,\"A\":2}", "{\"a\":2}"},
      {"{\"\":1}", "{\"\":1}"},
      {"\"\\u0041\\u00e9\\u20ac\\ud83d\\ude00\"", "\"A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""},
      {"\"\\ud83d\"", "\"\xEF\xBF\xBD\""},
      {"\"\\ud83d\\u0041\"",
       "\"\xEF\xBF\xBD"
       "A\""},
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "\"\\\"\\\\/\\u0008\\u000c\\n\\r\\t\""},
      {"\"</script>\"", "\"\\u003c/script\\u003e\""},
      {"\"<!--<script>&\"", "\"\\u003c!--\\u003cscript\\u003e\\u0026\""},
      {"\"\\u2028\\u2029\"", "\"\\u2028\\u2029\""},
      {"\"\\u0000\"", "\"\\u0000\""},
  };
  for (const auto& each : cases) EXPECT_EQ(Again(each.text), std::string("|") + each.again);
}

TEST_F(Json, WhatIsWrongIsToldWithItsPlace) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"", "line 1, byte 1: a value is expected"},
      {"[1,\n 2", "line 2, byte 3: ',' or ']' is expected"},
      {"[1,]", "line 1, byte 4: a value is expected"},
      {"{\"a\" 1}", "line 1, byte 6: ':' is expected"},
      {"{a:1}", "line 1, byte 2: a string is expected"},
      {"{\"a\":1", "line 1, byte 7: ',' or '}' is expected"},
      {"\"abc", "line 1, byte 5: a string does not end"},
      {"\"abc\\", "line 1, byte 6: a string does not end"},
      {"\"a\nb\"", "line 1, byte 3: a control character in a string"},
      {"\"\\x\"", "line 1, byte 4: an unknown escape in a string"},
      {"\"\\u12g4\"", "line 1, byte 6: four hexadecimal digits are expected"},
      {"01", "line 1, byte 3: a number begins with 0"},
      {"-", "line 1, byte 2: a digit is expected"},
      {"1.", "line 1, byte 3: a digit is expected"},
      {"1e", "line 1, byte 3: a digit is expected"},
      {"+1", "line 1, byte 1: a value is expected"},
      {"tru", "line 1, byte 1: a value is expected"},
      {"nul", "line 1, byte 1: a value is expected"},
      {"1 2", "line 1, byte 3: something follows the value"},
      {"0x1F", "line 1, byte 2: something follows the value"},
      {"'a'", "line 1, byte 1: a value is expected"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(Again(each.text), std::string(each.message) + "|\"\"") << each.text;
  }
}

TEST_F(Json, VariablesAreWrittenAsTheyAre) {
  EXPECT_EQ(Page("pushi 5\npushg a\npushi 1\nelem\nstore\n"
                 "pushc \"5\"\npushg a\npushi 3\nelem\nstore\n"
                 "pushg a\ncall json_encode\nout\npushg none\ncall json_encode\nout\n"
                 "pushf 0.5\npopg d\npushg d\ncall json_encode\nout\n"),
            "[5,null,\"5\"]null0.5");
}

TEST_F(Json, BytesThatAreNoTextAreReplaced) {
  EXPECT_EQ(Page("pushc \"a\\xff\\xc3(\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\"\npopg t\npushg t\n"
                 "call json_encode\nout\n"),
            "\"a\xEF\xBF\xBD\xEF\xBF\xBD(" + std::string("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") +
                "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

TEST_F(Json, NestingHasALimit) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(Again(nested(512)), "|" + nested(512));
  EXPECT_EQ(Again(nested(513)), "line 1, byte 513: too many values in one another|\"\"");
  EXPECT_EQ(Again(std::string(100000, '[')).substr(0, 47),
            "line 1, byte 513: too many values in one anothe");
}

// A value that contains itself has no end.
TEST_F(Json, CirclesAreNotWritten) {
  EXPECT_EQ(Page("pushc \"x\"\npushg a\npushi 1\nelem\nstore\n"
                 "pushg a\npushg a\npushi 2\nelem\nrefer\n"
                 "pushc \"<\"\nout\npushg a\ncall json_encode\nout\npushc \">\"\nout\n"),
            "<>");
}

TEST_F(Json, AnotherReaderUnderstandsTheText) {
  Command python({"/usr/bin/env", "python3", "-c", "import json"});
  if (python.Run() != 0) GTEST_SKIP() << "no Python";
  const std::string text =
      "{\"names\":[\"\\u00e4\",\"</"
      "b>\",\"\\u0001\"],\"n\":[1.25,-0.001,1e-7,123456.789,1e-30,0.30000000000000004,5e-324,1e300]"
      ","
      "\"deep\":[[[{\"x\":[]}]]]}";
  const std::string written = Again(text).substr(1);
  Command compare({"/usr/bin/env", "python3", "-c",
                   "import json,sys\nprint(json.loads(sys.argv[1])==json.loads(sys.argv[2]))", text,
                   written});
  EXPECT_EQ(compare.Run(), 0) << compare.errors;
  EXPECT_EQ(compare.output, "True\n") << written;
}

}  // namespace
