// Files on POSIX calls: the open file, and the manager with its operations on names, its lock
// protocol and the confinement of script paths. A server uses UNIXReentrantFileManager.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXFILE_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXFILE_H

#include <sys/stat.h>

#include <memory>
#include <vector>

#include "base/host/File.h"
#include "base/host/FileDescriptor.h"
#include "base/systems/unix/FileWindow.h"
#include "base/systems/unix/UNIXFilePath.h"

class UNIXFileManager;

// The settings for the contained paths of one type. Borrows from the manager.
struct _UNIXContainedPathSettings {
  int directory = -1;            // descriptor of the base directory
  UNIXFilePath* path = nullptr;  // its text, as configured
  unsigned char allow_symlinks = 0;
  unsigned char allow_other_owner = 0;
  unsigned char allow_absolute = 0;
};

// An open or deactivated file. Adopts the descriptor it is made with.
class UNIXFile : public File {
 public:
  // flags are open(2) flags. Those that would create or empty the file are dropped, so that opening
  // it again does neither.
  UNIXFile(UNIXFileManager* manager, int descriptor, int flags, const char* path);
  UNIXFile(UNIXFileManager* manager, int descriptor, int flags, Zeph_PathType type,
           const char* path);
  // A script that was opened for reading, of which the system is not asked before something needs
  // it. ReadAhead mostly is enough.
  UNIXFile(UNIXFileManager* manager, int descriptor, const char* script);
  ~UNIXFile() override;

  using File::Read;
  using File::Write;

  bool OwnerID(int* id) override;
  bool GroupID(int* id) override;
  int Read(char* buffer, int length) override;
  int Write(const char* bytes, int length) override;
  int Seek(long position) override;
  int Tell() override;
  long Length() override;
  bool IsDirectory(bool* result) override;
  bool Lock(FileLockType type, long start, long length) override;
  bool Release(long start, long length) override;
  char* Map(long offset, long length) override;
  void Release() override;
  bool Activate(String& error) override;
  void Deactivate() override;
  // Reads the first bytes of a file that was just opened. The file stays as if nothing was read.
  // Returns their count, or -1 without a text: of a directory, of a file without positions, and
  // after an error. REQUIRES: no other operation was called.
  [[nodiscard]] int ReadAhead(char* buffer, int length);
  // Also false for a deactivated file.
  bool IsLockable(FileLockType type, long start, long length) override;

 private:
  struct LockedRange {
    long start;
    long end;  // exclusive
  };

  bool Ready() { return descriptor >= 0 || Reactivate(); }
  bool Reactivate();
  bool SystemError();
  void Settle();
  bool Status(struct stat* buffer);
  bool KnowsPlace();
  bool LearnStatus();
  void Note(const struct stat& status);
  int Moved(long count);
  bool IsAllThatIsLocked(long start, long length) const;
  void NoteLocked(long start, long length, bool held);

  int descriptor;  // -1 while deactivated
  void* map_address = nullptr;
  size_t map_length = 0;
  int flags;
  long position = 0;  // the position that an activation restores; -1 if it is unknown
  // The position of a regular file. It is kept here and passed with each read and write: the
  // system's own position is then unused, and a seek costs no call. -1 in other files, in a file
  // that appends, and before the first seek or status query.
  long place = -1;
  FileWindow window;   // used only with a valid place
  bool moved = false;  // read, written or moved by a seek since it was opened
  // The result of fstat at the time of opening, valid until the first read, write or seek.
  bool status_known = false;
  bool is_regular = false;
  bool is_directory = false;
  int owner = 0;
  int group = 0;
  std::vector<LockedRange> locked_ranges;  // sorted; no two overlap or touch
  std::vector<LockedRange> spare_ranges;   // room for the next list
};

// Results of the walk to a directory.
enum PathWalkResult : int {
  PathWalk_Done = 0,
  PathWalk_NotFound = 1,    // or any other failure
  PathWalk_Symlink = 2,     // a link, where none is allowed
  PathWalk_OtherOwner = 3,  // a link to another user's object, where that is not allowed
  PathWalk_Outside = 4,     // ".." led elsewhere than the text says: a directory was moved
};

// The directory that an operation works in: the base directory itself, borrowed from the manager,
// or one that was opened for this operation.
class ContainedDirectory {
 public:
  int get() const { return descriptor; }
  bool borrowed() const { return !opened.is_open(); }
  void Borrow(int base) {
    opened.reset();
    descriptor = base;
  }
  void Adopt(int other) {
    opened.reset(other);
    descriptor = other;
  }
  // Returns a descriptor that the caller closes: a borrowed one is duplicated. Returns -1 when that
  // fails.
  [[nodiscard]] int Release();

