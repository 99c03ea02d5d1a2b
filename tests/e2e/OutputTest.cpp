// The output of a script, and how it reaches the client.

#include "tests/e2e/Pages.h"

namespace {

using testing::StartsWith;

class OutputChain : public testing::Test {
 protected:
  // The response of a script, from an engine that this function starts.
  FastCGIResponse Run(const std::string& source) {
    engine.Script("page.zpc", source);
    EXPECT_TRUE(engine.Start());
    return engine.Get("/page.zpc");
  }

  EngineProcess engine;
};

TEST_F(OutputChain, AnEmptyScriptIsAnEmptyPage) {
  ExpectPage(Run(""), "");
}

TEST_F(OutputChain, TextsAndNumbersAreWrittenInOrder) {
  ExpectPage(Run(Writes("a") + "pushi -7\nout\npushf 0.5\nout\n" + Writes("z")), "a-70.5z");
}

TEST_F(OutputChain, EveryByteArrivesAsItIs) {
  std::string bytes, source = "pushc \"";
  for (int i = 0; i < 256; i++) {
    char escape[8];
    snprintf(escape, sizeof escape, "\\x%02x", i);
    source += escape;
    bytes += static_cast<char>(i);
  }
  ExpectPage(Run(source + "\"\nout\n"), bytes);
}

TEST_F(OutputChain, ExitEndsTheScriptAndKeepsWhatWasWritten) {
  ExpectPage(Run(Writes("before") + "exit\n" + Writes("behind")), "before");
}

TEST_F(OutputChain, BelowTheThresholdTheLengthIsKnown) {
  engine.settings = "bufsz_output_flush = 1000\n";
  ExpectPage(Run(Writes(std::string(999, 'x'))), std::string(999, 'x'));
}

TEST_F(OutputChain, ExactlyTheThresholdIsFlushedWithoutALength) {
  engine.settings = "bufsz_output_flush = 1000\n";
  FastCGIResponse response = Run(Writes(std::string(400, 'x')) + Writes(std::string(600, 'y')));
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_FALSE(response.HasHeader("Content-Length"));
  EXPECT_TRUE(response.HasHeader("Set-Cookie"));
  EXPECT_EQ(response.Body(), std::string(400, 'x') + std::string(600, 'y'));
}

TEST_F(OutputChain, TheBuiltInThresholdIsAMegabyte) {
  std::string half(524288, 'x');
  engine.Script("below.zpc", Writes(half) + Writes(half.substr(1)));
  engine.Script("at.zpc", Writes(half) + Writes(half));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/below.zpc"), half + half.substr(1));
  FastCGIResponse response = engine.Get("/at.zpc");
  EXPECT_FALSE(response.HasHeader("Content-Length"));
  EXPECT_EQ(response.Body().size(), 1048576u);
}

TEST_F(OutputChain, BlocksOfAnySizeGiveTheSamePage) {
  std::string expected;
  std::string source;
  for (int i = 0; i < 50; i++) {
    std::string part(static_cast<size_t>(i * 7), static_cast<char>('a' + i % 26));
    source += Writes(part);
    expected += part;
  }
  for (const char* size : {"1", "7", "8192", "0", "100000"}) {
    SCOPED_TRACE(size);
    EngineProcess other;
    other.settings = std::string("bufsz_output = ") + size + "\n";
    other.Script("page.zpc", source);
    ASSERT_TRUE(other.Start());
    ExpectPage(other.Get("/page.zpc"), expected);
  }
}

TEST_F(OutputChain, CompressedWritesLoseWhiteSpaceByTheModeOfTheOutput) {
  struct Case {
    const char* label;
    std::string source;
    const char* body;
  };
  auto compressed = [](const char* text) {
    return std::string("pushc \"") + text + "\"\nout_comp\n";
  };
  const Case cases[] = {
      {"off", compressed("  a  b"), "  a  b"},
      {"full", "stdoutput 2\npushc \"x\"\nout\n" + compressed("a  b\\n\\n c"), "xa b\nc"},
      {"full at the start", "stdoutput 2\n" + compressed(" \\n a"), "a"},
      {"fast at the start", "stdoutput 1\n" + compressed("  a"), " a"},
      {"full across writes", "stdoutput 2\n" + compressed("x ") + compressed(" y"), "x y"},
      {"fast across writes", "stdoutput 1\n" + compressed("x ") + compressed(" y"), "x y"},
      {"fast drops one byte", "stdoutput 1\n" + compressed("x ") + compressed("  y"), "x  y"},
      {"plain writes count", "stdoutput 2\npushc \"x \"\nout\n" + compressed(" y"), "x y"},
      {"only white space", "stdoutput 2\n" + compressed(" \\n\\t "), ""},
  };
  for (const Case& each : cases) engine.Script(each.label, each.source);
  ASSERT_TRUE(engine.Start());
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    ExpectPage(engine.Get((std::string("/") + each.label).c_str()), each.body);
  }
}

