// The library of extensions/zephregex, as expressions of the language see it. The second opinion is
// Python's library, where patterns mean the same to both.

#include <sstream>

#include "tests/extensions/Library.h"

namespace {

class Regex : public Library {
 protected:
  Regex() : Library("zephregex") {
    // For texts that expressions cannot write, and to see structures.
    EXPECT_TRUE(machine->external_calls.RegisterDSO(InBuild("lib/zephstd.so").c_str()));
  }
  void Prepare() override {
    EXPECT_TRUE(machine->external_calls.RegisterDSO(InBuild("lib/zephstd.so").c_str()));
  }
};

class SlowRegex : public Regex {};

TEST_F(Regex, MatchesAreFound) {
  const ValueCase cases[] = {
      {"regexmatch('abc', 'b')", "2"},
      {"regexmatch('äbc', 'b')", "2"},
      {"regexmatch('abc', 'x')", "0"},
      {"regexmatch('abc', '')", "1"},
      {"regexmatch('', '^$')", "1"},
      {"regexmatch('', 'a')", "0"},
      {"regexmatch('Ärger', '(?i)^ärger$')", "1"},
      {"regexmatch('straße 5', '^\\w+ \\d+$')", "1"},
      {"regexmatch('x😀y', '^x.y$')", "1"},
      {"regexmatch(12345, '^\\d+$')", "1"},
      {"regexmatch('ann@example.org', '^[^@\\s]+@[^@\\s]+\\.[a-z]{2,}$')", "1"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, GroupsHavePlacesAndNames) {
  const ValueCase cases[] = {
      {"jsonencode(regexgroups('2026-11-22', '(\\d+)-(\\d+)'))",
       R"({"groups":["2026","11"],"match":"2026-11"})"},
      {"jsonencode(regexgroups('2026-11', '(?<year>\\d+)-(?<month>\\d+)'))",
       R"({"groups":["2026","11"],"match":"2026-11","month":"11","year":"2026"})"},
      {"jsonencode(regexgroups('b', '(a)?(b)'))", R"({"groups":["","b"],"match":"b"})"},
      {"jsonencode(regexgroups('b', 'b'))", R"({"groups":[],"match":"b"})"},
      {"regexgroups('b', 'x')", ""},
      {"ISNULL regexgroups('b', 'x')", "1"},
      {"jsonencode(regexall('a1b22', '[a-z](\\d+)'))",
       R"([{"groups":["1"],"match":"a1"},{"groups":["22"],"match":"b22"}])"},
      {"jsonencode(regexall('abc', 'x'))", "[]"},
      {"join(column(regexall('äö', ''), 'match'), '|')", "||"},
      {"join(column(regexall('aab', 'a*'), 'match'), '|')", "aa||"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, MatchesAreReplaced) {
  const ValueCase cases[] = {
      {"regexreplace('a1b2', '\\d', '#')", "a#b#"},
      {"regexreplace('Ann Lee', '(\\w+) (\\w+)', '$2, $1')", "Lee, Ann"},
      {"regexreplace('ab', '(?<x>a)', '[${x}$0$$${1}]')", "[aa$a]b"},
      {"regexreplace('abc', '', '-')", "-a-b-c-"},
      {"regexreplace('äö', '', '-')", "-ä-ö-"},
      {"regexreplace('aab', 'a*', '-')", "--b-"},
      {"regexreplace('abc', 'x', '-')", "abc"},
      {"regexreplace('', '', '-')", "-"},
      {"regexreplace('', 'a', '-')", ""},
      {"regexreplace('a', 'a', 'cost $ 5 $x ${')", "cost $ 5 $x ${"},
      {"regexreplace('a', 'a', '$1')",
       "!regexreplace: 'with' names a group that the pattern has not: '1'"},
      {"regexreplace('a', 'a', '${tea}')",
       "!regexreplace: 'with' names a group that the pattern has not: 'tea'"},
      {"regexreplace('a', 'a', '${99999999999}')",
       "!regexreplace: 'with' names a group that the pattern has not: '99999999999'"},
      {"urlencode(regexreplace(urldecode('a%0Ab'), '(?m)^', '> '))", "%3E%20a%0A%3E%20b"},
      {"regexreplace('foobar', 'foo\\Kbar', 'X')", "fooX"},
      {"bytes(regexreplace(repeat('a', 99999), 'a', repeat('b', 1000)))",
       "!regexreplace: the result is larger than 64 MB"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, TextsAreParted) {
  const ValueCase cases[] = {
      {"jsonencode(regexsplit('a, b;c', '[,;]\\s*'))", R"(["a","b","c"])"},
      {"jsonencode(regexsplit(',a,', ','))", R"(["","a",""])"},
      {"jsonencode(regexsplit('abc', ''))", R"(["a","b","c"])"},
      {"jsonencode(regexsplit('äö', ''))", R"(["ä","ö"])"},
      {"jsonencode(regexsplit('', ','))", "[]"},
      {"jsonencode(regexsplit('a', ','))", R"(["a"])"},
      {"jsonencode(regexsplit('aXbX', '(X)'))", R"(["a","b",""])"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, WhatIsWrongIsToldWithItsPlace) {
  const ValueCase cases[] = {
      {"regexproblem('a(b')", "byte 4: missing closing parenthesis"},
      {"regexproblem('a')", ""},
      {"regexproblem('[z-a]')", "byte 4: range out of order in character class"},
      {"regexmatch('a', 'a(b')",
       "!regexmatch: 'pattern' is wrong at byte 4: missing closing parenthesis"},
      {"regexmatch('a\xFFz', 'z')", "!regexmatch: 'text' is no UTF-8 at byte 2"},
      {"regexmatch('ab\xC3', 'a')", "!regexmatch: 'text' is no UTF-8 at byte 3"},
      {"regexmatch(split('a', ','), 'a')", "!regexmatch: 'text' is no text"},
      {"regexmatch('a', split('a', ','))", "!regexmatch: 'pattern' is no text"},
      {"regexproblem(repeat('a', 16385))", "the pattern has more than 16 KB"},
      {"regexproblem(repeat('a', 16384))", ""},
      {"regexmatch(repeat('a', 40) $ 'b', '^(a+)+$')",
       "!regexmatch: the pattern takes too many steps for this text"},
      {"regexall(repeat('a', 100001), 'a')", "!regexall: there are more than 100,000 matches"},
  };
  EXPECT_VALUES(cases);
  EXPECT_THAT(Value("regexproblem('\xFF')"), testing::HasSubstr("UTF-8"));
}

TEST_F(Regex, QuotedTextsMatchThemselves) {
  std::string all;
  for (int byte = 0; byte < 128; byte++) all += static_cast<char>(byte);
  Set("g.t", all + "äö€😀");
  const ValueCase cases[] = {
      {"regexmatch(g.t, '^' $ regexquote(g.t) $ '$')", "1"},
      {"regexmatch(g.t, '(?x)^' $ regexquote(g.t) $ '$')", "1"},
      {"regexmatch('-', '[a' $ regexquote('-') $ 'z]')", "1"},
      {"regexmatch('b', '[a' $ regexquote('-') $ 'z]')", "0"},
      {"regexquote('a.b')", "a\\.b"},
      {"regexquote('')", ""},
  };
  EXPECT_VALUES(cases);
}

// More patterns than a thread keeps, twice, so that some are compiled again.
TEST_F(Regex, PatternsComeAndGo) {
  for (int round = 0; round < 2; round++) {
    for (int i = 0; i < 200; i++) {
      const std::string n = std::to_string(i);
      EXPECT_EQ(Value("regexreplace('x" + n + "y', 'x(" + n + ")y', '$1')"), n);
    }
  }
}

TEST_F(Regex, LongTextsAreMatched) {
  const ValueCase cases[] = {
      {"regexmatch(repeat('ab', 20000) $ 'c', '^(?:a|b)*c$')", "1"},
      {"bytes(regexreplace(repeat('a b ', 10000), '\\s+', ''))", "20000"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, ALoopOfMatchesEndsWithTheTimeOfTheScript) {
  SetRemaining(0);
  EXPECT_EQ(Value("regexreplace(repeat('a', 200), 'a', 'b') EQ repeat('b', 200)"), "1");
  SetRemaining(-1);
  EXPECT_EQ(Value("regexreplace(repeat('a', 300), 'a', 'b') EQ repeat('b', 300)"), "1");
  SetRemaining(0);
  EXPECT_EQ(Value("regexreplace(repeat('a', 300), 'a', 'b')"),
            "!regexreplace: the time limit of the script has passed");
}

// The steps of a match are limited at each place only, and a text has many.
TEST_F(Regex, ASearchWithoutAMatchEndsWithTheTimeOfTheScript) {
  for (const char* pattern : {"[a-z]+[0-9]", "(?=[a-z])[a-z]+[0-9]", "x?\\w+-|[a-z]+[0-9]"}) {
    SetRemaining(0);
    EXPECT_EQ(Value(std::string("regexmatch(repeat('a', 1000000), '") + pattern + "')"),
              "!regexmatch: the time limit of the script has passed")
        << pattern;
  }
}

// A script without a time limit is not held for longer than ten seconds.
TEST_F(SlowRegex, ASearchEndsWithoutATimeLimit) {
  EXPECT_EQ(Value("regexmatch(repeat('a', 1000000), '[a-z]+[0-9]')"),
            "!regexmatch: the pattern takes more than 10 seconds for this text");
}

TEST_F(Regex, OptionsAndVerbsAtTheStartKeepTheirMeaning) {
  Set("g.t", "a\r\nb");
  const ValueCase cases[] = {
      {"regexmatch(g.t, '(?m)^b')", "4"},
      {"regexmatch(g.t, '(*CRLF)(?m)^b')", "4"},
      {"regexmatch(g.t, '(*CR)(?m)^b')", "0"},
      {"regexmatch('aab', '(*COMMIT).b')", "0"},
      {"regexmatch('aab', '(*LIMIT_MATCH=1000)(*UTF)b')", "3"},
      {"regexreplace('aab', '\\Ga', 'x')", "xxb"},
      {"regexreplace('baa', '\\Ga', 'x')", "baa"},
      {"regexreplace('a(b)', '(?C7)\\((?C)', '')", "ab)"},
      {"regexmatch('x', '*')",
       "!regexmatch: 'pattern' is wrong at byte 1: quantifier does not "
       "follow a repeatable item"},
  };
  EXPECT_VALUES(cases);
  // Compiled with more than its text has.
  EXPECT_EQ(Value("regexmatch(repeat('a', 16384), repeat('a', 16384))"), "1");
}

TEST_F(Regex, ResultsHaveLimits) {
  const ValueCase cases[] = {
      {"bytes(regexreplace('a', 'a', repeat('b', 67108864)))", "67108864"},
      {"bytes(regexreplace('a', 'a', repeat('b', 67108864) $ '$$'))",
       "!regexreplace: the result is larger than 64 MB"},
      {"bytes(regexreplace('a', 'a', repeat('b', 67108864) $ '$'))",
       "!regexreplace: the result is larger than 64 MB"},
      {"regexall(repeat('a', 100000), '(a)()()()()()()()')",
       "!regexall: the result has more than 1,000,000 elements"},
      {"regexall(repeat('a', 20000), '(?=(a*))a')", "!regexall: the result is larger than 64 MB"},
      {"regexgroups(repeat('a', 5000000), '((((((((((((((a*))))))))))))))')",
       "!regexgroups: the result is larger than 64 MB"},
      {"bytes(regexquote(repeat('.', 40000000)))", "!regexquote: the result is larger than 64 MB"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(Regex, WhatAMessageQuotesIsEncoded) {
  EXPECT_EQ(Value("regexreplace('a', 'a', '${<img src=x onerror=alert(1)>}')"),
            "!regexreplace: 'with' names a group that the pattern has not: "
            "'&lt;img src=x onerror=alert(1)&gt;'");
}

TEST_F(Regex, AnotherLibraryFindsTheSame) {
  const std::string all = Python(R"(
import random, re
random.seed(4)
atoms = ['a', 'b', '[ab]', '.', '(a|bc)', 'c?', 'a*', 'b+', '(?:ab)+', '\\w', '[^a]', 'a{1,2}', '(b)?']
for i in range(500):
  pattern = ''.join(random.choices(atoms, k=random.randrange(1, 5)))
  text = ''.join(random.choices('abcé-', k=random.randrange(1, 12)))
  found = re.search(pattern, text)
  print(pattern, text, found.start() + 1 if found else 0, re.sub(pattern, '<\\g<0>>', text))
)");
  if (all.empty()) GTEST_SKIP() << "no Python";
  std::istringstream rows(all);
  std::string pattern, text, place, replaced;
  int compared = 0;
  while (rows >> pattern >> text >> place >> replaced) {
    Set("g.p", pattern);
    Set("g.t", text);
    EXPECT_EQ(Value("regexmatch(g.t, g.p)"), place) << pattern << " in " << text;
    EXPECT_EQ(Value("regexreplace(g.t, g.p, '<$0>')"), replaced) << pattern << " in " << text;
    compared++;
  }
  EXPECT_EQ(compared, 500);
}

}  // namespace
