// The container of a compiled script (.zpc): a header, sections in sequence, and a directory of the
// places of the sections. It does not interpret the sections; their owners read and write them by
// tag. docs/formats/compiled-file.md has the layout.

#ifndef ZEPH_BASE_TAGGEDFILE_H
#define ZEPH_BASE_TAGGEDFILE_H

#include <memory>
#include <string>

#include "base/core/Limits.h"
#include "base/core/StringClass.h"

class File;
class FileManager;

// A tag as the file holds it: four letters, the first in the lowest byte.
constexpr int MakeTag(const char (&letters)[5]) {
  return static_cast<unsigned char>(letters[0]) | static_cast<unsigned char>(letters[1]) << 8 |
         static_cast<unsigned char>(letters[2]) << 16 |
         static_cast<int>(static_cast<unsigned>(static_cast<unsigned char>(letters[3])) << 24);
}

// Reader and writer of one compiled file. A request makes one and keeps it while the script runs,
// because a localized text may be read late. Belongs to one thread.
//
// Failure is false or -1, with the text in error(). A short read is not a failure and leaves the
// text unchanged: callers compare the count and then report the text that error() has, which may be
// none.
//
// While a script is loaded, the first bytes of the file are kept in memory (the window), because
// they usually hold the whole script, and each section would otherwise cost several system calls. A
// read outside the window moves it to the rest of the section. Close() and Deactivate() give the
// window up. No other code may use the file in between.
class TaggedFile {
 public:
  static constexpr unsigned OldestVersion = 0x10001;
  static constexpr unsigned NewestVersion = 0x1000B;

  // Prepares the thread to keep a window for its next file.
  static void PrepareThread();

  // Borrows the manager. There is no file yet.
  explicit TaggedFile(FileManager* filemanager);
  // Borrows bytes that were kept from a section and presents them as a selected section, read from
  // its start. For an owner that decodes a part of its section late.
  TaggedFile(const unsigned char* bytes, int length);
  virtual ~TaggedFile();
  TaggedFile(const TaggedFile&) = delete;
  TaggedFile& operator=(const TaggedFile&) = delete;

  // The text of the last failure. Error stores one; a null String keeps the older, more exact one.
  virtual String& error();
  virtual void Error(const String& text);

  // Closes any open file, opens one through the manager (mode has bits of FileMode) and reads
  // header and directory.
  [[nodiscard]] bool Open(const char* name, int mode);
  // The same with a file that the caller has opened. Adopts it on success; on failure it stays open
  // and the caller's, and name() is empty.
  [[nodiscard]] bool Open(const char* name, File* opened);
  // For code that reads a file when it opens it. RoomAhead closes any open file, and returns memory
  // of the object's own for the first kAhead bytes of the one that Open gets next. HasAhead tells
  // how many were read; Open does not read them again.
  static constexpr int kAhead = kCompiledFileWindow;
  char* RoomAhead();
  void HasAhead(int count);
  // Deletes the File object, if there is one, and forgets its directory.
  void Close();
  // Gives the descriptor back until the next read, so that a running script holds none.
  void Deactivate();

  // --- Reading -----------------------------------------------------------------------------------
  // A tag names the first directory entry that has it. If no entry has the tag but a section is
  // still selected from an earlier read, that one is read instead and no failure is reported;
  // compiled scripts without functions rely on this. Only if no section is selected, the failure is
  // "Invalid section".

  // Selects a section and reads at an offset in it. Returns the count of bytes read: fewer than
  // requested at the end of the section or file, 0 exactly at the end, or -1.
  [[nodiscard]] int Section_Read(int tag, int offset, char* buffer, int length);
  // Selects a section for sequential reading from its start; *length, if not null, receives its
  // length in bytes.
  [[nodiscard]] bool Section_Read_Start(int tag, int* length);
  // Reads the next bytes of the selected section. The result is as above; -1 without a section.
  [[nodiscard]] int Section_Read(char* buffer, int length);
  // Forgets the selected section.
  void Section_Read_End();

