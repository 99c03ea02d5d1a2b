// Forms in parts: boundaries, headers, plain fields. Files are in UploadTest.cpp.

#include "base/request/MultipartFormParser.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/support/UploadMachine.h"

namespace {

struct Case {
  std::string label;
  std::string body;
  std::string expected;  // as Upload writes it
};

void ExpectAll(const std::vector<Case>& cases, const Upload& upload = {}) {
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    ExpectInAllCuts(each.body, each.expected, upload);
  }
}

// A part with the given header lines, without their ends.
std::string Part(const std::string& headers, const std::string& value) {
  return "--B\r\n" + headers + "\r\n\r\n" + value + "\r\n";
}
// A header line with the given attributes.
std::string Disposition(const std::string& attributes) {
  return "Content-Disposition: form-data" + attributes;
}

// --- Fields --------------------------------------------------------------------------------------

TEST(MultipartFormParser, FieldsWhereverABlockEnds) {
  ExpectAll({
      {"one", Field("a", "1") + EndOfBody(), "a=1;"},
      {"two", Field("a", "1") + Field("b", "two words") + EndOfBody(), "a=1;b=two words;"},
      {"empty", Field("a", "") + Field("b", "") + EndOfBody(), "a=;b=;"},
      {"no name", Field("", "1") + EndOfBody(), "=1;"},
      {"path", Field("tea:name", "Assam") + Field("tea:price", "3") + EndOfBody(),
       "tea={Assam,3};"},
      {"array", Field("a", "1") + Field("a", "2") + Field("a", "3") + EndOfBody(), "a=(1,2,3);"},
      {"nothing is decoded", Field("a%20b+c", "%41+%42&x=y") + EndOfBody(), "a%20b+c=%41+%42&x=y;"},
      {"lines", Field("a", "one\r\ntwo\r\n\r\n--three") + EndOfBody(),
       "a=one\r\ntwo\r\n\r\n--three;"},
      {"NUL bytes", Field("a", std::string("x\0y\0", 4)) + EndOfBody(),
       "a=" + std::string("x\0y\0", 4) + ";"},
      {"UTF-8", Field("\xC3\xA4", "\xE2\x82\xAC") + EndOfBody(), "\xC3\xA4=\xE2\x82\xAC;"},
      {"what follows the end", Field("a", "1") + "--B--" + Field("b", "2"), "a=1;"},
  });
}

TEST(MultipartFormParser, WhatLooksLikeABoundaryAndIsNoneIsData) {
  std::vector<Case> cases;
  for (const char* value :
       {"\r", "\r\n", "\r\n-", "\r\n--", "\r\n--A", "\r\n--C--", "\r\r", "\r\r\n", "\r\n\r\n--",
        "x\r\n--x", "\r\n-\r\n--", "\n--B", "--B", "\r\n --B", "\r\n--\r\n--\r\n-"}) {
    cases.push_back({value, Field("a", value) + EndOfBody(), std::string("a=") + value + ";"});
  }
  ExpectAll(cases);
}

TEST(MultipartFormParser, APartThatHasNotEndedIsNoVariable) {
  const std::string body = Field("a", "1") + Field("b", "2") + EndOfBody();
  const size_t second = body.find("--B", 3), end = body.find("--B", second + 3);
  for (size_t length = 0; length <= body.size(); length++) {
    SCOPED_TRACE(length);
    // A boundary is complete when the byte after it has come.
    std::string expected;
    if (length > second + 3) expected += "a=1;";
    if (length > end + 3) expected += "b=2;";
    EXPECT_EQ(Upload()({std::string_view(body).substr(0, length)}), expected);
  }
}

TEST(MultipartFormParser, TheVariableBeyondTheLimitIsAFailureAndIsNotStored) {
  Upload upload;
  upload.limit = 2;
  ExpectAll({{"as many", Field("a", "1") + Field("b", "2") + EndOfBody(), "a=1;b=2;"},
             {"one more", Field("a", "1") + Field("b", "2") + Field("c", "3") + EndOfBody(),
              "a=1;b=2;{Maximum number of POST variables exceeded}"}},
            upload);
  upload.limit = -1;
  ExpectAll(
      {{"none", Field("a", "1") + EndOfBody(), "{Maximum number of POST variables exceeded}"}},
      upload);
}

// --- Headers -------------------------------------------------------------------------------------

