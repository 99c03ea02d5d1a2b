// Functions for files of the data directory, through the engine, which keeps paths inside it.
// Tested in tests/extensions/zephstd/FilesTest.cpp.

#include <sodium.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "extensions/zephstd/Call.h"

namespace zephstd {

namespace {

// Why the last function failed, for fileerror. It is kept for the request.
constexpr char kErrorName[] = "zephstd file error";

void FreeText(void*, void* data) {
  delete static_cast<std::string*>(data);
}

std::string* LastError(ZPPROGRAM program) {
  return static_cast<std::string*>(zpProgram_Lookup_Persistent(program, kErrorName, -1));
}

void SetError(ZPPROGRAM program, std::string_view text) {
  std::string* error = LastError(program);
  if (error == nullptr) {
    if (text.empty()) return;
    auto made = std::make_unique<std::string>();
    error = made.get();
    zpProgram_Register_Persistent(program, kErrorName, -1, error, FreeText);
    static_cast<void>(made.release());
  }
  *error = text;
}

void NoteFailure(Call& call, ZPFILE file = nullptr) {
  int length = 0;
  const char* const text = zpFile_Error(call.program(), file, &length);
  SetError(call.program(), length > 0 ? std::string_view(text, static_cast<size_t>(length))
                                      : std::string_view("the file cannot be used"));
}

// A path for the engine's functions. They take it up to a NUL, so one in it would name another file
// than the page has checked.
bool IsPath(Call& call, int i) {
  if (!call.given(i)) {
    SetError(call.program(), "the path is empty");
    return false;
  }
  if (call.text(i).find('\0') != std::string_view::npos) {
    SetError(call.program(), "the path has a NUL");
    return false;
  }
  SetError(call.program(), {});
  return true;
}

struct Path {
  explicit Path(std::string_view text) : data(text.data()), length(static_cast<int>(text.size())) {}
  const char* data;
  int length;
};

struct CloseFile {
  void operator()(ZPFILE file) const { zpFile_Close(file); }
};
using OpenFile = std::unique_ptr<std::remove_pointer_t<ZPFILE>, CloseFile>;

OpenFile Open(Call& call, std::string_view path, int flags) {
  OpenFile file(
      zpFile_Open(call.program(), ZPFILE_DATA, path.data(), static_cast<int>(path.size()), flags));
  if (!file) NoteFailure(call);
  return file;
}

bool WriteAll(Call& call, ZPFILE file, std::string_view text) {
  while (!text.empty()) {
    const int written = zpFile_Write(file, text.data(), static_cast<int>(text.size()));
    if (written <= 0) {
      NoteFailure(call, file);
      return false;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// 1 or 0, from the status of an operation of the engine.
void ReturnDone(Call& call, int status) {
  if (status != 0) NoteFailure(call);
  call.ReturnInteger(status == 0);
}

// 1 or 0 from a question, which may have failed.
void ReturnAnswer(Call& call, int answer) {
  if (answer < 0) NoteFailure(call);
  call.ReturnInteger(answer > 0);
}

void ReturnSize(Call& call, long value) {
  if (value < 0) NoteFailure(call);
  call.ReturnInteger(value < 0 ? -1 : value);
}

// Removes a file, unless it was kept.
class Temporary {
 public:
  Temporary(ZPPROGRAM program, char* name) : program(program), name(name) {}
  ~Temporary() {
    if (name != nullptr && !kept) zpFile_Delete(program, ZPFILE_DATA, name, -1);
    zpProgram_Free(program, name);
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  const char* path() const { return name; }
  void Keep() { kept = true; }

 private:
  ZPPROGRAM program;
  char* name;
  bool kept = false;
};

// Writes to a new file beside the path, and renames it.
bool ReplaceFile(Call& call, std::string_view path, std::string_view text) {
  const size_t slash = path.rfind('/');
  const std::string_view folder =
      slash == std::string_view::npos ? std::string_view(".") : path.substr(0, slash + 1);
  // Two requests that write at once do not look for a free name in each other's way.
  unsigned char bytes[8];
  randombytes_buf(bytes, sizeof bytes);
  char digits[2 * sizeof bytes + 1];
  const std::string prefix =
      std::string(".zephstd-") + sodium_bin2hex(digits, sizeof digits, bytes, sizeof bytes);
  char* name = nullptr;
  OpenFile file(zpFile_MakeTemporary(call.program(), ZPFILE_DATA, folder.data(),
                                     static_cast<int>(folder.size()), prefix.c_str(), -1, &name,
                                     ZPFILE_WRITE));
  Temporary temporary(call.program(), name);
  if (!file) {
    NoteFailure(call);
    return false;
  }
  const Path target(path);
  // The new file has the rights of the old one before it has the text, which may be a secret.
  const int mode = zpFile_Mode(call.program(), ZPFILE_DATA, target.data, target.length);
  if (mode >= 0 &&
      zpFile_Change_Mode(call.program(), ZPFILE_DATA, temporary.path(), -1, mode & 0777) != 0) {
    NoteFailure(call);
    return false;
  }
  if (!WriteAll(call, file.get(), text)) return false;
  file.reset();
  if (zpFile_Rename(call.program(), ZPFILE_DATA, temporary.path(), -1, ZPFILE_DATA, target.data,
                    target.length) != 0) {
    NoteFailure(call);
    return false;
  }
  temporary.Keep();
  return true;
}

}  // namespace

namespace functions {

void fileexists(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(0);
  const Path path(call.text(0));
  ReturnAnswer(call, zpFile_Exists(call.program(), ZPFILE_DATA, path.data, path.length));
}

void isfolder(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(0);
  const Path path(call.text(0));
  ReturnAnswer(call, zpFile_IsDirectory(call.program(), ZPFILE_DATA, path.data, path.length));
}

void filesize(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(-1);
  const Path path(call.text(0));
  ReturnSize(call, zpFile_Size(call.program(), ZPFILE_DATA, path.data, path.length));
}

void filetime(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(-1);
  const Path path(call.text(0));
  ReturnSize(call, zpFile_Time(call.program(), ZPFILE_DATA, path.data, path.length));
}

void readfile(Call& call) {
  if (!IsPath(call, 0)) return;
  const OpenFile file = Open(call, call.text(0), ZPFILE_READ);
  if (!file) return;
  const long length = zpFile_Length(file.get());
  if (length < 0) return NoteFailure(call, file.get());
  if (length > kMostBytes) return SetError(call.program(), "the file is larger than 64 MB");
  // One byte more shows the end, if the file does not grow.
  constexpr size_t kLeast = 4096;
  size_t next = std::min<size_t>(static_cast<size_t>(length) + 1, kMostBytes);
  Builder to(call);
  for (;;) {
    char* const room = to.size() + next <= kMostBytes ? to.Room(next) : nullptr;
    if (room == nullptr) return SetError(call.program(), "the file is larger than 64 MB");
    const int read = zpFile_Read(file.get(), room, static_cast<int>(next));
    if (read < 0) return NoteFailure(call, file.get());
    to.Drop(next - static_cast<size_t>(read));
    if (read == 0) break;
    next = std::max(kLeast, next - static_cast<size_t>(read));
    if (to.size() == kMostBytes) {
      char more;
      if (zpFile_Read(file.get(), &more, 1) == 0) break;
      return SetError(call.program(), "the file is larger than 64 MB");
    }
    next = std::min(next, kMostBytes - to.size());
  }
  to.Return();
}

void writefile(Call& call) {
  call.ReturnInteger(IsPath(call, 0) && ReplaceFile(call, call.text(0), call.text(1)));
}

void appendfile(Call& call) {
  call.ReturnInteger(0);
  if (!IsPath(call, 0)) return;
  const OpenFile file = Open(call, call.text(0), ZPFILE_WRITE | ZPFILE_CREATE | ZPFILE_APPEND);
  if (!file) return;
  if (zpFile_Lock(file.get(), 2) != 0) return NoteFailure(call, file.get());
  const bool done = WriteAll(call, file.get(), call.text(1));
  zpFile_Release(file.get());
  call.ReturnInteger(done);
}

void deletefile(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(0);
  const Path path(call.text(0));
  ReturnDone(call, zpFile_Delete(call.program(), ZPFILE_DATA, path.data, path.length));
}

void renamefile(Call& call) {
  if (!IsPath(call, 0) || !IsPath(call, 1)) return call.ReturnInteger(0);
  const Path from(call.text(0)), to(call.text(1));
  ReturnDone(call, zpFile_Rename(call.program(), ZPFILE_DATA, from.data, from.length, ZPFILE_DATA,
                                 to.data, to.length));
}

void copyfile(Call& call) {
  if (!IsPath(call, 0) || !IsPath(call, 1)) return call.ReturnInteger(0);
  const Path from(call.text(0)), to(call.text(1));
  ReturnDone(call, zpFile_Copy(call.program(), ZPFILE_DATA, from.data, from.length, ZPFILE_DATA,
                               to.data, to.length));
}

void listfiles(Call& call) {
  ArrayBuilder to(call, call.result());
  if (!IsPath(call, 0)) return;
  const Path path(call.text(0));
  const VariableList entries;
  if (zpDirectory_Listing(call.program(), ZPFILE_DATA, path.data, path.length, entries.get()) !=
      0) {
    return NoteFailure(call);
  }
  std::vector<std::string_view> names;
  for (ZPVARIABLE entry = zpVariableList_First(entries.get()); entry != nullptr;
       entry = zpVariableList_Next(entries.get())) {
    const std::string_view name = TextOf(entry);
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string_view name : names) to.Add(name);
}

void makefolder(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(0);
  const Path path(call.text(0));
  ZPPROGRAM const program = call.program();
  if (zpFile_MakeDirectory(program, ZPFILE_DATA, path.data, path.length) == 0) {
    return call.ReturnInteger(1);
  }
  NoteFailure(call);
  const bool exists = zpFile_IsDirectory(program, ZPFILE_DATA, path.data, path.length) == 1;
  if (exists) SetError(program, {});
  call.ReturnInteger(exists);
}

void deletefolder(Call& call) {
  if (!IsPath(call, 0)) return call.ReturnInteger(0);
  const Path path(call.text(0));
  ReturnDone(call, zpFile_RemoveDirectory(call.program(), ZPFILE_DATA, path.data, path.length));
}

void fileerror(Call& call) {
  const std::string* const error = LastError(call.program());
  if (error != nullptr) call.Return(*error);
}

}  // namespace functions

}  // namespace zephstd
