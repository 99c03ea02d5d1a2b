// The engine's interface to files. A path that comes from a script always has a Zeph_PathType, and
// the application's manager confines it to one of three configured directories. The manager also
// keeps the pool of open files, so that a request holds no more than max_files descriptors at once.

#ifndef ZEPH_BASE_FILE_H
#define ZEPH_BASE_FILE_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class File;
class ZephApplication;

// The base directory that a path is relative to, and confined to.
enum Zeph_PathType : int {
  ZephPath_Data = 0,
  ZephPath_Script = 1,
  ZephPath_Temporary = 2,  // the data directory if no temporary directory is configured
};

// Bits of the mode of Open and MakeTemporary. Without FileMode_Write a file is opened for reading,
// with or without FileMode_Read.
enum FileMode : int {
  FileMode_Read = 1,
  FileMode_Write = 2,
  FileMode_Create = 4,
  FileMode_Truncate = 8,
  FileMode_Append = 16,
  FileMode_Exclusive = 32,
  FileMode_Unpooled = 64,  // never deactivated: keeps its descriptor until it is deleted
};

// Kind of a byte-range lock. Any value but FileLock_Exclusive is a shared lock.
enum FileLockType : int { FileLock_Shared = 0, FileLock_Exclusive = 1 };

// Bits of flags_security that govern files. With none of them set all symbolic links and all
// absolute paths are refused. Without an OtherOwner bit a link may lead only to something that
// belongs to the owner of the link.
enum FileSecurity : int {
  FileSecurity_ScriptSymlinks = 1,
  FileSecurity_ScriptOtherOwner = 2,
  FileSecurity_DataSymlinks = 4,
  FileSecurity_DataOtherOwner = 8,
  FileSecurity_DataAbsolute = 16,
  FileSecurity_ScriptAbsolute = 32,
  FileSecurity_TempSymlinks = 256,
  FileSecurity_TempOtherOwner = 512,
};

// Results of FileManager::Lock.
enum FileLockResult : int {
  FileLock_Held = 0,
  FileLock_TimedOut = 1,
  FileLock_Failed = 2,
};

// Opens files and works on names, for one application and on its thread. An operation that fails
// stores its text, returns false, -1 or null (Lock: a FileLockResult) and leaves the out-parameters
// unchanged. The order of the virtual operations is fixed.
//
// The forms without a Zeph_PathType act on the path as given, relative to the working directory.
// They are for the engine's own files and never for a path that comes from a script.
class FileManager {
 public:
  explicit FileManager(ZephApplication* application);
  // REQUIRES: all files that the manager has opened are deleted.
  virtual ~FileManager();
  FileManager(const FileManager&) = delete;
  FileManager& operator=(const FileManager&) = delete;

  // The file, owned by the caller, or null. mode has bits of FileMode. Neither opening nor later
  // reading or writing waits for the other end of a FIFO or for a device. Opening a FIFO for
  // writing fails at once if it has no reader. Reading from a FIFO returns the bytes that are
  // there; if there are none, it returns 0 as at the end of a file, or fails while the FIFO has a
  // writer.
  [[nodiscard]] virtual File* Open(const char* path, int mode) = 0;
  // Takes the lock of that name. Waits for it until the application is cancelled. The lock is the
  // existence of the name; Delete gives it up. Returns a FileLockResult.
  [[nodiscard]] virtual int Lock(const char* path) = 0;
  virtual bool Delete(const char* path) = 0;
  // Replaces the target. A copy that fails midway leaves the bytes written so far.
  virtual bool Copy(const char* from, const char* to) = 0;
  virtual bool Rename(const char* from, const char* to) = 0;
  // Sets the times of the file to the current time; makes an empty file if there is none.
  virtual bool TouchFile(const char* path) = 0;
  // In this form a file that does not exist is a failure. Only the form with a type returns true
  // and sets *exists to false.
  virtual bool Exists(const char* path, bool* exists) = 0;
  // Bytes; 0 for a FIFO.
  virtual bool Length(const char* path, long* length) = 0;
  virtual bool IsDirectory(const char* path, bool* result) = 0;
  // Seconds since 1970.
  virtual bool ModifiedTime(const char* path, long* time) = 0;
  virtual bool MakeDirectory(const char* path) = 0;
  virtual bool RemoveDirectory(const char* path) = 0;
  // Makes the link `to` with the content `from`.
  virtual bool MakeSymbolicLink(const char* from, const char* to) = 0;
  // The system's mode word, with the bits of the file's kind.
  virtual bool Mode(const char* path, int* mode) = 0;
  virtual bool ChangeMode(const char* path, int mode) = 0;
  // Creates and opens a file that was not there: the prefix with ".0", ".1" and so on. *name
  // receives the name, made with new[] and owned by the caller. Create and exclusive are implied.
  [[nodiscard]] virtual File* MakeTemporary(const char* prefix, char** name, int mode) = 0;

