// Loads compiled files as a request does: all sections in order, from good files and damaged ones.

#include <gtest/gtest.h>

#include <memory>

#include "base/core/Limits.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"

using namespace CompiledFileBytes;

namespace {

class CompiledFile : public testing::Test {
 protected:
  // The tag of the section that cannot be read, "open", or "" for a file that loads.
  std::string LoadFails(const std::string& content) {
    manager.files["s"] = content;
    script = std::make_unique<LoadedScript>(&application, &manager);
    std::unique_ptr<File> opened(manager.Open("s", FileMode_Read));
    const char* failed = nullptr;
    script->Load("s", opened.get(), &failed);
    if (failed != std::string("open")) static_cast<void>(opened.release());
    return failed;
  }
  void UseEverything() { EXPECT_GT(script->UseEverything(&application), 0U); }

  TestApplication application;
  FaultyFileManager manager;
  std::unique_ptr<LoadedScript> script;
};

TEST_F(CompiledFile, ASmallScriptLoads) {
  ASSERT_EQ(LoadFails(Container(SmallScript())), "");
  EXPECT_EQ(script->dictionary.Entries(), 14);
  EXPECT_EQ(script->system.Entries(), 1);
  EXPECT_EQ(script->globals.Entries(), 2);
  EXPECT_EQ(script->globals.Seek(-1, "USER", 4, nullptr), 1);
  EXPECT_EQ(script->segments.Segments(), 2);
  EXPECT_EQ(script->pieces.Entries(), 4);
  ASSERT_NE(script->functions.Function_Get("AREA", -1), nullptr);
  EXPECT_EQ(script->functions.Function_Get("AREA", -1)->variables().Entries(), 2);
  application.SetLanguage("en");
  ASSERT_NE(script->languages.Get_Entry(10), nullptr);
  EXPECT_EQ(script->languages.Get_Entry(10)->first, 2);
  UseEverything();
}

TEST_F(CompiledFile, LoadingASmallScriptIsOneSeekAndOneRead) {
  if (kCompiledFileWindow < 65536)
    GTEST_SKIP() << "the window of this build is smaller than a script";
  ASSERT_EQ(LoadFails(Container(SmallScript())), "");
  EXPECT_EQ(manager.seeks, 1);
  EXPECT_EQ(manager.reads, 1);
  EXPECT_EQ(manager.lengths, 0);
  EXPECT_EQ(manager.deactivations, 0);
}

TEST_F(CompiledFile, ItsSectionsMayStandInAnyOrder) {
  auto sections = SmallScript();
  std::reverse(sections.begin(), sections.end());
  ASSERT_EQ(LoadFails(Container(sections)), "");
  EXPECT_NE(script->functions.Function_Get("area", -1), nullptr);
}

TEST_F(CompiledFile, AScriptBiggerThanTheWindowLoads) {
  auto sections = SmallScript();
  sections.insert(sections.begin(), {"junk", std::string(100000, 'j')});
  sections.insert(sections.begin() + 6, {"junk", std::string(100000, 'j')});
  ASSERT_EQ(LoadFails(Container(sections)), "");
  EXPECT_NE(script->functions.Function_Get("area", -1), nullptr);
  UseEverything();
}

// --- Missing sections -----------------------------------------------------------------

TEST_F(CompiledFile, OneWithoutADictionaryIsCorrupt) {
  EXPECT_EQ(LoadFails(Container(Without(SmallScript(), "dict"))), "dict");
  EXPECT_STREQ(script->file.error().data, "Invalid section");
}

// The dictionary leaves its section selected, so the system table is read from the dictionary's
// bytes: two bytes of its count are taken as the buckets, the third as the bits, and the next bytes
// as the count of entries.
TEST_F(CompiledFile, WithoutSystemVariablesTheDictionarysBytesAreRead) {
  EXPECT_EQ(LoadFails(Container(Without(SmallScript(), "syst"))), "syst");
  EXPECT_EQ(script->file.error().length, 0) << "the lookup itself reports nothing";

  // An empty dictionary reads as an empty table: its count of 0 gives no bucket, no bits and, with
  // the low bytes of the data length, no entry.
  auto sections = Without(SmallScript(), "syst");
  sections[0].content = LE32(0) + LE32(0) + LE32(0);
  EXPECT_EQ(LoadFails(Container(sections)), "");
  EXPECT_EQ(script->system.Entries(), 0);
}

// The tables in the middle deselect their section, so for the next missing one none is selected.
TEST_F(CompiledFile, OneWithoutGlobalsLanguagesPiecesOrCodeIsCorrupt) {
  for (const char* tag : {"glbl", "locl", "locd", "segs"}) {
    SCOPED_TRACE(tag);
    EXPECT_EQ(LoadFails(Container(Without(SmallScript(), tag))), tag);
    EXPECT_STREQ(script->file.error().data, "Invalid section");
  }
}

// Segments are read at random, which leaves their section selected: the function table is read from
// the segments' bytes. With one segment and start 0 these bytes mean one bucket, no bits, no
// function, and a head that is not an entry.
TEST_F(CompiledFile, WithoutFunctionsTheBytesOfTheCodeAreReadAndASmallScriptRuns) {
  auto sections = Without(SmallScript(), "func");
  std::string code = LE16(0x4001) + LE32(0) + LE16(21);
  sections.back().content =
      LE32(1) + LE32(0) + LE32(0) + LE32(static_cast<long>(code.size())) + code;
  ASSERT_EQ(sections.back().tag, "segs");
  EXPECT_EQ(LoadFails(Container(sections)), "");
  EXPECT_EQ(script->functions.Functions(), 0);
  EXPECT_EQ(script->functions.Function_Get("area", -1), nullptr);
  EXPECT_EQ(script->segments.Start()->length(), 8);
}

TEST_F(CompiledFile, WithoutFunctionsASingleEmptySegmentStillRuns) {
  auto sections = Without(SmallScript(), "func");
  sections.back().content = LE32(1) + LE32(0) + LE32(0) + LE32(0);
  EXPECT_EQ(LoadFails(Container(sections)), "");
  EXPECT_EQ(script->functions.Functions(), 0);
}

TEST_F(CompiledFile, WithoutFunctionsAStartOtherThanZeroIsReadAsACountOfThem) {
  auto sections = Without(SmallScript(), "func");
  // The low byte of the start is read as the second byte of the count: 256 functions, which do not
  // exist.
  sections.back().content = LE32(2) + LE32(1) + LE32(0) + LE32(0) + LE32(0) + LE32(0);
  EXPECT_EQ(LoadFails(Container(sections)), "func");
}

// --- Damage --------------------------------------------------------------------------------------

TEST_F(CompiledFile, CutAnywhereItDoesNotOpen) {
  std::string content = Container(SmallScript());
  for (size_t length = 0; length < content.size(); length++) {
    SCOPED_TRACE(length);
    ASSERT_EQ(LoadFails(content.substr(0, length)), "open");
  }
}

TEST_F(CompiledFile, CutAnywhereAfterADirectoryInFrontItIsCorrupt) {
  // The directory is in front, so that a cut file lacks sections.
  std::string content = Container(SmallScript());
  size_t directory = content.size() - 9 * 12;
  std::string body = content.substr(32, directory - 32);
  std::string moved = content.substr(0, 24) + LE32(32) + LE32(9);
  for (size_t entry = directory; entry < content.size(); entry += 12) {
    unsigned offset = static_cast<unsigned char>(content[entry + 4]) +
                      (static_cast<unsigned char>(content[entry + 5]) << 8);
    moved += content.substr(entry, 4) + LE32(offset + 9 * 12) + content.substr(entry + 8, 4);
  }
  moved += body;
  ASSERT_EQ(LoadFails(moved), "");
  for (size_t length = 32 + 9 * 12; length < moved.size(); length++) {
    SCOPED_TRACE(length);
    ASSERT_NE(LoadFails(moved.substr(0, length)), "");
  }
}

TEST_F(CompiledFile, AnyByteMayBeAnything) {
  const std::string content = Container(SmallScript());
  int loaded = 0;
  for (size_t at = 0; at < content.size(); at++) {
    for (unsigned char change : {0x01, 0x80, 0xFF}) {
      SCOPED_TRACE(testing::Message() << at << " ^ " << int{change});
      std::string damaged = content;
      damaged[at] = static_cast<char>(damaged[at] ^ change);
      if (LoadFails(damaged).empty()) {
        loaded++;
        UseEverything();
      }
    }
  }
  EXPECT_GT(loaded, 100) << "many a byte is only a text, a name or an operand";
}

TEST_F(CompiledFile, AnyFourBytesMayBeAnExtremeNumber) {
  const std::string content = Container(SmallScript());
  for (size_t at = 0; at + 4 <= content.size(); at++) {
    for (long value : {0L, -1L, 0x7FFFFFFFL, -0x80000000L, 0x10000L, 0x20000000L, 0x40000001L}) {
      SCOPED_TRACE(testing::Message() << at << " = " << value);
      std::string damaged = content;
      Patch(&damaged, at, LE32(value));
      if (LoadFails(damaged).empty()) UseEverything();
    }
  }
}

TEST_F(CompiledFile, AFailingReadAtAnyPointIsCorrupt) {
  // The sections are far apart, so that each needs reads of its own.
  std::vector<SectionBytes> sections;
  for (const SectionBytes& section : SmallScript()) {
    sections.push_back({"junk", std::string(70000, 'j')});
    sections.push_back(section);
  }
  std::string content = Container(sections);
  ASSERT_EQ(LoadFails(content), "");
  int reads = manager.reads;
  int seeks = manager.seeks;
  for (int n = 1; n <= reads; n++) {
    SCOPED_TRACE(n);
    manager.fail_read = n;
    LoadFails(content);
    manager.fail_read = 0;
  }
  for (int n = 1; n <= seeks; n++) {
    SCOPED_TRACE(n);
    manager.fail_seek = n;
    // With a small window, a seek may be for texts of a language, which a script can do without.
    const bool loaded = LoadFails(content).empty();
    manager.fail_seek = 0;
    if (loaded) UseEverything();
    EXPECT_TRUE(!loaded || kCompiledFileWindow < 65536);
  }
  EXPECT_GT(reads, 7);
}

// --- On a disk -----------------------------------------------------------------------------------

TEST_F(CompiledFile, IsWrittenToADiskAndReadBack) {
  TemporaryDirectory directory;
  UNIXReentrantFileManager disk(&application);
  ASSERT_EQ(LoadFails(Container(SmallScript())), "");
  std::string path = directory.path("copy.zpc");

  TaggedFile copy(&disk);
  ASSERT_TRUE(copy.Create(path.c_str(), nullptr, 0));
  ASSERT_TRUE(script->dictionary.Write(&copy));
  ASSERT_TRUE(script->system.Write(&copy, MakeTag("syst")));
  ASSERT_TRUE(script->globals.Write(&copy, MakeTag("glbl")));
  ASSERT_TRUE(script->languages.Write(&copy));
  ASSERT_TRUE(script->pieces.Write(&copy));
  ASSERT_TRUE(script->segments.Write(&copy));
  ASSERT_TRUE(script->functions.Write(&copy));
  copy.Section_End();
  ASSERT_TRUE(copy.Section_Flush());
  copy.Close();
  EXPECT_EQ(directory.Content("copy.zpc"), Container(SmallScript()));

  LoadedScript loaded(&application, &disk);
  ASSERT_TRUE(loaded.Load(path.c_str(), disk.Open(path.c_str(), FileMode_Read)));
  loaded.file.Deactivate();
  application.SetLanguage("de");
  ASSERT_NE(loaded.languages.Get_Entry(10), nullptr) << "read from the deactivated file";
  EXPECT_EQ(loaded.languages.Get_Entry(10)->first, 0);
}

}  // namespace
