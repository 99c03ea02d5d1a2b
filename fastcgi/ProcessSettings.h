// What the engine needs to know before the first request: the section [process] of the file of
// settings, and the option --workers.

#ifndef ZEPH_FASTCGI_PROCESSSETTINGS_H
#define ZEPH_FASTCGI_PROCESSSETTINGS_H

#include "config/Snapshot.h"

// Reads the section from the file that the shipped configuration library would read in this
// process. Without a file, and with one that has mistakes, it is the defaults: the responses to
// requests tell about those.
ProcessSection ReadProcessSettings();

// The number after "--workers", 1 to 1000; 0 if there is none. Another value is reported on
// standard error and counts as 0. The arguments are those as they were received.
int WorkersOf(int argc, char* const* argv);

#endif