TEST(MultipartFormParser, Attributes) {
  ExpectAll({
      {"any order", Part(Disposition("; x=y; name=\"a\"; z=\"w\""), "1") + EndOfBody(), "a=1;"},
      {"no blanks", Part("Content-Disposition:form-data;name=\"a\"", "1") + EndOfBody(), "a=1;"},
      {"many blanks", Part("Content-Disposition:   form-data  ;   name=\"a\"", "1") + EndOfBody(),
       "a=1;"},
      {"the last name counts", Part(Disposition("; name=\"a\"; name=\"b\""), "1") + EndOfBody(),
       "b=1;"},
      {"the first and last byte are taken for quotes",
       Part(Disposition("; name=xay"), "1") + EndOfBody(), "a=1;"},
      {"without quotes", Part(Disposition("; name=ab"), "1") + EndOfBody(), "=1;"},
      {"one byte", Part(Disposition("; name=a"), "1") + EndOfBody(), "=1;"},
      {"no byte", Part(Disposition("; name="), "1") + EndOfBody(), "=1;"},
      {"one quote", Part(Disposition("; name=\""), "1") + EndOfBody(), "=1;"},
      {"a missing quote takes a byte", Part(Disposition("; name=\"ab"), "1") + EndOfBody(), "a=1;"},
      {"names are exact",
       Part(Disposition("; name=\"a\"; Name=\"b\"; NAME=\"c\""), "1") + EndOfBody(), "a=1;"},
      {"a semicolon in quotes ends the value",
       Part(Disposition("; name=\"a;b\"; x=y"), "1") + EndOfBody(), "=1;"},
      {"a semicolon after the last", Part(Disposition("; name=\"a\";"), "1"), ""},
      {"an equals sign in the value", Part(Disposition("; name=\"a=b\""), "1") + EndOfBody(),
       "a=b=1;"},
      {"backslashes stay", Part(Disposition("; name=\"a\\\"b\""), "1") + EndOfBody(), "a\\\"b=1;"},
      {"without a name of its own a part has the last one",
       Field("a", "1") + Part(Disposition("; x=y"), "2") + EndOfBody(), "a=(1,2);"},
      {"two headers",
       Part(Disposition("; name=\"a\"") + "\r\nContent-Type: text/plain", "1") + EndOfBody(),
       "a=1;"},
      {"two headers, the other way",
       Part("Content-Type: text/plain\r\n" + Disposition("; name=\"a\""), "1") + EndOfBody(),
       "a=1;"},
      {"no header at all", "--B\r\n\r\n1\r\n" + EndOfBody(), "=1;"},
  });
}

// The same error text is used for any header that is not one of the two.
TEST(MultipartFormParser, AnyOtherHeaderFailsTheBody) {
  const std::string premature = "{Premature end of line when expecting file header type}";
  ExpectAll({
      {"another", Part(Disposition("; name=\"a\"") + "\r\nContent-Transfer-Encoding: binary", "1"),
       premature},
      {"after a field", Field("a", "1") + Part("Content-Length: 1", "2"), "a=1;" + premature},
      {"another case", Part("content-disposition: form-data; name=\"a\"", "1"), premature},
      {"another case of the other", Part("Content-type: text/plain", "1"), premature},
      {"a blank in front of the colon", Part("Content-Type : text/plain", "1"), premature},
      {"no colon", Part("Content-Type", "1"), premature},
      {"a colon in front", Part(": x", "1"), "{Found : when expecting file header type}"},
  });
}

// A colon after another name is skipped, and the text after it belongs to the name too.
TEST(MultipartFormParser, ANameInTwoPiecesIsTheNameAllTheSame) {
  ExpectAll({{"a colon within",
              Part("Content-:Disposition: form-data; name=\"a\"", "1") + EndOfBody(), "a=1;"}});
}

// Without an attribute the line has no end: everything up to the next ";" is skipped.
TEST(MultipartFormParser, ADispositionWithoutAttributesSwallowsTheLinesBelow) {
  ExpectAll(
      {{"next part", Part("Content-Disposition: form-data", "1") + Field("b", "2") + EndOfBody(),
        "b=2;"}});
}

TEST(MultipartFormParser, LongHeaders) {
  for (size_t size : {49u, 50u, 51u, 100u, 70000u}) {
    SCOPED_TRACE(size);
    const std::string name(size, 'n'), other(size, 'x');
    const std::string body =
        Part(Disposition("; " + other + "=" + other + "; name=\"" + name + "\"") +
                 "\r\nContent-Type: " + other,
             "1") +
        EndOfBody();
    Blocks blocks;
    for (size_t i = 0; i < body.size(); i += 999) {
      blocks.push_back(std::string_view(body).substr(i, 999));
    }
    EXPECT_EQ(Upload()(blocks), name + "=1;");
  }
}

// --- Boundaries ----------------------------------------------------------------------------------

