// The functions for files. Tested in tests/api/zpFileTest.cpp.

#include "api/zeph.h"

#include <cstring>

#include "api/FileLocation.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

namespace {

FileManager* Files(ZPPROGRAM program) {
  return program->Application()->filemanager();
}

int Status(bool done) {
  return done ? 0 : -1;
}

bool IsSeparator(FileManager* files, char c) {
  return c == '/' || c == files->pathseparator();
}

// A location and path of an extension, converted for the file manager.
struct Place {
  Place(ZPPROGRAM program, int location, const char* text, int length)
      : type(__zpFile_Location(program, location, text, length, path)) {}

  const char* text() const { return path.data; }

  String path;
  Zeph_PathType type;
};

}  // namespace

Zeph_PathType __zpFile_Location(ZPPROGRAM program, int location, const char* path, int length,
                                String& result) {
  FileManager* files = Files(program);
  result.assign(path, length);
  const char first = result.length > 0 ? result.data[0] : '\0';
  if (location == ZPFILE_SCRIPT) {
    const String& directory = program->ScriptDirectory();
    if (!IsSeparator(files, first)) result.prepend(directory.data, directory.length);
    return ZephPath_Script;
  }
  const char* commerce = location == ZPFILE_COMMERCE
                             ? program->Application()->config()->value_string(Config_dir_commerce)
                             : nullptr;
  if (commerce && *commerce) {
    const size_t last = strlen(commerce) - 1;
    if (!IsSeparator(files, first) && !IsSeparator(files, commerce[last])) result.prepend('/');
    result.prepend(commerce, -1);
  }
  return ZephPath_Data;
}

// --- Paths ---------------------------------------------------------------------------------------

char* zpFile_Resolve(ZPPROGRAM program, int, const char*, int) {
  Files(program)->Error("zpFile_Resolve is no longer supported");
  return nullptr;
}

ZPFILE zpFile_Open(ZPPROGRAM program, int location, const char* path, int length, int flags) {
  const Place place(program, location, path, length);
  return Files(program)->Open(place.type, place.text(), flags);
}
ZPFILE zpFile_MakeTemporary(ZPPROGRAM program, int location, const char* directory,
                            int directorylength, const char* prefix, int prefixlength, char** name,
                            int flags) {
  const Place place(program, location, directory, directorylength);
  const String begin(prefix, prefixlength);
  char* path = nullptr;
  File* const file = Files(program)->MakeTemporary(place.type, place.text(),
                                                   begin.data ? begin.data : "", &path, flags);
  if (file && name) {
    *name = path;
  } else {
    delete[] path;
  }
  return file;
}
int zpFile_Delete(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  return Status(Files(program)->Delete(place.type, place.text()));
}
int zpFile_Rename(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                  int tolocation, const char* to, int tolength) {
  const Place source(program, fromlocation, from, fromlength);
  const Place target(program, tolocation, to, tolength);
  return Status(Files(program)->Rename(source.type, source.text(), target.type, target.text()));
}
int zpFile_Copy(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                int tolocation, const char* to, int tolength) {
  const Place source(program, fromlocation, from, fromlength);
  const Place target(program, tolocation, to, tolength);
  return Status(Files(program)->Copy(source.type, source.text(), target.type, target.text()));
}
int zpFile_MakeSymbolicLink(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                            int tolocation, const char* to, int tolength) {
  const Place source(program, fromlocation, from, fromlength);
  const Place target(program, tolocation, to, tolength);
  return Status(
      Files(program)->MakeSymbolicLink(source.type, source.text(), target.type, target.text()));
}
int zpFile_TouchFile(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  return Status(Files(program)->TouchFile(place.type, place.text()));
}
int zpFile_LockFile(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  return Files(program)->Lock(place.type, place.text());
}
int zpFile_Exists(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  bool exists;
  return Files(program)->Exists(place.type, place.text(), &exists) ? exists : -1;
}
int zpFile_IsDirectory(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  bool directory;
  return Files(program)->IsDirectory(place.type, place.text(), &directory) ? directory : -1;
}
long zpFile_Size(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  long size;
  return Files(program)->Length(place.type, place.text(), &size) ? size : -1;
}
long zpFile_Time(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  long time;
  return Files(program)->ModifiedTime(place.type, place.text(), &time) ? time : -1;
}
int zpFile_Mode(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  int mode;
  return Files(program)->Mode(place.type, place.text(), &mode) ? mode : -1;
}
int zpFile_Change_Mode(ZPPROGRAM program, int location, const char* path, int length, int mode) {
  const Place place(program, location, path, length);
  return Status(Files(program)->ChangeMode(place.type, place.text(), mode));
}
int zpFile_MakeDirectory(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  return Status(Files(program)->MakeDirectory(place.type, place.text()));
}
int zpFile_RemoveDirectory(ZPPROGRAM program, int location, const char* path, int length) {
  const Place place(program, location, path, length);
  return Status(Files(program)->RemoveDirectory(place.type, place.text()));
}
int zpDirectory_Listing(ZPPROGRAM program, int location, const char* path, int length,
                        ZPVARIABLELIST names) {
  const Place place(program, location, path, length);
  List<String> entries(1);
  if (!Files(program)->DirectoryListing(place.type, place.text(), &entries)) return -1;
  for (String* name = entries.First(); name; name = entries.Next()) {
    names->Insert(new Variable(nullptr, 0, name->data, name->length), ListTail, 0);
  }
  return 0;
}
int zpFile_Path_Separator(ZPPROGRAM program) {
  return Files(program)->pathseparator();
}
char* zpFile_NormalizePath(ZPPROGRAM program, int location, const char* path, int length,
                           int* outlength) {
  const Place place(program, location, path, length);
  int own_length, allocated;
  return Files(program)->NormalizeContainedPath(place.type, place.text(),
                                                outlength ? outlength : &own_length, &allocated);
}

// --- Open files ----------------------------------------------------------------------------------

int zpFile_Read(ZPFILE file, char* buffer, int length) {
  return file->Read(buffer, length);
}
int zpFile_Write(ZPFILE file, const char* bytes, int length) {
  return file->Write(bytes, length);
}
int zpFile_Seek(ZPFILE file, long position) {
  return file->Seek(position);
}
long zpFile_Tell(ZPFILE file) {
  return file->Tell();
}
long zpFile_Length(ZPFILE file) {
  return file->Length();
}
int zpFile_Lock(ZPFILE file, int type) {
  const int exclusive = 2;
  return Status(file->Lock(type == exclusive ? FileLock_Exclusive : FileLock_Shared, 0, 0));
}
int zpFile_Release(ZPFILE file) {
  return Status(file->Release(0, 0));
}
int zpFile_OwnerID(ZPFILE file) {
  int id;
  return file->OwnerID(&id) ? id : -1;
}
int zpFile_GroupID(ZPFILE file) {
  int id;
  return file->GroupID(&id) ? id : -1;
}
void zpFile_Close(ZPFILE file) {
  delete file;
}
const char* zpFile_Error(ZPPROGRAM program, ZPFILE file, int* length) {
  const String& text = file ? file->error() : Files(program)->error();
  if (length) *length = text.length;
  return text.data;
}
