#include "base/compiled/Function.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <new>

#include "base/compiled/Dictionary.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/ThreadMemory.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

using namespace CompiledFileBytes;

namespace {

std::string TextOf(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

std::string TextOf(const Dictionary& dictionary, int id) {
  int length = 0;
  const char* text = dictionary.Entry(id, &length);
  return text ? std::string(text, static_cast<size_t>(length)) : "(none)";
}

// Parameters as "name" or "name&", each with the position of its variable.
std::string ParametersOf(Function* function) {
  std::string text;
  auto& list = function->parameters();
  for (auto* parameter = list.First(); parameter; parameter = list.Next()) {
    text += "[" + TextOf(parameter->name()) + (parameter->byreference() ? "&" : "") + " " +
            std::to_string(parameter->index()) + "]";
  }
  return text;
}

class FunctionTable : public testing::Test {
 protected:
  Function* Add(const std::string& name, const std::string& parameters = "", int flags = 0) {
    return functions.Function_Add(1, 2, name.data(), static_cast<int>(name.size()),
                                  parameters.data(), static_cast<int>(parameters.size()), flags);
  }
  Function* Get(const std::string& name) {
    return functions.Function_Get(name.data(), static_cast<int>(name.size()));
  }

  Dictionary dictionary;
  FunctionManager functions{&dictionary, 8};
};

// --- Parameters ----------------------------------------------------------------------------------

TEST_F(FunctionTable, ParametersAreDeclaredByAList) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"", ""},
      {"a", "[a 0]"},
      {"a,b", "[a 0][b 1]"},
      {"a, b var ,c", "[a 0][b& 1][c 2]"},
      {"  a  ", "[a 0]"},
      {"\ta\n,\r\n b\v", "[a 0][b 1]"},
      {"a  VAR", "[a& 0]"},
      {"a\tVar", "[a& 0]"},
      {"a variant", "[a 0]"},
      {"a va", "[a 0]"},
      {"a var x", "[a 0]"},
      {"var", "[var 0]"},
      {"var var", "[var& 0]"},
      {"a,,b", "[a 0][ 1][b 2]"},
      {"a,", "[a 0][ 1]"},
      {" ", "[ 0]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(ParametersOf(Add("f", c.text)), c.expected);
  }
}

TEST_F(FunctionTable, AParameterListMayBeMeasured) {
  Function* function = functions.Function_Add(0, 0, "f", -1, "a,b", -1, 0);
  EXPECT_EQ(TextOf(function->name()), "f");
  EXPECT_EQ(ParametersOf(function), "[a 0][b 1]");
  EXPECT_EQ(ParametersOf(functions.Function_Add(0, 0, "g", 1, nullptr, 0, 0)), "");
}

TEST_F(FunctionTable, AParameterIsAVariableOfTheLocalTable) {
  Function* function = Add("f");
  EXPECT_EQ(function->AddParameter(0, "width", 5), 0);
  EXPECT_EQ(function->AddParameter(1, "height", -1), 1);
  EXPECT_EQ(function->variables().Entries(), 2);
  EXPECT_EQ(function->variables().Seek(-1, "HEIGHT", 6, nullptr), 1);
  EXPECT_EQ(function->variables().Index(0, 0), nullptr) << "a template has no variables";
  FunctionParameter* parameter = function->parameters().First();
  EXPECT_EQ(TextOf(dictionary, parameter->nameid()), "width");
}

// --- Adding and finding --------------------------------------------------------------------------

TEST_F(FunctionTable, AFunctionKnowsWhereItsCodeIs) {
  Function* function = functions.Function_Add(3, 40, "area", 4, "a", 1, 16);
  EXPECT_EQ(function->index(), 0);
  EXPECT_EQ(function->segment(), 3);
  EXPECT_EQ(function->offset(), 40);
  EXPECT_EQ(function->flags(), 16);
  EXPECT_EQ(TextOf(dictionary, function->nameid()), "area");
  EXPECT_EQ(function->dictionary(), &dictionary);
  EXPECT_EQ(function->calldata, nullptr);
  EXPECT_EQ(functions.Lookup(0), function);
}

