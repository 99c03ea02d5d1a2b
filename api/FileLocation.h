// How the functions for files understand a location and a path.

#ifndef ZEPH_API_FILELOCATION_H
#define ZEPH_API_FILELOCATION_H

#include "base/core/StringClass.h"
#include "base/extensions/ExtensionHandles.h"
#include "base/host/File.h"

// The type of path that a location of api/zpFile.h stands for; result receives the path in its
// directory. A length of -1 means strlen.
Zeph_PathType __zpFile_Location(ZPPROGRAM program, int location, const char* path, int length,
                                String& result);
// The same for a location of api/3xapi.h, whose paths stay as they are.
Zeph_PathType __zeph_file_location(int location);

#endif
