#include "base/compiled/Dictionary.h"

#include <gtest/gtest.h>

#include <climits>

#include "base/compiled/TaggedFile.h"
#include "base/core/Limits.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FaultyFile.h"

using namespace CompiledFileBytes;

namespace {

std::string TextOf(const Dictionary& dictionary, int id) {
  int length = -7;
  const char* text = dictionary.Entry(id, &length);
  return text ? std::string(text, static_cast<size_t>(length)) : "(none)";
}

int Add(Dictionary* dictionary, const std::string& text) {
  return dictionary->Entry_Add(text.data(), static_cast<int>(text.size()));
}

class DictionaryFile : public testing::Test {
 protected:
  bool Read(const std::string& section) {
    manager.files["s"] = Container({{"dict", section}});
    EXPECT_TRUE(file.Open("s", FileMode_Read));
    return dictionary.Read(&file);
  }
  // A section with one entry that covers the data.
  static std::string One(long offset, long length, const std::string& data) {
    return LE32(1) + LE32(static_cast<long>(data.size())) + LE32(0) + LE32(offset) + LE32(length) +
           data;
  }
  std::string Written() {
    EXPECT_TRUE(file.Create("w", nullptr, 0));
    EXPECT_TRUE(dictionary.Write(&file));
    EXPECT_TRUE(file.Section_Flush());
    return manager.files["w"];
  }

