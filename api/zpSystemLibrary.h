/* System libraries, for extension libraries: shared libraries that the configuration names, whose
   functions an extension takes without being linked with them. Plain C. */

#ifndef ZEPH_API_ZPSYSTEMLIBRARY_H
#define ZEPH_API_ZPSYSTEMLIBRARY_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The function of that name, or null. zpProgram_SystemLibrary gives the library. */
void* zpSystemLibrary_GetFunction(ZPSYSTEMLIBRARY library, const char* name);
/* What the last failure with that library said, or, with null, the last search for one. */
const char* zpSystemLibrary_Error(ZPPROGRAM program, ZPSYSTEMLIBRARY library, int* length);

#ifdef __cplusplus
}
#endif

#endif
