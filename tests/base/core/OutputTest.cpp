#include "base/core/Output.h"

#include <gtest/gtest.h>

#include "tests/support/RecordingOutput.h"

namespace {

std::string Compress(int flags, std::initializer_list<const char*> writes,
                     bool behind_space = false) {
  RecordingOutput output;
  if (!behind_space) output.Write("", 0);
  output.Write(behind_space ? " " : "|", 1);
  output.text.clear();
  output.SetFlags(flags);
  for (const char* text : writes) output.Write_Compressed(text, -1);
  return output.text;
}

TEST(Output, FullCompressionReducesEveryRunToItsFirstByte) {
  EXPECT_EQ(Compress(Output::CompressFull, {"a  b\n\n c"}), "a b\nc");
  EXPECT_EQ(Compress(Output::CompressFull, {"\t\n a"}), "\ta");
  EXPECT_EQ(Compress(Output::CompressFull, {"a\v\f\r b"}), "a\vb");
}

TEST(Output, FullCompressionWorksAcrossWrites) {
  EXPECT_EQ(Compress(Output::CompressFull, {"x ", " y"}), "x y");
  EXPECT_EQ(Compress(Output::CompressFull, {"x ", "   ", "\n", "y"}), "x y");
  EXPECT_EQ(Compress(Output::CompressFull, {"x", " y"}), "x y");
}

TEST(Output, FastCompressionDropsOneByteAtTheJoin) {
  EXPECT_EQ(Compress(Output::CompressFast, {"x ", " y"}), "x y");
  EXPECT_EQ(Compress(Output::CompressFast, {"x ", "  y"}), "x  y");
  EXPECT_EQ(Compress(Output::CompressFast, {"x  y"}), "x  y");
  EXPECT_EQ(Compress(Output::CompressFast, {"x ", " ", "y"}), "x y");
}

TEST(Output, FastCompressionGoesFirstWhenBothBitsAreSet) {
  EXPECT_EQ(Compress(Output::CompressFast | Output::CompressFull, {"x  y"}), "x  y");
}

TEST(Output, WithoutFlagsNothingIsDropped) {
  EXPECT_EQ(Compress(0, {"  x ", "  y"}), "  x   y");
}

TEST(Output, StartOfResponseCountsAsAfterWhiteSpace) {
  RecordingOutput fast;
  fast.SetFlags(Output::CompressFast);
  fast.Write_Compressed("  \nx", -1);
  EXPECT_EQ(fast.text, " \nx");
  RecordingOutput full;
  full.SetFlags(Output::CompressFull);
  full.Write_Compressed("  \n", -1);
  full.Write_Compressed(" x", -1);
  EXPECT_EQ(full.text, "x");
}

TEST(Output, CompressedWritesAnswerTheInputLength) {
  RecordingOutput output;
  EXPECT_EQ(output.Write_Compressed_Full("  a  b", 6), 6);
  EXPECT_EQ(output.Write_Compressed_Fast(" a", -1), 2);
  EXPECT_EQ(output.Write_Compressed_Full("   ", -1), 3);
}

TEST(Output, EmptyRemainderWritesNothing) {
  RecordingOutput output;
  output.Write_Compressed_Fast(" ", 1);
  output.Write_Compressed_Full(" \n ", 3);
  EXPECT_TRUE(output.pieces.empty());
}

TEST(Output, HighBytesAreNoWhiteSpace) {
  EXPECT_EQ(Compress(Output::CompressFull, {"\x85\xA0 \xA0"}), "\x85\xA0 \xA0");
}

TEST(Output, ErrorsAreWrittenAndFlushed) {
  RecordingOutput output;
  EXPECT_EQ(output.Write_Error("oops", 4), 4);
  EXPECT_EQ(output.text, "oops");
  EXPECT_EQ(output.flushes, 1);
}

class PlainOutput : public Output {
 public:
  int Write(const char*, int length) override { return length; }
  int Flush() override { return 3; }
  using Output::Flush;
  int type() override { return Buffered; }
};

TEST(Output, BaseHasNoHeaderFieldsAndFreesWhatItIsGiven) {
  PlainOutput output;
  char* name = new char[2]{'a', 0};
  char* value = new char[2]{'b', 0};
  EXPECT_EQ(output.Header(name, 1, 1, value, 1, 1), 0);
  EXPECT_EQ(output.Header("a", "b"), 0);
  EXPECT_EQ(output.Flush(1), 0);
}

}  // namespace
