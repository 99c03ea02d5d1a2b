// The options of the command line and the title of the process.
// Tested in tests/fastcgi/ArgumentsTest.cpp.

#include "fastcgi/Arguments.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "base/core/CLocale.h"
#include "base/core/StringClass.h"
#include "base/host/ErrorLog.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/OperatorSettings.h"

namespace {

void StripBackslashes(char* text) {
  char* to = text;
  for (const char* from = text; *from; from++) {
    if (*from != '\\') *to++ = *from;
  }
  *to = '\0';
}

bool IsOption(const char* argument, char letter) {
  return argument[0] == '-' && argument[1] == letter && argument[2] == '\0';
}

// Writes the title over the texts of all arguments, which take up `room` bytes.
void SetTitle(char* area, size_t room, const char* title, size_t length) {
  length = std::min(length, room - 1);
  // The title is itself one of those texts.
  memmove(area, title, length);
  memset(area + length, 0, room - length);
}

}  // namespace

char** CopyArgs(int argc, char** argv) {
  auto** copies = new char*[static_cast<size_t>(argc)];
  for (int i = 0; i < argc; i++) {
    StripBackslashes(argv[i]);
    copies[i] = zeph_strdup(argv[i]);
  }
  return copies;
}

void FreeArgs(int argc, char** copies) {
  for (int i = 0; i < argc; i++) delete[] copies[i];
  delete[] copies;
}

void Process_CommandLine_Args(_FastCGIMainArgs* arguments) {
  char** argv = arguments->arguments;
  const int argc = arguments->argument_count;
  size_t room = 0;
  for (int i = 0; i < argc; i++) room += strlen(argv[i]) + 1;
  const char* title = nullptr;
  for (int i = 1; i + 1 < argc; i++) {
    if (IsOption(argv[i], 't')) {
      double count = strtod_l(argv[++i], nullptr, CLocale());
      if (count >= 1 && count < static_cast<double>(INT_MAX) + 1) {
        arguments->thread_count = static_cast<int>(count);
      } else {
        LogLine problem;
        problem.Text("zeph-fcgi: -t needs a number of threads, found '").Text(argv[i]);
        problem.Text("'; ").Number(arguments->thread_count).Text(" are started");
        OperatorSettings::Report(problem);
      }
    } else if (IsOption(argv[i], 'p')) {
      title = argv[++i];
    }
  }
  if (!title) return;
  arguments->argument_count = 1;
  SetTitle(argv[0], room, title, strlen(title));
}