TEST_F(FunctionTable, AnExternalFunctionHasNoCode) {
  Function* function = functions.Function_Add("ext", -1, Function_OutputMode1);
  EXPECT_EQ(function->segment(), -1);
  EXPECT_EQ(function->offset(), -1);
  EXPECT_EQ(function->flags(), Function_OutputMode1 | Function_External);
  EXPECT_EQ(Get("EXT"), function);
}

TEST_F(FunctionTable, NamesAreFoundWithoutRegardToCase) {
  Function* function = Add("lowercase");
  EXPECT_EQ(Get("LOWERCASE"), function);
  EXPECT_EQ(functions.Function_Get("LowerCase", -1), function);
  EXPECT_EQ(Get("lowercas"), nullptr);
  EXPECT_EQ(Get(""), nullptr);
}

TEST_F(FunctionTable, OfEqualNamesTheFirstIsFound) {
  Function* first = Add("same");
  Function* second = Add("SAME");
  EXPECT_EQ(Get("Same"), first);
  EXPECT_EQ(functions.Lookup(1), second);
}

TEST_F(FunctionTable, IndexesOutOfRangeAreInvalid) {
  EXPECT_EQ(functions.Lookup(0), nullptr);
  Add("f");
  for (int index : {-1, 1, INT_MIN, INT_MAX}) EXPECT_EQ(functions.Lookup(index), nullptr);
}

TEST_F(FunctionTable, ManyFunctionsKeepTheirIndexes) {
  for (int i = 0; i < 300; i++) ASSERT_EQ(Add("f" + std::to_string(i))->index(), i);
  EXPECT_EQ(functions.Functions(), 300);
  for (int i = 0; i < 300; i++) ASSERT_EQ(Get("F" + std::to_string(i))->index(), i);
}

TEST_F(FunctionTable, ASearchStopsAtANameThatSortsLater) {
  // One bucket, so that all names share a chain.
  FunctionManager one(&dictionary, 0);
  one.Function_Add("ab", -1, 0);
  Function* three = one.Function_Add("mmm", -1, 0);
  one.Function_Add("zzz", -1, 0);
  EXPECT_EQ(one.Function_Get("aaa", -1), nullptr);
  EXPECT_EQ(one.Function_Get("MMM", -1), three);
  EXPECT_EQ(one.Function_Get("abcd", -1), nullptr);
}

TEST_F(FunctionTable, AStandInHasNameAndParametersOfTheOther) {
  Dictionary other_dictionary;
  other_dictionary.Entry_Add("padding", -1);
  FunctionManager others(&other_dictionary, 8);
  Function* source = others.Function_Add(5, 6, "area", 4, "a, b var", -1, 8);
  ASSERT_EQ(source->nameid(), 1);
  Function* function = functions.Function_Add(source);
  EXPECT_EQ(TextOf(function->name()), "area");
  EXPECT_EQ(function->nameid(), 1) << "the source's id, though its name is entry 0 here";
  EXPECT_EQ(TextOf(dictionary, 0), "area");
  EXPECT_EQ(function->flags(), 8);
  EXPECT_EQ(function->segment(), -1);
  EXPECT_EQ(function->offset(), -1);
  EXPECT_EQ(ParametersOf(function), "[a 0][b& 1]");
  EXPECT_EQ(Get("area"), function);
}

TEST_F(FunctionTable, AMadeFunctionIsTakenOver) {
  auto* made = new Function(0, 0, 0, "alias", 5, 1, 2, &dictionary);
  EXPECT_EQ(functions.Function_Add(made, "entered", -1), made);
  EXPECT_EQ(functions.Lookup(0), made);
}

TEST_F(FunctionTable, TheBucketIsTheHashOfTheName) {
  EXPECT_EQ(functions.hash("Name", 4), static_cast<int>(hashi("name", 4, 0) & 255));
  EXPECT_EQ(functions.hash("NAME", -1), functions.hash("name", 4));
}

