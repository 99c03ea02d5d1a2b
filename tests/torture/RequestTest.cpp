// Whole requests in a host of this process, with each block of memory refused in turn, and each
// system call on files failing in turn: the request ends, and the next one is served right.

#include <fcgiapp.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "base/core/ThreadMemory.h"
#include "fastcgi/FastCGIConnection.h"
#include "fastcgi/FastCGIExternalLibrary.h"
#include "fastcgi/FastCGIRequestThread.h"
#include "fastcgi/FastCGIThreads.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FailingSystemCalls.h"
#include "tests/support/FastCGIClient.h"
#include "tests/support/Paths.h"
#include "tests/support/Sweep.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/Assembler.h"

namespace {

namespace fs = std::filesystem;

// Form input, a function, an array, a long text, another file, a lock, and two files: one that is
// written and one that is read.
const char* const kPage = R"(
        pushc "page"
        lockfile
        pushg name
        pushg city
        call greet
        out
again:  pushg a
        pushg i
        pushi 1
        add
        elem
        pushc "some text that is not short, and number "
        pushg i
        cat
        swap
        store
        pushg s
        pushc "a piece of a text that gets long"
        cat
        pushg i
        cat
        popg s
        incg i, 1
        cmpgi i, 40
        jmp_lt again
        pushg s
        out
        pushc "part.zpc"
        op_do_file
        pushc "out.txt"
        pushc ","
        pushc "name,city"
        export
        pushc "in.txt"
        pushc ","
        pushc "x,y"
        import done
body:   pushg x
        out
        import_loop body
done:   lockfile_end
        pushc "end"
        out
        .function greet(n, c var)
        pushc "Hello "
        pushl n
        cat
        pushc " of "
        cat
        pushl c
        cat
        ret
)";
const char* const kPart = "pushc \"part of \"\nout\npushg name\nout\n";
// Takes files from forms.
const char* const kUpload = R"(
        pushc "taken"
        out
        exit
        .function Zeph_ValidateFileUpload(field, name, type)
        pushi 0
        ret
        .end
        .function Zeph_ProcessFileUpload(field, name, status, path, type, size)
        pushl path
        out
        retn
        .end
)";

const char* const kForm = "name=Ann+Other&city=M%C3%BCnchen&more=1&more=2&long=";

class RequestsUnderFailures : public testing::Test {
 protected:
  RequestsUnderFailures() {
    for (const char* name : {"scripts", "data", "temp"}) directory.Directory(name);
    Script("page.zpc", kPage);
    Script("part.zpc", kPart);
    Script("upload.zpc", kUpload);
    directory.File("data/in.txt", "one,1\ntwo,2\n");
    const auto path = [this](const char* name) { return "\"" + directory.path(name) + "\"\n"; };
    directory.File("zeph.toml", "dir_zeph = " + path("scripts") + "dir_data = " + path("data") +
                                    "dir_temp = " + path("temp"));
    setenv("ZEPH_CONFIG", directory.path("zeph.toml").c_str(), 1);
    arguments.argument_count = arguments.copied_argument_count = 1;
    arguments.arguments = arguments.copied_arguments = argument_list;
    arguments.library_manager = &libraries;
    FCGX_Init();
    socket = directory.path("socket");
    listening = FCGX_OpenSocket(socket.c_str(), 16);
  }
  ~RequestsUnderFailures() override {
    close(listening);
    unsetenv("ZEPH_CONFIG");
  }

  void Script(const char* name, const char* source) {
    std::string image, errors;
    EXPECT_TRUE(AssembleScript(source, name, &image, &errors)) << errors;
    directory.File(std::string("scripts/") + name, image);
  }
  FastCGIParameters Parameters(const char* script, const char* type, size_t length) const {
    return {{"PATH_INFO", script},
            {"REQUEST_METHOD", "POST"},
            {"QUERY_STRING", "first+second"},
            {"HTTP_COOKIE", "zixcallerid=1234"},
            {"CONTENT_TYPE", type},
            {"CONTENT_LENGTH", std::to_string(length)},
            {"ZpCONFIG_LIBRARY", InBuild("lib/libzephconfig.so")}};
  }

