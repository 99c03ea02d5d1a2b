#include "commandline/Options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A command line, with its texts.
class Line {
 public:
  explicit Line(std::vector<std::string> words) : texts(std::move(words)) {
    texts.insert(texts.begin(), "zprun");
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
  }
  bool Parse() {
    return ParseOptions(static_cast<int>(texts.size()), pointers.data(), &options, &problem);
  }

  Options options;
  std::string problem;

 private:
  std::vector<std::string> texts;
  std::vector<char*> pointers;
};

TEST(Options, AScriptAloneHasNoArguments) {
  Line line({"page.zpc"});
  ASSERT_TRUE(line.Parse());
  EXPECT_STREQ(line.options.script, "page.zpc");
  EXPECT_EQ(line.options.argument_count, 0);
  EXPECT_EQ(line.options.config, nullptr);
  EXPECT_FALSE(line.options.help);
}

TEST(Options, WhatIsAfterTheScriptIsTheScripts) {
  Line line({"page.zpc", "one", "--help", "--config", "", "--"});
  ASSERT_TRUE(line.Parse());
  ASSERT_EQ(line.options.argument_count, 5);
  EXPECT_STREQ(line.options.arguments[0], "one");
  EXPECT_STREQ(line.options.arguments[1], "--help");
  EXPECT_STREQ(line.options.arguments[2], "--config");
  EXPECT_STREQ(line.options.arguments[3], "");
  EXPECT_STREQ(line.options.arguments[4], "--");
  EXPECT_EQ(line.options.config, nullptr);
  EXPECT_FALSE(line.options.help);
}

TEST(Options, TheConfigurationIsAfterItsOptionOrInIt) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--config", "a.toml", "page.zpc", "x"},
        std::vector<std::string>{"--config=a.toml", "page.zpc", "x"},
        std::vector<std::string>{"--config", "b.toml", "--config", "a.toml", "page.zpc", "x"},
        std::vector<std::string>{"--config", "a.toml", "--", "page.zpc", "x"}}) {
    SCOPED_TRACE(words[0]);
    Line line(words);
    ASSERT_TRUE(line.Parse());
    EXPECT_STREQ(line.options.config, "a.toml");
    EXPECT_STREQ(line.options.script, "page.zpc");
    EXPECT_EQ(line.options.argument_count, 1);
  }
}

TEST(Options, ACheckNeedsNoScript) {
  Line line({"--check", "--config", "a.toml"});
  ASSERT_TRUE(line.Parse());
  EXPECT_TRUE(line.options.check);
  EXPECT_EQ(line.options.script, nullptr);
  EXPECT_STREQ(line.options.config, "a.toml");
  Line with_script({"--check", "page.zpc", "--check"});
  ASSERT_TRUE(with_script.Parse());
  EXPECT_STREQ(with_script.options.script, "page.zpc");
  EXPECT_EQ(with_script.options.argument_count, 1);
}

TEST(Options, TwoDashesEndTheOptions) {
  Line line({"--", "--help"});
  ASSERT_TRUE(line.Parse());
  EXPECT_FALSE(line.options.help);
  EXPECT_STREQ(line.options.script, "--help");
}

TEST(Options, HelpAndVersionNeedNoScript) {
  for (const char* option : {"--help", "-h"}) {
    Line line({option});
    ASSERT_TRUE(line.Parse());
    EXPECT_TRUE(line.options.help);
    EXPECT_FALSE(line.options.version);
  }
  Line line({"--version"});
  ASSERT_TRUE(line.Parse());
  EXPECT_TRUE(line.options.version);
  EXPECT_FALSE(line.options.help);
}

TEST(Options, ATextIsInThePlaceOfAScript) {
  Line line({"-e", "{{ arg1 }}", "--get", "a=1", "page.zpc", "-e"});
  ASSERT_TRUE(line.Parse()) << line.problem;
  EXPECT_STREQ(line.options.text, "{{ arg1 }}");
  EXPECT_EQ(line.options.script, nullptr);
  EXPECT_TRUE(line.options.is_request);
  ASSERT_EQ(line.options.argument_count, 2);
  EXPECT_STREQ(line.options.arguments[0], "page.zpc");
  EXPECT_STREQ(line.options.arguments[1], "-e");
  Line alone({"-e", ""});
  ASSERT_TRUE(alone.Parse());
  EXPECT_STREQ(alone.options.text, "");
  EXPECT_EQ(alone.options.argument_count, 0);
}

TEST(Options, ADashAloneIsAScript) {
  Line line({"--errors-in-page", "-", "x"});
  ASSERT_TRUE(line.Parse());
  EXPECT_STREQ(line.options.script, "-");
  EXPECT_TRUE(line.options.errors_in_page);
  EXPECT_EQ(line.options.argument_count, 1);
}

TEST(Options, AWrongCommandLineIsTold) {
  struct Case {
    std::vector<std::string> words;
    const char* problem;
  };
  const Case cases[] = {
      {{}, "no script"},
      {{"--"}, "no script"},
      {{"--config", "a.toml"}, "no script"},
      {{"--config"}, "--config needs a file"},
      {{"--config="}, "--config needs a file"},
      {{"--config", "", "page.zpc"}, "--config needs a file"},
      {{"--verbose", "page.zpc"}, "unknown option '--verbose'"},
      {{"-t", "3", "page.zpc"}, "unknown option '-t'"},
      {{"-e"}, "-e needs a text"},
      {{"-e", "a", "-e", "b"}, "-e is there twice"},
      {{"--configuration=a", "page.zpc"}, "unknown option '--configuration=a'"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.problem);
    Line line(each.words);
    EXPECT_FALSE(line.Parse());
    EXPECT_EQ(line.problem, each.problem);
  }
}

TEST(Options, FieldsMakeARequest) {
  Line line(
      {"--get", "a=1", "--get=b=", "--post", "c==", "--cookie", "d=e=f", "page.zpc", "--get"});
  ASSERT_TRUE(line.Parse()) << line.problem;
  EXPECT_TRUE(line.options.is_request);
  EXPECT_FALSE(line.options.headers);
  ASSERT_EQ(line.options.query.size(), 2u);
  EXPECT_STREQ(line.options.query[0], "a=1");
  EXPECT_STREQ(line.options.query[1], "b=");
  ASSERT_EQ(line.options.form.size(), 1u);
  EXPECT_STREQ(line.options.form[0], "c==");
  ASSERT_EQ(line.options.cookies.size(), 1u);
  EXPECT_STREQ(line.options.cookies[0], "d=e=f");
  EXPECT_EQ(line.options.argument_count, 1);
  for (const char* option : {"--request", "--headers"}) {
    Line other({option, "page.zpc"});
    ASSERT_TRUE(other.Parse());
    EXPECT_TRUE(other.options.is_request);
    EXPECT_EQ(other.options.headers, std::string(option) == "--headers");
  }
}

TEST(Options, AFieldNeedsANameAndAValue) {
  const struct {
    std::vector<std::string> words;
    const char* problem;
  } cases[] = {
      {{"--get"}, "--get needs NAME=VALUE"},
      {{"--get="}, "--get needs NAME=VALUE"},
      {{"--post", "a", "page.zpc"}, "--post needs NAME=VALUE, found 'a'"},
      {{"--cookie", "=a", "page.zpc"}, "--cookie needs NAME=VALUE, found '=a'"},
      {{"--gets", "a=1", "page.zpc"}, "unknown option '--gets'"},
  };
  for (const auto& row : cases) {
    Line line(row.words);
    EXPECT_FALSE(line.Parse());
    EXPECT_EQ(line.problem, row.problem);
  }
}

}  // namespace
