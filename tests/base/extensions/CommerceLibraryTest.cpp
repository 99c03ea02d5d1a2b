#include "base/extensions/CommerceLibrary.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "tests/support/LibraryFixture.h"

namespace {

class CommerceLibraryTest : public LibraryFixture {
 protected:
  CommerceLibraryTest() : manager(&application) {}

  CommerceLibraryManager manager;
};

int Init(ZephVM*, void** state, const char* method, const char* action, VariableList*,
         VariableHash*) {
  *state = const_cast<char*>(method);
  return action[0];
}
int Loop(ZephVM*, void**, const char*, const char*, VariableList*, VariableHash*, int index) {
  return index + 100;
}
void Cleanup(ZephVM*, void** state, const char*, const char*, VariableList*) {
  *state = nullptr;
}
const char* ErrorText(ZephVM*, void**, const char*, const char* action, VariableList*) {
  return action;
}

TEST_F(CommerceLibraryTest, UnknownMethodIsNamed) {
  EXPECT_EQ(manager.Lookup_Commerce_Library("paypalX", 6), nullptr);
  EXPECT_EQ(Text(manager.Get_Error()), "Commerce method 'paypal' is unsupported or not configured");
}

TEST_F(CommerceLibraryTest, RegistrationOpensNothing) {
  EXPECT_TRUE(manager.RegisterDSO("pay", "/nonexistent/pay.so"));
  EXPECT_EQ(manager.Get_Error().data, nullptr);
  EXPECT_FALSE(manager.libraries().First()->loaded());
}

TEST_F(CommerceLibraryTest, MissingFileShowsAtTheLookup) {
  manager.RegisterDSO("pay", "/nonexistent/pay.so");
  EXPECT_EQ(manager.Lookup_Commerce_Library("pay", -1), nullptr);
  EXPECT_TRUE(NamesMissingFile(manager.Get_Error(), "/nonexistent/pay.so"));
}

TEST_F(CommerceLibraryTest, TableGivesTheFunctions) {
  _ZP_EL_Commerce table = {&manager, Init, Loop, Cleanup, ErrorText};
  Exported<void*>("fake_commerce_table") = &table;
  manager.RegisterDSO("pay", fake.c_str());
  CommerceLibrary* library = manager.Lookup_Commerce_Library("PAY", -1);
  ASSERT_NE(library, nullptr);
  EXPECT_TRUE(library->loaded());
  const char* method = "pay";
  void* state = nullptr;
  EXPECT_EQ(library->Init(nullptr, &state, method, "go", nullptr, nullptr), 'g');
  EXPECT_EQ(state, method);
  EXPECT_EQ(library->Loop(nullptr, &state, method, "go", nullptr, nullptr, 5), 105);
  EXPECT_STREQ(library->Error(nullptr, &state, method, "go", nullptr), "go");
  library->Clean(nullptr, &state, method, "go", nullptr);
  EXPECT_EQ(state, nullptr);
}

TEST_F(CommerceLibraryTest, LoadedLibraryIsNotAskedAgain) {
  _ZP_EL_Commerce table = {0, Init, Loop, Cleanup, ErrorText};
  Exported<void*>("fake_commerce_table") = &table;
  manager.RegisterDSO("pay", fake.c_str());
  CommerceLibrary* library = manager.Lookup_Commerce_Library("pay", -1);
  EXPECT_EQ(manager.Lookup_Commerce_Library("pay", -1), library);
  EXPECT_EQ(Exported<int>("fake_calls"), 1);
}

TEST_F(CommerceLibraryTest, FunctionsLeftOutOfTheTableDoNothing) {
  _ZP_EL_Commerce table = {};
  Exported<void*>("fake_commerce_table") = &table;
  manager.RegisterDSO("pay", fake.c_str());
  CommerceLibrary* library = manager.Lookup_Commerce_Library("pay", -1);
  ASSERT_NE(library, nullptr);
  void* state = nullptr;
  EXPECT_EQ(library->Init(nullptr, &state, "pay", "go", nullptr, nullptr), 0);
  EXPECT_EQ(library->Loop(nullptr, &state, "pay", "go", nullptr, nullptr, 0), 2);
  library->Clean(nullptr, &state, "pay", "go", nullptr);
  EXPECT_EQ(library->Error(nullptr, &state, "pay", "go", nullptr), nullptr);
}

TEST_F(CommerceLibraryTest, NullTableFails) {
  manager.RegisterDSO("pay", fake.c_str());
  EXPECT_EQ(manager.Lookup_Commerce_Library("pay", -1), nullptr);
  EXPECT_EQ(Text(manager.Get_Error()),
            "Unable to load commerce library descriptor table/functions");
}

TEST_F(CommerceLibraryTest, FourFunctionsDoWithoutATable) {
  manager.RegisterDSO("pay", TestLibraryPath("FakeCommerceFunctions").c_str());
  CommerceLibrary* library = manager.Lookup_Commerce_Library("pay", -1);
  ASSERT_NE(library, nullptr);
  void* state = &state;
  EXPECT_EQ(library->Init(nullptr, &state, "pay", "go", nullptr, nullptr), 11);
  EXPECT_EQ(library->Loop(nullptr, &state, "pay", "go", nullptr, nullptr, 3), 23);
  EXPECT_STREQ(library->Error(nullptr, &state, "pay", "go", nullptr), "broke");
  library->Clean(nullptr, &state, "pay", "go", nullptr);
  EXPECT_EQ(state, nullptr);
}

TEST_F(CommerceLibraryTest, ThreeFunctionsFail) {
  for (const char* name : {"FakeCommerceIncomplete", "FakeEmpty"}) {
    SCOPED_TRACE(name);
    manager.RegisterDSO(name, TestLibraryPath(name).c_str());
    EXPECT_EQ(manager.Lookup_Commerce_Library(name, -1), nullptr);
    EXPECT_EQ(Text(manager.Get_Error()),
              "Unable to load commerce library descriptor table/functions");
  }
}

// A library with the four functions less one.
class LibraryWithout : public ExternalLibrary {
 public:
  explicit LibraryWithout(std::string_view name) : missing(name) {}
  bool Load(const char*) override { return true; }
  void* Get_Function(const char* name) override {
    const std::string_view wanted = name;
    if (wanted == missing) return nullptr;
    if (wanted == "zeph_commerce_init") return reinterpret_cast<void*>(Init);
    if (wanted == "zeph_commerce_loop") return reinterpret_cast<void*>(Loop);
    if (wanted == "zeph_commerce_cleanup") return reinterpret_cast<void*>(Cleanup);
    if (wanted == "zeph_commerce_error") return reinterpret_cast<void*>(ErrorText);
    return nullptr;
  }

