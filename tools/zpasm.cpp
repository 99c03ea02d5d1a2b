// zpasm: assembles and lists compiled scripts. The library of the assembler does the work. Tested
// in tests/tools/ProgramTest.cpp.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "tools/Assembler.h"
#include "tools/Lister.h"

namespace {

constexpr int exit_usage = 2;

constexpr char usage[] =
    "usage: zpasm page.zpa -o page.zpc    assemble\n"
    "       zpasm --list page.zpc         print as text that assembles to the same bytes\n"
    "       zpasm --help\n"
    "\n"
    "A file named - is standard input, and behind -o standard output. A page as small as can be:\n"
    "\n"
    "  pushc \"Hello, world\\n\"\n"
    "  out\n"
    "\n"
    "docs/zpasm.md tells of instructions, names, labels, functions and directives.\n";

bool ReadFile(const std::string& path, std::string* bytes) {
  std::ostringstream text;
  if (path == "-") {
    text << std::cin.rdbuf();
  } else {
    std::ifstream file(path, std::ios::binary);
    if (!file || !(text << file.rdbuf()).good()) {
      // An empty file inserts nothing, which streams report as a failure.
      if (!file || file.peek() != std::ifstream::traits_type::eof()) {
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

int RunAssemble(const std::string& source, const std::string& target) {
  std::string text, image, errors;
  if (!ReadFile(source, &text)) return 1;
  if (!AssembleScript(text, source, &image, &errors)) {
    std::cerr << errors;
    return 1;
  }
  return WriteFile(target, image) ? 0 : 1;
}

int RunList(const std::string& path) {
  std::string image, text, error;
  if (!ReadFile(path, &image)) return 1;
  if (!ListScript(image, &text, &error)) {
    std::cerr << path << ": " << error << "\n";
    return 1;
  }
  std::cout << text;
  return std::cout.flush().good() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string source, target, listed;
  for (int i = 1; i < argc; i++) {
    std::string argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      std::cout << usage;
      return 0;
    }
    std::string* slot = argument == "-o" ? &target : argument == "--list" ? &listed : nullptr;
    if (slot && i + 1 < argc && slot->empty()) {
      *slot = argv[++i];
    } else if (!slot && source.empty() && (argument == "-" || argument[0] != '-')) {
      source = argument;
    } else {
      std::cerr << "zpasm: unexpected " << argument << "\n" << usage;
      return exit_usage;
    }
  }
  if (!listed.empty() && source.empty() && target.empty()) return RunList(listed);
  if (listed.empty() && !source.empty() && !target.empty()) return RunAssemble(source, target);
  std::cerr << usage;
  return exit_usage;
}
