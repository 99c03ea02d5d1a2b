// What zpdbf says of an index whose writer was killed between any two of its calls: if it calls the
// index whole, every entry but the one of that change is there.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ZIXIndexFixture.h"
#include "tools/DumpIndex.h"

namespace {

constexpr int kChanges = kAddressSanitizer || kThreadSanitizer ? 40 : 200;

class KilledIndex : public ZIXIndexFixture {
 protected:
  // Whether the check finds nothing.
  bool IsWhole() {
    // A file of its own: some systems write a file to the disk that replaces another one's bytes.
    const std::string path = directory.File("i" + std::to_string(++files_checked), bytes());
    std::ostringstream failures;
    report.str("");
    const int status = CheckIndex({path, DumpForm::Text, false}, report, failures);
    std::filesystem::remove(path);
    return status == dump_done;
  }

  bool Apply(bool insertion, const ZIXIndexEntry& entry) {
    return insertion ? Insert(index, entry.first, entry.second)
                     : Delete(index, entry.first, entry.second);
  }

  // Kills one change at each of its calls, and then lets it go through. A killed write is made or
  // not made.
  void KillAtEveryCall(bool insertion, const ZIXIndexEntry& entry) {
    const std::string before = bytes();
    std::vector<ZIXIndexEntry> others = Entries();
    std::erase(others, entry);
    std::sort(others.begin(), others.end());
    for (const int written : {0, INT_MAX}) {
      for (int call = 1;; call++) {
        SCOPED_TRACE("call " + std::to_string(call));
        bytes() = before;
        files.kill_call = call;
        files.killed_write_length = written;
        const bool done = Apply(insertion, entry);
        files.Revive();
        index.Close();
        if (done) break;
        Judge(entry, others);
        if (HasFailure()) return;
        bytes() = before;
        Open(index);
      }
      bytes() = before;
      Open(index);
    }
    ASSERT_TRUE(Apply(insertion, entry)) << ErrorText(index);
  }

  void Judge(const ZIXIndexEntry& entry, const std::vector<ZIXIndexEntry>& others) {
    // Most calls change nothing.
    if (bytes() == judged) return;
    judged = bytes();
    const bool called_whole = IsWhole();
    // Pages that the header does not count are no part of the tree.
    std::string counted = bytes();
    ZIXIndexChecker header(counted);
    counted.resize(std::min(counted.size(), size_t{header.numpages()} * header.pagesize()));
    ZIXIndexChecker checker(counted);
    const std::string fault = checker.Check();
    std::erase(checker.entries, entry);
    std::sort(checker.entries.begin(), checker.entries.end());
    const bool whole = fault.empty() && checker.entries == others;
    EXPECT_TRUE(!called_whole || whole) << fault << "\n" << report.str();
    (whole ? whole_files : broken_files)++;
    if (!whole && fault.empty()) silent_files++;
  }

  TemporaryDirectory directory;
  std::ostringstream report;
  std::string judged;
  int files_checked = 0, whole_files = 0, broken_files = 0, silent_files = 0;
};

TEST_F(KilledIndex, IsNotCalledWholeIfItHasLostAnEntry) {
  std::mt19937 random{3};
  for (const int order : {4, 8}) {
    index.Close();
    // Pages of at most 4 entries have the deeper trees.
    OpenBytes(EmptyZIXIndex(order == 4 ? ZIXIndexShape{ZIXIndex_Text, 4, 432, 24}
                                       : ZIXIndexShape{ZIXIndex_Text}));
    std::vector<ZIXIndexEntry> entries;
    for (int change = 0; change < kChanges; change++) {
      SCOPED_TRACE("change " + std::to_string(change));
      // It grows first and shrinks then.
      const bool insertion = entries.empty() || random() % 10 < (change < kChanges / 2 ? 9u : 2u);
      const size_t at = insertion ? entries.size() : random() % entries.size();
      if (insertion) {
        entries.emplace_back("key " + std::to_string(random() % 300),
                             static_cast<uint32_t>(change) + 1);
      }
      KillAtEveryCall(insertion, entries[at]);
      if (HasFailure()) return;
      if (!insertion) entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }
  EXPECT_GT(whole_files, kChanges);
  EXPECT_GT(broken_files, 0);
  EXPECT_GT(silent_files, 0) << "no file had a sound tree without an entry";
  printf("%d whole files, %d broken ones, %d of those with a sound tree\n", whole_files,
         broken_files, silent_files);
}

}  // namespace