TEST_F(FunctionTable, ACloneHasFunctionsOfItsOwn) {
  Add("area", "a, b var", 4);
  functions.Function_Add("ext", -1, 0);
  TestApplication application;
  Dictionary other(dictionary);
  FunctionManager clone(&application, &other, functions);
  ASSERT_EQ(clone.Functions(), 2);
  Function* area = clone.Function_Get("AREA", -1);
  ASSERT_NE(area, nullptr);
  EXPECT_NE(area, functions.Lookup(0));
  EXPECT_EQ(area->dictionary(), &other);
  EXPECT_EQ(area->flags(), 4);
  EXPECT_EQ(ParametersOf(area), "[a 0][b& 1]");
  EXPECT_EQ(area->variables().Seek(-1, "b", 1, nullptr), 1);
  clone.Function_Add("more", -1, 0);
  EXPECT_EQ(functions.Functions(), 2);
}

// Each block of an addition is refused in its turn, until the addition succeeds. The table and its
// array grow at the 65th function and at the 129th.
TEST_F(FunctionTable, GrowsLaterIfThereIsNoMemory) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  for (int i = 0; i < 200; i++) {
    const std::string name = "f" + std::to_string(i);
    for (long block = 1; functions.Functions() == i; block++) {
      const FailingAllocator allocator(block, FailingAllocator::Once);
      try {
        Add(name, "a");
      } catch (const std::bad_alloc&) {
      }
    }
    ASSERT_EQ(functions.Functions(), i + 1);
  }
  for (int i = 0; i < 200; i++) {
    Function* const found = Get("f" + std::to_string(i));
    ASSERT_NE(found, nullptr) << i;
    EXPECT_EQ(found, functions.Lookup(i));
    EXPECT_EQ(ParametersOf(found), "[a 0]");
  }
}

// --- The section ---------------------------------------------------------------------------------

class FunctionFile : public testing::Test {
 protected:
  FunctionFile() {
    for (const char* text : {"area", "width", "height", "ext", "local"}) texts.Add(text);
  }

  bool Read(const std::string& section) {
    manager.files["s"] = Container({{"dict", texts.Section()}, {"func", section}});
    EXPECT_TRUE(file.Open("s", FileMode_Read));
    EXPECT_TRUE(dictionary.Read(&file));
    file.Section_Read_End();
    return functions.Read(&file);
  }
  // "area(width, height var)" with one more local variable, and "ext".
  std::string Section() {
    NameTable table({"area", "ext"}, 8);
    return table.head + table.buckets + LE32(table.links[0]) + LE32(table.links[1]) +  //
           LE32(0) + LE32(2) + LE32(16) + LE32(3) + LE32(40) +                         //
           LE32(1) + LE32(0) + LE32(0) + LE32(2) + LE32(1) + LE32(1) +                 //
           VariableTable(texts, {1, 2, 4}, 8) +                                        //
           LE32(3) + LE32(0) + LE32(1) + LE32(-1) + LE32(-1) + VariableTable(texts, {}, 8);
  }
  std::string Written() {
    EXPECT_TRUE(file.Create("w", nullptr, 0));
    EXPECT_TRUE(functions.Write(&file)) << TextOf(functions.error());
    file.Section_End();
    EXPECT_TRUE(file.Section_Flush());
    return manager.files["w"];
  }

  Texts texts;
  FaultyFileManager manager;
  TaggedFile file{&manager};
  Dictionary dictionary;
  FunctionManager functions{&dictionary, 8};
};

TEST_F(FunctionFile, ReadsWhatTheFormatSays) {
  ASSERT_TRUE(Read(Section())) << TextOf(functions.error());
  ASSERT_EQ(functions.Functions(), 2);
  Function* area = functions.Function_Get("Area", -1);
  ASSERT_EQ(area, functions.Lookup(0));
  EXPECT_EQ(area->index(), 0);
  EXPECT_EQ(area->flags(), 16);
  EXPECT_EQ(area->segment(), 3);
  EXPECT_EQ(area->offset(), 40);
  EXPECT_EQ(ParametersOf(area), "[width 0][height& 1]");
  EXPECT_EQ(area->variables().Entries(), 3);
  EXPECT_EQ(area->variables().Seek(-1, "LOCAL", 5, nullptr), 2);
  Function* ext = functions.Function_Get("ext", -1);
  ASSERT_EQ(ext, functions.Lookup(1));
  EXPECT_EQ(ext->flags(), Function_External);
  EXPECT_EQ(ext->segment(), -1);
  EXPECT_EQ(ext->variables().Entries(), 0);
}

