// What fuzzers that run scripts share: programs in assembly, and memory that is refused.

#ifndef ZEPH_FUZZ_SCRIPTRUN_H
#define ZEPH_FUZZ_SCRIPTRUN_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/Assembler.h"

// The compiled file of a program, which the fuzzer has made so that it can be assembled.
inline std::string Assembled(const std::string& source) {
  std::string image, errors;
  if (AssembleScript(source, "script", &image, &errors)) return image;
  fprintf(stderr, "%s%s", source.c_str(), errors.c_str());
  abort();
}

// Blocks of memory until one is refused, by a judge of ThreadMemory; 0 for never.
inline constinit thread_local long blocks_left = 0;

inline bool IsRefused(size_t) {
  return blocks_left > 0 && --blocks_left == 0;
}

#endif
