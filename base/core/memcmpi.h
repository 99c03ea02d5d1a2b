// Comparison of bytes without regard to the case of ASCII letters. It compares all names of the
// script language: variables, functions, languages, tags.

#ifndef ZEPH_BASE_MEMCMPI_H
#define ZEPH_BASE_MEMCMPI_H

#include <cstddef>

// Returns -1, 0 or 1: the order, as unsigned values, of the first pair of bytes that differs in
// lower case. A length of 0 gives 0. Neither text needs a terminator.
int memcmpi(const void* a, const void* b, size_t length);

#endif
