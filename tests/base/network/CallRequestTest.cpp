// The requests of calls, byte by byte, and the variables of the response's head.

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>

#include "base/core/RunLimit.h"
#include "tests/support/CallHost.h"
#include "tests/support/Work.h"

namespace {

const char kResponse[] = "HTTP/1.1 200 OK\r\n\r\nx";

// The three numbers of the next boundary.
std::string NextBoundary(unsigned seed) {
  srand(seed);
  std::string boundary = "--------------------";
  for (int i = 0; i < 3; i++) boundary += std::to_string(rand());
  srand(seed);
  return boundary;
}

// Fields a, b and e, and files f and g.
class CallRequest : public testing::Test {
 protected:
  CallRequest() {
    host.Set("a", "1 2");
    host.Set("b", "x&y=\xC3\xA4");
    host.Set("e", "");
    host.Set("f", "one.txt");
    host.Set("g", "two.bin");
    host.files.files["one.txt"] = "first file";
    host.files.files["two.bin"] = std::string("\0\r\n\xFF", 4);
  }

  std::string Sent(CallArguments arguments, const std::string& extra_headers = "") {
    host.peer = ScriptedPeer();
    host.peer.bytes = kResponse;
    host.Connect(std::move(arguments), extra_headers);
    return host.failure.empty() ? host.peer.written : "failed: " + host.failure;
  }
  std::string Failure(CallArguments arguments) {
    Sent(std::move(arguments));
    return host.failure;
  }
  static CallArguments With(CallArguments arguments, const char* fields, const char* files = "",
                            const char* type = "") {
    arguments.fields = StringOf(fields);
    arguments.files = StringOf(files);
    arguments.content_type = StringOf(type);
    return arguments;
  }

