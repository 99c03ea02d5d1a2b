// The view of a table with its indexes: the current record as variables, and the ways to other
// records. XBaseDatabase.h owns it. docs/database.md is the page for authors of scripts.
//
// A move takes the primary index's order or, without an index, that of the record numbers. It skips
// no record for its deletion flag. A move that finds no record sets eof and leaves the last good
// record in the fields. When it has read a record, it discards what the script has stored in the
// variables.
//
// A filter or a key expression may call functions of the script, and those may use this view again:
// move it, and change records. So an operation copies what it needs after such a call, and its
// loops count by numbers of their own. What would take indexes or the table away is refused
// meanwhile.
//
// Units: XBaseDatabaseView.cpp (variables, filter, changes, structure),
// XBaseDatabaseView_Moves.cpp.

#ifndef ZEPH_BASE_XBASEDATABASEVIEW_H
#define ZEPH_BASE_XBASEDATABASEVIEW_H

#include <memory>
#include <vector>

#include "base/database/Database.h"
#include "base/database/XBaseIndex.h"

class XBaseDeletedVariable;
class XBaseEOFVariable;
class XBaseField;
class XBaseRecordNumberVariable;
class XBaseTable;
class XBaseTotalRecordsVariable;
class XBaseVariable;

// The error of long work that the time limit has ended. A script sees the machine's text instead.
inline constexpr char kTimeIsOver[] = "The time limit of the script is over";

// Made and owned by the database, used on its thread. Operations return false after a failure, with
// the text in error(). When the time limit of the run (base/core/RunLimit.h) is over, a move ends
// where it is and returns true. The order of fields and virtual operations must not change.
class XBaseDatabaseView : public DatabaseView {
 public:
  // Copies the name. Table and indexes are borrowed. Goes to record 1, if there is one.
  XBaseDatabaseView(ZephVM* vm, Database* database, const String& name, XBaseTable* table,
                    XBaseIndexList& indexes);

  // Does nothing: the files belong to the database.
  bool Close() override { return true; }
  // A count of 0 reads nothing; the first form then clears eof and discards stores.
  bool Skip_NoFilter(int count) override;
  bool Skip_Filter(int count) override;
  // Going to a record by its number does not move the index; with a filter it does. A number that
  // is no record's gives eof, and so does a record that the filter refuses.
  bool Go_NoFilter(long position) override;
  bool Go_Filter(long position) override;
  // Without a match eof is set. If the index has the flag RANGE, the first form then goes to the
  // record before the key's place. The key may be the text of a variable of this view.
  bool Find_NoFilter(const char* key, int length, int allocated, int* deletable,
                     int exact) override;
  bool Find_Filter(const char* key, int length, int allocated, int* deletable, int exact) override;
  // Appends what the variables hold as a new record. If an index fails, the record stays in the
  // table, and later indexes have no entry for it.
  bool Add() override;
  // Changes the deletion flag of the current record; it stays in the indexes.
  bool Delete() override;
  bool UnDelete() override;
  // Writes what the variables hold into the current record. If an index fails, the record is
  // written all the same, and the index may have lost its entry.
  bool Update() override;
  // Also goes to the first record that passes. Returns true even if that move fails.
  bool Filter(ZephVM* vm, const char* expression, int length, int allocated,
              int* deletable) override;
  // The table has a record for each field, in the order of the fields.
  bool RevealStructure_Table(const char* path, int length, int allocated, int* deletable) override;
  bool RevealStructure_Aggregate(Variable** variable) override;
  // Also goes to the first record. Refused while a filter or a key runs.
  void SetFilter(ZephVM* machine, Segment* segment) override;
  void SetDirty(int all) override;

  // Makes the view work on another table. REQUIRES: SetupCurrentRecord is called with that table,
  // before or next, because the variables belong to one.
  virtual void SetTable(XBaseTable* replacement);
  // Moves the index to the entry of the current record. REQUIRES: it is the first of the list.
  virtual bool SetPrimaryIndex(XBaseIndex* index);

  // The variables of a table's record. A rebuild makes them before it changes anything, because it
  // has to put the old ones back also when there is no memory left.
  class Record {
   public:
    // Date fields get variables that check dates if that is wanted. The table is borrowed.
    Record(XBaseTable& table, bool check_dates);

   private:
    friend class XBaseDatabaseView;
    void Add(XBaseVariable* variable);

    DatabaseVariableHash by_name;  // has one count on each
    std::vector<XBaseVariable*> all;
    XBaseTotalRecordsVariable* totrec;
    XBaseRecordNumberVariable* recno;
    XBaseDeletedVariable* deleted;
    XBaseEOFVariable* eof;
  };
  // Replaces all variables by those of a record. Variables that the script still holds become NULL.
  void SetupCurrentRecord(std::unique_ptr<Record> record) noexcept;
  // Goes to record 1 of a table, if there is one, and replaces all variables by those of its
  // current record; after std::bad_alloc the old ones are still there. Date fields get variables
  // that check dates, other than at the opening of a database, which gives them those of character
  // fields. Scripts rely on both.
  void SetupCurrentRecord(XBaseTable& of_table);
  // Call the operation of that name of all variables.
  void SetOriginal();
  void SwapOriginal();
  void Commit();

 private:
  // The keys of a record before and after its change.
  struct Keys {
    String before, after;
  };
  class OldValues;

  // How a walk over records with a filter has ended; the time limit ends it like the last record.
  enum class Walk { Failed, Ended, Passed };

  static constexpr long kFirst = -1;  // positions of Go
  static constexpr long kLast = -2;

  void Init();
  XBaseIndex* PrimaryIndex() { return indexes.First(); }
  bool Fail(const String& text);

  bool Step(bool forward, unsigned* record);
  bool GoToEnd(bool first, unsigned* record);
  bool Read(unsigned record);
  bool IsRecord(unsigned record) const;
  unsigned Count() const;
  bool End(bool at_record);
  bool Passes(bool* passes);
  template <class Next>
  Walk WalkToPassing(unsigned* record, Next next);
  bool SeekCurrent(XBaseIndex* index);

  bool ComputeKeys(XBaseIndex* index, Keys* keys);
  bool AddToIndex(XBaseIndex* index, int record);
  bool UpdateIndex(XBaseIndex* index, int record);
  bool UpdateFlag(int is_deleted);

  XBaseTable* table;
  XBaseTotalRecordsVariable* totrec = nullptr;  // these four also in `fields`, which has the count
  XBaseRecordNumberVariable* recno = nullptr;
  XBaseDeletedVariable* deleted = nullptr;
  XBaseEOFVariable* eof = nullptr;
  XBaseIndexList& indexes;
  // All of `fields`, for walks that every move makes. The first four are those above.
  std::vector<XBaseVariable*> variables;
};

#endif
