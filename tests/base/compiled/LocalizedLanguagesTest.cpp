#include "base/compiled/LocalizedLanguages.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>

#include "base/compiled/Dictionary.h"
#include "base/compiled/TaggedFile.h"
#include "base/core/Limits.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

using namespace CompiledFileBytes;

namespace {

class Localized : public testing::Test {
 protected:
  Localized() {
    for (const char* text : {"de", "en", "fr", "welcome", "goodbye", "Welcome"}) texts.Add(text);
  }
  enum Text : int { De, En, Fr, Welcome, Goodbye, WelcomeAgain };

  std::string Languages(const std::vector<int>& ids, int bits = 12) {
    std::vector<std::string> names;
    for (int id : ids) names.push_back(texts[id]);
    NameTable table(names, bits);
    std::string bytes = table.head + table.buckets;
    for (size_t i = 0; i < ids.size(); i++) bytes += LE32(ids[i]) + LE32(table.links[i]);
    return bytes;
  }
  std::string Index(const std::vector<std::pair<int, int>>& tokens, int bits = 12) {
    std::vector<std::string> names;
    for (const auto& token : tokens) names.push_back(texts[token.first]);
    NameTable table(names, bits);
    std::string bytes = table.head + LE32(0) + table.buckets;
    for (size_t i = 0; i < tokens.size(); i++)
      bytes += LE32(tokens[i].first) + LE32(table.links[i]) + LE32(tokens[i].second);
    return bytes;
  }
  static std::string Tag(int number) { return "LX" + LE16(number); }

  // German has both texts, English only the first.
  std::vector<SectionBytes> TwoLanguages() {
    return {{"dict", texts.Section()},
            {"locl", Languages({De, En})},
            {Tag(0), Index({{Welcome, 10}, {Goodbye, 11}})},
            {Tag(1), Index({{Welcome, 20}})}};
  }
  bool Read(const std::vector<SectionBytes>& sections, unsigned version = 0x1000B) {
    manager.files["s"] = Container(sections, version);
    EXPECT_TRUE(file.Open("s", FileMode_Read));
    EXPECT_TRUE(dictionary.Read(&file));
    file.Section_Read_End();
    return languages.Read();
  }
  // The first piece of a token in the current language; 0 for none.
  int First(int token) {
    LocalizedIndex::TokenEntry* entry = languages.Get_Entry(token);
    return entry ? entry->first : 0;
  }

  Texts texts;
  TestApplication application;
  FaultyFileManager manager;
  TaggedFile file{&manager};
  Dictionary dictionary;
  LocalizedLanguages languages{&application, &dictionary, &file, 12, 8};
};

// --- Finding a text ------------------------------------------------------------------------------

TEST_F(Localized, ATokenIsFoundInTheCurrentLanguage) {
  ASSERT_TRUE(Read(TwoLanguages()));
  EXPECT_EQ(languages.Entries(), 2);
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 10);
  EXPECT_EQ(First(Goodbye), 11);
}

TEST_F(Localized, SettingTheLanguageCountsFromTheNextTextOn) {
  ASSERT_TRUE(Read(TwoLanguages()));
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 10);
  application.SetLanguage("EN");
  EXPECT_EQ(First(Welcome), 20);
  application.SetLanguage("nowhere");
  EXPECT_EQ(First(Welcome), 0);
  application.SetLanguage("De");
  EXPECT_EQ(First(Welcome), 10);
}

TEST_F(Localized, TheDefaultLanguageStepsInTokenByToken) {
  ASSERT_TRUE(Read(TwoLanguages()));
  application.SetLanguage("en");
  application.SetDefaultLanguage("de");
  EXPECT_EQ(First(Welcome), 20);
  EXPECT_EQ(First(Goodbye), 11);
  application.SetDefaultLanguage("en");
  EXPECT_EQ(First(Goodbye), 0);
}

TEST_F(Localized, WithoutALanguageTheDefaultServes) {
  ASSERT_TRUE(Read(TwoLanguages()));
  EXPECT_EQ(First(Welcome), 0) << "no language is set at all";
  application.SetDefaultLanguage("en");
  EXPECT_EQ(First(Welcome), 20);
}

