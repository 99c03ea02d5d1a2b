#include "base/extensions/ExternalDatabaseLibrary.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/LibraryFixture.h"

namespace {

class ExternalDatabaseLibraryTest : public LibraryFixture {
 protected:
  ExternalDatabaseLibraryTest() : manager(&application) {}

  ExternalDatabaseLibraryManager manager;
};

static_assert(sizeof(_ZP_EL_Database) == 296);
static_assert(offsetof(_ZP_EL_Database, error) == 88);
static_assert(offsetof(_ZP_EL_Database, view_close) == 96);
static_assert(offsetof(_ZP_EL_Database, view_error) == 184);
static_assert(offsetof(_ZP_EL_Database, variable_get_integer) == 192);
static_assert(offsetof(_ZP_EL_Database, commit) == 248);
static_assert(offsetof(_ZP_EL_Database, variable_type) == 264);
static_assert(offsetof(_ZP_EL_Database, command) == 280);

TEST_F(ExternalDatabaseLibraryTest, UnknownTypeIsNamed) {
  EXPECT_EQ(manager.Lookup_DB("sqlX", 3), nullptr);
  EXPECT_EQ(Text(manager.error()), "Database type 'sql' is unsupported or not configured");
}

TEST_F(ExternalDatabaseLibraryTest, MissingFileShowsAtTheLookup) {
  EXPECT_TRUE(manager.RegisterDSO("sql", "/nonexistent/sql.so"));
  EXPECT_EQ(manager.error().data, nullptr);
  EXPECT_EQ(manager.Lookup_DB("sql", -1), nullptr);
  EXPECT_TRUE(NamesMissingFile(manager.error(), "/nonexistent/sql.so"));
}

TEST_F(ExternalDatabaseLibraryTest, MissingExportGivesTheLibrarysText) {
  manager.RegisterDSO("sql", TestLibraryPath("FakeEmpty").c_str());
  EXPECT_EQ(manager.Lookup_DB("sql", -1), nullptr);
  EXPECT_EQ(Text(manager.error()), "Unknown symbol 'zeph_database_library'");
}

TEST_F(ExternalDatabaseLibraryTest, NullTableIsAnErrorAndTriedAgain) {
  manager.RegisterDSO("sql", fake.c_str());
  EXPECT_EQ(manager.Lookup_DB("sql", -1), nullptr);
  EXPECT_EQ(Text(manager.error()), "Unable to retrieve database descriptor table");
  _ZP_EL_Database table = {};
  Exported<void*>("fake_database_table") = &table;
  EXPECT_NE(manager.Lookup_DB("sql", -1), nullptr);
}

TEST_F(ExternalDatabaseLibraryTest, DescriptorIsKept) {
  _ZP_EL_Database table = {};
  table.version = 6;
  Exported<void*>("fake_database_table") = &table;
  manager.RegisterDSO("SQL", fake.c_str());
  ExternalDatabaseLibrary* type = manager.Lookup_DB("sql", -1);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->descriptor(), &table);
  EXPECT_EQ(manager.Lookup_DB("Sql", -1), type);
  EXPECT_EQ(Exported<int>("fake_calls"), 1);
}

TEST_F(ExternalDatabaseLibraryTest, CopyHasTheTypes) {
  _ZP_EL_Database table = {};
  Exported<void*>("fake_database_table") = &table;
  auto source = std::make_unique<ExternalDatabaseLibraryManager>(&application);
  source->RegisterDSO("sql", fake.c_str());
  source->RegisterDSO("other", fake.c_str());
  ASSERT_NE(source->Lookup_DB("sql", -1), nullptr);
  ExternalDatabaseLibraryManager copy(&application, *source);
  source.reset();
  EXPECT_EQ(copy.libraries().First()->descriptor(), &table);
  EXPECT_STREQ(copy.libraries().Current()->path(), fake.c_str());
  EXPECT_STREQ(copy.libraries().Next()->name(), "other");
  EXPECT_EQ(copy.libraries().Current()->descriptor(), nullptr);
  EXPECT_NE(copy.Lookup_DB("OTHER", -1), nullptr);
}

TEST_F(ExternalDatabaseLibraryTest, NullTextKeepsTheOlderError) {
  manager.Error("first");
  manager.Error(String());
  EXPECT_EQ(Text(manager.error()), "first");
}

}  // namespace
