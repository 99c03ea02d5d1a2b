#include <climits>
#include <string>

#include "base/core/LinkBuffer.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "gtest/gtest.h"

namespace {

std::string Text(LinkBuffer& buffer) {
  int length;
  char* data = buffer.data(&length, nullptr);
  return std::string(data, length);
}

TEST(LinkBufferValues, IntegersAreDecimalText) {
  LinkBuffer buffer(8, 8);
  for (int value : {0, -7, INT_MAX, INT_MIN}) {
    buffer.cat(value);
    buffer.cat(" ", 1);
  }
  EXPECT_EQ(Text(buffer), "0 -7 2147483647 -2147483648 ");
}

TEST(LinkBufferValues, DoublesAreTheShortestText) {
  LinkBuffer buffer(8, 8);
  for (double value : {3.5, 3.0, 0.1, -0.05}) {
    buffer.cat(value);
    buffer.cat(" ", 1);
  }
  EXPECT_EQ(Text(buffer), "3.5 3 0.1 -0.05 ");
}

TEST(LinkBufferValues, NumbersComeAsBlocksOfTheirOwn) {
  LinkBuffer buffer(8, 8);
  buffer.cat("x", 1);
  buffer.cat(12);
  buffer.prepend(3.5);
  EXPECT_EQ(buffer.head->used, 3);
  EXPECT_EQ(buffer.head->next->used, 1);
  EXPECT_EQ(buffer.tail->used, 2);
  EXPECT_EQ(buffer.tail->allocated, 3);
  EXPECT_EQ(buffer.total, 6);
}

TEST(LinkBufferValues, PrependPutsNumbersInFront) {
  LinkBuffer buffer(8, 8);
  buffer.prepend(7);
  buffer.prepend(0.5);
  buffer.prepend(-1);
  EXPECT_EQ(Text(buffer), "-10.57");
}

TEST(LinkBufferValues, VariablesGiveTheirText) {
  VariableRef text(new Variable("name", -1, "a\0b", 3));
  VariableRef number(new Variable());
  number->SetValue_Integer(42);
  LinkBuffer buffer(8, 8);
  buffer.cat(text.get());
  buffer.cat(number.get());
  buffer.prepend(number.get());
  EXPECT_EQ(Text(buffer), std::string("42a\0b42", 7));
  EXPECT_EQ(std::string(text->value().data, 3), std::string("a\0b", 3));
}

TEST(LinkBufferValues, NULLVariableAddsNothing) {
  VariableRef null(new Variable());
  LinkBuffer buffer(8, 8);
  buffer.cat(null.get());
  buffer.prepend(null.get());
  EXPECT_EQ(buffer.total, 0);
  EXPECT_EQ(Text(buffer), "");
}

}  // namespace