TEST_F(Localized, TokensAreFoundByTextAndNotById) {
  ASSERT_TRUE(Read(TwoLanguages()));
  application.SetLanguage("de");
  EXPECT_EQ(First(WelcomeAgain), 10);
  int added = dictionary.Entry_Add("GOODBYE", -1);
  EXPECT_EQ(First(added), 11);
  EXPECT_EQ(First(De), 0);
  EXPECT_EQ(First(-1), 0);
  EXPECT_EQ(First(1000), 0);
}

TEST_F(Localized, LanguagesAreFoundByNameAndById) {
  ASSERT_TRUE(Read(TwoLanguages()));
  auto* german = languages.Get_Language_Entry("DE", 2);
  ASSERT_NE(german, nullptr);
  EXPECT_EQ(german->language, De);
  EXPECT_EQ(languages.Get_Language_Entry("de", -1), german);
  EXPECT_EQ(languages.Get_Language_Entry(De), german);
  EXPECT_EQ(languages.Get_Language_Entry("fr", -1), nullptr);
  EXPECT_EQ(languages.Get_Language_Entry(Fr), nullptr);
  EXPECT_EQ(languages.Get_Language_Entry(-1), nullptr);
  EXPECT_EQ(languages.Get_Language_Entry(nullptr, 0), nullptr);
  EXPECT_EQ(languages.Index(2), nullptr);
  EXPECT_EQ(languages.Index(-1), nullptr);
}

TEST_F(Localized, AnIndexIsReadWhenItIsNeededAndTheFileGivenBack) {
  ASSERT_TRUE(Read(TwoLanguages()));
  file.Deactivate();
  manager.ResetCounts();
  EXPECT_EQ(languages.Index(0)->index, nullptr);
  application.SetLanguage("de");
  First(Welcome);
  EXPECT_NE(languages.Index(0)->index, nullptr);
  EXPECT_EQ(languages.Index(1)->index, nullptr) << "English was not asked for";
  EXPECT_EQ(manager.deactivations, 1);
  int reads = manager.reads;
  EXPECT_GT(reads, 0);
  First(Goodbye);
  First(Welcome);
  EXPECT_EQ(manager.reads, reads) << "once is enough";
}

TEST_F(Localized, AnIndexCostsOneSeekAndOneRead) {
  if (kCompiledFileWindow < 65536)
    GTEST_SKIP() << "the window of this build is smaller than a script";
  ASSERT_TRUE(Read(TwoLanguages()));
  file.Deactivate();
  manager.ResetCounts();
  application.SetLanguage("de");
  First(Welcome);
  EXPECT_EQ(manager.seeks, 1);
  EXPECT_EQ(manager.reads, 1);
}

TEST_F(Localized, AMissingOrBrokenIndexHasNoTexts) {
  auto sections = TwoLanguages();
  sections.pop_back();
  ASSERT_TRUE(Read(sections));
  application.SetLanguage("en");
  application.SetDefaultLanguage("de");
  EXPECT_EQ(First(Welcome), 10);
  EXPECT_EQ(languages.Index(1)->index->Entries(), 0);

  sections = TwoLanguages();
  sections[3].content.pop_back();
  ASSERT_TRUE(Read(sections));
  EXPECT_EQ(First(Welcome), 10);
  EXPECT_EQ(languages.Index(1)->index->Entries(), 0);
}

TEST_F(Localized, AnOldFileHasOneIndexForAnyLanguage) {
  std::vector<SectionBytes> sections = {{"dict", texts.Section()},
                                        {"locl", Languages({De, En})},
                                        {std::string(4, '\0'), Index({{Welcome, 30}})}};
  ASSERT_TRUE(Read(sections, 0x10007));
  for (const char* language : {"de", "en"}) {
    application.SetLanguage(language);
    EXPECT_EQ(First(Welcome), 30);
  }
  ASSERT_TRUE(Read(sections, 0x10008));
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 0) << "newer files have no single index";
}

