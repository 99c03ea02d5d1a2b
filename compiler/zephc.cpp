// zephc: compiles pages, or the pages of a folder, to compiled files. The library of the compiler
// does the work. Tested in tests/compiler/ZephcTest.cpp.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "compiler/Compiler.h"

namespace {

namespace fs = std::filesystem;

constexpr int kUsageStatus = 2;
constexpr char kSource[] = ".zeph";
constexpr char kCompiled[] = ".zpc";

constexpr char kUsage[] =
    "usage: zephc [options] page.zeph -o page.zpc    one page\n"
    "       zephc [options] folder -o folder         all pages of a folder\n"
    "       zephc [options] --check page.zeph        writes nothing\n"
    "\n"
    "  -D NAME            defines a name for ZpIFDEF\n"
    "  -I FOLDER          a folder for ZpINCLUDE\n"
    "  --functions FILE   declares library functions, one a line: name(a, b var)\n"
    "  --depend FILE      writes for make which files a page is made from\n"
    "  --all-lines        every tag notes its line, for a trace in the log\n"
    "  --werror           a warning is an error\n"
    "\n"
    "docs/language.md describes the language.\n";

struct Arguments {
  std::string source, target, functions, depend;
  std::vector<std::string> defines, folders;
  bool check = false;
  bool every_line = false;
  bool warnings_fail = false;
};

struct Page {
  std::string name;  // in messages
  fs::path source;
  fs::path target;
  std::string image;
  std::vector<std::string> files;  // that it is made from, as paths
};

bool ReadFile(const fs::path& path, std::string* text) {
  std::error_code failure;
  if (!fs::is_regular_file(path, failure)) return false;
  std::ifstream file(path, std::ios::binary);
  text->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad() && file.is_open();
}

bool Report(const fs::path& path, const char* what) {
  std::cerr << "zephc: cannot " << what << " " << path.string() << ": "
            << strerror(errno ? errno : ENOENT) << "\n";
  return false;
}

// Replaces the file in one step: an engine that runs it sees the old file or the new one.
bool WriteFile(const fs::path& path, const std::string& bytes) {
  std::error_code ignored;
  if (path.has_parent_path()) fs::create_directories(path.parent_path(), ignored);
  const std::string unfinished = path.string() + "." + std::to_string(getpid());
  errno = 0;
  std::ofstream file(unfinished, std::ios::binary | std::ios::trunc);
  file << bytes;
  file.close();
  if (file && std::rename(unfinished.c_str(), path.c_str()) == 0) return true;
  Report(path, "write");
  unlink(unfinished.c_str());
  return false;
}

// Where included files are: beside the file that includes them, then in the folders of -I. A name
// is what messages use, relative to the folder that is compiled.
class Includes {
 public:
  Includes(const fs::path& root, const std::vector<std::string>& folders)
      : root(root), folders(folders) {}

  bool Read(const std::string& name, const std::string& from, std::string* found,
            std::string* text) {
    const fs::path beside = (fs::path(from).parent_path() / name).lexically_normal();
    auto known = paths.find(from);
    const fs::path folder =
        known == paths.end() ? root / fs::path(from).parent_path() : known->second.parent_path();
    if (Try(folder / name, beside, found, text)) return true;
    for (const std::string& other : folders) {
      const fs::path path = (fs::path(other) / name).lexically_normal();
      if (Try(path, path, found, text)) return true;
    }
    return false;
  }

  // The path of a file by its name in messages.
  std::string Path(const std::string& name) const {
    auto known = paths.find(name);
    return known == paths.end() ? (root / name).string() : known->second.string();
  }

 private:
  bool Try(const fs::path& path, const fs::path& name, std::string* found, std::string* text) {
    if (!ReadFile(path, text)) return false;
    *found = name.string();
    paths[*found] = path.lexically_normal();
    return true;
  }

