// Why a library could not be used, for the people who run the engine: a script shows less of it, or
// nothing.

#ifndef ZEPH_BASE_LIBRARYFAILURE_H
#define ZEPH_BASE_LIBRARYFAILURE_H

#include "base/core/StringClass.h"

// Returns the reason with the path of the library in front, unless the reason names it already, as
// the loader's own texts do.
String LibraryFailure(const char* path, const String& reason);
// Reports it with ReportOnce, because every request tries again. Any thread may call it.
void ReportLibraryFailure(const char* program, const String& failure);

#endif
