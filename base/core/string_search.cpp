// Searches for bytes in bytes. Tested in tests/base/core/StringSearchTest.cpp.

#include "base/core/string_search.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/core/ascii.h"

namespace {

struct Exact {
  static unsigned char Of(char c) { return static_cast<unsigned char>(c); }
};

struct LowerCase {
  static unsigned char Of(char c) { return zp_tolower(static_cast<unsigned char>(c)); }
};

// The count of equal bytes at the start of both.
template <class Case>
int Common(const char* a, const char* b, int length) {
  int i = 0;
  while (i < length && Case::Of(a[i]) == Case::Of(b[i])) ++i;
  return i;
}

template <class Case>
bool Equal(const char* a, const char* b, int length) {
  return Common<Case>(a, b, length) == length;
}

// The bytes that a search may compare before the text counts as repetitive and the search changes
// to a linear method.
int64_t ComparisonBudget(int n) {
  return 4 * static_cast<int64_t>(n);
}

// Knuth-Morris-Pratt, from the window at start on: the first match, or the last one.
enum class Wanted { First, Last };
template <class Case>
int LinearSearch(const char* pattern, int m, const char* text, int n, int start,
                 Wanted wanted = Wanted::First) {
  // borders[j] is the length of the longest proper prefix of the first j bytes that ends them too.
  std::unique_ptr<int[]> borders(new int[m + 1]);
  borders[0] = -1;
  for (int j = 0, border = -1; j < m;) {
    while (border >= 0 && Case::Of(pattern[j]) != Case::Of(pattern[border])) {
      border = borders[border];
    }
    borders[++j] = ++border;
  }
  int found = -1;
  for (int t = start, j = 0; t < n; ++t) {
    while (j >= 0 && Case::Of(text[t]) != Case::Of(pattern[j])) j = borders[j];
    if (++j < m) continue;
    found = t - m + 1;
    if (wanted == Wanted::First) break;
    j = borders[m];
  }
  return found;
}

template <class Case>
int PlainScanReverse(const char* pattern, int m, const char* text, int n) {
  if (m > n || n == 0) return -1;
  int64_t budget = ComparisonBudget(n);
  for (int t = n - m; t >= 0; --t) {
    const int equal = Common<Case>(pattern, text + t, m);
    if (equal == m) return t;
    budget -= equal + 1;
    if (budget < 0) return LinearSearch<Case>(pattern, m, text, t + m, 0, Wanted::Last);
  }
  return -1;
}

template <class Case>
int BoyerMooreReverse(const char* pattern, int m, const char* text, int n) {
  if (m > n || m == 0) return -1;
  int table[256];
  std::fill_n(table, 256, m);
  for (int i = 0; i < m; ++i) table[Case::Of(pattern[i])] = i;
  for (int t = n - m, j = 0; t >= 0;) {
    if (Case::Of(text[t]) == Case::Of(pattern[j])) {
      if (j == m - 1) return t - j;
      ++t, ++j;
    } else {
      t -= std::max(table[Exact::Of(text[t])], j + 1);
      j = 0;
    }
  }
  return -1;
}

template <class Case>
int RabinKarp(const char* pattern, int m, const char* text, int n) {
  constexpr uint32_t radix = 32;
  constexpr uint32_t modulus = 33554393;
  if (m > n || m <= 0) return -1;
  uint32_t leading = 1;
  for (int i = 1; i < m; ++i) leading = leading * radix % modulus;
  uint32_t wanted = 0;
  uint32_t window = 0;
  for (int i = 0; i < m; ++i) {
    wanted = (wanted * radix + Case::Of(pattern[i])) % modulus;
    window = (window * radix + Case::Of(text[i])) % modulus;
  }
  for (int i = 0; i <= n - m; ++i) {
    // Adds a multiple of the modulus that exceeds the product, so that the difference is positive.
    uint64_t removed = static_cast<uint64_t>(Case::Of(text[i])) * leading;
    uint64_t rest = (window + (uint64_t{256} * modulus) - removed) % modulus;
    unsigned char entering = i + m < n ? Case::Of(text[i + m]) : 0;
    window = static_cast<uint32_t>((rest * radix + entering) % modulus);
    if (window != wanted) continue;
    bool in_text = i + m < n;
    int compared = in_text ? m : m - 1;
    if (!Equal<Case>(pattern, text + i + 1, compared)) continue;
    if (in_text || pattern[m - 1] == 0) return i + 1;
  }
  return -1;
}

int Memmem(const char* pattern, int m, const char* text, int n) {
  auto found = static_cast<const char*>(memmem(text, n, pattern, m));
  return found ? static_cast<int>(found - text) : -1;
}

#ifdef __x86_64__
// The first candidate place, t + i for a set bit i of the mask, at which the pattern matches; else
// -1. Each comparison is subtracted from the budget.
inline int FirstMatch(uint64_t candidates, const char* pattern, int m, const char* text, int t,
                      int64_t* budget) {
  for (; candidates != 0; candidates &= candidates - 1) {
    const int place = t + std::countr_zero(candidates);
    if (memcmp(text + place + 1, pattern + 1, static_cast<size_t>(m - 2)) == 0) return place;
    *budget -= m;
  }
  return -1;
}

// Bit i is set if byte i at at_first equals first and byte i at at_last equals last.
unsigned Candidates(const char* at_first, const char* at_last, __m128i first, __m128i last) {
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at_first));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at_last));
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a, first), _mm_cmpeq_epi8(b, last))));
}