TEST_F(Localized, AnOldFileMayHaveAnIndexOfTheLanguageAllTheSame) {
  std::vector<SectionBytes> sections = {{"dict", texts.Section()},
                                        {"locl", Languages({De})},
                                        {std::string(4, '\0'), Index({{Welcome, 30}})},
                                        {Tag(0), Index({{Welcome, 31}})}};
  ASSERT_TRUE(Read(sections, 0x10001));
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 31);
}

TEST_F(Localized, ReadingAgainForgetsWhatWasRead) {
  ASSERT_TRUE(Read(TwoLanguages()));
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 10);
  ASSERT_TRUE(Read({{"dict", texts.Section()},
                    {"locl", Languages({En, De})},
                    {Tag(0), Index({{Welcome, 50}})},
                    {Tag(1), Index({{Welcome, 51}})}}));
  EXPECT_EQ(First(Welcome), 51);
}

// --- The sections --------------------------------------------------------------------------------

TEST_F(Localized, ReadingForgetsTheSection) {
  ASSERT_TRUE(Read(TwoLanguages()));
  EXPECT_FALSE(file.Section_Read_Start(MakeTag("none"), nullptr));
}

TEST_F(Localized, ASectionCutAnywhereFails) {
  std::string section = Languages({De, En, Fr});
  for (size_t length = 0; length < section.size(); length++) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(Read({{"dict", texts.Section()}, {"locl", section.substr(0, length)}}));
    EXPECT_EQ(languages.Entries(), 0);
  }
  EXPECT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
}

TEST_F(Localized, AnIndexCutAnywhereIsEmpty) {
  std::string section = Index({{Welcome, 10}, {Goodbye, 11}});
  for (size_t length = 0; length < section.size(); length++) {
    SCOPED_TRACE(length);
    ASSERT_TRUE(Read({{"dict", texts.Section()},
                      {"locl", Languages({De})},
                      {Tag(0), section.substr(0, length)}}));
    application.SetLanguage("de");
    EXPECT_EQ(First(Welcome), 0);
  }
}

