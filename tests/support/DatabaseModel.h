// What a script must see of a database: a table and its indexes as plain lists in memory. It knows
// nothing of pages, files and locks. One object plays one script after the other on one table.

#ifndef ZEPH_TESTS_SUPPORT_DATABASEMODEL_H
#define ZEPH_TESTS_SUPPORT_DATABASEMODEL_H

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

class DatabaseModel {
 public:
  // The fields, in the order of the table.
  enum Field { Code, Amount, Day, Paid, Note, kFields };
  static constexpr const char* kSpecification =
      "code char(8), amount number(5.2), day date, paid bool, note memo";
  static const char* Name(int field);
  using Values = std::array<std::string, kFields>;

  struct Row {
    Values values;  // as they are read
    bool deleted = false;
  };
  struct Entry {
    std::string key;
    int record;
    bool operator==(const Entry&) const = default;
  };
  // An index file. The key is the text of one field.
  struct Index {
    Field field;
    bool unique, descending, text, range;
    std::vector<Entry> entries;
  };
  // What a filter decides from the variables of the current record.
  using Filter = std::function<bool(DatabaseModel&)>;

  // --- Files, which outlive a script ----------------------------------------------------------
  std::vector<Row> rows;
  std::map<std::string, Index> files;

  // --- A script -------------------------------------------------------------------------------
  // Opens the table with these indexes, the first of them primary. REQUIRES: there is a record.
  void Open(const std::vector<std::string>& indexes);

  // The instructions. Those that fail set the error of their tag, and the others remove it.
  // Set stores a text that the script has just made, which the field adopts. A variable's value is
  // checked and converted in another way.
  void Set(int field, const std::string& value);
  void SetFromVariable(int field, const std::string& value);
  void Add();
  void Update();
  void Delete(bool deleted);
  void Skip(int count);
  static constexpr int kTop = -1, kBottom = -2;
  void Go(int position);
  void Find(const std::string& key, bool exact);
  // Null removes the filter.
  void SetFilter(Filter filter);
  void RefuseFilter(const std::string& error) { Finish("FILTER", error); }
  void SetIndexes(const std::vector<std::string>& indexes);
  void SetPrimaryIndex(const std::string& index);
  void Pack();
  void Reindex();

  // The variables. Values of `recno`, `totrec` and `deleted` are kept from one look to the next,
  // and so is the text of a field, as a script's variables keep them.
  const std::string& Value(int field);
  // The amount as a number. Its text is made from the number if it was not read before.
  double Number();
  int recno();
  int totrec();
  int deleted();
  int eof() const { return at_eof; }
  // By tag, without the prefix and the suffix of the variable's name; no entry for an empty one.
  std::map<std::string, std::string> errors;

  // The text that a script writes of all of these. The names of temporary files are left out.
  std::string State();
  static const std::vector<std::string>& Tags();

  // A search without a hit leaves the cursor of an index at a place that depends on its pages. No
  // step may follow until another move has found a record.
  bool IsCursorKnown() const { return cursor.kind != Cursor::Unknown || open.empty(); }
  const std::vector<std::string>& open_indexes() const { return open; }
  int record_number() const { return number; }

 private:
  struct Variable {
    std::optional<std::string> text;
    bool changed = false;
  };
  struct Cursor {
    enum Kind { None, On, Unknown } kind = None;
    Entry entry = {};
  };

  Index& Primary() { return files.at(open.front()); }
  static int Order(const Index& index, const std::string& a, const std::string& b, bool exact);
  static size_t Place(const Index& index, const std::string& key, bool exact);
  static bool Insert(Index* index, const Entry& entry);
  static bool Erase(Index* index, const Entry& entry);
  bool Seek(const std::string& key, int record);
  int CursorTo(size_t place);
  int Step(bool forward);
  int End(bool first);

  bool Goto(int record);
  bool Read(int record);
  void MarkDirty(bool all);
  void CommitFields();
  void MakeVariables(bool check_dates);
  bool GoUnfiltered(int position);
  bool GoFiltered(int position);
  bool SkipUnfiltered(int count);
  bool SkipFiltered(int count);
  bool Walk(int record, const std::function<int()>& next);
  bool SeekCurrent();
  bool AtRecord(bool found) {
    at_eof = !found;
    return true;
  }
  bool Fail(const std::string& text) {
    failure = text;
    return false;
  }
  void Finish(const std::string& tag, const std::string& error);
  void FinishAs(const std::string& tag, bool done) { Finish(tag, done ? "" : failure); }
  std::string StoredForm(int field, const std::string& text) const;
  static std::string Duplicate(const std::string& path, const std::string& key);
  bool Rebuild(const std::vector<Row>& from, bool with_deleted, std::vector<Row>* to);

  std::vector<std::string> open;
  Cursor cursor;  // of the primary index
  Filter filter;
  int number = 0;
  bool mark = false;  // of the record in memory
  Values current, original;
  std::array<Variable, kFields> variables;
  std::optional<int> seen_recno, seen_totrec, seen_deleted;
  int at_eof = 0;
  bool checks_dates = false;
  std::string failure;
};

#endif
