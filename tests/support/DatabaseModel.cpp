// The instructions on databases, on lists in memory.

#include "tests/support/DatabaseModel.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kCodeLength = 8, kAmountLength = 8, kDayLength = 8;
constexpr size_t kDecimals = 2;

bool IsTrueText(const std::string& text) {
  return text.find_first_not_of('0') != std::string::npos &&
         (text.find_first_not_of("0.") != std::string::npos ||
          std::count(text.begin(), text.end(), '.') > 1);
}

bool IsNumberText(const std::string& text) {
  const size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
  return text.find_first_not_of("0123456789.", sign) == std::string::npos &&
         std::count(text.begin(), text.end(), '.') <= 1;
}

bool IsDateText(const std::string& text) {
  return text.size() == kDayLength && text.find_first_not_of("0123456789") == std::string::npos &&
         std::stoi(text.substr(4, 2)) <= 12 && std::stoi(text.substr(6, 2)) <= 31;
}

// Fills up the decimals of a number, or cuts them off.
std::string WithDecimals(std::string text) {
  if (text.empty()) text = "0";
  const size_t point = text.find('.');
  if (point == std::string::npos) return text + "." + std::string(kDecimals, '0');
  text.resize(point + 1 + kDecimals, '0');
  return text;
}

std::string AmountText(double number) {
  char text[40];
  snprintf(text, sizeof text, "%.15g", number);
  return WithDecimals(text);
}

std::string WithoutEnd(std::string text, bool (*drop)(char)) {
  while (!text.empty() && drop(text.back())) text.pop_back();
  return text;
}

// Whether the whole text is a number. An empty one is 0.
bool ReadNumber(const std::string& text, double* value) {
  char* end;
  *value = strtod(text.c_str(), &end);
  return *end == 0;
}

}  // namespace

const char* DatabaseModel::Name(int field) {
  static const char* const names[] = {"code", "amount", "day", "paid", "note"};
  return names[field];
}

const std::vector<std::string>& DatabaseModel::Tags() {
  static const std::vector<std::string> tags = {"OPEN",     "SKIP",    "GO",     "PRIMARY",  "FIND",
                                                "SETINDEX", "UPDATE",  "DELETE", "UNDELETE", "ADD",
                                                "PACK",     "REINDEX", "FILTER"};
  return tags;
}

void DatabaseModel::Finish(const std::string& tag, const std::string& error) {
  errors.erase(tag);
  if (!error.empty()) errors[tag] = error;
}

// --- Indexes -------------------------------------------------------------------------------------

int DatabaseModel::Order(const Index& index, const std::string& a, const std::string& b,
                         bool exact) {
  int order = exact ? a.compare(b) : strncmp(a.c_str(), b.c_str(), a.size());
  double x, y;
  if (exact && !index.text && ReadNumber(a, &x) && ReadNumber(b, &y))
    order = x < y ? -1 : x > y ? 1 : 0;
  return index.descending ? -order : order;
}

// The first entry that is not before the key.
size_t DatabaseModel::Place(const Index& index, const std::string& key, bool exact) {
  size_t place = 0;
  while (place < index.entries.size() && Order(index, key, index.entries[place].key, exact) > 0)
    place++;
  return place;
}

// An entry goes before those of an equal key.
bool DatabaseModel::Insert(Index* index, const Entry& entry) {
  const size_t place = Place(*index, entry.key, true);
  if (index->unique && place < index->entries.size() &&
      Order(*index, entry.key, index->entries[place].key, true) == 0)
    return false;
  index->entries.insert(index->entries.begin() + static_cast<std::ptrdiff_t>(place), entry);
  return true;
}

bool DatabaseModel::Erase(Index* index, const Entry& entry) {
  for (size_t i = Place(*index, entry.key, true); i < index->entries.size(); i++) {
    if (Order(*index, entry.key, index->entries[i].key, true) != 0) break;
    if (index->entries[i].record != entry.record) continue;
    index->entries.erase(index->entries.begin() + static_cast<std::ptrdiff_t>(i));
    return true;
  }
  return false;
}

std::string DatabaseModel::Duplicate(const std::string& path, const std::string& key) {
  return "Index '" + path + "' was created with the UNIQUE flag and the key '" + key +
         "' already exists in the index file";
}

// Goes on from the first equal entry, past the equal ones too, until one has the record.
bool DatabaseModel::Seek(const std::string& key, int record) {
  const Index& index = Primary();
  size_t place = Place(index, key, true);
  cursor.kind = Cursor::Unknown;
  if (place == index.entries.size() || Order(index, key, index.entries[place].key, true) != 0)
    return false;
  while (place < index.entries.size() && index.entries[place].record != record) place++;
  if (place == index.entries.size()) return false;
  CursorTo(place);
  return true;
}

