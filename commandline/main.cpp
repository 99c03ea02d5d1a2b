// zprun: runs a compiled script from the command line.

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "commandline/Options.h"
#include "commandline/Run.h"
#include "config/SnapshotStore.h"

int main(int argc, char** argv) {
  const int wrong_usage = 2;
  Options options;
  std::string problem;
  if (!ParseOptions(argc, argv, &options, &problem)) {
    fprintf(stderr, "zprun: %s\n%s", problem.c_str(), zprun_usage);
    return wrong_usage;
  }
  if (options.help) {
    fputs(zprun_usage, stdout);
    return fflush(stdout) == 0 ? 0 : 1;
  }
  if (options.version) {
    puts("zprun " ZEPH_VERSION);
    return fflush(stdout) == 0 ? 0 : 1;
  }
  // setenv is safe only before there are threads. The library that reads the file takes its path
  // from this variable.
  if (options.config) setenv(config_file_variable, options.config, 1);
  tzset();
  return RunScript(argc, argv, options);
}
