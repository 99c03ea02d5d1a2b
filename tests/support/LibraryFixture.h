// Shared by tests of extension libraries: an application with a library manager, and access to the
// tables that the fake library returns.

#ifndef ZEPH_TESTS_SUPPORT_LIBRARYFIXTURE_H
#define ZEPH_TESTS_SUPPORT_LIBRARYFIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "base/systems/unix/UNIXExternalLibrary.h"
#include "tests/support/Paths.h"
#include "tests/support/TestApplication.h"

// The path of a library in tests/support/libraries.
inline std::string TestLibraryPath(const std::string& name) {
  return InBuild("lib/test/") + name + ".so";
}

// A String as a test compares it; the null string is empty.
inline std::string Text(const String& text) {
  return text.data == nullptr ? std::string() : std::string(text.data, size_t(text.length));
}

// Whether a text says, in the words of the system, that a file cannot be opened.
inline bool NamesMissingFile(const String& text, const std::string& path) {
  return Text(text).find(path) != std::string::npos &&
         Text(text).find("No such file or directory") != std::string::npos;
}

class LibraryFixture : public testing::Test {
 protected:
  LibraryFixture() : fake(TestLibraryPath("FakeLibrary")) {
    application.SetLibraryManager(&libraries);
    Exported<void*>("fake_config_table") = nullptr;
    Exported<void*>("fake_function_table") = nullptr;
    Exported<void*>("fake_commerce_table") = nullptr;
    Exported<void*>("fake_database_table") = nullptr;
    Exported<int>("fake_calls") = 0;
  }

  // A variable that the fake library exports. A separate manager opens the library, so that the
  // tested manager has not loaded it.
  template <typename T>
  T& Exported(const char* name) {
    ExternalLibrary* library = access.Lookup(fake.c_str());
    void* address = library != nullptr ? library->Get_Function(name) : nullptr;
    if (address == nullptr) {
      ADD_FAILURE() << fake << " has no " << name;
      abort();
    }
    return *static_cast<T*>(address);
  }

  std::string fake;
  UNIXExternalLibraryManager access;
  UNIXExternalLibraryManager libraries;
  TestApplication application;
};

#endif
