#include "base/compiled/LocalizedDictionary.h"

#include <gtest/gtest.h>

#include <climits>

#include "base/compiled/TaggedFile.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FaultyFile.h"

using namespace CompiledFileBytes;

namespace {

const std::string ThreePieces = LE32(3) + LE32(1) + LE32(7) + LE32(1) +  //
                                LE32(0) + LE32(-1) + LE32(2) +           //
                                LE32(-5) + LE32(1000000) + LE32(-1);

class LocalizedPieces : public testing::Test {
 protected:
  bool Read(const std::string& section) {
    manager.files["s"] = Container({{"locd", section}});
    EXPECT_TRUE(file.Open("s", FileMode_Read));
    return pieces.Read(&file);
  }

  FaultyFileManager manager;
  TaggedFile file{&manager};
  LocalizedDictionary pieces;
};

TEST_F(LocalizedPieces, AreNumberedAsTheyAreAdded) {
  for (int i = 0; i < 300; i++) ASSERT_EQ(pieces.Entry_Add(i % 2, i * 3, i + 1), i);
  for (int i = 0; i < 300; i++) {
    ASSERT_NE(pieces.Entry(i), nullptr);
    EXPECT_EQ(pieces.Entry(i)->literal, i % 2);
    EXPECT_EQ(pieces.Entry(i)->text, i * 3);
    EXPECT_EQ(pieces.Entry(i)->next, i + 1);
  }
}

TEST_F(LocalizedPieces, IndexesOutOfRangeGiveNull) {
  EXPECT_EQ(pieces.Entry(0), nullptr);
  pieces.Entry_Add(1, 0, -1);
  for (int index : {-1, 1, INT_MIN, INT_MAX}) EXPECT_EQ(pieces.Entry(index), nullptr);
}

TEST_F(LocalizedPieces, ReadsWhatTheFormatSays) {
  ASSERT_TRUE(Read(ThreePieces));
  ASSERT_EQ(pieces.Entries(), 3);
  EXPECT_EQ(pieces.Entry(0)->literal, 1);
  EXPECT_EQ(pieces.Entry(0)->text, 7);
  EXPECT_EQ(pieces.Entry(0)->next, 1);
  EXPECT_EQ(pieces.Entry(1)->literal, 0);
  EXPECT_EQ(pieces.Entry(1)->text, -1);
  EXPECT_EQ(pieces.Entry(2)->literal, -5);
  EXPECT_EQ(pieces.Entry(2)->next, -1);
  EXPECT_EQ(pieces.Entry_Add(0, 0, 0), 3) << "further pieces come after";
}

TEST_F(LocalizedPieces, WritesWhatItRead) {
  ASSERT_TRUE(Read(ThreePieces));
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  ASSERT_TRUE(pieces.Write(&file));
  ASSERT_TRUE(file.Section_Flush());
  EXPECT_EQ(manager.files["w"], Container({{"locd", ThreePieces}}));
}

TEST_F(LocalizedPieces, ReadingForgetsTheSection) {
  ASSERT_TRUE(Read(ThreePieces));
  EXPECT_FALSE(file.Section_Read_Start(MakeTag("none"), nullptr));
}

TEST_F(LocalizedPieces, ASectionCutAnywhereFailsAndChangesNothing) {
  for (size_t length = 0; length < ThreePieces.size(); length++) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(Read(ThreePieces.substr(0, length)));
    EXPECT_EQ(pieces.Entries(), 0);
  }
  EXPECT_TRUE(Read(LE32(0)));
}

TEST_F(LocalizedPieces, CountsAtTheirExtremesFail) {
  for (long count :
       {-1L, 4L, static_cast<long>(INT_MAX), static_cast<long>(INT_MIN), 0x15555558L}) {
    SCOPED_TRACE(count);
    std::string section = ThreePieces;
    Patch(&section, 0, LE32(count));
    EXPECT_FALSE(Read(section));
  }
}

TEST_F(LocalizedPieces, AMissingSectionHasTheFilesText) {
  manager.files["s"] = Container({});
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  EXPECT_FALSE(pieces.Read(&file));
  EXPECT_STREQ(pieces.error().data, "Invalid section");
}

TEST_F(LocalizedPieces, AFailingWriteHasTheFilesText) {
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  manager.fail_write = 1;
  EXPECT_FALSE(pieces.Write(&file));
  EXPECT_STREQ(pieces.error().data, "Injected failure");
}

TEST_F(LocalizedPieces, ACopyIsIndependent) {
  pieces.Entry_Add(1, 2, 3);
  LocalizedDictionary copy(pieces);
  pieces.Entry(0)->text = 9;
  pieces.Entry_Add(0, 0, 0);
  EXPECT_EQ(copy.Entries(), 1);
  EXPECT_EQ(copy.Entry(0)->text, 2);
  LocalizedDictionary empty;
  EXPECT_EQ(LocalizedDictionary(empty).Entries(), 0);
}

}  // namespace
