// Tested in tests/base/StringSearchTest.cpp.

#include "base/string_search.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/ascii.h"

namespace {

struct Exact {
  static unsigned char Of(char c) { return static_cast<unsigned char>(c); }
};

struct LowerCase {
  static unsigned char Of(char c) { return zp_tolower(static_cast<unsigned char>(c)); }
};

template <class Case>
bool Equal(const char* a, const char* b, int length) {
  for (int i = 0; i < length; ++i) {
    if (Case::Of(a[i]) != Case::Of(b[i])) return false;
  }
  return true;
}

template <class Case>
int PlainScanReverse(const char* pattern, int m, const char* text, int n) {
  if (m > n || n == 0) return -1;
  for (int t = n - m; t >= 0; --t) {
    if (Equal<Case>(pattern, text + t, m)) return t;
  }
  return -1;
}

// Knuth, Morris and Pratt, ignoring case, from the window at start on.
int LinearSearch(const char* pattern, int m, const char* text, int n, int start) {
  // borders[j] is the length of the longest proper prefix of the first j bytes that ends them too.
  std::unique_ptr<int[]> borders(new int[m + 1]);
  borders[0] = -1;
  for (int j = 0, border = -1; j < m;) {
    while (border >= 0 && LowerCase::Of(pattern[j]) != LowerCase::Of(pattern[border])) {
      border = borders[border];
    }
    borders[++j] = ++border;
  }
  for (int t = start, j = 0; t < n; ++t) {
    while (j >= 0 && LowerCase::Of(text[t]) != LowerCase::Of(pattern[j])) j = borders[j];
    if (++j == m) return t - m + 1;
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
    // A multiple of the modulus that exceeds the product keeps the difference positive.
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

#ifdef __SSE2__
// Bit i is set where bytes i of both sixteens equal first and last.
unsigned Candidates(const char* at_first, const char* at_last, __m128i first, __m128i last) {
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at_first));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at_last));
  return static_cast<unsigned>(
      _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a, first), _mm_cmpeq_epi8(b, last))));
}

// Sixteen places a step: only where the first and the last byte of the pattern both stand is the
// rest compared, which in texts is seldom. A text that keeps these comparisons busy, and what is
// left at the end, go to memmem, whose time is linear.
int ExactSearch(const char* pattern, int m, const char* text, int n) {
  int t = 0;
  if (m >= 2) {
    const __m128i first = _mm_set1_epi8(pattern[0]);
    const __m128i last = _mm_set1_epi8(pattern[m - 1]);
    int64_t budget = 4 * static_cast<int64_t>(n);
    for (; budget >= 0 && n - t >= m + 15; t += 16) {
      unsigned candidates = Candidates(text + t, text + t + m - 1, first, last);
      for (; candidates != 0; candidates &= candidates - 1) {
        const int place = t + std::countr_zero(candidates);
        if (memcmp(text + place + 1, pattern + 1, static_cast<size_t>(m - 2)) == 0) return place;
        budget -= m;
      }
    }
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
  for (int t = 0; t <= text_length - pattern_length; ++t) {
    if (LowerCase::Of(text[t]) != first) continue;
    if (Equal<LowerCase>(pattern + 1, text + t + 1, pattern_length - 1)) return t;
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
  // sides. Once the comparisons show it the search goes on with the linear method.
  int64_t budget = 4 * static_cast<int64_t>(n);
  for (int64_t t = m - 1; t < n;) {
    int j = m - 1;
    while (LowerCase::Of(text[t]) == LowerCase::Of(pattern[j])) {
      if (j == 0) return static_cast<int>(t);
      --t, --j;
    }
    budget -= m - j;
    if (budget < 0) return LinearSearch(pattern, m, text, n, static_cast<int>(t - j));
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
