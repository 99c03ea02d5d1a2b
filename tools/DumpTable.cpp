// Shows and checks tables. Tested in tests/tools/DumpTableTest.cpp.

#include "tools/DumpTable.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "base/core/CLocale.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/database/XBaseTable.h"

namespace {

constexpr char type_letters[] = "CNDLM";  // the index is an XBaseFieldType

std::string_view View(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

bool IsBlank(std::string_view text) {
  return text.find_first_not_of(' ') == std::string_view::npos;
}

std::vector<XBaseField*> FieldsOf(XBaseTable& table) {
  std::vector<XBaseField*> fields;
  for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
    fields.push_back(field);
  return fields;
}

// The year is a byte. This engine counts it from 1900, and so do most programs; others keep its
// last two digits. No table is older than 1980.
std::string DateText(const XBaseTable& table) {
  const int century = table.year() < 80 ? 2000 : 1900;
  char text[32];
  snprintf(text, sizeof(text), "%04d-%02d-%02d", century + table.year(), table.month(),
           table.day());
  return text;
}

// --- Showing -------------------------------------------------------------------------------------

// Writes a table in one of the forms.
class TableWriter {
 public:
  TableWriter(XBaseTable& shown, std::ostream& output, std::ostream& error_output)
      : table(shown), fields(FieldsOf(shown)), out(output), columns(fields), errors(error_output) {}
  virtual ~TableWriter() = default;
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  virtual void Header() = 0;
  virtual void BeginRecords() = 0;
  virtual void Record() = 0;
  virtual void End() = 0;

  // Records show only these fields, in this order. Returns false, with the error reported, if the
  // table has not all of them.
  bool Choose(const std::vector<std::string>& names) {
    if (!names.empty()) columns.clear();
    for (const std::string& name : names) {
      const auto found = std::find_if(fields.begin(), fields.end(), [&](XBaseField* field) {
        return strlen(field->name()) == name.size() &&
               memcmpi(field->name(), name.data(), name.size()) == 0;
      });
      if (found == fields.end()) {
        errors << "zpdbf: " << View(table.path()) << " has no field '" << name << "'\n";
        return false;
      }
      columns.push_back(*found);
    }
    return true;
  }

  int Records(const DumpRequest& request) {
    BeginRecords();
    const int last = std::min(request.last_record, table.record_count());
    for (int i = request.first_record; i <= last; i++) {
      if (table.Goto(i)) {
        Record();
      } else {
        Failed();
        if (++unreadable == most_unreadable) break;
      }
    }
    return failed ? dump_failed : dump_done;
  }

 protected:
  // The field's text in the current record, without the blanks after it unless it is a memo. Null,
  // with the error reported, for a memo that can't be read.
  std::string_view Value(XBaseField* field) {
    const char* value = field->data();
    if (!value) {
      Failed();
      return {};
    }
    const std::string_view text = value;
    if (field->type() == XBaseField_Memo) return text;
    return text.substr(0, text.find_last_not_of(' ') + 1);
  }

  XBaseTable& table;
  const std::vector<XBaseField*> fields;
  std::ostream& out;
  std::vector<XBaseField*> columns;  // the fields of records

 private:
  // Stop after this many: a damaged header may count a thousand million records past the end.
  static constexpr int most_unreadable = 10;

  void Failed() {
    errors << "zpdbf: " << ErrorWithReason(table.error()) << "\n";
    failed = true;
  }

  std::ostream& errors;
  int unreadable = 0;
  bool failed = false;
};

class TextWriter : public TableWriter {
 public:
  using TableWriter::TableWriter;

  void Header() override {
    char line[160];
    out << "table          " << View(table.path()) << "\n";
    snprintf(line, sizeof(line), "version        0x%02X\n", table.version());
    out << line << "last update    " << DateText(table) << "\n"
        << "records        " << table.record_count() << "\n"
        << "header length  " << table.header_length() << "\n"
        << "record length  " << table.record_length() << "\n";
    if (table.version() == 0x83) {
      out << "memos          " << View(table.memo_path()) << "\n"
          << "next block     " << table.next_memo_block() << "\n";
    }
    out << "\nfield        type  length  decimals  offset\n";
    int offset = 1;
    for (XBaseField* field : fields) {
      snprintf(line, sizeof(line), "%-11s  %-4c  %6d  %8d  %6d\n", field->name(),
               type_letters[field->type()], field->length(), field->decimalcount(), offset);
      out << line;
      offset += field->length();
    }
  }
  void BeginRecords() override {
    for (XBaseField* field : columns) width = std::max(width, strlen(field->name()));
  }
  void Record() override {
    out << "\nrecord " << table.record_number() << (table.deleted() ? " (deleted)" : "") << "\n";
    for (XBaseField* field : columns) {
      out << "  " << field->name() << std::string(width - strlen(field->name()) + 2, ' ');
      for (char c : Value(field)) WriteCharacter(c);
      out << "\n";
    }
  }
  void End() override {}

 private:
  // Further lines of a memo are printed below the first. Control characters are replaced, so that a
  // table sends no commands to a terminal.
  void WriteCharacter(char c) {
    if (c == '\n') {
      out << "\n" << std::string(width + 4, ' ');
    } else if (iscntrl(static_cast<unsigned char>(c))) {
      out << '?';
    } else {
      out << c;
    }
  }

  size_t width = 0;
};

// A CSV file has one kind of rows: either fields or records.
class CsvWriter : public TableWriter {
 public:
  using TableWriter::TableWriter;

  void Header() override {
    out << "field,type,length,decimals\n";
    for (XBaseField* field : fields) {
      WriteCsvCell(out, field->name());
      out << "," << type_letters[field->type()] << "," << field->length() << ","
          << field->decimalcount() << "\n";
    }
  }
  void BeginRecords() override {
    out << "record,deleted";
    for (XBaseField* field : columns) {
      out << ",";
      WriteCsvCell(out, field->name());
    }
    out << "\n";
  }
  void Record() override {
    out << table.record_number() << "," << (table.deleted() ? 1 : 0);
    for (XBaseField* field : columns) {
      out << ",";
      WriteCsvCell(out, Value(field));
    }
    out << "\n";
  }
  void End() override {}
};

// True if the text is a number in JSON, which has no "+1", "01" or ".5".
bool IsJsonNumber(std::string_view text) {
  size_t i = !text.empty() && text[0] == '-';
  const auto digits = [&] {
    const size_t start = i;
    while (i < text.size() && zp_isdigit(text[i])) i++;
    return i - start;
  };
  const size_t first = i;
  const size_t whole = digits();
  if (whole == 0 || (whole > 1 && text[first] == '0')) return false;
  if (i < text.size() && text[i] == '.') {
    i++;
    if (digits() == 0) return false;
  }
  return i == text.size();
}

class JsonWriter : public TableWriter {
 public:
  using TableWriter::TableWriter;

  void Header() override {
    out << "{\"table\": ";
    WriteJsonText(out, View(table.path()));
    out << ", \"version\": " << table.version() << ", \"last_update\": \"" << DateText(table)
        << "\", \"record_count\": " << table.record_count()
        << ", \"header_length\": " << table.header_length()
        << ", \"record_length\": " << table.record_length();
    if (table.version() == 0x83) {
      out << ", \"memos\": ";
      WriteJsonText(out, View(table.memo_path()));
      out << ", \"next_block\": " << table.next_memo_block();
    }
    out << ",\n \"fields\": [";
    const char* between = "\n  ";
    for (XBaseField* field : fields) {
      out << between << "{\"name\": ";
      WriteJsonText(out, field->name());
      out << ", \"type\": \"" << type_letters[field->type()]
          << "\", \"length\": " << field->length() << ", \"decimals\": " << field->decimalcount()
          << "}";
      between = ",\n  ";
    }
    out << "]";
  }
  void BeginRecords() override {
    out << ",\n \"records\": [";
    with_records = true;
  }
  void Record() override {
    out << between_records << "{\"record\": " << table.record_number()
        << ", \"deleted\": " << (table.deleted() ? "true" : "false") << ", \"values\": {";
    const char* between = "";
    for (XBaseField* field : columns) {
      out << between;
      WriteJsonText(out, field->name());
      out << ": ";
      WriteValue(field);
      between = ", ";
    }
    out << "}}";
    between_records = ",\n  ";
  }
  void End() override { out << (with_records ? "]}\n" : "}\n"); }

 private:
  void WriteValue(XBaseField* field) {
    const std::string_view text = Value(field);
    switch (field->type()) {
      case XBaseField_Numeric:
        if (text.empty()) {
          out << "null";
        } else if (IsJsonNumber(text)) {
          out << text;
        } else {
          WriteJsonText(out, text);
        }
        return;
      case XBaseField_Logical:
        out << (text.empty() || !strchr("TtYyFfNn", text[0]) ? "null"
                : strchr("TtYy", text[0])                    ? "true"
                                                             : "false");
        return;
      default: break;
    }
    if (!text.data() || (text.empty() && field->type() == XBaseField_Date)) {
      out << "null";
    } else {
      WriteJsonText(out, text);
    }
  }

  const char* between_records = "\n  ";
  bool with_records = false;
};

// --- Checking ------------------------------------------------------------------------------------

class TableChecker {
 public:
  TableChecker(XBaseTable& checked, const std::string& path, std::ostream& output)
      : table(checked), fields(FieldsOf(checked)), file(path, std::ios::binary), out(output) {
    const std::string memo_path(View(checked.memo_path()));
    std::error_code unknown;
    if (checked.version() == 0x83 && std::filesystem::is_regular_file(memo_path, unknown))
      memo_file.open(memo_path, std::ios::binary);
  }

  int Run() {
    CheckHeader();
    CheckFields();
    CheckLength();
    CheckMemoHeader();
    CheckRecords();
    CheckOverlaps();
    if (untold > 0) out << "and " << untold << " more\n";
    if (problems > 0) {
      out << problems << (problems == 1 ? " problem\n" : " problems\n");
      return dump_failed;
    }
    out << "ok: " << table.record_count() << " records, " << deleted << " deleted, " << memos.size()
        << " memos\n";
    return dump_done;
  }

 private:
  struct MemoExtent {
    long start;  // blocks
    long end;    // exclusive
    int record;
  };
  static constexpr int most_lines = 100;
  static constexpr long block_length = 512;

  void Tell(const char* kind, const std::string& text) {
    if (++lines > most_lines)
      untold++;
    else
      out << kind << text << "\n";
  }
  void Problem(const std::string& text) {
    problems++;
    Tell("problem: ", text);
  }
  void Note(const std::string& text) { Tell("note: ", text); }

  static long LengthOf(std::ifstream& stream) {
    stream.clear();
    stream.seekg(0, std::ios::end);
    return static_cast<long>(stream.tellg());
  }
  // The byte at a position, -1 past the end.
  static int ByteAt(std::ifstream& stream, long place) {
    stream.clear();
    stream.seekg(place);
    return stream.get();
  }

  void CheckHeader() {
    const int first = ByteAt(file, 0);
    bool has_memos = false;
    for (XBaseField* field : fields) has_memos |= field->type() == XBaseField_Memo;
    if ((first == 0x83) != has_memos)
      Note(has_memos ? "version 0x03 with memo fields" : "version 0x83 without memo fields");
    if (table.month() < 1 || table.month() > 12 || table.day() < 1 || table.day() > 31)
      Note("the last update is no date: " + DateText(table));
    if ((table.header_length() - 33) % 32 != 0)
      Note("the header has " + std::to_string((table.header_length() - 33) % 32) +
           " bytes after its fields");
    if (ByteAt(file, 32 + 32L * static_cast<long>(fields.size())) != 0x0D)
      Note("no end mark after the fields");
    int length = 1;
    for (XBaseField* field : fields) length += field->length();
    if (length != table.record_length())
      Problem("records have " + std::to_string(table.record_length()) + " bytes, their fields " +
              std::to_string(length));
  }

  void CheckFields() {
    std::vector<std::string> names;
    for (XBaseField* field : fields) {
      const std::string name = field->name();
      if (name.empty()) Note("a field without a name");
      if (std::find(names.begin(), names.end(), name) != names.end())
        Note("two fields are named " + name);
      names.push_back(name);
      const int usual = field->type() == XBaseField_Date      ? 8
                        : field->type() == XBaseField_Logical ? 1
                        : field->type() == XBaseField_Memo    ? 10
                                                              : field->length();
      if (field->length() != usual || field->length() == 0)
        Note("field " + name + " has " + std::to_string(field->length()) + " bytes");
    }
  }

  void CheckLength() {
    const long end =
        table.header_length() + static_cast<long>(table.record_count()) * table.record_length();
    const long length = LengthOf(file);
    if (length < end) {
      const long whole = table.record_length() > 0
                             ? std::max(0L, length - table.header_length()) / table.record_length()
                             : 0;
      Problem("the file ends after " + std::to_string(whole) + " of " +
              std::to_string(table.record_count()) + " records");
    } else if (ByteAt(file, end) != 0x1A) {
      Note("no end mark after the records");
    } else if (length > end + 1) {
      Note(std::to_string(length - end - 1) + " bytes after the end mark");
    }
  }

  void CheckMemoHeader() {
    if (!memo_file.is_open()) return;
    if (table.next_memo_block() < 1)
      Problem("the next free memo block is " + std::to_string(table.next_memo_block()));
    memo_length = LengthOf(memo_file);
    const long used = (memo_length - 1) / block_length;
    // In a new memo file the end mark is in the first free block.
    if (table.next_memo_block() >= 1 && used > table.next_memo_block())
      Note("the memo file goes on after the next free block");
  }

  void CheckRecords() {
    int unreadable = 0;
    for (int i = 1; i <= table.record_count(); i++) {
      if (!table.Goto(i)) {
        // CheckLength has reported a file that is too short. Of other reasons only the first is
        // reported, because a damaged header may count millions of records.
        if (problems == 0) Problem("record " + std::to_string(i) + ": " + ErrorText());
        if (++unreadable == 10) return;
        continue;
      }
      deleted += table.deleted() != 0;
      const long place = table.header_length() + (i - 1L) * table.record_length();
      const int flag = table.deleted() ? '*' : ByteAt(file, place);
      if (flag != '*' && flag != ' ')
        Note(Where(i) + "the deletion flag is byte " + std::to_string(flag));
      for (XBaseField* field : fields) CheckValue(i, field);
    }
  }

  void CheckValue(int record, XBaseField* field) {
    const std::string where = Where(record) + field->name() + " is ";
    if (field->type() == XBaseField_Memo) return CheckMemo(record, field);
    const std::string_view text = field->data();
    if (IsBlank(text)) return;
    if (field->type() == XBaseField_Numeric && !IsNumber(text))
      Note(where + "no number: '" + std::string(text) + "'");
    if (field->type() == XBaseField_Date && !IsDate(text))
      Note(where + "no date: '" + std::string(text) + "'");
    if (field->type() == XBaseField_Logical &&
        text.find_first_not_of("TtYyFfNn? ") != std::string_view::npos)
      Note(where + "neither true nor false: '" + std::string(text) + "'");
  }

  void CheckMemo(int record, XBaseField* field) {
    const std::string where = Where(record) + "memo " + field->name() + " ";
    unsigned char number[256];
    // The block number is the text that the field writes into a record.
    field->Write(number);
    const std::string text(reinterpret_cast<char*>(number), static_cast<size_t>(field->length()));
    if (IsBlank(text)) return;
    const size_t digits = text.find_first_not_of(' ');
    if (text.find_first_not_of("0123456789 ", digits) != std::string::npos)
      return Problem(where + "has no number: '" + text + "'");
    const long block = LeadingNumber(text.c_str());
    if (block == 0) return;
    if (block >= table.next_memo_block())
      return Problem(where + "begins at block " + std::to_string(block) +
                     ", which is said to be free");
    char* memo = nullptr;
    int length = 0;
    const bool read = table.ReadMemoBlock(static_cast<int>(block), &memo, &length);
    delete[] memo;
    if (!read) return Problem(where + "can't be read: " + ErrorText());
    const long end = block * block_length + length;
    if (ByteAt(memo_file, end) != 0x1A) return Problem(where + "is cut by the end of the file");
    memos.push_back({block, end / block_length + 1, record});
  }

  // Records that were copied share a memo. That works as well as two memos until one of them is
  // packed.
  void CheckOverlaps() {
    std::sort(memos.begin(), memos.end(), [](const MemoExtent& a, const MemoExtent& b) {
      return a.start != b.start ? a.start < b.start : a.record < b.record;
    });
    for (size_t i = 1; i < memos.size(); i++) {
      const MemoExtent& one = memos[i - 1];
      const MemoExtent& two = memos[i];
      const std::string both =
          "records " + std::to_string(one.record) + " and " + std::to_string(two.record);
      if (one.start == two.start)
        Note(both + " share a memo");
      else if (one.end > two.start)
        Problem(both + " have memos that run into each other");
    }
  }

  static std::string Where(int record) { return "record " + std::to_string(record) + ": "; }
  std::string ErrorText() const { return ErrorWithReason(table.error()); }

  static bool IsNumber(std::string_view text) {
    const size_t end = text.find_last_not_of(' ') + 1;
    size_t i = text[0] == '-' || text[0] == '+', digits = 0, points = 0;
    for (; i < end; i++) {
      digits += zp_isdigit(text[i]);
      points += text[i] == '.';
      if (!zp_isdigit(text[i]) && text[i] != '.') return false;
    }
    return digits > 0 && points <= 1;
  }

  static bool IsDate(std::string_view text) {
    if (text.size() != 8 || text.find_first_not_of("0123456789") != std::string_view::npos)
      return false;
    const auto part = [&](size_t start, size_t count) {
      int value = 0;
      for (char c : text.substr(start, count)) value = value * 10 + (c - '0');
      return value;
    };
    const int year = part(0, 4), month = part(4, 2), day = part(6, 2);
    if (month < 1 || month > 12) return false;
    const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day >= 1 && day <= lengths[month - 1] + (month == 2 && leap ? 1 : 0);
  }

  XBaseTable& table;
  const std::vector<XBaseField*> fields;
  std::ifstream file, memo_file;
  std::ostream& out;
  std::vector<MemoExtent> memos;
  long memo_length = 0;
  int deleted = 0;
  int problems = 0;
  int lines = 0;
  int untold = 0;
};

bool OpenTable(XBaseTable& table, const std::string& path) {
  return table.Open(ZephPath_Data, path.data(), static_cast<int>(path.size()), FileMode_Read);
}

}  // namespace

int ShowTable(const DumpRequest& request, std::ostream& out, std::ostream& errors) {
  DumpApplication application;
  XBaseTable table(&application);
  if (!OpenTable(table, request.path)) {
    errors << "zpdbf: " << ErrorWithReason(table.error()) << "\n";
    return dump_failed;
  }
  std::unique_ptr<TableWriter> writer;
  if (request.form == DumpForm::Csv)
    writer = std::make_unique<CsvWriter>(table, out, errors);
  else if (request.form == DumpForm::Json)
    writer = std::make_unique<JsonWriter>(table, out, errors);
  else
    writer = std::make_unique<TextWriter>(table, out, errors);
  if (!writer->Choose(request.columns)) return dump_failed;
  // With CSV the header is left out before records, because all rows of CSV are of one kind.
  if (request.header_only || request.form != DumpForm::Csv) writer->Header();
  const int status = request.header_only ? dump_done : writer->Records(request);
  writer->End();
  return status;
}

int CheckTable(const DumpRequest& request, std::ostream& out, std::ostream&) {
  DumpApplication application;
  XBaseTable table(&application);
  if (!OpenTable(table, request.path)) {
    out << "problem: " << ErrorWithReason(table.error()) << "\n";
    return dump_failed;
  }
  return TableChecker(table, request.path, out).Run();
}