TEST_F(FunctionFile, WritesWhatItRead) {
  ASSERT_TRUE(Read(Section()));
  EXPECT_EQ(Written(), Container({{"func", Section()}}));
}

TEST_F(FunctionFile, WritingLeavesTheSectionToItsCaller) {
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  ASSERT_TRUE(functions.Write(&file));
  ASSERT_TRUE(file.Section_Flush());
  EXPECT_EQ(file.Sections(), 0) << "it has no end";
}

TEST_F(FunctionFile, ReadingForgetsTheSection) {
  ASSERT_TRUE(Read(Section()));
  EXPECT_FALSE(file.Section_Read_Start(MakeTag("none"), nullptr));
}

TEST_F(FunctionFile, FunctionsAreAddedAfterThoseOfTheFile) {
  ASSERT_TRUE(Read(Section()));
  for (int i = 0; i < 100; i++) {
    std::string name = "more" + std::to_string(i);
    EXPECT_EQ(functions.Function_Add(name.c_str(), -1, 0)->index(), i + 2);
  }
  EXPECT_EQ(functions.Function_Get("AREA", -1)->index(), 0);
  EXPECT_EQ(functions.Function_Get("more99", -1)->index(), 101);
}

TEST_F(FunctionFile, NamesThatTheDictionaryLacksAreEmpty) {
  std::string section = Section();
  size_t area = 7 + 12 + 8;
  Patch(&section, area, LE32(1000));
  Patch(&section, area + 20, LE32(-1));
  ASSERT_TRUE(Read(section));
  EXPECT_EQ(TextOf(functions.Lookup(0)->name()), "");
  EXPECT_EQ(ParametersOf(functions.Lookup(0)), "[ 0][height& 1]");
  EXPECT_EQ(functions.Function_Get("area", -1), nullptr);
}

TEST_F(FunctionFile, NamesGoByTheDictionaryAsItWasThen) {
  std::string section = Section();
  size_t area = 7 + 12 + 8;
  Patch(&section, area, LE32(5));  // one past the last entry
  Patch(&section, area + 20, LE32(5));
  ASSERT_TRUE(Read(section));
  ASSERT_EQ(dictionary.Entry_Add("late", -1), 5);
  EXPECT_EQ(functions.Function_Get("late", -1), nullptr);
  EXPECT_EQ(TextOf(functions.Lookup(0)->name()), "");
  EXPECT_EQ(ParametersOf(functions.Lookup(0)), "[ 0][height& 1]");
}

TEST_F(FunctionFile, AFunctionIsTheSameHoweverItIsAskedFor) {
  ASSERT_TRUE(Read(Section()));
  Function* area = functions.Function_Get("area", -1);
  file.Close();
  EXPECT_EQ(functions.Lookup(0), area);
  EXPECT_EQ(functions.Function_Get("AREA", -1), area);
  ASSERT_NE(functions.Lookup(1), nullptr) << "the file isn't needed any more";
  EXPECT_EQ(TextOf(functions.Lookup(1)->name()), "ext");
}

TEST_F(FunctionFile, AStoredTableThatWasTouchedWritesTheSame) {
  ASSERT_TRUE(Read(Section()));
  functions.Lookup(1);
  EXPECT_EQ(Written(), Container({{"func", Section()}}));
}

TEST_F(FunctionFile, ACloneOutlivesTheTableItWasMadeOf) {
  auto source = std::make_unique<FunctionManager>(&dictionary);
  ASSERT_TRUE(Read(Section()));
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  ASSERT_TRUE(source->Read(&file));
  source->Lookup(0);
  TestApplication application;
  Dictionary other(dictionary);
  FunctionManager clone(&application, &other, *source);
  source.reset();
  EXPECT_EQ(ParametersOf(clone.Function_Get("area", -1)), "[width 0][height& 1]");
  EXPECT_EQ(clone.Function_Get("ext", -1)->flags(), Function_External);
  EXPECT_EQ(clone.Lookup(1)->dictionary(), &other);
}