// These test sixteen places in a step, or sixty-four with the wider registers that most processors
// have. The rest of the pattern is compared only where both its first and its last byte match,
// which is rare in texts. The last step goes back far enough to end with the text. They start at *t
// and return the place of a match, or -1 with *t after the last place tested. That may be before
// the end: if there is too little text for a step, or if the budget is used up.
int SearchBySixteen(const char* pattern, int m, const char* text, int n, int* t, int64_t* budget) {
  const __m128i first = _mm_set1_epi8(pattern[0]);
  const __m128i last = _mm_set1_epi8(pattern[m - 1]);
  const int last_step = n - m - 15;
  for (int at = *t; last_step >= 0 && *budget >= 0; at = std::min(at + 16, last_step)) {
    const unsigned found = Candidates(text + at, text + at + m - 1, first, last);
    const int place = FirstMatch(found, pattern, m, text, at, budget);
    if (place >= 0) return place;
    *t = at + 16;
    if (at == last_step) break;
  }
  return -1;
}

__attribute__((target("avx2"))) int SearchBySixtyFour(const char* pattern, int m, const char* text,
                                                      int n, int* t, int64_t* budget) {
  const __m256i first = _mm256_set1_epi8(pattern[0]);
  const __m256i last = _mm256_set1_epi8(pattern[m - 1]);
  const int last_step = n - m - 63;
  for (int at = *t; last_step >= 0 && *budget >= 0; at = std::min(at + 64, last_step)) {
    const auto low = reinterpret_cast<const __m256i*>(text + at);
    const auto low_end = reinterpret_cast<const __m256i*>(text + at + m - 1);
    const __m256i a = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(low), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(low_end), last));
    const __m256i b = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(low + 1), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(low_end + 1), last));
    const __m256i either = _mm256_or_si256(a, b);
    if (!_mm256_testz_si256(either, either)) {
      const uint64_t found = static_cast<uint32_t>(_mm256_movemask_epi8(a)) |
                             uint64_t{static_cast<uint32_t>(_mm256_movemask_epi8(b))} << 32;
      const int place = FirstMatch(found, pattern, m, text, at, budget);
      if (place >= 0) return place;
    }
    *t = at + 64;
    if (at == last_step) break;
  }
  return -1;
}

// At most so many places are tested one by one: there is too little text for a step.
constexpr int kFewPlaces = 15;
int SearchFew(const char* pattern, int m, const char* text, int n) {
  for (int t = 0; t <= n - m; ++t) {
    if (text[t] == pattern[0] && text[t + m - 1] == pattern[m - 1] &&
        memcmp(text + t + 1, pattern + 1, static_cast<size_t>(m - 2)) == 0) {
      return t;
    }
  }
  return -1;
}

