// Files in forms: the script's two functions and their arguments, and the files that are stored and
// left.

#include <gtest/gtest.h>

#include "tests/support/UploadMachine.h"

namespace {

Upload Accepts(const std::string& limit = "0") {
  Upload upload;
  upload.script = ValidatesWith(limit) + Processes();
  return upload;
}

TEST(Upload, TheScriptIsAskedAndGetsTheFileWhereverABlockEnds) {
  const std::string content = "line one\r\n--line two\r\n\r\n--Bandana\r\n-";
  ExpectInAllCuts(Field("a", "1") + FilePart("f", "my file.txt", "text/plain", "line one") +
                      Field("b", "2") + EndOfBody(),
                  "a=1;b=2;ask(f|my file.txt|text/plain)"
                  "file(f|my file.txt|COMPLETE|ZEPH_FUP.0|text/plain|8)[line one]",
                  Accepts());
  ExpectInAllCuts(FilePart("f", "x", "y", "a\r\n--A\r\n\r") + EndOfBody(),
                  "ask(f|x|y)file(f|x|COMPLETE|ZEPH_FUP.0|y|9)[a\r\n--A\r\n\r]", Accepts());
  // Text that begins like the boundary is one, and the byte after it is then invalid.
  EXPECT_EQ(Accepts()({FilePart("f", "x", "y", content) + EndOfBody()}),
            "ask(f|x|y)file(f|x|COMPLETE|ZEPH_FUP.0|y|22)[line one\r\n--line two\r\n]"
            "{Found a when expected CR or '-'}");
}

TEST(Upload, AnEmptyFileIsAFile) {
  ExpectInAllCuts(FilePart("f", "x", "y", "") + EndOfBody(),
                  "ask(f|x|y)file(f|x|COMPLETE|ZEPH_FUP.0|y|0)[]", Accepts());
}

TEST(Upload, SeveralFilesOneAfterTheOther) {
  ExpectInAllCuts(FilePart("f", "x", "t1", "one") + FilePart("f", "y", "t2", "two") + EndOfBody(),
                  "ask(f|x|t1)file(f|x|COMPLETE|ZEPH_FUP.0|t1|3)"
                  "ask(f|y|t2)file(f|y|COMPLETE|ZEPH_FUP.1|t2|3)[one][two]",
                  Accepts());
}

TEST(Upload, AnEmptyFileNameMakesAPlainField) {
  ExpectInAllCuts(
      "--B\r\nContent-Disposition: form-data; name=\"f\"; filename=\"\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n\r\n" +
          EndOfBody(),
      "f=;", Accepts());
  // So does any value that is too short for two quotes with a byte between them.
  for (const char* name : {"", "x", "xy"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Accepts()({std::string("--B\r\nContent-Disposition: form-data; name=\"f\"; "
                                     "filename=") +
                         name + "\r\n\r\n1\r\n" + EndOfBody()}),
              "f=1;");
  }
}

TEST(Upload, TheNameIsWhatIsBetweenTheFirstAndTheLastByte) {
  for (const char* value : {"\"n\"", "xny", "'n'", "\"nx"}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(Accepts()({std::string("--B\r\nContent-Disposition: form-data; name=\"f\"; "
                                     "filename=") +
                         value + "\r\nContent-Type: t\r\n\r\n1\r\n" + EndOfBody()}),
              "ask(f|n|t)file(f|n|COMPLETE|ZEPH_FUP.0|t|1)[1]");
  }
}

TEST(Upload, AttributeNamesAreExact) {
  EXPECT_EQ(Accepts()({"--B\r\nContent-Disposition: form-data; name=\"f\"; Filename=\"n\"; "
                       "filename*=\"m\"\r\n\r\n1\r\n" +
                       EndOfBody()}),
            "f=1;");
}

TEST(Upload, TheTypeIsTheLastOneThatWasSeen) {
  const std::string untyped =
      "--B\r\nContent-Disposition: form-data; name=\"f\"; filename=\"n\"\r\n\r\n1\r\n";
  EXPECT_EQ(Accepts()({untyped + EndOfBody()}), "ask(f|n|)file(f|n|COMPLETE|ZEPH_FUP.0||1)[1]");
  EXPECT_EQ(Accepts("-1")({FilePart("g", "x", "image/png", "") + untyped + EndOfBody()}),
            "ask(g|x|image/png)ask(f|n|image/png)");
  // Blanks are dropped at any place.
  EXPECT_EQ(Accepts("-1")({FilePart("g", "x", "text/plain; charset = utf-8", "") + EndOfBody()}),
            "ask(g|x|text/plain;charset=utf-8)");
}

TEST(Upload, WithoutAFunctionThatIsAskedFilesAreReadAndDropped) {
  const std::string body =
      Field("a", "1") + FilePart("f", "x", "y", "data\r\n--C") + Field("b", "2") + EndOfBody();
  ExpectInAllCuts(body, "a=1;b=2;", Upload());
  Upload processes_only;
  processes_only.script = Processes();
  ExpectInAllCuts(body, "a=1;b=2;", processes_only);
}

TEST(Upload, ANegativeAnswerSkipsTheFile) {
  ExpectInAllCuts(Field("a", "1") + FilePart("f", "x", "y", "data") + Field("b", "2") + EndOfBody(),
                  "a=1;b=2;ask(f|x|y)", Accepts("-1"));
}

TEST(Upload, WithoutAFunctionThatTakesItTheFileIsDropped) {
  Upload upload;
  upload.script = ValidatesWith("0");
  ExpectInAllCuts(FilePart("f", "x", "y", "data") + EndOfBody(), "ask(f|x|y)[data]", upload);
}

TEST(Upload, FilesDoNotCountAsVariables) {
  Upload upload = Accepts();
  upload.limit = 1;
  EXPECT_EQ(upload({FilePart("f", "x", "y", "1") + FilePart("f", "x", "y", "2") + Field("a", "1") +
                    EndOfBody()}),
            "a=1;ask(f|x|y)file(f|x|COMPLETE|ZEPH_FUP.0|y|1)"
            "ask(f|x|y)file(f|x|COMPLETE|ZEPH_FUP.1|y|1)[1][2]");
}

// Whether the client or this side is to blame for the error of a body.
TEST(Upload, TellsWhoseFaultAnErrorIs) {
  const struct {
    const char* label;
    std::string script;
    bool fail_temporary;
    int fail_write;
    std::string body;
    bool is_own;
  } cases[] = {
      {"no temporary file", ValidatesWith("0"), true, 0, FilePart("f", "x", "y", "data"), true},
      {"a full disk", ValidatesWith("0"), false, 1, FilePart("f", "x", "y", "data"), true},
      {"a function with other parameters", ".function Zeph_ValidateFileUpload(a)\nretn\n.end\n",
       false, 0, FilePart("f", "x", "y", "data"), true},
      {"the other function",
       ValidatesWith("0") + ".function Zeph_ProcessFileUpload(a)\nretn\n.end\n", false, 0,
       FilePart("f", "x", "y", "data"), true},
      {"too many fields", "", false, 0, Field("a", "1") + Field("b", "2"), false},
      {"no form", "", false, 0, "--B\r\n:", false},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.label);
    Machine machine;
    if (!each.script.empty()) machine.Assemble(each.script);
    UploadFiles files;
    files.fail_temporary = each.fail_temporary;
    files.fail_write = each.fail_write;
    MultipartFormParser parser(&machine.vm(), &files, &machine.global,
                               "multipart/form-data; boundary=B", 1);
    EXPECT_FALSE(parser.is_own_failure());
    EXPECT_NE(Feed(parser, {each.body + EndOfBody(), "x"}), "");
    EXPECT_EQ(parser.is_own_failure(), each.is_own);
  }
}

