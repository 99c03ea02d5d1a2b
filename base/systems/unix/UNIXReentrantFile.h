// The file manager of a request: it walks to directories on descriptors and never through the
// working directory, which all request threads share.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXREENTRANTFILE_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXREENTRANTFILE_H

#include "base/systems/unix/UNIXFile.h"

class TaggedFile;

// Made by an application and used on its thread. Each thread has its own.
class UNIXReentrantFileManager : public UNIXFileManager {
 public:
  // Makes the memory in which this thread keeps known directories.
  static void PrepareThread();

  explicit UNIXReentrantFileManager(ZephApplication* application);
  // See UNIXFileManager.
  UNIXReentrantFileManager(ZephApplication* application, UNIXReentrantFileManager& other);

  // Opens the script directory and, for reading, a script in it, in two calls of the system, if
  // nothing on the way needs a look of its own: no link, no "..", no directory that cannot be read.
  // Returns null and stores no text if that is not sure, or if there is no such file:
  // InitializeScriptDirectory and Open then find out, and nothing has changed. On success the
  // directory is as InitializeScriptDirectory leaves it, and takes the text of its path out of
  // *directory; *tagged, which gets the file next, has its first bytes. They are read at once,
  // because that tells a file from a directory too. REQUIRES: SecurityOptions and MaxFiles were
  // called before.
  [[nodiscard]] File* OpenScript(String* directory, const char* path, TaggedFile* tagged);

  // Opens a directory, or any file that the path names, for reading. A relative path starts at
  // `base`; AT_FDCWD is the working directory. Links are followed only with symlinks set; without
  // other_owner only if link and target have the same owner. *result receives a descriptor that the
  // caller closes. Returns a PathWalkResult and stores no text.
  [[nodiscard]] virtual int OpenPath(int base, const char* path, int* result, bool symlinks,
                                     bool other_owner);
  // Opens a directory inside a base directory; null, "" and "." are the base itself. *result
  // receives a descriptor that the caller closes. On failure returns false with the text stored.
  [[nodiscard]] virtual bool OpenContainedPath(Zeph_PathType type, const char* path, int* result);
  [[nodiscard]] virtual bool OpenContainedPath(Zeph_PathType type,
                                               _UNIXContainedPathSettings* settings,
                                               const char* path, int* result);
};

#endif
