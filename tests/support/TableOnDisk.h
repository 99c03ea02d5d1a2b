// A table in files of a test's directory, with a host of its own, like each request thread.

#ifndef ZEPH_TESTS_SUPPORT_TABLEONDISK_H
#define ZEPH_TESTS_SUPPORT_TABLEONDISK_H

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TableFiles.h"
#include "tests/support/TemporaryDirectory.h"

struct TableOnDisk {
  explicit TableOnDisk(const TemporaryDirectory& directory) {
    EXPECT_TRUE(manager.InitializeDataDirectory(directory.path().c_str()));
    application.SetFileManager(&manager);
  }

  TestApplication application;
  UNIXReentrantFileManager manager{&application};
  XBaseTable table{&application};
};

#endif