  CallHost host;
};

std::string Head(const std::string& method, const std::string& target) {
  return method + " " + target + " HTTP/1.1\r\nHost: h\r\n";
}
std::string WithBody(const std::string& head, const std::string& type, const std::string& body) {
  return head + "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}
const char kClose[] = "Connection: close\r\n\r\n";

// --- Without files -------------------------------------------------------------------------------

struct MethodCase {
  const char* method;
  const char* verb;
  char kind;         // 0 no body, q the query, f a form, r raw
  const char* type;  // of a raw body, if the script gives none
};
const MethodCase kMethods[] = {
    {"GET", "GET", 'q', ""},
    {"get", "GET", 'q', ""},
    {"Get", "GET", 'q', ""},
    {"POST", "POST", 'f', ""},
    {"post", "POST", 'f', ""},
    {"HEAD", "HEAD", '0', ""},
    {"XML", "POST", 'r', "text/xml"},
    {"xml", "POST", 'r', "text/xml"},
    {"RAW", "POST", 'r', "text/plain"},
    {"OPTIONS", "OPTIONS", 'r', "text/plain"},
    {"PUT", "PUT", 'r', "text/plain"},
    {"DELETE", "DELETE", 'r', "text/plain"},
    {"TRACE", "TRACE", 'r', "text/plain"},
    {"CONNECT", "CONNECT", 'r', "text/plain"},
    {"PATCH", "PATCH", 'r', "text/plain"},
    {"LINK", "LINK", 'r', "text/plain"},
    {"UNLINK", "UNLINK", 'r', "text/plain"},
    {"FOO", "GET", 'q', ""},
    {"", "GET", 'q', ""},
    {"GET ", "GET", 'q', ""},
    {"GET / HTTP/1.1\r\nX: y\r\n", "GET", 'q', ""},
    {"POSTS", "GET", 'q', ""},
};

TEST_F(CallRequest, EachMethodWithoutFields) {
  for (const MethodCase& row : kMethods) {
    SCOPED_TRACE(row.method);
    EXPECT_EQ(Sent(CallHost::Arguments(row.method)), Head(row.verb, "/p") + kClose);
  }
}

TEST_F(CallRequest, EachMethodWithFields) {
  const std::string pairs = "a=1+2&b=x%26y%3D%C3%A4&e=";
  const std::string values = "1 2x&y=\xC3\xA4";
  for (const MethodCase& row : kMethods) {
    SCOPED_TRACE(row.method);
    for (const char* type : {"", "own/type"}) {
      std::string expected = Head(row.verb, row.kind == 'q' ? "/p?" + pairs : "/p");
      switch (row.kind) {
        case 'f': expected = WithBody(expected, "application/x-www-form-urlencoded", pairs); break;
        case 'r': expected = WithBody(expected, *type ? type : row.type, values); break;
        default: expected += kClose;
      }
      EXPECT_EQ(Sent(With(CallHost::Arguments(row.method), "a, b,e", "", type)), expected);
    }
  }
}

TEST_F(CallRequest, ExtraHeadersComeAfterThoseOfTheBody) {
  const std::string extra = "Accept: */*\r\nX-Y: z\r\n";
  EXPECT_EQ(Sent(CallHost::Arguments("GET"), extra), Head("GET", "/p") + extra + kClose);
  EXPECT_EQ(Sent(With(CallHost::Arguments("RAW"), "a"), extra),
            Head("POST", "/p") + "Content-Type: text/plain\r\nContent-Length: 3\r\n" + extra +
                kClose + "1 2");
}

TEST_F(CallRequest, AQuestionMarkIsAddedUnlessTheURLEndsWithOne) {
  const struct {
    const char* url;
    const char* target;
  } cases[] = {
      {"http://h/p?a=1", "/p?a=1?a=1+2"}, {"http://h/p?", "/p?a=1+2"},
      {"http://h/?x", "/?x?a=1+2"},       {"http://h/", "/?a=1+2"},
      {"http://h/p??", "/p??a=1+2"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(Sent(With(CallHost::Arguments("GET", row.url), "a")),
              Head("GET", row.target) + kClose);
  }
}

TEST_F(CallRequest, AFieldWithoutAVariableIsEmptyAndANameLosesItsScope) {
  EXPECT_EQ(Sent(With(CallHost::Arguments("GET"), "none,global.a,,")),
            Head("GET", "/p?none=&a=1+2") + kClose);
}

TEST_F(CallRequest, TheFieldsOfAnArrayAreItsText) {
  Variable* b = nullptr;
  ASSERT_TRUE(host.variables.Find(&b, "b", -1, 1));
  b->At(1, 1)->SetValue("u", -1);
  b->At(2, 1)->SetValue("v", -1);
  EXPECT_EQ(Sent(With(CallHost::Arguments("RAW"), "b")),
            WithBody(Head("POST", "/p"), "text/plain", "u,v"));
}

TEST_F(CallRequest, ValuesMayHoldAnyByte) {
  host.Set("a", std::string("\0\r\n", 3));
  EXPECT_EQ(Sent(With(CallHost::Arguments("POST"), "a")),
            WithBody(Head("POST", "/p"), "application/x-www-form-urlencoded", "a=%00%0D%0A"));
  EXPECT_EQ(Sent(With(CallHost::Arguments("PUT"), "a")),
            WithBody(Head("PUT", "/p"), "text/plain", std::string("\0\r\n", 3)));
}

TEST_F(CallRequest, AURLWithALineEndOrNULIsRefused) {
  for (const std::string bad : {"\r", "\n", "\r\nX: y"}) {
    const std::string url = "http://h/p" + bad + "q";
    EXPECT_EQ(Failure(CallHost::Arguments("GET", url)),
              "Unable to open URL '" + url + "': A URL must not contain CR, LF or NUL");
  }
  EXPECT_NE(Failure(CallHost::Arguments("GET", std::string("http://h/p\0q", 12))), "");
  EXPECT_TRUE(host.network.calls.empty());
}

TEST_F(CallRequest, TheErrorsOfTheManagerFollowTheURL) {
  EXPECT_EQ(Failure(CallHost::Arguments("GET", "http:/x")),
            "Unable to open URL 'http:/x': Malformed URL");
  EXPECT_EQ(Failure(CallHost::Arguments("GET", "ftp://h/x")),
            "Unable to open URL 'ftp://h/x': Unsupported protocol 'ftp'");
  host.network.refuses = true;
  EXPECT_EQ(Failure(CallHost::Arguments("GET")), "Unable to open URL 'http://h/p': No connection");
  EXPECT_EQ(Failure(With(CallHost::Arguments("GET"), "a")),
            "Unable to open URL 'http://h/p?a=1+2': No connection");
  EXPECT_EQ(Failure(With(CallHost::Arguments("POST"), "", "f")),
            "Unable to open URL 'http://h/p': No connection");
  host.application.SetNetworkManager(nullptr);
  EXPECT_EQ(Failure(CallHost::Arguments("GET")), "Unable to open URL 'http://h/p': No network");
}

TEST_F(CallRequest, AnEmptyCertificateTextCountsAsNotGiven) {
  CallArguments arguments = CallHost::Arguments("GET", "https://h/");
  EXPECT_NE(Sent(std::move(arguments)), "");
  EXPECT_EQ(host.network.calls.back(), "tls h null null null null 30");
  arguments = CallHost::Arguments("GET", "https://h/");
  arguments.certificate_file = StringOf("file");
  arguments.certificate_type = StringOf("PEM");
  arguments.certificate_data = StringOf("data");
  arguments.password = std::make_unique<String>("word");
  EXPECT_NE(Sent(std::move(arguments)), "");
  EXPECT_EQ(host.network.calls.back(), "tls h file data PEM word 30");
}

TEST_F(CallRequest, TheTimeOutIsTheConfiguredOneUnlessThatIsNoneOrTheScriptsIsNegative) {
  const struct {
    int configured;
    int script;
    int used;
  } cases[] = {{30, 0, 30}, {30, 7, 30}, {30, -1, -1}, {0, 0, 0}, {0, 7, 7}, {0, -1, -1}};
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::Message() << row.configured << " " << row.script);
    host.application.config()->SetValue_Integer(Config_timeout_call, row.configured);
    CallArguments arguments = CallHost::Arguments("GET");
    arguments.timeout = row.script;
    EXPECT_NE(Sent(std::move(arguments)), "");
    for (const int wait : host.peer.waits) EXPECT_EQ(wait, row.used);
    EXPECT_EQ(host.network.calls.back(), "connect h 80 " + std::to_string(row.used));
  }
}

// --- With files ----------------------------------------------------------------------------------

TEST_F(CallRequest, FilesGoIntoAMultipartBodyWhoseLengthIsExact) {
  for (const MethodCase& row : kMethods) {
    SCOPED_TRACE(row.method);
    const std::string boundary = NextBoundary(5);
    const std::string body = "--" + boundary +
                             "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1 2\r\n"
                             "--" +
                             boundary +
                             "\r\nContent-Disposition: form-data; name=\"e\"\r\n\r\n\r\n"
                             "--" +
                             boundary +
                             "\r\nContent-Disposition: form-data; name=\"f\"; filename=\"one.txt\""
                             "\r\nContent-Type: unknown\r\n\r\nfirst file\r\n"
                             "--" +
                             boundary +
                             "\r\nContent-Disposition: form-data; name=\"g\"; filename=\"two.bin\""
                             "\r\nContent-Type: unknown\r\n\r\n" +
                             host.files.files["two.bin"] + "\r\n--" + boundary + "--\r\n";
    // An unknown method is a POST if there are files.
    const bool known = row.kind != 'q' || std::string(row.verb) == row.method ||
                       std::string(row.method) == "get" || std::string(row.method) == "Get";
    // The headers that the script adds are not sent.
    EXPECT_EQ(Sent(With(CallHost::Arguments(row.method), "a,e", "f, g", "own/type"), "X: y\r\n"),
              WithBody(Head(known ? row.verb : "POST", "/p"),
                       "multipart/form-data; boundary=" + boundary, body));
  }
}

TEST_F(CallRequest, AFileWithoutFields) {
  const std::string boundary = NextBoundary(9);
  EXPECT_EQ(Sent(With(CallHost::Arguments("POST"), "", "f,")),
            WithBody(Head("POST", "/p"), "multipart/form-data; boundary=" + boundary,
                     "--" + boundary +
                         "\r\nContent-Disposition: form-data; name=\"f\"; filename=\"one.txt\""
                         "\r\nContent-Type: unknown\r\n\r\nfirst file\r\n--" +
                         boundary + "--\r\n"));
}

TEST_F(CallRequest, ALongFileGoesOutInPiecesOfTheBuffersSize) {
  host.application.config()->SetValue_Integer(Config_bufsz_content, 7);
  host.files.files["one.txt"] = std::string(700, 'z');
  const std::string sent = Sent(With(CallHost::Arguments("POST"), "", "f"));
  const size_t head = sent.find("\r\n\r\n") + 4;
  EXPECT_NE(sent.find("Content-Length: " + std::to_string(sent.size() - head) + "\r\n"),
            std::string::npos);
  EXPECT_NE(sent.find(std::string(700, 'z')), std::string::npos);
  EXPECT_GE(host.peer.writes, 100);
}

TEST_F(CallRequest, AMissingVariableAnEmptyValueAndAnEmptyNameAreEmptyFilenames) {
  for (const char* files : {"none", "e", "f,none", ",f", "f,,g", " ", ",", "f, "}) {
    SCOPED_TRACE(files);
    EXPECT_EQ(Failure(With(CallHost::Arguments("POST"), "", files)), "Empty filename");
  }
  EXPECT_TRUE(host.network.calls.empty());
}

TEST_F(CallRequest, AFileThatCannotBeOpenedIsNamed) {
  host.files.fail_open = 1;
  EXPECT_EQ(Failure(With(CallHost::Arguments("POST"), "", "f")),
            "Unable to open 'one.txt': Injected failure");
}

TEST_F(CallRequest, AFileThatCannotBeReadEndsTheCall) {
  host.files.fail_read = 1;
  EXPECT_EQ(Failure(With(CallHost::Arguments("POST"), "", "f")),
            "Unable to read 'one.txt': Injected failure");
}

// Between the head of the request and its own turn.
class ChangingFiles : public FaultyFileManager {
 public:
  using FaultyFileManager::FaultyFileManager;
  using FaultyFileManager::Open;
  File* Open(const char* path, int mode) override {
    auto* file = static_cast<FaultyFile*>(FaultyFileManager::Open(path, mode));
    return new Changing(this, file);
  }
  std::string later;

