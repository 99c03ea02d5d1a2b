#include "base/core/string_search.h"

#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/Rounds.h"

namespace {

using Search = int (*)(const char*, int, const char*, int);

struct Routine {
  const char* name;
  Search search;
  bool nocase;
};

const Routine kForward[] = {
    {"bf_search", bf_search, false},
    {"bf_searchi", bf_searchi, true},
    {"bm_search", bm_search, false},
    {"bm_searchi", bm_searchi, true},
};

const Routine kPlainReverse[] = {
    {"bf_search_reverse", bf_search_reverse, false},
    {"bf_searchi_reverse", bf_searchi_reverse, true},
};

const Routine kTableReverse[] = {
    {"bm_search_reverse", bm_search_reverse, false},
    {"bm_searchi_reverse", bm_searchi_reverse, true},
};

int Find(Search search, const std::string& pattern, const std::string& text) {
  return search(pattern.data(), static_cast<int>(pattern.size()), text.data(),
                static_cast<int>(text.size()));
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

int Position(size_t found) {
  return found == std::string::npos ? -1 : static_cast<int>(found);
}

std::string RandomText(std::mt19937& random, size_t length, const std::string& letters) {
  std::string text(length, 0);
  for (char& c : text) c = letters[random() % letters.size()];
  return text;
}

struct Case {
  const char* label;
  std::string pattern;
  std::string text;
  int first;
  int last;
};

const Case kCases[] = {
    {"in the middle", "lo", "hello, lord", 3, 7},
    {"at the start", "he", "hello", 0, 0},
    {"at the end", "lo", "hello", 3, 3},
    {"the whole text", "hello", "hello", 0, 0},
    {"a single byte", "l", "hello", 2, 3},
    {"absent", "lx", "hello", -1, -1},
    {"longer than the text", "hello!", "hello", -1, -1},
    {"in an empty text", "a", "", -1, -1},
    {"after a partial match", "aab", "aaab", 1, 1},
    {"overlapping", "aa", "aaaa", 0, 2},
    {"NULs are bytes", std::string("\0b", 2), std::string("a\0\0b", 4), 2, 2},
    {"bytes of 128 and above", "\xc3\xa4", "x\xc3\xa4y", 1, 1},
};

TEST(StringSearch, ForwardFindsTheFirst) {
  for (const Routine& routine : kForward) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(std::string(routine.name) + ' ' + c.label);
      EXPECT_EQ(Find(routine.search, c.pattern, c.text), c.first);
    }
  }
}

TEST(StringSearch, PlainReverseFindsTheLast) {
  for (const Routine& routine : kPlainReverse) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(std::string(routine.name) + ' ' + c.label);
      EXPECT_EQ(Find(routine.search, c.pattern, c.text), c.last);
    }
  }
}

TEST(StringSearch, TableReverseFindsTheLast) {
  for (const Routine& routine : kTableReverse) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(std::string(routine.name) + ' ' + c.label);
      EXPECT_EQ(Find(routine.search, c.pattern, c.text), c.last);
    }
  }
}

TEST(StringSearch, CaseIsIgnoredByTheIFormsOnly) {
  EXPECT_EQ(Find(bf_search, "WORLD", "hello World"), -1);
  EXPECT_EQ(Find(bm_search, "WORLD", "hello World"), -1);
  EXPECT_EQ(Find(bf_searchi, "WORLD", "hello World"), 6);
  EXPECT_EQ(Find(bm_searchi, "WORLD", "hello World"), 6);
  EXPECT_EQ(Find(bf_search_reverse, "W", "Ww"), 0);
  EXPECT_EQ(Find(bf_searchi_reverse, "W", "Ww"), 1);
  EXPECT_EQ(Find(bm_search_reverse, "W", "Ww"), 0);
  EXPECT_EQ(Find(bm_searchi_reverse, "W", "Ww"), 1);
  EXPECT_EQ(Find(bf_searchi, "\xe4", "\xc4"), -1);
  EXPECT_EQ(Find(bm_searchi, "\xe4", "\xc4"), -1);
}

