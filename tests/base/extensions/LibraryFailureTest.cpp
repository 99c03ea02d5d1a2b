#include "base/extensions/LibraryFailure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class LibraryFailureTest : public LibraryFixture {
 protected:
  // What an operation writes to standard error.
  template <class Operation>
  static std::string Errors(Operation operation) {
    testing::internal::CaptureStderr();
    operation();
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(LibraryFailureTest, NamesTheLibraryOnce) {
  EXPECT_EQ(Text(LibraryFailure("/a.so", "Unknown symbol 'x'")), "/a.so: Unknown symbol 'x'");
  EXPECT_EQ(Text(LibraryFailure("/a.so", "/a.so: no such file")), "/a.so: no such file");
  EXPECT_EQ(Text(LibraryFailure(nullptr, "The library has no path")), "The library has no path");
}

TEST_F(LibraryFailureTest, IsWrittenOnceForAllRequests) {
  const auto request = [this] {
    ExternalCallManager calls(&application);
    EXPECT_FALSE(calls.RegisterDSO("/nonexistent/reported.so"));
  };
  const std::string written = Errors(request);
  EXPECT_EQ(written.find("zeph-test: /nonexistent/reported.so: "), 0u) << written;
  EXPECT_NE(written.find("No such file or directory\n"), std::string::npos) << written;
  EXPECT_EQ(Errors(request), "");
}

TEST_F(LibraryFailureTest, IsWrittenForEachKindOfLibrary) {
  EXPECT_NE(Errors([this] {
              CommerceLibraryManager commerce(&application);
              commerce.RegisterDSO("pay", "/nonexistent/commerce.so");
              EXPECT_EQ(commerce.Lookup_Commerce_Library("pay", -1), nullptr);
            }).find("/nonexistent/commerce.so: "),
            std::string::npos);
  EXPECT_NE(Errors([this] {
              SystemLibraryManager systems(&application);
              systems.RegisterDSO("tools", "/nonexistent/system.so");
              EXPECT_EQ(systems.Lookup_System_Library("tools", -1), nullptr);
            }).find("/nonexistent/system.so: "),
            std::string::npos);
}

TEST_F(LibraryFailureTest, IsWrittenForALibraryThatLacksItsExport) {
  // Under paths of their own, because other tests use the libraries, and a line is written once.
  TemporaryDirectory directory;
  const std::string incomplete = directory.path("incomplete.so");
  const std::string null = directory.path("null.so");
  std::filesystem::copy_file(TestLibraryPath("FakeCommerceIncomplete"), incomplete);
  std::filesystem::copy_file(fake, null);
  EXPECT_EQ(Errors([&] {
              CommerceLibraryManager commerce(&application);
              commerce.RegisterDSO("pay", incomplete.c_str());
              EXPECT_EQ(commerce.Lookup_Commerce_Library("pay", -1), nullptr);
            }),
            "zeph-test: " + incomplete +
                ": Unable to load commerce library descriptor table/functions\n");
  EXPECT_EQ(Errors([&] {
              ExternalDatabaseLibraryManager databases(&application);
              databases.RegisterDSO("shop", incomplete.c_str());
              EXPECT_EQ(databases.Lookup_DB("shop", -1), nullptr);
            }),
            "zeph-test: " + incomplete + ": Unknown symbol 'zeph_database_library'\n");
  // A table that is null.
  EXPECT_EQ(Errors([&] {
              ExternalDatabaseLibraryManager databases(&application);
              databases.RegisterDSO("shop", null.c_str());
              EXPECT_EQ(databases.Lookup_DB("shop", -1), nullptr);
            }),
            "zeph-test: " + null + ": Unable to retrieve database descriptor table\n");
}

TEST_F(LibraryFailureTest, ReasonsOfFunctionLibrariesAreKeptForTheCallThatFails) {
  const std::string empty = TestLibraryPath("FakeEmpty");
  ExternalCallManager calls(&application);
  EXPECT_EQ(Text(calls.failures()), "");
  Errors([&] {
    EXPECT_FALSE(calls.RegisterDSO(empty.c_str()));
    EXPECT_FALSE(calls.RegisterDSO("/nonexistent/other.so"));
  });
  EXPECT_EQ(Text(calls.failures())
                .find(empty + ": Unknown symbol 'zeph_function_table'; "
                              "/nonexistent/other.so: "),
            0u)
      << Text(calls.failures());
  ExternalCallManager task(&application, calls);
  EXPECT_EQ(Text(task.failures()), Text(calls.failures()));
}

// A path of a request's own must not fill the log.
TEST_F(LibraryFailureTest, EndsAfterAHundredLines) {
  const std::string written = Errors([] {
    for (int i = 0; i < 300; i++) {
      ReportLibraryFailure("zeph-test", String(("library " + std::to_string(i)).c_str()));
    }
  });
  EXPECT_LE(std::count(written.begin(), written.end(), '\n'), 100);
  EXPECT_EQ(Errors([] { ReportLibraryFailure("zeph-test", String("one more")); }), "");
}

}  // namespace
