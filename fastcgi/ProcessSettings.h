// What the engine needs to know before the first request: the section [process] of the file of
// settings, its error_log, and the option --workers.

#ifndef ZEPH_FASTCGI_PROCESSSETTINGS_H
#define ZEPH_FASTCGI_PROCESSSETTINGS_H

#include <string>

#include "config/Snapshot.h"

struct ProcessSettings : ProcessSection {
  std::string error_log;  // empty if it is not set
};

// Reads the file that the shipped configuration library would read in this process. Without a file
// all is as by default, and what is wrong in it is. The first mistake of the file is reported, once
// in a process: what it keeps from being read here is not read before the next start.
ProcessSettings ReadProcessSettings();

// The number after "--workers", 1 to 1000; 0 if there is none. Another value is reported in the log
// of the process and counts as 0. The arguments are those as they were received.
int WorkersOf(int argc, char* const* argv);

#endif