int DatabaseModel::CursorTo(size_t place) {
  const Index& index = Primary();
  if (place >= index.entries.size()) {
    cursor.kind = Cursor::None;
    return 0;
  }
  cursor = {Cursor::On, index.entries[place]};
  return cursor.entry.record;
}

int DatabaseModel::Step(bool forward) {
  if (open.empty())
    return forward ? (number < static_cast<int>(rows.size()) ? number + 1 : 0) : number - 1;
  if (cursor.kind == Cursor::None) return 0;
  const std::vector<Entry>& entries = Primary().entries;
  const auto at = std::find(entries.begin(), entries.end(), cursor.entry);
  const auto place = static_cast<size_t>(at - entries.begin());
  if (at == entries.end() || (!forward && place == 0)) return CursorTo(entries.size());
  return CursorTo(forward ? place + 1 : place - 1);
}

int DatabaseModel::End(bool first) {
  if (open.empty()) return first ? 1 : static_cast<int>(rows.size());
  const size_t count = Primary().entries.size();
  return CursorTo(first || count == 0 ? 0 : count - 1);
}

// --- The record in memory ------------------------------------------------------------------------

bool DatabaseModel::Goto(int record) {
  if (record < 1 || record > static_cast<int>(rows.size())) return Fail("Invalid record number");
  const Row& row = rows[static_cast<size_t>(record) - 1];
  current = original = row.values;
  mark = row.deleted;
  number = record;
  return true;
}

bool DatabaseModel::Read(int record) {
  if (!Goto(record)) return false;
  MarkDirty(true);
  return true;
}

void DatabaseModel::MarkDirty(bool all) {
  seen_recno.reset();
  seen_totrec.reset();
  seen_deleted.reset();
  if (!all) return;
  for (Variable& variable : variables) variable.text.reset();
}

void DatabaseModel::MakeVariables(bool check_dates) {
  variables = {};
  checks_dates = check_dates;
  at_eof = 0;
  MarkDirty(true);
}

// A change without a text is one that a move has dropped.
void DatabaseModel::CommitFields() {
  for (size_t i = 0; i < kFields; i++) {
    Variable& variable = variables[i];
    if (!variable.changed) continue;
    variable.changed = false;
    if (i == Paid) {
      current[i] = IsTrueText(Value(Paid)) ? "T" : "F";
    } else if (i == Amount) {
      current[i] = Value(Amount).substr(0, kAmountLength);
    } else if (variable.text) {
      current[i] = *variable.text;
    } else if (i == Day && checks_dates) {
      current[i] = "";
    }
  }
}

// What a field gives after its text was in the file.
std::string DatabaseModel::StoredForm(int field, const std::string& text) const {
  if (field == Note) return text;
  if (field == Day) return text + std::string(kDayLength - text.size(), ' ');
  if (field == Amount) return text.substr(std::min(text.find_first_not_of(' '), text.size()));
  return WithoutEnd(text, [](char c) { return c == ' '; });
}

const std::string& DatabaseModel::Value(int field) {
  std::optional<std::string>& text = variables[static_cast<size_t>(field)].text;
  const std::string& stored = current[static_cast<size_t>(field)];
  if (!text) text = field == Paid ? (stored == "T" ? "1" : "0") : stored;
  return *text;
}

double DatabaseModel::Number() {
  std::optional<std::string>& text = variables[Amount].text;
  const double number_of_text = atof((text ? *text : current[Amount]).c_str());
  if (!text) text = AmountText(number_of_text);
  return number_of_text;
}

int DatabaseModel::recno() {
  if (!seen_recno) seen_recno = number;
  return *seen_recno;
}
int DatabaseModel::totrec() {
  if (!seen_totrec) seen_totrec = static_cast<int>(rows.size());
  return *seen_totrec;
}
int DatabaseModel::deleted() {
  if (!seen_deleted) seen_deleted = mark;
  return *seen_deleted;
}

std::string DatabaseModel::State() {
  std::string state;
  for (int field = 0; field < kFields; field++) state += Value(field) + "|";
  for (const int value : {recno(), totrec(), deleted(), eof()})
    state += std::to_string(value) + "|";
  for (const std::string& tag : Tags()) state += errors[tag] + "|";
  return state;
}

// --- Storing -------------------------------------------------------------------------------------

