#include "api/zeph.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/api/ProgramFixture.h"

namespace {

class zpLinkBuffer : public testing::Test {
 protected:
  zpLinkBuffer() : buffer(zpLinkBuffer_Allocate(4, 4)) {}
  ~zpLinkBuffer() override { zpLinkBuffer_Free(buffer); }

  std::string Content() {
    int length = -1, allocated = -1;
    const char* text = zpLinkBuffer_Data(buffer, &length, &allocated);
    EXPECT_EQ(text[length], '\0');
    EXPECT_GT(allocated, length);
    EXPECT_EQ(zpLinkBuffer_Data(buffer, nullptr, nullptr), text);
    return std::string(text, static_cast<size_t>(length));
  }

  ZPLINKBUFFER buffer;
};

TEST_F(zpLinkBuffer, AppendsEachForm) {
  zpLinkBuffer_Concat_String(buffer, "text and more", 4);
  zpLinkBuffer_Concat_Char(buffer, '|');
  zpLinkBuffer_Concat_HexChar(buffer, 0xA5);
  zpLinkBuffer_Concat_Char(buffer, '|');
  zpLinkBuffer_Concat_Int(buffer, -12);
  zpLinkBuffer_Concat_Char(buffer, '|');
  zpLinkBuffer_Concat_Double(buffer, 0.5);
  auto* owned = static_cast<char*>(zpProgram_Allocate(nullptr, 16));
  memcpy(owned, "|owned|", 7);
  zpLinkBuffer_Concat_String_Nocopy(buffer, owned, 7, 16);
  ZPVARIABLE variable = zpVariable_Allocate("x", -1, "variable", -1);
  zpLinkBuffer_Concat_Variable(buffer, variable);
  zpVariable_Free(variable);
  EXPECT_EQ(Content(), "text|A5|-12|0.5|owned|variable");
}

TEST_F(zpLinkBuffer, HandsTheTextOverTerminated) {
  zpLinkBuffer_Concat_String(buffer, "a text of some length", 21);
  int length, allocated;
  char* text = zpLinkBuffer_Release(buffer, &length, &allocated, 5);
  EXPECT_STREQ(text, "a text of some length");
  EXPECT_EQ(length, 21);
  EXPECT_GE(allocated, 26);
  zpProgram_Free(nullptr, text);
  EXPECT_EQ(Content(), "");
  text = zpLinkBuffer_Release(buffer, nullptr, nullptr, 1);
  EXPECT_STREQ(text, "");
  zpProgram_Free(nullptr, text);
}

// Without room for more, no NUL follows the text.
TEST_F(zpLinkBuffer, HandsTheTextOverWithoutRoom) {
  zpLinkBuffer_Concat_String(buffer, "abc", 3);
  for (int extra : {0, -1, -1000}) {
    int length = -1;
    char* text = zpLinkBuffer_Release(buffer, &length, nullptr, extra);
    EXPECT_EQ(length, extra == 0 ? 3 : 0);
    zpProgram_Free(nullptr, text);
  }
}

TEST_F(zpLinkBuffer, NegativeLengthsAppendNothing) {
  zpLinkBuffer_Concat_String(buffer, "abc", -1);
  zpLinkBuffer_Concat_String(buffer, nullptr, 0);
  EXPECT_EQ(Content(), "");
}

TEST(zpLinkBufferSizes, AreAtLeastOne) {
  for (int size : {1, 0, -1}) {
    ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(size, size);
    zpLinkBuffer_Concat_String(buffer, "some text", 9);
    zpLinkBuffer_Concat_String(buffer, "some more", 9);
    int length;
    EXPECT_STREQ(zpLinkBuffer_Data(buffer, &length, nullptr), "some textsome more");
    zpLinkBuffer_Free(buffer);
  }
  zpLinkBuffer_Free(nullptr);
}

TEST_F(zpLinkBuffer, AnAdoptedTextThatIsNullIsReleasedAsAnEmptyOne) {
  ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(8, 8);
  zpLinkBuffer_Concat_String_Nocopy(buffer, nullptr, 0, 0);
  int length = -1, allocated = -1;
  char* const text = zpLinkBuffer_Release(buffer, &length, &allocated, 0);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(allocated, 1);
  zpProgram_Free(nullptr, text);
  zpLinkBuffer_Free(buffer);
}

}  // namespace
