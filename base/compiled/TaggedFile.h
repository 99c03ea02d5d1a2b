// The container of a compiled script (.zpc): a header, sections one after the other, and a
// directory that says where each section lies. It knows nothing of what the sections hold; their
// owners read and write them by tag. docs/formats/compiled-file.md has the layout.

#ifndef ZEPH_BASE_TAGGEDFILE_H
#define ZEPH_BASE_TAGGEDFILE_H

#include <memory>
#include <string>

#include "base/core/StringClass.h"

class File;
class FileManager;

// A tag as the file holds it: four letters, the first in the lowest byte.
constexpr int MakeTag(const char (&letters)[5]) {
  return static_cast<unsigned char>(letters[0]) | static_cast<unsigned char>(letters[1]) << 8 |
         static_cast<unsigned char>(letters[2]) << 16 |
         static_cast<int>(static_cast<unsigned>(static_cast<unsigned char>(letters[3])) << 24);
}

// Reader and writer of one compiled file. Made per request, lives as long as the script runs (a
// localized text may be read late), belongs to one thread.
//
// Failure is false or -1 with the text in error(). A short read is no failure and leaves the text
// alone: the callers compare the count, and then report whatever text stands there, maybe none.
//
// While a script is loaded, the first bytes of the file are kept in memory (the window), since a
// typical script lies in them wholly and each section would cost several system calls. A read
// outside of it moves the window to the rest of the section. Close() and Deactivate() give the
// window up. Nobody else may touch the file in between.
class TaggedFile {
 public:
  static constexpr unsigned OldestVersion = 0x10001;
  static constexpr unsigned NewestVersion = 0x1000B;

  // Makes what a thread needs to keep a window for its next file.
  static void PrepareThread();

  // Borrows the manager. No file is held yet.
  explicit TaggedFile(FileManager* filemanager);
  // Bytes that were kept from a section, borrowed, as a section that is selected and read from its
  // start: for an owner that decodes a part of its section late.
  TaggedFile(const unsigned char* bytes, int length);
  virtual ~TaggedFile();
  TaggedFile(const TaggedFile&) = delete;
  TaggedFile& operator=(const TaggedFile&) = delete;

  // The text of the last failure. Error stores one; a null String leaves the older, more exact one.
  virtual String& error();
  virtual void Error(const String& text);

  // Closes any open file, opens one through the manager (its mode bits) and reads header and
  // directory.
  [[nodiscard]] bool Open(const char* name, int mode);
  // The same with a file that the caller has opened. It is adopted on success; on failure it stays
  // the caller's, open, and the name is empty.
  [[nodiscard]] bool Open(const char* name, File* file);
  // Deletes the file, if there is one, and forgets its directory.
  void Close();
  // Gives the descriptor back until the next read, so that a running script ties none up.
  void Deactivate();

  // --- Reading -----------------------------------------------------------------------------------
  // A section is the first directory entry with its tag. When no entry has the tag, and a section
  // is still selected from an earlier read, that one is read instead and nothing is reported;
  // compiled scripts without functions are run by this. Only when nothing is selected is the
  // failure "Invalid section".

  // Random read at an offset in the section, which is selected by it. Answers the bytes read,
  // fewer than asked at the end of the section or file, 0 exactly at the end, or -1.
  [[nodiscard]] int Section_Read(int tag, int offset, char* buffer, int length);
  // Selects a section for sequential reading from its start; *length, if not null, receives its
  // length in bytes.
  [[nodiscard]] bool Section_Read_Start(int tag, int* length);
  // The next bytes of the selected section. Answers as above. Without a section: -1.
  [[nodiscard]] int Section_Read(char* buffer, int length);
  // Forgets the selected section.
  void Section_Read_End();

  // Bytes of the selected section without copying them where possible: the next ones, or those at
  // an offset in it. They lie in the window, or in *scratch, which is then allocated; valid until
  // the next operation on the file and while *scratch stands. Null, with nothing allocated, when
  // the section or the file has fewer bytes, and for a negative length or offset.
  [[nodiscard]] const unsigned char* Section_View(long long length,
                                                  std::unique_ptr<unsigned char[]>* scratch);
  [[nodiscard]] const unsigned char* Section_View(long long offset, long long length,
                                                  std::unique_ptr<unsigned char[]>* scratch);
  // Whether the selected section, and the file, have that many bytes at an offset, or from the next
  // byte on. What a file states is asked here before anything of that size is allocated.
  [[nodiscard]] bool Section_Holds(long long offset, long long length);
  [[nodiscard]] bool Section_Holds(long long length) { return Section_Holds(position, length); }

  // --- Writing -----------------------------------------------------------------------------------
  // Create, then per section Section_Start, Section_Write as often as needed, Section_End; at last
  // Section_Flush, without which the file has no directory.

  // Closes any open file, creates one and writes the header. stamp is null or sixteen bytes, which
  // are kept as they are; version 0 means the newest.
  [[nodiscard]] bool Create(const char* name, const char* stamp, int version);
  // Begins a section at the running position; a section still being written is ended.
  void Section_Start(int tag);
  // Answers what the file did: the bytes written, or a negative value with the file's text. A
  // partial write counts, and is the caller's to detect.
  [[nodiscard]] int Section_Write(const char* buffer, int length);
  // The same for bytes that were put together; answers whether all were written.
  [[nodiscard]] bool Section_Write(const std::string& bytes);
  void Section_End();
  // Writes the directory behind the sections, then the header anew. Must come last.
  [[nodiscard]] bool Section_Flush();

  // --- What the header says ----------------------------------------------------------------------
  unsigned version() const { return file_version; }
  // Sixteen bytes without a meaning to the engine; a tool that rewrites a file keeps them.
  const char* stamp() const { return file_stamp; }
  const String& name() const { return file_name; }

  // The directory, for tools: the entry's tag and length; false beyond its end.
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

  bool SeekTo(long offset);
  int FileRead(char* buffer, int length);
  int ReadAt(long offset, char* buffer, int length);
  const char* Windowed(long offset, long long length) const;
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

  bool writing = false;  // a section may have tag 0, so the tag can't tell
  // Where the file itself stands: a read from the window doesn't move it. -1 when unknown.
  long file_position = -1;
  long file_length = -1;  // -1 when not yet asked for
  std::unique_ptr<char[]> window_buffer;
  const char* window = nullptr;  // what is in memory: in the buffer, or borrowed
  long window_start = 0;
  int window_length = 0;
};

#endif