// --- The limit of a file -------------------------------------------------------------------------

// The bytes of a block count twice, so those of a file that is one block all do.
TEST(Upload, AFileInOneBlockAboveHalfTheLimitIsCut) {
  struct Case {
    int bytes;
    const char* limit;
    const char* status;
    int stored;
  };
  const Case cases[] = {
      {4000, "100", "PARTIAL", 0},     {4000, "0", "COMPLETE", 4000},
      {50, "100", "COMPLETE", 50},     {51, "100", "PARTIAL", 49},
      {99, "100", "PARTIAL", 1},       {100, "100", "PARTIAL", 0},
      {101, "100", "PARTIAL", 0},      {75, "100", "PARTIAL", 25},
      {1, "1", "PARTIAL", 0},          {4000, "8000", "COMPLETE", 4000},
      {4000, "7999", "PARTIAL", 3999},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(std::to_string(each.bytes) + " of " + each.limit);
    const std::string content(static_cast<size_t>(each.bytes), 'x');
    EXPECT_EQ(Accepts(each.limit)({FilePart("f", "n", "t", content) + EndOfBody()}),
              std::string("ask(f|n|t)file(f|n|") + each.status + "|ZEPH_FUP.0|t|" +
                  std::to_string(each.bytes) + ")[" +
                  std::string(static_cast<size_t>(each.stored), 'x') + "]");
  }
}