 private:
  class Changing : public File {
   public:
    Changing(ChangingFiles* files, FaultyFile* file) : File(files, "f"), files(files), file(file) {}
    long Length() override {
      const long length = file->Length();
      files->files["one.txt"] = files->later;
      return length;
    }
    int Read(char* buffer, int length) override { return file->Read(buffer, length); }
    bool OwnerID(int*) override { return false; }
    bool GroupID(int*) override { return false; }
    int Write(const char*, int) override { return -1; }
    int Seek(long) override { return -1; }
    int Tell() override { return 0; }
    bool IsDirectory(bool*) override { return false; }
    bool Lock(FileLockType, long, long) override { return false; }
    bool Release(long, long) override { return false; }
    char* Map(long, long) override { return nullptr; }
    void Release() override {}
    bool Activate(String&) override { return true; }
    void Deactivate() override {}

   private:
    ChangingFiles* files;
    std::unique_ptr<FaultyFile> file;
  };
};

TEST_F(CallRequest, AFileThatGrowsIsSentAsLongAsItWas) {
  ChangingFiles files(&host.application);
  files.files["one.txt"] = "short";
  files.later = "much longer";
  host.application.SetFileManager(&files);
  const std::string sent = Sent(With(CallHost::Arguments("POST"), "", "f"));
  EXPECT_NE(sent.find("\r\n\r\nmuch \r\n--"), std::string::npos) << sent;
  const size_t head = sent.find("\r\n\r\n") + 4;
  EXPECT_NE(sent.find("Content-Length: " + std::to_string(sent.size() - head) + "\r\n"),
            std::string::npos);
}

TEST_F(CallRequest, AFileThatShrinksEndsTheCall) {
  ChangingFiles files(&host.application);
  files.files["one.txt"] = "long enough";
  files.later = "no";
  host.application.SetFileManager(&files);
  EXPECT_EQ(Failure(With(CallHost::Arguments("POST"), "", "f")),
            "Unable to read 'one.txt': The file has become shorter");
}

// A server may refuse an upload before it has read it.
TEST_F(CallRequest, TheResponseIsReadAlthoughAWriteOfTheBodyHasFailed) {
  host.files.files["one.txt"] = std::string(100000, 'z');
  host.peer.bytes = "HTTP/1.1 413 Too Large\r\n\r\nno";
  host.peer.write_room = 5000;
  const auto call = host.Connect(With(CallHost::Arguments("POST"), "", "f,f"));
  ASSERT_TRUE(host.connected) << host.failure;
  EXPECT_EQ(host.Value("callreturnheader1"), "HTTP/1.1 413 Too Large");
  // After the failed write none is tried.
  EXPECT_LE(host.peer.writes, 3);
  ASSERT_EQ(call->Find_Next_Element(), Call::Found);
  EXPECT_EQ(host.Value("callvalue"), "no");
}

TEST_F(CallRequest, AWriteOfTheHeadThatFailsIsAnError) {
  host.peer.write_room = 3;
  host.Connect(CallHost::Arguments("GET"));
  EXPECT_EQ(host.failure, std::string("Unable to open URL 'http://h/p': ") + kWriteTimeout);
}

TEST_F(CallRequest, TheTimeLimitEndsTheWorkOnFieldsAndFiles) {
  int over = 0;
  const RunLimit limit(&over);
  host.variables.SetVariable(new Alarm("a", "text", &over));
  for (const char* method : {"GET", "POST", "RAW"}) {
    over = 0;
    SCOPED_TRACE(method);
    host.network.calls.clear();
    host.Connect(With(CallHost::Arguments(method), "a,b"));
    EXPECT_FALSE(host.connected);
    EXPECT_EQ(host.failure, "");
    EXPECT_TRUE(host.network.calls.empty());
  }
}

// --- The head of the response --------------------------------------------------------------------

TEST_F(CallRequest, TheLinesOfTheHeadAreVariablesAndAnArray) {
  host.peer.bytes = "HTTP/1.1 404 Not Found \r\nA: b\r\n folded\r\nNo colon\nA: c\r\n\r\n";
  host.Connect(CallHost::Arguments("GET"));
  ASSERT_TRUE(host.connected) << host.failure;
  EXPECT_EQ(host.Value("callnumberofheaders"), "5");
  const char* const lines[] = {"HTTP/1.1 404 Not Found", "A: b", "folded", "No colon", "A: c"};
  for (int i = 1; i <= 5; i++) {
    EXPECT_EQ(host.Value("callreturnheader" + std::to_string(i)), lines[i - 1]);
    EXPECT_EQ(host.Element("callreturnheader", i), lines[i - 1]);
  }
  EXPECT_EQ(host.Value("callreturnheader6"), "(none)");
  EXPECT_EQ(host.Element("callreturnheader", 6), "(none)");
}

TEST_F(CallRequest, AHeadThatDoesNotEndIsAnError) {
  host.peer.bytes = "HTTP/1.1 200 OK\r\nA: b\r\n";
  host.Connect(CallHost::Arguments("GET"));
  EXPECT_EQ(host.failure, kReadClosed);
  EXPECT_EQ(host.Value("callnumberofheaders"), "(none)");
}

TEST_F(CallRequest, AnEmptyBodyIsOnePassWithTheHead) {
  host.peer.bytes = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  const auto call = host.Connect(CallHost::Arguments("GET"));
  ASSERT_EQ(call->Find_Next_Element(), Call::Found);
  EXPECT_EQ(host.Value("callnumberofheaders"), "2");
  EXPECT_EQ(host.Value("callvalue"), "(none)");
  EXPECT_EQ(host.Value("callobjectattribute"), "(none)");
  EXPECT_EQ(call->Find_Next_Element(), Call::End);
}

TEST_F(CallRequest, TheConnectionEndsWithTheCall) {
  host.peer.bytes = kResponse;
  auto call = host.Connect(CallHost::Arguments("GET"));
  EXPECT_EQ(host.peer.deleted, 0);
  call.reset();
  EXPECT_EQ(host.peer.deleted, 1);
}

TEST_F(CallRequest, FilesAreClosedWithTheCall) {
  Sent(With(CallHost::Arguments("POST"), "", "f,g"));
  EXPECT_EQ(host.files.open_now, 0);
}

}  // namespace