void DatabaseModel::Set(int field, const std::string& value) {
  std::string text = value;
  if (field == Code || (field == Day && !checks_dates)) {
    text = WithoutEnd(text.substr(0, field == Code ? kCodeLength : kDayLength),
                      [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; });
  } else if (field == Day) {
    text = text.substr(0, kDayLength);
  } else if (field == Amount) {
    if (!IsNumberText(text)) return;
    text = WithDecimals(text);
  } else if (field == Paid) {
    text = IsTrueText(text) ? "1" : "0";
  }
  variables[static_cast<size_t>(field)] = {text, true};
}

// A date is checked only here. The whole part of a number may be as long as the field leaves room
// for, a sign included. The number is that of the text, 0 for one that is none.
void DatabaseModel::SetFromVariable(int field, const std::string& value) {
  if (field == Day && checks_dates && !IsDateText(value)) return;
  if (field != Amount) {
    Set(field, value);
    return;
  }
  if (value.substr(0, value.find('.')).size() > kAmountLength - 1 - kDecimals) return;
  variables[Amount] = {AmountText(atof(value.c_str())), true};
}

// --- Changes -------------------------------------------------------------------------------------

void DatabaseModel::Add() {
  CommitFields();
  Row row;
  for (int field = 0; field < kFields; field++)
    row.values[static_cast<size_t>(field)] = StoredForm(field, current[static_cast<size_t>(field)]);
  rows.push_back(row);
  mark = false;
  number = static_cast<int>(rows.size());
  if (open.empty()) MarkDirty(false);
  for (const std::string& path : open) {
    Index& index = files.at(path);
    const std::string key = Value(index.field);
    if (!Insert(&index, {key, number})) {
      Finish("ADD", Duplicate(path, key));
      return;
    }
    GoUnfiltered(number);
  }
  FinishAs("ADD", true);
}

// An index whose new key is refused has lost the old one, and those after it are not changed.
void DatabaseModel::Update() {
  CommitFields();
  bool done = true;
  if (open.empty()) MarkDirty(false);
  for (size_t i = 0; i < open.size() && done; i++) {
    Index& index = files.at(open[i]);
    const std::string after = Value(index.field);
    const std::string before = original[index.field];
    if (before != after) {
      done = Erase(&index, {before, number}) || Fail("Record is not in index");
      done = done && (Insert(&index, {after, number}) || Fail(Duplicate(open[i], after)));
      if (done && i == 0) done = Seek(after, number);
    }
    MarkDirty(false);
  }
  Row& row = rows[static_cast<size_t>(number) - 1];
  for (int field = 0; field < kFields; field++)
    row.values[static_cast<size_t>(field)] = StoredForm(field, current[static_cast<size_t>(field)]);
  row.deleted = mark;
  original = current;
  FinishAs("UPDATE", done);
}

void DatabaseModel::Delete(bool deleted) {
  mark = deleted;
  rows[static_cast<size_t>(number) - 1].deleted = deleted;
  MarkDirty(false);
  FinishAs(deleted ? "DELETE" : "UNDELETE", true);
}

// --- Moves ---------------------------------------------------------------------------------------

// Reads records, beginning with this one, until one passes the filter.
bool DatabaseModel::Walk(int record, const std::function<int()>& next) {
  for (; record >= 1 && record <= static_cast<int>(rows.size()); record = next()) {
    Read(record);
    if (filter(*this)) return true;
  }
  return false;
}

bool DatabaseModel::SkipUnfiltered(int count) {
  if (count == 0) MarkDirty(true);
  for (int left = abs(count); left > 0; left--) {
    const int record = Step(count > 0);
    if (record == 0) return AtRecord(false);
    if (!Read(record)) return false;
  }
  return AtRecord(true);
}

bool DatabaseModel::SkipFiltered(int count) {
  const auto next = [&] { return Step(count > 0); };
  for (int left = abs(count); left > 0; left--)
    if (!Walk(next(), next)) return AtRecord(false);
  return count == 0 || AtRecord(true);
}

void DatabaseModel::Skip(int count) {
  FinishAs("SKIP", filter ? SkipFiltered(count) : SkipUnfiltered(count));
}

bool DatabaseModel::GoUnfiltered(int position) {
  const int record = position < 0 ? End(position == kTop) : position;
  if (record < 1 || record > static_cast<int>(rows.size())) return AtRecord(false);
  Read(record);
  return AtRecord(true);
}

bool DatabaseModel::SeekCurrent() {
  return Seek(Value(Primary().field), number) || Fail("Record is not in index");
}

