#include "base/host/HTTPOutput.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// Keeps the text that a client would get. Takes at most `step` bytes in a write, and fails on
// demand.
class TestOutput : public HTTPOutput {
 public:
  TestOutput(int blocksize, int threshold) : HTTPOutput(blocksize, threshold) {}

  void OutputHeaders() override {
    for (HTTPOutput_Header* h = headers.First(); h; h = headers.Next()) {
      sent_headers.push_back(std::string(h->name, static_cast<size_t>(h->namelength)) + ": " +
                             std::string(h->value, static_cast<size_t>(h->valuelength)));
    }
    header_stages++;
  }

  int DoWrite(const char* text, int length) override {
    writes++;
    if (writes > fail_after) return failure;
    int taken = step > 0 && length > step ? step : length;
    body.append(text, static_cast<size_t>(taken));
    return taken;
  }

  std::vector<std::string> sent_headers;
  std::string body;
  int header_stages = 0;
  int writes = 0;
  int step = 0;
  int fail_after = 1 << 30;
  int failure = -1;
};

using Headers = std::vector<std::string>;

TEST(HTTPOutput, HeaderTableKeepsOneValueAName) {
  TestOutput output(8192, 1 << 20);
  EXPECT_EQ(output.Header("Content-Type", "text/html"), 1);
  EXPECT_EQ(output.Header("X-Other", "1"), 1);
  EXPECT_EQ(output.Header("content-type", "text/plain"), 1);
  output.Flush(0);
  EXPECT_EQ(output.sent_headers, (Headers{"X-Other: 1", "content-type: text/plain"}));
}

TEST(HTTPOutput, HeaderAfterTheFirstFlushIsRefusedAndFreed) {
  TestOutput output(8192, 1 << 20);
  output.Flush();
  char* name = new char[2]{'a', 0};
  char* value = new char[2]{'b', 0};
  EXPECT_EQ(output.Header(name, 1, 1, value, 1, 1), 0);
  EXPECT_EQ(output.Header("X", "y"), 0);
  EXPECT_EQ(output.header_stages, 1);
}

TEST(HTTPOutput, OwnedHeaderTextsAreReplacedAndFreed) {
  TestOutput output(8192, 1 << 20);
  for (int i = 0; i < 3; i++) {
    char* name = new char[2]{'a', 0};
    char* value = new char[2]{static_cast<char>('0' + i), 0};
    EXPECT_EQ(output.Header(name, -1, 1, value, -1, 1), 1);
  }
  output.Flush();
  EXPECT_EQ(output.sent_headers, Headers{"a: 2"});
}

TEST(HTTPOutput, LastFlushAddsTheContentLength) {
  TestOutput output(8, 1 << 20);
  output.Write("hello, ", -1);
  output.Write("world", 5);
  EXPECT_EQ(output.writes, 0);
  EXPECT_EQ(output.Flush(1), 12);
  EXPECT_EQ(output.body, "hello, world");
  EXPECT_EQ(output.sent_headers, Headers{"Content-Length: 12"});
}

TEST(HTTPOutput, ContentLengthOfTheScriptStays) {
  TestOutput output(8192, 1 << 20);
  output.Header("content-length", "5");
  output.Write("hello, world", -1);
  output.Flush(1);
  EXPECT_EQ(output.sent_headers, Headers{"content-length: 5"});
}