TEST(MultipartFormParser, TheFirstBoundaryHasToStandAtTheStart) {
  const std::string lost = "{Failed to find boundary separator}";
  ExpectAll({
      {"something in front", "preamble\r\n" + Field("a", "1") + EndOfBody(), lost},
      {"an end of line in front", "\r\n" + Field("a", "1") + EndOfBody(), lost},
      {"another boundary", "--C\r\n" + Field("a", "1") + EndOfBody(), lost},
      {"more after it", "--Bx\r\n" + Field("a", "1") + EndOfBody(), lost},
      // A form without fields, as some clients send it.
      {"the end alone", "--B--\r\n", lost},
      {"no end of line ever", "preamble", ""},
      {"the end without its end of line", "--B--", ""},
  });
}

TEST(MultipartFormParser, WhatIsAfterABoundaryIsTold) {
  ExpectAll({
      {"no LF after the first", "--B\rx", "{Found x when expected LF}"},
      {"a byte", Field("a", "1") + "--Bx", "a=1;{Found x when expected CR or '-'}"},
      {"a blank", Field("a", "1") + "--B \r\n", "a=1;{Found   when expected CR or '-'}"},
      {"one dash", Field("a", "1") + "--B-x", "a=1;{Found x when expected '-'}"},
      {"no LF", Field("a", "1") + "--B\rx", "a=1;{Found x when expected LF}"},
      {"no LF after a header", "--B\r\nContent-Type: x\ry", "{Found y when expected LF}"},
      {"no LF after an attribute", "--B\r\n" + Disposition("; name=\"a\"\ry"),
       "{Found y when expected LF}"},
      {"no LF on the blank line", "--B\r\n\rx", "{Found x when expected LF}"},
      {"a NUL", Field("a", "1") + "--B" + std::string(1, '\0'),
       "a=1;{Found " + std::string(1, '\0') + " when expected CR or '-'}"},
  });
}

TEST(MultipartFormParser, AfterAFailureEveryBlockFails) {
  Machine machine;
  UploadFiles files;
  MultipartFormParser parser(&machine.vm(), &files, &machine.global, "x; boundary=B", 0);
  EXPECT_FALSE(parser.Parse("--B\rx", 5));
  EXPECT_FALSE(parser.Parse("", 0));
  EXPECT_FALSE(parser.Parse("\r\n", 2));
  EXPECT_EQ(TextOf(parser.error()), "Found x when expected LF");
}

// How the content type names the boundary. The body is one field after it.
TEST(MultipartFormParser, BoundariesAsClientsNameThem) {
  struct Boundary {
    const char* content_type;
    const char* boundary;
  };
  const Boundary cases[] = {
      {"multipart/form-data; boundary=B", "B"},
      {"multipart/form-data;boundary=B", "B"},
      {"multipart/form-data;  \t boundary=B", "B"},
      {"multipart/form-data; Boundary=B", "B"},
      {"multipart/form-data; BOUNDARY=B", "B"},
      {"multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW",
       "----WebKitFormBoundary7MA4YWxkTrZu0gW"},
      {"multipart/form-data; charset=utf-8; boundary=B", "B"},
      {"multipart/form-data; charset=utf-8 ; boundary=B; x=y", "B"},
      {"multipart/form-data; boundary=B; boundary=C", "B"},
      {"multipart/form-data; boundary=B ", "B "},
      {"multipart/form-data; boundary=", ""},
      {"multipart/form-data; boundary=;x=y", ""},
      {"multipart/form-data; boundary=a\"b\"", "a\"b\""},
      {"multipart/form-data; boundary=\"B\"", "B"},
      {"multipart/form-data; boundary=\"a b;c=d\"", "a b;c=d"},
      {"multipart/form-data; boundary=\"a\\\"b\\\\c\\d\"", "a\"b\\cd"},
      {"multipart/form-data; boundary=\"\"", ""},
      {"multipart/form-data; boundary=\"B", "B"},
      {"multipart/form-data; boundary=\"B\\", "B\\"},
      {"multipart/form-data; boundary=\"B\"; boundary=C", "C"},
      {"multipart/form-data; boundary=\"B\"; boundary=\"C\"", "C"},
      {"multipart/form-data; boundary=\"B\"; x=y", "B"},
      {"multipart/form-data; x=\"a;boundary=C\"; boundary=B", "B"},
      {"multipart/form-data; x=\"a\\\";boundary=C\"; boundary=B", "B"},
      {"multipart/form-data; x=y;boundary=B", "B"},
      {"multipart/form-data; boundar=C; boundary=B", "B"},
      {"multipart/form-data; boundaryy=C; boundary=B", "B"},
  };
  for (const Boundary& each : cases) {
    SCOPED_TRACE(each.content_type);
    const std::string boundary = each.boundary;
    Upload upload;
    upload.content_type = each.content_type;
    const std::string body = "--" + boundary +
                             "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" +
                             boundary + "--\r\n";
    ExpectInAllCuts(body, boundary.empty() ? upload({body}) : "a=1;", upload);
    EXPECT_EQ(upload({"--" + boundary + "\r\n\r\n1\r\n--" + boundary + "\r\n"}), "=1;");
  }
}

