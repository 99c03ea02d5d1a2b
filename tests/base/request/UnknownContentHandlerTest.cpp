// Bodies of a type that has no parser.

#include <gtest/gtest.h>

#include <climits>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "tests/support/FormBodies.h"

namespace {

std::string Kept(const Blocks& blocks, int declared) {
  Dictionary dictionary;
  SystemVariableHash table(&dictionary, 12, 512);
  UnknownContentHandler handler(&table, declared);
  const std::string error = Feed(handler, blocks);
  return error.empty() ? Contents(table) : error;
}

TEST(UnknownContentHandler, KeepsTheBodyAsASystemVariable) {
  const std::string body("{\"a\":\0 [1, 2]}\r\n%41&b=1", 24);
  ExpectInAllCuts(body, "content_data=" + body + ";", [&](const Blocks& blocks) {
    return Kept(blocks, static_cast<int>(body.size()));
  });
}

TEST(UnknownContentHandler, ABodyThatNeverComesIsEmpty) {
  EXPECT_EQ(Kept({}, 100), "content_data=;");
  EXPECT_EQ(Kept({"ab"}, 100), "content_data=ab;");
}

TEST(UnknownContentHandler, MoreThanWasDeclaredIsKeptToo) {
  for (int declared : {0, 1, 2, 3, -5}) {
    SCOPED_TRACE(declared);
    EXPECT_EQ(Kept({"abc", "defgh", std::string_view("ij")}, declared), "content_data=abcdefghij;");
  }
}

TEST(UnknownContentHandler, GrowsToAnyLength) {
  std::string body;
  for (int i = 0; i < 300000; i++) body += static_cast<char>('a' + i % 23);
  Blocks blocks;
  for (size_t i = 0; i < body.size(); i += 8192) {
    blocks.push_back(std::string_view(body).substr(i, 8192));
  }
  for (int declared : {300000, 299999, 10, INT_MAX}) {
    SCOPED_TRACE(declared);
    EXPECT_EQ(Kept(blocks, declared) == "content_data=" + body + ";", true);
  }
}

// Memory follows the bytes that arrive: an address sanitizer would refuse two gigabytes.
TEST(UnknownContentHandler, ALengthOfTwoGigabytesAllocatesNothingInAdvance) {
  Dictionary dictionary;
  SystemVariableHash table(&dictionary, 12, 512);
  struct Handler : UnknownContentHandler {
    using UnknownContentHandler::capacity;
    using UnknownContentHandler::UnknownContentHandler;
  };
  Handler handler(&table, INT_MAX);
  EXPECT_LE(handler.capacity, 65536);
  ASSERT_TRUE(handler.Parse("abc", 3));
  EXPECT_LE(handler.capacity, 65536);
}

TEST(UnknownContentHandler, WithoutMemoryItSaysSo) {
  Dictionary dictionary;
  SystemVariableHash table(&dictionary, 12, 512);
  struct Handler : UnknownContentHandler {
    Handler(VariableHash* system) : UnknownContentHandler(system, 10) {
      delete[] buffer;
      buffer = nullptr;
    }
  };
  Handler handler(&table);
  EXPECT_EQ(Feed(handler, {"abc"}), "failed: Out of memory");
}

// The second block is refused by its length, before any of its bytes is read.
TEST(UnknownContentHandler, MoreThanTheLargestLengthIsTooMuch) {
  Dictionary dictionary;
  SystemVariableHash table(&dictionary, 12, 512);
  UnknownContentHandler handler(&table, 10);
  ASSERT_TRUE(handler.Parse("abc", 3));
  EXPECT_FALSE(handler.Parse("d", INT_MAX - 3));
  EXPECT_EQ(TextOf(handler.error()), "Out of memory");
  ASSERT_TRUE(handler.Parse("d", 1));
  ASSERT_TRUE(handler.Finalize());
  EXPECT_EQ(Contents(table), "content_data=abcd;");
}

TEST(UnknownContentHandler, TheVariableIgnoresWrites) {
  Dictionary dictionary;
  SystemVariableHash table(&dictionary, 12, 512);
  UnknownContentHandler handler(&table, 3);
  ASSERT_EQ(Feed(handler, {"abc"}), "");
  table.SetVariable_Fancy("content_data", 12, "other", 5, 0);
  EXPECT_EQ(Contents(table), "content_data=abc;");
}

}  // namespace
