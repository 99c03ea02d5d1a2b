#include "base/core/LinkBuffer.h"

#include <climits>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "base/core/Output.h"
#include "gtest/gtest.h"

namespace {

std::string Text(LinkBuffer& buffer) {
  int length;
  char* data = buffer.data(&length, nullptr);
  EXPECT_EQ(data[length], 0);
  return std::string(data, length);
}

// The chain's blocks as text, each in brackets. Also checks the links and the total.
std::string Blocks(const LinkBuffer& buffer) {
  std::string shape;
  int total = 0;
  const LinkBuffer_Block* previous = nullptr;
  for (const LinkBuffer_Block* block = buffer.head; block; block = block->next) {
    EXPECT_EQ(block->previous, previous);
    EXPECT_LE(block->used, block->allocated);
    if (block->used > 0) {
      shape += '[' + std::string(block->data, block->used) + ']';
    } else {
      shape += "[]";
    }
    total += block->used;
    previous = block;
  }
  EXPECT_EQ(buffer.tail, previous);
  EXPECT_EQ(buffer.total, total);
  return shape;
}

char* Copy(const std::string& text, int size) {
  char* buffer = new char[size];
  text.copy(buffer, text.size());
  return buffer;
}

void CatNocopy(LinkBuffer& buffer, const std::string& text, int spare = 0) {
  int length = static_cast<int>(text.size());
  buffer.cat_nocopy(Copy(text, length + spare), length, length + spare);
}

void PrependNocopy(LinkBuffer& buffer, const std::string& text) {
  int length = static_cast<int>(text.size());
  buffer.prepend_nocopy(Copy(text, length), length, length);
}

class NotingOutput : public Output {
 public:
  int Write(const char* text, int length) override {
    writes.push_back(std::string(text, length));
    return length;
  }
  int Flush() override { return 0; }
  int type() override { return Buffered; }