  // Sends a request and serves it on this thread. `serve` calls what it gets.
  using Serve = std::function<void(const std::function<void()>&)>;
  FastCGIResponse Request(const char* script, const char* type, const std::string& body,
                          const Serve& serve) {
    FastCGIClient client;
    client.Hold();
    EXPECT_TRUE(client.Connect(socket) && client.Begin(true) &&
                client.Parameters(Parameters(script, type, body.size())) &&
                client.EndParameters() && client.Input(body) && client.EndInput() &&
                client.Release());
    FCGX_Request request;
    FCGX_InitRequest(&request, listening, FCGI_FAIL_ACCEPT_ON_INTR);
    FastCGIConnection connection(&threads);
    EXPECT_GE(connection.AcceptRequest(&request), 0);
    serve([&] { AnswerRequest(&thread, &arguments, &request); });
    connection.SendWithNext();
    FCGX_Finish_r(&request);
    const FastCGIResponse response = client.Read();
    // Before the other side, which would wait for it.
    client.Close();
    FCGX_Free(&request, 1);
    return response;
  }
  static void Plainly(const std::function<void()>& request) { request(); }

  // Everything in the directories that a request writes to.
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const char* folder : {"data", "temp"}) {
      for (const auto& entry : fs::directory_iterator(directory.path(folder)))
        names.insert(entry.path().filename().string());
    }
    return names;
  }

  // Serves the request under failures and then the same one without.
  void ServeTwice(const char* script, const char* type, const std::string& body,
                  const Serve& under_failures, bool cleans_up) {
    const FastCGIResponse failed = Request(script, type, body, under_failures);
    EXPECT_TRUE(failed.ended) << failed.problem;
    // To delete a file takes memory for its path.
    if (cleans_up) ExpectLeftOver();
    RemoveLeftOver();
    const FastCGIResponse next = Request(script, type, body, Plainly);
    EXPECT_TRUE(next.ended) << next.problem;
    EXPECT_EQ(next.Body(), expected);
    ExpectLeftOver();
  }
  // The file that the script writes may be there, and the temporary file of an upload that did not
  // come to its end. There may be no lock, nor anything else.
  void ExpectLeftOver() {
    RemoveLeftOver(
        [](const std::string& name) { return name == "out.txt" || name.starts_with("ZEPH_FUP."); });
    EXPECT_EQ(Files(), std::set<std::string>{"in.txt"});
  }
  void RemoveLeftOver(const std::function<bool(const std::string&)>& may_go = {}) {
    for (const char* folder : {"data", "temp"}) {
      for (const std::string& name : Files())
        if (name != "in.txt" && (!may_go || may_go(name)))
          fs::remove(directory.path(std::string(folder) + "/" + name));
    }
  }

  void ExpectNoBlockIsNeeded(const char* script, const char* type, const std::string& body) {
    if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
    Learn(script, type, body);
    // A thread of its own, which keeps no freed blocks.
    std::thread([&] {
      int64_t kept = 0;
      for (int i = 0; i < 2; i++) {
        (void)Request(script, type, body, [&](const std::function<void()>& request) {
          request();
          kept = ThreadMemory::Used();
        });
      }
      ExpectLeftOver();
      for (const auto mode : {FailingAllocator::Once, FailingAllocator::UntilReserve,
                              FailingAllocator::FromThereOn}) {
        bool reached = true;
        for (long number = 1; reached && !HasFailure(); number += 1 + number / kSweepEach) {
          SCOPED_TRACE(testing::Message() << "block " << number << ", mode " << mode);
          ServeTwice(
              script, type, body,
              [&](const std::function<void()>& request) {
                {
                  const FailingAllocator allocator(number, mode);
                  request();
                  reached = FailingAllocator::Refused();
                }
                EXPECT_EQ(ThreadMemory::Used(), kept) << "bytes kept by the request";
              },
              mode != FailingAllocator::FromThereOn);
          points += reached;
        }
      }
    }).join();
    RecordPoints(points);
  }
  void ExpectNoSystemCallIsNeeded(const char* script, const char* type, const std::string& body) {
    Learn(script, type, body);
    for (const int error : {EINTR, EIO, ENOSPC, EMFILE, FailingSystemCalls::Short}) {
      bool reached = true;
      for (long number = 1; reached && !HasFailure(); number += 1 + number / kSweepEach) {
        SCOPED_TRACE(testing::Message() << "call " << number << ", error " << error);
        std::string call;
        const auto serve = [&](const std::function<void()>& request) {
          const FailingSystemCalls failing(number, error, FailingSystemCalls::Once);
          request();
          call = FailingSystemCalls::Failed();
        };
        const FastCGIResponse failed = Request(script, type, body, serve);
        SCOPED_TRACE(call);
        EXPECT_TRUE(failed.ended) << failed.problem;
        // What could not be removed is left.
        if (call != "unlinkat") ExpectLeftOver();
        RemoveLeftOver();
        EXPECT_EQ(Request(script, type, body, Plainly).Body(), expected);
        ExpectLeftOver();
        reached = !call.empty();
        points += reached;
      }
    }
    RecordPoints(points);
  }
  // The response of a request without a failure.
  void Learn(const char* script, const char* type, const std::string& body) {
    expected = Request(script, type, body, Plainly).Body();
    ExpectLeftOver();
  }

  TemporaryDirectory directory;
  char program[16] = "zeph-fcgi";
  char* argument_list[2] = {program, nullptr};
  _FastCGIMainArgs arguments{};
  FastCGIExternalLibraryManager libraries;
  FastCGIThreadManager threads;
  FastCGITaskThread thread{2, &threads, nullptr, &arguments};
  std::string socket;
  int listening = -1;
  std::string expected;
  long points = 0;
};

