// Bodies of requests as a web server sends them: forms, files and other types.

#include <climits>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Paths.h"
#include "tests/support/UploadMachine.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr char plain_form[] = "application/x-www-form-urlencoded";
constexpr char too_many[] = "Maximum number of POST variables exceeded";

// Program text that shows globals and the body of an unknown type.
constexpr char shows[] =
    "pushg a\nout\npushc \"|\"\nout\npushg b\nout\npushc \"|\"\nout\npushs content_data\nout\n";

FastCGIParameters Posted(const std::string& type, const std::string& length) {
  return {{"REQUEST_METHOD", "POST"}, {"CONTENT_TYPE", type}, {"CONTENT_LENGTH", length}};
}

class Post : public testing::Test {
 protected:
  void Start(const std::string& source = shows) {
    engine.Script("page.zpc", source);
    ASSERT_TRUE(engine.Start());
  }
  FastCGIResponse Send(const std::string& type, std::string_view body) {
    return engine.Get("/page.zpc", Posted(type, std::to_string(body.size())), body);
  }
  std::string Page(const std::string& type, std::string_view body) {
    FastCGIResponse response = Send(type, body);
    EXPECT_TRUE(response.ended) << response.problem;
    return response.Body();
  }
  // The engine's peak memory so far, in megabytes.
  long Peak() const {
    std::ifstream status("/proc/" + std::to_string(engine.pid()) + "/status");
    std::string word;
    long kilobytes = 0;
    while (status >> word) {
      if (word == "VmHWM:") status >> kilobytes;
    }
    return kilobytes / 1024;
  }
  std::vector<std::string> DataFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(engine.Path("data"))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  EngineProcess engine;
};

// --- The choice of the handler -------------------------------------------------------------------

TEST_F(Post, TheTypeOfTheContentChoosesTheReader) {
  struct Case {
    const char* type;
    const char* page;
  };
  const char kPart[] = "1|2|";
  const std::string unknown = "||a=1&b=2";
  const Case cases[] = {
      {plain_form, kPart},
      {"application/x-www-form-urlencoded; charset=utf-8", kPart},
      {"Application/X-WWW-Form-URLEncoded", kPart},
      {"application/x-www-form-urlencodedx", kPart},
      {"application/x-www-form-urlencode", unknown.c_str()},
      {" application/x-www-form-urlencoded", unknown.c_str()},
      {"text/plain", unknown.c_str()},
      {"application/json", unknown.c_str()},
      {"", unknown.c_str()},
      {"multipart/form-dat", unknown.c_str()},
  };
  Start();
  for (const Case& each : cases) {
    SCOPED_TRACE(each.type);
    EXPECT_EQ(Page(each.type, "a=1&b=2"), each.page);
  }
  const std::string parts = Field("a", "1") + Field("b", "2") + EndOfBody();
  for (const char* type : {"multipart/form-data; boundary=B", "MULTIPART/Form-Data; boundary=B",
                           "multipart/form-data", "multipart/form-datax; boundary=B"}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(Page(type, parts), kPart);
  }
}

TEST_F(Post, TheMethodIsNeverLookedAt) {
  Start();
  for (const char* method : {"GET", "POST", "PUT", "BREW", ""}) {
    SCOPED_TRACE(method);
    EXPECT_EQ(
        engine
            .Get(
                "/page.zpc",
                {{"REQUEST_METHOD", method}, {"CONTENT_TYPE", plain_form}, {"CONTENT_LENGTH", "7"}},
                "a=1&b=2")
            .Body(),
        "1|2|");
  }
}

TEST_F(Post, FieldsOfTheQueryComeFirst) {
  Start("pushg a\nout\n");
  FastCGIParameters parameters = Posted(plain_form, "7");
  parameters.emplace_back("QUERY_STRING", "a=0");
  EXPECT_EQ(engine.Get("/page.zpc", parameters, "a=1&a=2").Body(), "0,1,2");
}

// --- The length ----------------------------------------------------------------------------------

TEST_F(Post, WithoutATypeOrALengthThereIsNothingToRead) {
  Start();
  const std::string body = "a=1&b=2";
  const FastCGIParameters cases[] = {
      {},
      {{"CONTENT_TYPE", plain_form}},
      {{"CONTENT_LENGTH", "7"}},
      Posted(plain_form, "0"),
      Posted(plain_form, ""),
      Posted(plain_form, "abc"),
      Posted(plain_form, "-1"),
      Posted(plain_form, "-2147483648"),
      // Cut to 32 bits, this one is negative, and the next one is 0.
      Posted(plain_form, "2147483648"),
      Posted(plain_form, "4294967296"),
      Posted("text/plain", "0"),
  };
  for (const FastCGIParameters& parameters : cases) {
    SCOPED_TRACE(parameters.empty() ? "" : parameters.back().second);
    EXPECT_EQ(engine.Get("/page.zpc", parameters, body).Body(), "||");
  }
}

