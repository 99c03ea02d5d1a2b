// Shared by the two halves of zpdbf, one for tables and one for index files: the request, the way
// values are written, and the host that the classes of tables and index files need.

#ifndef ZEPH_TOOLS_DUMP_H
#define ZEPH_TOOLS_DUMP_H

#include <climits>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/systems/unix/UNIXApplication.h"
#include "base/systems/unix/UNIXReentrantFile.h"

enum class DumpForm { Text, Csv, Json };

struct DumpRequest {
  std::string path;
  DumpForm form = DumpForm::Text;
  bool header_only = false;  // neither records nor keys
  // The records to show, both included; of an index, the keys of these records.
  int first_record = 1;
  int last_record = INT_MAX;
  // The fields to show, in this order and without regard to case; empty for all.
  std::vector<std::string> columns = {};
};

// Exit statuses.
constexpr int dump_done = 0;
constexpr int dump_failed = 1;  // the file can't be read, or a check found something
constexpr int dump_usage = 2;

// The text of an error that classes of tables and index files have left. A file that ends too early
// is no error of the system: their text then ends before the reason, which this adds.
std::string ErrorWithReason(const String& error);

// With quotes only where a reader needs them.
void WriteCsvCell(std::ostream& out, std::string_view text);
// With its quotes. Bytes that are not UTF-8 are read as Latin-1, so that any text gives valid JSON.
void WriteJsonText(std::ostream& out, std::string_view text);

// Opens files by the paths of the command line and ignores the type of a path.
class DumpFileManager : public UNIXReentrantFileManager {
 public:
  using UNIXReentrantFileManager::Open;
  using UNIXReentrantFileManager::UNIXReentrantFileManager;
  File* Open(Zeph_PathType, const char* path, int mode) override { return Open(path, mode); }
};

// A host without scripts, for one thread.
class DumpApplication : public UNIXApplication {
 public:
  DumpApplication() : UNIXApplication(0, nullptr, 0, nullptr, nullptr) {}
  FileManager* filemanager() override { return &files; }

 private:
  DumpFileManager files{this};
};

#endif
