// zephsqlite: databases of the type "sqlite". docs/extensions/zephsqlite.md is the page for authors
// of scripts, and extensions/sql/View.h is what views do. This file finds the files of databases
// and exports the table of functions; Connection.h and Statement.h do the work with SQLite.
//
// Tested in tests/e2e/SQLiteTest.cpp.

#include <limits.h>
#include <malloc.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "extensions/sql/Library.h"
#include "extensions/zephsqlite/Connection.h"

namespace {

using namespace zephsql;
using zephsqlite::SQLite;

// The real path of the data directory.
bool DataDirectory(ZPPROGRAM program, std::string* directory) {
  ZPVARIABLE settings =
      zpVariableHash_Find(zpProgram_System_VariableHash(program), "zeph_config", -1);
  ZPVARIABLE setting = settings ? zpVariable_Struct_Member("dir_data", -1, settings, 0) : nullptr;
  int length = 0;
  const char* const text = setting ? zpVariable_Value(setting, &length) : nullptr;
  // Without the setting a command line program works in the directory where it was started.
  const std::string path = length > 0 ? std::string(Bytes(text, length)) : ".";
  char resolved[PATH_MAX];
  if (!realpath(path.c_str(), resolved)) return false;
  *directory = resolved;
  return true;
}

// The path of a file below the data directory; empty if it would be elsewhere. Links are refused
// when it is opened.
std::string DataPath(ZPPROGRAM program, std::string_view path) {
  std::string directory;
  if (path.empty() || path.find('\0') != std::string_view::npos ||
      !DataDirectory(program, &directory)) {
    return "";
  }
  int length = 0;
  char* const normalized =
      zpFile_NormalizePath(program, ZPFILE_DATA, std::string(path).c_str(), -1, &length);
  if (!normalized) return "";
  std::string below(Bytes(normalized, length));
  zpProgram_Free(program, normalized);
  if (below.starts_with('/')) {
    const std::string within = directory + "/";
    return below.starts_with(within) ? below : "";
  }
  if (below.empty() || below == "." || below == ".." || below.starts_with("../")) return "";
  return directory + "/" + below;
}

struct Peer {
  static constexpr char kKeyColumn[] = "\"recno\" integer primary key";
  static constexpr char kReindex[] = "REINDEX ";

  static ConnectionPointer Connect(const Opening& opening, std::string* table, bool* required,
                                   std::string* error) {
    const std::string path = DataPath(opening.program, opening.path);
    const std::string what = std::string("Cannot ") + (opening.create ? "create" : "open") + " '" +
                             std::string(opening.path) + "': ";
    if (path.empty()) {
      *error = what + "it is not below the data directory";
      return nullptr;
    }
    *table = BaseName(opening.path);
    *required = false;
    ConnectionPointer connection = SQLite::Acquire(opening.program, path, opening.create, error);
    if (!connection) *error = what + *error;
    return connection;
  }
  static std::string TypeOf(const FieldSpecification& field) {
    switch (field.letter) {
      case 'C': return "char(" + std::to_string(field.length) + ")";
      case 'N':
        return "numeric(" + std::to_string(field.length - (field.decimals > 0)) + "," +
               std::to_string(field.decimals) + ")";
      case 'D': return "date text";
      case 'L': return "boolean";
      default: return "text";
    }
  }
  static std::string NameOf(std::string_view name) { return std::string(name); }
};

// --- Memory --------------------------------------------------------------------------------------

// The heap as SQLite takes it, but for the first bytes of each block. The engine's heap puts one in
// four of SQLite's pages at the very beginning of a page of memory, where the system's copies from
// a file were found to be slower: a scan of a table that is larger than SQLite's cache takes 9 %
// less time with them elsewhere.
constexpr size_t kShift = 64;  // bytes

void* Shifted(void* block) {
  return block ? static_cast<char*>(block) + kShift : nullptr;
}
void* Begin(void* shifted) {
  return static_cast<char*>(shifted) - kShift;
}
void* Allocate(int bytes) {
  return Shifted(malloc(static_cast<size_t>(bytes) + kShift));
}
void* Resize(void* shifted, int bytes) {
  return Shifted(realloc(Begin(shifted), static_cast<size_t>(bytes) + kShift));
}
void Free(void* shifted) {
  free(Begin(shifted));
}
int Size(void* shifted) {
  return shifted ? static_cast<int>(malloc_usable_size(Begin(shifted)) - kShift) : 0;
}
int RoundUp(int bytes) {
  return (bytes + 7) & ~7;
}
int Initialize(void*) {
  return SQLITE_OK;
}
void Shutdown(void*) {}

const sqlite3_mem_methods kMemory = {Allocate, Free,       Resize,   Size,
                                     RoundUp,  Initialize, Shutdown, nullptr};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_Database* zeph_database_library() {
  // SQLite would count its memory, with a lock for all threads at each change. It refuses this if
  // another library of the process uses it already, and then it does.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  sqlite3_config(SQLITE_CONFIG_MALLOC, &kMemory);
  return Library<Peer>::Table();
}