TEST_F(FunctionFile, ASectionMayStateMoreThanTheFileHas) {
  manager.files["s"] = Container({{"dict", texts.Section()}, {"func", Section()}});
  std::string& content = manager.files["s"];
  // The directory is before the last section, so that the file ends with the functions.
  size_t directory = content.size() - 24;
  std::string entries = content.substr(directory);
  size_t start = OffsetOf({{"dict", texts.Section()}, {"func", ""}}, "func");
  content = content.substr(0, start) + entries + Section();
  Patch(&content, 24, LE32(static_cast<long>(start)));
  Patch(&content, start + 12 + 4, LE32(static_cast<long>(start) + 24) + LE32(100000));
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  ASSERT_TRUE(dictionary.Read(&file));
  EXPECT_TRUE(functions.Read(&file)) << "what is after the functions doesn't matter";
  EXPECT_EQ(ParametersOf(functions.Function_Get("area", -1)), "[width 0][height& 1]");
}

TEST_F(FunctionFile, WhatIsInFrontOfABreakIsThere) {
  std::string section = Section();
  EXPECT_FALSE(Read(section.substr(0, section.size() - 1)));
  EXPECT_EQ(ParametersOf(functions.Function_Get("area", -1)), "[width 0][height& 1]");
  EXPECT_EQ(functions.Function_Get("ext", -1), nullptr);
  EXPECT_EQ(functions.Lookup(1), nullptr);
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  EXPECT_FALSE(functions.Write(&file));
}

TEST_F(FunctionFile, AFunctionBiggerThanTheWindowIsRead) {
  std::string parameters;
  for (int i = 0; i < 10000; i++) parameters += (i ? ",p" : "p") + std::to_string(i);
  Function* big = functions.Function_Add(1, 2, "big", 3, parameters.data(),
                                         static_cast<int>(parameters.size()), 0);
  ASSERT_EQ(big->parameters().Entries(), 10000);
  functions.Function_Add("small", -1, 0);
  ASSERT_TRUE(file.Create("w", nullptr, 0));
  ASSERT_TRUE(dictionary.Write(&file));
  ASSERT_TRUE(functions.Write(&file));
  file.Section_End();
  ASSERT_TRUE(file.Section_Flush());
  ASSERT_TRUE(file.Open("w", FileMode_Read));
  ASSERT_TRUE(dictionary.Read(&file));
  ASSERT_TRUE(functions.Read(&file));
  ASSERT_EQ(functions.Lookup(0)->parameters().Entries(), 10000);
  EXPECT_EQ(functions.Lookup(0)->variables().Seek(-1, "P9999", 5, nullptr), 9999);
  EXPECT_EQ(functions.Function_Get("small", -1), functions.Lookup(1));
}

TEST_F(FunctionFile, ASectionCutAnywhereFails) {
  std::string section = Section();
  for (size_t length = 0; length < section.size(); length++) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(Read(section.substr(0, length)));
    functions.Function_Get("area", -1);
    functions.Function_Get("ext", -1);
    functions.Function_Get("", -1);
  }
}

