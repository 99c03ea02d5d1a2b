// An index file in memory for the tests of a suite.

#ifndef ZEPH_TESTS_SUPPORT_ZIXINDEXFIXTURE_H
#define ZEPH_TESTS_SUPPORT_ZIXINDEXFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexChecker.h"
#include "tests/support/ZIXIndexOperations.h"

// One file "i.zix" and an object on it.
class ZIXIndexFixture : public testing::Test {
 protected:
  ZIXIndexFixture() { application.SetFileManager(&files); }

  void Create(unsigned flags = 0) {
    ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), flags)) << ErrorText(index);
  }
  void OpenBytes(const std::string& content) {
    bytes() = content;
    Open(index);
  }
  void Open(ZIXIndexFile& other) {
    ASSERT_TRUE(other.Open(ZephPath_Data, "i.zix", 3)) << ErrorText(other);
  }
  // Keys "a", "b", "c" and so on, with records 1, 2, 3.
  void InsertLetters(int count) {
    for (int i = 0; i < count; i++)
      ASSERT_TRUE(
          Insert(index, std::string(1, static_cast<char>('a' + i)), static_cast<unsigned>(i) + 1))
          << ErrorText(index);
  }
  std::string& bytes() { return files.files["i.zix"]; }
  std::string Check() { return ZIXIndexChecker(bytes()).Check(); }
  std::vector<ZIXIndexEntry> Entries() {
    ZIXIndexChecker checker(bytes());
    EXPECT_EQ("", checker.Check());
    return checker.entries;
  }

  TestApplication application;
  FaultyFileManager files{&application};
  ZIXIndexFile index{&application};
};

#endif