TEST(MultipartFormParser, WithoutABoundaryTheFirstLineIsIt) {
  for (const char* content_type :
       {"multipart/form-data", "multipart/form-data;", "multipart/form-data; boundary",
        "multipart/form-data; x=y", "multipart/form-data; x=\"boundary=C\"",
        "multipart/form-data; boundary =B"}) {
    SCOPED_TRACE(content_type);
    Upload upload;
    upload.content_type = content_type;
    ExpectAll({{"dashes", Field("a", "1") + Field("b", "\r\n--C") + EndOfBody(), "a=1;b=\r\n--C;"},
               {"none", "XY\r\n" + Disposition("; name=\"a\"") + "\r\n\r\n1\r\nXY--", "a=1;"},
               {"empty line", "\r\n" + Disposition("; name=\"a\"") + "\r\n\r\n1\r\n-", "a=1;"},
               {"no end of the line", std::string(300, '-'), ""}},
              upload);
  }
}

TEST(MultipartFormParser, ABoundaryOf64KilobytesIsMatchedAcrossBlocks) {
  const std::string boundary(65536, 'b');
  const std::string almost = "\r\n--" + std::string(65535, 'b') + "x";
  const std::string body = "--" + boundary +
                           "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1" + almost +
                           "\r\n--" + boundary + "--\r\n";
  for (const std::string& content_type :
       {std::string("multipart/form-data"), "multipart/form-data; boundary=" + boundary,
        "multipart/form-data; boundary=\"" + boundary + "\""}) {
    Upload upload;
    upload.content_type = content_type;
    for (size_t size : {8192u, 1u, 100000u, 1000000u}) {
      SCOPED_TRACE(size);
      Blocks blocks;
      for (size_t i = 0; i < body.size(); i += size) {
        blocks.push_back(std::string_view(body).substr(i, size));
      }
      EXPECT_EQ(upload(blocks) == "a=1" + almost + ";", true);
    }
  }
}

// --- Size ----------------------------------------------------------------------------------------

TEST(MultipartFormParser, ALongFieldAndManyFields) {
  const std::string value(5000000, 'v');
  std::string body = Field("a", value);
  for (int i = 0; i < 20000; i++) body += Field("b", std::to_string(i % 10));
  body += EndOfBody();
  Machine machine;
  UploadFiles files;
  MultipartFormParser parser(&machine.vm(), &files, &machine.global, "x; boundary=B", 0);
  Blocks blocks;
  for (size_t i = 0; i < body.size(); i += 8192) {
    blocks.push_back(std::string_view(body).substr(i, 8192));
  }
  EXPECT_EQ(Feed(parser, blocks), "");
  EXPECT_EQ(TextOf(machine.GlobalVariable("a")->value()) == value, true);
  EXPECT_EQ(machine.GlobalVariable("b")->ElementsUsed(), 20000);
}

TEST(MultipartFormParser, ANameThatNests) {
  std::string name = "x";
  for (int i = 0; i < 50000; i++) name += ":a";
  EXPECT_EQ(Upload()({Field(name, "1") + EndOfBody()}), "x={1};");
}

// Random pieces of bodies in random blocks: the result is the same as for the whole body.
TEST(MultipartFormParser, RandomBodiesAreTheSameInAnyBlocks) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<std::string> pieces = {"\r\n",
                                           "--B",
                                           "\r\n--B",
                                           "-",
                                           "\r",
                                           "\n",
                                           "abc",
                                           "--B--",
                                           "\r\n--",
                                           Field("a", "1"),
                                           Field("b", ""),
                                           Disposition("; name=\"c\"") + "\r\n\r\n",
                                           FilePart("f", "n", "t", "data"),
                                           ":",
                                           "\r\n\r\n"};
  Upload upload;
  upload.script = ValidatesWith("0") + Processes();
  for (int round = 0; round < 400; round++) {
    std::string body = "--B\r\n";
    for (unsigned left = random() % 12; left > 0; left--) body += pieces[random() % pieces.size()];
    const std::string expected = upload({body});
    Blocks blocks;
    for (size_t at = 0; at < body.size();) {
      const size_t length = 1 + random() % 12;
      blocks.push_back(std::string_view(body).substr(at, length));
      at += length;
    }
    ASSERT_EQ(upload(blocks), expected) << body;
  }
}

}  // namespace
