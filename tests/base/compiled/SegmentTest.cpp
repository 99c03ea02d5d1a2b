#include "base/compiled/Segment.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <cstring>

#include "base/compiled/Instructions.h"
#include "base/compiled/TaggedFile.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TemporaryDirectory.h"

using namespace CompiledFileBytes;

namespace {

std::string CodeOf(const Segment* segment) {
  if (!segment) return "(none)";
  return std::string(reinterpret_cast<const char*>(segment->code()),
                     static_cast<size_t>(segment->length()));
}

bool PaddingIsZero(const Segment& segment) {
  for (int i = 0; i < Segment::Padding; i++)
    if (segment.code()[segment.length() + i] != 0) return false;
  return true;
}

// --- Segment -------------------------------------------------------------------------------------

TEST(Segment, IsEmptyWithRoomAtFirst) {
  Segment segment(7);
  EXPECT_EQ(segment.number(), 7);
  EXPECT_EQ(segment.capacity(), 8192);
  EXPECT_EQ(segment.length(), 0);
  EXPECT_TRUE(PaddingIsZero(segment));
}

TEST(Segment, OfALengthIsZeroBytesOfThatLength) {
  Segment segment(1, 100);
  EXPECT_EQ(segment.capacity(), 100);
  EXPECT_EQ(segment.length(), 100);
  EXPECT_EQ(CodeOf(&segment), std::string(100, '\0'));
  EXPECT_TRUE(PaddingIsZero(segment));
  Segment negative(1, -3);
  EXPECT_EQ(negative.length(), 0);
}

TEST(Segment, StoresLowByteFirst) {
  Segment segment(0);
  EXPECT_EQ(segment.Write_Byte(0, 0xAB), 1);
  EXPECT_EQ(segment.Write_Word(1, 0x1234), 3);
  EXPECT_EQ(segment.Write_Dword(3, 0x89ABCDEF), 7);
  EXPECT_EQ(segment.Write_Double(7, -2.5), 15);
  EXPECT_EQ(CodeOf(&segment),
            std::string("\xAB\x34\x12\xEF\xCD\xAB\x89\x00\x00\x00\x00\x00\x00\x04\xC0", 15));
}

TEST(Segment, ReadsBackWhatItStored) {
  Segment segment(0);
  segment.Write_Byte(0, 0xAB);
  segment.Write_Word(1, 0x1234);
  segment.Write_Dword(3, 0x89ABCDEF);
  segment.Write_Double(7, -2.5);
  unsigned char byte = 0;
  unsigned short word = 0;
  unsigned int dword = 0;
  double number = 0;
  EXPECT_EQ(segment.Read_Byte(0, &byte), 1);
  EXPECT_EQ(segment.Read_Word(1, &word), 3);
  EXPECT_EQ(segment.Read_Dword(3, &dword), 7);
  EXPECT_EQ(segment.Read_Double(7, &number), 15);
  EXPECT_EQ(byte, 0xAB);
  EXPECT_EQ(word, 0x1234);
  EXPECT_EQ(dword, 0x89ABCDEF);
  EXPECT_EQ(number, -2.5);
}

TEST(Segment, AValueMustLieWhollyWithinTheLength) {
  Segment segment(0, 20);
  unsigned char byte = 9;
  unsigned short word = 9;
  unsigned int dword = 9;
  double number = 9;
  EXPECT_EQ(segment.Read_Byte(19, &byte), 20);
  EXPECT_EQ(segment.Read_Byte(20, &byte), -1);
  EXPECT_EQ(segment.Read_Word(18, &word), 20);
  EXPECT_EQ(segment.Read_Word(19, &word), -1);
  EXPECT_EQ(segment.Read_Dword(16, &dword), 20);
  EXPECT_EQ(segment.Read_Double(12, &number), 20);
  EXPECT_EQ(segment.Read_Double(13, &number), -1);
  dword = 9;
  EXPECT_EQ(segment.Read_Dword(17, &dword), -1);
  EXPECT_EQ(dword, 9U);
  for (int position : {-1, INT_MIN, INT_MAX, INT_MAX - 3}) {
    EXPECT_EQ(segment.Read_Byte(position, &byte), -1);
    EXPECT_EQ(segment.Read_Dword(position, &dword), -1);
    EXPECT_EQ(segment.Read_Double(position, &number), -1);
  }
  Segment small(0, 2);
  EXPECT_EQ(small.Read_Dword(0, &dword), -1);
}

TEST(Segment, GrowsByWholeSteps) {
  const struct {
    int position;
    int capacity;
  } cases[] = {
      {0, 8192},      {8190, 8192},   {8191, 8192},   {8192, 16384},
      {16382, 16384}, {16383, 16384}, {16384, 24576}, {100000, 106496},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.position);
    Segment segment(0);
    EXPECT_EQ(segment.Write_Byte(c.position, 1), c.position + 1);
    EXPECT_EQ(segment.capacity(), c.capacity);
    EXPECT_EQ(segment.length(), c.position + 1);
    EXPECT_TRUE(PaddingIsZero(segment));
  }
}

