// zeph: makes, serves, builds, checks and runs sites. docs/zeph.md describes it.

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

#include "develop/Arguments.h"
#include "develop/Build.h"
#include "develop/Develop.h"
#include "develop/Places.h"

namespace {

// A socket of zeph's own must not get the number of a standard stream that the caller has closed.
void OpenStandardStreams() {
  int opened;
  do {
    opened = open("/dev/null", O_RDWR);
  } while (opened >= 0 && opened <= STDERR_FILENO);
  if (opened > STDERR_FILENO) close(opened);
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardStreams();
  const int wrong_usage = 2;
  ZephArguments arguments;
  std::string problem;
  if (!ParseZephArguments(std::vector<std::string>(argv + 1, argv + argc), &arguments, &problem)) {
    const std::string topic = argc > 1 && !ZephHelp(argv[1]).empty() ? argv[1] : "";
    std::cerr << "zeph: " << problem << "\n" << ZephHelp(topic);
    return wrong_usage;
  }
  const Places places = Places::Find();
  switch (arguments.command) {
    case ZephCommand::Help: std::cout << ZephHelp(arguments.topic); break;
    case ZephCommand::Version: std::cout << "zeph " ZEPH_VERSION "\n"; break;
    case ZephCommand::New: return NewSite(arguments, places);
    case ZephCommand::Dev: return ServeSite(arguments, places);
    case ZephCommand::Build: return BuildSite(arguments, places);
    case ZephCommand::Check: return CheckSite(arguments, places);
    case ZephCommand::Run: return RunPage(arguments, places);
  }
  std::cout.flush();
  return std::cout ? 0 : 1;
}
