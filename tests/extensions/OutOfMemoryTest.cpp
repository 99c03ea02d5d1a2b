// What the libraries of extensions/ do when memory is refused: the engine's exception passes
// through them, and nothing is lost.

#include <new>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/extensions/Library.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/Sweep.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/Assembler.h"

namespace {

// Functions that allocate in all the ways that the library has.
constexpr char kScript[] = R"(
.function repeat(text, count) external
.function split(text, separator) external
.function join(array, separator) external
.function sort(array var, how) external
.function unique(array) external
.function merge(array, other) external
.function jsondecode(text) external
.function jsonencode(value) external
.function csvdecode(text, delimiter) external
.function slugify(text) external
.function writefile(path, text) external
.function readfile(path) external
.function listfiles(path) external
.function setcookie(name, value, options) external
.function upper(text) external
.end
        pushc "abc "
        pushi 500
        call repeat
        popg t
        pushg t
        pushc " "
        call split
        popg a
        pushg a
        pushc "nocase desc"
        call sort
        out
        pushg a
        call unique
        pushg a
        call merge
        pushc "-"
        call join
        call upper
        call slugify
        out
        pushc "{\"a\": [1, 2.5, \"x\"], \"b\": {\"c\": null}}"
        call jsondecode
        call jsonencode
        out
        pushc "a,\"b\"\nc,d\n"
        pushc ""
        call csvdecode
        out
        pushc "file"
        pushg t
        call writefile
        out
        pushc "file"
        call readfile
        out
        pushc "none"
        call readfile
        out
        pushc "."
        call listfiles
        out
        pushc "name"
        pushg t
        pushc ""
        call setcookie
        out
)";

TEST(ExtensionMemory, NothingIsLostWhenMemoryIsRefused) {
  TemporaryDirectory directory;
  UNIXExternalLibraryManager libraries;
  std::string image, errors;
  ASSERT_TRUE(AssembleScript(kScript, "page.zpa", &image, &errors)) << errors;
  const auto run = [&] {
    Machine machine;
    UNIXReentrantFileManager files(&machine.application);
    machine.application.SetLibraryManager(&libraries);
    machine.system.SetVariable(new Variable("apitype", -1, "CGI", -1));
    try {
      if (machine.external_calls.RegisterDSO(InBuild("lib/zephstd.so").c_str())) {
        machine.Load(image);
        machine.application.SetFileManager(&files);
        if (files.InitializeDataDirectory(directory.path().c_str())) machine.Go();
      }
    } catch (const std::bad_alloc&) {
    }
    machine.Close();
    machine.global.Dump();
  };
  RecordPoints(ExpectNothingIsLost(run, true, kSweepEach));
  // No temporary file is left over.
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    EXPECT_EQ(entry.path().filename(), "file");
  }
}

// What a thread keeps is whole after a refusal, or not there.
class ExtensionCaches : public Library {
 protected:
  void Prepare() override {
    EXPECT_TRUE(machine->external_calls.RegisterDSO(InBuild("lib/zephregex.so").c_str()));
  }
};

TEST_F(ExtensionCaches, KeptZonesAndPatternsAreWholeAfterARefusal) {
  Prepare();
  for (int n = 1; n < 300; n++) {
    const std::string number = std::to_string(n);
    // Each time a zone and a pattern that are not kept yet.
    char zone[16];
    snprintf(zone, sizeof zone, "+%02d:%02d", n / 20, n % 20);
    const std::string time = "formattime(0, '%R', '" + std::string(zone) + "')";
    const std::string replaced = "regexreplace('a1b2', '([a-z])(\\d)(?#" + number + ")', '$2$1')";
    const std::string expression = n % 2 == 0 ? time : replaced;
    const std::string value = n % 2 == 0 ? zone + 1 : "1a2b";
    {
      FailingAllocator failing(n / 2 % 60 + 1, FailingAllocator::Once);
      try {
        Value(expression);
      } catch (const std::bad_alloc&) {
      }
    }
    // A refusal ends the request.
    Restart();
    EXPECT_EQ(Value(expression), value) << n;
  }
}

}  // namespace