  std::vector<std::string> writes;
};

TEST(LinkBuffer, ConstructorAllocatesNothing) {
  LinkBuffer buffer(512, 4096);
  EXPECT_EQ(buffer.head, nullptr);
  EXPECT_EQ(buffer.tail, nullptr);
  EXPECT_EQ(buffer.total, 0);
  EXPECT_EQ(buffer.first_size, 512);
  EXPECT_EQ(buffer.next_size, 4096);
}

TEST(LinkBuffer, FirstBlockIsAMultipleAboveWhatItHolds) {
  const std::string text(64, 'x');
  const struct {
    int length;
    int allocated;
  } cases[] = {{0, 10}, {1, 10}, {9, 10}, {10, 20}, {19, 20}, {20, 30}, {30, 40}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    LinkBuffer buffer(10, 20);
    buffer.cat(text.data(), c.length);
    ASSERT_NE(buffer.head, nullptr);
    EXPECT_EQ(buffer.head->allocated, c.allocated);
    EXPECT_EQ(buffer.total, c.length);
  }
}

TEST(LinkBuffer, BlockIsFilledToItsLastByteBeforeTheNext) {
  LinkBuffer buffer(4, 8);
  buffer.cat("abc", 3);
  buffer.cat("d", 1);
  EXPECT_EQ(Blocks(buffer), "[abcd]");
  buffer.cat("e", 1);
  EXPECT_EQ(Blocks(buffer), "[abcd][e]");
  EXPECT_EQ(buffer.tail->allocated, 8);
  buffer.cat("fghijklmnopqrst", 15);
  EXPECT_EQ(Blocks(buffer), "[abcd][efghijkl][mnopqrst]");
  EXPECT_EQ(buffer.tail->allocated, 16);
}

TEST(LinkBuffer, NegativeLengthsCountAsZero) {
  LinkBuffer buffer(4, 8);
  buffer.cat("abc", -1);
  EXPECT_EQ(Blocks(buffer), "[]");
  buffer.cat("abc", 3);
  buffer.cat("abc", -1);
  buffer.prepend("abc", INT_MIN);
  EXPECT_EQ(Text(buffer), "abc");
}

TEST(LinkBuffer, SizesBelowOneCountAsOne) {
  LinkBuffer buffer(0, -5);
  buffer.cat("abc", 3);
  buffer.cat("defgh", 5);
  EXPECT_EQ(Blocks(buffer), "[abcd][efgh]");
}

TEST(LinkBuffer, NocopyBlockIsAdoptedAndItsRoomUsed) {
  LinkBuffer buffer(4, 8);
  buffer.cat("ab", 2);
  CatNocopy(buffer, "cd", 2);
  buffer.cat("efgh", 4);
  EXPECT_EQ(Blocks(buffer), "[ab][cdef][gh]");
}

TEST(LinkBuffer, NocopyOfNullIsAnEmptyBlock) {
  LinkBuffer buffer(4, 8);
  buffer.cat_nocopy(nullptr, 5, 5);
  EXPECT_EQ(Blocks(buffer), "[]");
  EXPECT_EQ(Text(buffer), "");
}

TEST(LinkBuffer, HexIsTwoUpperCaseDigits) {
  LinkBuffer buffer(4, 8);
  for (unsigned char c : {0x00, 0x09, 0x0A, 0x9F, 0xFF}) buffer.cat_hex(c);
  EXPECT_EQ(Text(buffer), "00090A9FFF");
}

TEST(LinkBuffer, PrependMakesABlockOfItsOwn) {
  LinkBuffer buffer(4, 8);
  buffer.prepend("c", 1);
  EXPECT_EQ(buffer.head->allocated, 4);
  buffer.prepend("b", 1);
  EXPECT_EQ(buffer.head->allocated, 8);
  buffer.prepend("12345678", 8);
  EXPECT_EQ(buffer.head->allocated, 16);
  EXPECT_EQ(Blocks(buffer), "[12345678][b][c]");
}

TEST(LinkBuffer, PrependNocopyAdoptsANewHead) {
  LinkBuffer buffer(4, 8);
  PrependNocopy(buffer, "b");
  PrependNocopy(buffer, "a");
  EXPECT_EQ(Blocks(buffer), "[a][b]");
  buffer.cat("c", 1);
  EXPECT_EQ(Text(buffer), "abc");
}

TEST(LinkBuffer, CatOfAnotherCopiesItsBlocks) {
  LinkBuffer other(2, 2);
  CatNocopy(other, "bc");
  CatNocopy(other, "");
  CatNocopy(other, "de");
  LinkBuffer buffer(3, 8);
  buffer.cat("a", 1);
  buffer.cat(&other);
  EXPECT_EQ(Blocks(buffer), "[abc][de]");
  EXPECT_EQ(Blocks(other), "[bc][][de]");
}

TEST(LinkBuffer, PrependOfAnotherKeepsItsOrder) {
  LinkBuffer other(2, 2);
  CatNocopy(other, "a");
  CatNocopy(other, "");
  CatNocopy(other, "b");
  LinkBuffer buffer(3, 8);
  buffer.cat("c", 1);
  buffer.prepend(&other);
  EXPECT_EQ(Text(buffer), "abc");
  LinkBuffer empty(3, 8);
  empty.prepend(&other);
  EXPECT_EQ(Text(empty), "ab");
}

TEST(LinkBuffer, AppendingToItselfAppendsASnapshot) {
  LinkBuffer buffer(3, 4);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "cd", 3);
  buffer.cat(&buffer);
  EXPECT_EQ(Text(buffer), "abcdabcd");
  buffer.cat(&buffer);
  EXPECT_EQ(Text(buffer), "abcdabcdabcdabcd");
}

TEST(LinkBuffer, PrependingToItselfPrependsASnapshot) {
  LinkBuffer buffer(3, 4);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "cd", 3);
  buffer.prepend(&buffer);
  EXPECT_EQ(Text(buffer), "abcdabcd");
}

TEST(LinkBuffer, EmptyWithItselfStaysEmpty) {
  LinkBuffer buffer(3, 4);
  buffer.cat(&buffer);
  buffer.prepend(&buffer);
  buffer.cat_destroy(&buffer);
  buffer.prepend_destroy(&buffer);
  EXPECT_EQ(buffer.head, nullptr);
}

