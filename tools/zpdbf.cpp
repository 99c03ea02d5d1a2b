// zpdbf: shows and checks tables and index files. Each kind of file has its own half, which does
// the work. Tested in tests/tools/ZpdbfTest.cpp.

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/Dump.h"
#include "tools/DumpIndex.h"
#include "tools/DumpTable.h"

namespace {

constexpr char usage[] =
    "usage: zpdbf [option ...] FILE    show header, fields and records, or keys\n"
    "       zpdbf --check FILE         look for damage\n"
    "       zpdbf --help | --version\n"
    "\n"
    "FILE is a table (.dbf), whose memo file (.dbt) is found beside it, or an index file.\n"
    "\n"
    "  --header            leaves records and keys out\n"
    "  --csv, --json       writes that form instead of text\n"
    "  --records FROM-TO   only these records, or the keys of these; either number may be missing\n"
    "  --columns A,B       only these fields of records, in this order\n"
    "\n"
    "The exit status is 0, 1 for a file that cannot be read or is damaged, and 2 for a wrong\n"
    "command line. docs/zpdbf.md tells more.\n";

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

// Reads a record number, 1 or more. Returns false for any other text.
bool ParseRecord(std::string_view text, int* number) {
  const char* end = text.data() + text.size();
  const auto [rest, problem] = std::from_chars(text.data(), end, *number);
  return problem == std::errc() && rest == end && *number >= 1;
}

// "7", "7-", "-12" or "7-12".
bool ParseRange(std::string_view text, DumpRequest* request) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) {
    if (!ParseRecord(text, &request->first_record)) return false;
    request->last_record = request->first_record;
    return true;
  }
  const std::string_view from = text.substr(0, dash), to = text.substr(dash + 1);
  if (from.empty() && to.empty()) return false;
  if (!from.empty() && !ParseRecord(from, &request->first_record)) return false;
  if (!to.empty() && !ParseRecord(to, &request->last_record)) return false;
  return request->first_record <= request->last_record;
}

// Names between commas, none of them empty.
bool ParseColumns(std::string_view text, std::vector<std::string>* columns) {
  for (size_t at = 0; at <= text.size();) {
    const size_t end = std::min(text.find(',', at), text.size());
    if (end == at) return false;
    columns->emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  return true;
}

struct Arguments {
  DumpRequest request;
  bool check = false;
  bool chooses = false;  // records or columns
};

// An option with a value, in the next word. *i is the index of the option, and then of its value.
bool TakeChoice(int argc, char** argv, int* i, Arguments* arguments, std::string* problem) {
  const std::string option = argv[*i];
  const bool is_range = option == "--records";
  if (!is_range && option != "--columns") return false;
  arguments->chooses = true;
  const std::string value = *i + 1 < argc ? argv[++*i] : "";
  const bool good = is_range ? ParseRange(value, &arguments->request)
                             : ParseColumns(value, &arguments->request.columns);
  if (!good) {
    *problem = option + (is_range ? " needs numbers of records as FROM-TO"
                                  : " needs names of fields with commas between them");
    if (!value.empty()) *problem += ", found '" + value + "'";
  }
  return true;
}

bool Parse(int argc, char** argv, Arguments* arguments, std::string* problem) {
  DumpRequest& request = arguments->request;
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    const bool is_csv = argument == "--csv";
    if (argument == "--check") {
      arguments->check = true;
    } else if (argument == "--header") {
      request.header_only = true;
    } else if (is_csv || argument == "--json") {
      const DumpForm form = is_csv ? DumpForm::Csv : DumpForm::Json;
      if (request.form != DumpForm::Text && request.form != form) {
        *problem = "--csv and --json exclude each other";
      }
      request.form = form;
    } else if (TakeChoice(argc, argv, &i, arguments, problem)) {
    } else if (argument.empty()) {
      *problem = "an empty name of a file";
    } else if (argument[0] == '-') {
      *problem = "unknown option '" + argument + "'";
    } else if (!request.path.empty()) {
      *problem = "one file at a time, found '" + argument + "' after '" + request.path + "'";
    } else {
      request.path = argument;
    }
    if (!problem->empty()) return false;
  }
  if (request.path.empty()) {
    *problem = "no file";
  } else if (arguments->check &&
             (request.header_only || request.form != DumpForm::Text || arguments->chooses)) {
    *problem = "--check looks at the whole file and has one form";
  } else if (request.header_only && arguments->chooses) {
    *problem = "--header shows no records to choose from";
  }
  return problem->empty();
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  for (int i = 1; i < argc; i++) {
    const std::string_view argument = argv[i];
    const bool is_version = argument == "--version";
    if (!is_version && argument != "--help" && argument != "-h") continue;
    std::cout << (is_version ? "zpdbf " ZEPH_VERSION "\n" : usage);
    return std::cout.flush().good() ? dump_done : dump_failed;
  }
  Arguments arguments;
  std::string problem;
  if (!Parse(argc, argv, &arguments, &problem)) {
    std::cerr << "zpdbf: " << problem << "\n" << usage;
    return dump_usage;
  }
  const DumpRequest& request = arguments.request;
  const FileKind& kind = KindOf(request.path);
  const int status = (arguments.check ? kind.check : kind.show)(request, std::cout, std::cerr);
  return std::cout.flush().good() ? status : dump_failed;
}
