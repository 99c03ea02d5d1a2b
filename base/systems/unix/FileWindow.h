// Small reads of one file without a call of the system: once it is clear that a file is read in
// many small pieces, as the records of a table are, it is mapped, and they are copied from there.
//
// What a reader gets is what the system's read would have given it at that moment. The mapping
// shows every write of every process at once, as reading does, on the file systems that are known
// to keep both in the same pages and to let reads run beside writes: the others are never mapped.
// A piece behind the end of the file has no bytes for the system's read and zeros in the mapping,
// or no memory at all. So a piece counts only when a byte that is not zero shows that the file
// goes on at least to the piece's end.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_FILEWINDOW_H
#define ZEPH_BASE_SYSTEMS_UNIX_FILEWINDOW_H

#include <cstddef>

// Belongs to one open file and is used by its thread. Unmaps when it is destroyed.
class FileWindow {
 public:
  FileWindow() = default;
  ~FileWindow() { Close(); }
  FileWindow(const FileWindow&) = delete;
  FileWindow& operator=(const FileWindow&) = delete;

  // Reads the bytes at a position, of a regular file that is open for reading. False if the system
  // has to be asked; the bytes of the buffer then have any values. Either is no reason for a text.
  [[nodiscard]] bool Read(int descriptor, long position, char* bytes, size_t length);
  // Unmaps: the file is about to be closed.
  void Close();

 private:
  bool Copy(long position, char* bytes, size_t length);
  bool ShowsByteFrom(long position);
  void CountMiss(int descriptor);
  void Open(int descriptor);

  const char* start = nullptr;  // null without a mapping
  long end = 0;                 // in the file, of what is mapped
  int misses = 0;               // reads that the system did since the last mapping
  // A byte that was not zero when somebody looked last, for pieces that end in zeros themselves.
  long witness = -1;
};

#endif
