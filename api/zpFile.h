/* The engine's functions for files, for extension libraries: the files of scripts, under the same
   rules. Plain C; the notes at the top of api/zpVariable.h apply here.

   Paths have a location and, like those of scripts, cannot leave its directory:

     ZPFILE_DATA      below the data directory
     ZPFILE_SCRIPT    below the script directory; a relative path begins at the running script's
                      directory
     ZPFILE_COMMERCE  in the data directory, below the setting dir_commerce if it is set

   Functions on a path return 0 for success and -1 for a failure, or the requested value and -1. The
   reason is then in zpFile_Error. */

#ifndef ZEPH_API_ZPFILE_H
#define ZEPH_API_ZPFILE_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { ZPFILE_DATA = 0, ZPFILE_SCRIPT = 1, ZPFILE_COMMERCE = 3 };

/* Bits of the flags of zpFile_Open. Without ZPFILE_WRITE a file is opened for reading. */
enum {
  ZPFILE_READ = 1,
  ZPFILE_WRITE = 2,
  ZPFILE_CREATE = 4,
  ZPFILE_TRUNCATE = 8,
  ZPFILE_APPEND = 16,
  ZPFILE_EXCLUSIVE = 32
};

/* --- Paths ------------------------------------------------------------------------------------ */

/* No longer supported: returns 0 and sets an error that says so. */
int zpFile_Resolve(ZPPROGRAM program, int location, const char* path, int length);
/* Returns the opened file, which the caller closes with zpFile_Close, or null. */
ZPFILE zpFile_Open(ZPPROGRAM program, int location, const char* path, int length, int flags);
/* Makes and opens a file with an unused name in that directory: the prefix followed by a number.
   Returns null on failure, else *name receives its path, which the caller frees with
   zpProgram_Free. */
ZPFILE zpFile_MakeTemporary(ZPPROGRAM program, int location, const char* directory, int length,
                            const char* prefix, char** name, int flags);
int zpFile_Delete(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Rename(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                  int tolocation, const char* to, int tolength);
int zpFile_Copy(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                int tolocation, const char* to, int tolength);
/* Makes the link `to`, which refers to `from`. */
int zpFile_MakeSymbolicLink(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                            int tolocation, const char* to, int tolength);
/* Sets the times of the file to the present; a missing file is made empty. */
int zpFile_TouchFile(ZPPROGRAM program, int location, const char* path, int length);
/* Waits for the lock with that name and takes it; zpFile_Delete releases it. Returns 0 if it is
   held, 1 after a time-out, 2 after a failure. */
int zpFile_LockFile(ZPPROGRAM program, int location, const char* path, int length);
/* Return 1, 0, or -1 for a failure. */
int zpFile_Exists(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_IsDirectory(ZPPROGRAM program, int location, const char* path, int length);
/* Return bytes; seconds since 1970; the system's mode word. */
long zpFile_Size(ZPPROGRAM program, int location, const char* path, int length);
long zpFile_Time(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Mode(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Change_Mode(ZPPROGRAM program, int location, const char* path, int length, int mode);
int zpFile_MakeDirectory(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_RemoveDirectory(ZPPROGRAM program, int location, const char* path, int length);
/* Appends a variable for each entry of the directory, including "." and ".."; its value is the
   entry's name. */
int zpDirectory_Listing(ZPPROGRAM program, int location, const char* path, int length,
                        ZPVARIABLELIST list);
char zpFile_Path_Separator(ZPPROGRAM program);
/* Returns the path without "." and ".." and repeated slashes, which the caller frees with
   zpProgram_Free; null if the location's directory does not exist. Does not look up the path on
   disk. */
char* zpFile_NormalizePath(ZPPROGRAM program, int location, const char* path, int length,
                           int* resultlength);

/* --- Open files ------------------------------------------------------------------------------- */

/* Return the number of bytes, which may be less than length; 0 at the end of the file; -1 for a
   failure. */
int zpFile_Read(ZPFILE file, char* buffer, int length);
int zpFile_Write(ZPFILE file, const char* bytes, int length);
/* Return the position in bytes from the start, or -1. */
int zpFile_Seek(ZPFILE file, long position);
int zpFile_Tell(ZPFILE file);
long zpFile_Length(ZPFILE file);
/* Waits for a lock on the whole file and takes it: type 2 is exclusive, any other shared. */
int zpFile_Lock(ZPFILE file, int type);
int zpFile_Release(ZPFILE file);
int zpFile_OwnerID(ZPFILE file);
int zpFile_GroupID(ZPFILE file);
void zpFile_Close(ZPFILE file);
/* The text of the last failure with that file or, with null, of the last failure with a path. */
const char* zpFile_Error(ZPPROGRAM program, ZPFILE file, int* length);

#ifdef __cplusplus
}
#endif

#endif