const char* const kURLEncoded = "application/x-www-form-urlencoded";
const char* const kMultipart = "multipart/form-data; boundary=B";

std::string Form() {
  return kForm + std::string(300, 'x');
}
std::string Upload() {
  return "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nvalue\r\n--B\r\n"
         "Content-Disposition: form-data; name=\"f\"; filename=\"my file\"\r\n"
         "Content-Type: text/plain\r\n\r\n" +
         std::string(20000, 'c') + "\r\n--B--\r\n";
}

TEST_F(RequestsUnderFailures, APageIsWholeWithoutThem) {
  Learn("/page.zpc", kURLEncoded, Form());
  EXPECT_EQ(expected.substr(0, 27), "Hello Ann Other of M\xC3\xBCnchen");
  EXPECT_NE(expected.find("part of Ann Otheronetwoend"), std::string::npos) << expected;
  Learn("/upload.zpc", kMultipart, Upload());
  EXPECT_EQ(expected, "ZEPH_FUP.0taken");
}

TEST_F(RequestsUnderFailures, OutOfMemoryEndsThatRequestAlone) {
  ExpectNoBlockIsNeeded("/page.zpc", kURLEncoded, Form());
}

TEST_F(RequestsUnderFailures, OutOfMemoryEndsThatUploadAlone) {
  ExpectNoBlockIsNeeded("/upload.zpc", kMultipart, Upload());
}

TEST_F(RequestsUnderFailures, AFailedSystemCallReachesThatRequestAlone) {
  ExpectNoSystemCallIsNeeded("/page.zpc", kURLEncoded, Form());
}

TEST_F(RequestsUnderFailures, AFailedSystemCallReachesThatUploadAlone) {
  ExpectNoSystemCallIsNeeded("/upload.zpc", kMultipart, Upload());
}

}  // namespace
