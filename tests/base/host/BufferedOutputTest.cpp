#include "base/host/BufferedOutput.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/core/Limits.h"
#include "tests/support/RecordingOutput.h"

namespace {

class Sink : public BufferedOutput {
 public:
  explicit Sink(int bytes) : BufferedOutput(bytes) {}
  int DoWrite(const char* text, int length) override {
    writes.emplace_back(text, static_cast<size_t>(length));
    return result < 0 ? result : length;
  }
  std::vector<std::string> writes;
  int result = 0;
};

TEST(BufferedOutput, CollectsUntilTheBufferIsFull) {
  Sink output(8);
  EXPECT_EQ(output.Write("abc", 3), 3);
  EXPECT_EQ(output.Write("defgh", -1), 5);
  EXPECT_TRUE(output.writes.empty());
  output.Write("i", 1);
  ASSERT_EQ(output.writes.size(), 1u);
  EXPECT_EQ(output.writes[0], "abcdefgh");
}

TEST(BufferedOutput, TextThatDoesNotFitGoesAfterAFlush) {
  Sink output(8);
  output.Write("abcde", 5);
  output.Write("fghi", 4);
  EXPECT_EQ(output.writes, std::vector<std::string>{"abcde"});
  output.Flush();
  EXPECT_EQ(output.writes[1], "fghi");
}

TEST(BufferedOutput, LongTextFillsTheBufferAgainAndAgain) {
  Sink output(4);
  output.Write("ab", 2);
  EXPECT_EQ(output.Write("0123456789", 10), 10);
  EXPECT_EQ(output.writes, (std::vector<std::string>{"ab01", "2345"}));
  output.Flush();
  EXPECT_EQ(output.writes[2], "6789");
}

TEST(BufferedOutput, FlushAnswersWhatTheSinkSaid) {
  Sink output(8);
  EXPECT_EQ(output.Flush(), 0);
  output.Write("abc", 3);
  output.result = -1;
  EXPECT_EQ(output.Flush(), -1);
  EXPECT_EQ(output.Flush(), 0);
}

TEST(BufferedOutput, EmptyTextWritesNothing) {
  Sink output(8);
  EXPECT_EQ(output.Write("", 0), 0);
  EXPECT_EQ(output.Write("", -1), 0);
  EXPECT_EQ(output.type(), Output::Buffered);
}

TEST(CaptureOutput, GivesAwayAllThatWasWritten) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  std::string expected;
  for (int i = 0; i < 5000; i++) {
    std::string line = "line " + std::to_string(i) + "\n";
    output.Write(line.data(), static_cast<int>(line.size()));
    expected += line;
  }
  int length, size;
  std::unique_ptr<char[]> text(output.data(&length, &size));
  EXPECT_EQ(std::string(text.get(), static_cast<size_t>(length)), expected);
  EXPECT_GT(size, length);
  text[length] = '\0';
  EXPECT_TRUE(parent.text.empty());
}

// Text that is copied into the room which is held open comes in its order, whatever is written,
// flushed and taken in between.
TEST(CaptureOutput, KeepsTheOrderOfTextThatWasPutInItsRoom) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  std::string expected;
  bool was_put = false;
  for (int i = 0; i < 20000; i++) {
    const std::string text = std::to_string(i) + std::string(static_cast<size_t>(i % 37), ' ');
    const int length = static_cast<int>(text.size());
    if (i % 11 == 0) {
      output.Write(text.data(), length);
    } else {
      was_put |= output.Put(text.data(), length);
    }
    expected += text;
    if (i % 700 == 0) output.Write("", 0);
    if (i % 1700 == 0) output.Flush();
    if (i % 5000 == 4999) {
      int all, size;
      const std::unique_ptr<char[]> taken(output.data(&all, &size));
      EXPECT_EQ(std::string(taken.get(), static_cast<size_t>(all)), expected);
      EXPECT_GT(size, all);
      expected.clear();
    }
  }
  EXPECT_TRUE(was_put);
}

TEST(CaptureOutput, ReportsCapturedAndCapacityAsSize) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  int length, size;
  output.Write("abc", 3);
  std::unique_ptr<char[]> first(output.data(&length, &size));
  EXPECT_EQ(length, 3);
  EXPECT_EQ(size, kOutputBuffer);
  if (kOutputBuffer != 8192) GTEST_SKIP() << "the buffer of this build is small";
  std::string text(10000, 'x');
  output.Write(text.data(), 10000);
  std::unique_ptr<char[]> second(output.data(&length, &size));
  EXPECT_EQ(length, 10000);
  EXPECT_EQ(size, 8191 + 8192);
}

TEST(CaptureOutput, OneWriteOfManyMegabytesIsCaptured) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  std::string text(30 << 20, 'x');
  EXPECT_EQ(output.Write(text.data(), static_cast<int>(text.size())), 30 << 20);
  int length, size;
  std::unique_ptr<char[]> captured(output.data(&length, &size));
  EXPECT_EQ(length, 30 << 20);
}

TEST(CaptureOutput, BeginsAgainAfterItsTextWasTaken) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  int length, size;
  output.Write("abc", 3);
  std::unique_ptr<char[]> first(output.data(&length, &size));
  output.Write("de", 2);
  output.Flush();
  output.Write("f", 1);
  std::unique_ptr<char[]> second(output.data(&length, &size));
  EXPECT_EQ(std::string(second.get(), static_cast<size_t>(length)), "def");
}

