#include "base/extensions/SystemLibrary.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/LibraryFixture.h"

namespace {

class SystemLibraryTest : public LibraryFixture {
 protected:
  SystemLibraryTest() : manager(&application) {}

  SystemLibraryManager manager;
};

TEST_F(SystemLibraryTest, UnknownLibraryIsNamed) {
  EXPECT_EQ(manager.Lookup_System_Library("tools", -1), nullptr);
  EXPECT_EQ(Text(manager.error()), "System library 'tools' is not configured");
  EXPECT_EQ(manager.Lookup_System_Library("tools", 4), nullptr);
  EXPECT_EQ(Text(manager.error()), "System library 'tool' is not configured");
}

TEST_F(SystemLibraryTest, BadPathFailsAtTheFirstLookupAndNotAtRegistration) {
  EXPECT_TRUE(manager.RegisterDSO("tools", "/nonexistent/tools.so"));
  EXPECT_EQ(manager.error().data, nullptr);
  EXPECT_EQ(manager.Lookup_System_Library("tools", -1), nullptr);
  EXPECT_TRUE(NamesMissingFile(manager.error(), "/nonexistent/tools.so"));
}

TEST_F(SystemLibraryTest, IsOpenedAtTheFirstLookup) {
  manager.RegisterDSO("Tools", fake.c_str());
  EXPECT_EQ(manager.libraries().First()->library(), nullptr);
  SystemLibrary* library = manager.Lookup_System_Library("tOOLS", -1);
  ASSERT_NE(library, nullptr);
  ASSERT_NE(library->library(), nullptr);
  EXPECT_NE(library->library()->Get_Function("fake_answer"), nullptr);
  EXPECT_EQ(manager.Lookup_System_Library("tools", -1), library);
}

TEST_F(SystemLibraryTest, CopyHasTheLibraries) {
  auto source = std::make_unique<SystemLibraryManager>(&application);
  source->RegisterDSO("tools", fake.c_str());
  source->RegisterDSO("more", fake.c_str());
  ExternalLibrary* opened = source->Lookup_System_Library("tools", -1)->library();
  SystemLibraryManager copy(&application, *source);
  source.reset();
  EXPECT_STREQ(copy.libraries().First()->name(), "tools");
  EXPECT_EQ(copy.libraries().Current()->library(), opened);
  EXPECT_STREQ(copy.libraries().Next()->name(), "more");
  EXPECT_EQ(copy.libraries().Current()->library(), nullptr);
  EXPECT_NE(copy.Lookup_System_Library("more", -1), nullptr);
}

TEST_F(SystemLibraryTest, NullTextKeepsTheOlderError) {
  SystemLibrary library("a", "b");
  library.Error("first");
  library.Error(String());
  EXPECT_EQ(Text(library.error()), "first");
  manager.Error("second");
  manager.Error(String());
  EXPECT_EQ(Text(manager.error()), "second");
}

}  // namespace