constexpr char capture_into_x[] = "pushg x\ncapture\n";
constexpr char capture_into_y[] = "pushg y\ncapture\n";
constexpr char write_x[] = "pushg x\nout\n";
constexpr char write_y[] = "pushg y\nout\n";

TEST_F(OutputChain, ACaptureLandsInItsVariable) {
  ExpectPage(
      Run(Writes("1") + capture_into_x + Writes("2") + "capture_end\n" + Writes("3") + write_x),
      "132");
}

TEST_F(OutputChain, ACaptureMayBeLong) {
  std::string long_text(100000, 'x');
  ExpectPage(Run(std::string(capture_into_x) + Writes(long_text) + Writes(long_text) +
                 "capture_end\n" + write_x),
             long_text + long_text);
}

TEST_F(OutputChain, ACaptureInsideACaptureGivesTheOuterOneBack) {
  ExpectPage(Run(std::string(capture_into_x) + Writes("a") + capture_into_y + Writes("b") +
                 "capture_end\n" + Writes("c") + "capture_end\n" + write_x + Writes("|") + write_y),
             "ac|b");
}

TEST_F(OutputChain, WhatACaptureStillHoldsAtTheEndIsLost) {
  ExpectPage(Run(Writes("before") + capture_into_x + Writes("lost")), "before");
}

TEST_F(OutputChain, AnErrorInsideACaptureReachesTheClient) {
  FastCGIResponse response = Run(Writes("before ") + capture_into_x + Writes("lost") + "pop\n");
  EXPECT_FALSE(response.HasHeader("Content-Length"));
  EXPECT_EQ(response.Body(),
            "before Fatal error in page.zpc @ [00000000:00000018]: Stack underflow\n");
}

TEST_F(OutputChain, EndingNoCaptureIsAFatalError) {
  ExpectFailure(Run("capture_end\n"),
                "Fatal error in page.zpc @ [00000000:00000000]: Invalid instruction\n");
}

TEST_F(OutputChain, AFatalErrorFollowsWhatWasWrittenAndEndsTheScript) {
  ExpectFailure(Run(Writes("one ") + ".word 1\n" + Writes("two")),
                "one Fatal error in page.zpc @ [00000000:00000008]: Illegal Instruction\n");
}

TEST_F(OutputChain, AFatalErrorNamesSourceFileAndLine) {
  ExpectFailure(Run("sourcefile \"shop.zp\"\nlineno 12\npop\n"),
                "Fatal error in page.zpc @ [00000000:0000000c]: shop.zp: Line 12: "
                "Stack underflow\n");
}

TEST_F(OutputChain, AnErrorPrefixComesFirst) {
  ExpectFailure(Run("pushc \"<b>Sorry.</b> \"\nop_errmsg\npop\n"),
                "<b>Sorry.</b> Fatal error in page.zpc @ [00000000:00000008]: Stack underflow\n");
}

TEST_F(OutputChain, AStackThatOverflowsEndsTheScriptAndKeepsWhatWasWritten) {
  std::string pushes;
  for (int i = 0; i < 600; i++) pushes += "pushi 1\n";
  // 8 bytes of code before, and 512 entries of 6 bytes each that fit on the stack.
  ExpectFailure(Run(Writes("x") + pushes),
                "xFatal error in page.zpc @ [00000000:00000c08]: Stack overflow\n");
}

TEST_F(OutputChain, AFullStackIsNoError) {
  std::string pushes;
  for (int i = 0; i < 512; i++) pushes += "pushi 1\n";
  ExpectPage(Run(pushes + "out\n"), "1");
}

}  // namespace