  // Bytes of the selected section, if possible without a copy: the next ones, or those at an offset
  // in it. They are in the window, or in *scratch, which is then allocated. They are valid until
  // the next operation on the file and as long as *scratch exists. Null, with nothing allocated, if
  // the section or the file has fewer bytes, or for a negative length or offset.
  [[nodiscard]] const unsigned char* Section_View(long long length,
                                                  std::unique_ptr<unsigned char[]>* scratch);
  [[nodiscard]] const unsigned char* Section_View(long long offset, long long length,
                                                  std::unique_ptr<unsigned char[]>* scratch);
  // Whether the selected section and the file have that many bytes at an offset, or from the next
  // byte on. Readers check sizes that a file states with it before they allocate.
  [[nodiscard]] bool Section_Holds(long long offset, long long length);
  [[nodiscard]] bool Section_Holds(long long length) { return Section_Holds(position, length); }
  // How many bytes the selected section and the file have from an offset on; 0 past the end, for a
  // negative offset, and without a section.
  [[nodiscard]] long long Section_Left(long long offset);

  // --- Writing -----------------------------------------------------------------------------------
  // The order is Create; for each section Section_Start, any number of Section_Write, and
  // Section_End; last Section_Flush, without which the file has no directory.

  // Closes any open file, creates one and writes the header. stamp is null or sixteen bytes, which
  // are kept unchanged; version 0 means the newest.
  [[nodiscard]] bool Create(const char* name, const char* stamp, int version);
  // Begins a section at the current position and ends one that is still being written.
  void Section_Start(int tag);
  // Returns the count of bytes written, or a negative value with the file's text in error(). A
  // partial write is not a failure: the caller compares the count.
  [[nodiscard]] int Section_Write(const char* buffer, int length);
  // The same; returns whether all bytes were written.
  [[nodiscard]] bool Section_Write(const std::string& bytes);
  void Section_End();
  // Writes the directory after the sections, then the header again. Must be the last call.
  [[nodiscard]] bool Section_Flush();

  // --- The header --------------------------------------------------------------------------------
  unsigned version() const { return file_version; }
  // Sixteen bytes that have no meaning to the engine; a tool that rewrites a file keeps them.
  const char* stamp() const { return file_stamp; }
  const String& name() const { return file_name; }

  // The directory, for tools. Section gives an entry's tag and length; false for an invalid index.
  int Sections() const { return section_count; }
  bool Section(int index, int* tag, int* length) const;

 private:
  struct DirectoryEntry {
    int tag;
    int offset;
    int length;
  };

  bool Header_Read();
  bool Directory_Read();
  bool Header_Write();
  bool Directory_Write();
  bool Lookup(int tag);
  // Whether the selected section states that many bytes at the offset.
  bool InSection(long long offset, long long length) const;

  bool SeekTo(long offset);
  int FileRead(char* buffer, int length);
  int ReadAt(long offset, char* buffer, int length);
  const char* Windowed(long offset, long long length) const;
  void NeedWindow();
  void FillWindow(long offset, long long wanted);
  void DropWindow();
  long FileLength();
  void Forget();

  FileManager* filemanager;
  File* file = nullptr;  // owned
  String file_name;
  String error_text;
  char magic[4] = {};
  unsigned file_version = 0;
  char file_stamp[16] = {};
  unsigned directory_offset = 0;
  int section_count = 0;
  std::unique_ptr<DirectoryEntry[]> directory;
  const DirectoryEntry* current = nullptr;  // into the directory
  int directory_capacity = 0;
  int written_tag = 0;
  long written_start = 0;
  long position = 0;  // reading: bytes consumed of the section; writing: offset of the next byte
  int written_length = 0;

  bool writing = false;  // a flag, because a section may have tag 0
  bool ahead = false;    // the window has the first bytes of the next file
  // The position of the file itself, which a read from the window does not move. -1 if unknown.
  long file_position = -1;
  long file_length = -1;  // -1 until FileLength reads it
  std::unique_ptr<char[]> window_buffer;
  const char* window = nullptr;  // the bytes in memory: in window_buffer, or borrowed
  long window_start = 0;
  int window_length = 0;
};

#endif
