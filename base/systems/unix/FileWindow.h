// Small reads of one file without a system call: once it is clear that a file is read in many small
// pieces, as the records of a table are, it is mapped, and the pieces are copied from the mapping.
//
// A reader gets what the system's read would have given it at that moment. The mapping shows every
// write of every process at once, as reading does. That holds on file systems that are known to use
// the same pages for both and to let reads run beside writes; files on others are never mapped. For
// a piece past the end of the file the system's read gives no bytes, but the mapping has zeros, or
// no memory at all. So a piece counts only when a byte that is not zero shows that the file reaches
// at least to the piece's end.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_FILEWINDOW_H
#define ZEPH_BASE_SYSTEMS_UNIX_FILEWINDOW_H

#include <cstddef>

// Belongs to one open file and is used by that file's thread. Unmaps when it is destroyed.
class FileWindow {
 public:
  FileWindow() = default;
  ~FileWindow() { Close(); }
  FileWindow(const FileWindow&) = delete;
  FileWindow& operator=(const FileWindow&) = delete;

  // Reads the bytes at a position. REQUIRES: a regular file that is open for reading. Returns false
  // if the caller has to call the system; the bytes of the buffer are then undefined. Stores no
  // error text.
  [[nodiscard]] bool Read(int descriptor, long position, char* bytes, size_t length);
  // Unmaps. The caller is about to close the file.
  void Close();

 private:
  bool Copy(long position, char* bytes, size_t length);
  bool ShowsByteFrom(long position);
  void CountMiss(int descriptor);
  void Open(int descriptor);

  const char* start = nullptr;  // null without a mapping
  long end = 0;                 // where the mapping ends in the file
  int misses = 0;               // reads that the system did since the last mapping
  // The position of a byte that was not zero at the last check, for pieces that end in zeros.
  long witness = -1;
};

#endif
