// Opens, creates and closes index files, and reads and writes their header and pages. Tested in
// tests/base/database/ZIXIndexFileTest.cpp, ZIXIndexDamageTest.cpp and ZIXIndexSharingTest.cpp.

#include "base/database/ZIXIndexFile.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "base/host/ZephApplication.h"

namespace {

constexpr unsigned char kIdentifier[4] = {'Z', 'I', 'X', 'I'};
constexpr unsigned kVersion = 3;
constexpr int kOrder = 8;
constexpr int kPageSize = 1024;
constexpr int kKeyRecordSize = 108;
constexpr int kExpressionSize = 400;
constexpr int kOpenForCreation =
    FileMode_Read | FileMode_Write | FileMode_Create | FileMode_Truncate;

// Every page but the root has at least two child pages or none, so a sound tree of 2^32 pages is no
// deeper than 33.
constexpr int kMostDepth = 64;

}  // namespace

ZIXIndexFile::HeaderLock::HeaderLock(File* locked, FileLockType type, int lock)
    : file(lock ? locked : nullptr) {
  if (!file || file->Lock(type, 0, ZIXHeader_Length)) return;
  file = nullptr;
  has_failed = true;
}

ZIXIndexFile::HeaderLock::~HeaderLock() {
  if (!file) return;
  try {
    file->Release(0, ZIXHeader_Length);
  } catch (const std::bad_alloc&) {
    // There was no memory for the text of a failure, which no one reads.
  }
}

// --- Life ----------------------------------------------------------------------------------------

ZIXIndexFile::ZIXIndexFile(ZephApplication* application)
    : application(application), header(new unsigned char[ZIXHeader_Length + 1]()) {}

ZIXIndexFile::~ZIXIndexFile() {
  delete file;
}

bool ZIXIndexFile::Open(Zeph_PathType type, const char* path, int mode) {
  CloseFile();
  file_path.assign(path);
  FileManager* files = application->filemanager();
  file = files->Open(type, path, mode);
  if (!file) return Fail({"Error opening '", View(file_path), "': ", View(files->error())});
  if (ReadHeader()) return true;
  CloseFile();
  return false;
}

bool ZIXIndexFile::Create(Zeph_PathType type, const char* path, const unsigned char* keyexpression,
                          unsigned flags) {
  CloseFile();
  file_path.assign(path);
  FileManager* files = application->filemanager();
  std::unique_ptr<File> created(files->Open(type, path, kOpenForCreation));
  if (!created) return Fail({"Error creating '", View(file_path), "': ", View(files->error())});
  if (!Create(created.get(), path, keyexpression, flags)) return false;
  (void)created.release();
  return true;
}

bool ZIXIndexFile::Create(File* created, const char* path, const unsigned char* keyexpression,
                          unsigned flags) {
  CloseFile();
  file_path.assign(path);
  if (!created) return Fail({"Internal error opening '", View(file_path), "'"});
  // It stays the caller's until it is written, also if memory runs out meanwhile.
  struct Attempt {
    ~Attempt() {
      if (!written) index->file = nullptr;
    }
    ZIXIndexFile* index;
    bool written = false;
  } attempt{this};
  file = created;
  attempt.written = WriteNewFile(keyexpression, flags);
  return attempt.written;
}

bool ZIXIndexFile::WriteNewFile(const unsigned char* keyexpression, unsigned flags) {
  memset(header.get(), 0, ZIXHeader_Length);
  memcpy(&header[ZIXHeader_Identifier], kIdentifier, sizeof(kIdentifier));
  SetVersion(kVersion);
  SetNumpages(2);
  SetStartingpage(1);
  SetOrder(kOrder);
  SetPagesize(kPageSize);
  SetKeyrecordsize(kKeyRecordSize);
  Put32(ZIXHeader_Flags, flags);
  if (keyexpression) {
    const char* text = reinterpret_cast<const char*>(keyexpression);
    memcpy(&header[ZIXHeader_KeyExpression], text, strnlen(text, kExpressionSize));
  }
  return WriteHeader() && WritePage(BlankPage(1));
}

bool ZIXIndexFile::Close() {
  CloseFile();
  return true;
}

void ZIXIndexFile::CloseFile() {
  ClearPages();
  delete file;
  file = nullptr;
}

// Goes through the manager, which must know that the file's next operation needs a descriptor
// again.
void ZIXIndexFile::Deactivate() {
  if (file) file->manager()->DeactivateFile(file);
}

// --- Failures ------------------------------------------------------------------------------------

std::string_view ZIXIndexFile::View(const String& text) {
  return text.data ? std::string_view(text.data, static_cast<size_t>(text.length)) : "";
}

bool ZIXIndexFile::Fail(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (std::string_view part : parts) text += part;
  error_text.assign(text.data(), static_cast<int>(text.size()));
  return false;
}

bool ZIXIndexFile::ReadError() {
  return Fail({"Error reading from '", View(file_path), "': ", View(file->error())});
}

bool ZIXIndexFile::WriteError() {
  return Fail({"Error writing to '", View(file_path), "': ", View(file->error())});
}

bool ZIXIndexFile::LockError(const char* purpose) {
  return Fail({"Error locking '", View(file_path), "' for ", purpose});
}

