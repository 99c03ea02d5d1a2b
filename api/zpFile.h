/* The engine's functions for files, for extension libraries: the files of scripts, under the same
   rules. Plain C; what is said at the top of api/zpVariable.h holds here.

   Paths come with a location, and are confined to its directory as those of scripts are:

     ZPFILE_DATA      below the data directory
     ZPFILE_SCRIPT    below the script directory; a relative path begins beside the running script
     ZPFILE_COMMERCE  in the data directory, behind the setting dir_commerce where there is one

   Functions about a path answer 0 for success and -1 for a failure, or what is asked for and -1.
   The reason stands in zpFile_Error then. */

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

/* No longer there: answers 0, and the error says so. */
int zpFile_Resolve(ZPPROGRAM program, int location, const char* path, int length);
/* The opened file, which zpFile_Close closes, or null. */
ZPFILE zpFile_Open(ZPPROGRAM program, int location, const char* path, int length, int flags);
/* Makes and opens a file that was not there, in that directory: the prefix with a number behind it.
 *name receives its path, which zpProgram_Free frees. */
ZPFILE zpFile_MakeTemporary(ZPPROGRAM program, int location, const char* directory, int length,
                            const char* prefix, char** name, int flags);
int zpFile_Delete(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Rename(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                  int tolocation, const char* to, int tolength);
int zpFile_Copy(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                int tolocation, const char* to, int tolength);
/* Makes the link `to`, which leads to `from`. */
int zpFile_MakeSymbolicLink(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                            int tolocation, const char* to, int tolength);
/* Sets the times of the file to now; an empty one is made if there is none. */
int zpFile_TouchFile(ZPPROGRAM program, int location, const char* path, int length);
/* Takes the lock that the name stands for, and waits for it; zpFile_Delete gives it up. 0 when it
   is held, 1 when the time was over, 2 after a failure. */
int zpFile_LockFile(ZPPROGRAM program, int location, const char* path, int length);
/* 1 or 0. */
int zpFile_Exists(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_IsDirectory(ZPPROGRAM program, int location, const char* path, int length);
/* Bytes; seconds since 1970; the system's mode word. */
long zpFile_Size(ZPPROGRAM program, int location, const char* path, int length);
long zpFile_Time(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Mode(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Change_Mode(ZPPROGRAM program, int location, const char* path, int length, int mode);
int zpFile_MakeDirectory(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_RemoveDirectory(ZPPROGRAM program, int location, const char* path, int length);
/* Appends a variable for each entry of the directory, "." and ".." included, with its name as the
   value. */
int zpDirectory_Listing(ZPPROGRAM program, int location, const char* path, int length,
                        ZPVARIABLELIST list);
char zpFile_Path_Separator(ZPPROGRAM program);
/* The path without "." and ".." and repeated slashes, which zpProgram_Free frees; null when there
   is no such directory. The disk is not looked at. */
char* zpFile_NormalizePath(ZPPROGRAM program, int location, const char* path, int length,
                           int* resultlength);

/* --- Open files ------------------------------------------------------------------------------- */

/* The count of bytes, which may be short, 0 at the end of the file, -1 after a failure. */
int zpFile_Read(ZPFILE file, char* buffer, int length);
int zpFile_Write(ZPFILE file, const char* bytes, int length);
/* Bytes from the start; the place reached, or -1. */
int zpFile_Seek(ZPFILE file, long position);
int zpFile_Tell(ZPFILE file);
long zpFile_Length(ZPFILE file);
/* Locks the whole file, waiting for it: type 2 exclusively, any other shared. */
int zpFile_Lock(ZPFILE file, int type);
int zpFile_Release(ZPFILE file);
int zpFile_OwnerID(ZPFILE file);
int zpFile_GroupID(ZPFILE file);
void zpFile_Close(ZPFILE file);
/* What the last failure with that file said, or, with null, the last one with a path. */
const char* zpFile_Error(ZPPROGRAM program, ZPFILE file, int* length);

#ifdef __cplusplus
}
#endif

#endif
