// Searches for bytes in bytes, forward and backward, exact and without regard to the case of ASCII
// letters. All of them return the position of the match in the text, counted from 0, or -1. Lengths
// are bytes and 0 or more; bytes are unsigned; nothing needs a terminator.
//
// The script operators use the plain scan for texts of fewer than 300 bytes, for which a table does
// not pay, and the bm_ forms for longer ones. Callers test for an empty pattern themselves, because
// each family has its own result for it.

#ifndef ZEPH_BASE_STRING_SEARCH_H
#define ZEPH_BASE_STRING_SEARCH_H

// The plain scan: finds the first occurrence, in the reverse forms the last. An empty pattern is
// found in any text that is not empty: at 0, in the reverse forms at the end.
int bf_search(const char* pattern, int pattern_length, const char* text, int text_length);
int bf_searchi(const char* pattern, int pattern_length, const char* text, int text_length);
int bf_search_reverse(const char* pattern, int pattern_length, const char* text, int text_length);
int bf_searchi_reverse(const char* pattern, int pattern_length, const char* text, int text_length);

// The same results, in linear time for any input. The i form may allocate for repetitive patterns.
// An empty pattern is found at 0, also in an empty text.
int bm_search(const char* pattern, int pattern_length, const char* text, int text_length);
int bm_searchi(const char* pattern, int pattern_length, const char* text, int text_length);

// Boyer-Moore from the end of the text, by its bad-character table alone. A table entry holds the
// last place of a byte in the pattern, and the i form looks raw text bytes up in a table of lower
// case: so a match may be missed if the pattern has a byte twice, or, in the i form, the text has
// capital letters. Extension libraries rely on these results. An empty pattern is not found.
int bm_search_reverse(const char* pattern, int pattern_length, const char* text, int text_length);
int bm_searchi_reverse(const char* pattern, int pattern_length, const char* text, int text_length);

// Rabin-Karp with results that extension libraries rely on: the hash is rolled before the first
// comparison, so position 0 is never found; and one window past the end of the text is compared,
// with NUL as its last byte. An empty pattern is not found.
int rk_search(const char* pattern, int pattern_length, const char* text, int text_length);
int rk_searchi(const char* pattern, int pattern_length, const char* text, int text_length);

#endif
