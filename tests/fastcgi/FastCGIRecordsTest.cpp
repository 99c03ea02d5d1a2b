#include "fastcgi/FastCGIRecords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>

#include "tests/support/FastCGIClient.h"

namespace {

constexpr int kBegin = 1;
constexpr int kAbort = 2;
constexpr int kParameters = 4;
constexpr int kInput = 5;
constexpr int kQuestion = 9;
const std::string kResponder("\0\1\1\0\0\0\0\0", 8);

// The bytes that pass if the input comes in pieces of that size, with "refused" after them if the
// connection has to be given up.
std::string Passed(const std::string& bytes, size_t piece = 8192, int room = 8192) {
  FastCGIRecords records;
  records.Start();
  std::string passed;
  std::string to(static_cast<size_t>(room), '\0');
  for (size_t start = 0; start < bytes.size(); start += piece) {
    const auto* from = reinterpret_cast<const unsigned char*>(bytes.data()) + start;
    const auto* end = from + std::min(piece, bytes.size() - start);
    while (from < end || records.Refused()) {
      const int count = records.Pass(&from, end, reinterpret_cast<unsigned char*>(to.data()), room);
      if (count < 0) return passed + "refused";
      passed.append(to, 0, static_cast<size_t>(count));
    }
  }
  return passed;
}

std::string Record(int type, int id, std::string_view content, size_t padding = 0) {
  return FastCGIClient::Record(type, id, content, padding);
}

std::string Begin(int id = 1, size_t padding = 0) {
  return Record(kBegin, id, kResponder, padding);
}

bool IsRefused(const std::string& bytes) {
  const std::string passed = Passed(bytes);
  return passed.size() >= 7 && passed.compare(passed.size() - 7, 7, "refused") == 0;
}

std::string WholeRequest(int id, size_t padding) {
  return Begin(id, padding) + Record(kParameters, id, "\1\2ABC", padding) +
         Record(kParameters, id, "", padding) + Record(kInput, id, "body", padding) +
         Record(kInput, id, "", padding);
}

// What becomes of a stream of pairs does not depend on where its bytes are cut.
TEST(FastCGIPairs, WholePairsAndSingleBytesCountAlike) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const auto below = [&random](unsigned n) { return static_cast<int>(random() % n); };
  int refused = 0;
  for (int round = 0; round < 2000; round++) {
    std::string stream;
    const int pairs = 1 + below(12);
    int largest = 0, total = 0, long_names = 0;
    for (int i = 0; i < pairs; i++) {
      const int lengths[] = {below(30), below(8) == 0 ? below(400) : below(60)};
      for (const int length : lengths) {
        // Short lengths may have the long form.
        if (length >= 128 || below(10) == 0) {
          stream += {'\x80', '\0', static_cast<char>(length >> 8), static_cast<char>(length)};
        } else {
          stream += static_cast<char>(length);
        }
      }
      stream.append(static_cast<size_t>(lengths[0] + lengths[1]), 'x');
      largest = std::max(largest, lengths[0] + lengths[1]);
      total += lengths[0] + lengths[1] + FastCGIRecords::kPairCost;
      if (lengths[0] >= static_cast<int>(FastCGIPairs::kLongName)) long_names++;
    }
    // Mostly the limits that are just kept, else one that is not.
    const int broken = below(6);
    const bool allowed =
        broken > 2 || (broken == 0 && largest == 0) || (broken == 2 && long_names == 0);
    if (broken == 0) largest -= largest > 0;
    if (broken == 1) total--;
    if (broken == 2) long_names -= long_names > 0;
    for (const size_t piece : {size_t{1}, size_t{7}, stream.size()}) {
      FastCGIPairs checked;
      checked.Start(largest, total, long_names);
      bool good = true;
      for (size_t at = 0; good && at < stream.size(); at += piece) {
        const size_t count = std::min(piece, stream.size() - at);
        const auto* bytes = reinterpret_cast<const unsigned char*>(stream.data()) + at;
        good = checked.Add(bytes, static_cast<int>(count));
      }
      ASSERT_EQ(good, allowed) << "round " << round << ", pieces of " << piece;
    }
    if (!allowed) refused++;
  }
  EXPECT_GT(refused, 0);
}