  FaultyFileManager manager;
  TaggedFile file{&manager};
  Dictionary dictionary;
};

// --- Blocks --------------------------------------------------------------------------------------

TEST(DictionaryDataBlock, FindsATextAnywhere) {
  const struct {
    const char* text;
    int offset;
  } cases[] = {
      {"abcabd", 0}, {"abd", 3}, {"a", 0}, {"d", 5}, {"bc", 1}, {"cab", 2}, {"", 0}, {"abcab", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    DictionaryDataBlock block(6);
    ASSERT_EQ(block.Add("abcabd", 6), 0);
    EXPECT_EQ(block.Add(c.text, static_cast<int>(strlen(c.text))), c.offset);
    EXPECT_EQ(block.length, 6);
  }
}

TEST(DictionaryDataBlock, ATextThatIsNotThereIsAppendedWhileThereIsRoom) {
  DictionaryDataBlock block(5);
  EXPECT_EQ(block.Add("abc", 3), 0);
  EXPECT_EQ(block.Add("xyz", 3), -1);
  EXPECT_EQ(block.Add("xy", 2), 3);
  EXPECT_EQ(block.Add("x", 1), 3);
  EXPECT_EQ(block.Add("z", 1), -1);
  EXPECT_EQ(block.length, 5);
}

TEST(DictionaryDataBlock, AgreesWithAPlainSearch) {
  std::string bytes;
  unsigned state = 1;
  auto next = [&state] { return (state = state * 1103515245 + 12345) >> 16; };
  for (int i = 0; i < 600; i++) bytes.push_back(static_cast<char>('a' + next() % 3));
  DictionaryDataBlock block(1000);
  ASSERT_EQ(block.Add(bytes.data(), 600), 0);
  for (int round = 0; round < 3000; round++) {
    std::string text;
    for (unsigned n = next() % 9; n > 0; n--) text.push_back(static_cast<char>('a' + next() % 3));
    size_t expected = bytes.find(text);
    if (expected == std::string::npos) continue;
    ASSERT_EQ(block.Add(text.data(), static_cast<int>(text.size())), static_cast<int>(expected));
  }
}

TEST(DictionaryDataBlock, SearchesBytesOfAllValues) {
  DictionaryDataBlock block(512);
  std::string bytes;
  for (int i = 0; i < 256; i++) bytes.push_back(static_cast<char>(i));
  ASSERT_EQ(block.Add(bytes.data(), 256), 0);
  EXPECT_EQ(block.Add("\xFE\xFF", 2), 254);
  EXPECT_EQ(block.Add("\0\1", 2), 0);
}

// --- Entries -------------------------------------------------------------------------------------

TEST(Dictionary, IdsOutOfRangeGiveNullAndLeaveTheLengthAlone) {
  Dictionary dictionary;
  int length = 42;
  EXPECT_EQ(dictionary.Entry(0, &length), nullptr);
  Add(&dictionary, "text");
  for (int id : {-1, 1, INT_MIN, INT_MAX}) {
    EXPECT_EQ(dictionary.Entry(id, &length), nullptr);
    EXPECT_EQ(length, 42);
  }
  EXPECT_NE(dictionary.Entry(0, nullptr), nullptr);
}

TEST(Dictionary, TheSameTextTwiceGetsTwoIdsOverTheSameBytes) {
  Dictionary dictionary;
  EXPECT_EQ(Add(&dictionary, "same"), 0);
  EXPECT_EQ(Add(&dictionary, "same"), 1);
  EXPECT_EQ(dictionary.Entry(0, nullptr), dictionary.Entry(1, nullptr));
}

TEST(Dictionary, ATextInsideAnotherSharesItsBytes) {
  Dictionary dictionary;
  EXPECT_EQ(Add(&dictionary, "abc"), 0);
  EXPECT_EQ(Add(&dictionary, "bc"), 1);
  EXPECT_EQ(dictionary.Entry(1, nullptr), dictionary.Entry(0, nullptr) + 1);
  EXPECT_EQ(TextOf(dictionary, 1), "bc");
}

TEST(Dictionary, LengthMinusOneMeasures) {
  Dictionary dictionary;
  dictionary.Entry_Add("measured", -1);
  EXPECT_EQ(TextOf(dictionary, 0), "measured");
  dictionary.Entry_Add(nullptr, -1);
  dictionary.Entry_Add("x", -5);
  EXPECT_EQ(TextOf(dictionary, 1), "");
  EXPECT_EQ(TextOf(dictionary, 2), "");
}

TEST(Dictionary, GrowsPastItsFirstArray) {
  Dictionary dictionary;
  for (int i = 0; i < 1000; i++) ASSERT_EQ(Add(&dictionary, "text " + std::to_string(i)), i);
  for (int i = 0; i < 1000; i++) ASSERT_EQ(TextOf(dictionary, i), "text " + std::to_string(i));
  EXPECT_EQ(dictionary.Entries(), 1000);
}

TEST_F(DictionaryFile, AnEmptyTextOnANewDictionaryMakesABlock) {
  EXPECT_EQ(dictionary.Entry_Add("", 0), 0);
  int length = -1;
  EXPECT_NE(dictionary.Entry(0, &length), nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(Written(), Container({{"dict", One(0, 0, "")}}));
}

TEST(Dictionary, AFullBlockIsFollowedByAnother) {
  Dictionary dictionary;
  std::string first(8190, 'a');
  Add(&dictionary, first);
  const char* start = dictionary.Entry(0, nullptr);
  Add(&dictionary, "bc");
  EXPECT_EQ(dictionary.Entry(1, nullptr), start + 8190) << "the last two bytes of the block";
  Add(&dictionary, "d");
  EXPECT_EQ(TextOf(dictionary, 2), "d");
  Add(&dictionary, "a");
  EXPECT_NE(dictionary.Entry(3, nullptr), start) << "only the current block is searched";
}

TEST(Dictionary, ATextOfTheSizeOfABlockGetsABlockOfTwiceThat) {
  constexpr size_t block = kDictionaryBlock;
  Dictionary dictionary;
  Add(&dictionary, std::string(block, 'a'));
  const char* start = dictionary.Entry(0, nullptr);
  Add(&dictionary, std::string(block, 'b'));
  EXPECT_EQ(dictionary.Entry(1, nullptr), start + block);
  Add(&dictionary, "c");
  EXPECT_NE(dictionary.Entry(2, nullptr), start + 2 * block);
}

// --- The section ---------------------------------------------------------------------------------

TEST_F(DictionaryFile, ReadsWhatTheFormatSays) {
  Texts texts;
  texts.Add("first");
  texts.Add("");
  texts.Add(std::string("with\0NUL", 8));
  ASSERT_TRUE(Read(texts.Section(0x40000001)));
  EXPECT_EQ(dictionary.Entries(), 3);
  EXPECT_EQ(TextOf(dictionary, 0), "first");
  EXPECT_EQ(TextOf(dictionary, 1), "");
  EXPECT_EQ(TextOf(dictionary, 2), std::string("with\0NUL", 8));
  EXPECT_EQ(TextOf(dictionary, 3), "(none)");
  EXPECT_EQ(dictionary.flags(), 0x40000001);
}

TEST_F(DictionaryFile, WritesWhatItRead) {
  Texts texts;
  for (int i = 0; i < 300; i++) texts.Add("entry " + std::to_string(i * 7));
  std::string section = texts.Section(static_cast<int>(0xDEADBEEF));
  ASSERT_TRUE(Read(section));
  EXPECT_EQ(Written(), Container({{"dict", section}}));
}

TEST_F(DictionaryFile, WritesSeveralBlocksAsOneArea) {
  std::string a(8190, 'a');
  std::string b(8190, 'b');
  Add(&dictionary, a);
  Add(&dictionary, b);
  Add(&dictionary, "b");
  dictionary.SetFlags(2);
  std::string section = LE32(3) + LE32(16380) + LE32(2) + LE32(0) + LE32(8190) + LE32(8190) +
                        LE32(8190) + LE32(8190) + LE32(1) + a + b;
  EXPECT_EQ(Written(), Container({{"dict", section}}));
}

TEST_F(DictionaryFile, EntriesAreBentUntilTheyLieInTheData) {
  const struct {
    const char* label;
    long offset;
    long length;
    const char* expected;
  } cases[] = {
      {"within", 1, 2, "bc"},
      {"up to the end", 2, 2, "cd"},
      {"offset at the end", 4, 3, "d"},
      {"offset at the end, no length", 4, 0, ""},
      {"offset far after the end", 1000, 1000, "d"},
      {"highest offset", INT_MAX, INT_MAX, "d"},
      {"negative offset", -1, 2, "ab"},
      {"lowest offset", INT_MIN, 2, "ab"},
      {"too long", 1, 4, "bcd"},
      {"much too long", 1, INT_MAX, "bcd"},
      {"negative length", 1, -1, ""},
      {"lowest length", 3, INT_MIN, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ASSERT_TRUE(Read(One(c.offset, c.length, "abcd")));
    EXPECT_EQ(TextOf(dictionary, 0), c.expected);
  }
}

TEST_F(DictionaryFile, EntriesOverNoDataAreEmptyTextsAtTheStart) {
  for (long offset : {0L, 5L, -5L}) {
    for (long length : {0L, 5L, -5L}) {
      ASSERT_TRUE(Read(One(offset, length, "")));
      EXPECT_EQ(TextOf(dictionary, 0), "");
      Add(&dictionary, "x");
      EXPECT_EQ(dictionary.Entry(0, nullptr), dictionary.Entry(1, nullptr));
    }
  }
}

TEST_F(DictionaryFile, ASectionWithoutEntriesReadsAndHasRoom) {
  ASSERT_TRUE(Read(LE32(0) + LE32(0) + LE32(0)));
  EXPECT_EQ(dictionary.Entries(), 0);
  // The empty block has room for 8192 bytes and no more.
  std::string a(8191, 'a');
  EXPECT_EQ(Add(&dictionary, a), 0);
  EXPECT_EQ(Add(&dictionary, "b"), 1);
  EXPECT_EQ(dictionary.Entry(1, nullptr), dictionary.Entry(0, nullptr) + 8191);
  EXPECT_EQ(Add(&dictionary, "c"), 2);
  EXPECT_NE(dictionary.Entry(2, nullptr), dictionary.Entry(0, nullptr) + 8192);
}

TEST_F(DictionaryFile, TextsAddedAfterAReadGoIntoItsBlock) {
  ASSERT_TRUE(Read(One(0, 4, "abcd")));
  EXPECT_EQ(Add(&dictionary, "xyz"), 1);
  EXPECT_EQ(dictionary.Entry(1, nullptr), dictionary.Entry(0, nullptr) + 4);
  EXPECT_EQ(Add(&dictionary, "bcdx"), 2);
  EXPECT_EQ(dictionary.Entry(2, nullptr), dictionary.Entry(0, nullptr) + 1);
}

TEST_F(DictionaryFile, ReadingLeavesItsSectionSelected) {
  ASSERT_TRUE(Read(One(0, 4, "abcd")));
  int length = 0;
  EXPECT_TRUE(file.Section_Read_Start(MakeTag("none"), &length));
  EXPECT_EQ(length, 24);
}

TEST_F(DictionaryFile, ASectionCutAnywhereFailsAndLeavesNothing) {
  std::string section = One(0, 4, "abcd");
  for (size_t length = 0; length < section.size(); length++) {
    SCOPED_TRACE(length);
    Add(&dictionary, "old");
    EXPECT_FALSE(Read(section.substr(0, length)));
    EXPECT_EQ(dictionary.Entries(), 0);
    EXPECT_EQ(TextOf(dictionary, 0), "(none)");
  }
  EXPECT_TRUE(Read(section));
}

TEST_F(DictionaryFile, CountsAndLengthsAtTheirExtremesFail) {
  for (long value :
       {2L, 1000L, static_cast<long>(INT_MAX), -1L, static_cast<long>(INT_MIN), 0x20000001L}) {
    SCOPED_TRACE(value);
    std::string section = One(0, 4, "abcd");
    Patch(&section, 0, LE32(value));
    EXPECT_FALSE(Read(section));
    section = One(0, 4, "abcd");
    Patch(&section, 4, LE32(value < 0 ? value : value + 4));
    EXPECT_FALSE(Read(section));
    EXPECT_EQ(dictionary.Entries(), 0);
  }
}

TEST_F(DictionaryFile, AMissingSectionHasTheFilesText) {
  manager.files["s"] = Container({{"segs", ""}});
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  EXPECT_FALSE(dictionary.Read(&file));
  EXPECT_STREQ(dictionary.error().data, "Invalid section");
}

TEST_F(DictionaryFile, FailingWritesHaveTheFilesText) {
  Add(&dictionary, "text");
  for (int n = 1; n <= 2; n++) {
    ASSERT_TRUE(file.Create("w", nullptr, 0));
    manager.fail_write = n;
    EXPECT_FALSE(dictionary.Write(&file));
    EXPECT_STREQ(dictionary.error().data, "Injected failure");
  }
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  manager.write_room = 21;
  EXPECT_FALSE(dictionary.Write(&file)) << "a short write";
}

// --- Compress and copy ---------------------------------------------------------------------------

TEST_F(DictionaryFile, CompressLeavesOneBlockWithEveryText) {
  std::string a(8190, 'a');
  Add(&dictionary, a);
  Add(&dictionary, "second");
  Add(&dictionary, "aa");
  Add(&dictionary, "con");
  dictionary.Compress();
  EXPECT_EQ(TextOf(dictionary, 0), a);
  EXPECT_EQ(TextOf(dictionary, 1), "second");
  EXPECT_EQ(TextOf(dictionary, 2), "aa");
  EXPECT_EQ(TextOf(dictionary, 3), "con");
  std::string section = LE32(4) + LE32(8196) + LE32(0) + LE32(0) + LE32(8190) + LE32(8190) +
                        LE32(6) + LE32(0) + LE32(2) + LE32(8192) + LE32(3) + a + "second";
  EXPECT_EQ(Written(), Container({{"dict", section}}));
}

TEST_F(DictionaryFile, CompressMakesRoomForTextsThatOverlapped) {
  // "ab" and "bc" need four bytes in sequence; the file had three.
  ASSERT_TRUE(Read(LE32(2) + LE32(3) + LE32(0) + LE32(0) + LE32(2) + LE32(1) + LE32(2) + "abc"));
  dictionary.Compress();
  EXPECT_EQ(TextOf(dictionary, 0), "ab");
  EXPECT_EQ(TextOf(dictionary, 1), "bc");
}

TEST(Dictionary, CompressOfNothingIsUsable) {
  Dictionary dictionary;
  dictionary.Compress();
  EXPECT_EQ(Add(&dictionary, "x"), 0);
  EXPECT_EQ(TextOf(dictionary, 0), "x");
}

TEST(Dictionary, ACopyHasTheSameIdsOverItsOwnBytes) {
  Dictionary dictionary;
  dictionary.SetFlags(9);
  Add(&dictionary, std::string(8190, 'a'));
  Add(&dictionary, "second block");
  Add(&dictionary, "block");
  Dictionary copy(dictionary);
  EXPECT_EQ(copy.flags(), 9);
  ASSERT_EQ(copy.Entries(), 3);
  for (int id = 0; id < 3; id++) {
    EXPECT_EQ(TextOf(copy, id), TextOf(dictionary, id));
    EXPECT_NE(copy.Entry(id, nullptr), dictionary.Entry(id, nullptr));
  }
  EXPECT_EQ(copy.Entry(2, nullptr), copy.Entry(1, nullptr) + 7) << "each block is copied once";
  Add(&copy, "second");
  EXPECT_EQ(copy.Entry(3, nullptr), copy.Entry(1, nullptr)) << "the current block stays current";
  EXPECT_EQ(dictionary.Entries(), 3);
}

TEST(Dictionary, ACopyOfAnEmptyDictionaryIsEmpty) {
  Dictionary dictionary;
  Dictionary copy(dictionary);
  EXPECT_EQ(copy.Entries(), 0);
  EXPECT_EQ(Add(&copy, "x"), 0);
}

TEST(Dictionary, ANullErrorKeepsTheOlderText) {
  Dictionary dictionary;
  dictionary.Error("first");
  dictionary.Error(String());
  EXPECT_STREQ(dictionary.error().data, "first");
}

}  // namespace
