// A builtin library of extensions/ in a machine whose scripts have real files.

#ifndef ZEPH_TESTS_EXTENSIONS_LIBRARYWITHFILES_H
#define ZEPH_TESTS_EXTENSIONS_LIBRARYWITHFILES_H

#include <memory>
#include <string>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/extensions/Library.h"
#include "tests/support/TemporaryDirectory.h"

// The data directory of every request is the folder "data" of the test's directory.
class LibraryWithFiles : public Library {
 protected:
  LibraryWithFiles() { UseDirectory(); }
  void Prepare() override {
    if (manager) UseDirectory();
  }
  void UseDirectory() {
    manager = std::make_unique<UNIXReentrantFileManager>(&machine->application);
    machine->application.SetFileManager(manager.get());
    EXPECT_TRUE(manager->InitializeDataDirectory(directory.Directory("data").c_str()));
  }
  // The bytes of a file of the data directory; empty if it cannot be read.
  std::string File(const std::string& path) { return directory.Content("data/" + path); }

  TemporaryDirectory directory;
  std::unique_ptr<UNIXReentrantFileManager> manager;
};

#endif
