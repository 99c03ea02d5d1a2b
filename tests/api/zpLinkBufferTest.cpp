#include "api/zpLinkBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "api/zpProgram.h"
#include "api/zpVariable.h"
#include "tests/api/ProgramFixture.h"

namespace {

class zpLinkBuffer : public testing::Test {
 protected:
  zpLinkBuffer() : buffer(zpLinkBuffer_Allocate(4, 4)) {}
  ~zpLinkBuffer() override { zpLinkBuffer_Free(buffer); }

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
  char* owned = zpProgram_Allocate(nullptr, 16);
  memcpy(owned, "|owned|", 7);
  zpLinkBuffer_Concat_String_Nocopy(buffer, owned, 7, 16);
  ZPVARIABLE variable = zpVariable_Allocate("x", -1, "variable", -1);
  zpLinkBuffer_Concat_Variable(buffer, variable);
  zpVariable_Free(variable);
  EXPECT_EQ(TextOf(zpLinkBuffer_Data, buffer), "text|A5|-12|0.5|owned|variable");
}

TEST_F(zpLinkBuffer, HandsTheTextOverTerminated) {
  zpLinkBuffer_Concat_String(buffer, "a text of some length", 21);
  int length, allocated;
  char* text = zpLinkBuffer_Release(buffer, &length, &allocated);
  EXPECT_STREQ(text, "a text of some length");
  EXPECT_EQ(length, 21);
  EXPECT_GE(allocated, 22);
  zpProgram_Free(nullptr, text);
  EXPECT_EQ(TextOf(zpLinkBuffer_Data, buffer), "");
  text = zpLinkBuffer_Release(buffer, nullptr, nullptr);
  EXPECT_STREQ(text, "");
  zpProgram_Free(nullptr, text);
}

}  // namespace