TEST_F(Post, AsMuchIsReadAsTheLengthSays) {
  struct Case {
    const char* length;
    const char* page;
  };
  const Case cases[] = {
      {"7", "1|2|"},  {"3", "1||"},   {"5", "1||"},          {" 7", "1|2|"},
      {"+7", "1|2|"}, {"7x", "1|2|"}, {"4294967299", "1||"},
  };
  Start();
  for (const Case& each : cases) {
    SCOPED_TRACE(each.length);
    EXPECT_EQ(engine.Get("/page.zpc", Posted(plain_form, each.length), "a=1&b=2").Body(),
              each.page);
  }
}

TEST_F(Post, LessThanTheLengthIsAcceptedAsItIs) {
  Start();
  const std::string parts = Field("a", "1") + Field("b", "2") + "--B";
  for (const char* length : {"100000", "2147483647"}) {
    SCOPED_TRACE(length);
    engine.Get("/page.zpc", {});
    EXPECT_EQ(engine.Get("/page.zpc", Posted(plain_form, length), "a=1&b=2").Body(), "1|2|");
    EXPECT_EQ(engine.Get("/page.zpc", Posted(plain_form, length), "").Body(), "||");
    EXPECT_EQ(
        engine.Get("/page.zpc", Posted("multipart/form-data; boundary=B", length), parts).Body(),
        "1||");
  }
}

// An announced body of two gigabytes that never comes takes no memory.
TEST_F(Post, ALengthOfTwoGigabytesIsNotAllocated) {
  engine.settings = "max_unknown_content_length = 0\n";
  Start();
  EXPECT_EQ(engine.Get("/page.zpc", {}).Body(), "||");
  const long before = Peak();
  for (const char* type : {plain_form, "multipart/form-data", "text/plain"}) {
    SCOPED_TRACE(type);
    FastCGIResponse response = engine.Get("/page.zpc", Posted(type, "2147483647"), "abc");
    EXPECT_EQ(response.Body(), std::string("||") + (*type == 't' ? "abc" : ""));
  }
  EXPECT_LE(Peak(), before + 50);
}

// --- Limits --------------------------------------------------------------------------------------

TEST_F(Post, MoreFieldsThanTheSettingAllowsFail) {
  engine.settings = "max_post_vars = 2\n";
  Start();
  EXPECT_EQ(Page(plain_form, "a=1&b=2"), "1|2|");
  ExpectFailure(Send(plain_form, "a=1&b=2&c=3"), too_many);
  const std::string parts = Field("a", "1") + Field("b", "2");
  EXPECT_EQ(Page("multipart/form-data; boundary=B", parts + EndOfBody()), "1|2|");
  ExpectFailure(Send("multipart/form-data; boundary=B", parts + Field("c", "3") + EndOfBody()),
                too_many);
}

TEST_F(Post, ANegativeSettingRefusesTheFirstFieldAndZeroIsNoLimit) {
  engine.settings = "max_post_vars = -1\n";
  Start();
  ExpectFailure(Send(plain_form, "a=1"), too_many);
  engine.settings = "max_post_vars = 0\n";
  engine.WriteConfiguration();
  std::string body = "a=x&b=y";
  for (int i = 0; i < 5000; i++) body += "&n" + std::to_string(i) + "=1";
  EXPECT_EQ(Page(plain_form, body), "x|y|");
}

TEST_F(Post, AMillionFieldsEndAtTheLimit) {
  Start();
  std::string body;
  for (int i = 0; i < 1000000; i++) body += "a=1&";
  ExpectFailure(Send(plain_form, body), too_many);
  EXPECT_EQ(Page(plain_form, "a=1"), "1||");
}