TEST(LinkBuffer, DestroyFormsMoveTheBlocks) {
  LinkBuffer buffer(3, 8);
  buffer.cat("m", 1);
  auto after = new LinkBuffer(3, 8);
  CatNocopy(*after, "x");
  CatNocopy(*after, "y");
  const char* moved = after->head->data;
  buffer.cat_destroy(after);
  EXPECT_EQ(Blocks(buffer), "[m][x][y]");
  EXPECT_EQ(buffer.head->next->data, moved);
  auto before = new LinkBuffer(3, 8);
  CatNocopy(*before, "a");
  CatNocopy(*before, "b");
  buffer.prepend_destroy(before);
  EXPECT_EQ(Blocks(buffer), "[a][b][m][x][y]");
  buffer.cat("z", 1);
  EXPECT_EQ(Text(buffer), "abmxyz");
}

TEST(LinkBuffer, DestroyFormsWithAnEmptySideArePlainMoves) {
  LinkBuffer buffer(3, 8);
  buffer.cat_destroy(new LinkBuffer(1, 1));
  buffer.prepend_destroy(new LinkBuffer(1, 1));
  EXPECT_EQ(buffer.head, nullptr);
  auto other = new LinkBuffer(3, 8);
  other->cat("ab", 2);
  buffer.cat_destroy(other);
  EXPECT_EQ(Blocks(buffer), "[ab]");
  LinkBuffer target(3, 8);
  other = new LinkBuffer(3, 8);
  other->cat("cd", 2);
  target.prepend_destroy(other);
  EXPECT_EQ(Blocks(target), "[cd]");
  target.cat_destroy(new LinkBuffer(1, 1));
  target.prepend_destroy(new LinkBuffer(1, 1));
  target.cat_destroy(nullptr);
  target.prepend_destroy(nullptr);
  EXPECT_EQ(Blocks(target), "[cd]");
}

TEST(LinkBuffer, DataOfANeverUsedOneIsASharedEmptyText) {
  LinkBuffer a(1, 1);
  LinkBuffer b(1, 1);
  int length = 7;
  int allocated = 7;
  char* data = a.data(&length, &allocated);
  EXPECT_STREQ(data, "");
  EXPECT_EQ(length, 0);
  EXPECT_EQ(allocated, 1);
  EXPECT_EQ(b.data(&length, nullptr), data);
}

TEST(LinkBuffer, DataFlattensAndTerminates) {
  LinkBuffer buffer(3, 4);
  buffer.cat("abcdefg", 2);
  CatNocopy(buffer, "cdefg");
  int length;
  int allocated;
  char* data = buffer.data(&length, &allocated);
  EXPECT_STREQ(data, "abcdefg");
  EXPECT_EQ(length, 7);
  EXPECT_EQ(allocated, 8);
  EXPECT_EQ(Blocks(buffer), "[abcdefg]");
  EXPECT_EQ(buffer.data(&length, nullptr), data);
}

TEST(LinkBuffer, DataGrowsAFullSingleBlock) {
  LinkBuffer buffer(3, 4);
  CatNocopy(buffer, "abc");
  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_EQ(buffer.head->allocated, 4);
  buffer.cat("d", 1);
  EXPECT_EQ(Blocks(buffer), "[abcd]");
}

TEST(LinkBuffer, DataHasRoomForTheTerminatorWithNothingInIt) {
  LinkBuffer buffer(3, 4);
  CatNocopy(buffer, "");
  CatNocopy(buffer, "");
  EXPECT_EQ(Text(buffer), "");
}

TEST(LinkBuffer, CoalesceOfOneBlockThatFitsDoesNothing) {
  LinkBuffer buffer(10, 20);
  buffer.cat("0123456789", 10);
  const LinkBuffer_Block* block = buffer.head;
  buffer.coalesce(0);
  buffer.coalesce(10);
  buffer.coalesce(-5);
  EXPECT_EQ(buffer.head, block);
  buffer.coalesce(11);
  EXPECT_NE(buffer.head, block);
  EXPECT_EQ(buffer.head->allocated, 21);
  EXPECT_EQ(Blocks(buffer), "[0123456789]");
}

