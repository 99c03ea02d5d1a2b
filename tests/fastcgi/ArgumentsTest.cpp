#include "fastcgi/Arguments.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fastcgi/FastCGIThreads.h"

namespace {

// Arguments as a process gets them: their texts follow one another in memory.
class Arguments {
 public:
  explicit Arguments(const std::vector<std::string>& texts) {
    size_t size = 0;
    for (const std::string& text : texts) size += text.size() + 1;
    area.resize(size);
    char* p = area.data();
    for (const std::string& text : texts) {
      memcpy(p, text.c_str(), text.size() + 1);
      argv.push_back(p);
      p += text.size() + 1;
    }
    args.argument_count = args.copied_argument_count = static_cast<int>(texts.size());
    args.arguments = argv.data();
    args.copied_arguments = CopyArgs(args.argument_count, argv.data());
    args.thread_count = 10;
    Process_CommandLine_Args(&args);
  }
  ~Arguments() { FreeArgs(args.copied_argument_count, args.copied_arguments); }

  std::vector<char> area;
  std::vector<char*> argv;
  _FastCGIMainArgs args{};
};

TEST(Arguments, ThreadCountTakesNumbersAboveZero) {
  struct Case {
    const char* value;
    int expected;
  };
  const Case cases[] = {{"4", 4},      {"2.9", 2},         {"0", 10},   {"-3", 10},
                        {"abc", 10},   {"", 10},           {"0.5", 10}, {"1e1", 10},
                        {"7seven", 7}, {"3000000000", 10}, {"nan", 10}, {"inf", 10}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(Arguments({"zeph-fcgi", "-t", c.value}).args.thread_count, c.expected);
  }
}

TEST(Arguments, AWrongThreadCountIsToldOnStandardError) {
  testing::internal::CaptureStderr();
  Arguments({"zeph-fcgi", "-t", "7", "-t", "many", "-t", "-1"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "zeph-fcgi: -t needs a number of threads, found 'many'; 7 are started\n"
            "zeph-fcgi: -t needs a number of threads, found '-1'; 7 are started\n");
  testing::internal::CaptureStderr();
  Arguments({"zeph-fcgi", "-t", "7", "-t"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Arguments, LaterThreadCountReplacesAnEarlierOne) {
  EXPECT_EQ(Arguments({"zeph-fcgi", "-t", "4", "x", "-t", "5"}).args.thread_count, 5);
  EXPECT_EQ(Arguments({"zeph-fcgi", "-t", "4", "-t", "none"}).args.thread_count, 4);
}

TEST(Arguments, OptionsWithoutValueChangeNothing) {
  Arguments last_t({"zeph-fcgi", "-t"});
  EXPECT_EQ(last_t.args.thread_count, 10);
  Arguments last_p({"zeph-fcgi", "-t", "3", "-p"});
  EXPECT_EQ(last_p.args.thread_count, 3);
  EXPECT_EQ(last_p.args.argument_count, 4);
  EXPECT_STREQ(last_p.argv[0], "zeph-fcgi");
}

TEST(Arguments, ValueIsNotReadAsAnOption) {
  Arguments title_t({"zeph-fcgi", "-p", "-t", "5"});
  EXPECT_EQ(title_t.args.thread_count, 10);
  EXPECT_STREQ(title_t.argv[0], "-t");
}

TEST(Arguments, OptionsAreExactlyTwoCharacters) {
  Arguments other({"zeph-fcgi", "-t5", "--t", "5", "t", "5"});
  EXPECT_EQ(other.args.thread_count, 10);
  EXPECT_EQ(other.args.argument_count, 6);
}

TEST(Arguments, TitleOverwritesAllTextsAndZeroesTheRest) {
  Arguments titled({"zeph-fcgi", "script.zpc", "-p", "name"});
  EXPECT_EQ(titled.args.argument_count, 1);
  EXPECT_EQ(titled.args.copied_argument_count, 4);
  EXPECT_STREQ(titled.argv[0], "name");
  for (size_t i = 4; i < titled.area.size(); i++) EXPECT_EQ(titled.area[i], '\0') << i;
  EXPECT_STREQ(titled.args.copied_arguments[0], "zeph-fcgi");
  EXPECT_STREQ(titled.args.copied_arguments[1], "script.zpc");
  EXPECT_STREQ(titled.args.copied_arguments[3], "name");
}

TEST(Arguments, LastTitleCounts) {
  Arguments titled({"zeph-fcgi", "-p", "first", "-p", "second"});
  EXPECT_STREQ(titled.argv[0], "second");
}

TEST(Arguments, TitleIsCutToTheAreaOfTheArguments) {
  // The title is itself in the area, so it always fits; the last byte stays a terminator.
  Arguments titled({"z", "-p", "a long title for a short name"});
  EXPECT_STREQ(titled.argv[0], "a long title for a short name");
  EXPECT_EQ(titled.area.back(), '\0');
}

TEST(Arguments, BackslashesVanishFromBothCopies) {
  Arguments stripped({"zeph-fcgi", "dir\\page\\.zpc", "\\", "\\\\a\\"});
  EXPECT_STREQ(stripped.argv[1], "dirpage.zpc");
  EXPECT_STREQ(stripped.args.copied_arguments[1], "dirpage.zpc");
  EXPECT_STREQ(stripped.argv[2], "");
  EXPECT_STREQ(stripped.args.copied_arguments[3], "a");
}

}  // namespace