TEST(StringSearch, EmptyPatternsHaveTheirOwnAnswers) {
  const struct {
    const char* name;
    Search search;
    int in_text;
    int in_nothing;
  } cases[] = {
      {"bf_search", bf_search, 0, -1},
      {"bf_searchi", bf_searchi, 0, -1},
      {"bf_search_reverse", bf_search_reverse, 3, -1},
      {"bf_searchi_reverse", bf_searchi_reverse, 3, -1},
      {"bm_search", bm_search, 0, 0},
      {"bm_searchi", bm_searchi, 0, 0},
      {"bm_search_reverse", bm_search_reverse, -1, -1},
      {"bm_searchi_reverse", bm_searchi_reverse, -1, -1},
      {"rk_search", rk_search, -1, -1},
      {"rk_searchi", rk_searchi, -1, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Find(c.search, "", "abc"), c.in_text);
    EXPECT_EQ(Find(c.search, "", ""), c.in_nothing);
  }
}

TEST(StringSearch, AgreesWithTheStandardLibrary) {
  std::mt19937 random(20261121);
  for (int i = 0; i < Rounds(50000); ++i) {
    std::string letters = i % 2 ? "abAB" : "abcdefgh\xc4\xe4";
    std::string text = RandomText(random, random() % 40, letters);
    std::string pattern = RandomText(random, 1 + random() % 5, letters);
    for (const Routine& routine : kForward) {
      size_t found = routine.nocase ? Lower(text).find(Lower(pattern)) : text.find(pattern);
      ASSERT_EQ(Find(routine.search, pattern, text), Position(found))
          << routine.name << ' ' << pattern << ' ' << text;
    }
    for (const Routine& routine : kPlainReverse) {
      size_t found = routine.nocase ? Lower(text).rfind(Lower(pattern)) : text.rfind(pattern);
      ASSERT_EQ(Find(routine.search, pattern, text), Position(found))
          << routine.name << ' ' << pattern << ' ' << text;
    }
  }
}

// The script operators use the plain scan below 300 bytes and the table from there on.
TEST(StringSearch, BothMethodsAgreeAroundTheLimitOfTheOperators) {
  std::mt19937 random(7);
  for (size_t length : {299u, 300u}) {
    for (int i = 0; i < 2000; ++i) {
      std::string text = RandomText(random, length, "abAB");
      std::string pattern = RandomText(random, 1 + random() % 12, "abAB");
      ASSERT_EQ(Find(bf_search, pattern, text), Find(bm_search, pattern, text));
      ASSERT_EQ(Find(bf_searchi, pattern, text), Find(bm_searchi, pattern, text));
    }
  }
}

// Lengths around each step of the search, with the pattern at every place and near misses at
// others.
TEST(StringSearch, ExactSearchesFindPatternsOfAnyLengthAtAnyPlace) {
  std::mt19937 random(20261122);
  for (int i = 0; i < Rounds(20000); ++i) {
    const std::string letters = i % 3 == 0 ? "ab" : i % 3 == 1 ? "abcd" : std::string("a\0\xff", 3);
    const size_t size = random() % (i % 50 == 0 ? 900 : 200);
    const std::string text = RandomText(random, size, letters);
    const size_t length = 1 + random() % 40;
    std::string pattern = RandomText(random, length, letters);
    if (random() % 4 && size > 0) pattern = text.substr(random() % size, length);
    if (random() % 4 == 0) pattern[random() % pattern.size()] = 'b';
    const int expected = Position(text.find(pattern));
    // At the very end of its buffer, so that a sanitizer sees a read past it.
    const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    memcpy(exact.get() + 1, text.data(), text.size());
    for (const auto search : {bf_search, bm_search}) {
      ASSERT_EQ(search(pattern.data(), static_cast<int>(pattern.size()), exact.get() + 1,
                       static_cast<int>(text.size())),
                expected)
          << "round " << i;
    }
  }
}

TEST(StringSearch, TextsFullOfFirstAndLastBytesTakeLinearTime) {
  const std::string text(4000000, 'a');
  const std::string pattern = 'a' + std::string(500000, 'a') + 'b' + std::string(500000, 'a');
  EXPECT_EQ(Find(bm_search, pattern, text), -1);
  EXPECT_EQ(Find(bf_search, pattern, text + pattern), 4000000);
}

