#include "base/core/StringClass.h"

#include <climits>
#include <cstring>
#include <new>
#include <random>
#include <string>

#include "base/core/ShortAssign.h"
#include "base/core/ThreadMemory.h"
#include "gtest/gtest.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Rounds.h"

namespace {

// The content by its length, NULs included.
std::string Bytes(const String& s) {
  return s.data ? std::string(s.data, s.length) : std::string("(null)");
}

bool IsNull(const String& s) {
  return !s.data && s.allocated == 0 && s.length == 0;
}

bool IsEmptyOf24(const String& s) {
  return s.data && s.allocated == 24 && s.length == 0 && s.data[0] == 0;
}

// Three bytes, a NUL, three more.
String WithNUL() {
  return String("abc\0def", 7);
}

char* Buffer(const char* text, int size) {
  char* buffer = new char[size];
  memset(buffer, '#', size);
  memcpy(buffer, text, strlen(text));
  return buffer;
}

// The buffer may be kept if the heap has given enough, but then it is told as a new one is.
TEST(String, AnAssignmentToAnAdoptedBufferLeavesWhatANewOneHas) {
  for (int before = 0; before < 30; before++) {
    for (int length = 0; length < 30; length++) {
      auto* buffer = new char[static_cast<size_t>(before) + 1];
      memset(buffer, 'b', static_cast<size_t>(before));
      String s(buffer, before, before + 1);
      const std::string text(static_cast<size_t>(length), 'x');
      s.assign(text.data(), length);
      ASSERT_EQ(Bytes(s), text);
      ASSERT_EQ(s.data[length], 0);
      ASSERT_EQ(s.allocated, length <= before ? before + 1 : (length + 24) / 24 * 24);
    }
  }
  auto* buffer = new char[5];
  memcpy(buffer, "abcd", 5);
  String own(buffer, 4, 5);
  own.assign(own.data + 1, 3);
  EXPECT_EQ(Bytes(own), "bcd");
  own.assign("abcdefg", 7);
  EXPECT_EQ(Bytes(own), "abcdefg");
}

TEST(String, DefaultIsTheNullString) {
  EXPECT_TRUE(IsNull(String()));
}

TEST(String, IsThreeFieldsInOrder) {
  EXPECT_EQ(offsetof(String, data), 0u);
  EXPECT_EQ(offsetof(String, allocated), sizeof(char*));
  EXPECT_EQ(offsetof(String, length), sizeof(char*) + sizeof(int));
  EXPECT_EQ(sizeof(String), sizeof(char*) + 2 * sizeof(int));
}

TEST(String, NullAndEmptyTextsGiveAnEmptyStringWithABuffer) {
  EXPECT_TRUE(IsEmptyOf24(String(nullptr, -1)));
  EXPECT_TRUE(IsEmptyOf24(String("", -1)));
  EXPECT_TRUE(IsEmptyOf24(String("abc", 0)));
}

TEST(String, BuffersAreMultiplesOf24WithRoomForTheTerminator) {
  std::string text(200, 'x');
  const struct {
    int length;
    int allocated;
  } cases[] = {{1, 24}, {22, 24}, {23, 24}, {24, 48}, {47, 48}, {48, 72}, {71, 72}, {72, 96}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    String s(text.data(), c.length);
    EXPECT_EQ(s.allocated, c.allocated);
    EXPECT_EQ(s.length, c.length);
    EXPECT_EQ(s.data[c.length], 0);
  }
}

TEST(String, AssignMeasuresWithMinusOneAndTakesOtherNegativesAsZero) {
  EXPECT_EQ(Bytes(String("abc", -1)), "abc");
  EXPECT_EQ(Bytes(String("abc", -2)), "");
}

TEST(String, AssignReusesABufferThatIsLargeEnough) {
  String s(std::string(60, 'x').c_str());
  char* before = s.data;
  s.assign("abc");
  EXPECT_EQ(s.data, before);
  EXPECT_EQ(s.allocated, 72);
  EXPECT_STREQ(s.data, "abc");
}

TEST(String, AssignOfNothingKeepsTheBufferAndTerminates) {
  String s("abc");
  char* before = s.data;
  s.assign(nullptr, 5);
  EXPECT_EQ(s.data, before);
  EXPECT_TRUE(IsEmptyOf24(s));
}

TEST(String, AssignOfOneByte) {
  String s;
  s.assign('x');
  EXPECT_EQ(s.allocated, 24);
  EXPECT_STREQ(s.data, "x");
  String tiny(Buffer("", 1), 0, 1);
  tiny.assign('x');
  EXPECT_STREQ(tiny.data, "x");
}

TEST(String, AssignOfPartOfItselfIsSafe) {
  String s("abcdefgh");
  s.assign(s.data + 2, 5);
  EXPECT_EQ(Bytes(s), "cdefg");
  String full(Buffer("0123456789abcdef", 17), 16, 17);
  full.assign(full.data, 17);
  EXPECT_EQ(full.length, 17);
  EXPECT_EQ(full.allocated, 24);
  EXPECT_EQ(full.data[17], 0);
}

TEST(String, AssignNocopyKeepsABufferWithRoomForTheTerminator) {
  char* buffer = Buffer("abc", 4);
  String s(buffer, 3, 4);
  EXPECT_EQ(s.data, buffer);
  EXPECT_EQ(s.allocated, 4);
  EXPECT_STREQ(s.data, "abc");
}

TEST(String, AssignNocopyCopiesABufferWithoutRoom) {
  String s(Buffer("abc", 3), 3, 3);
  EXPECT_EQ(s.allocated, 24);
  EXPECT_STREQ(s.data, "abc");
}

TEST(String, AssignNocopyTakesItsOwnBufferAgain) {
  String s("abcdef");
  s.assign_nocopy(s.data, 3, s.allocated);
  EXPECT_STREQ(s.data, "abc");
  s.assign_nocopy(s.data, 3, 3);
  EXPECT_STREQ(s.data, "abc");
  EXPECT_EQ(s.allocated, 24);
}

TEST(String, AssignNocopyOfNullGivesTheNullString) {
  String s("abc");
  s.assign_nocopy(nullptr, 3, 4);
  EXPECT_TRUE(IsNull(s));
}

TEST(String, CopyOfANullStringIsEmpty) {
  String null;
  EXPECT_TRUE(IsEmptyOf24(String(null)));
  String assigned("abc");
  assigned = null;
  EXPECT_TRUE(IsEmptyOf24(assigned));
  String other;
  other = null;
  EXPECT_TRUE(IsEmptyOf24(other));
}

TEST(String, CopyKeepsEmbeddedNULs) {
  String s = WithNUL();
  EXPECT_EQ(Bytes(String(s)), std::string("abc\0def", 7));
}

TEST(String, AssigningToItselfChangesNothing) {
  String s("abc");
  String& same = s;
  s = same;
  EXPECT_EQ(Bytes(s), "abc");
  s = std::move(same);
  EXPECT_EQ(Bytes(s), "abc");
}

TEST(String, MoveTakesTheBufferAndLeavesTheNullString) {
  String s("abc");
  char* buffer = s.data;
  String t(std::move(s));
  EXPECT_EQ(t.data, buffer);
  EXPECT_TRUE(IsNull(s));
  String u("old");
  u = std::move(t);
  EXPECT_EQ(u.data, buffer);
  EXPECT_TRUE(IsNull(t));
  EXPECT_TRUE(IsNull(String(String())));
}

TEST(String, CatAppendsTexts) {
  String s("abc");
  s.cat("def");
  s.cat("ghi", 2);
  s.cat(nullptr, 7);
  s.cat("x", -3);
  EXPECT_STREQ(s.data, "abcdefgh");
  EXPECT_EQ(s.length, 8);
}

TEST(String, CatToTheNullStringIsAssign) {
  String s;
  s.cat("");
  EXPECT_TRUE(IsEmptyOf24(s));
  String t;
  t.cat("abc");
  EXPECT_STREQ(t.data, "abc");
}

TEST(String, CatGrowsOnlyWhenTheTerminatorNoLongerFits) {
  String s("0123456789");
  s.cat("0123456789abc");
  EXPECT_EQ(s.length, 23);
  EXPECT_EQ(s.allocated, 24);
  s.cat("d");
  EXPECT_EQ(s.allocated, 48);
  EXPECT_STREQ(s.data, "01234567890123456789abcd");
}

TEST(String, CatOfItselfIsSafe) {
  String s("abcdefghijkl");
  s.cat(s.data, s.length);
  EXPECT_STREQ(s.data, "abcdefghijklabcdefghijkl");
  s.cat(s.data + 1, 2);
  EXPECT_STREQ(s.data, "abcdefghijklabcdefghijklbc");
}

TEST(String, CatOfAByteGrowsWhileAByteWouldStillFit) {
  String s("0123456789012345678901");
  ASSERT_EQ(s.length, 22);
  ASSERT_EQ(s.allocated, 24);
  s.cat('x');
  EXPECT_EQ(s.allocated, 48);
  EXPECT_STREQ(s.data, "0123456789012345678901x");
  String before("012345678901234567890");
  before.cat('x');
  EXPECT_EQ(before.allocated, 24);
}

TEST(String, CatOfBytesBuildsATextInStepsOf24) {
  String s;
  std::string expected;
  int allocated = 0;
  for (int i = 0; i < 500; ++i) {
    if (static_cast<int>(expected.size()) + 2 >= allocated) allocated = (allocated + 24) / 24 * 24;
    s.cat(static_cast<char>(i));
    expected += static_cast<char>(i);
    ASSERT_EQ(s.allocated, allocated) << i;
  }
  EXPECT_EQ(Bytes(s), expected);
  EXPECT_EQ(s.data[s.length], 0);
}

TEST(String, PrependPutsTextsInFront) {
  String s("def");
  s.prepend("abc");
  s.prepend('_');
  EXPECT_STREQ(s.data, "_abcdef");
  s.prepend(s.data + 1, 3);
  EXPECT_STREQ(s.data, "abc_abcdef");
}

TEST(String, PrependWorksOnTheNullString) {
  String s;
  s.prepend("abc");
  EXPECT_STREQ(s.data, "abc");
  EXPECT_EQ(s.allocated, 24);
  String t;
  t.prepend("");
  EXPECT_TRUE(IsEmptyOf24(t));
}

TEST(String, PrependKeepsTheSizeWhileTheTextFits) {
  String s(std::string(60, 'x').c_str());
  s.assign("b");
  s.prepend("a");
  EXPECT_EQ(s.allocated, 72);
  s.prepend(std::string(70, 'c').c_str());
  EXPECT_EQ(s.length, 72);
  EXPECT_EQ(s.allocated, 96);
}

TEST(String, PrependOfNULPrependsNothing) {
  String s("abc");
  s.prepend('\0');
  EXPECT_EQ(Bytes(s), "abc");
}

TEST(String, ReleaseHandsTheBufferOver) {
  String s("abc");
  char* before = s.data;
  char* buffer = s.release();
  EXPECT_EQ(buffer, before);
  EXPECT_TRUE(IsNull(s));
  EXPECT_EQ(s.release(), nullptr);
  delete[] buffer;
}

TEST(String, DestroyLeavesTheNullString) {
  String s("abc");
  s.destroy();
  EXPECT_TRUE(IsNull(s));
  s.destroy();
  EXPECT_TRUE(IsNull(s));
}

TEST(String, ChopLeavesTheTerminatorWhereItWas) {
  String s("abc");
  s.chop(1);
  EXPECT_EQ(s.length, 2);
  EXPECT_STREQ(s.data, "abc");
}

TEST(String, ChopOfMoreThanThereIsChangesNothing) {
  String s("abc");
  s.chop(4);
  EXPECT_EQ(s.length, 3);
  s.chop(-1);
  EXPECT_EQ(s.length, 3);
  s.chop(INT_MIN);
  EXPECT_EQ(s.length, 3);
  s.chop(3);
  EXPECT_EQ(s.length, 0);
  String null;
  null.chop(1);
  EXPECT_TRUE(IsNull(null));
}

TEST(String, TruncateOnlyShortens) {
  String s("abcdef");
  s.truncate(10);
  EXPECT_EQ(s.length, 6);
  s.truncate(2);
  EXPECT_EQ(s.length, 2);
  EXPECT_STREQ(s.data, "abcdef");
  s.truncate(static_cast<unsigned>(-1));
  EXPECT_EQ(s.length, 2);
}

TEST(String, BeforePosition) {
  String s("abcdef");
  EXPECT_EQ(Bytes(s.before(2)), "ab");
  EXPECT_EQ(Bytes(s.before(0)), "");
  EXPECT_EQ(Bytes(s.before(6)), "abcdef");
  EXPECT_EQ(Bytes(s.before(7)), "abcdef");
  EXPECT_TRUE(IsNull(s.before(-1)));
  EXPECT_EQ(Bytes(WithNUL().before(5)), std::string("abc\0d", 5));
}

TEST(String, BeforePattern) {
  String s("key=value=x");
  EXPECT_EQ(Bytes(s.before("=")), "key");
  EXPECT_EQ(Bytes(s.before("key")), "");
  EXPECT_EQ(Bytes(s.before("?")), "key=value=x");
  EXPECT_EQ(Bytes(s.before("")), "key=value=x");
  EXPECT_EQ(Bytes(s.before("key=value=x=")), "key=value=x");
}

TEST(String, AfterPosition) {
  String s("abcd");
  EXPECT_EQ(Bytes(s.after(2)), "d");
  EXPECT_EQ(Bytes(s.after(-1)), "abcd");
  EXPECT_EQ(Bytes(s.after(INT_MIN)), "abcd");
  EXPECT_TRUE(IsEmptyOf24(s.after(3)));
  EXPECT_TRUE(IsEmptyOf24(s.after(4)));
  EXPECT_TRUE(IsEmptyOf24(s.after(INT_MAX)));
  EXPECT_EQ(Bytes(WithNUL().after(0)), "bc");
}

TEST(String, AfterPattern) {
  String s("key=value=x");
  EXPECT_EQ(Bytes(s.after("=")), "value=x");
  EXPECT_EQ(Bytes(s.after("=", 4)), "x");
  EXPECT_TRUE(IsEmptyOf24(s.after("x")));
  EXPECT_TRUE(IsEmptyOf24(s.after("?")));
  EXPECT_TRUE(IsEmptyOf24(s.after("")));
  EXPECT_EQ(Bytes(WithNUL().after("a")), "bc");
}

TEST(String, FromPosition) {
  String s("abcd");
  EXPECT_EQ(Bytes(s.from(2)), "cd");
  EXPECT_EQ(Bytes(s.from(-7)), "abcd");
  EXPECT_TRUE(IsEmptyOf24(s.from(4)));
  EXPECT_EQ(Bytes(WithNUL().from(1)), "bc");
  EXPECT_EQ(Bytes(WithNUL().from(4)), "def");
}

TEST(String, FromPattern) {
  String s("key=value=x");
  EXPECT_EQ(Bytes(s.from("=")), "=value=x");
  EXPECT_EQ(Bytes(s.from("=", 4)), "=x");
  EXPECT_TRUE(IsEmptyOf24(s.from("?")));
}

// Bytes past the length are still text for code that reads to the NUL.
TEST(String, TextToTheNULReachesAfterAChoppedEnd) {
  String s("abcdef");
  s.chop(2);
  EXPECT_EQ(Bytes(s.from(2)), "cdef");
  EXPECT_EQ(Bytes(s.after(3)), "ef");
  EXPECT_EQ(Bytes(s.at(2, 100)), "cd");
}

TEST(String, AtTakesAnEndAndNotACount) {
  String s("abcdefg");
  EXPECT_EQ(Bytes(s.at(2, 5)), "cde");
  EXPECT_EQ(Bytes(s.at(2, 100)), "cdefg");
  EXPECT_EQ(Bytes(s.at(-3, 2)), "ab");
  EXPECT_TRUE(IsEmptyOf24(s.at(7, 9)));
  EXPECT_TRUE(IsEmptyOf24(s.at(5, 2)));
  EXPECT_EQ(Bytes(WithNUL().at(2, 5)), std::string("c\0d", 3));
}

TEST(String, SearchFindsTheFirstAtOrAfterStart) {
  const struct {
    const char* label;
    const char* text;
    const char* pattern;
    int start;
    int expected;
  } cases[] = {
      {"first", "abcabc", "bc", 0, 1},
      {"from there on", "abcabc", "bc", 2, 4},
      {"at start itself", "abcabc", "bc", 4, 4},
      {"after the last", "abcabc", "bc", 5, -1},
      {"partial match before the match", "aab", "ab", 0, 1},
      {"empty pattern", "abc", "", 0, -1},
      {"longer than the text", "abc", "abcd", 0, -1},
      {"longer than the rest", "abcab", "abc", 3, -1},
      {"empty text", "", "a", 0, -1},
      {"start at the end", "abc", "c", 3, -1},
      {"start after the end", "abc", "c", 9, -1},
      {"negative start", "abc", "a", -5, 0},
      {"case counts", "abc", "B", 0, -1},
      {"null pattern", "abc", nullptr, 0, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    String s(c.text);
    EXPECT_EQ(s.search(c.pattern, c.start), c.expected);
    EXPECT_EQ(s.contains(c.pattern, c.start), c.expected >= 0);
    if (c.start == 0) {
      EXPECT_EQ(s.index(c.pattern), c.expected);
    }
  }
}

TEST(String, SearchRunsOverNULs) {
  EXPECT_EQ(WithNUL().search("de"), 4);
}

TEST(String, SearchAgreesWithTheStandardLibrary) {
  std::mt19937 random(7);
  for (int i = 0; i < Rounds(20000); ++i) {
    std::string text(random() % 12, 0);
    std::string pattern(1 + random() % 3, 0);
    for (char& c : text) c = static_cast<char>('a' + random() % 2);
    for (char& c : pattern) c = static_cast<char>('a' + random() % 2);
    int start = static_cast<int>(random() % 14);
    size_t found = text.find(pattern, start);
    ASSERT_EQ(String(text.c_str()).search(pattern.c_str(), start),
              found == std::string::npos ? -1 : static_cast<int>(found))
        << text << ' ' << pattern << ' ' << start;
  }
}

TEST(String, ContainsAByte) {
  EXPECT_EQ(WithNUL().contains('d', 0), 1);
  EXPECT_EQ(WithNUL().contains('\0', 0), 1);
  EXPECT_EQ(WithNUL().contains('a', 1), 0);
  EXPECT_EQ(WithNUL().contains('f', 99), 0);
  EXPECT_EQ(String().contains('a', 0), 0);
}

TEST(String, FreqCountsOverlappingOccurrences) {
  EXPECT_EQ(String("aaa").freq("aa"), 2);
  EXPECT_EQ(String("aaaa").freq("aa"), 3);
  EXPECT_EQ(String("abab").freq("ab"), 2);
  EXPECT_EQ(String("abab").freq("x"), 0);
  EXPECT_EQ(String("abab").freq(""), 0);
}

TEST(String, MatchesAByteUpToTheTerminator) {
  String s("abc");
  EXPECT_EQ(s.matches('b', 1), 1);
  EXPECT_EQ(s.matches('x', 1), 0);
  EXPECT_EQ(s.matches('\0', 3), 1);
  EXPECT_EQ(s.matches('\0', 4), 0);
  EXPECT_EQ(s.matches('a', -1), 0);
  EXPECT_EQ(String().matches('\0', 0), 0);
}

TEST(String, MatchesIsATestOfTheWholeTail) {
  const struct {
    const char* label;
    String text;
    const char* pattern;
    int position;
    int expected;
  } cases[] = {
      {"a prefix does not match", String("abc"), "AB", 0, 0},
      {"the whole matches", String("ab"), "AB", 0, 1},
      {"case is ignored on both sides", String("Ab"), "aB", 0, 1},
      {"a tail", String("xxab"), "AB", 2, 1},
      {"longer than the tail", String("ab"), "abc", 0, 0},
      {"other bytes", String("ab"), "ax", 0, 0},
      {"nothing at the end", String("ab"), "", 2, 1},
      {"something at the end", String("ab"), "x", 2, 0},
      {"after the end", String("ab"), "", 3, 0},
      {"bytes of 128 and above have no case", String("\xe4"), "\xc4", 0, 0},
      {"a NUL at the end meets the terminator", String("ab\0", 3), "ab", 0, 1},
      {"but only one", String("ab\0\0", 4), "ab", 0, 0},
      {"the null string is empty", String(), "", 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(c.text.matches(c.pattern, c.position), c.expected);
  }
}

TEST(String, GsubReplacesAllOccurrences) {
  const struct {
    const char* label;
    const char* text;
    const char* pattern;
    const char* replacement;
    const char* expected;
  } cases[] = {
      {"longer", "a,b,c", ",", " - ", "a - b - c"},
      {"shorter", "a--b--c", "--", ",", "a,b,c"},
      {"removed by an empty text", "a,b", ",", "", "ab"},
      {"removed by a null text", "a,b", ",", nullptr, "ab"},
      {"no rescan of what was put in", "aa", "a", "aa", "aaaa"},
      {"no overlap", "aaa", "aa", "b", "ba"},
      {"all of it", "abc", "abc", "", ""},
      {"ends", ",a,", ",", ";", ";a;"},
      {"no occurrence", "abc", "x", "y", "abc"},
      {"empty pattern", "abc", "", "y", "abc"},
      {"null pattern", "abc", nullptr, "y", "abc"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    String s(c.text);
    s.gsub(c.pattern, c.replacement);
    EXPECT_STREQ(s.data, c.expected);
    EXPECT_EQ(s.length, static_cast<int>(strlen(c.expected)));
  }
}

TEST(String, GsubEndsAtTheFirstNULIfItReplacedAnything) {
  String s = WithNUL();
  s.gsub("e", "x");
  EXPECT_EQ(Bytes(s), "abc");
  String untouched = WithNUL();
  untouched.gsub("x", "y");
  EXPECT_EQ(untouched.length, 7);
}

TEST(String, GsubOfALongText) {
  std::string text(100000, 'a');
  String s(text.data(), static_cast<int>(text.size()));
  s.gsub("a", "bc");
  EXPECT_EQ(s.length, 200000);
  EXPECT_EQ(s.data[0], 'b');
  EXPECT_EQ(s.data[199999], 'c');
}

TEST(String, GsubOfItsOwnTextIsSafe) {
  String s("abab");
  String pattern("ab");
  s.gsub(pattern.data, s.data);
  EXPECT_STREQ(s.data, "abababab");
}

TEST(String, WhiteSpaceAtTheEnds) {
  const struct {
    const char* label;
    String text;
    const char* stripped;
    const char* trimmed;
    const char* compressed;
  } cases[] = {
      {"both ends", String("  a b \t"), "a b", "a b \t", " a b "},
      {"the four kinds", String("\t\n\r a \t\n\r"), "a", "a \t\n\r", "\ta "},
      {"a run keeps its first byte", String("a\t b\n\n"), "a\t b", "a\t b\n\n", "a\tb\n"},
      {"vertical tab and form feed are text", String("\va\f"), "\va\f", "\va\f", "\va\f"},
      {"nothing but white space", String("  \t"), "", "", " "},
      {"empty", String(""), "", "", ""},
      {"cut at a NUL", String(" a \0b", 5), "a", "a ", " a "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    String stripped(c.text);
    stripped.StripWhitespace();
    EXPECT_STREQ(stripped.data, c.stripped);
    EXPECT_EQ(stripped.length, static_cast<int>(strlen(c.stripped)));
    String trimmed(c.text);
    trimmed.ltrim();
    EXPECT_STREQ(trimmed.data, c.trimmed);
    EXPECT_EQ(trimmed.length, static_cast<int>(strlen(c.trimmed)));
    String compressed(c.text);
    compressed.CompressWhitespace();
    EXPECT_STREQ(compressed.data, c.compressed);
    EXPECT_EQ(compressed.length, static_cast<int>(strlen(c.compressed)));
  }
}

TEST(String, WhiteSpaceOperationsLeaveTheNullStringAlone) {
  String s;
  s.StripWhitespace();
  s.ltrim();
  s.CompressWhitespace();
  s.upcase();
  s.lowcase();
  s.gsub("a", "b");
  s.truncate(0);
  EXPECT_TRUE(IsNull(s));
}

TEST(String, CaseConversionsTouchAsciiLettersOnly) {
  String s("aZ09_\xe4\xc4");
  EXPECT_EQ(Bytes(s.upper()), "AZ09_\xe4\xc4");
  EXPECT_EQ(Bytes(s.lower()), "az09_\xe4\xc4");
  EXPECT_EQ(Bytes(s), "aZ09_\xe4\xc4");
  s.upcase();
  EXPECT_EQ(Bytes(s), "AZ09_\xe4\xc4");
  s.lowcase();
  EXPECT_EQ(Bytes(s), "az09_\xe4\xc4");
  String n = WithNUL();
  n.upcase();
  EXPECT_EQ(Bytes(n), std::string("ABC\0DEF", 7));
}

TEST(String, PaddingFillsUpToTheWidth) {
  String s("7");
  EXPECT_EQ(Bytes(s.padl(3, '0')), "007");
  EXPECT_EQ(Bytes(s.padr(3, '0')), "700");
  EXPECT_EQ(Bytes(s.padl(1, '0')), "7");
  EXPECT_EQ(Bytes(s.padl(-1, '0')), "7");
  EXPECT_EQ(Bytes(s.padr(0, '0')), "7");
  EXPECT_EQ(Bytes(String().padl(2, 'x')), "xx");
  EXPECT_EQ(Bytes(String().padr(2, 'x')), "xx");
}

TEST(String, PaddingWithNULAddsAtTheEndButNotInFront) {
  EXPECT_EQ(Bytes(String("a").padl(3, '\0')), "a");
  EXPECT_EQ(Bytes(String("a").padr(3, '\0')), std::string("a\0\0", 3));
}

// The sizes are those of appending byte by byte.
TEST(String, PaddingAllocatesAsByteAfterByteWould) {
  for (int width = 1; width < 200; ++width) {
    SCOPED_TRACE(width);
    String right("abc");
    String left("abc");
    while (right.length < width) right.cat('x');
    while (left.length < width) left.prepend('x');
    EXPECT_EQ(String("abc").padr(width, 'x').allocated, right.allocated);
    EXPECT_EQ(String("abc").padl(width, 'x').allocated, left.allocated);
  }
}

TEST(String, Base64RoundTrip) {
  String s("a secret", 8);
  EXPECT_EQ(Bytes(s.Base64_Encode()), "YSBzZWNyZXQ=");
  EXPECT_EQ(s.Base64_Encode().allocated, 4 * (8 / 3) + 5);
  EXPECT_EQ(Bytes(s.Base64_Encode().Base64_Decode()), "a secret");
  EXPECT_TRUE(IsEmptyOf24(String("").Base64_Encode()));
  EXPECT_TRUE(IsEmptyOf24(String().Base64_Encode()));
  EXPECT_TRUE(IsEmptyOf24(String().Base64_Decode()));
  EXPECT_EQ(Bytes(String("QUJ").Base64_Decode()), "");
}

// A length that an int cannot hold fails with std::bad_alloc and leaves the string unchanged.
TEST(String, LengthsBeyondAnIntFailAsAllocations) {
  char* buffer = Buffer("abc", 8);
  String s(buffer, 3, 8);
  EXPECT_THROW(s.cat("x", INT_MAX), std::bad_alloc);
  EXPECT_THROW(s.prepend("x", INT_MAX), std::bad_alloc);
  EXPECT_THROW(s.assign("x", INT_MAX), std::bad_alloc);
  EXPECT_THROW((void)s.padl(INT_MAX, 'x'), std::bad_alloc);
  EXPECT_EQ(s.data, buffer);
  EXPECT_STREQ(s.data, "abc");
}

// A long text asks for room to spare.
TEST(String, ALongTextGrowsWithoutRoomToSpareWhereThereIsNone) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const std::string start(5000, 'a');
  const std::string more(100000, 'b');
  String string(start.data(), 5000);
  long asked;
  {
    const FailingAllocator allocator(1, FailingAllocator::Once);
    string.cat(more.data(), 100000);
    asked = FailingAllocator::Asked();
  }
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(Bytes(string), start + more);
  EXPECT_EQ(string.allocated, 105024);
}

TEST(String, ALongTextStaysWhereThereIsNoMemoryAtAll) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const std::string start(5000, 'a');
  const std::string more(100000, 'b');
  String string(start.data(), 5000);
  bool refused = false;
  {
    const FailingAllocator allocator(1, FailingAllocator::FromThereOn);
    try {
      string.cat(more.data(), 100000);
    } catch (const std::bad_alloc&) {
      refused = true;
    }
  }
  EXPECT_TRUE(refused);
  EXPECT_EQ(Bytes(string), start);
  EXPECT_EQ(string.allocated, 5016);
  string.cat(more.data(), 100000);
  EXPECT_EQ(Bytes(string), start + more);
}

TEST(Split, CutsAtEverySeparator) {
  const struct {
    const char* label;
    const char* text;
    const char* separator;
    int max;
    int count;
    std::vector<std::string> parts;
  } cases[] = {
      {"a trailing separator yields no last element", "a,b,", ",", 5, 2, {"a", "b", ""}},
      {"an empty first element counts", ",a", ",", 5, 2, {"", "a"}},
      {"what is left at max is dropped", "a,b,c", ",", 2, 2, {"a", "b"}},
      {"exactly max", "a,b", ",", 2, 2, {"a", "b"}},
      {"empty elements between", "a,,b", ",", 5, 3, {"a", "", "b"}},
      {"a longer separator", "a<>b<>c", "<>", 5, 3, {"a", "b", "c"}},
      {"none", "abc", ",", 5, 1, {"abc"}},
      {"empty text", "", ",", 5, 0, {""}},
      {"empty separator", "a,b", "", 5, 1, {"a,b"}},
      {"null separator", "a,b", nullptr, 5, 1, {"a,b"}},
      {"no room", "a,b", ",", 0, 0, {}},
      {"no room and no separator", "a,b", "", 0, 0, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    String parts[5];
    EXPECT_EQ(split(String(c.text), parts, c.max, c.separator), c.count);
    for (size_t i = 0; i < 5; ++i) {
      EXPECT_EQ(Bytes(parts[i]), i < c.parts.size() ? c.parts[i] : "(null)") << i;
    }
  }
}

TEST(Split, NullTextWithoutASeparatorStoresNothing) {
  String parts[2];
  EXPECT_EQ(split(String(), parts, 2, ""), 1);
  EXPECT_TRUE(IsNull(parts[0]));
  EXPECT_EQ(split(String(), parts, 2, ","), 0);
}

TEST(Strdup, CopiesWithTheTerminator) {
  char* copy = zeph_strdup("abc");
  EXPECT_STREQ(copy, "abc");
  delete[] copy;
  EXPECT_EQ(zeph_strdup(nullptr), nullptr);
}

// A model of a string: its bytes, and the size that it reports for its buffer.
struct PlainString {
  std::string bytes;
  int allocated = 24;

  void CatByte(char c) {
    if (static_cast<int>(bytes.size()) + 2 >= allocated) allocated = (allocated / 24 + 1) * 24;
    bytes += c;
  }
  void CatText(const std::string& text) {
    const int total = static_cast<int>(bytes.size() + text.size());
    if (total >= allocated) allocated = (total / 24 + 1) * 24;
    bytes += text;
  }
  void Assign(const std::string& text) {
    const int total = static_cast<int>(text.size());
    if (total >= allocated) allocated = (total / 24 + 1) * 24;
    bytes = text;
  }
};

TEST(String, EqualsAPlainModelThroughRandomChanges) {
  for (unsigned seed = 1; seed <= 60; seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    String string("", 0);
    PlainString model;
    const auto text = [&random](size_t most) {
      std::string made(random() % most, '\0');
      for (char& c : made) c = static_cast<char>(random());
      return made;
    };
    for (int i = 0; i < 400; i++) {
      switch (random() % 7) {
        case 0:
          for (size_t more = random() % 60; more > 0; more--) {
            const char c = static_cast<char>(random());
            string.cat(c);
            model.CatByte(c);
          }
          break;
        case 1:
        case 2: {
          const std::string added = text(300);
          string.cat(added.data(), static_cast<int>(added.size()));
          model.CatText(added);
          break;
        }
        case 3: {
          // A part of the string's own text.
          const size_t start = random() % (model.bytes.size() + 1);
          const size_t count = random() % (model.bytes.size() - start + 1);
          if (model.bytes.size() > 100000) break;
          string.cat(string.data + start, static_cast<int>(count));
          model.CatText(model.bytes.substr(start, count));
          break;
        }
        case 4:
          if (random() % 8 == 0) {
            const std::string other = text(5000);
            string.assign(other.data(), static_cast<int>(other.size()));
            model.Assign(other);
          }
          break;
        case 5: {
          const std::string front = text(100);
          string.prepend(front.data(), static_cast<int>(front.size()));
          const std::string before = model.bytes;
          model.CatText(front);
          model.bytes = front + before;
          break;
        }
        default: {
          const size_t left = model.bytes.size() - random() % (model.bytes.size() / 10 + 1);
          string.truncate(static_cast<unsigned>(left));
          model.bytes.resize(left);
          string.cat('x');
          model.CatByte('x');
        }
      }
      ASSERT_EQ(string.length, static_cast<int>(model.bytes.size()));
      ASSERT_EQ(string.allocated, model.allocated);
      ASSERT_EQ(string.data[string.length], '\0');
      ASSERT_TRUE(Bytes(string) == model.bytes);
    }
  }
}

TEST(String, AShortTextIsAssignedAsAnyOther) {
  const char text[] = "a text of more than thirty-two bytes\0and a NUL";
  for (int before = 0; before <= 40; before++) {
    for (int length = -1; length <= 40; length++) {
      String expected(text, before), assigned(text, before);
      expected.assign(text, length);
      AssignShort(&assigned, text, length);
      ASSERT_EQ(Bytes(assigned), Bytes(expected));
      EXPECT_EQ(assigned.allocated, expected.allocated);
      EXPECT_EQ(assigned.data[assigned.length], '\0');
    }
    for (int start = 0; start + 12 <= before; start++) {
      String expected(text, before), own(text, before);
      expected.assign(expected.data + start, 12);
      AssignShort(&own, own.data + start, 12);
      EXPECT_EQ(Bytes(own), Bytes(expected));
    }
  }
  String none;
  AssignShort(&none, nullptr, 0);
  EXPECT_EQ(none.length, 0);
  EXPECT_NE(none.data, nullptr);
}

}  // namespace