TEST_F(Post, TheSettingForUnknownTypes) {
  engine.settings = "max_unknown_content_length = 5\n";
  Start();
  EXPECT_EQ(Page("text/plain", "12345"), "||12345");
  ExpectFailure(Send("text/plain", "123456"),
                "POST content length exceeds configured maximum for unknown content types");
  // Only the announced length counts, and only for unknown types.
  ExpectFailure(engine.Get("/page.zpc", Posted("text/plain", "6"), "123"),
                "POST content length exceeds configured maximum for unknown content types");
  EXPECT_EQ(Page(plain_form, "a=1234567890"), "1234567890||");
  engine.settings = "max_unknown_content_length = -1\n";
  engine.WriteConfiguration();
  ExpectFailure(Send("text/plain", "1"), "Unknown POST content type");
  EXPECT_EQ(Page("text/plain", ""), "||");
  engine.settings = "max_unknown_content_length = 0\n";
  engine.WriteConfiguration();
  const std::string large(3000000, 'x');
  EXPECT_EQ(Page("text/plain", large) == "||" + large, true);
}

TEST_F(Post, WithoutASettingAMegabyteOfAnUnknownTypeIsTaken) {
  Start("pushs content_data\nout\n");
  const std::string body(1048576, 'x');
  EXPECT_EQ(Page("text/plain", body) == body, true);
  ExpectFailure(Send("text/plain", body + "y"),
                "POST content length exceeds configured maximum for unknown content types");
}

// --- Blocks --------------------------------------------------------------------------------------

TEST_F(Post, RecordsOfAnySizeAreTheSameBody) {
  Start();
  const std::string value(30000, 'v');
  struct Body {
    const char* type;
    std::string bytes;
  };
  const Body bodies[] = {
      {plain_form, "a=" + value + "&b=%2d"},
      {"multipart/form-data; boundary=B", Field("a", value) + Field("b", "-") + EndOfBody()}};
  for (const Body& body : bodies) {
    for (size_t size : {1000u, 8191u, 8192u, 8193u, 65535u}) {
      SCOPED_TRACE(std::string(body.type) + " by " + std::to_string(size));
      FastCGIClient client;
      ASSERT_TRUE(client.Connect(engine.socket()));
      client.Begin();
      client.Parameters(
          engine.Parameters("/page.zpc", Posted(body.type, std::to_string(body.bytes.size()))));
      client.EndParameters();
      for (size_t i = 0; i < body.bytes.size(); i += size) {
        client.Input(std::string_view(body.bytes).substr(i, size));
      }
      client.EndInput();
      EXPECT_EQ(client.Read().Body() == value + "|-|", true);
    }
  }
}

TEST_F(Post, WhatABodyHasBeyondItsLengthDoesNotDisturbTheNextRequest) {
  Start();
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  const std::string body = "a=1&b=2" + std::string(50000, 'x');
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(
        client.Request(engine.Parameters("/page.zpc", Posted(plain_form, "7")), body, true).Body(),
        "1|2|");
    ExpectFailure(client.Request(engine.Parameters("/page.zpc",
                                                   Posted("multipart/form-data; boundary=B", "9")),
                                 "--B\rx" + body, true),
                  "Found x when expected LF");
  }
}

TEST_F(Post, AClientThatGoesAwayInTheMiddleOfABodyHarmsNobody) {
  engine.arguments = {"-t", "1"};
  Start();
  for (int i = 0; i < 5; i++) {
    FastCGIClient client;
    ASSERT_TRUE(client.Connect(engine.socket()));
    client.Begin();
    client.Parameters(engine.Parameters("/page.zpc", Posted(plain_form, "1000000")));
    client.EndParameters();
    client.Input("a=1&b=" + std::string(10000, 'x'));
    client.Close();
  }
  EXPECT_EQ(Page(plain_form, "a=1&b=2"), "1|2|");
}

// --- Failures of forms ---------------------------------------------------------------------------

TEST_F(Post, AFailedBodyEndsTheRequestBeforeTheScriptRuns) {
  Start(Writes("the script"));
  ExpectFailure(Send("multipart/form-data; boundary=B", "preamble\r\n"),
                "Failed to find boundary separator");
  ExpectFailure(Send("multipart/form-data; boundary=B",
                     "--B\r\nContent-Transfer-Encoding: binary\r\n\r\nx\r\n--B--"),
                "Premature end of line when expecting file header type");
  EXPECT_EQ(Page("multipart/form-data; boundary=B", Field("a", "1") + EndOfBody()), "the script");
}

TEST_F(Post, ANestingNameAndABoundaryOf64Kilobytes) {
  Start();
  std::string name = "a";
  for (int i = 0; i < 100000; i++) name += ":a";
  EXPECT_EQ(Page(plain_form, name + "=deep&b=2"), "deep|2|");
  // A FastCGI parameter may be that long, even if web servers do not send such ones.
  const std::string boundary(65536, 'x');
  const std::string body = "--" + boundary +
                           "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" +
                           boundary + "--\r\n";
  EXPECT_EQ(Page("multipart/form-data; boundary=" + boundary, body), "1||");
  EXPECT_EQ(Page("multipart/form-data; boundary=\"" + boundary, body), "1||");
  EXPECT_EQ(Page("multipart/form-data", body), "1||");
}

