// The condition of a fuzzer, whose failure is a finding.

#ifndef ZEPH_FUZZ_REQUIRE_H
#define ZEPH_FUZZ_REQUIRE_H

#include <cstdlib>

// Ends the process unless the condition holds, in builds without assertions, too.
inline void Require(bool condition) {
  if (!condition) abort();
}

#endif