TEST(Upload, InManyBlocksTheCutComesABlockBeforeTheLimit) {
  const std::string head =
      "--B\r\nContent-Disposition: form-data; name=\"f\"; filename=\"n\"\r\n\r\n";
  const std::string block(1000, 'x'), end = "\r\n--B--";
  // 1000 + 1000 is not above 2500, 2000 + 1000 is: the cut keeps 2500 - 2000 bytes of the second
  // block.
  EXPECT_EQ(Accepts("2500")({head, block, block, block, block, end}),
            "ask(f|n|)file(f|n|PARTIAL|ZEPH_FUP.0||4000)[" + std::string(1500, 'x') + "]");
  EXPECT_EQ(Accepts("3000")({head, block, block, block, end}),
            "ask(f|n|)file(f|n|PARTIAL|ZEPH_FUP.0||3000)[" + std::string(2000, 'x') + "]");
  EXPECT_EQ(Accepts("4000")({head, block, block, block, end}),
            "ask(f|n|)file(f|n|COMPLETE|ZEPH_FUP.0||3000)[" + std::string(3000, 'x') + "]");
}

TEST(Upload, ACutFileDoesNotCutTheNextOne) {
  EXPECT_EQ(Accepts("6")(
                {FilePart("f", "n", "t", "12345") + FilePart("f", "n", "t", "123") + EndOfBody()}),
            "ask(f|n|t)file(f|n|PARTIAL|ZEPH_FUP.0|t|5)"
            "ask(f|n|t)file(f|n|COMPLETE|ZEPH_FUP.1|t|3)[1][123]");
}

// --- Failures ------------------------------------------------------------------------------------

TEST(Upload, AFunctionWithAnotherNumberOfParametersFailsTheBody) {
  Upload upload;
  upload.script = ".function Zeph_ValidateFileUpload(a, b)\npushi 0\nret\n.end\n";
  EXPECT_EQ(upload({FilePart("f", "n", "t", "x") + Field("a", "1") + EndOfBody()}),
            "{Failed call to ValidateFileUpload}");
  upload.script = ValidatesWith("0") + ".function Zeph_ProcessFileUpload(a)\nretn\n.end\n";
  EXPECT_EQ(upload({FilePart("f", "n", "t", "x") + Field("a", "1") + EndOfBody()}),
            "ask(f|n|t)[x]{Failed call to ProcessFileUpload}");
}

TEST(Upload, AnErrorOrAnExitInAFunctionFailsTheBody) {
  for (const char* code : {"pop\npop", "exit"}) {
    SCOPED_TRACE(code);
    Upload upload;
    upload.script = std::string(".function Zeph_ValidateFileUpload(a, b, c)\n") + code +
                    "\npushi 0\nret\n.end\n";
    std::string result = upload({FilePart("f", "n", "t", "x") + EndOfBody()});
    EXPECT_NE(result.find("Stack underflow"), std::string::npos) << result;
    EXPECT_NE(result.find("{Failed call to ValidateFileUpload}"), std::string::npos) << result;
    upload.script = ValidatesWith("0") + ".function Zeph_ProcessFileUpload(a, b, c, d, e, f)\n" +
                    code + "\nretn\n.end\n";
    result = upload({FilePart("f", "n", "t", "x") + EndOfBody()});
    EXPECT_NE(result.find("Stack underflow"), std::string::npos) << result;
    // The file is deleted anyway.
    EXPECT_NE(result.find("[x]{Failed call to ProcessFileUpload}"), std::string::npos) << result;
  }
}