// --- Files ---------------------------------------------------------------------------------------

constexpr char parts[] = "multipart/form-data; boundary=B";

TEST_F(Post, AFileIsInTheDataDirectoryWhileTheScriptHasIt) {
  engine.settings =
      "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/libshelf.so") + "\"\n";
  Start(".function keep(path, name) external\n.end\n" + std::string(shows) + "exit\n" +
        ValidatesWith("0") +
        ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\n"
        "pushc \"[\"\nout\npushl status\nout\npushc \" \"\nout\npushl size\nout\npushc \"]\"\nout\n"
        "pushl path\npushl name\ncall keep\npop\nretn\n.end\n");
  std::string content;
  for (int i = 0; i < 300000; i++) content += static_cast<char>(i * 7 + i / 256);
  EXPECT_EQ(Page(parts, Field("a", "1") + FilePart("f", "x.bin", "t", content) + Field("b", "2") +
                            EndOfBody()),
            "ask(f|x.bin|t)[COMPLETE 300000]1|2|");
  std::ifstream stored(engine.Path("data/shelf/x.bin"), std::ios::binary);
  const std::string found((std::istreambuf_iterator<char>(stored)),
                          std::istreambuf_iterator<char>());
  EXPECT_EQ(found == content, true);
  EXPECT_EQ(DataFiles(), std::vector<std::string>{"shelf"});
}

TEST_F(Post, AFileThatNobodyTakesIsGoneAfterwards) {
  Start(Writes("done") + "exit\n" + ValidatesWith("0") + Processes());
  EXPECT_EQ(Page(parts, FilePart("f", "x", "t", "content") + EndOfBody()),
            "ask(f|x|t)file(f|x|COMPLETE|ZEPH_FUP.0|t|7)done");
  EXPECT_TRUE(DataFiles().empty());
}

TEST_F(Post, WithoutFunctionsAFileIsReadAndDropped) {
  Start();
  EXPECT_EQ(Page(parts, Field("a", "1") + FilePart("f", "x", "t", std::string(100000, 'x')) +
                            Field("b", "2") + EndOfBody()),
            "1|2|");
  EXPECT_TRUE(DataFiles().empty());
}

TEST_F(Post, AFileThatIsCutOffByTheEndOfTheBodyStaysBehind) {
  Start(Writes("done") + "exit\n" + ValidatesWith("0") + Processes());
  EXPECT_EQ(Page(parts, FilePart("f", "x", "t", "content")), "ask(f|x|t)done");
  EXPECT_EQ(DataFiles(), std::vector<std::string>{"ZEPH_FUP.0"});
}

TEST_F(Post, ALimitCutsAFile) {
  Start("exit\n" + ValidatesWith("100") + Processes());
  EXPECT_EQ(Page(parts, FilePart("f", "x", "t", std::string(4000, 'x')) + EndOfBody()),
            "ask(f|x|t)file(f|x|PARTIAL|ZEPH_FUP.0|t|4000)");
}

TEST_F(Post, AnErrorInAnUploadsFunctionIsShownAndEndsTheRequest) {
  Start(Writes("never") + "exit\n" +
        ".function Zeph_ValidateFileUpload(a, b, c)\npop\npushi 0\nret\n.end\n");
  const std::string body = FilePart("f", "x", "t", "content") + Field("a", "1") + EndOfBody();
  FastCGIResponse response = Send(parts, body);
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_THAT(response.Body(), HasSubstr("Stack underflow"));
  EXPECT_THAT(response.Body(), EndsWith("Failed call to ValidateFileUpload"));
  EXPECT_THAT(response.Body(), testing::Not(HasSubstr("never")));
}