// memmem, whose time is linear, searches the places that the vector searches have not tested.
int ExactSearch(const char* pattern, int m, const char* text, int n) {
  if (m >= 2 && n - m < kFewPlaces) return SearchFew(pattern, m, text, n);
  static const bool wide = __builtin_cpu_supports("avx2");
  int t = 0;
  if (m >= 2) {
    int64_t budget = ComparisonBudget(n);
    int place = wide ? SearchBySixtyFour(pattern, m, text, n, &t, &budget) : -1;
    if (place < 0 && t == 0) place = SearchBySixteen(pattern, m, text, n, &t, &budget);
    if (place >= 0) return place;
    if (t > n - m) return -1;
  }
  const int found = Memmem(pattern, m, text + t, n - t);
  return found < 0 ? -1 : t + found;
}
#else
int ExactSearch(const char* pattern, int m, const char* text, int n) {
  return Memmem(pattern, m, text, n);
}
#endif

}  // namespace

int bf_search(const char* pattern, int pattern_length, const char* text, int text_length) {
  if (pattern_length > text_length || text_length == 0) return -1;
  return ExactSearch(pattern, pattern_length, text, text_length);
}

int bf_searchi(const char* pattern, int pattern_length, const char* text, int text_length) {
  if (pattern_length > text_length || text_length == 0) return -1;
  if (pattern_length == 0) return 0;
  unsigned char first = LowerCase::Of(pattern[0]);
  int64_t budget = ComparisonBudget(text_length);
  for (int t = 0; t <= text_length - pattern_length; ++t) {
    if (LowerCase::Of(text[t]) != first) continue;
    const int equal = Common<LowerCase>(pattern, text + t, pattern_length);
    if (equal == pattern_length) return t;
    budget -= equal;
    if (budget < 0) return LinearSearch<LowerCase>(pattern, pattern_length, text, text_length, t);
  }
  return -1;
}

int bf_search_reverse(const char* pattern, int pattern_length, const char* text, int text_length) {
  return PlainScanReverse<Exact>(pattern, pattern_length, text, text_length);
}

int bf_searchi_reverse(const char* pattern, int pattern_length, const char* text, int text_length) {
  return PlainScanReverse<LowerCase>(pattern, pattern_length, text, text_length);
}

int bm_search(const char* pattern, int pattern_length, const char* text, int text_length) {
  if (pattern_length > text_length) return -1;
  if (pattern_length == 0) return 0;
  return ExactSearch(pattern, pattern_length, text, text_length);
}

int bm_searchi(const char* pattern, int pattern_length, const char* text, int text_length) {
  int m = pattern_length;
  int n = text_length;
  if (m > n) return -1;
  if (m == 0) return 0;
  int table[256];
  std::fill_n(table, 256, m);
  for (int i = 0; i < m; ++i) table[LowerCase::Of(pattern[i])] = m - 1 - i;
  // The bad-character table alone is quadratic on repetitive texts, and a script may choose both
  // text and pattern. When the budget is used up the search continues with the linear method.
  int64_t budget = ComparisonBudget(n);
  for (int64_t t = m - 1; t < n;) {
    int j = m - 1;
    while (LowerCase::Of(text[t]) == LowerCase::Of(pattern[j])) {
      if (j == 0) return static_cast<int>(t);
      --t, --j;
    }
    budget -= m - j;
    if (budget < 0) {
      return LinearSearch<LowerCase>(pattern, m, text, n, static_cast<int>(t - j));
    }
    t += std::max(table[LowerCase::Of(text[t])], m - j);
  }
  return -1;
}

int bm_search_reverse(const char* pattern, int pattern_length, const char* text, int text_length) {
  return BoyerMooreReverse<Exact>(pattern, pattern_length, text, text_length);
}

int bm_searchi_reverse(const char* pattern, int pattern_length, const char* text, int text_length) {
  return BoyerMooreReverse<LowerCase>(pattern, pattern_length, text, text_length);
}

int rk_search(const char* pattern, int pattern_length, const char* text, int text_length) {
  return RabinKarp<Exact>(pattern, pattern_length, text, text_length);
}

int rk_searchi(const char* pattern, int pattern_length, const char* text, int text_length) {
  return RabinKarp<LowerCase>(pattern, pattern_length, text, text_length);
}
