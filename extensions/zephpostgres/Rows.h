// The rows of a result of PostgreSQL, whose values are texts, and the values of a statement's
// parameters.
//
// Tested in tests/e2e/PostgreSQLTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHPOSTGRES_ROWS_H
#define ZEPH_EXTENSIONS_ZEPHPOSTGRES_ROWS_H

#include <libpq-fe.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "extensions/sql/Connection.h"

namespace zephpostgres {

using namespace zephsql;

// Types by their numbers, which never change.
enum : Oid {
  kBool = 16,
  kBytea = 17,
  kName = 19,
  kInt8 = 20,
  kInt2 = 21,
  kInt4 = 23,
  kText = 25,
  kOid = 26,
  kFloat4 = 700,
  kFloat8 = 701,
  kUnknown = 705,
  kBpchar = 1042,
  kVarchar = 1043,
  kDate = 1082,
  kNumeric = 1700
};

struct EndResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, EndResult>;

// What a type and its modifier mean for a script.
Column ColumnOf(std::string name, Oid type, int modifier);

// The rows of one result.
class ResultRows : public Rows {
 public:
  Kind kind(int column) override {
    if (PQgetisnull(result.get(), row, column)) return Kind::Null;
    return KindOf(PQftype(result.get(), column), Raw(column));
  }
  int64_t Integer(int column) override {
    return IntegerIn(Raw(column), PQftype(result.get(), column));
  }
  double Real(int column) override { return RealIn(Raw(column)); }
  std::string_view Text(int column) override {
    return TextIn(Raw(column), PQftype(result.get(), column));
  }
  bool Store(int column, const Column& of, ZPVARIABLE variable) override {
    return StoreValue(*this, column, of, variable);
  }
  void Read(int column, Cell* cell) override {
    const std::string_view text = Raw(column);
    const Oid type = PQftype(result.get(), column);
    cell->kind =
        text.empty() && PQgetisnull(result.get(), row, column) ? Kind::Null : KindOf(type, text);
    switch (cell->kind) {
      case Kind::Null: break;
      case Kind::Integer: cell->integer = IntegerIn(text, type); break;
      case Kind::Real: cell->real = RealIn(text); break;
      default: cell->text = TextIn(text, type); break;
    }
  }
  const Columns& columns() override {
    if (described.empty()) {
      for (int i = 0; i < PQnfields(result.get()); i++) {
        described.push_back(
            ColumnOf(PQfname(result.get(), i), PQftype(result.get(), i), PQfmod(result.get(), i)));
      }
    }
    return described;
  }
  void Park() override {}
  void Done() noexcept override { delete this; }

 protected:
  std::string_view Raw(int column) const {
    return {PQgetvalue(result.get(), row, column),
            static_cast<size_t>(PQgetlength(result.get(), row, column))};
  }

  Result result;
  int row = -1;

 private:
  static Kind KindOf(Oid type, std::string_view text) {
    switch (type) {
      case kBool:
      case kInt2:
      case kInt4:
      case kInt8:
      case kOid: return Kind::Integer;
      case kFloat4:
      case kFloat8: return Kind::Real;
      case kBytea: return Kind::Blob;
      case kNumeric: return IsWhole(text) ? Kind::Integer : Kind::Text;
      default: return Kind::Text;
    }
  }
  static int64_t IntegerIn(std::string_view text, Oid type) {
    if (type == kBool) return text == "t";
    int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  }
  static double RealIn(std::string_view text) {
    double value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  }
  std::string_view TextIn(std::string_view text, Oid type) {
    if (type == kBytea) return Bytea(text);
    // Eight digits, as fields of the type date have them.
    if (type != kDate || text.size() != 10 || text[4] != '-' || text[7] != '-') return text;
    text.copy(day, 4);
    text.copy(day + 4, 2, 5);
    text.copy(day + 6, 2, 8);
    return {day, sizeof day};
  }
  static bool IsWhole(std::string_view text) {
    return text.size() <= 18 && std::all_of(text.begin(), text.end(), [](char c) {
             return (c >= '0' && c <= '9') || c == '-';
           });
  }
  static int Digit(char c) { return c >= 'a' ? c - 'a' + 10 : c - '0'; }
  // "\x", and two digits for each byte.
  std::string_view Bytea(std::string_view text) {
    scratch.clear();
    for (size_t i = 2; i + 1 < text.size(); i += 2) {
      scratch += static_cast<char>(Digit(text[i]) << 4 | Digit(text[i + 1]));
    }
    return scratch;
  }

  std::string scratch;
  char day[8];
  Columns described;
};

// A result that is here as a whole: a block of a table, or what a statement has returned.
class Block final : public ResultRows {
 public:
  // With a block of that many rows others may follow; 0 means that they are all.
  Block(Result of, int block) : count(PQntuples(of.get())), is_full(block > 0 && count == block) {
    result = std::move(of);
  }
  int Next() override {
    if (row + 1 >= count) return is_full ? kMore : 0;
    row++;
    return 1;
  }
  int Go(int64_t number) override {
    if (number < 1 || number > count) return 0;
    row = static_cast<int>(number - 1);
    return 1;
  }
  int Last() override { return Go(count); }
  int64_t number() const override { return row + 1; }
  int64_t Count() override { return is_full ? -1 : count; }

 private:
  const int count;
  const bool is_full;
};

// The values of a statement's parameters, as libpq takes them.
class Parameters {
 public:
  // Whether the values can only be sent when the types are known: a text with a NUL byte, which is
  // for bytea alone, and a backslash, which is an escape there.
  static bool NeedTypes(const Values& values) {
    for (const Value& value : values) {
      if (value.kind == Kind::Blob ||
          (value.kind == Kind::Text && value.text.find('\\') != std::string::npos)) {
        return true;
      }
    }
    return false;
  }
  // types may be empty if NeedTypes returns false.
  Parameters(const Values& values, const std::vector<Oid>& types) {
    texts.reserve(values.size());
    for (size_t i = 0; i < values.size(); i++) {
      const Value& value = values[i];
      const bool is_text = value.kind == Kind::Text || value.kind == Kind::Blob;
      char number[40];
      switch (value.kind) {
        case Kind::Integer: texts.emplace_back(std::to_string(value.integer)); break;
        case Kind::Real: {
          // Columns of whole numbers refuse exponents.
          const bool whole = value.real > -1e18 && value.real < 1e18 &&
                             value.real == static_cast<double>(static_cast<int64_t>(value.real));
          const auto [end, error] = whole
                                        ? std::to_chars(number, number + sizeof number, value.real,
                                                        std::chars_format::fixed)
                                        : std::to_chars(number, number + sizeof number, value.real);
          texts.emplace_back(number, end);
          break;
        }
        default: texts.emplace_back(is_text ? value.text : ""); break;
      }
      pointers.push_back(value.kind == Kind::Null ? nullptr : texts.back().c_str());
      lengths.push_back(static_cast<int>(texts.back().size()));
      // A text for bytea would be read as one with escapes. In other types the bytes of a binary
      // value are no text.
      const bool is_bytea = i < types.size() && types[i] == kBytea;
      formats.push_back(is_text && is_bytea);
      if (value.kind == Kind::Blob && !is_bytea) are_valid = false;
    }
  }
  int count() const { return static_cast<int>(pointers.size()); }

  std::vector<const char*> pointers;
  std::vector<int> lengths, formats;
  bool are_valid = true;

 private:
  std::vector<std::string> texts;
};

}  // namespace zephpostgres

#endif