 private:
  int descriptor = -1;
  FileDescriptor opened;
};

// The manager in its plain form, for a program with one thread: it walks to directories through the
// working directory of the process. All operations on names are written here, once, on a directory
// descriptor; the derived class replaces only how that descriptor is reached.
class UNIXFileManager : public FileManager {
  friend class UNIXFile;

 public:
  explicit UNIXFileManager(ZephApplication* application);
  // For a background task: the same directories, limits and flags on descriptors of its own, and an
  // empty pool. Later changes to one manager do not affect the other.
  UNIXFileManager(ZephApplication* application, UNIXFileManager& other);
  ~UNIXFileManager() override;

  File* Open(const char* path, int mode) override;
  int Lock(const char* path) override;
  bool Delete(const char* path) override;
  bool Copy(const char* from, const char* to) override;
  bool Rename(const char* from, const char* to) override;
  bool TouchFile(const char* path) override;
  bool Exists(const char* path, bool* exists) override;
  bool Length(const char* path, long* length) override;
  bool IsDirectory(const char* path, bool* result) override;
  bool ModifiedTime(const char* path, long* time) override;
  bool MakeDirectory(const char* path) override;
  bool RemoveDirectory(const char* path) override;
  bool MakeSymbolicLink(const char* from, const char* to) override;
  bool Mode(const char* path, int* mode) override;
  bool ChangeMode(const char* path, int mode) override;
  File* MakeTemporary(const char* prefix, char** name, int mode) override;

  File* Open(Zeph_PathType type, const char* path, int mode) override;
  int Lock(Zeph_PathType type, const char* path) override;
  bool Delete(Zeph_PathType type, const char* path) override;
  bool Copy(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
            const char* to) override;
  // Across file systems copies and deletes. Any other failure leaves the error text as it was.
  bool Rename(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
              const char* to) override;
  bool TouchFile(Zeph_PathType type, const char* path) override;
  bool Exists(Zeph_PathType type, const char* path, bool* exists) override;
  bool Length(Zeph_PathType type, const char* path, long* length) override;
  bool IsDirectory(Zeph_PathType type, const char* path, bool* result) override;
  bool ModifiedTime(Zeph_PathType type, const char* path, long* time) override;
  bool MakeDirectory(Zeph_PathType type, const char* path) override;
  bool RemoveDirectory(Zeph_PathType type, const char* path) override;
  // Leaves the error text as it was when the link itself cannot be made.
  bool MakeSymbolicLink(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                        const char* to) override;
  bool Mode(Zeph_PathType type, const char* path, int* mode) override;
  bool ChangeMode(Zeph_PathType type, const char* path, int mode) override;
  File* MakeTemporary(Zeph_PathType type, const char* directory, const char* prefix, char** name,
                      int mode) override;
  File* MakeTemporaryLike(Zeph_PathType type, const char* path, char** name, int mode) override;
  bool DirectoryListing(Zeph_PathType type, const char* path, List<String>* names) override;

  char pathseparator() override;
  char* NormalizeContainedPath(Zeph_PathType type, const char* path, int* length,
                               int* allocated) override;

  // Open a base directory and keep it open; one that was configured before is closed first. The
  // path is absolute. The user, if not null, is named in the text of a failure. REQUIRES:
  // SecurityOptions was called before, because its flags decide which links on the way are allowed.
  virtual bool InitializeScriptDirectory(const char* path, const char* user);
  virtual bool InitializeDataDirectory(const char* path);
  virtual bool InitializeTempDirectory(const char* path);

  // From this call on, a script can't open or make a file if that would leave the process fewer
  // than `count` descriptors, or fewer than a quarter of them if the limit is low: it fails as if
  // there were none left. They are kept for other requests, which have to open their scripts. Files
  // that are opened again, or only for a moment, may use them.
  void KeepDescriptors(int count) { kept_descriptors = count; }

  // Opens a file, or a directory for reading, inside a base directory. flags are those of open(2).
  // Returns a descriptor that the caller closes, or -1.
  [[nodiscard]] virtual int OpenContained(Zeph_PathType type, const char* path, int flags);

