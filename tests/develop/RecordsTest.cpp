#include "develop/Records.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "base/host/FileDescriptor.h"

namespace {

class RecordsTest : public testing::Test {
 protected:
  RecordsTest() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) {
      ours.reset(pair[0]);
      theirs.reset(pair[1]);
    }
  }
  FileDescriptor ours, theirs;
};

TEST_F(RecordsTest, ALongTextComesInSeveralRecords) {
  const std::string text(200000, 'x');
  const std::string bytes = MakeRecords(kRecordOutput, 0x102, text) +
                            EndOfStream(kRecordOutput, 0x102) + EndOfRequest(0x102);
  std::thread writer([&] { EXPECT_TRUE(WriteBytes(ours.get(), bytes)); });
  std::string read, all;
  Record record;
  do {
    ASSERT_TRUE(ReadRecord(theirs.get(), &record));
    EXPECT_EQ(record.request, 0x102);
    if (record.type == kRecordOutput) read += record.content;
    all += record.bytes;
  } while (record.type != kRecordEnd);
  writer.join();
  EXPECT_EQ(read, text);
  EXPECT_EQ(all, bytes);
  EXPECT_EQ(record.content, std::string(8, '\0'));
}

TEST_F(RecordsTest, PaddingIsNoContent) {
  const std::string bytes("\1\6\0\1\0\2\3\0abPAD", 13);
  ASSERT_TRUE(WriteBytes(ours.get(), bytes));
  Record record;
  ASSERT_TRUE(ReadRecord(theirs.get(), &record));
  EXPECT_EQ(record.content, "ab");
  EXPECT_EQ(record.bytes, bytes);
}

TEST_F(RecordsTest, ARecordThatIsCutOffIsNone) {
  const std::string bytes("\1\6\0\1\0\2\0\0ab", 10);
  for (size_t length = 0; length < bytes.size(); length++) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const FileDescriptor from(pair[1]);
    ASSERT_TRUE(WriteBytes(pair[0], bytes.substr(0, length)));
    close(pair[0]);
    Record record;
    EXPECT_FALSE(ReadRecord(from.get(), &record)) << length;
  }
}

TEST_F(RecordsTest, ParametersHaveShortAndLongLengths) {
  const std::string value(300, 'v');
  std::map<std::string, std::string> parameters;
  const std::string text =
      std::string("\3\0ABC", 5) + std::string("\1\x80\0\1\x2C", 5) + "N" + value;
  ASSERT_TRUE(ParseParameters(text, &parameters));
  EXPECT_EQ(parameters, (std::map<std::string, std::string>{{"ABC", ""}, {"N", value}}));
}

TEST_F(RecordsTest, BrokenParametersAreRefusedAtEveryLength) {
  const std::string text = std::string("\4\x80\0\0\5", 5) + "NAMEvalue";
  std::map<std::string, std::string> parameters;
  EXPECT_TRUE(ParseParameters(text, &parameters));
  for (size_t length = 1; length < text.size(); length++) {
    EXPECT_FALSE(ParseParameters(text.substr(0, length), &parameters)) << length;
  }
  EXPECT_FALSE(ParseParameters("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", &parameters));
}

}  // namespace
