// Compiled files, written and read with each system call failing in turn and each block of memory
// refused in turn.

#include <filesystem>
#include <memory>
#include <string>

#include "base/compiled/TaggedFile.h"
#include "tests/torture/Sweeps.h"

namespace {

namespace fs = std::filesystem;

class ContainersUnderFailures : public Sweeps {
 protected:
  const int kTexts = MakeTag("text");
  const int kCode = MakeTag("code");

  struct Container : Host {
    explicit Container(const TemporaryDirectory& directory)
        : configured(files.InitializeScriptDirectory(directory.path("data").c_str(), nullptr)) {}
    bool configured;
    TaggedFile file{&files};
  };

  // Returns whether all of it was acknowledged.
  bool WriteAll(TaggedFile& file) {
    // A header that is cut short has no text.
    if (!file.Create((directory.path("data/c.zpc")).c_str(), nullptr, 0)) return false;
    for (const auto& [tag, text] : {std::pair(kTexts, &texts), std::pair(kCode, &code)}) {
      file.Section_Start(tag);
      if (!file.Section_Write(*text)) return false;
      file.Section_End();
    }
    return file.Section_Flush();
  }
  // Whether the file is complete; what can be read of it has to be right.
  bool ReadAll(TaggedFile& file) {
    if (!file.Open(directory.path("data/c.zpc").c_str(), FileMode_Read)) {
      NeedText(file.error());
      return false;
    }
    for (const auto& [tag, text] : {std::pair(kTexts, &texts), std::pair(kCode, &code)}) {
      int length = -1;
      if (!file.Section_Read_Start(tag, &length)) {
        NeedText(file.error());
        return false;
      }
      if (length != static_cast<int>(text->size())) {
        Broken("a section of another length");
        return false;
      }
      int done = 0;
      char bytes[4000];
      while (done < length) {
        const int count = file.Section_Read(bytes, static_cast<int>(sizeof bytes));
        // The caller sees by the count that bytes are missing; there need not be a text.
        if (count <= 0) return false;
        if (text->compare(static_cast<size_t>(done), static_cast<size_t>(count), bytes,
                          static_cast<size_t>(count)) != 0)
          Broken("other bytes than were written");
        done += count;
      }
      file.Deactivate();
    }
    return true;
  }

  const std::string texts = std::string(100000, 't') + "end";
  const std::string code = std::string(300, 'c');
};

TEST_F(ContainersUnderFailures, AFileWhoseDirectoryIsWrittenIsWhole) {
  bool written = false;
  ExpectBothSweeps({[&] {
                      fs::remove_all(directory.path("data"));
                      directory.Directory("data");
                      written = false;
                    },
                    [&] {
                      Container made(directory);
                      if (made.configured) written = WriteAll(made.file);
                    },
                    [&](const SystemCallFault&) {
                      if (!written) return;
                      Container reader(directory);
                      EXPECT_TRUE(ReadAll(reader.file));
                      EXPECT_EQ(broken, nullptr);
                    }});
}

TEST_F(ContainersUnderFailures, AReaderGetsWhatWasWrittenOrAFailure) {
  directory.Directory("data");
  {
    Container made(directory);
    ASSERT_TRUE(WriteAll(made.file));
  }
  bool finished = false;
  ExpectBothSweeps({[&] { finished = false; },
                    [&] {
                      Container reader(directory);
                      finished = reader.configured && ReadAll(reader.file);
                    },
                    [&](const SystemCallFault& fault) {
                      if (fault.call.empty() && fault.error != 0) {
                        EXPECT_TRUE(finished);
                      }
                    }});
}

}  // namespace
