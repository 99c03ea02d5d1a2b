// The file manager of a request: it walks to directories on descriptors and never through the
// working directory, which all request threads share.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXREENTRANTFILE_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXREENTRANTFILE_H

#include "base/systems/unix/UNIXFile.h"

// Made by an application and used on its thread. Any number of them work side by side.
class UNIXReentrantFileManager : public UNIXFileManager {
 public:
  // Makes what a thread needs to remember directories.
  static void PrepareThread();

  explicit UNIXReentrantFileManager(ZephApplication* application);
  // See UNIXFileManager.
  UNIXReentrantFileManager(ZephApplication* application, UNIXReentrantFileManager& other);

  // Opens a directory, or whatever the path names, for reading. `base` is where a relative path
  // starts, AT_FDCWD being the working directory. Links are followed only with symlinks set, and
  // without other_owner only if link and target have one owner. *result receives a descriptor that
  // the caller closes. Answers a PathWalkResult and stores no text.
  [[nodiscard]] virtual int OpenPath(int base, const char* path, int* result, bool symlinks,
                                     bool other_owner);
  // A directory inside a base directory; null, "" and "." are the base itself. *result receives a
  // descriptor that the caller closes. On failure false, with the text stored.
  [[nodiscard]] virtual bool OpenContainedPath(Zeph_PathType type, const char* path, int* result);
  [[nodiscard]] virtual bool OpenContainedPath(Zeph_PathType type,
                                               _UNIXContainedPathSettings* settings,
                                               const char* path, int* result);
};

#endif