TEST(Upload, WithoutATemporaryFileTheBodyFails) {
  Upload upload = Accepts();
  upload.fail_temporary = true;
  ExpectInAllCuts(FilePart("f", "n", "t", "x") + EndOfBody(),
                  "ask(f|n|t){Failed to create temporary file}", upload);
}

TEST(Upload, AWriteThatFailsIsToldInTheFilesWords) {
  Upload upload = Accepts();
  upload.fail_write = 1;
  EXPECT_EQ(upload({FilePart("f", "n", "t", "x") + EndOfBody()}),
            "ask(f|n|t)left ZEPH_FUP.0:;{Disk on fire}");
  upload.fail_write = 2;
  const std::string body = FilePart("f", "n", "t", "0123456789") + EndOfBody();
  const size_t cut = body.find("5");
  EXPECT_EQ(upload({std::string_view(body).substr(0, cut), std::string_view(body).substr(cut)}),
            "ask(f|n|t)left ZEPH_FUP.0:01234;{Disk on fire}");
}

TEST(Upload, AWriteThatFailsAtTheEndOfABlockShowsAtTheNext) {
  Machine machine;
  machine.Assemble(ValidatesWith("0"));
  UploadFiles files;
  files.fail_write = 1;
  MultipartFormParser parser(&machine.vm(), &files, &machine.global, "x; boundary=B", 0);
  const std::string head =
      "--B\r\nContent-Disposition: form-data; name=\"f\"; filename=\"n\"\r\n\r\nabc";
  EXPECT_TRUE(parser.Parse(head.data(), static_cast<int>(head.size())));
  EXPECT_FALSE(parser.Parse("d", 1));
  EXPECT_EQ(TextOf(parser.error()), "Disk on fire");
  EXPECT_TRUE(parser.Finalize());
}

TEST(Upload, ShortWritesAreGoneOnWith) {
  Upload upload = Accepts();
  upload.write_limit = 3;
  ExpectInAllCuts(FilePart("f", "n", "t", "0123456789") + EndOfBody(),
                  "ask(f|n|t)file(f|n|COMPLETE|ZEPH_FUP.0|t|10)[0123456789]", upload);
}

TEST(Upload, AFileThatHasNotEndedIsLeftAndNobodyIsCalled) {
  EXPECT_EQ(Accepts()({FilePart("f", "n", "t", "abc")}), "ask(f|n|t)left ZEPH_FUP.0:abc;");
}

// --- The clock -----------------------------------------------------------------------------------

TEST(Upload, TheUploadsClockStandsStillWhileAFileComes) {
  struct Case {
    const char* label;
    std::string script;
    const char* calls;
  };
  const Case cases[] = {
      {"taken", ValidatesWith("0") + Processes(), "GCGR"},
      {"refused", ValidatesWith("-1") + Processes(), "G"},
      {"unasked", "", "G"},
      {"failed", ValidatesWith("0") + ".function Zeph_ProcessFileUpload(a)\nretn\n.end\n", "GCG"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    UploadApplication application;
    RecordingOutput output;
    application.SetOutput(&output);
    Machine tables;
    if (!each.script.empty()) tables.Assemble(each.script);
    ZephVM vm("page.zpc", -1, &application, &tables.dictionary, &tables.system, &tables.global,
              &tables.segments, &tables.functions, nullptr, nullptr, nullptr, nullptr, nullptr,
              application.heartbeatcounter(), application.timedoutflag(), application.exitflag(),
              nullptr);
    UploadFiles files;
    MultipartFormParser parser(&vm, &files, &tables.global, "x; boundary=B", 0);
    Feed(parser, {Field("a", "1") + FilePart("f", "n", "t", "abc") + EndOfBody()});
    EXPECT_EQ(application.calls, each.calls);
  }
}

TEST(Upload, TheTemporaryFileIsMadeForWriting) {
  Machine machine;
  machine.Assemble(ValidatesWith("0"));
  UploadFiles files;
  MultipartFormParser parser(&machine.vm(), &files, &machine.global, "x; boundary=B", 0);
  Feed(parser, {FilePart("f", "n", "t", "abc") + EndOfBody()});
  EXPECT_EQ(files.made, "ZEPH_FUP.0 2;");
}

}  // namespace