  fs::path root;
  const std::vector<std::string>& folders;
  std::map<std::string, fs::path> paths;
};

bool Compile(const Arguments& arguments, const fs::path& root, CompileOptions options, Page* page) {
  std::string text;
  errno = 0;
  if (!ReadFile(page->source, &text)) return Report(page->source, "read");
  Includes includes(root, arguments.folders);
  options.reader = [&includes](const std::string& name, const std::string& from, std::string* found,
                               std::string* content) {
    return includes.Read(name, from, found, content);
  };
  CompileResult result = CompilePage(text, page->name, options);
  std::cerr << result.formatted;
  page->image = std::move(result.image);
  for (const std::string& file : result.files) page->files.push_back(includes.Path(file));
  return result.succeeded && !(arguments.warnings_fail && !result.messages.empty());
}

// The pages of a folder and of those in it, in the order of their names.
std::vector<Page> FindPages(const Arguments& arguments) {
  std::vector<Page> pages;
  const fs::path root = arguments.source;
  std::error_code failure;
  for (auto entry = fs::recursive_directory_iterator(root, failure);
       !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
    const fs::path& path = entry->path();
    if (path.extension() != kSource || path.filename().string()[0] == '_') continue;
    if (!entry->is_regular_file(failure)) continue;
    Page page;
    page.name = path.lexically_relative(root).string();
    page.source = path;
    page.target = (fs::path(arguments.target) / page.name).replace_extension(kCompiled);
    pages.push_back(std::move(page));
  }
  std::sort(pages.begin(), pages.end(),
            [](const Page& a, const Page& b) { return a.name < b.name; });
  return pages;
}

std::string ForMake(const std::string& path) {
  std::string escaped;
  for (const char c : path) {
    if (c == ' ' || c == '#' || c == '\\') escaped += '\\';
    if (c == '$') escaped += '$';
    escaped += c;
  }
  return escaped;
}

std::string Dependencies(const std::vector<Page>& pages) {
  std::string text;
  for (const Page& page : pages) {
    text += ForMake(page.target.string()) + ":";
    for (const std::string& file : page.files) text += " " + ForMake(file);
    text += "\n";
  }
  return text;
}

int Run(const Arguments& arguments) {
  std::error_code failure;
  const bool is_folder = fs::is_directory(arguments.source, failure);
  std::vector<Page> pages;
  fs::path root;
  if (is_folder) {
    pages = FindPages(arguments);
    root = arguments.source;
  } else {
    Page page;
    page.name = arguments.source;
    page.source = arguments.source;
    page.target = arguments.target;
    pages.push_back(std::move(page));
  }
  CompileOptions options;
  options.defines = arguments.defines;
  options.every_line = arguments.every_line;
  options.functions_name = arguments.functions;
  errno = 0;
  if (!arguments.functions.empty() && !ReadFile(arguments.functions, &options.functions)) {
    Report(arguments.functions, "read");
    return 1;
  }
  bool good = true;
  for (Page& page : pages) good = Compile(arguments, root, options, &page) && good;
  if (!good) return 1;
  if (arguments.check) return 0;
  for (const Page& page : pages) {
    if (!WriteFile(page.target, page.image)) return 1;
  }
  if (!arguments.depend.empty() && !WriteFile(arguments.depend, Dependencies(pages))) return 1;
  return 0;
}

bool Parse(int argc, char** argv, Arguments* arguments) {
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    const bool has_value = i + 1 < argc;
    if (argument == "--check") {
      arguments->check = true;
    } else if (argument == "--all-lines") {
      arguments->every_line = true;
    } else if (argument == "--werror") {
      arguments->warnings_fail = true;
    } else if (argument == "-o" && has_value && arguments->target.empty()) {
      arguments->target = argv[++i];
    } else if (argument == "-D" && has_value) {
      arguments->defines.push_back(argv[++i]);
    } else if (argument == "-I" && has_value) {
      arguments->folders.push_back(argv[++i]);
    } else if (argument == "--functions" && has_value) {
      arguments->functions = argv[++i];
    } else if (argument == "--depend" && has_value) {
      arguments->depend = argv[++i];
    } else if (argument[0] != '-' && arguments->source.empty()) {
      arguments->source = argument;
    } else {
      std::cerr << "zephc: unexpected " << argument << "\n";
      return false;
    }
  }
  return !arguments->source.empty() && arguments->check == arguments->target.empty();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    std::cout << kUsage;
    return 0;
  }
  Arguments arguments;
  if (!Parse(argc, argv, &arguments)) {
    std::cerr << kUsage;
    return kUsageStatus;
  }
  return Run(arguments);
}