TEST_F(FunctionFile, CountsAtTheirExtremesFail) {
  const size_t area = 7 + 12 + 8;
  const struct {
    const char* label;
    size_t at;
    std::string bytes;
  } cases[] = {
      {"seventeen bits", 2, LE(17, 1)},
      {"most bits", 2, LE(255, 1)},
      {"all buckets", 0, LE16(0xFFFF)},
      {"negative count", 3, LE32(-1)},
      {"lowest count", 3, LE32(INT_MIN)},
      {"highest count", 3, LE32(INT_MAX)},
      {"small in 32 bits", 3, LE32(0x40000001)},
      {"negative parameters", area + 4, LE32(-1)},
      {"highest parameters", area + 4, LE32(INT_MAX)},
      {"parameters small in 32 bits", area + 4, LE32(0x15555558)},
      {"bits of the local table", area + 44 + 2, LE(99, 1)},
      {"count of the local table", area + 44 + 3, LE32(INT_MAX)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string section = Section();
    Patch(&section, c.at, c.bytes);
    EXPECT_FALSE(Read(section));
    functions.Function_Get("area", -1);
  }
}

TEST_F(FunctionFile, HeadsAndLinksOutOfRangeEndTheLookup) {
  for (long bad : {-1L, 2L, 1000L, static_cast<long>(INT_MAX), static_cast<long>(INT_MIN)}) {
    SCOPED_TRACE(bad);
    std::string section = Section();
    Patch(&section, 9, LE32(bad));
    Patch(&section, 15, LE32(bad));
    ASSERT_TRUE(Read(section));
    EXPECT_EQ(functions.Function_Get("area", -1), nullptr);
    EXPECT_NE(functions.Lookup(0), nullptr) << "calls go by index";
    section = Section();
    Patch(&section, 19, LE32(bad) + LE32(bad));
    ASSERT_TRUE(Read(section));
    EXPECT_NE(functions.Function_Get("area", -1), nullptr);
  }
}

TEST_F(FunctionFile, ChainsWithoutAnEndEndTheLookup) {
  for (int first = 0; first < 2; first++) {
    for (int second = 0; second < 2; second++) {
      std::string section = Section();
      Patch(&section, 19, LE32(first) + LE32(second));
      ASSERT_TRUE(Read(section));
      // Names of any length, so that each search walks a whole chain.
      for (int i = 0; i < 2000; i++) {
        std::string name = "zzzz" + std::to_string(i);
        EXPECT_EQ(functions.Function_Get(name.c_str(), -1), nullptr);
      }
    }
  }
}

// A search relies on the order of a chain: a name that follows a longer one, or one that sorts
// after it, is not found, though calls by its index work.
TEST_F(FunctionFile, AChainOutOfOrderIsSearchedToTheNameThatSortsLater) {
  const int ab = texts.Add("ab"), mmm = texts.Add("mmm"), aaa = texts.Add("aaa");
  const auto section = [&](const std::vector<int>& names) {
    std::string bytes = LE16(1) + LE(0, 1) + LE32(static_cast<long>(names.size()));
    bytes += LE16(0) + LE32(0);
    for (size_t i = 1; i < names.size(); i++) bytes += LE32(static_cast<long>(i));
    bytes += LE32(-1);
    for (const int name : names) {
      bytes += LE32(name) + LE32(0) + LE32(1) + LE32(-1) + LE32(-1) + VariableTable(texts, {}, 8);
    }
    return bytes;
  };
  ASSERT_TRUE(Read(section({ab, mmm, aaa}))) << TextOf(functions.error());
  EXPECT_EQ(functions.Function_Get("ab", -1), functions.Lookup(0));
  EXPECT_EQ(functions.Function_Get("mmm", -1), functions.Lookup(1));
  EXPECT_EQ(functions.Function_Get("aaa", -1), nullptr);
  EXPECT_EQ(TextOf(functions.Lookup(2)->name()), "aaa");
  ASSERT_TRUE(Read(section({aaa, ab})));
  EXPECT_EQ(functions.Function_Get("ab", -1), nullptr);
  ASSERT_TRUE(Read(section({ab, aaa, mmm})));
  EXPECT_EQ(functions.Function_Get("aaa", -1), functions.Lookup(1));
}

TEST_F(FunctionFile, AFailureHasTheTextOfWhatFailed) {
  manager.files["s"] = Container({});
  ASSERT_TRUE(file.Open("s", FileMode_Read));
  EXPECT_FALSE(functions.Read(&file));
  EXPECT_EQ(TextOf(functions.error()), "Invalid section");

  std::string section = Section();
  Patch(&section, 7 + 12 + 8 + 44 + 2, LE(99, 1));
  file.Error("the file's text");
  EXPECT_FALSE(Read(section));
  EXPECT_EQ(TextOf(functions.error()), "the file's text");
}

TEST_F(FunctionFile, FailingWritesHaveTheFilesText) {
  ASSERT_TRUE(Read(Section()));
  int n = 1;
  for (;; n++) {
    ASSERT_TRUE(file.Create("w", nullptr, 0));
    functions.Error("");
    manager.fail_write = n;
    if (functions.Write(&file)) break;
    EXPECT_EQ(TextOf(functions.error()), "Injected failure");
  }
  EXPECT_GE(n, 5) << "the table, and for each function its record and its locals";
}

}  // namespace