TEST(FastCGIRecords, AWholeRequestPassesAsItCame) {
  EXPECT_EQ(Passed(WholeRequest(1, 0)), WholeRequest(1, 0));
}

TEST(FastCGIRecords, PaddingIsTakenOutWhereverBytesAreCut) {
  const std::string bytes = WholeRequest(1, 255) + WholeRequest(0xFFFF, 3);
  const std::string expected = WholeRequest(1, 0) + WholeRequest(0xFFFF, 0);
  for (size_t piece = 1; piece < 40; piece++) {
    SCOPED_TRACE(piece);
    EXPECT_EQ(Passed(bytes, piece), expected);
    EXPECT_EQ(Passed(bytes, piece, FastCGIRecords::kLeastRoom), expected);
  }
}

TEST(FastCGIRecords, StopsAtTheEndOfARequestsInput) {
  const std::string first = WholeRequest(1, 0);
  const std::string bytes = first + WholeRequest(2, 0);
  FastCGIRecords records;
  records.Start();
  unsigned char to[8192];
  const auto* from = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* end = from + bytes.size();
  EXPECT_EQ(records.Pass(&from, end, to, sizeof to), static_cast<int>(first.size()));
  EXPECT_EQ(static_cast<size_t>(end - from), bytes.size() - first.size());
  EXPECT_EQ(records.Pass(&from, end, to, sizeof to), static_cast<int>(first.size()));
}

TEST(FastCGIRecords, RecordsOfOtherRequestsAreDropped) {
  const std::string foreign =
      Record(kParameters, 7, "") + Record(kInput, 7, "other") + Record(kAbort, 7, "", 9);
  EXPECT_EQ(Passed(foreign + Begin() + foreign + Record(kParameters, 1, "\1\1AB") + foreign +
                   Record(kParameters, 1, "") + foreign + Record(kInput, 1, "") + foreign),
            Begin() + Record(kParameters, 1, "\1\1AB") + Record(kParameters, 1, "") +
                Record(kInput, 1, ""));
}

TEST(FastCGIRecords, UnknownManagementRecordsPassWithoutTheirContent) {
  EXPECT_EQ(Passed(Record(77, 0, "content", 5) + Begin()), Record(77, 0, "") + Begin());
}

TEST(FastCGIRecords, ASecondRequestOnTheConnectionIsLeftToLibfcgi) {
  const std::string bytes = Begin(1) + Begin(2) + Record(kParameters, 1, "");
  EXPECT_EQ(Passed(bytes), bytes);
}