TEST(LinkBuffer, CoalesceOfNothingDoesNothing) {
  LinkBuffer buffer(10, 20);
  buffer.coalesce(5);
  EXPECT_EQ(buffer.head, nullptr);
}

TEST(LinkBuffer, CoalesceKeepsTheRoomForLaterAppends) {
  LinkBuffer buffer(2, 2);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "cd");
  buffer.coalesce(3);
  buffer.cat("efg", 3);
  EXPECT_EQ(Blocks(buffer), "[abcdefg]");
}

TEST(LinkBuffer, ReleaseHandsTheOnlyBufferOver) {
  LinkBuffer buffer(8, 8);
  buffer.cat("abc", 3);
  const char* before = buffer.head->data;
  int length;
  int allocated;
  char* data = buffer.release(&length, &allocated, 1);
  EXPECT_EQ(data, before);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(allocated, 8);
  EXPECT_EQ(buffer.head, nullptr);
  EXPECT_EQ(Blocks(buffer), "");
  buffer.cat("xy", 2);
  EXPECT_EQ(Text(buffer), "xy");
  delete[] data;
}

TEST(LinkBuffer, ReleaseFlattensWithTheRoomAskedFor) {
  LinkBuffer buffer(2, 2);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "cd");
  int length;
  int allocated;
  char* data = buffer.release(&length, &allocated, 5);
  EXPECT_EQ(std::string(data, length), "abcd");
  EXPECT_EQ(allocated, 9);
  delete[] data;
}

TEST(LinkBuffer, ReleaseOfAnEmptyOneGivesOneByte) {
  LinkBuffer buffer(2, 2);
  int length = 7;
  int allocated = 7;
  char* data = buffer.release(&length, &allocated, 0);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(allocated, 1);
  delete[] data;
}

TEST(LinkBuffer, ReleaseOfNothingStillHasTheRoomAskedFor) {
  LinkBuffer buffer(2, 2);
  int length;
  int allocated;
  char* data = buffer.release(&length, &allocated, 9);
  EXPECT_EQ(allocated, 9);
  delete[] data;
  CatNocopy(buffer, "");
  data = buffer.release(&length, &allocated, 9);
  EXPECT_EQ(length, 0);
  EXPECT_GE(allocated, 9);
  delete[] data;
  data = buffer.release(&length, nullptr, 1);
  delete[] data;
}

TEST(LinkBuffer, AppendToCopiesWithoutATerminator) {
  LinkBuffer buffer(2, 2);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "c");
  char text[5] = "____";
  buffer.append_to(text);
  EXPECT_STREQ(text, "abc_");
  EXPECT_EQ(Blocks(buffer), "[ab][c]");
}

TEST(LinkBuffer, OutputWritesBlockByBlock) {
  LinkBuffer buffer(2, 2);
  CatNocopy(buffer, "ab");
  CatNocopy(buffer, "c");
  NotingOutput output;
  buffer.output(&output);
  EXPECT_EQ(output.writes, (std::vector<std::string>{"ab", "c"}));
  EXPECT_EQ(Blocks(buffer), "[ab][c]");
}

TEST(LinkBuffer, AMillionBlocksAreFreedWithoutRecursion) {
  LinkBuffer buffer(1, 1);
  for (int i = 0; i < 1000000; ++i) CatNocopy(buffer, "x");
  EXPECT_EQ(buffer.total, 1000000);
}

TEST(LinkBuffer, AMillionBlocksAreFlattened) {
  LinkBuffer buffer(1, 1);
  for (int i = 0; i < 1000000; ++i) buffer.prepend("x", 1);
  int length;
  buffer.data(&length, nullptr);
  EXPECT_EQ(length, 1000000);
  EXPECT_EQ(buffer.head, buffer.tail);
}