  // The same for a path within the base directory of the type.
  [[nodiscard]] virtual File* Open(Zeph_PathType type, const char* path, int mode) = 0;
  [[nodiscard]] virtual int Lock(Zeph_PathType type, const char* path) = 0;
  virtual bool Delete(Zeph_PathType type, const char* path) = 0;
  virtual bool Copy(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                    const char* to) = 0;
  virtual bool Rename(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                      const char* to) = 0;
  virtual bool TouchFile(Zeph_PathType type, const char* path) = 0;
  virtual bool Exists(Zeph_PathType type, const char* path, bool* exists) = 0;
  virtual bool Length(Zeph_PathType type, const char* path, long* length) = 0;
  virtual bool IsDirectory(Zeph_PathType type, const char* path, bool* result) = 0;
  virtual bool ModifiedTime(Zeph_PathType type, const char* path, long* time) = 0;
  virtual bool MakeDirectory(Zeph_PathType type, const char* path) = 0;
  virtual bool RemoveDirectory(Zeph_PathType type, const char* path) = 0;
  // The link's content is the text of fromtype's directory followed by `from`.
  virtual bool MakeSymbolicLink(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                                const char* to) = 0;
  virtual bool Mode(Zeph_PathType type, const char* path, int* mode) = 0;
  virtual bool ChangeMode(Zeph_PathType type, const char* path, int mode) = 0;
  // Makes the file in the directory; "" or "." is the base directory itself. The prefix has no
  // slash. *name begins with the directory.
  [[nodiscard]] virtual File* MakeTemporary(Zeph_PathType type, const char* directory,
                                            const char* prefix, char** name, int mode) = 0;
  // Makes the file beside the one of that path, with its name as the prefix.
  [[nodiscard]] virtual File* MakeTemporaryLike(Zeph_PathType type, const char* path, char** name,
                                                int mode) = 0;
  // Appends a String, owned by the caller, for each entry, "." and ".." included, in the order of
  // the file system.
  virtual bool DirectoryListing(Zeph_PathType type, const char* path, List<String>* names) = 0;

  // Text of the last failure. Storing a null String keeps the older, more exact text.
  virtual const String& error();
  virtual void Error(const String& text);
  virtual char pathseparator() = 0;
  // The path without "." and ".." and repeated slashes, joined to the base's text if absolute paths
  // are accepted. Does not access the disk. Made with new[] and owned by the caller; null if there
  // is no such base directory.
  [[nodiscard]] virtual char* NormalizeContainedPath(Zeph_PathType type, const char* path,
                                                     int* length, int* allocated) = 0;

  // --- The pool ----------------------------------------------------------------------------------
  // A pooled file is in open_files, most recently opened first, or in inactive_files. FileOpened
  // puts it into the pool. The first operation that needs an inactive file moves it back to
  // open_files.