TEST_F(Post, AnExitInAnUploadsFunctionEndsTheRequest) {
  for (const char* name : {"Validate", "Process"}) {
    SCOPED_TRACE(name);
    EngineProcess other;
    const bool validates = *name == 'V';
    other.Script("page.zpc",
                 Writes("never") + "exit\n" +
                     (validates ? ".function Zeph_ValidateFileUpload(a, b, c)\nexit\n.end\n"
                                : ValidatesWith("0") +
                                      ".function Zeph_ProcessFileUpload(a, b, c, d, e, f)\nexit\n"
                                      ".end\n"));
    ASSERT_TRUE(other.Start());
    const std::string body = FilePart("f", "x", "t", "content") + EndOfBody();
    FastCGIResponse response =
        other.Get("/page.zpc", Posted(parts, std::to_string(body.size())), body);
    EXPECT_TRUE(response.ended) << response.problem;
    EXPECT_THAT(response.Body(), HasSubstr("Stack underflow"));
    EXPECT_THAT(response.Body(), EndsWith(std::string("Failed call to ") + name + "FileUpload"));
    EXPECT_THAT(response.Body(), testing::Not(HasSubstr("never")));
    EXPECT_TRUE(std::filesystem::is_empty(other.Path("data")));
  }
}

TEST_F(Post, EightUploadsAtOnceKeepTheirFilesApart) {
  Start(Writes("done") + "exit\n" + ValidatesWith("0") +
        ".function Zeph_ProcessFileUpload(field, name, status, path, type, size)\n"
        "pushl name\nout\npushc \"=\"\nout\npushl size\nout\npushc \" \"\nout\nretn\n.end\n");
  std::vector<std::thread> threads;
  std::vector<std::string> pages(8);
  for (size_t i = 0; i < pages.size(); i++) {
    threads.emplace_back([&, i] {
      const std::string body =
          FilePart("f", "n" + std::to_string(i), "t", std::string(100000 + i, 'x')) + EndOfBody();
      for (int round = 0; round < 5; round++) {
        pages[i] = engine.Get("/page.zpc", Posted(parts, std::to_string(body.size())), body).Body();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < pages.size(); i++) {
    const std::string name = "n" + std::to_string(i);
    EXPECT_EQ(pages[i],
              "ask(f|" + name + "|t)" + name + "=" + std::to_string(100000 + i) + " done");
  }
  EXPECT_TRUE(DataFiles().empty());
}

// --- Time ----------------------------------------------------------------------------------------

class SlowPost : public Post {
 protected:
  // Sends a body in two halves, with a pause of that many seconds between them.
  FastCGIResponse SendSlowly(const std::string& type, const std::string& first,
                             const std::string& second, int seconds) {
    FastCGIClient client;
    EXPECT_TRUE(client.Connect(engine.socket()));
    client.Begin();
    client.Parameters(
        engine.Parameters("/page.zpc", Posted(type, std::to_string(first.size() + second.size()))));
    client.EndParameters();
    client.Input(first);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    client.Input(second);
    client.EndInput();
    return client.Read();
  }
};

TEST_F(SlowPost, ABodyThatTakesTooLongIsRefusedWhenItComes) {
  engine.settings = "timeout_post = 1\n";
  Start();
  ExpectFailure(SendSlowly(plain_form, "a=1&b=", "2", 8), "Timeout processing POST data");
}

TEST_F(SlowPost, ATimeLimitOfZeroIsNone) {
  engine.settings = "timeout_post = 0\n";
  Start();
  EXPECT_EQ(SendSlowly(plain_form, "a=1&b=", "2", 8).Body(), "1|2|");
}

// A body that ends when the time limit passes is accepted: the end is seen before the flag.
TEST_F(SlowPost, AnEndThatComesTooLateEndsTheBodyInOrder) {
  engine.settings = "timeout_post = 1\n";
  Start();
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  client.Begin();
  client.Parameters(engine.Parameters("/page.zpc", Posted(plain_form, "10000")));
  client.EndParameters();
  client.Input("");
  std::this_thread::sleep_for(std::chrono::seconds(8));
  client.EndInput();
  EXPECT_EQ(client.Read().Body(), "||");
}

TEST_F(SlowPost, AFileMayTakeAsLongAsItTakes) {
  engine.settings = "timeout_post = 1\n";
  Start(Writes("done") + "exit\n" + ValidatesWith("0") + Processes());
  const std::string content(20000, 'x');
  EXPECT_EQ(SendSlowly(parts,
                       "--B\r\nContent-Disposition: form-data; name=\"f\"; "
                       "filename=\"n\"\r\n\r\n" +
                           content,
                       content + "\r\n" + EndOfBody(), 8)
                .Body(),
            "ask(f|n|)file(f|n|COMPLETE|ZEPH_FUP.0||40000)done");
}

TEST_F(SlowPost, TheScriptsTimeBeginsAfterTheBody) {
  engine.settings = "timeout_global = 3\ntimeout_post = 60\n";
  Start();
  EXPECT_EQ(SendSlowly(plain_form, "a=1&b=", "2", 9).Body(), "1|2|");
}

}  // namespace