bool DatabaseModel::GoFiltered(int position) {
  if (position < 0)
    return AtRecord(Walk(End(position == kTop), [&] { return Step(position == kTop); }));
  if (position < 1 || position > static_cast<int>(rows.size())) return AtRecord(false);
  Read(position);
  if (!filter(*this)) return AtRecord(false);
  return (open.empty() || SeekCurrent()) && AtRecord(true);
}

void DatabaseModel::Go(int position) {
  FinishAs("GO", filter ? GoFiltered(position) : GoUnfiltered(position));
}

void DatabaseModel::Find(const std::string& key, bool exact) {
  if (open.empty()) {
    Finish("FIND", "Database has no open indexes");
    return;
  }
  const Index& index = Primary();
  const size_t place = Place(index, key, exact);
  const auto equal = [&](const Entry& entry) { return Order(index, key, entry.key, exact) == 0; };
  if (place < index.entries.size() && equal(index.entries[place])) {
    const int record = CursorTo(place);
    if (!filter) {
      if (record > static_cast<int>(rows.size())) {
        AtRecord(false);
      } else {
        Read(record);
        AtRecord(true);
      }
    } else {
      AtRecord(Walk(record, [&] {
        const int next = Step(true);
        return next != 0 && equal(cursor.entry) ? next : 0;
      }));
    }
  } else {
    const int before = place > 0 ? index.entries[place - 1].record : 0;
    cursor.kind = Cursor::Unknown;
    if (!filter && index.range && before != 0 && before <= static_cast<int>(rows.size()))
      Read(before);
    AtRecord(false);
  }
  FinishAs("FIND", true);
}

// --- The filter and the indexes ------------------------------------------------------------------

void DatabaseModel::SetFilter(Filter chosen) {
  filter = std::move(chosen);
  if (filter) {
    GoFiltered(kTop);
  } else {
    GoUnfiltered(kTop);
  }
  FinishAs("FILTER", true);
}

void DatabaseModel::Open(const std::vector<std::string>& indexes) {
  filter = nullptr;
  errors.clear();
  open.clear();
  cursor = {};
  Goto(1);
  MakeVariables(false);
  if (indexes.empty()) return;
  open = indexes;
  GoUnfiltered(kTop);
}

void DatabaseModel::SetIndexes(const std::vector<std::string>& indexes) {
  open = indexes;
  cursor = {};
  if (!open.empty()) GoUnfiltered(kTop);
  FinishAs("SETINDEX", true);
}

void DatabaseModel::SetPrimaryIndex(const std::string& path) {
  const auto at = std::find(open.begin(), open.end(), path);
  if (at == open.end()) {
    Finish("PRIMARY", "Database has no index with that name");
    return;
  }
  std::rotate(open.begin(), at, at + 1);
  FinishAs("PRIMARY", SeekCurrent());
}

// --- Rebuilding ----------------------------------------------------------------------------------

// Fills new indexes, and changes nothing but the record in memory if a key is there twice.
bool DatabaseModel::Rebuild(const std::vector<Row>& from, bool with_deleted, std::vector<Row>* to) {
  std::map<std::string, Index> made;
  for (const std::string& path : open) {
    made[path] = files.at(path);
    made[path].entries.clear();
  }
  int record = 0;
  for (const Row& row : from) {
    record++;
    Goto(record);
    MarkDirty(true);
    if (row.deleted && !with_deleted) continue;
    to->push_back(row);
    for (const std::string& path : open) {
      Index& index = made[path];
      const std::string& key = row.values[index.field];
      if (!Insert(&index, {key, static_cast<int>(to->size())})) return Fail(Duplicate("", key));
    }
  }
  for (const auto& [path, index] : made) files.at(path) = index;
  return true;
}

// The variables are made again in any case, those of record 1 at first, and from then on those of
// dates check their texts.
void DatabaseModel::Pack() {
  std::vector<Row> packed;
  const bool done = Rebuild(rows, false, &packed);
  if (done) rows = packed;
  Goto(1);
  MakeVariables(true);
  if (done) {
    cursor = {};
    GoUnfiltered(kTop);
  }
  FinishAs("PACK", done);
}

void DatabaseModel::Reindex() {
  if (open.empty()) {
    FinishAs("REINDEX", true);
    return;
  }
  std::vector<Row> same;
  const bool done = Rebuild(rows, true, &same);
  if (done) {
    Goto(1);
    MakeVariables(true);
    cursor = {};
    GoUnfiltered(kTop);
  }
  FinishAs("REINDEX", done);
}