  // Makes room for that many more descriptors by deactivating files from the end of open_files.
  // Files that hold a byte-range lock stay open, because closing them would give up the lock in the
  // middle of a transaction; so the limit may be exceeded while many are locked. False only if
  // count alone exceeds the limit.
  virtual bool FreeFileSpace(int count);
  // Enters an open file into the pool and returns it. If there is no memory for that, deletes it.
  virtual File* FileOpened(File* file);
  // Removes a file that is about to be deleted.
  virtual void FileClosed(File* file);
  // Closes the descriptor of a pooled file, which also gives up its locks.
  virtual void DeactivateFile(File* file);
  virtual bool ActivateFile(File* file);

  // 0 is no limit.
  virtual void MaxFiles(int limit);
  // Bits of FileSecurity.
  virtual void SecurityOptions(int flags);

  ZephApplication* application() const { return owner; }

 protected:
  ZephApplication* owner;
  String error_text;
  int max_files = 0;
  int security_flags = 0;
  List<File> open_files;
  List<File> inactive_files;
};

// One open file. Owned by the caller of Open. A failed operation stores its text in the file. The
// order of the virtual operations is fixed.
class File {
 public:
  // Copies the path. The first form is for a file that is not confined to a base directory.
  File(FileManager* manager, const char* path);
  File(FileManager* manager, Zeph_PathType type, const char* path);
  virtual ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  virtual bool OwnerID(int* id) = 0;
  virtual bool GroupID(int* id) = 0;
  // The count of bytes, which may be short; 0 at the end of the file, -1 on failure.
  virtual int Read(char* buffer, int length) = 0;
  virtual int Write(const char* bytes, int length) = 0;
  // position counts bytes from the start of the file. Returns the position reached, or -1.
  // Positions of 2^31 and above fail, in Tell too.
  virtual int Seek(long position) = 0;
  virtual int Tell() = 0;
  // Bytes, 0 for a FIFO, -1 on failure.
  virtual long Length() = 0;
  virtual bool IsDirectory(bool* result) = 0;
  // Locks bytes against other open files, of this thread or any other process. Waits for them until
  // the application is cancelled. A length of 0 reaches to the end of any file.
  virtual bool Lock(FileLockType type, long start, long length) = 0;
  virtual bool Release(long start, long length) = 0;
  // Maps a part for reading; a length of -1 is that of the file. Replaces an earlier mapping, and
  // is valid until Release() or the end of the object. Null on failure. REQUIRES: offset is a
  // multiple of the page size.
  virtual char* Map(long offset, long length) = 0;
  virtual void Release() = 0;
  // Open and close the descriptor, for the manager's pool. Activate puts its error text into the
  // argument instead of storing it.
  virtual bool Activate(String& error) = 0;
  virtual void Deactivate() = 0;
  // A null String keeps the older text.
  virtual void Error(const String& text);
  virtual const String& error();
  // Returns true if at this moment no other open file holds a lock that Lock would have to wait
  // for. Takes no lock and stores no error text. Returns false if that cannot be known.
  virtual bool IsLockable(FileLockType type, long start, long length);

  int Read(unsigned char* buffer, int length) {
    return Read(reinterpret_cast<char*>(buffer), length);
  }
  int Write(const unsigned char* bytes, int length) {
    return Write(reinterpret_cast<const char*>(bytes), length);
  }
  int Write(const String& text);

  FileManager* manager() const { return file_manager; }
  bool contained() const { return is_contained != 0; }
  Zeph_PathType type() const { return path_type; }
  // The path that was given to the manager, NUL-terminated.
  const char* path() const { return path_text; }
  // Whether a byte-range lock is held. The pool does not deactivate such a file.
  bool locked() const { return holds_lock; }

 protected:
  FileManager* file_manager;
  int is_contained;
  Zeph_PathType path_type;
  char* path_text;  // from strdup
  String error_text;
  bool holds_lock = false;
};

#endif