TEST(CaptureOutput, ErrorsAndHeaderFieldsPassItBy) {
  RecordingOutput parent;
  CaptureOutput output(&parent);
  output.Write("captured", -1);
  output.Write_Error("oops", -1);
  EXPECT_EQ(output.Header("X-A", "1"), 1);
  EXPECT_EQ(parent.text, "oops");
  EXPECT_EQ(parent.headers, std::vector<std::string>{"X-A: 1"});
}

TEST(CaptureOutput, HeaderFieldsWithTheirOwnersPassEveryCapture) {
  RecordingOutput page;
  CaptureOutput outer(&page);
  CaptureOutput inner(&outer);
  char* name = new char[4]{'X', '-', 'B', 0};
  char* value = new char[2]{'2', 0};
  EXPECT_EQ(inner.Header(name, 3, 1, value, 1, 1), 1);
  EXPECT_EQ(page.headers, std::vector<std::string>{"X-B: 2"});
}

std::string Captured(CaptureOutput* capture) {
  int length, size;
  const std::unique_ptr<char[]> text(capture->data(&length, &size));
  return std::string(text.get(), static_cast<size_t>(length));
}

// A loop around a capture may end it while one that began within it goes on.
TEST(CaptureOutput, OneThatEndsFirstIsSteppedOver) {
  RecordingOutput page;
  auto* outer = new CaptureOutput(&page);
  auto* inner = new CaptureOutput(outer);
  outer->Write("outer", -1);
  inner->Write("inner", -1);
  EXPECT_FALSE(inner->below_over());
  EXPECT_EQ(inner->below(), outer);
  outer->Close();
  EXPECT_TRUE(inner->below_over());
  EXPECT_EQ(inner->below(), &page);
  EXPECT_FALSE(inner->below_over());
  EXPECT_EQ(Captured(inner), "inner");
  inner->Write_Error("oops", -1);
  EXPECT_EQ(page.text, "oops");
  inner->Close();
}

// Four captures, each within the one before it, end in every order. Their parents are looked for
// after the first ends have gone unnoticed.
void ExpectParents(const int (&order)[4], int unnoticed) {
  RecordingOutput page;
  CaptureOutput* captures[4];
  Output* last = &page;
  for (CaptureOutput*& capture : captures) last = capture = new CaptureOutput(last);
  bool over[4] = {};
  for (const int ended : order) {
    captures[ended]->Close();
    over[ended] = true;
    if (unnoticed-- > 0) continue;
    for (int i = 0; i < 4; i++) {
      if (over[i]) continue;
      int nearest = i - 1;
      while (nearest >= 0 && over[nearest]) nearest--;
      Output* const expected = nearest < 0 ? &page : static_cast<Output*>(captures[nearest]);
      EXPECT_EQ(captures[i]->below(), expected) << i;
    }
  }
}

TEST(CaptureOutput, AnyOrderOfEndsLeadsToTheNearestThatIsNotOver) {
  int order[] = {0, 1, 2, 3};
  do {
    SCOPED_TRACE(order[0] * 1000 + order[1] * 100 + order[2] * 10 + order[3]);
    for (int unnoticed : {0, 1, 2}) ExpectParents(order, unnoticed);
  } while (std::next_permutation(order, order + 4));
}

int Half(const char*, int length) {
  return length / 2;
}

// Each capture but the last is over when the last one looks for its parent, and its makers have
// given their counts back: the look frees all of them on its way.
TEST(CaptureOutput, ParentIsTheNearestThatIsNotOverHoweverManyAreBetween) {
  NullOutput outermost(nullptr);
  auto* last = new CaptureOutput(&outermost);
  auto* living = last;
  for (int i = 0; i < 100; i++) {
    auto* next = new CaptureOutput(last);
    if (last != living) last->Close();
    last = next;
  }
  EXPECT_EQ(last->below(), living);
  // Held by the last one only, from here on.
  living->Close();
  EXPECT_TRUE(last->below_over());
  EXPECT_EQ(last->below(), &outermost);
  EXPECT_FALSE(last->below_over());
  EXPECT_EQ(last->below(), &outermost);
  last->Close();
}

// Two captures have the same parent that is over: the first look must not free what the second
// reads.
TEST(CaptureOutput, OneThatIsOverStaysForEachCaptureInIt) {
  NullOutput outermost(nullptr);
  auto* over = new CaptureOutput(&outermost);
  auto* between = new CaptureOutput(over);
  auto* first = new CaptureOutput(between);
  auto* second = new CaptureOutput(between);
  over->Close();
  between->Close();
  EXPECT_EQ(first->below(), &outermost);
  EXPECT_TRUE(second->below_over());
  EXPECT_EQ(second->below(), &outermost);
  first->Close();
  second->Close();
}

TEST(NullOutput, SwallowsOrAsksItsCallback) {
  NullOutput silent(nullptr);
  EXPECT_EQ(silent.Write("abcd", -1), 4);
  EXPECT_EQ(silent.Write_Compressed("  ab", 4), 4);
  EXPECT_EQ(silent.Flush(), 1);
  EXPECT_EQ(silent.Flush(1), 0);
  EXPECT_EQ(silent.type(), Output::Null);
  NullOutput half(Half);
  EXPECT_EQ(half.Write("abcd", 4), 2);
}

}  // namespace
