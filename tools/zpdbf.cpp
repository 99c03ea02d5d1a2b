// zpdbf: shows and checks tables and index files. Each kind of file has its own half, which does
// the work. Tested in tests/tools/ZpdbfTest.cpp.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

#include "tools/Dump.h"
#include "tools/DumpIndex.h"
#include "tools/DumpTable.h"

namespace {

constexpr char usage[] =
    "usage: zpdbf [--header] [--csv | --json] FILE    show header, fields and records, or keys\n"
    "       zpdbf --check FILE                        look for damage\n"
    "       zpdbf --help\n"
    "\n"
    "FILE is a table (.dbf), whose memo file (.dbt) is found beside it, or an index file. "
    "--header\n"
    "leaves records and keys out. The exit status is 0, 1 for a file that cannot be read or is\n"
    "damaged, and 2 for a wrong command line. docs/zpdbf.md tells more.\n";

// One kind of file. A file is of the first kind whose mark it begins with.
struct FileKind {
  std::string_view mark;
  int (*show)(const DumpRequest& request, std::ostream& out, std::ostream& errors);
  int (*check)(const DumpRequest& request, std::ostream& out, std::ostream& errors);
};

// Tables begin with a version byte that several kinds of files may begin with. So every file of no
// other kind is tried as a table.
constexpr FileKind kinds[] = {
    {"ZIXI", ShowIndex, CheckIndex},
    {"", ShowTable, CheckTable},
};

const FileKind& KindOf(const std::string& path) {
  char bytes[8] = {};
  std::ifstream file;
  // Opening a FIFO would wait. For a path that is not a file, opening it as a table reports the
  // error.
  std::error_code unknown;
  if (std::filesystem::is_regular_file(path, unknown)) file.open(path, std::ios::binary);
  file.read(bytes, sizeof(bytes));
  const std::string_view beginning(bytes, static_cast<size_t>(file.gcount()));
  const FileKind* kind = kinds;
  while (beginning.substr(0, kind->mark.size()) != kind->mark) kind++;
  return *kind;
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  DumpRequest request;
  bool check = false, understood = true;
  for (int i = 1; i < argc; i++) {
    const std::string_view argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      std::cout << usage;
      return dump_done;
    }
    const bool form_open = request.form == DumpForm::Text;
    if (argument == "--check") {
      check = true;
    } else if (argument == "--header") {
      request.header_only = true;
    } else if (argument == "--csv" && form_open) {
      request.form = DumpForm::Csv;
    } else if (argument == "--json" && form_open) {
      request.form = DumpForm::Json;
    } else if (request.path.empty() && !argument.empty() && argument[0] != '-') {
      request.path = argument;
    } else {
      std::cerr << "zpdbf: unexpected " << argument << "\n";
      understood = false;
    }
  }
  if (check && (request.header_only || request.form != DumpForm::Text)) understood = false;
  if (!understood || request.path.empty()) {
    std::cerr << usage;
    return dump_usage;
  }
  const FileKind& kind = KindOf(request.path);
  const int status = (check ? kind.check : kind.show)(request, std::cout, std::cerr);
  return std::cout.flush().good() ? status : dump_failed;
}