// Repetitive texts make some searches change to their linear method midway.
TEST(StringSearch, RepetitiveTextsGiveTheSameAnswers) {
  std::mt19937 random(20261121);
  for (int i = 0; i < 3000; ++i) {
    std::string unit = RandomText(random, 1 + random() % 3, "aAb");
    std::string text;
    while (text.size() < 400) text += random() % 12 ? unit : RandomText(random, 2, "aAb");
    std::string pattern = RandomText(random, 1, "aAb");
    while (pattern.size() < 60) pattern += unit;
    if (random() % 2) pattern = text.substr(random() % 300, 60);
    for (const Routine& routine : kForward) {
      const size_t found = routine.nocase ? Lower(text).find(Lower(pattern)) : text.find(pattern);
      ASSERT_EQ(Find(routine.search, pattern, text), Position(found))
          << routine.name << ' ' << pattern << ' ' << text;
    }
    for (const Routine& routine : kPlainReverse) {
      const size_t found = routine.nocase ? Lower(text).rfind(Lower(pattern)) : text.rfind(pattern);
      ASSERT_EQ(Find(routine.search, pattern, text), Position(found))
          << routine.name << ' ' << pattern << ' ' << text;
    }
  }
}

TEST(StringSearch, RepetitiveTextsTakeLinearTime) {
  std::string text(4000000, 'a');
  std::string pattern = 'b' + std::string(1000000, 'a');
  EXPECT_EQ(Find(bm_searchi, pattern, text), -1);
  EXPECT_EQ(Find(bm_search, pattern, text), -1);
  EXPECT_EQ(Find(bm_searchi, pattern, text + 'B' + std::string(1000000, 'A')), 4000000);
}

// The window moves back by the last place of a byte in the pattern.
TEST(StringSearch, TableReverseMayPassOverAPatternWithAByteTwice) {
  EXPECT_EQ(Find(bf_search_reverse, "xccy", "xccy?"), 0);
  EXPECT_EQ(Find(bm_search_reverse, "xccy", "xccy?"), -1);
  EXPECT_EQ(Find(bm_searchi_reverse, "xccy", "xccy?"), -1);
}

// The table is in lower case, but is looked up with the text's raw byte.
TEST(StringSearch, TableReverseIgnoringCaseMayPassOverCapitals) {
  EXPECT_EQ(Find(bm_searchi_reverse, "abc", "abc?"), 0);
  EXPECT_EQ(Find(bf_searchi_reverse, "abc", "aBc?"), 0);
  EXPECT_EQ(Find(bm_searchi_reverse, "abc", "aBc?"), -1);
  EXPECT_EQ(Find(bm_searchi_reverse, "aBc", "??ABC"), 2);
}

TEST(StringSearch, TableReverseFindsPatternsOfDifferentBytes) {
  std::mt19937 random(20261121);
  for (int i = 0; i < Rounds(20000); ++i) {
    std::string text = RandomText(random, random() % 40, "abcd");
    std::string pattern = std::string("abcd").substr(random() % 4);
    ASSERT_EQ(Find(bm_search_reverse, pattern, text), Position(text.rfind(pattern)));
    ASSERT_EQ(Find(bm_searchi_reverse, pattern, text), Position(text.rfind(pattern)));
  }
}

TEST(StringSearch, RollingHashNeverFindsThePositionZero) {
  EXPECT_EQ(Find(rk_search, "ab", "abxab"), 3);
  EXPECT_EQ(Find(rk_search, "ab", "abx"), -1);
  EXPECT_EQ(Find(rk_search, "abc", "abc"), -1);
  EXPECT_EQ(Find(rk_searchi, "AB", "abxaB"), 3);
  EXPECT_EQ(Find(rk_search, "abcd", "abc"), -1);
}

TEST(StringSearch, RollingHashTakesTheByteAfterTheTextForNUL) {
  // The byte after the text is not a NUL; it is not read.
  EXPECT_EQ(rk_search("b\0", 2, "aabX", 3), 2);
  EXPECT_EQ(rk_search("bX", 2, "aabX", 3), -1);
  EXPECT_EQ(rk_search("\0", 1, "aabX", 3), 3);
  std::string exact("aab");
  exact.shrink_to_fit();
  EXPECT_EQ(rk_searchi("B\0", 2, exact.data(), 3), 2);
}

TEST(StringSearch, RollingHashAgreesWithTheStandardLibrary) {
  std::mt19937 random(20261121);
  for (int i = 0; i < Rounds(50000); ++i) {
    std::string letters = i % 2 ? "abAB" : std::string("ab\0\xff\x80", 5);
    std::string text = RandomText(random, random() % 40, letters);
    std::string pattern = RandomText(random, 1 + random() % 5, letters);
    if (pattern.size() > text.size()) continue;
    std::string longer = text + '\0';
    ASSERT_EQ(Find(rk_search, pattern, text), Position(longer.find(pattern, 1)));
    ASSERT_EQ(Find(rk_searchi, pattern, text), Position(Lower(longer).find(Lower(pattern), 1)));
  }
}

}  // namespace
