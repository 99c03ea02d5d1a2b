// What the types of PostgreSQL mean for scripts. Tested in tests/e2e/PostgreSQLTest.cpp.

#include "extensions/zephpostgres/Rows.h"

namespace zephpostgres {

Column ColumnOf(std::string name, Oid type, int modifier) {
  Column column;
  column.name = std::move(name);
  column.has_text = false;
  const auto number = [&column](int length, int decimals, int kind) {
    column.letter = 'N';
    column.length = length;
    column.decimals = decimals;
    column.type = kind;
  };
  switch (type) {
    case kBool:
      column.letter = 'L';
      column.length = 1;
      column.type = 2;
      column.boolean = true;
      break;
    case kInt2:
      number(6, 0, 2);
      column.least = INT16_MIN;
      column.largest = INT16_MAX;
      break;
    case kInt4:
      number(11, 0, 2);
      column.least = INT32_MIN;
      column.largest = INT32_MAX;
      break;
    case kOid:
      number(19, 0, 2);
      column.least = 0;
      column.largest = UINT32_MAX;
      break;
    case kInt8: number(19, 0, 2); break;
    case kFloat4:
    case kFloat8: number(19, 0, 3); break;
    case kNumeric:
      if (modifier < 4) {
        number(19, 0, 1);
        column.decimal = true;
      } else {
        // A number of 11 bits with a sign. numeric(5,-2) has two zeros after its digits.
        const int scale = (((modifier - 4) & 0x7FF) ^ 0x400) - 0x400;
        const int decimals = std::max(scale, 0);
        number(((modifier - 4) >> 16 & 0xFFFF) + (decimals > 0) + std::max(-scale, 0), decimals,
               decimals > 0 ? 1 : 2);
        column.decimal = true;
      }
      break;
    case kDate:
      column.letter = 'D';
      column.length = 8;
      break;
    case kVarchar:
    case kBpchar:
      column.has_text = true;
      if (modifier > 4) {
        column.letter = 'C';
        column.length = modifier - 4;
      }
      break;
    case kName:
    case kText:
    case kBytea:
    case kUnknown: column.has_text = true; break;
    default: break;
  }
  return column;
}

}  // namespace zephpostgres