// A total that an int cannot hold fails with std::bad_alloc and changes nothing.
TEST(LinkBuffer, TotalsBeyondAnIntFailAsAllocations) {
  LinkBuffer buffer(8, 8);
  buffer.cat("abcd", 4);
  EXPECT_THROW(buffer.cat("x", INT_MAX - 3), std::bad_alloc);
  EXPECT_THROW(buffer.prepend("x", INT_MAX - 3), std::bad_alloc);
  EXPECT_THROW(buffer.coalesce(INT_MAX), std::bad_alloc);
  EXPECT_THROW(buffer.cat_nocopy(new char[1], INT_MAX - 3, INT_MAX), std::bad_alloc);
  EXPECT_THROW(buffer.prepend_nocopy(new char[1], INT_MAX - 3, INT_MAX), std::bad_alloc);
  EXPECT_EQ(Blocks(buffer), "[abcd]");
  LinkBuffer empty(8, 8);
  EXPECT_THROW(empty.cat("x", INT_MAX), std::bad_alloc);
  EXPECT_EQ(empty.head, nullptr);
}

TEST(LinkBuffer, RandomOperationsBuildTheTextThatAStringBuilds) {
  std::mt19937 random(20261121);
  for (int round = 0; round < 300; ++round) {
    LinkBuffer buffer(1 + static_cast<int>(random() % 9), 1 + static_cast<int>(random() % 9));
    std::string expected;
    for (int step = 0; step < 60; ++step) {
      std::string text(random() % 14, static_cast<char>('a' + random() % 26));
      int length = static_cast<int>(text.size());
      switch (random() % 9) {
        case 0: buffer.cat(text.data(), length), expected += text; break;
        case 1: CatNocopy(buffer, text, static_cast<int>(random() % 5)), expected += text; break;
        case 2: buffer.prepend(text.data(), length), expected = text + expected; break;
        case 3: PrependNocopy(buffer, text), expected = text + expected; break;
        case 4: buffer.coalesce(static_cast<int>(random() % 9)); break;
        case 5: ASSERT_EQ(Text(buffer), expected); break;
        case 6:
          if (expected.size() < 5000) buffer.cat(&buffer), expected += expected;
          break;
        case 7:
          if (expected.size() < 5000) buffer.prepend(&buffer), expected += expected;
          break;
        default: {
          auto other = new LinkBuffer(3, 3);
          other->cat(text.data(), length);
          if (random() % 2) {
            buffer.cat_destroy(other), expected += text;
          } else {
            buffer.prepend_destroy(other), expected = text + expected;
          }
        }
      }
      ASSERT_EQ(buffer.total, static_cast<int>(expected.size()));
      Blocks(buffer);
    }
    int length;
    char* data = buffer.release(&length, nullptr, 0);
    ASSERT_EQ(std::string(data, length), expected);
    delete[] data;
  }
}

TEST(LinkBufferBlock, CatCopiesWhatFits) {
  LinkBuffer_Block block(4);
  EXPECT_EQ(block.used, 0);
  EXPECT_EQ(block.cat("abc", 3), 3);
  EXPECT_EQ(block.cat("de", 2), 1);
  EXPECT_EQ(block.cat("f", 1), 0);
  EXPECT_EQ(block.cat("f", -1), 0);
  EXPECT_EQ(std::string(block.data, block.used), "abcd");
}

TEST(LinkBufferBlock, ReleaseForgetsTheBuffer) {
  char* buffer = new char[3];
  LinkBuffer_Block block(buffer, 2, 3);
  EXPECT_EQ(block.data, buffer);
  EXPECT_EQ(block.used, 2);
  EXPECT_EQ(block.allocated, 3);
  block.release();
  EXPECT_EQ(block.data, nullptr);
  EXPECT_EQ(block.used, 0);
  EXPECT_EQ(block.allocated, 0);
  delete[] buffer;
}

TEST(LinkBuffer, ReleaseOfABlockWithoutABufferGivesOneByte) {
  for (const int blocks : {1, 2}) {
    LinkBuffer buffer(8, 8);
    for (int i = 0; i < blocks; i++) buffer.cat_nocopy(nullptr, 0, 0);
    int length = -1, allocated = -1;
    const std::unique_ptr<char[]> text(buffer.release(&length, &allocated, 0));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(allocated, 1);
    EXPECT_EQ(buffer.head, nullptr);
    EXPECT_EQ(buffer.tail, nullptr);
  }
}

}  // namespace