TEST(FastCGIRecords, WhatIsOutOfPlaceIsRefused) {
  struct Case {
    const char* label;
    std::string bytes;
  } cases[] = {
      {"another version", std::string("\2\1\0\1\0\10\0\0", 8)},
      {"no protocol", "GET / HTTP/1.1\r\n\r\n"},
      {"a beginning that is too short", Record(kBegin, 1, kResponder.substr(1))},
      {"a beginning that is too long", Record(kBegin, 1, kResponder + "x")},
      {"a beginning without content", Record(kBegin, 1, "")},
      {"a beginning of request 0", Begin(0)},
      {"input before the parameters", Begin() + Record(kInput, 1, "x")},
      {"parameters after their end",
       Begin() + Record(kParameters, 1, "") + Record(kParameters, 1, "\1\1AB")},
      {"an abort", Begin() + Record(kAbort, 1, "")},
      {"an unknown type", Begin() + Record(42, 1, "")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_TRUE(IsRefused(c.bytes));
  }
}

TEST(FastCGIRecords, WhatCameBeforeARefusalPasses) {
  const std::string good = Begin() + Record(kParameters, 1, "\1\1AB") + Record(kParameters, 1, "");
  for (size_t piece = 1; piece < 60; piece++) {
    EXPECT_EQ(Passed(good + Record(kAbort, 1, "") + "more", piece), good + "refused");
  }
}

TEST(FastCGIRecords, WhatAParameterAnnouncesIsBounded) {
  const unsigned most = FastCGIRecords::kMostParameterBytes - FastCGIRecords::kPairCost;
  struct Case {
    unsigned name, value;
    bool refused;
  } cases[] = {
      {0x7FFFFFFE, 0x7FFFFFFE, true},
      {0x7FFFFFFF, 0x7FFFFFFF, true},
      {0x7FFFFFFF, 0, true},
      {0, 0x7FFFFFFF, true},
      {0x7FFFFFFE, 1, true},
      {0x40000000, 0x40000000, true},
      {most, 0, false},
      {0, most, false},
      {most / 2, most / 2, false},
      {most, 1, true},
      {1, most, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " and " << c.value);
    const std::string lengths = FastCGIClient::PairLengths(c.name, c.value);
    EXPECT_EQ(IsRefused(Begin() + Record(kParameters, 1, lengths)), c.refused);
    // The same in pieces, each in a record of its own.
    EXPECT_EQ(IsRefused(Begin() + Record(kParameters, 1, lengths.substr(0, 3)) +
                        Record(kParameters, 1, lengths.substr(3))),
              c.refused);
  }
}

TEST(FastCGIRecords, AllParametersOfARequestAreBoundedTogether) {
  // Half a million empty parameters cost kPairCost each.
  const size_t most = FastCGIRecords::kMostParameterBytes / FastCGIRecords::kPairCost;
  const std::string pairs(60000, '\0');
  std::string bytes = Begin();
  size_t count = 0;
  for (; count + 30000 <= most; count += 30000) bytes += Record(kParameters, 1, pairs);
  EXPECT_FALSE(IsRefused(bytes));
  EXPECT_TRUE(IsRefused(bytes + Record(kParameters, 1, pairs)));
}

TEST(FastCGIRecords, TheBoundIsThatOfOneRequest) {
  const auto request = [&](int times) {
    std::string bytes = Begin();
    for (int i = 0; i < times; i++) bytes += Record(kParameters, 1, std::string(60000, '\0'));
    return bytes + Record(kParameters, 1, "") + Record(kInput, 1, "");
  };
  EXPECT_FALSE(IsRefused(request(15) + request(15)));
  EXPECT_TRUE(IsRefused(request(18)));
}

TEST(FastCGIRecords, AQuestionMayAskForThreeLimits) {
  std::string names;
  for (int i = 0; i < 3; i++) names += std::string("\17\0", 2) + "FCGI_MPXS_CONNS";
  const std::string others = std::string("\5\0", 2) + "OTHER";
  // libfcgi replies after it has read a byte of padding.
  const std::string passed = Record(kQuestion, 0, names + others, 1);
  for (size_t piece = 1; piece < 90; piece++) {
    EXPECT_EQ(Passed(Record(kQuestion, 0, names + others, 8), piece),
              passed.substr(0, passed.size() - 1) + std::string(1, '\0'));
  }
  EXPECT_EQ(Passed(Record(kQuestion, 0, "")), std::string("\1\11\0\0\0\0\1\0\0", 9));
  EXPECT_TRUE(IsRefused(Record(kQuestion, 0, names + std::string("\15\0", 2) + "FCGI_MAX_REQS")));
  EXPECT_TRUE(IsRefused(Record(kQuestion, 0, FastCGIClient::PairLengths(0x7FFFFFFE, 0x7FFFFFFE))));
  EXPECT_TRUE(IsRefused(Record(kQuestion, 0, FastCGIClient::PairLengths(0, 65536))));
}

}  // namespace