bool ZIXIndexFile::CorruptTree() {
  return Fail({"Error reading from '", View(file_path), "': File is corrupt"});
}

// --- The header ----------------------------------------------------------------------------------

// Changes the header in memory only if the file's header is sound.
bool ZIXIndexFile::ReadHeader() {
  if (!file) return Fail({"Internal error opening '", View(file_path), "'"});
  unsigned char bytes[ZIXHeader_Length];
  if (file->Seek(0) < 0) return ReadError();
  for (int count = 0; count < ZIXHeader_Length;) {
    const int more = file->Read(bytes + count, ZIXHeader_Length - count);
    if (more <= 0) return ReadError();
    count += more;
  }
  if (!CheckHeader(bytes)) return false;
  memcpy(header.get(), bytes, ZIXHeader_Length);
  return true;
}

// Sizes that no index has are refused like a wrong identifier, because all other code relies on
// these bounds: keys have room, a page holds `order` entries with all child pages, a page other
// than the root keeps at least one entry, and page 1 begins after the header.
bool ZIXIndexFile::CheckHeader(const unsigned char* bytes) {
  const int entry = LittleEndian::Get16(bytes + ZIXHeader_KeyRecordSize);
  const int page = LittleEndian::Get16(bytes + ZIXHeader_PageSize);
  const int most = LittleEndian::Get16(bytes + ZIXHeader_Order);
  const bool sound = memcmp(bytes, kIdentifier, sizeof(kIdentifier)) == 0;
  if (sound && bytes[ZIXHeader_Version] > kVersion) {
    return Fail({"'", View(file_path), "' was created by a newer version of the software"});
  }
  if (!sound || entry <= 8 || most < 4 || 8L + static_cast<long>(most) * entry > page ||
      page < ZIXHeader_Length || LittleEndian::Get32(bytes + ZIXHeader_StartingPage) == 0) {
    return Fail({"'", View(file_path), "' is either corrupt or is not a valid index file"});
  }
  return true;
}

bool ZIXIndexFile::WriteHeader() {
  if (file->Seek(0) < 0) return WriteError();
  return file->Write(header.get(), ZIXHeader_Length) == ZIXHeader_Length || WriteError();
}

void ZIXIndexFile::SetIdentifier(std::string_view four_bytes) {
  memcpy(&header[ZIXHeader_Identifier], four_bytes.data(),
         std::min<size_t>(four_bytes.size(), sizeof(kIdentifier)));
}

// --- Pages ---------------------------------------------------------------------------------------

bool ZIXIndexFile::LoadPage(ZIXIndexPage& page) {
  const long offset = static_cast<long>(page.pagenum) * page.pagesize;
  return (file->Seek(offset) >= 0 && page.Read(file)) || ReadError();
}

// Page `numpages`, one past the last, passes this check; reading it fails because the file ends
// there.
bool ZIXIndexFile::ReadPage(ZIXIndexPage& page) {
  return page.pagenum > numpages() ? ReadError() : LoadPage(page);
}

// For recursions: a page that is its own ancestor, or deeper than any tree, means a cycle.
bool ZIXIndexFile::ReadBelow(ZIXIndexPage& page, const Way* above) {
  if (above && above->depth >= kMostDepth) return CorruptTree();
  for (const Way* way = above; way; way = way->above)
    if (way->page->pagenum == page.pagenum) return CorruptTree();
  return ReadPage(page);
}

bool ZIXIndexFile::WritePage(const ZIXIndexPage& page) {
  const long offset = static_cast<long>(page.pagenum) * page.pagesize;
  return (file->Seek(offset) >= 0 && page.Write(file)) || WriteError();
}

// True if a walk that meets every page once has read more pages than the file has: then some pages
// have several parents, and the walk might take ages. The file's length is checked only once in
// 1024 pages.
bool ZIXIndexFile::TooManyPages(long count) {
  return count % 1024 == 0 && count > file->Length() / pagesize();
}

// --- The cursor's pages --------------------------------------------------------------------------

bool ZIXIndexFile::PushPage(uint32_t pagenum) {
  if (depth >= kMostDepth || pages.CheckForRecursion(pagenum) || TooManyPages(++descents))
    return CorruptTree();
  std::unique_ptr<ZIXIndexPage> page;
  if (!spare_pages.empty()) {
    page = std::move(spare_pages.back());
    spare_pages.pop_back();
  }
  if (!page || page->pagesize != pagesize() || page->keyrecordsize != keyrecordsize())
    page = std::make_unique<ZIXIndexPage>(BlankPage(pagenum));
  page->pagenum = pagenum;
  page->position = 0;
  if (!LoadPage(*page)) return false;
  pages.Push(page.get());
  (void)page.release();
  depth++;
  return true;
}

// The call to Top sets the stack's cursor to the top; Pop would unwind down to wherever the cursor
// is. Returns null on an empty stack.
std::unique_ptr<ZIXIndexPage> ZIXIndexFile::PopPage() {
  if (!pages.Top()) return nullptr;
  depth--;
  return std::unique_ptr<ZIXIndexPage>(pages.Pop());
}

void ZIXIndexFile::DropPage() {
  spare_pages.push_back(PopPage());
}

void ZIXIndexFile::ClearPages() {
  while (pages.Top()) DropPage();
  descents = 0;
}