TEST(Segment, AWriteUpToTheCapacityLeavesIt) {
  Segment segment(0);
  const unsigned char* before = segment.code();
  segment.Write_Byte(8190, 1);
  EXPECT_EQ(segment.code(), before);
  segment.Write_Byte(8191, 1);
  EXPECT_EQ(segment.capacity(), 8192);
  EXPECT_EQ(segment.length(), 8192);
}

// The memory doubles, though the capacity grows by steps.
TEST(Segment, CodeThatGrowsIsMovedFewTimes) {
  Segment segment(0);
  int moves = 0;
  const unsigned char* before = segment.code();
  for (int position = 0; position < 1 << 22; position += 4096) {
    segment.Write_Byte(position, 1);
    moves += segment.code() != before;
    before = segment.code();
  }
  EXPECT_LE(moves, 10);
}

TEST(Segment, AGapIsZeroAndOldBytesStay) {
  Segment segment(0);
  segment.Write_Dword(0, 0x01020304);
  segment.Write_Byte(9000, 5);
  std::string code = CodeOf(&segment);
  EXPECT_EQ(code.substr(0, 4), std::string("\4\3\2\1"));
  EXPECT_EQ(code.substr(4, 8996), std::string(8996, '\0'));
  EXPECT_EQ(code[9000], 5);
}

TEST(Segment, PatchingInPlaceLeavesTheLength) {
  Segment segment(0);
  segment.Write_Double(0, 1.0);
  EXPECT_EQ(segment.Write_Dword(2, 7), 6);
  EXPECT_EQ(segment.length(), 8);
}

TEST(Segment, PositionsThatCannotBeAreRefused) {
  Segment segment(0);
  for (int position : {-1, INT_MIN, INT_MAX, INT_MAX - 8}) {
    EXPECT_EQ(segment.Write_Byte(position, 1), -1);
    EXPECT_EQ(segment.Write_Word(position, 1), -1);
    EXPECT_EQ(segment.Write_Dword(position, 1), -1);
    EXPECT_EQ(segment.Write_Double(position, 1), -1);
  }
  EXPECT_EQ(segment.length(), 0);
}

TEST(Segment, TrimGivesUnusedRoomBack) {
  Segment segment(3);
  segment.Write_Dword(0, 0x04030201);
  segment.Trim();
  EXPECT_EQ(segment.capacity(), 4);
  EXPECT_EQ(segment.length(), 4);
  for (int i = 0; i < Segment::Padding; i++) EXPECT_EQ(segment.code()[4 + i], 0);
  unsigned value = 0;
  EXPECT_EQ(segment.Read_Dword(0, &value), 4);
  EXPECT_EQ(value, 0x04030201u);
  segment.Trim();
  EXPECT_EQ(segment.capacity(), 4);
  // It may grow again.
  EXPECT_EQ(segment.Write_Byte(4, 5), 5);
  EXPECT_EQ(segment.capacity(), 8192);
  Segment empty(4);
  empty.Trim();
  EXPECT_EQ(empty.capacity(), 0);
  EXPECT_EQ(empty.code()[0], 0);
}