TEST_F(Localized, CountsAtTheirExtremesFail) {
  const struct {
    const char* label;
    size_t at;
    std::string bytes;
  } cases[] = {
      {"seventeen bits", 2, LE(17, 1)},
      {"all buckets", 0, LE16(0xFFFF)},
      {"negative count", 3, LE32(-1)},
      {"lowest count", 3, LE32(INT_MIN)},
      {"highest count", 3, LE32(INT_MAX)},
      {"small in 32 bits", 3, LE32(0x20000002)},
      {"index small in 32 bits", 3, LE32(0x15555557)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string section = Languages({De, En});
    Patch(&section, c.at, c.bytes);
    EXPECT_FALSE(Read({{"dict", texts.Section()}, {"locl", section}}));

    section = Index({{Welcome, 10}, {Goodbye, 11}});
    Patch(&section, c.at, c.bytes);
    ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", Languages({De})}, {Tag(0), section}}));
    LocalizedIndex index(0, &dictionary);
    EXPECT_FALSE(index.Read(&file, MakeTag("LX\0\0")));
    EXPECT_EQ(index.Entries(), 0);
    file.Section_Read_End();
  }
}

TEST_F(Localized, HeadsAndLinksOutOfRangeEndTheLookup) {
  for (long bad : {-1L, 2L, static_cast<long>(INT_MAX), static_cast<long>(INT_MIN)}) {
    SCOPED_TRACE(bad);
    std::string section = Languages({De}, 0);
    Patch(&section, 9, LE32(bad));
    ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
    EXPECT_EQ(languages.Get_Language_Entry("de", 2), nullptr);

    section = Languages({De}, 0);
    Patch(&section, 17, LE32(bad));
    ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
    EXPECT_NE(languages.Get_Language_Entry("de", 2), nullptr);
    EXPECT_EQ(languages.Get_Language_Entry("en", 2), nullptr);

    section = Index({{Goodbye, 11}}, 0);
    Patch(&section, 21, LE32(bad));
    ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", Languages({De})}, {Tag(0), section}}));
    application.SetLanguage("de");
    EXPECT_EQ(First(Goodbye), 11);
    EXPECT_EQ(First(Welcome), 0);
  }
}

TEST_F(Localized, ChainsWithoutAnEndEndTheLookup) {
  std::string section = Languages({De, En}, 0);
  Patch(&section, 17, LE32(0));
  ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
  EXPECT_EQ(languages.Get_Language_Entry("zz", 2), nullptr);
  Patch(&section, 17, LE32(1));
  Patch(&section, 25, LE32(0));
  ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
  EXPECT_EQ(languages.Get_Language_Entry("zz", 2), nullptr);
  EXPECT_NE(languages.Get_Language_Entry("en", 2), nullptr);

  section = Index({{Welcome, 10}, {Goodbye, 11}}, 0);
  Patch(&section, 21, LE32(0));
  Patch(&section, 33, LE32(0));
  ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", Languages({De})}, {Tag(0), section}}));
  application.SetLanguage("de");
  int added = dictionary.Entry_Add("zzzzzzz", 7);
  EXPECT_EQ(First(added), 0);
}

TEST_F(Localized, NamesThatTheDictionaryLacksAreNotFound) {
  std::string section = Languages({De}, 0);
  Patch(&section, 13, LE32(1000));
  ASSERT_TRUE(Read({{"dict", texts.Section()}, {"locl", section}}));
  EXPECT_EQ(languages.Get_Language_Entry("de", 2), nullptr);
}

TEST_F(Localized, WithoutAFileNothingIsRead) {
  LocalizedLanguages free(&application, &dictionary, nullptr, 12, 8);
  EXPECT_FALSE(free.Read());
  EXPECT_EQ(free.Get_Entry(0), nullptr);
}

TEST_F(Localized, AMissingSectionHasTheFilesText) {
  EXPECT_FALSE(Read({{"dict", texts.Section()}}));
  EXPECT_STREQ(languages.error().data, "Invalid section");
}

// --- Writing -------------------------------------------------------------------------------------

TEST_F(Localized, WritesLanguagesAndIndexes) {
  EXPECT_FALSE(Read({{"dict", texts.Section()}}));
  EXPECT_EQ(languages.Add_Entry(De), 0);
  EXPECT_EQ(languages.Add_Entry(De, Welcome, 10), 0);
  EXPECT_EQ(languages.Add_Entry(De, Goodbye, 11), 1);
  EXPECT_EQ(languages.Add_Entry(En, Welcome, 20), 0) << "a new language is made";
  TaggedFile target(&manager);
  ASSERT_TRUE(target.Create("w", nullptr, 0));
  ASSERT_TRUE(languages.Write(&target));
  ASSERT_TRUE(target.Section_Flush());
  auto sections = TwoLanguages();
  sections.erase(sections.begin());
  EXPECT_EQ(manager.files["w"], Container(sections));
}

TEST_F(Localized, WritesIndexesThatNobodyHasReadYet) {
  ASSERT_TRUE(Read(TwoLanguages()));
  TaggedFile target(&manager);
  ASSERT_TRUE(target.Create("w", nullptr, 0));
  ASSERT_TRUE(languages.Write(&target));
  ASSERT_TRUE(target.Section_Flush());
  auto sections = TwoLanguages();
  sections.erase(sections.begin());
  EXPECT_EQ(manager.files["w"], Container(sections));
}

TEST_F(Localized, AnOldVersionHasTheFirstIndexAlone) {
  ASSERT_TRUE(Read(TwoLanguages()));
  for (unsigned version : {0x10007U, 0x10008U}) {
    TaggedFile target(&manager);
    ASSERT_TRUE(target.Create("w", nullptr, static_cast<int>(version)));
    ASSERT_TRUE(languages.Write(&target));
    ASSERT_TRUE(target.Section_Flush());
    auto sections = TwoLanguages();
    sections.erase(sections.begin());
    if (version == 0x10007) {
      sections.pop_back();
      sections[1].tag = std::string(4, '\0');
    }
    EXPECT_EQ(manager.files["w"], Container(sections, version));
  }
}

TEST_F(Localized, TextsAreAddedByName) {
  EXPECT_EQ(languages.Add_Entry("de", -1, "hi", -1, 1), 0);
  EXPECT_EQ(languages.Add_Entry("DE", 2, "bye", 3, 2), 1);
  EXPECT_EQ(languages.Add_Entry("en", 2, "hi", 2, 3), 0);
  EXPECT_EQ(languages.Entries(), 2);
  application.SetLanguage("de");
  int token = dictionary.Entry_Add("BYE", -1);
  EXPECT_EQ(First(token), 2);
}

TEST_F(Localized, ATokenOfALanguageIsMadeIfItIsNotThere) {
  ASSERT_TRUE(Read(TwoLanguages()));
  EXPECT_EQ(languages.Get_Entry(De, Welcome)->first, 10);
  LocalizedIndex::TokenEntry* made = languages.Get_Entry(En, Goodbye);
  EXPECT_EQ(made->first, -1);
  made->first = 21;
  EXPECT_EQ(languages.Get_Entry(En, Goodbye)->first, 21);
  EXPECT_EQ(languages.Get_Entry(Fr, Welcome)->first, -1);
  EXPECT_EQ(languages.Entries(), 3);
}

TEST_F(Localized, ManyLanguagesAndTokensGrowTheTables) {
  for (int i = 0; i < 100; i++) {
    std::string name = "language" + std::to_string(i);
    for (int token = 0; token < 3; token++)
      languages.Add_Entry(name.c_str(), -1, ("t" + std::to_string(token)).c_str(), -1,
                          i * 3 + token);
  }
  for (int i = 0; i < 300; i++)
    languages.Add_Entry("language7", -1, ("more" + std::to_string(i)).c_str(), -1, 1000 + i);
  EXPECT_EQ(languages.Entries(), 100);
  application.SetLanguage("Language99");
  EXPECT_EQ(First(dictionary.Entry_Add("t1", -1)), 298);
  application.SetLanguage("LANGUAGE7");
  EXPECT_EQ(First(dictionary.Entry_Add("more299", -1)), 1299);
}

TEST_F(Localized, FailingWritesHaveTheFilesText) {
  ASSERT_TRUE(Read(TwoLanguages()));
  for (int n = 1; n <= 3; n++) {
    SCOPED_TRACE(n);
    TaggedFile target(&manager);
    ASSERT_TRUE(target.Create("w", nullptr, 0));
    languages.Error("");
    manager.fail_write = n;
    EXPECT_FALSE(languages.Write(&target));
    EXPECT_STREQ(languages.error().data, "Injected failure");
  }
}

TEST_F(Localized, ACloneHasTheIndexesThatWereReadAndNoFile) {
  ASSERT_TRUE(Read(TwoLanguages()));
  application.SetLanguage("de");
  EXPECT_EQ(First(Welcome), 10);
  TestApplication task;
  Dictionary other(dictionary);
  LocalizedLanguages clone(&task, &other, languages);
  EXPECT_EQ(clone.Entries(), 2);
  EXPECT_NE(clone.Index(0)->index, languages.Index(0)->index);
  task.SetLanguage("de");
  ASSERT_NE(clone.Get_Entry(Welcome), nullptr);
  EXPECT_EQ(clone.Get_Entry(Welcome)->first, 10);
  task.SetLanguage("en");
  EXPECT_EQ(clone.Get_Entry(Welcome), nullptr) << "its index had not been read";
  EXPECT_EQ(First(Welcome), 10) << "the request's own language is untouched";
}

TEST_F(Localized, TheBucketIsTheHashOfTheName) {
  EXPECT_EQ(languages.hash("De", 2), static_cast<int>(hashi("de", 2, 0) & 4095));
  LocalizedIndex index(0, &dictionary);
  EXPECT_EQ(index.hash("WELCOME", -1), static_cast<int>(hashi("welcome", 7, 0) & 4095));
}

}  // namespace
