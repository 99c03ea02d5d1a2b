// The entry of every test program. With ZEPH_NATIVE_AT_ONCE all decoded code of a run becomes
// machine code, to look for what tests of other things find in it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "tests/support/NativeAtOnce.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::optional<NativeAtOnce> at_once;
  if (getenv("ZEPH_NATIVE_AT_ONCE")) at_once.emplace();
  return RUN_ALL_TESTS();
}
