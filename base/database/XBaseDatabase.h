// The built-in database engine: one table, its open index files, and one view. XBaseDatabaseView.h
// does the work on records; this class opens, makes and rebuilds the files. docs/database.md is the
// page for authors of scripts.
//
// Other processes may use the same files. Single operations lock what they touch. A pack or a
// reindex does not: it replaces the files, and others go on reading the old ones.
//
// Units: XBaseDatabase.cpp, XBaseDatabase_Rebuild.cpp (pack and reindex),
// XBaseFieldSpecification.h.

#ifndef ZEPH_BASE_XBASEDATABASE_H
#define ZEPH_BASE_XBASEDATABASE_H

#include <memory>
#include <string_view>

#include "base/database/Database.h"
#include "base/database/XBaseDatabaseView.h"
#include "base/database/XBaseIndex.h"

class XBaseTable;

// Operations return false after a failure, with the text in error(). While code of the script runs
// for a filter or a key of this database, those that would take away a file, an index or the view
// fail. When the time limit of the run is over (base/core/RunLimit.h), CreateIndex, Pack and
// Reindex end and fail; Pack and Reindex then leave the files as they were.
//
// REQUIRES for all operations but Open and Create: one of these two has succeeded. The order of
// fields and virtual operations must not change.
class XBaseDatabase : public Database {
 public:
  XBaseDatabase(ZephVM* vm, const char* name, int length, int allocated, int* deletable);
  ~XBaseDatabase() override;

  // Also gives back the counts of the indexes.
  void Release_VM() override;
  // Opens the table for reading and writing, without indexes. The texts after the name are not
  // used.
  bool Open(const char* path, int pathlength, int pathallocated, int* pathdeletable,
            const char* name, int namelength, int nameallocated, int* namedeletable,
            const char* third, int thirdlength, int thirdallocated, int* thirddeletable,
            const char* fourth, int fourthlength, int fourthallocated, int* fourthdeletable,
            const char* fifth, int fifthlength, int fifthallocated, int* fifthdeletable) override;
  // Closes the table's files. Afterwards the object can only be deleted.
  bool Close() override;
  // Overwrites what the files held. XBaseFieldSpecification.h reads the list of fields.
  bool Create(const char* path, int pathlength, int pathallocated, int* pathdeletable,
              const char* name, int namelength, int nameallocated, int* namedeletable,
              const char* specification, int specificationlength, int specificationallocated,
              int* specificationdeletable) override;
  // After a failure the indexes before the failed one are open. Goes to the first record.
  bool OpenIndexes(ZephVM* vm, const char* list, int length, int allocated,
                   int* deletable) override;
  // Keeps the current record. If that record is not in the index, the index is the primary one all
  // the same, and the view has the error, too.
  bool SetPrimaryIndex(const char* name, int length, int allocated, int* deletable) override;
  // The flags are a list of words; unknown ones are ignored. Goes to the first record. After a
  // failure the file stays, incomplete, and is not open.
  bool CreateIndex(ZephVM* vm, const char* path, int pathlength, int pathallocated,
                   int* pathdeletable, const char* expression, int expressionlength,
                   int expressionallocated, int* expressiondeletable, const char* flags,
                   int flagslength, int flagsallocated, int* flagsdeletable) override;
  // Rewrites the table without its deleted records, and its open indexes. A failure before the new
  // files replace the old ones leaves all files as they were, and goes to record 1. After a later
  // one some files are new and some are old; what can be opened is open again.
  bool Pack() override;
  // Rebuilds the open indexes from the table; without any it succeeds at once. Failures as in Pack.
  bool Reindex() override;
  // The engine has one view and no queries.
  bool OpenView(const char* name, int namelength, int nameallocated, int* namedeletable,
                const char* query, int querylength, int queryallocated, int* querydeletable,
                VariableList* variables, int count) override;
  bool CloseView(const char* name, int length, int allocated, int* deletable) override;
  bool RunQuery(const char* query, int length, int allocated, int* deletable,
                VariableList* variables, int count) override;
  bool Command(const char* command, int commandlength, int commandallocated, int* commanddeletable,
               const char* arguments, int argumentslength, int argumentsallocated,
               int* argumentsdeletable) override;
  // These do nothing and succeed.
  bool Commit() override { return true; }
  bool Rollback() override { return true; }
  bool Transaction() override { return true; }

 private:
  class Rebuild;

  bool ReadIndexFlags(std::string_view text, long* flags);
  bool Fail(const String& text);
  bool RefuseInUse() { return Fail(kInUse); }
  void Drop();
  void Adopt(std::unique_ptr<XBaseTable> opened);
  bool OpenIndex(ZephVM* vm, std::string_view entry);
  bool FillIndex(XBaseIndex& index);
  bool CountRecords();
  bool GoToFirst();
  bool PrimaryIndexFailed(const String& text);
  XBaseDatabaseView* View();

  XBaseTable* table = nullptr;  // owned
  String table_path;
  XBaseIndexList indexes;
};

#endif