TEST(Segment, GrowMakesRoomAndLeavesTheLength) {
  Segment segment(0);
  segment.Write_Byte(0, 9);
  segment.Grow(100);
  EXPECT_EQ(segment.capacity(), 8192);
  segment.Grow(8192);
  EXPECT_EQ(segment.capacity(), 8192);
  segment.Grow(8193);
  EXPECT_EQ(segment.capacity(), 16384);
  EXPECT_EQ(segment.length(), 1);
  EXPECT_EQ(CodeOf(&segment), "\x09");
}

TEST(Segment, ACopyIsIndependent) {
  Segment segment(3);
  segment.Write_Word(0, 0x4142);
  Segment copy(segment);
  segment.Write_Word(0, 0);
  EXPECT_EQ(copy.number(), 3);
  EXPECT_EQ(copy.capacity(), 8192);
  EXPECT_EQ(CodeOf(&copy), "BA");
  EXPECT_TRUE(PaddingIsZero(copy));
}

// --- Listing -------------------------------------------------------------------------------------

class SegmentListing : public testing::Test {
 protected:
  std::string Listing(const std::string& code) {
    Segment segment(0);
    for (size_t i = 0; i < code.size(); i++)
      segment.Write_Byte(static_cast<int>(i), static_cast<unsigned char>(code[i]));
    segment.Dump(directory.path("listing").c_str(), "a + bc", 3);
    return directory.Content("listing");
  }
  static std::string Double(double value) {
    Segment segment(0);
    segment.Write_Double(0, value);
    return CodeOf(&segment);
  }

  TemporaryDirectory directory;
};

TEST_F(SegmentListing, StartsWithTheExpression) {
  EXPECT_EQ(Listing(""), "\n\nExpression: a +\n");
}

TEST_F(SegmentListing, ShowsNamesAndOperands) {
  std::string code = LE16(0x4001) + LE32(3) + LE16(22) + LE16(0x8003) + Double(1.5) + LE16(0x504B) +
                     LE32(11) + LE32(-2) + LE16(45) + LE16(0x4025) + LE32(-30);
  EXPECT_EQ(Listing(code),
            "\n\nExpression: a +\n"
            "0\tpushc\tdword:3\n"
            "6\tadd\t\n"
            "8\tpushf\tdouble:1.500000\n"
            "18\ttagerror\tdword:11, dword:-2\n"
            "28\tand\t\n"
            "30\tjmp\tdword:-30\n");
}

TEST_F(SegmentListing, SkipsWhatItDoesNotKnowByItsKindBits) {
  // An unknown word without operands, unknown words with two operands of each size, and
  // instructions that the machine runs but a listing does not show by name.
  std::string code = LE16(0x0001) + LE16(0x6FFF) + LE32(0) + Double(0) + LE16(0x9FFF) + Double(0) +
                     LE32(0) + LE16(91) + LE16(0x505C) + LE32(0) + LE32(1) + LE16(278) + LE16(535) +
                     LE16(0);
  EXPECT_EQ(Listing(code),
            "\n\nExpression: a +\n"
            "0\tIllegal Instruction\n"
            "2\tIllegal Instruction\n"
            "16\tIllegal Instruction\n"
            "30\tIllegal Instruction\n"
            "32\tIllegal Instruction\n"
            "42\tIllegal Instruction\n"
            "44\tIllegal Instruction\n"
            "46\tnoop\t\n");
}

TEST_F(SegmentListing, ReadsZerosAfterTheEnd) {
  EXPECT_EQ(Listing(LE16(0x4002) + "\x07"), "\n\nExpression: a +\n0\tpushi\tdword:7\n");
  EXPECT_EQ(Listing(LE16(0x5305)), "\n\nExpression: a +\n0\tstoregi\tdword:0, dword:0\n");
  EXPECT_EQ(Listing(LE16(0) + "\x01"), "\n\nExpression: a +\n0\tnoop\t\n")
      << "a single last byte is no instruction";
}

