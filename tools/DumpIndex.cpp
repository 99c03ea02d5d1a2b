// Shows and checks index files. Tested in tests/tools/DumpIndexTest.cpp.

#include "tools/DumpIndex.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/database/ZIXIndexFile.h"

namespace {

std::string_view View(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

std::string_view View(const unsigned char* text) {
  return text ? reinterpret_cast<const char*>(text) : "";
}

// Control characters are replaced, so that a key sends no commands to a terminal.
void WritePlain(std::ostream& out, std::string_view text) {
  for (char c : text) out << (iscntrl(static_cast<unsigned char>(c)) ? '?' : c);
}

std::string FlagNames(unsigned flags) {
  const struct {
    unsigned bit;
    const char* name;
  } names[] = {{ZIXIndex_Unique, "unique"},
               {ZIXIndex_Descending, "descending"},
               {ZIXIndex_Text, "text"},
               {ZIXIndex_Range, "range"}};
  std::string text;
  for (const auto& row : names)
    if (flags & row.bit) text += (text.empty() ? "" : ", ") + std::string(row.name);
  return text;
}

// --- Showing -------------------------------------------------------------------------------------

void WriteHeaderText(const ZIXIndexFile& index, std::ostream& out) {
  out << "index        " << View(index.path()) << "\nexpression   ";
  WritePlain(out, View(index.keyexpression()));
  out << "\nflags        " << FlagNames(index.flags()) << "\nversion      " << index.version()
      << "\nchanges      " << index.updatecount() << "\npages        " << index.numpages() << " of "
      << index.pagesize() << " bytes\nroot         " << index.startingpage() << "\norder        "
      << index.order() << "\nkey size     " << index.keysize() << "\n";
}

void WriteHeaderCsv(const ZIXIndexFile& index, std::ostream& out) {
  out << "expression,flags,version,updatecount,numpages,startingpage,order,pagesize,"
         "keyrecordsize\n";
  WriteCsvCell(out, View(index.keyexpression()));
  out << "," << index.flags() << "," << index.version() << "," << index.updatecount() << ","
      << index.numpages() << "," << index.startingpage() << "," << index.order() << ","
      << index.pagesize() << "," << index.keyrecordsize() << "\n";
}

void WriteHeaderJson(const ZIXIndexFile& index, std::ostream& out) {
  out << "{\n  \"expression\": ";
  WriteJsonText(out, View(index.keyexpression()));
  out << ",\n  \"flags\": " << index.flags() << ",\n  \"version\": " << index.version()
      << ",\n  \"updatecount\": " << index.updatecount()
      << ",\n  \"numpages\": " << index.numpages()
      << ",\n  \"startingpage\": " << index.startingpage() << ",\n  \"order\": " << index.order()
      << ",\n  \"pagesize\": " << index.pagesize()
      << ",\n  \"keyrecordsize\": " << index.keyrecordsize();
}

void WriteKey(DumpForm form, std::ostream& out, unsigned record, std::string_view key, bool first) {
  switch (form) {
    case DumpForm::Text:
      out << record << "\t";
      WritePlain(out, key);
      out << "\n";
      break;
    case DumpForm::Csv:
      out << record << ",";
      WriteCsvCell(out, key);
      out << "\n";
      break;
    case DumpForm::Json:
      out << (first ? "\n    " : ",\n    ") << "{\"record\": " << record << ", \"key\": ";
      WriteJsonText(out, key);
      out << "}";
      break;
  }
}

bool WriteKeys(ZIXIndexFile& index, const DumpRequest& request, std::ostream& out) {
  const auto lowest = static_cast<unsigned>(request.first_record);
  const auto highest = static_cast<unsigned>(request.last_record);
  unsigned record = 0;
  bool good = index._First(&record, 1);
  for (bool first = true; good && record != 0;) {
    if (record >= lowest && record <= highest) {
      WriteKey(request.form, out, record, View(index.current_key()), first);
      first = false;
    }
    good = index._Next(&record, nullptr, 1);
  }
  // If the header can't be read, a walk ends as it does after the last entry; only the error text
  // shows the difference.
  return good && index.error().length == 0;
}

// --- Checking ------------------------------------------------------------------------------------

// Walks all pages from the root. It reads the pages itself, because the cursor of an index gives
// entries but not their place.
class IndexCheck {
 public:
  IndexCheck(const ZIXIndexFile& checked, File* opened, std::ostream& output)
      : index(checked), file(opened), out(output), reached(PagesInFile()) {}

  int Run() {
    // A writer that ends before it has written its last header leaves such pages; the next writer
    // overwrites them.
    if (index.numpages() < reached.size())
      out << "note: the file has " << reached.size() << " pages, the header counts "
          << index.numpages() << "\n";
    Walk(index.startingpage(), 1);
    // A damaged tree misses pages as it is.
    if (problems == 0) LookAtUnusedPages();
    if (problems > 0) {
      if (problems > most_lines) out << "and " << problems - most_lines << " more\n";
      out << problems << (problems == 1 ? " problem\n" : " problems\n");
      return dump_failed;
    }
    out << "ok: " << entries << " entries in " << pages << " pages, depth " << depth << ", "
        << index.numpages() - 1 - pages << " pages unused\n";
    return dump_done;
  }

 private:
  static constexpr long most_lines = 100;
  // No sound tree is deeper than this.
  static constexpr int most_depth = 64;

  size_t PagesInFile() const {
    const long length = std::max(file->Length(), 0L);
    return static_cast<size_t>((length + index.pagesize() - 1) / index.pagesize());
  }

  void Problem(const std::string& text) {
    if (++problems <= most_lines) out << "problem: " << text << "\n";
  }
  void PageProblem(uint32_t page, const std::string& text) {
    Problem("page " + std::to_string(page) + ": " + text);
  }

  bool Reach(uint32_t number, int level) {
    if (number == 0 || number >= index.numpages() || number >= reached.size())
      PageProblem(number, "is named and is not in the file");
    else if (reached[number])
      PageProblem(number, "is reached twice");
    else if (level > most_depth)
      PageProblem(number, "is deeper than any tree");
    else
      return reached[number] = true;
    return false;
  }

  bool Read(ZIXIndexPage* page) {
    const long offset = static_cast<long>(page->pagenum) * page->pagesize;
    const String nothing("");
    file->Error(nothing);
    if (file->Seek(offset) >= 0 && page->Read(file)) return true;
    const std::string_view text = View(file->error());
    PageProblem(page->pagenum, text.empty() ? "is cut" : std::string(text));
    return false;
  }

  void Walk(uint32_t number, int level) {
    if (!Reach(number, level)) return;
    ZIXIndexPage page(number, static_cast<uint16_t>(index.keyrecordsize()),
                      static_cast<uint16_t>(index.pagesize()));
    if (!Read(&page)) return;
    pages++;
    const int n = page.numentries();
    const int least = index.order() / 2 - 1;
    if (n > index.order())
      PageProblem(number,
                  std::to_string(n) + " entries, more than " + std::to_string(index.order()));
    if (level > 1 && n < least)
      PageProblem(number, std::to_string(n) + " entries, fewer than " + std::to_string(least));
    const bool leaf = page.IsLeaf();
    if (!leaf && n == 0) PageProblem(number, "no entries, but a page below");
    if (leaf && depth == 0) depth = level;
    if (leaf && level != depth)
      PageProblem(number, "a leaf on level " + std::to_string(level) + ", others are on level " +
                              std::to_string(depth));
    for (int i = 0; i <= n; i++) {
      if (!leaf) Walk(page.childpage(i), level + 1);
      if (i < n) Entry(page, i);
    }
  }

  // Pages that deletions have left over have no entries. One with entries comes from a writer that
  // ended while it split a page: it is harmless as long as the tree has its entries too.
  void LookAtUnusedPages() {
    const size_t end = std::min<size_t>(reached.size(), index.numpages());
    for (size_t number = 1; number < end; number++) {
      if (reached[number]) continue;
      ZIXIndexPage page(static_cast<uint32_t>(number), static_cast<uint16_t>(index.keyrecordsize()),
                        static_cast<uint16_t>(index.pagesize()));
      const long offset = static_cast<long>(page.pagenum) * page.pagesize;
      if (file->Seek(offset) < 0 || !page.Read(file)) continue;
      int missing = 0;
      for (int i = 0; i < page.numentries(); i++)
        missing += !found.contains({std::string(View(page.key(i))), page.recordnum(i)});
      if (missing > 0)
        PageProblem(page.pagenum, "is not in the tree, and has " + std::to_string(missing) +
                                      (missing == 1 ? " entry" : " entries") +
                                      " that the tree has not");
    }
  }

  void Entry(const ZIXIndexPage& page, int i) {
    entries++;
    const std::string key(View(page.key(i)));
    const std::string name = "entry " + std::to_string(i) + ", key '" + key + "': ";
    if (page.recordnum(i) == 0)
      PageProblem(page.pagenum, name + "record number 0");
    else if (!found.emplace(key, page.recordnum(i)).second)
      PageProblem(page.pagenum, name + "is there twice with this record");
    if (entries > 1) {
      const unsigned char* const before = reinterpret_cast<const unsigned char*>(last_key.c_str());
      const int order =
          ZIXIndexFile::Compare(before, page.key(i), 1, static_cast<int>(index.flags()));
      if (order > 0) PageProblem(page.pagenum, name + "out of order after '" + last_key + "'");
      if (order == 0 && (index.flags() & ZIXIndex_Unique))
        PageProblem(page.pagenum, name + "occurs twice");
    }
    last_key = key;
  }

  const ZIXIndexFile& index;
  File* file;
  std::ostream& out;
  std::vector<bool> reached;
  std::set<std::pair<std::string, uint32_t>> found;  // key and record of all entries of the tree
  std::string last_key;
  long problems = 0;
  long entries = 0;
  unsigned pages = 0;
  int depth = 0;
};

}  // namespace

int ShowIndex(const DumpRequest& request, std::ostream& out, std::ostream& errors) {
  if (!request.columns.empty()) {
    errors << "zpdbf: " << request.path << " is an index, which has no fields\n";
    return dump_failed;
  }
  DumpApplication application;
  ZIXIndexFile index(&application);
  bool good = index.Open(ZephPath_Data, request.path.c_str(), FileMode_Read);
  if (good) {
    const bool json = request.form == DumpForm::Json;
    if (request.form == DumpForm::Text) WriteHeaderText(index, out);
    if (request.form == DumpForm::Csv && request.header_only) WriteHeaderCsv(index, out);
    if (json) WriteHeaderJson(index, out);
    if (!request.header_only) {
      out << (json ? ",\n  \"keys\": [" : request.form == DumpForm::Csv ? "record,key\n" : "\n");
      good = WriteKeys(index, request, out);
      if (json) out << "\n  ]";
    }
    if (json) out << "\n}\n";
  }
  if (!good) errors << "zpdbf: " << ErrorWithReason(index.error()) << "\n";
  return good ? dump_done : dump_failed;
}

int CheckIndex(const DumpRequest& request, std::ostream& out, std::ostream&) {
  DumpApplication application;
  const auto failed = [&out](const std::string& text) {
    out << "problem: " << text << "\n";
    return dump_failed;
  };
  FileManager* files = application.filemanager();
  std::unique_ptr<File> file(files->Open(request.path.c_str(), FileMode_Read));
  if (!file) {
    return failed("Error opening '" + request.path + "': " + std::string(View(files->error())));
  }
  if (!file->Lock(FileLock_Shared, 0, ZIXHeader_Length))
    return failed("Error locking '" + request.path + "' for read");
  ZIXIndexFile index(&application);
  const bool good = index.Open(ZephPath_Data, request.path.c_str(), FileMode_Read);
  const int status =
      good ? IndexCheck(index, file.get(), out).Run() : failed(ErrorWithReason(index.error()));
  file->Release(0, ZIXHeader_Length);
  return status;
}