 private:
  std::string_view missing;
};

TEST_F(CommerceLibraryTest, EachOfTheFourFunctionsMustBeThere) {
  for (const char* name : {"zeph_commerce_init", "zeph_commerce_loop", "zeph_commerce_cleanup",
                           "zeph_commerce_error"}) {
    SCOPED_TRACE(name);
    LibraryWithout incomplete(name);
    CommerceLibrary library("pay", "pay.so");
    EXPECT_FALSE(library.Load(&incomplete));
    EXPECT_FALSE(library.loaded());
    EXPECT_EQ(Text(library.Get_Error()),
              "Unable to load commerce library descriptor table/functions");
  }
  LibraryWithout complete("");
  CommerceLibrary library("pay", "pay.so");
  EXPECT_TRUE(library.Load(&complete));
  EXPECT_TRUE(library.loaded());
}

TEST_F(CommerceLibraryTest, CopyHasTheLibrariesWithTheirFunctions) {
  auto source = std::make_unique<CommerceLibraryManager>(&application);
  source->RegisterDSO("pay", TestLibraryPath("FakeCommerceFunctions").c_str());
  source->RegisterDSO("later", TestLibraryPath("FakeCommerceFunctions").c_str());
  ASSERT_NE(source->Lookup_Commerce_Library("pay", -1), nullptr);
  CommerceLibraryManager copy(&application, *source);
  source.reset();
  CommerceLibrary* first = copy.libraries().First();
  CommerceLibrary* second = copy.libraries().Next();
  EXPECT_STREQ(first->name(), "pay");
  EXPECT_TRUE(first->loaded());
  EXPECT_STREQ(second->name(), "later");
  EXPECT_FALSE(second->loaded());
  void* state = nullptr;
  EXPECT_EQ(first->Init(nullptr, &state, "pay", "go", nullptr, nullptr), 11);
  EXPECT_EQ(copy.Lookup_Commerce_Library("later", -1), second);
}

TEST_F(CommerceLibraryTest, NullTextKeepsTheOlderError) {
  manager.Set_Error("first");
  manager.Set_Error(String());
  EXPECT_EQ(Text(manager.Get_Error()), "first");
  CommerceLibrary library("pay", "pay.so");
  library.Set_Error("second");
  library.Set_Error(String());
  EXPECT_EQ(Text(library.Get_Error()), "second");
}

}  // namespace
