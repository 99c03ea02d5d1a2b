// zephc: compiles pages, or the pages of a folder, to compiled files. The library of the compiler
// does the work. Tested in tests/compiler/ZephcTest.cpp.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "compiler/Compiler.h"
#include "compiler/PageFiles.h"

namespace {

namespace fs = std::filesystem;

constexpr int kUsageStatus = 2;

constexpr char kUsage[] =
    "usage: zephc [options] page.zeph -o page.zpc    one page\n"
    "       zephc [options] folder -o folder         all pages of a folder\n"
    "       zephc [options] --check page.zeph        writes nothing\n"
    "       zephc --help | --version\n"
    "\n"
    "  -o FILE            the compiled file, or the folder for the compiled files\n"
    "  --check            errors and warnings only\n"
    "  -D NAME            defines a name for ZpIFDEF\n"
    "  -I FOLDER          a folder for ZpINCLUDE\n"
    "  --functions FILE   declares library functions, one a line: name(a, b var)\n"
    "  --depend FILE      writes for make which files a page is made from\n"
    "  --all-lines        every tag notes its line, for a trace in the log\n"
    "  --werror           a warning is an error\n"
    "\n"
    "-D, -I and --functions may be repeated. docs/language.md describes the language.\n";

struct Arguments {
  std::string source, target, depend;
  std::vector<std::string> defines, folders, functions;
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

bool Report(const fs::path& path, const char* what) {
  std::cerr << "zephc: cannot " << what << " " << path.string() << ": " << strerror(errno) << "\n";
  return false;
}

bool Compile(const Arguments& arguments, const fs::path& root, CompileOptions options, Page* page) {
  std::string text;
  if (!ReadWholeFile(page->source, &text)) return Report(page->source, "read");
  PageIncludes includes(root, arguments.folders);
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
// *complete becomes false if a folder cannot be read.
std::vector<Page> FindPages(const Arguments& arguments, bool* complete) {
  std::vector<Page> pages;
  const fs::path root = arguments.source;
  const auto unread = VisitFiles(root, [&](const std::string& name) {
    if (!IsPage(name)) return;
    Page page;
    page.name = name;
    page.source = root / name;
    page.target = fs::path(arguments.target) / CompiledName(name);
    pages.push_back(std::move(page));
  });
  for (const UnreadFolder& folder : unread) std::cerr << "zephc: " << TextOf(folder, root) << "\n";
  *complete = unread.empty();
  return pages;
}

bool WriteFile(const fs::path& path, const std::string& bytes) {
  return WriteWholeFile(path, bytes) || Report(path, "write");
}

// A path as make reads it in a rule. A backslash is one by itself, except before what it makes
// plain.
std::string ForMake(const std::string& path, bool is_target) {
  std::string escaped;
  size_t backslashes = 0;
  for (const char c : path) {
    const bool is_special = c == ' ' || c == '#' || c == ':' || (is_target && c == '%');
    if (is_special) escaped.append(backslashes + 1, '\\');
    if (c == '$') escaped += '$';
    escaped += c;
    backslashes = c == '\\' ? backslashes + 1 : 0;
  }
  return escaped;
}

std::string Dependencies(const std::vector<Page>& pages) {
  std::string text;
  for (const Page& page : pages) {
    text += ForMake(page.target.string(), true) + ":";
    for (const std::string& file : page.files) text.append(" ").append(ForMake(file, false));
    text += "\n";
  }
  return text;
}

int Run(const Arguments& arguments) {
  std::error_code failure;
  const bool is_folder = fs::is_directory(arguments.source, failure);
  std::vector<Page> pages;
  fs::path root;
  bool good = true;
  if (is_folder) {
    pages = FindPages(arguments, &good);
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
  for (const std::string& name : arguments.functions) {
    FunctionsFile file = {name, ""};
    if (!ReadWholeFile(name, &file.text)) {
      Report(name, "read");
      return 1;
    }
    options.functions_files.push_back(std::move(file));
  }
  for (Page& page : pages) good = Compile(arguments, root, options, &page) && good;
  if (!good) return 1;
  if (arguments.check) return 0;
  for (const Page& page : pages) {
    if (!WriteFile(page.target, page.image)) return 1;
  }
  if (!arguments.depend.empty() && !WriteFile(arguments.depend, Dependencies(pages))) return 1;
  return 0;
}

// Takes the value of an option, which is the next word. *i is the option's index. Returns null if
// there is none.
const char* TakeValue(int argc, char** argv, int* i) {
  return *i + 1 < argc && argv[*i + 1][0] != '\0' ? argv[++*i] : nullptr;
}

bool TakeOption(int argc, char** argv, int* i, Arguments* arguments, std::string* problem) {
  const std::string option = argv[*i];
  if (option == "--check") return arguments->check = true;
  if (option == "--all-lines") return arguments->every_line = true;
  if (option == "--werror") return arguments->warnings_fail = true;
  const struct {
    const char* option;
    std::vector<std::string>* list;  // may be repeated
    std::string* single;
  } rows[] = {{"-D", &arguments->defines, nullptr},
              {"-I", &arguments->folders, nullptr},
              {"--functions", &arguments->functions, nullptr},
              {"-o", nullptr, &arguments->target},
              {"--depend", nullptr, &arguments->depend}};
  for (const auto& row : rows) {
    if (option != row.option) continue;
    const char* value = TakeValue(argc, argv, i);
    if (!value) {
      *problem = option + " needs a value";
    } else if (row.list) {
      row.list->push_back(value);
    } else if (!row.single->empty()) {
      *problem = option + " is there twice";
    } else {
      *row.single = value;
    }
    return problem->empty();
  }
  *problem = "unknown option '" + option + "'";
  return false;
}

bool Parse(int argc, char** argv, Arguments* arguments, std::string* problem) {
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    if (argument.size() > 1 && argument[0] == '-') {
      if (!TakeOption(argc, argv, &i, arguments, problem)) return false;
    } else if (argument.empty() || !arguments->source.empty()) {
      *problem = argument.empty() ? "an empty name of a page"
                                  : "one page or folder at a time, found '" + argument +
                                        "' after '" + arguments->source + "'";
      return false;
    } else {
      arguments->source = argument;
    }
  }
  if (arguments->source.empty()) {
    *problem = "no page";
  } else if (arguments->check && !arguments->target.empty()) {
    *problem = "--check writes nothing, so it has no -o";
  } else if (!arguments->check && arguments->target.empty()) {
    *problem = "no -o for the compiled file";
  }
  return problem->empty();
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    const bool is_version = strcmp(argv[i], "--version") == 0;
    if (!is_version && strcmp(argv[i], "--help") != 0 && strcmp(argv[i], "-h") != 0) continue;
    std::cout << (is_version ? "zephc " ZEPH_VERSION "\n" : kUsage);
    return std::cout.flush().good() ? 0 : 1;
  }
  Arguments arguments;
  std::string problem;
  if (!Parse(argc, argv, &arguments, &problem)) {
    std::cerr << "zephc: " << problem << "\n" << kUsage;
    return kUsageStatus;
  }
  return Run(arguments);
}
