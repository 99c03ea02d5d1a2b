// zpasm: assembles and lists compiled scripts. The library of the assembler does the work. Tested
// in tests/tools/ProgramTest.cpp.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tools/Assembler.h"
#include "tools/Lister.h"

namespace {

namespace fs = std::filesystem;

constexpr int exit_usage = 2;

constexpr char usage[] =
    "usage: zpasm [--lines] page.zpa -o page.zpc       assemble\n"
    "       zpasm [--lines] page.zpa ... -o folder     assemble each to folder/page.zpc\n"
    "       zpasm --list page.zpc ...                  print as text that assembles to the same "
    "bytes\n"
    "       zpasm --check page.zpa ...                 errors only; writes nothing\n"
    "       zpasm --help | --version\n"
    "\n"
    "A file named - is standard input, and after -o standard output.\n"
    "\n"
    "  -o FILE    the compiled file, or the folder for it\n"
    "  --lines    the script notes the lines of the text, and errors at run time name them\n"
    "  --list     prints compiled files\n"
    "  --check    assembles, and writes nothing but errors\n"
    "\n"
    "A page as small as can be:\n"
    "\n"
    "  pushc \"Hello, world\\n\"\n"
    "  out\n"
    "\n"
    "docs/zpasm.md tells of instructions, names, labels, functions and directives.\n";

struct Arguments {
  std::vector<std::string> files;
  std::string target;  // empty without -o
  bool lists = false;
  bool checks = false;
  AssemblyOptions options;
};

bool IsFolder(const std::string& path) {
  std::error_code failure;
  return fs::is_directory(path, failure);
}

bool ReadFile(const std::string& path, std::string* bytes) {
  std::ostringstream text;
  if (path == "-") {
    text << std::cin.rdbuf();
  } else {
    std::ifstream file(path, std::ios::binary);
    // A stream reads a folder as an empty file.
    const bool is_folder = IsFolder(path);
    if (is_folder) errno = EISDIR;
    if (is_folder || !file || !(text << file.rdbuf()).good()) {
      // An empty file inserts nothing, which streams report as a failure.
      if (is_folder || !file || file.peek() != std::ifstream::traits_type::eof()) {
        std::cerr << "zpasm: cannot read " << path << ": " << strerror(errno) << "\n";
        return false;
      }
    }
  }
  *bytes = text.str();
  return true;
}

// Replaces the file in one step: an engine that runs it sees the old file or the new one, never a
// part.
bool WriteFile(const std::string& path, const std::string& bytes) {
  if (path == "-") {
    std::cout << bytes;
    return std::cout.flush().good();
  }
  std::string unfinished = path + "." + std::to_string(getpid());
  std::ofstream file(unfinished, std::ios::binary | std::ios::trunc);
  file << bytes;
  file.close();
  if (file && std::rename(unfinished.c_str(), path.c_str()) == 0) return true;
  std::cerr << "zpasm: cannot write " << path << ": " << strerror(errno) << "\n";
  unlink(unfinished.c_str());
  return false;
}

// The compiled file of a source in a folder.
std::string TargetIn(const std::string& folder, const std::string& source) {
  return (fs::path(folder) / fs::path(source).filename().replace_extension(".zpc")).string();
}

// Without a target the compiled file is dropped.
bool Assemble(const std::string& source, const std::string& target,
              const AssemblyOptions& options) {
  std::string text, image, errors;
  if (!ReadFile(source, &text)) return false;
  if (!AssembleScript(text, source, options, &image, &errors)) {
    std::cerr << errors;
    return false;
  }
  return target.empty() || WriteFile(target, image);
}

// The sources that can be assembled are, whatever is wrong with the others.
int RunAssemble(const Arguments& arguments) {
  const bool to_folder = IsFolder(arguments.target);
  bool good = true;
  for (const std::string& source : arguments.files) {
    const std::string target = to_folder ? TargetIn(arguments.target, source) : arguments.target;
    good = Assemble(source, target, arguments.options) && good;
  }
  return good ? 0 : 1;
}

// Several listings have their names before them, as comments.
int RunList(const Arguments& arguments) {
  bool good = true;
  for (const std::string& path : arguments.files) {
    std::string image, text, error;
    if (!ReadFile(path, &image)) {
      good = false;
    } else if (!ListScript(image, &text, &error)) {
      std::cerr << path << ": " << error << "\n";
      good = false;
    } else {
      if (arguments.files.size() > 1) std::cout << "; " << path << "\n";
      std::cout << text;
    }
  }
  return std::cout.flush().good() && good ? 0 : 1;
}

// What is wrong with a command line whose words are all valid by themselves; empty if nothing is.
std::string Problem(const Arguments& arguments) {
  if (arguments.files.empty()) return "no file";
  if (arguments.lists && arguments.checks) return "--check is for text, --list for compiled files";
  if (arguments.checks) {
    return arguments.target.empty() ? "" : "--check writes nothing, so it has no -o";
  }
  if (arguments.lists) {
    if (!arguments.target.empty()) return "--list writes to standard output, without -o";
    return arguments.options.lines ? "--list takes the file as it is, without --lines" : "";
  }
  if (arguments.target.empty()) return "no -o for the compiled file";
  if (!IsFolder(arguments.target)) {
    if (arguments.files.size() == 1) return "";
    return "several files need a folder, and '" + arguments.target + "' is none";
  }
  std::map<std::string, std::string> targets;
  for (const std::string& source : arguments.files) {
    if (source == "-") return "standard input has no name for a file of a folder";
    const auto [other, is_new] = targets.emplace(TargetIn(arguments.target, source), source);
    if (!is_new) {
      return "'" + other->second + "' and '" + source + "' would both become '" + other->first +
             "'";
    }
  }
  return "";
}

bool Parse(int argc, char** argv, Arguments* arguments, std::string* problem) {
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    if (argument == "--list") {
      arguments->lists = true;
    } else if (argument == "--check") {
      arguments->checks = true;
    } else if (argument == "--lines") {
      arguments->options.lines = true;
    } else if (argument == "-o") {
      if (!arguments->target.empty()) {
        *problem = "-o is there twice";
      } else if (i + 1 == argc || argv[i + 1][0] == '\0') {
        *problem = "-o needs a file or a folder";
      } else {
        arguments->target = argv[++i];
      }
    } else if (argument.empty()) {
      *problem = "an empty name of a file";
    } else if (argument == "-" || argument[0] != '-') {
      arguments->files.push_back(argument);
    } else {
      *problem = "unknown option '" + argument + "'";
    }
    if (!problem->empty()) return false;
  }
  *problem = Problem(*arguments);
  return problem->empty();
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      std::cout << usage;
      return std::cout.flush().good() ? 0 : 1;
    }
    if (argument == "--version") {
      std::cout << "zpasm " ZEPH_VERSION "\n";
      return std::cout.flush().good() ? 0 : 1;
    }
  }
  Arguments arguments;
  std::string problem;
  if (!Parse(argc, argv, &arguments, &problem)) {
    std::cerr << "zpasm: " << problem << "\n" << usage;
    return exit_usage;
  }
  return arguments.lists ? RunList(arguments) : RunAssemble(arguments);
}