TEST_F(SegmentListing, NamesEveryListedInstruction) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    SCOPED_TRACE(row.name);
    std::string listing = Listing(LE16(row.word));
    std::string line = listing.substr(listing.find("0\t"));
    if (row.listed)
      EXPECT_EQ(line.substr(2, strlen(row.name) + 1), row.name + std::string("\t"));
    else
      EXPECT_EQ(line, "0\tIllegal Instruction\n");
  }
}

TEST_F(SegmentListing, AnUnwritablePathIsPassedOver) {
  Segment segment(0);
  segment.Dump(directory.path("no/such/folder").c_str(), "", 0);
  EXPECT_FALSE(directory.Exists("no"));
}

// --- SegmentManager ------------------------------------------------------------------------------

class SegmentFile : public testing::Test {
 protected:
  bool Read(const std::string& section) {
    manager.files["s"] = Container({{"segs", section}});
    EXPECT_TRUE(file.Open("s", FileMode_Read));
    return segments.Read(&file);
  }
  std::string Written() {
    EXPECT_TRUE(file.Create("w", nullptr, 0));
    EXPECT_TRUE(segments.Write(&file));
    EXPECT_TRUE(file.Section_Flush());
    return manager.files["w"];
  }

  FaultyFileManager manager;
  TaggedFile file{&manager};
  SegmentManager segments;
};

// Two segments; the second is the start.
const std::string TwoSegments =
    LE32(2) + LE32(1) + LE32(0) + LE32(3) + LE32(3) + LE32(4) + "abc" + "defg";

TEST_F(SegmentFile, ANewManagerHasAStartAndNoOther) {
  EXPECT_EQ(segments.Segments(), 1);
  EXPECT_EQ(segments.Lookup(0), nullptr);
  Segment* start = segments.Start();
  ASSERT_NE(start, nullptr);
  EXPECT_EQ(start->number(), 0);
  EXPECT_EQ(start->length(), 0);
  EXPECT_EQ(segments.Start(), start);
  EXPECT_EQ(segments.Lookup(0), start);
}

TEST_F(SegmentFile, TheFirstAddedSegmentIsNumberOne) {
  EXPECT_EQ(segments.Segment_Add()->number(), 1);
  EXPECT_EQ(segments.Segments(), 2);
  EXPECT_EQ(segments.Lookup(0), nullptr);
  EXPECT_EQ(segments.Start()->number(), 0);
}

TEST_F(SegmentFile, AddingGoesOnPastTheFirstArray) {
  std::vector<Segment*> added;
  for (int i = 1; i < 200; i++) added.push_back(segments.Segment_Add());
  for (int i = 1; i < 200; i++) {
    EXPECT_EQ(segments.Lookup(i), added[static_cast<size_t>(i) - 1]);
    EXPECT_EQ(segments.Lookup(i)->number(), i);
  }
  EXPECT_EQ(segments.Start()->number(), 0);
}

TEST_F(SegmentFile, NumbersOutOfRangeAreInvalid) {
  segments.Start();
  for (int number : {-1, 1, 63, 64, INT_MIN, INT_MAX}) EXPECT_EQ(segments.Lookup(number), nullptr);
}

TEST_F(SegmentFile, ReadsWhatTheFormatSays) {
  ASSERT_TRUE(Read(TwoSegments));
  EXPECT_EQ(segments.Segments(), 2);
  EXPECT_EQ(CodeOf(segments.Lookup(0)), "abc");
  EXPECT_EQ(CodeOf(segments.Lookup(1)), "defg");
  EXPECT_EQ(segments.Start(), segments.Lookup(1));
  EXPECT_TRUE(PaddingIsZero(*segments.Lookup(0)));
  EXPECT_TRUE(PaddingIsZero(*segments.Lookup(1)));
  EXPECT_EQ(segments.Lookup(2), nullptr);
}

