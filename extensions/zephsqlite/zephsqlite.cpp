// zephsqlite: databases of the type "sqlite". docs/extensions/zephsqlite.md is the page for authors
// of scripts, and extensions/sql/View.h is what views do. This file finds the files of databases
// and exports the table of functions; Connection.h and Statement.h do the work with SQLite.
//
// Tested in tests/e2e/SQLiteTest.cpp.

#include <limits.h>
#include <malloc.h>
#include <sqlite3.h>
#include <stdint.h>
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

// The heap as SQLite takes it, but for where its pages begin. The engine's heap puts them at one of
// four places of a page of memory. Their heads, which SQLite reads at each step, would then compete
// for few places of the processor's caches: with 1 MB, as cachegrind simulates it, 7.0 reads and
// writes of a scanned record miss, and 2.5 if each page begins at one of ten places, which its
// address tells. None is the very beginning of a page of memory, where copies from a file were
// found to be slower.
//
// The bytes before a block have its distance from the beginning.
constexpr size_t kHead = 16;    // bytes
constexpr size_t kPage = 4096;  // blocks from this size on have pages
constexpr size_t kLine = 64;    // of the cache
constexpr size_t kPlaces = 10;  // the heap's block for a page has this room anyway

size_t& ShiftOf(void* shifted) {
  return static_cast<size_t*>(shifted)[-1];
}
void* Shifted(void* block, size_t shift) {
  if (!block) return nullptr;
  void* const shifted = static_cast<char*>(block) + shift;
  ShiftOf(shifted) = shift;
  return shifted;
}
void* Begin(void* shifted) {
  return static_cast<char*>(shifted) - ShiftOf(shifted);
}
void* Allocate(int bytes) {
  const auto size = static_cast<size_t>(bytes);
  if (size < kPage) return Shifted(malloc(size + kHead), kHead);
  void* const block = malloc(size + kPlaces * kLine);
  // Neighbours are at equal distances. In the product's upper half nothing of that is left.
  const uint64_t mixed = (reinterpret_cast<uintptr_t>(block) >> 10) * 0x9E3779B97F4A7C15;
  return Shifted(block, kLine * (1 + (mixed >> 32) % kPlaces));
}
void* Resize(void* shifted, int bytes) {
  const size_t shift = ShiftOf(shifted);
  return Shifted(realloc(Begin(shifted), static_cast<size_t>(bytes) + shift), shift);
}
void Free(void* shifted) {
  free(Begin(shifted));
}
int Size(void* shifted) {
  return shifted ? static_cast<int>(malloc_usable_size(Begin(shifted)) - ShiftOf(shifted)) : 0;
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
