// zeph dev: a web server, the engine, and a compiler that follows what is edited.

#ifndef ZEPH_DEVELOP_DEVELOP_H
#define ZEPH_DEVELOP_DEVELOP_H

#include "develop/Arguments.h"
#include "develop/Places.h"

// Serves until a signal ends it. Returns the exit status.
int ServeSite(const ZephArguments& arguments, const Places& places);

#endif
