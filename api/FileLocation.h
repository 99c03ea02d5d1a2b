// How the functions for files interpret a location and a path.

#ifndef ZEPH_API_FILELOCATION_H
#define ZEPH_API_FILELOCATION_H

#include "api/zeph.h"
#include "base/core/StringClass.h"
#include "base/host/File.h"

// Returns the type of path for a location of the zpFile functions; result receives the path in its
// directory. A length of -1 means strlen.
Zeph_PathType __zpFile_Location(ZPPROGRAM program, int location, const char* path, int length,
                                String& result);
// The same for a location of the zeph_file functions, whose paths are used unchanged.
Zeph_PathType __zeph_file_location(int location);

#endif
