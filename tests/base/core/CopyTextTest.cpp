#include "base/core/CopyText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(CopyText, CopiesSoManyBytesAndNoOther) {
  const std::string source = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (size_t length = 0; length <= source.size(); length++) {
    SCOPED_TRACE(length);
    const std::string exact(source, 0, length);
    std::string target(length + 8, '-');
    CopyText(target.data() + 4, exact.data(), length);
    EXPECT_EQ(target, "----" + exact + "----");
  }
}

}  // namespace