TEST(HTTPOutput, ThresholdFlushesWithoutContentLength) {
  for (int below : {1, 0}) {
    SCOPED_TRACE(below);
    TestOutput output(8, 100);
    std::string text(static_cast<size_t>(100 - below), 'x');
    output.Write(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(output.body.size(), below ? 0u : 100u);
    output.Flush(1);
    EXPECT_EQ(output.sent_headers.size(), below ? 1u : 0u);
    EXPECT_EQ(output.body, text);
  }
}

TEST(HTTPOutput, CountsAgainAfterAnAutomaticFlush) {
  TestOutput output(8, 10);
  output.Write("0123456789", 10);
  output.Write("012345678", 9);
  EXPECT_EQ(output.body.size(), 10u);
  output.Write("9", 1);
  EXPECT_EQ(output.body.size(), 20u);
}

// Put writes into room that the output holds open, and the client gets the same text as from Write.
TEST(HTTPOutput, PutDoesWhatWriteDoes) {
  std::mt19937 random(7);
  auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
  for (int round = 0; round < 300; round++) {
    SCOPED_TRACE(round);
    const int block = 1 + below(40), threshold = below(120);
    TestOutput put(block, threshold), written(block, threshold);
    for (int i = below(60); i > 0; i--) {
      std::string text(static_cast<size_t>(below(below(4) ? 9 : 60)), ' ');
      for (char& c : text) c = " ab"[below(3)];
      const int length = static_cast<int>(text.size());
      switch (below(12)) {
        case 0:
          EXPECT_EQ(put.Write_Compressed_Fast(text.data(), length), length);
          written.Write_Compressed_Fast(text.data(), length);
          break;
        case 1:
          EXPECT_EQ(put.Write_Compressed_Full(text.data(), length), length);
          written.Write_Compressed_Full(text.data(), length);
          break;
        case 2: EXPECT_EQ(put.Flush(), written.Flush()); break;
        case 3: EXPECT_EQ(put.Write(text.c_str(), -1), written.Write(text.c_str(), -1)); break;
        case 4: {
          const int bytes = below(120);
          put.SetFlushThreshold(bytes);
          written.SetFlushThreshold(bytes);
          break;
        }
        default: put.Put(text.data(), length); written.Write(text.data(), length);
      }
      ASSERT_EQ(put.body, written.body);
      ASSERT_EQ(put.writes, written.writes);
    }
    EXPECT_EQ(put.Flush(1), written.Flush(1));
    EXPECT_EQ(put.body, written.body);
    EXPECT_EQ(put.sent_headers, written.sent_headers);
  }
}

TEST(HTTPOutput, PutTellsWhetherOtherCodeHasRun) {
  TestOutput output(8, 100);
  EXPECT_FALSE(output.Put("ab", 2));
  EXPECT_TRUE(output.Put("cdefgh", 6));
  EXPECT_FALSE(output.Put("i", 1));
  EXPECT_FALSE(output.Put("", 0));
  EXPECT_TRUE(output.Put("j", 1));
  output.Flush();
  EXPECT_EQ(output.body, "abcdefghij");
}

TEST(HTTPOutput, BlocksAreOfTheSizeThatHoldsWhenTheyAreMade) {
  TestOutput output(4, 1 << 20);
  output.Write("abcdef", 6);
  output.SetBlockSize(100);
  output.Write("ghijklmn", 8);
  output.Flush(0);
  EXPECT_EQ(output.body, "abcdefghijklmn");
  EXPECT_EQ(output.writes, 3);  // 4, then 4, then the rest in one block of 100
}

TEST(HTTPOutput, BlockSizeBelowOneCountsAsTheDefault) {
  TestOutput output(0, 1 << 20);
  std::string text(8193, 'x');
  output.Write(text.data(), 8193);
  output.Flush(0);
  EXPECT_EQ(output.writes, 2);
}

TEST(HTTPOutput, PartialWritesAreTakenUpAgain) {
  TestOutput output(8192, 1 << 20);
  output.step = 3;
  output.Write("0123456789", 10);
  EXPECT_EQ(output.Flush(0), 10);
  EXPECT_EQ(output.body, "0123456789");
  EXPECT_EQ(output.writes, 4);
}

TEST(HTTPOutput, FailedWriteEndsTheWalk) {
  TestOutput output(4, 1 << 20);
  output.fail_after = 1;
  output.Write("0123456789", 10);
  EXPECT_EQ(output.Flush(0), 4);
  EXPECT_EQ(output.writes, 2);
  // Bytes that were not taken are dropped.
  output.fail_after = 1 << 30;
  output.Write("ab", 2);
  EXPECT_EQ(output.Flush(0), 2);
  EXPECT_EQ(output.body, "0123ab");
}

TEST(HTTPOutput, WriteThatTakesNothingEndsTheBlock) {
  TestOutput output(8192, 1 << 20);
  output.step = 3;
  output.fail_after = 2;
  output.failure = 0;
  output.Write("0123456789", 10);
  EXPECT_EQ(output.Flush(0), 6);
}

TEST(HTTPOutput, StaysUsableAfterAFlush) {
  TestOutput output(4, 1 << 20);
  std::string expected;
  for (int i = 0; i < 100; i++) {
    std::string text(static_cast<size_t>(i), static_cast<char>('a' + i % 26));
    output.Write(text.data(), i);
    expected += text;
    if (i % 7 == 0) output.Flush();
  }
  output.Flush(1);
  EXPECT_EQ(output.body, expected);
  EXPECT_EQ(output.type(), Output::HTTP);
}

TEST(HTTPOutput_Chain, GrowableBlockGrowsByWholeBlocks) {
  HTTPOutput_Chain chain(1, 10);
  EXPECT_EQ(chain.Write("0123456789", 10), 10);
  EXPECT_EQ(chain.capacity, 10);
  EXPECT_EQ(chain.Write("0123456789ab", 12), 12);
  EXPECT_EQ(chain.capacity, 30);
  EXPECT_EQ(std::string(chain.data, 22), "01234567890123456789ab");
}

TEST(HTTPOutput_Chain, FixedBlockTakesWhatFits) {
  HTTPOutput_Chain chain(0, 10);
  EXPECT_EQ(chain.Write("0123456", 7), 7);
  EXPECT_EQ(chain.Write("789ab", 5), 3);
  EXPECT_EQ(chain.Write("c", 1), 0);
  EXPECT_EQ(std::string(chain.data, 10), "0123456789");
}

TEST(HTTPOutput, ABodyCanBeDroppedUntilItIsSent) {
  TestOutput output(16, 1 << 20);
  EXPECT_TRUE(output.DropBody()) << "there is none";
  output.Write("more than one block of text", -1);
  output.Put("put", 3);
  EXPECT_TRUE(output.DropBody());
  output.Write("other", -1);
  output.Flush(1);
  EXPECT_EQ(output.body, "other");
  EXPECT_EQ(output.sent_headers, Headers{"Content-Length: 5"});
  output.Write("rest", -1);
  EXPECT_FALSE(output.DropBody());
  output.Flush();
  EXPECT_EQ(output.body, "otherrest");
}

}  // namespace