TEST_F(SegmentFile, WritesWhatItRead) {
  ASSERT_TRUE(Read(TwoSegments));
  EXPECT_EQ(Written(), Container({{"segs", TwoSegments}}));
}

TEST_F(SegmentFile, WritesAnUnmadeStartAsAnEmptySegment) {
  segments.Segment_Add()->Write_Byte(0, 'x');
  EXPECT_EQ(Written(),
            Container({{"segs", LE32(2) + LE32(0) + LE32(0) + LE32(0) + LE32(0) + LE32(1) + "x"}}));
}

TEST_F(SegmentFile, SegmentsAreAddedAfterThoseOfTheFile) {
  ASSERT_TRUE(Read(TwoSegments));
  EXPECT_EQ(segments.Segment_Add()->number(), 2);
  EXPECT_EQ(CodeOf(segments.Lookup(1)), "defg");
}

TEST_F(SegmentFile, CountsAndStartsThatAreNoneFail) {
  const struct {
    const char* label;
    long count;
    long start;
  } cases[] = {
      {"no segment", 0, 0},          {"negative count", -1, 0},
      {"lowest count", INT_MIN, 0},  {"start after", 2, 2},
      {"negative start", 2, -1},     {"lowest start", 2, INT_MIN},
      {"highest start", 2, INT_MAX}, {"too many", 3, 0},
      {"highest count", INT_MAX, 0}, {"small in 32 bits", 0x20000001, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string section = TwoSegments;
    Patch(&section, 0, LE32(c.count) + LE32(c.start));
    EXPECT_FALSE(Read(section));
    EXPECT_NE(segments.Start(), nullptr) << "the manager stays usable";
  }
}

TEST_F(SegmentFile, OffsetsAndLengthsThatLieOutsideFail) {
  const struct {
    const char* label;
    size_t at;
    long value;
    bool good;
  } cases[] = {
      {"as written", 20, 4, true},
      {"shorter", 20, 2, true},
      {"empty", 20, 0, true},
      {"one byte too long", 20, 5, false},
      {"highest length", 20, INT_MAX, false},
      {"negative length", 20, -1, false},
      {"lowest length", 20, INT_MIN, false},
      {"one byte later", 16, 4, false},
      {"highest offset", 16, INT_MAX, false},
      {"before the section", 16, -100, false},
      {"lowest offset", 16, INT_MIN, false},
      {"inside the table", 16, -8, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string section = TwoSegments;
    Patch(&section, c.at, LE32(c.value));
    EXPECT_EQ(Read(section), c.good);
    EXPECT_EQ(CodeOf(segments.Lookup(0)), "abc") << "what was read so far stays";
  }
}

TEST_F(SegmentFile, SegmentsMayShareTheirCode) {
  const std::string code = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  ASSERT_TRUE(Read(LE32(4) + LE32(2) + LE32(0) + LE32(62) + LE32(2) + LE32(50) + LE32(1) +
                   LE32(60) + LE32(0) + LE32(62) + code));
  EXPECT_EQ(CodeOf(segments.Start()), code.substr(1, 60));
  EXPECT_EQ(segments.Start(), segments.Lookup(2));
  EXPECT_EQ(CodeOf(segments.Lookup(0)), code);
  EXPECT_EQ(CodeOf(segments.Lookup(1)), code.substr(2, 50));
  EXPECT_EQ(CodeOf(segments.Lookup(3)), code);
  EXPECT_EQ(segments.Lookup(3)->number(), 3);
  EXPECT_EQ(segments.Lookup(2)->code()[60], 0) << "zeros after the code";
  EXPECT_EQ(segments.Segment_Add()->number(), 4);
  EXPECT_EQ(segments.Lookup(5), nullptr);
}

TEST_F(SegmentFile, SharedCodeIsCopiedForTheSegmentsInUseOnly) {
  constexpr int kRows = 20000, kLength = 1 << 20;
  std::string section = LE32(kRows) + LE32(0);
  for (int i = 0; i < kRows; i++) section += LE32(0) + LE32(kLength);
  section += std::string(kLength, 'x');
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  ASSERT_TRUE(Read(section));
  for (int number : {0, 1, kRows - 1}) EXPECT_EQ(segments.Lookup(number)->length(), kLength);
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (16 << 20));
}

TEST_F(SegmentFile, EveryRowOfSharedCodeIsInTheSection) {
  for (int length : {1000, 1001}) {
    std::string section = LE32(10) + LE32(0);
    for (int i = 0; i < 9; i++) section += LE32(0) + LE32(1000);
    EXPECT_EQ(Read(section + LE32(0) + LE32(length) + std::string(1000, 'x')), length == 1000);
  }
}

TEST_F(SegmentFile, ACloneMakesSharedSegmentsOfItsOwn) {
  const std::string code(100, 'x');
  ASSERT_TRUE(Read(LE32(3) + LE32(0) + LE32(0) + LE32(100) + LE32(0) + LE32(100) + LE32(1) +
                   LE32(99) + code));
  SegmentManager clone(segments);
  ASSERT_NE(segments.Lookup(2), nullptr);
  EXPECT_NE(clone.Lookup(2), segments.Lookup(2));
  EXPECT_EQ(CodeOf(clone.Lookup(2)), code.substr(1));
}

TEST_F(SegmentFile, ASectionCutAnywhereFails) {
  for (size_t length = 0; length < TwoSegments.size(); length++) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(Read(TwoSegments.substr(0, length)));
    EXPECT_NE(segments.Start(), nullptr);
  }
}