  // SaveCurrentDirectory returns a descriptor of the working directory, or -1.
  // RestoreCurrentDirectory goes back to it and closes it, and returns -1 on failure.
  [[nodiscard]] virtual int SaveCurrentDirectory();
  virtual int RestoreCurrentDirectory(int descriptor);
  // Find the directory that a text leads to, as the system names it; the caller deletes *result.
  // The second form compares it with `path` to see if a link was involved. Both use the working
  // directory of the process and restore it. Return a PathWalkResult.
  [[nodiscard]] virtual int RealizePath(const char* path, UNIXFilePath** result, bool symlinks,
                                        bool other_owner);
  [[nodiscard]] virtual int RealizePath(UNIXFilePath* path, const char* text, UNIXFilePath** result,
                                        bool symlinks, bool other_owner);
  // Returns false when that type has no directory. An unknown type leaves the settings as they
  // were: empty, so that every use of them fails.
  virtual bool ContainedPathSettings(Zeph_PathType type, _UNIXContainedPathSettings* settings);
  // Like OpenContainedPath of the derived class, with a path as the result.
  virtual bool RealizeContainedPath(Zeph_PathType type, const char* path, UNIXFilePath** result);
  virtual bool RealizeContainedPath(Zeph_PathType type, _UNIXContainedPathSettings* settings,
                                    const char* path, UNIXFilePath** result);
  // fstat of the file that OpenContained finds, so the file has to be readable.
  virtual bool Stat(Zeph_PathType type, const char* path, struct stat* buffer);

  // The lock protocol on a name in a directory; AT_FDCWD is the working directory. Returns a
  // FileLockResult.
  [[nodiscard]] int LockAt(int directory, const char* name);

  // Returns the open(2) flags of FileMode bits.
  static int OpenMode(int mode);

 protected:
  // Opens the directory `path`, starting at `base`, element by element. `confined` refuses a ".."
  // that leads out of base because a directory was moved meanwhile. *result receives a descriptor
  // that the caller closes. Returns a PathWalkResult.
  using DirectoryWalk = int (*)(UNIXFileManager* manager, int base, const char* path, int* result,
                                bool symlinks, bool other_owner, bool confined);

  UNIXFileManager(ZephApplication* application, DirectoryWalk walk);
  UNIXFileManager(ZephApplication* application, UNIXFileManager& other, DirectoryWalk walk);

  // Opens the directory `path` of a base directory. On failure returns false with the text stored.
  bool OpenDirectory(Zeph_PathType type, const _UNIXContainedPathSettings& settings,
                     const char* path, ContainedDirectory* result);
  // Makes a File on the descriptor and enters it in the pool unless the mode forbids that.
  File* Adopt(FileDescriptor& descriptor, int mode, Zeph_PathType type, const char* path);
  // Stores the text of a PathWalkResult that is a failure, and returns false.
  bool WalkError(Zeph_PathType type, int result);

  // MakeTemporary tries the numbers below this. A test lowers it to see how they run out.
  static inline unsigned temporary_limit = 0x7FFFFFFE;

  UNIXFilePath* script_path = nullptr;
  int script_directory = -1;
  UNIXFilePath* data_path = nullptr;
  int data_directory = -1;
  UNIXFilePath* temp_path = nullptr;
  int temp_directory = -1;

 private:
  struct FinalName;

  // Both store a text and return false.
  bool SystemError();
  bool Fail(const char* text);

  // openat that never waits for another end; `permissions` are for a file that it makes.
  int OpenQuietly(int directory, const char* name, int flags, unsigned permissions);
  // IsSpare returns true if a script may hold this descriptor, HasSpare if it may hold one more.
  // HasSpare is for modes that create or empty files, because an open that fails must do neither.
  bool IsSpare(int descriptor);
  bool HasSpare(int mode);
  // The same for a path as given.
  File* Adopt(FileDescriptor& descriptor, int mode, const char* path);
  bool CheckCopySource(int descriptor);
  bool CopyBytes(int from, int to);
  bool CheckPrefix(const char* prefix);
  // Returns a descriptor of a new file in the directory, or -1. *name receives its full name, with
  // the text `leading` at the start.
  int CreateTemporary(int directory, const char* leading, const char* prefix, int mode,
                      std::unique_ptr<char[]>* name);
  // Removes a new file, of that full name in its directory, that no one will get.
  static void Discard(int directory, const char* path);

  bool InitializeDirectory(const char* what, const char* user, const char* path, bool symlinks,
                           bool other_owner, UNIXFilePath** text, int* descriptor);
  // Returns true if the path is inside the base directory by its text. Moves *path past leading
  // slashes, which do not count.
  bool CheckContained(Zeph_PathType type, const _UNIXContainedPathSettings& settings,
                      const char** path);
  // Opens the directory of a path's last element.
  bool Enter(Zeph_PathType type, UNIXFilePath& path, ContainedDirectory* directory);
  bool CheckLength(const char* path);
  bool CheckOwner(int descriptor, unsigned user);
  bool FollowFinalLink(Zeph_PathType type, FinalName* final, unsigned user);
  static int WalkByWorkingDirectory(UNIXFileManager* manager, int base, const char* path,
                                    int* result, bool symlinks, bool other_owner, bool confined);

  DirectoryWalk walk;
  int kept_descriptors = 0;
};

#endif
