// The commands that need no server: new, build, check, run.

#ifndef ZEPH_DEVELOP_BUILD_H
#define ZEPH_DEVELOP_BUILD_H

#include "develop/Arguments.h"
#include "develop/Places.h"

// Each does one command, reports what went wrong on standard error, and returns the exit status.
int NewSite(const ZephArguments& arguments, const Places& places);
int BuildSite(const ZephArguments& arguments, const Places& places);
int CheckSite(const ZephArguments& arguments, const Places& places);
// Does not return if the page runs: zprun takes the place of the process.
int RunPage(const ZephArguments& arguments, const Places& places);

#endif