TEST_F(SegmentFile, AMissingSectionHasTheFilesText) {
  manager.files["s"] = Container({});
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  EXPECT_FALSE(segments.Read(&file));
  EXPECT_STREQ(segments.error().data, "Invalid section");
}

TEST_F(SegmentFile, BigSegmentsAreReadPastTheWindow) {
  std::string big(150000, '\0');
  for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>(i * 7 + i / 251);
  ASSERT_TRUE(
      Read(LE32(2) + LE32(0) + LE32(0) + LE32(150000) + LE32(150000) + LE32(3) + big + "end"));
  EXPECT_EQ(CodeOf(segments.Lookup(0)), big);
  EXPECT_EQ(CodeOf(segments.Lookup(1)), "end");
  EXPECT_TRUE(PaddingIsZero(*segments.Lookup(0)));
}

TEST_F(SegmentFile, FailingWritesHaveTheFilesText) {
  ASSERT_TRUE(Read(TwoSegments));
  for (int n = 1; n <= 3; n++) {
    ASSERT_TRUE(file.Create("w", nullptr, 0));
    manager.fail_write = n;
    EXPECT_FALSE(segments.Write(&file));
    EXPECT_STREQ(segments.error().data, "Injected failure");
  }
}

TEST_F(SegmentFile, ACloneHasSegmentsOfItsOwn) {
  ASSERT_TRUE(Read(TwoSegments));
  SegmentManager clone(segments);
  EXPECT_EQ(clone.Segments(), 2);
  EXPECT_EQ(clone.start(), 1);
  EXPECT_EQ(CodeOf(clone.Lookup(0)), "abc");
  EXPECT_NE(clone.Lookup(0), segments.Lookup(0));
  EXPECT_EQ(clone.Segment_Add()->number(), 2);
  EXPECT_EQ(segments.Segments(), 2);
}

TEST_F(SegmentFile, TheStartCanBeSetToASegmentOnly) {
  segments.Segment_Add();
  segments.SetStart(1);
  EXPECT_EQ(segments.Start()->number(), 1);
  segments.SetStart(2);
  segments.SetStart(-1);
  EXPECT_EQ(segments.Start()->number(), 1);
}

}  // namespace
